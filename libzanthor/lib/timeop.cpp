// Clock readings, time-out tests against the event loop's cached clock, and the time stamp text
// that starts every log record. The formatting path must not log through the logger (the logger
// calls it), so its own complaints go straight to standard error.
#include "timeop.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "rqs.h"

LOG_MODULE(0, -1);

constexpr long NSEC_PER_SEC = 1000000000L;
constexpr size_t TZ_BUF_SIZE = 16;

// Set while a time stamp is being converted and formatted; a signal handler that logs in that
// window must not re-enter the C library's time-zone code.
static volatile sig_atomic_t g_timestr_busy = 0;

static char g_tzbuf[TZ_BUF_SIZE];
static bool g_tz_cached = false;

void set_clk_now(struct timespec* tms, clockid_t clk_id)
{
    if (clock_gettime(clk_id, tms) != 0) {
        // Without a clock no time-out can be honoured; there is nothing sensible to fall back to.
        perror("clock_gettime");
        abort();
    }
}

void set_real_now(struct timespec* tms)
{
    set_clk_now(tms, CLOCK_REALTIME);
}

int timed_out_as(const struct timespec* last_tm, const struct timespec* tmout, bool in_real_time,
                 const struct timespec* clknow)
{
    struct timespec real_now;
    const struct timespec* ref = clknow;
    if (ref == nullptr) {
        if (in_real_time) {
            set_real_now(&real_now);
            ref = &real_now;
        } else {
            ref = rqs_now_ref();
        }
    }

    struct timespec deadline;
    deadline.tv_sec = last_tm->tv_sec + tmout->tv_sec;
    deadline.tv_nsec = last_tm->tv_nsec + tmout->tv_nsec;
    if (deadline.tv_nsec > NSEC_PER_SEC - 1) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= NSEC_PER_SEC;
    }

    // A reference equal to the deadline has not yet passed it.
    if (deadline.tv_sec == ref->tv_sec)
        return deadline.tv_nsec < ref->tv_nsec;
    return deadline.tv_sec < ref->tv_sec;
}

int timed_out(const struct timespec* last_tm, const struct timespec* tmout)
{
    return timed_out_as(last_tm, tmout, false, nullptr);
}

bool rate_gate_pass(struct rate_gate* g, const struct timespec* period, unsigned long* held)
{
    if (g->passed && !timed_out(&g->last_tm, period)) {
        ++g->held;
        return false;
    }
    *held = g->held;
    g->last_tm = *rqs_now_ref();
    g->passed = true;
    g->held = 0;
    return true;
}

int timed_out_ext(const struct timespec* last_tm, const struct timespec* tmout,
                  const struct timespec* clknow)
{
    return timed_out_as(last_tm, tmout, false, clknow);
}

int timed_out_real(const struct timespec* last_tm, const struct timespec* tmout)
{
    return timed_out_as(last_tm, tmout, true, nullptr);
}

const char* get_timezone(bool refresh)
{
    if (g_tz_cached && !refresh)
        return g_tzbuf;

    time_t now = time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr) {
        perror("localtime_r");
        return nullptr;
    }
    size_t n = strftime(g_tzbuf, sizeof(g_tzbuf), " %Z", &tmv);
    g_tz_cached = true;
    // strftime gives 0 both for an empty result and for one that does not fit.
    if (n == 0 || n >= sizeof(g_tzbuf)) {
        perror("strftime");
        snprintf(g_tzbuf, sizeof(g_tzbuf), "%s", "#ERR#");
        return nullptr;
    }
    return g_tzbuf;
}

ssize_t mk_timestr(const struct timespec* tms, uint32_t flags, char* buf, size_t buflen)
{
    if (flags & f_RAW_TIME) {
        if (buflen < 2)
            return -1;
        int n = snprintf(buf, buflen - 1, "%ld.%06ld", static_cast<long>(tms->tv_sec),
                         static_cast<long>(tms->tv_nsec / 1000));
        if (n < 0 || static_cast<size_t>(n) >= buflen - 1)
            return -1;
        return n;
    }

    if (g_timestr_busy)
        return -35;
    g_timestr_busy = 1;

    // Records come many to a second: the date and time of the current second are formatted once
    // and only the microseconds anew. The busy flag keeps a signal handler out of this cache.
    static time_t s_secs = -1;
    static bool s_gmt = false;
    static char s_prefix[32];
    static size_t s_plen = 0;
    const bool gmt = (flags & f_GMT_TIME) != 0;
    if (tms->tv_sec != s_secs || gmt != s_gmt) {
        struct tm tmv;
        time_t secs = tms->tv_sec;
        const struct tm* ok = gmt ? gmtime_r(&secs, &tmv) : localtime_r(&secs, &tmv);
        if (ok == nullptr) {
            perror("gmtime_r/localtime_r");
            g_timestr_busy = 0;
            return -1;
        }
        const int pn = snprintf(s_prefix, sizeof(s_prefix), "%04d-%02d-%02d %02d:%02d:%02d",
                                tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour,
                                tmv.tm_min, tmv.tm_sec);
        if (pn < 0 || static_cast<size_t>(pn) >= sizeof(s_prefix)) {
            s_secs = -1;
            g_timestr_busy = 0;
            return -1;
        }
        s_plen = static_cast<size_t>(pn);
        s_secs = tms->tv_sec;
        s_gmt = gmt;
    }

    // The zone suffix is the local zone's name even for UTC fields; log readers match this form.
    const char* tz = get_timezone(false);
    if (tz == nullptr)
        tz = "";
    const size_t tzlen = strlen(tz);
    const bool fraction = (flags & f_FMT_SECONDS) == 0;
    const size_t n = s_plen + (fraction ? 7 : 0) + tzlen;
    if (n >= buflen) {
        g_timestr_busy = 0;
        fprintf(stderr, "%s: timestamp buffer needs %zu bytes, only %ld provided\n", __func__, n + 1,
                static_cast<long>(buflen));
        return -1;
    }
    char* p = buf;
    memcpy(p, s_prefix, s_plen);
    p += s_plen;
    if (fraction) {
        long us = static_cast<long>(tms->tv_nsec / 1000);
        *p++ = '.';
        for (int i = 5; i >= 0; --i, us /= 10)
            p[i] = static_cast<char>('0' + us % 10);
        p += 6;
    }
    memcpy(p, tz, tzlen + 1);
    g_timestr_busy = 0;
    return static_cast<ssize_t>(n);
}

time_t get_endofday_utime(time_t tstamp)
{
    // The C library's time-zone code holds a lock here too: a signal handler that logs meanwhile
    // must see the busy flag rather than wait for that lock forever.
    const sig_atomic_t outer = g_timestr_busy;
    g_timestr_busy = 1;
    struct tm tmv;
    if (localtime_r(&tstamp, &tmv) == nullptr) {
        g_timestr_busy = outer;
        zlogf(L_ERR, "%s: localtime_r() FAILED\n");
        return -1;
    }
    tmv.tm_hour = 23;
    tmv.tm_min = 59;
    tmv.tm_sec = 59;
    // Let mktime work out daylight saving for the evening itself: the stamp may lie on the other
    // side of a switch made that day.
    tmv.tm_isdst = -1;
    const time_t eod = mktime(&tmv);
    g_timestr_busy = outer;
    return eod;
}
