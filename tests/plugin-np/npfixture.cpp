#include "npfixture.h"

#include <cstdio>

namespace nptest {

std::string vol(unsigned n)
{
    char text[40];
    std::snprintf(text, sizeof text, "6e700000-0000-0000-0000-%012u", n);
    return text;
}

std::string key_of(const std::string &name, const std::string &item)
{
    return "/root/networkpartition/disknp@" + name + "/" + item;
}

void configure(const std::vector<NpResource> &resources, int delay_ratio)
{
    doubles::set_text("/root/monitor/sdw/type", "sdw");
    doubles::set_int("/root/monitor/sdw/log/level", 4);
    doubles::set_int("/root/monitor/sdw/log/size", 10000000);
    doubles::set_int("/root/cluster/delaywarn/heartbeat", delay_ratio);
    std::vector<std::string> names;
    for (const NpResource &r : resources) {
        names.push_back(r.name);
        doubles::set_int(key_of(r.name, "timeout"), r.timeout);
        doubles::set_int(key_of(r.name, "interval"), r.interval);
        doubles::set_int(key_of(r.name, "count"), r.count);
        doubles::set_int(key_of(r.name, "device"), r.device);
        doubles::set_text("/root/server@node1/device@" + std::to_string(r.device) + "/info", r.guid);
    }
    doubles::set_names("/root/networkpartition/disknp", names);
}

bool wait_for(const std::function<bool()> &done, int ms)
{
    for (int waited = 0; waited < ms; waited += 2) {
        if (done()) {
            return true;
        }
        Sleep(2);
    }
    return done();
}

std::string hex(const void *handle)
{
    char text[32];
    std::snprintf(text, sizeof text, "%#x", SDW_HDL(handle));
    return text;
}

std::string hexnum(unsigned value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%#x", value);
    return text;
}

void NpTest::SetUp()
{
    doubles::reset();
    qmtp::sim::reset();
    qmtp_fault_clear();
    qmtp_tick_thaw();
    qmtp_tick_set_offset(0);
    SdwStore(gsdwTimeoutRatio, 1);
    // The trace log folds repeats per resource for the life of the process: a line of its own
    // for every name makes the first message of this test a new one.
    static int test_number = 0;
    test_number++;
    for (const char *name : {"", "np1", "np2", "np3", "np4", "np5", "np6", "np7", "np8"}) {
        SdwWriteLog(name[0] != '\0' ? name : nullptr, QMTLOG_ERROR, __FILE__, __LINE__, "boundary", "test %d",
                    test_number);
    }
    doubles::clear_calls();
    handles_at_start_ = qmtp_live_handles();
    allocations_at_start_ = qmtp_live_allocations();
}

void NpTest::TearDown()
{
    qmtp_fault_clear();
    qmtp_tick_thaw();
    // A test that failed half-way may leave workers: stop them (each stop is bounded).
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        if (gsdwlpRsc[i].thread != nullptr) {
            SdwDestroyMonitor(&gsdwlpRsc[i]);
        }
    }
    if (gsdwInitCount != 0) {
        EXPECT_EQ(UninitNpRscDll("qmtsdw", 0, 0), 0u);
    }
    EXPECT_EQ(gsdwInitCount, 0u);
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_EQ(qmtp_live_handles(), handles_at_start_) << "a handle leaked";
    EXPECT_EQ(qmtp_live_allocations(), allocations_at_start_) << "an allocation leaked";
}

void NpTest::init() { ASSERT_EQ(InitNpRscDll("qmtsdw", 0, 0), 0u); }

SDW_RSC *NpTest::rsc(const std::string &name)
{
    SDW_RSC *found = SdwFindRsc(name.c_str());
    EXPECT_NE(found, nullptr) << name;
    return found;
}

}  // namespace nptest

namespace {

// The trace log keeps one suppression entry per resource name for the life of the process; they
// are made here, once, so that the leak check of each test sees only what the test allocated.
class WarmLogEntries : public ::testing::Environment {
public:
    void SetUp() override
    {
        for (const char *name : {"", "np1", "np2", "np3", "np4", "np5", "np6", "np7", "np8",
                                 "abcdefghijklmnopqrstuvwxyz01234"}) {
            SdwWriteLog(name[0] != '\0' ? name : nullptr, QMTLOG_ERROR, __FILE__, __LINE__, "warm", "warm-up");
        }
    }
};

}  // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new WarmLogEntries);
    return RUN_ALL_TESTS();
}
