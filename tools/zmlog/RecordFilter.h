// The record filters of the command line; a record passes when it passes
// every filter that is set.
#pragma once

#include <string>
#include <vector>

#include "Options.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

class RecordFilter {
  public:
    explicit RecordFilter(const Options& o);

    // Everything but --grep, which needs the rendered content.
    bool Passes(const WalkedRecord& r) const;
    bool NeedsGrep() const { return !grep_.empty(); }
    bool GrepMatches(const WalkedRecord& r, const std::string& content) const;

  private:
    std::vector<std::string> programs_;
    std::vector<std::string> tags_;
    unsigned minLevel_;
    std::int64_t sinceUs_;
    std::int64_t untilUs_;
    std::string grep_;
};

}  // namespace PF::Utils::LOG::zmlog
