/*
 * qmtseam.h - the device seam of the plug-in's Windows test variant (qmtsdw_seam.dll).
 *
 * The test variant is built with qmtseam_names.h forced in front of every source, which sends the
 * plug-in's device calls and its tick to the qmtp_seam_* functions below. Those call through a
 * table that starts out as the system's own functions; a test host replaces it once, before its
 * first call of an export, with qmtp_seam_install, the variant's one extra export. Every other
 * system call of the plug-in (mutexes, events, timers, threads, waits, heap) stays the system's:
 * the host's close_handle passes every handle it did not open itself on to CloseHandle.
 */
#ifndef QMTSEAM_H
#define QMTSEAM_H

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qmtp_seam_table {
    DWORD size; /* sizeof(qmtp_seam_table): a table of another layout is refused */
    HANDLE(WINAPI *create_file)(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa,
                                DWORD disposition, DWORD flags, HANDLE template_file);
    BOOL(WINAPI *device_io_control)(HANDLE device, DWORD code, LPVOID in, DWORD in_size, LPVOID out,
                                    DWORD out_size, LPDWORD returned, LPOVERLAPPED overlapped);
    BOOL(WINAPI *get_overlapped_result)(HANDLE device, LPOVERLAPPED overlapped, LPDWORD transferred, BOOL wait);
    BOOL(WINAPI *cancel_io)(HANDLE device);
    BOOL(WINAPI *close_handle)(HANDLE handle);
    DWORD(WINAPI *get_tick_count)(void);
} qmtp_seam_table;

/* The export: TRUE once the table is in place; FALSE (error 87) for a table of another size. */
typedef BOOL(WINAPI *qmtp_seam_install_fn)(const qmtp_seam_table *table);
#define QMTP_SEAM_INSTALL "qmtp_seam_install"

/* What the test variant calls instead of the system's functions of the same names. */
HANDLE WINAPI qmtp_seam_CreateFileA(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa,
                                    DWORD disposition, DWORD flags, HANDLE template_file);
BOOL WINAPI qmtp_seam_DeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD in_size, LPVOID out,
                                      DWORD out_size, LPDWORD returned, LPOVERLAPPED overlapped);
BOOL WINAPI qmtp_seam_GetOverlappedResult(HANDLE device, LPOVERLAPPED overlapped, LPDWORD transferred, BOOL wait);
BOOL WINAPI qmtp_seam_CancelIo(HANDLE device);
BOOL WINAPI qmtp_seam_CloseHandle(HANDLE handle);
DWORD WINAPI qmtp_seam_GetTickCount(void);

/* The test host's table: the simulated storage and the controllable tick of server/platform/win,
 * and the number of device handles it has open now. */
const qmtp_seam_table *qmtp_seam_host_table(void);
long qmtp_seam_open_devices(void);

#ifdef __cplusplus
}
#endif

#endif /* QMTSEAM_H */
