// Renders arbitrary record contents: two bytes of flags, one byte choosing
// the type code (0..15 as it stands, 16 and above: the next four bytes are
// the code), then the content. A typed value shorter than its type is padded
// with zeros, as the decoder reads the type's full width whatever the length
// says. Each rendering is checked against an independent one: printf and
// to_string for the values, the hex dump for binary contents, the bytes
// themselves for text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "log/Decode.h"
#include "log/HexDump.h"
#include "log/LogHead.h"

using namespace PF::Utils::LOG;

namespace {

// Bytes a value of each type code occupies.
constexpr std::size_t kWidth[14] = {0, 1, 1, 1, 1, 2, 2, 4, 4, 4, 8, 8, 8, 8};

void Require(bool ok) {
    if (!ok) std::abort();
}

template <class T>
T Load(const char* data) {
    T value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

std::string Printf(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::string Expected(unsigned type, const char* v) {
    switch (type) {
        case 1:
            return v[0] != 0 ? "1" : "0";
        case 2:
        case 3:
        case 4:
            return std::string(1, v[0]);
        case 5:
            return std::to_string(Load<std::uint16_t>(v));
        case 6:
            return std::to_string(Load<std::int16_t>(v));
        case 7:
            return std::to_string(Load<std::uint32_t>(v));
        case 8:
            return std::to_string(Load<std::int32_t>(v));
        case 9:
            return Printf(Load<float>(v));
        case 10:
            return std::to_string(Load<std::uint64_t>(v));
        case 11:
        case 13:
            return std::to_string(Load<std::int64_t>(v));
        default:  // 12
            return Printf(Load<double>(v));
    }
}

// ParseLogContent over a heap copy of exactly len bytes, so that a read past
// them is caught.
std::string Render(std::uint16_t flags, unsigned type, const std::string& content,
                   std::size_t len) {
    std::unique_ptr<char[]> exact(new char[len == 0 ? 1 : len]);
    std::memcpy(exact.get(), content.data(), len);
    return ParseLogContent(flags, type, exact.get(), static_cast<unsigned>(len));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    std::uint16_t flags;
    std::memcpy(&flags, data, sizeof flags);
    unsigned type = data[2];
    std::size_t at = 3;
    if (type >= 16) {
        if (size < 7) return 0;
        std::memcpy(&type, data + 3, sizeof type);
        at = 7;
    }
    std::string content(reinterpret_cast<const char*>(data + at), size - at);
    const bool binary = (flags & kBinaryFlag) != 0;
    const bool typed = !binary && type >= 1 && type <= 13;
    if (typed && content.size() < kWidth[type]) content.resize(kWidth[type], '\0');

    const std::string text = Render(flags, type, content, content.size());
    if (binary) {
        Require(text == StringToHex(content));
    } else if (type == 0) {
        Require(text == content);
    } else if (type > 13) {
        Require(text.empty());
    } else {
        Require(text == Expected(type, content.data()));
        // The length is not looked at beyond the type's width.
        Require(Render(flags, type, content, kWidth[type]) == text);
    }
    // The level bits do not matter.
    Require(Render(static_cast<std::uint16_t>(flags ^ 7U), type, content, content.size()) == text);
    return 0;
}
