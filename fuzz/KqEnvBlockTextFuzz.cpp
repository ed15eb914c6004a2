// Fuzzes the environment block's text reader: the first byte picks the line
// separator, the rest is the text. It must never crash; the block it builds
// must serialise within the documented size and, unless a name or value
// holds a NUL, read back to the same block.
#include "KqEnvBlockRoundTrip.h"

#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const char separator = static_cast<char>(data[0]);
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    KQ::CEnvBlock block(false);
    block.Deserialize(text, separator);

    // A NUL inside a name or value cuts it in the serialised form, so such a
    // block reads back differently by design; it still must not crash.
    if (separator != '\0' && text.find('\0') != std::string::npos) {
        std::vector<char> out(2 * size + 2);
        block.Serialize(out.data());
        return 0;
    }
    // Each entry comes from one line and takes at most the line plus a NUL.
    CheckRoundTrip(block, 2 * size + 2);
    return 0;
}
