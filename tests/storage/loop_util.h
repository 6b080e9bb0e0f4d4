// loop_util.h - real block devices for tests that run as root: shell commands, loop devices over
// files, and scratch folders. Shared by the storage tests and the plug-in's tests on real disks.
#pragma once

#include "qmtwin.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace storage_test {

// Runs a shell command; its first output line, and whether it exited 0.
inline bool run(const std::string &cmd, std::string *out = nullptr) {
    FILE *p = ::popen((cmd + " 2>/dev/null").c_str(), "r");
    if (!p) return false;
    std::array<char, 512> buf{};
    std::string first;
    if (std::fgets(buf.data(), buf.size(), p)) first = buf.data();
    while (std::fgets(buf.data(), buf.size(), p)) {
    }
    int rc = ::pclose(p);
    while (!first.empty() && (first.back() == '\n' || first.back() == ' ')) first.pop_back();
    if (out) *out = first;
    return rc == 0;
}

// Empty when loop devices can be used here, else the reason to skip.
inline std::string why_not_root_loop() {
    if (::geteuid() != 0) return "needs root (loop devices)";
    if (!run("losetup -f")) return "losetup cannot find a free loop device here";
    return {};
}

// A loop device over a file; detached in the destructor. Its disk number follows the linux
// backend's rule for loop devices: 1000 + N.
struct Loop {
    std::string dev;
    DWORD number = 0;
    bool attach(const std::string &file) {
        if (!run("losetup -f --show " + file, &dev) || dev.rfind("/dev/loop", 0) != 0) return false;
        number = 1000 + static_cast<DWORD>(std::atoi(dev.c_str() + 9));
        return true;
    }
    void detach() {
        if (!dev.empty()) run("losetup -d " + dev);
        dev.clear();
    }
    ~Loop() { detach(); }
};

inline std::string temp_dir() {
    char tmpl[] = "/tmp/qmt-stor-XXXXXX";
    const char *d = ::mkdtemp(tmpl);
    return d ? d : "";
}

} // namespace storage_test
