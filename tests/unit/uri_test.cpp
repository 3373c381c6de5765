// Tests of the URI routines: splitting, piece copying, host/port heads, decoding, encoding, URL
// classification and the src/dst split of download request paths, plus bounds on cut-off input.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log.h"
#include "uri.h"

namespace {

// Attaches the logger's record mirror for the scope: `last()` is the text of the latest record.
class LastLog {
public:
    LastLog() { log_set_lard(g_log, &lh_); }
    ~LastLog() { log_set_lard(g_log, nullptr); }
    std::string last() const { return lh_.text; }

private:
    lard_handle lh_{};
};

// Text of a piece, "<none>" for a missing one, so that table rows can state absence.
std::string piece(const char* p, size_t n)
{
    return p ? std::string(p, n) : std::string("<none>");
}

// A heap copy of `s` with exactly `n` bytes and no terminating NUL: reading past it is caught by
// the address sanitizer.
std::unique_ptr<char[]> exact_copy(const std::string& s, size_t n)
{
    auto b = std::make_unique<char[]>(n ? n : 1);
    std::memcpy(b.get(), s.data(), n);
    return b;
}

constexpr const char* NONE = "<none>";

} // namespace

TEST(UriParse, Table)
{
    struct Row {
        const char* text;
        int rc;
        const char *scheme, *auth, *path, *query;
    };
    const Row rows[] = {
        {"http://user@host:80/a/b?x=1", 0, "http", "user", "host:80/a/b", "x=1"},
        {"http://host/a/b?x=1", 0, "http", NONE, "host/a/b", "x=1"},
        {"/a/b", 0, NONE, NONE, "a/b", NONE},
        {"x?y/", 0, NONE, NONE, "x?y/", NONE},
        {"http://h/x?a=1/", 0, "http", NONE, "h/x?a=1/", NONE},
        {"http://h/a?b?c", 0, "http", NONE, "h/a?b", "c"},
        {"http://h/a?", 0, "http", NONE, "h/a", NONE},
        {"/?q=1", 0, NONE, NONE, NONE, "q=1"},
        {" \thttp://@h/p", 0, "http", NONE, "h/p", NONE},
        {"http://[::1]:8080/x?y", 0, "http", NONE, "[::1]:8080/x", "y"},
        {"udp://10.0.0.1@239.1.1.1:5000", 0, "udp", "10.0.0.1", "239.1.1.1:5000", NONE},
        {"c://x", 0, NONE, NONE, "c://x", NONE},
        {"mailto:x", 0, NONE, NONE, "mailto:x", NONE},
        {"", 0, NONE, NONE, NONE, NONE},
        {"/", 0, NONE, NONE, NONE, NONE},
        {"http://", -1, NONE, NONE, NONE, NONE},
        {"http://user@", -1, NONE, NONE, NONE, NONE},
    };
    for (const auto& r : rows) {
        uri_layout l{};
        ASSERT_EQ(uri_parse(r.text, &l), r.rc) << r.text;
        EXPECT_EQ(uri_parse(r.text, nullptr), r.rc) << r.text;
        if (r.rc)
            continue;
        EXPECT_EQ(piece(l.scheme, l.s_len), r.scheme) << r.text;
        EXPECT_EQ(piece(l.authority, l.a_len), r.auth) << r.text;
        EXPECT_EQ(piece(l.path, l.p_len), r.path) << r.text;
        EXPECT_EQ(piece(l.query, l.q_len), r.query) << r.text;
    }
    EXPECT_EQ(uri_parse(nullptr, nullptr), -1);
}

TEST(UriParse, LengthBoundAndGetters)
{
    const char line[] = "http://u@h/a?q=1 HTTP/1.1";
    uri_layout l{};
    ASSERT_EQ(uri_parse_len(line, 16, &l), 0);
    char b[16];
    EXPECT_STREQ(uri_get_scheme(&l, b, sizeof b), "http");
    EXPECT_STREQ(uri_get_authority(&l, b, sizeof b), "u");
    EXPECT_STREQ(uri_get_path(&l, b, sizeof b), "h/a");
    EXPECT_STREQ(uri_get_query(&l, b, sizeof b), "q=1");
    // "http" needs 5 bytes: a 4-byte buffer is refused and left as it was.
    std::strcpy(b, "keep");
    EXPECT_EQ(uri_get_scheme(&l, b, 4), nullptr);
    EXPECT_STREQ(b, "keep");
}

TEST(UriCpyseg, Table)
{
    char b[4];
    std::strcpy(b, "old");
    EXPECT_EQ(cpyseg(nullptr, 3, b, sizeof b), nullptr);
    EXPECT_STREQ(b, "");
    std::strcpy(b, "old");
    EXPECT_EQ(cpyseg("abc", 0, b, sizeof b), nullptr);
    EXPECT_STREQ(b, "");
    EXPECT_EQ(cpyseg("abcdef", 3, b, sizeof b), b);
    EXPECT_STREQ(b, "abc");
    EXPECT_EQ(cpyseg("wxyz", 4, b, sizeof b), nullptr);
    EXPECT_STREQ(b, "abc");
}

TEST(UriTillQuery, Table)
{
    const std::pair<const char*, size_t> rows[] = {
        {"", 0}, {"abc", 3}, {"a?b", 1}, {"a?b?c", 3}, {"a?b/", 4}, {"?", 0}, {"a/?", 2}};
    for (const auto& [t, n] : rows)
        EXPECT_EQ(till_query(t), n) << t;
}

TEST(UriPathParse, Table)
{
    struct Row {
        const char* path;
        long len;                // -1: the whole text
        long rc;                 // offset of the result, -1 for none
        const char *host, *port; // "" when left untouched
    };
    const Row rows[] = {
        {"[::1]:8080/x", -1, 10, "::1", "8080"},
        {"[::1]/x", -1, 4, "::1", ""},
        {"[fe80::1%lo]:9?q", -1, 14, "fe80::1%lo", "9"},
        {"host:80/a", -1, 7, "host", "80"},
        {"host/a", -1, 4, "host", ""},
        {"//host", -1, 6, "host", ""},
        {" \thost?q", -1, 6, "host", ""},
        {"h:", -1, 2, "h", ""},
        {"host:80", 4, 4, "host", ""},
        {"host:8080", 7, 7, "host", "80"},
        {"[::1", -1, -1, "", ""},
        {"[::1/x]", -1, -1, "", ""},
        {"[::1]", 4, -1, "", ""},
        {"", -1, -1, "", ""},
        {"///", -1, -1, "", ""},
        {"averyveryverylonghostname:1", -1, -1, "", ""},
        {"h:1234567890", -1, -1, "", ""},
    };
    for (const auto& r : rows) {
        char host[16] = "";
        char port[8] = "";
        const size_t len = r.len < 0 ? std::strlen(r.path) : static_cast<size_t>(r.len);
        const char* rc = path_parse(r.path, len, host, sizeof host, port, sizeof port);
        EXPECT_EQ(rc ? rc - r.path : -1, r.rc) << r.path;
        if (!rc)
            continue;
        EXPECT_STREQ(host, r.host) << r.path;
        EXPECT_STREQ(port, r.port) << r.path;
    }
    // The logging front gives the same results.
    char host[16] = "";
    char port[8] = "80";
    LastLog log;
    EXPECT_EQ(uri_path_addrport("[::1]", 4, host, sizeof host, port, sizeof port), nullptr);
    EXPECT_NE(log.last().find("uri_path_addrport: ERROR parsing path=[[::1]\n"), std::string::npos)
        << log.last();
    const char* p = "h/x";
    EXPECT_EQ(uri_path_addrport(p, 3, host, sizeof host, port, sizeof port), p + 1);
    EXPECT_STREQ(port, "80");
}

TEST(UriSchemes, KindsAndAliases)
{
    const std::pair<const char*, int> rows[] = {
        {"file", URI_FILE}, {"tcp", URI_TCP}, {"udp", URI_UDP},  {"rtp", URI_RTP},
        {"http", URI_HTTP}, {"m3u", URI_HLS}, {"HTTP", URI_BAD}, {"https", URI_BAD},
        {"", URI_BAD},      {"ftp", URI_BAD}};
    for (const auto& [n, k] : rows)
        EXPECT_EQ(uri_scheme_kind(n), k) << n;
    EXPECT_EQ(uri_scheme_kind(nullptr), URI_BAD);

    for (const char* s : {"$x", "~", "^y"})
        EXPECT_TRUE(uri_is_alias(s)) << s;
    for (const char* s : {"", "x$", "/~"})
        EXPECT_FALSE(uri_is_alias(s)) << s;
    EXPECT_FALSE(uri_is_alias(nullptr));
}

TEST(UriHex, LowerCaseKeepsItsOddValue)
{
    const std::pair<int, int> rows[] = {{'0', 0},  {'9', 9},  {'A', 10}, {'F', 15}, {'a', 42},
                                        {'f', 47}, {'G', -1}, {'g', -1}, {'/', -1}, {':', -1},
                                        {'@', -1}, {'`', -1}, {0, -1},   {-1, -1}};
    for (const auto& [c, v] : rows)
        EXPECT_EQ(hex2dec(c), v) << c;
}

TEST(UriDecode, Table)
{
    struct Row {
        const char* in;
        size_t len; // 0: the text and its NUL
        int opts;
        const char* out; // nullptr: the call fails
    };
    const Row rows[] = {
        {"a+b%41", 0, 1, "a bA"}, {"%4G", 0, 1, ""},        {"x%G4y", 0, 1, "xy"},
        {"%%41", 0, 1, "1"},      {"%0A", 0, 1, "?"},       {"%0A", 0, 0, "\n"},
        {"%2F", 0, 1, "/"},       {"%2f", 0, 1, "O"},    // 2 * 16 + 47
        {"%ff", 0, 1, "?"},       {"%ff", 0, 0, "\x1F"}, // 47 * 16 + 47, cut to a byte
        {"abc%", 0, 1, nullptr},  {"abc%4", 0, 1, nullptr}, {"%41", 3, 1, "A"},
        {"%41", 2, 1, nullptr},   {"abc", 3, 1, "ab"}, // no room for the NUL: the last byte gives
                                                       // way
        {"", 0, 1, ""},
    };
    for (const auto& r : rows) {
        const size_t len = r.len ? r.len : std::strlen(r.in) + 1;
        std::vector<char> buf(r.in, r.in + std::strlen(r.in) + 1);
        char* rc = uri_decode_opt(buf.data(), len, r.opts);
        if (!r.out) {
            EXPECT_EQ(rc, nullptr) << r.in;
            continue;
        }
        ASSERT_EQ(rc, buf.data()) << r.in;
        EXPECT_STREQ(rc, r.out) << r.in;
    }
    char b[] = "a+%41";
    EXPECT_STREQ(uri_decode(b, sizeof b), "a A");
}

TEST(UriEncode, Table)
{
    struct Row {
        const char* in;
        size_t len;
        const char* out;
    };
    const Row rows[] = {
        {"a b", 16, "a%20b"},     {"a/b", 16, "a%2Fb"},     {"a b", 6, "a%20b"},
        {"a b", 5, "a%20"},       {"a b", 4, "a"},          {"x;y*", 16, "x%3By%2A"},
        {"ok~_.-", 16, "ok~_.-"}, {"\t\x7f", 16, "%09%7F"}, {"\x80\xff", 16, "%80%FF"},
        {"abcdef", 4, "abc"},     {"abc", 1, ""},           {"", 4, ""},
    };
    for (const auto& r : rows) {
        std::vector<char> buf(std::max(r.len, std::strlen(r.in) + 1), 'Z');
        std::memcpy(buf.data(), r.in, std::strlen(r.in) + 1);
        ASSERT_EQ(uri_encode(buf.data(), r.len), buf.data()) << r.in;
        EXPECT_STREQ(buf.data(), r.out) << r.in << " len " << r.len;
    }
    char b[] = "x";
    EXPECT_EQ(uri_encode(b, 0), nullptr);

    for (int c : {'a', 'Z', '0', '~', '%', '.'})
        EXPECT_TRUE(is_safe(c)) << c;
    const int unsafe[] = {';', '/', '?', ':',  '@',  '&',  '=', '+', '$',
                          ',', '*', ' ', '\t', 0x7f, 0x80, -1,  300};
    for (int c : unsafe)
        EXPECT_FALSE(is_safe(c)) << c;
}

TEST(UriExtract, Table)
{
    struct Row {
        const char* url;
        int kind;
        const char *path, *src, *query;
    };
    const Row rows[] = {
        {"http://host:8080/live/a.ts?x=1", URI_HTTP, "host:8080/live/a.ts", "", "x=1"},
        {"http://[::1]:81/a", URI_HTTP, "[::1]:81/a", "", ""},
        {"udp://10.0.0.1@239.1.1.1:5000", URI_UDP, "239.1.1.1:5000", "10.0.0.1", ""},
        {"udp://@239.1.1.1:5000", URI_UDP, "239.1.1.1:5000", "", ""},
        {"rtp://239.0.0.1:1234", URI_RTP, "239.0.0.1:1234", "", ""},
        {"tcp://h:1", URI_TCP, "h:1", "", ""},
        {"file:///tmp/x", URI_FILE, "/tmp/x", "", ""},
        {"m3u://h/x.m3u8", URI_HLS, "h/x.m3u8", "", ""},
        {"ftp://h/x", URI_BAD, "", "", ""},
        {"HTTP://h/x", URI_BAD, "", "", ""},
        {"verylongscheme://h", URI_BAD, "", "", ""},
        {"/a/b", URI_BAD, "", "", ""},
        {"http://", URI_BAD, "", "", ""},
        {"http://?x", URI_BAD, "", "", ""},
        // Pieces that do not fit are refused whole.
        {"http://h/0123456789012345678901234567890123", URI_BAD, "", "", ""},
        {"udp://0123456789abcdef@g:1", URI_BAD, "", "", ""},
        {"http://h/a?0123456789abcdef", URI_BAD, "", "", ""},
    };
    for (const auto& r : rows) {
        char path[32] = "junk";
        char src[16] = "junk";
        char query[16] = "junk";
        EXPECT_EQ(uri_extract(r.url, path, sizeof path, src, sizeof src, query, sizeof query),
                  r.kind)
            << r.url;
        EXPECT_STREQ(path, r.path) << r.url;
        EXPECT_STREQ(src, r.src) << r.url;
        EXPECT_STREQ(query, r.query) << r.url;
    }
    EXPECT_EQ(uri_extract("http://h/x", nullptr, 0, nullptr, 0, nullptr, 0), URI_HTTP);
    LastLog log;
    EXPECT_EQ(uri_extract("ftp://h/x", nullptr, 0, nullptr, 0, nullptr, 0), URI_BAD);
    EXPECT_NE(log.last().find("uri_extract: error parsing URI: [ftp://h/x]\n"), std::string::npos)
        << log.last();
    EXPECT_EQ(uri_extract(nullptr, nullptr, 0, nullptr, 0, nullptr, 0), URI_BAD);
}

TEST(UriEndpoints, Table)
{
    struct Row {
        const char* path;
        int rc;
        const char *src, *dst;
    };
    const Row rows[] = {
        {"src/http://h:80/live/a.ts/dst/live/a.ts", 0, "http://h:80/live/a.ts", "live/a.ts"},
        {"v1/x/src/http://h/a.ts/dst/b.ts", 0, "http://h/a.ts", "b.ts"},
        {"/src/http://h/a/dst/y", 0, "http://h/a", "y"},
        {"dst/x/src/http://h/a/dst/y", 0, "http://h/a", "y"},
        {"src/http://h/a.ts/dst", 0, "http://h/a.ts", ""},
        {"src/http://h/a.ts/dst/", 0, "http://h/a.ts", ""},
        {"src/http://h/a/dst/out/", 0, "http://h/a", "out/"},
        {"src/http://h/live//dst/x", 0, "http://h/live/", "x"},
        {"src/http://h1/src/http://h2/a.ts/dst/b.ts/dst/out/x.ts", 0,
         "http://h1/src/http://h2/a.ts/dst/b.ts", "out/x.ts"},
        {"src/http://h/a/dst/x/src/y/dst/z", 0, "http://h/a", "x/src/y/dst/z"},
        {"src/http%3A%2F%2Fh%2Fa.ts/dst/b", 0, "http%3A%2F%2Fh%2Fa.ts", "b"},
        {"http://h/a.ts/dst/x", 22, "", ""},
        {"srcx/http://h/a/dst/y", 22, "", ""},
        {"src/http://h/a.ts", 22, "", ""},
        {"src", 22, "", ""},
        {"src/http://h1/src/a/dst/x", 22, "", ""},
        {"src/dst/x", 22, "", ""},
        {"", 22, "", ""},
        {"src/http://h/01234567890123456789012345678901/dst/x", 34, "", ""},
        {"src/http://h/a/dst/0123456789012345678901234567890123456789", 34, "", ""},
    };
    for (const auto& r : rows) {
        char src[40] = "junk";
        char dst[40] = "junk";
        EXPECT_EQ(
            uri_extract_endpts_ext(r.path, std::strlen(r.path), src, sizeof src, dst, sizeof dst),
            r.rc)
            << r.path;
        EXPECT_STREQ(src, r.src) << r.path;
        EXPECT_STREQ(dst, r.dst) << r.path;
    }
    char src[8];
    char dst[8];
    EXPECT_EQ(uri_extract_endpts_ext(nullptr, 0, src, sizeof src, dst, sizeof dst), -1);
    // The length bounds the text: the destination after a cut-off "dst" is empty.
    const char* p = "src/h/a/dst/xyz";
    EXPECT_EQ(uri_extract_endpts_ext(p, 11, src, sizeof src, dst, sizeof dst), 0);
    EXPECT_STREQ(src, "h/a");
    EXPECT_STREQ(dst, "");
}

// The road of a download request target: split the target, then the path into its endpoints,
// then decode them. The query stays out of the source.
TEST(UriEndpoints, FromRequestTarget)
{
    const char target[] = "/src/http://h:8080/live/a%20b.ts/dst/live/a.ts?expiry=5";
    uri_layout l{};
    ASSERT_EQ(uri_parse(target, &l), 0);
    char src[256];
    char dst[256];
    ASSERT_EQ(uri_extract_endpts_ext(l.path, l.p_len, src, sizeof src, dst, sizeof dst), 0);
    ASSERT_NE(uri_decode(src, sizeof src), nullptr);
    ASSERT_NE(uri_decode(dst, sizeof dst), nullptr);
    EXPECT_STREQ(src, "http://h:8080/live/a b.ts");
    EXPECT_STREQ(dst, "live/a.ts");
    EXPECT_EQ(piece(l.query, l.q_len), "expiry=5");
}

// Every prefix of each input, in a heap block of exactly that size with no NUL: any read past the
// given length is an address-sanitizer report. Oversized inputs must fail cleanly.
TEST(UriBounds, TruncatedAndOversizedInputs)
{
    const std::string inputs[] = {
        "http://user@[::1]:8080/src/http://h/a%41.ts/dst/x?y=1",
        "  udp://10.0.0.1@239.1.1.1:5000/",
        "[fe80::1%lo]:80/a?b%2",
        "src/src/dst/dst/a+b%4",
    };
    for (const auto& s : inputs) {
        for (size_t n = 0; n <= s.size(); ++n) {
            auto b = exact_copy(s, n);
            uri_layout l{};
            if (uri_parse_len(b.get(), n, &l) == 0) {
                EXPECT_LE(l.path ? l.path + l.p_len : b.get(), b.get() + n);
                EXPECT_LE(l.query ? l.query + l.q_len : b.get(), b.get() + n);
            }
            char h[64];
            char p[8];
            const char* rc = path_parse(b.get(), n, h, sizeof h, p, sizeof p);
            if (rc) {
                EXPECT_LE(rc, b.get() + n);
            }
            char src[64];
            char dst[64];
            (void)uri_extract_endpts_ext(b.get(), n, src, sizeof src, dst, sizeof dst);
            (void)uri_decode_opt(b.get(), n, 1);
            auto e = exact_copy(s, n);
            if (n) {
                EXPECT_EQ(uri_encode(e.get(), n), e.get());
            }
        }
    }

    std::string big(70000, 'a');
    big.insert(0, "http://");
    char path[URI_PATH_MAX];
    EXPECT_EQ(uri_extract(big.c_str(), path, sizeof path, nullptr, 0, nullptr, 0), URI_BAD);
    EXPECT_EQ(uri_parse(big.c_str(), nullptr), 0);
    std::string ep = "src/http://h/a/dst/" + std::string(70000, 'd');
    char src[256];
    char dst[256];
    EXPECT_EQ(uri_extract_endpts_ext(ep.c_str(), ep.size(), src, sizeof src, dst, sizeof dst), 34);
    std::string enc(1000, ' ');
    EXPECT_EQ(uri_encode(enc.data(), 128), enc.data());
    EXPECT_EQ(std::strlen(enc.c_str()), 126u); // 42 escapes, the 43rd would not fit
}
