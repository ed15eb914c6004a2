// KqSocketAddressBase.cpp: the owned address structure behind the socket
// addresses, instantiated for IPv4 and local-domain structures (Linux).
#include "KqSocket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <netinet/in.h>

namespace KQ {

template <class T>
CSocketAddressBase<T>::CSocketAddressBase() : m_pAddr(new T())
{
}

template <class T>
CSocketAddressBase<T>::~CSocketAddressBase()
{
    delete m_pAddr;
}

template <class T>
const sockaddr* CSocketAddressBase<T>::GetSockAddr() const
{
    return reinterpret_cast<const sockaddr*>(m_pAddr);
}

template <class T>
sockaddr* CSocketAddressBase<T>::GetSockAddr()
{
    return reinterpret_cast<sockaddr*>(m_pAddr);
}

template <class T>
size_t CSocketAddressBase<T>::GetSockAddrLength() const
{
    return sizeof(T);
}

template class CSocketAddressBase<sockaddr_in>;
template class CSocketAddressBase<sockaddr_un>;

}  // namespace KQ
