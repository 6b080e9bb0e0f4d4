// log_win_test.cpp - qmtlog.dll on Windows, under Wine: the same lines as on Linux, rotation, and
// writers of several processes serialised by the module's named mutex.
//
// The program is also its own child: "log_win_test --writer DIR MODULE MUTEX NAME COUNT" writes
// COUNT numbered lines and exits.
#include "qmtlog.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

const std::string kPad(100, 'x');

void write_many(HANDLE h, const char *who, int n)
{
    for (int i = 0; i < n; ++i)
        QmtLogWrite(h, QMTLOG_INFO, 0, "w.cpp", 1, "Writer", "%s %d %s.", who, i, kPad.c_str());
}

int writer_main(char **argv)
{
    _putenv_s("QMT_LOG_DIR", argv[2]);
    HANDLE h = nullptr;
    if (QmtLogOpen(argv[3], &h, QMTLOG_INFO, 100000000, 0, argv[4]) != 0)
        return 2;
    write_many(h, argv[5], std::atoi(argv[6]));
    return QmtLogClose(h) == 0 ? 0 : 3;
}

Lines read_lines(const std::string &path)
{
    Lines out;
    std::ifstream f(path, std::ios::binary);
    for (std::string l; std::getline(f, l);)
        out.push_back(l);
    return out;
}

bool exists(const std::string &path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// "YYYY-MM-DD hh:mm:ss.mmm" at the start of a line.
bool has_time_stamp(const std::string &l)
{
    static const char shape[] = "dddd-dd-dd dd:dd:dd.ddd";
    if (l.size() < sizeof shape - 1)
        return false;
    for (size_t i = 0; i + 1 < sizeof shape; ++i)
        if (shape[i] == 'd' ? (l[i] < '0' || l[i] > '9') : l[i] != shape[i])
            return false;
    return true;
}

std::string who()
{
    return std::to_string(GetCurrentProcessId()) + "/" + std::to_string(GetCurrentThreadId());
}

class WinLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmp[MAX_PATH];
        ASSERT_GT(GetTempPathA(sizeof tmp, tmp), 0u);
        dir_ = std::string(tmp) + "qmtlogtest" + std::to_string(GetCurrentProcessId()) + "_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ASSERT_EQ(_putenv_s("QMT_LOG_DIR", dir_.c_str()), 0);
    }
    void TearDown() override
    {
        for (HANDLE h : open_)
            QmtLogClose(h);
        for (const char *suffix : {"", ".1", ".2", ".3", ".4"})
            DeleteFileA(path(suffix).c_str());
        RemoveDirectoryA(dir_.c_str());
        _putenv_s("QMT_LOG_DIR", "");
    }
    // Module names are kept for the life of the process: one of its own per test.
    std::string module() const { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }
    std::string mutex_name() const { return "Local\\qmtlogtest_" + module(); }
    std::string path(const char *suffix = "") const { return dir_ + "\\" + module() + ".log" + suffix; }
    HANDLE open(int level = QMTLOG_INFO, int size = 0)
    {
        HANDLE h = nullptr;
        EXPECT_EQ(QmtLogOpen(module().c_str(), &h, level, size, 0, mutex_name().c_str()), 0);
        open_.push_back(h);
        return h;
    }
    // Runs this program as a writer of `count` lines named `name`.
    HANDLE spawn_writer(const std::string &name, int count)
    {
        char self[MAX_PATH];
        GetModuleFileNameA(nullptr, self, sizeof self);
        std::string cmd = "\"" + std::string(self) + "\" --writer \"" + dir_ + "\" " + module() + " " + mutex_name() +
                          " " + name + " " + std::to_string(count);
        STARTUPINFOA si {};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi {};
        if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
            return nullptr;
        CloseHandle(pi.hThread);
        return pi.hProcess;
    }

    std::string dir_;
    std::vector<HANDLE> open_;
};

TEST_F(WinLog, LinesShowTimeLevelProcessThreadPlaceAndExactTextAndEventsPassAnyLevel)
{
    HANDLE h = open(QMTLOG_WARNING);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_WARNING, 0, "C:\\build\\server\\sdw\\sdw.cpp", 1234, "InitRscDll",
                          "Already initialized. (Ref=%d)", 1), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "/src/sdw/sdw_log.cpp", 7, "SdwWriteLog", "%s", "two\nlines"), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_INFO, 0, "/src/sdw/sdw_log.cpp", 8, "SdwWriteLog", "%s", "filtered"), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0x80000E43u, "/src/sdw_check.cpp", 300, "SdwMonitor", "%s%d%d%d",
                          "disk1", 60, 48001, 80), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0xC0000E44u, "/src/sdw_check.cpp", 310, "SdwMonitor", "%s", "disk1"), 0);
    const Lines want{
        " WRN " + who() + " sdw.cpp:1234 InitRscDll: Already initialized. (Ref=1)",
        " ERR " + who() + " sdw_log.cpp:7 SdwWriteLog: two lines",
        " EVT " + who() + " sdw_check.cpp:300 SdwMonitor: EVENT 3651 WARNING Delayed response from the disk of "
                          "disk1 (time-out 60s, answered in 48001ms, delay ratio 80%)",
        " EVT " + who() + " sdw_check.cpp:310 SdwMonitor: EVENT 3652 ERROR Disk failure of disk1: a disk of the "
                          "resource could not be opened or failed its check",
    };
    Lines lines = read_lines(path());
    ASSERT_EQ(lines.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_TRUE(has_time_stamp(lines[i])) << lines[i];
        EXPECT_EQ(lines[i].substr(23), want[i]);
    }
}

TEST_F(WinLog, RotationKeepsThreeOldFilesAndLosesOnlyWhatFallsOffTheLast)
{
    constexpr int kSize = 2000, kLines = 400;
    HANDLE h = open(QMTLOG_INFO, kSize);
    for (int i = 0; i < kLines; ++i)
        ASSERT_EQ(QmtLogWrite(h, QMTLOG_INFO, 0, "f.cpp", 1, "Fn", "line %04d", i), 0);
    EXPECT_FALSE(exists(path(".4")));
    const size_t per_file = kSize / (read_lines(path())[0].size() + 1);
    Lines all;
    for (const char *suffix : {".3", ".2", ".1", ""}) {
        Lines part = read_lines(path(suffix));
        if (*suffix)
            EXPECT_EQ(part.size(), per_file) << suffix;
        else
            EXPECT_LE(part.size(), per_file);
        for (const std::string &l : part)
            all.push_back(l.substr(l.find(": ") + 2));
    }
    // The kept lines are one unbroken run that ends with the last line written.
    int first = kLines - static_cast<int>(all.size());
    ASSERT_GT(first, 0);
    for (size_t i = 0; i < all.size(); ++i) {
        char want[16];
        std::snprintf(want, sizeof want, "line %04d", first + static_cast<int>(i));
        ASSERT_EQ(all[i], want) << i;
    }
}

TEST_F(WinLog, ConcurrentProcessesShareTheFileWithoutLosingLines)
{
    constexpr int kPerProcess = 300;
    const std::vector<std::string> names{"w0", "w1", "w2"};
    std::vector<HANDLE> children;
    for (const std::string &n : names) {
        HANDLE p = spawn_writer(n, kPerProcess);
        ASSERT_NE(p, nullptr) << GetLastError();
        children.push_back(p);
    }
    HANDLE h = open();
    write_many(h, "parent", kPerProcess);
    DWORD rc = WaitForMultipleObjects(static_cast<DWORD>(children.size()), children.data(), TRUE, 60000);
    for (HANDLE p : children) {
        DWORD code = 1;
        GetExitCodeProcess(p, &code);
        EXPECT_EQ(code, 0u);
        CloseHandle(p);
    }
    ASSERT_EQ(rc, WAIT_OBJECT_0);
    // Every line whole, every writer's numbers in order and complete.
    const std::string place = " w.cpp:1 Writer: ", pad = " " + kPad + ".";
    std::map<std::string, int> next, want;
    for (const std::string &l : read_lines(path())) {
        size_t at = l.find(place);
        ASSERT_TRUE(has_time_stamp(l) && l.compare(23, 5, " INF ") == 0 && at != std::string::npos &&
                    l.size() >= pad.size() && l.compare(l.size() - pad.size(), pad.size(), pad) == 0) << l;
        std::string body = l.substr(at + place.size(), l.size() - pad.size() - at - place.size());
        std::string name = body.substr(0, body.find(' '));
        ASSERT_EQ(body, name + " " + std::to_string(next[name]++)) << l;
    }
    for (const std::string &n : names)
        want[n] = kPerProcess;
    want["parent"] = kPerProcess;
    EXPECT_EQ(next, want);
}

struct HeldWrite {
    HANDLE log;
    DWORD ms;
};

DWORD WINAPI timed_write(void *arg)
{
    auto *w = static_cast<HeldWrite *>(arg);
    ULONGLONG start = GetTickCount64();
    QmtLogWrite(w->log, QMTLOG_INFO, 0, "f.cpp", 1, "Fn", "%s", "while held");
    w->ms = static_cast<DWORD>(GetTickCount64() - start);
    return 0;
}

TEST_F(WinLog, AWriterWaitsForTheHeldNamedMutexOnlyForABoundedTime)
{
    HANDLE h = open();
    // Another holder of the module's named mutex, as a writer in another process would be.
    HANDLE mutex = CreateMutexA(nullptr, TRUE, mutex_name().c_str());
    ASSERT_NE(mutex, nullptr);
    DWORD waited[2] = {};
    for (DWORD &ms : waited) {
        HeldWrite w {h, 0};
        HANDLE t = CreateThread(nullptr, 0, timed_write, &w, 0, nullptr);
        ASSERT_NE(t, nullptr);
        ASSERT_EQ(WaitForSingleObject(t, 30000), WAIT_OBJECT_0);
        CloseHandle(t);
        ms = w.ms;
    }
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    // The first write waited for the mutex about a second and then wrote all the same; the next
    // one only tried, as the holder had not let go.
    EXPECT_GE(waited[0], 900u);
    EXPECT_LT(waited[0], 10000u);
    EXPECT_LT(waited[1], 500u);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_INFO, 0, "f.cpp", 1, "Fn", "%s", "after"), 0);
    Lines lines = read_lines(path());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2].substr(lines[2].find(": ") + 2), "after");
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 7 && std::string(argv[1]) == "--writer")
        return writer_main(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
