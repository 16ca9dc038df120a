#include "Forwarder.h"

#include <ctime>

#include "Cursor.h"
#include "log/LogHead.h"

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr int kTickMs = 100;
constexpr int kFirstPauseMs = 200;
constexpr int kLongestPauseMs = 5000;
// Ticks without a new record before the transport is asked to confirm the
// rest (RELP then closes its session, to open a new one on the next record).
constexpr int kIdleTicksBeforeConfirm = 10;
constexpr std::int64_t kCursorEveryMs = 100;

std::int64_t NowMs() {
    timespec t{};
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<std::int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

}  // namespace

Forwarder::Forwarder(const Options& o, const RolledSet& set, Transport& transport,
                     std::function<void(const std::string&)> note)
    : o_(o),
      transport_(transport),
      note_(std::move(note)),
      what_(o.forward.empty() ? "standard output" : o.forward),
      dir_(set.dir),
      filter_(o),
      formatter_(o, false),
      encoder_(o.facility, o.hostname),
      source_([this](WalkedRecord& r, const SourceFile& f, std::uint64_t offset) {
          OnRecord(r, f, offset);
      }),
      reader_(set, source_) {}

void Forwarder::OnRecord(WalkedRecord& r, const SourceFile& file, std::uint64_t offset) {
    const RecordPos pos{file.id, offset};
    if (skipping_) {
        skipping_ = false;
        if (pos == skip_) return;  // delivered before the restart
    }
    if (CrashFrames::IsReport(r)) frames_.Name(r);
    if (!filter_.Passes(r)) return;
    const bool typed = (r.head.flags & kBinaryFlag) == 0 && r.head.valueType != 0;
    std::string rendered;
    if (typed || filter_.NeedsGrep()) rendered = formatter_.Content(r);
    if (filter_.NeedsGrep() && !filter_.GrepMatches(r, rendered)) return;
    pending_.push_back(Message{std::string(), pos});
    encoder_.Append(r, rendered, pos, pending_.back().text);
}

void Forwarder::PopConfirmed() {
    const std::size_t unconfirmed = std::min(sent_, transport_.Unconfirmed());
    for (std::size_t n = sent_ - unconfirmed; n > 0; --n) {
        cursor_ = pending_.front().pos;
        cursorDirty_ = true;
        pending_.pop_front();
        --sent_;
        ++forwarded_;
    }
}

void Forwarder::SaveCursor() {
    if (!cursorDirty_ || o_.cursorFile.empty()) return;
    WriteCursor(o_.cursorFile, cursor_);
    cursorDirty_ = false;
    savedMs_ = NowMs();
}

std::int64_t Forwarder::SinceCursorMs() const {
    return NowMs() - savedMs_;
}

void Forwarder::Lost(std::uint64_t records) {
    if (records == 0) return;
    note_("WARN: the log rolled past " + std::to_string(records) +
          " records before they were forwarded to " + what_ + ": they are lost");
}

void Forwarder::ReportDamage() {
    const std::string text = damage_.Text(source_);
    if (!o_.quiet && !text.empty()) note_(text);
}

bool Forwarder::Pause(int ms, const volatile std::sig_atomic_t& stop) {
    for (int waited = 0; waited < ms && stop == 0; waited += kTickMs) {
        timespec tick{0, kTickMs * 1000000L};
        ::nanosleep(&tick, nullptr);
        Lost(reader_.Watch());
    }
    return stop == 0;
}

bool Forwarder::Deliver(const volatile std::sig_atomic_t& stop, bool confirm) {
    int pause = kFirstPauseMs;
    bool away = false;
    for (;;) {
        try {
            while (sent_ < pending_.size()) {
                transport_.Send(pending_[sent_].text);
                ++sent_;
                // A long batch moves the cursor on the way, so a forwarder
                // killed outright sends little again.
                if (sent_ % 256 == 0 && SinceCursorMs() >= kCursorEveryMs) {
                    PopConfirmed();
                    SaveCursor();
                }
            }
            transport_.Flush();
            if (confirm) transport_.Confirm();
            PopConfirmed();
            SaveCursor();
            if (away) note_(what_ + " takes messages again");
            return true;
        } catch (const TransportError& e) {
            sent_ -= std::min(sent_, transport_.Reset());
            PopConfirmed();
            SaveCursor();
            if (!away) {
                note_("cannot forward to " + what_ + ": " + e.what() + "; trying again");
                away = true;
            }
            if (!Pause(pause, stop)) return false;
            pause = std::min(pause * 2, kLongestPauseMs);
        }
    }
}

bool Forwarder::Run(const volatile std::sig_atomic_t& stop) {
    RecordPos from;
    bool resume = false;
    if (!o_.cursorFile.empty()) {
        std::string problem;
        switch (ReadCursor(o_.cursorFile, from, problem)) {
            case CursorState::kValid:
                resume = true;
                break;
            case CursorState::kDamaged:
                note_("WARN: cursor file " + o_.cursorFile + " is damaged (" + problem +
                      "): forwarding from the oldest file");
                break;
            case CursorState::kMissing:
                break;
        }
    }
    if (resume) {
        skip_ = from;
        skipping_ = true;
        cursor_ = from;
    }
    // A service may start before the runtime made the log directory.
    for (bool said = false; o_.follow && stop == 0; said = true) {
        try {
            ListRolledSet(dir_);
            break;
        } catch (const Error& e) {
            if (!said) note_(std::string(e.what()) + "; waiting for it");
        }
        Pause(kTickMs, stop);
    }
    if (stop != 0) return o_.follow;
    if (!reader_.Start(resume ? &from : nullptr)) {
        skipping_ = false;
        note_(
            "WARN: the log rolled past the cursor while nothing was forwarded: the records "
            "after it, in a file no longer in " +
            dir_ + ", are lost; forwarding from the oldest file");
    }

    bool complete = false;
    int idle = 0;
    while (stop == 0) {
        Lost(reader_.Watch());
        const bool more = reader_.ReadSome();
        if (!more && !o_.follow) source_.EndOfStream();
        if (!pending_.empty() && sent_ < pending_.size() && !Deliver(stop, false)) break;
        ReportDamage();
        if (more) {
            idle = 0;
            continue;
        }
        if (!o_.follow) {
            complete = Deliver(stop, true);
            break;
        }
        if (++idle >= kIdleTicksBeforeConfirm && !pending_.empty()) {
            if (!Deliver(stop, true)) break;
            idle = 0;
        }
        if (!Pause(kTickMs, stop)) break;
    }
    if (!complete && !pending_.empty()) {
        // Stopped: what the collector confirms now need not be sent again.
        try {
            transport_.Flush();
            transport_.Confirm();
            PopConfirmed();
        } catch (const TransportError&) {
        }
    }
    SaveCursor();
    return complete || o_.follow;
}

}  // namespace PF::Utils::LOG::zmlog
