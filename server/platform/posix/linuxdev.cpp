// linuxdev.cpp - the linux storage backend: volumes are filesystems or partitions found by UUID,
// disks are the whole block devices under them, numbered by name (docs/storage-linux.md).
//
// Volumes: a GUID found once by a scan (each disk read in a child process, bounded per disk) is
// kept in a map, and every later use re-checks the entry against the kernel's own record of what
// changed: the disks' diskseq (a new medium or a re-attached loop device), their write counters
// (relabelling goes through them), kernel uevents naming any other disk that appeared or changed
// (only those are read, for a second copy of the GUID), and on disks another node may write, the
// one candidate's superblock itself.
//
// Probes: SCSI TEST UNIT READY through SG_IO where the disk takes it, else a 4 KiB O_DIRECT read
// of sector 0, on a descriptor kept per disk while the disk stays the same. A healthy disk is
// probed on the caller's thread. A disk one of whose probes has been in the kernel for a second or
// more is at risk: its probes go pending and run in a child process, waited for by a small pool of
// threads, so a probe stuck in the kernel holds a child that the host may leave behind, never the
// host itself. One probe per disk is in the kernel at a time; later ones wait behind it.
#include "backend.h"
#include "qmtplat.h"

#include <blkid/blkid.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <scsi/sg.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <set>
#include <thread>
#include <utility>

namespace qmtp {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kMaxProbeThreads = 16;
constexpr size_t kMaxWaitingPerDisk = 32;
constexpr unsigned kSgTimeoutMs = 20000;
constexpr int kIdleThreadSeconds = 30;
constexpr auto kStuck = std::chrono::milliseconds(1000); // a probe this long puts its disk at risk
constexpr int kScanDiskMs = 2000;                         // the longest one disk may hold a scan
constexpr size_t kMaxEvents = 1024;                       // uevents remembered for the map's entries
constexpr auto kKeepIdle = std::chrono::seconds(60);      // a kept descriptor unused this long is closed
const std::string kSysBlock = "/sys/class/block/";

// ---- sysfs -----------------------------------------------------------------------------------

std::string trim(std::string s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
    return s;
}

std::string read_line(const std::string &path) {
    std::ifstream f(path);
    std::string s;
    if (!f || !std::getline(f, s)) return {};
    return trim(s);
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

// A sysfs attribute kept open and re-read from its start. A read fails once the device it
// belongs to is gone, even when a new device has taken its name since: it tells "the same
// device" without a path lookup.
class Attr {
public:
    Attr() = default;
    explicit Attr(const std::string &path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    Attr(Attr &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    Attr &operator=(Attr &&o) noexcept {
        std::swap(fd_, o.fd_);
        return *this;
    }
    Attr(const Attr &) = delete;
    ~Attr() {
        if (fd_ >= 0) ::close(fd_);
    }
    bool read(std::string *out) const {
        char buf[512];
        ssize_t n = fd_ < 0 ? -1 : ::pread(fd_, buf, sizeof buf - 1, 0);
        if (n < 0) return false;
        *out = trim(std::string(buf, static_cast<size_t>(n)));
        return true;
    }

private:
    int fd_ = -1;
};

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

// ---- Reading the UUIDs a disk carries -------------------------------------------------------

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

// Appends a "device uuid" line for everything on `disk` (a whole disk, dm or md device) that
// carries a UUID: the device-mapper UUID, the device's filesystem, and each partition's partition
// UUID and filesystem (read through the disk at the partition's offset, so no partition node is
// needed). Reads that disk only, and past its page cache, which a write to a loop device's file or
// from another node would leave stale.
void disk_ids(const std::string &disk, std::string *out) {
    auto add = [out](const std::string &dev, const std::string &uuid) {
        if (!uuid.empty()) *out += dev + " " + lower(uuid) + "\n";
    };
    add(disk, read_line(kSysBlock + disk + "/dm/uuid"));
    if (sectors(kSysBlock, disk, "size") == 0) return;
    int fd = ::open(("/dev/" + disk).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return;
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    add(disk, superblock_uuid(fd, 0, 0));
    std::map<int, std::string> parts = partition_uuids(fd);
    for (const std::string &child : list_dir(kSysBlock + disk)) {
        std::string pn = read_line(kSysBlock + disk + "/" + child + "/partition");
        if (pn.empty()) continue;
        auto it = parts.find(std::atoi(pn.c_str()));
        if (it != parts.end()) add(child, it->second);
        uint64_t start = sectors(kSysBlock, child, "start") * 512, size = sectors(kSysBlock, child, "size") * 512;
        if (size) add(child, superblock_uuid(fd, start, size));
    }
    ::close(fd);
}

struct Id {
    std::string dev, uuid;
};

void parse_id(const std::string &line, std::vector<Id> *ids) {
    auto sp = line.find(' ');
    if (sp != std::string::npos) ids->push_back({line.substr(0, sp), line.substr(sp + 1)});
}

std::vector<Id> parse_ids(const std::string &text) {
    std::vector<Id> ids;
    size_t at = 0;
    for (size_t nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) parse_id(text.substr(at, nl - at), &ids);
    return ids;
}

// The first thing a child process does: it dies with the thread that made it, and it keeps no
// descriptor of ours but the ones it needs, so that a child the kernel holds for long holds no
// lock, socket or device of the host with it.
void child_setup(int keep_a, int keep_b) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    int lo = std::min(keep_a, keep_b), hi = std::max(keep_a, keep_b);
    if (lo > 3) ::close_range(3, static_cast<unsigned>(lo - 1), 0);
    if (hi > lo + 1) ::close_range(static_cast<unsigned>(lo + 1), static_cast<unsigned>(hi - 1), 0);
    ::close_range(static_cast<unsigned>(hi + 1), ~0u, 0);
}

bool write_all(int fd, const std::string &s) {
    for (size_t done = 0; done < s.size();) {
        ssize_t n = ::write(fd, s.data() + done, s.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Disks an earlier read left stuck in the kernel, with the child holding each.
struct StuckReads {
    std::mutex m;
    std::vector<std::pair<pid_t, std::string>> list;
};
StuckReads &stuck_reads() {
    static StuckReads s;
    return s;
}

// The UUIDs on disks `names`, read in a child process, at most kScanDiskMs per disk. A disk that
// does not answer in time is left to its child and carries nothing as far as this scan knows;
// the scan goes on with the next disk in a new child, and later scans skip that disk at once
// for as long as its child is stuck.
std::vector<Id> read_disks(std::vector<std::string> names) {
    StuckReads &sr = stuck_reads();
    {
        std::lock_guard<std::mutex> lk(sr.m);
        std::erase_if(sr.list, [](const auto &p) { return ::waitpid(p.first, nullptr, WNOHANG) != 0; });
        std::erase_if(names, [&sr](const std::string &n) {
            return std::any_of(sr.list.begin(), sr.list.end(), [&n](const auto &p) { return p.second == n; });
        });
    }
    std::vector<Id> ids;
    for (size_t next = 0; next < names.size();) {
        int p[2];
        pid_t pid = -1;
        if (::pipe2(p, O_CLOEXEC) == 0 && (pid = ::fork()) < 0) {
            ::close(p[0]);
            ::close(p[1]);
        }
        if (pid < 0) { // no child to be had (a process limit): read here, without the bound
            std::string text;
            for (; next < names.size(); ++next) disk_ids(names[next], &text);
            std::vector<Id> rest = parse_ids(text);
            ids.insert(ids.end(), rest.begin(), rest.end());
            break;
        }
        if (pid == 0) {
            child_setup(p[1], p[1]);
            for (size_t i = next; i < names.size(); ++i) {
                std::string text;
                disk_ids(names[i], &text);
                if (!write_all(p[1], text + "\n")) ::_exit(1); // an empty line ends a disk
            }
            ::_exit(0);
        }
        ::close(p[1]);
        std::string buf;
        auto deadline = Clock::now() + std::chrono::milliseconds(kScanDiskMs);
        bool late = false;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollfd pfd{p[0], POLLIN, 0};
            int r = left > 0 ? ::poll(&pfd, 1, static_cast<int>(left)) : 0;
            if (r < 0 && errno == EINTR) continue;
            if (r == 0) late = true;
            if (r <= 0) break;
            char chunk[4096];
            ssize_t n = ::read(p[0], chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            buf.append(chunk, static_cast<size_t>(n));
            for (size_t nl; (nl = buf.find('\n')) != std::string::npos; buf.erase(0, nl + 1)) {
                if (nl == 0) {
                    ++next;
                    deadline = Clock::now() + std::chrono::milliseconds(kScanDiskMs);
                } else {
                    parse_id(buf.substr(0, nl), &ids);
                }
            }
        }
        ::close(p[0]);
        if (late) {
            ::kill(pid, SIGKILL); // it goes as soon as the kernel lets go of it
            std::lock_guard<std::mutex> lk(sr.m);
            sr.list.emplace_back(pid, names[next]);
        } else {
            while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
        // A disk that held the child too long, or on which it died, is passed over.
        if (next < names.size()) ++next;
    }
    return ids;
}

// ---- Kernel uevents ----------------------------------------------------------------------------

// Block-device uevents straight from the kernel (no udev needed), each remembered as the disk it
// concerns: a disk or partition added, removed or changed, a loop device attached or detached, a
// medium changed, a device-mapper table loaded.
class Uevents {
public:
    Uevents() {
        fd_ = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
        if (fd_ < 0) return;
        int size = 4 << 20;
        if (::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
            ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        sockaddr_nl addr{};
        addr.nl_family = AF_NETLINK;
        addr.nl_groups = 1; // the kernel's own uevents
        if (::bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~Uevents() {
        if (fd_ >= 0) ::close(fd_);
    }
    bool ok() const { return fd_ >= 0; }

    // Takes in what arrived; the generation now.
    uint64_t drain() {
        std::lock_guard<std::mutex> lk(m_);
        for (;;) {
            char buf[8192];
            sockaddr_nl from{};
            socklen_t len = sizeof from;
            ssize_t n = ::recvfrom(fd_, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &len);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && errno == ENOBUFS) { // some were dropped: nothing before now can be trusted
                lost_ = ++gen_;
                disks_.clear();
                continue;
            }
            if (n <= 0) break;
            if (from.nl_pid != 0) continue; // only the kernel speaks here
            std::string disk = block_disk(std::string_view(buf, static_cast<size_t>(n)));
            if (disk.empty()) continue;
            disks_.emplace_back(++gen_, disk);
            if (disks_.size() > kMaxEvents) {
                lost_ = disks_.front().first;
                disks_.pop_front();
            }
        }
        return gen_;
    }

    uint64_t generation() {
        std::lock_guard<std::mutex> lk(m_);
        return gen_;
    }

    // The disks named since generation `since`; false when some of those events are lost.
    bool since(uint64_t since, std::set<std::string> *out) {
        std::lock_guard<std::mutex> lk(m_);
        if (since < lost_) return false;
        for (const auto &[g, d] : disks_) {
            if (g > since) out->insert(d);
        }
        return true;
    }

private:
    // "ACTION@DEVPATH\0KEY=VALUE\0...": the whole disk of a block device's event, or empty.
    static std::string block_disk(std::string_view msg) {
        std::string_view path, type;
        bool block = false;
        for (size_t at = 0; at < msg.size();) {
            size_t end = msg.find('\0', at);
            if (end == std::string_view::npos) end = msg.size();
            std::string_view kv = msg.substr(at, end - at);
            if (kv == "SUBSYSTEM=block") block = true;
            if (kv.starts_with("DEVPATH=")) path = kv.substr(8);
            if (kv.starts_with("DEVTYPE=")) type = kv.substr(8);
            at = end + 1;
        }
        if (!block || path.empty()) return {};
        std::string p(path);
        if (type == "partition") p = p.substr(0, p.find_last_of('/'));
        return base_name(p);
    }

    std::mutex m_;
    int fd_ = -1;
    uint64_t gen_ = 0, lost_ = 0;
    std::deque<std::pair<uint64_t, std::string>> disks_;
};

Uevents &uevents() {
    static Uevents u;
    return u;
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

DWORD read_sector0(int fd, void *buf) {
    ssize_t r;
    do {
        r = ::pread(fd, buf, 4096, 0);
    } while (r < 0 && errno == EINTR);
    if (r < 0) return error_from_errno(errno);
    if (r == 0) return ERROR_NOT_READY; // no medium: a loop device without its file
    return 0;
}

// One probe; `sg` is what the disk is known to take: 1 SG_IO, -1 not, 0 not known yet.
DWORD probe_fd(int fd, void *buf, std::atomic<int> &sg) {
    if (sg.load() >= 0) {
        bool unsupported = false;
        DWORD err = test_unit_ready(fd, &unsupported);
        if (!unsupported) {
            sg = 1;
            return err;
        }
        sg = -1;
    }
    return read_sector0(fd, buf);
}

// An open descriptor of a disk; handles and probes in flight share it.
struct DiskFd {
    int fd = -1;
    ~DiskFd() {
        if (fd >= 0) ::close(fd);
    }
};

// A loop device whose detach waits for its last descriptor to close (LOOP_CLR_FD while open).
bool detach_pending(int fd) {
    loop_info64 info{};
    return ::ioctl(fd, LOOP_GET_STATUS64, &info) == 0 && (info.lo_flags & LO_FLAGS_AUTOCLEAR);
}

struct Job;
void watch_kept();

// What the backend keeps of one disk between opens: its descriptor while it stands for the same
// medium, what it takes (SG_IO or not), a probe buffer, and its probe lane.
struct DiskState {
    explicit DiskState(std::string n)
        : name(std::move(n)), loop(name.starts_with("loop")), buf(std::aligned_alloc(4096, 4096)) {}
    ~DiskState() { std::free(buf); }

    // The descriptor for a new handle: the kept one while the disk's diskseq holds and no uevent
    // taken in so far named it, else a fresh one (kept in turn). The uevents are those the
    // volume's check took in just before, in the same pass; a disk removed without one answers
    // its probe with an error, which drops the descriptor. A loop device set to detach at its
    // last close is never kept open, so that its detach goes ahead; one set so while kept is let
    // go by the volume's check or within a second (watch_kept).
    DWORD open(std::shared_ptr<DiskFd> *out) {
        std::lock_guard<std::mutex> lk(open_m);
        last_open = Clock::now();
        Uevents &ev = uevents();
        uint64_t gen = ev.ok() ? ev.generation() : 0;
        if (fd) {
            std::set<std::string> named;
            uint64_t now = 0;
            bool same = ev.ok() && ev.since(fd_gen, &named) && !named.count(name) &&
                        ::ioctl(fd->fd, BLKGETDISKSEQ, &now) == 0 && now == seq;
            if (!same) fd.reset();
        }
        if (!fd) {
            gen = ev.ok() ? ev.drain() : 0;
            if (!exists("/sys/block/" + name)) return ERROR_FILE_NOT_FOUND;
            auto f = std::make_shared<DiskFd>();
            f->fd = ::open(("/dev/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_DIRECT);
            if (f->fd < 0) return error_from_errno(errno);
            uint64_t s = 0;
            if (!ev.ok() || ::ioctl(f->fd, BLKGETDISKSEQ, &s) != 0 || (loop && detach_pending(f->fd))) {
                *out = std::move(f);
                return 0;
            }
            seq = s;
            fd_gen = gen;
            fd = std::move(f);
            watch_kept();
        }
        *out = fd;
        return 0;
    }
    // After a failed probe the next handle starts afresh.
    void release() {
        std::lock_guard<std::mutex> lk(open_m);
        fd.reset();
    }
    // Lets go of the kept descriptor when a loop device's detach waits for it, or when the disk
    // has not been opened for a while; true while one is still kept.
    bool tidy() {
        std::lock_guard<std::mutex> lk(open_m);
        if (fd && ((loop && detach_pending(fd->fd)) || Clock::now() - last_open >= kKeepIdle)) fd.reset();
        return fd != nullptr;
    }

    const std::string name;
    const bool loop;
    void *const buf; // used by the one probe of this disk in the kernel
    std::atomic<int> sg{0};

    std::mutex open_m;
    std::shared_ptr<DiskFd> fd;
    uint64_t seq = 0, fd_gen = 0;
    Clock::time_point last_open;

    // The lane, under the pool's lock.
    bool busy = false;    // a probe of this disk is in the kernel
    bool at_risk = false; // one has been there kStuck or longer: probes run in a child
    Clock::time_point since;
    std::deque<Job> waiting;
};

struct Job {
    std::shared_ptr<DiskState> disk;
    std::shared_ptr<DiskFd> fd;
    std::shared_ptr<Request> req;
};

// One probe in a child process, waited for here. A probe that never leaves the kernel then holds
// that child, which the host may leave behind, and a thread of ours asleep on a pipe, which never
// keeps the host from exiting.
DWORD probe_in_child(DiskState &d, int fd) {
    int p[2];
    pid_t pid = -1;
    if (::pipe2(p, O_CLOEXEC) == 0 && (pid = ::fork()) < 0) {
        ::close(p[0]);
        ::close(p[1]);
    }
    if (pid < 0) return probe_fd(fd, d.buf, d.sg); // no child to be had: probe here after all
    if (pid == 0) {
        child_setup(p[1], fd);
        int32_t msg[2] = {static_cast<int32_t>(probe_fd(fd, d.buf, d.sg)), d.sg.load()};
        ssize_t n = ::write(p[1], msg, sizeof msg);
        ::_exit(n == sizeof msg ? 0 : 1);
    }
    ::close(p[1]);
    int32_t msg[2] = {};
    size_t got = 0;
    while (got < sizeof msg) {
        ssize_t n = ::read(p[0], reinterpret_cast<char *>(msg) + got, sizeof msg - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    ::close(p[0]);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (got != sizeof msg) return ERROR_GEN_FAILURE;
    d.sg = msg[1];
    return static_cast<DWORD>(msg[0]);
}

class Pool : public std::enable_shared_from_this<Pool> {
public:
    std::shared_ptr<DiskState> state(const std::string &name) {
        std::lock_guard<std::mutex> lk(m_);
        auto &s = disks_[name];
        if (!s) s = std::make_shared<DiskState>(name);
        return s;
    }
    std::shared_ptr<DiskState> find(const std::string &name) {
        std::lock_guard<std::mutex> lk(m_);
        auto it = disks_.find(name);
        return it == disks_.end() ? nullptr : it->second;
    }

    // A healthy disk with no probe in the kernel is probed here and now; otherwise the probe
    // waits in the disk's lane (refused with 1450 when too many wait).
    ProbeStart probe(Job job) {
        DiskState &d = *job.disk;
        std::unique_lock<std::mutex> lk(m_);
        if (d.busy && Clock::now() - d.since >= kStuck) d.at_risk = true;
        if (!d.busy && d.waiting.empty() && !d.at_risk) {
            enter(d);
            lk.unlock();
            DWORD err = probe_fd(job.fd->fd, d.buf, d.sg);
            if (err) d.release();
            lk.lock();
            leave(d, false);
            return {ProbeStart::Done, err};
        }
        if (d.waiting.size() >= kMaxWaitingPerDisk) return {ProbeStart::Refused, ERROR_NO_SYSTEM_RESOURCES};
        d.waiting.push_back(std::move(job));
        if (!d.busy && d.waiting.size() == 1) schedule(d.waiting.back().disk);
        return {ProbeStart::Pending, 0};
    }

    bool at_risk(const std::string &name) {
        std::lock_guard<std::mutex> lk(m_);
        auto it = disks_.find(name);
        return it != disks_.end() && it->second->at_risk;
    }

    std::vector<storage::DiskRef> stuck(DWORD ms) {
        std::lock_guard<std::mutex> lk(m_);
        std::vector<storage::DiskRef> out;
        for (const auto &[name, d] : disks_) {
            DWORD n = 0;
            if (d->busy && Clock::now() - d->since >= std::chrono::milliseconds(ms) && linuxdev::disk_number(name, &n))
                out.push_back({n, "/dev/" + name});
        }
        return out;
    }

    unsigned in_kernel() {
        std::lock_guard<std::mutex> lk(m_);
        return in_kernel_;
    }
    unsigned threads() {
        std::lock_guard<std::mutex> lk(m_);
        return threads_;
    }

    // While descriptors are kept, a thread of their own looks at them every second, so that a
    // loop device detached while we hold it goes even when no pass comes.
    void watch_kept() {
        std::lock_guard<std::mutex> lk(m_);
        kept_since_tidy_ = true;
        if (tidying_) return;
        tidying_ = true;
        std::thread([self = shared_from_this()] { self->tidy_loop(); }).detach();
    }

private:
    void enter(DiskState &d) {
        d.busy = true;
        d.since = Clock::now();
        ++in_kernel_;
    }
    // A probe left the kernel: a slow one puts the disk at risk, a quick one in a child clears it.
    void leave(DiskState &d, bool in_child) {
        bool slow = Clock::now() - d.since >= kStuck;
        if (slow) d.at_risk = true;
        if (in_child && !slow) d.at_risk = false;
        d.busy = false;
        --in_kernel_;
        if (!d.waiting.empty()) schedule(d.waiting.front().disk);
    }
    void schedule(const std::shared_ptr<DiskState> &d) {
        ready_.push_back(d);
        if (idle_ > 0) {
            cv_.notify_one();
        } else if (threads_ < kMaxProbeThreads) {
            ++threads_;
            std::thread([self = shared_from_this()] { self->run(); }).detach();
        }
    }

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
            std::shared_ptr<DiskState> d = std::move(ready_.front());
            ready_.pop_front();
            Job job = std::move(d->waiting.front());
            d->waiting.pop_front();
            enter(*d);
            bool in_child = d->at_risk;
            lk.unlock();
            // A probe cancelled or closed before it started never reaches the device.
            bool started = job.req->pending();
            DWORD err = !started ? ERROR_OPERATION_ABORTED
                        : in_child ? probe_in_child(*d, job.fd->fd)
                                   : probe_fd(job.fd->fd, d->buf, d->sg);
            job.req->complete(err);
            if (started && err) d->release();
            job = Job{};
            lk.lock();
            leave(*d, started && in_child);
        }
    }

    void tidy_loop() {
        for (;;) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            std::vector<std::shared_ptr<DiskState>> all;
            {
                std::lock_guard<std::mutex> lk(m_);
                kept_since_tidy_ = false;
                for (const auto &[name, d] : disks_) all.push_back(d);
            }
            bool kept = false;
            for (const auto &d : all) kept = d->tidy() || kept;
            std::lock_guard<std::mutex> lk(m_);
            if (!kept && !kept_since_tidy_) {
                tidying_ = false;
                return;
            }
        }
    }

    std::mutex m_;
    std::condition_variable cv_;
    std::map<std::string, std::shared_ptr<DiskState>> disks_;
    std::deque<std::shared_ptr<DiskState>> ready_;
    unsigned threads_ = 0, idle_ = 0, in_kernel_ = 0;
    bool tidying_ = false, kept_since_tidy_ = false;
};

std::shared_ptr<Pool> &pool() {
    // A process forked from this one starts with a pool of its own: the probe threads and
    // probes in flight that this one counts do not exist there.
    static std::shared_ptr<Pool> p = [] {
        ::pthread_atfork(nullptr, nullptr, [] { pool() = std::make_shared<Pool>(); });
        return std::make_shared<Pool>();
    }();
    return p;
}

void watch_kept() { pool()->watch_kept(); }

// ---- The volume map ----------------------------------------------------------------------------

// The write counters of a /sys/block/X/stat line: writes, sectors written, discards.
std::string write_counts(const std::string &stat) {
    std::vector<std::string> f;
    for (size_t at = 0; at < stat.size();) {
        size_t b = stat.find_first_not_of(' ', at);
        if (b == std::string::npos) break;
        size_t e = stat.find(' ', b);
        f.push_back(stat.substr(b, e == std::string::npos ? std::string::npos : e - b));
        at = e == std::string::npos ? stat.size() : e;
    }
    if (f.size() < 7) return {};
    return f[4] + " " + f[6] + " " + (f.size() > 11 ? f[11] : "");
}

bool same_file_state(const struct stat &a, const struct stat &b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// One GUID as found: the device carrying it, and what tells whether that still holds.
struct Entry {
    std::mutex m;
    std::string dev;                  // the device carrying the GUID
    std::string top;                  // the disk it lives on (itself, or a partition's disk)
    std::vector<DISK_EXTENT> extents; // its whole disks
    Attr dev_attr;                    // a partition's own `dev`: unreadable once it is gone
    struct Seq {
        std::string name;
        Attr attr;
        std::string value;
    };
    std::vector<Seq> seqs;   // diskseq of top and of every disk under it, as found
    bool local = false;      // top is a loop or zram disk: every write to it passes through here
    Attr stat;               // top's I/O counters
    std::string writes;      // their write counts when last verified ("": not yet)
    int backing = -1;        // a loop top's file (O_PATH)
    struct stat backing_st{}; // its state when last verified
    uint64_t gen = 0;        // the uevent generation when last verified
    ~Entry() {
        if (backing >= 0) ::close(backing);
    }
    bool own(const std::string &disk) const {
        return disk == top || disk == dev ||
               std::any_of(seqs.begin(), seqs.end(), [&disk](const Seq &s) { return s.name == disk; });
    }
};

// The devices among `ids` that carry `key`, a device held by another (a dm or md member) giving
// way to its holder.
std::vector<std::string> carriers(const std::vector<Id> &ids, const std::string &key) {
    std::vector<std::string> found;
    for (const Id &id : ids) {
        if (id.uuid == key && std::find(found.begin(), found.end(), id.dev) == found.end()) found.push_back(id.dev);
    }
    std::vector<std::string> top;
    for (const std::string &dev : found) {
        if (list_dir(kSysBlock + dev + "/holders").empty()) top.push_back(dev);
    }
    return top.empty() ? found : top;
}

// Whether `e` still answers for `key`. Reads no device but e's own disk, and disks that uevents
// named since e was last verified (only those could have become a second carrier of `key`).
bool still_valid(Entry &e, const std::string &key) {
    Uevents &ev = uevents();
    uint64_t gen = ev.drain();
    std::set<std::string> named;
    if (!ev.since(e.gen, &named)) return false;
    std::string v;
    if (e.dev != e.top && !e.dev_attr.read(&v)) return false;
    if (e.top.starts_with("loop")) {
        if (auto d = pool()->find(e.top)) d->tidy();
    }
    for (const Entry::Seq &s : e.seqs) {
        if (!s.attr.read(&v) || v != s.value) return false;
    }
    std::vector<std::string> others;
    for (const std::string &n : named) {
        if (e.own(n)) return false;
        others.push_back(n);
    }
    if (!others.empty() && !carriers(read_disks(others), key).empty()) return false;
    if (!e.stat.read(&v)) return false;
    std::string writes = write_counts(v);
    struct stat b{};
    if (e.backing >= 0 && ::fstat(e.backing, &b) != 0) return false;
    if (!e.local || writes.empty() || writes != e.writes || !same_file_state(b, e.backing_st)) {
        std::vector<Id> ids;
        if (pool()->at_risk(e.top)) {
            ids = read_disks({e.top});
        } else {
            std::string text;
            disk_ids(e.top, &text);
            ids = parse_ids(text);
        }
        if (carriers(ids, key) != std::vector<std::string>{e.dev}) return false;
        e.writes = writes;
        e.backing_st = b;
    }
    e.gen = gen;
    return true;
}

// A new entry for `dev`, found by a scan that began at uevent generation `gen`; null where the
// kernel gives no way to tell a change (no diskseq).
std::shared_ptr<Entry> make_entry(const std::string &dev, const std::vector<DISK_EXTENT> &extents, uint64_t gen) {
    auto e = std::make_shared<Entry>();
    e->dev = dev;
    e->top = dev;
    e->extents = extents;
    e->gen = gen;
    if (exists(kSysBlock + dev + "/partition")) {
        std::string path = real_path(kSysBlock + dev);
        e->top = base_name(path.substr(0, path.find_last_of('/')));
        e->dev_attr = Attr(kSysBlock + dev + "/dev");
    }
    std::vector<std::string> names{e->top};
    for (const DISK_EXTENT &x : extents) {
        std::string n = linuxdev::disk_name(x.DiskNumber);
        if (std::find(names.begin(), names.end(), n) == names.end()) names.push_back(n);
    }
    for (const std::string &n : names) {
        Entry::Seq s{n, Attr(kSysBlock + n + "/diskseq"), {}};
        if (!s.attr.read(&s.value) || s.value.empty()) return nullptr;
        e->seqs.push_back(std::move(s));
    }
    e->local = e->top.starts_with("loop") || e->top.starts_with("zram");
    e->stat = Attr(kSysBlock + e->top + "/stat");
    if (e->top.starts_with("loop")) {
        std::string file = read_line(kSysBlock + e->top + "/loop/backing_file");
        e->backing = ::open(file.c_str(), O_PATH | O_CLOEXEC);
        if (e->backing < 0) return nullptr;
    }
    return e;
}

struct VolumeMap {
    std::mutex m;    // the map
    std::mutex scan; // one scan at a time
    std::map<std::string, std::shared_ptr<Entry>> entries;
};
VolumeMap &volume_map() {
    static VolumeMap v;
    return v;
}

// The device carrying `key` with its whole disks: 0, 2 (none) or 15250 (more than one; *devs
// names them). From the map when its entry still holds, else by one scan of every disk.
DWORD find_volume(const std::string &key, std::vector<std::string> *devs, std::vector<DISK_EXTENT> *extents) {
    VolumeMap &vm = volume_map();
    auto cached = [&vm, &key, devs, extents]() {
        std::shared_ptr<Entry> e;
        {
            std::lock_guard<std::mutex> lk(vm.m);
            auto it = vm.entries.find(key);
            if (it != vm.entries.end()) e = it->second;
        }
        if (!e) return false;
        std::lock_guard<std::mutex> lk(e->m);
        if (still_valid(*e, key)) {
            *devs = {e->dev};
            *extents = e->extents;
            return true;
        }
        std::lock_guard<std::mutex> mlk(vm.m);
        if (vm.entries[key] == e) vm.entries.erase(key);
        return false;
    };
    if (cached()) return 0;
    std::lock_guard<std::mutex> slk(vm.scan);
    if (cached()) return 0; // another caller's scan found it meanwhile
    Uevents &ev = uevents();
    uint64_t gen = ev.ok() ? ev.drain() : 0;
    std::vector<std::string> names;
    for (const std::string &disk : list_dir("/sys/block/")) {
        if (sectors(kSysBlock, disk, "size") != 0) names.push_back(disk);
    }
    *devs = carriers(read_disks(names), key);
    if (devs->empty()) return ERROR_FILE_NOT_FOUND;
    if (devs->size() > 1) return ERROR_AMBIGUOUS_SYSTEM_DEVICE;
    extents->clear();
    if (DWORD err = linuxdev::collect_extents(kSysBlock, devs->front(), extents)) return err;
    if (ev.ok()) {
        if (auto e = make_entry(devs->front(), *extents, gen)) {
            std::lock_guard<std::mutex> lk(vm.m);
            vm.entries[key] = std::move(e);
        }
    }
    return 0;
}

// ---- Handles -----------------------------------------------------------------------------------

class LinuxVolume final : public Volume {
public:
    explicit LinuxVolume(std::vector<DISK_EXTENT> extents) : extents_(std::move(extents)) {}
    DWORD extents(std::vector<DISK_EXTENT> *out) override {
        *out = extents_;
        return 0;
    }

private:
    std::vector<DISK_EXTENT> extents_;
};

class LinuxDisk final : public Disk {
public:
    LinuxDisk(std::shared_ptr<DiskState> state, std::shared_ptr<DiskFd> fd)
        : state_(std::move(state)), fd_(std::move(fd)) {}
    ProbeStart probe(const std::shared_ptr<Request> &req) override { return pool()->probe(Job{state_, fd_, req}); }

private:
    std::shared_ptr<DiskState> state_;
    std::shared_ptr<DiskFd> fd_;
};

class LinuxBackend final : public Backend {
public:
    const char *name() const override { return "linux"; }
    DWORD open_volume(const std::string &guid, std::unique_ptr<Volume> *out) override {
        std::vector<std::string> devs;
        std::vector<DISK_EXTENT> extents;
        if (DWORD err = find_volume(uuid_key(guid), &devs, &extents)) return err;
        *out = std::make_unique<LinuxVolume>(std::move(extents));
        return 0;
    }
    DWORD open_disk(DWORD number, std::unique_ptr<Disk> *out) override {
        std::string name = disk_name(number);
        if (name.empty()) return ERROR_FILE_NOT_FOUND;
        std::shared_ptr<DiskState> state = pool()->state(name);
        std::shared_ptr<DiskFd> fd;
        if (DWORD err = state->open(&fd)) return err;
        *out = std::make_unique<LinuxDisk>(std::move(state), std::move(fd));
        return 0;
    }
    storage::Resolution resolve(const std::string &guid) override {
        storage::Resolution r;
        std::vector<std::string> devs;
        std::vector<DISK_EXTENT> extents;
        r.error = find_volume(uuid_key(guid), &devs, &extents);
        for (const std::string &d : devs) r.devices.push_back("/dev/" + d);
        if (!r.error) {
            for (const DISK_EXTENT &e : extents) r.disks.push_back({e.DiskNumber, "/dev/" + disk_name(e.DiskNumber)});
        }
        return r;
    }
    std::vector<storage::DiskRef> stuck(DWORD ms) override { return pool()->stuck(ms); }
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
