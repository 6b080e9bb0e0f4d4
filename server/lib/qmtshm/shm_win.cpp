// shm_win.cpp - the shared-memory segments on Windows: named file mappings backed by the paging
// file, with the default security of the creating account; the writers' lock of the resource
// table is a named mutex beside it ("<segment>_lock"), whose abandonment by a writer that died
// is reported like a robust mutex's dead owner. A mapping lives as long as some process holds it.
#include "shm_layout.h"

#include "qmtshm_codes.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>

namespace qmtshm {

std::string segment_name(const char *suffix)
{
    const char *p = std::getenv("QMT_SHM_NAME");
    std::string prefix = p && *p ? p : "/qmt";
    // One object name in this session's namespace: no leading slash, no further backslash.
    while (!prefix.empty() && (prefix.front() == '/' || prefix.front() == '\\'))
        prefix.erase(prefix.begin());
    for (char &c : prefix)
        if (c == '\\')
            c = '_';
    return "Local\\" + prefix + suffix;
}

static int error_code(DWORD err)
{
    switch (err) {
    case ERROR_FILE_NOT_FOUND: return QMTSHM_E_NOT_FOUND;
    case ERROR_ACCESS_DENIED: return QMTSHM_E_NOT_OWNER;
    default: return QMTSHM_E_SYSTEM;
    }
}

// Maps the whole section once its creator has set it up (bounded wait), then checks the header
// against the bytes the view really has.
static int map_checked(HANDLE section, const Layout &layout, bool writable, Mapping &out)
{
    const DWORD access = writable ? FILE_MAP_READ | FILE_MAP_WRITE : FILE_MAP_READ;
    void *a = MapViewOfFile(section, access, 0, 0, 0);
    if (!a)
        return QMTSHM_E_SYSTEM;
    MEMORY_BASIC_INFORMATION mbi {};
    size_t available = VirtualQuery(a, &mbi, sizeof mbi) ? mbi.RegionSize : 0;
    for (int i = 0;; ++i) {
        if (available >= layout.header_size) {
            uint32_t state = static_cast<const Header *>(a)->state.load(std::memory_order_acquire);
            long capacity = state == kReady ? check_header(a, available, layout) : -1;
            if (capacity >= 0) {
                out.addr = a;
                out.size = layout.header_size + static_cast<size_t>(capacity) * layout.entry_size;
                return 0;
            }
            if (state == kReady)
                break;
        }
        if (i >= 2000)  // two seconds: its creator died before finishing it
            break;
        Sleep(1);
    }
    UnmapViewOfFile(a);
    return QMTSHM_E_BAD_SEGMENT;
}

int map_create(const std::string &name, const Layout &layout, Mapping &out)
{
    const size_t size = layout.header_size + (layout.entry_size ? size_t{layout.create_capacity} * layout.entry_size : 0);
    HANDLE section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                        static_cast<DWORD>(uint64_t{size} >> 32), static_cast<DWORD>(size), name.c_str());
    if (!section)
        return error_code(GetLastError());
    const bool existed = GetLastError() == ERROR_ALREADY_EXISTS;
    Mapping m;
    m.handle = section;
    int rc = 0;
    if (existed) {
        rc = map_checked(section, layout, true, m);
    } else {
        // New sections are zero-filled, so the header reads kEmpty until it is set up.
        void *a = MapViewOfFile(section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, size);
        if (!a) {
            rc = QMTSHM_E_SYSTEM;
        } else {
            init_header(a, size, layout);
            m.addr = a;
            m.size = size;
        }
    }
    if (rc == 0 && layout.entry_size) {
        m.lock = CreateMutexA(nullptr, FALSE, (name + "_lock").c_str());
        if (!m.lock)
            rc = error_code(GetLastError());
    }
    if (rc != 0) {
        unmap(m);
        return rc;
    }
    out = m;
    return 0;
}

int map_existing(const std::string &name, const Layout &layout, Mapping &out)
{
    HANDLE section = OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str());
    if (!section)
        return error_code(GetLastError());
    Mapping m;
    m.handle = section;
    int rc = map_checked(section, layout, false, m);
    if (rc != 0) {
        unmap(m);
        return rc;
    }
    out = m;
    return 0;
}

void unmap(Mapping &m)
{
    if (m.addr)
        UnmapViewOfFile(m.addr);
    if (m.handle)
        CloseHandle(m.handle);
    if (m.lock)
        CloseHandle(m.lock);
    m = {};
}

bool segment_exists(const std::string &name)
{
    HANDLE section = OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str());
    if (!section)
        return GetLastError() != ERROR_FILE_NOT_FOUND;  // there, though perhaps not readable by us
    CloseHandle(section);
    return true;
}

void writer_lock_init(void *)
{
    // The named mutex is created beside the section by every attach (map_create).
}

LockResult writer_lock_acquire(Mapping &m, long wait_ms)
{
    if (!m.lock)
        return LockResult::failed;
    switch (WaitForSingleObject(m.lock, static_cast<DWORD>(wait_ms))) {
    case WAIT_OBJECT_0: return LockResult::locked;
    case WAIT_ABANDONED: return LockResult::owner_died;
    case WAIT_TIMEOUT: return LockResult::timeout;
    default: return LockResult::failed;
    }
}

bool writer_lock_consistent(Mapping &)
{
    return true;  // an abandoned mutex is owned normally once its waiter was told
}

void writer_lock_release(Mapping &m)
{
    ReleaseMutex(m.lock);
}

int64_t wall_ms()
{
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    const uint64_t t = (uint64_t{ft.dwHighDateTime} << 32) | ft.dwLowDateTime;
    return static_cast<int64_t>((t - 116444736000000000ULL) / 10000);  // 100 ns since 1601 -> ms since 1970
}

uint32_t tick_ms()
{
    return static_cast<uint32_t>(GetTickCount64());
}

void yield_thread()
{
    SwitchToThread();
}

// The creation time of a running process (100 ns units since 1601); 0 when it does not exist or
// has ended, 1 when it cannot be looked at.
uint64_t process_start(int32_t pid)
{
    if (pid <= 0)
        return 0;
    HANDLE p = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!p)
        return GetLastError() == ERROR_INVALID_PARAMETER ? 0 : 1;
    FILETIME created, exited, kernel, user;
    DWORD code = 0;
    uint64_t v = 1;
    if (GetExitCodeProcess(p, &code) && code != STILL_ACTIVE)
        v = 0;
    else if (GetProcessTimes(p, &created, &exited, &kernel, &user))
        v = (uint64_t{created.dwHighDateTime} << 32) | created.dwLowDateTime;
    CloseHandle(p);
    return v;
}

int32_t self_pid()
{
    return static_cast<int32_t>(GetCurrentProcessId());
}

uint64_t self_start()
{
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user))
        return 1;
    return (uint64_t{created.dwHighDateTime} << 32) | created.dwLowDateTime;
}

bool process_alive(int32_t pid, uint64_t start)
{
    if (pid <= 0)
        return false;
    uint64_t now = process_start(pid);
    if (now == 0)
        return false;
    return now == 1 || start == 0 || now == start;
}

}  // namespace qmtshm
