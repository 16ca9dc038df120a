// Helper steps for the library's lifecycle:
//   exit-logging=<threads>  threads log (filtered-out records, and every
//                         thousandth one that passes) while main returns
//   cycles=<n>            n times StartRuntimeLog and ReleaseRuntimeLog,
//                         then StartRuntimeLog: "cycled"
//   resources             "monitors <threads named MonitorConfi> inotify
//                         <inotify descriptors> zmlog <mappings of ZMLOG> "
//   signal-monitor=<n>    n times SIGUSR1 to the monitor thread, handled
//                         without SA_RESTART: "signalled"
//   affinity              once an archiver runs (10 s at most): "archiver
//                         <CPU list> process <CPU list>"
//   fork=<n>              4 threads log while n children are forked, each
//                         writing "child-<i>": "children <n> hung <k>"
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "helpers/Steps.h"
#include "log/ZMRuntimeLog.h"
#include "support/ThreadNames.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)  // the sanitizer builds are clang's
#include <sanitizer/lsan_interface.h>
#define ZMHELPER_LSAN 1
#endif
#endif

using namespace PF::Utils::LOG;
using namespace zmhelper;

namespace {
// For threads whose heap text is still in use when the process exits: the
// leak checker cannot read their stacks then.
void NotLeakChecked() {
#ifdef ZMHELPER_LSAN
    __lsan_disable();
#endif
}

// Task ids of this process's threads of that name.
std::vector<std::string> Tasks(const std::string& name) {
    std::vector<std::string> tasks;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = dir != nullptr ? readdir(dir) : nullptr)
        if (e->d_name[0] != '.' && zmtest::ThreadName(e->d_name) == name)
            tasks.emplace_back(e->d_name);
    if (dir != nullptr) closedir(dir);
    return tasks;
}

std::string CpuList(const std::string& task) {
    std::ifstream status("/proc/self/task/" + task + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Cpus_allowed_list:", 0) == 0)
            return line.substr(line.find_first_not_of(" \t", 18));
    return "?";
}

void ExitLogging(const std::string&, const std::string& args) {
    for (unsigned long t = 0; t < Numbers(args).at(0); ++t) {
        std::thread([] {
            NotLeakChecked();
            for (unsigned long i = 0;; ++i) {
                ZMLOG_TRACE("exit", "filtered out below the level");
                if (i % 1000 == 0) ZMLOG_INFO_F("exit", "record %lu", i);
            }
        }).detach();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

void Cycles(const std::string&, const std::string& args) {
    for (unsigned long i = 0; i < Numbers(args).at(0); ++i) {
        StartRuntimeLog();
        ReleaseRuntimeLog();
    }
    StartRuntimeLog();
    Say("cycled");
}

void Resources(const std::string&, const std::string&) {
    int inotify = 0, zmlog = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* e = dir != nullptr ? readdir(dir) : nullptr) {
        char target[64] = {};
        const std::string link = std::string("/proc/self/fd/") + e->d_name;
        inotify += readlink(link.c_str(), target, sizeof target - 1) > 0 &&
                   std::string(target) == "anon_inode:inotify";
    }
    if (dir != nullptr) closedir(dir);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        zmlog += line.find("/dev/shm/ZMLOG") != std::string::npos;
    Say("monitors " + std::to_string(Tasks("MonitorConfi").size()) + " inotify " +
        std::to_string(inotify) + " zmlog " + std::to_string(zmlog) + " ");
}

void SignalMonitor(const std::string&, const std::string& args) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);  // no SA_RESTART: a blocked call returns EINTR
    for (unsigned long i = 0; i < Numbers(args).at(0); ++i) {
        for (const std::string& task : Tasks("MonitorConfi"))
            tgkill(getpid(), std::stoi(task), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Say("signalled");
}

void Affinity(const std::string&, const std::string&) {
    auto archiver = Tasks("ShmReadToBinary");
    for (int waited = 0; archiver.empty() && waited < 10000; waited += 5) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        archiver = Tasks("ShmReadToBinary");
    }
    Say("archiver " + (archiver.empty() ? std::string("none") : CpuList(archiver[0])) +
        " process " + CpuList(std::to_string(getpid())));
}

void Fork(const std::string&, const std::string& args) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 4; ++t) {
        loggers.emplace_back([&stop] {
            while (!stop.load()) {
                ZMLOG_INFO("parent", "busy");
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
    }
    const unsigned long children = Numbers(args).at(0);
    std::vector<pid_t> pids;
    for (unsigned long i = 0; i < children; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            ZMLOG_INFO_F("fork", "child-%lu", i);
            std::exit(0);
        }
        pids.push_back(child);
    }
    // A child that has not ended within 10 s hangs.
    int hung = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (const pid_t child : pids) {
        while (waitpid(child, nullptr, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(child, SIGKILL);
                waitpid(child, nullptr, 0);
                ++hung;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    stop = true;
    for (auto& t : loggers) t.join();
    Say("children " + std::to_string(children) + " hung " + std::to_string(hung));
}

}  // namespace

ZMHELPER_STEP("exit-logging", ExitLogging);
ZMHELPER_STEP("cycles", Cycles);
ZMHELPER_STEP("resources", Resources);
ZMHELPER_STEP("signal-monitor", SignalMonitor);
ZMHELPER_STEP("affinity", Affinity);
ZMHELPER_STEP("fork", Fork);
