// The disknp configuration reader: ranges and defaults, required keys, names, and the table.
#include "npfixture.h"

using namespace nptest;

namespace {

class NpConfigTest : public NpTest {
protected:
    void SetUp() override
    {
        NpTest::SetUp();
        std::snprintf(gsdwServerName, sizeof gsdwServerName, "%s", "node1");
    }
    void TearDown() override
    {
        SdwFreeTable();
        NpTest::TearDown();
    }
};

// Values outside their range take their defaults (the warnings are the np-config host script's).
TEST_F(NpConfigTest, BuildsOneRecordPerNameInOrder)
{
    configure({{"np1", 20, 5, 2, 3, "guid-a"}, {"np2", 40, 10, 0, 7, "guid-b"}, {"np3", 0, 0, -1, 0, "g"}});
    ASSERT_EQ(SdwGetNpConfig(), 0);
    ASSERT_EQ(gsdwRscCount, 3u);
    const SDW_RSC &a = gsdwlpRsc[0];
    const SDW_RSC &b = gsdwlpRsc[1];
    EXPECT_STREQ(a.name, "np1");
    EXPECT_EQ(a.timeout, 20);
    EXPECT_EQ(a.interval, 5);
    EXPECT_EQ(a.retry, 2);
    EXPECT_EQ(a.device, 3);
    EXPECT_STREQ(a.device_info, "guid-a");
    EXPECT_STREQ(b.name, "np2");
    EXPECT_EQ(b.device, 7);
    EXPECT_STREQ(b.device_info, "guid-b");
    EXPECT_EQ(b.thread, nullptr);
    EXPECT_EQ(b.mutex, nullptr);
    EXPECT_EQ(b.result, 0);
    EXPECT_EQ(gsdwDelayRatio, 80u);
    EXPECT_EQ(gsdwlpRsc[2].timeout, 300);
    EXPECT_EQ(gsdwlpRsc[2].interval, 60);
    EXPECT_EQ(gsdwlpRsc[2].retry, 0);
    // The keys in the documented order, once each.
    std::vector<std::string> keys;
    for (const std::string &c : doubles::service_calls()) {
        if (c.rfind("xmllib_get_value(/root/networkpartition/disknp@np1", 0) == 0 ||
            c.rfind("xmllib_get_value(/root/server@node1/device@3", 0) == 0) {
            keys.push_back(c);
        }
    }
    EXPECT_EQ(keys, (std::vector<std::string>{
                        "xmllib_get_value(/root/networkpartition/disknp@np1/timeout)",
                        "xmllib_get_value(/root/networkpartition/disknp@np1/interval)",
                        "xmllib_get_value(/root/networkpartition/disknp@np1/count)",
                        "xmllib_get_value(/root/networkpartition/disknp@np1/device)",
                        "xmllib_get_value(/root/server@node1/device@3/info)",
                    }));
}

TEST_F(NpConfigTest, LongNamesAreCutTo31AndReadUnderTheFullName)
{
    const std::string full = "abcdefghijklmnopqrstuvwxyz0123456789";
    configure({{full, 7, 1, 0, 0, "g"}});
    ASSERT_EQ(SdwGetNpConfig(), 0);
    EXPECT_STREQ(gsdwlpRsc[0].name, "abcdefghijklmnopqrstuvwxyz01234");
    EXPECT_EQ(gsdwlpRsc[0].timeout, 7);
    EXPECT_EQ(SdwFindRsc(full.c_str()), nullptr);
}

TEST_F(NpConfigTest, SecondCallKeepsTheTable)
{
    configure({{"np1"}});
    ASSERT_EQ(SdwGetNpConfig(), 0);
    SDW_RSC *table = gsdwlpRsc;
    doubles::clear_calls();
    EXPECT_EQ(SdwGetNpConfig(), 0);
    EXPECT_EQ(gsdwlpRsc, table);
    EXPECT_TRUE(logged("2|SdwGetNpConfig|resource has already created. (Rsc=" + hex(table) + ")"));
    EXPECT_EQ(doubles::service_calls(), (std::vector<std::string>{
                                            "xmllib_get_value(/root/monitor/sdw/type)",
                                            "xmllib_get_value(/root/monitor/sdw/log/level)",
                                            "xmllib_get_value(/root/monitor/sdw/log/size)",
                                            "xmllib_get_value(/root/cluster/delaywarn/heartbeat)",
                                        }));
}

TEST_F(NpConfigTest, PolicyFailureLeavesNoTable)
{
    configure({{"np1"}});
    doubles::fail_key("/root/monitor/sdw/log/level", 7);
    EXPECT_EQ(SdwGetNpConfig(), 99);
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_TRUE(logged("1|SdwGetNpConfig|SdwGetPolicy() failed. (Ret=0x63)"));
}

}  // namespace
