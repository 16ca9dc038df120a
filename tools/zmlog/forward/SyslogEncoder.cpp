#include "SyslogEncoder.h"

#include <unistd.h>

#include <charconv>
#include <climits>
#include <ctime>

#include "JsonFormat.h"
#include "log/LogHead.h"

namespace PF::Utils::LOG::zmlog {
namespace {

// RFC 5424's field limits.
constexpr std::size_t kHostnameMax = 255;
constexpr std::size_t kAppNameMax = 48;
constexpr std::size_t kProcIdMax = 128;
constexpr std::size_t kMsgIdMax = 32;
// Parameter values have no limit of their own; a function name is cut here
// so the structured data never crowds out the message.
constexpr std::size_t kFunctionMax = 255;

// 32473 is the enterprise number RFC 5612 reserves for examples: a site that
// registers its own puts it here.
constexpr char kSdStart[] = " [zmlog@32473 function=\"";
constexpr char kBom[] = "\xEF\xBB\xBF";

constexpr const char* kFacilities[] = {"kern", "user",  "mail",  "daemon", "auth",     "syslog",
                                       "lpr",  "news",  "uucp",  "cron",   "authpriv", "ftp",
                                       "ntp",  "audit", "alert", "clock"};

template <class T>
void AppendNumber(std::string& out, T value) {
    char text[24];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

// A header field: printable US-ASCII without blanks, cut to max; "-" when
// empty. Other bytes become '_' so the field still splits where it should.
void AppendField(std::string& out, std::string_view text, std::size_t max) {
    if (text.empty()) {
        out.push_back('-');
        return;
    }
    if (text.size() > max) text = text.substr(0, max);
    for (const char c : text) {
        const auto b = static_cast<unsigned char>(c);
        out.push_back(b >= 33 && b <= 126 ? c : '_');
    }
}

// A structured-data parameter value: '"', '\' and ']' escaped; the names it
// holds are printable ASCII already (the walker checks them).
void AppendParamValue(std::string& out, std::string_view text) {
    for (const char c : text) {
        if (c == '"' || c == '\\' || c == ']') out.push_back('\\');
        out.push_back(c);
    }
}

// The content as UTF-8 on one line, up to out's size reaching limit: bytes
// that are not UTF-8 become U+FFFD and control characters other than tab
// become "#ooo" (octal), the way rsyslog stores them on receipt.
void AppendMessageText(std::string& out, std::string_view text, std::size_t limit) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t take = 1;
        const char* piece = &text[i];
        char escaped[4];
        if (c >= 0x80) {
            take = Utf8Length(text, i);
            if (take == 0) {
                piece = "\xEF\xBF\xBD";
                if (out.size() + 3 > limit) return;
                out.append(piece, 3);
                ++i;
                continue;
            }
        } else if ((c < 0x20 && c != '\t') || c == 0x7F) {
            escaped[0] = '#';
            escaped[1] = static_cast<char>('0' + (c >> 6));
            escaped[2] = static_cast<char>('0' + ((c >> 3) & 7));
            escaped[3] = static_cast<char>('0' + (c & 7));
            if (out.size() + 4 > limit) return;
            out.append(escaped, 4);
            ++i;
            continue;
        }
        if (out.size() + take > limit) return;
        out.append(piece, take);
        i += take;
    }
}

void AppendHexBytes(std::string& out, std::string_view bytes, std::size_t limit) {
    static const char kHex[] = "0123456789abcdef";
    for (std::size_t i = 0; i < bytes.size() && out.size() + 3 <= limit; ++i) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        if (i != 0) out.push_back('-');
        out.push_back(kHex[b >> 4]);
        out.push_back(kHex[b & 15]);
    }
}

std::string ThisHost() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return std::string();
    return name;
}

}  // namespace

int ParseFacility(const std::string& name) {
    for (int i = 0; i < 16; ++i) {
        if (name == kFacilities[i]) return i;
    }
    if (name.size() == 6 && name.compare(0, 5, "local") == 0 && name[5] >= '0' && name[5] <= '7')
        return 16 + (name[5] - '0');
    int n = -1;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), n);
    if (error != std::errc() || end != name.data() + name.size() || name.empty() || n < 0 || n > 23)
        return -1;
    return n;
}

unsigned SeverityOf(unsigned level) {
    static constexpr unsigned kSeverity[8] = {7, 7, 6, 4, 3, 2, 5, 7};
    return kSeverity[level & 7U];
}

SyslogEncoder::SyslogEncoder(int facility, const std::string& hostname)
    : facility_(facility), hostname_(hostname.empty() ? ThisHost() : hostname) {}

void SyslogEncoder::AppendTime(std::int64_t timeUs, std::string& out) {
    // Years 1 to 9999 only: the format has four digits and no sign.
    constexpr std::int64_t kFirst = -62135596800LL;  // 0001-01-01T00:00:00Z
    constexpr std::int64_t kLast = 253402300799LL;   // 9999-12-31T23:59:59Z
    std::int64_t second = timeUs / 1000000;
    std::int64_t micro = timeUs % 1000000;
    if (micro < 0) {
        micro += 1000000;
        --second;
    }
    if (second < kFirst || second > kLast) {
        out.push_back('-');
        return;
    }
    if (second != cachedSecond_) {
        const std::time_t t = static_cast<std::time_t>(second);
        std::tm tm{};
        ::gmtime_r(&t, &tm);
        std::strftime(second_, sizeof second_, "%Y-%m-%dT%H:%M:%S", &tm);
        cachedSecond_ = second;
    }
    out.append(second_, 19);
    char digits[8] = {'.', '0', '0', '0', '0', '0', '0', 'Z'};
    for (int i = 6; i >= 1; --i, micro /= 10) digits[i] = static_cast<char>('0' + micro % 10);
    out.append(digits, 8);
}

void SyslogEncoder::Append(const WalkedRecord& r, std::string_view typedText, const RecordPos& pos,
                           std::string& out) {
    const std::size_t limit = out.size() + kMaxMessage;
    out.push_back('<');
    AppendNumber(out, static_cast<unsigned>(facility_) * 8 + SeverityOf(r.head.flags & 7U));
    out.append(">1 ");
    AppendTime(r.head.timeUs, out);
    out.push_back(' ');
    AppendField(out, hostname_, kHostnameMax);
    out.push_back(' ');
    AppendField(out, r.program, kAppNameMax);
    out.push_back(' ');
    char thread[16];
    AppendField(
        out,
        std::string_view(thread, std::to_chars(thread, thread + 16, r.head.threadId).ptr - thread),
        kProcIdMax);
    out.push_back(' ');
    AppendField(out, r.tag, kMsgIdMax);
    out.append(kSdStart);
    AppendParamValue(out, r.function.substr(0, kFunctionMax));
    out.append("\" component=\"0x");
    char hex[16];
    out.append(hex, std::to_chars(hex, hex + 16, r.head.component, 16).ptr);
    out.append("\" pos=\"");
    AppendNumber(out, pos.file.dev);
    out.push_back(':');
    AppendNumber(out, pos.file.ino);
    out.push_back(':');
    AppendNumber(out, pos.offset);
    out.append("\"]");
    const bool binary = (r.head.flags & kBinaryFlag) != 0;
    const std::string_view text = binary || r.head.valueType == 0 ? r.content : typedText;
    if (text.empty()) return;
    out.push_back(' ');
    out.append(kBom, 3);
    if (binary) {
        AppendHexBytes(out, r.content, limit);
    } else {
        AppendMessageText(out, text, limit);
    }
}

}  // namespace PF::Utils::LOG::zmlog
