// The millisecond tick: the monotonic clock plus a test-controlled offset, wrapping at 2^32.
#include "internal.h"
#include "qmtplat.h"

#include <atomic>
#include <chrono>

namespace {

std::atomic<DWORD> g_offset{0};
// While frozen, every reading is exactly g_frozen_value: boundary tests need the exact millisecond.
std::atomic<bool> g_frozen{false};
std::atomic<DWORD> g_frozen_value{0};

DWORD monotonic_ms() {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    return static_cast<DWORD>(ms.count());
}

} // namespace

DWORD qmtp::tick_count() {
    if (g_frozen.load(std::memory_order_acquire)) return g_frozen_value.load(std::memory_order_relaxed);
    return monotonic_ms() + g_offset.load(std::memory_order_relaxed);
}

extern "C" {

void qmtp_tick_freeze(DWORD value) {
    g_frozen_value.store(value, std::memory_order_relaxed);
    g_frozen.store(true, std::memory_order_release);
}

void qmtp_tick_thaw(void) {
    if (g_frozen.exchange(false)) qmtp_tick_set(g_frozen_value.load(std::memory_order_relaxed));
}

void qmtp_tick_set_offset(DWORD offset) { g_offset.store(offset, std::memory_order_relaxed); }

DWORD qmtp_tick_get_offset(void) { return g_offset.load(std::memory_order_relaxed); }

void qmtp_tick_set(DWORD value) { g_offset.store(value - monotonic_ms(), std::memory_order_relaxed); }

} // extern "C"
