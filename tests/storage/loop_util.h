// loop_util.h - real block devices for tests that run as root: shell commands, loop devices over
// files, and scratch folders. Shared by the storage tests and the plug-in's tests on real disks.
#pragma once

#include "qmtwin.h"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace storage_test {

// Runs a shell command; its first output line, and whether it exited 0.
inline bool run(const std::string &cmd, std::string *out = nullptr) {
    FILE *p = ::popen((cmd + " 2>/dev/null").c_str(), "r");
    if (!p) return false;
    std::array<char, 512> buf{};
    std::string first;
    for (bool at_first = true; std::fgets(buf.data(), buf.size(), p); at_first = false)
        if (at_first) first = buf.data();
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

// A filesystem UUID of this run's own making, so that no other device on the node carries it.
inline std::string new_uuid() {
    std::ifstream f("/proc/sys/kernel/random/uuid");
    std::string s;
    std::getline(f, s);
    return s;
}

inline std::string temp_root() {
    const char *t = std::getenv("TMPDIR");
    return t && *t ? t : "/tmp";
}

// Removes what an earlier run killed before its own clean-up (a time-out) left behind: loop
// devices over files in scratch folders whose owning process is gone, FUSE mounts in them, and
// the folders.
inline void sweep_dead_runs() {
    namespace fs = std::filesystem;
    const std::string prefix = temp_root() + "/qmt-stor-";
    auto dead_folder = [&prefix](const std::string &path) -> std::string {
        if (path.rfind(prefix, 0) != 0) return {};
        std::string dir = path.substr(0, path.find('/', prefix.size()));
        long pid = 0;
        std::ifstream(dir + "/owner") >> pid;
        if (pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM)) return {};
        return dir;
    };
    std::error_code ec;
    for (const auto &e : fs::directory_iterator("/sys/block", ec)) {
        std::string backing;
        std::getline(std::ifstream(e.path() / "loop/backing_file"), backing);
        if (!dead_folder(backing).empty()) run("losetup -d /dev/" + e.path().filename().string());
    }
    std::ifstream mounts("/proc/mounts");
    for (std::string src, mnt, rest; mounts >> src >> mnt && std::getline(mounts, rest);) {
        if (!dead_folder(mnt).empty()) run("umount -l " + mnt);
    }
    for (const auto &e : fs::directory_iterator(temp_root(), ec)) {
        std::string dir = dead_folder(e.path().string() + "/");
        if (!dir.empty()) fs::remove_all(dir, ec);
    }
}

// A scratch folder named after nothing fixed, holding the pid of its owner for sweep_dead_runs.
inline std::string temp_dir() {
    sweep_dead_runs();
    std::string tmpl = temp_root() + "/qmt-stor-XXXXXX";
    const char *d = ::mkdtemp(tmpl.data());
    if (!d) return "";
    std::ofstream(std::string(d) + "/owner") << ::getpid() << "\n";
    return d;
}

} // namespace storage_test
