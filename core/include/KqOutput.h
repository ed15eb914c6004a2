// KqOutput.h: the library's replaceable print hook and small text helpers.
//
// Every diagnostic line of the library goes through KQ::MyPrintf, which
// formats into a 256-byte stack buffer and hands the text to the hook
// KQ::pPrintf as pPrintf("%s\n", text). The hook starts as the system's
// printf; an application installs its own with KQ::Init before it starts
// threads that print.
//
// Thread-safety: MyPrintf may be called from any thread, including the
// library's own worker threads, and never allocates. The hook is a plain
// pointer without a lock, so the hook an application installs must itself be
// safe to call from several threads at once, must not block for long, and is
// called without any library lock held.
#pragma once

#include "KqExport.h"

#include <string>

namespace KQ {

// The current output hook; never null. Starts as the system's printf.
extern KQ_API int (*pPrintf)(const char* format, ...);

// Installs fn as the output hook. A null fn is ignored: the hook keeps its
// current value. May be called at any time; the last non-null value wins.
KQ_API void Init(int (*fn)(const char* format, ...));

// Formats one diagnostic line (at most 255 characters; longer output is cut
// silently) and passes it to the hook as pPrintf("%s\n", text), so '%' in
// the text prints literally and a newline is always added. Never fails,
// never allocates and leaves errno as it was, whatever the hook does.
KQ_API void MyPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Appends each of the count bytes at data to out as "%02X " (two upper-case
// hex digits and a blank) and returns out.c_str(). A count of zero or less
// appends nothing.
KQ_API const char* HexStream(std::string& out, const unsigned char* data, int count);

namespace Str {

// Returns the whole formatted text, of any length. A null format, or a
// format that vsnprintf cannot format, gives an empty string.
KQ_API std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Returns a copy of text without its trailing whitespace (isspace() of the
// byte as unsigned char) and trailing zero characters. Leading and inner
// whitespace stay.
KQ_API std::string RemoveTrailingWhitespace(const std::string& text);

}  // namespace Str
}  // namespace KQ
