// --stats: records per program and level, the time span, the damaged bytes
// the walker skipped, and the losses the log itself reports.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "LocalClock.h"
#include "LossNotice.h"
#include "OutputSink.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

class LogStats {
  public:
    void Add(const WalkedRecord& r);
    void Print(OutputSink& out, bool json, std::uint64_t damagedBytes);

  private:
    using Counts = std::array<std::uint64_t, 8>;  // by level, 7 being the unnamed one
    std::map<std::string, Counts, std::less<>> programs_;
    std::map<std::string, LossCounts, std::less<>> losses_;  // what the log says it lost
    std::uint64_t records_ = 0;
    std::int64_t firstUs_ = INT64_MAX;
    std::int64_t lastUs_ = INT64_MIN;
    LocalClock clock_;
};

}  // namespace PF::Utils::LOG::zmlog
