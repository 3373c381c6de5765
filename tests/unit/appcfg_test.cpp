// Tests of the shared configuration sections (log, runtime, listeners), their string helpers and
// their dumps, on configuration files written to a temporary directory.
#include <cstring>
#include <fstream>

#include "appcfg.h"
#include "config.h"
#include "test_support.h"

namespace {

using vsk_test::contains;

// Configuration files parsed by libconfig, and what their readers logged (stderr or the log).
class AppcfgTest : public testing::Test {
protected:
    vsk_test::log_capture log;
    vsk_test::temp_dir dir{"vsk-appcfg"};
    config_t cfg{};
    std::string out;

    void SetUp() override { config_init(&cfg); }
    void TearDown() override { config_destroy(&cfg); }
    const config_setting_t* parse(const std::string& text, const char* path = "g")
    {
        config_destroy(&cfg);
        config_init(&cfg);
        std::ofstream(dir / "t.conf") << text;
        EXPECT_EQ(config_read_file(&cfg, (dir / "t.conf").c_str()), CONFIG_TRUE) << text;
        return config_lookup(&cfg, path);
    }
    template <class F> int run(F&& f)
    {
        testing::internal::CaptureStderr();
        const int rc = f();
        out = testing::internal::GetCapturedStderr() + log.take();
        return rc;
    }
};

TEST(AppcfgNames, TimeFormatsAndPorts)
{
    const std::tuple<const char*, int32_t, const char*> formats[] = {
        {"LOCAL", 0, "local"}, {"GMT", 512, "gmt"}, {"Raw_Mono", 1025, "raw_mono"},
        {"no_time", static_cast<int32_t>(f_NO_TIME), "no_time"},
        {"utc", static_cast<int32_t>(f_BAD_TIME), "#error#"}};
    for (const auto& [name, flags, back] : formats) {
        EXPECT_EQ(str_to_timefmt(name), flags) << name;
        EXPECT_STREQ(timefmt_str(str_to_timefmt(name)), back) << name;
    }
    const std::pair<const char*, bool> ports[] = {{"1", true},  {"65535", true}, {"0", false},
                                                  {"65536", false}, {"", false},  {"80a", false}};
    for (const auto& [text, valid] : ports)
        EXPECT_EQ(is_valid_port(text), valid) << "[" << text << "]";
}

TEST_F(AppcfgTest, StringValuesLongerThanTheFieldAreRefused)
{
    const config_setting_t* g = parse("g: { fits = \"1234567\"; over = \"12345678\"; e = \"\"; };");
    char dst[8] = "keep";
    EXPECT_EQ(run([&] { return load_config_setting_str(g, "over", dst, sizeof(dst), "d"); }), -1);
    EXPECT_STREQ(dst, "keep");
    EXPECT_TRUE(contains(out, "over value is too long (8), max = 7 characters.")) << out;
    EXPECT_EQ(load_config_setting_str(g, "fits", dst, sizeof(dst), "d"), 0);
    EXPECT_STREQ(dst, "1234567");
    EXPECT_EQ(load_config_setting_str(g, "e", dst, sizeof(dst), "d"), 0);
    EXPECT_STREQ(dst, "d") << "an empty value takes the default";
}

TEST_F(AppcfgTest, LogAndRuntimeSections)
{
    log_cfg lc{};
    ASSERT_EQ(load_log_config(parse("g: {};"), &lc), 0);
    EXPECT_EQ(std::make_tuple(lc.level, lc.max_size_mb, lc.max_files, lc.enable_syslog),
              std::make_tuple(static_cast<int>(L_INFO), 64, 16, true));
    ASSERT_EQ(load_log_config(parse("g: { level = \"DEBUG\"; time_format = \"GMT\"; };"), &lc), 0);
    EXPECT_EQ(lc.level, L_DEBUG);
    EXPECT_EQ(lc.timefmt, static_cast<int32_t>(f_GMT_TIME));
    EXPECT_FALSE(lc.batch_writes);
    ASSERT_EQ(load_log_config(parse("g: { batch_writes = true; };"), &lc), 0);
    EXPECT_TRUE(lc.batch_writes);

    const std::pair<std::string, std::string> bad[] = {
        {"level = \"verbose\";", "Invalid log level: verbose\n"},
        {"level = \"debugdebugdebug\";", "level value is too long (15)"},
        {"file = \"" + std::string(127, 'p') + "\";", "file value is too long (127)"},
        {"batch_writes = 1;", "Invalid log batch_writes: must be true or false\n"},
    };
    for (const auto& [body, message] : bad) {
        const config_setting_t* g = parse("g: { " + body + " };");
        EXPECT_EQ(run([&] { return load_log_config(g, &lc); }), -1) << body;
        EXPECT_TRUE(contains(out, message)) << body << " -> " << out;
    }

    rt_cfg rc{};
    ASSERT_EQ(load_rt_config(parse("g: {};"), &rc), 0);
    EXPECT_EQ(std::make_pair(rc.enforce_core_dumps, rc.cpunum), std::make_pair(true, -1));
    const config_setting_t* g = parse("g: { run_as_user = \"" + std::string(31, 'u') + "\"; };");
    EXPECT_EQ(run([&] { return load_rt_config(g, &rc); }), -1) << "30 characters at most";
}

TEST_F(AppcfgTest, ListenerPortsAliasesAndRefusals)
{
    // `want` is "alias port" when the listener loads, the message logged when it is refused.
    const struct {
        const char* body;
        int rc;
        const char* want;
    } rows[] = {
        {"port = 8080;", 0, "all:8080 8080"},
        {"port = \"8080\";", 0, "all:8080 8080"},
        {"ifc = \"lo\"; port = 8080;", 0, "lo:8080 8080"},
        {"alias = \"mine\"; ifc = \"lo\"; port = 82;", 0, "mine 82"},
        {"port = 0;", -1, "load_listener_from: invalid port value: [0]\n"},
        {"port = \"70000\";", -1, "load_listener_from: invalid port value: [70000]\n"},
        {"ifc = \"lo\";", -1, "invalid port value"},
        {"alias = \"w\"; ifc = \"nosuchifc0\"; port = 1;", -1,
         "load_listener_from: [w] failed the check for IPv4/v6 interface name\n"},
        {"alias = \"w\"; protocol = \"sctp\"; port = 1;", -1,
         "load_listener_from: invald protocol for [w]: sctp\n"},
    };
    for (const auto& r : rows) {
        const config_setting_t* g = parse(std::string("g: { ") + r.body + " };");
        rui_listener_cfg l{};
        EXPECT_EQ(run([&] { return load_listener_from(g, &l); }), r.rc) << r.body << " -> " << out;
        EXPECT_EQ(l.is_valid, r.rc == 0) << r.body;
        const std::string got = r.rc ? out : std::string(l.alias) + " " + l.port;
        EXPECT_TRUE(r.rc ? contains(got, r.want) : got == r.want) << r.body << " -> " << got;
        free(l.ifc);
    }
}

TEST_F(AppcfgTest, ListenerListsTakeFourAndStopAtAFailure)
{
    rui_listener_cfg five[RUI_LISTENER_SLOTS]{};
    const config_setting_t* g5 = parse("g: ( { port = 8001; }, { port = 8002; }, { port = 8003; }, "
                                       "{ port = 8004; }, { port = 8005; } );");
    ASSERT_EQ(get_listeners("web", g5, five), 0);
    std::string got;
    for (const rui_listener_cfg& l : five)
        got += std::to_string(l.is_valid) + " " + l.port + " #" + std::to_string(l.index) + ", ";
    EXPECT_EQ(got, "1 8001 #1, 1 8002 #2, 1 8003 #3, 1 8004 #4, ");
    rui_listener_cfg bad[RUI_LISTENER_SLOTS]{};
    const config_setting_t* g = parse("g: ( { port = 8001; }, { port = 0; }, { port = 8003; } );");
    EXPECT_EQ(run([&] { return get_listeners("web", g, bad); }), -1);
    EXPECT_TRUE(bad[0].is_valid && !bad[1].is_valid && !bad[2].is_valid);
}

TEST(AppcfgDumps, LogLevelNamesAndListenersUpToAnEmptySlot)
{
    log_ctx lg{};
    log_cfg lc{};
    std::strcpy(lc.path, "/var/log/v.log");
    lc.level = L_CRIT;
    lc.timefmt = static_cast<int32_t>(f_GMT_TIME);
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    dump_log_config(fp, "access", &lc, &lg);
    rui_cfg rc{};
    rc.user[0].is_valid = rc.user[1].is_valid = rc.user[3].is_valid = true;
    std::strcpy(rc.user[0].alias, "all:8080");
    std::strcpy(rc.user[0].port, "8080");
    std::strcpy(rc.user[1].alias, "local");
    std::strcpy(rc.user[1].domain_path, "/tmp/v.sock");
    std::strcpy(rc.user[3].alias, "hidden"); // behind an empty slot: not shown
    dump_rui_config(fp, &rc);
    fclose(fp);
    EXPECT_EQ(std::string(buf, len),
              "Log (access):\n\tpath   = /var/log/v.log\n\tlevel  = ctitical\n\tformat = gmt\n\n"
              "Listeners:\n"
              "\tuser listener[all:8080]: ifc=<anyaddr>, af=any port=8080\n"
              "\tuser listener[local]: path=/tmp/v.sock\n\n\n"
              "\tI/O timeouts: user-rq=0, admin-rq=0 custom-rq=0\n\n");
    free(buf);
}

} // namespace
