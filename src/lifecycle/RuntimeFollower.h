// Whether this process, a writer attached to the runtime, follows runtime
// restarts by itself (see RuntimeFollower.cpp).
#pragma once

namespace PF::Utils::LOG {

void FollowTheRuntime(bool follow);

}  // namespace PF::Utils::LOG
