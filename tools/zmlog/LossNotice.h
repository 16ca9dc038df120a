// The notices in which the library states the log's gaps: "lost N records:
// lock busy a, ring full b, too long c, rate limited d, since ..." (tag
// "zmlog", thread id 0), the ring-full notice and "discarded N bytes of
// unread records". zmlog counts them and makes them stand out.
#pragma once

#include <array>
#include <cstdint>

#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

struct LossCounts {
    std::array<std::uint64_t, 4> lost{};  // lock busy, ring full, too long, rate limited
    std::uint64_t discardedBytes = 0;
    std::uint64_t Total() const { return lost[0] + lost[1] + lost[2] + lost[3]; }
};

// Adds what r reports to counts; false when r is no such notice.
bool AddLossNotice(const WalkedRecord& r, LossCounts& counts);
// r marks a gap: a loss notice or the ring-full notice.
bool IsGapNotice(const WalkedRecord& r);

}  // namespace PF::Utils::LOG::zmlog
