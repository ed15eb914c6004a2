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

namespace NetNamespaceDetail {

inline std::string Failure(const char* what)
{
    return std::string(what) + " failed: " + std::strerror(errno);
}

inline std::string EnterAndConfigure()
{
    if (unshare(CLONE_NEWNET) != 0) {
        return Failure("unshare(CLONE_NEWNET)");
    }
    // lo starts down and without multicast in a new namespace.
    if (std::system("ip link set lo up multicast on && ip route add 224.0.0.0/4 dev lo") != 0) {
        return "configuring lo with ip (iproute2) failed";
    }
    return std::string();
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
