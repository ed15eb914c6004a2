// KqEnvBlockRoundTrip.h: the check both environment block fuzzers end with.
#pragma once

#include "KqEnvBlock.h"

#include <cstddef>
#include <vector>

// Serialises block into room bytes (an upper bound of its serialised size,
// so ASan catches any write beyond it), reads that back into a fresh block
// and traps unless the copy serialises to the same bytes.
inline void CheckRoundTrip(KQ::CEnvBlock& block, size_t room)
{
    std::vector<char> first(room);
    block.Serialize(first.data());
    KQ::CEnvBlock copy(false);
    copy.Deserialize(first.data());
    std::vector<char> second(room);
    copy.Serialize(second.data());
    if (first != second) {
        __builtin_trap();
    }
}
