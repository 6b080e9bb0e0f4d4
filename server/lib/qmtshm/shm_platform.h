// shm_platform.h - what the shared-memory libraries ask of the system: named segments and their
// mapping, the writers' cross-process lock, clocks, and processes. shm_posix.cpp implements it
// with POSIX shared memory and a robust process-shared mutex inside the segment; shm_win.cpp
// with named file mappings and a named mutex beside the segment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#ifdef _WIN32
namespace qmtshm {
// The segment keeps the room of the POSIX mutex so that both have the same layout; on Windows
// the writers' lock is a named mutex instead.
struct WriterLock {
    alignas(8) unsigned char unused[40];
};
}  // namespace qmtshm
#else
#include <pthread.h>
namespace qmtshm {
using WriterLock = pthread_mutex_t;  // process-shared, robust
}  // namespace qmtshm
#endif

namespace qmtshm {

struct Layout;

struct Mapping {
    void *addr = nullptr;
    size_t size = 0;
    void *handle = nullptr;  // Windows: the file mapping, which lives as long as a handle does
    void *lock = nullptr;    // Windows: the writers' named mutex of a table segment
};

// "<prefix>_cm" / "<prefix>_rm", the prefix from QMT_SHM_NAME (default "/qmt"; on Windows the
// name of a session-local object).
std::string segment_name(const char *suffix);

// Creates the segment or opens an existing one that passes the owner and layout checks, and maps
// it read-write. Returns 0 or a QMTSHM_E_ code.
int map_create(const std::string &name, const Layout &layout, Mapping &out);
// Maps an existing segment read-only after the same checks, except that its owner may be another
// user as long as nobody else can write it; never creates. Returns 0 or a QMTSHM_E_ code.
int map_existing(const std::string &name, const Layout &layout, Mapping &out);
void unmap(Mapping &m);
bool segment_exists(const std::string &name);

// The writers' lock of a resource table: set up in a new segment, then taken with a bounded
// wait. owner_died: its last holder ended while holding it; the table may hold an entry left half
// written, which the caller repairs and then declares with writer_lock_consistent.
void writer_lock_init(void *segment);
enum class LockResult { locked, owner_died, timeout, failed };
LockResult writer_lock_acquire(Mapping &m, long wait_ms);
bool writer_lock_consistent(Mapping &m);
void writer_lock_release(Mapping &m);

int64_t wall_ms();
uint32_t tick_ms();
void yield_thread();

// Start time of a process in the system's own unit, 0 when it does not exist.
uint64_t process_start(int32_t pid);
// This process's id and start time.
int32_t self_pid();
uint64_t self_start();
// Whether the process named by pid and start time still runs. A process whose details cannot be
// read for lack of rights is taken as alive.
bool process_alive(int32_t pid, uint64_t start);

}  // namespace qmtshm
