// Tests of the time-out registry: lock counting per kind, the minimum as kinds come and go, the
// process-wide registry, and the assertions guarding misuse.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "log.h"
#include "timeop.h"
#include "tmout.h"

namespace {

class TmoutTest : public ::testing::Test {
protected:
    void SetUp() override { reg_init_timeout(&reg); }
    tmout_registry reg;
};

// Each step sets or releases a kind and states the kind's value, its locks and the minimum after.
struct Step {
    char op; // 's' set, 'r' release
    int index;
    long val;
    long value_after;
    size_t locks_after;
    long min_after;
};

void run_steps(tmout_registry* reg, const std::vector<Step>& steps)
{
    int n = 0;
    for (const Step& s : steps) {
        if (s.op == 's')
            reg_set_timeout(reg, s.index, s.val);
        else
            reg_rm_timeout(reg, s.index);
        const std::string where = "step " + std::to_string(n++) + ": " + s.op + "(" +
                                  std::to_string(s.index) + ", " + std::to_string(s.val) + ")";
        ASSERT_EQ(s.value_after, reg_get_timeout(reg, s.index)) << where;
        ASSERT_EQ(s.locks_after, reg->rec[s.index].nlocks) << where;
        ASSERT_EQ(s.min_after, reg_min_timeout(reg)) << where;
    }
}

TEST_F(TmoutTest, MinimumFollowsTheLockedKinds)
{
    struct Scenario {
        const char* name;
        std::vector<Step> steps;
    };
    const Scenario scenarios[] = {
        {"later locks keep the first value",
         {{'s', 1, 5000, 5000, 1, 5000},
          {'s', 1, 100, 5000, 2, 5000},
          {'r', 1, 0, 5000, 1, 5000},
          {'r', 1, 0, 0, 0, -9999},
          {'s', 1, 100, 100, 1, 100}}},
        {"releasing the smallest recomputes",
         {{'s', 0, 3000, 3000, 1, 3000},
          {'s', 1, 5000, 5000, 1, 3000},
          {'r', 0, 0, 0, 0, 5000},
          {'r', 1, 0, 0, 0, -9999}}},
        {"a smaller later kind lowers the minimum",
         {{'s', 2, 900, 900, 1, 900}, {'s', 6, 100, 100, 1, 100}, {'r', 6, 0, 0, 0, 900}}},
        {"releasing a larger kind keeps the minimum",
         {{'s', 0, 100, 100, 1, 100}, {'s', 1, 500, 500, 1, 100}, {'r', 1, 0, 0, 0, 100}}},
        {"zero means poll; its release recomputes",
         {{'s', 1, 0, 0, 1, 0}, {'s', 2, 700, 700, 1, 0}, {'r', 1, 0, 0, 0, 700}}},
        {"a zero from another kind survives an unrelated release",
         {{'s', 3, 0, 0, 1, 0},
          {'s', 4, 50, 50, 1, 0},
          {'s', 5, 80, 80, 1, 0},
          {'r', 5, 0, 0, 0, 0},
          {'r', 3, 0, 0, 0, 50}}},
        {"equal values: the minimum stays while one is locked",
         {{'s', 4, 200, 200, 1, 200},
          {'s', 7, 50, 50, 1, 50},
          {'s', 9, 50, 50, 1, 50},
          {'r', 7, 0, 0, 0, 50},
          {'r', 9, 0, 0, 0, 200},
          {'r', 4, 0, 0, 0, -9999}}},
        {"the highest kind and the lowest value",
         {{'s', 31, 20, 20, 1, 20}, {'s', 30, MIN_TIMER_VAL, MIN_TIMER_VAL, 1, MIN_TIMER_VAL}}},
    };
    for (const Scenario& sc : scenarios) {
        SCOPED_TRACE(sc.name);
        reg_init_timeout(&reg);
        run_steps(&reg, sc.steps);
    }
}

TEST_F(TmoutTest, ProcessWideRegistry)
{
    // Before init (static state) the registry already reads as empty.
    EXPECT_EQ(-9999, get_min_timeout());
    init_timeout_registry();
    EXPECT_EQ(MIN_TIMER_VAL, get_min_timeout());
    set_timeout(1, 5000);
    set_timeout(1, 5000);
    set_timeout(0, 250);
    EXPECT_EQ(250, get_min_timeout());
    EXPECT_EQ(5000, get_timeout(1));
    rm_timeout(0);
    EXPECT_EQ(5000, get_min_timeout());
    EXPECT_EQ(0, get_timeout(0));
    rm_timeout(1);
    rm_timeout(1);
    EXPECT_EQ(MIN_TIMER_VAL, get_min_timeout());
    // The twins do not touch the process-wide registry.
    reg_set_timeout(&reg, 2, 10);
    EXPECT_EQ(MIN_TIMER_VAL, get_min_timeout());
}

TEST_F(TmoutTest, DebugLogShowsEachChange)
{
    FILE* out = tmpfile();
    ASSERT_NE(nullptr, out);
    log_default(g_log, out);
    log_timefmt(g_log, f_NO_TIME);
    const int saved_level = g_mod_ll[0];
    log_set_module_level(0, L_DEBUG);

    reg_set_timeout(&reg, 1, 5000);
    reg_set_timeout(&reg, 2, 300);
    reg_set_timeout(&reg, 1, 7);
    reg_rm_timeout(&reg, 1);
    reg_rm_timeout(&reg, 2);
    reg_rm_timeout(&reg, 1);

    log_set_module_level(0, saved_level);
    log_default(g_log, stderr);
    std::string text;
    rewind(out);
    char line[256];
    while (fgets(line, sizeof(line), out) != nullptr)
        text += line;
    fclose(out);
    EXPECT_EQ("(DBG)  reg_set_timeout: timeout[1] lk=1 val=5000, min_val=5000\n"
              "(DBG)  reg_set_timeout: timeout[2] lk=1 val=300, min_val=300\n"
              "(DBG)  reg_set_timeout: timeout[1] lk=2 val=5000, min_val=300\n"
              "(DBG)  reg_rm_timeout: timeout[1] lk=1\n"
              "(DBG)  reg_rm_timeout: picked rec[1] val=5000, lk=1\n"
              "(DBG)  reg_rm_timeout: removed timeout[2]: val=300, min_val=5000\n"
              "(DBG)  reg_rm_timeout: removed timeout[1]: val=5000, min_val=-9999\n",
              text);
}

TEST_F(TmoutTest, MisuseFailsAnAssertion)
{
    EXPECT_DEATH(reg_set_timeout(&reg, -1, 10), "ASSERT");
    EXPECT_DEATH(reg_set_timeout(&reg, 32, 10), "ASSERT");
    EXPECT_DEATH(reg_set_timeout(&reg, 0, -10000), "ASSERT");
    EXPECT_DEATH(reg_rm_timeout(&reg, 5), "ASSERT");
    EXPECT_DEATH(reg_rm_timeout(&reg, 32), "ASSERT");
    EXPECT_DEATH(reg_get_timeout(&reg, 32), "ASSERT");
}

} // namespace
