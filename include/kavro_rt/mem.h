/**
 * @file mem.h
 * @brief `MEM_`: the counted heap and memory locking.
 *
 * The allocator adds nothing to the C heap but a few process-wide counters
 * (no header, no lock, no list), so a block from `MEM_Alloc` is an ordinary
 * heap block. The counters are updated with a plain load and store, without
 * a lock or a read-modify-write instruction: under concurrent allocation
 * they are approximate, and nothing relies on their exact value. The marker 999 marks generic allocations (family objects and
 * tables), which pair with `MEM_Free2`.
 *
 * Decision: when `munlockall` fails, `MEM_UnLockAll` reports KAVRO_E_FAIL as
 * its twin `MEM_LockAll` does.
 */
#ifndef KAVRO_RT_MEM_H
#define KAVRO_RT_MEM_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** The generic allocation marker. */
#define MEM_GENERIC_MARKER 999u

/** Calls of `MEM_Alloc`/`MEM_Calloc` with a non-zero size. */
KAVRO_API extern uint32_t memalloccalls;
/** Those calls made with the generic marker 999. */
KAVRO_API extern uint32_t memgenalloccalls;
/** Part of the interface, never touched by the library. */
KAVRO_API extern uint8_t memmutex[64];

/** Bring the memory family up. @retval 0 always. */
KAVRO_API int32_t MEM_Init(void);
/** Take the memory family down. Counters are not reset. */
KAVRO_API void MEM_Exit(void);

/**
 * Allocate @p size uninitialised bytes from the process heap.
 * @param size   byte count; 0 returns NULL and counts nothing
 * @param marker caller tag; 999 counts the call as generic
 * @return the block, or NULL when the heap is exhausted (still counted)
 */
KAVRO_API void *MEM_Alloc(uint32_t size, uint32_t marker);

/**
 * As `MEM_Alloc`, but the block is zeroed.
 * @param size   byte count; 0 returns NULL and counts nothing
 * @param marker caller tag; 999 counts the call as generic
 * @return the zeroed block, or NULL when the heap is exhausted
 */
KAVRO_API void *MEM_Calloc(uint32_t size, uint32_t marker);

/** Return a block to the heap; counted. @param ptr the block; NULL is counted and ignored. */
KAVRO_API void MEM_Free(void *ptr);

/** Release a generic block (counted as generic, then as `MEM_Free`). @param ptr the block or NULL. */
KAVRO_API void MEM_Free2(void *ptr);

/**
 * Lock all current and future pages of the process in memory.
 * @retval 0          the pages are locked
 * @retval KAVRO_E_FAIL `mlockall` failed (usually missing privilege); a line
 *                    with the error number is logged
 */
KAVRO_API KAVRO_STATUS MEM_LockAll(void);

/**
 * Unlock all pages of the process.
 * @retval 0          the pages are unlocked
 * @retval KAVRO_E_FAIL `munlockall` failed; a line with the error number is logged
 */
KAVRO_API KAVRO_STATUS MEM_UnLockAll(void);

/** Does nothing. @retval 0 always. */
KAVRO_API KAVRO_STATUS MEM_Statistics(void);

KAVRO_END_DECLS

#endif /* KAVRO_RT_MEM_H */
