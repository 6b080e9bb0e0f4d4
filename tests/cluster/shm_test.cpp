// The cluster and resource shared memories within one process.
#include "shm_fixture.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

using namespace clustertest;

namespace {

long long now_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::vector<QmtShmRmEntry> list_all()
{
    std::vector<QmtShmRmEntry> v(300);
    int count = -1;
    int r = shmrm_list(v.data(), static_cast<int>(v.size()), &count);
    v.resize(r == 0 ? static_cast<size_t>(count) : 0);
    return v;
}

class ClusterShm : public ::testing::Test {
protected:
    ShmPrefix shm{"cm"};
};

TEST_F(ClusterShm, AttachIsCountedPerProcessAndTheSegmentOutlivesIt)
{
    int ratio = 7;
    EXPECT_EQ(shmcm_detach(), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmcm_getratio(&ratio, nullptr), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmcm_peekratio(&ratio), QMTSHM_E_NOT_FOUND);
    EXPECT_EQ(ratio, 7);
    EXPECT_EQ(shmcm_exists(), 0);  // nothing was created
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(shmcm_attach(), 0);
    EXPECT_EQ(shmcm_exists(), 1);
    unsigned char extra[16];
    std::memset(extra, 0xAA, sizeof extra);
    ASSERT_EQ(shmcm_getratio(&ratio, extra), 0);
    EXPECT_EQ(ratio, 1);
    EXPECT_EQ(std::vector<unsigned char>(extra, extra + 16), std::vector<unsigned char>(16, 0));  // never set
    ASSERT_EQ(shmcm_detach(), 0);
    EXPECT_EQ(shmcm_getratio(&ratio, nullptr), 0);
    ASSERT_EQ(shmcm_detach(), 0);
    EXPECT_EQ(shmcm_getratio(&ratio, nullptr), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmcm_detach(), QMTSHM_E_NOT_ATTACHED);
    // The segment outlives the attachment so that readers can still look.
    EXPECT_EQ(shmcm_exists(), 1);
    ratio = 0;
    EXPECT_EQ(shmcm_peekratio(&ratio), 0);
    EXPECT_EQ(ratio, 1);
}

TEST_F(ClusterShm, SetRatioAdvancesTheGeneration)
{
    long long before = now_ms();
    ASSERT_EQ(shmcm_setratio(3), 0);  // attaches for the call
    int peek = 0;
    ASSERT_EQ(shmcm_peekratio(&peek), 0);
    EXPECT_EQ(peek, 3);
    EXPECT_EQ(shmcm_detach(), QMTSHM_E_NOT_ATTACHED);  // and detached again

    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(shmcm_setratio(5), 0);
    int ratio = 0;
    unsigned char extra[16];
    ASSERT_EQ(shmcm_getratio(&ratio, extra), 0);
    uint64_t gen = 0;
    int64_t when = 0;
    std::memcpy(&gen, extra, 8);
    std::memcpy(&when, extra + 8, 8);
    EXPECT_EQ(ratio, 5);
    EXPECT_EQ(gen, 2u);
    EXPECT_GE(when, before);
    EXPECT_LE(when, now_ms() + 1);
    EXPECT_EQ(shmcm_getratio(nullptr, extra), QMTSHM_E_INVALID_PARAMETER);
    ASSERT_EQ(shmcm_detach(), 0);
}

class ResourceShm : public ::testing::Test {
protected:
    ShmPrefix shm{"rm"};
};

TEST_F(ResourceShm, WritesWithoutAttachFailAndCreateNothing)
{
    EXPECT_EQ(shmrm_detach(), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmrm_setmonprogress("sdw", "r1", QMT_DOMONTR_MONSTART), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "Normal", 256), QMTSHM_E_NOT_ATTACHED);
    EXPECT_EQ(shmrm_exists(), 0);
    int count = -1;
    EXPECT_EQ(shmrm_list(nullptr, 0, &count), QMTSHM_E_NOT_FOUND);
    EXPECT_EQ(count, -1);
}

TEST_F(ResourceShm, EntriesAreKeyedByTypeAndName)
{
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(shmrm_exists(), 1);
    long long before = now_ms();
    char text[256] = "Normal";
    ASSERT_EQ(shmrm_setmonprogress("sdw", "r1", QMT_DOMONTR_MONSTART), 0);
    ASSERT_EQ(shmrm_setmonprogress("sdw", "r1", QMT_DOMONTR_MONEND), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", text, 256), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "r2", "Error", 256), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "disknp", "r1", "Other", 256), 0);

    std::vector<QmtShmRmEntry> v = list_all();
    ASSERT_EQ(v.size(), 3u);
    EXPECT_STREQ(v[0].type, "sdw");
    EXPECT_STREQ(v[0].name, "r1");
    EXPECT_EQ(v[0].progress, QMT_DOMONTR_MONEND);
    EXPECT_STREQ(v[0].descript, "Normal");
    EXPECT_EQ(v[0].descript_len, 6);
    EXPECT_EQ(v[0].writer_pid, getpid());
    EXPECT_EQ(v[0].stale, 0);
    EXPECT_GE(v[0].progress_time_ms, before);
    EXPECT_LE(v[0].progress_time_ms, v[0].update_time_ms);
    EXPECT_LE(v[0].update_time_ms, now_ms() + 1);
    EXPECT_STREQ(v[1].name, "r2");
    EXPECT_EQ(v[1].progress, 0);
    EXPECT_EQ(v[1].progress_time_ms, 0);
    EXPECT_EQ(v[1].progress_tick, 0u);
    EXPECT_STREQ(v[1].descript, "Error");
    EXPECT_STREQ(v[2].type, "disknp");
    EXPECT_STREQ(v[2].descript, "Other");
    // Readers see the table without attaching; attaching again finds the same table.
    ASSERT_EQ(shmrm_detach(), 0);
    EXPECT_EQ(list_all().size(), 3u);
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "Again", 256), 0);
    EXPECT_STREQ(list_all()[0].descript, "Again");
}

TEST_F(ResourceShm, DescriptionsAreBoundedByLengthAndSlot)
{
    ASSERT_EQ(shmrm_attach(), 0);
    std::string longtext(300, 'd');
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "a", longtext.c_str(), 300), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "b", "abcdef", 3), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "c", "abc", 0), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "d", nullptr, 0), 0);
    EXPECT_EQ(shmrm_setdescript(nullptr, "sdw", "e", "x", -1), QMTSHM_E_INVALID_PARAMETER);
    EXPECT_EQ(shmrm_setdescript(nullptr, "sdw", "e", nullptr, 5), QMTSHM_E_INVALID_PARAMETER);
    std::vector<QmtShmRmEntry> v = list_all();
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(std::string(v[0].descript), std::string(255, 'd'));
    EXPECT_EQ(v[0].descript_len, 255);
    EXPECT_STREQ(v[1].descript, "abc");
    EXPECT_EQ(v[1].descript_len, 3);
    EXPECT_STREQ(v[2].descript, "");
    EXPECT_EQ(v[2].descript_len, 0);
    EXPECT_EQ(v[3].descript_len, 0);
    // A shorter text replaces a longer one completely.
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "a", "short", 256), 0);
    EXPECT_STREQ(list_all()[0].descript, "short");
}

TEST_F(ResourceShm, TypesAndNamesMustFitTheirFields)
{
    ASSERT_EQ(shmrm_attach(), 0);
    std::string t31(31, 't'), t32(32, 't'), n63(63, 'n'), n64(64, 'n');
    EXPECT_EQ(shmrm_setmonprogress(t31.c_str(), n63.c_str(), 3), 0);
    EXPECT_EQ(shmrm_setmonprogress(t32.c_str(), "r", 3), QMTSHM_E_INVALID_PARAMETER);
    EXPECT_EQ(shmrm_setmonprogress("sdw", n64.c_str(), 3), QMTSHM_E_INVALID_PARAMETER);
    EXPECT_EQ(shmrm_setmonprogress(nullptr, "r", 3), QMTSHM_E_INVALID_PARAMETER);
    EXPECT_EQ(shmrm_setmonprogress("sdw", "", 3), QMTSHM_E_INVALID_PARAMETER);
    std::vector<QmtShmRmEntry> v = list_all();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(std::string(v[0].type), t31);
    EXPECT_EQ(std::string(v[0].name), n63);
}

TEST_F(ResourceShm, TableHolds4096ResourcesAndReclaimsThoseOfGoneWriters)
{
    ASSERT_EQ(shmrm_attach(), 0);
    QmtShmRmInfo info{};
    ASSERT_EQ(shmrm_info(&info), 0);
    ASSERT_GE(info.capacity, 4096);
    // Another process fills the table and ends; its resources are gone, their entries stay
    // readable (stale) until a new resource needs the room.
    int capacity = info.capacity;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        bool ok = shmrm_attach() == 0;
        for (int i = 0; ok && i < capacity; ++i)
            ok = shmrm_setmonprogress("sdw", ("old" + std::to_string(i)).c_str(), 3) == 0;
        ok = ok && shmrm_setmonprogress("sdw", "one-too-many", 3) == QMTSHM_E_TABLE_FULL;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::vector<QmtShmRmEntry> v(static_cast<size_t>(capacity));
    int count = 0;
    ASSERT_EQ(shmrm_list(v.data(), capacity, &count), 0);
    ASSERT_EQ(count, capacity);
    EXPECT_EQ(v[0].writer_pid, pid);
    EXPECT_EQ(v[0].stale, 1);
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(shmrm_setmonprogress("sdw", ("new" + std::to_string(i)).c_str(), 4), 0) << i;
    ASSERT_EQ(shmrm_list(v.data(), capacity, &count), 0);
    EXPECT_EQ(count, capacity);
    EXPECT_STREQ(v[0].name, "new0");
    EXPECT_EQ(v[0].writer_pid, getpid());
    EXPECT_EQ(v[0].stale, 0);
}

TEST_F(ResourceShm, ListReportsTheTotalWhenRoomIsShort)
{
    ASSERT_EQ(shmrm_attach(), 0);
    for (const char *n : {"a", "b", "c"})
        ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", n, n, 256), 0);
    QmtShmRmEntry out[2];
    int count = 0;
    EXPECT_EQ(shmrm_list(out, 2, &count), QMTSHM_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(count, 3);
    EXPECT_STREQ(out[1].name, "b");
    EXPECT_EQ(shmrm_list(nullptr, 0, &count), QMTSHM_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(shmrm_list(out, -1, &count), QMTSHM_E_INVALID_PARAMETER);
    EXPECT_EQ(shmrm_list(out, 2, nullptr), QMTSHM_E_INVALID_PARAMETER);
}

}  // namespace
