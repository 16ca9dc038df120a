// Writer process for the fault tests: logs through a list of phases that the
// test advances with SIGUSR1, timing every WriteLog call.
//   FaultWriter <phase>...
// A phase is one of
//   idle                          writes nothing
//   attach                        InitWriteLogEnv(), then the next phase at once
//   <size>/<pauseUs>[/<count>]    records "<argv0>-<seq>" padded with '.' to
//                                 size bytes, one every pauseUs; ends after
//                                 count records, or else at the next SIGUSR1
// The sequence number runs on across phases. Prints "phase <k>" when a phase
// begins and "phase <k>: <n> records, <bytes> bytes, max WriteLog <ms> ms,
// <slow> over 0.5 ms" when a writing phase ends; exits after the last phase.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "log/ZMRuntimeLog.h"

using namespace PF::Utils::LOG;

namespace {

volatile sig_atomic_t gSignals = 0;

void OnSignal(int) {
    gSignals = gSignals + 1;
}

void Say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

struct Phase {
    std::string name;
    unsigned long size = 0;
    unsigned long pauseUs = 0;
    unsigned long count = 0;  // 0: until the next signal
};

bool ParsePhase(const std::string& text, Phase& phase) {
    phase.name = text;
    if (text == "idle" || text == "attach") return true;
    char* end = nullptr;
    phase.size = std::strtoul(text.c_str(), &end, 10);
    if (*end != '/') return false;
    phase.pauseUs = std::strtoul(end + 1, &end, 10);
    if (*end == '/') phase.count = std::strtoul(end + 1, &end, 10);
    return *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Phase> phases(argc > 1 ? static_cast<size_t>(argc - 1) : 0);
    for (size_t i = 0; i < phases.size(); ++i) {
        if (!ParsePhase(argv[i + 1], phases[i])) return 2;
    }
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    if (RingHead::GetInstance() == nullptr) InitWriteLogEnv();

    const std::string role = argv[0];
    unsigned long seq = 0;
    sig_atomic_t used = 0;  // signals that ended a phase so far
    std::string text;
    for (size_t k = 0; k < phases.size(); ++k) {
        const Phase& phase = phases[k];
        Say("phase " + std::to_string(k));
        if (phase.name == "attach") {
            Say(InitWriteLogEnv() ? "attached 1" : "attached 0");
            continue;
        }
        if (phase.name == "idle") {
            while (gSignals == used) usleep(1000);
            ++used;
            continue;
        }
        unsigned long n = 0;
        unsigned long bytes = 0;
        unsigned long slow = 0;
        double maxMs = 0;
        while (phase.count != 0 ? n < phase.count : gSignals == used) {
            text = role + "-" + std::to_string(seq++);
            if (text.size() < phase.size) text.resize(phase.size, '.');
            const auto start = std::chrono::steady_clock::now();
            WriteLog<std::string>("fault", text, kInfo, "main", 0, 0, 0, std::string());
            const double ms =
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count();
            if (ms > maxMs) maxMs = ms;
            if (ms > 0.5) ++slow;
            ++n;
            bytes += text.size();
            if (phase.pauseUs != 0) usleep(static_cast<useconds_t>(phase.pauseUs));
        }
        if (phase.count == 0) ++used;
        char summary[160];
        std::snprintf(summary, sizeof summary,
                      "phase %zu: %lu records, %lu bytes, max WriteLog %.3f ms, %lu over 0.5 ms", k,
                      n, bytes, maxMs, slow);
        Say(summary);
    }
    return 0;
}
