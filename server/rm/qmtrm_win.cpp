// qmtrm_win.cpp - the host's side of the system on Windows: the plug-in's test variant beside the
// program, with this process's simulated storage and tick installed through its seam; the
// environment and folders; Ctrl-C, Ctrl-Break and the console's close as stop requests. The work
// runs in the process the operator started (no supervising parent), and the platform layer's
// fault injection and live counters, which the system does not have, are refused.
#include "qmtrm.h"
#include "qmtrm_board.h"
#include "qmtrm_health.h"
#include "qmtrm_platform.h"

#include "qmtseam.h"
#include "qmtutil.h"

#include <signal.h>

#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
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

std::string server_name()
{
    char buffer[256] = {};
    if (cs_gethostname(buffer, static_cast<int>(sizeof buffer), 1, nullptr) != 0)
        return {};
    return std::string(buffer, strnlen(buffer, sizeof buffer));
}

std::string default_shm_prefix()
{
    char user[256] = {};
    DWORD size = sizeof user;
    if (!GetUserNameA(user, &size))
        user[0] = '\0';
    std::string name;
    for (const char *p = user; *p; ++p)
        name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    std::string server;
    for (char c : server_name().substr(0, 64))
        server += std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' ? c : '_';
    return "/qmt-" + name + "-" + server;
}

void add_health_options(CLI::App *) {}

int run_main(Service, const EnvOptions &, int, int, double, bool)
{
    std::fprintf(stderr, "qmtrm: run is not available on this platform yet\n");
    return kExitUsage;
}

int demo_main(Service, double, bool, const std::string &, bool)
{
    std::fprintf(stderr, "qmtrm: demo is not available on this platform yet\n");
    return kExitUsage;
}

} // namespace qmtrm
