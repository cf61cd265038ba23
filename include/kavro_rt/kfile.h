/**
 * @file kfile.h
 * @brief `KFILE_`: a buffered file stream behind a handle with a validity mark.
 *
 * A handle carries the mark 0xABEEFACE while it is open; `KFILE_Close`
 * clears it before freeing the handle. Every operation refuses a NULL
 * handle or one whose mark is wrong with -1, without touching any stream,
 * so a closed or foreign handle cannot reach the C library's stream
 * functions (as long as the heap has not reused a closed handle's block).
 * Read and write take their arguments in the order of `fread`/`fwrite`.
 *
 * Decisions of this implementation:
 * - `KFILE_Open` with a NULL mode returns NULL, like a NULL path.
 * - `KFILE_Close` returns -1 also when the stream's last flush fails
 *   (data lost, e.g. a full disk); the handle is freed in either case.
 * - Item counts above 0x7FFFFFFF cannot be reported in the 32-bit result
 *   and are refused with -22 (minus EINVAL).
 * - `KFILE_Tell` reports -1 (errno EOVERFLOW) for a position beyond
 *   0x7FFFFFFF, as on the 32-bit target.
 * - The handle is not locked: one handle is used by one thread at a time.
 */
#ifndef KAVRO_RT_KFILE_H
#define KAVRO_RT_KFILE_H

#include <stdio.h>

#include "status.h"

KAVRO_BEGIN_DECLS

/** The mark of an open handle. */
#define KFILE_MARK 0xABEEFACEu

/** A file handle. Fields in this order. */
typedef struct KFILE {
    FILE *stream;  /**< the open stream */
    uint32_t mark; /**< KFILE_MARK while open, 0 once closed */
} KFILE;

/** Bring the family up (nothing to do). @retval 1 always */
KAVRO_API int32_t KFILE_Init(void);
/** Take the family down (nothing to do). */
KAVRO_API void KFILE_Exit(void);

/**
 * Open a file.
 * @param path the file
 * @param mode as for `fopen` ("r", "w+", ...)
 * @return a new handle; NULL when @p path or @p mode is NULL, memory is
 *         short, or `fopen` fails (errno tells why; nothing is kept)
 */
KAVRO_API KFILE *KFILE_Open(const char *path, const char *mode);

/**
 * Close the stream, clear the mark and free the handle.
 * @param f the handle
 * @retval 0  closed
 * @retval -1 @p f is invalid (nothing done), or the final flush failed
 *            (the handle is freed all the same)
 */
KAVRO_API int32_t KFILE_Close(KFILE *f);

/**
 * Read up to @p count items of @p size bytes.
 * @param buf   where the items go
 * @param size  bytes per item
 * @param count items wanted
 * @param f     the handle
 * @return the number of whole items read (as `fread`); -1 for an invalid
 *         handle; -5 for a NULL @p buf; -22 for @p count above 0x7FFFFFFF
 */
KAVRO_API int32_t KFILE_Read(void *buf, uint32_t size, uint32_t count, KFILE *f);

/**
 * Write @p count items of @p size bytes.
 * @param buf   the items
 * @param size  bytes per item
 * @param count items to write
 * @param f     the handle
 * @return the number of whole items written (as `fwrite`); -1 for an
 *         invalid handle; -5 for a NULL @p buf; -22 for @p count above
 *         0x7FFFFFFF
 */
KAVRO_API int32_t KFILE_Write(const void *buf, uint32_t size, uint32_t count, KFILE *f);

/**
 * Move the stream's position.
 * @param f      the handle
 * @param offset bytes from @p origin
 * @param origin SEEK_SET, SEEK_CUR or SEEK_END
 * @retval 0  moved
 * @retval -1 @p f is invalid, or `fseek` failed (errno tells why)
 */
KAVRO_API int32_t KFILE_Seek(KFILE *f, int32_t offset, int32_t origin);

/**
 * The stream's position.
 * @param f the handle
 * @return the position in bytes; -1 when @p f is invalid or `ftell` fails
 */
KAVRO_API int32_t KFILE_Tell(KFILE *f);

KAVRO_END_DECLS

#endif /* KAVRO_RT_KFILE_H */
