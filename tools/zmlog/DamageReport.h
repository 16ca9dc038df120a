// One line on the damage found since the last report: "skipped 1230 damaged
// bytes in log/RUNTIME.data_1", or with several files "skipped 1500 damaged
// bytes (1230 in log/RUNTIME.data_1, 270 in log/RUNTIME.data)".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "RecordSource.h"

namespace PF::Utils::LOG::zmlog {

class DamageReport {
  public:
    // The line, or nothing when no new damage was found.
    std::string Text(const RecordSource& source);

  private:
    std::vector<std::uint64_t> reported_;
};

}  // namespace PF::Utils::LOG::zmlog
