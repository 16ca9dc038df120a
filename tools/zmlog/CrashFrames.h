// The frames of a crash report named: the library writes each frame as
// address, module and offset ("#2 0x55d0c8a1b2c3 /opt/cell/bin/cell+0x1f2c3",
// see src/writer/CrashReport.cpp for why), and zmlog appends the function
// and the offset in it (" Cycle(int)+0x13"), read with libdw from the
// module's symbol table or its debug information. The binaries must be
// where they were when the process crashed; a frame that cannot be named
// stays as it is. Built without libdw, zmlog names nothing.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

class CrashFrames {
  public:
    CrashFrames();
    ~CrashFrames();
    CrashFrames(const CrashFrames&) = delete;
    CrashFrames& operator=(const CrashFrames&) = delete;

    // zmlog was built with libdw.
    static bool CanName();
    // The record is a crash report of the library's.
    static bool IsReport(const WalkedRecord& r);
    // The report's frames named, r then pointing at the new text (valid
    // until the next call).
    void Name(WalkedRecord& r);
    // Every frame line of text named.
    std::string Name(std::string_view text);

  private:
    struct Module;
    void AppendName(std::string_view line, std::string& out);
    Module* Find(const std::string& path);

    std::map<std::string, std::unique_ptr<Module>> modules_;
    std::string body_;
};

}  // namespace PF::Utils::LOG::zmlog
