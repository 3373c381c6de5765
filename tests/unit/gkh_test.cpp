// Tests of the keyed hash tables: insert/find/remove and their codes, ordered chains under forced
// collisions, the 32-bit numeric comparison, creation limits, iteration, destruction, the
// statistics dump and the three hash functions on known inputs.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "gkh.h"
#include "log.h"

namespace {

class GkhTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        glog_init("vsk");
        log_default(g_log, stderr);
    }
};

template <class Fn> std::string dump(Fn fn)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    fn(f);
    fclose(f);
    std::string s(buf, len);
    free(buf);
    return s;
}

std::vector<long> chain_keys(const ht_tag* h, size_t b)
{
    std::vector<long> v;
    for (const hrec* r = h->r[b]; r; r = r->next)
        v.push_back(static_cast<const l_hrec*>(r)->l_key);
    return v;
}

std::vector<std::string> chain_skeys(const ht_tag* h, size_t b)
{
    std::vector<std::string> v;
    for (const hrec* r = h->r[b]; r; r = r->next)
        v.emplace_back(static_cast<const s_hrec*>(r)->s_key);
    return v;
}

void* ptr(long n)
{
    return reinterpret_cast<void*>(n);
}

TEST_F(GkhTest, StringKeysInsertFindRemove)
{
    skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 64, nullptr, nullptr, 0));
    EXPECT_EQ(plHash, h->icalc) << "string tables default to plHash";

    int a = 1, b = 2;
    void* d = &a;
    ASSERT_EQ(0, skht_add(h, "src.example/a.ts", &d));
    d = &b;
    ASSERT_EQ(0, skht_add(h, "src.example/b.ts", &d));
    ASSERT_EQ(0, skht_add(h, "no-data", nullptr));
    EXPECT_EQ(3u, skht_count(h));

    void* got = nullptr;
    EXPECT_EQ(0, skht_get(h, "src.example/a.ts", &got));
    EXPECT_EQ(&a, got);
    EXPECT_EQ(0, skht_get(h, "src.example/b.ts", nullptr));
    got = &a;
    EXPECT_EQ(0, skht_get(h, "no-data", &got));
    EXPECT_EQ(nullptr, got);
    EXPECT_EQ(3, skht_get(h, "src.example/c.ts", &got));

    // A duplicate is refused and hands back what is stored.
    int c = 3;
    d = &c;
    EXPECT_EQ(16, skht_add(h, "src.example/b.ts", &d));
    EXPECT_EQ(&b, d);
    EXPECT_EQ(16, skht_add(h, "src.example/b.ts", nullptr));
    EXPECT_EQ(3u, skht_count(h));

    got = nullptr;
    EXPECT_EQ(0, skht_rm(h, "src.example/a.ts", &got));
    EXPECT_EQ(&a, got);
    EXPECT_EQ(3, skht_rm(h, "src.example/a.ts", &got));
    EXPECT_EQ(3, skht_get(h, "src.example/a.ts", nullptr));
    EXPECT_EQ(2u, skht_count(h));
    d = &c;
    EXPECT_EQ(0, skht_add(h, "src.example/a.ts", &d)) << "a removed key can come back";
    skht_destroy(h, nullptr);
}

TEST_F(GkhTest, OverlongStringKeyIsStoredCut)
{
    // One bucket, so that the cut copy can be reached at all: the record is placed by the hash of
    // the full key, which a lookup with the cut key does not share.
    skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 1, nullptr, nullptr, 0));
    const std::string full(300, 'k');
    ASSERT_EQ(0, skht_add(h, full.c_str(), nullptr));
    EXPECT_EQ(3, skht_get(h, full.c_str(), nullptr));
    EXPECT_EQ(0, skht_get(h, full.substr(0, 254).c_str(), nullptr));
    EXPECT_EQ(3, skht_get(h, full.substr(0, 255).c_str(), nullptr));
    std::string seen;
    skht_iter(h, [](const char* k, void*, void* arg) { *static_cast<std::string*>(arg) = k; },
              &seen);
    EXPECT_EQ(254u, seen.size());
    skht_destroy(h, nullptr);
}

TEST_F(GkhTest, OneBucketKeepsTheChainInStringOrder)
{
    skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 1, nullptr, nullptr, 0));
    ASSERT_EQ(1u, h->rlen);
    const std::vector<std::string> keys = {"m", "c", "x", "a", "mm", "b", "z"};
    for (size_t i = 0; i < keys.size(); ++i) {
        void* d = ptr(static_cast<long>(i) + 1);
        ASSERT_EQ(0, skht_add(h, keys[i].c_str(), &d));
    }
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "m", "mm", "x", "z"}), chain_skeys(h, 0));
    for (size_t i = 0; i < keys.size(); ++i) {
        void* d = nullptr;
        ASSERT_EQ(0, skht_get(h, keys[i].c_str(), &d)) << keys[i];
        EXPECT_EQ(ptr(static_cast<long>(i) + 1), d);
    }
    // Misses before, between and after the stored keys.
    for (const char* miss : {"", "0", "bb", "n", "zz"})
        EXPECT_EQ(3, skht_get(h, miss, nullptr)) << miss;

    // Removal from the head, the middle and the end of the chain.
    for (const char* k : {"a", "m", "z"})
        EXPECT_EQ(0, skht_rm(h, k, nullptr)) << k;
    EXPECT_EQ((std::vector<std::string>{"b", "c", "mm", "x"}), chain_skeys(h, 0));
    EXPECT_EQ(4u, skht_count(h));
    skht_destroy(h, nullptr);
}

TEST_F(GkhTest, NumericKeysWithoutHashShareBucketsByLowBits)
{
    nkht_t h = nullptr;
    ASSERT_EQ(0, nkht_create(&h, 128, nullptr));
    ASSERT_EQ(128u, h->rlen);
    EXPECT_EQ(nullptr, h->icalc);
    for (long k : {5L + 256, 5L, 5L + 128})
        ASSERT_EQ(0, nkht_add(h, k, nullptr));
    EXPECT_EQ((std::vector<long>{5, 133, 261}), chain_keys(h, 5));
    EXPECT_EQ(0, nkht_rm(h, 133, nullptr));
    EXPECT_EQ((std::vector<long>{5, 261}), chain_keys(h, 5));

    // Only the low 32 bits take part in the comparison.
    void* d = ptr(42);
    ASSERT_EQ(0, nkht_add(h, 7, &d));
    d = nullptr;
    EXPECT_EQ(16, nkht_add(h, 7 + (1L << 32), &d));
    EXPECT_EQ(ptr(42), d);
    EXPECT_EQ(0, nkht_get(h, 7 + (1L << 32), &d));
    EXPECT_EQ(3, nkht_get(h, 8, nullptr));

    // Negative keys work as their unsigned bucket and wrapping difference say.
    ASSERT_EQ(0, nkht_add(h, -1, nullptr));
    EXPECT_EQ(0, nkht_get(h, -1, nullptr));
    EXPECT_EQ(4u, nkht_count(h));
    nkht_destroy(h, nullptr);
}

TEST_F(GkhTest, WatchTableWithTwShiftFindsEveryKey)
{
    nkht_t h = nullptr;
    ASSERT_EQ(0, nkht_create(&h, 1024, tw_shift));
    EXPECT_EQ(1024u, h->rlen);
    for (long wd = 1; wd <= 3000; ++wd) {
        void* d = ptr(wd * 2);
        ASSERT_EQ(0, nkht_add(h, wd, &d));
    }
    for (long wd = 1; wd <= 3000; ++wd) {
        void* d = nullptr;
        ASSERT_EQ(0, nkht_get(h, wd, &d));
        ASSERT_EQ(ptr(wd * 2), d);
    }
    EXPECT_EQ(3, nkht_get(h, 3001, nullptr));
    // Every chain is ascending.
    for (size_t b = 0; b < h->rlen; ++b) {
        const auto keys = chain_keys(h, b);
        for (size_t i = 1; i < keys.size(); ++i)
            ASSERT_LT(keys[i - 1], keys[i]) << "bucket " << b;
    }
    size_t n = 0;
    EXPECT_EQ(3000u, nkht_iter(h, [](long, void*, void* arg) { ++*static_cast<size_t*>(arg); }, &n));
    EXPECT_EQ(3000u, n);
    nkht_destroy(h, nullptr);
}

TEST_F(GkhTest, CapacityLimitsAndBucketCounts)
{
    struct {
        size_t capacity;
        size_t rlen;
    } const cases[] = {{1, 1}, {2, 2}, {3, 4}, {100, 128}, {128, 128}, {1024, 1024},
                       {4096, 4096}, {5000000, 4194304}};
    for (const auto& c : cases) {
        nkht_t h = nullptr;
        ASSERT_EQ(0, nkht_create(&h, c.capacity, nullptr));
        EXPECT_EQ(c.rlen, h->rlen) << "capacity " << c.capacity;
        nkht_destroy(h, nullptr);
    }
    EXPECT_EQ(1u, calc_rlen(0));
    EXPECT_EQ(1u, calc_rlen(1));
    EXPECT_EQ(128u, calc_rlen(192));
    EXPECT_EQ(1024u, calc_rlen(1536));

    skht_t s = reinterpret_cast<skht_t>(1);
    EXPECT_EQ(75, skht_create(&s, 5000001, nullptr, nullptr, 0));
    EXPECT_EQ(nullptr, s);
    nkht_t n = reinterpret_cast<nkht_t>(1);
    EXPECT_EQ(75, nkht_create(&n, 5000001, nullptr));
    EXPECT_EQ(nullptr, n);
}

TEST_F(GkhTest, InitialKeysAndTheirFirstError)
{
    const char* keys[] = {"one", "two", "three"};
    skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 8, nullptr, keys, 3));
    EXPECT_EQ(3u, skht_count(h));
    void* d = ptr(1);
    EXPECT_EQ(0, skht_get(h, "two", &d));
    EXPECT_EQ(nullptr, d);
    skht_destroy(h, nullptr);

    // A repeated key stops creation; the partial table is released (the leak checker watches).
    const char* dup[] = {"a", "b", "a"};
    EXPECT_EQ(16, skht_create(&h, 8, nullptr, dup, 3));
    EXPECT_EQ(nullptr, h);
}

TEST_F(GkhTest, IterationCountsAndMayRemoveTheVisitedRecord)
{
    skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 4, nullptr, nullptr, 0));
    int calls = 0;
    EXPECT_EQ(0u, skht_iter(h, [](const char*, void*, void* a) { ++*static_cast<int*>(a); }, &calls));
    EXPECT_EQ(0, calls);

    std::map<std::string, long> want;
    for (long i = 0; i < 40; ++i) {
        const std::string k = "key" + std::to_string(i);
        void* d = ptr(i);
        ASSERT_EQ(0, skht_add(h, k.c_str(), &d));
        want[k] = i;
    }
    static skht_t g_h;
    g_h = h;
    std::map<std::string, long> seen;
    EXPECT_EQ(40u, skht_iter(h,
                             [](const char* k, void* d, void* arg) {
                                 (*static_cast<std::map<std::string, long>*>(arg))[k] =
                                     reinterpret_cast<long>(d);
                                 ASSERT_EQ(0, skht_rm(g_h, k, nullptr));
                             },
                             &seen));
    EXPECT_EQ(want, seen);
    EXPECT_EQ(0u, skht_count(h));
    skht_destroy(h, nullptr);
}

TEST_F(GkhTest, DestroyHandsEveryDataToTheFreeFunction)
{
    nkht_t h = nullptr;
    ASSERT_EQ(0, nkht_create(&h, 4, nullptr));
    for (long k = 0; k < 20; ++k) {
        void* d = malloc(16);
        ASSERT_EQ(0, nkht_add(h, k, &d));
    }
    nkht_destroy(h, free); // the leak checker confirms that all 20 blocks were freed
    nkht_destroy(nullptr, free);
    skht_destroy(nullptr, nullptr);
}

TEST_F(GkhTest, TableWithoutBucketsAnswers22)
{
    ht_tag bare{};
    bare.ktype = ekt_NUM;
    EXPECT_EQ(22, nkht_add(&bare, 1, nullptr));
    EXPECT_EQ(22, nkht_get(&bare, 1, nullptr));
    EXPECT_EQ(22, nkht_rm(&bare, 1, nullptr));
    bare.ktype = ekt_STR;
    EXPECT_EQ(22, skht_add(&bare, "k", nullptr));
    EXPECT_EQ(0u, bare.count);
}

TEST_F(GkhTest, StatisticsDump)
{
    nkht_t h = nullptr;
    ASSERT_EQ(0, nkht_create(&h, 4, nullptr)); // 6 -> 4 buckets
    for (long k : {1L, 5L, 2L})
        ASSERT_EQ(0, nkht_add(h, k, nullptr));
    char head[160];
    snprintf(head, sizeof(head),
             "Hash [%p;seed=%ld] contains: \n\t3 records; slots: 2/4\nMax chain length: 2\n",
             static_cast<void*>(h), static_cast<long>(h->hseed));
    EXPECT_EQ(head, dump([&](FILE* f) { nkht_print(h, f, false); }));
    EXPECT_EQ(std::string(head) + "\nHash slots (total=2):\n1:(2:5);2:(1:2);\n",
              dump([&](FILE* f) { nkht_print(h, f, true); }));
    nkht_destroy(h, nullptr);

    skht_t s = nullptr;
    ASSERT_EQ(0, skht_create(&s, 1, nullptr, nullptr, 0));
    for (const char* k : {"b", "a"})
        ASSERT_EQ(0, skht_add(s, k, nullptr));
    const std::string text = dump([&](FILE* f) { skht_print(s, f, true); });
    EXPECT_NE(std::string::npos, text.find("\t2 records; slots: 1/1\nMax chain length: 2\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("\nHash slots (total=1):\n0:(2:b);\n")) << text;
    skht_destroy(s, nullptr);
}

TEST_F(GkhTest, HashFunctionsOnKnownInputs)
{
    EXPECT_EQ(7ul, plHash(hk_str(""), 7));
    EXPECT_EQ(0x61ul, plHash(hk_str("a"), 0));
    EXPECT_EQ(0x26a7ul, plHash(hk_str("ab"), 0));
    EXPECT_EQ(0xc6ul, plHash(hk_str("a"), 1));
    EXPECT_EQ(ULONG_MAX, plHash(hk_str("\xff"), 0)) << "bytes above 127 are negative";
    EXPECT_EQ(0xfffffffffffc992eul, plHash(hk_str("\xe9t\xe9"), 0));
    EXPECT_EQ(0x8df72c277f4f81feul, plHash(hk_str("example.com/a.ts"), 1700000000));

    EXPECT_EQ(0x61ul, elfHash(hk_str("a"), 99)) << "the seed is ignored";
    EXPECT_EQ(0x672ul, elfHash(hk_str("ab"), 0));
    EXPECT_EQ(0x89abaa8ul, elfHash(hk_str("abcdefgh"), 0));
    EXPECT_EQ(0x29e55c3ul, elfHash(hk_str("vsk/data/segment-000123.ts"), 0));
    EXPECT_EQ(0xffffff000fff2fd9ul, elfHash(hk_str("\xe9t\xe9"), 0));

    EXPECT_EQ(0x77cfa1eef01bca90ul, tw_shift(hk_num(0), 0));
    EXPECT_EQ(0x5bca7c69b794f8ceul, tw_shift(hk_num(1), 12345)) << "the seed is ignored";
    EXPECT_EQ(0xf3db82f1e7b6f7aul, tw_shift(hk_num(42), 0));
    EXPECT_EQ(0x1f89206e3f8ec794ul, tw_shift(hk_num(-1), 0));
}

TEST_F(GkhTest, NullArgumentsAreFatal)
{
    skht_t h = nullptr;
    ASSERT_EQ(0, skht_create(&h, 4, nullptr, nullptr, 0));
    EXPECT_DEATH(skht_get(nullptr, "k", nullptr), "\"tbl && key\"");
    EXPECT_DEATH(skht_get(h, nullptr, nullptr), "\"tbl && key\"");
    EXPECT_DEATH(nkht_get(nullptr, 1, nullptr), "\"tbl\"");
    EXPECT_DEATH(skht_iter(nullptr, nullptr, nullptr), "\"tbl\"");
    skht_destroy(h, nullptr);
}

} // namespace
