#include "transport/RingRegion.h"

#include <sys/mman.h>

namespace PF::Utils::LOG::RingRegion {
namespace {

// The region this process reserved, parked or in use. Only start-up and
// shut-down code changes it, one thread at a time.
void* gAddress = nullptr;
std::size_t gSize = 0;
bool gParked = false;

constexpr int kAnonymous = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;

// MAP_FIXED over the parked region when the size matches (its zero pages
// are released in the same step); anywhere otherwise, and an old region
// stays reserved as it is.
void* Map(std::size_t size, int flags, int fd) {
    const bool reuse = gParked && gSize == size;
    void* address = mmap(reuse ? gAddress : nullptr, size, PROT_READ | PROT_WRITE,
                         flags | (reuse ? MAP_FIXED : 0), fd, 0);
    if (address != MAP_FAILED) {
        gAddress = address;
        gSize = size;
        gParked = false;
    }
    return address;
}

}  // namespace

void* MapShared(int fd, std::size_t size) {
    return Map(size, MAP_SHARED, fd);
}

void* MapPrivate(std::size_t size) {
    void* address = Map(size, kAnonymous, -1);
    return address == MAP_FAILED ? nullptr : address;
}

void Park(void* address, std::size_t size) {
    if (address == nullptr || address == MAP_FAILED || size == 0) return;
    // On failure (no memory for the page tables) the ring stays mapped as it
    // was: still readable, just not released.
    if (mmap(address, size, PROT_READ | PROT_WRITE, kAnonymous | MAP_FIXED, -1, 0) == MAP_FAILED)
        return;
    if (address == gAddress) gParked = true;
}

}  // namespace PF::Utils::LOG::RingRegion
