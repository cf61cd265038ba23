// System V message queues: the record layer and the IPC_MSGQ_ handles,
// exercised between real processes.
#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "internal.hpp"
#include "ipc.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::test::run_in_child;

std::string pattern(size_t n, char seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(seed + i * 7);
    return s;
}

// One byte from fd, waiting at most timeout_ms; 0 when nothing came.
char read_byte(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    char c = 0;
    if (poll(&p, 1, timeout_ms) != 1 || read(fd, &c, 1) != 1) return 0;
    return c;
}

int32_t queue_id(void *h) { return static_cast<MessageQueueRecord *>(h)->queueId; }

msqid_ds stat_of(int32_t id) {
    msqid_ds ds{};
    msgctl(id, IPC_STAT, &ds);
    return ds;
}

// Every queue a test makes is removed in TearDown, whatever happened.
class MsgQueue : public ::testing::Test {
protected:
    void TearDown() override {
        for (int32_t id : ids_) msgctl(id, IPC_RMID, nullptr);
    }
    void *private_queue() {
        void *h = nullptr;
        EXPECT_EQ(IPC_MSGQ_Create(&h, 0, "test"), 0u);
        if (h != nullptr) ids_.push_back(queue_id(h));
        return h;
    }
    // A key of this test's own: ftok of a scratch directory, checked unused.
    uint32_t fresh_key() {
        for (int proj = 1; proj < 256; ++proj) {
            key_t k = ftok(dir_.path().c_str(), proj);
            if (k != -1 && msgget(k, 0) == -1 && errno == ENOENT) return static_cast<uint32_t>(k);
        }
        return 0;
    }
    void track(int32_t id) { ids_.push_back(id); }

    kavro::test::ScratchDir dir_;
    std::vector<int32_t> ids_;
};

TEST_F(MsgQueue, MessageFromAnotherProcessArrivesWhole) {
    const uint32_t key = fresh_key();
    ASSERT_NE(key, 0u);
    void *h = nullptr;
    ASSERT_EQ(IPC_MSGQ_Create(&h, key, nullptr), 0u);
    track(queue_id(h));
    const std::string msg = pattern(100, 'a');

    // The sender opens the queue by its key; type 0 and flags 0 mean type 1
    // without blocking.
    int rc = run_in_child([&] {
        void *q = nullptr;
        if (IPC_MSGQ_Create(&q, key, nullptr) != 0) return 1;
        if (queue_id(q) != queue_id(h)) return 2;
        return IPC_MSGQ_Send(q, msg.data(), 100, 0, 0) == 0 ? 0 : 3;
    });
    ASSERT_EQ(rc, 0);

    char buf[256] = {};
    uint32_t len = 0;
    ASSERT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 0, 0), 0u);
    EXPECT_EQ(len, 100u);
    EXPECT_EQ(std::string(buf, len), msg);
    // Nothing else is there, and an empty queue answers at once.
    EXPECT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 0, 0), KAVRO_E_AGAIN);
    EXPECT_EQ(IPC_MSGQ_Delete(h), 0u);
}

TEST_F(MsgQueue, WaitingReceiverGetsALaterMessage) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char buf[64];
        uint32_t len = 0;
        // Non-zero flags without IPC_NOWAIT: wait in the kernel.
        KAVRO_STATUS st = IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 5, MSG_NOERROR);
        char ok = (st == 0 && len == 5 && std::memcmp(buf, "later", 5) == 0) ? 'y' : 'n';
        if (write(fds[1], &ok, 1) != 1) _exit(2);
        _exit(0);
    }
    usleep(100000);
    ASSERT_EQ(IPC_MSGQ_Send(h, "later", 5, 5, 0), 0u);
    EXPECT_EQ(read_byte(fds[0], 30000), 'y');
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(MsgQueue, ReceiveSelectsByType) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(IPC_MSGQ_Send(h, "one", 3, -4, 0), 0u);  // type 1
    ASSERT_EQ(IPC_MSGQ_Send(h, "two", 3, 2, 0), 0u);
    char buf[16];
    uint32_t len = 0;
    ASSERT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 2, 0), 0u);
    EXPECT_EQ(std::string(buf, len), "two");
    EXPECT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 3, 0), KAVRO_E_AGAIN);
    ASSERT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 0, 0), 0u);
    EXPECT_EQ(std::string(buf, len), "one");

    // The record layer reports the received type in the record.
    MessageRecord rec{};
    rec.dataLength = 4;
    rec.msgType = 9;
    std::memcpy(rec.data, "nine", 4);
    ASSERT_EQ(mesg_send(queue_id(h), &rec, IPC_NOWAIT), 0);
    MessageRecord in{};
    in.msgType = -10;  // lowest type up to 10
    EXPECT_EQ(mesg_recv(queue_id(h), &in, 16, IPC_NOWAIT), 4);
    EXPECT_EQ(in.dataLength, 4);
    EXPECT_EQ(in.msgType, 9);
    EXPECT_EQ(std::memcmp(in.data, "nine", 4), 0);
}

TEST_F(MsgQueue, TooSmallBufferLeavesTheMessageQueued) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    const std::string msg = pattern(100, 'x');
    ASSERT_EQ(IPC_MSGQ_Send(h, msg.data(), 100, 1, 0), 0u);
    char small[50];
    uint32_t len = 77;
    EXPECT_EQ(IPC_MSGQ_Rcv(h, small, sizeof small, &len, 1, 0), KAVRO_E_FAIL);
    EXPECT_EQ(len, 77u);
    EXPECT_EQ(stat_of(queue_id(h)).msg_qnum, 1u);
    char big[100];
    ASSERT_EQ(IPC_MSGQ_Rcv(h, big, sizeof big, &len, 1, 0), 0u);
    EXPECT_EQ(std::string(big, len), msg);
}

TEST_F(MsgQueue, LargestMessageAndNothingBeyondIt) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    const int32_t id = queue_id(h);
    const std::string max = pattern(KAVRO_MSGQ_MAX_DATA, 'm');
    std::vector<char> buf(3 * KAVRO_MSGQ_MAX_DATA);
    uint32_t len = 0;

    ASSERT_EQ(IPC_MSGQ_Send(h, max.data(), KAVRO_MSGQ_MAX_DATA, 1, 0), 0u);
    ASSERT_EQ(IPC_MSGQ_Rcv(h, buf.data(), static_cast<int32_t>(buf.size()), &len, 1, 0), 0u);
    EXPECT_EQ(std::string(buf.data(), len), max);

    EXPECT_EQ(IPC_MSGQ_Send(h, buf.data(), KAVRO_MSGQ_MAX_DATA + 1, 1, 0), KAVRO_E_INVALIDARG);
    MessageRecord rec{};
    rec.msgType = 1;
    rec.dataLength = KAVRO_MSGQ_MAX_DATA + 1;
    errno = 0;
    EXPECT_EQ(mesg_send(id, &rec, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, EINVAL);
    rec.dataLength = -1;
    EXPECT_EQ(mesg_send(id, &rec, IPC_NOWAIT), -1);
    EXPECT_EQ(mesg_send(id, nullptr, IPC_NOWAIT), -1);
    EXPECT_EQ(stat_of(id).msg_qnum, 0u);

    // A longer message put there by another program is not taken into the
    // staging record, however large the caller's buffer or capacity.
    struct {
        long type;
        char text[3000];
    } raw{1, {}};
    ASSERT_EQ(msgsnd(id, &raw, sizeof raw.text, IPC_NOWAIT), 0);
    EXPECT_EQ(IPC_MSGQ_Rcv(h, buf.data(), static_cast<int32_t>(buf.size()), &len, 1, 0), KAVRO_E_FAIL);
    MessageRecord in{};
    in.msgType = 1;
    EXPECT_EQ(mesg_recv(id, &in, 8192, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(in.dataLength, -1);
    EXPECT_EQ(stat_of(id).msg_qnum, 1u);
    EXPECT_EQ(mesg_recv(id, nullptr, 16, IPC_NOWAIT), -1);
    EXPECT_EQ(mesg_recv(id, &in, -1, IPC_NOWAIT), -1);
}

TEST_F(MsgQueue, FullQueueSendSucceedsOnceAReaderMakesRoom) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    const int32_t id = queue_id(h);
    msqid_ds ds = stat_of(id);
    ds.msg_qbytes = 200;
    ASSERT_EQ(msgctl(id, IPC_SET, &ds), 0);
    const std::string msg = pattern(100, 'f');
    ASSERT_EQ(IPC_MSGQ_Send(h, msg.data(), 100, 1, 0), 0u);
    ASSERT_EQ(IPC_MSGQ_Send(h, msg.data(), 100, 1, 0), 0u);

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        usleep(300000);
        char buf[100];
        uint32_t len = 0;
        _exit(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 1, 0) == 0 ? 0 : 1);
    }
    EXPECT_EQ(IPC_MSGQ_Send(h, msg.data(), 100, 1, 0), 0u);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(stat_of(id).msg_qnum, 2u);
}

TEST_F(MsgQueue, QueueThatStaysFullGivesUp) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    const int32_t id = queue_id(h);
    msqid_ds ds = stat_of(id);
    ds.msg_qbytes = 100;
    ASSERT_EQ(msgctl(id, IPC_SET, &ds), 0);
    ASSERT_EQ(IPC_MSGQ_Send(h, pattern(100, 'a').data(), 100, 1, 0), 0u);

    MessageRecord rec{};
    rec.dataLength = 10;
    rec.msgType = 1;
    EXPECT_EQ(kavro::detail::msgq_send_polling(id, &rec, IPC_NOWAIT, 3, 1000), KAVRO_E_AGAIN);
    EXPECT_EQ(stat_of(id).msg_qnum, 1u);
}

TEST_F(MsgQueue, SendToARemovedQueueFailsWithoutPolling) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(msgctl(queue_id(h), IPC_RMID, nullptr), 0);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(IPC_MSGQ_Send(h, "x", 1, 1, 0), KAVRO_E_FAIL);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
    char buf[4];
    uint32_t len = 0;
    EXPECT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 1, 0), KAVRO_E_FAIL);
    KAVRO_OBJ_Free(h, 0);
}

TEST_F(MsgQueue, InterruptedWaitIsRestarted) {
    void *h = private_queue();
    ASSERT_NE(h, nullptr);
    const int32_t id = queue_id(h);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        struct sigaction sa {};
        sa.sa_handler = [](int) {};
        sigaction(SIGUSR1, &sa, nullptr);  // no SA_RESTART
        char ready = 'r';
        if (write(fds[1], &ready, 1) != 1) _exit(3);
        MessageRecord in{};
        in.msgType = 1;
        int32_t n = Mesg_recv(id, &in, 64, 0);
        _exit(n == 3 && std::memcmp(in.data, "end", 3) == 0 ? 0 : 1);
    }
    EXPECT_EQ(read_byte(fds[0], 30000), 'r');
    for (int i = 0; i < 5; ++i) {
        usleep(20000);
        kill(pid, SIGUSR1);
    }
    ASSERT_EQ(IPC_MSGQ_Send(h, "end", 3, 1, 0), 0u);
    int rc = 0;
    for (int i = 0; i < 3000; ++i) {  // up to 30 s
        if (waitpid(pid, &rc, WNOHANG) == pid) break;
        usleep(10000);
    }
    if (kill(pid, 0) == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &rc, 0);
    }
    EXPECT_TRUE(WIFEXITED(rc) && WEXITSTATUS(rc) == 0);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(MsgQueue, FailedSendIsReported) {
    MessageRecord rec{};
    rec.dataLength = 1;
    rec.msgType = 1;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int32_t rc = Mesg_send(-1, &rec, IPC_NOWAIT);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(out, "mesg_send error 16 \n");  // EINVAL, in hexadecimal
    EXPECT_EQ(err, "mesg_send error 16\n");
}

TEST_F(MsgQueue, BadArgumentsAnswerWithAStatus) {
    void *h = reinterpret_cast<void *>(1);
    EXPECT_EQ(IPC_MSGQ_Create(&h, 0, nullptr), KAVRO_E_INVALIDARG);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(IPC_MSGQ_Create(nullptr, 0, "x"), KAVRO_E_INVALIDARG);

    // Key 0 with a name: a new private queue every time.
    void *a = private_queue();
    void *b = private_queue();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(queue_id(a), queue_id(b));

    char buf[8];
    uint32_t len = 0;
    EXPECT_EQ(IPC_MSGQ_Send(a, nullptr, 1, 1, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_MSGQ_Send(a, buf, 0, 1, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_MSGQ_Send(a, buf, -5, 1, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_MSGQ_Rcv(a, nullptr, 8, &len, 1, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_MSGQ_Rcv(a, buf, 0, &len, 1, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_MSGQ_Rcv(a, buf, 8, nullptr, 1, 0), KAVRO_E_INVALIDARG);

    // A handle of another family is refused.
    uint32_t foreign[2] = {KAVRO_TAG_MBX, 0};
    EXPECT_EQ(IPC_MSGQ_Send(foreign, buf, 1, 1, 0), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_MSGQ_Delete(foreign), KAVRO_E_FAIL);

    // The default queue (a null handle) is identifier 0, which Delete refuses.
    EXPECT_EQ(IPC_MSGQ_Delete(nullptr), KAVRO_E_INVALIDARG);

    // Delete removes the queue system-wide.
    const int32_t id = queue_id(a);
    EXPECT_EQ(IPC_MSGQ_Delete(a), 0u);
    msqid_ds ds{};
    EXPECT_EQ(msgctl(id, IPC_STAT, &ds), -1);

    EXPECT_EQ(IPC_MSGQ_Init(), 0u);
    EXPECT_EQ(IPC_MSGQ_GetCount(), 0u);
    EXPECT_EQ(IPC_MSGQ_SetAttr(), 0u);
    EXPECT_EQ(IPC_MSGQ_GetAttr(), 0u);
    EXPECT_EQ(IPC_MSGQ_Exit(), 0u);
}

}  // namespace
