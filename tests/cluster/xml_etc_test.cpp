// Every key the plug-in reads, answered from the example configuration and policies in etc/.
#include "xml_helpers.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace clustertest;

namespace {

constexpr int kInt = 0;  // in place of a text capacity: the key is read as a whole number

struct Answer {
    std::string key;
    int capacity;  // the plug-in's buffer for a text
    std::string value;  // or "error N"
};

class EtcConfiguration : public ::testing::Test {
protected:
    void SetUp() override { setenv("QMT_CONF_DIR", QMT_TEST_ETC_DIR, 1); }
    void TearDown() override
    {
        xmllib_unload_config();
        for (const char *t : {"nm", "disknp", "rm", "sdw"})
            xmllib_unload_policy(t);
        xmllib_term();
        unsetenv("QMT_CONF_DIR");
    }
    // The policies in the order the plug-in loads them, then the configuration.
    static void load(std::initializer_list<const char *> policies)
    {
        ASSERT_EQ(xmllib_init("sdw"), 0);
        for (const char *p : policies)
            ASSERT_EQ(xmllib_load_policy(p), 0) << p;
        ASSERT_EQ(xmllib_load_config(1), 0);
    }
    static void expect(const std::vector<Answer> &answers)
    {
        for (const Answer &a : answers) {
            int rc = 0;
            std::string value;
            if (a.capacity == kInt) {
                Int v = get_int(a.key);
                rc = v.rc;
                value = std::to_string(v.value);
            } else {
                Text t = get_text(a.key, a.capacity);
                rc = t.rc;
                value = t.value;
            }
            EXPECT_EQ(rc == 0 ? value : "error " + std::to_string(rc), a.value) << a.key;
        }
    }
};

TEST_F(EtcConfiguration, KeysOfTheDiskMonitor)
{
    load({"sdw", "rm"});
    EXPECT_EQ(enum_names("/root/monitor/sdw").names, (std::vector<std::string>{"sdw1", "sdw2"}));
    expect({
        {"/root/monitor/sdw/type", 32, "sdw"},
        {"/root/monitor/sdw/log/level", kInt, "4"},
        {"/root/monitor/sdw/log/size", kInt, "10000000"},
        {"/root/monitor/rm/type", 32, "rm"},
        {"/root/cluster/delaywarn/monitor", kInt, "80"},
        {"/root/monitor/sdw@sdw1/polling/timeout", kInt, "60"},
        {"/root/monitor/sdw@sdw2/polling/timeout", kInt, "120"},
        {"/root/monitor/sdw@sdw1/parameters/object", 32, "sd1"},
        {"/root/monitor/sdw@sdw2/parameters/object", 32, "sd2"},
        {"/root/resource/sd@sd1/server@node1/parameters/volumeguid", 63, "6f1c2d3e-0000-4000-8000-000000000001"},
        {"/root/resource/sd@sd2/server@node1/parameters/volumeguid", 63, "6f1c2d3e-0000-4000-8000-000000000002"},
        // Another server has no volume for these resources.
        {"/root/resource/sd@sd1/server@node2/parameters/volumeguid", 63, "error 1168"},
    });
}

TEST_F(EtcConfiguration, KeysOfTheNetworkPartitionResources)
{
    load({"sdw", "disknp", "nm"});
    EXPECT_EQ(enum_names("/root/networkpartition/disknp").names, (std::vector<std::string>{"disknp1", "disknp2"}));
    expect({
        {"/root/monitor/sdw/type", 32, "sdw"},
        {"/root/networkpartition/disknp/type", 32, "disknp"},
        {"/root/networkpartition/nm/type", 32, "nm"},
        {"/root/cluster/delaywarn/heartbeat", kInt, "80"},
        {"/root/networkpartition/disknp@disknp1/timeout", kInt, "30"},
        {"/root/networkpartition/disknp@disknp1/interval", kInt, "10"},
        {"/root/networkpartition/disknp@disknp1/count", kInt, "3"},
        {"/root/networkpartition/disknp@disknp1/device", kInt, "0"},
        {"/root/networkpartition/disknp@disknp2/timeout", kInt, "60"},
        {"/root/networkpartition/disknp@disknp2/interval", kInt, "20"},
        {"/root/networkpartition/disknp@disknp2/count", kInt, "0"},
        {"/root/networkpartition/disknp@disknp2/device", kInt, "1"},
        {"/root/server@node1/device@0/info", 63, "6f1c2d3e-0000-4000-8000-000000000003"},
        {"/root/server@node1/device@1/info", 63, "6f1c2d3e-0000-4000-8000-000000000004"},
    });
}

}  // namespace
