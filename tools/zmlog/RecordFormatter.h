// Renders walked records: the library's own text line (millisecond or
// microsecond formatter), optionally with a coloured level name, or one JSON
// object per record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "LocalClock.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

class RecordFormatter {
  public:
    RecordFormatter(bool json, bool color) : json_(json), color_(color) {}

    // Appends the record's line and a newline to out.
    void Append(WalkedRecord& r, std::string& out);
    // The content as the text line shows it.
    std::string Content(WalkedRecord& r);

  private:
    void AppendText(WalkedRecord& r, std::string& out);
    void AppendJson(WalkedRecord& r, std::string& out);
    char* Body(WalkedRecord& r);

    bool json_;
    bool color_;
    std::string padded_;
    LocalClock clock_;
};

// JSON string literal of arbitrary bytes: escapes as needed, and replaces
// bytes that are not UTF-8 with U+FFFD so the output stays valid JSON.
void AppendJsonString(std::string& out, std::string_view text);
void AppendLevelName(std::string& out, unsigned level);

}  // namespace PF::Utils::LOG::zmlog
