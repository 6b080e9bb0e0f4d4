// qmtrm_script.cpp - `qmtrm script FILE|-`: the whole script is parsed first (qmtrm_script_parse),
// then run line by line: export calls and control lines, each printed with its result; expect
// lines make a script check itself.
#include "qmtrm.h"
#include "qmtrm_script_parse.h"

#include "keypath.h"
#include "qmtlog.h"
#include "qmtplat.h"
#include "qmtrm_platform.h"
#include "qmtshm_admin.h"

#include <signal.h>

#include <atomic>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

namespace qmtrm {

namespace {

using script::Op;
using script::Statement;
using Clock = std::chrono::steady_clock;

constexpr int kDefaultWaitMs = 30000;
// After a stop signal, how long the line in progress and the teardown may take.
constexpr int kStopWaitMs = 5000;

// A failure while running a line that is the script's own fault (a file it names is missing).
struct ScriptError {
    std::string what;
};

DWORD invoke(const Plugin &p, const script::Call &c)
{
    const std::string &n = c.export_name;
    const int i1 = static_cast<int>(static_cast<uint32_t>(c.n1));
    const DWORD d2 = static_cast<DWORD>(c.n2);
    if (n == "InitRscDll")
        return p.InitRscDll(c.a.get(), i1, d2);
    if (n == "UninitRscDll")
        return p.UninitRscDll(c.a.get(), i1, d2);
    if (n == "InitNpRscDll")
        return p.InitNpRscDll(c.a.get(), i1, d2);
    if (n == "UninitNpRscDll")
        return p.UninitNpRscDll(c.a.get(), i1, d2);
    if (n == "DoMontr")
        return p.DoMontr(c.a.get(), c.b.get());
    if (n == "DoNpMontr")
        return p.DoNpMontr(c.a.get(), c.b.get());
    if (n == "MontrStatusChange")
        return p.MontrStatusChange(c.a.get(), c.b.get(), i1);
    if (n == "NpMontrStatusChange")
        return p.NpMontrStatusChange(c.a.get(), c.b.get(), i1);
    return p.GetCheckPoint(c.a.get());
}

std::string result_text(const script::Call &c, DWORD result)
{
    std::string out = std::to_string(result);
    if (c.export_name != "GetCheckPoint") {
        std::string text = status_text(result);
        if (!text.empty())
            out += " (" + text + ")";
    }
    return out;
}

const char *service_text(script::Service s) { return s == script::Service::Sdw ? "sdw" : "disknp"; }

// One line of a qmtlog file: "DATE TIME LEVEL PID/TID FILE:LINE FUNCTION: TEXT".
struct LogLine {
    std::string level, function, text;
};

bool parse_log_line(const std::string &line, LogLine *out)
{
    size_t pos = 0;
    std::string fields[5];
    for (auto &f : fields) {
        size_t blank = line.find(' ', pos);
        if (blank == std::string::npos)
            return false;
        f = line.substr(pos, blank - pos);
        pos = blank + 1;
    }
    size_t colon = line.find(": ", pos);
    if (colon == std::string::npos)
        return false;
    out->level = fields[2];
    out->function = line.substr(pos, colon - pos);
    out->text = line.substr(colon + 2);
    return true;
}

// The log files a script checks: the host's own rm.log, where the plug-in's lines go while its
// own log is not open (qmtlog sends a line without a log to the module opened last), and sdw.log.
struct LogFile {
    std::string path;
    size_t mark = 0;  // lines before the last `mark`
};

std::vector<LogLine> read_log(const LogFile &file)
{
    std::vector<LogLine> lines;
    std::ifstream in(file.path);
    std::string text;
    for (size_t n = 0; std::getline(in, text); ++n) {
        LogLine l;
        if (n >= file.mark && parse_log_line(text, &l))
            lines.push_back(std::move(l));
    }
    return lines;
}

size_t count_lines(const std::string &path)
{
    std::ifstream in(path);
    size_t n = 0;
    for (std::string text; std::getline(in, text);)
        ++n;
    return n;
}

std::string log_dir()
{
    const char *dir = std::getenv("QMT_LOG_DIR");
    return dir != nullptr && *dir != '\0' ? dir : ".";
}

const char *progress_name(int code)
{
    return code == QMT_DOMONTR_MONSTART ? "MONSTART" : code == QMT_DOMONTR_MONEND ? "MONEND" : code == 0 ? "-" : "?";
}

// A call running on a thread of its own until `wait` collects it.
struct Async {
    int line = 0;
    std::string name;
    script::Call call;
    std::thread thread;
    bool done = false;
    DWORD result = 0;
    Clock::time_point started, ended;
};

struct Options {
    bool times = false;
    std::filesystem::path folder;  // of the script, for `conf write`
};

class Runner {
public:
    Runner(const Plugin &plugin, const Options &options)
        : plugin_(plugin), options_(options), start_(Clock::now()),
          logs_{LogFile{log_dir() + "/rm.log"}, LogFile{log_dir() + "/sdw.log"}}
    {
    }
    ~Runner()
    {
        for (auto &a : asyncs_)
            if (a->thread.joinable())
                a->thread.join();
    }

    // Runs every statement; returns the exit status.
    int run(const std::vector<Statement> &statements)
    {
        for (const Statement &st : statements) {
            if (stop_signal_ != 0)
                return tear_down();
            line_ = st.line;
            try {
                int rc = execute(st);
                if (stop_signal_ != 0)
                    return tear_down();
                if (rc != kExitOk)
                    return finish(rc);
            } catch (const ScriptError &e) {
                std::fflush(stdout);
                std::fprintf(stderr, "qmtrm: line %d: %s\n", line_, e.what.c_str());
                return finish(kExitUsage);
            }
        }
        if (!asyncs_.empty()) {
            std::printf("%d: (end) waiting for %zu async call(s)\n", line_, asyncs_.size());
            return collect("", kDefaultWaitMs);
        }
        return kExitOk;
    }

    // A stop signal: the line in progress ends, then the script stops and what it initialised is
    // torn down.
    void interrupt(int signal_number)
    {
        {
            std::lock_guard lock(mutex_);
            stop_signal_ = signal_number;
        }
        done_.notify_all();
    }

private:
    // Tears down the service the script initialised, as its own Uninit line would, unless an
    // async call still runs in the plug-in: then it leaves without teardown.
    int tear_down()
    {
        const char *sig = stop_signal_ == SIGINT ? "SIGINT" : stop_signal_ == SIGTERM ? "SIGTERM" : "SIGHUP";
        std::vector<std::string> running;
        {
            std::lock_guard lock(mutex_);
            for (auto &a : asyncs_)
                if (!a->done)
                    running.push_back(async_title(*a));
        }
        if (!running.empty()) {
            for (const std::string &title : running)
                std::printf("%d: %s: %s still running; leaving without teardown\n", line_, sig, title.c_str());
            leave_now(kExitStuck);
        }
        if (!asyncs_.empty())
            collect("", 0);
        if (service_ != script::Service::None) {
            script::Call call = init_call_;
            call.export_name = service_ == script::Service::Sdw ? "UninitRscDll" : "UninitNpRscDll";
            DWORD result = invoke(plugin_, call);
            note_service(call, result);
            std::printf("%d: %s: teardown: %s -> %s\n", line_, sig, call.export_name.c_str(),
                        result_text(call, result).c_str());
        } else {
            std::printf("%d: %s: stopped; nothing to tear down\n", line_, sig);
        }
        return 128 + stop_signal_;
    }

    // Leaving early: an async call that is still running cannot be joined, so the host leaves
    // without running any destructor under it.
    int finish(int rc)
    {
        std::unique_lock lock(mutex_);
        for (auto &a : asyncs_) {
            if (!a->done) {
                std::fflush(nullptr);
                leave_now(rc);
            }
        }
        return rc;
    }

    int fail(const Statement &st, const std::string &why)
    {
        std::printf("%d: %s FAILED: %s\n", line_, st.shown.c_str(), why.c_str());
        std::fflush(stdout);
        std::fprintf(stderr, "qmtrm: line %d: %s\n", line_, why.c_str());
        return kExitCheckFailed;
    }

    int ok(const Statement &st)
    {
        std::printf("%d: %s ok\n", line_, st.shown.c_str());
        return kExitOk;
    }

    std::string timing(Clock::time_point begin, Clock::time_point end) const
    {
        if (!options_.times)
            return {};
        using std::chrono::duration_cast;
        using std::chrono::milliseconds;
        char text[64];
        std::snprintf(text, sizeof text, " [at %lld ms, took %lld ms]",
                      static_cast<long long>(duration_cast<milliseconds>(begin - start_).count()),
                      static_cast<long long>(duration_cast<milliseconds>(end - begin).count()));
        return text;
    }

    // The lines calling the other service's exports after an initialisation run, with a warning:
    // both services share one table, so such a call reaches records of the wrong kind.
    void check_service(const script::Call &call)
    {
        if (service_ != script::Service::None && call.service != service_)
            std::printf("%d: warning: %s is an export of the %s service, but %s was initialised on line %d\n", line_,
                        call.export_name.c_str(), service_text(call.service), service_text(service_), service_line_);
    }

    void note_service(const script::Call &call, DWORD result)
    {
        if (result != 0)
            return;
        if (call.is_init && service_ == script::Service::None) {
            service_ = call.service;
            service_line_ = line_;
            init_call_ = call;
        } else if (call.is_uninit && call.service == service_) {
            service_ = script::Service::None;
        }
    }

    int execute(const Statement &st)
    {
        switch (st.op) {
        case Op::Call: {
            check_service(st.call);
            std::fflush(stdout);
            Clock::time_point begin = Clock::now();
            DWORD result = invoke(plugin_, st.call);
            Clock::time_point end = Clock::now();
            note_service(st.call, result);
            set_result(result);
            std::printf("%d: %s -> %s%s\n", line_, st.shown.c_str(), result_text(st.call, result).c_str(),
                        timing(begin, end).c_str());
            return kExitOk;
        }
        case Op::Async:
            return start_async(st);
        case Op::Wait:
            std::printf("%d: %s\n", line_, st.shown.c_str());
            std::fflush(stdout);
            return collect(st.name, st.has_n ? static_cast<int>(st.n) : kDefaultWaitMs);
        case Op::Expect: {
            if (!have_result_)
                throw ScriptError{"expect without a result before it"};
            const uint32_t want = static_cast<uint32_t>(st.n);
            const bool holds = st.negate ? last_ != want : last_ == want;
            if (!holds)
                return fail(st, "expected " + std::string(st.negate ? "!= " : "") + std::to_string(want) + ", got " +
                                    std::to_string(last_));
            return ok(st);
        }
        case Op::ExpectLog:
            return expect_log(st);
        case Op::Mark:
            for (LogFile &f : logs_)
                f.mark = count_lines(f.path);
            std::printf("%d: %s\n", line_, st.shown.c_str());
            return kExitOk;
        case Op::Sim: {
            std::string why;
            if (!qmtp::sim::apply(st.text, &why))
                throw ScriptError{"sim: " + why};
            std::printf("%d: %s\n", line_, st.shown.c_str());
            return kExitOk;
        }
        case Op::SimRelease:
            qmtp::sim::release(static_cast<DWORD>(st.n), static_cast<DWORD>(st.m));
            std::printf("%d: %s\n", line_, st.shown.c_str());
            return kExitOk;
        case Op::Ratio: {
            int rc = shmcm_setratio(static_cast<int>(st.n));
            set_result(static_cast<DWORD>(rc));
            std::printf("%d: %s -> %d\n", line_, st.shown.c_str(), rc);
            return kExitOk;
        }
        case Op::TickSet:
        case Op::TickAdd:
        case Op::TickFreeze:
        case Op::TickThaw:
            return tick(st);
        case Op::Sleep:
            std::printf("%d: %s\n", line_, st.shown.c_str());
            std::fflush(stdout);
            {
                std::unique_lock lock(mutex_);
                done_.wait_for(lock, std::chrono::milliseconds(st.n), [this] { return stop_signal_ != 0; });
            }
            return kExitOk;
        case Op::Fault:
        case Op::FaultClear: {
            std::string why;
            if (st.op == Op::Fault ? !platform::fault_set(st.name, static_cast<unsigned>(st.n),
                                                           static_cast<unsigned long>(st.m), &why)
                                   : !platform::fault_clear(&why))
                throw ScriptError{st.shown + ": " + why};
            std::printf("%d: %s\n", line_, st.shown.c_str());
            return kExitOk;
        }
        case Op::ExpectLive: {
            long live = 0;
            std::string why;
            if (!platform::live_count(st.allocations, &live, &why))
                throw ScriptError{st.shown + ": " + why};
            if (live != st.n)
                return fail(st, "expected " + std::to_string(st.n) + " live " + (st.allocations ? "allocations" : "handles") +
                                    ", got " + std::to_string(live));
            return ok(st);
        }
        case Op::ConfSet:
        case Op::ConfRemove:
        case Op::ConfWrite:
            conf(st);
            std::printf("%d: %s\n", line_, st.shown.c_str());
            return kExitOk;
        case Op::Shm:
        case Op::ExpectShm:
            return shm(st);
        }
        return kExitOk;
    }

    int tick(const Statement &st)
    {
        switch (st.op) {
        case Op::TickSet:
            qmtp_tick_set(static_cast<DWORD>(st.n));
            break;
        case Op::TickAdd:
            // Frozen, the clock moves to the new value and stays frozen there.
            if (frozen_)
                qmtp_tick_freeze(GetTickCount() + static_cast<DWORD>(st.n));
            else
                qmtp_tick_set_offset(qmtp_tick_get_offset() + static_cast<DWORD>(st.n));
            break;
        case Op::TickFreeze:
            qmtp_tick_freeze(st.has_n ? static_cast<DWORD>(st.n) : GetTickCount());
            frozen_ = true;
            break;
        default:
            qmtp_tick_thaw();
            frozen_ = false;
            break;
        }
        std::printf("%d: %s -> %u\n", line_, st.shown.c_str(), static_cast<unsigned>(GetTickCount()));
        return kExitOk;
    }

    int expect_log(const Statement &st)
    {
        size_t count = 0;
        std::vector<std::string> nearby;  // the same text at another level or from another function
        for (const LogFile &f : logs_) {
            for (const LogLine &l : read_log(f)) {
                if (!script::text_matches(st.text, l.text))
                    continue;
                if ((st.level.empty() || st.level == l.level) && (st.function.empty() || st.function == l.function))
                    ++count;
                else if (nearby.size() < 3)
                    nearby.push_back(l.level + " " + l.function);
            }
        }
        const bool holds = st.n < 0 ? count > 0 : count == static_cast<size_t>(st.n);
        if (holds)
            return ok(st);
        std::string why = std::to_string(count) + " matching line(s)";
        if (st.n >= 0)
            why += ", expected " + std::to_string(st.n);
        why += " in " + logs_[0].path + " and " + logs_[1].path;
        for (const std::string &n : nearby)
            why += "; the text is there as " + n;
        return fail(st, why);
    }

    int shm(const Statement &st)
    {
        std::vector<QmtShmRmEntry> v(256);
        int count = 0;
        const QmtShmRmEntry *entry = nullptr;
        if (shmrm_list(v.data(), static_cast<int>(v.size()), &count) == 0) {
            for (int i = 0; i < count && i < static_cast<int>(v.size()); ++i)
                if (st.name == v[static_cast<size_t>(i)].name) {
                    entry = &v[static_cast<size_t>(i)];
                    break;
                }
        }
        if (st.op == Op::Shm) {
            if (entry == nullptr) {
                std::printf("%d: %s -> no entry\n", line_, st.shown.c_str());
                return kExitOk;
            }
            long long age = 0;
            if (entry->progress_time_ms > 0) {
                age = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count() -
                      entry->progress_time_ms;
            }
            std::printf("%d: %s -> %s %s progress %d %s, age %lld ms, \"%s\"\n", line_, st.shown.c_str(), entry->type,
                        entry->name, entry->progress, progress_name(entry->progress), age < 0 ? 0 : age,
                        entry->descript);
            return kExitOk;
        }
        if (entry == nullptr)
            return fail(st, "no entry for " + st.name);
        if (entry->progress != st.n || st.text != entry->descript)
            return fail(st, "progress " + std::to_string(entry->progress) + ", description \"" +
                                std::string(entry->descript) + "\"");
        return ok(st);
    }

    void conf(const Statement &st)
    {
        const char *dir = std::getenv("QMT_CONF_DIR");
        if (dir == nullptr || *dir == '\0')
            throw ScriptError{"conf: no configuration folder (--conf-dir)"};
        const std::filesystem::path target = std::filesystem::path(dir) / "clp.conf";
        const std::filesystem::path next = target.string() + ".next";
        if (st.op == Op::ConfWrite) {
            std::filesystem::path source = st.name;
            if (source.is_relative())
                source = options_.folder / source;
            std::error_code ec;
            std::filesystem::copy_file(source, next, std::filesystem::copy_options::overwrite_existing, ec);
            if (ec)
                throw ScriptError{"conf write: " + source.string() + ": " + ec.message()};
        } else {
            pugi::xml_document doc;
            pugi::xml_parse_result parsed =
                doc.load_file(target.c_str(), pugi::parse_default | pugi::parse_declaration | pugi::parse_comments);
            if (!parsed)
                throw ScriptError{"conf: " + target.string() + ": " + parsed.description()};
            std::vector<qmtxml::Segment> path;
            qmtxml::parse_key(st.name, path);  // checked when the script was parsed
            pugi::xml_node node = doc.document_element();
            if (std::string_view(node.name()) != path[0].element)
                throw ScriptError{"conf: the document element is not " + std::string(path[0].element)};
            for (size_t i = 1; i < path.size() && node; ++i) {
                const qmtxml::Segment &seg = path[i];
                const std::string element(seg.element);
                pugi::xml_node child;
                for (pugi::xml_node c : node.children(element.c_str()))
                    if (!seg.has_name || std::string_view(c.attribute("name").value()) == seg.name) {
                        child = c;
                        break;
                    }
                if (!child && st.op == Op::ConfSet) {
                    child = node.append_child(element.c_str());
                    if (seg.has_name)
                        child.append_attribute("name") = std::string(seg.name).c_str();
                }
                node = child;
            }
            if (st.op == Op::ConfSet) {
                node.text().set(st.text.c_str());
            } else if (!node) {
                throw ScriptError{"conf remove: no " + st.name};
            } else {
                node.parent().remove_child(node);
            }
            if (!doc.save_file(next.c_str(), "  "))
                throw ScriptError{"conf: cannot write " + next.string()};
        }
        // Replaced in one step, so a reader never sees half a file.
        std::error_code ec;
        std::filesystem::rename(next, target, ec);
        if (ec)
            throw ScriptError{"conf: cannot replace " + target.string() + ": " + ec.message()};
    }

    int start_async(const Statement &st)
    {
        for (auto &a : asyncs_)
            if (!st.name.empty() && a->name == st.name)
                throw ScriptError{"async " + st.name + " (line " + std::to_string(a->line) + ") is not collected yet"};
        check_service(st.call);
        auto a = std::make_unique<Async>();
        a->line = line_;
        a->name = st.name;
        a->call = st.call;
        std::printf("%d: %s (started)\n", line_, st.shown.c_str());
        std::fflush(stdout);
        Async *raw = a.get();
        asyncs_.push_back(std::move(a));
        raw->started = Clock::now();
        raw->thread = std::thread([this, raw] {
            DWORD result = invoke(plugin_, raw->call);
            std::lock_guard lock(mutex_);
            raw->result = result;
            raw->ended = Clock::now();
            raw->done = true;
            done_.notify_all();
        });
        return kExitOk;
    }

    std::string async_title(const Async &a) const
    {
        return "async " + (a.name.empty() ? std::string() : a.name + " ") + a.call.shown + " (line " +
               std::to_string(a.line) + ")";
    }

    // Joins the named async call, or every one, printing each result in the order they were
    // started. A call that has not returned within bound_ms cannot be joined: the host leaves at
    // once.
    int collect(const std::string &name, int bound_ms)
    {
        auto chosen = [&](const Async &a) { return name.empty() || a.name == name; };
        bool any = false;
        for (auto &a : asyncs_)
            any = any || chosen(*a);
        if (!name.empty() && !any)
            throw ScriptError{"no async call named " + name};
        std::unique_lock lock(mutex_);
        bool all = done_.wait_for(lock, std::chrono::milliseconds(bound_ms), [&] {
            if (stop_signal_ != 0)
                return true;
            for (auto &a : asyncs_)
                if (chosen(*a) && !a->done)
                    return false;
            return true;
        });
        if (stop_signal_ != 0 && bound_ms > 0)
            return kExitOk;  // the run loop tears down
        if (!all) {
            for (auto &a : asyncs_)
                if (chosen(*a) && !a->done)
                    std::printf("%d: %s still running after %d ms\n", line_, async_title(*a).c_str(), bound_ms);
            std::fflush(stdout);
            std::fprintf(stderr, "qmtrm: line %d: async call(s) still running; leaving without teardown\n", line_);
            leave_now(kExitStuck);
        }
        lock.unlock();
        for (auto it = asyncs_.begin(); it != asyncs_.end();) {
            Async &a = **it;
            if (!chosen(a)) {
                ++it;
                continue;
            }
            a.thread.join();
            note_service(a.call, a.result);
            std::printf("%d: %s -> %s%s\n", line_, async_title(a).c_str(), result_text(a.call, a.result).c_str(),
                        timing(a.started, a.ended).c_str());
            set_result(a.result);
            it = asyncs_.erase(it);
        }
        std::fflush(stdout);
        return kExitOk;
    }

    void set_result(DWORD result)
    {
        last_ = result;
        have_result_ = true;
    }

    const Plugin &plugin_;
    const Options options_;
    const Clock::time_point start_;
    LogFile logs_[2];
    int line_ = 0;
    DWORD last_ = 0;
    bool have_result_ = false;
    bool frozen_ = false;
    script::Service service_ = script::Service::None;
    int service_line_ = 0;
    script::Call init_call_;  // the call that initialised service_, for a teardown on a stop signal
    std::atomic<int> stop_signal_{0};
    std::vector<std::unique_ptr<Async>> asyncs_;
    std::mutex mutex_;
    std::condition_variable done_;
};

// Stop requests (signals, or the console's on Windows) reach a thread of their own. The first stops
// the script after the line in progress and tears down; the script has kStopWaitMs for both, and a
// second request leaves at once.
void watch_stop_signals(Runner *runner, const std::atomic<bool> *finished)
{
    const char *first = nullptr;
    Clock::time_point since;
    for (;;) {
        int request = platform::wait_stop_request(first ? 100 : -1);
        if (*finished)
            return;
        if (first && Clock::now() - since >= std::chrono::milliseconds(kStopWaitMs)) {
            std::fprintf(stderr, "qmtrm: the script still runs %d ms after %s; leaving without teardown\n",
                         kStopWaitMs, first);
            leave_now(kExitStuck);
        }
        if (request <= 0)
            continue;
        const char *name = request == SIGINT ? "SIGINT" : request == SIGTERM ? "SIGTERM" : "SIGHUP";
        if (first) {
            std::fprintf(stderr, "qmtrm: second %s: leaving at once without teardown\n", name);
            leave_now(kExitStuck);
        }
        first = name;
        since = Clock::now();
        std::fprintf(stderr, "qmtrm: %s: stopping after the line in progress; tearing down what the script "
                             "initialised\n", name);
        runner->interrupt(request);
    }
}

} // namespace

int script_main(const std::string &file, const EnvOptions &env, bool times)
{
    std::string why;
    if (!apply_env(env, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitInit;
    }
    std::ifstream in_file;
    std::istream *in = &std::cin;
    Options options;
    options.times = times;
    options.folder = std::filesystem::current_path();
    if (file != "-") {
        in_file.open(file);
        if (!in_file) {
            std::fprintf(stderr, "qmtrm: cannot open script %s\n", file.c_str());
            return kExitUsage;
        }
        in = &in_file;
        options.folder = std::filesystem::absolute(file).parent_path();
    }
    std::ostringstream text;
    text << in->rdbuf();
    std::vector<Statement> statements;
    try {
        statements = script::parse(text.str(), [](const std::string &statement, std::string *reason) {
            return qmtp::sim::check(statement, reason);
        });
    } catch (const script::ParseError &e) {
        std::fprintf(stderr, "qmtrm: line %d: %s\n", e.line, e.what.c_str());
        return kExitUsage;
    }
    // Once the script is read (it may come from a terminal) and before any thread starts.
    if (int rc = supervise(); rc != kSupervisedChild)
        return rc;
    if (!platform::open_stop_requests(&why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitInit;
    }
    Plugin plugin;
    if (!load_plugin(plugin_path(env.plugin), &plugin, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitPlugin;
    }
    // The host's own log, opened first as `qmtrm run` does: the plug-in's lines written while its
    // own log is not open land there, where expect-log finds them.
    HANDLE host_log = nullptr;
    if (QmtLogOpen("rm", &host_log, QMTLOG_INFO, 10000000, 0, "Global\\ORVQMT_RM_LOG") != 0)
        host_log = nullptr;
    load_status_texts();
    int rc;
    {
        Runner runner(plugin, options);
        std::atomic<bool> finished{false};
        std::thread watcher(watch_stop_signals, &runner, &finished);
        platform::catch_stop_requests();
        rc = runner.run(statements);
        finished = true;
        platform::wake_stop_watch();
        watcher.join();
    }
    std::fflush(stdout);
    unload_status_texts();
    if (host_log != nullptr)
        QmtLogClose(host_log);
    return rc;
}

} // namespace qmtrm
