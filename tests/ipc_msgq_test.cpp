// System V queues and semaphore sets between processes in a private IPC namespace.

#include <sys/msg.h>
#include <sys/wait.h>

#include <chrono>

#include "ipc/ipc.hpp"
#include "test_support.hpp"

namespace {

using Child = kavro::test::ForkedChild;

int32_t qid(void *h) { return static_cast<MessageQueueRecord *>(h)->queueId; }
msgqnum_t queued(void *h) {
    msqid_ds ds{};
    return msgctl(qid(h), IPC_STAT, &ds) == 0 ? ds.msg_qnum : 999;
}
// Runs body in a child with its own IPC namespace and a new 200-byte queue; signals interrupt calls there.
void in_private_ipc(const std::function<void(void *)> &body) {
    const int rc = kavro::test::run_in_child([&] {
        if (unshare(CLONE_NEWIPC) != 0) return 77;
        signal(SIGUSR1, [](int) {});  // msgsnd is never restarted
        void *h = nullptr;
        msqid_ds ds{};
        CHILD_CHECK(IPC_MSGQ_Create(&h, 0, "test") == KAVRO_OK && msgctl(qid(h), IPC_STAT, &ds) == 0);
        CHILD_CHECK((ds.msg_qbytes = 200, msgctl(qid(h), IPC_SET, &ds)) == 0);
        body(h);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    if (rc == 77) GTEST_SKIP() << "no private IPC namespace";
    EXPECT_EQ(rc, 0);
}

// By key, whole by type, sizes bounded, flags 0 no blocking but a full queue holds the sender; tags kept apart.
TEST(MsgQueue, MessagesArriveWholeByTypeWithinTheirSizesAndWaitForRoom) {
    in_private_ipc([](void *other) {
        SEM_HANDLE local = nullptr, sysv = nullptr;
        ASSERT_TRUE(SEM_Create(&local, 0, 0, 0) == 0 && SEM_Create(&sysv, 0, 0, 1) == 0);
        int32_t c = 0;
        for (KAVRO_STATUS st : {IPC_SEM_Delete(local), PTHR_SEM_Delete(sysv), IPC_MSGQ_Delete(local),
                                IPC_MSGQ_Delete(sysv), SEM_Delete(other), SEM_GetCount(other, &c)})
            EXPECT_EQ(st, KAVRO_E_FAIL);
        for (SEM_HANDLE sem : {local, sysv})
            EXPECT_TRUE(SEM_Post(sem) == 0 && SEM_GetCount(sem, &c) == 0 && c == 1 && SEM_Delete(sem) == 0);
        void *h = nullptr;
        ASSERT_TRUE(IPC_MSGQ_Create(&h, 0x4D510001u, "test") == KAVRO_OK && qid(h) != qid(other));
        std::vector<char> msg(3 * KAVRO_MSGQ_MAX_DATA), buf(msg.size());
        for (size_t i = 0; i < msg.size(); ++i) msg[i] = char(i * 7);
        ASSERT_EQ(kavro::test::run_in_child([&] {  // the largest message, type 0
                      void *q = nullptr;
                      CHILD_CHECK(IPC_MSGQ_Create(&q, 0x4D510001u, nullptr) == KAVRO_OK && qid(q) == qid(h));
                      const int32_t max = KAVRO_MSGQ_MAX_DATA;
                      return (IPC_MSGQ_Send(q, "two", 3, 2, 0) | IPC_MSGQ_Send(q, msg.data(), max, 0, 0)) == 0 ? 0 : 1;
                  }),
                  0);
        uint32_t len = 77;
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, buf.data(), 50, &len, 1, 0) == KAVRO_E_FAIL && queued(h) == 2);  // too small
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, buf.data(), int32_t(buf.size()), &len, 0, 0) == KAVRO_OK &&
                    len == KAVRO_MSGQ_MAX_DATA && std::equal(buf.begin(), buf.begin() + len, msg.begin()));
        EXPECT_EQ(IPC_MSGQ_Rcv(h, buf.data(), 8, &len, 1, 0), KAVRO_E_AGAIN);
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, buf.data(), 8, &len, 2, 0) == KAVRO_OK && std::string(buf.data(), len) == "two");
        EXPECT_EQ(IPC_MSGQ_Send(h, msg.data(), KAVRO_MSGQ_MAX_DATA + 1, 1, 0), KAVRO_E_INVALIDARG);
        std::vector<long> raw(1 + 3000 / sizeof(long), 1);  // type 1, put there by another program: never overflows
        ASSERT_EQ(msgsnd(qid(h), raw.data(), 3000, IPC_NOWAIT), 0);
        EXPECT_TRUE(IPC_MSGQ_Rcv(h, buf.data(), int32_t(buf.size()), &len, 1, 0) == KAVRO_E_FAIL && queued(h) == 1u);
        const int32_t id = qid(h);
        EXPECT_TRUE(IPC_MSGQ_Delete(h) == KAVRO_OK && msgctl(id, IPC_STAT, nullptr) == -1);
        // Flags 0 on a full queue: the sender polls, through signals, until a reader makes room; gone: fails at once.
        char data[100] = {};
        ASSERT_EQ(IPC_MSGQ_Send(other, data, 100, 1, 0) | IPC_MSGQ_Send(other, data, 100, 1, 0), KAVRO_OK);
        MessageRecord rec{};  // nobody reads: the retry window ends with "try again" and adds nothing
        rec.dataLength = 1, rec.msgType = 1;
        EXPECT_TRUE(kavro::detail::msgq_send_polling(qid(other), &rec, IPC_NOWAIT, 3, 1000) == KAVRO_E_AGAIN &&
                    queued(other) == 2u);
        Child sender([&](int fd) { return Child::say(fd), IPC_MSGQ_Send(other, data, 100, 1, 0) == KAVRO_OK ? 0 : 1; });
        ASSERT_TRUE(sender.said());
        for (int i = 0; i < 5; ++i, usleep(30000)) kill(sender.pid, SIGUSR1);
        EXPECT_TRUE(IPC_MSGQ_Rcv(other, data, sizeof data, &len, 1, 0) == KAVRO_OK && sender.exit_code() == 0);
        ASSERT_EQ(msgctl(qid(other), IPC_RMID, nullptr), 0);
        EXPECT_EQ(IPC_MSGQ_Send(other, data, 1, 1, 0), KAVRO_E_FAIL);
    });
}

// A keyed semaphore set: an opener waits for the creator's first use, keeps the value, pends through signals.
TEST(SemSysV, KeyedSetIsSharedBetweenProcesses) {
    in_private_ipc([](void *) {
        SEM_HANDLE h = nullptr;
        ASSERT_EQ(SEM_Create(&h, 1, 0x5E3A0001u, 0), KAVRO_OK);
        Child opener([&](int fd) {
            const auto t0 = std::chrono::steady_clock::now();
            SEM_HANDLE mine = nullptr;
            int32_t c = -1;
            if (SEM_Create(&mine, 7, 0x5E3A0001u, 0) != 0 || SEM_GetCount(mine, &c) != 0 || c != 0 ||
                std::chrono::steady_clock::now() - t0 < std::chrono::milliseconds(250))
                return 1;
            return Child::say(fd), SEM_Pend(mine, KAVRO_WAIT_FOREVER) == KAVRO_E_FAIL ? 0 : 3;
        });
        usleep(400000);
        ASSERT_TRUE(SEM_Pend(h, KAVRO_WAIT_FOREVER) == KAVRO_OK && opener.said(15000));
        for (int i = 0; i < 5; ++i, usleep(40000)) kill(opener.pid, SIGUSR1);
        EXPECT_TRUE(waitpid(opener.pid, nullptr, WNOHANG) == 0 && SEM_Delete(h) == KAVRO_OK && opener.exit_code() == 0);
    });
}

}  // namespace
