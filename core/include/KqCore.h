// KqCore.h: the small building blocks the rest of the library is written in.
//
// - CSlice<T>: a view of a run of elements. Every byte transfer in the
//   library takes a CSlice<unsigned char> and returns the bytes moved; no
//   operation changes a slice or owns its bytes.
// - CFunctor<R ()>: a copyable callable three words wide, called as
//   m_pWrapper(m_pObject). Copies share an optional CPtrRef block that owns
//   the state behind m_pObject. No virtual operations, no allocation per call.
// - INTERNAL::CMemberFunctorFactory0<C, R>: makes a functor that calls a
//   member function of an object it does not own (MakeMemberFunctor).
// - CPtrRef: a heap reference-count block with the deleters of its object
//   and of itself; whoever drops the last reference frees both.
// - Atomic: sequentially consistent compare-and-swap, increment and
//   decrement on unsigned int, lock-free.
// - CUncopyable: private base of classes whose objects must not be copied.
//
// Thread-safety: reference counts change only through Atomic, so copies of
// one functor may be made and destroyed on different threads at once;
// exactly one thread frees the shared object. A single slice or functor
// object is plain data and must not be assigned while another thread reads it.
#pragma once

#include "KqExport.h"

#include <cstddef>
#include <type_traits>
#include <utility>

namespace KQ {

// A view of m_Length elements starting at m_pData. The leading word is never
// read or written by the library's operations.
template <class T>
struct CSlice {
    void* m_pReserved;
    T* m_pData;
    size_t m_Length;

    // A null view of length 0.
    CSlice() : m_pReserved(nullptr), m_pData(nullptr), m_Length(0) {}
    // A view of length elements at data; the caller keeps them alive.
    CSlice(T* data, size_t length) : m_pReserved(nullptr), m_pData(data), m_Length(length) {}
};

namespace Atomic {

// Atomically stores desired at p if the value there equals expected; true if
// it was replaced. A full memory barrier on both outcomes.
template <class T>
KQ_API bool CompareAndSwap(volatile T* p, T expected, T desired);

// Adds 1 modulo 2^32 through a compare-and-swap loop; returns the new value.
template <class T>
KQ_API T Increment(volatile T* p);

// Subtracts 1 modulo 2^32 through a compare-and-swap loop; returns the new
// value (0 tells the caller it removed the last reference).
template <class T>
KQ_API T Decrement(volatile T* p);

// Only the unsigned int forms exist; they are exported by the library.
extern template KQ_API bool CompareAndSwap<unsigned int>(volatile unsigned int*, unsigned int, unsigned int);
extern template KQ_API unsigned int Increment<unsigned int>(volatile unsigned int*);
extern template KQ_API unsigned int Decrement<unsigned int>(volatile unsigned int*);

}  // namespace Atomic

// A reference-count block, always on the heap. It starts with m_RefCount 1
// (the creator's reference); holders add one with Atomic::Increment and drop
// one with DelRef(). The last DelRef() calls m_pDeleteSelf(this), which
// calls m_pDelete(m_pObject) and then frees the block. Counts are not checked
// for overflow: dropping a reference never taken is a caller error.
class KQ_API CPtrRef {
public:
    // Delete(p): destroys and frees the T at p; does nothing for null. An
    // exception thrown by the destructor ends the process.
    template <class T>
    struct Deleter_t {
        static void Delete(void* p) noexcept { delete static_cast<T*>(p); }
    };

    void* m_pObject;
    unsigned int m_RefCount;
    void (*m_pDelete)(void*);
    void (*m_pDeleteSelf)(void*);

    // Drops one reference; the last one frees the object and then the block,
    // which must not be touched afterwards.
    void DelRef();

    // Makes a block that owns object, with a count of 1.
    template <class T>
    static CPtrRef* Create(T* object)
    {
        return new CPtrRef{object, 1u, &Deleter_t<T>::Delete, &Deleter_t<CPtrRef>::Delete};
    }
};

// Destroying a block frees its object first (m_pDelete), then the block.
template <>
KQ_API void CPtrRef::Deleter_t<CPtrRef>::Delete(void* p) noexcept;

template <class Signature>
class CFunctor;

// A callable with no arguments returning R. A call is m_pWrapper(m_pObject).
// A default-constructed functor returns R() (nothing for void, false for
// bool) and owns nothing.
template <class R>
class CFunctor<R ()> {
public:
    typedef R (*Wrapper_t)(const void* object);

    CFunctor() noexcept : m_pWrapper(&ReturnDefault), m_pRef(nullptr), m_pObject(nullptr) {}

    // Takes over one reference of ref (which may be null); wrapper must not
    // be null.
    CFunctor(Wrapper_t wrapper, CPtrRef* ref, const void* object) noexcept
        : m_pWrapper(wrapper), m_pRef(ref), m_pObject(object)
    {
    }

    CFunctor(const CFunctor& other) noexcept
        : m_pWrapper(other.m_pWrapper), m_pRef(other.m_pRef), m_pObject(other.m_pObject)
    {
        AddRef(m_pRef);
    }

    // Shares the source's block; the count is untouched when both already
    // share one block (including self-assignment).
    CFunctor& operator=(const CFunctor& other) noexcept
    {
        m_pWrapper = other.m_pWrapper;
        m_pObject = other.m_pObject;
        if (m_pRef != other.m_pRef) {
            CPtrRef* old = m_pRef;
            m_pRef = other.m_pRef;
            AddRef(m_pRef);
            if (old != nullptr) {
                old->DelRef();
            }
        }
        return *this;
    }

    ~CFunctor()
    {
        if (m_pRef != nullptr) {
            m_pRef->DelRef();
        }
    }

    R operator()() const { return m_pWrapper(m_pObject); }

    Wrapper_t m_pWrapper;
    CPtrRef* m_pRef;
    const void* m_pObject;

private:
    static void AddRef(CPtrRef* ref) noexcept
    {
        if (ref != nullptr) {
            Atomic::Increment(&ref->m_RefCount);
        }
    }
    static R ReturnDefault(const void*) { return R(); }
};

namespace INTERNAL {

// Makes functors that call the member function M of an object of class C
// that the functor does not own; the object must outlive every copy.
template <class C, class R>
class KQ_API CMemberFunctorFactory0 {
public:
    template <R (C::*M)()>
    static R Wrapper(const void* object)
    {
        return (static_cast<C*>(const_cast<void*>(object))->*M)();
    }

    template <R (C::*M)()>
    static CFunctor<R ()> Create(C* object)
    {
        return CFunctor<R ()>(&Wrapper<M>, nullptr, object);
    }
};

template <class M>
struct MemberTraits;
template <class C, class R>
struct MemberTraits<R (C::*)()> {
    typedef C Class_t;
    typedef R Result_t;
};

template <class F>
struct COwnedCallable {
    typedef decltype(std::declval<F&>()()) Result_t;
    static Result_t Call(const void* object) { return (*static_cast<F*>(const_cast<void*>(object)))(); }
};

}  // namespace INTERNAL

// Returns a functor that owns a copy of callable through a CPtrRef block
// shared by all its copies; the copy is freed with the last of them.
template <class F>
CFunctor<typename INTERNAL::COwnedCallable<std::decay_t<F>>::Result_t ()> MakeFunctor(F&& callable)
{
    typedef std::decay_t<F> Callable_t;
    Callable_t* copy = new Callable_t(std::forward<F>(callable));
    return CFunctor<typename INTERNAL::COwnedCallable<Callable_t>::Result_t ()>(
        &INTERNAL::COwnedCallable<Callable_t>::Call, CPtrRef::Create(copy), copy);
}

// Returns a non-owning functor that calls (object->*M)(); it allocates
// nothing and touches no count. Example: MakeMemberFunctor<&CWorker::Step>(this).
template <auto M>
CFunctor<typename INTERNAL::MemberTraits<decltype(M)>::Result_t ()> MakeMemberFunctor(
    typename INTERNAL::MemberTraits<decltype(M)>::Class_t* object)
{
    typedef INTERNAL::MemberTraits<decltype(M)> Traits_t;
    return INTERNAL::CMemberFunctorFactory0<typename Traits_t::Class_t, typename Traits_t::Result_t>::template Create<M>(
        object);
}

// Base of classes whose objects must not be copied or assigned; derive
// privately.
class CUncopyable {
public:
    CUncopyable() = default;
    CUncopyable(const CUncopyable&) = delete;
    CUncopyable& operator=(const CUncopyable&) = delete;
};

}  // namespace KQ
