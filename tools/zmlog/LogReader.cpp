#include "LogReader.h"

#include <algorithm>

namespace PF::Utils::LOG::zmlog {

LogReader::LogReader(const Options& o, bool color, OutputSink& out)
    : filter_(o),
      formatter_(o, color),
      out_(out),
      stats_(o.stats),
      json_(o.output == OutputFormat::kJson),
      hold_(o.lastOnly || o.reverse),
      reverse_(o.reverse),
      ring_(o.lastOnly),
      limit_(o.last),
      source_([this](WalkedRecord& r, const SourceFile&, std::uint64_t) { OnRecord(r); }) {}

void LogReader::OnRecord(WalkedRecord& r) {
    if (CrashFrames::IsReport(r)) frames_.Name(r);
    if (!filter_.Passes(r)) return;
    if (filter_.NeedsGrep() && !filter_.GrepMatches(r, formatter_.Content(r))) return;
    if (stats_) {
        statistics_.Add(r);
        return;
    }
    if (!hold_) {
        formatter_.Append(r, out_.Text());
        out_.FlushIfFull();
        return;
    }
    if (!ring_) {
        starts_.push_back(all_.size());
        formatter_.Append(r, all_);
        return;
    }
    if (limit_ == 0) return;
    if (held_.size() < limit_) {
        held_.emplace_back();
        formatter_.Append(r, held_.back());
        return;
    }
    // Full: overwrite the oldest text, reusing its storage.
    std::string& slot = held_[next_];
    slot.clear();
    formatter_.Append(r, slot);
    next_ = (next_ + 1) % held_.size();
}

void LogReader::Finish() {
    if (stats_) {
        statistics_.Print(out_, json_, source_.DamagedBytes());
    } else if (hold_) {
        std::rotate(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(next_), held_.end());
        if (reverse_) std::reverse(held_.begin(), held_.end());
        for (const std::string& text : held_) out_.Write(text);
        for (std::size_t i = starts_.size(), end = all_.size(); i-- > 0; end = starts_[i]) {
            out_.Write(std::string_view(all_).substr(starts_[i], end - starts_[i]));
        }
        held_ = {};
        all_ = {};
        starts_ = {};
        hold_ = false;
    }
    out_.FlushIfFull();
}

}  // namespace PF::Utils::LOG::zmlog
