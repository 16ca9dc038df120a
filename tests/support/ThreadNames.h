// Names of this process's threads, "main,ShmReadToBinary,...", as the kernel
// shows them in /proc/self/task/*/comm (the main thread's is the executable's).
#pragma once

#include <dirent.h>

#include <fstream>
#include <string>

namespace zmtest {

inline std::string ThreadNames() {
    std::string names;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = dir != nullptr ? readdir(dir) : nullptr) {
        if (e->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        names += (names.empty() ? "" : ",") + name;
    }
    if (dir != nullptr) closedir(dir);
    return names;
}

}  // namespace zmtest
