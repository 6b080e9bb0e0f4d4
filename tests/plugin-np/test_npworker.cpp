// The disknp worker: its cycle and check points, probing, retries, time-outs, stall detection
// by the status query, and how it ends.
#include "npfixture.h"

#include <atomic>
#include <thread>

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

// Records every change of a record's check point, from its creation to stop().
class CheckPointRecorder {
public:
    explicit CheckPointRecorder(SDW_RSC *r) : r_(r), thread_([this] { run(); }) {}
    ~CheckPointRecorder() { stop(); }
    std::vector<int> stop()
    {
        done_ = true;
        if (thread_.joinable()) thread_.join();
        return seen_;
    }

private:
    void run()
    {
        int last = -1;
        while (!done_) {
            int now = SdwLoad(r_->check_point);
            if (now != last) {
                seen_.push_back(now);
                last = now;
            }
        }
    }
    SDW_RSC *r_;
    std::atomic<bool> done_{false};
    std::vector<int> seen_;
    std::thread thread_;
};

TEST_F(NpWorkerTest, CheckPointsFollowTheCycle)
{
    // 64 disks make the preparation of the first cycle long enough to be seen; the last one hangs
    // to hold the probing, the record lock holds the start and the evaluation.
    std::vector<DWORD> disks;
    for (DWORD d = 0; d < 64; d++) {
        disks.push_back(d);
        qmtp::sim::set_disk(d, {});
    }
    qmtp::sim::set_disk(63, {Behaviour::Hang, 0, 0});
    qmtp::sim::set_volume(vol(0), disks);
    setup({"np1", 30, 1, 0, 0, vol(0)});
    r_->mutex = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(r_->mutex, nullptr);

    CheckPointRecorder recorder(r_);
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return !lines_with("Start - (Name=np1 Hdl=").empty(); }, 3000));
    EXPECT_EQ(checkpoint("np1"), 0);
    ASSERT_TRUE(ReleaseMutex(r_->mutex));
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1; }, 3000));
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 3; }, 3000));
    EXPECT_EQ(qmtp::sim::pending_count(63), 1u);
    EXPECT_NE(r_->mon_tick, 0u);
    ASSERT_EQ(WaitForSingleObject(r_->mutex, 5000), WAIT_OBJECT_0);
    qmtp::sim::release(63);
    const bool evaluating = wait_for([&] { return checkpoint("np1") == 4; }, 3000);
    ASSERT_TRUE(ReleaseMutex(r_->mutex));
    ASSERT_TRUE(evaluating);
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1; }, 3000));
    EXPECT_EQ(recorder.stop(), (std::vector<int>{0, 1, 2, 3, 4, 1}));
    EXPECT_EQ(r_->result, 0);
    EXPECT_EQ(r_->mon_tick, 0u);

    ASSERT_EQ(stop("np1"), 0u);
    EXPECT_EQ(checkpoint("np1"), 0);
    EXPECT_EQ(r_->device_handles, nullptr);
    EXPECT_EQ(r_->extents, nullptr);
}

TEST_F(NpWorkerTest, FirstCycleComesAfterOneSecondAndProbesDiskAfterDisk)
{
    qmtp::sim::set_volume(vol(0), {0, 1});
    qmtp::sim::set_disk(1, {});
    setup({"np1", 5, 1, 0, 0, vol(0)});
    const DWORD started = GetTickCount();
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return qmtp::sim::probe_count(1) == 1; }, 3000));
    const DWORD first = GetTickCount() - started;
    EXPECT_GE(first, 900u);
    EXPECT_LT(first, 2500u);
    EXPECT_EQ(qmtp::sim::probe_count(0), 1u);
    std::vector<std::string> starts = lines_with("*** I/O start. (Name=np1");
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_NE(starts[0].find("LUN=0 Tick="), std::string::npos);
    EXPECT_NE(starts[0].find("Time=5sec)"), std::string::npos);
    EXPECT_NE(starts[1].find("LUN=1 Tick="), std::string::npos);
    EXPECT_TRUE(logged("16|WaitForMultipleObjects(Interval) completed. (Name=np1)"));
    EXPECT_FALSE(lines_with("2|Renew slowest lap. (Name=np1 SlowestLap=0msec->").empty());

    // A refusal on the first disk ends the cycle there.
    qmtp::sim::set_disk(0, {Behaviour::Refuse, 0, 21});
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 5; }, 3000));
    EXPECT_EQ(qmtp::sim::probe_count(0), 2u);
    EXPECT_EQ(qmtp::sim::probe_count(1), 1u);
    EXPECT_EQ(lines_with("1|DeviceIoControl() failed. (Name=np1 Hdl=").size(), 1u);
    EXPECT_FALSE(lines_with("LUN=0 Err=21)").empty());
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, FailuresAreRetriedBeforeTheyAreStored)
{
    setup({"np1", 5, 1, 2, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Refuse, 0, 21});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 5; }, 5000));
    EXPECT_EQ(qmtp::sim::probe_count(0), 3u);
    EXPECT_EQ(lines_with("Will be retry."), (std::vector<std::string>{"8|Will be retry. (Name=np1 Retry=1/2)",
                                                                      "8|Will be retry. (Name=np1 Retry=2/2)"}));
    // The third failure was stored after the second retry.
    EXPECT_LT(line_index("8|Will be retry. (Name=np1 Retry=2/2)"),
              line_index("32|Start - (Status=5 Name=np1)"));
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
    EXPECT_TRUE(logged("1|I/O pending timeout. (Name=np1 Hdl=" + hex(disk) + " LUN=0 Timeout=1)"));
    // Still waiting for the disk: in Probing, with the cycle's start tick.
    Sleep(300);
    EXPECT_EQ(checkpoint("np1"), 3);
    EXPECT_NE(SdwGetMonTick(r_), 0u);
    EXPECT_EQ(qmtp::sim::pending_count(0), 1u);
    EXPECT_TRUE(lines_with("I/O pending completed(timeout)").empty());

    qmtp::sim::release(0);
    ASSERT_TRUE(wait_for([&] { return !lines_with("Will be retry.").empty(); }, 2000));
    std::vector<std::string> done = lines_with("I/O pending completed(timeout)");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].rfind("1|I/O pending completed(timeout). (Name=np1 Ret=1 Err=", 0), 0u);
    EXPECT_NE(done[0].find(" Time=1sec)"), std::string::npos);  // released about 1.3 s after the start
    EXPECT_EQ(lines_with("Will be retry."), (std::vector<std::string>{"8|Will be retry. (Name=np1 Retry=1/2)"}));
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
    EXPECT_TRUE(logged("1|CreateFile() failed. (Name=np1 Dev=\\\\.\\PHYSICALDRIVE1 Err=2)"));
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
    EXPECT_TRUE(logged("1|SdwGetLUN() failed. (Name=np1 Ret=1)"));
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, WorkerWithoutProbeEventNeverProbes)
{
    setup({"np1", 5, 1, 0, 0, vol(0)});
    qmtp_fault_set("CreateEventA", 2, 8);  // the first is the terminate event
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return logged("1|CreateEvent() failed. (Name=np1 Err=8)"); }, 2000));
    Sleep(1300);
    EXPECT_EQ(SdwLoad(r_->result), 99);
    EXPECT_EQ(qmtp::sim::probe_count(0), 0u);
    EXPECT_EQ(checkpoint("np1"), 1);
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, RatioBelowOneIsRaisedAndWrittenBack)
{
    setup({"np1", 4, 1, 0, 0, vol(0)});
    SdwStore(gsdwTimeoutRatio, 0);
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return qmtp::sim::probe_count(0) == 1; }, 3000));
    EXPECT_EQ(SdwLoad(gsdwTimeoutRatio), 1);
    EXPECT_FALSE(lines_with(" Time=4sec)").empty());
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
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 3; }, 3000));
    EXPECT_EQ(SdwGetMonTick(r_), t0);

    qmtp_tick_freeze(t0 + 599999);
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    EXPECT_TRUE(logged("8|Status of np1 is 0[0x3])"));
    qmtp_tick_freeze(t0 + 600000);
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 99u);
    EXPECT_TRUE(logged("1|np1 occurred timeout in 0x3. (Timeout=600000 Tick=600000)"));
    EXPECT_EQ(SdwLoad(r_->result), 99);

    // The ratio scales the limit.
    doubles::set_ratio(2);
    SdwStore(r_->result, 0);
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    qmtp_tick_thaw();
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpWorkerTest, StopDuringAPendingProbeEndsWithoutWaitingForIt)
{
    setup({"np1", 30, 1, 0, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 3; }, 3000));
    // The stop's own cancellation fails: the worker sees the terminate event and cancels itself.
    qmtp_fault_set("CancelIo", 1, 5);
    ASSERT_EQ(stop("np1"), 0u);
    EXPECT_TRUE(lines_with("2|CancelIo() failed. (Name=np1 Hdl=").size() == 1u);
    const int accepted = line_index("4|A thread end request was accepted. Resource=np1");
    const int cancelled = line_index("4|Cancel request TUR. Resource=np1");
    ASSERT_GE(accepted, 0);
    EXPECT_GT(cancelled, accepted);
    EXPECT_EQ(qmtp::sim::pending_count(0), 0u);
    EXPECT_EQ(checkpoint("np1"), 0);
    EXPECT_EQ(r_->device_handles, nullptr);
    EXPECT_EQ(r_->extents, nullptr);
    EXPECT_TRUE(logged("4|End - (Ret=0)"));
}

TEST_F(NpWorkerTest, StopAfterATimedOutProbeDropsTheProbe)
{
    setup({"np1", 1, 1, 0, 0, vol(0)});
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return SdwLoad(r_->result) == 90; }, 4000));
    qmtp_fault_set("CancelIo", 1, 5);
    ASSERT_EQ(stop("np1"), 0u);
    std::vector<std::string> done = lines_with("I/O pending completed(timeout)");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].rfind("1|I/O pending completed(timeout). (Name=np1 Ret=0 Err=", 0), 0u);
    EXPECT_TRUE(logged("4|catch stop message."));
    EXPECT_EQ(qmtp::sim::pending_count(0), 0u);
    EXPECT_EQ(SdwLoad(r_->result), 90);
}

}  // namespace
