// KqErrnoGuard.h: keeps errno across reporting and clean-up (internal,
// portable). The library promises callers the errno of the call that failed;
// printing, closing and unlinking afterwards may change it.
#pragma once

#include <cerrno>

namespace KQ {
namespace INTERNAL {

// Saves errno when made and puts it back when it goes.
class CErrnoGuard {
public:
    CErrnoGuard() : m_Saved(errno) {}
    ~CErrnoGuard() { errno = m_Saved; }
    CErrnoGuard(const CErrnoGuard&) = delete;
    CErrnoGuard& operator=(const CErrnoGuard&) = delete;

private:
    int m_Saved;
};

}  // namespace INTERNAL
}  // namespace KQ
