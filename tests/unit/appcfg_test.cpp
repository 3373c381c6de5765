// Tests of the shared configuration sections (log, runtime, listeners), their string helpers and
// their dumps, on configuration text parsed by libconfig.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

#include "appcfg.h"
#include "config.h"
#include "log.h"
#include "netops.h"

namespace {

// A configuration parsed from text, destroyed with the object.
struct ParsedConfig {
    config_t cfg;
    bool ok;
    explicit ParsedConfig(const std::string& text)
    {
        config_init(&cfg);
        ok = config_read_string(&cfg, text.c_str()) == CONFIG_TRUE;
    }
    ~ParsedConfig() { config_destroy(&cfg); }
    ParsedConfig(const ParsedConfig&) = delete;
    ParsedConfig& operator=(const ParsedConfig&) = delete;
    const config_setting_t* at(const char* path) const { return config_lookup(&cfg, path); }
};

// Collects what a dump function writes.
struct MemStream {
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    ~MemStream()
    {
        if (fp)
            fclose(fp);
        free(buf);
    }
    MemStream() = default;
    MemStream(const MemStream&) = delete;
    MemStream& operator=(const MemStream&) = delete;
    std::string text()
    {
        fflush(fp);
        return std::string(buf, len);
    }
};

void free_slots(rui_listener_cfg* slots, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        free(slots[i].ifc);
        slots[i].ifc = nullptr;
    }
}

} // namespace

TEST(TimeFormat, NamesMapBothWays)
{
    struct Row {
        const char* name;
        int32_t flags;
        const char* back;
    };
    const Row rows[] = {
        {"local", 0, "local"},
        {"LOCAL", 0, "local"},
        {"gmt", static_cast<int32_t>(f_GMT_TIME), "gmt"},
        {"GMT", static_cast<int32_t>(f_GMT_TIME), "gmt"},
        {"raw", static_cast<int32_t>(f_RAW_TIME), "raw"},
        {"Raw_Mono", static_cast<int32_t>(f_RAW_TIME | f_MONOTONIC_TIMER), "raw_mono"},
        {"no_time", static_cast<int32_t>(f_NO_TIME), "no_time"},
        {"utc", static_cast<int32_t>(f_BAD_TIME), "#error#"},
        {"", static_cast<int32_t>(f_BAD_TIME), "#error#"},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(str_to_timefmt(r.name), r.flags) << r.name;
        EXPECT_STREQ(timefmt_str(str_to_timefmt(r.name)), r.back) << r.name;
    }
    EXPECT_EQ(str_to_timefmt("raw_mono"), 1025);
    EXPECT_EQ(str_to_timefmt("gmt"), 512);
}

TEST(Ports, ValidRangeIsOneTo65535)
{
    struct Row {
        const char* text;
        bool valid;
    };
    const Row rows[] = {{"1", true},      {"8080", true}, {"65535", true}, {"08080", true},
                        {"0", false},     {"65536", false}, {"70000", false}, {"", false},
                        {"-1", false},    {"80a", false}, {" 80", false},  {"http", false}};
    for (const Row& r : rows)
        EXPECT_EQ(is_valid_port(r.text), r.valid) << "[" << r.text << "]";
    EXPECT_FALSE(is_valid_port(nullptr));
}

TEST(Protocols, CaseInsensitiveNames)
{
    EXPECT_EQ(str2proto("tcp"), IPPROTO_TCP);
    EXPECT_EQ(str2proto("TCP"), IPPROTO_TCP);
    EXPECT_EQ(str2proto("Udp"), IPPROTO_UDP);
    EXPECT_EQ(str2proto("sctp"), -1);
    EXPECT_EQ(str2proto(""), -1);
}

TEST(ConfigStr, LengthLimitDefaultAndEmpty)
{
    const std::string long_value(20, 'x');
    ParsedConfig pc("g: { short = \"abc\"; empty = \"\"; long = \"" + long_value +
                    "\"; num = 5; };");
    ASSERT_TRUE(pc.ok);
    const config_setting_t* g = pc.at("g");
    char dst[8];

    EXPECT_EQ(load_config_setting_str(g, "short", dst, sizeof(dst), "dflt"), 0);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(load_config_setting_str(g, "empty", dst, sizeof(dst), "dflt"), 0);
    EXPECT_STREQ(dst, "dflt");
    EXPECT_EQ(load_config_setting_str(g, "absent", dst, sizeof(dst), ""), 0);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(load_config_setting_str(g, "absent", dst, sizeof(dst), nullptr), 0);
    EXPECT_STREQ(dst, "");
    // Not a string: taken as absent.
    EXPECT_EQ(load_config_setting_str(g, "num", dst, sizeof(dst), "d"), 0);
    EXPECT_STREQ(dst, "d");

    // A value of `size` characters or more is refused and the field keeps its text.
    std::strcpy(dst, "keep");
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_config_setting_str(g, "long", dst, sizeof(dst), "dflt"), -1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(dst, "keep");
    EXPECT_NE(err.find("load_config_setting_str: long value is too long (20), max = 7 characters."),
              std::string::npos)
        << err;

    // Exactly size - 1 characters fit.
    ParsedConfig edge("v = \"1234567\"; w = \"12345678\";");
    ASSERT_TRUE(edge.ok);
    config_set_current(&edge.cfg);
    EXPECT_EQ(load_config_str("v", dst, sizeof(dst), ""), 0);
    EXPECT_STREQ(dst, "1234567");
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_config_str("w", dst, sizeof(dst), ""), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(dst, "1234567");
    config_set_current(nullptr);
    // With no configuration being loaded every key is absent.
    EXPECT_EQ(load_config_str("v", dst, sizeof(dst), "x"), 0);
    EXPECT_STREQ(dst, "x");
}

TEST(LogSection, DefaultsOfAnEmptyGroup)
{
    ParsedConfig pc("log: {};");
    ASSERT_TRUE(pc.ok);
    log_cfg lc{};
    ASSERT_EQ(load_log_config(pc.at("log"), &lc), 0);
    EXPECT_STREQ(lc.path, "");
    EXPECT_EQ(lc.level, L_INFO);
    EXPECT_EQ(lc.timefmt, 0);
    EXPECT_EQ(lc.max_size_mb, 64);
    EXPECT_EQ(lc.max_files, 16);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_FALSE(lc.eod_rotate);
}

TEST(LogSection, ExplicitValues)
{
    ParsedConfig pc(R"(log: { file = "/var/log/x.log"; level = "DEBUG"; time_format = "GMT";
                            max_size_mb = 2; max_files = 3; enable_syslog = false;
                            eod_rotate = true; };)");
    ASSERT_TRUE(pc.ok);
    log_cfg lc{};
    ASSERT_EQ(load_log_config(pc.at("log"), &lc), 0);
    EXPECT_STREQ(lc.path, "/var/log/x.log");
    EXPECT_EQ(lc.level, L_DEBUG);
    EXPECT_EQ(lc.timefmt, static_cast<int32_t>(f_GMT_TIME));
    EXPECT_EQ(lc.max_size_mb, 2);
    EXPECT_EQ(lc.max_files, 3);
    EXPECT_FALSE(lc.enable_syslog);
    EXPECT_TRUE(lc.eod_rotate);
}

TEST(LogSection, BadValuesFailOnStandardError)
{
    struct Row {
        const char* body;
        const char* message;
    };
    const Row rows[] = {
        {"level = \"verbose\";", "Invalid log level: verbose\n"},
        {"level = \"panic\";", "Invalid log level: panic\n"},
        {"time_format = \"utc\";", "Invalid time format: utc\n"},
        // 15 characters do not fit the 14 allowed for a level.
        {"level = \"debugdebugdebug\";", "level value is too long (15)"},
    };
    for (const Row& r : rows) {
        ParsedConfig pc(std::string("log: { ") + r.body + " };");
        ASSERT_TRUE(pc.ok) << r.body;
        log_cfg lc{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(load_log_config(pc.at("log"), &lc), -1) << r.body;
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(r.message), std::string::npos) << r.body << " -> " << err;
    }
}

TEST(LogSection, PathOf126CharactersFits127DoesNot)
{
    for (size_t n : {126u, 127u}) {
        ParsedConfig pc("log: { file = \"" + std::string(n, 'p') + "\"; };");
        ASSERT_TRUE(pc.ok);
        log_cfg lc{};
        testing::internal::CaptureStderr();
        const int rc = load_log_config(pc.at("log"), &lc);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, n == 126 ? 0 : -1) << n;
        EXPECT_EQ(std::strlen(lc.path), n == 126 ? 126u : 0u);
    }
}

TEST(RuntimeSection, DefaultsAndExplicitValues)
{
    ParsedConfig pc(R"(a: {};
        b: { pidfile = "/run/v.pid"; non_daemon = true; quiet = true;
             enforce_core_dumps = false; cpunum = 3; run_as_user = "nobody"; };
        c: { run_as_user = "abcdefghijabcdefghijabcdefghijK"; };)");
    ASSERT_TRUE(pc.ok);
    rt_cfg a{};
    ASSERT_EQ(load_rt_config(pc.at("a"), &a), 0);
    EXPECT_STREQ(a.pidfile, "");
    EXPECT_STREQ(a.user, "");
    EXPECT_FALSE(a.non_daemon);
    EXPECT_FALSE(a.quiet);
    EXPECT_TRUE(a.enforce_core_dumps);
    EXPECT_EQ(a.cpunum, -1);

    rt_cfg b{};
    ASSERT_EQ(load_rt_config(pc.at("b"), &b), 0);
    EXPECT_STREQ(b.pidfile, "/run/v.pid");
    EXPECT_STREQ(b.user, "nobody");
    EXPECT_TRUE(b.non_daemon);
    EXPECT_TRUE(b.quiet);
    EXPECT_FALSE(b.enforce_core_dumps);
    EXPECT_EQ(b.cpunum, 3);

    // A user name of 31 characters is over the 30 allowed.
    rt_cfg c{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_rt_config(pc.at("c"), &c), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(c.user, "");
}

TEST(Listener, PortsAndAliases)
{
    struct Row {
        const char* body;
        int rc;
        const char* port;
        const char* alias;
    };
    const Row rows[] = {
        {"port = 8080;", 0, "8080", "all:8080"},
        {"port = \"8080\";", 0, "8080", "all:8080"},
        {"ifc = \"lo\"; port = 8080;", 0, "8080", "lo:8080"},
        {"ifc = \"ANY\"; port = 81;", 0, "81", "all:81"},
        {"alias = \"mine\"; ifc = \"lo\"; port = 82;", 0, "82", "mine"},
        {"default_af = \"ipv4\"; ifc = \"lo\"; port = 83;", 0, "83", "lo:83"},
        {"port = 0;", -1, nullptr, nullptr},
        {"port = \"70000\";", -1, nullptr, nullptr},
        {"port = 70000;", -1, nullptr, nullptr},
        {"port = 1234567;", -1, nullptr, nullptr},
        {"port = \"123456\";", -1, nullptr, nullptr},
        {"port = \"http\";", -1, nullptr, nullptr},
        {"ifc = \"lo\";", -1, nullptr, nullptr},
        {"ifc = \"nosuchifc0\"; port = 8080;", -1, nullptr, nullptr},
        {"default_af = \"ipv4\"; ifc = \"nosuchifc0\"; port = 8080;", -1, nullptr, nullptr},
        {"protocol = \"sctp\"; port = 8080;", -1, nullptr, nullptr},
    };
    for (const Row& r : rows) {
        ParsedConfig pc(std::string("l: { ") + r.body + " };");
        ASSERT_TRUE(pc.ok) << r.body;
        rui_listener_cfg l{};
        testing::internal::CaptureStderr();
        const int rc = load_listener_from(pc.at("l"), &l);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, r.rc) << r.body << " -> " << err;
        if (r.rc == 0) {
            EXPECT_TRUE(l.is_valid) << r.body;
            EXPECT_STREQ(l.port, r.port) << r.body;
            EXPECT_STREQ(l.alias, r.alias) << r.body;
            EXPECT_EQ(l.proto, IPPROTO_TCP) << r.body;
        } else {
            EXPECT_FALSE(l.is_valid) << r.body;
            EXPECT_EQ(l.ifc, nullptr) << r.body;
        }
        free_slots(&l, 1);
    }
}

TEST(Listener, MessagesOfRefusedValues)
{
    struct Row {
        const char* body;
        const char* message;
    };
    const Row rows[] = {
        {"port = \"70000\";", "load_listener_from: invalid port value: [70000]\n"},
        {"alias = \"w\"; protocol = \"sctp\";", "load_listener_from: invald protocol for [w]: sctp\n"},
        {"alias = \"w\"; ifc = \"nosuchifc0\"; port = 1;",
         "load_listener_from: [w] failed the check for IPv4/v6 interface name\n"},
        {"alias = \"w\"; default_af = \"inet6\"; ifc = \"nosuchifc0\"; port = 1;",
         "load_listener_from: [w] failed the check for [inet6] interface name\n"},
        {"ifc = \"nosuchifc0\"; port = 1;", "invalid network interface name/address: nosuchifc0\n"},
    };
    for (const Row& r : rows) {
        ParsedConfig pc(std::string("l: { ") + r.body + " };");
        ASSERT_TRUE(pc.ok) << r.body;
        rui_listener_cfg l{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(load_listener_from(pc.at("l"), &l), -1) << r.body;
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(r.message), std::string::npos) << r.body << " -> " << err;
    }
}

TEST(Listener, DomainPathAndUnknownFamilyStopEarly)
{
    ParsedConfig pc(R"(d: { domain_path = "/tmp/v.sock"; protocol = "UDP"; };
                       u: { default_af = "ip"; ifc = "nosuchifc0"; };)");
    ASSERT_TRUE(pc.ok);
    rui_listener_cfg d{};
    ASSERT_EQ(load_listener_from(pc.at("d"), &d), 0);
    EXPECT_TRUE(d.is_valid);
    EXPECT_STREQ(d.domain_path, "/tmp/v.sock");
    EXPECT_EQ(d.proto, IPPROTO_UDP);
    EXPECT_STREQ(d.port, "");

    // An unknown family makes a valid listener without address or port; the interface is not
    // looked at.
    rui_listener_cfg u{};
    testing::internal::CaptureStderr();
    ASSERT_EQ(load_listener_from(pc.at("u"), &u), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(u.is_valid);
    EXPECT_EQ(u.pref_af, -1);
    EXPECT_EQ(u.ifc, nullptr);
    EXPECT_STREQ(u.port, "");
}

TEST(Listeners, GroupListAndOtherTypes)
{
    ParsedConfig pc(R"(
        one: { port = 8001; };
        five: ( { port = 8001; }, { port = 8002; }, { port = 8003; }, { port = 8004; },
                { port = 8005; } );
        bad: ( { port = 8001; }, { port = 0; }, { port = 8003; } );
        num = 5;)");
    ASSERT_TRUE(pc.ok);

    rui_listener_cfg one[RUI_LISTENER_SLOTS]{};
    ASSERT_EQ(get_listeners("web", pc.at("one"), one), 0);
    EXPECT_TRUE(one[0].is_valid);
    EXPECT_EQ(one[0].index, 1u);
    EXPECT_FALSE(one[1].is_valid);

    rui_listener_cfg five[RUI_LISTENER_SLOTS]{};
    ASSERT_EQ(get_listeners("web", pc.at("five"), five), 0);
    for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i) {
        EXPECT_TRUE(five[i].is_valid) << i;
        EXPECT_EQ(five[i].index, i + 1);
        EXPECT_EQ(std::string(five[i].port), std::to_string(8001 + i));
    }

    rui_listener_cfg bad[RUI_LISTENER_SLOTS]{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_listeners("web", pc.at("bad"), bad), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(bad[0].is_valid);
    EXPECT_FALSE(bad[1].is_valid);
    EXPECT_FALSE(bad[2].is_valid);

    rui_listener_cfg none[RUI_LISTENER_SLOTS]{};
    EXPECT_EQ(get_listeners("web", pc.at("num"), none), 0);
    EXPECT_FALSE(none[0].is_valid);
}

TEST(InterfaceName, KnownAnyAndUnknown)
{
    ParsedConfig pc(R"(a = "lo"; b = "All"; c = "nosuchifc0"; d = "";)");
    ASSERT_TRUE(pc.ok);
    config_set_current(&pc.cfg);
    char name[16];
    EXPECT_EQ(load_interface_name("a", name, sizeof(name)), 0);
    EXPECT_STREQ(name, "lo");
    EXPECT_EQ(load_interface_name("b", name, sizeof(name)), 0);
    EXPECT_EQ(load_interface_name("d", name, sizeof(name)), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_interface_name("c", name, sizeof(name)), -1);
    const std::string err = testing::internal::GetCapturedStderr();
    config_set_current(nullptr);
    EXPECT_NE(err.find("load_interface_name: cannot verify ifc=[nosuchifc0] for IPv4 or IPv6\n"),
              std::string::npos)
        << err;
}

TEST(ApplyLog, RotationLimitsReachTheLogger)
{
    log_ctx lg{};
    log_cfg lc{};
    lc.max_size_mb = 3;
    lc.max_files = 5;
    apply_log_config(&lg, &lc);
    EXPECT_EQ(log_rota_maxsize(&lg), 3u * 1048576u);
    EXPECT_EQ(log_rota_maxfiles(&lg), 5);
    EXPECT_EQ(log_rota_eod(&lg), 0);

    lc.eod_rotate = true;
    const time_t before = time(nullptr);
    apply_log_config(&lg, &lc);
    // The next end of day lies after now and within a day and a bit (DST shifts included).
    EXPECT_GE(log_rota_eod(&lg), before);
    EXPECT_LE(log_rota_eod(&lg), before + 26 * 3600);
}

TEST(Dumps, LogSection)
{
    log_ctx lg{};
    log_cfg lc{};
    std::strcpy(lc.path, "/var/log/v.log");
    lc.level = L_CRIT;
    lc.timefmt = static_cast<int32_t>(f_GMT_TIME);
    lc.max_size_mb = 0;
    {
        MemStream ms;
        dump_log_config(ms.fp, "", &lc, &lg);
        EXPECT_EQ(ms.text(), "Log (regular):\n\tpath   = /var/log/v.log\n\tlevel  = ctitical\n"
                             "\tformat = gmt\n\n");
    }
    lc.max_size_mb = 2;
    lc.max_files = 4;
    log_set_eod(&lg, 12345);
    MemStream ms;
    dump_log_config(ms.fp, "access", &lc, &lg);
    EXPECT_EQ(ms.text(), "Log (access):\n\tpath   = /var/log/v.log\n\tlevel  = ctitical\n"
                         "\tformat = gmt\n\trota:max size   = 2 Mb\n\trota:max files  = 4\n"
                         "\trota:end-of-day = off (12345)\n\n");
}

TEST(Dumps, RuntimeSection)
{
    rt_cfg rc{};
    rc.cpunum = -1;
    {
        MemStream ms;
        dump_rt_config(ms.fp, &rc);
        EXPECT_EQ(ms.text(), "Runtime:\n\tflags:\n\n");
    }
    std::strcpy(rc.pidfile, "/run/v.pid");
    std::strcpy(rc.user, "nobody");
    rc.cpunum = 0;
    rc.non_daemon = rc.quiet = rc.enforce_core_dumps = true;
    MemStream ms;
    dump_rt_config(ms.fp, &rc);
    EXPECT_EQ(ms.text(), "Runtime:\n\tpid file = /run/v.pid\n\trun as user: nobody\n\tCPU: 0\n"
                         "\tflags: [non-daemon] [quiet] [cores]\n\n");
}

TEST(Dumps, ListenersStopAtTheFirstInvalidSlot)
{
    rui_cfg rc{};
    rui_listener_cfg* u = rc.user;
    u[0].is_valid = true;
    std::strcpy(u[0].alias, "all:8080");
    std::strcpy(u[0].port, "8080");
    u[0].pref_af = 0;
    u[1].is_valid = true;
    std::strcpy(u[1].alias, "local");
    std::strcpy(u[1].domain_path, "/tmp/v.sock");
    // Behind an empty slot: not shown.
    u[3].is_valid = true;
    std::strcpy(u[3].alias, "hidden");
    rc.custom[0].is_valid = true;
    std::strcpy(rc.custom[0].alias, "c6");
    std::strcpy(rc.custom[0].port, "9000");
    rc.custom[0].pref_af = AF_INET6;
    rc.max_accept = 64;
    rc.user_request_tmout = 1000;

    MemStream ms;
    dump_rui_config(ms.fp, &rc);
    EXPECT_EQ(ms.text(), "Listeners:\n"
                         "\tuser listener[all:8080]: ifc=<anyaddr>, af=any port=8080\n"
                         "\tuser listener[local]: path=/tmp/v.sock\n"
                         "\n"
                         "\tcustom listener[c6]: ifc=<anyaddr>, af=inet6 port=9000\n"
                         "\n"
                         "\tmax-accepted=64\n"
                         "\tI/O timeouts: user-rq=1000, admin-rq=0 custom-rq=0\n\n");

    rui_cfg empty{};
    MemStream ms2;
    dump_rui_config(ms2.fp, &empty);
    EXPECT_EQ(ms2.text(), "Listeners:\n\n\tI/O timeouts: user-rq=0, admin-rq=0 custom-rq=0\n\n");
}
