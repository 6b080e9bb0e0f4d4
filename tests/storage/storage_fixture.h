// storage_fixture.h - common set-up of the storage tests: a fresh simulated world, no pending
// faults, and a check that every handle a test opened is closed again.
#pragma once

#include "qmtplat.h"

#include <gtest/gtest.h>

#include <string>

namespace storage_test {

inline constexpr const char *kVol1 = "6f1c2d3e-0000-4000-8000-000000000001";
inline constexpr const char *kVol3 = "6f1c2d3e-0000-4000-8000-000000000003";

inline std::string volume_path(const std::string &guid) { return "\\\\?\\Volume{" + guid + "}"; }
inline std::string disk_path(DWORD n) { return "\\\\.\\PHYSICALDRIVE" + std::to_string(n); }

inline HANDLE open_volume(const std::string &guid) {
    return CreateFileA(volume_path(guid).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, OPEN_EXISTING, 0, nullptr);
}

inline HANDLE open_disk(DWORD n, DWORD flags = FILE_FLAG_OVERLAPPED) {
    return CreateFileA(disk_path(n).c_str(), GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE,
                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, flags, nullptr);
}

class SimTest : public ::testing::Test {
protected:
    void SetUp() override {
        qmtp_fault_clear();
        qmtp::sim::reset();
        handles_at_start_ = qmtp_live_handles();
    }
    void TearDown() override {
        qmtp_fault_clear();
        EXPECT_EQ(qmtp_live_handles(), handles_at_start_) << "a handle leaked";
    }
    void load(const std::string &text) {
        std::string why;
        ASSERT_TRUE(qmtp::sim::load_text(text, &why)) << why;
    }

private:
    long handles_at_start_ = 0;
};

} // namespace storage_test
