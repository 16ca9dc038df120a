// The records a process could not write, counted per cause, and the notices
// that put them into the log, where whoever reads it sees the gap.
#pragma once

#include <cstdint>

namespace PF::Utils::LOG {

class RingHead;

namespace detail {

// Any loss not yet reported.
bool LossesPending();
// Writes the notice of the losses counted so far ("lost 112 records: lock
// busy 112, ring full 0, too long 0, rate limited 0, since 14:02:11.532"),
// waiting for the ring's lock at most lockTimeoutNs; the losses it reports
// are no longer counted.
void ReportLosses(std::int64_t nowUs, long lockTimeoutNs);
// Called with the ring's lock held when a record found the ring full and
// threw away its unread bytes: the ring-full notice and one with the byte
// count go in before the record, where the reader sees the discard.
void NoteRingEmptied(RingHead* ring, unsigned discardedBytes);

}  // namespace detail
}  // namespace PF::Utils::LOG
