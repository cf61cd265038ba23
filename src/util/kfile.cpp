// The file wrapper: a standard stream behind a handle that knows whether
// it is still open.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "frame/internal.hpp"
#include "kavro_rt/kfile.h"

namespace {

constexpr int32_t kBadHandle = -1;
constexpr int32_t kNullBuffer = -EIO;
constexpr int32_t kTooMany = -EINVAL;

bool valid(const KFILE *f) { return f != nullptr && *static_cast<const volatile uint32_t *>(&f->mark) == KFILE_MARK; }

}  // namespace

extern "C" {

KAVRO_API int32_t KFILE_Init(void) { return 1; }

KAVRO_API void KFILE_Exit(void) {}

KAVRO_API KFILE *KFILE_Open(const char *path, const char *mode) {
    if (path == nullptr || mode == nullptr) return nullptr;
    auto *f = static_cast<KFILE *>(std::malloc(sizeof(KFILE)));
    if (f == nullptr) return nullptr;
    f->stream = std::fopen(path, mode);
    if (f->stream == nullptr) {
        const int err = errno;
        std::free(f);
        errno = err;
        return nullptr;
    }
    f->mark = KFILE_MARK;
    return f;
}

KAVRO_API int32_t KFILE_Close(KFILE *f) {
    if (!valid(f)) return kBadHandle;
    const int rc = std::fclose(f->stream);
    f->mark = 0;
    f->stream = nullptr;
    std::free(f);
    return rc == 0 ? 0 : kBadHandle;
}

KAVRO_API int32_t KFILE_Read(void *buf, uint32_t size, uint32_t count, KFILE *f) {
    if (!valid(f)) return kBadHandle;
    if (buf == nullptr) return kNullBuffer;
    if (count > INT32_MAX) return kTooMany;
    return static_cast<int32_t>(std::fread(buf, size, count, f->stream));
}

KAVRO_API int32_t KFILE_Write(const void *buf, uint32_t size, uint32_t count, KFILE *f) {
    if (!valid(f)) return kBadHandle;
    if (buf == nullptr) return kNullBuffer;
    if (count > INT32_MAX) return kTooMany;
    return static_cast<int32_t>(std::fwrite(buf, size, count, f->stream));
}

KAVRO_API int32_t KFILE_Seek(KFILE *f, int32_t offset, int32_t origin) {
    if (!valid(f)) return kBadHandle;
    return std::fseek(f->stream, offset, origin);
}

KAVRO_API int32_t KFILE_Tell(KFILE *f) {
    if (!valid(f)) return kBadHandle;
    const long pos = std::ftell(f->stream);
    if (pos > INT32_MAX) {
        errno = EOVERFLOW;
        return -1;
    }
    return static_cast<int32_t>(pos);
}

}  // extern "C"
