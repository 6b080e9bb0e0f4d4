// Before any module is opened in a process, lines with an empty handle go to standard error,
// filtered at the default level 4.

#include "qmtlog.h"

#include <gtest/gtest.h>

#include <string>

TEST(NullHandle, BeforeAnyOpenGoesToStderrAtTheDefaultLevel) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(QmtLogWrite(nullptr, QMTLOG_INFO, 0, "/src/sdw.cpp", 10, "SdwWriteLog", "%s", "before open"), 0);
    EXPECT_EQ(QmtLogWrite(nullptr, QMTLOG_TRACE, 0, "/src/sdw.cpp", 11, "SdwWriteLog", "%s", "filtered"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    std::string tail = " sdw.cpp:10 SdwWriteLog: before open\n";
    ASSERT_GE(err.size(), tail.size());
    EXPECT_EQ(err.substr(err.size() - tail.size()), tail);
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;  // exactly one line
    EXPECT_NE(err.find(" INF "), std::string::npos);
}
