/**
 * @file mbx.h
 * @brief `MBX_`: bounded first-in, first-out mailboxes of fixed-size messages.
 *
 * A mailbox carries messages of one fixed size between the threads of one
 * process. A post copies a message in and waits, up to its timeout, while
 * the mailbox is full; a pend copies the oldest message out and waits, up to
 * its timeout, while the mailbox is empty. All memory is taken at creation
 * (the record, one slot array, one contiguous data block); posting and
 * pending allocate nothing and copy each message once, under the mailbox's
 * mutex. Any number of threads may post and pend at once. The handle's tag
 * is not tested: a handle must come from `MBX_Create` and must not be used
 * after `MBX_Delete`, and a mailbox must not be deleted while threads use it.
 *
 * Timeouts are milliseconds; 0 does not wait; 0xFFFFFFFF
 * (`KAVRO_WAIT_FOREVER`) waits without limit. Timed waits use absolute
 * wall-clock deadlines.
 *
 * Decisions:
 * - A waiter that wakes to a mailbox that is still full (post) or still
 *   empty (pend), because another thread came first, waits again until its
 *   original deadline; the count never leaves 0..capacity and no message is
 *   lost, duplicated or reordered. A message or slot that turns up at the
 *   very moment of a time-out is taken. Waits without limit re-arm every
 *   9,999,999 ms. A condition wait that fails other than by timing out is
 *   repeated, with a fresh deadline, at most 32 times in all.
 * - A post signals a pending thread, and a pend a posting thread, only when
 *   one is waiting (one thread woken per message moved).
 * - A null message or buffer pointer (with a non-zero message size) and a
 *   null out-pointer are answered with KAVRO_E_INVALIDARG; a null out handle of
 *   `MBX_Create` likewise (counted, nothing allocated).
 * - Sizes whose product does not fit 32 bits are refused as an allocation
 *   failure; so is a message size of 0 with a non-zero slot count (the
 *   data block would be empty).
 */
#ifndef KAVRO_RT_MBX_H
#define KAVRO_RT_MBX_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** A mailbox handle: the address of the mailbox record. */
typedef void *MBX_HANDLE;

/** Calls of `MBX_Create` (only incremented, not locked). */
KAVRO_API extern uint32_t mbxcreate_call;
/** Calls of `MBX_Delete`, null handles and failed creations included. */
KAVRO_API extern uint32_t mbxdelete_call;

/**
 * Bring the mailbox family (and the memory family) up; reference counted.
 * @retval 0 the family came up with this call
 * @retval 1 it was up already
 */
KAVRO_API int32_t MBX_Init(void);

/** Take the mailbox family down; at the last call the memory family too. */
KAVRO_API void MBX_Exit(void);

/**
 * Create a mailbox of @p slots messages of @p msgSize bytes each. A mailbox
 * of 0 slots is created but refuses every post and pend.
 *
 * @param handle  receives the handle; NULL when memory ran out
 * @param msgSize size of every message in bytes
 * @param slots   capacity in messages
 * @retval 0          created
 * @retval KAVRO_E_INVALIDARG @p handle is NULL
 * @retval KAVRO_E_OUTOFMEMORY out of memory (the reasons are logged)
 */
KAVRO_API KAVRO_STATUS MBX_Create(MBX_HANDLE *handle, uint32_t msgSize, uint32_t slots);

/**
 * Delete a mailbox and release its memory. No thread may use it any more.
 * @param handle the mailbox; NULL is logged
 * @retval 0 always
 */
KAVRO_API KAVRO_STATUS MBX_Delete(MBX_HANDLE handle);

/**
 * Copy one message (message-size bytes) into the mailbox, waiting while it
 * is full; wakes one pending thread.
 *
 * @param handle    the mailbox
 * @param message   the message
 * @param timeoutMs longest wait for a free slot; 0 does not wait; 0xFFFFFFFF no limit
 * @retval 0          posted
 * @retval KAVRO_E_INVALIDARG @p handle is NULL, or @p message is NULL
 * @retval KAVRO_E_FAIL the mailbox has no slots (logged), or the wait failed
 * @retval KAVRO_E_TIMEOUT still full at the deadline; nothing was stored
 */
KAVRO_API KAVRO_STATUS MBX_Post(MBX_HANDLE handle, const void *message, uint32_t timeoutMs);

/**
 * Copy the oldest message (message-size bytes) out of the mailbox, waiting
 * while it is empty; wakes one posting thread.
 *
 * @param handle    the mailbox
 * @param buffer    receives the message
 * @param timeoutMs longest wait for a message; 0 does not wait; 0xFFFFFFFF no limit
 * @retval 0          a message was received
 * @retval KAVRO_E_INVALIDARG @p handle is NULL (logged), or @p buffer is NULL
 * @retval KAVRO_E_FAIL the mailbox has no slots (logged)
 * @retval KAVRO_E_TIMEOUT no message came before the deadline, or the wait failed
 */
KAVRO_API KAVRO_STATUS MBX_Pend(MBX_HANDLE handle, void *buffer, uint32_t timeoutMs);

/**
 * Number of messages held now (a snapshot, read without the lock).
 * @param handle the mailbox
 * @param count  receives the number
 * @retval 0          stored
 * @retval KAVRO_E_INVALIDARG @p handle or @p count is NULL
 */
KAVRO_API KAVRO_STATUS MBX_GetCount(MBX_HANDLE handle, int32_t *count);

/**
 * The high-water mark: the most messages held at once since creation (not
 * the capacity).
 * @param handle   the mailbox
 * @param maxCount receives the mark
 * @retval 0          stored
 * @retval KAVRO_E_INVALIDARG @p handle or @p maxCount is NULL
 */
KAVRO_API KAVRO_STATUS MBX_GetMaxCount(MBX_HANDLE handle, int32_t *maxCount);

KAVRO_END_DECLS

#endif /* KAVRO_RT_MBX_H */
