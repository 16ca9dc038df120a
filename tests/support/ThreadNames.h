// Names of this process's threads, "main,ShmReadToBinary,...", as the kernel
// shows them in /proc/self/task/*/comm (the main thread's is the executable's).
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace zmtest {

inline std::string ThreadName(const std::string& task) {
    std::string name;
    std::getline(std::ifstream("/proc/self/task/" + task + "/comm"), name);
    return name;
}

inline std::string ThreadNames() {
    // ThreadSanitizer runs a thread of its own, named like the main thread.
    const std::string mainTask = std::to_string(getpid());
    const std::string mainName = ThreadName(mainTask);
    std::string names = mainName;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = dir != nullptr ? readdir(dir) : nullptr) {
        const std::string name = ThreadName(e->d_name);
        if (e->d_name[0] != '.' && e->d_name != mainTask && name != mainName) names += "," + name;
    }
    if (dir != nullptr) closedir(dir);
    return names;
}

}  // namespace zmtest
