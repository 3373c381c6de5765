// System-call wrappers: the exact error line of each wrapper, errno handed back intact, the
// no-fault rule of the `_f` wrappers and the debug line of a successful close.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "log.h"
#include "syswrap.h"
#include "timeop.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
// The allocator wrappers are tested with requests that cannot be met; the sanitizer must report
// them as a null result instead of stopping the test.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
#endif

[[gnu::format(printf, 1, 2)]] static std::string fmt(const char* format, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof(buf), format, ap);
    va_end(ap);
    return buf;
}

static int count_lines(const std::string& s)
{
    int n = 0;
    for (const char c : s)
        n += c == '\n';
    return n;
}

namespace {

// Points the application log at a temporary file, records without time stamps, every module at
// debug level.
class SyswrapTest : public ::testing::Test {
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
        log_default(g_log, stderr);
        fclose(fp_);
    }

    // Everything logged since the last call.
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

struct fd_pair {
    int r = -1;
    int w = -1;
    fd_pair()
    {
        int p[2];
        if (pipe(p) == 0) {
            r = p[0];
            w = p[1];
        }
    }
    ~fd_pair()
    {
        if (r >= 0)
            close(r);
        if (w >= 0)
            close(w);
    }
};

struct sock_holder {
    int fd;
    explicit sock_holder(int f) : fd(f) {}
    ~sock_holder()
    {
        if (fd >= 0)
            close(fd);
    }
};

// One failing call: the wrapper's result (-1 for a failure, whatever the wrapper type), the errno
// it must leave and the message it must log.
struct fail_case {
    const char* name;
    int expect_errno;
    std::function<long(std::string* expect)> run;
};

} // namespace

TEST_F(SyswrapTest, EachWrapperLogsItsLineAndKeepsErrno)
{
    fd_pair pp;
    ASSERT_GE(pp.r, 0);
    char buf[16] = {};

    const std::vector<fail_case> cases = {
        {"close", EBADF,
         [](std::string* e) {
             *e = fmt("t: close(fd-1) ERROR(%d): %s\n", EBADF, strerror(EBADF));
             return static_cast<long>(W_close("t", -1) != 0 ? -1 : 0);
         }},
        {"unlink", ENOENT,
         [](std::string* e) {
             *e = fmt("t: unlink(/no/such/dir/f) ERROR(%d): %s\n", ENOENT, strerror(ENOENT));
             return static_cast<long>(W_unlink("t", "/no/such/dir/f"));
         }},
        {"open", ENOENT,
         [](std::string* e) {
             *e = fmt("t: open('/no/such/dir/f', %d, 0x1a4) ERROR(%d): %s\n", O_WRONLY | O_CREAT,
                      ENOENT, strerror(ENOENT));
             return static_cast<long>(W_open("t", "/no/such/dir/f", O_WRONLY | O_CREAT, 0644));
         }},
        {"connect", ENOENT,
         [](std::string* e) {
             sock_holder s(socket(AF_UNIX, SOCK_STREAM, 0));
             sockaddr_un sa{};
             sa.sun_family = AF_UNIX;
             strcpy(sa.sun_path, "/no/such/dir/sock");
             auto* a = reinterpret_cast<const sockaddr*>(&sa);
             *e = fmt("t: connect(%d, %p, %ld) ERROR(%d): %s\n", s.fd, static_cast<const void*>(a),
                      static_cast<long>(sizeof(sa)), ENOENT, strerror(ENOENT));
             return static_cast<long>(W_connect("t", s.fd, a, sizeof(sa)));
         }},
        {"pread", ESPIPE,
         [&](std::string* e) {
             *e = fmt("t: pread(%d, %p, 4, 7) ERROR(%d): %s\n", pp.r, static_cast<void*>(buf),
                      ESPIPE, strerror(ESPIPE));
             return static_cast<long>(W_pread_f("t", pp.r, buf, 4, 7, W_NOFAULT));
         }},
        {"socket", EAFNOSUPPORT,
         [](std::string* e) {
             *e = fmt("t: socket(-1, %d, 0) ERROR(%d): %s\n", SOCK_STREAM, EAFNOSUPPORT,
                      strerror(EAFNOSUPPORT));
             return static_cast<long>(W_socket("t", -1, SOCK_STREAM, 0));
         }},
        {"getsockopt", ENOTSOCK,
         [&](std::string* e) {
             int v = 0;
             socklen_t len = sizeof(v);
             *e = fmt("t: getsockopt(%d, %d, %d, %p, 4) ERROR(%d): %s\n", pp.r, SOL_SOCKET,
                      SO_ERROR, static_cast<void*>(&v), ENOTSOCK, strerror(ENOTSOCK));
             return static_cast<long>(W_getsockopt("t", pp.r, SOL_SOCKET, SO_ERROR, &v, &len));
         }},
        {"setsockopt", ENOTSOCK,
         [&](std::string* e) {
             const int v = 1;
             *e = fmt("t: setsockopt(%d, %d, %d, %p, 4) ERROR(%d): %s\n", pp.r, SOL_SOCKET,
                      SO_REUSEADDR, static_cast<const void*>(&v), ENOTSOCK, strerror(ENOTSOCK));
             return static_cast<long>(
                 W_setsockopt("t", pp.r, SOL_SOCKET, SO_REUSEADDR, &v, sizeof(v)));
         }},
        {"bind", EINVAL,
         [](std::string* e) {
             sock_holder s(socket(AF_INET, SOCK_STREAM, 0));
             sockaddr_in sa{};
             sa.sin_family = AF_INET;
             sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
             auto* a = reinterpret_cast<const sockaddr*>(&sa);
             if (bind(s.fd, a, sizeof(sa)) != 0)
                 return 0L; // the second bind below is the one that must fail
             *e = fmt("t: bind(%d, %p, %ld): ERROR(%d): %s\n", s.fd, static_cast<const void*>(a),
                      static_cast<long>(sizeof(sa)), EINVAL, strerror(EINVAL));
             return static_cast<long>(W_bind("t", s.fd, a, sizeof(sa)));
         }},
        {"accept", EINVAL,
         [](std::string* e) {
             sock_holder s(socket(AF_INET, SOCK_STREAM, 0));
             char addr[128];
             socklen_t len = sizeof(addr);
             *e = fmt("t: accept(%d, %p, 128) ERROR(%d): %s\n", s.fd, static_cast<void*>(addr),
                      EINVAL, strerror(EINVAL));
             const int fd = W_accept("t", s.fd, reinterpret_cast<sockaddr*>(addr), &len);
             if (fd >= 0)
                 close(fd);
             return static_cast<long>(fd);
         }},
        {"poll", EINVAL,
         [](std::string* e) {
             const nfds_t huge = nfds_t{1} << 30;
             *e = fmt("t: poll(%p, %ld, 0) ERROR(%d): %s\n", nullptr, static_cast<long>(huge),
                      EINVAL, strerror(EINVAL));
             return static_cast<long>(W_poll("t", nullptr, huge, 0));
         }},
        {"sendfile", EBADF,
         [](std::string* e) {
             off_t off = 3;
             // This line has never carried a line end.
             *e = fmt("t: LNX sendfile(-1<--1, 3, 10) ERROR(%d): %s", EBADF, strerror(EBADF));
             return static_cast<long>(W_sendfile_f("t", -1, -1, &off, 10, W_NOFAULT));
         }},
        {"sendto", EPIPE,
         [&](std::string* e) {
             sock_holder s(socket(AF_INET, SOCK_STREAM, 0));
             *e = fmt("t: sendto(%d, %p, 3, %d, ...) ERROR(%d): %s\n", s.fd,
                      static_cast<void*>(buf), MSG_NOSIGNAL, EPIPE, strerror(EPIPE));
             // An unconnected stream socket: EPIPE, logged because sendto has no flag.
             return static_cast<long>(W_sendto("t", s.fd, buf, 3, MSG_NOSIGNAL, nullptr, 0));
         }},
        {"recvfrom", EAGAIN,
         [&](std::string* e) {
             sock_holder s(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
             *e = fmt("t: recvfrom(%d, %p, 16, 0, ...) ERROR(%d): %s\n", s.fd,
                      static_cast<void*>(buf), EAGAIN, strerror(EAGAIN));
             return static_cast<long>(W_recvfrom("t", s.fd, buf, 16, 0, nullptr, nullptr));
         }},
        {"calloc", ENOMEM,
         [](std::string* e) {
             const size_t n = size_t{1} << 62;
             *e = fmt("t: calloc(%ld, 8) ERROR(%d): %s\n", static_cast<long>(n), ENOMEM,
                      strerror(ENOMEM));
             void* p = W_calloc("t", n, 8);
             free(p);
             return p == nullptr ? -1L : 0L;
         }},
        {"realloc", ENOMEM,
         [](std::string* e) {
             void* p = malloc(16);
             const size_t n = size_t{1} << 62;
             *e = fmt("t: realloc(%p, %ld) ERROR(%d): %s\n", p, static_cast<long>(n), ENOMEM,
                      strerror(ENOMEM));
             void* q = W_realloc("t", p, n);
             free(q != nullptr ? q : p);
             return q == nullptr ? -1L : 0L;
         }},
    };

    for (const fail_case& c : cases) {
        SCOPED_TRACE(c.name);
        take();
        std::string expect;
        errno = 0;
        const long rc = c.run(&expect);
        const int err = errno;
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(err, c.expect_errno) << strerror(err);
        const std::string got = take();
        EXPECT_EQ(got, "(ERR)  " + expect);
    }
}

TEST_F(SyswrapTest, GetaddrinfoPrintsResolverCodeAndErrno)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* res = nullptr;
    take();
    errno = 0;
    const int rc = W_getaddrinfo("t", "not-a-number", "80", &hints, &res);
    const int err = errno;
    ASSERT_NE(rc, 0);
    EXPECT_EQ(rc, EAI_NONAME);
    EXPECT_EQ(take(), fmt("(ERR)  t: getaddrinfo(not-a-number, 80, %p, %p): ERROR(%d:%d): %s\n",
                          static_cast<void*>(&hints), static_cast<void*>(&res), rc, err,
                          gai_strerror(rc)));

    // A null service is printed as such rather than handed to printf.
    EXPECT_NE(W_getaddrinfo("t", "x.y", nullptr, &hints, &res), 0);
    EXPECT_NE(take().find("getaddrinfo(x.y, (null), "), std::string::npos);

    ASSERT_EQ(W_getaddrinfo("t", "127.0.0.1", "80", &hints, &res), 0);
    freeaddrinfo(res);
    EXPECT_EQ(take(), "");
}

TEST_F(SyswrapTest, ErrnoSurvivesAFailingLogOutput)
{
    // Writing the error line itself fails here (ENOSPC); the caller must still see EBADF.
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    setvbuf(full, nullptr, _IONBF, 0);
    log_default(g_log, full);
    errno = 0;
    EXPECT_NE(W_close("t", -1), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(W_read_f("t", -1, nullptr, 0, W_LOGALL), -1);
    EXPECT_EQ(errno, EBADF);
    log_default(g_log, fp_);
    fclose(full);
}

TEST_F(SyswrapTest, SuccessfulCallsReturnTheCallResultQuietly)
{
    int p[2] = {-1, -1};
    ASSERT_EQ(W_pipe("t", p), 0);
    EXPECT_EQ(W_write_f("t", p[1], "abc", 3, W_LOGALL), 3);
    char b[8] = {};
    EXPECT_EQ(W_read_f("t", p[0], b, sizeof(b), W_LOGALL), 3);
    EXPECT_STREQ(b, "abc");
    EXPECT_EQ(W_dup2("t", p[0], p[0]), p[0]);
    log_set_module_level(LOG_MOD_SYSWRAP, L_NORM);
    EXPECT_EQ(W_close("t", p[0]), 0);
    EXPECT_EQ(W_close("t", p[1]), 0);
    EXPECT_EQ(take(), "");
}

TEST_F(SyswrapTest, CloseLogsClosedAtDebugOfItsOwnModule)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    take();
    EXPECT_EQ(W_close("caller", p[0]), 0);
    EXPECT_EQ(take(), fmt("(DBG)  caller: CLOSED(fd%d)\n", p[0]));

    // The wrappers log under module 2: lowering it silences them while the application module
    // stays at debug.
    log_set_module_level(LOG_MOD_SYSWRAP, L_NORM);
    EXPECT_EQ(W_close("caller", p[1]), 0);
    EXPECT_EQ(W_close("caller", -1), -1);
    const std::string got = take();
    EXPECT_EQ(count_lines(got), 1) << got;
    EXPECT_NE(got.find("caller: close(fd-1) ERROR("), std::string::npos) << got;
    log_set_module_level(LOG_MOD_SYSWRAP, L_ERR - 1);
    EXPECT_EQ(W_close("caller", -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(take(), "");
}

TEST_F(SyswrapTest, NoFaultFlagSilencesOnlyTheFourExpectedErrors)
{
    fd_pair pp;
    ASSERT_GE(pp.r, 0);
    ASSERT_EQ(fcntl(pp.r, F_SETFL, O_NONBLOCK), 0);
    char b[8];
    take();

    // EAGAIN on an empty non-blocking pipe.
    EXPECT_EQ(W_read_f("t", pp.r, b, sizeof(b), W_NOFAULT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(take(), "");
    EXPECT_EQ(W_read_f("t", pp.r, b, sizeof(b), W_LOGALL), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(take(), fmt("(ERR)  t: read(%d, %p, 8) ERROR(%d): %s\n", pp.r,
                          static_cast<void*>(b), EAGAIN, strerror(EAGAIN)));

    // Any other error is logged whatever the flag.
    EXPECT_EQ(W_read_f("t", -1, b, sizeof(b), W_NOFAULT), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_NE(take().find("t: read(-1, "), std::string::npos);
    EXPECT_EQ(W_sendfile_f("t", -1, -1, nullptr, 1, W_NOFAULT), -1);
    EXPECT_EQ(take(), fmt("(ERR)  t: LNX sendfile(-1<--1, -1, 1) ERROR(%d): %s", EBADF,
                          strerror(EBADF)));

    // EPIPE on a pipe without a reader (SIGPIPE ignored for the moment).
    struct sigaction ign {}, old {};
    ign.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGPIPE, &ign, &old), 0);
    close(pp.r);
    pp.r = -1;
    EXPECT_EQ(W_write_f("t", pp.w, "x", 1, W_NOFAULT), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(take(), "");
    EXPECT_EQ(W_write_f("t", pp.w, "x", 1, W_LOGALL), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_NE(take().find(fmt("t: write(%d, ", pp.w)), std::string::npos);
    sigaction(SIGPIPE, &old, nullptr);
}

TEST_F(SyswrapTest, NoFaultCoversConnectionReset)
{
    sock_holder lst(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    ASSERT_EQ(bind(lst.fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    ASSERT_EQ(listen(lst.fd, 1), 0);
    ASSERT_EQ(getsockname(lst.fd, reinterpret_cast<sockaddr*>(&sa), &len), 0);
    sock_holder cli(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(cli.fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    const int srv = accept(lst.fd, nullptr, nullptr);
    ASSERT_GE(srv, 0);
    // A zero linger turns the close into a reset.
    const linger lg = {1, 0};
    ASSERT_EQ(setsockopt(srv, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg)), 0);
    close(srv);
    take();
    char b[4];
    EXPECT_EQ(W_read_f("t", cli.fd, b, sizeof(b), W_NOFAULT), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(take(), "");
    EXPECT_TRUE(no_fault(EINTR));
    EXPECT_FALSE(no_fault(EBADF));
}
