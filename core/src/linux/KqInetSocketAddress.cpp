// KqInetSocketAddress.cpp: an IPv4 address and port over sockaddr_in (Linux).
#include "KqSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace KQ {

CInetSocketAddress::CInetSocketAddress(const CIpAddress& address, unsigned short port)
{
    m_pAddr->sin_family = AF_INET;
    m_pAddr->sin_port = htons(port);
    m_pAddr->sin_addr.s_addr = htonl(address.GetIpInt());
}

CInetSocketAddress::~CInetSocketAddress() = default;

CIpAddress CInetSocketAddress::GetIpAddress() const
{
    CIpAddress address;
    address.SetIpInt(ntohl(m_pAddr->sin_addr.s_addr));
    return address;
}

unsigned short CInetSocketAddress::GetPort() const
{
    return ntohs(m_pAddr->sin_port);
}

}  // namespace KQ
