// KqNamedQ.cpp: CNamedQ on POSIX message queues (Linux).
#include "KqNamedQ.h"

#include "KqDeadline.h"
#include "KqOutput.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <mqueue.h>
#include <sys/resource.h>
#include <time.h>

namespace KQ {

struct CNamedQ::Handle_t {
    mqd_t fd;
};

namespace {

const mqd_t NO_QUEUE = static_cast<mqd_t>(-1);

// The absolute CLOCK_REALTIME time milliseconds from now, as mq_timedsend and
// mq_timedreceive want it.
timespec DeadlineAfter(unsigned long milliseconds)
{
    return INTERNAL::DeadlineOn(CLOCK_REALTIME, INTERNAL::MsToNs(milliseconds));
}

// True for a send result of 0; otherwise prints the send-failed line for
// queue name, keeping errno for the caller.
bool SendSucceeded(const std::string& name, int result)
{
    if (result == 0) {
        return true;
    }
    const int error = errno;
    MyPrintf("CNamedQ '%s' send failed ret=%i errno=%i '%s'", name.c_str(), result, error, strerror(error));
    errno = error;
    return false;
}

}  // namespace

CNamedQ::CNamedQ(const std::string& name, bool create, unsigned long msgSize, unsigned long depth)
    : m_pHandle(new Handle_t{NO_QUEUE}),
      m_Name(name),
      m_MsgSize(msgSize),
      m_Depth(depth),
      m_Error(0),
      m_QName("/" + name),
      m_Create(create)
{
    errno = 0;
    m_Error = OpenQ(m_Create);
    if (m_Error != 0) {
        MyPrintf("CNamedQ '%s' create failed %i %s", m_Name.c_str(), m_Error, strerror(m_Error));
    }
}

CNamedQ::~CNamedQ()
{
    ShutDown();
    delete m_pHandle;
}

bool CNamedQ::IsValid() const { return m_Error == 0; }

int CNamedQ::OpenQ(bool create)
{
    if (m_pHandle->fd != NO_QUEUE) {
        return 0;
    }
    if (create) {
        mq_attr attr = {};
        attr.mq_flags = 0;
        attr.mq_maxmsg = static_cast<long>(m_Depth);
        attr.mq_msgsize = static_cast<long>(m_MsgSize);
        m_pHandle->fd = mq_open(m_QName.c_str(), O_RDWR | O_CREAT, 0770, &attr);
    } else {
        m_pHandle->fd = mq_open(m_QName.c_str(), O_RDWR);
    }
    if (m_pHandle->fd == NO_QUEUE) {
        return errno;
    }
    // The queue may have existed with other attributes: report the real ones.
    mq_attr actual = {};
    if (mq_getattr(m_pHandle->fd, &actual) != 0) {
        return errno;
    }
    m_MsgSize = static_cast<uint64_t>(actual.mq_msgsize);
    m_Depth = static_cast<uint64_t>(actual.mq_maxmsg);
    return 0;
}

void CNamedQ::ShutDown()
{
    if (m_pHandle->fd == NO_QUEUE) {
        return;
    }
    if (mq_close(m_pHandle->fd) != 0) {
        MyPrintf("CNamedQ '%s' failed close errno = %i '%s'", m_Name.c_str(), errno, strerror(errno));
    }
    m_pHandle->fd = NO_QUEUE;
    if (m_Create && mq_unlink(m_QName.c_str()) != 0) {
        MyPrintf("CNamedQ '%s' failed unlink errno = %i '%s'", m_Name.c_str(), errno, strerror(errno));
    }
    m_Error = -1;
}

bool CNamedQ::Send(const std::string& text)
{
    const int result = mq_send(m_pHandle->fd, text.c_str(), text.size() + 1, 0);
    return SendSucceeded(m_Name, result);
}

bool CNamedQ::Send(const std::string& text, unsigned long milliseconds)
{
    const timespec deadline = DeadlineAfter(milliseconds);
    const int result = mq_timedsend(m_pHandle->fd, text.c_str(), text.size() + 1, 0, &deadline);
    return SendSucceeded(m_Name, result);
}

std::string CNamedQ::Receive(unsigned long milliseconds)
{
    if (m_pHandle->fd == -1) {
        // No queue: fail as mq_receive would, without sizing a buffer from
        // the caller's unchecked message size first.
        errno = EBADF;
        return std::string();
    }
    std::string message(static_cast<size_t>(m_MsgSize), '\0');
    unsigned int priority = 0;
    ssize_t received;
    if (milliseconds == 0) {
        received = mq_receive(m_pHandle->fd, &message[0], message.size(), &priority);
    } else {
        const timespec deadline = DeadlineAfter(milliseconds);
        received = mq_timedreceive(m_pHandle->fd, &message[0], message.size(), &priority, &deadline);
    }
    message.resize(received > 0 ? static_cast<size_t>(received) : 0);
    return message;
}

unsigned long CNamedQ::GetMessageCount()
{
    mq_attr attr = {};
    if (mq_getattr(m_pHandle->fd, &attr) != 0) {
        return 0;
    }
    return static_cast<unsigned long>(attr.mq_curmsgs);
}

void CNamedQ::Clear()
{
    while (GetMessageCount() != 0) {
        Receive(0);
    }
}

std::string CNamedQ::GetName() const { return m_Name; }

unsigned long CNamedQ::GetQueueDepth() const { return static_cast<unsigned long>(m_Depth); }

unsigned long CNamedQ::GetMaxMsgSize() const { return static_cast<unsigned long>(m_MsgSize - 1); }

void CNamedQ::GlobalInit(unsigned int soft, unsigned int hard)
{
    const rlimit limit = {static_cast<rlim_t>(soft), static_cast<rlim_t>(hard)};
    setrlimit(RLIMIT_MSGQUEUE, &limit);
}

}  // namespace KQ
