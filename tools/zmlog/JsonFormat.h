// --output=json: one JSON object per record (JSON Lines).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "LocalClock.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

// The record's object and a newline. rendered: the content as the library
// renders it (used for typed values); value: the typed value's bytes at
// their full width.
void AppendJsonRecord(const WalkedRecord& r, const std::string& rendered, const char* value,
                      LocalClock& clock, std::string& out);

// JSON string literal of arbitrary bytes: escapes as needed, and replaces
// bytes that are not UTF-8 with U+FFFD so the output stays valid JSON.
void AppendJsonString(std::string& out, std::string_view text);

// Length of the valid UTF-8 sequence at text[i], 0 when there is none
// (overlong forms, surrogates and values above U+10FFFF are not valid).
std::size_t Utf8Length(std::string_view text, std::size_t i);

}  // namespace PF::Utils::LOG::zmlog
