// Every key the plug-in reads, answered from the example configuration and policies in etc/.
#include "xml_helpers.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace clustertest;

namespace {

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
    // The order of a disk-monitor initialisation.
    void load_for_sdw()
    {
        ASSERT_EQ(xmllib_init("sdw"), 0);
        ASSERT_EQ(xmllib_load_policy("sdw"), 0);
        ASSERT_EQ(xmllib_load_policy("rm"), 0);
        ASSERT_EQ(xmllib_load_config(1), 0);
    }
    // The order of a network-partition initialisation.
    void load_for_disknp()
    {
        ASSERT_EQ(xmllib_init("sdw"), 0);
        ASSERT_EQ(xmllib_load_policy("sdw"), 0);
        ASSERT_EQ(xmllib_load_policy("disknp"), 0);
        ASSERT_EQ(xmllib_load_policy("nm"), 0);
        ASSERT_EQ(xmllib_load_config(1), 0);
    }
};

TEST_F(EtcConfiguration, PolicyKeysOfTheDiskMonitor)
{
    load_for_sdw();
    Text type = get_text("/root/monitor/sdw/type", 32);
    EXPECT_EQ(type.rc, 0);
    EXPECT_EQ(type.value, "sdw");
    EXPECT_EQ(type.size, 4);
    EXPECT_EQ(get_int("/root/monitor/sdw/log/level").value, 4);
    EXPECT_EQ(get_int("/root/monitor/sdw/log/level").rc, 0);
    EXPECT_EQ(get_int("/root/monitor/sdw/log/size").value, 10000000);
    EXPECT_EQ(get_int("/root/monitor/sdw/log/size").rc, 0);
    EXPECT_EQ(get_text("/root/monitor/rm/type", 32).value, "rm");
}

TEST_F(EtcConfiguration, DiskMonitorResourcesAndTheirKeys)
{
    load_for_sdw();
    EXPECT_EQ(get_int("/root/cluster/delaywarn/monitor").rc, 0);
    EXPECT_EQ(get_int("/root/cluster/delaywarn/monitor").value, 80);

    Names n = enum_names("/root/monitor/sdw");
    EXPECT_EQ(n.size_rc, 0);
    EXPECT_EQ(n.size, 2 * 256);
    EXPECT_EQ(n.fetch_rc, 0);
    EXPECT_EQ(n.names, (std::vector<std::string>{"sdw1", "sdw2"}));

    EXPECT_EQ(get_int("/root/monitor/sdw@sdw1/polling/timeout").value, 60);
    EXPECT_EQ(get_int("/root/monitor/sdw@sdw2/polling/timeout").value, 120);
    Text o1 = get_text("/root/monitor/sdw@sdw1/parameters/object", 32);
    Text o2 = get_text("/root/monitor/sdw@sdw2/parameters/object", 32);
    EXPECT_EQ(o1.rc, 0);
    EXPECT_EQ(o1.value, "sd1");
    EXPECT_EQ(o2.value, "sd2");
    Text g1 = get_text("/root/resource/sd@sd1/server@node1/parameters/volumeguid", 63);
    Text g2 = get_text("/root/resource/sd@sd2/server@node1/parameters/volumeguid", 63);
    EXPECT_EQ(g1.rc, 0);
    EXPECT_EQ(g1.value, "6f1c2d3e-0000-4000-8000-000000000001");
    EXPECT_EQ(g2.rc, 0);
    EXPECT_EQ(g2.value, "6f1c2d3e-0000-4000-8000-000000000002");
    // Another server has no volume for these resources.
    EXPECT_EQ(get_text("/root/resource/sd@sd1/server@node2/parameters/volumeguid", 63).rc,
              XMLLIB_E_NOT_FOUND);
}

TEST_F(EtcConfiguration, NetworkPartitionResourcesAndTheirKeys)
{
    load_for_disknp();
    EXPECT_EQ(get_text("/root/monitor/sdw/type", 32).value, "sdw");
    EXPECT_EQ(get_text("/root/networkpartition/disknp/type", 32).value, "disknp");
    EXPECT_EQ(get_text("/root/networkpartition/nm/type", 32).value, "nm");
    EXPECT_EQ(get_int("/root/cluster/delaywarn/heartbeat").rc, 0);
    EXPECT_EQ(get_int("/root/cluster/delaywarn/heartbeat").value, 80);

    Names n = enum_names("/root/networkpartition/disknp");
    EXPECT_EQ(n.size_rc, 0);
    EXPECT_EQ(n.size, 512);
    EXPECT_EQ(n.names, (std::vector<std::string>{"disknp1", "disknp2"}));

    struct Expect {
        const char *name;
        int timeout, interval, count, device;
        const char *guid;
    } rows[] = {{"disknp1", 30, 10, 3, 0, "6f1c2d3e-0000-4000-8000-000000000003"},
                {"disknp2", 60, 20, 0, 1, "6f1c2d3e-0000-4000-8000-000000000004"}};
    for (const Expect &e : rows) {
        SCOPED_TRACE(e.name);
        std::string base = std::string("/root/networkpartition/disknp@") + e.name;
        EXPECT_EQ(get_int(base + "/timeout").value, e.timeout);
        EXPECT_EQ(get_int(base + "/interval").value, e.interval);
        EXPECT_EQ(get_int(base + "/count").value, e.count);
        Int dev = get_int(base + "/device");
        EXPECT_EQ(dev.rc, 0);
        EXPECT_EQ(dev.value, e.device);
        Text info = get_text("/root/server@node1/device@" + std::to_string(dev.value) + "/info", 63);
        EXPECT_EQ(info.rc, 0);
        EXPECT_EQ(info.value, e.guid);
    }
}

}  // namespace
