// Tests of the download engine: key and URL rules, destination paths, the destination file on
// both write paths, completion and removal with fake task records in a temporary data directory,
// and whole downloads through a real event loop against a loopback HTTP source.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "app.h"
#include "cfg.h"
#include "log.h"
#include "rq.h"
#include "rqs.h"

namespace {

namespace fs = std::filesystem;

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A response head as recv_http_response leaves it: the last byte of the end-of-head marker is
// overwritten with a NUL, `tail` is the offset of the first body byte.
struct fake_response {
    char buf[DW_RESP_BUFSZ] = {};
    http_resp_ctx resp{};

    explicit fake_response(const std::string& text)
    {
        memcpy(buf, text.data(), text.size());
        resp.code = 200;
        resp.total = static_cast<ssize_t>(text.size());
        const size_t eoh = text.find("\r\n\r\n");
        if (eoh != std::string::npos) {
            resp.tail = static_cast<ssize_t>(eoh + 4);
            buf[resp.tail - 1] = '\0';
        }
    }
};

class AppTest : public testing::Test {
protected:
    std::string dir;
    std::string logpath;
    vesk_cfg saved{};

    void SetUp() override
    {
        static bool log_ready = false;
        if (!log_ready) {
            glog_init("vsk");
            log_ready = true;
        }
        char tmpl[] = "/tmp/vsk_app_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        logpath = dir + "/test.log";
        ASSERT_EQ(log_open_ex(g_log, logpath.c_str(), F_APPEND_OLD), 0);
        g_mod_ll[LOG_MOD_APP] = L_DEBUG;
        saved = *g_cfg;
        init_vesk_config(g_cfg);
        snprintf(g_cfg->data_dir, sizeof(g_cfg->data_dir), "%s", dir.c_str());
        g_cfg->max_tasks = 16;
        g_cfg->max_mmap_mb = 8;
        g_cfg->task_tmout_ms = 5000;
    }

    void TearDown() override
    {
        pprm_task_cleanup();
        log_close(g_log);
        log_default(g_log, stderr);
        *g_cfg = saved;
        fs::remove_all(dir);
    }

    std::string log_text() const { return slurp(logpath); }

    // A task record that is in no table, as the destination functions see it.
    void fake_task(dw_task* dw, const std::string& rel)
    {
        memset(dw, 0, sizeof(*dw));
        set_tag32(&dw->tag, "DOW");
        dw->idx = -1;
        dw->sfd = dw->dfd = dw->cfd = -1;
        snprintf(dw->spec.url, sizeof(dw->spec.url), "http://src.example/%s", rel.c_str());
        snprintf(dw->spec.dst_path, sizeof(dw->spec.dst_path), "%s", rel.c_str());
        snprintf(dw->spec.fpath, sizeof(dw->spec.fpath), "%s/%s%s", dir.c_str(), rel.c_str(),
                 VESK_SEGXT);
        memcpy(dw->trk_tag.sym8, "T0001", 6);
    }
};

TEST(AppKeys, Url2KeyDropsTheSchemeOnly)
{
    const struct {
        const char* url;
        const char* key;
    } cases[] = {
        {"http://h:8080/a/b.ts", "h:8080/a/b.ts"},
        {"h:8080/a/b.ts", "h:8080/a/b.ts"},
        {"HTTP://h/x", "h/x"},
        {"http://h/redirect?u=ftp://x", "h/redirect?u=ftp://x"},
        {"://h", "h"},
        {"", ""},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(url2key(c.url), c.key) << c.url;
}

TEST(AppPaths, DestPathSafety)
{
    const struct {
        const char* path;
        bool safe;
    } cases[] = {
        {"live/a.ts", true},
        {"a.ts", true},
        {"live/..a/b..", true},
        {"./live/a.ts", true},
        {"live/.../a.ts", true},
        {"", false},
        {"/etc/passwd", false},
        {"..", false},
        {"../a.ts", false},
        {"live/../a.ts", false},
        {"live/..", false},
        {"live//../../x", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(dest_path_is_safe(c.path), c.safe) << "[" << c.path << "]";
    EXPECT_FALSE(dest_path_is_safe(nullptr));
}

TEST_F(AppTest, LocalUrlMatchesPrefixAtASegmentBoundary)
{
    snprintf(g_cfg->seg_url_pfx, sizeof(g_cfg->seg_url_pfx), "http://seg.local:8080");
    const struct {
        const char* url;
        bool local;
    } cases[] = {
        {"http://seg.local:8080", true},
        {"http://seg.local:8080/live/a.ts", true},
        {"HTTP://SEG.Local:8080/live/a.ts", true},
        {"http://seg.local:80801/a.ts", false},
        {"http://seg.local:8080x/a.ts", false},
        {"http://seg.local:808", false},
        {"http://other:8080/a.ts", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(is_local_url(c.url), c.local) << c.url;

    g_cfg->seg_url_pfx[0] = '\0';
    EXPECT_FALSE(is_local_url("http://seg.local:8080/a.ts"));
}

TEST_F(AppTest, MmapLimitIsInclusive)
{
    dw_task dw;
    fake_task(&dw, "a.ts");
    dw.content_length = 8u << 20;
    EXPECT_TRUE(can_mmap_dw(&dw));
    dw.content_length += 1;
    EXPECT_FALSE(can_mmap_dw(&dw));
    g_cfg->max_mmap_mb = 0;
    dw.content_length = 1;
    EXPECT_FALSE(can_mmap_dw(&dw));
}

TEST_F(AppTest, BusyDestinationIsRefusedAndKept)
{
    const std::string final_path = dir + "/seg.ts";
    const std::string tmp_path = final_path + VESK_SEGXT;
    EXPECT_EQ(check_dest_path(tmp_path.c_str()), 0);
    std::ofstream(final_path) << "old";
    EXPECT_EQ(check_dest_path(tmp_path.c_str()), -16);
    EXPECT_EQ(slurp(final_path), "old");
    EXPECT_NE(log_text().find("check_dest_path: destination [" + final_path +
                              "] is BUSY (already there)"),
              std::string::npos);
}

TEST_F(AppTest, MissingOrZeroContentLengthIsRefused)
{
    const char* heads[] = {
        "HTTP/1.1 200 OK\r\nServer: x\r\n\r\nabc",
        "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n",
    };
    for (const char* h : heads) {
        dw_task dw;
        fake_task(&dw, "nolen.ts");
        fake_response r(h);
        EXPECT_EQ(mk_dest_file(&dw, r.buf, &r.resp), 22) << h;
        EXPECT_EQ(dw.dfd, -1);
        EXPECT_FALSE(fs::exists(dw.spec.fpath)) << h;
        free_dw(&dw);
    }
    EXPECT_NE(log_text().find("mk_dest_file: invalid/missing content length: -1"),
              std::string::npos);
}

// A small body that arrived with the head leaves nothing to read, on either write path; the
// completion then renames it into place.
TEST_F(AppTest, TailHoldingTheWholeBodyCompletesOnBothPaths)
{
    for (const size_t mmap_mb : {size_t{8}, size_t{0}}) {
        g_cfg->max_mmap_mb = mmap_mb;
        const std::string rel = "live/whole" + std::to_string(mmap_mb) + ".ts";
        fs::create_directories(dir + "/live");
        dw_task dw;
        fake_task(&dw, rel);
        fake_response r("HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\nhello world");
        ASSERT_EQ(mk_dest_file(&dw, r.buf, &r.resp), 0) << mmap_mb;
        EXPECT_EQ(dw.is_mmapped, mmap_mb != 0);
        EXPECT_EQ(dw.content_length, 11u);
        EXPECT_EQ(dw.nleft, 0u);
        EXPECT_EQ(dw.f_pos, 11);
        EXPECT_EQ(fs::file_size(dw.spec.fpath), 11u);

        ASSERT_EQ(complete_download(&dw), 0);
        EXPECT_EQ(std::string(dw.spec.fpath), dir + "/" + rel);
        EXPECT_TRUE(dw.is_quitting);
        pprm_task_cleanup();
        EXPECT_EQ(slurp(dir + "/" + rel), "hello world");
        EXPECT_FALSE(fs::exists(dir + "/" + rel + VESK_SEGXT));
    }
}

// Body bytes beyond the announced length are not written past the file's end.
TEST_F(AppTest, TailLongerThanContentLengthIsCut)
{
    for (const size_t mmap_mb : {size_t{8}, size_t{0}}) {
        g_cfg->max_mmap_mb = mmap_mb;
        dw_task dw;
        fake_task(&dw, "cut" + std::to_string(mmap_mb) + ".ts");
        fake_response r("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n0123456789");
        ASSERT_EQ(mk_dest_file(&dw, r.buf, &r.resp), 0);
        EXPECT_EQ(dw.nleft, 0u);
        ASSERT_EQ(complete_download(&dw), 0);
        pprm_task_cleanup();
        EXPECT_EQ(slurp(dw.spec.fpath), "0123");
    }
}

TEST_F(AppTest, PartialTailLeavesTheRestToRead)
{
    for (const size_t mmap_mb : {size_t{8}, size_t{0}}) {
        g_cfg->max_mmap_mb = mmap_mb;
        dw_task dw;
        fake_task(&dw, "part.ts");
        fake_response r("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc");
        ASSERT_EQ(mk_dest_file(&dw, r.buf, &r.resp), 0);
        EXPECT_EQ(dw.nleft, 7u);
        EXPECT_EQ(dw.f_pos, 3);

        // The rest arrives through the "source" socket.
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        dw.sfd = sv[0];
        ASSERT_EQ(write(sv[1], "defghij", 7), 7);
        ASSERT_EQ(read_fragment(&dw), 0);
        EXPECT_EQ(dw.nleft, 0u);
        ASSERT_EQ(complete_download(&dw), 0);
        pprm_task_cleanup(); // closes sv[0]
        close(sv[1]);
        EXPECT_EQ(slurp(dir + "/part.ts"), "abcdefghij");
        fs::remove(dir + "/part.ts");
    }
}

TEST_F(AppTest, SourceClosingEarlyIsAnError)
{
    g_cfg->max_mmap_mb = 0;
    dw_task dw;
    fake_task(&dw, "early.ts");
    fake_response r("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc");
    ASSERT_EQ(mk_dest_file(&dw, r.buf, &r.resp), 0);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    dw.sfd = sv[0];
    close(sv[1]);
    EXPECT_NE(read_fragment(&dw), 0);
    EXPECT_EQ(dw.nleft, 7u);
    free_dw(&dw);
    EXPECT_FALSE(fs::exists(dir + "/early.ts-Vesk"));
}

TEST_F(AppTest, FreeRemovesOnlyItsOwnUnfinishedFile)
{
    // Its own unfinished file goes.
    dw_task dw;
    fake_task(&dw, "mine.ts");
    fake_response r("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc");
    ASSERT_EQ(mk_dest_file(&dw, r.buf, &r.resp), 0);
    const std::string unfinished = dw.spec.fpath;
    ASSERT_TRUE(fs::exists(unfinished));
    free_dw(&dw);
    EXPECT_FALSE(fs::exists(unfinished));
    EXPECT_EQ(dw.tag.sym4[0], '#');
    EXPECT_EQ(dw.dfd, -1);
    EXPECT_FALSE(dw.is_mmapped);
    EXPECT_NE(log_text().find("free_dw: removing unfinished [" + unfinished + "]"),
              std::string::npos);

    // Another task's unfinished file of the same name stays when creating it fails here.
    std::ofstream(dir + "/theirs.ts-Vesk") << "partial";
    dw_task other;
    fake_task(&other, "theirs.ts");
    fake_response r2("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
    EXPECT_EQ(mk_dest_file(&other, r2.buf, &r2.resp), EEXIST);
    free_dw(&other);
    EXPECT_EQ(slurp(dir + "/theirs.ts-Vesk"), "partial");
}

TEST_F(AppTest, RenameFailureKeepsTheUnfinishedFile)
{
    // A directory in the place of the final name makes the rename fail.
    fs::create_directories(dir + "/blocked.ts/inner");
    dw_task dw;
    fake_task(&dw, "blocked.ts");
    fake_response r("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nxyz");
    ASSERT_EQ(mk_dest_file(&dw, r.buf, &r.resp), 0);
    EXPECT_EQ(complete_download(&dw), -1);
    EXPECT_EQ(std::string(dw.spec.fpath), dir + "/blocked.ts");
    EXPECT_FALSE(dw.is_quitting);
    free_dw(&dw);
    EXPECT_EQ(slurp(dir + "/blocked.ts-Vesk"), "xyz");
    EXPECT_NE(log_text().find("complete_download: rename(" + dir + "/blocked.ts-Vesk, " + dir +
                              "/blocked.ts) ERROR("),
              std::string::npos);
}

// With the registry in use the segment is registered even after a failed rename; here the
// registry is not connected, so reaching it is fatal, which proves the call is made.
TEST_F(AppTest, RenameFailureStillRegisters)
{
    fs::create_directories(dir + "/reg.ts/inner");
    EXPECT_DEATH(
        {
            g_cfg->lbdb.port = 6379;
            snprintf(g_cfg->seg_url_pfx, sizeof(g_cfg->seg_url_pfx), "http://me:81");
            dw_task dw;
            fake_task(&dw, "reg.ts");
            fake_response r("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nxyz");
            if (mk_dest_file(&dw, r.buf, &r.resp) == 0)
                (void)complete_download(&dw);
            _exit(0);
        },
        "");
    EXPECT_TRUE(fs::exists(dir + "/reg.ts-Vesk"));
    const std::string log = log_text();
    EXPECT_NE(log.find("complete_download: rename("), std::string::npos);
    EXPECT_NE(log.find("add_lbdb_url: id=[reg.ts], url=[http://me:81/reg.ts]"), std::string::npos);
}

TEST_F(AppTest, NofileLimitCoversTheTasks)
{
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int rc = raise_nofile_limit(64);
    rlimit after;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &after), 0);
    const rlim_t need = 64 * DW_FDS_PER_TASK + DW_FDS_RESERVE;
    if (before.rlim_max == RLIM_INFINITY || before.rlim_max >= need) {
        EXPECT_EQ(rc, 0);
        EXPECT_GE(after.rlim_cur, need);
    } else {
        EXPECT_EQ(rc, 1);
        EXPECT_NE(log_text().find("raise_nofile_limit: open files limit"), std::string::npos);
    }
    EXPECT_GE(after.rlim_cur, before.rlim_cur);
}

// ---- Whole tasks through the event loop ---------------------------------------------------------

// A source that accepts one connection, reads the request head and answers `reply`.
class loopback_source {
public:
    // With `keep_open` the connection stays open after the reply until the source is destroyed.
    explicit loopback_source(std::string reply, bool keep_open = false)
        : reply_(std::move(reply)), keep_open_(keep_open)
    {
        lfd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(lfd_, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        socklen_t len = sizeof(a);
        getsockname(lfd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        listen(lfd_, 4);
        th_ = std::thread([this] { serve(); });
    }
    ~loopback_source()
    {
        // Wakes the thread whether it waits in accept or on a connection that never sends.
        shutdown(lfd_, SHUT_RDWR);
        if (const int c = conn_.load(); c >= 0)
            shutdown(c, SHUT_RDWR);
        th_.join();
        if (conn_ >= 0)
            close(conn_);
        close(lfd_);
    }
    int port() const { return port_; }
    std::string request() const { return request_; }

private:
    void serve()
    {
        const int c = accept(lfd_, nullptr, nullptr);
        if (c < 0)
            return;
        conn_ = c;
        char buf[2048];
        while (request_.find("\r\n\r\n") == std::string::npos) {
            const ssize_t n = read(c, buf, sizeof(buf));
            if (n <= 0)
                break;
            request_.append(buf, static_cast<size_t>(n));
        }
        (void)!send(c, reply_.data(), reply_.size(), MSG_NOSIGNAL);
        if (!keep_open_)
            shutdown(c, SHUT_WR); // the descriptor itself is closed by the owner, after the join

    }

    std::string reply_;
    bool keep_open_;
    int lfd_ = -1;
    int port_ = 0;
    std::atomic<int> conn_{-1};
    std::thread th_;
    std::string request_;
};

int loop_read(int, int, void* udata, void*)
{
    auto* dw = static_cast<dw_task*>(udata);
    return dw->tag.num == DOW_TAG ? dw_read(dw) : 0;
}
int loop_write(int, int, void* udata, void*)
{
    auto* dw = static_cast<dw_task*>(udata);
    return dw->tag.num == DOW_TAG ? dw_write(dw) : 0;
}
int loop_error(int, int, void*, void*)
{
    return 0;
}
// A download that never ends must not hang the test: give up after some idle passes.
int g_idle_passes = 0;
int loop_idle()
{
    return ++g_idle_passes > 5 ? 2 : 0;
}
// Ends the loop once every task is gone.
int loop_pp()
{
    pprm_task_cleanup();
    return g_ctx.tasks.len == 0 ? 1 : 0;
}
void loop_tmout(timespec* ts)
{
    *ts = {1, 0};
}

class AppLoopTest : public AppTest {
protected:
    void SetUp() override
    {
        AppTest::SetUp();
        ASSERT_EQ(init_vesk_ctx(), 0);
        rqs_config cfg{};
        cfg.cb.update_tmout = loop_tmout;
        cfg.cb.read = loop_read;
        cfg.cb.write = loop_write;
        cfg.cb.error = loop_error;
        cfg.cb.post_process = loop_pp;
        cfg.cb.on_idle = loop_idle;
        g_idle_passes = 0;
        ASSERT_EQ(rqs_init(&cfg), 0);
    }
    void TearDown() override
    {
        destroy_vesk_ctx();
        rqs_destroy();
        AppTest::TearDown();
    }

    dw_spec spec_for(int port, const std::string& rel)
    {
        dw_spec s{};
        snprintf(s.url, sizeof(s.url), "http://127.0.0.1:%d/src/%s", port, rel.c_str());
        snprintf(s.dst_path, sizeof(s.dst_path), "%s", rel.c_str());
        snprintf(s.fpath, sizeof(s.fpath), "%s/%s%s", dir.c_str(), rel.c_str(), VESK_SEGXT);
        return s;
    }

    // Runs a download for a client on one end of a socket pair; returns what the client got.
    std::string run_download(const dw_spec& s)
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        EXPECT_EQ(mk_dw_task(sv[0], &s), 0);
        close(sv[0]); // the task answers through its own duplicate
        EXPECT_EQ(rqs_event_loop(), 1) << "the loop did not end by the last task's removal";
        std::string answer;
        char buf[1024];
        ssize_t n;
        while ((n = read(sv[1], buf, sizeof(buf))) > 0)
            answer.append(buf, static_cast<size_t>(n));
        close(sv[1]);
        return answer;
    }
};

TEST_F(AppLoopTest, DownloadsIntoPlaceAndAnswers200)
{
    const std::string body(5000, 'v');
    loopback_source src("HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + body);
    const dw_spec s = spec_for(src.port(), "seg1.ts");
    const std::string answer = run_download(s);
    EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
    EXPECT_EQ(slurp(dir + "/seg1.ts"), body);
    EXPECT_FALSE(fs::exists(dir + "/seg1.ts-Vesk"));
    EXPECT_EQ(src.request().rfind("GET /src/seg1.ts HTTP/1.1\r\n", 0), 0u) << src.request();
    EXPECT_EQ(g_ctx.tasks.len, 0u);
    const std::string log = log_text();
    EXPECT_NE(log.find("downloaded: 5000 bytes, [" + std::string(s.url) + "] to [" + dir +
                       "/seg1.ts]"),
              std::string::npos);
    EXPECT_NE(log.find("TASK-END"), std::string::npos);
}

// A body that came with the head completes at once, although the source keeps the connection.
TEST_F(AppLoopTest, BodyInTheHeadCompletesWithoutWaitingForTheSource)
{
    loopback_source src("HTTP/1.1 206 Partial Content\r\nContent-Length: 5\r\n\r\nhello", true);
    const std::string answer = run_download(spec_for(src.port(), "small.ts"));
    EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
    EXPECT_EQ(slurp(dir + "/small.ts"), "hello");
}

TEST_F(AppLoopTest, SourceNotFoundIsPassedOnAndLeavesNoFile)
{
    loopback_source src("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    const dw_spec s = spec_for(src.port(), "missing.ts");
    const std::string answer = run_download(s);
    EXPECT_EQ(answer.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u) << answer;
    EXPECT_FALSE(fs::exists(dir + "/missing.ts"));
    EXPECT_FALSE(fs::exists(dir + "/missing.ts-Vesk"));
    EXPECT_EQ(g_ctx.tasks.len, 0u);
    EXPECT_NE(log_text().find("read_src_response: expected HTTP 2xx, got HTTP 404"),
              std::string::npos);
}

TEST_F(AppLoopTest, DuplicatesAndLimit)
{
    g_cfg->max_tasks = 2;
    loopback_source src("HTTP/1.1 500 Oops\r\n\r\n");
    const dw_spec a = spec_for(src.port(), "a.ts");
    ASSERT_EQ(mk_dw_task(-1, &a), 0);

    // The same URL, with or without its scheme, is the same download.
    EXPECT_EQ(mk_dw_task(-1, &a), 17);
    dw_spec bare = a;
    snprintf(bare.url, sizeof(bare.url), "%s", url2key(a.url));
    EXPECT_EQ(mk_dw_task(-1, &bare), 17);

    const dw_spec b = spec_for(src.port(), "b.ts");
    ASSERT_EQ(mk_dw_task(-1, &b), 0);
    const dw_spec c = spec_for(src.port(), "c.ts");
    EXPECT_EQ(mk_dw_task(-1, &c), -1);
    EXPECT_NE(log_text().find("mk_dw_task: limit on tasks exceeded [2]"), std::string::npos);

    // A task listed for removal frees its URL at once.
    dw_task* first = get_dw_task(url2key(a.url));
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(pprm_task(first), 0);
    EXPECT_EQ(get_dw_task(url2key(a.url)), nullptr);
    EXPECT_EQ(pprm_task(first), 0); // listed once only
    EXPECT_EQ(g_ctx.pprm_tasks.len, 1u);
    pprm_task_cleanup();
    EXPECT_EQ(g_ctx.tasks.len, 1u);
    EXPECT_EQ(mk_dw_task(-1, &a), 0);
}

} // namespace
