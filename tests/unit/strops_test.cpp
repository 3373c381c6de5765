// String helpers: size-suffixed numbers, line ends, markers, hex text, track tags and the numeric
// macro substitution with its limits.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "strops.h"

TEST(Strops, A2sizeSuffixesAndRefusals)
{
    struct row {
        const char* text;
        int rc;
        ssize_t value;
    };
    const std::string long_num(64, '1');
    const std::string max_num(63, '1');
    const std::string too_long = long_num + "K";
    const std::string range_err = "1" + std::string(400, '0');
    const row rows[] = {
        {"64K", 0, 65536},
        {"2mb", 0, 2097152},
        {"1G", 0, 1073741824},
        {"10kB", 0, 10240},
        {"3Gb", 0, 3LL * 1073741824},
        {"1.5K", 0, 1536},
        {"123", 0, 123},
        {"-7", 0, -7},
        {"  42", 0, 42},
        {"3.9", 0, 3},   // truncated toward zero
        {"-3.9", 0, -3}, // likewise
        {"5T", -5, 0},
        {"1.5e3", -5, 0}, // exponents are refused as an unknown suffix
        {"4KiB", -5, 0},
        {"inf", -5, 0},
        {"0x10", -5, 0},
        {"8589934591G", 0, 9223372035781033984LL},
        {"8589934592G", -2, 0}, // 2^63
        {"-8589934592G", 0, INT64_MIN},
        {"-8589934593G", -2, 0},
        {too_long.c_str(), -3, 0},
        {range_err.c_str(), -4, 0},
    };
    for (const row& r : rows) {
        ssize_t v = -12345;
        EXPECT_EQ(a2size(r.text, &v), r.rc) << "[" << r.text << "]";
        EXPECT_EQ(v, r.rc == 0 ? r.value : -12345) << "[" << r.text << "]";
    }
    // 63 digits in front of a suffix are still a number, only its size is out of range.
    double d = 0;
    EXPECT_EQ(a2double((max_num + "K").c_str(), &d), 0);
    EXPECT_GT(d, 1e64);
    EXPECT_EQ(a2size((max_num + "K").c_str(), nullptr), -2);
}

TEST(Strops, A2int64AndA2doubleAcceptNullResult)
{
    EXPECT_EQ(a2double("2M", nullptr), 0);
    EXPECT_EQ(a2int64("2M", nullptr), 0);
    int64_t v = 0;
    EXPECT_EQ(a2int64("0.5m", &v), 0);
    EXPECT_EQ(v, 524288);
    double d = 0;
    EXPECT_EQ(a2double("0.25", &d), 0);
    EXPECT_DOUBLE_EQ(d, 0.25);
}

TEST(Strops, ChompRemovesAtMostTwoLineEnds)
{
    struct row {
        const char* in;
        const char* out;
    };
    const row rows[] = {
        {"abc\r\n", "abc"}, {"abc\n\n\n", "abc\n"}, {"abc\n\r", "abc"}, {"abc", "abc"},
        {"", ""},           {"\r", ""},             {"a\r\r\r", "a\r"}, {"a b\n", "a b"},
    };
    for (const row& r : rows) {
        char buf[32];
        snprintf(buf, sizeof(buf), "%s", r.in);
        EXPECT_EQ(chomp(buf), strlen(r.out));
        EXPECT_STREQ(buf, r.out);
    }
}

TEST(Strops, MarkerCountCountsOrAddsNumbers)
{
    EXPECT_EQ(marker_count("a,b,c", ","), 2u);
    EXPECT_EQ(marker_count("x=1 x=2", "x="), 2u);
    EXPECT_EQ(marker_count("aaaa", "aa"), 2u); // occurrences do not overlap
    EXPECT_EQ(marker_count("", "a"), 0u);
    EXPECT_EQ(marker_count("abc", ""), 0u);
    // A marker ending in ':' adds the numbers after it; none counts 0.
    EXPECT_EQ(marker_count("len:10 len:5 len:x len:", "len:"), 15u);
    EXPECT_EQ(marker_count("n:7a n:03", "n:"), 10u);
}

TEST(Strops, HexHelpers)
{
    EXPECT_EQ(sym2hex('0'), 0);
    EXPECT_EQ(sym2hex('9'), 9);
    EXPECT_EQ(sym2hex('a'), 10);
    EXPECT_EQ(sym2hex('F'), 15);
    EXPECT_EQ(sym2hex('g'), 0);
    EXPECT_EQ(sym2hex('\0'), 0);

    uint8_t out[4] = {};
    EXPECT_EQ(hex_to_bin("0aFf10", out, sizeof(out)), 3u);
    EXPECT_EQ(out[0], 0x0a);
    EXPECT_EQ(out[1], 0xff);
    EXPECT_EQ(out[2], 0x10);
    EXPECT_EQ(hex_to_bin("0102030405", out, 2), 2u); // the output runs out first
    EXPECT_EQ(out[1], 0x02);
    EXPECT_EQ(out[2], 0x10);
    EXPECT_EQ(hex_to_bin("abc", out, sizeof(out)), 1u); // a lone last digit is not a byte
    EXPECT_EQ(out[0], 0xab);
    EXPECT_EQ(hex_to_bin("", out, sizeof(out)), 0u);

    const uint8_t bin[] = {0x01, 0xab, 0xff};
    struct row {
        size_t outlen;
        const char* delim;
        size_t converted;
        const char* text;
    };
    const row rows[] = {
        {16, ":", 3, "01:ab:ff:"}, {16, nullptr, 3, "01abff"}, {7, nullptr, 3, "01abff"},
        {6, nullptr, 2, "01ab"},   {8, ":", 2, "01:ab:"},      {3, ":", 0, ""},
        {1, nullptr, 0, ""},
    };
    for (const row& r : rows) {
        char buf[16];
        memset(buf, 'X', sizeof(buf));
        EXPECT_EQ(bin_to_dhex(bin, sizeof(bin), buf, r.outlen, r.delim), r.converted)
            << "outlen " << r.outlen;
        EXPECT_STREQ(buf, r.text) << "outlen " << r.outlen;
        EXPECT_EQ(buf[r.outlen - 1], '\0');
    }
}

TEST(Strops, TrackTagCountsAndRollsOver)
{
    size_t counter = 0;
    n64_tag tag;
    mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.sym8, "u1");
    EXPECT_EQ(counter, 1u);

    counter = 9999;
    mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.sym8, "u10000");
    EXPECT_EQ(counter, 10000u);
    mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.sym8, "u1");
    EXPECT_EQ(counter, 1u);
    // The rest of the eight bytes is zero, so the tag compares as a number too.
    n64_tag expect{};
    memcpy(expect.sym8, "u1", 2);
    EXPECT_EQ(tag.num, expect.num);

    counter = 0;
    std::string seq;
    for (int i = 0; i < 5; ++i) {
        mk_trk_tag(&counter, &tag, 'T', 3);
        seq += tag.sym8;
        seq += ' ';
    }
    EXPECT_EQ(seq, "T1 T2 T3 T1 T2 ");
}

TEST(Strops, ReplUlmSubstitutesOneOccurrence)
{
    char buf[32] = "id=$N;";
    EXPECT_EQ(repl_ulm(buf, sizeof(buf), "$N", 42), 0);
    EXPECT_STREQ(buf, "id=42;");
    EXPECT_EQ(repl_ulm(buf, sizeof(buf), "$N", 42), 3);
    EXPECT_STREQ(buf, "id=42;");

    char zero[32] = "a$Nb$N";
    EXPECT_EQ(repl_ulm(zero, sizeof(zero), "$N", 0), 0); // 0 leaves nothing behind
    EXPECT_STREQ(zero, "ab$N");

    char small[8] = "ab$Ncd";
    EXPECT_EQ(repl_ulm(small, sizeof(small), "$N", 123456), -34);
    EXPECT_EQ(strlen(small), sizeof(small) - 1);

    char empty_macro[8] = "abc";
    EXPECT_EQ(repl_ulm(empty_macro, sizeof(empty_macro), "", 1), 22);
    EXPECT_STREQ(empty_macro, "abc");
}

TEST(Strops, ReplaceUlMacroLimits)
{
    char buf[256] = "$N-$N-$N";
    EXPECT_EQ(replace_ul_macro(buf, sizeof(buf), "$N", 7), 0);
    EXPECT_STREQ(buf, "7-7-7");

    char none[16] = "plain";
    EXPECT_EQ(replace_ul_macro(none, sizeof(none), "$N", 7), 0);
    EXPECT_STREQ(none, "plain");

    // At most 32 replacements: 31 occurrences pass, 32 and 33 are refused.
    for (const int count : {31, 32, 33}) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += "<X>";
        char big[256];
        snprintf(big, sizeof(big), "%s", text.c_str());
        const int rc = replace_ul_macro(big, sizeof(big), "<X>", 5);
        EXPECT_EQ(rc, count == 31 ? 0 : -34) << count << " occurrences";
        if (rc == 0) {
            EXPECT_EQ(std::string(big), std::string(31, '5'));
        }
    }

    char tight[8] = "$N$N";
    EXPECT_EQ(replace_ul_macro(tight, sizeof(tight), "$N", 12345), -34);
}
