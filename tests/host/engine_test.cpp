// engine_test.cpp - the polling engine of `qmtrm run` against a fake plug-in: the order of the
// calls it makes, overdue passes reported once and held back, the pool that keeps the other
// resources polled, and a stop that refuses to tear down under a running pass.
#include "qmtrm_engine.h"
#include "qmtshm_admin.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <map>
#include <set>
#include <thread>

namespace {

using namespace std::chrono_literals;

// The fake plug-in: records every call as text; DoMontr/DoNpMontr of a resource in `hung` blocks
// until release_all().
struct Fake {
    std::mutex m;
    std::condition_variable cv;
    std::vector<std::string> calls;
    std::map<std::string, int> passes;
    std::set<std::string> hung;
    bool released = false;
    DWORD init_result = 0;
    DWORD status = 0;
    BYTE check_point = 1;

    void record(const std::string &call)
    {
        std::lock_guard lock(m);
        calls.push_back(call);
    }
    DWORD pass(const char *name)
    {
        std::unique_lock lock(m);
        ++passes[name];
        if (hung.count(name))
            cv.wait(lock, [this] { return released; });
        return status;
    }
    int passes_of(const std::string &name)
    {
        std::lock_guard lock(m);
        return passes[name];
    }
    std::vector<std::string> calls_without_passes()
    {
        std::lock_guard lock(m);
        return calls;
    }
    void release_all()
    {
        std::lock_guard lock(m);
        released = true;
        cv.notify_all();
    }
};
Fake *fake = nullptr;

std::string text(const char *s) { return s ? s : "NULL"; }

DWORD WINAPI FakeInit(const char *dll, int type, DWORD mode) noexcept
{
    fake->record("InitRscDll(" + text(dll) + "," + std::to_string(type) + "," + std::to_string(mode) + ")");
    return fake->init_result;
}
DWORD WINAPI FakeUninit(const char *dll, int, DWORD) noexcept
{
    fake->record("UninitRscDll(" + text(dll) + ")");
    return 0;
}
DWORD WINAPI FakeNpInit(const char *dll, int, DWORD) noexcept
{
    fake->record("InitNpRscDll(" + text(dll) + ")");
    return fake->init_result;
}
DWORD WINAPI FakeNpUninit(const char *dll, int, DWORD) noexcept
{
    fake->record("UninitNpRscDll(" + text(dll) + ")");
    return 0;
}
DWORD WINAPI FakeDoMontr(const char *type, const char *name) noexcept
{
    EXPECT_STREQ(type, "sdw");
    return fake->pass(name);
}
DWORD WINAPI FakeDoNpMontr(const char *type, const char *name) noexcept
{
    EXPECT_STREQ(type, "disknp");
    return fake->pass(name);
}
DWORD WINAPI FakeStatus(const char *type, const char *name, int ctrl) noexcept
{
    char code[16];
    std::snprintf(code, sizeof code, "%#x", static_cast<unsigned>(ctrl));
    fake->record("MontrStatusChange(" + text(type) + "," + text(name) + "," + code + ")");
    return 0;
}
DWORD WINAPI FakeNpStatus(const char *type, const char *name, int ctrl) noexcept
{
    char code[16];
    std::snprintf(code, sizeof code, "%#x", static_cast<unsigned>(ctrl));
    fake->record("NpMontrStatusChange(" + text(type) + "," + text(name) + "," + code + ")");
    return 0;
}
BYTE WINAPI FakeCheckPoint(const char *name) noexcept
{
    fake->record("GetCheckPoint(" + text(name) + ")");
    return fake->check_point;
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The engine reads the time-out ratio; keep this test's shared memory apart.
        shm_ = "qmtrmengine" + std::to_string(getpid());
        setenv("QMT_SHM_NAME", shm_.c_str(), 1);
        fake = &state_;
        plugin_.InitRscDll = FakeInit;
        plugin_.UninitRscDll = FakeUninit;
        plugin_.DoMontr = FakeDoMontr;
        plugin_.MontrStatusChange = FakeStatus;
        plugin_.InitNpRscDll = FakeNpInit;
        plugin_.UninitNpRscDll = FakeNpUninit;
        plugin_.DoNpMontr = FakeDoNpMontr;
        plugin_.NpMontrStatusChange = FakeNpStatus;
        plugin_.GetCheckPoint = FakeCheckPoint;
    }
    void TearDown() override
    {
        state_.release_all();
        fake = nullptr;
        if (DIR *dir = opendir("/dev/shm")) {
            while (dirent *e = readdir(dir))
                if (std::strstr(e->d_name, shm_.c_str()) != nullptr)
                    shm_unlink((std::string("/") + e->d_name).c_str());
            closedir(dir);
        }
    }
    static std::vector<qmtrm::ResourceConfig> resources(std::initializer_list<const char *> names, int timeout_s = 1)
    {
        std::vector<qmtrm::ResourceConfig> out;
        for (auto name : names)
            out.push_back({name, 1, timeout_s});
        return out;
    }
    // Steps the engine every 20 ms until `done` holds or `bound` has passed.
    template <typename Pred>
    static bool step_until(qmtrm::Engine &engine, Pred done, std::chrono::milliseconds bound)
    {
        auto until = std::chrono::steady_clock::now() + bound;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= until)
                return false;
            engine.step();
            std::this_thread::sleep_for(20ms);
        }
        return true;
    }

    Fake state_;
    qmtrm::Plugin plugin_;
    qmtrm::Reporter reporter_{true};
    std::string shm_;
};

TEST_F(EngineTest, StartsEveryResourceThenStopsAndTearsDownInOrder)
{
    qmtrm::Engine engine(plugin_, qmtrm::Service::Sdw, resources({"sdw1", "sdw2"}), reporter_, 2, false);
    ASSERT_EQ(engine.start(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 2; }, 5s));
    EXPECT_EQ(state_.passes_of("sdw1"), 1);
    EXPECT_EQ(state_.passes_of("sdw2"), 1);
    std::vector<std::string> stuck;
    ASSERT_TRUE(engine.stop(1000, &stuck));
    EXPECT_TRUE(stuck.empty());
    EXPECT_EQ(state_.calls_without_passes(),
              (std::vector<std::string>{"InitRscDll(qmtsdw,0,0)", "MontrStatusChange(sdw,sdw1,0x110)",
                                        "MontrStatusChange(sdw,sdw2,0x110)", "MontrStatusChange(sdw,sdw1,0x111)",
                                        "MontrStatusChange(sdw,sdw2,0x111)", "UninitRscDll(qmtsdw)"}));
}

TEST_F(EngineTest, FailedInitialisationStartsNothing)
{
    state_.init_result = 1;
    qmtrm::Engine engine(plugin_, qmtrm::Service::Sdw, resources({"sdw1"}), reporter_, 1, false);
    EXPECT_EQ(engine.start(), 1u);
    engine.step();
    EXPECT_EQ(engine.workers(), 0);
    EXPECT_EQ(state_.calls_without_passes(), (std::vector<std::string>{"InitRscDll(qmtsdw,0,0)"}));
}

TEST_F(EngineTest, OverduePassIsReportedOnceAndNotRepolledWhileOthersGoOn)
{
    state_.hung.insert("sdw1");
    // One thread only: without a replacement for the stuck one, sdw2 would never be polled again.
    qmtrm::Engine engine(plugin_, qmtrm::Service::Sdw, resources({"sdw1", "sdw2"}), reporter_, 1, false);
    ASSERT_EQ(engine.start(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return state_.passes_of("sdw2") >= 3; }, 8s));
    EXPECT_EQ(engine.overdue_reports(), 1u);
    EXPECT_EQ(state_.passes_of("sdw1"), 1);
    EXPECT_EQ(engine.workers(), 2);

    std::vector<std::string> stuck;
    EXPECT_FALSE(engine.stop(100, &stuck));
    EXPECT_EQ(stuck, std::vector<std::string>{"sdw1"});
    auto calls = state_.calls_without_passes();
    EXPECT_EQ(calls.back(), "MontrStatusChange(sdw,sdw2,0x111)") << "no teardown under a running pass";

    // Once the pass returns the service can be torn down.
    state_.release_all();
    ASSERT_TRUE(engine.stop(2000, &stuck));
    EXPECT_TRUE(stuck.empty());
    EXPECT_EQ(state_.calls_without_passes().back(), "UninitRscDll(qmtsdw)");
    EXPECT_EQ(engine.overdue_reports(), 1u);
}

TEST_F(EngineTest, HungPassesHoldUpNoOtherResource)
{
    std::vector<qmtrm::ResourceConfig> list;
    for (int i = 0; i < 16; ++i) {
        list.push_back({"sdw" + std::to_string(i), 1, 300});
        if (i % 2 == 0)
            state_.hung.insert("sdw" + std::to_string(i));
    }
    // One thread to begin with, and time-outs far away: nothing is overdue, nothing is replaced.
    qmtrm::Engine engine(plugin_, qmtrm::Service::Sdw, list, reporter_, 1, false);
    ASSERT_EQ(engine.start(), 0u);
    auto healthy_polled = [&](int n) {
        for (int i = 1; i < 16; i += 2)
            if (state_.passes_of("sdw" + std::to_string(i)) < n)
                return false;
        return true;
    };
    ASSERT_TRUE(step_until(engine, [&] { return healthy_polled(3); }, 8s));
    EXPECT_EQ(engine.overdue_reports(), 0u);
    EXPECT_LE(engine.workers(), 16);
    state_.release_all();
    std::vector<std::string> stuck;
    EXPECT_TRUE(engine.stop(2000, &stuck));
}

TEST_F(EngineTest, ANameConfiguredTwiceIsPolledOnceAtATime)
{
    state_.hung.insert("sdw1");
    qmtrm::Engine engine(plugin_, qmtrm::Service::Sdw, resources({"sdw1", "sdw1"}, 300), reporter_, 2, false);
    ASSERT_EQ(engine.start(), 0u);
    step_until(engine, [] { return false; }, 1500ms);
    EXPECT_EQ(state_.passes_of("sdw1"), 1);
    state_.release_all();
    std::vector<std::string> stuck;
    EXPECT_TRUE(engine.stop(2000, &stuck));
}

TEST_F(EngineTest, OverdueLimitIsTheTimeOutTimesTheRatio)
{
    // The plug-in is attached to the cluster shared memory while it serves; here the test is.
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(shmcm_setratio(3), 0);
    EXPECT_EQ(qmtrm::current_ratio(), 3);
    state_.hung.insert("sdw1");
    qmtrm::Engine engine(plugin_, qmtrm::Service::Sdw, resources({"sdw1"}, 1), reporter_, 1, false);
    ASSERT_EQ(engine.start(), 0u);
    // 1.5 s into a pass with a limit of 3 s: not overdue yet.
    step_until(engine, [] { return false; }, 1500ms);
    EXPECT_EQ(engine.overdue_reports(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return engine.overdue_reports() == 1; }, 5s));
    state_.release_all();
    std::vector<std::string> stuck;
    EXPECT_TRUE(engine.stop(2000, &stuck));
    EXPECT_EQ(shmcm_detach(), 0);
    EXPECT_EQ(qmtrm::current_ratio(), 1) << "no shared memory attached: ratio 1";
}

TEST_F(EngineTest, DisknpPassReadsStatusAndCheckPoint)
{
    qmtrm::Engine engine(plugin_, qmtrm::Service::Disknp, resources({"np1"}), reporter_, 4, false);
    ASSERT_EQ(engine.start(), 0u);
    EXPECT_EQ(engine.workers(), 1) << "never more threads than resources";
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 1; }, 5s));
    EXPECT_EQ(engine.control("np1", 0x11), 0u);
    std::vector<std::string> stuck;
    ASSERT_TRUE(engine.stop(1000, &stuck));
    EXPECT_EQ(state_.calls_without_passes(),
              (std::vector<std::string>{"InitNpRscDll(qmtsdw)", "NpMontrStatusChange(disknp,np1,0x110)",
                                        "GetCheckPoint(np1)", "NpMontrStatusChange(disknp,np1,0x11)",
                                        "NpMontrStatusChange(disknp,np1,0x111)", "UninitNpRscDll(qmtsdw)"}));
    EXPECT_EQ(engine.statuses_seen(), std::set<DWORD>{0});
}

TEST_F(EngineTest, StatusesOfEveryPassAreKept)
{
    qmtrm::Engine engine(plugin_, qmtrm::Service::Sdw, resources({"sdw1"}), reporter_, 1, true);
    ASSERT_EQ(engine.start(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 1; }, 5s));
    {
        std::lock_guard lock(state_.m);
        state_.status = 5;
    }
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 2; }, 5s));
    std::vector<std::string> stuck;
    ASSERT_TRUE(engine.stop(1000, &stuck));
    EXPECT_EQ(engine.statuses_seen(), (std::set<DWORD>{0, 5}));
}

} // namespace
