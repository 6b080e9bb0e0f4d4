#include "fixture.h"

#include "qmtrsrc.h"

#include <cstdio>
#include <cstdlib>

// The banner reads the executable's own version resource.
QMT_VERSION_RESOURCE(1, 2, 3, 4, 5, 6, 7, 8);

namespace sdwtest {

void configure(const std::vector<Resource> &resources, int delay_ratio, int log_level, int log_size)
{
    doubles::set_text("/root/monitor/sdw/type", "sdw");
    doubles::set_int("/root/monitor/sdw/log/level", log_level);
    doubles::set_int("/root/monitor/sdw/log/size", log_size);
    doubles::set_int("/root/cluster/delaywarn/monitor", delay_ratio);
    std::vector<std::string> names;
    for (const Resource &r : resources) {
        names.push_back(r.name);
        doubles::set_int("/root/monitor/sdw@" + r.name + "/polling/timeout", r.timeout);
        doubles::set_text("/root/monitor/sdw@" + r.name + "/parameters/object", r.object);
        const std::string guid_key = "/root/resource/sd@" + r.object + "/server@node1/parameters/volumeguid";
        if (r.guid_readable) {
            doubles::set_text(guid_key, r.guid);
        } else {
            doubles::erase_key(guid_key);
        }
    }
    doubles::set_names("/root/monitor/sdw", names);
}

std::vector<std::string> events()
{
    std::vector<std::string> out;
    for (const doubles::Call &c : doubles::calls()) {
        if (c.function == "QmtLogWrite" && c.level == QMTLOG_EVENT) {
            char id[16];
            std::snprintf(id, sizeof id, "%#x", static_cast<unsigned>(c.event));
            out.push_back(std::string(id) + "|" + c.text);
        }
    }
    return out;
}

void PluginTest::SetUp()
{
    doubles::reset();
    qmtp::sim::reset();
    qmtp_fault_clear();
    qmtp_tick_thaw();
    qmtp_tick_set_offset(0);
    handles_at_start_ = qmtp_live_handles();
    allocations_at_start_ = qmtp_live_allocations();
}

void PluginTest::TearDown()
{
    qmtp_fault_clear();
    qmtp_tick_thaw();
    if (gsdwInitCount != 0) {
        uninit();
    }
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_EQ(qmtp_live_handles(), handles_at_start_) << "a handle leaked";
    EXPECT_EQ(qmtp_live_allocations(), allocations_at_start_) << "an allocation leaked";
}

void PluginTest::init() { ASSERT_EQ(InitRscDll("qmtsdw", 0, 0), 0u); }

void PluginTest::uninit() { EXPECT_EQ(UninitRscDll("qmtsdw", 0, 0), 0u); }

}  // namespace sdwtest

namespace {

// The trace log keeps one suppression entry per resource name for the life of the process. They
// are made here, once, for every name the tests use, so that the leak check of each test sees
// only what that test allocated.
class WarmLogEntries : public ::testing::Environment {
public:
    void SetUp() override
    {
        for (const char *name : {"", "sdw1", "sdw2", "sdw3", "r1", "r2", "disk-a",
                                 "abcdefghijklmnopqrstuvwxyz01234"}) {
            SdwWriteLog(name[0] != '\0' ? name : nullptr, QMTLOG_ERROR, __FILE__, __LINE__, "warm", "warm-up");
        }
    }
};

}  // namespace

int main(int argc, char **argv)
{
#ifdef QMT_STORAGE_LINUX
    // The platform picks its storage at first use, from its own environment.
    setenv("QMT_STORAGE", "linux", 1);
#endif
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new WarmLogEntries);
    return RUN_ALL_TESTS();
}
