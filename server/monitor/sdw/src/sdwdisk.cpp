/*
 * sdwdisk.cpp - disk checking: from a volume GUID to the disks that hold it, and one timed
 * check-verify probe of every disk of a volume.
 */
#include "sdw.h"

#include <stdio.h>
#include <string.h>

/* The disk check's lines all carry its own function name, also those of the probe helper. */
#define MONLOG(level, ...) SdwWriteLog(rsc->name, (level), __FILE__, __LINE__, "SdwMonitor", __VA_ARGS__)
#define LUNLOG(level, ...) SdwWriteLog(rsc->name, (level), __FILE__, __LINE__, "SdwGetLUN", __VA_ARGS__)

#define SDW_EXTENTS_HEADER 8u
#define SDW_EXTENT_SIZE 24u
#define SDW_EXTENTS_FIRST 32u

int32_t SdwGetLUN(SDW_RSC *rsc, const char *guid)
{
    int32_t ret = 0;
    char path[SDW_PATH_SIZE];
    HANDLE volume;
    DWORD returned = 0;

    LUNLOG(QMTLOG_TRACE, "Start - (Name=%s Hdl=%x)", rsc->name, SDW_HDL(SdwLoad(rsc->thread)));

    if (rsc->extents != NULL) {
        LUNLOG(QMTLOG_ERROR, "Invalid seaquence, not NULL. (Name=%s Vol=%#x)", rsc->name, SDW_HDL(rsc->extents));
        goto exit;
    }

    memset(path, 0, sizeof(path));
    snprintf(path, sizeof(path), "\\\\?\\Volume{%s}", guid);
    volume = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL,
                         OPEN_EXISTING, 0, NULL);
    if (volume == INVALID_HANDLE_VALUE) {
        LUNLOG(QMTLOG_ERROR, "CreateFile() failed. (Name=%s Path=%s Err=%d)", rsc->name, path, (int)GetLastError());
        ret = 1;
        goto exit;
    }

    /* Room for one extent first: most volumes sit on one disk, and a larger volume tells its
     * true extent count through ERROR_MORE_DATA. */
    rsc->extents = (VOLUME_DISK_EXTENTS *)GlobalAlloc(GPTR, SDW_EXTENTS_FIRST);
    if (rsc->extents == NULL) {
        LUNLOG(QMTLOG_ERROR, "MEMALLOC() failed. (Name=%s Err=%d)", rsc->name, (int)GetLastError());
        ret = SDW_ERR_MEMORY;
        goto close;
    }
    if (!DeviceIoControl(volume, SDW_IOCTL_DISK_EXTENTS, NULL, 0, rsc->extents, SDW_EXTENTS_FIRST, &returned,
                         NULL)) {
        DWORD err = GetLastError();
        if (err != ERROR_MORE_DATA) {
            LUNLOG(QMTLOG_ERROR, "DeviceIoControl() failed. (Name=%s Err=%d)", rsc->name, (int)err);
            GlobalFree(rsc->extents);
            rsc->extents = NULL;
            ret = SDW_ERR_IO;
            goto close;
        }
    }

    {
        DWORD count = rsc->extents->NumberOfDiskExtents;
        DWORD capacity = 1;
        if (count > 1) {
            uint64_t size = SDW_EXTENTS_HEADER + (uint64_t)SDW_EXTENT_SIZE * count;
            LUNLOG(QMTLOG_INFO, "DiskExtents=%d Size=%d", (int)count, (int)(DWORD)size);
            GlobalFree(rsc->extents);
            rsc->extents = NULL;
            if (size <= 0xFFFFFFFFu) {
                rsc->extents = (VOLUME_DISK_EXTENTS *)GlobalAlloc(GPTR, (SIZE_T)size);
            } else {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            }
            if (rsc->extents == NULL) {
                LUNLOG(QMTLOG_ERROR, "MEMALLOC() failed. (Name=%s Err=%d)", rsc->name, (int)GetLastError());
                ret = SDW_ERR_MEMORY;
                goto close;
            }
            returned = 0;
            if (!DeviceIoControl(volume, SDW_IOCTL_DISK_EXTENTS, NULL, 0, rsc->extents, (DWORD)size, &returned,
                                 NULL)) {
                LUNLOG(QMTLOG_ERROR, "DeviceIoControl() failed. (Name=%s Err=%d)", rsc->name, (int)GetLastError());
                GlobalFree(rsc->extents);
                rsc->extents = NULL;
                ret = SDW_ERR_IO;
                goto close;
            }
            capacity = count;
        }
        /* Everyone after us trusts the header, so it never claims more than the buffer holds. */
        if (rsc->extents->NumberOfDiskExtents > capacity) {
            rsc->extents->NumberOfDiskExtents = capacity;
        }
        count = rsc->extents->NumberOfDiskExtents;
        for (DWORD i = 0; i < count; i++) {
            LUNLOG(QMTLOG_INFO, "Name=%s Volume->%s LUN->%d", rsc->name, path, (int)SdwExtentDisk(rsc->extents, i));
        }
    }

close:
    CloseHandle(volume);
exit:
    LUNLOG(QMTLOG_TRACE, "End - (Ret=%d)", ret);
    return ret;
}

/* The seven lines of a completed probe, as both the disk check and the disknp worker write them. */
void SdwLogProbeResult(SDW_RSC *rsc, const char *function, const OVERLAPPED *ov, DWORD bytes, DWORD lun)
{
#define RESLOG(...) SdwWriteLog(rsc->name, QMTLOG_TRACE, __FILE__, __LINE__, function, __VA_ARGS__)
    RESLOG("*** Result of overLapped (Name=%s TransByts=%d LUN=%d)", rsc->name, (int)bytes, (int)lun);
    RESLOG("*** Result of overLapped (Name=%s Event=%#x LUN=%d)", rsc->name, SDW_HDL(ov->hEvent), (int)lun);
    RESLOG("*** Result of overLapped (Name=%s Offset=%d LUN=%d)", rsc->name, (int)ov->Offset, (int)lun);
    RESLOG("*** Result of overLapped (Name=%s OffsetHigh=%d LUN=%d)", rsc->name, (int)ov->OffsetHigh, (int)lun);
    RESLOG("*** Result of overLapped (Name=%s Internal=%d LUN=%d)", rsc->name, (int)(DWORD)ov->Internal, (int)lun);
    RESLOG("*** Result of overLapped (Name=%s InternalHigh=%d LUN=%d)", rsc->name, (int)(DWORD)ov->InternalHigh,
           (int)lun);
    RESLOG("*** Result of overLapped (Name=%s TransByts=%d LUN=%d)", rsc->name, (int)bytes, (int)lun);
#undef RESLOG
}

/* One check-verify probe of an open disk on the check's OVERLAPPED block; 0, 5 or 100. */
static int32_t SdwProbeDisk(SDW_RSC *rsc, HANDLE disk, DWORD lun, HANDLE event, OVERLAPPED *ov, int32_t T)
{
    DWORD bytes = 0;

    memset(ov, 0, sizeof(*ov));
    ov->hEvent = event;
    if (!ResetEvent(event)) {
        MONLOG(QMTLOG_ERROR, "ResetEvent(OverLap) failed. (Name=%s Hdl=%#x LUN=%d Err=%d)", rsc->name, SDW_HDL(event),
               (int)lun, (int)GetLastError());
    }
    if (DeviceIoControl(disk, SDW_IOCTL_CHECK_VERIFY, NULL, 0, NULL, 0, NULL, ov)) {
        return 0;
    }
    DWORD err = GetLastError();
    if (err != ERROR_IO_PENDING) {
        MONLOG(QMTLOG_ERROR, "DeviceIoControl(%#x) failed. (Name=%s Hdl=%#x LUN=%d Err=%d)", SDW_IOCTL_CHECK_VERIFY,
               rsc->name, SDW_HDL(disk), (int)lun, (int)err);
        return SDW_ERR_IO;
    }

    /* No limit of its own: the storage stack completes every probe, and a disk that never
     * answers keeps the pass waiting, which the host sees as an overdue pass. */
    MONLOG(QMTLOG_TRACE, "I/O pending. (Name=%s Hdl=%#x LUN=%d Time=%dsec)", rsc->name, SDW_HDL(disk), (int)lun, T);
    if (WaitForSingleObject(event, INFINITE) != WAIT_OBJECT_0) {
        MONLOG(QMTLOG_WARNING, "I/O pending failed. (Name=%s Hdl=%#x LUN=%d Err=%d)", rsc->name, SDW_HDL(disk),
               (int)lun, (int)GetLastError());
        /* A cancelled request still writes its OVERLAPPED block when it ends, so the block and
         * the handle may go only after the cancellation has finished. */
        CancelIo(disk);
        GetOverlappedResult(disk, ov, &bytes, TRUE);
        return SDW_ERR_WAIT;
    }
    MONLOG(QMTLOG_TRACE, "I/O pending completed. (Name=%s Hdl=%#x LUN=%d)", rsc->name, SDW_HDL(disk), (int)lun);

    if (!GetOverlappedResult(disk, ov, &bytes, FALSE)) {
        MONLOG(QMTLOG_ERROR, "GetOverlappedResult() failed. (Name=%s Hdl=%#x LUN=%d TransByts=%d Err=%d)", rsc->name,
               SDW_HDL(disk), (int)lun, (int)bytes, (int)GetLastError());
        return SDW_ERR_IO;
    }
    SdwLogProbeResult(rsc, "SdwMonitor", ov, bytes, lun);
    return 0;
}

/* The delay threshold in ms: ratio% of T seconds, in double precision, truncated toward zero;
 * only its low 32 bits take part in the comparison. */
static DWORD SdwDelayThreshold(uint32_t delay_ratio, int32_t T)
{
    double d = (double)delay_ratio / 100.0 * (double)T * 1000.0;
    return (DWORD)(uint64_t)(int64_t)d;
}

int32_t SdwMonitor(SDW_RSC *rsc)
{
    int32_t status = 0;
    HANDLE event;
    /* One block for every probe of the check; no request outlives it. */
    OVERLAPPED ov;
    DWORD check_start;
    int32_t ratio = 0;
    char ratio_extra[16];
    int32_t T;
    DWORD D;
    DWORD count = 0;
    int rc;

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Start - (Name=%s Timeout=%d)", rsc->name, SdwLoad(rsc->timeout));

    event = CreateEventA(NULL, TRUE, FALSE, NULL);
    if (event == NULL) {
        status = SDW_ERR_MONITOR;
        MONLOG(QMTLOG_WARNING, "CreateEvent() failed. (Name=%s Err=%d)", rsc->name, (int)GetLastError());
        goto release;
    }

    check_start = GetTickCount();

    memset(ratio_extra, 0, sizeof(ratio_extra));
    rc = shmcm_getratio(&ratio, ratio_extra);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_WARNING, "shmcm_getratio() failed. (Ret=%d)", rc);
        ratio = 1;
    }
    if (ratio < 1) {
        ratio = 1;
    }
    SdwStore(gsdwTimeoutRatio, ratio);
    T = (int32_t)((uint32_t)ratio * (uint32_t)SdwLoad(rsc->timeout));
    D = SdwDelayThreshold(gsdwDelayRatio, T);

    rc = SdwGetLUN(rsc, rsc->volume_guid);
    if (rc != 0) {
        status = SDW_ERR_DEVICE;
        MONLOG(QMTLOG_ERROR, "SdwGetLUN() failed. (Name=%s Ret=%d)", rsc->name, rc);
        goto close_event;
    }

    count = rsc->extents->NumberOfDiskExtents;
    rsc->device_handles = (HANDLE *)GlobalAlloc(GPTR, (SIZE_T)count * sizeof(HANDLE));
    if (rsc->device_handles == NULL) {
        status = SDW_ERR_MONITOR;
        MONLOG(QMTLOG_WARNING, "MEMALLOC() failed. (Name=%s Err=%d)", rsc->name, (int)GetLastError());
        goto close_event;
    }
    for (DWORD i = 0; i < count; i++) {
        rsc->device_handles[i] = INVALID_HANDLE_VALUE;
    }

    for (DWORD i = 0; i < count; i++) {
        char device[SDW_PATH_SIZE];
        memset(device, 0, sizeof(device));
        snprintf(device, sizeof(device), "\\\\.\\PHYSICALDRIVE%d", (int)SdwExtentDisk(rsc->extents, i));
        rsc->device_handles[i] = CreateFileA(device, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, OPEN_EXISTING,
                                             FILE_FLAG_OVERLAPPED, NULL);
        if (rsc->device_handles[i] == INVALID_HANDLE_VALUE) {
            status = SDW_ERR_DEVICE;
            MONLOG(QMTLOG_ERROR, "CreateFile() failed. (Name=%s Dev=%s Err=%d)", rsc->name, device,
                   (int)GetLastError());
            goto close_event;
        }
    }

    rc = shmrm_setmonprogress(gsdwMonitorType, rsc->name, QMT_DOMONTR_MONSTART);
    if (rc != 0) {
        status = SDW_ERR_MONITOR;
        MONLOG(QMTLOG_WARNING, "shmrm_setmonprogress() QMT_DOMONTR_MONSTART failed. (Name=%s, Err=%d)", rsc->name, rc);
        goto close_event;
    }

    for (DWORD i = 0; i < count; i++) {
        HANDLE disk = rsc->device_handles[i];
        DWORD lun = SdwExtentDisk(rsc->extents, i);
        DWORD lap_start = GetTickCount();

        MONLOG(QMTLOG_TRACE, "*** I/O start. (Name=%s Hdl=%#x LUN=%d Tick=%d Time=%dsec)", rsc->name, SDW_HDL(disk),
               (int)lun, (int)lap_start, T);
        status = SdwProbeDisk(rsc, disk, lun, event, &ov, T);
        if (status != 0) {
            break;
        }
        MONLOG(QMTLOG_TRACE, "*** I/O end. (Name=%s Hdl=%#x LUN=%d Tick=%ld Time=%dsec)", rsc->name, SDW_HDL(disk),
               (int)lun, SDW_LONG(GetTickCount()), T);

        DWORD now = GetTickCount();
        DWORD elapsed = now - lap_start;
        if (elapsed >= D) {
            QmtLogWrite(gsdwhLog, QMTLOG_EVENT, SDW_EVENT_DELAY, __FILE__, __LINE__, "SdwMonitor", "%s%d%d%d",
                        rsc->name, T, (int)elapsed, (int)gsdwDelayRatio);
            MONLOG(QMTLOG_WARNING, "Delayed. (Name=%s DelayTime=%dmsec Time=%d(%d-%d)msec LUN=%d)", rsc->name, (int)D,
                   (int)elapsed, (int)now, (int)lap_start, (int)lun);
        }
    }

    rc = shmrm_setmonprogress(gsdwMonitorType, rsc->name, QMT_DOMONTR_MONEND);
    if (rc != 0) {
        MONLOG(QMTLOG_WARNING, "shmrm_setmonprogress() QMT_DOMONTR_MONEND failed. (Name=%s, Err=%d)", rsc->name, rc);
    }
    if (!ResetEvent(event)) {
        MONLOG(QMTLOG_ERROR, "ResetEvent() failed. (Name=%s Evt=%#x Err=%d)", rsc->name, SDW_HDL(event),
               (int)GetLastError());
    }

    {
        DWORD lap = GetTickCount() - check_start;
        DWORD slowest = SdwGetMonTick(rsc);
        if (lap > slowest) {
            MONLOG(QMTLOG_WARNING, "Renew slowest lap. (Name=%s SlowestLap=%dmsec->%dmsec)", rsc->name, (int)slowest,
                   (int)lap);
            SdwSetMonTick(rsc, lap);
        }
    }

    if ((status == SDW_ERR_DEVICE || status == SDW_ERR_IO) && SdwGetResult(rsc) == 0) {
        QmtLogWrite(gsdwhLog, QMTLOG_EVENT, SDW_EVENT_FAILURE, __FILE__, __LINE__, "SdwMonitor", "%s", rsc->name);
    }
    if (status == 0) {
        int32_t last = SdwGetResult(rsc);
        if (last == SDW_ERR_DEVICE || last == SDW_ERR_IO) {
            QmtLogWrite(gsdwhLog, QMTLOG_EVENT, SDW_EVENT_RECOVERY, __FILE__, __LINE__, "SdwMonitor", "%s",
                        rsc->name);
        }
        if (SdwGetResult(rsc) != 0) {
            MONLOG(QMTLOG_INFO, "Changed normary. (Name=%s LastStatus=%d)", rsc->name, SdwGetResult(rsc));
        }
    }

close_event:
    CloseHandle(event);
release:
    if (rsc->device_handles != NULL) {
        for (DWORD i = 0; i < count; i++) {
            if (rsc->device_handles[i] != INVALID_HANDLE_VALUE && rsc->device_handles[i] != NULL) {
                CloseHandle(rsc->device_handles[i]);
                rsc->device_handles[i] = INVALID_HANDLE_VALUE;
            }
        }
        GlobalFree(rsc->device_handles);
        rsc->device_handles = NULL;
    }
    if (rsc->extents != NULL) {
        GlobalFree(rsc->extents);
        rsc->extents = NULL;
    }
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "End - (Ret=%d)", status);
    return status;
}
