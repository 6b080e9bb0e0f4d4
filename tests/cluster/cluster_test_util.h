// cluster_test_util.h - scratch folders, files and child processes for the cluster tests.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace clustertest {

// A fresh folder under the system's temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "qmtclu-XXXXXX").string();
        char *p = mkdtemp(tmpl.data());
        if (p)
            path_ = p;
    }
    ~TempDir()
    {
        std::error_code ec;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

inline void write_file(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

// Runs `body` in a child process and returns its exit code; -1 when it crashed or overran
// `seconds` (its alarm ends it).
inline int in_child(const std::function<int()> &body, unsigned seconds = 20)
{
    pid_t pid = fork();
    if (pid == 0) {
        alarm(seconds);
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace clustertest
