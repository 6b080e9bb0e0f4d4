// The resource table's reader fed a damaged segment: a well-formed table of the smallest size with
// the input's bytes written over it (each patch an offset and a byte), seen through a mapping that
// may be shorter than the table. Reading either refuses the header or lists entries whose texts
// end inside their fields and whose lengths match them.
#include "shm_layout.h"
#include "qmtshm_codes.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

using namespace qmtshm;

namespace {

// A table as a writer leaves it, with a few entries in use.
std::vector<uint64_t> good_table()
{
    const size_t size = rm_segment_size(kRmMinEntries);
    std::vector<uint64_t> mem(size / sizeof(uint64_t));
    auto *h = new (mem.data()) RmHeader{};
    h->hdr.state.store(kReady);
    h->hdr.magic = kMagicRm;
    h->hdr.version = kVersion;
    h->hdr.header_size = kRmHeaderSize;
    h->hdr.size = size;
    h->hdr.entry_size = sizeof(RmEntry);
    h->hdr.capacity = kRmMinEntries;
    RmEntry *e = rm_entries(mem.data());
    for (int i = 0; i < 4; ++i) {
        RmData d{};
        std::strcpy(d.type, "sdw");
        d.name[0] = static_cast<char>('a' + i);
        std::strcpy(d.descript, "Normal");
        d.descript_len = 6;
        d.writer_pid = 1;
        uint64_t words[kRmWords];
        std::memcpy(words, &d, sizeof d);
        for (size_t w = 0; w < kRmWords; ++w)
            e[i].words[w].store(words[w]);
        e[i].seq.store(2);
    }
    return mem;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::vector<uint64_t> pristine = good_table();
    std::vector<uint64_t> mem = pristine;
    auto *bytes = reinterpret_cast<uint8_t *>(mem.data());
    const size_t total = mem.size() * sizeof(uint64_t);
    size_t available = total;
    if (size > 0 && data[0] < 16)  // sometimes a mapping cut short
        available = total * data[0] / 16;
    for (size_t i = 1; i + 2 < size; i += 3)
        bytes[(static_cast<size_t>(data[i]) << 8 | data[i + 1]) * 7 % total] = data[i + 2];
    RmSnapshot snap;
    int rc = read_rm(mem.data(), available, snap);
    if (rc != 0) {
        if (rc != QMTSHM_E_BAD_SEGMENT || !snap.entries.empty())
            std::abort();
        return 0;
    }
    if (snap.capacity != kRmMinEntries || snap.entries.size() + snap.damaged > snap.capacity)
        std::abort();
    for (const RmData &d : snap.entries) {
        if (!std::memchr(d.type, 0, kTypeLen) || !std::memchr(d.name, 0, kNameLen) || d.type[0] == '\0' ||
            d.name[0] == '\0' || d.descript_len < 0 || static_cast<size_t>(d.descript_len) != std::strlen(d.descript))
            std::abort();
    }
    return 0;
}
