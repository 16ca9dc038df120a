// The configuration statics and the loader that derives them from the
// key/value map.
#include "log/ConfManager.h"

#include <cctype>
#include <cstdlib>
#include <initializer_list>
#include <sstream>

#include "common/Immortal.h"
#include "log/ReadCFGFile.h"
#include "writer/RateLimit.h"

namespace PF::Utils::LOG {

bool ConfManager::outputMode = true;
unsigned int ConfManager::logActive = 1;
unsigned int ConfManager::logLevel = 2;
bool ConfManager::sConsole = false;
unsigned long ConfManager::sPFMask = ~0UL;
unsigned long ConfManager::sRTMask = ~0UL;
unsigned long ConfManager::sHCMask = ~0UL;
unsigned long ConfManager::sHWMask = ~0UL;
unsigned long ConfManager::sALLMask = ~0UL;
std::atomic<bool> ConfManager::sStopflag{true};

namespace {

using KeyMap = std::map<std::string, std::string>;
using CharSet = std::unordered_set<char>;

// Built in this order at load, before any other object of the library.
ZMLOG_IMMORTAL detail::Immortal<KeyMap> gMapHolder;
ZMLOG_IMMORTAL detail::Immortal<std::string> gFilePathHolder;
ZMLOG_IMMORTAL detail::Immortal<std::thread> gReadThHolder;
ZMLOG_IMMORTAL detail::Immortal<CharSet> gCommentCharsHolder(std::initializer_list<char>{';', '#'});

const char* const kLevelNames[] = {"trace", "debug", "info", "warn", "error", "fatal", "record"};

// Hexadecimal through a stream: "-1" wraps to all ones, junk gives 0, an
// over-long number saturates.
unsigned long ParseMask(const std::string& text) {
    unsigned long value = 0;
    std::istringstream stream(text);
    stream >> std::hex >> value;
    return value;
}

}  // namespace

KeyMap& ConfManager::mp = ZMLOG_IMMORTAL_OBJECT(KeyMap, gMapHolder);
std::string& ConfManager::sFilePath = ZMLOG_IMMORTAL_OBJECT(std::string, gFilePathHolder);
std::thread& ConfManager::sReadTh = ZMLOG_IMMORTAL_OBJECT(std::thread, gReadThHolder);
CharSet& ConfManager::sCommentChars = ZMLOG_IMMORTAL_OBJECT(CharSet, gCommentCharsHolder);

bool ParseKeyAndValue(std::string& key, std::string& value, const std::string& line) {
    // A comment anywhere drops the whole line: trailing comments are not
    // supported, on purpose.
    for (char c : line) {
        if (ConfManager::sCommentChars.count(c) != 0) return false;
    }
    const auto eq = line.find('=');
    key = eq == std::string::npos ? line : line.substr(0, eq);
    value = eq == std::string::npos ? line : line.substr(eq + 1);
    key = detail::TrimBlanks(key);
    value = detail::TrimBlanks(value);
    for (char& c : value) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

    if (key == "logLevel") {
        // Names only: a number is not a level.
        for (int level = 0; level < 7; ++level) {
            if (value == kLevelNames[level]) {
                value = std::to_string(level);
                return true;
            }
        }
        return false;
    }
    if (key == "logActive") {
        value = value == "true" ? "1" : "0";
        return true;
    }
    return key == "PFMask" || key == "RTMask" || key == "HCMask" || key == "HWMask" ||
           key == "console" || key == "OutputMode" || key == "maxFileRollNumber" ||
           key == "readerInterval" || key == "writeMode" || key == "program" ||
           key == "rateLimitBurst" || key == "rateLimitIntervalMs" || key == "shmGroup" ||
           key == "crashReport";
}

bool ConfManager::ReadConfigFile(const std::string& path) {
    // Remembered first, so even a missing file becomes the watched path.
    sFilePath = path;
    if (!ReadCFGFile(path)) return false;

    auto decimal = [](const std::string& text) {
        return static_cast<unsigned int>(std::strtol(text.c_str(), nullptr, 10));
    };
    auto it = mp.find("logActive");
    if (it != mp.end()) logActive = decimal(it->second);
    it = mp.find("logLevel");
    if (it != mp.end()) logLevel = decimal(it->second);
    mp.try_emplace("PFMask", "-1");
    it = mp.find("OutputMode");
    if (it != mp.end()) {
        // Looked at and deliberately not acted on: the mode comes from whether
        // the file exists, not from what it says.
        (void)(it->second == "true");
    }
    it = mp.find("console");
    // Switched on only: a running process never turns the echo off again.
    if (it != mp.end() && it->second == "true") sConsole = true;
    mp.try_emplace("RTMask", "-1");
    mp.try_emplace("HCMask", "-1");
    mp.try_emplace("HWMask", "-1");

    sPFMask = ParseMask(mp["PFMask"]);
    sRTMask = ParseMask(mp["RTMask"]);
    sHCMask = ParseMask(mp["HCMask"]);
    sHWMask = ParseMask(mp["HWMask"]);

    // 16 bits per group; the HW shift drops the rest by overflow.
    sHWMask = sHWMask << 48;
    sPFMask = sPFMask & 0xFFFFUL;
    sRTMask = (sRTMask << 16) & 0xFFFFFFFFUL;
    sHCMask = (sHCMask << 32) & 0xFFFF00000000UL;
    sALLMask = (sRTMask | sHCMask) + sPFMask + sHWMask;
    detail::ApplyRateLimitKeys();
    return true;
}

}  // namespace PF::Utils::LOG
