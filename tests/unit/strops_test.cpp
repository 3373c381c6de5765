// String helpers: size-suffixed numbers, line ends, markers, hex text, track tags and the numeric
// macro substitution with its limits.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "strops.h"

TEST(Strops, A2sizeSuffixesAndRefusals)
{
    const std::string max_len = std::string(63, '1') + "K", too_long = std::string(64, '1') + "K",
                      range_err = "1" + std::string(400, '0');
    const struct {
        const char* text;
        int rc;
        ssize_t value;
    } rows[] = {
        {"64K", 0, 65536}, {"2mb", 0, 2097152}, {"1G", 0, 1073741824}, {"1.5K", 0, 1536},
        {"3.9", 0, 3},     {"-3.9", 0, -3},     {"5T", -5, 0},         {"1.5e3", -5, 0},
        {"4KiB", -5, 0},   {"8589934591G", 0, 9223372035781033984LL},  {"8589934592G", -2, 0},
        {"-8589934592G", 0, INT64_MIN}, {range_err.c_str(), -4, 0},
        // 63 digits before a suffix are still a number (only too big), 64 are not.
        {max_len.c_str(), -2, 0}, {too_long.c_str(), -3, 0},
    };
    for (const auto& r : rows) {
        ssize_t v = -12345;
        EXPECT_EQ(a2size(r.text, &v), r.rc) << "[" << r.text << "]";
        EXPECT_EQ(v, r.rc == 0 ? r.value : -12345) << "[" << r.text << "]";
    }
}

TEST(Strops, ChompRemovesAtMostTwoLineEnds)
{
    const char* const rows[][2] = {{"abc\r\n", "abc"}, {"abc\n\n\n", "abc\n"}, {"abc\n\r", "abc"},
                                   {"abc", "abc"},     {"", ""},               {"a\r\r\r", "a\r"}};
    for (const auto& r : rows) {
        std::string buf = r[0];
        EXPECT_EQ(chomp(buf.data()), strlen(r[1]));
        EXPECT_STREQ(buf.c_str(), r[1]);
    }
}

TEST(Strops, MarkerSumAndHexText)
{
    EXPECT_EQ(marker_count("len:10 len:5 len:x len:", "len:"), 15u); // ':' adds the numbers
    const uint8_t bin[] = {0x01, 0xab, 0xff};
    char buf[16];
    EXPECT_EQ(bin_to_dhex(bin, sizeof(bin), buf, sizeof(buf), ":"), 3u);
    EXPECT_STREQ(buf, "01:ab:ff:");
    EXPECT_EQ(bin_to_dhex(bin, sizeof(bin), buf, 6, nullptr), 2u); // each byte needs 3 left
    EXPECT_STREQ(buf, "01ab");
}

TEST(Strops, TrackTagRollsOverToOne)
{
    size_t counter = 9999;
    n64_tag tag, expect{};
    mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.sym8, "u10000");
    mk_trk_tag(&counter, &tag, 'u', 10000);
    // The rest of the eight bytes is zero, so the tag compares as a number too.
    memcpy(expect.sym8, "u1", 2);
    EXPECT_EQ(tag.num, expect.num);
}

TEST(Strops, MacroSubstitution)
{
    char buf[32] = "a$Nb$N";
    EXPECT_EQ(repl_ulm(buf, sizeof(buf), "$N", 0), 0); // 0 leaves nothing behind
    EXPECT_STREQ(buf, "ab$N");
    EXPECT_EQ(repl_ulm(buf, sizeof(buf), "", 1), 22);
    char small[8] = "ab$Ncd";
    EXPECT_EQ(repl_ulm(small, sizeof(small), "$N", 123456), -34);
    EXPECT_EQ(strlen(small), sizeof(small) - 1);

    // At most 32 replacements: 31 occurrences pass, 32 and 33 are refused.
    for (const int count : {31, 32, 33}) {
        char big[256] = "";
        for (int i = 0; i < count; ++i)
            strcat(big, "<X>");
        const int rc = replace_ul_macro(big, sizeof(big), "<X>", 5);
        EXPECT_EQ(rc, count == 31 ? 0 : -34) << count << " occurrences";
        EXPECT_TRUE(rc != 0 || std::string(big) == std::string(31, '5')) << big;
    }
}
