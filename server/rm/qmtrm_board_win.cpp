// qmtrm_board_win.cpp - the status board's segment on Windows: a named file mapping in this
// session ("Local\" and the name without its '/'), held by a named mutex that its writer owns for
// its life (the system abandons it when the writer dies, and the next writer takes over), and the
// processes as the system names them (id and creation time).
#include "qmtrm_board.h"

#include <windows.h>

#include <cerrno>
#include <cstring>

namespace qmtrm {

namespace {

std::string object_name(const std::string &name, const char *suffix)
{
    return "Local\\" + (name.empty() || name.front() != '/' ? name : name.substr(1)) + suffix;
}

uint64_t creation_time(HANDLE process)
{
    FILETIME created{}, exited{}, kernel{}, user{};
    if (!GetProcessTimes(process, &created, &exited, &kernel, &user))
        return 0;
    return (static_cast<uint64_t>(created.dwHighDateTime) << 32) | created.dwLowDateTime;
}

} // namespace

ProcessId process_id(int pid)
{
    ProcessId me;
    me.pid = pid > 0 ? pid : static_cast<int>(GetCurrentProcessId());
    HANDLE h = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(me.pid));
    if (h) {
        me.start = creation_time(h);
        CloseHandle(h);
    }
    return me;
}

bool process_alive(const ProcessId &process)
{
    if (process.pid <= 0)
        return false;
    HANDLE h = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(process.pid));
    if (!h)
        return false;
    DWORD code = 0;
    bool alive = GetExitCodeProcess(h, &code) && code == STILL_ACTIVE && creation_time(h) == process.start;
    CloseHandle(h);
    return alive;
}

std::string user_tag()
{
    char user[256] = {};
    DWORD size = sizeof user;
    if (!GetUserNameA(user, &size))
        user[0] = '\0';
    std::string tag;
    for (const char *p = user; *p; ++p)
        tag += (*p >= '0' && *p <= '9') || (*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') ? *p : '_';
    return tag;
}

SegmentOpen create_segment(const std::string &name, size_t size, Segment *out, std::string *why)
{
    HANDLE holder = CreateMutexA(nullptr, FALSE, object_name(name, "_writer").c_str());
    if (!holder) {
        *why = "cannot open the shared memory " + name + ": error " + std::to_string(GetLastError());
        return SegmentOpen::Failed;
    }
    DWORD rc = WaitForSingleObject(holder, 0);
    if (rc != WAIT_OBJECT_0 && rc != WAIT_ABANDONED) {
        CloseHandle(holder);
        return SegmentOpen::InUse;
    }
    // A reader may still hold the last writer's mapping open, at that writer's size.
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                       static_cast<DWORD>(static_cast<uint64_t>(size) >> 32),
                                       static_cast<DWORD>(size), object_name(name, "").c_str());
    void *map = mapping ? MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, size) : nullptr;
    if (!map) {
        *why = "cannot map the shared memory " + name + ": error " + std::to_string(GetLastError());
        if (mapping)
            CloseHandle(mapping);
        ReleaseMutex(holder);
        CloseHandle(holder);
        return SegmentOpen::Failed;
    }
    std::memset(map, 0, size);
    out->name = name;
    out->map = map;
    out->size = size;
    out->handles[0] = reinterpret_cast<intptr_t>(mapping);
    out->handles[1] = reinterpret_cast<intptr_t>(holder);
    return SegmentOpen::Ok;
}

void remove_segment(Segment *segment)
{
    UnmapViewOfFile(segment->map);
    CloseHandle(reinterpret_cast<HANDLE>(segment->handles[0]));
    // Released where the board ends on the thread that made it; closing the last handle ends it
    // anyway.
    ReleaseMutex(reinterpret_cast<HANDLE>(segment->handles[1]));
    CloseHandle(reinterpret_cast<HANDLE>(segment->handles[1]));
    *segment = Segment{};
}

int read_segment(const std::string &name, size_t limit, std::string *bytes, std::string *why)
{
    bytes->clear();
    HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, object_name(name, "").c_str());
    if (!mapping)
        return ENOENT;
    void *map = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    MEMORY_BASIC_INFORMATION info{};
    if (!map || VirtualQuery(map, &info, sizeof info) == 0) {
        *why = "cannot map the shared memory: error " + std::to_string(GetLastError());
        if (map)
            UnmapViewOfFile(map);
        CloseHandle(mapping);
        return EINVAL;
    }
    // The view is whole pages; the header's counts are checked against them.
    size_t size = info.RegionSize < limit ? info.RegionSize : limit;
    bytes->assign(static_cast<const char *>(map), size);
    UnmapViewOfFile(map);
    CloseHandle(mapping);
    return 0;
}

} // namespace qmtrm
