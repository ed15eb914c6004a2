// KqDatagramSocket.cpp: the UDP socket shared by the datagram receiver and
// transmitter; binding with an optional multicast membership (Linux).
#include "KqSocket.h"

#include "KqSocketOps.h"

namespace KQ {

CDatagramSocket::CDatagramSocket(const CIpAddress& address, unsigned short port)
    : m_pHandle(new Handle_t{-1}), m_Address(address, port)
{
    m_pHandle->fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (m_pHandle->fd == -1) {
        INTERNAL::Report("socket creation failed");
    }
}

CDatagramSocket::~CDatagramSocket()
{
    if (m_pHandle->fd != -1) {
        (void)close(m_pHandle->fd);
        m_pHandle->fd = -1;
    }
    delete m_pHandle;
}

bool CDatagramSocket::Bind(const CIpAddress& interfaceAddress)
{
    // Join before binding; interface 0.0.0.0 means no membership (unicast).
    if (interfaceAddress != CIpAddress::MinIpAddress &&
        !INTERNAL::JoinMulticastGroup(m_pHandle->fd, m_Address.GetIpAddress(), interfaceAddress)) {
        INTERNAL::ReportAndClose("setsocketopt failed", m_pHandle->fd);
        m_pHandle->fd = -1;
        return false;
    }
    if (bind(m_pHandle->fd, m_Address.GetSockAddr(), static_cast<socklen_t>(m_Address.GetSockAddrLength())) != 0) {
        INTERNAL::ReportAndClose("bind failed", m_pHandle->fd);
        m_pHandle->fd = -1;
        return false;
    }
    return true;
}

bool CDatagramSocket::IsValid() const
{
    return m_pHandle->fd != -1;
}

}  // namespace KQ
