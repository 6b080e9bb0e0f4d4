// The sdw exports: initialisation and its unwinding, teardown, the monitoring pass and the
// control requests.
#include "fixture.h"

#include <algorithm>
#include <atomic>
#include <thread>

using namespace sdwtest;
using qmtp::sim::Behaviour;

namespace {

class ExportsTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        configure({{"sdw1", 60, "sd1", "00000000-0000-4000-8000-000000000001"}, {"sdw2", 60, "sd2", "00000000-0000-4000-8000-000000000002"}, {"sdw3", 60, "sd3", ""}});
        qmtp::sim::set_volume("00000000-0000-4000-8000-000000000001", {0});
        qmtp::sim::set_volume("00000000-0000-4000-8000-000000000002", {1, 2});
        for (DWORD d : {0u, 1u, 2u}) qmtp::sim::set_disk(d, {});
        doubles::set_status_text(0, "Normal");
        doubles::set_status_text(5, "Disk check failed");
    }
};

TEST_F(ExportsTest, InitialisesPassesTearsDownAndInitialisesAgain)
{
    const bool first_in_process = gsdwlpVersion == nullptr;
    init();
    EXPECT_EQ(gsdwInitCount, 1u);
    ASSERT_EQ(gsdwRscCount, 3u);
    for (uint32_t i = 0; i < gsdwRscCount; i++) EXPECT_NE(gsdwlpRsc[i].mutex, nullptr);
    EXPECT_EQ(logged("4|InitRscDll|***** 1.2.3.4/5.6.7.8 *****"), first_in_process);
    EXPECT_TRUE(logged("4|InitRscDll|Start - (DllName=qmtsdw DllType=0 ExecMode=0)"));
    EXPECT_TRUE(doubles::string_table_loaded());
    const std::vector<std::string> calls = doubles::service_calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "QmtLoadStringTable(sdw|0)"), 1);
    EXPECT_EQ(doubles::log_lines_upto(QMTLOG_WARNING), std::vector<std::string>{}) << "a clean start reports no failure";
    EXPECT_TRUE(doubles::cm_attached() && doubles::rm_attached());
    EXPECT_EQ(doubles::policies_loaded(), (std::vector<std::string>{"sdw", "rm"}));

    EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u);
    EXPECT_EQ(doubles::description("sdw", "sdw1"), "Normal");
    qmtp::sim::set_disk(2, {Behaviour::Refuse, 0, 21});
    EXPECT_EQ(DoMontr("sdw", "sdw2"), 5u);
    EXPECT_EQ(gsdwlpRsc[1].result, 5);
    EXPECT_EQ(doubles::description("sdw", "sdw2"), "Disk check failed");
    EXPECT_TRUE(logged("8|DoMontr|Status of sdw2 is 5)"));

    uninit();
    EXPECT_EQ(gsdwInitCount, 0u);
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_EQ(gsdwhLog, nullptr);
    EXPECT_FALSE(doubles::string_table_loaded());
    EXPECT_FALSE(doubles::log_open());
    EXPECT_TRUE(doubles::policies_loaded().empty());

    // Once per process: the second initialisation writes no banner but reloads everything.
    doubles::clear_calls();
    init();
    EXPECT_TRUE(lines_with("*****").empty());
    EXPECT_TRUE(doubles::string_table_loaded());
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u);
}

TEST_F(ExportsTest, APassPublishesItsStatusTextAndAFailedPublicationIsOnlyLogged)
{
    init();
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u);
    EXPECT_EQ(lines_with("|SdwSetShmDescription|"),
              (std::vector<std::string>{"32|SdwSetShmDescription|Start - (Name=sdw1 Err=Normal ErrLen=256)",
                                        "32|SdwSetShmDescription|End - ()"}));
    doubles::clear_calls();
    doubles::fail("shmrm_setdescript", 5);
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u);
    EXPECT_EQ(lines_upto(QMTLOG_WARNING),
              std::vector<std::string>{"1|SdwSetShmDescription|shmrm_setdescript() failed. (Ret=5 Name=sdw1 Err=Normal ErrLen=256)"});
    uninit();
}

TEST_F(ExportsTest, TeardownCallsInItsOrderAndTheLastLinesGoOutWithAndWithoutTheLog)
{
    init();
    doubles::clear_calls();
    uninit();
    const std::vector<std::string> expected = {
        "shmcm_detach()", "shmrm_detach()", "xmllib_unload_config()", "xmllib_unload_policy(rm)",
        "xmllib_unload_policy(sdw)", "xmllib_term()", "QmtUnloadStringTable()", "QmtLogClose()"};
    std::vector<std::string> calls = doubles::service_calls();
    calls.erase(std::remove_if(calls.begin(), calls.end(), [](const std::string &c) {
                    return c.rfind("QmtLogGetSettings", 0) == 0;
                }),
                calls.end());
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(doubles::log_lines_upto(QMTLOG_WARNING), std::vector<std::string>{}) << "a clean teardown reports no failure";
    // "End - (Ret=0)" twice: once into the open log, once after it was closed.
    std::vector<const doubles::Call *> ends;
    for (const doubles::Call &c : doubles::calls())
        if (c.function == "QmtLogWrite" && c.text == "End - (Ret=0)" && c.level == 4) ends.push_back(&c);
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_NE(ends[0]->log, nullptr);
    EXPECT_EQ(ends[1]->log, nullptr);
}

// Each step of the initialisation failing in turn: the message, the result 1, and the whole
// unwinding in its order, after which a new initialisation succeeds.
TEST_F(ExportsTest, EveryFailingStepUnwindsEverythingInOrder)
{
    struct Step {
        std::string fail;
        std::string message;
        bool table_loaded = true;  // the string table is unloaded in the unwinding
    };
    const std::vector<Step> steps = {
        {"cs_gethostname", "1|InitRscDll|cs_gethostname() failed. (Ret=9)", false},
        {"shmcm_attach", "1|InitRscDll|shmcm_attach() failed. (Ret=9)", false},
        {"shmrm_attach", "1|InitRscDll|shmrm_attach() failed. (Ret=9)", false},
        {"QmtLoadStringTable", "1|InitRscDll|QmtLoadStringTable() failed. (Ret=9)", false},
        {"xmllib_init", "1|InitRscDll|xmllib_init() failed. (Ret=0x9)"},
        {"xmllib_load_policy(sdw)", "1|InitRscDll|xmllib_load_policy() failed. (Ret=0x9 type=sdw)"},
        {"xmllib_load_policy(rm)", "1|InitRscDll|xmllib_load_policy() failed. (Ret=0x9 type=rm)"},
        {"xmllib_load_config", "1|InitRscDll|xmllib_load_config() failed. (Ret=0x9)"},
        {"xmllib_enum_value", "1|InitRscDll|SdwGetConfig() failed. (Ret=99)"},
    };
    const std::vector<std::string> unwind = {
        "xmllib_unload_config()", "xmllib_unload_policy(rm)", "xmllib_unload_policy(sdw)", "xmllib_term()",
        "shmcm_detach()", "shmrm_detach()"};
    for (const Step &step : steps) {
        doubles::clear_calls();
        doubles::fail(step.fail, 9);
        EXPECT_EQ(InitRscDll("qmtsdw", 0, 0), 1u) << step.fail;
        EXPECT_TRUE(logged(step.message)) << step.fail;
        std::vector<std::string> calls = doubles::service_calls();
        auto at = std::find(calls.begin(), calls.end(), unwind[0]);
        ASSERT_NE(at, calls.end()) << step.fail;
        std::vector<std::string> tail(at, calls.end());
        std::vector<std::string> expected = unwind;
        if (step.table_loaded) expected.push_back("QmtUnloadStringTable()");
        expected.push_back("QmtLogClose()");
        EXPECT_EQ(tail, expected) << step.fail;
        EXPECT_EQ(gsdwInitCount, 0u);
        EXPECT_EQ(gsdwlpRsc, nullptr);
        EXPECT_EQ(gsdwhLog, nullptr);
        EXPECT_EQ(gsdwhStringTable, nullptr);
        EXPECT_FALSE(doubles::xml_initialised() || doubles::config_loaded() || doubles::cm_attached() ||
                     doubles::rm_attached() || doubles::string_table_loaded());
        EXPECT_TRUE(doubles::policies_loaded().empty());
    }
    init();
}

TEST_F(ExportsTest, ARecordLockThatCannotBeCreatedGives99AndUnwinds)
{
    qmtp_fault_set("CreateMutexA", 2, 1450);
    EXPECT_EQ(InitRscDll("qmtsdw", 0, 0), 99u);
    EXPECT_TRUE(logged("1|InitRscDll|CreateMutex() failed. (Err=1450)"));
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_EQ(gsdwInitCount, 0u);
    qmtp_fault_clear();
    init();
}

TEST_F(ExportsTest, PolicyLogSettingsAreAdoptedOnlyOverTheDefaults)
{
    configure({{"sdw1"}}, 80, 8, 20000000);
    init();
    EXPECT_EQ(doubles::log_level(), 8);
    EXPECT_EQ(doubles::log_size(), 20000000);
    uninit();
    doubles::set_log_settings(16, 30000000);
    init();
    EXPECT_EQ(doubles::log_level(), 16);
    EXPECT_EQ(doubles::log_size(), 30000000);
}

TEST_F(ExportsTest, UninitRefusesWhileAPassRunsAndCompletesAfterIt)
{
    init();
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    std::thread pass([] { EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u); });
    while (qmtp::sim::pending_count(0) == 0) Sleep(1);
    EXPECT_EQ(UninitRscDll("qmtsdw", 0, 0), 0u);
    EXPECT_EQ(gsdwInitCount, 1u) << "nothing torn down under a running pass";
    EXPECT_NE(gsdwlpRsc, nullptr);
    qmtp::sim::release(0);
    pass.join();
    uninit();
    EXPECT_EQ(gsdwInitCount, 0u);
}

TEST_F(ExportsTest, ASecondPassOnABusyRecordAnswersTheLastStatusAndTouchesNothing)
{
    // Two resources configured under one name share the first one's record.
    configure({{"sdw1", 60, "sd1", "00000000-0000-4000-8000-000000000001"},
               {"sdw1", 60, "sd1", "00000000-0000-4000-8000-000000000001"}});
    init();
    ASSERT_EQ(DoMontr("sdw", "sdw1"), 0u);
    qmtp::sim::set_disk(0, {Behaviour::Refuse, 0, 21});
    ASSERT_EQ(DoMontr("sdw", "sdw1"), 5u);
    qmtp::sim::set_disk(0, {Behaviour::Hang, 0, 0});
    std::thread pass([] { EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u); });
    while (qmtp::sim::pending_count(0) == 0) Sleep(1);
    SDW_RSC *r = &gsdwlpRsc[0];
    VOLUME_DISK_EXTENTS *extents = r->extents;
    HANDLE *handles = r->device_handles;
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 5u);
    EXPECT_EQ(r->extents, extents);
    EXPECT_EQ(r->device_handles, handles);
    EXPECT_EQ(r->is_do_montr, 1);
    EXPECT_EQ(qmtp::sim::probe_count(0), 3u);
    qmtp::sim::set_disk(0, {});
    qmtp::sim::release(0);
    pass.join();
    EXPECT_EQ(r->is_do_montr, 0);
    EXPECT_EQ(DoMontr("sdw", "sdw1"), 0u) << "the record is free again";
    EXPECT_EQ(qmtp::sim::probe_count(0), 4u);
}

TEST_F(ExportsTest, ConcurrentPassesAndControlRequestsOnSeveralResources)
{
    init();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    // One pass at a time per resource, as a host runs them; resources run side by side.
    for (const char *name : {"sdw1", "sdw2"}) {
        threads.emplace_back([name] {
            for (int i = 0; i < 80; i++) EXPECT_EQ(DoMontr("sdw", name), 0u);
        });
    }
    std::thread control([&] {
        while (!stop) {
            MontrStatusChange("sdw", "sdw1", 0x110);
            MontrStatusChange("sdw", "sdw2", 0x11);
        }
    });
    for (auto &t : threads) t.join();
    stop = true;
    control.join();
    EXPECT_EQ(gsdwlpRsc[0].is_do_montr, 0);
    EXPECT_EQ(gsdwlpRsc[1].is_do_montr, 0);
}

}  // namespace
