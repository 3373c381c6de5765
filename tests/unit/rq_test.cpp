// Tests of the HTTP download request: the download order and destination names in a
// temporary data directory, refusal of unsafe destinations, the "expiry=" query rule, and reading
// a request head from a socket.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cfg.h"
#include "log.h"
#include "rq.h"

namespace {

namespace fs = std::filesystem;

void touch(const std::string& path, time_t age_sec)
{
    std::ofstream(path).put('x');
    const timespec t[2] = {{time(nullptr) - age_sec, 0}, {time(nullptr) - age_sec, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), t, 0), 0) << path;
}

class RqTest : public testing::Test {
protected:
    std::string top, dir, logpath; // dir: the data directory, inside top
    vesk_cfg saved{};
    dw_spec spec{};

    void SetUp() override
    {
        static bool log_ready = false;
        if (!log_ready)
            glog_init("vsk");
        log_ready = true;
        char tmpl[] = "/tmp/vsk_rq_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        top = tmpl;
        dir = top + "/data";
        fs::create_directory(dir);
        logpath = top + "/test.log";
        ASSERT_EQ(log_open_ex(g_log, logpath.c_str(), F_APPEND_OLD), 0);
        g_mod_ll[LOG_MOD_APP] = L_DEBUG;
        saved = *g_cfg;
        init_vesk_config(g_cfg);
        snprintf(g_cfg->data_dir, sizeof(g_cfg->data_dir), "%s", dir.c_str());
    }
    void TearDown() override
    {
        log_close(g_log);
        log_default(g_log, stderr);
        *g_cfg = saved;
        fs::remove_all(top);
    }
    bool logged(const std::string& text) const
    {
        std::stringstream ss;
        ss << std::ifstream(logpath).rdbuf();
        return ss.str().find(text) != std::string::npos;
    }
    // setup_dw_spec into `spec` with a writable destination buffer, as its callers pass it.
    int setup(const std::string& src, const std::string& dst, std::string* out_dst = nullptr)
    {
        char dbuf[URQ_ENDPT_LEN] = {};
        snprintf(dbuf, sizeof(dbuf), "%s", dst.c_str());
        spec = dw_spec{};
        const int rc = setup_dw_spec(src.c_str(), dbuf, sizeof(dbuf) - 1, &spec);
        if (out_dst)
            *out_dst = dbuf;
        return rc;
    }
};

TEST_F(RqTest, DestinationNamesAndLimits)
{
    std::string dst;
    ASSERT_EQ(setup("http://src.example:8080/live/a.ts", "", &dst), 0);
    EXPECT_EQ(dst, "live/a.ts") << "an empty destination is taken from the source's path";
    EXPECT_STREQ(spec.url, "http://src.example:8080/live/a.ts");
    EXPECT_STREQ(spec.dst_path, "live/a.ts");
    EXPECT_EQ(std::string(spec.fpath), dir + "/live/a.ts-Vesk");
    EXPECT_TRUE(fs::is_directory(dir + "/live"));

    snprintf(g_cfg->data_dir, sizeof(g_cfg->data_dir), "%s/", dir.c_str());
    ASSERT_EQ(setup("http://h.example/x.ts", "seg/x.ts"), 0);
    EXPECT_EQ(std::string(spec.fpath), dir + "/seg/x.ts-Vesk") << "no doubled slash";

    // The unfinished path (data dir, "/", destination, "-Vesk") must stay below 128 bytes.
    const size_t room = 127 - dir.size() - 1 - 5;
    EXPECT_EQ(setup("http://h.example/a", std::string(room, 'f')), 0);
    EXPECT_EQ(setup("http://h.example/a", std::string(room + 1, 'g')), 34);
    EXPECT_TRUE(logged("full path is too long: 128/128"));
    const std::string src128 = "http://h.example/" + std::string(111, 's');
    EXPECT_EQ(setup(src128, "a.ts"), 34);
    EXPECT_EQ(setup(src128.substr(0, 127), "a.ts"), 0);

    for (const char* src : {"https://h.example/a.ts", "HTTP://h.example/a.ts", "http:/", ""})
        EXPECT_EQ(setup(src, "a.ts"), 22) << src;
    EXPECT_EQ(setup("http://h.example", ""), 22);
    EXPECT_TRUE(logged("cannot extract path from source URL: http://h.example"));
}

TEST_F(RqTest, UnsafeDestinationsAreRefusedBeforeAnythingIsCreated)
{
    const char* const cases[][2] = {
        {"http://h.example/a.ts", "../escape/a.ts"},
        {"http://h.example/a.ts", "live/../../escape/a.ts"},
        {"http://h.example/a.ts", "/tmp/escape/a.ts"},
        {"http://h.example/../escape/a.ts", ""}, // derived from the source
        {"http://h.example/", ""},               // derives an empty destination
    };
    for (const auto& c : cases)
        EXPECT_EQ(setup(c[0], c[1]), 22) << c[0] << " -> " << c[1];
    EXPECT_FALSE(fs::exists(top + "/escape"));
    EXPECT_TRUE(logged("unsafe destination path [../escape/a.ts]"));
    EXPECT_EQ(setup("http://h.example/a.ts", "v..1/..a/b.."), 0) << "dots inside names are fine";

    // The check sees the destination after URI-decoding.
    std::string head = "GET /src/http://h.example/a.ts/dst/%2E%2E/escape.ts HTTP/1.1\r\n\r\n";
    dw_urq urq{};
    urq.hrq.hbuf = head.data();
    urq.hrq.hlen = head.size() + 1;
    EXPECT_EQ(parse_dw_get(&urq, &spec), 22);
    EXPECT_FALSE(fs::exists(top + "/escape.ts"));
}

TEST_F(RqTest, FreshUnfinishedFileBlocksAndStaleOneIsReclaimed)
{
    fs::create_directory(dir + "/live");
    touch(dir + "/live/b.ts-Vesk", 0);
    EXPECT_EQ(setup("http://h.example/live/b.ts", ""), 17);
    EXPECT_TRUE(fs::exists(dir + "/live/b.ts-Vesk"));
    touch(dir + "/live/b.ts-Vesk", 31);
    EXPECT_EQ(setup("http://h.example/live/b.ts", ""), 0);
    EXPECT_FALSE(fs::exists(dir + "/live/b.ts-Vesk"));
}

TEST(RqNames, SuffixCutAndTest)
{
    struct Case {
        const char* path;
        int cut_rc;
        const char* after;
    };
    const Case cases[] = {
        {"/d/a.ts-Vesk", 0, "/d/a.ts"},        {"/d/a.ts", 3, "/d/a.ts"},
        {"/d/a.ts-vesk", 3, "/d/a.ts-vesk"},   {"/d/a-Vesk.ts", 3, "/d/a-Vesk.ts"},
        {"/d/a-Vesk-Vesk", 0, "/d/a-Vesk"},    {"-Vesk", 3, "-Vesk"}, // nothing before it
        {"", 22, ""},
    };
    for (const Case& c : cases) {
        std::vector<char> buf(c.path, c.path + strlen(c.path) + 1);
        EXPECT_EQ(is_unfinished_seg(buf.data()), c.cut_rc == 0) << c.path;
        EXPECT_EQ(cutoff_segext(buf.data()), c.cut_rc) << c.path;
        EXPECT_STREQ(buf.data(), c.after) << c.path;
    }
}

TEST_F(RqTest, ExpiryComesFromTheQueryAndNeverReachesTheSource)
{
    const std::pair<const char*, long> cases[] = {
        {"?expiry=1700000001", 1700000001}, {"?a=1&expiry=55&b=2", 55},
        {"?myexpiry=77", 77}, // found at the end of another key's name
        {"?expiry=abc", 0},   {"?other=1", 0}, {"", 0},
    };
    int n = 0;
    for (const auto& [query, expiry] : cases) {
        const std::string seg = "live/s" + std::to_string(n++) + ".ts";
        std::string head = "GET /src/http://h.example/" + seg + "/dst/" + seg + query +
                           " HTTP/1.1\r\nHost: agent\r\n\r\n";
        dw_urq urq{};
        urq.hrq.hbuf = head.data();
        urq.hrq.hlen = head.size() + 1;
        spec = dw_spec{};
        ASSERT_EQ(parse_dw_get(&urq, &spec), 0) << query;
        EXPECT_EQ(spec.expiry_tm, expiry) << query;
        EXPECT_EQ(std::string(spec.url), "http://h.example/" + seg) << query;
    }
    EXPECT_TRUE(logged("NO EXPIRY: sscanf('expiry=abc',..) expected 1, got 0"));
}

TEST_F(RqTest, ReadsHeadInPiecesAndDropsWhatFollowsIt)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ASSERT_EQ(fcntl(sv[0], F_SETFL, O_NONBLOCK), 0);
    const auto put = [&](const std::string& s) {
        ASSERT_EQ(write(sv[1], s.data(), s.size()), static_cast<ssize_t>(s.size()));
    };
    const std::string part1 = "GET /src/http://h.example/a.ts/dst/a.ts HTTP/1.1\r\nHost:";
    const std::string part2 = " agent\r\n\r\n";

    dw_urq urq{};
    urq.sockfd = sv[0];
    put(part1);
    EXPECT_EQ(read_http_rq(&urq), 11);
    put(part2 + "BODY\r\n\r\nGET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(read_http_rq(&urq), 0);
    EXPECT_EQ(std::string(urq.hrq.hbuf), part1 + part2);
    EXPECT_EQ(urq.hrq.hpos, (part1 + part2).size());
    EXPECT_TRUE(logged("request has tail data, dismissing the tail"));
    free(urq.hrq.hbuf);

    // A head that does not fit the buffer fails instead of waiting for more.
    dw_urq big{};
    big.sockfd = sv[0];
    put("GET /" + std::string(HRQ_BUF_SIZE, 'a'));
    EXPECT_EQ(read_http_rq(&big), -1);
    free(big.hrq.hbuf);
    close(sv[0]);
    close(sv[1]);
}

} // namespace
