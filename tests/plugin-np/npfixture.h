// npfixture.h - the disknp tests: a configuration writer, the service's start and end, and the
// worker's controls.
#pragma once

#include "world.h"

#include <string>
#include <vector>

namespace nptest {

// A volume GUID of the simulated storage, different for each n.
std::string vol(unsigned n);

struct NpResource {
    std::string name;
    int timeout = 1;
    int interval = 1;
    int count = 0;
    int device = 0;
    std::string guid = vol(0);
};

// Describes the disknp configuration to the configuration double (server "node1"): policy
// values, the heartbeat delay ratio, the resource list, each resource's keys and device GUID.
void configure(const std::vector<NpResource> &resources, int delay_ratio = 80);
std::string key_of(const std::string &name, const std::string &item);

using doubles::line_index;
using doubles::lines_like;
using doubles::lines_with;
using doubles::logged;

using doubles::hex;
using doubles::hexnum;
using doubles::wait_for;

class NpTest : public doubles::WorldTest {
protected:
    void SetUp() override;
    void end_service() override;
    // Initialises the disknp service on the current configuration; asserts success.
    void init();
    SDW_RSC *rsc(const std::string &name);
    DWORD start(const std::string &name) { return NpMontrStatusChange("disknp", name.c_str(), SDW_CTRL_START); }
    DWORD stop(const std::string &name) { return NpMontrStatusChange("disknp", name.c_str(), SDW_CTRL_STOP); }
    BYTE checkpoint(const std::string &name) { return GetCheckPoint(name.c_str()); }
    // Waits until the worker is probing and `disk` holds the probe: the check point is set
    // before the probe goes out, so the check point alone races the issue.
    bool holds_probe(const std::string &name, DWORD disk)
    {
        return wait_for([&] { return checkpoint(name) == SDW_CP_PROBING && qmtp::sim::pending_count(disk) == 1; }, 3000);
    }
};

}  // namespace nptest
