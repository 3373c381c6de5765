// Tests of the load-balancer DB client: reply shapes on replies built in memory, digest files, and
// the calls against a real Redis on a loopback port with the scripts of tools/lbdb loaded.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <vector>

#include "lbquery.h"
#include "redis_support.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using vsk_test::contains;

const fs::path TOOLS = fs::path(__FILE__).parent_path() / "../../tools/lbdb";
const std::string SHA40 = "0123456789abcdef0123456789abcdef01234567";

const auto g_old_sigpipe = signal(SIGPIPE, SIG_IGN); // a broken link must be a failed call

class LbdbBase : public testing::Test {
protected:
    vsk_test::log_capture log;
    vsk_test::temp_dir dir{"vsk-lbdb"};
    void TearDown() override { lbdb_destroy(); }
};

redisReply reply(int type, const char* str, size_t elements = 0, redisReply** element = nullptr)
{
    redisReply r{};
    std::tie(r.type, r.str, r.len, r.elements, r.element) =
        std::make_tuple(type, const_cast<char*>(str), str ? strlen(str) : 0, elements, element);
    return r;
}

TEST_F(LbdbBase, ReplyShapes)
{
    redisReply url = reply(REDIS_REPLY_STRING, "http://h/0123456789"), num = reply(3, nullptr);
    redisReply* elements[] = {&url, &url, &num}; // arrays: one URL, two URLs, one number
    const std::tuple<redisReply, size_t, int, const char*> rows[] = {
        {url, 19, 0, ""},
        {reply(REDIS_REPLY_ARRAY, nullptr, 1, elements), 19, 0, ""},
        {url, 18, 34, "reply_to_str: reply is bigger than buffer: 19/18\n"},
        {reply(REDIS_REPLY_ARRAY, nullptr, 1, elements), 18, 34, "bigger than buffer: 19/18\n"},
        {num, 19, 22, "reply_to_str: not expecting reply type=3\n"},
        {reply(REDIS_REPLY_ARRAY, nullptr, 1, elements + 2), 19, 22, "expected string, got 3\n"},
        {reply(REDIS_REPLY_ARRAY, nullptr, 2, elements), 19, 22, "more than 1 element (2)"},
        {reply(REDIS_REPLY_STATUS, "FINE"), 19, -1, "reply_to_str: Redis status: FINE\n"},
        {reply(REDIS_REPLY_ERROR, "ERR bad"), 19, -1, "reply_to_str: Redis error: ERR bad\n"},
    };
    for (const auto& [rep, buflen, rc, message] : rows) {
        char buf[20] = "junk";
        EXPECT_EQ(reply_to_str(&rep, buf, buflen), rc) << message;
        EXPECT_STREQ(buf, rc ? "" : "http://h/0123456789") << message;
        EXPECT_TRUE(contains(log.take(), message)) << message;
    }
}

TEST_F(LbdbBase, DigestFiles)
{
    const std::tuple<std::string, int, std::string> rows[] = {
        {SHA40 + "\n", 0, ""},
        {SHA40.substr(0, 39), 0, ""},
        {SHA40.substr(0, 38), -1, "unexpected SHA1 size: 38\n"},
        {SHA40 + "012345678", -1, "unexpected SHA1 size: 49\n"},
        // An empty file is logged and passes; the empty digest is caught at connect.
        {"", 0, "read_sha_signature: fgets(...) ERROR(0): Success\n"},
    };
    for (const auto& [text, rc, message] : rows) {
        std::ofstream(dir / "add_url.sha1") << text;
        EXPECT_EQ(lbdb_init(dir.path().c_str(), LBQ_FL_ADD, 0), rc) << text;
        EXPECT_STREQ(lbdb_get_ctx()->add_sha1, rc ? "" : text.substr(0, 40).c_str());
        const std::string out = log.take();
        EXPECT_TRUE(message.empty() ? !contains(out, "ERROR") : contains(out, message)) << out;
        lbdb_destroy();
    }
    // A missing file fails and leaves the module idle.
    EXPECT_EQ(lbdb_init(dir.path().c_str(), LBQ_FL_ADD | LBQ_FL_DEL, 0), -1);
    EXPECT_TRUE(contains(log.take(), "read_sha_signature: fopen(" + dir / "del_url.sha1" +
                                         ",...) ERROR(2): No such file or directory\n"));
    EXPECT_EQ(lbdb_get_ctx()->init_tm, 0);
    EXPECT_EQ(lbdb_init(std::string(128, 'd').c_str(), LBQ_FL_ADD, 0), 34);
    EXPECT_TRUE(contains(log.take(), "lbdb_init: sha1_dir is too long: 128/127\n"));
}

// A private redis-server with the scripts loaded; killed at the end even when a test fails.
class LbdbTest : public LbdbBase {
protected:
    vsk_test::redis_server redis;
    int port = 0;
    std::string sha_dir = dir / "sha";
    redisContext* admin = nullptr;

    void SetUp() override
    {
        if (!vsk_test::have_redis_server())
            GTEST_SKIP() << "redis-server is not installed (Debian package redis-server)";
        ASSERT_TRUE(redis.start(dir.path())) << "redis-server does not answer";
        port = redis.port;
        admin = redis.admin;
        const std::string cmd = "'" + (TOOLS / "load.sh").string() + "' 127.0.0.1 " +
                                std::to_string(port) + " '" + sha_dir + "' >/dev/null 2>&1";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    }
    int connect() { return lbdb_connect("127.0.0.1", port, timeval{1, 0}); }
};

TEST_F(LbdbTest, ConnectVerifiesScripts)
{
    ASSERT_EQ(lbdb_init(sha_dir.c_str(), LBQ_FL_ADD | LBQ_FL_DEL, 0), 0);
    freeReplyObject(redisCommand(admin, "script flush"));
    EXPECT_EQ(connect(), 2);
    EXPECT_TRUE(contains(log.take(), "lbdb_connect: failed for 127.0.0.1:" + std::to_string(port)));
    EXPECT_EQ(lbdb_get_ctx()->redis, nullptr);

    // An empty digest file passes the init, but the connection refuses it as a broken invariant.
    lbdb_destroy();
    std::ofstream(dir / "add_url.sha1") << "";
    ASSERT_EQ(lbdb_init(dir.path().c_str(), LBQ_FL_ADD, 0), 0);
    EXPECT_DEATH((log_default(g_log, stderr), connect()), "g_ctx\\.add_sha1\\[0\\]");
}

TEST_F(LbdbTest, CallsOnTheRealScriptsAndALostServer)
{
    ASSERT_EQ(lbdb_init(sha_dir.c_str(), LBD_FL_ALL, 0), 0);
    ASSERT_EQ(connect(), 0) << log.take();
    ASSERT_EQ(lbdb_add_segurl("seg", "http://a/seg", 0), 0);
    ASSERT_EQ(lbdb_add_segurl("seg", "http://b/seg", time(nullptr) + 100), 0);
    char buf[129], buf2[129];
    ASSERT_EQ(lbdb_rr_get_segurl("seg", nullptr, buf, 128), 0);
    ASSERT_EQ(lbdb_rr_get_segurl("seg", "-", buf2, 128), 0);
    EXPECT_NE(std::string(buf), buf2) << "round-robin served the same URL twice";
    long left = -1;
    EXPECT_EQ(lbdb_del_segurl("seg", "http://a/seg", &left), 0);
    EXPECT_EQ(left, 1);
    // The "mbget" call sends the "next" digest on purpose: it works with only that script loaded.
    const std::string next = vsk_test::slurp(TOOLS / "next_url.lua");
    freeReplyObject(redisCommand(admin, "script flush"));
    freeReplyObject(redisCommand(admin, "script load %s", next.c_str()));
    EXPECT_EQ(lbdb_mb_get_segurl("seg", nullptr, "http://b", buf, 128), 0);
    EXPECT_STREQ(buf, "http://b/seg");
    // No URL: the script's "#err: " answer is a failed call.
    EXPECT_EQ(lbdb_rr_get_segurl("none", nullptr, buf, 128), -1);
    EXPECT_TRUE(contains(log.take(), "lbdb_rr_get_segurl: #err: no URL for [none]"));

    redis.kill_now();
    EXPECT_EQ(lbdb_add_segurl("seg", "http://h/seg", 0), -1);
    EXPECT_TRUE(contains(log.take(), "lbdb_add_segurl: NULL as reply\n"));
}

TEST_F(LbdbTest, ScriptsKeepExpiriesAndTheCursorInStep)
{
    ASSERT_EQ(lbdb_init(sha_dir.c_str(), LBD_FL_ALL, 0), 0);
    ASSERT_EQ(connect(), 0) << log.take();
    const auto ask = [&](const char* cmd, const char* key) {
        auto* r = static_cast<redisReply*>(redisCommand(admin, "%s %s", cmd, key));
        const long long v = r && r->type == REDIS_REPLY_INTEGER ? r->integer : -99;
        freeReplyObject(r);
        return v;
    };
    char buf[129];
    // A URL without expiry keeps the set and the round-robin cursor for good...
    ASSERT_EQ(lbdb_add_segurl("seg", "http://a/seg", 0), 0);
    ASSERT_EQ(lbdb_rr_get_segurl("seg", nullptr, buf, 128), 0);
    EXPECT_EQ(ask("TTL", "seg#rr"), -1);
    // ...until it gets an expiry: then the cursor must not outlive the set.
    ASSERT_EQ(lbdb_add_segurl("seg", "http://a/seg", 100), 0);
    EXPECT_NEAR(ask("TTL", "seg#rr"), ask("TTL", "seg"), 1);
    EXPECT_GT(ask("TTL", "seg#rr"), 0);
    ASSERT_EQ(lbdb_add_segurl("seg", "http://b/seg", 0), 0);
    EXPECT_EQ(ask("TTL", "seg#rr"), -1);
    long left = -1;
    ASSERT_EQ(lbdb_del_segurl("seg", "http://b/seg", &left), 0);
    EXPECT_GT(ask("TTL", "seg#rr"), 0) << "deleting the lasting URL left a lasting cursor";

    // A metric beyond any finite lifetime is not wrapped into one that every URL meets.
    EXPECT_EQ(lbdb_rr_get_segurl("seg", "100000000000000000000", buf, 128), -1);
    EXPECT_TRUE(contains(log.take(), "#err: no URL for [seg] living 1e+20s more"));
    // An expiry that Redis cannot turn into a key expiry is refused before anything is stored.
    EXPECT_EQ(lbdb_add_segurl("far", "http://a/far", LONG_MAX), -1);
    EXPECT_TRUE(contains(log.take(), "lbdb_add_segurl: #err: invalid expiry ["));
    EXPECT_EQ(ask("EXISTS", "far"), 0);
}

} // namespace

// ---- The queue of commands waiting for the link, and the reconnection delay. ----

namespace {

struct queued {
    std::vector<lbdb_cmd> cmds;
    explicit queued(std::initializer_list<time_t> expiries)
    {
        for (const time_t e : expiries) {
            lbdb_cmd c{};
            c.expire_at = e;
            snprintf(c.label, sizeof(c.label), "c%zu", cmds.size());
            cmds.push_back(c);
        }
    }
};

std::string labels(lbdb_pqueue* q)
{
    std::string s;
    while (lbdb_cmd* c = lbdb_pq_pop(q))
        s += std::string(s.empty() ? "" : " ") + c->label;
    return s;
}

} // namespace

TEST(LbdbQueue, KeepsOrderAndDropsTheOldestWhenFull)
{
    queued in({0, 0, 0, 0, 0});
    lbdb_pqueue q;
    lbdb_pq_init(&q, 3);
    std::string dropped;
    for (lbdb_cmd& c : in.cmds)
        if (lbdb_cmd* old = lbdb_pq_push(&q, &c))
            dropped += std::string(dropped.empty() ? "" : " ") + old->label;
    EXPECT_EQ(dropped, "c0 c1");
    EXPECT_EQ(q.len, 3u);
    EXPECT_EQ(labels(&q), "c2 c3 c4");
    EXPECT_EQ(q.len, 0u);
    EXPECT_EQ(lbdb_pq_pop(&q), nullptr);

    // No room at all: every command is refused at once, itself.
    lbdb_pq_init(&q, 0);
    EXPECT_EQ(lbdb_pq_push(&q, &in.cmds[0]), &in.cmds[0]);
    EXPECT_EQ(q.len, 0u);
}

TEST(LbdbQueue, ExpiredCommandsLeaveInOrderFromAnywhere)
{
    // 0 never expires; the rest expire after their second.
    queued in({100, 0, 99, 200, 101, 100});
    lbdb_pqueue q;
    lbdb_pq_init(&q, 10);
    for (lbdb_cmd& c : in.cmds)
        ASSERT_EQ(lbdb_pq_push(&q, &c), nullptr);
    std::string gone;
    auto drop = [](lbdb_cmd* c, void* aux) {
        auto* s = static_cast<std::string*>(aux);
        *s += std::string(s->empty() ? "" : " ") + c->label;
    };
    EXPECT_EQ(lbdb_pq_drop_expired(&q, 100, drop, &gone), 1u);
    EXPECT_EQ(gone, "c2");
    gone.clear();
    EXPECT_EQ(lbdb_pq_drop_expired(&q, 101, drop, &gone), 2u);
    EXPECT_EQ(gone, "c0 c5");
    EXPECT_EQ(labels(&q), "c1 c3 c4");

    EXPECT_FALSE(lbdb_cmd_expired(&in.cmds[1], 1L << 40));
    EXPECT_FALSE(lbdb_cmd_expired(&in.cmds[0], 100));
    EXPECT_TRUE(lbdb_cmd_expired(&in.cmds[0], 101));
}

TEST(LbdbQueue, ExpiryOfARegistrationFollowsTheScript)
{
    const time_t now = 1800000000;
    const std::tuple<time_t, time_t> rows[] = {
        {0, 0}, {-5, 0}, {1, now + 1}, {2592000, now + 2592000}, {2592001, 2592001},
        {now - 10, now - 10}, {4000000000, 4000000000},
    };
    for (const auto& [expiry, at] : rows)
        EXPECT_EQ(lbdb_expire_at(expiry, now), at) << expiry;
}

TEST(LbdbBackoff, DoublesUpToTheCapAndStartsAtTheBase)
{
    std::string seq;
    long d = 0;
    for (int i = 0; i < 12; ++i) {
        d = lbdb_backoff_next(d, 100);
        seq += std::to_string(d) + " ";
    }
    EXPECT_EQ(seq, "100 200 400 800 1600 3200 6400 12800 25600 30000 30000 30000 ");
    EXPECT_EQ(lbdb_backoff_next(0, 40000), 40000); // a base above the cap is kept
    EXPECT_EQ(lbdb_backoff_next(40000, 40000), 40000);
    EXPECT_EQ(lbdb_backoff_next(20000, 20000), 30000);
}
