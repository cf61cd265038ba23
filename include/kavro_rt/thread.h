/**
 * @file thread.h
 * @brief `THREAD_`: portable threads with priorities 0..15 and a per-thread record.
 *
 * A thread is created with a portable priority, a name and a user function
 * that receives either up to eight 32-bit argument words or one context
 * pointer. It may start suspended and be released later by
 * `THREAD_SetPriority`. Threads run under SCHED_FIFO (SCHED_RR after
 * `THREAD_KernelTimeSlice(1)`) with the portable priority handed to the
 * platform unchanged; priority 0 means "inherit the creator's scheduling".
 * Real-time scheduling needs the privilege for it: without it, creating a
 * thread with a priority from 1 to 15 fails with KAVRO_E_FAIL.
 *
 * Every thread made here keeps its `ThreadObj` under a thread-specific key,
 * so that it can find itself (`THREAD_Self`); the task lock (lck.h) keeps
 * its nesting depth and the priority to return to in that record. Threads
 * are detached and release their own record when the user function returns
 * or the thread calls `THREAD_End`: the handle is invalid from then on
 * (its tag reads 0xDEADBEEF until the heap reuses the block).
 *
 * When a thread starts running user code it writes one line
 * "KAVRO:helperEntry: started Thread pid=<pid> tname=<name> tpriority=<p>"
 * to standard output (not through the log sink, so it is lost once the
 * process has daemonised); a thread released with a priority above 15 is
 * reported through the log sink instead and runs all the same.
 *
 * Decisions:
 * - `THREAD_Join` does not use the platform's join (the threads are
 *   detached). It waits until the thread has released its record, and it
 *   never reads the record: live threads are kept in a process-wide table
 *   and a handle is looked up there by address only. A handle whose thread
 *   has already ended (or that never was a thread) returns 0 at once; a
 *   thread joining itself returns 0 at once instead of waiting for ever.
 *   A stale handle whose address has been reused by a newer thread's
 *   record waits for that newer thread. Joining a suspended thread waits
 *   until somebody releases it and it ends.
 * - In a child process made by `fork` only the forking thread exists: there,
 *   joining any other thread of the parent returns 0 at once.
 * - Portable priority 0 stands for the scheduling the thread inherited
 *   from its creator (read when the thread is created). Giving a thread
 *   priority 0 with `THREAD_SetPriority`, or returning it to 0 when it
 *   leaves a task lock, puts that policy and platform priority back
 *   (the real-time policies have no priority 0 of their own).
 * - `THREAD_Set2Priority` at the outermost level (nesting depth 0) on a
 *   thread that already runs at the requested priority makes that priority
 *   the one to return to: a thread raised to 98 by `THREAD_SetPriority`
 *   leaves a task lock at 98, not at the priority it had before.
 * - `THREAD_SetPriority` and `THREAD_Set2Priority` accept any priority;
 *   one the platform refuses (above 99) is stored but leaves the thread's
 *   scheduling unchanged.
 * - `THREAD_Create` stores the handle at `phThreadObj` before the thread
 *   exists (and NULL again if the platform refuses it), so the new thread
 *   may read it from there at once. A thread not created suspended finds
 *   its start semaphore already posted and runs to its user function
 *   without waiting for its creator. The process id of the start line is
 *   read once per process (by `THREAD_Init`, and again in a child made by
 *   `fork`).
 * - `THREAD_Create` refuses with KAVRO_E_FAIL and a line while the family is
 *   down (before `THREAD_Init` or after the last `THREAD_Exit`): without
 *   the family's key a thread could not find itself. With `numArgs` 1..8
 *   and a NULL argument array it refuses with KAVRO_E_POINTER.
 * - In the 20-byte attribute form only the first five words are read. The
 *   length word names the form, not the byte size of `ThreadAttr` (which
 *   is 32 bytes on x86_64): set it to `THREAD_ATTR_LENGTH` or
 *   `THREAD_ATTR_SHORT_LENGTH`.
 * - A PELOSSTACKSIZE that is not a decimal number is ignored; a stack size
 *   that the platform refuses (below its minimum, negative) leaves the
 *   platform's default stack size.
 * - `THREAD_Sleep` waits through a spurious wake-up of its private wait.
 * - Every operation given a NULL handle or NULL out-pointer returns a
 *   status (the one documented below, KAVRO_E_INVALIDARG where no other is named)
 *   and touches nothing. Other handles are trusted: passing the handle of
 *   a thread that has ended to anything but `THREAD_Join` is undefined.
 */
#ifndef KAVRO_RT_THREAD_H
#define KAVRO_RT_THREAD_H

#include <pthread.h>
#include <semaphore.h>

#include "status.h"

KAVRO_BEGIN_DECLS

/** Lowest and highest portable priority. */
#define THREAD_MIN_PRIORITY 0u
#define THREAD_MAX_PRIORITY 15u
/** `numArgs` value that hands the context pointer to the user function. */
#define THREAD_USE_CONTEXT (-1)
/** Most argument words a user function can receive. */
#define THREAD_MAX_ARGS 8
/** Length word of the full and of the short attribute form. */
#define THREAD_ATTR_LENGTH       24u
#define THREAD_ATTR_SHORT_LENGTH 20u
/** Size of a name record, including its terminator. */
#define THREAD_NAME_SIZE 256
/** Size of the fixed field `THREAD_GetName` fills. */
#define THREAD_GETNAME_SIZE 80

/**
 * The user function. It is called as `fn(context)` when `numArgs` is -1,
 * otherwise with exactly `numArgs` arguments of type `uint32_t` (none for
 * 0): declare it accordingly and cast it to this type. Its result, if any,
 * is ignored.
 */
typedef void (*THREAD_UserFn)(void *context);

/**
 * Creation attributes, read only during `THREAD_Create`.
 *
 * Full form (`length` 24): all six fields. Short form (`length` 20): the
 * first five; bit 0 of `startSuspended` asks for a suspended start (other
 * bits are ignored) and the thread is named "unknown".
 */
typedef struct ThreadAttr {
    uint32_t length;         /**< THREAD_ATTR_LENGTH or THREAD_ATTR_SHORT_LENGTH */
    uint32_t priority;       /**< portable priority 0..15; 0 inherits the creator's scheduling */
    uint32_t startSuspended; /**< full form: non-zero = suspended; short form: bit 0 */
    uint32_t reserved;       /**< carried, never read */
    int32_t numArgs;         /**< -1: hand over the context pointer; 0..8: argument words */
    const char *name;        /**< full form only: the name, or NULL for none */
} ThreadAttr;

/**
 * The per-thread record; a thread handle points at it. Fields in this
 * order. The library's own fields; read them through the operations.
 */
typedef struct ThreadObj {
    uint32_t tag;                   /**< 0x44524854 ("THRD"); 0xDEADBEEF once released */
    pthread_t systemHandle;         /**< the platform thread */
    pthread_t creator;              /**< the thread that called `THREAD_Create` */
    sem_t startSem;                 /**< posted when the thread may run user code */
    uint32_t suspended;             /**< 1 while a suspended thread waits for release */
    uint32_t autoFree;              /**< 1: the thread releases its record itself (always) */
    uint32_t releaseCount;          /**< releases recorded; the record goes at 2 */
    int32_t lockCount;              /**< task-lock nesting depth */
    uint32_t environment;           /**< one word for the caller's use */
    uint32_t priority;              /**< current portable priority */
    uint32_t previousPriority;      /**< priority to return to after a task lock */
    char name[THREAD_NAME_SIZE];    /**< NUL-terminated name; empty when none was given */
    int32_t numArgs;                /**< -1 or 0..8 */
    uint32_t args[THREAD_MAX_ARGS]; /**< argument words copied at creation */
    THREAD_UserFn fnUser;           /**< the user function */
    void *context;                  /**< the argument array, or the context pointer */
} ThreadObj;

/** Stack size of new threads in bytes (0: the platform's default); initially 2 MiB, or PELOSSTACKSIZE. */
KAVRO_API extern int32_t PelStackSize;
/** Thread records allocated so far; never decreases. */
KAVRO_API extern uint32_t threadalloccalls;

/**
 * Bring the family up: create the thread key, read PELOSSTACKSIZE into
 * `PelStackSize`, bring the memory family up. Later calls only count.
 * @retval 0 this call brought the family up
 * @retval 1 the family was up already
 */
KAVRO_API int32_t THREAD_Init(void);

/**
 * Count down; the call that reaches 0 deletes the thread key (threads still
 * running no longer find themselves) and takes the memory family down.
 * @retval 0 always
 */
KAVRO_API int32_t THREAD_Exit(void);

/**
 * Create and start a thread.
 *
 * The thread is detached and releases its record when @p fnUser returns.
 * Unless created suspended it runs at once; a suspended thread waits until
 * `THREAD_SetPriority` is called on it.
 *
 * @param phThreadObj receives the handle; NULL is stored first, and stays on failure
 * @param fnUser      the user function
 * @param context     with `numArgs` -1: the pointer handed to @p fnUser;
 *                    with 1..8: the array the argument words are copied from
 * @param attr        attributes, or NULL for priority 1, running, context, no name
 * @retval 0          created
 * @retval KAVRO_E_INVALIDARG attribute length other than 24 or 20, priority above 15,
 *                    or `numArgs` outside -1..8 (one line is logged)
 * @retval KAVRO_E_POINTER @p phThreadObj or @p fnUser is NULL, or the argument
 *                    array is NULL while `numArgs` is 1..8 (one line)
 * @retval KAVRO_E_OUTOFMEMORY no memory for the record (one line)
 * @retval KAVRO_E_FAIL the family is down (one line), or the platform refused
 *                    the thread (for example real-time scheduling is not
 *                    permitted; no line)
 */
KAVRO_API KAVRO_STATUS THREAD_Create(ThreadObj **phThreadObj, THREAD_UserFn fnUser, void *context,
                                     const ThreadAttr *attr);

/**
 * Translate a portable priority into the platform's real-time priority
 * (the same number).
 * @param portable the portable priority
 * @param platform receives it, also when out of range
 * @retval 0          @p portable is 0..15
 * @retval KAVRO_E_INVALIDARG @p portable is above 15, or @p platform is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_TranslatePriority(uint32_t portable, int32_t *platform);

/**
 * Choose the policy of later scheduling changes and creations: SCHED_RR
 * (time-sliced) or SCHED_FIFO. Running threads keep theirs until their
 * next priority change.
 * @param enable non-zero: SCHED_RR; 0: SCHED_FIFO
 * @retval 0 always
 */
KAVRO_API KAVRO_STATUS THREAD_KernelTimeSlice(int32_t enable);

/**
 * Change a thread's priority and release it when it waits suspended.
 *
 * Keeps the old priority as the one to return to when it differs, stores
 * the new one and applies it under the current policy (a refusal by the
 * platform is not reported). Not range-tested.
 *
 * @param obj         the thread
 * @param priority    the new priority
 * @param oldPriority receives the priority before the call, or NULL
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p obj is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_SetPriority(ThreadObj *obj, uint32_t priority, uint32_t *oldPriority);

/**
 * The raising half of the task lock, for the thread itself: count one more
 * nesting level and raise to @p priority unless already there.
 * @param obj         the calling thread's record
 * @param priority    the priority to run at
 * @param oldPriority receives the priority before the call, or NULL
 * @param changed     receives 1 when the priority was changed, else 0
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p obj or @p changed is NULL (nothing changed)
 */
KAVRO_API KAVRO_STATUS THREAD_Set2Priority(ThreadObj *obj, uint32_t priority, uint32_t *oldPriority, uint32_t *changed);

/**
 * The restoring half: when the nesting depth is 0, return to the priority
 * kept by the last raise; otherwise do nothing.
 * @param obj the calling thread's record
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p obj is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_Restore2Priority(ThreadObj *obj);

/**
 * Report whether this is the outermost task-lock exit (depth 1) and count
 * one level down.
 * @param obj    the calling thread's record; NULL does nothing (0 is stored)
 * @param isLast receives 1 at depth 1, else 0; may be NULL
 */
KAVRO_API void THREAD_LockStatus(ThreadObj *obj, uint32_t *isLast);

/**
 * Copy the name into a fixed 80-byte field: a shorter name is padded with
 * NULs, a name of 80 characters or more is cut at 80 without terminator.
 * @param obj the thread; NULL copies nothing
 * @param dst at least 80 bytes
 * @retval 0          done (also for a NULL @p obj)
 * @retval KAVRO_E_INVALIDARG @p dst is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_GetName(ThreadObj *obj, char *dst);

/**
 * Read the current portable priority.
 * @param obj the thread
 * @param out receives it
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p obj or @p out is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_GetPriority(ThreadObj *obj, uint32_t *out);

/**
 * Read the platform thread id.
 * @param obj the thread
 * @param out receives it
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p obj or @p out is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_GetSystemThreadHandle(ThreadObj *obj, pthread_t *out);

/**
 * Read the caller's word.
 * @param obj the thread
 * @param out receives it
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p obj or @p out is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_GetEnvironment(ThreadObj *obj, uint32_t *out);

/**
 * Store the caller's word.
 * @param obj   the thread
 * @param value the word
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p obj is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_SetEnvironment(ThreadObj *obj, uint32_t value);

/**
 * Find the calling thread's record.
 * @param out receives it; NULL for a thread not made by `THREAD_Create`
 *            (or while the family is down)
 * @retval 0          done
 * @retval KAVRO_E_INVALIDARG @p out is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_Self(ThreadObj **out);

/**
 * End the calling thread: release its record and exit. Returns only when
 * the caller was not made by `THREAD_Create` (one line is logged).
 * @retval KAVRO_E_INVALIDARG the caller has no record
 */
KAVRO_API KAVRO_STATUS THREAD_End(void);

/**
 * Obsolete: threads end by themselves. Logs one line.
 * @param obj ignored
 * @retval KAVRO_E_FAIL always
 */
KAVRO_API KAVRO_STATUS THREAD_Delete(ThreadObj *obj);

/**
 * Block the calling thread until a wall-clock deadline @p milliseconds
 * from now (setting the clock moves the deadline's distance).
 * @param milliseconds how long
 * @retval 0          the deadline was reached
 * @retval KAVRO_E_FAIL the wait failed
 */
KAVRO_API KAVRO_STATUS THREAD_Sleep(uint32_t milliseconds);

/**
 * Wait until a thread has ended and released its record (see the family
 * decisions above; the record is never read).
 * @param obj the thread
 * @retval 0          the thread has ended, had ended before, or is the caller
 * @retval KAVRO_E_INVALIDARG @p obj is NULL
 */
KAVRO_API KAVRO_STATUS THREAD_Join(ThreadObj *obj);

/** Give the processor up (`sched_yield`). @retval 0 always */
KAVRO_API KAVRO_STATUS THREAD_Yield(void);

KAVRO_END_DECLS

#endif /* KAVRO_RT_THREAD_H */
