#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "log/Decode.h"
#include "log/HexDump.h"

using PF::Utils::LOG::ParseLogContent;
using PF::Utils::LOG::StringToHex;

namespace {

// Renders value as a record content of the given type code, stored at an odd
// address as it may be inside a record.
template <class T>
std::string Typed(unsigned type, T value, unsigned short flags = 0) {
    char buf[1 + sizeof(T)];
    std::memcpy(buf + 1, &value, sizeof value);
    return ParseLogContent(flags, type, buf + 1, sizeof value);
}

}  // namespace

TEST(ContentDecode, IntegersInPlainDecimalOfTheirWidthAndSign) {
    EXPECT_EQ(Typed<std::uint16_t>(5, 0xFFFF), "65535");
    EXPECT_EQ(Typed<std::uint16_t>(6, 0xFFFF), "-1");
    EXPECT_EQ(Typed<std::uint32_t>(7, 0xFFFFFFFFU), "4294967295");
    EXPECT_EQ(Typed<std::uint32_t>(8, 0xFFFFFFFFU), "-1");
    EXPECT_EQ(Typed<std::uint64_t>(10, ~0ULL), "18446744073709551615");
    EXPECT_EQ(Typed<long long>(13, std::numeric_limits<long long>::min()), "-9223372036854775808");
    EXPECT_EQ(Typed<int>(8, 1000000), "1000000");  // no grouping
    // Only the bytes of the type's width are read, whatever follows.
    EXPECT_EQ(Typed<std::uint64_t>(5, 0x1234567800000007ULL), "7");
}

TEST(ContentDecode, BoolAndCharTypes) {
    EXPECT_EQ(Typed<bool>(1, true), "1");
    EXPECT_EQ(Typed<unsigned char>(2, 0x41), "A");
    EXPECT_EQ(Typed<signed char>(3, 'z'), "z");
    EXPECT_EQ(Typed<char>(4, '\0'), std::string(1, '\0'));  // a character, not "0"
}

TEST(ContentDecode, FloatingValuesInGeneralFormatWithSixDigits) {
    EXPECT_EQ(Typed<float>(9, 3.14159274F), "3.14159");
    EXPECT_EQ(Typed<double>(12, 100.0), "100");
    EXPECT_EQ(Typed<double>(12, 1234567.0), "1.23457e+06");
    EXPECT_EQ(Typed<double>(12, 0.00001), "1e-05");
    EXPECT_EQ(Typed<double>(12, std::numeric_limits<double>::infinity()), "inf");
}

TEST(ContentDecode, TextKeepsEveryByteAndUnknownTypesAreEmpty) {
    char text[] = "a\0b\0";
    EXPECT_EQ(ParseLogContent(0, 0, text, 4), std::string("a\0b\0", 4));
    EXPECT_EQ(ParseLogContent(0, 14, text, 4), "");
    EXPECT_EQ(ParseLogContent(0, 0xFFFFFFFFU, text, 4), "");
}

TEST(ContentDecode, BinaryFlagWinsOverTypeAndLevelBitsDoNotMatter) {
    EXPECT_EQ(Typed<int>(14, 0x41, 0x000F), StringToHex(std::string("A\0\0\0", 4)));
    EXPECT_EQ(Typed<int>(8, -1, 0x0007), "-1");
    char text[] = "abc";
    EXPECT_EQ(ParseLogContent(0x000A, 0, text, 3), StringToHex("abc"));
}
