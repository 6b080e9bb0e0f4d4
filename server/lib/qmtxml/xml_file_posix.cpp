// xml_file_posix.cpp - configuration files on POSIX.
#include "xml_file.h"

#include "qmtxml_codes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qmtxml {

static FileId file_id(const struct stat &st)
{
    return {static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino), static_cast<int64_t>(st.st_size),
            static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec};
}

ReadResult read_file(const std::string &path, std::string &text, FileId &id, std::string &why)
{
    // The open does not wait for a FIFO's writer.
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        why = std::strerror(errno);
        return ReadResult::open_failed;
    }
    struct stat st {};
    const char *bad = nullptr;
    if (::fstat(fd, &st) != 0)
        bad = std::strerror(errno);
    else if (!S_ISREG(st.st_mode))
        bad = "not a regular file";
    else if (st.st_size > XMLLIB_MAX_FILE_SIZE)
        bad = "larger than " XMLLIB_MAX_FILE_SIZE_TEXT;
    while (!bad) {
        char chunk[65536];
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            bad = std::strerror(errno);
        else if (n == 0)
            break;
        else if (text.size() + static_cast<size_t>(n) > size_t{XMLLIB_MAX_FILE_SIZE})
            bad = "larger than " XMLLIB_MAX_FILE_SIZE_TEXT;  // it grew while being read
        else
            text.append(chunk, static_cast<size_t>(n));
    }
    ::close(fd);
    if (bad) {
        why = bad;
        return ReadResult::read_failed;
    }
    id = file_id(st);
    return ReadResult::ok;
}

bool stat_file(const std::string &path, FileId &id, std::string &why)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        why = std::strerror(errno);
        return false;
    }
    id = file_id(st);
    return true;
}

std::string default_conf_dir()
{
    return "/etc/qmt";
}

}  // namespace qmtxml
