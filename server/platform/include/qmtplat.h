/*
 * qmtplat.h - the POSIX platform layer's own controls: its test seams and its storage backends.
 *
 * Only tests, benchmarks and the host include it. On Windows the ticks and the simulated storage
 * are linked into the test host itself (server/platform/win), which hands them to the plug-in's
 * test variant through its device seam (qmtseam.h). Every name carries the qmtp_ prefix (C) or
 * lives in namespace qmtp (C++).
 */
#ifndef QMTPLAT_H
#define QMTPLAT_H

#include "qmtwin.h"

#ifndef QMTWIN_API
#define QMTWIN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Ticks ---------------------------------------------------------------------------------
 * GetTickCount() returns (monotonic milliseconds + offset) mod 2^32. Tests move the offset to
 * reach the 32-bit wrap or to jump over long windows without waiting. */
QMTWIN_API void qmtp_tick_set_offset(DWORD offset);
QMTWIN_API DWORD qmtp_tick_get_offset(void);
/* Sets the offset so that GetTickCount() reads `value` now. */
QMTWIN_API void qmtp_tick_set(DWORD value);
/* Stops the clock: GetTickCount() returns `value` until qmtp_tick_thaw(), which lets it run on
 * from there. Waits and timers keep real time. */
QMTWIN_API void qmtp_tick_freeze(DWORD value);
QMTWIN_API void qmtp_tick_thaw(void);

/* ---- Fault injection -----------------------------------------------------------------------
 * qmtp_fault_set("CreateEventA", 3, 8) makes the third call of CreateEventA from now on fail
 * with error 8 (the call returns its failure value and sets the last error). One pending fault
 * per function name; any exported platform function can be named. qmtp_fault_clear() removes
 * all of them. qmtp_call_count() tells how many calls a function has had since the last
 * qmtp_fault_clear() (or since start), which lets a test walk "every call fails in turn". */
QMTWIN_API void qmtp_fault_set(const char *function, unsigned nth, DWORD error);
QMTWIN_API void qmtp_fault_clear(void);
QMTWIN_API unsigned qmtp_call_count(const char *function);

/* ---- Live counters ------------------------------------------------------------------------- */
/* Open handles of every kind (mutex, event, timer, thread, file). */
QMTWIN_API long qmtp_live_handles(void);
/* GlobalAlloc blocks not yet freed. */
QMTWIN_API long qmtp_live_allocations(void);

/* ---- Storage --------------------------------------------------------------------------------
 * The backend is chosen by the environment variable QMT_STORAGE ("sim", the default, or
 * "linux"); the sim description file by QMT_SIM_FILE. qmtp_storage_name() tells which one runs. */
QMTWIN_API const char *qmtp_storage_name(void);
/* The linux backend's probes now in the kernel (at most one per disk), and its probe threads
 * (at most 16): a probe stuck in the kernel keeps its thread until the device answers. */
QMTWIN_API unsigned qmtp_storage_probes_in_kernel(void);
QMTWIN_API unsigned qmtp_storage_probe_threads(void);

#ifdef __cplusplus
}

#include <string>
#include <vector>

namespace qmtp::sim {

/* What a simulated disk does when it is opened or probed. */
enum class Behaviour {
    Ok,          /* the probe completes at once, successfully */
    Delay,       /* the probe completes successfully after delay_ms */
    Refuse,      /* DeviceIoControl fails at once with error */
    Fail,        /* the probe goes pending and completes with error (after delay_ms) */
    Hang,        /* the probe stays pending until cancelled, closed or released */
    Stuck,       /* the probe stays pending until released: CancelIo leaves it pending and
                    CloseHandle of its disk blocks until then */
    OpenFail,    /* CreateFileA of the disk fails with error */
};

struct DiskState {
    Behaviour behaviour = Behaviour::Ok;
    DWORD delay_ms = 0;
    DWORD error = 0;
};

/* Replaces the whole simulated world with the description in `text` (format: docs/sim.md).
 * Returns false and fills *why (file line and reason) when the text is not valid. */
QMTWIN_API bool load_text(const std::string &text, std::string *why = nullptr);
QMTWIN_API bool load_file(const std::string &path, std::string *why = nullptr);
QMTWIN_API void reset();
/* Applies one statement of the description format to the current world (nothing is reset), e.g.
 * "disk 1 delay 1500" or "volume GUID disks 0 1". Returns false and fills *why when invalid. */
QMTWIN_API bool apply(const std::string &statement, std::string *why = nullptr);
/* Whether `statement` is valid, without applying it. */
QMTWIN_API bool check(const std::string &statement, std::string *why = nullptr);

/* Volumes: a GUID text (without braces) and its disks in order. */
QMTWIN_API void set_volume(const std::string &guid, const std::vector<DWORD> &disks);
QMTWIN_API void remove_volume(const std::string &guid);
/* The extents request of that volume fails with `error` (0 = works again). */
QMTWIN_API void set_volume_extents_error(const std::string &guid, DWORD error);

/* Disks by number. set_disk creates the disk if needed. */
QMTWIN_API void set_disk(DWORD disk, const DiskState &state);
QMTWIN_API DiskState get_disk(DWORD disk);
/* Completes every probe of that disk that hangs (successfully, or with `error` when non-zero). */
QMTWIN_API void release(DWORD disk, DWORD error = 0);

/* Probes issued to that disk since the last reset, and probes still pending in it
 * (including ones detached from their caller by CancelIo or CloseHandle). */
QMTWIN_API unsigned probe_count(DWORD disk);
QMTWIN_API unsigned pending_count(DWORD disk);

} // namespace qmtp::sim

namespace qmtp::storage {

/* A whole disk: its number (\\.\PHYSICALDRIVEn) and, with the linux backend, its node ("/dev/loop3"). */
struct DiskRef {
    DWORD number = 0;
    std::string dev;
};

/* What a volume GUID resolves to now, as CreateFileA and the extents request would see it. */
struct Resolution {
    DWORD error = 0;                  /* 0, or the error opening the volume gives now: 2 not on this
                                         server, 15250 (ERROR_AMBIGUOUS_SYSTEM_DEVICE) on two devices */
    std::vector<std::string> devices; /* the devices carrying the GUID ("/dev/sdb1"); two or more with 15250 */
    std::vector<DiskRef> disks;       /* its whole disks in extent order (only when error is 0) */
};
QMTWIN_API Resolution resolve_volume(const std::string &guid);

/* The disks that have had one probe in the kernel for at least `ms` milliseconds now. */
QMTWIN_API std::vector<DiskRef> stuck_disks(DWORD ms);

} // namespace qmtp::storage

#endif /* __cplusplus */

#endif /* QMTPLAT_H */
