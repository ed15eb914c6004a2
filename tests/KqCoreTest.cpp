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

// Counts its own destructions.
struct Counted {
    explicit Counted(std::atomic<int>* destroyed) : m_pDestroyed(destroyed) {}
    ~Counted() { ++*m_pDestroyed; }
    std::atomic<int>* m_pDestroyed;
};

std::atomic<int> g_BlocksFreed{0};

void CountingDeleteSelf(void* p)
{
    ++g_BlocksFreed;
    KQ::CPtrRef::Deleter_t<KQ::CPtrRef>::Delete(p);
}

// A callable that counts calls; its shared Counted dies with the last copy.
struct CountingCallable {
    CountingCallable(std::atomic<int>* calls, std::atomic<int>* destroyed)
        : m_pCalls(calls), m_Guard(std::make_shared<Counted>(destroyed))
    {
    }
    void operator()() const { ++*m_pCalls; }
    std::atomic<int>* m_pCalls;
    std::shared_ptr<Counted> m_Guard;
};

struct Worker {
    bool Step() { return ++m_Steps < 3; }
    int m_Steps = 0;
};

template <class F>
void RunThreads(int count, F body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t) {
        threads.emplace_back(body, t);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace

TEST(Atomic, CompareAndSwapIncrementAndDecrementWrap)
{
    volatile unsigned int value = 7;
    EXPECT_FALSE(KQ::Atomic::CompareAndSwap(&value, 8u, 9u));
    EXPECT_EQ(value, 7u);
    EXPECT_TRUE(KQ::Atomic::CompareAndSwap(&value, 7u, 0xFFFFFFFFu));
    EXPECT_EQ(KQ::Atomic::Increment(&value), 0u);
    EXPECT_EQ(KQ::Atomic::Decrement(&value), 0xFFFFFFFFu);
    value = 1;
    EXPECT_EQ(KQ::Atomic::Decrement(&value), 0u);
    EXPECT_EQ(value, 0u);
}

TEST(PtrRef, TheLastReleaseFreesObjectAndBlockOnce)
{
    std::atomic<int> destroyed{0};
    g_BlocksFreed = 0;
    KQ::CPtrRef* block = KQ::CPtrRef::Create(new Counted(&destroyed));
    block->m_pDeleteSelf = &CountingDeleteSelf;
    EXPECT_EQ(block->m_RefCount, 1u);
    KQ::Atomic::Increment(&block->m_RefCount);
    block->DelRef();
    EXPECT_EQ(destroyed + g_BlocksFreed, 0);
    block->DelRef();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(g_BlocksFreed, 1);
    KQ::CPtrRef::Deleter_t<Counted>::Delete(nullptr);
    KQ::CPtrRef::Deleter_t<KQ::CPtrRef>::Delete(nullptr);
}

TEST(Functor, MemberFunctorCallsTheObjectWithoutOwningIt)
{
    EXPECT_EQ(sizeof(KQ::CFunctor<bool ()>), 3 * sizeof(void*));
    EXPECT_FALSE(std::is_polymorphic<KQ::CFunctor<void ()>>::value);
    KQ::CFunctor<void ()>()();  // a default functor does nothing
    EXPECT_FALSE(KQ::CFunctor<bool ()>()());
    Worker worker;
    KQ::CFunctor<bool ()> step = KQ::MakeMemberFunctor<&Worker::Step>(&worker);
    EXPECT_EQ(step.m_pRef, nullptr);
    EXPECT_EQ(step.m_pObject, &worker);
    EXPECT_EQ(step.m_pWrapper, (&KQ::INTERNAL::CMemberFunctorFactory0<Worker, bool>::Wrapper<&Worker::Step>));
    {
        KQ::CFunctor<bool ()> copy(step);
        KQ::CFunctor<bool ()> assigned;
        assigned = copy;
        EXPECT_TRUE(step());
        EXPECT_TRUE(copy());
        EXPECT_FALSE(assigned());
    }
    EXPECT_EQ(worker.m_Steps, 3);
}

TEST(Functor, CopiesAndAssignmentsKeepCountsRight)
{
    std::atomic<int> calls{0}, destroyedA{0}, destroyedB{0};
    KQ::CFunctor<void ()> a = KQ::MakeFunctor(CountingCallable(&calls, &destroyedA));
    KQ::CFunctor<void ()> sharesA(a);
    KQ::CPtrRef* blockA = a.m_pRef;
    EXPECT_EQ(sharesA.m_pRef, blockA);
    EXPECT_EQ(blockA->m_RefCount, 2u);

    KQ::CFunctor<void ()>& alias = a;
    a = alias;  // self-assignment
    sharesA = a;  // between two holders of one block
    EXPECT_EQ(blockA->m_RefCount, 2u);

    KQ::CFunctor<void ()> b = KQ::MakeFunctor(CountingCallable(&calls, &destroyedB));
    sharesA = b;
    EXPECT_EQ(blockA->m_RefCount, 1u);
    EXPECT_EQ(b.m_pRef->m_RefCount, 2u);
    a = b;
    EXPECT_EQ(destroyedA, 1);
    a = KQ::CFunctor<void ()>();
    EXPECT_EQ(b.m_pRef->m_RefCount, 2u);
    b();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(destroyedB, 0);
}

TEST(Functor, ConcurrentCopiesFreeEachObjectExactlyOnce)
{
    constexpr int kObjects = 200, kThreads = 4, kRounds = 20;
    std::atomic<int> calls{0}, destroyed{0};
    std::vector<KQ::CFunctor<void ()>> originals;
    for (int i = 0; i < kObjects; ++i) {
        originals.push_back(KQ::MakeFunctor(CountingCallable(&calls, &destroyed)));
    }
    std::vector<std::vector<KQ::CFunctor<void ()>>> held(kThreads);
    RunThreads(kThreads, [&](int t) {
        for (int round = 0; round < kRounds; ++round) {
            for (const KQ::CFunctor<void ()>& original : originals) {
                KQ::CFunctor<void ()> copy(original);
                copy();
                held[t].push_back(copy);
            }
            held[t].resize(held[t].size() / 2);
        }
    });
    EXPECT_EQ(destroyed, 0);
    originals.clear();
    RunThreads(kThreads, [&held](int t) { held[t].clear(); });
    EXPECT_EQ(calls, kObjects * kThreads * kRounds);
    EXPECT_EQ(destroyed, kObjects);
}

TEST(SliceAndUncopyable, LayoutAndCopyRules)
{
    EXPECT_EQ(offsetof(KQ::CSlice<unsigned char>, m_pData), sizeof(void*));
    EXPECT_EQ(KQ::CSlice<unsigned char>().m_Length, 0u);
    EXPECT_FALSE(std::is_copy_constructible<KQ::CUncopyable>::value);
    EXPECT_FALSE(std::is_copy_assignable<KQ::CUncopyable>::value);
}
