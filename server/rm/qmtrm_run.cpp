// qmtrm_run.cpp - `qmtrm run`: initialise one service, start and poll every configured resource
// until SIGINT or SIGTERM, then stop them and tear the service down.
#include "qmtrm_board.h"
#include "qmtrm_engine.h"
#include "qmtrm_health.h"

#include "qmtplat.h"
#include "qmtrm_platform.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

namespace qmtrm {

namespace {

// The signals are taken by a handler that only passes their number on (qmtrm_posix.cpp: through
// a pipe); a thread of ours takes them and acts according to the stage of the run. No signal is
// ever blocked, so neither a read of the configuration that never returns nor an initialisation
// that hangs keeps SIGTERM from being answered, and the plug-in's threads take the handler as
// harmlessly as ours.
enum Stage : int { kPreparing, kInitialising, kRunning, kStopping, kDone };

struct RunControl {
    std::atomic<int> stage{kPreparing};
    std::atomic<int> stop_signal{0};  // the first stop signal, 0 while none came
    std::atomic<Engine *> engine{nullptr};
    std::atomic<Reporter *> reporter{nullptr};
    int stop_wait_ms = 0;
    std::mutex mutex;
    std::condition_variable wake;
};

RunControl *control = nullptr;

const char *signal_name(int signal_number)
{
    return signal_number == SIGINT ? "SIGINT" : signal_number == SIGTERM ? "SIGTERM" : "SIGHUP";
}

void say(const std::string &text)
{
    if (Reporter *reporter = control->reporter.load())
        reporter->line("", text);
    else
        std::fprintf(stderr, "qmtrm: %s\n", text.c_str());
}

std::string joined(const std::vector<std::string> &names)
{
    std::string out;
    for (const auto &name : names)
        out += (out.empty() ? "" : ", ") + name;
    return out;
}

// The disks whose probe is still in the kernel, as a clause for a leaving message.
std::string kernel_probes()
{
    std::string out;
    for (const qmtp::storage::DiskRef &d : qmtp::storage::stuck_disks(0))
        out += (out.empty() ? "; probe stuck in the kernel: disk " : ", disk ") + std::to_string(d.number) +
               (d.dev.empty() ? std::string() : " (" + d.dev + ")");
    return out;
}

[[noreturn]] void leave(int code, const std::string &text)
{
    say(text);
    // Tearing down or unloading under a running call would pull its record from under it.
    leave_now(code);
}

void watch_signals()
{
    int deadline_ms = -1;  // set while waiting for an initialisation to return after a stop signal
    auto since = std::chrono::steady_clock::now();
    for (;;) {
        int sig = platform::wait_stop_request(deadline_ms < 0 ? -1 : 100);
        int stage = control->stage.load();
        if (stage == kDone)
            return;
        if (deadline_ms >= 0 && stage == kInitialising &&
            std::chrono::steady_clock::now() - since >= std::chrono::milliseconds(deadline_ms))
            leave(kExitStuck, "the initialisation still runs " + std::to_string(deadline_ms) +
                                  " ms after the stop signal; leaving without teardown" + kernel_probes());
        if (sig <= 0)
            continue;
        if (sig != SIGINT && sig != SIGTERM) {
            say("SIGHUP ignored: stop with SIGINT or SIGTERM");
            continue;
        }
        int first = 0;
        bool again = !control->stop_signal.compare_exchange_strong(first, sig);
        switch (stage) {
        case kPreparing:
            leave(kExitInit, std::string("stopped by ") + signal_name(sig) + " before the service was initialised");
        case kInitialising:
            if (again)
                leave(kExitStuck, std::string("second ") + signal_name(sig) +
                                      ": leaving at once during the initialisation, without teardown" + kernel_probes());
            say(std::string(signal_name(sig)) + " during the initialisation: stopping once it returns");
            deadline_ms = control->stop_wait_ms;
            since = std::chrono::steady_clock::now();
            break;
        case kRunning:
            if (!again)
                break;
            [[fallthrough]];
        case kStopping: {
            Engine *engine = control->engine.load();
            std::vector<std::string> busy = engine != nullptr ? engine->busy() : std::vector<std::string>{};
            leave(kExitStuck, std::string(again ? "second " : "") + signal_name(sig) +
                                  " during the stop: leaving at once without teardown; passes still running: " +
                                  (busy.empty() ? std::string("none") : joined(busy)) + kernel_probes());
        }
        default:
            break;
        }
        {
            std::lock_guard lock(control->mutex);
        }
        control->wake.notify_all();
    }
}

// The plug-in's error and warning lines that this process wrote from `offset` on.
std::vector<std::string> plugin_errors_since(const std::string &file, std::streamoff offset)
{
    std::vector<std::string> out;
    std::ifstream in(file);
    if (!in)
        return out;
    in.seekg(0, std::ios::end);
    if (in.tellg() < offset)
        offset = 0;  // rotated meanwhile: the attempt's lines are at the start of the new file
    in.seekg(offset);
    const std::string mine = " " + std::to_string(process_id().pid) + "/";
    std::string line;
    while (std::getline(in, line) && out.size() < 50)
        if (line.find(mine) != std::string::npos &&
            (line.find(" ERR ") != std::string::npos || line.find(" WRN ") != std::string::npos))
            out.push_back(line);
    return out;
}

std::streamoff file_size(const std::string &file)
{
    std::ifstream in(file, std::ios::ate);
    return in ? static_cast<std::streamoff>(in.tellg()) : 0;
}

int64_t wall_ms(Engine::Clock::time_point at)
{
    auto wall = std::chrono::system_clock::now() -
                std::chrono::duration_cast<std::chrono::system_clock::duration>(Engine::Clock::now() - at);
    return std::chrono::duration_cast<std::chrono::milliseconds>(wall.time_since_epoch()).count();
}

} // namespace

// Here rather than with the rest of the board, which qmtstat builds without the engine.
void Board::publish(const Engine &engine, bool check_points)
{
    std::vector<Engine::State> states = engine.snapshot();
    for (size_t i = 0; i < states.size() && i < base_flags_.size(); ++i) {
        const Engine::State &s = states[i];
        uint32_t flags = base_flags_[i] | (s.known ? kRowKnown : 0) | (s.running ? kRowRunning : 0) |
                         (s.overdue ? kRowOverdue : 0);
        BoardEntry entry;
        entry.status = static_cast<int>(s.status);
        entry.flags = flags;
        entry.check_point = check_points ? s.check_point : -1;
        entry.pass_ms = s.started == Engine::Clock::time_point{} ? 0 : wall_ms(s.started);
        entry.slowest_ms = static_cast<uint32_t>(std::min(s.slowest_pass_s * 1000.0, 4294967295.0));
        entry.passes = s.passes;
        entry.failures = s.failures;
        update(i, entry);
    }
}

int run_main(Service service, const EnvOptions &env, int threads, int stop_wait_ms, double duration_s, bool verbose)
{
    // Before any thread starts: a probe stuck in the kernel then holds the child, never the
    // process the operator waits for.
    if (int rc = supervise(); rc != kSupervisedChild)
        return rc;
    static RunControl run_control;
    control = &run_control;
    control->stop_wait_ms = stop_wait_ms;
    std::string why;
    if (!platform::open_stop_requests(&why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitInit;
    }
    std::thread watcher(watch_signals);
    platform::catch_stop_requests();
    auto finish = [&](int code) {
        control->stage = kDone;
        platform::wake_stop_watch();
        watcher.join();
        return code;
    };

    if (!apply_env(env, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return finish(kExitInit);
    }
    ConfigReport config = inspect_config(service, false);
    if (!config.readable) {
        std::fprintf(stderr, "qmtrm: cannot read the configuration:\n%s", format_report(config).c_str());
        return finish(kExitInit);
    }
    // One record per name in the plug-in: a second resource of the same name is never polled.
    std::vector<ResourceConfig> resources;
    std::vector<BoardEntry> rows;
    std::set<std::string> names;
    for (const ResourceReport &rsc : config.resources) {
        if (!names.insert(rsc.config.name).second)
            continue;
        resources.push_back(rsc.config);
        BoardEntry row;
        row.name = rsc.config.name;
        row.interval_s = rsc.config.interval_s;
        row.timeout_s = rsc.config.timeout_s;
        row.flags = rsc.watches ? 0 : kRowNoVolume;
        rows.push_back(row);
    }
    const std::string prefix = shm_prefix();
    std::unique_ptr<Board> board(Board::create(prefix, service_name(service), config.server, rows, &why, started_pid()));
    if (!board) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return finish(kExitInit);
    }
    Health health(service, rows);
    SimFollower sim;
    Plugin plugin;
    if (!load_plugin(plugin_path(env.plugin), &plugin, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return finish(kExitPlugin);
    }
    Reporter reporter(false);
    reporter.open_log();
    load_status_texts();
    control->reporter = &reporter;
    reporter.line("", "qmtrm run: service " + std::string(service_name(service)) + " on server " + config.server +
                          ", " + std::to_string(resources.size()) + " resource(s), plug-in " + plugin.path);
    reporter.line("", "shared memory " + prefix + " (qmtstat --shm-name " + prefix + ")");
    for (const Finding &f : config.findings)
        if (f.severity != Severity::Note)
            reporter.line("", f.text + (f.key.empty() ? "" : "; key " + f.key));
    // Among them, why a resource watches nothing (no volume on this server) and duplicate names.
    for (const ResourceReport &rsc : config.resources) {
        for (const Finding &f : rsc.findings)
            if (f.severity != Severity::Note)
                reporter.line(rsc.config.name, f.text + "; key " + f.key);
    }

    int exit_code = kExitOk;
    {
        Engine engine(plugin, service, resources, reporter, threads, verbose);
        control->engine = &engine;
        const std::string log_file = plugin_log_file();
        std::streamoff log_offset = file_size(log_file);
        control->stage = kInitialising;
        if (DWORD rc = engine.start(); rc != 0) {
            std::vector<std::string> lines = plugin_errors_since(log_file, log_offset);
            if (lines.empty())
                reporter.line("", "no error line of this attempt in " + log_file);
            else
                reporter.line("", "the plug-in's error lines of this attempt (" + log_file + "):");
            for (const std::string &line : lines)
                reporter.line("", "  " + line);
            control->engine = nullptr;
            control->reporter = nullptr;
            unload_status_texts();
            return finish(kExitInit);
        }
        {
            // A stop signal during the initialisation is answered now; otherwise the service runs.
            std::unique_lock lock(control->mutex);
            if (control->stop_signal == 0)
                control->stage = kRunning;
        }
        auto until = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<int64_t>(duration_s * 1000.0));
        while (control->stop_signal == 0) {
            engine.step();
            board->publish(engine, service == Service::Disknp);
            health.step(engine, reporter);
            sim.step(reporter);
            std::unique_lock lock(control->mutex);
            control->wake.wait_for(lock, std::chrono::milliseconds(100), [] { return control->stop_signal != 0; });
            if (duration_s > 0 && std::chrono::steady_clock::now() >= until)
                break;
        }
        control->stage = kStopping;
        int signal_number = control->stop_signal;
        reporter.line("", signal_number != 0 ? std::string("stopping on ") + signal_name(signal_number)
                                             : std::string("stopping: run time over"));
        std::vector<std::string> stuck;
        if (!engine.stop(stop_wait_ms, &stuck)) {
            leave(kExitStuck, "passes still running after " + std::to_string(stop_wait_ms) + " ms: " + joined(stuck) +
                                  "; leaving without teardown" + kernel_probes());
        }
        health.finish(reporter);
        long cpu_ms = platform::cpu_ms();
        reporter.line("", "passes: " + std::to_string(engine.passes()) + ", pool threads: " +
                              std::to_string(engine.workers()) + ", cpu: " + std::to_string(cpu_ms) + " ms");
        control->engine = nullptr;
    }
    control->reporter = nullptr;
    unload_status_texts();
    return finish(exit_code);
}

} // namespace qmtrm
