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
#include <string_view>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

// The fake plug-in: records every call but the passes as text; a pass of a resource in `hung`
// blocks until release_all().
struct Fake {
    std::mutex m;
    std::condition_variable cv;
    Calls calls;
    std::map<std::string, int> passes;
    std::set<std::string> hung;
    bool released = false;
    DWORD init_result = 0;
    DWORD status = 0;

    template <class F> auto locked(F f)
    {
        std::lock_guard lock(m);
        return f();
    }
    void record(const std::string &call) { locked([&] { calls.push_back(call); }); }
    int passes_of(const std::string &name) { return locked([&] { return passes[name]; }); }
    Calls calls_so_far() { return locked([&] { return calls; }); }
    void release_all() { locked([&] { released = true; cv.notify_all(); }); }
    DWORD pass(const char *name)
    {
        std::unique_lock lock(m);
        ++passes[name];
        if (hung.count(name))
            cv.wait(lock, [this] { return released; });
        return status;
    }
};
Fake *fake = nullptr;

std::string arg(const char *s) { return s ? s : "NULL"; }
std::string arg(unsigned long v)
{
    char code[24];
    std::snprintf(code, sizeof code, "%#lx", v);
    return code;
}

constexpr char kInit[] = "InitRscDll", kUninit[] = "UninitRscDll", kNpInit[] = "InitNpRscDll",
               kNpUninit[] = "UninitNpRscDll", kStatus[] = "MontrStatusChange", kNpStatus[] = "NpMontrStatusChange",
               kCheckPoint[] = "GetCheckPoint", kSdw[] = "sdw", kDisknp[] = "disknp";

// Every export but the passes: records "Name(arg,...)"; the initialisations return init_result.
template <const char *Name, class R, class... Args> R WINAPI Record(Args... args) noexcept
{
    std::string call = Name;
    char sep = '(';
    ((call += sep, call += arg(args), sep = ','), ...);
    fake->record(call + ")");
    return static_cast<R>(std::string_view(Name).starts_with("Init") ? fake->init_result : 0);
}
template <const char *Type> DWORD WINAPI Pass(const char *type, const char *name) noexcept
{
    EXPECT_STREQ(type, Type);
    return fake->pass(name);
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The engine reads the time-out ratio; keep this test's shared memory apart.
        shm_ = "qmtrmengine" + std::to_string(getpid());
        setenv("QMT_SHM_NAME", shm_.c_str(), 1);
        fake = &state_;
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
    qmtrm::Engine make(std::vector<std::string> names, int threads, int timeout_s = 1, bool verbose = false,
                         qmtrm::Service service = qmtrm::Service::Sdw)
    {
        std::vector<qmtrm::ResourceConfig> resources;
        for (auto &name : names)
            resources.push_back({name, 1, timeout_s});
        return qmtrm::Engine(plugin_, service, resources, reporter_, threads, verbose);
    }
    // Steps the engine every 20 ms until `done` holds or `bound` has passed.
    template <typename Pred> static bool step_until(qmtrm::Engine &engine, Pred done, std::chrono::milliseconds bound)
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
    static void step_for(qmtrm::Engine &engine, std::chrono::milliseconds time)
    {
        step_until(engine, [] { return false; }, time);
    }
    // Returns the hung passes, then stops: the service must be torn down.
    bool release_and_stop(qmtrm::Engine &engine)
    {
        state_.release_all();
        std::vector<std::string> stuck;
        return engine.stop(2000, &stuck) && stuck.empty();
    }

    Fake state_;
    const qmtrm::Plugin plugin_{nullptr, "", Record<kInit>, Record<kUninit>, Pass<kSdw>, Record<kStatus>,
                                Record<kNpInit>, Record<kNpUninit>, Pass<kDisknp>, Record<kNpStatus>,
                                Record<kCheckPoint>};
    qmtrm::Reporter reporter_{true};
    std::string shm_;
};

TEST_F(EngineTest, StartsEveryResourceThenStopsAndTearsDownInOrder)
{
    qmtrm::Engine engine = make({"sdw1", "sdw2"}, 2);
    ASSERT_EQ(engine.start(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 2; }, 5s));
    EXPECT_EQ(state_.passes_of("sdw1"), 1);
    EXPECT_EQ(state_.passes_of("sdw2"), 1);
    ASSERT_TRUE(release_and_stop(engine));
    EXPECT_EQ(state_.calls_so_far(),
              (Calls{"InitRscDll(qmtsdw,0,0)", "MontrStatusChange(sdw,sdw1,0x110)", "MontrStatusChange(sdw,sdw2,0x110)",
                     "MontrStatusChange(sdw,sdw1,0x111)", "MontrStatusChange(sdw,sdw2,0x111)",
                     "UninitRscDll(qmtsdw,0,0)"}));
}

TEST_F(EngineTest, FailedInitialisationStartsNothing)
{
    state_.init_result = 1;
    qmtrm::Engine engine = make({"sdw1"}, 1);
    EXPECT_EQ(engine.start(), 1u);
    engine.step();
    EXPECT_EQ(engine.workers(), 0);
    EXPECT_EQ(state_.calls_so_far(), Calls{"InitRscDll(qmtsdw,0,0)"});
}

TEST_F(EngineTest, OverduePassIsReportedOnceAndNotRepolledWhileOthersGoOn)
{
    state_.hung.insert("sdw1");
    // One thread only: without a replacement for the stuck one, sdw2 would never be polled again.
    qmtrm::Engine engine = make({"sdw1", "sdw2"}, 1);
    ASSERT_EQ(engine.start(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return state_.passes_of("sdw2") >= 3; }, 8s));
    EXPECT_EQ(engine.overdue_reports(), 1u);
    EXPECT_EQ(state_.passes_of("sdw1"), 1);
    EXPECT_EQ(engine.workers(), 2);

    std::vector<std::string> stuck;
    EXPECT_FALSE(engine.stop(100, &stuck));
    EXPECT_EQ(stuck, std::vector<std::string>{"sdw1"});
    EXPECT_EQ(state_.calls_so_far().back(), "MontrStatusChange(sdw,sdw2,0x111)") << "no teardown under a running pass";

    // Once the pass returns the service can be torn down.
    ASSERT_TRUE(release_and_stop(engine));
    EXPECT_EQ(state_.calls_so_far().back(), "UninitRscDll(qmtsdw,0,0)");
    EXPECT_EQ(engine.overdue_reports(), 1u);
}

TEST_F(EngineTest, HungPassesHoldUpNoOtherResource)
{
    std::vector<std::string> names;
    for (int i = 0; i < 16; ++i) {
        names.push_back("sdw" + std::to_string(i));
        if (i % 2 == 0)
            state_.hung.insert(names.back());
    }
    // One thread to begin with, and time-outs far away: nothing is overdue, nothing is replaced.
    qmtrm::Engine engine = make(names, 1, 300);
    ASSERT_EQ(engine.start(), 0u);
    auto healthy_polled = [&] {
        for (int i = 1; i < 16; i += 2)
            if (state_.passes_of(names[i]) < 3)
                return false;
        return true;
    };
    ASSERT_TRUE(step_until(engine, healthy_polled, 8s));
    EXPECT_EQ(engine.overdue_reports(), 0u);
    EXPECT_LE(engine.workers(), 16);
    EXPECT_TRUE(release_and_stop(engine));
}

TEST_F(EngineTest, ANameConfiguredTwiceIsPolledOnceAtATime)
{
    state_.hung.insert("sdw1");
    qmtrm::Engine engine = make({"sdw1", "sdw1"}, 2, 300);
    ASSERT_EQ(engine.start(), 0u);
    step_for(engine, 1500ms);
    EXPECT_EQ(state_.passes_of("sdw1"), 1);
    EXPECT_TRUE(release_and_stop(engine));
}

TEST_F(EngineTest, OverdueLimitIsTheTimeOutTimesTheRatio)
{
    // The plug-in is attached to the cluster shared memory while it serves; here the test is.
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(shmcm_setratio(3), 0);
    EXPECT_EQ(qmtrm::current_ratio(), 3);
    state_.hung.insert("sdw1");
    qmtrm::Engine engine = make({"sdw1"}, 1);
    ASSERT_EQ(engine.start(), 0u);
    // 1.5 s into a pass with a limit of 3 s: not overdue yet.
    step_for(engine, 1500ms);
    EXPECT_EQ(engine.overdue_reports(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return engine.overdue_reports() == 1; }, 5s));
    EXPECT_TRUE(release_and_stop(engine));
    EXPECT_EQ(shmcm_detach(), 0);
    EXPECT_EQ(qmtrm::current_ratio(), 1) << "no shared memory attached: ratio 1";
}

TEST_F(EngineTest, DisknpPassReadsStatusAndCheckPoint)
{
    qmtrm::Engine engine = make({"np1"}, 4, 1, false, qmtrm::Service::Disknp);
    ASSERT_EQ(engine.start(), 0u);
    EXPECT_EQ(engine.workers(), 1) << "never more threads than resources";
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 1; }, 5s));
    EXPECT_EQ(engine.control("np1", 0x11), 0u);
    ASSERT_TRUE(release_and_stop(engine));
    EXPECT_EQ(state_.calls_so_far(),
              (Calls{"InitNpRscDll(qmtsdw,0,0)", "NpMontrStatusChange(disknp,np1,0x110)", "GetCheckPoint(np1)",
                     "NpMontrStatusChange(disknp,np1,0x11)", "NpMontrStatusChange(disknp,np1,0x111)",
                     "UninitNpRscDll(qmtsdw,0,0)"}));
    EXPECT_EQ(engine.statuses_seen(), std::set<DWORD>{0});
}

TEST_F(EngineTest, StatusesOfEveryPassAreKept)
{
    qmtrm::Engine engine = make({"sdw1"}, 1, 1, true);
    ASSERT_EQ(engine.start(), 0u);
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 1; }, 5s));
    state_.locked([&] { state_.status = 5; });
    ASSERT_TRUE(step_until(engine, [&] { return engine.passes() == 2; }, 5s));
    ASSERT_TRUE(release_and_stop(engine));
    EXPECT_EQ(engine.statuses_seen(), (std::set<DWORD>{0, 5}));
}

} // namespace
