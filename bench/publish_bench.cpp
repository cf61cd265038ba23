// The hot paths with publishing on ("kavro") against the same build with
// KAVRO_PUBLISH=0 ("ref:publishing_off"). A process decides once whether it
// publishes, so each side runs in a child of its own, started with its
// setting, that times batches of operations on request; the benchmark sets
// the per-operation time from each batch. The child with publishing on has
// its publisher thread sampling every object each second meanwhile.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <thread>

#include "kavro_rt/fifo.h"
#include "kavro_rt/ipc.h"
#include "kavro_rt/mbx.h"
#include "kavro_rt/mem.h"
#include "kavro_rt/sem.h"

namespace {

constexpr int kKey = 4242;

double now_s() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// One operation of a path; made once in the child, then run `batch` times per request.
using Op = std::function<void()>;
using MakeOp = Op (*)();

Op sem_op() {
    SEM_Init();
    SEM_HANDLE s = nullptr;
    SEM_Create(&s, 0, 0, 0);
    return [s] {
        SEM_Post(s);
        SEM_Pend(s, KAVRO_WAIT_FOREVER);
    };
}

Op mbx_op() {
    MBX_Init();
    MBX_HANDLE m = nullptr;
    MBX_Create(&m, 16, 64);
    return [m] {
        unsigned char msg[16] = {1}, buf[16];
        MBX_Post(m, msg, KAVRO_WAIT_FOREVER);
        MBX_Pend(m, buf, KAVRO_WAIT_FOREVER);
    };
}

// A channel to this same process; the reader side is drained every 64 writes.
Op fifo_op() {
    char root[] = "/tmp/kavro-pubbench-XXXXXX";
    if (mkdtemp(root) == nullptr) std::abort();
    setenv("TRVXROOT", root, 1);
    IPC_FIFO_Init();
    auto *fds = new int32_t[4];
    for (int i = 0; i < 4; ++i) {
        const std::string path = std::string(root) + "/kmxipc/.pipe." + std::to_string(kKey) + std::string(i, '_');
        IPC_FIFO_Create(0, &fds[i], 0, path.c_str());
    }
    auto *n = new int(0);
    return [fds, n] {
        unsigned char msg[64] = {1};
        int32_t written = 0;
        IPC_FIFO_Write(0, kKey, 1, msg, &written, sizeof msg, 0);
        if (++*n % 64 == 0) {
            unsigned char drain[8192];
            for (int i = 0; i < 4; ++i)
                while (read(fds[i], drain, sizeof drain) > 0) {
                }
        }
    };
}

// The child: reads a byte per batch and answers with the batch's seconds.
struct Child {
    pid_t pid = -1;
    int ask = -1, answer = -1;
    Child(MakeOp make, bool publish, int batch) {
        int a[2], b[2];
        if (pipe(a) != 0 || pipe(b) != 0) return;
        if ((pid = fork()) == 0) {
            close(a[1]);
            close(b[0]);
            setenv("KAVRO_PUBLISH", publish ? "1" : "0", 1);
            const Op op = make();
            // Either process has a second thread, as every product process has many: a
            // single-threaded process would take C library shortcuts the other cannot.
            std::thread idle;
            if (!publish) idle = std::thread([] { pause(); });
            char c;
            while (read(a[0], &c, 1) == 1) {
                const double t0 = now_s();
                for (int i = 0; i < batch; ++i) op();
                const double dt = now_s() - t0;
                if (write(b[1], &dt, sizeof dt) != sizeof dt) break;
            }
            std::exit(0);  // an ordinary exit: the snapshot file goes with the process
        }
        close(a[0]);
        close(b[1]);
        ask = a[1];
        answer = b[0];
    }
    double batch() {
        double dt = 0;
        if (write(ask, "x", 1) != 1 || read(answer, &dt, sizeof dt) != sizeof dt) return 0;
        return dt;
    }
    ~Child() {
        close(ask);
        close(answer);
        if (pid > 0) waitpid(pid, nullptr, 0);
    }
};

void run(benchmark::State &state, MakeOp make, bool publish, int batch) {
    Child c(make, publish, batch);
    c.batch();  // warm-up
    for (auto _ : state) state.SetIterationTime(c.batch() / batch);
}

// 60 batches of over a second in all: publisher passes (one a second) fall inside.
#define PUBLISH_PAIR(id, path, make, batch)                                                                   \
    BENCHMARK_CAPTURE(run, id##_on, make, true, batch)->Name(path "/kavro")->UseManualTime()->Iterations(60); \
    BENCHMARK_CAPTURE(run, id##_off, make, false, batch)                                                      \
        ->Name(path "/ref:publishing_off")                                                                    \
        ->UseManualTime()                                                                                     \
        ->Iterations(60)

PUBLISH_PAIR(sem, "publish.sem_post_pend", sem_op, 1000000);
PUBLISH_PAIR(mbx, "publish.mbx_post_pend", mbx_op, 1000000);
PUBLISH_PAIR(fifo, "publish.fifo_write", fifo_op, 20000);

}  // namespace

BENCHMARK_MAIN();
