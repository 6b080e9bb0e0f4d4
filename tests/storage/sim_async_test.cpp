// Simulated storage, answers that come later from the backend's thread: pending probes, their
// completion, GetOverlappedResult, CancelIo and CloseHandle on pending probes, and the promise
// that nothing touches an OVERLAPPED or its event once the caller has let go of them.
#include "storage_fixture.h"

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

using namespace storage_test;
namespace sim = qmtp::sim;

namespace {

constexpr DWORD kBound = 10000; // ms; every wait of these tests ends by then

// One probe's OVERLAPPED and event, on the heap so that freeing them early is seen by ASan.
struct Probe {
    OVERLAPPED *ov = nullptr;
    HANDLE ev = nullptr;
    Probe() {
        ov = new OVERLAPPED{};
        ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        ov->hEvent = ev;
    }
    ~Probe() { free(); }
    void free() {
        if (ev) CloseHandle(ev);
        delete ov;
        ev = nullptr;
        ov = nullptr;
    }
    BOOL issue(HANDLE disk) {
        SetLastError(0);
        return DeviceIoControl(disk, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, ov);
    }
};

bool wait_until(const std::function<bool()> &done) {
    for (DWORD waited = 0; waited < kBound; waited += 5) {
        if (done()) return true;
        Sleep(5);
    }
    return done();
}

using PendingProbe = SimTest;

// A probe of a disk that answers late goes pending, and completes with the disk's answer: seen
// through the event and a result that does not wait, or through a result that waits for it. A
// synchronous probe gets the same answer once it is given.
TEST_F(PendingProbe, CompletesLaterWithTheDisksAnswer) {
    struct Case {
        const char *disk;  // the description line of disk 1
        bool wait_result;  // take the result with bWait rather than after the event
        DWORD error;       // what the probe ends with (0: success)
    };
    // Even a failure without a delay is answered from the backend's thread, so how many probes
    // are still pending right after the issue depends on scheduling and is not checked.
    for (const Case &c : {Case{"disk 1 delay 50", false, 0}, Case{"disk 1 delay 30", true, 0},
                          Case{"disk 1 fail 1117 after 20", false, 1117}, Case{"disk 1 fail 21", true, 21}}) {
        SCOPED_TRACE(c.disk);
        load(std::string(c.disk) + "\n");
        HANDLE d = open_disk(1);
        Probe p;
        EXPECT_FALSE(p.issue(d));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
        if (!c.wait_result) {
            ASSERT_EQ(WaitForSingleObject(p.ev, kBound), WAIT_OBJECT_0);
            EXPECT_EQ(p.ov->Internal == 0, c.error == 0);
            EXPECT_EQ(p.ov->InternalHigh, 0u);
        }
        DWORD bytes = 7;
        SetLastError(0);
        EXPECT_EQ(GetOverlappedResult(d, p.ov, &bytes, c.wait_result) != FALSE, c.error == 0);
        if (c.error == 0) EXPECT_EQ(bytes, 0u);
        else EXPECT_EQ(GetLastError(), c.error);
        EXPECT_EQ(WaitForSingleObject(p.ev, 0), WAIT_OBJECT_0);
        EXPECT_EQ(sim::pending_count(1), 0u);
        EXPECT_EQ(sim::probe_count(1), 1u);
        // Cancelling now leaves the completed probe as it was.
        EXPECT_TRUE(CancelIo(d));
        EXPECT_EQ(GetOverlappedResult(d, p.ov, &bytes, FALSE) != FALSE, c.error == 0);
        EXPECT_TRUE(CloseHandle(d));
        // A synchronous probe of the same disk returns only with the answer.
        d = open_disk(1, 0);
        SetLastError(0);
        EXPECT_EQ(DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, nullptr) != FALSE,
                  c.error == 0);
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_EQ(sim::pending_count(1), 0u);
        EXPECT_TRUE(CloseHandle(d));
    }
}

// A probe of a hung disk resets its event and stays pending, its block not reusable meanwhile,
// until the disk is released: then every pending probe completes with the release's answer.
TEST_F(PendingProbe, HangStaysPendingUntilReleased) {
    load("disk 4 hang\n");
    HANDLE d = open_disk(4);
    Probe a, b;
    SetEvent(a.ev);
    EXPECT_FALSE(a.issue(d));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
    EXPECT_EQ(WaitForSingleObject(a.ev, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(a.ov->Internal, 0x103u);
    DWORD bytes = 0;
    SetLastError(0);
    EXPECT_FALSE(GetOverlappedResult(d, a.ov, &bytes, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_INCOMPLETE));
    EXPECT_FALSE(a.issue(d));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(b.issue(d));
    EXPECT_EQ(sim::probe_count(4), 2u);
    EXPECT_EQ(sim::pending_count(4), 2u);
    EXPECT_EQ(WaitForSingleObject(a.ev, 20), static_cast<DWORD>(WAIT_TIMEOUT));

    sim::release(4, 1167);
    EXPECT_EQ(sim::pending_count(4), 0u);
    for (Probe *p : {&a, &b}) {
        EXPECT_EQ(WaitForSingleObject(p->ev, 0), WAIT_OBJECT_0);
        SetLastError(0);
        EXPECT_FALSE(GetOverlappedResult(d, p->ov, &bytes, FALSE));
        EXPECT_EQ(GetLastError(), 1167u);
    }
    // Once completed, the same block may carry the next probe. A reset of the world ends it as
    // disconnected, and forgets the probes counted.
    EXPECT_FALSE(a.issue(d));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
    sim::reset();
    EXPECT_EQ(sim::probe_count(4), 0u);
    EXPECT_EQ(WaitForSingleObject(a.ev, 0), WAIT_OBJECT_0);
    EXPECT_FALSE(GetOverlappedResult(d, a.ov, &bytes, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DEVICE_NOT_CONNECTED));
    EXPECT_TRUE(CloseHandle(d));
}

// ---- Letting go of a pending probe --------------------------------------------------------

using DetachedProbe = SimTest;

// CancelIo ends a pending probe as aborted before it returns; closing the handle instead touches
// neither the block nor the event. Either way the caller may then free both while the disk still
// holds the probe.
TEST_F(DetachedProbe, CancelAbortsAndCloseDetachesAPendingProbe) {
    load("disk 4 hang\n");
    for (bool cancel : {true, false}) {
        SCOPED_TRACE(cancel ? "CancelIo" : "CloseHandle");
        HANDLE d = open_disk(4);
        Probe p;
        EXPECT_FALSE(p.issue(d));
        p.ov->Internal = 0x5A5A;
        if (cancel) {
            EXPECT_TRUE(CancelIo(d));
            EXPECT_EQ(p.ov->Internal, 0xC0000120u);
            DWORD bytes = 3;
            SetLastError(0);
            EXPECT_FALSE(GetOverlappedResult(d, p.ov, &bytes, FALSE));
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
            EXPECT_EQ(bytes, 0u);
        }
        EXPECT_TRUE(CloseHandle(d));
        EXPECT_EQ(p.ov->Internal, cancel ? 0xC0000120u : 0x5A5Au);
        EXPECT_EQ(WaitForSingleObject(p.ev, 0), cancel ? WAIT_OBJECT_0 : static_cast<DWORD>(WAIT_TIMEOUT));
        p.free();
        EXPECT_EQ(sim::pending_count(4), 1u);
        sim::release(4);
        EXPECT_EQ(sim::pending_count(4), 0u);
    }
}

// A thread blocked on a hung probe, in the synchronous call or in a result that waits, is woken
// by CancelIo from another thread and told the probe was aborted.
TEST_F(DetachedProbe, CancelIoFromAnotherThreadWakesTheProbingThread) {
    load("disk 4 hang\n");
    for (bool overlapped : {false, true}) {
        SCOPED_TRACE(overlapped ? "result that waits" : "synchronous probe");
        HANDLE d = open_disk(4, overlapped ? FILE_FLAG_OVERLAPPED : 0);
        std::atomic<DWORD> error{0};
        std::thread prober([&] {
            Probe p;
            DWORD bytes = 0;
            const BOOL ok = overlapped ? (p.issue(d), GetOverlappedResult(d, p.ov, &bytes, TRUE))
                                       : DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0,
                                                         nullptr, nullptr);
            error = ok ? 0 : GetLastError();
        });
        ASSERT_TRUE(wait_until([] { return sim::pending_count(4) == 1; }));
        EXPECT_TRUE(CancelIo(d));
        prober.join();
        EXPECT_EQ(error.load(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
        sim::release(4);
        EXPECT_TRUE(CloseHandle(d));
    }
}

// Completion from the timer thread races with CancelIo and CloseHandle from here; every outcome
// must be a clean completion or a clean cancel, and the freed blocks must stay untouched.
TEST_F(DetachedProbe, CompletionRacesWithCancelAndClose) {
    load("disk 1 delay 1\n");
    unsigned completed = 0, cancelled = 0;
    for (int i = 0; i < 200; ++i) {
        HANDLE d = open_disk(1);
        ASSERT_NE(d, INVALID_HANDLE_VALUE);
        auto p = std::make_unique<Probe>();
        ASSERT_FALSE(p->issue(d));
        if (i % 3 == 0) Sleep(1);
        if (i % 2 == 0) {
            EXPECT_TRUE(CancelIo(d));
            ASSERT_EQ(WaitForSingleObject(p->ev, 0), WAIT_OBJECT_0);
            DWORD bytes = 0;
            if (GetOverlappedResult(d, p->ov, &bytes, FALSE)) {
                ++completed;
            } else {
                EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
                ++cancelled;
            }
        }
        // The request is detached only once cancelled or its handle closed: only then may the
        // OVERLAPPED and the event go, whatever the completion is doing at that moment.
        EXPECT_TRUE(CloseHandle(d));
        p.reset();
    }
    EXPECT_EQ(completed + cancelled, 100u);
    ASSERT_TRUE(wait_until([] { return sim::pending_count(1) == 0; }));
    EXPECT_EQ(sim::probe_count(1), 200u);
}

} // namespace
