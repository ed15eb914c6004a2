// Tests of the address values: IPv4, IPv6 and MAC.
#include "KqAddress.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <random>
#include <string>
#include <tuple>

using KQ::CIpAddress;
using KQ::CIpV6Address;
using KQ::CMacAddress;
using Bytes = KQ::CSlice<unsigned char>;

namespace {

// A fixed seed keeps failures reproducible.
std::mt19937 g_Random(20261123u);

// All six comparisons of a with b agree with the sign of their expected order.
template <typename T>
void ExpectOrder(const T& a, const T& b, long sign)
{
    EXPECT_TRUE((a < b) == (sign < 0) && (a > b) == (sign > 0) && (a <= b) == (sign <= 0) && (a >= b) == (sign >= 0) &&
                (a == b) == (sign == 0) && (a != b) == (sign != 0)) << a << " vs " << b;
}

// --- IPv4 ---------------------------------------------------------------

TEST(IpAddress, ParsesDottedDecimal)
{
    // Text, whether it is accepted, the address afterwards (10.1.2.3 before).
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"256.1.1.1", false, "0.0.0.0"},       {"1.1.1.256", false, "0.0.0.0"},
        {"1.2.3", false, "0.0.0.0"},           {"1.2.3.4/24", true, "1.2.3.4"},
        {"1. 2. 3. 4", true, "1.2.3.4"},       {"1 .2.3.4", false, "0.0.0.0"},
        {"010.001.000.009", true, "10.1.0.9"}, {"", false, "0.0.0.0"},
        {"-1.2.3.4", false, "0.0.0.0"},        {"99999999999999999999999.1.1.1", false, "0.0.0.0"},
    };
    for (const auto& [text, accepted, expected] : cases) {
        CIpAddress address(10, 1, 2, 3), assigned(address);
        EXPECT_EQ(address.SetIp(text), accepted) << text;
        EXPECT_EQ(address.GetIp(false), expected) << text;
        EXPECT_TRUE((assigned = std::string(text)) == address && CIpAddress(std::string(text)) == address) << text;
    }
}

TEST(IpAddress, ViewsIndexAndSteps)
{
    EXPECT_EQ(CIpAddress(1, 2, 3, 4).GetIp(true), "001.002.003.004");
    EXPECT_EQ(CIpAddress().GetIp(false), "0.0.0.0");
    EXPECT_EQ(static_cast<std::string>(CIpAddress::MaxIpAddress), "255.255.255.255");
    EXPECT_EQ(testing::PrintToString(CIpAddress(10, 20, 30, 40)), "10.20.30.40");
    EXPECT_EQ(CIpAddress(0xFF000001u), CIpAddress(255, 0, 0, 1));
    CIpAddress address(1, 2, 3, 4);
    EXPECT_EQ(static_cast<const CIpAddress&>(address)[4], 0);
    address[7] = 9;
    EXPECT_EQ(address, CIpAddress(9, 2, 3, 4));
    // Steps carry across octets and wrap around.
    EXPECT_EQ(++CIpAddress(CIpAddress::MaxIpAddress), CIpAddress::MinIpAddress);
    EXPECT_EQ(--CIpAddress(CIpAddress::MinIpAddress), CIpAddress::MaxIpAddress);
    address = CIpAddress(1, 2, 3, 255);
    EXPECT_EQ(address++, CIpAddress(1, 2, 3, 255));
    EXPECT_EQ(address, CIpAddress(1, 2, 4, 0));
    EXPECT_EQ(address--, CIpAddress(1, 2, 4, 0));
    EXPECT_EQ(address, CIpAddress(1, 2, 3, 255));
}

TEST(IpAddress, RandomValuesRoundTripAndOrderNumerically)
{
    for (int n = 0; n < 20000 && !HasFailure(); ++n) {
        const unsigned int a = g_Random(), b = n % 4 == 0 ? a : g_Random();
        const std::string text = CIpAddress(a).GetIp(n % 2 == 0);
        CIpAddress copy(1, 1, 1, 1);
        EXPECT_TRUE(copy.SetIp(text) && copy.GetIpInt() == a) << text;
        ExpectOrder(CIpAddress(a), CIpAddress(b), a < b ? -1 : a > b);
    }
}

TEST(IpAddress, ClassesMasksAndCidr)
{
    // Address, unicast, multicast, netmask, CIDR text of 192.168.1.77 with the address as mask.
    const std::tuple<const char*, bool, bool, bool, const char*> cases[] = {
        {"0.0.0.0", true, false, true, "0.0.0.0/0"},          {"223.255.255.255", true, false, false, "192.168.1.77"},
        {"224.0.0.0", false, true, true, "192.0.0.0/3"},      {"239.255.255.255", false, true, false, "192.168.1.77"},
        {"240.0.0.0", false, false, true, "192.0.0.0/4"},     {"255.255.240.0", false, false, true, "192.168.0.0/20"},
        {"255.0.255.0", false, false, false, "192.168.1.77"}, {"255.255.255.0", false, false, true, "192.168.1.0/24"},
        {"255.255.255.255", false, false, true, "192.168.1.77/32"},
    };
    for (const auto& [text, unicast, multicast, netmask, cidr] : cases) {
        const CIpAddress address{std::string(text)};
        EXPECT_EQ(address.IsUnicast(), unicast) << address;
        EXPECT_EQ(address.IsMulticast(), multicast) << address;
        EXPECT_EQ(address.IsNetmask(), netmask) << address;
        EXPECT_EQ(CIpAddress(192, 168, 1, 77).GetCidrNotation(address), cidr) << address;
    }
    const CIpAddress host(192, 168, 1, 77);
    EXPECT_EQ(host.GetBroadcastAddress(CIpAddress(255, 255, 255, 0)), CIpAddress(192, 168, 1, 255));
    EXPECT_EQ(host.GetBroadcastAddress(CIpAddress(255, 0, 255, 0)), CIpAddress(192, 255, 1, 255));
}

// --- IPv6 ---------------------------------------------------------------

TEST(IpV6Address, ParsesWhatInetPtonAcceptsWithinFortyCharacters)
{
    // Text, whether it is accepted, the address afterwards (::1 before) in the form inet_ntop gives.
    const std::tuple<std::string, bool, std::string> cases[] = {
        {"", true, "::"},                                {"2001:db8::1", true, "2001:db8::1"},
        {"::ffff:192.0.2.1", true, "::ffff:192.0.2.1"},  {"2001:db8::zz", false, "::"},
        {"0000:0000:0000:0000:0000:ffff:100.1.2.300", true, "::ffff:100.1.2.30"},  // cut to 40
        {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", false, "::"},           // cut to 40
        {std::string("::2\0garbage", 11), true, "::2"},                          // ends at the NUL
    };
    for (const auto& [text, accepted, expected] : cases) {
        CIpV6Address address(std::string("::1")), assigned(address);
        EXPECT_EQ(address.SetIp(text), accepted) << text;
        EXPECT_EQ(address.GetIp(false), expected) << text;
        EXPECT_TRUE((assigned = text) == address && CIpV6Address(text) == address) << text;
    }
}

TEST(IpV6Address, TextClassesIndexAndSlices)
{
    EXPECT_EQ(CIpV6Address(std::string("2001:db8::1")).GetIp(true), "2001:0db8:0000:0000:0000:0000:0000:0001");
    EXPECT_EQ(testing::PrintToString(CIpV6Address(std::string("FF02::1"))), "ff02::1");
    EXPECT_TRUE(CIpV6Address().IsUnicast());
    EXPECT_TRUE(CIpV6Address(std::string("ff02::1")).IsMulticast());
    EXPECT_FALSE(CIpV6Address(std::string("ff02::1")).IsUnicast());
    EXPECT_FALSE(CIpV6Address(std::string("feff::1")).IsMulticast());
    CIpV6Address indexed(std::string("::1"));
    EXPECT_EQ(static_cast<const CIpV6Address&>(indexed)[16], 0);
    indexed[99] = 0x20;
    EXPECT_EQ(indexed.GetIp(false), "2000::1");
    // Byte slices of exactly 16 elements only.
    unsigned char bytes[17] = {0xA0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xAF, 0x55};
    CIpV6Address address;
    EXPECT_TRUE(address.SetIp(Bytes(bytes, 16)) && address.GetIp(false) == "a001:203:405:607:809:a0b:c0d:eaf");
    EXPECT_FALSE(address.SetIp(Bytes(bytes, 15)) || address.IsValid());
    Bytes shortSlice(bytes, 15), exact(bytes, 16);
    EXPECT_FALSE(CIpV6Address(std::string("2001:db8::1")).FillIp(shortSlice));
    EXPECT_EQ(bytes[0], 0xA0);
    EXPECT_TRUE(CIpV6Address(std::string("2001:db8::1")).FillIp(exact));
    EXPECT_EQ(std::string(bytes, bytes + 17), std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01\x55", 17));
}

TEST(IpV6Address, RandomValuesMatchInetNtopRoundTripAndOrderLikeMemcmp)
{
    for (int n = 0; n < 20000 && !HasFailure(); ++n) {
        // Random bytes with many zeros, so that inet_ntop compresses runs of zero groups; b differs from a
        // in at most one byte, so that every byte position decides the order sometimes.
        unsigned char bytes[16];
        for (unsigned char& byte : bytes) {
            byte = g_Random() % 3 == 0 ? 0 : static_cast<unsigned char>(g_Random());
        }
        CIpV6Address a(Bytes(bytes, 16)), b = a;
        b[g_Random() % 16] = static_cast<unsigned char>(g_Random());
        in6_addr x, y;
        a.FillIp(x);
        b.FillIp(y);
        char text[INET6_ADDRSTRLEN] = {};
        EXPECT_EQ(a.GetIp(false), inet_ntop(AF_INET6, &x, text, sizeof text));
        CIpV6Address copy(std::string("::1"));
        EXPECT_TRUE(copy.SetIp(a.GetIp(n % 2 == 0)) && copy == a) << a;
        ExpectOrder(a, b, memcmp(&x, &y, 16));
    }
    ExpectOrder(CIpV6Address(std::string("1::")), CIpV6Address(std::string("0:ffff::")), 1);
}

TEST(IpV6Address, PrefixesAndCidr)
{
    const CIpV6Address ones(std::string("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
    // Prefix length, subnet prefix address, CIDR text.
    const std::tuple<int, const char*, const char*> cases[] = {
        {65, "ffff:ffff:ffff:ffff:8000::", "ffff:ffff:ffff:ffff:8000::/65"},
        {128, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"},
        {0, "::", "::/0"},   {129, "::", ""},
        {-1, "::", ""},      {-2147483647 - 1, "::", ""},
    };
    for (const auto& [prefix, subnet, cidr] : cases) {
        EXPECT_EQ(ones.GetSubnetPrefixAddress(prefix).GetIp(false), subnet) << prefix;
        EXPECT_EQ(ones.GetCidrNotation(prefix), cidr) << prefix;
    }
    EXPECT_EQ(CIpV6Address(std::string("::1")).GetCidrNotation(128), "::1/128");
}

// --- MAC ----------------------------------------------------------------

TEST(MacAddress, ParsesColonPaddedAndBareHex)
{
    // Text, whether it is accepted, the address afterwards (12:34:56:78:9A:BC before).
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"0:1:2:3:4:5", true, "00:01:02:03:04:05"},       {"0:1a:2:b:c4:5", true, "00:1A:02:0B:C4:05"},
        {"001122334455", true, "00:11:22:33:44:55"},      {"00:11:22:33:44", false, "12:34:56:78:9A:BC"},
        {"00-11-22-33-44-55", false, "12:34:56:78:9A:BC"}, {"0g:11:22:33:44:55", true, "00:11:22:33:44:55"},
        {"AB:CD:EF:01:23:4:", true, "AB:CD:EF:01:23:04"}, {"", false, "12:34:56:78:9A:BC"},
        {"00112233445566", false, "12:34:56:78:9A:BC"},   {"a::::::::::b", false, "12:34:56:78:9A:BC"},
    };
    for (const auto& [text, accepted, result] : cases) {
        CMacAddress mac(std::string("12:34:56:78:9A:BC")), assigned(mac);
        EXPECT_EQ(mac.Set(text), accepted) << text;
        EXPECT_EQ(mac.ToString(true), result) << text;
        EXPECT_EQ(assigned = std::string(text), mac) << text;
    }
    EXPECT_FALSE(CMacAddress(std::string("00-11-22-33-44-55")).IsValid());
}

TEST(MacAddress, ViewsStepsAndRoundTrips)
{
    EXPECT_EQ(CMacAddress(std::string("aa:bb:cc:dd:ee:ff")).ToString(false), "AABBCCDDEEFF");
    EXPECT_EQ(testing::PrintToString(CMacAddress(0x001122334455UL)), "00:11:22:33:44:55");
    EXPECT_EQ(CMacAddress(0xABCD001122334455UL), CMacAddress(0x001122334455UL));
    EXPECT_EQ(CMacAddress(std::string("00:1a:2b:3c:4d:5e"))[5], 0x5E);
    // Steps wrap modulo 2^48.
    EXPECT_FALSE((++CMacAddress(std::string("FF:FF:FF:FF:FF:FF"))).IsValid());
    CMacAddress one(std::string("00:00:00:00:00:01"));
    EXPECT_FALSE((--one).IsValid());
    EXPECT_EQ((--one).ToString(true), "FF:FF:FF:FF:FF:FF");
    CMacAddress step(std::string("00:00:00:00:00:FF"));
    EXPECT_EQ(step++.ToString(true), "00:00:00:00:00:FF");
    EXPECT_EQ(step.ToString(true), "00:00:00:00:01:00");
    EXPECT_EQ(step--.ToString(true), "00:00:00:00:01:00");
    EXPECT_EQ(step.ToString(true), "00:00:00:00:00:FF");
    for (int n = 0; n < 20000 && !HasFailure(); ++n) {
        const unsigned long value = (static_cast<unsigned long>(g_Random()) << 32 | g_Random()) & 0xFFFFFFFFFFFFUL;
        CMacAddress copy;
        copy.FromUInt64(CMacAddress(value).ToUInt64());
        EXPECT_TRUE(copy.Set(copy.ToString(n % 2 == 0)) && copy.ToUInt64() == value) << copy;
    }
}

TEST(MacAddressDeathTest, IndexAtOrBeyondCountAsserts)
{
    CMacAddress mac(std::string("00:11:22:33:44:55"));
    EXPECT_DEATH((void)static_cast<const CMacAddress&>(mac)[6], "index < OCTET_COUNT");
    EXPECT_DEATH(mac[CMacAddress::OCTET_COUNT] = 1, "index < OCTET_COUNT");
}

}  // namespace
