// qmtrm_board_posix.cpp - the status board's segment on POSIX: a shared-memory object of mode 0600,
// held with an flock for its writer's life (the kernel drops it when the writer dies), and the
// processes as /proc names them.
#include "qmtrm_board.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qmtrm {

ProcessId process_id(int pid)
{
    ProcessId me;
    me.pid = pid > 0 ? pid : static_cast<int>(getpid());
    std::ifstream stat("/proc/" + std::to_string(me.pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // Field 22 is the start time; the command name (field 2) may hold blanks, so count from its ')'.
    size_t paren = text.rfind(')');
    if (paren != std::string::npos) {
        std::istringstream rest(text.substr(paren + 1));
        std::string field;
        for (int i = 3; i <= 22 && rest >> field; ++i)
            if (i == 22)
                me.start = std::strtoull(field.c_str(), nullptr, 10);
    }
    return me;
}

bool process_alive(const ProcessId &process)
{
    if (process.pid <= 0)
        return false;
    std::ifstream stat("/proc/" + std::to_string(process.pid) + "/stat");
    if (!stat)
        return false;
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    if (paren == std::string::npos)
        return false;
    std::istringstream rest(text.substr(paren + 1));
    std::string field;
    for (int i = 3; i <= 22 && rest >> field; ++i) {
        if (i == 3 && field == "Z")
            return false;  // a zombie has left for good
        if (i == 22)
            return std::strtoull(field.c_str(), nullptr, 10) == process.start;
    }
    return false;
}

std::string user_tag() { return std::to_string(geteuid()); }

SegmentOpen create_segment(const std::string &name, size_t size, Segment *out, std::string *why)
{
    // Made anew with O_EXCL; an existing one is taken over only when it is ours and its holder is
    // gone. The holder keeps an flock on it for its life, which the kernel drops when it dies.
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 && errno == EEXIST)
        fd = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
        *why = "cannot open the shared memory " + name + ": " + std::strerror(errno);
        return SegmentOpen::Failed;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || st.st_uid != geteuid()) {
        *why = "the shared memory " + name + " belongs to user " + std::to_string(st.st_uid) + ", not to us";
        close(fd);
        return SegmentOpen::Failed;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        return SegmentOpen::InUse;
    }
    if (fchmod(fd, 0600) != 0 || ftruncate(fd, 0) != 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        *why = "cannot size the shared memory " + name + ": " + std::strerror(errno);
        close(fd);
        return SegmentOpen::Failed;
    }
    void *map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        *why = "cannot map the shared memory " + name + ": " + std::strerror(errno);
        close(fd);
        return SegmentOpen::Failed;
    }
    out->name = name;
    out->map = map;
    out->size = size;
    out->handles[0] = fd;
    return SegmentOpen::Ok;
}

void remove_segment(Segment *segment)
{
    munmap(segment->map, segment->size);
    shm_unlink(segment->name.c_str());
    close(static_cast<int>(segment->handles[0]));
    *segment = Segment{};
}

// Read without mapping: a segment that shrinks under the reader cannot hurt it.
int read_segment(const std::string &name, size_t limit, std::string *bytes, std::string *why)
{
    bytes->clear();
    int fd = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        *why = "not a shared-memory segment";
        return EINVAL;
    }
    bytes->resize(limit);
    size_t done = 0;
    while (done < limit) {
        ssize_t n = pread(fd, bytes->data() + done, limit - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    bytes->resize(done);
    close(fd);
    return 0;
}

} // namespace qmtrm
