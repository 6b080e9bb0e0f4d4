// sim.cpp - the simulated storage backend: volumes and disks described in a small text format
// (docs/sim.md) and changed at run time through qmtp::sim.
//
// Late completions run on one timer thread; hung probes wait in a list until release(). Neither
// holds the world's lock while completing a request, so completions never meet the lock order
// of the callers (file object, then world).
#include "backend.h"
#include "qmtplat.h"

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace qmtp {
namespace {

using Clock = std::chrono::steady_clock;
using sim::Behaviour;
using sim::DiskState;

// Offsets and lengths reported for every simulated extent; nothing reads them but tests.
constexpr LONGLONG kExtentStart = 1LL << 20;
constexpr LONGLONG kExtentLength = 1LL << 30;

struct SimVolume {
    std::vector<DWORD> disks;
    DWORD extents_error = 0;
};

struct SimDisk {
    DiskState state;
    unsigned probes = 0;
};

struct Timed {
    DWORD disk;
    DWORD error;
    std::shared_ptr<Request> req;
};

// One statement of the description format, parsed.
struct Statement {
    enum Kind { Volume, VolumeExtentsError, VolumeRemove, Disk, Release, Reset } kind = Reset;
    std::string guid;
    std::vector<DWORD> disks;
    DWORD number = 0;
    DWORD error = 0;
    DiskState state;
};

struct World {
    std::mutex m;
    std::map<std::string, SimVolume> volumes;
    std::map<DWORD, SimDisk> disks;
    std::vector<std::pair<DWORD, std::shared_ptr<Request>>> hung;
    std::multimap<Clock::time_point, Timed> timed;
    std::condition_variable cv;
    std::thread timer;
    bool stop = false;

    ~World() {
        {
            std::lock_guard<std::mutex> lk(m);
            stop = true;
        }
        cv.notify_all();
        if (timer.joinable()) timer.join();
    }

    void run_timer() {
        std::unique_lock<std::mutex> lk(m);
        while (!stop) {
            if (timed.empty()) {
                cv.wait(lk);
                continue;
            }
            auto first = timed.begin();
            if (Clock::now() < first->first) {
                cv.wait_until(lk, first->first);
                continue;
            }
            Timed t = std::move(first->second);
            timed.erase(first);
            lk.unlock();
            t.req->complete(t.error);
            lk.lock();
        }
    }

    // Caller holds m.
    void schedule(DWORD disk, DWORD ms, DWORD error, const std::shared_ptr<Request> &req) {
        if (!timer.joinable()) timer = std::thread([this] { run_timer(); });
        timed.emplace(Clock::now() + std::chrono::milliseconds(ms), Timed{disk, error, req});
        cv.notify_all();
    }

    // Caller holds m. Returns the hung probes to complete (outside the lock).
    std::vector<std::shared_ptr<Request>> take_hung(DWORD disk, bool all) {
        std::vector<std::shared_ptr<Request>> out;
        for (auto it = hung.begin(); it != hung.end();) {
            if (all || it->first == disk) {
                out.push_back(std::move(it->second));
                it = hung.erase(it);
            } else {
                ++it;
            }
        }
        return out;
    }

    // Caller holds m.
    void set_disk(DWORD n, const DiskState &st) { disks[n].state = st; }
    void set_volume(const std::string &guid, const std::vector<DWORD> &list) {
        volumes[guid].disks = list;
        for (DWORD d : list) disks.try_emplace(d);
    }
};

void complete_all(const std::vector<std::shared_ptr<Request>> &reqs, DWORD error) {
    for (auto &r : reqs) r->complete(error);
}

std::string lower(std::string s) {
    for (auto &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// A GUID, with or without braces, as the key: lower case, no braces. Empty when malformed.
std::string guid_key(std::string_view text) {
    if (text.size() >= 2 && text.front() == '{' && text.back() == '}') text = text.substr(1, text.size() - 2);
    if (text.size() != 36) return {};
    for (size_t i = 0; i < text.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return {};
    }
    return lower(std::string(text));
}

bool parse_number(const std::string &word, DWORD *out) {
    if (word.empty() || word.size() > 10) return false;
    uint64_t n = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + static_cast<unsigned>(c - '0');
    }
    if (n > 0xFFFFFFFFu) return false;
    *out = static_cast<DWORD>(n);
    return true;
}

// Parses one line; false with *reason when it is not a statement. Blank and comment lines give
// true and *empty.
bool parse_line(const std::string &line, Statement *st, bool *empty, std::string *reason) {
    std::string text = line.substr(0, line.find('#'));
    std::istringstream in(text);
    std::vector<std::string> w;
    for (std::string word; in >> word;) w.push_back(word);
    *empty = w.empty();
    if (w.empty()) return true;

    auto number = [&](size_t i, const char *what, DWORD *out) {
        if (i >= w.size()) {
            *reason = std::string("missing ") + what;
            return false;
        }
        if (!parse_number(w[i], out)) {
            *reason = std::string("bad ") + what + " '" + w[i] + "'";
            return false;
        }
        return true;
    };
    auto error_code = [&](size_t i, DWORD *out) {
        if (!number(i, "error code", out)) return false;
        if (*out == 0) {
            *reason = "error code must not be 0";
            return false;
        }
        return true;
    };
    auto no_more = [&](size_t i) {
        if (i < w.size()) {
            *reason = "unexpected '" + w[i] + "'";
            return false;
        }
        return true;
    };

    const std::string &verb = w[0];
    if (verb == "reset") {
        st->kind = Statement::Reset;
        return no_more(1);
    }
    if (verb == "volume") {
        if (w.size() < 2) {
            *reason = "missing volume GUID";
            return false;
        }
        st->guid = guid_key(w[1]);
        if (st->guid.empty()) {
            *reason = "bad volume GUID '" + w[1] + "'";
            return false;
        }
        if (w.size() < 3) {
            *reason = "missing 'disks', 'extents-error' or 'remove'";
            return false;
        }
        if (w[2] == "disks") {
            st->kind = Statement::Volume;
            for (size_t i = 3; i < w.size(); ++i) {
                DWORD d;
                if (!number(i, "disk number", &d)) return false;
                st->disks.push_back(d);
            }
            return true;
        }
        if (w[2] == "extents-error") {
            st->kind = Statement::VolumeExtentsError;
            if (!number(3, "error code", &st->error)) return false;
            return no_more(4);
        }
        if (w[2] == "remove") {
            st->kind = Statement::VolumeRemove;
            return no_more(3);
        }
        *reason = "unknown volume property '" + w[2] + "'";
        return false;
    }
    if (verb == "disk") {
        st->kind = Statement::Disk;
        if (!number(1, "disk number", &st->number)) return false;
        if (w.size() < 3) {
            *reason = "missing disk behaviour";
            return false;
        }
        const std::string &b = w[2];
        DiskState &s = st->state;
        if (b == "ok") {
            s.behaviour = Behaviour::Ok;
            return no_more(3);
        }
        if (b == "delay") {
            s.behaviour = Behaviour::Delay;
            if (!number(3, "delay", &s.delay_ms)) return false;
            return no_more(4);
        }
        if (b == "refuse" || b == "openfail") {
            s.behaviour = b == "refuse" ? Behaviour::Refuse : Behaviour::OpenFail;
            if (!error_code(3, &s.error)) return false;
            return no_more(4);
        }
        if (b == "fail") {
            s.behaviour = Behaviour::Fail;
            if (!error_code(3, &s.error)) return false;
            if (w.size() > 4) {
                if (w[4] != "after") {
                    *reason = "unexpected '" + w[4] + "'";
                    return false;
                }
                if (!number(5, "delay", &s.delay_ms)) return false;
                return no_more(6);
            }
            return true;
        }
        if (b == "hang" || b == "stuck") {
            s.behaviour = b == "hang" ? Behaviour::Hang : Behaviour::Stuck;
            return no_more(3);
        }
        *reason = "unknown disk behaviour '" + b + "'";
        return false;
    }
    if (verb == "release") {
        st->kind = Statement::Release;
        if (!number(1, "disk number", &st->number)) return false;
        if (w.size() > 2 && !number(2, "error code", &st->error)) return false;
        return no_more(3);
    }
    *reason = "unknown statement '" + verb + "'";
    return false;
}

bool parse_text(const std::string &text, const std::string &source, std::vector<Statement> *out,
                std::string *why) {
    std::istringstream in(text);
    std::string line;
    for (unsigned n = 1; std::getline(in, line); ++n) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        Statement st;
        bool empty = false;
        std::string reason;
        if (!parse_line(line, &st, &empty, &reason)) {
            if (why) *why = source + ":" + std::to_string(n) + ": " + reason;
            return false;
        }
        if (!empty) out->push_back(std::move(st));
    }
    return true;
}

// Caller holds w.m; hung probes to finish are added to *done with their error.
void run_statement(World &w, const Statement &st,
                   std::vector<std::pair<std::vector<std::shared_ptr<Request>>, DWORD>> *done) {
    switch (st.kind) {
    case Statement::Reset:
        // Probes hanging in disks that no longer exist end as if the device went away.
        done->emplace_back(w.take_hung(0, true), ERROR_DEVICE_NOT_CONNECTED);
        w.volumes.clear();
        w.disks.clear();
        break;
    case Statement::Volume:
        w.set_volume(st.guid, st.disks);
        break;
    case Statement::VolumeExtentsError:
        w.volumes[st.guid].extents_error = st.error;
        break;
    case Statement::VolumeRemove:
        w.volumes.erase(st.guid);
        break;
    case Statement::Disk:
        w.set_disk(st.number, st.state);
        break;
    case Statement::Release:
        done->emplace_back(w.take_hung(st.number, false), st.error);
        break;
    }
}

bool run_text(World &w, const std::string &text, const std::string &source, bool fresh, std::string *why) {
    std::vector<Statement> list;
    if (!parse_text(text, source, &list, why)) return false;
    std::vector<std::pair<std::vector<std::shared_ptr<Request>>, DWORD>> done;
    {
        std::lock_guard<std::mutex> lk(w.m);
        if (fresh) run_statement(w, Statement{}, &done);
        for (auto &st : list) run_statement(w, st, &done);
    }
    for (auto &[reqs, err] : done) complete_all(reqs, err);
    return true;
}

bool read_file(const std::string &path, std::string *text, std::string *why) {
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        if (why) *why = path + ": cannot be read";
        return false;
    }
    std::ostringstream s;
    s << f.rdbuf();
    *text = s.str();
    return true;
}

World &world() {
    static World w;
    static std::once_flag once;
    std::call_once(once, [] {
        const char *file = std::getenv("QMT_SIM_FILE");
        if (!file || !*file) return;
        std::string text, why;
        if (!read_file(file, &text, &why) || !run_text(w, text, file, true, &why))
            std::fprintf(stderr, "qmtwin: sim: %s\n", why.c_str());
    });
    return w;
}

class SimVolumeHandle final : public Volume {
public:
    explicit SimVolumeHandle(std::string key) : key_(std::move(key)) {}
    DWORD extents(std::vector<DISK_EXTENT> *out) override {
        World &w = world();
        std::lock_guard<std::mutex> lk(w.m);
        auto it = w.volumes.find(key_);
        if (it == w.volumes.end()) return ERROR_DEVICE_NOT_CONNECTED;
        if (it->second.extents_error) return it->second.extents_error;
        for (DWORD d : it->second.disks) {
            DISK_EXTENT e{};
            e.DiskNumber = d;
            e.StartingOffset.QuadPart = kExtentStart;
            e.ExtentLength.QuadPart = kExtentLength;
            out->push_back(e);
        }
        return 0;
    }

private:
    std::string key_;
};

class SimDiskHandle final : public Disk {
public:
    explicit SimDiskHandle(DWORD n) : n_(n) {}
    ProbeStart probe(const std::shared_ptr<Request> &req) override {
        World &w = world();
        std::lock_guard<std::mutex> lk(w.m);
        auto it = w.disks.find(n_);
        if (it == w.disks.end()) return {ProbeStart::Refused, ERROR_DEVICE_NOT_CONNECTED};
        SimDisk &d = it->second;
        ++d.probes;
        switch (d.state.behaviour) {
        case Behaviour::Ok:
        case Behaviour::OpenFail:
            return {ProbeStart::Done, 0};
        case Behaviour::Refuse:
            return {ProbeStart::Refused, d.state.error};
        case Behaviour::Delay:
            w.schedule(n_, d.state.delay_ms, 0, req);
            return {ProbeStart::Pending, 0};
        case Behaviour::Fail:
            w.schedule(n_, d.state.delay_ms, d.state.error, req);
            return {ProbeStart::Pending, 0};
        case Behaviour::Stuck:
            req->ignore_cancel();
            [[fallthrough]];
        case Behaviour::Hang:
            w.hung.emplace_back(n_, req);
            return {ProbeStart::Pending, 0};
        }
        return {ProbeStart::Refused, ERROR_GEN_FAILURE};
    }

private:
    DWORD n_;
};

class SimBackend final : public Backend {
public:
    const char *name() const override { return "sim"; }
    DWORD open_volume(const std::string &guid, std::unique_ptr<Volume> *out) override {
        std::string key = guid_key(guid);
        World &w = world();
        std::lock_guard<std::mutex> lk(w.m);
        if (key.empty() || !w.volumes.count(key)) return ERROR_FILE_NOT_FOUND;
        *out = std::make_unique<SimVolumeHandle>(key);
        return 0;
    }
    DWORD open_disk(DWORD n, std::unique_ptr<Disk> *out) override {
        World &w = world();
        std::lock_guard<std::mutex> lk(w.m);
        auto it = w.disks.find(n);
        if (it == w.disks.end()) return ERROR_FILE_NOT_FOUND;
        if (it->second.state.behaviour == Behaviour::OpenFail) return it->second.state.error;
        *out = std::make_unique<SimDiskHandle>(n);
        return 0;
    }
};

} // namespace

std::unique_ptr<Backend> make_sim_backend() { return std::make_unique<SimBackend>(); }

namespace sim {

bool load_text(const std::string &text, std::string *why) { return run_text(world(), text, "<text>", true, why); }

bool load_file(const std::string &path, std::string *why) {
    std::string text;
    if (!read_file(path, &text, why)) return false;
    return run_text(world(), text, path, true, why);
}

void reset() { run_text(world(), "reset", "<reset>", false, nullptr); }

bool apply(const std::string &statement, std::string *why) {
    if (statement.find('\n') != std::string::npos) {
        if (why) *why = "<statement>:1: one statement only";
        return false;
    }
    return run_text(world(), statement, "<statement>", false, why);
}

bool check(const std::string &statement, std::string *why) {
    std::vector<Statement> list;
    if (statement.find('\n') != std::string::npos) {
        if (why) *why = "<statement>:1: one statement only";
        return false;
    }
    return parse_text(statement, "<statement>", &list, why);
}

void set_volume(const std::string &guid, const std::vector<DWORD> &disks) {
    std::string key = guid_key(guid);
    if (key.empty()) return;
    World &w = world();
    std::lock_guard<std::mutex> lk(w.m);
    w.set_volume(key, disks);
}

void remove_volume(const std::string &guid) {
    World &w = world();
    std::lock_guard<std::mutex> lk(w.m);
    w.volumes.erase(guid_key(guid));
}

void set_volume_extents_error(const std::string &guid, DWORD error) {
    std::string key = guid_key(guid);
    if (key.empty()) return;
    World &w = world();
    std::lock_guard<std::mutex> lk(w.m);
    w.volumes[key].extents_error = error;
}

void set_disk(DWORD disk, const DiskState &state) {
    World &w = world();
    std::lock_guard<std::mutex> lk(w.m);
    w.set_disk(disk, state);
}

DiskState get_disk(DWORD disk) {
    World &w = world();
    std::lock_guard<std::mutex> lk(w.m);
    auto it = w.disks.find(disk);
    return it == w.disks.end() ? DiskState{} : it->second.state;
}

void release(DWORD disk, DWORD error) {
    World &w = world();
    std::vector<std::shared_ptr<Request>> reqs;
    {
        std::lock_guard<std::mutex> lk(w.m);
        reqs = w.take_hung(disk, false);
    }
    complete_all(reqs, error);
}

unsigned probe_count(DWORD disk) {
    World &w = world();
    std::lock_guard<std::mutex> lk(w.m);
    auto it = w.disks.find(disk);
    return it == w.disks.end() ? 0 : it->second.probes;
}

unsigned pending_count(DWORD disk) {
    World &w = world();
    std::lock_guard<std::mutex> lk(w.m);
    unsigned n = 0;
    for (auto &h : w.hung) n += h.first == disk;
    for (auto &t : w.timed) n += t.second.disk == disk;
    return n;
}

} // namespace sim
} // namespace qmtp
