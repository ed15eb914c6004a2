// KqStreamSocket.cpp: a connected stream socket, TCP or local-domain after
// the address family (Linux).
#include "KqSocket.h"

#include "KqOutput.h"
#include "KqSocketOps.h"

namespace KQ {

// The platform record: the connected descriptor, -1 while not connected.
struct CStreamSocket::Handle_t {
    int fd;
};

CStreamSocket::CStreamSocket() : m_pHandle(new Handle_t{-1})
{
}

CStreamSocket::CStreamSocket(const ISocketAddress& address) : CStreamSocket()
{
    (void)Connect(address);
}

CStreamSocket::~CStreamSocket()
{
    if (m_pHandle->fd != -1) {
        (void)close(m_pHandle->fd);
    }
    delete m_pHandle;
}

bool CStreamSocket::IsValid() const
{
    return m_pHandle->fd != -1;
}

bool CStreamSocket::Connect(const ISocketAddress& address)
{
    if (IsValid()) {
        return false;
    }
    const int fd = socket(address.GetSockAddr()->sa_family, SOCK_STREAM, 0);
    if (fd == -1) {
        MyPrintf("socket() failed");
        return false;
    }
    if (connect(fd, address.GetSockAddr(), static_cast<socklen_t>(address.GetSockAddrLength())) != 0) {
        INTERNAL::CErrnoGuard keep;
        MyPrintf("connect() failed");
        (void)close(fd);
        return false;
    }
    m_pHandle->fd = fd;
    return true;
}

size_t CStreamSocket::Read(CSlice<unsigned char>& slice)
{
    return INTERNAL::ByteCount(read(m_pHandle->fd, slice.m_pData, slice.m_Length));
}

size_t CStreamSocket::Read(CSlice<unsigned char>& slice, unsigned long milliseconds)
{
    if (!INTERNAL::WaitForInput(m_pHandle->fd, static_cast<int>(milliseconds))) {
        return 0;
    }
    return Read(slice);
}

size_t CStreamSocket::Write(const CSlice<unsigned char>& slice)
{
    return INTERNAL::ByteCount(write(m_pHandle->fd, slice.m_pData, slice.m_Length));
}

}  // namespace KQ
