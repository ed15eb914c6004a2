// KqDaemon.h: turning the process into a background service, its PID file,
// and an orderly quit request.
#pragma once

#include "KqExport.h"
#include "KqSync.h"

#include <string>

namespace KQ {

// CDaemon: detaches the process from its terminal (daemon(1, 0): new
// session, same working directory, standard streams on the null device),
// sends its standard error to "<PID file without its last extension>.stderr"
// (appended to, never truncated), writes the PID file ("%lu\n") and removes
// it again when the object is destroyed.
//
// Quit requests: SIGINT, SIGTERM and Quit() each add one unit to the
// class-wide semaphore m_QuitSem, which exists from library load to unload
// whether or not any CDaemon does. The main thread waits in Block() or polls
// CheckQuit(); requests add up and none is lost. Every construction installs
// the SIGINT and SIGTERM handlers for the whole process (without
// SA_RESTART); they stay installed after the object is destroyed.
//
// Failure: nothing throws. A failed detach prints "Failed to daemonize: %s"
// (the system's error text, no newline) on standard error and the process
// goes on in the foreground; failures to open the error file, write the PID
// file or remove it are silent apart from the documented results.
// Objects cannot be copied. Create at most one, early, before other threads.
class KQ_API CDaemon {
public:
    // No PID file; installs the quit handlers.
    CDaemon();
    // Installs the quit handlers, then Daemonize(foreground, pidFile) (its
    // result is not kept).
    CDaemon(bool foreground, const std::string& pidFile);
    // Removes the file named by the PID path, if that path is not empty
    // (also in foreground mode, where the object did not write it).
    virtual ~CDaemon();

    CDaemon(const CDaemon&) = delete;
    CDaemon& operator=(const CDaemon&) = delete;

    // Keeps pidFile as the PID path. In foreground mode returns true and does
    // nothing else. Otherwise prints "Daemonizing..." on standard output,
    // detaches (the calling process exits, the call returns in the detached
    // one), redirects standard error to the ".stderr" file when pidFile is
    // not empty, and writes the PID file (also when detaching failed).
    // Result: false only if detaching failed.
    bool Daemonize(bool foreground, const std::string& pidFile);
    // Writes the calling process's id and a newline to the PID path: false
    // if the path is empty or the file cannot be written.
    bool CreatePidFile();

    // Installs HandleSignal for SIGINT and SIGTERM (empty mask, no
    // SA_RESTART); results are ignored.
    static void SetupSigHandlers();
    // The quit handler: one unit on m_QuitSem; signal-safe.
    static void HandleSignal(int signal);
    // Waits for a quit request and consumes it: true if one was taken; false
    // if the wait failed or was interrupted by a signal handled on this
    // thread (a quit signal's unit then stays pending for CheckQuit()).
    static bool Block();
    // True, consuming it, if a quit request is pending; never blocks.
    static bool CheckQuit();
    // Asks the process to quit, exactly as SIGTERM does; callable from any
    // thread and from signal handlers.
    static void Quit();

    // One unit per quit request; count 0 at library load.
    static CSemaphore m_QuitSem;

private:
    std::string m_PidFile;  // empty: none
};

}  // namespace KQ
