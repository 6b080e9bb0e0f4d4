// What the Win32 layer costs over std::mutex / std::condition_variable for the same job.
#include "qmtplat.h"
#include "qmtwin.h"

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

// ---- Mutex, one thread --------------------------------------------------------------------

void Win32MutexUncontended(benchmark::State &state) {
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    for (auto _ : state) {
        WaitForSingleObject(m, INFINITE);
        ReleaseMutex(m);
    }
    CloseHandle(m);
}
BENCHMARK(Win32MutexUncontended);

void StdMutexUncontended(benchmark::State &state) {
    std::mutex m;
    for (auto _ : state) {
        m.lock();
        m.unlock();
    }
}
BENCHMARK(StdMutexUncontended);

// ---- Mutex, two threads -------------------------------------------------------------------

HANDLE SharedMutex() {
    static HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    return m;
}

void Win32MutexContended(benchmark::State &state) {
    HANDLE m = SharedMutex();
    for (auto _ : state) {
        WaitForSingleObject(m, INFINITE);
        ReleaseMutex(m);
    }
}
BENCHMARK(Win32MutexContended)->Threads(2)->UseRealTime();

void StdMutexContended(benchmark::State &state) {
    static std::mutex m;
    for (auto _ : state) {
        m.lock();
        m.unlock();
    }
}
BENCHMARK(StdMutexContended)->Threads(2)->UseRealTime();

// ---- Signal-to-wake: a round trip between two threads ---------------------------------------

void Win32EventPingPong(benchmark::State &state) {
    HANDLE ping = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE pong = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            WaitForSingleObject(ping, INFINITE);
            if (stop.load())
                return;
            SetEvent(pong);
        }
    });
    for (auto _ : state) {
        SetEvent(ping);
        WaitForSingleObject(pong, INFINITE);
    }
    stop = true;
    SetEvent(ping);
    partner.join();
    CloseHandle(ping);
    CloseHandle(pong);
    state.SetLabel("one round trip = two wakes");
}
BENCHMARK(Win32EventPingPong)->UseRealTime();

void StdCondvarPingPong(benchmark::State &state) {
    std::mutex m;
    std::condition_variable cv;
    int turn = 0; // 0: main's turn, 1: partner's turn, 2: stop
    std::thread partner([&] {
        std::unique_lock<std::mutex> lk(m);
        for (;;) {
            cv.wait(lk, [&] { return turn != 0; });
            if (turn == 2)
                return;
            turn = 0;
            cv.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lk(m);
        turn = 1;
        cv.notify_all();
        cv.wait(lk, [&] { return turn == 0; });
    }
    {
        std::lock_guard<std::mutex> g(m);
        turn = 2;
    }
    cv.notify_all();
    partner.join();
    state.SetLabel("one round trip = two wakes");
}
BENCHMARK(StdCondvarPingPong)->UseRealTime();

// ---- Waiting on 64 objects, only the last one signalled -------------------------------------

void Win32WaitAny64LastSignalled(benchmark::State &state) {
    std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> hs{};
    for (HANDLE &h : hs)
        h = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    SetEvent(hs.back());
    for (auto _ : state)
        benchmark::DoNotOptimize(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, hs.data(), FALSE, INFINITE));
    for (HANDLE h : hs)
        CloseHandle(h);
}
BENCHMARK(Win32WaitAny64LastSignalled);

void StdScan64FlagsUnderMutex(benchmark::State &state) {
    std::mutex m;
    std::array<bool, MAXIMUM_WAIT_OBJECTS> flags{};
    flags.back() = true;
    for (auto _ : state) {
        std::lock_guard<std::mutex> g(m);
        size_t i = 0;
        while (i < flags.size() && !flags[i])
            ++i;
        benchmark::DoNotOptimize(i);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(StdScan64FlagsUnderMutex);

void Win32WaitAll64Signalled(benchmark::State &state) {
    std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> hs{};
    for (HANDLE &h : hs)
        h = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    for (auto _ : state)
        benchmark::DoNotOptimize(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, hs.data(), TRUE, INFINITE));
    for (HANDLE h : hs)
        CloseHandle(h);
}
BENCHMARK(Win32WaitAll64Signalled);

} // namespace
