#include "world.h"

#include <cstdio>

namespace doubles {

void WorldTest::SetUp()
{
    reset();
    qmtp::sim::reset();
    qmtp_fault_clear();
    qmtp_tick_thaw();
    qmtp_tick_set_offset(0);
    handles_at_start_ = qmtp_live_handles();
    allocations_at_start_ = qmtp_live_allocations();
}

void WorldTest::TearDown()
{
    qmtp_fault_clear();
    qmtp_tick_thaw();
    end_service();
    EXPECT_EQ(gsdwInitCount, 0u);
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_EQ(qmtp_live_handles(), handles_at_start_) << "a handle leaked";
    EXPECT_EQ(qmtp_live_allocations(), allocations_at_start_) << "an allocation leaked";
}

bool wait_for(const std::function<bool()> &done, int ms)
{
    for (int waited = 0; waited < ms; waited += 2) {
        if (done()) return true;
        Sleep(2);
    }
    return done();
}

std::string hexnum(unsigned value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%#x", value);
    return text;
}

std::string hex(const void *handle) { return hexnum(SDW_HDL(handle)); }

int run_tests(int argc, char **argv, std::initializer_list<const char *> names)
{
    ::testing::InitGoogleTest(&argc, argv);
    SdwWriteLog(nullptr, QMTLOG_ERROR, __FILE__, __LINE__, "warm", "warm-up");
    for (const char *name : names) SdwWriteLog(name, QMTLOG_ERROR, __FILE__, __LINE__, "warm", "warm-up");
    return RUN_ALL_TESTS();
}

}  // namespace doubles
