// qmtrm_script.cpp - `qmtrm script FILE|-`: one export call or control line per script line,
// each printed with its result; expect lines make a script check itself.
#include "qmtrm.h"

#include "qmtplat.h"
#include "qmtshm_admin.h"

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <thread>

namespace qmtrm {

namespace {

constexpr int kDefaultWaitMs = 30000;

struct ScriptError {
    std::string what;
};

std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> words;
    std::istringstream in(line);
    std::string word;
    while (in >> word)
        words.push_back(word);
    return words;
}

// The text after the first `skip` words of a line, with its outer blanks removed.
std::string rest_of(const std::string &line, size_t skip)
{
    size_t pos = 0;
    for (size_t i = 0; i < skip; ++i) {
        pos = line.find_first_not_of(" \t", pos);
        pos = line.find_first_of(" \t", pos);
        if (pos == std::string::npos)
            return {};
    }
    size_t begin = line.find_first_not_of(" \t", pos);
    if (begin == std::string::npos)
        return {};
    size_t end = line.find_last_not_of(" \t\r");
    return line.substr(begin, end - begin + 1);
}

long long number(const std::string &word)
{
    if (word.empty())
        throw ScriptError{"a number is missing"};
    char *end = nullptr;
    errno = 0;
    long long value = std::strtoll(word.c_str(), &end, 0);
    if (*end != '\0' || errno == ERANGE)
        throw ScriptError{"not a number: " + word};
    return value;
}

// An argument of an export: "NULL" stands for a null pointer.
struct Arg {
    bool null = false;
    std::string text;
    const char *get() const { return null ? nullptr : text.c_str(); }
};

Arg arg(const std::string &word)
{
    return word == "NULL" ? Arg{true, {}} : Arg{false, word};
}

// One call of an export, parsed and ready to run (on this thread or another).
struct Call {
    std::string export_name;
    std::string shown;  // the call as the script wrote it
    Arg a, b;
    long long n1 = 0, n2 = 0;
};

// Export name -> number of words it takes (without the name); optional ones are counted apart.
Call parse_call(const std::vector<std::string> &w, const std::string &shown)
{
    Call call;
    call.export_name = w[0];
    call.shown = shown;
    auto need = [&](size_t min, size_t max) {
        if (w.size() - 1 < min || w.size() - 1 > max)
            throw ScriptError{w[0] + " takes " +
                              (min == max ? std::to_string(min) : std::to_string(min) + " to " + std::to_string(max)) +
                              " argument(s)"};
    };
    const std::string &name = w[0];
    if (name == "InitRscDll" || name == "UninitRscDll" || name == "InitNpRscDll" || name == "UninitNpRscDll") {
        need(0, 3);
        call.a = w.size() > 1 ? arg(w[1]) : Arg{false, "qmtsdw"};
        call.n1 = w.size() > 2 ? number(w[2]) : 0;
        call.n2 = w.size() > 3 ? number(w[3]) : 0;
    } else if (name == "DoMontr" || name == "DoNpMontr") {
        need(2, 2);
        call.a = arg(w[1]);
        call.b = arg(w[2]);
    } else if (name == "MontrStatusChange" || name == "NpMontrStatusChange") {
        need(3, 3);
        call.a = arg(w[1]);
        call.b = arg(w[2]);
        call.n1 = number(w[3]);
    } else if (name == "GetCheckPoint") {
        need(1, 1);
        call.a = arg(w[1]);
    } else {
        throw ScriptError{"unknown call: " + name};
    }
    return call;
}

DWORD invoke(const Plugin &p, const Call &c)
{
    const std::string &n = c.export_name;
    if (n == "InitRscDll")
        return p.InitRscDll(c.a.get(), static_cast<int>(c.n1), static_cast<DWORD>(c.n2));
    if (n == "UninitRscDll")
        return p.UninitRscDll(c.a.get(), static_cast<int>(c.n1), static_cast<DWORD>(c.n2));
    if (n == "InitNpRscDll")
        return p.InitNpRscDll(c.a.get(), static_cast<int>(c.n1), static_cast<DWORD>(c.n2));
    if (n == "UninitNpRscDll")
        return p.UninitNpRscDll(c.a.get(), static_cast<int>(c.n1), static_cast<DWORD>(c.n2));
    if (n == "DoMontr")
        return p.DoMontr(c.a.get(), c.b.get());
    if (n == "DoNpMontr")
        return p.DoNpMontr(c.a.get(), c.b.get());
    if (n == "MontrStatusChange")
        return p.MontrStatusChange(c.a.get(), c.b.get(), static_cast<int>(c.n1));
    if (n == "NpMontrStatusChange")
        return p.NpMontrStatusChange(c.a.get(), c.b.get(), static_cast<int>(c.n1));
    return p.GetCheckPoint(c.a.get());
}

std::string result_text(const Call &c, DWORD result)
{
    std::string out = std::to_string(result);
    if (c.export_name != "GetCheckPoint") {
        std::string text = status_text(result);
        if (!text.empty())
            out += " (" + text + ")";
    }
    return out;
}

// A call running on a thread of its own until `wait` collects it.
struct Async {
    int line = 0;
    Call call;
    std::thread thread;
    bool done = false;
    DWORD result = 0;
};

class Script {
public:
    explicit Script(const Plugin &plugin) : plugin_(plugin) {}
    ~Script()
    {
        for (auto &a : asyncs_)
            if (a->thread.joinable())
                a->thread.join();
    }

    // Runs the whole script; returns the exit status.
    int run(std::istream &in)
    {
        std::string line;
        int number_ = 0;
        while (std::getline(in, line)) {
            ++number_;
            line_ = number_;
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            std::vector<std::string> w = split(line);
            if (w.empty() || w[0][0] == '#')
                continue;
            try {
                int rc = execute(line, w);
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
            return collect(kDefaultWaitMs);
        }
        return kExitOk;
    }

private:
    // Leaving early: an async call that is still running cannot be joined, so the host leaves
    // without running any destructor under it.
    int finish(int rc)
    {
        std::unique_lock lock(mutex_);
        for (auto &a : asyncs_) {
            if (!a->done) {
                std::fflush(nullptr);
                _exit(rc);
            }
        }
        return rc;
    }

    int execute(const std::string &line, const std::vector<std::string> &w)
    {
        const std::string &verb = w[0];
        std::string shown = rest_of(line, 0);
        if (verb == "expect") {
            bool negate = w.size() == 3 && w[1] == "!=";
            if (w.size() != (negate ? 3u : 2u))
                throw ScriptError{"expect N or expect != N"};
            long long want = number(w[negate ? 2 : 1]);
            if (!have_result_)
                throw ScriptError{"expect without a result before it"};
            bool holds = negate ? static_cast<long long>(last_) != want : static_cast<long long>(last_) == want;
            if (!holds) {
                std::fflush(stdout);
                std::printf("%d: %s FAILED: expected %s%lld, got %u\n", line_, shown.c_str(), negate ? "!= " : "", want,
                            static_cast<unsigned>(last_));
                std::fflush(stdout);
                std::fprintf(stderr, "qmtrm: line %d: expected %s%lld, got %u\n", line_, negate ? "!= " : "", want,
                             static_cast<unsigned>(last_));
                return kExitCheckFailed;
            }
            std::printf("%d: %s ok\n", line_, shown.c_str());
            return kExitOk;
        }
        if (verb == "expect-log") {
            std::string text = rest_of(line, 1);
            if (text.empty())
                throw ScriptError{"expect-log needs a text"};
            std::string path = log_path();
            std::ifstream file(path);
            std::stringstream content;
            content << file.rdbuf();
            if (content.str().find(text) == std::string::npos) {
                std::printf("%d: %s FAILED: not in %s\n", line_, shown.c_str(), path.c_str());
                std::fflush(stdout);
                std::fprintf(stderr, "qmtrm: line %d: log %s lacks: %s\n", line_, path.c_str(), text.c_str());
                return kExitCheckFailed;
            }
            std::printf("%d: %s ok\n", line_, shown.c_str());
            return kExitOk;
        }
        if (verb == "sim") {
            if (w.size() < 2)
                throw ScriptError{"sim needs a statement"};
            if (w[1] == "release") {
                if (w.size() < 3 || w.size() > 4)
                    throw ScriptError{"sim release DISK [ERR]"};
                qmtp::sim::release(static_cast<DWORD>(number(w[2])), w.size() == 4 ? static_cast<DWORD>(number(w[3])) : 0);
            } else {
                std::string why;
                if (!qmtp::sim::apply(rest_of(line, 1), &why))
                    throw ScriptError{"sim: " + why};
            }
            std::printf("%d: %s\n", line_, shown.c_str());
            return kExitOk;
        }
        if (verb == "ratio") {
            if (w.size() != 2)
                throw ScriptError{"ratio N"};
            int rc = shmcm_setratio(static_cast<int>(number(w[1])));
            set_result(static_cast<DWORD>(rc));
            std::printf("%d: %s -> %d\n", line_, shown.c_str(), rc);
            return kExitOk;
        }
        if (verb == "tick") {
            if (w.size() != 3 || (w[1] != "set" && w[1] != "add"))
                throw ScriptError{"tick set VALUE or tick add MS"};
            long long value = number(w[2]);
            if (w[1] == "set")
                qmtp_tick_set(static_cast<DWORD>(value));
            else
                qmtp_tick_set_offset(qmtp_tick_get_offset() + static_cast<DWORD>(value));
            std::printf("%d: %s -> %u\n", line_, shown.c_str(), static_cast<unsigned>(GetTickCount()));
            return kExitOk;
        }
        if (verb == "sleep") {
            if (w.size() != 2)
                throw ScriptError{"sleep MS"};
            long long ms = number(w[1]);
            std::printf("%d: %s\n", line_, shown.c_str());
            std::fflush(stdout);
            if (ms > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(ms));
            return kExitOk;
        }
        if (verb == "wait") {
            if (w.size() > 2)
                throw ScriptError{"wait [MS]"};
            int bound = w.size() == 2 ? static_cast<int>(number(w[1])) : kDefaultWaitMs;
            std::printf("%d: %s\n", line_, shown.c_str());
            return collect(bound);
        }
        if (verb == "async") {
            if (w.size() < 2)
                throw ScriptError{"async needs a call"};
            std::vector<std::string> call_words(w.begin() + 1, w.end());
            auto a = std::make_unique<Async>();
            a->line = line_;
            a->call = parse_call(call_words, rest_of(line, 1));
            std::printf("%d: %s (started)\n", line_, shown.c_str());
            std::fflush(stdout);
            Async *raw = a.get();
            asyncs_.push_back(std::move(a));
            raw->thread = std::thread([this, raw] {
                DWORD result = invoke(plugin_, raw->call);
                std::lock_guard lock(mutex_);
                raw->result = result;
                raw->done = true;
                done_.notify_all();
            });
            return kExitOk;
        }
        Call call = parse_call(w, shown);
        std::fflush(stdout);
        DWORD result = invoke(plugin_, call);
        set_result(result);
        std::printf("%d: %s -> %s\n", line_, shown.c_str(), result_text(call, result).c_str());
        return kExitOk;
    }

    // Joins every async call, printing each result in the order they were started. A call that
    // has not returned within bound_ms cannot be joined: the host leaves at once.
    int collect(int bound_ms)
    {
        std::unique_lock lock(mutex_);
        bool all = done_.wait_for(lock, std::chrono::milliseconds(bound_ms), [this] {
            for (auto &a : asyncs_)
                if (!a->done)
                    return false;
            return true;
        });
        if (!all) {
            for (auto &a : asyncs_)
                if (!a->done)
                    std::printf("%d: async %s (line %d) still running after %d ms\n", line_, a->call.shown.c_str(),
                                a->line, bound_ms);
            std::fflush(stdout);
            std::fprintf(stderr, "qmtrm: line %d: async call(s) still running; leaving without teardown\n", line_);
            std::fflush(stderr);
            _exit(kExitStuck);
        }
        lock.unlock();
        for (auto &a : asyncs_) {
            a->thread.join();
            std::printf("%d: async %s (line %d) -> %s\n", line_, a->call.shown.c_str(), a->line,
                        result_text(a->call, a->result).c_str());
            set_result(a->result);
        }
        asyncs_.clear();
        std::fflush(stdout);
        return kExitOk;
    }

    void set_result(DWORD result)
    {
        last_ = result;
        have_result_ = true;
    }

    static std::string log_path()
    {
        const char *dir = std::getenv("QMT_LOG_DIR");
        return std::string(dir != nullptr && *dir != '\0' ? dir : ".") + "/sdw.log";
    }

    const Plugin &plugin_;
    int line_ = 0;
    DWORD last_ = 0;
    bool have_result_ = false;
    std::vector<std::unique_ptr<Async>> asyncs_;
    std::mutex mutex_;
    std::condition_variable done_;
};

} // namespace

int script_main(const std::string &file, const EnvOptions &env)
{
    std::string why;
    if (!apply_env(env, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitInit;
    }
    std::ifstream in_file;
    std::istream *in = &std::cin;
    if (file != "-") {
        in_file.open(file);
        if (!in_file) {
            std::fprintf(stderr, "qmtrm: cannot open script %s\n", file.c_str());
            return kExitUsage;
        }
        in = &in_file;
    }
    Plugin plugin;
    if (!load_plugin(plugin_path(env.plugin), &plugin, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitPlugin;
    }
    load_status_texts();
    int rc;
    {
        Script script(plugin);
        rc = script.run(*in);
    }
    std::fflush(stdout);
    unload_status_texts();
    return rc;
}

} // namespace qmtrm
