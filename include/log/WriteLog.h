// Write templates: WriteLog<T> builds one binary record on the stack and
// enqueues it into the ring in one piece; in a process without an
// installation it hands the record to the text path WriteLogNoBinary<T>.
// Filtering (ring present, active, level, component) is the caller's job;
// the logging macros do it before any argument is evaluated.
#pragma once

#include <alloca.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/Decode.h"
#include "log/LogHead.h"
#include "log/RingHead.h"

namespace PF::Utils::LOG {

// Builds the ring-full notice record (level WARN, thread id 0).
std::vector<char> GenerateEmptyLog();

namespace detail {

// Kernel thread id of the calling thread, fetched once per thread.
extern __thread unsigned int tCachedThreadId;
// The thread's first record: fetches and keeps its id (and gives the thread
// its signal stack when crash reports are on).
unsigned int RememberThreadId() noexcept;

inline unsigned int CurrentThreadId() noexcept {
    const unsigned int id = tCachedThreadId;
    return __builtin_expect(id != 0, 1) ? id : RememberThreadId();
}

// The system clock in microseconds since the epoch (its nanoseconds divided
// by 1000, truncated), read cheaply: where the system keeps its clock by the
// processor's invariant time-stamp counter, the library reads that counter
// itself and scales it by an anchor taken from the system clock at least
// every 100 ms (src/writer/WallClock.cpp), instead of calling into the vDSO
// for every record. Elsewhere, and until the first two anchors are taken,
// it asks the system clock.
// An anchor is rewritten while another is in use; a reader kept from running
// for longer than an anchor lives may meet it half written, which its
// sequence (odd while written, then one more) tells.
struct ClockAnchor {
    unsigned seq;
    std::uint64_t tsc;         // the counter at the anchor
    std::int64_t us;           // the system clock at the anchor
    std::uint64_t usPerTick;   // Q32 fixed point
    std::uint64_t validTicks;  // how long after the anchor it may be used
};
extern ClockAnchor gClockAnchors[2];
extern unsigned gClockAnchor;  // the anchor in use; 2: none yet (or no invariant counter)
std::int64_t SlowNowUs() noexcept;

inline std::int64_t NowUs() noexcept {
    const unsigned which = __atomic_load_n(&gClockAnchor, __ATOMIC_ACQUIRE);
    if (__builtin_expect(which < 2, 1)) {
        const ClockAnchor& a = gClockAnchors[which];
        const unsigned seq = __atomic_load_n(&a.seq, __ATOMIC_ACQUIRE);
        const std::uint64_t tsc = __atomic_load_n(&a.tsc, __ATOMIC_RELAXED);
        const std::int64_t us = __atomic_load_n(&a.us, __ATOMIC_RELAXED);
        const std::uint64_t usPerTick = __atomic_load_n(&a.usPerTick, __ATOMIC_RELAXED);
        const std::uint64_t validTicks = __atomic_load_n(&a.validTicks, __ATOMIC_RELAXED);
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
        const std::uint64_t ticks = __builtin_ia32_rdtsc() - tsc;
        if (__builtin_expect(ticks < validTicks && (seq & 1) == 0 &&
                                 __atomic_load_n(&a.seq, __ATOMIC_RELAXED) == seq,
                             1))
            return us + static_cast<std::int64_t>((ticks * usPerTick) >> 32);
    }
    return SlowNowUs();
}

// Why a record was not written; each is counted per process and reported
// in the log (see src/writer/LossReport.cpp).
enum class Loss : unsigned { kLockBusy, kRingFull, kTooLong, kRateLimited, kCount };
// Counted on the loss path only.
void CountLoss(Loss cause, std::int64_t timeUs);
// Records of the calling thread that were not written, for tests.
extern thread_local unsigned long tUnwrittenRecords;

// From this time (microseconds since the epoch, like a record's time stamp)
// records take the slow path of RecordGate.cpp: a writer's look whether the
// runtime it attached to was replaced (every 100 ms), a loss to report, a
// process-wide rate limit (every record, while one is set). INT64_MAX: never,
// so a normal record pays one compare.
extern std::int64_t gSlowPathFromUs;
// The slow path; false when the record is not to be written (rate limited,
// and counted).
bool PassGate(std::int64_t timeUs);
// A record of time timeUs did not get in: true when the runtime was replaced
// meanwhile and the writer now writes to the new one, where the record then
// waits for the new ring to be ready (at most kRestartWaitNs, once per
// restart) rather than being lost.
bool FollowedNewRuntime(std::int64_t timeUs);
constexpr long kRestartWaitNs = 20000000;

inline bool GatePasses(std::int64_t timeUs) {
    return __builtin_expect(timeUs < __atomic_load_n(&gSlowPathFromUs, __ATOMIC_RELAXED), 1) ||
           PassGate(timeUs);
}

// The header and the three names, in record order; returns where the
// content goes. The lengths are the header's.
inline char* PutHeadAndNames(char* record, const LogHead& head, const char* function,
                             const char* program, const char* tag) {
    std::memcpy(record, &head, sizeof head);
    char* out = record + sizeof head;
    std::memcpy(out, function, head.functionLen);
    out += head.functionLen;
    std::memcpy(out, program, head.programLen);
    out += head.programLen;
    std::memcpy(out, tag, head.tagLen);
    return out + head.tagLen;
}

// Hands a finished record to the ring.
inline void Submit(char* record, unsigned total, std::int64_t timeUs) {
    if (!GatePasses(timeUs)) return;
    RingHead* ring = RingHead::GetInstance();
    if (ring == nullptr) return;
    if (__builtin_expect(ring->EnqueueWithin(record, total, kLockTimeoutNs) == 0, 0)) {
        RingHead* again = FollowedNewRuntime(timeUs) ? RingHead::GetInstance() : nullptr;
        if (again == nullptr || again->EnqueueWithin(record, total, kRestartWaitNs) == 0)
            CountLoss(Loss::kLockBusy, timeUs);
    }
}

// A null pointer is logged as empty text instead of crashing the caller.
inline const char* OrEmpty(const char* s) noexcept {
    return s != nullptr ? s : "";
}

template <class T>
constexpr bool kIsText =
    std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view> ||
    std::is_same_v<std::remove_cv_t<std::remove_pointer_t<std::decay_t<T>>>, char>;

// First byte of a content of type T.
template <class T>
const char* ContentBytes(const T& content) noexcept {
    using D = std::decay_t<T>;
    if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>) {
        return content.data();
    } else if constexpr (std::is_pointer_v<D>) {
        const void* bytes = content;  // arrays decay here too
        return bytes != nullptr ? static_cast<const char*>(bytes) : "";
    } else {
        return static_cast<const char*>(static_cast<const void*>(&content));
    }
}

// Length of a text content: up to its first NUL, as strlen() counts.
template <class T>
unsigned int TextLength(const T& content) noexcept {
    if constexpr (std::is_same_v<T, std::string>) {
        return static_cast<unsigned int>(std::strlen(content.c_str()));
    } else if constexpr (std::is_same_v<T, std::string_view>) {
        const void* nul = std::memchr(content.data(), 0, content.size());
        return static_cast<unsigned int>(
            nul != nullptr ? static_cast<const char*>(nul) - content.data() : content.size());
    } else if constexpr (std::is_arithmetic_v<T>) {
        return sizeof(T);
    } else {
        return static_cast<unsigned int>(std::strlen(ContentBytes(content)));
    }
}

}  // namespace detail

// Text path of a process without an installation: renders the record as a
// line at once, enqueues the line into the private ring and echoes it to
// stdout when "console" is on. program and component are not used.
template <class T>
void WriteLogNoBinary(const char* tag, const T& content, unsigned char level, const char* function,
                      unsigned int length, unsigned int binary, unsigned long component,
                      // cppcheck-suppress passedByValue ; exported signature
                      std::string program) {
    (void)component;
    (void)program;
    LogHead head{};
    head.flags = static_cast<std::uint16_t>((binary << 3) | level);
    head.contentLen = binary == 1 ? length : detail::TextLength(content);
    head.threadId = detail::CurrentThreadId();
    head.timeUs = detail::NowUs();
    if (!detail::GatePasses(head.timeUs)) return;

    std::string functionText(detail::OrEmpty(function));
    std::string tagText(detail::OrEmpty(tag));
    std::string contentText;
    if (binary == 0) {
        std::ostringstream stream;
        if constexpr (std::is_pointer_v<std::decay_t<T>> && detail::kIsText<T>) {
            stream << detail::ContentBytes(content);
        } else {
            stream << content;
        }
        contentText = stream.str();
    } else {
        contentText = ParseLogContent(
            head.flags, 0, const_cast<char*>(detail::ContentBytes(content)), head.contentLen);
    }

    std::string line = gParseLogFunction(head, functionText, tagText, contentText);
    line.push_back('\n');
    if (line.size() > kMaxRecordLength)
        return detail::CountLoss(detail::Loss::kTooLong, head.timeUs);
    if (RingHead* ring = RingHead::GetInstance()) {
        ring->EnqueueWithin(line.data(), static_cast<unsigned>(line.size()), kLockTimeoutNs);
    }
    OutputConsole(line);
}

// Writes one record of content (text, raw bytes when binary is 1, or one
// arithmetic value stored as its sizeof(T) bytes with its type code). Silent:
// no ring, a record over 1 MiB, a lock not had within 1 ms all drop it. The
// record is built in a stack buffer of its exact size, so a thread that logs
// records near 1 MiB needs that much stack.
template <class T>
void WriteLog(const char* tag, const T& content, unsigned char level, const char* function,
              unsigned int length, unsigned int binary, unsigned long component,
              // cppcheck-suppress passedByValue ; exported signature
              std::string program) {
    if (binary == 1 && length == 0) return;
    if (ConfManager::outputMode) {
        // The caller's program name is dropped on the text path on purpose.
        WriteLogNoBinary<T>(tag, content, level, function, length, binary, component,
                            std::string());
        return;
    }
    const char* programName = program.empty() ? program_invocation_short_name : program.c_str();
    function = detail::OrEmpty(function);
    tag = detail::OrEmpty(tag);

    const auto functionLen = static_cast<std::uint16_t>(std::strlen(function));
    const auto programLen = static_cast<std::uint16_t>(std::strlen(programName));
    const auto tagLen = static_cast<std::uint16_t>(std::strlen(tag));
    const unsigned int threadId = detail::CurrentThreadId();
    std::uint32_t valueType = 0;
    if constexpr (std::is_arithmetic_v<T>) {
        length = sizeof(T);
        valueType = static_cast<std::uint32_t>(TypeToNumber<T>());
    } else {
        if (binary == 0) length = detail::TextLength(content);
    }
    const std::int64_t timeUs = detail::NowUs();

    // 32-bit sum on purpose: callers keep binary lengths small.
    const std::uint32_t total = 32U + functionLen + programLen + tagLen + length;
    if (__builtin_expect(total > kMaxRecordLength, 0))
        return detail::CountLoss(detail::Loss::kTooLong, timeUs);

    // cppcheck-suppress allocaCalled ; the record lives on the stack by design
    auto* record = static_cast<char*>(alloca(total));
    LogHead head;
    head.flags = static_cast<std::uint16_t>((binary << 3) | level);
    head.programLen = programLen;
    head.functionLen = functionLen;
    head.tagLen = tagLen;
    head.contentLen = length;
    head.valueType = valueType;
    head.threadId = threadId;
    head.component = static_cast<std::uint32_t>(component);
    head.timeUs = timeUs;
    char* out = detail::PutHeadAndNames(record, head, function, programName, tag);
    std::memcpy(out, detail::ContentBytes(content), length);
    detail::Submit(record, total, timeUs);
}

}  // namespace PF::Utils::LOG
