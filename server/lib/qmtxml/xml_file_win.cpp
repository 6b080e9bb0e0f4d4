// xml_file_win.cpp - configuration files on Windows.
#include "xml_file.h"

#include "qmtxml_codes.h"

#include <windows.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace qmtxml {

// The texts of the common failures are the C library's, as on POSIX, so that the messages read
// the same on every system; the others are the system's own.
static std::string error_text(DWORD err)
{
    switch (err) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
        return std::strerror(ENOENT);
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
        return std::strerror(EACCES);
    default:
        break;
    }
    char buf[256] = {};
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, err, 0, buf,
                             sizeof buf, nullptr);
    while (n > 0 && (buf[n - 1] == '\n' || buf[n - 1] == '\r' || buf[n - 1] == ' ' || buf[n - 1] == '.'))
        buf[--n] = '\0';
    return n > 0 ? std::string(buf, n) : "error " + std::to_string(err);
}

static FileId file_id(const BY_HANDLE_FILE_INFORMATION &fi)
{
    return {fi.dwVolumeSerialNumber, (uint64_t{fi.nFileIndexHigh} << 32) | fi.nFileIndexLow,
            static_cast<int64_t>((uint64_t{fi.nFileSizeHigh} << 32) | fi.nFileSizeLow),
            static_cast<int64_t>((uint64_t{fi.ftLastWriteTime.dwHighDateTime} << 32) |
                                 fi.ftLastWriteTime.dwLowDateTime)};
}

// Opened for reading while others may still write, rename or delete it: an operator editing
// the configuration must never be locked out by a running node.
static HANDLE open_shared(const std::string &path)
{
    return CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

ReadResult read_file(const std::string &path, std::string &text, FileId &id, std::string &why)
{
    HANDLE h = open_shared(path);
    if (h == INVALID_HANDLE_VALUE) {
        why = error_text(GetLastError());
        return ReadResult::open_failed;
    }
    BY_HANDLE_FILE_INFORMATION fi {};
    if (!GetFileInformationByHandle(h, &fi))
        why = error_text(GetLastError());
    else if (GetFileType(h) != FILE_TYPE_DISK || (fi.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        why = "not a regular file";
    else if (fi.nFileSizeHigh != 0 || fi.nFileSizeLow > XMLLIB_MAX_FILE_SIZE)
        why = "larger than " XMLLIB_MAX_FILE_SIZE_TEXT;
    while (why.empty()) {
        char chunk[65536];
        DWORD n = 0;
        if (!ReadFile(h, chunk, sizeof chunk, &n, nullptr))
            why = error_text(GetLastError());
        else if (n == 0)
            break;
        else if (text.size() + n > size_t{XMLLIB_MAX_FILE_SIZE})
            why = "larger than " XMLLIB_MAX_FILE_SIZE_TEXT;  // it grew while being read
        else
            text.append(chunk, n);
    }
    CloseHandle(h);
    if (!why.empty())
        return ReadResult::read_failed;
    id = file_id(fi);
    return ReadResult::ok;
}

bool stat_file(const std::string &path, FileId &id, std::string &why)
{
    HANDLE h = open_shared(path);
    BY_HANDLE_FILE_INFORMATION fi {};
    bool ok = h != INVALID_HANDLE_VALUE && GetFileInformationByHandle(h, &fi);
    if (!ok)
        why = error_text(GetLastError());
    if (h != INVALID_HANDLE_VALUE)
        CloseHandle(h);
    if (ok)
        id = file_id(fi);
    return ok;
}

std::string default_conf_dir()
{
    const char *data = std::getenv("ProgramData");
    return std::string(data && *data ? data : "C:\\ProgramData") + "\\qmt";
}

}  // namespace qmtxml
