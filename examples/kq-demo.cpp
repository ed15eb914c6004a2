// kq-demo: a small service built on the library. It installs a print hook
// with timestamps, shows a hex dump and the four clocks, then runs a
// CDaemon, a CWakeUpTimer with one-shot and periodic events, and a CSchedule
// driven by a CThread, until SIGINT, SIGTERM or the end of --seconds; then it
// shuts down in order and prints a one-line summary.
//
//   kq-demo [--seconds N] [--daemon] [--pid-file PATH]
//
// --seconds N     stop by itself after N seconds (default 3; 0: only on a signal)
// --daemon        detach from the terminal; diagnostics then go to the
//                 error output file beside the PID file
// --pid-file PATH the PID file written in --daemon mode and removed at exit
#include "Kq.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

std::FILE* g_Output = stdout;

// A print hook that puts the uptime in front of every library line. The line
// is formatted first and written with one call, so lines from different
// threads never interleave.
int TimestampedPrint(const char* format, ...)
{
    char line[512];
    const unsigned long long ms = KQ::Time::GetUptime();
    const int prefix = std::snprintf(line, sizeof line, "[%llu.%03llu] ", ms / 1000, ms % 1000);
    va_list args;
    va_start(args, format);
    std::vsnprintf(line + prefix, sizeof line - prefix, format, args);
    va_end(args);
    const int written = std::fputs(line, g_Output);
    std::fflush(g_Output);
    return written;
}

struct Options {
    unsigned long seconds = 3;
    bool daemon = false;
    std::string pidFile;
};

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--seconds" && hasValue) {
            char* end = nullptr;
            options.seconds = std::strtoul(argv[++i], &end, 10);
            if (*end != '\0') {
                return false;
            }
        } else if (arg == "--daemon") {
            options.daemon = true;
        } else if (arg == "--pid-file" && hasValue) {
            options.pidFile = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

void ShowFoundation()
{
    KQ::MyPrintf("kq-demo: process %lu", KQ::GetProcessId());
    const unsigned char bytes[] = {0x4B, 0x51, 0x00, 0x1F, 0xA0, 0xFF};
    std::string dump;
    KQ::MyPrintf("hex dump: %s", KQ::HexStream(dump, bytes, sizeof bytes));
    KQ::MyPrintf("1 kHz ticks:  %llu", static_cast<unsigned long long>(KQ::Time::GetTicks1K()));
    KQ::MyPrintf("1 MHz ticks:  %llu", static_cast<unsigned long long>(KQ::Time::GetTicks1M()));
    KQ::MyPrintf("1 GHz ticks:  %llu", static_cast<unsigned long long>(KQ::Time::GetTicks1G()));
    KQ::MyPrintf("27 MHz ticks: %llu", static_cast<unsigned long long>(KQ::Time::GetTicks27M()));
    KQ::MyPrintf("clock resolution: %ld ns", KQ::Time::GetResolution());
}

// The timer's client: a periodic heartbeat, two one-shot events, and the
// one-shot event that ends the run (it asks the daemon to quit).
class TimerClient : public KQ::IProcessRequests {
public:
    std::atomic<unsigned int> periodicCalls{0};
    std::atomic<unsigned int> oneShotCalls{0};

    bool Start(KQ::CWakeUpTimer& timer, unsigned long seconds)
    {
        bool ok = timer.AddEvent(this, 700, m_Heartbeat, true);
        ok = timer.AddEvent(this, 250, m_Greeting, false) && ok;
        ok = timer.AddEvent(this, 1500, m_Halfway, false) && ok;
        if (seconds != 0) {
            const unsigned long ms = seconds < 4000000ul ? seconds * 1000ul : 4000000000ul;
            ok = timer.AddEvent(this, static_cast<unsigned int>(ms), m_Stop, false) && ok;
        }
        return ok;
    }

    bool ProcessRequest(unsigned int eventId) override
    {
        if (eventId == m_Heartbeat) {
            ++periodicCalls;
            KQ::MyPrintf("timer: heartbeat (event #%u, every 700 ms after the last one ended)", eventId);
            return true;
        }
        ++oneShotCalls;
        if (eventId == m_Stop) {
            KQ::MyPrintf("timer: run time is up (event #%u), asking to quit", eventId);
            KQ::CDaemon::Quit();
        } else {
            KQ::MyPrintf("timer: one-shot event #%u", eventId);
        }
        return true;
    }

private:
    unsigned int m_Heartbeat = KQ::CWakeUpTimer::INVALID_ID;
    unsigned int m_Greeting = KQ::CWakeUpTimer::INVALID_ID;
    unsigned int m_Halfway = KQ::CWakeUpTimer::INVALID_ID;
    unsigned int m_Stop = KQ::CWakeUpTimer::INVALID_ID;
};

// Work for the schedule: a drift-free periodic sample and one late one-shot.
struct ScheduledWork {
    std::atomic<unsigned int> samples{0};
    std::atomic<unsigned int> reports{0};
    uint64_t startNs = KQ::Time::GetTicks1G();

    void Sample()
    {
        KQ::MyPrintf("schedule: sample %u at %.3f s (on a 400 ms grid)", ++samples,
                     static_cast<double>(KQ::Time::GetTicks1G() - startNs) / 1e9);
    }
    void Report()
    {
        ++reports;
        KQ::MyPrintf("schedule: one-shot report after 1 s");
    }
};

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--seconds N] [--daemon] [--pid-file PATH]\n", argv[0]);
        return 2;
    }
    // The daemon first, so SIGINT and SIGTERM ask for an orderly stop from here on.
    auto daemon = std::make_unique<KQ::CDaemon>(!options.daemon, options.pidFile);
    if (options.daemon) {
        g_Output = stderr;  // stdout is the null device now
    }
    KQ::Init(&TimestampedPrint);
    ShowFoundation();

    const uint64_t startMs = KQ::Time::GetUptime();
    TimerClient client;
    auto timer = std::make_unique<KQ::CWakeUpTimer>(KQ::CThread::GetNormalPriority());
    ScheduledWork work;
    KQ::CSchedule schedule;
    schedule.AddEvent(KQ::MakeMemberFunctor<&ScheduledWork::Sample>(&work), 400, true);
    schedule.AddEvent(KQ::MakeMemberFunctor<&ScheduledWork::Report>(&work), 1000, false);
    KQ::CThread scheduleThread(KQ::MakeMemberFunctor<&KQ::CSchedule::ProcessSchedule>(&schedule), "kq-demo-sched",
                               KQ::CThread::GetNormalPriority(), KQ::CThread::GetPolicy());
    int status = 0;
    if (!timer->IsValid() || !scheduleThread.IsValid() || !client.Start(*timer, options.seconds)) {
        KQ::MyPrintf("kq-demo: could not start the timer or the schedule thread");
        status = 1;
    } else {
        scheduleThread.Run();
        KQ::MyPrintf("kq-demo: running (%s); SIGINT or SIGTERM stops it", options.seconds != 0 ?
                     KQ::Str::Format("for %lu s", options.seconds).c_str() : "until a signal");
        KQ::CDaemon::Block();
        KQ::MyPrintf("kq-demo: quit requested, shutting down");
    }

    // Orderly shutdown: the schedule's thread, then the timer, then the daemon.
    scheduleThread.Cancel();
    timer.reset();
    KQ::MyPrintf("kq-demo: summary: ran %llu ms, timer callbacks %u (periodic %u, one-shot %u), schedule runs %u",
                 static_cast<unsigned long long>(KQ::Time::GetUptime() - startMs),
                 client.periodicCalls.load() + client.oneShotCalls.load(), client.periodicCalls.load(),
                 client.oneShotCalls.load(), work.samples.load() + work.reports.load());
    daemon.reset();
    return status;
}
