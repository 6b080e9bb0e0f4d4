// Worker control: creation and its unwinding, suspend and resume handshakes, stops that time
// out, and the teardown with several workers.
#include "npfixture.h"

using namespace nptest;
using qmtp::sim::Behaviour;

namespace {

class NpControlTest : public NpTest {
protected:
    void SetUp() override
    {
        NpTest::SetUp();
        for (DWORD d : {0u, 1u, 2u}) {
            qmtp::sim::set_volume(vol(d), {d});
            qmtp::sim::set_disk(d, {});
        }
    }
};

TEST_F(NpControlTest, SuspendAndResumeAreTakenWithinASecond)
{
    configure({{"np1", 5, 60, 0, 0, vol(0)}});
    init();
    SDW_RSC *r = rsc("np1");
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return qmtp::sim::probe_count(0) == 1 && checkpoint("np1") == 1; }, 3000));

    // The worker waits on a 60 s interval: the suspend re-arms its timer for one second.
    DWORD before = GetTickCount();
    EXPECT_EQ(NpMontrStatusChange("disknp", "np1", SDW_CTRL_SUSPEND), 0u);
    DWORD took = GetTickCount() - before;
    EXPECT_LT(took, 3000u);
    EXPECT_TRUE(logged("4|NpMontrStatusChange|<<< Suspend[0x11] of np1[0x1] >>>"));
    EXPECT_EQ(SdwLoad(r->request), SDW_REQ_SUSPEND);
    EXPECT_EQ(SdwLoad(r->request_pending), 0);
    Sleep(1100);
    EXPECT_EQ(qmtp::sim::probe_count(0), 1u);
    EXPECT_EQ(checkpoint("np1"), 1);
    EXPECT_EQ(SdwGetMonTick(r), 0u);
    EXPECT_EQ(SdwLoad(r->result), 0);

    before = GetTickCount();
    EXPECT_EQ(NpMontrStatusChange("disknp", "np1", SDW_CTRL_RESUME), 0u);
    took = GetTickCount() - before;
    EXPECT_LT(took, 3000u);
    EXPECT_TRUE(logged("4|NpMontrStatusChange|<<< Resume[0x10] of np1[0x1] >>>"));
    EXPECT_EQ(SdwLoad(r->request_pending), 0);
    // The wake-up that took the resume runs a full cycle.
    EXPECT_TRUE(wait_for([&] { return qmtp::sim::probe_count(0) == 2; }, 1000));
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpControlTest, SuspendNotTakenInTimeReturns90AndStaysPending)
{
    configure({{"np1", 1, 1, 0, 0, vol(0)}});
    init();
    SDW_RSC *r = rsc("np1");
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(holds_probe("np1", 0));
    // The suspend cannot cancel the hung probe, so the worker never gets to the request.
    qmtp_fault_set("CancelIo", 1, 5);
    const DWORD before = GetTickCount();
    EXPECT_EQ(NpMontrStatusChange("disknp", "np1", SDW_CTRL_SUSPEND), 90u);
    const DWORD took = GetTickCount() - before;
    EXPECT_GE(took, 2000u);  // 100 ms and T + 1 pauses of a second
    EXPECT_LT(took, 4000u);
    EXPECT_EQ(lines_like("2|SdwSuspendMontr|CancelIo() failed. (Hdl=* Err=5)").size(), 1u);
    EXPECT_TRUE(logged("1|SdwSuspendMontr|Suspend timeout. (Hdl=" + hex(r->thread) + " Tid=" + hexnum(r->thread_id) +
                       " Timeout=1)"));
    EXPECT_TRUE(logged("1|NpMontrStatusChange|SdwSuspendMontr() failed. (Ret=90)"));
    EXPECT_EQ(SdwLoad(r->request), SDW_REQ_SUSPEND);
    EXPECT_EQ(SdwLoad(r->request_pending), 1);

    // Once the disk answers the worker takes the request all the same.
    qmtp::sim::release(0);
    EXPECT_TRUE(wait_for([&] { return SdwLoad(r->request_pending) == 0; }, 3000));
    ASSERT_EQ(stop("np1"), 0u);
}

TEST_F(NpControlTest, SuspendAndResumeWithoutAWorker)
{
    configure({{"np1", 1, 1, 0, 0, vol(0)}});
    init();
    DWORD before = GetTickCount();
    EXPECT_EQ(NpMontrStatusChange("disknp", "np1", SDW_CTRL_SUSPEND), 0u);
    EXPECT_LT(GetTickCount() - before, 500u);
    EXPECT_TRUE(logged("1|SdwSuspendMontr|Not monitoring. (Hdl=0 Tid=0)"));
    before = GetTickCount();
    EXPECT_EQ(NpMontrStatusChange("disknp", "np1", SDW_CTRL_RESUME), 90u);
    const DWORD took = GetTickCount() - before;
    EXPECT_GE(took, 2000u);
    EXPECT_LT(took, 4000u);
    EXPECT_TRUE(logged("1|SdwResumeMontr|Resume timeout. (Hdl=0 Tid=0 Timeout=1)"));
    EXPECT_TRUE(logged("1|NpMontrStatusChange|SdwResumeMontr() failed. (Ret=90)"));
}

TEST_F(NpControlTest, TeardownWaitsForAWorkerThatWillNotEndAndTriesAgainLater)
{
    configure({{"np1", 30, 1, 0, 0, vol(0)}, {"np2", 5, 1, 0, 1, vol(1)}, {"np3", 5, 1, 0, 2, vol(2)}});
    init();
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    for (const char *name : {"np1", "np2", "np3"}) ASSERT_EQ(start(name), 0u);
    SDW_RSC *r = rsc("np1");
    ASSERT_TRUE(holds_probe("np1", 0));
    // np1's worker is held on its record lock while it evaluates its cycle, and needs the lock
    // twice more before it gets to the terminate event: longer than the stop waits.
    ASSERT_EQ(WaitForSingleObject(r->mutex, 5000), WAIT_OBJECT_0);
    qmtp::sim::release(0);
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 4; }, 3000));
    const HANDLE thread = r->thread;
    const DWORD tid = r->thread_id;
    const DWORD before = GetTickCount();
    EXPECT_EQ(UninitNpRscDll("qmtsdw", 0, 0), 0u);
    const DWORD took = GetTickCount() - before;
    EXPECT_GE(took, 9900u);
    EXPECT_LT(took, 15000u);
    EXPECT_EQ(lines_like("1|SdwDestroyMonitor|WaitForMultipleObjects() timeout. (Hdl=" + hex(thread) + " Err=*)").size(), 1u);
    EXPECT_TRUE(logged("1|NpMontrStatusChange|SdwDestroyMonitor() failed. (Ret=90)"));
    EXPECT_TRUE(logged("1|UninitNpRscDll|NpMontrStatusChange() failed. (Ret=90 TdHdl=" + hex(thread) + " Tid=" + hexnum(tid) +
                       " Name=np1)"));
    // Nothing was torn down; the others were stopped all the same.
    EXPECT_EQ(gsdwInitCount, 1u);
    ASSERT_NE(gsdwlpRsc, nullptr);
    EXPECT_EQ(r->thread, thread);
    EXPECT_NE(r->term_event, nullptr);
    EXPECT_NE(r->timer, nullptr);
    EXPECT_NE(r->mutex, nullptr);
    EXPECT_EQ(rsc("np2")->thread, nullptr);
    EXPECT_EQ(rsc("np3")->thread, nullptr);
    EXPECT_TRUE(doubles::cm_attached());

    ASSERT_TRUE(ReleaseMutex(r->mutex));
    EXPECT_TRUE(wait_for([&] { return WaitForSingleObject(thread, 0) == WAIT_OBJECT_0; }, 12000));
    EXPECT_EQ(UninitNpRscDll("qmtsdw", 0, 0), 0u);
    EXPECT_EQ(gsdwInitCount, 0u);
    EXPECT_EQ(gsdwlpRsc, nullptr);
}

}  // namespace
