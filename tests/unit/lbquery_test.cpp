// Tests of the load-balancer DB client against a real Redis started for each test on a loopback
// port, with the scripts of tools/lbdb loaded by their own loader; stand-in scripts produce the
// odd replies a healthy server never gives.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lbquery.h"
#include "log.h"

namespace {

namespace fs = std::filesystem;

const fs::path g_repo = fs::path(__FILE__).parent_path().parent_path().parent_path();
const std::string SHA40 = "0123456789abcdef0123456789abcdef01234567";

using reply_ptr = std::unique_ptr<redisReply, void (*)(void*)>;

std::string find_in_path(const char* name)
{
    const char* path = getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    for (size_t pos = 0; pos <= dirs.size();) {
        size_t end = dirs.find(':', pos);
        if (end == std::string::npos)
            end = dirs.size();
        const std::string cand = dirs.substr(pos, end - pos) + "/" + name;
        if (access(cand.c_str(), X_OK) == 0)
            return cand;
        pos = end + 1;
    }
    return {};
}

int free_loopback_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    int port = -1;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0)
        port = ntohs(sa.sin_port);
    if (fd >= 0)
        close(fd);
    return port;
}

bool port_accepts(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    const bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
    if (fd >= 0)
        close(fd);
    return ok;
}

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// A module that is idle between tests, whatever a test left behind.
class LbdbBase : public testing::Test {
protected:
    std::string dir;
    int saved_level = 0;

    void SetUp() override
    {
        char tmpl[] = "/tmp/vsk_lbdb_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        saved_level = g_mod_ll[LOG_MOD_APP];
        // A broken link must show as a failed call, not kill the test (the agent ignores it too).
        signal(SIGPIPE, SIG_IGN);
    }

    void TearDown() override
    {
        lbdb_destroy();
        g_mod_ll[LOG_MOD_APP] = saved_level;
        fs::remove_all(dir);
    }

    static int init_captured(const std::string& sha_dir, int32_t need, std::string* err,
                             uint32_t opt = 0)
    {
        testing::internal::CaptureStderr();
        const int rc = lbdb_init(sha_dir.c_str(), need, opt);
        *err = testing::internal::GetCapturedStderr();
        return rc;
    }
};

// A private redis-server with the scripts loaded; killed in TearDown even when a test fails.
class LbdbTest : public LbdbBase {
protected:
    pid_t server = -1;
    int port = 0;
    std::string sha_dir;
    redisContext* admin = nullptr;

    void SetUp() override
    {
        LbdbBase::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        const std::string bin = find_in_path("redis-server");
        if (bin.empty())
            GTEST_SKIP() << "redis-server is not installed (Debian package redis-server)";
        start_server(bin);
        ASSERT_FALSE(HasFatalFailure());
        sha_dir = dir + "/sha";
        const std::string cmd = "'" + (g_repo / "tools/lbdb/load.sh").string() +
                                "' 127.0.0.1 " + std::to_string(port) + " '" + sha_dir + "' >'" +
                                dir + "/load.log' 2>&1";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
        admin = redisConnect("127.0.0.1", port);
        ASSERT_TRUE(admin && !admin->err);
    }

    void TearDown() override
    {
        lbdb_destroy();
        if (admin)
            redisFree(admin);
        stop_server();
        LbdbBase::TearDown();
    }

    void start_server(const std::string& bin)
    {
        port = free_loopback_port();
        ASSERT_GT(port, 0);
        const std::string log = dir + "/redis.log";
        server = fork();
        ASSERT_GE(server, 0);
        if (server == 0) {
            const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
            }
            const std::string p = std::to_string(port);
            execl(bin.c_str(), bin.c_str(), "--bind", "127.0.0.1", "--port", p.c_str(), "--save",
                  "", "--appendonly", "no", "--dir", dir.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        // Readiness, not timing: the server gets up to 10 s to listen.
        for (int i = 0; i < 1000; ++i) {
            int status = 0;
            if (waitpid(server, &status, WNOHANG) == server) {
                server = -1;
                std::ifstream in(log);
                FAIL() << "redis-server exited at start-up:\n" << in.rdbuf();
            }
            if (port_accepts(port))
                return;
            usleep(10000);
        }
        FAIL() << "redis-server does not listen on port " << port;
    }

    void stop_server()
    {
        if (server > 0) {
            kill(server, SIGKILL);
            waitpid(server, nullptr, 0);
            server = -1;
        }
    }

    reply_ptr cmd(const char* format, const char* arg1 = nullptr, const char* arg2 = nullptr)
    {
        return reply_ptr(static_cast<redisReply*>(redisCommand(admin, format, arg1, arg2)),
                         freeReplyObject);
    }

    int connect_captured(std::string* err)
    {
        testing::internal::CaptureStderr();
        const int rc = lbdb_connect("127.0.0.1", port, timeval{1, 0});
        *err = testing::internal::GetCapturedStderr();
        return rc;
    }

    void ready(int32_t need = LBD_FL_ALL)
    {
        ASSERT_EQ(lbdb_init(sha_dir.c_str(), need, 0), 0);
        ASSERT_EQ(lbdb_connect("127.0.0.1", port, timeval{1, 0}), 0);
    }
};

TEST_F(LbdbBase, DigestFileSizes)
{
    struct Row {
        std::string text;
        int rc;
        std::string digest;
        std::string log;
    };
    const std::string s39 = SHA40.substr(0, 39);
    const Row rows[] = {
        {SHA40 + "\n", 0, SHA40, ""},
        {SHA40, 0, SHA40, ""},
        {s39 + "\n", 0, s39, ""},
        {s39, 0, s39, ""},
        {SHA40.substr(0, 38), -1, "", "unexpected SHA1 size: 38\n"},
        {SHA40 + "012345678", -1, "", "unexpected SHA1 size: 49\n"},
        {SHA40 + SHA40 + "\n", -1, "", "unexpected SHA1 size: 81\n"},
        {"\n", -1, "", "unexpected SHA1 size: 1\n"},
        // An empty file is logged and passes; the empty digest is caught at connect.
        {"", 0, "", "read_sha_signature: fgets(...) ERROR(0): Success\n"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE("file [" + r.text + "]");
        write_file(dir + "/add_url.sha1", r.text);
        std::string err;
        EXPECT_EQ(init_captured(dir, LBQ_FL_ADD, &err), r.rc);
        EXPECT_STREQ(lbdb_get_ctx()->add_sha1, r.digest.c_str());
        EXPECT_EQ(lbdb_get_ctx()->init_tm > 0, r.rc == 0);
        if (r.log.empty()) {
            EXPECT_EQ(err, "");
        } else {
            EXPECT_TRUE(has(err, r.log)) << err;
        }
        lbdb_destroy();
    }
}

TEST_F(LbdbBase, InitFailuresLeaveModuleIdle)
{
    write_file(dir + "/add_url.sha1", SHA40);
    write_file(dir + "/next_url.sha1", SHA40);
    std::string err;
    // del_url.sha1 is missing: checked after add, before next.
    EXPECT_EQ(init_captured(dir, LBD_FL_ALL, &err), -1);
    EXPECT_TRUE(has(err, "read_sha_signature: fopen(" + dir +
                             "/del_url.sha1,...) ERROR(2): No such file or directory\n"))
        << err;
    EXPECT_EQ(lbdb_get_ctx()->init_tm, 0);
    EXPECT_STREQ(lbdb_get_ctx()->add_sha1, "");

    // Idle again, so a second init is allowed; unrequested files are not read.
    EXPECT_EQ(init_captured(dir, LBQ_FL_ADD | LBQ_FL_NEXT, &err), 0);
    EXPECT_EQ(lbdb_get_ctx()->need_func, LBQ_FL_ADD | LBQ_FL_NEXT);
    EXPECT_STREQ(lbdb_get_ctx()->next_sha1, SHA40.c_str());
    EXPECT_STREQ(lbdb_get_ctx()->call_opt, "");
    lbdb_destroy();

    EXPECT_EQ(init_captured(dir, LBQ_FL_ADD, &err, LBQ_OPT_STRICT), 0);
    EXPECT_STREQ(lbdb_get_ctx()->call_opt, "-S");
    lbdb_destroy();

    const std::string longdir(128, 'd');
    EXPECT_EQ(init_captured(longdir, LBQ_FL_ADD, &err), 34);
    EXPECT_TRUE(has(err, "lbdb_init: sha1_dir is too long: 128/127\n")) << err;
    EXPECT_EQ(init_captured(longdir.substr(1), LBQ_FL_ADD, &err), -1); // fits; file missing
}

TEST_F(LbdbTest, ConnectVerifiesScripts)
{
    ready();
    EXPECT_NE(lbdb_get_ctx()->redis, nullptr);
    EXPECT_STREQ(lbdb_get_cfg()->host, "127.0.0.1");
    EXPECT_EQ(lbdb_get_cfg()->port, port);
    lbdb_destroy();

    ASSERT_EQ(lbdb_init(sha_dir.c_str(), LBQ_FL_ADD | LBQ_FL_DEL, 0), 0);
    ASSERT_EQ(cmd("script flush")->type, REDIS_REPLY_STATUS);
    std::string err;
    EXPECT_EQ(connect_captured(&err), 2);
    EXPECT_TRUE(has(err, "lbdb_connect: failed for 127.0.0.1:" + std::to_string(port) + "\n"))
        << err;
    EXPECT_EQ(lbdb_get_ctx()->redis, nullptr);
}

TEST_F(LbdbTest, ConnectRefused)
{
    ASSERT_EQ(lbdb_init(sha_dir.c_str(), LBQ_FL_ADD, 0), 0);
    stop_server();
    std::string err;
    EXPECT_EQ(connect_captured(&err), -1);
    EXPECT_TRUE(has(err, "lbdb_connect: redisConnectWithTimeout ERROR(")) << err;
    EXPECT_EQ(lbdb_get_ctx()->redis, nullptr);
}

TEST_F(LbdbTest, AddChooseDelete)
{
    ready();
    const char* seg = "live/ch1/seg1.ts";
    const std::string u1 = "http://10.0.0.1/live/ch1/seg1.ts";
    const std::string u2 = "http://10.0.0.2/live/ch1/seg1.ts";
    char buf[129];
    ASSERT_EQ(lbdb_add_segurl(seg, u1.c_str(), 0), 0);
    ASSERT_EQ(lbdb_rr_get_segurl(seg, nullptr, buf, 128), 0);
    EXPECT_EQ(buf, u1);

    ASSERT_EQ(lbdb_add_segurl(seg, u2.c_str(), 0), 0);
    std::string a, b;
    ASSERT_EQ(lbdb_rr_get_segurl(seg, "-", buf, 128), 0);
    a = buf;
    ASSERT_EQ(lbdb_rr_get_segurl(seg, "-", buf, 128), 0);
    b = buf;
    EXPECT_NE(a, b) << "round-robin served the same URL twice";
    EXPECT_TRUE((a == u1 || a == u2) && (b == u1 || b == u2)) << a << " " << b;

    long left = -1;
    EXPECT_EQ(lbdb_del_segurl(seg, u1.c_str(), &left), 0);
    EXPECT_EQ(left, 1);
    EXPECT_EQ(lbdb_del_segurl(seg, u2.c_str(), nullptr), 0);
    EXPECT_EQ(lbdb_del_segurl(seg, u2.c_str(), &left), 0);
    EXPECT_EQ(left, 0);

    // Nothing left: the script's "#err: " answer is a failed call.
    std::string err;
    testing::internal::CaptureStderr();
    EXPECT_EQ(lbdb_rr_get_segurl(seg, nullptr, buf, 128), -1);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "lbdb_rr_get_segurl: #err: no URL for [live/ch1/seg1.ts]")) << err;
}

TEST_F(LbdbTest, ExpiryIsStored)
{
    ready(LBQ_FL_ADD);
    const long exp = static_cast<long>(time(nullptr)) + 3600;
    ASSERT_EQ(lbdb_add_segurl("s1", "http://h/s1", exp), 0);
    auto score = cmd("zscore %s %s", "s1", "http://h/s1");
    ASSERT_EQ(score->type, REDIS_REPLY_STRING);
    EXPECT_EQ(std::string(score->str), std::to_string(exp));
    auto ttl = cmd("ttl %s", "s1");
    EXPECT_GT(ttl->integer, 3500);
    EXPECT_LE(ttl->integer, 3600);

    // No expiry: the URL and its key stay.
    ASSERT_EQ(lbdb_add_segurl("s2", "http://h/s2", 0), 0);
    EXPECT_STREQ(cmd("zscore %s %s", "s2", "http://h/s2")->str, "inf");
    EXPECT_EQ(cmd("ttl %s", "s2")->integer, -1);

    std::string err;
    testing::internal::CaptureStderr();
    EXPECT_EQ(lbdb_add_segurl("s3", "http://h/s3", 1000000000), -1);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "lbdb_add_segurl: #err: expiry 1000000000 has passed\n")) << err;
    EXPECT_EQ(cmd("exists %s", "s3")->integer, 0);
}

TEST_F(LbdbTest, ReplyLongerThanBuffer)
{
    ready();
    const std::string url = "http://h/0123456789"; // 19 characters
    ASSERT_EQ(lbdb_add_segurl("seg", url.c_str(), 0), 0);
    char buf[20];
    EXPECT_EQ(lbdb_rr_get_segurl("seg", nullptr, buf, 19), 0);
    EXPECT_EQ(buf, url);
    std::string err;
    testing::internal::CaptureStderr();
    EXPECT_EQ(lbdb_rr_get_segurl("seg", nullptr, buf, 18), 34);
    err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(err, "reply_to_str: reply is bigger than buffer: 19/18\n")) << err;
    EXPECT_STREQ(buf, "");
}

TEST_F(LbdbTest, MbGetUsesNextDigest)
{
    ready();
    ASSERT_EQ(lbdb_add_segurl("seg", "http://a/seg", 100), 0);
    ASSERT_EQ(lbdb_add_segurl("seg", "http://b/seg", 0), 0);
    g_mod_ll[LOG_MOD_APP] = L_DEBUG;
    char buf[128];
    testing::internal::CaptureStderr();
    const int rc = lbdb_mb_get_segurl("seg", nullptr, "http://b", buf, sizeof(buf) - 1);
    const std::string err = testing::internal::GetCapturedStderr();
    g_mod_ll[LOG_MOD_APP] = saved_level;
    ASSERT_EQ(rc, 0) << err;
    // The "mbget" script would pick the URL matching the criteria; "next" starts with the
    // earliest-expiring one.
    EXPECT_STREQ(buf, "http://a/seg");
    EXPECT_TRUE(has(err, std::string("evalsha ") + lbdb_get_ctx()->mbget_sha1 +
                             " 1 seg - http://b -\n"))
        << err;
}

// Stand-in "add" and "del" scripts give the replies a correct server never sends.
TEST_F(LbdbTest, ReplyShapes)
{
    struct Row {
        bool del;
        const char* body;
        int rc;
        std::string log;
    };
    const Row rows[] = {
        {false, "return 'OK ' .. KEYS[1]", 0, ""},
        {false, "return {'OK seg1'}", 0, ""},
        {false, "return 'OK seg2'", -1, "lbdb_add_segurl: expected seg1, got [seg2]\n"},
        {false, "return '#err: disk on fire'", -1, "lbdb_add_segurl: #err: disk on fire\n"},
        {false, "return 'NO ' .. string.rep('x', 100)",
         -1, "lbdb_add_segurl: failed: NO " + std::string(77, 'x') + "\n"},
        {false, "return 42", 22, "reply_to_str: not expecting reply type=3\n"},
        {false, "return nil", 22, "reply_to_str: not expecting reply type=4\n"},
        {false, "return {7}", 22, "reply_to_str: expected string, got 3\n"},
        {false, "return {'a', 'b'}", 22, "reply_to_str: more than 1 element (2) returned\n"},
        {false, "return redis.status_reply('FINE')", -1, "reply_to_str: Redis status: FINE\n"},
        {false, "return redis.error_reply('ERR bad')", -1, "reply_to_str: Redis error: ERR bad\n"},
        {true, "return 'OK 7'", 0, ""},
        {true, "return 'GONE'", -1, "lbdb_del_segurl: failed: GONE\n"},
    };
    const std::string fake = dir + "/fake";
    fs::create_directory(fake);
    for (const Row& r : rows) {
        SCOPED_TRACE(r.body);
        auto sha = cmd("script load %s", r.body);
        ASSERT_EQ(sha->type, REDIS_REPLY_STRING);
        write_file(fake + (r.del ? "/del_url.sha1" : "/add_url.sha1"),
                   std::string(sha->str) + "\n");
        ASSERT_EQ(lbdb_init(fake.c_str(), r.del ? LBQ_FL_DEL : LBQ_FL_ADD, 0), 0);
        ASSERT_EQ(lbdb_connect("127.0.0.1", port, timeval{1, 0}), 0);
        long left = -1;
        testing::internal::CaptureStderr();
        const int rc = r.del ? lbdb_del_segurl("seg1", "http://h/seg1", &left)
                             : lbdb_add_segurl("seg1", "http://h/seg1", 0);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, r.rc);
        if (!r.log.empty()) {
            EXPECT_TRUE(has(err, r.log)) << err;
        } else {
            EXPECT_EQ(err, "");
        }
        if (r.del && rc == 0) {
            EXPECT_EQ(left, 7);
        }
        lbdb_destroy();
    }
}

TEST_F(LbdbTest, DroppedConnection)
{
    ready(LBQ_FL_ADD);
    ASSERT_EQ(lbdb_add_segurl("seg", "http://h/seg", 0), 0);
    stop_server();
    for (int i = 0; i < 2; ++i) { // no reconnection: every later call fails the same way
        testing::internal::CaptureStderr();
        EXPECT_EQ(lbdb_add_segurl("seg", "http://h/seg", 0), -1);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(has(err, "lbdb_add_segurl: NULL as reply\n")) << err;
    }
}

using LbdbDeathTest = LbdbTest;

TEST_F(LbdbDeathTest, EmptyDigestAbortsAtConnect)
{
    const std::string empty = dir + "/empty";
    fs::create_directory(empty);
    write_file(empty + "/add_url.sha1", "");
    std::string err;
    ASSERT_EQ(init_captured(empty, LBQ_FL_ADD, &err), 0);
    EXPECT_DEATH((void)lbdb_connect("127.0.0.1", port, timeval{1, 0}), "g_ctx\\.add_sha1\\[0\\]");
}

} // namespace
