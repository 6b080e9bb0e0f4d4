// qmtrm_win.cpp - the host's side of the system on Windows: the plug-in's test variant beside the
// program, with this process's simulated storage and tick installed through its seam; the
// environment and folders; Ctrl-C, Ctrl-Break and the console's close as stop requests; the
// health commands as processes of their own. The work runs in the process the operator started
// (no supervising parent), and the platform layer's fault injection and live counters, which the
// system does not have, are refused.
#include "qmtrm.h"
#include "qmtrm_platform.h"

#include "qmtseam.h"

#include <signal.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>

namespace qmtrm::platform {

std::string default_plugin()
{
    char self[MAX_PATH] = {};
    DWORD n = GetModuleFileNameA(nullptr, self, sizeof self);
    std::string dir(self, n < sizeof self ? n : 0);
    size_t slash = dir.find_last_of("\\/");
    dir.erase(slash == std::string::npos ? 0 : slash + 1);
    return dir + "qmtsdw_seam.dll";
}

void set_env(const char *name, const std::string &value)
{
    // The runtime's copy, which the cluster libraries read, and the system's.
    _putenv_s(name, value.c_str());
    SetEnvironmentVariableA(name, value.c_str());
}

bool make_folders(const std::string &path, std::string *why)
{
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    if (ec)
        *why = ec.message();
    return !ec;
}

bool local_time(std::time_t t, std::tm *out) { return localtime_s(out, &t) == 0; }

std::string loader_message()
{
    DWORD error = GetLastError();
    char text[512] = {};
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0, text,
                             sizeof text, nullptr);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' '))
        text[--n] = '\0';
    SetLastError(error);
    return n > 0 ? std::string(text) : "error " + std::to_string(error);
}

bool attach_plugin(void *module, std::string *why)
{
    // The shipped plug-in has no seam and talks to the system's devices.
    auto install = reinterpret_cast<qmtp_seam_install_fn>(
        reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(module), QMTP_SEAM_INSTALL)));
    if (install == nullptr)
        return true;
    if (install(qmtp_seam_host_table()))
        return true;
    *why = "the plug-in refused the simulated storage (error " + std::to_string(GetLastError()) + ")";
    return false;
}

namespace {

struct StopRequests {
    std::mutex m;
    std::condition_variable cv;
    std::deque<int> queue;
};

StopRequests &stops()
{
    static StopRequests *s = new StopRequests;  // the console's thread may call in while we exit
    return *s;
}

void push(int request)
{
    StopRequests &s = stops();
    {
        std::lock_guard lock(s.m);
        s.queue.push_back(request);
    }
    s.cv.notify_all();
}

BOOL WINAPI on_console(DWORD event)
{
    push(event == CTRL_C_EVENT ? SIGINT : SIGTERM);
    return TRUE;
}

} // namespace

bool open_stop_requests(std::string *) { return true; }

void catch_stop_requests() { SetConsoleCtrlHandler(on_console, TRUE); }

int wait_stop_request(int ms)
{
    StopRequests &s = stops();
    std::unique_lock lock(s.m);
    auto ready = [&] { return !s.queue.empty(); };
    if (ms < 0)
        s.cv.wait(lock, ready);
    else if (!s.cv.wait_for(lock, std::chrono::milliseconds(ms), ready))
        return 0;
    int request = s.queue.front();
    s.queue.pop_front();
    return request;
}

void wake_stop_watch() { push(0); }

namespace {
const char kNotHere[] = "not available on this platform (the POSIX layer's own test seam)";
}

bool fault_set(const std::string &, unsigned, unsigned long, std::string *why)
{
    *why = kNotHere;
    return false;
}

bool fault_clear(std::string *why)
{
    *why = kNotHere;
    return false;
}

bool live_count(bool, long *, std::string *why)
{
    *why = kNotHere;
    return false;
}

bool start_command(const std::vector<std::string> &argv, const std::vector<std::string> &env, intptr_t *child,
                   std::string *why)
{
    // One command line, each word quoted as the runtime splits it again.
    std::string line;
    for (const std::string &arg : argv) {
        std::string quoted = "\"";
        size_t slashes = 0;
        for (char c : arg) {
            if (c == '\\') {
                ++slashes;
                continue;
            }
            quoted.append(c == '"' ? slashes * 2 + 1 : slashes, '\\');
            slashes = 0;
            quoted += c;
        }
        quoted.append(slashes * 2, '\\');
        line += (line.empty() ? "" : " ") + quoted + "\"";
    }
    // This process's environment with the additions, as the system wants it: NAME=VALUE\0...\0.
    std::string block;
    if (char *strings = GetEnvironmentStringsA()) {
        for (const char *p = strings; *p; p += std::strlen(p) + 1)
            block.append(p, std::strlen(p) + 1);
        FreeEnvironmentStringsA(strings);
    }
    for (const std::string &e : env)
        block.append(e.c_str(), e.size() + 1);
    block += '\0';
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, block.data(), nullptr, &startup, &info)) {
        *why = "error " + std::to_string(GetLastError());
        return false;
    }
    CloseHandle(info.hThread);
    *child = reinterpret_cast<intptr_t>(info.hProcess);
    return true;
}

bool command_ended(intptr_t child, std::string *failure)
{
    HANDLE process = reinterpret_cast<HANDLE>(child);
    if (WaitForSingleObject(process, 0) != WAIT_OBJECT_0)
        return false;
    DWORD code = 0;
    GetExitCodeProcess(process, &code);
    CloseHandle(process);
    failure->clear();
    if (code != 0)
        *failure = "exit status " + std::to_string(code);
    return true;
}

void kill_command(intptr_t child)
{
    HANDLE process = reinterpret_cast<HANDLE>(child);
    TerminateProcess(process, 1);
    WaitForSingleObject(process, INFINITE);
    CloseHandle(process);
}

std::vector<std::string> shell_command(const std::string &text) { return {"cmd.exe", "/c", text}; }

std::string file_stamp(const std::string &path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data))
        return {};
    return std::to_string(data.nFileSizeHigh) + ":" + std::to_string(data.nFileSizeLow) + ":" +
           std::to_string(data.ftLastWriteTime.dwHighDateTime) + "." +
           std::to_string(data.ftLastWriteTime.dwLowDateTime);
}

long cpu_ms()
{
    FILETIME created{}, exited{}, kernel{}, user{};
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user))
        return 0;
    auto ms = [](const FILETIME &t) {
        return static_cast<long>(((static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 10000u);
    };
    return ms(kernel) + ms(user);
}

bool make_temp_folder(const std::string &stem, std::string *path, std::string *why)
{
    char base[MAX_PATH + 1] = {};
    DWORD n = GetTempPathA(sizeof base, base);
    if (n == 0 || n > MAX_PATH) {
        *why = "no temporary folder (error " + std::to_string(GetLastError()) + ")";
        return false;
    }
    for (unsigned attempt = 0; attempt < 100; ++attempt) {
        char name[64];
        std::snprintf(name, sizeof name, "%s-%08lx", stem.c_str(),
                      static_cast<unsigned long>(GetTickCount() * 2654435761u + GetCurrentProcessId() + attempt));
        std::string candidate = std::string(base) + name;
        if (CreateDirectoryA(candidate.c_str(), nullptr)) {
            *path = candidate;
            return true;
        }
        if (GetLastError() != ERROR_ALREADY_EXISTS)
            break;
    }
    *why = "cannot create a folder under " + std::string(base) + " (error " + std::to_string(GetLastError()) + ")";
    return false;
}

std::string sibling_program(const std::string &name)
{
    char self[MAX_PATH] = {};
    DWORD n = GetModuleFileNameA(nullptr, self, sizeof self);
    std::string dir(self, n < sizeof self ? n : 0);
    size_t slash = dir.find_last_of("\\/");
    dir.erase(slash == std::string::npos ? 0 : slash + 1);
    return dir + name + ".exe";
}

void remove_shared_memory(const std::string &) {}

} // namespace qmtrm::platform

namespace qmtrm {

// No supervising parent on Windows: a thread held by a device does not keep the process from
// ending there.
int supervise() { return kSupervisedChild; }

void announce_exit(int) {}

int started_pid() { return static_cast<int>(GetCurrentProcessId()); }

void leave_now(int code)
{
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(code));
    for (;;)
        Sleep(INFINITE);
}

} // namespace qmtrm
