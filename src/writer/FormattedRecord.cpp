// A printf-style record built once: header and names laid out, the text
// formatted straight after them in the same stack buffer, one clock read.
#include <alloca.h>

#include <cstring>
#include <string>

#include "log/LogMacros.h"
#include "writer/Formatter.h"
#include "writer/LibraryNotice.h"

namespace PF::Utils::LOG::detail {
namespace {

// Room for the text on the first try; a longer one is formatted again into
// a buffer of its size.
constexpr std::size_t kFirstTry = 512;

// " (41 suppressed)" after the text of a rate-limited call site.
std::size_t AppendSuppressed(char* at, unsigned long suppressed) {
    if (suppressed == 0) return 0;
    char* out = AppendNumber(at, suppressed);
    out = static_cast<char*>(std::memmove(at + 2, at, static_cast<std::size_t>(out - at))) +
          (out - at);
    at[0] = ' ';
    at[1] = '(';
    std::memcpy(out, " suppressed)", 12);
    return static_cast<std::size_t>(out + 12 - at);
}

}  // namespace

std::size_t ProgramNameLength() noexcept {
    static const std::size_t length = std::strlen(program_invocation_short_name);
    return length;
}

void WriteFormattedText(char* record, std::size_t fixed, std::size_t size, unsigned char level,
                        unsigned long component, const char* tag, std::size_t tagLength,
                        const char* function, std::size_t functionLength, unsigned long suppressed,
                        bool mayHoldNul) {
    char* text = record + fixed;
    // What a record can carry: an over-long text keeps its beginning.
    const std::size_t budget = fixed < kMaxRecordLength ? kMaxRecordLength - fixed : 0;
    // Text is stored up to its first NUL, as for any text record.
    if (const void* nul = mayHoldNul ? std::memchr(text, 0, size) : nullptr)
        size = static_cast<const char*>(nul) - text;
    size += AppendSuppressed(text + size, suppressed);
    if (size > budget) size = budget;

    if (IsUPEnvironment()) {
        WriteText(level, component, tag, function, std::string(text, size));
        return;
    }
    const std::int64_t timeUs = NowUs();
    LogHead head;
    head.flags = level;
    head.programLen = static_cast<std::uint16_t>(ProgramNameLength());
    head.functionLen = static_cast<std::uint16_t>(functionLength);
    head.tagLen = static_cast<std::uint16_t>(tagLength);
    head.contentLen = static_cast<std::uint32_t>(size);
    head.valueType = 0;
    head.threadId = CurrentThreadId();
    head.component = static_cast<std::uint32_t>(component);
    head.timeUs = timeUs;
    PutHeadAndNames(record, head, function, program_invocation_short_name, tag);
    Submit(record, static_cast<unsigned>(fixed + size), timeUs);
}

bool WriteFormattedRecord(unsigned char level, unsigned long component, const char* tag,
                          const char* function, std::size_t functionLength, const char* fmt,
                          const FormatArg* args, std::size_t count, unsigned long suppressed) {
    tag = OrEmpty(tag);
    // Names are at most 65535 bytes: the record keeps that much of them.
    const std::size_t tagLength = static_cast<std::uint16_t>(std::strlen(tag));
    functionLength = static_cast<std::uint16_t>(functionLength);
    const std::size_t fixed = sizeof(LogHead) + functionLength + ProgramNameLength() + tagLength;
    const std::size_t budget = fixed < kMaxRecordLength ? kMaxRecordLength - fixed : 0;

    // cppcheck-suppress allocaCalled ; never the heap on the binary path
    auto* record = static_cast<char*>(alloca(fixed + kFirstTry + kFormattedSuffixRoom));
    char* text = record + fixed;
    const long length = FormatText(text, kFirstTry, fmt, args, count);
    if (length < 0) return false;  // the C library's formatter takes it
    std::size_t size = static_cast<std::size_t>(length);
    if (size > kFirstTry) {
        const std::size_t room = size < budget ? size : budget;
        // cppcheck-suppress allocaCalled
        record = static_cast<char*>(alloca(fixed + room + kFormattedSuffixRoom));
        FormatText(record + fixed, room, fmt, args, count);
        size = room;
    }
    WriteFormattedText(record, fixed, size, level, component, tag, tagLength, function,
                       functionLength, suppressed, true);
    return true;
}

}  // namespace PF::Utils::LOG::detail
