// Every exported call with bad input (nulls, extreme sizes, released or foreign handles), each in a child: the
// expected status, no signal, no hang. Released handles are blocks tagged KAVRO_TAG_RELEASED (sanitizer-safe).

#include <climits>
#include <cmath>
#include <cstdarg>
#include <functional>
#include <optional>

#include "test_support.hpp"

namespace {

// Results compare as 32-bit words, pointers as 0 (null) or 1. A row with handles set runs once for each bad
// handle it names (null, released, foreign), `bad` standing for it.
struct Row {
    const char *call;
    std::function<uint32_t()> fn;
    std::optional<uint32_t> want;
    int handles = 0;
};
const std::optional<uint32_t> kAny;
enum { kNull = 1, kReleased = 2, kForeign = 4, kTagged = kReleased | kForeign, kAll = 7 };

// The tables below are data, packed by hand: the formatter would put one row a line.
// clang-format off
#define ROW(expr, want) Row{#expr, [&]() -> uint32_t { return static_cast<uint32_t>(expr); }, want}
#define PTR(expr, want) Row{#expr, [&]() -> uint32_t { return (expr) != nullptr; }, want}
#define VOID(expr) Row{#expr, [&]() -> uint32_t { expr; return 0; }, 0u}
#define BAD(expr, want, handles) Row{#expr, [&]() -> uint32_t { return static_cast<uint32_t>(expr); }, want, handles}

constexpr uint32_t kOk = KAVRO_OK, kFail = KAVRO_E_FAIL, kArg = KAVRO_E_INVALIDARG;
constexpr uint32_t kMinus1 = 0xFFFFFFFFu, kForever = KAVRO_WAIT_FOREVER;

// Large, zeroed blocks so that a family reading past the tag stays inside.
alignas(64) uint32_t g_released[1024] = {KAVRO_TAG_RELEASED};
alignas(64) uint32_t g_foreign[1024] = {KAVRO_TAG_NET};
alignas(64) uint32_t g_foreign_shm[1024] = {KAVRO_TAG_SHM};
alignas(64) uint32_t g_foreign_sem[1024] = {KAVRO_TAG_SEM, 1, 0x7FFFFFFF};  // a System V set that is not there
void *const kRel = g_released, *const kAlien = g_foreign, *const kAlienSem = g_foreign_sem,
           *const kAlienShm = g_foreign_shm;
void *g_bad = nullptr;
struct AnyHandle {
    template <typename T> operator T *() const { return static_cast<T *>(g_bad); }
} const bad;

// Seen by the compiler as possibly non-null, so null formats compile without warnings.
const char *volatile g_null_text = nullptr;
#define NULLTEXT ((const char *)g_null_text)

void vformat(bool to_out, char *dst, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    to_out ? GP_vprintf(format, ap) : GP_vsprintf(dst, format, ap);
    va_end(ap);
}

void run_table(const std::vector<Row> &rows, const std::function<int()> &setup = [] { return 0; }) {
    for (const Row &r : rows) {
        for (int h : {0, +kNull, +kReleased, +kForeign}) {
            if (h != 0 ? (r.handles & h) == 0 : r.handles != 0) continue;
            void *const handle = h == kReleased ? kRel : h == kForeign ? kAlien : nullptr;
            const int rc = kavro::test::run_in_child([&] {
                if (int s = setup(); s != 0) return s;
                g_bad = handle;
                const uint32_t got = r.fn();
                if (!r.want || got == *r.want) return 0;
                return std::fprintf(stderr, "%s returned 0x%08X, want 0x%08X\n", r.call, got, *r.want), 1;
            }, 30);
            if (rc == kavro::test::kNoMounts) GTEST_SKIP() << "no private namespace for this family's fixed paths";
            EXPECT_EQ(rc, 0) << r.call << " (bad handle " << h << "; 1: wrong status, 128 + signal: crash or hang)";
        }
    }
}

// System V objects made by a row vanish with its private IPC namespace.
int private_ipc() { return unshare(CLONE_NEWIPC) == 0 ? 0 : kavro::test::kNoMounts; }
int private_install_dir() {
    std::string why;
    return kavro::test::private_mounts({"/usr/torvanex"}, &why) ? 0 : kavro::test::kNoMounts;
}

TEST(Robustness, CoreMemoryListAndProcess) {
    LST_List *list = nullptr;
    LST_Elem elem{};
    timespec ts{};
    int32_t a = 0;
    run_table({
        PTR(KAVRO_OBJ_Alloc(0, KAVRO_TAG_SEM, 0), 0u), PTR(KAVRO_OBJ_Alloc(8, KAVRO_TAG_SEM, 0xFFFFFFFFu), 0u),
        PTR(KAVRO_OBJ_Alloc(8, KAVRO_TAG_SEM, 4), 1u), VOID(KAVRO_OBJ_Free(nullptr, 0)), PTR(MEM_Calloc(0, 999), 0u),
        VOID(MEM_Free2(nullptr)), VOID(GP_printf(NULLTEXT)), ROW(DBG_Printf(NULLTEXT), kOk),
        ROW(DBG_Trace(NULLTEXT), kOk), ROW(_ULX_MakeAbsTime(nullptr, 0), kArg),
        ROW(_ULX_MakeAbsTime(&ts, kForever), kOk), ROW(SMP_GetNumProcessors(&a, nullptr), kArg),
        ROW(SMP_GetNumProcessors(nullptr, &a), kArg), VOID(LST_Delete(nullptr)), PTR(LST_InitElem(nullptr), 0u),
        PTR(LST_PutTail(nullptr, &elem), 0u), PTR(LST_PutTail(list = LST_Create(), nullptr), 0u),
        ROW(LST_GetHead(nullptr), 0u), ROW(LST_GetHead(list = LST_Create()), 0u), PTR(LST_First(nullptr), 0u),
        PTR(LST_Next(nullptr, &elem), 0u), PTR(LST_Next(list = LST_Create(), nullptr), 0u),
        VOID(LST_RemoveElem(nullptr, &elem)), VOID(LST_RemoveElem(list = LST_Create(), nullptr)),
    });
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The largest sizes: null, or a releasable block (sanitizers abort instead).
    void *big = nullptr;
    run_table({
        ROW((big = MEM_Alloc(0xFFFFFFFFu, 999), MEM_Free2(big), 0), kOk),
        ROW((big = MEM_Calloc(0xFFFFFFFFu, 1), MEM_Free(big), 0), kOk),
        ROW((big = KAVRO_OBJ_Alloc(0xFFFFFFFFu, KAVRO_TAG_SEM, 0), KAVRO_OBJ_Free(big, 0), 0), kOk),
    });
#endif
}

// The clock calls' bad input is the kernel's: clock_test.
TEST(Robustness, UtilitiesFormatVersionReportErrorsCmos) {
    char buf[256] = {};
    run_table({
        VOID(GP_sprintf(nullptr, "x")), VOID(GP_sprintf(buf, NULLTEXT)), VOID(vformat(false, nullptr, NULLTEXT)),
        VOID(vformat(true, nullptr, NULLTEXT)), ROW(_libTorVersion2String(nullptr, 0, buf), kMinus1),
        ROW(_libTorVersion2String("TXcid", INT_MAX, nullptr), kMinus1), ROW(qLibVersionString(nullptr), kMinus1),
        VOID(MYerror(nullptr, INT_MIN, nullptr)), ROW(MY_c_perror(0, nullptr, 0, nullptr), kMinus1),
        ROW(No_error(0, nullptr, 0, nullptr), kOk), ROW(printfx(NULLTEXT, 1, 1), kMinus1),
        ROW(printfx("%d %d\n", 1, 0), kMinus1), ROW(printf2(NULLTEXT, 1, 1), kMinus1), VOID(err_ret(NULLTEXT)),
        VOID(err_msg(NULLTEXT)), ROW(Set_CMOS_From_OSTime(-1), kOk), ROW(Read_CMOS_UntilChange(-1, 1), 0u),
        ROW(POLL_Init(), kOk), ROW(POLL_Open(0), kOk), ROW(POLL_Ctl(UINTPTR_MAX, nullptr, -1), kOk),
        ROW(POLL_Wait(0, nullptr, kForever), kOk),
    });
}

TEST(Robustness, FileNetworkLoader) {
    kavro::test::ScratchDir dir;
    const std::string path = dir.path() + "/f";
    auto fresh = [&] { return KFILE_Open(path.c_str(), "w+"); };
    KFILE closed{reinterpret_cast<FILE *>(g_released), 0};  // the calls share one check of the mark
    char buf[64] = {};
    InterfaceRecord *rec = nullptr;
    run_table({
        PTR(KFILE_Open(nullptr, "r"), 0u), PTR(KFILE_Open(path.c_str(), nullptr), 0u),
        PTR(KFILE_Open("/nonexistent/dir/f", "r"), 0u), PTR(KFILE_Open(path.c_str(), "zz"), 0u),
        ROW(KFILE_Close(nullptr), kMinus1), ROW(KFILE_Close(&closed), kMinus1),
        ROW(KFILE_Read(buf, 1, 1, nullptr), kMinus1), ROW(KFILE_Read(nullptr, 1, 1, fresh()), -5u),
        ROW(KFILE_Read(buf, 1, 0xFFFFFFFFu, fresh()), -22u), ROW(KFILE_Read(buf, 0, 0, fresh()), 0u),
        ROW(KFILE_Write(buf, 1, 1, nullptr), kMinus1), ROW(KFILE_Write(nullptr, 1, 1, fresh()), -5u),
        ROW(KFILE_Write(buf, 1, 0xFFFFFFFFu, fresh()), -22u), ROW(KFILE_Seek(nullptr, 0, SEEK_SET), kMinus1),
        ROW(KFILE_Seek(fresh(), 0, INT_MAX), kMinus1), ROW(KFILE_Tell(nullptr), kMinus1),
        ROW(NET_GetInterface(nullptr), kArg), ROW(NET_GetNextInterface(nullptr), kFail),
        ROW(NET_GetNextInterface(&rec), kFail), ROW(NET_GetMacAddress(nullptr, buf), kArg),
        BAD(NET_GetMacAddress(bad, nullptr), kFail, kReleased), BAD(NET_GetMacAddress(bad, buf), kFail, kReleased),
    });
    LDR_Module *m = nullptr;
    void *addr = nullptr;
    auto loaded = [&] { return LDR_LoadModule(&m, "libc.so.6") == 0 ? m : nullptr; };
    run_table({
        ROW(LDR_LoadModule(nullptr, "libc.so.6"), kArg), ROW(LDR_LoadModule(&m, nullptr), kArg),
        ROW(LDR_LoadModule(&m, "/nonexistent/module.so"), KAVRO_E_LOADFAILED),
        ROW(LDR_LoadModule(&m, std::string(5000, 'm').c_str()), KAVRO_E_LOADFAILED),
        ROW(LDR_GetProcAddress(nullptr, "printf", &addr), kArg),
        BAD(LDR_GetProcAddress(bad, "printf", &addr), kFail, kTagged),
        ROW(LDR_GetProcAddress(loaded(), nullptr, &addr), kArg),
        ROW(LDR_GetProcAddress(loaded(), "printf", nullptr), kArg), ROW(LDR_FreeModule(nullptr), kArg),
        BAD(LDR_FreeModule(bad), kFail, kTagged),
    },
        [] { return private_install_dir() != 0 ? kavro::test::kNoMounts : (LDR_Init(), 0); });
}

TEST(Robustness, Registry) {
    char value[16] = {};
    uint32_t size = sizeof value, word = 1;
    const std::string longName(300, 'n');
    run_table({
        ROW(REG_GetValue(value, "s", "e", value, &size), KAVRO_E_NOTIMPL),
        ROW(REG_GetValue(nullptr, nullptr, "e", value, &size), kArg),
        ROW(REG_GetValue(nullptr, "s", nullptr, value, &size), kArg),
        ROW(REG_GetValue(nullptr, "s", "e", nullptr, &size), kArg),
        ROW(REG_GetValue(nullptr, "s", "e", value, nullptr), kArg),
        ROW(REG_SetValue(nullptr, nullptr, "e", 1, "v", &size), kArg),
        ROW(REG_SetValue(nullptr, "s", nullptr, 1, "v", &size), kArg),
        ROW(REG_SetValue(nullptr, "s", "e", 1, nullptr, &size), kArg),
        ROW(REG_SetValue(nullptr, "s", "e", 1, "v", nullptr), kArg),
        ROW(REG_SetValue(nullptr, "", "e", 1, "v", &size), kArg),
        ROW(REG_SetValue(nullptr, longName.c_str(), "e", 1, "v", &size), kArg),
        ROW(REG_SetValue(nullptr, "s", "e", 1, longName.c_str(), &size), kArg),
        ROW(REG_SetValue(nullptr, "s", "e", 3, &word, &size), KAVRO_E_NOTIMPL),
        ROW(REG_SetValue(nullptr, "s", "e", 0xFFFFFFFFu, &word, &size), kFail),
        ROW(REG_DeleteEntry(nullptr, nullptr, "e"), kArg), ROW(REG_DeleteEntry(nullptr, "s", nullptr), kArg),
        ROW(REG_DeleteEntry(value, "s", "e"), KAVRO_E_NOTIMPL),
    },
        [] {  // an empty registry, so that the arguments are what is refused
            if (int rc = private_install_dir(); rc != 0) return rc;
            mkdir("/usr/torvanex/cfg", 0755);
            return kavro::test::write_file("/usr/torvanex/cfg/.registry", "") ? 0 : 1;
        });
}

TEST(Robustness, SemaphoresAndMailboxes) {
    SEM_HANDLE h = nullptr;
    int32_t count = 0;
    auto counter = [&] { return SEM_Create(&h, 0, 0, 0) == 0 ? h : nullptr; };
    auto sysv = [&] { return IPC_SEM_Create(&h, 0, 0) == 0 ? h : nullptr; };
    run_table({
        ROW(SEM_Create(nullptr, 0, 0, 0), kArg), ROW(SEM_Create(nullptr, 1, 0x5EAFu, 1), kArg),
        ROW(SEM_Create(&h, INT_MAX, 0, 0), kOk), ROW(SEM_Create(&h, INT_MAX, 0, 1), kAny),
        ROW(SEM_Create(&h, -1, 0xFFFFFFFFu, 1), kAny), ROW(SEM_Create_2(nullptr, 0), kArg),
        ROW(SEM_Create_2(&h, 0xFFFFFFFFu), kAny), ROW(SEM_Delete(nullptr), kOk), BAD(SEM_Delete(bad), kFail, kTagged),
        BAD(SEM_Pend(bad, kForever), kFail, kAll), ROW(SEM_Pend(kAlienSem, kForever), kFail),
        ROW(SEM_Pend(counter(), 0), KAVRO_E_TIMEOUT), BAD(SEM_TryPend(bad), kFail, kNull | kReleased),
        BAD(SEM_Post(bad), kFail, kAll), BAD(SEM_Reset(bad, INT_MIN), kFail, kNull | kReleased),
        ROW(SEM_Reset(counter(), INT_MIN), kOk), BAD(SEM_GetCount(bad, &count), kFail, kNull | kReleased),
        ROW(SEM_GetCount(counter(), nullptr), kArg), BAD(SEM_GetSystemHandle(bad), kFail, kNull | kReleased),
        ROW(PTHR_SEM_Create(nullptr, 0), kArg), ROW(PTHR_SEM_Create_2(nullptr, 0), kArg),
        ROW(PTHR_SEM_Create_2(&h, 0xFFFFFFFFu), kAny), BAD(PTHR_SEM_Delete(bad), kFail, kAll),
        BAD(PTHR_SEM_Pend(bad, kForever), kFail, kNull | kReleased),
        BAD(PTHR_SEM_TryPend(bad), kFail, kNull | kForeign), BAD(PTHR_SEM_Post(bad), kFail, kNull | kReleased),
        BAD(PTHR_SEM_Reset(bad, 0), kFail, kNull | kForeign),
        BAD(PTHR_SEM_GetCount(bad, &count), kFail, kNull | kReleased), ROW(PTHR_SEM_GetCount(counter(), nullptr), kArg),
        ROW(PTHR_SEM_GetSystemHandle(nullptr), kFail), ROW(IPC_SEM_Create(nullptr, 0, 0), kArg),
        ROW(IPC_SEM_Create(&h, INT_MAX, 0xFFFFFFFFu), kAny), BAD(IPC_SEM_Delete(bad), kFail, kAll),
        BAD(IPC_SEM_Pend(bad), kFail, kNull | kReleased), ROW(IPC_SEM_Pend(kAlienSem), kFail),
        BAD(IPC_SEM_Post(bad), kFail, kNull | kReleased), BAD(IPC_SEM_Reset(bad, INT_MIN), kFail, kNull | kForeign),
        BAD(IPC_SEM_GetCount(bad, &count), kFail, kNull | kReleased), ROW(IPC_SEM_GetCount(sysv(), nullptr), kArg),
        ROW(IPC_SEM_TryPend(nullptr), kFail), ROW(IPC_SEM_GetSystemHandle(nullptr), kFail),
    },
        private_ipc);

    MBX_HANDLE mbx = nullptr;
    char msg[16] = {};
    auto empty = [&] { return MBX_Create(&mbx, 4, 2) == 0 ? mbx : nullptr; };
    auto slotless = [&] { return MBX_Create(&mbx, 4, 0) == 0 ? mbx : nullptr; };
    run_table({
        ROW(MBX_Create(nullptr, 4, 4), kArg), ROW(MBX_Create(&mbx, 0, 4), KAVRO_E_OUTOFMEMORY),
        ROW(MBX_Create(&mbx, 0xFFFFFFFFu, 0xFFFFFFFFu), KAVRO_E_OUTOFMEMORY),
        ROW(MBX_Create(&mbx, 0x10000, 0x10000), KAVRO_E_OUTOFMEMORY), ROW(MBX_Create(&mbx, 0, 0), kAny),
        ROW(MBX_Delete(nullptr), kOk), ROW(MBX_Post(nullptr, msg, kForever), kArg),
        ROW(MBX_Post(empty(), nullptr, kForever), kArg), ROW(MBX_Post(slotless(), msg, kForever), kFail),
        ROW(MBX_Pend(nullptr, msg, kForever), kArg), ROW(MBX_Pend(empty(), nullptr, kForever), kArg),
        ROW(MBX_Pend(slotless(), msg, kForever), kFail), ROW(MBX_Pend(empty(), msg, 0), KAVRO_E_TIMEOUT),
        ROW(MBX_GetCount(nullptr, &count), kArg), ROW(MBX_GetCount(empty(), nullptr), kArg),
        ROW(MBX_GetMaxCount(nullptr, &count), kArg), ROW(MBX_GetMaxCount(empty(), nullptr), kArg),
    });
}

TEST(Robustness, KeysQueuesSharedMemory) {
    kavro::test::ScratchDir dir;
    const std::string prefix = dir.path() + "/";
    uint32_t key = 0, len = 0;
    void *h = nullptr, *addr = nullptr;
    char data[64] = {};
    MessageRecord rec{};
    auto queue = [&] { return IPC_MSGQ_Create(&h, 0, "q") == 0 ? h : nullptr; };
    auto segment = [&] { return IPC_SHM_Create(&h, 0x5EA0u, 64, nullptr, nullptr) == 0 ? h : nullptr; };
    // A null queue handle stands for queue 0, which a fresh namespace lacks; 4 GiB of memory: x86_64 allows it.
    run_table({
        ROW(IPC_Init(nullptr), kOk), ROW(IPC_GetKey(nullptr, 0, &key), kArg), ROW(IPC_GetKey("k", 0, nullptr), kOk),
        ROW(IPC_GetKey("k", INT_MIN, &key), kOk), ROW(IPC_GetKey(std::string(2000, 'k').c_str(), INT_MAX, &key), kFail),
        ROW(IPC_GetKey("no/such/dir", 1, &key), kFail), ROW(IPC_GetUniqueKey(nullptr), kArg),
        ROW(IPC_ReturnUniqueKey(-1), kFail), ROW(IPC_ReturnUniqueKey(5000), kFail),
        ROW(mesg_send(-1, nullptr, 0), kMinus1), ROW(mesg_send(-1, &(rec.dataLength = -1, rec), 0), kMinus1),
        ROW(mesg_send(-1, &(rec.dataLength = INT_MAX, rec), 0), kMinus1),
        ROW(Mesg_send(INT_MAX, nullptr, INT_MIN), kMinus1), ROW(mesg_recv(-1, nullptr, 1, 0), kMinus1),
        ROW(mesg_recv(-1, &rec, -1, 0), kMinus1), ROW(mesg_recv(-1, &rec, INT_MAX, 0), kMinus1),
        ROW(Mesg_recv(INT_MIN, nullptr, INT_MIN, INT_MIN), kMinus1), ROW(IPC_MSGQ_Create(nullptr, 0, "q"), kArg),
        ROW(IPC_MSGQ_Create(&h, 0, nullptr), kArg), ROW(IPC_MSGQ_Create(&h, 0xFFFFFFFFu, nullptr), kAny),
        BAD(IPC_MSGQ_Send(bad, data, 1, 1, 0), kFail, kNull | kReleased),
        ROW(IPC_MSGQ_Send(kAlienShm, data, 1, 1, 0), kFail), ROW(IPC_MSGQ_Send(queue(), nullptr, 1, 1, 0), kArg),
        ROW(IPC_MSGQ_Send(queue(), data, 0, 1, 0), kArg), ROW(IPC_MSGQ_Send(queue(), data, INT_MAX, 1, 0), kArg),
        ROW(IPC_MSGQ_Send(kAlienSem, data, 1, 1, 0), kFail),
        BAD(IPC_MSGQ_Rcv(bad, data, sizeof data, &len, 1, 0), kFail, kNull | kReleased),
        ROW(IPC_MSGQ_Rcv(queue(), nullptr, 1, &len, 1, 0), kArg), ROW(IPC_MSGQ_Rcv(queue(), data, 0, &len, 1, 0), kArg),
        ROW(IPC_MSGQ_Rcv(queue(), data, sizeof data, nullptr, 1, 0), kArg),
        ROW(IPC_MSGQ_Rcv(queue(), data, sizeof data, &len, INT_MIN, 0), KAVRO_E_AGAIN),
        ROW(IPC_MSGQ_Delete(nullptr), kArg), ROW(IPC_MSGQ_Delete(kRel), kFail), ROW(IPC_MSGQ_Delete(kAlienShm), kFail),
        ROW(IPC_SHM_Create(nullptr, 0x5EA0u, 64, &addr, nullptr), kArg),
        ROW(IPC_SHM_Create(&h, 0x5EA0u, 0, &addr, nullptr), kFail),
        ROW(IPC_SHM_Create(&h, 0x5EA0u, 0xFFFFFFFFu, &addr, nullptr), kAny),
        ROW(IPC_SHM_Create(&h, 0, 64, nullptr, nullptr), kAny),
        BAD(IPC_SHM_Map(bad, nullptr), kFail, kNull | kReleased), ROW(IPC_SHM_Map(kAlienSem, nullptr), kFail),
        ROW(IPC_SHM_Map(segment(), reinterpret_cast<void *>(1)), kFail), ROW(IPC_SHM_Delete(nullptr), kOk),
        ROW(IPC_SHM_Delete(kRel), kFail), ROW(IPC_SHM_Delete(kAlienSem), kFail),
        BAD(IPC_SHM_GetCount(bad, &len), kFail, kNull | kReleased), ROW(IPC_SHM_GetCount(segment(), nullptr), kArg),
        ROW(detachandremove(-1, nullptr), kMinus1), ROW(detachandremove(INT_MAX, data), kMinus1),
    },
        [&] { return private_ipc() != 0 ? kavro::test::kNoMounts : static_cast<int>(IPC_Init(prefix.c_str())); });
}

TEST(Robustness, NamedPipes) {
    kavro::test::ScratchDir dir;
    const std::string root = dir.path(), longPath(5000, 'p');
    int32_t fd = 0, n = 0;
    char buf[64] = {};
    FifoKeyStatus ks[IPC_FIFO_TABLE_SIZE + 1] = {};
    auto reader = [&] {  // the read end of a FIFO that nobody writes
        const std::string p = root + "/r";
        return IPC_FIFO_Create(0, &fd, 0, p.c_str()) == 0 ? fd : -1;
    };
    run_table({
        ROW(IPC_FIFO_Write(0, 7, 0, buf, &n, 1, 0), kFail), ROW(IPC_FIFO_KeyStatus(ks, &n, 0), kOk),
        ROW(IPC_FIFO_RemoveKeys(ks, INT_MAX, 1), kOk), ROW(IPC_FIFO_Exit(), kOk),
    },
              [&] { return setenv("TRVXROOT", root.c_str(), 1); });  // before IPC_FIFO_Init
    run_table({
        ROW(IPC_FIFO_Create(0, nullptr, 0, "p"), kArg),
        ROW(IPC_FIFO_Create(UINTPTR_MAX, &fd, UINTPTR_MAX, nullptr), kArg),
        ROW(IPC_FIFO_Create(0, &fd, 0, "/nonexistent/dir/p"), kOk),
        ROW(IPC_FIFO_Create(0, &fd, 0, longPath.c_str()), kOk), ROW(IPC_FIFO_Read(-1, buf, &n, sizeof buf), kAny),
        ROW(IPC_FIFO_Read(reader(), nullptr, &n, sizeof buf), kFail),
        ROW(IPC_FIFO_Read(reader(), buf, nullptr, sizeof buf), kArg), ROW(IPC_FIFO_Read(reader(), buf, &n, 0), kFail),
        ROW(IPC_FIFO_Read(reader(), buf, &n, sizeof buf), kAny), ROW(IPC_FIFO_Write(0, 0, 0, buf, &n, 1, 0), kArg),
        ROW(IPC_FIFO_Write(0, 7, 0, nullptr, &n, 1, 0), kArg), ROW(IPC_FIFO_Write(0, 7, 0, buf, nullptr, 1, 0), kArg),
        ROW(IPC_FIFO_Write(0, 7, 0, buf, &n, 0, 0), kArg),
        ROW(IPC_FIFO_Write(UINTPTR_MAX, 0xFFFFFFFFu, INT_MIN, buf, &n, 1, INT_MIN), kFail),
        ROW(IPC_FIFO_CheckKey_2(0, 0), kFail), ROW(IPC_FIFO_CheckKey_2(0xFFFFFFFFu, INT_MIN), kFail),
        ROW(IPC_FIFO_CheckKey(0), kAny), ROW(IPC_FIFO_KeyStatus(nullptr, &n, 0), kArg),
        ROW(IPC_FIFO_KeyStatus(ks, nullptr, 1), kArg), ROW(IPC_FIFO_RemoveKeys(nullptr, 1, 0), kFail),
        ROW(IPC_FIFO_RemoveKeys(ks, -1, 0), kOk), ROW(IPC_FIFO_Delete(0), kOk),
        ROW(IPC_FIFO_Detach(UINTPTR_MAX, nullptr), kOk), ROW(set_nonblock(-1), kMinus1),
    },
        [&] { return setenv("TRVXROOT", root.c_str(), 1), static_cast<int>(IPC_FIFO_Init()); });
}

// Threads and task locks trust every handle but null; the timer checks its tag.
void idle(void *) { sleep(5); }
int32_t nop(uint32_t) { return 0; }

TEST(Robustness, ThreadsTaskLocksTimer) {
    ThreadObj *t = nullptr;
    ThreadAttr attr{};
    uint32_t word = 0;
    int32_t prio = 0;
    char name[THREAD_GETNAME_SIZE] = {};
    pthread_t sys{};
    LckObj *lock = nullptr;
    TmrTimer *tmr = nullptr;
    auto with = [&](uint32_t length, uint32_t priority, int32_t numArgs) {
        attr = ThreadAttr{length, priority, 0, 0, numArgs, nullptr};
        return &attr;
    };
    // Null where real-time scheduling is refused: same status either way.
    auto live = [&] { return THREAD_Create(&t, idle, nullptr, nullptr) == 0 ? t : nullptr; };
    // The families not started.
    run_table({
        ROW(THREAD_Create(&t, idle, nullptr, nullptr), kFail), ROW(LCK_Lock(nullptr), kFail),
        ROW(LCK_Unlock(nullptr), kFail), ROW(LCK_Lock_2(), kFail), ROW(LCK_Unlock_2(), kFail),
        ROW(LCK_Create(nullptr), kArg), ROW(LCK_Delete(nullptr), kArg),
        ROW(TMR_Create(&tmr, 2.0, nop, 0), KAVRO_E_NOTMRINIT), ROW(TMR_Create(nullptr, std::nan(""), nullptr, 0), kAny),
        ROW(TMR_Delete(nullptr), kOk), BAD(TMR_SetTime(bad, 2.0), kArg, kAll),
        ROW(TMR_GetTimerInfo(nullptr, nullptr), KAVRO_E_NOTIMPL), ROW(TMR_Wait(0), kOk), ROW(TMR_Wait(-1.0), kAny),
        ROW(TMR_Wait(std::nan("")), kAny), ROW(TMR_gmtime(nullptr, nullptr), kOk), ROW(TMR_GetTimeOfDay(nullptr), kOk),
        ROW(TMR_Time(nullptr), kOk), ROW(TMR_Exit(), kAny),
    });
    run_table({
        ROW(THREAD_Create(nullptr, idle, nullptr, nullptr), KAVRO_E_POINTER),
        ROW(THREAD_Create(&t, nullptr, nullptr, nullptr), KAVRO_E_POINTER),
        ROW(THREAD_Create(&t, idle, nullptr, with(0, 1, -1)), kArg),
        ROW(THREAD_Create(&t, idle, nullptr, with(0xFFFFFFFFu, 1, -1)), kArg),
        ROW(THREAD_Create(&t, idle, nullptr, with(THREAD_ATTR_LENGTH, 16, -1)), kArg),
        ROW(THREAD_Create(&t, idle, nullptr, with(THREAD_ATTR_LENGTH, 0xFFFFFFFFu, -1)), kArg),
        ROW(THREAD_Create(&t, idle, nullptr, with(THREAD_ATTR_LENGTH, 1, 9)), kArg),
        ROW(THREAD_Create(&t, idle, nullptr, with(THREAD_ATTR_SHORT_LENGTH, 1, INT_MIN)), kArg),
        ROW(THREAD_Create(&t, idle, nullptr, with(THREAD_ATTR_LENGTH, 1, 1)), KAVRO_E_POINTER),
        ROW(THREAD_Create(&t, idle, nullptr, with(THREAD_ATTR_SHORT_LENGTH, 1, THREAD_MAX_ARGS)), KAVRO_E_POINTER),
        ROW(THREAD_TranslatePriority(16, &prio), kArg), ROW(THREAD_TranslatePriority(0, nullptr), kArg),
        ROW(THREAD_KernelTimeSlice(INT_MIN), kOk), ROW(THREAD_SetPriority(nullptr, 1, &word), kArg),
        ROW(THREAD_Set2Priority(nullptr, 98, &word, &word), kArg),
        ROW(THREAD_Set2Priority(live(), 98, nullptr, nullptr), kArg), ROW(THREAD_Restore2Priority(nullptr), kArg),
        VOID(THREAD_LockStatus(nullptr, nullptr)), VOID(THREAD_LockStatus(nullptr, &word)),
        ROW(THREAD_GetName(nullptr, name), kOk), ROW(THREAD_GetName(live(), nullptr), kArg),
        ROW(THREAD_GetPriority(nullptr, &word), kArg), ROW(THREAD_GetPriority(live(), nullptr), kArg),
        ROW(THREAD_GetSystemThreadHandle(nullptr, &sys), kArg),
        ROW(THREAD_GetSystemThreadHandle(live(), nullptr), kArg), ROW(THREAD_GetEnvironment(nullptr, &word), kArg),
        ROW(THREAD_GetEnvironment(live(), nullptr), kArg), ROW(THREAD_SetEnvironment(nullptr, 0xFFFFFFFFu), kArg),
        ROW(THREAD_Self(nullptr), kArg), ROW(THREAD_End(), kArg), ROW(THREAD_Delete(nullptr), kFail),
        ROW(THREAD_Sleep(0), kOk), ROW(THREAD_Join(nullptr), kArg), ROW(LCK_Create(nullptr), kArg),
        ROW(LCK_Delete(nullptr), kArg), ROW(LCK_Unlock(nullptr), kOk),
        ROW(LCK_Unlock(lock = (LCK_Create(&lock), lock)), kOk), ROW(LCK_Unlock_2(), kFail),
    },
        [] { return THREAD_Init() == 0 && LCK_Init() == 0 ? 0 : 1; });

    if (!kavro::test::rt_permitted()) GTEST_SKIP() << "the timer engine needs real-time scheduling";
    run_table({
        ROW(TMR_Create(nullptr, 2.0, nop, 0), kArg), ROW(TMR_Create(&tmr, 1.99, nop, 0), kArg),
        ROW(TMR_Create(&tmr, -INFINITY, nop, 0), kArg), ROW(TMR_Create(&tmr, 2.0, nullptr, 0), kArg),
        ROW(TMR_Create(&tmr, INFINITY, nop, 0xFFFFFFFFu), kAny), BAD(TMR_SetTime(bad, 2.0), kArg, kReleased),
        ROW(TMR_Exit(), kOk), ROW((TMR_Exit(), TMR_Exit()), kAny),
    },
        [] {
            setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
            setenv("TORVANEX_TMR_PROFILE_PERIOD", "99999999999", 1);
            setenv("TORVANEX_TMR_MIN_TIME2TGT", "-5", 1);
            return TMR_Init() == 0 ? 0 : 1;
        });
}

}  // namespace
// clang-format on
