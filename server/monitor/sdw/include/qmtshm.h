/*
 * qmtshm.h - the cluster shared memory (qmtshmcm) and the resource shared memory (qmtshmrm).
 * On Windows they are imported by ordinal (see server/lib/qmtshm/qmtshmcm.def, qmtshmrm.def).
 */
#ifndef QMTSHM_H
#define QMTSHM_H

#include "qmtwin.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32) && defined(QMTSHM_BUILDING)
#define QMTSHM_API /* the library's .def file exports it */
#elif defined(_WIN32)
#define QMTSHM_API __declspec(dllimport)
#else
#define QMTSHM_API __attribute__((visibility("default")))
#endif

/* Progress codes of a monitoring pass. */
#define QMT_DOMONTR_MONSTART 3
#define QMT_DOMONTR_MONEND 4

/* qmtshmcm. Every function returns 0 on success. */
QMTSHM_API int WINAPI shmcm_attach(void);                    /* @3 */
QMTSHM_API int WINAPI shmcm_detach(void);                    /* @4 */
/* extra: room for 16 bytes that receive the ratio's generation data. */
QMTSHM_API int WINAPI shmcm_getratio(int *ratio, void *extra); /* @15 */

/* qmtshmrm. */
QMTSHM_API int WINAPI shmrm_attach(void);                    /* @3 */
QMTSHM_API int WINAPI shmrm_detach(void);                    /* @4 */
QMTSHM_API int WINAPI shmrm_setdescript(void *reserved, const char *type, const char *name,
                                        const char *text, int length);          /* @8 */
QMTSHM_API int WINAPI shmrm_setmonprogress(const char *type, const char *name, int progress); /* @68 */

#ifdef __cplusplus
}
#endif

#endif /* QMTSHM_H */
