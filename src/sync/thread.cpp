// Threads: portable priorities, self-releasing records, and a join that
// finds a thread by address in a table of live records instead of reading
// a record that may already be gone.
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/log.h"
#include "kavro_rt/mem.h"
#include "kavro_rt/thread.h"
#include "kavro_rt/ulx.h"
#include "sync/thread.hpp"

namespace {

using namespace kavro::detail;

// What THREAD_Create allocates: the documented record, then the family's
// own bookkeeping, which no user sees.
struct ThreadRecord {
    ThreadObj obj;
    ThreadRecord *next;  // live table
    ThreadRecord *prev;
    int inheritPolicy;    // the creator's scheduling when the thread was made:
    int inheritPriority;  // what portable priority 0 stands for
    long tid;             // published: the system's id of the thread
};
static_assert(offsetof(ThreadRecord, obj) == 0, "a handle is the record's address");

ThreadRecord *record_of(ThreadObj *obj) { return reinterpret_cast<ThreadRecord *>(obj); }

int32_t cRefs = 0;
// Threads may start or end while the family goes down; keyValid publishes infoKey.
pthread_key_t infoKey;
std::atomic<bool> keyValid{false};
std::atomic<int> sched_policy{SCHED_FIFO};  // set from any thread, read at each change

const ThreadAttr defAttrs = {THREAD_ATTR_LENGTH, 1, 0, 0, THREAD_USE_CONTEXT, nullptr};
const char kShortFormName[] = "unknown";

// The process id for the start line, read once per process rather than once
// per thread (a forked child reads its own).
std::atomic<long> processId{0};

// Records of threads that have been created and not yet released. Only
// THREAD_Join and its self test search it, by address.
pthread_mutex_t liveLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t liveEnded = PTHREAD_COND_INITIALIZER;
ThreadRecord *liveFirst = nullptr;
uint32_t liveCount = 0;

KAVRO_SAMPLER void sample_thread(const void *h, const uint32_t *, kavro::pub::Row &row) {
    const auto *r = static_cast<const ThreadRecord *>(h);
    row.v[0] = row.v[1] = KAVRO_PEEK(r->obj.priority);
    row.v[4] = KAVRO_PEEK(r->obj.lockCount);
    row.v[6] = KAVRO_PEEK(r->tid);
    row.v[7] = KAVRO_PEEK(r->obj.suspended);
}

void live_add(ThreadRecord *r) {
    pthread_mutex_lock(&liveLock);
    r->prev = nullptr;
    r->next = liveFirst;
    if (liveFirst != nullptr) liveFirst->prev = r;
    liveFirst = r;
    ++liveCount;
    kavro::pub::add(kavro::pub::Thread, r, r->obj.name, sample_thread);
    pthread_mutex_unlock(&liveLock);
}

// Caller holds liveLock.
void live_unlink(ThreadRecord *r) {
    kavro::pub::remove(r);
    if (r->prev != nullptr)
        r->prev->next = r->next;
    else
        liveFirst = r->next;
    if (r->next != nullptr) r->next->prev = r->prev;
    --liveCount;
}

// Caller holds liveLock. Compares addresses only.
bool live_contains(const ThreadRecord *r) {
    for (const ThreadRecord *p = liveFirst; p != nullptr; p = p->next)
        if (p == r) return true;
    return false;
}

// A forked child has only the forking thread: keep that one's record (its
// user function may still return there and release it) and forget the rest,
// so that a join in the child does not wait for a thread it does not have.
void live_prepare_fork() { pthread_mutex_lock(&liveLock); }
void live_parent_after_fork() { pthread_mutex_unlock(&liveLock); }
void live_child_after_fork() {
    processId.store(static_cast<long>(getpid()), std::memory_order_relaxed);
    auto *self =
        keyValid.load(std::memory_order_acquire) ? static_cast<ThreadObj *>(pthread_getspecific(infoKey)) : nullptr;
    liveFirst = nullptr;
    liveCount = 0;
    if (self != nullptr) {
        ThreadRecord *r = record_of(self);
        r->next = r->prev = nullptr;
        liveFirst = r;
        liveCount = 1;
    }
    // The forking thread took liveLock before the fork and is the child's
    // only thread: it releases it (initialising a locked mutex again would
    // be undefined). The condition may count waiters the child does not
    // have, so it starts afresh.
    pthread_mutex_unlock(&liveLock);
    pthread_cond_init(&liveEnded, nullptr);
}
pthread_once_t forkHandlersOnce = PTHREAD_ONCE_INIT;
void install_fork_handlers() { pthread_atfork(live_prepare_fork, live_parent_after_fork, live_child_after_fork); }

ThreadObj *thread_self_record() {
    return keyValid.load(std::memory_order_acquire) ? static_cast<ThreadObj *>(pthread_getspecific(infoKey)) : nullptr;
}

// Puts a portable priority into effect on the thread. Platform refusals are
// not reported: the stored priority is what the caller asked for.
void apply_priority(ThreadRecord *r, uint32_t priority) {
    sched_param sp{};
    int policy = sched_policy.load(std::memory_order_relaxed);
    if (priority == 0) {
        policy = r->inheritPolicy;
        sp.sched_priority = r->inheritPriority;
    } else {
        int32_t platform = 0;
        THREAD_TranslatePriority(priority, &platform);
        sp.sched_priority = platform;
    }
    // A thread changing itself names itself: its id is then known even while
    // its creator may still be inside THREAD_Create.
    const pthread_t target = thread_self_record() == &r->obj ? pthread_self() : r->obj.systemHandle;
    pthread_setschedparam(target, policy, &sp);
}

// The second of the two releases frees the record; the thread's own end is
// always one, and autoFree (always set) counts as the other.
void deleteThread(ThreadObj *obj) {
    if (obj->autoFree) obj->releaseCount = 1;
    if (++obj->releaseCount != 2) return;
    if (keyValid.load(std::memory_order_acquire) && pthread_getspecific(infoKey) == obj)
        pthread_setspecific(infoKey, nullptr);
    sem_destroy(&obj->startSem);
    ThreadRecord *r = record_of(obj);
    pthread_mutex_lock(&liveLock);
    live_unlink(r);
    KAVRO_OBJ_Free(obj, 0);
    pthread_cond_broadcast(&liveEnded);
    pthread_mutex_unlock(&liveLock);
}

void call_user(ThreadObj *o) {
    using U = uint32_t;
    const U *a = o->args;
    void (*fn)() = reinterpret_cast<void (*)()>(o->fnUser);
    switch (o->numArgs) {
        case THREAD_USE_CONTEXT: o->fnUser(o->context); break;
        case 0: fn(); break;
        case 1: reinterpret_cast<void (*)(U)>(fn)(a[0]); break;
        case 2: reinterpret_cast<void (*)(U, U)>(fn)(a[0], a[1]); break;
        case 3: reinterpret_cast<void (*)(U, U, U)>(fn)(a[0], a[1], a[2]); break;
        case 4: reinterpret_cast<void (*)(U, U, U, U)>(fn)(a[0], a[1], a[2], a[3]); break;
        case 5: reinterpret_cast<void (*)(U, U, U, U, U)>(fn)(a[0], a[1], a[2], a[3], a[4]); break;
        case 6: reinterpret_cast<void (*)(U, U, U, U, U, U)>(fn)(a[0], a[1], a[2], a[3], a[4], a[5]); break;
        case 7: reinterpret_cast<void (*)(U, U, U, U, U, U, U)>(fn)(a[0], a[1], a[2], a[3], a[4], a[5], a[6]); break;
        case 8:
            reinterpret_cast<void (*)(U, U, U, U, U, U, U, U)>(fn)(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7]);
            break;
        default: break;  // refused at creation
    }
}

void *helperEntry(void *arg) {
    ThreadObj *o = &static_cast<ThreadRecord *>(arg)->obj;
    const long pid = processId.load(std::memory_order_relaxed);
    if (keyValid.load(std::memory_order_acquire)) pthread_setspecific(infoKey, o);
    static_cast<ThreadRecord *>(arg)->tid = gettid();
    while (sem_wait(&o->startSem) != 0 && errno == EINTR) {
    }
    int32_t platform = 0;
    if (THREAD_TranslatePriority(o->priority, &platform) != kOk)
        diag("helperEntry", "ERROR - started Thread pid=%ld tname=%s BAD PRIORITY=%lu\n", pid, o->name,
             static_cast<unsigned long>(o->priority));
    else
        std::printf("KAVRO:%s: started Thread pid=%ld tname=%s tpriority=%lu\n", "helperEntry", pid, o->name,
                    static_cast<unsigned long>(o->priority));
    o->lockCount = 0;
    call_user(o);
    deleteThread(o);
    return nullptr;
}

unsigned long word_of(const void *p) { return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)); }

const char kCreateFn[] = "THREAD_Create";

// THREAD_Create's argument checks, in the order of their lines: the attribute
// block (brought to its full form in *a), then the pointers. kOk, or the
// status of the first rejected argument with its line.
KAVRO_STATUS check_create(ThreadObj **phThreadObj, THREAD_UserFn fnUser, const void *context, const ThreadAttr *attr,
                          ThreadAttr *a) {
    if (attr == nullptr) {
        *a = defAttrs;
    } else if (attr->length == THREAD_ATTR_LENGTH) {
        *a = *attr;
    } else if (attr->length == THREAD_ATTR_SHORT_LENGTH) {
        // The short form has no name word: read nothing past word 4.
        a->length = THREAD_ATTR_LENGTH;
        a->priority = attr->priority;
        a->startSuspended = attr->startSuspended & 1u;
        a->reserved = attr->reserved;
        a->numArgs = attr->numArgs;
        a->name = kShortFormName;
    } else {
        diag(kCreateFn, "Error, invalid attribute length\n");
        return kInvalidArg;
    }
    if (a->priority > THREAD_MAX_PRIORITY) {
        diag(kCreateFn, "Error, invalid priority = %d, min = %d, max = %d\n", static_cast<int>(a->priority),
             static_cast<int>(THREAD_MIN_PRIORITY), static_cast<int>(THREAD_MAX_PRIORITY));
        return kInvalidArg;
    }
    if (a->numArgs < THREAD_USE_CONTEXT || a->numArgs > THREAD_MAX_ARGS) {
        diag(kCreateFn, "Error, invalid num of args = %d, useContext = %d, max = %d\n", a->numArgs, THREAD_USE_CONTEXT,
             THREAD_MAX_ARGS);
        return kInvalidArg;
    }
    if (phThreadObj == nullptr || fnUser == nullptr) {
        diag(kCreateFn, "Error, pointer is NULL, phThreadObj = 0x%lX, fnUser = 0x%lX\n", word_of(phThreadObj),
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(fnUser)));
        return kNullPointer;
    }
    if (a->numArgs > 0 && context == nullptr) {
        diag(kCreateFn, "Error, argument array is NULL, numArgs = %d\n", a->numArgs);
        return kNullPointer;
    }
    if (!keyValid.load(std::memory_order_acquire)) {
        diag(kCreateFn, "Error, thread family is not initialised\n");
        return kFail;
    }
    return kOk;
}

// What the thread would inherit; priority 0 returns it there later. One
// system call where the kernel has sched_getattr, two otherwise.
void read_creator_sched(ThreadRecord *r) {
    struct {  // the kernel's struct sched_attr, first version
        uint32_t size, policy;
        uint64_t flags;
        int32_t nice;
        uint32_t priority;
        uint64_t runtime, deadline, period;
    } sa{};
    int policy = -1;
    sched_param param{};
    if (syscall(SYS_sched_getattr, 0, &sa, sizeof sa, 0) == 0) {
        policy = static_cast<int>(sa.policy);
        param.sched_priority = static_cast<int>(sa.priority);
    } else if ((policy = sched_getscheduler(0)) >= 0 && sched_getparam(0, &param) != 0) {
        policy = -1;
    }
    r->inheritPolicy = policy < 0 ? SCHED_OTHER : policy & ~SCHED_RESET_ON_FORK;
    r->inheritPriority = policy < 0 ? 0 : param.sched_priority;
}

// Fills a freshly allocated (zeroed) record from the checked attributes.
void fill_record(ThreadRecord *r, THREAD_UserFn fnUser, void *context, const ThreadAttr &a) {
    ThreadObj *o = &r->obj;
    o->fnUser = fnUser;
    o->context = context;
    kavro::detail::count_up(threadalloccalls);
    o->lockCount = 0;
    o->priority = a.priority;
    o->previousPriority = 0;
    o->creator = pthread_self();
    if (a.name != nullptr) {
        std::strncpy(o->name, a.name, THREAD_NAME_SIZE - 1);
        o->name[THREAD_NAME_SIZE - 1] = '\0';
    }
    o->numArgs = a.numArgs;
    if (a.numArgs > 0) std::memcpy(o->args, context, sizeof(uint32_t) * static_cast<size_t>(a.numArgs));

    read_creator_sched(r);
}

// The platform attributes of a new thread: stack size, scheduling (explicit
// for priorities 1..15, inherited for 0), detached.
struct PlatformAttrs {
    int32_t stackSize;
    int policy;  // unused for priority 0
    uint32_t priority;
    pthread_attr_t attr;
};

void build_platform_attrs(PlatformAttrs *p) {
    pthread_attr_t *pa = &p->attr;
    pthread_attr_init(pa);
    if (p->stackSize != 0) pthread_attr_setstacksize(pa, static_cast<size_t>(p->stackSize));
    if (p->priority != 0) {
        pthread_attr_setinheritsched(pa, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setscope(pa, PTHREAD_SCOPE_SYSTEM);
        pthread_attr_setschedpolicy(pa, p->policy);
        sched_param sp{};
        int32_t platform = 0;
        THREAD_TranslatePriority(p->priority, &platform);
        sp.sched_priority = platform;
        pthread_attr_setschedparam(pa, &sp);  // asks the kernel for the policy's range
    } else {
        pthread_attr_setinheritsched(pa, PTHREAD_INHERIT_SCHED);
    }
    pthread_attr_setdetachstate(pa, PTHREAD_CREATE_DETACHED);
}

// Attribute objects already built, one per combination of stack size, policy
// and priority met so far, so that a creation does not set them up (and ask
// the kernel for the priority range) each time. A slot is filled once and
// then only read; pthread_create only reads the object it is given.
constexpr int kAttrSlots = 64;
PlatformAttrs attrSlots[kAttrSlots];
std::atomic<int> attrSlotState[kAttrSlots];  // 0 free, 1 being built, 2 ready
constexpr int kSlotFree = 0, kSlotBuilding = 1, kSlotReady = 2;

// The attributes for `want` (whose attr is unset): a ready slot's, or `want`'s
// own, built, when every slot is taken.
const pthread_attr_t *platform_attrs(PlatformAttrs *want) {
    const bool inherit = want->priority == 0;
    for (int i = 0; i < kAttrSlots; ++i) {
        int st = attrSlotState[i].load(std::memory_order_acquire);
        if (st == kSlotFree && attrSlotState[i].compare_exchange_strong(st, kSlotBuilding, std::memory_order_acquire)) {
            PlatformAttrs &slot = attrSlots[i];
            slot.stackSize = want->stackSize;
            slot.policy = want->policy;
            slot.priority = want->priority;
            build_platform_attrs(&slot);
            attrSlotState[i].store(kSlotReady, std::memory_order_release);
            return &slot.attr;
        }
        if (st != kSlotReady) continue;  // another creator is filling it
        const PlatformAttrs &slot = attrSlots[i];
        if (slot.stackSize == want->stackSize && slot.priority == want->priority &&
            (inherit || slot.policy == want->policy))
            return &slot.attr;
    }
    build_platform_attrs(want);
    return &want->attr;
}

}  // namespace

namespace kavro::detail {

uint32_t thread_live_count() {
    pthread_mutex_lock(&liveLock);
    const uint32_t n = liveCount;
    pthread_mutex_unlock(&liveLock);
    return n;
}

}  // namespace kavro::detail

extern "C" {

KAVRO_API int32_t PelStackSize = 0x200000;
KAVRO_API uint32_t threadalloccalls = 0;

KAVRO_API int32_t THREAD_Init(void) {
    if (cRefs != 0) {  // up, or taken below 0 by an unbalanced exit: only count
        ++cRefs;
        return 1;
    }
    processId.store(static_cast<long>(getpid()), std::memory_order_relaxed);  // before keyValid publishes it
    keyValid.store(pthread_key_create(&infoKey, nullptr) == 0, std::memory_order_release);
    pthread_once(&forkHandlersOnce, install_fork_handlers);
    int32_t size = 0;
    if (env_decimal("PELOSSTACKSIZE", &size)) PelStackSize = size;
    MEM_Init();
    ++cRefs;
    return 0;
}

KAVRO_API int32_t THREAD_Exit(void) {
    if (--cRefs == 0) {
        if (keyValid.exchange(false, std::memory_order_acq_rel)) pthread_key_delete(infoKey);
        MEM_Exit();
    }
    return 0;
}

KAVRO_API KAVRO_STATUS THREAD_Create(ThreadObj **phThreadObj, THREAD_UserFn fnUser, void *context,
                                     const ThreadAttr *attr) {
    if (phThreadObj != nullptr) *phThreadObj = nullptr;
    ThreadAttr a;
    const KAVRO_STATUS checked = check_create(phThreadObj, fnUser, context, attr, &a);
    if (checked != kOk) return checked;

    auto *r = static_cast<ThreadRecord *>(KAVRO_OBJ_Alloc(sizeof(ThreadRecord), KAVRO_TAG_THREAD, 0));
    if (r == nullptr) {
        diag(kCreateFn, "Error, failed to create KAVRO_OBJ object\n");
        return kOutOfMemory;
    }
    ThreadObj *o = &r->obj;
    fill_record(r, fnUser, context, a);

    PlatformAttrs own{PelStackSize, sched_policy.load(std::memory_order_relaxed), a.priority, {}};
    const pthread_attr_t *pa = platform_attrs(&own);
    o->autoFree = 1;
    // Everything the thread may read is written before it exists, the handle
    // included: a thread that starts at once finds its start semaphore posted
    // and never blocks on its way to user code. A suspended one waits there
    // until THREAD_SetPriority posts it.
    const bool startNow = a.startSuspended == 0;
    o->suspended = startNow ? 0 : 1;
    sem_init(&o->startSem, 0, startNow ? 1 : 0);
    live_add(r);
    *phThreadObj = o;
    const int rc = pthread_create(&o->systemHandle, pa, helperEntry, r);
    if (pa == &own.attr) pthread_attr_destroy(&own.attr);
    if (rc != 0) {
        *phThreadObj = nullptr;
        sem_destroy(&o->startSem);
        pthread_mutex_lock(&liveLock);
        live_unlink(r);
        pthread_mutex_unlock(&liveLock);
        KAVRO_OBJ_Free(o, 0);
        return kFail;
    }
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_TranslatePriority(uint32_t portable, int32_t *platform) {
    if (platform == nullptr) return kInvalidArg;
    *platform = static_cast<int32_t>(portable);
    return portable < 16 ? kOk : kInvalidArg;
}

KAVRO_API KAVRO_STATUS THREAD_KernelTimeSlice(int32_t enable) {
    sched_policy.store(enable != 0 ? SCHED_RR : SCHED_FIFO, std::memory_order_relaxed);
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_SetPriority(ThreadObj *obj, uint32_t priority, uint32_t *oldPriority) {
    if (obj == nullptr) return kInvalidArg;
    if (oldPriority != nullptr) *oldPriority = obj->priority;
    if (priority != obj->priority) obj->previousPriority = obj->priority;
    obj->priority = priority;
    apply_priority(record_of(obj), priority);
    if (obj->suspended) {
        obj->suspended = 0;
        sem_post(&obj->startSem);
    }
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_Set2Priority(ThreadObj *obj, uint32_t priority, uint32_t *oldPriority,
                                           uint32_t *changed) {
    if (obj == nullptr || changed == nullptr) return kInvalidArg;
    if (oldPriority != nullptr) *oldPriority = obj->priority;
    if (obj->priority == priority) {
        *changed = 0;
        // Already there outside any lock (raised by THREAD_SetPriority): this
        // is the priority to return to, not whatever an older change left.
        if (obj->lockCount == 0) obj->previousPriority = priority;
    } else {
        *changed = 1;
        obj->previousPriority = obj->priority;
        obj->priority = priority;
        apply_priority(record_of(obj), priority);
    }
    ++obj->lockCount;
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_Restore2Priority(ThreadObj *obj) {
    if (obj == nullptr) return kInvalidArg;
    if (obj->lockCount == 0) {
        obj->priority = obj->previousPriority;
        apply_priority(record_of(obj), obj->priority);
    }
    return kOk;
}

KAVRO_API void THREAD_LockStatus(ThreadObj *obj, uint32_t *isLast) {
    if (obj == nullptr) {
        if (isLast != nullptr) *isLast = 0;
        return;
    }
    if (isLast != nullptr) *isLast = obj->lockCount == 1 ? 1 : 0;
    --obj->lockCount;
}

KAVRO_API KAVRO_STATUS THREAD_GetName(ThreadObj *obj, char *dst) {
    if (dst == nullptr) return kInvalidArg;
    if (obj == nullptr) return kOk;
    // A fixed field: padded with NULs, not terminated when the name fills it.
    const size_t n = strnlen(obj->name, THREAD_GETNAME_SIZE);
    std::memcpy(dst, obj->name, n);
    std::memset(dst + n, 0, THREAD_GETNAME_SIZE - n);
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_GetPriority(ThreadObj *obj, uint32_t *out) {
    if (obj == nullptr || out == nullptr) return kInvalidArg;
    *out = obj->priority;
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_GetSystemThreadHandle(ThreadObj *obj, pthread_t *out) {
    if (obj == nullptr || out == nullptr) return kInvalidArg;
    *out = obj->systemHandle;
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_GetEnvironment(ThreadObj *obj, uint32_t *out) {
    if (obj == nullptr || out == nullptr) return kInvalidArg;
    *out = obj->environment;
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_SetEnvironment(ThreadObj *obj, uint32_t value) {
    if (obj == nullptr) return kInvalidArg;
    obj->environment = value;
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_Self(ThreadObj **out) {
    if (out == nullptr) return kInvalidArg;
    *out = thread_self_record();
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_End(void) {
    ThreadObj *o = thread_self_record();
    if (o == nullptr) {
        diag("THREAD_End", "Error, ppThreadObj pointer is NULL\n");
        return kInvalidArg;
    }
    deleteThread(o);
    pthread_exit(nullptr);
}

KAVRO_API KAVRO_STATUS THREAD_Delete(ThreadObj *) {
    diag("THREAD_Delete", "This function is now obsoleted...  \n");
    return kFail;
}

KAVRO_API KAVRO_STATUS THREAD_Sleep(uint32_t milliseconds) {
    pthread_cond_t cond;
    pthread_mutex_t mutex;
    pthread_cond_init(&cond, nullptr);
    pthread_mutex_init(&mutex, nullptr);
    timespec deadline{};
    _ULX_MakeAbsTime(&deadline, milliseconds);
    pthread_mutex_lock(&mutex);
    int rc;
    do {
        rc = pthread_cond_timedwait(&cond, &mutex, &deadline);
    } while (rc == 0);  // nobody signals: a return before the deadline is spurious
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    pthread_cond_destroy(&cond);
    return rc == ETIMEDOUT ? kOk : kFail;
}

KAVRO_API KAVRO_STATUS THREAD_Join(ThreadObj *obj) {
    if (obj == nullptr) return kInvalidArg;
    const ThreadRecord *target = record_of(obj);
    pthread_mutex_lock(&liveLock);
    // A live record may be read under liveLock: it is freed only under it.
    if (live_contains(target) && !pthread_equal(target->obj.systemHandle, pthread_self())) {
        do {
            pthread_cond_wait(&liveEnded, &liveLock);
        } while (live_contains(target));
    }
    pthread_mutex_unlock(&liveLock);
    return kOk;
}

KAVRO_API KAVRO_STATUS THREAD_Yield(void) {
    sched_yield();
    return kOk;
}

}  // extern "C"
