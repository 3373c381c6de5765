// The URL-opened socket and the source client: opening each kind of URL and releasing it again,
// the exact GET text a source receives (read back by a loopback server), and the reading of a
// response head that arrives in pieces or is malformed.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "fdio.h"
#include "log.h"
#include "timeop.h"
#include "wopen.h"

namespace {

constexpr const char* APPTAG = "vsk/0.2-0.7 (torbella)";

class WopenTest : public ::testing::Test {
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
        usock_set_apptag(APPTAG);
        g_usock_flags.use_http10_get = false;
    }

    void TearDown() override
    {
        g_usock_flags.use_http10_get = false;
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

bool contains(const std::string& hay, const std::string& needle)
{
    return hay.find(needle) != std::string::npos;
}

// A TCP listener on 127.0.0.1 with a kernel-chosen port.
struct loopback_server {
    int fd = -1;
    int port = 0;
    loopback_server()
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            listen(fd, 8) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            return;
        port = ntohs(a.sin_port);
    }
    ~loopback_server()
    {
        if (fd >= 0)
            close(fd);
    }
    std::string url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(port) + path;
    }
    // Accepts one connection (waiting at most 5 s).
    int accept_one() const
    {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1)
            return -1;
        return accept(fd, nullptr, nullptr);
    }
};

// Reads from a blocking socket until the end of a request head (or 5 s without data).
std::string read_head(int fd)
{
    std::string out;
    char buf[512];
    while (out.find("\r\n\r\n") == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1)
            break;
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

std::string expected_get(const std::string& target, const std::string& host,
                         const char* version = "1.1", const char* conn = "close")
{
    return "GET " + target + " HTTP/" + version + "\r\nHost: " + host + "\r\nConnection: " + conn +
           "\r\nUser-Agent: " + APPTAG +
           "\r\nAccept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
           "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";
}

size_t open_fd_count()
{
    size_t n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (!d)
        return 0;
    while (readdir(d))
        ++n;
    closedir(d);
    return n;
}

struct sock_pair {
    int a = -1;
    int b = -1;
    sock_pair()
    {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv) == 0) {
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
    void say(const std::string& s) const
    {
        ASSERT_EQ(write(b, s.data(), s.size()), static_cast<ssize_t>(s.size()));
    }
};

// A source connection as the agent opens one, but blocking so that the test needs no loop.
int open_source(const std::string& url, usock_ctx* uc)
{
    *uc = usock_ctx{};
    uc->skip_http = true;
    uc->timeout_ms = 3000;
    return usock_open(url.c_str(), uc);
}

} // namespace

TEST_F(WopenTest, GetTextWithHostAndPort)
{
    loopback_server srv;
    ASSERT_GT(srv.port, 0);
    usock_ctx uc;
    const std::string url = srv.url("/live/a.ts?x=1&y=2");
    const int fd = open_source(url, &uc);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(uc.url_kind, URI_HTTP);
    EXPECT_STREQ(uc.url_path, ("127.0.0.1:" + std::to_string(srv.port) + "/live/a.ts").c_str());
    ASSERT_NE(uc.buf, nullptr);
    EXPECT_EQ(uc.bufcap, USOCK_BUF_SIZE);
    const int peer = srv.accept_one();
    ASSERT_GE(peer, 0);

    ASSERT_EQ(usock_http_get(fd, url.c_str(), 0), 0);
    EXPECT_EQ(read_head(peer),
              expected_get("/live/a.ts?x=1&y=2", "127.0.0.1:" + std::to_string(srv.port)));

    // Without a port in the URL the Host line carries the host alone.
    ASSERT_EQ(usock_http_get(fd, "http://127.0.0.1/b.ts", 0), 0);
    EXPECT_EQ(read_head(peer), expected_get("/b.ts", "127.0.0.1"));

    // An IPv6 literal with and without a port: the path starts after the bracket either way.
    ASSERT_EQ(usock_http_get(fd, "http://[::1]:8080/v6.ts", 0), 0);
    EXPECT_EQ(read_head(peer), expected_get("/v6.ts", "[::1]:8080"));
    ASSERT_EQ(usock_http_get(fd, "http://[::1]/v6.ts", 0), 0);
    EXPECT_EQ(read_head(peer), expected_get("/v6.ts", "[::1]"));

    // The flag bits pick the version and the connection value.
    ASSERT_EQ(usock_http_get(fd, "http://src.example:81/c.ts", HTTP_RQ_V10 | HTTP_RQ_KEEPALIVE),
              0);
    EXPECT_EQ(read_head(peer), expected_get("/c.ts", "src.example:81", "1.0", "keep-alive"));

    // The process-wide HTTP/1.0 setting is only logged: the caller's flags decide.
    g_usock_flags.use_http10_get = true;
    take();
    ASSERT_EQ(usock_http_get(fd, "http://h/d.ts", 0), 0);
    EXPECT_EQ(read_head(peer), expected_get("/d.ts", "h"));
    EXPECT_TRUE(contains(take(), "fwd_http_rq: Using HTTP/1.0 request\n"));

    close(peer);
    usock_close(fd, &uc);
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(uc.buf, nullptr);
    EXPECT_EQ(uc.bufcap, 0u);
}

TEST_F(WopenTest, GetQueryLimitAndPathlessUri)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    // Path and query are cut to 383 characters, and the cut text is still sent.
    const std::string path = "/" + std::string(200, 'p');
    const std::string query = std::string(300, 'q');
    ASSERT_EQ(fwd_http_rq(sp.a, ("http://h" + path + "?" + query).c_str(), "ua", 0), 0);
    const std::string sent = std::string(path + "?" + query).substr(0, 383);
    char buf[4096] = {};
    ASSERT_GT(read(sp.b, buf, sizeof buf - 1), 0);
    EXPECT_EQ(std::string(buf).substr(0, 4 + sent.size() + 10), "GET " + sent + " HTTP/1.1\r");
    EXPECT_TRUE(contains(take(), "fwd_http_rq: GET query is too long [502 bytes], max=383 "
                                 "bytes.\n"));

    EXPECT_EQ(fwd_http_rq(sp.a, "http://h:80", "ua", 0), -1);
    EXPECT_TRUE(contains(take(), "fwd_http_rq: URI has no path tail: http://h:80\n"));
    EXPECT_EQ(fwd_http_rq(sp.a, "no scheme", "ua", 0), -1);
    EXPECT_EQ(fwd_http_rq(sp.a, "http://[::1/x", "ua", 0), -1);
    EXPECT_EQ(read(sp.b, buf, sizeof buf), -1) << "nothing was sent for the refused requests";
}

TEST_F(WopenTest, SendHttpRequestRules)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    char buf[4096];

    http_request rq{};
    rq.type = 0;
    rq.request = "x/y.ts";
    rq.server = APPTAG;
    rq.host_addr = "";
    rq.host_port = "  ";
    ASSERT_EQ(send_http_request(sp.a, &rq), 0);
    ssize_t n = read(sp.b, buf, sizeof buf);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), expected_get("/x/y.ts", "localhost"));

    rq.type = 1;
    EXPECT_EQ(send_http_request(sp.a, &rq), -1);
    EXPECT_TRUE(
        contains(take(), "send_http_request: only GET requests are currently supported.\n"));
    rq.type = 0;

    const std::string host127(127, 'h'), host128(128, 'h');
    rq.host_addr = host127.c_str();
    rq.host_port = nullptr;
    ASSERT_EQ(send_http_request(sp.a, &rq), 0);
    ASSERT_GT(read(sp.b, buf, sizeof buf), 0);
    rq.host_addr = host128.c_str();
    EXPECT_EQ(send_http_request(sp.a, &rq), -1);
    EXPECT_TRUE(
        contains(take(), "send_http_request: host buffer is too small, 129 bytes needed\n"));
    rq.host_addr = host127.c_str();
    rq.host_port = "1";
    EXPECT_EQ(send_http_request(sp.a, &rq), -1);

    const std::string longrq(2000, 'r');
    rq.host_addr = "h";
    rq.request = longrq.c_str();
    EXPECT_EQ(send_http_request(sp.a, &rq), -1);
    EXPECT_TRUE(contains(take(), "bytes required.\n"));
    EXPECT_EQ(read(sp.b, buf, sizeof buf), -1) << "nothing was sent for the refused requests";

    // Nothing can be written.
    rq.request = "/a";
    close(sp.b);
    sp.b = -1;
    const int dead = dup(sp.a);
    close(dead);
    EXPECT_EQ(send_http_request(dead, &rq), -1);
    EXPECT_TRUE(contains(take(), "send_http_request: error sending HTTP request to fd=" +
                                     std::to_string(dead) + "\n"));
}

TEST_F(WopenTest, ResponseHeadSplitOverTwoReads)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    char buf[2048] = {};
    http_resp_ctx resp{};

    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n";
    const ssize_t cut = static_cast<ssize_t>(head.size()) - 1; // between CR and LF
    sp.say(head.substr(0, static_cast<size_t>(cut)));
    EXPECT_EQ(recv_http_response(sp.a, buf, 2047, &resp), 11);
    EXPECT_EQ(resp.total, cut);
    EXPECT_EQ(resp.tail, 0);
    EXPECT_TRUE(contains(take(), "recv_http_response: expecting more data from fd=" +
                                     std::to_string(sp.a) + "\n"));

    sp.say("\nhello");
    EXPECT_EQ(recv_http_response(sp.a, buf, 2047, &resp), 0);
    EXPECT_EQ(resp.code, 200);
    EXPECT_EQ(resp.total, cut + 6);
    EXPECT_EQ(resp.tail, cut + 1);
    EXPECT_EQ(std::string(buf), head.substr(0, head.size() - 1));
    EXPECT_EQ(std::string(buf + resp.tail, 5), "hello");
    EXPECT_EQ(extract_num_hdr("Content-Length:", buf, 0), 5);
    EXPECT_TRUE(contains(take(), "recv_http_response: fd=" + std::to_string(sp.a) +
                                     " received: HTTP/1.1 200 OK\n"));
}

TEST_F(WopenTest, ResponseStatusLineTable)
{
    struct Row {
        const char* head;
        int rc;
        int code;
    };
    const Row rows[] = {
        {"HTTP/1.1 404 Not Found\r\n\r\n", 0, 404},
        {"HTTP/1.0 206 Partial Content\n\n", 0, 206},
        {"HTTP/1.1 200\r\n\r\n", -1, 0}, // no reason phrase
        {"HTTP/1.1 200\r\nContent-Length: 5\r\n\r\n", -1, 0}, // nor when headers follow
        {"HTTP/1.1 OK\r\n\r\n", -1, 0},
        {"HTTP/2 200 OK\r\n\r\n", -1, 0},
        {"ICY 200 OK\r\n\r\n", -1, 0},
    };
    for (const auto& r : rows) {
        sock_pair sp;
        ASSERT_GE(sp.a, 0);
        sp.say(r.head);
        char buf[256] = {};
        http_resp_ctx resp{};
        EXPECT_EQ(recv_http_response(sp.a, buf, sizeof buf, &resp), r.rc) << r.head;
        EXPECT_EQ(resp.code, r.code) << r.head;
    }
    EXPECT_TRUE(contains(take(), "recv_http_response: parsed 3 < 4 elements (expected to be "
                                 "parsed)\n"));
}

TEST_F(WopenTest, ResponseHeadFailures)
{
    {
        // The source closes before the head is complete.
        sock_pair sp;
        sp.say("HTTP/1.1 200 OK\r\n");
        close(sp.b);
        sp.b = -1;
        char buf[256] = {};
        http_resp_ctx resp{};
        EXPECT_EQ(recv_http_response(sp.a, buf, sizeof buf, &resp), -1);
        EXPECT_TRUE(contains(take(), "recv_http_response: client [fd=" + std::to_string(sp.a) +
                                         "] connection broken\n"));
    }
    {
        // The buffer fills up without an end of head; its last byte is never written.
        sock_pair sp;
        sp.say("HTTP/1.1 200 OK\r\nX-Pad: " + std::string(100, 'p') + "\r\n\r\n");
        char buf[65];
        std::memset(buf, '#', sizeof buf);
        http_resp_ctx resp{};
        EXPECT_EQ(recv_http_response(sp.a, buf, sizeof buf, &resp), -1);
        EXPECT_EQ(resp.total, 64);
        EXPECT_EQ(buf[64], '#');
        EXPECT_TRUE(contains(take(), "recv_http_response: buffer already full, yet no HTTP EOD\n"));
    }
}

TEST_F(WopenTest, OpenFileUrl)
{
    char path[] = "/tmp/wopen_file_XXXXXX";
    const int tfd = mkstemp(path);
    ASSERT_GE(tfd, 0);
    ASSERT_EQ(write(tfd, "data", 4), 4);
    close(tfd);

    usock_ctx uc{};
    const int fd = usock_open((std::string("file://") + path).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(uc.non_pollable);
    EXPECT_EQ(uc.url_kind, URI_FILE);
    EXPECT_EQ(uc.buf, nullptr);
    char buf[8] = {};
    EXPECT_EQ(nread(fd, buf, sizeof buf, 0), 4);
    EXPECT_TRUE(contains(take(), "usock_open: fd" + std::to_string(fd) + " FILE [" + path +
                                     "]\n"));
    usock_close(fd, &uc);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed";
    unlink(path);

    const size_t before = open_fd_count();
    EXPECT_EQ(usock_open((std::string("file://") + path).c_str(), &uc), -1);
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(open_fd_count(), before);
}

TEST_F(WopenTest, OpenRefusesBadAndUnsupportedUrls)
{
    const size_t before = open_fd_count();
    const char* urls[] = {"", "nothing", "ftp://h/x", "http://", "m3u://h:80/list.m3u8",
                          "tcp://h", "http://[::1/x"};
    for (const char* url : urls) {
        usock_ctx uc{};
        EXPECT_EQ(usock_open(url, &uc), -1) << url;
        EXPECT_EQ(uc.url_path, nullptr) << url;
        EXPECT_EQ(uc.buf, nullptr) << url;
    }
    EXPECT_EQ(open_fd_count(), before);
    EXPECT_TRUE(contains(take(), "usock_open: unsupported URI type: 5\n"));
}

TEST_F(WopenTest, HttpWithoutPortAssumes80)
{
    usock_ctx uc{};
    uc.non_blocking = true;
    uc.skip_http = true;
    const int fd = usock_open("http://127.0.0.1/x.ts", &uc);
    EXPECT_TRUE(
        contains(take(), "usock_open: assuming HTTP port 80 for [http://127.0.0.1/x.ts]\n"));
    if (fd >= 0) {
        ASSERT_EQ(uc.sspec.addr_ss.ss_family, AF_INET);
        EXPECT_EQ(ntohs(reinterpret_cast<const sockaddr_in*>(&uc.sspec.addr_ss)->sin_port), 80);
    }
    usock_close(fd, &uc);
}

TEST_F(WopenTest, TcpAndUdpUrls)
{
    loopback_server srv;
    ASSERT_GT(srv.port, 0);
    usock_ctx tc{};
    const int tfd = usock_open(("tcp://127.0.0.1:" + std::to_string(srv.port)).c_str(), &tc);
    ASSERT_GE(tfd, 0);
    EXPECT_EQ(tc.url_kind, URI_TCP);
    EXPECT_NE(tc.buf, nullptr);
    const int peer = srv.accept_one();
    ASSERT_GE(peer, 0);
    EXPECT_EQ(nwrite(tfd, "ping", 4, 1), 4);
    char buf[8] = {};
    EXPECT_EQ(read(peer, buf, sizeof buf), 4);
    close(peer);
    usock_close(tfd, &tc);

    // An inbound UDP socket receives on its address.
    usock_ctx uc{};
    uc.inbound = true;
    uc.non_blocking = true;
    const int ufd = usock_open("udp://127.0.0.1:0", &uc);
    ASSERT_GE(ufd, 0);
    EXPECT_EQ(uc.sspec.socktype, SOCK_DGRAM);
    EXPECT_EQ(uc.buf, nullptr);
    sockaddr_in a{};
    socklen_t alen = sizeof a;
    ASSERT_EQ(getsockname(ufd, reinterpret_cast<sockaddr*>(&a), &alen), 0);
    const int s = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(sendto(s, "#!msg", 5, 0, reinterpret_cast<sockaddr*>(&a), alen), 5);
    close(s);
    ASSERT_EQ(wait_to_read(ufd, 5000), 0);
    EXPECT_EQ(nread(ufd, buf, sizeof buf, 0), 5);
    usock_close(ufd, &uc);
}

TEST_F(WopenTest, HttpOpenSendsGetAndReadsTheHead)
{
    loopback_server srv;
    ASSERT_GT(srv.port, 0);
    std::string got;
    std::thread source([&] {
        const int peer = srv.accept_one();
        if (peer < 0)
            return;
        got = read_head(peer);
        const std::string resp = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody";
        if (write(peer, resp.data(), resp.size()) < 0)
            perror("write");
        close(peer);
    });
    usock_ctx uc{};
    uc.timeout_ms = 3000;
    const int fd = usock_open(srv.url("/seg.ts").c_str(), &uc);
    source.join();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(got, expected_get("/seg.ts", "127.0.0.1:" + std::to_string(srv.port)));
    EXPECT_EQ(uc.buflen, 4u);
    EXPECT_EQ(std::string(uc.buf, 4), "body");
    usock_close(fd, &uc);

    // A source that answers with an error status fails the open and leaves nothing behind.
    std::thread bad([&] {
        const int peer = srv.accept_one();
        if (peer < 0)
            return;
        read_head(peer);
        const std::string resp = "HTTP/1.1 404 Not Found\r\n\r\n";
        if (write(peer, resp.data(), resp.size()) < 0)
            perror("write");
        close(peer);
    });
    const size_t before = open_fd_count();
    usock_ctx uc2{};
    uc2.timeout_ms = 3000;
    EXPECT_EQ(usock_open(srv.url("/gone.ts").c_str(), &uc2), -1);
    bad.join();
    EXPECT_EQ(uc2.buf, nullptr);
    EXPECT_EQ(open_fd_count(), before);
}

// Every prefix of a response, and one far longer than the buffer, read into heap buffers of
// exactly the size passed: the reader never touches a byte outside (checked by the sanitizer).
TEST_F(WopenTest, TruncatedAndOversizedResponsesStayInBounds)
{
    log_set_modules(g_log, L_PANIC);
    const std::string full = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
    const std::string huge = "HTTP/1.1 200 OK\r\nX-Pad: " + std::string(10000, 'p') + "\r\n\r\n";
    for (const std::string* s : {&full, &huge}) {
        for (size_t n = 0; n <= s->size(); n += (s->size() > 100 ? 997 : 1)) {
            for (const size_t cap : {n + 1, size_t{16}, size_t{64}, size_t{2048}}) {
                sock_pair sp;
                ASSERT_GE(sp.a, 0);
                if (n)
                    sp.say(s->substr(0, n));
                close(sp.b);
                sp.b = -1;
                auto buf = std::make_unique<char[]>(cap);
                http_resp_ctx resp{};
                const int rc = recv_http_response(sp.a, buf.get(), cap, &resp);
                if (rc == 0) {
                    EXPECT_GT(resp.tail, 0);
                    EXPECT_LE(resp.tail, resp.total);
                    EXPECT_LT(resp.total, static_cast<ssize_t>(cap));
                } else {
                    EXPECT_EQ(rc, -1) << n << '/' << cap;
                }
            }
        }
    }
}
