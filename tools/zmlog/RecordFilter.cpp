#include "RecordFilter.h"

#include <algorithm>

namespace PF::Utils::LOG::zmlog {
namespace {

bool AnyEquals(const std::vector<std::string>& list, std::string_view text) {
    return std::any_of(list.begin(), list.end(), [&](const std::string& s) { return s == text; });
}

}  // namespace

RecordFilter::RecordFilter(const Options& o)
    : programs_(o.programs),
      tags_(o.tags),
      minLevel_(static_cast<unsigned>(o.minLevel)),
      sinceUs_(o.sinceUs),
      untilUs_(o.untilUs),
      grep_(o.grep) {}

bool RecordFilter::Passes(const WalkedRecord& r) const {
    if ((r.head.flags & 7U) < minLevel_) return false;
    if (r.head.timeUs < sinceUs_ || r.head.timeUs > untilUs_) return false;
    if (!programs_.empty() && !AnyEquals(programs_, r.program)) return false;
    if (!tags_.empty() && !AnyEquals(tags_, r.tag)) return false;
    return true;
}

bool RecordFilter::GrepMatches(const WalkedRecord& r, const std::string& content) const {
    return r.function.find(grep_) != std::string_view::npos ||
           r.tag.find(grep_) != std::string_view::npos || content.find(grep_) != std::string::npos;
}

}  // namespace PF::Utils::LOG::zmlog
