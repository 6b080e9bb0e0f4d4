// status_text.cpp - the string table: every status code the disk monitor returns, with the
// short text that the cluster shows next to the resource.

#include "qmtlog_internal.h"

namespace qmtlog {
namespace {

struct StatusText {
    int status;
    const char *text;
};

constexpr StatusText kStatusTexts[] = {
    {0, "Normal"},
    {1, "Initialisation failed"},
    {3, "Bad parameter or unknown resource"},
    {4, "Disk not found or not opened"},
    {5, "Disk check failed"},
    {6, "Lock time-out"},
    {7, "Out of memory"},
    {90, "Time-out"},
    {99, "System error or monitor stalled"},
    {100, "Wait for disk failed"},
    {190, "Monitor could not run"},
};

}  // namespace

const char *status_text(int status) {
    for (const StatusText &s : kStatusTexts)
        if (s.status == status) return s.text;
    return nullptr;
}

}  // namespace qmtlog
