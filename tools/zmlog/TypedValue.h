// A typed value (type codes 1 to 13) as its type and number, for the
// formats that keep it: json and verbose. The library's own rendering shows
// the three character types as the byte itself.
#pragma once

#include <cstdint>
#include <string>

namespace PF::Utils::LOG::zmlog {

// "unsigned char", "double", ...; "text" for 0, "" for unknown codes.
const char* TypeName(std::uint32_t valueType);
// Appends the value at data (its type's full width) as a JSON number, or
// null for a floating value that is not finite.
void AppendTypedNumber(std::string& out, std::uint32_t valueType, const char* data);

}  // namespace PF::Utils::LOG::zmlog
