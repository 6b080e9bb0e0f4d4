// Simulated storage, answers given at once: opening volumes and disks, the extents request, the
// probes that succeed or are refused at once, the description format, and fault injection.
#include "storage_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <vector>

using namespace storage_test;
namespace sim = qmtp::sim;

namespace {

struct Extents {
    BOOL ok;
    DWORD error;
    DWORD returned;
    std::vector<BYTE> buf;
    const VOLUME_DISK_EXTENTS *v() const { return reinterpret_cast<const VOLUME_DISK_EXTENTS *>(buf.data()); }
};

Extents get_extents(HANDLE vol, DWORD size) {
    Extents r{};
    r.buf.assign(size, 0);
    r.returned = 0;
    SetLastError(0);
    r.ok = DeviceIoControl(vol, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, r.buf.data(), size, &r.returned,
                           nullptr);
    r.error = r.ok ? 0 : GetLastError();
    return r;
}

// Expects `call` to fail and to leave exactly `error` as the last error.
template <class Call>
void ExpectFails(Call call, DWORD error) {
    SetLastError(0);
    EXPECT_FALSE(call());
    EXPECT_EQ(GetLastError(), error);
}

// ---- Volumes and the extents request --------------------------------------------------------

using VolumeExtents = SimTest;

// The extents request as the plug-in makes it: a first buffer for one extent, a second one sized
// from the count when more are needed.
TEST_F(VolumeExtents, AnswersFitTheBufferOrSayWhatIsMissing) {
    struct Case {
        const char *disks;  // after "volume GUID"; "-" opens disk 0 instead of the volume
        DWORD size;
        DWORD error;        // 0: the request succeeds
        DWORD returned;
        DWORD count;        // NumberOfDiskExtents in the buffer
        std::vector<DWORD> numbers;
    };
    const std::vector<Case> cases = {
        {" disks 4", 32, 0, 32, 1, {4}},
        {" disks 2 0 1", 32, ERROR_MORE_DATA, 32, 3, {}},
        {" disks 2 0 1", 8 + 24 * 3, 0, 80, 3, {2, 0, 1}},
        {" disks 0", 31, ERROR_INSUFFICIENT_BUFFER, 0, 0, {}},
        {" disks", 32, 0, 8, 0, {}},
        {"-", 32, ERROR_INVALID_FUNCTION, 0, 0, {}},
    };
    for (const Case &c : cases) {
        std::string disks = c.disks;
        SCOPED_TRACE(disks + " size " + std::to_string(c.size));
        load(disks == "-" ? std::string("disk 0 ok\n") : std::string("volume ") + kVol1 + disks + "\n");
        HANDLE h = disks == "-" ? open_disk(0) : open_volume(kVol1);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        Extents r = get_extents(h, c.size);
        EXPECT_EQ(r.ok != FALSE, c.error == 0);
        EXPECT_EQ(r.error, c.error);
        if (c.error != ERROR_MORE_DATA) {
            EXPECT_EQ(r.returned, c.returned);
        }
        if (c.error == 0 || c.error == ERROR_MORE_DATA) {
            EXPECT_EQ(r.v()->NumberOfDiskExtents, c.count);
        }
        for (size_t n = 0; n < c.numbers.size(); ++n) {
            EXPECT_EQ(r.v()->Extents[n].DiskNumber, c.numbers[n]);
            EXPECT_EQ(r.v()->Extents[n].StartingOffset.QuadPart, 1LL << 20);
            EXPECT_EQ(r.v()->Extents[n].ExtentLength.QuadPart, 1LL << 30);
        }
        EXPECT_TRUE(CloseHandle(h));
    }
}

// ---- Paths and opening -------------------------------------------------------------------

using OpenDevice = SimTest;

TEST_F(OpenDevice, FailuresGiveWin32Errors) {
    load(std::string("volume ") + kVol1 + " disks 0\nvolume " + kVol3 + " disks 1\ndisk 5 openfail 21\n");
    sim::remove_volume(kVol3);
    struct Case {
        const char *path;
        DWORD disposition;
        DWORD error;
    } cases[] = {
        {"\\\\?\\Volume{}", OPEN_EXISTING, 123},
        {"\\\\?\\Volume6f1c2d3e-0000-4000-8000-000000000001", OPEN_EXISTING, 123},
        {"\\\\?\\Volume{6f1c2d3e-0000-4000-8000-000000000001", OPEN_EXISTING, 123},
        {"\\\\?\\Volume{6f1c/2d3e}", OPEN_EXISTING, 123},
        {"C:\\data", OPEN_EXISTING, 3},
        {"/dev/sda", OPEN_EXISTING, 3},
        {"", OPEN_EXISTING, 3},
        {"\\\\.\\PHYSICALDRIVE", OPEN_EXISTING, 2},
        {"\\\\.\\PHYSICALDRIVEx", OPEN_EXISTING, 2},
        {"\\\\.\\PHYSICALDRIVE01", OPEN_EXISTING, 2},
        {"\\\\.\\PHYSICALDRIVE4294967296", OPEN_EXISTING, 2},
        {"\\\\.\\C:", OPEN_EXISTING, 2},
        {"\\\\.\\PHYSICALDRIVE9", OPEN_EXISTING, ERROR_FILE_NOT_FOUND},                             // no such disk
        {"\\\\.\\PHYSICALDRIVE5", OPEN_EXISTING, 21},                                               // its open fails
        {"\\\\?\\Volume{6f1c2d3e-0000-4000-8000-000000000002}", OPEN_EXISTING, ERROR_FILE_NOT_FOUND}, // no such volume
        {"\\\\?\\Volume{6f1c2d3e-0000-4000-8000-000000000003}", OPEN_EXISTING, ERROR_FILE_NOT_FOUND}, // removed
        {nullptr, OPEN_EXISTING, ERROR_INVALID_PARAMETER},
        {"\\\\.\\PHYSICALDRIVE0", 2 /* CREATE_ALWAYS */, ERROR_INVALID_PARAMETER},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path ? c.path : "NULL");
        SetLastError(0);
        EXPECT_EQ(CreateFileA(c.path, GENERIC_READ, 3, nullptr, c.disposition, 0, nullptr), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), c.error);
    }
}

// GUIDs and device prefixes match in any case, and every disk a volume names exists and answers.
TEST_F(OpenDevice, NamesMatchInAnyCaseAndAVolumesDisksExist) {
    load(std::string("volume ") + kVol3 + " disks 0 1 2\n");
    sim::set_volume("6F1C2D3E-0000-4000-8000-00000000000A", {7});
    for (const char *guid : {"6f1c2d3e-0000-4000-8000-00000000000a", "6F1C2D3E-0000-4000-8000-00000000000A"}) {
        HANDLE vol = open_volume(guid);
        ASSERT_NE(vol, INVALID_HANDLE_VALUE) << guid;
        EXPECT_EQ(get_extents(vol, 32).v()->Extents[0].DiskNumber, 7u);
        EXPECT_TRUE(CloseHandle(vol));
    }
    for (const std::string &path : {disk_path(0), disk_path(1), std::string("\\\\.\\physicaldrive2")}) {
        SCOPED_TRACE(path);
        HANDLE d = CreateFileA(path.c_str(), GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(d, INVALID_HANDLE_VALUE);
        EXPECT_TRUE(CloseHandle(d));
    }
    EXPECT_EQ(sim::get_disk(2).behaviour, sim::Behaviour::Ok);
}

// Device calls on a closed handle or on one that is no device fail with 6; requests a device
// does not answer fail with 1. Neither reaches a disk.
TEST_F(OpenDevice, CallsADeviceCannotTakeFail) {
    load(std::string("volume ") + kVol1 + " disks 0\n");
    HANDLE d = open_disk(0);
    HANDLE vol = open_volume(kVol1);
    HANDLE closed = open_disk(0);
    ASSERT_TRUE(CloseHandle(closed));
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    OVERLAPPED ov{};
    DWORD bytes = 0;
    auto control = [&](HANDLE h, DWORD code) { return DeviceIoControl(h, code, nullptr, 0, nullptr, 0, nullptr, &ov); };
    for (HANDLE h : {closed, ev}) {
        ExpectFails([&] { return control(h, IOCTL_STORAGE_CHECK_VERIFY); }, ERROR_INVALID_HANDLE);
        ExpectFails([&] { return GetOverlappedResult(h, &ov, &bytes, FALSE); }, ERROR_INVALID_HANDLE);
        ExpectFails([&] { return CancelIo(h); }, ERROR_INVALID_HANDLE);
    }
    ExpectFails([&] { return control(vol, IOCTL_STORAGE_CHECK_VERIFY); }, ERROR_INVALID_FUNCTION);
    ExpectFails([&] { return control(d, 0x70000 /* IOCTL_DISK_GET_DRIVE_GEOMETRY */); }, ERROR_INVALID_FUNCTION);
    EXPECT_EQ(sim::probe_count(0), 0u);
    for (HANDLE h : {d, vol, ev})
        EXPECT_TRUE(CloseHandle(h));
}

// ---- Probes answered at once -----------------------------------------------------------------

using ImmediateProbe = SimTest;

// An ok disk completes a probe at once (setting the event, clearing the status block); a refusing
// one fails it at once and leaves the event alone. Either way nothing stays pending.
TEST_F(ImmediateProbe, OkCompletesAndRefuseFailsAtOnce) {
    struct Case {
        const char *disk;
        bool overlapped;
        DWORD error; // 0: the probe succeeds
    };
    for (const Case &c : {Case{"disk 0 ok", true, 0}, Case{"disk 0 ok", false, 0}, Case{"disk 0 refuse 21", true, 21}}) {
        SCOPED_TRACE(std::string(c.disk) + (c.overlapped ? ", overlapped" : ", synchronous"));
        load(std::string(c.disk) + "\n");
        HANDLE d = open_disk(0, c.overlapped ? FILE_FLAG_OVERLAPPED : 0);
        ASSERT_NE(d, INVALID_HANDLE_VALUE);
        HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        OVERLAPPED ov{};
        ov.Internal = ov.InternalHigh = 77;
        ov.hEvent = ev;
        DWORD returned = 5;
        SetLastError(0);
        const BOOL ok = DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0,
                                        c.overlapped ? nullptr : &returned, c.overlapped ? &ov : nullptr);
        EXPECT_EQ(ok != FALSE, c.error == 0);
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_EQ(WaitForSingleObject(ev, 0), c.overlapped && c.error == 0 ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        if (!c.overlapped) {
            EXPECT_EQ(returned, 0u);
        } else if (c.error == 0) {
            EXPECT_EQ(ov.Internal, 0u);
            EXPECT_EQ(ov.InternalHigh, 0u);
            DWORD bytes = 99;
            EXPECT_TRUE(GetOverlappedResult(d, &ov, &bytes, FALSE));
            EXPECT_EQ(bytes, 0u);
        }
        EXPECT_EQ(sim::probe_count(0), 1u);
        EXPECT_EQ(sim::pending_count(0), 0u);
        EXPECT_TRUE(CloseHandle(d));
        EXPECT_TRUE(CloseHandle(ev));
    }
}

// ---- The description format ------------------------------------------------------------------

using Description = SimTest;

TEST_F(Description, EveryStatementSetsItsState) {
    load("# a comment line\n"
         "\n"
         "volume {6F1C2D3E-0000-4000-8000-000000000001} disks 0 1 2   # trailing comment\n"
         "disk 0 ok\n"
         "disk 1 delay 1500\n"
         "disk 2 refuse 21\n"
         "disk 3 fail 1117 after 200\n"
         "disk 4 hang\n"
         "disk 5 openfail 2\n"
         "disk 6 fail 31\r\n"
         "volume 6f1c2d3e-0000-4000-8000-000000000003 extents-error 1\n");
    auto is = [](DWORD n, sim::Behaviour b, DWORD ms, DWORD err) {
        sim::DiskState s = sim::get_disk(n);
        EXPECT_EQ(s.behaviour, b) << n;
        EXPECT_EQ(s.delay_ms, ms) << n;
        EXPECT_EQ(s.error, err) << n;
    };
    is(0, sim::Behaviour::Ok, 0, 0);
    is(1, sim::Behaviour::Delay, 1500, 0);
    is(2, sim::Behaviour::Refuse, 0, 21);
    is(3, sim::Behaviour::Fail, 200, 1117);
    is(4, sim::Behaviour::Hang, 0, 0);
    is(5, sim::Behaviour::OpenFail, 0, 2);
    is(6, sim::Behaviour::Fail, 0, 31);
    HANDLE vol = open_volume(kVol1);
    ASSERT_NE(vol, INVALID_HANDLE_VALUE);
    Extents r = get_extents(vol, 80);
    EXPECT_EQ(r.v()->NumberOfDiskExtents, 3u);
    EXPECT_TRUE(CloseHandle(vol));
    // A volume named only by its extents error exists, and its request fails until the error is
    // cleared.
    vol = open_volume(kVol3);
    ASSERT_NE(vol, INVALID_HANDLE_VALUE);
    EXPECT_EQ(get_extents(vol, 32).error, 1u);
    sim::set_volume_extents_error(kVol3, 0);
    EXPECT_TRUE(get_extents(vol, 32).ok);
    EXPECT_TRUE(CloseHandle(vol));
}

TEST_F(Description, BadLinesNameTheLineAndTheReason) {
    struct Case {
        const char *text;
        const char *why;
    } cases[] = {
        {"disk 0 ok\nfrobnicate 1\n", "<text>:2: unknown statement 'frobnicate'"},
        {"disk x ok\n", "<text>:1: bad disk number 'x'"},
        {"disk 1\n", "<text>:1: missing disk behaviour"},
        {"disk 1 sleep\n", "<text>:1: unknown disk behaviour 'sleep'"},
        {"disk 1 delay\n", "<text>:1: missing delay"},
        {"disk 1 delay -5\n", "<text>:1: bad delay '-5'"},
        {"disk 1 refuse 0\n", "<text>:1: error code must not be 0"},
        {"disk 1 fail 5 before 3\n", "<text>:1: unexpected 'before'"},
        {"disk 1 hang now\n", "<text>:1: unexpected 'now'"},
        {"disk 1 openfail 4294967296\n", "<text>:1: bad error code '4294967296'"},
        {"volume 1234 disks 0\n", "<text>:1: bad volume GUID '1234'"},
        {"volume\n", "<text>:1: missing volume GUID"},
        {"\n\nvolume 6f1c2d3e-0000-4000-8000-000000000001\n",
         "<text>:3: missing 'disks', 'extents-error' or 'remove'"},
        {"volume 6f1c2d3e-0000-4000-8000-000000000001 size 3\n", "<text>:1: unknown volume property 'size'"},
    };
    for (const Case &c : cases) {
        std::string why;
        EXPECT_FALSE(sim::load_text(c.text, &why)) << c.text;
        EXPECT_EQ(why, c.why) << c.text;
    }
}

// A valid text replaces the whole world; an invalid one changes nothing.
TEST_F(Description, LoadReplacesTheWholeWorldOnlyWhenValid) {
    load("disk 0 hang\ndisk 1 delay 10\n");
    std::string why;
    EXPECT_FALSE(sim::load_text("disk 1 ok\ndisk 2 bogus\n", &why));
    EXPECT_EQ(sim::get_disk(1).behaviour, sim::Behaviour::Delay);
    EXPECT_EQ(open_disk(2), INVALID_HANDLE_VALUE);
    load("disk 1 refuse 21\n");
    EXPECT_EQ(open_disk(0), INVALID_HANDLE_VALUE);
    EXPECT_EQ(sim::get_disk(1).behaviour, sim::Behaviour::Refuse);
}

TEST_F(Description, ApplyChangesOneThingOnly) {
    load("disk 0 ok\ndisk 1 ok\n");
    std::string why;
    ASSERT_TRUE(sim::apply("disk 1 delay 1500", &why)) << why;
    EXPECT_EQ(sim::get_disk(0).behaviour, sim::Behaviour::Ok);
    EXPECT_EQ(sim::get_disk(1).behaviour, sim::Behaviour::Delay);
    ASSERT_TRUE(sim::apply(std::string("volume ") + kVol1 + " disks 1 0", &why)) << why;
    ASSERT_TRUE(sim::apply(std::string("volume ") + kVol1 + " remove", &why)) << why;
    EXPECT_EQ(open_volume(kVol1), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(sim::apply("disk 1 nap", &why));
    EXPECT_EQ(why, "<statement>:1: unknown disk behaviour 'nap'");
    EXPECT_FALSE(sim::apply("disk 1 ok\ndisk 2 ok", &why));
    EXPECT_EQ(why, "<statement>:1: one statement only");
}

TEST_F(Description, LoadFileReportsFileAndLine) {
    char path[] = "/tmp/qmt-sim-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    {
        std::ofstream f(path);
        f << "disk 0 ok\n# fine so far\ndisk 1 fail\n";
    }
    std::string why;
    EXPECT_FALSE(sim::load_file(path, &why));
    EXPECT_EQ(why, std::string(path) + ":3: missing error code");
    {
        std::ofstream f(path, std::ios::trunc);
        f << "disk 7 refuse 50\n";
    }
    EXPECT_TRUE(sim::load_file(path, &why)) << why;
    EXPECT_EQ(sim::get_disk(7).error, 50u);
    std::remove(path);
    EXPECT_FALSE(sim::load_file(path, &why));
    EXPECT_EQ(why, std::string(path) + ": cannot be read");
}

// ---- Fault injection ------------------------------------------------------------------------

using DeviceFaults = SimTest;

// Each device call is a fault point: the armed call fails with the chosen error before it reaches
// the disk or touches the caller's buffers, and the next one works again.
TEST_F(DeviceFaults, EveryDeviceCallCanBeMadeToFail) {
    constexpr DWORD kInjected = 4321;
    load(std::string("volume ") + kVol1 + " disks 0 1 2\n");
    HANDLE d = open_disk(0);
    HANDLE vol = open_volume(kVol1);
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    OVERLAPPED ov{};
    ov.hEvent = ev;
    DWORD bytes = 0;
    auto probe = [&] { return DeviceIoControl(d, IOCTL_STORAGE_CHECK_VERIFY, nullptr, 0, nullptr, 0, nullptr, &ov); };
    struct Case {
        const char *name;
        std::function<BOOL()> call;
    } cases[] = {
        {"CreateFileA",
         [] {
             HANDLE h = open_disk(1);
             return h != INVALID_HANDLE_VALUE && CloseHandle(h);
         }},
        {"DeviceIoControl", probe},
        {"GetOverlappedResult", [&] { return GetOverlappedResult(d, &ov, &bytes, FALSE); }},
        {"CancelIo", [&] { return CancelIo(d); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const unsigned probes = sim::probe_count(0);
        ResetEvent(ev);
        qmtp_fault_set(c.name, 1, kInjected);
        ExpectFails(c.call, kInjected);
        EXPECT_EQ(sim::probe_count(0), probes);
        EXPECT_EQ(WaitForSingleObject(ev, 0), static_cast<DWORD>(WAIT_TIMEOUT));
        EXPECT_TRUE(c.call());
    }
    EXPECT_EQ(qmtp_call_count("DeviceIoControl"), 2u);
    qmtp_fault_set("DeviceIoControl", 1, kInjected);
    Extents r = get_extents(vol, 32);
    EXPECT_EQ(r.error, kInjected);
    EXPECT_EQ(r.v()->NumberOfDiskExtents, 0u);
    for (HANDLE h : {d, vol, ev})
        EXPECT_TRUE(CloseHandle(h));
}

} // namespace
