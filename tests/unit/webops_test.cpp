// HTTP server messages: request-head parsing and its field limits, header look-up, the end-of-head
// search, the download-path split, response composition with its exact bytes, and the rule that
// every parser stays inside the bytes it was given (checked under the address sanitizer).
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "log.h"
#include "timeop.h"
#include "webops.h"

namespace {

// Points the application log at a temporary file, records without time stamps, every module at
// debug level, so that tests can look for the exact lines.
class WebopsTest : public ::testing::Test {
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

bool contains(const std::string& hay, const std::string& needle)
{
    return hay.find(needle) != std::string::npos;
}

// A heap copy of `s` without a terminating NUL: any read past its end is an ASan report.
std::unique_ptr<char[]> exact_copy(const std::string& s)
{
    auto b = std::make_unique<char[]>(s.size() ? s.size() : 1);
    std::memcpy(b.get(), s.data(), s.size());
    return b;
}

// Runs the parser on an exact-size copy of `rq`.
int parse(const std::string& rq, http_header* hdr, char* urlbuf = nullptr, size_t urlen = 0)
{
    auto b = exact_copy(rq);
    return parse_http_header(b.get(), rq.size(), hdr, urlbuf, urlen);
}

std::string head_with(const std::string& fields)
{
    return "GET /a HTTP/1.1\r\n" + fields + "\r\n";
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
};

std::string read_all_now(int fd)
{
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

} // namespace

TEST_F(WebopsTest, RequestLineTable)
{
    struct Row {
        const char* rq;
        int rc;
        int type;
        bool http10;
    };
    const Row rows[] = {
        {"GET /a HTTP/1.1\r\n\r\n", 0, HTTP_GET, false},
        {"get /a HTTP/1.1\r\n\r\n", 0, HTTP_GET, false},
        {"HEAD /a HTTP/1.1\r\n\r\n", 0, HTTP_HEAD, false},
        {"hEaD\t/a\tHTTP/1.1\r\n\r\n", 0, HTTP_HEAD, false},
        {"GET /a HTTP/1.0\r\n\r\n", 0, HTTP_GET, true},
        {"GET /a\r\n\r\n", 0, HTTP_GET, false}, // no protocol: accepted
        {"GET /a", 0, HTTP_GET, false},         // no header lines: accepted
        {"POST /a HTTP/1.1\r\n\r\n", 22, 0, false},
        {"OPTIONS /a HTTP/1.1\r\n\r\n", 22, 0, false}, // 7 characters: a method, not supported
        {"GETTING /a HTTP/1.1\r\n\r\n", 22, 0, false},
        {"GETTINGS /a HTTP/1.1\r\n\r\n", -1, 0, false}, // 8 characters
        {"GE /a HTTP/1.1\r\n\r\n", -1, 0, false},
        {" GET /a HTTP/1.1\r\n\r\n", -1, 0, false},
        {"GET /a HTTP/2.0\r\n\r\n", -1, 0, false},
        {"GET /a http/1.1\r\n\r\n", -1, 0, false},
        {"GET /a HTTP/1\r\n\r\n", -1, 0, false},
        {"GET http:// HTTP/1.1\r\n\r\n", -1, 0, false}, // the URI parser's refusal
        {"", -1, 0, false},
    };
    for (const auto& r : rows) {
        http_header h;
        std::memset(&h, 0x5a, sizeof h);
        EXPECT_EQ(parse(r.rq, &h), r.rc) << r.rq;
        if (r.rc == 0) {
            EXPECT_EQ(h.type, r.type) << r.rq;
            EXPECT_EQ(h.is_http10, r.http10) << r.rq;
            EXPECT_STREQ(h.host, "") << r.rq;
        }
    }
    const std::string log = take();
    EXPECT_TRUE(contains(log, "HTTP [POST] is NOT supported\n")) << log;
    EXPECT_TRUE(contains(log, "parse_http_header: failed to get HTTP method from GETTING\n"))
        << log;
    EXPECT_TRUE(contains(log, "parse_http_header: identified as HEAD\n")) << log;
    EXPECT_TRUE(contains(log, "parse_http_header: HTTP/1.0 detected\n")) << log;
    EXPECT_TRUE(contains(log, "parse_http_header: no header sections found\n")) << log;
    EXPECT_TRUE(contains(log, "parse_http_header: expected [HTTP/1.] to follow the URI path, "
                              "got [HTTP/2.0]\n"))
        << log;
    EXPECT_TRUE(contains(log, "parse_http_header: failed to parse URL\n")) << log;
}

TEST_F(WebopsTest, TargetPiecesPointIntoTheRequest)
{
    const std::string rq = "GET /src/a/dst/b?x=1 HTTP/1.1\r\nHost: h\r\n\r\n";
    auto b = exact_copy(rq);
    http_header h;
    char url[64];
    ASSERT_EQ(parse_http_header(b.get(), rq.size(), &h, url, sizeof url), 0);
    EXPECT_STREQ(url, "/src/a/dst/b?x=1");
    ASSERT_NE(h.uri.path, nullptr);
    EXPECT_EQ(std::string(h.uri.path, h.uri.p_len), "src/a/dst/b");
    EXPECT_EQ(std::string(h.uri.query, h.uri.q_len), "x=1");
    EXPECT_GE(h.uri.path, b.get());
    EXPECT_LT(h.uri.path, b.get() + rq.size());
    EXPECT_TRUE(contains(take(), "parse_http_header: full URL=[/src/a/dst/b?x=1]\n"));

    // A target that does not fit the caller's buffer is not copied (and not cut).
    char small[16] = "untouched";
    ASSERT_EQ(parse(rq, &h, small, 16), 0);
    EXPECT_STREQ(small, "");
    char exact[17];
    ASSERT_EQ(parse(rq, &h, exact, 17), 0);
    EXPECT_STREQ(exact, "/src/a/dst/b?x=1");
}

TEST_F(WebopsTest, HostLimits)
{
    http_header h;
    const std::string v62(62, 'h'), v63(63, 'h'), v64(64, 'h');

    ASSERT_EQ(parse(head_with("Host: " + v62 + "\r\n"), &h), 0);
    EXPECT_EQ(std::string(h.host), v62);
    ASSERT_EQ(parse(head_with("Host: " + v63 + "\r\n"), &h), 0);
    EXPECT_EQ(std::string(h.host), v62) << "63 characters are kept cut to 62";
    take();
    ASSERT_EQ(parse(head_with("Host: " + v64 + "\r\n"), &h), 0);
    EXPECT_STREQ(h.host, "");
    EXPECT_TRUE(contains(take(), "parse_http_header: Host length is too long: 64\n"));
}

TEST_F(WebopsTest, HostLookupQuirks)
{
    struct Row {
        const char* fields;
        const char* host;
    };
    const Row rows[] = {
        {"Host: example.org\r\n", "example.org"},
        {"hOsT:\t \texample.org\r\n", "example.org"},
        {"Host: a.org:8080\n", "a.org:8080"},
        // Any header whose name ends in Host answers a look-up of "Host:" when it comes first.
        {"X-Real-Host: proxy.org\r\nHost: example.org\r\n", "proxy.org"},
        {"Host: example.org\r\nX-Real-Host: proxy.org\r\n", "example.org"},
        // No white space after the colon: no Host at all, and a later one is not looked for.
        {"Host:example.org\r\n", ""},
        {"X-Host:proxy.org\r\nHost: example.org\r\n", ""},
        // The value must end at a line end, not at another control character.
        {"Host: exa\tmple.org\r\n", ""},
        {"Host: \r\n", ""},
        {"Accept: */*\r\n", ""},
    };
    for (const auto& r : rows) {
        http_header h;
        ASSERT_EQ(parse(head_with(r.fields), &h), 0) << r.fields;
        EXPECT_STREQ(h.host, r.host) << r.fields;
    }
}

TEST_F(WebopsTest, UserAgentConnectionAcceptEncoding)
{
    http_header h;
    ASSERT_EQ(parse(head_with("User-Agent: curl/8 (x; y)\r\n"), &h), 0);
    EXPECT_STREQ(h.user_agent, "curl%2F8%20(x%3B%20y)");

    // 127 characters are cut to 126 silently; 128 also log.
    const std::string ua127(127, 'u'), ua128(128, 'u');
    take();
    ASSERT_EQ(parse(head_with("User-Agent: " + ua127 + "\r\n"), &h), 0);
    EXPECT_EQ(std::string(h.user_agent), std::string(126, 'u'));
    EXPECT_FALSE(contains(take(), "User-Agent length is too long"));
    ASSERT_EQ(parse(head_with("User-Agent: " + ua128 + "\r\n"), &h), 0);
    EXPECT_EQ(std::string(h.user_agent), std::string(126, 'u'));
    EXPECT_TRUE(contains(take(), "parse_http_header: User-Agent length is too long: 128\n"));
    // Encoding stays within the field: a long text of blanks is cut before an escape.
    ASSERT_EQ(parse(head_with("User-Agent: x" + std::string(100, ' ') + "y\r\n"), &h), 0);
    EXPECT_LE(std::strlen(h.user_agent), 126u);
    EXPECT_EQ(std::string(h.user_agent).substr(0, 4), "x%20");

    struct ConnRow {
        const char* value;
        bool keep_alive;
        bool close;
    };
    const ConnRow conns[] = {
        {"keep-alive", true, false},  {"Keep-Alive", true, false}, {"CLOSE", false, true},
        {"close", false, true},       {"upgrade", false, false},   {"keep-alive, x", false, false},
    };
    for (const auto& c : conns) {
        ASSERT_EQ(parse(head_with(std::string("Connection: ") + c.value + "\r\n"), &h), 0);
        EXPECT_EQ(h.is_keep_alive, c.keep_alive) << c.value;
        EXPECT_EQ(h.is_close, c.close) << c.value;
    }

    const std::string ae30(30, 'e'), ae31(31, 'e'), ae32(32, 'e');
    take();
    ASSERT_EQ(parse(head_with("Accept-Encoding: " + ae30 + "\r\n"), &h), 0);
    EXPECT_EQ(std::string(h.accept_enc), ae30);
    ASSERT_EQ(parse(head_with("Accept-Encoding: " + ae31 + "\r\n"), &h), 0);
    EXPECT_EQ(std::string(h.accept_enc), ae30);
    EXPECT_FALSE(contains(take(), "trimmed"));
    ASSERT_EQ(parse(head_with("Accept-Encoding: " + ae32 + "\r\n"), &h), 0);
    EXPECT_EQ(std::string(h.accept_enc), ae30);
    EXPECT_TRUE(contains(take(), "parse_http_header: [" + ae30 +
                                     "] text has been trimmed from 32 to 31 chars\n"));
}

TEST_F(WebopsTest, FindHttpHeaderTable)
{
    struct Row {
        const char* title;
        const char* buf;
        const char* value; // null: absent
    };
    const Row rows[] = {
        {"Content-Length:", "HTTP/1.1 200 OK\r\nContent-Length: 42\r\n\r\n", "42"},
        {"content-length", "HTTP/1.1 200 OK\r\nCONTENT-LENGTH:  42 \r\n", "42 "},
        {"Content-Length:", "Content-Length: 42", nullptr}, // no line end
        {"Content-Length:", "Content-Length:42\r\n", nullptr},
        {"Content-Length:", "Content-Length: 4\x01" "2\r\n", nullptr},
        {"Content-Length:", "X-Content-Length: 7\r\nContent-Length: 42\r\n", "7"},
        {"Content-Length:", "Content-Length: \r\n", ""},
        {"Content-Length:", "", nullptr},
    };
    for (const auto& r : rows) {
        size_t n = 99;
        const char* v = find_http_header(r.title, r.buf, &n);
        if (!r.value) {
            EXPECT_EQ(v, nullptr) << r.buf;
            EXPECT_EQ(n, 0u) << r.buf;
        } else {
            ASSERT_NE(v, nullptr) << r.buf;
            EXPECT_EQ(std::string(v, n), r.value) << r.buf;
        }
    }
}

TEST_F(WebopsTest, ExtractNumHdr)
{
    const char* ok = "HTTP/1.1 200 OK\r\nContent-Length: 1234\r\n\r\n";
    EXPECT_EQ(extract_num_hdr("Content-Length:", ok, 0), 1234);
    EXPECT_EQ(extract_num_hdr("Content-Length:", "Content-Length: \r\n", 0), -1);
    EXPECT_EQ(extract_num_hdr("Content-Length:", "Server: x\r\n", 0), -1);
    EXPECT_EQ(extract_num_hdr("Content-Length:", "Content-Length: abc\r\n", 0), 0);
    take();
    // Only the first 31 characters of a longer value are converted.
    const std::string longv = std::string(28, '0') + "12345678";
    const std::string buf = "Content-Length: " + longv + "\r\n";
    EXPECT_EQ(extract_num_hdr("Content-Length:", buf.c_str(), buf.size()), 123);
    EXPECT_TRUE(contains(take(), "extract_num_hdr: header [Content-Length:] value length is too "
                                 "big: 36 bytes\n"));
}

TEST_F(WebopsTest, HeadEodTable)
{
    struct Row {
        std::string buf;
        size_t eod;
    };
    const Row rows[] = {
        {"GET / HTTP/1.1\r\n\r\n", 18},
        {"GET / HTTP/1.1\r\nHost: h\r\n\r\nbody", 27},
        {"GET /\n\nbody", 7},
        {"A\r\nB\n\n", 6},
        // A CR LF CR LF cut anywhere is "not yet".
        {"A\r", 0},
        {"A\r\n", 0},
        {"A\r\n\r", 0},
        {"A\r\n\r\n", 5},
        {"A\r\n\n", 0}, // the CR decides: its CR LF may still follow
        {"A\r\n\nB", 4},
        {"A\n", 0},
        {"A\nB\n", 0},
        {"A\r\nB\r\nC", 0},
        {"", 0},
        {std::string("A\0\r\n\r\n", 6), 6},
    };
    for (const auto& r : rows) {
        auto b = exact_copy(r.buf);
        EXPECT_EQ(head_eod(b.get(), r.buf.size()), r.eod) << '[' << r.buf << ']';
    }
}

TEST_F(WebopsTest, ReadHttpFindsTheEndAcrossASplitCrLf)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    const std::string part1 = "GET / HTTP/1.1\r\nHost: h\r\n\r";
    char buf[256] = {};
    ssize_t tail = 0;
    ASSERT_EQ(write(sp.b, part1.data(), part1.size()), static_cast<ssize_t>(part1.size()));
    const ssize_t n1 = read_http(sp.a, buf, sizeof buf, 0, &tail);
    ASSERT_EQ(n1, static_cast<ssize_t>(part1.size()));
    EXPECT_EQ(tail, 0);
    EXPECT_TRUE(contains(take(), "read_http: fd=" + std::to_string(sp.a) +
                                     ", no HTTP EOD marker found, "));

    ASSERT_EQ(write(sp.b, "\nrest", 5), 5);
    const ssize_t n2 = read_http(sp.a, buf, sizeof buf, n1, &tail);
    ASSERT_EQ(n2, 5);
    EXPECT_EQ(tail, n1 + 1);
    EXPECT_TRUE(contains(take(), "read_http: HTTP EOD marker found at pos=" +
                                     std::to_string(n1 + 1) + "\n"));

    // Nothing pending: -1 with EAGAIN, logged as an end of data.
    errno = 0;
    EXPECT_EQ(read_http(sp.a, buf, sizeof buf, n1 + n2, &tail), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(contains(take(), "read_http: EOD(-1) for fd" + std::to_string(sp.a) + "\n"));
}

TEST_F(WebopsTest, PingAndSlashMatch)
{
    struct Row {
        const char* path;
        bool ping;
    };
    const Row rows[] = {
        {"ping", true},   {"PING", true},   {"/ping", true},  {"ping/", true},
        {"/PiNg/", true}, {"ping//", false}, {"//ping", false}, {"pings", false},
        {"pin", false},   {"", false},       {"/", false},     {"ping/x", false},
    };
    for (const auto& r : rows)
        EXPECT_EQ(is_ping_request(r.path), r.ping) << r.path;
    EXPECT_TRUE(slash_match("Dst/", "dst"));
    EXPECT_FALSE(slash_match("/dst", "dst"));
}

TEST_F(WebopsTest, WebParseUrqTable)
{
    const std::string q255(255, 'q'), q256(256, 'q');
    struct Row {
        std::string target;
        size_t ulen;
        int rc;
        const char* src;
        const char* dst;
    };
    const Row rows[] = {
        {"/x/src/http://h/live/a.ts/dst/live/a.ts", 256, 0, "http://h/live/a.ts", "live/a.ts"},
        {"/src/http://h/live/a.ts/dst/live/a.ts?expiry=100", 256, 0,
         "http://h/live/a.ts?expiry=100", "live/a.ts"},
        // A source that is itself a download request keeps its own src/dst pair.
        {"/src/http://h/src/http://o/a.ts/dst/b/a.ts/dst/out/a.ts", 256, 0,
         "http://h/src/http://o/a.ts/dst/b/a.ts", "out/a.ts"},
        {"/src/http://h/a/dst/b/dst/c", 256, 0, "http://h/a", "b/dst/c"},
        {"/src/http%3A%2F%2Fh%2Fa.ts/dst/a%20b+c.ts", 256, 0, "http://h/a.ts", "a b c.ts"},
        {"/src/http://h/a.ts/dst", 256, 0, "http://h/a.ts", ""},
        {"/src/http://h/a.ts/dst/?" + q255, 512, 0, nullptr, ""},
        {"/", 256, WEB_NO_PATH, "", ""},
        {"/?x=1", 256, WEB_NO_PATH, "", ""},
        {"/src/a/dst/b?" + q256, 1024, WEB_BAD_QUERY, "", ""},
        {"/src/http://h/a.ts/dst/b?" + q255, 256, WEB_QUERY_SPACE, nullptr, nullptr},
        {"/favicon.ico", 256, WEB_FAVICON, "", ""},
        {"/FavIcon.ICO", 256, WEB_FAVICON, "", ""},
        {"/ping", 256, WEB_PING, "", ""},
        {"/PING/", 256, WEB_PING, "", ""},
        {"/pong", 256, -1, "", ""},
        {"/src/http://h/a.ts", 256, -1, "", ""},     // no dst
        {"/src/dst/a.ts", 256, -1, "", ""},          // empty source
        {"/src/http://h/" + std::string(300, 'a') + "/dst/x", 256, -1, "", ""}, // too long
    };
    for (const auto& r : rows) {
        const std::string rq = "GET " + r.target + " HTTP/1.1\r\nHost: h\r\n\r\n";
        std::vector<char> buf(rq.begin(), rq.end());
        std::vector<char> src(r.ulen, '#'), dst(r.ulen, '#');
        const int rc = web_parse_urq(buf.data(), buf.size(), src.data(), dst.data(), r.ulen,
                                     nullptr);
        EXPECT_EQ(rc, r.rc) << r.target;
        if (r.src) {
            EXPECT_STREQ(src.data(), r.src) << r.target;
        }
        if (r.dst) {
            EXPECT_STREQ(dst.data(), r.dst) << r.target;
        }
        if (r.rc == 0 && !r.src) {
            EXPECT_EQ(std::string(src.data()), "http://h/a.ts?" + q255);
        }
    }
    const std::string log = take();
    EXPECT_TRUE(contains(log, "web_parse_urq: no path in URL [/]\n")) << log;
    EXPECT_TRUE(contains(log, "web_parse_urq: URI query length (256 bytes) is beyond the limit: "
                              "256\n"));
    EXPECT_TRUE(contains(log, "web_parse_urq: favicon request received.\n"));
    EXPECT_TRUE(contains(log, "Handling user-side PING request\n"));
    EXPECT_TRUE(contains(log, "web_parse_urq: error(22) parsing request data [/pong]\n"));
    EXPECT_TRUE(contains(log, "web_parse_urq: URI query is too long (255 bytes), max allowed=241 "
                              "bytes, discarding request\n"));
    EXPECT_TRUE(contains(log, "web_parse_urq: query [expiry=100] appended to source\n"));
    EXPECT_TRUE(contains(log, "web_parse_urq: URI=[/src/http://h/a.ts/dst] - src=[http://h/a.ts], "
                              "dst=[]\n"));
}

TEST_F(WebopsTest, WebParseUrqHandsBackTheHeadAndParserCodes)
{
    char src[256], dst[256];
    std::string rq = "HEAD /src/http://h/a.ts/dst/a.ts HTTP/1.0\r\nHost: me\r\n\r\n";
    http_header h{};
    ASSERT_EQ(web_parse_urq(rq.data(), rq.size(), src, dst, sizeof src, &h), 0);
    EXPECT_EQ(h.type, HTTP_HEAD);
    EXPECT_TRUE(h.is_http10);
    EXPECT_STREQ(h.host, "me");

    rq = "PUT /src/http://h/a.ts/dst/a.ts HTTP/1.1\r\n\r\n";
    EXPECT_EQ(web_parse_urq(rq.data(), rq.size(), src, dst, sizeof src, &h), 22);

    // The request buffer may be larger than its text: the text ends at its NUL.
    char big[1024] = "GET /src/http://h/a.ts/dst/b.ts HTTP/1.1\r\n\r\n";
    ASSERT_EQ(web_parse_urq(big, sizeof big, src, dst, sizeof src, nullptr), 0);
    EXPECT_STREQ(src, "http://h/a.ts");
    EXPECT_STREQ(dst, "b.ts");
}

TEST_F(WebopsTest, WebParseUrlTable)
{
    struct Row {
        std::string url;
        int rc;
        const char* src;
        const char* dst;
    };
    const Row rows[] = {
        {"http://127.0.0.1:8080/src/http://h/live/a.ts/dst/live/a.ts", 0, "http://h/live/a.ts",
         "live/a.ts"},
        {"http://x/src/http%3A%2F%2Fh%2Fa.ts/dst/b%20c.ts", 0, "http://h/a.ts", "b c.ts"},
        {"/src/http://h/a.ts/dst/a.ts", 0, "http://h/a.ts", "a.ts"},
        {"http://x/live/a.ts", -1, "", ""},
        {"/", 34, "", ""},
        {"/" + std::string(127, 'p'), -1, "", ""},
        {"/" + std::string(128, 'p'), 34, "", ""},
        {"http://", -1, "", ""},
    };
    for (const auto& r : rows) {
        char src[256] = "#", dst[256] = "#";
        EXPECT_EQ(web_parse_url(r.url.c_str(), src, dst, sizeof src), r.rc) << r.url;
        EXPECT_STREQ(src, r.src) << r.url;
        EXPECT_STREQ(dst, r.dst) << r.url;
    }
    const std::string log = take();
    EXPECT_TRUE(contains(log, "web_parse_url: invalid path size: 128\n")) << log;
    EXPECT_TRUE(contains(log, "web_parse_url: error(22) parsing path [x/live/a.ts]\n")) << log;
}

TEST_F(WebopsTest, CannedBadRequestBytes)
{
    http_response r = g_resp_bad;
    r.server = "vsk/0.2-0.7 (torbella)";
    char buf[512];
    const std::string want = "HTTP/1.1 400 Bad request\r\n"
                             "Server: vsk/0.2-0.7 (torbella)\r\n"
                             "Content-Length: 0\r\n"
                             "\r\n";
    ASSERT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);

    // The blank line needs the text so far plus 3 below the buffer size.
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, want.size() + 2), static_cast<int>(want.size()));
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, want.size() + 1), -1);
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, 8), -1);
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, 0), -1);

    ASSERT_GT(mk_http_xt_resp(&r, 10, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf).substr(0, 25), "HTTP/1.0 400 Bad request\r");
    take();
    EXPECT_EQ(mk_http_xt_resp(&r, 20, buf, sizeof buf), 22);
    EXPECT_TRUE(contains(take(), "mk_http_xt_resp: HTTP/2.0 not supported\n"));
}

TEST_F(WebopsTest, OkWithSuffixAndLocationBytes)
{
    http_response r{};
    r.code = 200;
    r.reason = "OK";
    r.server = "vsk";
    r.content_type = "text/plain";
    r.content_encoding = "";
    r.content_length = 5;
    r.connection = "close";
    r.location = "http://h/x";
    r.ok_suffix = "X-Extra: 1";
    char buf[512];
    const std::string want = "HTTP/1.1 200 OK\r\n"
                             "Server: vsk\r\n"
                             "Content-Type: text/plain\r\n"
                             "Content-Length: 5\r\n"
                             "Connection: close\r\n"
                             "Location: http://h/x\r\n"
                             "X-Extra: 1\r\n"
                             "\r\n";
    ASSERT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);

    // The suffix belongs to 200 only.
    r.code = 302;
    r.reason = "Moved Temporarily";
    ASSERT_GT(mk_http_xt_resp(&r, 11, buf, sizeof buf), 0);
    EXPECT_FALSE(contains(buf, "X-Extra"));
    EXPECT_TRUE(contains(buf, "Location: http://h/x\r\n\r\n"));
}

TEST_F(WebopsTest, LongHeaderLineRules)
{
    http_response r{};
    r.code = 302;
    r.reason = "Moved Temporarily";
    r.server = "vsk";
    r.content_length = -1;
    const std::string loc = "http://h/" + std::string(200, 'l');
    r.location = loc.c_str();
    // Longer than a header line may be, yet it would fit: left out without error.
    char buf[1024];
    const std::string want = "HTTP/1.1 302 Moved Temporarily\r\nServer: vsk\r\n\r\n";
    ASSERT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);
    // It does not fit the rest of the buffer: the whole text fails.
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, 128), -1);

    // A 127-character line is still written.
    const std::string loc127 = std::string(127 - 12, 'm'); // "Location: " + value + CR LF
    r.location = loc127.c_str();
    ASSERT_GT(mk_http_xt_resp(&r, 11, buf, sizeof buf), 0);
    EXPECT_TRUE(contains(buf, "Location: " + loc127 + "\r\n"));
    const std::string loc128 = std::string(128 - 12, 'm');
    r.location = loc128.c_str();
    ASSERT_GT(mk_http_xt_resp(&r, 11, buf, sizeof buf), 0);
    EXPECT_FALSE(contains(buf, "Location:"));

    // The suffix has no line limit but must fit.
    r.code = 200;
    r.reason = "OK";
    r.location = nullptr;
    const std::string sfx = "X-Long: " + std::string(300, 's');
    r.ok_suffix = sfx.c_str();
    ASSERT_GT(mk_http_xt_resp(&r, 11, buf, sizeof buf), 0);
    EXPECT_TRUE(contains(buf, sfx + "\r\n\r\n"));
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, 200), -1);
}

TEST_F(WebopsTest, BodyFromFile)
{
    char path[] = "/tmp/webops_body_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "hello", 5), 5);
    close(fd);

    http_response r = g_resp_ok;
    r.server = "vsk";
    r.content_length = 5;
    r.fpath = path;
    char buf[256];
    const std::string want = "HTTP/1.1 200 OK\r\nServer: vsk\r\nContent-Length: 5\r\n\r\nhello";
    ASSERT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);
    EXPECT_TRUE(contains(take(), "mk_http_xt_resp: file [" + std::string(path) +
                                     "] of 5 bytes included in HTTP response\n"));
    // The body must fit beside the head.
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, want.size()), -1);

    ASSERT_EQ(truncate(path, 0), 0);
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), -1);
    unlink(path);
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), -1);
}

TEST_F(WebopsTest, SendHttpResponse)
{
    sock_pair sp;
    ASSERT_GE(sp.a, 0);
    http_response r = g_resp_nfound;
    r.server = "vsk";
    ASSERT_EQ(send_http_response(sp.a, &r), 0);
    const std::string want = "HTTP/1.1 404 Not Found\r\nServer: vsk\r\nContent-Length: "
                             "0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(read_all_now(sp.b), want);
    EXPECT_TRUE(contains(take(), "send_http_response: sent HTTP response (" +
                                     std::to_string(want.size()) + " bytes) to fd=" +
                                     std::to_string(sp.a) + ":\n" + want + "\n"));

    const int dead = dup(sp.a);
    close(dead);
    EXPECT_EQ(send_http_response(dead, &r), -1);
    const std::string log = take();
    EXPECT_TRUE(contains(log, "send_http_response: error sending HTTP response to fd=" +
                                  std::to_string(dead) + "\n"));
    EXPECT_TRUE(contains(log, "send_http_response: error compiling HTTP response for fd=" +
                                  std::to_string(dead) + "\n"));
}

TEST_F(WebopsTest, HttpCodeRespFallbacks)
{
    struct Row {
        int code;
        const http_response* resp;
        bool warned;
    };
    const Row rows[] = {
        {200, &g_resp_ok, false},     {204, &g_resp_ok204, false},   {302, &g_resp_tmoved, false},
        {400, &g_resp_bad, false},    {403, &g_resp_denied, false},  {404, &g_resp_nfound, false},
        {406, &g_resp_unacc, false},  {408, &g_resp_timeout, false}, {500, &g_resp_err, false},
        {502, &g_resp_bgw, false},    {503, &g_resp_svcun, false},   {504, &g_resp_gwtmo, false},
        {206, &g_resp_ok, true},      {299, &g_resp_ok, true},       {300, &g_resp_err, true},
        {301, &g_resp_err, true},     {401, &g_resp_err, true},      {0, &g_resp_ok, true},
    };
    for (const auto& r : rows) {
        take();
        EXPECT_EQ(http_code_resp(r.code), r.resp) << r.code;
        EXPECT_EQ(http_code_resp(r.code)->code, r.resp->code) << r.code;
        EXPECT_EQ(contains(take(), "http_code_resp: no response for HTTP" +
                                       std::to_string(r.code) +
                                       " defined, please update the lib!\n"),
                  r.warned)
            << r.code;
    }
    // The canned table itself.
    EXPECT_STREQ(g_resp_err.reason, "Service error");
    EXPECT_STREQ(g_resp_err.connection, "close");
    EXPECT_EQ(g_resp_ok.content_length, -1);
    EXPECT_EQ(g_resp_ok.connection, nullptr);
    EXPECT_EQ(g_resp_ok204.content_length, -1);
    EXPECT_EQ(g_resp_bad.connection, nullptr);
    EXPECT_STREQ(g_resp_gwtmo.reason, "Gateway Timeout");
}

// Every parser is fed every prefix of realistic inputs and oversized inputs, each in a buffer of
// exactly its size: the parsers must bound every read by the length they are given (or the NUL
// their contract requires), which the address sanitizer checks byte for byte.
TEST_F(WebopsTest, TruncatedAndOversizedInputsStayInBounds)
{
    log_set_modules(g_log, L_PANIC); // thousands of refusals; only bounds matter here
    const std::vector<std::string> samples = {
        "GET /x/src/http://h/live/a.ts/dst/live/a.ts?expiry=1 HTTP/1.1\r\nHost: h:80\r\n"
        "User-Agent: a b\r\nConnection: keep-alive\r\nAccept-Encoding: gzip\r\n\r\n",
        "HEAD /ping HTTP/1.0\n\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n",
        "GET /src/http%3A%2F%2Fh/dst/%4",
        "GET " + std::string(5000, '/') + " HTTP/1.1\r\n\r\n",
        "GET /" + std::string(3000, 'a') + "?" + std::string(3000, 'q') + " HTTP/1.1\r\n\r\n",
        std::string(4000, 'G'),
        "GET /src/a/dst/b HTTP/1.1\r\nHost: " + std::string(5000, 'h') + "\r\nUser-Agent: " +
            std::string(5000, ' ') + "\r\nAccept-Encoding: " + std::string(5000, 'e') + "\r\n\r\n",
    };
    for (const auto& s : samples) {
        for (size_t n = 0; n <= s.size(); n += (s.size() > 600 ? 37 : 1)) {
            const std::string cut = s.substr(0, n);
            auto b = exact_copy(cut);
            http_header h;
            char url[64];
            (void)parse_http_header(b.get(), n, &h, url, sizeof url);
            (void)head_eod(b.get(), n);
            (void)find_http_header_n("Host:", b.get(), n, nullptr);
            char src[256], dst[256];
            const int rc = web_parse_urq(b.get(), n, src, dst, sizeof src, nullptr);
            if (rc == 0) {
                EXPECT_LT(std::strlen(src), sizeof src);
            }

            // Routines whose contract is a NUL-terminated text get an exact-size one.
            const std::string z = cut + '\0';
            auto zb = exact_copy(z);
            (void)find_http_header("Content-Length:", zb.get(), nullptr);
            (void)extract_num_hdr("Content-Length:", zb.get(), n);
            (void)web_parse_url(zb.get(), src, dst, sizeof src);
            (void)is_ping_request(zb.get());
        }
    }
    // Responses into buffers of every size up to and past the text.
    http_response r = g_resp_err;
    r.server = "vsk";
    for (size_t n = 0; n < 128; ++n) {
        auto b = std::make_unique<char[]>(n ? n : 1);
        const int len = mk_http_xt_resp(&r, 11, b.get(), n);
        if (len >= 0) {
            EXPECT_LT(static_cast<size_t>(len), n);
        }
    }
}
