// The module loader: family objects around the dynamic loader's handles,
// and the board file left by the family's start.
#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/internal.hpp"
#include "kavro_rt/ldr.h"
#include "kavro_rt/mem.h"

using namespace kavro::detail;

namespace {

int32_t cRefs = 0;

const char kBoardFile[] = "/usr/torvanex/cfg/.board.0";

const char *loader_error() {
    const char *e = dlerror();
    return e != nullptr ? e : "unknown loader error";
}

void write_board_file() {
    FILE *f = std::fopen(kBoardFile, "we");
    bool ok = f != nullptr && std::fputc('1', f) != EOF;
    int err = errno;
    if (f != nullptr && std::fclose(f) != 0 && ok) ok = false, err = errno;
    if (!ok) diag("LDR_Init", "cannot write the board file %s: %s\n", kBoardFile, std::strerror(err));
}

}  // namespace

extern "C" {

KAVRO_API uint32_t ldralloc_calls = 0;
KAVRO_API uint32_t ldrfree_calls = 0;

KAVRO_API int32_t LDR_Init(void) {
    if (cRefs != 0) {
        ++cRefs;
        return 1;
    }
    write_board_file();
    const int32_t rc = MEM_Init();
    if (rc != 0) return rc;
    ++cRefs;
    return 0;
}

KAVRO_API void LDR_Exit(void) {
    if (--cRefs == 0) MEM_Exit();
}

KAVRO_API KAVRO_STATUS LDR_LoadModule(LDR_Module **phModule, const char *pstrPath) {
    static const char fn[] = "LDR_LoadModule";
    if (phModule == nullptr) return kInvalidArg;
    *phModule = nullptr;
    if (pstrPath == nullptr) return kInvalidArg;
    std::printf("KAVRO:%s: load module %s \n", fn, pstrPath);

    auto *mod = static_cast<LDR_Module *>(KAVRO_OBJ_Alloc(sizeof(LDR_Module), KAVRO_TAG_LDR, 0));
    if (mod == nullptr) return kOutOfMemory;
    kavro::detail::count_up(ldralloc_calls);
    mod->hModule = dlopen(pstrPath, RTLD_NOW);
    if (mod->hModule == nullptr) {
        diag(fn, "%s\n", loader_error());
        KAVRO_OBJ_Free(mod, 0);
        return kLoadFailed;
    }
    *phModule = mod;
    return kOk;
}

KAVRO_API KAVRO_STATUS LDR_GetProcAddress(LDR_Module *hModule, const char *pstrSymbol, void **ppAddress) {
    static const char fn[] = "LDR_GetProcAddress";
    if (hModule == nullptr || pstrSymbol == nullptr || ppAddress == nullptr) return kInvalidArg;
    if (!has_tag(hModule, KAVRO_TAG_LDR)) return kFail;
    std::printf("KAVRO:%s: find library symbol %s \n", fn, pstrSymbol);

    // A symbol may legitimately be at address 0: only the loader's error
    // state tells a missing one. errno is left as it stands: its value after
    // the lookup is the caller's result.
    dlerror();
    void *addr = dlsym(hModule->hModule, pstrSymbol);
    const int err = errno;
    if (const char *e = dlerror()) {
        diag(fn, "%s\n", e);
        return static_cast<KAVRO_STATUS>(err) | 0x80000000u;
    }
    *ppAddress = addr;
    return kOk;
}

KAVRO_API KAVRO_STATUS LDR_FreeModule(LDR_Module *hModule) {
    kavro::detail::count_up(ldrfree_calls);
    if (hModule == nullptr) return kInvalidArg;
    if (!has_tag(hModule, KAVRO_TAG_LDR)) return kFail;
    if (hModule->hModule != nullptr) {
        const int rc = dlclose(hModule->hModule);
        if (rc != 0) {
            std::printf("ret is %x \n", static_cast<unsigned>(rc));
            std::fprintf(stderr, "%s\n", loader_error());
        }
    }
    KAVRO_OBJ_Free(hModule, 0);
    return kOk;
}

}  // extern "C"
