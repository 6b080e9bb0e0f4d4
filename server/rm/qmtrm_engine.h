// qmtrm_engine.h - polling of the configured resources: one pass per resource and interval, each
// on a thread of its own as soon as it is due (the pool grows to the passes running, at most one
// per resource), with overdue passes reported and held back.
#pragma once

#include "qmtrm.h"

#include <condition_variable>
#include <deque>
#include <set>
#include <thread>

namespace qmtrm {

class Engine {
public:
    using Clock = std::chrono::steady_clock;

    // `threads` threads are started at once; more are added whenever a pass is due and none is
    // idle. A name configured twice is polled once.
    Engine(const Plugin &plugin, Service service, std::vector<ResourceConfig> resources, Reporter &reporter,
           int threads, bool verbose);
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    // Initialises the service and sends a start request per resource. Returns the status of
    // the initialisation (0 when the service runs).
    DWORD start();
    // Queues the passes that are due and reports the ones that overran their limit.
    void step();
    // Sends a stop request per resource, waits up to stop_wait_ms for running passes and tears
    // the service down. Returns false (nothing torn down) when some pass is still running;
    // *stuck then names the resources.
    bool stop(int stop_wait_ms, std::vector<std::string> *stuck);

    // Control request for one resource by name (the demo's suspend and resume).
    DWORD control(const std::string &name, int ctrl);

    // What each resource is doing now, in configuration order (the live status view).
    struct State {
        DWORD status = 0;
        BYTE check_point = 0;
        bool known = false;    // a pass has returned
        bool running = false;  // a pass is in the plug-in
        bool overdue = false;
        Clock::time_point started{};  // of the last pass begun
        double last_pass_s = 0;       // how long the last pass that returned took
        double slowest_pass_s = 0;    // the longest pass since the start
        uint64_t passes = 0;          // passes returned since the start
        uint64_t failures = 0;        // of them, those that returned a status other than 0
    };
    std::vector<State> snapshot() const;
    // Resources whose pass is queued or running.
    std::vector<std::string> busy() const;

    uint64_t passes() const;
    int workers() const;
    uint64_t overdue_reports() const;
    std::set<DWORD> statuses_seen() const;


private:
    struct Resource {
        ResourceConfig config;
        Clock::time_point next_due{};
        Clock::time_point started{};
        bool busy = false;     // queued or running: not to be queued again
        bool running = false;  // a pool thread is in the export; `started` is when it went in
        bool overdue = false;
        bool known = false;
        DWORD status = 0;
        BYTE check_point = 0;
        double last_pass_s = 0;
        double slowest_pass_s = 0;
        uint64_t passes = 0;
        uint64_t failures = 0;
    };

    void worker_loop();
    void run_pass(size_t index);

    const Plugin &plugin_;
    Service service_;
    Reporter &reporter_;
    int base_threads_;
    bool verbose_;
    std::vector<Resource> resources_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;    // workers: a pass was queued, or the pool ends
    std::condition_variable settled_; // stop(): a pass returned
    std::deque<size_t> queue_;
    std::vector<std::thread> threads_;
    int idle_ = 0;  // threads waiting for a pass
    bool ending_ = false;
    bool running_ = false;
    uint64_t passes_ = 0;
    uint64_t overdue_reports_ = 0;
    std::set<DWORD> statuses_;
};

} // namespace qmtrm
