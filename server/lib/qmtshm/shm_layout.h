// shm_layout.h - the layout of both shared-memory segments and the helpers that map them.
// Shared by qmtshmcm and qmtshmrm (each gets its own copy, hidden) and by the tests.
#pragma once

#include <pthread.h>

#include <atomic>
#include <shared_mutex>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qmtshm {

inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kMagicCm = 0x4d43544dU;  // "MTCM"
inline constexpr uint32_t kMagicRm = 0x4d52544dU;  // "MTRM"

// Life of a segment: created zero-filled (kEmpty), set up by exactly one process (kInit), usable
// (kReady).
enum : uint32_t { kEmpty = 0, kInit = 1, kReady = 2 };

struct Header {
    std::atomic<uint32_t> state;
    uint32_t magic;
    uint32_t version;
    uint32_t size;  // bytes of the whole segment
};

// Cluster segment. Ratio and generation share one word so that a reader never pairs a ratio with
// the wrong generation: high 32 bits generation, low 32 bits ratio.
struct CmSegment {
    Header hdr;
    std::atomic<uint64_t> ratio_gen;
    std::atomic<int64_t> set_time_ms;  // wall clock of the last shmcm_setratio, 0 if never
};

inline constexpr size_t kRmEntries = 256;
inline constexpr size_t kTypeLen = 32;
inline constexpr size_t kNameLen = 64;
inline constexpr size_t kDescLen = 256;

// One resource's data, copied in and out of the shared words as a whole.
struct RmData {
    char type[kTypeLen];
    char name[kNameLen];
    int32_t progress;
    uint32_t progress_tick;
    int64_t progress_time_ms;
    int64_t update_time_ms;
    char descript[kDescLen];
    int32_t descript_len;
    int32_t reserved;
};
inline constexpr size_t kRmWords = sizeof(RmData) / sizeof(uint64_t);
static_assert(sizeof(RmData) % sizeof(uint64_t) == 0);

// Seqlock: odd while a writer changes the words; readers retry until they see the same even
// value before and after their copy. The words are atomics so that the copy is race-free.
struct RmEntry {
    std::atomic<uint32_t> seq;
    uint32_t reserved;
    std::atomic<uint64_t> words[kRmWords];
};

struct RmSegment {
    Header hdr;
    pthread_mutex_t mutex;  // process-shared, robust: serialises writers
    std::atomic<uint32_t> count;  // entries in use, in creation order; never shrinks
    uint32_t capacity;
    RmEntry entries[kRmEntries];
};

static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);

// "<prefix>_cm" / "<prefix>_rm", the prefix from QMT_SHM_NAME (default "/qmt").
std::string segment_name(const char *suffix);

struct Mapping {
    void *addr = nullptr;
    size_t size = 0;
};

// Opens (creating when absent) and maps the segment read-write; the process that creates it runs
// `setup` on the zero-filled memory before anyone else uses it. Returns 0 or a QMTSHM_E_ code.
int map_create(const std::string &name, size_t size, uint32_t magic, void (*setup)(void *),
               Mapping &out);
// Maps an existing, set-up segment read-only (writable = false) or read-write; never creates.
int map_existing(const std::string &name, size_t size, uint32_t magic, bool writable, Mapping &out);
void unmap(Mapping &m);

// One process's attachment to a segment: every attach shares one mapping, counted.
struct Attachment {
    std::shared_mutex mu;  // exclusive for attach/detach, shared for use of the mapping
    int refs = 0;
    Mapping map;
};
// Both with `mu` held exclusively. The first attach maps (creating the segment when absent,
// `setup` making it ready); the last detach unmaps. A detach without attach returns
// QMTSHM_E_NOT_ATTACHED and does nothing else.
int attach_locked(Attachment &a, const char *suffix, size_t size, uint32_t magic, void (*setup)(void *));
int detach_locked(Attachment &a);
bool segment_exists(const std::string &name);

int64_t wall_ms();
uint32_t tick_ms();

// Copies one entry out under its seqlock; false when no stable copy came within the retries.
bool read_entry(const RmEntry &e, RmData &out);

}  // namespace qmtshm
