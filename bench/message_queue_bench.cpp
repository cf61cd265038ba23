// Message-queue round trip between two processes: IPC_MSGQ_Send/IPC_MSGQ_Rcv
// against raw msgsnd/msgrcv. A forked echo process answers every type-1
// message with a type-2 message of the same data. Both processes are pinned
// to one processor, so that every round trip costs the same two context
// switches and the figures do not depend on where the scheduler puts them.
#include <benchmark/benchmark.h>

#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "kavro_rt/ipc.h"

namespace {

constexpr long kPing = 1, kPong = 2;
constexpr uint32_t kWait = MSG_NOERROR;  // non-zero without IPC_NOWAIT: block

struct RawMsg {
    long type;
    char text[KAVRO_MSGQ_MAX_DATA];
};

// A one-byte message ends the echo process.
void echo_kavro(void *h) {
    char buf[KAVRO_MSGQ_MAX_DATA];
    for (;;) {
        uint32_t len = 0;
        if (IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, kPing, kWait) != 0 || len <= 1) return;
        if (IPC_MSGQ_Send(h, buf, static_cast<int32_t>(len), kPong, kWait) != 0) return;
    }
}

void echo_raw(int id) {
    RawMsg m;
    for (;;) {
        ssize_t n = msgrcv(id, &m, sizeof m.text, kPing, 0);
        if (n <= 1) return;
        m.type = kPong;
        if (msgsnd(id, &m, static_cast<size_t>(n), 0) != 0) return;
    }
}

template <bool Kavro>
void BM_RoundTrip(benchmark::State &state) {
    const auto size = static_cast<int32_t>(state.range(0));
    void *h = nullptr;
    if (IPC_MSGQ_Create(&h, 0, "bench") != 0) {
        state.SkipWithError("cannot create a queue");
        return;
    }
    const int id = static_cast<MessageQueueRecord *>(h)->queueId;
    cpu_set_t saved, one;
    sched_getaffinity(0, sizeof saved, &saved);
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu() >= 0 ? sched_getcpu() : 0, &one);
    sched_setaffinity(0, sizeof one, &one);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (Kavro)
            echo_kavro(h);
        else
            echo_raw(id);
        _exit(0);
    }
    char data[KAVRO_MSGQ_MAX_DATA];
    std::memset(data, 'd', sizeof data);
    RawMsg m;
    m.type = kPing;
    std::memcpy(m.text, data, static_cast<size_t>(size));
    for (auto _ : state) {
        if constexpr (Kavro) {
            uint32_t len = 0;
            IPC_MSGQ_Send(h, data, size, kPing, kWait);
            IPC_MSGQ_Rcv(h, data, sizeof data, &len, kPong, kWait);
        } else {
            m.type = kPing;
            msgsnd(id, &m, static_cast<size_t>(size), 0);
            msgrcv(id, &m, sizeof m.text, kPong, 0);
        }
    }
    IPC_MSGQ_Send(h, data, 1, kPing, 0);  // stop
    waitpid(pid, nullptr, 0);
    IPC_MSGQ_Delete(h);
    sched_setaffinity(0, sizeof saved, &saved);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_RoundTrip<true>)->Name("msgq.roundtrip/kavro")->Arg(64)->Arg(2048)->UseRealTime()->MinTime(0.3);
BENCHMARK(BM_RoundTrip<false>)->Name("msgq.roundtrip/ref:msgsnd")->Arg(64)->Arg(2048)->UseRealTime()->MinTime(0.3);

}  // namespace

BENCHMARK_MAIN();
