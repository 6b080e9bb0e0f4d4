// shm_segment.cpp - checking, attaching and reading the shared-memory segments; the system's side
// (creating and mapping them, clocks, processes) is in shm_posix.cpp and shm_win.cpp.
#include "shm_layout.h"

#include "qmtshm_codes.h"

#include <atomic>
#include <cstring>

namespace qmtshm {

long check_header(const void *mem, size_t available, const Layout &layout)
{
    if (available < layout.header_size || layout.header_size < sizeof(Header))
        return -1;
    const auto *h = static_cast<const Header *>(mem);
    if (h->state.load(std::memory_order_acquire) != kReady || h->magic != layout.magic ||
        h->version != kVersion || h->header_size != layout.header_size || h->entry_size != layout.entry_size)
        return -1;
    uint32_t capacity = h->capacity;
    if (layout.entry_size == 0 ? capacity != 0 : (capacity < kRmMinEntries || capacity > kRmMaxEntries))
        return -1;
    uint64_t size = uint64_t{layout.header_size} + uint64_t{capacity} * layout.entry_size;
    if (h->size != size || size > available)
        return -1;
    return static_cast<long>(capacity);
}

void init_header(void *mem, size_t size, const Layout &layout)
{
    auto *h = static_cast<Header *>(mem);
    h->state.store(kInit, std::memory_order_relaxed);
    h->magic = layout.magic;
    h->version = kVersion;
    h->header_size = layout.header_size;
    h->size = size;
    h->entry_size = layout.entry_size;
    h->capacity = layout.entry_size ? layout.create_capacity : 0;
    if (layout.setup)
        layout.setup(mem);
    h->state.store(kReady, std::memory_order_release);
}

int attach_locked(Attachment &a, const char *suffix, const Layout &layout)
{
    if (a.refs == 0) {
        int rc = map_create(segment_name(suffix), layout, a.map);
        if (rc != 0)
            return rc;
        a.capacity = static_cast<const Header *>(a.map.addr)->capacity;
        a.slots.clear();
    }
    ++a.refs;
    return 0;
}

int detach_locked(Attachment &a)
{
    if (a.refs == 0)
        return QMTSHM_E_NOT_ATTACHED;
    if (--a.refs == 0) {
        unmap(a.map);
        a.slots.clear();
        a.capacity = 0;
    }
    return 0;
}

bool read_entry(const RmEntry &e, RmData &out)
{
    uint64_t words[kRmWords];
    // A writer keeps an entry odd for well under a microsecond; an entry odd for longer belongs to
    // a writer that died in its write or to a damaged segment, and must not hold the reader up.
    for (int attempt = 0; attempt < 256; ++attempt) {
        uint32_t s1 = e.seq.load(std::memory_order_acquire);
        if (s1 & 1u) {
            if (attempt % 16 == 15)
                yield_thread();
            continue;
        }
        for (size_t i = 0; i < kRmWords; ++i)
            words[i] = e.words[i].load(std::memory_order_acquire);
        if (e.seq.load(std::memory_order_relaxed) == s1) {
            std::memcpy(&out, words, sizeof out);
            return true;
        }
    }
    return false;
}

bool sane_entry(RmData &d)
{
    bool ok = std::memchr(d.type, 0, kTypeLen) && std::memchr(d.name, 0, kNameLen) &&
              std::memchr(d.descript, 0, kDescLen) && d.name[0] != '\0' && d.descript_len >= 0 &&
              static_cast<size_t>(d.descript_len) == std::strlen(d.descript);
    d.type[kTypeLen - 1] = '\0';
    d.name[kNameLen - 1] = '\0';
    d.descript[kDescLen - 1] = '\0';
    if (d.descript_len < 0 || static_cast<size_t>(d.descript_len) > std::strlen(d.descript))
        d.descript_len = static_cast<int32_t>(std::strlen(d.descript));
    return ok;
}

int read_rm(const void *mem, size_t available, RmSnapshot &out)
{
    const Layout layout{kMagicRm, kRmHeaderSize, sizeof(RmEntry), 0, nullptr};
    long capacity = check_header(mem, available, layout);
    if (capacity < 0)
        return QMTSHM_E_BAD_SEGMENT;
    out = {};
    out.capacity = static_cast<uint32_t>(capacity);
    const RmEntry *entries = rm_entries(mem);
    for (long i = 0; i < capacity; ++i) {
        RmData d;
        if (!read_entry(entries[i], d)) {
            ++out.damaged;
            continue;
        }
        if (d.type[0] == '\0')
            continue;
        if (!sane_entry(d)) {
            ++out.damaged;
            continue;
        }
        out.entries.push_back(d);
    }
    return 0;
}

}  // namespace qmtshm
