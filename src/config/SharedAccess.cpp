#include "config/SharedAccess.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "log/ConfManager.h"

namespace PF::Utils::LOG::detail {

namespace {

bool FindGroup(const std::string& name, gid_t& gid) {
    long size = sysconf(_SC_GETGR_R_SIZE_MAX);
    std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 16384));
    group entry{};
    group* found = nullptr;
    while (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE)
        buffer.resize(buffer.size() * 2);
    if (found != nullptr) {
        gid = found->gr_gid;
        return true;
    }
    char* end = nullptr;
    const unsigned long number = std::strtoul(name.c_str(), &end, 10);
    if (name.empty() || *end != '\0') return false;
    gid = static_cast<gid_t>(number);
    return true;
}

}  // namespace

SharedAccess CurrentSharedAccess() {
    const auto it = ConfManager::mp.find("shmGroup");
    if (it == ConfManager::mp.end() || it->second.empty()) return {};
    SharedAccess access;
    access.restricted = true;
    if (!FindGroup(it->second, access.group)) {
        static std::string reported;
        if (reported != it->second) {
            reported = it->second;
            std::fprintf(stderr,
                         "RUNTIMELOG.cfg: shmGroup: no group named \"%s\"; the shared ring and "
                         "the log are for the runtime's own group only\n",
                         it->second.c_str());
        }
    }
    return access;
}

void Restrict(int fd, mode_t mode) {
    const SharedAccess access = CurrentSharedAccess();
    if (!access.restricted || fd < 0) return;
    // The owner may lack the right to give the group away: the mode still
    // applies, and an fchmod failure leaves the umask's mode.
    if (access.group != static_cast<gid_t>(-1))
        (void)fchown(fd, static_cast<uid_t>(-1), access.group);
    (void)fchmod(fd, mode);
}

void Restrict(const std::string& path, mode_t mode) {
    const SharedAccess access = CurrentSharedAccess();
    if (!access.restricted) return;
    if (access.group != static_cast<gid_t>(-1))
        (void)chown(path.c_str(), static_cast<uid_t>(-1), access.group);
    (void)chmod(path.c_str(), mode);
}

}  // namespace PF::Utils::LOG::detail
