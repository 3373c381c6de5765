// HTTP server messages: request heads and their field limits, the end of a head, the download-path
// split, response bytes, and cut-off and oversized input fed to every parser (URI routines too).
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "uri.h"
#include "webops.h"

using vsk_test::contains;

// A heap copy of `s` without a terminating NUL: any read past its end is an ASan report.
static std::unique_ptr<char[]> exact_copy(const std::string& s)
{
    auto b = std::make_unique<char[]>(s.size() ? s.size() : 1);
    std::memcpy(b.get(), s.data(), s.size());
    return b;
}

static void expect_lines(const std::string& got, std::initializer_list<std::string> lines)
{
    for (const auto& line : lines)
        EXPECT_TRUE(contains(got, line)) << line << " not in:\n" << got;
}

class Webops : public ::testing::Test {
protected:
    vsk_test::log_capture log;
};

TEST_F(Webops, RequestLineTable)
{
    // Expected code, and for an accepted head "GET"/"HEAD" with "1.0" for HTTP/1.0.
    const std::pair<std::string, const char*> rows[] = {
        {"get /a HTTP/1.1\r\n\r\n", "0 GET"},     {"hEaD\t/a\tHTTP/1.1\r\n\r\n", "0 HEAD"},
        {"GET /a HTTP/1.0\r\n\r\n", "0 GET 1.0"}, {"POST /a HTTP/1.1\r\n\r\n", "22"},
        {"GETTING /a HTTP/1.1\r\n\r\n", "22"},    {"GETTINGS /a HTTP/1.1\r\n\r\n", "-1"},
        {"GE /a HTTP/1.1\r\n\r\n", "-1"},         {"GET /a HTTP/2.0\r\n\r\n", "-1"},
        {"GET /a http/1.1\r\n\r\n", "-1"},        {"GET /a", "0 GET"}, // no protocol, no fields
        {"GET http:// HTTP/1.1\r\n\r\n", "-1"}, // the URI parser's refusal
    };
    for (const auto& [rq, want] : rows) {
        http_header h;
        const int rc = parse_http_header(exact_copy(rq).get(), rq.size(), &h, nullptr, 0);
        EXPECT_EQ(std::to_string(rc) + (rc ? "" : h.type == HTTP_HEAD ? " HEAD" : " GET") +
                      (!rc && h.is_http10 ? " 1.0" : ""),
                  want) << rq;
    }
    expect_lines(log.take(), {"HTTP [POST] is NOT supported\n", "HTTP/1.0 detected\n",
                              "parse_http_header: failed to get HTTP method from GETTING\n",
                              "parse_http_header: expected [HTTP/1.] to follow the URI path, got "
                              "[HTTP/2.0]\n"});
}

TEST_F(Webops, HeaderFieldsAndLimits)
{
    const std::string h63(63, 'h'), ua(127, 'u'), ae(31, 'e');
    std::string blanks = "x"; // encoding stays within the field: no escape is cut
    for (int i = 0; i < 41; ++i)
        blanks += "%20";
    struct Row { std::string fields, host, ua, ae; };
    const Row rows[] = {
        {"hOsT:\t \texample.org\r\n", "example.org", "", ""},
        {"Host: " + h63 + "\n", h63.substr(1), "", ""}, {"Host: " + h63 + "h\r\n", "", "", ""},
        // Any name that ends in Host answers the look-up when it comes first.
        {"X-Real-Host: proxy.org\r\nHost: example.org\r\n", "proxy.org", "", ""},
        // No white space after the colon: no Host at all, and a later one is not looked for.
        {"X-Host:proxy.org\r\nHost: example.org\r\n", "", "", ""},
        {"User-Agent: curl/8 (x; y)\r\n", "", "curl%2F8%20(x%3B%20y)", ""},
        {"User-Agent: " + ua + "u\r\n", "", ua.substr(1), ""},
        {"User-Agent: x" + std::string(100, ' ') + "\r\n", "", blanks, ""},
        {"Accept-Encoding: " + ae + "e\r\n", "", "", ae.substr(1)},
    };
    for (const auto& r : rows) {
        http_header h;
        const std::string rq = "GET /a HTTP/1.1\r\n" + r.fields + "\r\n";
        ASSERT_EQ(parse_http_header(exact_copy(rq).get(), rq.size(), &h, nullptr, 0), 0) << rq;
        EXPECT_EQ(h.host, r.host) << r.fields;
        EXPECT_EQ(h.user_agent, r.ua) << r.fields;
        EXPECT_EQ(h.accept_enc, r.ae) << r.fields;
    }
    expect_lines(log.take(), {"parse_http_header: Host length is too long: 64\n",
                              "parse_http_header: User-Agent length is too long: 128\n",
                              "parse_http_header: [" + ae.substr(1) +
                                  "] text has been trimmed from 32 to 31 chars\n"});
}

TEST_F(Webops, HeadEodTable)
{
    const std::pair<std::string, size_t> rows[] = {
        // A CR LF CR LF cut anywhere is "not yet"; after a CR its LF may still follow.
        {"GET / HTTP/1.1\r\nHost: h\r\n\r\nbody", 27}, {"GET /\n\nbody", 7}, {"A\r\nB\n\n", 6},
        {"A\r", 0}, {"A\r\n\r", 0}, {"A\r\n\r\n", 5}, {"A\r\n\n", 0}, {"A\r\n\nB", 4},
        {"A\nB\n", 0}, {"", 0}, {std::string("A\0\r\n\r\n", 6), 6},
    };
    for (const auto& [buf, eod] : rows)
        EXPECT_EQ(head_eod(exact_copy(buf).get(), buf.size()), eod) << '[' << buf << ']';
}

TEST_F(Webops, WebParseUrqTable)
{
    const std::string q255(255, 'q');
    struct Row { std::string target; size_t ulen; int rc; std::string src, dst; };
    const Row rows[] = {
        {"/x/src/http://h/live/a.ts/dst/live/a.ts", 256, 0, "http://h/live/a.ts", "live/a.ts"},
        {"/src/http://h/a.ts/dst/a.ts?expiry=100", 256, 0, "http://h/a.ts?expiry=100", "a.ts"},
        // A source that is itself a download request keeps its own src/dst pair.
        {"/src/http://h/src/http://o/a.ts/dst/b/a.ts/dst/out/a.ts", 256, 0,
         "http://h/src/http://o/a.ts/dst/b/a.ts", "out/a.ts"},
        {"/src/http%3A%2F%2Fh%2Fa.ts/dst/a%20b+c.ts", 256, 0, "http://h/a.ts", "a b c.ts"},
        {"/src/http://h/a.ts/dst", 256, 0, "http://h/a.ts", ""},
        {"/src/http://h/a.ts/dst/?" + q255, 512, 0, "http://h/a.ts?" + q255, ""},
        {"/?x=1", 256, WEB_NO_PATH, "", ""},        {"/PING/", 256, WEB_PING, "", ""},
        {"/FavIcon.ICO", 256, WEB_FAVICON, "", ""}, {"/pong", 256, -1, "", ""},
        {"/src/a/dst/b?" + q255 + "q", 256, WEB_BAD_QUERY, "", ""},
        {"/src/dst/a.ts", 256, -1, "", ""}, // empty source
        {"/src/http://h/a.ts/dst/b?" + q255, 256, WEB_QUERY_SPACE, "?", "?"},
        {"/src/http://h/" + std::string(300, 'a') + "/dst/x", 256, -1, "", ""}, // too long
    };
    for (const auto& r : rows) {
        std::string rq = "GET " + r.target + " HTTP/1.1\r\nHost: h\r\n\r\n";
        std::vector<char> src(r.ulen, '#'), dst(r.ulen, '#');
        EXPECT_EQ(web_parse_urq(rq.data(), rq.size(), src.data(), dst.data(), r.ulen, nullptr),
                  r.rc) << r.target;
        if (r.src != "?") {
            EXPECT_EQ(std::string(src.data()) + "|" + dst.data(), r.src + "|" + r.dst) << r.target;
        }
    }
    expect_lines(log.take(),
         {"web_parse_urq: no path in URL [/?x=1]\n",
          "web_parse_urq: URI query length (256 bytes) is beyond the limit: 256\n",
          "web_parse_urq: favicon request received.\n", "Handling user-side PING request\n",
          "web_parse_urq: error(22) parsing request data [/pong]\n",
          "web_parse_urq: URI query is too long (255 bytes), max allowed=241 bytes, discarding "
          "request\n"});
}

TEST_F(Webops, WebParseUrlTable)
{
    const std::pair<std::string, int> rows[] = {
        {"http://x/src/http%3A%2F%2Fh%2Fa.ts/dst/b%20c.ts", 0}, {"http://x/live/a.ts", -1},
        {"/", 34}, {"/" + std::string(127, 'p'), -1}, {"/" + std::string(128, 'p'), 34},
    };
    for (const auto& [url, rc] : rows) {
        char src[256] = "#", dst[256] = "#";
        EXPECT_EQ(web_parse_url(url.c_str(), src, dst, sizeof src), rc) << url;
        EXPECT_EQ(std::string(src) + "|" + dst, rc ? "|" : "http://h/a.ts|b c.ts") << url;
    }
    EXPECT_TRUE(contains(log.take(), "web_parse_url: invalid path size: 128\n"));
}

TEST_F(Webops, CannedBadRequestBytes)
{
    http_response r = g_resp_bad;
    r.server = "vsk/0.2-0.7 (torbella)";
    char buf[512];
    const std::string want =
        "HTTP/1.1 400 Bad request\r\nServer: vsk/0.2-0.7 (torbella)\r\nContent-Length: 0\r\n\r\n";
    ASSERT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, want.size() + 2), static_cast<int>(want.size()));
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, want.size() + 1), -1);
    ASSERT_GT(mk_http_xt_resp(&r, 10, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf, 25), "HTTP/1.0 400 Bad request\r");
    EXPECT_EQ(mk_http_xt_resp(&r, 20, buf, sizeof buf), 22);
    EXPECT_TRUE(contains(log.take(), "mk_http_xt_resp: HTTP/2.0 not supported\n"));
}

TEST_F(Webops, OkWithSuffixAndLocationBytes)
{
    http_response r{.code = 200, .content_type = "text/plain", .content_encoding = "",
                    .content_length = 5, .reason = "OK", .server = "vsk", .connection = "close",
                    .ok_suffix = "X-Extra: 1", .location = "http://h/x", .fpath = nullptr};
    char buf[512];
    const std::string want = "HTTP/1.1 200 OK\r\nServer: vsk\r\nContent-Type: text/plain\r\n"
                             "Content-Length: 5\r\nConnection: close\r\nLocation: http://h/x\r\n"
                             "X-Extra: 1\r\n\r\n";
    ASSERT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof buf), static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);

    // A header line of 128 characters or more is left out; the suffix belongs to 200 only.
    r.code = 302;
    for (const size_t len : {127, 128}) {
        const std::string loc(len - 12, 'm'); // "Location: " + value + CR LF
        r.location = loc.c_str();
        ASSERT_GT(mk_http_xt_resp(&r, 11, buf, sizeof buf), 0);
        EXPECT_EQ(contains(buf, "Location: " + loc + "\r\n\r\n"), len == 127) << buf;
    }
}

TEST_F(Webops, HttpCodeRespUnknownCodeIsLoggedAndFallsBackTo200Or500)
{
    const std::pair<int, const http_response*> rows[] = {
        {204, &g_resp_ok204}, {406, &g_resp_unacc}, {504, &g_resp_gwtmo}, {206, &g_resp_ok},
        {0, &g_resp_ok},      {299, &g_resp_ok},    {300, &g_resp_err},   {401, &g_resp_err}};
    for (const auto& [code, resp] : rows) {
        EXPECT_EQ(http_code_resp(code), resp) << code;
        const std::string warn = "no response for HTTP" + std::to_string(code) + " defined, please";
        EXPECT_EQ(contains(log.take(), "http_code_resp: " + warn + " update the lib!\n"),
                  code != resp->code) << code;
    }
}

// Every prefix of realistic inputs, and oversized ones, in buffers of exactly their size: a read
// past the length given (or the NUL a contract requires) is an address-sanitizer report.
TEST_F(Webops, TruncatedAndOversizedInputsStayInBounds)
{
    log_set_modules(g_log, L_PANIC); // thousands of refusals; only bounds matter here
    const std::string samples[] = {
        "GET /x/src/http://u@[::1]:80/a%41.ts/dst/a.ts?expiry=1 HTTP/1.1\r\nHost: h:80\r\n"
        "User-Agent: a b\r\nConnection: keep-alive\r\nAccept-Encoding: gzip\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n", "[fe80::1%lo]:80/src/src/dst/dst/a+b%4",
        "GET /src/a/dst/b?" + std::string(3000, 'q') + " HTTP/1.1\r\nHost: " +
            std::string(5000, 'h') + "\r\nUser-Agent: " + std::string(5000, ' ') +
            "\r\nAccept-Encoding: " + std::string(5000, 'e') + "\r\n\r\n",
    };
    for (const auto& s : samples) {
        for (size_t n = 0; n <= s.size(); n += (s.size() > 600 ? 37 : 1)) {
            auto b = exact_copy(s.substr(0, n)), z = exact_copy(s.substr(0, n) + '\0');
            http_header h;
            uri_layout l;
            char url[64], src[256], dst[256], port[8];
            (void)parse_http_header(b.get(), n, &h, url, sizeof url);
            (void)head_eod(b.get(), n);
            (void)find_http_header_n("Host:", b.get(), n, nullptr);
            (void)uri_parse_len(b.get(), n, &l);
            (void)path_parse(b.get(), n, url, sizeof url, port, sizeof port);
            (void)uri_extract_endpts_ext(b.get(), n, src, sizeof src, dst, sizeof dst);
            (void)web_parse_urq(b.get(), n, src, dst, sizeof src, nullptr);
            (void)uri_decode_opt(b.get(), n, 1);
            // Routines whose contract is a NUL-terminated text get an exact-size one.
            (void)find_http_header("Content-Length:", z.get(), nullptr);
            (void)extract_num_hdr("Content-Length:", z.get(), n);
            (void)web_parse_url(z.get(), src, dst, sizeof src);
            (void)uri_extract(z.get(), src, sizeof src, dst, sizeof dst, url, sizeof url);
            EXPECT_EQ(uri_encode(z.get(), n + 1), z.get());
        }
    }
    // Responses into buffers of every size up to and past the text: -1, or a text with its NUL.
    for (size_t n = 0; n < 128; ++n)
        EXPECT_LT(mk_http_xt_resp(&g_resp_err, 11, exact_copy(std::string(n, '#')).get(), n),
                  static_cast<int>(n));
}

// The strict reading of a source's answer head. Each head is handed over as an exact heap copy
// without a terminator, so a read past its end is an ASan report.
struct answer_row {
    std::string head;
    int code;         // status code taken; 0: the status line is refused
    long length;      // Content-Length taken; -2: the framing is refused
    const char* why;  // part of the refusal text
};

TEST(AnswerHead, StatusLineAndFramingTable)
{
    const answer_row rows[] = {
        // Status lines.
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", 200, 5, nullptr},
        {"HTTP/1.0 200 OK\nContent-Length: 5\n", 200, 5, nullptr},
        {"HTTP/1.1 200\r\n", 200, -1, nullptr}, // the reason word is wopen's concern
        {"HTTP/1.1 404 Not Found\r\nTransfer-Encoding: chunked\r\n", 404, -1, nullptr},
        {"HTTP/1.1 100 Continue\r\n", 0, 0, "interim answer 100"},
        {"HTTP/1.1 199 X\r\n", 0, 0, "interim answer 199"},
        {"HTTP/1.1 099 X\r\n", 0, 0, "status code 099 out of range"},
        {"HTTP/1.1 2xx Whatever\r\n", 0, 0, "[HTTP/1.1 2xx Whatever] is not"},
        {"HTTP/1.1 2147483848 OK\r\n", 0, 0, "is not HTTP/1.0"},
        {"HTTP/1.1 4294967496 OK\r\n", 0, 0, "is not HTTP/1.0"}, // 2^32 + 200 in an int: 200
        {"HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n", 200, -2, "is not a decimal"},
        {"HTTP/1.1 20 OK\r\n", 0, 0, "is not HTTP/1.0"},
        {"HTTP/1.1  200 OK\r\n", 0, 0, "is not HTTP/1.0"},
        {"HTTP/1.2 200 OK\r\n", 0, 0, "is not HTTP/1.0"},
        {"HTTP/2 200 OK\r\n", 0, 0, "is not HTTP/1.0"},
        {"http/1.1 200 OK\r\n", 0, 0, "is not HTTP/1.0"},
        {"HTTP/1.1 200\tOK\r\n", 0, 0, "is not HTTP/1.0"},
        {"HTTP/1.1 20", 0, 0, "is not HTTP/1.0"},
        {std::string("HTTP/1.1 200 OK\r\nX: a\0b\r\n", 26), 0, 0, "NUL byte"},
        {"HTTP/1.1 200 \x1b[2J\r\n", 200, -1, nullptr},
        // Content-Length.
        {"HTTP/1.1 200 OK\r\ncontent-length:\t 12 \t\r\n", 200, 12, nullptr},
        {"HTTP/1.1 200 OK\r\nContent-Length: 7\r\nX: y\r\nCONTENT-LENGTH: 7\r\n", 200, 7, nullptr},
        {"HTTP/1.1 200 OK\r\nX-Content-Length: 3\r\nContent-Length: 9\r\n", 200, 9, nullptr},
        {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\nContent-Length: 12\r\n", 200, -2,
         "Content-Length values 10 and 12 differ"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 12abc\r\n", 200, -2, "[12abc] is not a decimal"},
        {"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n", 200, -2, "[-5] is not"},
        {"HTTP/1.1 200 OK\r\nContent-Length: +5\r\n", 200, -2, "[+5] is not"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 5, 5\r\n", 200, -2, "[5, 5] is not"},
        {"HTTP/1.1 200 OK\r\nContent-Length:\r\n", 200, -2, "[] is not"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n", 200, 9223372036854775807L,
         nullptr},
        {"HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775808\r\n", 200, -2, "is not a decimal"},
        {"HTTP/1.1 200 OK\r\nContent-Length : 5\r\n", 200, -2, "blank before the colon"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n 5\r\n", 200, -2, "folded"},
        {"HTTP/1.1 200 OK\r\nX-Other: a\r\n b\r\nContent-Length: 5\r\n", 200, 5, nullptr},
        {"HTTP/1.1 200 OK\r\nno colon here\r\nContent-Length: 5\r\n", 200, 5, nullptr},
        // Transfer-Encoding in a 2xx.
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n", 200, -2,
         "Transfer-Encoding [chunked] in a 200 answer"},
        {"HTTP/1.1 204 OK\r\ntransfer-encoding: identity\r\n", 204, -2, "Transfer-Encoding"},
        // 206 and its Content-Range.
        {"HTTP/1.1 206 P\r\nContent-Length: 10\r\nContent-Range: bytes 0-9/10\r\n", 206, 10, nullptr},
        {"HTTP/1.1 206 P\r\nContent-Range: bytes 0-9/10\r\nContent-Length: 10\r\n", 206, 10, nullptr},
        {"HTTP/1.1 206 P\r\nContent-Length: 10\r\n", 206, -2, "206 answer without Content-Range"},
        {"HTTP/1.1 206 P\r\nContent-Length: 5\r\nContent-Range: bytes 0-4/10\r\n", 206, -2,
         "[bytes 0-4/10] is not the whole 5-byte body"},
        {"HTTP/1.1 206 P\r\nContent-Length: 5\r\nContent-Range: bytes 5-9/10\r\n", 206, -2, "whole"},
        {"HTTP/1.1 206 P\r\nContent-Length: 10\r\nContent-Range: bytes 0-9/*\r\n", 206, -2, "whole"},
        {"HTTP/1.1 206 P\r\nContent-Length: 10\r\nContent-Range: bytes 0-9/10x\r\n", 206, -2, "whole"},
        {"HTTP/1.1 206 P\r\nContent-Length: 10\r\nContent-Range: items 0-9/10\r\n", 206, -2, "whole"},
        {"HTTP/1.1 206 P\r\nContent-Length: 10\r\nContent-Range: bytes 0-9/10\r\n"
         "Content-Range: bytes 0-9/10\r\n", 206, -2, "Content-Range repeated"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\nContent-Range: bytes 0-4/10\r\n", 200, 10, nullptr},
    };
    for (const auto& r : rows) {
        const auto head = exact_copy(r.head);
        char why[HTTP_WHY_SIZE] = "";
        int code = -1;
        const bool status_ok = check_status_line(head.get(), r.head.size(), &code, why, sizeof why);
        EXPECT_EQ(status_ok, r.code != 0) << r.head << " -> " << why;
        EXPECT_EQ(code, r.code) << r.head;
        if (status_ok) {
            long len = -7;
            const bool framing_ok =
                check_body_framing(head.get(), r.head.size(), code, &len, why, sizeof why);
            EXPECT_EQ(framing_ok, r.length != -2) << r.head << " -> " << why;
            if (framing_ok) {
                EXPECT_EQ(len, r.length) << r.head;
            }
        }
        if (r.why) {
            EXPECT_TRUE(contains(why, r.why)) << r.head << " -> " << why;
        }
        for (const char* p = why; *p; ++p)
            EXPECT_TRUE(*p >= 0x20 && *p < 0x7f) << "unprintable reason for " << r.head;
    }
}
