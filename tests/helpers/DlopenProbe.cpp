// Loads and unloads the library with dlopen/dlclose (it is not linked in), and
// reports the threads before and after: nothing of the library may keep
// running once it is unloaded.
//   DlopenProbe <library file>
#include <dirent.h>
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

namespace {
std::string ThreadNames() {
    std::string names;
    DIR* dir = opendir("/proc/self/task");
    while (dir != nullptr) {
        dirent* e = readdir(dir);
        if (e == nullptr) break;
        if (e->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        names += (names.empty() ? "" : ",") + name;
    }
    if (dir != nullptr) closedir(dir);
    return names;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    for (int round = 0; round < 2; ++round) {
        void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr) {
            std::printf("dlopen failed: %s\n", dlerror());
            return 3;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        std::printf("loaded threads=%s\n", ThreadNames().c_str());
        dlclose(lib);
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        std::printf("unloaded threads=%s\n", ThreadNames().c_str());
        std::fflush(stdout);
    }
    return 0;
}
