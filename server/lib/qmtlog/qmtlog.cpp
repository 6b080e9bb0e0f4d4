// qmtlog.cpp - the cluster's log library: one rotating log file per module, shared by every
// process of the node that logs for that module.
//
// Level and size are kept per module name. A line is formatted only when its level passes the
// module's level, then appended to the module's file by the system's side of the library
// (qmtlog_platform.h), which serialises the writers of every process and rotates. Nothing here
// ever fails the caller: when the log file cannot be written the line goes to standard error
// instead.

#include "qmtlog.h"
#include "qmtlog_internal.h"
#include "qmtlib_sync.h"
#include "qmtlog_platform.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace qmtlog {
namespace {

constexpr int kDefaultLevel = QMTLOG_INFO;
constexpr int kDefaultSize = 10000000;

constexpr int kBadParameter = 87;  // ERROR_INVALID_PARAMETER
constexpr int kBadHandle = 6;      // ERROR_INVALID_HANDLE

struct Module {
    std::string name;
    std::atomic<int> level{kDefaultLevel};
    std::atomic<int> size{kDefaultSize};
    bool level_set = false;  // changed by set settings before the first open
    bool size_set = false;
    bool opened_before = false;
    std::atomic<int> opens{0};  // changed under the library's lock, read also under `io`
    std::string mutex_name;  // the named mutex the caller asked for

    qmtlib::Mutex io;  // the output, and the order of this process's lines
    OutputPtr out = make_output();
};

struct Table {
    std::string module;
};

struct Library {
    qmtlib::Mutex mutex;
    std::map<std::string, std::unique_ptr<Module>, std::less<>> modules;  // never removed: handles stay valid
    std::set<const Module *> open;
    Module *last = nullptr;
    std::set<const Table *> tables;
};

// Never deleted, so that it outlives the static destructors of callers that log at exit. Made when
// the library is loaded, not on first use: the guard of a first-use static would keep a system
// handle that outlives the unloaded DLL on Windows.
Library *const g_library = new Library;

Library &lib() { return *g_library; }

Module &module_locked(Library &l, const std::string &name) {
    auto &slot = l.modules[name];
    if (!slot) {
        slot = std::make_unique<Module>();
        slot->name = name;
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
    char head[160];
    std::snprintf(head, sizeof head, "%s %s %d/%d ", time_stamp().c_str(), level_name(level).c_str(), process_id(),
                  thread_id());
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
    default: return std::string("L").append(std::to_string(level));
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
    std::lock_guard<qmtlib::Mutex> lock(l.mutex);
    Module &m = qmtlog::module_locked(l, module);
    if (!m.opened_before) {
        if (!m.level_set && level > 0) m.level = level;
        if (!m.size_set && size > 0) m.size = size;
        m.opened_before = true;
    }
    if (mutex_name) m.mutex_name = mutex_name;
    {
        // A new open finds the directory afresh, so an operator's QMT_LOG_DIR change applies.
        std::lock_guard<qmtlib::Mutex> io(m.io);
        qmtlog::reopen_output(*m.out, m.mutex_name);
    }
    ++m.opens;
    l.open.insert(&m);
    l.last = &m;
    *log = &m;
    return 0;
}

int WINAPI QmtLogClose(HANDLE log) {
    Library &l = lib();
    std::lock_guard<qmtlib::Mutex> lock(l.mutex);
    auto *m = static_cast<Module *>(log);
    if (!log || !l.open.count(m)) return qmtlog::kBadHandle;
    if (--m->opens == 0) {
        l.open.erase(m);
        std::lock_guard<qmtlib::Mutex> io(m->io);
        qmtlog::close_output(*m->out);
    }
    return 0;
}

int __cdecl QmtLogWrite(HANDLE log, int level, DWORD event_id, const char *file, int line,
                        const char *function, const char *format, ...) {
    Library &l = lib();
    Module *m = nullptr;
    int current = qmtlog::kDefaultLevel;
    {
        std::lock_guard<qmtlib::Mutex> lock(l.mutex);
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
        std::lock_guard<qmtlib::Mutex> io(m->io);
        if (!qmtlog::append(*m->out, qmtlog::file_stem(m->name), m->size.load(std::memory_order_relaxed), out))
            qmtlog::to_stderr(out);
        // A line for a module that is no longer open (a caller's last words after its close) keeps
        // nothing open behind it: only an open module holds files, locks and handles.
        if (m->opens.load() == 0) qmtlog::close_output(*m->out);
    }
    if (is_event && event_id != 0) qmtlog::report_event(m ? m->name.c_str() : nullptr, event_id, text);
    return 0;
}

int WINAPI QmtLogSetSettings(const char *module, int level, int size, int reserved) {
    (void)reserved;
    if (!module || !*module) return qmtlog::kBadParameter;
    Library &l = lib();
    std::lock_guard<qmtlib::Mutex> lock(l.mutex);
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
    std::lock_guard<qmtlib::Mutex> lock(l.mutex);
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
    std::lock_guard<qmtlib::Mutex> lock(l.mutex);
    l.tables.insert(t.get());
    *table = t.release();
    return 0;
}

int WINAPI QmtUnloadStringTable(HANDLE table) {
    Library &l = lib();
    std::lock_guard<qmtlib::Mutex> lock(l.mutex);
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
        std::lock_guard<qmtlib::Mutex> lock(l.mutex);
        if (!table || !l.tables.count(static_cast<const Table *>(table))) return qmtlog::kBadHandle;
    }
    const char *text = qmtlog::status_text(status);
    if (text) std::snprintf(buffer, static_cast<size_t>(size), "%s", text);
    else std::snprintf(buffer, static_cast<size_t>(size), "Unknown status %d", status);
    return 0;
}

}  // extern "C"
