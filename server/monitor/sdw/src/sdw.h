/*
 * sdw.h - the plug-in's record, module globals, status and control codes, and its internal
 * operations. Shared by every module of the plug-in; the exports are declared in qmtsdw.h.
 */
#ifndef SDW_H
#define SDW_H

#include "qmtwin.h"

#include "qmtlog.h"
#include "qmtshm.h"
#include "qmtutil.h"
#include "qmtxml.h"

#include <stddef.h>
#include <stdint.h>

#include "qmtsdw.h"

/* ---- Status codes ------------------------------------------------------------------------ */
#define SDW_OK 0
#define SDW_ERR_INIT 1
#define SDW_ERR_PARAM 3
#define SDW_ERR_DEVICE 4
#define SDW_ERR_IO 5
#define SDW_ERR_LOCK 6
#define SDW_ERR_MEMORY 7
#define SDW_ERR_TIMEOUT 90
#define SDW_ERR_SYSTEM 99
#define SDW_ERR_WAIT 100
#define SDW_ERR_MONITOR 190

/* ---- Control codes of MontrStatusChange and NpMontrStatusChange --------------------------- */
#define SDW_CTRL_START 0x0
#define SDW_CTRL_START_RM 0x110
#define SDW_CTRL_STOP 0x1
#define SDW_CTRL_STOP_RM 0x111
#define SDW_CTRL_STOP_SHUTDOWN 0x201
#define SDW_CTRL_RESUME 0x10
#define SDW_CTRL_SUSPEND 0x11

/* ---- Worker requests and check points ------------------------------------------------------ */
#define SDW_REQ_NONE 0
#define SDW_REQ_RESUME 16
#define SDW_REQ_SUSPEND 17

#define SDW_CP_NOT_RUNNING 0
#define SDW_CP_WAITING 1
#define SDW_CP_PREPARING 2
#define SDW_CP_PROBING 3
#define SDW_CP_EVALUATING 4

/* ---- Wait times (ms) and defaults ----------------------------------------------------------- */
#define SDW_MODULE_LOCK_WAIT 30000
#define SDW_RECORD_LOCK_WAIT 10000
#define SDW_LOG_LOCK_WAIT 3000
#define SDW_DEFAULT_TIMEOUT 300
#define SDW_DEFAULT_INTERVAL 60
#define SDW_DEFAULT_DELAY_RATIO 80
#define SDW_DEFAULT_LOG_LEVEL 4
#define SDW_DEFAULT_LOG_SIZE 10000000
#define SDW_MODULE_NAME "sdw"
#define SDW_LOG_MUTEX_NAME "Global\\ORVQMT_SDW_LOG"
#define SDW_KEY_SIZE 1024
#define SDW_PATH_SIZE 1024
#define SDW_TEXT_SIZE 256

/* Events of the disk check. */
#define SDW_EVENT_DELAY 0x80000E43u
#define SDW_EVENT_FAILURE 0xC0000E44u
#define SDW_EVENT_RECOVERY 0x40000E45u

/* IOCTL codes, spelled out so the two platforms agree. */
#define SDW_IOCTL_CHECK_VERIFY 0x2D4800u
#define SDW_IOCTL_DISK_EXTENTS 0x560000u

/* ---- The resource record ---------------------------------------------------------------------
 * Fields after `retry` hold one of two views, by service. Values shared between threads without
 * the record lock are single aligned words of at most 32 bits, read and written whole through
 * SdwLoad/SdwStore. */
typedef struct SDW_RSC {
    char name[32];
    int32_t timeout;
    int32_t interval;
    int32_t retry;
    union {
        struct { /* sdw */
            char object[32];
            char volume_guid[64];
        };
        struct { /* disknp */
            int32_t device;
            char device_info[64];
        };
    };
    VOLUME_DISK_EXTENTS *extents;
    DWORD thread_id;
    HANDLE thread;
    HANDLE term_event;
    HANDLE timer;
    HANDLE mutex;
    HANDLE *device_handles;
    int32_t result;
    int32_t request;
    int32_t request_pending;
    uint32_t mon_tick;
    uint8_t check_point;
    int32_t is_do_montr;
    /* 1 while a DoMontr pass owns the record's extents and handles. Unlike is_do_montr, which a
     * start request clears, only the pass that set it clears it. */
    int32_t pass_owned;
} SDW_RSC;

/* Whole-value loads and stores of the lock-free shared fields. */
#define SdwLoad(field) __atomic_load_n(&(field), __ATOMIC_SEQ_CST)
#define SdwStore(field, value) __atomic_store_n(&(field), (value), __ATOMIC_SEQ_CST)

/* ---- Module globals ------------------------------------------------------------------------- */
extern HANDLE gsdwhModuleLock;
extern HANDLE gsdwhLogLock;
extern SDW_RSC *gsdwlpRsc;
extern uint32_t gsdwRscCount;
extern uint32_t gsdwInitCount;
extern HANDLE gsdwhLog;
extern HANDLE gsdwhStringTable;
extern void *gsdwlpVersion;
extern char gsdwServerName[256];
extern char gsdwMonitorType[32];
extern int32_t gsdwPolicyLogLevel;
extern int32_t gsdwPolicyLogSize;
extern uint32_t gsdwDelayRatio;
extern int32_t gsdwTimeoutRatio;

/* ---- Frame: table, locks, accessors, tick ---------------------------------------------------- */
SDW_RSC *SdwFindRsc(const char *name);
int32_t SdwMutexLock(HANDLE mutex, int32_t timeout);
int32_t SdwMutexUnlock(HANDLE mutex);
void SdwSetResult(SDW_RSC *rsc, int32_t status);
int32_t SdwGetResult(SDW_RSC *rsc);
void SdwSetMonTick(SDW_RSC *rsc, uint32_t value);
uint32_t SdwGetMonTick(SDW_RSC *rsc);
void SdwSetIsDoMontr(SDW_RSC *rsc, int32_t flag);
int32_t SdwGetIsDoMontr(SDW_RSC *rsc);
uint32_t SdwGetTick(void);
/* The load entry point's work: creates the module lock and the log lock. FALSE on failure. */
BOOL SdwModuleAttach(void);

/* ---- Trace log -------------------------------------------------------------------------------- */
void SdwWriteLog(const char *rsc_name, int level, const char *file, int line, const char *function,
                 const char *format, ...)
#ifndef _WIN32
    __attribute__((format(printf, 6, 7)))
#endif
    ;
/* Trace macros: the function name is the caller's own. */
#define SDWLOG(rsc_name, level, ...) SdwWriteLog((rsc_name), (level), __FILE__, __LINE__, __func__, __VA_ARGS__)
/* For a helper that performs a step of another operation: its lines go under that operation's
 * name, since the log's readers know the operations and not our helpers. */
#define SDWLOGAS(function, rsc_name, level, ...) \
    SdwWriteLog((rsc_name), (level), __FILE__, __LINE__, (function), __VA_ARGS__)
#define SDW_NORSC ((const char *)0)
/* Handles and pointers are shown as 32-bit numbers in the messages. */
#define SDW_HDL(h) ((unsigned)(uintptr_t)(h))
/* A value for a %ld, as the Windows build prints it: long is 32 bits there. */
#define SDW_LONG(v) ((long)(int32_t)(v))
/* A text argument from the host, which may be absent, for a %s. */
#define SDW_SHOW(text) ((text) != NULL ? (text) : "(null)")

/* ---- Configuration ------------------------------------------------------------------------- */
int32_t SdwGetPolicy(void);
int32_t SdwGetConfig(void);
int32_t SdwReloadConfig(SDW_RSC *rsc);
int32_t SdwGetNpConfig(void);
/* The shared start of both table builders: the policy values, the delay ratio from delay_key,
 * then the names of "/root/<group>/<kind>" and a zero-filled table of that many records. When a
 * table exists already it returns 0 with no names and a count of 0. Every failure is logged. */
int32_t SdwStartTable(const char *function, const char *delay_key, const char *group, const char *kind, char **names,
                      uint32_t *count);
/* Reads one required integer of a resource; 0, or 99 after logging the key and the size left. */
int32_t SdwReadResourceInt(const char *function, const char *key, int32_t *value);
void SdwFreeTable(void);
/* Unloads the configuration, the given policies (loaded in this order) and the store itself,
 * logging each failure and going on: it is also the clean-up of a failed initialisation. */
void SdwReleaseConfigStore(const char *function, const char *const *policies, uint32_t count);

/* ---- Disk checking ------------------------------------------------------------------------- */
int32_t SdwGetLUN(SDW_RSC *rsc, const char *guid);
/* Disk number of extent i; the buffer holds as many extents as its header counts. */
static inline DWORD SdwExtentDisk(const VOLUME_DISK_EXTENTS *extents, DWORD i)
{
    const DISK_EXTENT *first = (const DISK_EXTENT *)((const BYTE *)extents + offsetof(VOLUME_DISK_EXTENTS, Extents));
    return first[i].DiskNumber;
}
int32_t SdwMonitor(SDW_RSC *rsc);
/* The seven trace lines of a completed probe, written for the resource under `function`. */
void SdwLogProbeResult(SDW_RSC *rsc, const char *function, const OVERLAPPED *ov, DWORD bytes, DWORD lun);

/* ---- Network-partition worker and its control ---------------------------------------------- */
typedef unsigned(__stdcall *SDW_THREAD_FUNC)(void *);
unsigned __stdcall SdwNpMonitor(void *arg);
int32_t SdwCreateMonitor(SDW_RSC *rsc, SDW_THREAD_FUNC func);
int32_t SdwDestroyMonitor(SDW_RSC *rsc);
int32_t SdwSuspendMontr(SDW_RSC *rsc);
int32_t SdwResumeMontr(SDW_RSC *rsc);

/* ---- Shared by both services' initialisation ----------------------------------------------- */
void SdwSetShmDescription(SDW_RSC *rsc, const char *text, int32_t length);
/* Writes the version banner for the initialisation `function` (FindResourceExA when use_ex, else
 * FindResourceA). */
void SdwWriteBanner(const char *function, BOOL use_ex);
/* Adopts the policy's log level and size while the log still has its defaults. */
void SdwAdoptLogSettings(void);

#endif /* SDW_H */
