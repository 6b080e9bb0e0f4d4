/*
 * qmtshm_admin.h - the operator's side of the cluster and resource shared memories (qmtstat,
 * tests). The plug-in uses qmtshm.h only.
 */
#ifndef QMTSHM_ADMIN_H
#define QMTSHM_ADMIN_H

#include "qmtshm.h"

#ifdef __cplusplus
extern "C" {
#endif

/* qmtshmcm. Sets the cluster ratio and advances its generation; attaches for the call when this
 * process is not attached. Returns 0 on success. */
QMTSHM_API int shmcm_setratio(int ratio);
/* 1 when the cluster segment exists, 0 otherwise; never creates it. */
QMTSHM_API int shmcm_exists(void);
/* Reads the ratio without creating the segment; non-zero when it does not exist. */
QMTSHM_API int shmcm_peekratio(int *ratio);

/* qmtshmrm. One resource's entry as a reader sees it. */
struct QmtShmRmEntry {
    char type[32];
    char name[64];
    int progress;                 /* last progress code, 0 before the first */
    unsigned progress_tick;       /* monotonic milliseconds (32-bit, wraps) at the last progress */
    long long progress_time_ms;   /* wall clock, ms since 1970, at the last progress; 0 if none */
    long long update_time_ms;     /* wall clock, ms since 1970, at the last change of the entry */
    char descript[256];           /* NUL-terminated */
    int descript_len;
};
/* Copies up to max entries, each one consistent, in creation order; *count receives the number of
 * entries in the table. More entries than max: the first max are copied and the result is non-zero.
 * Works without attaching (never creates the segment); non-zero when it does not exist. */
QMTSHM_API int shmrm_list(struct QmtShmRmEntry *out, int max, int *count);
/* 1 when the resource segment exists, 0 otherwise; never creates it. */
QMTSHM_API int shmrm_exists(void);

#ifdef __cplusplus
}
#endif

#endif /* QMTSHM_ADMIN_H */
