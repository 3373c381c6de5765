// Tests of the event dispatcher with a real loop on real descriptors: callbacks are recorded in
// order with the loop stage they ran in, and each test ends the loop through a callback result,
// the quit flag or quit_on_zero_fds.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "rqs.h"
#include "util.h"

namespace {

struct obj {
    n32_tag tag;
    const char* name;
    int rc; // what its handler returns
};

std::vector<std::string> g_calls;
int g_idle_stop = 1;   // on_idle returns 9 on this call (0: never)
int g_idle_calls = 0;
struct timespec g_wait = {0, 0};
std::vector<struct timespec> g_seen_now;
// Optional per-test hooks.
void (*g_on_read)(obj* o) = nullptr;
int (*g_pp)(void) = nullptr;
int g_dormant_until = 0; // is_dormant answers 0 for this many calls
int g_dormant_calls = 0;
int g_last_ident = -1;
void* g_last_udata = nullptr;

long stage()
{
    return reinterpret_cast<intptr_t>(rqs_ctx(1, nullptr));
}

void rec(const std::string& what)
{
    g_calls.push_back(what + "@" + std::to_string(stage()));
    g_seen_now.push_back(rqs_now());
}

const char* name_of(void* udata)
{
    return udata != nullptr && reinterpret_cast<uintptr_t>(udata) > 4096
               ? static_cast<obj*>(udata)->name
               : "fd";
}

void cb_tmout(struct timespec* t)
{
    *t = g_wait;
    rec("U");
}
int cb_idle()
{
    rec("I");
    return ++g_idle_calls == g_idle_stop ? 9 : 0;
}
int cb_rw(const char* kind, int ident, int err, void* udata)
{
    rec(std::string(kind) + name_of(udata) + ":" + std::to_string(err));
    g_last_ident = ident;
    g_last_udata = udata;
    if (reinterpret_cast<uintptr_t>(udata) > 4096) {
        // From epoll the identifier is the low half of the data word; no-poll passes the fd.
        if (stage() == 1) {
            EXPECT_EQ(static_cast<int>(reinterpret_cast<uintptr_t>(udata)), ident);
        }
        if (g_on_read != nullptr)
            g_on_read(static_cast<obj*>(udata));
        return static_cast<obj*>(udata)->rc;
    }
    return 0;
}
int cb_read(int ident, int err, void* udata, void* aux)
{
    EXPECT_EQ(nullptr, aux);
    return cb_rw("R", ident, err, udata);
}
int cb_write(int ident, int err, void* udata, void*)
{
    return cb_rw("W", ident, err, udata);
}
int cb_error(int ident, int err, void* udata, void*)
{
    return cb_rw("E", ident, err, udata);
}
int cb_pp()
{
    rec("P");
    return g_pp != nullptr ? g_pp() : 0;
}
int cb_file(int, int flags, void* udata, void*)
{
    rec(std::string("F") + name_of(udata) + ":" + std::to_string(flags));
    return 0;
}
int cb_timeout()
{
    rec("T");
    return 1; // ignored by the loop
}
int cb_dormant()
{
    rec("D");
    return ++g_dormant_calls > g_dormant_until;
}

class RqsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        alarm(20); // a broken loop fails the test instead of hanging it
        g_calls.clear();
        g_seen_now.clear();
        g_idle_stop = 1;
        g_idle_calls = 0;
        g_wait = {0, 0};
        g_on_read = nullptr;
        g_pp = nullptr;
        g_dormant_until = 0;
        g_dormant_calls = 0;
        g_quit = 0;
        g_last_ident = -1;
        g_last_udata = nullptr;
        cfg = rqs_config{};
        // Filled positionally, as applications do: the slot order is part of the interface.
        cfg.cb = {cb_tmout, cb_idle, cb_read, cb_write, cb_error, cb_pp, cb_file, cb_timeout,
                  nullptr};
    }
    void TearDown() override
    {
        rqs_destroy();
        for (int fd : fds)
            close(fd);
        g_quit = 0;
        alarm(0);
    }
    void init() { ASSERT_EQ(0, rqs_init(&cfg)); }
    // A connected stream pair; both ends are closed at tear-down unless closed earlier.
    void pair(int sv[2])
    {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv));
        fds.push_back(sv[0]);
        fds.push_back(sv[1]);
    }
    void close_fd(int fd)
    {
        close(fd);
        for (int& f : fds)
            if (f == fd)
                f = -1;
    }
    std::vector<std::string> calls_matching(char first)
    {
        std::vector<std::string> out;
        for (const std::string& c : g_calls)
            if (c[0] == first)
                out.push_back(c);
        return out;
    }

    rqs_config cfg;
    std::vector<int> fds;
};

size_t open_fds()
{
    size_t n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr)
        ++n;
    closedir(d);
    return n;
}

TEST_F(RqsTest, InitAndDestroyLeaveNothingOpen)
{
    const size_t before = open_fds();
    init();
    EXPECT_EQ(before + 2, open_fds());
    EXPECT_EQ(0u, rqs_fd_count(0));
    EXPECT_EQ(0, stage());
    EXPECT_EQ(nullptr, rqs_ctx(2, nullptr));
    rqs_destroy();
    EXPECT_EQ(before, open_fds());
    rqs_destroy(); // a second destroy is harmless
    EXPECT_EQ(0, rqs_rm_fd(0, true, false)) << "removal after destroy does nothing";
    EXPECT_DEATH(rqs_fd_count(3), "");
    EXPECT_DEATH((void)rqs_init(nullptr), "");
}

TEST_F(RqsTest, TimeoutConversion)
{
    struct Case {
        struct timespec t;
        long ms;
    };
    const Case cases[] = {{{-1, 0}, -1},      {{-1, 5}, -1},      {{3, -1}, -1},
                          {{0, 999999}, 0},   {{0, 1000000}, 1},  {{2, 500000000}, 2500},
                          {{0, 0}, 0},        {{7, 999999999}, 7999}};
    for (const Case& c : cases)
        EXPECT_EQ(c.ms, rqs_tmout_ms(&c.t)) << c.t.tv_sec << "/" << c.t.tv_nsec;
}

TEST_F(RqsTest, RegistrationCountsAndErrors)
{
    init();
    int sv[2];
    pair(sv);
    EXPECT_EQ(0, rqs_add_reader(sv[0], nullptr));
    EXPECT_EQ(0, rqs_add_writer(sv[1], nullptr));
    EXPECT_EQ(2u, rqs_fd_count(1));
    EXPECT_EQ(-1, rqs_add_reader(sv[0], nullptr));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(0, rqs_mod(sv[0], nullptr, 0));
    EXPECT_EQ(0, rqs_mod_reader(sv[0], nullptr));
    EXPECT_EQ(2u, rqs_fd_count(1)) << "failures and modifications do not count";

    // A regular file cannot be polled: that is what no-poll events are for.
    FILE* f = tmpfile();
    EXPECT_EQ(-1, rqs_add_reader(fileno(f), nullptr));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(-1, rqs_mod(12345, nullptr, RQS_READ));
    EXPECT_EQ(EBADF, errno);
    fclose(f);

    EXPECT_EQ(0, rqs_rm_fd(sv[0], true, false));
    EXPECT_EQ(-1, rqs_rm_fd(sv[0], true, false));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1u, rqs_fd_count(0));
}

TEST_F(RqsTest, PassOrderAndSharedClock)
{
    init();
    int sv[2];
    pair(sv);
    obj a = {{}, "A", 0};
    ASSERT_EQ(0, rqs_add_reader(sv[0], &a));
    ASSERT_EQ(1, write(sv[1], "x", 1));
    g_idle_stop = 2;
    EXPECT_EQ(9, rqs_event_loop());
    const std::vector<std::string> expect = {"U@0", "U@0", "T@0", "RA:0@1", "P@2", "I@2", "P@3",
                                             "U@0", "T@0", "RA:0@1", "P@2", "I@2"};
    EXPECT_EQ(expect, g_calls) << "level-triggered: unread data is reported again";
    // Every callback after a wait sees the time sampled by that wait.
    for (size_t i = 3; i < 7; ++i) {
        EXPECT_EQ(g_seen_now[2].tv_sec, g_seen_now[i].tv_sec);
        EXPECT_EQ(g_seen_now[2].tv_nsec, g_seen_now[i].tv_nsec);
    }
}

TEST_F(RqsTest, NullUserDataPassesTheDescriptor)
{
    init();
    int sv[2];
    pair(sv);
    ASSERT_EQ(0, rqs_add_writer(sv[1], nullptr));
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ(sv[1], g_last_ident);
    EXPECT_EQ(sv[1], static_cast<int>(reinterpret_cast<intptr_t>(g_last_udata)));
}

TEST_F(RqsTest, HangupAndErrorFlags)
{
    init();
    int s1[2], s2[2], p[2], q[2];
    pair(s1);
    pair(s2);
    ASSERT_EQ(0, pipe(p));
    ASSERT_EQ(0, pipe(q));
    fds.insert(fds.end(), {p[0], p[1], q[0], q[1]});
    obj with_data = {{}, "D", 0}, parked = {{}, "H", 0}, pipe_rd = {{}, "P", 0},
        pipe_wr = {{}, "W", 0};
    // Data then close: readable and hung up at once -> read with the hang-up flag.
    ASSERT_EQ(0, rqs_add_reader(s1[0], &with_data));
    ASSERT_EQ(1, write(s1[1], "x", 1));
    close_fd(s1[1]);
    // Parked descriptor: only the hang-up is reported -> error.
    ASSERT_EQ(0, rqs_add_reader(s2[0], &parked));
    ASSERT_EQ(0, rqs_mod(s2[0], &parked, 0));
    close_fd(s2[1]);
    // An empty pipe whose writer is gone reports EPOLLHUP alone.
    ASSERT_EQ(0, rqs_add_reader(p[0], &pipe_rd));
    close_fd(p[1]);
    // A pipe writer whose reader is gone is writable with an error.
    ASSERT_EQ(0, rqs_add_writer(q[1], &pipe_wr));
    close_fd(q[0]);

    EXPECT_EQ(9, rqs_event_loop());
    std::vector<std::string> got;
    for (const std::string& c : g_calls)
        if (c[0] == 'R' || c[0] == 'W' || c[0] == 'E')
            got.push_back(c);
    std::sort(got.begin(), got.end());
    const std::vector<std::string> expect = {"EH:2@1", "EP:2@1", "RD:2@1", "WW:1@1"};
    EXPECT_EQ(expect, got);
}

TEST_F(RqsTest, ReadWinsOverWriteInOnePass)
{
    init();
    int sv[2];
    pair(sv);
    obj a = {{}, "A", 0};
    ASSERT_EQ(0, rqs_add_reader(sv[0], &a));
    ASSERT_EQ(0, rqs_mod(sv[0], &a, RQS_READ | RQS_WRITE));
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ(std::vector<std::string>{"WA:0@1"}, calls_matching('W'));
    ASSERT_EQ(1, write(sv[1], "x", 1));
    g_calls.clear();
    g_idle_calls = 0;
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ(std::vector<std::string>{"RA:0@1"}, calls_matching('R'));
    EXPECT_TRUE(calls_matching('W').empty());
}

TEST_F(RqsTest, FailedHandlerFinishesTheBatchThenStops)
{
    init();
    int a[2], b[2], c[2];
    pair(a);
    pair(b);
    pair(c);
    obj oa = {{}, "A", 3}, ob = {{}, "B", 0}, oc = {{}, "C", -1};
    ASSERT_EQ(0, rqs_add_reader(a[0], &oa));
    ASSERT_EQ(0, rqs_add_reader(b[0], &ob));
    ASSERT_EQ(0, rqs_add_reader(c[0], &oc));
    for (int* s : {a, b, c})
        ASSERT_EQ(1, write(s[1], "x", 1));
    g_idle_stop = 0;
    EXPECT_EQ(2, rqs_event_loop()) << "the number of failed events";
    EXPECT_EQ(3u, calls_matching('R').size());
    EXPECT_EQ(std::vector<std::string>{"P@2"}, calls_matching('P'));
    EXPECT_TRUE(calls_matching('I').empty());

    // A failing post-processing result is the loop's result.
    oa.rc = oc.rc = 0;
    g_calls.clear();
    g_pp = [] { return 42; };
    EXPECT_EQ(42, rqs_event_loop());
    EXPECT_EQ(std::vector<std::string>{"P@2"}, calls_matching('P'));
}

TEST_F(RqsTest, NoPollEventsWithoutDescriptorsSkipTheWait)
{
    init();
    FILE* f = tmpfile();
    const int fd = fileno(f);
    ssize_t ir = -1, iw = -1;
    obj r = {{}, "r", 0}, w = {{}, "w", 0};
    ASSERT_EQ(0, rqs_add_nopoll_reader(fd, &ir, &r));
    ASSERT_EQ(0, rqs_add_nopoll_writer(fd, &iw, &w));
    EXPECT_EQ(0, ir);
    EXPECT_EQ(1, iw);
    EXPECT_EQ(2u, rqs_fd_count(0));
    EXPECT_EQ(2u, rqs_fd_count(2));
    g_wait = {-1, 0};
    g_idle_stop = 3;
    g_on_read = [](obj* o) { EXPECT_EQ(0, stage()) << o->name; };
    EXPECT_EQ(9, rqs_event_loop());
    const std::vector<std::string> pass = {"Rr:0@0", "Ww:0@0", "P@2", "I@2"};
    std::vector<std::string> expect = {"U@0"}; // only the one before the loop
    for (int i = 0; i < 3; ++i) {
        expect.insert(expect.end(), pass.begin(), pass.end());
        if (i < 2)
            expect.push_back("P@3");
    }
    EXPECT_EQ(expect, g_calls);
    EXPECT_EQ(fd, g_last_ident) << "no-poll callbacks get the real descriptor";
    fclose(f);
}

TEST_F(RqsTest, NoPollEventsForceAZeroWait)
{
    init();
    int sv[2];
    pair(sv);
    obj quiet = {{}, "Q", 0}, np = {{}, "N", 0};
    ASSERT_EQ(0, rqs_add_reader(sv[0], &quiet)); // never readable
    ASSERT_EQ(0, rqs_add_nopoll_reader(sv[0], nullptr, &np));
    g_wait = {-1, 0}; // would block for ever without the no-poll entry
    g_idle_stop = 2;
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ(2u, calls_matching('T').size());
    EXPECT_EQ((std::vector<std::string>{"RN:0@0", "RN:0@0"}), calls_matching('R'));
}

TEST_F(RqsTest, DeferredNoPollRemoval)
{
    init();
    static ssize_t idx[3];
    static obj o[3] = {{{}, "a", 0}, {{}, "b", 0}, {{}, "c", 0}};
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0, rqs_add_nopoll_reader(100 + i, &idx[i], &o[i]));
    // "a" schedules its own removal from inside the walk; "c" goes from post-processing.
    g_on_read = [](obj* p) {
        if (p == &o[0] && idx[0] >= 0) {
            EXPECT_EQ(0, rqs_pprm_nopoll(idx[0]));
            EXPECT_EQ(0, idx[0]) << "the index is kept until the purge";
        }
    };
    g_pp = [] {
        EXPECT_EQ(-1, idx[0]) << "purged after the walk";
        if (stage() == 2 && idx[2] >= 0) {
            EXPECT_EQ(0, rqs_pprm_nopoll(idx[2]));
        }
        return 0;
    };
    g_idle_stop = 2;
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{"Ra:0@0", "Rb:0@0", "Rc:0@0", "Rb:0@0"}),
              calls_matching('R'));
    EXPECT_EQ(-1, idx[2]);
    EXPECT_EQ(1u, rqs_fd_count(2));
    // Immediate removal and its errors.
    EXPECT_EQ(114, rqs_rm_nopoll(0));
    EXPECT_EQ(34, rqs_rm_nopoll(7));
    EXPECT_EQ(0, rqs_rm_nopoll(idx[1]));
    EXPECT_EQ(0u, rqs_fd_count(0));
    EXPECT_DEATH(rqs_pprm_nopoll(-1), "");
}

TEST_F(RqsTest, FailingNoPollHandlerEndsTheLoopAtOnce)
{
    init();
    obj a = {{}, "a", 0}, b = {{}, "b", 5}, c = {{}, "c", 0};
    ASSERT_EQ(0, rqs_add_nopoll_reader(100, nullptr, &a));
    ASSERT_EQ(0, rqs_add_nopoll_reader(101, nullptr, &b));
    ASSERT_EQ(0, rqs_add_nopoll_reader(102, nullptr, &c));
    g_idle_stop = 0;
    EXPECT_EQ(5, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{"Ra:0@0", "Rb:0@0"}), calls_matching('R'));
    EXPECT_TRUE(calls_matching('P').empty());
}

TEST_F(RqsTest, QuitFlag)
{
    init();
    int sv[2];
    pair(sv);
    obj a = {{}, "A", 0};
    ASSERT_EQ(0, rqs_add_reader(sv[0], &a));
    ASSERT_EQ(1, write(sv[1], "x", 1));
    g_quit = 1;
    EXPECT_EQ(0, rqs_event_loop());
    EXPECT_EQ(std::vector<std::string>{"U@0"}, g_calls);

    // Set inside a handler: the pass completes, no further pass starts.
    g_quit = 0;
    g_calls.clear();
    g_idle_stop = 0;
    g_on_read = [](obj*) { g_quit = 1; };
    EXPECT_EQ(0, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{"U@0", "U@0", "T@0", "RA:0@1", "P@2", "I@2", "P@3"}),
              g_calls);
}

volatile sig_atomic_t g_signal_quits = 0;

void on_test_signal(int)
{
    if (g_signal_quits)
        g_quit = 1;
}

// Arms a one-shot SIGUSR1 that interrupts the loop's unlimited wait.
void interrupt_wait_soon(timer_t* t)
{
    struct sigaction sa = {};
    sa.sa_handler = on_test_signal;
    sigaction(SIGUSR1, &sa, nullptr);
    struct sigevent sev = {};
    sev.sigev_notify = SIGEV_SIGNAL;
    sev.sigev_signo = SIGUSR1;
    ASSERT_EQ(0, timer_create(CLOCK_MONOTONIC, &sev, t));
    struct itimerspec its = {};
    its.it_value.tv_nsec = 20000000;
    ASSERT_EQ(0, timer_settime(*t, 0, &its, nullptr));
}

TEST_F(RqsTest, InterruptedWait)
{
    init();
    int sv[2];
    pair(sv);
    obj quiet = {{}, "Q", 0};
    ASSERT_EQ(0, rqs_add_reader(sv[0], &quiet));
    g_wait = {-1, 0};

    // Without quit: a normal pass follows, time-out callback included.
    timer_t t;
    g_signal_quits = 0;
    interrupt_wait_soon(&t);
    EXPECT_EQ(9, rqs_event_loop());
    timer_delete(t);
    EXPECT_EQ((std::vector<std::string>{"U@0", "U@0", "T@0", "P@2", "I@2"}), g_calls);

    // With quit: the loop ends cleanly at once.
    g_signal_quits = 1;
    g_calls.clear();
    interrupt_wait_soon(&t);
    EXPECT_EQ(0, rqs_event_loop());
    timer_delete(t);
    EXPECT_EQ(2u, g_calls.size());
    EXPECT_EQ(2u, calls_matching('U').size()) << "nothing after the wait";
}

TEST_F(RqsTest, QuitOnZeroDescriptors)
{
    cfg.quit_on_zero_fds = 1;
    cfg.cb.is_dormant = cb_dormant;
    init();
    int sv[2];
    pair(sv);
    static int fd;
    fd = sv[0];
    obj a = {{}, "A", 0};
    ASSERT_EQ(0, rqs_add_reader(fd, &a));
    ASSERT_EQ(1, write(sv[1], "x", 1));
    g_on_read = [](obj*) { EXPECT_EQ(0, rqs_rm_fd(fd, true, false)); };
    g_idle_stop = 0;
    g_dormant_until = 2; // busy twice more after the last descriptor went
    EXPECT_EQ(0, rqs_event_loop());
    EXPECT_EQ(1u, calls_matching('R').size());
    EXPECT_EQ(3u, calls_matching('D').size());
    EXPECT_EQ(3u, calls_matching('I').size()) << "the busy passes still wait and idle";
    EXPECT_EQ("D@0", g_calls.back());
}

TEST_F(RqsTest, NothingRegisteredFailsTheWait)
{
    init();
    EXPECT_EQ(EINVAL, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{"U@0", "U@0"}), g_calls);
}

TEST_F(RqsTest, FileWatches)
{
    init();
    char dir[] = "/tmp/rqs_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string path = std::string(dir) + "/watched";
    const std::string moved = path + ".moved";
    int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    obj w = {{}, "w", 0};
    const int wd = rqs_add_file_watch(&w, path.c_str());
    ASSERT_GE(wd, 0);
    EXPECT_EQ(1u, rqs_fd_count(1)) << "the inotify descriptor joins epoll";
    EXPECT_EQ(-1, rqs_add_file_watch(&w, path.c_str())) << "same inode, same wd";
    EXPECT_EQ(-1, rqs_add_file_watch(&w, (path + ".none").c_str()));

    ASSERT_EQ(1, write(fd, "x", 1));
    close(fd);
    ASSERT_EQ(0, chmod(path.c_str(), 0600));
    ASSERT_EQ(0, rename(path.c_str(), moved.c_str()));
    EXPECT_EQ(9, rqs_event_loop());
    // Modify, close after write, attributes, move.
    const std::vector<std::string> expect = {"Fw:0@1", "Fw:0@1",
                                             "Fw:" + std::to_string(RQS_ATTR) + "@1",
                                             "Fw:" + std::to_string(RQS_RMV | RQS_FMOVED) + "@1"};
    EXPECT_EQ(expect, calls_matching('F'));
    EXPECT_TRUE(calls_matching('R').empty()) << "inotify records are not handed to read";

    g_calls.clear();
    g_idle_calls = 0;
    ASSERT_EQ(0, unlink(moved.c_str()));
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{"Fw:" + std::to_string(RQS_ATTR) + "@1",
                                        "Fw:" + std::to_string(RQS_RMV | RQS_FDELETED) + "@1"}),
              calls_matching('F'));

    // The kernel dropped the watch itself; removing it clears the map and leaves epoll.
    EXPECT_EQ(0, rqs_rm_file_watch(wd));
    EXPECT_EQ(0u, rqs_fd_count(1));
    EXPECT_EQ(-1, rqs_rm_file_watch(wd));
    rmdir(dir);
}

} // namespace
