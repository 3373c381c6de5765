// Tests of the keyed hash tables: result codes, ordered chains under forced collisions, the cut of
// over-long keys, the 32-bit numeric comparison, creation limits, iteration and destruction.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "gkh.h"

// The keys of one bucket's chain, from its head, as text.
static std::vector<std::string> chain(const ht_tag* h, size_t b)
{
    std::vector<std::string> v;
    for (const hrec* r = h->r[b]; r; r = r->next)
        v.push_back(h->ktype == ekt_STR ? static_cast<const s_hrec*>(r)->s_key
                                        : std::to_string(static_cast<const l_hrec*>(r)->l_key));
    return v;
}

static void* ptr(long n) { return reinterpret_cast<void*>(n); }

TEST(Gkh, StringKeysInOneBucketKeepTheirOrderAndCodes)
{
    const char* keys[] = {"m", "c", "x", "a", "mm", "b"};
    skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 1, nullptr, keys, 6));
    void* d = ptr(42);
    ASSERT_EQ(0, skht_add(h, "n", &d));
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "m", "mm", "n", "x"}), chain(h, 0));
    d = nullptr;
    EXPECT_EQ(0, skht_get(h, "n", &d));
    EXPECT_EQ(ptr(42), d);
    for (const char* miss : {"", "bb", "z"}) // before, between and after the stored keys
        EXPECT_EQ(3, skht_get(h, miss, nullptr)) << miss;
    d = ptr(99); // a duplicate is refused and hands back what is stored
    EXPECT_EQ(16, skht_add(h, "n", &d));
    EXPECT_EQ(ptr(42), d);
    for (const char* k : {"a", "m", "x"}) // the head, the middle and the end of the chain
        EXPECT_EQ(0, skht_rm(h, k, nullptr)) << k;
    EXPECT_EQ(3, skht_rm(h, "m", nullptr));
    EXPECT_EQ((std::vector<std::string>{"b", "c", "mm", "n"}), chain(h, 0));
    EXPECT_EQ(4u, skht_count(h));

    // An over-long key is stored cut to 254 characters, but placed by the hash of the full key;
    // one bucket is the only way to reach it again.
    const std::string full(300, 'k');
    ASSERT_EQ(0, skht_add(h, full.c_str(), nullptr));
    EXPECT_EQ(3, skht_get(h, full.c_str(), nullptr));
    EXPECT_EQ(0, skht_get(h, full.substr(0, 254).c_str(), nullptr));
    skht_destroy(h, nullptr);
}

TEST(Gkh, NumericKeysShareBucketsByLowBitsAndCompareIn32Bits)
{
    nkht_t h = nullptr;
    ASSERT_EQ(0, nkht_create(&h, 128, nullptr)); // no hash function: the key is its own hash
    for (long k : {5L + 256, 5L, 5L + 128})
        ASSERT_EQ(0, nkht_add(h, k, nullptr));
    EXPECT_EQ((std::vector<std::string>{"5", "133", "261"}), chain(h, 5));

    void* d = ptr(42);
    ASSERT_EQ(0, nkht_add(h, 7, &d));
    d = nullptr;
    EXPECT_EQ(16, nkht_add(h, 7 + (1L << 32), &d));
    EXPECT_EQ(ptr(42), d);
    EXPECT_EQ(3, nkht_get(h, 8, nullptr));
    nkht_destroy(h, nullptr);
}

TEST(Gkh, CreationLimitsAndErrorCodes)
{
    for (const auto& [capacity, rlen] : {std::pair<size_t, size_t>{1, 1}, {3, 4}, {100, 128},
                                         {5000000, 4194304}}) {
        nkht_t h = nullptr;
        ASSERT_EQ(0, nkht_create(&h, capacity, nullptr));
        EXPECT_EQ(rlen, h->rlen) << "capacity " << capacity;
        nkht_destroy(h, nullptr);
    }
    skht_t s = reinterpret_cast<skht_t>(1);
    EXPECT_EQ(75, skht_create(&s, 5000001, nullptr, nullptr, 0));
    EXPECT_EQ(nullptr, s);

    // A repeated initial key stops creation; the partial table is released (ASan watches).
    const char* dup[] = {"a", "b", "a"};
    EXPECT_EQ(16, skht_create(&s, 8, nullptr, dup, 3));
    EXPECT_EQ(nullptr, s);

    ht_tag bare{ekt_NUM, nullptr, 0, 0, 0, nullptr}; // no buckets
    EXPECT_EQ(22, nkht_add(&bare, 1, nullptr));
}

TEST(Gkh, IterationMayRemoveTheVisitedRecordAndDestroyFreesData)
{
    static skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 4, nullptr, nullptr, 0));
    for (long i = 0; i < 40; ++i) {
        void* d = ptr(i);
        ASSERT_EQ(0, skht_add(h, ("key" + std::to_string(i)).c_str(), &d));
    }
    long sum = 0;
    auto visit = [](const char* k, void* d, void* arg) {
        *static_cast<long*>(arg) += reinterpret_cast<long>(d);
        ASSERT_EQ(0, skht_rm(h, k, nullptr));
    };
    EXPECT_EQ(40u, skht_iter(h, visit, &sum));
    EXPECT_EQ(39 * 40 / 2, sum);
    EXPECT_EQ(0u, skht_count(h));
    void* d = malloc(16);
    ASSERT_EQ(0, skht_add(h, "a", &d));
    skht_destroy(h, free); // the leak checker confirms the block was freed
}

TEST(Gkh, PlHashAndNullArguments)
{
    EXPECT_EQ(7ul, plHash(hk_str(""), 7));
    EXPECT_EQ(0x26a7ul, plHash(hk_str("ab"), 0)); // h * 101 + c
    EXPECT_EQ(ULONG_MAX, plHash(hk_str("\xff"), 0)) << "bytes above 127 are negative";
    EXPECT_DEATH(skht_get(nullptr, "k", nullptr), "\"tbl && key\"");
    EXPECT_DEATH(nkht_get(nullptr, 1, nullptr), "\"tbl\"");
}
