#include "LogReader.h"

#include <algorithm>
#include <climits>

#include "archive/Encrypt.h"

namespace PF::Utils::LOG::zmlog {

LogReader::LogReader(const Options& o, bool color, OutputSink& out)
    : sink_([this](WalkedRecord& r) { OnRecord(r); }),
      filter_(o),
      formatter_(o.json, color && !o.json),
      out_(out),
      stats_(o.stats),
      json_(o.json),
      keepLast_(o.lastOnly),
      lastWanted_(o.last) {}

void LogReader::Commit(std::size_t n) {
    // The scrambling is its own inverse: the archiver's transform undoes it.
    for (std::size_t done = 0; done < n;) {
        const auto piece = static_cast<int>(std::min<std::size_t>(n - done, INT_MAX));
        Encrypt::EncryptBlock(reserved_ + done, piece);
        done += static_cast<std::size_t>(piece);
    }
    walker_.Commit(n, sink_);
}

void LogReader::FeedPlain(const char* data, std::size_t n) {
    walker_.Feed(data, n, sink_);
}

void LogReader::EndOfStream() {
    walker_.Finish(sink_);
}

void LogReader::OnRecord(WalkedRecord& r) {
    if (!filter_.Passes(r)) return;
    if (filter_.NeedsGrep() && !filter_.GrepMatches(r, formatter_.Content(r))) return;
    if (stats_) {
        statistics_.Add(r);
        return;
    }
    if (!keepLast_) {
        formatter_.Append(r, out_.Text());
        out_.FlushIfFull();
        return;
    }
    if (lastWanted_ == 0) return;
    if (last_.size() < lastWanted_) {
        last_.emplace_back();
        formatter_.Append(r, last_.back());
        return;
    }
    // Full: overwrite the oldest line, reusing its storage.
    std::string& slot = last_[lastNext_];
    slot.clear();
    formatter_.Append(r, slot);
    lastNext_ = (lastNext_ + 1) % last_.size();
}

void LogReader::Finish() {
    if (stats_) {
        statistics_.Print(out_, json_, walker_.SkippedBytes());
    } else if (keepLast_) {
        for (std::size_t i = 0; i < last_.size(); ++i) {
            out_.Write(last_[(lastNext_ + i) % last_.size()]);
        }
        last_.clear();
        last_.shrink_to_fit();
        keepLast_ = false;
    }
    out_.FlushIfFull();
}

}  // namespace PF::Utils::LOG::zmlog
