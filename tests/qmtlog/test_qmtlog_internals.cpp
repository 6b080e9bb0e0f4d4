// Event severities, syslog priorities, insert rendering and level names.

#include "qmtlog.h"
#include "qmtlog_internal.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <string>
#include <vector>

namespace {

std::vector<std::string> inserts(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    auto out = qmtlog::event_inserts(format, ap);
    va_end(ap);
    return out;
}

using Texts = std::vector<std::string>;

TEST(Events, TopTwoBitsGiveSeverityAndSyslogPriority) {
    EXPECT_STREQ(qmtlog::event_severity(0x40000E45u), "INFORMATION");
    EXPECT_STREQ(qmtlog::event_severity(0x80000E43u), "WARNING");
    EXPECT_STREQ(qmtlog::event_severity(0xC0000E44u), "ERROR");
    EXPECT_STREQ(qmtlog::event_severity(0x00000E44u), "SUCCESS");
    EXPECT_EQ(qmtlog::event_syslog_priority(0x40000E45u), LOG_INFO);
    EXPECT_EQ(qmtlog::event_syslog_priority(0x80000E43u), LOG_WARNING);
    EXPECT_EQ(qmtlog::event_syslog_priority(0xC0000E44u), LOG_ERR);
}

TEST(Events, InsertsTakeOneValuePerConversion) {
    EXPECT_EQ(inserts("%s%d%d%d", "disk1", 60, -5, 80), (Texts{"disk1", "60", "-5", "80"}));
    EXPECT_EQ(inserts("%ld %#x %u %c %lld", 7L, 255u, 4000000000u, 'q', 1LL << 40),
              (Texts{"7", "ff", "4000000000", "q", "1099511627776"}));
    EXPECT_EQ(inserts("100%% %s", "x"), (Texts{"x"}));
    EXPECT_EQ(inserts(nullptr), Texts{});
}

TEST(Events, MessagePutsInsertsIntoTheEventText) {
    EXPECT_EQ(qmtlog::event_message(0x80000E43u, {"disk1", "60", "48001", "80"}),
              "EVENT 3651 WARNING Delayed response from the disk of disk1 (time-out 60s, answered in "
              "48001ms, delay ratio 80%)");
    EXPECT_EQ(qmtlog::event_message(0xC0000E44u, {"disk1"}),
              "EVENT 3652 ERROR Disk failure of disk1: a disk of the resource could not be opened or "
              "failed its check");
    EXPECT_EQ(qmtlog::event_message(0x40000E45u, {"disk1"}),
              "EVENT 3653 INFORMATION Disks of disk1 recovered: every disk answers its check again");
    EXPECT_EQ(qmtlog::event_message(0xC000004Du, {"a", "5"}), "EVENT 77 ERROR inserts: a 5");
    // A missing insert leaves its place empty rather than reading past the list.
    EXPECT_EQ(qmtlog::event_message(0x40000E45u, {}),
              "EVENT 3653 INFORMATION Disks of  recovered: every disk answers its check again");
}

TEST(Lines, LevelNamesAndBaseNames) {
    EXPECT_EQ(qmtlog::level_name(1), "ERR");
    EXPECT_EQ(qmtlog::level_name(2), "WRN");
    EXPECT_EQ(qmtlog::level_name(4), "INF");
    EXPECT_EQ(qmtlog::level_name(8), "TRC");
    EXPECT_EQ(qmtlog::level_name(16), "PAS");
    EXPECT_EQ(qmtlog::level_name(32), "DTL");
    EXPECT_EQ(qmtlog::level_name(32768), "EVT");
    EXPECT_EQ(qmtlog::level_name(64), "L64");
    EXPECT_STREQ(qmtlog::base_name("C:\\work\\sdw\\src\\sdw.cpp"), "sdw.cpp");
    EXPECT_STREQ(qmtlog::base_name("/a/b/log.cpp"), "log.cpp");
    EXPECT_STREQ(qmtlog::base_name("plain.cpp"), "plain.cpp");
}

}  // namespace
