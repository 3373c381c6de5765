// Tests of the intrusive doubly-linked list: head/tail order, sorted insertion and repositioning
// with equal elements, unlinking anywhere, purging, order verification and the two dumps.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "dlep.h"
#include "log.h"
#include "ztypes.h"

namespace {

// A record as users declare it: their own tag type and typed links in the header layout.
struct item {
    n32_tag tag;
    item* prev;
    item* next;
    int val;
    char name[8];
};
static_assert(offsetof(item, prev) == offsetof(dlep_hdr, prev));
static_assert(offsetof(item, next) == offsetof(dlep_hdr, next));

int cmp_val(const void* a, const void* b)
{
    const int x = static_cast<const item*>(a)->val;
    const int y = static_cast<const item*>(b)->val;
    return (x > y) - (x < y);
}

void print_val(FILE* out, const void* e)
{
    fprintf(out, "%d", static_cast<const item*>(e)->val);
}

// Values from head to tail, checking the back links on the way.
std::vector<int> values(const dlep_list* l)
{
    std::vector<int> v;
    const item* prev_seen = nullptr;
    for (auto* e = dlep_head_as<item>(l); e; e = e->prev) {
        EXPECT_EQ(prev_seen, e->next) << "broken next link at " << e->val;
        v.push_back(e->val);
        prev_seen = e;
    }
    EXPECT_EQ(prev_seen, dlep_tail_as<item>(l));
    EXPECT_EQ(v.size(), dlep_count(l));
    return v;
}

std::string names(const dlep_list* l)
{
    std::string s;
    for (auto* e = dlep_head_as<item>(l); e; e = e->prev)
        s += e->name;
    return s;
}

// Captures what a dump function writes.
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

class DlepTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        glog_init("vsk");
        log_default(g_log, stderr);
        int err = 0;
        l = dlep_create(&err);
        ASSERT_NE(nullptr, l);
        EXPECT_EQ(0, err);
    }
    void TearDown() override { dlep_destroy(l, nullptr); }

    item* mk(int val, const char* name = "")
    {
        pool.push_back(std::make_unique<item>());
        item* it = pool.back().get();
        set_tag32(&it->tag, "itm");
        it->val = val;
        snprintf(it->name, sizeof(it->name), "%s", name);
        return it;
    }

    dlep_t l = nullptr;
    std::vector<std::unique_ptr<item>> pool;
};

TEST_F(DlepTest, AppendPutsTheNewestAtTheHead)
{
    EXPECT_EQ(0u, dlep_count(l));
    EXPECT_EQ(nullptr, dlep_head(l));
    EXPECT_EQ(nullptr, dlep_tail(l));
    item* a = mk(1);
    EXPECT_EQ(a, dlep_append(l, a));
    dlep_append(l, mk(2));
    dlep_append(l, mk(3));
    EXPECT_EQ((std::vector<int>{3, 2, 1}), values(l));
    EXPECT_EQ(a, dlep_tail(l));
}

TEST_F(DlepTest, SortedAddOrdersBothWays)
{
    for (int v : {3, 1, 2})
        dlep_sadd(l, mk(v), 1, cmp_val);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), values(l));
    EXPECT_EQ(0, dlep_sverify(l, 1, cmp_val));
    EXPECT_EQ(0, dlep_sverify(l, -1, cmp_val)) << "-1 checks like 1";
    EXPECT_EQ(-1, dlep_sverify(l, 0, cmp_val));

    dlep_t d = dlep_create(nullptr);
    ASSERT_NE(nullptr, d);
    for (int v : {5, 9, 1, 7, 3, 8})
        dlep_sadd(d, mk(v), 0, cmp_val);
    EXPECT_EQ((std::vector<int>{9, 8, 7, 5, 3, 1}), values(d));
    EXPECT_EQ(0, dlep_sverify(d, 0, cmp_val));
    EXPECT_EQ(-1, dlep_sverify(d, 1, cmp_val));
    dlep_destroy(d, nullptr);
}

TEST_F(DlepTest, NewElementStaysOnTheHeadSideOfItsEquals)
{
    dlep_sadd(l, mk(1, "a"), 1, cmp_val);
    dlep_sadd(l, mk(5, "b"), 1, cmp_val);
    dlep_sadd(l, mk(9, "c"), 1, cmp_val);
    dlep_sadd(l, mk(5, "d"), 1, cmp_val);
    dlep_sadd(l, mk(5, "e"), 1, cmp_val);
    EXPECT_EQ((std::vector<int>{1, 5, 5, 5, 9}), values(l));
    EXPECT_EQ("aedbc", names(l));

    // Descending: equals again keep the newcomer nearest the head.
    dlep_t d = dlep_create(nullptr);
    dlep_sadd(d, mk(2, "x"), 0, cmp_val);
    dlep_sadd(d, mk(2, "y"), 0, cmp_val);
    dlep_sadd(d, mk(3, "z"), 0, cmp_val);
    EXPECT_EQ("zyx", names(d));
    dlep_destroy(d, nullptr);
}

TEST_F(DlepTest, ReposMovesAChangedElementBothWays)
{
    std::vector<item*> it;
    for (int v : {10, 20, 30, 40, 50}) {
        it.push_back(mk(v));
        dlep_sadd(l, it.back(), 1, cmp_val);
    }
    it[0]->val = 45; // was at the head, belongs near the tail
    dlep_repos(l, it[0], 1, cmp_val);
    EXPECT_EQ((std::vector<int>{20, 30, 40, 45, 50}), values(l));
    it[4]->val = 5; // was at the tail, belongs at the head
    dlep_repos(l, it[4], 1, cmp_val);
    EXPECT_EQ((std::vector<int>{5, 20, 30, 40, 45}), values(l));
    EXPECT_EQ(it[4], dlep_head(l));
    EXPECT_EQ(it[0], dlep_tail(l));
    dlep_repos(l, it[2], 1, cmp_val);
    EXPECT_EQ((std::vector<int>{5, 20, 30, 40, 45}), values(l)) << "an element in place stays";
}

TEST_F(DlepTest, UnlinkingHeadTailAndMiddle)
{
    EXPECT_EQ(nullptr, dlep_rmhead(l));
    EXPECT_EQ(nullptr, dlep_rmtail(l));
    std::vector<item*> it;
    for (int v = 1; v <= 5; ++v) {
        it.push_back(mk(v));
        dlep_append(l, it.back());
    }
    // Head to tail: 5 4 3 2 1.
    item* m = static_cast<item*>(dlep_rm(l, it[2]));
    EXPECT_EQ(it[2], m);
    EXPECT_EQ(nullptr, m->prev);
    EXPECT_EQ(nullptr, m->next);
    EXPECT_EQ((std::vector<int>{5, 4, 2, 1}), values(l));

    item* h = static_cast<item*>(dlep_rmhead(l));
    EXPECT_EQ(5, h->val);
    EXPECT_EQ(nullptr, h->prev);
    EXPECT_EQ(nullptr, h->next);
    item* t = static_cast<item*>(dlep_rmtail(l));
    EXPECT_EQ(1, t->val);
    EXPECT_EQ(nullptr, t->next);
    EXPECT_EQ((std::vector<int>{4, 2}), values(l));

    dlep_rm(l, it[3]);
    EXPECT_EQ((std::vector<int>{2}), values(l));
    dlep_rm(l, it[1]);
    EXPECT_EQ(0u, dlep_count(l));
    EXPECT_EQ(nullptr, dlep_head(l));
    EXPECT_EQ(nullptr, dlep_tail(l));

    // A removed element can be linked again.
    dlep_append(l, it[2]);
    EXPECT_EQ((std::vector<int>{3}), values(l));
}

std::vector<int> g_freed;

TEST_F(DlepTest, PurgeVisitsTailToHeadAndMayFree)
{
    dlep_t d = dlep_create(nullptr);
    for (int v = 1; v <= 4; ++v) {
        auto* e = static_cast<item*>(calloc(1, sizeof(item)));
        e->val = v;
        dlep_append(d, e);
    }
    g_freed.clear();
    dlep_purge(d, [](void* e) {
        g_freed.push_back(static_cast<item*>(e)->val);
        free(e);
    });
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), g_freed);
    EXPECT_EQ(0u, dlep_count(d));
    EXPECT_EQ(nullptr, dlep_head(d));
    EXPECT_EQ(nullptr, dlep_tail(d));

    int sum = 0;
    for (int v : {7, 8})
        dlep_append(d, mk(v));
    dlep_purge1(d, [](void* e, void* aux) { *static_cast<int*>(aux) += static_cast<item*>(e)->val; },
                &sum);
    EXPECT_EQ(15, sum);
    EXPECT_EQ(0u, dlep_count(d));

    for (int v = 1; v <= 2; ++v) {
        auto* e = static_cast<item*>(calloc(1, sizeof(item)));
        dlep_append(d, e);
    }
    dlep_destroy(d, free); // the leak checker sees whether both elements went
}

TEST_F(DlepTest, VerifyFlagsDisorderAndAnswersShortListsWithAsc)
{
    for (int asc : {1, 0, -1})
        EXPECT_EQ(asc, dlep_sverify(l, asc, cmp_val)) << "empty list";
    dlep_append(l, mk(4));
    for (int asc : {1, 0, -1})
        EXPECT_EQ(asc, dlep_sverify(l, asc, cmp_val)) << "one element";

    for (int v : {6, 6, 2}) // head to tail: 2 6 6 4
        dlep_append(l, mk(v));
    EXPECT_EQ(-1, dlep_sverify(l, 1, cmp_val));
    EXPECT_EQ(-1, dlep_sverify(l, 0, cmp_val));
    dlep_rmtail(l); // 2 6 6: equal neighbours are in order both ways
    EXPECT_EQ(0, dlep_sverify(l, 1, cmp_val));
}

TEST_F(DlepTest, PrintWritesEveryElementHeadToTail)
{
    for (int v : {3, 1, 2})
        dlep_sadd(l, mk(v), 1, cmp_val);
    EXPECT_EQ("{1} {2} {3} \n", dump([&](FILE* f) { dlep_print(f, l, print_val); }));
    EXPECT_EQ("   \n", dump([&](FILE* f) { dlep_print(f, l, nullptr); }));

    dlep_t e = dlep_create(nullptr);
    EXPECT_EQ("\n", dump([&](FILE* f) { dlep_print(f, e, print_val); }));
    dlep_destroy(e, nullptr);
}

TEST_F(DlepTest, DebugPrintShowsLinks)
{
    item* a = mk(7);
    item* b = mk(8);
    dlep_append(l, a);
    dlep_append(l, b);
    char want[512];
    snprintf(want, sizeof(want),
             "dlep_list:%p count=2 head=%p tail=%p "
             "#1[%p]: {prev=%p next=%p data=8}; "
             "#2[%p]: {prev=%p next=%p data=7}; \n",
             static_cast<void*>(l), static_cast<void*>(b), static_cast<void*>(a),
             static_cast<void*>(b), static_cast<void*>(a), static_cast<void*>(nullptr),
             static_cast<void*>(a), static_cast<void*>(nullptr), static_cast<void*>(b));
    EXPECT_EQ(want, dump([&](FILE* f) { dlep_debug_print(f, l, print_val); }));

    snprintf(want, sizeof(want), "#1[%p]: {prev=%p next=%p ; ", static_cast<void*>(b),
             static_cast<void*>(a), static_cast<void*>(nullptr));
    const std::string plain = dump([&](FILE* f) { dlep_debug_print(f, l, nullptr); });
    EXPECT_NE(std::string::npos, plain.find(want)) << plain;
}

TEST_F(DlepTest, InconsistenciesAreFatal)
{
    dlep_append(l, mk(1));
    dlep_append(l, mk(2));
    l->count = 3;
    EXPECT_DEATH(dlep_print(stdout, l, print_val), "!p && \\(i == l->count\\)");
    EXPECT_DEATH(dlep_debug_print(stderr, l, print_val),
                 "dlep_debug_print: ERROR: p=.*, i=2, l->count=3");
    l->count = 2;

    item* stray = mk(5);
    EXPECT_DEATH(dlep_rm(l, stray), "ASSERT at:");
    EXPECT_DEATH(dlep_repos(l, dlep_head(l), 2, cmp_val), "asc == 0 \\|\\| asc == 1");
    EXPECT_DEATH(dlep_append(nullptr, stray), "ASSERT at:");

    // A comparison that contradicts itself would swap forever; the swap bound stops it.
    auto fickle = [](const void* a, const void*) {
        return static_cast<const dlep_elem*>(a)->prev ? 1 : -1;
    };
    EXPECT_DEATH(dlep_repos(l, dlep_tail(l), 1, fickle), "i <= l->count");
}

} // namespace
