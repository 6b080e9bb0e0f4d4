// qmtrm_posix.cpp - the host's side of the system on POSIX: the plug-in beside the program,
// environment and folders, stop signals through a pipe, the platform layer's test seams, and the
// health commands.
#include "qmtrm_platform.h"

#include "qmtplat.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

extern char **environ;

namespace qmtrm::platform {

std::string default_plugin()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "../lib/libqmtsdw.so";
    self[n] = '\0';
    std::string dir(self);
    dir.erase(dir.find_last_of('/') + 1);
#ifdef QMTRM_INSTALLED_PLUGIN
    // Installed (packaging/install.cmake), the plug-in is in the programs' private library folder.
    if (std::string installed = dir + QMTRM_INSTALLED_PLUGIN; access(installed.c_str(), F_OK) == 0)
        return installed;
#endif
    return dir + "../lib/libqmtsdw.so";
}

void set_env(const char *name, const std::string &value) { setenv(name, value.c_str(), 1); }

bool make_folders(const std::string &path, std::string *why)
{
    std::string partial;
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || (path[i] == '/' && i > 0)) {
            partial = path.substr(0, i);
            // Only our user and its group may read the logs.
            if (mkdir(partial.c_str(), 0750) != 0 && errno != EEXIST) {
                *why = std::strerror(errno);
                return false;
            }
        }
    }
    return true;
}

bool local_time(std::time_t t, std::tm *out) { return localtime_r(&t, out) != nullptr; }

std::string loader_message() { return qmtp_loader_message(); }

bool attach_plugin(void *, std::string *) { return true; }

namespace {

// The handler writes each signal into the pipe; the watching thread reads it.
int stop_pipe[2] = {-1, -1};

void on_stop_signal(int signal_number)
{
    int saved = errno;
    unsigned char byte = static_cast<unsigned char>(signal_number);
    (void)!write(stop_pipe[1], &byte, 1);
    errno = saved;
}

} // namespace

bool open_stop_requests(std::string *why)
{
    if (pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        *why = std::string("cannot create a pipe: ") + std::strerror(errno);
        return false;
    }
    fcntl(stop_pipe[0], F_SETFL, 0);  // only the handler's end must never block
    return true;
}

void catch_stop_requests()
{
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &action, nullptr);
}

int wait_stop_request(int ms)
{
    pollfd p{stop_pipe[0], POLLIN, 0};
    if (poll(&p, 1, ms) <= 0)
        return 0;
    unsigned char byte = 0;
    if (read(stop_pipe[0], &byte, 1) != 1)
        return 0;
    return byte;
}

void wake_stop_watch()
{
    unsigned char wake = 0;
    (void)!write(stop_pipe[1], &wake, 1);
}

bool fault_set(const std::string &function, unsigned nth, unsigned long error, std::string *)
{
    qmtp_fault_set(function.c_str(), nth, static_cast<DWORD>(error));
    return true;
}

bool fault_clear(std::string *)
{
    qmtp_fault_clear();
    return true;
}

bool live_count(bool allocations, long *count, std::string *)
{
    *count = allocations ? qmtp_live_allocations() : qmtp_live_handles();
    return true;
}

bool start_command(const std::vector<std::string> &args, const std::vector<std::string> &env, intptr_t *child,
                   std::string *why)
{
    std::vector<std::string> arg_store(args);
    std::vector<char *> argv;
    for (auto &a : arg_store)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_store;
    for (char **e = environ; *e != nullptr; ++e)
        env_store.emplace_back(*e);
    env_store.insert(env_store.end(), env.begin(), env.end());
    std::vector<char *> envp;
    for (auto &e : env_store)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    // The run blocks its stop signals in every thread; the command must get the default mask.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], nullptr, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        *why = std::strerror(rc);
        return false;
    }
    *child = pid;
    return true;
}

bool command_ended(intptr_t child, std::string *failure)
{
    int status = 0;
    if (waitpid(static_cast<pid_t>(child), &status, WNOHANG) != static_cast<pid_t>(child))
        return false;
    failure->clear();
    if (!WIFEXITED(status))
        *failure = "signal " + std::to_string(WTERMSIG(status));
    else if (WEXITSTATUS(status) != 0)
        *failure = "exit status " + std::to_string(WEXITSTATUS(status));
    return true;
}

void kill_command(intptr_t child)
{
    kill(static_cast<pid_t>(child), SIGKILL);
    waitpid(static_cast<pid_t>(child), nullptr, 0);
}

std::vector<std::string> shell_command(const std::string &text) { return {"/bin/sh", "-c", text}; }

std::string file_stamp(const std::string &path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return {};
    return std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" + std::to_string(st.st_mtim.tv_sec) +
           "." + std::to_string(st.st_mtim.tv_nsec);
}

long cpu_ms()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000L +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000L;
}

bool make_temp_folder(const std::string &stem, std::string *path, std::string *why)
{
    const char *tmp = std::getenv("TMPDIR");
    std::string base = tmp != nullptr && *tmp ? tmp : "/tmp";
    std::string pattern = base + "/" + stem + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        *why = "cannot create a folder under " + base + ": " + std::strerror(errno);
        return false;
    }
    *path = buffer.data();
    return true;
}

std::string sibling_program(const std::string &name)
{
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec)
        return name;
    return (self.parent_path() / name).string();
}

void remove_shared_memory(const std::string &prefix)
{
    DIR *dir = opendir("/dev/shm");
    if (dir == nullptr)
        return;
    std::vector<std::string> names;
    while (dirent *entry = readdir(dir)) {
        if (std::strstr(entry->d_name, prefix.c_str()) != nullptr)
            names.push_back(entry->d_name);
    }
    closedir(dir);
    for (auto &name : names)
        shm_unlink(("/" + name).c_str());
}

} // namespace qmtrm::platform
