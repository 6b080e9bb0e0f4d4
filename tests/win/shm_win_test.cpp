// shm_win_test.cpp - qmtshmcm.dll and qmtshmrm.dll on Windows, under Wine: named file mappings
// with the Linux layout, read back with the readers' own code; writers in several processes
// serialised by the named mutex; a writer that died holding it recovered from.
//
// The program is also its own child: "shm_win_test --writer PREFIX NAME COUNT" writes COUNT
// resources, "shm_win_test --die-holding PREFIX" takes the writers' mutex, leaves an entry half
// written and exits without letting go.
#include "qmtshm.h"
#include "qmtshm_codes.h"
#include "shm_layout.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace qmtshm;

const Layout kRmLayout{kMagicRm, kRmHeaderSize, sizeof(RmEntry), 0, nullptr};

int writer_main(const char *name, int count)
{
    if (shmrm_attach() != 0)
        return 2;
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        const std::string res = std::string(name) + "_" + std::to_string(i);
        failed += shmrm_setmonprogress("sdw", res.c_str(), QMT_DOMONTR_MONSTART) != 0;
        failed += shmrm_setdescript(nullptr, "sdw", res.c_str(), res.c_str(), 256) != 0;
    }
    return shmrm_detach() == 0 && failed == 0 ? 0 : 3;
}

int die_holding_main()
{
    if (shmrm_attach() != 0 || shmrm_setdescript(nullptr, "sdw", "victim", "before", 256) != 0)
        return 2;
    const std::string name = segment_name("_rm");
    HANDLE lock = CreateMutexA(nullptr, FALSE, (name + "_lock").c_str());
    HANDLE section = OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, name.c_str());
    if (!lock || !section || WaitForSingleObject(lock, 5000) != WAIT_OBJECT_0)
        return 3;
    void *seg = MapViewOfFile(section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0);
    if (!seg)
        return 4;
    // The first entry is the victim's: open its sequence, as a writer in the middle of a write.
    rm_entries(seg)[0].seq.fetch_add(1);
    ExitProcess(0);  // holding the mutex
}

std::vector<RmData> table()
{
    Mapping m;
    EXPECT_EQ(map_existing(segment_name("_rm"), kRmLayout, m), 0);
    RmSnapshot snap;
    if (m.addr) {
        EXPECT_EQ(read_rm(m.addr, m.size, snap), 0);
    }
    EXPECT_EQ(snap.damaged, 0u);
    unmap(m);
    return snap.entries;
}

class WinShm : public ::testing::Test {
protected:
    void SetUp() override
    {
        prefix_ = "qmtshmtest" + std::to_string(GetCurrentProcessId()) + "_" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ASSERT_EQ(_putenv_s("QMT_SHM_NAME", prefix_.c_str()), 0);
    }
    void TearDown() override
    {
        while (shmrm_detach() == 0) {
        }
        while (shmcm_detach() == 0) {
        }
        _putenv_s("QMT_SHM_NAME", "");
    }
    // Runs this program with these arguments after the segment prefix; its exit code, or -1.
    DWORD run_self(const std::string &mode, const std::string &args = "")
    {
        char self[MAX_PATH];
        GetModuleFileNameA(nullptr, self, sizeof self);
        std::string cmd = "\"" + std::string(self) + "\" " + mode + " " + prefix_ + " " + args;
        STARTUPINFOA si {};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi {};
        if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
            return static_cast<DWORD>(-1);
        CloseHandle(pi.hThread);
        procs_.push_back(pi.hProcess);
        return 0;
    }
    // Waits for every child started; true when all exited with 0.
    bool wait_children()
    {
        bool ok = WaitForMultipleObjects(static_cast<DWORD>(procs_.size()), procs_.data(), TRUE, 60000) ==
                  WAIT_OBJECT_0;
        for (HANDLE p : procs_) {
            DWORD code = 1;
            ok = GetExitCodeProcess(p, &code) && code == 0 && ok;
            CloseHandle(p);
        }
        procs_.clear();
        return ok;
    }

    std::string prefix_;
    std::vector<HANDLE> procs_;
};

TEST_F(WinShm, SegmentsHaveTheLinuxLayoutKeepEntriesByTypeAndNameAndGoWithTheLastDetach)
{
    static_assert(kRmHeaderSize == 128 && sizeof(RmEntry) == 400 && sizeof(CmSegment) == 48, "the Linux layout");
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_attach(), 0);
    int ratio = 0;
    unsigned char extra[16];
    std::memset(extra, 0xff, sizeof extra);
    ASSERT_EQ(shmcm_getratio(&ratio, extra), 0);
    EXPECT_EQ(ratio, 1);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(extra), 16), std::string(16, '\0'));  // generation 0, never set
    Mapping m;
    ASSERT_EQ(map_existing(segment_name("_rm"), kRmLayout, m), 0);
    EXPECT_EQ(static_cast<const Header *>(m.addr)->capacity, kRmDefaultEntries);
    EXPECT_EQ(m.size, rm_segment_size(kRmDefaultEntries));
    unmap(m);
    EXPECT_TRUE(table().empty());

    ASSERT_EQ(shmrm_setmonprogress("sdw", "sdw1", QMT_DOMONTR_MONSTART), 0);
    ASSERT_EQ(shmrm_setmonprogress("sdw", "sdw1", QMT_DOMONTR_MONEND), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "sdw1", "Normal", 256), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "disknp", "sdw1", "Disk check failed", 4), 0);
    EXPECT_EQ(shmrm_setdescript(nullptr, "sdw", "", "x", 1), QMTSHM_E_INVALID_PARAMETER);
    std::vector<RmData> t = table();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_STREQ(t[0].type, "sdw");
    EXPECT_STREQ(t[0].name, "sdw1");
    EXPECT_EQ(t[0].progress, QMT_DOMONTR_MONEND);
    EXPECT_STREQ(t[0].descript, "Normal");
    EXPECT_EQ(t[0].descript_len, 6);
    EXPECT_EQ(t[0].writer_pid, static_cast<int32_t>(GetCurrentProcessId()));
    EXPECT_TRUE(process_alive(t[0].writer_pid, t[0].writer_start));
    EXPECT_STREQ(t[1].type, "disknp");
    EXPECT_STREQ(t[1].descript, "Disk");

    EXPECT_EQ(shmrm_detach(), 0);
    EXPECT_EQ(shmrm_detach(), 0);
    EXPECT_EQ(shmrm_detach(), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmcm_detach(), 0);
    EXPECT_EQ(shmcm_detach(), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmcm_getratio(&ratio, nullptr), QMTSHM_E_NOT_ATTACHED);
    // A mapping lives as long as a process holds it: the last detach of the node removes it.
    EXPECT_FALSE(segment_exists(segment_name("_rm")));
    EXPECT_FALSE(segment_exists(segment_name("_cm")));
}

TEST_F(WinShm, WritersInSeveralProcessesLoseNothing)
{
    constexpr int kPerWriter = 100;
    ASSERT_EQ(shmrm_attach(), 0);  // keeps the mapping for the children and after them
    for (const char *name : {"a", "b", "c"})
        ASSERT_EQ(run_self("--writer", std::string(name) + " " + std::to_string(kPerWriter)), 0u);
    EXPECT_EQ(writer_main("p", kPerWriter), 0);
    ASSERT_EQ(shmrm_attach(), 0);  // writer_main detached once
    ASSERT_TRUE(wait_children());
    std::map<std::string, std::string> seen;
    for (const RmData &d : table()) {
        EXPECT_EQ(d.progress, QMT_DOMONTR_MONSTART) << d.name;
        seen[d.name] = d.descript;
    }
    ASSERT_EQ(seen.size(), 4u * kPerWriter);
    for (const auto &[name, text] : seen)
        EXPECT_EQ(text, name);
}

TEST_F(WinShm, AWriterThatDiedHoldingTheLockIsRecoveredFrom)
{
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(run_self("--die-holding"), 0u);
    ASSERT_TRUE(wait_children());
    // The next writer is told the mutex was abandoned, closes the half-written entry (readable
    // again, with what it held) and writes.
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "other", "after", 256), 0);
    std::map<std::string, std::string> seen;
    for (const RmData &d : table())
        seen[d.name] = d.descript;
    EXPECT_EQ(seen, (std::map<std::string, std::string>{{"other", "after"}, {"victim", "before"}}));
    EXPECT_EQ(shmrm_setdescript(nullptr, "sdw", "victim", "again", 256), 0);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc >= 3 && (std::string(argv[1]) == "--writer" || std::string(argv[1]) == "--die-holding")) {
        _putenv_s("QMT_SHM_NAME", argv[2]);
        if (std::string(argv[1]) == "--die-holding")
            return die_holding_main();
        return argc == 5 ? writer_main(argv[3], std::atoi(argv[4])) : 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
