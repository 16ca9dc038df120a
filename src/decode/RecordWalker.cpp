#include "decode/RecordWalker.h"

#include <cstring>

#include "log/Decode.h"

namespace PF::Utils::LOG {

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

bool RecordWalker::KnownProgram(std::string_view name) {
    for (const std::string& known : known_) {
        if (known == name) return true;
    }
    std::string text(name);
    if (gValidProgram.count(text) == 0) return false;
    if (known_.size() < kKnownCacheSize) known_.push_back(std::move(text));
    return true;
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
        if (!ProgramNameCheck(r.head)) {
            skipOne();
            continue;
        }
        // Summed in 64 bits: a damaged contentLen near 2^32 must not wrap
        // into a record that seems to fit.
        const std::uint64_t body = std::uint64_t{r.head.functionLen} + r.head.programLen +
                                   r.head.tagLen + r.head.contentLen;
        // No writer builds a longer record; refusing such claims at once also
        // bounds what a stream must hold while it waits for a record's end.
        if (sizeof(LogHead) + body > kMaxRecordLength) {
            skipOne();
            continue;
        }
        // The name is checked as soon as it is in, so that a damaged header
        // claiming a long body is not waited for.
        const std::size_t nameAt = pos + sizeof(LogHead) + r.head.functionLen;
        const bool nameIn = nameAt + r.head.programLen <= used_;
        if (nameIn && !KnownProgram(std::string_view(buf + nameAt, r.head.programLen))) {
            skipOne();
            continue;
        }
        if (body > left - sizeof(LogHead)) {
            if (!final) break;  // the rest comes with the next slice
            skipOne();
            continue;
        }
        r.offset = base_ + pos;
        r.body = buf + pos + sizeof(LogHead);
        char* at = r.body;
        r.function = std::string_view(at, r.head.functionLen);
        at += r.head.functionLen;
        r.program = std::string_view(at, r.head.programLen);
        at += r.head.programLen;
        r.tag = std::string_view(at, r.head.tagLen);
        at += r.head.tagLen;
        r.content = std::string_view(at, r.head.contentLen);
        pos += sizeof(LogHead) + body;
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
