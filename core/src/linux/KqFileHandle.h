// KqFileHandle.h: the handle record behind CFile::m_pHandle (Linux, internal).
// Shared by the sources that need a CFile's descriptor.
#pragma once

#include "KqFile.h"

namespace KQ {

struct CFile::Handle_t {
    int m_Descriptor;  // -1 when not open
};

}  // namespace KQ
