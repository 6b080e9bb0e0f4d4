// bench_host.cpp - what the host pays per export call: one DoMontr pass on a healthy one-disk
// volume (against the bare probe of that disk as the baseline), and InitRscDll with 1000
// configured resources (against one resource).
#include "qmtplat.h"
#include "qmtrm_plugin.h"

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

std::string work_dir;
std::string shm_prefix;
qmtrm::Plugin plugin;

std::string guid(int i)
{
    char text[40];
    std::snprintf(text, sizeof text, "7e57b0a5-0000-4000-8000-%012d", i);
    return text;
}

// A configuration of `count` sdw resources, each on a volume of its own one-disk.
std::string write_conf(int count)
{
    std::string dir = work_dir + "/conf" + std::to_string(count);
    std::filesystem::create_directories(dir + "/policy");
    std::ofstream conf(dir + "/clp.conf");
    conf << "<root>\n<cluster><delaywarn><monitor>80</monitor><heartbeat>80</heartbeat></delaywarn></cluster>\n<monitor>\n";
    for (int i = 0; i < count; ++i)
        conf << "<sdw name=\"sdw" << i << "\"><polling><interval>1</interval><timeout>60</timeout></polling>"
             << "<parameters><object>sd" << i << "</object></parameters></sdw>\n";
    conf << "</monitor>\n<resource>\n";
    for (int i = 0; i < count; ++i)
        conf << "<sd name=\"sd" << i << "\"><server name=\"node1\"><parameters><volumeguid>" << guid(i)
             << "</volumeguid></parameters></server></sd>\n";
    conf << "</resource>\n</root>\n";
    std::ofstream(dir + "/policy/sdw.xml")
        << "<root><monitor><sdw><type>sdw</type><log><level>4</level><size>10000000</size></log></sdw></monitor></root>\n";
    std::ofstream(dir + "/policy/rm.xml") << "<root/>\n";
    std::ofstream sim(work_dir + "/sim" + std::to_string(count) + ".txt");
    for (int i = 0; i < count; ++i)
        sim << "volume " << guid(i) << " disks " << i << "\ndisk " << i << " ok\n";
    return dir;
}

void use_conf(int count)
{
    setenv("QMT_CONF_DIR", (work_dir + "/conf" + std::to_string(count)).c_str(), 1);
    std::string why;
    if (!qmtp::sim::load_file(work_dir + "/sim" + std::to_string(count) + ".txt", &why))
        std::fprintf(stderr, "sim: %s\n", why.c_str());
}

// Baseline: the bare probe of the disk, as the plug-in sends it, without the plug-in around it.
void BM_BareProbeOneDisk(benchmark::State &state)
{
    use_conf(1);
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (auto _ : state) {
        HANDLE disk = CreateFileA("\\\\.\\PHYSICALDRIVE0", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
        OVERLAPPED ov{};
        ov.hEvent = event;
        DWORD bytes = 0;
        if (!DeviceIoControl(disk, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, &bytes, &ov) &&
            GetLastError() == ERROR_IO_PENDING)
            GetOverlappedResult(disk, &ov, &bytes, TRUE);
        CloseHandle(disk);
        ResetEvent(event);
    }
    CloseHandle(event);
}
BENCHMARK(BM_BareProbeOneDisk);

void BM_DoMontrHealthyOneDisk(benchmark::State &state)
{
    use_conf(1);
    if (plugin.InitRscDll("qmtsdw", 0, 0) != 0) {
        state.SkipWithError("InitRscDll failed");
        return;
    }
    plugin.MontrStatusChange("sdw", "sdw0", 0x110);
    for (auto _ : state) {
        DWORD status = plugin.DoMontr("sdw", "sdw0");
        if (status != 0) {
            state.SkipWithError("DoMontr did not return 0");
            break;
        }
    }
    plugin.UninitRscDll("qmtsdw", 0, 0);
}
BENCHMARK(BM_DoMontrHealthyOneDisk);

// InitRscDll with N configured resources; the teardown is not timed.
void BM_InitRscDll(benchmark::State &state)
{
    int count = static_cast<int>(state.range(0));
    use_conf(count);
    for (auto _ : state) {
        DWORD rc = plugin.InitRscDll("qmtsdw", 0, 0);
        state.PauseTiming();
        if (rc != 0) {
            state.SkipWithError("InitRscDll failed");
            state.ResumeTiming();
            break;
        }
        plugin.UninitRscDll("qmtsdw", 0, 0);
        state.ResumeTiming();
    }
    state.counters["resources"] = count;
}
BENCHMARK(BM_InitRscDll)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

void unlink_shm()
{
    if (DIR *dir = opendir("/dev/shm")) {
        while (dirent *e = readdir(dir))
            if (std::strstr(e->d_name, shm_prefix.c_str()) != nullptr)
                shm_unlink((std::string("/") + e->d_name).c_str());
        closedir(dir);
    }
}

} // namespace

int main(int argc, char **argv)
{
    char pattern[] = "/tmp/qmtrm-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        return 1;
    work_dir = pattern;
    shm_prefix = "qmtbench" + std::to_string(getpid());
    write_conf(1);
    write_conf(100);
    write_conf(1000);
    setenv("QMT_LOG_DIR", (work_dir + "/log").c_str(), 1);
    setenv("QMT_SHM_NAME", shm_prefix.c_str(), 1);
    setenv("QMT_HOSTNAME", "node1", 1);
    setenv("QMT_STORAGE", "sim", 1);
    std::string why;
    const char *path = std::getenv("QMT_PLUGIN");
    if (!qmtrm::load_plugin(path != nullptr ? path : QMTSDW_PLUGIN_FILE, &plugin, &why)) {
        std::fprintf(stderr, "%s\n", why.c_str());
        return 3;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    unlink_shm();
    std::filesystem::remove_all(work_dir);
    return 0;
}
