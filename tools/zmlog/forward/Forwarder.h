// --forward and --output=syslog: records of the log, through the filters,
// as RFC 5424 messages to a transport, with at-least-once delivery. The
// cursor moves only past what the transport confirms; a collector that goes
// away is tried again with a growing pause (at most 5 s) while the reader
// keeps hold of the files still to be sent.
#pragma once

#include <csignal>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "CrashFrames.h"
#include "DamageReport.h"
#include "ForwardReader.h"
#include "Options.h"
#include "RecordFilter.h"
#include "RecordFormatter.h"
#include "RecordSource.h"
#include "SyslogEncoder.h"
#include "Transport.h"

namespace PF::Utils::LOG::zmlog {

class Forwarder {
  public:
    // note: prints one line on standard error (zmlog's notes).
    Forwarder(const Options& o, const RolledSet& set, Transport& transport,
              std::function<void(const std::string&)> note);

    // Forwards until the end of the log has been delivered (or, with -f,
    // until stop is set). Without -f, false when stop came first. Throws
    // Error.
    bool Run(const volatile std::sig_atomic_t& stop);

    std::uint64_t Forwarded() const { return forwarded_; }
    const RecordSource& Source() const { return source_; }

  private:
    struct Message {
        std::string text;
        RecordPos pos;
    };
    void OnRecord(WalkedRecord& r, const SourceFile& file, std::uint64_t offset);
    // Sends what is pending until the transport takes it; false when stop
    // was set first.
    bool Deliver(const volatile std::sig_atomic_t& stop, bool confirm);
    void PopConfirmed();
    void SaveCursor();
    std::int64_t SinceCursorMs() const;
    // Waits ms, looking after the log's files meanwhile; false on stop.
    bool Pause(int ms, const volatile std::sig_atomic_t& stop);
    void Lost(std::uint64_t records);
    void ReportDamage();

    const Options& o_;
    Transport& transport_;
    std::function<void(const std::string&)> note_;
    std::string what_;  // the URL, for notes
    std::string dir_;
    CrashFrames frames_;
    RecordFilter filter_;
    RecordFormatter formatter_;
    SyslogEncoder encoder_;
    RecordSource source_;
    ForwardReader reader_;
    std::deque<Message> pending_;  // not confirmed yet, oldest first
    std::size_t sent_ = 0;         // of pending_, handed to the transport
    RecordPos skip_;               // the cursor's record, delivered before
    bool skipping_ = false;
    RecordPos cursor_;
    bool cursorDirty_ = false;
    std::int64_t savedMs_ = 0;
    std::uint64_t forwarded_ = 0;
    DamageReport damage_;
};

}  // namespace PF::Utils::LOG::zmlog
