// The linux backend's rules that need no device: disk numbers from whole-disk names and back, and
// the walk from a volume's block device down to its whole disks, over a sysfs tree made here.
#include "backend.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <tuple>

namespace {

namespace fs = std::filesystem;
using qmtp::linuxdev::collect_extents;
using qmtp::linuxdev::disk_name;
using qmtp::linuxdev::disk_number;

TEST(DiskNumbers, OnlyWholeDiskNamesMapBothWays) {
    const std::pair<const char *, DWORD> cases[] = {
        {"sda", 0},         {"sdb", 1},        {"sdz", 25},    {"sdaa", 26},   {"sdab", 27},
        {"loop0", 1000},    {"loop7", 1007},   {"loop123", 1123},
        {"nvme0n1", 2000},  {"nvme0n2", 2001}, {"nvme1n1", 2100},
        {"vda", 3000},      {"vdc", 3002},     {"xvda", 4000}, {"mmcblk0", 5000}, {"nbd3", 6003},
        {"zram0", 7000},
    };
    for (const auto &[name, number] : cases) {
        DWORD n = 0xFFFFFFFF;
        EXPECT_TRUE(disk_number(name, &n)) << name;
        EXPECT_EQ(n, number) << name;
        EXPECT_EQ(disk_name(number), name) << number;
    }
    // Partitions and other devices have none.
    for (const char *name : {"sda1", "nvme0n1p1", "dm-0", "md0", "sr0", "loop", "loop01", "sdA", "nvme0", "loop1000",
                             "mmcblk0p1", ""}) {
        DWORD n = 77;
        EXPECT_FALSE(disk_number(name, &n)) << name;
        EXPECT_EQ(n, 77u) << name;
    }
    EXPECT_EQ(disk_name(999999), "");
    EXPECT_EQ(disk_name(8000), "");
}

// A sysfs block folder: entries are links into a devices tree, as the kernel lays them out.
class FakeSysfs : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qmt-sysfs-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        top_ = tmpl;
        root_ = top_ + "/class/block/";
        fs::create_directories(root_);
    }
    void TearDown() override { fs::remove_all(top_); }

    // A device folder with its size in sectors and more files, linked into the block folder.
    std::string device(const std::string &dir, const std::string &name, const std::vector<std::string> &files) {
        fs::create_directories(dir);
        for (size_t i = 0; i + 1 < files.size(); i += 2) std::ofstream(dir + "/" + files[i]) << files[i + 1] << "\n";
        fs::create_directory_symlink(dir, root_ + name);
        return dir;
    }
    std::string disk(const std::string &name, unsigned long size) {
        fs::create_directories(top_ + "/devices/" + name + "/holders");
        return device(top_ + "/devices/" + name, name, {"size", std::to_string(size)});
    }
    void partition(const std::string &disk_dir, const std::string &name, int n, unsigned long start,
                   unsigned long size) {
        device(disk_dir + "/" + name, name,
               {"partition", std::to_string(n), "start", std::to_string(start), "size", std::to_string(size)});
    }
    void holder(const std::string &name, const std::vector<std::string> &slaves) {
        std::string dir = device(top_ + "/devices/virtual/" + name, name, {"size", "100"});
        fs::create_directories(dir + "/slaves");
        for (auto &s : slaves) fs::create_directory_symlink(root_ + s, dir + "/slaves/" + s);
    }
    // The extents of a device as (disk number, offset, length in bytes), and the walk's error.
    using Extents = std::vector<std::tuple<DWORD, LONGLONG, LONGLONG>>;
    Extents extents(const std::string &name, DWORD *error) {
        std::vector<DISK_EXTENT> e;
        *error = collect_extents(root_, name, &e);
        Extents out;
        for (const auto &x : e) out.emplace_back(x.DiskNumber, x.StartingOffset.QuadPart, x.ExtentLength.QuadPart);
        return out;
    }

    std::string top_, root_;
};

TEST_F(FakeSysfs, EachDeviceLeadsToItsWholeDisksAtTheirOffsets) {
    disk("loop4", 32768);
    partition(disk("sdb", 1 << 20), "sdb2", 2, 4096, 2048);
    std::string sda = disk("sda", 1000), sdc = disk("sdc", 1000);
    disk("nvme0n1", 5000);
    partition(sda, "sda1", 1, 2048, 500);
    partition(sdc, "sdc1", 1, 2048, 500);
    holder("md0", {"sda1", "sdc1"});
    holder("dm-0", {"md0", "nvme0n1"});
    const std::pair<const char *, Extents> cases[] = {
        {"loop4", {{1004, 0, 32768LL * 512}}}, // a whole disk is its own extent
        {"sdb2", {{1, 4096LL * 512, 2048LL * 512}}},
        {"dm-0", {{0, 2048LL * 512, 500LL * 512}, {2, 2048LL * 512, 500LL * 512}, {2000, 0, 5000LL * 512}}},
    };
    for (const auto &[name, expected] : cases) {
        DWORD error = 1;
        EXPECT_EQ(extents(name, &error), expected) << name;
        EXPECT_EQ(error, 0u) << name;
    }
}

TEST_F(FakeSysfs, UnnumberedOrMissingDevicesFail) {
    disk("sr0", 100);
    holder("dm-1", {"sr0"});
    for (const auto &[name, error] : {std::pair<const char *, DWORD>{"sr0", ERROR_NOT_SUPPORTED},
                                      {"sdq", ERROR_DEVICE_NOT_CONNECTED}, {"dm-1", ERROR_NOT_SUPPORTED}}) {
        DWORD got = 0;
        EXPECT_EQ(extents(name, &got), Extents{}) << name;
        EXPECT_EQ(got, error) << name;
    }
}

} // namespace
