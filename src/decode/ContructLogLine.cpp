#include <cstring>
#include <string>

#include "decode/ValueWidth.h"
#include "log/Decode.h"

namespace PF::Utils::LOG {

std::string ContructLogLine(LogHead& head, char* buf, unsigned long& offset, std::string& program) {
    // No length checks here: the caller has made sure the body lies in buf.
    std::string function(buf + offset, head.functionLen);
    offset += head.functionLen;
    program.assign(buf + offset, head.programLen);
    offset += head.programLen;
    std::string tag(buf + offset, head.tagLen);
    offset += head.tagLen;
    char* content = buf + offset;
    offset += head.contentLen;

    // Unknown type: no line, but the program is set and the body skipped. Its
    // content would not be shown, so it is not rendered either.
    if (head.valueType > 13) return std::string();
    // A damaged record may hold fewer bytes than its value's type: read them
    // with zeros after them, not whatever lies past the record (the end of
    // the buffer, possibly).
    char padded[8] = {};
    if ((head.flags & kBinaryFlag) == 0 && head.contentLen < ValueWidth(head.valueType)) {
        std::memcpy(padded, content, head.contentLen);
        content = padded;
    }
    std::string text = ParseLogContent(head.flags, head.valueType, content, head.contentLen);
    return gParseLogFunction(head, function, tag, text);
}

}  // namespace PF::Utils::LOG
