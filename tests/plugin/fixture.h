// fixture.h - the sdw tests: a configuration writer and the service's start and end.
#pragma once

#include "world.h"

#include <string>
#include <vector>

namespace sdwtest {

struct Resource {
    std::string name;
    int timeout = 60;
    std::string object = "sd1";
    std::string guid = "00000000-0000-4000-8000-000000000001";
    bool guid_readable = true;
};

// Describes the sdw configuration to the configuration double: policy values, the delay ratio,
// the resource list and each resource's keys (server "node1").
void configure(const std::vector<Resource> &resources, int delay_ratio = 80, int log_level = 4,
               int log_size = 10000000);

using doubles::lines_like;
using doubles::lines_with;
using doubles::logged;
// Log lines "LEVEL|FUNCTION|text" written at or below `level`.
inline std::vector<std::string> lines_upto(int level) { return doubles::log_lines_upto(level); }
// Events written: "ID|text" with the ID in hex ("0xc0000e44|sdw1").
std::vector<std::string> events();

class PluginTest : public doubles::WorldTest {
protected:
    void end_service() override
    {
        if (gsdwInitCount != 0) uninit();
    }
    // Initialises the sdw service on the current configuration; asserts success.
    void init() { ASSERT_EQ(InitRscDll("qmtsdw", 0, 0), 0u); }
    void uninit() { EXPECT_EQ(UninitRscDll("qmtsdw", 0, 0), 0u); }
};

}  // namespace sdwtest
