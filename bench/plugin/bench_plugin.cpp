// bench_plugin: cost of SdwWriteLog on its hot paths, and of one disk check per volume size.
#include "qmtplat.h"
#include "sdw.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

// Names 0..n-1 get a suppression entry each; the benchmarks use the last one, at the list's end.
void ensure_entries(int n)
{
    static int made = 0;
    for (; made < n; made++) {
        char name[32];
        std::snprintf(name, sizeof name, "res%04d", made);
        SdwWriteLog(name, QMTLOG_ERROR, __FILE__, __LINE__, "bench", "entry of %s", name);
    }
}

void BM_WriteLogTraceAboveLevel(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    ensure_entries(n);
    char name[32];
    std::snprintf(name, sizeof name, "res%04d", n - 1);
    for (auto _ : state) {
        SdwWriteLog(SDW_NORSC, QMTLOG_TRACE, __FILE__, __LINE__, "SdwMonitor", "Start - (Name=%s Timeout=%d)", name, 60);
    }
}

void BM_WriteLogFoldedRepeat(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    ensure_entries(n);
    char name[32];
    std::snprintf(name, sizeof name, "res%04d", n - 1);
    for (auto _ : state) {
        SdwWriteLog(name, QMTLOG_WARNING, __FILE__, __LINE__, "SdwMonitor", "Delayed. (Name=%s DelayTime=%dmsec)", name, 48000);
    }
}

std::string volume_of(int disks)
{
    char guid[40];
    std::snprintf(guid, sizeof guid, "00000000-0000-4000-8000-%012d", disks);
    return guid;
}

void prepare_volume(int disks)
{
    std::vector<DWORD> list;
    for (int i = 0; i < disks; i++) {
        list.push_back(static_cast<DWORD>(100 + i));
        qmtp::sim::set_disk(static_cast<DWORD>(100 + i), {});
    }
    qmtp::sim::set_volume(volume_of(disks), list);
}

void BM_DiskCheck(benchmark::State &state)
{
    const int disks = static_cast<int>(state.range(0));
    prepare_volume(disks);
    SDW_RSC rsc;
    std::memset(&rsc, 0, sizeof rsc);
    std::strcpy(rsc.name, "res0000");
    std::snprintf(rsc.volume_guid, sizeof rsc.volume_guid, "%s", volume_of(disks).c_str());
    rsc.timeout = 60;
    rsc.mutex = CreateMutexA(nullptr, FALSE, nullptr);
    for (auto _ : state) {
        if (SdwMonitor(&rsc) != 0) state.SkipWithError("check failed");
    }
    CloseHandle(rsc.mutex);
    state.counters["probes/s"] = benchmark::Counter(static_cast<double>(state.iterations() * disks),
                                                    benchmark::Counter::kIsRate);
}

// The same device work without the plug-in: open the volume, its extents, then open and probe each disk.
void BM_BareProbeLoop(benchmark::State &state)
{
    const int disks = static_cast<int>(state.range(0));
    prepare_volume(disks);
    const std::string path = "\\\\?\\Volume{" + volume_of(disks) + "}";
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (auto _ : state) {
        HANDLE volume = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 3, nullptr, OPEN_EXISTING, 0, nullptr);
        alignas(8) unsigned char buffer[8 + 24 * 16];
        DWORD returned = 0;
        DeviceIoControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buffer, sizeof buffer, &returned,
                        nullptr);
        CloseHandle(volume);
        auto *extents = reinterpret_cast<VOLUME_DISK_EXTENTS *>(buffer);
        for (DWORD i = 0; i < extents->NumberOfDiskExtents; i++) {
            char device[64];
            std::snprintf(device, sizeof device, "\\\\.\\PHYSICALDRIVE%u", SdwExtentDisk(extents, i));
            HANDLE disk = CreateFileA(device, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, 3, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_OVERLAPPED, nullptr);
            OVERLAPPED ov{};
            ov.hEvent = event;
            DWORD bytes = 0;
            if (!DeviceIoControl(disk, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, &ov))
                GetOverlappedResult(disk, &ov, &bytes, TRUE);
            CloseHandle(disk);
        }
    }
    CloseHandle(event);
    state.counters["probes/s"] = benchmark::Counter(static_cast<double>(state.iterations() * disks),
                                                    benchmark::Counter::kIsRate);
}

BENCHMARK(BM_WriteLogTraceAboveLevel)->Arg(1)->Arg(100)->Arg(1000);
BENCHMARK(BM_WriteLogFoldedRepeat)->Arg(1)->Arg(100)->Arg(1000);
BENCHMARK(BM_DiskCheck)->Arg(1)->Arg(4)->Arg(16);
BENCHMARK(BM_BareProbeLoop)->Arg(1)->Arg(4)->Arg(16);

}  // namespace

int main(int argc, char **argv)
{
    // Everything the run writes stays in a folder of its own.
    char dir[] = "/tmp/qmt-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    setenv("QMT_LOG_DIR", dir, 1);
    setenv("QMT_SHM_NAME", (std::string("/qmtbench") + std::to_string(getpid())).c_str(), 1);
    strcpy(gsdwMonitorType, "sdw");
    shmcm_attach();
    shmrm_attach();
    QmtLogOpen("sdw", &gsdwhLog, 4, 10000000, 0, "Global\\ORVQMT_SDW_LOG");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    QmtLogClose(gsdwhLog);
    shmrm_detach();
    shmcm_detach();
    std::printf("log and shared memory of this run: %s\n", dir);
    return 0;
}
