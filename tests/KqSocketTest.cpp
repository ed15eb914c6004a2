// Socket addresses and the stream socket, against plain listening TCP and
// local-domain sockets on loopback.
#include "Kq.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace KQ;

namespace {

typedef std::chrono::steady_clock Clock_t;

long MillisecondsSince(Clock_t::time_point start)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock_t::now() - start).count());
}

// A plain listening socket (TCP on 127.0.0.1 with an ephemeral port, or
// local-domain on a path); closed with the object.
class Listener {
public:
    Listener() : m_Fd(socket(AF_INET, SOCK_STREAM, 0)), m_Port(0)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(m_Fd, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(m_Fd, 4) == 0 &&
            getsockname(m_Fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            m_Port = ntohs(address.sin_port);
        }
    }
    explicit Listener(const std::string& path) : m_Fd(socket(AF_UNIX, SOCK_STREAM, 0)), m_Port(0)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(0, bind(m_Fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, listen(m_Fd, 4));
    }
    ~Listener() { close(m_Fd); }

    unsigned short Port() const { return m_Port; }
    // Whether a connection is waiting to be accepted.
    bool HasPending() const
    {
        pollfd entry = {m_Fd, POLLIN, 0};
        return poll(&entry, 1, 0) == 1;
    }
    int Accept() const { return accept(m_Fd, nullptr, nullptr); }

private:
    int m_Fd;
    unsigned short m_Port;
};

// A port on 127.0.0.1 where nothing listens (a listener's, after closing it).
unsigned short UnusedPort()
{
    Listener probe;
    return probe.Port();
}

CInetSocketAddress Loopback(unsigned short port)
{
    return CInetSocketAddress(CIpAddress(127, 0, 0, 1), port);
}

const unsigned char* Bytes(const ISocketAddress& address)
{
    return reinterpret_cast<const unsigned char*>(address.GetSockAddr());
}

}  // namespace

// --- Addresses -------------------------------------------------------------

TEST(InetSocketAddress, HoldsFamilyPortAndAddressInNetworkOrder)
{
    struct Case {
        CIpAddress address;
        unsigned short port;
        unsigned char portBytes[2];
        unsigned char addressBytes[4];
    };
    const Case cases[] = {
        {CIpAddress(192, 168, 1, 2), 8080, {0x1F, 0x90}, {192, 168, 1, 2}},
        {CIpAddress(0, 0, 0, 0), 0, {0, 0}, {0, 0, 0, 0}},
        {CIpAddress(255, 255, 255, 255), 65535, {0xFF, 0xFF}, {255, 255, 255, 255}},
        {CIpAddress(10, 0, 0, 1), 1, {0x00, 0x01}, {10, 0, 0, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.address.GetIp(false));
        CInetSocketAddress address(c.address, c.port);
        const ISocketAddress& base = address;
        ASSERT_EQ(16u, base.GetSockAddrLength());
        EXPECT_EQ(AF_INET, base.GetSockAddr()->sa_family);
        EXPECT_EQ(0, std::memcmp(Bytes(base) + 2, c.portBytes, 2));
        EXPECT_EQ(0, std::memcmp(Bytes(base) + 4, c.addressBytes, 4));
        EXPECT_EQ(std::vector<unsigned char>(8, 0), std::vector<unsigned char>(Bytes(base) + 8, Bytes(base) + 16));
        EXPECT_EQ(c.port, address.GetPort());
        EXPECT_EQ(c.address, address.GetIpAddress());
        EXPECT_EQ(address.GetSockAddr(), base.GetSockAddr());
    }
}

TEST(LocalSocketAddress, KeepsAtMost107CharactersAndTheFullLength)
{
    const size_t lengths[] = {0, 1, 106, 107, 108, 200};
    for (size_t length : lengths) {
        SCOPED_TRACE(length);
        std::string path(length, 'p');
        for (size_t i = 0; i < length; ++i) {
            path[i] = static_cast<char>('a' + i % 26);
        }
        const size_t kept = length < 107 ? length : 107;
        ISocketAddress* address = new CLocalSocketAddress(path);
        EXPECT_EQ(110u, address->GetSockAddrLength());
        EXPECT_EQ(AF_UNIX, address->GetSockAddr()->sa_family);
        const sockaddr_un* raw = reinterpret_cast<const sockaddr_un*>(address->GetSockAddr());
        EXPECT_EQ(path.substr(0, kept), std::string(raw->sun_path, kept));
        EXPECT_EQ('\0', raw->sun_path[kept]);
        EXPECT_EQ(path.substr(0, kept), static_cast<CLocalSocketAddress*>(address)->GetSocketFile());
        delete address;  // through the interface: frees the structure too
    }
}

// --- Stream socket ---------------------------------------------------------

TEST(StreamSocket, TalksToATcpPeerWithSingleCallsAndKeepsTheSlice)
{
    Listener listener;
    ASSERT_NE(0, listener.Port());
    CStreamSocket socket(Loopback(listener.Port()));
    ASSERT_TRUE(socket.IsValid());
    const int peer = listener.Accept();
    ASSERT_GE(peer, 0);

    unsigned char hello[] = {'h', 'e', 'l', 'l', 'o'};
    const CSlice<unsigned char> out(hello, sizeof hello);
    EXPECT_EQ(5u, socket.Write(out));
    char received[16] = {};
    EXPECT_EQ(5, read(peer, received, sizeof received));
    EXPECT_STREQ("hello", received);

    ASSERT_EQ(3, write(peer, "abc", 3));
    unsigned char buffer[64] = {};
    CSlice<unsigned char> in(buffer, sizeof buffer);
    EXPECT_EQ(3u, socket.Read(in));
    EXPECT_EQ(0, std::memcmp(buffer, "abc", 3));
    EXPECT_EQ(buffer, in.m_pData);
    EXPECT_EQ(sizeof buffer, in.m_Length);

    close(peer);
    EXPECT_EQ(0u, socket.Read(in));  // end of stream
}

TEST(StreamSocket, ConnectsOnlyOnceAndKeepsTheFirstConnection)
{
    Listener first;
    Listener second;
    CStreamSocket socket;
    EXPECT_FALSE(socket.IsValid());
    ASSERT_TRUE(socket.Connect(Loopback(first.Port())));
    EXPECT_FALSE(socket.Connect(Loopback(second.Port())));
    EXPECT_TRUE(socket.IsValid());
    EXPECT_FALSE(second.HasPending());
    EXPECT_TRUE(first.HasPending());

    const int peer = first.Accept();
    unsigned char byte = 'x';
    EXPECT_EQ(1u, socket.Write(CSlice<unsigned char>(&byte, 1)));
    char received = 0;
    EXPECT_EQ(1, read(peer, &received, 1));
    EXPECT_EQ('x', received);
    close(peer);
}

TEST(StreamSocket, FailedConnectPrintsAndMayBeRetried)
{
    KqTest::HookCapture hook;
    const unsigned short port = UnusedPort();
    CStreamSocket socket(Loopback(port));
    EXPECT_FALSE(socket.IsValid());
    EXPECT_FALSE(socket.Connect(Loopback(port)));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_EQ((std::vector<std::string>{"connect() failed", "connect() failed"}), hook.Lines());

    Listener listener;
    EXPECT_TRUE(socket.Connect(Loopback(listener.Port())));
    EXPECT_TRUE(socket.IsValid());
    EXPECT_EQ(2u, hook.Lines().size());
}

TEST(StreamSocket, SocketCreationFailurePrintsAndLeavesItUnconnected)
{
    // An address of a family the system does not know: socket() refuses it.
    struct UnknownFamily : ISocketAddress {
        sockaddr raw = {255, {}};
        const sockaddr* GetSockAddr() const override { return &raw; }
        sockaddr* GetSockAddr() override { return &raw; }
        size_t GetSockAddrLength() const override { return sizeof raw; }
    };
    KqTest::HookCapture hook;
    CStreamSocket socket{UnknownFamily()};
    EXPECT_EQ(EAFNOSUPPORT, errno);
    EXPECT_FALSE(socket.IsValid());
    EXPECT_EQ(std::vector<std::string>{"socket() failed"}, hook.Lines());
    Listener listener;
    EXPECT_TRUE(socket.Connect(Loopback(listener.Port())));
}

TEST(StreamSocket, TimedReadWaitsForDataOrReturnsZero)
{
    Listener listener;
    CStreamSocket socket(Loopback(listener.Port()));
    const int peer = listener.Accept();
    unsigned char buffer[8];
    CSlice<unsigned char> in(buffer, sizeof buffer);

    Clock_t::time_point start = Clock_t::now();
    EXPECT_EQ(0u, socket.Read(in, 100));
    const long waited = MillisecondsSince(start);
    EXPECT_GE(waited, 99);
    EXPECT_LT(waited, 100 + 2000);

    start = Clock_t::now();
    EXPECT_EQ(0u, socket.Read(in, 0));  // checks once, does not wait
    EXPECT_LT(MillisecondsSince(start), 50);

    ASSERT_EQ(2, write(peer, "ok", 2));
    EXPECT_EQ(2u, socket.Read(in, 0));
    ASSERT_EQ(4, write(peer, "more", 4));
    EXPECT_EQ(4u, socket.Read(in, 5000));

    close(peer);
    start = Clock_t::now();
    EXPECT_EQ(0u, socket.Read(in, 5000));  // hang-up: at once, not after 5 s
    EXPECT_LT(MillisecondsSince(start), 2000);
}

TEST(StreamSocket, UnconnectedTransfersFailQuietly)
{
    KqTest::HookCapture hook;
    CStreamSocket socket;
    unsigned char buffer[4] = {1, 2, 3, 4};
    CSlice<unsigned char> slice(buffer, sizeof buffer);
    EXPECT_EQ(0u, socket.Write(slice));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(0u, socket.Read(slice));
    EXPECT_EQ(0u, socket.Read(slice, 10));
    EXPECT_TRUE(hook.Lines().empty());
}

TEST(StreamSocket, TalksToALocalDomainPeer)
{
    KqTest::TempDir dir;
    const std::string path = dir / "peer.sock";
    KqTest::HookCapture hook;
    CStreamSocket early(CLocalSocketAddress{path});
    EXPECT_FALSE(early.IsValid());  // nothing there yet
    EXPECT_EQ(std::vector<std::string>{"connect() failed"}, hook.Lines());

    Listener listener(path);
    CStreamSocket socket(CLocalSocketAddress{path});
    ASSERT_TRUE(socket.IsValid());
    const int peer = listener.Accept();
    unsigned char ping[] = {'p', 'i', 'n', 'g'};
    EXPECT_EQ(4u, socket.Write(CSlice<unsigned char>(ping, sizeof ping)));
    char received[8] = {};
    EXPECT_EQ(4, read(peer, received, sizeof received));
    ASSERT_EQ(4, write(peer, "pong", 4));
    unsigned char buffer[8] = {};
    CSlice<unsigned char> in(buffer, sizeof buffer);
    EXPECT_EQ(4u, socket.Read(in, 1000));
    EXPECT_EQ(0, std::memcmp(buffer, "pong", 4));
    close(peer);
}
