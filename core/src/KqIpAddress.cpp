// KqIpAddress.cpp: the IPv4 address value (portable).
#include "KqAddress.h"

#include <cctype>
#include <climits>
#include <cstdio>

namespace KQ {
namespace {

// Reads one number the way scanf's "%u" does and advances text past it:
// blanks (isspace) first, an optional sign, then at least one decimal digit.
// The digits are converted as strtoul does (a magnitude beyond unsigned long
// saturates to ULONG_MAX, a '-' negates modulo 2^64) and the result is cut
// to unsigned int, exactly as scanf stores a "%u" conversion. Hand-written
// because one sscanf call costs many times a whole parse.
bool ScanUnsigned(const char*& text, unsigned int& value)
{
    const char* p = text;
    // A digit is never a blank: the common case skips the locale lookup.
    while ((*p < '0' || *p > '9') && isspace(static_cast<unsigned char>(*p))) {
        ++p;
    }
    const bool negative = (*p == '-');
    if (*p == '-' || *p == '+') {
        ++p;
    }
    if (*p < '0' || *p > '9') {
        return false;
    }
    unsigned long magnitude = 0;
    bool overflow = false;
    for (; *p >= '0' && *p <= '9'; ++p) {
        const unsigned long digit = static_cast<unsigned long>(*p - '0');
        if (magnitude > ULONG_MAX / 10 || (magnitude == ULONG_MAX / 10 && digit > ULONG_MAX % 10)) {
            overflow = true;
        }
        magnitude = magnitude * 10 + digit;
    }
    const unsigned long number = overflow ? ULONG_MAX : (negative ? 0UL - magnitude : magnitude);
    value = static_cast<unsigned int>(number);
    text = p;
    return true;
}

// The four numbers of "%u.%u.%u.%u"; false when fewer than four are read.
bool ScanDotted(const char* text, unsigned int (&numbers)[4])
{
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            if (*text != '.') {
                return false;
            }
            ++text;
        }
        if (!ScanUnsigned(text, numbers[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace

const CIpAddress CIpAddress::MinIpAddress(0, 0, 0, 0);
const CIpAddress CIpAddress::MaxIpAddress(255, 255, 255, 255);

CIpAddress::CIpAddress() : m_Octets{0, 0, 0, 0} {}

CIpAddress::CIpAddress(unsigned char o0, unsigned char o1, unsigned char o2, unsigned char o3)
    : m_Octets{o0, o1, o2, o3}
{
}

CIpAddress::CIpAddress(const std::string& text) : m_Octets{0, 0, 0, 0}
{
    SetIp(text);
}

CIpAddress::CIpAddress(const unsigned int& value) : m_Octets{0, 0, 0, 0}
{
    SetIpInt(value);
}

CIpAddress::CIpAddress(const CIpAddress& other) = default;

CIpAddress::~CIpAddress() {}

CIpAddress& CIpAddress::operator=(const CIpAddress& other)
{
    if (this != &other) {
        for (int i = 0; i < 4; ++i) {
            m_Octets[i] = other.m_Octets[i];
        }
    }
    return *this;
}

CIpAddress& CIpAddress::operator=(const std::string& text)
{
    SetIp(text);
    return *this;
}

CIpAddress& CIpAddress::operator=(const unsigned int& value)
{
    SetIpInt(value);
    return *this;
}

bool CIpAddress::SetIp(const std::string& text)
{
    SetIpInt(0);
    unsigned int numbers[4] = {0, 0, 0, 0};
    if (!ScanDotted(text.c_str(), numbers)) {
        return false;
    }
    for (unsigned int number : numbers) {
        if (number > 255) {
            return false;
        }
    }
    SetIp(static_cast<unsigned char>(numbers[0]), static_cast<unsigned char>(numbers[1]),
          static_cast<unsigned char>(numbers[2]), static_cast<unsigned char>(numbers[3]));
    return true;
}

void CIpAddress::SetIp(unsigned char o0, unsigned char o1, unsigned char o2, unsigned char o3)
{
    m_Octets[0] = o0;
    m_Octets[1] = o1;
    m_Octets[2] = o2;
    m_Octets[3] = o3;
}

void CIpAddress::SetIpInt(unsigned int value)
{
    SetIp(static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
          static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value));
}

unsigned int CIpAddress::GetIpInt() const
{
    return (static_cast<unsigned int>(m_Octets[0]) << 24) | (static_cast<unsigned int>(m_Octets[1]) << 16) |
           (static_cast<unsigned int>(m_Octets[2]) << 8) | static_cast<unsigned int>(m_Octets[3]);
}

CIpAddress::operator unsigned int() const
{
    return GetIpInt();
}

std::string CIpAddress::GetIp(bool zeroPadded) const
{
    char text[17] = {};
    snprintf(text, sizeof text, zeroPadded ? "%03d.%03d.%03d.%03d" : "%d.%d.%d.%d", m_Octets[0], m_Octets[1],
             m_Octets[2], m_Octets[3]);
    return text;
}

CIpAddress::operator std::string() const
{
    return GetIp(false);
}

unsigned char CIpAddress::operator[](unsigned long index) const
{
    return index < 4 ? m_Octets[index] : 0;
}

unsigned char& CIpAddress::operator[](unsigned long index)
{
    return index < 4 ? m_Octets[index] : m_Octets[0];
}

bool CIpAddress::IsUnicast() const
{
    return m_Octets[0] <= 223;
}

bool CIpAddress::IsMulticast() const
{
    return m_Octets[0] >= 224 && m_Octets[0] <= 239;
}

bool CIpAddress::IsNetmask() const
{
    // Inverting a netmask gives a run of low one bits: adding one to it
    // leaves a single bit (or wraps to 0), so it shares no bit with itself.
    const unsigned int hostBits = ~GetIpInt();
    return (hostBits & (hostBits + 1)) == 0;
}

CIpAddress CIpAddress::GetBroadcastAddress(const CIpAddress& mask) const
{
    CIpAddress broadcast;
    for (int i = 0; i < 4; ++i) {
        broadcast.m_Octets[i] = static_cast<unsigned char>(m_Octets[i] | ~mask.m_Octets[i]);
    }
    return broadcast;
}

std::string CIpAddress::GetCidrNotation(const CIpAddress& mask) const
{
    if (!mask.IsNetmask()) {
        return GetIp(false);
    }
    unsigned int prefixLength = 0;
    for (unsigned int bits = mask.GetIpInt(); bits != 0; bits <<= 1) {
        ++prefixLength;
    }
    const CIpAddress network(GetIpInt() & mask.GetIpInt());
    char text[19] = {};
    snprintf(text, sizeof text, "%s/%u", network.GetIp(false).c_str(), prefixLength);
    return text;
}

CIpAddress& CIpAddress::operator++()
{
    SetIpInt(GetIpInt() + 1);
    return *this;
}

CIpAddress CIpAddress::operator++(int)
{
    const CIpAddress before(*this);
    ++*this;
    return before;
}

CIpAddress& CIpAddress::operator--()
{
    SetIpInt(GetIpInt() - 1);
    return *this;
}

CIpAddress CIpAddress::operator--(int)
{
    const CIpAddress before(*this);
    --*this;
    return before;
}

bool CIpAddress::operator==(const CIpAddress& other) const
{
    return GetIpInt() == other.GetIpInt();
}

bool CIpAddress::operator!=(const CIpAddress& other) const
{
    return !(*this == other);
}

bool CIpAddress::operator<(const CIpAddress& other) const
{
    return GetIpInt() < other.GetIpInt();
}

bool CIpAddress::operator>(const CIpAddress& other) const
{
    return GetIpInt() > other.GetIpInt();
}

bool CIpAddress::operator<=(const CIpAddress& other) const
{
    return GetIpInt() <= other.GetIpInt();
}

bool CIpAddress::operator>=(const CIpAddress& other) const
{
    return GetIpInt() >= other.GetIpInt();
}

std::ostream& operator<<(std::ostream& out, const CIpAddress& address)
{
    return out << address.GetIp(false);
}

}  // namespace KQ
