// Tests of the intrusive doubly-linked list: sorted order with equals, unlinking, purging, checks.
#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "dlep.h"
#include "ztypes.h"

// A record as users declare it: their own tag type and typed links in the header layout.
struct item { n32_tag tag; item* prev; item* next; int val; char name; };
static_assert(offsetof(item, prev) == offsetof(dlep_hdr, prev) &&
              offsetof(item, next) == offsetof(dlep_hdr, next));

static int cmp_val(const void* a, const void* b)
{
    const int x = static_cast<const item*>(a)->val, y = static_cast<const item*>(b)->val;
    return (x > y) - (x < y);
}

static int fickle(const void* a, const void*) { return static_cast<const item*>(a)->prev ? 1 : -1; }

// Names (or values of unnamed items) from head to tail, checking every link and the count.
static std::string order(const dlep_list* l)
{
    std::string s;
    const item* seen = nullptr;
    size_t n = 0;
    for (auto* e = dlep_head_as<item>(l); e; seen = e, e = e->prev, ++n) {
        EXPECT_EQ(seen, e->next) << "broken next link at " << e->val;
        s += (n ? " " : "") + (e->name ? std::string(1, e->name) : std::to_string(e->val));
    }
    EXPECT_EQ(seen, dlep_tail_as<item>(l));
    EXPECT_EQ(n, dlep_count(l));
    return s;
}

class DlepTest : public ::testing::Test {
protected:
    void TearDown() override { dlep_destroy(l, nullptr); }
    item* mk(int v, char n = 0) { return &pool.emplace_back(item{{}, nullptr, nullptr, v, n}); }
    std::deque<item> pool; // keeps the addresses of earlier items
    dlep_t l = dlep_create(nullptr);
};

TEST_F(DlepTest, SortedAddAndReposBothWaysNewcomerOnTheHeadSideOfItsEquals)
{
    for (const auto& [v, n] : {std::pair{1, 'a'}, {5, 'b'}, {9, 'c'}, {5, 'd'}, {5, 'e'}})
        dlep_sadd(l, mk(v, n), 1, cmp_val);
    EXPECT_EQ("a e d b c", order(l));
    pool[0].val = 7; // from the head toward the tail
    dlep_repos(l, &pool[0], 1, cmp_val);
    pool[2].val = 0; // from the tail to the head
    dlep_repos(l, &pool[2], 1, cmp_val);
    EXPECT_EQ("c e d b a", order(l));

    dlep_purge(l, nullptr);
    for (const auto& [v, n] : {std::pair{2, 'x'}, {1, 'w'}, {2, 'y'}, {3, 'z'}})
        dlep_sadd(l, mk(v, n), 0, cmp_val);
    EXPECT_EQ("z y x w", order(l));
}

TEST_F(DlepTest, UnlinkingHeadTailAndMiddle)
{
    EXPECT_TRUE(dlep_rmhead(l) == nullptr && dlep_rmtail(l) == nullptr);
    item* it[5];
    for (int v = 1; v <= 5; ++v)
        dlep_append(l, it[v - 1] = mk(v)); // the newest at the head: 5 4 3 2 1
    for (void* e : {dlep_rm(l, it[2]), dlep_rmhead(l), dlep_rmtail(l)})
        EXPECT_TRUE(!static_cast<item*>(e)->prev && !static_cast<item*>(e)->next);
    EXPECT_EQ("4 2", order(l));
    EXPECT_TRUE(dlep_rm(l, it[3]) == it[3] && dlep_rm(l, it[1]) == it[1]);
    EXPECT_EQ("", order(l));
}

TEST_F(DlepTest, PurgeVisitsTailToHeadAndMayFree)
{
    for (int v = 1; v <= 4; ++v)
        dlep_append(l, new item{{}, nullptr, nullptr, v, 0});
    std::string freed;
    auto note_and_free = [](void* e, void* aux) {
        *static_cast<std::string*>(aux) += std::to_string(static_cast<item*>(e)->val);
        delete static_cast<item*>(e);
    };
    dlep_purge1(l, note_and_free, &freed);
    EXPECT_EQ("1234", freed);
    EXPECT_EQ("", order(l));
}

TEST_F(DlepTest, VerifyFlagsDisorderAndAnswersShortListsWithAsc)
{
    for (size_t size = 0; size < 2; ++size, dlep_append(l, mk(4)))
        for (int asc : {1, 0, -1})
            EXPECT_EQ(asc, dlep_sverify(l, asc, cmp_val)) << size << " element(s)";
    EXPECT_EQ(0, dlep_sverify(l, 0, cmp_val)); // equal neighbours are in order both ways
    dlep_append(l, mk(2)); // head to tail: 2 4 4
    EXPECT_EQ(0, dlep_sverify(l, -1, cmp_val));
    EXPECT_EQ(-1, dlep_sverify(l, 0, cmp_val));
    dlep_append(l, mk(6)); // 6 2 4 4
    EXPECT_EQ(-1, dlep_sverify(l, 1, cmp_val));
}

TEST_F(DlepTest, InconsistenciesAreFatal)
{
    dlep_append(l, mk(1));
    dlep_append(l, mk(2));
    l->count = 3;
    EXPECT_DEATH(dlep_print(stdout, l, nullptr), "!p && \\(i == l->count\\)");
    l->count = 2;
    EXPECT_DEATH(dlep_rm(l, mk(5)), "ASSERT at:");
    // A comparison that contradicts itself would swap forever; the swap bound stops it.
    EXPECT_DEATH(dlep_repos(l, dlep_tail(l), 1, fickle), "i <= l->count");
}
