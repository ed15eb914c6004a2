// KqFileHandle.h: the handle record behind CFile::m_pHandle and what an
// access class means to the system (Linux, internal). Shared by the sources
// that need a CFile's descriptor or access class.
#pragma once

#include "KqFile.h"

#include <sys/mman.h>
#include <sys/types.h>

namespace KQ {

struct CFile::Handle_t {
    int m_Descriptor;  // -1 when not open
};

namespace INTERNAL {

// The permission bits of a file that open creates, and the protection of a
// mapping, for one access class.
struct AccessBits_t {
    mode_t m_Permissions;
    int m_Protection;
};

// Unknown access classes give no permission bits and PROT_NONE.
inline AccessBits_t AccessBitsOf(CFile::Access_e access)
{
    switch (access) {
    case CFile::eAccessRead:
        return {0444, PROT_READ};
    case CFile::eAccessReadWrite:
        return {0666, PROT_READ | PROT_WRITE};
    case CFile::eAccessReadWriteExecute:
        return {0777, PROT_READ | PROT_WRITE | PROT_EXEC};
    default:
        return {0, PROT_NONE};
    }
}

}  // namespace INTERNAL
}  // namespace KQ
