// Command line of zmlog.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace PF::Utils::LOG::zmlog {

// A failure worth one line on standard error: exit status 1.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A bad command line: exit status 2.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class ColorMode { kAuto, kAlways, kNever };

struct Options {
    std::vector<std::string> inputs;  // one directory, or files
    bool help = false;
    bool micro = false;
    bool json = false;
    bool stats = false;
    bool follow = false;
    ColorMode color = ColorMode::kAuto;

    std::vector<std::string> programs;
    std::vector<std::string> tags;
    int minLevel = 0;
    std::int64_t sinceUs = INT64_MIN;
    std::int64_t untilUs = INT64_MAX;
    std::string grep;
    bool lastOnly = false;  // -n given
    std::uint64_t last = 0;
};

// Throws UsageError.
Options ParseOptions(int argc, char** argv);
const char* HelpText();

// "trace" ... "record" in any case, or 0 to 6.
int ParseLevel(const std::string& text);
// Local "YYYY-MM-DD[( |T)HH:MM[:SS[.ffffff]]]" to microseconds since the epoch.
bool ParseLocalTime(const std::string& text, std::int64_t& us);

}  // namespace PF::Utils::LOG::zmlog
