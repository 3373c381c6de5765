// Log core and rotation: record layout, level filtering, outputs and the rotation ring.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>
#include <vector>

#include "log.h"
#include "test_support.h"
#include "timeop.h"

LOG_MODULE(LOG_MOD_APP, -1);

namespace fs = std::filesystem;

namespace {

std::vector<std::pair<int, std::string>> g_syslog_seen;

void capture_syslog(int priority, const char* text)
{
    g_syslog_seen.emplace_back(priority, text);
}

using vsk_test::slurp;

class LogTest : public ::testing::Test {
protected:
    fs::path dir;
    fs::path path;

    void SetUp() override
    {
        char tmpl[] = "/tmp/vsk-logtest-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir / "app.log";
        log_close(g_log);
        *g_log = log_ctx{};
        glog_init("vsk");
        log_default(g_log, stderr);
        log_set_modules(g_log, L_DEBUG);
        log_timefmt(g_log, f_NO_TIME);
        g_syslog_seen.clear();
        log_set_syslog_sink(capture_syslog);
        ASSERT_EQ(log_open_ex(g_log, path.c_str(), F_APPEND_OLD), 0);
    }

    void TearDown() override
    {
        log_close(g_log);
        *g_log = log_ctx{};
        log_default(g_log, stderr);
        log_set_syslog_sink(nullptr);
        fs::remove_all(dir);
    }

    std::string text() { return slurp(path); }
};

TEST_F(LogTest, RecordLayoutWithoutTime)
{
    log_set_pid(g_log, 4242); // without time the pid is not printed either
    zlog(L_INFO, "hello %d\n", 7);
    log_set_group(g_log, "VSK");
    zlogf(L_WARN, "%s: grouped\n");
    log_set_group(g_log, "");
    log_set_module_level(LOG_MOD_APP, L_SECT); // a module shows level-64 records only at 64
    zlog(L_SECT, "sect\n");
    const log_llctx low = {0, -1};
    log_emit(&low, -127, "untagged\n");
    EXPECT_EQ(text(), "(INF)  hello 7\n"
                      "(WRN)  VSK  TestBody: grouped\n"
                      "(SCT)  sect\n"
                      "untagged\n");
}

TEST_F(LogTest, RecordLayoutWithTimeAndPid)
{
    log_timefmt(g_log, f_RAW_TIME);
    log_set_pid(g_log, 4242);
    log_set_group(g_log, "D0001");
    zlog(L_ERR, "boom\n");
    const std::string raw = text();
    const size_t dot = raw.find('.');
    ASSERT_NE(dot, std::string::npos) << raw;
    EXPECT_GT(dot, 0u);
    EXPECT_EQ(raw.find_first_not_of("0123456789"), dot) << raw;
    EXPECT_EQ(raw.substr(dot + 1).find_first_not_of("0123456789"), 6u) << raw;
    EXPECT_EQ(raw.substr(dot + 7), " 4242  (ERR)  D0001  boom\n");

    fs::remove(path);
    ASSERT_EQ(log_open_ex(g_log, path.c_str(), 0), 0);
    log_timefmt(g_log, f_FMT_SECONDS);
    log_set_pid(g_log, 0);
    log_set_group(g_log, "");
    zlog(L_NORM, "local\n");
    // "YYYY-MM-DD hh:mm:ss ZONE (NRM)  local"
    const std::string local = text();
    int y, mo, d, h, mi, sec, used = 0;
    ASSERT_EQ(sscanf(local.c_str(), "%4d-%2d-%2d %2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &sec, &used),
              6)
        << local;
    EXPECT_EQ(used, 19);
    const size_t zone_end = local.find(' ', 20);
    ASSERT_NE(zone_end, std::string::npos) << local;
    EXPECT_GT(zone_end, 20u) << "a zone name follows the time";
    EXPECT_EQ(local.substr(zone_end), " (NRM)  local\n");
}

TEST_F(LogTest, LevelNamesTagsAndMatching)
{
    EXPECT_STREQ(log_level_str(5), "??");
    EXPECT_STREQ(get_level_tag(9), "( ? )");
    const struct {
        const char* text;
        int rc;
        int level;
    } rows[] = {
        {"err", 0, L_ERR},    {"ERROR", 0, L_ERR},  {"crit", 0, L_CRIT}, {"Critical", 0, L_CRIT},
        {"warn", 0, L_WARN},  {"norm", 0, L_NORM},  {"info", 0, L_INFO}, {"dbg", 0, L_DEBUG},
        {"sect", 0, L_SECT},  {"panic", -1, 99},    {"verbose", -1, 99}, {"", -1, 99},
    };
    for (const auto& r : rows) {
        int level = 99;
        EXPECT_EQ(match_log_level(r.text, &level), r.rc) << r.text;
        EXPECT_EQ(level, r.level) << r.text;
    }
}

TEST_F(LogTest, ModuleAndSectionFiltering)
{
    const log_llctx wrappers = {LOG_MOD_SYSWRAP, -1};
    const log_llctx sect5 = {LOG_MOD_APP, 5};
    log_set_modules(g_log, L_INFO);
    log_set_module_level(LOG_MOD_SYSWRAP, L_ERR);
    log_emit(&wrappers, L_WARN, "wrap-warn\n");  // filtered: module 2 shows errors only
    log_emit(&wrappers, L_PANIC, "wrap-panic\n");
    zlog(L_DEBUG, "app-debug\n"); // filtered: module 0 at info
    zlog(L_INFO, "app-info\n");
    // A section record goes out when the section's level is at most the module's level,
    // whatever the record's own level.
    log_set_sections(g_log, L_SECT);
    log_emit(&sect5, L_ERR, "sect-hidden\n");
    g_sec_ll[5] = L_INFO;
    log_emit(&sect5, L_DEBUG, "sect-shown\n");
    EXPECT_EQ(text(), "(PNC)  wrap-panic\n(INF)  app-info\n(DBG)  sect-shown\n");
}

TEST_F(LogTest, FilteredRecordsDoNotEvaluateArguments)
{
    log_set_modules(g_log, L_NORM);
    int calls = 0;
    auto count = [&calls]() { return ++calls; };
    zlog(L_DEBUG, "%d\n", count());
    EXPECT_EQ(calls, 0);
    zlog(L_NORM, "%d\n", count());
    EXPECT_EQ(calls, 1);
}

TEST_F(LogTest, PushPopRestoresFirstPush)
{
    log_set_modules(g_log, L_WARN);
    log_push_mlevels();
    log_set_modules(g_log, L_DEBUG);
    log_push_mlevels(); // ignored: already pushed
    log_set_modules(g_log, L_ERR);
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[0], L_WARN);
    EXPECT_EQ(g_mod_ll[LOG_MAX_MODULES - 1], L_WARN);
    log_set_modules(g_log, L_INFO);
    log_pop_mlevels(); // ignored: nothing pushed
    EXPECT_EQ(g_mod_ll[0], L_INFO);
}

TEST_F(LogTest, SyslogGetsWarningsAndWorseOnly)
{
    glog_enable_syslog("vsk-test");
    zlog(L_INFO, "info\n");
    zlog(L_NORM, "normal\n");
    zlog(L_WARN, "warn\n");
    zlog(L_ERR, "err\n");
    g_sigctx = 1; // inside a signal handler syslog is skipped
    zlog(L_ERR, "in-handler\n");
    g_sigctx = 0;
    glog_disable_syslog();
    zlog(L_ERR, "disabled\n");
    ASSERT_EQ(g_syslog_seen.size(), 2u);
    EXPECT_EQ(g_syslog_seen[0].first, LOG_WARNING | LOG_LOCAL0);
    EXPECT_EQ(g_syslog_seen[0].second, "(WRN)  warn\n");
    EXPECT_EQ(g_syslog_seen[1].first, LOG_ERR | LOG_LOCAL0);
    // every record still reached the file
    EXPECT_NE(text().find("in-handler"), std::string::npos);
    EXPECT_NE(text().find("disabled"), std::string::npos);
}

TEST_F(LogTest, HandlerRecordLeavesTheInterruptedRecordWhole)
{
    // The main code has prepared a record and not yet flushed it when a signal handler logs.
    ASSERT_GT(logbuf_prepare(g_log, L_INFO, "%s\n", "interrupted record"), 0);
    g_sigctx = 1;
    zlog(L_NORM, "QUIT-SIG(%d)\n", 15);
    zlog(L_DEBUG + 1, "filtered in the handler too\n");
    g_sigctx = 0;
    log_flush(g_log, L_INFO);
    EXPECT_EQ(text(), "(NRM)  QUIT-SIG(15)\n(INF)  interrupted record\n");
}

TEST_F(LogTest, MirrorSharedMemoryMirrorAndClose)
{
    const fs::path mpath = dir / "mirror";
    FILE* mfp = fopen(mpath.c_str(), "w");
    ASSERT_NE(mfp, nullptr);
    log_mirror(g_log, mfp);
    auto lh = std::make_unique<lard_handle>();
    log_set_lard(g_log, lh.get());
    log_set_modules(g_log, L_NORM);
    zlog(L_DEBUG, "only-lard\n"); // filtered for the outputs, still stored in the mirror
    EXPECT_STREQ(lh->text, "(DBG)  only-lard\n");
    EXPECT_EQ(lh->temp, 0);
    zlog(L_ERR, "both\n");
    EXPECT_EQ(lh->temp, 3);
    EXPECT_EQ(lh->nputs, 2u);
    log_set_lard(g_log, nullptr);
    log_close(g_log);
    // Closing drops the mirror: its owner may close the stream now, a later record must not
    // reach it.
    fclose(mfp);
    testing::internal::CaptureStderr();
    zlog(L_ERR, "after\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "(ERR)  after\n");
    EXPECT_EQ(text(), "(ERR)  both\n");
    EXPECT_EQ(slurp(mpath), "(ERR)  both\n");
}

TEST_F(LogTest, RecordWithoutLineEndStillEndsItsLine)
{
    zlog(L_ERR, "%s: no line end", "name2af");
    zlog(L_INFO, "next\n");
    // A record that fills the buffer gives up its last character for the line end.
    const std::string full(LOG_OUTBUF_SIZE - 1 - 7, 'z'); // "(INF)  " + text
    EXPECT_EQ(logbuf_prepare(g_log, L_INFO, "%s", full.c_str()), static_cast<int>(full.size()));
    log_flush(g_log, L_INFO);
    EXPECT_EQ(text(), "(ERR)  name2af: no line end\n(INF)  next\n(INF)  " +
                          full.substr(0, full.size() - 1) + "\n");
}

TEST_F(LogTest, OverlongMessageWritesNothing)
{
    const std::string big(LOG_OUTBUF_SIZE, 'x');
    zlog(L_INFO, "%s\n", big.c_str());
    EXPECT_EQ(logbuf_prepare(g_log, L_INFO, "%s\n", big.c_str()), -1);
    EXPECT_TRUE(logbuf_empty());
    const std::string fits(LOG_OUTBUF_SIZE - 1 - 7 - 1, 'y'); // "(INF)  " + text + "\n"
    EXPECT_EQ(logbuf_prepare(g_log, L_INFO, "%s\n", fits.c_str()),
              static_cast<int>(fits.size() + 1));
    EXPECT_EQ(text(), "");
}

TEST_F(LogTest, ErrnoSurvivesLogging)
{
    errno = ECONNRESET;
    zlog(L_ERR, "failure\n");
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(LogTest, OpenRules)
{
    const std::string toolong(LOG_MAX_NAME, 'a');
    EXPECT_EQ(log_open_ex(g_log, toolong.c_str(), F_APPEND_OLD), -1);
    EXPECT_EQ(log_open_ex(g_log, (dir / "no/such/dir/x.log").c_str(), F_APPEND_OLD), -1);
    EXPECT_STREQ(g_log->name, path.c_str()) << "a failed open leaves the old output";

    // total_out starts at the size of an appended file
    zlog(L_INFO, "12345\n");
    ASSERT_EQ(log_open_ex(g_log, path.c_str(), F_APPEND_OLD), 0);
    EXPECT_EQ(g_log->total_out, std::string("(INF)  12345\n").size());
}

TEST_F(LogTest, StartupMovesNonEmptyLogAside)
{
    zlog(L_INFO, "old run\n");
    log_close(g_log);
    struct utimbuf tb = {1000000000, 1000000000};
    ASSERT_EQ(utime(path.c_str(), &tb), 0);
    ASSERT_EQ(log_open_ex(g_log, path.c_str(), 0), 0);
    EXPECT_EQ(slurp(path.string() + ".1000000000"), "(INF)  old run\n");
    EXPECT_EQ(text(), "");
    // an empty file is appended to, not moved
    log_close(g_log);
    ASSERT_EQ(log_open_ex(g_log, path.c_str(), 0), 0);
    zlog(L_INFO, "new\n");
    EXPECT_EQ(text(), "(INF)  new\n");
    int rotated = 0;
    for (const auto& e : fs::directory_iterator(dir))
        rotated += e.path().filename().string().rfind("app.log.", 0) == 0;
    EXPECT_EQ(rotated, 1);
}

// Batched or not, the record that reaches the size goes to the old file, the new one starts with
// the notice, and with batching what is held reaches the file at the close.
TEST_F(LogTest, RotatesBySizeKeepingTheTriggeringRecordInTheOldFile)
{
    for (const bool batch : {false, true}) {
        SCOPED_TRACE(batch ? "batched" : "per record");
        log_close(g_log);
        fs::remove_all(dir);
        fs::create_directory(dir);
        ASSERT_EQ(log_open_ex(g_log, path.c_str(), F_APPEND_OLD), 0);
        log_set_batching(g_log, batch);
        log_set_rota(g_log, 30, 4, 0);
        zlog(L_INFO, "0123456789\n"); // 18 bytes
        EXPECT_EQ(g_log->total_out, 18u);
        zlog(L_INFO, "0123456789\n"); // reaches 36 >= 30: rotate after writing
        std::vector<fs::path> rotated;
        for (const auto& e : fs::directory_iterator(dir))
            if (e.path() != path)
                rotated.push_back(e.path());
        ASSERT_EQ(rotated.size(), 1u);
        EXPECT_EQ(slurp(rotated[0]), "(INF)  0123456789\n(INF)  0123456789\n");
        log_set_rota(g_log, 0, 4, 0);
        zlog(L_INFO, "after\n");
        EXPECT_EQ(text().find("after") == std::string::npos, batch);
        log_close(g_log);
        const std::string now = text();
        EXPECT_TRUE(vsk_test::contains(now, "previous log rotated to [" + rotated[0].string() + "]") &&
                    vsk_test::contains(now, "\n(INF)  after\n")) << now;
    }
}

TEST_F(LogTest, BatchedRecordsWaitForASyncAndKeepTheirOrder)
{
    log_set_batching(g_log, true);
    zlog(L_INFO, "one\n");
    zlog(L_WARN, "two\n");
    EXPECT_EQ(text(), "") << "held until the loop syncs";
    EXPECT_EQ(g_log->total_out, 22u) << "rotation counts held bytes";
    log_sync(g_log);
    EXPECT_EQ(text(), "(INF)  one\n(WRN)  two\n");

    // Whoever takes the stream to write to it directly comes after what was logged.
    zlog(L_INFO, "three\n");
    fputs("direct\n", log_fp(g_log));
    EXPECT_EQ(text(), "(INF)  one\n(WRN)  two\n(INF)  three\ndirect\n");

    // More than the buffer holds goes out without waiting for a sync, whole records in order.
    const std::string line(1000, 'x');
    for (int i = 0; i < 100; ++i)
        zlog(L_INFO, "%03d %s\n", i, line.c_str());
    const std::string part = text();
    EXPECT_GT(part.size(), 50000u);
    EXPECT_LT(part.size(), 100000u);
    log_sync(g_log);
    EXPECT_EQ(part.back(), '\n');
    EXPECT_NE(text().find("(INF)  099 x"), std::string::npos);

    zlog(L_INFO, "last\n");
    log_set_batching(g_log, false);
    EXPECT_NE(text().find("last\n"), std::string::npos) << "switching off writes what is held";
    zlog(L_INFO, "unbatched\n");
    EXPECT_NE(text().find("unbatched\n"), std::string::npos);
}

TEST_F(LogTest, BatchedRecordsSurviveExitAndAbort)
{
    log_set_batching(g_log, true);
    EXPECT_EXIT(
        {
            zlog(L_INFO, "held at exit\n");
            exit(3);
        },
        ::testing::ExitedWithCode(3), "");
    EXPECT_EQ(text(), "(INF)  held at exit\n");
    EXPECT_DEATH(
        {
            zlog(L_INFO, "held at abort\n");
            log_abort("%s: giving up\n", "x");
        },
        "");
    const std::string t = text();
    EXPECT_LT(t.find("held at abort"), t.find("x: giving up")) << t;
    EXPECT_NE(t.find("Aborting at:\n#0: "), std::string::npos) << t;
}

TEST_F(LogTest, RotatesAtEndOfDay)
{
    log_set_rota(g_log, 0, 4, 0);
    log_set_eod(g_log, time(nullptr) - 1);
    zlog(L_INFO, "small\n");
    int files = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir))
        ++files;
    EXPECT_EQ(files, 2);
    EXPECT_GT(log_rota_eod(g_log), time(nullptr)) << "next end of day is in the future";
}

TEST_F(LogTest, RotationRingDeletesOldestKeptFile)
{
    log_set_rota(g_log, 0, 2, 0);
    for (long t : {100, 200, 300})
        std::ofstream(path.string() + "." + std::to_string(t)) << t;
    handle_rotation(g_log, 100, "x");
    handle_rotation(g_log, 200, "x");
    EXPECT_TRUE(fs::exists(path.string() + ".100"));
    handle_rotation(g_log, 300, "x");
    EXPECT_FALSE(fs::exists(path.string() + ".100"));
    EXPECT_TRUE(fs::exists(path.string() + ".200"));
    EXPECT_TRUE(fs::exists(path.string() + ".300"));
}

TEST_F(LogTest, RotationLimitsAndOutputsThatNeverRotate)
{
    log_set_rota(g_log, 1, 0, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 16);
    log_set_rota(g_log, 1, 200, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 16);
    log_set_rota(g_log, 1, 127, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 127);

    const fs::path out = dir / "piped";
    const std::string cmd = "cat > " + out.string();
    ASSERT_EQ(log_popen(g_log, cmd.c_str()), 0);
    log_set_rota(g_log, 1, 2, 0);
    zlog(L_INFO, "through the pipe\n");
    zlog(L_INFO, "again\n");
    EXPECT_EQ(log_rotate(g_log), -1);
    log_close(g_log); // waits for the command
    EXPECT_EQ(slurp(out), "(INF)  through the pipe\n(INF)  again\n");
    for (const auto& e : fs::directory_iterator(dir))
        EXPECT_EQ(e.path().filename().string().find("piped."), std::string::npos) << e.path();

    log_default(g_log, stderr);
    EXPECT_EQ(log_rotate(g_log), 0) << "no name: nothing to rotate";
}

TEST(LogEnv, ReadLevelEnv)
{
    setenv("VSK_TEST_LEVEL", "2", 1);
    EXPECT_EQ(read_level_env("VSK_TEST_LEVEL", -1), 2);
    setenv("VSK_TEST_LEVEL", "0", 1);
    EXPECT_EQ(read_level_env("VSK_TEST_LEVEL", -1), 0);
    setenv("VSK_TEST_LEVEL", "zero", 1);
    EXPECT_EQ(read_level_env("VSK_TEST_LEVEL", -1), -1);
    unsetenv("VSK_TEST_LEVEL");
    EXPECT_EQ(read_level_env("VSK_TEST_LEVEL", 5), 5);
}

TEST(LogBacktrace, FramesAndTruncation)
{
    char buf[512];
    ASSERT_EQ(btrace_to_buf(buf, sizeof(buf)), 0);
    EXPECT_EQ(std::string(buf).rfind("#0: ", 0), 0u) << buf;
    char tiny[8];
    ASSERT_EQ(btrace_to_buf(tiny, sizeof(tiny)), 0);
    EXPECT_LT(strlen(tiny), sizeof(tiny));
}

TEST(LogDeath, FailedAssertionLogsBacktraceAndAborts)
{
    glog_init("vsk");
    log_default(g_log, stderr);
    log_timefmt(g_log, f_NO_TIME);
    EXPECT_DEATH(ZASSERT(1 + 1 == 3), "ASSERT at:\n#0: .*==\n");
    EXPECT_DEATH(log_abort("%s: giving up\n", "x"), "x: giving up\n.*Aborting at:\n");
}

} // namespace
