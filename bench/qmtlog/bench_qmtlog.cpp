// QmtLogWrite throughput: a trace line that is written, one that the level filters out, and as
// the baseline the same line formatted and appended with a bare write(2) and no locking.

#include "qmtlog.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

// One private log directory for the whole run, removed at exit.
struct LogDir {
    std::string path;
    LogDir() {
        const char *tmp = std::getenv("TMPDIR");
        path = std::string(tmp && *tmp ? tmp : "/tmp") + "/qmtlog-bench-XXXXXX";
        if (!mkdtemp(path.data())) std::abort();
        setenv("QMT_LOG_DIR", path.c_str(), 1);
    }
    ~LogDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
};

LogDir &log_dir() {
    static LogDir d;
    return d;
}

HANDLE open_log(const char *module) {
    log_dir();
    HANDLE h = nullptr;
    // The largest size an operator may configure, so rotation is rare but still part of the cost.
    QmtLogOpen(module, &h, QMTLOG_INFO, 100000000, 0, "Global\\ORVQMT_SDW_LOG");
    return h;
}

const char kText[] = "*** I/O end. (Name=disk1 Hdl=0x1c LUN=3 Tick=123456789 Time=60sec)";

void BM_WriteWrittenLine(benchmark::State &state) {
    HANDLE h = open_log("bench_written");
    for (auto _ : state)
        benchmark::DoNotOptimize(QmtLogWrite(h, QMTLOG_INFO, 0, "/src/sdw/sdw_check.cpp", 321, "SdwMonitor", "%s", kText));
    state.SetItemsProcessed(state.iterations());
    QmtLogClose(h);
}
BENCHMARK(BM_WriteWrittenLine);

void BM_WriteFilteredLine(benchmark::State &state) {
    HANDLE h = open_log("bench_filtered");
    for (auto _ : state)
        benchmark::DoNotOptimize(QmtLogWrite(h, QMTLOG_TRACE, 0, "/src/sdw/sdw_check.cpp", 321, "SdwMonitor", "%s", kText));
    state.SetItemsProcessed(state.iterations());
    QmtLogClose(h);
}
BENCHMARK(BM_WriteFilteredLine);

void BM_WrittenLineWithFourThreads(benchmark::State &state) {
    static HANDLE h = nullptr;
    if (state.thread_index() == 0) h = open_log("bench_threads");
    for (auto _ : state)
        benchmark::DoNotOptimize(QmtLogWrite(h, QMTLOG_INFO, 0, "/src/sdw/sdw_check.cpp", 321, "SdwMonitor", "%s", kText));
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) QmtLogClose(h);
}
BENCHMARK(BM_WrittenLineWithFourThreads)->Threads(4)->UseRealTime();

// Baseline: format a line of the same shape and append it with one write(2), nothing else.
void BM_BaselinePlainAppend(benchmark::State &state) {
    std::string file = log_dir().path + "/baseline.log";
    int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    char line[256];
    for (auto _ : state) {
        int n = std::snprintf(line, sizeof line, "2025-01-01 00:00:00.000 INF %d/%d sdw_check.cpp:%d %s: %s\n",
                              static_cast<int>(getpid()), static_cast<int>(gettid()), 321, "SdwMonitor", kText);
        benchmark::DoNotOptimize(::write(fd, line, static_cast<size_t>(n)));
    }
    state.SetItemsProcessed(state.iterations());
    ::close(fd);
}
BENCHMARK(BM_BaselinePlainAppend);

}  // namespace

BENCHMARK_MAIN();
