// Tests of the core primitives: atomics, reference-count blocks, functors,
// slices and the uncopyable base.
#include "KqCore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

// Counts how often objects of this type are destroyed.
struct Counted {
    explicit Counted(std::atomic<int>* destroyed) : m_pDestroyed(destroyed) {}
    ~Counted() { ++*m_pDestroyed; }
    std::atomic<int>* m_pDestroyed;
};

std::atomic<int> g_BlocksFreed{0};

// A self deleter that counts before freeing the block the usual way.
void CountingDeleteSelf(void* p)
{
    ++g_BlocksFreed;
    KQ::CPtrRef::Deleter_t<KQ::CPtrRef>::Delete(p);
}

KQ::CPtrRef* MakeCountedBlock(std::atomic<int>* destroyed)
{
    KQ::CPtrRef* block = KQ::CPtrRef::Create(new Counted(destroyed));
    block->m_pDeleteSelf = &CountingDeleteSelf;
    return block;
}

class Worker {
public:
    bool Step()
    {
        ++m_Steps;
        return m_Steps < 3;
    }
    int m_Steps = 0;
};

// A callable that counts its calls and its destructions.
struct CountingCallable {
    CountingCallable(std::atomic<int>* calls, std::atomic<int>* destroyed) : m_pCalls(calls), m_Guard(std::make_shared<Counted>(destroyed)) {}
    void operator()() const { ++*m_pCalls; }
    std::atomic<int>* m_pCalls;
    std::shared_ptr<Counted> m_Guard;
};

}  // namespace

TEST(Atomic, CompareAndSwapReplacesOnlyTheExpectedValue)
{
    volatile unsigned int value = 7;
    EXPECT_FALSE(KQ::Atomic::CompareAndSwap(&value, 8u, 9u));
    EXPECT_EQ(value, 7u);
    EXPECT_TRUE(KQ::Atomic::CompareAndSwap(&value, 7u, 9u));
    EXPECT_EQ(value, 9u);
    EXPECT_TRUE(KQ::Atomic::CompareAndSwap(&value, 9u, 9u));
    EXPECT_EQ(value, 9u);
}

TEST(Atomic, IncrementAndDecrementReturnTheNewValueAndWrap)
{
    struct Case {
        unsigned int start;
        bool increment;
        unsigned int expected;
    };
    const Case cases[] = {
        {0xFFFFFFFFu, true, 0u}, {0u, true, 1u},        {41u, true, 42u},
        {0u, false, 0xFFFFFFFFu}, {1u, false, 0u},      {0x80000000u, false, 0x7FFFFFFFu},
    };
    for (const Case& c : cases) {
        volatile unsigned int value = c.start;
        const unsigned int result = c.increment ? KQ::Atomic::Increment(&value) : KQ::Atomic::Decrement(&value);
        EXPECT_EQ(result, c.expected) << c.start;
        EXPECT_EQ(value, c.expected);
    }
}

TEST(Atomic, ConcurrentIncrementsAndDecrementsLoseNothing)
{
    volatile unsigned int value = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&value, t] {
            for (int i = 0; i < 100000; ++i) {
                if (t % 2 == 0) {
                    KQ::Atomic::Increment(&value);
                    KQ::Atomic::Increment(&value);
                } else {
                    KQ::Atomic::Decrement(&value);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(value, 200000u);
}

TEST(PtrRef, SingleHolderFreesObjectThenBlockOnce)
{
    std::atomic<int> destroyed{0};
    g_BlocksFreed = 0;
    KQ::CPtrRef* block = MakeCountedBlock(&destroyed);
    EXPECT_EQ(block->m_RefCount, 1u);
    block->DelRef();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(g_BlocksFreed, 1);
}

TEST(PtrRef, FirstOfTwoReleasesDeletesNothing)
{
    std::atomic<int> destroyed{0};
    g_BlocksFreed = 0;
    KQ::CPtrRef* block = MakeCountedBlock(&destroyed);
    KQ::Atomic::Increment(&block->m_RefCount);
    block->DelRef();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(g_BlocksFreed, 0);
    EXPECT_EQ(block->m_RefCount, 1u);
    block->DelRef();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(g_BlocksFreed, 1);
}

TEST(PtrRef, DeletersIgnoreNull)
{
    KQ::CPtrRef::Deleter_t<Counted>::Delete(nullptr);
    KQ::CPtrRef::Deleter_t<KQ::CPtrRef>::Delete(nullptr);
    SUCCEED();
}

TEST(Functor, IsThreeWordsWithoutVirtuals)
{
    EXPECT_EQ(sizeof(KQ::CFunctor<bool ()>), 3 * sizeof(void*));
    EXPECT_EQ(sizeof(KQ::CFunctor<void ()>), 3 * sizeof(void*));
    EXPECT_FALSE(std::is_polymorphic<KQ::CFunctor<void ()>>::value);
    EXPECT_EQ(sizeof(KQ::CPtrRef), 4 * sizeof(void*));
    EXPECT_FALSE(std::is_polymorphic<KQ::CPtrRef>::value);
}

TEST(Functor, DefaultConstructedIsHarmless)
{
    KQ::CFunctor<void ()> nothing;
    nothing();
    EXPECT_EQ(nothing.m_pRef, nullptr);
    EXPECT_EQ(nothing.m_pObject, nullptr);
    EXPECT_NE(nothing.m_pWrapper, nullptr);
    KQ::CFunctor<bool ()> no;
    EXPECT_FALSE(no());
}

TEST(Functor, MemberFunctorCallsTheObjectWithoutOwningIt)
{
    Worker worker;
    KQ::CFunctor<bool ()> step = KQ::MakeMemberFunctor<&Worker::Step>(&worker);
    EXPECT_EQ(step.m_pRef, nullptr);
    EXPECT_EQ(step.m_pObject, &worker);
    EXPECT_EQ(step.m_pWrapper, (&KQ::INTERNAL::CMemberFunctorFactory0<Worker, bool>::Wrapper<&Worker::Step>));
    EXPECT_TRUE(step());
    {
        KQ::CFunctor<bool ()> copy(step);
        EXPECT_TRUE(copy());
        KQ::CFunctor<bool ()> assigned;
        assigned = copy;
        EXPECT_FALSE(assigned());
    }
    EXPECT_EQ(worker.m_Steps, 3);
}

TEST(Functor, OwnedCallableIsSharedByCopiesAndFreedWithTheLast)
{
    std::atomic<int> calls{0};
    std::atomic<int> destroyed{0};
    {
        KQ::CFunctor<void ()> first = KQ::MakeFunctor(CountingCallable(&calls, &destroyed));
        ASSERT_NE(first.m_pRef, nullptr);
        EXPECT_EQ(first.m_pRef->m_RefCount, 1u);
        {
            KQ::CFunctor<void ()> second(first);
            EXPECT_EQ(second.m_pRef, first.m_pRef);
            EXPECT_EQ(first.m_pRef->m_RefCount, 2u);
            second();
        }
        EXPECT_EQ(first.m_pRef->m_RefCount, 1u);
        EXPECT_EQ(destroyed, 0);
        first();
    }
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(destroyed, 1);
}

TEST(Functor, AssignmentKeepsCountsRight)
{
    std::atomic<int> calls{0};
    std::atomic<int> destroyedA{0};
    std::atomic<int> destroyedB{0};
    KQ::CFunctor<void ()> a = KQ::MakeFunctor(CountingCallable(&calls, &destroyedA));
    KQ::CFunctor<void ()> sharesA(a);
    KQ::CPtrRef* blockA = a.m_pRef;

    // Self-assignment and assignment between sharers leave the count alone.
    KQ::CFunctor<void ()>& alias = a;
    a = alias;
    EXPECT_EQ(blockA->m_RefCount, 2u);
    sharesA = a;
    EXPECT_EQ(blockA->m_RefCount, 2u);

    // Assigning another block drops the old one and takes the new one.
    KQ::CFunctor<void ()> b = KQ::MakeFunctor(CountingCallable(&calls, &destroyedB));
    sharesA = b;
    EXPECT_EQ(blockA->m_RefCount, 1u);
    EXPECT_EQ(b.m_pRef->m_RefCount, 2u);
    a = b;
    EXPECT_EQ(destroyedA, 1);
    EXPECT_EQ(destroyedB, 0);

    // Assigning a functor that owns nothing drops the reference.
    a = KQ::CFunctor<void ()>();
    EXPECT_EQ(a.m_pRef, nullptr);
    EXPECT_EQ(b.m_pRef->m_RefCount, 2u);
    a();
    EXPECT_EQ(calls, 0);
}

TEST(Functor, ConcurrentCopiesFreeEachObjectExactlyOnce)
{
    constexpr int kObjects = 200;
    constexpr int kThreads = 4;
    std::atomic<int> calls{0};
    std::atomic<int> destroyed{0};
    std::vector<KQ::CFunctor<void ()>> originals;
    for (int i = 0; i < kObjects; ++i) {
        originals.push_back(KQ::MakeFunctor(CountingCallable(&calls, &destroyed)));
    }
    std::vector<std::vector<KQ::CFunctor<void ()>>> held(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&originals, &held, t] {
            for (int round = 0; round < 20; ++round) {
                for (const KQ::CFunctor<void ()>& original : originals) {
                    KQ::CFunctor<void ()> copy(original);
                    copy();
                    held[t].push_back(copy);
                }
                held[t].resize(held[t].size() / 2);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(destroyed, 0);
    originals.clear();
    // Threads drop their last copies concurrently as well.
    threads.clear();
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&held, t] { held[t].clear(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(calls, kObjects * kThreads * 20);
    EXPECT_EQ(destroyed, kObjects);
}

TEST(Slice, ViewsWithoutTouchingTheLeadingWord)
{
    KQ::CSlice<unsigned char> empty;
    EXPECT_EQ(empty.m_pData, nullptr);
    EXPECT_EQ(empty.m_Length, 0u);
    unsigned char bytes[4] = {1, 2, 3, 4};
    KQ::CSlice<unsigned char> view(bytes, sizeof bytes);
    EXPECT_EQ(view.m_pData, bytes);
    EXPECT_EQ(view.m_Length, 4u);
    EXPECT_EQ(sizeof view, 3 * sizeof(void*));
    EXPECT_EQ(offsetof(KQ::CSlice<unsigned char>, m_pData), sizeof(void*));
}

namespace {
class NotCopyable : private KQ::CUncopyable {};
}  // namespace

TEST(Uncopyable, ForbidsCopiesOfDerivedClasses)
{
    EXPECT_FALSE(std::is_copy_constructible<KQ::CUncopyable>::value);
    EXPECT_FALSE(std::is_copy_assignable<KQ::CUncopyable>::value);
    EXPECT_FALSE(std::is_copy_constructible<NotCopyable>::value);
    EXPECT_FALSE(std::is_copy_assignable<NotCopyable>::value);
    EXPECT_TRUE(std::is_empty<KQ::CUncopyable>::value);
    EXPECT_FALSE(std::is_polymorphic<KQ::CUncopyable>::value);
}
