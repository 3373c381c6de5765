// Tests of the clock helpers: time-out boundaries, the log time stamp in its forms with its buffer
// limits and re-entry refusal, and end of day.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <climits>

#include "test_support.h"
#include "timeop.h"

// Interposed gmtime_r: lets a test re-enter mk_timestr exactly while the outer call is converting,
// as a signal handler that logs would. Everything else is passed on to the C library.
static bool g_reenter_once = false;
static ssize_t g_inner_rc = 0;

extern "C" struct tm* gmtime_r(const time_t* t, struct tm* out) noexcept
{
    static auto real = reinterpret_cast<tm* (*)(const time_t*, tm*)>(dlsym(RTLD_NEXT, "gmtime_r"));
    if (g_reenter_once) {
        g_reenter_once = false;
        char inner[64];
        const struct timespec ts = {0, 0};
        g_inner_rc = mk_timestr(&ts, f_GMT_TIME, inner, sizeof(inner));
    }
    return real(t, out);
}

// The stamp, or "" when refused; the result goes to *rc.
static std::string timestr(time_t s, long ns, uint32_t flags, size_t buflen, ssize_t* rc)
{
    const struct timespec t = {s, ns};
    std::string buf(buflen, '\0');
    *rc = mk_timestr(&t, flags, buf.data(), buflen);
    return *rc >= 0 ? std::string(buf.c_str()) : std::string();
}

TEST(Timeop, TimedOutBoundaries)
{
    // Last activity, time-out and the deadline they give: at the deadline is not late yet.
    const struct timespec rows[][3] = {
        {{10, 900000000}, {0, 200000000}, {11, 100000000}},
        {{0, 999999999}, {0, 1}, {1, 0}}, // nanoseconds summing to one second carry over
    };
    for (const auto& r : rows) {
        const struct timespec after = {r[2].tv_sec, r[2].tv_nsec + 1};
        EXPECT_EQ(0, timed_out_ext(&r[0], &r[1], &r[2])) << r[2].tv_sec;
        EXPECT_EQ(1, timed_out_as(&r[0], &r[1], true, &after)) << r[2].tv_sec; // ref wins
    }
}

TEST(Timeop, TimestampFormatsLimitsAndReentry)
{
    setenv("TZ", "XYZ-3", 1); // a POSIX zone needs no zone database: three hours east of UTC
    tzset();
    (void)get_timezone(true);
    constexpr uint32_t GMT_S = f_GMT_TIME | f_FMT_SECONDS;
    const struct { time_t s; long ns; uint32_t flags; size_t len; const char* expect; } cases[] = {
        {1, 999999999, f_RAW_TIME | GMT_S, 12, "1.999999"},
        {1, 5000, f_RAW_TIME, 10, "1.000005"},
        {1, 5000, f_RAW_TIME, 9, nullptr}, // the raw form is written one below the buffer size
        {0, 0, GMT_S, 24, "1970-01-01 00:00:00 XYZ"},
        {0, 0, GMT_S, 23, nullptr}, // null: refused
        {0, 0, f_FMT_SECONDS, 64, "1970-01-01 03:00:00 XYZ"},
        {86399, 123456789, f_GMT_TIME, 31, "1970-01-01 23:59:59.123456 XYZ"},
        // The same second again comes from the cached date; the fraction is padded.
        {86399, 5000, f_GMT_TIME, 31, "1970-01-01 23:59:59.000005 XYZ"},
        {86399, 0, 0, 64, "1970-01-02 02:59:59.000000 XYZ"},
    };
    testing::internal::CaptureStderr();
    ssize_t rc;
    for (const auto& c : cases) {
        EXPECT_EQ(c.expect ? c.expect : "", timestr(c.s, c.ns, c.flags, c.len, &rc)) << c.flags;
        EXPECT_EQ(c.expect ? static_cast<ssize_t>(strlen(c.expect)) : -1, rc) << c.flags;
    }
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(vsk_test::contains(err, "timestamp buffer needs 24 bytes, only 23 provided\n"));

    g_reenter_once = true;
    EXPECT_EQ("1970-01-01 00:01:00 XYZ", timestr(60, 0, GMT_S, 64, &rc));
    EXPECT_FALSE(g_reenter_once) << "the interposed conversion was not reached";
    EXPECT_EQ(-35, g_inner_rc);
    // After the outer call, and after a failed conversion, the next one formats normally.
    testing::internal::CaptureStderr();
    EXPECT_EQ("", timestr(LONG_MAX, 0, f_GMT_TIME, 64, &rc));
    EXPECT_TRUE(vsk_test::contains(testing::internal::GetCapturedStderr(), "gmtime_r"));
    EXPECT_EQ("1970-01-01 00:01:00 XYZ", timestr(60, 0, GMT_S, 64, &rc));
}

TEST(Timeop, EndOfDay)
{
    const char* const dst = "EST5EDT,M3.2.0,M11.1.0"; // days of 23 and of 25 hours below
    // At 0 it is 03:00 local; the day ends at 23:59:59 local = 20:59:59 UTC.
    const struct { const char* tz; time_t stamp, expect; } cases[] = {
        {"XYZ-3", 0, 75599}, {"XYZ-3", 75599, 75599}, {"XYZ-3", 75600, 75600 + 86399},
        {dst, 1615701600, 1615780799}, {dst, 1636257600, 1636347599}, {"XYZ-3", LONG_MAX, -1},
    };
    for (const auto& c : cases) {
        setenv("TZ", c.tz, 1);
        tzset();
        EXPECT_EQ(c.expect, get_endofday_utime(c.stamp)) << c.tz << " stamp=" << c.stamp;
    }
}
