// System V message queues: the record layer and the IPC_MSGQ_ handles,
// between real processes.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/ipc.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::test::run_in_child;

int32_t qid(void *h) { return static_cast<MessageQueueRecord *>(h)->queueId; }

msgqnum_t queued(int32_t id) {
    msqid_ds ds{};
    return msgctl(id, IPC_STAT, &ds) == 0 ? ds.msg_qnum : 999;
}

// Every queue a test makes, and its handle, goes in TearDown, whatever
// happened.
class MsgQueue : public ::testing::Test {
protected:
    void TearDown() override {
        for (void *h : handles_) IPC_MSGQ_Delete(h);
    }
    void *make(uint32_t key = 0, int32_t qbytes = 0) {
        void *h = nullptr;
        EXPECT_EQ(IPC_MSGQ_Create(&h, key, "test"), 0u);
        if (h == nullptr) return nullptr;
        handles_.push_back(h);
        msqid_ds ds{};
        if (qbytes > 0 && msgctl(qid(h), IPC_STAT, &ds) == 0) {
            ds.msg_qbytes = qbytes;
            EXPECT_EQ(msgctl(qid(h), IPC_SET, &ds), 0);
        }
        return h;
    }
    std::vector<void *> handles_;
};

TEST_F(MsgQueue, MessageFromAnotherProcessArrivesWholeAndByType) {
    kavro::test::ScratchDir dir;
    const uint32_t key = static_cast<uint32_t>(ftok(dir.path().c_str(), 'q'));
    ASSERT_EQ(msgget(static_cast<key_t>(key), 0), -1) << "key in use";
    void *h = make(key);
    ASSERT_NE(h, nullptr);
    std::string msg(100, '\0');
    for (size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<char>(i * 7);

    // The sender opens the queue by its key; type 0 and flags 0 mean type 1
    // without blocking.
    int rc = run_in_child([&] {
        void *q = nullptr;
        if (IPC_MSGQ_Create(&q, key, nullptr) != 0 || qid(q) != qid(h)) return 1;
        if (IPC_MSGQ_Send(q, "two", 3, 2, 0) != 0) return 2;
        return IPC_MSGQ_Send(q, msg.data(), 100, 0, 0) == 0 ? 0 : 3;
    });
    ASSERT_EQ(rc, 0);
    char buf[256];
    uint32_t len = 0;
    ASSERT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 0, 0), 0u);
    EXPECT_EQ(std::string(buf, len), msg);
    EXPECT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 1, 0), KAVRO_E_AGAIN);
    ASSERT_EQ(IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 2, 0), 0u);
    EXPECT_EQ(std::string(buf, len), "two");

    const int32_t id = qid(h);
    handles_.pop_back();
    EXPECT_EQ(IPC_MSGQ_Delete(h), 0u);
    EXPECT_EQ(queued(id), 999u);  // removed system-wide
}

TEST_F(MsgQueue, MessagesThatDoNotFitStayQueued) {
    void *h = make();
    ASSERT_NE(h, nullptr);
    const int32_t id = qid(h);
    std::vector<char> big(3 * KAVRO_MSGQ_MAX_DATA, 'b');
    uint32_t len = 77;
    ASSERT_EQ(IPC_MSGQ_Send(h, big.data(), 100, 1, 0), 0u);
    EXPECT_EQ(IPC_MSGQ_Rcv(h, big.data(), 50, &len, 1, 0), KAVRO_E_FAIL);
    EXPECT_EQ(queued(id), 1u);
    ASSERT_EQ(IPC_MSGQ_Rcv(h, big.data(), 100, &len, 1, 0), 0u);
    EXPECT_EQ(len, 100u);

    // The largest message passes; anything longer is refused, and one put
    // there by another program never overflows the staging record.
    ASSERT_EQ(IPC_MSGQ_Send(h, big.data(), KAVRO_MSGQ_MAX_DATA, 1, 0), 0u);
    ASSERT_EQ(IPC_MSGQ_Rcv(h, big.data(), static_cast<int32_t>(big.size()), &len, 1, 0), 0u);
    EXPECT_EQ(len, static_cast<uint32_t>(KAVRO_MSGQ_MAX_DATA));
    EXPECT_EQ(IPC_MSGQ_Send(h, big.data(), KAVRO_MSGQ_MAX_DATA + 1, 1, 0), KAVRO_E_INVALIDARG);
    MessageRecord rec{};
    rec.msgType = 1;
    rec.dataLength = KAVRO_MSGQ_MAX_DATA + 1;
    EXPECT_EQ(mesg_send(id, &rec, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, EINVAL);
    struct {
        long type;
        char text[3000];
    } raw{1, {}};
    ASSERT_EQ(msgsnd(id, &raw, sizeof raw.text, IPC_NOWAIT), 0);
    EXPECT_EQ(IPC_MSGQ_Rcv(h, big.data(), static_cast<int32_t>(big.size()), &len, 1, 0), KAVRO_E_FAIL);
    EXPECT_EQ(mesg_recv(id, &rec, 8192, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(rec.dataLength, -1);
    EXPECT_EQ(queued(id), 1u);
}

TEST_F(MsgQueue, FullQueueWaitsForAReaderOrGivesUp) {
    void *h = make(0, 200);
    ASSERT_NE(h, nullptr);
    char data[100] = {};
    ASSERT_EQ(IPC_MSGQ_Send(h, data, 100, 1, 0), 0u);
    ASSERT_EQ(IPC_MSGQ_Send(h, data, 100, 1, 0), 0u);
    MessageRecord rec{};
    rec.dataLength = 10;
    rec.msgType = 1;
    EXPECT_EQ(kavro::detail::msgq_send_polling(qid(h), &rec, IPC_NOWAIT, 3, 1000), KAVRO_E_AGAIN);

    kavro::test::ForkedChild reader([&](int) {
        usleep(300000);
        uint32_t len = 0;
        return IPC_MSGQ_Rcv(h, data, sizeof data, &len, 1, 0) == 0 ? 0 : 1;
    });
    EXPECT_EQ(IPC_MSGQ_Send(h, data, 100, 1, 0), 0u);
    EXPECT_EQ(reader.exit_code(), 0);
    EXPECT_EQ(queued(qid(h)), 2u);
}

// Non-zero flags without IPC_NOWAIT wait in the kernel, across signals.
TEST_F(MsgQueue, WaitingReceiverGetsALaterMessageDespiteSignals) {
    KAVRO_REQUIRE_NATIVE("the emulator does not resume a blocking msgrcv interrupted by a signal");
    void *h = make();
    ASSERT_NE(h, nullptr);
    kavro::test::ForkedChild receiver([&](int fd) {
        struct sigaction sa {};
        sa.sa_handler = [](int) {};
        sigaction(SIGUSR1, &sa, nullptr);  // without SA_RESTART
        kavro::test::ForkedChild::say(fd);
        char buf[8];
        uint32_t len = 0;
        return IPC_MSGQ_Rcv(h, buf, sizeof buf, &len, 5, MSG_NOERROR) == 0 && len == 3 ? 0 : 1;
    });
    ASSERT_TRUE(receiver.said());
    for (int i = 0; i < 5; ++i, usleep(20000)) kill(receiver.pid, SIGUSR1);
    ASSERT_EQ(IPC_MSGQ_Send(h, "end", 3, 5, 0), 0u);
    EXPECT_EQ(receiver.exit_code(), 0);
}

TEST_F(MsgQueue, BadInputAnswersWithAStatus) {
    void *h = reinterpret_cast<void *>(1);
    EXPECT_EQ(IPC_MSGQ_Create(&h, 0, nullptr), KAVRO_E_INVALIDARG);
    EXPECT_EQ(h, nullptr);
    void *a = make(), *b = make();  // key 0 with a name: a new queue each time
    ASSERT_TRUE(a != nullptr && b != nullptr);
    EXPECT_NE(qid(a), qid(b));

    char buf[8] = {};  // sent below: no uninitialised bytes to the kernel
    uint32_t len = 0;
    // On a live queue (null handles are the robustness table's).
    EXPECT_EQ(IPC_MSGQ_Rcv(a, buf, -1, &len, 1, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(mesg_send(qid(a), nullptr, 0), -1);
    EXPECT_EQ(mesg_recv(qid(a), nullptr, 8, 0), -1);

    // A failing send through the reporting twin leaves a line.
    MessageRecord rec{};
    rec.dataLength = 1;
    rec.msgType = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Mesg_send(-1, &rec, IPC_NOWAIT), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mesg_send error 16\n");  // EINVAL

    // A removed queue fails at once rather than being polled.
    ASSERT_EQ(msgctl(qid(b), IPC_RMID, nullptr), 0);
    EXPECT_EQ(IPC_MSGQ_Send(b, buf, 1, 1, 0), KAVRO_E_FAIL);
}

// Semaphores and queues share one tag: each family refuses the other's
// handles and leaves them working.
TEST_F(MsgQueue, SemaphoreAndQueueHandlesAreNotTakenForEachOther) {
    void *q = make();
    SEM_HANDLE local = nullptr, sysv = nullptr;
    ASSERT_TRUE(q != nullptr && SEM_Create(&local, 0, 0, 0) == 0 && SEM_Create(&sysv, 0, 0, 1) == 0);
    int32_t c = 0;
    for (KAVRO_STATUS st : {IPC_SEM_Delete(local), IPC_SEM_Post(local), PTHR_SEM_Delete(sysv), PTHR_SEM_Post(sysv),
                            IPC_MSGQ_Delete(local), IPC_MSGQ_Delete(sysv), SEM_Delete(q), SEM_Post(q),
                            SEM_GetCount(q, &c), IPC_SEM_Delete(q)})
        EXPECT_EQ(st, KAVRO_E_FAIL);
    char m = 'x';
    uint32_t len = 0;
    EXPECT_TRUE(IPC_MSGQ_Send(q, &m, 1, 1, 0) == 0 && IPC_MSGQ_Rcv(q, &m, 1, &len, 1, 0) == 0 && len == 1);
    for (SEM_HANDLE h : {local, sysv}) {
        EXPECT_TRUE(SEM_Post(h) == 0 && SEM_GetCount(h, &c) == 0 && c == 1);
        EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
    }
}

}  // namespace
