// A monitor resource on a real block device: the volume is found by its filesystem UUID, the
// disk is probed, a disk that disappears fails the check, and its return is a recovery.
#include "fixture.h"
#include "loop_util.h"

using namespace sdwtest;
using namespace storage_test;

namespace {

class PluginOnLoopDevice : public PluginTest {
protected:
    void SetUp() override
    {
        const std::string why = why_not_root_loop();
        if (!why.empty()) GTEST_SKIP() << why;
        if (!run("command -v mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 missing";
        ASSERT_STREQ(qmtp_storage_name(), "linux");
        uuid_ = new_uuid();
        dir_ = temp_dir();
        ASSERT_FALSE(dir_.empty());
        image_ = dir_ + "/disk.img";
        ASSERT_TRUE(run("truncate -s 16M " + image_));
        ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid_ + " " + image_));
        ASSERT_TRUE(loop_.attach(image_));
        PluginTest::SetUp();
        configure({{"sdw1", 60, "sd1", uuid_}});
    }
    void TearDown() override
    {
        if (dir_.empty()) return;
        PluginTest::TearDown();
        loop_.detach();
        run("rm -rf " + dir_);
    }
    std::string uuid_, dir_, image_;
    Loop loop_;
};

TEST_F(PluginOnLoopDevice, HealthyDiskThenGoneThenBack)
{
    init();
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u);
    const std::string lun = "4|SdwGetLUN|Name=sdw1 Volume->\\\\?\\Volume{" + uuid_ + "} LUN->" +
                            std::to_string(loop_.number);
    EXPECT_TRUE(logged(lun)) << "the loop device is the volume's one disk";
    EXPECT_EQ(doubles::progress("sdw", "sdw1"), (std::vector<int>{3, 4}));

    loop_.detach();
    doubles::clear_calls();
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 4u);
    EXPECT_TRUE(logged("1|SdwMonitor|SdwGetLUN() failed. (Name=sdw1 Ret=1)"));
    EXPECT_TRUE(events().empty()) << "a volume that is not resolved writes no failure event";

    ASSERT_TRUE(loop_.attach(image_));
    doubles::clear_calls();
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u);
    EXPECT_EQ(events(), std::vector<std::string>{"0x40000e45|sdw1"});
    EXPECT_TRUE(logged("4|SdwMonitor|Changed normary. (Name=sdw1 LastStatus=4)"));
    uninit();
}

}  // namespace
