// Mutexes, events, waitable timers, thread handles and the two waits, alone and mixed.
#include "platform_test.h"

#include "internal.h"

#include <atomic>
#include <chrono>
#include <string>
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

// Another thread that takes `m` and holds it until let_go(); it then releases the mutex, or, when
// told to abandon it, just ends. Joined when it goes out of scope.
struct OtherOwner {
    HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE thread;
    OtherOwner(HANDLE m, bool release) {
        HANDLE taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        thread = StartThread([m, release, taken, go = go] {
            WaitForSingleObject(m, 0);
            SetEvent(taken);
            WaitForSingleObject(go, kBound);
            if (release) ReleaseMutex(m);
        });
        EXPECT_EQ(WaitForSingleObject(taken, kBound), WAIT_OBJECT_0);
        CloseHandle(taken);
    }
    void let_go() { SetEvent(go); }
    ~OtherOwner() {
        let_go();
        JoinThread(thread);
        CloseHandle(go);
    }
};

// ---- Mutexes ------------------------------------------------------------------------------

TEST_F(MutexTest, OwnershipIsRecursiveAndOnlyTheOwnerReleases) {
    HANDLE m = CreateMutexA(nullptr, TRUE, nullptr);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(WaitForSingleObject(m, 0), WAIT_OBJECT_0);
    DWORD taken = 99, release_error = 0;
    BOOL released = FALSE;
    auto other = [&] {
        taken = WaitForSingleObject(m, 30);
        released = ReleaseMutex(m);
        release_error = GetLastError();
    };
    for (int held = 2; held >= 0; --held) {
        SCOPED_TRACE("held " + std::to_string(held) + " times");
        JoinThread(StartThread(other));
        EXPECT_EQ(taken, held ? WAIT_TIMEOUT : WAIT_OBJECT_0);
        EXPECT_EQ(released, held ? FALSE : TRUE);
        if (held) {
            EXPECT_EQ(release_error, static_cast<DWORD>(ERROR_NOT_OWNER));
            EXPECT_TRUE(ReleaseMutex(m));
        }
    }
    SetLastError(0);
    EXPECT_FALSE(ReleaseMutex(m));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_OWNER));
    EXPECT_TRUE(CloseHandle(m));
}

// However a thread came to own a mutex, and however deeply, ending abandons all of it: the next
// taker is told once, owns it once, and then the mutex is an ordinary one again.
TEST_F(MutexTest, AbandonedOnceWhenTheOwnerThreadEnds) {
    struct Case {
        const char *how;
        bool std_thread; // a thread not started by _beginthreadex
        BOOL created_owned;
    };
    for (const Case &c : {Case{"taken by a wait", false, FALSE}, Case{"created owned, taken again", false, TRUE},
                          Case{"taken on a std::thread", true, FALSE}}) {
        SCOPED_TRACE(c.how);
        HANDLE m = nullptr;
        DWORD taken = 99;
        auto owner = [&] {
            m = CreateMutexA(nullptr, c.created_owned, nullptr);
            taken = WaitForSingleObject(m, 0);
        };
        if (c.std_thread)
            std::thread(owner).join();
        else
            JoinThread(StartThread(owner));
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(taken, WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(m, kBound), WAIT_ABANDONED);
        EXPECT_TRUE(ReleaseMutex(m));
        EXPECT_FALSE(ReleaseMutex(m));
        EXPECT_EQ(WaitForSingleObject(m, kBound), WAIT_OBJECT_0);
        EXPECT_TRUE(ReleaseMutex(m));
        EXPECT_TRUE(CloseHandle(m));
    }
}

TEST_F(MutexTest, WaiterBlockedOnOwnedMutexGetsAbandonedWhenOwnerEnds) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    DWORD result = 0;
    {
        OtherOwner owner(m, false);
        HANDLE waiter = StartThread([&] {
            result = WaitForSingleObject(m, kBound);
            ReleaseMutex(m);
        });
        owner.let_go();
        JoinThread(waiter);
    }
    EXPECT_EQ(result, WAIT_ABANDONED);
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

// ---- Events and timers --------------------------------------------------------------------

// An auto-reset event or timer satisfies one wait per signal, however often signalled; a manual
// one stays signalled. Neither is signalled before its first signal.
TEST_F(EventTest, AutoResetSatisfiesOneWaitManualResetStaysSignalled) {
    struct Case {
        const char *kind;
        bool timer;
        BOOL manual;
    };
    for (const Case &c : {Case{"auto-reset event", false, FALSE}, Case{"manual-reset event", false, TRUE},
                          Case{"auto-reset timer", true, FALSE}, Case{"manual-reset timer", true, TRUE}}) {
        SCOPED_TRACE(c.kind);
        HANDLE h = c.timer ? CreateWaitableTimerA(nullptr, c.manual, nullptr) : CreateEventA(nullptr, c.manual, FALSE, nullptr);
        ASSERT_NE(h, nullptr);
        const LARGE_INTEGER due = DueIn(10);
        auto signal = [&] { return c.timer ? SetWaitableTimer(h, &due, 0, nullptr, nullptr, FALSE) : SetEvent(h); };
        EXPECT_EQ(WaitForSingleObject(h, 20), WAIT_TIMEOUT);
        EXPECT_TRUE(signal());
        EXPECT_TRUE(signal());
        EXPECT_EQ(WaitForSingleObject(h, kBound), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(h, 30), c.manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObject(h, 0), c.manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        if (!c.timer) {
            EXPECT_TRUE(ResetEvent(h));
            EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_TIMEOUT);
        }
        EXPECT_TRUE(CloseHandle(h));
    }
}

// One SetEvent releases exactly one of several waiters of an auto-reset event, and all of them
// for a manual-reset one.
TEST_F(EventTest, SetEventReleasesOneAutoResetWaiterOrEveryManualResetWaiter) {
    constexpr int kWaiters = 3;
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual ? "manual reset" : "auto reset");
        HANDLE e = CreateEventA(nullptr, manual, FALSE, nullptr);
        std::atomic<int> woken{0};
        std::vector<HANDLE> ts;
        for (int i = 0; i < kWaiters; ++i)
            ts.push_back(StartThread([&] { woken += WaitForSingleObject(e, 300) == WAIT_OBJECT_0; }));
        EXPECT_TRUE(SetEvent(e));
        for (HANDLE t : ts)
            JoinThread(t);
        EXPECT_EQ(woken.load(), manual ? kWaiters : 1);
        EXPECT_EQ(WaitForSingleObject(e, 0), manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        EXPECT_TRUE(CloseHandle(e));
    }
}

// Cancelling stops a periodic timer, and keeps the signal of one that has already fired.
TEST_F(TimerTest, CancelStopsTheTimerAndKeepsItsSignal) {
    HANDLE t = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    const LARGE_INTEGER due = DueIn(5);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 10, nullptr, nullptr, FALSE));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(WaitForSingleObject(t, kBound), WAIT_OBJECT_0) << "period " << i;
    EXPECT_TRUE(CancelWaitableTimer(t));
    WaitForSingleObject(t, 0); // a period may have ended just before the cancel
    const DWORD before = GetTickCount();
    EXPECT_EQ(WaitForSingleObject(t, 100), WAIT_TIMEOUT);
    // The time-out itself is honoured, within generous bounds.
    EXPECT_GE(GetTickCount() - before, 90u);
    EXPECT_LT(GetTickCount() - before, 5000u);

    HANDLE fired = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    ASSERT_TRUE(SetWaitableTimer(fired, &due, 0, nullptr, nullptr, FALSE));
    Sleep(20); // the due time passes with nobody looking
    EXPECT_TRUE(CancelWaitableTimer(fired));
    EXPECT_EQ(WaitForSingleObject(fired, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(fired));
    EXPECT_TRUE(CloseHandle(t));
}

// Setting a timer again resets its signal and replaces its due time, given relative or absolute
// (in FILETIME units), even for a thread already waiting.
TEST_F(TimerTest, RearmingResetsTheSignalAndReplacesTheDueTime) {
    const auto unix_100ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count() /
                            100;
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    LARGE_INTEGER due;
    due.QuadPart = unix_100ns + 116444736000000000LL + 20 * 10000; // 20 ms from now
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

    due = DueIn(60000);
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    due.QuadPart = 0; // long past: signalled at once
    ASSERT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(t, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(started));
    EXPECT_TRUE(CloseHandle(t));
}

// ---- Threads ------------------------------------------------------------------------------

TEST_F(ThreadTest, IdAndLastErrorBelongToEachThread) {
    const DWORD main_id = GetCurrentThreadId();
    EXPECT_NE(main_id, 0u);
    SetLastError(1234);
    unsigned reported = 0;
    DWORD seen = 0, seen_again = 0, error_before = 99, error_after = 0;
    JoinThread(StartThread(
        [&] {
            seen = GetCurrentThreadId();
            seen_again = GetCurrentThreadId();
            error_before = GetLastError();
            SetLastError(ERROR_NOT_READY);
            error_after = GetLastError();
        },
        &reported));
    EXPECT_EQ(seen, reported);
    EXPECT_EQ(seen_again, seen);
    EXPECT_NE(seen, main_id);
    EXPECT_NE(seen, 0u);
    EXPECT_EQ(GetCurrentThreadId(), main_id);
    EXPECT_EQ(error_before, 0u);
    EXPECT_EQ(error_after, static_cast<DWORD>(ERROR_NOT_READY));
    EXPECT_EQ(GetLastError(), 1234u);
}

// ---- Waits --------------------------------------------------------------------------------

TEST_F(WaitTest, AnyOverAMixOfKindsTakesOnlyTheObjectItReturns) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE ev = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE tm = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    OtherOwner owner(m, true);
    const HANDLE hs[] = {m, ev, tm, owner.thread};
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, 20), WAIT_TIMEOUT);

    const LARGE_INTEGER due = DueIn(10);
    ASSERT_TRUE(SetWaitableTimer(tm, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, kBound), WAIT_OBJECT_0 + 2);
    EXPECT_TRUE(SetEvent(ev));
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, kBound), WAIT_OBJECT_0 + 1);
    owner.let_go();
    // The thread releases the mutex and ends; the mutex (index 0) is returned first.
    EXPECT_EQ(WaitForMultipleObjects(4, hs, FALSE, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(owner.thread, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_FALSE(ReleaseMutex(m));
    for (HANDLE h : {m, ev, tm})
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
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_FALSE(ReleaseMutex(m));
    for (HANDLE h : {m, autoev, manualev, tm, th})
        EXPECT_TRUE(CloseHandle(h));
}

// Wait-all takes nothing while one object is not ready, and completes once another thread makes
// the last one ready.
TEST_F(WaitTest, AllTakesNothingUntilEverythingIsReady) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE ev = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HANDLE hs[] = {m, ev};
    {
        // With the mutex held elsewhere, a signalled auto-reset event is left signalled.
        OtherOwner owner(m, true);
        EXPECT_TRUE(SetEvent(ev));
        EXPECT_EQ(WaitForMultipleObjects(2, hs, TRUE, 20), WAIT_TIMEOUT);
        owner.let_go();
        EXPECT_EQ(WaitForMultipleObjects(2, hs, TRUE, kBound), WAIT_OBJECT_0);
    }
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(m));
    for (HANDLE h : {m, ev})
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(WaitTest, AbandonedMutexIsReportedByItsIndex) {
    for (BOOL wait_all : {FALSE, TRUE}) {
        SCOPED_TRACE(wait_all ? "wait all" : "wait any");
        // Signalled only for wait-all, which needs it; wait-any must come to the mutex.
        HANDLE ev = CreateEventA(nullptr, TRUE, wait_all, nullptr);
        HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
        JoinThread(StartThread([&] { WaitForSingleObject(m, 0); }));
        const HANDLE hs[] = {ev, m};
        EXPECT_EQ(WaitForMultipleObjects(2, hs, wait_all, kBound), WAIT_ABANDONED_0 + 1);
        EXPECT_EQ(WaitForMultipleObjects(2, hs, wait_all, kBound), WAIT_OBJECT_0 + (wait_all ? 0 : 1));
        EXPECT_TRUE(ReleaseMutex(m));
        EXPECT_TRUE(ReleaseMutex(m));
        EXPECT_TRUE(CloseHandle(m));
        EXPECT_TRUE(CloseHandle(ev));
    }
}

TEST_F(WaitTest, UpTo64HandlesLowestIndexFirstAndBadArgumentsFail) {
    std::vector<HANDLE> hs;
    for (int i = 0; i < 65; ++i)
        hs.push_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    EXPECT_TRUE(SetEvent(hs[63]));
    const HANDLE twice[] = {hs[63], hs[63]};
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    const LARGE_INTEGER due = DueIn(10000);
    ExpectEachFails({
        {"no handles", [&] { return WaitForMultipleObjects(0, hs.data(), FALSE, 0) == WAIT_FAILED; }, ERROR_INVALID_PARAMETER},
        {"65 handles", [&] { return WaitForMultipleObjects(65, hs.data(), FALSE, 0) == WAIT_FAILED; }, ERROR_INVALID_PARAMETER},
        {"one object twice in wait-all", [&] { return WaitForMultipleObjects(2, twice, TRUE, 0) == WAIT_FAILED; },
         ERROR_INVALID_PARAMETER},
        {"timer completion routine",
         [&] { return !SetWaitableTimer(t, &due, 0, [](LPVOID, DWORD, DWORD) {}, nullptr, FALSE); }, ERROR_NOT_SUPPORTED},
        {"negative timer period", [&] { return !SetWaitableTimer(t, &due, -1, nullptr, nullptr, FALSE); },
         ERROR_INVALID_PARAMETER},
        {"no start routine", [] { return _beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr) == 0; },
         ERROR_INVALID_PARAMETER},
    });
    // The limit itself is fine, the lowest signalled index wins, and an object may be in wait-any
    // twice.
    EXPECT_EQ(WaitForMultipleObjects(64, hs.data(), FALSE, 0), WAIT_OBJECT_0 + 63);
    EXPECT_TRUE(SetEvent(hs[62]));
    EXPECT_TRUE(SetEvent(hs[5]));
    EXPECT_EQ(WaitForMultipleObjects(64, hs.data(), FALSE, 0), WAIT_OBJECT_0 + 5);
    EXPECT_EQ(WaitForMultipleObjects(2, twice, FALSE, 0), WAIT_OBJECT_0);
    // Waking the machine is not supported: the timer is set all the same, and the caller told.
    EXPECT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, TRUE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));
    hs.push_back(t);
    for (HANDLE h : hs)
        EXPECT_TRUE(CloseHandle(h));
}

// ---- Handles ------------------------------------------------------------------------------

struct CountingFile : qmtp::FileObject {
    std::atomic<int> *closes;
    explicit CountingFile(std::atomic<int> *c) : closes(c) {}
    void on_close() override { ++*closes; }
};

// Every call given no object, or an object of a kind it does not take, fails with 6.
TEST_F(HandleTest, ValuesAreCountedAndCallsOnNoObjectOrTheWrongKindFailWith6) {
    enum : unsigned { kNone = 0, kMutex = 1, kEvent = 2, kTimer = 4, kFile = 8, kWaitable = 7, kAny = 15 };
    const long live = qmtp_live_handles();
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE e = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    HANDLE closed = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    ASSERT_TRUE(CloseHandle(closed));
    std::atomic<int> closes{0};
    HANDLE file = qmtp::register_file(std::make_shared<CountingFile>(&closes));
    const LARGE_INTEGER due = DueIn(10);
    // Handles are counted, distinct, never NULL nor INVALID_HANDLE_VALUE, and multiples of four.
    EXPECT_EQ(qmtp_live_handles(), live + 4);
    for (HANDLE h : {m, e, t, file}) {
        EXPECT_NE(h, nullptr);
        EXPECT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(h) % 4, 0u);
    }
    EXPECT_TRUE(m != e && e != t && t != file);
    const struct {
        const char *what;
        HANDLE h;
        unsigned kind;
    } handles[] = {{"NULL", nullptr, kNone},       {"INVALID_HANDLE_VALUE", INVALID_HANDLE_VALUE, kNone},
                   {"closed", closed, kNone},     {"never issued", reinterpret_cast<HANDLE>(0x7ffff0), kNone},
                   {"mutex", m, kMutex},          {"event", e, kEvent},
                   {"timer", t, kTimer},          {"file", file, kFile}};
    const struct {
        const char *name;
        unsigned takes;
        std::function<bool(HANDLE)> fails;
    } calls[] = {
        {"WaitForSingleObject", kWaitable, [](HANDLE h) { return WaitForSingleObject(h, 0) == WAIT_FAILED; }},
        {"WaitForMultipleObjects", kWaitable,
         [&](HANDLE h) {
             const HANDLE hs[] = {e, h};
             return WaitForMultipleObjects(2, hs, FALSE, 0) == WAIT_FAILED;
         }},
        {"CloseHandle", kAny, [](HANDLE h) { return !CloseHandle(h); }},
        {"ReleaseMutex", kMutex, [](HANDLE h) { return !ReleaseMutex(h); }},
        {"SetEvent", kEvent, [](HANDLE h) { return !SetEvent(h); }},
        {"ResetEvent", kEvent, [](HANDLE h) { return !ResetEvent(h); }},
        {"SetWaitableTimer", kTimer, [&](HANDLE h) { return !SetWaitableTimer(h, &due, 0, nullptr, nullptr, FALSE); }},
        {"CancelWaitableTimer", kTimer, [](HANDLE h) { return !CancelWaitableTimer(h); }},
    };
    for (const auto &c : calls)
        for (const auto &h : handles) {
            if (h.kind & c.takes)
                continue;
            SCOPED_TRACE(std::string(c.name) + " on " + h.what);
            SetLastError(0);
            EXPECT_TRUE(c.fails(h.h));
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
        }
    // The failed wait-any took nothing; a file is found only through its own handle, and closed once.
    EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_NE(qmtp::lookup_file(file), nullptr);
    SetLastError(0);
    EXPECT_EQ(qmtp::lookup_file(e), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    for (HANDLE h : {m, e, t, file})
        EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(qmtp::lookup_file(file), nullptr);
    EXPECT_FALSE(CloseHandle(file));
    EXPECT_EQ(closes.load(), 1);
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

} // namespace
