// world.h - common ground of the plug-in tests: a clean world per test (recording doubles,
// simulated storage, faults, ticks), the leak check, bounded waits and the plug-in's hex texts.
#pragma once

#include "doubles.h"
#include "qmtplat.h"
#include "sdw.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>

namespace doubles {

class WorldTest : public ::testing::Test {
protected:
    void SetUp() override;
    // Ends the service under test (end_service), then checks that no handle or allocation of the
    // platform outlived the test.
    void TearDown() override;
    virtual void end_service() = 0;

    long handles_at_start_ = 0;
    long allocations_at_start_ = 0;
};

// Polls `done` every 2 ms for at most `ms` milliseconds.
bool wait_for(const std::function<bool()> &done, int ms);

// "%#x" of a handle, or of a number, as the plug-in prints it.
std::string hex(const void *handle);
std::string hexnum(unsigned value);

// Runs the tests. The trace log keeps one repeat-suppression entry per resource name for the
// life of the process: they are made first, for every name the tests use, so that each test's
// leak check sees only what that test allocated.
int run_tests(int argc, char **argv, std::initializer_list<const char *> names);

}  // namespace doubles
