// Many threads signalling and waiting on shared objects for a bounded number of rounds; the
// counts at the end must be exact. Meant for ThreadSanitizer as much as for the plain build.
#include "platform_test.h"

#include <atomic>
#include <vector>

namespace {

constexpr DWORD kBound = 20000;
constexpr int kThreads = 8;

using StressTest = PlatformTest;

TEST_F(StressTest, MutexSerialisesPlainCounterUpdates) {
    constexpr int kRounds = 2000;
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    long counter = 0; // deliberately not atomic: only the mutex protects it
    std::atomic<int> failures{0};
    RunThreads(kThreads, [&](int) {
        for (int i = 0; i < kRounds; ++i) {
            if (WaitForSingleObject(m, kBound) != WAIT_OBJECT_0) {
                ++failures;
                return;
            }
            ++counter;
            if (!ReleaseMutex(m))
                ++failures;
        }
    });
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_TRUE(CloseHandle(m));
}

TEST_F(StressTest, TokenPassesRoundARingOfAutoResetEvents) {
    constexpr int kLaps = 300;
    std::vector<HANDLE> ev;
    for (int i = 0; i < kThreads; ++i)
        ev.push_back(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    std::vector<int> passes(kThreads, 0);
    std::atomic<int> failures{0};
    SetEvent(ev[0]);
    RunThreads(kThreads, [&](int t) {
        for (int lap = 0; lap < kLaps; ++lap) {
            if (WaitForSingleObject(ev[t], kBound) != WAIT_OBJECT_0) {
                ++failures;
                return;
            }
            ++passes[t];
            SetEvent(ev[(t + 1) % kThreads]);
        }
    });
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(passes[t], kLaps) << "thread " << t;
    // The last pass hands the token back to thread 0, which no longer waits.
    EXPECT_EQ(WaitForSingleObject(ev[0], 0), WAIT_OBJECT_0);
    for (HANDLE h : ev)
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(StressTest, ProducersAndConsumersMeetOverWaitAnyAndWaitAll) {
    constexpr int kItems = 1500;
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE item = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE space = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    HANDLE stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    long produced = 0, consumed = 0;
    std::atomic<int> failures{0};
    // Even threads produce, taking the free slot and the mutex together; odd ones consume an item
    // or stop, whichever comes first.
    RunThreads(kThreads, [&](int t) {
        const HANDLE both[] = {space, m}, either[] = {stop, item};
        for (;;) {
            if (t % 2 == 0) {
                if (WaitForMultipleObjects(2, both, TRUE, kBound) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
                const bool done = produced == kItems;
                if (!done)
                    ++produced;
                ReleaseMutex(m);
                SetEvent(done ? space : item);
                if (done)
                    return;
            } else {
                const DWORD r = WaitForMultipleObjects(2, either, FALSE, kBound);
                if (r == WAIT_OBJECT_0)
                    return;
                if (r != WAIT_OBJECT_0 + 1 || WaitForSingleObject(m, kBound) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
                ++consumed;
                const bool last = consumed == kItems;
                ReleaseMutex(m);
                SetEvent(space);
                if (last)
                    SetEvent(stop);
            }
        }
    });
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(produced, kItems);
    EXPECT_EQ(consumed, kItems);
    for (HANDLE h : {m, item, space, stop})
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(StressTest, FaultCountersCountEveryCallFromEveryThread) {
    constexpr int kCalls = 1000;
    HANDLE e = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    qmtp_fault_set("SetEvent", kThreads * kCalls, ERROR_GEN_FAILURE);
    std::atomic<int> failed{0};
    RunThreads(kThreads, [&](int) {
        for (int i = 0; i < kCalls; ++i)
            failed += !SetEvent(e);
    });
    EXPECT_EQ(qmtp_call_count("SetEvent"), static_cast<unsigned>(kThreads * kCalls));
    EXPECT_EQ(failed.load(), 1);
    EXPECT_TRUE(CloseHandle(e));
}

} // namespace
