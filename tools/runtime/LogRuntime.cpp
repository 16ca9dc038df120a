// zmlog-runtime: the runtime side of the log for installations without a
// runtime of their own. It owns the shared ring, the configuration monitor
// and the archiver from StartRuntimeLog() until SIGTERM, SIGINT or SIGHUP,
// then calls ReleaseRuntimeLog() and exits 0 (1 when the log could not be
// started or released).
//
// The library gives the reader role only to a process named "ZMRuntime",
// and it takes a process's role when it is loaded, before main. Installed
// under a name of its own (an installation's runtime is the one called
// ZMRuntime), this program therefore starts itself again under that name
// before any initialiser of the library runs.
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log/ZMRuntimeLog.h"

namespace {

using namespace PF::Utils::LOG;

constexpr const char* kRole = "ZMRuntime";

// Runs from .preinit_array: before the initialisers of the shared libraries.
void RestartAsRuntime(int argc, char** argv, char** envp) {
    if (argc < 1 || argv[0] == nullptr) return;
    const char* slash = std::strrchr(argv[0], '/');
    if (std::strcmp(slash != nullptr ? slash + 1 : argv[0], kRole) == 0) return;
    argv[0] = const_cast<char*>(kRole);
    ::execve("/proc/self/exe", argv, envp);
    // Failed (no /proc): main reports the name.
}

__attribute__((section(".preinit_array"),
               used)) void (*const kRestartAsRuntime)(int, char**, char**) = RestartAsRuntime;

const char* const kHelp = R"(Usage: zmlog-runtime
The runtime side of libZMRuntimeLog, for an installation without a runtime of
its own: runs as "ZMRuntime", creates the shared log ("ZMLOG") that every other
program of the installation writes into, and archives it into
$ZM_VELDOR_DATA/log/RUNTIME.data under the configuration
$ZM_VELDOR_HOME/conf/RUNTIMELOG.cfg, which it watches. Stops on SIGTERM, SIGINT
or SIGHUP, after the last records are written. One runtime per machine.
Exit status: 0 after a clean stop, 1 when the log could not be started or
released, 2 for a bad command line.
)";

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
        if (help || std::strcmp(argv[1], "--version") == 0) {
            std::fputs(help ? kHelp : "zmlog-runtime " ZMLOG_VERSION "\n", stdout);
            return 0;
        }
        std::fprintf(stderr, "zmlog-runtime: unknown argument '%s' (see --help)\n", argv[1]);
        return 2;
    }
    if (std::strcmp(program_invocation_short_name, kRole) != 0) {
        std::fprintf(stderr, "zmlog-runtime: cannot run under the name %s\n", kRole);
        return 1;
    }
    // Started again from /proc/self/exe, the kernel calls the process "exe":
    // ps, pgrep and systemd show it by this name.
    ::prctl(PR_SET_NAME, kRole);
    // Blocked before the library starts its threads, so they inherit the
    // mask and sigwait() below receives every stop request. A shell starts
    // background jobs with SIGINT ignored: restore the defaults first.
    sigset_t stop;
    sigemptyset(&stop);
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        std::signal(sig, SIG_DFL);
        sigaddset(&stop, sig);
    }
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    // Without its configuration file the library would keep a private text
    // log instead of the shared one: that is no runtime. (The library's own
    // rule for the path; the library says when the variable is not set.)
    const char* home = std::getenv("ZM_VELDOR_HOME");
    const std::string config =
        home != nullptr ? std::string(home) + "/conf/RUNTIMELOG.cfg" : "/usr/VeldorRuntime";
    if (::access(config.c_str(), R_OK) != 0) {
        std::fprintf(stderr, "zmlog-runtime: cannot read the configuration file %s: %s\n",
                     config.c_str(), std::strerror(errno));
        return 1;
    }
    if (!StartRuntimeLog() || IsUPEnvironment() || RingHead::GetInstance() == nullptr) {
        std::fprintf(stderr, "zmlog-runtime: the log could not be started\n");
        ReleaseRuntimeLog();
        return 1;
    }
    std::printf("%s: log started (pid %d)\n", kRole, static_cast<int>(getpid()));
    std::fflush(stdout);
    ZMLOG_INFO("runtime", " log started");

    int sig = 0;
    sigwait(&stop, &sig);
    ZMLOG_INFO_F("runtime", " stopping on %s", sigabbrev_np(sig));
    const bool released = ReleaseRuntimeLog();
    std::printf("%s: log %s\n", kRole, released ? "released" : "release failed");
    std::fflush(stdout);
    return released ? 0 : 1;
}
