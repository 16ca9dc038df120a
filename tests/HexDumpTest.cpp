#include <gtest/gtest.h>

#include <string>

#include "log/HexDump.h"

using PF::Utils::LOG::Format;
using PF::Utils::LOG::StringToHex;

TEST(HexDump, LinesOfSixteenBytesShortLastLinePadded) {
    EXPECT_EQ(StringToHex(""), "\n");
    EXPECT_EQ(StringToHex("A"), "\n0000  41" + std::string(45, ' ') + "  A\n");
    EXPECT_EQ(StringToHex(std::string(
                  "\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16)),
              "\n0000  00-01-02-03 04-05-06-07 08-09-0a-0b 0c-0d-0e-0f  ................\n");
    // The second line's text column starts where the first line's does.
    EXPECT_EQ(StringToHex("abcdefghijklmnopq"),
              "\n0000  61-62-63-64 65-66-67-68 69-6a-6b-6c 6d-6e-6f-70  abcdefghijklmnop\n"
              "0001  71                                               q\n");
}

TEST(HexDump, LineNumbersAreUpperCaseHexOfAtLeastFourDigits) {
    const std::string dump = StringToHex(std::string(17 * 16, 'x'));
    EXPECT_NE(dump.find("\n000A  78-78"), std::string::npos);
    EXPECT_NE(dump.find("\n0010  78-78"), std::string::npos);
    std::string hex = "-ff";
    std::string text = ".";
    EXPECT_EQ(Format(hex, text, 0x10000).substr(0, 9), "10000  ff");
    hex = "-ff";
    EXPECT_EQ(Format(hex, text, -3).substr(0, 8), "0000  ff");
}

TEST(HexDump, TextColumnShowsOnlyPrintableBytes) {
    // Two separator blanks, then a blank for 0x20.
    const std::string dump = StringToHex(std::string("\x20\x7e\x7f\x80\xff\x00\x41", 7));
    EXPECT_EQ(dump.substr(dump.size() - 10), "   ~....A\n");
}

TEST(HexDump, FormatOfEmptyHexIsEmptyAndFormatRewritesHexInPlace) {
    std::string hex;
    std::string text = "abc";
    EXPECT_EQ(Format(hex, text, 5), "");
    hex = "-01-02-03-04-05";
    text = ".....";
    EXPECT_EQ(Format(hex, text, 1), "0001  01-02-03-04 05  .....\n");
    EXPECT_EQ(hex, "01-02-03-04 05");
}
