// shm_layout.h - the layout of both shared-memory segments and the helpers that map them.
// Shared by qmtshmcm and qmtshmrm (each gets its own copy, hidden), the tests and the fuzz target.
//
// Trust: a segment is used only when it is a regular file owned by this user, writable by nobody
// else (on Windows: a mapping whose default security admits this account and the system alone),
// and its header describes exactly the layout this code was built with. Everything read from
// a segment is still bounded before use (capacity from the header and the file size, text fields
// cut at their slot, lengths clamped), so a damaged segment gives an error, never a crash.
#pragma once

#include "qmtlib_sync.h"
#include "shm_platform.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qmtshm {

inline constexpr uint32_t kVersion = 2;
inline constexpr uint32_t kMagicCm = 0x4d43544dU;  // "MTCM"
inline constexpr uint32_t kMagicRm = 0x4d52544dU;  // "MTRM"

// Life of a segment: created zero-filled (kEmpty), set up by its creator (kInit), usable (kReady).
enum : uint32_t { kEmpty = 0, kInit = 1, kReady = 2 };

struct Header {
    std::atomic<uint32_t> state;
    uint32_t magic;
    uint32_t version;
    uint32_t header_size;  // bytes before the first entry
    uint64_t size;         // bytes of the whole segment
    uint32_t entry_size;   // bytes per entry (0 for the cluster segment)
    uint32_t capacity;     // entries (0 for the cluster segment)
};

// Cluster segment. Ratio and generation share one word so that a reader never pairs a ratio with
// the wrong generation: high 32 bits generation, low 32 bits ratio.
struct CmSegment {
    Header hdr;
    std::atomic<uint64_t> ratio_gen;
    std::atomic<int64_t> set_time_ms;  // wall clock of the last shmcm_setratio, 0 if never
};

// Resource table size: QMT_SHM_ENTRIES when the segment is created, within these bounds.
inline constexpr uint32_t kRmDefaultEntries = 4096;
inline constexpr uint32_t kRmMinEntries = 16;
inline constexpr uint32_t kRmMaxEntries = 65536;
inline constexpr size_t kTypeLen = 32;
inline constexpr size_t kNameLen = 64;
inline constexpr size_t kDescLen = 256;

// One resource's data, copied in and out of the shared words as a whole. An entry is free while
// its type is empty.
struct RmData {
    char type[kTypeLen];
    char name[kNameLen];
    int32_t progress;
    uint32_t progress_tick;
    int64_t progress_time_ms;
    int64_t update_time_ms;
    char descript[kDescLen];
    int32_t descript_len;
    int32_t writer_pid;     // the process that wrote the entry last
    uint64_t writer_start;  // and its start time (clock ticks after boot), so a reused pid differs
};
inline constexpr size_t kRmWords = sizeof(RmData) / sizeof(uint64_t);
inline constexpr size_t kKeyWords = (kTypeLen + kNameLen) / sizeof(uint64_t);
static_assert(sizeof(RmData) % sizeof(uint64_t) == 0);
static_assert((kTypeLen + kNameLen) % sizeof(uint64_t) == 0);

// Seqlock: odd while a writer changes the words; readers retry until they see the same even
// value before and after their copy. The words are atomics so that the copy is race-free.
struct RmEntry {
    std::atomic<uint32_t> seq;
    uint32_t reserved;
    std::atomic<uint64_t> words[kRmWords];
};

// The resource segment's header; `capacity` entries follow at hdr.header_size.
struct RmHeader {
    Header hdr;
    WriterLock mutex;  // serialises writers (shm_platform.h)
};
inline constexpr size_t kRmHeaderSize = (sizeof(RmHeader) + 63) / 64 * 64;

static_assert(kRmHeaderSize == 128, "the same layout on every system");
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);

inline size_t rm_segment_size(uint32_t capacity)
{
    return kRmHeaderSize + static_cast<size_t>(capacity) * sizeof(RmEntry);
}
inline RmEntry *rm_entries(void *seg)
{
    return reinterpret_cast<RmEntry *>(static_cast<char *>(seg) + kRmHeaderSize);
}
inline const RmEntry *rm_entries(const void *seg)
{
    return reinterpret_cast<const RmEntry *>(static_cast<const char *>(seg) + kRmHeaderSize);
}

// What a segment of one kind must look like: its magic, its fixed part, and for a table its entry
// size and the capacity to create it with.
struct Layout {
    uint32_t magic;
    uint32_t header_size;
    uint32_t entry_size;
    uint32_t create_capacity;
    void (*setup)(void *);  // fills a new, zero-filled segment
};
// Checks a header against the layout and the bytes available; returns the capacity it describes
// (0 for a segment without entries) or -1 when anything is off.
long check_header(const void *mem, size_t available, const Layout &layout);
// Writes the header of a new, zero-filled segment of `size` bytes and marks it ready last, so that
// a reader never takes a half-made segment for a good one.
void init_header(void *mem, size_t size, const Layout &layout);

// One process's attachment to a segment: every attach shares one mapping, counted.
struct Attachment {
    qmtlib::SharedMutex mu;  // exclusive for attach/detach, shared for use of the mapping
    int refs = 0;
    Mapping map;
    // The writer's memory of where each of its resources' entries is ("type\0name" to index).
    // Used only with the segment's writer mutex held.
    std::unordered_map<std::string, uint32_t> slots;
    uint32_t capacity = 0;
};
// Both with `mu` held exclusively. The first attach maps (creating the segment when absent); the
// last detach unmaps. A detach without attach returns QMTSHM_E_NOT_ATTACHED and does nothing else.
int attach_locked(Attachment &a, const char *suffix, const Layout &layout);
int detach_locked(Attachment &a);

// Copies one entry out under its seqlock; false when no stable copy came within a few tries.
bool read_entry(const RmEntry &e, RmData &out);
// Makes a copied entry safe to use: text fields end inside their slots, the description length
// matches its text. False when the entry's contents could not have been written by a writer.
bool sane_entry(RmData &d);

// A reader's view of the whole resource table.
struct RmSnapshot {
    uint32_t capacity = 0;
    uint32_t damaged = 0;  // entries in use that could not be read or made no sense
    std::vector<RmData> entries;  // in table order, free entries left out
};
// Reads a mapped resource segment of `available` bytes. Returns 0, or QMTSHM_E_BAD_SEGMENT when the
// header is not a resource table's.
int read_rm(const void *mem, size_t available, RmSnapshot &out);

}  // namespace qmtshm
