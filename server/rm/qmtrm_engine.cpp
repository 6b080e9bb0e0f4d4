// qmtrm_engine.cpp - the polling engine of `qmtrm run` and `qmtrm demo`.
#include "qmtrm_engine.h"

#include <algorithm>
#include <cstdio>
#include <unordered_set>

namespace qmtrm {

namespace {

constexpr int kStartRequest = 0x110;
constexpr int kStopRequest = 0x111;

std::string describe(DWORD status)
{
    std::string text = status_text(status);
    std::string out = "status " + std::to_string(status);
    if (!text.empty())
        out += " (" + text + ")";
    return out;
}

std::string seconds(double s)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.1f s", s);
    return buffer;
}

} // namespace

Engine::Engine(const Plugin &plugin, Service service, std::vector<ResourceConfig> resources, Reporter &reporter,
               int threads, bool verbose)
    : plugin_(plugin), service_(service), reporter_(reporter), base_threads_(threads < 1 ? 1 : threads),
      verbose_(verbose)
{
    // Two passes on one name would share the plug-in's record of that name.
    std::unordered_set<std::string> names;
    for (auto &config : resources)
        if (names.insert(config.name).second)
            resources_.push_back(Resource{config});
    if (static_cast<size_t>(base_threads_) > resources_.size())
        base_threads_ = static_cast<int>(resources_.size());
}

Engine::~Engine()
{
    {
        std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_all();
    for (auto &thread : threads_)
        if (thread.joinable())
            thread.join();
}

DWORD Engine::start()
{
    const char *type = service_name(service_);
    DWORD rc = service_ == Service::Sdw ? plugin_.InitRscDll("qmtsdw", 0, 0) : plugin_.InitNpRscDll("qmtsdw", 0, 0);
    reporter_.line("", std::string(service_ == Service::Sdw ? "InitRscDll" : "InitNpRscDll") + " -> " + describe(rc));
    if (rc != 0)
        return rc;
    for (auto &rsc : resources_) {
        DWORD st = service_ == Service::Sdw ? plugin_.MontrStatusChange(type, rsc.config.name.c_str(), kStartRequest)
                                            : plugin_.NpMontrStatusChange(type, rsc.config.name.c_str(), kStartRequest);
        reporter_.line(rsc.config.name, "start request -> " + describe(st) + ", every " +
                                            std::to_string(rsc.config.interval_s) + " s, time-out " +
                                            std::to_string(rsc.config.timeout_s) + " s");
    }
    std::lock_guard lock(mutex_);
    running_ = true;
    Clock::time_point now = Clock::now();
    for (auto &rsc : resources_)
        rsc.next_due = now;
    for (int i = 0; i < base_threads_; ++i) {
        threads_.emplace_back([this] { worker_loop(); });
        ++idle_;
    }
    return 0;
}

void Engine::step()
{
    std::vector<std::pair<std::string, std::string>> overdue;  // resource, report
    int ratio = current_ratio();
    {
        std::lock_guard lock(mutex_);
        if (!running_)
            return;
        Clock::time_point now = Clock::now();
        for (size_t i = 0; i < resources_.size(); ++i) {
            Resource &rsc = resources_[i];
            if (rsc.busy) {
                if (!rsc.running)
                    continue;  // waiting for a thread: its time only counts from when it runs
                auto limit = std::chrono::seconds(static_cast<int64_t>(rsc.config.timeout_s) * ratio);
                if (!rsc.overdue && now - rsc.started >= limit) {
                    rsc.overdue = true;
                    ++overdue_reports_;
                    overdue.emplace_back(rsc.config.name,
                                         "OVERDUE: pass running for " +
                                             seconds(std::chrono::duration<double>(now - rsc.started).count()) +
                                             ", beyond its time-out of " +
                                             std::to_string(static_cast<int64_t>(rsc.config.timeout_s) * ratio) +
                                             " s; not polled again until it returns");
                }
                continue;
            }
            if (now >= rsc.next_due) {
                rsc.busy = true;
                queue_.push_back(i);
            }
        }
        // A thread for every pass that is due: a pass that hangs holds only its own thread. There
        // are never more threads than resources, as a resource has at most one pass at a time.
        while (idle_ < static_cast<int>(queue_.size()) && threads_.size() < resources_.size()) {
            threads_.emplace_back([this] { worker_loop(); });
            ++idle_;
        }
        if (!queue_.empty())
            wake_.notify_all();
    }
    for (auto &[resource, report] : overdue)
        reporter_.line(resource, report);
}

void Engine::worker_loop()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return ending_ || !queue_.empty(); });
        if (queue_.empty())
            return;
        --idle_;
        size_t index = queue_.front();
        queue_.pop_front();
        resources_[index].running = true;
        resources_[index].started = Clock::now();
        lock.unlock();
        run_pass(index);
        lock.lock();
        ++idle_;
    }
}

void Engine::run_pass(size_t index)
{
    const char *type = service_name(service_);
    const std::string name = resources_[index].config.name;  // never changes after construction
    DWORD status;
    BYTE check_point = 0;
    if (service_ == Service::Sdw) {
        status = plugin_.DoMontr(type, name.c_str());
    } else {
        status = plugin_.DoNpMontr(type, name.c_str());
        check_point = plugin_.GetCheckPoint(name.c_str());
    }
    Clock::time_point now = Clock::now();
    std::vector<std::string> lines;
    {
        std::lock_guard lock(mutex_);
        Resource &rsc = resources_[index];
        ++passes_;
        statuses_.insert(status);
        double took = std::chrono::duration<double>(now - rsc.started).count();
        if (rsc.overdue) {
            rsc.overdue = false;
            lines.push_back("overdue pass returned after " + seconds(took) + ": " + describe(status));
        }
        if (!rsc.known || rsc.status != status) {
            lines.push_back((rsc.known ? "status " + std::to_string(rsc.status) + " -> " : std::string()) +
                            describe(status));
        } else if (verbose_) {
            lines.push_back("pass " + seconds(took) + ": " + describe(status));
        }
        if (service_ == Service::Disknp && (check_point != rsc.check_point || !rsc.known) && verbose_)
            lines.push_back("check point " + std::to_string(check_point));
        rsc.known = true;
        rsc.status = status;
        rsc.check_point = check_point;
        rsc.last_pass_s = took;
        rsc.slowest_pass_s = std::max(rsc.slowest_pass_s, took);
        ++rsc.passes;
        rsc.failures += status != 0 ? 1 : 0;
        rsc.busy = false;
        rsc.running = false;
        // A fixed rate: the next pass is due one interval after this one was due, so that the
        // time a pass waited for its turn does not add up from pass to pass.
        rsc.next_due += std::chrono::seconds(rsc.config.interval_s);
        if (rsc.next_due < now)
            rsc.next_due = now;
    }
    settled_.notify_all();
    for (auto &line : lines)
        reporter_.line(name, line);
}

DWORD Engine::control(const std::string &name, int ctrl)
{
    const char *type = service_name(service_);
    return service_ == Service::Sdw ? plugin_.MontrStatusChange(type, name.c_str(), ctrl)
                                    : plugin_.NpMontrStatusChange(type, name.c_str(), ctrl);
}

bool Engine::stop(int stop_wait_ms, std::vector<std::string> *stuck)
{
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        // Queued but not begun: nothing to wait for.
        for (size_t i : queue_)
            resources_[i].busy = false;
        queue_.clear();
    }
    for (auto &rsc : resources_) {
        DWORD st = control(rsc.config.name, kStopRequest);
        reporter_.line(rsc.config.name, "stop request -> " + describe(st));
    }
    std::unique_lock lock(mutex_);
    settled_.wait_for(lock, std::chrono::milliseconds(stop_wait_ms), [this] {
        for (auto &rsc : resources_)
            if (rsc.busy)
                return false;
        return true;
    });
    lock.unlock();
    *stuck = busy();
    if (!stuck->empty())
        return false;
    DWORD rc = service_ == Service::Sdw ? plugin_.UninitRscDll("qmtsdw", 0, 0) : plugin_.UninitNpRscDll("qmtsdw", 0, 0);
    reporter_.line("", std::string(service_ == Service::Sdw ? "UninitRscDll" : "UninitNpRscDll") + " -> " + describe(rc));
    return true;
}

uint64_t Engine::passes() const
{
    std::lock_guard lock(mutex_);
    return passes_;
}

int Engine::workers() const
{
    std::lock_guard lock(mutex_);
    return static_cast<int>(threads_.size());
}

} // namespace qmtrm

namespace qmtrm {

uint64_t Engine::overdue_reports() const
{
    std::lock_guard lock(mutex_);
    return overdue_reports_;
}

std::set<DWORD> Engine::statuses_seen() const
{
    std::lock_guard lock(mutex_);
    return statuses_;
}

} // namespace qmtrm

namespace qmtrm {

std::vector<Engine::State> Engine::snapshot() const
{
    std::lock_guard lock(mutex_);
    std::vector<State> out;
    for (const Resource &rsc : resources_)
        out.push_back(State{rsc.status, rsc.check_point, rsc.known, rsc.running, rsc.overdue, rsc.started,
                            rsc.last_pass_s, rsc.slowest_pass_s, rsc.passes, rsc.failures});
    return out;
}

std::vector<std::string> Engine::busy() const
{
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const Resource &rsc : resources_)
        if (rsc.busy)
            out.push_back(rsc.config.name);
    return out;
}

} // namespace qmtrm
