/*
 * sdwrsc.cpp - the sdw monitor-resource exports: initialisation and teardown, the monitoring
 * pass and the control requests.
 */
#include "sdw.h"

#include <string.h>

static const char *const gsdwRscPolicies[] = {"sdw", "rm"};
#define SDW_RSC_POLICIES (sizeof(gsdwRscPolicies) / sizeof(gsdwRscPolicies[0]))

static void SdwDetachShm(const char *function)
{
    int rc = shmcm_detach();
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "shmcm_detach() failed. (Ret=%d)", rc);
    }
    rc = shmrm_detach();
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "shmrm_detach() failed. (Ret=%d)", rc);
    }
}

/* Closes every record lock, then frees the table. */
static void SdwReleaseTable(const char *function)
{
    if (gsdwlpRsc == NULL) {
        return;
    }
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        SDW_RSC *rsc = &gsdwlpRsc[i];
        if (SdwLoad(rsc->mutex) != NULL) {
            if (!CloseHandle(SdwLoad(rsc->mutex))) {
                SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "CloseHandle() failed. (Hdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->mutex)),
                       (int)GetLastError());
            }
            SdwStore(rsc->mutex, (HANDLE)NULL);
        }
    }
    SdwFreeTable();
}

static void SdwReleaseStringTable(const char *function)
{
    int rc = QmtUnloadStringTable(gsdwhStringTable);
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "QmtUnloadStringTable() failed. (Ret=%d)", rc);
    }
    gsdwhStringTable = NULL;
}

extern "C" DWORD WINAPI InitRscDll(const char *DllName, int DllType, DWORD ExecMode) noexcept
{
    DWORD result = 0;
    int32_t ret;
    int rc;

    ret = SdwMutexLock(gsdwhModuleLock, SDW_MODULE_LOCK_WAIT);
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwMutexLock() failed. (Ret=%d)", ret);
        result = SDW_ERR_INIT;
        goto exit;
    }
    if (gsdwInitCount != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Already initialized. (Ref=%d)", (int)gsdwInitCount);
        goto exit;
    }

    QmtLogOpen(SDW_MODULE_NAME, &gsdwhLog, SDW_DEFAULT_LOG_LEVEL, SDW_DEFAULT_LOG_SIZE, 0, SDW_LOG_MUTEX_NAME);
    if (gsdwlpVersion == NULL) {
        SdwWriteBanner(__func__, TRUE);
    }
    SDWLOG(SDW_NORSC, QMTLOG_INFO, "Start - (DllName=%s DllType=%#x ExecMode=%#x)", SDW_SHOW(DllName), DllType,
           ExecMode);

    rc = cs_gethostname(gsdwServerName, (int)sizeof(gsdwServerName), 1, gsdwhLog);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "cs_gethostname() failed. (Ret=%d)", rc);
        goto failed;
    }
    gsdwServerName[sizeof(gsdwServerName) - 1] = '\0';
    rc = shmcm_attach();
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "shmcm_attach() failed. (Ret=%d)", rc);
        goto failed;
    }
    rc = shmrm_attach();
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "shmrm_attach() failed. (Ret=%d)", rc);
        goto failed;
    }
    if (gsdwhStringTable == NULL) {
        rc = QmtLoadStringTable(SDW_MODULE_NAME, 0, &gsdwhStringTable);
        if (rc != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "QmtLoadStringTable() failed. (Ret=%d)", rc);
            goto failed;
        }
    }
    rc = xmllib_init(SDW_MODULE_NAME);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_init() failed. (Ret=%#x)", rc);
        goto failed;
    }
    for (size_t i = 0; i < SDW_RSC_POLICIES; i++) {
        rc = xmllib_load_policy(gsdwRscPolicies[i]);
        if (rc != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_load_policy() failed. (Ret=%#x type=%s)", rc, gsdwRscPolicies[i]);
            goto failed;
        }
    }
    rc = xmllib_load_config(1);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_load_config() failed. (Ret=%#x)", rc);
        goto failed;
    }
    ret = SdwGetConfig();
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwGetConfig() failed. (Ret=%d)", ret);
        goto failed;
    }

    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        gsdwlpRsc[i].mutex = NULL;
    }
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        gsdwlpRsc[i].mutex = CreateMutexA(NULL, FALSE, NULL);
        if (gsdwlpRsc[i].mutex == NULL) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "CreateMutex() failed. (Err=%d)", (int)GetLastError());
            result = SDW_ERR_SYSTEM;
            goto unwind;
        }
    }

    SdwAdoptLogSettings();
    gsdwInitCount++;
    goto exit;

failed:
    result = SDW_ERR_INIT;
unwind:
    SdwReleaseConfigStore(__func__, gsdwRscPolicies, SDW_RSC_POLICIES);
    SdwDetachShm(__func__);
    SdwReleaseTable(__func__);
    if (gsdwhStringTable != NULL) {
        SdwReleaseStringTable(__func__);
    }
    QmtLogClose(gsdwhLog);
    gsdwhLog = NULL;

exit:
    ret = SdwMutexUnlock(gsdwhModuleLock);
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwMutexUnlock() failed. (Ret=%d)", ret);
    }
    SDWLOG(SDW_NORSC, QMTLOG_INFO, "End - (Ret=%d)", (int)result);
    return result;
}

extern "C" DWORD WINAPI UninitRscDll(const char *DllName, int DllType, DWORD ExecMode) noexcept
{
    DWORD result = 0;
    int32_t ret;

    SDWLOG(SDW_NORSC, QMTLOG_INFO, "Start - (DllName=%s DllType=%#x ExecMode=%#x)", SDW_SHOW(DllName), DllType,
           ExecMode);

    ret = SdwMutexLock(gsdwhModuleLock, SDW_MODULE_LOCK_WAIT);
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwMutexLock() failed. (Ret=%d)", ret);
        result = (DWORD)ret;
        goto exit;
    }
    if (gsdwInitCount == 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Not initialized. (Ref=%d)", (int)gsdwInitCount);
        goto exit;
    }

    /* The exports use the table without a module lock: a running pass forbids the teardown. */
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        if (SdwGetIsDoMontr(&gsdwlpRsc[i]) != 0) {
            goto exit;
        }
    }

    SdwDetachShm(__func__);
    SdwReleaseConfigStore(__func__, gsdwRscPolicies, SDW_RSC_POLICIES);
    SdwReleaseTable(__func__);
    SdwReleaseStringTable(__func__);

    SDWLOG(SDW_NORSC, QMTLOG_INFO, "End - (Ret=%d)", 0);
    QmtLogClose(gsdwhLog);
    gsdwInitCount--;
    gsdwhLog = NULL;

exit:
    ret = SdwMutexUnlock(gsdwhModuleLock);
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwMutexUnlock() failed. (Ret=%d)", ret);
    }
    SDWLOG(SDW_NORSC, QMTLOG_INFO, "End - (Ret=%d)", (int)result);
    return result;
}

void SdwSetShmDescription(SDW_RSC *rsc, const char *text, int32_t length)
{
    int32_t ret;
    int rc;

    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Name=%s Err=%s ErrLen=%d)", rsc->name, text, length);
    /* Held across the write, so that the descriptions of one resource go out one at a time. */
    ret = SdwMutexLock(SdwLoad(rsc->mutex), SDW_RECORD_LOCK_WAIT);
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwMutexLock() failed. (Ret=%d)", ret);
    }
    rc = shmrm_setdescript(NULL, gsdwMonitorType, rsc->name, text, length);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "shmrm_setdescript() failed. (Ret=%d Name=%s Err=%s ErrLen=%d)", rc, rsc->name,
               text, length);
    }
    ret = SdwMutexUnlock(SdwLoad(rsc->mutex));
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwMutexUnlock() failed. (Ret=%d)", ret);
    }
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - ()");
}

extern "C" DWORD WINAPI DoMontr(const char *Type, const char *Name) noexcept
{
    DWORD result = 0;
    SDW_RSC *rsc;
    char text[SDW_TEXT_SIZE];

    SDWLOG(SDW_NORSC, QMTLOG_PASS, "Start - (Type=%#x Name=%#x)", SDW_HDL(Type), SDW_HDL(Name));

    if (Type == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid parameter. (Type=%#x)", 0);
        result = SDW_ERR_MONITOR;
        goto exit;
    }
    if (Name == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid parameter. (Name=%#x)", 0);
        result = SDW_ERR_MONITOR;
        goto exit;
    }
    if (gsdwlpRsc == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid parameter, gsdwlpRsc is NULL. (Name=%s)", Name);
        result = SDW_ERR_MONITOR;
        goto exit;
    }
    rsc = SdwFindRsc(Name);
    if (rsc == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid parameter, unregistered. (Name=%s)", Name);
        result = SDW_ERR_MONITOR;
        goto exit;
    }
    if (rsc->volume_guid[0] == '\0') {
        SDWLOG(SDW_NORSC, QMTLOG_TRACE, "No monitor in server. (Name=%s)", rsc->name);
        goto exit;
    }

    /* The check keeps its extents and handles in the record, so a second pass on a record whose
     * pass still runs (two calls for one name, or two resources configured under one name) must
     * not start a check of its own: it answers the status of the last completed pass. */
    if (__atomic_exchange_n(&rsc->pass_owned, 1, __ATOMIC_ACQ_REL) != 0) {
        result = (DWORD)SdwGetResult(rsc);
        goto exit;
    }
    SdwSetIsDoMontr(rsc, 1);
    result = (DWORD)SdwMonitor(rsc);
    SdwSetResult(rsc, (int32_t)result);
    SDWLOG(rsc->name, QMTLOG_TRACE, "Status of %s is %d)", rsc->name, (int)result);
    memset(text, 0, sizeof(text));
    QmtGetStatusText(gsdwhStringTable, (int)result, text, (int)sizeof(text), 0);
    text[sizeof(text) - 1] = '\0';
    SdwSetShmDescription(rsc, text, (int32_t)sizeof(text));
    SdwSetIsDoMontr(rsc, 0);
    __atomic_store_n(&rsc->pass_owned, 0, __ATOMIC_RELEASE);

exit:
    SDWLOG(SDW_NORSC, QMTLOG_PASS, "End - (Ret=%d)", (int)result);
    return result;
}

extern "C" DWORD WINAPI MontrStatusChange(const char *Type, const char *Name, int Ctrl) noexcept
{
    DWORD result = 0;
    SDW_RSC *rsc;

    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Type=%#x Name=%#x Ctrl=%#x)", SDW_HDL(Type), SDW_HDL(Name), Ctrl);

    if (Type == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Invalid parameter. (Type=%#x)", 0);
        result = SDW_ERR_PARAM;
        goto exit;
    }
    if (Name == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Invalid parameter. (Name=%#x)", 0);
        result = SDW_ERR_PARAM;
        goto exit;
    }
    rsc = SdwFindRsc(Name);
    if (rsc == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Invalid parameter, unregistered. (Name=%s)", Name);
        result = SDW_ERR_PARAM;
        goto exit;
    }
    if (rsc->volume_guid[0] == '\0') {
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "No monitor in server. (Name=%s)", rsc->name);
        goto exit;
    }

    switch (Ctrl) {
    case SDW_CTRL_START:
    case SDW_CTRL_START_RM:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Start[%#x] of %s >>>", Ctrl, rsc->name);
        if (SdwReloadConfig(rsc) == 0) {
            SDWLOG(rsc->name, QMTLOG_ERROR, "SdwReloadConfig() failed. (Name=%s)", rsc->name);
        }
        SdwSetResult(rsc, 0);
        SdwSetMonTick(rsc, 0);
        SdwSetIsDoMontr(rsc, 0);
        break;
    case SDW_CTRL_STOP:
    case SDW_CTRL_STOP_RM:
    case SDW_CTRL_STOP_SHUTDOWN:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Stop[%#x] of %s >>>", Ctrl, rsc->name);
        break;
    case SDW_CTRL_RESUME:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Resume[%#x] of %s >>>", Ctrl, rsc->name);
        break;
    case SDW_CTRL_SUSPEND:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Suspend[%#x] of %s >>>", Ctrl, rsc->name);
        break;
    default:
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Invalid control code. (Type=%s Name=%s Ctrl=%#x)", Type, rsc->name, Ctrl);
        result = SDW_ERR_PARAM;
        break;
    }

exit:
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", (int)result);
    return result;
}
