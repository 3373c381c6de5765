// Tests of the loop handlers of library modules: timers and interest changes on a real loop,
// with every handler call recorded in order.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "ioh.h"
#include "rqs.h"
#include "test_support.h"
#include "util.h"

namespace {

std::vector<std::string> g_calls;
int g_stop_after = 0; // the loop ends after this many handler calls

const rqs_callbacks k_cb = vsk_test::ioh_callbacks();

int record(ioh_rec* h, int what, int)
{
    g_calls.push_back(std::string(static_cast<const char*>(h->arg)) + ":" + std::to_string(what));
    return static_cast<int>(g_calls.size()) >= g_stop_after ? 9 : 0;
}

class IohTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        alarm(20);
        g_calls.clear();
        g_quit = 0;
        const rqs_config cfg{k_cb, 0};
        ASSERT_EQ(0, rqs_init(&cfg));
    }
    void TearDown() override
    {
        rqs_destroy();
        alarm(0);
    }
};

TEST_F(IohTest, TimersFireOnceInTheOrderOfTheirDelays)
{
    ioh_rec late{}, early{}, never{}, now{};
    char l[] = "late", e[] = "early", n[] = "never", z[] = "now";
    ASSERT_EQ(0, ioh_timer_open(&late, record, l));
    ASSERT_EQ(0, ioh_timer_open(&early, record, e));
    ASSERT_EQ(0, ioh_timer_open(&never, record, n));
    ASSERT_EQ(0, ioh_timer_open(&now, record, z));
    ASSERT_EQ(0, ioh_timer_arm(&late, 60));
    ASSERT_EQ(0, ioh_timer_arm(&early, 20));
    ASSERT_EQ(0, ioh_timer_arm(&never, 30));
    ASSERT_EQ(0, ioh_timer_arm(&never, -1)); // disarmed again
    ASSERT_EQ(0, ioh_timer_arm(&now, 0));
    g_stop_after = 3;
    EXPECT_EQ(1, rqs_event_loop()) << "one failed event: the third call";
    EXPECT_EQ((std::vector<std::string>{"now:1", "early:1", "late:1"}), g_calls);
    EXPECT_EQ(4u, rqs_fd_count(1));
    for (ioh_rec* t : {&late, &early, &never, &now})
        ioh_timer_close(t);
    EXPECT_EQ(0u, rqs_fd_count(1));
}

TEST_F(IohTest, InterestFollowsTheOwnersWishes)
{
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv));
    char s[] = "s";
    ioh_rec h{};
    ioh_init(&h, sv[0], record, s);
    ASSERT_EQ(0, ioh_want(&h, RQS_READ | RQS_WRITE)); // writable at once, readable after a write
    ASSERT_EQ(1, write(sv[1], "x", 1));
    g_stop_after = 1;
    EXPECT_EQ(1, rqs_event_loop());
    ASSERT_EQ(0, ioh_want(&h, RQS_WRITE));
    g_stop_after = 2;
    EXPECT_EQ(1, rqs_event_loop());
    // A read event comes first when both are ready; with read interest dropped only writes.
    EXPECT_EQ((std::vector<std::string>{"s:1", "s:2"}), g_calls);
    ASSERT_EQ(0, ioh_want(&h, 0));
    EXPECT_EQ(0u, rqs_fd_count(1));
    EXPECT_EQ(0, ioh_want(&h, 0)) << "removing twice is nothing";
    close(sv[0]);
    close(sv[1]);
}

} // namespace
