// qmtlib_sync.h - the in-process locks of the cluster libraries.
//
// On POSIX they are the standard library's. On Windows they are the system's slim reader/writer
// locks, which the DLLs need no thread library for; both kinds work with std::lock_guard,
// std::unique_lock and std::shared_lock.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <mutex>
#include <shared_mutex>
#endif

namespace qmtlib {

#ifdef _WIN32
class SharedMutex {
public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex &) = delete;
    SharedMutex &operator=(const SharedMutex &) = delete;
    void lock() { AcquireSRWLockExclusive(&lock_); }
    bool try_lock() { return TryAcquireSRWLockExclusive(&lock_) != 0; }
    void unlock() { ReleaseSRWLockExclusive(&lock_); }
    void lock_shared() { AcquireSRWLockShared(&lock_); }
    bool try_lock_shared() { return TryAcquireSRWLockShared(&lock_) != 0; }
    void unlock_shared() { ReleaseSRWLockShared(&lock_); }

private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};
using Mutex = SharedMutex;
#else
using Mutex = std::mutex;
using SharedMutex = std::shared_mutex;
#endif

}  // namespace qmtlib
