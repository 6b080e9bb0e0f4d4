// qmtutil.cpp - the cluster's utility library: the local server's name.
#include "qmtutil.h"
#include "qmtutil_platform.h"

#include <cstdlib>
#include <cstring>
#include <string>

#define QMTUTIL_E_INSUFFICIENT_BUFFER 122
#define QMTUTIL_E_INVALID_PARAMETER 87
#define QMTUTIL_E_SYSTEM 31

extern "C" QMTUTIL_API int WINAPI cs_gethostname(char *buffer, int size, int flag, HANDLE log)
{
    // The name is the same whatever the flag; the library writes no messages of its own.
    (void)flag;
    (void)log;
    if (!buffer || size <= 0)
        return QMTUTIL_E_INVALID_PARAMETER;
    std::string name;
    const char *env = std::getenv("QMT_HOSTNAME");
    if (env && *env) {
        name = env;
    } else {
        if (!qmtutil::system_host_name(name))
            return QMTUTIL_E_SYSTEM;
        // The cluster knows a server by its short name.
        size_t dot = name.find('.');
        if (dot != std::string::npos)
            name.resize(dot);
    }
    if (name.size() + 1 > static_cast<size_t>(size))
        return QMTUTIL_E_INSUFFICIENT_BUFFER;
    std::memcpy(buffer, name.c_str(), name.size() + 1);
    return 0;
}
