// Helper steps for the library's lifecycle:
//   exit-logging=<threads>  threads log (filtered-out records, and every thousandth one that
//                     passes) while main returns
//   cycles=<n>        n times StartRuntimeLog and ReleaseRuntimeLog, then StartRuntimeLog: "cycled"
//   resources         "monitors <threads named MonitorConfi> inotify <inotify descriptors> zmlog
//                     <mappings of ZMLOG> "
//   signal-monitor=<n>  n times SIGUSR1 to the monitor thread, without SA_RESTART: "signalled"
//   affinity          once an archiver runs (10 s at most): "archiver <CPUs> process <CPUs>"
//   fork=<n>          4 threads log while n children are forked, each writing "child-<i>":
//                     "children <n> hung <k>"
#include <sys/wait.h>

#include <atomic>
#include <fstream>

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
using namespace std::chrono_literals;
using namespace zmhelper;

namespace {
// For threads whose heap text is still in use when the process exits: the
// leak checker cannot read their stacks then.
void NotLeakChecked() {
#ifdef ZMHELPER_LSAN
    __lsan_disable();
#endif
}

std::string CpuList(const std::string& task) {
    std::ifstream status("/proc/self/task/" + task + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Cpus_allowed_list:", 0) == 0)
            return line.substr(line.find_first_not_of(" \t", 18));
    return "?";
}

void ExitLogging(const std::string&, const std::string& args) {
    for (unsigned long t = 0; t < std::stoul(args); ++t) {
        std::thread([] {
            NotLeakChecked();
            for (unsigned long i = 0;; ++i) {
                ZMLOG_TRACE("exit", "filtered out below the level");
                if (i % 1000 == 0) ZMLOG_INFO_F("exit", "record %lu", i);
            }
        }).detach();
    }
    std::this_thread::sleep_for(20ms);
}

void Cycles(const std::string&, const std::string& args) {
    for (unsigned long i = 0; i < std::stoul(args); ++i) {
        StartRuntimeLog();
        ReleaseRuntimeLog();
    }
    StartRuntimeLog();
    Say("cycled");
}

void Resources(const std::string&, const std::string&) {
    int inotify = 0, zmlog = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;  // one may be closed meanwhile
        inotify += std::filesystem::read_symlink(fd, ec) == "anon_inode:inotify";
    }
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        zmlog += line.find("/dev/shm/ZMLOG") != std::string::npos;
    Say("monitors " + std::to_string(zmtest::Tasks("MonitorConfi").size()) + " inotify " +
        std::to_string(inotify) + " zmlog " + std::to_string(zmlog) + " ");
}

void SignalMonitor(const std::string&, const std::string& args) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);  // no SA_RESTART: a blocked call returns EINTR
    for (unsigned long i = 0; i < std::stoul(args); ++i) {
        for (const std::string& task : zmtest::Tasks("MonitorConfi"))
            tgkill(getpid(), std::stoi(task), SIGUSR1);
        std::this_thread::sleep_for(10ms);
    }
    Say("signalled");
}

void Affinity(const std::string&, const std::string&) {
    std::vector<std::string> archiver;
    zmtest::WaitUntil([&] { return !(archiver = zmtest::Tasks("ShmReadToBinary")).empty(); });
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
                std::this_thread::sleep_for(100us);
            }
        });
    }
    const unsigned long children = std::stoul(args);
    std::vector<pid_t> pids;
    for (unsigned long i = 0; i < children; ++i) {
        pids.push_back(fork());
        if (pids.back() == 0) {
            ZMLOG_INFO_F("fork", "child-%lu", i);
            std::exit(0);
        }
    }
    // A child that has not ended within 10 s hangs.
    zmtest::WaitUntil([&] {
        for (pid_t& child : pids)
            if (child != 0 && waitpid(child, nullptr, WNOHANG) == child) child = 0;
        return std::count(pids.begin(), pids.end(), 0) == long(pids.size());
    });
    int hung = 0;
    for (const pid_t child : pids) hung += child != 0 && kill(child, SIGKILL) == 0;
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
