// The cheap wall clock of the records (WriteLog.h, NowUs): an anchor pairs
// the processor's time-stamp counter with the system clock; a record's time
// is the anchor's time plus the counter's ticks since, scaled. The system
// clock is asked again when the anchor is 100 ms old, which also refines the
// scale and takes in any step or slew of the system clock within that time.
// Used only where the kernel itself keeps time by an invariant, synchronised
// counter ("tsc" as the clock source); anywhere else every record asks the
// system clock, as it always did.
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "log/WriteLog.h"

namespace PF::Utils::LOG::detail {

ClockAnchor gClockAnchors[2] = {};
unsigned gClockAnchor = 2;

namespace {

constexpr std::int64_t kAnchorEveryUs = 100000;
constexpr std::int64_t kFirstScaleAfterUs = 20000;
constexpr std::int64_t kLongestScaleUs = 10000000;     // its << 32 must fit in 64 bits
constexpr std::uint64_t kLongestPairingTicks = 10000;  // 2-10 us at 1-5 GHz

std::int64_t SystemUs() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

bool CounterKeepsTime() noexcept {
    char source[32] = {};
    if (FILE* f =
            std::fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "r")) {
        if (std::fgets(source, sizeof source, f) == nullptr) source[0] = '\0';
        std::fclose(f);
    }
    return std::strncmp(source, "tsc", 3) == 0 && (source[3] == '\n' || source[3] == '\0');
}

// Read at load: a file, which the first record (maybe in a signal handler)
// must not have to open.
const bool gCounterKeepsTime = CounterKeepsTime();
std::atomic<bool> gAnchoring{false};
std::uint64_t gFirstTsc = 0;  // the first pairing, for the first scale
std::int64_t gFirstUs = 0;

}  // namespace

std::int64_t SlowNowUs() noexcept {
    const std::uint64_t before = __builtin_ia32_rdtsc();
    const std::int64_t us = SystemUs();
    const std::uint64_t after = __builtin_ia32_rdtsc();
    // A pairing is as exact as the time between its two counter reads: a
    // thread preempted there would put every record of the next 100 ms off
    // by as long. A normal clock read takes a few hundred ticks.
    if (!gCounterKeepsTime || after - before > kLongestPairingTicks ||
        gAnchoring.exchange(true, std::memory_order_acquire))
        return us;
    const std::uint64_t tsc = before + (after - before) / 2;
    const unsigned which = __atomic_load_n(&gClockAnchor, __ATOMIC_ACQUIRE);
    std::uint64_t fromTsc = gFirstTsc;
    std::int64_t fromUs = gFirstUs;
    if (which < 2) {  // refined over the whole last anchor's span (only this thread writes it)
        fromTsc = gClockAnchors[which].tsc;
        fromUs = gClockAnchors[which].us;
    }
    const std::int64_t span = us - fromUs;
    if (fromTsc == 0 || tsc <= fromTsc || span <= 0 || span > kLongestScaleUs) {
        gFirstTsc = tsc;  // nothing to scale by (yet): pair anew
        gFirstUs = us;
    } else if (span >= kFirstScaleAfterUs) {
        ClockAnchor& next = gClockAnchors[which == 0 ? 1 : 0];
        const std::uint64_t usPerTick = (static_cast<std::uint64_t>(span) << 32) / (tsc - fromTsc);
        const unsigned seq = __atomic_load_n(&next.seq, __ATOMIC_RELAXED);
        __atomic_store_n(&next.seq, seq + 1, __ATOMIC_RELAXED);  // odd: being written
        __atomic_thread_fence(__ATOMIC_RELEASE);
        __atomic_store_n(&next.tsc, tsc, __ATOMIC_RELAXED);
        __atomic_store_n(&next.us, us, __ATOMIC_RELAXED);
        __atomic_store_n(&next.usPerTick, usPerTick, __ATOMIC_RELAXED);
        __atomic_store_n(
            &next.validTicks,
            usPerTick != 0 ? (static_cast<std::uint64_t>(kAnchorEveryUs) << 32) / usPerTick : 0,
            __ATOMIC_RELAXED);
        __atomic_store_n(&next.seq, seq + 2, __ATOMIC_RELEASE);
        __atomic_store_n(&gClockAnchor, which == 0 ? 1U : 0U, __ATOMIC_RELEASE);
    }
    gAnchoring.store(false, std::memory_order_release);
    return us;
}

}  // namespace PF::Utils::LOG::detail
