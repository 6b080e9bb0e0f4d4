#include "fixture.h"

#include "qmtrsrc.h"

#include <cstdlib>

// The banner reads the executable's own version resource.
QMT_VERSION_RESOURCE(1, 2, 3, 4, 5, 6, 7, 8);

namespace sdwtest {

void configure(const std::vector<Resource> &resources, int delay_ratio, int log_level, int log_size)
{
    doubles::set_text("/root/monitor/sdw/type", "sdw");
    doubles::set_int("/root/monitor/sdw/log/level", log_level);
    doubles::set_int("/root/monitor/sdw/log/size", log_size);
    doubles::set_int("/root/cluster/delaywarn/monitor", delay_ratio);
    std::vector<std::string> names;
    for (const Resource &r : resources) {
        names.push_back(r.name);
        doubles::set_int("/root/monitor/sdw@" + r.name + "/polling/timeout", r.timeout);
        doubles::set_text("/root/monitor/sdw@" + r.name + "/parameters/object", r.object);
        const std::string guid_key = "/root/resource/sd@" + r.object + "/server@node1/parameters/volumeguid";
        if (r.guid_readable) {
            doubles::set_text(guid_key, r.guid);
        } else {
            doubles::erase_key(guid_key);
        }
    }
    doubles::set_names("/root/monitor/sdw", names);
}

std::vector<std::string> events()
{
    std::vector<std::string> out;
    for (const doubles::Call &c : doubles::calls()) {
        if (c.function == "QmtLogWrite" && c.level == QMTLOG_EVENT) {
            out.push_back(doubles::hexnum(c.event) + "|" + c.text);
        }
    }
    return out;
}

}  // namespace sdwtest

int main(int argc, char **argv)
{
#ifdef QMT_STORAGE_LINUX
    // The platform picks its storage at first use, from its own environment.
    setenv("QMT_STORAGE", "linux", 1);
#endif
    return doubles::run_tests(argc, argv, {"sdw1", "sdw2", "sdw3", "r1", "r2", "disk-a", "abcdefghijklmnopqrstuvwxyz01234"});
}
