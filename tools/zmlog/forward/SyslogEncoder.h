// A record as one RFC 5424 syslog message:
//
//   <134>1 2023-11-14T22:13:20.123456Z plc7 PressLine7 4711 net
//     [zmlog@32473 function="main" component="0x0" pos="2049:131077:4096"] BOM link up
//
// PRI from the level and the facility, the record's time in UTC, the host,
// the program as APP-NAME, the thread as PROCID, the tag as MSGID, the
// function, component and position as structured data, and the content as
// UTF-8 (a binary content as hex bytes on one line). Every field is cut to
// the RFC's limits; the whole message to kMaxMessage bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "RecordSource.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

// The largest UDP datagram over IPv4 (RFC 5426); used for every transport so
// that a message reads the same whichever way it went.
constexpr std::size_t kMaxMessage = 65507;

// "local0" -> 16, "kern" -> 0 ... or a number 0 to 23; -1 when unknown.
int ParseFacility(const std::string& name);
// The syslog severity of a record level: TRACE and DEBUG debug (7), INFO
// informational (6), Record notice (5), WARN warning (4), ERROR error (3),
// FATAL critical (2).
unsigned SeverityOf(unsigned level);

class SyslogEncoder {
  public:
    // hostname: empty for this machine's name.
    SyslogEncoder(int facility, const std::string& hostname);

    // Appends the message (no line end, no framing) to out. typedText: the
    // content as the library renders it, for a typed value.
    void Append(const WalkedRecord& r, std::string_view typedText, const RecordPos& pos,
                std::string& out);

  private:
    void AppendTime(std::int64_t timeUs, std::string& out);

    int facility_;
    std::string hostname_;
    std::int64_t cachedSecond_ = INT64_MIN;
    char second_[20] = {};  // "YYYY-MM-DDTHH:MM:SS" of cachedSecond_
};

}  // namespace PF::Utils::LOG::zmlog
