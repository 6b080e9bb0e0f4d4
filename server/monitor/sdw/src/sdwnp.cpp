/*
 * sdwnp.cpp - the disknp network-partition exports: initialisation and teardown, the status
 * query, the control requests and the check point.
 */
#include "sdw.h"

#include <stdio.h>
#include <string.h>

#define SDW_STALL_FACTOR 2000u

static const char *const gsdwNpPolicies[] = {"sdw", "disknp", "nm"};
#define SDW_NP_POLICIES (sizeof(gsdwNpPolicies) / sizeof(gsdwNpPolicies[0]))

extern "C" DWORD WINAPI InitNpRscDll(const char *DllName, int DllType, DWORD ExecMode) noexcept
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
        SdwWriteBanner(__func__, FALSE);
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
    rc = xmllib_init(SDW_MODULE_NAME);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_init() failed. (Ret=%#x)", rc);
        goto failed;
    }
    for (size_t i = 0; i < SDW_NP_POLICIES; i++) {
        rc = xmllib_load_policy(gsdwNpPolicies[i]);
        if (rc != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_load_policy() failed. (Ret=%#x type=%s)", rc, gsdwNpPolicies[i]);
            goto failed;
        }
    }
    rc = xmllib_load_config(1);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_load_config() failed. (Ret=%#x)", rc);
        goto failed;
    }
    ret = SdwGetNpConfig();
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwGetNpConfig() failed. (Ret=%d)", ret);
        goto failed;
    }

    SdwAdoptLogSettings();
    gsdwInitCount++;
    goto exit;

failed:
    result = SDW_ERR_INIT;
    SdwReleaseConfigStore(__func__, gsdwNpPolicies, SDW_NP_POLICIES);
    rc = shmcm_detach();
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "shmcm_detach() failed. (Ret=%d)", rc);
    }
    /* No worker runs yet: the records hold no handles. */
    SdwFreeTable();
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

extern "C" DWORD WINAPI UninitNpRscDll(const char *DllName, int DllType, DWORD ExecMode) noexcept
{
    DWORD result = 0;
    BOOL stop_failed = FALSE;
    int32_t ret;
    int rc;

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

    /* The workers hold their records: the table goes only when every one of them has ended. */
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        SDW_RSC *rsc = &gsdwlpRsc[i];
        if (SdwLoad(rsc->thread) == NULL) {
            continue;
        }
        DWORD status = NpMontrStatusChange("sdw", rsc->name, SDW_CTRL_STOP);
        if (status != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "NpMontrStatusChange() failed. (Ret=%d TdHdl=%#x Tid=%#x Name=%s)",
                   (int)status, SDW_HDL(SdwLoad(rsc->thread)), (unsigned)rsc->thread_id, rsc->name);
            stop_failed = TRUE;
        }
    }
    if (stop_failed) {
        goto exit;
    }

    rc = shmcm_detach();
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "shmcm_detach() failed. (Ret=%d)", rc);
    }
    SdwReleaseConfigStore(__func__, gsdwNpPolicies, SDW_NP_POLICIES);

    /* What a stop left behind; after the stops above normally nothing. */
    for (uint32_t i = 0; i < gsdwRscCount; i++) {
        SDW_RSC *rsc = &gsdwlpRsc[i];
        SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Closing of timer... (Name=%s Hdl=%#x)", rsc->name, SDW_HDL(SdwLoad(rsc->timer)));
        if (SdwLoad(rsc->timer) != NULL) {
            CancelWaitableTimer(SdwLoad(rsc->timer));
            if (!CloseHandle(SdwLoad(rsc->timer))) {
                SDWLOG(SDW_NORSC, QMTLOG_ERROR, "CloseHandle() failed. (Hdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->timer)),
                       (int)GetLastError());
            }
            SdwStore(rsc->timer, (HANDLE)NULL);
        }
        if (SdwLoad(rsc->term_event) != NULL) {
            if (!CloseHandle(SdwLoad(rsc->term_event))) {
                SDWLOG(SDW_NORSC, QMTLOG_ERROR, "CloseHandle() failed. (Hdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->term_event)),
                       (int)GetLastError());
            }
            SdwStore(rsc->term_event, (HANDLE)NULL);
        }
    }
    SdwFreeTable();

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

/* Reads one integer setting of a resource afresh; 0 when read. */
static int SdwNpReloadInt(const char *function, SDW_RSC *rsc, const char *item, int level, int32_t *value)
{
    char key[SDW_KEY_SIZE];
    int size = (int)sizeof(*value);

    memset(key, 0, sizeof(key));
    snprintf(key, sizeof(key), "/root/networkpartition/disknp@%s/%s", rsc->name, item);
    int rc = xmllib_get_value(key, XMLLIB_KIND_INT, value, &size);
    if (rc != 0) {
        if (level == QMTLOG_ERROR) {
            SDWLOGAS(function, rsc->name, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s)", rc, key);
        } else {
            SDWLOGAS(function, rsc->name, QMTLOG_WARNING, "xmllib_get_value() failed. (Ret=%#x key=%s)", rc, key);
        }
    }
    return rc;
}

extern "C" DWORD WINAPI DoNpMontr(const char *Type, const char *Name) noexcept
{
    DWORD result = 0;
    SDW_RSC *rsc;
    int32_t value = 0;
    int32_t ratio = 0;
    char ratio_extra[16];
    uint32_t mon_tick;
    uint32_t elapsed;
    uint32_t limit;
    int32_t larger;
    int rc;

    SDWLOG(SDW_NORSC, QMTLOG_PASS, "Start - (Type=%#x Name=%#x)", SDW_HDL(Type), SDW_HDL(Name));

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

    if (SdwLoad(rsc->thread) == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Not monitoring. (Hdl=%#x Tid=%#x)", 0, (unsigned)SdwLoad(rsc->thread_id));
        SdwSetResult(rsc, SDW_ERR_SYSTEM);
        goto status;
    }

    rc = xmllib_reload_config(1);
    if (rc != 0) {
        SDWLOG(rsc->name, QMTLOG_WARNING, "xmllib_reload_config() failed. (Err=%#x)", rc);
    }

    /* The worker takes both settings at its next cycle. */
    if (SdwNpReloadInt(__func__, rsc, "timeout", QMTLOG_WARNING, &value) == 0) {
        if (value != SdwLoad(rsc->timeout)) {
            SDWLOG(rsc->name, QMTLOG_INFO, "changed polling timeout. (%d->%d)", SdwLoad(rsc->timeout), value);
        }
        if (value < 1) {
            SDWLOG(rsc->name, QMTLOG_WARNING, "Invalid range of polling timeout, set default. (%d->%d)", value,
                   SDW_DEFAULT_TIMEOUT);
            value = SDW_DEFAULT_TIMEOUT;
        }
        SdwStore(rsc->timeout, value);
    }
    if (SdwNpReloadInt(__func__, rsc, "interval", QMTLOG_ERROR, &value) == 0) {
        if (value != SdwLoad(rsc->interval)) {
            SDWLOG(rsc->name, QMTLOG_INFO, "changed polling interval. (%d->%d)", SdwLoad(rsc->interval), value);
        }
        if (value < 1) {
            SDWLOG(rsc->name, QMTLOG_WARNING, "Invalid range of polling interval, set default. (%d->%d)", value,
                   SDW_DEFAULT_INTERVAL);
            value = SDW_DEFAULT_INTERVAL;
        }
        SdwStore(rsc->interval, value);
    }

    /* Stored as read; the worker raises it to 1 where it uses it. */
    memset(ratio_extra, 0, sizeof(ratio_extra));
    rc = shmcm_getratio(&ratio, ratio_extra);
    if (rc != 0) {
        SDWLOG(rsc->name, QMTLOG_WARNING, "shmcm_getratio() failed. (Ret=%d)", rc);
        ratio = 1;
    }
    SdwStore(gsdwTimeoutRatio, ratio);

    /* A cycle that has run for twice the larger setting, scaled, has stalled. The ratio is kept
     * as read, but a ratio below 1 would make every running cycle look stalled. */
    larger = SdwLoad(rsc->timeout) > SdwLoad(rsc->interval) ? SdwLoad(rsc->timeout) : SdwLoad(rsc->interval);
    limit = (uint32_t)larger * (uint32_t)(ratio < 1 ? 1 : ratio) * SDW_STALL_FACTOR;
    mon_tick = SdwGetMonTick(rsc);
    elapsed = SdwGetTick() - mon_tick;
    if (mon_tick != 0 && elapsed >= limit) {
        SDWLOG(rsc->name, QMTLOG_ERROR, "%s occurred timeout in %#x. (Timeout=%d Tick=%d)", rsc->name,
               (unsigned)SdwLoad(rsc->check_point), (int)elapsed, (int)limit);
        SdwSetResult(rsc, SDW_ERR_SYSTEM);
        result = SDW_ERR_SYSTEM;
        goto exit;
    }

status:
    result = (DWORD)SdwGetResult(rsc);
    SDWLOG(rsc->name, QMTLOG_TRACE, "Status of %s is %d[%#x])", rsc->name, (int)result,
           (unsigned)SdwLoad(rsc->check_point));

exit:
    SDWLOG(SDW_NORSC, QMTLOG_PASS, "End - (Ret=%d)", (int)result);
    return result;
}

extern "C" BYTE WINAPI GetCheckPoint(const char *Name) noexcept
{
    BYTE result = 0;
    SDW_RSC *rsc;

    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Name=%#x)", SDW_HDL(Name));

    if (Name == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Invalid parameter. (Name=%#x)", 0);
        goto exit;
    }
    rsc = SdwFindRsc(Name);
    if (rsc == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Invalid parameter, unregistered. (Name=%s)", Name);
        goto exit;
    }
    result = SdwLoad(rsc->check_point);
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Check Point->%#x)", (unsigned)result);

exit:
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", (int)result);
    return result;
}

extern "C" DWORD WINAPI NpMontrStatusChange(const char *Type, const char *Name, int Ctrl) noexcept
{
    DWORD result = 0;
    int32_t ret;
    SDW_RSC *rsc;

    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "Start - (Type=%#x Name=%#x Ctrl=%#x)", SDW_HDL(Type), SDW_HDL(Name),
           (unsigned)Ctrl);

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

    switch (Ctrl) {
    case SDW_CTRL_START:
    case SDW_CTRL_START_RM:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Start[%#x] of %s >>>", (unsigned)Ctrl, rsc->name);
        ret = SdwCreateMonitor(rsc, SdwNpMonitor);
        if (ret != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwCreateMonitor() failed. (Ret=%d)", ret);
            result = (DWORD)ret;
        }
        break;
    case SDW_CTRL_STOP:
    case SDW_CTRL_STOP_RM:
    case SDW_CTRL_STOP_SHUTDOWN:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Stop[%#x] of %s[%#x] >>>", (unsigned)Ctrl, rsc->name,
               (unsigned)SdwLoad(rsc->check_point));
        ret = SdwDestroyMonitor(rsc);
        if (ret != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwDestroyMonitor() failed. (Ret=%d)", ret);
            result = (DWORD)ret;
        }
        break;
    case SDW_CTRL_RESUME:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Resume[%#x] of %s[%#x] >>>", SDW_REQ_RESUME, rsc->name,
               (unsigned)SdwLoad(rsc->check_point));
        ret = SdwResumeMontr(rsc);
        if (ret != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwResumeMontr() failed. (Ret=%d)", ret);
            result = (DWORD)ret;
        }
        break;
    case SDW_CTRL_SUSPEND:
        SDWLOG(SDW_NORSC, QMTLOG_INFO, "<<< Suspend[%#x] of %s[%#x] >>>", SDW_REQ_SUSPEND, rsc->name,
               (unsigned)SdwLoad(rsc->check_point));
        ret = SdwSuspendMontr(rsc);
        if (ret != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SdwSuspendMontr() failed. (Ret=%d)", ret);
            result = (DWORD)ret;
        }
        break;
    default:
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Invalid control code. (Type=%s Name=%s Ctrl=%#x)", Type, rsc->name,
               (unsigned)Ctrl);
        result = SDW_ERR_PARAM;
        break;
    }

exit:
    SDWLOG(SDW_NORSC, QMTLOG_DETAIL, "End - (Ret=%d)", (int)result);
    return result;
}
