// KqDaemon.cpp: detaching into the background, the PID and error output
// files, and quit requests counted on a semaphore (Linux).
#include "KqDaemon.h"

#include "KqTime.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace KQ {

CSemaphore CDaemon::m_QuitSem(0);

namespace {

// The PID path without everything from its last "." (searched in the whole
// path), followed by ".stderr".
std::string ErrorFileName(const std::string& pidFile)
{
    return pidFile.substr(0, pidFile.rfind('.')) + ".stderr";
}

// Appends the process's later standard error output to the error file;
// standard error stays on the null device if it cannot be opened. The
// opened descriptor is left open.
void RedirectStderr(const std::string& pidFile)
{
    const int fd = open(ErrorFileName(pidFile).c_str(), O_RDWR | O_CREAT | O_APPEND, 0640);
    if (fd != -1) {
        dup2(fd, fileno(stderr));
    }
}

void InstallQuitHandler(int signal)
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = &CDaemon::HandleSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: a blocking call returns with EINTR
    sigaction(signal, &action, nullptr);
}

}  // namespace

CDaemon::CDaemon() { SetupSigHandlers(); }

CDaemon::CDaemon(bool foreground, const std::string& pidFile)
{
    SetupSigHandlers();
    Daemonize(foreground, pidFile);
}

CDaemon::~CDaemon()
{
    if (!m_PidFile.empty()) {
        remove(m_PidFile.c_str());
    }
}

bool CDaemon::Daemonize(bool foreground, const std::string& pidFile)
{
    m_PidFile = pidFile;
    if (foreground) {
        return true;
    }
    // Flushed now: the buffer would otherwise be copied into the detached
    // process and end up on the null device.
    std::fputs("Daemonizing...\n", stdout);
    std::fflush(stdout);
    bool result = true;
    if (daemon(1, 0) != 0) {
        std::fprintf(stderr, "Failed to daemonize: %s", std::strerror(errno));
        result = false;
    } else if (!m_PidFile.empty()) {
        RedirectStderr(m_PidFile);
    }
    CreatePidFile();  // also without detaching, so the id is recorded
    return result;
}

bool CDaemon::CreatePidFile()
{
    if (m_PidFile.empty()) {
        return false;
    }
    FILE* file = std::fopen(m_PidFile.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::fprintf(file, "%lu\n", GetProcessId());
    std::fclose(file);
    return true;
}

void CDaemon::SetupSigHandlers()
{
    InstallQuitHandler(SIGINT);
    InstallQuitHandler(SIGTERM);
}

void CDaemon::HandleSignal(int) { m_QuitSem.Signal(); }

bool CDaemon::Block() { return m_QuitSem.Wait(); }

bool CDaemon::CheckQuit() { return m_QuitSem.TryWait(); }

void CDaemon::Quit() { m_QuitSem.Signal(); }

}  // namespace KQ
