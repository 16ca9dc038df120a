// The text of a crash report, built inside the signal handler: only
// async-signal-safe calls, no heap, into the caller's buffer.
#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace PF::Utils::LOG::detail {

// " SIGSEGV (SEGV_MAPERR) at 0x0 in thread 4242 \"worker\"" (a signal sent
// by a process says "from pid 4242" instead of an address), then one line
// per frame: "#0 0x55d0c8a1b2c3 /usr/bin/cell+0x1f2c3". The module and the
// offset are what a symbolizer needs; zmlog names the functions when it
// prints the record (see CrashReport.cpp for why not here). executable is
// the path of the program itself, whose module has no name of its own.
// Cut at room; returns the length.
std::size_t DescribeCrash(char* out, std::size_t room, int sig, const siginfo_t& info,
                          void* const* frames, int count, const char* executable);

// The private log's line of a record ("2026-11-24 03:12:45.120|4242|FATAL|
// CrashReport|zmlog<content>\n"), the local time from utcOffsetSeconds.
std::size_t TextLine(char* out, std::size_t room, std::int64_t timeUs, long utcOffsetSeconds,
                     unsigned threadId, std::string_view content);

}  // namespace PF::Utils::LOG::detail
