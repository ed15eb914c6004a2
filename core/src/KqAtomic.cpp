// KqAtomic.cpp: compare-and-swap, and increment and decrement built on it
// (portable, compiler atomic builtins).
#include "KqCore.h"

namespace KQ {
namespace Atomic {

template <class T>
bool CompareAndSwap(volatile T* p, T expected, T desired)
{
    return __atomic_compare_exchange_n(p, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

namespace {

// Applies step to the value at p with a compare-and-swap retry loop and
// returns the value it stored.
template <class T, class Step>
T Exchange(volatile T* p, Step step)
{
    for (;;) {
        // A relaxed load is the plain read of the loop; the CAS orders it.
        const T old = __atomic_load_n(p, __ATOMIC_RELAXED);
        const T updated = step(old);
        if (CompareAndSwap(p, old, updated)) {
            return updated;
        }
    }
}

}  // namespace

template <class T>
T Increment(volatile T* p)
{
    return Exchange(p, [](T value) { return static_cast<T>(value + 1); });
}

template <class T>
T Decrement(volatile T* p)
{
    return Exchange(p, [](T value) { return static_cast<T>(value - 1); });
}

template bool CompareAndSwap<unsigned int>(volatile unsigned int*, unsigned int, unsigned int);
template unsigned int Increment<unsigned int>(volatile unsigned int*);
template unsigned int Decrement<unsigned int>(volatile unsigned int*);

}  // namespace Atomic
}  // namespace KQ
