// Process runtime and file helpers: pid file and its lock, user and directory changes, CPU
// pinning, core limits, signal flags, option rewinding, daemonizing, and the directory/file
// helpers. Anything that changes the process for good runs in a forked child.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <getopt.h>
#include <pwd.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "log.h"
#include "timeop.h"
#include "util.h"

namespace fs = std::filesystem;

static std::string slurp(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

static bool contains(const std::string& hay, const std::string& needle)
{
    return hay.find(needle) != std::string::npos;
}

static void spit(const fs::path& p, const std::string& text)
{
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << text;
}

namespace {

constexpr uid_t NOBODY = 65534;

class UtilTest : public ::testing::Test {
protected:
    FILE* fp_ = nullptr;
    fs::path dir_;

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
        // The wrappers' own debug lines (closes) are not what these tests look at.
        log_set_module_level(LOG_MOD_SYSWRAP, L_INFO);
        char tmpl[] = "/tmp/vsk-utiltest-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        // Children that drop to an unprivileged user must be able to enter it.
        chmod(dir_.c_str(), 0755);
    }

    void TearDown() override
    {
        log_default(g_log, stderr);
        fclose(fp_);
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // Everything logged since the last call, by this process or by its children.
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

    // Runs `body` in a forked child and returns its exit status (its result), or -1 when it did
    // not exit normally. The child shares the log file.
    template <class F> int in_child(F body)
    {
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            const int rc = body();
            fflush(nullptr);
            _exit(rc);
        }
        if (pid < 0)
            return -1;
        int status = 0;
        if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
            return -1;
        return WEXITSTATUS(status);
    }
};

// Saves the dispositions of the signals that the handlers touch and puts them back.
class SignalGuard {
public:
    SignalGuard()
    {
        for (size_t i = 0; i < signals_.size(); ++i)
            sigaction(signals_[i], nullptr, &saved_[i]);
    }
    ~SignalGuard()
    {
        for (size_t i = 0; i < signals_.size(); ++i)
            sigaction(signals_[i], &saved_[i], nullptr);
        g_quit = 0;
        g_goodbye = 0;
        g_tdbg = 0;
    }
    SignalGuard(const SignalGuard&) = delete;
    SignalGuard& operator=(const SignalGuard&) = delete;

private:
    const std::vector<int> signals_ = {SIGTERM, SIGQUIT, SIGINT, SIGCHLD,
                                       SIGHUP,  SIGUSR1, SIGUSR2, SIGPIPE};
    struct sigaction saved_[8] = {};
};

sighandler_t disposition(int signo)
{
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa.sa_handler;
}

} // namespace

TEST_F(UtilTest, DirCheck)
{
    EXPECT_EQ(dir_check(dir_.c_str(), true), 0);
    EXPECT_EQ(dir_check("/", false), 0);
    EXPECT_EQ(take(), "");

    EXPECT_EQ(dir_check((dir_ / "missing").c_str(), false), -1);
    EXPECT_TRUE(contains(take(), "dir_check: stat(" + (dir_ / "missing").string() + ") ERROR(2)"));
    spit(dir_ / "file", "x");
    EXPECT_EQ(dir_check((dir_ / "file").c_str(), false), -1);
    EXPECT_TRUE(contains(take(), "is not a directory"));
    EXPECT_EQ(dir_check("", false), -1);
    EXPECT_EQ(dir_check(nullptr, false), -1);
    EXPECT_FALSE(take().empty());

    // Root may write anywhere; the refusal is seen by an unprivileged user.
    const fs::path ro = dir_ / "ro";
    ASSERT_EQ(mkdir(ro.c_str(), 0555), 0);
    const int rc = in_child([&] {
        if (run_as_user("nobody") != 0)
            return 10;
        if (dir_check(ro.c_str(), false) != 0)
            return 11;
        return dir_check(ro.c_str(), true) == -1 ? 0 : 12;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(contains(take(), "is not writable"));
}

TEST_F(UtilTest, MkFpathDirs)
{
    const fs::path file = dir_ / "a" / "b" / "c" / "seg.ts";
    EXPECT_EQ(mk_fpath_dirs(file.c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir_ / "a" / "b" / "c"));
    EXPECT_FALSE(fs::exists(file));
    struct stat st {};
    ASSERT_EQ(stat((dir_ / "a").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0700, 0700);
    EXPECT_EQ(mk_fpath_dirs(file.c_str()), 0); // all present already
    EXPECT_EQ(mk_fpath_dirs((dir_ / "a//d/" / "x").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir_ / "a" / "d"));
    EXPECT_EQ(mk_fpath_dirs("plainfile"), 0);
    EXPECT_EQ(take(), "");

    spit(dir_ / "f", "x");
    EXPECT_EQ(mk_fpath_dirs((dir_ / "f" / "g" / "h").c_str()), -1);
    EXPECT_TRUE(contains(take(), "exists and is not a directory"));
    EXPECT_EQ(mk_fpath_dirs(""), -1);
    EXPECT_TRUE(contains(take(), "mk_fpath_dirs: no path given"));
}

TEST_F(UtilTest, ReadFileBuf)
{
    char buf[16];
    spit(dir_ / "hello", "hello");
    EXPECT_EQ(read_file_buf((dir_ / "hello").c_str(), buf, sizeof(buf)), 5);
    EXPECT_STREQ(buf, "hello");

    spit(dir_ / "fits", std::string(15, 'a'));
    EXPECT_EQ(read_file_buf((dir_ / "fits").c_str(), buf, sizeof(buf)), 15);
    EXPECT_EQ(std::string(buf), std::string(15, 'a'));

    spit(dir_ / "empty", "");
    EXPECT_EQ(read_file_buf((dir_ / "empty").c_str(), buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(take(), "");

    spit(dir_ / "big", std::string(16, 'b'));
    EXPECT_EQ(read_file_buf((dir_ / "big").c_str(), buf, sizeof(buf)), -1);
    EXPECT_TRUE(contains(take(), "does not fit into 16 bytes"));
    EXPECT_EQ(read_file_buf((dir_ / "missing").c_str(), buf, sizeof(buf)), -1);
    EXPECT_TRUE(contains(take(), "read_file_buf: open('"));
    EXPECT_EQ(read_file_buf(dir_.c_str(), buf, sizeof(buf)), -1);
    EXPECT_TRUE(contains(take(), "read_file_buf: read("));
    EXPECT_EQ(read_file_buf((dir_ / "hello").c_str(), buf, 0), -1);
    EXPECT_FALSE(take().empty());
}

TEST_F(UtilTest, PidFileWrittenAndTruncated)
{
    const fs::path pf = dir_ / "vsk.pid";
    spit(pf, "9999999999");
    struct stat st {};
    EXPECT_EQ(create_pidfile_extra(pf.c_str(), 12345, &st, 0), 0);
    EXPECT_EQ(slurp(pf), "12345");
    EXPECT_EQ(st.st_size, 5);
    EXPECT_EQ(take(), "(INF)  Created pidfile [" + pf.string() + "] with pid=12345.\n");

    // The lock is gone once the file is written: a second writer is not stopped.
    EXPECT_EQ(create_pidfile_extra(pf.c_str(), 777, nullptr, PIDF_QUIET), 0);
    EXPECT_EQ(slurp(pf), "777");
    EXPECT_EQ(take(), "");

    EXPECT_EQ(create_pidfile_extra("", 1, nullptr, 0), -1);
    EXPECT_EQ(take(), "(ERR)  create_pidfile_extra: no path specified\n");
    EXPECT_NE(create_pidfile_extra((dir_ / "no" / "dir.pid").c_str(), 1, nullptr, 0), 0);
    const std::string log = take();
    EXPECT_TRUE(contains(log, "create_pidfile_extra: open('"));
    EXPECT_TRUE(contains(log, "failed to create pidfile ["));
}

TEST_F(UtilTest, PidFileLockConflict)
{
    const fs::path pf = dir_ / "vsk.pid";
    spit(pf, "4242");
    const int fd = open(pf.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write_lock(fd), 0);
    take();

    // Locks belong to processes: a child plays the second instance.
    EXPECT_EQ(in_child([&] { return create_pidfile_extra(pf.c_str(), getpid(), nullptr, 0) != 0; }),
              1);
    std::string log = take();
    EXPECT_TRUE(contains(log, "(ERR)  create_pidfile_extra: file [" + pf.string() +
                                  "] is locked (another instance of daemon must be running)\n"))
        << log;
    EXPECT_TRUE(contains(log, "create_pidfile_extra: failed to create pidfile [" + pf.string()));

    EXPECT_EQ(in_child([&] {
                  return create_pidfile_extra(pf.c_str(), getpid(), nullptr, PIDF_QUIET) != 0;
              }),
              1);
    EXPECT_EQ(take(), "(ERR)  Another instance is already running\n");
    // Read only now: closing any descriptor of the file in this process drops its lock.
    EXPECT_EQ(slurp(pf), "4242"); // the holder's file is left alone

    close(fd);
    EXPECT_EQ(in_child([&] { return create_pidfile_extra(pf.c_str(), 31337, nullptr, 0); }), 0);
    EXPECT_EQ(slurp(pf), "31337");
}

TEST_F(UtilTest, PidFileProgrammingErrorsAbort)
{
    const fs::path pf = dir_ / "x.pid";
    EXPECT_DEATH(
        {
            log_default(g_log, stderr);
            (void)create_pidfile_extra(pf.c_str(), 0, nullptr, 0);
        },
        "ASSERT at:");
    EXPECT_DEATH(
        {
            log_default(g_log, stderr);
            (void)create_pidfile_extra(nullptr, 1, nullptr, 0);
        },
        "ASSERT at:");
}

TEST_F(UtilTest, PinToCpu)
{
    cpu_set_t saved;
    ASSERT_EQ(sched_getaffinity(0, sizeof(saved), &saved), 0);
    EXPECT_EQ(pin2cpu(1024), -1);
    EXPECT_TRUE(contains(take(), "pin2cpu: sched_setaffinity(CPU1024) ERROR(22)"));
    EXPECT_EQ(pin2cpu(-1), -1);
    take();

    ASSERT_EQ(pin2cpu(0), 0);
    cpu_set_t now;
    ASSERT_EQ(sched_getaffinity(0, sizeof(now), &now), 0);
    EXPECT_EQ(CPU_COUNT(&now), 1);
    EXPECT_TRUE(CPU_ISSET(0, &now));
    ASSERT_EQ(sched_setaffinity(0, sizeof(saved), &saved), 0);
}

TEST_F(UtilTest, QuitSignalsSetFlags)
{
    const SignalGuard guard;
    g_quit = 0;
    g_goodbye = 0;
    ASSERT_EQ(handle_quit_signals(on_sigquit), 0);
    struct sigaction sa {};
    for (const int s : {SIGTERM, SIGQUIT, SIGINT}) {
        sigaction(s, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, on_sigquit) << s;
        EXPECT_EQ(sa.sa_flags & SA_RESTART, 0) << s;
    }
    raise(SIGTERM);
    EXPECT_EQ(g_quit, 1);
    EXPECT_EQ(g_goodbye, 1);
    EXPECT_EQ(g_sigctx, 0);
    EXPECT_EQ(take(), "(NRM)  QUIT-SIG(15)\n");
    for (const int s : {SIGCHLD, SIGHUP, SIGUSR1})
        EXPECT_EQ(disposition(s), SIG_IGN) << s;
    // Would end the process if they were not ignored.
    raise(SIGHUP);
    raise(SIGUSR1);

    // SIGQUIT asks to quit without the deliberate-stop mark.
    ASSERT_EQ(handle_sig(SIGHUP, SIG_DFL), 0);
    ASSERT_EQ(handle_sig(SIGUSR1, SIG_DFL), 0);
    g_quit = 0;
    g_goodbye = 0;
    raise(SIGQUIT);
    EXPECT_EQ(g_quit, 1);
    EXPECT_EQ(g_goodbye, 0);
    EXPECT_EQ(disposition(SIGHUP), SIG_IGN);
    EXPECT_EQ(disposition(SIGUSR1), SIG_IGN);
    EXPECT_EQ(take(), "(NRM)  QUIT-SIG(3)\n");

    g_quit = 0;
    g_goodbye = 0;
    raise(SIGINT);
    EXPECT_EQ(g_quit, 1);
    EXPECT_EQ(g_goodbye, 1);
    take();
}

TEST_F(UtilTest, DebugToggleAndSigpipe)
{
    const SignalGuard guard;
    ASSERT_EQ(handle_sig(SIGUSR2, on_tdbg), 0);
    g_tdbg = 0;
    const int saved_errno = (errno = ENOENT);
    raise(SIGUSR2);
    raise(SIGUSR2);
    EXPECT_EQ(errno, saved_errno); // the handler leaves the interrupted code's errno alone
    EXPECT_EQ(g_tdbg, 1);
    EXPECT_EQ(take(), "(NRM)  T-DBG SIG(12)\n(NRM)  T-DBG SIG(12)\n");

    ASSERT_EQ(ignore_sigpipe(), 0);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    EXPECT_EQ(handle_sig(SIGKILL, on_tdbg), -1);
    EXPECT_TRUE(contains(take(), "handle_sig: sigaction (signo=9) ERROR(22)"));
}

TEST_F(UtilTest, GotoRuntimeHome)
{
    const fs::path start = fs::current_path();
    EXPECT_EQ(goto_runtime_home(dir_.c_str(), "/tmp"), 0);
    EXPECT_EQ(fs::current_path(), fs::canonical(dir_));

    EXPECT_EQ(goto_runtime_home("/no/such/dir", "/tmp"), -1);
    EXPECT_EQ(take(), "(ERR)  chdir(/no/such/dir) (param) ERROR(2): No such file or directory\n");
    EXPECT_EQ(goto_runtime_home(nullptr, "/no/such/alt"), -1);
    EXPECT_TRUE(contains(take(), "chdir(/no/such/alt) (alt) ERROR(2)"));

    // No alternative: the effective user's home.
    const passwd* pw = getpwuid(geteuid());
    ASSERT_NE(pw, nullptr);
    const std::string home = pw->pw_dir;
    if (fs::is_directory(home)) {
        EXPECT_EQ(goto_runtime_home(nullptr, nullptr), 0);
        EXPECT_EQ(fs::current_path(), fs::canonical(home));
        EXPECT_TRUE(contains(take(), "goto_runtime_home: EUID(" + std::to_string(geteuid()) +
                                         ") home: " + home + "\n"));
    }
    fs::current_path(start);

    // A start directory that the new user may not enter sends it to the alternative.
    const fs::path closed = dir_ / "closed";
    ASSERT_EQ(mkdir(closed.c_str(), 0700), 0);
    const int rc = in_child([&] {
        if (run_as_user("nobody") != 0)
            return 10;
        if (goto_runtime_home(closed.c_str(), "/tmp") != 0)
            return 11;
        char cwd[256];
        return getcwd(cwd, sizeof(cwd)) != nullptr && strcmp(cwd, "/tmp") == 0 ? 0 : 12;
    });
    EXPECT_EQ(rc, 0);
}

TEST_F(UtilTest, RunAsUser)
{
    EXPECT_EQ(run_as_user("no-such-user-zq"), -1);
    const std::string log = take();
    EXPECT_TRUE(contains(log, "(ERR)  run_as_user: getpwnam")) << log;
    EXPECT_TRUE(contains(log, "no-such-user-zq")) << log;

    EXPECT_EQ(in_child([] {
                  if (run_as_user("nobody") != 0)
                      return 1;
                  return getuid() == NOBODY && geteuid() == NOBODY && getgid() == NOBODY ? 0 : 2;
              }),
              0);
    EXPECT_EQ(in_child([] {
                  if (run_as_user_id(NOBODY, NOBODY) != 0)
                      return 1;
                  // Back to root is refused now, and said so.
                  return run_as_user_id(0, 0) == -1 && getuid() == NOBODY ? 0 : 2;
              }),
              0);
    EXPECT_TRUE(contains(take(), "run_as_user_id: setgid(0) ERROR(1)"));
}

TEST_F(UtilTest, UnlimitedCore)
{
    const int rc = in_child([] {
        const struct rlimit zero = {0, RLIM_INFINITY};
        if (setrlimit(RLIMIT_CORE, &zero) != 0 || prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0)
            return 10;
        struct rlimit before {};
        if (set_unlimited_core(&before) != 0)
            return 11;
        if (before.rlim_cur != 0)
            return 12;
        struct rlimit now {};
        getrlimit(RLIMIT_CORE, &now);
        if (now.rlim_cur != RLIM_INFINITY || prctl(PR_GET_DUMPABLE, 0, 0, 0, 0) != 1)
            return 13;
        return set_unlimited_core(nullptr);
    });
    EXPECT_EQ(rc, 0);
    const std::string log = take();
    EXPECT_TRUE(contains(log, "(INF)  set_unlimited_core: process is currently NOT core-dumpable"));
    EXPECT_TRUE(contains(log, "(DBG)  set_unlimited_core: current=0/-1\n"));
    EXPECT_TRUE(contains(log, "(DBG)  set_unlimited_core: OK\n"));
    EXPECT_TRUE(contains(log, "(DBG)  set_unlimited_core: already set\n"));

    // A hard limit that cannot be raised any more.
    EXPECT_NE(in_child([] {
                  const struct rlimit low = {0, 0};
                  if (setrlimit(RLIMIT_CORE, &low) != 0 || run_as_user("nobody") != 0)
                      return 0;
                  return set_unlimited_core(nullptr);
              }),
              0);
    EXPECT_TRUE(contains(take(), "set_unlimited_core: setrlimit ERROR(1)"));
}

TEST_F(UtilTest, ResetGetoptStateRewindsMidCluster)
{
    char a0[] = "prog", a1[] = "-ac", a2[] = "-b", a3[] = "val";
    char* argv[] = {a0, a1, a2, a3, nullptr};
    const option longopts[] = {{"bee", required_argument, nullptr, 'b'}, {}};
    const int saved_opterr = opterr;
    opterr = 0;
    // Stop in the middle of "-ac": a plain optind = 1 would resume at 'c'.
    reset_getopt_state();
    ASSERT_EQ(getopt_long(4, argv, "acb:", longopts, nullptr), 'a');
    reset_getopt_state();
    std::string seen;
    for (int c; (c = getopt_long(4, argv, "acb:", longopts, nullptr)) != -1;) {
        seen += static_cast<char>(c);
        if (c == 'b')
            seen += std::string("=") + optarg;
    }
    EXPECT_EQ(seen, "acb=val");
    reset_getopt_state();
    opterr = saved_opterr;
}

TEST_F(UtilTest, PickFirstFile)
{
    spit(dir_ / "one.conf", "");
    spit(dir_ / "two.conf", "");
    const std::string missing = (dir_ / "missing.conf").string();
    const std::string adir = dir_.string();
    const std::string one = (dir_ / "one.conf").string();
    const std::string two = (dir_ / "two.conf").string();
    const char* list[] = {missing.c_str(), nullptr, adir.c_str(), one.c_str(), two.c_str()};
    EXPECT_STREQ(pick_first_file(list, 5), one.c_str());
    EXPECT_EQ(pick_first_file(list, 3), nullptr);
    EXPECT_STREQ(pick_first_file(list + 4, 1), two.c_str());
    EXPECT_EQ(pick_first_file(list, 0), nullptr);
    EXPECT_EQ(pick_first_file(nullptr, 2), nullptr);
}

namespace {
struct daemon_report {
    int rc;
    pid_t pid;
    pid_t sid;
    int fd0_open;
    int fd1_open;
    mode_t umask_was;
    char cwd[64];
};
} // namespace

TEST_F(UtilTest, DaemonizeDetachesInGrandchild)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(p[0]);
        daemon_report rep{};
        rep.rc = daemonize();
        rep.pid = getpid();
        rep.sid = getsid(0);
        rep.fd0_open = fcntl(0, F_GETFD) != -1;
        rep.fd1_open = fcntl(1, F_GETFD) != -1;
        rep.umask_was = umask(022);
        if (getcwd(rep.cwd, sizeof(rep.cwd)) == nullptr)
            rep.cwd[0] = '\0';
        const ssize_t n = write(p[1], &rep, sizeof(rep));
        _exit(n == sizeof(rep) ? 0 : 1);
    }
    close(p[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0); // the first parent leaves with 0
    daemon_report rep{};
    // Blocks until the grandchild has written or exited.
    const ssize_t n = read(p[0], &rep, sizeof(rep));
    close(p[0]);
    ASSERT_EQ(n, static_cast<ssize_t>(sizeof(rep)));
    EXPECT_EQ(rep.rc, 0);
    EXPECT_NE(rep.pid, child);
    EXPECT_NE(rep.sid, getsid(0));     // a session of its own
    EXPECT_NE(rep.sid, rep.pid);       // but not its leader: it cannot regain a terminal
    EXPECT_FALSE(rep.fd0_open);
    EXPECT_FALSE(rep.fd1_open);
    EXPECT_EQ(rep.umask_was, 0u);
    EXPECT_STREQ(rep.cwd, "/");
}
