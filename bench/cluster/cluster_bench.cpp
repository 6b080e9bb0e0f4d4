// Costs of the cluster services on the plug-in's paths: a key read from a large configuration,
// a reload with and without a change, a description published to the resource table.
#include "qmtshm.h"
#include "qmtxml.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unordered_map>

namespace {

constexpr int kResources = 1000;

// A configuration of 1000 sdw resources in a scratch folder, loaded for the whole run.
struct BigConfig {
    std::string dir;
    std::string conf;
    BigConfig()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "qmtbench-XXXXXX").string();
        dir = mkdtemp(tmpl.data());
        conf = dir + "/clp.conf";
        std::ofstream f(conf);
        f << "<root><cluster><delaywarn><monitor>80</monitor></delaywarn></cluster><monitor>\n";
        for (int i = 0; i < kResources; ++i)
            f << "<sdw name=\"r" << i << "\"><polling><timeout>" << 60 + i
              << "</timeout></polling><parameters><object>sd" << i << "</object></parameters></sdw>\n";
        f << "</monitor></root>\n";
        f.close();
        setenv("QMT_CONF_DIR", dir.c_str(), 1);
        xmllib_init("sdw");
        xmllib_load_config(1);
    }
    ~BigConfig()
    {
        xmllib_unload_config();
        xmllib_term();
        std::filesystem::remove_all(dir);
    }
};

BigConfig &big()
{
    static BigConfig b;
    return b;
}

void BM_GetValue_FirstOf1000(benchmark::State &state)
{
    big();
    int v = 0;
    for (auto _ : state) {
        int size = 4;
        benchmark::DoNotOptimize(xmllib_get_value("/root/monitor/sdw@r0/polling/timeout", 1, &v, &size));
    }
}
BENCHMARK(BM_GetValue_FirstOf1000);

void BM_GetValue_LastOf1000(benchmark::State &state)
{
    big();
    int v = 0;
    for (auto _ : state) {
        int size = 4;
        benchmark::DoNotOptimize(xmllib_get_value("/root/monitor/sdw@r999/polling/timeout", 1, &v, &size));
    }
}
BENCHMARK(BM_GetValue_LastOf1000);

void BM_GetText_LastOf1000(benchmark::State &state)
{
    big();
    char buf[32];
    for (auto _ : state) {
        int size = sizeof buf;
        benchmark::DoNotOptimize(xmllib_get_value("/root/monitor/sdw@r999/parameters/object", 0, buf, &size));
    }
}
BENCHMARK(BM_GetText_LastOf1000);

// Baseline: the same answer from a hash map keyed by the full key text.
void BM_Baseline_HashMapLookup(benchmark::State &state)
{
    std::unordered_map<std::string, int> m;
    for (int i = 0; i < kResources; ++i)
        m["/root/monitor/sdw@r" + std::to_string(i) + "/polling/timeout"] = 60 + i;
    const char *key = "/root/monitor/sdw@r999/polling/timeout";
    for (auto _ : state)
        benchmark::DoNotOptimize(m.find(key)->second);
}
BENCHMARK(BM_Baseline_HashMapLookup);

void BM_Enumerate1000(benchmark::State &state)
{
    big();
    std::string buf(kResources * 256, '\0');
    for (auto _ : state) {
        int size = 0;
        xmllib_enum_value("/root/monitor/sdw", nullptr, &size);
        benchmark::DoNotOptimize(xmllib_enum_value("/root/monitor/sdw", buf.data(), &size));
    }
}
BENCHMARK(BM_Enumerate1000);

void BM_Reload_Unchanged(benchmark::State &state)
{
    big();
    for (auto _ : state)
        benchmark::DoNotOptimize(xmllib_reload_config(1));
}
BENCHMARK(BM_Reload_Unchanged);

void BM_Reload_Changed(benchmark::State &state)
{
    BigConfig &b = big();
    long long sec = 1600000000;
    for (auto _ : state) {
        struct timespec t[2] = {{sec, 0}, {sec, 0}};
        ++sec;
        utimensat(AT_FDCWD, b.conf.c_str(), t, 0);
        benchmark::DoNotOptimize(xmllib_reload_config(1));
    }
}
BENCHMARK(BM_Reload_Changed)->Unit(benchmark::kMicrosecond);

struct Shm {
    std::string prefix = "/qmtbench_" + std::to_string(getpid());
    Shm()
    {
        setenv("QMT_SHM_NAME", prefix.c_str(), 1);
        shmrm_attach();
    }
    // The table holds resources sdw0 .. sdw<n-1>; returns the last one's name.
    std::string fill(int n)
    {
        for (int i = 0; i < n; ++i)
            shmrm_setmonprogress("sdw", ("sdw" + std::to_string(i)).c_str(), 3);
        return "sdw" + std::to_string(n - 1);
    }
    ~Shm()
    {
        shmrm_detach();
        shm_unlink((prefix + "_cm").c_str());
        shm_unlink((prefix + "_rm").c_str());
    }
};

Shm &shm()
{
    static Shm s;
    return s;
}

// A write to the last of N resources in the table: the same cost whatever N.
void BM_SetDescript(benchmark::State &state)
{
    std::string name = shm().fill(static_cast<int>(state.range(0)));
    char text[256] = "Normal";
    for (auto _ : state)
        benchmark::DoNotOptimize(shmrm_setdescript(nullptr, "sdw", name.c_str(), text, 256));
}
BENCHMARK(BM_SetDescript)->Arg(8)->Arg(1000)->Arg(4000);

void BM_SetMonProgress(benchmark::State &state)
{
    std::string name = shm().fill(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(shmrm_setmonprogress("sdw", name.c_str(), 4));
}
BENCHMARK(BM_SetMonProgress)->Arg(8)->Arg(1000)->Arg(4000);

}  // namespace

BENCHMARK_MAIN();
