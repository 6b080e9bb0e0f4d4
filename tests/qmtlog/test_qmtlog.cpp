// The log library through its exports: level filter and settings per module, the empty handle,
// the exact line, rotation, writers in several threads and processes, the stderr fallback, what
// another local user can do to the log, events and the string table.

#include "qmtlog.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

// Every test logs into a directory of its own, named in QMT_LOG_DIR before its modules open.
class Log : public ::testing::Test {
protected:
    void SetUp() override {
        std::string base = (std::getenv("TMPDIR") && *std::getenv("TMPDIR")) ? std::getenv("TMPDIR") : "/tmp";
        std::string templ = base + "/qmtlog-test-XXXXXX";
        ASSERT_NE(mkdtemp(templ.data()), nullptr);
        dir_ = templ;
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
    HANDLE open(const std::string &name, int level = 4, int size = 10000000) {
        HANDLE h = nullptr;
        EXPECT_EQ(QmtLogOpen(name.c_str(), &h, level, size, 0, "Global\\ORVQMT_SDW_LOG"), 0);
        EXPECT_NE(h, nullptr);
        opened_.push_back(h);
        return h;
    }
    std::string path(const std::string &name, const std::string &suffix = "") const {
        return dir_ + "/" + name + ".log" + suffix;
    }
    static Lines read(const std::string &file) {
        Lines out;
        std::ifstream in(file);
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

    std::string dir_;
    std::vector<HANDLE> opened_;
};

void write_levels(HANDLE h) {
    for (int level : {QMTLOG_ERROR, QMTLOG_WARNING, QMTLOG_INFO, QMTLOG_TRACE, QMTLOG_PASS, QMTLOG_DETAIL})
        QmtLogWrite(h, level, 0, "f.cpp", level, "Fn", "level %d", level);
}

// ---- level filter and settings ----

TEST_F(Log, LevelFilterWritesOnlyLinesAtOrBelowTheModuleLevel) {
    HANDLE h = open(module());
    write_levels(h);
    EXPECT_EQ(texts_of(module()), (Lines{"level 1", "level 2", "level 4"}));
    ASSERT_EQ(QmtLogSetSettings(module().c_str(), QMTLOG_DETAIL, 0, 0), 0);
    write_levels(h);
    EXPECT_EQ(texts_of(module()), (Lines{"level 1", "level 2", "level 4", "level 1", "level 2", "level 4",
                                         "level 8", "level 16", "level 32"}));
}

TEST_F(Log, EventsAreWrittenWhateverTheLevel) {
    HANDLE h = open(module(), QMTLOG_ERROR);
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0xC0000E44u, "f.cpp", 1, "SdwMonitor", "%s", "disk1"), 0);
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_WARNING, 0, "f.cpp", 2, "SdwMonitor", "%s", "filtered"), 0);
    EXPECT_EQ(texts_of(module()),
              (Lines{"EVENT 3652 ERROR Disk failure of disk1: a disk of the resource could not be opened or "
                     "failed its check"}));
}

TEST_F(Log, SettingsAreKeptPerModuleAndZeroLeavesAValueUnchanged) {
    std::string a = module("A"), b = module("B");
    open(a, 2, 5000);
    open(b, 8, 7000);
    ASSERT_EQ(QmtLogSetSettings(a.c_str(), 16, 0, 0), 0);
    ASSERT_EQ(QmtLogSetSettings(b.c_str(), 0, 9000, 0), 0);
    int level = 0, size = 0;
    ASSERT_EQ(QmtLogGetSettings(a.c_str(), &level, &size, 0), 0);
    EXPECT_EQ(level, 16);
    EXPECT_EQ(size, 5000);
    ASSERT_EQ(QmtLogGetSettings(b.c_str(), &level, &size, 0), 0);
    EXPECT_EQ(level, 8);
    EXPECT_EQ(size, 9000);
    // Opening again shares the log and keeps the current settings.
    open(a, 4, 10000000);
    level = 0;
    ASSERT_EQ(QmtLogGetSettings(a.c_str(), &level, nullptr, 0), 0);
    EXPECT_EQ(level, 16);
}

TEST_F(Log, SettingsOfAModuleNotYetOpenedAreDefaultsAndSurviveTheOpen) {
    int level = 0, size = 0;
    ASSERT_EQ(QmtLogGetSettings(module().c_str(), &level, &size, 0), 0);
    EXPECT_EQ(level, 4);
    EXPECT_EQ(size, 10000000);
    ASSERT_EQ(QmtLogSetSettings(module().c_str(), 32, 0, 0), 0);
    open(module(), 4, 3000000);
    ASSERT_EQ(QmtLogGetSettings(module().c_str(), &level, &size, 0), 0);
    EXPECT_EQ(level, 32);
    EXPECT_EQ(size, 3000000);
}

TEST_F(Log, BadArgumentsAndUnknownHandlesAreRefused) {
    HANDLE h = reinterpret_cast<HANDLE>(1);
    EXPECT_NE(QmtLogOpen(nullptr, &h, 4, 1000, 0, nullptr), 0);
    EXPECT_EQ(h, nullptr);
    EXPECT_NE(QmtLogOpen("", &h, 4, 1000, 0, nullptr), 0);
    EXPECT_NE(QmtLogClose(nullptr), 0);
    int dummy = 0;
    EXPECT_NE(QmtLogClose(&dummy), 0);
    HANDLE own = nullptr;
    ASSERT_EQ(QmtLogOpen(module().c_str(), &own, 4, 1000, 0, nullptr), 0);
    EXPECT_EQ(QmtLogClose(own), 0);
    EXPECT_NE(QmtLogClose(own), 0);
}

// ---- the empty handle ----

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

TEST_F(Log, LineHasTimeLevelProcessThreadPlaceAndText) {
    HANDLE h = open(module());
    std::time_t before = std::time(nullptr);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_WARNING, 0, "C:\\build\\server\\sdw\\sdw.cpp", 1234, "InitRscDll",
                          "Already initialized. (Ref=%d)", 1),
              0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "/src/sdw/sdw_log.cpp", 7, "SdwWriteLog", "%s", "x"), 0);
    std::time_t after = std::time(nullptr);
    Lines lines = read(path(module()));
    ASSERT_EQ(lines.size(), 2u);
    std::regex re(R"((\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2})\.(\d{3}) (\w+) (\d+)/(\d+) (\S+):(\d+) (\w+): (.*))");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, re)) << lines[0];
    std::tm tm{};
    tm.tm_year = std::stoi(m[1]) - 1900;
    tm.tm_mon = std::stoi(m[2]) - 1;
    tm.tm_mday = std::stoi(m[3]);
    tm.tm_hour = std::stoi(m[4]);
    tm.tm_min = std::stoi(m[5]);
    tm.tm_sec = std::stoi(m[6]);
    tm.tm_isdst = -1;
    std::time_t stamp = std::mktime(&tm);
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
    EXPECT_EQ(m[8], "WRN");
    EXPECT_EQ(std::stoi(m[9]), static_cast<int>(getpid()));
    EXPECT_EQ(std::stoi(m[10]), static_cast<int>(gettid()));
    EXPECT_EQ(m[11], "sdw.cpp");
    EXPECT_EQ(m[12], "1234");
    EXPECT_EQ(m[13], "InitRscDll");
    EXPECT_EQ(m[14], "Already initialized. (Ref=1)");
    std::string tail = " ERR " + std::to_string(getpid()) + "/" + std::to_string(gettid()) +
                       " sdw_log.cpp:7 SdwWriteLog: x";
    EXPECT_EQ(lines[1].substr(23), tail);
}

TEST_F(Log, TextGivenThroughPercentSIsWrittenExactly) {
    HANDLE h = open(module());
    std::string text = "Invalid range (100%->80%) %d %s %n %%";
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", text.c_str()), 0);
    std::string long_text(5000, 'a');
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", long_text.c_str()), 0);
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", "two\nlines"), 0);
    EXPECT_EQ(texts_of(module()), (Lines{text, long_text, "two lines"}));
}

// ---- rotation ----

TEST_F(Log, RotationKeepsThreeOldFilesAndLosesOnlyWhatFallsOffTheLast) {
    constexpr int kSize = 2000, kLines = 400;
    HANDLE h = open(module(), 4, kSize);
    for (int i = 0; i < kLines; ++i)
        ASSERT_EQ(QmtLogWrite(h, QMTLOG_INFO, 0, "f.cpp", 1, "Fn", "line %04d", i), 0);
    for (const char *suffix : {"", ".1", ".2", ".3"}) {
        ASSERT_TRUE(fs::exists(path(module(), suffix))) << suffix;
        EXPECT_LE(fs::file_size(path(module(), suffix)), static_cast<uintmax_t>(kSize)) << suffix;
    }
    EXPECT_FALSE(fs::exists(path(module(), ".4")));
    Lines all;
    for (const char *suffix : {".3", ".2", ".1", ""})
        for (const auto &t : texts(read(path(module(), suffix)))) all.push_back(t);
    // The kept lines are one unbroken run that ends with the last line written.
    ASSERT_FALSE(all.empty());
    int first = kLines - static_cast<int>(all.size());
    ASSERT_GT(first, 0);
    for (size_t i = 0; i < all.size(); ++i) {
        char want[16];
        std::snprintf(want, sizeof want, "line %04d", first + static_cast<int>(i));
        ASSERT_EQ(all[i], want) << i;
    }
    // Lines are all the same length, so each old file was filled as far as the size allows.
    size_t per_file = kSize / (read(path(module()))[0].size() + 1);
    for (const char *suffix : {".1", ".2", ".3"}) EXPECT_EQ(read(path(module(), suffix)).size(), per_file) << suffix;
    EXPECT_LE(read(path(module())).size(), per_file);
}

// ---- writers in several threads and processes ----

// "YYYY-MM-DD hh:mm:ss.mmm ": digits and separators at their places.
bool has_time_stamp(const std::string &l) {
    static const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
    if (l.size() < shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(l[i])) : l[i] != shape[i]) return false;
    return true;
}

// Checks that every line is whole and that each writer's numbers run 0..n-1 in order. Parsed by
// hand: a regular expression over 20000 lines is slow under the sanitizers.
void expect_whole_lines(const Lines &lines, const std::vector<std::string> &writers, int n) {
    const std::string pad = " " + std::string(100, 'x') + ".";
    std::vector<int> next(writers.size(), 0);
    for (const auto &l : lines) {
        ASSERT_TRUE(has_time_stamp(l)) << l;
        ASSERT_EQ(l.compare(24, 4, "INF "), 0) << l;
        size_t place = l.find(" w.cpp:1 Writer: ", 28);
        ASSERT_NE(place, std::string::npos) << l;
        std::string rest = l.substr(place + 17);
        ASSERT_GT(rest.size(), pad.size()) << l;
        ASSERT_EQ(rest.substr(rest.size() - pad.size()), pad) << l;
        rest.resize(rest.size() - pad.size());
        size_t blank = rest.find(' ');
        ASSERT_NE(blank, std::string::npos) << l;
        auto it = std::find(writers.begin(), writers.end(), rest.substr(0, blank));
        ASSERT_NE(it, writers.end()) << l;
        size_t w = static_cast<size_t>(it - writers.begin());
        ASSERT_EQ(rest.substr(blank + 1), std::to_string(next[w])) << l;
        ++next[w];
    }
    for (size_t w = 0; w < writers.size(); ++w) EXPECT_EQ(next[w], n) << writers[w];
}

void write_many(HANDLE h, const char *who, int n) {
    std::string pad(100, 'x');
    for (int i = 0; i < n; ++i) QmtLogWrite(h, QMTLOG_INFO, 0, "w.cpp", 1, "Writer", "%s %d %s.", who, i, pad.c_str());
}

TEST_F(Log, ConcurrentThreadsInterleaveOnlyWholeLines) {
    constexpr int kPerThread = 2000;
    HANDLE h = open(module());
    std::vector<std::string> names{"t0", "t1", "t2", "t3"};
    std::vector<std::thread> threads;
    for (const auto &n : names) threads.emplace_back([h, n] { write_many(h, n.c_str(), kPerThread); });
    for (auto &t : threads) t.join();
    expect_whole_lines(read(path(module())), names, kPerThread);
}

TEST_F(Log, ConcurrentProcessesShareTheFileWithoutLosingLines) {
    constexpr int kPerProcess = 10000;
    HANDLE h = open(module(), 4, 100000000);
    // Written before the fork: the child must not inherit the parent's lock as its own.
    write_many(h, "setup", 1);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        write_many(h, "child", kPerProcess);
        _exit(0);
    }
    write_many(h, "parent", kPerProcess);
    int status = -1;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            FAIL() << "child did not finish";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(fs::exists(path(module(), ".1")));
    Lines lines = read(path(module()));
    ASSERT_EQ(lines.size(), static_cast<size_t>(2 * kPerProcess + 1));
    lines.erase(lines.begin());
    expect_whole_lines(lines, {"parent", "child"}, kPerProcess);
}

// ---- fallback ----

TEST_F(Log, UnwritableDirectorySendsLinesToStderrWithoutFailing) {
    // A directory below a regular file can never be created, not even by root.
    std::string blocker = dir_ + "/file";
    std::ofstream(blocker) << "x";
    setenv("QMT_LOG_DIR", (blocker + "/logs").c_str(), 1);
    HANDLE h = nullptr;
    ASSERT_EQ(QmtLogOpen(module().c_str(), &h, 4, 10000000, 0, nullptr), 0);
    opened_.push_back(h);
    testing::internal::CaptureStderr();
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "/src/f.cpp", 5, "Fn", "%s", "to stderr"), 0);
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_TRACE, 0, "/src/f.cpp", 6, "Fn", "%s", "filtered"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    std::string tail = " f.cpp:5 Fn: to stderr\n";
    ASSERT_GE(err.size(), tail.size()) << err;
    EXPECT_EQ(err.substr(err.size() - tail.size()), tail);
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
    EXPECT_NE(err.find(" ERR "), std::string::npos);
}

// ---- what another local user can do ----

// The lock holder (lock_holder.cpp) in a process of its own, as root or as nobody; killed on
// every exit path.
class Holder {
public:
    Holder(const std::string &lock, bool as_nobody) {
        int out[2];
        if (pipe(out) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            close(out[1]);
            if (as_nobody)
                execl("/usr/bin/setpriv", "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", LOCK_HOLDER,
                      lock.c_str(), static_cast<char *>(nullptr));
            else
                execl(LOCK_HOLDER, LOCK_HOLDER, lock.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        close(out[1]);
        out_ = out[0];
    }
    ~Holder() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
    }
    // "held" or "refused"; "" when it said nothing within 10 s.
    std::string answer() {
        std::string text;
        pollfd p{out_, POLLIN, 0};
        char c;
        while (out_ >= 0 && poll(&p, 1, 10000) == 1 && read(out_, &c, 1) == 1 && c != '\n') text += c;
        return text;
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
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

TEST_F(Log, OnlyWhoCanWriteTheLogCanTakeItsLock) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    setenv("QMT_LOG_DIR", (dir_ + "/logs").c_str(), 1);
    HANDLE h = open(module());
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", "first"), 0);
    Holder nobody(dir_ + "/logs/" + module() + ".log.lock", true);
    EXPECT_EQ(nobody.answer(), "refused");
}

TEST_F(Log, AWriterWaitsForAHeldLockOnlyForABoundedTime) {
    HANDLE h = open(module());
    ASSERT_EQ(QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 1, "Fn", "%s", "before"), 0);
    auto holder = std::make_unique<Holder>(path(module(), ".lock"), false);
    ASSERT_EQ(holder->answer(), "held");
    auto writes = std::async(std::launch::async, [h] {
        QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 2, "Fn", "%s", "while held");
        QmtLogWrite(h, QMTLOG_ERROR, 0, "f.cpp", 3, "Fn", "%s", "still held");
    });
    // Generous: one wait of about a second, then no wait for the line after it.
    bool bounded = writes.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    holder.reset();  // lets a writer that does wait for ever go, so the test can end
    writes.wait();
    EXPECT_TRUE(bounded) << "a writer waited for the lock for ever";
    EXPECT_EQ(texts_of(module()), (Lines{"before", "while held", "still held"}));
}

// ---- events ----

TEST_F(Log, EventsShowTheirNumberSeverityAndText) {
    HANDLE h = open(module());
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0x80000E43u, "/src/sdw_check.cpp", 300, "SdwMonitor", "%s%d%d%d",
                          "disk1", 60, 48001, 80),
              0);
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0xC0000E44u, "/src/sdw_check.cpp", 310, "SdwMonitor", "%s", "disk1"), 0);
    EXPECT_EQ(QmtLogWrite(h, QMTLOG_EVENT, 0x40000E45u, "/src/sdw_check.cpp", 320, "SdwMonitor", "%s", "disk1"), 0);
    Lines lines = read(path(module()));
    ASSERT_EQ(lines.size(), 3u);
    std::string who = std::to_string(getpid()) + "/" + std::to_string(gettid());
    EXPECT_EQ(lines[0].substr(23), " EVT " + who +
                                       " sdw_check.cpp:300 SdwMonitor: EVENT 3651 WARNING Delayed response from "
                                       "the disk of disk1 (time-out 60s, answered in 48001ms, delay ratio 80%)");
    EXPECT_EQ(lines[1].substr(23), " EVT " + who +
                                       " sdw_check.cpp:310 SdwMonitor: EVENT 3652 ERROR Disk failure of disk1: a "
                                       "disk of the resource could not be opened or failed its check");
    EXPECT_EQ(lines[2].substr(23), " EVT " + who +
                                       " sdw_check.cpp:320 SdwMonitor: EVENT 3653 INFORMATION Disks of disk1 "
                                       "recovered: every disk answers its check again");
}

// ---- string table ----

TEST_F(Log, StringTableHasATextForEveryStatus) {
    HANDLE t = nullptr;
    ASSERT_EQ(QmtLoadStringTable("sdw", 0, &t), 0);
    ASSERT_NE(t, nullptr);
    const std::vector<std::pair<int, std::string>> want{
        {0, "Normal"},
        {1, "Initialisation failed"},
        {3, "Bad parameter or unknown resource"},
        {4, "Disk not found or not opened"},
        {5, "Disk check failed"},
        {6, "Lock time-out"},
        {7, "Out of memory"},
        {90, "Time-out"},
        {99, "System error or monitor stalled"},
        {100, "Wait for disk failed"},
        {190, "Monitor could not run"},
        {2, "Unknown status 2"},
        {-1, "Unknown status -1"},
    };
    for (const auto &[status, text] : want) {
        char buf[256];
        std::memset(buf, 'z', sizeof buf);
        ASSERT_EQ(QmtGetStatusText(t, status, buf, sizeof buf, 0), 0) << status;
        EXPECT_EQ(std::string(buf), text) << status;
    }
    EXPECT_EQ(QmtUnloadStringTable(t), 0);
}

TEST_F(Log, StatusTextIsCutToTheBufferAndAlwaysTerminated) {
    HANDLE t = nullptr;
    ASSERT_EQ(QmtLoadStringTable("another-module", 0, &t), 0);
    char buf[8];
    std::memset(buf, 'z', sizeof buf);
    ASSERT_EQ(QmtGetStatusText(t, 5, buf, 5, 0), 0);
    EXPECT_STREQ(buf, "Disk");
    EXPECT_EQ(buf[5], 'z');
    ASSERT_EQ(QmtGetStatusText(t, 1234, buf, 8, 0), 0);
    EXPECT_STREQ(buf, "Unknown");
    ASSERT_EQ(QmtGetStatusText(t, 0, buf, 1, 0), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_NE(QmtGetStatusText(t, 0, buf, 0, 0), 0);
    EXPECT_NE(QmtGetStatusText(t, 0, nullptr, 8, 0), 0);
    EXPECT_EQ(QmtUnloadStringTable(t), 0);
}

TEST_F(Log, StringTableHandlesAreCheckedOnUseAndUnload) {
    HANDLE a = nullptr, b = nullptr;
    ASSERT_EQ(QmtLoadStringTable("sdw", 0, &a), 0);
    ASSERT_EQ(QmtLoadStringTable("sdw", 0, &b), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(QmtUnloadStringTable(a), 0);
    EXPECT_NE(QmtUnloadStringTable(a), 0);
    EXPECT_NE(QmtUnloadStringTable(nullptr), 0);
    char buf[16] = "untouched";
    EXPECT_NE(QmtGetStatusText(a, 0, buf, sizeof buf, 0), 0);
    EXPECT_NE(QmtGetStatusText(nullptr, 0, buf, sizeof buf, 0), 0);
    EXPECT_STREQ(buf, "untouched");
    ASSERT_EQ(QmtGetStatusText(b, 0, buf, sizeof buf, 0), 0);
    EXPECT_STREQ(buf, "Normal");
    EXPECT_EQ(QmtUnloadStringTable(b), 0);
}

}  // namespace
