// The recording doubles answer, record and fail the way the plug-in's tests rely on.

#include "doubles.h"
#include "qmtlog.h"
#include "qmtshm.h"
#include "qmtutil.h"
#include "qmtxml.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

class Doubles : public ::testing::Test {
protected:
    void SetUp() override { doubles::reset(); }
};

using Lines = std::vector<std::string>;

TEST_F(Doubles, LogWriteRecordsFormattedTextAndArguments) {
    HANDLE log = nullptr;
    ASSERT_EQ(QmtLogOpen("sdw", &log, 4, 10000000, 0, "Global\\ORVQMT_SDW_LOG"), 0);
    EXPECT_EQ(log, doubles::log_handle());
    EXPECT_TRUE(doubles::log_open());
    std::string long_text(3000, 'x');
    EXPECT_EQ(QmtLogWrite(log, 1, 0, "src\\sdw.cpp", 42, "InitRscDll", "shmcm_attach() failed. (Ret=%d)", 5), 0);
    EXPECT_EQ(QmtLogWrite(nullptr, 8, 0, "f.cpp", 7, "Fn", "%s", long_text.c_str()), 0);
    EXPECT_EQ(QmtLogWrite(log, QMTLOG_EVENT, 0x80000E43u, "f.cpp", 9, "SdwMonitor", "%s%d%d%d", "disk1", 60, 48001, 80), 0);

    EXPECT_EQ(doubles::log_lines(), (Lines{"1|InitRscDll|shmcm_attach() failed. (Ret=5)", "8|Fn|" + long_text,
                                          "32768|SdwMonitor|disk1604800180"}));
    EXPECT_EQ(doubles::log_lines_upto(4), (Lines{"1|InitRscDll|shmcm_attach() failed. (Ret=5)"}));
    const auto &c = doubles::calls();
    ASSERT_EQ(c.size(), 4u);
    EXPECT_EQ(c[1].file, "src\\sdw.cpp");
    EXPECT_EQ(c[1].line, 42);
    EXPECT_EQ(c[1].log_function, "InitRscDll");
    EXPECT_EQ(c[1].log, log);
    EXPECT_EQ(c[2].log, nullptr);
    EXPECT_EQ(c[3].event, 0x80000E43u);
    EXPECT_EQ(doubles::service_calls(), (Lines{"QmtLogOpen(sdw|4|10000000|0|Global\\ORVQMT_SDW_LOG)"}));
}

TEST_F(Doubles, LogSettingsStartAtDefaultsAndChangeOnlyNonZeroValues) {
    int level = 0, size = 0;
    ASSERT_EQ(QmtLogGetSettings("sdw", &level, &size, 0), 0);
    EXPECT_EQ(level, 4);
    EXPECT_EQ(size, 10000000);
    ASSERT_EQ(QmtLogSetSettings("sdw", 8, 0, 0), 0);
    ASSERT_EQ(QmtLogSetSettings("sdw", 0, 2000000, 0), 0);
    level = 0;
    ASSERT_EQ(QmtLogGetSettings("sdw", &level, nullptr, 0), 0);
    EXPECT_EQ(level, 8);
    EXPECT_EQ(doubles::log_size(), 2000000);
    doubles::set_log_settings(16, 3000000);
    EXPECT_EQ(doubles::log_level(), 16);
    EXPECT_EQ(doubles::service_calls(), (Lines{"QmtLogSetSettings(sdw|8|0|0)", "QmtLogSetSettings(sdw|0|2000000|0)"}));
    EXPECT_EQ(doubles::calls()[3].args, "sdw|nosize|0");
}

TEST_F(Doubles, ReleasingWhatIsNotHeldFailsAndChangesNothing) {
    EXPECT_EQ(xmllib_unload_config(), 5);
    EXPECT_EQ(xmllib_unload_policy("rm"), 5);
    EXPECT_EQ(xmllib_term(), 5);
    EXPECT_EQ(shmcm_detach(), 5);
    EXPECT_EQ(shmrm_detach(), 5);
    EXPECT_EQ(QmtUnloadStringTable(nullptr), 5);
    EXPECT_EQ(QmtLogClose(nullptr), 5);

    HANDLE table = nullptr;
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ASSERT_EQ(xmllib_load_policy("sdw"), 0);
    ASSERT_EQ(xmllib_load_policy("rm"), 0);
    ASSERT_EQ(xmllib_load_config(1), 0);
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(QmtLoadStringTable("sdw", 0, &table), 0);
    EXPECT_EQ(table, doubles::string_table_handle());
    EXPECT_EQ(doubles::policies_loaded(), (Lines{"sdw", "rm"}));
    EXPECT_TRUE(doubles::config_loaded());
    EXPECT_TRUE(doubles::xml_initialised());
    EXPECT_TRUE(doubles::cm_attached());
    EXPECT_FALSE(doubles::rm_attached());
    EXPECT_TRUE(doubles::string_table_loaded());

    EXPECT_EQ(xmllib_unload_policy("rm"), 0);
    EXPECT_EQ(xmllib_unload_policy("rm"), 5);
    EXPECT_EQ(doubles::policies_loaded(), (Lines{"sdw"}));
    EXPECT_EQ(QmtUnloadStringTable(table), 0);
    EXPECT_FALSE(doubles::string_table_loaded());
    EXPECT_EQ(shmcm_detach(), 0);
    EXPECT_FALSE(doubles::cm_attached());
}

TEST_F(Doubles, FailOverridesTheGivenNumberOfCallsOnly) {
    doubles::fail("xmllib_load_policy", 0x1234, 2);
    EXPECT_EQ(xmllib_load_policy("sdw"), 0x1234);
    EXPECT_EQ(xmllib_load_policy("rm"), 0x1234);
    EXPECT_EQ(xmllib_load_policy("rm"), 0);
    EXPECT_EQ(doubles::policies_loaded(), (Lines{"rm"}));
    EXPECT_EQ(doubles::service_calls(),
              (Lines{"xmllib_load_policy(sdw)", "xmllib_load_policy(rm)", "xmllib_load_policy(rm)"}));

    doubles::fail("QmtLogOpen", 7);
    HANDLE log = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(1));
    EXPECT_EQ(QmtLogOpen("sdw", &log, 4, 10000000, 0, "m"), 7);
    EXPECT_EQ(log, nullptr);
    EXPECT_FALSE(doubles::log_open());
}

TEST_F(Doubles, GetValueAnswersIntsAndTextsWithinTheGivenSize) {
    doubles::set_int("/root/monitor/sdw@d1/polling/timeout", 60);
    doubles::set_text("/root/monitor/sdw@d1/parameters/volumeguid", "0123456789");
    int32_t v = 0;
    int size = 4;
    ASSERT_EQ(xmllib_get_value("/root/monitor/sdw@d1/polling/timeout", XMLLIB_KIND_INT, &v, &size), 0);
    EXPECT_EQ(v, 60);

    char text[11];
    std::memset(text, 'z', sizeof text);
    size = 11;
    ASSERT_EQ(xmllib_get_value("/root/monitor/sdw@d1/parameters/volumeguid", XMLLIB_KIND_TEXT, text, &size), 0);
    EXPECT_STREQ(text, "0123456789");
    size = 10;
    EXPECT_EQ(xmllib_get_value("/root/monitor/sdw@d1/parameters/volumeguid", XMLLIB_KIND_TEXT, text, &size), 122);
    EXPECT_EQ(size, 11);

    size = 4;
    EXPECT_EQ(xmllib_get_value("/root/none", XMLLIB_KIND_INT, &v, &size), 2);
    doubles::fail_key("/root/monitor/sdw@d1/polling/timeout", 9);
    EXPECT_EQ(xmllib_get_value("/root/monitor/sdw@d1/polling/timeout", XMLLIB_KIND_INT, &v, &size), 9);
    doubles::erase_key("/root/monitor/sdw@d1/parameters/volumeguid");
    size = 11;
    EXPECT_EQ(xmllib_get_value("/root/monitor/sdw@d1/parameters/volumeguid", XMLLIB_KIND_TEXT, text, &size), 2);
}

TEST_F(Doubles, EnumValueCountsThenFillsSlots) {
    doubles::set_names("/root/monitor/sdw", {"disk1", "disk2"});
    int size = 0;
    ASSERT_EQ(xmllib_enum_value("/root/monitor/sdw", nullptr, &size), 0);
    ASSERT_EQ(size, 512);
    std::vector<char> buf(512, 0);
    ASSERT_EQ(xmllib_enum_value("/root/monitor/sdw", buf.data(), &size), 0);
    EXPECT_STREQ(buf.data(), "disk1");
    EXPECT_STREQ(buf.data() + 256, "disk2");

    doubles::set_names("/root/monitor/disknp", {});
    size = 0;
    EXPECT_EQ(xmllib_enum_value("/root/monitor/disknp", nullptr, &size), 0);
    EXPECT_EQ(size, 0);
    size = 0;
    EXPECT_EQ(xmllib_enum_value("/root/monitor/none", nullptr, &size), 2);

    doubles::fail_key("/root/monitor/sdw", 3);
    size = 0;
    EXPECT_EQ(xmllib_enum_value("/root/monitor/sdw", nullptr, &size), 3);
    EXPECT_EQ(size, 512);
}

TEST_F(Doubles, SharedMemoryHostNameAndStatusTexts) {
    doubles::set_ratio(3);
    int ratio = 0;
    unsigned char extra[16];
    ASSERT_EQ(shmcm_getratio(&ratio, extra), 0);
    EXPECT_EQ(ratio, 3);
    ASSERT_EQ(shmrm_setmonprogress("sdw", "disk1", QMT_DOMONTR_MONSTART), 0);
    ASSERT_EQ(shmrm_setmonprogress("sdw", "disk1", QMT_DOMONTR_MONEND), 0);
    EXPECT_EQ(doubles::progress("sdw", "disk1"), (std::vector<int>{3, 4}));
    char desc[256] = "Normal";
    ASSERT_EQ(shmrm_setdescript(nullptr, "sdw", "disk1", desc, 256), 0);
    EXPECT_EQ(doubles::description("sdw", "disk1"), "Normal");

    doubles::set_hostname("server-a");
    char host[256] = {};
    ASSERT_EQ(cs_gethostname(host, 256, 1, nullptr), 0);
    EXPECT_STREQ(host, "server-a");

    HANDLE table = nullptr;
    char text[8];
    std::memset(text, 'z', sizeof text);
    EXPECT_EQ(QmtGetStatusText(doubles::string_table_handle(), 0, text, 8, 0), 6);
    ASSERT_EQ(QmtLoadStringTable("sdw", 0, &table), 0);
    doubles::set_status_text(5, "Disk check failed");
    ASSERT_EQ(QmtGetStatusText(table, 5, text, 8, 0), 0);
    EXPECT_STREQ(text, "Disk ch");
    EXPECT_NE(QmtGetStatusText(table, 77, text, 8, 0), 0);
    EXPECT_STREQ(text, "Disk ch");

    EXPECT_EQ(doubles::service_calls(),
              (Lines{"shmcm_getratio()", "shmrm_setmonprogress(sdw|disk1|3)", "shmrm_setmonprogress(sdw|disk1|4)",
                     "shmrm_setdescript(sdw|disk1|Normal|256)", "cs_gethostname(256|1)",
                     "QmtGetStatusText(0|8|0)", "QmtLoadStringTable(sdw|0)", "QmtGetStatusText(5|8|0)",
                     "QmtGetStatusText(77|8|0)"}));
}

TEST_F(Doubles, ConcurrentWritersLoseNoCall) {
    constexpr int kThreads = 4, kPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                QmtLogWrite(nullptr, 2, 0, "f.cpp", t, "Fn", "t%d i%d", t, i);
                int32_t v;
                int size = 4;
                xmllib_get_value("/root/x", XMLLIB_KIND_INT, &v, &size);
            }
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(doubles::log_lines().size(), static_cast<size_t>(kThreads * kPerThread));
    EXPECT_EQ(doubles::service_calls().size(), static_cast<size_t>(kThreads * kPerThread));
    std::vector<int> next(kThreads, 0);
    for (const auto &c : doubles::calls()) {
        if (c.function != "QmtLogWrite") continue;
        // Each thread's own calls stay in the order it made them.
        EXPECT_EQ(c.text, "t" + std::to_string(c.line) + " i" + std::to_string(next[c.line]));
        ++next[c.line];
    }
}

}  // namespace
