// doubles.cpp - recording test doubles of qmtlog, qmtxml, qmtshmcm, qmtshmrm and qmtutil.
//
// Every entry point takes the one mutex, records its call and answers from the state that the
// test set up. Load state (init/term, policies, configuration, attaches, log, string table) is
// tracked like the real libraries do it: releasing something that is not held returns
// kNotHeld and changes nothing, so a test can see whether an unwind released too much.

#include "doubles.h"

#include "qmtlog.h"
#include "qmtshm.h"
#include "qmtutil.h"
#include "qmtxml.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace doubles {
namespace {

constexpr int kNotHeld = 5;          // release of something not acquired
constexpr int kBadHandle = 6;        // a handle this double never gave out
constexpr int kKeyMissing = 2;       // no value under that key
constexpr int kWrongKind = 13;       // value exists, but of the other kind
constexpr int kTooSmall = 122;       // buffer too small; *size tells the room needed

// What reset() restores; the mutex stays out of it.
struct Data {
    std::vector<Call> calls;

    std::map<std::string, std::pair<int, int>> failures;  // function -> (result, times)
    std::map<std::string, int> key_failures;

    int level = 4;
    int size = 10000000;
    bool log_open = false;
    bool table_loaded = false;
    std::map<int, std::string> status_texts;

    std::map<std::string, int> ints;
    std::map<std::string, std::string> texts;
    std::map<std::string, std::vector<std::string>> names;
    bool xml_init = false;
    bool config = false;
    std::vector<std::string> policies;

    int ratio = 1;
    bool cm = false;
    bool rm = false;
    std::map<std::string, std::string> descriptions;
    std::map<std::string, std::vector<int>> progress;

    std::string hostname = "node1";
};

struct State : Data {
    std::mutex mutex;
};

State &state() {
    static State s;
    return s;
}

using Lock = std::lock_guard<std::mutex>;

// Runs `f` on the state under its mutex: the body of every accessor below.
template <class F> decltype(auto) locked(F f) {
    State &s = state();
    Lock lock(s.mutex);
    return f(s);
}

// The pending failure of `function` called with `args`, used up by this call; 0 when none. A
// failure may name the function alone, or the function with its arguments: "f(args)".
int take_failure(State &s, const std::string &function, const std::string &args) {
    auto it = s.failures.find(function + "(" + args + ")");
    if (it == s.failures.end()) it = s.failures.find(function);
    if (it == s.failures.end()) return 0;
    int result = it->second.first;
    if (--it->second.second <= 0) s.failures.erase(it);
    return result;
}

// Records a non-log call and returns the pending failure of that function, or 0.
int record(State &s, const char *function, std::string args, HANDLE log = nullptr) {
    int result = take_failure(s, function, args);
    s.calls.push_back(Call{.function = function, .args = std::move(args), .log = log});
    return result;
}

int key_failure(State &s, const std::string &key) {
    auto it = s.key_failures.find(key);
    return it == s.key_failures.end() ? 0 : it->second;
}

std::string text_of(const char *p) { return p ? std::string(p) : std::string("(null)"); }

std::string join(std::initializer_list<std::string> parts) {
    std::string out;
    bool first = true;
    for (const auto &p : parts) {
        if (!first) out += '|';
        first = false;
        out += p;
    }
    return out;
}

// Handles the doubles hand out; fixed, so tests can compare them.
HANDLE const kLogHandle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x4C4F47));
HANDLE const kTableHandle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x535452));

}  // namespace

void reset() {
    locked([](State &s) { static_cast<Data &>(s) = Data{}; });
}

const std::vector<Call> &calls() {
    return locked([](State &s) -> const std::vector<Call> & { return s.calls; });
}

std::vector<std::string> log_lines() { return log_lines_upto(0x7fffffff); }

std::vector<std::string> log_lines_upto(int max_level) {
    return locked([&](State &s) {
        std::vector<std::string> out;
        for (const Call &c : s.calls)
            if (c.function == "QmtLogWrite" && c.level <= max_level)
                out.push_back(std::to_string(c.level) + "|" + c.log_function + "|" + c.text);
        return out;
    });
}

int line_index(const std::string &line) {
    const std::vector<std::string> lines = log_lines();
    const auto it = std::find(lines.begin(), lines.end(), line);
    return it == lines.end() ? -1 : static_cast<int>(it - lines.begin());
}

std::vector<std::string> lines_with(const std::string &needle) {
    std::vector<std::string> out;
    for (const std::string &l : log_lines())
        if (l.find(needle) != std::string::npos) out.push_back(l);
    return out;
}

std::vector<std::string> lines_like(const std::string &pattern) {
    std::vector<std::string> out;
    for (const std::string &l : log_lines())
        if (fnmatch(pattern.c_str(), l.c_str(), FNM_NOESCAPE) == 0) out.push_back(l);
    return out;
}

std::vector<std::string> service_calls() {
    return locked([](State &s) {
        std::vector<std::string> out;
        for (const Call &c : s.calls)
            if (c.function != "QmtLogWrite" && c.function != "QmtLogGetSettings")
                out.push_back(c.function + "(" + c.args + ")");
        return out;
    });
}

void clear_calls() {
    locked([](State &s) { s.calls.clear(); });
}

void fail(const std::string &function, int result, int times) {
    if (times > 0) locked([&](State &s) { s.failures[function] = {result, times}; });
}

void fail_key(const std::string &key, int result) {
    locked([&](State &s) { s.key_failures[key] = result; });
}

void set_log_settings(int level, int size) {
    locked([&](State &s) { s.level = level, s.size = size; });
}

int log_level() { return locked([](State &s) { return s.level; }); }
int log_size() { return locked([](State &s) { return s.size; }); }

void set_status_text(int status, const std::string &text) {
    locked([&](State &s) { s.status_texts[status] = text; });
}

bool string_table_loaded() { return locked([](State &s) { return s.table_loaded; }); }
bool log_open() { return locked([](State &s) { return s.log_open; }); }

void set_int(const std::string &key, int value) {
    locked([&](State &s) { s.texts.erase(key), s.ints[key] = value; });
}

void set_text(const std::string &key, const std::string &value) {
    locked([&](State &s) { s.ints.erase(key), s.texts[key] = value; });
}

void erase_key(const std::string &key) {
    locked([&](State &s) { s.ints.erase(key), s.texts.erase(key), s.names.erase(key); });
}

void set_names(const std::string &key, const std::vector<std::string> &names) {
    locked([&](State &s) { s.names[key] = names; });
}

bool xml_initialised() { return locked([](State &s) { return s.xml_init; }); }
bool config_loaded() { return locked([](State &s) { return s.config; }); }
std::vector<std::string> policies_loaded() { return locked([](State &s) { return s.policies; }); }
void set_ratio(int ratio) { locked([&](State &s) { s.ratio = ratio; }); }
bool cm_attached() { return locked([](State &s) { return s.cm; }); }
bool rm_attached() { return locked([](State &s) { return s.rm; }); }

std::string description(const std::string &type, const std::string &name) {
    return locked([&](State &s) {
        auto it = s.descriptions.find(type + "|" + name);
        return it == s.descriptions.end() ? std::string() : it->second;
    });
}

std::vector<int> progress(const std::string &type, const std::string &name) {
    return locked([&](State &s) {
        auto it = s.progress.find(type + "|" + name);
        return it == s.progress.end() ? std::vector<int>() : it->second;
    });
}

}  // namespace doubles

using doubles::Call;
using doubles::Data;
using doubles::join;
using doubles::kBadHandle;
using doubles::kKeyMissing;
using doubles::kLogHandle;
using doubles::kNotHeld;
using doubles::kTableHandle;
using doubles::kTooSmall;
using doubles::kWrongKind;
using doubles::key_failure;
using doubles::Lock;
using doubles::record;
using doubles::State;
using doubles::text_of;

// The load state that an acquiring call sets and its releasing call clears; releasing what is
// not held answers kNotHeld and changes nothing.
int acquire(const char *function, const std::string &args, bool Data::*held) {
    return doubles::locked([&](State &s) {
        int r = record(s, function, args);
        if (r == 0) s.*held = true;
        return r;
    });
}

int release(const char *function, bool Data::*held) {
    return doubles::locked([&](State &s) {
        int r = record(s, function, "");
        if (r != 0) return r;
        if (!(s.*held)) return kNotHeld;
        s.*held = false;
        return 0;
    });
}

// ---- qmtlog ----

int WINAPI QmtLogOpen(const char *module, HANDLE *log, int level, int size, int reserved,
                      const char *mutex_name) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "QmtLogOpen",
                   join({text_of(module), std::to_string(level), std::to_string(size),
                         std::to_string(reserved), text_of(mutex_name)}));
    if (r != 0) {
        if (log) *log = nullptr;
        return r;
    }
    if (log) *log = kLogHandle;
    s.log_open = true;
    return 0;
}

int WINAPI QmtLogClose(HANDLE log) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "QmtLogClose", "", log);
    if (r != 0) return r;
    if (log != kLogHandle || !s.log_open) return kNotHeld;
    s.log_open = false;
    return 0;
}

int __cdecl QmtLogWrite(HANDLE log, int level, DWORD event_id, const char *file, int line,
                        const char *function, const char *format, ...) {
    std::string text;
    if (format) {
        va_list ap;
        va_start(ap, format);
        va_list again;
        va_copy(again, ap);
        char small[512];
        int n = std::vsnprintf(small, sizeof small, format, ap);
        va_end(ap);
        if (n >= static_cast<int>(sizeof small)) {
            text.resize(static_cast<size_t>(n) + 1);
            std::vsnprintf(text.data(), text.size(), format, again);
            text.resize(static_cast<size_t>(n));
        } else if (n > 0) {
            text.assign(small, static_cast<size_t>(n));
        }
        va_end(again);
    }
    State &s = doubles::state();
    Lock lock(s.mutex);
    s.calls.push_back(Call{.function = "QmtLogWrite", .level = level, .event = event_id, .file = text_of(file), .line = line,
                           .log_function = text_of(function), .text = std::move(text), .log = log});
    return take_failure(s, "QmtLogWrite", "");
}

int WINAPI QmtLogSetSettings(const char *module, int level, int size, int reserved) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "QmtLogSetSettings",
                   join({text_of(module), std::to_string(level), std::to_string(size),
                         std::to_string(reserved)}));
    if (r != 0) return r;
    if (level != 0) s.level = level;
    if (size != 0) s.size = size;
    return 0;
}

int WINAPI QmtLogGetSettings(const char *module, int *level, int *size, int reserved) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "QmtLogGetSettings",
                   join({text_of(module), size ? "size" : "nosize", std::to_string(reserved)}));
    if (r != 0) return r;
    if (level) *level = s.level;
    if (size) *size = s.size;
    return 0;
}

int WINAPI QmtLoadStringTable(const char *module, int reserved, HANDLE *table) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "QmtLoadStringTable", join({text_of(module), std::to_string(reserved)}));
    if (r != 0) {
        if (table) *table = nullptr;
        return r;
    }
    if (table) *table = kTableHandle;
    s.table_loaded = true;
    return 0;
}

int WINAPI QmtUnloadStringTable(HANDLE table) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "QmtUnloadStringTable", "", table);
    if (r != 0) return r;
    if (table != kTableHandle || !s.table_loaded) return kNotHeld;
    s.table_loaded = false;
    return 0;
}

int WINAPI QmtGetStatusText(HANDLE table, int status, char *buffer, int size, int reserved) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "QmtGetStatusText",
                   join({std::to_string(status), std::to_string(size), std::to_string(reserved)}),
                   table);
    if (r != 0) return r;
    if (table != kTableHandle || !s.table_loaded) return kBadHandle;
    auto it = s.status_texts.find(status);
    if (it == s.status_texts.end()) return kKeyMissing;
    if (!buffer || size <= 0) return kTooSmall;
    size_t n = std::min(it->second.size(), static_cast<size_t>(size) - 1);
    std::memcpy(buffer, it->second.data(), n);
    buffer[n] = '\0';
    return 0;
}

// ---- qmtxml ----

int WINAPI xmllib_init(const char *type) { return acquire("xmllib_init", text_of(type), &Data::xml_init); }

int WINAPI xmllib_term(void) { return release("xmllib_term", &Data::xml_init); }

int WINAPI xmllib_load_policy(const char *type) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    std::string t = text_of(type);
    int r = record(s, "xmllib_load_policy", t);
    if (r != 0) return r;
    if (std::find(s.policies.begin(), s.policies.end(), t) == s.policies.end())
        s.policies.push_back(t);
    return 0;
}

int WINAPI xmllib_unload_policy(const char *type) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    std::string t = text_of(type);
    int r = record(s, "xmllib_unload_policy", t);
    if (r != 0) return r;
    auto it = std::find(s.policies.begin(), s.policies.end(), t);
    if (it == s.policies.end()) return kNotHeld;
    s.policies.erase(it);
    return 0;
}

int WINAPI xmllib_load_config(int mode) {
    return acquire("xmllib_load_config", std::to_string(mode), &Data::config);
}

int WINAPI xmllib_unload_config(void) { return release("xmllib_unload_config", &Data::config); }

int WINAPI xmllib_reload_config(int mode) {
    return doubles::locked([&](State &s) { return record(s, "xmllib_reload_config", std::to_string(mode)); });
}

int WINAPI xmllib_enum_value(const char *key, char *buffer, int *size) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    std::string k = text_of(key);
    int r = record(s, "xmllib_enum_value", k);
    if (r == 0) r = key_failure(s, k);
    auto it = s.names.find(k);
    int needed = it == s.names.end() ? 0 : static_cast<int>(it->second.size()) * XMLLIB_NAME_SLOT;
    if (buffer == nullptr) {
        // The counting call reports the room even with results 3 and 4, which callers accept.
        if (it == s.names.end() && r == 0) return kKeyMissing;
        if (size) *size = needed;
        return r;
    }
    if (r != 0) return r;
    if (it == s.names.end()) return kKeyMissing;
    if (!size || *size < needed) {
        if (size) *size = needed;
        return kTooSmall;
    }
    for (size_t i = 0; i < it->second.size(); ++i) {
        char *slot = buffer + i * XMLLIB_NAME_SLOT;
        size_t n = std::min(it->second[i].size(), static_cast<size_t>(XMLLIB_NAME_SLOT - 1));
        std::memcpy(slot, it->second[i].data(), n);
        slot[n] = '\0';
    }
    *size = needed;
    return 0;
}

int WINAPI xmllib_get_value(const char *key, int kind, void *buffer, int *size) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    std::string k = text_of(key);
    int r = record(s, "xmllib_get_value", k);
    if (r == 0) r = key_failure(s, k);
    if (r != 0) return r;
    auto ii = s.ints.find(k);
    auto ti = s.texts.find(k);
    if (ii == s.ints.end() && ti == s.texts.end()) return kKeyMissing;
    if (kind == XMLLIB_KIND_INT) {
        if (ii == s.ints.end()) return kWrongKind;
        if (!buffer || !size || *size < 4) {
            if (size) *size = 4;
            return kTooSmall;
        }
        int32_t v = ii->second;
        std::memcpy(buffer, &v, sizeof v);
        *size = 4;
        return 0;
    }
    if (ti == s.texts.end()) return kWrongKind;
    int needed = static_cast<int>(ti->second.size()) + 1;
    if (!buffer || !size || *size < needed) {
        if (size) *size = needed;
        return kTooSmall;
    }
    std::memcpy(buffer, ti->second.c_str(), static_cast<size_t>(needed));
    return 0;
}

// ---- qmtshmcm / qmtshmrm ----

int WINAPI shmcm_attach(void) { return acquire("shmcm_attach", "", &Data::cm); }

int WINAPI shmcm_detach(void) { return release("shmcm_detach", &Data::cm); }

int WINAPI shmcm_getratio(int *ratio, void *extra) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "shmcm_getratio", "");
    if (r != 0) return r;
    if (ratio) *ratio = s.ratio;
    if (extra) std::memset(extra, 0, 16);
    return 0;
}

int WINAPI shmrm_attach(void) { return acquire("shmrm_attach", "", &Data::rm); }

int WINAPI shmrm_detach(void) { return release("shmrm_detach", &Data::rm); }

int WINAPI shmrm_setdescript(void *reserved, const char *type, const char *name, const char *text,
                             int length) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    (void)reserved;
    std::string t;
    if (text && length > 0) t.assign(text, strnlen(text, static_cast<size_t>(length)));
    int r = record(s, "shmrm_setdescript",
                   join({text_of(type), text_of(name), t, std::to_string(length)}));
    if (r != 0) return r;
    s.descriptions[text_of(type) + "|" + text_of(name)] = t;
    return 0;
}

int WINAPI shmrm_setmonprogress(const char *type, const char *name, int progress) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "shmrm_setmonprogress",
                   join({text_of(type), text_of(name), std::to_string(progress)}));
    if (r != 0) return r;
    s.progress[text_of(type) + "|" + text_of(name)].push_back(progress);
    return 0;
}

// ---- qmtutil ----

int WINAPI cs_gethostname(char *buffer, int size, int flag, HANDLE log) {
    State &s = doubles::state();
    Lock lock(s.mutex);
    int r = record(s, "cs_gethostname", join({std::to_string(size), std::to_string(flag)}), log);
    if (r != 0) return r;
    if (!buffer || size <= 0) return kTooSmall;
    size_t n = std::min(s.hostname.size(), static_cast<size_t>(size) - 1);
    std::memcpy(buffer, s.hostname.data(), n);
    buffer[n] = '\0';
    return n < s.hostname.size() ? kTooSmall : 0;
}
