// Record layout: the 32-byte header every log record starts with, the level
// table and the type codes of typed values. Shared by writers, the archiver's
// file and every decoder, so each offset below is part of the on-disk format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace PF::Utils::LOG {

// Levels 0..6; the decoder prints them as "TRACE" ... "Record".
enum LogLevel : unsigned char {
    kTrace = 0,
    kDebug = 1,
    kInfo = 2,
    kWarn = 3,
    kError = 4,
    kFatal = 5,
    kRecord = 6,
};

// Bit 3 of LogHead::flags: the content is raw bytes, shown as hexadecimal.
constexpr std::uint16_t kBinaryFlag = 1U << 3;
// Largest record the writer ever builds (header and body together).
constexpr std::uint32_t kMaxRecordLength = 0x100000;

// Body after the header, unpadded and unterminated: function name, program
// name, tag, content. The record length is not stored; readers add up the
// four length fields.
struct LogHead {
    std::uint16_t flags;  // bits 0-2 level, bit 3 binary flag
    std::uint16_t programLen;
    std::uint16_t functionLen;
    std::uint16_t tagLen;
    std::uint32_t contentLen;
    std::uint32_t valueType;  // 0 text, 1..13 TypeToNumber<T>()
    std::uint32_t threadId;   // kernel thread id; 0 for records of the library itself
    std::uint32_t component;  // low 32 bits of the caller's component word
    std::int64_t timeUs;      // microseconds since the epoch, UTC
};

static_assert(sizeof(LogHead) == 32, "LogHead is a 32-byte on-disk header");
static_assert(offsetof(LogHead, flags) == 0);
static_assert(offsetof(LogHead, programLen) == 2);
static_assert(offsetof(LogHead, functionLen) == 4);
static_assert(offsetof(LogHead, tagLen) == 6);
static_assert(offsetof(LogHead, contentLen) == 8);
static_assert(offsetof(LogHead, valueType) == 12);
static_assert(offsetof(LogHead, threadId) == 16);
static_assert(offsetof(LogHead, component) == 20);
static_assert(offsetof(LogHead, timeUs) == 24);
static_assert(std::is_trivially_copyable_v<LogHead>);

// Type codes of typed contents. Only these thirteen types can be logged as
// values; any other type is a compile-time error.
template <class T>
int TypeToNumber() {
    static_assert(sizeof(T) == 0, "no type code for this type");
    return 0;
}
template <>
inline int TypeToNumber<bool>() {
    return 1;
}
template <>
inline int TypeToNumber<unsigned char>() {
    return 2;
}
template <>
inline int TypeToNumber<signed char>() {
    return 3;
}
template <>
inline int TypeToNumber<char>() {
    return 4;
}
template <>
inline int TypeToNumber<unsigned short>() {
    return 5;
}
template <>
inline int TypeToNumber<short>() {
    return 6;
}
template <>
inline int TypeToNumber<unsigned int>() {
    return 7;
}
template <>
inline int TypeToNumber<int>() {
    return 8;
}
template <>
inline int TypeToNumber<float>() {
    return 9;
}
template <>
inline int TypeToNumber<unsigned long>() {
    return 10;
}
template <>
inline int TypeToNumber<long>() {
    return 11;
}
template <>
inline int TypeToNumber<double>() {
    return 12;
}
template <>
inline int TypeToNumber<long long>() {
    return 13;
}

}  // namespace PF::Utils::LOG
