// qmtstat - shows what the monitors publish in the cluster shared memories: the time-out ratio
// and, per resource, the last progress code, its age and the last status description.
#include "qmtshm.h"
#include "qmtshm_admin.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

const char *progress_name(int code)
{
    switch (code) {
    case QMT_DOMONTR_MONSTART:
        return "MONSTART";
    case QMT_DOMONTR_MONEND:
        return "MONEND";
    case 0:
        return "-";
    default:
        return "?";
    }
}

long long now_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string age_text(long long when_ms, long long now)
{
    if (when_ms <= 0)
        return "-";
    long long d = now - when_ms;
    if (d < 0)
        d = 0;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%lld.%01llds", d / 1000, (d % 1000) / 100);
    return buf;
}

std::string prefix()
{
    const char *p = std::getenv("QMT_SHM_NAME");
    std::string s = p && *p ? p : "/qmt";
    if (s.front() != '/')
        s.insert(s.begin(), '/');
    return s;
}

// One report; false when neither segment exists.
bool report()
{
    bool cm = shmcm_exists() == 1, rm = shmrm_exists() == 1;
    if (!cm && !rm) {
        std::fprintf(stderr,
                     "qmtstat: no cluster shared memory (%s_cm, %s_rm): no monitor has attached yet\n",
                     prefix().c_str(), prefix().c_str());
        return false;
    }
    int ratio = 0;
    if (cm && shmcm_peekratio(&ratio) == 0)
        std::printf("ratio: %d\n", ratio);
    else
        std::printf("ratio: (no cluster shared memory)\n");
    if (!rm) {
        std::printf("resources: (no resource shared memory)\n");
        return true;
    }
    std::vector<QmtShmRmEntry> v(256);
    int count = 0;
    int rc = shmrm_list(v.data(), static_cast<int>(v.size()), &count);
    if (rc != 0) {
        std::printf("resources: (unreadable, code %d)\n", rc);
        return true;
    }
    v.resize(static_cast<size_t>(count));
    std::printf("%-12s %-24s %-14s %-10s %s\n", "TYPE", "NAME", "PROGRESS", "AGE", "DESCRIPTION");
    long long now = now_ms();
    for (const QmtShmRmEntry &e : v) {
        char progress[32];
        std::snprintf(progress, sizeof progress, "%d %s", e.progress, progress_name(e.progress));
        std::printf("%-12s %-24s %-14s %-10s %s\n", e.type, e.name, progress,
                    age_text(e.progress_time_ms, now).c_str(), e.descript);
    }
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"qmtstat: the cluster ratio and each resource's monitoring progress and description.\n"
                 "The segments are <prefix>_cm and <prefix>_rm, prefix from QMT_SHM_NAME (default /qmt)."};
    int watch = 0;
    int count = 0;
    int ratio = 0;
    auto *w = app.add_option("-w,--watch", watch, "Report again every N seconds")->check(CLI::Range(1, 86400));
    app.add_option("-n,--count", count, "Stop after COUNT reports (with --watch)")
        ->check(CLI::Range(1, 1000000))
        ->needs(w);
    auto *set = app.add_option("--set-ratio", ratio, "Set the cluster time-out ratio and exit");
    set->excludes(w);
    CLI11_PARSE(app, argc, argv);

    if (*set) {
        int rc = shmcm_setratio(ratio);
        if (rc != 0) {
            std::fprintf(stderr, "qmtstat: cannot set the ratio in %s_cm (code %d)\n", prefix().c_str(), rc);
            return 1;
        }
        std::printf("ratio: %d\n", ratio);
        return 0;
    }
    for (int n = 1;; ++n) {
        if (watch > 0) {
            char stamp[32];
            time_t t = time(nullptr);
            struct tm tmv {};
            localtime_r(&t, &tmv);
            strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tmv);
            std::printf("--- %s\n", stamp);
        }
        if (!report())
            return 1;
        std::fflush(stdout);
        if (watch == 0 || (count > 0 && n >= count))
            return 0;
        std::this_thread::sleep_for(std::chrono::seconds(watch));
    }
}
