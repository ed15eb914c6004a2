// Datagram sockets and the multicast multi-socket, against plain UDP sockets.
// The whole program runs in a private network namespace when it can (root),
// so multicast stays on its own loopback; multicast cases skip otherwise.
#include "Kq.h"
#include "KqNetNamespace.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace KQ;

namespace {

// Entered at load time, before gtest or any thread starts.
const std::string g_NoMulticast = KqTest::PrivateMulticastNetwork();

#define REQUIRE_MULTICAST()                                               \
    if (!g_NoMulticast.empty()) {                                         \
        GTEST_SKIP() << "multicast needs a private network namespace: " << g_NoMulticast; \
    }

typedef std::chrono::steady_clock Clock_t;

long MillisecondsSince(Clock_t::time_point start)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock_t::now() - start).count());
}

const CIpAddress ANY(0, 0, 0, 0);
const CIpAddress LOOPBACK(127, 0, 0, 1);

// Collects what perror writes to standard error until Text() is called.
class StderrCapture {
public:
    StderrCapture() { testing::internal::CaptureStderr(); }
    ~StderrCapture() { Text(); }
    std::string Text()
    {
        const std::string text = m_Done ? std::string() : testing::internal::GetCapturedStderr();
        m_Done = true;
        return text;
    }

private:
    bool m_Done = false;
};

// What perror prints for message with errno value error.
std::string PerrorLine(const char* message, int error)
{
    return std::string(message) + ": " + std::strerror(error) + "\n";
}

// A plain UDP socket bound to address:port (port 0: any), closed with the
// object.
class PlainUdp {
public:
    explicit PlainUdp(const CIpAddress& address = LOOPBACK, unsigned short port = 0)
        : m_Fd(socket(AF_INET, SOCK_DGRAM, 0))
    {
        CInetSocketAddress local(address, port);
        socklen_t length = sizeof(sockaddr_in);
        EXPECT_EQ(0, bind(m_Fd, local.GetSockAddr(), length));
        getsockname(m_Fd, local.GetSockAddr(), &length);
        m_Port = local.GetPort();
    }
    ~PlainUdp() { close(m_Fd); }

    unsigned short Port() const { return m_Port; }
    int Fd() const { return m_Fd; }
    ssize_t SendTo(const CIpAddress& address, unsigned short port, const std::string& text) const
    {
        const CInetSocketAddress to(address, port);
        return sendto(m_Fd, text.data(), text.size(), 0, to.GetSockAddr(), sizeof(sockaddr_in));
    }
    // One datagram, waiting at most a second; empty on time-out.
    std::string Receive() const
    {
        timeval limit = {1, 0};
        setsockopt(m_Fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char buffer[2048];
        const ssize_t n = recv(m_Fd, buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }

private:
    int m_Fd;
    unsigned short m_Port;
};

// A UDP port on which nothing is bound right now.
unsigned short FreePort()
{
    PlainUdp probe;
    return probe.Port();
}

// Exposes the receiver's address, which each read replaces with the sender's.
class ProbedReceive : public CDatagramReceive {
public:
    using CDatagramReceive::CDatagramReceive;
    const CInetSocketAddress& Address() const { return m_Address; }
};

std::string ReadText(CDatagramReceive& receiver, size_t capacity, unsigned long milliseconds)
{
    std::vector<unsigned char> buffer(capacity);
    CSlice<unsigned char> slice(buffer.data(), buffer.size());
    const size_t n = receiver.Read(slice, milliseconds);
    return std::string(buffer.begin(), buffer.begin() + static_cast<long>(n));
}

size_t WriteText(CDatagramTransmit& transmitter, const std::string& text)
{
    std::vector<unsigned char> bytes(text.begin(), text.end());
    return transmitter.Write(CSlice<unsigned char>(bytes.data(), bytes.size()));
}

// Lowers the open-descriptor limit so that no new descriptor can be made,
// for as long as the object lives.
class NoMoreDescriptors {
public:
    NoMoreDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &m_Saved);
        const int lowest = dup(0);
        close(lowest);
        const rlimit tight = {static_cast<rlim_t>(lowest), m_Saved.rlim_max};
        setrlimit(RLIMIT_NOFILE, &tight);
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &m_Saved); }

private:
    rlimit m_Saved;
};

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

}  // namespace

// --- Unicast receive and transmit -------------------------------------------

TEST(DatagramReceive, ReceivesUnicastOnAnyLocalAddressAndRecordsTheSender)
{
    const unsigned short port = FreePort();
    ProbedReceive receiver(ANY, port, ANY);
    ASSERT_TRUE(receiver.IsValid());
    PlainUdp sender;
    ASSERT_EQ(5, sender.SendTo(LOOPBACK, port, "first"));
    EXPECT_EQ("first", ReadText(receiver, 64, 1000));
    EXPECT_EQ(LOOPBACK, receiver.Address().GetIpAddress());
    EXPECT_EQ(sender.Port(), receiver.Address().GetPort());

    PlainUdp other(CIpAddress(127, 0, 0, 2));
    ASSERT_EQ(6, other.SendTo(CIpAddress(127, 0, 0, 3), port, "second"));
    EXPECT_EQ("second", ReadText(receiver, 64, 0));
    EXPECT_EQ(CIpAddress(127, 0, 0, 2), receiver.Address().GetIpAddress());
    EXPECT_EQ(other.Port(), receiver.Address().GetPort());
}

TEST(DatagramReceive, CutsALongDatagramToTheSlice)
{
    const unsigned short port = FreePort();
    CDatagramReceive receiver(LOOPBACK, port, ANY);
    PlainUdp sender;
    ASSERT_EQ(100, sender.SendTo(LOOPBACK, port, std::string(100, 'L')));
    ASSERT_EQ(5, sender.SendTo(LOOPBACK, port, "short"));
    EXPECT_EQ(std::string(64, 'L'), ReadText(receiver, 64, 1000));
    EXPECT_EQ("short", ReadText(receiver, 64, 1000));  // the cut rest is gone
}

TEST(DatagramReceive, TimedAndUnlimitedReads)
{
    const unsigned short port = FreePort();
    CDatagramReceive receiver(ANY, port, ANY);
    StderrCapture errors;
    Clock_t::time_point start = Clock_t::now();
    EXPECT_EQ("", ReadText(receiver, 16, 50));
    const long waited = MillisecondsSince(start);
    EXPECT_GE(waited, 49);
    EXPECT_LT(waited, 50 + 2000);
    EXPECT_EQ("", errors.Text());  // a time-out prints nothing

    std::thread late([port] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        PlainUdp sender;
        sender.SendTo(LOOPBACK, port, "late");
    });
    start = Clock_t::now();
    EXPECT_EQ("late", ReadText(receiver, 16, 0));  // 0: no limit
    EXPECT_GE(MillisecondsSince(start), 100);
    late.join();
}

TEST(DatagramReceive, FailuresCloseTheSocketAndPrintThroughPerror)
{
    const unsigned short port = FreePort();
    CDatagramReceive first(ANY, port, ANY);
    ASSERT_TRUE(first.IsValid());
    struct Case {
        CIpAddress address;
        CIpAddress interfaceAddress;
        std::string expected;
    };
    const Case cases[] = {
        {LOOPBACK, LOOPBACK, PerrorLine("setsocketopt failed", EINVAL)},  // not a group
        {ANY, ANY, PerrorLine("bind failed", EADDRINUSE)},                 // no address reuse
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        StderrCapture errors;
        CDatagramReceive second(c.address, port, c.interfaceAddress);
        EXPECT_FALSE(second.IsValid());
        unsigned char buffer[8];
        CSlice<unsigned char> slice(buffer, sizeof buffer);
        errno = EBADF;
        EXPECT_EQ(0u, second.Read(slice, 0));
        EXPECT_EQ(c.expected + PerrorLine("CDatagramReceive::Read() - Invalid socket", EBADF), errors.Text());
    }
}

TEST(DatagramTransmit, SendsToItsDestinationWithOrWithoutADevice)
{
    PlainUdp receiver;
    struct Case {
        std::string device;
        std::string expectedError;
    };
    const Case cases[] = {
        {"", ""},
        {"lo", ""},  // tying to a device needs root
        {"kq-no-such-dev", PerrorLine("SO_BINDTODEVICE failed", ENODEV)},
        {"sixteen-chars-xx", PerrorLine("SO_BINDTODEVICE failed", ENODEV)},  // does not fit 15 + NUL
        {std::string(40, 'd'), PerrorLine("SO_BINDTODEVICE failed", ENODEV)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.device);
        if (c.device == "lo" && geteuid() != 0) {
            continue;
        }
        StderrCapture errors;
        CDatagramTransmit transmitter(LOOPBACK, receiver.Port(), c.device);
        EXPECT_TRUE(transmitter.IsValid());
        EXPECT_EQ(7u, WriteText(transmitter, "payload"));
        EXPECT_EQ(c.expectedError, errors.Text());
        EXPECT_EQ("payload", receiver.Receive());
    }
}

TEST(DatagramSocket, CreationFailureLeavesNoSocket)
{
    PlainUdp receiver;
    StderrCapture errors;
    {
        NoMoreDescriptors limit;
        CDatagramTransmit transmitter(LOOPBACK, receiver.Port(), "");
        EXPECT_FALSE(transmitter.IsValid());
        EXPECT_EQ(0u, WriteText(transmitter, "lost"));
        CDatagramSocket socket(LOOPBACK, receiver.Port());
        EXPECT_FALSE(socket.IsValid());
    }
    EXPECT_EQ(PerrorLine("socket creation failed", EMFILE) + PerrorLine("socket creation failed", EMFILE),
              errors.Text());
}

// --- Multicast (private network namespace) ----------------------------------

TEST(DatagramMulticast, ReceiverJoinsOnlyItsGroup)
{
    REQUIRE_MULTICAST();
    const unsigned short port = FreePort();
    ProbedReceive member(CIpAddress(239, 1, 1, 1), port, LOOPBACK);
    ASSERT_TRUE(member.IsValid());
    CDatagramTransmit toOther(CIpAddress(239, 1, 1, 2), port, "");
    ASSERT_EQ(5u, WriteText(toOther, "other"));
    PlainUdp sender(LOOPBACK);
    ASSERT_EQ(5, sender.SendTo(CIpAddress(239, 1, 1, 1), port, "group"));
    EXPECT_EQ("group", ReadText(member, 64, 1000));
    EXPECT_EQ(LOOPBACK, member.Address().GetIpAddress());
    EXPECT_EQ(sender.Port(), member.Address().GetPort());
    EXPECT_EQ("", ReadText(member, 64, 50));
}

TEST(DatagramMultiSocket, WaitAppendsOnlyTheGroupsThatReceived)
{
    REQUIRE_MULTICAST();
    const unsigned short port = FreePort();
    CDatagramMultiSocket multi;
    ASSERT_TRUE(multi.IsValid());
    const int first = multi.AddConnection(CIpAddress(239, 1, 1, 1), LOOPBACK, port, true);
    const int second = multi.AddConnection(CIpAddress(239, 1, 1, 2), ANY, port, true);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);

    CDatagramTransmit toSecond(CIpAddress(239, 1, 1, 2), port, "");
    CDatagramTransmit toFirst(CIpAddress(239, 1, 1, 1), port, "");
    std::vector<int> ready = {-7};
    ASSERT_EQ(3u, WriteText(toSecond, "two"));
    EXPECT_EQ(0, multi.Wait(ready, 1000));
    EXPECT_EQ((std::vector<int>{-7, second}), ready);
    unsigned char buffer[2];
    CSlice<unsigned char> slice(buffer, sizeof buffer);
    EXPECT_EQ(2u, multi.Read(second, slice));  // cut to the slice
    EXPECT_EQ(0, std::memcmp(buffer, "tw", 2));

    ASSERT_EQ(3u, WriteText(toFirst, "one"));
    EXPECT_EQ(0, multi.Wait(ready, 1000));
    EXPECT_EQ((std::vector<int>{-7, second, first}), ready);
    EXPECT_EQ(2u, multi.Read(first, slice));
    EXPECT_TRUE(multi.RemoveConnection(first));
    EXPECT_TRUE(multi.RemoveConnection(second));
    EXPECT_FALSE(IsOpen(first));
}

TEST(DatagramMultiSocket, SameGroupAndPortNeedsReuseOnBothSockets)
{
    REQUIRE_MULTICAST();
    const CIpAddress group(239, 1, 2, 3);
    struct Case {
        bool firstReuse;
        bool secondReuse;
        bool secondWorks;
    };
    const Case cases[] = {{true, true, true}, {true, false, false}, {false, true, false}, {false, false, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.firstReuse) + "/" + std::to_string(c.secondReuse));
        const unsigned short port = FreePort();
        CDatagramMultiSocket one;
        CDatagramMultiSocket two;
        const int first = one.AddConnection(group, LOOPBACK, port, c.firstReuse);
        ASSERT_GE(first, 0);
        StderrCapture errors;
        const int second = two.AddConnection(group, LOOPBACK, port, c.secondReuse);
        EXPECT_EQ(c.secondWorks, second >= 0);
        EXPECT_EQ(c.secondWorks ? "" : PerrorLine("Bind not successful", EADDRINUSE), errors.Text());
        EXPECT_TRUE(one.RemoveConnection(first));
        if (second >= 0) {
            EXPECT_TRUE(two.RemoveConnection(second));
        }
    }
}

TEST(DatagramMultiSocket, RefusesAUnicastGroup)
{
    REQUIRE_MULTICAST();
    CDatagramMultiSocket multi;
    StderrCapture errors;
    EXPECT_EQ(-1, multi.AddConnection(LOOPBACK, LOOPBACK, FreePort(), true));
    EXPECT_EQ(PerrorLine("setsocketopt failed", EINVAL), errors.Text());
}

TEST(DatagramMultiSocket, WaitTimesOutOrFails)
{
    REQUIRE_MULTICAST();
    CDatagramMultiSocket multi;
    std::vector<int> ready = {42};
    {
        StderrCapture errors;
        EXPECT_EQ(1, multi.Wait(ready, 0));  // no socket: the system refuses
        EXPECT_EQ(PerrorLine("epoll_wait failed", EINVAL), errors.Text());
    }
    const int fd = multi.AddConnection(CIpAddress(239, 1, 1, 9), LOOPBACK, FreePort(), false);
    ASSERT_GE(fd, 0);
    const Clock_t::time_point start = Clock_t::now();
    EXPECT_EQ(2, multi.Wait(ready, 100));
    const long waited = MillisecondsSince(start);
    EXPECT_GE(waited, 99);
    EXPECT_LT(waited, 100 + 2000);
    EXPECT_EQ(std::vector<int>{42}, ready);
    EXPECT_TRUE(multi.RemoveConnection(fd));
}

TEST(DatagramMultiSocket, RemoveAndReadOfForeignDescriptors)
{
    CDatagramMultiSocket multi;
    PlainUdp foreign;
    StderrCapture errors;
    EXPECT_FALSE(multi.RemoveConnection(foreign.Fd()));
    EXPECT_TRUE(IsOpen(foreign.Fd()));
    unsigned char buffer[4];
    CSlice<unsigned char> slice(buffer, sizeof buffer);
    EXPECT_EQ(0u, multi.Read(-1, slice));
    EXPECT_EQ(PerrorLine("epoll_ctl failed", ENOENT) + PerrorLine("Read failed", EBADF), errors.Text());
}

TEST(DatagramMultiSocket, DestructorWarnsAndLeavesSocketsOpen)
{
    REQUIRE_MULTICAST();
    const unsigned short port = FreePort();
    int fds[3];
    KqTest::HookCapture hook;
    {
        CDatagramMultiSocket multi;
        for (int i = 0; i < 3; ++i) {
            fds[i] = multi.AddConnection(CIpAddress(239, 1, 3, static_cast<unsigned char>(i + 1)), LOOPBACK, port, true);
            ASSERT_GE(fds[i], 0);
        }
        EXPECT_TRUE(multi.RemoveConnection(fds[2]));
    }
    EXPECT_EQ(std::vector<std::string>{"~CDatagramMultiSocket() 2 Sockets are still open!"}, hook.Lines());
    EXPECT_TRUE(IsOpen(fds[0]));
    EXPECT_TRUE(IsOpen(fds[1]));
    close(fds[0]);
    close(fds[1]);
}

TEST(DatagramMultiSocket, EpollCreationFailureMakesEveryAddFail)
{
    StderrCapture errors;
    std::unique_ptr<CDatagramMultiSocket> multi;
    {
        NoMoreDescriptors limit;
        multi.reset(new CDatagramMultiSocket());
    }
    EXPECT_FALSE(multi->IsValid());
    std::string expected = PerrorLine("epoll create failed", EMFILE);
    if (g_NoMulticast.empty()) {  // joins a group: only inside the namespace
        EXPECT_EQ(-1, multi->AddConnection(CIpAddress(239, 1, 1, 1), ANY, FreePort(), true));
        expected += PerrorLine("epoll_ctl failed", EBADF);
    }
    KqTest::HookCapture hook;
    multi.reset();
    EXPECT_TRUE(hook.Lines().empty());  // no set, so no warning
    EXPECT_EQ(expected, errors.Text());
}
