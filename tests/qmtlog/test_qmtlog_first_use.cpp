// Before any module is opened in a process, lines with an empty handle go to standard error,
// filtered at the default level 4.

#include "qmtlog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

TEST(NullHandle, BeforeAnyOpenGoesToStderrAtTheDefaultLevel) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(QmtLogWrite(nullptr, QMTLOG_INFO, 0, "/src/sdw.cpp", 10, "SdwWriteLog", "%s", "before open"), 0);
    EXPECT_EQ(QmtLogWrite(nullptr, QMTLOG_TRACE, 0, "/src/sdw.cpp", 11, "SdwWriteLog", "%s", "filtered"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_GT(err.size(), 23u) << err;  // after the time stamp, exactly one line
    EXPECT_EQ(err.substr(23), " INF " + std::to_string(getpid()) + "/" + std::to_string(gettid()) +
                                  " sdw.cpp:10 SdwWriteLog: before open\n");
}
