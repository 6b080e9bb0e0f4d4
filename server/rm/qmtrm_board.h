// qmtrm_board.h - the host's status board: one shared-memory segment per running `qmtrm run`
// ("<prefix>_host_<service>") in which it publishes, per resource, the last status, the check
// point, whether a pass runs and whether it is overdue, and names itself (pid and start time).
// `qmtstat` reads it; the segment also keeps a second `run` off the same name and service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qmtrm {

class Engine;

// A process as the system knows it: the pid alone can be reused, the pid with its start time
// (clock ticks after boot, /proc/PID/stat) cannot.
struct ProcessId {
    int pid = 0;
    uint64_t start = 0;
};
// A process as the system names it now (/proc, or its creation time on Windows); the calling
// process by default.
ProcessId process_id(int pid = 0);
bool process_alive(const ProcessId &process);

// Row flags.
inline constexpr uint32_t kRowKnown = 1;     // at least one pass returned: status and check point hold
inline constexpr uint32_t kRowRunning = 2;   // a pass is in the plug-in now
inline constexpr uint32_t kRowOverdue = 4;   // that pass overran its time-out times the ratio
inline constexpr uint32_t kRowNoVolume = 8;  // no volume on this server: the plug-in watches nothing

struct BoardEntry {
    std::string name;
    int status = 0;
    uint32_t flags = 0;
    int check_point = -1;   // disknp only
    int interval_s = 0;
    int timeout_s = 0;
    int64_t pass_ms = 0;    // wall clock (ms since 1970) when the last pass began; 0 before the first
    uint32_t slowest_ms = 0;  // the longest pass since the run began
    uint64_t passes = 0;      // passes returned since the run began
    uint64_t failures = 0;    // of them, those with a status other than 0
};

struct BoardView {
    ProcessId writer;
    int64_t started_ms = 0;
    std::string service;
    std::string server;
    std::vector<BoardEntry> rows;
};

// This server's name as the plug-in reads it (QMT_HOSTNAME, else the short host name).
std::string server_name();
// The default shared-memory prefix: one per user and server name, so that runs of different
// users, or of simulated servers, never share segments by accident.
std::string default_shm_prefix();
// The prefix in force: $QMT_SHM_NAME, else the default; always with its leading '/'.
std::string shm_prefix();

// The segment's name for a shared-memory prefix (as QMT_SHM_NAME) and a service.
std::string board_name(const std::string &prefix, const std::string &service);

// The segment as the system keeps it (qmtrm_board_posix.cpp: a POSIX shared-memory object
// locked with flock; qmtrm_board_win.cpp: a named file mapping and a named mutex that its writer
// owns). create_segment() makes it for its one writer, or takes it over when its writer is gone;
// read_segment() copies at most `limit` of its bytes: 0, ENOENT when there is none, or another
// errno value with *why.
struct Segment {
    std::string name;
    void *map = nullptr;
    size_t size = 0;
    intptr_t handles[2] = {-1, -1};
};
enum class SegmentOpen { Ok, InUse, Failed };
SegmentOpen create_segment(const std::string &name, size_t size, Segment *out, std::string *why);
void remove_segment(Segment *segment);
int read_segment(const std::string &name, size_t limit, std::string *bytes, std::string *why);
// The running user as a name may carry it: the effective uid, or the user name on Windows.
std::string user_tag();

// The writer's side. create() makes the segment (mode 0600, never following a planted name) or
// takes over one whose writer is gone; it refuses while another process holds the name. The
// writer it names is `writer` (the process the operator started), else the calling process.
class Board {
public:
    static Board *create(const std::string &prefix, const std::string &service, const std::string &server,
                         const std::vector<BoardEntry> &rows, std::string *why, int writer = 0);
    ~Board();  // unlinks the segment
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    // Writes the row's status fields (not its name or timing) from `entry`.
    void update(size_t index, const BoardEntry &entry);
    // Copies what the engine's resources (in the order of the rows) are doing now.
    void publish(const Engine &engine, bool check_points);

private:
    Board() = default;
    std::vector<uint32_t> base_flags_;  // the rows' flags at creation (kRowNoVolume)
    Segment segment_;
};

// Reads a board without mapping it (a segment that shrinks under the reader cannot hurt it).
// 0: read; ENOENT: no such segment; any other errno value: unreadable or not a board, *why says
// why; rows that could be read are in *out even then.
int read_board(const std::string &name, BoardView *out, std::string *why);

} // namespace qmtrm
