// The shared memories against what another local user, a damaged segment or a stuck writer can
// do: modes, owner checks, bounds, bounded waits. The other-user cases run as
// `nobody` and need root; they are skipped otherwise.
#include "shm_fixture.h"

#include <gtest/gtest.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace clustertest;

namespace {

constexpr uid_t kNobody = 65534;

// Runs `body` in a child process as `uid` and returns its exit code (100: could not become `uid`).
int as_user(uid_t uid, const std::function<int()> &body)
{
    return in_child([&] {
        bool become = setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 && setresuid(uid, uid, uid) == 0;
        return become ? body() : 100;
    });
}

mode_t file_mode(const std::string &segment, gid_t *gid = nullptr)
{
    struct stat st {};
    if (lstat(("/dev/shm" + segment).c_str(), &st) != 0)
        return 0;
    if (gid)
        *gid = st.st_gid;
    return st.st_mode & 07777;
}

class ShmGuard : public ::testing::Test {
protected:
    void TearDown() override
    {
        umask(old_umask_);
        unsetenv("QMT_SHM_GROUP");
    }
    bool root() const { return geteuid() == 0; }
    ShmPrefix shm{"guard"};
    mode_t old_umask_ = umask(0);  // the widest umask: the modes must not depend on it
};

TEST_F(ShmGuard, SegmentsAreOnlyTheirOwnersEvenUnderAWideUmask)
{
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(file_mode(shm.cm()), 0600);
    EXPECT_EQ(file_mode(shm.rm()), 0600);
    if (!root())
        GTEST_SKIP() << "the other-user half needs root";
    // Another user can neither open them for writing nor read them.
    std::string rm = shm.rm();
    EXPECT_EQ(as_user(kNobody, [&] { return shm_open(rm.c_str(), O_RDWR, 0) < 0 && errno == EACCES ? 0 : 1; }), 0);
    EXPECT_EQ(as_user(kNobody, [&] { return shm_open(rm.c_str(), O_RDONLY, 0) < 0 && errno == EACCES ? 0 : 1; }), 0);
}

TEST_F(ShmGuard, AReaderGroupGetsReadRightOnly)
{
    struct group *g = getgrnam("nogroup");
    if (!g)
        GTEST_SKIP() << "no group nogroup";
    if (!root())
        GTEST_SKIP() << "giving a segment to another group needs root";
    setenv("QMT_SHM_GROUP", "nogroup", 1);
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "Normal", 256), 0);
    gid_t gid = 0;
    EXPECT_EQ(file_mode(shm.rm(), &gid), 0640);
    EXPECT_EQ(gid, g->gr_gid);
    gid_t reader_gid = g->gr_gid;
    // A member of the group reads the table and cannot write it.
    int rc = in_child([&] {
        while (shmrm_detach() == 0) {  // the attachment inherited from the parent
        }
        if (setgroups(1, &reader_gid) != 0 || setresgid(reader_gid, reader_gid, reader_gid) != 0 ||
            setresuid(kNobody, kNobody, kNobody) != 0)
            return 100;
        QmtShmRmEntry e[2];
        int count = 0;
        if (shmrm_list(e, 2, &count) != 0 || count != 1 || std::strcmp(e[0].descript, "Normal") != 0)
            return 1;
        return shmrm_attach() == QMTSHM_E_NOT_OWNER ? 0 : 2;
    });
    EXPECT_EQ(rc, 0);
    setenv("QMT_SHM_GROUP", "no-such-group-here", 1);
    while (shmrm_detach() == 0) {
    }
    shm_unlink(shm.rm().c_str());
    EXPECT_EQ(shmrm_attach(), QMTSHM_E_INVALID_PARAMETER);
}

TEST_F(ShmGuard, ASegmentMadeByAnotherUserIsRefused)
{
    if (!root())
        GTEST_SKIP() << "needs root to act as another user";
    // `nobody` gets there first, with a header that claims 100000 entries and a held mutex word.
    std::string cm = shm.cm(), rm = shm.rm();
    int made = as_user(kNobody, [&] {
        for (const std::string &name : {cm, rm}) {
            int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
            if (fd < 0 || fchmod(fd, 0666) != 0 || ftruncate(fd, 1 << 20) != 0)
                return 1;
            void *a = mmap(nullptr, 1 << 20, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (a == MAP_FAILED)
                return 2;
            std::memset(a, 0xff, 1 << 20);
            auto *h = static_cast<qmtshm::Header *>(a);
            h->state.store(qmtshm::kReady);
            h->magic = name == cm ? qmtshm::kMagicCm : qmtshm::kMagicRm;
            h->version = qmtshm::kVersion;
            h->capacity = 100000;
        }
        return 0;
    });
    ASSERT_EQ(made, 0);
    EXPECT_EQ(shmcm_attach(), QMTSHM_E_NOT_OWNER);
    EXPECT_EQ(shmrm_attach(), QMTSHM_E_NOT_OWNER);
    int ratio = 0, count = 0;
    EXPECT_EQ(shmcm_peekratio(&ratio), QMTSHM_E_NOT_OWNER);
    EXPECT_EQ(shmrm_list(nullptr, 0, &count), QMTSHM_E_NOT_OWNER);
    // Ours by owner but open to others counts the same.
    shm_unlink(cm.c_str());
    int fd = shm_open(cm.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fchmod(fd, 0620), 0);
    close(fd);
    EXPECT_EQ(shmcm_attach(), QMTSHM_E_NOT_OWNER);
}

TEST_F(ShmGuard, ASymlinkIsNotFollowed)
{
    TempDir dir;
    std::string target = dir.path() + "/victim";
    write_file(target, "untouched");
    ASSERT_EQ(symlink(target.c_str(), ("/dev/shm" + shm.rm()).c_str()), 0);
    EXPECT_EQ(shmrm_attach(), QMTSHM_E_NOT_OWNER);
    int count = 0;
    EXPECT_EQ(shmrm_list(nullptr, 0, &count), QMTSHM_E_NOT_OWNER);
    struct stat st {};
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 9);
}

TEST_F(ShmGuard, ADamagedHeaderIsRefusedByWritersAndReaders)
{
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "Normal", 256), 0);
    ASSERT_EQ(shmrm_detach(), 0);
    size_t size = 0;
    void *a = map_segment(shm.rm(), &size);
    ASSERT_NE(a, nullptr);
    auto *h = static_cast<qmtshm::Header *>(a);
    struct Case {
        const char *what;
        std::function<void()> damage;
    } cases[] = {
        {"capacity 100000", [h] { h->capacity = 100000; }},
        {"capacity 0", [h] { h->capacity = 0; }},
        {"size beyond the file", [h] { h->size = uint64_t{1} << 40; }},
        {"entry size", [h] { h->entry_size = 8; }},
        {"version", [h] { h->version = 99; }},
        {"magic", [h] { h->magic = qmtshm::kMagicCm; }},
    };
    std::vector<unsigned char> good(static_cast<unsigned char *>(a), static_cast<unsigned char *>(a) + 64);
    for (auto &c : cases) {
        std::memcpy(a, good.data(), good.size());
        c.damage();
        int count = 0;
        EXPECT_EQ(shmrm_attach(), QMTSHM_E_BAD_SEGMENT) << c.what;
        EXPECT_EQ(shmrm_list(nullptr, 0, &count), QMTSHM_E_BAD_SEGMENT) << c.what;
    }
    std::memcpy(a, good.data(), good.size());
    munmap(a, size);
    EXPECT_EQ(shmrm_attach(), 0);
}

TEST_F(ShmGuard, DamagedEntriesAreReportedWithoutHidingTheOthers)
{
    ASSERT_EQ(shmrm_attach(), 0);
    for (const char *n : {"r0", "r1", "r2", "r3"})
        ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", n, "Normal", 256), 0);
    size_t size = 0;
    void *a = map_segment(shm.rm(), &size);
    ASSERT_NE(a, nullptr);
    qmtshm::RmEntry *e = qmtshm::rm_entries(a);
    e[1].seq.fetch_add(1);  // a write that never ended
    auto patch = [&](int i, size_t offset, const void *bytes, size_t n) {
        uint64_t words[qmtshm::kRmWords];
        for (size_t w = 0; w < qmtshm::kRmWords; ++w)
            words[w] = e[i].words[w].load();
        std::memcpy(reinterpret_cast<char *>(words) + offset, bytes, n);
        for (size_t w = 0; w < qmtshm::kRmWords; ++w)
            e[i].words[w].store(words[w]);
    };
    int32_t huge = 100000;
    patch(2, offsetof(qmtshm::RmData, descript_len), &huge, sizeof huge);
    std::string unterminated(qmtshm::kNameLen, 'x');
    patch(3, offsetof(qmtshm::RmData, name), unterminated.data(), unterminated.size());
    QmtShmRmEntry v[8];
    int count = 0;
    EXPECT_EQ(shmrm_list(v, 8, &count), QMTSHM_E_DAMAGED);
    ASSERT_EQ(count, 1);
    EXPECT_STREQ(v[0].name, "r0");
    QmtShmRmInfo info{};
    ASSERT_EQ(shmrm_info(&info), 0);
    EXPECT_EQ(info.used, 1);
    EXPECT_EQ(info.damaged, 3);
    munmap(a, size);
}

TEST_F(ShmGuard, AWriterGivesUpOnATableHeldTooLong)
{
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "Normal", 256), 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    std::string rm = shm.rm();
    pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        size_t size = 0;
        void *a = map_segment(rm, &size);
        if (!a || pthread_mutex_lock(&static_cast<qmtshm::RmHeader *>(a)->mutex) != 0)
            _exit(1);
        (void)!write(ready[1], "x", 1);
        alarm(20);
        pause();
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    auto t0 = std::chrono::steady_clock::now();
    int rc = shmrm_setdescript(nullptr, "sdw", "r1", "Late", 256);
    double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
    EXPECT_EQ(rc, QMTSHM_E_TIMEOUT);
    EXPECT_LT(waited, 10.0);
    // The holder is gone: the table is usable again.
    EXPECT_EQ(shmrm_setdescript(nullptr, "sdw", "r1", "Again", 256), 0);
}

}  // namespace
