// smoke_dll.cpp - the shipped plug-in DLL as the cluster's resource monitor loads it, with the
// cluster libraries' own DLLs: load, initialise the sdw service, one monitoring pass of a
// resource without a volume on this server, tear down, unload. Checks every status and that the
// process is left as it was found: no thread or module of ours remains, the service leaves no
// handle behind, and the unloaded DLLs leave only the plug-in's module and log locks, which its
// load entry point creates for the life of the process.
//
// With "seam" it loads the test variant qmtsdw_seam.dll instead, installs the simulated storage
// and tick of this process in it, and polls a healthy volume of three disks (one answering late
// through its event) and a disk that fails and recovers; then the device handles, not the
// process's, are counted, as the simulated storage keeps a completion thread.
//
// Run by smoke_dll_under_wine.sh, which gives it its configuration and checks the log lines.
#include <windows.h>
#include <tlhelp32.h>

#include <cstdio>
#include <cstring>

#include "qmtplat.h"
#include "qmtseam.h"

namespace {

using InitFn = DWORD(WINAPI *)(const char *, int, DWORD);
using PassFn = DWORD(WINAPI *)(const char *, const char *);

int failures = 0;

void check(bool ok, const char *what, unsigned long got, unsigned long want)
{
    std::printf("%s %s: %lu (expected %lu)\n", ok ? "ok" : "FAILED", what, got, want);
    if (!ok)
        ++failures;
}

void check_status(const char *what, DWORD got, DWORD want)
{
    check(got == want, what, got, want);
}

// Threads of this process, or -1 when the system does not say.
long thread_count()
{
    HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snap == INVALID_HANDLE_VALUE)
        return -1;
    long n = 0;
    THREADENTRY32 te {};
    te.dwSize = sizeof te;
    for (BOOL more = Thread32First(snap, &te); more; more = Thread32Next(snap, &te))
        if (te.th32OwnerProcessID == GetCurrentProcessId())
            ++n;
    CloseHandle(snap);
    return n;
}

// The system's handle table (SystemHandleInformation), as far as this program needs it.
struct HandleEntry {
    ULONG owner_pid;
    BYTE object_type;
    BYTE flags;
    USHORT value;
    PVOID object;
    ULONG access;
};
struct HandleTable {
    ULONG count;
    HandleEntry entries[1];
};
using QueryFn = LONG(WINAPI *)(ULONG, PVOID, ULONG, PULONG);

// Handles of this process, or -1 when the system does not say. GetProcessHandleCount first; where
// it answers 0 (Wine does), the entries of this process in the system's handle table.
long handle_count()
{
    DWORD n = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &n) && n > 0)
        return static_cast<long>(n);
    auto query = reinterpret_cast<QueryFn>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    if (!query)
        return -1;
    const ULONG kSystemHandleInformation = 16;
    const LONG kLengthMismatch = static_cast<LONG>(0xC0000004L);
    for (ULONG size = 1 << 16; size <= (1u << 28); size *= 2) {
        void *buf = VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
        if (!buf)
            return -1;
        ULONG needed = 0;
        LONG status = query(kSystemHandleInformation, buf, size, &needed);
        long mine = -1;
        if (status == 0) {
            const auto *table = static_cast<const HandleTable *>(buf);
            mine = 0;
            for (ULONG i = 0; i < table->count; ++i)
                if (table->entries[i].owner_pid == GetCurrentProcessId())
                    ++mine;
        }
        VirtualFree(buf, 0, MEM_RELEASE);
        if (status != kLengthMismatch)
            return mine > 0 ? mine : -1;
    }
    return -1;
}

// The module lock and the log lock: never closed, by design.
const long kLoadLocks = 2;

const char *kModules[] = {"qmtsdw.dll", "qmtlog.dll", "qmtxml.dll", "qmtshmcm.dll", "qmtshmrm.dll",
                                "qmtutil.dll"};

// The seam run: a change of the simulated disks (or none), then one pass and its status.
struct SeamStep {
    const char *sim;
    const char *resource;
    DWORD status;
};
const SeamStep kSeamSteps[] = {
    {"disk 1 delay 20", "sdw1", 0}, {"disk 3 fail 1117", "sdw2", 5}, {nullptr, "sdw2", 5},
    {"disk 3 ok", "sdw2", 0},       {"disk 0 refuse 21", "sdw1", 5}, {"disk 0 ok", "sdw1", 0},
};

}  // namespace

int main(int argc, char **argv)
{
    const bool seam = argc > 1 && std::strcmp(argv[1], "seam") == 0;
    if (seam)
        kModules[0] = "qmtsdw_seam.dll";
    // The system keeps its directory of named objects open from a process's first named object
    // on; have it open before counting, as the libraries' named mutexes and mappings need it.
    HANDLE named = CreateEventA(nullptr, TRUE, FALSE, "Local\\qmt_smoke_warm_up");
    if (named)
        CloseHandle(named);
    const long threads_before = thread_count();
    const long handles_before = handle_count();

    HMODULE dll = LoadLibraryA(kModules[0]);
    if (!dll) {
        std::printf("FAILED LoadLibrary(%s): error %lu\n", kModules[0], GetLastError());
        return 1;
    }
    auto install = reinterpret_cast<qmtp_seam_install_fn>(
        reinterpret_cast<void *>(GetProcAddress(dll, QMTP_SEAM_INSTALL)));
    check((install != nullptr) == seam, "seam export", install != nullptr, seam);
    if (seam && install)
        check(install(qmtp_seam_host_table()) != FALSE, "seam installed", 1, 1);
    auto init = reinterpret_cast<InitFn>(reinterpret_cast<void *>(GetProcAddress(dll, "InitRscDll")));
    auto uninit = reinterpret_cast<InitFn>(reinterpret_cast<void *>(GetProcAddress(dll, "UninitRscDll")));
    auto pass = reinterpret_cast<PassFn>(reinterpret_cast<void *>(GetProcAddress(dll, "DoMontr")));
    if (!init || !uninit || !pass) {
        std::printf("FAILED GetProcAddress: InitRscDll, UninitRscDll or DoMontr missing\n");
        FreeLibrary(dll);
        return 1;
    }
    for (const char *name : kModules)
        check(GetModuleHandleA(name) != nullptr, name, GetModuleHandleA(name) != nullptr, 1);
    const long handles_loaded = handle_count();

    // A stopped clock makes every lap 0 ms, so the log lines do not depend on this machine's speed.
    if (seam)
        qmtp_tick_freeze(1000000);
    check_status("InitRscDll", init("qmtsdw", 0, 0), 0);
    // sdw3 watches a disk resource whose volume is on another server: normal at once.
    check_status("DoMontr sdw3", pass("sdw", "sdw3"), 0);
    for (const SeamStep &step : kSeamSteps) {
        if (!seam)
            break;
        if (step.sim && !qmtp::sim::apply(step.sim))
            check(false, step.sim, 0, 1);
        check_status(step.resource, pass("sdw", step.resource), step.status);
    }
    check_status("UninitRscDll", uninit("qmtsdw", 0, 0), 0);
    if (seam)
        check(qmtp_seam_open_devices() == 0, "device handles left", qmtp_seam_open_devices(), 0);
    const long handles_torn_down = handle_count();
    check(FreeLibrary(dll) != FALSE, "FreeLibrary", 1, 1);

    // Unloaded means unloaded: no library kept in memory by a reference left behind.
    for (const char *name : kModules)
        check(GetModuleHandleA(name) == nullptr, name, GetModuleHandleA(name) != nullptr, 0);
    if (seam) {
        std::printf("%s\n", failures ? "FAILED" : "PASSED");
        return failures ? 1 : 0;
    }
    // A thread that is ending may still be listed for a moment.
    long threads_after = thread_count();
    for (int i = 0; i < 200 && threads_after > threads_before; ++i) {
        Sleep(10);
        threads_after = thread_count();
    }
    if (threads_before >= 0)
        check(threads_after == threads_before, "threads before and after", threads_after, threads_before);
    else
        std::printf("skipped thread count: not available here\n");
    const long handles_after = handle_count();
    if (handles_before >= 0 && handles_loaded >= 0 && handles_torn_down >= 0 && handles_after >= 0) {
        check(handles_torn_down == handles_loaded, "handles before InitRscDll and after UninitRscDll",
              handles_torn_down, handles_loaded);
        check(handles_after == handles_before + kLoadLocks, "handles before LoadLibrary and after FreeLibrary",
              handles_after, handles_before + kLoadLocks);
    } else {
        std::printf("skipped handle count: not available here\n");
    }
    std::printf("%s\n", failures ? "FAILED" : "PASSED");
    return failures ? 1 : 0;
}
