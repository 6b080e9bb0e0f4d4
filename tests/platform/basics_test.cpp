// Ticks, the global heap, fault injection and the version resource of this executable.
#include "platform_test.h"
#include "qmtrsrc.h"

#include <cstring>
#include <string>

QMT_VERSION_RESOURCE(3, 1, 4, 15, 9, 2, 65, 35);

namespace {

using TickTest = PlatformTest;
using HeapTest = PlatformTest;
using FaultTest = PlatformTest;
using VersionTest = PlatformTest;

constexpr DWORD kInjected = 4321;

// ---- Ticks --------------------------------------------------------------------------------

// The tick is the clock plus an offset, and reads on past the 32-bit wrap.
TEST_F(TickTest, OffsetMovesTheCountAndItReadsPastThe32BitWrap) {
    const DWORD saved = qmtp_tick_get_offset();
    qmtp_tick_set_offset(0);
    const DWORD plain = GetTickCount();
    qmtp_tick_set_offset(3600000u);
    const DWORD moved = GetTickCount();
    EXPECT_GE(static_cast<DWORD>(moved - plain), 3600000u);
    EXPECT_LT(static_cast<DWORD>(moved - plain), 3605000u);
    qmtp_tick_set(0xFFFFFFF0u);
    const DWORD before = GetTickCount();
    EXPECT_GE(before, 0xFFFFFFF0u);
    Sleep(40);
    const DWORD after = GetTickCount();
    EXPECT_LT(after, 0x00001000u);
    EXPECT_GE(static_cast<DWORD>(after - before), 35u);
    EXPECT_LT(static_cast<DWORD>(after - before), 5000u);
    qmtp_tick_set_offset(saved);
    EXPECT_EQ(qmtp_tick_get_offset(), saved);
}

// ---- Global heap --------------------------------------------------------------------------

TEST_F(HeapTest, ZeroInitBlocksAreZeroAndCountedUntilFreed) {
    const long before = qmtp_live_allocations();
    auto *p = static_cast<unsigned char *>(GlobalAlloc(GPTR, 4096));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(qmtp_live_allocations(), before + 1);
    for (size_t i = 0; i < 4096; ++i)
        ASSERT_EQ(p[i], 0) << "byte " << i;
    void *q = GlobalAlloc(GMEM_FIXED, 0);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(qmtp_live_allocations(), before + 2);
    EXPECT_EQ(GlobalFree(p), nullptr);
    EXPECT_EQ(GlobalFree(q), nullptr);
    EXPECT_EQ(qmtp_live_allocations(), before);
}

TEST_F(HeapTest, BadFreesGiveThePointerBackAndImpossibleSizesFail) {
    void *freed = GlobalAlloc(GPTR, 16);
    ASSERT_NE(freed, nullptr);
    EXPECT_EQ(GlobalFree(freed), nullptr);
    int local = 0;
    ExpectEachFails({
        {"freed block", [&] { return GlobalFree(freed) == freed; }, ERROR_INVALID_HANDLE},
        {"foreign block", [&] { return GlobalFree(&local) == &local; }, ERROR_INVALID_HANDLE},
        {"impossible size", [] { return GlobalAlloc(GPTR, ~static_cast<SIZE_T>(0) / 2) == nullptr; },
         ERROR_NOT_ENOUGH_MEMORY},
    });
    EXPECT_EQ(GlobalFree(nullptr), nullptr);
}

// ---- Fault injection ----------------------------------------------------------------------

// Arming counts calls from then on; only the chosen call fails, with the chosen error.
TEST_F(FaultTest, OnlyTheArmedCallFailsWithTheChosenError) {
    HANDLE h[5];
    h[0] = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    qmtp_fault_set("CreateEventA", 2, kInjected);
    for (int i = 1; i < 5; ++i) {
        SetLastError(0);
        h[i] = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        EXPECT_EQ(h[i] == nullptr, i == 2) << "call " << i;
        EXPECT_EQ(GetLastError(), i == 2 ? kInjected : 0u) << "call " << i;
    }
    EXPECT_EQ(qmtp_call_count("CreateEventA"), 5u);
    for (HANDLE x : h)
        EXPECT_TRUE(x == nullptr || CloseHandle(x));
    // Clearing disarms and zeroes the counts; a name never called counts nothing.
    qmtp_fault_set("CreateEventA", 1, kInjected);
    qmtp_fault_clear();
    EXPECT_EQ(qmtp_call_count("CreateEventA"), 0u);
    h[0] = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    EXPECT_TRUE(CloseHandle(h[0]));
    EXPECT_EQ(qmtp_call_count("CreateEventA"), 1u);
    EXPECT_EQ(qmtp_call_count("NoSuchFunction"), 0u);
}

// Every exported function is a fault point and returns its documented failure value; what a
// failed call was given stays as it was (the handles and the block are closed and freed at the end).
TEST_F(FaultTest, EveryExportedFunctionCanBeMadeToFail) {
    HANDLE m = CreateMutexA(nullptr, TRUE, nullptr);
    HANDLE e = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    HANDLE t = CreateWaitableTimerA(nullptr, TRUE, nullptr);
    void *block = GlobalAlloc(GPTR, 8);
    const LARGE_INTEGER due = DueIn(1000);
    HMODULE mod = GetModuleHandleA(nullptr);
    HRSRC res = FindResourceA(mod, MAKEINTRESOURCEA(VS_VERSION_INFO), RT_VERSION);
    HGLOBAL loaded = LoadResource(mod, res);
    ASSERT_NE(loaded, nullptr);

    auto fails = [](const char *name, auto call, auto failed) {
        const unsigned calls = qmtp_call_count(name);
        qmtp_fault_set(name, 1, kInjected);
        SetLastError(0);
        EXPECT_EQ(call(), failed) << name;
        EXPECT_EQ(GetLastError(), kInjected) << name;
        EXPECT_EQ(qmtp_call_count(name), calls + 1) << name;
        qmtp_fault_set(name, 0, 0);
    };
    fails("CreateMutexA", [] { return CreateMutexA(nullptr, FALSE, nullptr); }, HANDLE{});
    fails("ReleaseMutex", [&] { return ReleaseMutex(m); }, FALSE);
    fails("CreateEventA", [] { return CreateEventA(nullptr, FALSE, FALSE, nullptr); }, HANDLE{});
    fails("SetEvent", [&] { return SetEvent(e); }, FALSE);
    fails("ResetEvent", [&] { return ResetEvent(e); }, FALSE);
    fails("CreateWaitableTimerA", [] { return CreateWaitableTimerA(nullptr, FALSE, nullptr); }, HANDLE{});
    fails("SetWaitableTimer", [&] { return SetWaitableTimer(t, &due, 0, nullptr, nullptr, FALSE); }, FALSE);
    fails("CancelWaitableTimer", [&] { return CancelWaitableTimer(t); }, FALSE);
    fails("WaitForSingleObject", [&] { return WaitForSingleObject(e, 0); }, WAIT_FAILED);
    fails("WaitForMultipleObjects", [&] { return WaitForMultipleObjects(1, &e, FALSE, 0); }, WAIT_FAILED);
    fails("CloseHandle", [&] { return CloseHandle(e); }, FALSE);
    fails("GlobalAlloc", [] { return GlobalAlloc(GPTR, 8); }, HGLOBAL{});
    fails("GlobalFree", [&] { return GlobalFree(block); }, block);
    fails("_beginthreadex", [] { return _beginthreadex(nullptr, 0, [](void *) -> unsigned { return 0; }, nullptr, 0, nullptr); },
          uintptr_t{0});
    fails("GetModuleHandleA", [] { return GetModuleHandleA(nullptr); }, HMODULE{});
    fails("FindResourceA", [&] { return FindResourceA(mod, MAKEINTRESOURCEA(1), RT_VERSION); }, HRSRC{});
    fails("FindResourceExA", [&] { return FindResourceExA(mod, RT_VERSION, MAKEINTRESOURCEA(1), 0); }, HRSRC{});
    fails("LoadResource", [&] { return LoadResource(mod, res); }, HGLOBAL{});
    fails("LockResource", [&] { return LockResource(loaded); }, LPVOID{});
    fails("SizeofResource", [&] { return SizeofResource(mod, res); }, DWORD{0});
    // Sleep has no failure value; a failed Sleep returns at once.
    qmtp_fault_set("Sleep", 1, kInjected);
    const DWORD before = GetTickCount();
    Sleep(5000);
    EXPECT_LT(GetTickCount() - before, 2500u);
    EXPECT_EQ(GetLastError(), kInjected);

    EXPECT_EQ(GlobalFree(block), nullptr);
    EXPECT_TRUE(ReleaseMutex(m));
    for (HANDLE h : {m, e, t})
        EXPECT_TRUE(CloseHandle(h));
}

// ---- Version resource ---------------------------------------------------------------------

WORD Word(const BYTE *p, size_t off) {
    WORD w;
    std::memcpy(&w, p + off, sizeof w);
    return w;
}

TEST_F(VersionTest, MainModuleCarriesTheVersionInfoBytesInWindowsLayout) {
    HMODULE mod = GetModuleHandleA(nullptr);
    ASSERT_NE(mod, nullptr);
    HRSRC res = FindResourceA(mod, MAKEINTRESOURCEA(VS_VERSION_INFO), RT_VERSION);
    ASSERT_NE(res, nullptr);
    HGLOBAL loaded = LoadResource(mod, res);
    ASSERT_NE(loaded, nullptr);
    const auto *p = static_cast<const BYTE *>(LockResource(loaded));
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(SizeofResource(mod, res), 92u);

    EXPECT_EQ(Word(p, 0), 92u); // wLength
    EXPECT_EQ(Word(p, 2), 52u); // wValueLength
    EXPECT_EQ(Word(p, 4), 0u);  // wType: binary
    std::u16string key;
    for (size_t off = 6; Word(p, off) != 0; off += 2)
        key.push_back(static_cast<char16_t>(Word(p, off)));
    EXPECT_EQ(key, u"VS_VERSION_INFO");

    VS_FIXEDFILEINFO fixed;
    std::memcpy(&fixed, p + 40, sizeof fixed);
    EXPECT_EQ(fixed.dwSignature, VS_FFI_SIGNATURE);
    EXPECT_EQ(fixed.dwFileVersionMS, 0x00030001u); // 3.1
    EXPECT_EQ(fixed.dwFileVersionLS, 0x0004000Fu); // .4.15
    EXPECT_EQ(fixed.dwProductVersionMS, 0x00090002u); // 9.2
    EXPECT_EQ(fixed.dwProductVersionLS, 0x00410023u); // .65.35

    // The same resource, and the same bytes, through the neutral language and through "#n" names.
    EXPECT_EQ(FindResourceExA(mod, RT_VERSION, MAKEINTRESOURCEA(1), MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL)), res);
    EXPECT_EQ(FindResourceA(nullptr, "#1", "#16"), res);
    EXPECT_EQ(LockResource(LoadResource(mod, res)), p);
}

TEST_F(VersionTest, FailedLookupsSayWhatIsMissing) {
    HMODULE mod = GetModuleHandleA(nullptr);
    ExpectEachFails({
        {"type", [&] { return FindResourceA(mod, MAKEINTRESOURCEA(1), MAKEINTRESOURCEA(6)) == nullptr; },
         ERROR_RESOURCE_TYPE_NOT_FOUND},
        {"name", [&] { return FindResourceA(mod, MAKEINTRESOURCEA(2), RT_VERSION) == nullptr; },
         ERROR_RESOURCE_NAME_NOT_FOUND},
        {"language", [&] { return FindResourceExA(mod, RT_VERSION, MAKEINTRESOURCEA(1), 0x0409) == nullptr; },
         ERROR_RESOURCE_LANG_NOT_FOUND},
        {"named module", [] { return GetModuleHandleA("kernel32.dll") == nullptr; }, 126},
        {"load nothing", [] { return LoadResource(nullptr, nullptr) == nullptr; }, ERROR_INVALID_HANDLE},
        {"size of nothing", [] { return SizeofResource(nullptr, nullptr) == 0; }, ERROR_INVALID_HANDLE},
    });
    EXPECT_EQ(LockResource(nullptr), nullptr);
}

} // namespace
