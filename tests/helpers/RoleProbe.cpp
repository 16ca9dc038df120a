// Helper process for the lifecycle tests; its role comes from argv[0] (set by
// the test) and the installation in ZM_VELDOR_HOME / ZM_VELDOR_DATA.
//   probe                 prints "up=<0|1> ring=<0|1> threads=<comm,...>"
//   runtime <flagfile>    StartRuntimeLog, "started"; when <flagfile> exists,
//                         ReleaseRuntimeLog twice, "released <r1> <r2>"
//   write <n>             attaches if needed, writes <n> records "<argv0>-<i>"
//   late <flagfile> <n>   waits for <flagfile>, then InitWriteLogEnv and write
//   setlevel <n>          SetLogLevel(n)
//   wait-level <n>        waits (5 s) until the shared header's level is n
//   up-log <n>            writes <n> records and returns from main
//   bind <cpu>            BindCPUCore(cpu)
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "log/ZMRuntimeLog.h"
#include "support/ThreadNames.h"

using namespace PF::Utils::LOG;

namespace {

bool WaitFor(const std::function<bool()>& pred, int ms) {
    for (int waited = 0; waited < ms; waited += 5) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pred();
}

bool FileExists(const char* path) {
    return access(path, F_OK) == 0;
}

void Write(const char* role, long n) {
    for (long i = 0; i < n; ++i) {
        std::string text = std::string(role) + "-" + std::to_string(i);
        WriteLog<const char*>("seq", text.c_str(), kInfo, "main", 0, 0, 0, std::string());
    }
}

void Say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const std::string cmd = argv[1];
    const char* arg = argc > 2 ? argv[2] : "";
    if (cmd == "probe") {
        Say("up=" + std::to_string(IsUPEnvironment()) +
            " ring=" + std::to_string(RingHead::GetInstance() != nullptr) +
            " threads=" + zmtest::ThreadNames());
    } else if (cmd == "runtime") {
        Say(StartRuntimeLog() ? "started" : "start failed");
        WaitFor([&] { return FileExists(arg); }, 60000);
        const bool first = ReleaseRuntimeLog();
        const bool second = ReleaseRuntimeLog();
        Say("released " + std::to_string(first) + " " + std::to_string(second));
    } else if (cmd == "write") {
        if (RingHead::GetInstance() == nullptr) InitWriteLogEnv();
        Write(argv[0], std::strtol(arg, nullptr, 10));
        Say("done");
    } else if (cmd == "late" && argc > 3) {
        Say(RingHead::GetInstance() == nullptr ? "silent" : "attached early");
        WaitFor([&] { return FileExists(arg); }, 60000);
        Say(InitWriteLogEnv() ? "attached" : "attach failed");
        Write(argv[0], std::strtol(argv[3], nullptr, 10));
        Say("done");
    } else if (cmd == "setlevel") {
        SetLogLevel(static_cast<unsigned>(std::strtoul(arg, nullptr, 10)));
        Say("set");
    } else if (cmd == "wait-level") {
        const unsigned want = static_cast<unsigned>(std::strtoul(arg, nullptr, 10));
        Say("waiting");
        const bool seen = WaitFor(
            [&] { return RingHead::GetInstance() && RingHead::GetInstance()->LoadLevel() == want; },
            5000);
        Say(seen ? "level " + std::to_string(want) : "level not seen");
    } else if (cmd == "up-log") {
        Write(argv[0], std::strtol(arg, nullptr, 10));
    } else if (cmd == "bind") {
        BindCPUCore(static_cast<int>(std::strtol(arg, nullptr, 10)));
    } else {
        return 2;
    }
    return 0;
}
