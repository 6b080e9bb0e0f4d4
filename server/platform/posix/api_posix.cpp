// api_posix.cpp - the device calls and the tick as the POSIX build exports them: a fault point,
// then the shared code of devio.cpp and tick.cpp; and the backend that QMT_STORAGE chooses.
#include "backend.h"
#include "internal.h"

#include <cstdio>
#include <cstdlib>

namespace qmtp {
namespace {

// An unknown QMT_STORAGE value must not quietly become the simulator on a real node: every open
// fails instead.
class NoBackend final : public Backend {
public:
    const char *name() const override { return "none"; }
    DWORD open_volume(const std::string &, std::unique_ptr<Volume> *) override { return ERROR_NOT_SUPPORTED; }
    DWORD open_disk(DWORD, std::unique_ptr<Disk> *) override { return ERROR_NOT_SUPPORTED; }
};

} // namespace

Backend &backend() {
    static std::unique_ptr<Backend> chosen = [] {
        const char *env = std::getenv("QMT_STORAGE");
        std::string want = env ? env : "";
        if (want.empty() || want == "sim") return make_sim_backend();
        if (want == "linux") return make_linux_backend();
        std::fprintf(stderr, "qmtwin: unknown storage backend QMT_STORAGE=%s, no device can be opened\n",
                     want.c_str());
        return std::unique_ptr<Backend>(new NoBackend);
    }();
    return *chosen;
}

} // namespace qmtp

extern "C" {

HANDLE WINAPI CreateFileA(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa, DWORD disposition,
                          DWORD flags, HANDLE template_file) {
    QMTP_FAULT_POINT("CreateFileA", INVALID_HANDLE_VALUE);
    (void)access;
    (void)share;
    (void)sa;
    return qmtp::open_device(path, disposition, flags, template_file);
}

BOOL WINAPI DeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                            LPDWORD returned, LPOVERLAPPED overlapped) {
    QMTP_FAULT_POINT("DeviceIoControl", FALSE);
    (void)in;
    (void)in_size;
    return qmtp::device_io_control(device, code, out, out_size, returned, overlapped);
}

BOOL WINAPI GetOverlappedResult(HANDLE device, LPOVERLAPPED overlapped, LPDWORD transferred, BOOL wait) {
    QMTP_FAULT_POINT("GetOverlappedResult", FALSE);
    return qmtp::overlapped_result(device, overlapped, transferred, wait);
}

BOOL WINAPI CancelIo(HANDLE device) {
    QMTP_FAULT_POINT("CancelIo", FALSE);
    return qmtp::cancel_io(device);
}

DWORD WINAPI GetTickCount(void) { return qmtp::tick_count(); }

} // extern "C"
