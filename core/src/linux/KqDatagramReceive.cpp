// KqDatagramReceive.cpp: a bound UDP socket that reads one datagram per call,
// with an optional time-out (Linux).
#include "KqSocket.h"

#include "KqSocketOps.h"

namespace KQ {

CDatagramReceive::CDatagramReceive(const CIpAddress& address, unsigned short port, const CIpAddress& interfaceAddress)
    : CDatagramSocket(address, port)
{
    (void)Bind(interfaceAddress);
}

size_t CDatagramReceive::Read(CSlice<unsigned char>& slice, unsigned long milliseconds)
{
    const int fd = m_pHandle->fd;
    if (fd == -1) {
        perror("CDatagramReceive::Read() - Invalid socket");
        return 0;
    }
    if (milliseconds != 0 && !INTERNAL::WaitForInput(fd, static_cast<int>(milliseconds))) {
        return 0;
    }
    // The sender's address replaces the bound address in m_Address.
    socklen_t length = static_cast<socklen_t>(m_Address.GetSockAddrLength());
    return INTERNAL::ByteCount(recvfrom(fd, slice.m_pData, slice.m_Length, 0, m_Address.GetSockAddr(), &length));
}

}  // namespace KQ
