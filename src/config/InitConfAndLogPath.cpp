// Configuration file path and log directory from the installation's
// environment.
#include <cstdio>
#include <cstdlib>

#include "log/ConfManager.h"

namespace PF::Utils::LOG {

std::pair<std::string, std::string> InitConfAndLogPath() {
    // Both read first; an empty value still counts as set.
    const char* home = std::getenv("ZM_VELDOR_HOME");
    const char* data = std::getenv("ZM_VELDOR_DATA");

    std::string confPath = ".";
    std::string logDir;
    if (home != nullptr) {
        // Plain concatenation: a trailing '/' in the variable doubles the slash.
        confPath = std::string(home) + "/conf/RUNTIMELOG.cfg";
    } else {
        // The fallback names the installation directory itself, without the
        // file name, as it always has.
        confPath = "/usr/VeldorRuntime";
        std::fputs("ZM_VELDOR_HOME ENVIRONMENT IS NOT SETTING\n", stderr);
        std::fflush(stderr);
    }
    if (data != nullptr) {
        logDir = std::string(data) + "/log";
    } else {
        logDir = "/data/VeldorRuntime/log";
        std::fputs("ZM_VELDOR_DATA ENVIRONMENT IS NOT SETTING\n", stderr);
        std::fflush(stderr);
    }
    return {confPath, logDir};
}

}  // namespace PF::Utils::LOG
