// shm_posix.cpp - the shared-memory segments on POSIX: shm_open files, mapped shared; the writers'
// lock is a robust process-shared mutex inside the resource segment; processes are told apart by
// their start time in /proc.
#include "shm_layout.h"

#include "qmtshm_codes.h"

#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

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

// QMT_SHM_GROUP: a group name or number that may read the segments; -1 when not set, -2 when
// it names no group.
static gid_t reader_group()
{
    const char *g = std::getenv("QMT_SHM_GROUP");
    if (!g || !*g)
        return static_cast<gid_t>(-1);
    char *end = nullptr;
    errno = 0;
    unsigned long n = std::strtoul(g, &end, 10);
    if (*end == '\0' && errno == 0 && n < 0x7fffffffUL)
        return static_cast<gid_t>(n);
    struct group gr {};
    struct group *found = nullptr;
    std::vector<char> buf(16384);
    if (getgrnam_r(g, &gr, buf.data(), buf.size(), &found) == 0 && found)
        return found->gr_gid;
    return static_cast<gid_t>(-2);
}

// Owner and mode checks of an opened segment. A writer needs it to be ours; a reader accepts any
// owner, but no segment that others than its owner may write.
static int check_file(int fd, bool writer, struct stat &st)
{
    if (fstat(fd, &st) != 0)
        return QMTSHM_E_SYSTEM;
    if (!S_ISREG(st.st_mode) || (st.st_mode & 022) != 0)
        return QMTSHM_E_NOT_OWNER;
    if (writer && ((st.st_mode & 0027) != 0 || st.st_uid != geteuid()))
        return QMTSHM_E_NOT_OWNER;
    return 0;
}

// Maps an opened segment once its creator has sized and set it up (bounded wait), then checks the
// header. The size comes from the header, checked against the file's.
static int map_checked(int fd, const Layout &layout, bool writable, Mapping &out)
{
    struct stat st {};
    const int prot = PROT_READ | (writable ? PROT_WRITE : 0);
    for (int i = 0;; ++i) {
        if (int rc = check_file(fd, writable, st); rc != 0)
            return rc;
        size_t fsize = static_cast<size_t>(st.st_size);
        if (fsize >= layout.header_size) {
            // The header alone first: its state says whether the creator has finished.
            void *a = mmap(nullptr, layout.header_size, PROT_READ, MAP_SHARED, fd, 0);
            if (a == MAP_FAILED)
                return QMTSHM_E_SYSTEM;
            uint32_t state = static_cast<const Header *>(a)->state.load(std::memory_order_acquire);
            long capacity = state == kReady ? check_header(a, fsize, layout) : -1;
            munmap(a, layout.header_size);
            if (capacity >= 0) {
                size_t size = layout.header_size + static_cast<size_t>(capacity) * layout.entry_size;
                void *m = mmap(nullptr, size, prot, MAP_SHARED, fd, 0);
                if (m == MAP_FAILED)
                    return QMTSHM_E_SYSTEM;
                out.addr = m;
                out.size = size;
                return 0;
            }
            if (state == kReady)
                return QMTSHM_E_BAD_SEGMENT;
        }
        if (i >= 2000)  // two seconds: its creator died before finishing it
            return QMTSHM_E_BAD_SEGMENT;
        sleep_ms(1);
    }
}

static int create_new(const std::string &name, const Layout &layout, Mapping &out)
{
    gid_t group = reader_group();
    if (group == static_cast<gid_t>(-2))
        return QMTSHM_E_INVALID_PARAMETER;
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return errno == EEXIST ? -1 : QMTSHM_E_SYSTEM;
    size_t size = layout.header_size + size_t{layout.create_capacity} * layout.entry_size;
    void *a = MAP_FAILED;
    // The mode is set explicitly: the creation mode is subject to the umask, which could only
    // narrow it, and the group is given its read right only once the group is ours to give.
    bool ok = (group == static_cast<gid_t>(-1) || (fchown(fd, static_cast<uid_t>(-1), group) == 0 &&
                                                    fchmod(fd, 0640) == 0)) &&
              ftruncate(fd, static_cast<off_t>(size)) == 0;
    if (ok)
        a = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (a == MAP_FAILED) {
        shm_unlink(name.c_str());
        return QMTSHM_E_SYSTEM;
    }
    init_header(a, size, layout);
    out.addr = a;
    out.size = size;
    return 0;
}

int map_create(const std::string &name, const Layout &layout, Mapping &out)
{
    // Two tries: a segment that vanished between our failed create and our open is created again.
    for (int attempt = 0; attempt < 2; ++attempt) {
        int rc = create_new(name, layout, out);
        if (rc != -1)
            return rc;
        int fd = shm_open(name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
        if (fd < 0) {
            if (errno == ENOENT)
                continue;
            return errno == ELOOP || errno == EACCES ? QMTSHM_E_NOT_OWNER : QMTSHM_E_SYSTEM;
        }
        rc = map_checked(fd, layout, true, out);
        close(fd);
        return rc;
    }
    return QMTSHM_E_SYSTEM;
}

int map_existing(const std::string &name, const Layout &layout, Mapping &out)
{
    int fd = shm_open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) {
        if (errno == ENOENT)
            return QMTSHM_E_NOT_FOUND;
        return errno == ELOOP || errno == EACCES ? QMTSHM_E_NOT_OWNER : QMTSHM_E_SYSTEM;
    }
    int rc = map_checked(fd, layout, false, out);
    close(fd);
    return rc;
}

void unmap(Mapping &m)
{
    if (m.addr)
        munmap(m.addr, m.size);
    m = {};
}

bool segment_exists(const std::string &name)
{
    int fd = shm_open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0)
        return errno != ENOENT;  // there, though perhaps not readable by us
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

// Field 22 of /proc/<pid>/stat; the name (field 2) may hold spaces and parentheses, so fields are
// counted from its last ')'. Returns 0 when the process does not exist, 1 when it cannot be read.
static uint64_t read_start(pid_t pid)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT || errno == ESRCH ? 0 : 1;
    char buf[1024];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0)
        return 0;
    buf[n] = '\0';
    const char *p = std::strrchr(buf, ')');
    if (!p)
        return 1;
    // After ')': field 3 (state) is the first; field 22 is the 20th.
    for (int field = 3; field < 22 && p; ++field)
        p = std::strchr(p + 1, ' ');
    if (!p)
        return 1;
    unsigned long long v = std::strtoull(p + 1, nullptr, 10);
    return v ? v : 1;
}

uint64_t process_start(int32_t pid)
{
    return pid > 0 ? read_start(static_cast<pid_t>(pid)) : 0;
}

// Every write of an entry names its writer, so this process's pid and start time are read once
// (getpid() is a system call) and read again only in a child after a fork.
namespace {
std::atomic<int32_t> g_self_pid{0};
std::atomic<uint64_t> g_self_start{0};
void forget_self() { g_self_pid = 0; g_self_start = 0; }
} // namespace

int32_t self_pid()
{
    int32_t pid = g_self_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        static const int registered = pthread_atfork(nullptr, nullptr, forget_self);
        (void)registered;
        pid = static_cast<int32_t>(getpid());
        g_self_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

uint64_t self_start()
{
    uint64_t start = g_self_start.load(std::memory_order_relaxed);
    if (start == 0) {
        start = read_start(self_pid());
        g_self_start.store(start, std::memory_order_relaxed);
    }
    return start;
}

bool process_alive(int32_t pid, uint64_t start)
{
    if (pid <= 0)
        return false;
    uint64_t now = read_start(static_cast<pid_t>(pid));
    if (now == 0)
        return false;
    return now == 1 || start == 0 || now == start;
}

void yield_thread()
{
    sched_yield();
}

void writer_lock_init(void *segment)
{
    auto *seg = static_cast<RmHeader *>(segment);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&seg->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

LockResult writer_lock_acquire(Mapping &m, long wait_ms)
{
    auto *seg = static_cast<RmHeader *>(m.addr);
    // Try-lock with a bounded wait rather than a timed lock: a timed lock that reports a dead
    // owner is not understood by the thread checker, a try-lock is.
    int rc = pthread_mutex_trylock(&seg->mutex);
    for (long waited_us = 0; rc == EBUSY && waited_us < wait_ms * 1000; waited_us += 200) {
        struct timespec pause {0, 200000};
        nanosleep(&pause, nullptr);
        rc = pthread_mutex_trylock(&seg->mutex);
    }
    switch (rc) {
    case 0: return LockResult::locked;
    case EOWNERDEAD: return LockResult::owner_died;
    case EBUSY: return LockResult::timeout;
    default: return LockResult::failed;
    }
}

bool writer_lock_consistent(Mapping &m)
{
    return pthread_mutex_consistent(&static_cast<RmHeader *>(m.addr)->mutex) == 0;
}

void writer_lock_release(Mapping &m)
{
    pthread_mutex_unlock(&static_cast<RmHeader *>(m.addr)->mutex);
}

}  // namespace qmtshm
