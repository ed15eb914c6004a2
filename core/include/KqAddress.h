// KqAddress.h: value types for network addresses.
//
// - CIpAddress: one IPv4 address, four octets in dotted order, with an
//   integer view (first octet most significant), dotted-decimal text with or
//   without zero padding, numeric order, ++/-- through the address space,
//   classification and netmask/broadcast/CIDR helpers.
// - CIpV6Address: one IPv6 address, sixteen bytes in network order, read
//   and written as text through the system's inet_pton/inet_ntop (or a fixed
//   full form), as byte slices and as in6_addr, with prefix/CIDR helpers and
//   the numeric order of the 128-bit number.
// - CMacAddress: one 48-bit Ethernet address, text with or without colons
//   (upper-case hex), a 64-bit integer view and ++/--.
//
// These are plain values: copy them freely; they own no OS object, take no
// lock and print nothing. One object must not be changed by one thread while
// another reads it; distinct objects are independent. Bad text is reported
// only through the bool result of the setter; nothing throws.
#pragma once

#include "KqCore.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

struct in6_addr;

namespace KQ {

// One IPv4 address. m_Octets holds the octets in the order of the dotted
// notation (octet 0 is the leftmost number), which is also the byte order of
// a socket in_addr. The integer view is octet 0 * 2^24 + ... + octet 3, in
// host order: 192.168.1.2 is 3232235778. Order and arithmetic use that view.
class KQ_API CIpAddress {
public:
    // 0.0.0.0 and 255.255.255.255, built when the library is loaded.
    static const CIpAddress MinIpAddress;
    static const CIpAddress MaxIpAddress;

    // 0.0.0.0.
    CIpAddress();
    // The four octets in dotted order: CIpAddress(10, 0, 0, 1) is 10.0.0.1.
    CIpAddress(unsigned char o0, unsigned char o1, unsigned char o2, unsigned char o3);
    // Parses text as SetIp does; bad text silently gives 0.0.0.0.
    CIpAddress(const std::string& text);
    // From the integer view, as SetIpInt.
    CIpAddress(const unsigned int& value);
    CIpAddress(const CIpAddress& other);
    ~CIpAddress();

    // Copies the four octets; returns *this.
    CIpAddress& operator=(const CIpAddress& other);
    // Parses text as SetIp; bad text silently gives 0.0.0.0. Returns *this.
    CIpAddress& operator=(const std::string& text);
    // Sets the integer view as SetIpInt; returns *this.
    CIpAddress& operator=(const unsigned int& value);

    // Parses "a.b.c.d": four unsigned decimals (leading zeros stay decimal,
    // blanks before a number are skipped, each dot follows its number
    // directly, anything after the fourth number is ignored). False when
    // fewer than four numbers are read or one is above 255; the address is
    // then 0.0.0.0, whatever it held before.
    bool SetIp(const std::string& text);
    // Sets the four octets in dotted order.
    void SetIp(unsigned char o0, unsigned char o1, unsigned char o2, unsigned char o3);
    // Sets the octets from the integer view (bits 31-24 become octet 0).
    void SetIpInt(unsigned int value);
    // The integer view.
    unsigned int GetIpInt() const;
    operator unsigned int() const;

    // Dotted text; zeroPadded gives three digits per octet ("010.000.000.001"),
    // otherwise plain decimals ("10.0.0.1").
    std::string GetIp(bool zeroPadded) const;
    // GetIp(false).
    operator std::string() const;

    // Octet 0 to 3; any larger index reads as 0.
    unsigned char operator[](unsigned long index) const;
    // Octet 0 to 3; any larger index refers to octet 0.
    unsigned char& operator[](unsigned long index);

    // First octet 0 to 223 (0.0.0.0, loopback and private addresses included).
    bool IsUnicast() const;
    // First octet 224 to 239. 240.0.0.0 and above are neither.
    bool IsMulticast() const;
    // The integer view is ones from the top followed only by zeros
    // (0.0.0.0 and 255.255.255.255 included).
    bool IsNetmask() const;
    // Per octet: this octet OR NOT the mask octet. The mask is not checked.
    CIpAddress GetBroadcastAddress(const CIpAddress& mask) const;
    // "network/prefix" ("192.168.1.0/24") for a netmask; for a mask that is
    // not a netmask, GetIp(false) of this address unchanged.
    std::string GetCidrNotation(const CIpAddress& mask) const;

    // Add or subtract one modulo 2^32 on the integer view
    // (255.255.255.255 + 1 is 0.0.0.0). Postfix forms return the old value.
    CIpAddress& operator++();
    CIpAddress operator++(int);
    CIpAddress& operator--();
    CIpAddress operator--(int);

    // Equality of the four octets; order of the integer views.
    bool operator==(const CIpAddress& other) const;
    bool operator!=(const CIpAddress& other) const;
    bool operator<(const CIpAddress& other) const;
    bool operator>(const CIpAddress& other) const;
    bool operator<=(const CIpAddress& other) const;
    bool operator>=(const CIpAddress& other) const;

private:
    unsigned char m_Octets[4];
};

// Writes GetIp(false); returns out.
KQ_API std::ostream& operator<<(std::ostream& out, const CIpAddress& address);

// One IPv6 address. m_Bytes holds the sixteen bytes in network order, exactly
// as in an in6_addr; group i of the text form is bytes 2i (high) and 2i + 1.
// :: (all zero) is the one invalid value. There are no ++/-- and no integer
// conversions. The order is that of the 128-bit number, byte 0 first.
class KQ_API CIpV6Address {
public:
    // :: (all bytes 0).
    CIpV6Address();
    // Parses text as SetIp; bad text silently gives ::.
    CIpV6Address(const std::string& text);
    // Copies a 16-byte slice as SetIp; any other length silently gives ::.
    CIpV6Address(const CSlice<unsigned char>& bytes);
    CIpV6Address(const CIpV6Address& other);
    ~CIpV6Address();

    // Parses any form inet_pton(AF_INET6) accepts (compressed, full, embedded
    // IPv4), after cutting the text to its first 40 characters. The empty text
    // is accepted as ::. False for refused text, which leaves ::.
    bool SetIp(const std::string& text);
    // Copies exactly 16 bytes in order; any other length returns false and
    // leaves ::.
    bool SetIp(const CSlice<unsigned char>& bytes);

    // Copies the 16 bytes; returns *this.
    CIpV6Address& operator=(const CIpV6Address& other);
    // Parses text as SetIp, result dropped; returns *this.
    CIpV6Address& operator=(const std::string& text);

    // full: eight groups of four lower-case hex digits, no compression
    // ("2001:0db8:0000:0000:0000:0000:0000:0001"); otherwise the system's
    // compressed form from inet_ntop ("2001:db8::1").
    std::string GetIp(bool full) const;
    // GetIp(false).
    operator std::string() const;

    // Copies the 16 bytes into a slice of exactly 16 bytes and returns true;
    // any other length returns false and writes nothing.
    bool FillIp(CSlice<unsigned char>& bytes) const;
    // Copies the 16 bytes into address.
    void FillIp(in6_addr& address) const;

    // Byte 0 is not 255 (:: included).
    bool IsUnicast() const;
    // Byte 0 is 255.
    bool IsMulticast() const;
    // At least one byte is not 0 (everything but ::).
    bool IsValid() const;

    // "network/length" for a prefix length 0 to 128 ("2001:db8:1:2::/64");
    // an empty string for a length below 0 or above 128.
    std::string GetCidrNotation(const int& prefixLength) const;
    // This address with all bits after the first prefixLength cleared; ::
    // for a length below 0 or above 128.
    CIpV6Address GetSubnetPrefixAddress(const int& prefixLength) const;

    // Byte 0 to 15; any larger index reads as 0.
    unsigned char operator[](unsigned long index) const;
    // Byte 0 to 15; any larger index refers to byte 0.
    unsigned char& operator[](unsigned long index);

    // Equality of the 16 bytes; order of the 128-bit numbers.
    bool operator==(const CIpV6Address& other) const;
    bool operator!=(const CIpV6Address& other) const;
    bool operator<(const CIpV6Address& other) const;
    bool operator>(const CIpV6Address& other) const;
    bool operator<=(const CIpV6Address& other) const;
    bool operator>=(const CIpV6Address& other) const;

private:
    unsigned char m_Bytes[16];
};

// Writes GetIp(false); returns out.
KQ_API std::ostream& operator<<(std::ostream& out, const CIpV6Address& address);

// One 48-bit Ethernet (MAC) address. m_Octets holds the octets in
// transmission order (octet 0 is the leftmost pair of the text). The integer
// view is octet 0 * 2^40 + ... + octet 5, with the top 16 bits 0.
// 00:00:00:00:00:00 is the one invalid value. There is no ordering.
class KQ_API CMacAddress {
public:
    static const size_t OCTET_COUNT = 6;

    // 00:00:00:00:00:00.
    CMacAddress();
    // Parses text as Set; text Set refuses gives 00:00:00:00:00:00.
    CMacAddress(const std::string& text);
    // From the low 48 bits of value, as FromUInt64.
    CMacAddress(unsigned long value);
    CMacAddress(const CMacAddress& other);
    ~CMacAddress();

    // Sets all six octets to 0.
    void Init();
    // Parses "00:1A:2B:3C:4D:5E" (groups of one digit are padded: "0:1:2:3:4:5"
    // works) or the bare "001A2B3C4D5E". Any text that is 12 characters
    // after that step is accepted; characters that are not hex digits read
    // as 0. Other lengths (and separators other than ':') return false and
    // leave the octets unchanged.
    bool Set(std::string text);

    // Copies the six octets; returns *this.
    CMacAddress& operator=(const CMacAddress& other);
    // Set(text), result dropped: text Set refuses keeps the previous value.
    CMacAddress& operator=(const std::string& text);

    // Upper-case hex, "00:1A:2B:3C:4D:5E" with colons, else "001A2B3C4D5E".
    std::string ToString(bool withColons) const;
    // ToString(true).
    operator std::string() const;

    // The integer view.
    unsigned long ToUInt64() const;
    unsigned long GetMacInt() const;
    operator unsigned long() const;
    // Sets the octets from bits 47 to 0 of value; higher bits are ignored.
    void FromUInt64(unsigned long value);

    // The integer view is not 0.
    bool IsValid() const;

    // The octet at index. index < OCTET_COUNT is a precondition, checked by
    // an assertion that ends the process (in every build type).
    uint8_t operator[](const size_t& index) const;
    uint8_t& operator[](const size_t& index);

    // Equality of the six octets.
    bool operator==(const CMacAddress& other) const;
    bool operator!=(const CMacAddress& other) const;

    // Add or subtract one modulo 2^48 (FF:FF:FF:FF:FF:FF + 1 is
    // 00:00:00:00:00:00). Postfix forms return the old value.
    CMacAddress& operator++();
    CMacAddress operator++(int);
    CMacAddress& operator--();
    CMacAddress operator--(int);

private:
    uint8_t m_Octets[OCTET_COUNT];
};

// Writes ToString(true); returns out.
KQ_API std::ostream& operator<<(std::ostream& out, const CMacAddress& address);

}  // namespace KQ
