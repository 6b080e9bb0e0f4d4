// The trace log front end: formatting, the 127-character cut and the repeat folding.
#include "fixture.h"

#include <chrono>
#include <thread>

using namespace sdwtest;

namespace {

constexpr const char *kFile = "C:\\src\\server\\monitor\\sdw\\sdwdisk.c";

class TraceLogTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        qmtp_tick_freeze(1000000);
        // Every resource's entry starts from a message of its own, new in each test, so nothing
        // of an earlier test is pending.
        static int generation = 0;
        generation++;
        for (const char *name : {"r1", "r2"}) {
            SdwWriteLog(name, QMTLOG_ERROR, kFile, 1, "reset", "reset %s %d", name, generation);
        }
        SdwWriteLog(nullptr, QMTLOG_ERROR, kFile, 1, "reset", "reset %d", generation);
        doubles::clear_calls();
    }
    static void say(const char *rsc, const char *text, int line = 10, int level = QMTLOG_WARNING,
                    const char *function = "SdwMonitor")
    {
        SdwWriteLog(rsc, level, kFile, line, function, "%s", text);
    }
};

TEST_F(TraceLogTest, FiveRepeatsThenADifferentMessageGiveOneSummary)
{
    for (int i = 0; i < 5; i++) say("r1", "disk late");
    say("r1", "disk fine");
    const std::vector<std::string> expected = {"2|SdwMonitor|disk late", "2|SdwMonitor|Last message of r1 repeated 4 times.", "2|SdwMonitor|disk fine"};
    EXPECT_EQ(doubles::log_lines(), expected);

    // The summary carries the entry's place: its file without directories, line and function.
    const doubles::Call &summary = doubles::calls()[doubles::calls().size() - 2];
    EXPECT_EQ(summary.file, "sdwdisk.c");
    EXPECT_EQ(summary.line, 10);
    EXPECT_EQ(summary.log_function, "SdwMonitor");
    EXPECT_EQ(summary.event, 0u);
    // Ordinary lines keep the source file with its path.
    EXPECT_EQ(doubles::calls().back().file, kFile);
}

TEST_F(TraceLogTest, MessagesWithoutResourceAreFoldedWithTheirOwnSummary)
{
    for (int i = 0; i < 5; i++) say(nullptr, "tick");
    say(nullptr, "tock");
    const std::vector<std::string> expected = {"2|SdwMonitor|tick", "2|SdwMonitor|Last message repeated 4 times.", "2|SdwMonitor|tock"};
    EXPECT_EQ(doubles::log_lines(), expected);
}

TEST_F(TraceLogTest, ASingleRepeatIsShownAgainBeforeTheNextMessage)
{
    say("r1", "late");
    qmtp_tick_freeze(1010000);
    say("r1", "late");
    say("r1", "other");
    const std::vector<std::string> expected = {"2|SdwMonitor|late", "2|SdwMonitor|late", "2|SdwMonitor|other"};
    EXPECT_EQ(doubles::log_lines(), expected);
}

TEST_F(TraceLogTest, TheWindowIsMeasuredAcrossTheTickWrap)
{
    qmtp_tick_freeze(0xFFFFFF00u);
    say("r1", "late");
    qmtp_tick_freeze(0xFFFFFF00u + 600000u);  // wrapped past zero
    say("r1", "late");
    EXPECT_EQ(doubles::log_lines().size(), 1u);
    qmtp_tick_freeze(0xFFFFFF00u + 600001u);
    say("r1", "late");
    say("r1", "other");  // the flush left no repeat pending
    const std::vector<std::string> expected = {"2|SdwMonitor|late", "2|SdwMonitor|Last message of r1 repeated 2 times.",
                                               "2|SdwMonitor|other"};
    EXPECT_EQ(doubles::log_lines(), expected);
}

TEST_F(TraceLogTest, SameTextFromAnotherLineFunctionOrLevelIsNotARepeat)
{
    say("r1", "x", 10);
    say("r1", "x", 11);
    say("r1", "x", 11, QMTLOG_ERROR);
    say("r1", "x", 11, QMTLOG_ERROR, "SdwGetLUN");
    EXPECT_EQ(doubles::log_lines().size(), 4u);
}

TEST_F(TraceLogTest, TextIsCutAfter127CharactersAndSoAreRepeats)
{
    const std::string base(127, 'a');
    say("r1", (base + "X").c_str());
    say("r1", (base + "Y").c_str());
    const std::vector<std::string> lines = doubles::log_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "2|SdwMonitor|" + base);
}

TEST_F(TraceLogTest, PercentSignsAreWrittenExactlyAsFormatted)
{
    SdwWriteLog("r1", QMTLOG_ERROR, kFile, 5, "f", "ratio %d%% of %s", 80, "50%s");
    EXPECT_EQ(doubles::log_lines().back(), "1|f|ratio 80% of 50%s");
    EXPECT_EQ(doubles::calls().back().text, "ratio 80% of 50%s");
}

TEST_F(TraceLogTest, TraceAboveTheCurrentLevelNeitherFlushesNorChangesTheEntry)
{
    say("r1", "late");
    say("r1", "late");
    say("r1", "late");  // two pending repeats
    SdwWriteLog("r1", QMTLOG_TRACE, kFile, 20, "SdwMonitor", "%s", "I/O start");
    EXPECT_EQ(doubles::log_lines().back(), "8|SdwMonitor|I/O start") << "written: the library filters by level";
    say("r1", "late");  // still a repeat of the stored entry
    say("r1", "done");
    const std::vector<std::string> expected = {"2|SdwMonitor|late", "8|SdwMonitor|I/O start", "2|SdwMonitor|Last message of r1 repeated 3 times.",
                                               "2|SdwMonitor|done"};
    EXPECT_EQ(doubles::log_lines(), expected);
}

TEST_F(TraceLogTest, ResourcesFoldIndependently)
{
    say("r1", "late");
    say("r2", "late");
    say("r1", "late");
    say("r2", "late");
    say("r2", "late");
    say("r1", "ok");
    say("r2", "ok");
    const std::vector<std::string> expected = {"2|SdwMonitor|late", "2|SdwMonitor|late", "2|SdwMonitor|late", "2|SdwMonitor|ok",
                                               "2|SdwMonitor|Last message of r2 repeated 2 times.", "2|SdwMonitor|ok"};
    EXPECT_EQ(doubles::log_lines(), expected);
}

TEST_F(TraceLogTest, AStuckLogLockMakesTheCallerWriteUnfoldedAfterItsWait)
{
    say("r1", "late");  // entry holds "late"
    std::atomic<bool> held{false}, done{false};
    std::thread holder([&] {
        WaitForSingleObject(gsdwhLogLock, INFINITE);
        held = true;
        while (!done) Sleep(5);
        ReleaseMutex(gsdwhLogLock);
    });
    while (!held) Sleep(1);
    const auto start = std::chrono::steady_clock::now();
    say("r1", "late");  // would be a silent repeat with the lock
    const auto waited = std::chrono::steady_clock::now() - start;
    // The lock is still held: the next line does not wait for it again.
    say("r2", "other");
    const auto again = std::chrono::steady_clock::now() - start - waited;
    done = true;
    holder.join();
    EXPECT_GE(waited, std::chrono::milliseconds(2900));
    EXPECT_LT(waited, std::chrono::milliseconds(8000));
    EXPECT_LT(again, std::chrono::milliseconds(1500));
    EXPECT_EQ(doubles::log_lines()[1], "2|SdwMonitor|late") << "written as it is, not lost";
    EXPECT_EQ(doubles::log_lines()[2], "2|SdwMonitor|other");
    doubles::clear_calls();
    // The entry was not touched: the next repeat is still counted against the first message.
    say("r1", "late");
    say("r1", "next");
    EXPECT_EQ(doubles::log_lines(), (std::vector<std::string>{"2|SdwMonitor|late", "2|SdwMonitor|next"}));
}

}  // namespace
