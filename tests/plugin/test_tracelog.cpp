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
        fresh();
    }
    // Every resource's entry starts from a message of its own, new each time, so nothing of an
    // earlier test or case is pending.
    static void fresh()
    {
        static int generation = 0;
        generation++;
        qmtp_tick_freeze(1000000);
        for (const char *name : {"r1", "r2"}) SdwWriteLog(name, QMTLOG_ERROR, kFile, 1, "reset", "reset %s %d", name, generation);
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

// What reaches the log for a sequence of messages: each message is written `times` times at tick
// `tick` (0: where the clock stands).
TEST_F(TraceLogTest, RepeatsAreFoldedPerResourceWithinTheWindow)
{
    struct Say {
        const char *rsc;
        std::string text;
        int times = 1;
        DWORD tick = 0;
        int line = 10, level = QMTLOG_WARNING;
        const char *function = "SdwMonitor";
    };
    struct Case {
        const char *what;
        std::vector<Say> says;
        std::vector<std::string> lines;
    };
    const std::string a127(127, 'a');
    const Case cases[] = {
        {"messages without resource have their own summary",
         {{nullptr, "tick", 5}, {nullptr, "tock"}},
         {"2|SdwMonitor|tick", "2|SdwMonitor|Last message repeated 4 times.", "2|SdwMonitor|tock"}},
        {"a single repeat is shown again",
         {{"r1", "late"}, {"r1", "late", 1, 1010000}, {"r1", "other"}},
         {"2|SdwMonitor|late", "2|SdwMonitor|late", "2|SdwMonitor|other"}},
        {"the window is measured across the tick wrap",
         {{"r1", "late", 1, 0xFFFFFF00u}, {"r1", "late", 1, 0xFFFFFF00u + 600000u},
          {"r1", "late", 1, 0xFFFFFF00u + 600001u}, {"r1", "other"}},
         {"2|SdwMonitor|late", "2|SdwMonitor|Last message of r1 repeated 2 times.", "2|SdwMonitor|other"}},
        {"another line, level or function is not a repeat",
         {{"r1", "x"}, {"r1", "x", 1, 0, 11}, {"r1", "x", 1, 0, 11, QMTLOG_ERROR},
          {"r1", "x", 1, 0, 11, QMTLOG_ERROR, "SdwGetLUN"}},
         {"2|SdwMonitor|x", "2|SdwMonitor|x", "1|SdwMonitor|x", "1|SdwGetLUN|x"}},
        {"the text is cut after 127 characters, and so are repeats",
         {{"r1", a127 + "X"}, {"r1", a127 + "Y"}},
         {"2|SdwMonitor|" + a127}},
        {"resources fold independently",
         {{"r1", "late"}, {"r2", "late"}, {"r1", "late"}, {"r2", "late", 2}, {"r1", "ok"}, {"r2", "ok"}},
         {"2|SdwMonitor|late", "2|SdwMonitor|late", "2|SdwMonitor|late", "2|SdwMonitor|ok",
          "2|SdwMonitor|Last message of r2 repeated 2 times.", "2|SdwMonitor|ok"}},
        // The library filters by level; the trace neither flushes nor replaces the entry.
        {"a trace above the level is written and leaves the entry alone",
         {{"r1", "late", 3}, {"r1", "I/O start", 1, 0, 20, QMTLOG_TRACE}, {"r1", "late"}, {"r1", "done"}},
         {"2|SdwMonitor|late", "8|SdwMonitor|I/O start", "2|SdwMonitor|Last message of r1 repeated 3 times.",
          "2|SdwMonitor|done"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        for (const Say &m : c.says) {
            if (m.tick != 0) qmtp_tick_freeze(m.tick);
            for (int i = 0; i < m.times; i++) say(m.rsc, m.text.c_str(), m.line, m.level, m.function);
        }
        EXPECT_EQ(doubles::log_lines(), c.lines);
    }
}

TEST_F(TraceLogTest, PercentSignsAreWrittenExactlyAsFormatted)
{
    SdwWriteLog("r1", QMTLOG_ERROR, kFile, 5, "f", "ratio %d%% of %s", 80, "50%s");
    EXPECT_EQ(doubles::log_lines().back(), "1|f|ratio 80% of 50%s");
    EXPECT_EQ(doubles::calls().back().text, "ratio 80% of 50%s");
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
