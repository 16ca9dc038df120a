// The thread "MonitorConfi": reloads "RUNTIMELOG.cfg" on every inotify event
// and pushes the switches to the log state and the shared ring header.
//
// One monitor per runtime, whatever the number of start/release cycles: a
// stop wakes the thread (through an eventfd it polls beside the inotify
// descriptor) and joins it, and the thread closes its descriptors on the way
// out, so none outlives the configuration it works on. It stays pinned to
// core 0, as it always was: it sleeps almost all the time, and when a file
// edit wakes it, whatever it restarts gets the process's own affinity back
// (ThreadManager::StartedByTheLibrary).
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "archive/ThreadManager.h"
#include "lifecycle/LogStateManager.h"
#include "log/ConfManager.h"
#include "log/RingHead.h"

namespace PF::Utils::LOG {

namespace {

constexpr uint32_t kWatchMask = IN_MODIFY | IN_IGNORED;  // 0x8002
// One event without a name: a watch on a file never carries one.
constexpr size_t kReadSize = sizeof(inotify_event);
static_assert(kReadSize == 16);

// Written by StopThread to wake the thread out of its wait; the running
// monitor's own copy, for ReadConfigCycle.
int gWakeFd = -1;
thread_local int tWakeFd = -1;
// Set once the thread watches the file (or gave up): an edit made right
// after the start is not missed.
std::atomic<bool> gWatching{false};

void ApplyLoadedConfig() {
    RingHead* ring = RingHead::instance;
    if (ring == nullptr) return;  // no ring: only the statics change
    auto& state = LogStateManager::GetInstance();
    state->SetLogActive(ConfManager::logActive);
    state->SetLogLevel(ConfManager::logLevel);
    ring->SetComponentMask(ConfManager::sALLMask);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

// Waits for an inotify event or the stop; an interrupted wait is no failure.
// False: stop, or the descriptors failed.
bool WaitForEvent(int fd, int wakeFd) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) >= 0) break;
        if (errno != EINTR) return false;
    }
    return (fds[1].revents & POLLIN) == 0 && (fds[0].revents & POLLIN) != 0;
}

}  // namespace

void ConfManager::StartThread() {
    StopThread();  // a monitor left running is stopped before its successor starts
    gWakeFd = eventfd(0, EFD_CLOEXEC);
    sStopflag.store(false);
    const int wakeFd = gWakeFd;
    gWatching.store(false);
    sReadTh = std::thread([wakeFd] {
        ThreadManager::StartedByTheLibrary(0);
        tWakeFd = wakeFd;
        std::string path = ConfManager::sFilePath;
        ConfManager::ReadConfigCycle(path);
    });
    pthread_setname_np(sReadTh.native_handle(), "MonitorConfi");
    ThreadManager::SetThreadAffinity(sReadTh, 0);
    for (int waited = 0; !gWatching.load() && waited < 1000; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void ConfManager::StopThread() {
    if (sStopflag.load()) return;
    sStopflag.store(true);
    const int wakeFd = std::exchange(gWakeFd, -1);
    const std::uint64_t one = 1;
    if (wakeFd >= 0 && write(wakeFd, &one, sizeof one) < 0) {
        // An eventfd write fails only when its count would overflow.
    }
    if (sReadTh.joinable() && sReadTh.get_id() == std::this_thread::get_id()) {
        sReadTh.detach();  // asked from within: it leaves after this event
        return;
    }
    if (sReadTh.joinable()) sReadTh.join();
    if (wakeFd >= 0) close(wakeFd);
}

// cppcheck-suppress passedByValue ; the thread keeps its own copy of the path
void ConfManager::ReadConfigCycle(std::string path) {
    const int fd = inotify_init1(IN_CLOEXEC);
    if (fd < 0) {
        gWatching.store(true);
        std::fputs("inotifyFd create fail\n", stderr);
        std::fflush(stderr);
        return;
    }
    // Unchecked: a missing file leaves the thread waiting without a watch.
    int wd = inotify_add_watch(fd, path.c_str(), kWatchMask);
    gWatching.store(true);
    const int wakeFd = tWakeFd;

    alignas(inotify_event) char buffer[kReadSize];
    while (!sStopflag.load() && WaitForEvent(fd, wakeFd)) {
        ssize_t got;
        do {
            got = read(fd, buffer, kReadSize);
        } while (got < 0 && errno == EINTR);
        if (got <= 0) break;
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= got;) {
            inotify_event event;
            std::memcpy(&event, buffer + at, sizeof event);
            at += static_cast<ssize_t>(sizeof event + event.len);
            if ((event.mask & IN_IGNORED) != 0) {
                // The kernel dropped the watch (file deleted, or replaced by a
                // rename): follow the new file under the same name.
                inotify_rm_watch(fd, wd);
                wd = inotify_add_watch(fd, path.c_str(), kWatchMask);
            }
            // An unreadable file keeps the current values, which are re-applied.
            ReadConfigFile(path);
            ApplyLoadedConfig();
        }
    }
    inotify_rm_watch(fd, wd);
    close(fd);
}

}  // namespace PF::Utils::LOG
