// Who may use the installation's shared ring, its lock and its log files.
// By default the runtime creates them with the modes every process of an
// installation has always found (the object 0666, the semaphores and the
// files 0644, the directory 0777, less the umask). With "shmGroup=<group>"
// in RUNTIMELOG.cfg it creates them for that group only: the object and the
// semaphores 0660, the log directory 0750, the log files 0640, all owned by
// the group, so other local users can neither write the ring nor read the log.
#pragma once

#include <sys/types.h>

#include <string>

namespace PF::Utils::LOG::detail {

struct SharedAccess {
    bool restricted = false;
    gid_t group = static_cast<gid_t>(-1);  // -1: the creator's own
};

// From the configuration read last. A name that is no group (nor a group
// number) still restricts the modes, leaving the creator's group, and says
// so once on standard error: an installation that asked to shut others out
// is not opened up by a typing error.
SharedAccess CurrentSharedAccess();

// Mode and group for what was just created, when access is restricted.
void Restrict(int fd, mode_t mode);
void Restrict(const std::string& path, mode_t mode);

}  // namespace PF::Utils::LOG::detail
