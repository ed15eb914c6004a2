// KqNamedQ.h: text messages between processes through a POSIX named queue.
//
// CNamedQ wraps one POSIX message queue, named "/" plus the caller's name.
// One side creates the queue (create flag true) and owns its name: when that
// object shuts down, the name is removed from the system. Other sides open
// the queue by the same name and never remove it. Each message is one text
// sent with its terminating NUL; the queue's depth and slot size are fixed
// when it is created, and every object reads them back from the queue itself.
//
// Ownership: the object owns its queue descriptor (kept in a separately
// allocated record) and is not copied. The queue is always in blocking mode.
//
// Failure: construction never throws; a queue that could not be opened or
// created prints "CNamedQ '<name>' create failed <errno> <text>" through
// KQ::MyPrintf and leaves IsValid() false. Failed sends print one line and
// return false; receive failures and time-outs are silent (empty string).
// errno is left as the failing call set it.
//
// Thread-safety: the class holds no lock. Send and Receive on one object may
// run on several threads at once (the kernel queue is safe); ShutDown, OpenQ
// and destruction must not race with other calls on the same object. For a
// queue inside one process, a CSemaphore-guarded container is cheaper.
#pragma once

#include "KqCore.h"

#include <cstdint>
#include <string>

namespace KQ {

class KQ_API CNamedQ : private CUncopyable {
public:
    // Opens the queue "/" + name, creating it (O_CREAT, mode 0770, without
    // O_EXCL) when create is true with slots of msgSize bytes and room for
    // depth messages. An existing queue keeps its own attributes. On failure
    // prints the create-failed line and IsValid() is false.
    CNamedQ(const std::string& name, bool create, unsigned long msgSize, unsigned long depth);
    // ShutDown(), then frees the descriptor record.
    ~CNamedQ();

    // True while the constructor's open succeeded and ShutDown has not run.
    bool IsValid() const;

    // Opens the queue (creating it when create is true) unless a descriptor
    // is held already (then returns 0 at once). Returns 0 or the errno of the
    // failing mq_open / mq_getattr; on success the message size and depth are
    // the queue's real ones. Does not change IsValid().
    int OpenQ(bool create);

    // Closes the descriptor and, for the creator, unlinks the name; failures
    // print one line each. IsValid() is false afterwards. Does nothing when no
    // descriptor is held (so a second call, or the destructor, is harmless).
    void ShutDown();

    // Sends text with its NUL, waiting without limit while the queue is full.
    // False (and a "send failed" line) when the text is longer than
    // GetMaxMsgSize(), the queue is not open, or the wait is interrupted.
    bool Send(const std::string& text);
    // As Send(text), waiting at most milliseconds (a CLOCK_REALTIME deadline)
    // while the queue is full; 0 does not wait. A time-out prints the same
    // "send failed" line and returns false.
    bool Send(const std::string& text, unsigned long milliseconds);

    // Takes the oldest message, exactly as received: a text sent by Send ends
    // in its NUL ("abc" arrives as 4 characters). Waits at most milliseconds;
    // 0 waits without limit. An empty string on time-out or failure (silent).
    std::string Receive(unsigned long milliseconds);

    // Messages waiting now; 0 when the queue cannot be queried.
    unsigned long GetMessageCount();

    // Receives and drops messages until none is waiting. Should another
    // reader take the last one first, this waits for the next message.
    void Clear();

    // The name as given, without the leading slash.
    std::string GetName() const;
    // The most messages the queue holds.
    unsigned long GetQueueDepth() const;
    // The longest text Send can carry: the slot size minus one for the NUL.
    unsigned long GetMaxMsgSize() const;

    // Sets the process's RLIMIT_MSGQUEUE (bytes of queue memory its user may
    // allocate) to soft / hard. Best effort: no indication of failure.
    static void GlobalInit(unsigned int soft, unsigned int hard);

private:
    struct Handle_t;

    Handle_t* m_pHandle;    // the queue descriptor, -1 while none is open
    std::string m_Name;     // as given, without the slash
    uint64_t m_MsgSize;     // slot size in bytes (mq_msgsize)
    uint64_t m_Depth;       // most messages held (mq_maxmsg)
    int32_t m_Error;        // errno of the constructor's open, 0 when open, -1 after ShutDown
    std::string m_QName;    // "/" + m_Name
    bool m_Create;          // this object created the queue and unlinks it
};

}  // namespace KQ
