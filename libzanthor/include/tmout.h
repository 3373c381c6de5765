// The time-out registry: per kind of activity, the time-out in milliseconds the event loop must
// honour while at least one activity of that kind is alive, and the smallest of them, which bounds
// the loop's wait.
#pragma once
#include <cstddef>

constexpr int TMO_MAX_KINDS = 32;
// The registry's minimum while nothing is registered; any negative minimum means "no time-out".
constexpr long MIN_TIMER_VAL = -9999;

struct tmo_rec {
    long value;    // time-out of this kind in ms, set by the kind's first lock
    size_t nlocks; // live activities holding this kind
};

struct tmout_registry {
    tmo_rec rec[TMO_MAX_KINDS];
    long min; // smallest value among locked kinds, or MIN_TIMER_VAL
};

// Twins operating on a given registry. An index outside 0..31, a value below -9999 or releasing a
// kind without locks fails an assertion.
void reg_init_timeout(tmout_registry* reg);
// Takes one lock on `index`; only the first lock of a kind sets its value.
void reg_set_timeout(tmout_registry* reg, int index, long val);
// Releases one lock on `index`; the last release clears the value and may recompute the minimum.
void reg_rm_timeout(tmout_registry* reg, int index);
long reg_get_timeout(const tmout_registry* reg, int index);
long reg_min_timeout(const tmout_registry* reg);

// The same on the process-wide registry; init_timeout_registry runs once before the loop.
void init_timeout_registry(void);
void set_timeout(int index, long val);
void rm_timeout(int index);
long get_timeout(int index);
long get_min_timeout(void);
