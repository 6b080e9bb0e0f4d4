// qmtlog.cpp - the cluster's log library: one rotating log file per module, shared by every
// process of the node that logs for that module.
//
// Level and size are kept per module name. A line is formatted only when its level passes the
// module's level, then written with one O_APPEND write while holding a lock on
// "<module>.log.lock", so writers in several processes never split or lose lines and exactly
// one of them rotates. The folder and files are opened so that no other local user can redirect
// or stop the writing (see open_log_dir, open_own_file, take_lock). Nothing here ever fails the
// caller: when the log file cannot be written the line goes to standard error instead.

#include "qmtlog.h"
#include "qmtlog_internal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>

namespace qmtlog {
namespace {

constexpr int kDefaultLevel = QMTLOG_INFO;
constexpr int kDefaultSize = 10000000;
constexpr int kOldFiles = 3;

constexpr int kBadParameter = 87;  // ERROR_INVALID_PARAMETER
constexpr int kBadHandle = 6;      // ERROR_INVALID_HANDLE

struct Module {
    std::string name;
    std::atomic<int> level{kDefaultLevel};
    std::atomic<int> size{kDefaultSize};
    bool level_set = false;  // changed by set settings before the first open
    bool size_set = false;
    bool opened_before = false;
    int opens = 0;
    std::string mutex_name;  // the named mutex the caller asked for; the lock file stands in for it
    std::string ident;       // syslog ident; openlog keeps the pointer

    // Output state, under `io`.
    std::mutex io;
    std::string dir;
    int dir_fd = -1;
    int log_fd = -1;
    int lock_fd = -1;
    pid_t fd_pid = 0;
    bool lock_stuck = false;  // the last wait for the lock timed out
};

struct Table {
    std::string module;
};

struct Library {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<Module>, std::less<>> modules;  // never removed: handles stay valid
    std::set<const Module *> open;
    Module *last = nullptr;
    std::set<const Table *> tables;
    std::mutex syslog_mutex;
};

Library &lib() {
    static Library *l = new Library;  // outlives static destructors of callers that log at exit
    return *l;
}

Module &module_locked(Library &l, const std::string &name) {
    auto &slot = l.modules[name];
    if (!slot) {
        slot = std::make_unique<Module>();
        slot->name = name;
        slot->ident = "qmt-" + name;
    }
    return *slot;
}

// The module name becomes a file name: keep it to one path component.
std::string file_stem(const std::string &name) {
    std::string s = name;
    for (char &c : s)
        if (c == '/' || c == '\\' || c == '\0') c = '_';
    if (s.empty() || s == "." || s == "..") s = "_" + s;
    return s;
}

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

void to_stderr(const std::string &line) { (void)write_all(STDERR_FILENO, line.data(), line.size()); }

void close_fds(Module &m) {
    for (int *fd : {&m.log_fd, &m.lock_fd, &m.dir_fd}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

// The cross-process lock: an open-file-description write lock on "<module>.log.lock", which
// only a descriptor opened for writing can take (and the file's mode lets only us open it).
// Waits at most kLockWait; after a wait that timed out, the module's next lines only try once
// until the lock is had again, so a holder that never lets go costs one wait, not one per line.
bool take_lock(Module &m) {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    const auto deadline = std::chrono::steady_clock::now() + (m.lock_stuck ? std::chrono::milliseconds(0) : kLockWait);
    auto pause = std::chrono::microseconds(100);
    for (;;) {
        if (fcntl(m.lock_fd, F_OFD_SETLK, &fl) == 0) {
            m.lock_stuck = false;
            return true;
        }
        if (errno != EAGAIN && errno != EACCES && errno != EINTR) return false;
        if (std::chrono::steady_clock::now() >= deadline) {
            m.lock_stuck = true;
            return false;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(5000));
    }
}

void release_lock(Module &m) {
    struct flock fl {};
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
    (void)fcntl(m.lock_fd, F_OFD_SETLK, &fl);
}

// Renames module.log -> .1 -> .2 -> .3; the oldest falls off. Runs under the lock.
void rotate(int dir_fd, const std::string &name) {
    for (int i = kOldFiles; i >= 1; --i) {
        std::string from = i == 1 ? name : name + "." + std::to_string(i - 1);
        std::string to = name + "." + std::to_string(i);
        (void)::renameat(dir_fd, from.c_str(), dir_fd, to.c_str());
    }
}

// Appends one line to the module's file, rotating first when the line would take the file past
// its size. Returns false when the file cannot be written; the caller then uses stderr. A line
// written without the lock (its wait timed out) is still one O_APPEND write, so it stays whole;
// only the rotation needs the lock.
bool append(Module &m, const std::string &line) {
    pid_t pid = getpid();
    if (m.fd_pid != pid) {
        // Descriptors inherited over fork share the parent's lock: reopen.
        close_fds(m);
        m.fd_pid = pid;
    }
    if (m.dir_fd < 0 && (m.dir_fd = open_log_dir(m.dir)) < 0) return false;
    const std::string name = file_stem(m.name) + ".log";
    if (m.lock_fd < 0 && (m.lock_fd = open_own_file(m.dir_fd, name + ".lock", O_RDWR, kLockMode)) < 0) return false;
    const bool locked = take_lock(m);

    bool ok = false;
    struct stat by_name, by_fd;
    // Another process may have rotated the file away from under our descriptor.
    if (m.log_fd >= 0 && (fstatat(m.dir_fd, name.c_str(), &by_name, AT_SYMLINK_NOFOLLOW) != 0 ||
                          fstat(m.log_fd, &by_fd) != 0 || by_name.st_ino != by_fd.st_ino ||
                          by_name.st_dev != by_fd.st_dev)) {
        ::close(m.log_fd);
        m.log_fd = -1;
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (m.log_fd < 0) {
            m.log_fd = open_own_file(m.dir_fd, name, O_WRONLY | O_APPEND, kLogMode);
            if (m.log_fd < 0 || fstat(m.log_fd, &by_fd) != 0) break;
        }
        long long limit = m.size.load(std::memory_order_relaxed);
        if (locked && attempt == 0 && limit > 0 && by_fd.st_size > 0 &&
            by_fd.st_size + static_cast<long long>(line.size()) > limit) {
            rotate(m.dir_fd, name);
            ::close(m.log_fd);
            m.log_fd = -1;
            continue;
        }
        ok = write_all(m.log_fd, line.data(), line.size());
        break;
    }
    if (locked) release_lock(m);
    return ok;
}

std::string format_text(const char *format, va_list ap) {
    if (!format) return std::string();
    va_list again;
    va_copy(again, ap);
    char small[512];
    int n = std::vsnprintf(small, sizeof small, format, ap);
    std::string out;
    if (n >= static_cast<int>(sizeof small)) {
        out.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(out.data(), out.size(), format, again);
        out.resize(static_cast<size_t>(n));
    } else if (n > 0) {
        out.assign(small, static_cast<size_t>(n));
    }
    va_end(again);
    return out;
}

std::string make_line(int level, const char *file, int line, const char *function, const std::string &text) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    char head[160];
    std::snprintf(head, sizeof head, "%04d-%02d-%02d %02d:%02d:%02d.%03d %s %d/%d ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(ts.tv_nsec / 1000000), level_name(level).c_str(), static_cast<int>(getpid()),
                  static_cast<int>(gettid()));
    std::string out = head;
    out += file ? base_name(file) : "-";
    out += ':';
    out += std::to_string(line);
    out += ' ';
    out += function ? function : "-";
    out += ": ";
    size_t start = out.size();
    out += text;
    // One record, one line: a line break inside a message would split it for every reader.
    for (size_t i = start; i < out.size(); ++i)
        if (out[i] == '\n' || out[i] == '\r') out[i] = ' ';
    out += '\n';
    return out;
}

}  // namespace

std::string level_name(int level) {
    switch (level) {
    case QMTLOG_ERROR: return "ERR";
    case QMTLOG_WARNING: return "WRN";
    case QMTLOG_INFO: return "INF";
    case QMTLOG_TRACE: return "TRC";
    case QMTLOG_PASS: return "PAS";
    case QMTLOG_DETAIL: return "DTL";
    case QMTLOG_EVENT: return "EVT";
    default: return "L" + std::to_string(level);
    }
}

const char *base_name(const char *path) {
    const char *base = path;
    for (const char *p = path; *p; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;
    return base;
}

}  // namespace qmtlog

using qmtlog::lib;
using qmtlog::Library;
using qmtlog::Module;
using qmtlog::Table;

extern "C" {

int WINAPI QmtLogOpen(const char *module, HANDLE *log, int level, int size, int reserved,
                      const char *mutex_name) {
    (void)reserved;
    if (log) *log = nullptr;
    if (!module || !*module || !log) return qmtlog::kBadParameter;
    Library &l = lib();
    std::lock_guard<std::mutex> lock(l.mutex);
    Module &m = qmtlog::module_locked(l, module);
    if (!m.opened_before) {
        if (!m.level_set && level > 0) m.level = level;
        if (!m.size_set && size > 0) m.size = size;
        m.opened_before = true;
    }
    if (mutex_name) m.mutex_name = mutex_name;
    {
        // A new open finds the directory afresh, so an operator's QMT_LOG_DIR change applies.
        std::lock_guard<std::mutex> io(m.io);
        m.dir = qmtlog::log_dir();
        qmtlog::close_fds(m);
    }
    ++m.opens;
    l.open.insert(&m);
    l.last = &m;
    *log = &m;
    return 0;
}

int WINAPI QmtLogClose(HANDLE log) {
    Library &l = lib();
    std::lock_guard<std::mutex> lock(l.mutex);
    auto *m = static_cast<Module *>(log);
    if (!log || !l.open.count(m)) return qmtlog::kBadHandle;
    if (--m->opens == 0) {
        l.open.erase(m);
        std::lock_guard<std::mutex> io(m->io);
        qmtlog::close_fds(*m);
    }
    return 0;
}

int __cdecl QmtLogWrite(HANDLE log, int level, DWORD event_id, const char *file, int line,
                        const char *function, const char *format, ...) {
    Library &l = lib();
    Module *m = nullptr;
    int current = qmtlog::kDefaultLevel;
    {
        std::lock_guard<std::mutex> lock(l.mutex);
        // A handle that is not open (never was, or closed) is taken like an empty one.
        m = log && l.open.count(static_cast<Module *>(log)) ? static_cast<Module *>(log) : l.last;
        if (m) current = m->level.load(std::memory_order_relaxed);
    }
    bool is_event = level == QMTLOG_EVENT;
    if (!is_event && level > current) return 0;

    std::string text;
    va_list ap;
    va_start(ap, format);
    if (is_event && event_id != 0) text = qmtlog::event_message(event_id, qmtlog::event_inserts(format, ap));
    else text = qmtlog::format_text(format, ap);
    va_end(ap);

    std::string out = qmtlog::make_line(level, file, line, function, text);
    if (!m) {
        qmtlog::to_stderr(out);
    } else {
        std::lock_guard<std::mutex> io(m->io);
        if (!qmtlog::append(*m, out)) qmtlog::to_stderr(out);
    }
    if (is_event && event_id != 0) {
        std::lock_guard<std::mutex> lock(l.syslog_mutex);
        openlog(m ? m->ident.c_str() : "qmt", LOG_PID, LOG_DAEMON);
        syslog(qmtlog::event_syslog_priority(event_id), "%s", text.c_str());
        closelog();
    }
    return 0;
}

int WINAPI QmtLogSetSettings(const char *module, int level, int size, int reserved) {
    (void)reserved;
    if (!module || !*module) return qmtlog::kBadParameter;
    Library &l = lib();
    std::lock_guard<std::mutex> lock(l.mutex);
    Module &m = qmtlog::module_locked(l, module);
    if (level > 0) {
        m.level = level;
        m.level_set = true;
    }
    if (size > 0) {
        m.size = size;
        m.size_set = true;
    }
    return 0;
}

int WINAPI QmtLogGetSettings(const char *module, int *level, int *size, int reserved) {
    (void)reserved;
    if (!module || !*module) return qmtlog::kBadParameter;
    Library &l = lib();
    std::lock_guard<std::mutex> lock(l.mutex);
    auto it = l.modules.find(std::string_view(module));  // asked for every trace line: no copy of the name
    // A module nobody opened or set yet has the defaults it would be opened with.
    if (level) *level = it == l.modules.end() ? qmtlog::kDefaultLevel : it->second->level.load();
    if (size) *size = it == l.modules.end() ? qmtlog::kDefaultSize : it->second->size.load();
    return 0;
}

int WINAPI QmtLoadStringTable(const char *module, int reserved, HANDLE *table) {
    (void)reserved;
    if (!table) return qmtlog::kBadParameter;
    *table = nullptr;
    Library &l = lib();
    auto t = std::make_unique<Table>();
    t->module = module ? module : "";
    std::lock_guard<std::mutex> lock(l.mutex);
    l.tables.insert(t.get());
    *table = t.release();
    return 0;
}

int WINAPI QmtUnloadStringTable(HANDLE table) {
    Library &l = lib();
    std::lock_guard<std::mutex> lock(l.mutex);
    auto *t = static_cast<const Table *>(table);
    if (!table || l.tables.erase(t) == 0) return qmtlog::kBadHandle;
    delete t;
    return 0;
}

int WINAPI QmtGetStatusText(HANDLE table, int status, char *buffer, int size, int reserved) {
    (void)reserved;
    if (!buffer || size <= 0) return qmtlog::kBadParameter;
    Library &l = lib();
    {
        std::lock_guard<std::mutex> lock(l.mutex);
        if (!table || !l.tables.count(static_cast<const Table *>(table))) return qmtlog::kBadHandle;
    }
    const char *text = qmtlog::status_text(status);
    if (text) std::snprintf(buffer, static_cast<size_t>(size), "%s", text);
    else std::snprintf(buffer, static_cast<size_t>(size), "Unknown status %d", status);
    return 0;
}

}  // extern "C"
