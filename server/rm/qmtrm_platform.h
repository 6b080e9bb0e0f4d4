// qmtrm_platform.h - what differs between the systems for the host: one qmtrm_posix.cpp /
// qmtrm_win.cpp pair (program folder, environment and folders, loading the plug-in, stop
// requests, the platform layer's own test seams).
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace qmtrm::platform {

// The plug-in beside the running program: ../lib/libqmtsdw.so on POSIX (or the installed one),
// the test variant qmtsdw_seam.dll in the program's folder on Windows.
std::string default_plugin();

// Sets an environment variable for this process and the libraries it loads.
void set_env(const char *name, const std::string &value);
// Makes a folder and its parents (only our user and its group may read them where the system
// has modes); false with *why.
bool make_folders(const std::string &path, std::string *why);
// Local time of `t`, false when the system cannot tell.
bool local_time(std::time_t t, std::tm *out);

// The loader's message for the last failed LoadLibraryA or GetProcAddress of this thread.
std::string loader_message();
// After the exports are resolved: on Windows, the test variant gets this process's simulated
// storage and tick through its seam. False with *why when the plug-in cannot get them.
bool attach_plugin(void *module, std::string *why);

// Stop requests (SIGINT, SIGTERM, SIGHUP; Ctrl-C, Ctrl-Break and the console's close on
// Windows, given as SIGINT and SIGTERM). open_stop_requests() prepares what carries them,
// catch_stop_requests() starts catching them; wait_stop_request() returns the next one's signal
// number, 0 when `ms` passed (-1: no limit) or wake_stop_watch() was called.
bool open_stop_requests(std::string *why);
void catch_stop_requests();
int wait_stop_request(int ms);
void wake_stop_watch();

// The platform layer's fault injection and live counters, where it has them: false with *why
// ("not available on this platform") where it has not.
bool fault_set(const std::string &function, unsigned nth, unsigned long error, std::string *why);
bool fault_clear(std::string *why);
bool live_count(bool allocations, long *count, std::string *why);

// The commands that `run` starts for the health colour: with this process's environment and
// `env` (NAME=VALUE) added, never waited for by the caller. command_ended() is false while the
// command runs, then true with *failure empty when it exited 0, else what went wrong.
bool start_command(const std::vector<std::string> &argv, const std::vector<std::string> &env, intptr_t *child,
                   std::string *why);
bool command_ended(intptr_t child, std::string *failure);
void kill_command(intptr_t child);
// An operator's shell command line as a command: /bin/sh -c TEXT, or cmd /c TEXT on Windows.
std::vector<std::string> shell_command(const std::string &text);

// A stamp of a file that changes when it is replaced or written; empty when there is none.
std::string file_stamp(const std::string &path);
// The processor time this process has had so far, in ms.
long cpu_ms();

// For the demo: a new folder of this run only under the system's temporary folder (TMPDIR, /tmp;
// the user's temporary folder on Windows), false with *why; the full path of a program installed
// beside this one ("qmtstat"); and the removal of the shared memories whose names carry `prefix`
// (on Windows they end with their last handle).
bool make_temp_folder(const std::string &stem, std::string *path, std::string *why);
std::string sibling_program(const std::string &name);
void remove_shared_memory(const std::string &prefix);

} // namespace qmtrm::platform
