// Process runtime and file helpers: the directory and small-file helpers with their limits, the
// pid file and its lock, CPU pinning, the quit-signal flags and daemonizing. Anything that changes
// the process for good runs in a forked child.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"
#include "util.h"

namespace fs = std::filesystem;
using vsk_test::contains;
using vsk_test::slurp;

static void spit(const std::string& p, const std::string& text)
{
    std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}

// Runs `body` in a forked child sharing the log file; its result is the exit status, -1 when it
// did not exit normally.
template <class F> static int in_child(F body)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int rc = body();
        fflush(nullptr);
        _exit(rc);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

class UtilTest : public ::testing::Test {
protected:
    // The wrappers' own debug lines (closes) are not what these tests look at.
    void SetUp() override { log_set_module_level(LOG_MOD_SYSWRAP, L_INFO); }
    vsk_test::log_capture cap;
    vsk_test::temp_dir dir{"vsk-utiltest"};
};

TEST_F(UtilTest, DirectoryAndSmallFileHelpers)
{
    EXPECT_EQ(0, dir_check(dir.path().c_str(), true));
    EXPECT_EQ(-1, dir_check((dir / "missing").c_str(), false));
    EXPECT_TRUE(contains(cap.take(), "dir_check: stat(" + (dir / "missing") + ") ERROR(2)"));
    spit(dir / "f", "x");
    EXPECT_EQ(-1, dir_check((dir / "f").c_str(), false));
    EXPECT_TRUE(contains(cap.take(), "is not a directory"));
    // Root may write anywhere; the refusal is seen by an unprivileged user.
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0555));
    EXPECT_EQ(0, in_child([&] {
                  return run_as_user("nobody") == 0 && dir_check(dir.path().c_str(), false) == 0 &&
                                 dir_check(dir.path().c_str(), true) == -1
                             ? 0
                             : 1;
              }));
    EXPECT_TRUE(contains(cap.take(), "is not writable"));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0700));

    EXPECT_EQ(0, mk_fpath_dirs((dir / "a//b/c/seg.ts").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "a/b/c") && !fs::exists(dir / "a/b/c/seg.ts"));
    EXPECT_EQ(0, mk_fpath_dirs((dir / "a/b/c/seg.ts").c_str())); // all present already
    EXPECT_EQ(-1, mk_fpath_dirs((dir / "f/g/h").c_str()));
    EXPECT_TRUE(contains(cap.take(), "exists and is not a directory"));
    EXPECT_EQ(-1, mk_fpath_dirs(""));
    EXPECT_TRUE(contains(cap.take(), "mk_fpath_dirs: no path given"));

    // The file and its terminator must fit.
    char buf[16];
    spit(dir / "fits", std::string(15, 'a'));
    EXPECT_EQ(15, read_file_buf((dir / "fits").c_str(), buf, sizeof(buf)));
    EXPECT_EQ(std::string(15, 'a'), buf);
    spit(dir / "big", std::string(16, 'b'));
    EXPECT_EQ(-1, read_file_buf((dir / "big").c_str(), buf, sizeof(buf)));
    EXPECT_TRUE(contains(cap.take(), "does not fit into 16 bytes"));
    EXPECT_EQ(-1, read_file_buf(dir.path().c_str(), buf, sizeof(buf)));
    EXPECT_TRUE(contains(cap.take(), "read_file_buf: read("));
}

TEST_F(UtilTest, PidFileWrittenAndItsLockConflict)
{
    const std::string pf = dir / "vsk.pid";
    spit(pf, "9999999999");
    EXPECT_EQ(0, create_pidfile_extra(pf.c_str(), 4242, nullptr, 0));
    EXPECT_EQ("4242", slurp(pf)); // truncated, no line end
    EXPECT_EQ("(INF)  Created pidfile [" + pf + "] with pid=4242.\n", cap.take());
    EXPECT_EQ(-1, create_pidfile_extra("", 1, nullptr, 0));
    EXPECT_EQ("(ERR)  create_pidfile_extra: no path specified\n", cap.take());

    // Locks belong to processes: a child plays the second instance.
    const int fd = open(pf.c_str(), O_WRONLY);
    ASSERT_EQ(0, write_lock(fd));
    EXPECT_EQ(1, in_child([&] { return create_pidfile_extra(pf.c_str(), 77, nullptr, 0) != 0; }));
    const std::string log = cap.take();
    EXPECT_TRUE(contains(log, "(ERR)  create_pidfile_extra: file [" + pf +
                                  "] is locked (another instance of daemon must be running)\n"))
        << log;
    EXPECT_TRUE(contains(log, "create_pidfile_extra: failed to create pidfile [" + pf));
    EXPECT_EQ(1, in_child([&] {
                  return create_pidfile_extra(pf.c_str(), 77, nullptr, PIDF_QUIET) != 0;
              }));
    EXPECT_EQ("(ERR)  Another instance is already running\n", cap.take());
    // Read only now: closing any descriptor of the file in this process drops its lock.
    EXPECT_EQ("4242", slurp(pf));
    close(fd);
    EXPECT_EQ(0, in_child([&] { return create_pidfile_extra(pf.c_str(), 31337, nullptr, 0); }));
    EXPECT_EQ("31337", slurp(pf));
}

TEST_F(UtilTest, PinToAnImpossibleCpuFails)
{
    EXPECT_EQ(-1, pin2cpu(1024));
    EXPECT_TRUE(contains(cap.take(), "pin2cpu: sched_setaffinity(CPU1024) ERROR(22)"));
}

TEST_F(UtilTest, QuitSignalsSetFlagsAndIgnoreTheRestAfterwards)
{
    // Forked, so that the dispositions changed here do not outlive the test.
    const int rc = in_child([] {
        if (handle_quit_signals(on_sigquit) != 0)
            return 1;
        raise(SIGTERM);
        if (g_quit != 1 || g_goodbye != 1)
            return 2;
        raise(SIGHUP); // would end the process if not ignored now
        raise(SIGUSR1);
        g_quit = 0;
        g_goodbye = 0;
        raise(SIGQUIT); // a quit without the deliberate-stop mark
        if (g_quit != 1 || g_goodbye != 0)
            return 3;
        struct sigaction sa {};
        sigaction(SIGCHLD, nullptr, &sa);
        return sa.sa_handler == SIG_IGN ? 0 : 4;
    });
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(NRM)  QUIT-SIG(15)\n(NRM)  QUIT-SIG(3)\n", cap.take());
}

TEST_F(UtilTest, DaemonizeDetachesInAGrandchild)
{
    struct report { int rc, fd0_null, fd1_null; pid_t pid, sid; mode_t umask_was; char cwd[64]; };
    int p[2];
    ASSERT_EQ(0, pipe(p));
    const int first = in_child([&] {
        close(p[0]);
        report rep{};
        rep.rc = daemonize();
        rep.pid = getpid();
        rep.sid = getsid(0);
        // 0 and 1 stay taken, by the null device, so no later file or socket can become them.
        struct stat null_st {}, st {};
        stat("/dev/null", &null_st);
        rep.fd0_null = fstat(0, &st) == 0 && st.st_rdev == null_st.st_rdev;
        rep.fd1_null = fstat(1, &st) == 0 && st.st_rdev == null_st.st_rdev;
        rep.umask_was = umask(022);
        if (getcwd(rep.cwd, sizeof(rep.cwd)) == nullptr)
            rep.cwd[0] = '\0';
        return write(p[1], &rep, sizeof(rep)) == static_cast<ssize_t>(sizeof(rep)) ? 0 : 1;
    });
    close(p[1]);
    EXPECT_EQ(0, first); // the first parent leaves with 0
    report rep{};
    // Blocks until the grandchild has written or exited.
    ASSERT_EQ(static_cast<ssize_t>(sizeof(rep)), read(p[0], &rep, sizeof(rep)));
    close(p[0]);
    EXPECT_EQ(0, rep.rc);
    EXPECT_NE(rep.sid, getsid(0)); // a session of its own
    EXPECT_NE(rep.sid, rep.pid);   // but not its leader: it cannot regain a terminal
    EXPECT_TRUE(rep.fd0_null && rep.fd1_null);
    EXPECT_EQ(0u, rep.umask_was);
    EXPECT_STREQ("/", rep.cwd);
}
