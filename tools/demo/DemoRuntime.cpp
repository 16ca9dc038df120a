// Stand-in for the runtime process of the demo. Start it as "ZMRuntime"
// (bash: exec -a ZMRuntime zmlog-demo-runtime): it owns the shared ring, the
// configuration monitor and the archiver from StartRuntimeLog() until
// SIGTERM, SIGINT or SIGHUP, then calls ReleaseRuntimeLog() and exits. It
// also ends when its parent dies, so an interrupted demo leaves no ring
// behind.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "log/ZMRuntimeLog.h"

namespace {

using namespace PF::Utils::LOG;

sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

int main() {
    if (std::strcmp(program_invocation_short_name, "ZMRuntime") != 0) {
        std::fprintf(stderr, "start me as ZMRuntime (e.g. bash: exec -a ZMRuntime %s)\n",
                     program_invocation_short_name);
        return 2;
    }

    // A shell starts background jobs with SIGINT ignored, and an ignored
    // signal is discarded even while blocked: restore the defaults first.
    const sigset_t stop = StopSignals();
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) std::signal(sig, SIG_DFL);
    // Blocked before the library starts its threads, so they inherit the mask
    // and sigwait() below receives every stop request.
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    const pid_t parent = getppid();
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) raise(SIGTERM);  // the parent died before prctl

    if (!StartRuntimeLog() || RingHead::GetInstance() == nullptr) {
        std::fprintf(stderr, "ZMRuntime: the log could not be started\n");
        ReleaseRuntimeLog();
        return 1;
    }
    std::printf("ZMRuntime: log started (pid %d, logLevel %u, logActive %u)\n",
                static_cast<int>(getpid()), RingHead::GetInstance()->LoadLevel(),
                RingHead::GetInstance()->LoadActive());
    std::fflush(stdout);
    ZMLOG_INFO("runtime", " up, waiting for writers");

    int sig = 0;
    sigwait(&stop, &sig);
    ZMLOG_INFO_F("runtime", " stop requested by signal %d", sig);
    const bool released = ReleaseRuntimeLog();
    std::printf("ZMRuntime: log released (%s)\n", released ? "ok" : "failed");
    std::fflush(stdout);
    return released ? 0 : 1;
}
