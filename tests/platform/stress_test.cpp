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
    std::vector<HANDLE> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.push_back(StartThread([&] {
            for (int i = 0; i < kRounds; ++i) {
                if (WaitForSingleObject(m, kBound) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
                ++counter;
                if (!ReleaseMutex(m))
                    ++failures;
            }
        }));
    for (HANDLE t : ts)
        JoinThread(t);
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
    std::vector<HANDLE> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.push_back(StartThread([&, t] {
            for (int lap = 0; lap < kLaps; ++lap) {
                if (WaitForSingleObject(ev[t], kBound) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
                ++passes[t];
                SetEvent(ev[(t + 1) % kThreads]);
            }
        }));
    SetEvent(ev[0]);
    for (HANDLE t : ts)
        JoinThread(t);
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
    std::vector<HANDLE> ts;
    for (int t = 0; t < kThreads / 2; ++t) {
        ts.push_back(StartThread([&] {
            // Producer: takes the free slot and the mutex together.
            const HANDLE both[] = {space, m};
            for (;;) {
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
            }
        }));
        ts.push_back(StartThread([&] {
            // Consumer: an item or the stop signal, whichever comes first.
            const HANDLE either[] = {stop, item};
            for (;;) {
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
        }));
    }
    for (HANDLE t : ts)
        JoinThread(t);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(produced, kItems);
    EXPECT_EQ(consumed, kItems);
    for (HANDLE h : {m, item, space, stop})
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(StressTest, FaultCountersCountEveryCallFromEveryThread) {
    constexpr int kCalls = 1000;
    HANDLE e = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    qmtp_fault_clear();
    qmtp_fault_set("SetEvent", kThreads * kCalls, ERROR_GEN_FAILURE);
    std::atomic<int> failed{0};
    std::vector<HANDLE> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.push_back(StartThread([&] {
            for (int i = 0; i < kCalls; ++i)
                if (!SetEvent(e))
                    ++failed;
        }));
    for (HANDLE t : ts)
        JoinThread(t);
    EXPECT_EQ(qmtp_call_count("SetEvent"), static_cast<unsigned>(kThreads * kCalls));
    EXPECT_EQ(failed.load(), 1);
    EXPECT_TRUE(CloseHandle(e));
}

} // namespace
