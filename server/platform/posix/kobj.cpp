// Kernel objects: one handle table and one wait engine for mutexes, events, waitable timers,
// threads and (opaque to this file) device files.
//
// Everything below is guarded by one lock. A waiter registers one condition variable with every
// object it waits on; any change of an object's state wakes its waiters, which then re-evaluate
// their whole wait under the lock. Timers fire lazily: their state is brought up to date whenever
// somebody looks at them, and a waiter on an armed timer sleeps no longer than its due time.
#include "internal.h"
#include "qmtplat.h"

#include <pthread.h>
#include <climits>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace qmtp {
namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD kErrorAlreadyExists = 183;
constexpr unsigned kStackSizeIsReservation = 0x10000u;

enum class Kind { Mutex, Event, Timer, Thread, File };

struct Waiter {
    std::condition_variable cv;
};

struct Object : std::enable_shared_from_this<Object> {
    explicit Object(Kind k) : kind(k) {}
    Kind kind;
    bool signalled = false; // event and timer state; for a thread: it has ended
    bool manual = false;    // manual-reset event or timer
    // Mutex.
    DWORD owner = 0;
    unsigned recursion = 0;
    bool abandoned = false;
    // Timer.
    bool armed = false;
    Clock::time_point due{};
    std::chrono::milliseconds period{0};
    // File.
    std::shared_ptr<FileObject> file;
    // Threads blocked on this object.
    std::vector<Waiter *> waiters;
};

using ObjectPtr = std::shared_ptr<Object>;

struct Engine {
    std::mutex lock;
    std::unordered_map<uintptr_t, ObjectPtr> table;
    std::unordered_map<std::string, std::weak_ptr<Object>> names;
    uintptr_t next = 0x100;
};

// Never destroyed: detached threads may still use it while the process exits.
Engine &engine() {
    static Engine *e = new Engine;
    return *e;
}

std::atomic<DWORD> g_next_thread_id{0x1000};
thread_local DWORD t_thread_id = 0;

DWORD new_thread_id() {
    DWORD id;
    do
        id = g_next_thread_id.fetch_add(4, std::memory_order_relaxed);
    while (id == 0);
    return id;
}

DWORD current_thread_id() {
    if (t_thread_id == 0)
        t_thread_id = new_thread_id();
    return t_thread_id;
}

void notify(Object &o) {
    for (Waiter *w : o.waiters)
        w->cv.notify_one();
}

// A mutex a thread has taken. The entry stays after a release, so that a mutex taken and given
// back on every call (the log lock) costs one look down a short list, not an entry each time.
struct Owned {
    const Object *raw;
    std::weak_ptr<Object> ref;
};

// Gives up the mutexes a thread still owns when it ends; the next waiter sees them abandoned.
// Caller holds the engine lock.
void abandon_owned_locked(std::vector<Owned> &owned, DWORD tid) {
    for (auto &w : owned) {
        ObjectPtr o = w.ref.lock();
        if (o && o->owner == tid) {
            o->owner = 0;
            o->recursion = 0;
            o->abandoned = true;
            notify(*o);
        }
    }
    owned.clear();
}

// The thread-exit hook: every thread that ever took a mutex has one.
struct ThreadExit {
    std::vector<Owned> owned;
    DWORD tid = 0;
    ~ThreadExit() {
        if (owned.empty())
            return;
        Engine &e = engine();
        std::lock_guard<std::mutex> g(e.lock);
        abandon_owned_locked(owned, tid);
    }
};

thread_local ThreadExit t_exit;

// Notes that the calling thread took `o`. Caller holds the engine lock.
void remember_owned(Object &o, DWORD tid) {
    auto &owned = t_exit.owned;
    t_exit.tid = tid;
    for (const Owned &w : owned)
        if (w.raw == &o && !w.ref.expired())
            return;
    if (owned.size() >= 8)
        owned.erase(std::remove_if(owned.begin(), owned.end(), [](const Owned &w) { return w.ref.expired(); }),
                    owned.end());
    owned.push_back({&o, o.weak_from_this()});
}

void abandon_current_thread() {
    Engine &e = engine();
    std::lock_guard<std::mutex> g(e.lock);
    abandon_owned_locked(t_exit.owned, current_thread_id());
}

HANDLE insert_locked(Engine &e, ObjectPtr o) {
    uintptr_t value;
    do {
        value = e.next;
        e.next += 4;
    } while (value == 0 || value == static_cast<uintptr_t>(-1) || e.table.count(value) != 0);
    e.table.emplace(value, std::move(o));
    return reinterpret_cast<HANDLE>(value);
}

ObjectPtr find_locked(Engine &e, HANDLE h) {
    auto it = e.table.find(reinterpret_cast<uintptr_t>(h));
    return it == e.table.end() ? nullptr : it->second;
}

// Brings a timer's state up to `now`: a due timer becomes signalled, a periodic one moves on.
void update_timer(Object &o, Clock::time_point now) {
    if (!o.armed || now < o.due)
        return;
    o.signalled = true;
    if (o.period.count() > 0) {
        const auto periods = (now - o.due) / o.period + 1;
        o.due += o.period * periods;
    } else {
        o.armed = false;
    }
}

bool ready(Object &o, DWORD tid, Clock::time_point now) {
    switch (o.kind) {
    case Kind::Mutex:
        return o.owner == 0 || o.owner == tid;
    case Kind::Timer:
        update_timer(o, now);
        return o.signalled;
    case Kind::Event:
    case Kind::Thread:
        return o.signalled;
    case Kind::File:
        break;
    }
    return false;
}

// Takes a ready object for the waiting thread; true when it was an abandoned mutex.
bool acquire(Object *o, DWORD tid) {
    switch (o->kind) {
    case Kind::Mutex: {
        if (o->owner == tid) {
            ++o->recursion;
        } else {
            o->owner = tid;
            o->recursion = 1;
            remember_owned(*o, tid);
        }
        const bool was_abandoned = o->abandoned;
        o->abandoned = false;
        return was_abandoned;
    }
    case Kind::Event:
    case Kind::Timer:
        if (!o->manual)
            o->signalled = false;
        return false;
    case Kind::Thread:
    case Kind::File:
        break;
    }
    return false;
}

DWORD wait_handles(DWORD count, const HANDLE *handles, bool wait_all, DWORD ms) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    Engine &e = engine();
    const DWORD tid = current_thread_id();
    const bool forever = ms == INFINITE;
    // Raw pointers are enough while the lock is held; references are taken only before sleeping,
    // so a handle closed meanwhile cannot free what this waiter still looks at.
    std::array<Object *, MAXIMUM_WAIT_OBJECTS> objs;
    std::vector<ObjectPtr> keep;
    Waiter self;
    bool has_timer = false;

    std::unique_lock<std::mutex> lk(e.lock);
    for (DWORD i = 0; i < count; ++i) {
        auto it = e.table.find(reinterpret_cast<uintptr_t>(handles[i]));
        if (it == e.table.end() || it->second->kind == Kind::File) {
            SetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
        objs[i] = it->second.get();
        has_timer = has_timer || objs[i]->kind == Kind::Timer;
        if (wait_all) {
            for (DWORD j = 0; j < i; ++j) {
                if (objs[j] == objs[i]) {
                    SetLastError(ERROR_INVALID_PARAMETER);
                    return WAIT_FAILED;
                }
            }
        }
    }

    // The clock is read only when a time-out or a timer needs it.
    const bool timed = !forever && ms != 0;
    const auto start = timed || has_timer ? Clock::now() : Clock::time_point{};
    const auto limit = start + std::chrono::milliseconds(timed ? ms : 0);
    auto now = start;
    bool fresh = true;

    auto unregister = [&] {
        if (keep.empty())
            return;
        for (DWORD i = 0; i < count; ++i) {
            auto &ws = objs[i]->waiters;
            ws.erase(std::remove(ws.begin(), ws.end(), &self), ws.end());
        }
    };

    for (;;) {
        if (!fresh && (timed || has_timer))
            now = Clock::now();
        fresh = false;
        if (wait_all) {
            bool all = true;
            for (DWORD i = 0; i < count; ++i)
                all = ready(*objs[i], tid, now) && all;
            if (all) {
                DWORD abandoned = count;
                for (DWORD i = 0; i < count; ++i)
                    if (acquire(objs[i], tid) && abandoned == count)
                        abandoned = i;
                unregister();
                return abandoned == count ? WAIT_OBJECT_0 : WAIT_ABANDONED_0 + abandoned;
            }
        } else {
            for (DWORD i = 0; i < count; ++i) {
                if (ready(*objs[i], tid, now)) {
                    const bool was_abandoned = acquire(objs[i], tid);
                    unregister();
                    return (was_abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + i;
                }
            }
        }
        if (ms == 0 || (timed && now >= limit)) {
            unregister();
            return WAIT_TIMEOUT;
        }
        if (keep.empty()) {
            keep.reserve(count);
            for (DWORD i = 0; i < count; ++i) {
                keep.push_back(objs[i]->shared_from_this());
                objs[i]->waiters.push_back(&self);
            }
        }
        bool bounded = timed;
        auto wake = limit;
        for (DWORD i = 0; i < count; ++i) {
            const Object &o = *objs[i];
            if (o.kind == Kind::Timer && o.armed && (!bounded || o.due < wake)) {
                wake = o.due;
                bounded = true;
            }
        }
        if (bounded)
            self.cv.wait_until(lk, wake);
        else
            self.cv.wait(lk);
    }
}

// Creates an object, or opens the existing one of that name (sharing it within the process).
HANDLE create_object(Kind kind, LPCSTR name, bool *existed, void (*init)(Object &, const void *),
                     const void *arg) {
    Engine &e = engine();
    std::lock_guard<std::mutex> g(e.lock);
    *existed = false;
    ObjectPtr o;
    const bool named = name != nullptr && name[0] != '\0';
    if (named) {
        auto it = e.names.find(name);
        if (it != e.names.end()) {
            o = it->second.lock();
            if (!o) {
                e.names.erase(it);
            } else if (o->kind != kind) {
                SetLastError(ERROR_INVALID_HANDLE);
                return NULL;
            } else {
                *existed = true;
            }
        }
    }
    if (!o) {
        o = std::make_shared<Object>(kind);
        init(*o, arg);
        if (named)
            e.names[name] = o;
    }
    return insert_locked(e, std::move(o));
}

struct ThreadStart {
    unsigned(__stdcall *start)(void *);
    void *arg;
    ObjectPtr object;
    DWORD tid;
};

void *thread_main(void *p) {
    std::unique_ptr<ThreadStart> s(static_cast<ThreadStart *>(p));
    t_thread_id = s->tid;
    s->start(s->arg);
    // Mutexes go before the handle is signalled, so a waiter on both sees them abandoned.
    abandon_current_thread();
    Engine &e = engine();
    std::lock_guard<std::mutex> g(e.lock);
    s->object->signalled = true;
    notify(*s->object);
    return nullptr;
}

// FILETIME (100 ns since 1601) of now, for absolute due times.
int64_t filetime_now() {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    const int64_t units = std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count() / 100;
    return units + 116444736000000000LL;
}

} // namespace

HANDLE register_file(std::shared_ptr<FileObject> file) {
    if (!file) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return NULL;
    }
    auto o = std::make_shared<Object>(Kind::File);
    o->file = std::move(file);
    Engine &e = engine();
    std::lock_guard<std::mutex> g(e.lock);
    return insert_locked(e, std::move(o));
}

std::shared_ptr<FileObject> lookup_file(HANDLE handle) {
    Engine &e = engine();
    {
        std::lock_guard<std::mutex> g(e.lock);
        ObjectPtr o = find_locked(e, handle);
        if (o && o->kind == Kind::File)
            return o->file;
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

} // namespace qmtp

using qmtp::Clock;
using qmtp::Kind;
using qmtp::Object;
using qmtp::ObjectPtr;

namespace {

// A fault on a wait: error 258 (WAIT_TIMEOUT) makes the wait time out at once, and error 128
// (WAIT_ABANDONED) lets it run and reports what it got as abandoned, as for a mutex whose owner
// ended while holding it (the caller owns the mutex). Any other error makes it fail.
DWORD faulty_wait(const char *name, DWORD count, const HANDLE *handles, bool wait_all, DWORD milliseconds) {
    DWORD error = 0;
    if (!qmtp::fault_hit(name, &error))
        return qmtp::wait_handles(count, handles, wait_all, milliseconds);
    if (error == WAIT_TIMEOUT)
        return WAIT_TIMEOUT;
    if (error == WAIT_ABANDONED) {
        DWORD r = qmtp::wait_handles(count, handles, wait_all, milliseconds);
        return r < WAIT_OBJECT_0 + count ? WAIT_ABANDONED + (r - WAIT_OBJECT_0) : r;
    }
    SetLastError(error);
    return WAIT_FAILED;
}

} // namespace

extern "C" {

HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL initial_owner, LPCSTR name) {
    QMTP_FAULT_POINT("CreateMutexA", NULL);
    struct Init {
        bool own;
        DWORD tid;
    } init{initial_owner != FALSE, qmtp::current_thread_id()};
    bool existed = false;
    ObjectPtr created;
    HANDLE h = qmtp::create_object(
        Kind::Mutex, name, &existed,
        [](Object &o, const void *a) {
            const auto *in = static_cast<const Init *>(a);
            if (in->own) {
                o.owner = in->tid;
                o.recursion = 1;
            }
        },
        &init);
    if (!h)
        return NULL;
    if (!existed && init.own) {
        // The new mutex is owned from birth: it must be abandoned if this thread ends holding it.
        qmtp::Engine &e = qmtp::engine();
        std::lock_guard<std::mutex> g(e.lock);
        ObjectPtr o = qmtp::find_locked(e, h);
        if (o && o->owner == init.tid)
            qmtp::remember_owned(*o, init.tid);
    }
    SetLastError(existed ? qmtp::kErrorAlreadyExists : ERROR_SUCCESS);
    return h;
}

BOOL WINAPI ReleaseMutex(HANDLE mutex) {
    QMTP_FAULT_POINT("ReleaseMutex", FALSE);
    qmtp::Engine &e = qmtp::engine();
    const DWORD tid = qmtp::current_thread_id();
    std::lock_guard<std::mutex> g(e.lock);
    auto it = e.table.find(reinterpret_cast<uintptr_t>(mutex));
    Object *o = it == e.table.end() ? nullptr : it->second.get();
    if (!o || o->kind != Kind::Mutex) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (o->owner != tid || o->recursion == 0) {
        SetLastError(ERROR_NOT_OWNER);
        return FALSE;
    }
    if (--o->recursion == 0) {
        o->owner = 0;
        qmtp::notify(*o);
    }
    return TRUE;
}

HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manual_reset, BOOL initial_state, LPCSTR name) {
    QMTP_FAULT_POINT("CreateEventA", NULL);
    struct Init {
        bool manual, state;
    } init{manual_reset != FALSE, initial_state != FALSE};
    bool existed = false;
    HANDLE h = qmtp::create_object(
        Kind::Event, name, &existed,
        [](Object &o, const void *a) {
            const auto *in = static_cast<const Init *>(a);
            o.manual = in->manual;
            o.signalled = in->state;
        },
        &init);
    if (h)
        SetLastError(existed ? qmtp::kErrorAlreadyExists : ERROR_SUCCESS);
    return h;
}

static BOOL set_event_state(HANDLE event, bool state) {
    qmtp::Engine &e = qmtp::engine();
    std::lock_guard<std::mutex> g(e.lock);
    ObjectPtr o = qmtp::find_locked(e, event);
    if (!o || o->kind != Kind::Event) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    o->signalled = state;
    if (state)
        qmtp::notify(*o);
    return TRUE;
}

BOOL WINAPI SetEvent(HANDLE event) {
    QMTP_FAULT_POINT("SetEvent", FALSE);
    return set_event_state(event, true);
}

BOOL WINAPI ResetEvent(HANDLE event) {
    QMTP_FAULT_POINT("ResetEvent", FALSE);
    return set_event_state(event, false);
}

HANDLE WINAPI CreateWaitableTimerA(LPSECURITY_ATTRIBUTES, BOOL manual_reset, LPCSTR name) {
    QMTP_FAULT_POINT("CreateWaitableTimerA", NULL);
    const bool manual = manual_reset != FALSE;
    bool existed = false;
    HANDLE h = qmtp::create_object(
        Kind::Timer, name, &existed,
        [](Object &o, const void *a) { o.manual = *static_cast<const bool *>(a); }, &manual);
    if (h)
        SetLastError(existed ? qmtp::kErrorAlreadyExists : ERROR_SUCCESS);
    return h;
}

BOOL WINAPI SetWaitableTimer(HANDLE timer, const LARGE_INTEGER *due_time, LONG period,
                             PTIMERAPCROUTINE completion, LPVOID, BOOL resume) {
    QMTP_FAULT_POINT("SetWaitableTimer", FALSE);
    if (completion != nullptr) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    if (due_time == nullptr || period < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const auto now = Clock::now();
    Clock::time_point due;
    if (due_time->QuadPart < 0) {
        due = now + std::chrono::nanoseconds(-(due_time->QuadPart / 10) * 1000 - (due_time->QuadPart % 10) * 100);
    } else {
        const int64_t ahead = due_time->QuadPart - qmtp::filetime_now();
        due = ahead > 0 ? now + std::chrono::microseconds(ahead / 10) : now;
    }
    qmtp::Engine &e = qmtp::engine();
    std::lock_guard<std::mutex> g(e.lock);
    ObjectPtr o = qmtp::find_locked(e, timer);
    if (!o || o->kind != Kind::Timer) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    o->armed = true;
    o->due = due;
    o->period = std::chrono::milliseconds(period);
    o->signalled = false;
    // Waiters sleep until the old due time: they must see the new one.
    qmtp::notify(*o);
    // Waking the machine is not supported: Win32 then sets the timer and says so.
    SetLastError(resume ? ERROR_NOT_SUPPORTED : ERROR_SUCCESS);
    return TRUE;
}

BOOL WINAPI CancelWaitableTimer(HANDLE timer) {
    QMTP_FAULT_POINT("CancelWaitableTimer", FALSE);
    qmtp::Engine &e = qmtp::engine();
    std::lock_guard<std::mutex> g(e.lock);
    ObjectPtr o = qmtp::find_locked(e, timer);
    if (!o || o->kind != Kind::Timer) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    // A due time already passed has signalled it; cancelling keeps that.
    qmtp::update_timer(*o, Clock::now());
    o->armed = false;
    return TRUE;
}

DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    return faulty_wait("WaitForSingleObject", 1, &handle, false, milliseconds);
}

DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL wait_all, DWORD milliseconds) {
    return faulty_wait("WaitForMultipleObjects", count, handles, wait_all != FALSE, milliseconds);
}

BOOL WINAPI CloseHandle(HANDLE handle) {
    QMTP_FAULT_POINT("CloseHandle", FALSE);
    ObjectPtr o;
    {
        qmtp::Engine &e = qmtp::engine();
        std::lock_guard<std::mutex> g(e.lock);
        auto it = e.table.find(reinterpret_cast<uintptr_t>(handle));
        if (it == e.table.end()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        o = std::move(it->second);
        e.table.erase(it);
    }
    // Outside the lock: closing a device may complete its requests, which signals events.
    if (o->kind == Kind::File && o->file)
        o->file->on_close();
    return TRUE;
}

void WINAPI Sleep(DWORD milliseconds) {
    QMTP_FAULT_POINT("Sleep", );
    if (milliseconds == INFINITE) {
        for (;;)
            std::this_thread::sleep_for(std::chrono::hours(24));
    }
    if (milliseconds == 0)
        std::this_thread::yield();
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

DWORD WINAPI GetCurrentThreadId(void) { return qmtp::current_thread_id(); }

uintptr_t _beginthreadex(void *, unsigned stack_size, unsigned(__stdcall *start)(void *), void *arg,
                         unsigned init_flag, unsigned *thread_id) {
    QMTP_FAULT_POINT("_beginthreadex", 0);
    if (start == nullptr || (init_flag & ~qmtp::kStackSizeIsReservation) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    auto object = std::make_shared<Object>(Kind::Thread);
    const DWORD tid = qmtp::new_thread_id();
    auto *s = new qmtp::ThreadStart{start, arg, object, tid};
    HANDLE h;
    {
        qmtp::Engine &e = qmtp::engine();
        std::lock_guard<std::mutex> g(e.lock);
        h = qmtp::insert_locked(e, object);
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (stack_size != 0)
        pthread_attr_setstacksize(&attr, std::max<size_t>(stack_size, PTHREAD_STACK_MIN));
    pthread_t thread;
    const int rc = pthread_create(&thread, &attr, qmtp::thread_main, s);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete s;
        qmtp::Engine &e = qmtp::engine();
        std::lock_guard<std::mutex> g(e.lock);
        e.table.erase(reinterpret_cast<uintptr_t>(h));
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    if (thread_id)
        *thread_id = tid;
    return reinterpret_cast<uintptr_t>(h);
}

long qmtp_live_handles(void) {
    qmtp::Engine &e = qmtp::engine();
    std::lock_guard<std::mutex> g(e.lock);
    return static_cast<long>(e.table.size());
}

} // extern "C"
