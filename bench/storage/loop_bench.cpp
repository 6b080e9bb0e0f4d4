// Probe latency on a real loop device through the linux backend (root only): the plug-in's probe
// (overlapped DeviceIoControl, wait for the event, GetOverlappedResult), timed one by one, with
// p50/p99. Baseline: the 4 KiB O_DIRECT read of sector 0 alone, on the caller's thread.
#include "qmtplat.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct LoopDisk {
    std::string file, dev;
    int number = -1;
    LoopDisk() {
        if (::geteuid() != 0) return;
        char tmpl[] = "/tmp/qmt-bench-XXXXXX";
        int fd = ::mkstemp(tmpl);
        if (fd < 0) return;
        ::close(fd);
        file = tmpl;
        if (::truncate(tmpl, 16 << 20) != 0) return;
        FILE *p = ::popen(("losetup -f --show " + file + " 2>/dev/null").c_str(), "r");
        char buf[128] = {};
        if (p && std::fgets(buf, sizeof buf, p)) dev = buf;
        if (p) ::pclose(p);
        while (!dev.empty() && dev.back() == '\n') dev.pop_back();
        if (dev.rfind("/dev/loop", 0) == 0) number = 1000 + std::atoi(dev.c_str() + 9);
    }
    ~LoopDisk() {
        if (!dev.empty()) std::system(("losetup -d " + dev).c_str());
        if (!file.empty()) ::unlink(file.c_str());
    }
};

LoopDisk *g_loop = nullptr;

void report(benchmark::State &state, std::vector<double> &us) {
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    state.counters["p50_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[us.size() * 99 / 100];
}

void BM_Baseline_DirectRead(benchmark::State &state) {
    if (!g_loop || g_loop->number < 0) return state.SkipWithError("needs root and a loop device");
    int fd = ::open(g_loop->dev.c_str(), O_RDONLY | O_DIRECT);
    void *buf = std::aligned_alloc(4096, 4096);
    std::vector<double> us;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(::pread(fd, buf, 4096, 0));
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        state.SetIterationTime(s);
        us.push_back(s * 1e6);
    }
    std::free(buf);
    ::close(fd);
    report(state, us);
}
BENCHMARK(BM_Baseline_DirectRead)->UseManualTime()->Iterations(2000);

void BM_LoopProbe(benchmark::State &state) {
    if (!g_loop || g_loop->number < 0) return state.SkipWithError("needs root and a loop device");
    std::string path = "\\\\.\\PHYSICALDRIVE" + std::to_string(g_loop->number);
    HANDLE d = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, 3, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
    if (d == INVALID_HANDLE_VALUE) return state.SkipWithError("cannot open the loop disk");
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::vector<double> us;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        OVERLAPPED ov{};
        ov.hEvent = ev;
        if (!DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, &ov) &&
            GetLastError() == ERROR_IO_PENDING)
            WaitForSingleObject(ev, INFINITE);
        DWORD bytes = 0;
        if (!GetOverlappedResult(d, &ov, &bytes, FALSE)) {
            state.SkipWithError("probe failed");
            break;
        }
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        state.SetIterationTime(s);
        us.push_back(s * 1e6);
    }
    CloseHandle(ev);
    CloseHandle(d);
    report(state, us);
}
BENCHMARK(BM_LoopProbe)->UseManualTime()->Iterations(2000);

} // namespace

int main(int argc, char **argv) {
    ::setenv("QMT_STORAGE", "linux", 1);
    LoopDisk loop;
    g_loop = &loop;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
