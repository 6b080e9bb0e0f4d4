// Per-thread last error and the per-function fault injection that tests use to make one call fail.
#include "internal.h"
#include "qmtplat.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

thread_local DWORD t_last_error = ERROR_SUCCESS;

// Counters are never removed (clearing zeroes them), so their addresses stay valid and each
// thread can remember which counter a call site's name string leads to.
struct Counter {
    std::atomic<unsigned> calls{0};
    std::atomic<unsigned> fail_at{0}; // call number that fails; 0 = nothing armed
    std::atomic<DWORD> error{0};
};

struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

struct Faults {
    std::mutex lock;
    std::unordered_map<std::string, std::unique_ptr<Counter>, NameHash, std::equal_to<>> counters;

    Counter &get(std::string_view name) {
        std::lock_guard<std::mutex> g(lock);
        auto it = counters.find(name);
        if (it == counters.end())
            it = counters.emplace(std::string(name), std::make_unique<Counter>()).first;
        return *it->second;
    }
};

// Never destroyed: threads may still call into the layer while the process exits.
Faults &faults() {
    static Faults *f = new Faults;
    return *f;
}

// Call sites pass string literals: their address finds the counter without hashing the text.
// A fixed open-addressed table, filled under the lock and read without it; entries are never
// removed, and a full table just falls back to the lookup by text.
constexpr size_t kSites = 512;
struct Site {
    std::atomic<const char *> name{nullptr};
    std::atomic<Counter *> counter{nullptr};
};
Site g_sites[kSites];

Counter &counter_for_site(const char *function) {
    const size_t start = (reinterpret_cast<uintptr_t>(function) >> 3) % kSites;
    for (size_t n = 0; n < kSites; ++n) {
        Site &site = g_sites[(start + n) % kSites];
        const char *name = site.name.load(std::memory_order_acquire);
        if (name == function)
            return *site.counter.load(std::memory_order_acquire);
        if (name == nullptr)
            break;
    }
    Faults &f = faults();
    std::lock_guard<std::mutex> g(f.lock);
    auto it = f.counters.find(std::string_view(function));
    if (it == f.counters.end())
        it = f.counters.emplace(std::string(function), std::make_unique<Counter>()).first;
    Counter *c = it->second.get();
    for (size_t n = 0; n < kSites; ++n) {
        Site &site = g_sites[(start + n) % kSites];
        const char *name = site.name.load(std::memory_order_acquire);
        if (name == function)
            break;
        if (name == nullptr) {
            site.counter.store(c, std::memory_order_release);
            site.name.store(function, std::memory_order_release);
            break;
        }
    }
    return *c;
}

} // namespace

namespace qmtp {

bool fault_hit(const char *function, DWORD *error) {
    Counter &c = counter_for_site(function ? function : "");
    const unsigned call = c.calls.fetch_add(1, std::memory_order_acq_rel) + 1;
    unsigned armed = c.fail_at.load(std::memory_order_acquire);
    if (armed == 0 || armed != call || !c.fail_at.compare_exchange_strong(armed, 0, std::memory_order_acq_rel))
        return false;
    *error = c.error.load(std::memory_order_acquire);
    return true;
}

} // namespace qmtp

extern "C" {

DWORD WINAPI GetLastError(void) { return t_last_error; }

void WINAPI SetLastError(DWORD error) { t_last_error = error; }

void qmtp_fault_set(const char *function, unsigned nth, DWORD error) {
    if (!function)
        return;
    Counter &c = faults().get(function);
    c.error.store(error, std::memory_order_release);
    c.fail_at.store(nth == 0 ? 0 : c.calls.load(std::memory_order_acquire) + nth, std::memory_order_release);
}

void qmtp_fault_clear(void) {
    Faults &f = faults();
    std::lock_guard<std::mutex> g(f.lock);
    for (auto &entry : f.counters) {
        entry.second->fail_at.store(0, std::memory_order_release);
        entry.second->calls.store(0, std::memory_order_release);
    }
}

unsigned qmtp_call_count(const char *function) {
    if (!function)
        return 0;
    Faults &f = faults();
    std::lock_guard<std::mutex> g(f.lock);
    auto it = f.counters.find(std::string_view(function));
    return it == f.counters.end() ? 0 : it->second->calls.load(std::memory_order_acquire);
}

} // extern "C"
