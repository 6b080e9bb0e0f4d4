// The policy values and the sdw resource table read from the configuration.
#include "fixture.h"

#include <cstring>

using namespace sdwtest;

namespace {

class ConfigTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        std::strcpy(gsdwServerName, "node1");
    }
    void TearDown() override
    {
        SdwFreeTable();
        PluginTest::TearDown();
    }
};

TEST_F(ConfigTest, BuildsOneRecordPerResourceInEnumerationOrder)
{
    configure({{"sdw2", 30, "sdA", "guid-a"}, {"sdw1", 90, "sdB", ""}}, 55, 8, 2000000);
    ASSERT_EQ(SdwGetConfig(), 0);
    ASSERT_EQ(gsdwRscCount, 2u);
    EXPECT_STREQ(gsdwlpRsc[0].name, "sdw2");
    EXPECT_EQ(gsdwlpRsc[0].timeout, 30);
    EXPECT_STREQ(gsdwlpRsc[0].object, "sdA");
    EXPECT_STREQ(gsdwlpRsc[0].volume_guid, "guid-a");
    EXPECT_STREQ(gsdwlpRsc[1].name, "sdw1");
    EXPECT_STREQ(gsdwlpRsc[1].volume_guid, "");
    EXPECT_EQ(gsdwlpRsc[1].interval, 0);
    EXPECT_EQ(gsdwlpRsc[1].mutex, nullptr);
    EXPECT_STREQ(gsdwMonitorType, "sdw");
    EXPECT_EQ(gsdwPolicyLogLevel, 8);
    EXPECT_EQ(gsdwPolicyLogSize, 2000000);
    EXPECT_EQ(gsdwDelayRatio, 55u);
}

TEST_F(ConfigTest, NoResourcesIsUnregistered)
{
    configure({});
    EXPECT_EQ(SdwGetConfig(), 99);
    EXPECT_TRUE(logged("2|SdwGetConfig|Unregistered monitor. (Size=0)"));
    EXPECT_EQ(gsdwlpRsc, nullptr);
}

TEST_F(ConfigTest, OutOfRangeValuesAreReplacedWithAWarning)
{
    configure({{"sdw1", 0}, {"sdw2", -5}}, 101, 4, 999999);
    ASSERT_EQ(SdwGetConfig(), 0);
    EXPECT_EQ(gsdwlpRsc[0].timeout, 300);
    EXPECT_EQ(gsdwlpRsc[1].timeout, 300);
    EXPECT_EQ(gsdwDelayRatio, 80u);
    EXPECT_EQ(gsdwPolicyLogSize, 10000000);
    EXPECT_TRUE(logged("2|SdwGetConfig|Invalid range of polling timeout, set default. (0->300)"));
    EXPECT_TRUE(logged("2|SdwGetConfig|Invalid range of polling timeout, set default. (-5->300)"));
    EXPECT_TRUE(logged("2|SdwGetConfig|Invalid range of delay ratio, set default. (101->80)"));
    EXPECT_TRUE(logged("2|SdwGetPolicy|Invalid range of log size, set default. (999999->10000000)"));
}

TEST_F(ConfigTest, RangeLimitsThemselvesAreKept)
{
    for (int ratio : {0, 100}) {
        for (int size : {1000000, 100000000}) {
            doubles::reset();
            configure({{"sdw1", 1}}, ratio, 4, size);
            ASSERT_EQ(SdwGetConfig(), 0);
            EXPECT_EQ(gsdwDelayRatio, static_cast<uint32_t>(ratio));
            EXPECT_EQ(gsdwPolicyLogSize, size);
            EXPECT_EQ(gsdwlpRsc[0].timeout, 1);
            EXPECT_TRUE(lines_with("Invalid range").empty());
            SdwFreeTable();
        }
    }
    doubles::reset();
    configure({{"sdw1", 1}}, -1, 4, 100000001);
    ASSERT_EQ(SdwGetConfig(), 0);
    EXPECT_EQ(gsdwDelayRatio, 80u) << "a negative ratio is above 100 as unsigned";
    EXPECT_EQ(gsdwPolicyLogSize, 10000000);
}

TEST_F(ConfigTest, LongNamesAreCutTo31AndTheirKeysReadUnderTheFullName)
{
    const std::string longname = "abcdefghijklmnopqrstuvwxyz0123456789";
    configure({{longname, 45}});
    ASSERT_EQ(SdwGetConfig(), 0);
    EXPECT_STREQ(gsdwlpRsc[0].name, "abcdefghijklmnopqrstuvwxyz01234");
    EXPECT_EQ(gsdwlpRsc[0].timeout, 45);
    EXPECT_EQ(SdwFindRsc(longname.c_str()), nullptr);
    EXPECT_EQ(SdwFindRsc("abcdefghijklmnopqrstuvwxyz01234"), &gsdwlpRsc[0]);
}

TEST_F(ConfigTest, AnEmptyObjectFailsTheWholeBuild)
{
    configure({{"sdw1"}, {"sdw2", 60, ""}, {"sdw3"}});
    EXPECT_EQ(SdwGetConfig(), 99);
    EXPECT_TRUE(logged("1|SdwGetConfig|No object. (Val=)"));
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_EQ(gsdwRscCount, 0u);
}

TEST_F(ConfigTest, AnUnreadableTimeoutFailsTheBuildWithTheKeyAndSize)
{
    configure({{"sdw1"}});
    doubles::fail_key("/root/monitor/sdw@sdw1/polling/timeout", 2);
    EXPECT_EQ(SdwGetConfig(), 99);
    EXPECT_TRUE(logged("1|SdwGetConfig|xmllib_get_value() failed. (Ret=0x2 key=/root/monitor/sdw@sdw1/polling/timeout Size=4)"));
    EXPECT_EQ(gsdwlpRsc, nullptr);
}

TEST_F(ConfigTest, AnUnreadableVolumeGuidIsLoggedAndTheBuildGoesOn)
{
    Resource r{"sdw1"};
    r.guid_readable = false;
    configure({r, {"sdw2", 60, "sd2"}});
    ASSERT_EQ(SdwGetConfig(), 0);
    EXPECT_STREQ(gsdwlpRsc[0].volume_guid, "");
    EXPECT_STREQ(gsdwlpRsc[1].volume_guid, "00000000-0000-4000-8000-000000000001");
    EXPECT_EQ(lines_with("key=/root/resource/sd@sd1/server@node1/parameters/volumeguid").size(), 1u);
}

TEST_F(ConfigTest, APolicyReadFailureStopsAtThatKey)
{
    configure({{"sdw1"}});
    doubles::fail_key("/root/monitor/sdw/log/level", 7);
    EXPECT_EQ(SdwGetConfig(), 99);
    const std::vector<std::string> errors = lines_upto(QMTLOG_ERROR);
    const std::vector<std::string> expected = {"1|SdwGetPolicy|xmllib_get_value() failed. (Ret=0x7 key=/root/monitor/sdw/log/level)",
                                               "1|SdwGetConfig|SdwGetPolicy() failed. (Ret=0x63)"};
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(lines_with("|SdwGetPolicy|"), (std::vector<std::string>{"8|SdwGetPolicy|Start - ()", expected[0],
                                                                       "8|SdwGetPolicy|End - (Ret=99)"}));
}

TEST_F(ConfigTest, ASecondBuildRefreshesPolicyAndKeepsTheTable)
{
    configure({{"sdw1"}}, 50);
    ASSERT_EQ(SdwGetConfig(), 0);
    SDW_RSC *table = gsdwlpRsc;
    configure({{"sdw1"}, {"sdw2"}}, 60);
    doubles::clear_calls();
    EXPECT_EQ(SdwGetConfig(), 0);
    EXPECT_EQ(gsdwlpRsc, table);
    EXPECT_EQ(gsdwRscCount, 1u);
    EXPECT_EQ(gsdwDelayRatio, 60u);
    char line[96];
    std::snprintf(line, sizeof line, "2|SdwGetConfig|resource has already created. (Rsc=%#x)", SDW_HDL(table));
    EXPECT_TRUE(logged(line));
}

TEST_F(ConfigTest, EnumerationResultsZeroThreeAndFourCountAsSuccess)
{
    configure({{"sdw1"}});
    doubles::fail("xmllib_enum_value", 9);
    EXPECT_EQ(SdwGetConfig(), 99);
    EXPECT_TRUE(logged("1|SdwGetConfig|xmllib_enum_value() failed. (Ret=0x9 key=/root/monitor/sdw)"));
    doubles::fail("xmllib_enum_value", 3);  // 3 and 4 count as success for the size query
    EXPECT_EQ(SdwGetConfig(), 0);
    EXPECT_EQ(gsdwRscCount, 1u);
}

TEST_F(ConfigTest, ReloadRereadsTheTimeoutUnderTheCutName)
{
    configure({{"sdw1", 60}});
    ASSERT_EQ(SdwGetConfig(), 0);
    doubles::set_int("/root/monitor/sdw@sdw1/polling/timeout", 120);
    EXPECT_EQ(SdwReloadConfig(&gsdwlpRsc[0]), 1);
    EXPECT_EQ(gsdwlpRsc[0].timeout, 120);
    doubles::set_int("/root/monitor/sdw@sdw1/polling/timeout", 0);
    EXPECT_EQ(SdwReloadConfig(&gsdwlpRsc[0]), 1);
    EXPECT_EQ(gsdwlpRsc[0].timeout, 300);
    doubles::erase_key("/root/monitor/sdw@sdw1/polling/timeout");
    EXPECT_EQ(SdwReloadConfig(&gsdwlpRsc[0]), 0);
    EXPECT_EQ(gsdwlpRsc[0].timeout, 300);
    doubles::fail("xmllib_reload_config", 4);
    EXPECT_EQ(SdwReloadConfig(&gsdwlpRsc[0]), 0);
    EXPECT_TRUE(logged("2|SdwReloadConfig|xmllib_reload_config() failed. (Err=0x4)"));
}

}  // namespace
