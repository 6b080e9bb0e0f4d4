// qmtlog_posix.cpp - the log library's output on POSIX.
//
// A line is written with one O_APPEND write while holding a lock on "<module>.log.lock", so
// writers in several processes never split or lose lines and exactly one of them rotates. The
// folder and files are opened so that no other local user can redirect or stop the writing
// (see open_log_dir, open_own_file, take_lock). Events also go to syslog.

#include "qmtlog_internal.h"
#include "qmtlog_platform.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>

namespace qmtlog {

struct Output {
    std::string dir;
    int dir_fd = -1;
    int log_fd = -1;
    int lock_fd = -1;
    pid_t fd_pid = 0;
    bool lock_stuck = false;  // the last wait for the lock timed out
};

namespace {

constexpr int kOldFiles = 3;
constexpr mode_t kDirMode = 0750;
constexpr mode_t kLogMode = 0640;
constexpr mode_t kLockMode = 0600;  // nobody else may even open it, so nobody else can hold it
constexpr auto kLockWait = std::chrono::milliseconds(1000);

// A folder is trusted when it belongs to us (or to root) and nobody else can change its entries.
bool owner_ok(const struct stat &st) { return st.st_uid == geteuid() || st.st_uid == 0; }
bool closed_to_others(const struct stat &st) { return (st.st_mode & (S_IWGRP | S_IWOTH)) == 0; }

// Opens the log folder, creating what is missing with kDirMode, one component at a time from
// the root (or the working folder): a component found in a folder that others can write to is
// never followed through a symlink and must belong to us or root, so no other user can steer
// the walk. The folder itself must belong to us and be closed to others. -1 when it is not.
int open_log_dir(const std::string &path) {
    if (path.empty()) return -1;
    int fd = ::open(path[0] == '/' ? "/" : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !owner_ok(st)) {
        if (fd >= 0) ::close(fd);
        return -1;
    }
    size_t pos = 0;
    while (pos < path.size()) {
        size_t end = path.find('/', pos);
        if (end == std::string::npos) end = path.size();
        std::string part = path.substr(pos, end - pos);
        pos = end + 1;
        if (part.empty() || part == ".") continue;
        int follow = closed_to_others(st) ? 0 : O_NOFOLLOW;
        int next = ::openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow);
        if (next < 0 && errno == ENOENT && (mkdirat(fd, part.c_str(), kDirMode) == 0 || errno == EEXIST))
            next = ::openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        ::close(fd);
        fd = next;
        if (fd < 0 || fstat(fd, &st) != 0 || !owner_ok(st)) {
            if (fd >= 0) ::close(fd);
            return -1;
        }
    }
    if (st.st_uid != geteuid() || !closed_to_others(st)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// The folder for a module's log, or "" for standard error. No fixed name in a shared folder:
// another user could create it first.
std::string log_dir() {
    const char *env = std::getenv("QMT_LOG_DIR");
    if (env && *env) return env;
    const char *runtime = std::getenv("XDG_RUNTIME_DIR");
    for (std::string dir : {std::string("/var/log/qmt"), runtime && *runtime ? runtime + std::string("/qmt-log") : ""}) {
        int fd = open_log_dir(dir);
        if (fd < 0) continue;
        bool writable = faccessat(fd, ".", W_OK, AT_EACCESS) == 0;
        ::close(fd);
        if (writable) return dir;
    }
    return std::string();
}

// Opens (creating with `mode`) a file of the log folder: never through a symlink, never a file
// that is not a regular one of ours with a single name. A file from an older release with a
// wider mode is narrowed.
int open_own_file(int dir_fd, const std::string &name, int flags, mode_t mode) {
    int fd = ::openat(dir_fd, name.c_str(), flags | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
    struct stat st;
    if (fd < 0) return -1;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1) {
        ::close(fd);
        return -1;
    }
    if ((st.st_mode & 0777 & ~mode) != 0) (void)fchmod(fd, st.st_mode & mode);
    return fd;
}

bool write_all(int fd, const char *data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

void close_fds(Output &o) {
    for (int *fd : {&o.log_fd, &o.lock_fd, &o.dir_fd}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

// The cross-process lock: an open-file-description write lock on "<module>.log.lock", which
// only a descriptor opened for writing can take (and the file's mode lets only us open it). It
// stands in for the named mutex the caller gives. Waits at most kLockWait; after a wait that
// timed out, the module's next lines only try once until the lock is had again, so a holder
// that never lets go costs one wait, not one per line.
bool take_lock(Output &o) {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    const auto deadline = std::chrono::steady_clock::now() + (o.lock_stuck ? std::chrono::milliseconds(0) : kLockWait);
    auto pause = std::chrono::microseconds(100);
    for (;;) {
        if (fcntl(o.lock_fd, F_OFD_SETLK, &fl) == 0) {
            o.lock_stuck = false;
            return true;
        }
        if (errno != EAGAIN && errno != EACCES && errno != EINTR) return false;
        if (std::chrono::steady_clock::now() >= deadline) {
            o.lock_stuck = true;
            return false;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(5000));
    }
}

void release_lock(Output &o) {
    struct flock fl {};
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
    (void)fcntl(o.lock_fd, F_OFD_SETLK, &fl);
}

// Renames module.log -> .1 -> .2 -> .3; the oldest falls off. Runs under the lock.
void rotate(int dir_fd, const std::string &name) {
    for (int i = kOldFiles; i >= 1; --i) {
        std::string from = i == 1 ? name : name + "." + std::to_string(i - 1);
        std::string to = name + "." + std::to_string(i);
        (void)::renameat(dir_fd, from.c_str(), dir_fd, to.c_str());
    }
}

}  // namespace

void OutputDeleter::operator()(Output *o) const {
    if (!o) return;
    close_fds(*o);
    delete o;
}

OutputPtr make_output() { return OutputPtr(new Output); }

void reopen_output(Output &o, const std::string &mutex_name) {
    (void)mutex_name;  // the lock file stands in for it
    o.dir = log_dir();
    close_fds(o);
}

void close_output(Output &o) { close_fds(o); }

// A line written without the lock (its wait timed out) is still one O_APPEND write, so it stays
// whole; only the rotation needs the lock.
bool append(Output &o, const std::string &stem, long long limit, const std::string &line) {
    pid_t pid = getpid();
    if (o.fd_pid != pid) {
        // Descriptors inherited over fork share the parent's lock: reopen.
        close_fds(o);
        o.fd_pid = pid;
    }
    if (o.dir_fd < 0 && (o.dir_fd = open_log_dir(o.dir)) < 0) return false;
    const std::string name = stem + ".log";
    if (o.lock_fd < 0 && (o.lock_fd = open_own_file(o.dir_fd, name + ".lock", O_RDWR, kLockMode)) < 0) return false;
    const bool locked = take_lock(o);

    bool ok = false;
    struct stat by_name, by_fd;
    // Another process may have rotated the file away from under our descriptor.
    if (o.log_fd >= 0 && (fstatat(o.dir_fd, name.c_str(), &by_name, AT_SYMLINK_NOFOLLOW) != 0 ||
                          fstat(o.log_fd, &by_fd) != 0 || by_name.st_ino != by_fd.st_ino ||
                          by_name.st_dev != by_fd.st_dev)) {
        ::close(o.log_fd);
        o.log_fd = -1;
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (o.log_fd < 0) {
            o.log_fd = open_own_file(o.dir_fd, name, O_WRONLY | O_APPEND, kLogMode);
            if (o.log_fd < 0 || fstat(o.log_fd, &by_fd) != 0) break;
        }
        if (locked && attempt == 0 && limit > 0 && by_fd.st_size > 0 &&
            by_fd.st_size + static_cast<long long>(line.size()) > limit) {
            rotate(o.dir_fd, name);
            ::close(o.log_fd);
            o.log_fd = -1;
            continue;
        }
        ok = write_all(o.log_fd, line.data(), line.size());
        break;
    }
    if (locked) release_lock(o);
    return ok;
}

void to_stderr(const std::string &line) { (void)write_all(STDERR_FILENO, line.data(), line.size()); }

std::string time_stamp() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ts.tv_nsec / 1000000));
    return buf;
}

int process_id() { return static_cast<int>(getpid()); }
int thread_id() { return static_cast<int>(gettid()); }

int event_syslog_priority(DWORD event_id) {
    switch (event_id >> 30) {
    case 2: return LOG_WARNING;
    case 3: return LOG_ERR;
    default: return LOG_INFO;
    }
}

void report_event(const char *module, DWORD event_id, const std::string &text) {
    static std::mutex syslog_mutex;  // openlog's ident is process-wide
    const std::string ident = module ? "qmt-" + std::string(module) : std::string("qmt");
    std::lock_guard<std::mutex> lock(syslog_mutex);
    openlog(ident.c_str(), LOG_PID, LOG_DAEMON);
    syslog(event_syslog_priority(event_id), "%s", text.c_str());
    closelog();
}

}  // namespace qmtlog
