// qmtshmcm.cpp - the cluster shared memory: the time-out ratio and its generation.
#include "qmtshm.h"
#include "qmtshm_admin.h"
#include "qmtshm_codes.h"
#include "shm_layout.h"

#include <cstring>
#include <mutex>
#include <shared_mutex>

namespace {

using namespace qmtshm;

// Made when the library is loaded, not on first use: the guard of a first-use static would keep a
// system handle that outlives the unloaded DLL on Windows.
Attachment g_att;

Attachment &att()
{
    return g_att;
}

void setup_cm(void *addr)
{
    auto *seg = static_cast<CmSegment *>(addr);
    seg->ratio_gen.store(1, std::memory_order_relaxed);  // ratio 1, generation 0
    seg->set_time_ms.store(0, std::memory_order_relaxed);
}

const Layout kCmLayout{kMagicCm, sizeof(CmSegment), 0, 0, setup_cm};

int attach_cm(Attachment &a)
{
    return attach_locked(a, "_cm", kCmLayout);
}

CmSegment *seg(Attachment &a)
{
    return static_cast<CmSegment *>(a.map.addr);
}

}  // namespace

extern "C" {

QMTSHM_API int WINAPI shmcm_attach(void)
{
    Attachment &a = att();
    std::unique_lock lk(a.mu);
    return attach_cm(a);
}

QMTSHM_API int WINAPI shmcm_detach(void)
{
    Attachment &a = att();
    std::unique_lock lk(a.mu);
    return detach_locked(a);
}

// extra receives 16 bytes: the generation (uint64, advanced by every set) and the wall-clock time
// in ms of the last set (int64, 0 if the ratio was never set).
QMTSHM_API int WINAPI shmcm_getratio(int *ratio, void *extra)
{
    if (!ratio)
        return QMTSHM_E_INVALID_PARAMETER;
    Attachment &a = att();
    std::shared_lock lk(a.mu);
    if (a.refs == 0)
        return QMTSHM_E_NOT_ATTACHED;
    uint64_t rg = seg(a)->ratio_gen.load(std::memory_order_acquire);
    *ratio = static_cast<int>(static_cast<uint32_t>(rg));
    if (extra) {
        uint64_t gen = rg >> 32;
        int64_t when = seg(a)->set_time_ms.load(std::memory_order_relaxed);
        std::memcpy(extra, &gen, sizeof gen);
        std::memcpy(static_cast<char *>(extra) + sizeof gen, &when, sizeof when);
    }
    return 0;
}

QMTSHM_API int shmcm_setratio(int ratio)
{
    Attachment &a = att();
    std::unique_lock lk(a.mu);
    int rc = attach_cm(a);
    if (rc != 0)
        return rc;
    CmSegment *s = seg(a);
    uint64_t old = s->ratio_gen.load(std::memory_order_relaxed);
    uint64_t next;
    do {
        next = (((old >> 32) + 1) << 32) | static_cast<uint32_t>(ratio);
    } while (!s->ratio_gen.compare_exchange_weak(old, next, std::memory_order_acq_rel));
    s->set_time_ms.store(wall_ms(), std::memory_order_relaxed);
    detach_locked(a);
    return 0;
}

QMTSHM_API int shmcm_exists(void)
{
    return segment_exists(segment_name("_cm")) ? 1 : 0;
}

QMTSHM_API int shmcm_peekratio(int *ratio)
{
    if (!ratio)
        return QMTSHM_E_INVALID_PARAMETER;
    Mapping m;
    int rc = map_existing(segment_name("_cm"), kCmLayout, m);
    if (rc != 0)
        return rc;
    uint64_t rg = static_cast<CmSegment *>(m.addr)->ratio_gen.load(std::memory_order_acquire);
    *ratio = static_cast<int>(static_cast<uint32_t>(rg));
    unmap(m);
    return 0;
}

}  // extern "C"
