/*
 * qmtwin.h - the one system header of the plug-in.
 *
 * On Windows it is <windows.h>, <process.h> and <winioctl.h>. Everywhere else it declares the
 * Win32 subset that the plug-in, the cluster libraries and the host use, implemented by the
 * POSIX platform layer (libqmtwin) with Win32 semantics and Win32 values, so that code written
 * against it reads, and behaves, the same on both.
 */
#ifndef QMTWIN_H
#define QMTWIN_H

#ifdef _WIN32

#include <windows.h>
#include <process.h>
#include <winioctl.h>

#else /* POSIX */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define WINAPI
#define CALLBACK
#define __stdcall
#define __cdecl

#define QMTWIN_API __attribute__((visibility("default")))

typedef int BOOL;
typedef unsigned char BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef unsigned int UINT;
typedef int64_t LONGLONG;
typedef uintptr_t ULONG_PTR;
typedef uintptr_t DWORD_PTR;
typedef uintptr_t SIZE_T;
typedef void *PVOID, *LPVOID, *HANDLE, *HGLOBAL, *HMODULE, *HRSRC;
typedef const void *LPCVOID;
typedef char CHAR;
typedef const char *LPCSTR;
typedef char *LPSTR;
typedef DWORD *LPDWORD;
typedef HANDLE *PHANDLE;

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED {
    ULONG_PTR Internal;     /* completion status */
    ULONG_PTR InternalHigh; /* bytes transferred */
    union {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

typedef struct _DISK_EXTENT {
    DWORD DiskNumber;
    LARGE_INTEGER StartingOffset;
    LARGE_INTEGER ExtentLength;
} DISK_EXTENT, *PDISK_EXTENT;

typedef struct _VOLUME_DISK_EXTENTS {
    DWORD NumberOfDiskExtents;
    DISK_EXTENT Extents[1];
} VOLUME_DISK_EXTENTS, *PVOLUME_DISK_EXTENTS;

typedef struct tagVS_FIXEDFILEINFO {
    DWORD dwSignature; /* 0xFEEF04BD */
    DWORD dwStrucVersion;
    DWORD dwFileVersionMS;
    DWORD dwFileVersionLS;
    DWORD dwProductVersionMS;
    DWORD dwProductVersionLS;
    DWORD dwFileFlagsMask;
    DWORD dwFileFlags;
    DWORD dwFileOS;
    DWORD dwFileType;
    DWORD dwFileSubtype;
    DWORD dwFileDateMS;
    DWORD dwFileDateLS;
} VS_FIXEDFILEINFO;

typedef void(CALLBACK *PTIMERAPCROUTINE)(LPVOID arg, DWORD low, DWORD high);

#define TRUE 1
#define FALSE 0

#define LOWORD(l) ((WORD)(((DWORD_PTR)(l)) & 0xffff))
#define HIWORD(l) ((WORD)((((DWORD_PTR)(l)) >> 16) & 0xffff))
#define MAKEINTRESOURCEA(i) ((LPSTR)((ULONG_PTR)((WORD)(i))))
#define IS_INTRESOURCE(r) ((((ULONG_PTR)(r)) >> 16) == 0)
#define RT_VERSION MAKEINTRESOURCEA(16)
#define VS_VERSION_INFO 1
#define VS_FFI_SIGNATURE 0xFEEF04BDu
#define LANG_NEUTRAL 0x00
#define SUBLANG_NEUTRAL 0x00
#define MAKELANGID(p, s) ((((WORD)(s)) << 10) | (WORD)(p))

#define DLL_PROCESS_DETACH 0
#define DLL_PROCESS_ATTACH 1
#define DLL_THREAD_ATTACH 2
#define DLL_THREAD_DETACH 3

/* Wait results. */
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_ABANDONED_0 WAIT_ABANDONED
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu
#define INFINITE 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64

/* Error codes, with their Win32 values. */
#define ERROR_SUCCESS 0
#define ERROR_INVALID_FUNCTION 1
#define ERROR_FILE_NOT_FOUND 2
#define ERROR_PATH_NOT_FOUND 3
#define ERROR_ACCESS_DENIED 5
#define ERROR_INVALID_HANDLE 6
#define ERROR_NOT_ENOUGH_MEMORY 8
#define ERROR_OUTOFMEMORY 14
#define ERROR_NOT_READY 21
#define ERROR_CRC 23
#define ERROR_SECTOR_NOT_FOUND 27
#define ERROR_GEN_FAILURE 31
#define ERROR_SHARING_VIOLATION 32
#define ERROR_NOT_SUPPORTED 50
#define ERROR_INVALID_PARAMETER 87
#define ERROR_SEM_TIMEOUT 121
#define ERROR_INSUFFICIENT_BUFFER 122
#define ERROR_MORE_DATA 234
#define ERROR_NOT_OWNER 288
#define ERROR_OPERATION_ABORTED 995
#define ERROR_IO_INCOMPLETE 996
#define ERROR_IO_PENDING 997
#define ERROR_IO_DEVICE 1117
#define ERROR_DEVICE_NOT_CONNECTED 1167
#define ERROR_NO_SYSTEM_RESOURCES 1450
#define ERROR_RESOURCE_DATA_NOT_FOUND 1812
#define ERROR_RESOURCE_TYPE_NOT_FOUND 1813
#define ERROR_RESOURCE_NAME_NOT_FOUND 1814
#define ERROR_RESOURCE_LANG_NOT_FOUND 1815
#define ERROR_AMBIGUOUS_SYSTEM_DEVICE 15250

/* Files and devices. */
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define SYNCHRONIZE 0x00100000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define OPEN_EXISTING 3
#define FILE_FLAG_OVERLAPPED 0x40000000u
#define INVALID_HANDLE_VALUE ((HANDLE)(intptr_t)-1)
#define IOCTL_STORAGE_CHECK_VERIFY 0x002D4800u
#define IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS 0x00560000u

/* Global heap. */
#define GMEM_FIXED 0x0000u
#define GMEM_ZEROINIT 0x0040u
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)

/* Kernel objects and waits. */
QMTWIN_API HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES sa, BOOL initial_owner, LPCSTR name);
QMTWIN_API BOOL WINAPI ReleaseMutex(HANDLE mutex);
QMTWIN_API HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES sa, BOOL manual_reset, BOOL initial_state,
                                      LPCSTR name);
QMTWIN_API BOOL WINAPI SetEvent(HANDLE event);
QMTWIN_API BOOL WINAPI ResetEvent(HANDLE event);
QMTWIN_API HANDLE WINAPI CreateWaitableTimerA(LPSECURITY_ATTRIBUTES sa, BOOL manual_reset, LPCSTR name);
QMTWIN_API BOOL WINAPI SetWaitableTimer(HANDLE timer, const LARGE_INTEGER *due_time, LONG period,
                                        PTIMERAPCROUTINE completion, LPVOID arg, BOOL resume);
QMTWIN_API BOOL WINAPI CancelWaitableTimer(HANDLE timer);
QMTWIN_API DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds);
QMTWIN_API DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL wait_all,
                                               DWORD milliseconds);
QMTWIN_API BOOL WINAPI CloseHandle(HANDLE handle);
QMTWIN_API void WINAPI Sleep(DWORD milliseconds);
QMTWIN_API DWORD WINAPI GetTickCount(void);
QMTWIN_API DWORD WINAPI GetLastError(void);
QMTWIN_API void WINAPI SetLastError(DWORD error);
QMTWIN_API DWORD WINAPI GetCurrentThreadId(void);

/* Global heap: zero-filled when asked with GMEM_ZEROINIT (GPTR). */
QMTWIN_API HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T bytes);
QMTWIN_API HGLOBAL WINAPI GlobalFree(HGLOBAL mem);

/* Runtime thread start; the handle is signalled when the thread ends. */
QMTWIN_API uintptr_t _beginthreadex(void *security, unsigned stack_size,
                                    unsigned(__stdcall *start)(void *), void *arg, unsigned init_flag,
                                    unsigned *thread_id);

/* Version resource of the process's main module. */
QMTWIN_API HMODULE WINAPI GetModuleHandleA(LPCSTR module_name);
QMTWIN_API HRSRC WINAPI FindResourceA(HMODULE module, LPCSTR name, LPCSTR type);
QMTWIN_API HRSRC WINAPI FindResourceExA(HMODULE module, LPCSTR type, LPCSTR name, WORD language);
QMTWIN_API HGLOBAL WINAPI LoadResource(HMODULE module, HRSRC resource);
QMTWIN_API LPVOID WINAPI LockResource(HGLOBAL resource);
QMTWIN_API DWORD WINAPI SizeofResource(HMODULE module, HRSRC resource);

/* Modules. LoadLibraryA runs the module's exported DllMain (if it has one) for the process
 * attach, and fails with 1114 when it reports failure, as the Windows loader does. */
#define ERROR_MOD_NOT_FOUND 126
#define ERROR_PROC_NOT_FOUND 127
#define ERROR_DLL_INIT_FAILED 1114
typedef void (*FARPROC)(void);
QMTWIN_API HMODULE WINAPI LoadLibraryA(LPCSTR path);
QMTWIN_API FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name);
QMTWIN_API BOOL WINAPI FreeLibrary(HMODULE module);
/* The loader's message for the last failed LoadLibraryA/GetProcAddress of this thread. */
QMTWIN_API const char *qmtp_loader_message(void);

/* Device I/O on volumes ("\\?\Volume{GUID}") and disks ("\\.\PHYSICALDRIVEn"). */
QMTWIN_API HANDLE WINAPI CreateFileA(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa,
                                     DWORD disposition, DWORD flags, HANDLE template_file);
QMTWIN_API BOOL WINAPI DeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD in_size, LPVOID out,
                                       DWORD out_size, LPDWORD returned, LPOVERLAPPED overlapped);
QMTWIN_API BOOL WINAPI GetOverlappedResult(HANDLE device, LPOVERLAPPED overlapped, LPDWORD transferred,
                                           BOOL wait);
QMTWIN_API BOOL WINAPI CancelIo(HANDLE device);

#ifdef __cplusplus
}
#endif

#endif /* _WIN32 */
#endif /* QMTWIN_H */
