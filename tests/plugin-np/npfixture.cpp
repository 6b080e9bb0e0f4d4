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

void NpTest::SetUp()
{
    WorldTest::SetUp();
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
}

void NpTest::end_service()
{
    // A test that failed half-way may leave workers: stop them (each stop is bounded).
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        if (gsdwlpRsc[i].thread != nullptr) {
            SdwDestroyMonitor(&gsdwlpRsc[i]);
        }
    }
    if (gsdwInitCount != 0) {
        EXPECT_EQ(UninitNpRscDll("qmtsdw", 0, 0), 0u);
    }
}

void NpTest::init() { ASSERT_EQ(InitNpRscDll("qmtsdw", 0, 0), 0u); }

SDW_RSC *NpTest::rsc(const std::string &name)
{
    SDW_RSC *found = SdwFindRsc(name.c_str());
    EXPECT_NE(found, nullptr) << name;
    return found;
}

}  // namespace nptest

int main(int argc, char **argv)
{
    return doubles::run_tests(argc, argv,
                              {"np1", "np2", "np3", "np4", "np5", "np6", "np7", "np8", "abcdefghijklmnopqrstuvwxyz01234"});
}
