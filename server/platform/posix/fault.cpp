// Per-thread last error and the per-function fault injection that tests use to make one call fail.
#include "internal.h"
#include "qmtplat.h"

#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

thread_local DWORD t_last_error = ERROR_SUCCESS;

struct Counter {
    unsigned calls = 0;
    unsigned fail_at = 0; // call number that fails; 0 = nothing armed
    DWORD error = 0;
};

struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

struct Faults {
    std::mutex lock;
    std::unordered_map<std::string, Counter, NameHash, std::equal_to<>> counters;

    Counter &get(std::string_view name) {
        auto it = counters.find(name);
        if (it == counters.end())
            it = counters.emplace(std::string(name), Counter{}).first;
        return it->second;
    }
};

// Never destroyed: threads may still call into the layer while the process exits.
Faults &faults() {
    static Faults *f = new Faults;
    return *f;
}

} // namespace

namespace qmtp {

bool fault_hit(const char *function, DWORD *error) {
    Faults &f = faults();
    std::lock_guard<std::mutex> g(f.lock);
    Counter &c = f.get(function ? function : "");
    ++c.calls;
    if (c.fail_at != 0 && c.calls == c.fail_at) {
        c.fail_at = 0;
        *error = c.error;
        return true;
    }
    return false;
}

} // namespace qmtp

extern "C" {

DWORD WINAPI GetLastError(void) { return t_last_error; }

void WINAPI SetLastError(DWORD error) { t_last_error = error; }

void qmtp_fault_set(const char *function, unsigned nth, DWORD error) {
    if (!function)
        return;
    Faults &f = faults();
    std::lock_guard<std::mutex> g(f.lock);
    Counter &c = f.get(function);
    c.fail_at = nth == 0 ? 0 : c.calls + nth;
    c.error = error;
}

void qmtp_fault_clear(void) {
    Faults &f = faults();
    std::lock_guard<std::mutex> g(f.lock);
    f.counters.clear();
}

unsigned qmtp_call_count(const char *function) {
    if (!function)
        return 0;
    Faults &f = faults();
    std::lock_guard<std::mutex> g(f.lock);
    auto it = f.counters.find(std::string_view(function));
    return it == f.counters.end() ? 0 : it->second.calls;
}

} // extern "C"
