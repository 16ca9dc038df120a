// Builds a stream of log records from the fuzz input and parses it with both
// forms of ParseLogline and with RecordWalker.
//
// Input: one byte for the slice length, one for the program arguments, then
// pieces until the input runs out, each an op byte followed by its fields:
//   0-3  well-formed record of a listed program
//   4    record of a program that is not listed (a listed name's length
//        with other letters, or another length)
//   5    junk: a length byte and that many bytes
//   6    well-formed record, then damaged: cut short, a byte overwritten or
//        a content length that claims more than is there
//   7    header straight from the input, its lengths clamped to what is left
// A record's fields: name index, flags (2), type code, function, tag and
// content lengths (1, 1, 2; a typed value has its type's width), thread id
// (4), time (8), then the function, tag and content bytes. Lengths never
// exceed the bytes present.
//
// Checked: on a stream of well-formed records that zmlog's RecordWalker
// takes for plausible, the one-shot form finds what the walker finds in any
// slicing; the streaming form's program argument only drops lines; and a
// stream of well-formed records gives one line per record, the same in both
// forms.
#include <unistd.h>

#include <fcntl.h>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "decode/RecordWalker.h"
#include "log/Decode.h"
#include "log/LogHead.h"

using namespace PF::Utils::LOG;

namespace {

// The first eight are listed by the library; the ninth at start-up below.
const char* const kListed[] = {"ZMRuntime",       "Exec.Host",     "ProbeLOG",
                               "EngineEmulation", "CellEmulation", "ShellConsole",
                               "emu_core",        "BusBridge",     "FuzzPeerProgram7"};
const char* const kUnlisted[] = {"ZMRuntimX", "emu_cora", "BusBridgE", "Nobody", "", "ZMRuntime2"};
constexpr std::size_t kListedCount = sizeof kListed / sizeof kListed[0];
constexpr std::size_t kUnlistedCount = sizeof kUnlisted / sizeof kUnlisted[0];
constexpr std::size_t kWidth[14] = {0, 1, 1, 1, 1, 2, 2, 4, 4, 4, 8, 8, 8, 8};
// Any second but 0, whose calendar the cache holds as zeros until it moves.
constexpr unsigned long kCacheTimeUs = 1000000;

void Require(bool ok) {
    if (!ok) std::abort();
}

// Takes bytes from the front of the input; past its end, zeros and nothing.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
    std::size_t Left() const { return static_cast<std::size_t>(end_ - at_); }
    template <class T>
    T Take() {
        T value{};
        const std::size_t n = std::min(sizeof value, Left());
        std::memcpy(&value, at_, n);
        at_ += n;
        return value;
    }
    std::string Bytes(std::size_t n) {
        n = std::min(n, Left());
        std::string s(reinterpret_cast<const char*>(at_), n);
        at_ += n;
        return s;
    }

  private:
    const std::uint8_t* at_;
    const std::uint8_t* end_;
};

void Append(std::string& out, const LogHead& h, const std::string& body) {
    out.append(reinterpret_cast<const char*>(&h), sizeof h).append(body);
}

// One record of the given program with the fields from the input.
std::string Record(Input& in, const std::string& program) {
    LogHead h{};
    h.flags = in.Take<std::uint16_t>();
    h.valueType = in.Take<std::uint8_t>() % 16U;  // 14 and 15: no line
    const std::size_t functionLen = in.Take<std::uint8_t>();
    const std::size_t tagLen = in.Take<std::uint8_t>();
    const std::size_t contentLen = in.Take<std::uint16_t>();
    h.threadId = in.Take<std::uint32_t>();
    h.timeUs = in.Take<std::int64_t>();
    const std::string function = in.Bytes(functionLen);
    const std::string tag = in.Bytes(tagLen);
    std::string content;
    if ((h.flags & kBinaryFlag) == 0 && h.valueType >= 1 && h.valueType <= 13) {
        content = in.Bytes(kWidth[h.valueType]);
        content.resize(kWidth[h.valueType], '\0');
    } else {
        content = in.Bytes(contentLen);
    }
    h.programLen = static_cast<std::uint16_t>(program.size());
    h.functionLen = static_cast<std::uint16_t>(function.size());
    h.tagLen = static_cast<std::uint16_t>(tag.size());
    h.contentLen = static_cast<std::uint32_t>(content.size());
    std::string out;
    Append(out, h, function + program + tag + content);
    return out;
}

void Damage(Input& in, std::string& record) {
    const auto kind = in.Take<std::uint8_t>() % 3U;
    const std::size_t at = in.Take<std::uint16_t>() % record.size();
    const auto value = in.Take<std::uint8_t>();
    if (kind == 0) {
        record.resize(at);
    } else if (kind == 1) {
        record[at] = static_cast<char>(value);
    } else {
        std::uint32_t contentLen;
        std::memcpy(&contentLen, &record[8], 4);
        contentLen += 1U + value;
        std::memcpy(&record[8], &contentLen, 4);
    }
}

// A header from the input whose lengths are cut down to the bytes left.
std::string RawRecord(Input& in) {
    LogHead h = in.Take<LogHead>();
    std::size_t left = in.Left();
    const auto clamp = [&left](auto& field) {
        field = static_cast<std::remove_reference_t<decltype(field)>>(field % (left + 1));
        left -= field;
    };
    clamp(h.functionLen);
    clamp(h.programLen);
    clamp(h.tagLen);
    clamp(h.contentLen);
    const std::size_t body = std::size_t{h.functionLen} + h.programLen + h.tagLen + h.contentLen;
    std::string out;
    Append(out, h, in.Bytes(body));
    return out;
}

struct Stream {
    std::vector<char> bytes;
    bool wellFormed = true;
    bool plausible = true;  // every header passes the walker's framing
    std::size_t records = 0;
};

bool Plausible(const std::string& record) {
    LogHead h;
    std::memcpy(&h, record.data(), sizeof h);
    return RecordWalker::PlausibleHeader(h) &&
           RecordWalker::PlausibleName(std::string_view(record).substr(
               sizeof h, std::size_t{h.functionLen} + h.programLen));
}

Stream Build(Input& in) {
    std::string s;
    Stream built;
    while (in.Left() > 0 && s.size() < 65536) {
        const auto op = in.Take<std::uint8_t>() % 8U;
        const auto pick = in.Take<std::uint8_t>();
        if (op <= 3) {
            const std::string record = Record(in, kListed[pick % kListedCount]);
            built.plausible = built.plausible && Plausible(record);
            s += record;
            ++built.records;
            continue;
        }
        built.wellFormed = false;
        if (op == 4) {
            s += Record(in, kUnlisted[pick % kUnlistedCount]);
        } else if (op == 5) {
            s += in.Bytes(pick);
        } else if (op == 6) {
            std::string record = Record(in, kListed[pick % kListedCount]);
            Damage(in, record);
            s += record;
        } else {
            s += RawRecord(in);
        }
    }
    // Both forms sum the lengths of a header in 32 bits that wrap: no window
    // a walker can land on may claim 2^32 bytes or more. Clearing the top
    // byte of its contentLen only lowers the sums of the other windows.
    for (std::size_t p = 0; p + sizeof(LogHead) <= s.size(); ++p) {
        LogHead h;
        std::memcpy(&h, &s[p], sizeof h);
        const std::uint64_t body =
            std::uint64_t{h.programLen} + h.functionLen + h.tagLen + h.contentLen;
        if (body >> 32 != 0) {
            s[p + 11] = 0;
            built.wellFormed = false;
        }
    }
    built.bytes.assign(s.begin(), s.end());  // exactly sized: reads past it are caught
    return built;
}

LinesByProgram OneShot(Stream& s, const std::string& program) {
    LinesByProgram lines;
    LogHead head{};
    Timestamp::ResetTime(kCacheTimeUs);
    const auto len = static_cast<unsigned>(s.bytes.size());
    const std::uint64_t end = ParseLogline(head, s.bytes.data(), len, lines, program);
    Require(end <= len);
    if (s.wellFormed && len > 0) Require(end == len);
    return lines;
}

LinesByProgram Walk(Stream& s, std::size_t slice) {
    LinesByProgram lines;
    Timestamp::ResetTime(kCacheTimeUs);
    RecordWalker walker;
    const RecordWalker::Sink sink = [&lines](WalkedRecord& r) {
        unsigned long offset = 0;
        std::string program;
        std::string line = ContructLogLine(r.head, r.body, offset, program);
        lines[program].push_back(std::move(line));
    };
    for (std::size_t at = 0; at < s.bytes.size(); at += slice) {
        walker.Feed(s.bytes.data() + at, std::min(slice, s.bytes.size() - at), sink);
    }
    walker.Finish(sink);
    return lines;
}

// Drives the streaming form in chunks as a log tool would: a pending header
// whose claimed body is not there was damage (resume one byte after its
// start); a body of 32 bytes or less cannot be handed over alone, so it is
// sent again with its header.
LinesByProgram Streamed(Stream& s, std::size_t chunk, const std::string& program) {
    LinesByProgram lines;
    LogHead head{};
    bool pending = false;
    std::size_t at = 0;
    std::size_t want = 0;
    char* const data = s.bytes.data();
    const std::size_t size = s.bytes.size();
    Timestamp::ResetTime(kCacheTimeUs);
    for (;;) {
        if (pending) {
            const std::uint64_t need =
                std::uint64_t{head.programLen} + head.functionLen + head.tagLen + head.contentLen;
            const std::size_t left = size - at;
            if (need > left) {
                at -= sizeof(LogHead) - 1;
                pending = false;
            } else if (left <= 32) {
                at -= sizeof(LogHead);
                want = sizeof(LogHead) + need;
                pending = false;
            } else {
                want = need;
            }
        }
        const std::size_t left = size - at;
        if (left <= 32) break;
        const std::size_t len = std::min(left, std::max({chunk, want, std::size_t{33}}));
        const auto [offset, more] =
            ParseLogline(head, data + at, static_cast<unsigned>(len), pending, lines, program);
        Require(offset <= len);
        at += offset;
        pending = more;
        want = 0;
    }
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The parsers' damage notices: flushed per skipped byte, read by nobody.
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0 || dup2(null, STDOUT_FILENO) < 0) std::abort();
    close(null);
    setenv("TZ", "UTC", 1);
    AddVaildProgram(kListed[kListedCount - 1]);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    const auto sliceByte = in.Take<std::uint8_t>();
    const auto programByte = in.Take<std::uint8_t>();
    Stream s = Build(in);

    // Passing a listed program to the one-shot form lists nothing new.
    const std::string listed = programByte & 0x80U ? kListed[programByte % kListedCount] : "";
    const LinesByProgram oneShot = OneShot(s, listed);
    if (s.wellFormed && s.plausible) Require(Walk(s, 1 + sliceByte) == oneShot);

    const std::size_t chunk = 33 + sliceByte * 3U;
    const LinesByProgram streamed = Streamed(s, chunk, "");
    const std::string program = programByte & 0x40U ? kUnlisted[programByte % kUnlistedCount]
                                                    : kListed[programByte % kListedCount];
    LinesByProgram only;
    const auto it = streamed.find(program);
    if (it != streamed.end()) only.insert(*it);
    // An empty program keeps everything.
    Require(Streamed(s, chunk, program) == (program.empty() ? streamed : only));

    if (s.wellFormed) {
        std::size_t count = 0;
        for (const auto& entry : oneShot) count += entry.second.size();
        Require(count == s.records);
        Require(streamed == oneShot);
    }
    return 0;
}
