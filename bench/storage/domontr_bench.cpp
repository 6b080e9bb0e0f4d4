// domontr_bench: a DoMontr pass of the loaded plug-in on a one-disk ext4 loop volume with the
// linux backend (no /dev/disk links), against the bare probe of the same device: open, one 4 KiB
// O_DIRECT read of sector 0, close. The two alternate pass by pass in one process, so both meet
// the same machine. Then the same with four other loop devices attached, whose read counters
// must not move over the passes after the first one that saw them. Root only; prints p50/p99 of
// both and their ratios.
#include "loop_util.h"
#include "qmtplat.h"
#include "qmtrm_plugin.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using namespace storage_test;
using Clock = std::chrono::steady_clock;

namespace {

struct Figures {
    double p50, p99;
};

Figures figures(std::vector<double> us) {
    std::sort(us.begin(), us.end());
    return {us[us.size() / 2], us[us.size() * 99 / 100]};
}

double bare_probe(const std::string &dev, void *buf) {
    auto t0 = Clock::now();
    int fd = ::open(dev.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
    if (fd < 0 || ::pread(fd, buf, 4096, 0) != 4096) std::fprintf(stderr, "bare probe failed\n");
    if (fd >= 0) ::close(fd);
    return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

std::string read_counts(const std::string &dev) {
    std::string line;
    std::getline(std::ifstream("/sys/block/" + dev.substr(5) + "/stat"), line);
    std::istringstream in(line);
    std::string reads, merges, sectors;
    in >> reads >> merges >> sectors;
    return reads + "/" + sectors;
}

// The platform calls of one pass without the plug-in around them: open the volume, read its
// extents, open its disk, probe it, close both.
double platform_calls(const std::string &guid, HANDLE event) {
    auto t0 = Clock::now();
    HANDLE vol = CreateFileA(("\\\\?\\Volume{" + guid + "}").c_str(), GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0, nullptr);
    alignas(8) unsigned char buf[8 + 24 * 4];
    DWORD returned = 0;
    DeviceIoControl(vol, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buf, sizeof buf, &returned, nullptr);
    CloseHandle(vol);
    auto *ext = reinterpret_cast<VOLUME_DISK_EXTENTS *>(buf);
    HANDLE disk = CreateFileA(("\\\\.\\PHYSICALDRIVE" + std::to_string(ext->Extents[0].DiskNumber)).c_str(),
                              GENERIC_READ, 3, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    OVERLAPPED ov{};
    ov.hEvent = event;
    DWORD bytes = 0;
    if (!DeviceIoControl(disk, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, &ov))
        GetOverlappedResult(disk, &ov, &bytes, TRUE);
    CloseHandle(disk);
    return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

std::string g_guid;

// Interleaved rounds: one bare probe, one pass, one pass's platform calls. False when a pass fails.
bool measure(qmtrm::Plugin &plugin, const std::string &dev, int rounds, const char *label) {
    void *buf = std::aligned_alloc(4096, 4096);
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::vector<double> bare, pass, calls;
    for (int i = 0; i < rounds; ++i) {
        calls.push_back(platform_calls(g_guid, event));
        bare.push_back(bare_probe(dev, buf));
        auto t0 = Clock::now();
        DWORD status = plugin.DoMontr("sdw", "sdw0");
        pass.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
        if (status != 0) {
            std::fprintf(stderr, "DoMontr returned %u\n", status);
            std::free(buf);
            CloseHandle(event);
            return false;
        }
    }
    std::free(buf);
    CloseHandle(event);
    Figures b = figures(bare), p = figures(pass), c = figures(calls);
    std::printf("%-28s platform calls of a pass alone: p50 %6.1f us p99 %6.1f us\n", label, c.p50, c.p99);
    std::printf("%-28s bare probe p50 %6.1f us p99 %6.1f us | DoMontr pass p50 %6.1f us p99 %6.1f us | "
                "ratio p50 %.2f (<= 1.5) p99 %.2f (<= 2)\n",
                label, b.p50, b.p99, p.p50, p.p99, p.p50 / b.p50, p.p99 / b.p99);
    return true;
}

} // namespace

int main(int argc, char **argv) {
    int rounds = argc > 1 ? std::atoi(argv[1]) : 3000;
    std::string why = why_not_root_loop();
    if (!why.empty()) {
        std::printf("skipped: %s\n", why.c_str());
        return 0;
    }
    if (std::filesystem::exists("/dev/disk/by-uuid")) std::printf("note: /dev/disk/by-uuid exists (the backend does not use it)\n");
    std::string dir = temp_dir();
    const std::string uuid = new_uuid();
    g_guid = uuid;
    run("truncate -s 64M " + dir + "/vol.img");
    run("mkfs.ext4 -q -F -U " + uuid + " " + dir + "/vol.img");
    Loop vol;
    if (!vol.attach(dir + "/vol.img")) {
        std::printf("skipped: cannot attach a loop device\n");
        run("rm -rf " + dir);
        return 0;
    }
    std::filesystem::create_directories(dir + "/conf/policy");
    std::ofstream(dir + "/conf/clp.conf")
        << "<root><cluster><delaywarn><monitor>80</monitor></delaywarn></cluster><monitor>"
        << "<sdw name=\"sdw0\"><polling><interval>1</interval><timeout>60</timeout></polling>"
        << "<parameters><object>sd0</object></parameters></sdw></monitor><resource>"
        << "<sd name=\"sd0\"><server name=\"node1\"><parameters><volumeguid>" << uuid
        << "</volumeguid></parameters></server></sd></resource></root>\n";
    std::ofstream(dir + "/conf/policy/sdw.xml")
        << "<root><monitor><sdw><type>sdw</type><log><level>4</level><size>10000000</size></log></sdw></monitor></root>\n";
    std::ofstream(dir + "/conf/policy/rm.xml") << "<root/>\n";
    const std::string shm = "qmtstorbench" + std::to_string(::getpid());
    ::setenv("QMT_CONF_DIR", (dir + "/conf").c_str(), 1);
    ::setenv("QMT_LOG_DIR", (dir + "/log").c_str(), 1);
    ::setenv("QMT_SHM_NAME", shm.c_str(), 1);
    ::setenv("QMT_HOSTNAME", "node1", 1);
    ::setenv("QMT_STORAGE", "linux", 1);

    qmtrm::Plugin plugin;
    const char *path = std::getenv("QMT_PLUGIN");
    int rc = 0;
    if (!qmtrm::load_plugin(path ? path : QMTSDW_PLUGIN_FILE, &plugin, &why)) {
        std::fprintf(stderr, "%s\n", why.c_str());
        rc = 3;
    } else if (plugin.InitRscDll("qmtsdw", 0, 0) != 0) {
        std::fprintf(stderr, "InitRscDll failed\n");
        rc = 3;
    } else {
        plugin.MontrStatusChange("sdw", "sdw0", 0x110);
        plugin.DoMontr("sdw", "sdw0"); // the first pass finds the volume
        if (!measure(plugin, vol.dev, rounds, "one loop device")) rc = 1;

        std::vector<std::unique_ptr<Loop>> others;
        for (int i = 0; i < 4; ++i) {
            std::string img = dir + "/other" + std::to_string(i) + ".img";
            run("truncate -s 16M " + img);
            run("mkfs.ext4 -q -F -U " + new_uuid() + " " + img);
            others.push_back(std::make_unique<Loop>());
            if (!others.back()->attach(img)) others.pop_back();
        }
        // The first pass after they appeared reads each of them once (could one carry the
        // volume's UUID too?); from then on no pass touches them.
        plugin.DoMontr("sdw", "sdw0");
        std::vector<std::string> before;
        for (auto &l : others) before.push_back(read_counts(l->dev));
        if (rc == 0 && !measure(plugin, vol.dev, std::max(rounds, 1000), "with 4 other loop devices")) rc = 1;
        int moved = 0;
        for (size_t i = 0; i < others.size(); ++i) {
            std::string after = read_counts(others[i]->dev);
            if (after != before[i]) ++moved;
            std::printf("  %s reads/sectors read: %s -> %s\n", others[i]->dev.c_str(), before[i].c_str(), after.c_str());
        }
        std::printf("other loop devices read during the passes: %d of %zu\n", moved, others.size());
        if (moved) rc = 1;
        plugin.UninitRscDll("qmtsdw", 0, 0);
    }
    vol.detach();
    if (std::filesystem::exists("/dev/shm")) {
        for (const auto &e : std::filesystem::directory_iterator("/dev/shm")) {
            std::string n = e.path().filename().string();
            if (n.rfind(shm, 0) == 0) ::shm_unlink(("/" + n).c_str());
        }
    }
    run("rm -rf " + dir);
    return rc;
}
