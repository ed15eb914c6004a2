// Socket addresses, the stream socket, the datagram sockets and the multicast
// multi-socket, against plain TCP, local-domain and UDP sockets. The program
// runs in a private network namespace when it can (root), so multicast stays
// on its own loopback; the multicast cases skip with the reason otherwise.
#include "Kq.h"
#include "KqNetNamespace.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <sys/resource.h>
#include <sys/socket.h>

using namespace KQ;
using namespace std::chrono;

namespace {

// Entered at load time, before gtest or any thread starts.
const std::string g_NoMulticast = KqTest::PrivateMulticastNetwork();

const CIpAddress ANY(0, 0, 0, 0), LOOPBACK(127, 0, 0, 1), GROUP1(239, 1, 1, 1), GROUP2(239, 1, 1, 2);

// What perror prints for message with the given errno value.
const auto Perror = [](const char* message, int error) { return std::string(message) + ": " + strerror(error) + "\n"; };

// A plain socket of the given type bound to address (port 0: a free one),
// listening if it is a stream socket, receiving for a second at most; closed
// with the object.
struct Plain {
    Plain(int type, const ISocketAddress& address) : fd(socket(address.GetSockAddr()->sa_family, type, 0))
    {
        const timeval second = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
        EXPECT_EQ(0, bind(fd, address.GetSockAddr(), static_cast<socklen_t>(address.GetSockAddrLength())));
        EXPECT_TRUE(type == SOCK_DGRAM || listen(fd, 4) == 0);
    }
    explicit Plain(int type = SOCK_DGRAM, const CIpAddress& ip = LOOPBACK) : Plain(type, CInetSocketAddress(ip, 0)) {}
    ~Plain() { close(fd); }
    unsigned short Port() const
    {
        CInetSocketAddress local(ANY, 0);
        socklen_t length = 16;
        getsockname(fd, local.GetSockAddr(), &length);
        return local.GetPort();
    }
    ssize_t SendTo(const CIpAddress& address, unsigned short port, const std::string& text) const
    {
        return sendto(fd, text.data(), text.size(), 0, CInetSocketAddress(address, port).GetSockAddr(), 16);
    }
    const int fd;
};

// A 64-byte buffer: Of(text) is a slice over a copy of the text, Text(n) the
// first n bytes (none for a failed call's -1).
struct Buffer {
    unsigned char bytes[64] = {};
    CSlice<unsigned char> slice{bytes, sizeof bytes};
    CSlice<unsigned char> Of(const std::string& text) { return {bytes, text.copy(reinterpret_cast<char*>(bytes), 64)}; }
    std::string Text(ssize_t n) const { return std::string(bytes, bytes + (n > 0 ? n : 0)); }
};

// Shows the receiver's address, which each read replaces with the sender's.
struct ProbedReceive : CDatagramReceive {
    using CDatagramReceive::CDatagramReceive;
    std::pair<CIpAddress, unsigned short> From() const { return {m_Address.GetIpAddress(), m_Address.GetPort()}; }
};

}  // namespace

TEST(SocketAddress, InetInNetworkOrderAndLocalCutTo107Characters)
{
    const CInetSocketAddress inet(CIpAddress(192, 168, 1, 2), 8080);
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(inet.GetSockAddr());
    EXPECT_EQ((std::vector<unsigned char>{0x1F, 0x90, 192, 168, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0}),
              std::vector<unsigned char>(raw + 2, raw + inet.GetSockAddrLength()));
    const CLocalSocketAddress local(std::string(200, 'p'));
    EXPECT_EQ(110u, local.GetSockAddrLength());
    EXPECT_EQ(std::string(107, 'p'), local.GetSocketFile());
}

// Connects once (a failed attempt may be retried); single read and write
// calls; reads that wait at most their time-out.
TEST(StreamSocket, TalksToTcpAndLocalPeers)
{
    KqTest::TempDir dir;
    KqTest::HookCapture hook;
    const Plain tcp(SOCK_STREAM), other(SOCK_STREAM), local(SOCK_STREAM, CLocalSocketAddress(dir / "peer"));
    const unsigned short closed = Plain(SOCK_STREAM).Port();
    CStreamSocket toTcp(CInetSocketAddress(LOOPBACK, closed)), toLocal(CLocalSocketAddress(dir / "peer"));
    ASSERT_TRUE(toTcp.Connect(CInetSocketAddress(LOOPBACK, tcp.Port())));
    ASSERT_FALSE(toTcp.Connect(CInetSocketAddress(LOOPBACK, other.Port())));  // prints nothing
    EXPECT_EQ(std::vector<std::string>{"connect() failed"}, hook.Lines());
    for (const auto& [socket, listener] : {std::make_pair(&toTcp, &tcp), std::make_pair(&toLocal, &local)}) {
        const int peer = accept(listener->fd, nullptr, nullptr);
        Buffer buffer;
        EXPECT_EQ(5u, socket->Write(buffer.Of("hello")));
        EXPECT_EQ("hello", buffer.Text(read(peer, buffer.bytes, 64)));
        const auto start = steady_clock::now();
        EXPECT_EQ(0u, socket->Read(buffer.slice, 100));
        EXPECT_GE(steady_clock::now() - start, 99ms);
        EXPECT_EQ(0u, socket->Read(buffer.slice, 0));  // checks once, does not wait
        ASSERT_EQ(3, write(peer, "abc", 3));
        EXPECT_EQ("abc", buffer.Text(socket->Read(buffer.slice, 0)));
        ASSERT_EQ(4, write(peer, "more", 4));
        EXPECT_EQ("more", buffer.Text(socket->Read(buffer.slice)));
        close(peer);
    }
}

// A plain socket on 127.0.0.2 sends to the receiver and receives from the transmitters.
TEST(Datagram, ReceiveAndTransmitTalkToPlainSockets)
{
    const unsigned short port = Plain().Port();
    ProbedReceive receiver(ANY, port, ANY);
    const Plain plain(SOCK_DGRAM, CIpAddress(127, 0, 0, 2));
    Buffer buffer;
    ASSERT_EQ(100, plain.SendTo(CIpAddress(127, 0, 0, 3), port, std::string(100, 'L')));
    EXPECT_EQ(std::string(64, 'L'), buffer.Text(receiver.Read(buffer.slice, 1000)));  // cut to the slice
    EXPECT_EQ(std::make_pair(CIpAddress(127, 0, 0, 2), plain.Port()), receiver.From());
    EXPECT_EQ(0u, receiver.Read(buffer.slice, 50));  // the cut rest is gone
    std::thread late([&] {
        std::this_thread::sleep_for(150ms);
        plain.SendTo(LOOPBACK, port, "late");
    });
    EXPECT_EQ("late", buffer.Text(receiver.Read(buffer.slice, 0)));  // 0: no limit
    late.join();
    for (const auto& [device, fails] : {std::make_pair(std::string(), false), {"lo", false}, {"kq-no-such-dev", true},
                                        {std::string(40, 'd'), true}}) {
        testing::internal::CaptureStderr();
        CDatagramTransmit transmitter(CIpAddress(127, 0, 0, 2), plain.Port(), device);
        EXPECT_EQ(7u, transmitter.Write(buffer.Of("payload")));
        EXPECT_EQ(fails ? Perror("SO_BINDTODEVICE failed", ENODEV) : "", testing::internal::GetCapturedStderr());
        EXPECT_EQ("payload", buffer.Text(recv(plain.fd, buffer.bytes, 64, 0)));
    }
}

// The messages of failing system calls: through the hook for the stream
// socket, through perror for the datagram classes.
TEST(Sockets, FailuresPrintTheirMessages)
{
    const Plain taken;  // its port is bound without address reuse
    std::vector<int> ready;
    Buffer buffer;
    KqTest::HookCapture hook;
    testing::internal::CaptureStderr();
    rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit noMore = {0, saved.rlim_max};  // no new descriptor can be opened
    setrlimit(RLIMIT_NOFILE, &noMore);
    CStreamSocket stream(CInetSocketAddress(LOOPBACK, taken.Port()));
    CDatagramTransmit transmitter(LOOPBACK, taken.Port(), "");
    CDatagramMultiSocket noSet;
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(0u, stream.Write(buffer.slice) + stream.Read(buffer.slice) + stream.Read(buffer.slice, 10));
    EXPECT_EQ(0u, transmitter.Write(buffer.slice));
    CDatagramReceive notAGroup(LOOPBACK, taken.Port(), LOOPBACK), inUse(LOOPBACK, taken.Port(), ANY);
    errno = EBADF;
    EXPECT_EQ(0u, inUse.Read(buffer.slice, 0));
    CDatagramMultiSocket multi;
    EXPECT_EQ(1, multi.Wait(ready, 0));                                          // no socket: the system refuses
    EXPECT_EQ(-1, multi.AddConnection(LOOPBACK, LOOPBACK, taken.Port(), true));  // not a group
    EXPECT_FALSE(multi.RemoveConnection(taken.fd));
    EXPECT_EQ(0u, multi.Read(-1, buffer.slice));
    EXPECT_EQ(Perror("socket creation failed", EMFILE) + Perror("epoll create failed", EMFILE) +
                  Perror("setsocketopt failed", EINVAL) + Perror("bind failed", EADDRINUSE) +
                  Perror("CDatagramReceive::Read() - Invalid socket", EBADF) + Perror("epoll_wait failed", EINVAL) +
                  Perror("setsocketopt failed", EINVAL) + Perror("epoll_ctl failed", ENOENT) +
                  Perror("Read failed", EBADF),
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(std::vector<std::string>{"socket() failed"}, hook.Lines());  // unconnected transfers print nothing
    EXPECT_NE(-1, fcntl(taken.fd, F_GETFD));            // not in the set, so not closed
}

// Several groups on one port: each socket gets only its group's datagrams.
TEST(DatagramMulticast, GroupsOnOnePortReachOnlyTheirMembers)
{
    if (!g_NoMulticast.empty())
        GTEST_SKIP() << "multicast needs a private network namespace: " << g_NoMulticast;
    const unsigned short port = Plain().Port();
    const Plain sender;
    KqTest::HookCapture hook;
    int first = -1, second = -1;
    {
        CDatagramMultiSocket multi;
        CDatagramReceive member(CIpAddress(239, 1, 1, 3), port, LOOPBACK);
        first = multi.AddConnection(GROUP1, LOOPBACK, port, true);
        second = multi.AddConnection(GROUP2, ANY, port, true);
        ASSERT_TRUE(multi.IsValid() && member.IsValid() && first >= 0 && second >= 0);
        CDatagramMultiSocket other;  // the same group and port again: only with reuse on both sockets
        testing::internal::CaptureStderr();
        EXPECT_EQ(-1, other.AddConnection(GROUP1, LOOPBACK, port, false));
        EXPECT_EQ(Perror("Bind not successful", EADDRINUSE), testing::internal::GetCapturedStderr());
        const int shared = other.AddConnection(GROUP1, LOOPBACK, port, true);
        EXPECT_TRUE(shared >= 0 && other.RemoveConnection(shared));
        EXPECT_EQ(-1, fcntl(shared, F_GETFD));  // closed
        Buffer buffer;
        ASSERT_EQ(5, sender.SendTo(CIpAddress(239, 1, 1, 3), port, "three"));
        EXPECT_EQ("three", buffer.Text(member.Read(buffer.slice, 1000)));
        std::vector<int> ready = {-7};
        const auto start = steady_clock::now();
        EXPECT_EQ(2, multi.Wait(ready, 100));
        EXPECT_GE(steady_clock::now() - start, 99ms);
        CDatagramTransmit toFirst(GROUP1, port, ""), toSecond(GROUP2, port, "");
        ASSERT_EQ(3u, toSecond.Write(buffer.Of("two")));
        EXPECT_EQ(0, multi.Wait(ready, 1000));
        EXPECT_EQ((std::vector<int>{-7, second}), ready);
        EXPECT_EQ("two", buffer.Text(multi.Read(second, buffer.slice)));
        ASSERT_EQ(3u, toFirst.Write(buffer.Of("one")));
        EXPECT_EQ(0, multi.Wait(ready, 1000));  // appends
        EXPECT_EQ((std::vector<int>{-7, second, first}), ready);
        EXPECT_EQ(0u, member.Read(buffer.slice, 50));
    }
    EXPECT_EQ(std::vector<std::string>{"~CDatagramMultiSocket() 2 Sockets are still open!"}, hook.Lines());
    EXPECT_EQ(0, close(first) + close(second));  // both still open
}
