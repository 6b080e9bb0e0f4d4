// devio.cpp - CreateFileA, DeviceIoControl, GetOverlappedResult and CancelIo on volumes and
// disks, over a storage backend. The calls themselves are made in api_posix.cpp on POSIX and in
// the Windows test host's device seam (server/platform/win); both share what is here.
//
// A pending request lives in its handle's file object, keyed by the address of its OVERLAPPED,
// until GetOverlappedResult reaps it, CancelIo or CloseHandle detaches it, or the same OVERLAPPED
// is used again after it completed. The OVERLAPPED itself carries only Internal, InternalHigh and
// hEvent, as on Windows.
#include "backend.h"
#include "internal.h"
#include "qmtplat.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>

namespace qmtp {
namespace {

constexpr DWORD kErrorInvalidName = 123;
constexpr DWORD kExtentsHeader = offsetof(VOLUME_DISK_EXTENTS, Extents);

class DeviceFile final : public FileObject {
public:
    DeviceFile(std::unique_ptr<Volume> v, std::unique_ptr<Disk> d, bool overlapped)
        : volume_(std::move(v)), disk_(std::move(d)), overlapped_(overlapped) {}

    void on_close() override {
        std::map<OVERLAPPED *, std::shared_ptr<Request>> reqs;
        std::vector<std::shared_ptr<Request>> sync;
        {
            std::lock_guard<std::mutex> lk(m_);
            reqs.swap(requests_);
            sync = sync_;
            closed_ = true;
        }
        // The caller may free its OVERLAPPED blocks and events as soon as CloseHandle returns.
        for (auto &[ov, req] : reqs) req->detach();
        for (auto &req : sync) req->detach();
        if (disk_) disk_->close();
    }

    BOOL extents(LPVOID out, DWORD out_size, LPDWORD returned, LPOVERLAPPED ov);
    BOOL check_verify(LPDWORD returned, LPOVERLAPPED ov);
    BOOL result(LPOVERLAPPED ov, LPDWORD transferred, BOOL wait);
    BOOL cancel();

private:
    BOOL probe_sync(LPDWORD returned, LPOVERLAPPED ov);

    std::unique_ptr<Volume> volume_;
    std::unique_ptr<Disk> disk_;
    const bool overlapped_;
    std::mutex m_;
    std::map<OVERLAPPED *, std::shared_ptr<Request>> requests_;
    std::vector<std::shared_ptr<Request>> sync_; // synchronous probes in progress
    bool closed_ = false;
};

void finish_now(LPOVERLAPPED ov, DWORD error, DWORD bytes) {
    if (!ov) return;
    ov->Internal = status_from_error(error);
    ov->InternalHigh = bytes;
    if (ov->hEvent) SetEvent(ov->hEvent);
}

BOOL fail(DWORD error) {
    set_error(error);
    return FALSE;
}

BOOL DeviceFile::extents(LPVOID out, DWORD out_size, LPDWORD returned, LPOVERLAPPED ov) {
    if (!volume_) return fail(ERROR_INVALID_FUNCTION);
    if (returned) *returned = 0;
    if (out_size < sizeof(VOLUME_DISK_EXTENTS)) return fail(ERROR_INSUFFICIENT_BUFFER);
    if (!out) return fail(ERROR_INVALID_PARAMETER);
    std::vector<DISK_EXTENT> list;
    if (DWORD err = volume_->extents(&list)) {
        finish_now(ov, err, 0);
        return fail(err);
    }
    auto *dst = static_cast<VOLUME_DISK_EXTENTS *>(out);
    size_t room = (out_size - kExtentsHeader) / sizeof(DISK_EXTENT);
    size_t fit = list.size() < room ? list.size() : room;
    dst->NumberOfDiskExtents = static_cast<DWORD>(list.size());
    for (size_t i = 0; i < fit; ++i) dst->Extents[i] = list[i];
    DWORD bytes = static_cast<DWORD>(kExtentsHeader + fit * sizeof(DISK_EXTENT));
    if (returned) *returned = bytes;
    DWORD err = fit < list.size() ? static_cast<DWORD>(ERROR_MORE_DATA) : 0;
    finish_now(ov, err, bytes);
    if (err) return fail(err);
    return TRUE;
}

BOOL DeviceFile::check_verify(LPDWORD returned, LPOVERLAPPED ov) {
    if (!disk_) return fail(ERROR_INVALID_FUNCTION);
    if (returned) *returned = 0;
    if (!overlapped_ || !ov) return probe_sync(returned, ov);

    std::shared_ptr<Request> req;
    {
        std::lock_guard<std::mutex> lk(m_);
        if (closed_) return fail(ERROR_INVALID_HANDLE);
        // Completed requests nobody reaped are dropped here; a pending one must not be reissued.
        for (auto it = requests_.begin(); it != requests_.end();) {
            if (it->second->pending()) {
                ++it;
            } else {
                it = requests_.erase(it);
            }
        }
        if (requests_.count(ov)) return fail(ERROR_INVALID_PARAMETER);
        ov->Internal = kStatusPending;
        ov->InternalHigh = 0;
        if (ov->hEvent) ResetEvent(ov->hEvent);
        req = std::make_shared<Request>(ov, ov->hEvent);
        requests_.emplace(ov, req);
    }
    // Outside the lock: a backend may probe on this thread, and CancelIo or CloseHandle from
    // another thread must not wait for it.
    ProbeStart st = disk_->probe(req);
    if (st.kind == ProbeStart::Pending) return fail(ERROR_IO_PENDING);
    {
        std::lock_guard<std::mutex> lk(m_);
        auto it = requests_.find(ov);
        if (it != requests_.end() && it->second == req) requests_.erase(it);
    }
    if (st.kind == ProbeStart::Refused) {
        req->detach();
        ov->Internal = status_from_error(st.error);
        return fail(st.error);
    }
    // Done at once: the request completes as any other, so a handle closed meanwhile leaves
    // the caller's OVERLAPPED alone.
    req->complete(st.error);
    DWORD err = 0, bytes = 0;
    req->outcome(&err, &bytes);
    if (err) return fail(err);
    return TRUE;
}

// A handle opened without FILE_FLAG_OVERLAPPED, or no OVERLAPPED: the call blocks until the
// device answers (or another thread cancels or closes).
BOOL DeviceFile::probe_sync(LPDWORD returned, LPOVERLAPPED ov) {
    auto req = std::make_shared<Request>(nullptr, nullptr);
    {
        std::lock_guard<std::mutex> lk(m_);
        if (closed_) return fail(ERROR_INVALID_HANDLE);
        sync_.push_back(req);
    }
    ProbeStart st = disk_->probe(req);
    if (st.kind == ProbeStart::Pending) req->wait(INFINITE);
    DWORD err = st.error, bytes = 0;
    if (st.kind == ProbeStart::Pending) req->outcome(&err, &bytes);
    {
        std::lock_guard<std::mutex> lk(m_);
        std::erase(sync_, req);
    }
    if (returned) *returned = bytes;
    finish_now(ov, err, bytes);
    if (err) return fail(err);
    return TRUE;
}

BOOL DeviceFile::result(LPOVERLAPPED ov, LPDWORD transferred, BOOL wait) {
    std::shared_ptr<Request> req;
    {
        std::lock_guard<std::mutex> lk(m_);
        auto it = requests_.find(ov);
        if (it != requests_.end()) req = it->second;
    }
    if (!req) {
        // Completed at once, cancelled, or reaped before: the OVERLAPPED tells.
        if (ov->Internal == kStatusPending) return fail(ERROR_IO_INCOMPLETE);
        if (transferred) *transferred = static_cast<DWORD>(ov->InternalHigh);
        DWORD err = error_from_status(ov->Internal);
        if (err) return fail(err);
        return TRUE;
    }
    if (!req->wait(wait ? INFINITE : 0)) return fail(ERROR_IO_INCOMPLETE);
    DWORD err = 0, bytes = 0;
    req->outcome(&err, &bytes);
    {
        std::lock_guard<std::mutex> lk(m_);
        auto it = requests_.find(ov);
        if (it != requests_.end() && it->second == req) requests_.erase(it);
    }
    if (transferred) *transferred = bytes;
    if (err) return fail(err);
    return TRUE;
}

BOOL DeviceFile::cancel() {
    std::lock_guard<std::mutex> lk(m_);
    for (auto it = requests_.begin(); it != requests_.end();) {
        if (it->second->cancel()) {
            it = requests_.erase(it);
        } else {
            ++it;
        }
    }
    for (auto &req : sync_) req->cancel();
    return TRUE;
}

std::shared_ptr<DeviceFile> device(HANDLE h) {
    std::shared_ptr<FileObject> f = lookup_file(h);
    if (!f) return nullptr;
    auto d = std::dynamic_pointer_cast<DeviceFile>(f);
    if (!d) set_error(ERROR_INVALID_HANDLE);
    return d;
}

bool iequal_prefix(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(s[i])) != std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    }
    return true;
}

// "\\?\Volume{GUID}": 0 and the text between the braces, or an error.
DWORD parse_volume(std::string_view rest, std::string *guid) {
    if (!iequal_prefix(rest, "Volume{") || rest.back() != '}') return kErrorInvalidName;
    std::string_view g = rest.substr(7, rest.size() - 8);
    if (g.empty()) return kErrorInvalidName;
    for (char c : g) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') return kErrorInvalidName;
    }
    guid->assign(g);
    return 0;
}

// "\\.\PHYSICALDRIVEn": 0 and n, or an error. Other device names are not known here.
DWORD parse_disk(std::string_view rest, DWORD *number) {
    if (!iequal_prefix(rest, "PHYSICALDRIVE")) return ERROR_FILE_NOT_FOUND;
    std::string_view digits = rest.substr(13);
    if (digits.empty() || digits.size() > 10) return ERROR_FILE_NOT_FOUND;
    if (digits.size() > 1 && digits[0] == '0') return ERROR_FILE_NOT_FOUND;
    uint64_t n = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return ERROR_FILE_NOT_FOUND;
        n = n * 10 + static_cast<unsigned>(c - '0');
    }
    if (n > 0xFFFFFFFFu) return ERROR_FILE_NOT_FOUND;
    *number = static_cast<DWORD>(n);
    return 0;
}

} // namespace

ULONG_PTR status_from_error(DWORD error) {
    if (error == 0) return kStatusSuccess;
    if (error == ERROR_OPERATION_ABORTED) return kStatusCancelled;
    return 0xC0070000u | (error & 0xFFFFu);
}

DWORD error_from_status(ULONG_PTR status) {
    if (status == kStatusSuccess) return 0;
    if (status == kStatusCancelled) return ERROR_OPERATION_ABORTED;
    if ((status & 0xFFFF0000u) == 0xC0070000u) return static_cast<DWORD>(status & 0xFFFFu);
    return ERROR_GEN_FAILURE;
}

void Request::complete(DWORD error, DWORD bytes) {
    std::lock_guard<std::mutex> lk(m_);
    device_done_ = true;
    if (state_ != State::Pending) return;
    state_ = State::Done;
    error_ = error;
    bytes_ = bytes;
    if (ov_) {
        ov_->Internal = status_from_error(error);
        ov_->InternalHigh = bytes;
        if (event_) SetEvent(event_);
    }
    ov_ = nullptr;
    event_ = nullptr;
    cv_.notify_all();
}

bool Request::cancel() {
    std::lock_guard<std::mutex> lk(m_);
    if (state_ != State::Pending || ignores_cancel_) return false;
    state_ = State::Done;
    error_ = ERROR_OPERATION_ABORTED;
    bytes_ = 0;
    if (ov_) {
        ov_->Internal = kStatusCancelled;
        ov_->InternalHigh = 0;
        if (event_) SetEvent(event_);
    }
    ov_ = nullptr;
    event_ = nullptr;
    cv_.notify_all();
    return true;
}

void Request::detach() {
    std::unique_lock<std::mutex> lk(m_);
    if (ignores_cancel_) cv_.wait(lk, [this] { return device_done_; });
    if (state_ != State::Pending) return;
    state_ = State::Detached;
    error_ = ERROR_OPERATION_ABORTED;
    ov_ = nullptr;
    event_ = nullptr;
    cv_.notify_all();
}

void Request::ignore_cancel() {
    std::lock_guard<std::mutex> lk(m_);
    ignores_cancel_ = true;
}

bool Request::pending() {
    std::lock_guard<std::mutex> lk(m_);
    return state_ == State::Pending;
}

bool Request::wait(DWORD ms) {
    std::unique_lock<std::mutex> lk(m_);
    auto ready = [this] { return state_ != State::Pending; };
    if (ms == INFINITE) {
        cv_.wait(lk, ready);
        return true;
    }
    return cv_.wait_for(lk, std::chrono::milliseconds(ms), ready);
}

void Request::outcome(DWORD *error, DWORD *bytes) {
    std::lock_guard<std::mutex> lk(m_);
    *error = error_;
    *bytes = bytes_;
}

bool Request::device_done() {
    std::lock_guard<std::mutex> lk(m_);
    return device_done_;
}

storage::Resolution Backend::resolve(const std::string &guid) {
    storage::Resolution r;
    std::unique_ptr<Volume> vol;
    std::vector<DISK_EXTENT> list;
    r.error = open_volume(guid, &vol);
    if (!r.error) r.error = vol->extents(&list);
    for (const DISK_EXTENT &e : list) r.disks.push_back({e.DiskNumber, {}});
    return r;
}

} // namespace qmtp

using namespace qmtp;

extern "C" {

const char *qmtp_storage_name(void) { return backend().name(); }

} // extern "C"

storage::Resolution storage::resolve_volume(const std::string &text) {
    std::string_view g(text);
    if (g.size() >= 2 && g.front() == '{' && g.back() == '}') g = g.substr(1, g.size() - 2);
    std::string guid;
    if (DWORD err = parse_volume("Volume{" + std::string(g) + "}", &guid)) return Resolution{err, {}, {}};
    return backend().resolve(guid);
}

std::vector<storage::DiskRef> storage::stuck_disks(DWORD ms) { return backend().stuck(ms); }

namespace qmtp {

HANDLE open_device(LPCSTR path, DWORD disposition, DWORD flags, HANDLE template_file) {
    if (!path || disposition != OPEN_EXISTING || template_file) {
        set_error(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string_view p(path);
    std::unique_ptr<Volume> vol;
    std::unique_ptr<Disk> disk;
    DWORD err;
    if (p.starts_with("\\\\?\\")) {
        std::string guid;
        err = parse_volume(p.substr(4), &guid);
        if (!err) err = backend().open_volume(guid, &vol);
    } else if (p.starts_with("\\\\.\\")) {
        DWORD n = 0;
        err = parse_disk(p.substr(4), &n);
        if (!err) err = backend().open_disk(n, &disk);
    } else {
        err = ERROR_PATH_NOT_FOUND;
    }
    if (!err && !vol && !disk) err = ERROR_GEN_FAILURE;
    if (err) {
        set_error(err);
        return INVALID_HANDLE_VALUE;
    }
    bool overlapped = (flags & FILE_FLAG_OVERLAPPED) != 0;
    HANDLE h = register_file(std::make_shared<DeviceFile>(std::move(vol), std::move(disk), overlapped));
    if (!h) return INVALID_HANDLE_VALUE; // the table set the error
    set_error(ERROR_SUCCESS);
    return h;
}

BOOL device_io_control(HANDLE device_handle, DWORD code, LPVOID out, DWORD out_size, LPDWORD returned,
                       LPOVERLAPPED overlapped) {
    auto file = device(device_handle);
    if (!file) return FALSE;
    switch (code) {
    case IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS:
        return file->extents(out, out_size, returned, overlapped);
    case IOCTL_STORAGE_CHECK_VERIFY:
        return file->check_verify(returned, overlapped);
    default:
        return fail(ERROR_INVALID_FUNCTION);
    }
}

BOOL overlapped_result(HANDLE device_handle, LPOVERLAPPED overlapped, LPDWORD transferred, BOOL wait) {
    auto file = device(device_handle);
    if (!file) return FALSE;
    if (!overlapped) return fail(ERROR_INVALID_PARAMETER);
    return file->result(overlapped, transferred, wait);
}

BOOL cancel_io(HANDLE device_handle) {
    auto file = device(device_handle);
    if (!file) return FALSE;
    return file->cancel();
}

namespace {
thread_local DWORD t_error = ERROR_SUCCESS;
} // namespace

void set_error(DWORD error) {
    t_error = error;
    SetLastError(error);
}

DWORD error_set_last() { return t_error; }

} // namespace qmtp
