// cs_gethostname: the server name as the cluster knows it.
#include "qmtutil.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

class HostName : public ::testing::Test {
protected:
    void TearDown() override { unsetenv("QMT_HOSTNAME"); }
};

TEST_F(HostName, SystemNameUpToTheFirstDot)
{
    unsetenv("QMT_HOSTNAME");
    char sys[256] = {};
    ASSERT_EQ(gethostname(sys, sizeof sys - 1), 0);
    std::string expect(sys);
    expect = expect.substr(0, expect.find('.'));
    char buf[256];
    ASSERT_EQ(cs_gethostname(buf, sizeof buf, 1, nullptr), 0);
    EXPECT_EQ(std::string(buf), expect);
}

TEST_F(HostName, EnvironmentNameFitsExactlyOrNothingIsWritten)
{
    setenv("QMT_HOSTNAME", "n1.ex", 1);  // an explicit name is taken as it is, dots included
    char buf[8];
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(cs_gethostname(buf, 5, 1, nullptr), 122);
    EXPECT_EQ(std::string(buf, 8), "XXXXXXXX");
    ASSERT_EQ(cs_gethostname(buf, 6, 1, nullptr), 0);
    EXPECT_EQ(std::string(buf, 8), std::string("n1.ex\0XX", 8));
}

TEST_F(HostName, BadArgumentsAreRefused)
{
    char buf[4];
    EXPECT_EQ(cs_gethostname(nullptr, 256, 1, nullptr), 87);
    EXPECT_EQ(cs_gethostname(buf, 0, 1, nullptr), 87);
    EXPECT_EQ(cs_gethostname(buf, -1, 1, nullptr), 87);
}

}  // namespace
