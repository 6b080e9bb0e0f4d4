// cluster_test_util.h - scratch folders, files and shared-memory names for the cluster tests.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
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
