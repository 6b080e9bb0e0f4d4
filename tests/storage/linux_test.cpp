// The linux backend end to end, on loop devices: a volume found by its filesystem UUID, and probes
// of a disk whose file is served by the stall filesystem, whose reads answer, fail with EIO or are
// held until released. Runs only as root with working losetup.
#include "loop_util.h"
#include "storage_fixture.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>
#include <tuple>

using namespace storage_test;

namespace {

constexpr DWORD kBound = 10000; // ms
constexpr DWORD kNotFound = ERROR_FILE_NOT_FOUND;

bool e2fsprogs() { return run("command -v mkfs.ext4 && command -v tune2fs"); }
bool make_ext4(const std::string &img, const std::string &uuid) {
    return run("truncate -s 16M " + img) && run("mkfs.ext4 -q -F -U " + uuid + " " + img);
}

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

// What a GUID resolves to now, as the disk numbers and /dev names of its whole disks.
using Disks = std::vector<std::pair<DWORD, std::string>>;
Disks disks(const std::vector<qmtp::storage::DiskRef> &refs) {
    Disks out;
    for (const auto &d : refs) out.emplace_back(d.number, d.dev);
    return out;
}
Disks disks_of(const std::string &guid, DWORD *error) {
    qmtp::storage::Resolution r = qmtp::storage::resolve_volume(guid);
    *error = r.error;
    return disks(r.disks);
}
// The disks whose probe has been in the kernel for `ms` or more.
Disks stuck_disks(DWORD ms) { return disks(qmtp::storage::stuck_disks(ms)); }

// The volume's extents through its handle, as (disk number, offset, length); none when it cannot
// be opened.
using Extents = std::vector<std::tuple<DWORD, LONGLONG, LONGLONG>>;
Extents extents_of(const std::string &guid) {
    HANDLE vol = open_volume(guid);
    if (vol == INVALID_HANDLE_VALUE) return {};
    std::vector<BYTE> buf(80);
    DWORD returned = 0;
    Extents out;
    EXPECT_TRUE(DeviceIoControl(vol, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buf.data(), 80, &returned,
                                nullptr))
        << GetLastError();
    auto *v = reinterpret_cast<VOLUME_DISK_EXTENTS *>(buf.data());
    for (DWORD i = 0; i < v->NumberOfDiskExtents; ++i)
        out.emplace_back(v->Extents[i].DiskNumber, v->Extents[i].StartingOffset.QuadPart,
                         v->Extents[i].ExtentLength.QuadPart);
    EXPECT_EQ(returned, 8 + 24 * out.size());
    EXPECT_TRUE(CloseHandle(vol));
    return out;
}

// ---- Volumes ----------------------------------------------------------------------------------

// An ext4 volume is the whole of its loop disk, its GUID matched in either case; once found it is
// followed by the very next call through every change of its device.
TEST_F(LinuxStorage, VolumeIsFollowedThroughEveryChangeOfItsDevice) {
    if (!e2fsprogs()) GTEST_SKIP() << "e2fsprogs missing";
    const std::string img = dir_ + "/vol.img", other = dir_ + "/other.img";
    std::string uuid = new_uuid();
    ASSERT_TRUE(run("truncate -s 16M " + other + " " + dir_ + "/filler.img"));
    ASSERT_TRUE(make_ext4(img, uuid));
    Loop loop, filler;
    ASSERT_TRUE(loop.attach(img));
    DWORD err = 0;
    auto here = [&loop] { return Disks{{loop.number, loop.dev}}; };
    auto whole = [&loop] { return Extents{{loop.number, 0, 16 << 20}}; };
    ASSERT_EQ(disks_of(uuid, &err), here());
    std::string upper = uuid;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    EXPECT_EQ(extents_of(upper), whole());

    struct Step {
        const char *what;
        std::function<void()> change;
        bool old_uuid_gone;
    };
    std::string before;
    const Step steps[] = {
        {"relabelled with tune2fs -U",
         [&] { uuid = new_uuid(); ASSERT_TRUE(run("tune2fs -U " + uuid + " " + loop.dev)); }, true},
        {"made anew with mkfs -U",
         [&] { uuid = new_uuid(); ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + loop.dev)); }, true},
        {"re-attached as another loop number",
         [&] {
             loop.detach();
             ASSERT_TRUE(filler.attach(dir_ + "/filler.img")); // takes the number just freed
             ASSERT_TRUE(loop.attach(img));
         }, false},
        {"replaced by another file under the same loop number",
         [&] {
             uuid = new_uuid();
             ASSERT_TRUE(run("mkfs.ext4 -q -F -U " + uuid + " " + other));
             ASSERT_TRUE(run("losetup -d " + loop.dev));
             ASSERT_TRUE(run("losetup " + loop.dev + " " + other));
         }, true},
        {"detached", [&] { loop.detach(); }, true},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        before = uuid;
        step.change();
        if (step.old_uuid_gone) {
            disks_of(before, &err);
            EXPECT_EQ(err, kNotFound);
        }
        if (loop.dev.empty()) break;
        EXPECT_EQ(disks_of(uuid, &err), here());
        EXPECT_EQ(err, 0u);
        EXPECT_EQ(extents_of(uuid), whole());
    }
}

// A copy of the volume's image attached after the volume was found: from the next call on, the
// GUID resolves to neither device, and the query names both; once one is gone the other is it.
TEST_F(LinuxStorage, OneUuidOnTwoDevicesIsAmbiguousUntilOneGoes) {
    if (!e2fsprogs()) GTEST_SKIP() << "e2fsprogs missing";
    const std::string uuid = new_uuid();
    ASSERT_TRUE(make_ext4(dir_ + "/a.img", uuid));
    ASSERT_TRUE(run("cp " + dir_ + "/a.img " + dir_ + "/b.img"));
    Loop a, b;
    ASSERT_TRUE(a.attach(dir_ + "/a.img"));
    DWORD err = 0;
    ASSERT_EQ(disks_of(uuid, &err), (Disks{{a.number, a.dev}}));
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
    EXPECT_EQ(disks_of(uuid, &err), (Disks{{b.number, b.dev}}));
    EXPECT_EQ(err, 0u);
}

TEST_F(LinuxStorage, UnknownVolumeAndDiskAreNotFound) {
    const std::function<HANDLE()> opens[] = {
        [] { return open_volume(new_uuid()); },
        [] { return open_disk(1999); }, // loop999
        [] { return open_disk(9999); }, // no family
    };
    for (const auto &open : opens) {
        SetLastError(0);
        EXPECT_EQ(open(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), kNotFound);
    }
}

// ---- A disk served by the stall filesystem -----------------------------------------------------
// The filesystem is a process of its own: the kernel's requests to it, and libfuse's threads, stay
// out of the process under test (and out of its sanitizers).

std::string g_hold, g_fail; // while a file exists, the disk's reads are held / fail

void set_flag(const std::string &file, bool on) { on ? void(std::ofstream{file}) : void(::unlink(file.c_str())); }
void hold(bool on) { set_flag(g_hold, on); }

// Whether `done` holds within `ms`, asked every 5 ms.
template <class F> bool within(DWORD ms, F done) {
    for (DWORD waited = 0;; waited += 5, Sleep(5)) {
        if (done()) return true;
        if (waited >= ms) return false;
    }
}
// Whether `pid` ends within `ms`; it is reaped if so.
bool exits_within(pid_t pid, DWORD ms, int *status = nullptr) {
    return within(ms, [&] { return ::waitpid(pid, status, WNOHANG) == pid; });
}
bool kernel_idle_within(DWORD ms) {
    return within(ms, [] { return qmtp_storage_probes_in_kernel() == 0; });
}

// A loop device over a file of the stall filesystem; all undone in TearDown.
class FuseDisk : public LinuxStorage {
protected:
    void SetUp() override {
        LinuxStorage::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable";
        g_hold = dir_ + "/hold";
        g_fail = dir_ + "/fail";
        mnt_ = dir_ + "/mnt";
        const std::string image = dir_ + "/image";
        ASSERT_EQ(::mkdir(mnt_.c_str(), 0700), 0);
        ASSERT_TRUE(run("truncate -s 16M " + image));
        fs_ = ::fork();
        ASSERT_GE(fs_, 0);
        if (fs_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL); // a test killed on its time-out takes it along
            ::execl(QMT_STALLFS, QMT_STALLFS, mnt_.c_str(), image.c_str(), g_hold.c_str(), g_fail.c_str(), nullptr);
            ::_exit(127);
        }
        within(kBound, [&] { return ::access((mnt_ + "/disk.img").c_str(), F_OK) == 0; });
        if (!loop_.attach(mnt_ + "/disk.img")) GTEST_SKIP() << "FUSE cannot mount here, or losetup refuses its file";
    }
    void TearDown() override {
        if (!dir_.empty()) {
            hold(false);
            set_flag(g_fail, false);
        }
        // Leave the kernel idle before the device and the mount go away.
        kernel_idle_within(2000);
        loop_.detach();
        if (fs_ > 0) {
            if (::umount2(mnt_.c_str(), 0) != 0) ::umount2(mnt_.c_str(), MNT_DETACH);
            if (!exits_within(fs_, 5000)) {
                ::kill(fs_, SIGKILL);
                ::waitpid(fs_, nullptr, 0);
            }
        }
        LinuxStorage::TearDown();
    }

    HANDLE open() {
        HANDLE d = open_disk(loop_.number);
        EXPECT_NE(d, INVALID_HANDLE_VALUE) << GetLastError();
        return d;
    }
    // Reads of the loop device in the kernel now, as the block layer counts them.
    int held() {
        int reads = -1;
        std::ifstream("/sys/block/" + loop_.dev.substr(5) + "/inflight") >> reads;
        return reads;
    }
    bool wait_held() { return within(kBound, [this] { return held() >= 1; }); }

    std::string mnt_;
    pid_t fs_ = -1;
    Loop loop_;
};

struct Probe {
    OVERLAPPED *ov = new OVERLAPPED{};
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Probe() { ov->hEvent = ev; }
    ~Probe() {
        CloseHandle(ev);
        delete ov;
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
    explicit StuckCaller(HANDLE d) : thread([this, d] {
        Probe p;
        ok = p.issue(d);
        error = GetLastError();
    }) {}
    ~StuckCaller() { join(); }
    void join() {
        hold(false);
        if (thread.joinable()) thread.join();
    }
};

TEST_F(FuseDisk, HealthyAndFailingReadsAnswerOnTheCallersThread) {
    HANDLE d = open();
    Probe p;
    EXPECT_TRUE(p.issue(d)) << GetLastError();
    EXPECT_EQ(p.ov->Internal, 0u);
    set_flag(g_fail, true);
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
    hold(true);
    StuckCaller first(d);
    ASSERT_TRUE(wait_held());
    EXPECT_EQ(qmtp_storage_probes_in_kernel(), 1u);
    EXPECT_EQ(stuck_disks(0), (Disks{{loop_.number, loop_.dev}}));
    EXPECT_EQ(stuck_disks(60000), Disks{});

    Probe next;
    EXPECT_FALSE(next.issue(d));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
    EXPECT_EQ(WaitForSingleObject(next.ev, 200), static_cast<DWORD>(WAIT_TIMEOUT));
    DWORD bytes = 0;
    EXPECT_FALSE(GetOverlappedResult(d, next.ov, &bytes, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_INCOMPLETE));
    EXPECT_EQ(held(), 1) << "one probe per disk in the kernel";

    first.join();
    EXPECT_TRUE(first.ok) << first.error;
    ASSERT_EQ(WaitForSingleObject(next.ev, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(GetOverlappedResult(d, next.ov, &bytes, FALSE)) << GetLastError();
    EXPECT_TRUE(CloseHandle(d));
}

TEST_F(FuseDisk, CancelAndCloseLeaveStuckProbesToTheBackend) {
    HANDLE d = open();
    hold(true);
    StuckCaller first(d);
    ASSERT_TRUE(wait_held());
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
    EXPECT_TRUE(kernel_idle_within(kBound));
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
        hold(true);
        {
            StuckCaller first(d);
            if (!wait_held()) ::_exit(2);
            Sleep(1200);
        } // released: the disk is now at risk
        hold(true);
        Probe p;
        if (p.issue(d) || GetLastError() != ERROR_IO_PENDING) ::_exit(3);
        if (!wait_held()) ::_exit(4);
        ::_exit(0); // with that probe in the kernel
    }
    int status = -1;
    const bool gone = exits_within(pid, 10000, &status);
    EXPECT_TRUE(gone) << "the process did not leave while its probe was stuck";
    if (!gone) {
        hold(false);
        ::waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(held(), 1) << "the probe was still in the kernel when it left";
}

// A held loop device, monitored by nobody: passes of a healthy volume elsewhere never wait for
// it (the first scan waits for it at most its bound once).
TEST_F(FuseDisk, StalledUnrelatedDeviceDoesNotHoldPassesOfAHealthyVolume) {
    if (!e2fsprogs()) GTEST_SKIP() << "e2fsprogs missing";
    hold(true);
    const std::string uuid = new_uuid(), img = dir_ + "/healthy.img";
    ASSERT_TRUE(make_ext4(img, uuid));
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
