// A writer process of the demo. Start it under an accepted program name
// (bash: exec -a CellEmulation zmlog-demo-writer): it attaches to the runtime's
// ring at load, then two threads log text, printf-style, typed and binary
// records at several levels for a number of rounds. Each thread reports on
// stdout when it sees the shared level threshold change. Lines show the tag
// and the content joined, so contents start with a blank and value tags end
// in "=".
//
// Usage: zmlog-demo-writer [--rounds N] [--interval-ms MS]
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "log/ZMRuntimeLog.h"

namespace {

using namespace PF::Utils::LOG;

struct Options {
    int rounds = 8;
    int intervalMs = 250;
};

bool ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--rounds" || arg == "--interval-ms") && i + 1 < argc) {
            const int value = std::atoi(argv[++i]);
            if (value <= 0) return false;
            (arg == "--rounds" ? options.rounds : options.intervalMs) = value;
        } else {
            return false;
        }
    }
    return true;
}

const char* LevelName(unsigned level) {
    static const char* const kNames[] = {"trace", "debug", "info",  "warn",
                                         "error", "fatal", "record"};
    return level < 7 ? kNames[level] : "?";
}

unsigned CurrentLevel() {
    const RingHead* ring = RingHead::GetInstance();
    return ring != nullptr ? ring->LoadLevel() : 0;
}

// Each demo program owns one component group: PF, RT or HW.
unsigned long ComponentOfThisProgram() {
    const std::string name = program_invocation_short_name;
    if (name == "EngineEmulation") return 1UL << 16;
    if (name == "BusBridge") return 1UL << 48;
    return 1UL;
}

void Work(int thread, const Options& options) {
    const auto tid = static_cast<unsigned>(syscall(SYS_gettid));
    unsigned seenLevel = CurrentLevel();
    ZMLOG_INFO_F("cycle", " %s thread %d started, %d rounds", program_invocation_short_name, thread,
                 options.rounds);
    for (int round = 0; round < options.rounds; ++round) {
        const unsigned level = CurrentLevel();
        if (level != seenLevel) {
            std::printf("%s thread %u: sees logLevel %s -> %s\n", program_invocation_short_name,
                        tid, LevelName(seenLevel), LevelName(level));
            std::fflush(stdout);
            ZMLOG_WARN_F("config", " level threshold now %s", LevelName(level));
            seenLevel = level;
        }

        ZMLOG_TRACE_F("cycle", " round %d: scheduler detail", round);
        ZMLOG_DEBUG_F("cycle", " round %d: cycle start on thread %d", round, thread);
        switch (round % 4) {
            case 0:
                ZMLOG_INFO_F("motion", " axis %d at %.3f mm", thread, 10.0 * round + 0.125);
                break;
            case 1:
                ZMLOG_VALUE(kInfo, "cycleTimeUs=", 250.0 + round * 1.5 + thread);
                break;
            case 2: {
                const unsigned char frame[] = {0x7E, 0x01, 0x00, static_cast<unsigned char>(round),
                                               0x00, 0xC3, 0x5A, 0x7E};
                ZMLOG_BINARY(kInfo, "frame", frame, sizeof frame);
                break;
            }
            default:
                ZMLOG_VALUE(kInfo, "counter=", round * 100 + thread);
                break;
        }
        if (thread == 0 && round == options.rounds / 2) {
            ZMLOG_WARN_C(ComponentOfThisProgram(), "bus", " station 3 answered late");
        }
        if (thread == 1 && round == options.rounds - 1) {
            ZMLOG_ERROR("io", " simulated output fault on slot 2");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
    }
    ZMLOG_INFO("cycle", " thread done");
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--rounds N] [--interval-ms MS]\n", argv[0]);
        return 2;
    }
    // A writer started before the runtime created the ring attaches now.
    if (!IsUPEnvironment() && RingHead::GetInstance() == nullptr && !InitWriteLogEnv()) {
        std::fprintf(stderr, "%s: no runtime ring to attach to\n", program_invocation_short_name);
        return 1;
    }
    std::printf("%s: %s, logLevel %s\n", program_invocation_short_name,
                IsUPEnvironment() ? "no installation (private log)" : "attached to the runtime",
                LevelName(CurrentLevel()));
    std::fflush(stdout);

    std::thread first(Work, 0, std::cref(options));
    std::thread second(Work, 1, std::cref(options));
    first.join();
    second.join();
    return 0;
}
