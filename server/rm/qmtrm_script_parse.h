// qmtrm_script_parse.h - the script language of `qmtrm script`, parsed: every line of a script
// checked and turned into a statement before anything runs, so that a malformed line is reported
// with its number before the first call. Free of the plug-in and the platform, so that a fuzz
// target can drive it alone.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qmtrm::script {

// One word of a line: quoted words keep blanks, and a quoted "NULL" is the text, not a null.
struct Word {
    std::string text;
    bool quoted = false;
};

enum class Op {
    Call,        // an export call
    Async,       // an export call on a thread of its own
    Wait,        // join async calls
    Expect,      // compare the last result
    ExpectLog,   // count log lines that match
    Mark,        // later log expectations look only after this point
    Sim,         // a statement of the simulated-storage description
    SimRelease,  // complete a disk's hung probes
    Ratio,       // set the cluster time-out ratio
    TickSet,
    TickAdd,
    TickFreeze,
    TickThaw,
    Sleep,
    Fault,
    FaultClear,
    ExpectLive,  // open handles or allocations
    ConfSet,
    ConfRemove,
    ConfWrite,
    Shm,         // print a resource's entry of the resource shared memory
    ExpectShm,
};

enum class Service { None, Sdw, Disknp };

// An argument of an export: null stands for a null pointer (the unquoted word NULL).
struct Arg {
    bool null = false;
    std::string text;
    const char *get() const { return null ? nullptr : text.c_str(); }
};

struct Call {
    std::string export_name;
    std::string shown;  // the call as the script wrote it
    Arg a, b;
    int64_t n1 = 0, n2 = 0;  // 32-bit values, signed or unsigned as the export takes them
    Service service = Service::None;
    bool is_init = false, is_uninit = false;
};

struct Statement {
    int line = 0;
    Op op = Op::Call;
    std::string shown;  // the line as written, without its outer blanks
    Call call;          // Call, Async
    std::string name;   // Async and Wait (may be empty), Shm, ExpectShm, Fault (function), Conf* (key or file)
    std::string text;   // ExpectLog text, ConfSet value, Sim statement, ExpectShm description
    std::string level;  // ExpectLog: ERR, WRN, ... or empty for any
    std::string function;  // ExpectLog: or empty for any
    int64_t n = 0;      // the statement's number (expected value, count, tick, ms, disk, nth call...)
    int64_t m = 0;      // a second number (error code of a fault or a release)
    bool has_n = false; // an optional number was given (wait MS, tick freeze VALUE)
    bool negate = false;          // expect !=
    bool allocations = false;     // ExpectLive: allocations rather than handles
};

// The system error of a `fault` line that gives none: ERROR_GEN_FAILURE.
constexpr int64_t kDefaultFaultError = 31;

struct ParseError {
    int line = 0;
    std::string what;
};

// Checks a `sim` statement; false with *why when it is not valid. Optional.
using SimCheck = std::function<bool(const std::string &statement, std::string *why)>;

// Splits a line into words. Throws ParseError (line 0) on an unterminated quote, a quote glued
// to another word, or a control character.
std::vector<Word> split_words(const std::string &line);

// Parses a whole script. Throws ParseError with the line number of the first malformed line.
std::vector<Statement> parse(const std::string &text, const SimCheck &check_sim = {});

// `*` matches any run of characters, `\*` a star, every other character itself; the whole text
// must match.
bool text_matches(const std::string &pattern, const std::string &text);

// The level names of the log lines, as qmtlog writes them.
bool is_level_name(const std::string &word);

}  // namespace qmtrm::script
