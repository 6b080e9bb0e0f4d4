/*
 * qmtutil.h - the cluster's utility library; the plug-in uses only cs_gethostname.
 * On Windows it is imported by ordinal (see server/lib/qmtutil/qmtutil.def).
 */
#ifndef QMTUTIL_H
#define QMTUTIL_H

#include "qmtwin.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32) && defined(QMTUTIL_BUILDING)
#define QMTUTIL_API /* the library's .def file exports it */
#elif defined(_WIN32)
#define QMTUTIL_API __declspec(dllimport)
#else
#define QMTUTIL_API __attribute__((visibility("default")))
#endif

/* The local server's name as the cluster configuration knows it, NUL-terminated within size.
 * flag 1 asks for the cluster name of the server; log is used for the library's own messages. */
QMTUTIL_API int WINAPI cs_gethostname(char *buffer, int size, int flag, HANDLE log); /* @1 */

#ifdef __cplusplus
}
#endif

#endif /* QMTUTIL_H */
