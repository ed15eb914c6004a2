// KqMacAddress.cpp: the 48-bit Ethernet address value (portable).

// The index check of operator[] is a contract of the class, kept in every
// build type, release builds included.
#undef NDEBUG
#include <cassert>

#include "KqAddress.h"
#include "KqOutput.h"

#include <algorithm>

namespace KQ {
namespace {

const size_t TEXT_DIGITS = 12;
const unsigned long LOW_48_BITS = 0xFFFFFFFFFFFFUL;

// The value of a hex digit; any other character counts as 0.
unsigned char HexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned char>(c - '0');
    }
    if (c >= 'A' && c <= 'F') {
        return static_cast<unsigned char>(c - 'A' + 10);
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<unsigned char>(c - 'a' + 10);
    }
    return 0;
}

// Gives every one-character group a leading zero and drops the colons
// ("0:1a:2:b:c4:5" gives "001a020bc405"). This is the walk that inserts a
// '0' before a character followed by ':' or standing last, stepping two
// characters after each check, done in one pass: a step that inserts covers
// one character of the input, a step that does not covers two.
std::string PadGroupsAndDropColons(const std::string& text)
{
    std::string digits;
    digits.reserve(text.size() + text.size() / 2);
    const size_t size = text.size();
    size_t p = 0;
    while (p < size) {
        if (text[p] == ':') {
            if (++p >= size) {
                break;
            }
        }
        const bool pad = (p + 1 < size && text[p + 1] == ':') || p + 1 == size;
        if (pad) {
            digits += '0';
            digits += text[p];
            p += 1;
        } else {
            digits += text[p];
            digits += text[p + 1];
            p += 2;
        }
    }
    digits.erase(std::remove(digits.begin(), digits.end(), ':'), digits.end());
    return digits;
}

}  // namespace

const size_t CMacAddress::OCTET_COUNT;

CMacAddress::CMacAddress()
{
    Init();
}

CMacAddress::CMacAddress(const std::string& text)
{
    Init();
    Set(text);
}

CMacAddress::CMacAddress(unsigned long value)
{
    Init();
    FromUInt64(value);
}

CMacAddress::CMacAddress(const CMacAddress& other) = default;

CMacAddress::~CMacAddress() {}

void CMacAddress::Init()
{
    for (uint8_t& octet : m_Octets) {
        octet = 0;
    }
}

bool CMacAddress::Set(std::string text)
{
    if (text.find(':') != std::string::npos) {
        text = PadGroupsAndDropColons(text);
    }
    if (text.size() != TEXT_DIGITS) {
        return false;
    }
    for (size_t i = 0; i < OCTET_COUNT; ++i) {
        m_Octets[i] = static_cast<uint8_t>(HexValue(text[2 * i]) << 4 | HexValue(text[2 * i + 1]));
    }
    return true;
}

CMacAddress& CMacAddress::operator=(const CMacAddress& other)
{
    if (this != &other) {
        for (size_t i = 0; i < OCTET_COUNT; ++i) {
            m_Octets[i] = other.m_Octets[i];
        }
    }
    return *this;
}

CMacAddress& CMacAddress::operator=(const std::string& text)
{
    Set(text);
    return *this;
}

std::string CMacAddress::ToString(bool withColons) const
{
    std::string text;
    for (size_t i = 0; i < OCTET_COUNT; ++i) {
        text += Str::Format("%02X", m_Octets[i]);
        if (withColons && i + 1 < OCTET_COUNT) {
            text += ':';
        }
    }
    return text;
}

CMacAddress::operator std::string() const
{
    return ToString(true);
}

unsigned long CMacAddress::ToUInt64() const
{
    unsigned long value = 0;
    for (size_t i = 0; i < OCTET_COUNT; ++i) {
        value = value << 8 | m_Octets[i];
    }
    return value;
}

unsigned long CMacAddress::GetMacInt() const
{
    return ToUInt64();
}

CMacAddress::operator unsigned long() const
{
    return ToUInt64();
}

void CMacAddress::FromUInt64(unsigned long value)
{
    for (size_t i = OCTET_COUNT; i-- > 0; value >>= 8) {
        m_Octets[i] = static_cast<uint8_t>(value);
    }
}

bool CMacAddress::IsValid() const
{
    return ToUInt64() != 0;
}

uint8_t CMacAddress::operator[](const size_t& index) const
{
    assert(index < OCTET_COUNT);
    return m_Octets[index];
}

uint8_t& CMacAddress::operator[](const size_t& index)
{
    assert(index < OCTET_COUNT);
    return m_Octets[index];
}

bool CMacAddress::operator==(const CMacAddress& other) const
{
    return ToUInt64() == other.ToUInt64();
}

bool CMacAddress::operator!=(const CMacAddress& other) const
{
    return !(*this == other);
}

CMacAddress& CMacAddress::operator++()
{
    *this = CMacAddress((ToUInt64() + 1) & LOW_48_BITS);
    return *this;
}

CMacAddress CMacAddress::operator++(int)
{
    const CMacAddress before(*this);
    ++*this;
    return before;
}

CMacAddress& CMacAddress::operator--()
{
    *this = CMacAddress((ToUInt64() - 1) & LOW_48_BITS);
    return *this;
}

CMacAddress CMacAddress::operator--(int)
{
    const CMacAddress before(*this);
    --*this;
    return before;
}

std::ostream& operator<<(std::ostream& out, const CMacAddress& address)
{
    return out << address.ToString(true);
}

}  // namespace KQ
