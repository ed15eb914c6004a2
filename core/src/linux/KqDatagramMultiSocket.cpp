// KqDatagramMultiSocket.cpp: multicast receive sockets, one per group and
// port, waited on together through one epoll set (Linux).
#include "KqSocket.h"

#include "KqOutput.h"
#include "KqSocketOps.h"

#include <vector>

#include <sys/epoll.h>

namespace KQ {

// The platform record: the epoll set and one event slot per added socket,
// which is also epoll_wait's buffer and maxevents.
struct CDatagramMultiSocket::Handle_t {
    int epollFd;
    std::vector<epoll_event> eventArray;
};

namespace {

// Level-triggered input interest in fd, with fd as the event's data.
epoll_event InputInterest(int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return event;
}

}  // namespace

CDatagramMultiSocket::CDatagramMultiSocket() : m_pHandle(new Handle_t{epoll_create1(0), {}})
{
    if (m_pHandle->epollFd == -1) {
        INTERNAL::Report("epoll create failed");
    }
}

CDatagramMultiSocket::~CDatagramMultiSocket()
{
    if (m_pHandle->epollFd != -1) {
        if (!m_pHandle->eventArray.empty()) {
            MyPrintf("%s() %zu Sockets are still open!", "~CDatagramMultiSocket", m_pHandle->eventArray.size());
        }
        (void)close(m_pHandle->epollFd);
        m_pHandle->epollFd = -1;
    }
    delete m_pHandle;
}

bool CDatagramMultiSocket::IsValid() const
{
    return m_pHandle->epollFd != -1;
}

int CDatagramMultiSocket::AddConnection(const CIpAddress& group, const CIpAddress& interfaceAddress,
                                        unsigned short port, bool reuse)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) {
        INTERNAL::Report("socket creation failed");
        return -1;
    }
    // Always joined, before the bind; bound to the group so that only its
    // datagrams arrive.
    if (!INTERNAL::JoinMulticastGroup(fd, group, interfaceAddress)) {
        INTERNAL::ReportAndClose("setsocketopt failed", fd);
        return -1;
    }
    const CInetSocketAddress address(group, port);
    const int on = 1;
    if (reuse && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        INTERNAL::ReportAndClose("set address reuse failed", fd);
        return -1;
    }
    if (bind(fd, address.GetSockAddr(), static_cast<socklen_t>(address.GetSockAddrLength())) != 0) {
        INTERNAL::ReportAndClose("Bind not successful", fd);
        return -1;
    }
    epoll_event event = InputInterest(fd);
    if (epoll_ctl(m_pHandle->epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
        INTERNAL::ReportAndClose("epoll_ctl failed", fd);
        return -1;
    }
    m_pHandle->eventArray.push_back(event);
    return fd;
}

bool CDatagramMultiSocket::RemoveConnection(int socket)
{
    epoll_event event = InputInterest(socket);
    if (epoll_ctl(m_pHandle->epollFd, EPOLL_CTL_DEL, socket, &event) != 0) {
        INTERNAL::Report("epoll_ctl failed");
        return false;
    }
    (void)close(socket);
    m_pHandle->eventArray.pop_back();
    return true;
}

int CDatagramMultiSocket::Wait(std::vector<int>& ready, int milliseconds)
{
    std::vector<epoll_event>& events = m_pHandle->eventArray;
    const int count =
        epoll_wait(m_pHandle->epollFd, events.data(), static_cast<int>(events.size()), milliseconds);
    if (count < 0) {
        INTERNAL::Report("epoll_wait failed");
        return 1;
    }
    if (count == 0) {
        return 2;
    }
    for (int i = 0; i < count; ++i) {
        ready.push_back(events[static_cast<size_t>(i)].data.fd);
    }
    return 0;
}

size_t CDatagramMultiSocket::Read(int socket, CSlice<unsigned char>& slice)
{
    const ssize_t count = read(socket, slice.m_pData, slice.m_Length);
    if (count < 0) {
        INTERNAL::Report("Read failed");
        return 0;
    }
    return static_cast<size_t>(count);
}

}  // namespace KQ
