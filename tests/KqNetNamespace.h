// KqNetNamespace.h: moves the process into a private network namespace for
// multicast tests and benchmarks, so that no datagram leaves the machine.
// The namespace has only its own loopback, brought up with multicast enabled
// and a route for 224.0.0.0/4, so sending to a group delivers it locally.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace KqTest {

// Call once, before any thread starts (threads made earlier stay in the old
// namespace). Returns an empty string when the process now runs in the
// namespace, otherwise why not; the process then stays in (or goes back to)
// its original namespace, so that plain loopback tests still find lo up.
inline std::string PrivateMulticastNetwork()
{
    const int original = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    std::string reason;
    if (unshare(CLONE_NEWNET) != 0) {
        reason = std::string("unshare(CLONE_NEWNET) failed: ") + std::strerror(errno);
    } else if (std::system("ip link set lo up multicast on && ip route add 224.0.0.0/4 dev lo") != 0) {
        reason = "configuring lo with ip (iproute2) failed";  // lo starts down and without multicast
        (void)setns(original, CLONE_NEWNET);
    }
    close(original);
    return reason;
}

}  // namespace KqTest
