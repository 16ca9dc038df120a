#include <charconv>
#include <cstring>
#include <string>
#include <type_traits>

#include "log/Decode.h"
#include "log/HexDump.h"
#include "log/LogHead.h"

namespace PF::Utils::LOG {
namespace {

// Values may sit at any alignment inside a record.
template <class T>
T Load(const char* data) {
    T value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

// to_chars writes what a fresh classic-locale stream would (plain decimal;
// for floating values "%g" at precision 6) without building a stream.
template <class T>
std::string Render(T value) {
    char text[32];
    std::to_chars_result r;
    if constexpr (std::is_floating_point_v<T>) {
        r = std::to_chars(text, text + sizeof text, value, std::chars_format::general, 6);
    } else {
        r = std::to_chars(text, text + sizeof text, value);
    }
    return std::string(text, r.ptr);
}

}  // namespace

std::string ParseLogContent(unsigned short flags, unsigned int type, char* data, unsigned int len) {
    // The binary flag wins over the type code: typed values logged as bytes
    // are dumped too.
    if ((flags & kBinaryFlag) != 0) return StringToHex(std::string(data, len));
    if (type == 0) return std::string(data, len);
    if (type > 13) return std::string();

    // Typed values: the width comes from the type, len is not consulted (the
    // parser has checked that the record fits).
    switch (type) {
        case 1:
            // Writers store only 0 and 1; any other byte counts as true.
            return Load<unsigned char>(data) != 0 ? "1" : "0";
        case 2:
        case 3:
        case 4:
            // The byte as a character, not as its number.
            return std::string(1, data[0]);
        case 5:
            return Render<unsigned long>(Load<unsigned short>(data));
        case 6:
            return Render<short>(Load<short>(data));
        case 7:
            return Render<unsigned long>(Load<unsigned int>(data));
        case 8:
            return Render<int>(Load<int>(data));
        case 9:
            return Render<double>(Load<float>(data));
        case 10:
            return Render<unsigned long>(Load<unsigned long>(data));
        case 11:
            return Render<long>(Load<long>(data));
        case 12:
            return Render<double>(Load<double>(data));
        default:  // 13
            return Render<long long>(Load<long long>(data));
    }
}

}  // namespace PF::Utils::LOG
