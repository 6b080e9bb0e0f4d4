// qmtrm_run.cpp - `qmtrm run`: initialise one service, start and poll every configured resource
// until SIGINT or SIGTERM, then stop them and tear the service down.
#include "qmtrm_engine.h"
#include "qmtrm_health.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace qmtrm {

int run_main(Service service, const EnvOptions &env, int threads, int stop_wait_ms, double duration_s, bool verbose)
{
    std::string why;
    if (!apply_env(env, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitInit;
    }
    // Block the stop signals before any thread exists, so every thread (ours and the plug-in's)
    // inherits the mask and the main loop alone takes them with sigtimedwait.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    std::vector<ResourceConfig> resources;
    if (!read_resources(service, &resources, &why)) {
        std::fprintf(stderr, "qmtrm: cannot read the configuration: %s\n", why.c_str());
        return kExitInit;
    }
    Health health(service, resources);
    SimFollower sim;
    Plugin plugin;
    if (!load_plugin(plugin_path(env.plugin), &plugin, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitPlugin;
    }
    Reporter reporter(false);
    reporter.open_log();
    load_status_texts();
    reporter.line("", "qmtrm run: service " + std::string(service_name(service)) + ", " +
                          std::to_string(resources.size()) + " resource(s), plug-in " + plugin.path);

    int exit_code = kExitOk;
    {
        Engine engine(plugin, service, resources, reporter, threads, verbose);
        if (DWORD rc = engine.start(); rc != 0) {
            unload_status_texts();
            return kExitInit;
        }
        auto until = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<int64_t>(duration_s * 1000.0));
        int signal_number = 0;
        for (;;) {
            engine.step();
            health.step(engine, reporter);
            sim.step(reporter);
            timespec tick{0, 100 * 1000 * 1000};
            int got = sigtimedwait(&stop_signals, nullptr, &tick);
            if (got > 0) {
                signal_number = got;
                break;
            }
            if (duration_s > 0 && std::chrono::steady_clock::now() >= until)
                break;
        }
        reporter.line("", signal_number != 0 ? std::string("stopping on ") + (signal_number == SIGINT ? "SIGINT" : "SIGTERM")
                                             : std::string("stopping: run time over"));
        std::vector<std::string> stuck;
        if (!engine.stop(stop_wait_ms, &stuck)) {
            std::string names;
            for (auto &name : stuck)
                names += (names.empty() ? "" : ", ") + name;
            reporter.line("", "passes still running after " + std::to_string(stop_wait_ms) + " ms: " + names +
                                  "; leaving without teardown");
            std::fflush(nullptr);
            // Tearing down or unloading under a running pass would pull the record from under it.
            _exit(kExitStuck);
        }
        health.finish(reporter);
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        long cpu_ms = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000L +
                      (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000L;
        reporter.line("", "passes: " + std::to_string(engine.passes()) + ", pool threads: " +
                              std::to_string(engine.workers()) + ", cpu: " + std::to_string(cpu_ms) + " ms");
    }
    unload_status_texts();
    return exit_code;
}

} // namespace qmtrm
