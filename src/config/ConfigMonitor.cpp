// The thread "MonitorConfi": reloads "RUNTIMELOG.cfg" on every inotify event
// and pushes the switches to the log state and the shared ring header.
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

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

void ApplyLoadedConfig() {
    RingHead* ring = RingHead::instance;
    if (ring == nullptr) return;  // no ring: only the statics change
    auto& state = LogStateManager::GetInstance();
    state->SetLogActive(ConfManager::logActive);
    state->SetLogLevel(ConfManager::logLevel);
    ring->SetComponentMask(ConfManager::sALLMask);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace

void ConfManager::StartThread() {
    sStopflag.store(false);
    sReadTh = std::thread([] {
        std::string path = ConfManager::sFilePath;
        ConfManager::ReadConfigCycle(path);
    });
    pthread_setname_np(sReadTh.native_handle(), "MonitorConfi");
    ThreadManager::SetThreadAffinity(sReadTh, 0);
    // Detached: the thread sleeps in read() until the file changes, and
    // nobody should have to wait for that.
    sReadTh.detach();
}

void ConfManager::StopThread() {
    if (sStopflag.load()) return;
    // A request only: the thread notices it at its next event.
    sStopflag.store(true);
    if (sReadTh.joinable()) sReadTh.join();
}

// cppcheck-suppress passedByValue ; the thread keeps its own copy of the path
void ConfManager::ReadConfigCycle(std::string path) {
    const int fd = inotify_init();
    if (fd < 0) {
        std::fputs("inotifyFd create fail\n", stderr);
        std::fflush(stderr);
        return;
    }
    // Unchecked: a missing file leaves the thread blocked without a watch.
    int wd = inotify_add_watch(fd, path.c_str(), kWatchMask);

    alignas(inotify_event) char buffer[kReadSize];
    while (!sStopflag.load()) {
        const ssize_t got = read(fd, buffer, kReadSize);
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
