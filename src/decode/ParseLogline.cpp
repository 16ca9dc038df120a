#include <bitset>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "common/Immortal.h"
#include "log/Decode.h"

namespace PF::Utils::LOG {
namespace {

ZMLOG_IMMORTAL detail::Immortal<std::set<std::string>> sValidProgram(std::set<std::string>{
    "ZMRuntime", "Exec.Host", "ProbeLOG", "EngineEmulation", "CellEmulation", "ShellConsole",
    "emu_core", "BusBridge"});

// Lengths of the accepted names, rebuilt only when the list changed. The list
// only grows, so its size tells whether it changed.
std::bitset<65536> sNameLengths;
std::size_t sNameLengthsFor = static_cast<std::size_t>(-1);

void Say(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

void Say(const char* text, std::uint64_t pos) {
    std::printf("%s%" PRIu64 "\n", text, pos);
    std::fflush(stdout);
}

void ReadHead(LogHead& head, const char* at) {
    std::memcpy(&head, at, sizeof head);
}

// The four lengths are summed in 32 bits that wrap, as they always were: a
// damaged contentLen near 2^32 can pass. Callers validate lengths first.
bool Fits(const LogHead& head, std::uint64_t start, unsigned int len) {
    const std::uint32_t body = static_cast<std::uint32_t>(head.programLen) + head.functionLen +
                               head.tagLen + head.contentLen;
    return body + start + 32 <= len;
}

// Appends to lines[name], remembering the last vector: records of one
// program tend to come in runs, and map nodes never move.
class Sink {
  public:
    explicit Sink(LinesByProgram& lines) : lines_(lines) {}
    void Add(const std::string& name, std::string&& line) {
        if (last_ == nullptr || lastName_ != name) {
            last_ = &lines_[name];
            lastName_ = name;
        }
        last_->push_back(std::move(line));
    }

  private:
    LinesByProgram& lines_;
    std::vector<std::string>* last_ = nullptr;
    std::string lastName_;
};

}  // namespace

std::set<std::string>& gValidProgram = ZMLOG_IMMORTAL_OBJECT(std::set<std::string>, sValidProgram);

// Lengths only, on purpose: the name itself is compared once the body is cut out.
bool ProgramNameCheck(LogHead& head) {
    if (sNameLengthsFor != gValidProgram.size()) {
        sNameLengths.reset();
        for (const std::string& name : gValidProgram) sNameLengths.set(name.size() & 0xFFFF);
        sNameLengthsFor = gValidProgram.size();
    }
    return sNameLengths.test(head.programLen);
}

void AddVaildProgram(const std::string& name) {
    gValidProgram.insert(name);
}

std::uint64_t ParseLogline(LogHead& head, char* buf, unsigned int len, LinesByProgram& lines,
                           std::string program) {
    if (len == 0) return 0;
    if (!program.empty()) gValidProgram.insert(program);
    if (len <= 32) return 0;

    Sink sink(lines);
    std::string name;
    std::uint64_t pos = 0;
    bool damaged = false;
    for (;;) {
        ReadHead(head, buf + pos);
        while (!ProgramNameCheck(head) && pos + 33 <= len) {
            ++pos;
            ReadHead(head, buf + pos);
            damaged = true;
        }
        // With under 33 bytes left the header is tried even if the check failed.
        const std::uint64_t start = pos;
        if (!Fits(head, start, len)) {
            // An incomplete record counts as damage only by its lost bytes: the
            // flag is not set here.
            pos = start + 1;
        } else {
            unsigned long offset = start + 32;
            std::string line = ContructLogLine(head, buf, offset, name);
            pos = offset;
            if (gValidProgram.count(name) == 0) {
                pos = start + 1;
                damaged = true;
            } else {
                sink.Add(name, std::move(line));
            }
        }
        if (pos + 32 >= len) break;
    }
    if (damaged) Say("exist invalid bytes\n");
    return pos;
}

std::pair<std::uint64_t, bool> ParseLogline(LogHead& head, char* buf, unsigned int len,
                                            bool headerPending, LinesByProgram& lines,
                                            // cppcheck-suppress passedByValue ; exported signature
                                            std::string program) {
    if (len <= 32) return {0, headerPending};

    Sink sink(lines);
    std::string name;
    std::uint64_t pos = 0;
    if (headerPending) {
        // The caller supplies the whole body: no fit test for this record.
        unsigned long offset = 0;
        std::string line = ContructLogLine(head, buf, offset, name);
        pos = offset;
        if (gValidProgram.count(name) == 0) {
            Say("invalid Bytes", pos);
            pos = 0;
        } else if (program.empty() || program == name) {
            sink.Add(name, std::move(line));
        }
    }
    while (pos + 32 < len) {
        ReadHead(head, buf + pos);
        while (!ProgramNameCheck(head) && pos + 33 <= len) {
            ++pos;
            // "invalid Bytes " with a blank per skipped byte, and "invalid Bytes"
            // joined for a rejected record: two messages, kept distinct.
            Say("invalid Bytes ", pos);
            ReadHead(head, buf + pos);
        }
        const std::uint64_t start = pos;
        pos = start + 32;
        if (!Fits(head, start, len)) return {pos, true};
        unsigned long offset = pos;
        std::string line = ContructLogLine(head, buf, offset, name);
        pos = offset;
        if (gValidProgram.count(name) == 0) {
            Say("invalid Bytes", pos);
            pos = start + 1;
        } else if (program.empty() || program == name) {
            sink.Add(name, std::move(line));
        }
    }
    return {pos, false};
}

}  // namespace PF::Utils::LOG
