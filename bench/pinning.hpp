// Pins the threads of a two-thread measurement to two different CPUs, the
// same way for the library and for its reference: the benchmark's own thread
// on the first CPU of the process's set, its peer on the second. With fewer
// than two CPUs nothing is pinned.
#pragma once

#include <pthread.h>
#include <sched.h>

namespace bench {

// The n-th CPU (0 or 1) the process may run on, or -1.
inline int nth_cpu(int n) {
    static cpu_set_t allowed = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &allowed) && n-- == 0) return cpu;
    return -1;
}

inline bool two_cpus() { return nth_cpu(1) >= 0; }

// Pins the calling thread to CPU `n` of the process's set (when there are two).
inline void pin_self(int n) {
    if (!two_cpus()) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(nth_cpu(n), &set);
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Pins the calling thread to `n` for its lifetime, then gives it back the
// CPUs it had.
class Pinned {
public:
    explicit Pinned(int n) {
        pthread_getaffinity_np(pthread_self(), sizeof saved_, &saved_);
        pin_self(n);
    }
    ~Pinned() { pthread_setaffinity_np(pthread_self(), sizeof saved_, &saved_); }
    Pinned(const Pinned &) = delete;
    Pinned &operator=(const Pinned &) = delete;

private:
    cpu_set_t saved_;
};

}  // namespace bench
