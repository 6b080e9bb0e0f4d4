// qmtlog_platform.h - what the log library asks of the system: the log folder and file with
// its rotation and cross-process lock, the time stamp and ids of a line, standard error, and the
// system's own event log.
#pragma once

#include "qmtwin.h"

#include <memory>
#include <string>

namespace qmtlog {

// One module's output: the system resources that write its file. Used under the module's own
// in-process lock only.
struct Output;
struct OutputDeleter {
    void operator()(Output *o) const;
};
using OutputPtr = std::unique_ptr<Output, OutputDeleter>;
OutputPtr make_output();

// A new open of the module: the folder is found afresh (so an operator's change applies) and
// whatever the output held is dropped. mutex_name is the named mutex the caller gave, or "".
void reopen_output(Output &o, const std::string &mutex_name);
// The last close: release what the output holds.
void close_output(Output &o);

// Appends one line to "<stem>.log" in the module's folder, rotating first when the line would
// take the file past `limit` bytes (0: no limit), serialised with every other process that logs
// for the module. False when the file cannot be written; the caller then uses standard error.
bool append(Output &o, const std::string &stem, long long limit, const std::string &line);
void to_stderr(const std::string &line);

// Local time as "YYYY-MM-DD hh:mm:ss.mmm", and the ids of the calling process and thread.
std::string time_stamp();
int process_id();
int thread_id();

// Also hands an event to the system's event log, under the source "qmt-<module>" (or "qmt").
// Failures are ignored: the log file has the event already.
void report_event(const char *module, DWORD event_id, const std::string &text);

}  // namespace qmtlog
