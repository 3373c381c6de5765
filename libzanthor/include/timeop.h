// Clocks, time-out tests against the event loop's cached clock, and time stamps for the log.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

#include "log.h"

// Time format flags; the log configuration stores them as its time format.
enum : uint32_t {
    f_REALTIME_TIMER = 0,
    f_MONOTONIC_TIMER = 1,
    f_TIMER_ID = 3,
    f_FMT_SECONDS = 0x10,
    f_NO_TIME = 0x100,
    f_GMT_TIME = 0x200,
    f_RAW_TIME = 0x400,
    f_BAD_TIME = 0x40000000,
};

// clock_gettime, aborting the process when the clock cannot be read.
void set_clk_now(struct timespec* tms, clockid_t clk_id);
void set_real_now(struct timespec* tms);

// True when last_tm + tmout lies strictly before the reference time: the loop's cached clock,
// `clknow` when given, or a fresh real-time reading.
int timed_out_as(const struct timespec* last_tm, const struct timespec* tmout, bool in_real_time,
                 const struct timespec* clknow);
int timed_out(const struct timespec* last_tm, const struct timespec* tmout);
int timed_out_ext(const struct timespec* last_tm, const struct timespec* tmout,
                  const struct timespec* clknow);
int timed_out_real(const struct timespec* last_tm, const struct timespec* tmout);

// Lets one log line a period through, however often its cause recurs, and counts the rest.
// Zero-initialised it is open.
struct rate_gate {
    struct timespec last_tm; // the loop's clock at the last pass
    bool passed;             // a line has gone out before
    unsigned long held;      // lines held back since then
};

// True when a line may go out now (on the loop's cached clock); `held` then receives the count
// of the lines held back since the last one, which the caller reports with it.
[[nodiscard]] bool rate_gate_pass(struct rate_gate* g, const struct timespec* period,
                                  unsigned long* held);

// delta := a - b; a must not be earlier than b (the assertion keeps its historical text).
inline void tspec_diff(const struct timespec* pa, const struct timespec* pb, struct timespec* delta)
{
    if (!((pa->tv_sec == pb->tv_sec) ? (pa->tv_nsec >= pb->tv_nsec) : (pa->tv_sec >= pb->tv_sec)))
        log_assert_fail("(((delta)->tv_sec == (pb)->tv_sec) ? ((delta)->tv_nsec >= (pb)->tv_nsec) : "
                        "((delta)->tv_sec >= (pb)->tv_sec))",
                        __FILE__, __LINE__, __func__);
    delta->tv_sec = pa->tv_sec - pb->tv_sec;
    delta->tv_nsec = pa->tv_nsec - pb->tv_nsec;
    if (delta->tv_nsec < 0) {
        delta->tv_sec -= 1;
        delta->tv_nsec += 1000000000L;
    }
}

// The log's time stamp. Returns its length, -1 when it does not fit or the conversion fails, or
// -35 when re-entered (from a signal handler) while formatting.
ssize_t mk_timestr(const struct timespec* tms, uint32_t flags, char* buf, size_t buflen);
// " %Z" of the local time, cached after the first call unless `refresh`; null on failure.
const char* get_timezone(bool refresh);
// The last second of the local calendar day holding `tstamp`, or -1.
time_t get_endofday_utime(time_t tstamp);
