// qmtseam_dll.cpp - the device seam inside the plug-in's Windows test variant: each renamed call
// goes through the table, which is the system's own functions until a test host installs its own.
#include "qmtseam.h"

#undef CreateFileA
#undef DeviceIoControl
#undef GetOverlappedResult
#undef CancelIo
#undef CloseHandle
#undef GetTickCount

namespace {

qmtp_seam_table g_table = {sizeof(qmtp_seam_table), CreateFileA, DeviceIoControl, GetOverlappedResult,
                           CancelIo, CloseHandle, GetTickCount};

} // namespace

extern "C" {

BOOL WINAPI qmtp_seam_install(const qmtp_seam_table *table) {
    if (!table || table->size != sizeof(qmtp_seam_table) || !table->create_file || !table->device_io_control ||
        !table->get_overlapped_result || !table->cancel_io || !table->close_handle || !table->get_tick_count) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    g_table = *table;
    return TRUE;
}

HANDLE WINAPI qmtp_seam_CreateFileA(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa,
                                    DWORD disposition, DWORD flags, HANDLE template_file) {
    return g_table.create_file(path, access, share, sa, disposition, flags, template_file);
}

BOOL WINAPI qmtp_seam_DeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD in_size, LPVOID out,
                                      DWORD out_size, LPDWORD returned, LPOVERLAPPED overlapped) {
    return g_table.device_io_control(device, code, in, in_size, out, out_size, returned, overlapped);
}

BOOL WINAPI qmtp_seam_GetOverlappedResult(HANDLE device, LPOVERLAPPED overlapped, LPDWORD transferred, BOOL wait) {
    return g_table.get_overlapped_result(device, overlapped, transferred, wait);
}

BOOL WINAPI qmtp_seam_CancelIo(HANDLE device) { return g_table.cancel_io(device); }

BOOL WINAPI qmtp_seam_CloseHandle(HANDLE handle) { return g_table.close_handle(handle); }

DWORD WINAPI qmtp_seam_GetTickCount(void) { return g_table.get_tick_count(); }

} // extern "C"
