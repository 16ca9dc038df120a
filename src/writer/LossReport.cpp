#include "writer/LossReport.h"

#include <atomic>
#include <cstring>
#include <ctime>
#include <string>

#include "log/WriteLog.h"
#include "writer/LibraryNotice.h"
#include "writer/RecordGate.h"

namespace PF::Utils::LOG::detail {

thread_local unsigned long tUnwrittenRecords = 0;

namespace {

// Process-local, lock-free: counted on the loss path only.
std::atomic<unsigned long> gLost[static_cast<unsigned>(Loss::kCount)];
std::atomic<std::int64_t> gSinceUs{0};  // the first loss not yet reported; 0: none
std::atomic<bool> gPending{false};

// "14:02:11.532" in local time. The offset from UTC is the one of the
// library's load: no localtime() here, which takes a lock of the C library
// and may be called from a signal handler.
long gUtcOffsetS = [] {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    return localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0L;
}();

char* AppendClock(char* out, std::int64_t timeUs) {
    const std::int64_t local = timeUs / 1000 + gUtcOffsetS * 1000;
    const long ms = static_cast<long>(((local % 86400000) + 86400000) % 86400000);
    const long parts[] = {ms / 3600000, ms / 60000 % 60, ms / 1000 % 60};
    for (long part : parts) {
        *out++ = static_cast<char>('0' + part / 10);
        *out++ = static_cast<char>('0' + part % 10);
        *out++ = ':';
    }
    out[-1] = '.';
    for (long digit = 100; digit != 0; digit /= 10)
        *out++ = static_cast<char>('0' + ms % 1000 / digit % 10);
    return out;
}

char* Append(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

}  // namespace

void CountLoss(Loss cause, std::int64_t timeUs) {
    gLost[static_cast<unsigned>(cause)].fetch_add(1, std::memory_order_relaxed);
    ++tUnwrittenRecords;
    std::int64_t none = 0;
    gSinceUs.compare_exchange_strong(none, timeUs, std::memory_order_relaxed);
    gPending.store(true, std::memory_order_release);
    TakeSlowPath();
}

bool LossesPending() {
    return gPending.load(std::memory_order_acquire);
}

void ReportLosses(std::int64_t nowUs, long lockTimeoutNs) {
    RingHead* ring = RingHead::GetInstance();
    if (ring == nullptr || !gPending.exchange(false)) return;
    unsigned long lost[static_cast<unsigned>(Loss::kCount)];
    unsigned long total = 0;
    for (unsigned i = 0; i < static_cast<unsigned>(Loss::kCount); ++i) {
        lost[i] = gLost[i].load(std::memory_order_relaxed);
        total += lost[i];
    }
    const std::int64_t since = gSinceUs.load(std::memory_order_relaxed);
    char text[192];
    char* out = AppendNumber(Append(text, "lost "), total);
    const char* const causes[] = {" records: lock busy ", ", ring full ", ", too long ",
                                  ", rate limited "};
    for (unsigned i = 0; i < static_cast<unsigned>(Loss::kCount); ++i)
        out = AppendNumber(Append(out, causes[i]), lost[i]);
    out = AppendClock(Append(out, ", since "), since);
    const Notice notice{"ReportLosses", "zmlog", std::string_view(text, out - text), nowUs, kWarn};
    if (total == 0 || EnqueueNotice(ring, notice, lockTimeoutNs) == 0) {
        if (total != 0) gPending.store(true);  // the lock was busy: next time
        return;
    }
    // Only what this notice says is taken off; losses counted meanwhile stay.
    for (unsigned i = 0; i < static_cast<unsigned>(Loss::kCount); ++i)
        gLost[i].fetch_sub(lost[i], std::memory_order_relaxed);
    std::int64_t reported = since;
    gSinceUs.compare_exchange_strong(reported, 0, std::memory_order_relaxed);
    for (unsigned i = 0; i < static_cast<unsigned>(Loss::kCount); ++i) {
        if (gLost[i].load(std::memory_order_relaxed) != 0) {
            gPending.store(true);
            TakeSlowPath();
        }
    }
}

[[maybe_unused]] const bool gNotesRingEmptied = [] {
    RingHead::sOnEmptied = &NoteRingEmptied;
    return true;
}();

void NoteRingEmptied(RingHead* ring, unsigned discardedBytes) {
    const std::int64_t now = NowUs();
    EnqueueNoticeLocked(
        ring, {"GenerateEmptyLog", "", "ring buffer is full, call empty function", now, kWarn});
    char text[64];
    char* out = Append(AppendNumber(Append(text, "discarded "), discardedBytes),
                       " bytes of unread records");
    EnqueueNoticeLocked(
        ring, {"NoteRingEmptied", "zmlog", std::string_view(text, out - text), now, kWarn});
}

}  // namespace PF::Utils::LOG::detail
