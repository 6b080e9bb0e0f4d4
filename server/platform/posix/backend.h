// backend.h - what devio.cpp asks of a storage backend, and the overlapped request they share.
//
// devio.cpp owns the Win32 side (paths, handles, OVERLAPPED blocks, last errors); a backend owns
// the devices. A pending probe is a Request: the backend completes it from its own thread, while
// the caller may cancel it or close its handle at any moment. The Request's lock serialises the
// two, so an OVERLAPPED is written only while its caller still owns the request.
#pragma once

#include "qmtplat.h"
#include "qmtwin.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qmtp {

// NTSTATUS-like values kept in OVERLAPPED.Internal.
constexpr ULONG_PTR kStatusSuccess = 0;
constexpr ULONG_PTR kStatusPending = 0x00000103u;
constexpr ULONG_PTR kStatusCancelled = 0xC0000120u;
// Any other error E is kept as an NTSTATUS of the Win32 facility.
ULONG_PTR status_from_error(DWORD error);
DWORD error_from_status(ULONG_PTR status);

class Request {
public:
    Request(OVERLAPPED *ov, HANDLE event) : ov_(ov), event_(event) {}
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    // The device has finished (error 0 = success). Called once, from any thread but the caller's
    // lock holders. Writes the OVERLAPPED and sets its event only while the request is attached.
    void complete(DWORD error, DWORD bytes = 0);
    // CancelIo: a pending request completes with 995 for its caller, then detaches. True if it
    // was pending.
    bool cancel();
    // CloseHandle: a pending request detaches without a word to its caller.
    void detach();

    bool pending();
    // Waits until the request is no longer pending for its caller; false on timeout.
    bool wait(DWORD ms);
    // The outcome once not pending: the error (995 when cancelled or detached) and bytes.
    void outcome(DWORD *error, DWORD *bytes);
    // True once the device itself has finished (detached requests included).
    bool device_done();

private:
    enum class State { Pending, Done, Detached };
    std::mutex m_;
    std::condition_variable cv_;
    OVERLAPPED *ov_;
    HANDLE event_;
    State state_ = State::Pending;
    bool device_done_ = false;
    DWORD error_ = 0;
    DWORD bytes_ = 0;
};

// Outcome of starting a probe.
struct ProbeStart {
    enum Kind { Done, Pending, Refused } kind;
    DWORD error; // Done: the result; Refused: the error to return
};

// An open volume.
class Volume {
public:
    virtual ~Volume() = default;
    // Fills the extents in order; 0 or a Win32 error.
    virtual DWORD extents(std::vector<DISK_EXTENT> *out) = 0;
};

// An open disk.
class Disk {
public:
    virtual ~Disk() = default;
    // Starts one check-verify probe. On Pending the backend keeps `req` and completes it later
    // from a thread of its own, never from inside this call.
    virtual ProbeStart probe(const std::shared_ptr<Request> &req) = 0;
    // The handle is being closed; requests already started stay with the backend.
    virtual void close() {}
};

class Backend {
public:
    virtual ~Backend() = default;
    virtual const char *name() const = 0;
    // `guid` is the text between the braces of the volume path, as given.
    virtual DWORD open_volume(const std::string &guid, std::unique_ptr<Volume> *out) = 0;
    virtual DWORD open_disk(DWORD number, std::unique_ptr<Disk> *out) = 0;
    // What `guid` resolves to now. The default opens the volume and reads its extents.
    virtual storage::Resolution resolve(const std::string &guid);
    // The disks with a probe in the kernel for at least `ms` milliseconds.
    virtual std::vector<storage::DiskRef> stuck(DWORD ms) {
        (void)ms;
        return {};
    }
};

// The backend named by QMT_STORAGE, chosen at first use.
Backend &backend();

std::unique_ptr<Backend> make_sim_backend();

// The linux backend's rules, open to tests.
namespace linuxdev {
// Whole-disk name <-> disk number ("sda" 0, "loop3" 1003, "nvme0n1" 2000, "vdb" 3001, ...).
QMTWIN_API bool disk_number(const std::string &name, DWORD *number);
QMTWIN_API std::string disk_name(DWORD number);
// The extents of block device `name` under a sysfs block folder `root` ("/sys/class/block/"):
// down through partitions and slaves to whole disks. 0 or a Win32 error.
QMTWIN_API DWORD collect_extents(const std::string &root, const std::string &name, std::vector<DISK_EXTENT> *out);
} // namespace linuxdev
std::unique_ptr<Backend> make_linux_backend();

} // namespace qmtp
