/**
 * @file ipc.h
 * @brief `IPC_` keys, System V message queues (`IPC_MSGQ_`, `mesg_*`) and
 *        shared memory (`IPC_SHM_`).
 *
 * Keys. Processes that share System V objects agree on their keys through
 * `IPC_GetKey`, which derives a key (0..255) from a key file inside the IPC
 * directory named by `IPC_Init`, creating the file (mode 0777) when needed;
 * the key is the low byte of `ftok`'s result, so it stays the same as long
 * as the file is not deleted and re-created. `IPC_GetUniqueKey` hands out
 * small integers (1..4999) unique within the process.
 *
 * Message queues. A `MessageRecord` is a length word followed by a System V
 * message (type, then data); only the type and the data travel. The lower
 * layer (`mesg_send`, `mesg_recv` and their reporting/retrying twins) moves
 * one record to or from a queue identifier. The `IPC_MSGQ_` family wraps a
 * queue (permissions 0666) in a handle, copies caller data through a record
 * on the stack, is non-blocking unless the caller's flags say otherwise, and
 * retries a send into a full queue every 10 ms for about 50 seconds.
 *
 * Shared memory. `IPC_SHM_Create` creates a segment (permissions 0666) or
 * opens the existing one of the key. The creator clears the segment and
 * stamps its first 32-bit word with 0xBABEFACE; an opener attaches it
 * unchanged and does not wait for the stamp. Deleting detaches and removes
 * the segment system-wide; processes still attached keep their view.
 *
 * Handles are the addresses of the records below; System V objects and key
 * files outlive the process unless deleted.
 *
 * Decisions:
 * - The largest message carries `KAVRO_MSGQ_MAX_DATA` (2048) data bytes.
 *   `IPC_MSGQ_Send` refuses a longer length with KAVRO_E_INVALIDARG; `IPC_MSGQ_Rcv`
 *   receives at most that many bytes whatever the buffer size (a longer
 *   message put on the queue by someone else fails with KAVRO_E_FAIL and stays
 *   queued). `mesg_send` refuses a record whose `dataLength` is negative or
 *   above the maximum, and `mesg_recv` caps its capacity at the maximum, so
 *   that no record is ever read or written past its end.
 * - `IPC_MSGQ_Create` with a NULL out handle returns KAVRO_E_INVALIDARG and creates
 *   nothing (a queue made without a handle could never be deleted).
 * - The default queue, which a NULL handle stands for, has the identifier 0,
 *   meaning "no queue": `IPC_MSGQ_Delete(NULL)` refuses it. A handle from
 *   `IPC_MSGQ_Create` always holds a real queue, so its queue is removed even
 *   when the kernel gave it the identifier 0 (as it does for the first queue
 *   made on a system).
 * - `IPC_SHM_Create` with a NULL out handle returns KAVRO_E_INVALIDARG and creates
 *   nothing. Without an out address, when the segment exists already, the
 *   existing segment is opened (not attached), so that a later `IPC_SHM_Map`
 *   works.
 * - The name argument of `IPC_SHM_Create` is accepted and not used: the
 *   key alone names the segment (no further keys are derived from the name,
 *   since the error that would call for them is never reported here).
 * - Handles: a non-NULL handle whose first word is not the family tag (for
 *   example one already deleted) is refused with KAVRO_E_FAIL and nothing is
 *   done with it, as long as its memory is still readable. Semaphore handles
 *   carry the message-queue tag too: a queue's record has, after the two
 *   words below, a private kind word that no semaphore record has there,
 *   and a semaphore handle given to `IPC_MSGQ_` is refused the same way
 *   (as a queue handle is by the `SEM_` family).
 */
#ifndef KAVRO_RT_IPC_H
#define KAVRO_RT_IPC_H

#include "status.h"

KAVRO_BEGIN_DECLS

/* ---- keys --------------------------------------------------------------- */

/**
 * Name the IPC directory and free every unique key.
 *
 * Call once at process start, before any other operation of this group and
 * not concurrently with one. The prefix is used literally in front of every
 * key-file name (no "/" is added, so it normally ends with "/"); a longer
 * prefix than 1023 characters is cut. Without `IPC_Init`, names are taken
 * relative to the current directory.
 *
 * @param prefix directory prefix; NULL is taken as ""
 * @retval 0 always
 */
KAVRO_API KAVRO_STATUS IPC_Init(const char *prefix);

/**
 * Derive a System V key from a key file in the IPC directory.
 *
 * Creates the file "<prefix><name>" (mode 0777; the process's file-mode
 * creation mask is set to 0 and stays so) when missing and hands out the low
 * 8 bits of `ftok` of that path. Should those be 0, the file
 * "<prefix>ab<name>" is used instead, with @p projectId and then the ids
 * that follow it up to 8. Every process asking with the same name and id
 * gets the same key; two names whose key files' inode numbers share their
 * low byte get the same key too.
 *
 * @param name      key-file name
 * @param projectId project id given to `ftok` (its low 8 bits count)
 * @param outKey    receives the key (0..255; 0 only when every fallback
 *                  gave 0), or 0xFFFFFFFF when `ftok` failed
 * @retval 0          key stored; also when @p outKey is NULL (nothing done)
 * @retval KAVRO_E_FAIL `ftok` failed (typically the directory is missing or
 *                    not writable; a line is logged) or the path is longer
 *                    than 1023 characters
 * @retval KAVRO_E_INVALIDARG @p name is NULL
 */
KAVRO_API KAVRO_STATUS IPC_GetKey(const char *name, int32_t projectId, uint32_t *outKey);

/**
 * Hand out a key from 1 to 4999 not handed out yet in this process.
 *
 * The search starts at the key handed out last and goes upward, wrapping to
 * 1. Thread-safe.
 *
 * @param outKey receives the key, or 0 when none is free
 * @retval 0          key stored
 * @retval KAVRO_E_FAIL every key is handed out (0 stored)
 * @retval KAVRO_E_INVALIDARG @p outKey is NULL (nothing handed out)
 */
KAVRO_API KAVRO_STATUS IPC_GetUniqueKey(uint32_t *outKey);

/**
 * Give a unique key back. Returning a key that is not handed out is
 * accepted. Thread-safe.
 *
 * @param key the key
 * @retval 0          the key is free again
 * @retval KAVRO_E_FAIL @p key is outside 0..4999
 */
KAVRO_API KAVRO_STATUS IPC_ReturnUniqueKey(int32_t key);

/** Does nothing: key files and System V objects stay. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_Exit(void);
/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_Clean(void);

/* ---- message queues ----------------------------------------------------- */

/** The largest number of data bytes in one message. */
#define KAVRO_MSGQ_MAX_DATA 2048

/**
 * One message as handed to the lower layer. `msgType` and `data` together
 * are the System V message buffer; `dataLength` stays in the process.
 */
typedef struct MessageRecord {
    int32_t dataLength;             /**< data bytes to send; after a receive, its result */
    long msgType;                   /**< System V message type, greater than 0 */
    char data[KAVRO_MSGQ_MAX_DATA]; /**< the message text */
} MessageRecord;

/** A message-queue handle points at this record (tag 0x5F4D4553). */
typedef struct MessageQueueRecord {
    uint32_t tag;    /**< 0x5F4D4553; 0xDEADBEEF after deletion */
    int32_t queueId; /**< System V queue identifier */
} MessageQueueRecord;

/**
 * Send one record: `msgsnd` of its type and `dataLength` data bytes.
 *
 * @param queueId System V queue identifier
 * @param msg     the record
 * @param flags   as for `msgsnd` (IPC_NOWAIT = 0x800)
 * @return 0, or -1 with `errno` set (EINVAL for a NULL record or a
 *         `dataLength` outside 0..KAVRO_MSGQ_MAX_DATA)
 */
KAVRO_API int32_t mesg_send(int32_t queueId, MessageRecord *msg, int32_t flags);

/**
 * As `mesg_send`; a failure is also reported through `err_ret` with the
 * line "mesg_send error <errno in hex>".
 *
 * @param queueId System V queue identifier
 * @param msg     the record
 * @param flags   as for `msgsnd`
 * @return 0, or -1 with `errno` set
 */
KAVRO_API int32_t Mesg_send(int32_t queueId, MessageRecord *msg, int32_t flags);

/**
 * Receive one message of type `msg->msgType` into the record (`msgrcv`).
 * The kernel overwrites `msgType` with the received message's type.
 *
 * @param queueId  System V queue identifier
 * @param msg      the record; its `msgType` selects the messages wanted
 * @param capacity data bytes the record may take; capped at
 *                 KAVRO_MSGQ_MAX_DATA
 * @param flags    as for `msgrcv`
 * @return bytes received, or -1 with `errno` set (also stored in
 *         `dataLength`; EINVAL for a NULL record or a negative capacity)
 */
KAVRO_API int32_t mesg_recv(int32_t queueId, MessageRecord *msg, int32_t capacity, int32_t flags);

/**
 * As `mesg_recv`, restarted for as long as it is interrupted (EINTR).
 *
 * @param queueId  System V queue identifier
 * @param msg      the record; its `msgType` selects the messages wanted
 * @param capacity data bytes the record may take; capped at
 *                 KAVRO_MSGQ_MAX_DATA
 * @param flags    as for `msgrcv`
 * @return bytes received, or -1 with `errno` set
 */
KAVRO_API int32_t Mesg_recv(int32_t queueId, MessageRecord *msg, int32_t capacity, int32_t flags);

/**
 * Create, or open, a message queue (permissions 0666) and wrap it in a
 * handle.
 *
 * @param outHandle receives the handle (NULL on failure)
 * @param key       System V key; 0 makes a new private queue on every call
 * @param name      may be NULL; with key 0 a non-NULL name asks for a private
 *                  queue (the name itself is not used)
 * @retval 0          handle stored
 * @retval KAVRO_E_INVALIDARG @p outHandle is NULL, or key 0 with a NULL name
 * @retval KAVRO_E_FAIL `msgget` failed
 * @retval KAVRO_E_OUTOFMEMORY the record could not be allocated (the queue stays)
 */
KAVRO_API KAVRO_STATUS IPC_MSGQ_Create(void **outHandle, uint32_t key, const char *name);

/**
 * Send a message.
 *
 * A full queue with IPC_NOWAIT is retried every 10 ms, 5000 times.
 *
 * @param handle  the queue; NULL selects the default queue (identifier 0)
 * @param data    message data
 * @param length  data bytes, 1..KAVRO_MSGQ_MAX_DATA
 * @param msgType message type; 0 or less sends type 1
 * @param flags   as for `msgsnd`; 0 means IPC_NOWAIT. Non-zero flags
 *                without IPC_NOWAIT wait in the kernel for room.
 * @retval 0          sent
 * @retval KAVRO_E_INVALIDARG @p data is NULL or @p length outside 1..KAVRO_MSGQ_MAX_DATA
 * @retval KAVRO_E_FAIL the send failed, or @p handle is not a queue handle
 * @retval KAVRO_E_AGAIN the queue stayed full (about 50 seconds)
 */
KAVRO_API KAVRO_STATUS IPC_MSGQ_Send(void *handle, const void *data, int32_t length, int32_t msgType, uint32_t flags);

/**
 * Receive the oldest message of one type.
 *
 * A message longer than the buffer (or than KAVRO_MSGQ_MAX_DATA) is not
 * received and stays queued.
 *
 * @param handle    the queue; NULL selects the default queue (identifier 0)
 * @param buffer    receives the data
 * @param size      buffer size in bytes, greater than 0
 * @param outLength receives the number of data bytes
 * @param msgType   the type wanted; 0 or less asks for type 1
 * @param flags     as for `msgrcv`; 0 means IPC_NOWAIT. Non-zero flags
 *                  without IPC_NOWAIT wait in the kernel (interrupted waits
 *                  are restarted).
 * @retval 0          message copied and its length stored
 * @retval KAVRO_E_INVALIDARG @p buffer or @p outLength is NULL, or @p size is 0 or less
 * @retval KAVRO_E_AGAIN no message of that type (IPC_NOWAIT)
 * @retval KAVRO_E_FAIL any other failure: the message is longer than the
 *                    buffer, a message without data, a removed queue, or
 *                    @p handle is not a queue handle
 */
KAVRO_API KAVRO_STATUS IPC_MSGQ_Rcv(void *handle, void *buffer, int32_t size, uint32_t *outLength, int32_t msgType,
                                    uint32_t flags);

/**
 * Remove the queue system-wide and free the handle.
 *
 * @param handle the queue; NULL selects the default queue (identifier 0)
 * @retval 0          removed (the result of the removal is not examined)
 * @retval KAVRO_E_INVALIDARG @p handle is NULL (the default queue, identifier 0)
 * @retval KAVRO_E_FAIL @p handle is not a queue handle
 */
KAVRO_API KAVRO_STATUS IPC_MSGQ_Delete(void *handle);

/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_MSGQ_Init(void);
/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_MSGQ_Exit(void);
/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_MSGQ_GetCount(void);
/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_MSGQ_SetAttr(void);
/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_MSGQ_GetAttr(void);

/* ---- shared memory ------------------------------------------------------ */

/** The marker the creator writes into a segment's first word. */
#define KAVRO_SHM_MARKER 0xBABEFACEu

/** A shared-memory handle points at this record (tag 0xBABEFACE). */
typedef struct SharedMemoryRecord {
    uint32_t tag;  /**< 0xBABEFACE; 0xDEADBEEF after deletion */
    int32_t shmId; /**< System V shared-memory identifier */
    uint32_t size; /**< size asked for at creation */
    void *address; /**< where this process attached the segment, or NULL */
} SharedMemoryRecord;

/**
 * Create a segment, or open the existing one of the key, and wrap it in a
 * handle.
 *
 * When this call creates the segment and @p outAddress is given, the segment
 * is attached, cleared and stamped with 0xBABEFACE. An existing segment is
 * opened, and attached unchanged when @p outAddress is given. Failures to
 * open or attach an existing segment are reported through `err_ret`.
 *
 * @param outHandle  receives the handle
 * @param key        System V key (for example from `IPC_GetKey`)
 * @param size       segment size in bytes
 * @param outAddress receives the attached address; NULL attaches nothing
 *                   (use `IPC_SHM_Map` later)
 * @param name       accepted and not used; may be NULL
 * @retval 0          handle stored
 * @retval KAVRO_E_INVALIDARG @p outHandle is NULL
 * @retval KAVRO_E_FAIL the segment can be neither created nor opened and
 *                    attached (for example an existing segment smaller than
 *                    @p size, or a size the system refuses)
 * @retval KAVRO_E_OUTOFMEMORY the record could not be allocated (the segment stays)
 */
KAVRO_API KAVRO_STATUS IPC_SHM_Create(void **outHandle, uint32_t key, uint32_t size, void **outAddress,
                                      const char *name);

/**
 * Attach a handle's segment that is not attached yet; the address is then
 * in the record's `address`.
 *
 * @param handle  the segment
 * @param address where to attach; NULL lets the system choose
 * @retval 0          attached
 * @retval KAVRO_E_FAIL NULL or foreign handle, already attached, or the attach
 *                    failed (reported through `err_ret`)
 */
KAVRO_API KAVRO_STATUS IPC_SHM_Map(void *handle, void *address);

/**
 * Detach the segment, remove it system-wide and free the handle. Processes
 * still attached keep their view until they detach; the key then names a
 * fresh segment at the next creation.
 *
 * @param handle the segment
 * @retval 0          done, or @p handle is NULL
 * @retval KAVRO_E_FAIL @p handle is not a shared-memory handle (nothing done)
 */
KAVRO_API KAVRO_STATUS IPC_SHM_Delete(void *handle);

/**
 * The size asked for at creation.
 *
 * @param handle  the segment
 * @param outSize receives the size
 * @retval 0          size stored
 * @retval KAVRO_E_FAIL NULL or foreign handle
 * @retval KAVRO_E_INVALIDARG @p outSize is NULL
 */
KAVRO_API KAVRO_STATUS IPC_SHM_GetCount(void *handle, uint32_t *outSize);

/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_SHM_Init(void);
/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS IPC_SHM_Exit(void);

/**
 * Detach @p address (`shmdt`), then mark segment @p shmId for removal
 * (`shmctl` IPC_RMID); both are tried.
 *
 * @param shmId   System V shared-memory identifier
 * @param address attached address (NULL: only the removal can succeed)
 * @return 0, or -1 with `errno` of the first failure
 */
KAVRO_API int32_t detachandremove(int32_t shmId, void *address);

KAVRO_END_DECLS

#endif /* KAVRO_RT_IPC_H */
