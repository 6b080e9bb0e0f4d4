// Many workers started, suspended, resumed and stopped from concurrent threads.
#include "npfixture.h"

#include <atomic>
#include <thread>

using namespace nptest;

namespace {

class NpConcurrentTest : public NpTest {};

TEST_F(NpConcurrentTest, ConcurrentCyclesOnEightResourcesLeaveNothingBehind)
{
    std::vector<NpResource> resources;
    for (int i = 1; i <= 8; i++) {
        const DWORD disk = static_cast<DWORD>(i);
        const std::string guid = vol(i);
        qmtp::sim::set_volume(guid, {disk});
        qmtp::sim::set_disk(disk, {});
        resources.push_back({"np" + std::to_string(i), 5, 1, 0, i, guid});
    }
    configure(resources);
    init();

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 1; i <= 8; i++) {
        threads.emplace_back([&failures, i] {
            const std::string name = "np" + std::to_string(i);
            for (int cycle = 0; cycle < 20; cycle++) {
                if (NpMontrStatusChange("disknp", name.c_str(), SDW_CTRL_START) != 0) failures++;
                if (DoNpMontr("disknp", name.c_str()) != 0) failures++;
                if (GetCheckPoint(name.c_str()) > 4) failures++;
                // Every fifth cycle the worker is suspended and resumed once it waits.
                if (cycle % 5 == 4) {
                    if (!wait_for([&] { return GetCheckPoint(name.c_str()) == 1; }, 3000)) failures++;
                    if (NpMontrStatusChange("disknp", name.c_str(), SDW_CTRL_SUSPEND) != 0) failures++;
                    if (NpMontrStatusChange("disknp", name.c_str(), SDW_CTRL_RESUME) != 0) failures++;
                }
                if (NpMontrStatusChange("disknp", name.c_str(), SDW_CTRL_STOP) != 0) failures++;
                if (GetCheckPoint(name.c_str()) != 0) failures++;
            }
        });
    }
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        EXPECT_EQ(gsdwlpRsc[i].thread, nullptr);
        EXPECT_EQ(gsdwlpRsc[i].mutex, nullptr);
        EXPECT_EQ(gsdwlpRsc[i].device_handles, nullptr);
    }
    EXPECT_EQ(UninitNpRscDll("qmtsdw", 0, 0), 0u);
}

TEST_F(NpConcurrentTest, StatusAndCheckPointOfAWorkerStartedAndStoppedMeanwhile)
{
    qmtp::sim::set_volume(vol(1), {1});
    qmtp::sim::set_disk(1, {});
    configure({{"np1", 5, 1, 0, 1, vol(1)}});
    init();
    std::atomic<bool> done{false};
    std::atomic<int> odd{0};
    std::thread reader([&] {
        while (!done) {
            const DWORD status = DoNpMontr("disknp", "np1");
            if (status != 0 && status != SDW_ERR_SYSTEM) odd++;
            if (GetCheckPoint("np1") > SDW_CP_EVALUATING) odd++;
        }
    });
    int failed = 0;
    for (int i = 0; i < 50; i++) {
        failed += start("np1") != 0;
        failed += stop("np1") != 0;
    }
    done = true;
    reader.join();
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(odd.load(), 0);
    EXPECT_EQ(rsc("np1")->thread, nullptr);
}

}  // namespace
