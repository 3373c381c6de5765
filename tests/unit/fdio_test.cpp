// One-call transfers: quiet everyday errors, EINTR retry unless quitting, the inverted input wait.
#include <csignal>
#include <fstream>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>

#include "fdio.h"
#include "test_support.h"
#include "util.h"

// nread on a blocking socket, hit by SIGUSR1 (no SA_RESTART) once /proc shows it inside read(2).
// The handler sends the data, so only a retry can find them. Returns nread's result or -errno.
static int g_wfd = -1;
static void on_usr1(int) { (void)!write(g_wfd, "late", 4); }
static ssize_t interrupted_read()
{
    char buf[8];
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    g_wfd = sv[1];
    struct sigaction sa {};
    sa.sa_handler = on_usr1;
    sigaction(SIGUSR1, &sa, nullptr);
    const std::string sys = "/proc/self/task/" + std::to_string(syscall(SYS_gettid)) + "/syscall";
    std::thread helper([&, self = pthread_self()] {
        for (long nr = -1, i = 0; i < 5000 && !(std::ifstream(sys) >> nr && nr == SYS_read); ++i)
            usleep(1000);
        pthread_kill(self, SIGUSR1);
    });
    const ssize_t n = nread(sv[0], buf, sizeof buf, 0);
    const ssize_t rc = n < 0 ? -errno : n;
    helper.join();
    close(sv[0]);
    close(sv[1]);
    return rc;
}

TEST(Fdio, OneReadQuietErrorsAndInvertedWait)
{
    vsk_test::log_capture log;
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    char buf[16] = {};
    EXPECT_EQ(wait_to_read(sv[0], 0), 1) << "no input: 1, the inverted sense callers rely on";
    ASSERT_EQ(write(sv[1], "xyz", 3), 3);
    EXPECT_EQ(wait_to_read(sv[0], 0), 0) << "input ready: 0";
    EXPECT_EQ(nread(sv[0], buf, 2, 0), 2);
    EXPECT_EQ(nread(sv[0], buf, sizeof buf, 0), 1) << "one read, not a loop to fill the count";
    EXPECT_EQ(nread(sv[0], buf, sizeof buf, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.take(), "") << "flag 0: no error line for an everyday EAGAIN";
    close(sv[0]);
    close(sv[1]);
    EXPECT_EQ(wait_to_read(sv[0], 0), -1) << "a closed descriptor is an error condition";
}

TEST(Fdio, InterruptedReadIsRetriedUnlessQuitting)
{
    EXPECT_EQ(interrupted_read(), 4);
    g_quit = 1;
    EXPECT_EQ(interrupted_read(), -EINTR);
    g_quit = 0;
}
