/*
 * qmtxml.h - the cluster's configuration library.
 * On Windows it is imported by ordinal (see server/lib/qmtxml/qmtxml.def).
 */
#ifndef QMTXML_H
#define QMTXML_H

#include "qmtwin.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32) && defined(QMTXML_BUILDING)
#define QMTXML_API /* the library's .def file exports it */
#elif defined(_WIN32)
#define QMTXML_API __declspec(dllimport)
#else
#define QMTXML_API __attribute__((visibility("default")))
#endif

/* Value kinds of xmllib_get_value. */
#define XMLLIB_KIND_TEXT 0
#define XMLLIB_KIND_INT 1
/* Bytes of one name slot of xmllib_enum_value. */
#define XMLLIB_NAME_SLOT 256

/* Every function returns 0 on success, a non-zero failure code otherwise. */
QMTXML_API int WINAPI xmllib_init(const char *type);                                /* @1 */
QMTXML_API int WINAPI xmllib_term(void);                                            /* @2 */
QMTXML_API int WINAPI xmllib_load_policy(const char *type);                         /* @4 */
QMTXML_API int WINAPI xmllib_unload_policy(const char *type);                       /* @5 */
QMTXML_API int WINAPI xmllib_load_config(int mode);                                 /* @6 */
QMTXML_API int WINAPI xmllib_unload_config(void);                                   /* @7 */
QMTXML_API int WINAPI xmllib_reload_config(int mode);                               /* @8 */
/* buffer NULL and *size 0: *size receives 256 times the number of names (results 0, 3 and 4 are
 * success); then a zero-filled buffer of that size receives the names in 256-byte slots. */
QMTXML_API int WINAPI xmllib_enum_value(const char *key, char *buffer, int *size);  /* @12 */
/* kind 0: text within *size bytes, NUL-terminated; kind 1: int32_t, *size 4. */
QMTXML_API int WINAPI xmllib_get_value(const char *key, int kind, void *buffer, int *size); /* @13 */

#ifdef __cplusplus
}
#endif

#endif /* QMTXML_H */
