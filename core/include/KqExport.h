// KqExport.h: symbol visibility for the KQ library.
//
// The library is built with hidden default visibility; KQ_API marks the
// classes, functions and data that form its public, exported interface.
#pragma once

#define KQ_API __attribute__((visibility("default")))
