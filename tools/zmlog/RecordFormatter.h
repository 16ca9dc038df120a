// Renders walked records in the chosen output format (see OutputFormat):
// short and cat here, the library's own line (pipe) through its formatter,
// json and verbose beside this file.
#pragma once

#include <string>

#include "LocalClock.h"
#include "Options.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

class RecordFormatter {
  public:
    RecordFormatter(const Options& o, bool color);

    // Appends the record's text (a line, or the verbose block) to out.
    void Append(WalkedRecord& r, std::string& out);
    // The content as the library renders it.
    std::string Content(WalkedRecord& r);

  private:
    void AppendShort(WalkedRecord& r, std::string& out);
    void AppendPipe(WalkedRecord& r, std::string& out);
    void AppendTagAndContent(WalkedRecord& r, std::string& out);
    void AppendLevel(unsigned level, std::string& out);
    char* Body(WalkedRecord& r);
    char* ContentBytes(WalkedRecord& r) { return Body(r) + (r.content.data() - r.body); }

    OutputFormat format_;
    bool micro_;
    bool color_;
    std::string padded_;
    std::string levels_[8];
    LocalClock clock_;
};

// The library's name of a level ("INFO"); nothing for level 7.
void AppendLevelName(std::string& out, unsigned level);

}  // namespace PF::Utils::LOG::zmlog
