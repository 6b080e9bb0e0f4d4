// hostname_posix.cpp - the host name on POSIX.
#include "qmtutil_platform.h"

#include <unistd.h>

#include <climits>

namespace qmtutil {

bool system_host_name(std::string &out)
{
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof host - 1) != 0)
        return false;
    out = host;
    return true;
}

}  // namespace qmtutil
