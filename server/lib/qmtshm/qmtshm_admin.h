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

/* qmtshmrm. The host's own flags for an entry (shmrm_sethost). */
#define QMTSHM_HOST_STATUS 1      /* `status` holds the status of the resource's last pass */
#define QMTSHM_HOST_CHECKPOINT 2  /* `check_point` holds the resource's check point (disknp) */
#define QMTSHM_HOST_OVERDUE 4     /* a pass has been running for longer than its time-out */

/* One resource's entry as a reader sees it. */
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
    int host_flags;               /* QMTSHM_HOST_* */
    int status;                   /* with QMTSHM_HOST_STATUS */
    int check_point;              /* with QMTSHM_HOST_CHECKPOINT */
    long long status_time_ms;     /* wall clock of the host's last shmrm_sethost, 0 if never */
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
    int host_pid;                 /* the process holding the claim, 0 if none */
    unsigned long long host_start;
    int host_alive;               /* 1 when that process still runs */
};
QMTSHM_API int shmrm_info(struct QmtShmRmInfo *info);

/* Claims the segment for this process (attached): fails with QMTSHM_E_IN_USE, *holder_pid set,
 * while another live process holds the claim. The claim ends at this process's last detach or
 * its exit. */
QMTSHM_API int shmrm_claim(int *holder_pid);

/* The host's view of a resource, kept beside what the plug-in writes: flags QMTSHM_HOST_* tell
 * which of status and check_point hold a value, and whether a pass is overdue. Attached only. */
QMTSHM_API int shmrm_sethost(const char *type, const char *name, int status, int check_point, int flags);

/* 1 when the resource segment exists, 0 otherwise; never creates it. */
QMTSHM_API int shmrm_exists(void);

#ifdef __cplusplus
}
#endif

#endif /* QMTSHM_ADMIN_H */
