// Tests of the address values: IPv4, IPv6 and MAC.
#include "KqAddress.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <string>

using KQ::CIpAddress;
using KQ::CIpV6Address;
using KQ::CMacAddress;
using Bytes = KQ::CSlice<unsigned char>;

namespace {

// A fixed seed keeps failures reproducible; the count is large enough to
// reach carries, wrap-arounds and every octet value.
std::mt19937& Random()
{
    static std::mt19937 generator(20261123u);
    return generator;
}

std::string Octets(const CIpAddress& a)
{
    return std::to_string(a[0]) + "," + std::to_string(a[1]) + "," + std::to_string(a[2]) + "," +
           std::to_string(a[3]);
}

// --- IPv4 ---------------------------------------------------------------

struct ParseCase {
    const char* text;
    bool accepted;
    const char* octets;  // expected octets (0.0.0.0 when refused)
};

TEST(IpAddressParse, FollowsDottedDecimalRules)
{
    const ParseCase cases[] = {
        {"192.168.1.2", true, "192,168,1,2"},
        {"256.1.1.1", false, "0,0,0,0"},
        {"1.1.1.256", false, "0,0,0,0"},
        {"1.2.3", false, "0,0,0,0"},
        {"1.2.3.4/24", true, "1,2,3,4"},
        {"1. 2. 3. 4", true, "1,2,3,4"},
        {" \t1.2.3.4", true, "1,2,3,4"},
        {"1 .2.3.4", false, "0,0,0,0"},
        {"010.001.000.009", true, "10,1,0,9"},
        {"", false, "0,0,0,0"},
        {"a.b.c.d", false, "0,0,0,0"},
        {"1.2.3.4.5", true, "1,2,3,4"},
        {"1..2.3", false, "0,0,0,0"},
        {"+1.2.3.4", true, "1,2,3,4"},
        {"-1.2.3.4", false, "0,0,0,0"},
        {"1.2.3.+", false, "0,0,0,0"},
        {"99999999999999999999999.1.1.1", false, "0,0,0,0"},
    };
    for (const ParseCase& c : cases) {
        CIpAddress address(10, 1, 2, 3);
        EXPECT_EQ(address.SetIp(c.text), c.accepted) << c.text;
        EXPECT_EQ(Octets(address), c.octets) << c.text;
    }
}

TEST(IpAddressParse, ConstructorAndAssignmentFromTextDropTheResult)
{
    EXPECT_EQ(Octets(CIpAddress(std::string("1.2.3.4"))), "1,2,3,4");
    EXPECT_EQ(Octets(CIpAddress(std::string("1.2.3"))), "0,0,0,0");
    CIpAddress address(9, 9, 9, 9);
    address = std::string("bogus");
    EXPECT_EQ(Octets(address), "0,0,0,0");
    address = std::string("4.3.2.1");
    EXPECT_EQ(Octets(address), "4,3,2,1");
}

// The parser must accept exactly what sscanf("%u.%u.%u.%u") accepts, with
// the same numbers.
void ExpectSameAsScanf(const std::string& text)
{
    unsigned int v[4] = {0, 0, 0, 0};
    const bool expected = sscanf(text.c_str(), "%u.%u.%u.%u", &v[0], &v[1], &v[2], &v[3]) == 4 && v[0] <= 255 &&
                          v[1] <= 255 && v[2] <= 255 && v[3] <= 255;
    CIpAddress address(7, 7, 7, 7);
    ASSERT_EQ(address.SetIp(text), expected) << "'" << text << "'";
    const CIpAddress want = expected ? CIpAddress(v[0] << 24 | v[1] << 16 | v[2] << 8 | v[3]) : CIpAddress();
    ASSERT_EQ(Octets(address), Octets(want)) << "'" << text << "'";
}

TEST(IpAddressParse, AgreesWithScanfOnSignsAndOverflow)
{
    for (const char* text : {"4294967296.1.1.1", "4294967551.1.1.1", "-0.1.2.3", "-4294967295.1.2.3",
                             "18446744073709551615.1.2.3", "18446744073709551616.1.2.3",
                             "-18446744073709551615.0.0.0", "000000000000000000000000000001.2.3.4", "1.2.3.-0",
                             "+ 1.2.3.4", "1.2.3.\v4", "\n\r\f1.2.3.4"}) {
        ExpectSameAsScanf(text);
    }
}

TEST(IpAddressParse, AgreesWithScanfOnRandomTexts)
{
    static const char alphabet[] = "0123456789....  +-\t9x";
    std::uniform_int_distribution<int> length(0, 24);
    std::uniform_int_distribution<size_t> pick(0, sizeof alphabet - 2);
    for (int n = 0; n < 50000; ++n) {
        std::string text;
        for (int i = length(Random()); i > 0; --i) {
            text += alphabet[pick(Random())];
        }
        ExpectSameAsScanf(text);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST(IpAddressText, PlainAndZeroPadded)
{
    EXPECT_EQ(CIpAddress(10, 0, 0, 1).GetIp(true), "010.000.000.001");
    EXPECT_EQ(CIpAddress(10, 0, 0, 1).GetIp(false), "10.0.0.1");
    EXPECT_EQ(CIpAddress(1, 2, 3, 4).GetIp(true), "001.002.003.004");
    EXPECT_EQ(CIpAddress().GetIp(false), "0.0.0.0");
    EXPECT_EQ(CIpAddress::MaxIpAddress.GetIp(false), "255.255.255.255");
    EXPECT_EQ(static_cast<std::string>(CIpAddress(192, 168, 1, 2)), "192.168.1.2");
    std::ostringstream out;
    out << CIpAddress(10, 20, 30, 40);
    EXPECT_EQ(out.str(), "10.20.30.40");
}

TEST(IpAddressText, RoundTripsThroughBothForms)
{
    for (int n = 0; n < 20000; ++n) {
        const CIpAddress original(static_cast<unsigned int>(Random()()));
        for (bool padded : {false, true}) {
            CIpAddress copy(1, 1, 1, 1);
            ASSERT_TRUE(copy.SetIp(original.GetIp(padded))) << original.GetIp(padded);
            ASSERT_EQ(copy, original) << original.GetIp(padded);
        }
    }
}

TEST(IpAddressInteger, FirstOctetIsMostSignificant)
{
    EXPECT_EQ(CIpAddress(192, 168, 1, 2).GetIpInt(), 3232235778u);
    EXPECT_EQ(static_cast<unsigned int>(CIpAddress(0, 0, 1, 0)), 256u);
    EXPECT_EQ(Octets(CIpAddress(3232235778u)), "192,168,1,2");
    CIpAddress address;
    address = 0x01020304u;
    EXPECT_EQ(Octets(address), "1,2,3,4");
    address.SetIpInt(0xFF000001u);
    EXPECT_EQ(Octets(address), "255,0,0,1");
}

TEST(IpAddressIndex, OutOfRangeReadsZeroAndWritesOctetZero)
{
    const CIpAddress fixed(1, 2, 3, 4);
    EXPECT_EQ(fixed[3], 4);
    EXPECT_EQ(fixed[4], 0);
    CIpAddress address(1, 2, 3, 4);
    address[7] = 9;
    address[2] = 30;
    EXPECT_EQ(Octets(address), "9,2,30,4");
}

TEST(IpAddressClass, UnicastMulticastAndNeither)
{
    struct Case {
        CIpAddress address;
        bool unicast;
        bool multicast;
    };
    const Case cases[] = {{CIpAddress(0, 0, 0, 0), true, false},      {CIpAddress(223, 255, 255, 255), true, false},
                          {CIpAddress(224, 0, 0, 0), false, true},     {CIpAddress(239, 255, 255, 255), false, true},
                          {CIpAddress(240, 0, 0, 0), false, false}};
    for (const Case& c : cases) {
        EXPECT_EQ(c.address.IsUnicast(), c.unicast) << c.address;
        EXPECT_EQ(c.address.IsMulticast(), c.multicast) << c.address;
    }
}

TEST(IpAddressMask, NetmasksAreOnesThenZeros)
{
    EXPECT_FALSE(CIpAddress(255, 0, 255, 0).IsNetmask());
    EXPECT_FALSE(CIpAddress(127, 255, 255, 255).IsNetmask());
    // Exactly the 33 prefixes are netmasks.
    int count = 0;
    for (unsigned int prefix = 0; prefix <= 32; ++prefix) {
        const unsigned int bits = prefix == 0 ? 0u : ~0u << (32 - prefix);
        count += CIpAddress(bits).IsNetmask() ? 1 : 0;
        if (prefix < 31) {
            EXPECT_FALSE(CIpAddress(bits | 1u).IsNetmask()) << prefix;
        }
    }
    EXPECT_EQ(count, 33);
}

TEST(IpAddressMask, BroadcastAndCidr)
{
    const CIpAddress host(192, 168, 1, 77);
    EXPECT_EQ(host.GetBroadcastAddress(CIpAddress(255, 255, 255, 0)), CIpAddress(192, 168, 1, 255));
    EXPECT_EQ(host.GetBroadcastAddress(CIpAddress(255, 0, 255, 0)), CIpAddress(192, 255, 1, 255));
    EXPECT_EQ(host.GetCidrNotation(CIpAddress(255, 255, 255, 0)), "192.168.1.0/24");
    EXPECT_EQ(host.GetCidrNotation(CIpAddress(255, 255, 240, 0)), "192.168.0.0/20");
    EXPECT_EQ(host.GetCidrNotation(CIpAddress(255, 255, 255, 255)), "192.168.1.77/32");
    EXPECT_EQ(host.GetCidrNotation(CIpAddress(255, 0, 255, 0)), "192.168.1.77");
    EXPECT_EQ(host.GetCidrNotation(CIpAddress()), "0.0.0.0/0");
    EXPECT_EQ(CIpAddress::MaxIpAddress.GetCidrNotation(CIpAddress()), "0.0.0.0/0");
}

TEST(IpAddressArithmetic, CarriesAndWrapsAround)
{
    CIpAddress max = CIpAddress::MaxIpAddress;
    ++max;
    EXPECT_EQ(max, CIpAddress::MinIpAddress);
    CIpAddress min = CIpAddress::MinIpAddress;
    --min;
    EXPECT_EQ(min, CIpAddress::MaxIpAddress);

    CIpAddress address(1, 2, 3, 255);
    EXPECT_EQ(address++, CIpAddress(1, 2, 3, 255));
    EXPECT_EQ(address, CIpAddress(1, 2, 4, 0));
    EXPECT_EQ(address--, CIpAddress(1, 2, 4, 0));
    EXPECT_EQ(address, CIpAddress(1, 2, 3, 255));
    EXPECT_EQ(&++address, &address);
    EXPECT_EQ(address, CIpAddress(1, 2, 4, 0));
    EXPECT_EQ(--address, CIpAddress(1, 2, 3, 255));
    CIpAddress carry(10, 0, 0, 255);
    EXPECT_EQ(++carry, CIpAddress(10, 0, 1, 0));
}

TEST(IpAddressOrder, NumericOnTheIntegerView)
{
    const CIpAddress low(9, 255, 255, 255);
    const CIpAddress high(10, 0, 0, 0);
    EXPECT_TRUE(low < high && high > low && low <= low && high >= high && low != high);
    EXPECT_FALSE(low > high || high < low || low < low || low == high);
    for (int n = 0; n < 20000; ++n) {
        const unsigned int a = static_cast<unsigned int>(Random()());
        const unsigned int b = n % 4 == 0 ? a : static_cast<unsigned int>(Random()());
        ASSERT_EQ(CIpAddress(a) < CIpAddress(b), a < b);
        ASSERT_EQ(CIpAddress(a) >= CIpAddress(b), a >= b);
        ASSERT_EQ(CIpAddress(a) == CIpAddress(b), a == b);
    }
}

// --- IPv6 ---------------------------------------------------------------

// The 16 bytes as inet_pton makes them, for expectations written as text.
std::string Hex(const CIpV6Address& a)
{
    std::string out;
    for (unsigned long i = 0; i < 16; ++i) {
        char two[3];
        snprintf(two, sizeof two, "%02x", a[i]);
        out += two;
    }
    return out;
}

CIpV6Address RandomV6()
{
    unsigned char bytes[16];
    for (unsigned char& b : bytes) {
        // Runs of zero groups make inet_ntop compress; draw them often.
        b = Random()() % 3 == 0 ? 0 : static_cast<unsigned char>(Random()());
    }
    return CIpV6Address(Bytes(bytes, 16));
}

TEST(IpV6Parse, AcceptsWhatInetPtonAcceptsWithinFortyCharacters)
{
    struct Case {
        const char* text;
        bool accepted;
        const char* bytes;
    };
    const char* none = "00000000000000000000000000000000";
    const Case cases[] = {
        {"", true, none},
        {"::", true, none},
        {"2001:db8::1", true, "20010db8000000000000000000000001"},
        {"2001:0db8:0000:0000:0000:0000:0000:0001", true, "20010db8000000000000000000000001"},
        {"::ffff:192.0.2.1", true, "00000000000000000000ffffc0000201"},
        {"FF02::1", true, "ff020000000000000000000000000001"},
        {"2001:db8::zz", false, none},
        {"1.2.3.4", false, none},
        {"1:2:3:4:5:6:7:8:9", false, none},
        {":::", false, none},
        {" ::1", false, none},
        // 41 characters, refused whole; the cut to 40 drops the last digit.
        {"0000:0000:0000:0000:0000:ffff:100.1.2.300", true, "00000000000000000000ffff6401021e"},
        // 45 characters, valid for inet_pton, refused once cut to 40.
        {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", false, none},
    };
    for (const Case& c : cases) {
        CIpV6Address address(std::string("::1"));
        EXPECT_EQ(address.SetIp(c.text), c.accepted) << c.text;
        EXPECT_EQ(Hex(address), c.bytes) << c.text;
    }
    EXPECT_EQ(Hex(CIpV6Address(std::string("2001:db8::zz"))), none);
    CIpV6Address assigned(std::string("::1"));
    assigned = std::string("fe80::2");
    EXPECT_EQ(Hex(assigned), "fe800000000000000000000000000002");
    assigned = std::string("bogus");
    EXPECT_FALSE(assigned.IsValid());
    // A NUL ends the text as it does for the C string.
    EXPECT_TRUE(assigned.SetIp(std::string("::2\0garbage", 11)));
    EXPECT_EQ(Hex(assigned), "00000000000000000000000000000002");
}

TEST(IpV6Text, FullAndCompressedForms)
{
    const CIpV6Address address(std::string("2001:db8::1"));
    EXPECT_EQ(address.GetIp(true), "2001:0db8:0000:0000:0000:0000:0000:0001");
    EXPECT_EQ(address.GetIp(false), "2001:db8::1");
    EXPECT_EQ(static_cast<std::string>(address), "2001:db8::1");
    EXPECT_EQ(CIpV6Address().GetIp(false), "::");
    EXPECT_EQ(CIpV6Address().GetIp(true), "0000:0000:0000:0000:0000:0000:0000:0000");
    std::ostringstream out;
    out << CIpV6Address(std::string("FF02::1"));
    EXPECT_EQ(out.str(), "ff02::1");
}

TEST(IpV6Text, MatchesInetNtopAndRoundTrips)
{
    for (int n = 0; n < 20000; ++n) {
        const CIpV6Address original = RandomV6();
        unsigned char bytes[16];
        Bytes slice(bytes, 16);
        ASSERT_TRUE(original.FillIp(slice));
        char expected[INET6_ADDRSTRLEN] = {};
        ASSERT_NE(inet_ntop(AF_INET6, bytes, expected, sizeof expected), nullptr);
        ASSERT_EQ(original.GetIp(false), expected);
        const std::string full = original.GetIp(true);
        ASSERT_EQ(full.size(), 39u);
        for (bool flag : {false, true}) {
            CIpV6Address copy(std::string("::1"));
            ASSERT_TRUE(copy.SetIp(original.GetIp(flag))) << original.GetIp(flag);
            ASSERT_EQ(copy, original) << original.GetIp(flag);
        }
    }
}

TEST(IpV6Bytes, SlicesOfSixteenOnly)
{
    unsigned char in[17];
    for (unsigned char i = 0; i < 17; ++i) {
        in[i] = static_cast<unsigned char>(0xA0 + i);
    }
    CIpV6Address address;
    EXPECT_TRUE(address.SetIp(Bytes(in, 16)));
    EXPECT_EQ(Hex(address), "a0a1a2a3a4a5a6a7a8a9aaabacadaeaf");
    EXPECT_FALSE(address.SetIp(Bytes(in, 15)));
    EXPECT_FALSE(address.IsValid());
    EXPECT_FALSE(CIpV6Address(Bytes(in, 17)).IsValid());

    const CIpV6Address source(std::string("2001:db8::1"));
    unsigned char out[17];
    memset(out, 0x55, sizeof out);
    Bytes shortSlice(out, 15);
    EXPECT_FALSE(source.FillIp(shortSlice));
    EXPECT_EQ(out[0], 0x55);
    Bytes exact(out, 16);
    EXPECT_TRUE(source.FillIp(exact));
    EXPECT_EQ(out[0], 0x20);
    EXPECT_EQ(out[15], 0x01);
    EXPECT_EQ(out[16], 0x55);

    in6_addr system;
    source.FillIp(system);
    EXPECT_EQ(memcmp(&system, out, 16), 0);
}

TEST(IpV6Class, ValidUnicastMulticastAndIndex)
{
    EXPECT_FALSE(CIpV6Address().IsValid());
    EXPECT_TRUE(CIpV6Address().IsUnicast());
    EXPECT_TRUE(CIpV6Address(std::string("ff02::1")).IsMulticast());
    EXPECT_FALSE(CIpV6Address(std::string("ff02::1")).IsUnicast());
    EXPECT_FALSE(CIpV6Address(std::string("fe80::1")).IsMulticast());
    EXPECT_TRUE(CIpV6Address(std::string("::1")).IsValid());

    CIpV6Address address(std::string("::1"));
    const CIpV6Address& fixed = address;
    EXPECT_EQ(fixed[15], 1);
    EXPECT_EQ(fixed[16], 0);
    address[99] = 0x20;
    EXPECT_EQ(address.GetIp(false), "2000::1");
}

TEST(IpV6Prefix, SubnetAndCidr)
{
    const CIpV6Address ones(std::string("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
    EXPECT_EQ(ones.GetSubnetPrefixAddress(65).GetIp(false), "ffff:ffff:ffff:ffff:8000::");
    EXPECT_EQ(ones.GetSubnetPrefixAddress(128), ones);
    EXPECT_EQ(ones.GetSubnetPrefixAddress(0), CIpV6Address());
    EXPECT_EQ(ones.GetSubnetPrefixAddress(7).GetIp(false), "fe00::");
    EXPECT_EQ(ones.GetSubnetPrefixAddress(129), CIpV6Address());
    EXPECT_EQ(ones.GetSubnetPrefixAddress(-1), CIpV6Address());

    EXPECT_EQ(CIpV6Address(std::string("2001:db8:1:2::5")).GetCidrNotation(64), "2001:db8:1:2::/64");
    EXPECT_EQ(CIpV6Address(std::string("::1")).GetCidrNotation(128), "::1/128");
    EXPECT_EQ(ones.GetCidrNotation(0), "::/0");
    EXPECT_EQ(ones.GetCidrNotation(129), "");
    EXPECT_EQ(ones.GetCidrNotation(-1), "");
    EXPECT_EQ(ones.GetCidrNotation(-2147483647 - 1), "");
    EXPECT_EQ(ones.GetCidrNotation(128), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128");
}

TEST(IpV6Order, NumericWithByteZeroFirst)
{
    const CIpV6Address high(std::string("1::"));
    const CIpV6Address low(std::string("0:ffff::"));
    EXPECT_TRUE(high > low && low < high && high <= high && high >= high);
    EXPECT_FALSE(high > high || high < high);
    for (int n = 0; n < 20000; ++n) {
        const CIpV6Address a = RandomV6();
        const CIpV6Address b = n % 5 == 0 ? a : RandomV6();
        unsigned char x[16], y[16];
        Bytes sx(x, 16), sy(y, 16);
        a.FillIp(sx);
        b.FillIp(sy);
        const int order = memcmp(x, y, 16);
        ASSERT_EQ(a > b, order > 0);
        ASSERT_EQ(a < b, order < 0);
        ASSERT_EQ(a >= b, order >= 0);
        ASSERT_EQ(a <= b, order <= 0);
        ASSERT_EQ(a == b, order == 0);
        ASSERT_EQ(a != b, order != 0);
    }
}

// --- MAC ----------------------------------------------------------------

TEST(MacParse, ColonPaddingAndBareDigits)
{
    struct Case {
        const char* text;
        bool accepted;
        const char* result;  // ToString(true) afterwards, from 12:34:56:78:9A:BC
    };
    const Case cases[] = {
        {"0:1:2:3:4:5", true, "00:01:02:03:04:05"},
        {"0:1a:2:b:c4:5", true, "00:1A:02:0B:C4:05"},
        {"001122334455", true, "00:11:22:33:44:55"},
        {"00:11:22:33:44", false, "12:34:56:78:9A:BC"},
        {"00-11-22-33-44-55", false, "12:34:56:78:9A:BC"},
        {"0g:11:22:33:44:55", true, "00:11:22:33:44:55"},
        {"AB:CD:EF:01:23:4:", true, "AB:CD:EF:01:23:04"},
        {"aa:bb:cc:dd:ee:ff", true, "AA:BB:CC:DD:EE:FF"},
        {"zzzzzzzzzzzz", true, "00:00:00:00:00:00"},
        {"", false, "12:34:56:78:9A:BC"},
        {":", false, "12:34:56:78:9A:BC"},
        {"00112233445566", false, "12:34:56:78:9A:BC"},
        {"00:11:22:33:44:55:66", false, "12:34:56:78:9A:BC"},
        {"a::::::::::b", false, "12:34:56:78:9A:BC"},
    };
    for (const Case& c : cases) {
        CMacAddress mac(std::string("12:34:56:78:9A:BC"));
        EXPECT_EQ(mac.Set(c.text), c.accepted) << c.text;
        EXPECT_EQ(mac.ToString(true), c.result) << c.text;
    }
}

TEST(MacParse, ConstructorZeroesAndAssignmentKeepsOnBadText)
{
    EXPECT_FALSE(CMacAddress(std::string("00-11-22-33-44-55")).IsValid());
    EXPECT_EQ(CMacAddress(std::string("1:2:3:4:5:6")).ToString(true), "01:02:03:04:05:06");
    CMacAddress mac(std::string("1:2:3:4:5:6"));
    mac = std::string("bad");
    EXPECT_EQ(mac.ToString(true), "01:02:03:04:05:06");
    mac = std::string("a1b2c3d4e5f6");
    EXPECT_EQ(mac.ToString(true), "A1:B2:C3:D4:E5:F6");
    mac.Init();
    EXPECT_FALSE(mac.IsValid());
}

TEST(MacText, UpperCaseWithAndWithoutColons)
{
    const CMacAddress mac(std::string("00:1a:2b:3c:4d:5e"));
    EXPECT_EQ(mac.ToString(true), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(mac.ToString(false), "001A2B3C4D5E");
    EXPECT_EQ(CMacAddress(std::string("aa:bb:cc:dd:ee:ff")).ToString(false), "AABBCCDDEEFF");
    EXPECT_EQ(static_cast<std::string>(mac), "00:1A:2B:3C:4D:5E");
    std::ostringstream out;
    out << CMacAddress(0x001122334455UL);
    EXPECT_EQ(out.str(), "00:11:22:33:44:55");
}

TEST(MacInteger, FortyEightBitView)
{
    const CMacAddress mac(std::string("00:11:22:33:44:55"));
    EXPECT_EQ(mac.ToUInt64(), 0x001122334455UL);
    EXPECT_EQ(mac.GetMacInt(), 0x001122334455UL);
    EXPECT_EQ(static_cast<unsigned long>(mac), 0x001122334455UL);
    EXPECT_EQ(CMacAddress(0xABCD001122334455UL), CMacAddress(0x001122334455UL));
    CMacAddress other;
    other.FromUInt64(0xFFFF0A0B0C0D0E0FUL);
    EXPECT_EQ(other.ToString(false), "0A0B0C0D0E0F");
    EXPECT_EQ(other[0], 0x0A);
    EXPECT_EQ(other[5], 0x0F);
    other[5] = 0x10;
    EXPECT_EQ(other.ToUInt64(), 0x0A0B0C0D0E10UL);
    for (int n = 0; n < 20000; ++n) {
        const unsigned long value = (static_cast<unsigned long>(Random()()) << 32) | Random()();
        CMacAddress copy;
        copy.FromUInt64(CMacAddress(value).ToUInt64());
        ASSERT_EQ(copy.ToUInt64(), value & 0xFFFFFFFFFFFFUL);
        ASSERT_TRUE(copy.Set(copy.ToString(n % 2 == 0)));
        ASSERT_EQ(copy.ToUInt64(), value & 0xFFFFFFFFFFFFUL);
    }
}

TEST(MacArithmetic, WrapsModulo48Bits)
{
    CMacAddress max(std::string("FF:FF:FF:FF:FF:FF"));
    ++max;
    EXPECT_FALSE(max.IsValid());
    CMacAddress one(std::string("00:00:00:00:00:01"));
    --one;
    EXPECT_FALSE(one.IsValid());
    --one;
    EXPECT_EQ(one.ToString(true), "FF:FF:FF:FF:FF:FF");

    CMacAddress mac(std::string("00:00:00:00:00:FF"));
    EXPECT_EQ(mac++.ToString(true), "00:00:00:00:00:FF");
    EXPECT_EQ(mac.ToString(true), "00:00:00:00:01:00");
    EXPECT_EQ(mac--.ToString(true), "00:00:00:00:01:00");
    EXPECT_EQ(mac.ToString(true), "00:00:00:00:00:FF");
    EXPECT_EQ(&++mac, &mac);
    EXPECT_EQ((--mac).ToString(true), "00:00:00:00:00:FF");
    EXPECT_TRUE(mac != max);
    EXPECT_TRUE(max == CMacAddress());
}

TEST(MacIndexDeathTest, IndexAtOrBeyondCountAsserts)
{
    CMacAddress mac(std::string("00:11:22:33:44:55"));
    const CMacAddress& fixed = mac;
    EXPECT_DEATH((void)fixed[6], "index < OCTET_COUNT");
    EXPECT_DEATH(mac[CMacAddress::OCTET_COUNT] = 1, "index < OCTET_COUNT");
}

}  // namespace
