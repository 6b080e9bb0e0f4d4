// qmtrm_demo.cpp - `qmtrm demo`: a self-contained run on simulated disks. It writes its own
// configuration and disk description into a fresh temporary folder, points the environment there,
// then polls like `qmtrm run` while a timeline makes disks late, failing, recovered and hung.
#include "qmtrm_board.h"
#include "qmtrm_engine.h"

#include "qmtplat.h"
#include "qmtrm_platform.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <thread>

namespace qmtrm {

namespace {

constexpr const char *kHost = "node1";
constexpr const char *kVolume1 = "6f1c2a10-3b4d-4e5f-8a9b-0c1d2e3f4a51";  // sdw1 / np1
constexpr const char *kVolume2 = "6f1c2a10-3b4d-4e5f-8a9b-0c1d2e3f4a52";  // sdw2 / np2
constexpr int kSdwTimeout = 3;
constexpr int kNpTimeout = 2;

// Monitor and log policy shared by both services: log level 4 keeps errors, warnings and
// information; events are always written.
const char *const kPolicySdw = R"(<?xml version="1.0" encoding="UTF-8"?>
<root>
  <monitor>
    <sdw>
      <type>sdw</type>
      <log><level>4</level><size>10000000</size></log>
    </sdw>
  </monitor>
</root>
)";
const char *const kPolicyEmpty = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<root/>\n";

std::string sdw_config()
{
    std::string v1 = kVolume1, v2 = kVolume2;
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<root>
  <cluster><delaywarn><monitor>50</monitor><heartbeat>80</heartbeat></delaywarn></cluster>
  <monitor>
    <sdw name="sdw1">
      <polling><interval>1</interval><timeout>3</timeout></polling>
      <parameters><object>sd1</object></parameters>
    </sdw>
    <sdw name="sdw2">
      <polling><interval>1</interval><timeout>3</timeout></polling>
      <parameters><object>sd2</object></parameters>
    </sdw>
  </monitor>
  <resource>
    <sd name="sd1"><server name="node1"><parameters><volumeguid>)" +
           v1 + R"(</volumeguid></parameters></server></sd>
    <sd name="sd2"><server name="node1"><parameters><volumeguid>)" +
           v2 + R"(</volumeguid></parameters></server></sd>
  </resource>
</root>
)";
}

std::string disknp_config()
{
    std::string v1 = kVolume1, v2 = kVolume2;
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<root>
  <cluster><delaywarn><monitor>50</monitor><heartbeat>80</heartbeat></delaywarn></cluster>
  <networkpartition>
    <disknp name="np1"><timeout>2</timeout><interval>1</interval><count>1</count><device>1</device></disknp>
    <disknp name="np2"><timeout>2</timeout><interval>1</interval><count>1</count><device>2</device></disknp>
  </networkpartition>
  <server name="node1">
    <device name="1"><info>)" +
           v1 + R"(</info></device>
    <device name="2"><info>)" +
           v2 + R"(</info></device>
  </server>
</root>
)";
}

// Disks 0, 1 and 2 hold volume 1 (three disks: the extents request has to ask twice); disk 3
// alone holds volume 2.
std::string sim_description(Service service)
{
    std::string v1 = kVolume1, v2 = kVolume2;
    if (service == Service::Sdw)
        return "volume " + v1 + " disks 0 1 2\nvolume " + v2 + " disks 3\n"
               "disk 0 ok\ndisk 1 ok\ndisk 2 ok\ndisk 3 ok\n";
    return "volume " + v1 + " disks 0\nvolume " + v2 + " disks 1\ndisk 0 ok\ndisk 1 ok\n";
}

bool write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path);
    out << text;
    return static_cast<bool>(out);
}

// A program installed beside this one, as a command to type: relative to the current folder when
// it lies below it (build/bin/qmtstat), else the full path.
std::string sibling_command(const std::string &program)
{
    std::filesystem::path path = platform::sibling_program(program);
    std::error_code ec;
    std::filesystem::path here = std::filesystem::current_path(ec);
    if (!ec && path.is_absolute()) {
        std::filesystem::path relative = path.lexically_relative(here);
        if (!relative.empty() && *relative.begin() != "..")
            return relative.string();
    }
    return path.string();
}

// Follows the plug-in's log file and hands over every complete new line.
class LogTail {
public:
    explicit LogTail(std::string path) : path_(std::move(path)) {}
    template <typename Fn>
    void poll(Fn &&fn)
    {
        std::ifstream in(path_, std::ios::binary);
        if (!in)
            return;
        in.seekg(0, std::ios::end);
        std::streamoff size = in.tellg();
        if (size < offset_)
            offset_ = 0;  // rotated
        if (size == offset_)
            return;
        in.seekg(offset_);
        std::string chunk(static_cast<size_t>(size - offset_), '\0');
        in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        size_t end = chunk.rfind('\n');
        if (end == std::string::npos)
            return;
        offset_ += static_cast<std::streamoff>(end + 1);
        size_t begin = 0;
        while (begin <= end) {
            size_t nl = chunk.find('\n', begin);
            fn(chunk.substr(begin, nl - begin));
            begin = nl + 1;
        }
    }

private:
    std::string path_;
    std::streamoff offset_ = 0;
};

struct Step {
    double at;
    std::string resource;
    std::string what;
    std::function<void()> act;
    bool done = false;
};

void sim(const std::string &statement)
{
    std::string why;
    if (!qmtp::sim::apply(statement, &why))
        std::fprintf(stderr, "qmtrm: demo: sim statement refused: %s: %s\n", statement.c_str(), why.c_str());
}

} // namespace

int demo_main(Service service, double duration_s, bool verbose, const std::string &plugin_option, bool keep)
{
    // Ctrl-C must still remove the folder and the shared memory: the stop requests are taken by
    // the main loop.
    std::string why;
    if (!platform::open_stop_requests(&why)) {
        std::fprintf(stderr, "qmtrm: demo: %s\n", why.c_str());
        return kExitInit;
    }
    platform::catch_stop_requests();

    // A fresh folder and a shared-memory prefix of this run only.
    std::string dir;
    if (!platform::make_temp_folder("qmtrm-demo", &dir, &why)) {
        std::fprintf(stderr, "qmtrm: demo: %s\n", why.c_str());
        return kExitInit;
    }
    std::random_device random;
    char shm_prefix[64];
    std::snprintf(shm_prefix, sizeof shm_prefix, "qmtdemo%ldx%08x", static_cast<long>(process_id().pid),
                  static_cast<unsigned>(random()));
    EnvOptions env;
    env.conf_dir = dir + "/conf";
    env.sim_file = dir + "/sim.txt";
    env.log_dir = dir + "/log";
    env.shm_name = shm_prefix;
    env.host = kHost;
    env.plugin = plugin_option;
    std::error_code ec;
    std::filesystem::create_directories(env.conf_dir + "/policy", ec);
    bool written = !ec && write_file(env.conf_dir + "/clp.conf", service == Service::Sdw ? sdw_config() : disknp_config()) &&
                   write_file(env.conf_dir + "/policy/sdw.xml", kPolicySdw) &&
                   write_file(env.conf_dir + "/policy/rm.xml", kPolicyEmpty) &&
                   write_file(env.conf_dir + "/policy/disknp.xml", kPolicyEmpty) &&
                   write_file(env.conf_dir + "/policy/nm.xml", kPolicyEmpty) &&
                   write_file(env.sim_file, sim_description(service)) && apply_env(env, &why);
    std::unique_ptr<Board> board;
    auto cleanup = [&] {
        board.reset();
        platform::remove_shared_memory(shm_prefix);
        if (!keep)
            std::filesystem::remove_all(dir, ec);
    };
    if (!written) {
        std::fprintf(stderr, "qmtrm: demo: cannot prepare %s %s\n", dir.c_str(), why.c_str());
        cleanup();
        return kExitInit;
    }
    platform::set_env("QMT_STORAGE", "sim");

    std::vector<ResourceConfig> resources;
    if (!read_resources(service, &resources, &why)) {
        std::fprintf(stderr, "qmtrm: demo: cannot read the configuration: %s\n", why.c_str());
        cleanup();
        return kExitInit;
    }
    Plugin plugin;
    if (!load_plugin(plugin_path(env.plugin), &plugin, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        cleanup();
        return kExitPlugin;
    }
    std::vector<BoardEntry> rows;
    for (const ResourceConfig &rsc : resources)
        rows.push_back(BoardEntry{rsc.name, 0, 0, -1, rsc.interval_s, rsc.timeout_s, 0});
    board.reset(Board::create(shm_prefix, service_name(service), kHost, rows, &why));
    if (!board) {
        std::fprintf(stderr, "qmtrm: demo: %s\n", why.c_str());
        cleanup();
        return kExitInit;
    }
    const std::string log_file = env.log_dir + "/sdw.log";
    std::printf("qmtrm demo (%s), %.0f s\n", service_name(service), duration_s);
    std::printf("  folder:         %s (%s)\n", dir.c_str(), keep ? "kept at the end" : "removed at the end; --keep keeps it");
    std::printf("  plug-in log:    %s\n", log_file.c_str());
    std::printf("  shared memory:  %s\n", shm_prefix);
    std::printf("  watch it:       %s --shm-name %s -w 1\n", sibling_command("qmtstat").c_str(), shm_prefix);
    std::printf("                  tail -f %s\n", log_file.c_str());
    std::printf("  resources:      %s\n\n",
                service == Service::Sdw ? "sdw1 = disks 0 1 2, sdw2 = disk 3; interval 1 s, time-out 3 s, delay at 50%"
                                        : "np1 = disk 0, np2 = disk 1; interval 1 s, time-out 2 s, 1 retry");
    std::fflush(stdout);

    Reporter reporter(true);
    load_status_texts();
    Engine engine(plugin, service, resources, reporter, 4, verbose);

    // The timeline, as fractions of the run so a longer run stretches it.
    std::vector<Step> steps;
    const double d = duration_s;
    std::set<std::string> seen;
    if (service == Service::Sdw) {
        double hang = d * 0.55;
        double release = std::max(d * 0.8, hang + kSdwTimeout + 2.5);
        steps.push_back({d * 0.15, "sdw1", "disk 1 answers after 1800 ms (delay limit 1500 ms)",
                         [] { sim("disk 1 delay 1800"); }});
        steps.push_back({d * 0.30, "sdw2", "disk 1 answers at once again; disk 3 fails its probe (error 1117)", [] {
                             sim("disk 1 ok");
                             sim("disk 3 fail 1117");
                         }});
        steps.push_back({d * 0.45, "sdw2", "disk 3 answers again", [] { sim("disk 3 ok"); }});
        steps.push_back({hang, "sdw1", "disk 2 hangs: its probe never completes", [] { sim("disk 2 hang"); }});
        steps.push_back({release, "sdw1", "disk 2 released: the hung probe completes", [] {
                             sim("disk 2 ok");
                             qmtp::sim::release(2);
                         }});
    } else {
        double hang = d * 0.40;
        double release = std::max(d * 0.65, hang + 2 * kNpTimeout + 2.5);
        steps.push_back({d * 0.12, "np2", "disk 1 refuses its probe (error 1117)", [] { sim("disk 1 refuse 1117"); }});
        steps.push_back({d * 0.28, "np2", "disk 1 answers again", [] { sim("disk 1 ok"); }});
        steps.push_back({hang, "np1", "disk 0 hangs: the worker's probe never completes", [] { sim("disk 0 hang"); }});
        steps.push_back({release, "np1", "disk 0 released", [] {
                             sim("disk 0 ok");
                             qmtp::sim::release(0);
                         }});
        steps.push_back({std::min(release + 1.5, d * 0.8), "np2", "suspend request (0x11)", [&] {
                             DWORD rc = engine.control("np2", 0x11);
                             reporter.line("np2", "suspend -> " + std::to_string(rc));
                             if (rc == 0)
                                 seen.insert("suspend");
                         }});
        steps.push_back({std::min(release + 3.5, d * 0.92), "np2", "resume request (0x10)", [&] {
                             DWORD rc = engine.control("np2", 0x10);
                             reporter.line("np2", "resume -> " + std::to_string(rc));
                             if (rc == 0)
                                 seen.insert("resume");
                         }});
    }

    if (DWORD rc = engine.start(); rc != 0) {
        unload_status_texts();
        cleanup();
        return kExitInit;
    }
    LogTail tail(log_file);
    auto read_log = [&] {
        tail.poll([&](const std::string &line) {
            size_t at = line.find("EVENT ");
            size_t digits = at == std::string::npos ? 0 : line.find_first_not_of("0123456789", at + 6);
            if (at != std::string::npos && digits != at + 6) {
                seen.insert("event " + line.substr(at + 6, digits == std::string::npos ? std::string::npos : digits - at - 6));
                // From "EVENT": the time stamp and source position of the log line add nothing here.
                reporter.line("", line.substr(at));
            } else if (verbose) {
                reporter.line("", "log: " + line);
            }
        });
    };
    bool interrupted = false;
    while (reporter.elapsed() < d) {
        for (auto &step : steps) {
            if (!step.done && reporter.elapsed() >= step.at) {
                step.done = true;
                reporter.line(step.resource, ">>> " + step.what);
                step.act();
            }
        }
        engine.step();
        board->publish(engine, service == Service::Disknp);
        read_log();
        if (platform::wait_stop_request(50) > 0) {
            // Cut short: let any hung probe complete so the service is torn down cleanly.
            interrupted = true;
            reporter.line("", "interrupted: releasing every disk and stopping");
            for (DWORD disk = 0; disk < 4; ++disk) {
                sim("disk " + std::to_string(disk) + " ok");
                qmtp::sim::release(disk);
            }
            break;
        }
    }
    std::vector<std::string> stuck;
    bool stopped = engine.stop(5000, &stuck);
    read_log();
    if (!stopped) {
        reporter.line("", "passes still running at the end; leaving without teardown");
        std::fflush(nullptr);
        cleanup();
        std::_Exit(kExitStuck);
    }
    if (engine.overdue_reports() > 0)
        seen.insert("overdue");
    std::vector<std::string> wanted = service == Service::Sdw
                                          ? std::vector<std::string>{"event 3651", "event 3652", "event 3653", "overdue"}
                                          : std::vector<std::string>{"status 5", "status 90", "status 99", "suspend", "resume"};
    for (auto s : engine.statuses_seen())
        seen.insert("status " + std::to_string(s));
    std::string missing;
    for (auto &w : wanted)
        if (!seen.count(w))
            missing += (missing.empty() ? "" : ", ") + w;
    if (interrupted)
        missing = "interrupted" + (missing.empty() ? std::string() : ": " + missing);
    std::printf("\n%s: %llu passes; %s\n", missing.empty() ? "demo complete" : "demo incomplete",
                static_cast<unsigned long long>(engine.passes()),
                missing.empty() ? "every step was seen" : ("not seen: " + missing).c_str());
    std::fflush(stdout);
    unload_status_texts();
    cleanup();
    return missing.empty() ? kExitOk : kExitCheckFailed;
}

} // namespace qmtrm
