// KqRs232.h: not built yet.
#pragma once

#include "KqCore.h"
