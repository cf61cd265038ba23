/**
 * @file smp.h
 * @brief `SMP_`: the machine's processors.
 */
#ifndef KAVRO_RT_SMP_H
#define KAVRO_RT_SMP_H

#include "status.h"

KAVRO_BEGIN_DECLS

/**
 * Report the numbers of configured and online processors.
 *
 * Decision: a NULL pointer is refused with KAVRO_E_INVALIDARG and nothing stored.
 *
 * @param configured receives the number of configured processors
 * @param online     receives the number of online processors
 * @retval 0          both stored
 * @retval KAVRO_E_FAIL the platform reported 0 for either; both set to 0
 * @retval KAVRO_E_INVALIDARG a pointer is NULL
 */
KAVRO_API KAVRO_STATUS SMP_GetNumProcessors(int32_t *configured, int32_t *online);

KAVRO_END_DECLS

#endif /* KAVRO_RT_SMP_H */
