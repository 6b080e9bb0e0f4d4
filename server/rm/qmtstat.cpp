// qmtstat - shows what runs on this server: the time-out ratio and, per resource of both
// services, the host's last status and whether a pass is overdue (from the status board of each
// `qmtrm run`), the plug-in's progress and description (from the resource shared memory), the
// check point of a disknp worker, and which process writes it, marked stale when it is gone.
#include "qmtrm_board.h"
#include "qmtrm_platform.h"
#include "qmtlog.h"
#include "qmtshm.h"
#include "qmtshm_admin.h"
#include "qmtshm_codes.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

enum ExitCode { kOk = 0, kNothing = 1, kUsage = 2, kCorrupt = 3 };

constexpr int kRatioMax = 1000;

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
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string status_text(int status)
{
    static HANDLE table = [] {
        HANDLE t = nullptr;
        return QmtLoadStringTable("sdw", 0, &t) == 0 ? t : nullptr;
    }();
    char buffer[256] = {};
    if (table == nullptr || QmtGetStatusText(table, status, buffer, sizeof buffer, 0) != 0)
        return {};
    buffer[sizeof buffer - 1] = '\0';
    return buffer;
}

struct Row {
    std::string service, name;
    bool known = false;  // a status is on the board
    int status = 0;
    int progress = 0;
    long long age_ms = -1;
    bool running = false, overdue = false, watches = true;
    int check_point = -1;
    int writer_pid = 0;
    bool stale = false;
    std::string description;
    bool on_board = false;  // a running host keeps the counts below
    long long slowest_ms = 0;
    unsigned long long passes = 0, failures = 0;
};

struct Report {
    std::string prefix;
    bool any = false;  // some segment exists
    int ratio = -1;
    std::vector<Row> rows;
    std::vector<std::string> problems;  // corrupt or unreadable segments
};

Report gather()
{
    Report report;
    report.prefix = qmtrm::shm_prefix();
    long long now = now_ms();
    if (shmcm_exists() == 1) {
        report.any = true;
        int ratio = 0;
        if (shmcm_peekratio(&ratio) == 0)
            report.ratio = ratio;
        else
            report.problems.push_back(report.prefix + "_cm: unreadable");
    }
    std::vector<QmtShmRmEntry> entries;
    if (shmrm_exists() == 1) {
        report.any = true;
        QmtShmRmInfo info{};
        entries.assign(shmrm_info(&info) == 0 && info.capacity > 0 ? static_cast<size_t>(info.capacity) : 256,
                       QmtShmRmEntry{});
        int count = 0;
        int rc = shmrm_list(entries.data(), static_cast<int>(entries.size()), &count);
        if (rc == 0 || rc == QMTSHM_E_INSUFFICIENT_BUFFER) {
            entries.resize(static_cast<size_t>(std::clamp(count, 0, static_cast<int>(entries.size()))));
        } else {
            // Keep every entry that was copied before the failure.
            entries.erase(std::remove_if(entries.begin(), entries.end(),
                                         [](const QmtShmRmEntry &e) { return e.name[0] == '\0'; }),
                          entries.end());
            report.problems.push_back(report.prefix + "_rm: " + std::to_string(entries.size()) +
                                      " entries readable, then code " + std::to_string(rc));
        }
        if (rc == QMTSHM_E_INSUFFICIENT_BUFFER)
            report.problems.push_back(report.prefix + "_rm: more than " + std::to_string(entries.size()) + " entries");
    }
    std::vector<bool> matched(entries.size(), false);
    for (const char *service : {"sdw", "disknp"}) {
        const std::string name = qmtrm::board_name(report.prefix, service);
        qmtrm::BoardView board;
        std::string why;
        int rc = qmtrm::read_board(name, &board, &why);
        if (rc == ENOENT)
            continue;
        report.any = true;
        if (rc != 0)
            report.problems.push_back(name + ": " + why);
        bool stale = rc == 0 && !qmtrm::process_alive(board.writer);
        for (const qmtrm::BoardEntry &e : board.rows) {
            Row row;
            row.service = service;
            row.name = e.name;
            row.known = (e.flags & qmtrm::kRowKnown) != 0;
            row.status = e.status;
            row.running = (e.flags & qmtrm::kRowRunning) != 0;
            row.watches = (e.flags & qmtrm::kRowNoVolume) == 0;
            row.check_point = e.check_point;
            row.writer_pid = board.writer.pid;
            row.stale = stale;
            row.on_board = true;
            row.slowest_ms = e.slowest_ms;
            row.passes = e.passes;
            row.failures = e.failures;
            if (e.pass_ms > 0)
                row.age_ms = std::max(0LL, now - e.pass_ms);
            // The board's own flag, or a pass that has run past its limit since the writer last
            // looked (it may be the writer that hangs).
            int ratio = std::max(1, report.ratio);
            row.overdue = (e.flags & qmtrm::kRowOverdue) != 0 ||
                          (row.running && row.age_ms > static_cast<long long>(e.timeout_s) * ratio * 1000);
            for (size_t i = 0; i < entries.size(); ++i) {
                if (!matched[i] && row.name == entries[i].name && std::string(service) == "sdw") {
                    matched[i] = true;
                    row.progress = entries[i].progress;
                    row.description = entries[i].descript;
                    if (entries[i].progress_time_ms > 0)
                        row.age_ms = std::max(0LL, now - entries[i].progress_time_ms);
                    break;
                }
            }
            report.rows.push_back(row);
        }
    }
    // Resources the plug-in reports that no running host has on its board (a script, another host).
    for (size_t i = 0; i < entries.size(); ++i) {
        if (matched[i])
            continue;
        Row row;
        row.service = entries[i].type;
        row.name = entries[i].name;
        row.progress = entries[i].progress;
        row.description = entries[i].descript;
        if (entries[i].progress_time_ms > 0)
            row.age_ms = std::max(0LL, now - entries[i].progress_time_ms);
        report.rows.push_back(row);
    }
    return report;
}

std::string age_text(long long ms)
{
    if (ms < 0)
        return "-";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%lld.%01llds", ms / 1000, (ms % 1000) / 100);
    return buf;
}

void print_text(const Report &report)
{
    std::printf("shared memory %s, ratio %s\n", report.prefix.c_str(),
                report.ratio < 0 ? "-" : std::to_string(report.ratio).c_str());
    std::vector<std::vector<std::string>> table;
    table.push_back({"SERVICE", "NAME", "STATUS", "PROGRESS", "AGE", "OVERDUE", "CHECK", "WRITER", "DESCRIPTION"});
    for (const Row &r : report.rows) {
        std::string status = !r.watches ? "watches nothing"
                             : r.known  ? std::to_string(r.status) + " " + status_text(r.status)
                                        : "-";
        std::string writer = r.writer_pid > 0 ? "pid " + std::to_string(r.writer_pid) + (r.stale ? " stale" : "") : "-";
        table.push_back({r.service, r.name, status, std::to_string(r.progress) + " " + progress_name(r.progress),
                         age_text(r.age_ms), r.overdue ? "OVERDUE" : "-",
                         r.check_point < 0 ? "-" : std::to_string(r.check_point), writer,
                         r.description.empty() ? "-" : r.description});
    }
    std::vector<size_t> width(table.front().size(), 0);
    for (const auto &line : table)
        for (size_t c = 0; c < line.size(); ++c)
            width[c] = std::max(width[c], line[c].size());
    for (const auto &line : table) {
        std::string out;
        for (size_t c = 0; c < line.size(); ++c) {
            std::string cell = line[c];
            if (c + 1 < line.size())
                cell.resize(width[c] + 2, ' ');
            out += cell;
        }
        std::printf("%s\n", out.c_str());
    }
    for (const std::string &p : report.problems)
        std::printf("corrupt: %s\n", p.c_str());
}

void print_json(const Report &report)
{
    nlohmann::json rows = nlohmann::json::array();
    for (const Row &r : report.rows) {
        rows.push_back({{"service", r.service},
                        {"name", r.name},
                        {"status", r.known ? nlohmann::json(r.status) : nlohmann::json()},
                        {"status_text", r.known ? status_text(r.status) : std::string()},
                        {"watches", r.watches},
                        {"progress", r.progress},
                        {"progress_name", progress_name(r.progress)},
                        {"age_s", r.age_ms < 0 ? nlohmann::json() : nlohmann::json(r.age_ms / 1000.0)},
                        {"running", r.running},
                        {"overdue", r.overdue},
                        {"check_point", r.check_point < 0 ? nlohmann::json() : nlohmann::json(r.check_point)},
                        {"writer_pid", r.writer_pid > 0 ? nlohmann::json(r.writer_pid) : nlohmann::json()},
                        {"stale", r.stale},
                        {"description", r.description}});
    }
    nlohmann::json out = {{"shm_name", report.prefix},
                          {"ratio", report.ratio < 0 ? nlohmann::json() : nlohmann::json(report.ratio)},
                          {"resources", rows},
                          {"corrupt", report.problems}};
    // Descriptions come from shared memory: replace what is not UTF-8 rather than fail.
    std::printf("%s\n", out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

// The node_exporter textfile format: one gauge or counter per quantity, one sample per resource.
void print_prometheus(const Report &report)
{
    auto label = [](const std::string &text) {
        std::string out;
        for (char c : text) {
            if (c == '\\' || c == '"')
                out += '\\';
            if (c == '\n')
                out += "\\n";
            else
                out += c;
        }
        return out;
    };
    struct Metric {
        const char *name, *type, *help;
        std::function<std::optional<double>(const Row &)> value;
    };
    const Metric metrics[] = {
        {"qmtsdw_status", "gauge", "Status of the last pass (0 normal).",
         [](const Row &r) { return r.known ? std::optional<double>(r.status) : std::nullopt; }},
        {"qmtsdw_watching", "gauge", "1 when the resource has a disk on this server to watch.",
         [](const Row &r) { return std::optional<double>(r.watches ? 1 : 0); }},
        {"qmtsdw_overdue", "gauge", "1 while a pass runs beyond its time-out.",
         [](const Row &r) { return std::optional<double>(r.overdue ? 1 : 0); }},
        {"qmtsdw_last_pass_age_seconds", "gauge", "Seconds since the last pass began.",
         [](const Row &r) { return r.age_ms < 0 ? std::nullopt : std::optional<double>(r.age_ms / 1000.0); }},
        {"qmtsdw_slowest_pass_seconds", "gauge", "The longest pass since the monitor started.",
         [](const Row &r) { return r.on_board ? std::optional<double>(r.slowest_ms / 1000.0) : std::nullopt; }},
        {"qmtsdw_passes_total", "counter", "Passes since the monitor started.",
         [](const Row &r) { return r.on_board ? std::optional<double>(r.passes) : std::nullopt; }},
        {"qmtsdw_failures_total", "counter", "Passes that returned a status other than 0.",
         [](const Row &r) { return r.on_board ? std::optional<double>(r.failures) : std::nullopt; }},
    };
    for (const Metric &m : metrics) {
        std::printf("# HELP %s %s\n# TYPE %s %s\n", m.name, m.help, m.name, m.type);
        for (const Row &r : report.rows)
            if (std::optional<double> v = m.value(r))
                std::printf("%s{service=\"%s\",resource=\"%s\"} %.15g\n", m.name, label(r.service).c_str(),
                            label(r.name).c_str(), *v);
    }
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"qmtstat: the time-out ratio and, per resource of both services, its status, progress, age, "
                 "overdue flag, check point and writer, from the shared memories of this server."};
    app.set_version_flag("--version", std::string("qmtstat ") + QMTSTAT_VERSION);
    app.footer("The shared-memory prefix is --shm-name, else $QMT_SHM_NAME, else /qmt-<uid>-<server> as qmtrm "
               "run uses it.\nExit statuses: 0 shown; 1 no shared memory, or the ratio not set; 2 bad command "
               "line; 3 a segment is corrupt (what could be read is shown).");
    int watch = 0;
    int count = 0;
    int ratio = 0;
    bool json = false;
    std::string shm_name, host;
    app.add_option("--shm-name", shm_name, "Shared-memory prefix (as qmtrm --shm-name)");
    app.add_option("--host", host, "Server name of the default prefix (as qmtrm --host)");
    auto *w = app.add_option("-w,--watch", watch, "Report again every N seconds")->check(CLI::Range(1, 86400));
    app.add_option("-n,--count", count, "Stop after COUNT reports (with --watch)")
        ->check(CLI::Range(1, 1000000))
        ->needs(w);
    auto *json_flag = app.add_flag("--json", json, "One JSON document per report");
    bool prometheus = false;
    app.add_flag("--prometheus", prometheus,
                 "The node_exporter textfile format: status, last pass age, slowest pass, passes and failures "
                 "per resource")
        ->excludes(json_flag);
    auto *set = app.add_option("--set-ratio", ratio, "Set the cluster time-out ratio (1 to 1000) and exit")
                    ->check(CLI::Range(1, kRatioMax));
    set->excludes(w);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? kOk : kUsage;
    }
    if (!host.empty())
        qmtrm::platform::set_env("QMT_HOSTNAME", host);
    if (!shm_name.empty())
        qmtrm::platform::set_env("QMT_SHM_NAME", shm_name);
    // The libraries and the plug-in read the prefix from the environment: give them the default too.
    qmtrm::platform::set_env("QMT_SHM_NAME", qmtrm::shm_prefix());

    if (*set) {
        int rc = shmcm_setratio(ratio);
        if (rc != 0) {
            std::fprintf(stderr, "qmtstat: cannot set the ratio in %s_cm (code %d)\n", qmtrm::shm_prefix().c_str(), rc);
            return kNothing;
        }
        std::printf("ratio: %d\n", ratio);
        return kOk;
    }
    for (int n = 1;; ++n) {
        Report report = gather();
        if (!report.any) {
            std::fprintf(stderr, "qmtstat: no shared memory under %s: no monitor has attached yet\n",
                         report.prefix.c_str());
            return kNothing;
        }
        if (watch > 0 && !json && !prometheus) {
            char stamp[32];
            time_t t = time(nullptr);
            struct tm tmv {};
            qmtrm::platform::local_time(t, &tmv);
            strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tmv);
            std::printf("--- %s\n", stamp);
        }
        if (prometheus)
            print_prometheus(report);
        else if (json)
            print_json(report);
        else
            print_text(report);
        std::fflush(stdout);
        if (watch == 0 || (count > 0 && n >= count))
            return report.problems.empty() ? kOk : kCorrupt;
        std::this_thread::sleep_for(std::chrono::seconds(watch));
    }
}
