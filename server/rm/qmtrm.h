// qmtrm.h - pieces of the resource monitor shared by its modes (run, script, demo).
#pragma once

#include "qmtrm_plugin.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace qmtrm {

// Exit statuses of qmtrm (docs/qmtrm.md lists them).
enum ExitCode : int {
    kExitOk = 0,
    kExitCheckFailed = 1,  // script: an expect failed; demo: a step of the timeline was not seen
    kExitUsage = 2,        // bad command line, or a script line that is not understood
    kExitPlugin = 3,       // the plug-in or one of its exports could not be loaded
    kExitStuck = 4,        // a pass or an async call was still running when the host had to end
    kExitInit = 5,         // the service could not be initialised, or the environment not prepared
};

// Settings a mode exports to the environment before the plug-in is loaded.
struct EnvOptions {
    std::string conf_dir;   // QMT_CONF_DIR
    std::string sim_file;   // QMT_SIM_FILE
    std::string log_dir;    // QMT_LOG_DIR
    std::string shm_name;   // QMT_SHM_NAME
    std::string host;       // QMT_HOSTNAME
    std::string plugin;     // --plugin
};
// Exports the non-empty settings; creates the log folder (0750) when it is missing. Without a
// shared-memory name, neither given nor in the environment, sets the default one.
bool apply_env(const EnvOptions &env, std::string *why);

// The plug-in's log file as the log library picks it ($QMT_LOG_DIR/sdw.log, else the system folder).
std::string plugin_log_file();

// Status texts from the log library's message table of the plug-in ("sdw").
void load_status_texts();
void unload_status_texts();
std::string status_text(DWORD status);

enum class Service { Sdw, Disknp };
const char *service_name(Service service);

// What the host needs of one configured resource to schedule it.
struct ResourceConfig {
    std::string name;
    int interval_s = 60;  // polling interval
    int timeout_s = 300;  // polling time-out; times the ratio, the limit of one pass
};
// Reads the resource list and the per-resource timing from the cluster configuration.
bool read_resources(Service service, std::vector<ResourceConfig> *out, std::string *why);

// What `qmtrm check` finds in the configuration, read as the plug-in reads it for this server.
enum class Severity { Note, Warning, Error };
struct Finding {
    Severity severity;
    std::string key;   // the configuration key concerned (empty: none)
    std::string text;
};
struct DiskRef {
    unsigned number = 0;
    std::string device;  // the device file, where the storage backend knows one
};
struct ResourceReport {
    ResourceConfig config;       // name as the plug-in keeps it (cut to 31), timing as used
    std::string full_name;       // as enumerated
    int retries = -1;            // disknp: count
    int device = -1;             // disknp: device number
    std::string object;          // sdw: the disk resource watched
    std::string guid;            // volume (sdw) or device (disknp) GUID
    bool watches = true;         // false: no volume on this server, the plug-in watches nothing
    bool resolved = false;       // the GUID was resolved now
    std::vector<DiskRef> disks;
    std::vector<Finding> findings;
};
struct ConfigReport {
    Service service = Service::Sdw;
    std::string server;
    std::vector<Finding> findings;  // not tied to one resource
    std::vector<ResourceReport> resources;
    bool readable = false;          // the resource list could be read
    int exit_code() const;          // 0 clean, 1 warnings, 2 errors
};
// Reads the configuration the way the plug-in's initialisation will. With `resolve`, also
// resolves each GUID to the disks that hold it now.
ConfigReport inspect_config(Service service, bool resolve);
// Text of a report, one block per resource, and its JSON form.
std::string format_report(const ConfigReport &report);
std::string report_json(const ConfigReport &report);

// Time-out ratio of the cluster shared memory, at least 1.
int current_ratio();

// Timeline output: every line gets a time stamp (wall clock, or seconds since start), goes to
// standard output and, when a log is open, to the host's own log.
class Reporter {
public:
    explicit Reporter(bool elapsed_stamps);
    ~Reporter();
    void open_log();  // the host's log module "rm"
    void line(const std::string &resource, const std::string &text);
    double elapsed() const;

private:
    std::string stamp() const;
    bool elapsed_;
    std::chrono::steady_clock::time_point start_;
    std::mutex mutex_;
    HANDLE log_ = nullptr;
};

// Starts the process that does the work (qmtrm_supervise.cpp). Returns kSupervisedChild in that
// process; in the one that was started, waits and returns the exit status the other announced.
constexpr int kSupervisedChild = -1;
int supervise();
// Tells the waiting process the exit status; nothing in a process that was not supervised.
void announce_exit(int code);
// The process the operator started: the waiting one in a supervised process, else this one.
int started_pid();
// Leaves at once, without destructors or teardown, with the status announced.
[[noreturn]] void leave_now(int code);

int run_main(Service service, const EnvOptions &env, int threads, int stop_wait_ms, double duration_s,
             bool verbose);
int check_main(Service service, const EnvOptions &env, bool json);
// times: print each call's start (ms since the script began) and duration.
int script_main(const std::string &file, const EnvOptions &env, bool times);
int demo_main(Service service, double duration_s, bool verbose, const std::string &plugin, bool keep);

} // namespace qmtrm
