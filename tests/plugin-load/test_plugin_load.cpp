// The plug-in's load entry point: either lock failing to be created fails the load with the
// loader's 1114, as on Windows, and leaves nothing behind; a later load succeeds.
#include "qmtplat.h"
#include "qmtsdw.h"

#include <gtest/gtest.h>

namespace {

TEST(PluginLoad, LoadsAndResolvesTheNineExports)
{
    HMODULE module = LoadLibraryA(QMTSDW_PATH);
    ASSERT_NE(module, nullptr) << qmtp_loader_message();
    for (const char *name : {"InitRscDll", "UninitRscDll", "DoMontr", "MontrStatusChange", "InitNpRscDll",
                             "UninitNpRscDll", "DoNpMontr", "NpMontrStatusChange", "GetCheckPoint"}) {
        EXPECT_NE(GetProcAddress(module, name), nullptr) << name;
    }
    // Internal operations are not exported.
    EXPECT_EQ(GetProcAddress(module, "SdwMonitor"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
    auto do_montr = reinterpret_cast<QMTSDW_DOMONTR_FN>(GetProcAddress(module, "DoMontr"));
    EXPECT_EQ(do_montr("sdw", "x"), 190u) << "no table before initialisation";
    EXPECT_TRUE(FreeLibrary(module));
}

TEST(PluginLoad, EitherLockFailingFailsTheLoad)
{
    for (unsigned nth : {1u, 2u}) {
        qmtp_fault_clear();
        const long handles = qmtp_live_handles();
        qmtp_fault_set("CreateMutexA", nth, ERROR_NOT_ENOUGH_MEMORY);
        HMODULE module = LoadLibraryA(QMTSDW_PATH);
        EXPECT_EQ(module, nullptr) << "lock " << nth;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DLL_INIT_FAILED));
        EXPECT_EQ(qmtp_call_count("CreateMutexA"), nth) << "the log lock is not tried after the module lock failed";
        // A failed first lock leaves nothing; a failed second leaves the first, which the load
        // entry never closes (as the module's locks live as long as the process).
        EXPECT_EQ(qmtp_live_handles(), handles + static_cast<long>(nth) - 1);
    }
    qmtp_fault_clear();
    HMODULE module = LoadLibraryA(QMTSDW_PATH);
    ASSERT_NE(module, nullptr) << qmtp_loader_message();
    EXPECT_TRUE(FreeLibrary(module));
}

}  // namespace
