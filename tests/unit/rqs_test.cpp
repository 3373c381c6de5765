// Tests of the event dispatcher with a real loop on real descriptors: every callback is recorded
// with the loop stage it ran in; each test ends the loop by a callback result or the quit flag.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <vector>

#include "rqs.h"
#include "test_support.h"
#include "util.h"

namespace {

// The user data of a registration: its name in the record and its handler's result.
struct Obj {
    const char* name;
    int rc;
};

struct State {
    std::vector<std::string> calls; // "<callback><name>:<flags>@<stage>"
    int idle_left = 1;              // on_idle returns 9 on this call (0: never)
    timespec wait = {0, 0};         // what update_tmout sets
    void (*on_read)(Obj*) = nullptr;
    int (*pp)() = nullptr;          // post_process's result
} g;

long stage() { return reinterpret_cast<intptr_t>(rqs_ctx(1, nullptr)); }

void rec(const std::string& what) { g.calls.push_back(what + "@" + std::to_string(stage())); }

int handle(const char* kind, int flags, void* udata)
{
    auto* o = static_cast<Obj*>(udata);
    rec(kind + std::string(o->name) + ":" + std::to_string(flags));
    if (g.on_read && *kind == 'R')
        g.on_read(o);
    return o->rc;
}

// Filled positionally, as applications do: the slot order is part of the interface.
const rqs_callbacks k_cb = {
    [](timespec* t) { *t = g.wait; rec("U"); },
    [] { rec("I"); return --g.idle_left == 0 ? 9 : 0; },
    [](int, int flags, void* u, void*) { return handle("R", flags, u); },
    [](int, int flags, void* u, void*) { return handle("W", flags, u); },
    [](int, int flags, void* u, void*) { return handle("E", flags, u); },
    [] { rec("P"); return g.pp ? g.pp() : 0; },
    [](int, int flags, void* u, void*) { return handle("F", flags, u); },
    [] { rec("T"); return 1; }, // the loop ignores this result
    nullptr,
};

std::vector<std::string> calls(char kind)
{
    std::vector<std::string> out;
    std::ranges::copy_if(g.calls, std::back_inserter(out), [=](auto& c) { return c[0] == kind; });
    return out;
}

class RqsTest : public ::testing::Test {
protected:
    std::vector<int> fds_;

    void SetUp() override
    {
        alarm(20); // a broken loop fails the test instead of hanging it
        g = State{};
        g_quit = 0;
        const rqs_config cfg{k_cb, 0};
        ASSERT_EQ(0, rqs_init(&cfg));
    }

    void TearDown() override
    {
        rqs_destroy();
        for (const int fd : fds_)
            close(fd);
        alarm(0);
    }

    // A connected stream pair, closed at tear-down.
    void pair(int sv[2])
    {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv));
        fds_.insert(fds_.end(), {sv[0], sv[1]});
    }
};

TEST(RqsTimeout, MillisecondsOfAWaitTimeout)
{
    const std::pair<timespec, long> rows[] = {{{-1, 0}, -1},    {{3, -1}, -1},
                                              {{0, 999999}, 0}, {{0, 1000000}, 1},
                                              {{2, 500000000}, 2500}};
    for (const auto& [t, ms] : rows)
        EXPECT_EQ(ms, rqs_tmout_ms(&t)) << t.tv_sec << "/" << t.tv_nsec;
}

// Data then hang-up: readable and hung up at once, a read with the hang-up flag. An empty pipe
// whose writer is gone reports the hang-up alone: an error.
TEST_F(RqsTest, HangupAndErrorFlags)
{
    int sv[2], p[2];
    pair(sv);
    ASSERT_EQ(0, pipe(p));
    fds_.push_back(p[0]);
    Obj data{"D", 0}, piped{"P", 0};
    ASSERT_EQ(0, rqs_add_reader(sv[0], &data));
    ASSERT_EQ(0, rqs_add_reader(p[0], &piped));
    ASSERT_EQ(1, write(sv[1], "x", 1));
    ASSERT_TRUE(shutdown(sv[1], SHUT_RDWR) == 0 && close(p[1]) == 0);
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ(std::vector<std::string>{"RD:2@1"}, calls('R'));
    EXPECT_EQ(std::vector<std::string>{"EP:2@1"}, calls('E'));
}

TEST_F(RqsTest, FailedHandlerFinishesTheBatchThenStops)
{
    int a[2], b[2], c[2];
    Obj oa{"A", 3}, ob{"B", 0}, oc{"C", -1};
    for (auto [sv, o] : {std::pair{a, &oa}, {b, &ob}, {c, &oc}}) {
        pair(sv);
        ASSERT_EQ(0, rqs_add_reader(sv[0], o));
        ASSERT_EQ(1, write(sv[1], "x", 1));
    }
    g.idle_left = 0;
    EXPECT_EQ(2, rqs_event_loop()) << "the number of failed events";
    EXPECT_EQ(3u, calls('R').size()) << "the rest of the batch still ran";
    EXPECT_EQ(std::vector<std::string>{"P@2"}, calls('P'));
    EXPECT_TRUE(calls('I').empty());
}

// "a" schedules its own removal inside the walk and "c" from post-processing. With no descriptor
// registered, the passes run back to back without waiting.
TEST_F(RqsTest, NoPollPassesWithDeferredRemoval)
{
    static ssize_t idx[3];
    static Obj o[3] = {{"a", 0}, {"b", 0}, {"c", 0}};
    ASSERT_EQ(0, rqs_add_nopoll_reader(100, &idx[0], &o[0])); // descriptors the loop never touches
    ASSERT_EQ(0, rqs_add_nopoll_writer(101, &idx[1], &o[1]));
    ASSERT_EQ(0, rqs_add_nopoll_reader(102, &idx[2], &o[2]));
    g.on_read = [](Obj* p) {
        if (p == &o[0]) {
            EXPECT_EQ(0, rqs_pprm_nopoll(idx[0]));
            EXPECT_EQ(0, idx[0]) << "the index is kept until the purge";
        }
    };
    g.pp = [] {
        EXPECT_EQ(-1, idx[0]) << "purged right after the walk";
        if (stage() == 2 && idx[2] >= 0) {
            EXPECT_EQ(0, rqs_pprm_nopoll(idx[2]));
        }
        return 0;
    };
    g.wait = {-1, 0}; // a wait would block for ever
    g.idle_left = 2;
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{"U@0", "Ra:0@0", "Wb:0@0", "Rc:0@0", "P@2", "I@2", "P@3",
                                        "Wb:0@0", "P@2", "I@2"}),
              g.calls);
    EXPECT_TRUE(idx[2] == -1 && rqs_fd_count(2) == 1);
}

TEST_F(RqsTest, QuitBySignalDuringTheWait)
{
    int sv[2];
    pair(sv);
    Obj quiet{"Q", 0};
    ASSERT_EQ(0, rqs_add_reader(sv[0], &quiet));
    g.wait = {-1, 0};
    ASSERT_NE(SIG_ERR, signal(SIGUSR1, [](int) { g_quit = 1; }));
    sigevent sev{{}, SIGUSR1, SIGEV_SIGNAL, {}};
    timer_t t;
    ASSERT_EQ(0, timer_create(CLOCK_MONOTONIC, &sev, &t));
    const itimerspec soon = {{0, 0}, {0, 20 * 1000 * 1000}};
    ASSERT_EQ(0, timer_settime(t, 0, &soon, nullptr));
    EXPECT_EQ(0, rqs_event_loop()) << "a clean end";
    timer_delete(t);
    EXPECT_TRUE(g.calls.size() == 2 && calls('U').size() == 2) << "nothing after the wait";
}

TEST_F(RqsTest, FileWatches)
{
    vsk_test::temp_dir dir;
    const std::string path = dir / "watched";
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    Obj w{"w", 0};
    const int wd = rqs_add_file_watch(&w, path.c_str());
    ASSERT_TRUE(fd >= 0 && wd >= 0);
    ASSERT_EQ(1, write(fd, "x", 1));
    close(fd);
    ASSERT_EQ(0, rename(path.c_str(), (path + ".moved").c_str()));
    EXPECT_EQ(9, rqs_event_loop());
    const auto f = [](int flags) { return "Fw:" + std::to_string(flags) + "@1"; };
    // Modify, close after write, move; nothing of it is handed to read.
    EXPECT_EQ((std::vector<std::string>{f(0), f(0), f(RQS_RMV | RQS_FMOVED)}), calls('F'));
    EXPECT_TRUE(calls('R').empty());

    g = State{};
    ASSERT_EQ(0, unlink((path + ".moved").c_str()));
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{f(RQS_ATTR), f(RQS_RMV | RQS_FDELETED)}), calls('F'));
    // The kernel dropped the watch itself; removing it clears the map and leaves epoll.
    EXPECT_EQ(0, rqs_rm_file_watch(wd));
    EXPECT_EQ(0u, rqs_fd_count(1));
}

// A daemon that closed its standard input gets descriptor 0 for the loop's epoll instance unless
// the dispatcher moves it; 0 means "not initialised", so every registration would then abort.
TEST(RqsInit, ClosedStandardInputDoesNotBreakTheLoop)
{
    const size_t before = vsk_test::open_fd_count();
    const int saved = dup(0);
    ASSERT_EQ(0, close(0));
    g = State{};
    const rqs_config cfg{k_cb, 0};
    ASSERT_EQ(0, rqs_init(&cfg));
    int p[2];
    ASSERT_EQ(0, pipe(p));
    Obj o{"Z", 0};
    EXPECT_EQ(0, rqs_add_reader(p[0], &o));
    ASSERT_EQ(1, write(p[1], "x", 1));
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ(std::vector<std::string>{"RZ:0@1"}, calls('R'));
    rqs_destroy();
    close(p[0]);
    close(p[1]);
    ASSERT_EQ(0, dup2(saved, 0));
    close(saved);
    EXPECT_EQ(before, vsk_test::open_fd_count()) << "the loop's descriptors are closed";
}

} // namespace
