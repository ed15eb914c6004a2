// KqNetNamespace.h: moves the process into a private network namespace for
// multicast tests and benchmarks, so that no datagram leaves the machine.
// The namespace has only its own loopback, brought up with multicast enabled
// and a route for 224.0.0.0/4, so sending to a group delivers it locally.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace KqTest {

namespace NetNamespaceDetail {

inline std::string Failure(const char* what)
{
    return std::string(what) + " failed: " + std::strerror(errno);
}

inline sockaddr_in Ipv4(in_addr_t hostOrder)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(hostOrder);
    return address;
}

// Brings lo up with IFF_MULTICAST and routes 224.0.0.0/4 through it.
inline std::string ConfigureLoopback(int fd)
{
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    if (ioctl(fd, SIOCGIFFLAGS, &request) != 0) {
        return Failure("SIOCGIFFLAGS on lo");
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_MULTICAST);
    if (ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
        return Failure("SIOCSIFFLAGS on lo");
    }
    rtentry route = {};
    char device[] = "lo";
    const sockaddr_in destination = Ipv4(0xE0000000u);  // 224.0.0.0
    const sockaddr_in mask = Ipv4(0xF0000000u);         // /4
    std::memcpy(&route.rt_dst, &destination, sizeof destination);
    std::memcpy(&route.rt_genmask, &mask, sizeof mask);
    route.rt_flags = RTF_UP;
    route.rt_dev = device;
    if (ioctl(fd, SIOCADDRT, &route) != 0) {
        return Failure("adding the 224.0.0.0/4 route on lo");
    }
    return std::string();
}

inline std::string EnterAndConfigure()
{
    if (unshare(CLONE_NEWNET) != 0) {
        return Failure("unshare(CLONE_NEWNET)");
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) {
        return Failure("socket in the new namespace");
    }
    const std::string result = ConfigureLoopback(fd);
    close(fd);
    return result;
}

// Enters and configures the namespace; on failure goes back to the original
// one, so that plain loopback tests still find a working lo.
inline std::string Enter()
{
    if (geteuid() != 0) {
        return "not running as root";
    }
    const int original = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (original == -1) {
        return Failure("opening /proc/self/ns/net");
    }
    const std::string result = EnterAndConfigure();
    if (!result.empty()) {
        (void)setns(original, CLONE_NEWNET);
    }
    close(original);
    return result;
}

}  // namespace NetNamespaceDetail

// Enters the namespace once, on first call; call it before any thread starts
// (threads made earlier stay in the old namespace). Returns an empty string
// when the process now runs in it, otherwise why not (the process then stays
// in its original namespace; multicast checks are skipped with that reason).
inline const std::string& PrivateMulticastNetwork()
{
    static const std::string reason = NetNamespaceDetail::Enter();
    return reason;
}

}  // namespace KqTest
