#include "writer/RateLimit.h"

#include <atomic>
#include <cstdlib>

#include "log/ConfManager.h"
#include "writer/RecordGate.h"

namespace PF::Utils::LOG::detail {
namespace {

std::atomic<unsigned long> gBurst{0};
std::atomic<std::int64_t> gIntervalUs{0};
std::atomic<std::int64_t> gWindowStartUs{0};
std::atomic<unsigned long> gInWindow{0};

}  // namespace

void SetProcessRateLimit(unsigned long burst, long intervalMs) {
    const bool on = burst != 0 && intervalMs > 0;
    gBurst.store(on ? burst : 0);
    gIntervalUs.store(on ? intervalMs * 1000L : 0);
    gWindowStartUs.store(0);
    gInWindow.store(0);
    RecomputeSlowPath();
}

void ApplyRateLimitKeys() {
    const auto number = [](const char* key) {
        const auto it = ConfManager::mp.find(key);
        return it == ConfManager::mp.end() ? 0L : std::strtol(it->second.c_str(), nullptr, 10);
    };
    const long burst = number("rateLimitBurst");
    SetProcessRateLimit(burst > 0 ? static_cast<unsigned long>(burst) : 0,
                        number("rateLimitIntervalMs"));
}

bool ProcessLimitOn() {
    return gBurst.load(std::memory_order_relaxed) != 0;
}

// A fixed window: at most burst records from its start; a record past the
// window's end opens the next one. Threads racing at the boundary may let a
// record or two more through; every one not let through is counted.
bool AdmitUnderProcessLimit(std::int64_t timeUs) {
    std::int64_t start = gWindowStartUs.load(std::memory_order_relaxed);
    if (timeUs - start >= gIntervalUs.load(std::memory_order_relaxed) &&
        gWindowStartUs.compare_exchange_strong(start, timeUs, std::memory_order_relaxed))
        gInWindow.store(0, std::memory_order_relaxed);
    return gInWindow.fetch_add(1, std::memory_order_relaxed) <
           gBurst.load(std::memory_order_relaxed);
}

}  // namespace PF::Utils::LOG::detail
