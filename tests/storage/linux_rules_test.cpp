// The linux backend's rules that need no device: disk numbers from whole-disk names and back, and
// the walk from a volume's block device down to its whole disks, over a sysfs tree made here.
#include "backend.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

using qmtp::linuxdev::collect_extents;
using qmtp::linuxdev::disk_name;
using qmtp::linuxdev::disk_number;

TEST(DiskNumbers, WholeDiskNamesMapBothWays) {
    struct Case {
        const char *name;
        DWORD number;
    } cases[] = {
        {"sda", 0},         {"sdb", 1},        {"sdz", 25},    {"sdaa", 26},   {"sdab", 27},
        {"loop0", 1000},    {"loop7", 1007},   {"loop123", 1123},
        {"nvme0n1", 2000},  {"nvme0n2", 2001}, {"nvme1n1", 2100},
        {"vda", 3000},      {"vdc", 3002},     {"xvda", 4000}, {"mmcblk0", 5000}, {"nbd3", 6003},
        {"zram0", 7000},
    };
    for (const Case &c : cases) {
        DWORD n = 0xFFFFFFFF;
        EXPECT_TRUE(disk_number(c.name, &n)) << c.name;
        EXPECT_EQ(n, c.number) << c.name;
        EXPECT_EQ(disk_name(c.number), c.name) << c.number;
    }
}

TEST(DiskNumbers, PartitionsAndOtherDevicesHaveNone) {
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
        mkdirs(root_);
        mkdirs(top_ + "/devices");
    }
    void TearDown() override { std::system(("rm -rf " + top_).c_str()); }

    static void mkdirs(const std::string &p) { std::system(("mkdir -p " + p).c_str()); }
    static void put(const std::string &file, const std::string &text) { std::ofstream(file) << text << "\n"; }

    // A whole disk of `size` sectors.
    std::string disk(const std::string &name, unsigned long size) {
        std::string dir = top_ + "/devices/" + name;
        mkdirs(dir + "/holders");
        put(dir + "/size", std::to_string(size));
        EXPECT_EQ(::symlink(dir.c_str(), (root_ + name).c_str()), 0);
        return dir;
    }
    void partition(const std::string &disk_dir, const std::string &name, int n, unsigned long start,
                   unsigned long size) {
        std::string dir = disk_dir + "/" + name;
        mkdirs(dir);
        put(dir + "/partition", std::to_string(n));
        put(dir + "/start", std::to_string(start));
        put(dir + "/size", std::to_string(size));
        EXPECT_EQ(::symlink(dir.c_str(), (root_ + name).c_str()), 0);
    }
    void holder(const std::string &name, const std::vector<std::string> &slaves) {
        std::string dir = top_ + "/devices/virtual/" + name;
        mkdirs(dir + "/slaves");
        put(dir + "/size", "100");
        for (auto &s : slaves) EXPECT_EQ(::symlink((root_ + s).c_str(), (dir + "/slaves/" + s).c_str()), 0);
        EXPECT_EQ(::symlink(dir.c_str(), (root_ + name).c_str()), 0);
    }

    std::string top_, root_;
};

TEST_F(FakeSysfs, WholeDiskIsItsOwnExtent) {
    disk("loop4", 32768);
    std::vector<DISK_EXTENT> e;
    ASSERT_EQ(collect_extents(root_, "loop4", &e), 0u);
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].DiskNumber, 1004u);
    EXPECT_EQ(e[0].StartingOffset.QuadPart, 0);
    EXPECT_EQ(e[0].ExtentLength.QuadPart, 32768LL * 512);
}

TEST_F(FakeSysfs, PartitionLeadsToItsParentAtItsOffset) {
    std::string sdb = disk("sdb", 1 << 20);
    partition(sdb, "sdb2", 2, 4096, 2048);
    std::vector<DISK_EXTENT> e;
    ASSERT_EQ(collect_extents(root_, "sdb2", &e), 0u);
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].DiskNumber, 1u);
    EXPECT_EQ(e[0].StartingOffset.QuadPart, 4096LL * 512);
    EXPECT_EQ(e[0].ExtentLength.QuadPart, 2048LL * 512);
}

TEST_F(FakeSysfs, DeviceMapperOverRaidFollowsEverySlaveDown) {
    std::string sda = disk("sda", 1000), sdc = disk("sdc", 1000);
    std::string nvme = disk("nvme0n1", 5000);
    partition(sda, "sda1", 1, 2048, 500);
    partition(sdc, "sdc1", 1, 2048, 500);
    holder("md0", {"sda1", "sdc1"});
    holder("dm-0", {"md0", "nvme0n1"});
    std::vector<DISK_EXTENT> e;
    ASSERT_EQ(collect_extents(root_, "dm-0", &e), 0u);
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(e[0].DiskNumber, 0u);
    EXPECT_EQ(e[1].DiskNumber, 2u);
    EXPECT_EQ(e[2].DiskNumber, 2000u);
    EXPECT_EQ(e[2].StartingOffset.QuadPart, 0);
}

TEST_F(FakeSysfs, UnnumberedOrMissingDevicesFail) {
    disk("sr0", 100);
    std::vector<DISK_EXTENT> e;
    EXPECT_EQ(collect_extents(root_, "sr0", &e), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(collect_extents(root_, "sdq", &e), static_cast<DWORD>(ERROR_DEVICE_NOT_CONNECTED));
    holder("dm-1", {"sr0"});
    EXPECT_EQ(collect_extents(root_, "dm-1", &e), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(e.empty());
}

} // namespace
