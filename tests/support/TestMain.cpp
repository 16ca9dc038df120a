// The suite's main: where allowed (root, or a user namespace) it mounts a
// /dev/shm of its own, so that tests run side by side and never touch a
// runtime of the machine; elsewhere GlobalNamesLock serialises them.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace {

bool WriteProcFile(const char* path, const std::string& text) {
    std::ofstream file(path);
    return static_cast<bool>(file << text << std::flush);
}

bool TakeOwnDevShm() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
        WriteProcFile("/proc/self/setgroups", "deny");
        if (!WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
            !WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
            return false;
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("zmlog-test-shm", "/dev/shm", "tmpfs", 0, "mode=1777") == 0;
}

}  // namespace

int main(int argc, char** argv) {
    TakeOwnDevShm();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
