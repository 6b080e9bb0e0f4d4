/*
 * qmtsdw.h - the nine exports of the disk-monitor plug-in, as a host calls them.
 * Windows export ordinals are given beside each (server/monitor/sdw/qmtsdw.def).
 */
#ifndef QMTSDW_H
#define QMTSDW_H

#include "qmtwin.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef _WIN32
#define QMTSDW_API
#else
#define QMTSDW_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define QMTSDW_NOEXCEPT noexcept
#else
#define QMTSDW_NOEXCEPT
#endif

/* sdw monitor resources */
QMTSDW_API DWORD WINAPI InitRscDll(const char *DllName, int DllType, DWORD ExecMode) QMTSDW_NOEXCEPT;   /* @1 */
QMTSDW_API DWORD WINAPI UninitRscDll(const char *DllName, int DllType, DWORD ExecMode) QMTSDW_NOEXCEPT; /* @2 */
QMTSDW_API DWORD WINAPI DoMontr(const char *Type, const char *Name) QMTSDW_NOEXCEPT;                    /* @3 */
QMTSDW_API DWORD WINAPI MontrStatusChange(const char *Type, const char *Name, int Ctrl) QMTSDW_NOEXCEPT; /* @4 */

/* disknp network-partition resources */
QMTSDW_API DWORD WINAPI InitNpRscDll(const char *DllName, int DllType, DWORD ExecMode) QMTSDW_NOEXCEPT;   /* @5 */
QMTSDW_API DWORD WINAPI UninitNpRscDll(const char *DllName, int DllType, DWORD ExecMode) QMTSDW_NOEXCEPT; /* @6 */
QMTSDW_API DWORD WINAPI DoNpMontr(const char *Type, const char *Name) QMTSDW_NOEXCEPT;                    /* @7 */
QMTSDW_API DWORD WINAPI NpMontrStatusChange(const char *Type, const char *Name, int Ctrl) QMTSDW_NOEXCEPT; /* @8 */
QMTSDW_API BYTE WINAPI GetCheckPoint(const char *Name) QMTSDW_NOEXCEPT;                                   /* @9 */

/* Pointer types a host resolves the exports into. */
typedef DWORD(WINAPI *QMTSDW_INIT_FN)(const char *, int, DWORD);
typedef DWORD(WINAPI *QMTSDW_DOMONTR_FN)(const char *, const char *);
typedef DWORD(WINAPI *QMTSDW_STATUS_FN)(const char *, const char *, int);
typedef BYTE(WINAPI *QMTSDW_CHECKPOINT_FN)(const char *);

#ifdef __cplusplus
}
#endif

#endif /* QMTSDW_H */
