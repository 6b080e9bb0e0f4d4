// qmtrm_health.h - the node's disk health, as `qmtrm run` publishes it to a cluster manager.
#pragma once

#include "qmtrm_board.h"
#include "qmtrm_engine.h"

#include <cstdint>

namespace CLI {
class App;
}

namespace qmtrm {

// None: nothing known yet (no pass has returned), so nothing is published.
enum class Colour { None, Green, Yellow, Red };
const char *colour_name(Colour colour);

// What the colour needs to know of a resource beyond the engine's snapshot.
struct HealthResource {
    std::string name;
    bool watching = true;     // it has a volume (sdw) or a device (disknp) on this server
    double delay_s = 0;       // a pass at least this long counts as delayed; 0: never
};

// The node's colour: red while a watched resource's last status is not 0 or a pass is overdue,
// yellow while the only trouble is a delayed pass, green when every watched resource is normal.
// Resources that watch nothing count for nothing; when none watches anything the colour is yellow,
// as nothing is known to be healthy. *why names what decided the colour.
Colour node_colour(const std::vector<Engine::State> &states, const std::vector<HealthResource> &resources,
                   std::string *why);

// The options of `qmtrm run` for the health (--health-attribute, --on-change).
void add_health_options(CLI::App *run);

class Health {
public:
    // `rows` are the board's rows of the resources (whether each watches anything, its time-out).
    // Reads the delay ratio from the cluster configuration: call it before the plug-in has loaded
    // the configuration for itself.
    Health(Service service, const std::vector<BoardEntry> &rows);
    ~Health();
    Health(const Health &) = delete;
    Health &operator=(const Health &) = delete;

    // Every tick of the run: recomputes the colour and, when it changed, reports it and starts the
    // commands (attrd_updater, the hook) one after the other, never waiting for one here.
    void step(const Engine &engine, Reporter &reporter);
    // At a clean stop: waits briefly for a running command, then removes the attribute, so that
    // no colour outlives the monitor that set it.
    void finish(Reporter &reporter);

private:
    struct Command {
        std::vector<std::string> argv;
        std::vector<std::string> env;  // NAME=VALUE added to the environment
        bool hook = false;             // the operator's --on-change command
    };
    void reap(Reporter &reporter, bool block);
    void spawn_next(Reporter &reporter);

    std::vector<HealthResource> resources_;
    Colour colour_ = Colour::None;
    std::string why_;
    std::deque<Command> queue_;
    intptr_t child_ = -1;
    std::string child_what_;
    std::chrono::steady_clock::time_point child_started_{};
};

// `qmtrm run --sim FILE` re-reads the description whenever the file changes, so that disks can
// fail, hang and recover under a running host (docs/sim.md).
class SimFollower {
public:
    SimFollower();
    void step(Reporter &reporter);

private:
    std::string path_;
    std::string stamp_;
    std::chrono::steady_clock::time_point next_{};
};

} // namespace qmtrm
