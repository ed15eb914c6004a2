// KqFile.h: not built yet.
#pragma once

#include "KqCore.h"

// ---- CFile, CBufferedFile, CMappedMem ----


// ---- CFs, CDirectory ----

