// Fuzzes the IPv4 text parser: it must never crash, must accept exactly what
// sscanf("%u.%u.%u.%u") accepts (each number at most 255) with the same
// octets, and what it accepts must print and parse back to the same address.
#include "KqAddress.h"

#include <cstdint>
#include <cstdio>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    KQ::CIpAddress address(1, 2, 3, 4);
    const bool accepted = address.SetIp(text);

    unsigned int v[4] = {0, 0, 0, 0};
    const bool expected = sscanf(text.c_str(), "%u.%u.%u.%u", &v[0], &v[1], &v[2], &v[3]) == 4 && v[0] <= 255 &&
                          v[1] <= 255 && v[2] <= 255 && v[3] <= 255;
    if (accepted != expected) {
        __builtin_trap();
    }
    const KQ::CIpAddress want = expected ? KQ::CIpAddress(static_cast<unsigned char>(v[0]), static_cast<unsigned char>(v[1]),
                                                          static_cast<unsigned char>(v[2]), static_cast<unsigned char>(v[3]))
                                         : KQ::CIpAddress();
    if (address != want) {
        __builtin_trap();
    }
    for (bool padded : {false, true}) {
        KQ::CIpAddress copy;
        if (!copy.SetIp(address.GetIp(padded)) || copy != address) {
            __builtin_trap();
        }
    }
    return 0;
}
