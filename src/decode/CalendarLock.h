// The lock around the conversion of a time stamp to the local calendar:
// localtime() takes a lock of the C library's own, and a process forked
// while one of its threads held that lock would hang in its first log call.
// The fork handlers take this one around a fork, so no thread of the
// library is inside localtime() then.
#pragma once

#include <mutex>

namespace PF::Utils::LOG {

std::mutex& CalendarLock();

}  // namespace PF::Utils::LOG
