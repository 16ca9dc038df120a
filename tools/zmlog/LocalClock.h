// Local time stamps of records, in the process's time zone (UTC with
// --utc). localtime runs once per second of log time.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace PF::Utils::LOG::zmlog {

class LocalClock {
  public:
    // "2024-05-17T13:04:59.123456+02:00"
    void AppendIso(std::int64_t timeUs, std::string& out);
    // "2024-05-17 13:04:59.123456", or with digits 3 "2024-05-17 13:04:59.123"
    void AppendPlain(std::int64_t timeUs, std::string& out, int digits = 6);
    // The same written at at (room for 32 bytes); returns its end.
    char* WritePlain(std::int64_t timeUs, char* at, int digits);

  private:
    // Loads the second of timeUs; returns the microseconds within it.
    std::int64_t Load(std::int64_t timeUs);

    std::int64_t cachedSecond_ = INT64_MIN;
    std::string plain_;   // "YYYY-MM-DD HH:MM:SS"
    std::string iso_;     // "YYYY-MM-DDTHH:MM:SS"
    std::string offset_;  // "+HH:MM"
};

}  // namespace PF::Utils::LOG::zmlog
