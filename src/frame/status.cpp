// KAVRO_StatusText: one table of the statuses' meanings.
#include "frame/internal.hpp"

namespace {

struct StatusText {
    KAVRO_STATUS status;
    const char *text;
};

constexpr StatusText kTexts[] = {
    {KAVRO_OK, "success"},
    {KAVRO_E_FAIL, "bad or foreign handle, failed system call or unsupported operation"},
    {KAVRO_E_INVALIDARG, "invalid argument"},
    {KAVRO_E_POINTER, "null pointer"},
    {KAVRO_E_OUTOFMEMORY, "out of memory"},
    {KAVRO_E_NOTIMPL, "not implemented"},
    {KAVRO_E_TIMEOUT, "a wait timed out"},
    {KAVRO_E_AGAIN, "nothing available now"},
    {KAVRO_E_BROKENPIPE, "the peer is gone"},
    {KAVRO_E_NOTMRINIT, "the timer engine is not initialised"},
    {KAVRO_E_NOREADER, "no reader has the named pipe open"},
    {KAVRO_E_LOADFAILED, "a module could not be loaded"},
};

}  // namespace

extern "C" KAVRO_API const char *KAVRO_StatusText(KAVRO_STATUS status) {
    for (const StatusText &t : kTexts)
        if (t.status == status) return t.text;
    return "unknown status";
}
