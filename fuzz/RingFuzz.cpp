// The ring's operations over a header and data area of arbitrary bytes, as
// another process of the installation may leave them, with more damage laid
// over the header between the operations: writers' records, the archiver's
// drains through its guard, Empty, the checks. Every copy must stay inside
// the ring this process mapped and the buffers it owns (AddressSanitizer
// guards their edges), and ten drains in a row must leave the ring whole.
#include <semaphore.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "log/ConfManager.h"
#include "log/RingHead.h"
#include "transport/RingGuard.h"
#include "transport/SemManager.h"

using namespace PF::Utils::LOG;

namespace {

constexpr unsigned kHeader = 48;
constexpr unsigned kCapacity = 4096;

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool Done() const { return at_ >= size_; }
    std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
    std::uint32_t Word() {
        std::uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = v << 8 | Byte();
        return v;
    }
    void Bytes(char* out, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<char>(Byte());
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

sem_t gLock;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = [] {
        sem_init(&gLock, 0, 1);
        SemManager::sem = &gLock;
        ConfManager::outputMode = false;
        return true;
    }();
    (void)ready;
    Input in(data, size);
    // Exactly the ring and the buffers: one byte past either is a report.
    auto mapping = std::make_unique<char[]>(kHeader + kCapacity);  // zeroed
    auto buffer = std::make_unique<char[]>(kCapacity);
    auto record = std::make_unique<char[]>(3 * kCapacity);
    in.Bytes(mapping.get(), kHeader);
    auto* ring = reinterpret_cast<RingHead*>(mapping.get());
    RingHead::Adopt(mapping.get(), kHeader + kCapacity);
    RingHead::instance = ring;
    RingGuard guard;

    while (!in.Done()) {
        switch (in.Byte() % 7) {
            case 0: {  // a writer's record, up to three rings long
                const unsigned len = (in.Byte() * 48U) % (3 * kCapacity);
                in.Bytes(record.get(), len < 64 ? len : 64);
                ring->EnqueueWithin(record.get(), len, kLockTimeoutNs);
                break;
            }
            case 1:
                ring->Dequeue(buffer.get(), kCapacity);
                break;
            case 2: {  // ten ticks of the archiver: the ring is whole after
                for (int tick = 0; tick < RingGuard::kRepairAfterTicks; ++tick)
                    guard.Drain(ring, buffer.get(), kCapacity);
                if (!ring->Sane() || !ring->CheckValid()) std::abort();
                break;
            }
            case 3:
                ring->Empty();
                break;
            case 4:
                (void)ring->Count();
                (void)ring->CheckValid();
                (void)ring->Sane();
                break;
            default: {  // another process writes a header field
                const unsigned offset = 8 + in.Byte() % (kHeader - 8) / 4 * 4;
                const std::uint32_t value = in.Word();
                std::memcpy(mapping.get() + offset, &value, sizeof value);
                break;
            }
        }
    }
    RingHead::instance = nullptr;
    RingHead::Adopt(nullptr, 0);
    // The lock free once, whatever the guard found.
    while (sem_trywait(&gLock) == 0) {
    }
    sem_post(&gLock);
    return 0;
}
