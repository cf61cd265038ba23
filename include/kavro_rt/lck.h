/**
 * @file lck.h
 * @brief `LCK_`: task locks that raise their holder to real-time priority 98.
 *
 * A task lock is a section one thread at a time may enter. A thread made by
 * `THREAD_Create` is raised to priority 98 (under the thread family's policy,
 * SCHED_FIFO unless `THREAD_KernelTimeSlice` chose SCHED_RR) before it waits
 * for the lock, stays there while it holds it, and returns to its previous
 * priority when it leaves. Locking nests per thread across all task locks:
 * a thread that holds any task lock enters every further `LCK_Lock` at once,
 * without taking that lock, and must leave as often as it entered, in
 * reverse order with the same handles (the lock released is the outermost
 * one). A NULL handle means the default lock, made by `LCK_Init`. A second
 * plain lock, without priority handling or nesting, is reached through
 * `LCK_Lock_2`/`LCK_Unlock_2`.
 *
 * Threads not made by `THREAD_Create` (the main thread, for instance) lock
 * without any priority change and without nesting: they must not enter a
 * lock they hold. Nobody may enter the second lock twice. No signals are
 * blocked while a lock is held.
 *
 * `LCK_Init` brings the memory, thread and semaphore families up with it;
 * the last `LCK_Exit` takes them down. The default and second locks are not
 * freed by `LCK_Exit`; a later bringing-up `LCK_Init` makes new ones.
 *
 * Decisions:
 * - Whether an `LCK_Lock` is a nested entry is decided by the thread's
 *   nesting depth (it holds some task lock), not by its current priority:
 *   a thread given priority 98 by `THREAD_SetPriority` still waits for the
 *   lock. In correct use the two tests agree.
 * - An `LCK_Unlock` by a thread made by `THREAD_Create` that holds no task
 *   lock (depth 0) changes nothing and returns 0, so a stray unlock cannot
 *   upset the nesting of a later lock. At the outermost exit the thread
 *   always returns to its previous priority, also when the lock named is
 *   not held.
 * - An `LCK_Unlock` of a lock that is not held, by a thread not made by
 *   `THREAD_Create`, changes nothing and returns 0 (the lock is not
 *   "released" twice).
 * - When `LCK_Init` cannot allocate the default or the second lock it logs
 *   one line and still returns 0; a later `LCK_Init` tries again. Until
 *   then every operation on the missing lock returns KAVRO_E_FAIL.
 * - `LCK_Create` with a NULL out-pointer and `LCK_Delete` of a NULL handle
 *   return KAVRO_E_INVALIDARG. Other handles are trusted.
 */
#ifndef KAVRO_RT_LCK_H
#define KAVRO_RT_LCK_H

#include <semaphore.h>

#include "status.h"

KAVRO_BEGIN_DECLS

/** The platform priority of a thread inside a task lock. */
#define LCK_PRIORITY 98u

/** A task lock; a handle points at it. Fields in this order. */
typedef struct LckObj {
    uint32_t tag;      /**< 0x4C434B5F; 0xDEADBEEF once deleted */
    uintptr_t owner;   /**< the holder's `ThreadObj`; (uintptr_t)-1 for a thread without one; 0 when free */
    int32_t holdCount; /**< times the semaphore is held: 0 or 1 */
    sem_t sem;         /**< process-private, 1 when free */
} LckObj;

/** Part of the interface; the library never reads or writes them. */
KAVRO_API extern uint32_t LinTaskLock;
KAVRO_API extern uint32_t savedPriority;
KAVRO_API extern uint64_t startlck;
KAVRO_API extern uint64_t endlck;

/**
 * Bring the family up: the memory, thread and semaphore families in this
 * order, then the default and second locks. Later calls only count.
 * @retval 0 always
 */
KAVRO_API int32_t LCK_Init(void);

/**
 * Count down; the call that reaches 0 takes the semaphore, thread and
 * memory families down, in this order. The locks stay allocated.
 */
KAVRO_API void LCK_Exit(void);

/**
 * Make a free task lock.
 * @param phLock receives the handle (NULL when out of memory)
 * @retval 0          made
 * @retval KAVRO_E_OUTOFMEMORY no memory
 * @retval KAVRO_E_INVALIDARG @p phLock is NULL
 */
KAVRO_API KAVRO_STATUS LCK_Create(LckObj **phLock);

/**
 * Free a task lock. A held lock is not released first: delete only a lock
 * nobody holds or waits for.
 * @param hLock the lock
 * @retval 0          freed
 * @retval KAVRO_E_INVALIDARG @p hLock is NULL
 */
KAVRO_API KAVRO_STATUS LCK_Delete(LckObj *hLock);

/**
 * Enter a task lock: raise the caller to 98 (when made by `THREAD_Create`),
 * then wait until the lock is free and take it; a caller already inside a
 * task lock only counts one level deeper.
 * @param hLock the lock, or NULL for the default lock
 * @retval 0          entered
 * @retval KAVRO_E_FAIL the family is down (before `LCK_Init`, after the last
 *                    `LCK_Exit`), or the default lock is missing
 */
KAVRO_API KAVRO_STATUS LCK_Lock(LckObj *hLock);

/**
 * Leave a task lock: count one level out; at the outermost level release
 * the lock and return the caller to its previous priority.
 * @param hLock the lock, or NULL for the default lock
 * @retval 0          left (also when nothing was held; see the decisions)
 * @retval KAVRO_E_FAIL NULL handle and no default lock exists
 */
KAVRO_API KAVRO_STATUS LCK_Unlock(LckObj *hLock);

/**
 * Enter the second lock (no priority change, no nesting).
 * @retval 0          entered
 * @retval KAVRO_E_FAIL the lock does not exist (no `LCK_Init` yet)
 */
KAVRO_API KAVRO_STATUS LCK_Lock_2(void);

/**
 * Leave the second lock.
 * @retval 0          released
 * @retval KAVRO_E_FAIL it was not held, or does not exist
 */
KAVRO_API KAVRO_STATUS LCK_Unlock_2(void);

KAVRO_END_DECLS

#endif /* KAVRO_RT_LCK_H */
