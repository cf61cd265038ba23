/**
 * @file lst.h
 * @brief `LST_`: an intrusive circular doubly linked list with a sentinel head.
 *
 * Elements live inside the caller's own records; the library allocates only
 * the head. Every operation but `LST_Create`/`LST_Delete` is constant-time
 * and allocation-free. Nothing is locked: a list shared between threads is
 * protected by its user.
 */
#ifndef KAVRO_RT_LST_H
#define KAVRO_RT_LST_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** A list head or element; embed it in your record. Fields in this order. */
typedef struct LST_Elem {
    struct LST_Elem *next; /**< following element, or the head after the last */
    struct LST_Elem *prev; /**< preceding element, or the head before the first */
    uintptr_t data;        /**< the value `LST_GetHead` returns; 0 in a head */
} LST_Elem;

/** A list: its sentinel head. */
typedef LST_Elem LST_List;

/** Bring the family up (and the memory family). @retval 0 when this call brought it up @retval 1 when already up */
KAVRO_API int32_t LST_Init(void);
/** Take the family down. */
KAVRO_API void LST_Exit(void);

/** Allocate an empty list. @return the head, or NULL when the heap is exhausted. */
KAVRO_API LST_List *LST_Create(void);

/** Free the head. Elements still linked are left as they are. @param list the list or NULL. */
KAVRO_API void LST_Delete(LST_List *list);

/**
 * Prepare an element: links NULL, `data` = the element's own address.
 * @param elem the element; NULL is returned unchanged
 * @return @p elem
 */
KAVRO_API LST_Elem *LST_InitElem(LST_Elem *elem);

/**
 * Append @p elem after the last element.
 * @return @p elem; NULL (nothing done) when either argument is NULL
 */
KAVRO_API LST_Elem *LST_PutTail(LST_List *list, LST_Elem *elem);

/**
 * Unlink the first element.
 * @return its `data`; 0 when the list is NULL or empty (an element whose
 *         data is 0 cannot be told from an empty list)
 */
KAVRO_API uintptr_t LST_GetHead(LST_List *list);

/** @return the first element, or NULL for a NULL or empty list. */
KAVRO_API LST_Elem *LST_First(LST_List *list);

/** @return the element after @p elem, or NULL when @p elem is the last (or NULL), or the list is NULL or empty. */
KAVRO_API LST_Elem *LST_Next(LST_List *list, LST_Elem *elem);

/**
 * Unlink @p elem from @p list. Membership is not verified; the element's
 * own links keep their old values. Nothing is done for a NULL or empty list
 * or a NULL element.
 */
KAVRO_API void LST_RemoveElem(LST_List *list, LST_Elem *elem);

KAVRO_END_DECLS

#endif /* KAVRO_RT_LST_H */
