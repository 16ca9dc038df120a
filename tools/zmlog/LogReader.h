// The reading pipeline of zmlog: unscrambled bytes go through the record
// walker, the filters and then to the formatter, the last-N buffer or the
// statistics. Knows nothing of files, so the fuzz target drives it directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "LogStats.h"
#include "Options.h"
#include "OutputSink.h"
#include "RecordFilter.h"
#include "RecordFormatter.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

class LogReader {
  public:
    LogReader(const Options& o, bool color, OutputSink& out);

    // Room for n bytes as they stand in the file (scrambled), then Commit
    // unscrambles and walks them.
    char* Reserve(std::size_t n) { return reserved_ = walker_.Reserve(n); }
    void Commit(std::size_t n);
    // Plain (unscrambled) bytes.
    void FeedPlain(const char* data, std::size_t n);

    // The end of the stream: an incomplete record held back counts as damage.
    void EndOfStream();
    // The end of the existing records (after EndOfStream unless following):
    // the last N records or the statistics are printed. Records that arrive
    // later are printed at once.
    void Finish();

    std::uint64_t SkippedBytes() const { return walker_.SkippedBytes(); }

  private:
    void OnRecord(WalkedRecord& r);

    RecordWalker walker_;
    char* reserved_ = nullptr;
    RecordWalker::Sink sink_;
    RecordFilter filter_;
    RecordFormatter formatter_;
    OutputSink& out_;
    bool stats_;
    bool json_;
    LogStats statistics_;
    // -n: the last N lines, as a ring while reading the existing records.
    bool keepLast_;
    std::uint64_t lastWanted_;
    std::vector<std::string> last_;
    std::size_t lastNext_ = 0;  // oldest entry once the ring is full
};

}  // namespace PF::Utils::LOG::zmlog
