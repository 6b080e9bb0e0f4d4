// qmtstat run as its own process against segments this test fills: what the plug-in publishes,
// without a host's status board (the host's side is tested by tests/host/check_lifecycle.sh).
#include "shm_fixture.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <regex>
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

using Cells = std::vector<std::string>;

// The cells of a table line (columns are two blanks apart or more), an age below 10 s as "n.ns".
Cells cells(const std::string &line)
{
    static const std::regex gap("  +"), age(R"(\d\.\ds)");
    Cells out(std::sregex_token_iterator(line.begin(), line.end(), gap, -1), std::sregex_token_iterator());
    for (auto &c : out)
        if (std::regex_match(c, age))
            c = "n.ns";
    return out;
}

const Cells kHeader{"SERVICE", "NAME", "STATUS", "PROGRESS", "AGE", "OVERDUE", "CHECK", "WRITER", "DESCRIPTION"};

class Qmtstat : public ::testing::Test {
protected:
    ShmPrefix shm{"stat"};
};

TEST_F(Qmtstat, WithoutSegmentsSaysSoAndSetsTheRatioForOthers)
{
    Outcome r = run("");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.lines, Cells{"qmtstat: no shared memory under " + shm.prefix() + ": no monitor has attached yet"});
    EXPECT_EQ(shmcm_exists(), 0);
    EXPECT_EQ(shmrm_exists(), 0);
    r = run("--set-ratio 5");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.lines, Cells{"ratio: 5"});
    int ratio = 0;
    ASSERT_EQ(shmcm_peekratio(&ratio), 0);
    EXPECT_EQ(ratio, 5);
    // Only the cluster segment exists now.
    r = run("");
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.lines.size(), 2u);
    EXPECT_EQ(r.lines[0], "shared memory " + shm.prefix() + ", ratio 5");
    EXPECT_EQ(cells(r.lines[1]), kHeader);
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
    EXPECT_EQ(cells(r.lines[1]), kHeader);
    // No host publishes these: what only a host knows shows as "-".
    EXPECT_EQ(cells(r.lines[2]), (Cells{"sdw", "sdw1", "-", "4 MONEND", "n.ns", "-", "-", "-", "Normal"}));
    EXPECT_EQ(cells(r.lines[3]), (Cells{"sdw", "sdw2", "-", "3 MONSTART", "n.ns", "-", "-", "-", "-"}));
    EXPECT_EQ(cells(r.lines[4]), (Cells{"sdw", "sdw3", "-", "0 -", "-", "-", "-", "-", "Disk error"}));
}

}  // namespace
