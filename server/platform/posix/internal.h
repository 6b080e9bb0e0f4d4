// internal.h - seams between the parts of the POSIX platform layer (not installed, not for users).
//
// kobj.cpp owns the handle table and the wait engine; devio.cpp and the storage backends own
// the file objects. They meet here: a file object is stored in the same table as mutexes, events,
// timers and threads, so CloseHandle, the live-handle counter and error 6 on a stale handle work
// for every kind alike.
#pragma once

#include "qmtwin.h"

#include <memory>

namespace qmtp {

// A device handle's object (a volume or a disk, opened through a backend).
struct FileObject {
    virtual ~FileObject() = default;
    // Called once by CloseHandle, after the handle has left the table and before the call returns.
    virtual void on_close() = 0;
};

// Puts a file object into the handle table; returns its new handle (never NULL).
HANDLE register_file(std::shared_ptr<FileObject> file);
// The file object behind a handle, or nullptr (error 6 set) when the handle is not an open file.
std::shared_ptr<FileObject> lookup_file(HANDLE handle);

// The device calls on volumes and disks (devio.cpp), which api_posix.cpp exports as CreateFileA,
// DeviceIoControl, GetOverlappedResult and CancelIo, and the Windows test host's device seam
// hands to the plug-in's test variant.
HANDLE open_device(LPCSTR path, DWORD disposition, DWORD flags, HANDLE template_file);
BOOL device_io_control(HANDLE device, DWORD code, LPVOID out, DWORD out_size, LPDWORD returned,
                       LPOVERLAPPED overlapped);
BOOL overlapped_result(HANDLE device, LPOVERLAPPED overlapped, LPDWORD transferred, BOOL wait);
BOOL cancel_io(HANDLE device);
// Sets the thread's last error and keeps a copy of it: on Windows the runtime's own locks may
// clear the system's copy on the way out of a call, so the seam sets it again from this one.
void set_error(DWORD error);
DWORD error_set_last();

// The millisecond tick that GetTickCount returns (tick.cpp).
DWORD tick_count();

// Fault injection: true when this call of `function` must fail; *error then holds the error to set.
// Every exported function calls it first (it also counts the call).
bool fault_hit(const char *function, DWORD *error);

} // namespace qmtp

// Exported functions start with this: on an injected fault they set the error and return `failed`.
#define QMTP_FAULT_POINT(name, failed)                                                             \
    do {                                                                                           \
        DWORD qmtp_fault_error_ = 0;                                                               \
        if (::qmtp::fault_hit(name, &qmtp_fault_error_)) {                                         \
            SetLastError(qmtp_fault_error_);                                                       \
            return failed;                                                                         \
        }                                                                                          \
    } while (0)
