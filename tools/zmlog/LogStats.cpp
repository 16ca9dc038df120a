#include "LogStats.h"

#include <cstdio>

#include "JsonFormat.h"
#include "RecordFormatter.h"

namespace PF::Utils::LOG::zmlog {
namespace {

std::string LevelHeading(unsigned level) {
    std::string name;
    AppendLevelName(name, level);
    return name.empty() ? std::to_string(level) : name;
}

}  // namespace

void LogStats::Add(const WalkedRecord& r) {
    auto it = programs_.find(r.program);
    if (it == programs_.end()) it = programs_.emplace(std::string(r.program), Counts{}).first;
    ++it->second[r.head.flags & 7U];
    ++records_;
    LossCounts notice;
    if (AddLossNotice(r, notice)) {
        auto at = losses_.find(r.program);
        if (at == losses_.end()) at = losses_.emplace(std::string(r.program), LossCounts{}).first;
        for (std::size_t i = 0; i < notice.lost.size(); ++i) at->second.lost[i] += notice.lost[i];
        at->second.discardedBytes += notice.discardedBytes;
    }
    if (r.head.timeUs < firstUs_) firstUs_ = r.head.timeUs;
    if (r.head.timeUs > lastUs_) lastUs_ = r.head.timeUs;
}

void LogStats::Print(OutputSink& out, bool json, std::uint64_t damagedBytes) {
    Counts totals{};
    for (const auto& [name, counts] : programs_) {
        for (unsigned l = 0; l < 8; ++l) totals[l] += counts[l];
    }
    // Level 7 has no name and is shown only when it occurs.
    const unsigned levels = totals[7] != 0 ? 8 : 7;
    std::string& text = out.Text();

    if (json) {
        text += "{\"records\":" + std::to_string(records_);
        if (records_ != 0) {
            text += ",\"first\":\"";
            clock_.AppendIso(firstUs_, text);
            text += "\",\"last\":\"";
            clock_.AppendIso(lastUs_, text);
            text += "\",\"first_us\":" + std::to_string(firstUs_) +
                    ",\"last_us\":" + std::to_string(lastUs_);
        }
        text += ",\"damaged_bytes\":" + std::to_string(damagedBytes) + ",\"programs\":{";
        bool firstProgram = true;
        for (const auto& [name, counts] : programs_) {
            if (!firstProgram) text += ',';
            firstProgram = false;
            AppendJsonString(text, name);
            text += ":{";
            std::uint64_t total = 0;
            for (unsigned l = 0; l < levels; ++l) {
                AppendJsonString(text, LevelHeading(l));
                text += ':' + std::to_string(counts[l]) + ',';
                total += counts[l];
            }
            text += "\"total\":" + std::to_string(total) + '}';
        }
        text += "},\"losses\":{";
        firstProgram = true;
        for (const auto& [name, loss] : losses_) {
            if (!firstProgram) text += ',';
            firstProgram = false;
            AppendJsonString(text, name);
            text += ":{\"lock_busy\":" + std::to_string(loss.lost[0]) +
                    ",\"ring_full\":" + std::to_string(loss.lost[1]) +
                    ",\"too_long\":" + std::to_string(loss.lost[2]) +
                    ",\"rate_limited\":" + std::to_string(loss.lost[3]) +
                    ",\"total\":" + std::to_string(loss.Total()) +
                    ",\"bytes_discarded\":" + std::to_string(loss.discardedBytes) + '}';
        }
        text += "}}\n";
        return;
    }

    text += "records: " + std::to_string(records_) + '\n';
    text += "span: ";
    if (records_ == 0) {
        text += '-';
    } else {
        clock_.AppendPlain(firstUs_, text);
        text += " .. ";
        clock_.AppendPlain(lastUs_, text);
    }
    text += "\ndamaged bytes skipped: " + std::to_string(damagedBytes) + '\n';

    std::size_t nameWidth = 7;  // "program"
    for (const auto& entry : programs_) nameWidth = std::max(nameWidth, entry.first.size());
    auto row = [&](const std::string& name, const Counts& counts) {
        text += name;
        text.append(nameWidth - name.size(), ' ');
        std::uint64_t total = 0;
        for (unsigned l = 0; l < levels; ++l) {
            const std::string cell = std::to_string(counts[l]);
            const std::size_t width = std::max<std::size_t>(LevelHeading(l).size(), 5);
            text.append(2 + width - std::min(width, cell.size()), ' ').append(cell);
            total += counts[l];
        }
        const std::string cell = std::to_string(total);
        text.append(2 + 8 - std::min<std::size_t>(8, cell.size()), ' ').append(cell) += '\n';
    };
    text += "program";
    text.append(nameWidth - 7, ' ');
    for (unsigned l = 0; l < levels; ++l) {
        const std::string heading = LevelHeading(l);
        text.append(2 + std::max<std::size_t>(heading.size(), 5) - heading.size(), ' ') += heading;
    }
    text += "     total\n";
    for (const auto& [name, counts] : programs_) row(name, counts);
    if (programs_.size() > 1) row("all", totals);
    if (losses_.empty()) return;

    // What the processes reported lost, by cause: the log's own gaps.
    std::size_t width = 13;  // "records lost"
    for (const auto& entry : losses_) width = std::max(width, entry.first.size());
    const auto cell = [&](std::uint64_t value, std::size_t columns) {
        const std::string digits = std::to_string(value);
        text.append(columns > digits.size() ? columns - digits.size() : 1, ' ').append(digits);
    };
    text += "records lost";
    text.append(width - 12, ' ');
    text += "  lock busy  ring full  too long  rate limited     total  bytes discarded\n";
    for (const auto& [name, loss] : losses_) {
        text += name;
        text.append(width - name.size(), ' ');
        cell(loss.lost[0], 11);
        cell(loss.lost[1], 11);
        cell(loss.lost[2], 10);
        cell(loss.lost[3], 14);
        cell(loss.Total(), 10);
        cell(loss.discardedBytes, 17);
        text += '\n';
    }
}

}  // namespace PF::Utils::LOG::zmlog
