// One probe, as the plug-in issues it: DeviceIoControl(IOCTL_STORAGE_CHECK_VERIFY) overlapped,
// then GetOverlappedResult. Baseline: the same loop's bookkeeping without the device calls.
#include "qmtplat.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

HANDLE open_disk(DWORD n) {
    std::string path = "\\\\.\\PHYSICALDRIVE" + std::to_string(n);
    return CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, 3, nullptr, OPEN_EXISTING,
                       FILE_FLAG_OVERLAPPED, nullptr);
}

void BM_Baseline_OverlappedSetup(benchmark::State &state) {
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (auto _ : state) {
        OVERLAPPED ov{};
        ov.hEvent = ev;
        ResetEvent(ev);
        benchmark::DoNotOptimize(ov);
    }
    CloseHandle(ev);
}
BENCHMARK(BM_Baseline_OverlappedSetup);

void BM_SimOkProbe(benchmark::State &state) {
    qmtp::sim::load_text("disk 0 ok\n");
    HANDLE d = open_disk(0);
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (auto _ : state) {
        OVERLAPPED ov{};
        ov.hEvent = ev;
        ResetEvent(ev);
        if (!DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, &ov)) {
            state.SkipWithError("probe refused");
            break;
        }
        DWORD bytes = 0;
        benchmark::DoNotOptimize(GetOverlappedResult(d, &ov, &bytes, FALSE));
    }
    CloseHandle(ev);
    CloseHandle(d);
}
BENCHMARK(BM_SimOkProbe);

// A probe that goes pending and completes on the backend's timer thread (delay 0): the cost of
// the hand-over between threads.
void BM_SimPendingProbe(benchmark::State &state) {
    qmtp::sim::load_text("disk 1 delay 0\n");
    HANDLE d = open_disk(1);
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (auto _ : state) {
        OVERLAPPED ov{};
        ov.hEvent = ev;
        DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, &ov);
        WaitForSingleObject(ev, INFINITE);
        DWORD bytes = 0;
        benchmark::DoNotOptimize(GetOverlappedResult(d, &ov, &bytes, FALSE));
    }
    CloseHandle(ev);
    CloseHandle(d);
}
BENCHMARK(BM_SimPendingProbe);

} // namespace

BENCHMARK_MAIN();
