// The global heap: fixed blocks only. Live blocks are remembered so that a stray or double
// GlobalFree fails with error 6 instead of corrupting memory, and so tests can count leaks.
#include "internal.h"
#include "qmtplat.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_set>

namespace {

constexpr SIZE_T kLargestBlock = static_cast<SIZE_T>(1) << 40;

struct Heap {
    std::mutex lock;
    std::unordered_set<void *> blocks;
};

Heap &heap() {
    static Heap *h = new Heap;
    return *h;
}

} // namespace

extern "C" {

HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T bytes) {
    QMTP_FAULT_POINT("GlobalAlloc", NULL);
    if ((flags & ~static_cast<UINT>(GMEM_FIXED | GMEM_ZEROINIT)) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return NULL;
    }
    // Far beyond any real request (and beyond what sanitizer allocators accept): refuse it here.
    if (bytes >= kLargestBlock) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return NULL;
    }
    const size_t size = bytes == 0 ? 1 : bytes;
    void *p = (flags & GMEM_ZEROINIT) ? std::calloc(1, size) : std::malloc(size);
    if (!p) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return NULL;
    }
    try {
        Heap &h = heap();
        std::lock_guard<std::mutex> g(h.lock);
        h.blocks.insert(p);
    } catch (...) {
        std::free(p);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return NULL;
    }
    return p;
}

HGLOBAL WINAPI GlobalFree(HGLOBAL mem) {
    QMTP_FAULT_POINT("GlobalFree", mem);
    if (mem == NULL)
        return NULL;
    {
        Heap &h = heap();
        std::lock_guard<std::mutex> g(h.lock);
        if (h.blocks.erase(mem) == 0) {
            SetLastError(ERROR_INVALID_HANDLE);
            return mem;
        }
    }
    std::free(mem);
    return NULL;
}

long qmtp_live_allocations(void) {
    Heap &h = heap();
    std::lock_guard<std::mutex> g(h.lock);
    return static_cast<long>(h.blocks.size());
}

} // extern "C"
