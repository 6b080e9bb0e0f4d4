// Shared by the platform tests: a fixture that fails a test which leaves a handle or a heap block
// behind, thread helpers over _beginthreadex, and a table runner for calls that must fail.
#pragma once

#include "qmtplat.h"
#include "qmtwin.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <vector>

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override {
        qmtp_fault_clear();
        handles_at_start_ = qmtp_live_handles();
        allocations_at_start_ = qmtp_live_allocations();
    }
    void TearDown() override {
        qmtp_fault_clear();
        EXPECT_EQ(qmtp_live_handles(), handles_at_start_) << "handles leaked";
        EXPECT_EQ(qmtp_live_allocations(), allocations_at_start_) << "heap blocks leaked";
    }

private:
    long handles_at_start_ = 0;
    long allocations_at_start_ = 0;
};

// Runs `fn` on a thread started with _beginthreadex; returns the thread's handle (NULL on failure).
inline HANDLE StartThread(std::function<void()> fn, unsigned *thread_id = nullptr) {
    auto *call = new std::function<void()>(std::move(fn));
    const uintptr_t h = _beginthreadex(
        nullptr, 0,
        [](void *arg) -> unsigned {
            std::unique_ptr<std::function<void()>> f(static_cast<std::function<void()> *>(arg));
            (*f)();
            return 0;
        },
        call, 0, thread_id);
    if (h == 0)
        delete call;
    return reinterpret_cast<HANDLE>(h);
}

// Waits (bounded) for a thread started by StartThread and closes its handle.
inline void JoinThread(HANDLE thread) {
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(thread));
}

// Runs fn(0) .. fn(n - 1) on n threads at once and joins them all.
inline void RunThreads(int n, const std::function<void(int)> &fn) {
    std::vector<HANDLE> ts;
    for (int i = 0; i < n; ++i)
        ts.push_back(StartThread([&fn, i] { fn(i); }));
    for (HANDLE t : ts)
        JoinThread(t);
}

// A relative due time of `ms` milliseconds for SetWaitableTimer.
inline LARGE_INTEGER DueIn(LONGLONG ms) {
    LARGE_INTEGER due;
    due.QuadPart = -ms * 10000;
    return due;
}

// A call that must fail: `fails` makes it and says whether it returned its failure value.
struct Failing {
    const char *what;
    std::function<bool()> fails;
    DWORD error; // the exact last error it leaves
};

inline void ExpectEachFails(std::initializer_list<Failing> calls) {
    for (const Failing &c : calls) {
        SCOPED_TRACE(c.what);
        SetLastError(0);
        EXPECT_TRUE(c.fails());
        EXPECT_EQ(GetLastError(), c.error);
    }
}
