// URI routines: splitting, host/port heads, decoding and encoding limits, URL classification and
// the src/dst split of download paths (bounds on cut-off input: with the parsers in webops_test).
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"
#include "uri.h"

// "scheme authority path query" of a parsed text, "-" for a missing piece.
static std::string pieces(const uri_layout& l)
{
    auto p = [](const char* s, size_t n) { return s ? std::string(s, n) : std::string("-"); };
    return p(l.scheme, l.s_len) + " " + p(l.authority, l.a_len) + " " + p(l.path, l.p_len) + " " +
           p(l.query, l.q_len);
}

TEST(Uri, ParseTable)
{
    const std::pair<const char*, const char*> rows[] = {
        {"http://user@host:80/a/b?x=1", "http user host:80/a/b x=1"},
        {" \thttp://@h/p", "http - h/p -"},
        {"x?y/", "- - x?y/ -"}, // a "?" before a trailing "/" belongs to the path
        {"http://h/x?a=1/", "http - h/x?a=1/ -"},
        {"http://h/a?b?c", "http - h/a?b c"},
        {"http://[::1]:8080/x?y", "http - [::1]:8080/x y"},
        {"/?q=1", "- - - q=1"},      {"c://x", "- - c://x -"},
        {"http://", "refused"},      {"http://user@", "refused"},
    };
    for (const auto& [text, want] : rows) {
        uri_layout l{};
        EXPECT_EQ(uri_parse(text, &l) ? "refused" : pieces(l), want) << text;
    }
}

TEST(Uri, PathParseTable)
{
    // Expected "offset-of-result host|port" (an empty piece leaves its buffer untouched), or "-".
    struct Row { const char* path; long len; const char* want; }; // len -1: the whole text
    const Row rows[] = {
        {"[::1]:8080/x", -1, "10 ::1|8080"}, {"[fe80::1%lo]:9?q", -1, "14 fe80::1%lo|9"},
        {"[::1]/x", -1, "4 ::1|"},           {"host:80/a", -1, "7 host|80"},
        {" \thost?q", -1, "6 host|"},        {"host:8080", 7, "7 host|80"},
        {"[::1", -1, "-"},                   {"[::1]", 4, "-"},
        {"", -1, "-"},                       {"averyveryverylonghostname:1", -1, "-"},
        {"h:1234567890", -1, "-"},
    };
    char host[16], port[8];
    for (const auto& r : rows) {
        host[0] = port[0] = '\0';
        const size_t len = r.len < 0 ? std::strlen(r.path) : static_cast<size_t>(r.len);
        const char* rc = path_parse(r.path, len, host, sizeof host, port, sizeof port);
        EXPECT_EQ(rc ? std::to_string(rc - r.path) + " " + host + "|" + port : "-", r.want);
    }
    vsk_test::log_capture log;
    EXPECT_EQ(uri_path_addrport("[::1]", 4, host, sizeof host, port, sizeof port), nullptr);
    EXPECT_TRUE(vsk_test::contains(log.take(), "uri_path_addrport: ERROR parsing path=[[::1]\n"));
}

TEST(Uri, HexDecodeEncode)
{
    // Lower-case letters keep their odd value: "%2f" is not "/".
    const std::pair<int, int> hex[] = {{'9', 9},  {'A', 10}, {'F', 15}, {'a', 42}, {'f', 47},
                                       {'G', -1}, {'g', -1}, {'@', -1}, {'`', -1}, {-1, -1}};
    for (const auto& [c, v] : hex)
        EXPECT_EQ(hex2dec(c), v) << c;

    // len 0: the text and its NUL; out null: the call fails.
    struct Dec { const char* in; size_t len; int opts; const char* out; };
    const Dec decs[] = {
        {"a+b%41", 0, 1, "a bA"}, {"%4G", 0, 1, ""},        {"x%G4y", 0, 1, "xy"},
        {"%0A", 0, 1, "?"},       {"%0A", 0, 0, "\n"},      {"%2f", 0, 1, "O"},
        {"%ff", 0, 0, "\x1F"},    {"abc%4", 0, 1, nullptr}, {"%41", 3, 1, "A"},
        {"%41", 2, 1, nullptr},   {"abc", 3, 1, "ab"},
    };
    for (const auto& r : decs) {
        std::vector<char> buf(r.in, r.in + std::strlen(r.in) + 1);
        const char* rc = uri_decode_opt(buf.data(), r.len ? r.len : buf.size(), r.opts);
        EXPECT_EQ(rc, r.out ? buf.data() : nullptr) << r.in;
        EXPECT_STREQ(rc, r.out) << r.in;
    }

    // An escape that would not fit ends the text before it.
    const std::pair<size_t, const char*> encs[] = {
        {32, "a%20b%2F%3B%2A~_.-%7F%80"}, {6, "a%20b"}, {5, "a%20"}, {4, "a"}, {1, ""}};
    for (const auto& [len, out] : encs) {
        char buf[32];
        std::strcpy(buf, "a b/;*~_.-\x7f\x80");
        ASSERT_EQ(uri_encode(buf, len), buf) << len;
        EXPECT_STREQ(buf, out) << len;
    }
    char b[] = "x";
    EXPECT_EQ(uri_encode(b, 0), nullptr);
}

TEST(Uri, ExtractClassifiesAndRefusesUnknownSchemes)
{
    // Expected "kind path|source|query".
    const std::pair<const char*, const char*> rows[] = {
        {"http://host:8080/live/a.ts?x=1", "4 host:8080/live/a.ts||x=1"},
        {"udp://10.0.0.1@239.1.1.1:5000", "2 239.1.1.1:5000|10.0.0.1|"},
        {"file:///tmp/x", "0 /tmp/x||"}, {"m3u://h/x.m3u8", "5 h/x.m3u8||"},
        {"ftp://h/x", "-1 ||"},          {"HTTP://h/x", "-1 ||"},
        {"/a/b", "-1 ||"},               {"http://?x", "-1 ||"},
        {"verylongscheme://h", "-1 ||"}, {"http://h/a?0123456789abcdef", "-1 ||"}, // too long
    };
    vsk_test::log_capture log;
    for (const auto& [url, want] : rows) {
        char path[32] = "junk", src[16] = "junk", query[16] = "junk";
        const int kind = uri_extract(url, path, sizeof path, src, sizeof src, query, sizeof query);
        EXPECT_EQ(std::to_string(kind) + " " + path + "|" + src + "|" + query, want) << url;
    }
    EXPECT_TRUE(vsk_test::contains(log.take(), "uri_extract: error parsing URI: [ftp://h/x]\n"));
}

TEST(Uri, EndpointsTable)
{
    // Expected "code source|destination".
    const std::pair<const char*, const char*> rows[] = {
        {"v1/x/src/http://h/a.ts/dst/b.ts", "0 http://h/a.ts|b.ts"},
        {"dst/x/src/http://h/a/dst/y", "0 http://h/a|y"},
        {"src/http://h/a.ts/dst", "0 http://h/a.ts|"},
        {"src/http://h/a.ts/dst/", "0 http://h/a.ts|"},
        // A source that is itself a download request keeps its own balanced src/dst pair.
        {"src/http://h1/src/http://h2/a.ts/dst/b.ts/dst/out/x.ts",
         "0 http://h1/src/http://h2/a.ts/dst/b.ts|out/x.ts"},
        {"src/http://h/a/dst/x/src/y/dst/z", "0 http://h/a|x/src/y/dst/z"},
        {"srcx/http://h/a/dst/y", "22 |"},     {"src/http://h/a.ts", "22 |"},
        {"src/http://h1/src/a/dst/x", "22 |"}, {"src/dst/x", "22 |"},
        {"src/http://h/01234567890123456789012345678901/dst/x", "34 |"},
        {"src/http://h/a/dst/0123456789012345678901234567890123456789", "34 |"},
    };
    char src[40], dst[40];
    for (const auto& [path, want] : rows) {
        std::strcpy(src, "junk");
        std::strcpy(dst, "junk");
        const int rc = uri_extract_endpts_ext(path, std::strlen(path), src, 40, dst, 40);
        EXPECT_EQ(std::to_string(rc) + " " + src + "|" + dst, want) << path;
    }
    // The length bounds the text: the destination after a cut-off "dst" is empty.
    EXPECT_EQ(uri_extract_endpts_ext("src/h/a/dst/xyz", 11, src, 40, dst, 40), 0);
    EXPECT_STREQ(dst, "");
}
