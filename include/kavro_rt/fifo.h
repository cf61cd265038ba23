/**
 * @file fifo.h
 * @brief `IPC_FIFO_`: one-way named-pipe channels from many writers to one reader.
 *
 * A channel is named by a non-zero 32-bit key and made of four FIFOs in the
 * IPC directory `$TRVXROOT/kmxipc`: the index pipe ".pipe.<key>" (the key
 * in signed decimal, so 0x80000000 reads ".pipe.-2147483648") and the rank
 * pipes 0, 1 and 2, named like the index pipe followed by one, two and
 * three underscores. Streams channels use ".strpipe" in place of ".pipe"
 * and have tables of their own; otherwise both kinds behave the same.
 *
 * Protocol. A writer puts each message into one rank pipe with one `write`
 * (a process hands out ranks round-robin per channel: 2 for the first
 * message, then 0, 1, 2, 0, ...) and then one byte holding the rank value
 * (0, 1 or 2, not a digit) into the index pipe. The reader takes a rank
 * byte with `IPC_FIFO_Read` and then the message from the rank pipe it
 * names. Messages of one process never interleave; messages of different
 * writer processes may land between another writer's message and its rank
 * byte, so only messages that travel through the same rank pipe keep the
 * order in which one writer sent them. Messages up to PIPE_BUF (4096)
 * bytes reach the pipe whole.
 *
 * Writer cycle. The first `IPC_FIFO_Write` to a key opens the four FIFOs
 * (non-blocking) and enters them in the process's channel table; later
 * writes reuse them. When the reader goes, writes to its key return
 * KAVRO_E_BROKENPIPE until the channel is removed: call `IPC_FIFO_KeyStatus` from
 * time to time and pass its result to `IPC_FIFO_RemoveKeys`; the next write
 * opens the channel afresh. Each table holds 1024 channels.
 *
 * Signals. Every write blocks SIGPIPE in the calling thread before it
 * writes, so that a vanished reader gives KAVRO_E_BROKENPIPE rather than
 * the end of the process, even when the thread unblocked SIGPIPE or
 * restored its default action since its last write. The thread's mask is
 * not put back: SIGPIPE stays blocked in it after the call.
 *
 * Tracing. When `DRV_DBG` is set (to anything) at a process's first write,
 * every successful message write also sends a System V message of type 1
 * (pipe channel) with the first 24 bytes of the message, or of type 2
 * (streams channel) with the first 16 bytes, without waiting, to the queue
 * whose key is the low byte of `ftok("/usr/torvanex/kmxipc/.DRVTRC", 0)`.
 *
 * Decisions:
 * - `TRVXROOT` unset: no path is built from it. `IPC_FIFO_Init` makes no
 *   directory (it says so in one line) but brings the family up, since
 *   readers name their FIFOs themselves; `IPC_FIFO_Write` refuses with
 *   KAVRO_E_FAIL and the line "TRVXROOT is not set";
 *   `IPC_FIFO_CheckKey_2` answers KAVRO_E_FAIL (no such FIFO). Set but
 *   empty, it is an install root like any other: the paths are
 *   "/kmxipc/.pipe.<key>" and so on.
 * - Paths are limited to 255 characters. An install root too long for the
 *   longest name of a channel is refused, never cut: the write returns
 *   KAVRO_E_FAIL with the line "TRVXROOT too long ...", the presence test
 *   returns KAVRO_E_FAIL, `IPC_FIFO_Init` makes no directory.
 * - When one of the four opens of a write fails, the descriptors it has
 *   already opened are closed again; nothing is entered in the table.
 * - A write that would open a 1025th channel of its kind refuses with
 *   KAVRO_E_OUTOFMEMORY (no room in the table) and one line, closing the four
 *   descriptors; free entries with `IPC_FIFO_RemoveKeys`.
 * - `IPC_FIFO_KeyStatus` and `IPC_FIFO_RemoveKeys` take the family lock,
 *   so they never see or change an entry while a write uses it.
 * - The trace record always carries 24 (or 16) data bytes; a shorter
 *   message is followed by zero bytes, and nothing beyond the caller's
 *   buffer is read.
 * - An index pipe that opens as descriptor 0 (standard input closed) is
 *   moved to another number, since descriptor 0 marks a free table entry.
 * - A failing memory start or table allocation in `IPC_FIFO_Init` leaves
 *   the family down (nothing allocated, count unchanged); a failed
 *   allocation returns KAVRO_E_OUTOFMEMORY.
 * - Writes and table operations before `IPC_FIFO_Init` (or after the last
 *   `IPC_FIFO_Exit`) find no table: writes return KAVRO_E_FAIL with a line,
 *   `IPC_FIFO_KeyStatus` reports nothing.
 * - A null out pointer returns KAVRO_E_INVALIDARG (`IPC_FIFO_Create`,
 *   `IPC_FIFO_Read`, `IPC_FIFO_KeyStatus`), as does a null path.
 */
#ifndef KAVRO_RT_FIFO_H
#define KAVRO_RT_FIFO_H

#include "status.h"

KAVRO_BEGIN_DECLS

/**
 * A channel reported by `IPC_FIFO_KeyStatus` or to be removed by
 * `IPC_FIFO_RemoveKeys`. Arrays of it end with a record whose key is 0.
 */
typedef struct FifoKeyStatus {
    uint32_t key;   /**< the channel key */
    int32_t minTag; /**< smallest message tag written on the channel */
    int32_t maxTag; /**< largest message tag written on the channel */
} FifoKeyStatus;

/** Entries of each channel table: the most channels of one kind a process writes to. */
#define IPC_FIFO_TABLE_SIZE 1024

/**
 * Bring the family up (reference counted). The first call makes the IPC
 * directory `$TRVXROOT/kmxipc` (mode 03567 less the umask; an existing
 * directory is fine) and allocates the two channel tables.
 * @retval 0          the family is up
 * @retval KAVRO_E_OUTOFMEMORY the tables could not be allocated (the family stays down)
 * @retval other      the memory family's failing start status (the family stays down)
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_Init(void);

/**
 * Take the family down (reference counted). The last call frees the
 * channel tables; descriptors still entered in them stay open. A call
 * without a matching `IPC_FIFO_Init` does nothing.
 * @retval 0 always
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_Exit(void);

/**
 * Reader side: make a FIFO unless it exists, and open it for reading,
 * non-blocking (this succeeds at once without a writer). Its mode is the
 * permission bits of the directory named by `ZELTA_TORVANEX_DIR` (default
 * "/usr/torvanex") masked with 0666, or 0666 when that directory cannot be
 * examined. A reader calls this for the index pipe and the three rank pipes.
 * @param reserved ignored
 * @param fd       receives the descriptor, -1 when the open failed; left
 *                 unchanged when the FIFO cannot be made ("can't create
 *                 <path>" is reported)
 * @param reserved2 ignored
 * @param path     path of the FIFO
 * @retval 0          done (check @p fd)
 * @retval KAVRO_E_INVALIDARG @p fd or @p path is null
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_Create(uintptr_t reserved, int32_t *fd, uintptr_t reserved2, const char *path);

/**
 * Reader side: one `read` of up to @p length bytes.
 * @param fd     descriptor from `IPC_FIFO_Create`
 * @param buffer where the bytes go
 * @param count  receives the result of the read (bytes read, 0 at end of
 *               file, -1 on failure)
 * @param length room in @p buffer
 * @retval 0          read done, or failed with an error not listed here
 *                    (then @p count is -1)
 * @retval KAVRO_E_FAIL @p buffer is null, @p length is 0, or the read was
 *                    interrupted twice
 * @retval KAVRO_E_INVALIDARG @p count is null
 * @retval KAVRO_E_AGAIN nothing to read now
 * @retval KAVRO_E_BROKENPIPE broken pipe
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_Read(int32_t fd, void *buffer, int32_t *count, uint32_t length);

/**
 * Writer side: deliver one message to the reader of channel @p key. Runs
 * under the family lock; never waits for the reader.
 * @param reserved  ignored
 * @param key       channel key, not 0
 * @param msgTag    the caller's tag, kept as the channel's smallest and
 *                  largest tag for `IPC_FIFO_KeyStatus`
 * @param buffer    the message
 * @param written   receives the result of the message's `write` (-1 on failure)
 * @param length    bytes in the message, not 0
 * @param isStreams 0 for a pipe channel, non-zero for a streams channel
 * @retval 0          the message and its rank byte are written (a short
 *                    message write counts as done; see @p written)
 * @retval KAVRO_E_INVALIDARG null @p buffer or @p written, zero @p length or key 0
 * @retval KAVRO_E_NOREADER the channel's FIFOs exist but no reader has them open
 * @retval KAVRO_E_AGAIN the chosen rank pipe is full (nothing written; the
 *                    next write tries the next rank pipe)
 * @retval KAVRO_E_BROKENPIPE the reader is gone; the channel is marked removed
 * @retval KAVRO_E_OUTOFMEMORY the channel table of this kind is full
 * @retval KAVRO_E_FAIL an open failed otherwise (missing FIFO...), TRVXROOT
 *                    is unset or too long, the family is not up, a write
 *                    failed otherwise, or the index pipe is full (the
 *                    message then stands without its rank byte)
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_Write(uintptr_t reserved, uint32_t key, int32_t msgTag, const void *buffer,
                                      int32_t *written, uint32_t length, int32_t isStreams);

/**
 * Is a reader present on channel @p key of one kind? Opens the index pipe
 * for writing, non-blocking, and closes it again.
 * @param key       channel key
 * @param isStreams 0 for a pipe channel, non-zero for a streams channel
 * @retval 0          a reader has the channel open
 * @retval KAVRO_E_FAIL no such FIFO, or no reader (or TRVXROOT unset or too long)
 * @retval KAVRO_E_INVALIDARG the FIFO exists but cannot be opened for another reason
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_CheckKey_2(uint32_t key, int32_t isStreams);

/**
 * Is a reader present on channel @p key of either kind?
 * @param key channel key
 * @retval 0     a reader has the pipe or the streams channel open
 * @retval other the streams channel's answer from `IPC_FIFO_CheckKey_2`
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_CheckKey(uint32_t key);

/**
 * List the channels of one kind whose reader is gone: those already marked
 * removed and those whose index pipe shows an error condition now (which
 * are then marked). Each report carries the key and the channel's tags.
 * @param status    receives the reports followed by a record with key 0;
 *                  must hold IPC_FIFO_TABLE_SIZE + 1 records to be safe
 * @param count     receives the number of reports
 * @param isStreams 0 for pipe channels, non-zero for streams channels
 * @retval 0          done (0 reports when the family is not up)
 * @retval KAVRO_E_INVALIDARG @p status or @p count is null
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_KeyStatus(FifoKeyStatus *status, int32_t *count, int32_t isStreams);

/**
 * Close and forget channels of one kind: every table entry of each listed
 * key. Stops after @p count records or at the first record with key 0.
 * The output of `IPC_FIFO_KeyStatus` can be passed unchanged.
 * @param status    the keys to remove
 * @param count     number of records to take at most
 * @param isStreams 0 for pipe channels, non-zero for streams channels
 * @retval 0          done
 * @retval KAVRO_E_FAIL @p status is null
 */
KAVRO_API KAVRO_STATUS IPC_FIFO_RemoveKeys(const FifoKeyStatus *status, int32_t count, int32_t isStreams);

/** Does nothing; accepts any arguments. @param reserved ignored @retval 0 always */
KAVRO_API KAVRO_STATUS IPC_FIFO_Delete(uintptr_t reserved, ...);
/** Does nothing; accepts any arguments. @param reserved ignored @retval 0 always */
KAVRO_API KAVRO_STATUS IPC_FIFO_Detach(uintptr_t reserved, ...);

/**
 * Add O_NONBLOCK to a descriptor's status flags.
 * @param fd the descriptor
 * @retval 0  done
 * @retval -1 reading or setting the flags failed
 */
KAVRO_API int32_t set_nonblock(int32_t fd);

KAVRO_END_DECLS

#endif /* KAVRO_RT_FIFO_H */
