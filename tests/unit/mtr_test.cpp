// Tests of the counters' renderings: string escaping for labels and JSON, the bucket a download
// duration lands in at each bound, and the growth of the text buffer. Scrapes of a running agent
// are covered end to end.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "mtr.h"

namespace {

std::string text_of(mtr_text* t)
{
    std::string s = t->p ? std::string(t->p, t->len) : std::string();
    mtr_text_free(t);
    return s;
}

struct escape_case {
    const char* in;
    const char* out;
};

TEST(MtrTest, EscapesQuotesBackslashesAndControlCharacters)
{
    const escape_case cases[] = {
        {"", ""},
        {"plain/path-1.ts", "plain/path-1.ts"},
        {"a\"b", "a\\\"b"},
        {"back\\slash", "back\\\\slash"},
        {"line\nbreak", "line\\nbreak"},
        {"tab\tand\x01\x7f", "tab\\u0009and\\u0001\\u007f"},
        {"caf\xc3\xa9", "caf\xc3\xa9"}, // UTF-8 bytes pass as they are
    };
    for (const auto& c : cases) {
        mtr_text t{};
        mtr_put_escaped(&t, c.in);
        EXPECT_EQ(text_of(&t), c.out) << "input: " << c.in;
    }
}

TEST(MtrTest, DurationLandsInTheFirstBucketItFits)
{
    struct {
        uint64_t us;
        size_t bucket; // index into the buckets, MTR_DUR_BUCKETS is +Inf
    } cases[] = {
        {0, 0},       {5000, 0},     {5001, 1},         {999999, 7},
        {1000000, 7}, {1000001, 8},  {60000000, 12},    {60000001, MTR_DUR_BUCKETS},
    };
    for (const auto& c : cases) {
        g_mtr = mtr_counters{};
        mtr_observe_download_us(c.us);
        for (size_t i = 0; i <= MTR_DUR_BUCKETS; ++i)
            EXPECT_EQ(g_mtr.dur_buckets[i], i == c.bucket ? 1u : 0u)
                << c.us << " us, bucket " << i;
        EXPECT_EQ(g_mtr.dur_sum_us, c.us);
        EXPECT_EQ(g_mtr.dur_count, 1u);
    }
    g_mtr = mtr_counters{};
}

TEST(MtrTest, TextGrowsPastItsFirstAllocationIntact)
{
    mtr_text t{};
    std::string expect;
    for (int i = 0; i < 2000; ++i) {
        mtr_printf(&t, "line %d %s\n", i, "0123456789");
        expect += "line " + std::to_string(i) + " 0123456789\n";
    }
    EXPECT_FALSE(t.failed);
    EXPECT_EQ(std::strlen(t.p), t.len);
    EXPECT_EQ(text_of(&t), expect);
}

TEST(MtrTest, AnswersOutsideTheTableAreNotCounted)
{
    g_mtr = mtr_counters{};
    mtr_answer(503);
    mtr_answer(503);
    mtr_answer(600);
    mtr_answer(-1);
    uint64_t total = 0;
    for (uint64_t n : g_mtr.answers)
        total += n;
    EXPECT_EQ(g_mtr.answers[503], 2u);
    EXPECT_EQ(total, 2u);
    g_mtr = mtr_counters{};
}

} // namespace
