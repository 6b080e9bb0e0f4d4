// shm_fixture.h - shared memories of a test's own for the cluster tests.
#pragma once

#include "cluster_test_util.h"
#include "qmtshm.h"
#include "qmtshm_admin.h"
#include "qmtshm_codes.h"
#include "shm_layout.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace clustertest {

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

// Gives this test its own pair of segments; at the end, detaches this process and removes them.
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
        while (shmrm_detach() == 0) {
        }
        while (shmcm_detach() == 0) {
        }
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
