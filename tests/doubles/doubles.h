// doubles.h - recording test doubles of the cluster libraries (qmtlog, qmtxml, qmtshmcm,
// qmtshmrm, qmtutil).
//
// The static library `qmt_doubles` defines every function of qmtlog.h, qmtxml.h, qmtshm.h and
// qmtutil.h. A test links the plug-in's objects with it instead of the real libraries, then
// asserts the exact calls made, in order, and makes any one of them fail.
#pragma once

#include "qmtwin.h"

#include <map>
#include <string>
#include <vector>

namespace doubles {

// One call of a cluster function, in the order made. For QmtLogWrite, `text` is the formatted
// message (format applied to the values) and level/event/file/line/function are its arguments.
// For every other function, `args` shows the arguments as text, e.g. xmllib_load_policy -> "rm",
// xmllib_get_value -> the key, shmrm_setmonprogress -> "sdw|disk1|3".
struct Call {
    std::string function{};  // "QmtLogWrite", "xmllib_init", "shmcm_attach", ...
    std::string args{};
    int level = 0;
    DWORD event = 0;
    std::string file{};
    int line = 0;
    std::string log_function{};
    std::string text{};
    HANDLE log = nullptr;  // the log handle given to QmtLogWrite/QmtLogClose
};

// Forget every call and every setting: empty configuration, ratio 1, host name "node1",
// log level 4 and size 10000000 for every module, no pending failures, no string table loaded.
void reset();

// Every call recorded since reset(), in order.
const std::vector<Call> &calls();
// Only the QmtLogWrite calls, as "LEVEL|FUNCTION|text", the function being the one the line is
// written under (e.g. "1|InitRscDll|shmcm_attach() failed. (Ret=5)").
std::vector<std::string> log_lines();
// Only the QmtLogWrite calls with level <= max_level (what a real log at that level would keep).
std::vector<std::string> log_lines_upto(int max_level);
// Index among log_lines() of the first line equal to `line`, or -1; and whether there is one.
int line_index(const std::string &line);
inline bool logged(const std::string &line) { return line_index(line) >= 0; }
// The log lines (all levels) that contain `needle`, in order.
std::vector<std::string> lines_with(const std::string &needle);
// The log lines that match the shell pattern `pattern` (fnmatch), whose `*` stands for what
// differs from run to run (a handle, a tick): the rest of the line is pinned.
std::vector<std::string> lines_like(const std::string &pattern);
// The names of all non-log calls in order, as "function(args)" (e.g. "xmllib_load_policy(rm)").
std::vector<std::string> service_calls();
void clear_calls();

// Makes the next call of `function` (exact name) return `result` (non-zero); `times` calls in a row.
// `function` may also carry the call's arguments as service_calls() shows them, e.g.
// "xmllib_load_policy(rm)", to fail only that call.
void fail(const std::string &function, int result, int times = 1);
// xmllib_get_value / xmllib_enum_value on this exact key return `result`.
void fail_key(const std::string &key, int result);

// ---- qmtlog ----
// The settings QmtLogGetSettings reports (and QmtLogSetSettings changes).
void set_log_settings(int level, int size);
int log_level();
int log_size();
// Texts for QmtGetStatusText; an unknown status leaves the buffer untouched and returns non-zero.
void set_status_text(int status, const std::string &text);
bool string_table_loaded();
bool log_open();

// ---- qmtxml ----
// Values answered by xmllib_get_value (kind 1 for ints, kind 0 for texts; a text longer than the
// caller's size fails with 122 and leaves *size as the needed size).
void set_int(const std::string &key, int value);
void set_text(const std::string &key, const std::string &value);
void erase_key(const std::string &key);
// Names answered by xmllib_enum_value for that key.
void set_names(const std::string &key, const std::vector<std::string> &names);
// The load state, to assert unwinding: which policies are loaded, whether config is loaded/inited.
bool xml_initialised();
bool config_loaded();
std::vector<std::string> policies_loaded();

// ---- qmtshm ----
// shmcm_getratio answers this ratio (result 0).
void set_ratio(int ratio);
bool cm_attached();
bool rm_attached();
// Last description and progress published for "type|name".
std::string description(const std::string &type, const std::string &name);
std::vector<int> progress(const std::string &type, const std::string &name);

// Call.args of each function, fields joined by '|':
//   QmtLogOpen "module|level|size|reserved|mutex", QmtLogSetSettings "module|level|size|reserved",
//   QmtLogGetSettings "module|size|reserved" or "module|nosize|reserved" (size pointer NULL),
//   QmtLoadStringTable "module|reserved", QmtGetStatusText "status|size|reserved",
//   QmtLogClose / QmtUnloadStringTable "" (the handle is in Call.log),
//   xmllib_init / _load_policy / _unload_policy the type, xmllib_(re)load_config the mode,
//   xmllib_get_value / _enum_value the key, shmrm_setdescript "type|name|text|length",
//   shmrm_setmonprogress "type|name|progress", cs_gethostname "size|flag" (the log in Call.log),
//   every other function "".
// service_calls() leaves out QmtLogWrite and QmtLogGetSettings (asked once per trace line).
// Releasing what is not held (close, unload, term, detach) returns 5 and changes nothing; a
// missing key returns 2, a value of the other kind 13, a buffer too small 122; QmtGetStatusText
// with a handle that is not the loaded table returns 6. QmtLogOpen does not change the settings.
// calls() returns the live list: read it only while no other thread calls a double.

}  // namespace doubles
