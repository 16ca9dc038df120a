// The printing pipeline of zmlog: records from the record source go through
// the filters and then to the formatter, the last-N buffer, the reversal or
// the statistics. Knows nothing of files, so the fuzz target drives it
// directly through Source().
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CrashFrames.h"
#include "LogStats.h"
#include "Options.h"
#include "OutputSink.h"
#include "RecordFilter.h"
#include "RecordFormatter.h"
#include "RecordSource.h"

namespace PF::Utils::LOG::zmlog {

class LogReader {
  public:
    LogReader(const Options& o, bool color, OutputSink& out);

    // Where the log's bytes go.
    RecordSource& Source() { return source_; }
    // The end of the existing records (after Source().EndOfStream() unless
    // following): the last N records, the reversed ones or the statistics
    // are printed. Records that arrive later are printed at once.
    void Finish();

  private:
    void OnRecord(WalkedRecord& r);

    CrashFrames frames_;
    RecordFilter filter_;
    RecordFormatter formatter_;
    OutputSink& out_;
    bool stats_;
    bool json_;
    LogStats statistics_;
    // -n and -r: records' texts held until Finish. With -n a ring of the
    // last N; -r alone keeps them all, one after the other in all_.
    bool hold_;
    bool reverse_;
    bool ring_;
    std::uint64_t limit_;
    std::vector<std::string> held_;
    std::size_t next_ = 0;  // with a full ring, its oldest entry
    std::string all_;
    std::vector<std::size_t> starts_;
    RecordSource source_;
};

}  // namespace PF::Utils::LOG::zmlog
