// posix_shim.h - the few POSIX calls of the cluster tests, for their Windows build (run under
// Wine). Forced into those sources only. Calls that Windows has no match for fail, and the tests
// that need them are left out of the Windows run (see cluster_tests_under_wine.sh).
#pragma once

#include <windows.h>

#include <direct.h>
#include <io.h>
#include <stdlib.h>
#include <string.h>

inline int setenv(const char *name, const char *value, int overwrite)
{
    if (!overwrite && getenv(name))
        return 0;
    return _putenv_s(name, value) == 0 ? 0 : -1;
}

inline int unsetenv(const char *name)
{
    return _putenv_s(name, "") == 0 ? 0 : -1;  // an empty value removes the variable
}

// The name qmtutil reads on Windows.
inline int gethostname(char *buf, size_t len)
{
    DWORD n = static_cast<DWORD>(len);
    return GetComputerNameExA(ComputerNameDnsHostname, buf, &n) ? 0 : -1;
}

inline char *mkdtemp(char *tmpl)
{
    if (_mktemp_s(tmpl, strlen(tmpl) + 1) != 0 || _mkdir(tmpl) != 0)
        return nullptr;
    return tmpl;
}

inline int mkdir(const char *path, int)
{
    return _mkdir(path);
}

inline int symlink(const char *, const char *)
{
    return -1;
}

inline int mkfifo(const char *, int)
{
    return -1;
}

#define AT_FDCWD (-100)
inline int utimensat(int, const char *, const struct timespec *, int)
{
    return -1;
}
