#include "support/StressVerifier.h"

#include <sstream>

#include "log/LogHead.h"
#include "support/StressStream.h"
#include "support/TestSupport.h"

namespace zmtest {

std::vector<WriterThreadReport> ParseWriterReport(const std::string& out) {
    std::vector<WriterThreadReport> reports;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream in(line);
        std::string word;
        unsigned thread = 0;
        WriterThreadReport r;
        if (!(in >> word) || word != "thread" || !(in >> thread)) continue;
        in >> word >> r.written >> word >> r.timeouts >> word >> r.maxUs >> word >> r.over2ms >>
            word;
        for (unsigned long s = 0; in >> s;) r.dropped.insert(s);
        if (reports.size() <= thread) reports.resize(thread + 1);
        reports[thread] = r;
    }
    return reports;
}

namespace {

void CheckRecord(const Record& r, const SizeRange& sizes, RolledSet& set) {
    unsigned p = 0;
    unsigned t = 0;
    unsigned long s = 0;
    if (r.tag != kStressTag || !ParseStressContent(r.content, p, t, s)) {
        ++set.otherRecords;
        return;
    }
    const std::string where =
        "record p" + std::to_string(p) + " t" + std::to_string(t) + " s" + std::to_string(s);
    const auto [minSize, maxSize] = sizes(p);
    if (r.content != StressContent(p, t, s, minSize, maxSize)) {
        set.faults.push_back(where + ": content differs");
    }
    if (r.function != kStressFunction || (r.head.flags & 7U) != PF::Utils::LOG::kInfo ||
        r.head.valueType != 0 || r.head.component != 0) {
        set.faults.push_back(where + ": header or function differs");
    }
    ArrivedStream& stream = set.streams[{p, t}];
    if (!stream.seqs.empty() && s <= stream.seqs.back()) {
        set.faults.push_back(where + " after s" + std::to_string(stream.seqs.back()));
    }
    stream.seqs.push_back(s);
    stream.timesUs.push_back(r.head.timeUs);
    stream.threadIds.insert(r.head.threadId);
    stream.programs.insert(r.program);
}

}  // namespace

RolledSet ReadRolledSet(const std::string& dataFile, const SizeRange& sizes) {
    RolledSet set;
    int oldest = 0;
    while (Exists(dataFile + "_" + std::to_string(oldest + 1))) ++oldest;
    for (int i = oldest; i >= 1; --i) set.files.push_back(dataFile + "_" + std::to_string(i));
    if (Exists(dataFile)) set.files.push_back(dataFile);

    for (const std::string& file : set.files) {
        const std::string bytes = Unscramble(ReadFile(file));
        size_t consumed = 0;
        const std::vector<Record> records = WalkRecords(bytes, &consumed);
        set.bytes += bytes.size();
        set.damagedBytes += bytes.size() - consumed;
        set.records += records.size();
        for (const Record& r : records) CheckRecord(r, sizes, set);
    }
    return set;
}

std::vector<unsigned long> MissingRecords(const RolledSet& set, unsigned p, unsigned t,
                                          unsigned long written) {
    std::vector<unsigned long> missing;
    const auto it = set.streams.find({p, t});
    const std::vector<unsigned long> none;
    const std::vector<unsigned long>& seqs = it == set.streams.end() ? none : it->second.seqs;
    size_t at = 0;
    for (unsigned long s = 0; s < written; ++s) {
        if (at < seqs.size() && seqs[at] == s) {
            ++at;
        } else {
            missing.push_back(s);
        }
    }
    return missing;
}

}  // namespace zmtest
