// Fuzzes the MAC text parser: it must never crash and must give the result of
// the colon padding walk done literally (insert '0' in place, step two), and
// every accepted address must print and parse back to itself.
#include "KqAddress.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

// The walk written the slow, literal way: a reference for the parser.
std::string LiteralWalk(std::string text)
{
    if (text.find(':') == std::string::npos) {
        return text;
    }
    size_t p = 0;
    while (p < text.size()) {
        if (text[p] == ':') {
            ++p;
            if (p >= text.size()) {
                break;
            }
        }
        if ((p + 1 < text.size() && text[p + 1] == ':') || p + 1 == text.size()) {
            text.insert(p, 1, '0');
        }
        p += 2;
    }
    text.erase(std::remove(text.begin(), text.end(), ':'), text.end());
    return text;
}

int Hex(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The literal walk is quadratic; long inputs only slow the fuzzer down.
    if (size > 512) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    KQ::CMacAddress mac(0x123456789ABCUL);
    const bool accepted = mac.Set(text);
    const std::string digits = LiteralWalk(text);
    if (accepted != (digits.size() == 12)) {
        __builtin_trap();
    }
    unsigned long want = 0x123456789ABCUL;
    if (accepted) {
        want = 0;
        for (char c : digits) {
            want = want << 4 | static_cast<unsigned long>(Hex(c));
        }
    }
    if (mac.ToUInt64() != want) {
        __builtin_trap();
    }
    for (bool colons : {false, true}) {
        if (KQ::CMacAddress(mac.ToString(colons)) != mac) {
            __builtin_trap();
        }
    }
    return 0;
}
