// KqThread.h: a worker thread that runs one functor again and again, and
// helpers for the calling thread's priority, affinity, name and sleep.
#pragma once

#include "KqCore.h"
#include "KqExport.h"
#include "KqSync.h"

#include <atomic>
#include <set>
#include <string>
#include <typeinfo>

namespace KQ {

// CThread: owns one POSIX thread that calls a CFunctor<bool ()> again and
// again, with a scheduling policy and priority fixed at construction.
//
// Protocol: the thread starts parked at its run gate; Run() lets it go;
// Pause() or a false result from the functor parks it again after the
// current call; Cancel() makes it leave its loop between two calls, breaking
// a blocking call with SIGUSR1, and joins it. Objects cannot be copied.
//
// Priorities use one scale: under SCHED_FIFO and SCHED_RR the static
// priority; under any other policy the negated nice value (priority p is
// nice -p, from -19 to 20), where the library's normal priority is 1.
//
// Thread-safety: Run, Pause, Cancel and destruction are for the controlling
// thread(s); nothing in the object is locked (two atomic flags and two
// semaphores). Every construction installs, for the whole process, a
// do-nothing SIGUSR1 handler without SA_RESTART.
//
// Failure: construction never throws and prints nothing; IsValid() is false
// when the thread could not be created (for instance a real-time policy
// without privilege, or an unknown policy).
//
// Destruction of an object whose thread is still there cancels it
// asynchronously, wherever it is: a class that derives from CThread must
// call Cancel() in its own destructor so the thread ends between two calls.
class KQ_API CThread : private CUncopyable {
public:
    // Builds a paused thread that will run functor (the object keeps a copy).
    // name shows in the system's thread lists (at most 15 characters; the
    // demangled dynamic type when empty); priority is on the scale above;
    // policy is SCHED_OTHER (0), SCHED_FIFO (1) or SCHED_RR (2).
    CThread(const CFunctor<bool ()>& functor, const std::string& name = std::string(), int priority = 1,
        int policy = 0);
    // Cancels and joins a thread that is still there, then frees everything.
    virtual ~CThread();

    // Lets the thread call its functor (again); one extra pass round the
    // gate if it was already running.
    void Run();
    // Parks the thread once the current functor call has returned.
    void Pause();
    // Asks the thread to leave its loop, waits for it (up to about 4 s) and
    // joins it: true if it ended and was joined; false if there is no thread
    // or it did not end in time (it is then left running, not joined).
    bool Cancel();
    // Sends SIGUSR1 to the thread in up to 12 rounds (1 to 2048 ms apart)
    // until it has left its loop: true once it has (or is gone), false if
    // there is no thread, the signal could not be sent, or time ran out.
    bool Signal();
    // Joins the thread: true if joined (the object then has no thread),
    // false if there is no thread or the join failed.
    bool Join();
    // True while the object has a thread (created and not yet joined).
    bool IsValid() const;
    // Pins this object's thread to the one CPU cpu: false if there is no
    // thread, cpu is 1024 or more, or the system refuses.
    bool SetAffinity(unsigned int cpu);

    // The calling thread's scheduling policy, or -1 on failure.
    static int GetPolicy();
    // The lowest priority of the calling thread's policy: its minimum static
    // priority under SCHED_FIFO/SCHED_RR, otherwise -19.
    static int GetLowestPriority();
    // The highest priority of the calling thread's policy: its maximum static
    // priority under SCHED_FIFO/SCHED_RR, otherwise 20.
    static int GetHighestPriority();
    // The library's normal priority: the lowest real-time priority under
    // SCHED_FIFO/SCHED_RR, otherwise 1 (nice -1).
    static int GetNormalPriority();
    // The calling thread's priority on the scale above (the lowest one if a
    // real-time priority cannot be read).
    static int GetPriority();
    // priority clamped into the calling thread's range of priorities.
    static int GetValidPriority(int priority);
    // Gives up the processor: true if sched_yield succeeded.
    static bool Yield();
    // Sleeps ms milliseconds: true if the whole time was slept, false if a
    // signal cut it short (the rest is not slept).
    static bool Sleep(unsigned int ms);
    // Names the calling thread (cut to 15 characters): true on success.
    static bool SetName(const std::string& name);
    // The calling thread's name; empty if it cannot be read.
    static std::string GetName();
    // The demangled name of type; its mangled name if demangling fails.
    static std::string GetTypeName(const std::type_info& type);
    // Pins the calling thread to the CPUs in cpus (numbers of 1024 and above
    // are ignored): false for an empty set or when the system refuses.
    static bool SetAffinity(const std::set<unsigned int>& cpus);
    // Gives the calling thread the CPU mask of process 1: true on success.
    static bool SetDefaultAffinity();
    // The CPUs (0 to 1023) the calling thread may run on; empty on failure.
    static std::set<unsigned int> GetAffinity();

protected:
    // Marks the thread paused and not quitting.
    void Init();
    // The thread's loop: calls the functor while not paused, waits at the
    // gate while paused, and returns once the quit flag is seen.
    virtual void ExecuteThread();
    // First step on the new thread: nice value (best effort) and
    // asynchronous cancellation.
    void EnterThread();
    // Last step on the thread: tells Signal() that the loop has ended.
    void ExitThread();
    // The start routine handed to pthread_create (arg is the object).
    static void* ThreadFunc(void* arg);

    struct Handle_t;
    Handle_t* m_pHandle;         // thread id and exit notice
    CFunctor<bool ()> m_Functor;  // the work
    std::string m_Name;
    int m_Priority;
    int m_Policy;
    CSemaphore m_RunSem;  // the run gate
    std::atomic<bool> m_Paused;
    std::atomic<bool> m_Quit;  // set only by Cancel()
};

}  // namespace KQ
