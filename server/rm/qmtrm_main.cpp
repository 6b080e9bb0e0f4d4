// qmtrm_main.cpp - the resource monitor's command line.
#include "qmtrm.h"
#include "qmtrm_health.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>

namespace {

void add_env_options(CLI::App *cmd, qmtrm::EnvOptions *env)
{
    cmd->add_option("--conf-dir", env->conf_dir, "Cluster configuration folder (sets QMT_CONF_DIR)");
    cmd->add_option("--sim", env->sim_file, "Simulated storage description (sets QMT_SIM_FILE)");
    cmd->add_option("--log-dir", env->log_dir, "Log folder (sets QMT_LOG_DIR)");
    cmd->add_option("--shm-name", env->shm_name, "Shared-memory name prefix (sets QMT_SHM_NAME)");
    cmd->add_option("--host", env->host, "This server's name (sets QMT_HOSTNAME)");
    cmd->add_option("--plugin", env->plugin,
                    "Plug-in file (default: $QMT_PLUGIN, else ../lib/libqmtsdw.so beside the executable)");
}

// Rejects what a plain range check lets through: NaN compares false with both bounds.
const CLI::Validator kFinite(
    [](std::string &text) {
        double value = std::strtod(text.c_str(), nullptr);
        return std::isfinite(value) ? std::string() : "not a finite number: " + text;
    },
    "FINITE");

qmtrm::Service to_service(const std::string &name)
{
    return name == "disknp" ? qmtrm::Service::Disknp : qmtrm::Service::Sdw;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"qmtrm - resource monitor host of the qmtsdw disk-monitor plug-in"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "qmtrm " + std::to_string(QMTRM_VERSION_MAJOR) + "." +
                                          std::to_string(QMTRM_VERSION_MINOR) + "." +
                                          std::to_string(QMTRM_VERSION_PATCH) + "." +
                                          std::to_string(QMTRM_VERSION_BUILD));
    app.footer("Exit statuses: 0 done; 1 a check failed (script expect, demo step), or check found warnings; "
               "2 bad command line or script line, or check found errors; 3 plug-in or export not loaded; "
               "4 left with a pass or a call still running; 5 service or environment not initialised.");

    qmtrm::EnvOptions env;
    std::string service = "sdw";
    int threads = 4;
    int stop_wait_ms = 5000;
    double run_duration = 0;
    bool verbose = false;
    CLI::App *run = app.add_subcommand("run", "Initialise a service, start and poll every configured resource "
                                              "until SIGINT or SIGTERM");
    add_env_options(run, &env);
    run->add_option("--service", service, "Service to run")->check(CLI::IsMember({"sdw", "disknp"}));
    run->add_option("--threads", threads, "Threads kept for passes (one more starts for a due pass that finds none idle, up to one per resource)")
        ->check(CLI::Range(1, 256));
    run->add_option("--stop-wait", stop_wait_ms, "At stop, how long to wait for running passes (ms)")
        ->check(CLI::Range(0, 600000));
    run->add_option("--duration", run_duration, "Stop by itself after this many seconds (0: run until a signal)")
        ->check(kFinite & CLI::Range(0.0, 1e9));
    run->add_flag("--verbose", verbose, "Print every pass, not only status changes");
    qmtrm::add_health_options(run);

    bool json = false;
    CLI::App *check = app.add_subcommand("check", "Read the configuration as the plug-in will for this server and "
                                                  "report each resource, what it resolves to now and every problem");
    add_env_options(check, &env);
    check->add_option("--service", service, "Service to check")->check(CLI::IsMember({"sdw", "disknp"}));
    check->add_flag("--json", json, "One JSON document instead of text");
    check->footer("Exit statuses: 0 clean; 1 warnings; 2 errors (the initialisation would fail or a resource is "
                  "not served as configured) or a bad command line.");

    std::string script_file;
    CLI::App *script = app.add_subcommand("script", "Run export calls from a script file, one call a line "
                                                    "(FILE or - for standard input)");
    add_env_options(script, &env);
    script->add_option("file", script_file, "Script file, or - for standard input")->required();
    bool times = false;
    script->add_flag("--times", times, "Print each call's start time and duration");
    script->footer(
        "Lines (TYPE/NAME may be NULL; \"quoted words\" keep blanks; numbers decimal or 0x hex; # starts a "
        "comment; docs/qmtrm.md has the details):\n"
        "  InitRscDll|UninitRscDll|InitNpRscDll|UninitNpRscDll [DllName [DllType [ExecMode]]]\n"
        "  DoMontr TYPE NAME | DoNpMontr TYPE NAME | GetCheckPoint NAME\n"
        "  MontrStatusChange TYPE NAME CTRL | NpMontrStatusChange TYPE NAME CTRL\n"
        "  async [NAME] CALL | wait [NAME] [MS] | expect N | expect != N\n"
        "  expect-log [LEVEL] [FUNCTION] \"TEXT\" | expect-log-count N ... | expect-no-log ... | mark\n"
        "  sim STATEMENT | sim release DISK [ERR] | ratio N | sleep MS\n"
        "  tick set VALUE | tick add MS | tick freeze [VALUE] | tick thaw\n"
        "  fault FUNCTION N [ERR] | fault clear | expect-live handles|allocations N\n"
        "  conf set KEY VALUE | conf remove KEY | conf write FILE | shm NAME | expect-shm NAME PROGRESS \"TEXT\"\n"
        "Exit statuses: 0 every expect held; 1 an expect failed; 2 a line not understood; 3 plug-in not "
        "loaded; 4 an async call still running at a wait's limit or at a stop signal; 130/143 stopped by "
        "SIGINT/SIGTERM after tearing down what the script initialised.");

    double demo_duration = 20;
    std::string demo_plugin;
    CLI::App *demo = app.add_subcommand("demo", "Self-contained demonstration on simulated disks");
    demo->add_option("--duration", demo_duration, "Length of the demonstration in seconds")
        ->check(kFinite & CLI::Range(15.0, 600.0));
    bool keep = false;
    demo->add_flag("--keep", keep, "Keep the demo's folder (configuration, disks, logs) at the end");
    demo->add_flag("--verbose", verbose, "Print every pass and the plug-in's log lines");
    demo->add_option("--service", service, "Service to demonstrate")->check(CLI::IsMember({"sdw", "disknp"}));
    demo->add_option("--plugin", demo_plugin, "Plug-in file");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? qmtrm::kExitOk : qmtrm::kExitUsage;
    }
    if (*run) {
        int rc = qmtrm::run_main(to_service(service), env, threads, stop_wait_ms, run_duration, verbose);
        qmtrm::announce_exit(rc);
        return rc;
    }
    if (*check)
        return qmtrm::check_main(to_service(service), env, json);
    if (*script) {
        int rc = qmtrm::script_main(script_file, env, times);
        qmtrm::announce_exit(rc);
        return rc;
    }
    return qmtrm::demo_main(to_service(service), demo_duration, verbose, demo_plugin, keep);
}
