#include "support/StressVerifier.h"

#include <sstream>

#include "support/StressStream.h"

namespace zmtest {

std::vector<WriterThreadReport> ParseWriterReport(const std::string& out) {
    std::vector<WriterThreadReport> reports;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
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

StreamCheck CheckStreams(const DecodedLog& log, const SizeRange& sizes) {
    StreamCheck check;
    for (const Record& r : log.records) {
        unsigned p = 0;
        unsigned t = 0;
        unsigned long s = 0;
        if (r.tag != kStressTag || !ParseStressContent(r.content, p, t, s)) continue;
        const std::string where =
            "record p" + std::to_string(p) + " t" + std::to_string(t) + " s" + std::to_string(s);
        const auto [minSize, maxSize] = sizes(p);
        if (r.content != StressContent(p, t, s, minSize, maxSize))
            check.faults.push_back(where + ": content differs");
        if (r.function != kStressFunction || r.head.flags != PF::Utils::LOG::kInfo ||
            r.head.valueType != 0 || r.head.component != 0)
            check.faults.push_back(where + ": header or function differs");
        ArrivedStream& stream = check.streams[{p, t}];
        if (!stream.seqs.empty() && s <= stream.seqs.back())
            check.faults.push_back(where + " after s" + std::to_string(stream.seqs.back()));
        stream.seqs.push_back(s);
        stream.timesUs.push_back(r.head.timeUs);
        stream.threadIds.insert(r.head.threadId);
        stream.programs.insert(r.program);
    }
    return check;
}

std::vector<unsigned long> MissingRecords(const StreamCheck& check, unsigned p, unsigned t,
                                          unsigned long written) {
    std::vector<unsigned long> missing;
    const auto it = check.streams.find({p, t});
    size_t at = 0;
    for (unsigned long s = 0; s < written; ++s) {
        if (it != check.streams.end() && at < it->second.seqs.size() && it->second.seqs[at] == s) {
            ++at;
        } else {
            missing.push_back(s);
        }
    }
    return missing;
}

}  // namespace zmtest
