// seam_host.cpp - the Windows test host's side of the plug-in's device seam: the simulated
// storage of devio.cpp and sim.cpp and the tick of tick.cpp, reached through the table that the
// host installs in the test variant (qmtseam.h).
//
// A device handle is the handle of a real, otherwise unused event, so that no handle of the
// system is ever taken for a device or the other way round; closing a device closes its event.
// The caller's OVERLAPPED events are real events, set by the simulated completion.
#include "backend.h"
#include "internal.h"
#include "qmtseam.h"

#include <map>
#include <mutex>

namespace qmtp {
namespace {

struct Devices {
    std::mutex m;
    std::map<HANDLE, std::shared_ptr<FileObject>> open;
};

// Never destroyed: the plug-in may still close a device while the process exits.
Devices &devices() {
    static Devices *d = new Devices;
    return *d;
}

// Every call ends by setting the error that the shared code set last, as the runtime's locks on
// the way out may have cleared the system's copy.
template <class T> T with_error(T result) {
    SetLastError(error_set_last());
    return result;
}

HANDLE WINAPI seam_create_file(LPCSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD flags,
                               HANDLE template_file) {
    return with_error(open_device(path, disposition, flags, template_file));
}

BOOL WINAPI seam_device_io_control(HANDLE device, DWORD code, LPVOID, DWORD, LPVOID out, DWORD out_size,
                                   LPDWORD returned, LPOVERLAPPED overlapped) {
    return with_error(device_io_control(device, code, out, out_size, returned, overlapped));
}

BOOL WINAPI seam_get_overlapped_result(HANDLE device, LPOVERLAPPED overlapped, LPDWORD transferred, BOOL wait) {
    return with_error(overlapped_result(device, overlapped, transferred, wait));
}

BOOL WINAPI seam_cancel_io(HANDLE device) { return with_error(cancel_io(device)); }

BOOL WINAPI seam_close_handle(HANDLE handle) {
    std::shared_ptr<FileObject> file;
    {
        Devices &d = devices();
        std::lock_guard<std::mutex> lk(d.m);
        auto it = d.open.find(handle);
        if (it == d.open.end()) return CloseHandle(handle);
        file = std::move(it->second);
        d.open.erase(it);
    }
    // Outside the lock: closing a device completes its requests, which sets their events.
    file->on_close();
    CloseHandle(handle);
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

DWORD WINAPI seam_get_tick_count(void) { return tick_count(); }

const qmtp_seam_table kTable = {sizeof(qmtp_seam_table), seam_create_file,  seam_device_io_control,
                                seam_get_overlapped_result, seam_cancel_io, seam_close_handle,
                                seam_get_tick_count};

} // namespace

HANDLE register_file(std::shared_ptr<FileObject> file) {
    HANDLE h = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (!h) {
        set_error(GetLastError());
        return NULL;
    }
    Devices &d = devices();
    std::lock_guard<std::mutex> lk(d.m);
    d.open.emplace(h, std::move(file));
    return h;
}

std::shared_ptr<FileObject> lookup_file(HANDLE handle) {
    {
        Devices &d = devices();
        std::lock_guard<std::mutex> lk(d.m);
        auto it = d.open.find(handle);
        if (it != d.open.end()) return it->second;
    }
    set_error(ERROR_INVALID_HANDLE);
    return nullptr;
}

// The Windows test host has the simulated storage only.
Backend &backend() {
    static std::unique_ptr<Backend> sim = make_sim_backend();
    return *sim;
}

} // namespace qmtp

extern "C" {

const qmtp_seam_table *qmtp_seam_host_table(void) { return &qmtp::kTable; }

long qmtp_seam_open_devices(void) {
    qmtp::Devices &d = qmtp::devices();
    std::lock_guard<std::mutex> lk(d.m);
    return static_cast<long>(d.open.size());
}

} // extern "C"
