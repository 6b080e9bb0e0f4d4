// hostname_win.cpp - the host name on Windows: the DNS host name, which is what the cluster
// configuration names a server by (the NetBIOS name is cut to 15 characters and upper-cased).
#include "qmtutil_platform.h"

#include <windows.h>

namespace qmtutil {

bool system_host_name(std::string &out)
{
    char host[256] = {};
    DWORD size = sizeof host;
    if (!GetComputerNameExA(ComputerNameDnsHostname, host, &size))
        return false;
    out.assign(host, size);
    return true;
}

}  // namespace qmtutil
