/**
 * @file sem.h
 * @brief `SEM_`: counting semaphores, process-local or shared through System V.
 *
 * One interface, the `SEM_` front, over two implementations:
 *
 * - process-local semaphores (`PTHR_SEM_`), visible to the threads of one
 *   process. The counter kind (made by `SEM_Create` without key and flag) is
 *   a signed counter and supports timed pends; the POSIX kind (made by
 *   `SEM_Create_2`) wraps an unnamed POSIX semaphore and waits without limit;
 * - System V semaphores (`IPC_SEM_`), a one-member semaphore set with
 *   permissions 0666 that every process creating with the same key shares.
 *   Both its operations carry SEM_UNDO, so the kernel reverses the pends and
 *   posts of a process when it ends (a holder that dies gives its unit back).
 *   The kernel bounds that per-process record at 32767 in either direction:
 *   a process that pends one set 32767 times more often than it posts it
 *   (or the reverse) has its further pends fail and its further posts
 *   refused by the kernel. Use it as a lock, or balance each process's
 *   pends and posts, rather than as a one-way signal between processes.
 *
 * `SEM_Create` picks the implementation once; every later call is routed by
 * the second word of the semaphore record (1: System V, anything else:
 * process-local). Every semaphore record starts with the tag 0x5F4D4553 and
 * the type word; the implementations refuse with KAVRO_E_FAIL, touching
 * nothing, a handle whose tag differs (a deleted semaphore reads 0xDEADBEEF
 * until its memory is reused, but callers must not rely on that) or whose
 * kind words are not their own: the System V functions want type 1 and a
 * valid set id, the process-local ones type -1 and a variant of 0 or -1.
 * So a process-local handle given to `IPC_SEM_Delete`, or a message-queue
 * handle (same tag) given to any `SEM_` function, is refused.
 *
 * Timeouts are milliseconds; 0xFFFFFFFF (`KAVRO_WAIT_FOREVER`) waits without
 * limit; timed waits use absolute wall-clock deadlines.
 *
 * Decisions:
 * - The front answers a null handle with KAVRO_E_FAIL from every operation
 *   but `SEM_Delete`, which returns 0 for it.
 * - A null out-pointer (handle of a create, count of `GetCount`) is answered
 *   with KAVRO_E_INVALIDARG and nothing is allocated or created.
 * - Counter kind, mechanism: the count, the number of waiters still without
 *   a unit and the number of units handed to waiters but not yet picked up
 *   share one 64-bit atomic word, so that every pend, post, reset and
 *   try-pend is a single compare-and-swap; a waiter sleeps on a futex (the
 *   word's upper half) only when no unit is free. A post that finds a waiter
 *   hands its unit over in the same step and then wakes one waiter; no lock
 *   is held at any time, so a woken waiter never runs into a lock its poster
 *   still holds. A round trip between two threads thus costs what one on an
 *   unnamed POSIX semaphore costs. The record's mutex and condition stay
 *   unused (zero) for this kind, and its `count` field is not the count.
 * - Counter kind: a signal interrupting a pend does not end it; it waits on
 *   until the same deadline.
 * - Counter kind: a pend that ends without a unit (time-out or failed wait)
 *   gives its claim back, so a negative count is always exactly the number
 *   of threads waiting. A waiter returns only with a unit that a post or a
 *   reset handed to it (spurious wake-ups wait again until the same
 *   deadline); a unit handed over at the very moment of a time-out is taken
 *   rather than lost. A pend with timeout 0 never waits.
 * - `PTHR_SEM_TryPend` given a bad handle logs "Memory corruption" and
 *   returns KAVRO_E_FAIL.
 * - POSIX kind: TryPend takes a unit from the POSIX semaphore without
 *   waiting (KAVRO_E_AGAIN when none is free). Reset brings the POSIX
 *   semaphore's value to the new count (0 for a negative count); threads
 *   blocked in a pend are released only as far as the new value allows.
 * - System V kind: a pend interrupted by a signal pends again; a pend on a
 *   set that has been removed (or any other failure of the kernel wait)
 *   reports KAVRO_E_FAIL. A set that exists already is opened with its current
 *   value; the opener waits (up to 10 s, probing once a second) until some
 *   process has operated on the set, so that the creator has set its value.
 *   If the set vanishes while it is being opened, creation is attempted
 *   again (a few times) before KAVRO_E_FAIL is reported. A private set
 *   (`key` 0) that this call made is removed again when the record cannot
 *   be allocated, since no other process could ever reach it; a keyed set
 *   stays, as others may use it.
 */
#ifndef KAVRO_RT_SEM_H
#define KAVRO_RT_SEM_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** A semaphore handle: the address of the semaphore record. */
typedef void *SEM_HANDLE;

/** @name Diagnostic counters (only incremented, not locked) */
/**@{*/
/** Calls of `SEM_Create` and `SEM_Create_2`, failed ones included. */
KAVRO_API extern uint32_t sem_created;
/** Calls of `SEM_Delete` with a non-null handle. */
KAVRO_API extern uint32_t sem_freed;
/** Calls of `PTHR_SEM_Create` and `PTHR_SEM_Create_2`. */
KAVRO_API extern uint32_t pthr_sem_created;
/** Calls of `PTHR_SEM_Delete`, bad handles included. */
KAVRO_API extern uint32_t pthr_sem_freed;
/**@}*/

/** Part of the interface; no operation reads it (the kind is chosen per semaphore). */
KAVRO_API extern int32_t LIN_Sem_Type;

/* ---- the front ---------------------------------------------------------- */

/**
 * Bring the semaphore family (and the memory family) up; reference counted.
 * @retval 0 always (the memory family cannot fail to come up)
 */
KAVRO_API int32_t SEM_Init(void);

/**
 * Take the semaphore family down; at the last call the memory family too.
 * @retval 0 always
 */
KAVRO_API int32_t SEM_Exit(void);

/**
 * Create a counting semaphore. With @p key and @p systemWide both 0 it is a
 * process-local semaphore of the counter kind; otherwise a System V
 * semaphore under @p key (with @p key 0 a new private set every time).
 * Counted in `sem_created` whatever the result.
 *
 * @param handle       receives the handle
 * @param initialCount starting count (for an existing System V set: ignored)
 * @param key          System V key; non-zero selects System V
 * @param systemWide   non-zero selects System V even with @p key 0
 * @retval 0          created (or, for System V, opened)
 * @retval KAVRO_E_INVALIDARG @p handle is NULL
 * @retval KAVRO_E_FAIL the System V set could be neither created nor opened
 * @retval KAVRO_E_OUTOFMEMORY out of memory
 */
KAVRO_API KAVRO_STATUS SEM_Create(SEM_HANDLE *handle, int32_t initialCount, uint32_t key, uint32_t systemWide);

/**
 * Create a process-local semaphore of the POSIX kind (an unnamed POSIX
 * semaphore; its pends wait without limit). Counted in `sem_created`.
 *
 * @param handle       receives the handle
 * @param initialValue starting value
 * @retval 0          created
 * @retval KAVRO_E_INVALIDARG @p handle is NULL
 * @retval KAVRO_E_OUTOFMEMORY out of memory
 */
KAVRO_API KAVRO_STATUS SEM_Create_2(SEM_HANDLE *handle, uint32_t initialValue);

/**
 * Delete a semaphore. For System V this removes the set system-wide: other
 * processes' handles stop working and their blocked pends fail. No thread
 * may be waiting on a process-local semaphore being deleted.
 *
 * @param handle the semaphore; NULL does nothing and is not counted
 * @retval 0          deleted, or @p handle is NULL
 * @retval KAVRO_E_FAIL not a live semaphore
 */
KAVRO_API KAVRO_STATUS SEM_Delete(SEM_HANDLE handle);

/**
 * Take one unit, waiting while none is free. Only the counter kind honours
 * @p timeoutMs; the POSIX and System V kinds wait without limit.
 *
 * @param handle    the semaphore
 * @param timeoutMs longest wait; 0 does not wait; 0xFFFFFFFF no limit
 * @retval 0          a unit was taken
 * @retval KAVRO_E_TIMEOUT no unit came before the deadline
 * @retval KAVRO_E_FAIL null or bad handle, or the wait failed (System V: set removed)
 */
KAVRO_API KAVRO_STATUS SEM_Pend(SEM_HANDLE handle, uint32_t timeoutMs);

/**
 * Take one unit if one is free now.
 *
 * @param handle the semaphore
 * @retval 0          a unit was taken
 * @retval KAVRO_E_AGAIN no unit is free
 * @retval KAVRO_E_FAIL null or bad handle; System V (not supported, logged)
 */
KAVRO_API KAVRO_STATUS SEM_TryPend(SEM_HANDLE handle);

/**
 * Give one unit back, waking one waiter if any.
 *
 * @param handle the semaphore
 * @retval 0          posted
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS SEM_Post(SEM_HANDLE handle);

/**
 * Set the count. The counter kind first releases every waiting thread (each
 * pend returns 0) and then sets the count; System V sets the value and the
 * kernel lets waiters through as far as it allows.
 *
 * @param handle the semaphore
 * @param count  the new count
 * @retval 0          done
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS SEM_Reset(SEM_HANDLE handle, int32_t count);

/**
 * Read the count: for the counter kind negative while threads wait (minus
 * their number).
 *
 * @param handle the semaphore
 * @param count  receives the count
 * @retval 0          stored
 * @retval KAVRO_E_INVALIDARG @p count is NULL
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS SEM_GetCount(SEM_HANDLE handle, int32_t *count);

/**
 * Not supported by either implementation: logs the "not supported" line.
 * @param handle the semaphore
 * @retval KAVRO_E_FAIL always
 */
KAVRO_API KAVRO_STATUS SEM_GetSystemHandle(SEM_HANDLE handle);

/* ---- process-local semaphores ---------------------------------------------- */

/**
 * Create a process-local semaphore of the counter kind. Counted in
 * `pthr_sem_created`.
 * @param handle       receives the handle (untouched on failure)
 * @param initialCount starting count
 * @retval 0          created
 * @retval KAVRO_E_INVALIDARG @p handle is NULL
 * @retval KAVRO_E_OUTOFMEMORY out of memory
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_Create(SEM_HANDLE *handle, int32_t initialCount);

/**
 * Create a process-local semaphore of the POSIX kind. Counted in
 * `pthr_sem_created`.
 * @param handle       receives the handle (untouched on failure)
 * @param initialValue starting value
 * @retval 0          created
 * @retval KAVRO_E_INVALIDARG @p handle is NULL
 * @retval KAVRO_E_OUTOFMEMORY out of memory
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_Create_2(SEM_HANDLE *handle, uint32_t initialValue);

/**
 * Delete a process-local semaphore. Counted in `pthr_sem_freed` before the
 * handle is tested.
 * @param handle the semaphore
 * @retval 0          deleted
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_Delete(SEM_HANDLE handle);

/**
 * Take one unit. The counter kind waits up to @p timeoutMs; the POSIX kind
 * waits without limit (a wait interrupted by signals is resumed, up to 1000
 * times).
 * @param handle    the semaphore
 * @param timeoutMs longest wait (counter kind); 0 does not wait; 0xFFFFFFFF no limit
 * @retval 0          a unit was taken
 * @retval KAVRO_E_TIMEOUT counter kind: no unit came before the deadline
 * @retval KAVRO_E_FAIL null or bad handle, or a failed wait
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_Pend(SEM_HANDLE handle, uint32_t timeoutMs);

/**
 * Take one unit if one is free now.
 * @param handle the semaphore
 * @retval 0          a unit was taken
 * @retval KAVRO_E_AGAIN no unit is free
 * @retval KAVRO_E_FAIL null or bad handle (a "Memory corruption" line is logged)
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_TryPend(SEM_HANDLE handle);

/**
 * Give one unit back; wakes one waiter if any.
 * @param handle the semaphore
 * @retval 0          posted
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_Post(SEM_HANDLE handle);

/**
 * Counter kind: release every waiting thread (each pend returns 0), then
 * set the count. POSIX kind: bring the semaphore's value to @p count.
 * @param handle the semaphore
 * @param count  the new count
 * @retval 0          done
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_Reset(SEM_HANDLE handle, int32_t count);

/**
 * Read the count (counter kind: negative while threads wait) or the POSIX
 * semaphore's value.
 * @param handle the semaphore
 * @param count  receives the count
 * @retval 0          stored
 * @retval KAVRO_E_INVALIDARG @p count is NULL
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_GetCount(SEM_HANDLE handle, int32_t *count);

/**
 * Not supported: logs the "not supported" line.
 * @param handle ignored
 * @retval KAVRO_E_FAIL always
 */
KAVRO_API KAVRO_STATUS PTHR_SEM_GetSystemHandle(SEM_HANDLE handle);

/* ---- System V semaphores ---------------------------------------------------- */

/**
 * Create the one-member set under @p key (IPC_CREAT | IPC_EXCL, mode 0666)
 * and set its value to @p initialCount, or open the existing set with its
 * current value. An opener waits, up to 10 s, until some process has
 * operated on the set.
 * @param handle       receives the handle
 * @param initialCount value of a newly created set
 * @param key          System V key; 0 (IPC_PRIVATE) makes a new set every time
 * @retval 0          created or opened
 * @retval KAVRO_E_INVALIDARG @p handle is NULL (no set is created)
 * @retval KAVRO_E_FAIL the set could be neither created nor opened
 * @retval KAVRO_E_OUTOFMEMORY out of memory
 */
KAVRO_API KAVRO_STATUS IPC_SEM_Create(SEM_HANDLE *handle, int32_t initialCount, uint32_t key);

/**
 * Remove the set from the system and free the handle.
 * @param handle the semaphore
 * @retval 0          removed
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS IPC_SEM_Delete(SEM_HANDLE handle);

/**
 * Take one unit, waiting without limit (interrupted waits are resumed).
 * @param handle the semaphore
 * @retval 0          a unit was taken
 * @retval KAVRO_E_FAIL null or bad handle, or the set was removed
 */
KAVRO_API KAVRO_STATUS IPC_SEM_Pend(SEM_HANDLE handle);

/**
 * Give one unit back.
 * @param handle the semaphore
 * @retval 0          posted; also when the kernel refused the post (a removed
 *                    set, or beyond the undo bound): the unit is then lost,
 *                    silently
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS IPC_SEM_Post(SEM_HANDLE handle);

/**
 * Set the set's value; waiters do not get released first.
 * @param handle the semaphore
 * @param count  the new value
 * @retval 0          done (the kernel's answer is not examined)
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS IPC_SEM_Reset(SEM_HANDLE handle, int32_t count);

/**
 * Read the set's value (-1 when the kernel cannot read it).
 * @param handle the semaphore
 * @param count  receives the value
 * @retval 0          stored
 * @retval KAVRO_E_INVALIDARG @p count is NULL
 * @retval KAVRO_E_FAIL null or bad handle
 */
KAVRO_API KAVRO_STATUS IPC_SEM_GetCount(SEM_HANDLE handle, int32_t *count);

/**
 * Not supported: logs the "not supported" line.
 * @param handle ignored
 * @retval KAVRO_E_FAIL always
 */
KAVRO_API KAVRO_STATUS IPC_SEM_TryPend(SEM_HANDLE handle);

/**
 * Not supported: logs the "not supported" line.
 * @param handle ignored
 * @retval KAVRO_E_FAIL always
 */
KAVRO_API KAVRO_STATUS IPC_SEM_GetSystemHandle(SEM_HANDLE handle);

KAVRO_END_DECLS

#endif /* KAVRO_RT_SEM_H */
