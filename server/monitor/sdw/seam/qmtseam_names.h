/*
 * qmtseam_names.h - forced in front of every source of the plug-in's Windows test variant only
 * (qmtsdw_seam.dll): the system headers first, then the six calls that reach a device or the
 * clock renamed to the seam's functions (qmtseam.h). The shipped qmtsdw.dll never sees it.
 */
#ifndef QMTSEAM_NAMES_H
#define QMTSEAM_NAMES_H

#include <windows.h>
#include <process.h>
#include <winioctl.h>

#include "qmtseam.h"

#define CreateFileA qmtp_seam_CreateFileA
#define DeviceIoControl qmtp_seam_DeviceIoControl
#define GetOverlappedResult qmtp_seam_GetOverlappedResult
#define CancelIo qmtp_seam_CancelIo
#define CloseHandle qmtp_seam_CloseHandle
#define GetTickCount qmtp_seam_GetTickCount

#endif /* QMTSEAM_NAMES_H */
