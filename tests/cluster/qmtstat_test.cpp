// qmtstat run as its own process against segments this test fills: what the plug-in publishes,
// without a host's status board (the host's side is tested by tests/host/check_lifecycle.sh).
#include "cluster_test_util.h"
#include "qmtshm.h"
#include "qmtshm_admin.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cctype>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

using namespace clustertest;

namespace {

struct Outcome {
    int status;
    std::vector<std::string> lines;
};

Outcome run(const std::string &args)
{
    std::string cmd = std::string("timeout 20 '") + QMTSTAT_PATH + "' " + args + " 2>&1";
    Outcome r{-1, {}};
    FILE *p = popen(cmd.c_str(), "r");
    if (!p)
        return r;
    char line[1024];
    while (fgets(line, sizeof line, p)) {
        std::string s(line);
        if (!s.empty() && s.back() == '\n')
            s.pop_back();
        r.lines.push_back(s);
    }
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::vector<std::string> fields(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> f;
    for (std::string w; in >> w;)
        f.push_back(w);
    return f;
}

// "12.3s"
bool is_age(const std::string &s)
{
    size_t dot = s.find('.');
    if (dot == std::string::npos || dot == 0 || s.size() != dot + 3 || s.back() != 's')
        return false;
    for (size_t i = 0; i + 1 < s.size(); ++i)
        if (i != dot && !std::isdigit(static_cast<unsigned char>(s[i])))
            return false;
    return true;
}

class Qmtstat : public ::testing::Test {
protected:
    void TearDown() override
    {
        while (shmrm_detach() == 0) {
        }
        while (shmcm_detach() == 0) {
        }
    }
    ShmPrefix shm{"stat"};
};

TEST_F(Qmtstat, NoSegmentsIsAnErrorWithAClearMessage)
{
    Outcome r = run("");
    EXPECT_EQ(r.status, 1);
    ASSERT_EQ(r.lines.size(), 1u);
    EXPECT_EQ(r.lines[0], "qmtstat: no shared memory under " + shm.prefix() + ": no monitor has attached yet");
    EXPECT_EQ(shmcm_exists(), 0);
    EXPECT_EQ(shmrm_exists(), 0);
}

TEST_F(Qmtstat, ShowsRatioAndOneRowPerResource)
{
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmcm_setratio(2), 0);
    ASSERT_EQ(shmrm_setmonprogress("sdw", "sdw1", QMT_DOMONTR_MONSTART), 0);
    ASSERT_EQ(shmrm_setmonprogress("sdw", "sdw1", QMT_DOMONTR_MONEND), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "sdw1", "Normal", 256), 0);
    ASSERT_EQ(shmrm_setmonprogress("sdw", "sdw2", QMT_DOMONTR_MONSTART), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "sdw3", "Disk error", 256), 0);
    Outcome r = run("");
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.lines.size(), 5u);
    EXPECT_EQ(r.lines[0], "shared memory " + shm.prefix() + ", ratio 2");
    EXPECT_EQ(fields(r.lines[1]), (std::vector<std::string>{"SERVICE", "NAME", "STATUS", "PROGRESS", "AGE", "OVERDUE",
                                                            "CHECK", "WRITER", "DESCRIPTION"}));
    // No host publishes these: what only a host knows shows as "-".
    std::vector<std::string> f = fields(r.lines[2]);
    ASSERT_EQ(f.size(), 10u) << r.lines[2];
    EXPECT_EQ(std::vector<std::string>(f.begin(), f.begin() + 5),
              (std::vector<std::string>{"sdw", "sdw1", "-", "4", "MONEND"}));
    EXPECT_TRUE(is_age(f[5])) << f[5];
    EXPECT_EQ(f[9], "Normal");
    f = fields(r.lines[3]);
    ASSERT_EQ(f.size(), 10u) << r.lines[3];
    EXPECT_EQ(std::vector<std::string>(f.begin(), f.begin() + 5),
              (std::vector<std::string>{"sdw", "sdw2", "-", "3", "MONSTART"}));
    EXPECT_TRUE(is_age(f[5])) << f[5];
    f = fields(r.lines[4]);
    EXPECT_EQ(std::vector<std::string>(f.begin(), f.begin() + 6), (std::vector<std::string>{"sdw", "sdw3", "-", "0", "-", "-"}));
    EXPECT_EQ(std::vector<std::string>(f.end() - 2, f.end()), (std::vector<std::string>{"Disk", "error"}));
}

TEST_F(Qmtstat, SetsTheRatio)
{
    Outcome r = run("--set-ratio 5");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.lines, std::vector<std::string>{"ratio: 5"});
    int ratio = 0;
    ASSERT_EQ(shmcm_peekratio(&ratio), 0);
    EXPECT_EQ(ratio, 5);
    // Only the cluster segment exists now.
    r = run("");
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.lines.size(), 2u);
    EXPECT_EQ(r.lines[0], "shared memory " + shm.prefix() + ", ratio 5");
}

TEST_F(Qmtstat, WatchStopsAfterCount)
{
    ASSERT_EQ(shmcm_setratio(1), 0);
    Outcome r = run("-w 1 -n 2");
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.lines.size(), 6u);
    // "--- YYYY-MM-DD HH:MM:SS"
    EXPECT_EQ(r.lines[0].size(), 23u) << r.lines[0];
    EXPECT_EQ(r.lines[0].rfind("--- ", 0), 0u);
    EXPECT_EQ(r.lines[0].substr(8, 1) + r.lines[0].substr(11, 1) + r.lines[0].substr(14, 1) + r.lines[0].substr(17, 1), "-- :");
    EXPECT_EQ(r.lines[1], "shared memory " + shm.prefix() + ", ratio 1");
    EXPECT_EQ(r.lines[4], "shared memory " + shm.prefix() + ", ratio 1");
}

TEST_F(Qmtstat, BadOptionsAreRefused)
{
    EXPECT_EQ(run("-n 2").status, 2);
    EXPECT_EQ(run("-w 0").status, 2);
    EXPECT_EQ(run("--set-ratio 2 -w 1").status, 2);
    Outcome help = run("--help");
    EXPECT_EQ(help.status, 0);
    ASSERT_FALSE(help.lines.empty());
    EXPECT_EQ(help.lines[0].rfind("qmtstat:", 0), 0u);
}

}  // namespace
