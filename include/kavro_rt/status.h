/**
 * @file status.h
 * @brief Status values, wait constants, family tags and the object allocator.
 *
 * Every operation of the library reports a 32-bit status word: 0 is success,
 * failures have the top bit set. Family objects are single zeroed heap
 * blocks whose first word carries the family tag; handles are the blocks'
 * addresses. A released object's tag reads 0xDEADBEEF until the heap reuses
 * the block, which lets the families that check tags refuse stale handles.
 */
#ifndef KAVRO_RT_STATUS_H
#define KAVRO_RT_STATUS_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define KAVRO_API          __attribute__((visibility("default")))
#define KAVRO_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define KAVRO_API
#define KAVRO_PRINTF(f, a)
#endif

#ifdef __cplusplus
#define KAVRO_BEGIN_DECLS extern "C" {
#define KAVRO_END_DECLS   }
#else
#define KAVRO_BEGIN_DECLS
#define KAVRO_END_DECLS
#endif

KAVRO_BEGIN_DECLS

/** A status word. */
typedef uint32_t KAVRO_STATUS;

/** @name Status values */
/**@{*/
#define KAVRO_OK            0x00000000u /**< success */
#define KAVRO_E_FAIL        0x80004005u /**< bad or foreign handle, failed system call, unsupported */
#define KAVRO_E_INVALIDARG  0x80070057u /**< invalid argument */
#define KAVRO_E_POINTER     0x80004003u /**< null pointer (thread creation) */
#define KAVRO_E_OUTOFMEMORY 0x8007000Eu /**< out of memory */
#define KAVRO_E_NOTIMPL     0x80004001u /**< not implemented */
#define KAVRO_E_TIMEOUT     0x80040201u /**< a wait timed out */
#define KAVRO_E_AGAIN       0x80070007u /**< nothing available now (would block, queue full, no message) */
#define KAVRO_E_BROKENPIPE  0x80070008u /**< the peer is gone */
#define KAVRO_E_NOTMRINIT   0x80070009u /**< the timer engine is not initialised */
#define KAVRO_E_NOREADER    0x8007000Au /**< no reader has the named pipe open */
#define KAVRO_E_LOADFAILED  0x80040301u /**< a module could not be loaded */
/**@}*/

/**
 * The text of a status value: what it means, for messages to people.
 *
 * Decisions of this library: the text is the meaning given beside the
 * status's name in this header ("a wait timed out" for KAVRO_E_TIMEOUT,
 * "success" for KAVRO_OK); a value this library does not define gives
 * "unknown status". The text is static, never NULL, and safe to use from
 * any thread.
 *
 * @param status a status word
 * @return the text, without a final newline
 */
KAVRO_API const char *KAVRO_StatusText(KAVRO_STATUS status);

/** True when a status word reports a failure. */
#define KAVRO_FAILED(s) (((KAVRO_STATUS)(s)&0x80000000u) != 0)

/** @name Timeouts (milliseconds) */
/**@{*/
#define KAVRO_WAIT_FOREVER 0xFFFFFFFFu /**< wait without limit */
#define KAVRO_NO_WAIT      0u          /**< do not wait */
/**@}*/

/** @name Family tags (first word of every family object) */
/**@{*/
#define KAVRO_TAG_THREAD   0x44524854u /**< "THRD" */
#define KAVRO_TAG_LCK      0x4C434B5Fu /**< "_KCL" */
#define KAVRO_TAG_SEM      0x5F4D4553u /**< "SEM_"; shared by the message-queue family */
#define KAVRO_TAG_MBX      0x5F58424Du /**< "MBX_" */
#define KAVRO_TAG_LDR      0x5F52444Cu /**< "LDR_" */
#define KAVRO_TAG_SHM      0xBABEFACEu
#define KAVRO_TAG_TMR      0x12345678u
#define KAVRO_TAG_NET      0x2434A432u
#define KAVRO_TAG_RELEASED 0xDEADBEEFu /**< written over the tag of a released object */
/**@}*/

/**
 * Allocate a zeroed family object and stamp its tag.
 *
 * The block comes from the counted heap with the generic marker 999, so it
 * is counted in `memalloccalls` and `memgenalloccalls`.
 *
 * @param size      byte size of the whole object (at least tagOffset + 4)
 * @param tag       the family tag
 * @param tagOffset byte position of the tag word (0 for every family here)
 * @return the object, every byte zero but the tag; NULL when the heap is
 *         exhausted or @p size is 0 or too small to hold the tag.
 */
KAVRO_API void *KAVRO_OBJ_Alloc(uint32_t size, uint32_t tag, uint32_t tagOffset);

/**
 * Release a family object: overwrite its tag with 0xDEADBEEF and free it
 * through `MEM_Free2`. Whatever the object holds (mutexes, semaphores) is
 * the family's to destroy first.
 *
 * @param obj       the object; NULL is ignored and counts nothing
 * @param tagOffset byte position of the tag word
 */
KAVRO_API void KAVRO_OBJ_Free(void *obj, uint32_t tagOffset);

KAVRO_END_DECLS

#endif /* KAVRO_RT_STATUS_H */
