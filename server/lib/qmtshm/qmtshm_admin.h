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
    int writer_pid;               /* the process that wrote the entry last */
    unsigned long long writer_start; /* its start time, clock ticks after boot */
    int stale;                    /* 1 when that process has gone */
};
/* Copies up to max entries in table order; *count receives the number of readable entries in use.
 * Returns QMTSHM_E_DAMAGED when some entries could not be read (the readable ones are still copied),
 * else QMTSHM_E_INSUFFICIENT_BUFFER when there are more than max (the first max are copied), else 0.
 * Works without attaching (never creates the segment); QMTSHM_E_NOT_FOUND when it does not exist,
 * QMTSHM_E_NOT_OWNER or QMTSHM_E_BAD_SEGMENT when it fails the checks (docs/shared-memory.md). */
QMTSHM_API int shmrm_list(struct QmtShmRmEntry *out, int max, int *count);

/* The table as a whole. */
struct QmtShmRmInfo {
    int capacity;                 /* entries the table holds */
    int used;                     /* readable entries in use */
    int damaged;                  /* entries that could not be read */
};
QMTSHM_API int shmrm_info(struct QmtShmRmInfo *info);

/* 1 when the resource segment exists, 0 otherwise; never creates it. */
QMTSHM_API int shmrm_exists(void);

#ifdef __cplusplus
}
#endif

#endif /* QMTSHM_ADMIN_H */
