/*
 * qmtlog.h - the cluster's log library, as its modules call it.
 * On Windows it is imported by ordinal (see server/lib/qmtlog/qmtlog.def).
 */
#ifndef QMTLOG_H
#define QMTLOG_H

#include "qmtwin.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32) && defined(QMTLOG_BUILDING)
#define QMTLOG_API /* the library's .def file exports it */
#elif defined(_WIN32)
#define QMTLOG_API __declspec(dllimport)
#else
#define QMTLOG_API __attribute__((visibility("default")))
#endif

/* Levels: a single bit each; a line is written when its level is not greater than the current. */
#define QMTLOG_ERROR 1
#define QMTLOG_WARNING 2
#define QMTLOG_INFO 4
#define QMTLOG_TRACE 8
#define QMTLOG_PASS 16
#define QMTLOG_DETAIL 32
#define QMTLOG_EVENT 32768

/* @1 Opens (or shares) the log of a module; *log receives the handle. */
QMTLOG_API int WINAPI QmtLogOpen(const char *module, HANDLE *log, int level, int size, int reserved,
                                 const char *mutex_name);
/* @2 */
QMTLOG_API int WINAPI QmtLogClose(HANDLE log);
/* @3 Writes one line (event_id 0) or one event (level 32768, event_id != 0). A NULL log is
 * accepted; the line then goes to the log of the last module opened in the process, if any,
 * else to standard error. */
QMTLOG_API int __cdecl QmtLogWrite(HANDLE log, int level, DWORD event_id, const char *file, int line,
                                   const char *function, const char *format, ...)
#ifndef _WIN32
    __attribute__((format(printf, 7, 8)))
#endif
    ;
/* @5 0 leaves a value unchanged. */
QMTLOG_API int WINAPI QmtLogSetSettings(const char *module, int level, int size, int reserved);
/* @6 */
QMTLOG_API int WINAPI QmtLoadStringTable(const char *module, int reserved, HANDLE *table);
/* @7 */
QMTLOG_API int WINAPI QmtUnloadStringTable(HANDLE table);
/* @9 The text of a status code, NUL-terminated within size bytes. */
QMTLOG_API int WINAPI QmtGetStatusText(HANDLE table, int status, char *buffer, int size, int reserved);
/* @12 size may be NULL when only the level is wanted. */
QMTLOG_API int WINAPI QmtLogGetSettings(const char *module, int *level, int *size, int reserved);

#ifdef __cplusplus
}
#endif

#endif /* QMTLOG_H */
