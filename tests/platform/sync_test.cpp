// Mutexes, events, waitable timers, thread handles and the two waits, alone and mixed.
#include "platform_test.h"

#include "internal.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

constexpr DWORD kBound = 10000; // every wait that must succeed gets this much, never more

using MutexTest = PlatformTest;
using EventTest = PlatformTest;
using TimerTest = PlatformTest;
using ThreadTest = PlatformTest;
using WaitTest = PlatformTest;
using HandleTest = PlatformTest;

// ---- Mutexes ------------------------------------------------------------------------------

TEST_F(MutexTest, OwnerWaitsRecursivelyAndReleasesAsManyTimes) {
    HANDLE m = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(WaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(ReleaseMutex(m));
    SetLastError(0);
    EXPECT_FALSE(ReleaseMutex(m));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_OWNER));
    EXPECT_TRUE(CloseHandle(m));
}

TEST_F(MutexTest, OwnedMutexBlocksOtherThreadsAndNonOwnerReleaseFailsWith288) {
    HANDLE m = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(m, nullptr);
    DWORD wait_result = 0, release_error = 0;
    BOOL released = TRUE;
    JoinThread(StartThread([&] {
        wait_result = WaitForSingleObject(m, 30);
        released = ReleaseMutex(m);
        release_error = GetLastError();
    }));
    EXPECT_EQ(wait_result, WAIT_TIMEOUT);
    EXPECT_FALSE(released);
    EXPECT_EQ(release_error, static_cast<DWORD>(ERROR_NOT_OWNER));
    EXPECT_TRUE(ReleaseMutex(m));
    JoinThread(StartThread([&] {
        wait_result = WaitForSingleObject(m, 0);
        released = ReleaseMutex(m);
    }));
    EXPECT_EQ(wait_result, WAIT_OBJECT_0);
    EXPECT_TRUE(released);
    EXPECT_TRUE(CloseHandle(m));
}

TEST_F(MutexTest, AbandonedOnceWhenOwnerThreadEndsThenNormal) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    ASSERT_NE(m, nullptr);
    DWORD taken = 99;
    JoinThread(StartThread([&] { taken = WaitForSingleObject(m, 0); }));
    EXPECT_EQ(taken, WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(m, kBound), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_EQ(WaitForSingleObject(m, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(CloseHandle(m));
}

TEST_F(MutexTest, RecursiveOwnershipIsAbandonedWholeAndInitialOwnerCounts) {
    HANDLE m = nullptr;
    JoinThread(StartThread([&] {
        m = CreateMutexA(nullptr, TRUE, nullptr);
        WaitForSingleObject(m, 0);
    }));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(WaitForSingleObject(m, kBound), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_FALSE(ReleaseMutex(m));
    EXPECT_TRUE(CloseHandle(m));
}

TEST_F(MutexTest, AnyThreadAbandonsOnExitNotOnlyBeginthreadex) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    ASSERT_NE(m, nullptr);
    DWORD taken = 99;
    std::thread t([&] { taken = WaitForSingleObject(m, 0); });
    t.join();
    EXPECT_EQ(taken, WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(m, kBound), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(CloseHandle(m));
}

TEST_F(MutexTest, AbandonmentReportsTheMutexIndexInWaitAny) {
    HANDLE e = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    JoinThread(StartThread([&] { WaitForSingleObject(m, 0); }));
    const HANDLE hs[] = {e, m};
    EXPECT_EQ(WaitForMultipleObjects(2, hs, FALSE, kBound), WAIT_ABANDONED_0 + 1);
    EXPECT_EQ(WaitForMultipleObjects(2, hs, FALSE, kBound), WAIT_OBJECT_0 + 1);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(CloseHandle(m));
    EXPECT_TRUE(CloseHandle(e));
}

TEST_F(MutexTest, WaiterBlockedOnOwnedMutexGetsAbandonedWhenOwnerEnds) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE owner = StartThread([&] {
        WaitForSingleObject(m, 0);
        SetEvent(taken);
        WaitForSingleObject(go, kBound);
    });
    ASSERT_EQ(WaitForSingleObject(taken, kBound), WAIT_OBJECT_0);
    DWORD result = 0;
    HANDLE waiter = StartThread([&] {
        result = WaitForSingleObject(m, kBound);
        ReleaseMutex(m);
    });
    SetEvent(go);
    JoinThread(owner);
    JoinThread(waiter);
    EXPECT_EQ(result, WAIT_ABANDONED);
    EXPECT_TRUE(CloseHandle(taken));
    EXPECT_TRUE(CloseHandle(go));
    EXPECT_TRUE(CloseHandle(m));
}

TEST_F(MutexTest, SameNameOpensTheSameMutexAndSays183) {
    HANDLE a = CreateMutexA(nullptr, FALSE, "Global\\PLATFORM_TEST_MUTEX");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));
    HANDLE b = CreateMutexA(nullptr, TRUE, "Global\\PLATFORM_TEST_MUTEX");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(GetLastError(), 183u);
    EXPECT_NE(a, b);
    // The second create did not take it (it already existed); taking it through one handle
    // makes it owned through the other.
    EXPECT_FALSE(ReleaseMutex(b));
    EXPECT_EQ(WaitForSingleObject(a, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(b));
    EXPECT_TRUE(CloseHandle(a));
    EXPECT_TRUE(CloseHandle(b));
}

// ---- Events -------------------------------------------------------------------------------

TEST_F(EventTest, AutoResetEventSatisfiesOneWaitThenResets) {
    HANDLE e = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(e));
    EXPECT_TRUE(SetEvent(e));
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(e));
}

TEST_F(EventTest, ManualResetEventStaysSignalledUntilReset) {
    HANDLE e = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(e));
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ResetEvent(e));
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(e));
}

TEST_F(EventTest, SetEventWakesABlockedThread) {
    HANDLE e = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE started = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    DWORD result = 99;
    HANDLE t = StartThread([&] {
        SetEvent(started);
        result = WaitForSingleObject(e, kBound);
    });
    ASSERT_EQ(WaitForSingleObject(started, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(SetEvent(e));
    JoinThread(t);
    EXPECT_EQ(result, WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(started));
    EXPECT_TRUE(CloseHandle(e));
}

TEST_F(EventTest, AutoResetReleasesExactlyOneOfTwoWaiters) {
    HANDLE e = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> woken{0}, timed_out{0};
    auto waiter = [&] {
        const DWORD r = WaitForSingleObject(e, 300);
        (r == WAIT_OBJECT_0 ? woken : timed_out)++;
    };
    HANDLE a = StartThread(waiter), b = StartThread(waiter);
    EXPECT_TRUE(SetEvent(e));
    JoinThread(a);
    JoinThread(b);
    EXPECT_EQ(woken.load(), 1);
    EXPECT_EQ(timed_out.load(), 1);
    EXPECT_TRUE(CloseHandle(e));
}

TEST_F(EventTest, ManualResetReleasesEveryWaiter) {
    HANDLE e = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> woken{0};
    std::vector<HANDLE> ts;
    for (int i = 0; i < 4; ++i)
        ts.push_back(StartThread([&] {
            if (WaitForSingleObject(e, kBound) == WAIT_OBJECT_0)
                ++woken;
        }));
    EXPECT_TRUE(SetEvent(e));
    for (HANDLE t : ts)
        JoinThread(t);
    EXPECT_EQ(woken.load(), 4);
    EXPECT_TRUE(CloseHandle(e));
}

TEST_F(EventTest, EventCallsOnOtherKindsFailWith6) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    SetLastError(0);
    EXPECT_FALSE(SetEvent(m));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(ResetEvent(nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    HANDLE e = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    EXPECT_FALSE(ReleaseMutex(e));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    const LARGE_INTEGER due = DueIn(10);
    EXPECT_FALSE(SetWaitableTimer(e, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(CancelWaitableTimer(m));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(CloseHandle(e));
    EXPECT_TRUE(CloseHandle(m));
}

// ---- Waitable timers ----------------------------------------------------------------------

TEST_F(TimerTest, UnarmedTimerIsNotSignalled) {
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(WaitForSingleObject(t, 20), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(t));
}

TEST_F(TimerTest, OneShotManualTimerStaysSignalled) {
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    const LARGE_INTEGER due = DueIn(20);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(WaitForSingleObject(t, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(t, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(t, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(t));
}

TEST_F(TimerTest, OneShotAutoResetTimerSatisfiesOneWait) {
    HANDLE t = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    const LARGE_INTEGER due = DueIn(10);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(t, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(t, 50), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(t));
}

TEST_F(TimerTest, PeriodicTimerFiresRepeatedlyUntilCancelled) {
    HANDLE t = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    const LARGE_INTEGER due = DueIn(5);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 10, nullptr, nullptr, FALSE));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(WaitForSingleObject(t, kBound), WAIT_OBJECT_0) << "period " << i;
    EXPECT_TRUE(CancelWaitableTimer(t));
    WaitForSingleObject(t, 0); // a period may have ended just before the cancel
    EXPECT_EQ(WaitForSingleObject(t, 100), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(t));
}

TEST_F(TimerTest, CancelKeepsTheSignalStateAndStopsAPendingTimer) {
    HANDLE fired = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    LARGE_INTEGER due = DueIn(1);
    ASSERT_TRUE(SetWaitableTimer(fired, &due, 0, nullptr, nullptr, FALSE));
    ASSERT_EQ(WaitForSingleObject(fired, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(CancelWaitableTimer(fired));
    EXPECT_EQ(WaitForSingleObject(fired, 0), WAIT_OBJECT_0);

    HANDLE pending = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    due = DueIn(30);
    ASSERT_TRUE(SetWaitableTimer(pending, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_TRUE(CancelWaitableTimer(pending));
    EXPECT_EQ(WaitForSingleObject(pending, 100), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(pending));
    EXPECT_TRUE(CloseHandle(fired));
}

TEST_F(TimerTest, RearmingResetsTheSignalAndReplacesTheDueTime) {
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    LARGE_INTEGER due = DueIn(1);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    ASSERT_EQ(WaitForSingleObject(t, kBound), WAIT_OBJECT_0);
    due = DueIn(60000);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(t, 0), WAIT_TIMEOUT);

    // A thread already sleeping towards the old due time sees the new, earlier one.
    HANDLE started = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    DWORD result = 99;
    HANDLE waiter = StartThread([&] {
        SetEvent(started);
        result = WaitForSingleObject(t, kBound);
    });
    ASSERT_EQ(WaitForSingleObject(started, kBound), WAIT_OBJECT_0);
    due = DueIn(10);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    JoinThread(waiter);
    EXPECT_EQ(result, WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(started));
    EXPECT_TRUE(CloseHandle(t));
}

TEST_F(TimerTest, AbsoluteDueTimeInFileTimeUnits) {
    const auto unix_100ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count() /
                            100;
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    LARGE_INTEGER due;
    due.QuadPart = unix_100ns + 116444736000000000LL + 20 * 10000; // 20 ms from now
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(t, kBound), WAIT_OBJECT_0);
    due.QuadPart = 0; // long past: signalled at once
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(t, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(t));
}

TEST_F(TimerTest, CompletionRoutineFailsWith50AndResumeIsReported) {
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    const LARGE_INTEGER due = DueIn(10000);
    PTIMERAPCROUTINE routine = [](LPVOID, DWORD, DWORD) {};
    EXPECT_FALSE(SetWaitableTimer(t, &due, 0, routine, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, TRUE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_FALSE(SetWaitableTimer(t, &due, -1, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(CloseHandle(t));
}

// ---- Threads ------------------------------------------------------------------------------

TEST_F(ThreadTest, HandleIsSignalledWhenTheThreadEndsAndStaysSo) {
    HANDLE go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE t = StartThread([&] { WaitForSingleObject(go, kBound); });
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(WaitForSingleObject(t, 20), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(go));
    EXPECT_EQ(WaitForSingleObject(t, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(t, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(t));
    EXPECT_TRUE(CloseHandle(go));
}

TEST_F(ThreadTest, BeginthreadexReportsTheIdTheThreadSees) {
    const DWORD main_id = GetCurrentThreadId();
    EXPECT_NE(main_id, 0u);
    EXPECT_EQ(GetCurrentThreadId(), main_id);
    unsigned reported = 0;
    DWORD seen = 0, seen_again = 0;
    HANDLE t = StartThread(
        [&] {
            seen = GetCurrentThreadId();
            seen_again = GetCurrentThreadId();
        },
        &reported);
    JoinThread(t);
    EXPECT_EQ(seen, reported);
    EXPECT_EQ(seen_again, seen);
    EXPECT_NE(seen, main_id);
    EXPECT_NE(seen, 0u);
}

TEST_F(ThreadTest, LastErrorBelongsToEachThread) {
    SetLastError(1234);
    DWORD other_before = 99, other_after = 0;
    JoinThread(StartThread([&] {
        other_before = GetLastError();
        SetLastError(ERROR_NOT_READY);
        other_after = GetLastError();
    }));
    EXPECT_EQ(other_before, 0u);
    EXPECT_EQ(other_after, static_cast<DWORD>(ERROR_NOT_READY));
    EXPECT_EQ(GetLastError(), 1234u);
}

TEST_F(ThreadTest, MissingStartRoutineFailsWith87) {
    SetLastError(0);
    EXPECT_EQ(_beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr), 0u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

// ---- Waits --------------------------------------------------------------------------------

TEST_F(WaitTest, AnyReturnsTheLowestSignalledIndex) {
    HANDLE e[3] = {CreateEventA(nullptr, TRUE, FALSE, nullptr), CreateEventA(nullptr, TRUE, TRUE, nullptr),
                   CreateEventA(nullptr, TRUE, TRUE, nullptr)};
    EXPECT_EQ(WaitForMultipleObjects(3, e, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_TRUE(SetEvent(e[0]));
    EXPECT_EQ(WaitForMultipleObjects(3, e, FALSE, 0), WAIT_OBJECT_0);
    for (HANDLE h : e)
        EXPECT_TRUE(ResetEvent(h));
    EXPECT_EQ(WaitForMultipleObjects(3, e, FALSE, 20), WAIT_TIMEOUT);
    for (HANDLE h : e)
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(WaitTest, AnyOverAMixOfKindsTakesOnlyTheObjectItReturns) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE ev = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE tm = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    HANDLE hold = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE th = StartThread([&] {
        WaitForSingleObject(m, 0);
        SetEvent(taken);
        WaitForSingleObject(hold, kBound);
        ReleaseMutex(m);
    });
    ASSERT_EQ(WaitForSingleObject(taken, kBound), WAIT_OBJECT_0);
    const HANDLE hs[] = {m, ev, tm, th};
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, 20), WAIT_TIMEOUT);

    const LARGE_INTEGER due = DueIn(10);
    ASSERT_TRUE(SetWaitableTimer(tm, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, kBound), WAIT_OBJECT_0 + 2);
    EXPECT_TRUE(SetEvent(ev));
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, kBound), WAIT_OBJECT_0 + 1);
    EXPECT_TRUE(SetEvent(hold));
    // The thread releases the mutex and ends; the mutex (index 0) is returned first.
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(th, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_FALSE(ReleaseMutex(m));
    for (HANDLE h : {m, ev, tm, hold, taken, th})
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(WaitTest, AllTakesEveryObjectAtOnce) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE autoev = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    HANDLE manualev = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    HANDLE tm = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    HANDLE th = StartThread([] {});
    ASSERT_EQ(WaitForSingleObject(th, kBound), WAIT_OBJECT_0);
    const LARGE_INTEGER due = DueIn(5);
    ASSERT_TRUE(SetWaitableTimer(tm, &due, 0, nullptr, nullptr, FALSE));
    const HANDLE hs[] = {m, autoev, manualev, tm, th};
    EXPECT_EQ(WaitForMultipleObjects(5, hs, TRUE, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(autoev, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(tm, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(manualev, 0), WAIT_OBJECT_0);
    DWORD other = 99;
    JoinThread(StartThread([&] { other = WaitForSingleObject(m, 0); }));
    EXPECT_EQ(other, WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(m));
    for (HANDLE h : {m, autoev, manualev, tm, th})
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(WaitTest, AllTakesNothingUntilEverythingIsReady) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE ev = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HANDLE hs[] = {m, ev};
    EXPECT_EQ(WaitForMultipleObjects(2, hs, TRUE, 20), WAIT_TIMEOUT);
    DWORD other = 99;
    JoinThread(StartThread([&] {
        other = WaitForSingleObject(m, 0);
        ReleaseMutex(m);
    }));
    EXPECT_EQ(other, WAIT_OBJECT_0);

    // With the mutex held elsewhere, a signalled auto-reset event is left signalled.
    HANDLE hold = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE th = StartThread([&] {
        WaitForSingleObject(m, 0);
        SetEvent(taken);
        WaitForSingleObject(hold, kBound);
        ReleaseMutex(m);
    });
    ASSERT_EQ(WaitForSingleObject(taken, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(SetEvent(ev));
    EXPECT_EQ(WaitForMultipleObjects(2, hs, TRUE, 20), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(hold));
    JoinThread(th);
    EXPECT_EQ(WaitForMultipleObjects(2, hs, TRUE, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(m));
    for (HANDLE h : {m, ev, hold, taken})
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(WaitTest, AllCompletesWhenTheLastObjectIsSignalledByAnotherThread) {
    HANDLE a = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    HANDLE b = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE th = StartThread([&] {
        Sleep(20);
        SetEvent(b);
    });
    const HANDLE hs[] = {a, b};
    EXPECT_EQ(WaitForMultipleObjects(2, hs, TRUE, kBound), WAIT_OBJECT_0);
    JoinThread(th);
    EXPECT_TRUE(CloseHandle(a));
    EXPECT_TRUE(CloseHandle(b));
}

TEST_F(WaitTest, AllReportsTheAbandonedMutexIndex) {
    HANDLE ev = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    JoinThread(StartThread([&] { WaitForSingleObject(m, 0); }));
    const HANDLE hs[] = {ev, m};
    EXPECT_EQ(WaitForMultipleObjects(2, hs, TRUE, kBound), WAIT_ABANDONED_0 + 1);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(CloseHandle(m));
    EXPECT_TRUE(CloseHandle(ev));
}

TEST_F(WaitTest, BadHandlesFailWith6) {
    HANDLE ev = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    HANDLE closed = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    ASSERT_TRUE(CloseHandle(closed));
    const HANDLE bad[] = {nullptr, INVALID_HANDLE_VALUE, closed, reinterpret_cast<HANDLE>(0x7ffff0)};
    for (HANDLE h : bad) {
        SetLastError(0);
        EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
        const HANDLE mixed[] = {ev, h};
        SetLastError(0);
        EXPECT_EQ(WaitForMultipleObjects(2, mixed, FALSE, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    }
    EXPECT_TRUE(CloseHandle(ev));
}

TEST_F(WaitTest, CountOutsideOneTo64AndDuplicatesInWaitAllFailWith87) {
    std::vector<HANDLE> hs;
    for (int i = 0; i < 65; ++i)
        hs.push_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    SetLastError(0);
    EXPECT_EQ(WaitForMultipleObjects(0, hs.data(), FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    SetLastError(0);
    EXPECT_EQ(WaitForMultipleObjects(65, hs.data(), FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(SetEvent(hs[63]));
    EXPECT_EQ(WaitForMultipleObjects(64, hs.data(), FALSE, 0), WAIT_OBJECT_0 + 63);
    const HANDLE twice[] = {hs[63], hs[63]};
    EXPECT_EQ(WaitForMultipleObjects(2, twice, FALSE, 0), WAIT_OBJECT_0);
    SetLastError(0);
    EXPECT_EQ(WaitForMultipleObjects(2, twice, TRUE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    for (HANDLE h : hs)
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(WaitTest, TimeoutIsHonouredWithinGenerousBounds) {
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const DWORD before = GetTickCount();
    EXPECT_EQ(WaitForSingleObject(ev, 50), WAIT_TIMEOUT);
    const DWORD waited = GetTickCount() - before;
    EXPECT_GE(waited, 45u);
    EXPECT_LT(waited, 5000u);
    EXPECT_TRUE(CloseHandle(ev));
}

// ---- Handles ------------------------------------------------------------------------------

TEST_F(HandleTest, ValuesAreNonNullMultiplesOfFourAndCounted) {
    const long before = qmtp_live_handles();
    HANDLE hs[] = {CreateMutexA(nullptr, FALSE, nullptr), CreateEventA(nullptr, FALSE, FALSE, nullptr),
                   CreateWaitableTimerA(nullptr, FALSE, nullptr)};
    EXPECT_EQ(qmtp_live_handles(), before + 3);
    for (HANDLE h : hs) {
        EXPECT_NE(h, nullptr);
        EXPECT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(h) % 4, 0u);
    }
    EXPECT_NE(hs[0], hs[1]);
    EXPECT_NE(hs[1], hs[2]);
    for (HANDLE h : hs)
        EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(qmtp_live_handles(), before);
}

TEST_F(HandleTest, ClosingTwiceOrClosingNothingFailsWith6) {
    HANDLE e = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    EXPECT_TRUE(CloseHandle(e));
    SetLastError(0);
    EXPECT_FALSE(CloseHandle(e));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    SetLastError(0);
    EXPECT_FALSE(CloseHandle(nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    SetLastError(0);
    EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(HandleTest, ClosingAHandleAThreadWaitsOnDoesNotPullTheObjectAway) {
    // The waiter's handle is closed while it waits; a second handle to the same (named) event
    // then wakes it. A waiter that had not started waiting yet fails with 6: try again, later.
    bool closed_during_wait = false;
    for (DWORD attempt = 1; attempt <= 20 && !closed_during_wait; ++attempt) {
        HANDLE waited = CreateEventA(nullptr, FALSE, FALSE, "PLATFORM_TEST_CLOSE_WHILE_WAITING");
        HANDLE other = CreateEventA(nullptr, FALSE, FALSE, "PLATFORM_TEST_CLOSE_WHILE_WAITING");
        HANDLE started = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        DWORD result = 99, error = 0;
        HANDLE th = StartThread([&] {
            SetEvent(started);
            result = WaitForSingleObject(waited, kBound);
            error = GetLastError();
        });
        ASSERT_EQ(WaitForSingleObject(started, kBound), WAIT_OBJECT_0);
        Sleep(attempt * 5);
        EXPECT_TRUE(CloseHandle(waited));
        Sleep(5);
        EXPECT_TRUE(SetEvent(other));
        JoinThread(th);
        if (result == WAIT_FAILED) {
            EXPECT_EQ(error, static_cast<DWORD>(ERROR_INVALID_HANDLE));
        } else {
            EXPECT_EQ(result, WAIT_OBJECT_0);
            closed_during_wait = true;
        }
        EXPECT_TRUE(CloseHandle(other));
        EXPECT_TRUE(CloseHandle(started));
    }
    EXPECT_TRUE(closed_during_wait);
}

TEST_F(HandleTest, ThreadHandleClosedEarlyLeavesTheThreadRunning) {
    HANDLE go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE th = StartThread([&] {
        WaitForSingleObject(go, kBound);
        SetEvent(done);
    });
    EXPECT_TRUE(CloseHandle(th));
    EXPECT_TRUE(SetEvent(go));
    EXPECT_EQ(WaitForSingleObject(done, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(go));
    EXPECT_TRUE(CloseHandle(done));
}

struct CountingFile : qmtp::FileObject {
    std::atomic<int> *closes;
    explicit CountingFile(std::atomic<int> *c) : closes(c) {}
    void on_close() override { ++*closes; }
};

TEST_F(HandleTest, FileObjectsShareTheTableButCannotBeWaitedOn) {
    std::atomic<int> closes{0};
    auto file = std::make_shared<CountingFile>(&closes);
    const long before = qmtp_live_handles();
    HANDLE h = qmtp::register_file(file);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(qmtp_live_handles(), before + 1);
    EXPECT_EQ(qmtp::lookup_file(h), file);
    SetLastError(0);
    EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(SetEvent(h));
    HANDLE ev = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    SetLastError(0);
    EXPECT_EQ(qmtp::lookup_file(ev), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(CloseHandle(ev));
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(closes.load(), 1);
    EXPECT_EQ(qmtp::lookup_file(h), nullptr);
    EXPECT_FALSE(CloseHandle(h));
    EXPECT_EQ(closes.load(), 1);
    EXPECT_EQ(qmtp_live_handles(), before);
}

} // namespace
