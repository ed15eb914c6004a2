// KqOutput.cpp: the print hook, MyPrintf and the text helpers (portable).
#include "KqOutput.h"

#include "KqErrnoGuard.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>

namespace KQ {

int (*pPrintf)(const char* format, ...) = &printf;

void Init(int (*fn)(const char* format, ...))
{
    if (fn != nullptr) {
        pPrintf = fn;
    }
}

void MyPrintf(const char* format, ...)
{
    // Callers print right after a failing call and promise its errno to
    // their own callers, so neither formatting nor the hook may change it.
    const INTERNAL::CErrnoGuard keep;
    char buffer[256] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    pPrintf("%s\n", buffer);
}

const char* HexStream(std::string& out, const unsigned char* data, int count)
{
    static const char digits[] = "0123456789ABCDEF";
    if (count > 0) {
        out.reserve(out.size() + 3 * static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            const char hex[3] = {digits[data[i] >> 4], digits[data[i] & 0x0F], ' '};
            out.append(hex, sizeof hex);
        }
    }
    return out.c_str();
}

namespace Str {

std::string Format(const char* format, ...)
{
    if (format == nullptr) {
        return std::string();
    }
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text;
    if (length > 0) {
        text.assign(static_cast<size_t>(length) + 1, '\0');
        vsnprintf(&text[0], text.size(), format, copy);
        text.resize(static_cast<size_t>(length));
    }
    va_end(copy);
    return text;
}

std::string RemoveTrailingWhitespace(const std::string& text)
{
    std::string trimmed(text);
    while (!trimmed.empty()) {
        const unsigned char last = static_cast<unsigned char>(trimmed.back());
        if (last != '\0' && !isspace(last)) {
            break;
        }
        trimmed.pop_back();
    }
    return trimmed;
}

}  // namespace Str
}  // namespace KQ
