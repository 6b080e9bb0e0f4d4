// Readers of the configuration store while the configuration is reloaded.
#include "cluster_test_util.h"
#include "xml_helpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

using namespace clustertest;

namespace {

std::string version_doc(int v)
{
    std::string n = std::to_string(v);
    return "<root><v>" + n + "</v><monitor><sdw name='a" + n + "'/><sdw name='b" + n +
           "'/></monitor></root>\n";
}

TEST(XmlStoreConcurrency, ReadersDuringReloadSeeWholeDocuments)
{
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    setenv("QMT_CONF_DIR", dir.path().c_str(), 1);
    const std::string conf = dir.path() + "/clp.conf";
    write_file(conf, version_doc(0));
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ASSERT_EQ(xmllib_load_config(1), 0);

    constexpr int kVersions = 200;
    std::atomic<bool> done{false};
    std::atomic<long> bad{0}, reads{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            int last = 0;
            while (!done.load()) {
                Int v = get_int("/root/v");
                if (v.rc != 0 || v.value < last || v.value > kVersions)
                    ++bad;
                last = v.value;
                // One enumeration comes from one document: both names of one version.
                Names n = enum_names("/root/monitor/sdw");
                if (n.size_rc != 0 || n.names.size() != 2 ||
                    n.names[0].substr(1) != n.names[1].substr(1))
                    ++bad;
                ++reads;
            }
        });
    }
    int reload_failures = 0;
    for (int v = 1; v <= kVersions; ++v) {
        // Replace the file in one step, as an editor or a deployment would.
        std::string tmp = conf + ".new";
        write_file(tmp, version_doc(v));
        std::rename(tmp.c_str(), conf.c_str());
        if (xmllib_reload_config(1) != 0)
            ++reload_failures;
    }
    done = true;
    for (auto &t : readers)
        t.join();
    EXPECT_EQ(reload_failures, 0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(get_int("/root/v").value, kVersions);
    EXPECT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(xmllib_term(), 0);
    unsetenv("QMT_CONF_DIR");
}

}  // namespace
