// qmtrm_script_parse.cpp - words, numbers and statements of the script language.
#include "qmtrm_script_parse.h"

#include "keypath.h"

#include <array>
#include <set>
#include <sstream>

namespace qmtrm::script {

namespace {

constexpr int64_t kMin32 = -2147483648LL;
constexpr int64_t kMax32 = 2147483647LL;
constexpr int64_t kMaxU32 = 4294967295LL;
constexpr int64_t kMaxMs = 3600000;     // an hour: longer waits are mistakes
constexpr int64_t kMaxCount = 1000000;  // counts of lines, handles and allocations
constexpr size_t kMaxWord = 4096;

struct Error {
    std::string what;
};

// A whole number: decimal with an optional minus sign, or 0x hexadecimal; within [lo, hi].
int64_t number(const Word &w, int64_t lo, int64_t hi, const char *what)
{
    const std::string &s = w.text;
    size_t i = 0;
    bool negative = false;
    if (i < s.size() && s[i] == '-') {
        negative = true;
        ++i;
    }
    int base = 10;
    if (s.size() - i > 2 && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
        base = 16;
        i += 2;
    }
    if (i == s.size())
        throw Error{std::string("not a number for ") + what + ": " + s};
    // Accumulated with a bound well above every range, so it never overflows.
    constexpr int64_t kCap = int64_t{1} << 40;
    int64_t value = 0;
    for (; i < s.size(); ++i) {
        char c = s[i];
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            throw Error{std::string("not a number for ") + what + ": " + s};
        if (value < kCap)
            value = value * base + digit;
    }
    if (negative)
        value = -value;
    if (value < lo || value > hi)
        throw Error{std::string(what) + " out of range (" + std::to_string(lo) + " to " + std::to_string(hi) +
                    "): " + s};
    return value;
}

// A 32-bit argument or result, given signed or unsigned.
int64_t any32(const Word &w, const char *what) { return number(w, kMin32, kMaxU32, what); }

bool is_identifier(const std::string &s)
{
    if (s.empty() || s.size() > 64 || !((s[0] >= 'a' && s[0] <= 'z') || (s[0] >= 'A' && s[0] <= 'Z') || s[0] == '_'))
        return false;
    for (char c : s)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-'))
            return false;
    return true;
}

const std::array<const char *, 9> kExports = {"InitRscDll", "UninitRscDll", "InitNpRscDll",
                                              "UninitNpRscDll", "DoMontr", "DoNpMontr",
                                              "MontrStatusChange", "NpMontrStatusChange", "GetCheckPoint"};

bool is_export(const std::string &s)
{
    for (const char *e : kExports)
        if (s == e)
            return true;
    return false;
}

Arg arg(const Word &w) { return w.text == "NULL" && !w.quoted ? Arg{true, {}} : Arg{false, w.text}; }

std::string joined(const std::vector<Word> &w, size_t from)
{
    std::string out;
    for (size_t i = from; i < w.size(); ++i) {
        if (i > from)
            out += ' ';
        out += w[i].text;
    }
    return out;
}

Call parse_call(const std::vector<Word> &w, size_t at, const std::string &shown)
{
    Call call;
    call.export_name = w[at].text;
    call.shown = shown;
    const size_t given = w.size() - at - 1;
    auto need = [&](size_t min, size_t max) {
        if (given < min || given > max)
            throw Error{call.export_name + " takes " +
                        (min == max ? std::to_string(min) : std::to_string(min) + " to " + std::to_string(max)) +
                        " argument(s)"};
    };
    auto word = [&](size_t i) -> const Word & { return w[at + i]; };
    const std::string &name = call.export_name;
    const bool np = name.find("Np") != std::string::npos || name == "GetCheckPoint";
    call.service = np ? Service::Disknp : Service::Sdw;
    if (name == "InitRscDll" || name == "UninitRscDll" || name == "InitNpRscDll" || name == "UninitNpRscDll") {
        need(0, 3);
        call.is_init = name.starts_with("Init");
        call.is_uninit = !call.is_init;
        call.a = given >= 1 ? arg(word(1)) : Arg{false, "qmtsdw"};
        call.n1 = given >= 2 ? any32(word(2), "DllType") : 0;
        call.n2 = given >= 3 ? any32(word(3), "ExecMode") : 0;
    } else if (name == "DoMontr" || name == "DoNpMontr") {
        need(2, 2);
        call.a = arg(word(1));
        call.b = arg(word(2));
    } else if (name == "MontrStatusChange" || name == "NpMontrStatusChange") {
        need(3, 3);
        call.a = arg(word(1));
        call.b = arg(word(2));
        call.n1 = any32(word(3), "CTRL");
    } else if (name == "GetCheckPoint") {
        need(1, 1);
        call.a = arg(word(1));
    } else {
        throw Error{"unknown call: " + name};
    }
    return call;
}

void count_words(const std::vector<Word> &w, size_t min, size_t max, const char *usage)
{
    if (w.size() < min || w.size() > max)
        throw Error{std::string("usage: ") + usage};
}

// expect-log, expect-log-count N, expect-no-log: [LEVEL] [FUNCTION] "TEXT".
void parse_expect_log(const std::vector<Word> &w, Statement *st)
{
    const std::string &verb = w[0].text;
    size_t i = 1;
    const char *usage = verb == "expect-log-count" ? "expect-log-count N [LEVEL] [FUNCTION] \"TEXT\""
                                                   : (verb == "expect-log" ? "expect-log [LEVEL] [FUNCTION] \"TEXT\""
                                                                           : "expect-no-log [LEVEL] [FUNCTION] \"TEXT\"");
    if (verb == "expect-log-count") {
        if (w.size() < 2)
            throw Error{std::string("usage: ") + usage};
        st->n = number(w[1], 0, kMaxCount, "count");
        i = 2;
    } else {
        st->n = verb == "expect-log" ? -1 : 0;  // -1: at least one
    }
    if (w.size() <= i || w.size() > i + 3 || !w.back().quoted)
        throw Error{std::string("usage: ") + usage + " (the text in double quotes)"};
    for (; i + 1 < w.size(); ++i) {
        if (w[i].quoted)
            throw Error{std::string("usage: ") + usage};
        if (is_level_name(w[i].text) && st->level.empty() && st->function.empty())
            st->level = w[i].text;
        else if (st->function.empty() && is_identifier(w[i].text))
            st->function = w[i].text;
        else
            throw Error{"not a level or function name: " + w[i].text};
    }
    st->text = w.back().text;
}

Statement parse_line(const std::vector<Word> &w, const std::string &shown, const SimCheck &check_sim)
{
    Statement st;
    st.shown = shown;
    const std::string &verb = w[0].text;
    if (w[0].quoted)
        throw Error{"a line begins with a keyword or an export, not a quoted word"};
    if (is_export(verb)) {
        st.op = Op::Call;
        st.call = parse_call(w, 0, shown);
    } else if (verb == "async") {
        st.op = Op::Async;
        if (w.size() < 2)
            throw Error{"usage: async [NAME] CALL"};
        size_t at = 1;
        if (!is_export(w[1].text)) {
            if (w[1].quoted || !is_identifier(w[1].text))
                throw Error{"not an async name: " + w[1].text};
            st.name = w[1].text;
            at = 2;
            if (w.size() < 3)
                throw Error{"usage: async [NAME] CALL"};
        }
        if (!is_export(w[at].text))
            throw Error{"not an export: " + w[at].text};
        st.call = parse_call(w, at, joined(w, at));
    } else if (verb == "wait") {
        st.op = Op::Wait;
        count_words(w, 1, 3, "wait [NAME] [MS]");
        size_t i = 1;
        if (w.size() > 1 && is_identifier(w[1].text) && !w[1].quoted) {
            st.name = w[1].text;
            i = 2;
        }
        if (w.size() > i + 1)
            throw Error{"usage: wait [NAME] [MS]"};
        if (w.size() == i + 1) {
            st.n = number(w[i], 0, kMaxMs, "MS");
            st.has_n = true;
        }
    } else if (verb == "expect") {
        st.op = Op::Expect;
        st.negate = w.size() == 3 && w[1].text == "!=";
        if (w.size() != (st.negate ? 3u : 2u))
            throw Error{"usage: expect N or expect != N"};
        st.n = any32(w.back(), "N");
    } else if (verb == "expect-log" || verb == "expect-log-count" || verb == "expect-no-log") {
        st.op = Op::ExpectLog;
        parse_expect_log(w, &st);
    } else if (verb == "mark") {
        st.op = Op::Mark;
        count_words(w, 1, 1, "mark");
    } else if (verb == "sim") {
        if (w.size() < 2)
            throw Error{"usage: sim STATEMENT"};
        if (w[1].text == "release") {
            st.op = Op::SimRelease;
            count_words(w, 3, 4, "sim release DISK [ERR]");
            st.n = number(w[2], 0, kMaxU32, "DISK");
            st.m = w.size() == 4 ? number(w[3], 0, kMaxU32, "ERR") : 0;
        } else {
            st.op = Op::Sim;
            st.text = joined(w, 1);
            std::string why;
            if (check_sim && !check_sim(st.text, &why))
                throw Error{"sim: " + why};
        }
    } else if (verb == "ratio") {
        st.op = Op::Ratio;
        count_words(w, 2, 2, "ratio N");
        st.n = number(w[1], kMin32, kMax32, "ratio");
    } else if (verb == "tick") {
        const std::string sub = w.size() > 1 ? w[1].text : "";
        if (sub == "set" || sub == "add") {
            st.op = sub == "set" ? Op::TickSet : Op::TickAdd;
            count_words(w, 3, 3, sub == "set" ? "tick set VALUE" : "tick add MS");
            st.n = sub == "set" ? number(w[2], 0, kMaxU32, "VALUE") : number(w[2], -kMaxU32, kMaxU32, "MS");
        } else if (sub == "freeze") {
            st.op = Op::TickFreeze;
            count_words(w, 2, 3, "tick freeze [VALUE]");
            if (w.size() == 3) {
                st.n = number(w[2], 0, kMaxU32, "VALUE");
                st.has_n = true;
            }
        } else if (sub == "thaw") {
            st.op = Op::TickThaw;
            count_words(w, 2, 2, "tick thaw");
        } else {
            throw Error{"usage: tick set VALUE, tick add MS, tick freeze [VALUE] or tick thaw"};
        }
    } else if (verb == "sleep") {
        st.op = Op::Sleep;
        count_words(w, 2, 2, "sleep MS");
        st.n = number(w[1], 0, kMaxMs, "MS");
    } else if (verb == "fault") {
        if (w.size() == 2 && w[1].text == "clear") {
            st.op = Op::FaultClear;
        } else {
            st.op = Op::Fault;
            count_words(w, 3, 4, "fault FUNCTION N [ERR] or fault clear");
            if (!is_identifier(w[1].text))
                throw Error{"not a function name: " + w[1].text};
            st.name = w[1].text;
            st.n = number(w[2], 1, kMaxU32, "N");
            st.m = w.size() == 4 ? number(w[3], 0, kMaxU32, "ERR") : kDefaultFaultError;
        }
    } else if (verb == "expect-live") {
        st.op = Op::ExpectLive;
        count_words(w, 3, 3, "expect-live handles N or expect-live allocations N");
        if (w[1].text != "handles" && w[1].text != "allocations")
            throw Error{"usage: expect-live handles N or expect-live allocations N"};
        st.allocations = w[1].text == "allocations";
        st.n = number(w[2], 0, kMaxCount, "N");
    } else if (verb == "conf") {
        const std::string sub = w.size() > 1 ? w[1].text : "";
        if (sub == "set" || sub == "remove") {
            st.op = sub == "set" ? Op::ConfSet : Op::ConfRemove;
            count_words(w, sub == "set" ? 4 : 3, sub == "set" ? 4 : 3,
                        sub == "set" ? "conf set KEY VALUE" : "conf remove KEY");
            std::vector<qmtxml::Segment> path;
            if (!qmtxml::parse_key(w[2].text, path) || path.size() < 2)
                throw Error{"not a key path: " + w[2].text};
            st.name = w[2].text;
            if (sub == "set")
                st.text = w[3].text;
        } else if (sub == "write") {
            st.op = Op::ConfWrite;
            count_words(w, 3, 3, "conf write FILE");
            if (w[2].text.empty())
                throw Error{"usage: conf write FILE"};
            st.name = w[2].text;
        } else {
            throw Error{"usage: conf set KEY VALUE, conf remove KEY or conf write FILE"};
        }
    } else if (verb == "shm") {
        st.op = Op::Shm;
        count_words(w, 2, 2, "shm NAME");
        st.name = w[1].text;
    } else if (verb == "expect-shm") {
        st.op = Op::ExpectShm;
        count_words(w, 4, 4, "expect-shm NAME PROGRESS \"DESCRIPTION\"");
        if (!w[3].quoted)
            throw Error{"usage: expect-shm NAME PROGRESS \"DESCRIPTION\" (the description in double quotes)"};
        st.name = w[1].text;
        st.n = number(w[2], 0, kMax32, "PROGRESS");
        st.text = w[3].text;
    } else {
        throw Error{"unknown call: " + verb};
    }
    return st;
}

}  // namespace

const std::array<const char *, 7> kLevels = {"ERR", "WRN", "INF", "TRC", "PAS", "DTL", "EVT"};

bool is_level_name(const std::string &word)
{
    for (const char *l : kLevels)
        if (word == l)
            return true;
    return false;
}

std::vector<Word> split_words(const std::string &line)
{
    std::vector<Word> words;
    size_t i = 0;
    for (unsigned char c : line)
        if ((c < 0x20 && c != '\t') || c == 0x7f)
            throw ParseError{0, "control character " + std::to_string(c) + " in the line"};
    while (i < line.size()) {
        if (line[i] == ' ' || line[i] == '\t') {
            ++i;
            continue;
        }
        Word w;
        if (line[i] == '"') {
            w.quoted = true;
            ++i;
            bool closed = false;
            while (i < line.size()) {
                char c = line[i++];
                if (c == '"') {
                    closed = true;
                    break;
                }
                if (c == '\\' && i < line.size() && (line[i] == '"' || line[i] == '\\'))
                    c = line[i++];
                w.text += c;
            }
            if (!closed)
                throw ParseError{0, "a quote is not closed"};
            if (i < line.size() && line[i] != ' ' && line[i] != '\t')
                throw ParseError{0, "a closing quote must end its word"};
        } else {
            while (i < line.size() && line[i] != ' ' && line[i] != '\t') {
                if (line[i] == '"')
                    throw ParseError{0, "a quote inside a word"};
                w.text += line[i++];
            }
        }
        if (w.text.size() > kMaxWord)
            throw ParseError{0, "a word longer than " + std::to_string(kMaxWord) + " characters"};
        words.push_back(std::move(w));
    }
    return words;
}

std::vector<Statement> parse(const std::string &text, const SimCheck &check_sim)
{
    std::vector<Statement> out;
    std::istringstream in(text);
    std::string line;
    int number = 0;
    std::set<std::string> async_names;
    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::vector<Word> w;
        try {
            w = split_words(line);
        } catch (const ParseError &e) {
            throw ParseError{number, e.what};
        }
        if (w.empty() || (!w[0].quoted && w[0].text[0] == '#'))
            continue;
        size_t begin = line.find_first_not_of(" \t");
        size_t end = line.find_last_not_of(" \t");
        try {
            Statement st = parse_line(w, line.substr(begin, end - begin + 1), check_sim);
            st.line = number;
            if (st.op == Op::Async && !st.name.empty())
                async_names.insert(st.name);
            if (st.op == Op::Wait && !st.name.empty() && !async_names.count(st.name))
                throw Error{"no async call named " + st.name + " before this line"};
            out.push_back(std::move(st));
        } catch (const Error &e) {
            throw ParseError{number, e.what};
        }
    }
    return out;
}

bool text_matches(const std::string &pattern, const std::string &text)
{
    // Greedy matching with one backtrack point: linear in practice, never exponential.
    size_t p = 0, t = 0, star = std::string::npos, resume = 0;
    while (t < text.size()) {
        const bool escaped = p + 1 < pattern.size() && pattern[p] == '\\' && pattern[p + 1] == '*';
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (escaped && text[t] == '*') {
            p += 2;
            ++t;
        } else if (!escaped && p < pattern.size() && pattern[p] == text[t]) {
            ++p;
            ++t;
        } else if (star != std::string::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

}  // namespace qmtrm::script
