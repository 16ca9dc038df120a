// Reading back what the stress tests wrote: the writers' own reports, and
// every stream record of the log checked byte for byte.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/Fixtures.h"

namespace zmtest {

// One "thread ..." line of the helper's stream step.
struct WriterThreadReport {
    unsigned long written = 0;
    unsigned long timeouts = 0;
    long long maxUs = 0;
    unsigned long over2ms = 0;
    std::set<unsigned long> dropped;  // records the lock deadline dropped
};
std::vector<WriterThreadReport> ParseWriterReport(const std::string& out);

// The records of one writer thread that arrived, in log order.
struct ArrivedStream {
    std::vector<unsigned long> seqs;
    std::vector<std::int64_t> timesUs;
    std::set<unsigned> threadIds;
    std::set<std::string> programs;
};

struct StreamCheck {
    std::map<std::pair<unsigned, unsigned>, ArrivedStream> streams;  // by (process, thread)
    std::vector<std::string> faults;  // wrong bytes, wrong fields, order broken
};

// Stream records must carry exactly the bytes StressContent gives for
// (p, t, s) with the sizes of p, and come in increasing s per thread.
using SizeRange = std::function<std::pair<unsigned, unsigned>(unsigned p)>;
StreamCheck CheckStreams(const DecodedLog& log, const SizeRange& sizes);

// The records of stream (p, t) among 0..written-1 that did not arrive.
std::vector<unsigned long> MissingRecords(const StreamCheck& check, unsigned p, unsigned t,
                                          unsigned long written);

}  // namespace zmtest
