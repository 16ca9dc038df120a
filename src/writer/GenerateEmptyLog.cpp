#include <cstring>
#include <vector>

#include "log/WriteLog.h"

namespace PF::Utils::LOG {

std::vector<char> GenerateEmptyLog() {
    static constexpr char kFunction[] = "GenerateEmptyLog";
    static constexpr char kContent[] = "ring buffer is full, call empty function";
    const char* program = program_invocation_short_name;
    const auto programLen = static_cast<std::uint16_t>(std::strlen(program));

    LogHead head{};
    head.flags = kWarn;
    head.programLen = programLen;
    head.functionLen = sizeof kFunction - 1;
    head.tagLen = 0;
    head.contentLen = sizeof kContent - 1;
    head.valueType = 0;
    head.threadId = 0;  // written by the library, not by a calling thread
    head.component = 0;
    head.timeUs = detail::NowUs();

    std::vector<char> record(sizeof head + head.functionLen + programLen + head.contentLen, 0);
    char* out = record.data();
    std::memcpy(out, &head, sizeof head);
    out += sizeof head;
    std::memcpy(out, kFunction, head.functionLen);
    out += head.functionLen;
    std::memcpy(out, program, programLen);
    out += programLen;
    std::memcpy(out, kContent, head.contentLen);
    return record;
}

}  // namespace PF::Utils::LOG
