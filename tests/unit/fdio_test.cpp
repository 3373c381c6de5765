// Descriptor transfer calls: one read or write per call (never looping to fill the count), retry
// of a signal-interrupted read unless the process is quitting, quiet everyday errors with flag 0,
// and the inverted result of the input wait.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "fdio.h"
#include "log.h"
#include "timeop.h"
#include "util.h"

namespace {

class FdioTest : public ::testing::Test {
protected:
    FILE* fp_ = nullptr;

    void SetUp() override
    {
        glog_init("vsk");
        fp_ = tmpfile();
        ASSERT_NE(fp_, nullptr);
        log_default(g_log, fp_);
        log_timefmt(g_log, f_NO_TIME);
        log_set_pid(g_log, 0);
        log_set_group(g_log, "");
        log_set_modules(g_log, L_DEBUG);
    }

    void TearDown() override
    {
        g_quit = 0;
        log_default(g_log, stderr);
        fclose(fp_);
    }

    std::string take()
    {
        fflush(fp_);
        std::string out;
        rewind(fp_);
        char buf[1024];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), fp_)) > 0)
            out.append(buf, n);
        EXPECT_EQ(ftruncate(fileno(fp_), 0), 0);
        rewind(fp_);
        return out;
    }
};

struct sock_pair {
    int a = -1;
    int b = -1;
    explicit sock_pair(int flags = SOCK_NONBLOCK)
    {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | flags, 0, sv) == 0) {
            a = sv[0];
            b = sv[1];
        }
    }
    ~sock_pair()
    {
        if (a >= 0)
            close(a);
        if (b >= 0)
            close(b);
    }
};

void on_usr1(int) {}

// The system call a thread is blocked in, from /proc (-1 when it is running or unknown).
long blocked_syscall(pid_t tid)
{
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long nr = -1;
    if (!(f >> nr))
        return -1;
    return nr;
}

// Interrupts the blocking nread of the calling thread with SIGUSR1 (installed without
// SA_RESTART) once /proc shows it inside read(2), then writes "late" to `wfd`. Returns the result
// of nread and its errno.
std::pair<ssize_t, int> interrupted_read(int rfd, int wfd, char* buf, size_t len)
{
    struct sigaction sa {};
    sa.sa_handler = on_usr1;
    sigemptyset(&sa.sa_mask);
    struct sigaction old {};
    sigaction(SIGUSR1, &sa, &old);

    const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
    const pthread_t self = pthread_self();
    std::atomic<bool> signalled{false};
    std::atomic<bool> done{false};
    std::thread helper([&] {
        // Bounded: at most about 5 s of 1 ms looks for the reader to block.
        for (int i = 0; i < 5000 && blocked_syscall(tid) != SYS_read; ++i)
            usleep(1000);
        pthread_kill(self, SIGUSR1);
        signalled = true;
        for (int i = 0; i < 5000 && !done && blocked_syscall(tid) != SYS_read; ++i)
            usleep(1000);
        if (write(wfd, "late", 4) != 4)
            perror("write");
    });
    const ssize_t n = nread(rfd, buf, len, 0);
    const int err = errno;
    done = true;
    if (!signalled || n < 0) {
        // The read came back without the helper's data: let the helper finish its write.
        char drain[8];
        helper.join();
        if (read(rfd, drain, sizeof drain) < 0)
            perror("read");
    } else {
        helper.join();
    }
    sigaction(SIGUSR1, &old, nullptr);
    return {n, err};
}

} // namespace

TEST_F(FdioTest, NreadDoesOneRead)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    char buf[16] = {};
    ASSERT_EQ(write(sp.b, "abc", 3), 3);
    EXPECT_EQ(nread(sp.a, buf, sizeof buf, 0), 3);
    EXPECT_STREQ(buf, "abc");

    // A count of 0 reads nothing, even with data pending.
    ASSERT_EQ(write(sp.b, "xyz", 3), 3);
    EXPECT_EQ(nread(sp.a, buf, 0, 0), 0);
    EXPECT_EQ(nread(sp.a, buf, 2, 0), 2);
    EXPECT_EQ(nread(sp.a, buf, 2, 0), 1);

    // Nothing pending: -1 with EAGAIN, logged only when asked to.
    take();
    errno = 0;
    EXPECT_EQ(nread(sp.a, buf, sizeof buf, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(take(), "");
    EXPECT_EQ(nread(sp.a, buf, sizeof buf, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_NE(take().find("nread: read(" + std::to_string(sp.a) + ", "), std::string::npos);

    // End of stream.
    close(sp.b);
    sp.b = -1;
    EXPECT_EQ(nread(sp.a, buf, sizeof buf, 0), 0);
}

TEST_F(FdioTest, NwriteDoesOneWrite)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    EXPECT_EQ(nwrite(sp.a, "hello", 5, 0), 5);
    char buf[8] = {};
    ASSERT_EQ(read(sp.b, buf, sizeof buf), 5);

    // A full socket takes only part of a large buffer and the rest is not retried.
    int small = 4096;
    ASSERT_EQ(setsockopt(sp.a, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    std::string big(1 << 20, 'b');
    const ssize_t n = nwrite(sp.a, big.data(), big.size(), 0);
    ASSERT_GT(n, 0);
    EXPECT_LT(n, static_cast<ssize_t>(big.size()));
    // The buffer is full now: the next write fails with EAGAIN.
    errno = 0;
    ssize_t more;
    while ((more = nwrite(sp.a, big.data(), big.size(), 0)) > 0) {
    }
    EXPECT_EQ(more, -1);
    EXPECT_EQ(errno, EAGAIN);

    EXPECT_EQ(nwrite(-1, "x", 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(FdioTest, InterruptedReadIsRetried)
{
    sock_pair sp(0); // blocking
    ASSERT_GE(sp.a, 0);
    char buf[8] = {};
    const auto [n, err] = interrupted_read(sp.a, sp.b, buf, sizeof buf);
    EXPECT_EQ(n, 4) << "errno " << err;
    EXPECT_EQ(std::string(buf, 4), "late");
}

TEST_F(FdioTest, InterruptedReadWhileQuittingReturns)
{
    sock_pair sp(0);
    ASSERT_GE(sp.a, 0);
    g_quit = 1;
    char buf[8] = {};
    const auto [n, err] = interrupted_read(sp.a, sp.b, buf, sizeof buf);
    g_quit = 0;
    EXPECT_EQ(n, -1);
    EXPECT_EQ(err, EINTR);
}

TEST_F(FdioTest, WaitToReadIsInverted)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    EXPECT_EQ(wait_to_read(sp.a, 0), 1) << "no input: 1";
    ASSERT_EQ(write(sp.b, "x", 1), 1);
    EXPECT_EQ(wait_to_read(sp.a, 0), 0) << "input ready: 0";

    // A descriptor that is not open is an error condition.
    const int dead = dup(sp.a);
    close(dead);
    EXPECT_EQ(wait_to_read(dead, 0), -1);
}

TEST(FdioAborted, Errors)
{
    EXPECT_TRUE(is_aborted(ECONNRESET));
    EXPECT_TRUE(is_aborted(ECONNABORTED));
    EXPECT_TRUE(is_aborted(EPIPE));
    EXPECT_FALSE(is_aborted(EAGAIN));
    EXPECT_FALSE(is_aborted(0));
}
