// Tests of the index-based containers: fixed storage and growth, slot allocation with its rules and
// result codes, the walkers' stopping rules, purging, mapped lists and embedded lists.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <sys/mman.h>
#include <vector>

#include "xvdat.h"

struct rec { int id; char name[12]; };

static std::vector<size_t> g_seen;
static xvlst g_walked;

static int note_index(void*, size_t i) { return g_seen.push_back(i), 0; }

// Answers the record's id when it equals *what, so a walk can be told where to stop.
static int id_is(void* data, size_t i, const void* what)
{
    g_seen.push_back(i);
    const int id = static_cast<rec*>(data)[i].id;
    return id == *static_cast<const int*>(what) ? id : 0;
}

TEST(Xvdat, BoundVectorIsFixedAndGrowableOneGrowsInGranules)
{
    alignas(rec) unsigned char buf[3 * sizeof(rec) + 5];
    xvec v{};
    ASSERT_EQ(0, xvec_bind(&v, buf, sizeof(buf), sizeof(rec)));
    for (ssize_t i = 0; i < 3; ++i)
        EXPECT_EQ(i, xvec_add(&v, sizeof(rec), 4));
    EXPECT_EQ(-1, xvec_add(&v, sizeof(rec), 4));
    EXPECT_EQ(ERR_XV_FIXED, xvec_reserve(&v, 4, sizeof(rec), 4));

    xvec g{};
    ASSERT_EQ(0, xvec_reserve(&g, 5, sizeof(rec), 4));
    for (int i = 0; i < 9; ++i)
        ASSERT_EQ(i, xv_push(&g, rec{i + 1, ""}, 4));
    EXPECT_EQ(12u, g.max_len);
    EXPECT_TRUE(xv_at<rec>(&g, 8)->id == 9 && xv_at<rec>(&g, 9)->id == 0) << "new ones zeroed";
    // A size that cannot be represented fails like a full heap, fatal when so asked.
    EXPECT_DEATH((xvdat_flags = XV_ABORT_ENOMEM,
                  (void)xvec_reserve(&g, SIZE_MAX / 4, sizeof(rec), 1)), "Aborting at:");
    xvec_reset(&g);
}

TEST(Xvdat, VectorFindStopsOnlyWithAPositionListFindAlwaysStops)
{
    xvec v{};
    xvlst l{};
    for (int id : {3, 8, 5, 8})
        ASSERT_TRUE(xv_push(&v, rec{id, ""}, 8) >= 0 && xv_push(&l, rec{id, ""}, 8) >= 0);
    const int eight = 8, five = 5, none = 7;
    size_t pos = 99;
    EXPECT_TRUE(xvec_find(&v, &eight, id_is, &pos) == 8 && pos == 1) << pos;
    // Without a position the vector walk goes to the end and answers the last value seen.
    g_seen.clear();
    EXPECT_EQ(0, xvec_find(&v, &five, id_is, nullptr)) << "a match followed by misses";
    EXPECT_EQ(4u, g_seen.size());

    ASSERT_EQ(0, xvlst_del(&l, 0, nullptr));
    g_seen.clear();
    EXPECT_EQ(8, xvlst_find(&l, &eight, id_is, nullptr));
    EXPECT_EQ((std::vector<size_t>{1}), g_seen) << "free slot 0 is skipped, the walk stops at 1";
    pos = 77;
    EXPECT_EQ(0, xvlst_find(&l, &none, id_is, &pos));
    EXPECT_EQ(77u, pos) << "a miss leaves pos alone";
    xvec_reset(&v);
    xvlst_reset(&l);
}

TEST(Xvdat, SlotsAreReusedLowestFirstAndDeletionCodes)
{
    xvlst l{};
    for (ssize_t i = 0; i < 6; ++i)
        ASSERT_EQ(i, xvlst_add(&l, sizeof(rec), 4));
    EXPECT_EQ(34, xvlst_del(&l, 6, nullptr)) << "beyond last";
    ASSERT_EQ(0, xvlst_del(&l, 3, nullptr));
    EXPECT_EQ(114, xvlst_del(&l, 3, nullptr)) << "already free";
    ASSERT_EQ(0, xvlst_del(&l, 5, nullptr));
    EXPECT_EQ(3, l.avail) << "a higher deletion keeps the lower avail";
    ASSERT_EQ(0, xvlst_del(&l, 1, nullptr));
    EXPECT_EQ(1, l.avail);
    EXPECT_EQ(5u, l.last) << "deletions never lower last";

    // Slot 2 is taken, so the next free one is found by scanning: 3, then 5.
    EXPECT_EQ(1, xvlst_add(&l, sizeof(rec), 4));
    EXPECT_EQ(3, xvlst_add(&l, sizeof(rec), 4));
    EXPECT_EQ(5, xvlst_add(&l, sizeof(rec), 4));
    EXPECT_EQ(6, xvlst_add(&l, sizeof(rec), 4)) << "slots above last come next";
    EXPECT_TRUE(xvlst_add(&l, sizeof(rec), 4) == 7 && l.avail == -1) << "full: no free slot";
    EXPECT_EQ(8, xvlst_add(&l, sizeof(rec), 4)) << "growth hands out the old capacity";
    xvlst_reset(&l);
}

TEST(Xvdat, BindLeavesRoomForTheTakenMap)
{
    alignas(8) unsigned char buf[100];
    buf[99] = 0x5A;
    xvlst l{};
    ASSERT_EQ(0, xvlst_bind(&l, buf, sizeof(buf), 10));
    EXPECT_EQ(9u, l.max_len);
    EXPECT_EQ(0x5A, buf[99]) << "bytes beyond the map are not the list's";
    for (ssize_t i = 0; i < 9; ++i)
        ASSERT_EQ(i, xvlst_add(&l, 10, 4));
    EXPECT_EQ(ERR_XV_FIXED, xvlst_add(&l, 10, 4));
    ASSERT_EQ(0, xvlst_del(&l, 4, nullptr));
    EXPECT_EQ(4, xvlst_add(&l, 10, 4));
    EXPECT_EQ(-1, xvlst_bind(&l, buf, 10, 10)) << "one record leaves no byte for its map";
}

TEST(Xvdat, WalkersSurviveCallbacksThatChangeTheList)
{
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(i, xvlst_add(&g_walked, sizeof(rec), 4));
    auto del_self = [](void*, size_t i) { return xvlst_del(&g_walked, i, nullptr); };
    EXPECT_TRUE(xvlst_each(&g_walked, del_self, nullptr) == 0 && g_walked.len == 0);
    // Resetting the list from the first callback ends the walk there.
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(i, xvlst_add(&g_walked, sizeof(rec), 4));
    auto reset_list = [](void* d, size_t i) { xvlst_reset(&g_walked); return note_index(d, i); };
    g_seen.clear();
    EXPECT_EQ(0, xvlst_each(&g_walked, reset_list, nullptr));
    EXPECT_EQ(1u, g_seen.size());
}

TEST(Xvdat, PurgeCleansTakenSlotsAndKeepsTheStorage)
{
    xvlst l{};
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(i, xv_push(&l, rec{100 + i, ""}, 8));
    ASSERT_EQ(0, xvlst_del(&l, 1, nullptr));
    g_seen.clear();
    xvlst_purge_all(&l, [](void* d, size_t i) { g_seen.push_back(static_cast<rec*>(d)[i].id); });
    EXPECT_EQ((std::vector<size_t>{100, 102, 103, 104}), g_seen);
    EXPECT_TRUE(l.len == 0 && l.last == 0 && l.avail == 0 && l.max_len == 8);
    EXPECT_EQ(std::vector<uint8_t>(8, 0), std::vector<uint8_t>(l.taken, l.taken + 8));
    xvlst_reset(&l);
}

TEST(Xvdat, MappedListIsFixedAndUnmappedByReset)
{
    xvlst l{};
    ASSERT_EQ(0, xvlst_mmap_fixed(&l, 2, sizeof(rec)));
    EXPECT_TRUE(xvlst_add(&l, sizeof(rec), 1) == 0 && xvlst_add(&l, sizeof(rec), 1) == 1);
    EXPECT_EQ(ERR_XV_FIXED, xvlst_add(&l, sizeof(rec), 1));
    void* const base = l.data;
    xvlst_reset(&l);
    EXPECT_EQ(-1, msync(base, 2 * sizeof(rec) + 2, MS_ASYNC)) << "the mapping is gone";
    EXPECT_EQ(12, xvlst_mmap_fixed(&l, SIZE_MAX / 2, 8));
}

TEST(Xvdat, EmbeddedListAndItsByteCopy)
{
    constexpr size_t hdr = offsetof(emblst, data);
    alignas(8) unsigned char a[hdr + 3 * sizeof(rec) + 3], b[sizeof(a)];
    emblst* el = emblst_create(a, sizeof(a), sizeof(rec));
    ASSERT_NE(nullptr, el);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(i, emblst_add(el));
        xv_at<rec>(el, static_cast<size_t>(i))->id = i + 1;
    }
    EXPECT_EQ(-1, emblst_add(el));
    ASSERT_EQ(0, emblst_del(el, 0, nullptr));

    errno = 0;
    EXPECT_EQ(nullptr, emblst_copy(el, b, emblst_size(el) - 1));
    EXPECT_EQ(EINVAL, errno);
    emblst* cp = emblst_copy(el, b, sizeof(b));
    ASSERT_EQ(static_cast<void*>(b), static_cast<void*>(cp));
    EXPECT_TRUE(emblst_add(cp) == 0 && el->avail == 0) << "the copy works on its own storage";
    EXPECT_EQ(2, xv_at<rec>(cp, 1)->id);
    g_seen.clear();
    EXPECT_EQ(0, emblst_each(cp, note_index, nullptr));
    EXPECT_EQ((std::vector<size_t>{0, 1, 2}), g_seen);
}
