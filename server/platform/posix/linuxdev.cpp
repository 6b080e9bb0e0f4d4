// linuxdev.cpp - the linux storage backend: volumes are filesystems or partitions found by UUID,
// disks are the whole block devices under them, numbered by name (docs/storage-linux.md).
//
// A probe is SCSI TEST UNIT READY through SG_IO where the device takes it, else a 4 KiB O_DIRECT
// read of sector 0. Probes run on a small pool of threads, one probe per disk in the kernel at a
// time: a probe stuck in the kernel holds one thread and its own descriptor and buffer, later
// probes of that disk wait behind it, and the pool never grows past its cap.
#include "backend.h"
#include "qmtplat.h"

#include <blkid/blkid.h>
#include <dirent.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <thread>

namespace qmtp {
namespace {

constexpr unsigned kMaxProbeThreads = 16;
constexpr size_t kMaxWaitingPerDisk = 32;
constexpr unsigned kSgTimeoutMs = 20000;
constexpr int kIdleThreadSeconds = 30;
const std::string kSysBlock = "/sys/class/block/";

// ---- sysfs -----------------------------------------------------------------------------------

std::string read_line(const std::string &path) {
    std::ifstream f(path);
    std::string s;
    if (!f || !std::getline(f, s)) return {};
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
    return s;
}

bool exists(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> list_dir(const std::string &path) {
    std::vector<std::string> out;
    if (DIR *d = ::opendir(path.c_str())) {
        while (dirent *e = ::readdir(d)) {
            if (e->d_name[0] != '.') out.emplace_back(e->d_name);
        }
        ::closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::string base_name(const std::string &p) {
    auto i = p.find_last_of('/');
    return i == std::string::npos ? p : p.substr(i + 1);
}

std::string real_path(const std::string &p) {
    char buf[PATH_MAX];
    if (!::realpath(p.c_str(), buf)) return {};
    return buf;
}

uint64_t sectors(const std::string &root, const std::string &name, const char *file) {
    std::string s = read_line(root + name + "/" + file);
    return s.empty() ? 0 : std::strtoull(s.c_str(), nullptr, 10);
}

std::string lower(std::string s) {
    for (auto &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// ---- Disk numbers ------------------------------------------------------------------------------

struct Family {
    const char *prefix;
    DWORD base;
    bool letters; // sda, vdb, ... (else a decimal suffix)
};
// Order matters for parsing: "xvd" before "vd".
constexpr Family kFamilies[] = {
    {"sd", 0, true},         {"loop", 1000, false},  {"xvd", 4000, true},  {"vd", 3000, true},
    {"mmcblk", 5000, false}, {"nbd", 6000, false},   {"zram", 7000, false},
};
constexpr DWORD kNvmeBase = 2000;

// "a" -> 0, "z" -> 25, "aa" -> 26: the kernel's own naming of sd/vd disks.
bool letters_index(std::string_view s, DWORD *out) {
    if (s.empty() || s.size() > 3) return false;
    DWORD n = 0;
    for (char c : s) {
        if (c < 'a' || c > 'z') return false;
        n = n * 26 + static_cast<DWORD>(c - 'a' + 1);
    }
    *out = n - 1;
    return true;
}

std::string index_letters(DWORD n) {
    std::string s;
    for (DWORD v = n + 1; v > 0; v = (v - 1) / 26) s.insert(s.begin(), static_cast<char>('a' + (v - 1) % 26));
    return s;
}

bool decimal(std::string_view s, DWORD *out) {
    if (s.empty() || s.size() > 6 || (s.size() > 1 && s[0] == '0')) return false;
    DWORD n = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + static_cast<DWORD>(c - '0');
    }
    *out = n;
    return true;
}

} // namespace

namespace linuxdev {

bool disk_number(const std::string &name, DWORD *out) {
    std::string_view n(name);
    DWORD c, k;
    if (n.starts_with("nvme")) {
        auto p = n.find('n', 4);
        if (p == std::string_view::npos || !decimal(n.substr(4, p - 4), &c) || !decimal(n.substr(p + 1), &k))
            return false;
        if (c > 9 || k < 1 || k > 100) return false;
        *out = kNvmeBase + c * 100 + (k - 1);
        return true;
    }
    for (const Family &f : kFamilies) {
        if (!n.starts_with(f.prefix)) continue;
        std::string_view rest = n.substr(std::strlen(f.prefix));
        if (f.letters ? !letters_index(rest, &k) : !decimal(rest, &k)) return false;
        if (k >= 1000) return false;
        *out = f.base + k;
        return true;
    }
    return false;
}

std::string disk_name(DWORD number) {
    if (number >= kNvmeBase && number < kNvmeBase + 1000) {
        DWORD v = number - kNvmeBase;
        return "nvme" + std::to_string(v / 100) + "n" + std::to_string(v % 100 + 1);
    }
    for (const Family &f : kFamilies) {
        if (number < f.base || number >= f.base + 1000) continue;
        DWORD k = number - f.base;
        return std::string(f.prefix) + (f.letters ? index_letters(k) : std::to_string(k));
    }
    return {};
}

} // namespace linuxdev

namespace {

using linuxdev::disk_number;
using linuxdev::disk_name;

// ---- From a block device down to its whole disks ----------------------------------------------

// Appends the extents of `name`: a partition gives its parent disk at the partition's offset, a
// dm or md device the extents of each of its slaves, a whole disk itself from 0.
DWORD collect_extents_at(const std::string &root, const std::string &name, std::vector<DISK_EXTENT> *out,
                         int depth) {
    if (depth > 16) return ERROR_NOT_SUPPORTED;
    std::string dir = root + name;
    if (!exists(dir)) return ERROR_DEVICE_NOT_CONNECTED;
    if (exists(dir + "/partition")) {
        std::string parent = base_name(real_path(dir).substr(0, real_path(dir).find_last_of('/')));
        DWORD n;
        if (!disk_number(parent, &n)) return ERROR_NOT_SUPPORTED;
        DISK_EXTENT e{};
        e.DiskNumber = n;
        e.StartingOffset.QuadPart = static_cast<LONGLONG>(sectors(root, name, "start") * 512);
        e.ExtentLength.QuadPart = static_cast<LONGLONG>(sectors(root, name, "size") * 512);
        out->push_back(e);
        return 0;
    }
    std::vector<std::string> slaves = list_dir(dir + "/slaves");
    if (!slaves.empty()) {
        for (const std::string &s : slaves) {
            if (DWORD err = collect_extents_at(root, s, out, depth + 1)) return err;
        }
        return 0;
    }
    DWORD n;
    if (!disk_number(name, &n)) return ERROR_NOT_SUPPORTED;
    DISK_EXTENT e{};
    e.DiskNumber = n;
    e.ExtentLength.QuadPart = static_cast<LONGLONG>(sectors(root, name, "size") * 512);
    out->push_back(e);
    return 0;
}

// ---- Finding a volume by UUID -----------------------------------------------------------------

std::string uuid_key(std::string g) {
    if (g.size() >= 2 && g.front() == '{' && g.back() == '}') g = g.substr(1, g.size() - 2);
    return lower(g);
}

// Filesystem UUID of the bytes [offset, offset+size) of an open device, or empty.
std::string superblock_uuid(int fd, uint64_t offset, uint64_t size) {
    std::string out;
    blkid_probe pr = blkid_new_probe();
    if (!pr) return out;
    if (blkid_probe_set_device(pr, fd, static_cast<blkid_loff_t>(offset), static_cast<blkid_loff_t>(size)) == 0) {
        blkid_probe_enable_superblocks(pr, 1);
        blkid_probe_set_superblocks_flags(pr, BLKID_SUBLKS_UUID);
        blkid_probe_enable_partitions(pr, 0);
        const char *v = nullptr;
        if (blkid_do_safeprobe(pr) == 0 && blkid_probe_lookup_value(pr, "UUID", &v, nullptr) == 0 && v) out = v;
    }
    blkid_free_probe(pr);
    return out;
}

// Partition number -> partition UUID of a whole disk's partition table.
std::map<int, std::string> partition_uuids(int fd) {
    std::map<int, std::string> out;
    blkid_probe pr = blkid_new_probe();
    if (!pr) return out;
    if (blkid_probe_set_device(pr, fd, 0, 0) == 0) {
        blkid_probe_enable_superblocks(pr, 0);
        blkid_probe_enable_partitions(pr, 1);
        if (blkid_partlist ls = blkid_probe_get_partitions(pr)) {
            int n = blkid_partlist_numof_partitions(ls);
            for (int i = 0; i < n; ++i) {
                blkid_partition p = blkid_partlist_get_partition(ls, i);
                const char *u = p ? blkid_partition_get_uuid(p) : nullptr;
                if (u) out[blkid_partition_get_partno(p)] = u;
            }
        }
    }
    blkid_free_probe(pr);
    return out;
}

// The block devices (names as in /sys/class/block) carrying the volume. Devices that another
// device holds (members of dm or md) give way to their holder; more than one left is ambiguous.
std::vector<std::string> find_volume(const std::string &guid) {
    const std::string key = uuid_key(guid);
    std::vector<std::string> found;
    auto add = [&found](const std::string &dev) {
        if (std::find(found.begin(), found.end(), dev) == found.end()) found.push_back(dev);
    };
    // udev's links cost no I/O.
    for (const char *dir : {"/dev/disk/by-uuid/", "/dev/disk/by-partuuid/"}) {
        for (const std::string &e : list_dir(dir)) {
            if (lower(e) == key) {
                std::string dev = base_name(real_path(std::string(dir) + e));
                if (!dev.empty() && exists(kSysBlock + dev)) add(dev);
            }
        }
    }
    if (found.empty()) {
        for (const std::string &disk : list_dir("/sys/block/")) {
            if (sectors(kSysBlock, disk, "size") == 0) continue;
            std::string dm = read_line(kSysBlock + disk + "/dm/uuid");
            if (!dm.empty() && lower(dm) == key) add(disk);
            int fd = ::open(("/dev/" + disk).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
            if (fd < 0) continue;
            if (lower(superblock_uuid(fd, 0, 0)) == key) add(disk);
            std::map<int, std::string> parts = partition_uuids(fd);
            for (const std::string &child : list_dir(kSysBlock + disk)) {
                std::string pn = read_line(kSysBlock + disk + "/" + child + "/partition");
                if (pn.empty()) continue;
                auto it = parts.find(std::atoi(pn.c_str()));
                uint64_t start = sectors(kSysBlock, child, "start") * 512, size = sectors(kSysBlock, child, "size") * 512;
                if ((it != parts.end() && lower(it->second) == key) ||
                    (size && lower(superblock_uuid(fd, start, size)) == key))
                    add(child);
            }
            ::close(fd);
        }
    }
    std::vector<std::string> top;
    for (const std::string &dev : found) {
        if (list_dir(kSysBlock + dev + "/holders").empty()) top.push_back(dev);
    }
    return top.empty() ? found : top;
}

// ---- Probes ------------------------------------------------------------------------------------

DWORD error_from_errno(int e) {
    switch (e) {
    case 0: return 0;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS: return ERROR_ACCESS_DENIED;
    case ENOMEDIUM: return ERROR_NOT_READY;
    case ENXIO:
    case ENODEV: return ERROR_DEVICE_NOT_CONNECTED;
    case EBUSY: return ERROR_SHARING_VIOLATION;
    case EIO: return ERROR_IO_DEVICE;
    case ETIMEDOUT: return ERROR_SEM_TIMEOUT;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    default: return ERROR_GEN_FAILURE;
    }
}

// The open descriptors of one handle. Probes in flight share ownership, so a closed handle's
// descriptors live until its last probe leaves the kernel.
struct DiskFds {
    std::string name;
    int fd = -1;     // SG_IO
    int direct = -1; // O_DIRECT reads
    std::atomic<bool> sg_refused{false};
    ~DiskFds() {
        if (fd >= 0) ::close(fd);
        if (direct >= 0) ::close(direct);
    }
};

// 0, or the error of TEST UNIT READY; *unsupported when the device does not take SG_IO.
DWORD test_unit_ready(int fd, bool *unsupported) {
    unsigned char cdb[6] = {0, 0, 0, 0, 0, 0};
    unsigned char sense[32] = {};
    sg_io_hdr_t h{};
    h.interface_id = 'S';
    h.cmd_len = sizeof cdb;
    h.cmdp = cdb;
    h.dxfer_direction = SG_DXFER_NONE;
    h.sbp = sense;
    h.mx_sb_len = sizeof sense;
    h.timeout = kSgTimeoutMs;
    if (::ioctl(fd, SG_IO, &h) < 0) {
        int e = errno;
        if (e == ENOTTY || e == EINVAL || e == ENOSYS || e == EOPNOTSUPP) {
            *unsupported = true;
            return 0;
        }
        return error_from_errno(e);
    }
    if ((h.info & SG_INFO_OK_MASK) == SG_INFO_OK) return 0;
    if (h.host_status == 0x03 /* DID_TIME_OUT */) return ERROR_SEM_TIMEOUT;
    if (h.sb_len_wr > 2) {
        unsigned key = (sense[0] & 0x7f) >= 0x72 ? sense[1] & 0x0f : sense[2] & 0x0f;
        if (key == 0x02 /* NOT READY */) return ERROR_NOT_READY;
    }
    return ERROR_IO_DEVICE;
}

DWORD read_sector0(int fd) {
    void *buf = std::aligned_alloc(4096, 4096);
    if (!buf) return ERROR_NOT_ENOUGH_MEMORY;
    ssize_t r;
    do {
        r = ::pread(fd, buf, 4096, 0);
    } while (r < 0 && errno == EINTR);
    int e = errno;
    std::free(buf);
    if (r < 0) return error_from_errno(e);
    if (r == 0) return ERROR_NOT_READY; // no medium: a loop device without its file
    return 0;
}

DWORD run_probe(DiskFds &d) {
    if (!d.sg_refused.load()) {
        bool unsupported = false;
        DWORD err = test_unit_ready(d.fd, &unsupported);
        if (!unsupported) return err;
        d.sg_refused = true;
    }
    return read_sector0(d.direct);
}

struct Job {
    std::shared_ptr<DiskFds> disk;
    std::shared_ptr<Request> req;
};

struct Lane {
    bool busy = false; // a probe of this disk is in the kernel
    std::deque<Job> waiting;
};

class Pool : public std::enable_shared_from_this<Pool> {
public:
    // Refused with 1450 when the disk already has too many probes waiting.
    bool submit(Job job) {
        std::lock_guard<std::mutex> lk(m_);
        Lane &lane = lanes_[job.disk->name];
        if (lane.waiting.size() >= kMaxWaitingPerDisk) {
            ++refused_;
            return false;
        }
        lane.waiting.push_back(std::move(job));
        if (!lane.busy && lane.waiting.size() == 1) ready_.push_back(lane.waiting.back().disk->name);
        if (idle_ > 0) {
            cv_.notify_one();
        } else if (threads_ < kMaxProbeThreads) {
            ++threads_;
            std::thread([self = shared_from_this()] { self->run(); }).detach();
        }
        return true;
    }

    unsigned in_kernel() {
        std::lock_guard<std::mutex> lk(m_);
        return in_kernel_;
    }
    unsigned threads() {
        std::lock_guard<std::mutex> lk(m_);
        return threads_;
    }

private:
    void run() {
        std::unique_lock<std::mutex> lk(m_);
        for (;;) {
            if (ready_.empty()) {
                ++idle_;
                bool woke = cv_.wait_for(lk, std::chrono::seconds(kIdleThreadSeconds), [this] { return !ready_.empty(); });
                --idle_;
                if (!woke) {
                    --threads_;
                    return;
                }
            }
            std::string name = std::move(ready_.front());
            ready_.pop_front();
            Lane &lane = lanes_[name];
            Job job = std::move(lane.waiting.front());
            lane.waiting.pop_front();
            lane.busy = true;
            ++in_kernel_;
            lk.unlock();
            // A probe cancelled or closed before it started never reaches the device.
            DWORD err = job.req->pending() ? run_probe(*job.disk) : ERROR_OPERATION_ABORTED;
            job.req->complete(err);
            job = Job{};
            lk.lock();
            --in_kernel_;
            Lane &again = lanes_[name];
            again.busy = false;
            if (again.waiting.empty()) {
                lanes_.erase(name);
            } else {
                ready_.push_back(name);
            }
        }
    }

    std::mutex m_;
    std::condition_variable cv_;
    std::map<std::string, Lane> lanes_;
    std::deque<std::string> ready_;
    unsigned threads_ = 0, idle_ = 0, in_kernel_ = 0, refused_ = 0;
};

std::shared_ptr<Pool> &pool() {
    static std::shared_ptr<Pool> p = std::make_shared<Pool>();
    return p;
}

// ---- Handles -----------------------------------------------------------------------------------

class LinuxVolume final : public Volume {
public:
    explicit LinuxVolume(std::string dev) : dev_(std::move(dev)) {}
    DWORD extents(std::vector<DISK_EXTENT> *out) override {
        std::vector<DISK_EXTENT> list;
        if (DWORD err = linuxdev::collect_extents(kSysBlock, dev_, &list)) return err;
        *out = std::move(list);
        return 0;
    }

private:
    std::string dev_;
};

class LinuxDisk final : public Disk {
public:
    explicit LinuxDisk(std::shared_ptr<DiskFds> fds) : fds_(std::move(fds)) {}
    ProbeStart probe(const std::shared_ptr<Request> &req) override {
        if (!pool()->submit(Job{fds_, req})) return {ProbeStart::Refused, ERROR_NO_SYSTEM_RESOURCES};
        return {ProbeStart::Pending, 0};
    }

private:
    std::shared_ptr<DiskFds> fds_;
};

class LinuxBackend final : public Backend {
public:
    const char *name() const override { return "linux"; }
    DWORD open_volume(const std::string &guid, std::unique_ptr<Volume> *out) override {
        std::vector<std::string> devs = find_volume(guid);
        if (devs.empty()) return ERROR_FILE_NOT_FOUND;
        if (devs.size() > 1) return ERROR_AMBIGUOUS_SYSTEM_DEVICE;
        *out = std::make_unique<LinuxVolume>(devs.front());
        return 0;
    }
    storage::Resolution resolve(const std::string &guid) override {
        storage::Resolution r;
        std::vector<std::string> devs = find_volume(guid);
        for (const std::string &d : devs) r.devices.push_back("/dev/" + d);
        if (devs.size() != 1) {
            r.error = devs.empty() ? ERROR_FILE_NOT_FOUND : ERROR_AMBIGUOUS_SYSTEM_DEVICE;
            return r;
        }
        std::vector<DISK_EXTENT> list;
        r.error = linuxdev::collect_extents(kSysBlock, devs.front(), &list);
        for (const DISK_EXTENT &e : list) r.disks.push_back({e.DiskNumber, "/dev/" + disk_name(e.DiskNumber)});
        return r;
    }
    DWORD open_disk(DWORD number, std::unique_ptr<Disk> *out) override {
        std::string name = disk_name(number);
        if (name.empty() || !exists("/sys/block/" + name)) return ERROR_FILE_NOT_FOUND;
        auto fds = std::make_shared<DiskFds>();
        fds->name = name;
        std::string path = "/dev/" + name;
        fds->fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fds->fd < 0) return error_from_errno(errno);
        fds->direct = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT);
        if (fds->direct < 0) return error_from_errno(errno);
        *out = std::make_unique<LinuxDisk>(std::move(fds));
        return 0;
    }
};

} // namespace

DWORD linuxdev::collect_extents(const std::string &root, const std::string &name, std::vector<DISK_EXTENT> *out) {
    return collect_extents_at(root, name, out, 0);
}

std::unique_ptr<Backend> make_linux_backend() { return std::make_unique<LinuxBackend>(); }

} // namespace qmtp

extern "C" {

unsigned qmtp_storage_probes_in_kernel(void) { return qmtp::pool()->in_kernel(); }
unsigned qmtp_storage_probe_threads(void) { return qmtp::pool()->threads(); }

} // extern "C"
