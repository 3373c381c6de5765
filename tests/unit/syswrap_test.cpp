// System-call wrappers: the exact error line of a representative set of wrappers, errno handed
// back intact, the no-fault rule of the `_f` wrappers and the debug line of a successful close.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "syswrap.h"
#include "test_support.h"

[[gnu::format(printf, 1, 2)]] static std::string fmt(const char* format, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof(buf), format, ap);
    va_end(ap);
    return buf;
}

TEST(Syswrap, WrappersLogTheirLineAndKeepErrno)
{
    vsk_test::log_capture cap;
    int sp[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sp));
    const int s4 = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in sin{};
    const auto* sa = reinterpret_cast<const sockaddr*>(&sin);
    char arr[16];
    void* const buf = arr;
    off_t off = 3;
    // Expected: "(ERR)  " + head + "ERROR(errno): text" + tail.
    const struct { int err; std::string head; const char* tail; std::function<long()> run; }
        cases[] = {
        {EBADF, "t: close(fd-1) ", "\n", [] { return long{W_close("t", -1)}; }},
        {ENOENT, fmt("t: open('/no/such/f', %d, 0x1a4) ", O_WRONLY | O_CREAT), "\n",
         [] { return long{W_open("t", "/no/such/f", O_WRONLY | O_CREAT, 0644)}; }},
        // The no-fault flag hides only the expected errors: ESPIPE is logged.
        {ESPIPE, fmt("t: pread(%d, %p, 4, 7) ", sp[0], buf), "\n",
         [&] { return long{W_pread_f("t", sp[0], buf, 4, 7, W_NOFAULT)}; }},
        // An address length too short for the family; this line has a colon before ERROR.
        {EINVAL, fmt("t: bind(%d, %p, 1): ", s4, static_cast<const void*>(sa)), "\n",
         [&] { return long{W_bind("t", s4, sa, 1)}; }},
        // The format has never carried a line end; the log record ends its line all the same.
        {EBADF, "t: LNX sendfile(-1<--1, 3, 10) ", "\n",
         [&] { return long{W_sendfile_f("t", -1, -1, &off, 10, W_NOFAULT)}; }},
        // recvfrom has no flag, so even EAGAIN is logged.
        {EAGAIN, fmt("t: recvfrom(%d, %p, 16, %d, ...) ", sp[0], buf, MSG_DONTWAIT), "\n",
         [&] { return long{W_recvfrom("t", sp[0], buf, 16, MSG_DONTWAIT, nullptr, nullptr)}; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.head);
        cap.take();
        errno = 0;
        EXPECT_EQ(-1, c.run());
        EXPECT_EQ(c.err, errno) << strerror(errno);
        EXPECT_EQ("(ERR)  " + c.head + fmt("ERROR(%d): %s", c.err, strerror(c.err)) + c.tail,
                  cap.take());
    }
    close(sp[0]), close(sp[1]), close(s4);
}

TEST(Syswrap, GetaddrinfoPrintsResolverCodeAndErrno)
{
    vsk_test::log_capture cap;
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* res = nullptr;
    const int rc = W_getaddrinfo("t", "not-a-number", nullptr, &hints, &res);
    EXPECT_EQ(EAI_NONAME, rc);
    EXPECT_EQ(fmt("(ERR)  t: getaddrinfo(not-a-number, (null), %p, %p): ERROR(%d:%d): %s\n",
                  static_cast<void*>(&hints), static_cast<void*>(&res), rc, errno,
                  gai_strerror(rc)),
              cap.take());
}

TEST(Syswrap, CloseLogsAtDebugAndErrnoSurvivesAFailingLogOutput)
{
    vsk_test::log_capture cap;
    int p[2];
    ASSERT_EQ(0, pipe(p));
    EXPECT_EQ(0, W_close("caller", p[0]));
    EXPECT_EQ(fmt("(DBG)  caller: CLOSED(fd%d)\n", p[0]), cap.take());
    // The wrappers log under their own module: lowering it silences them, and only them.
    log_set_module_level(LOG_MOD_SYSWRAP, L_ERR - 1);
    EXPECT_EQ(0, W_close("caller", p[1]));
    EXPECT_TRUE(W_close("caller", -1) == -1 && errno == EBADF);
    EXPECT_EQ("", cap.take());

    log_set_module_level(LOG_MOD_SYSWRAP, L_DEBUG);
    FILE* full = fopen("/dev/full", "w"); // writing the error line itself fails with ENOSPC
    ASSERT_NE(nullptr, full);
    setvbuf(full, nullptr, _IONBF, 0);
    log_default(g_log, full);
    errno = 0;
    EXPECT_EQ(-1, W_read_f("t", -1, nullptr, 0, W_LOGALL));
    EXPECT_EQ(EBADF, errno);
    log_default(g_log, stderr);
    fclose(full);
}

TEST(Syswrap, NoFaultFlagHidesOnlyTheExpectedErrors)
{
    vsk_test::log_capture cap;
    int p[2], sp[2];
    ASSERT_EQ(0, pipe2(p, O_NONBLOCK));
    char b[8];
    for (const int flag : {W_NOFAULT, W_LOGALL}) {
        EXPECT_EQ(-1, W_read_f("t", p[0], b, sizeof(b), flag)); // an empty non-blocking pipe
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_EQ(flag == W_LOGALL, vsk_test::contains(cap.take(), fmt("t: read(%d, ", p[0])));
    }
    const auto old = signal(SIGPIPE, SIG_IGN);
    close(p[0]);
    for (const int flag : {W_NOFAULT, W_LOGALL}) {
        EXPECT_EQ(-1, W_write_f("t", p[1], "x", 1, flag)); // a pipe without a reader
        EXPECT_EQ(EPIPE, errno);
        EXPECT_EQ(flag == W_LOGALL, vsk_test::contains(cap.take(), fmt("t: write(%d, ", p[1])));
    }
    signal(SIGPIPE, old);
    close(p[1]);

    // Unread data turns the peer's close into a reset.
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sp));
    ASSERT_EQ(1, write(sp[0], "x", 1));
    close(sp[1]);
    EXPECT_EQ(-1, W_read_f("t", sp[0], b, sizeof(b), W_NOFAULT));
    EXPECT_EQ(ECONNRESET, errno);
    EXPECT_EQ("", cap.take());
    close(sp[0]);
    EXPECT_TRUE(no_fault(EINTR) && no_fault(ECONNRESET) && !no_fault(EBADF));
}
