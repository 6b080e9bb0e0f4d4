// qmtlog_internal.h - pieces of the log library that its own tests reach directly.
#pragma once

#include "qmtwin.h"

#include <cstdarg>
#include <string>
#include <vector>

namespace qmtlog {

// Level of a line as it appears in the file: ERR, WRN, INF, TRC, PAS, DTL, EVT, or L<n>.
std::string level_name(int level);

// The name of a path without its directories (either separator, as sources built on Windows
// pass backslashes).
const char *base_name(const char *path);

// Event identifiers carry the severity in their top two bits and the number in the low 16.
const char *event_severity(DWORD event_id);
// Its syslog priority (POSIX only).
int event_syslog_priority(DWORD event_id);

// Takes one value per conversion of an insert format such as "%s%d%d%d" and renders each.
std::vector<std::string> event_inserts(const char *format, va_list ap);

// "EVENT <number> <severity> <text>", the text from the event table with the inserts put in.
std::string event_message(DWORD event_id, const std::vector<std::string> &inserts);

// The status code's text, or nullptr when the code is not in the table.
const char *status_text(int status);

}  // namespace qmtlog
