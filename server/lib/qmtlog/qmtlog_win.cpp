// qmtlog_win.cpp - the log library's output on Windows.
//
// Writers in every process of the node are serialised by the named mutex the module was opened
// with (CreateMutexA); under it a line is appended to DIR\<module>.log, and the one writer that
// finds the file full rotates it. The file is opened for each line and closed again, so that no
// process keeps a handle that would stop another from renaming the file. Events also go to the
// Windows event log.

#include "qmtlog_internal.h"
#include "qmtlog_platform.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace qmtlog {

struct Output {
    std::string dir;
    std::string mutex_name;
    HANDLE mutex = nullptr;
    bool mutex_tried = false;
    bool lock_stuck = false;  // the last wait for the mutex timed out
};

namespace {

constexpr int kOldFiles = 3;

// A line leaves the caller's last error as it was: callers log a failure and then read
// GetLastError for the next line, and opening an existing file sets it to 183.
struct KeepLastError {
    DWORD error = GetLastError();
    ~KeepLastError() { SetLastError(error); }
};
constexpr DWORD kLockWaitMs = 1000;

// Creates each missing folder of `path` in turn; true when the whole path is a folder.
bool make_dirs(const std::string &path) {
    for (size_t pos = 0; pos != std::string::npos;) {
        pos = path.find_first_of("\\/", pos + 1);
        std::string part = path.substr(0, pos);
        if (part.empty() || part.back() == ':') continue;
        DWORD attr = GetFileAttributesA(part.c_str());
        if (attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY)) continue;
        if (!CreateDirectoryA(part.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) return false;
    }
    DWORD attr = GetFileAttributesA(path.c_str());
    return attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY);
}

// The folder for a module's log, or "" for standard error.
std::string log_dir() {
    const char *env = std::getenv("QMT_LOG_DIR");
    if (env && *env) return env;
    const char *data = std::getenv("ProgramData");
    return std::string(data && *data ? data : "C:\\ProgramData") + "\\qmt\\log";
}

void close_mutex(Output &o) {
    if (o.mutex) CloseHandle(o.mutex);
    o.mutex = nullptr;
    o.mutex_tried = false;
    o.lock_stuck = false;
}

// The named mutex, created on first use. A "Global\" name needs a right that a process outside
// the services' session may lack; it then shares the mutex of its own session.
HANDLE mutex_for(Output &o, const std::string &stem) {
    if (o.mutex_tried) return o.mutex;
    o.mutex_tried = true;
    std::string name = o.mutex_name.empty() ? "Local\\qmtlog_" + stem : o.mutex_name;
    o.mutex = CreateMutexA(nullptr, FALSE, name.c_str());
    if (!o.mutex && name.rfind("Global\\", 0) == 0)
        o.mutex = CreateMutexA(nullptr, FALSE, ("Local\\" + name.substr(7)).c_str());
    return o.mutex;
}

// Waits at most kLockWaitMs; after a wait that timed out, the next lines only try once until the
// mutex is had again, so a holder that never lets go costs one wait, not one per line. A mutex
// abandoned by a writer that died is ours all the same.
bool take_lock(Output &o, HANDLE mutex) {
    if (!mutex) return false;
    DWORD rc = WaitForSingleObject(mutex, o.lock_stuck ? 0 : kLockWaitMs);
    o.lock_stuck = rc == WAIT_TIMEOUT;
    return rc == WAIT_OBJECT_0 || rc == WAIT_ABANDONED;
}

HANDLE open_append(const std::string &path) {
    return CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Renames module.log -> .1 -> .2 -> .3; the oldest falls off. Runs under the lock.
void rotate(const std::string &path) {
    for (int i = kOldFiles; i >= 1; --i) {
        std::string from = i == 1 ? path : path + "." + std::to_string(i - 1);
        std::string to = path + "." + std::to_string(i);
        (void)MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING);
    }
}

bool write_all(HANDLE h, const std::string &data) {
    const char *p = data.data();
    size_t left = data.size();
    while (left > 0) {
        DWORD n = 0;
        if (!WriteFile(h, p, static_cast<DWORD>(left), &n, nullptr) || n == 0) return false;
        p += n;
        left -= n;
    }
    return true;
}

}  // namespace

void OutputDeleter::operator()(Output *o) const {
    if (!o) return;
    close_mutex(*o);
    delete o;
}

OutputPtr make_output() { return OutputPtr(new Output); }

void reopen_output(Output &o, const std::string &mutex_name) {
    close_mutex(o);
    o.dir = log_dir();
    o.mutex_name = mutex_name;
}

void close_output(Output &o) { close_mutex(o); }

// A line written without the lock (its wait timed out) is still one appending write, so it
// stays whole; only the rotation needs the lock.
bool append(Output &o, const std::string &stem, long long limit, const std::string &line) {
    KeepLastError keep;
    if (o.dir.empty() || !make_dirs(o.dir)) return false;
    const std::string path = o.dir + "\\" + stem + ".log";
    const bool locked = take_lock(o, mutex_for(o, stem));
    bool ok = false;
    HANDLE h = open_append(path);
    LARGE_INTEGER size {};
    if (h != INVALID_HANDLE_VALUE && locked && limit > 0 && GetFileSizeEx(h, &size) && size.QuadPart > 0 &&
        size.QuadPart + static_cast<long long>(line.size()) > limit) {
        CloseHandle(h);
        rotate(path);
        h = open_append(path);
    }
    if (h != INVALID_HANDLE_VALUE) {
        ok = write_all(h, line);
        CloseHandle(h);
    }
    if (locked) ReleaseMutex(o.mutex);
    return ok;
}

void to_stderr(const std::string &line) {
    HANDLE err = GetStdHandle(STD_ERROR_HANDLE);
    if (err && err != INVALID_HANDLE_VALUE) (void)write_all(err, line);
}

std::string time_stamp() {
    SYSTEMTIME t;
    GetLocalTime(&t);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", t.wYear, t.wMonth, t.wDay, t.wHour,
                  t.wMinute, t.wSecond, t.wMilliseconds);
    return buf;
}

int process_id() { return static_cast<int>(GetCurrentProcessId()); }
int thread_id() { return static_cast<int>(GetCurrentThreadId()); }

void report_event(const char *module, DWORD event_id, const std::string &text) {
    KeepLastError keep;
    const std::string source = module ? "qmt-" + std::string(module) : std::string("qmt");
    HANDLE h = RegisterEventSourceA(nullptr, source.c_str());
    if (!h) return;
    WORD type = EVENTLOG_INFORMATION_TYPE;
    switch (event_id >> 30) {
    case 2: type = EVENTLOG_WARNING_TYPE; break;
    case 3: type = EVENTLOG_ERROR_TYPE; break;
    default: break;
    }
    const char *strings[] = {text.c_str()};
    (void)ReportEventA(h, type, 0, event_id, nullptr, 1, 0, strings, nullptr);
    DeregisterEventSource(h);
}

}  // namespace qmtlog
