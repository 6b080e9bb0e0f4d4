// plugin_np_bench - the disknp service on simulated disks with the recording doubles of the
// cluster libraries (their recordings are cleared outside the timed parts).
#include "doubles.h"
#include "qmtplat.h"
#include "sdw.h"

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string vol(unsigned n)
{
    char text[40];
    std::snprintf(text, sizeof text, "6e700000-0000-0000-0000-%012u", n);
    return text;
}

std::string name_of(int i) { return "np" + std::to_string(i); }

// A disknp service with `count` resources np1..npN, each on its own simulated disk.
void setup_service(int count, int interval)
{
    doubles::reset();
    qmtp::sim::reset();
    doubles::set_text("/root/monitor/sdw/type", "sdw");
    doubles::set_int("/root/monitor/sdw/log/level", 4);
    doubles::set_int("/root/monitor/sdw/log/size", 10000000);
    doubles::set_int("/root/cluster/delaywarn/heartbeat", 80);
    std::vector<std::string> names;
    for (int i = 1; i <= count; i++) {
        const std::string name = name_of(i);
        const std::string prefix = "/root/networkpartition/disknp@" + name + "/";
        names.push_back(name);
        doubles::set_int(prefix + "timeout", 5);
        doubles::set_int(prefix + "interval", interval);
        doubles::set_int(prefix + "count", 0);
        doubles::set_int(prefix + "device", i);
        doubles::set_text("/root/server@node1/device@" + std::to_string(i) + "/info", vol(static_cast<unsigned>(i)));
        qmtp::sim::set_volume(vol(static_cast<unsigned>(i)), {static_cast<DWORD>(i)});
        qmtp::sim::set_disk(static_cast<DWORD>(i), {});
    }
    doubles::set_names("/root/networkpartition/disknp", names);
    if (InitNpRscDll("qmtsdw", 0, 0) != 0) std::abort();
}

void teardown_service()
{
    if (UninitNpRscDll("qmtsdw", 0, 0) != 0) std::abort();
    doubles::reset();
}

double cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long rss_kib()
{
    long pages = 0, resident = 0;
    FILE *f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// From the start request to the first stored result of the first cycle. The worker arms its
// timer for one second first, so 1000 ms is the floor; the rest is the worker's own cost.
void BM_StartToFirstResult(benchmark::State &state)
{
    setup_service(1, 60);
    for (auto _ : state) {
        const unsigned probes = qmtp::sim::probe_count(1);
        const auto begin = std::chrono::steady_clock::now();
        NpMontrStatusChange("disknp", "np1", SDW_CTRL_START);
        // The cycle has stored its result when it is back in Waiting after the probe.
        while (qmtp::sim::probe_count(1) == probes || GetCheckPoint("np1") != SDW_CP_WAITING) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
        NpMontrStatusChange("disknp", "np1", SDW_CTRL_STOP);
        doubles::clear_calls();
    }
    teardown_service();
}
BENCHMARK(BM_StartToFirstResult)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// The status query of a running worker, its configuration unchanged.
void BM_DoNpMontr(benchmark::State &state)
{
    setup_service(1, 60);
    NpMontrStatusChange("disknp", "np1", SDW_CTRL_START);
    int calls = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(DoNpMontr("disknp", "np1"));
        if (++calls % 4096 == 0) {
            state.PauseTiming();
            doubles::clear_calls();
            state.ResumeTiming();
        }
    }
    NpMontrStatusChange("disknp", "np1", SDW_CTRL_STOP);
    teardown_service();
}
BENCHMARK(BM_DoNpMontr);

// Baseline: the cheapest export, one lookup and three trace lines.
void BM_GetCheckPoint(benchmark::State &state)
{
    setup_service(1, 60);
    int calls = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(GetCheckPoint("np1"));
        if (++calls % 4096 == 0) {
            state.PauseTiming();
            doubles::clear_calls();
            state.ResumeTiming();
        }
    }
    teardown_service();
}
BENCHMARK(BM_GetCheckPoint);

// 64 workers for three seconds, against the same service without workers: process CPU time
// and resident memory. Argument: the polling interval (60 s: waiting only; 1 s: a probe a second).
void BM_IdleWorkers64(benchmark::State &state)
{
    const int workers = 64;
    const int interval = static_cast<int>(state.range(0));
    for (auto _ : state) {
        setup_service(workers, interval);
        const long rss_before = rss_kib();
        double cpu = cpu_seconds();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const double cpu_without = cpu_seconds() - cpu;

        for (int i = 1; i <= workers; i++) NpMontrStatusChange("disknp", name_of(i).c_str(), SDW_CTRL_START);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // past every first cycle
        doubles::clear_calls();
        const long rss_with = rss_kib();
        cpu = cpu_seconds();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const double cpu_with = cpu_seconds() - cpu;

        state.counters["cpu_ms_per_s_without"] = cpu_without * 1000.0 / 3.0;
        state.counters["cpu_ms_per_s_with"] = cpu_with * 1000.0 / 3.0;
        state.counters["rss_kib_without"] = static_cast<double>(rss_before);
        state.counters["rss_kib_with"] = static_cast<double>(rss_with);
        state.counters["rss_kib_per_worker"] = static_cast<double>(rss_with - rss_before) / workers;
        for (int i = 1; i <= workers; i++) NpMontrStatusChange("disknp", name_of(i).c_str(), SDW_CTRL_STOP);
        teardown_service();
    }
}
BENCHMARK(BM_IdleWorkers64)->Arg(60)->Arg(1)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
