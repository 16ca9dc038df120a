#include "DamageReport.h"

namespace PF::Utils::LOG::zmlog {

std::string DamageReport::Text(const RecordSource& source) {
    const auto& files = source.Files();
    reported_.resize(files.size(), 0);
    std::uint64_t total = 0;
    std::vector<std::string> where;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::uint64_t n = files[i].damagedBytes - reported_[i];
        if (n == 0) continue;
        total += n;
        reported_[i] = files[i].damagedBytes;
        where.push_back(std::to_string(n) + " in " +
                        (files[i].path.empty() ? "the input" : files[i].path));
    }
    if (total == 0) return std::string();
    std::string text = "skipped " + std::to_string(total) + " damaged bytes ";
    if (where.size() == 1) {
        text += where[0].substr(where[0].find(" in ") + 1);
    } else {
        for (std::size_t i = 0; i < where.size(); ++i) text += (i == 0 ? "(" : ", ") + where[i];
        text += ')';
    }
    return text;
}

}  // namespace PF::Utils::LOG::zmlog
