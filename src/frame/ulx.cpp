// The Linux process layer (ULX_) and the processor count (SMP_).
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

#include "frame/internal.hpp"
#include "kavro_rt/log.h"
#include "kavro_rt/smp.h"
#include "kavro_rt/ulx.h"

namespace {
int32_t cRefs = 0;
}

extern "C" {

KAVRO_API int32_t ULX_Init(void) {
    ++cRefs;
    return 0;
}

KAVRO_API int32_t ULX_Exit(void) {
    --cRefs;
    return 0;
}

KAVRO_API KAVRO_STATUS _ULX_MakeAbsTime(struct timespec *deadline, uint32_t milliseconds) {
    if (deadline == nullptr) return kavro::detail::kInvalidArg;
    *deadline = kavro::detail::wall_deadline(milliseconds);
    return 0;
}

KAVRO_API KAVRO_STATUS ULX_Daemonize(void) {
    pid_t pid = fork();
    if (pid != 0) std::exit(0);  // the parent, or a failed fork
    setsid();
    umask(0);
    int fd = open("/dev/null", O_RDWR);
    if (fd < 0) return kavro::detail::kFail;
    dup2(fd, 0);
    dup2(fd, 1);
    dup2(fd, 2);
    long limit = sysconf(_SC_OPEN_MAX);
    for (long i = 3; i < limit; ++i) close(static_cast<int>(i));
    close(fd);

    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGTSTP, SIGCHLD}) sigaction(sig, &dfl, nullptr);

    sched_param sp{};
    sp.sched_priority = 99;
    sched_setscheduler(0, SCHED_FIFO, &sp);
    mlockall(MCL_CURRENT | MCL_FUTURE);
    PEL_daemonized = 1;
    return 0;
}

KAVRO_API KAVRO_STATUS SMP_GetNumProcessors(int32_t *configured, int32_t *online) {
    if (configured == nullptr || online == nullptr) return kavro::detail::kInvalidArg;
    long conf = sysconf(_SC_NPROCESSORS_CONF);
    long onln = sysconf(_SC_NPROCESSORS_ONLN);
    if (conf <= 0 || onln <= 0) {
        *configured = 0;
        *online = 0;
        return kavro::detail::kFail;
    }
    *configured = static_cast<int32_t>(conf);
    *online = static_cast<int32_t>(onln);
    return 0;
}

}  // extern "C"
