// qmtutil_platform.h - what the utility library asks of the system.
#pragma once

#include <string>

namespace qmtutil {

// The machine's host name as the system gives it; false when it cannot be read.
bool system_host_name(std::string &out);

}  // namespace qmtutil
