// KqSocketOps.h: small socket helpers shared by the socket sources (Linux).
// Internal header; not installed.
#pragma once

#include "../KqErrnoGuard.h"
#include "KqAddress.h"
#include "KqSocket.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

namespace KQ {

// The datagram sockets' platform record: the socket descriptor, -1 for none.
struct CDatagramSocket::Handle_t {
    int fd;
};

namespace INTERNAL {

// Reports a failed call through perror ("message: errno text" on standard
// error); errno stays that of the failed call.
inline void Report(const char* message)
{
    CErrnoGuard keep;
    perror(message);
}

// Reports a failed call as Report does, then closes fd; errno stays that of
// the failed call.
inline void ReportAndClose(const char* message, int fd)
{
    CErrnoGuard keep;
    Report(message);
    (void)close(fd);
}

// A system call's byte count as the library reports it: negative becomes 0.
inline size_t ByteCount(ssize_t result)
{
    return result < 0 ? 0 : static_cast<size_t>(result);
}

// Waits up to milliseconds for input on fd; true only when POLLIN is reported
// (false on time-out, failure, or hang-up/error without data).
inline bool WaitForInput(int fd, int milliseconds)
{
    pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, milliseconds) > 0 && (entry.revents & POLLIN) != 0;
}

// Joins the multicast group on the local interface (0.0.0.0: the system
// chooses). The membership record is the 8-byte ip_mreq.
inline bool JoinMulticastGroup(int fd, const CIpAddress& group, const CIpAddress& interfaceAddress)
{
    static_assert(sizeof(ip_mreq) == 8, "ip_mreq is two IPv4 addresses");
    ip_mreq membership;
    membership.imr_multiaddr.s_addr = htonl(group.GetIpInt());
    membership.imr_interface.s_addr = htonl(interfaceAddress.GetIpInt());
    return setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
}

}  // namespace INTERNAL
}  // namespace KQ
