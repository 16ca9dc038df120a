// What the loader runs: every process gets its role at load, and gives its
// resources back at unload. Runs after the library's own objects are built
// (they are constructed first and never destroyed).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "archive/ThreadManager.h"
#include "lifecycle/ProcessRoles.h"
#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/WriteLog.h"
#include "writer/CrashReport.h"
#include "writer/LossReport.h"

namespace PF::Utils::LOG {

__attribute__((constructor)) void Init() {
    try {
        ThreadManager::RememberProcessAffinity();
        const std::string name = program_invocation_short_name;
        // The runtime becomes the reader only through StartRuntimeLog.
        if (name == "ZMRuntime") return;
        // The test suite sets itself up through the exported calls.
        if (name == "LogAutoTest") return;
        const auto paths = InitConfAndLogPath();
        if (FILE* file = std::fopen(paths.first.c_str(), "r")) {
            ConfManager::outputMode = false;
            std::fclose(file);
        }
        if (IsUPEnvironment()) {
            InitResourceAndReadThread();
        } else {
            // A writer reads the keys that concern every process (its rate
            // limit, the crash report); the switches it takes from the ring.
            ConfManager::ReadConfigFile(paths.first);
            detail::ApplyCrashReportKey();
            InitWriteProcess();  // a failed attach just leaves the process silent
        }
    } catch (...) {
        // Nothing may escape into the loader.
    }
}

__attribute__((destructor)) void CloseResource() {
    try {
        // Losses not reported yet: once more, within the usual deadline.
        detail::ReportLosses(detail::NowUs(), kLockTimeoutNs);
        if (!IsUPEnvironment()) {
            // The runtime must have called ReleaseRuntimeLog itself.
            if (std::strcmp(program_invocation_short_name, "ZMRuntime") != 0) CloseWriteProcess();
            return;
        }
        CloseReadThreadAndResource();
    } catch (...) {
    }
}

}  // namespace PF::Utils::LOG
