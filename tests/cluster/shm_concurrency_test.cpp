// The resource shared memory under concurrent writers and readers: other processes and threads.
#include "shm_fixture.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace clustertest;

namespace {

constexpr int kWrites = 20000;

// The counter twice, far apart, so a torn copy shows as two different numbers.
std::string encode(int n)
{
    char head[16];
    std::snprintf(head, sizeof head, "%08d", n);
    return std::string(head) + ":" + std::string(200, static_cast<char>('a' + n % 26)) + ":" + head;
}

// Checks one entry; returns the counter or -1 if torn.
int decode(const QmtShmRmEntry &e)
{
    std::string d(e.descript);
    if (static_cast<int>(d.size()) != e.descript_len || d.size() != 8 + 1 + 200 + 1 + 8)
        return -1;
    if (d.compare(0, 8, d, d.size() - 8, 8) != 0)
        return -1;
    int n = std::stoi(d.substr(0, 8));
    if (d.find_first_not_of(static_cast<char>('a' + n % 26), 9) != 209)
        return -1;
    return n;
}

// Writes kWrites descriptions for `name`; the caller is attached.
bool write_many(const char *name)
{
    for (int i = 1; i <= kWrites; ++i) {
        std::string t = encode(i);
        if (shmrm_setdescript(nullptr, "sdw", name, t.c_str(), static_cast<int>(t.size())) != 0)
            return false;
    }
    return true;
}

struct ReadStats {
    long checks = 0;
    long torn = 0;
    long backwards = 0;
};

// Reads every entry once; counters of one name never go back.
void read_once(ReadStats &st, std::vector<int> &last)
{
    QmtShmRmEntry v[8];
    int count = 0;
    if (shmrm_list(v, 8, &count) != 0)
        return;
    for (int i = 0; i < count && i < 8; ++i) {
        if (v[i].descript_len == 0)
            continue;  // made, not yet described
        int n = decode(v[i]);
        ++st.checks;
        if (n < 0) {
            ++st.torn;
            continue;
        }
        if (n < last[static_cast<size_t>(i)])
            ++st.backwards;
        last[static_cast<size_t>(i)] = n;
    }
}

// A writer in another process; its alarm ends it should it hang.
pid_t spawn_writer(const char *name)
{
    pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        bool ok = shmrm_attach() == 0 && write_many(name) && shmrm_detach() == 0;
        _exit(ok ? 0 : 1);
    }
    return pid;
}

class ResourceShmConcurrency : public ::testing::Test {
protected:
    ShmPrefix shm{"rmc"};
};

// A writer in another process and one on a thread, read meanwhile by two threads: no reader sees
// a torn entry or a counter going back, and each writer ends with its last description.
TEST_F(ResourceShmConcurrency, ReadersNeverSeeATornEntry)
{
    ASSERT_EQ(shmrm_attach(), 0);
    pid_t other = spawn_writer("r1");  // before any thread of ours starts
    ASSERT_GT(other, 0);
    std::atomic<bool> done{false};
    std::atomic<long> bad{0}, checks{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            ReadStats st;
            std::vector<int> last(8, 0);
            while (!done.load())
                read_once(st, last);
            bad += st.torn + st.backwards;
            checks += st.checks;
        });
    }
    const bool wrote = write_many("r2");
    int status = 0;
    const bool reaped = waitpid(other, &status, 0) == other;
    done = true;
    for (auto &t : readers)
        t.join();
    EXPECT_TRUE(wrote);
    ASSERT_TRUE(reaped);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(checks.load(), 0);
    QmtShmRmEntry v[4];
    int count = 0;
    ASSERT_EQ(shmrm_list(v, 4, &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(decode(v[0]), kWrites);
    EXPECT_EQ(decode(v[1]), kWrites);
}

TEST_F(ResourceShmConcurrency, WriterThatDiedHoldingTheLockIsRecoveredFrom)
{
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "before", 256), 0);
    std::string rm = shm.rm();
    EXPECT_EQ(in_child([&] {
        // Dies in the middle of a write: lock taken, entry's sequence left odd.
        size_t size = 0;
        void *a = map_segment(rm, &size);
        if (!a || pthread_mutex_lock(&static_cast<qmtshm::RmHeader *>(a)->mutex) != 0)
            return 2;
        qmtshm::rm_entries(a)[0].seq.fetch_add(1);
        return 0;
    }, 10), 0);
    EXPECT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "after", 256), 0);
    EXPECT_EQ(shmrm_setmonprogress("sdw", "r2", QMT_DOMONTR_MONSTART), 0);
    QmtShmRmEntry v[4];
    int count = 0;
    ASSERT_EQ(shmrm_list(v, 4, &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_STREQ(v[0].descript, "after");
    EXPECT_EQ(v[1].progress, QMT_DOMONTR_MONSTART);
}

}  // namespace
