// cluster_test_util.h - scratch folders, files and shared-memory names for the cluster tests.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
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

// Maps a segment read-write, as a damaged or hostile copy of ourselves would; nullptr on failure.
inline void *map_segment(const std::string &name, size_t *size)
{
    int fd = shm_open(name.c_str(), O_RDWR, 0);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0)
        return nullptr;
    void *a = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    *size = static_cast<size_t>(st.st_size);
    return a == MAP_FAILED ? nullptr : a;
}

// Gives this test its own pair of segments and removes them at the end.
class ShmPrefix {
public:
    explicit ShmPrefix(const std::string &tag)
    {
        prefix_ = "/qmtt_" + tag + "_" + std::to_string(getpid());
        setenv("QMT_SHM_NAME", prefix_.c_str(), 1);
        unlink_all();
    }
    ~ShmPrefix()
    {
        unlink_all();
        unsetenv("QMT_SHM_NAME");
    }
    ShmPrefix(const ShmPrefix &) = delete;
    ShmPrefix &operator=(const ShmPrefix &) = delete;
    std::string cm() const { return prefix_ + "_cm"; }
    std::string rm() const { return prefix_ + "_rm"; }
    const std::string &prefix() const { return prefix_; }

private:
    void unlink_all()
    {
        shm_unlink(cm().c_str());
        shm_unlink(rm().c_str());
    }
    std::string prefix_;
};

}  // namespace clustertest
