// KqDatagramTransmit.cpp: a UDP socket that sends every datagram to one fixed
// destination, optionally tied to a network device (Linux).
#include "KqSocket.h"

#include "KqSocketOps.h"

#include <cstring>

#include <net/if.h>

namespace KQ {
namespace {

// Ties fd to the named device with a whole interface request record, the
// name NUL-terminated in its 16-byte field. A name that does not fit names
// no device: refused with ENODEV, as the system refuses unknown devices.
bool BindToDevice(int fd, const std::string& device)
{
    static_assert(sizeof(ifreq) == 40, "ifreq is the 40-byte interface request record");
    if (device.size() >= IFNAMSIZ) {
        errno = ENODEV;
        return false;
    }
    ifreq request;
    std::memset(&request, 0, sizeof request);
    std::memcpy(request.ifr_name, device.c_str(), device.size() + 1);
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, &request, sizeof request) == 0;
}

}  // namespace

CDatagramTransmit::CDatagramTransmit(const CIpAddress& address, unsigned short port, std::string device)
    : CDatagramSocket(address, port)
{
    if (!device.empty() && !BindToDevice(m_pHandle->fd, device)) {
        INTERNAL::Report("SO_BINDTODEVICE failed");
    }
}

size_t CDatagramTransmit::Write(const CSlice<unsigned char>& slice)
{
    return INTERNAL::ByteCount(sendto(m_pHandle->fd, slice.m_pData, slice.m_Length, 0, m_Address.GetSockAddr(),
                                      static_cast<socklen_t>(m_Address.GetSockAddrLength())));
}

}  // namespace KQ
