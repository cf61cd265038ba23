/**
 * @file sem.h
 * @brief `SEM_`: counting semaphores, process-local or shared through System V.
 */
#ifndef KAVRO_RT_SEM_H
#define KAVRO_RT_SEM_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** Bring the semaphore family (and the memory family) up. @retval 0 always. */
KAVRO_API int32_t SEM_Init(void);
/** Take the semaphore family down. @retval 0 always. */
KAVRO_API int32_t SEM_Exit(void);

KAVRO_END_DECLS

#endif /* KAVRO_RT_SEM_H */
