// Crash reports (EnableCrashReport, log/Control.h): the library's side.
#pragma once

#include <string>

namespace PF::Utils::LOG::detail {

// "crashReport=true" read at start-up switches the report on.
void ApplyCrashReportKey();
// A private log's text file, where the report goes without a runtime.
void NoteTextLogPath(const std::string& path);

}  // namespace PF::Utils::LOG::detail
