// An executable without a version resource: the lookups fail the way Win32 fails them.
#include "platform_test.h"

namespace {

using NoVersionTest = PlatformTest;

TEST_F(NoVersionTest, FindResourceFailsWith1812AndLoadingNothingFails) {
    HMODULE mod = GetModuleHandleA(nullptr);
    ASSERT_NE(mod, nullptr);
    SetLastError(0);
    HRSRC a = FindResourceA(mod, MAKEINTRESOURCEA(VS_VERSION_INFO), RT_VERSION);
    EXPECT_EQ(a, nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_DATA_NOT_FOUND));
    SetLastError(0);
    EXPECT_EQ(FindResourceExA(mod, RT_VERSION, MAKEINTRESOURCEA(1), 0), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_DATA_NOT_FOUND));
    SetLastError(0);
    EXPECT_EQ(LoadResource(mod, a), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

} // namespace
