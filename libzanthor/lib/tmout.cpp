// The time-out registry: counts live activities per kind and keeps the smallest time-out among the
// kinds in use, so that the event loop sleeps no longer than the most impatient of them allows.
#include "tmout.h"

#include "log.h"

LOG_MODULE(0, -1);

// Starts out empty even before init_timeout_registry, so an early reader sees "no time-out".
static tmout_registry g_tmo_reg = {{}, MIN_TIMER_VAL};

static void check_index(int index)
{
    ZASSERT(index >= 0 && index < TMO_MAX_KINDS);
}

void reg_init_timeout(tmout_registry* reg)
{
    ZASSERT(reg != nullptr);
    *reg = tmout_registry{};
    reg->min = MIN_TIMER_VAL;
}

void reg_set_timeout(tmout_registry* reg, int index, long val)
{
    check_index(index);
    ZASSERT(val >= MIN_TIMER_VAL);
    tmo_rec* r = &reg->rec[index];
    r->nlocks += 1;
    // Later locks of a kind only count: the kind's time-out is the one its first holder gave.
    if (r->nlocks == 1) {
        r->value = val;
        if (reg->min < 0 || val < reg->min)
            reg->min = val;
    }
    zlogf(L_DEBUG, "%s: timeout[%d] lk=%lu val=%ld, min_val=%ld\n", index, r->nlocks, r->value,
          reg->min);
}

void reg_rm_timeout(tmout_registry* reg, int index)
{
    check_index(index);
    tmo_rec* r = &reg->rec[index];
    ZASSERT(r->nlocks > 0);
    r->nlocks -= 1;
    if (r->nlocks > 0) {
        zlogf(L_DEBUG, "%s: timeout[%d] lk=%lu\n", index, r->nlocks);
        return;
    }

    long released = r->value;
    r->value = 0;
    // A zero minimum is always recomputed, whichever kind it came from; the scan is 32 records.
    // Equal values keep the lowest index.
    if (reg->min == 0 || released <= reg->min) {
        long pick = -1;
        for (int i = 0; i < TMO_MAX_KINDS; ++i) {
            if (reg->rec[i].nlocks > 0 && (pick < 0 || reg->rec[i].value < reg->rec[pick].value))
                pick = i;
        }
        if (pick >= 0) {
            reg->min = reg->rec[pick].value;
            zlogf(L_DEBUG, "%s: picked rec[%ld] val=%ld, lk=%lu\n", pick, reg->rec[pick].value,
                  reg->rec[pick].nlocks);
        } else {
            reg->min = MIN_TIMER_VAL;
        }
    }
    zlogf(L_DEBUG, "%s: removed timeout[%d]: val=%ld, min_val=%ld\n", index, released, reg->min);
}

long reg_get_timeout(const tmout_registry* reg, int index)
{
    check_index(index);
    return reg->rec[index].value;
}

long reg_min_timeout(const tmout_registry* reg)
{
    return reg->min;
}

void init_timeout_registry(void)
{
    reg_init_timeout(&g_tmo_reg);
}

void set_timeout(int index, long val)
{
    reg_set_timeout(&g_tmo_reg, index, val);
}

void rm_timeout(int index)
{
    reg_rm_timeout(&g_tmo_reg, index);
}

long get_timeout(int index)
{
    return reg_get_timeout(&g_tmo_reg, index);
}

long get_min_timeout(void)
{
    return reg_min_timeout(&g_tmo_reg);
}
