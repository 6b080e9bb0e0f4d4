// Volume-to-disk resolution and the timed disk check, on simulated disks.
#include "fixture.h"

#include <atomic>
#include <cstring>
#include <thread>

using namespace sdwtest;
using qmtp::sim::Behaviour;

namespace {

class DiskCheckTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        std::memset(&rsc_, 0, sizeof rsc_);
        std::strcpy(rsc_.name, "disk-a");
        std::strcpy(rsc_.volume_guid, "00000000-0000-4000-8000-000000000001");
        rsc_.timeout = 60;
        rsc_.mutex = CreateMutexA(nullptr, FALSE, nullptr);
        std::strcpy(gsdwMonitorType, "sdw");
        gsdwDelayRatio = 80;
        qmtp::sim::set_volume("00000000-0000-4000-8000-000000000001", {0});
        qmtp::sim::set_volume("00000000-0000-4000-8000-000000000003", {4, 2, 7});
        for (DWORD d : {0u, 2u, 4u, 7u}) qmtp::sim::set_disk(d, {});
        doubles::clear_calls();
    }
    void TearDown() override
    {
        EXPECT_EQ(rsc_.extents, nullptr);
        EXPECT_EQ(rsc_.device_handles, nullptr);
        CloseHandle(rsc_.mutex);
        PluginTest::TearDown();
    }
    // Runs one check whose single probe answers exactly `elapsed` ms after it was issued, by the
    // tick: the clock stands still while the disk hangs, then moves and the disk answers.
    int32_t check_answering_after(DWORD elapsed)
    {
        qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
        qmtp_tick_freeze(5000);
        std::atomic<int32_t> status{-1};
        std::thread check([&] { status = SdwMonitor(&rsc_); });
        while (qmtp::sim::pending_count(0) == 0) Sleep(1);
        qmtp_tick_freeze(5000 + elapsed);
        qmtp::sim::release(0);
        check.join();
        qmtp_tick_thaw();
        return status.load();
    }
    SDW_RSC rsc_;
};

// One extent fits the first request; three take a second one sized from the count.
TEST_F(DiskCheckTest, VolumesResolveToTheirDisksInExtentOrder)
{
    const std::string vol = "Volume->\\\\?\\Volume{00000000-0000-4000-8000-00000000000";
    const struct {
        const char *guid;
        unsigned requests;
        std::vector<std::string> lines;
    } cases[] = {
        {"00000000-0000-4000-8000-000000000001", 1, {"4|SdwGetLUN|Name=disk-a " + vol + "1} LUN->0"}},
        {"00000000-0000-4000-8000-000000000003", 2,
         {"4|SdwGetLUN|DiskExtents=3 Size=80", "4|SdwGetLUN|Name=disk-a " + vol + "3} LUN->4",
          "4|SdwGetLUN|Name=disk-a " + vol + "3} LUN->2", "4|SdwGetLUN|Name=disk-a " + vol + "3} LUN->7"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.guid);
        doubles::clear_calls();
        qmtp_fault_clear();  // resets the call counters
        ASSERT_EQ(SdwGetLUN(&rsc_, c.guid), 0);
        EXPECT_EQ(qmtp_call_count("DeviceIoControl"), c.requests);
        EXPECT_EQ(lines_upto(QMTLOG_INFO), c.lines);
        GlobalFree(rsc_.extents);
        rsc_.extents = nullptr;
    }
}

TEST_F(DiskCheckTest, ResolutionFailuresLeaveNoBuffer)
{
    EXPECT_EQ(SdwGetLUN(&rsc_, "nope"), 1);
    EXPECT_TRUE(logged("1|SdwGetLUN|CreateFile() failed. (Name=disk-a Path=\\\\?\\Volume{nope} Err=2)"));
    EXPECT_EQ(rsc_.extents, nullptr);

    qmtp::sim::set_volume_extents_error("00000000-0000-4000-8000-000000000001", 1);
    EXPECT_EQ(SdwGetLUN(&rsc_, "00000000-0000-4000-8000-000000000001"), 5);
    EXPECT_TRUE(logged("1|SdwGetLUN|DeviceIoControl() failed. (Name=disk-a Err=1)"));
    EXPECT_EQ(rsc_.extents, nullptr);
    qmtp::sim::set_volume_extents_error("00000000-0000-4000-8000-000000000001", 0);

    qmtp_fault_set("GlobalAlloc", 1, 8);
    EXPECT_EQ(SdwGetLUN(&rsc_, "00000000-0000-4000-8000-000000000001"), 7);
    EXPECT_TRUE(logged("1|SdwGetLUN|MEMALLOC() failed. (Name=disk-a Err=8)"));
    qmtp_fault_set("GlobalAlloc", 2, 8);  // the second, larger buffer
    EXPECT_EQ(SdwGetLUN(&rsc_, "00000000-0000-4000-8000-000000000003"), 7);
    qmtp_fault_set("DeviceIoControl", 2, 1117);
    EXPECT_EQ(SdwGetLUN(&rsc_, "00000000-0000-4000-8000-000000000003"), 5);
    EXPECT_TRUE(logged("1|SdwGetLUN|DeviceIoControl() failed. (Name=disk-a Err=1117)"));
    EXPECT_EQ(rsc_.extents, nullptr);
}

TEST_F(DiskCheckTest, ACallWithExtentsAlreadySetDoesNoIo)
{
    auto *old = static_cast<VOLUME_DISK_EXTENTS *>(GlobalAlloc(GPTR, 32));
    rsc_.extents = old;
    qmtp_fault_clear();
    EXPECT_EQ(SdwGetLUN(&rsc_, "00000000-0000-4000-8000-000000000001"), 0);
    EXPECT_EQ(rsc_.extents, old);
    EXPECT_EQ(qmtp_call_count("CreateFileA"), 0u);
    EXPECT_EQ(lines_like("*|SdwGetLUN|Invalid seaquence, not NULL. (Name=disk-a Vol=*)").size(), 1u);
    GlobalFree(old);
    rsc_.extents = nullptr;
}

TEST_F(DiskCheckTest, HealthyCheckReportsProgressAndWritesNoEvent)
{
    EXPECT_EQ(SdwMonitor(&rsc_), 0);
    EXPECT_EQ(doubles::progress("sdw", "disk-a"), (std::vector<int>{3, 4}));
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(lines_like("8|SdwMonitor|*** I/O start. (Name=disk-a Hdl=* LUN=0 Tick=* Time=60sec)").size(), 1u);
    EXPECT_EQ(lines_like("8|SdwMonitor|*** I/O end. (Name=disk-a Hdl=* LUN=0 Tick=* Time=60sec)").size(), 1u);
    EXPECT_TRUE(lines_with("I/O pending").empty()) << "an at-once answer has no pending lines";
    EXPECT_TRUE(lines_with("Result of overLapped").empty());
    EXPECT_EQ(gsdwTimeoutRatio, 1);
}

TEST_F(DiskCheckTest, PendingProbeWritesTheSevenResultLines)
{
    qmtp::sim::set_disk(0, {Behaviour::Delay, 20, 0});
    EXPECT_EQ(SdwMonitor(&rsc_), 0);
    const std::vector<std::string> result = lines_with("*** Result of overLapped");
    ASSERT_EQ(result.size(), 7u);
    EXPECT_EQ(result[0], "8|SdwMonitor|*** Result of overLapped (Name=disk-a TransByts=0 LUN=0)");
    EXPECT_EQ(result[2], "8|SdwMonitor|*** Result of overLapped (Name=disk-a Offset=0 LUN=0)");
    EXPECT_EQ(result[4], "8|SdwMonitor|*** Result of overLapped (Name=disk-a Internal=0 LUN=0)");
    EXPECT_EQ(result[6], result[0]);
    EXPECT_EQ(lines_like("8|SdwMonitor|I/O pending. (Name=disk-a Hdl=* LUN=0 Time=60sec)").size(), 1u);
    EXPECT_EQ(lines_like("8|SdwMonitor|I/O pending completed. (Name=disk-a Hdl=* LUN=0)").size(), 1u);
}

TEST_F(DiskCheckTest, DelayRatioZeroMakesEveryAnswerLate)
{
    gsdwDelayRatio = 0;
    doubles::set_ratio(0);  // below 1: taken as 1
    EXPECT_EQ(SdwMonitor(&rsc_), 0);
    const std::vector<std::string> ev = events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].substr(0, 19), "0x80000e43|disk-a60");
    EXPECT_EQ(lines_like("2|SdwMonitor|Delayed. (Name=disk-a DelayTime=0msec Time=* LUN=0)").size(), 1u);
    EXPECT_EQ(gsdwTimeoutRatio, 1);
}

TEST_F(DiskCheckTest, ThresholdFollowsDoublePrecisionArithmetic)
{
    // 29 / 100.0 * 100 * 1000 is 28999.99..., so D is 28999, not 29000.
    gsdwDelayRatio = 29;
    rsc_.timeout = 50;
    doubles::set_ratio(2);
    EXPECT_EQ(check_answering_after(28998), 0);
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(check_answering_after(28999), 0);
    EXPECT_EQ(events().size(), 1u);
    EXPECT_EQ(gsdwTimeoutRatio, 2);
    EXPECT_EQ(lines_like("2|SdwMonitor|Delayed. (Name=disk-a DelayTime=28999msec Time=28999(33999-5000)msec LUN=0)").size(), 1u);
    EXPECT_EQ(lines_with("Time=100sec").size(), 6u);  // I/O start, pending and end of both checks
}

TEST_F(DiskCheckTest, ProbeAcrossTheTickWrapIsTimedCorrectly)
{
    rsc_.timeout = 1;  // D = 800 ms
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    qmtp_tick_freeze(0xFFFFFF00u);
    std::thread check([&] { SdwMonitor(&rsc_); });
    while (qmtp::sim::pending_count(0) == 0) Sleep(1);
    qmtp_tick_freeze(0x00000100u);  // 512 ms later, past the wrap
    qmtp::sim::release(0);
    check.join();
    qmtp_tick_thaw();
    EXPECT_TRUE(events().empty()) << "512 ms is below the 800 ms threshold";
    EXPECT_TRUE(logged("2|SdwMonitor|Renew slowest lap. (Name=disk-a SlowestLap=0msec->512msec)"));
    EXPECT_EQ(rsc_.mon_tick, 512u);
}

// A check that fails or whose reporting fails: its status, its line, what it reported and the
// events it wrote. A refusal on the first disk ends the check there; an unopened disk or an
// unresolved volume is 4, reported to nobody; a failed start report is 190, a failed end report or
// ratio only logged.
TEST_F(DiskCheckTest, FailuresGiveTheirStatusLineProgressAndEvents)
{
    const char *three = "00000000-0000-4000-8000-000000000003";
    struct Case {
        const char *guid;
        DWORD disk;
        qmtp::sim::DiskState behaviour;
        const char *failing_call;
        int32_t status;
        std::string line;
        std::vector<int> progress;
        std::vector<std::string> events;
        int ratio = 5;  // a failed read of the ratio leaves the module's own value
    };
    const Case cases[] = {
        {three, 4, {Behaviour::Refuse, 0, 21}, nullptr, 5, "1|SdwMonitor|DeviceIoControl(0x2d4800) failed. (Name=disk-a Hdl=* LUN=4 Err=21)",
         {3, 4}, {"0xc0000e44|disk-a"}},
        {nullptr, 0, {Behaviour::Fail, 5, 1117}, nullptr, 5, "1|SdwMonitor|GetOverlappedResult() failed. (Name=disk-a Hdl=* LUN=0 TransByts=0 Err=1117)",
         {3, 4}, {"0xc0000e44|disk-a"}},
        {three, 2, {Behaviour::OpenFail, 0, 5}, nullptr, 4,
         "1|SdwMonitor|CreateFile() failed. (Name=disk-a Dev=\\\\.\\PHYSICALDRIVE2 Err=5)", {}, {}},
        {"gone", 0, {}, nullptr, 4, "1|SdwMonitor|SdwGetLUN() failed. (Name=disk-a Ret=1)", {}, {}},
        {nullptr, 0, {}, "shmrm_setmonprogress", 190,
         "2|SdwMonitor|shmrm_setmonprogress() QMT_DOMONTR_MONSTART failed. (Name=disk-a, Err=3)", {}, {}},
        {nullptr, 0, {}, "shmrm_setmonprogress(sdw|disk-a|4)", 0,
         "2|SdwMonitor|shmrm_setmonprogress() QMT_DOMONTR_MONEND failed. (Name=disk-a, Err=3)", {3}, {}},
        {nullptr, 0, {}, "shmcm_getratio", 0, "2|SdwMonitor|shmcm_getratio() failed. (Ret=3)", {3, 4}, {}, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        doubles::reset();
        for (DWORD d : {0u, 2u, 4u, 7u}) qmtp::sim::set_disk(d, {});
        qmtp::sim::set_disk(c.disk, c.behaviour);
        std::strcpy(rsc_.volume_guid, c.guid ? c.guid : "00000000-0000-4000-8000-000000000001");
        rsc_.result = 0;
        doubles::set_ratio(5);
        if (c.failing_call) doubles::fail(c.failing_call, 3);
        EXPECT_EQ(SdwMonitor(&rsc_), c.status);
        EXPECT_EQ(lines_like(c.line).size(), 1u);
        EXPECT_EQ(doubles::progress("sdw", "disk-a"), c.progress);
        EXPECT_EQ(events(), c.events);
        EXPECT_EQ(gsdwTimeoutRatio, c.ratio);
    }
    EXPECT_EQ(qmtp::sim::probe_count(2), 0u) << "after a refusal the next disk is not probed";
}

TEST_F(DiskCheckTest, StateChangeEventsFollowTheStoredStatus)
{
    struct Case {
        int32_t last;
        Behaviour now;
        std::vector<std::string> events;
        bool normary;
    };
    const std::vector<Case> cases = {
        {0, Behaviour::Refuse, {"0xc0000e44|disk-a"}, false},
        {5, Behaviour::Refuse, {}, false},
        {5, Behaviour::Ok, {"0x40000e45|disk-a"}, true},
        {4, Behaviour::Ok, {"0x40000e45|disk-a"}, true},
        {100, Behaviour::Ok, {}, true},
        {190, Behaviour::Ok, {}, true},
        {0, Behaviour::Ok, {}, false},
    };
    for (const Case &c : cases) {
        doubles::clear_calls();
        rsc_.result = c.last;
        qmtp::sim::set_disk(0, {c.now, 0, 21});
        SdwMonitor(&rsc_);
        EXPECT_EQ(events(), c.events) << "last " << c.last;
        EXPECT_EQ(lines_with("Changed normary. (Name=disk-a LastStatus=" + std::to_string(c.last) + ")").size(),
                  c.normary ? 1u : 0u)
            << "last " << c.last;
    }
}

TEST_F(DiskCheckTest, HungDiskHoldsTheCheckUntilReleased)
{
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    std::atomic<bool> done{false};
    std::thread check([&] {
        EXPECT_EQ(SdwMonitor(&rsc_), 0);
        done = true;
    });
    while (qmtp::sim::pending_count(0) == 0) Sleep(1);
    Sleep(100);
    EXPECT_FALSE(done.load()) << "no limit on the wait of its own";
    qmtp::sim::release(0);
    check.join();
    EXPECT_TRUE(done.load());
}

TEST_F(DiskCheckTest, FailedWaitCancelsAndReapsTheProbeBeforeItsBlockGoes)
{
    // Each wait of the check fails in turn until the probe's own is hit; the disk answers late
    // enough for its probe to be pending, and early enough that a missed wait costs little.
    qmtp::sim::set_disk(0, {Behaviour::Delay, 30, 0});
    bool hit = false;
    for (unsigned n = 1; n <= 64 && !hit; n++) {
        qmtp_fault_clear();
        qmtp_fault_set("WaitForSingleObject", n, 6);
        doubles::clear_calls();
        hit = SdwMonitor(&rsc_) == 100;
    }
    ASSERT_TRUE(hit);
    EXPECT_EQ(lines_like("2|SdwMonitor|I/O pending failed. (Name=disk-a Hdl=* LUN=0 Err=6)").size(), 1u);
    EXPECT_EQ(lines_with("I/O pending failed.").size(), 1u);
    EXPECT_EQ(qmtp_call_count("CancelIo"), 1u);
    EXPECT_EQ(qmtp_call_count("GetOverlappedResult"), 1u) << "the cancelled request is reaped";
    // The device still finishes the request it was given, and nothing of the check is touched.
    while (qmtp::sim::pending_count(0) != 0) Sleep(1);
}

TEST_F(DiskCheckTest, EveryAllocationAndHandleFailingInTurnLeaksNothing)
{
    std::strcpy(rsc_.volume_guid, "00000000-0000-4000-8000-000000000003");
    for (const char *function : {"CreateEventA", "GlobalAlloc", "CreateFileA", "DeviceIoControl", "ResetEvent"}) {
        qmtp_fault_clear();
        SdwMonitor(&rsc_);
        const unsigned calls = qmtp_call_count(function);
        ASSERT_GT(calls, 0u) << function;
        for (unsigned n = 1; n <= calls; n++) {
            qmtp_fault_clear();
            qmtp_fault_set(function, n, 8);
            SdwMonitor(&rsc_);
            EXPECT_EQ(rsc_.extents, nullptr) << function << " #" << n;
            EXPECT_EQ(rsc_.device_handles, nullptr) << function << " #" << n;
            EXPECT_EQ(qmtp_live_handles(), handles_at_start_ + 1) << function << " #" << n;  // + the record lock
        }
    }
    qmtp_fault_clear();
    qmtp_fault_set("CreateEventA", 1, 8);
    EXPECT_EQ(SdwMonitor(&rsc_), 190);
    EXPECT_TRUE(logged("2|SdwMonitor|CreateEvent() failed. (Name=disk-a Err=8)"));
}

}  // namespace
