// Tests of the agent's configuration: files written to a temporary directory and loaded the way
// the agent loads them, command-line listeners, the final check and the exact dump.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "cfg.h"
#include "log.h"
#include "netops.h"

namespace {

namespace fs = std::filesystem;

class CfgTest : public testing::Test {
protected:
    std::string dir;
    std::string data;
    vesk_cfg cfg{};

    void SetUp() override
    {
        char tmpl[] = "/tmp/vsk_cfg_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        data = dir + "/data";
        fs::create_directory(data);
        init_vesk_config(&cfg);
    }

    void TearDown() override
    {
        free_ifcs();
        fs::remove_all(dir);
    }

    // Interface records of loaded listeners belong to the configuration's owner.
    void free_ifcs()
    {
        for (rui_listener_cfg* slots : {cfg.rui.user, cfg.rui.admin, cfg.rui.custom})
            for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i) {
                free(slots[i].ifc);
                slots[i].ifc = nullptr;
            }
    }

    void reinit()
    {
        free_ifcs();
        init_vesk_config(&cfg);
    }

    std::string write(const std::string& text, const char* name = "vsk.conf")
    {
        const std::string path = dir + "/" + name;
        std::ofstream(path) << text;
        return path;
    }

    // A complete "vesk" group with the given extra keys; data_dir points at the test's directory.
    std::string conf(const std::string& extra, bool with_log = true) const
    {
        return std::string("vesk: {\n") + (with_log ? "  log: { level = \"norm\"; };\n" : "") +
               "  runtime: { non_daemon = true; };\n  data_dir = \"" + data + "\";\n" + extra +
               "\n};\n";
    }

    // Loads and returns the result, with what went to standard error (the log, at start-up).
    int load(const std::string& text, uint32_t flags, std::string* err = nullptr)
    {
        const std::string path = write(text);
        testing::internal::CaptureStderr();
        const int rc = load_vesk_config(path.c_str(), &cfg, flags);
        const std::string e = testing::internal::GetCapturedStderr();
        if (err)
            *err = e;
        return rc;
    }

    std::string dump() const
    {
        char* buf = nullptr;
        size_t len = 0;
        FILE* fp = open_memstream(&buf, &len);
        dump_vesk_config(fp, &cfg);
        fclose(fp);
        std::string text(buf, len);
        free(buf);
        return text;
    }
};

bool has(const std::string& text, const std::string& piece)
{
    return text.find(piece) != std::string::npos;
}

} // namespace

TEST_F(CfgTest, BuiltInDefaults)
{
    EXPECT_EQ(cfg.log.level, L_INFO);
    EXPECT_EQ(cfg.log.max_size_mb, 8);
    EXPECT_EQ(cfg.log.max_files, 8);
    EXPECT_FALSE(cfg.log.enable_syslog);
    EXPECT_FALSE(cfg.rt.enforce_core_dumps);
    EXPECT_EQ(cfg.rt.cpunum, 0);
    EXPECT_EQ(cfg.max_tasks, 0u);
    EXPECT_EQ(cfg.task_tmout_ms, 5000u);
    EXPECT_STREQ(cfg.data_dir, "/tmp");
    EXPECT_EQ(cfg.lbdb.port, 0);
}

TEST_F(CfgTest, MinimalFileTakesKeyTableDefaults)
{
    ASSERT_EQ(load(conf(""), 0), 0);
    const std::string path = dir + "/vsk.conf";
    EXPECT_STREQ(cfg.config_path, path.c_str());
    EXPECT_EQ(cfg.log.level, L_NORM);
    EXPECT_EQ(cfg.log.max_size_mb, 64);
    EXPECT_TRUE(cfg.rt.non_daemon);
    EXPECT_TRUE(cfg.rt.enforce_core_dumps);
    EXPECT_EQ(cfg.rt.cpunum, -1);
    EXPECT_STREQ(cfg.data_dir, data.c_str());
    EXPECT_EQ(cfg.urq_tmout_sec, 1);
    EXPECT_EQ(cfg.max_tasks, 4096u);
    EXPECT_EQ(cfg.task_tmout_ms, 5000u);
    EXPECT_EQ(cfg.max_mmap_mb, 8u);
    EXPECT_FALSE(cfg.rui.user[0].is_valid);
    EXPECT_EQ(cfg.rui.max_accept, 64u) << "listeners given only on the command line still accept";
    EXPECT_STREQ(cfg.udp_cha.url, "");
}

TEST_F(CfgTest, MissingOrBrokenFilesFail)
{
    std::string err;
    EXPECT_EQ(load(conf("", false), 0, &err), -1);
    EXPECT_TRUE(has(err, "load_config: missing log section\n")) << err;
    EXPECT_TRUE(has(err, "load_vesk_config: FAILED (-1)\n")) << err;

    EXPECT_EQ(load("vesk: { log: {}; data_dir = \"" + data + "\"; };", 0, &err), -1);
    EXPECT_TRUE(has(err, "load_config: missing runtime section\n")) << err;

    EXPECT_EQ(load("vesk: {\n log: {};\n runtime: { x = ; };\n};\n", 0, &err), -1);
    EXPECT_TRUE(has(err, "Error reading/parsing config file [" + dir + "/vsk.conf]: line 3: "))
        << err;

    const std::string missing = dir + "/none.conf";
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_vesk_config(missing.c_str(), &cfg, 0), -1);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "Failed to load [" + missing + "]\n")) << err;

    // A section reader's failure stops the load.
    EXPECT_EQ(load("vesk: { log: { level = \"verbose\"; }; runtime: {}; };", 0, &err), -1);
    EXPECT_TRUE(has(err, "Invalid log level: verbose\n")) << err;
}

TEST_F(CfgTest, DataDirectoryMustExist)
{
    std::string err;
    std::string text = conf("");
    const std::string gone = dir + "/gone";
    text.replace(text.find(data), data.size(), gone);
    EXPECT_EQ(load(text, 0, &err), -1);
    EXPECT_TRUE(has(err, "load_config: cannot accept [" + gone + "] as vesk.data_dir\n")) << err;
}

TEST_F(CfgTest, UdpInput)
{
    std::string err;
    EXPECT_EQ(load(conf("udp_input: { must_lock = false; };"), 0, &err), -1);
    EXPECT_TRUE(has(err, "load_config: missing url for UDP channel\n")) << err;

    // A refused (too long) URL shows up as a missing one.
    reinit();
    const std::string long_url = "udp://" + std::string(121, 'h');
    EXPECT_EQ(load(conf("udp_input: { url = \"" + long_url + "\"; };"), 0, &err), -1);
    EXPECT_TRUE(has(err, "url value is too long (127)")) << err;
    EXPECT_TRUE(has(err, "missing url for UDP channel")) << err;

    reinit();
    ASSERT_EQ(load(conf("udp_input: { url = \"udp://239.1.1.1:5000\"; must_lock = false; "
                        "lock_dir = \"/var/lock\"; };"),
                   0),
              0);
    EXPECT_TRUE(cfg.udp_cha.is_gzipped);
    EXPECT_FALSE(cfg.udp_cha.must_lock);
    EXPECT_STREQ(cfg.udp_cha.lkdir, "");
    EXPECT_TRUE(has(dump(), "\tUDP input            = [udp://239.1.1.1:5000] ifc=all fmt=gzip "
                            "lk=[none]\n"));

    reinit();
    ASSERT_EQ(load(conf("udp_input: { url = \"udp://239.1.1.1:5000\"; is_gzipped = false; "
                        "mcast_ifc = \"lo\"; };"),
                   0),
              0);
    EXPECT_TRUE(cfg.udp_cha.must_lock);
    EXPECT_STREQ(cfg.udp_cha.lkdir, "/tmp");
    EXPECT_TRUE(has(dump(), "\tUDP input            = [udp://239.1.1.1:5000] ifc=lo fmt=text "
                            "lk=[/tmp]\n"));
}

TEST_F(CfgTest, WebInput)
{
    ASSERT_EQ(load(conf("web_input: { ifc = \"lo\"; port = 8080; };"), 0), 0);
    EXPECT_TRUE(cfg.rui.user[0].is_valid);
    EXPECT_STREQ(cfg.rui.user[0].alias, "lo:8080");
    EXPECT_EQ(cfg.rui.max_accept, 64u);
    EXPECT_EQ(cfg.rui.user_request_tmout, 1000);
    EXPECT_EQ(validate_config(&cfg), 0);

    TearDown();
    SetUp();
    ASSERT_EQ(load(conf("web_input: ( { port = 8080; }, { port = 8081; } );"), 0), 0);
    EXPECT_TRUE(cfg.rui.user[1].is_valid);
    EXPECT_EQ(cfg.rui.max_accept, 64u);

    TearDown();
    SetUp();
    ASSERT_EQ(load(conf("web_input: { port = 8080; max_accept = 10; };"), 0), 0);
    EXPECT_EQ(cfg.rui.max_accept, 10u);

    std::string err;
    TearDown();
    SetUp();
    EXPECT_EQ(load(conf("web_input: { ifc = \"nosuchifc0\"; port = 8080; };"), 0, &err), -1);
    EXPECT_TRUE(has(err, "load_config: failed to load web listener(s)\n")) << err;
    EXPECT_FALSE(cfg.rui.user[0].is_valid);
}

TEST_F(CfgTest, DatabaseNeedsUrlPrefix)
{
    const std::string db = "lbdb: { host = \"127.0.0.1\"; port = 6379; sha1_dir = \"/opt/lua\"; "
                           "connect_tmout_ms = 1500; };";
    std::string err;
    EXPECT_EQ(load(conf(db), 0, &err), -1);
    EXPECT_TRUE(has(err, "load_config: vesk.local_url_prefix must be set for lbdb-enabled mode\n"))
        << err;

    reinit();
    ASSERT_EQ(load(conf(db + " local_url_prefix = \"http://10.0.0.1/seg/\";"), 0), 0);
    EXPECT_STREQ(cfg.seg_url_pfx, "http://10.0.0.1/seg");
    EXPECT_STREQ(cfg.lbdb.host, "127.0.0.1");
    EXPECT_EQ(cfg.lbdb.port, 6379);
    EXPECT_EQ(cfg.lbdb.tmout.tv_sec, 1);
    EXPECT_EQ(cfg.lbdb.tmout.tv_usec, 500000);
    const std::string text = dump();
    EXPECT_TRUE(has(text, "\tlocal URL prefix     = http://10.0.0.1/seg\n\n")) << text;
    EXPECT_TRUE(has(text, "Load-balancer DB: 127.0.0.1:6379\n"
                          "\tConnect timeout        = 1.500000 sec\n"
                          "\tSHA1 directory         = /opt/lua\n"
                          "-----------------------------------\n"))
        << text;

    // Port 0: the database is off and needs no prefix.
    reinit();
    ASSERT_EQ(load(conf("lbdb: { host = \"h\"; sha1_dir = \"/d\"; };"), 0), 0);
    EXPECT_EQ(cfg.lbdb.port, 0);
    EXPECT_EQ(cfg.lbdb.tmout.tv_sec, 0);
    EXPECT_EQ(cfg.lbdb.tmout.tv_usec, 500000);
    EXPECT_FALSE(has(dump(), "Load-balancer DB"));
}

TEST_F(CfgTest, DatabaseSectionChecks)
{
    struct Row {
        const char* group;
        const char* message;
    };
    const Row rows[] = {
        {"lbdb: { port = 6379; sha1_dir = \"/d\"; };", "load_lbdb_cfg: missing host setting\n"},
        {"lbdb: { host = \"h\"; port = -1; sha1_dir = \"/d\"; };",
         "load_lbdb_cfg: invalid port value: -1\n"},
        {"lbdb: { host = \"h\"; port = 6379; };", "load_lbdb_cfg: missing sha1_dir setting\n"},
    };
    for (const Row& r : rows) {
        reinit();
        std::string err;
        EXPECT_EQ(load(conf(r.group), 0, &err), -1) << r.group;
        EXPECT_TRUE(has(err, r.message)) << r.group << " -> " << err;
    }
}

TEST_F(CfgTest, FullDump)
{
    ASSERT_EQ(load(conf("web_input: { ifc = \"lo\"; port = 8080; };\n"
                        "  max_tasks = 0; urq_tmout_sec = 3; task_tmout_ms = 700;\n"
                        "  max_mmap_mb = 2;"),
                   0),
              0);
    const std::string expected = std::string("-----------------------------------\n"
                                             "Log (regular):\n"
                                             "\tpath   = \n"
                                             "\tlevel  = normal\n"
                                             "\tformat = local\n"
                                             "\trota:max size   = 64 Mb\n"
                                             "\trota:max files  = 16\n"
                                             "\trota:end-of-day = off (") +
                                 std::to_string(static_cast<long>(log_rota_eod(g_log))) +
                                 ")\n"
                                 "\n"
                                 "Runtime:\n"
                                 "\tflags: [non-daemon] [cores]\n"
                                 "\n"
                                 "Listeners:\n"
                                 "\tuser listener[lo:8080]: ifc=lo, af=any port=8080\n"
                                 "\n"
                                 "\n"
                                 "\tmax-accepted=64\n"
                                 "\tI/O timeouts: user-rq=1000, admin-rq=0 custom-rq=0\n"
                                 "\n"
                                 "Misc:\n"
                                 "\tdata directory       = [" +
                                 data +
                                 "]\n"
                                 "\trequest time-out     = 3 sec\n"
                                 "\tmax tasks            = 0 (unlimited)\n"
                                 "\ttask time-out        = 700 ms\n"
                                 "\tmmap up to           = 2 MB\n"
                                 "\n"
                                 "-----------------------------------\n";
    EXPECT_EQ(dump(), expected);

    reinit();
    cfg.max_tasks = 5;
    EXPECT_TRUE(has(dump(), "\tmax tasks            = 5 \n"));
}

TEST_F(CfgTest, ReloadRefreshesOnlyDirectoryPrefixAndNumbers)
{
    ASSERT_EQ(load(conf("web_input: { port = 8080; };\n  max_tasks = 10;"), 0), 0);
    const std::string data2 = dir + "/data2";
    fs::create_directory(data2);
    std::string text = "vesk: {\n  log: { level = \"debug\"; };\n  runtime: { cpunum = 1; };\n"
                       "  web_input: { port = 9090; };\n"
                       "  udp_input: { url = \"udp://239.1.1.1:5000\"; };\n"
                       "  data_dir = \"" +
                       data2 +
                       "\";\n  local_url_prefix = \"http://x/\";\n  max_tasks = 20;\n"
                       "  urq_tmout_sec = 7;\n  task_tmout_ms = 8;\n  max_mmap_mb = 9;\n};\n";
    std::string err;
    const int saved_level = g_mod_ll[0];
    log_set_module_level(0, L_INFO);
    const int rc = load(text, 1, &err);
    log_set_module_level(0, saved_level);
    ASSERT_EQ(rc, 0) << err;
    EXPECT_TRUE(has(err, "load_config: configuration re-loaded\n")) << err;
    EXPECT_STREQ(cfg.data_dir, data2.c_str());
    EXPECT_STREQ(cfg.seg_url_pfx, "http://x");
    EXPECT_EQ(cfg.max_tasks, 20u);
    EXPECT_EQ(cfg.urq_tmout_sec, 7);
    EXPECT_EQ(cfg.task_tmout_ms, 8u);
    EXPECT_EQ(cfg.max_mmap_mb, 9u);
    // Sections, listeners and the channel stay as first loaded.
    EXPECT_EQ(cfg.log.level, L_NORM);
    EXPECT_EQ(cfg.rt.cpunum, -1);
    EXPECT_STREQ(cfg.rui.user[0].port, "8080");
    EXPECT_STREQ(cfg.udp_cha.url, "");

    // The re-load flag is the low byte only.
    reinit();
    ASSERT_EQ(load(conf(""), 0x100), 0);
    EXPECT_EQ(cfg.log.level, L_NORM);
}

TEST_F(CfgTest, WebListenerFromCommandLine)
{
    std::string err;
    testing::internal::CaptureStderr();
    EXPECT_EQ(add_web_cli(&cfg, "lo", AF_INET), 22);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "add_web_cli: missing port number in lo\n")) << err;

    testing::internal::CaptureStderr();
    EXPECT_EQ(add_web_cli(&cfg, "nosuchifc0:8080", AF_INET), 22);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "add_web_cli: invalid interface name: nosuchifc0\n")) << err;
    EXPECT_FALSE(cfg.rui.user[2].is_valid);
    EXPECT_STREQ(cfg.rui.user[2].alias, "");

    // An empty table: the third slot takes it, and the check still fails because the first slot
    // is empty.
    ASSERT_EQ(add_web_cli(&cfg, "lo:8080", AF_INET), 0);
    const rui_listener_cfg& l = cfg.rui.user[2];
    EXPECT_TRUE(l.is_valid);
    EXPECT_STREQ(l.alias, "web-cli");
    EXPECT_EQ(l.index, 3u);
    EXPECT_EQ(l.proto, IPPROTO_TCP);
    EXPECT_EQ(l.pref_af, AF_INET);
    ASSERT_NE(l.ifc, nullptr);
    EXPECT_STREQ(l.ifc->name, "lo");
    EXPECT_STREQ(l.port, "8080");
    EXPECT_STREQ(l.kind.sym4, "Web");
    EXPECT_FALSE(cfg.rui.user[0].is_valid);
    EXPECT_FALSE(cfg.rui.user[3].is_valid);
    testing::internal::CaptureStderr();
    EXPECT_EQ(validate_config(&cfg), -1);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "validate_config: at least one listener must be present\n")) << err;

    // A second option overwrites the same slot; the port is cut to five characters.
    ASSERT_EQ(add_web_cli(&cfg, "lo:123456", AF_INET), 0);
    EXPECT_STREQ(cfg.rui.user[2].port, "12345");
    EXPECT_FALSE(cfg.rui.user[1].is_valid);
    EXPECT_FALSE(cfg.rui.user[3].is_valid);
}

TEST_F(CfgTest, WebListenerFromCommandLineBehindFileListeners)
{
    ASSERT_EQ(load(conf("web_input: ( { port = 8001; }, { port = 8002; } );"), 0), 0);
    ASSERT_EQ(add_web_cli(&cfg, "lo:8080", AF_INET), 0);
    EXPECT_STREQ(cfg.rui.user[0].port, "8001");
    EXPECT_STREQ(cfg.rui.user[1].port, "8002");
    EXPECT_STREQ(cfg.rui.user[2].port, "8080");
    EXPECT_EQ(validate_config(&cfg), 0);

    // All four busy: the first slot is replaced, with a warning naming it.
    cfg.rui.user[3].is_valid = true;
    std::strcpy(cfg.rui.user[0].alias, "first");
    testing::internal::CaptureStderr();
    ASSERT_EQ(add_web_cli(&cfg, "lo:9000", AF_INET), 0);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "add_web_cli: all interface slots are busy, [first] will be replaced\n"))
        << err;
    EXPECT_STREQ(cfg.rui.user[0].port, "9000");
    EXPECT_STREQ(cfg.rui.user[0].alias, "web-cli");
    EXPECT_STREQ(cfg.rui.user[2].port, "8080");
}

TEST_F(CfgTest, ValidateAcceptsAnyOfThreeInputs)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(validate_config(&cfg), -1);
    testing::internal::GetCapturedStderr();

    vesk_cfg with_custom = cfg;
    with_custom.rui.custom[0].is_valid = true;
    EXPECT_EQ(validate_config(&with_custom), 0);

    vesk_cfg with_udp = cfg;
    std::strcpy(with_udp.udp_cha.url, "udp://239.1.1.1:5000");
    EXPECT_EQ(validate_config(&with_udp), 0);

    // A user listener counts only in the first slot.
    vesk_cfg with_user = cfg;
    with_user.rui.user[1].is_valid = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(validate_config(&with_user), -1);
    testing::internal::GetCapturedStderr();
    with_user.rui.user[0].is_valid = true;
    EXPECT_EQ(validate_config(&with_user), 0);
}

TEST_F(CfgTest, ShippedSampleLoads)
{
    // The sample uses paths relative to the directory the agent starts in.
    const fs::path sample = fs::path(__FILE__).parent_path() / "../../etc/vsk.conf";
    ASSERT_TRUE(fs::exists(sample)) << sample;
    fs::create_directories(dir + "/var/data");
    const fs::path cwd = fs::current_path();
    fs::current_path(dir);
    testing::internal::CaptureStderr();
    const int rc = load_vesk_config(sample.c_str(), &cfg, 0);
    const std::string err = testing::internal::GetCapturedStderr();
    fs::current_path(cwd);
    ASSERT_EQ(rc, 0) << err;
    EXPECT_TRUE(cfg.rt.non_daemon);
    EXPECT_STREQ(cfg.log.path, "");
    EXPECT_STREQ(cfg.data_dir, "./var/data");
    EXPECT_TRUE(cfg.rui.user[0].is_valid);
    ASSERT_NE(cfg.rui.user[0].ifc, nullptr);
    EXPECT_STREQ(cfg.rui.user[0].ifc->name, "lo");
    EXPECT_STREQ(cfg.rui.user[0].port, "8480");
    EXPECT_STREQ(cfg.udp_cha.url, "");
    EXPECT_EQ(cfg.lbdb.port, 0);
    EXPECT_EQ(validate_config(&cfg), 0);
}
