/*
 * sdw.cpp - the plug-in frame: module globals, the load entry point, the resource table lookup,
 * the record lock helpers, the record accessors and the non-zero tick source.
 */
#include "sdw.h"

#include <string.h>

HANDLE gsdwhModuleLock = NULL;
HANDLE gsdwhLogLock = NULL;
SDW_RSC *gsdwlpRsc = NULL;
uint32_t gsdwRscCount = 0;
uint32_t gsdwInitCount = 0;
HANDLE gsdwhLog = NULL;
HANDLE gsdwhStringTable = NULL;
void *gsdwlpVersion = NULL;
char gsdwServerName[256];
char gsdwMonitorType[32];
int32_t gsdwPolicyLogLevel = 0;
int32_t gsdwPolicyLogSize = 0;
uint32_t gsdwDelayRatio = SDW_DEFAULT_DELAY_RATIO;
int32_t gsdwTimeoutRatio = 1;

BOOL SdwModuleAttach(void)
{
    /* The two locks live as long as the process: nothing closes them. */
    gsdwhModuleLock = CreateMutexA(NULL, FALSE, NULL);
    if (gsdwhModuleLock == NULL) {
        return FALSE;
    }
    gsdwhLogLock = CreateMutexA(NULL, FALSE, NULL);
    if (gsdwhLogLock == NULL) {
        return FALSE;
    }
    return TRUE;
}

SDW_RSC *SdwFindRsc(const char *name)
{
    SDW_RSC *table = gsdwlpRsc;
    uint32_t count = gsdwRscCount;

    if (name == NULL || table == NULL) {
        return NULL;
    }
    for (uint32_t i = 0; i < count; i++) {
        if (strcmp(table[i].name, name) == 0) {
            return &table[i];
        }
    }
    return NULL;
}

int32_t SdwMutexLock(HANDLE mutex, int32_t timeout)
{
    int32_t ret = 0;
    DWORD wait = (timeout < 0) ? INFINITE : (DWORD)timeout;

    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Hdl=%x Timeout=%d)", SDW_HDL(mutex), timeout);
    DWORD rc = WaitForSingleObject(mutex, wait);
    if (rc == WAIT_TIMEOUT) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "WaitForSingleObject() timeout. (Hdl=%#x Timeout=%d)", SDW_HDL(mutex),
               timeout);
        ret = SDW_ERR_LOCK;
    } else if (rc != WAIT_OBJECT_0) {
        /* An abandoned mutex is owned by the caller all the same; the caller releases it. */
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "WaitForSingleObject() failed. (Hdl=%#x Err=%d)", SDW_HDL(mutex),
               (int)GetLastError());
        ret = SDW_ERR_SYSTEM;
    }
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", ret);
    return ret;
}

int32_t SdwMutexUnlock(HANDLE mutex)
{
    int32_t ret = 0;

    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Hdl=%x)", SDW_HDL(mutex));
    if (!ReleaseMutex(mutex)) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "ReleaseMutex() failed. (Hdl=%#x Err=%d)", SDW_HDL(mutex),
               (int)GetLastError());
        ret = SDW_ERR_SYSTEM;
    }
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", ret);
    return ret;
}

/* The accessors perform their access also when the lock was not obtained (a disknp record without
 * a worker has no lock at all), so the fields are read and written as whole atomic values. */
static void SdwRecordLock(SDW_RSC *rsc, const char *function)
{
    int32_t ret = SdwMutexLock(SdwLoad(rsc->mutex), SDW_RECORD_LOCK_WAIT);
    if (ret != 0) {
        SdwWriteLog(SDW_NORSC, QMTLOG_ERROR, __FILE__, __LINE__, function, "SdwMutexLock() failed. (Ret=%d)", ret);
    }
}

static void SdwRecordUnlock(SDW_RSC *rsc, const char *function)
{
    int32_t ret = SdwMutexUnlock(SdwLoad(rsc->mutex));
    if (ret != 0) {
        SdwWriteLog(SDW_NORSC, QMTLOG_ERROR, __FILE__, __LINE__, function, "SdwMutexUnlock() failed. (Ret=%d)",
                    ret);
    }
}

void SdwSetResult(SDW_RSC *rsc, int32_t status)
{
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Status=%d Name=%s)", status, rsc->name);
    SdwRecordLock(rsc, __func__);
    SdwStore(rsc->result, status);
    SdwRecordUnlock(rsc, __func__);
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - ()");
}

int32_t SdwGetResult(SDW_RSC *rsc)
{
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Name=%s)", rsc->name);
    SdwRecordLock(rsc, __func__);
    int32_t value = SdwLoad(rsc->result);
    SdwRecordUnlock(rsc, __func__);
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", value);
    return value;
}

void SdwSetMonTick(SDW_RSC *rsc, uint32_t value)
{
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Name=%s Tick=%ld)", rsc->name, SDW_LONG(value));
    SdwRecordLock(rsc, __func__);
    SdwStore(rsc->mon_tick, value);
    SdwRecordUnlock(rsc, __func__);
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - ()");
}

uint32_t SdwGetMonTick(SDW_RSC *rsc)
{
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Name=%s)", rsc->name);
    SdwRecordLock(rsc, __func__);
    uint32_t value = SdwLoad(rsc->mon_tick);
    SdwRecordUnlock(rsc, __func__);
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", (int)value);
    return value;
}

void SdwSetIsDoMontr(SDW_RSC *rsc, int32_t flag)
{
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Status=%d Name=%s)", flag, rsc->name);
    SdwRecordLock(rsc, __func__);
    SdwStore(rsc->is_do_montr, flag);
    SdwRecordUnlock(rsc, __func__);
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - ()");
}

int32_t SdwGetIsDoMontr(SDW_RSC *rsc)
{
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Name=%s)", rsc->name);
    SdwRecordLock(rsc, __func__);
    int32_t value = SdwLoad(rsc->is_do_montr);
    SdwRecordUnlock(rsc, __func__);
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", value);
    return value;
}

uint32_t SdwGetTick(void)
{
    /* 0 stands for "not set" in mon_tick, so the one reading of 0 in each wrap becomes 1. */
    DWORD tick = GetTickCount();
    return tick == 0 ? 1 : tick;
}

/* The host executable's version resource: VS_VERSIONINFO keeps its VS_FIXEDFILEINFO after a
 * 6-byte header and the UTF-16 key "VS_VERSION_INFO", padded to 32 bits: at offset 40. */
#define SDW_FIXED_INFO_OFFSET 40

void SdwWriteBanner(const char *function, BOOL use_ex)
{
    HMODULE module = GetModuleHandleA(NULL);
    if (module == NULL) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "GetModuleHandle() failed. (Err=%d)", (int)GetLastError());
    }
    HRSRC resource;
    if (use_ex) {
        resource = FindResourceExA(module, RT_VERSION, MAKEINTRESOURCEA(VS_VERSION_INFO),
                                   MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL));
        if (resource == NULL) {
            SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "FindResourceEx() failed. (Err=%d)", (int)GetLastError());
        }
    } else {
        resource = FindResourceA(module, MAKEINTRESOURCEA(VS_VERSION_INFO), RT_VERSION);
        if (resource == NULL) {
            SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "FindResource() failed. (Err=%d)", (int)GetLastError());
        }
    }
    HGLOBAL loaded = LoadResource(module, resource);
    if (loaded == NULL) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "LoadResource() failed. (Err=%d)", (int)GetLastError());
    }
    gsdwlpVersion = LockResource(loaded);
    if (gsdwlpVersion == NULL) {
        return;
    }
    const VS_FIXEDFILEINFO *info = (const VS_FIXEDFILEINFO *)((const BYTE *)gsdwlpVersion + SDW_FIXED_INFO_OFFSET);
    SDWLOGAS(function, SDW_NORSC, QMTLOG_INFO, "***** %d.%d.%d.%d/%d.%d.%d.%d *****", HIWORD(info->dwFileVersionMS),
           LOWORD(info->dwFileVersionMS), HIWORD(info->dwFileVersionLS), LOWORD(info->dwFileVersionLS),
           HIWORD(info->dwProductVersionMS), LOWORD(info->dwProductVersionMS), HIWORD(info->dwProductVersionLS),
           LOWORD(info->dwProductVersionLS));
}

void SdwAdoptLogSettings(void)
{
    int level = 0;
    int size = 0;

    /* Values that differ from the open defaults were set by somebody on purpose: they stay. */
    QmtLogGetSettings(SDW_MODULE_NAME, &level, &size, 0);
    if (level == SDW_DEFAULT_LOG_LEVEL) {
        QmtLogSetSettings(SDW_MODULE_NAME, gsdwPolicyLogLevel, 0, 0);
    }
    if (size == SDW_DEFAULT_LOG_SIZE) {
        QmtLogSetSettings(SDW_MODULE_NAME, 0, gsdwPolicyLogSize, 0);
    }
}
