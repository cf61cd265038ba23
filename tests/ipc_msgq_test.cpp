// System V message queues through IPC_MSGQ_ handles, between real processes
// in a private IPC namespace.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "ipc/ipc.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using Child = kavro::test::ForkedChild;

int32_t qid(void *h) { return static_cast<MessageQueueRecord *>(h)->queueId; }
msgqnum_t queued(void *h) {
    msqid_ds ds{};
    return msgctl(qid(h), IPC_STAT, &ds) == 0 ? ds.msg_qnum : 999;
}
// A new queue holding at most qbytes bytes (0: the default).
void *make(uint32_t key = 0, msglen_t qbytes = 0) {
    void *h = nullptr;
    EXPECT_EQ(IPC_MSGQ_Create(&h, key, "test"), KAVRO_OK);
    msqid_ds ds{};
    if (h != nullptr && qbytes > 0 && msgctl(qid(h), IPC_STAT, &ds) == 0) {
        ds.msg_qbytes = qbytes;
        EXPECT_EQ(msgctl(qid(h), IPC_SET, &ds), 0);
    }
    return h;
}
// Runs body in a child with an IPC namespace of its own, so no queue outlives it.
void in_private_ipc(const std::function<void()> &body) {
    const int rc = kavro::test::run_in_child([&] {
        if (unshare(CLONE_NEWIPC) != 0) return 77;
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    if (rc == 77) GTEST_SKIP() << "no private IPC namespace";
    EXPECT_EQ(rc, 0);
}
void on_signal_do_nothing() {  // without SA_RESTART: system calls see EINTR
    struct sigaction sa{};
    sa.sa_handler = [](int) {};
    sigaction(SIGUSR1, &sa, nullptr);
}

// The sender opens the queue by its key; type 0 and flags 0 mean type 1
// without blocking. Messages arrive whole and by type; Delete removes the queue.
TEST(MsgQueue, MessagesArriveWholeAndByType) {
    in_private_ipc([] {
        void *h = make(0x4D510001u);
        ASSERT_NE(h, nullptr);
        std::string msg(100, '\0');
        for (size_t i = 0; i < msg.size(); ++i) msg[i] = char(i * 7);
        ASSERT_EQ(kavro::test::run_in_child([&] {
            void *q = nullptr;
            CHILD_CHECK(IPC_MSGQ_Create(&q, 0x4D510001u, nullptr) == KAVRO_OK && qid(q) == qid(h));
            CHILD_CHECK(IPC_MSGQ_Send(q, "two", 3, 2, 0) == KAVRO_OK);
            return IPC_MSGQ_Send(q, msg.data(), 100, 0, 0) == KAVRO_OK ? 0 : 3;
        }), 0);
        char buf[256];
        uint32_t len = 0;
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 0, 0) == KAVRO_OK && std::string(buf, len) == msg);
        EXPECT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 1, 0), KAVRO_E_AGAIN);
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 2, 0) == KAVRO_OK && std::string(buf, len) == "two");
        const int32_t id = qid(h);
        EXPECT_EQ(IPC_MSGQ_Delete(h), KAVRO_OK);
        EXPECT_EQ(msgctl(id, IPC_STAT, nullptr), -1);  // removed system-wide
    });
}

// A message that does not fit stays queued; the largest passes, a longer one
// is refused, and one put there by another program never overflows.
TEST(MsgQueue, SizesAndMessagesThatDoNotFit) {
    in_private_ipc([] {
        void *h = make(), *other = make(), *none = &h;  // key 0 with a name: a new queue each time
        EXPECT_TRUE(qid(h) != qid(other) && IPC_MSGQ_Create(&none, 0, nullptr) == KAVRO_E_INVALIDARG && !none);
        std::vector<char> big(3 * KAVRO_MSGQ_MAX_DATA, 'b');
        uint32_t len = 77;
        ASSERT_EQ(IPC_MSGQ_Send(h, big.data(), 100, 1, 0), KAVRO_OK);
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, big.data(), 50, &len, 1, 0) == KAVRO_E_FAIL && queued(h) == 1);
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, big.data(), 100, &len, 1, 0) == KAVRO_OK && len == 100);
        ASSERT_EQ(IPC_MSGQ_Send(h, big.data(), KAVRO_MSGQ_MAX_DATA, 1, 0), KAVRO_OK);
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, big.data(), int32_t(big.size()), &len, 1, 0) == KAVRO_OK &&
                    len == KAVRO_MSGQ_MAX_DATA);
        EXPECT_EQ(IPC_MSGQ_Send(h, big.data(), KAVRO_MSGQ_MAX_DATA + 1, 1, 0), KAVRO_E_INVALIDARG);
        EXPECT_EQ(IPC_MSGQ_Rcv(h, big.data(), -1, &len, 1, 0), KAVRO_E_INVALIDARG);
        MessageRecord rec{};
        rec.msgType = 1;
        rec.dataLength = KAVRO_MSGQ_MAX_DATA + 1;
        EXPECT_TRUE(mesg_send(qid(h), &rec, IPC_NOWAIT) == -1 && errno == EINVAL);
        EXPECT_TRUE(mesg_send(qid(h), nullptr, 0) == -1 && mesg_recv(qid(h), nullptr, 8, 0) == -1);
        struct { long type; char text[3000]; } raw{1, {}};
        ASSERT_EQ(msgsnd(qid(h), &raw, sizeof raw.text, IPC_NOWAIT), 0);
        EXPECT_EQ(IPC_MSGQ_Rcv(h, big.data(), int32_t(big.size()), &len, 1, 0), KAVRO_E_FAIL);
        EXPECT_TRUE(mesg_recv(qid(h), &rec, 8192, IPC_NOWAIT) == -1 && errno == E2BIG && rec.dataLength == -1);
        EXPECT_EQ(queued(h), 1u);
        testing::internal::CaptureStderr();  // the reporting twin leaves a line
        EXPECT_EQ(Mesg_send(-1, &rec, IPC_NOWAIT), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "mesg_send error 16\n");  // EINVAL
        IPC_MSGQ_Delete(h);
    });
}

// Flags 0 on a full queue: the sender polls for room, through signals, until
// a reader makes some; a removed queue fails at once.
TEST(MsgQueue, FullQueueWaitsForAReaderThroughSignals) {
    in_private_ipc([] {
        void *h = make(0, 200);
        char data[100] = {};
        ASSERT_EQ(IPC_MSGQ_Send(h, data, 100, 1, 0) | IPC_MSGQ_Send(h, data, 100, 1, 0), KAVRO_OK);
        MessageRecord rec{};
        rec.dataLength = 10;
        rec.msgType = 1;
        EXPECT_EQ(kavro::detail::msgq_send_polling(qid(h), &rec, IPC_NOWAIT, 3, 1000), KAVRO_E_AGAIN);
        Child sender([&](int fd) {
            on_signal_do_nothing();
            Child::say(fd);
            return IPC_MSGQ_Send(h, data, 100, 1, 0) == KAVRO_OK ? 0 : 1;
        });
        ASSERT_TRUE(sender.said());
        for (int i = 0; i < 5; ++i, usleep(30000)) kill(sender.pid, SIGUSR1);
        uint32_t len = 0;
        EXPECT_EQ(IPC_MSGQ_Rcv(h, data, sizeof data, &len, 1, 0), KAVRO_OK);
        EXPECT_TRUE(sender.exit_code() == 0 && queued(h) == 2);
        ASSERT_EQ(msgctl(qid(h), IPC_RMID, nullptr), 0);
        EXPECT_EQ(IPC_MSGQ_Send(h, data, 1, 1, 0), KAVRO_E_FAIL);
    });
}

// Non-zero flags without IPC_NOWAIT wait in the kernel, across signals.
TEST(MsgQueue, WaitingReceiverGetsALaterMessageDespiteSignals) {
    KAVRO_REQUIRE_NATIVE("the emulator does not resume a blocking msgrcv interrupted by a signal");
    in_private_ipc([] {
        void *h = make();
        Child receiver([&](int fd) {
            on_signal_do_nothing();
            Child::say(fd);
            char buf[8];
            uint32_t len = 0;
            return IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 5, MSG_NOERROR) == KAVRO_OK && len == 3 ? 0 : 1;
        });
        ASSERT_TRUE(receiver.said());
        for (int i = 0; i < 5; ++i, usleep(20000)) kill(receiver.pid, SIGUSR1);
        ASSERT_EQ(IPC_MSGQ_Send(h, "end", 3, 5, 0), KAVRO_OK);
        EXPECT_EQ(receiver.exit_code(), 0);
    });
}

}  // namespace
