// Logging macros: the way application code writes records.
//
// Every macro first applies the writer's filters, reading the ring header
// without a lock: a ring exists, logging is active, the header's level is at
// most the record's level and, for the component variants, the component word
// shares a bit with the header's component mask (component 0 always passes).
// Only then are the other arguments evaluated and the record written, so a
// filtered-out call costs a few loads and runs no argument expression except
// the level and the component word. The function name stored is the caller's
// (__func__). Decoded lines show the tag and the text joined without a
// separator ("net" and " link up" give "net link up").
//
// Family (LEVEL is TRACE, DEBUG, INFO, WARN, ERROR, FATAL or RECORD):
//   ZMLOG_LEVEL(tag, text)                  text
//   ZMLOG_LEVEL_F(tag, fmt, ...)            printf-style text
//   ZMLOG_LEVEL_C(component, tag, text)     text with a component word
//   ZMLOG_LEVEL_EVERY_N(n, tag, fmt, ...)   printf-style, every n-th call of
//                                           this call site only
//   ZMLOG_LEVEL_LIMIT(ms, tag, fmt, ...)    printf-style, at most one record
//                                           of this call site per ms
//   ZMLOG_LOG / ZMLOG_LOG_F / ZMLOG_LOG_C /
//   ZMLOG_LOG_EVERY_N / ZMLOG_LOG_LIMIT     the same with the level as argument
//   ZMLOG_BINARY(level, tag, data, len)     raw bytes, shown as a hex dump
//   ZMLOG_VALUE(level, tag, value)          one arithmetic value, rendered by
//                                           the decoder
// Text is a char array, const char*, std::string or std::string_view; it is
// stored up to its first NUL. Levels for the generic forms are
// PF::Utils::LOG::kTrace ... kRecord (0 to 6).
//
// In a signal handler: in a process attached to a runtime (the binary path)
// the macros are async-signal-safe, with no heap, no stdio and no lock but
// the ring's, given up after 1 ms: text, ZMLOG_VALUE, ZMLOG_BINARY, and the
// printf-style ones for the conversions the library's formatter takes (any
// other goes to snprintf, which is not safe). Not in a process with a
// private log, whose text path builds a std::string under a mutex; nor the
// record that finds the runtime restarted and attaches the writer anew.
#pragma once

#include <alloca.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "log/FormatArg.h"
#include "log/FormatPlan.h"
#include "log/LogHead.h"
#include "log/RingHead.h"
#include "log/WriteLog.h"

namespace PF::Utils::LOG::detail {

// The writer's filters, read without the lock: a stale value for one record
// while a switch changes is harmless.
inline bool LogEnabled(unsigned char level, unsigned long component) noexcept {
    const RingHead* ring = RingHead::GetInstance();
    if (ring == nullptr || ring->LoadActive() != 1 || ring->LoadLevel() > level) return false;
    return component == 0 || (ring->LoadComponentMask() & component) != 0;
}

// One overload per accepted text type keeps the instantiations few and
// rejects non-text arguments at compile time.
inline void WriteText(unsigned char level, unsigned long component, const char* tag,
                      const char* function, const char* text) {
    WriteLog<const char*>(tag, text, level, function, 0, 0, component, std::string());
}
inline void WriteText(unsigned char level, unsigned long component, const char* tag,
                      const char* function, const std::string& text) {
    WriteLog<std::string>(tag, text, level, function, 0, 0, component, std::string());
}
inline void WriteText(unsigned char level, unsigned long component, const char* tag,
                      const char* function, std::string_view text) {
    WriteLog<std::string_view>(tag, text, level, function, 0, 0, component, std::string());
}

// printf-style records: the arguments are taken typed (FormatArg), the text
// formatted straight into the record by the library's own formatter. A
// format it does not take (%n, %a, positional arguments, the L modifier)
// goes to the C library's snprintf instead, so nothing prints differently.
// False: the format was not taken, nothing was written.
bool WriteFormattedRecord(unsigned char level, unsigned long component, const char* tag,
                          const char* function, std::size_t functionLength, const char* fmt,
                          const FormatArg* args, std::size_t count, unsigned long suppressed);

// Formats into a 512-byte stack buffer; a longer text is formatted a second
// time into an alloca'd buffer of its exact size, cut to what a record can
// carry. Never touches the heap.
template <class... A>
void WriteFormattedByLibc(unsigned char level, unsigned long component, const char* tag,
                          const char* function, unsigned long suppressed, const char* fmt,
                          const A&... a) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    char small[512];
    const int needed = std::snprintf(small, sizeof small, fmt, a...);
    if (needed < 0) return;  // invalid conversion: nothing sensible to log
    const char* text = small;
    if (needed >= static_cast<int>(sizeof small)) {
        const std::size_t size =
            std::min<std::size_t>(static_cast<std::size_t>(needed) + 1, kMaxRecordLength);
        // cppcheck-suppress allocaCalled ; never the heap on the binary path
        auto* large = static_cast<char*>(alloca(size));
        std::snprintf(large, size, fmt, a...);
        text = large;
    }
#pragma GCC diagnostic pop
    const FormatArg args[] = {FormatArg(text)};
    WriteFormattedRecord(level, component, tag, function, std::strlen(OrEmpty(function)), "%s",
                         args, 1, suppressed);
}

template <class... A>
void WriteFormatted(unsigned char level, unsigned long component, const char* tag,
                    const char* function, std::size_t functionLength, unsigned long suppressed,
                    const char* fmt, const A&... a) {
    if (fmt == nullptr) return;
    const FormatArg args[sizeof...(A) + 1] = {FormatArg(a)...};
    if (!WriteFormattedRecord(level, component, tag, function, functionLength, fmt, args,
                              sizeof...(A), suppressed))
        WriteFormattedByLibc(level, component, tag, function, suppressed, fmt, a...);
}

// The length of this program's short name, measured once.
std::size_t ProgramNameLength() noexcept;

// Room after a formatted text for " (N suppressed)".
constexpr std::size_t kFormattedSuffixRoom = 40;

// Lays out header and names before the size bytes of text at record + fixed
// (fixed: the header and the three names; kFormattedSuffixRoom bytes free
// after the text) and writes the record. mayHoldNul: the text is cut at a
// NUL it may hold, as any text.
void WriteFormattedText(char* record, std::size_t fixed, std::size_t size, unsigned char level,
                        unsigned long component, const char* tag, std::size_t tagLength,
                        const char* function, std::size_t functionLength, unsigned long suppressed,
                        bool mayHoldNul);

// The macros' printf-style call. Literal: the format is a constant
// (format() returns it); its plan is then made at compile time and the text
// written straight into the record on the stack. A text too long for that
// buffer, a format the formatter does not take and any other format go the
// run-time way (WriteFormatted), which says the same.
template <bool Literal, class L, class... A>
void WriteFormattedAt(L format, unsigned char level, unsigned long component, const char* tag,
                      const char* function, std::size_t functionLength, unsigned long suppressed,
                      const char* fmt, const A&... a) {
    if constexpr (Literal) {
        // Header, names and text of a usual record; a longer one goes the
        // run-time way, which sizes its buffer to the text.
        char record[1024];
        constexpr bool mayHoldNul = PlanFormat(format).mayHoldNul;
        tag = OrEmpty(tag);
        const std::size_t tagLength = __builtin_strlen(tag);
        const std::size_t fixed =
            sizeof(LogHead) + functionLength + ProgramNameLength() + tagLength;
        if (fixed + kFormattedSuffixRoom < sizeof record) {
            const std::size_t room = sizeof record - kFormattedSuffixRoom - fixed;
            const long length = FormatPlanned(format, record + fixed, room, a...);
            if (length >= 0 && static_cast<std::size_t>(length) <= room) {
                WriteFormattedText(record, fixed, static_cast<std::size_t>(length), level,
                                   component, tag, tagLength, function, functionLength, suppressed,
                                   mayHoldNul);
                return;
            }
        }
    }
    WriteFormatted(level, component, tag, function, functionLength, suppressed, fmt, a...);
}

// The format of a macro's arguments, and whether it is a constant.
#define ZMLOG_FORMAT_(fmt, ...) fmt
#define ZMLOG_FORMATTED_(level, tag, suppressed, ...)                                         \
    ::PF::Utils::LOG::detail::WriteFormattedAt<__builtin_constant_p(ZMLOG_FORMAT_(            \
        __VA_ARGS__, 0))>([&] { return ZMLOG_FORMAT_(__VA_ARGS__, 0); }, (level), 0UL, (tag), \
                          __func__, __builtin_strlen(__func__), (suppressed), __VA_ARGS__)

// A call site that writes only some of its calls. One per macro expansion,
// a static with constant initialisation: no guard, no lock, no heap. Calls
// are counted once they pass the filters; a call passed over evaluates no
// argument after the format; each record written after calls were passed
// over ends in " (N suppressed)" with their number.
struct EveryNSite {
    std::atomic<unsigned long> calls{0};
};
struct LimitSite {
    std::atomic<std::int64_t> nextUs{INT64_MIN};
    std::atomic<unsigned long> suppressed{0};
};

// The 1st, (n+1)-th, (2n+1)-th ... call writes (n below 1 counts as 1).
inline bool TakeEveryN(EveryNSite& site, unsigned long n, unsigned long& suppressed) noexcept {
    if (n == 0) n = 1;
    const unsigned long call = site.calls.fetch_add(1, std::memory_order_relaxed);
    if (call % n != 0) return false;
    suppressed = call == 0 ? 0 : n - 1;
    return true;
}

// A call writes when the site's interval since its last record has passed,
// or when the system clock was set back by more than an interval (the site
// would otherwise stay silent until the clock caught up).
inline bool TakeLimit(LimitSite& site, long ms, unsigned long& suppressed) noexcept {
    const std::int64_t intervalUs = ms > 0 ? static_cast<std::int64_t>(ms) * 1000 : 0;
    const std::int64_t now = NowUs();
    std::int64_t next = site.nextUs.load(std::memory_order_relaxed);
    const bool due = now >= next || next - now > intervalUs;
    if (!due ||
        !site.nextUs.compare_exchange_strong(next, now + intervalUs, std::memory_order_relaxed)) {
        site.suppressed.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    suppressed = site.suppressed.exchange(0, std::memory_order_relaxed);
    return true;
}

// Only there for the compiler's check of a printf-style call; never called.
__attribute__((format(printf, 1, 2))) inline void CheckFormat(const char*, ...) {}

inline void WriteBytes(unsigned char level, const char* tag, const char* function, const void* data,
                       unsigned int length) {
    WriteLog<const void*>(tag, data, level, function, length, 1, 0, std::string());
}

// By value: arithmetic values are small, and bit-fields are accepted too.
template <class T>
void WriteValue(unsigned char level, const char* tag, const char* function, T value) {
    static_assert(std::is_arithmetic_v<T>, "ZMLOG_VALUE takes one arithmetic value");
    WriteLog<T>(tag, value, level, function, sizeof(T), 0, 0, std::string());
}

}  // namespace PF::Utils::LOG::detail

// Common shape: the level and component are evaluated once, for the filter
// (they are the only arguments evaluated for a filtered-out call); body runs
// only when the record passes. The branch is marked unlikely to keep the
// filtered-out path short: a written record costs far more than a
// mispredicted branch.
#define ZMLOG_IF_ENABLED_(level, component, body)                                     \
    do {                                                                              \
        const unsigned char zmlogLevel_ = static_cast<unsigned char>(level);          \
        if (__builtin_expect(::PF::Utils::LOG::detail::LogEnabled(                    \
                                 zmlogLevel_, static_cast<unsigned long>(component)), \
                             0)) {                                                    \
            body;                                                                     \
        }                                                                             \
    } while (0)

// Text at a given level.
// Example: ZMLOG_LOG(PF::Utils::LOG::kWarn, "io", "input card missing");
#define ZMLOG_LOG(level, tag, text) \
    ZMLOG_IF_ENABLED_(              \
        level, 0UL,                 \
        ::PF::Utils::LOG::detail::WriteText(zmlogLevel_, 0UL, (tag), __func__, (text)))

// printf-style text at a given level; the format is checked by the compiler
// (the call in the branch never taken). Async-signal-safe on the binary path
// for the formats the library's formatter takes (see WriteFormatted).
// Example: ZMLOG_LOG_F(PF::Utils::LOG::kInfo, "io", "card %d online", slot);
#define ZMLOG_LOG_F(level, tag, ...)                                   \
    ZMLOG_IF_ENABLED_(level, 0UL, {                                    \
        if (false) ::PF::Utils::LOG::detail::CheckFormat(__VA_ARGS__); \
        ZMLOG_FORMATTED_(zmlogLevel_, (tag), 0UL, __VA_ARGS__);        \
    })

// printf-style text from a call site that writes only its 1st, (n+1)-th,
// (2n+1)-th ... call; n is read on every call.
// Example: ZMLOG_LOG_EVERY_N(PF::Utils::LOG::kDebug, 1000, "sched", "cycle %lu", cycle);
#define ZMLOG_LOG_EVERY_N(level, n, tag, ...)                                               \
    ZMLOG_IF_ENABLED_(level, 0UL, {                                                         \
        if (false) ::PF::Utils::LOG::detail::CheckFormat(__VA_ARGS__);                      \
        static ::PF::Utils::LOG::detail::EveryNSite zmlogSite_;                             \
        unsigned long zmlogSuppressed_ = 0;                                                 \
        if (::PF::Utils::LOG::detail::TakeEveryN(zmlogSite_, static_cast<unsigned long>(n), \
                                                 zmlogSuppressed_))                         \
            ZMLOG_FORMATTED_(zmlogLevel_, (tag), zmlogSuppressed_, __VA_ARGS__);            \
    })

// printf-style text from a call site that writes at most one record per
// interval of ms milliseconds (record time); the calls in between are
// passed over and counted.
// Example: ZMLOG_LOG_LIMIT(PF::Utils::LOG::kWarn, 1000, "io", "card %d not answering", slot);
#define ZMLOG_LOG_LIMIT(level, ms, tag, ...)                                       \
    ZMLOG_IF_ENABLED_(level, 0UL, {                                                \
        if (false) ::PF::Utils::LOG::detail::CheckFormat(__VA_ARGS__);             \
        static ::PF::Utils::LOG::detail::LimitSite zmlogSite_;                     \
        unsigned long zmlogSuppressed_ = 0;                                        \
        if (::PF::Utils::LOG::detail::TakeLimit(zmlogSite_, static_cast<long>(ms), \
                                                zmlogSuppressed_))                 \
            ZMLOG_FORMATTED_(zmlogLevel_, (tag), zmlogSuppressed_, __VA_ARGS__);   \
    })

// Text with a 64-bit component word: PF bits 0-15, RT 16-31, HC 32-47, HW 48-63.
// It is written only when the word shares a bit with the configured mask;
// the record keeps the word's low 32 bits.
// Example: ZMLOG_LOG_C(PF::Utils::LOG::kDebug, 0x1UL << 16, "rt", "task switch");
#define ZMLOG_LOG_C(level, component, tag, text)                                                   \
    do {                                                                                           \
        const unsigned long zmlogComponent_ = static_cast<unsigned long>(component);               \
        ZMLOG_IF_ENABLED_(level, zmlogComponent_,                                                  \
                          ::PF::Utils::LOG::detail::WriteText(zmlogLevel_, zmlogComponent_, (tag), \
                                                              __func__, (text)));                  \
    } while (0)

// Raw bytes (any object pointer and a byte count), shown as a hex dump;
// embedded NULs are kept. A length of 0 writes nothing.
// Example: ZMLOG_BINARY(PF::Utils::LOG::kDebug, "rx", frame.data(), frame.size());
#define ZMLOG_BINARY(level, tag, data, len)                                                \
    ZMLOG_IF_ENABLED_(level, 0UL,                                                          \
                      ::PF::Utils::LOG::detail::WriteBytes(zmlogLevel_, (tag), __func__,   \
                                                           static_cast<const void*>(data), \
                                                           static_cast<unsigned int>(len)))

// One arithmetic value (bool, the char types, short, int, long, long long,
// their unsigned forms except unsigned long long, float, double), stored as
// its own bytes with its type code: nothing is formatted on the hot path.
// Example: ZMLOG_VALUE(PF::Utils::LOG::kInfo, "cycleUs", cycleTime);
#define ZMLOG_VALUE(level, tag, value) \
    ZMLOG_IF_ENABLED_(level, 0UL,      \
                      ::PF::Utils::LOG::detail::WriteValue(zmlogLevel_, (tag), __func__, (value)))

// Per-level text. Examples:
//   ZMLOG_TRACE("sched", "tick");
//   ZMLOG_DEBUG("io", "inputs read");
//   ZMLOG_INFO("net", "link up");
//   ZMLOG_WARN("io", "input card missing");
//   ZMLOG_ERROR("plc", "task overrun");
//   ZMLOG_FATAL("plc", "watchdog expired");
//   ZMLOG_RECORD("audit", "program downloaded");
#define ZMLOG_TRACE(tag, text) ZMLOG_LOG(::PF::Utils::LOG::kTrace, tag, text)
#define ZMLOG_DEBUG(tag, text) ZMLOG_LOG(::PF::Utils::LOG::kDebug, tag, text)
#define ZMLOG_INFO(tag, text) ZMLOG_LOG(::PF::Utils::LOG::kInfo, tag, text)
#define ZMLOG_WARN(tag, text) ZMLOG_LOG(::PF::Utils::LOG::kWarn, tag, text)
#define ZMLOG_ERROR(tag, text) ZMLOG_LOG(::PF::Utils::LOG::kError, tag, text)
#define ZMLOG_FATAL(tag, text) ZMLOG_LOG(::PF::Utils::LOG::kFatal, tag, text)
#define ZMLOG_RECORD(tag, text) ZMLOG_LOG(::PF::Utils::LOG::kRecord, tag, text)

// Per-level printf-style text. Examples:
//   ZMLOG_TRACE_F("sched", "tick %lu", tick);
//   ZMLOG_DEBUG_F("io", "%d inputs read", count);
//   ZMLOG_INFO_F("net", "link %s up", name);
//   ZMLOG_WARN_F("axis", "axis %d lag %.3f mm", axis, lag);
//   ZMLOG_ERROR_F("plc", "task %s overran by %d us", task, late);
//   ZMLOG_FATAL_F("plc", "watchdog expired after %d ms", ms);
//   ZMLOG_RECORD_F("audit", "program %s downloaded by %s", program, user);
#define ZMLOG_TRACE_F(tag, ...) ZMLOG_LOG_F(::PF::Utils::LOG::kTrace, tag, __VA_ARGS__)
#define ZMLOG_DEBUG_F(tag, ...) ZMLOG_LOG_F(::PF::Utils::LOG::kDebug, tag, __VA_ARGS__)
#define ZMLOG_INFO_F(tag, ...) ZMLOG_LOG_F(::PF::Utils::LOG::kInfo, tag, __VA_ARGS__)
#define ZMLOG_WARN_F(tag, ...) ZMLOG_LOG_F(::PF::Utils::LOG::kWarn, tag, __VA_ARGS__)
#define ZMLOG_ERROR_F(tag, ...) ZMLOG_LOG_F(::PF::Utils::LOG::kError, tag, __VA_ARGS__)
#define ZMLOG_FATAL_F(tag, ...) ZMLOG_LOG_F(::PF::Utils::LOG::kFatal, tag, __VA_ARGS__)
#define ZMLOG_RECORD_F(tag, ...) ZMLOG_LOG_F(::PF::Utils::LOG::kRecord, tag, __VA_ARGS__)

// Per-level printf-style text from call sites that write only some calls.
// Examples:
//   ZMLOG_DEBUG_EVERY_N(1000, "sched", "cycle %lu took %d us", cycle, us);
//   ZMLOG_WARN_LIMIT(1000, "io", "card %d not answering", slot);
#define ZMLOG_TRACE_EVERY_N(n, tag, ...) \
    ZMLOG_LOG_EVERY_N(::PF::Utils::LOG::kTrace, n, tag, __VA_ARGS__)
#define ZMLOG_DEBUG_EVERY_N(n, tag, ...) \
    ZMLOG_LOG_EVERY_N(::PF::Utils::LOG::kDebug, n, tag, __VA_ARGS__)
#define ZMLOG_INFO_EVERY_N(n, tag, ...) \
    ZMLOG_LOG_EVERY_N(::PF::Utils::LOG::kInfo, n, tag, __VA_ARGS__)
#define ZMLOG_WARN_EVERY_N(n, tag, ...) \
    ZMLOG_LOG_EVERY_N(::PF::Utils::LOG::kWarn, n, tag, __VA_ARGS__)
#define ZMLOG_ERROR_EVERY_N(n, tag, ...) \
    ZMLOG_LOG_EVERY_N(::PF::Utils::LOG::kError, n, tag, __VA_ARGS__)
#define ZMLOG_FATAL_EVERY_N(n, tag, ...) \
    ZMLOG_LOG_EVERY_N(::PF::Utils::LOG::kFatal, n, tag, __VA_ARGS__)
#define ZMLOG_RECORD_EVERY_N(n, tag, ...) \
    ZMLOG_LOG_EVERY_N(::PF::Utils::LOG::kRecord, n, tag, __VA_ARGS__)
#define ZMLOG_TRACE_LIMIT(ms, tag, ...) \
    ZMLOG_LOG_LIMIT(::PF::Utils::LOG::kTrace, ms, tag, __VA_ARGS__)
#define ZMLOG_DEBUG_LIMIT(ms, tag, ...) \
    ZMLOG_LOG_LIMIT(::PF::Utils::LOG::kDebug, ms, tag, __VA_ARGS__)
#define ZMLOG_INFO_LIMIT(ms, tag, ...) \
    ZMLOG_LOG_LIMIT(::PF::Utils::LOG::kInfo, ms, tag, __VA_ARGS__)
#define ZMLOG_WARN_LIMIT(ms, tag, ...) \
    ZMLOG_LOG_LIMIT(::PF::Utils::LOG::kWarn, ms, tag, __VA_ARGS__)
#define ZMLOG_ERROR_LIMIT(ms, tag, ...) \
    ZMLOG_LOG_LIMIT(::PF::Utils::LOG::kError, ms, tag, __VA_ARGS__)
#define ZMLOG_FATAL_LIMIT(ms, tag, ...) \
    ZMLOG_LOG_LIMIT(::PF::Utils::LOG::kFatal, ms, tag, __VA_ARGS__)
#define ZMLOG_RECORD_LIMIT(ms, tag, ...) \
    ZMLOG_LOG_LIMIT(::PF::Utils::LOG::kRecord, ms, tag, __VA_ARGS__)

// Per-level text with a component word. Examples:
//   ZMLOG_TRACE_C(0x1UL, "pf", "scan start");
//   ZMLOG_DEBUG_C(0x1UL << 16, "rt", "task switch");
//   ZMLOG_INFO_C(0x2UL << 32, "hc", "station online");
//   ZMLOG_WARN_C(0x2UL << 32, "hc", "station answered late");
//   ZMLOG_ERROR_C(0x4UL << 48, "hw", "fan stalled");
//   ZMLOG_FATAL_C(0x4UL << 48, "hw", "over-temperature");
//   ZMLOG_RECORD_C(0x1UL, "pf", "configuration applied");
#define ZMLOG_TRACE_C(component, tag, text) \
    ZMLOG_LOG_C(::PF::Utils::LOG::kTrace, component, tag, text)
#define ZMLOG_DEBUG_C(component, tag, text) \
    ZMLOG_LOG_C(::PF::Utils::LOG::kDebug, component, tag, text)
#define ZMLOG_INFO_C(component, tag, text) \
    ZMLOG_LOG_C(::PF::Utils::LOG::kInfo, component, tag, text)
#define ZMLOG_WARN_C(component, tag, text) \
    ZMLOG_LOG_C(::PF::Utils::LOG::kWarn, component, tag, text)
#define ZMLOG_ERROR_C(component, tag, text) \
    ZMLOG_LOG_C(::PF::Utils::LOG::kError, component, tag, text)
#define ZMLOG_FATAL_C(component, tag, text) \
    ZMLOG_LOG_C(::PF::Utils::LOG::kFatal, component, tag, text)
#define ZMLOG_RECORD_C(component, tag, text) \
    ZMLOG_LOG_C(::PF::Utils::LOG::kRecord, component, tag, text)
