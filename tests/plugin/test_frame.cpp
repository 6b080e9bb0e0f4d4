// The resource table lookup, the record lock helpers, the accessors and the tick source.
#include "fixture.h"

#include <atomic>
#include <cstring>
#include <thread>

using namespace sdwtest;

namespace {

class FrameTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        std::memset(table_, 0, sizeof table_);
        std::strcpy(table_[0].name, "sdw1");
        std::strcpy(table_[1].name, "sdw2");
        std::strcpy(table_[2].name, "sdw1");
        gsdwlpRsc = table_;
        gsdwRscCount = 3;
    }
    void TearDown() override
    {
        gsdwlpRsc = nullptr;
        gsdwRscCount = 0;
        PluginTest::TearDown();
    }
    SDW_RSC table_[3];
};

// Nothing is found without a table or with a count of 0.
TEST_F(FrameTest, LookupIsExactCaseSensitiveAndTakesTheFirstOfTwins)
{
    EXPECT_EQ(SdwFindRsc("sdw1"), &table_[0]);
    EXPECT_EQ(SdwFindRsc("sdw2"), &table_[1]);
    EXPECT_EQ(SdwFindRsc("SDW1"), nullptr);
    EXPECT_EQ(SdwFindRsc("sdw"), nullptr);
    EXPECT_EQ(SdwFindRsc("sdw12"), nullptr);
    EXPECT_EQ(SdwFindRsc(""), nullptr);
    EXPECT_EQ(SdwFindRsc(nullptr), nullptr);
    gsdwRscCount = 0;
    EXPECT_EQ(SdwFindRsc("sdw1"), nullptr);
    gsdwRscCount = 3;
    gsdwlpRsc = nullptr;
    EXPECT_EQ(SdwFindRsc("sdw1"), nullptr);
}

TEST_F(FrameTest, AccessorOnARecordWithoutLockLogsBothFailuresAndStillStores)
{
    doubles::clear_calls();
    SdwSetResult(&table_[1], 5);
    EXPECT_EQ(table_[1].result, 5);
    const std::vector<std::string> expected = {
        "32|SdwSetResult|Start - (Status=5 Name=sdw2)",
        "32|SdwMutexLock|Start - (Hdl=0 Timeout=10000)",
        "1|SdwMutexLock|WaitForSingleObject() failed. (Hdl=0 Err=6)",
        "32|SdwMutexLock|End - (Ret=99)",
        "1|SdwSetResult|SdwMutexLock() failed. (Ret=99)",
        "32|SdwMutexUnlock|Start - (Hdl=0)",
        "1|SdwMutexUnlock|ReleaseMutex() failed. (Hdl=0 Err=6)",
        "32|SdwMutexUnlock|End - (Ret=99)",
        "1|SdwSetResult|SdwMutexUnlock() failed. (Ret=99)",
        "32|SdwSetResult|End - ()",
    };
    EXPECT_EQ(doubles::log_lines(), expected);
    EXPECT_EQ(SdwGetResult(&table_[1]), 5);
}

TEST_F(FrameTest, AccessorsReadAndWriteTheirFieldsUnderTheRecordLock)
{
    for (SDW_RSC &r : table_) {
        r.mutex = CreateMutexA(nullptr, FALSE, nullptr);
        ASSERT_NE(r.mutex, nullptr);
    }
    doubles::clear_calls();
    SdwSetMonTick(&table_[0], 0xFFFFFFF0u);
    SdwSetIsDoMontr(&table_[0], 1);
    EXPECT_EQ(SdwGetMonTick(&table_[0]), 0xFFFFFFF0u);
    EXPECT_EQ(SdwGetIsDoMontr(&table_[0]), 1);
    EXPECT_EQ(SdwGetIsDoMontr(&table_[1]), 0);
    // Every accessor logs its entry and exit around the record lock's own entry and exit.
    auto framed = [](const char *function, const std::string &start, const std::string &end, SDW_RSC &r) {
        const std::string hdl = doubles::hex(r.mutex).substr(2);
        const std::string fn = std::string("32|") + function + "|";
        return std::vector<std::string>{fn + start,
                                        std::string("32|SdwMutexLock|Start - (Hdl=") + hdl + " Timeout=10000)",
                                        "32|SdwMutexLock|End - (Ret=0)",
                                        std::string("32|SdwMutexUnlock|Start - (Hdl=") + hdl + ")",
                                        "32|SdwMutexUnlock|End - (Ret=0)",
                                        fn + end};
    };
    std::vector<std::string> expected;
    for (const auto &part : {framed("SdwSetMonTick", "Start - (Name=sdw1 Tick=-16)", "End - ()", table_[0]),
                             framed("SdwSetIsDoMontr", "Start - (Status=1 Name=sdw1)", "End - ()", table_[0]),
                             framed("SdwGetMonTick", "Start - (Name=sdw1)", "End - (Ret=-16)", table_[0]),
                             framed("SdwGetIsDoMontr", "Start - (Name=sdw1)", "End - (Ret=1)", table_[0]),
                             framed("SdwGetIsDoMontr", "Start - (Name=sdw2)", "End - (Ret=0)", table_[1])})
        expected.insert(expected.end(), part.begin(), part.end());
    EXPECT_EQ(doubles::log_lines(), expected);
    for (SDW_RSC &r : table_) {
        CloseHandle(r.mutex);
    }
}

// A time-out of 0 tries the lock once; only a negative one waits for ever.
TEST_F(FrameTest, LockWithATimeOutOfZeroDoesNotWait)
{
    HANDLE m = CreateMutexA(nullptr, FALSE, nullptr);
    ASSERT_EQ(SdwMutexLock(m, 0), 0);
    std::atomic<int32_t> other{-1};
    std::thread t([m, &other] {
        other = SdwMutexLock(m, 0);
        if (other == 0)
            SdwMutexUnlock(m);
    });
    for (int i = 0; i < 200 && other == -1; ++i)
        Sleep(10);
    EXPECT_EQ(other.load(), SDW_ERR_LOCK) << "a time-out of 0 waited for the lock";
    EXPECT_EQ(SdwMutexUnlock(m), 0);
    t.join();
    EXPECT_TRUE(logged("1|SdwMutexLock|WaitForSingleObject() timeout. (Hdl=" + doubles::hex(m) + " Timeout=0)"));
    CloseHandle(m);
}

TEST_F(FrameTest, TickIsNeverZeroAcrossTheWrap)
{
    qmtp_tick_freeze(0);
    EXPECT_EQ(GetTickCount(), 0u);
    EXPECT_EQ(SdwGetTick(), 1u);
    qmtp_tick_freeze(0xFFFFFFFFu);
    EXPECT_EQ(SdwGetTick(), 0xFFFFFFFFu);
}

// Accessors of one record from several threads: under ThreadSanitizer an access outside the
// record lock is a reported race; everywhere, no lock call may fail.
TEST_F(FrameTest, ConcurrentAccessorsOnOneRecord)
{
    table_[0].mutex = CreateMutexA(nullptr, FALSE, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t, this] {
            for (int i = 0; i < 300; i++) {
                SdwSetResult(&table_[0], t);
                SdwGetResult(&table_[0]);
                SdwSetMonTick(&table_[0], static_cast<uint32_t>(i));
                SdwGetMonTick(&table_[0]);
            }
        });
    }
    for (auto &th : threads) th.join();
    EXPECT_TRUE(lines_like("1|*").empty());
    CloseHandle(table_[0].mutex);
}

}  // namespace
