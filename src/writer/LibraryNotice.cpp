#include "writer/LibraryNotice.h"

#include <alloca.h>

#include <charconv>
#include <cstring>
#include <string>

#include "log/Control.h"
#include "log/Decode.h"
#include "log/LogHead.h"
#include "log/RingHead.h"

namespace PF::Utils::LOG::detail {
namespace {

// A private ring holds text lines, not records: the notice as its line.
void EnqueueLine(RingHead* ring, const Notice& n, bool locked) {
    LogHead head{};
    head.flags = n.level;
    head.timeUs = n.timeUs;
    std::string function(n.function);
    std::string tag(n.tag);
    std::string content(n.content);
    std::string line = gParseLogFunction(head, function, tag, content) + "\n";
    if (locked) {
        ring->EnqueueImp(line.data(), static_cast<unsigned>(line.size()));
    } else {
        ring->Enqueue(line.data(), static_cast<unsigned>(line.size()));
    }
}

template <class Put>
unsigned Build(const Notice& n, Put put) {
    const char* program = program_invocation_short_name;
    LogHead head{};
    head.flags = n.level;
    head.functionLen = static_cast<std::uint16_t>(std::strlen(n.function));
    head.programLen = static_cast<std::uint16_t>(std::strlen(program));
    head.tagLen = static_cast<std::uint16_t>(n.tag.size());
    head.contentLen = static_cast<std::uint32_t>(n.content.size());
    head.threadId = n.threadId;
    head.timeUs = n.timeUs;
    const unsigned total =
        sizeof head + head.functionLen + head.programLen + head.tagLen + head.contentLen;
    // cppcheck-suppress allocaCalled ; never the heap on the binary path
    auto* record = static_cast<char*>(alloca(total));
    char* out = record;
    for (auto [bytes, size] : {std::pair<const void*, std::size_t>{&head, sizeof head},
                               {n.function, head.functionLen},
                               {program, head.programLen},
                               {n.tag.data(), head.tagLen},
                               {n.content.data(), head.contentLen}}) {
        std::memcpy(out, bytes, size);
        out += size;
    }
    return put(record, total);
}

}  // namespace

unsigned EnqueueNotice(RingHead* ring, const Notice& notice, long lockTimeoutNs) {
    if (IsUPEnvironment()) {
        EnqueueLine(ring, notice, false);
        return 1;
    }
    return Build(notice, [&](char* record, unsigned total) {
        return ring->EnqueueWithin(record, total, lockTimeoutNs);
    });
}

void EnqueueNoticeLocked(RingHead* ring, const Notice& notice) {
    if (IsUPEnvironment()) return EnqueueLine(ring, notice, true);
    Build(notice, [&](char* record, unsigned total) {
        ring->EnqueueImp(record, total);
        return total;
    });
}

char* AppendNumber(char* out, unsigned long value) {
    return std::to_chars(out, out + 24, value).ptr;
}

}  // namespace PF::Utils::LOG::detail
