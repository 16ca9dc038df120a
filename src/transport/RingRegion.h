// The one place in this process's address space where its ring lives. A
// ring that is given up is replaced there by zero pages, never unmapped or
// freed: a thread that still holds a pointer to the header (a logging call
// racing with exit, release or re-attach) reads "logging off" instead of
// faulting. The next ring of the same size is mapped at the same place.
#pragma once

#include <cstddef>

namespace PF::Utils::LOG::RingRegion {

// The shared object behind fd, or a private zeroed block; MAP_FAILED
// (MapShared) or null (MapPrivate) on failure.
void* MapShared(int fd, std::size_t size);
void* MapPrivate(std::size_t size);
// Gives the ring at address up: its pages go, zero pages take their place.
void Park(void* address, std::size_t size);

}  // namespace PF::Utils::LOG::RingRegion
