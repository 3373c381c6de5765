// Tests of the time-out registry: lock counting per kind, the minimum as kinds come and go, its
// debug trail, and the assertions guarding misuse.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "tmout.h"

// One step sets ('s') or releases ('r') a kind; then the kind's value, its locks and the minimum.
struct Step {
    char op;
    int index;
    long val, value_after;
    size_t locks_after;
    long min_after;
};

TEST(Tmout, MinimumFollowsTheLockedKinds)
{
    const std::vector<std::vector<Step>> scenarios = {
        {{'s', 1, 5000, 5000, 1, 5000}, {'s', 1, 100, 5000, 2, 5000}, {'r', 1, 0, 5000, 1, 5000},
         {'r', 1, 0, 0, 0, -9999}, {'s', 1, 100, 100, 1, 100}},
        {{'s', 0, 3000, 3000, 1, 3000}, {'s', 1, 5000, 5000, 1, 3000}, {'s', 2, 90, 90, 1, 90},
         {'r', 2, 0, 0, 0, 3000}, {'s', 3, 9000, 9000, 1, 3000}, {'r', 3, 0, 0, 0, 3000},
         {'r', 0, 0, 0, 0, 5000}},
        // Zero means poll; a zero from another kind survives an unrelated release.
        {{'s', 3, 0, 0, 1, 0}, {'s', 4, 50, 50, 1, 0}, {'s', 5, 80, 80, 1, 0},
         {'r', 5, 0, 0, 0, 0}, {'r', 3, 0, 0, 0, 50}},
        // Equal values: the minimum stays while one of them is locked.
        {{'s', 4, 200, 200, 1, 200}, {'s', 7, 50, 50, 1, 50}, {'s', 9, 50, 50, 1, 50},
         {'r', 7, 0, 0, 0, 50}, {'r', 9, 0, 0, 0, 200}},
        {{'s', 31, 20, 20, 1, 20}, {'s', 30, MIN_TIMER_VAL, MIN_TIMER_VAL, 1, MIN_TIMER_VAL}},
    };
    for (size_t n = 0; n < scenarios.size(); ++n) {
        tmout_registry reg;
        reg_init_timeout(&reg);
        for (size_t i = 0; i < scenarios[n].size(); ++i) {
            const Step& s = scenarios[n][i];
            s.op == 's' ? reg_set_timeout(&reg, s.index, s.val) : reg_rm_timeout(&reg, s.index);
            SCOPED_TRACE("scenario " + std::to_string(n) + " step " + std::to_string(i));
            EXPECT_EQ(s.value_after, reg_get_timeout(&reg, s.index));
            EXPECT_EQ(s.locks_after, reg.rec[s.index].nlocks);
            EXPECT_EQ(s.min_after, reg_min_timeout(&reg));
        }
    }
}

TEST(Tmout, DebugTrailAndMisuse)
{
    tmout_registry reg;
    reg_init_timeout(&reg);
    EXPECT_DEATH(reg_set_timeout(&reg, 32, 10), "ASSERT");
    EXPECT_DEATH(reg_rm_timeout(&reg, 2), "ASSERT"); // no lock to release
    vsk_test::log_capture cap;
    reg_set_timeout(&reg, 1, 5000);
    reg_set_timeout(&reg, 2, 300);
    reg_rm_timeout(&reg, 2);
    EXPECT_EQ("(DBG)  reg_set_timeout: timeout[1] lk=1 val=5000, min_val=5000\n"
              "(DBG)  reg_set_timeout: timeout[2] lk=1 val=300, min_val=300\n"
              "(DBG)  reg_rm_timeout: picked rec[1] val=5000, lk=1\n"
              "(DBG)  reg_rm_timeout: removed timeout[2]: val=300, min_val=5000\n",
              cap.take());
}
