// Reading back what the stress tests wrote: the writers' own reports and
// the whole rolled set of RUNTIME.data, record by record.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zmtest {

// One line of a StressWriter's report.
struct WriterThreadReport {
    unsigned long written = 0;
    unsigned long timeouts = 0;
    long long maxUs = 0;
    unsigned long over2ms = 0;
    std::set<unsigned long> dropped;  // records the lock deadline dropped
};
// The per-thread lines of a StressWriter's stdout, in thread order.
std::vector<WriterThreadReport> ParseWriterReport(const std::string& out);

// The records of one writer thread that arrived, in file order.
struct ArrivedStream {
    std::vector<unsigned long> seqs;
    std::vector<std::int64_t> timesUs;
    std::set<unsigned> threadIds;
    std::set<std::string> programs;
};

struct RolledSet {
    std::vector<std::string> files;  // oldest first, the current file last
    std::uint64_t bytes = 0;
    std::uint64_t damagedBytes = 0;  // bytes of a file not covered by whole records
    std::uint64_t records = 0;
    std::uint64_t otherRecords = 0;  // not of the stress stream (notices)
    std::map<std::pair<unsigned, unsigned>, ArrivedStream> streams;  // by (process, thread)
    std::vector<std::string> faults;  // wrong bytes, wrong fields, order broken
};

// The content sizes writer process p was given.
using SizeRange = std::function<std::pair<unsigned, unsigned>(unsigned p)>;

// Unscrambles and walks every file of the set of dataFile. Stream records
// must carry exactly the bytes StressContent gives for (p, t, s) with the
// sizes of p, and come in increasing s per thread.
RolledSet ReadRolledSet(const std::string& dataFile, const SizeRange& sizes);

// The records of stream (p, t) among 0..written-1 that did not arrive.
std::vector<unsigned long> MissingRecords(const RolledSet& set, unsigned p, unsigned t,
                                          unsigned long written);

}  // namespace zmtest
