// shm_segment.cpp - mapping, creating and reading the shared-memory segments.
#include "shm_layout.h"

#include "qmtshm_codes.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace qmtshm {

std::string segment_name(const char *suffix)
{
    const char *p = std::getenv("QMT_SHM_NAME");
    std::string prefix = p && *p ? p : "/qmt";
    if (prefix.front() != '/')
        prefix.insert(prefix.begin(), '/');
    return prefix + suffix;
}

static void sleep_ms(long ms)
{
    struct timespec ts {0, ms * 1000000L};
    nanosleep(&ts, nullptr);
}

// Waits (bounded) until the creator has finished setting the segment up.
static int wait_ready(const Header *h, uint32_t magic, size_t size)
{
    for (int i = 0; i < 2000 && h->state.load(std::memory_order_acquire) != kReady; ++i)
        sleep_ms(1);
    if (h->state.load(std::memory_order_acquire) != kReady)
        return QMTSHM_E_BAD_SEGMENT;
    if (h->magic != magic || h->version != kVersion || h->size != size)
        return QMTSHM_E_BAD_SEGMENT;
    return 0;
}

int map_create(const std::string &name, size_t size, uint32_t magic, void (*setup)(void *),
               Mapping &out)
{
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return QMTSHM_E_SYSTEM;
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        close(fd);
        return QMTSHM_E_SYSTEM;
    }
    // Whoever comes first sizes it; a racing second ftruncate to the same size changes nothing.
    if (st.st_size == 0 && ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        return QMTSHM_E_SYSTEM;
    }
    if (st.st_size != 0 && static_cast<size_t>(st.st_size) != size) {
        close(fd);
        return QMTSHM_E_BAD_SEGMENT;
    }
    void *a = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (a == MAP_FAILED)
        return QMTSHM_E_SYSTEM;
    auto *h = static_cast<Header *>(a);
    uint32_t expected = kEmpty;
    if (h->state.compare_exchange_strong(expected, kInit, std::memory_order_acq_rel)) {
        h->magic = magic;
        h->version = kVersion;
        h->size = static_cast<uint32_t>(size);
        setup(a);
        h->state.store(kReady, std::memory_order_release);
    }
    int rc = wait_ready(h, magic, size);
    if (rc != 0) {
        munmap(a, size);
        return rc;
    }
    out.addr = a;
    out.size = size;
    return 0;
}

int map_existing(const std::string &name, size_t size, uint32_t magic, bool writable, Mapping &out)
{
    int fd = shm_open(name.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
    if (fd < 0)
        return errno == ENOENT ? QMTSHM_E_NOT_FOUND : QMTSHM_E_SYSTEM;
    struct stat st {};
    if (fstat(fd, &st) != 0 || static_cast<size_t>(st.st_size) != size) {
        close(fd);
        return QMTSHM_E_BAD_SEGMENT;
    }
    void *a = mmap(nullptr, size, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, fd, 0);
    close(fd);
    if (a == MAP_FAILED)
        return QMTSHM_E_SYSTEM;
    int rc = wait_ready(static_cast<Header *>(a), magic, size);
    if (rc != 0) {
        munmap(a, size);
        return rc;
    }
    out.addr = a;
    out.size = size;
    return 0;
}

void unmap(Mapping &m)
{
    if (m.addr)
        munmap(m.addr, m.size);
    m = {};
}

int attach_locked(Attachment &a, const char *suffix, size_t size, uint32_t magic, void (*setup)(void *))
{
    if (a.refs == 0) {
        int rc = map_create(segment_name(suffix), size, magic, setup, a.map);
        if (rc != 0)
            return rc;
    }
    ++a.refs;
    return 0;
}

int detach_locked(Attachment &a)
{
    if (a.refs == 0)
        return QMTSHM_E_NOT_ATTACHED;
    if (--a.refs == 0)
        unmap(a.map);
    return 0;
}

bool segment_exists(const std::string &name)
{
    int fd = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

int64_t wall_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

uint32_t tick_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000);
}

bool read_entry(const RmEntry &e, RmData &out)
{
    uint64_t words[kRmWords];
    for (int attempt = 0; attempt < 100000; ++attempt) {
        uint32_t s1 = e.seq.load(std::memory_order_acquire);
        if (s1 & 1u) {
            if (attempt % 64 == 63)
                sched_yield();
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

}  // namespace qmtshm
