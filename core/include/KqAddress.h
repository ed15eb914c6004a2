// KqAddress.h: value types for network addresses.
//
// - CIpAddress: one IPv4 address, four octets in dotted order, with an
//   integer view (first octet most significant), dotted-decimal text with or
//   without zero padding, numeric order, ++/-- through the address space,
//   classification and netmask/broadcast/CIDR helpers.
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

}  // namespace KQ
