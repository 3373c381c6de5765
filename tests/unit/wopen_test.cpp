// The URL-opened socket and the source client: the exact GET text a source receives (read back by
// a loopback server), response heads that arrive in pieces, cut off or malformed, and bad URLs.
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <tuple>
#include <sys/socket.h>

#include "test_support.h"
#include "wopen.h"

using vsk_test::contains;

static constexpr const char* APPTAG = "vsk/0.2-0.7 (torbella)";

static std::string expected_get(const std::string& target, const std::string& host,
                                const char* version = "1.1", const char* conn = "close")
{
    return "GET " + target + " HTTP/" + version + "\r\nHost: " + host + "\r\nConnection: " + conn +
           "\r\nUser-Agent: " + APPTAG +
           "\r\nAccept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
           "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";
}

// Reads a blocking socket (with a 5 s receive time-out) up to the end of a request head.
static std::string read_head(int fd)
{
    std::string out;
    char buf[512];
    ssize_t n;
    while (out.find("\r\n\r\n") == std::string::npos && (n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

// A non-blocking socket pair whose peer end sv[1] has sent `data`.
static void pair_with(int sv[2], const std::string& data)
{
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    ASSERT_EQ(write(sv[1], data.data(), data.size()), static_cast<ssize_t>(data.size()));
}

class Wopen : public ::testing::Test {
protected:
    vsk_test::log_capture log;
    void SetUp() override { usock_set_apptag(APPTAG); }
    void TearDown() override { g_usock_flags.use_http10_get = false; }
};

TEST_F(Wopen, GetTextReachesALoopbackSource)
{
    const int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t alen = sizeof a;
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(lfd, 1), 0);
    ASSERT_EQ(getsockname(lfd, reinterpret_cast<sockaddr*>(&a), &alen), 0);
    const std::string hostport = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    const std::string url = "http://" + hostport + "/live/a.ts?x=1&y=2";
    usock_ctx uc{};
    uc.skip_http = true; // the GET is sent below, one per URL form
    uc.timeout_ms = 3000;
    const int fd = usock_open(url.c_str(), &uc);
    ASSERT_GE(fd, 0);
    const int peer = accept(lfd, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    const timeval tv{5, 0};
    setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    ASSERT_EQ(usock_http_get(fd, url.c_str(), 0), 0);
    EXPECT_EQ(read_head(peer), expected_get("/live/a.ts?x=1&y=2", hostport));
    // The Host line carries the port only when the URL has one; an IPv6 literal keeps brackets.
    const std::pair<const char*, const char*> rows[] = {
        {"http://127.0.0.1/b.ts", "127.0.0.1"}, {"http://[::1]:8080/v6.ts", "[::1]:8080"},
        {"http://[::1]/v6.ts", "[::1]"}};
    for (const auto& [u, host] : rows) {
        ASSERT_EQ(usock_http_get(fd, u, 0), 0) << u;
        EXPECT_EQ(read_head(peer), expected_get(std::string(u).substr(7 + strlen(host)), host));
    }
    // The caller's flags pick version and connection; the process-wide HTTP/1.0 setting is only
    // logged.
    ASSERT_EQ(usock_http_get(fd, "http://src.example:81/c.ts", HTTP_RQ_V10 | HTTP_RQ_KEEPALIVE), 0);
    EXPECT_EQ(read_head(peer), expected_get("/c.ts", "src.example:81", "1.0", "keep-alive"));
    g_usock_flags.use_http10_get = true;
    ASSERT_EQ(usock_http_get(fd, "http://h/d.ts", 0), 0);
    EXPECT_EQ(read_head(peer), expected_get("/d.ts", "h"));
    EXPECT_TRUE(contains(log.take(), "fwd_http_rq: Using HTTP/1.0 request\n"));

    // Path and query are cut to 383 characters, and the cut text is still sent.
    const std::string target = "/" + std::string(200, 'p') + "?" + std::string(300, 'q');
    ASSERT_EQ(usock_http_get(fd, ("http://h" + target).c_str(), 0), 0);
    EXPECT_EQ(read_head(peer), expected_get(target.substr(0, 383), "h"));
    EXPECT_TRUE(contains(log.take(), "fwd_http_rq: GET query is too long [502 bytes], max=383 "
                                     "bytes.\n"));
    EXPECT_EQ(usock_http_get(fd, "http://h:80", 0), -1);
    EXPECT_TRUE(contains(log.take(), "fwd_http_rq: URI has no path tail: http://h:80\n"));
    close(peer);
    close(lfd);
    usock_close(fd, &uc);
    EXPECT_TRUE(uc.url_path == nullptr && uc.buf == nullptr && uc.bufcap == 0);
}

TEST_F(Wopen, ResponseHeadSplitOverTwoReads)
{
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n";
    const ssize_t cut = static_cast<ssize_t>(head.size()) - 1; // between CR and LF
    int sv[2];
    pair_with(sv, head.substr(0, static_cast<size_t>(cut)));
    char buf[2048] = {};
    http_resp_ctx resp{};
    EXPECT_EQ(recv_http_response(sv[0], buf, 2047, &resp), 11);
    EXPECT_EQ(resp.total, cut);
    EXPECT_EQ(resp.tail, 0);
    ASSERT_EQ(write(sv[1], "\nhello", 6), 6);
    EXPECT_EQ(recv_http_response(sv[0], buf, 2047, &resp), 0);
    EXPECT_EQ(resp.code, 200);
    EXPECT_EQ(resp.total, cut + 6);
    EXPECT_EQ(resp.tail, cut + 1);
    EXPECT_EQ(std::string(buf), head.substr(0, head.size() - 1));
    EXPECT_EQ(std::string(buf + resp.tail, 5), "hello");
    close(sv[0]);
    close(sv[1]);
}

// A reused connection may end before it answers: the caller that expects it hears of it in the
// context, and only a caller that does not expect it gets the error line. Once a byte came, the end
// is no longer "unread".
TEST_F(Wopen, EndBeforeTheFirstByte)
{
    for (const bool expected : {false, true}) {
        for (const std::string sent : {"", "HTTP/1.1 2"}) {
            int sv[2];
            pair_with(sv, sent);
            close(sv[1]);
            char buf[64];
            http_resp_ctx resp{};
            resp.may_be_closed = expected;
            EXPECT_EQ(recv_http_response(sv[0], buf, sizeof buf, &resp), -1);
            EXPECT_EQ(resp.closed_unread, sent.empty()) << sent;
            EXPECT_EQ(contains(log.take(), "] connection broken\n"), !(expected && sent.empty()))
                << expected << " " << sent;
            close(sv[0]);
        }
    }
}

// Each head comes whole, then the end of the stream. The last byte of the buffer is never written.
TEST_F(Wopen, ResponseHeadTable)
{
    // head, code (-1: refused), refused as malformed (the reason is left in the context)
    const std::tuple<std::string, int, bool> rows[] = {
        {"HTTP/1.0 206 Partial Content\n\n", 206, false},
        {"HTTP/1.1 200\r\n\r\n", -1, false}, // no reason phrase
        {"HTTP/1.1 200\r\nContent-Length: 5\r\n\r\n", -1, false}, // nor when headers follow
        {"HTTP/1.1 OK\r\n\r\n", -1, true}, {"HTTP/2 200 OK\r\n\r\n", -1, true},
        {"ICY 200 OK\r\n\r\n", -1, true},
        {"HTTP/1.1 200 OK\r\n", -1, false}, // cut off
        {"HTTP/1.1 100 Continue\r\n\r\n", -1, true},
        {"HTTP/1.1 200 OK\r\nContent-Length: 1x\r\n\r\n", -1, true},
        {"HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n", 200, false},
        {"HTTP/1.1 200 OK\r\nX-Pad: " + std::string(100, 'p') + "\r\n\r\n", -1, false}, // too long
    };
    for (const auto& [head, code, malformed] : rows) {
        int sv[2];
        pair_with(sv, head);
        close(sv[1]);
        char buf[65];
        std::memset(buf, '#', sizeof buf);
        http_resp_ctx resp{};
        EXPECT_EQ(recv_http_response(sv[0], buf, sizeof buf, &resp), code < 0 ? -1 : 0) << head;
        EXPECT_EQ(resp.code, code < 0 ? 0 : code) << head;
        EXPECT_EQ(buf[64], '#') << head;
        EXPECT_EQ(resp.malformed[0] != '\0', malformed) << head;
        if (code == 200) {
            EXPECT_EQ(resp.content_length, 7) << head;
        }
        close(sv[0]);
    }
    const std::string got = log.take();
    EXPECT_TRUE(contains(got, "recv_http_response: buffer already full, yet no HTTP EOD\n"));
    EXPECT_TRUE(contains(got, "] connection broken\n"));
    EXPECT_TRUE(
        contains(got, "recv_http_response: parsed 3 < 4 elements (expected to be parsed)\n"));
}

TEST_F(Wopen, UnopenableUrlsLeaveNothingBehind)
{
    const size_t before = vsk_test::open_fd_count();
    for (const char* url : {"", "nothing", "ftp://h/x", "http://", "m3u://h:80/list.m3u8",
                            "tcp://h", "http://[::1/x", "file:///nonexistent/x"}) {
        usock_ctx uc{};
        EXPECT_EQ(usock_open(url, &uc), -1) << url;
        EXPECT_TRUE(uc.url_path == nullptr && uc.buf == nullptr) << url;
    }
    EXPECT_EQ(vsk_test::open_fd_count(), before);
    EXPECT_TRUE(contains(log.take(), "usock_open: unsupported URI type: 5\n"));
}

TEST_F(Wopen, HttpWithoutPortAssumes80)
{
    usock_ctx uc{};
    uc.non_blocking = true;
    uc.skip_http = true;
    const int fd = usock_open("http://127.0.0.1/x.ts", &uc);
    EXPECT_TRUE(
        contains(log.take(), "usock_open: assuming HTTP port 80 for [http://127.0.0.1/x.ts]\n"));
    if (fd >= 0) { // a refused connect may already have failed the open
        ASSERT_EQ(uc.sspec.addr_ss.ss_family, AF_INET);
        EXPECT_EQ(ntohs(reinterpret_cast<const sockaddr_in*>(&uc.sspec.addr_ss)->sin_port), 80);
    }
    usock_close(fd, &uc);
}

TEST(HttpKeepAlive, HeadTable)
{
    const std::pair<const char*, bool> rows[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 5", true},
        {"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 5", false},
        {"HTTP/1.1 200 OK\r\nconnection:Keep-Alive, CLOSE", false},
        {"HTTP/1.1 200 OK\r\nConnection: keep-alive", true},
        {"HTTP/1.1 200 OK\r\nConnection: upgrade", true},
        {"HTTP/1.1 200 OK\r\nX-Connection: close", true},
        {"HTTP/1.0 200 OK\r\nContent-Length: 5", false},
        {"HTTP/1.0 200 OK\r\nConnection: keep-alive", true},
        {"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nConnection: close", false},
        {"HTTP/2 200 OK", false},
    };
    for (const auto& [head, keeps] : rows)
        EXPECT_EQ(http_head_keeps_alive(head), keeps) << head;
}
