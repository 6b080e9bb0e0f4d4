// An executable without a version resource: the lookups fail the way Win32 fails them.
#include "platform_test.h"

namespace {

using NoVersionTest = PlatformTest;

TEST_F(NoVersionTest, LookupsFailWith1812AndLoadingNothingFails) {
    HMODULE mod = GetModuleHandleA(nullptr);
    ASSERT_NE(mod, nullptr);
    ExpectEachFails({
        {"FindResourceA", [&] { return FindResourceA(mod, MAKEINTRESOURCEA(VS_VERSION_INFO), RT_VERSION) == nullptr; },
         ERROR_RESOURCE_DATA_NOT_FOUND},
        {"FindResourceExA", [&] { return FindResourceExA(mod, RT_VERSION, MAKEINTRESOURCEA(1), 0) == nullptr; },
         ERROR_RESOURCE_DATA_NOT_FOUND},
        {"LoadResource", [&] { return LoadResource(mod, nullptr) == nullptr; }, ERROR_INVALID_HANDLE},
    });
}

} // namespace
