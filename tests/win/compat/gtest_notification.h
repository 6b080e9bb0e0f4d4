// gtest_notification.h - GoogleTest's Notification for the compiler's win32 thread model, whose
// standard library has no std::mutex or std::condition_variable for GoogleTest's own. Forced into
// GoogleTest and the tests that use it in the Windows build.
#pragma once

#ifdef __cplusplus
#include <windows.h>

#define GTEST_HAS_NOTIFICATION_ 1

namespace testing {
namespace internal {

// Lets a controller thread hold new threads until it notifies them (a manual-reset event).
class Notification {
public:
    Notification() : event_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
    ~Notification() { CloseHandle(event_); }
    Notification(const Notification &) = delete;
    Notification &operator=(const Notification &) = delete;
    void Notify() { SetEvent(event_); }
    void WaitForNotification() { WaitForSingleObject(event_, INFINITE); }

private:
    HANDLE event_;
};

}  // namespace internal
}  // namespace testing
#endif
