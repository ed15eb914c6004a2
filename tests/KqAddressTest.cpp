// Tests of the address values: IPv4.
#include "KqAddress.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <sstream>
#include <string>

using KQ::CIpAddress;

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
        {"1.256.1.1", false, "0,0,0,0"},
        {"1.1.1.256", false, "0,0,0,0"},
        {"1.2.3", false, "0,0,0,0"},
        {"1.2.3.4/24", true, "1,2,3,4"},
        {"1. 2. 3. 4", true, "1,2,3,4"},
        {" \t1.2.3.4", true, "1,2,3,4"},
        {"1 .2.3.4", false, "0,0,0,0"},
        {"010.001.000.009", true, "10,1,0,9"},
        {"255.255.255.255", true, "255,255,255,255"},
        {"0.0.0.0", true, "0,0,0,0"},
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
    EXPECT_EQ(fixed[1000000], 0);
    CIpAddress address(1, 2, 3, 4);
    address[7] = 9;
    EXPECT_EQ(Octets(address), "9,2,3,4");
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
    const Case cases[] = {
        {CIpAddress(0, 0, 0, 0), true, false},       {CIpAddress(127, 0, 0, 1), true, false},
        {CIpAddress(223, 255, 255, 255), true, false}, {CIpAddress(224, 0, 0, 0), false, true},
        {CIpAddress(239, 255, 255, 255), false, true}, {CIpAddress(240, 0, 0, 0), false, false},
        {CIpAddress(255, 255, 255, 255), false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.address.IsUnicast(), c.unicast) << c.address;
        EXPECT_EQ(c.address.IsMulticast(), c.multicast) << c.address;
    }
}

TEST(IpAddressMask, NetmasksAreOnesThenZeros)
{
    EXPECT_TRUE(CIpAddress(0, 0, 0, 0).IsNetmask());
    EXPECT_TRUE(CIpAddress(255, 255, 255, 255).IsNetmask());
    EXPECT_TRUE(CIpAddress(255, 255, 255, 0).IsNetmask());
    EXPECT_TRUE(CIpAddress(255, 255, 254, 0).IsNetmask());
    EXPECT_TRUE(CIpAddress(128, 0, 0, 0).IsNetmask());
    EXPECT_FALSE(CIpAddress(255, 0, 255, 0).IsNetmask());
    EXPECT_FALSE(CIpAddress(127, 255, 255, 255).IsNetmask());
    EXPECT_FALSE(CIpAddress(0, 0, 0, 1).IsNetmask());
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
    EXPECT_TRUE(low < high);
    EXPECT_TRUE(high > low);
    EXPECT_TRUE(low <= high && low <= low && high >= high && high >= low);
    EXPECT_FALSE(low > high || high < low || low < low || low > low);
    EXPECT_TRUE(low != high);
    EXPECT_FALSE(low == high);
    for (int n = 0; n < 20000; ++n) {
        const unsigned int a = static_cast<unsigned int>(Random()());
        const unsigned int b = n % 4 == 0 ? a : static_cast<unsigned int>(Random()());
        ASSERT_EQ(CIpAddress(a) < CIpAddress(b), a < b);
        ASSERT_EQ(CIpAddress(a) >= CIpAddress(b), a >= b);
        ASSERT_EQ(CIpAddress(a) == CIpAddress(b), a == b);
    }
}

TEST(IpAddressStatics, MinAndMaxHoldTheEnds)
{
    EXPECT_EQ(Octets(CIpAddress::MinIpAddress), "0,0,0,0");
    EXPECT_EQ(Octets(CIpAddress::MaxIpAddress), "255,255,255,255");
}

}  // namespace
