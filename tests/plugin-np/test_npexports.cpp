// The disknp exports: initialisation and its unwinding, teardown, the status query, the check
// point and the control requests.
#include "npfixture.h"

#include <algorithm>

using namespace nptest;
using qmtp::sim::Behaviour;

namespace {

class NpExportsTest : public NpTest {
protected:
    void SetUp() override
    {
        NpTest::SetUp();
        configure({{"np1", 300, 60, 0, 0, vol(0)}, {"np2", 300, 60, 0, 1, vol(1)},
                   {"np3", 300, 60, 0, 2, vol(2)}});
        qmtp::sim::set_volume(vol(0), {0});
        qmtp::sim::set_volume(vol(1), {1});
        qmtp::sim::set_volume(vol(2), {2});
        for (DWORD d : {0u, 1u, 2u}) qmtp::sim::set_disk(d, {});
    }
};

std::vector<std::string> without_config_reads(const std::vector<std::string> &calls)
{
    std::vector<std::string> out;
    for (const std::string &c : calls) {
        if (c.rfind("xmllib_get_value(", 0) != 0 && c.rfind("xmllib_enum_value(", 0) != 0) out.push_back(c);
    }
    return out;
}

TEST_F(NpExportsTest, InitialisesInOrderAndTearsDownInReverse)
{
    init();
    EXPECT_EQ(gsdwInitCount, 1u);
    ASSERT_EQ(gsdwRscCount, 3u);
    for (uint32_t i = 0; i < gsdwRscCount; i++) EXPECT_EQ(gsdwlpRsc[i].mutex, nullptr);
    EXPECT_EQ(without_config_reads(doubles::service_calls()),
              (std::vector<std::string>{"QmtLogOpen(sdw|4|10000000|0|Global\\ORVQMT_SDW_LOG)", "cs_gethostname(256|1)",
                                        "shmcm_attach()", "xmllib_init(sdw)", "xmllib_load_policy(sdw)",
                                        "xmllib_load_policy(disknp)", "xmllib_load_policy(nm)",
                                        "xmllib_load_config(1)", "QmtLogSetSettings(sdw|4|0|0)",
                                        "QmtLogSetSettings(sdw|0|10000000|0)"}));
    EXPECT_FALSE(doubles::rm_attached());
    EXPECT_FALSE(doubles::string_table_loaded());
    EXPECT_EQ(doubles::policies_loaded(), (std::vector<std::string>{"sdw", "disknp", "nm"}));
    EXPECT_TRUE(logged("4|InitNpRscDll|Start - (DllName=qmtsdw DllType=0 ExecMode=0)"));

    doubles::clear_calls();
    EXPECT_EQ(UninitNpRscDll("qmtsdw", 0, 0), 0u);
    EXPECT_EQ(doubles::service_calls(),
              (std::vector<std::string>{"shmcm_detach()", "xmllib_unload_config()", "xmllib_unload_policy(nm)",
                                        "xmllib_unload_policy(disknp)", "xmllib_unload_policy(sdw)", "xmllib_term()",
                                        "QmtLogClose()"}));
    EXPECT_EQ(gsdwInitCount, 0u);
    EXPECT_EQ(gsdwlpRsc, nullptr);
    EXPECT_EQ(gsdwhLog, nullptr);
    // The teardown's own End line, then the export's, the last after the log was closed.
    const std::vector<std::string> lines = doubles::log_lines_upto(4);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "4|UninitNpRscDll|End - (Ret=0)");
    EXPECT_EQ(lines.back(), "4|UninitNpRscDll|End - (Ret=0)");
    EXPECT_EQ(doubles::calls().back().log, nullptr);
}

// Each step of the initialisation failing in turn: its message, the result 1, and the whole
// unwinding in reverse order. What was never loaded answers 5; that is logged and the unwinding
// goes on.
TEST_F(NpExportsTest, EveryFailingStepSaysWhichAndUnwindsEverything)
{
    const std::vector<std::string> unwind = {"xmllib_unload_config()", "xmllib_unload_policy(nm)",
                                             "xmllib_unload_policy(disknp)", "xmllib_unload_policy(sdw)",
                                             "xmllib_term()", "shmcm_detach()", "QmtLogClose()"};
    struct Step {
        std::string fail;
        int result;
        std::vector<std::string> lines;
    };
    const Step steps[] = {
        {"cs_gethostname", 4,
         {"1|InitNpRscDll|cs_gethostname() failed. (Ret=4)", "1|InitNpRscDll|shmcm_detach() failed. (Ret=5)",
          "1|InitNpRscDll|xmllib_term() failed. (Ret=0x5)"}},
        {"shmcm_attach", 9, {"1|InitNpRscDll|shmcm_attach() failed. (Ret=9)"}},
        {"xmllib_init", 9, {"1|InitNpRscDll|xmllib_init() failed. (Ret=0x9)"}},
        {"xmllib_load_policy", 3,
         {"1|InitNpRscDll|xmllib_load_policy() failed. (Ret=0x3 type=sdw)",
          "1|InitNpRscDll|xmllib_unload_config() failed. (Ret=0x5)",
          "1|InitNpRscDll|xmllib_unload_policy() failed. (Ret=0x5 Type=nm)",
          "1|InitNpRscDll|xmllib_unload_policy() failed. (Ret=0x5 Type=disknp)",
          "1|InitNpRscDll|xmllib_unload_policy() failed. (Ret=0x5 Type=sdw)"}},
        {"xmllib_load_policy(disknp)", 4,
         {"1|InitNpRscDll|xmllib_load_policy() failed. (Ret=0x4 type=disknp)",
          "1|InitNpRscDll|xmllib_unload_policy() failed. (Ret=0x5 Type=nm)"}},
        {"xmllib_load_config", 9, {"1|InitNpRscDll|xmllib_load_config() failed. (Ret=0x9)"}},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.fail);
        doubles::clear_calls();
        doubles::fail(step.fail, step.result);
        EXPECT_EQ(InitNpRscDll("qmtsdw", 0, 0), 1u);
        for (const std::string &line : step.lines) EXPECT_TRUE(logged(line)) << line;
        EXPECT_TRUE(logged("4|InitNpRscDll|End - (Ret=1)"));
        const std::vector<std::string> calls = without_config_reads(doubles::service_calls());
        const auto at = std::find(calls.begin(), calls.end(), unwind[0]);
        EXPECT_EQ(std::vector<std::string>(at, calls.end()), unwind);
        EXPECT_FALSE(doubles::cm_attached() || doubles::log_open() || doubles::xml_initialised() ||
                     doubles::config_loaded());
        EXPECT_TRUE(doubles::policies_loaded().empty());
        EXPECT_EQ(gsdwInitCount, 0u);
        EXPECT_EQ(gsdwhLog, nullptr);
    }
}

TEST_F(NpExportsTest, StatusRereadsTheSettingsAndTheRatio)
{
    init();
    ASSERT_EQ(start("np1"), 0u);
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1; }, 3000));
    doubles::set_int(key_of("np1", "timeout"), 120);
    doubles::set_int(key_of("np1", "interval"), 30);
    doubles::set_ratio(3);
    doubles::clear_calls();
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    EXPECT_EQ(gsdwlpRsc[0].timeout, 120);
    EXPECT_EQ(gsdwlpRsc[0].interval, 30);
    EXPECT_EQ(gsdwTimeoutRatio, 3);
    EXPECT_EQ(doubles::log_lines_upto(4), (std::vector<std::string>{"4|DoNpMontr|changed polling timeout. (300->120)",
                                                                    "4|DoNpMontr|changed polling interval. (60->30)"}));
    EXPECT_EQ(doubles::service_calls(),
              (std::vector<std::string>{"xmllib_reload_config(1)",
                                        "xmllib_get_value(/root/networkpartition/disknp@np1/timeout)",
                                        "xmllib_get_value(/root/networkpartition/disknp@np1/interval)",
                                        "shmcm_getratio()"}));

    // Out of range: the change is shown, then the default is kept.
    doubles::set_int(key_of("np1", "timeout"), 0);
    doubles::set_int(key_of("np1", "interval"), -5);
    doubles::fail("shmcm_getratio", 8);
    doubles::fail("xmllib_reload_config", 9);
    doubles::clear_calls();
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    EXPECT_EQ(gsdwlpRsc[0].timeout, 300);
    EXPECT_EQ(gsdwlpRsc[0].interval, 60);
    EXPECT_EQ(gsdwTimeoutRatio, 1);
    EXPECT_EQ(doubles::log_lines_upto(4),
              (std::vector<std::string>{"2|DoNpMontr|xmllib_reload_config() failed. (Err=0x9)",
                                        "4|DoNpMontr|changed polling timeout. (120->0)",
                                        "2|DoNpMontr|Invalid range of polling timeout, set default. (0->300)",
                                        "4|DoNpMontr|changed polling interval. (30->-5)",
                                        "2|DoNpMontr|Invalid range of polling interval, set default. (-5->60)",
                                        "2|DoNpMontr|shmcm_getratio() failed. (Ret=8)"}));

    // Unreadable keys leave the values alone: time-out at level 2, interval at level 1.
    doubles::fail_key(key_of("np1", "timeout"), 2);
    doubles::fail_key(key_of("np1", "interval"), 2);
    doubles::clear_calls();
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 0u);
    EXPECT_EQ(doubles::log_lines_upto(2),
              (std::vector<std::string>{
                  "2|DoNpMontr|xmllib_get_value() failed. (Ret=0x2 key=/root/networkpartition/disknp@np1/timeout)",
                  "1|DoNpMontr|xmllib_get_value() failed. (Ret=0x2 key=/root/networkpartition/disknp@np1/interval)"}));
    EXPECT_EQ(stop("np1"), 0u);
}

TEST_F(NpExportsTest, StartingARunningWorkerCreatesNothing)
{
    init();
    ASSERT_EQ(start("np1"), 0u);
    SDW_RSC *r = rsc("np1");
    // Counted once the worker has made its own handles and waits for its timer.
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1; }, 3000));
    HANDLE thread = r->thread, mutex = r->mutex, timer = r->timer, term = r->term_event;
    const long handles = qmtp_live_handles();
    EXPECT_EQ(NpMontrStatusChange("disknp", "np1", SDW_CTRL_START_RM), 0u);
    EXPECT_EQ(qmtp_live_handles(), handles);
    EXPECT_EQ(r->thread, thread);
    EXPECT_EQ(r->mutex, mutex);
    EXPECT_EQ(r->timer, timer);
    EXPECT_EQ(r->term_event, term);
    EXPECT_TRUE(logged("4|NpMontrStatusChange|<<< Start[0x110] of np1 >>>"));
    // 0x201 stops like 1.
    EXPECT_EQ(NpMontrStatusChange("disknp", "np1", SDW_CTRL_STOP_SHUTDOWN), 0u);
    EXPECT_TRUE(logged("4|NpMontrStatusChange|<<< Stop[0x201] of np1[0x1] >>>"));
    EXPECT_EQ(r->thread, nullptr);
    EXPECT_EQ(r->mutex, nullptr);
    EXPECT_EQ(r->timer, nullptr);
    EXPECT_EQ(r->term_event, nullptr);
    // Stopping again: nothing to stop.
    EXPECT_EQ(stop("np1"), 0u);
    EXPECT_TRUE(logged("1|SdwDestroyMonitor|Not monitoring. (Name=np1 Hdl=0 Tid=" + hexnum(r->thread_id) + ")"));
    // A stopped resource is 99, answered without reading the configuration.
    doubles::clear_calls();
    EXPECT_EQ(DoNpMontr("disknp", "np1"), 99u);
    EXPECT_EQ(r->result, 99);
    EXPECT_TRUE(doubles::service_calls().empty());
}

TEST_F(NpExportsTest, TeardownStopsEveryRunningWorker)
{
    init();
    for (const char *name : {"np1", "np2", "np3"}) ASSERT_EQ(start(name), 0u);
    ASSERT_TRUE(wait_for([&] { return checkpoint("np1") == 1 && checkpoint("np2") == 1 && checkpoint("np3") == 1; },
                         3000));
    doubles::clear_calls();
    EXPECT_EQ(UninitNpRscDll("qmtsdw", 0, 0), 0u);
    EXPECT_EQ(gsdwInitCount, 0u);
    EXPECT_EQ(gsdwlpRsc, nullptr);
    int stops = 0, ends = 0;
    for (const std::string &l : doubles::log_lines()) {
        stops += l.rfind("4|NpMontrStatusChange|<<< Stop[0x1] of np", 0) == 0;
        ends += l == "4|SdwNpMonitor|catch stop message.";
    }
    EXPECT_EQ(stops, 3);
    EXPECT_EQ(ends, 3);
    EXPECT_EQ(doubles::service_calls().front(), "shmcm_detach()");
}

}  // namespace
