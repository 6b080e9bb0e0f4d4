// Event severities, syslog priorities and insert rendering.

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
    // The other three names show in the event lines of test_qmtlog.cpp.
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

// The three events of the disk monitor are pinned line by line in test_qmtlog.cpp.
TEST(Events, MessagePutsInsertsIntoTheEventText) {
    EXPECT_EQ(qmtlog::event_message(0xC000004Du, {"a", "5"}), "EVENT 77 ERROR inserts: a 5");
    // A missing insert leaves its place empty rather than reading past the list.
    EXPECT_EQ(qmtlog::event_message(0x40000E45u, {}),
              "EVENT 3653 INFORMATION Disks of  recovered: every disk answers its check again");
}

}  // namespace
