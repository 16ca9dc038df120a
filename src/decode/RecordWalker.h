// Walks a stream of log records (the unscrambled bytes of "RUNTIME.data" and
// its rolled siblings, in any slicing) and yields them one by one in stream
// order. A record is found by its framing alone, whatever program wrote it:
// a header that the library could have written, lengths that fit, printable
// names. Damaged bytes are skipped one at a time and counted; a record cut at
// the end of a slice is held until the next slice completes it, so the result
// does not depend on how the stream is sliced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "log/LogHead.h"

namespace PF::Utils::LOG {

// One record found by RecordWalker. body and the views point into the
// walker's buffer and are valid only during the callback.
struct WalkedRecord {
    LogHead head;
    std::uint64_t offset;  // position of the header in the whole stream
    std::uint32_t size;    // header and body
    char* body;            // first body byte (the function name)
    std::string_view function;
    std::string_view program;
    std::string_view tag;
    std::string_view content;
};

class RecordWalker {
  public:
    using Sink = std::function<void(WalkedRecord&)>;

    // Room for n more bytes after the held tail, valid until the next call.
    char* Reserve(std::size_t n);
    // Walks the n bytes just written into the room Reserve() gave.
    void Commit(std::size_t n, const Sink& sink);
    void Feed(const char* data, std::size_t n, const Sink& sink);
    // End of the stream: what is still held is walked as if nothing followed,
    // so an incomplete record counts as damage.
    void Finish(const Sink& sink);

    std::uint64_t SkippedBytes() const { return skipped_; }
    std::uint64_t RecordCount() const { return records_; }
    std::size_t HeldBytes() const { return used_; }

    // The header could have been written by the library (see the .cpp).
    static bool PlausibleHeader(const LogHead& head);
    // Names are printable ASCII.
    static bool PlausibleName(std::string_view name);

  private:
    void Walk(bool final, const Sink& sink);

    std::vector<char> buf_;
    std::size_t used_ = 0;       // bytes of buf_ in use: the held tail, then new data
    std::uint64_t base_ = 0;     // stream offset of buf_[0]
    std::uint64_t skipped_ = 0;  // bytes that belong to no record
    std::uint64_t records_ = 0;
};

}  // namespace PF::Utils::LOG
