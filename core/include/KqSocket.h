// KqSocket.h: socket addresses, the connected stream socket, UDP datagram
// sockets and the epoll-based multicast multi-socket.
//
// - ISocketAddress: the abstract address every socket operation takes; it
//   hands out a platform address structure and its full length.
// - CSocketAddressBase<T>: owns one heap-allocated, zeroed address structure
//   of type T (sockaddr_in or sockaddr_un). Not copyable.
// - CInetSocketAddress: an IPv4 address and port (sockaddr_in, 16 bytes).
// - CLocalSocketAddress: a local-domain socket path (sockaddr_un, 110 bytes),
//   cut to 107 characters.
// - CStreamSocket: one connected stream socket (TCP or local, following the
//   address family). It connects once; a failed connect may be retried on the
//   same object. Reads and writes are single system calls: the caller loops.
//   Failures to create or connect print "socket() failed" / "connect() failed"
//   through MyPrintf.
// - CDatagramSocket, CDatagramReceive, CDatagramTransmit: one UDP socket each,
//   receiving (bound at construction, optionally joined to a multicast group)
//   or sending every datagram to one fixed destination (optionally tied to a
//   network device). Failures are reported on standard error through perror.
// - CDatagramMultiSocket: many multicast receive sockets, one per group and
//   port, waited on together through one epoll set. The caller owns the
//   sockets' descriptors; the object owns only the epoll set.
//
// Ownership and failure: every socket object owns its descriptor and closes
// it in its destructor (except the multi-socket's member sockets, see
// there). Objects are not copied. Nothing throws; transfers return the bytes
// moved, 0 on failure (never negative); errno is left as the failing call set
// it. Thread-safety: no class takes a lock; one object is used by one thread
// at a time (a reader and a writer thread may share a connected stream
// socket, as the system allows). Distinct objects are independent.
#pragma once

#include "KqAddress.h"
#include "KqCore.h"
#include "KqExport.h"

#include <cstddef>
#include <string>
#include <vector>

struct sockaddr;
struct sockaddr_in;
struct sockaddr_un;

namespace KQ {

// An address that socket operations take. The structure and length are handed
// to the system as they are: the length is always the full structure size.
class KQ_API ISocketAddress {
public:
    virtual ~ISocketAddress();
    // The platform address structure; never null for the library's classes.
    virtual const sockaddr* GetSockAddr() const = 0;
    virtual sockaddr* GetSockAddr() = 0;
    // The size of the whole structure in bytes (16 for IPv4, 110 for local).
    virtual size_t GetSockAddrLength() const = 0;
};

// Owns one zeroed address structure of type T on the heap, freed with the
// object. Instantiated (and exported) for sockaddr_in and sockaddr_un only.
template <class T>
class KQ_API CSocketAddressBase : public ISocketAddress, private CUncopyable {
public:
    // Allocates a zeroed T.
    CSocketAddressBase();
    ~CSocketAddressBase() override;
    // The owned structure, viewed as a sockaddr.
    const sockaddr* GetSockAddr() const override;
    sockaddr* GetSockAddr() override;
    // sizeof(T): 16 for sockaddr_in, 110 for sockaddr_un.
    size_t GetSockAddrLength() const override;

protected:
    T* m_pAddr;
};

extern template class KQ_API CSocketAddressBase<::sockaddr_in>;
extern template class KQ_API CSocketAddressBase<::sockaddr_un>;

// An IPv4 address and port (AF_INET), stored in network byte order.
class KQ_API CInetSocketAddress : public CSocketAddressBase<::sockaddr_in> {
public:
    // sin_family AF_INET, the port and address.GetIpInt() in network order
    // (so the four octets appear in dotted order), the rest zero.
    CInetSocketAddress(const CIpAddress& address, unsigned short port);
    ~CInetSocketAddress() override;
    // The stored address (after a datagram read: the sender's).
    CIpAddress GetIpAddress() const;
    // The stored port in host order.
    unsigned short GetPort() const;
};

// A local-domain (AF_UNIX) socket path.
class KQ_API CLocalSocketAddress : public CSocketAddressBase<::sockaddr_un> {
public:
    // Copies at most the first 107 characters of path, NUL-terminated; a
    // longer path is cut silently. The length given to the system stays 110.
    explicit CLocalSocketAddress(const std::string& path);
    ~CLocalSocketAddress() override;
    // The stored path up to its first NUL.
    std::string GetSocketFile() const;
};

// A connected stream socket. The descriptor is -1 until Connect succeeds and
// is closed by the destructor. One object connects at most once; a failed
// Connect leaves it unconnected and may be retried. Read and Write on an
// unconnected object fail quietly (the system refuses descriptor -1).
class KQ_API CStreamSocket : private CUncopyable {
public:
    // Not connected.
    CStreamSocket();
    // Connects to address; the result is dropped, IsValid() tells.
    explicit CStreamSocket(const ISocketAddress& address);
    // Closes the descriptor (a failing close is ignored).
    ~CStreamSocket();

    // True once connected.
    bool IsValid() const;
    // Creates a socket of the address's family and connects it, waiting as
    // long as the system's connect does. False without change when already
    // connected; false after printing "socket() failed" or "connect() failed"
    // (the new socket is closed) when the system refuses.
    bool Connect(const ISocketAddress& address);
    // One read into the slice, blocking until data arrives. Returns the bytes
    // read; 0 at the end of the stream and on failure.
    size_t Read(CSlice<unsigned char>& slice);
    // Waits at most milliseconds (0: only checks) for data, then reads once.
    // 0 on time-out, on hang-up or error without data, and as Read(slice).
    size_t Read(CSlice<unsigned char>& slice, unsigned long milliseconds);
    // One write of the slice; returns the bytes written (a partial write gives
    // the smaller count, the caller loops), 0 on failure.
    size_t Write(const CSlice<unsigned char>& slice);

private:
    struct Handle_t;
    Handle_t* m_pHandle;
};

// One UDP socket (AF_INET) with the address and port it works with. The
// socket is created at construction but not bound. Failures print through
// perror ("message: errno text") on standard error and leave the descriptor
// at -1, so IsValid() is false.
class KQ_API CDatagramSocket : private CUncopyable {
public:
    // Stores address and port in m_Address and creates the socket; prints
    // "socket creation failed" when the system refuses.
    CDatagramSocket(const CIpAddress& address, unsigned short port);
    // Closes the descriptor if there is one.
    ~CDatagramSocket();

    // Binds the socket to m_Address (without SO_REUSEADDR). A local interface
    // other than 0.0.0.0 first joins m_Address as a multicast group on that
    // interface, so m_Address must then be a group. On failure prints
    // "setsocketopt failed" (membership) or "bind failed", closes the socket
    // and returns false.
    bool Bind(const CIpAddress& interfaceAddress);
    // True while the object holds a socket.
    bool IsValid() const;

protected:
    struct Handle_t;
    Handle_t* m_pHandle;
    // Receiver: the address bound to, replaced by each datagram's sender.
    // Transmitter: the destination of every datagram.
    CInetSocketAddress m_Address;
};

// A UDP socket bound at construction that reads one datagram per call.
class KQ_API CDatagramReceive : public CDatagramSocket {
public:
    // Binds to address:port; address is a local unicast address, 0.0.0.0 or
    // a multicast group. interfaceAddress 0.0.0.0 joins no group; any other
    // value joins the group address on that local interface. IsValid() tells
    // whether it worked.
    CDatagramReceive(const CIpAddress& address, unsigned short port, const CIpAddress& interfaceAddress);

    // Receives one datagram into the slice, waiting at most milliseconds
    // (0: no limit). Returns its length, cut to the slice's length; 0 on
    // time-out (nothing printed) and on failure. The sender's address
    // replaces m_Address. Without a socket prints
    // "CDatagramReceive::Read() - Invalid socket" and returns 0.
    size_t Read(CSlice<unsigned char>& slice, unsigned long milliseconds);
};

// A UDP socket that sends every datagram to one destination (unicast or
// multicast group). No multicast options are set: the system's defaults
// (time to live 1, loopback on, routed interface) apply.
class KQ_API CDatagramTransmit : public CDatagramSocket {
public:
    // Destination address and port. A non-empty device name ties the socket
    // to that network device (SO_BINDTODEVICE); when that fails, or the name
    // is longer than 15 characters, prints "SO_BINDTODEVICE failed" and
    // keeps the socket, which then sends by the normal routing.
    CDatagramTransmit(const CIpAddress& address, unsigned short port, std::string device);

    // Sends the slice as one datagram; returns the bytes sent, 0 on failure
    // (also without a socket; nothing is printed).
    size_t Write(const CSlice<unsigned char>& slice);
};

// Receives multicast datagrams on many groups at once. Each AddConnection
// makes one UDP socket joined to one group and bound to the group's address
// and a port, and puts it into the object's epoll set (level-triggered). One
// thread waits with Wait and reads the ready descriptors with Read. The
// caller owns the returned descriptors: RemoveConnection closes one, the
// destructor closes none (it warns through MyPrintf with their count).
// System call failures print through perror on standard error.
// Thread-safety: no lock. Wait must not run while another thread adds or
// removes sockets: the caller serialises them.
class KQ_API CDatagramMultiSocket : private CUncopyable {
public:
    // Creates the epoll set; prints "epoll create failed" when refused.
    CDatagramMultiSocket();
    // Closes the epoll set, printing "~CDatagramMultiSocket() N Sockets are
    // still open!" through MyPrintf when N sockets are still added. Does not
    // close those sockets.
    ~CDatagramMultiSocket();

    // True when the epoll set exists.
    bool IsValid() const;
    // Makes a socket joined to group on the local interface (0.0.0.0: the
    // system chooses), optionally with SO_REUSEADDR (needed by every socket
    // that shares the group and port), bound to group:port and watched for
    // input. Returns its descriptor, or -1 after printing why ("socket
    // creation failed", "setsocketopt failed", "set address reuse failed",
    // "Bind not successful", "epoll_ctl failed"); the socket is then closed.
    int AddConnection(const CIpAddress& group, const CIpAddress& interfaceAddress, unsigned short port, bool reuse);
    // Takes the socket out of the set and closes it (leaving its group).
    // False after "epoll_ctl failed" when it is not in the set; it is then
    // not closed.
    bool RemoveConnection(int socket);
    // Waits up to milliseconds (-1: no limit, 0: no wait) for datagrams and
    // appends the ready descriptors to ready (not cleared first). Returns 0
    // when some are ready, 2 on time-out (ready untouched), 1 after printing
    // "epoll_wait failed" (also when interrupted by a signal or when no
    // socket was added).
    int Wait(std::vector<int>& ready, int milliseconds);
    // One read of a datagram from socket (any descriptor; the set is not
    // consulted) into the slice, cut to its length. Returns the bytes read,
    // 0 after printing "Read failed".
    size_t Read(int socket, CSlice<unsigned char>& slice);

private:
    struct Handle_t;
    Handle_t* m_pHandle;
};

}  // namespace KQ
