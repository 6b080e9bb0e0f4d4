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

// The limits themselves are kept; a value outside is replaced by its default with a warning (a
// negative ratio is above 100 as unsigned).
TEST_F(ConfigTest, ValuesOutsideTheirRangeAreReplacedWithAWarning)
{
    struct Case {
        int timeout, ratio, size;
        int want_timeout, want_ratio, want_size;
        std::vector<std::string> warnings;
    };
    const Case cases[] = {
        {1, 0, 1000000, 1, 0, 1000000, {}},
        {1, 100, 100000000, 1, 100, 100000000, {}},
        {0, 101, 999999, 300, 80, 10000000,
         {"2|SdwGetPolicy|Invalid range of log size, set default. (999999->10000000)",
          "2|SdwGetConfig|Invalid range of delay ratio, set default. (101->80)",
          "2|SdwGetConfig|Invalid range of polling timeout, set default. (0->300)"}},
        {-5, -1, 100000001, 300, 80, 10000000,
         {"2|SdwGetPolicy|Invalid range of log size, set default. (100000001->10000000)",
          "2|SdwGetConfig|Invalid range of delay ratio, set default. (-1->80)",
          "2|SdwGetConfig|Invalid range of polling timeout, set default. (-5->300)"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.timeout);
        doubles::reset();
        configure({{"sdw1", c.timeout}}, c.ratio, 4, c.size);
        ASSERT_EQ(SdwGetConfig(), 0);
        EXPECT_EQ(gsdwlpRsc[0].timeout, c.want_timeout);
        EXPECT_EQ(gsdwDelayRatio, static_cast<uint32_t>(c.want_ratio));
        EXPECT_EQ(gsdwPolicyLogSize, c.want_size);
        EXPECT_EQ(lines_upto(QMTLOG_WARNING), c.warnings);
        SdwFreeTable();
    }
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

// A build that fails leaves no table and says why, in one exact line.
TEST_F(ConfigTest, EveryFailedBuildNamesItsCauseAndLeavesNoTable)
{
    struct Case {
        std::vector<Resource> resources;
        const char *failing_key, *failing_call;
        int result;
        const char *line;
    };
    const Case cases[] = {
        {{}, nullptr, nullptr, 0, "2|SdwGetConfig|Unregistered monitor. (Size=0)"},
        {{{"sdw1"}, {"sdw2", 60, ""}, {"sdw3"}}, nullptr, nullptr, 0, "1|SdwGetConfig|No object. (Val=)"},
        {{{"sdw1"}}, "/root/monitor/sdw@sdw1/polling/timeout", nullptr, 2,
         "1|SdwGetConfig|xmllib_get_value() failed. (Ret=0x2 key=/root/monitor/sdw@sdw1/polling/timeout Size=4)"},
        {{{"sdw1"}}, nullptr, "xmllib_enum_value", 9,
         "1|SdwGetConfig|xmllib_enum_value() failed. (Ret=0x9 key=/root/monitor/sdw)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        doubles::reset();
        configure(c.resources);
        if (c.failing_key) doubles::fail_key(c.failing_key, c.result);
        if (c.failing_call) doubles::fail(c.failing_call, c.result);
        EXPECT_EQ(SdwGetConfig(), 99);
        EXPECT_TRUE(logged(c.line));
        EXPECT_EQ(gsdwlpRsc, nullptr);
        EXPECT_EQ(gsdwRscCount, 0u);
    }
    // The counting call's results 3 and 4 count as success.
    doubles::fail("xmllib_enum_value", 3);
    EXPECT_EQ(SdwGetConfig(), 0);
    EXPECT_EQ(gsdwRscCount, 1u);
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
    EXPECT_TRUE(logged("2|SdwGetConfig|resource has already created. (Rsc=" + doubles::hex(table) + ")"));
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
