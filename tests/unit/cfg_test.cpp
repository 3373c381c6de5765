// Tests of the agent's configuration: files written to a temporary directory and loaded the way
// the agent loads them, command-line listeners, the final check and the dump.
#include <sys/socket.h>

#include <cstring>
#include <fstream>

#include "cfg.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using vsk_test::contains;

class CfgTest : public testing::Test {
protected:
    vsk_test::log_capture log;
    vsk_test::temp_dir dir{"vsk-cfg"};
    vesk_cfg cfg{};
    std::string out; // what the last load logged, on standard error or in the log

    void SetUp() override { init_vesk_config(&cfg); }
    void TearDown() override { reinit(); }
    // Interface records of loaded listeners belong to the configuration's owner.
    void reinit()
    {
        for (rui_listener_cfg* slots : {cfg.rui.user, cfg.rui.admin, cfg.rui.custom})
            for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i)
                free(std::exchange(slots[i].ifc, nullptr));
        init_vesk_config(&cfg);
    }
    // A "vesk" group with log and runtime sections and the test's data directory, plus `extra`.
    std::string conf(const std::string& extra) const
    {
        return "vesk: {\n  log: { level = \"norm\"; };\n  runtime: { non_daemon = true; };\n"
               "  data_dir = \"" + dir.path() + "\";\n  " + extra + "\n};\n";
    }
    // Loads `text` from a file, into a fresh record unless it is a re-load.
    int load(const std::string& text, uint32_t flags = 0)
    {
        if (!flags)
            reinit();
        std::ofstream(dir / "vsk.conf") << text;
        testing::internal::CaptureStderr();
        const int rc = load_vesk_config((dir / "vsk.conf").c_str(), &cfg, flags);
        out = testing::internal::GetCapturedStderr() + log.take();
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

TEST_F(CfgTest, KeyTableDefaultsAndDumps)
{
    ASSERT_EQ(load(conf("max_tasks = 0;")), 0) << out;
    EXPECT_EQ(cfg.rt.cpunum, -1);
    EXPECT_EQ(cfg.rui.max_accept, 64u) << "listeners given only on the command line still accept";
    EXPECT_TRUE(contains(dump(), "\tmax tasks            = 0 (unlimited)\n"));

    const std::string udp = "udp_input: { url = \"udp://g:1\"; ";
    const std::string line = "\tUDP input            = [udp://g:1] ifc=";
    ASSERT_EQ(load(conf(udp + "must_lock = false; lock_dir = \"/l\"; };")), 0) << out;
    EXPECT_EQ(cfg.max_tasks, 4096u);
    EXPECT_TRUE(contains(dump(), line + "all fmt=gzip lk=[none]\n")) << dump();
    ASSERT_EQ(load(conf(udp + "is_gzipped = false; mcast_ifc = \"lo\"; };")), 0) << out;
    EXPECT_TRUE(contains(dump(), line + "lo fmt=text lk=[/tmp]\n")) << dump();

    // The prefix loses its trailing slash; the time-out prints its microseconds raw.
    ASSERT_EQ(load(conf("lbdb: { host = \"127.0.0.1\"; port = 6379; sha1_dir = \"/opt/lua\"; "
                        "connect_tmout_ms = 1500; }; local_url_prefix = \"http://h/seg/\";")),
              0) << out;
    EXPECT_TRUE(contains(dump(), "\tlocal URL prefix     = http://h/seg\n\n"
                                 "Load-balancer DB: 127.0.0.1:6379\n"
                                 "\tConnect timeout        = 1.500000 sec\n"
                                 "\tSHA1 directory         = /opt/lua\n"
                                 "\tCommand timeout        = 1500 ms\n"
                                 "\tReconnect              = 0 ms (off)\n"
                                 "\tMax pending            = 10000\n"))
        << dump();
    EXPECT_EQ(cfg.resolve_tmout_ms, 5000);
    ASSERT_EQ(load(conf("lbdb: { host = \"h\"; port = 1; sha1_dir = \"/d\"; cmd_tmout_ms = 250; "
                        "reconnect_ms = 100; max_pending = 0; }; local_url_prefix = \"http://h/\"; "
                        "resolve_tmout_ms = 700;")),
              0) << out;
    EXPECT_TRUE(contains(dump(), "\tlook-up time-out     = 700 ms\n")) << dump();
    EXPECT_TRUE(contains(dump(), "\tCommand timeout        = 250 ms\n"
                                 "\tReconnect              = 100 ms\n"
                                 "\tMax pending            = 0\n"))
        << dump();    EXPECT_EQ(cfg.src_pool_max, 0u) << "built in: every download on a connection of its own";
    ASSERT_EQ(load(conf("src_pool_max = 16; src_pool_idle_ms = 2500;")), 0) << out;
    EXPECT_TRUE(contains(dump(), "\tidle source pool     = 16 connections, 2500 ms\n")) << dump();
    ASSERT_EQ(load(conf("splice_to_file = true;")), 0) << out;
    EXPECT_TRUE(cfg.splice_to_file && contains(dump(), "\tplain writes         = spliced from the socket\n"));
    EXPECT_FALSE(cfg.reserve_in_worker) << "built in: every reservation on the loop";
    ASSERT_EQ(load(conf("reserve_in_worker = true;")), 0) << out;
    EXPECT_TRUE(cfg.reserve_in_worker && contains(dump(), "\tfile reservations    = in a kernel worker\n"));
    EXPECT_EQ(cfg.write_through_backlog, 0) << "built in: every reservation goes to the workers";
    EXPECT_FALSE(contains(dump(), "written through"));
    ASSERT_EQ(load(conf("reserve_in_worker = true; write_through_backlog = 8;")), 0) << out;
    EXPECT_TRUE(contains(dump(), "\twritten through from = 8 reservations per worker\n")) << dump();
}

TEST_F(CfgTest, RefusedFiles)
{
    const std::pair<std::string, std::string> rows[] = {
        {"vesk: { runtime: {}; };", "load_config: missing log section\n"},
        {"vesk: { log: { level = \"verbose\"; }; runtime: {}; };", "Invalid log level: verbose\n"},
        {conf("udp_input: { must_lock = false; };"), "load_config: missing url for UDP channel\n"},
        {conf("lbdb: { port = 1; sha1_dir = \"/d\"; };"), "load_lbdb_cfg: missing host setting\n"},
        {conf("lbdb: { host = \"h\"; port = -1; };"), "load_lbdb_cfg: invalid port value: -1\n"},
        {conf("lbdb: { host = \"h\"; port = 1; };"), "load_lbdb_cfg: missing sha1_dir setting\n"},
        {conf("lbdb: { host = \"h\"; port = 6379; sha1_dir = \"/d\"; };"),
         "load_config: vesk.local_url_prefix must be set for lbdb-enabled mode\n"},
        {conf("lbdb: { host = \"h\"; port = 6379; sha1_dir = \"/d\"; }; local_url_prefix = \"/\";"),
         "load_config: vesk.local_url_prefix must be set for lbdb-enabled mode\n"},
        {conf("lbdb: { host = \"h\"; port = 1; sha1_dir = \"/d\"; cmd_tmout_ms = 0; };"),
         "load_lbdb_cfg: invalid lbdb.cmd_tmout_ms value: 0 (allowed 1..3600000)\n"},
        {conf("lbdb: { host = \"h\"; port = 1; sha1_dir = \"/d\"; reconnect_ms = -5; };"),
         "load_lbdb_cfg: invalid lbdb.reconnect_ms value: -5 (allowed 0..3600000)\n"},
        {conf("lbdb: { host = \"h\"; port = 1; sha1_dir = \"/d\"; max_pending = \"many\"; };"),
         "load_lbdb_cfg: lbdb.max_pending must be an integer\n"},
        {conf("lbdb: { host = \"h\"; port = 1; sha1_dir = \"/d\"; exit_drain_ms = 10001; };"),
         "load_lbdb_cfg: invalid lbdb.exit_drain_ms value: 10001 (allowed 0..10000)\n"},
        {conf("resolve_tmout_ms = 0;"),
         "load_config: invalid vesk.resolve_tmout_ms value: 0 (allowed 1..600000)\n"},
        {conf("resolve_tmout_ms = \"5s\";"),
         "load_config: vesk.resolve_tmout_ms must be an integer\n"},
        {conf("max_mmap_mb = -1;"),
         "load_config: invalid vesk.max_mmap_mb value: -1 (allowed 0 and above)\n"},
        {conf("src_pool_max = -1;"),
         "load_config: invalid vesk.src_pool_max value: -1 (allowed 0..4096)\n"},
        {conf("src_pool_max = \"8\";"), "load_config: vesk.src_pool_max must be an integer\n"},
        {conf("splice_to_file = 1;"), "load_config: vesk.splice_to_file must be true or false\n"},
        {conf("reserve_in_worker = \"yes\";"),
         "load_config: vesk.reserve_in_worker must be true or false\n"},
        {conf("write_through_backlog = 257;"),
         "load_config: invalid vesk.write_through_backlog value: 257 (allowed 0..256)\n"},
        {conf("write_through_backlog = true;"),
         "load_config: vesk.write_through_backlog must be an integer\n"},
        {conf("src_pool_idle_ms = 0;"),
         "load_config: invalid vesk.src_pool_idle_ms value: 0 (allowed 1..600000)\n"},
    };
    for (const auto& [text, message] : rows) {
        EXPECT_EQ(load(text), -1) << text;
        EXPECT_TRUE(contains(out, message) && contains(out, "load_vesk_config: FAILED (-1)\n"))
            << text << " -> " << out;
    }
}

TEST_F(CfgTest, ReloadRefreshesOnlyDirectoryPrefixAndNumbers)
{
    ASSERT_EQ(load(conf("web_input: { port = 8080; };")), 0) << out;
    ASSERT_EQ(load("vesk: { log: { level = \"debug\"; }; runtime: {}; web_input: { port = 9; };\n"
                   "  data_dir = \"/tmp\"; local_url_prefix = \"http://x/\";\n"
                   "  max_tasks = 20; udp_input: { url = \"udp://g:1\"; }; };\n",
                   1),
              0) << out;
    EXPECT_TRUE(contains(out, "load_config: configuration re-loaded\n")) << out;
    EXPECT_EQ(std::string(cfg.data_dir) + " " + cfg.seg_url_pfx, "/tmp http://x");
    EXPECT_EQ(cfg.max_tasks, 20u);
    EXPECT_STREQ(cfg.rui.user[0].port, "8080");
    EXPECT_STREQ(cfg.udp_cha.url, "");
}

TEST_F(CfgTest, WebListenerFromCommandLineAndFinalCheck)
{
    EXPECT_EQ(add_web_cli(&cfg, "lo", AF_INET), 22);
    EXPECT_EQ(add_web_cli(&cfg, "nosuchifc0:8080", AF_INET), 22);
    out = log.take();
    EXPECT_TRUE(contains(out, "add_web_cli: missing port number in lo\n")) << out;
    EXPECT_TRUE(contains(out, "add_web_cli: invalid interface name: nosuchifc0\n")) << out;

    // An empty table: the third slot takes it, and the check fails as the first slot is empty.
    ASSERT_EQ(add_web_cli(&cfg, "lo:8080", AF_INET), 0);
    const rui_listener_cfg& l = cfg.rui.user[2];
    EXPECT_TRUE(l.is_valid && !cfg.rui.user[0].is_valid && !cfg.rui.user[3].is_valid);
    EXPECT_EQ(std::string(l.alias) + " " + l.port + " #" + std::to_string(l.index),
              "web-cli 8080 #3");
    EXPECT_EQ(validate_config(&cfg), -1);
    EXPECT_TRUE(contains(log.take(), "validate_config: at least one listener must be present\n"));
    cfg.rui.custom[0].is_valid = true;
    EXPECT_EQ(validate_config(&cfg), 0) << "a custom listener is enough";

    // With all four slots busy the first one is replaced.
    cfg.rui.user[0].is_valid = cfg.rui.user[1].is_valid = cfg.rui.user[3].is_valid = true;
    std::strcpy(cfg.rui.user[0].alias, "first");
    ASSERT_EQ(add_web_cli(&cfg, "lo:9000", AF_INET), 0);
    EXPECT_TRUE(contains(log.take(), "all interface slots are busy, [first] will be replaced\n"));
    EXPECT_EQ(std::string(cfg.rui.user[0].port) + " " + l.port, "9000 8080");
}

// The shipped sample, with its paths relative to the directory the agent starts in.
TEST_F(CfgTest, ShippedSampleLoads)
{
    const std::string text = vsk_test::slurp(fs::path(__FILE__).parent_path() / "../../etc/vsk.conf");
    fs::create_directories(dir / "var/data");
    const fs::path cwd = fs::current_path();
    fs::current_path(dir.path());
    const int rc = load(text);
    fs::current_path(cwd);
    ASSERT_EQ(rc, 0) << out;
    EXPECT_STREQ(cfg.rui.user[0].port, "8480");
    EXPECT_EQ(validate_config(&cfg), 0);
}

} // namespace
