// The log library through its exports: level filter and settings per module, the empty handle,
// the exact line and event line, rotation, writers in threads and processes, the stderr fallback,
// other local users, and the string table. Also built for Windows, where another process writes
// or holds the lock in the Windows way, and folder modes and other users have no match.

#include "qmtlog.h"

#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

constexpr int kBadParameter = 87;  // ERROR_INVALID_PARAMETER
constexpr int kBadHandle = 6;      // ERROR_INVALID_HANDLE

#ifdef _WIN32
std::string who() { return std::to_string(GetCurrentProcessId()) + "/" + std::to_string(GetCurrentThreadId()); }
// Lines of each writer process: under Wine every write is a round trip to its server.
constexpr int kPerProcess = 1000;
#else
// "pid/tid" of the calling thread, as every line shows it.
std::string who() { return std::to_string(getpid()) + "/" + std::to_string(gettid()); }
constexpr int kPerProcess = 10000;
#endif

// "YYYY-MM-DD hh:mm:ss.mmm ": digits and separators at their places.
bool has_time_stamp(const std::string &l) {
    static const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
    if (l.size() < shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(l[i])) : l[i] != shape[i]) return false;
    return true;
}

void write_many(HANDLE h, const char *who, int n) {
    std::string pad(100, 'x');
    for (int i = 0; i < n; ++i) QmtLogWrite(h, QMTLOG_INFO, 0, "w.cpp", 1, "Writer", "%s %d %s.", who, i, pad.c_str());
}

// Every test logs into a directory of its own, named in QMT_LOG_DIR before its modules open.
class Log : public ::testing::Test {
protected:
    void SetUp() override {
        fs::path templ = fs::temp_directory_path() / "qmtlog-test-XXXXXX";
        std::string t = templ.string();
        ASSERT_NE(mkdtemp(t.data()), nullptr);
        dir_ = t;
        setenv("QMT_LOG_DIR", dir_.c_str(), 1);
    }
    void TearDown() override {
        for (HANDLE h : opened_) QmtLogClose(h);
        unsetenv("QMT_LOG_DIR");
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // Module names are unique per test: the library keeps settings per name for the process.
    std::string module(const std::string &suffix = "") {
        const auto *info = testing::UnitTest::GetInstance()->current_test_info();
        return std::string(info->name()) + suffix;
    }
    // The named mutex that serialises the module's writers on Windows; one per test.
    std::string mutex_name() { return "Local\\qmtlogtest_" + module(); }
    HANDLE open(const std::string &name, int level = 4, int size = 10000000) {
        HANDLE h = nullptr;
        EXPECT_EQ(QmtLogOpen(name.c_str(), &h, level, size, 0, mutex_name().c_str()), 0);
        EXPECT_NE(h, nullptr);
        opened_.push_back(h);
        return h;
    }
    std::string path(const std::string &name, const std::string &suffix = "") const {
        return (fs::path(dir_) / (name + ".log" + suffix)).string();
    }
    static Lines read(const std::string &file) {
        Lines out;
        std::ifstream in(file, std::ios::binary);
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }
    // The message part of each line: what follows "function: ".
    static Lines texts(const Lines &lines) {
        Lines out;
        for (const auto &l : lines) {
            auto pos = l.find(": ", 24);
            out.push_back(pos == std::string::npos ? l : l.substr(pos + 2));
        }
        return out;
    }
    Lines texts_of(const std::string &name) const { return texts(read(path(name))); }
    static std::pair<int, int> settings(const std::string &name) {
        int level = 0, size = 0;
        EXPECT_EQ(QmtLogGetSettings(name.c_str(), &level, &size, 0), 0);
        return {level, size};
    }

    std::string dir_;
    std::vector<HANDLE> opened_;
};

// ---- level filter and settings ----

TEST_F(Log, LevelFilterWritesOnlyLinesAtOrBelowTheModuleLevel) {
    HANDLE h = open(module());
    auto write_levels = [h] {
        for (int level : {QMTLOG_ERROR, QMTLOG_WARNING, QMTLOG_INFO, QMTLOG_TRACE, QMTLOG_PASS, QMTLOG_DETAIL})
            QmtLogWrite(h, level, 0, "f.cpp", level, "Fn", "level %d", level);
    };
    write_levels();
    EXPECT_EQ(texts_of(module()), (Lines{"level 1", "level 2", "level 4"}));
    ASSERT_EQ(QmtLogSetSettings(module().c_str(), QMTLOG_DETAIL, 0, 0), 0);
    write_levels();
    EXPECT_EQ(texts_of(module()), (Lines{"level 1", "level 2", "level 4", "level 1", "level 2", "level 4",
                                         "level 8", "level 16", "level 32"}));
    std::string names;  // each line names its level
    for (const auto &l : read(path(module()))) names += l.substr(24, 4);
    EXPECT_EQ(names, "ERR WRN INF ERR WRN INF TRC PAS DTL ");
}

TEST_F(Log, SettingsAreKeptPerModuleAndZeroLeavesAValueUnchanged) {
    std::string a = module("A"), b = module("B"), c = module("C");
    open(a, 2, 5000);
    open(b, 8, 7000);
    ASSERT_EQ(QmtLogSetSettings(a.c_str(), 16, 0, 0), 0);
    ASSERT_EQ(QmtLogSetSettings(b.c_str(), 0, 9000, 0), 0);
    EXPECT_EQ(settings(c), std::make_pair(4, 10000000));  // never opened: the defaults
    ASSERT_EQ(QmtLogSetSettings(c.c_str(), 32, 0, 0), 0);
    // Opening again shares the log and keeps its settings; a first open keeps what was set before.
    open(a, 4, 10000000);
    open(c, 4, 3000000);
    EXPECT_EQ(settings(a), std::make_pair(16, 5000));
    EXPECT_EQ(settings(b), std::make_pair(8, 9000));
    EXPECT_EQ(settings(c), std::make_pair(32, 3000000));
}

TEST_F(Log, BadArgumentsAndUnknownHandlesAreRefused) {
    HANDLE h = reinterpret_cast<HANDLE>(1);
    EXPECT_EQ(QmtLogOpen(nullptr, &h, 4, 1000, 0, nullptr), kBadParameter);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(QmtLogOpen("", &h, 4, 1000, 0, nullptr), kBadParameter);
    EXPECT_EQ(QmtLogSetSettings("", 4, 0, 0), kBadParameter);
    EXPECT_EQ(QmtLogGetSettings(nullptr, nullptr, nullptr, 0), kBadParameter);
    EXPECT_EQ(QmtLogClose(nullptr), kBadHandle);
    int dummy = 0;
    EXPECT_EQ(QmtLogClose(&dummy), kBadHandle);
    HANDLE own = nullptr;
    ASSERT_EQ(QmtLogOpen(module().c_str(), &own, 4, 1000, 0, nullptr), 0);
    EXPECT_EQ(QmtLogClose(own), 0);
    EXPECT_EQ(QmtLogClose(own), kBadHandle);
}

TEST_F(Log, NullHandleWritesToTheModuleOpenedLastAlsoAfterItsClose) {
    std::string first = module("First"), second = module("Second");
    open(first);
    HANDLE h2 = nullptr;
    ASSERT_EQ(QmtLogOpen(second.c_str(), &h2, 4, 10000000, 0, nullptr), 0);
    EXPECT_EQ(QmtLogWrite(nullptr, QMTLOG_INFO, 0, "f.cpp", 1, "Fn", "%s", "while open"), 0);
    ASSERT_EQ(QmtLogClose(h2), 0);
    EXPECT_EQ(QmtLogWrite(nullptr, QMTLOG_INFO, 0, "f.cpp", 2, "Fn", "%s", "after close"), 0);
    // A closed handle is taken like an empty one.
    EXPECT_EQ(QmtLogWrite(h2, QMTLOG_INFO, 0, "f.cpp", 3, "Fn", "%s", "closed handle"), 0);
    EXPECT_EQ(texts_of(second), (Lines{"while open", "after close", "closed handle"}));
    EXPECT_FALSE(fs::exists(path(first)));
}

// ---- the line ----

TEST_F(Log, LinesShowTimeLevelProcessThreadPlaceAndExactTextAndEventsPassAnyLevel) {
    HANDLE h = open(module(), QMTLOG_WARNING);
    std::time_t before = std::time(nullptr);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_WARNING, 0, "C:\\build\\server\\sdw\\sdw.cpp", 1234, "InitRscDll",
                          "Already initialized. (Ref=%d)", 1), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "/src/sdw/sdw_log.cpp", 7, "SdwWriteLog", "%s", "x"), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_INFO, 0, "/src/sdw/sdw_log.cpp", 8, "SdwWriteLog", "%s", "filtered"), 0);
    // Text given through %s is written as it is, however long; a line break becomes a blank.
    const std::string text = "Invalid range (100%->80%) %d %s %n %%", long_text(5000, 'a');
    for (const std::string &t : {text, long_text, std::string("two\nlines")})
        ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", t.c_str()), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0x80000E43u, "/src/sdw_check.cpp", 300, "SdwMonitor", "%s%d%d%d",
                          "disk1", 60, 48001, 80), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0xC0000E44u, "/src/sdw_check.cpp", 310, "SdwMonitor", "%s", "disk1"), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0x40000E45u, "/src/sdw_check.cpp", 320, "SdwMonitor", "%s", "disk1"), 0);
    std::time_t after = std::time(nullptr);
    const Lines want{
        " WRN " + who() + " sdw.cpp:1234 InitRscDll: Already initialized. (Ref=1)",
        " ERR " + who() + " sdw_log.cpp:7 SdwWriteLog: x",
        " ERR " + who() + " f.cpp:1 Fn: " + text,
        " ERR " + who() + " f.cpp:1 Fn: " + long_text,
        " ERR " + who() + " f.cpp:1 Fn: two lines",
        " EVT " + who() + " sdw_check.cpp:300 SdwMonitor: EVENT 3651 WARNING Delayed response from the disk of "
                          "disk1 (time-out 60s, answered in 48001ms, delay ratio 80%)",
        " EVT " + who() + " sdw_check.cpp:310 SdwMonitor: EVENT 3652 ERROR Disk failure of disk1: a disk of the "
                          "resource could not be opened or failed its check",
        " EVT " + who() + " sdw_check.cpp:320 SdwMonitor: EVENT 3653 INFORMATION Disks of disk1 recovered: every "
                          "disk answers its check again",
    };
    Lines lines = read(path(module()));
    ASSERT_EQ(lines.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        ASSERT_TRUE(has_time_stamp(lines[i])) << lines[i];
        std::tm tm{};
        std::istringstream(lines[i]) >> std::get_time(&tm, "%Y-%m-%d %H:%M:%S");
        tm.tm_isdst = -1;
        EXPECT_GE(std::mktime(&tm), before) << lines[i];
        EXPECT_LE(std::mktime(&tm), after) << lines[i];
        EXPECT_EQ(lines[i].substr(23), want[i]);
    }
}

// ---- rotation ----

TEST_F(Log, RotationKeepsThreeOldFilesAndLosesOnlyWhatFallsOffTheLast) {
    constexpr int kSize = 2000, kLines = 400;
    HANDLE h = open(module(), 4, kSize);
    for (int i = 0; i < kLines; ++i)
        ASSERT_EQ(QmtLogWrite(h, QMTLOG_INFO, 0, "f.cpp", 1, "Fn", "line %04d", i), 0);
    EXPECT_FALSE(fs::exists(path(module(), ".4")));
    // Lines are all the same length, so each old file was filled as far as the size allows.
    const size_t per_file = kSize / (read(path(module()))[0].size() + 1);
    Lines all;
    for (const char *suffix : {".3", ".2", ".1", ""}) {
        Lines part = texts(read(path(module(), suffix)));
        if (*suffix)
            EXPECT_EQ(part.size(), per_file) << suffix;
        else
            EXPECT_LE(part.size(), per_file);
        all.insert(all.end(), part.begin(), part.end());
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

// ---- writers in several threads and processes ----

// Checks that every line is whole and that each writer's numbers run 0..n-1 in order. Parsed by
// hand: a regular expression over 20000 lines is slow under the sanitizers.
void expect_whole_lines(const Lines &lines, const std::vector<std::string> &writers, int n) {
    const std::string place = " w.cpp:1 Writer: ", pad = " " + std::string(100, 'x') + ".";
    std::map<std::string, int> next, want;
    for (const auto &l : lines) {
        size_t at = l.find(place);
        ASSERT_TRUE(has_time_stamp(l) && l.compare(23, 5, " INF ") == 0 && at != std::string::npos &&
                    l.ends_with(pad)) << l;
        std::string body = l.substr(at + place.size(), l.size() - pad.size() - at - place.size());
        std::string name = body.substr(0, body.find(' '));
        ASSERT_EQ(body, name + " " + std::to_string(next[name]++)) << l;
    }
    for (const auto &w : writers) want[w] = n;
    EXPECT_EQ(next, want);
}

TEST_F(Log, ConcurrentThreadsInterleaveOnlyWholeLines) {
    constexpr int kPerThread = kPerProcess / 5;
    HANDLE h = open(module());
    std::vector<std::string> names{"t0", "t1", "t2", "t3"};
    std::vector<std::thread> threads;
    for (const auto &n : names) threads.emplace_back([h, n] { write_many(h, n.c_str(), kPerThread); });
    for (auto &t : threads) t.join();
    expect_whole_lines(read(path(module())), names, kPerThread);
}

// A writer in another process. On Linux a fork writes through the handle opened before it, so the
// child must not take the parent's lock as its own; on Windows this program runs again as
// "--writer DIR MODULE MUTEX NAME COUNT" (see main).
#ifdef _WIN32
using Child = HANDLE;
Child start_writer(HANDLE, const std::string &dir, const std::string &module, const std::string &mutex,
                   const std::string &name, int n) {
    char self[MAX_PATH];
    GetModuleFileNameA(nullptr, self, sizeof self);
    std::string cmd = "\"" + std::string(self) + "\" --writer \"" + dir + "\" " + module + " " + mutex + " " + name +
                      " " + std::to_string(n);
    STARTUPINFOA si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        return INVALID_HANDLE_VALUE;
    CloseHandle(pi.hThread);
    return pi.hProcess;
}
bool writer_succeeded(Child child) {
    DWORD code = 1;
    bool ended = WaitForSingleObject(child, 60000) == WAIT_OBJECT_0 && GetExitCodeProcess(child, &code);
    CloseHandle(child);
    return ended && code == 0;
}
#else
using Child = pid_t;
Child start_writer(HANDLE h, const std::string &, const std::string &, const std::string &, const std::string &name,
                   int n) {
    pid_t child = fork();
    if (child == 0) {
        alarm(60);  // a child stuck on the lock ends and fails the test
        write_many(h, name.c_str(), n);
        _exit(0);
    }
    return child;
}
bool writer_succeeded(Child child) {
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
#endif

TEST_F(Log, ConcurrentProcessesShareTheFileWithoutLosingLines) {
    HANDLE h = open(module(), 4, 100000000);
    write_many(h, "setup", 1);
    Child child = start_writer(h, dir_, module(), mutex_name(), "child", kPerProcess);
    ASSERT_NE(child, Child(-1));
    write_many(h, "parent", kPerProcess);
    ASSERT_TRUE(writer_succeeded(child));
    EXPECT_FALSE(fs::exists(path(module(), ".1")));
    Lines lines = read(path(module()));
    ASSERT_EQ(lines.size(), static_cast<size_t>(2 * kPerProcess + 1));
    lines.erase(lines.begin());
    expect_whole_lines(lines, {"parent", "child"}, kPerProcess);
}

TEST_F(Log, UnwritableDirectorySendsLinesToStderrWithoutFailing) {
    // A directory below a regular file can never be created, not even by root.
    std::string blocker = dir_ + "/file";
    std::ofstream(blocker) << "x";
    setenv("QMT_LOG_DIR", (blocker + "/logs").c_str(), 1);
    HANDLE h = open(module());
    testing::internal::CaptureStderr();
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "/src/f.cpp", 5, "Fn", "%s", "to stderr"), 0);
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_TRACE, 0, "/src/f.cpp", 6, "Fn", "%s", "filtered"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(has_time_stamp(err)) << err;
    EXPECT_EQ(err.substr(23), " ERR " + who() + " f.cpp:5 Fn: to stderr\n");
}
// ---- what another local user can do ----

#ifdef _WIN32
// Holds the module's named mutex, as a writer in another process would, until destroyed.
class Holder {
public:
    Holder(const std::string &, const std::string &mutex) : mutex_(CreateMutexA(nullptr, FALSE, mutex.c_str())) {}
    ~Holder() {
        if (held_) ReleaseMutex(mutex_);
        if (mutex_) CloseHandle(mutex_);
    }
    bool held() { return held_ = mutex_ && WaitForSingleObject(mutex_, 10000) == WAIT_OBJECT_0; }

private:
    HANDLE mutex_;
    bool held_ = false;
};
#else
// Holds the log's lock from a process of its own, as another writer would (an flock and an
// open-file-description lock, on a description of its own), until destroyed.
class Holder {
public:
    Holder(const std::string &lock, const std::string &) {
        int ready[2];
        if (pipe(ready) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            alarm(60);
            struct flock fl {};
            fl.l_type = F_WRLCK;
            int fd = ::open(lock.c_str(), O_RDWR);
            if (fd >= 0 && flock(fd, LOCK_EX) == 0 && fcntl(fd, F_OFD_SETLKW, &fl) == 0) (void)!write(ready[1], "h", 1);
            for (;;) pause();
        }
        close(ready[1]);
        ready_ = ready[0];
    }
    ~Holder() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (ready_ >= 0) close(ready_);
    }
    // True once the lock is held; false when it was not within 10 s.
    bool held() {
        pollfd p{ready_, POLLIN, 0};
        char c;
        return ready_ >= 0 && poll(&p, 1, 10000) == 1 && read(ready_, &c, 1) == 1;
    }

private:
    pid_t pid_ = -1;
    int ready_ = -1;
};

// Runs a shell command as nobody; true when it succeeded.
bool as_nobody(const std::string &command) {
    std::string line = "/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups /bin/sh -c '" + command + "'";
    return std::system(line.c_str()) == 0;
}

mode_t mode_of(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST_F(Log, FoldersAndFilesAreCreatedClosedToOthers) {
    mode_t old = umask(0);
    setenv("QMT_LOG_DIR", (dir_ + "/a/b").c_str(), 1);
    HANDLE h = open(module());
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", "x"), 0);
    umask(old);
    EXPECT_EQ(mode_of(dir_ + "/a"), 0750u);
    EXPECT_EQ(mode_of(dir_ + "/a/b"), 0750u);
    EXPECT_EQ(mode_of(dir_ + "/a/b/" + module() + ".log"), 0640u);
    EXPECT_EQ(mode_of(dir_ + "/a/b/" + module() + ".log.lock"), 0600u);
}

// Another user who gets to a folder name first (in a shared folder such as /tmp) must not
// receive our lines nor steer them into a file of ours.
TEST_F(Log, AFolderPlantedByAnotherUserIsNotUsed) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    ASSERT_EQ(chmod(dir_.c_str(), 01777), 0);
    std::string victim = dir_ + "/victim", own = dir_ + "/own";
    std::ofstream(victim) << "precious\n";
    ASSERT_EQ(mkdir(own.c_str(), 0750), 0);
    const struct {
        const char *what;
        std::string plant;  // run as nobody; makes dir_/<folder>
        std::string folder;
    } cases[] = {
        {"their folder with a symlink to our file",
         "mkdir -m 777 " + dir_ + "/theirs && ln -s " + victim + " " + dir_ + "/theirs/" + module() + ".log",
         "theirs"},
        {"their symlink to a folder of ours", "ln -s " + own + " " + dir_ + "/link", "link"},
    };
    for (const auto &c : cases) {
        ASSERT_TRUE(as_nobody(c.plant)) << c.what;
        setenv("QMT_LOG_DIR", (dir_ + "/" + c.folder).c_str(), 1);
        HANDLE h = open(module());
        testing::internal::CaptureStderr();
        EXPECT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", "our line"), 0);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("our line"), std::string::npos) << c.what;
        EXPECT_EQ(read(victim), (Lines{"precious"})) << c.what;
        EXPECT_TRUE(fs::is_empty(own)) << c.what;
    }
}

#endif

TEST_F(Log, AWriterWaitsForAHeldLockOnlyForABoundedTime) {
    HANDLE h = open(module());
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", "before"), 0);
    auto holder = std::make_unique<Holder>(path(module(), ".lock"), mutex_name());
    ASSERT_TRUE(holder->held());
    std::atomic<bool> done{false};
    std::thread writer([h, &done] {
        QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 2, "Fn", "%s", "while held");
        QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 3, "Fn", "%s", "still held");
        done = true;
    });
    // Generous: one wait of about a second, then no wait for the line after it.
    for (int i = 0; i < 1000 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const bool bounded = done;
    holder.reset();  // lets a writer that does wait for ever go, so the test can end
    writer.join();
    EXPECT_TRUE(bounded) << "a writer waited for the lock for ever";
    EXPECT_EQ(texts_of(module()), (Lines{"before", "while held", "still held"}));
}

// ---- string table ----

TEST_F(Log, StatusTextsAreCutToTheBufferAndAlwaysTerminated) {
    HANDLE t = nullptr;
    ASSERT_EQ(QmtLoadStringTable("sdw", 0, &t), 0);
    ASSERT_NE(t, nullptr);
    const struct {
        int status, size;
        const char *text;
    } cases[] = {
        {0, 256, "Normal"},
        {190, 256, "Monitor could not run"},
        {2, 256, "Unknown status 2"},
        {-1, 256, "Unknown status -1"},
        {5, 5, "Disk"},
        {1234, 8, "Unknown"},
        {0, 1, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.status << " into " << c.size);
        char buf[258];
        std::memset(buf, 'z', sizeof buf);
        ASSERT_EQ(QmtGetStatusText(t, c.status, buf, c.size, 0), 0);
        EXPECT_EQ(std::string(buf), c.text);
        EXPECT_EQ(buf[c.size], 'z');
    }
    char buf[8];
    EXPECT_EQ(QmtGetStatusText(t, 0, buf, 0, 0), kBadParameter);
    EXPECT_EQ(QmtGetStatusText(t, 0, nullptr, 8, 0), kBadParameter);
    EXPECT_EQ(QmtUnloadStringTable(t), 0);
}

TEST_F(Log, StringTableHandlesAreCheckedOnUseAndUnload) {
    HANDLE a = nullptr, b = nullptr;
    ASSERT_EQ(QmtLoadStringTable("sdw", 0, &a), 0);
    ASSERT_EQ(QmtLoadStringTable("another-module", 0, &b), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(QmtUnloadStringTable(a), 0);
    EXPECT_EQ(QmtUnloadStringTable(a), kBadHandle);
    EXPECT_EQ(QmtUnloadStringTable(nullptr), kBadHandle);
    char buf[16] = "untouched";
    EXPECT_EQ(QmtGetStatusText(a, 0, buf, sizeof buf, 0), kBadHandle);
    EXPECT_EQ(QmtGetStatusText(nullptr, 0, buf, sizeof buf, 0), kBadHandle);
    EXPECT_STREQ(buf, "untouched");
    ASSERT_EQ(QmtGetStatusText(b, 0, buf, sizeof buf, 0), 0);
    EXPECT_STREQ(buf, "Normal");
    EXPECT_EQ(QmtUnloadStringTable(b), 0);
}

}  // namespace

#ifdef _WIN32
int main(int argc, char **argv) {
    if (argc == 7 && std::string(argv[1]) == "--writer") {
        setenv("QMT_LOG_DIR", argv[2], 1);
        HANDLE h = nullptr;
        if (QmtLogOpen(argv[3], &h, QMTLOG_INFO, 100000000, 0, argv[4]) != 0) return 2;
        write_many(h, argv[5], std::atoi(argv[6]));
        return QmtLogClose(h) == 0 ? 0 : 3;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
#endif
