// Tests of the UDP channel intake: the message grammar with its deliberate abort on a missing
// expiry, the stale-file rule, and the request-lock files with locking on and off.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cfg.h"
#include "log.h"
#include "udl.h"

namespace {

namespace fs = std::filesystem;

// Creates `path` with its modification time `age_sec` seconds before `now`.
void make_file(const std::string& path, time_t now, time_t age_sec)
{
    std::ofstream(path).put('x');
    const timespec t[2] = {{now - age_sec, 0}, {now - age_sec, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), t, 0), 0) << path;
}

const std::string URL16 = "http://h.ex/abcd"; // 16 characters

TEST(UdlParseMsg, Grammar)
{
    const std::string id31(31, 'i');
    struct Case {
        std::string text; // what follows "#!"
        int rc;
        std::string lid; // expected on success; the URL is always URL16
        long expiry;
    };
    const Case cases[] = {
        {"seg0042 " + URL16 + " 1700000001", 0, "seg0042", 1700000001},
        {"abcd " + URL16 + " 5", 0, "abcd", 5},
        {"abc " + URL16 + " 5", -1, "", 0},
        {id31 + " " + URL16 + " 5", 0, id31, 5},
        {id31 + "j " + URL16 + " 5", -1, "", 0},
        {"seg0042  " + URL16 + " 5", -1, "", 0}, // two blanks: empty URL
        {"seg0042 " + URL16.substr(0, 15) + " 5", -1, "", 0},
        {"seg0042\t" + URL16 + "\t \t-7 more words", 0, "seg0042", -7},
        {"seg0042 " + URL16 + "  abc", 0, "seg0042", 0}, // unreadable expiry: accepted as 0
        {"seg0042", -1, "", 0},
    };
    for (const Case& c : cases) {
        std::vector<char> buf(c.text.begin(), c.text.end());
        buf.push_back('\0');
        char* url = nullptr;
        char* lid = nullptr;
        time_t expiry = 12345;
        ASSERT_EQ(parse_msg(buf.data(), &url, &lid, &expiry), c.rc) << c.text;
        if (c.rc == 0) {
            EXPECT_EQ(std::string(lid), c.lid) << c.text;
            EXPECT_EQ(std::string(url), URL16) << c.text;
            EXPECT_EQ(expiry, c.expiry) << c.text;
        }
    }
}

TEST(UdlParseMsgDeathTest, MissingExpiryAbortsTheProcess)
{
    for (const std::string& text :
         {"seg0042 " + URL16, "seg0042 " + URL16 + "   ", "seg0042 " + URL16 + " #1700000001"}) {
        EXPECT_DEATH(
            {
                glog_init("vsk");
                log_default(g_log, stderr);
                std::vector<char> buf(text.begin(), text.end());
                buf.push_back('\0');
                parse_msg(buf.data(), nullptr, nullptr, nullptr);
            },
            "no expiry data passed")
            << text;
    }
}

class UdlTest : public testing::Test {
protected:
    std::string dir, lkdir;
    vesk_cfg saved{};

    void SetUp() override
    {
        static bool log_ready = false;
        if (!log_ready)
            glog_init("vsk");
        log_ready = true;
        char tmpl[] = "/tmp/vsk_udl_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        lkdir = dir + "/locks";
        fs::create_directory(lkdir);
        ASSERT_EQ(log_open_ex(g_log, (dir + "/test.log").c_str(), F_APPEND_OLD), 0);
        saved = *g_cfg;
        init_vesk_config(g_cfg);
        snprintf(g_cfg->udp_cha.lkdir, sizeof(g_cfg->udp_cha.lkdir), "%s", lkdir.c_str());
        g_cfg->udp_cha.must_lock = true;
    }
    void TearDown() override
    {
        log_close(g_log);
        log_default(g_log, stderr);
        *g_cfg = saved;
        fs::remove_all(dir);
    }
    std::string lock_of(const std::string& lid) const { return lkdir + "/" + lid + ".lock"; }
};

TEST_F(UdlTest, StaleRuleByModificationTime)
{
    const std::string path = dir + "/f";
    EXPECT_EQ(check_and_expire(path.c_str(), 30), 0) << "absent";
    make_file(path, time(nullptr), 0);
    EXPECT_EQ(check_and_expire(path.c_str(), 30), 16) << "fresh";
    EXPECT_TRUE(fs::exists(path));
    make_file(path, time(nullptr), 31);
    EXPECT_EQ(check_and_expire(path.c_str(), 30), 0) << "31 s old";
    EXPECT_FALSE(fs::exists(path));

    // Exactly max_age old still holds. Ages are whole seconds: retry if the clock ticked between
    // setting the time and the check.
    int rc = -2;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const time_t now = time(nullptr);
        make_file(path, now, 30);
        rc = check_and_expire(path.c_str(), 30);
        if (time(nullptr) == now)
            break;
    }
    EXPECT_EQ(rc, 16) << "exactly 30 s old";
    EXPECT_EQ(check_and_expire((path + "/below-a-file").c_str(), 30), -1);
}

TEST_F(UdlTest, LockIsExclusiveReleasableAndReclaimedWhenStale)
{
    EXPECT_EQ(lid_lock("seg0042"), 0);
    ASSERT_TRUE(fs::exists(lock_of("seg0042")));
    EXPECT_EQ(lid_lock("seg0042"), 16);
    EXPECT_EQ(lid_lock("seg0043"), 0);
    lid_unlock("seg0042");
    EXPECT_FALSE(fs::exists(lock_of("seg0042")));
    EXPECT_EQ(lid_lock("seg0042"), 0);

    make_file(lock_of("old1"), time(nullptr), 31);
    EXPECT_EQ(lid_lock("old1"), 0);
    EXPECT_EQ(fs::file_size(lock_of("old1")), 0u) << "a new empty lock replaced the stale one";

    // A lock id cannot reach outside the lock directory, neither to create nor to remove.
    make_file(dir + "/victim.lock", time(nullptr), 100);
    EXPECT_EQ(lid_lock("../victim"), -1);
    lid_unlock("../victim");
    EXPECT_TRUE(fs::exists(dir + "/victim.lock"));
}

TEST_F(UdlTest, LockingOffTouchesNoFile)
{
    g_cfg->udp_cha.must_lock = false;
    make_file(lock_of("held"), time(nullptr), 0);
    EXPECT_EQ(lid_lock("seg0042"), 0);
    EXPECT_EQ(lid_lock("seg0042"), 0);
    EXPECT_EQ(lid_lock("held"), 0);
    lid_unlock("held");
    EXPECT_FALSE(fs::exists(lock_of("seg0042")));
    EXPECT_TRUE(fs::exists(lock_of("held")));
}

} // namespace
