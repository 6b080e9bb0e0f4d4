// qmtshmrm.cpp - the resource shared memory: per resource, keyed by monitor type and name, the
// last progress code and status description, and the process that wrote them.
#include "qmtshm.h"
#include "qmtshm_admin.h"
#include "qmtshm_codes.h"
#include "shm_layout.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>

namespace {

using namespace qmtshm;

// How long a writer waits for another writer's hold on the table before it gives up.
constexpr long kLockWaitMs = 2000;

// Made when the library is loaded, not on first use: the guard of a first-use static would keep a
// system handle that outlives the unloaded DLL on Windows.
Attachment g_att;

Attachment &att()
{
    return g_att;
}

// QMT_SHM_ENTRIES, when set, sizes a new table.
uint32_t create_capacity()
{
    const char *v = std::getenv("QMT_SHM_ENTRIES");
    if (!v || !*v)
        return kRmDefaultEntries;
    char *end = nullptr;
    long n = std::strtol(v, &end, 10);
    if (*end != '\0' || n < static_cast<long>(kRmMinEntries) || n > static_cast<long>(kRmMaxEntries))
        return kRmDefaultEntries;
    return static_cast<uint32_t>(n);
}

Layout rm_layout()
{
    return Layout{kMagicRm, kRmHeaderSize, sizeof(RmEntry), create_capacity(), writer_lock_init};
}

RmHeader *seg(Attachment &a)
{
    return static_cast<RmHeader *>(a.map.addr);
}

void write_entry(RmEntry &e, const RmData &d)
{
    uint64_t words[kRmWords];
    std::memcpy(words, &d, sizeof d);
    uint32_t s = e.seq.load(std::memory_order_relaxed) & ~1u;
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

// An entry's type and name as its words hold them: zero-padded, as every writer leaves them.
struct Key {
    uint64_t words[kKeyWords] = {};
    Key(const char *type, const char *name)
    {
        char bytes[kTypeLen + kNameLen] = {};
        std::strncpy(bytes, type, kTypeLen - 1);
        std::strncpy(bytes + kTypeLen, name, kNameLen - 1);
        std::memcpy(words, bytes, sizeof words);
    }
    bool matches(const RmEntry &e) const
    {
        for (size_t i = 0; i < kKeyWords; ++i)
            if (e.words[i].load(std::memory_order_relaxed) != words[i])
                return false;
        return true;
    }
};

bool is_free(const RmEntry &e)
{
    char first[sizeof(uint64_t)];
    uint64_t w = e.words[0].load(std::memory_order_relaxed);
    std::memcpy(first, &w, sizeof w);
    return first[0] == '\0';
}

// Takes the writers' mutex, waiting at most kLockWaitMs. A writer that died holding it may have left
// an entry half written: its sequence is closed so that readers are not kept waiting.
int lock_writer(Attachment &a)
{
    LockResult r = writer_lock_acquire(a.map, kLockWaitMs);
    if (r == LockResult::owner_died) {
        RmEntry *entries = rm_entries(seg(a));
        for (uint32_t i = 0; i < a.capacity; ++i) {
            uint32_t q = entries[i].seq.load(std::memory_order_relaxed);
            if (q & 1u)
                entries[i].seq.store(q + 1, std::memory_order_release);
        }
        r = writer_lock_consistent(a.map) ? LockResult::locked : LockResult::failed;
    }
    if (r == LockResult::timeout)
        return QMTSHM_E_TIMEOUT;
    return r == LockResult::locked ? 0 : QMTSHM_E_SYSTEM;
}

bool valid_key(const char *type, const char *name)
{
    return type && name && *type && *name && strnlen(type, kTypeLen) < kTypeLen &&
           strnlen(name, kNameLen) < kNameLen;
}

// Finds the entry of type/name or makes one, with the mutex held; -1 when the table is full. The
// writer remembers each of its entries, so only a resource's first write looks through the table;
// a free entry, or failing that one whose writer is gone, is taken for a new resource.
int find_or_add(Attachment &a, const char *type, const char *name, RmData &d)
{
    RmEntry *entries = rm_entries(seg(a));
    const Key key(type, name);
    std::string cache_key = std::string(type) + '\0' + name;
    if (auto it = a.slots.find(cache_key); it != a.slots.end() && it->second < a.capacity) {
        if (key.matches(entries[it->second])) {
            load_entry_as_writer(entries[it->second], d);
            return static_cast<int>(it->second);
        }
        a.slots.erase(it);  // taken over since: look again
    }
    long slot = -1;
    for (uint32_t i = 0; i < a.capacity; ++i) {
        if (key.matches(entries[i])) {
            load_entry_as_writer(entries[i], d);
            a.slots[cache_key] = i;
            return static_cast<int>(i);
        }
        if (slot < 0 && is_free(entries[i]))
            slot = i;
    }
    if (slot < 0) {
        std::map<std::pair<int32_t, uint64_t>, bool> alive;  // one look in /proc per writer
        for (uint32_t i = 0; i < a.capacity && slot < 0; ++i) {
            load_entry_as_writer(entries[i], d);
            auto who = std::make_pair(d.writer_pid, d.writer_start);
            auto it = alive.find(who);
            if (it == alive.end())
                it = alive.emplace(who, process_alive(d.writer_pid, d.writer_start)).first;
            if (!it->second)
                slot = i;
        }
    }
    if (slot < 0)
        return -1;
    std::memset(&d, 0, sizeof d);
    std::memcpy(&d, key.words, sizeof key.words);
    a.slots[cache_key] = static_cast<uint32_t>(slot);
    return static_cast<int>(slot);
}

template <class F> int update(const char *type, const char *name, F &&change)
{
    if (!valid_key(type, name))
        return QMTSHM_E_INVALID_PARAMETER;
    Attachment &a = att();
    std::shared_lock lk(a.mu);
    if (a.refs == 0)
        return QMTSHM_E_NOT_ATTACHED;
    int rc = lock_writer(a);
    if (rc != 0)
        return rc;
    RmData d;
    int idx = find_or_add(a, type, name, d);
    if (idx < 0) {
        writer_lock_release(a.map);
        return QMTSHM_E_TABLE_FULL;
    }
    change(d);
    d.update_time_ms = wall_ms();
    d.writer_pid = self_pid();
    d.writer_start = self_start();
    write_entry(rm_entries(seg(a))[idx], d);
    writer_lock_release(a.map);
    return 0;
}

// Runs `use` on a snapshot of the table: this process's mapping when attached, else a read-only
// mapping of its own (never creating the segment).
template <class F> int with_snapshot(F &&use)
{
    RmSnapshot snap;
    Attachment &a = att();
    {
        std::shared_lock lk(a.mu);
        if (a.refs > 0) {
            int rc = read_rm(a.map.addr, a.map.size, snap);
            return rc != 0 ? rc : use(snap);
        }
    }
    Mapping m;
    int rc = map_existing(segment_name("_rm"), rm_layout(), m);
    if (rc != 0)
        return rc;
    rc = read_rm(m.addr, m.size, snap);
    unmap(m);
    return rc != 0 ? rc : use(snap);
}

void to_entry(const RmData &d, bool stale, QmtShmRmEntry &o)
{
    std::memset(&o, 0, sizeof o);
    std::memcpy(o.type, d.type, kTypeLen);
    std::memcpy(o.name, d.name, kNameLen);
    o.progress = d.progress;
    o.progress_tick = d.progress_tick;
    o.progress_time_ms = d.progress_time_ms;
    o.update_time_ms = d.update_time_ms;
    std::memcpy(o.descript, d.descript, kDescLen);
    o.descript_len = d.descript_len;
    o.writer_pid = d.writer_pid;
    o.writer_start = d.writer_start;
    o.stale = stale ? 1 : 0;
}

}  // namespace

extern "C" {

QMTSHM_API int WINAPI shmrm_attach(void)
{
    Attachment &a = att();
    std::unique_lock lk(a.mu);
    return attach_locked(a, "_rm", rm_layout());
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
    return with_snapshot([&](const RmSnapshot &snap) {
        std::map<std::pair<int32_t, uint64_t>, bool> alive;
        size_t n = snap.entries.size() < static_cast<size_t>(max) ? snap.entries.size() : static_cast<size_t>(max);
        for (size_t i = 0; i < n; ++i) {
            const RmData &d = snap.entries[i];
            auto who = std::make_pair(d.writer_pid, d.writer_start);
            auto it = alive.find(who);
            if (it == alive.end())
                it = alive.emplace(who, process_alive(d.writer_pid, d.writer_start)).first;
            to_entry(d, !it->second, out[i]);
        }
        *count = static_cast<int>(snap.entries.size());
        if (snap.damaged > 0)
            return QMTSHM_E_DAMAGED;
        return snap.entries.size() > static_cast<size_t>(max) ? QMTSHM_E_INSUFFICIENT_BUFFER : 0;
    });
}

QMTSHM_API int shmrm_info(struct QmtShmRmInfo *info)
{
    if (!info)
        return QMTSHM_E_INVALID_PARAMETER;
    return with_snapshot([&](const RmSnapshot &snap) {
        std::memset(info, 0, sizeof *info);
        info->capacity = static_cast<int>(snap.capacity);
        info->used = static_cast<int>(snap.entries.size());
        info->damaged = static_cast<int>(snap.damaged);
        return 0;
    });
}

QMTSHM_API int shmrm_exists(void)
{
    return segment_exists(segment_name("_rm")) ? 1 : 0;
}

}  // extern "C"
