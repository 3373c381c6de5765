// Tests of the HTTP download request: destination names, their limits and unsafe ones in a
// temporary data directory, the "expiry=" query rule, and reading a request head from a socket.
#include <sys/socket.h>

#include <fstream>

#include "cfg.h"
#include "rq.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

class RqTest : public testing::Test {
protected:
    vsk_test::log_capture log;
    vsk_test::temp_dir top{"vsk-rq"};
    std::string dir = top / "data";
    dw_spec spec{};
    void SetUp() override
    {
        fs::create_directory(dir);
        init_vesk_config(g_cfg);
        snprintf(g_cfg->data_dir, sizeof(g_cfg->data_dir), "%s", dir.c_str());
    }
    int setup(const std::string& src, std::string dst)
    {
        dst.resize(URQ_ENDPT_LEN);
        return setup_dw_spec(src.c_str(), dst.data(), URQ_ENDPT_LEN - 1, &spec);
    }
};

TEST_F(RqTest, DestinationNamesAndLimits)
{
    ASSERT_EQ(setup("http://src.example:8080/live/a.ts", ""), 0);
    EXPECT_STREQ(spec.dst_path, "live/a.ts") << "an empty destination comes from the source";
    snprintf(g_cfg->data_dir, sizeof(g_cfg->data_dir), "%s/", dir.c_str());
    ASSERT_EQ(setup("http://h.example/x.ts", "seg/x.ts"), 0);
    EXPECT_EQ(std::string(spec.fpath), dir + "/seg/x.ts-Vesk") << "no doubled slash";

    const size_t room = 127 - dir.size() - 1 - 5; // "<dir>/<dst>-Vesk" stays below 128 bytes
    EXPECT_EQ(setup("http://h.example/a", std::string(room, 'f')), 0);
    EXPECT_EQ(setup("http://h.example/a", std::string(room + 1, 'g')), 34);
    EXPECT_TRUE(vsk_test::contains(log.take(), "full path is too long: 128/128"));
    EXPECT_EQ(setup("https://h.example/a.ts", "a.ts"), 22);

    for (const char* dst : {"../escape/a.ts", "/tmp/escape/a", "live/../../escape/a.ts"})
        EXPECT_EQ(setup("http://h.example/a.ts", dst), 22) << dst;
    EXPECT_EQ(setup("http://h.example/../escape/a.ts", ""), 22) << "unsafe path from the source";
    EXPECT_FALSE(fs::exists(top / "escape"));

    std::ofstream(dir + "/live/b.ts-Vesk") << "x";
    EXPECT_EQ(setup("http://h.example/live/b.ts", ""), 17) << "fresh unfinished file: in progress";
}

TEST(RqNames, SuffixCutAndTest)
{
    const std::tuple<std::string, int, const char*> cases[] = {
        {"/d/a.ts-Vesk", 0, "/d/a.ts"}, {"/d/a.ts-vesk", 3, "/d/a.ts-vesk"},
        {"/d/a-Vesk.ts", 3, "/d/a-Vesk.ts"}, {"-Vesk", 3, "-Vesk"}, {"", 22, ""}};
    for (auto [path, rc, after] : cases) {
        EXPECT_EQ(is_unfinished_seg(path.data()), rc == 0) << path;
        EXPECT_EQ(cutoff_segext(path.data()), rc) << path;
        EXPECT_STREQ(path.c_str(), after);
    }
}

TEST_F(RqTest, ExpiryComesFromTheQueryAndNeverReachesTheSource)
{
    const std::pair<std::string, long> cases[] = {{"?a=1&expiry=55&b=2", 55}, {"", 0},
        {"?myexpiry=77", 77} /* the key may end another one's name */, {"?expiry=abc", 0}};
    for (const auto& [query, expiry] : cases) {
        std::string head = "GET /src/http://h.example/s.ts/dst/s.ts" + query + " HTTP/1.1\r\n\r\n";
        dw_urq urq{};
        urq.hrq.hbuf = head.data();
        urq.hrq.hlen = head.size() + 1;
        ASSERT_EQ(parse_dw_get(&urq, &spec), 0) << query;
        EXPECT_EQ(spec.expiry_tm, expiry) << query;
        EXPECT_STREQ(spec.url, "http://h.example/s.ts") << query;
    }
}

TEST_F(RqTest, ReadsHeadInPiecesAndDropsWhatFollowsIt)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    const std::string part1 = "GET /src/http://h/a.ts/dst/a.ts HTTP/1.1\r\nHost:";
    const std::string part2 = " agent\r\n\r\n", rest = part2 + "BODY\r\n\r\nGET / HTTP/1.1\r\n";
    dw_urq urq{};
    urq.sockfd = sv[0];
    ASSERT_EQ(write(sv[1], part1.data(), part1.size()), static_cast<ssize_t>(part1.size()));
    EXPECT_EQ(read_http_rq(&urq), 11);
    ASSERT_EQ(write(sv[1], rest.data(), rest.size()), static_cast<ssize_t>(rest.size()));
    EXPECT_EQ(read_http_rq(&urq), 0);
    EXPECT_EQ(std::string(urq.hrq.hbuf), part1 + part2);
    EXPECT_TRUE(vsk_test::contains(log.take(), "request has tail data, dismissing the tail"));
    free(urq.hrq.hbuf);
    close(sv[0]);
    close(sv[1]);
}

} // namespace
