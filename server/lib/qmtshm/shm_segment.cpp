// shm_segment.cpp - creating, checking, mapping and reading the shared-memory segments.
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
    auto *h = static_cast<Header *>(a);
    h->state.store(kInit, std::memory_order_relaxed);
    h->magic = layout.magic;
    h->version = kVersion;
    h->header_size = layout.header_size;
    h->size = size;
    h->entry_size = layout.entry_size;
    h->capacity = layout.entry_size ? layout.create_capacity : 0;
    if (layout.setup)
        layout.setup(a);
    h->state.store(kReady, std::memory_order_release);
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

uint64_t process_start(pid_t pid)
{
    return pid > 0 ? read_start(pid) : 0;
}

// Every write of an entry names its writer, so this process's pid and start time are read once
// (getpid() is a system call) and read again only in a child after a fork.
namespace {
std::atomic<pid_t> g_self_pid{0};
std::atomic<uint64_t> g_self_start{0};
void forget_self() { g_self_pid = 0; g_self_start = 0; }
} // namespace

pid_t self_pid()
{
    pid_t pid = g_self_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        static const int registered = pthread_atfork(nullptr, nullptr, forget_self);
        (void)registered;
        pid = getpid();
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

bool read_entry(const RmEntry &e, RmData &out)
{
    uint64_t words[kRmWords];
    // A writer keeps an entry odd for well under a microsecond; an entry odd for longer belongs to
    // a writer that died in its write or to a damaged segment, and must not hold the reader up.
    for (int attempt = 0; attempt < 256; ++attempt) {
        uint32_t s1 = e.seq.load(std::memory_order_acquire);
        if (s1 & 1u) {
            if (attempt % 16 == 15)
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
