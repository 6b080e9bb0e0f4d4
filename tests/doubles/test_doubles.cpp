// The recording doubles are exercised by every plug-in test; what those cannot show is that calls
// from several threads at once are all recorded, each thread's in its order.

#include "doubles.h"
#include "qmtlog.h"
#include "qmtxml.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace {

class Doubles : public ::testing::Test {
protected:
    void SetUp() override { doubles::reset(); }
};

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
