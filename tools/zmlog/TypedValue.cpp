#include "TypedValue.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr const char* kTypeNames[] = {
    "text",         "bool", "unsigned char", "signed char",   "char", "unsigned short", "short",
    "unsigned int", "int",  "float",         "unsigned long", "long", "double",         "long long",
};

template <class T>
T Read(const char* data) {
    T value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

template <class T>
void Append(std::string& out, T value) {
    if constexpr (std::is_floating_point_v<T>) {
        if (!std::isfinite(value)) {
            out.append("null");
            return;
        }
    }
    char text[64];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

}  // namespace

const char* TypeName(std::uint32_t valueType) {
    return valueType < sizeof kTypeNames / sizeof kTypeNames[0] ? kTypeNames[valueType] : "";
}

void AppendTypedNumber(std::string& out, std::uint32_t valueType, const char* data) {
    switch (valueType) {
        case 1:
        case 2:
            return Append(out, unsigned{Read<unsigned char>(data)});
        case 3:
            return Append(out, int{Read<signed char>(data)});
        case 4:
            return Append(out, int{Read<char>(data)});
        case 5:
            return Append(out, Read<unsigned short>(data));
        case 6:
            return Append(out, Read<short>(data));
        case 7:
            return Append(out, Read<unsigned int>(data));
        case 8:
            return Append(out, Read<int>(data));
        case 9:
            return Append(out, Read<float>(data));
        case 10:
            return Append(out, Read<unsigned long>(data));
        case 11:
            return Append(out, Read<long>(data));
        case 12:
            return Append(out, Read<double>(data));
        case 13:
            return Append(out, Read<long long>(data));
        default:
            out.append("null");
    }
}

}  // namespace PF::Utils::LOG::zmlog
