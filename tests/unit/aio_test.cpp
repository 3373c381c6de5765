// Tests of the kernel-side file work on a real loop and real files: what a full ring does, how a
// failure comes back, and that a submitted reservation survives the close of its descriptor.
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "aio.h"
#include "ioh.h"
#include "rqs.h"
#include "test_support.h"
#include "util.h"

namespace {

std::map<uint64_t, int> g_done; // token -> result
size_t g_expect = 0;            // the loop ends once this many completions came

void on_done(uint64_t token, int res)
{
    EXPECT_EQ(0u, g_done.count(token)) << "one completion per submission";
    g_done[token] = res;
    if (g_done.size() >= g_expect)
        g_quit = 1;
}

const rqs_callbacks k_cb = vsk_test::ioh_callbacks();

class AioTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        alarm(20);
        g_done.clear();
        g_quit = 0;
        const rqs_config cfg{k_cb, 0};
        ASSERT_EQ(0, rqs_init(&cfg));
        const int rc = aio_init(4, on_done);
        if (rc == EPERM || rc == ENOSYS)
            GTEST_SKIP() << "the kernel refuses the submission ring here";
        ASSERT_EQ(0, rc);
    }
    void TearDown() override
    {
        aio_destroy();
        rqs_destroy();
        g_quit = 0;
        alarm(0);
    }
    int open_file(const std::string& name, int flags = O_RDWR | O_CREAT | O_EXCL)
    {
        return open((dir_ / name).c_str(), flags, 0600);
    }
    off_t size_of(const std::string& name)
    {
        struct stat st{};
        return stat((dir_ / name).c_str(), &st) == 0 ? st.st_size : -1;
    }
    // Runs the loop until `n` completions in all have come.
    void wait_for(size_t n)
    {
        g_expect = n;
        if (g_done.size() < n)
            (void)rqs_event_loop();
        g_quit = 0;
        ASSERT_EQ(n, g_done.size());
    }
    vsk_test::temp_dir dir_{"vsk-aio"};
};

TEST_F(AioTest, FullRingRefusesAndEveryReservationCompletesOnTheLoop)
{
    int fds[5];
    for (int i = 0; i < 5; ++i)
        ASSERT_LE(0, fds[i] = open_file("f" + std::to_string(i)));
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(0, aio_fallocate(fds[i], 4096 * (i + 1), 100 + i));
    // The fifth waits for room: its caller reserves in place.
    EXPECT_EQ(EBUSY, aio_fallocate(fds[4], 4096, 104));
    wait_for(4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(0, g_done[100 + i]) << i;
        EXPECT_EQ(4096 * (i + 1), size_of("f" + std::to_string(i))) << i;
    }
    // Room again once the completions are read.
    EXPECT_EQ(0, aio_fallocate(fds[4], 8192, 104));
    wait_for(5);
    EXPECT_EQ(8192, size_of("f4"));
    for (int fd : fds)
        close(fd);
}

// The kernel applies the bound once the loop has submitted (its workers are made then); without
// it the kernel would allow as many as the ring has entries here.
TEST_F(AioTest, WorkersAreBoundToTheCoresBesideTheLoop)
{
    const int fd = open_file("f");
    ASSERT_LE(0, fd);
    ASSERT_EQ(0, aio_fallocate(fd, 4096, 1));
    wait_for(1);
    cpu_set_t cpus;
    ASSERT_EQ(0, sched_getaffinity(0, sizeof cpus, &cpus));
    const int ncpu = CPU_COUNT(&cpus);
    EXPECT_EQ(ncpu > 3 ? static_cast<unsigned>(ncpu - 1) : 2u, aio_worker_bound());
    close(fd);
}

TEST_F(AioTest, FailureComesBackAsNegativeErrnoAndAnAdoptedDescriptorLivesUntilTheCompletion)
{
    const int ro = open_file("ro", O_RDONLY | O_CREAT);
    const int rw = open_file("rw");
    ASSERT_LE(0, ro);
    ASSERT_LE(0, rw);
    ASSERT_EQ(0, aio_fallocate(ro, 4096, 1));
    ASSERT_EQ(0, aio_fallocate(rw, 1 << 20, 2));
    // A task that ends hands its file over instead of closing it: a file opened meanwhile cannot
    // get its number, so the late reservation still lands where it was meant to.
    EXPECT_TRUE(aio_adopt(2));
    EXPECT_FALSE(aio_adopt(2)) << "handed over once";
    EXPECT_FALSE(aio_adopt(99)) << "no such operation";
    const int other = open_file("other");
    ASSERT_LE(0, other);
    EXPECT_NE(rw, other);
    wait_for(2);
    EXPECT_EQ(-EBADF, g_done[1]);
    EXPECT_EQ(0, g_done[2]);
    EXPECT_EQ(1 << 20, size_of("rw"));
    EXPECT_EQ(0, size_of("other"));
    EXPECT_EQ(-1, fcntl(rw, F_GETFD)) << "closed with its completion";
    EXPECT_FALSE(aio_adopt(1)) << "no longer in flight";
    close(ro);
    close(other);
}

TEST_F(AioTest, ClosedWithWorkInFlightAndOpenedAgain)
{
    const int fd = open_file("f");
    const int handed = open_file("g");
    ASSERT_LE(0, fd);
    ASSERT_LE(0, handed);
    ASSERT_EQ(0, aio_fallocate(fd, 64 << 20, 7));
    ASSERT_EQ(0, aio_fallocate(handed, 4096, 6));
    ASSERT_TRUE(aio_adopt(6));
    // Waits for both, so neither descriptor is closed under a running worker.
    aio_destroy();
    EXPECT_FALSE(aio_on());
    EXPECT_EQ(64 << 20, size_of("f"));
    EXPECT_EQ(4096, size_of("g"));
    EXPECT_EQ(-1, fcntl(handed, F_GETFD)) << "a handed-over descriptor is closed with the ring";
    aio_destroy(); // nothing left to close
    ASSERT_EQ(0, aio_init(4, on_done));
    EXPECT_TRUE(aio_on());
    ASSERT_EQ(0, aio_fallocate(fd, 4096, 8));
    wait_for(1);
    EXPECT_EQ(0, g_done[8]) << "only the completion of the new ring comes";
    close(fd);
}

} // namespace
