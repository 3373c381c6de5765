// Tests of the index-based containers: growth granules and fixed storage, slot allocation with its
// lowest-free-slot rule, the walkers' stopping rules, purging, mapped lists and embedded lists.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <vector>

#include "log.h"
#include "xvdat.h"

namespace {

struct rec {
    int id;
    char name[12];
};

class XvdatTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        glog_init("vsk");
        log_default(g_log, stderr);
        xvdat_flags = 0;
    }
    void TearDown() override { xvdat_flags = 0; }
};

std::vector<size_t> g_seen;

int note_index(void*, size_t i)
{
    g_seen.push_back(i);
    return 0;
}

// Answers the record's id when it equals *what, so a walk can be told where to stop.
int id_is(void* data, size_t i, const void* what)
{
    g_seen.push_back(i);
    const int id = static_cast<rec*>(data)[i].id;
    return id == *static_cast<const int*>(what) ? id : 0;
}

std::vector<uint8_t> taken_map(const xvlst& l)
{
    return std::vector<uint8_t>(l.taken, l.taken + l.max_len);
}

// --- xvec ----------------------------------------------------------------------------------------

TEST_F(XvdatTest, BoundVectorTakesExactlyItsCapacity)
{
    alignas(rec) unsigned char buf[3 * sizeof(rec) + 5];
    std::memset(buf, 0xAB, sizeof(buf));
    xvec v{};
    ASSERT_EQ(0, xvec_bind(&v, buf, sizeof(buf), sizeof(rec)));
    EXPECT_EQ(3u, v.max_len);
    EXPECT_EQ(XV_FIXED_SIZE, v.flags);
    for (unsigned char c : buf)
        ASSERT_EQ(0, c) << "bind zero-fills the whole buffer";

    EXPECT_EQ(0, xvec_add(&v, sizeof(rec), 4));
    EXPECT_EQ(1, xvec_add(&v, sizeof(rec), 4));
    EXPECT_EQ(2, xvec_add(&v, sizeof(rec), 4));
    EXPECT_EQ(-1, xvec_add(&v, sizeof(rec), 4));
    EXPECT_EQ(3u, v.len);
    EXPECT_EQ(ERR_XV_FIXED, xvec_reserve(&v, 4, sizeof(rec), 4));
    EXPECT_EQ(ERR_XV_FIXED, xvec_expand(&v, 1, sizeof(rec), 4));

    // A bound vector keeps its memory across a reset.
    xvec_reset(&v);
    EXPECT_EQ(0u, v.len);
    EXPECT_EQ(3u, v.max_len);
    EXPECT_EQ(static_cast<void*>(buf), v.data);

    EXPECT_EQ(-1, xvec_bind(&v, buf, sizeof(rec) - 1, sizeof(rec)));
}

TEST_F(XvdatTest, VectorGrowsInWholeGranulesAndKeepsRecords)
{
    xvec v{};
    ASSERT_EQ(0, xvec_reserve(&v, 5, sizeof(rec), 4));
    EXPECT_EQ(8u, v.max_len);
    EXPECT_EQ(0u, v.len);
    for (int i = 0; i < 8; ++i) {
        const ssize_t k = xv_push(&v, rec{i * 10, "r"}, 4);
        ASSERT_EQ(i, k);
    }
    EXPECT_EQ(8u, v.max_len);
    // The ninth record needs one more granule.
    ASSERT_EQ(8, xvec_add(&v, sizeof(rec), 4));
    EXPECT_EQ(12u, v.max_len);
    EXPECT_EQ(0, xv_at<rec>(&v, 8)->id) << "records gained by growth are zeroed";
    for (size_t i = 9; i < 12; ++i)
        EXPECT_EQ(0, xv_at<rec>(&v, i)->id);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(i * 10, xv_at<rec>(&v, static_cast<size_t>(i))->id);

    ASSERT_EQ(0, xvec_expand(&v, 10, sizeof(rec), 4)); // len 9 + 10 = 19 -> 20
    EXPECT_EQ(20u, v.max_len);
    ASSERT_EQ(0, xvec_reserve(&v, 3, sizeof(rec), 4));
    EXPECT_EQ(20u, v.max_len) << "reserve never shrinks";

    xvec_reset(&v);
    EXPECT_EQ(nullptr, v.data);
    EXPECT_EQ(0u, v.max_len);
    EXPECT_EQ(0u, v.len);
    xvec_reset(nullptr);
}

TEST_F(XvdatTest, FailedGrowthLeavesTheVectorIntact)
{
    xvec v{};
    ASSERT_EQ(0, xv_push(&v, rec{7, "keep"}, 2));
    void* const before = v.data;
    // A size that cannot be represented fails like an exhausted heap.
    EXPECT_EQ(-1, xvec_reserve(&v, SIZE_MAX / 4, sizeof(rec), 1));
    EXPECT_EQ(before, v.data);
    EXPECT_EQ(2u, v.max_len);
    EXPECT_EQ(7, xv_at<rec>(&v, 0)->id);

    xvlst l{};
    ASSERT_EQ(0, xvlst_add(&l, sizeof(rec), 2));
    EXPECT_EQ(-1, xvlst_reserve(&l, SIZE_MAX / 4, sizeof(rec), 1));
    EXPECT_EQ(2u, l.max_len);
    EXPECT_EQ(1, xvlst_add(&l, sizeof(rec), 2));

    xvec_reset(&v);
    xvlst_reset(&l);
}

TEST_F(XvdatTest, FailedGrowthAbortsWhenAskedTo)
{
    xvec v{};
    xvdat_flags = XV_ABORT_ENOMEM;
    EXPECT_DEATH((void)xvec_reserve(&v, SIZE_MAX / 4, sizeof(rec), 1), "Aborting at:");
}

TEST_F(XvdatTest, VectorWalkersStopOnlyWhenGivenAPosition)
{
    xvec v{};
    for (int id : {3, 8, 5, 8})
        ASSERT_GE(xv_push(&v, rec{id, ""}, 8), 0);
    const int want = 8;
    size_t pos = 99;

    g_seen.clear();
    EXPECT_EQ(8, xvec_find(&v, &want, id_is, &pos));
    EXPECT_EQ(1u, pos);
    EXPECT_EQ((std::vector<size_t>{0, 1}), g_seen);

    // Without a position the walk goes to the end and answers the last value seen.
    g_seen.clear();
    EXPECT_EQ(8, xvec_find(&v, &want, id_is, nullptr));
    EXPECT_EQ((std::vector<size_t>{0, 1, 2, 3}), g_seen);
    const int five = 5;
    g_seen.clear();
    EXPECT_EQ(0, xvec_find(&v, &five, id_is, nullptr)) << "a match followed by misses";
    EXPECT_EQ(4u, g_seen.size());

    g_seen.clear();
    EXPECT_EQ(0, xvec_each(&v, note_index, &pos));
    EXPECT_EQ((std::vector<size_t>{0, 1, 2, 3}), g_seen);

    int sum = 0;
    auto add_id = [](void* data, size_t i, void* aux) {
        *static_cast<int*>(aux) += static_cast<rec*>(data)[i].id;
        return 0;
    };
    EXPECT_EQ(0, xvec_each_aux(&v, add_id, &sum, nullptr));
    EXPECT_EQ(24, sum);

    xvec empty{};
    EXPECT_EQ(0, xvec_each(&empty, note_index, &pos));
    xvec_reset(&v);
}

// --- xvlst ---------------------------------------------------------------------------------------

TEST_F(XvdatTest, DeletedSlotIsReusedBeforeNewOnes)
{
    xvlst l{};
    for (ssize_t i = 0; i < 3; ++i)
        ASSERT_EQ(i, xvlst_add(&l, sizeof(rec), 4));
    ASSERT_EQ(0, xvlst_del(&l, 1, nullptr));
    EXPECT_EQ(1, l.avail);
    EXPECT_EQ(2u, l.len);
    EXPECT_EQ(1, xvlst_add(&l, sizeof(rec), 4));
    EXPECT_EQ(3, xvlst_add(&l, sizeof(rec), 4));
    EXPECT_EQ(3u, l.last);
    EXPECT_EQ(-1, l.avail) << "a full list knows no free slot";
    EXPECT_EQ(4, xvlst_add(&l, sizeof(rec), 4)) << "growth hands out the old capacity";
    EXPECT_EQ(8u, l.max_len);
    EXPECT_EQ(5, l.avail);
    xvlst_reset(&l);
}

TEST_F(XvdatTest, DeletionCodesAndTheHighWaterMark)
{
    xvlst l{};
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(i, xvlst_add(&l, sizeof(rec), 8));
    EXPECT_EQ(34, xvlst_del(&l, 5, nullptr)) << "beyond last";
    EXPECT_EQ(0, xvlst_del(&l, 4, nullptr));
    EXPECT_EQ(114, xvlst_del(&l, 4, nullptr)) << "already free";
    EXPECT_EQ(4u, l.last) << "deletions never lower last";
    EXPECT_EQ(0, xvlst_del(&l, 2, nullptr));
    EXPECT_EQ(2, l.avail) << "avail drops to the lowest freed slot";
    EXPECT_EQ(0, xvlst_del(&l, 3, nullptr));
    EXPECT_EQ(2, l.avail) << "a higher deletion keeps the lower avail";
    EXPECT_EQ(4u, l.last);
    EXPECT_EQ(2u, l.len);

    xvlst_purge_all(&l, nullptr);
    EXPECT_EQ(0u, l.last);
    EXPECT_EQ(0, l.avail);
    EXPECT_EQ(34, xvlst_del(&l, 1, nullptr));
    EXPECT_EQ(114, xvlst_del(&l, 0, nullptr));

    xvlst empty{};
    EXPECT_EQ(114, xvlst_del(&empty, 0, nullptr)) << "a list without storage has no taken slot";
    xvlst_reset(&l);
}

TEST_F(XvdatTest, AllocationSearchesTheMapPastTakenNeighbours)
{
    xvlst l{};
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(i, xvlst_add(&l, sizeof(rec), 8));
    ASSERT_EQ(0, xvlst_del(&l, 0, nullptr));
    ASSERT_EQ(0, xvlst_del(&l, 3, nullptr));
    EXPECT_EQ(0, l.avail);
    // Slot 1 is taken, so the next free one is found by scanning: 3.
    EXPECT_EQ(0, xvlst_add(&l, sizeof(rec), 8));
    EXPECT_EQ(3, l.avail);
    // After 3 comes 4, 5 (taken); the scan reaches the never-used slots above last.
    EXPECT_EQ(3, xvlst_add(&l, sizeof(rec), 8));
    EXPECT_EQ(6, l.avail);
    EXPECT_EQ(5u, l.last);
    EXPECT_EQ(6, xvlst_add(&l, sizeof(rec), 8));
    EXPECT_EQ((std::vector<uint8_t>{1, 1, 1, 1, 1, 1, 1, 0}), taken_map(l));
    xvlst_reset(&l);
}

TEST_F(XvdatTest, BindLeavesRoomForTheTakenMap)
{
    alignas(8) unsigned char buf[100];
    std::memset(buf, 0x5A, sizeof(buf));
    xvlst l{};
    ASSERT_EQ(0, xvlst_bind(&l, buf, sizeof(buf), 10));
    EXPECT_EQ(9u, l.max_len);
    EXPECT_EQ(buf + 90, l.taken);
    EXPECT_EQ(XV_FIXED_SIZE, l.flags);
    for (size_t i = 0; i < 99; ++i)
        ASSERT_EQ(0, buf[i]) << "records and map are zeroed, i=" << i;
    EXPECT_EQ(0x5A, buf[99]) << "bytes beyond the map are not the list's";

    for (ssize_t i = 0; i < 9; ++i)
        ASSERT_EQ(i, xvlst_add(&l, 10, 4));
    EXPECT_EQ(ERR_XV_FIXED, xvlst_add(&l, 10, 4));
    EXPECT_EQ(ERR_XV_FIXED, xvlst_reserve(&l, 10, 10, 4));
    EXPECT_EQ(0, xvlst_reserve(&l, 9, 10, 4));
    ASSERT_EQ(0, xvlst_del(&l, 4, nullptr));
    EXPECT_EQ(4, xvlst_add(&l, 10, 4));

    xvlst_reset(&l);
    EXPECT_EQ(nullptr, l.data);
    EXPECT_EQ(0u, l.max_len);

    xvlst tiny{};
    EXPECT_EQ(-1, xvlst_bind(&tiny, buf, 10, 10)) << "one record leaves no byte for its map";
    EXPECT_EQ(0, xvlst_bind(&tiny, buf, 11, 10));
    EXPECT_EQ(1u, tiny.max_len);
}

TEST_F(XvdatTest, FindStopsAtTheFirstMatchEachDoesNot)
{
    xvlst l{};
    for (int id : {4, 9, 9, 2}) {
        const ssize_t i = xv_push(&l, rec{id, ""}, 4);
        ASSERT_GE(i, 0);
    }
    ASSERT_EQ(0, xvlst_del(&l, 0, nullptr));
    const int nine = 9;

    g_seen.clear();
    EXPECT_EQ(9, xvlst_find(&l, &nine, id_is, nullptr));
    EXPECT_EQ((std::vector<size_t>{1}), g_seen) << "free slot 0 is skipped, the walk stops at 1";

    size_t pos = 77;
    const int none = 5;
    EXPECT_EQ(0, xvlst_find(&l, &none, id_is, &pos));
    EXPECT_EQ(77u, pos) << "a miss leaves pos alone";
    EXPECT_EQ(9, xvlst_find(&l, &nine, id_is, &pos));
    EXPECT_EQ(1u, pos);

    auto is_nine = [](void* data, size_t i) { return static_cast<rec*>(data)[i].id == 9 ? 9 : 0; };
    g_seen.clear();
    EXPECT_EQ(0, xvlst_each(&l, is_nine, nullptr)) << "last value is slot 3's";
    EXPECT_EQ(9, xvlst_each(&l, is_nine, &pos));
    EXPECT_EQ(1u, pos);

    g_seen.clear();
    EXPECT_EQ(0, xvlst_each(&l, note_index, nullptr));
    EXPECT_EQ((std::vector<size_t>{1, 2, 3}), g_seen);

    size_t count = 0;
    auto counter = [](void*, size_t, void* aux) {
        ++*static_cast<size_t*>(aux);
        return 0;
    };
    EXPECT_EQ(0, xvlst_each_aux(&l, &count, counter, nullptr));
    EXPECT_EQ(3u, count);
    xvlst_reset(&l);
}

xvlst g_walked;

TEST_F(XvdatTest, WalkersSurviveCallbacksThatChangeTheList)
{
    // Deleting the visited slot from inside the walk is allowed.
    g_walked = xvlst{};
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(i, xvlst_add(&g_walked, sizeof(rec), 4));
    auto del_self = [](void*, size_t i) { return xvlst_del(&g_walked, i, nullptr); };
    EXPECT_EQ(0, xvlst_each(&g_walked, del_self, nullptr));
    EXPECT_EQ(0u, g_walked.len);

    // Resetting the list from the first callback ends the walk there.
    for (int i = 0; i < 4; ++i)
        ASSERT_GE(xvlst_add(&g_walked, sizeof(rec), 4), 0);
    g_seen.clear();
    auto reset_list = [](void*, size_t i) {
        g_seen.push_back(i);
        xvlst_reset(&g_walked);
        return 0;
    };
    EXPECT_EQ(0, xvlst_each(&g_walked, reset_list, nullptr));
    EXPECT_EQ(1u, g_seen.size());
    EXPECT_EQ(nullptr, g_walked.data);
}

TEST_F(XvdatTest, RemoveIfDeletesEveryMatchWithoutCleanup)
{
    xvlst l{};
    EXPECT_EQ(0, xvlst_rmif(&l, nullptr, [](void*, size_t, void*) { return 1; }, nullptr));
    for (int id = 0; id < 7; ++id)
        ASSERT_GE(xv_push(&l, rec{id, ""}, 8), 0);
    int parity = 0;
    auto same_parity = [](void* data, size_t i, void* aux) {
        return static_cast<int>(static_cast<rec*>(data)[i].id % 2 == *static_cast<int*>(aux));
    };
    EXPECT_EQ(4, xvlst_rmif(&l, &parity, same_parity, nullptr));
    EXPECT_EQ(3u, l.len);
    EXPECT_EQ(0, l.avail);
    EXPECT_EQ(6u, l.last);
    EXPECT_EQ((std::vector<uint8_t>{0, 1, 0, 1, 0, 1, 0, 0}), taken_map(l));
    EXPECT_EQ(0, xvlst_rmif(&l, &parity, same_parity, nullptr));
    xvlst_reset(&l);
}

TEST_F(XvdatTest, PurgeCleansTakenSlotsAndRestartsNumbering)
{
    xvlst l{};
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(i, xv_push(&l, rec{100 + i, ""}, 4));
    ASSERT_EQ(0, xvlst_del(&l, 1, nullptr));
    ASSERT_EQ(0, xvlst_del(&l, 3, nullptr));
    const size_t cap = l.max_len;

    g_seen.clear();
    xvlst_purge_all(&l, [](void* data, size_t i) {
        g_seen.push_back(static_cast<size_t>(static_cast<rec*>(data)[i].id));
    });
    EXPECT_EQ((std::vector<size_t>{100, 102, 104}), g_seen);
    EXPECT_EQ(0u, l.len);
    EXPECT_EQ(0u, l.last);
    EXPECT_EQ(0, l.avail);
    EXPECT_EQ(cap, l.max_len) << "purge keeps the storage";
    EXPECT_EQ(std::vector<uint8_t>(cap, 0), taken_map(l));
    EXPECT_EQ(0, xvlst_add(&l, sizeof(rec), 4));

    // An empty list is not touched: no cleanup calls, its fields stay.
    ASSERT_EQ(0, xvlst_del(&l, 0, nullptr));
    l.last = 3;
    g_seen.clear();
    xvlst_purge_all(&l, [](void*, size_t i) { g_seen.push_back(i); });
    EXPECT_TRUE(g_seen.empty());
    EXPECT_EQ(3u, l.last);
    xvlst_reset(&l);
}

TEST_F(XvdatTest, CleanupRunsAfterTheSlotIsFreed)
{
    g_walked = xvlst{};
    ASSERT_EQ(0, xvlst_add(&g_walked, sizeof(rec), 4));
    static int seen_taken = -1;
    ASSERT_EQ(0, xvlst_del(&g_walked, 0, [](void*, size_t i) { seen_taken = g_walked.taken[i]; }));
    EXPECT_EQ(0, seen_taken);
    xvlst_reset(&g_walked);
}

TEST_F(XvdatTest, MappedListIsFixedAndUnmappedByReset)
{
    constexpr size_t count = 100000;
    xvlst l{};
    ASSERT_EQ(0, xvlst_mmap_fixed(&l, count, sizeof(rec)));
    EXPECT_EQ(XV_FIXED_SIZE | XV_MMAP, l.flags);
    EXPECT_EQ(sizeof(rec), l.meta.unum);
    EXPECT_EQ(count, l.max_len);
    EXPECT_EQ(static_cast<uint8_t*>(l.data) + count * sizeof(rec), l.taken);

    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(i, xv_push(&l, rec{i, ""}, 16));
    ASSERT_EQ(0, xvlst_del(&l, 1, nullptr));
    EXPECT_EQ(1, xvlst_add(&l, sizeof(rec), 16));
    EXPECT_EQ(ERR_XV_FIXED, xvlst_reserve(&l, count + 1, sizeof(rec), 16));

    void* const base = l.data;
    const size_t bytes = (sizeof(rec) + 1) * count;
    ASSERT_EQ(0, msync(base, bytes, MS_ASYNC));
    xvlst_reset(&l);
    EXPECT_EQ(nullptr, l.data);
    EXPECT_EQ(0u, l.flags);
    errno = 0;
    EXPECT_EQ(-1, msync(base, bytes, MS_ASYNC)) << "the mapping is gone";
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(XvdatTest, FullMappedListRefusesToGrow)
{
    xvlst l{};
    ASSERT_EQ(0, xvlst_mmap_fixed(&l, 2, 8));
    EXPECT_EQ(0, xvlst_add(&l, 8, 1));
    EXPECT_EQ(1, xvlst_add(&l, 8, 1));
    EXPECT_EQ(ERR_XV_FIXED, xvlst_add(&l, 8, 1));
    xvlst_reset(&l);
    EXPECT_EQ(12, xvlst_mmap_fixed(&l, SIZE_MAX / 2, 8));
}

// --- emblst --------------------------------------------------------------------------------------

TEST_F(XvdatTest, EmbeddedListFitsHeaderRecordsAndMap)
{
    constexpr size_t hdr = offsetof(emblst, data);
    alignas(8) unsigned char buf[hdr + 5 * sizeof(rec) + 5 + 3];
    emblst* el = emblst_create(buf, sizeof(buf), sizeof(rec));
    ASSERT_NE(nullptr, el);
    EXPECT_EQ(static_cast<void*>(buf), static_cast<void*>(el));
    EXPECT_EQ(5u, el->max_count);
    EXPECT_EQ(static_cast<off_t>(hdr + 5 * sizeof(rec)), el->taken_offt);
    EXPECT_EQ(XV_FIXED_SIZE, el->flags);

    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(i, emblst_add(el));
        xv_at<rec>(el, static_cast<size_t>(i))->id = 10 * i;
    }
    EXPECT_EQ(-1, emblst_add(el));
    EXPECT_EQ(0, emblst_del(el, 2, nullptr));
    EXPECT_EQ(114, emblst_del(el, 2, nullptr));
    EXPECT_EQ(34, emblst_del(el, 5, nullptr));
    EXPECT_EQ(2, emblst_add(el));
    ASSERT_EQ(0, emblst_del(el, 3, nullptr));

    int sum = 0;
    auto add_id = [](void* data, size_t i, void* aux) {
        *static_cast<int*>(aux) += static_cast<rec*>(data)[i].id;
        return 0;
    };
    EXPECT_EQ(0, emblst_each_aux(el, &sum, add_id, nullptr));
    EXPECT_EQ(0 + 10 + 20 + 40, sum);
    g_seen.clear();
    EXPECT_EQ(0, emblst_each(el, note_index, nullptr));
    EXPECT_EQ((std::vector<size_t>{0, 1, 2, 4}), g_seen);

    // Too small for one record and its map byte.
    alignas(8) unsigned char small[hdr + sizeof(rec)];
    EXPECT_EQ(nullptr, emblst_create(small, sizeof(small), sizeof(rec)));
    EXPECT_EQ(nullptr, emblst_create(small, hdr, 1));
    EXPECT_NE(nullptr, emblst_create(small, hdr + 2, 1));
}

TEST_F(XvdatTest, ByteCopyOfAnEmbeddedListIsAList)
{
    alignas(8) unsigned char a[256];
    alignas(8) unsigned char b[256];
    emblst* el = emblst_create(a, sizeof(a), sizeof(rec));
    ASSERT_NE(nullptr, el);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(i, emblst_add(el));
        xv_at<rec>(el, static_cast<size_t>(i))->id = i + 1;
    }
    ASSERT_EQ(0, emblst_del(el, 0, nullptr));

    const size_t need = emblst_size(el);
    errno = 0;
    EXPECT_EQ(nullptr, emblst_copy(el, b, need - 1));
    EXPECT_EQ(EINVAL, errno);

    emblst* cp = emblst_copy(el, b, sizeof(b));
    ASSERT_EQ(static_cast<void*>(b), static_cast<void*>(cp));
    EXPECT_EQ(0, std::memcmp(a, b, need));
    EXPECT_EQ(2u, cp->count);
    // The copy works on its own storage.
    EXPECT_EQ(0, emblst_add(cp));
    EXPECT_EQ(3, emblst_add(cp));
    EXPECT_EQ(2u, el->count);
    EXPECT_EQ(0, el->avail);
    EXPECT_EQ(2, xv_at<rec>(cp, 1)->id);
    g_seen.clear();
    EXPECT_EQ(0, emblst_each(cp, note_index, nullptr));
    EXPECT_EQ((std::vector<size_t>{0, 1, 2, 3}), g_seen);
}

TEST_F(XvdatTest, MisuseIsFatal)
{
    alignas(8) unsigned char buf[128];
    EXPECT_DEATH((void)emblst_create(buf + 1, 100, 4), "ASSERT at:");
    EXPECT_DEATH((void)xvec_reserve(nullptr, 1, 1, 1), "ASSERT at:");
    xvec v{};
    EXPECT_DEATH((void)xvec_reserve(&v, 1, 1, 0), "growblk");
    EXPECT_DEATH((void)xvec_expand(&v, 0, 1, 1), "ASSERT at:");
}

} // namespace
