// This process's threads as the kernel names them in /proc/self/task/*/comm
// (the main thread's name is the executable's).
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace zmtest {

// The name of each thread by its task id.
inline std::map<std::string, std::string> Threads() {
    std::map<std::string, std::string> threads;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        std::getline(std::ifstream(task.path() / "comm"), threads[task.path().filename()]);
    return threads;
}

inline std::vector<std::string> Tasks(const std::string& name) {
    std::vector<std::string> tasks;
    for (const auto& [task, named] : Threads())
        if (named == name) tasks.push_back(task);
    return tasks;
}

// "main,ShmReadToBinary,...", without ThreadSanitizer's own thread, which is
// named like the main thread.
inline std::string ThreadNames() {
    auto threads = Threads();
    const std::string main = threads[std::to_string(getpid())];
    std::string names = main;
    for (const auto& [task, name] : threads)
        if (name != main) names += "," + name;
    return names;
}

}  // namespace zmtest
