/*
 * sdwnpmon.cpp - the disknp worker thread, which polls the disks of its resource's device, and
 * the operations that start, stop, suspend and resume it.
 */
#include "sdw.h"

#include <stdio.h>
#include <string.h>

/* The worker's lines concern its resource, except its Start and End lines. */
#define NPLOG(level, ...) SDWLOG(rsc->name, (level), __VA_ARGS__)

#define SDW_TIMER_UNIT (-10000000LL) /* one second, relative, in 100 ns units */
#define SDW_STOP_WAIT 10000
#define SDW_REQUEST_FIRST_PAUSE 100
#define SDW_REQUEST_PAUSE 1000
#define SDW_FAILURE_PAUSE 1000

/* A probe left in the device when the worker stops waiting for it is cancelled at once, so that
 * nothing completes into the worker's OVERLAPPED or probe event afterwards. Should the
 * cancellation fail, the device handle is closed instead, which detaches the request as well;
 * its slot is opened again by the next cycle. */
static void SdwNpDropProbe(SDW_RSC *rsc, HANDLE *handles, DWORD slot)
{
    HANDLE device = SdwLoad(handles[slot]);
    if (CancelIo(device)) {
        return;
    }
    SDWLOGAS("SdwNpMonitor", rsc->name, QMTLOG_WARNING, "CancelIo() failed. (Name=%s Hdl=%#x Err=%d)", rsc->name, SDW_HDL(device),
          (int)GetLastError());
    SdwStore(handles[slot], INVALID_HANDLE_VALUE);
    CloseHandle(device);
}

/* Poll of the terminate event alone: 0 when it is set, 258 when not, anything else on failure. */
static DWORD SdwNpPollTerm(SDW_RSC *rsc)
{
    HANDLE term = SdwLoad(rsc->term_event);
    return WaitForMultipleObjects(1, &term, FALSE, 0);
}

unsigned __stdcall SdwNpMonitor(void *arg)
{
    SDW_RSC *rsc = (SDW_RSC *)arg;
    HANDLE probe_event;
    HANDLE waits[2];
    /* The probe's OVERLAPPED lives as long as the worker: a probe that is still pending when the
     * worker ends is cancelled or its device closed first, and the platform then leaves it alone. */
    OVERLAPPED ov;
    LARGE_INTEGER due;
    HANDLE *handles;
    HANDLE device;
    DWORD count;
    DWORD lun;
    DWORD rc;
    DWORD err;
    DWORD start_tick;
    DWORD bytes;
    DWORD lap;
    int32_t wait_seconds = 0;
    int32_t cycle_status = 0;
    uint32_t retry_count = 0;
    uint32_t slowest = 0;
    int32_t ratio;
    int32_t T = 0;
    int32_t request;
    char path[SDW_PATH_SIZE];

    SDWLOG(SDW_NORSC, QMTLOG_INFO, "Start - (Name=%s Hdl=%#x Intv=%d Timeout=%d Retry=%d)", rsc->name,
           SDW_HDL(SdwLoad(rsc->thread)), SdwLoad(rsc->interval), SdwLoad(rsc->timeout), rsc->retry);

    SdwSetMonTick(rsc, 0);
    SdwStore(rsc->request, SDW_REQ_NONE);
    SdwStore(rsc->request_pending, 0);
    SdwStore(rsc->check_point, (uint8_t)SDW_CP_NOT_RUNNING);
    SdwSetResult(rsc, 0);

    memset(&ov, 0, sizeof(ov));
    probe_event = CreateEventA(NULL, TRUE, FALSE, NULL);
    if (probe_event == NULL) {
        err = GetLastError();
        SdwSetResult(rsc, SDW_ERR_SYSTEM);
        NPLOG(QMTLOG_ERROR, "CreateEvent() failed. (Name=%s Err=%d)", rsc->name, (int)err);
    }

    for (;;) {
        /* Waiting for the next cycle. */
        SdwSetMonTick(rsc, 0);
        SdwStore(rsc->check_point, (uint8_t)SDW_CP_WAITING);

        if (wait_seconds == 0 || SdwLoad(rsc->request) == SDW_REQ_SUSPEND) {
            wait_seconds = 1;
        } else {
            wait_seconds = SdwLoad(rsc->interval);
        }
        due.QuadPart = (LONGLONG)wait_seconds * SDW_TIMER_UNIT;
        if (!SetWaitableTimer(SdwLoad(rsc->timer), &due, 0, NULL, NULL, FALSE)) {
            err = GetLastError();
            SdwSetResult(rsc, SDW_ERR_SYSTEM);
            NPLOG(QMTLOG_ERROR, "SetWaitableTimer() failed. (Name=%s Hdl=%#x Err=%d)", rsc->name, SDW_HDL(SdwLoad(rsc->timer)),
                  (int)err);
            Sleep(SDW_FAILURE_PAUSE);
            continue;
        }

        waits[0] = SdwLoad(rsc->term_event);
        waits[1] = SdwLoad(rsc->timer);
        rc = WaitForMultipleObjects(2, waits, FALSE, INFINITE);
        if (rc != WAIT_OBJECT_0 && rc != WAIT_OBJECT_0 + 1) {
            err = GetLastError();
            SdwSetResult(rsc, SDW_ERR_SYSTEM);
            NPLOG(QMTLOG_ERROR, "WaitForMultipleObjects() failed. (Name=%s Hdl[0]=%#x Hdl[1]=%#x Err=%d)", rsc->name,
                  SDW_HDL(waits[0]), SDW_HDL(waits[1]), (int)err);
            Sleep(SDW_FAILURE_PAUSE);
            continue;
        }
        NPLOG(QMTLOG_PASS, "WaitForMultipleObjects(Interval) completed. (Name=%s)", rsc->name);

        rc = SdwNpPollTerm(rsc);
        if (rc == WAIT_OBJECT_0) {
            NPLOG(QMTLOG_INFO, "catch stop message.");
            SdwStore(rsc->check_point, (uint8_t)SDW_CP_NOT_RUNNING);
            goto end;
        }
        if (rc != WAIT_TIMEOUT) {
            err = GetLastError();
            SdwSetResult(rsc, SDW_ERR_SYSTEM);
            NPLOG(QMTLOG_ERROR, "WaitForMultipleObjects(Term) failed. (Name=%s Hdl=%#x Err=%d)", rsc->name,
                  SDW_HDL(SdwLoad(rsc->term_event)), (int)err);
            continue;
        }

        /* Requests: `request` first, the pending flag cleared only once acted on. */
        request = SdwLoad(rsc->request);
        if (request == SDW_REQ_SUSPEND) {
            if (SdwLoad(rsc->request_pending) != 0) {
                SdwStore(rsc->request_pending, 0);
            }
            wait_seconds = 0;
            continue;
        }
        if (request == SDW_REQ_RESUME) {
            if (SdwLoad(rsc->request_pending) != 0) {
                SdwStore(rsc->request_pending, 0);
            }
        }
        if (probe_event == NULL) {
            continue;
        }

        /* Preparing: the volume once, the handle array once, every device not yet open. */
        SdwSetMonTick(rsc, SdwGetTick());
        SdwStore(rsc->check_point, (uint8_t)SDW_CP_PREPARING);
        ratio = SdwLoad(gsdwTimeoutRatio);
        if (ratio < 1) {
            ratio = 1;
            SdwStore(gsdwTimeoutRatio, ratio);
        }
        T = (int32_t)((uint32_t)ratio * (uint32_t)SdwLoad(rsc->timeout));

        if (rsc->extents == NULL) {
            int32_t ret = SdwGetLUN(rsc, rsc->device_info);
            if (ret != 0) {
                SdwSetResult(rsc, SDW_ERR_DEVICE);
                NPLOG(QMTLOG_ERROR, "SdwGetLUN() failed. (Name=%s Ret=%d)", rsc->name, ret);
                continue;
            }
        }
        count = rsc->extents->NumberOfDiskExtents;

        handles = SdwLoad(rsc->device_handles);
        if (handles == NULL) {
            handles = (HANDLE *)GlobalAlloc(GPTR, (SIZE_T)count * sizeof(HANDLE));
            if (handles == NULL) {
                err = GetLastError();
                SdwSetResult(rsc, SDW_ERR_MEMORY);
                NPLOG(QMTLOG_ERROR, "MEMALLOC() failed. (Name=%s Err=%d)", rsc->name, (int)err);
                continue;
            }
            for (DWORD i = 0; i < count; i++) {
                handles[i] = INVALID_HANDLE_VALUE;
            }
            /* Published only when every slot is set: the control operations read it from their
             * own threads to cancel I/O. */
            SdwStore(rsc->device_handles, handles);
        }

        rc = 0;
        for (DWORD i = 0; i < count; i++) {
            if (SdwLoad(handles[i]) != INVALID_HANDLE_VALUE) {
                continue;
            }
            memset(path, 0, sizeof(path));
            snprintf(path, sizeof(path), "\\\\.\\PHYSICALDRIVE%d", (int)SdwExtentDisk(rsc->extents, i));
            device = CreateFileA(path, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 NULL, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, NULL);
            if (device == INVALID_HANDLE_VALUE) {
                err = GetLastError();
                SdwSetResult(rsc, SDW_ERR_DEVICE);
                NPLOG(QMTLOG_ERROR, "CreateFile() failed. (Name=%s Dev=%s Err=%d)", rsc->name, path, (int)err);
                rc = 1;
                break;
            }
            SdwStore(handles[i], device);
        }
        if (rc != 0) {
            continue;
        }

        /* Probing, device after device; the first failure ends it. */
        SdwStore(rsc->check_point, (uint8_t)SDW_CP_PROBING);
        for (DWORD i = 0; i < count; i++) {
            device = SdwLoad(handles[i]);
            lun = SdwExtentDisk(rsc->extents, i);
            if (device == INVALID_HANDLE_VALUE) {
                cycle_status = SDW_ERR_DEVICE;
                NPLOG(QMTLOG_ERROR, "Not open device. (Name=%s LUN=%d)", rsc->name, (int)lun);
                break;
            }
            if (SdwNpPollTerm(rsc) == WAIT_OBJECT_0) {
                NPLOG(QMTLOG_INFO, "catch stop message.");
                break;
            }

            start_tick = GetTickCount();
            NPLOG(QMTLOG_TRACE, "*** I/O start. (Name=%s Hdl=%#x LUN=%d Tick=%ld Time=%dsec)", rsc->name,
                  SDW_HDL(device), (int)lun, SDW_LONG(start_tick), T);
            memset(&ov, 0, sizeof(ov));
            ov.hEvent = probe_event;
            if (!ResetEvent(probe_event)) {
                err = GetLastError();
                NPLOG(QMTLOG_ERROR, "ResetEvent() failed. (Name=%s Hdl=%#x LUN=%d Err=%d)", rsc->name,
                      SDW_HDL(probe_event), (int)lun, (int)err);
            }
            if (!DeviceIoControl(device, SDW_IOCTL_CHECK_VERIFY, NULL, 0, NULL, 0, NULL, &ov)) {
                err = GetLastError();
                if (err != ERROR_IO_PENDING) {
                    cycle_status = SDW_ERR_IO;
                    NPLOG(QMTLOG_ERROR, "DeviceIoControl() failed. (Name=%s Hdl=%#x LUN=%d Err=%d)", rsc->name,
                          SDW_HDL(device), (int)lun, (int)err);
                    break;
                }
                NPLOG(QMTLOG_TRACE, "I/O pending. (Name=%s Hdl=%#x LUN=%d Time=%dsec)", rsc->name, SDW_HDL(device),
                      (int)lun, T);
                waits[0] = SdwLoad(rsc->term_event);
                waits[1] = probe_event;
                rc = WaitForMultipleObjects(2, waits, FALSE, (DWORD)T * 1000u);
                if (rc == WAIT_OBJECT_0 || rc == WAIT_ABANDONED_0) {
                    NPLOG(QMTLOG_INFO, "A thread end request was accepted. Resource=%s", rsc->name);
                    SdwNpDropProbe(rsc, handles, i);
                    NPLOG(QMTLOG_INFO, "Cancel request TUR. Resource=%s", rsc->name);
                    SdwStore(rsc->check_point, (uint8_t)SDW_CP_NOT_RUNNING);
                    goto end;
                }
                if (rc == WAIT_OBJECT_0 + 1 || rc == WAIT_ABANDONED_0 + 1) {
                    NPLOG(QMTLOG_TRACE, "I/O pending completed. (Name=%s Hdl=%#x LUN=%d)", rsc->name, SDW_HDL(device),
                          (int)lun);
                    bytes = 0;
                    if (!GetOverlappedResult(device, &ov, &bytes, FALSE)) {
                        err = GetLastError();
                        cycle_status = SDW_ERR_IO;
                        NPLOG(QMTLOG_ERROR, "GetOverlappedResult() failed. (Name=%s Hdl=%#x LUN=%d Err=%d)", rsc->name,
                              SDW_HDL(device), (int)lun, (int)err);
                        break;
                    }
                    SdwLogProbeResult(rsc, __func__, &ov, bytes, lun);
                } else if (rc == WAIT_TIMEOUT) {
                    /* Reported at once, whatever the retries say; then the worker keeps waiting
                     * for the disk, which DoNpMontr sees as a stalled cycle. */
                    cycle_status = SDW_ERR_TIMEOUT;
                    SdwSetResult(rsc, SDW_ERR_TIMEOUT);
                    NPLOG(QMTLOG_ERROR, "I/O pending timeout. (Name=%s Hdl=%#x LUN=%d Timeout=%d)", rsc->name,
                          SDW_HDL(device), (int)lun, T);
                    rc = WaitForMultipleObjects(2, waits, FALSE, INFINITE);
                    err = GetLastError();
                    /* Time= is shown in whole seconds, as its label says: the tick difference in
                     * milliseconds divided by 1000. */
                    NPLOG(QMTLOG_ERROR, "I/O pending completed(timeout). (Name=%s Ret=%d Err=%d Time=%dsec)", rsc->name,
                          (int)rc, (int)err, (int)((GetTickCount() - start_tick) / 1000u));
                    if (rc != WAIT_OBJECT_0 + 1 && rc != WAIT_ABANDONED_0 + 1) {
                        SdwNpDropProbe(rsc, handles, i);
                    }
                    if (SdwNpPollTerm(rsc) == WAIT_OBJECT_0) {
                        NPLOG(QMTLOG_INFO, "catch stop message.");
                    }
                    break;
                } else {
                    err = GetLastError();
                    cycle_status = SDW_ERR_SYSTEM;
                    NPLOG(QMTLOG_ERROR, "I/O pending failed. (Name=%s Hdl[0]=%#x Hdl[1]=%#x LUN=%d Err=%d)", rsc->name,
                          SDW_HDL(SdwLoad(rsc->term_event)), SDW_HDL(device), (int)lun, (int)err);
                    SdwNpDropProbe(rsc, handles, i);
                    break;
                }
            }
            NPLOG(QMTLOG_TRACE, "*** I/O end. (Name=%s Hdl=%#x LUN=%d Tick=%ld Time=%dsec)", rsc->name,
                  SDW_HDL(device), (int)lun, SDW_LONG(GetTickCount()), T);
        }

        /* Evaluating. */
        if (!ResetEvent(probe_event)) {
            err = GetLastError();
            NPLOG(QMTLOG_ERROR, "ResetEvent(After IO) failed. (Name=%s Hdl=%#x Err=%d)", rsc->name,
                  SDW_HDL(probe_event), (int)err);
        }
        SdwStore(rsc->check_point, (uint8_t)SDW_CP_EVALUATING);
        lap = GetTickCount() - SdwGetMonTick(rsc);
        if (lap > slowest) {
            NPLOG(QMTLOG_WARNING, "Renew slowest lap. (Name=%s SlowestLap=%dmsec->%dmsec)", rsc->name, (int)slowest,
                  (int)lap);
            slowest = lap;
        }
        if (cycle_status != 0) {
            if (rsc->retry != 0 && retry_count < (uint32_t)rsc->retry) {
                retry_count++;
                NPLOG(QMTLOG_TRACE, "Will be retry. (Name=%s Retry=%d/%d)", rsc->name, (int)retry_count, rsc->retry);
            } else {
                retry_count = 0;
                SdwSetResult(rsc, cycle_status);
            }
        } else {
            retry_count = 0;
            SdwSetResult(rsc, 0);
        }
        cycle_status = 0;
    }

end:
    if (probe_event != NULL) {
        CloseHandle(probe_event);
    }
    handles = SdwLoad(rsc->device_handles);
    if (handles != NULL) {
        count = rsc->extents != NULL ? rsc->extents->NumberOfDiskExtents : 0;
        for (DWORD i = 0; i < count; i++) {
            device = SdwLoad(handles[i]);
            if (device != INVALID_HANDLE_VALUE) {
                CloseHandle(device);
                SdwStore(handles[i], INVALID_HANDLE_VALUE);
            }
        }
        SdwStore(rsc->device_handles, (HANDLE *)NULL);
        GlobalFree(handles);
    }
    if (rsc->extents != NULL) {
        GlobalFree(rsc->extents);
        rsc->extents = NULL;
    }
    SdwStore(rsc->check_point, (uint8_t)SDW_CP_NOT_RUNNING);
    SDWLOG(SDW_NORSC, QMTLOG_INFO, "End - (Ret=%d)", 0);
    return 0;
}

/* ---- Worker control ------------------------------------------------------------------------ */

/* Once the terminate event is set the worker may be releasing its devices at any moment, so a
 * control operation after a stop that timed out no longer reaches into them. Until then only
 * the stop sets that event, and control operations on one record never overlap, so the devices
 * stay in place while they are read here. */
static BOOL SdwNpWorkerEnding(SDW_RSC *rsc)
{
    HANDLE term = SdwLoad(rsc->term_event);
    return term != NULL && WaitForSingleObject(term, 0) == WAIT_OBJECT_0;
}

/* Cancels the I/O of every open device slot; `with_name` picks the stop's wording. */
static void SdwNpCancelDevices(const char *function, SDW_RSC *rsc, BOOL with_name)
{
    HANDLE *handles = SdwLoad(rsc->device_handles);
    if (handles == NULL || SdwNpWorkerEnding(rsc)) {
        return;
    }
    /* The array is published after the extents, so they are in place too. */
    DWORD count = SdwLoad(rsc->extents)->NumberOfDiskExtents;
    for (DWORD i = 0; i < count; i++) {
        HANDLE device = SdwLoad(handles[i]);
        if (device == INVALID_HANDLE_VALUE) {
            continue;
        }
        if (!CancelIo(device)) {
            DWORD err = GetLastError();
            if (with_name) {
                SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "CancelIo() failed. (Name=%s Hdl=%#x Err=%d)", rsc->name,
                       SDW_HDL(device), (int)err);
            } else {
                SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "CancelIo() failed. (Hdl=%#x Err=%d)", SDW_HDL(device), (int)err);
            }
        }
    }
}

static void SdwCloseField(const char *function, HANDLE *field)
{
    HANDLE handle = SdwLoad(*field);
    if (!CloseHandle(handle)) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "CloseHandle() failed. (Hdl=%#x Err=%d)", SDW_HDL(handle), (int)GetLastError());
    }
    SdwStore(*field, (HANDLE)NULL);
}

int32_t SdwCreateMonitor(SDW_RSC *rsc, SDW_THREAD_FUNC func)
{
    int32_t ret = 0;
    uintptr_t thread;
    unsigned thread_id = 0;

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Start - (Name=%s Thaddr=%#x Hdl=%x Tid=%x Mtx=%x Timer=%x Evt=%x)", rsc->name,
           SDW_HDL(func), SDW_HDL(SdwLoad(rsc->thread)), (unsigned)rsc->thread_id, SDW_HDL(SdwLoad(rsc->mutex)), SDW_HDL(SdwLoad(rsc->timer)),
           SDW_HDL(SdwLoad(rsc->term_event)));

    if (SdwLoad(rsc->thread) != NULL) {
        goto exit;
    }
    if (SdwLoad(rsc->mutex) == NULL) {
        SdwStore(rsc->mutex, CreateMutexA(NULL, FALSE, NULL));
        if (SdwLoad(rsc->mutex) == NULL) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "CreateMutex() failed. (Err=%d)", (int)GetLastError());
            goto undo;
        }
    }
    if (SdwLoad(rsc->timer) == NULL) {
        SdwStore(rsc->timer, CreateWaitableTimerA(NULL, TRUE, NULL));
        if (SdwLoad(rsc->timer) == NULL) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "CreateWaitableTimer() failed. (Err=%d)", (int)GetLastError());
            goto undo;
        }
    }
    if (SdwLoad(rsc->term_event) == NULL) {
        SdwStore(rsc->term_event, CreateEventA(NULL, TRUE, FALSE, NULL));
        if (SdwLoad(rsc->term_event) == NULL) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "CreateEvent() failed. (Err=%d)", (int)GetLastError());
            goto undo;
        }
    }
    thread = _beginthreadex(NULL, 0, func, rsc, 0, &thread_id);
    if (thread == 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "_beginthreadex() failed. (Err=%d)", (int)GetLastError());
        goto undo;
    }
    /* The worker may already be printing these in its Start line. */
    SdwStore(rsc->thread_id, (DWORD)thread_id);
    SdwStore(rsc->thread, (HANDLE)thread);
    goto exit;

undo:
    if (SdwLoad(rsc->mutex) != NULL) {
        SdwCloseField(__func__, &rsc->mutex);
    }
    if (SdwLoad(rsc->timer) != NULL) {
        CancelWaitableTimer(SdwLoad(rsc->timer));
        SdwCloseField(__func__, &rsc->timer);
    }
    if (SdwLoad(rsc->term_event) != NULL) {
        SdwCloseField(__func__, &rsc->term_event);
    }
    ret = SDW_ERR_SYSTEM;

exit:
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "End - (Ret=%d)", ret);
    return ret;
}

int32_t SdwDestroyMonitor(SDW_RSC *rsc)
{
    int32_t ret = 0;
    HANDLE thread;
    DWORD rc;

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Start - (Name=%s Hdl=%x Tid=%x)", rsc->name, SDW_HDL(SdwLoad(rsc->thread)),
           (unsigned)rsc->thread_id);

    if (SdwLoad(rsc->thread) == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Not monitoring. (Name=%s Hdl=%#x Tid=%#x)", rsc->name, 0,
               (unsigned)rsc->thread_id);
        goto exit;
    }
    SdwNpCancelDevices(__func__, rsc, TRUE);

    SDWLOG(SDW_NORSC, QMTLOG_INFO, "Waiting for thread termination... (Name=%s Hdl=%#x Tid=%#x)", rsc->name,
           SDW_HDL(SdwLoad(rsc->thread)), (unsigned)rsc->thread_id);
    if (!SetEvent(SdwLoad(rsc->term_event))) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SetEvent() failed. (Hdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->term_event)),
               (int)GetLastError());
        ret = SDW_ERR_SYSTEM;
        goto exit;
    }

    /* A worker that does not end in time keeps every object: it still ends by itself, and a
     * later stop waits again and then closes them. */
    thread = SdwLoad(rsc->thread);
    rc = WaitForMultipleObjects(1, &thread, FALSE, SDW_STOP_WAIT);
    if (rc == WAIT_TIMEOUT) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "WaitForMultipleObjects() timeout. (Hdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->thread)),
               (int)GetLastError());
        ret = SDW_ERR_TIMEOUT;
        goto exit;
    }
    if (rc != WAIT_OBJECT_0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "WaitForMultipleObjects() failed. (Hdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->thread)),
               (int)GetLastError());
        ret = SDW_ERR_SYSTEM;
        goto exit;
    }
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "WaitForMultipleObjects() completed. (Hdl=%#x)", SDW_HDL(SdwLoad(rsc->thread)));

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Closing of thread handle... (Name=%s Hdl=%#x)", rsc->name, SDW_HDL(SdwLoad(rsc->thread)));
    SdwCloseField(__func__, &rsc->thread);

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Closing of terminate event... (Name=%s Hdl=%#x)", rsc->name,
           SDW_HDL(SdwLoad(rsc->term_event)));
    if (!ResetEvent(SdwLoad(rsc->term_event))) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "ResetEvent() failed. (Hdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->term_event)),
               (int)GetLastError());
    }
    SdwCloseField(__func__, &rsc->term_event);

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Closing of timer... (Name=%s Hdl=%#x)", rsc->name, SDW_HDL(SdwLoad(rsc->timer)));
    CancelWaitableTimer(SdwLoad(rsc->timer));
    SdwCloseField(__func__, &rsc->timer);

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Closing of mutex handle... (Name=%s Hdl=%#x)", rsc->name, SDW_HDL(SdwLoad(rsc->mutex)));
    SdwCloseField(__func__, &rsc->mutex);

exit:
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "End - (Ret=%d)", ret);
    return ret;
}

/* Waits until the worker has taken the request: 100 ms, then up to T + 1 pauses of 1000 ms.
 * 90 when it was not taken in time; the caller logs that in its own words. */
static int32_t SdwNpWaitRequest(SDW_RSC *rsc, int32_t T)
{
    uint32_t n = 0;

    Sleep(SDW_REQUEST_FIRST_PAUSE);
    while (SdwLoad(rsc->request_pending) != 0) {
        if (n > (uint32_t)T) {
            return SDW_ERR_TIMEOUT;
        }
        n++;
        Sleep(SDW_REQUEST_PAUSE);
    }
    return 0;
}

int32_t SdwSuspendMontr(SDW_RSC *rsc)
{
    int32_t ret = 0;
    int32_t T;
    LARGE_INTEGER due;

    SDWLOG(SDW_NORSC, QMTLOG_INFO, "Start - (Name=%s Hdl=%#x Tid=%#x ChkPt=%#x)", rsc->name, SDW_HDL(SdwLoad(rsc->thread)),
           (unsigned)rsc->thread_id, (unsigned)SdwLoad(rsc->check_point));

    if (SdwLoad(rsc->thread) == NULL) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Not monitoring. (Hdl=%#x Tid=%#x)", 0, (unsigned)rsc->thread_id);
        goto exit;
    }
    SdwNpCancelDevices(__func__, rsc, FALSE);

    SdwStore(rsc->request, SDW_REQ_SUSPEND);
    SdwStore(rsc->request_pending, 1);

    /* A worker waiting out a long interval wakes within a second. */
    due.QuadPart = SDW_TIMER_UNIT;
    if (!SetWaitableTimer(SdwLoad(rsc->timer), &due, 0, NULL, NULL, FALSE)) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "SetWaitableTimer() failed. (NaHdl=%#x Err=%d)", SDW_HDL(SdwLoad(rsc->timer)),
               (int)GetLastError());
    }
    T = SdwLoad(rsc->timeout);
    ret = SdwNpWaitRequest(rsc, T);
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Suspend timeout. (Hdl=%#x Tid=%#x Timeout=%d)", SDW_HDL(SdwLoad(rsc->thread)),
               (unsigned)rsc->thread_id, T);
    }

exit:
    SDWLOG(SDW_NORSC, QMTLOG_INFO, "End - (Ret=%d)", ret);
    return ret;
}

int32_t SdwResumeMontr(SDW_RSC *rsc)
{
    int32_t ret;
    int32_t T;

    SDWLOG(SDW_NORSC, QMTLOG_INFO, "Start - (Name=%s Hdl=%#x Tid=%#x ChkPt=%#x)", rsc->name, SDW_HDL(SdwLoad(rsc->thread)),
           (unsigned)rsc->thread_id, (unsigned)SdwLoad(rsc->check_point));

    /* No test for a worker: a suspended one wakes every second by itself. */
    T = SdwLoad(rsc->timeout);
    SdwStore(rsc->request, SDW_REQ_RESUME);
    SdwStore(rsc->request_pending, 1);
    ret = SdwNpWaitRequest(rsc, T);
    if (ret != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "Resume timeout. (Hdl=%#x Tid=%#x Timeout=%d)", SDW_HDL(SdwLoad(rsc->thread)),
               (unsigned)rsc->thread_id, T);
    }

    SDWLOG(SDW_NORSC, QMTLOG_INFO, "End - (Ret=%d)", ret);
    return ret;
}
