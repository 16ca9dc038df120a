// Local time stamps with their UTC offset, for JSON and statistics. localtime
// runs once per second of log time.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace PF::Utils::LOG::zmlog {

class LocalClock {
  public:
    // "2024-05-17T13:04:59.123456+02:00"
    void AppendIso(std::int64_t timeUs, std::string& out) { Append(timeUs, true, out); }
    // "2024-05-17 13:04:59.123456", the text lines' layout
    void AppendPlain(std::int64_t timeUs, std::string& out) { Append(timeUs, false, out); }

  private:
    void Append(std::int64_t timeUs, bool iso, std::string& out);
    void Load(std::int64_t second);

    std::int64_t cachedSecond_ = INT64_MIN;
    char date_[48] = {};    // "YYYY-MM-DD"
    char clock_[16] = {};   // "HH:MM:SS"
    char offset_[16] = {};  // "+HH:MM"
};

}  // namespace PF::Utils::LOG::zmlog
