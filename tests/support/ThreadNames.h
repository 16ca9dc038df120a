// Names of this process's threads, "main,ShmReadToBinary,...", as the kernel
// shows them in /proc/self/task/*/comm (the main thread's is the executable's).
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <string>

#if defined(__SANITIZE_THREAD__)
#define ZMTEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZMTEST_TSAN 1
#endif
#endif

namespace zmtest {

inline std::string ThreadName(const std::string& task) {
    std::ifstream comm("/proc/self/task/" + task + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

inline std::string ThreadNames() {
#ifdef ZMTEST_TSAN
    // ThreadSanitizer runs a thread of its own, named like the main thread.
    const std::string mainTask = std::to_string(getpid());
    const std::string mainName = ThreadName(mainTask);
#endif
    std::string names;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = dir != nullptr ? readdir(dir) : nullptr) {
        if (e->d_name[0] == '.') continue;
        const std::string name = ThreadName(e->d_name);
#ifdef ZMTEST_TSAN
        if (name == mainName && e->d_name != mainTask) continue;
#endif
        names += (names.empty() ? "" : ",") + name;
    }
    if (dir != nullptr) closedir(dir);
    return names;
}

}  // namespace zmtest
