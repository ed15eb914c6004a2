// Fuzzes the environment block's serialised-block reader on any bytes (closed
// by the two NULs a block ends with). It must never crash or read past the
// block; what it reads must serialise and read back to the same block.
#include "KqEnvBlockRoundTrip.h"

#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<char> block(data, data + size);
    block.push_back('\0');
    block.push_back('\0');
    KQ::CEnvBlock env(false);
    env.Deserialize(block.data());

    // Each entry takes at most its string and NUL, plus the closing NUL.
    CheckRoundTrip(env, size + 2);
    return 0;
}
