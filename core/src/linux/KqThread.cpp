// KqThread.cpp: the worker thread with its run gate and cancellation, and
// the calling thread's priority, affinity, name and sleep helpers (Linux).
#include "KqThread.h"

#include <cxxabi.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace KQ {

struct CThread::Handle_t {
    pthread_t threadId;
    CSemaphore exitSem;  // signalled when the loop has ended

    Handle_t() : threadId(0), exitSem(0) {}
};

namespace {

// CPU numbers this far and beyond do not fit the 128-byte mask.
const unsigned int CPU_LIMIT = CPU_SETSIZE;
// Signal() waits 1, 2, 4, ... 2048 ms for the thread to leave its loop.
const int SIGNAL_ROUNDS = 12;

bool IsRealTime(int policy) { return policy == SCHED_FIFO || policy == SCHED_RR; }

// Does nothing: SIGUSR1 only has to break a blocking call with EINTR.
void IgnoreSignal(int) {}

void InstallWakeHandler()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = &IgnoreSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
}

// A thread attribute set with explicit scheduling (the new thread does not
// inherit its creator's policy); false if any setting is refused.
bool SetScheduling(pthread_attr_t* attr, int policy, int priority)
{
    if (pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED) != 0 ||
        pthread_attr_setschedpolicy(attr, policy) != 0) {
        return false;
    }
    if (!IsRealTime(policy)) {
        return true;
    }
    sched_param param;
    std::memset(&param, 0, sizeof param);
    param.sched_priority = priority;
    return pthread_attr_setschedparam(attr, &param) == 0;
}

cpu_set_t MaskOf(const std::set<unsigned int>& cpus)
{
    cpu_set_t mask;
    CPU_ZERO(&mask);
    for (unsigned int cpu : cpus) {
        if (cpu < CPU_LIMIT) {
            CPU_SET(cpu, &mask);
        }
    }
    return mask;
}

// The process starts at the library's normal priority (nice -1), best
// effort; threads created later inherit it.
struct LoadTimePriority {
    LoadTimePriority() { setpriority(PRIO_PROCESS, 0, -CThread::GetNormalPriority()); }
} g_LoadTimePriority;

}  // namespace

CThread::CThread(const CFunctor<bool ()>& functor, const std::string& name, int priority, int policy)
    : m_pHandle(new Handle_t()), m_Functor(functor), m_Name(name), m_Priority(priority), m_Policy(policy),
      m_RunSem(0), m_Paused(true), m_Quit(false)
{
    Init();
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        return;
    }
    if (SetScheduling(&attr, m_Policy, m_Priority)) {
        InstallWakeHandler();
        pthread_t id;
        if (pthread_create(&id, &attr, &ThreadFunc, this) == 0) {
            m_pHandle->threadId = id;
        }
    }
    pthread_attr_destroy(&attr);
}

CThread::~CThread()
{
    if (IsValid()) {
        pthread_cancel(m_pHandle->threadId);
        Join();
    }
    delete m_pHandle;
}

void CThread::Init()
{
    m_Paused = true;
    m_Quit = false;
}

void CThread::Run()
{
    m_Paused = false;
    m_RunSem.Signal();
}

void CThread::Pause() { m_Paused = true; }

bool CThread::Cancel()
{
    if (!IsValid()) {
        return false;
    }
    m_Quit = true;
    return Signal() && Join();
}

bool CThread::Signal()
{
    if (!IsValid()) {
        return false;
    }
    unsigned long waitMs = 1;
    for (int round = 0; round < SIGNAL_ROUNDS; ++round, waitMs *= 2) {
        const int error = pthread_kill(m_pHandle->threadId, SIGUSR1);
        if (error == ESRCH) {
            return true;
        }
        if (error != 0) {
            return false;
        }
        if (m_pHandle->exitSem.Wait(waitMs)) {
            return true;
        }
    }
    return false;
}

bool CThread::Join()
{
    if (!IsValid() || pthread_join(m_pHandle->threadId, nullptr) != 0) {
        return false;
    }
    m_pHandle->threadId = 0;
    return true;
}

bool CThread::IsValid() const { return m_pHandle->threadId != 0; }

bool CThread::SetAffinity(unsigned int cpu)
{
    if (!IsValid()) {
        return false;
    }
    const cpu_set_t mask = MaskOf({cpu});
    return pthread_setaffinity_np(m_pHandle->threadId, sizeof mask, &mask) == 0;
}

void CThread::ExecuteThread()
{
    if (m_Quit) {
        return;
    }
    for (;;) {
        if (!m_Paused) {
            if (!m_Functor()) {
                Pause();
            }
        } else {
            m_RunSem.Wait();  // an interrupted wait just ends the wait
        }
        if (m_Quit) {
            return;
        }
    }
}

void CThread::EnterThread()
{
    if (!IsRealTime(GetPolicy())) {
        setpriority(PRIO_PROCESS, 0, -m_Priority);  // this thread only; best effort
    }
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
}

void CThread::ExitThread() { m_pHandle->exitSem.Signal(); }

void* CThread::ThreadFunc(void* arg)
{
    CThread* self = static_cast<CThread*>(arg);
    self->EnterThread();
    self->m_RunSem.Wait();  // the gate: nothing happens before the first Run()
    SetName(self->m_Name.empty() ? GetTypeName(typeid(*self)) : self->m_Name);
    self->ExecuteThread();
    self->ExitThread();
    return nullptr;
}

int CThread::GetPolicy() { return sched_getscheduler(0); }

int CThread::GetLowestPriority()
{
    const int policy = GetPolicy();
    return IsRealTime(policy) ? sched_get_priority_min(policy) : -19;
}

int CThread::GetHighestPriority()
{
    const int policy = GetPolicy();
    return IsRealTime(policy) ? sched_get_priority_max(policy) : 20;
}

int CThread::GetNormalPriority() { return IsRealTime(GetPolicy()) ? GetLowestPriority() : 1; }

int CThread::GetPriority()
{
    if (!IsRealTime(GetPolicy())) {
        return -getpriority(PRIO_PROCESS, 0);
    }
    sched_param param;
    std::memset(&param, 0, sizeof param);
    return sched_getparam(0, &param) == 0 ? param.sched_priority : GetLowestPriority();
}

int CThread::GetValidPriority(int priority)
{
    int lo = GetLowestPriority();
    int hi = GetHighestPriority();
    if (lo > hi) {
        std::swap(lo, hi);
    }
    return priority < lo ? lo : (priority > hi ? hi : priority);
}

bool CThread::Yield() { return sched_yield() == 0; }

bool CThread::Sleep(unsigned int ms)
{
    const timespec duration = {static_cast<time_t>(ms / 1000u), static_cast<long>(ms % 1000u) * 1000000L};
    return nanosleep(&duration, nullptr) == 0;
}

bool CThread::SetName(const std::string& name)
{
    return prctl(PR_SET_NAME, reinterpret_cast<unsigned long>(name.c_str()), 0, 0, 0) == 0;
}

std::string CThread::GetName()
{
    char name[16];
    std::memset(name, 0, sizeof name);
    if (prctl(PR_GET_NAME, reinterpret_cast<unsigned long>(name), 0, 0, 0) != 0) {
        return std::string();
    }
    name[sizeof name - 1] = '\0';
    return std::string(name);
}

std::string CThread::GetTypeName(const std::type_info& type)
{
    const char* mangled = type.name();
    if (*mangled == '*') {
        ++mangled;
    }
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    if (demangled == nullptr) {
        return std::string(mangled);
    }
    std::string result(demangled);
    std::free(demangled);
    return result;
}

bool CThread::SetAffinity(const std::set<unsigned int>& cpus)
{
    const cpu_set_t mask = MaskOf(cpus);
    return sched_setaffinity(0, sizeof mask, &mask) == 0;
}

bool CThread::SetDefaultAffinity()
{
    cpu_set_t mask;
    CPU_ZERO(&mask);
    if (sched_getaffinity(1, sizeof mask, &mask) != 0) {
        return false;
    }
    return sched_setaffinity(0, sizeof mask, &mask) == 0;
}

std::set<unsigned int> CThread::GetAffinity()
{
    std::set<unsigned int> cpus;
    cpu_set_t mask;
    CPU_ZERO(&mask);
    if (sched_getaffinity(0, sizeof mask, &mask) != 0) {
        return cpus;
    }
    for (unsigned int cpu = 0; cpu < CPU_LIMIT; ++cpu) {
        if (CPU_ISSET(cpu, &mask)) {
            cpus.insert(cpu);
        }
    }
    return cpus;
}

}  // namespace KQ
