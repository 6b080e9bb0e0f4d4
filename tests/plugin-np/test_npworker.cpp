// The disknp worker: its cycle and check points, probing, retries, time-outs, stall detection
// by the status query, and how it ends.
#include "npfixture.h"

using namespace nptest;
using qmtp::sim::Behaviour;

namespace {

class NpWorkerTest : public NpTest {
protected:
    void SetUp() override
    {
        NpTest::SetUp();
        qmtp::sim::set_volume(vol(0), {0});
        qmtp::sim::set_disk(0, {});
    }
    void setup(const NpResource &r)
    {
        configure({r});
        init();
        r_ = rsc(r.name);
    }
    SDW_RSC *r_ = nullptr;
};

TEST_F(NpWorkerTest, CheckPointsFollowTheCycle)
{
    // Each state is held where the worker takes its record lock: the test owns that lock at the
    // right moments. Preparing takes it only on a failure, here an unresolved volume, and only
    // after the cycle's start tick was stored under the same lock: a second mutex, swapped in
    // while the worker waits for the first, holds it there.
    qmtp::sim::remove_volume(vol(0));
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    setup({"np1", 30, 1, 0, 0, vol(0)});
    HANDLE first = CreateMutexA(nullptr, TRUE, nullptr);
    HANDLE second = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    r_->mutex = first;
    std::vector<int> seen;

    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return !lines_with("Start - (Name=np1 Hdl=").empty(); }, 3000));
    seen.push_back(checkpoint("np1"));  // Starting, held in its first accessor
    ASSERT_TRUE(ReleaseMutex(first));
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1; }, 3000));
    seen.push_back(checkpoint("np1"));  // Waiting for the timer
    ASSERT_EQ(WaitForSingleObject(first, 3000), WAIT_OBJECT_0);
    const std::string lock_line = "32|SdwMutexLock|Start - (Hdl=" + hex(first).substr(2) + " Timeout=10000)";
    ASSERT_TRUE(wait_for(
        [&] {
            const std::vector<std::string> lines = doubles::log_lines();
            return logged("16|SdwNpMonitor|WaitForMultipleObjects(Interval) completed. (Name=np1)") && lines.back() == lock_line;
        },
        3000));
    r_->mutex = second;
    ASSERT_TRUE(ReleaseMutex(first));
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 2; }, 3000));
    seen.push_back(checkpoint("np1"));  // Preparing, held in storing the failure
    qmtp::sim::set_volume(vol(0), {0});
    ASSERT_TRUE(ReleaseMutex(second));
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 3; }, 3000));
    seen.push_back(checkpoint("np1"));  // Probing, held by the hung disk
    EXPECT_NE(SdwGetMonTick(r_), 0u);
    ASSERT_EQ(WaitForSingleObject(second, 3000), WAIT_OBJECT_0);
    // Probing is set before the probe goes out: release it only once the disk holds it.
    ASSERT_TRUE(wait_for([&] { return qmtp::sim::pending_count(0) == 1; }, 3000));
    qmtp::sim::release(0);
    const bool evaluating = wait_for([&] { return checkpoint("np1") == 4; }, 3000);
    seen.push_back(checkpoint("np1"));  // Evaluating, held in reading the start tick
    ASSERT_TRUE(ReleaseMutex(second));
    ASSERT_TRUE(evaluating);
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1; }, 3000));
    seen.push_back(checkpoint("np1"));
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4, 1}));
    EXPECT_EQ(SdwLoad(r_->result), 0);
    EXPECT_EQ(SdwGetMonTick(r_), 0u);

    ASSERT_EQ(stop("np1"), 0u);
    EXPECT_EQ(checkpoint("np1"), 0);
    EXPECT_EQ(r_->device_handles, nullptr);
    EXPECT_EQ(r_->extents, nullptr);
    // The first mutex stayed with the worker, which has ended.
    EXPECT_TRUE(CloseHandle(first));
}

TEST_F(NpWorkerTest, FirstCycleComesAfterOneSecondAndProbesDiskAfterDisk)
{
    qmtp::sim::set_volume(vol(0), {0, 1});
    qmtp::sim::set_disk(1, {Behaviour::Delay, 20, 0});
    setup({"np1", 5, 1, 0, 0, vol(0)});
    const DWORD started = GetTickCount();
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return qmtp::sim::probe_count(1) == 1; }, 3000));
    const DWORD first = GetTickCount() - started;
    EXPECT_GE(first, 900u);
    EXPECT_LT(first, 2500u);
    EXPECT_EQ(qmtp::sim::probe_count(0), 1u);
    EXPECT_EQ(lines_like("8|SdwNpMonitor|*** I/O start. (Name=np1 Hdl=* LUN=0 Tick=* Time=5sec)").size(), 1u);
    EXPECT_EQ(lines_like("8|SdwNpMonitor|*** I/O start. (Name=np1 Hdl=* LUN=1 Tick=* Time=5sec)").size(), 1u);
    EXPECT_TRUE(logged("16|SdwNpMonitor|WaitForMultipleObjects(Interval) completed. (Name=np1)"));
    // Disk 1 answers after 20 ms: the first lap is the slowest so far.
    EXPECT_TRUE(wait_for([&] { return !lines_like("2|SdwNpMonitor|Renew slowest lap. (Name=np1 SlowestLap=0msec->*msec)").empty(); },
                         1000));

    // A refusal on the first disk ends the cycle there.
    qmtp::sim::set_disk(0, {Behaviour::Refuse, 0, 21});
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 5; }, 3000));
    EXPECT_EQ(qmtp::sim::probe_count(0), 2u);
    EXPECT_EQ(qmtp::sim::probe_count(1), 1u);
    EXPECT_EQ(lines_like("1|SdwNpMonitor|DeviceIoControl() failed. (Name=np1 Hdl=* LUN=0 Err=21)").size(), 1u);
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, FailuresAreRetriedBeforeTheyAreStored)
{
    setup({"np1", 5, 1, 2, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Refuse, 0, 21});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 5; }, 5000));
    EXPECT_EQ(qmtp::sim::probe_count(0), 3u);
    EXPECT_EQ(lines_with("Will be retry."), (std::vector<std::string>{"8|SdwNpMonitor|Will be retry. (Name=np1 Retry=1/2)",
                                                                      "8|SdwNpMonitor|Will be retry. (Name=np1 Retry=2/2)"}));
    // The third failure was stored after the second retry.
    EXPECT_LT(line_index("8|SdwNpMonitor|Will be retry. (Name=np1 Retry=2/2)"),
              line_index("32|SdwSetResult|Start - (Status=5 Name=np1)"));
    // One good cycle clears the failure and the counter.
    qmtp::sim::set_disk(0, {});
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 0; }, 3000));
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, HungProbeStores90AtOnceAndWaitsForTheDisk)
{
    setup({"np1", 1, 1, 2, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 90; }, 4000));
    HANDLE disk = r_->device_handles[0];
    // 90 is stored first, the time-out line follows it.
    EXPECT_TRUE(wait_for([&] { return logged("1|SdwNpMonitor|I/O pending timeout. (Name=np1 Hdl=" + hex(disk) + " LUN=0 Timeout=1)"); },
                         2000));
    // Still waiting for the disk: in Probing, with the cycle's start tick.
    Sleep(300);
    EXPECT_EQ(checkpoint("np1"), 3);
    EXPECT_NE(SdwGetMonTick(r_), 0u);
    EXPECT_EQ(qmtp::sim::pending_count(0), 1u);
    EXPECT_TRUE(lines_with("I/O pending completed(timeout)").empty());

    qmtp::sim::release(0);
    ASSERT_TRUE(wait_for([&] { return !lines_with("Will be retry.").empty(); }, 2000));
    // Released about 1.3 s after the start.
    EXPECT_EQ(lines_like("1|SdwNpMonitor|I/O pending completed(timeout). (Name=np1 Ret=1 Err=* Time=1sec)").size(), 1u);
    EXPECT_EQ(lines_with("I/O pending completed(timeout)").size(), 1u);
    EXPECT_EQ(lines_with("Will be retry."), (std::vector<std::string>{"8|SdwNpMonitor|Will be retry. (Name=np1 Retry=1/2)"}));
    EXPECT_EQ(SdwLoad(r_->result), 90);

    qmtp::sim::set_disk(0, {});
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 0; }, 3000));
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, FailedOpenStoresFourAndReopensOnlyTheMissingSlot)
{
    qmtp::sim::set_volume(vol(0), {0, 1});
    qmtp::sim::set_disk(1, {Behaviour::OpenFail, 0, 2});
    setup({"np1", 5, 1, 5, 0, vol(0)});
    qmtp_fault_clear();
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 4; }, 3000));
    EXPECT_EQ(qmtp_call_count("CreateFileA"), 3u);  // the volume, disk 0, disk 1
    // The status is stored first, its line follows.
    EXPECT_TRUE(wait_for([&] { return logged("1|SdwNpMonitor|CreateFile() failed. (Name=np1 Dev=\\\\.\\PHYSICALDRIVE1 Err=2)"); }, 2000));
    EXPECT_TRUE(lines_with("Will be retry.").empty());
    EXPECT_EQ(qmtp::sim::probe_count(0), 0u);
    qmtp::sim::set_disk(1, {});
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 0; }, 3000));
    EXPECT_EQ(qmtp_call_count("CreateFileA"), 4u);
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, UnresolvedVolumeStoresFour)
{
    setup({"np1", 5, 1, 5, 0, "no-such-volume"});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 4; }, 3000));
    EXPECT_TRUE(wait_for([&] { return logged("1|SdwNpMonitor|SdwGetLUN() failed. (Name=np1 Ret=1)"); }, 2000));
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, RatioBelowOneIsRaisedAndWrittenBack)
{
    setup({"np1", 4, 1, 0, 0, vol(0)});
    SdwStore(gsdwTimeoutRatio, 0);
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return qmtp::sim::probe_count(0) == 1; }, 3000));
    EXPECT_EQ(SdwLoad(gsdwTimeoutRatio), 1);
    EXPECT_EQ(lines_like("8|SdwNpMonitor|*** I/O start. (Name=np1 Hdl=* LUN=0 Tick=* Time=4sec)").size(), 1u);
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, StatusReportsACycleThatStalled)
{
    setup({"np1", 300, 60, 0, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    const DWORD t0 = 1000000;
    qmtp_tick_freeze(t0);
    ASSERT_EQ(start("np1"), 0u);
    // Between cycles no stall is reported, however far the clock moves.
    qmtp_tick_freeze(t0 + 0x7fffffff);
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    qmtp_tick_freeze(t0);
    ASSERT_TRUE(holds_probe("np1", 0));
    EXPECT_EQ(SdwGetMonTick(r_), t0);

    qmtp_tick_freeze(t0 + 599999);
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    EXPECT_TRUE(logged("8|DoNpMontr|Status of np1 is 0[0x3])"));
    qmtp_tick_freeze(t0 + 600000);
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 99u);
    EXPECT_TRUE(logged("1|DoNpMontr|np1 occurred timeout in 0x3. (Timeout=600000 Tick=600000)"));
    EXPECT_EQ(SdwLoad(r_->result), 99);

    // The ratio scales the limit.
    doubles::set_ratio(2);
    SdwStore(r_->result, 0);
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    // A ratio below 1 is kept as read and counts as 1 in the limit. The line gives the time the
    // cycle has run, then the limit.
    for (int ratio : {0, -3}) {
        doubles::set_ratio(ratio);
        qmtp_tick_freeze(t0 + 599999);
        SdwStore(r_->result, 0);
        EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u) << ratio;
        EXPECT_EQ(gsdwTimeoutRatio, ratio);
        const DWORD ran = 600007 - ratio;
        qmtp_tick_freeze(t0 + ran);
        EXPECT_EQ(DoNpMontr("disknp", "np1"), 99u) << ratio;
        EXPECT_TRUE(logged("1|DoNpMontr|np1 occurred timeout in 0x3. (Timeout=" + std::to_string(ran) + " Tick=600000)"))
            << ratio;
    }
    qmtp_tick_thaw();
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, StopDuringAPendingProbeEndsWithoutWaitingForIt)
{
    setup({"np1", 30, 1, 0, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(holds_probe("np1", 0));
    // The stop's own cancellation fails: the worker sees the terminate event and cancels itself.
    qmtp_fault_set("CancelIo", 1, 5);
    ASSERT_EQ(stop("np1"), 0u);
    EXPECT_EQ(lines_like("2|SdwDestroyMonitor|CancelIo() failed. (Name=np1 Hdl=* Err=5)").size(), 1u);
    const int accepted = line_index("4|SdwNpMonitor|A thread end request was accepted. Resource=np1");
    const int cancelled = line_index("4|SdwNpMonitor|Cancel request TUR. Resource=np1");
    ASSERT_GE(accepted, 0);
    EXPECT_GT(cancelled, accepted);
    EXPECT_EQ(checkpoint("np1"), 0);
    // The probe completes after the worker has gone: nothing of the worker is touched.
    qmtp::sim::release(0);
    EXPECT_EQ(qmtp::sim::pending_count(0), 0u);
    EXPECT_EQ(r_->device_handles, nullptr);
    EXPECT_EQ(r_->extents, nullptr);
    EXPECT_TRUE(logged("4|SdwNpMonitor|End - (Ret=0)"));
}

TEST_F(NpWorkerTest, StopAfterATimedOutProbeDropsTheProbe)
{
    setup({"np1", 1, 1, 0, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 90; }, 4000));
    qmtp_fault_set("CancelIo", 1, 5);
    ASSERT_EQ(stop("np1"), 0u);
    EXPECT_EQ(lines_like("1|SdwNpMonitor|I/O pending completed(timeout). (Name=np1 Ret=0 Err=* Time=*)").size(), 1u);
    EXPECT_EQ(lines_with("I/O pending completed(timeout)").size(), 1u);
    EXPECT_TRUE(logged("4|SdwNpMonitor|catch stop message."));
    qmtp::sim::release(0);
    EXPECT_EQ(qmtp::sim::pending_count(0), 0u);
    EXPECT_EQ(SdwLoad(r_->result), 90);
}

// A stop during a probe: the worker's own cancellation failing drops the probe by closing its
// device. The result of that run is gone once the worker starts again.
TEST_F(NpWorkerTest, AnUncancellableProbeIsClosedAndARestartClearsTheResult)
{
    setup({"np1", 30, 1, 0, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(holds_probe("np1", 0));
    SdwSetResult(r_, 90);
    // The end request alone, as a stop makes it but without the stop's own cancellation, which
    // would otherwise race the worker to the probe; the worker's cancellation then fails.
    qmtp_fault_set("CancelIo", 1, 5);
    ASSERT_TRUE(SetEvent(SdwLoad(r_->term_event)));
    ASSERT_EQ(stop("np1"), 0u);
    EXPECT_EQ(lines_like("2|SdwNpMonitor|CancelIo() failed. (Name=np1 Hdl=* Err=5)").size(), 1u);
    qmtp::sim::set_disk(0, {});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1; }, 3000));  // waiting for its first cycle
    EXPECT_EQ(SdwLoad(r_->result), 0);
    ASSERT_EQ(stop("np1"), 0u);
}

}  // namespace
