// xml_file.h - what the configuration store asks of the system: reading a configuration file
// whole, and telling whether it changed since.
#pragma once

#include <cstdint>
#include <string>

namespace qmtxml {

// What identifies one version of a file: a reload re-reads only when this changes.
struct FileId {
    uint64_t volume = 0;
    uint64_t file = 0;
    int64_t size = 0;
    int64_t mtime = 0;  // in the system's own unit
    bool operator==(const FileId &) const = default;
};

enum class ReadResult { ok, open_failed, read_failed };

// Reads a regular file of at most XMLLIB_MAX_FILE_SIZE bytes into `text`: a device, a FIFO or a
// file without end would otherwise exhaust memory or block for ever. On failure `why` says why.
ReadResult read_file(const std::string &path, std::string &text, FileId &id, std::string &why);

// The identity of the file now; false (and `why`) when it cannot be looked at.
bool stat_file(const std::string &path, FileId &id, std::string &why);

// The folder of clp.conf and policy/ when QMT_CONF_DIR is not set.
std::string default_conf_dir();

}  // namespace qmtxml
