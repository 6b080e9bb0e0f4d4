/*
 * sdwentry.cpp - the load entry point, the one place where the two platforms differ.
 *
 * Windows calls DllMain; its FALSE makes LoadLibrary fail. On POSIX a constructor does the same
 * work as soon as the library is mapped (so a host using plain dlopen has the locks too), and the
 * exported DllMain reports that outcome to the platform's LoadLibraryA, which then fails the load.
 */
#include "sdw.h"

#ifdef _WIN32

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    (void)instance;
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        return SdwModuleAttach();
    }
    return TRUE;
}

#else

static BOOL gsdwAttached = FALSE;

__attribute__((constructor)) static void SdwLoadEntry(void)
{
    gsdwAttached = SdwModuleAttach();
}

extern "C" __attribute__((visibility("default"))) BOOL DllMain(HMODULE module, DWORD reason, LPVOID reserved)
{
    (void)module;
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        return gsdwAttached;
    }
    return TRUE;
}

#endif
