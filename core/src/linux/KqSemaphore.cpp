// KqSemaphore.cpp: the counting semaphore on a process-private POSIX
// semaphore; timed waits block in sem_clockwait on CLOCK_MONOTONIC (Linux).
#include "KqSemaphoreWait.h"

#include "KqDeadline.h"

#include <limits.h>
#include <semaphore.h>

#include <cstring>

// glibc's report-and-abort behind assert(), declared here because <assert.h>
// hides it under NDEBUG and these two checks must stay in release builds.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line, const char* function) noexcept
    __attribute__((noreturn));

#if defined(__SANITIZE_THREAD__)
#define KQ_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KQ_TSAN 1
#endif
#endif

#ifdef KQ_TSAN
// ThreadSanitizer sees sem_post but not sem_clockwait: tell it that a unit
// taken there pairs with the post that made it.
extern "C" void __tsan_acquire(void* addr);
#endif

namespace KQ {
namespace INTERNAL {

struct CSemaphoreAccess {
    static sem_t* Get(CSemaphore& sem) { return static_cast<sem_t*>(sem.m_pSem); }
};

}  // namespace INTERNAL

namespace {

const char* const CONSTRUCTOR_NAME = "KQ::CSemaphore::CSemaphore(size_t)";

// Like assert(), but kept in release builds.
void Require(bool condition, const char* text, unsigned int line)
{
    if (!condition) {
        __assert_fail(text, __FILE__, line, CONSTRUCTOR_NAME);
    }
}

}  // namespace

namespace INTERNAL {

bool WaitNs(CSemaphore& sem, uint64_t nanoseconds)
{
    sem_t* handle = CSemaphoreAccess::Get(sem);
    // sem_clockwait takes a free unit before it looks at the deadline, so a
    // deadline already passed still takes an available unit.
    const timespec deadline = MonotonicDeadline(nanoseconds);
    if (sem_clockwait(handle, CLOCK_MONOTONIC, &deadline) != 0) {
        return false;
    }
#ifdef KQ_TSAN
    __tsan_acquire(handle);
#endif
    return true;
}

}  // namespace INTERNAL

CSemaphore::CSemaphore(size_t value) : m_pSem(new sem_t)
{
    std::memset(m_pSem, 0, sizeof(sem_t));
    Require(value <= SEM_VALUE_MAX, "value <= SEM_VALUE_MAX", __LINE__);
    const int result = sem_init(static_cast<sem_t*>(m_pSem), 0, static_cast<unsigned int>(value));
    Require(result != -1, "result != -1", __LINE__);
}

CSemaphore::~CSemaphore()
{
    sem_destroy(static_cast<sem_t*>(m_pSem));
    delete static_cast<sem_t*>(m_pSem);
}

bool CSemaphore::Wait() { return sem_wait(static_cast<sem_t*>(m_pSem)) == 0; }

bool CSemaphore::Wait(unsigned long ms)
{
    return INTERNAL::WaitNs(*this, INTERNAL::MsToNs(ms));
}

bool CSemaphore::TryWait() { return sem_trywait(static_cast<sem_t*>(m_pSem)) == 0; }

bool CSemaphore::Signal() { return sem_post(static_cast<sem_t*>(m_pSem)) == 0; }

}  // namespace KQ
