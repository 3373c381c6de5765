// Tests of the UDP channel intake: the message grammar with its deliberate abort on a missing
// expiry, the stale-file rule, the request-lock files with locking on and off, and the Redis
// locks' keys and owner-checked scripts on a real Redis.
#include <fstream>
#include <vector>

#include "cfg.h"
#include "redis_support.h"
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
    // Two seconds past the limit, not one: the ages are whole seconds of time(), whose coarse
    // clock may lag the precise one that stamped the file by a few milliseconds.
    make_file(path, 32);
    EXPECT_EQ(check_and_expire(path.c_str(), 30), 0) << "32 s old";
    EXPECT_FALSE(fs::exists(path));

    EXPECT_EQ(lid_lock("seg0042"), 0);
    EXPECT_EQ(lid_lock("seg0042"), 16);
    lid_unlock("seg0042");
    EXPECT_FALSE(fs::exists(dir / "seg0042.lock"));
    EXPECT_EQ(lid_lock("seg0042"), 0);
    make_file(dir / "old1.lock", 32);
    EXPECT_EQ(lid_lock("old1"), 0);
    EXPECT_EQ(fs::file_size(dir / "old1.lock"), 0u) << "a new empty lock replaced the stale one";
    EXPECT_EQ(lid_lock("../victim"), -1) << "a lock id stays inside the lock directory";

    g_cfg->udp_cha.must_lock = false;
    EXPECT_EQ(lid_lock("seg0042"), 0) << "a held lock does not matter with locking off";
    lid_unlock("seg0042");
    EXPECT_TRUE(fs::exists(dir / "seg0042.lock"));
}

TEST(UdlRedisLocks, KeyAndAgentId)
{
    vsk_test::log_capture log;
    char key[UDL_LOCK_KEY_LEN];
    ASSERT_EQ(udl_lock_key("t", D_LOCK_PREFIX, "seg0042", key, sizeof(key)), 0);
    EXPECT_STREQ(key, "vsk:lock:seg0042");
    ASSERT_EQ(udl_lock_key("t", "", "seg0042", key, sizeof(key)), 0);
    EXPECT_STREQ(key, "seg0042");
    // The same ids as lock files: a "/" is refused, whatever the backend.
    EXPECT_EQ(udl_lock_key("t", D_LOCK_PREFIX, "a/b0", key, sizeof(key)), -1);
    EXPECT_TRUE(vsk_test::contains(log.take(), "t: invalid lock id [a/b0]\n"));
    // A cut key would name another lock.
    char small[12];
    EXPECT_EQ(udl_lock_key("t", D_LOCK_PREFIX, "seg0042", small, sizeof(small)), -1);
    EXPECT_TRUE(vsk_test::contains(log.take(), "t: lock key too long (n=16): vsk:lock:seg0042\n"));

    char id[UDL_AGENT_ID_LEN];
    ASSERT_EQ(udl_agent_id("edge-7", 4242, id, sizeof(id)), 0);
    EXPECT_STREQ(id, "edge-7:4242");
    EXPECT_EQ(udl_agent_id(std::string(UDL_AGENT_ID_LEN, 'h').c_str(), 1, id, sizeof(id)), -1);
}

// The release and renewal scripts, as the agent sends them, against locks set as the agent sets
// them: only the owner's id deletes or prolongs a lock.
TEST(UdlRedisLocks, ReleaseAndRenewalOnlyByTheOwner)
{
    if (!vsk_test::have_redis_server())
        GTEST_SKIP() << "redis-server is not installed (Debian package redis-server)";
    vsk_test::temp_dir dir{"vsk-udl-redis"};
    vsk_test::redis_server redis;
    ASSERT_TRUE(redis.start(dir.path()));
    const auto run = [&](const char* fmt, const char* a, const char* b, const char* c = "") {
        auto* r = static_cast<redisReply*>(redisCommand(redis.admin, fmt, a, b, c));
        std::string out = !r ? "null"
                          : r->type == REDIS_REPLY_INTEGER ? std::to_string(r->integer)
                          : r->str                          ? r->str
                                                            : "nil";
        freeReplyObject(r);
        return out;
    };
    const auto set = [&](const char* key, const char* owner) {
        return run("SET %s %s NX PX 30000", key, owner);
    };
    const auto release = [&](const char* key, const char* owner) {
        return run("EVAL %s 1 %s %s", UDL_RELEASE_LUA, key, owner);
    };
    const auto renew = [&](const char* key, const char* owner) {
        return run("EVAL %s 1 %s %s 30000", UDL_RENEW_LUA, key, owner);
    };
    const auto pttl = [&](const char* key) { return std::stol(run("PTTL %s", key, "")); };

    EXPECT_EQ(set("vsk:lock:a", "h1:1"), "OK");
    EXPECT_EQ(set("vsk:lock:a", "h2:2"), "nil") << "a held lock is not taken twice";
    EXPECT_EQ(release("vsk:lock:a", "h2:2"), "0") << "another agent's release leaves it";
    EXPECT_EQ(run("GET %s", "vsk:lock:a", ""), "h1:1");
    EXPECT_EQ(release("vsk:lock:a", "h1:1"), "1");
    EXPECT_EQ(run("EXISTS %s", "vsk:lock:a", ""), "0");
    EXPECT_EQ(release("vsk:lock:a", "h1:1"), "0") << "releasing twice is harmless";

    EXPECT_EQ(set("vsk:lock:b", "h1:1"), "OK");
    EXPECT_EQ(run("PEXPIRE %s %s", "vsk:lock:b", "5000"), "1");
    EXPECT_EQ(renew("vsk:lock:b", "h2:2"), "h1:1") << "a renewal names the owner it met";
    EXPECT_LE(pttl("vsk:lock:b"), 5000);
    EXPECT_EQ(renew("vsk:lock:b", "h1:1"), "1");
    EXPECT_GT(pttl("vsk:lock:b"), 25000);
    EXPECT_EQ(renew("vsk:lock:gone", "h1:1"), "0");
    EXPECT_EQ(run("EXISTS %s", "vsk:lock:gone", ""), "0") << "a lapsed lock is not revived";
}

} // namespace
