// qmtshmrm.cpp - the resource shared memory: per resource, keyed by monitor type and name, the
// last progress code and the last status description.
#include "qmtshm.h"
#include "qmtshm_admin.h"
#include "qmtshm_codes.h"
#include "shm_layout.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <shared_mutex>

namespace {

using namespace qmtshm;

Attachment &att()
{
    static Attachment a;
    return a;
}

void setup_rm(void *addr)
{
    auto *seg = static_cast<RmSegment *>(addr);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&seg->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    seg->capacity = kRmEntries;
    seg->count.store(0, std::memory_order_relaxed);
}

RmSegment *seg(Attachment &a)
{
    return static_cast<RmSegment *>(a.map.addr);
}

void write_entry(RmEntry &e, const RmData &d)
{
    uint64_t words[kRmWords];
    std::memcpy(words, &d, sizeof d);
    uint32_t s = e.seq.load(std::memory_order_relaxed);
    e.seq.store(s + 1, std::memory_order_relaxed);
    // Release on every word: a reader that sees any new word also sees the odd sequence.
    for (size_t i = 0; i < kRmWords; ++i)
        e.words[i].store(words[i], std::memory_order_release);
    e.seq.store(s + 2, std::memory_order_release);
}

// Only the writer holding the mutex calls this, so nothing changes under it.
void load_entry_as_writer(const RmEntry &e, RmData &d)
{
    uint64_t words[kRmWords];
    for (size_t i = 0; i < kRmWords; ++i)
        words[i] = e.words[i].load(std::memory_order_relaxed);
    std::memcpy(&d, words, sizeof d);
}

// A writer that died holding the mutex may have left an entry half written: close its seqlock so
// readers are not kept waiting. A half-made new entry is invisible (count was not raised).
int lock_writer(RmSegment *s)
{
    int rc = pthread_mutex_lock(&s->mutex);
    if (rc == EOWNERDEAD) {
        for (size_t i = 0; i < kRmEntries; ++i) {
            uint32_t q = s->entries[i].seq.load(std::memory_order_relaxed);
            if (q & 1u)
                s->entries[i].seq.store(q + 1, std::memory_order_release);
        }
        rc = pthread_mutex_consistent(&s->mutex);
    }
    return rc == 0 ? 0 : QMTSHM_E_SYSTEM;
}

bool valid_key(const char *type, const char *name)
{
    return type && name && *type && *name && std::strlen(type) < kTypeLen &&
           std::strlen(name) < kNameLen;
}

// Finds the entry of type/name or makes one; -1 when the table is full.
int find_or_add(RmSegment *s, const char *type, const char *name, RmData &d)
{
    uint32_t n = s->count.load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < n; ++i) {
        load_entry_as_writer(s->entries[i], d);
        if (std::strncmp(d.type, type, kTypeLen) == 0 && std::strncmp(d.name, name, kNameLen) == 0)
            return static_cast<int>(i);
    }
    if (n >= s->capacity || n >= kRmEntries)
        return -1;
    std::memset(&d, 0, sizeof d);
    std::strncpy(d.type, type, kTypeLen - 1);
    std::strncpy(d.name, name, kNameLen - 1);
    write_entry(s->entries[n], d);
    s->count.store(n + 1, std::memory_order_release);
    return static_cast<int>(n);
}

template <class F> int update(const char *type, const char *name, F &&change)
{
    if (!valid_key(type, name))
        return QMTSHM_E_INVALID_PARAMETER;
    Attachment &a = att();
    std::shared_lock lk(a.mu);
    if (a.refs == 0)
        return QMTSHM_E_NOT_ATTACHED;
    RmSegment *s = seg(a);
    int rc = lock_writer(s);
    if (rc != 0)
        return rc;
    RmData d;
    int idx = find_or_add(s, type, name, d);
    if (idx < 0) {
        pthread_mutex_unlock(&s->mutex);
        return QMTSHM_E_TABLE_FULL;
    }
    change(d);
    d.update_time_ms = wall_ms();
    write_entry(s->entries[idx], d);
    pthread_mutex_unlock(&s->mutex);
    return 0;
}

int list_from(const RmSegment *s, QmtShmRmEntry *out, int max, int *count)
{
    uint32_t total = s->count.load(std::memory_order_acquire);
    if (total > kRmEntries)
        total = kRmEntries;
    uint32_t n = total < static_cast<uint32_t>(max) ? total : static_cast<uint32_t>(max);
    for (uint32_t i = 0; i < n; ++i) {
        RmData d;
        if (!read_entry(s->entries[i], d))
            return QMTSHM_E_BUSY;
        QmtShmRmEntry &o = out[i];
        std::memset(&o, 0, sizeof o);
        std::memcpy(o.type, d.type, kTypeLen - 1);
        std::memcpy(o.name, d.name, kNameLen - 1);
        o.progress = d.progress;
        o.progress_tick = d.progress_tick;
        o.progress_time_ms = d.progress_time_ms;
        o.update_time_ms = d.update_time_ms;
        std::memcpy(o.descript, d.descript, kDescLen - 1);
        o.descript_len = d.descript_len;
    }
    *count = static_cast<int>(total);
    return total > static_cast<uint32_t>(max) ? QMTSHM_E_INSUFFICIENT_BUFFER : 0;
}

}  // namespace

extern "C" {

QMTSHM_API int WINAPI shmrm_attach(void)
{
    Attachment &a = att();
    std::unique_lock lk(a.mu);
    return attach_locked(a, "_rm", sizeof(RmSegment), kMagicRm, setup_rm);
}

QMTSHM_API int WINAPI shmrm_detach(void)
{
    Attachment &a = att();
    std::unique_lock lk(a.mu);
    return detach_locked(a);
}

// text is kept up to its NUL or `length` bytes, whichever comes first, and at most 255 bytes.
QMTSHM_API int WINAPI shmrm_setdescript(void *reserved, const char *type, const char *name,
                                        const char *text, int length)
{
    (void)reserved;
    if (length < 0 || (!text && length > 0))
        return QMTSHM_E_INVALID_PARAMETER;
    size_t n = text ? strnlen(text, static_cast<size_t>(length)) : 0;
    if (n > kDescLen - 1)
        n = kDescLen - 1;
    return update(type, name, [&](RmData &d) {
        std::memset(d.descript, 0, sizeof d.descript);
        if (n)
            std::memcpy(d.descript, text, n);
        d.descript_len = static_cast<int32_t>(n);
    });
}

QMTSHM_API int WINAPI shmrm_setmonprogress(const char *type, const char *name, int progress)
{
    return update(type, name, [&](RmData &d) {
        d.progress = progress;
        d.progress_tick = tick_ms();
        d.progress_time_ms = wall_ms();
    });
}

QMTSHM_API int shmrm_list(struct QmtShmRmEntry *out, int max, int *count)
{
    if (!count || max < 0 || (!out && max > 0))
        return QMTSHM_E_INVALID_PARAMETER;
    Attachment &a = att();
    {
        std::shared_lock lk(a.mu);
        if (a.refs > 0)
            return list_from(seg(a), out, max, count);
    }
    Mapping m;
    int rc = map_existing(segment_name("_rm"), sizeof(RmSegment), kMagicRm, false, m);
    if (rc != 0)
        return rc;
    rc = list_from(static_cast<const RmSegment *>(m.addr), out, max, count);
    unmap(m);
    return rc;
}

QMTSHM_API int shmrm_exists(void)
{
    return segment_exists(segment_name("_rm")) ? 1 : 0;
}

}  // extern "C"
