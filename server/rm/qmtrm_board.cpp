// qmtrm_board.cpp - the host's status board in shared memory.
#include "qmtrm_board.h"

#include "qmtutil.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace qmtrm {

namespace {

constexpr uint32_t kMagic = 0x42484d51U;  // "QMHB"
constexpr uint32_t kVersion = 2;
constexpr uint32_t kMaxRows = 4096;

struct Header {
    uint32_t magic;
    uint32_t version;
    uint32_t row_size;
    uint32_t capacity;
    uint32_t count;
    int32_t pid;
    uint64_t start;
    int64_t started_ms;
    char service[16];
    char server[64];
};

struct Row {
    char name[64];
    int32_t status;
    uint32_t flags;
    int32_t check_point;
    int32_t interval_s;
    int32_t timeout_s;
    uint32_t slowest_ms;
    int64_t pass_ms;
    uint64_t passes;
    uint64_t failures;
};

template <size_t N> void copy_text(char (&to)[N], const std::string &from)
{
    std::memset(to, 0, N);
    std::memcpy(to, from.data(), std::min(from.size(), N - 1));
}

template <size_t N> std::string read_text(const char (&from)[N])
{
    return std::string(from, strnlen(from, N));
}

int64_t wall_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string holder_text(const std::string &name)
{
    Header h{};
    std::string bytes, why;
    if (read_segment(name, sizeof h, &bytes, &why) == 0 && bytes.size() == sizeof h) {
        std::memcpy(&h, bytes.data(), sizeof h);
        if (h.magic == kMagic && h.pid > 0)
            return "qmtrm pid " + std::to_string(h.pid);
    }
    return "another qmtrm run";
}

} // namespace

std::string server_name()
{
    char buffer[256] = {};
    if (cs_gethostname(buffer, static_cast<int>(sizeof buffer), 1, nullptr) != 0)
        return {};
    return std::string(buffer, strnlen(buffer, sizeof buffer));
}

std::string default_shm_prefix()
{
    // A shared-memory name has no '/' after the first: the server name keeps plain characters.
    std::string server;
    for (char c : server_name().substr(0, 64))
        server += std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' ? c : '_';
    return "/qmt-" + user_tag() + "-" + server;
}

std::string shm_prefix()
{
    const char *shm = std::getenv("QMT_SHM_NAME");
    std::string prefix = shm != nullptr && *shm != '\0' ? shm : default_shm_prefix();
    return prefix.front() == '/' ? prefix : "/" + prefix;
}

std::string board_name(const std::string &prefix, const std::string &service)
{
    std::string name = prefix.empty() || prefix.front() != '/' ? "/" + prefix : prefix;
    return name + "_host_" + service;
}

Board *Board::create(const std::string &prefix, const std::string &service, const std::string &server,
                     const std::vector<BoardEntry> &rows, std::string *why, int writer)
{
    const std::string name = board_name(prefix, service);
    if (rows.size() > kMaxRows) {
        *why = "more than " + std::to_string(kMaxRows) + " resources";
        return nullptr;
    }
    size_t size = sizeof(Header) + rows.size() * sizeof(Row);
    Segment segment;
    switch (create_segment(name, size, &segment, why)) {
    case SegmentOpen::Ok:
        break;
    case SegmentOpen::InUse:
        // Its creator may still be writing the header: give it a moment before naming it.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        *why = "the shared memory " + name + " is in use by " + holder_text(name) +
               "; stop it first or choose another --shm-name";
        return nullptr;
    case SegmentOpen::Failed:
        return nullptr;
    }
    void *map = segment.map;
    auto *header = static_cast<Header *>(map);
    auto *table = reinterpret_cast<Row *>(header + 1);
    for (size_t i = 0; i < rows.size(); ++i) {
        copy_text(table[i].name, rows[i].name);
        table[i].status = rows[i].status;
        table[i].flags = rows[i].flags;
        table[i].check_point = rows[i].check_point;
        table[i].interval_s = rows[i].interval_s;
        table[i].timeout_s = rows[i].timeout_s;
    }
    ProcessId me = process_id(writer);
    header->version = kVersion;
    header->row_size = sizeof(Row);
    header->capacity = static_cast<uint32_t>(rows.size());
    header->count = static_cast<uint32_t>(rows.size());
    header->pid = me.pid;
    header->start = me.start;
    header->started_ms = wall_ms();
    copy_text(header->service, service);
    copy_text(header->server, server);
    std::atomic_ref<uint32_t>(header->magic).store(kMagic, std::memory_order_release);

    Board *board = new Board;
    board->segment_ = segment;
    for (const BoardEntry &row : rows)
        board->base_flags_.push_back(row.flags);
    return board;
}

Board::~Board() { remove_segment(&segment_); }

void Board::update(size_t index, const BoardEntry &entry)
{
    auto *header = static_cast<Header *>(segment_.map);
    if (index >= header->capacity)
        return;
    Row &row = reinterpret_cast<Row *>(header + 1)[index];
    // Each field is one aligned word; a reader may pair fields of two updates, never see a torn one.
    std::atomic_ref<int32_t>(row.status).store(entry.status, std::memory_order_relaxed);
    std::atomic_ref<int32_t>(row.check_point).store(entry.check_point, std::memory_order_relaxed);
    std::atomic_ref<int64_t>(row.pass_ms).store(entry.pass_ms, std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(row.slowest_ms).store(entry.slowest_ms, std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(row.passes).store(entry.passes, std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(row.failures).store(entry.failures, std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(row.flags).store(entry.flags, std::memory_order_release);
}

int read_board(const std::string &name, BoardView *out, std::string *why)
{
    *out = BoardView{};
    std::string bytes;
    int rc = read_segment(name, sizeof(Header) + kMaxRows * sizeof(Row), &bytes, why);
    if (rc != 0)
        return rc;
    Header h{};
    std::vector<Row> rows;
    do {
        if (bytes.size() < sizeof h) {
            rc = EPROTO;
            *why = "not a host status board (or one still being set up)";
            break;
        }
        std::memcpy(&h, bytes.data(), sizeof h);
        if (h.magic != kMagic || h.version != kVersion || h.row_size != sizeof(Row)) {
            rc = EPROTO;
            *why = "not a host status board (or one still being set up)";
            break;
        }
        out->writer = ProcessId{h.pid, h.start};
        out->started_ms = h.started_ms;
        out->service = read_text(h.service);
        out->server = read_text(h.server);
        // Every count is checked against what the segment holds, never trusted.
        uint64_t fits = (bytes.size() - sizeof h) / sizeof(Row);
        uint64_t count = std::min<uint64_t>({h.count, h.capacity, fits, kMaxRows});
        if (h.count > h.capacity || h.capacity > fits) {
            rc = EPROTO;
            *why = "the board claims " + std::to_string(h.count) + " of " + std::to_string(h.capacity) +
                   " rows; the segment holds " + std::to_string(fits);
        }
        rows.resize(count);
        if (count)
            std::memcpy(rows.data(), bytes.data() + sizeof h, count * sizeof(Row));
    } while (false);
    for (const Row &r : rows) {
        BoardEntry e;
        e.name = read_text(r.name);
        e.status = r.status;
        e.flags = r.flags;
        e.check_point = r.check_point;
        e.interval_s = r.interval_s;
        e.timeout_s = r.timeout_s;
        e.pass_ms = r.pass_ms;
        e.slowest_ms = r.slowest_ms;
        e.passes = r.passes;
        e.failures = r.failures;
        out->rows.push_back(e);
    }
    return rc;
}

} // namespace qmtrm
