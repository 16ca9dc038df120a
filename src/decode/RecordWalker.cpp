#include "decode/RecordWalker.h"

#include <algorithm>
#include <cstring>

namespace PF::Utils::LOG {
namespace {

// Before 2100-01-01 00:00:00 UTC.
constexpr std::int64_t kLatestTimeUs = 4102444800LL * 1000000;

}  // namespace

// A header is taken for a record only when the library could have written
// it: level 0-6 and no flag bit above the binary flag (random words pass
// 7 in 2^15), a type code 0-13 (14 in 2^32), a program name of at least one
// byte (zero-filled stretches fail here), a time stamp from 1970 to 2100
// (about 1 in 2^12: a controller whose clock was never set still logs in
// 1970) and no more than the writer's size limit. The names must also be
// printable ASCII, checked once their bytes are in. Random bytes pass less
// than once in 2^50 positions, so 10 MB of noise give no record; text never
// passes (its flags word has high bits set).
bool RecordWalker::PlausibleHeader(const LogHead& h) {
    if ((h.flags & ~(kBinaryFlag | 7U)) != 0 || (h.flags & 7U) > 6) return false;
    if (h.valueType > 13 || h.programLen == 0) return false;
    if (h.timeUs < 0 || h.timeUs >= kLatestTimeUs) return false;
    // Summed in 64 bits: a damaged contentLen near 2^32 must not wrap.
    const std::uint64_t body =
        std::uint64_t{h.functionLen} + h.programLen + h.tagLen + h.contentLen;
    return sizeof(LogHead) + body <= kMaxRecordLength;
}

bool RecordWalker::PlausibleName(std::string_view name) {
    // No early exit: the loop vectorises, and names are short.
    unsigned bad = 0;
    for (const char c : name)
        bad |= static_cast<unsigned>(static_cast<unsigned char>(c) - 0x20U > 0x7EU - 0x20U);
    return bad == 0;
}

char* RecordWalker::Reserve(std::size_t n) {
    if (buf_.size() - used_ < n) buf_.resize(used_ + n);
    return buf_.data() + used_;
}

void RecordWalker::Commit(std::size_t n, const Sink& sink) {
    used_ += n;
    Walk(false, sink);
}

void RecordWalker::Feed(const char* data, std::size_t n, const Sink& sink) {
    if (n == 0) return;
    std::memcpy(Reserve(n), data, n);
    Commit(n, sink);
}

void RecordWalker::Finish(const Sink& sink) {
    Walk(true, sink);
}

void RecordWalker::Walk(bool final, const Sink& sink) {
    char* const buf = buf_.data();
    std::size_t pos = 0;
    auto skipOne = [&] {
        ++pos;
        ++skipped_;
    };
    for (;;) {
        const std::size_t left = used_ - pos;
        if (left < sizeof(LogHead)) {
            if (final) {
                skipped_ += left;
                pos = used_;
            }
            break;
        }
        WalkedRecord r;
        std::memcpy(&r.head, buf + pos, sizeof r.head);
        if (!PlausibleHeader(r.head)) {
            skipOne();
            continue;
        }
        // The names (function, then program) are checked as far as they are
        // in, so that a damaged header claiming a long body is not waited for.
        const std::size_t names = std::size_t{r.head.functionLen} + r.head.programLen;
        const std::size_t namesIn = std::min(names, left - sizeof(LogHead));
        if (!PlausibleName(std::string_view(buf + pos + sizeof(LogHead), namesIn))) {
            skipOne();
            continue;
        }
        const std::size_t body = names + r.head.tagLen + r.head.contentLen;
        if (body > left - sizeof(LogHead)) {
            if (!final) break;  // the rest comes with the next slice
            skipOne();
            continue;
        }
        r.offset = base_ + pos;
        r.size = static_cast<std::uint32_t>(sizeof(LogHead) + body);
        r.body = buf + pos + sizeof(LogHead);
        char* at = r.body;
        r.function = std::string_view(at, r.head.functionLen);
        at += r.head.functionLen;
        r.program = std::string_view(at, r.head.programLen);
        at += r.head.programLen;
        r.tag = std::string_view(at, r.head.tagLen);
        at += r.head.tagLen;
        r.content = std::string_view(at, r.head.contentLen);
        pos += r.size;
        ++records_;
        sink(r);
    }
    if (pos > 0) {
        std::memmove(buf, buf + pos, used_ - pos);
        used_ -= pos;
        base_ += pos;
    }
}

}  // namespace PF::Utils::LOG
