// KqThread.h: not built yet.
#pragma once

#include "KqCore.h"
