// Records the library writes about itself: thread id 0, the process's own
// name, tag and content of its choosing. Built on the stack, no heap on the
// binary path: they are written where losses and repairs happen.
#pragma once

#include <cstdint>
#include <string_view>

namespace PF::Utils::LOG {

class RingHead;

namespace detail {

struct Notice {
    const char* function;
    std::string_view tag;
    std::string_view content;
    std::int64_t timeUs;
    unsigned char level;    // kWarn, mostly
    unsigned threadId = 0;  // 0: the library's own; a crash report names the thread
};

// Into ring, taking its lock within lockTimeoutNs; 0 when it was not had.
unsigned EnqueueNotice(RingHead* ring, const Notice& notice, long lockTimeoutNs);
// The same, with the ring's lock (or a private ring's mutex) held already.
void EnqueueNoticeLocked(RingHead* ring, const Notice& notice);

// Appends decimal digits of value at out (async-signal-safe, unlike printf).
char* AppendNumber(char* out, unsigned long value);

}  // namespace detail
}  // namespace PF::Utils::LOG
