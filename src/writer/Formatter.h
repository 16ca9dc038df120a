// The printf-style text of a record, written without the C library's
// formatter: integers and floating values with std::to_chars, strings with
// memcpy. Takes the conversions d i u x X o c s p f F e E g G and %, the
// flags - + space # 0, width and precision (also *), and the length
// modifiers hh h l ll z j t, and writes exactly what snprintf writes for
// them. Allocates nothing, takes no lock, calls nothing unsafe in a signal
// handler.
#pragma once

#include <cstddef>

#include "log/FormatPlan.h"

namespace PF::Utils::LOG::detail {

// The length of the whole text, as snprintf returns it (at most cap bytes
// are written at out, without a terminator), or -1 when the format holds
// something this formatter does not take (%n, %a, positional arguments, the
// L modifier, ...) or does not match the arguments: the caller then asks
// snprintf, so that nothing ever prints differently.
long FormatText(char* out, std::size_t cap, const char* fmt, const FormatArg* args,
                std::size_t count);

}  // namespace PF::Utils::LOG::detail
