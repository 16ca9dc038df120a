// Alternate signal stacks, so that a thread whose own stack overflowed can
// still run the crash report's handler on one of these.
#pragma once

namespace PF::Utils::LOG::detail {

// From now on threads get one: the calling thread at once, every other
// thread when it writes its first record (see ThreadIdCache.cpp).
void EnableSignalStacks();
// The calling thread's, unless it has one already (the application's own is
// kept). Returned to the system when the thread ends.
void GiveThreadSignalStack();

}  // namespace PF::Utils::LOG::detail
