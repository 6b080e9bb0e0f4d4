// The linux backend end to end, on loop devices: a volume found by its filesystem UUID, a healthy
// probe, and probes of a disk whose file is served by a FUSE filesystem of this test that can
// fail its reads with EIO or hold them until released. Runs only as root with working losetup.
#define FUSE_USE_VERSION 31
#include "loop_util.h"
#include "storage_fixture.h"

#include <fuse.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <thread>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

using namespace storage_test;

namespace {

constexpr DWORD kBound = 10000; // ms
constexpr off_t kImageSize = 16 << 20;

class LinuxStorage : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why = why_not_root_loop();
        if (!why.empty()) GTEST_SKIP() << why;
        ASSERT_STREQ(qmtp_storage_name(), "linux");
        dir_ = temp_dir();
        ASSERT_FALSE(dir_.empty());
        handles_ = qmtp_live_handles();
    }
    void TearDown() override {
        if (dir_.empty()) return;
        EXPECT_EQ(qmtp_live_handles(), handles_);
        run("rm -rf " + dir_);
    }
    std::string dir_;
    long handles_ = 0;
};

// ---- A healthy disk -------------------------------------------------------------------------

TEST_F(LinuxStorage, Ext4VolumeResolvesToItsLoopDiskAndProbesHealthy) {
    if (!run("command -v mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 missing";
    const std::string uuid = new_uuid();
    std::string img = dir_ + "/ext4.img";
    ASSERT_TRUE(run("truncate -s 16M " + img));
    ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + img));
    Loop loop;
    ASSERT_TRUE(loop.attach(img));

    // The GUID text matches in either case.
    std::string upper = uuid;
    for (auto &c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const std::string &guid : {uuid, upper}) {
        HANDLE vol = open_volume(guid);
        ASSERT_NE(vol, INVALID_HANDLE_VALUE) << GetLastError();
        std::vector<BYTE> buf(80);
        DWORD returned = 0;
        ASSERT_TRUE(DeviceIoControl(vol, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buf.data(), 80,
                                    &returned, nullptr))
            << GetLastError();
        auto *v = reinterpret_cast<VOLUME_DISK_EXTENTS *>(buf.data());
        EXPECT_EQ(returned, 32u);
        ASSERT_EQ(v->NumberOfDiskExtents, 1u);
        EXPECT_EQ(v->Extents[0].DiskNumber, loop.number);
        EXPECT_EQ(v->Extents[0].StartingOffset.QuadPart, 0);
        EXPECT_EQ(v->Extents[0].ExtentLength.QuadPart, kImageSize);
        EXPECT_TRUE(CloseHandle(vol));
    }

    HANDLE d = open_disk(loop.number);
    ASSERT_NE(d, INVALID_HANDLE_VALUE) << GetLastError();
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    OVERLAPPED ov{};
    ov.hEvent = ev;
    BOOL at_once = DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, &ov);
    if (!at_once) {
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
        ASSERT_EQ(WaitForSingleObject(ev, kBound), WAIT_OBJECT_0);
    }
    DWORD bytes = 9;
    EXPECT_TRUE(GetOverlappedResult(d, &ov, &bytes, FALSE)) << GetLastError();
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(ov.Internal, 0u);
    EXPECT_TRUE(CloseHandle(d));
    EXPECT_TRUE(CloseHandle(ev));
}

// What a GUID resolves to now, as the disk numbers and /dev names of its whole disks.
std::vector<std::pair<DWORD, std::string>> disks_of(const std::string &guid, DWORD *error) {
    qmtp::storage::Resolution r = qmtp::storage::resolve_volume(guid);
    *error = r.error;
    std::vector<std::pair<DWORD, std::string>> out;
    for (const auto &d : r.disks) out.emplace_back(d.number, d.dev);
    return out;
}

// A volume found once is followed by the very next call through every change of its device.
TEST_F(LinuxStorage, VolumeIsFollowedThroughEveryChangeOfItsDevice) {
    if (!run("command -v mkfs.ext4") || !run("command -v tune2fs")) GTEST_SKIP() << "e2fsprogs missing";
    const std::string img = dir_ + "/vol.img", other = dir_ + "/other.img";
    std::string uuid = new_uuid();
    ASSERT_TRUE(run("truncate -s 16M " + img + " " + other + " " + dir_ + "/filler.img"));
    ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + img));
    Loop loop, filler;
    ASSERT_TRUE(loop.attach(img));
    DWORD err = 0;
    using Disks = std::vector<std::pair<DWORD, std::string>>;
    auto here = [&loop] { return Disks{{loop.number, loop.dev}}; };
    ASSERT_EQ(disks_of(uuid, &err), here());

    struct Step {
        const char *what;
        std::function<void()> change;
        bool old_uuid_gone;
    };
    std::string before;
    const Step steps[] = {
        {"relabelled with tune2fs -U",
         [&] { before = uuid; uuid = new_uuid(); ASSERT_TRUE(run("tune2fs -U " + uuid + " " + loop.dev)); }, true},
        {"made anew with mkfs -U",
         [&] { before = uuid; uuid = new_uuid(); ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + loop.dev)); }, true},
        {"re-attached as another loop number",
         [&] {
             before = uuid;
             loop.detach();
             ASSERT_TRUE(filler.attach(dir_ + "/filler.img")); // takes the number just freed
             ASSERT_TRUE(loop.attach(img));
         }, false},
        {"replaced by another file under the same loop number",
         [&] {
             before = uuid;
             uuid = new_uuid();
             ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + other));
             ASSERT_TRUE(run("losetup -d " + loop.dev));
             ASSERT_TRUE(run("losetup " + loop.dev + " " + other));
         }, true},
        {"detached", [&] { before = uuid; loop.detach(); }, true},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        step.change();
        if (step.old_uuid_gone) {
            disks_of(before, &err);
            EXPECT_EQ(err, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        }
        if (loop.dev.empty()) break;
        EXPECT_EQ(disks_of(uuid, &err), here());
        EXPECT_EQ(err, 0u);
        HANDLE vol = open_volume(uuid);
        EXPECT_NE(vol, INVALID_HANDLE_VALUE) << GetLastError();
        if (vol != INVALID_HANDLE_VALUE) CloseHandle(vol);
    }
}

// A copy of the volume's image attached after the volume was found: from the next call on, the
// GUID resolves to neither device, and the query names both; once one is gone the other is it.
TEST_F(LinuxStorage, OneUuidOnTwoDevicesIsAmbiguousUntilOneGoes) {
    if (!run("command -v mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 missing";
    const std::string uuid = new_uuid();
    ASSERT_TRUE(run("truncate -s 16M " + dir_ + "/a.img"));
    ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + dir_ + "/a.img"));
    ASSERT_TRUE(run("cp " + dir_ + "/a.img " + dir_ + "/b.img"));
    Loop a, b;
    ASSERT_TRUE(a.attach(dir_ + "/a.img"));
    DWORD err = 0;
    ASSERT_EQ(disks_of(uuid, &err).size(), 1u);
    ASSERT_TRUE(b.attach(dir_ + "/b.img"));

    SetLastError(0);
    EXPECT_EQ(open_volume(uuid), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_AMBIGUOUS_SYSTEM_DEVICE));
    qmtp::storage::Resolution r = qmtp::storage::resolve_volume("{" + uuid + "}");
    EXPECT_EQ(r.error, static_cast<DWORD>(ERROR_AMBIGUOUS_SYSTEM_DEVICE));
    std::sort(r.devices.begin(), r.devices.end());
    std::vector<std::string> both{a.dev, b.dev};
    std::sort(both.begin(), both.end());
    EXPECT_EQ(r.devices, both);
    EXPECT_TRUE(r.disks.empty());

    a.detach();
    EXPECT_EQ(disks_of(uuid, &err), (std::vector<std::pair<DWORD, std::string>>{{b.number, b.dev}}));
    EXPECT_EQ(err, 0u);
}

TEST_F(LinuxStorage, UnknownVolumeAndDiskAreNotFound) {
    SetLastError(0);
    EXPECT_EQ(open_volume(new_uuid()), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    SetLastError(0);
    EXPECT_EQ(open_disk(1999), INVALID_HANDLE_VALUE); // loop999
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    SetLastError(0);
    EXPECT_EQ(open_disk(9999), INVALID_HANDLE_VALUE); // no family
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

// ---- A disk served by FUSE ---------------------------------------------------------------------
// The filesystem runs in a child process: the kernel's requests to it, and libfuse's own threads
// of control, stay out of the process under test (and out of its sanitizers).

enum Mode : int { kNormal, kEio, kStall };

struct Served {
    std::atomic<int> mode;
    std::atomic<int> stalled; // reads held now
};
Served *g_served = nullptr; // shared with the child

int fs_getattr(const char *path, struct stat *st, fuse_file_info *) {
    std::memset(st, 0, sizeof *st);
    if (std::strcmp(path, "/") == 0) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        return 0;
    }
    if (std::strcmp(path, "/disk.img") == 0) {
        st->st_mode = S_IFREG | 0644;
        st->st_nlink = 1;
        st->st_size = kImageSize;
        return 0;
    }
    return -ENOENT;
}

int fs_open(const char *path, fuse_file_info *fi) {
    if (std::strcmp(path, "/disk.img") != 0) return -ENOENT;
    fi->direct_io = 1; // every read reaches us: no page cache hides a failing disk
    return 0;
}

int fs_read(const char *, char *buf, size_t size, off_t off, fuse_file_info *) {
    if (g_served->mode == kStall) {
        ++g_served->stalled;
        // Bounded, so a test that fails never leaves the kernel waiting on us.
        for (int i = 0; i < 10000 && g_served->mode == kStall; ++i) ::usleep(2000);
        --g_served->stalled;
    }
    if (g_served->mode == kEio) return -EIO;
    if (off >= kImageSize) return 0;
    size_t n = std::min<size_t>(size, static_cast<size_t>(kImageSize - off));
    std::memset(buf, 0, n);
    return static_cast<int>(n);
}

int fs_write(const char *, const char *, size_t size, off_t, fuse_file_info *) { return static_cast<int>(size); }

[[noreturn]] void serve(const std::string &mnt, int ready_fd) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    fuse_operations ops{};
    ops.getattr = fs_getattr;
    ops.open = fs_open;
    ops.read = fs_read;
    ops.write = fs_write;
    char arg0[] = "qmt-stor-fuse";
    char *argv[] = {arg0, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, argv);
    fuse *f = fuse_new(&args, &ops, sizeof ops, nullptr);
    fuse_opt_free_args(&args);
    char ok = f && fuse_mount(f, mnt.c_str()) == 0 ? 'y' : 'n';
    if (::write(ready_fd, &ok, 1) != 1 || ok != 'y') ::_exit(3);
    ::close(ready_fd);
    fuse_loop(f);
    ::_exit(0);
}

void set_mode(Mode m) { g_served->mode = m; }

bool wait_stalled(int n) {
    for (DWORD waited = 0; waited < kBound; waited += 5) {
        if (g_served->stalled >= n) return true;
        Sleep(5);
    }
    return false;
}

// The FUSE filesystem, its mount and the loop device over its file; all undone in TearDown.
class FuseDisk : public LinuxStorage {
protected:
    void SetUp() override {
        LinuxStorage::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable";
        void *mem = ::mmap(nullptr, sizeof(Served), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(mem, MAP_FAILED);
        g_served = new (mem) Served{};
        mnt_ = dir_ + "/mnt";
        ASSERT_EQ(::mkdir(mnt_.c_str(), 0700), 0);
        int pipe_fds[2];
        ASSERT_EQ(::pipe(pipe_fds), 0);
        child_ = ::fork();
        ASSERT_GE(child_, 0);
        if (child_ == 0) {
            ::close(pipe_fds[0]);
            serve(mnt_, pipe_fds[1]);
        }
        ::close(pipe_fds[1]);
        pollfd pfd{pipe_fds[0], POLLIN, 0};
        char ok = 'n';
        if (::poll(&pfd, 1, static_cast<int>(kBound)) == 1 && ::read(pipe_fds[0], &ok, 1) != 1) ok = 'n';
        ::close(pipe_fds[0]);
        if (ok != 'y') GTEST_SKIP() << "FUSE cannot mount here";
        mounted_ = true;
        if (!loop_.attach(mnt_ + "/disk.img")) GTEST_SKIP() << "losetup refuses a FUSE-served file";
    }
    void TearDown() override {
        if (g_served) set_mode(kNormal);
        // Leave the kernel idle before the device and the mount go away.
        for (int i = 0; i < 200 && qmtp_storage_probes_in_kernel() != 0; ++i) Sleep(10);
        if (!loop_.dev.empty()) {
            run("losetup -d " + loop_.dev);
            loop_.dev.clear();
        }
        if (mounted_ && ::umount2(mnt_.c_str(), 0) != 0) ::umount2(mnt_.c_str(), MNT_DETACH);
        if (child_ > 0) {
            int status = 0;
            bool gone = false;
            for (int i = 0; i < 500 && !gone; ++i) {
                gone = ::waitpid(child_, &status, WNOHANG) == child_;
                if (!gone) Sleep(10);
            }
            if (!gone) {
                ::kill(child_, SIGKILL);
                ::waitpid(child_, &status, 0);
            }
        }
        if (g_served) ::munmap(g_served, sizeof(Served));
        g_served = nullptr;
        LinuxStorage::TearDown();
    }

    HANDLE open() {
        HANDLE d = open_disk(loop_.number);
        EXPECT_NE(d, INVALID_HANDLE_VALUE) << GetLastError();
        return d;
    }

    std::string mnt_;
    pid_t child_ = -1;
    bool mounted_ = false;
    Loop loop_;
};

struct Probe {
    OVERLAPPED *ov = new OVERLAPPED{};
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Probe() { ov->hEvent = ev; }
    ~Probe() { free(); }
    void free() {
        if (ev) CloseHandle(ev);
        delete ov;
        ev = nullptr;
        ov = nullptr;
    }
    BOOL issue(HANDLE d) {
        SetLastError(0);
        return DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, ov);
    }
};

// A probe issued on another thread that sticks on the held file: it runs on its caller's thread
// while the disk is healthy. Released and joined on every exit path.
struct StuckCaller {
    BOOL ok = FALSE;
    DWORD error = 0;
    std::thread thread;
    explicit StuckCaller(HANDLE d) {
        thread = std::thread([this, d] {
            Probe p;
            ok = p.issue(d);
            error = GetLastError();
        });
    }
    ~StuckCaller() { join(); }
    void join() {
        if (!thread.joinable()) return;
        set_mode(kNormal);
        thread.join();
    }
};

TEST_F(FuseDisk, HealthyAndFailingReadsAnswerOnTheCallersThread) {
    HANDLE d = open();
    Probe p;
    EXPECT_TRUE(p.issue(d)) << GetLastError();
    EXPECT_EQ(p.ov->Internal, 0u);
    set_mode(kEio);
    Probe q;
    EXPECT_FALSE(q.issue(d));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_DEVICE));
    EXPECT_EQ(q.ov->Internal, 0xC0070000u + ERROR_IO_DEVICE);
    EXPECT_EQ(WaitForSingleObject(q.ev, 0), WAIT_OBJECT_0);
    DWORD bytes = 0;
    EXPECT_FALSE(GetOverlappedResult(d, q.ov, &bytes, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_DEVICE));
    EXPECT_TRUE(CloseHandle(d));
}

// A probe stuck in the kernel holds its caller; the disk's next probe goes pending behind it, the
// disk is named as stuck, and both complete once the device answers.
TEST_F(FuseDisk, StuckProbeIsNamedAndTheNextWaitsBehindIt) {
    HANDLE d = open();
    set_mode(kStall);
    StuckCaller first(d);
    ASSERT_TRUE(wait_stalled(1));
    EXPECT_EQ(qmtp_storage_probes_in_kernel(), 1u);
    std::vector<qmtp::storage::DiskRef> stuck = qmtp::storage::stuck_disks(0);
    ASSERT_EQ(stuck.size(), 1u);
    EXPECT_EQ(stuck[0].number, loop_.number);
    EXPECT_EQ(stuck[0].dev, loop_.dev);
    EXPECT_TRUE(qmtp::storage::stuck_disks(60000).empty());

    Probe next;
    EXPECT_FALSE(next.issue(d));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
    EXPECT_EQ(WaitForSingleObject(next.ev, 200), static_cast<DWORD>(WAIT_TIMEOUT));
    DWORD bytes = 0;
    EXPECT_FALSE(GetOverlappedResult(d, next.ov, &bytes, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_INCOMPLETE));
    EXPECT_EQ(g_served->stalled.load(), 1) << "one probe per disk in the kernel";

    first.join();
    EXPECT_TRUE(first.ok) << first.error;
    ASSERT_EQ(WaitForSingleObject(next.ev, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(GetOverlappedResult(d, next.ov, &bytes, FALSE)) << GetLastError();
    EXPECT_TRUE(CloseHandle(d));
}

TEST_F(FuseDisk, CancelAndCloseLeaveStuckProbesToTheBackend) {
    HANDLE d = open();
    set_mode(kStall);
    StuckCaller first(d);
    ASSERT_TRUE(wait_stalled(1));
    {
        Probe waiting;
        EXPECT_FALSE(waiting.issue(d));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
        EXPECT_TRUE(CancelIo(d));
        EXPECT_EQ(WaitForSingleObject(waiting.ev, 0), WAIT_OBJECT_0);
        DWORD bytes = 0;
        EXPECT_FALSE(GetOverlappedResult(d, waiting.ov, &bytes, FALSE));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
    } // its OVERLAPPED and event are gone
    auto late = std::make_unique<Probe>();
    EXPECT_FALSE(late->issue(d));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
    EXPECT_TRUE(CloseHandle(d));
    EXPECT_EQ(WaitForSingleObject(late->ev, 0), static_cast<DWORD>(WAIT_TIMEOUT)) << "a closed handle's probe says nothing";
    late.reset();
    first.join();
    EXPECT_FALSE(first.ok) << "cancelled while in the kernel";
    EXPECT_EQ(first.error, static_cast<DWORD>(ERROR_OPERATION_ABORTED));
    for (int i = 0; i < 1000 && qmtp_storage_probes_in_kernel() != 0; ++i) Sleep(10);
    EXPECT_EQ(qmtp_storage_probes_in_kernel(), 0u);
    EXPECT_LE(qmtp_storage_probe_threads(), 16u);
}

// Once a probe of a disk has been stuck for a second, the disk's probes run in a child process:
// a process whose probe is then stuck in the kernel still leaves at once, the child staying
// behind until the device answers.
TEST_F(FuseDisk, ProcessLeavesWhileAProbeOfADiskAtRiskIsStuck) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the process forked here starts threads, which ThreadSanitizer does not follow";
#endif
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        HANDLE d = open();
        set_mode(kStall);
        {
            StuckCaller first(d);
            if (!wait_stalled(1)) ::_exit(2);
            Sleep(1200);
        } // released: the disk is now at risk
        set_mode(kStall);
        Probe p;
        if (p.issue(d) || GetLastError() != ERROR_IO_PENDING) ::_exit(3);
        if (!wait_stalled(1)) ::_exit(4);
        ::_exit(0); // with that probe in the kernel
    }
    int status = -1;
    bool gone = false;
    for (int i = 0; i < 1000 && !gone; ++i) {
        gone = ::waitpid(pid, &status, WNOHANG) == pid;
        if (!gone) Sleep(10);
    }
    EXPECT_TRUE(gone) << "the process did not leave while its probe was stuck";
    if (!gone) {
        set_mode(kNormal);
        ::waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(g_served->stalled.load(), 1) << "the probe was still in the kernel when it left";
}

// A FUSE-served loop device that holds every read, monitored by nobody: passes of a healthy
// volume elsewhere never wait for it (the first scan waits for it at most its bound once).
TEST_F(FuseDisk, StalledUnrelatedDeviceDoesNotHoldPassesOfAHealthyVolume) {
    if (!run("command -v mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 missing";
    set_mode(kStall);
    const std::string uuid = new_uuid(), img = dir_ + "/healthy.img";
    ASSERT_TRUE(run("truncate -s 16M " + img));
    ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + img));
    Loop healthy;
    ASSERT_TRUE(healthy.attach(img));
    auto pass = [&] {
        auto t0 = std::chrono::steady_clock::now();
        HANDLE vol = open_volume(uuid);
        EXPECT_NE(vol, INVALID_HANDLE_VALUE) << GetLastError();
        if (vol != INVALID_HANDLE_VALUE) CloseHandle(vol);
        HANDLE d = open_disk(healthy.number);
        Probe p;
        EXPECT_TRUE(p.issue(d) || (GetLastError() == ERROR_IO_PENDING && WaitForSingleObject(p.ev, kBound) == WAIT_OBJECT_0));
        CloseHandle(d);
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    };
    EXPECT_LT(pass(), 6000) << "the first scan waits for the stalled device at most its bound";
    for (int i = 0; i < 50; ++i) ASSERT_LT(pass(), 1000) << "pass " << i;
}

} // namespace

int main(int argc, char **argv) {
    // The backend is chosen once, at first use.
    ::setenv("QMT_STORAGE", "linux", 1);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
