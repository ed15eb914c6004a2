// Stream socket echo round trips and multi-socket datagram throughput, each
// beside the same work done with plain system calls. The program runs in a
// private network namespace when it is root, so multicast stays local.
#include "Kq.h"

#include "../tests/KqNetNamespace.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace KQ;

namespace {

// Entered at load time, before any thread starts.
const std::string g_NoMulticast = KqTest::PrivateMulticastNetwork();

constexpr size_t MESSAGE_SIZE = 64;
constexpr int GROUP_COUNT = 64;
constexpr unsigned short GROUP_PORT = 40123;

sockaddr_in RawAddress(const CIpAddress& address, unsigned short port)
{
    sockaddr_in raw = {};
    raw.sin_family = AF_INET;
    raw.sin_port = htons(port);
    raw.sin_addr.s_addr = htonl(address.GetIpInt());
    return raw;
}

// A TCP listener on 127.0.0.1 whose thread echoes everything of one
// connection back until the peer closes.
class EchoServer {
public:
    EchoServer() : m_Listener(socket(AF_INET, SOCK_STREAM, 0)), m_Port(0)
    {
        sockaddr_in address = RawAddress(CIpAddress(127, 0, 0, 1), 0);
        socklen_t length = sizeof address;
        bind(m_Listener, reinterpret_cast<sockaddr*>(&address), length);
        listen(m_Listener, 1);
        getsockname(m_Listener, reinterpret_cast<sockaddr*>(&address), &length);
        m_Port = ntohs(address.sin_port);
        m_Thread = std::thread([this] { Echo(); });
    }
    ~EchoServer()
    {
        m_Thread.join();
        close(m_Listener);
    }
    unsigned short Port() const { return m_Port; }

private:
    void Echo()
    {
        const int peer = accept(m_Listener, nullptr, nullptr);
        char buffer[4096];
        for (ssize_t n = read(peer, buffer, sizeof buffer); n > 0; n = read(peer, buffer, sizeof buffer)) {
            if (write(peer, buffer, static_cast<size_t>(n)) != n) {
                break;
            }
        }
        close(peer);
    }
    int m_Listener;
    unsigned short m_Port;
    std::thread m_Thread;
};

void BM_StreamSocketEcho(benchmark::State& state)
{
    EchoServer server;
    {
        CStreamSocket socket(CInetSocketAddress(CIpAddress(127, 0, 0, 1), server.Port()));
        unsigned char request[MESSAGE_SIZE] = {1};
        unsigned char reply[MESSAGE_SIZE];
        const CSlice<unsigned char> out(request, sizeof request);
        for (auto _ : state) {
            benchmark::DoNotOptimize(socket.Write(out));
            for (size_t got = 0; got < MESSAGE_SIZE;) {
                CSlice<unsigned char> in(reply + got, MESSAGE_SIZE - got);
                got += socket.Read(in);
            }
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_StreamSocketEcho)->UseRealTime();

void BM_PlainReadWriteEcho(benchmark::State& state)
{
    EchoServer server;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = RawAddress(CIpAddress(127, 0, 0, 1), server.Port());
    connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    unsigned char request[MESSAGE_SIZE] = {1};
    unsigned char reply[MESSAGE_SIZE];
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, request, sizeof request));
        for (size_t got = 0; got < MESSAGE_SIZE;) {
            const ssize_t n = read(fd, reply + got, MESSAGE_SIZE - got);
            got += n > 0 ? static_cast<size_t>(n) : 0;
        }
    }
    close(fd);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_PlainReadWriteEcho)->UseRealTime();

CIpAddress Group(int i)
{
    return CIpAddress(239, 2, 0, static_cast<unsigned char>(i + 1));
}

// Sends one datagram to each of the groups from a plain socket on 127.0.0.1.
class GroupSender {
public:
    GroupSender() : m_Fd(socket(AF_INET, SOCK_DGRAM, 0))
    {
        const sockaddr_in local = RawAddress(CIpAddress(127, 0, 0, 1), 0);
        bind(m_Fd, reinterpret_cast<const sockaddr*>(&local), sizeof local);
        for (int i = 0; i < GROUP_COUNT; ++i) {
            m_Groups.push_back(RawAddress(Group(i), GROUP_PORT));
        }
    }
    ~GroupSender() { close(m_Fd); }
    void SendRound() const
    {
        static const unsigned char payload[MESSAGE_SIZE] = {2};
        for (const sockaddr_in& to : m_Groups) {
            benchmark::DoNotOptimize(
                sendto(m_Fd, payload, sizeof payload, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
        }
    }

private:
    int m_Fd;
    std::vector<sockaddr_in> m_Groups;
};

void BM_MultiSocketDatagrams(benchmark::State& state)
{
    if (!g_NoMulticast.empty()) {
        state.SkipWithError(("needs a private network namespace: " + g_NoMulticast).c_str());
        return;
    }
    CDatagramMultiSocket multi;
    std::vector<int> sockets;
    for (int i = 0; i < GROUP_COUNT; ++i) {
        sockets.push_back(multi.AddConnection(Group(i), CIpAddress(127, 0, 0, 1), GROUP_PORT, false));
    }
    GroupSender sender;
    std::vector<int> ready;
    unsigned char buffer[MESSAGE_SIZE];
    CSlice<unsigned char> slice(buffer, sizeof buffer);
    bool failed = false;
    for (auto _ : state) {
        sender.SendRound();
        for (int received = 0; received < GROUP_COUNT && !failed;) {
            ready.clear();
            failed = multi.Wait(ready, 1000) != 0;
            for (int fd : ready) {
                benchmark::DoNotOptimize(multi.Read(fd, slice));
                ++received;
            }
        }
        if (failed) {
            state.SkipWithError("Wait failed or timed out");
            break;
        }
    }
    for (int fd : sockets) {
        multi.RemoveConnection(fd);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * GROUP_COUNT);
}
BENCHMARK(BM_MultiSocketDatagrams)->UseRealTime();

// The same membership, bind and epoll registration made with plain calls.
int PlainGroupSocket(int epollFd, const CIpAddress& group)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ip_mreq membership;
    membership.imr_multiaddr.s_addr = htonl(group.GetIpInt());
    membership.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
    const sockaddr_in local = RawAddress(group, GROUP_PORT);
    bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
    return fd;
}

void BM_PlainEpollDatagrams(benchmark::State& state)
{
    if (!g_NoMulticast.empty()) {
        state.SkipWithError(("needs a private network namespace: " + g_NoMulticast).c_str());
        return;
    }
    const int epollFd = epoll_create1(0);
    std::vector<int> sockets;
    for (int i = 0; i < GROUP_COUNT; ++i) {
        sockets.push_back(PlainGroupSocket(epollFd, Group(i)));
    }
    GroupSender sender;
    epoll_event events[GROUP_COUNT];
    unsigned char buffer[MESSAGE_SIZE];
    bool failed = false;
    for (auto _ : state) {
        sender.SendRound();
        for (int received = 0; received < GROUP_COUNT && !failed;) {
            const int count = epoll_wait(epollFd, events, GROUP_COUNT, 1000);
            failed = count <= 0;
            for (int i = 0; i < count; ++i) {
                benchmark::DoNotOptimize(read(events[i].data.fd, buffer, sizeof buffer));
                ++received;
            }
        }
        if (failed) {
            state.SkipWithError("epoll_wait failed or timed out");
            break;
        }
    }
    for (int fd : sockets) {
        close(fd);
    }
    close(epollFd);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * GROUP_COUNT);
}
BENCHMARK(BM_PlainEpollDatagrams)->UseRealTime();

}  // namespace
