// A helper step that damages the shared ring as any process that may write it
// could, "attack=<kind>": "attacked at <us>". Kinds: geometry (capacity and mask
// beyond the mapping, 1.75 GiB published), unpublished (a reservation never
// published), switches (out of range), level (7), zero-capacity, random-header
// (48 random bytes), random-records (4 KiB of random bytes published),
// extra-posts (three more on "/WriteLOG"), lock-exit (takes it and exits).
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>

#include <random>

#include "helpers/Steps.h"
#include "log/RingHead.h"

using namespace PF::Utils::LOG;
using namespace zmhelper;

namespace {

// The fields by their offsets, as another program would write them.
struct RawHeader {
    unsigned long vtable;
    unsigned active, level, mask, capacity, prodHead, prodTail, consHead, consTail;
    unsigned long componentMask;
};
static_assert(sizeof(RawHeader) == 48);

void Attack(const std::string&, const std::string& kind) {
    const int fd = shm_open("ZMLOG", O_RDWR, 0);
    sem_t* lock = sem_open("/WriteLOG", 0);
    if (fd < 0 || lock == SEM_FAILED) return Say("no ring");
    auto* base =
        static_cast<char*>(mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    auto* h = reinterpret_cast<volatile RawHeader*>(base);
    std::mt19937_64 random(std::random_device{}());
    const auto nowUs = std::chrono::duration_cast<std::chrono::microseconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
    if (kind == "geometry") {
        h->capacity = 0x80000000U;
        h->mask = 0x7fffffffU;
        h->prodTail = h->consHead + 0x70000000U;
        h->prodHead = h->prodTail;
    } else if (kind == "unpublished") {
        h->prodHead = h->prodTail + 100;
    } else if (kind == "switches") {
        h->active = 7;
        h->level = 99;
    } else if (kind == "level") {
        h->level = 7;  // one past the last level
    } else if (kind == "zero-capacity") {
        h->capacity = 0;
    } else if (kind == "random-header") {
        for (size_t i = 0; i < sizeof(RawHeader); ++i)
            reinterpret_cast<volatile unsigned char*>(base)[i] =
                static_cast<unsigned char>(random());
    } else if (kind == "random-records") {
        sem_wait(lock);
        const unsigned cap = static_cast<unsigned>(kSegmentSize - 48);
        const unsigned at = h->prodTail;
        for (unsigned i = 0; i < 4096; ++i)
            base[48 + ((at + i) & (cap - 1))] = static_cast<char>(random());
        h->prodHead = at + 4096;
        h->prodTail = at + 4096;
        sem_post(lock);
    } else if (kind == "extra-posts") {
        for (int i = 0; i < 3; ++i) sem_post(lock);
    } else if (kind == "lock-exit") {
        sem_wait(lock);
    } else {
        return Say("unknown attack " + kind);
    }
    Say("attacked at " + std::to_string(nowUs));
    if (kind == "lock-exit") _exit(0);
}

ZMHELPER_STEP("attack", Attack);

}  // namespace
