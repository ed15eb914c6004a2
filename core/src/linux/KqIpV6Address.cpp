// KqIpV6Address.cpp: the IPv6 address value; text goes through the system's
// inet_pton and inet_ntop (Linux).
#include "KqAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

namespace KQ {
namespace {

const size_t BYTE_COUNT = 16;
// Texts are cut to this many characters before parsing; the longest
// address text inet_pton accepts is 45 ("ffff:...:255.255.255.255"), so a
// few valid embedded-IPv4 forms are refused by design.
const size_t TEXT_LIMIT = 40;
const int MAX_PREFIX = 128;

// The mask of the first prefixLength bits (0 to 128).
void MakePrefixMask(int prefixLength, unsigned char (&mask)[BYTE_COUNT])
{
    memset(mask, 0, sizeof mask);
    size_t i = 0;
    for (; prefixLength >= 8; prefixLength -= 8) {
        mask[i++] = 0xFF;
    }
    if (prefixLength > 0) {
        mask[i] = static_cast<unsigned char>(0xFF << (8 - prefixLength));
    }
}

}  // namespace

CIpV6Address::CIpV6Address() : m_Bytes{} {}

CIpV6Address::CIpV6Address(const std::string& text) : m_Bytes{}
{
    SetIp(text);
}

CIpV6Address::CIpV6Address(const CSlice<unsigned char>& bytes) : m_Bytes{}
{
    SetIp(bytes);
}

CIpV6Address::CIpV6Address(const CIpV6Address& other) = default;

CIpV6Address::~CIpV6Address() {}

bool CIpV6Address::SetIp(const std::string& text)
{
    memset(m_Bytes, 0, sizeof m_Bytes);
    if (text.empty()) {
        return true;
    }
    // The first 40 characters up to the first NUL, as a "%s" copy into a
    // 41-character buffer would keep, without the cost of a formatted copy.
    char buffer[TEXT_LIMIT + 1] = {};
    const size_t length = strnlen(text.c_str(), TEXT_LIMIT);
    memcpy(buffer, text.c_str(), length);
    in6_addr parsed;
    if (inet_pton(AF_INET6, buffer, &parsed) != 1) {
        return false;
    }
    memcpy(m_Bytes, &parsed, sizeof m_Bytes);
    return true;
}

bool CIpV6Address::SetIp(const CSlice<unsigned char>& bytes)
{
    memset(m_Bytes, 0, sizeof m_Bytes);
    if (bytes.m_Length != BYTE_COUNT || bytes.m_pData == nullptr) {
        return false;
    }
    memcpy(m_Bytes, bytes.m_pData, sizeof m_Bytes);
    return true;
}

CIpV6Address& CIpV6Address::operator=(const CIpV6Address& other)
{
    if (this != &other) {
        memcpy(m_Bytes, other.m_Bytes, sizeof m_Bytes);
    }
    return *this;
}

CIpV6Address& CIpV6Address::operator=(const std::string& text)
{
    SetIp(text);
    return *this;
}

std::string CIpV6Address::GetIp(bool full) const
{
    char text[41] = {};
    if (full) {
        unsigned int groups[8];
        for (size_t i = 0; i < 8; ++i) {
            groups[i] = static_cast<unsigned int>(m_Bytes[2 * i]) << 8 | m_Bytes[2 * i + 1];
        }
        snprintf(text, sizeof text, "%04x:%04x:%04x:%04x:%04x:%04x:%04x:%04x", groups[0], groups[1], groups[2],
                 groups[3], groups[4], groups[5], groups[6], groups[7]);
    } else {
        inet_ntop(AF_INET6, m_Bytes, text, sizeof text);
    }
    return text;
}

CIpV6Address::operator std::string() const
{
    return GetIp(false);
}

bool CIpV6Address::FillIp(CSlice<unsigned char>& bytes) const
{
    if (bytes.m_Length != BYTE_COUNT || bytes.m_pData == nullptr) {
        return false;
    }
    memcpy(bytes.m_pData, m_Bytes, sizeof m_Bytes);
    return true;
}

void CIpV6Address::FillIp(in6_addr& address) const
{
    memcpy(&address, m_Bytes, sizeof m_Bytes);
}

bool CIpV6Address::IsUnicast() const
{
    return m_Bytes[0] != 0xFF;
}

bool CIpV6Address::IsMulticast() const
{
    return m_Bytes[0] == 0xFF;
}

bool CIpV6Address::IsValid() const
{
    return *this != CIpV6Address();
}

std::string CIpV6Address::GetCidrNotation(const int& prefixLength) const
{
    if (prefixLength < 0 || prefixLength > MAX_PREFIX) {
        return std::string();
    }
    char text[46] = {};
    snprintf(text, sizeof text, "%s/%u", GetSubnetPrefixAddress(prefixLength).GetIp(false).c_str(),
             static_cast<unsigned int>(prefixLength));
    return text;
}

CIpV6Address CIpV6Address::GetSubnetPrefixAddress(const int& prefixLength) const
{
    CIpV6Address network;
    if (prefixLength < 0 || prefixLength > MAX_PREFIX) {
        return network;
    }
    unsigned char mask[BYTE_COUNT];
    MakePrefixMask(prefixLength, mask);
    for (size_t i = 0; i < BYTE_COUNT; ++i) {
        network.m_Bytes[i] = static_cast<unsigned char>(m_Bytes[i] & mask[i]);
    }
    return network;
}

unsigned char CIpV6Address::operator[](unsigned long index) const
{
    return index < BYTE_COUNT ? m_Bytes[index] : 0;
}

unsigned char& CIpV6Address::operator[](unsigned long index)
{
    return index < BYTE_COUNT ? m_Bytes[index] : m_Bytes[0];
}

bool CIpV6Address::operator==(const CIpV6Address& other) const
{
    return memcmp(m_Bytes, other.m_Bytes, sizeof m_Bytes) == 0;
}

bool CIpV6Address::operator!=(const CIpV6Address& other) const
{
    return !(*this == other);
}

// Byte 0 is the most significant, so comparing the bytes as unsigned values
// from the front (memcmp) is the order of the 128-bit numbers.
bool CIpV6Address::operator>(const CIpV6Address& other) const
{
    return memcmp(m_Bytes, other.m_Bytes, sizeof m_Bytes) > 0;
}

bool CIpV6Address::operator>=(const CIpV6Address& other) const
{
    return *this > other || *this == other;
}

bool CIpV6Address::operator<(const CIpV6Address& other) const
{
    return !(*this >= other);
}

bool CIpV6Address::operator<=(const CIpV6Address& other) const
{
    return !(*this > other);
}

std::ostream& operator<<(std::ostream& out, const CIpV6Address& address)
{
    return out << address.GetIp(false);
}

}  // namespace KQ
