// Fuzzes the IPv6 text parser: it must never crash, must agree with
// inet_pton on the text cut to its first 40 characters, and every accepted
// address must print (full and compressed) and parse back to itself.
#include "KqAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    KQ::CIpV6Address address(std::string("::1"));
    const bool accepted = address.SetIp(text);

    char cut[41] = {};
    memcpy(cut, text.c_str(), strnlen(text.c_str(), 40));
    in6_addr system = {};
    const bool expected = text.empty() || inet_pton(AF_INET6, cut, &system) == 1;
    in6_addr filled;
    address.FillIp(filled);
    if (accepted != expected || memcmp(&filled, &system, sizeof system) != 0) {
        __builtin_trap();
    }
    for (bool full : {false, true}) {
        const KQ::CIpV6Address copy(address.GetIp(full));
        if (copy != address) {
            __builtin_trap();
        }
    }
    const int prefix = size > 0 ? static_cast<int>(data[0]) - 64 : 0;
    const std::string cidr = address.GetCidrNotation(prefix);
    if ((prefix < 0 || prefix > 128) != cidr.empty()) {
        __builtin_trap();
    }
    return 0;
}
