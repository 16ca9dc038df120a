// Configuration: the paths from the environment, the statics derived from
// "RUNTIMELOG.cfg" and the monitor thread that reloads it.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>

namespace PF::Utils::LOG {

// Process-wide configuration; never instantiated. The containers are created
// at load and never destroyed, so shut-down code can still use them after the
// exit handlers ran.
class ConfManager {
  public:
    ConfManager() = delete;

    static bool outputMode;  // true: UP environment (no installation found)
    static unsigned int logActive;
    static unsigned int logLevel;
    static bool sConsole;
    static unsigned long sPFMask;
    static unsigned long sRTMask;
    static unsigned long sHCMask;
    static unsigned long sHWMask;
    static unsigned long sALLMask;
    static std::atomic<bool> sStopflag;

    static std::map<std::string, std::string>& mp;
    static std::string& sFilePath;
    static std::thread& sReadTh;
    static std::unordered_set<char>& sCommentChars;

    static bool ReadConfigFile(const std::string& path);

    // The monitor thread "MonitorConfi".
    static void StartThread();
    static void StopThread();
    static void ReadConfigCycle(std::string path);
};

// (configuration file path, log directory) from ZM_VELDOR_HOME / ZM_VELDOR_DATA.
std::pair<std::string, std::string> InitConfAndLogPath();

bool ParseKeyAndValue(std::string& key, std::string& value, const std::string& line);

}  // namespace PF::Utils::LOG
