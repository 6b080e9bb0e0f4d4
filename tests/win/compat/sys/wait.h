// sys/wait.h for the Windows build of the cluster tests: no fork on Windows, so a test that
// runs a child process fails there and is left out of the Windows run.
#pragma once

#include <sys/types.h>

inline int fork()
{
    return -1;
}
inline int waitpid(int, int *, int)
{
    return -1;
}
inline unsigned alarm(unsigned)
{
    return 0;
}
#define WIFEXITED(s) (((s) & 0x7f) == 0)
#define WEXITSTATUS(s) (((s) >> 8) & 0xff)
