// qmtrm_health.cpp - the node's disk health: a colour from the resources' statuses, published
// through Pacemaker's attrd_updater and an operator's hook when it changes.
#include "qmtrm_health.h"

#include "qmtplat.h"
#include "qmtrm_platform.h"
#include "qmtxml.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <thread>

namespace qmtrm {

namespace {

struct Options {
    std::string attribute;
    std::string on_change;
};
Options options;

// A command that has not ended by then is killed: attrd_updater answers in well under a second
// when the cluster runs, and a hook must not hold the next colour back for long.
constexpr auto kCommandLimit = std::chrono::seconds(20);

bool int_value(const std::string &key, int *value)
{
    int32_t v = 0;
    int size = sizeof v;
    if (xmllib_get_value(key.c_str(), XMLLIB_KIND_INT, &v, &size) != 0)
        return false;
    *value = v;
    return true;
}

std::string describe(const std::string &name, DWORD status)
{
    std::string text = status_text(status);
    return name + ": status " + std::to_string(status) + (text.empty() ? "" : " (" + text + ")");
}

} // namespace

const char *colour_name(Colour colour)
{
    switch (colour) {
    case Colour::Green:
        return "green";
    case Colour::Yellow:
        return "yellow";
    case Colour::Red:
        return "red";
    default:
        return "none";
    }
}

Colour node_colour(const std::vector<Engine::State> &states, const std::vector<HealthResource> &resources,
                   std::string *why)
{
    std::vector<std::string> red, yellow, idle;
    size_t watched = 0, known = 0;
    for (size_t i = 0; i < states.size() && i < resources.size(); ++i) {
        const Engine::State &v = states[i];
        const std::string &name = resources[i].name;
        if (!resources[i].watching) {
            idle.push_back(name);
            continue;
        }
        ++watched;
        if (v.overdue)
            red.push_back(name + ": pass overdue");
        else if (v.known && v.status != 0)
            red.push_back(describe(name, v.status));
        else if (v.known && resources[i].delay_s > 0 && v.last_pass_s >= resources[i].delay_s)
            yellow.push_back(name + ": pass delayed");
        known += v.known ? 1 : 0;
    }
    auto join = [](const std::vector<std::string> &parts) {
        std::string out;
        for (const auto &p : parts)
            out += (out.empty() ? "" : "; ") + p;
        return out;
    };
    std::string nothing = idle.empty() ? "" : "; watching nothing: " + join(idle);
    if (!red.empty()) {
        *why = join(red) + nothing;
        return Colour::Red;
    }
    if (watched == 0) {
        *why = states.empty() ? "no resource configured"
                            : "no resource watches a disk on this server (" + join(idle) + ")";
        return Colour::Yellow;
    }
    if (known < watched) {
        why->clear();
        return Colour::None;
    }
    if (!yellow.empty()) {
        *why = join(yellow) + nothing;
        return Colour::Yellow;
    }
    *why = "all " + std::to_string(watched) + " watched resource(s) normal" + nothing;
    return Colour::Green;
}

void add_health_options(CLI::App *run)
{
    run->add_option("--health-attribute", options.attribute,
                    "Node attribute that gets the health colour (red, yellow, green) through attrd_updater "
                    "at every change, e.g. '#health-qmtsdw'; removed at a clean stop");
    run->add_option("--on-change", options.on_change,
                    "Shell command run at every change of the health colour, with QMT_HEALTH, "
                    "QMT_HEALTH_PREVIOUS and QMT_HEALTH_REASON in its environment");
}

Health::Health(Service service, const std::vector<BoardEntry> &rows)
{
    // The plug-in reports a sdw probe as delayed from this share of the scaled time-out;
    // disknp reports no delays.
    int delay_ratio = 80;
    if (service == Service::Sdw && xmllib_init("rm") == 0) {
        if (xmllib_load_config(1) != 0 || !int_value("/root/cluster/delaywarn/monitor", &delay_ratio) ||
            static_cast<unsigned>(delay_ratio) > 100)
            delay_ratio = 80;
        xmllib_unload_config();
        xmllib_term();
    }
    for (const BoardEntry &row : rows)
        resources_.push_back(HealthResource{row.name, (row.flags & kRowNoVolume) == 0,
                                            service == Service::Sdw ? delay_ratio / 100.0 * row.timeout_s : 0});
}

Health::~Health()
{
    if (child_ != -1)
        platform::kill_command(child_);
}

void Health::step(const Engine &engine, Reporter &reporter)
{
    reap(reporter, false);
    std::vector<HealthResource> scaled = resources_;
    int ratio = current_ratio();
    for (auto &r : scaled)
        r.delay_s *= ratio;
    std::string why;
    Colour colour = node_colour(engine.snapshot(), scaled, &why);
    if (colour != Colour::None && (colour != colour_ || why != why_)) {
        bool changed = colour != colour_;
        reporter.line("", std::string("health ") + colour_name(colour) + ": " + why);
        if (changed) {
            // A newer colour supersedes the commands of an older one that have not started yet.
            queue_.clear();
            if (!options.attribute.empty())
                queue_.push_back({{"attrd_updater", "-n", options.attribute, "-U", colour_name(colour)}, {}});
            if (!options.on_change.empty())
                queue_.push_back({platform::shell_command(options.on_change),
                                  {std::string("QMT_HEALTH=") + colour_name(colour),
                                   std::string("QMT_HEALTH_PREVIOUS=") + colour_name(colour_),
                                   "QMT_HEALTH_REASON=" + why},
                                  true});
        }
        colour_ = colour;
        why_ = why;
    }
    spawn_next(reporter);
}

void Health::finish(Reporter &reporter)
{
    queue_.clear();
    reap(reporter, true);
    if (options.attribute.empty())
        return;
    queue_.push_back({{"attrd_updater", "-n", options.attribute, "-D"}, {}});
    spawn_next(reporter);
    reap(reporter, true);
}

void Health::spawn_next(Reporter &reporter)
{
    if (child_ != -1 || queue_.empty())
        return;
    Command cmd = std::move(queue_.front());
    queue_.pop_front();
    child_what_ = cmd.hook ? "--on-change command" : cmd.argv[0];
    std::string why;
    if (!platform::start_command(cmd.argv, cmd.env, &child_, &why)) {
        child_ = -1;
        reporter.line("", "health: cannot run " + child_what_ + ": " + why);
        return;
    }
    child_started_ = std::chrono::steady_clock::now();
}

void Health::reap(Reporter &reporter, bool block)
{
    while (child_ != -1) {
        std::string failure;
        if (platform::command_ended(child_, &failure)) {
            child_ = -1;
            if (!failure.empty())
                reporter.line("", "health: " + child_what_ + " failed (" + failure + ")");
            if (block)
                spawn_next(reporter);
            continue;
        }
        if (std::chrono::steady_clock::now() - child_started_ >= kCommandLimit) {
            reporter.line("", "health: " + child_what_ + " still running after " +
                                  std::to_string(kCommandLimit.count()) + " s; killed");
            platform::kill_command(child_);
            child_ = -1;
            continue;
        }
        if (!block)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

SimFollower::SimFollower()
{
    const char *file = std::getenv("QMT_SIM_FILE");
    if (file == nullptr || *file == '\0' || std::strcmp(qmtp_storage_name(), "sim") != 0)
        return;
    path_ = file;
    stamp_ = platform::file_stamp(path_);
}

void SimFollower::step(Reporter &reporter)
{
    auto now = std::chrono::steady_clock::now();
    if (path_.empty() || now < next_)
        return;
    next_ = now + std::chrono::milliseconds(500);
    std::string stamp = platform::file_stamp(path_);
    if (stamp.empty() || stamp == stamp_)
        return;
    stamp_ = stamp;
    std::string why;
    if (qmtp::sim::load_file(path_, &why))
        reporter.line("", "sim: " + path_ + " changed; simulated disks reloaded");
    else
        reporter.line("", "sim: " + path_ + " changed but not reloaded: " + why);
}

} // namespace qmtrm
