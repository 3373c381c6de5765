// Tests of the UDP channel intake: the message grammar with its deliberate abort on a missing
// expiry, the stale-file rule, and the request-lock files with locking on and off.
#include <fstream>
#include <vector>

#include "cfg.h"
#include "test_support.h"
#include "udl.h"

namespace {

namespace fs = std::filesystem;

// Creates `path` with its modification time `age_sec` seconds in the past.
void make_file(const std::string& path, time_t age_sec)
{
    std::ofstream(path).put('x');
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(age_sec));
}

const std::string URL16 = "http://h.ex/abcd", ID31(31, 'i');

TEST(UdlParseMsg, Grammar)
{
    // `want` is "lid url expiry" on success, the result code when the message is refused.
    const std::pair<std::string, std::string> cases[] = {
        {"abcd " + URL16 + " 1700000001", "abcd " + URL16 + " 1700000001"},
        {"abc " + URL16 + " 5", "-1"},
        {ID31 + " " + URL16 + " 5", ID31 + " " + URL16 + " 5"},
        {ID31 + "j " + URL16 + " 5", "-1"},
        {"seg0042  " + URL16 + " 5", "-1"}, // two blanks: empty URL
        {"seg0042 " + URL16.substr(0, 15) + " 5", "-1"},
        {"seg0042 " + URL16 + "  abc", "seg0042 " + URL16 + " 0"}, // unreadable expiry
    };
    for (const auto& [text, want] : cases) {
        std::vector<char> buf(text.c_str(), text.c_str() + text.size() + 1);
        char *url = nullptr, *lid = nullptr;
        time_t expiry = 12345;
        const int rc = parse_msg(buf.data(), &url, &lid, &expiry);
        EXPECT_EQ(rc ? std::to_string(rc) : std::string(lid) + " " + url + " " +
                                                std::to_string(expiry), want) << text;
    }
}

TEST(UdlParseMsgDeathTest, MissingExpiryAbortsTheProcess)
{
    char text[] = "seg0042 http://h.ex/abcd   ";
    EXPECT_DEATH((glog_init("vsk"), parse_msg(text, nullptr, nullptr, nullptr)),
                 "no expiry data passed");
}

class UdlTest : public testing::Test {
protected:
    vsk_test::log_capture log;
    vsk_test::temp_dir dir{"vsk-udl"};
    vesk_cfg saved = *g_cfg;
    void SetUp() override
    {
        init_vesk_config(g_cfg);
        snprintf(g_cfg->udp_cha.lkdir, sizeof(g_cfg->udp_cha.lkdir), "%s", dir.path().c_str());
        g_cfg->udp_cha.must_lock = true;
    }
    void TearDown() override { *g_cfg = saved; }
};

TEST_F(UdlTest, StaleRuleAndLockFilesWithLockingOnAndOff)
{
    const std::string path = dir / "f";
    EXPECT_EQ(check_and_expire(path.c_str(), 30), 0) << "absent";
    make_file(path, 0);
    EXPECT_EQ(check_and_expire(path.c_str(), 30), 16) << "fresh";
    make_file(path, 31);
    EXPECT_EQ(check_and_expire(path.c_str(), 30), 0) << "31 s old";
    EXPECT_FALSE(fs::exists(path));

    EXPECT_EQ(lid_lock("seg0042"), 0);
    EXPECT_EQ(lid_lock("seg0042"), 16);
    lid_unlock("seg0042");
    EXPECT_FALSE(fs::exists(dir / "seg0042.lock"));
    EXPECT_EQ(lid_lock("seg0042"), 0);
    make_file(dir / "old1.lock", 31);
    EXPECT_EQ(lid_lock("old1"), 0);
    EXPECT_EQ(fs::file_size(dir / "old1.lock"), 0u) << "a new empty lock replaced the stale one";
    EXPECT_EQ(lid_lock("../victim"), -1) << "a lock id stays inside the lock directory";

    g_cfg->udp_cha.must_lock = false;
    EXPECT_EQ(lid_lock("seg0042"), 0) << "a held lock does not matter with locking off";
    lid_unlock("seg0042");
    EXPECT_TRUE(fs::exists(dir / "seg0042.lock"));
}

} // namespace
