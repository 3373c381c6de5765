// Tests of the clock helpers: time-out boundaries against given, cached and real-time clocks, the
// log time stamp in all its forms and failure results, the zone suffix cache and end of day.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "rqs.h"
#include "timeop.h"

// Interposed gmtime_r: lets a test re-enter mk_timestr exactly while the outer call is converting,
// as a signal handler that logs would. Everything else is passed on to the C library.
static bool g_reenter_once = false;
static ssize_t g_inner_rc = 0;

extern "C" struct tm* gmtime_r(const time_t* t, struct tm* out) noexcept
{
    using gmtime_r_fn = struct tm* (*)(const time_t*, struct tm*);
    static gmtime_r_fn real = reinterpret_cast<gmtime_r_fn>(dlsym(RTLD_NEXT, "gmtime_r"));
    if (g_reenter_once) {
        g_reenter_once = false;
        char inner[64];
        const struct timespec ts = {0, 0};
        g_inner_rc = mk_timestr(&ts, f_GMT_TIME, inner, sizeof(inner));
    }
    return real(t, out);
}

namespace {

// A POSIX zone string needs no zone database: "XYZ", three hours east of UTC.
class TimeopTest : public ::testing::Test {
protected:
    void SetUp() override { use_tz("XYZ-3"); }
    void TearDown() override { use_tz("XYZ-3"); }

    static void use_tz(const char* tz)
    {
        setenv("TZ", tz, 1);
        tzset();
        (void)get_timezone(true);
    }
};

struct timespec ts(time_t s, long ns)
{
    struct timespec t;
    t.tv_sec = s;
    t.tv_nsec = ns;
    return t;
}

std::string timestr(const struct timespec& t, uint32_t flags, size_t buflen, ssize_t* rc)
{
    std::string buf(buflen, '\0');
    *rc = mk_timestr(&t, flags, buf.data(), buflen);
    return *rc >= 0 ? std::string(buf.c_str()) : std::string();
}

TEST_F(TimeopTest, TimedOutBoundaries)
{
    struct Case {
        struct timespec last, tmout, ref;
        int expect;
    };
    const Case cases[] = {
        // Deadline {11, 100000000}: equal is not late, one nanosecond after is.
        {ts(10, 900000000), ts(0, 200000000), ts(11, 100000000), 0},
        {ts(10, 900000000), ts(0, 200000000), ts(11, 100000001), 1},
        {ts(10, 900000000), ts(0, 200000000), ts(11, 99999999), 0},
        {ts(10, 900000000), ts(0, 200000000), ts(12, 0), 1},
        {ts(10, 900000000), ts(0, 200000000), ts(10, 999999999), 0},
        // Nanoseconds summing to exactly one second carry into the seconds.
        {ts(0, 999999999), ts(0, 1), ts(1, 0), 0},
        {ts(0, 999999999), ts(0, 1), ts(1, 1), 1},
        // 999999999 nanoseconds stay as they are.
        {ts(0, 999999998), ts(0, 1), ts(0, 999999999), 0},
        {ts(0, 999999998), ts(0, 1), ts(1, 0), 1},
        {ts(100, 0), ts(5, 0), ts(104, 999999999), 0},
        {ts(100, 0), ts(5, 0), ts(105, 1), 1},
        {ts(100, 0), ts(0, 0), ts(100, 0), 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.expect, timed_out_ext(&c.last, &c.tmout, &c.ref))
            << "last=" << c.last.tv_sec << "." << c.last.tv_nsec << " tmout=" << c.tmout.tv_sec
            << "." << c.tmout.tv_nsec << " ref=" << c.ref.tv_sec << "." << c.ref.tv_nsec;
        EXPECT_EQ(c.expect, timed_out_as(&c.last, &c.tmout, true, &c.ref))
            << "a given reference wins over the real-time flag";
    }
}

TEST_F(TimeopTest, TimedOutAgainstTheLoopAndWallClocks)
{
    rqs_refresh_now();
    const struct timespec now = rqs_now();
    EXPECT_EQ(rqs_now_ref()->tv_sec, now.tv_sec);
    EXPECT_EQ(rqs_now_ref()->tv_nsec, now.tv_nsec);

    // Deadline exactly at the cached time: not late, although the real clock has moved on.
    const struct timespec tmout = ts(0, 1000);
    struct timespec last;
    tspec_diff(&now, &tmout, &last);
    EXPECT_EQ(0, timed_out(&last, &tmout));
    EXPECT_EQ(0, timed_out_ext(&last, &tmout, nullptr));

    const struct timespec one_ns = ts(0, 1);
    struct timespec earlier;
    tspec_diff(&last, &one_ns, &earlier);
    EXPECT_EQ(1, timed_out(&earlier, &tmout));
    EXPECT_EQ(1, timed_out_ext(&earlier, &tmout, nullptr));

    // The real-time variant reads the wall clock, far from the monotonic loop clock.
    struct timespec real;
    set_real_now(&real);
    const struct timespec hour = ts(3600, 0), two_hours_ago = ts(real.tv_sec - 7200, 0);
    EXPECT_EQ(0, timed_out_real(&real, &hour));
    EXPECT_EQ(1, timed_out_real(&two_hours_ago, &hour));
    EXPECT_EQ(0, timed_out(&two_hours_ago, &hour));
}

TEST_F(TimeopTest, UnreadableClockAborts)
{
    struct timespec t;
    EXPECT_DEATH(set_clk_now(&t, static_cast<clockid_t>(12345)), "clock_gettime");
}

TEST_F(TimeopTest, TimestampFormats)
{
    struct Case {
        struct timespec t;
        uint32_t flags;
        const char* expect;
    };
    const Case cases[] = {
        {ts(1, 5000), f_RAW_TIME, "1.000005"},
        {ts(1, 5000), f_RAW_TIME | f_MONOTONIC_TIMER, "1.000005"},
        {ts(1234567, 999999999), f_RAW_TIME | f_GMT_TIME | f_FMT_SECONDS, "1234567.999999"},
        {ts(0, 0), f_GMT_TIME | f_FMT_SECONDS, "1970-01-01 00:00:00 XYZ"},
        {ts(0, 0), f_FMT_SECONDS, "1970-01-01 03:00:00 XYZ"},
        {ts(0, 999), f_GMT_TIME, "1970-01-01 00:00:00.000000 XYZ"},
        {ts(86399, 123456789), 0, "1970-01-02 02:59:59.123456 XYZ"},
        {ts(86399, 123456789), f_GMT_TIME, "1970-01-01 23:59:59.123456 XYZ"},
        {ts(1700000000, 1000), f_GMT_TIME | f_MONOTONIC_TIMER, "2023-11-14 22:13:20.000001 XYZ"},
    };
    for (const Case& c : cases) {
        ssize_t rc;
        std::string got = timestr(c.t, c.flags, 64, &rc);
        EXPECT_EQ(c.expect, got) << "flags=0x" << std::hex << c.flags;
        EXPECT_EQ(static_cast<ssize_t>(strlen(c.expect)), rc);
    }
}

TEST_F(TimeopTest, TimestampBufferLimits)
{
    ssize_t rc;
    // The raw form is written with a limit one below the buffer size.
    EXPECT_EQ("1.000005", timestr(ts(1, 5000), f_RAW_TIME, 10, &rc));
    EXPECT_EQ(8, rc);
    timestr(ts(1, 5000), f_RAW_TIME, 9, &rc);
    EXPECT_EQ(-1, rc);
    timestr(ts(1, 5000), f_RAW_TIME, 1, &rc);
    EXPECT_EQ(-1, rc);
    timestr(ts(1, 5000), f_RAW_TIME, 0, &rc);
    EXPECT_EQ(-1, rc);

    // The calendar form needs its length plus the terminator.
    EXPECT_EQ("1970-01-01 00:00:00 XYZ",
              timestr(ts(0, 0), f_GMT_TIME | f_FMT_SECONDS, 24, &rc));
    EXPECT_EQ(23, rc);

    testing::internal::CaptureStderr();
    timestr(ts(0, 0), f_GMT_TIME | f_FMT_SECONDS, 23, &rc);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(-1, rc);
    EXPECT_EQ("mk_timestr: timestamp buffer needs 24 bytes, only 23 provided\n", err);

    testing::internal::CaptureStderr();
    timestr(ts(0, 0), 0, 10, &rc);
    err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(-1, rc);
    EXPECT_EQ("mk_timestr: timestamp buffer needs 31 bytes, only 10 provided\n", err);
}

TEST_F(TimeopTest, TimestampConversionFailureIsReportedAndRecovers)
{
    ssize_t rc;
    testing::internal::CaptureStderr();
    timestr(ts(LONG_MAX, 0), f_GMT_TIME, 64, &rc);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(-1, rc);
    EXPECT_NE(std::string::npos, err.find("gmtime_r/localtime_r")) << err;
    // The busy flag was released on the failure path.
    EXPECT_EQ("1970-01-01 00:00:00 XYZ", timestr(ts(0, 0), f_GMT_TIME | f_FMT_SECONDS, 64, &rc));
}

TEST_F(TimeopTest, ReentryWhileFormattingIsRefused)
{
    g_inner_rc = 0;
    g_reenter_once = true;
    ssize_t rc;
    std::string got = timestr(ts(60, 0), f_GMT_TIME | f_FMT_SECONDS, 64, &rc);
    EXPECT_FALSE(g_reenter_once) << "the interposed conversion was not reached";
    EXPECT_EQ(-35, g_inner_rc);
    EXPECT_EQ("1970-01-01 00:01:00 XYZ", got);
    // The raw form needs no conversion and is never refused.
    g_reenter_once = false;
    EXPECT_EQ("60.000000", timestr(ts(60, 0), f_RAW_TIME, 64, &rc));
    // Once the outer call is done the next one formats normally.
    EXPECT_EQ("1970-01-01 00:01:00 XYZ", timestr(ts(60, 0), f_GMT_TIME | f_FMT_SECONDS, 64, &rc));
}

TEST_F(TimeopTest, ZoneSuffixIsCachedUntilRefreshed)
{
    ASSERT_NE(nullptr, get_timezone(false));
    EXPECT_STREQ(" XYZ", get_timezone(false));

    setenv("TZ", "ABC+2", 1);
    tzset();
    EXPECT_STREQ(" XYZ", get_timezone(false)) << "the suffix must come from the cache";
    EXPECT_STREQ(" ABC", get_timezone(true));

    // The cached suffix sticks to the text even though the fields follow the new zone.
    ssize_t rc;
    EXPECT_EQ("1969-12-31 22:00:00 ABC", timestr(ts(0, 0), f_FMT_SECONDS, 64, &rc));
}

TEST_F(TimeopTest, OverlongZoneNameIsAnError)
{
    setenv("TZ", "<ABCDEFGHIJKLMNOPQRST>-1", 1);
    tzset();
    testing::internal::CaptureStderr();
    const char* tz = get_timezone(true);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(nullptr, tz);
    EXPECT_NE(std::string::npos, err.find("strftime")) << err;
    EXPECT_STREQ("#ERR#", get_timezone(false));
}

TEST_F(TimeopTest, EndOfDay)
{
    struct Case {
        const char* tz;
        time_t stamp, expect;
    };
    const Case cases[] = {
        // 1970-01-01 03:00 local; the day ends at 23:59:59 local = 20:59:59 UTC.
        {"XYZ-3", 0, 75599},
        {"XYZ-3", 75599, 75599},
        {"XYZ-3", 75600, 75600 + 86399},
        {"UTC0", 1700000000, 1700006399},
        // Days on which daylight saving starts (23 hours) and ends (25 hours): the evening is
        // on the other side of the switch from the stamp.
        {"EST5EDT,M3.2.0,M11.1.0", 1615701600, 1615780799},
        {"EST5EDT,M3.2.0,M11.1.0", 1636257600, 1636347599},
        {"XYZ-3", LONG_MAX, -1},
    };
    for (const Case& c : cases) {
        use_tz(c.tz);
        EXPECT_EQ(c.expect, get_endofday_utime(c.stamp)) << c.tz << " stamp=" << c.stamp;
    }
}

} // namespace
