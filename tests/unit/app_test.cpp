// Tests of the download engine's rules: keys, local URLs, safe destinations, and the destination
// file on both write paths, its completion and removal, with task records in a temporary data
// directory. Whole downloads through the event loop are covered end to end.
#include <cstring>
#include <fcntl.h>
#include <fstream>

#include "app.h"
#include "cfg.h"
#include "ioh.h"
#include "rqs.h"
#include "rq.h"
#include "test_support.h"
#include "webops.h"

namespace {

namespace fs = std::filesystem;
using vsk_test::contains;
using vsk_test::slurp;

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
        resp.tail = static_cast<ssize_t>(text.find("\r\n\r\n") + 4);
        buf[resp.tail - 1] = '\0';
        // The length as recv_http_response checks it; a refused head leaves it absent (-1).
        (void)check_body_framing(buf, static_cast<size_t>(resp.tail - 1), resp.code,
                                 &resp.content_length, resp.malformed, sizeof resp.malformed);
    }
};

class AppTest : public testing::Test {
protected:
    vsk_test::log_capture log;
    vsk_test::temp_dir dir{"vsk-app"};
    vesk_cfg saved = *g_cfg;

    void SetUp() override
    {
        init_vesk_config(g_cfg);
        snprintf(g_cfg->data_dir, sizeof(g_cfg->data_dir), "%s", dir.path().c_str());
        g_cfg->max_mmap_mb = 8;
    }
    void TearDown() override
    {
        pprm_task_cleanup();
        *g_cfg = saved;
    }

    // A task record in no table, as the destination functions see it, with the response `head`.
    int make_dest(dw_task* dw, const std::string& rel, const std::string& head)
    {
        memset(dw, 0, sizeof(*dw));
        set_tag32(&dw->tag, "DOW");
        dw->idx = -1;
        dw->sfd = dw->dfd = dw->cfd = -1;
        snprintf(dw->spec.url, sizeof(dw->spec.url), "http://src.example/%s", rel.c_str());
        snprintf(dw->spec.dst_path, sizeof(dw->spec.dst_path), "%s", rel.c_str());
        snprintf(dw->spec.fpath, sizeof(dw->spec.fpath), "%s%s", (dir / rel).c_str(), VESK_SEGXT);
        memcpy(dw->trk_tag.sym8, "T0001", 6);
        fake_response r(head);
        return mk_dest_file(dw, r.buf, &r.resp);
    }
};

TEST(AppRules, KeysAndSafeDestinations)
{
    const std::pair<const char*, const char*> keys[] = {
        {"http://h:8080/a/b.ts", "h:8080/a/b.ts"}, {"h:8080/a/b.ts", "h:8080/a/b.ts"},
        {"HTTP://h/x", "h/x"}, {"http://h/redirect?u=ftp://x", "h/redirect?u=ftp://x"}, {"", ""}};
    for (const auto& [url, key] : keys)
        EXPECT_STREQ(url2key(url), key) << url;

    const std::pair<const char*, bool> paths[] = {
        {"live/a.ts", true},   {"live/..a/b..", true},  {"./live/a.ts", true},
        {"", false},           {"/etc/passwd", false},  {"..", false},
        {"../a.ts", false},    {"live/../a.ts", false}, {"live/..", false},
        {"live/a.ts-Vesk", false}, {"live/a-Vesk.ts", true},
    };
    for (const auto& [path, safe] : paths)
        EXPECT_EQ(dest_path_is_safe(path), safe) << "[" << path << "]";
    EXPECT_FALSE(dest_path_is_safe(nullptr));
}

TEST_F(AppTest, LocalUrlMatchesPrefixAtASegmentBoundary)
{
    snprintf(g_cfg->seg_url_pfx, sizeof(g_cfg->seg_url_pfx), "http://seg.local:8080");
    const std::pair<const char*, bool> cases[] = {
        {"http://seg.local:8080", true},
        {"HTTP://SEG.Local:8080/live/a.ts", true},
        {"http://seg.local:80801/a.ts", false},
        {"http://seg.local:808", false},
    };
    for (const auto& [url, local] : cases)
        EXPECT_EQ(is_local_url(url), local) << url;
    g_cfg->seg_url_pfx[0] = '\0';
    EXPECT_FALSE(is_local_url("http://seg.local:8080/a.ts"));
}

TEST_F(AppTest, MmapLimitIsInclusive)
{
    dw_task dw{};
    dw.content_length = 8u << 20;
    EXPECT_TRUE(can_mmap_dw(&dw));
    dw.content_length += 1;
    EXPECT_FALSE(can_mmap_dw(&dw));
    g_cfg->max_mmap_mb = 0;
    dw.content_length = 1;
    EXPECT_FALSE(can_mmap_dw(&dw)) << "0 MB turns mapping off";
}

TEST_F(AppTest, MissingOrZeroContentLengthIsRefused)
{
    for (const char* head : {"HTTP/1.1 200 OK\r\nServer: x\r\n\r\nabc",
                             "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n"}) {
        dw_task dw;
        EXPECT_EQ(make_dest(&dw, "nolen.ts", head), 22) << head;
        EXPECT_FALSE(fs::exists(dw.spec.fpath)) << head;
        free_dw(&dw);
    }
    EXPECT_TRUE(contains(log.take(), "mk_dest_file: invalid/missing content length: -1"));
}

// A body that arrived with the head leaves nothing to read, on either write path (bytes beyond
// the announced length are dropped); the completion renames it into place.
TEST_F(AppTest, TailHoldingTheWholeBodyCompletesOnBothPaths)
{
    fs::create_directories(dir / "live");
    for (const size_t mmap_mb : {size_t{8}, size_t{0}}) {
        g_cfg->max_mmap_mb = mmap_mb;
        const std::string rel = "live/whole" + std::to_string(mmap_mb) + ".ts";
        dw_task dw;
        ASSERT_EQ(make_dest(&dw, rel, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello++"), 0);
        EXPECT_EQ(dw.is_mmapped, mmap_mb != 0);
        EXPECT_EQ(dw.nleft, 0u);
        EXPECT_EQ(fs::file_size(dw.spec.fpath), 5u);
        ASSERT_EQ(complete_download(&dw), 0);
        EXPECT_EQ(std::string(dw.spec.fpath), dir / rel);
        pprm_task_cleanup();
        EXPECT_EQ(slurp(dir / rel), "hello");
        EXPECT_FALSE(fs::exists(dir / rel + VESK_SEGXT));
    }
}

TEST_F(AppTest, FreeRemovesOnlyItsOwnUnfinishedFile)
{
    dw_task dw;
    ASSERT_EQ(make_dest(&dw, "mine.ts", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc"), 0);
    const std::string unfinished = dw.spec.fpath;
    ASSERT_TRUE(fs::exists(unfinished));
    free_dw(&dw);
    EXPECT_FALSE(fs::exists(unfinished));
    EXPECT_EQ(dw.tag.sym4[0], '#');
    EXPECT_TRUE(contains(log.take(), "free_dw: removing unfinished [" + unfinished + "]"));

    // Another task's unfinished file of the same name stays when creating it fails here.
    std::ofstream(dir / "theirs.ts-Vesk") << "partial";
    EXPECT_EQ(make_dest(&dw, "theirs.ts", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n"), EEXIST);
    free_dw(&dw);
    EXPECT_EQ(slurp(dir / "theirs.ts-Vesk"), "partial");

    // A failed rename keeps the unfinished file, which is no longer taken for this task's own.
    fs::create_directories(dir / "blocked.ts/inner");
    ASSERT_EQ(make_dest(&dw, "blocked.ts", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nxyz"), 0);
    EXPECT_EQ(complete_download(&dw), -1);
    EXPECT_FALSE(dw.is_quitting);
    free_dw(&dw);
    EXPECT_EQ(slurp(dir / "blocked.ts-Vesk"), "xyz");
    EXPECT_TRUE(contains(log.take(), "complete_download: rename(" + dir / "blocked.ts-Vesk, " +
                                         dir / "blocked.ts) ERROR("));
}

// An unfinished file left alone for a while is expired by a later request for the same name and
// made anew; the task that created the first one must then neither remove nor rename the new one.
TEST_F(AppTest, FileReplacedUnderTheSameNameIsLeftAlone)
{
    const auto replace = [](const std::string& path) {
        fs::remove(path);
        std::ofstream(path) << "theirs";
    };
    dw_task dw;
    ASSERT_EQ(make_dest(&dw, "gone.ts", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc"), 0);
    const std::string unfinished = dw.spec.fpath;
    replace(unfinished);
    free_dw(&dw);
    EXPECT_EQ(slurp(unfinished), "theirs");

    for (const size_t mmap_mb : {size_t{8}, size_t{0}}) {
        g_cfg->max_mmap_mb = mmap_mb;
        ASSERT_EQ(make_dest(&dw, "done.ts", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nxyz"), 0);
        replace(dw.spec.fpath);
        EXPECT_EQ(complete_download(&dw), -1) << mmap_mb;
        free_dw(&dw);
        EXPECT_FALSE(fs::exists(dir / "done.ts")) << mmap_mb;
        EXPECT_EQ(slurp(dir / "done.ts-Vesk"), "theirs") << mmap_mb;
        fs::remove(dir / "done.ts-Vesk");
    }
    EXPECT_TRUE(contains(log.take(), "is no longer the file this task wrote"));
}

// With the registry in use the segment is registered even after a failed rename; here the
// registry is not connected, so reaching it is fatal, which proves the call is made.
TEST_F(AppTest, RenameFailureStillRegisters)
{
    fs::create_directories(dir / "reg.ts/inner");
    g_cfg->lbdb.port = 6379;
    snprintf(g_cfg->seg_url_pfx, sizeof(g_cfg->seg_url_pfx), "http://me:81");
    dw_task dw;
    ASSERT_EQ(make_dest(&dw, "reg.ts", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nxyz"), 0);
    EXPECT_DEATH((log_default(g_log, stderr), complete_download(&dw)),
                 "add_lbdb_url: id=\\[reg.ts\\], url=\\[http://me:81/reg.ts\\]");
    free_dw(&dw);
}

// A task that ends while the kernel's worker reserves its file hands the descriptor to the ring:
// the number stays taken until the completion is read, so no file opened meanwhile can be the one
// the late reservation lands on; then it is closed, and the completion finds no task.
TEST_F(AppTest, TaskEndingDuringItsReservationHandsTheFileToTheRing)
{
    const rqs_config loop{vsk_test::ioh_callbacks(), 0};
    ASSERT_EQ(0, rqs_init(&loop));
    g_cfg->max_mmap_mb = 0;
    start_reserve_worker();
    if (contains(log.take(), "no submission ring")) {
        rqs_destroy();
        GTEST_SKIP() << "the kernel refuses the submission ring here";
    }
    dw_task dw;
    ASSERT_EQ(make_dest(&dw, "held.ts", "HTTP/1.1 200 OK\r\nContent-Length: 1048576\r\n\r\nabc"),
              EINPROGRESS);
    EXPECT_EQ(dw.held_len, 3u);
    const int fd = dw.dfd;
    free_dw(&dw);
    // The reservation holds the file: removing it now could wait for as long as the disk does.
    EXPECT_TRUE(fs::exists(dir / "held.ts-Vesk")) << "removed with the completion";
    EXPECT_NE(-1, fcntl(fd, F_GETFD)) << "kept open for the worker";
    ioh_rec stop{};
    ASSERT_EQ(0, ioh_timer_open(&stop, [](ioh_rec*, int, int) { return 9; }, nullptr));
    ASSERT_EQ(0, ioh_timer_arm(&stop, 300));
    (void)rqs_event_loop();
    ioh_timer_close(&stop);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "closed with the completion";
    EXPECT_FALSE(fs::exists(dir / "held.ts-Vesk"));
    EXPECT_TRUE(contains(log.take(), "finished after its task"));
    stop_reserve_worker();
    rqs_destroy();
}

} // namespace
