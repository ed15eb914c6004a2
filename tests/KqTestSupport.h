// KqTestSupport.h: helpers shared by the test suites: a fresh temporary
// directory and a capture of the lines sent to the library's print hook.
#pragma once

#include "KqOutput.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <ftw.h>
#include <unistd.h>

namespace KqTest {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it
// when the object goes.
class TempDir {
public:
    TempDir()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kq-test-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data()) != nullptr) {
            m_Path = buffer.data();
        }
    }
    ~TempDir()
    {
        if (!m_Path.empty()) {
            nftw(m_Path.c_str(), &RemoveOne, 16, FTW_DEPTH | FTW_PHYS);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_Path; }
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }

private:
    static int RemoveOne(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }
    std::string m_Path;
};

// Installs a print hook that records every line (without the newline the
// library adds) for the lifetime of the object, then restores printf.
class HookCapture {
public:
    HookCapture()
    {
        Instance() = this;
        KQ::Init(&Hook);
    }
    ~HookCapture()
    {
        KQ::Init(&printf);
        Instance() = nullptr;
    }
    HookCapture(const HookCapture&) = delete;
    HookCapture& operator=(const HookCapture&) = delete;

    std::vector<std::string> Lines() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Lines;
    }

private:
    static HookCapture*& Instance()
    {
        static HookCapture* instance = nullptr;
        return instance;
    }
    static int Hook(const char* format, ...)
    {
        char text[1024];
        va_list args;
        va_start(args, format);
        const int n = vsnprintf(text, sizeof text, format, args);
        va_end(args);
        HookCapture* self = Instance();
        if (self != nullptr) {
            std::string line(text);
            if (!line.empty() && line.back() == '\n') {
                line.pop_back();
            }
            std::lock_guard<std::mutex> lock(self->m_Mutex);
            self->m_Lines.push_back(line);
        }
        return n;
    }

    mutable std::mutex m_Mutex;
    std::vector<std::string> m_Lines;
};

}  // namespace KqTest
