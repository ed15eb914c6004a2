// KqLocalSocketAddress.cpp: a local-domain socket path over sockaddr_un
// (Linux).
#include "KqSocket.h"

#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

namespace KQ {
namespace {

// sun_path holds 108 bytes: at most 107 characters and the terminating NUL.
constexpr size_t MAX_PATH_CHARACTERS = sizeof(sockaddr_un::sun_path) - 1;

}  // namespace

CLocalSocketAddress::CLocalSocketAddress(const std::string& path)
{
    m_pAddr->sun_family = AF_UNIX;
    const size_t count = path.size() < MAX_PATH_CHARACTERS ? path.size() : MAX_PATH_CHARACTERS;
    std::memcpy(m_pAddr->sun_path, path.data(), count);
    m_pAddr->sun_path[count] = '\0';
}

CLocalSocketAddress::~CLocalSocketAddress() = default;

std::string CLocalSocketAddress::GetSocketFile() const
{
    return std::string(m_pAddr->sun_path, strnlen(m_pAddr->sun_path, sizeof m_pAddr->sun_path));
}

}  // namespace KQ
