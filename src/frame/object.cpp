// Family objects: a zeroed counted block with the family tag in one word.
#include <cstring>

#include "frame/internal.hpp"
#include "kavro_rt/mem.h"
#include "kavro_rt/status.h"

extern "C" {

KAVRO_API void *KAVRO_OBJ_Alloc(uint32_t size, uint32_t tag, uint32_t tagOffset) {
    // Refuse a block that cannot hold its own tag rather than write past it.
    if (tagOffset > size || size - tagOffset < sizeof(uint32_t)) return nullptr;
    auto *obj = static_cast<unsigned char *>(MEM_Calloc(size, kavro::detail::kGenericMarker));
    if (obj == nullptr) return nullptr;
    std::memcpy(obj + tagOffset, &tag, sizeof tag);
    return obj;
}

KAVRO_API void KAVRO_OBJ_Free(void *obj, uint32_t tagOffset) {
    if (obj == nullptr) return;
    const uint32_t released = KAVRO_TAG_RELEASED;
    std::memcpy(static_cast<unsigned char *>(obj) + tagOffset, &released, sizeof released);
    MEM_Free2(obj);
}

}  // extern "C"
