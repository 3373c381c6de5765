// The download engine: the agent context and its task table, the task state machine driven by
// the source socket's events, the answer to the requesting client, deferred removal, and the
// destination file from creation to the rename into place and its registration.
#include "app.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cfg.h"
#include "fdio.h"
#include "lbquery.h"
#include "adm.h"
#include "aio.h"
#include "log.h"
#include "main.h"
#include "mtr.h"
#include "meta.h"
#include "rq.h"
#include "rqs.h"
#include "spool.h"
#include "srcacl.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"
#include "udl.h"
#include "util.h"

LOG_MODULE(0, -1);

vesk_ctx g_ctx;

// Plain-write downloads pass through this buffer one read at a time; one thread, so one buffer.
static char sbuf[DW_SBUF_SIZE];

// With splice_to_file they pass through this pipe instead, inside the kernel: the bytes are not
// copied out to the buffer and back. Made at start, so that its two descriptors belong to the idle
// agent; a pipe whose bytes could not all be written is replaced, so that no byte of one file can
// reach the next.
static int s_pipe[2] = {-1, -1};
// Set once a destination filesystem refused a splice (EINVAL): read and write from then on.
static bool s_splice_off = false;

static void close_pipe()
{
    for (int& fd : s_pipe) {
        if (fd >= 0)
            (void)W_close(__func__, fd);
        fd = -1;
    }
}

static bool open_pipe()
{
    if (s_pipe[0] >= 0)
        return true;
    if (pipe2(s_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
        const int e = errno;
        zlogf(L_ERR, "%s: pipe2() ERROR(%d): %s\n", e, strerror(e));
        s_pipe[0] = s_pipe[1] = -1;
        return false;
    }
    // As large as the buffer when allowed; the default size (64 KiB) only means more calls.
    (void)fcntl(s_pipe[1], F_SETPIPE_SZ, static_cast<int>(DW_SBUF_SIZE));
    return true;
}

// Moves what the source socket has (up to `len` bytes) into the file through the pipe: the count
// taken from the socket (0 at its end), or -1 with errno. `*wrote` gets the count that reached the
// file; less than taken means a write failure, already logged.
static ssize_t splice_fragment(dw_task* dw, size_t len, ssize_t* wrote)
{
    *wrote = 0;
    const ssize_t n = splice(dw->sfd, nullptr, s_pipe[1], nullptr, std::min<size_t>(len, DW_SBUF_SIZE),
                             SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    if (n <= 0) {
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            const int e = errno;
            zlogf(L_ERR, "%s: splice(fd%d) ERROR(%d): %s\n", dw->sfd, e, strerror(e));
            errno = e;
        }
        return n;
    }
    while (*wrote < n) {
        const ssize_t w = splice(s_pipe[0], nullptr, dw->dfd, nullptr,
                                 static_cast<size_t>(n - *wrote), SPLICE_F_MOVE);
        if (w > 0) {
            *wrote += w;
            continue;
        }
        if (w < 0 && errno == EINTR && !g_quit)
            continue;
        if (w < 0 && errno == EINVAL) {
            // This filesystem cannot take a splice: the bytes already in the pipe are copied out
            // and written the plain way, and so is everything after them.
            zlogf(L_WARN, "%s: fd%d cannot be spliced into; reading and writing instead\n",
                  dw->dfd);
            s_splice_off = true;
            while (*wrote < n) {
                const ssize_t r = nread(s_pipe[0], sbuf, static_cast<size_t>(n - *wrote), 0);
                if (r <= 0 || nwrite(dw->dfd, sbuf, static_cast<size_t>(r), 0) != r)
                    break;
                *wrote += r;
            }
            if (*wrote < n) {
                close_pipe();
                (void)open_pipe();
            }
            break;
        }
        const int e = w < 0 ? errno : EIO;
        zlogf(L_ERR, "%s: splice(fd%d) ERROR(%d): %s\n", dw->dfd, e, strerror(e));
        close_pipe();
        (void)open_pipe();
        break;
    }
    return n;
}

namespace {

// Switches the log group to a task's tracking tag for the life of the guard.
class group_guard {
public:
    explicit group_guard(const dw_task* dw)
    {
        snprintf(saved_, sizeof(saved_), "%s", log_get_group(g_log));
        log_set_group(g_log, dw->trk_tag.sym8);
    }
    ~group_guard() { log_set_group(g_log, saved_); }
    group_guard(const group_guard&) = delete;
    group_guard& operator=(const group_guard&) = delete;

private:
    char saved_[sizeof(n64_tag) + 1];
};

timespec ms_to_ts(long ms)
{
    timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = (ms % 1000) * 1000000L;
    return ts;
}

bool state_is(const dw_task* dw, const char (&s)[4])
{
    return dw->state.num == mk_tag32(s);
}

// How often the tasks are walked for stalled ones: a task is ended at most a quarter of the
// time-out late, and the walk costs little beside the waits it bounds.
long task_check_ms()
{
    return std::max(1L, static_cast<long>(g_cfg->task_tmout_ms / 4));
}

} // namespace

n32_tag dw_state(const char (&s)[4])
{
    n32_tag t;
    set_tag32(&t, s);
    return t;
}

size_t task_limit()
{
    return g_cfg->max_tasks ? g_cfg->max_tasks : static_cast<size_t>(DW_UNLIMITED_TASKS);
}

// ---- Agent context ------------------------------------------------------------------------------

int raise_nofile_limit(size_t max_tasks)
{
    const size_t ntasks = max_tasks ? max_tasks : static_cast<size_t>(DW_UNLIMITED_TASKS);
    // Limits beyond a few million tasks cannot be met anyway; the cap keeps the product finite.
    const rlim_t need = static_cast<rlim_t>(std::min<size_t>(ntasks, 1u << 24)) * DW_FDS_PER_TASK +
                        DW_FDS_RESERVE + g_cfg->src_pool_max;
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) {
        const int e = errno;
        zlogf(L_ERR, "%s: getrlimit(RLIMIT_NOFILE) ERROR(%d): %s\n", e, strerror(e));
        return -1;
    }
    if (rl.rlim_cur != RLIM_INFINITY && rl.rlim_cur < need) {
        const rlim_t old = rl.rlim_cur;
        rl.rlim_cur = (rl.rlim_max == RLIM_INFINITY) ? need : std::min(need, rl.rlim_max);
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
            const int e = errno;
            zlogf(L_ERR, "%s: setrlimit(RLIMIT_NOFILE, %lu) ERROR(%d): %s\n",
                  static_cast<unsigned long>(rl.rlim_cur), e, strerror(e));
            return -1;
        }
        zlogf(L_INFO, "%s: open files limit raised from %lu to %lu (hard limit %lu)\n",
              static_cast<unsigned long>(old), static_cast<unsigned long>(rl.rlim_cur),
              static_cast<unsigned long>(rl.rlim_max));
    } else {
        zlogf(L_INFO, "%s: open files limit %lu is enough for %zu tasks\n",
              static_cast<unsigned long>(rl.rlim_cur), ntasks);
    }
    if (rl.rlim_cur != RLIM_INFINITY && rl.rlim_cur < need) {
        zlogf(L_WARN, "%s: open files limit %lu is below the %lu needed for %zu tasks\n",
              static_cast<unsigned long>(rl.rlim_cur), static_cast<unsigned long>(need), ntasks);
        return 1;
    }
    return 0;
}

int init_vesk_ctx()
{
    ZASSERT(!g_ctx.is_ready);
    set_tag32(&urq_cb.tag, "URQ");
    rui_set_cb(RUI_USER, &urq_cb);
    rui_set_cb(RUI_ADMIN, &adm_cb);
    mtr_init();
    rui_set_client_filter(&g_cfg->allow_clients);
    (void)raise_nofile_limit(g_cfg->max_tasks);

    int rc = rui_ctx_init(&g_cfg->rui, &g_ctx.rui);
    if (rc)
        return rc;
    rc = udl_ctx_init(&g_cfg->udp_cha, &g_ctx.udl);
    if (rc)
        return rc;

    const size_t limit = task_limit();
    const char* step = "init sources";
    do {
        xvlst_reset(&g_ctx.tasks);
        // One fixed allocation: a task's address must not move while the loop and the hash
        // refer to it. The mapping costs nothing until slots are touched.
        if ((rc = xvlst_mmap_fixed(&g_ctx.tasks, limit, sizeof(dw_task))))
            break;
        step = "init pprm-tasks";
        xvlst_reset(&g_ctx.pprm_tasks);
        if ((rc = xv_reserve<dw_task*>(&g_ctx.pprm_tasks, limit, limit)))
            break;
        step = "creating task HT";
        if ((rc = skht_create(&g_ctx.task_ht, limit, plHash, nullptr, 0)))
            break;
        step = "init source pool";
        if ((rc = spl_init(g_cfg->src_pool_max, g_cfg->src_pool_idle_ms)))
            break;
        // Without a pipe the plain writes are made as without splice_to_file.
        if (g_cfg->splice_to_file)
            (void)open_pipe();
        if (g_cfg->lbdb.port > 0) {
            step = "?";
            if ((rc = lbdb_init(g_cfg->lbdb.sha1_path, LBQ_FL_ADD, 0)))
                break;
            lbdb_set_link_opts(&g_cfg->lbdb);
            if ((rc = lbdb_connect(g_cfg->lbdb.host, g_cfg->lbdb.port, g_cfg->lbdb.tmout)))
                break;
        }
    } while (false);
    if (rc) {
        zlogf(L_ERR, "%s: failed to [%s], rc=%d\n", step, rc);
        destroy_vesk_ctx();
        return rc;
    }
    set_clk_now(&g_ctx.last_tmout_check, CLOCK_MONOTONIC);
    g_ctx.last_rq_check = g_ctx.last_tmout_check;
    g_ctx.last_task_check = g_ctx.last_tmout_check;
    g_ctx.last_task_id = 0;
    g_ctx.is_ready = true;
    zlogf(L_DEBUG, "%s: OK\n");
    return 0;
}

void destroy_vesk_ctx()
{
    pprm_task_cleanup();
    rm_all_tasks();
    // After the tasks, which may have parked their connections.
    spl_destroy();
    close_pipe();
    // After the tasks: none of them waits for a look-up any more.
    if (g_ctx.rsv_on) {
        rsv_destroy();
        g_ctx.rsv_on = false;
    }
    udl_ctx_destroy(&g_ctx.udl);
    rui_ctx_destroy(&g_ctx.rui);
    pprm_requests();
    xvlst_reset(&g_ctx.pprm_tasks);
    xvlst_reset(&g_ctx.tasks);
    skht_destroy(g_ctx.task_ht, nullptr);
    g_ctx.task_ht = nullptr;
    if (g_cfg->lbdb.port > 0) {
        // The releases of the locks of orders that were still running, and registrations that
        // were waiting, get their chance to go out before the link goes.
        lbdb_drain(g_cfg->lbdb.exit_drain_ms);
        lbdb_destroy();
    }
    g_ctx.is_ready = false;
    zlogf(L_INFO, "%s: OK\n");
}

// ---- Tasks --------------------------------------------------------------------------------------

const char* url2key(const char* url)
{
    const char* p = strstr(url, "://");
    return p ? p + 3 : url;
}

dw_task* get_dw_task(const char* key)
{
    void* data = nullptr;
    if (skht_get(g_ctx.task_ht, key, &data) != 0 || !data) {
        zlogf(L_DEBUG, "%s: [%s] not found\n", key);
        return nullptr;
    }
    auto* dw = static_cast<dw_task*>(data);
    ZASSERT(dw->tag.num == DOW_TAG);
    return dw;
}

dw_task* add_dw(const dw_spec* spec, n64_tag trk_tag)
{
    const ssize_t j = xvlst_add(&g_ctx.tasks, sizeof(dw_task), 1);
    if (j < 0) {
        zlogf(L_ERR, "%s: failed for [%s]\n", spec->url);
        return nullptr;
    }
    dw_task* dw = xv_at<dw_task>(&g_ctx.tasks, static_cast<size_t>(j));
    memset(dw, 0, sizeof(*dw));
    set_tag32(&dw->tag, "DOW");
    dw->spec = *spec;
    dw->trk_tag = trk_tag;
    dw->idx = j;
    dw->sfd = dw->dfd = dw->cfd = -1;
    set_clk_now(&dw->last_io_tm, CLOCK_MONOTONIC);
    dw->start_tm = dw->last_io_tm;

    const char* key = url2key(dw->spec.url);
    void* data = dw;
    if (const int rc = skht_add(g_ctx.task_ht, key, &data)) {
        zlogf(L_ERR, "%s: ERROR(%d) hashing [%s] data=%p\n", rc, key, data);
        (void)xvlst_del(&g_ctx.tasks, static_cast<size_t>(j), nullptr);
        return nullptr;
    }
    dw->is_hashed = true;
    ++g_mtr.tasks_started;
    // While a task lives the loop's wait must end in time for its stall check.
    if (g_cfg->end_stalled_tasks)
        set_timeout(IDLE_TASK_TMOUT, task_check_ms());
    zlog(L_NORM, "TASK-START [%s] (%p/idx=%zd) [%s]->[%s] length=%lu, expiry=%ld lid=[%s]\n",
         dw->trk_tag.sym8, static_cast<void*>(dw), dw->idx, dw->spec.url, dw->spec.fpath,
         static_cast<unsigned long>(dw->spec.content_length), static_cast<long>(dw->spec.expiry_tm),
         dw->spec.lid);
    zlogf(L_DEBUG, "%s: %s (%p), j=%zd k=[%s] added\n", dw->trk_tag.sym8, static_cast<void*>(dw), j,
          key);
    return dw;
}

void dw_set_end(dw_task* dw, mtr_end why)
{
    if (dw->end_reason == MTR_END_NONE)
        dw->end_reason = why;
}

void set_dw_state(dw_task* dw, n32_tag state)
{
    zlogf(L_DEBUG, "%s: %s %s -> %s\n", dw->trk_tag.sym8, dw->state.sym4, state.sym4);
    dw->state = state;
}

int connect_to_src(const char* url, const char* addr, usock_ctx* sctx)
{
    memset(sctx, 0, sizeof(*sctx));
    sctx->inbound = false;
    sctx->non_blocking = true;
    sctx->skip_http = true; // the GET goes out from request_data_stream once connected
    sctx->timeout_ms = DW_SRC_TMOUT_MS;
    sctx->host_addr = addr;
    // The host was judged by name when the request came in; the address it was looked up to is
    // judged here, before it is connected.
    sctx->sspec.addr_ok = src_addr_allowed;
    const int fd = usock_open(url, sctx);
    sctx->host_addr = nullptr;
    if (fd < 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: failed to open [%s]\n", url);
        errno = err;
        return -1;
    }
    zlogf(L_DEBUG, "%s: opened fd%d [%s]\n", fd, url);
    return fd;
}

static void answer_client(dw_task* dw);
static int head_judged(dw_task* dw, int rc, int code);
static int fill_dest_file(dw_task* dw, int reserved, const char* body, ssize_t tail_len);

// Frees the body bytes a task kept while its file was being reserved.
static void drop_held_body(dw_task* dw)
{
    free(dw->held_body);
    dw->held_body = nullptr;
    dw->held_len = 0;
}

// Connects the task to its source at `addr` (null: the URL's own host) and waits for the
// connection to become writable. 0, 13 when the address is refused by src_addr_allowed, or
// another failure (logged); the caller removes the task.
static int open_source(dw_task* dw, const char* addr)
{
    dw->sfd = connect_to_src(dw->spec.url, addr, &dw->sctx);
    if (dw->sfd == -1)
        return errno == EACCES ? 13 : -1;
    if (const int rc = rqs_add_writer(dw->sfd, dw)) {
        zlogf(L_ERR, "%s: rqs_add_writer(fd%d,..) failed for %s\n", dw->sfd, dw->spec.url);
        return rc;
    }
    set_dw_state(dw, dw_state("ini"));
    ZASSERT(dw->tag.num == DOW_TAG);
    return 0;
}

// A started task that could not reach its source (`rc` from open_source): the client gets the
// 403 of a refused address or the 500 of a failed open, and the task is listed for removal.
static void fail_source_start(dw_task* dw, int rc)
{
    dw_set_end(dw, rc == 13 ? MTR_END_SOURCE_DENIED : MTR_END_SOURCE_UNREACHABLE);
    if (dw->cfd >= 0) {
        dw->hresp = rc == 13 ? &g_resp_denied : &g_resp_err;
        answer_client(dw);
    }
    (void)pprm_task(dw);
}

// The end of the look-up of a task's source host. A name that did not resolve fails the task as
// an unreachable source always has: the client gets the 500 a failed open gives. A name that
// resolved to a refused address gets the 403 a refused source gets.
static void on_src_resolved(void* arg, int status, const char* const* addrs, size_t naddrs)
{
    auto* dw = static_cast<dw_task*>(arg);
    const group_guard gg(dw);
    dw->res_wait = nullptr;
    ZASSERT(dw->tag.num == DOW_TAG && state_is(dw, "res"));
    int rc = -1;
    if (status == 0) {
        constexpr size_t room = sizeof(dw->alt_addrs) / sizeof(dw->alt_addrs[0]);
        dw->nalt = dw->next_alt = 0;
        for (size_t i = 1; i < naddrs && dw->nalt < room; ++i)
            snprintf(dw->alt_addrs[dw->nalt++], sizeof(dw->alt_addrs[0]), "%s", addrs[i]);
        rc = open_source(dw, addrs[0]);
    } else
        zlog(L_ERR, "%s: failed to open [%s]\n", "connect_to_src", dw->spec.url);
    if (rc == 0)
        return;
    fail_source_start(dw, rc);
}

// Takes an idle pooled connection to the task's source host and port, if there is one, and sends
// the request on it at once: an idle connection has room to send, so waiting for it to be
// writable would only cost a loop pass. 0 when the task now waits for the answer; -1 when there is
// no pooled connection or the request could not go out on it (then it is closed, and the caller
// connects anew).
static int reuse_source(dw_task* dw)
{
    const int fd = spl_take(dw->spec.url);
    if (fd < 0)
        return -1;
    memset(&dw->sctx, 0, sizeof(dw->sctx));
    dw->sctx.non_blocking = true;
    dw->sctx.skip_http = true;
    dw->sctx.timeout_ms = DW_SRC_TMOUT_MS;
    zlogf(L_DEBUG, "%s: fd%d reused for [%s]\n", fd, dw->spec.url);
    if (usock_http_get(fd, dw->spec.url, HTTP_RQ_KEEPALIVE) != 0) {
        zlogf(L_INFO, "%s: reused connection fd%d closed by the source, connecting anew\n", fd);
    } else if (rqs_mod(fd, dw, RQS_READ) != 0) {
        zlogf(L_ERR, "%s: rqs_mod(fd%d,..) failed for %s\n", fd, dw->spec.url);
    } else {
        dw->sfd = fd;
        dw->src_reused = true;
        set_clk_now(&dw->last_io_tm, CLOCK_MONOTONIC);
        set_dw_state(dw, dw_state("rsp"));
        zlogf(L_DEBUG, "%s: awaiting response from %s\n", dw->spec.url);
        return 0;
    }
    (void)rqs_rm_fd(fd, true, true);
    usock_close(fd, &dw->sctx);
    return -1;
}

// Sets the task on its way to its source: an idle pooled connection to the same host and port
// when `may_reuse` and there is one, else a look-up of a host name on the loop (the task waits in
// "res"), else a new connection. 0, or the failure (logged); the caller ends the task.
static int start_source(dw_task* dw, bool may_reuse)
{
    if (may_reuse && spl_on() && reuse_source(dw) == 0)
        return 0;
    char host[DW_URL_LEN];
    if (g_ctx.rsv_on && usock_url_host(dw->spec.url, host, sizeof(host)) == 0 &&
        !rsv_is_numeric(host)) {
        dw->res_wait = rsv_lookup(host, on_src_resolved, dw);
        if (!dw->res_wait) {
            zlog(L_ERR, "%s: failed to open [%s]\n", "connect_to_src", dw->spec.url);
            return -1;
        }
        set_dw_state(dw, dw_state("res"));
        return 0;
    }
    return open_source(dw, nullptr);
}

// Drops the task's source connection and starts another: to `addr`, or when null as a new
// download would (a look-up of a host name, then a connection). When that cannot start, the
// client gets the 500 of a failed open (403 for a refused address) and the task is listed for
// removal.
static void reconnect(dw_task* dw, const char* addr)
{
    (void)rqs_rm_fd(dw->sfd, true, true);
    usock_close(dw->sfd, &dw->sctx);
    dw->sfd = -1;
    dw->src_reused = false;
    dw->state.num = 0;
    set_clk_now(&dw->last_io_tm, CLOCK_MONOTONIC);
    const int rc = addr ? open_source(dw, addr) : start_source(dw, false);
    if (rc == 0)
        return;
    fail_source_start(dw, rc);
}

// A pooled connection that the source closed before it answered is not the download's failure:
// the task starts over once on a new connection, and its client sees only the one answer.
static void retry_on_new_source(dw_task* dw)
{
    zlogf(L_INFO, "%s: reused connection fd%d closed by the source, connecting anew\n", dw->sfd);
    reconnect(dw, nullptr);
}

bool retry_reused_source(dw_task* dw)
{
    if (!dw->src_reused)
        return false;
    retry_on_new_source(dw);
    return true;
}

// A connection to one address of the source host was refused (or the address could not be
// reached): the next address the name resolved to is tried. False when there is none left.
static bool try_next_address(dw_task* dw)
{
    if (dw->next_alt >= dw->nalt)
        return false;
    const char* addr = dw->alt_addrs[dw->next_alt++];
    zlogf(L_INFO, "%s: [%s] no connection on fd%d, trying the next address %s\n", dw->spec.url,
          dw->sfd, addr);
    reconnect(dw, addr);
    return true;
}

int mk_dw_task(int cfd, const dw_spec* spec, dw_keep keep)
{
    zlogf(L_DEBUG, "%s: fd%d url=[%s]\n", cfd, spec->url);
    ZASSERT(g_ctx.task_ht);
    const size_t limit = task_limit();
    if (g_ctx.tasks.len >= limit) {
        zlogf(L_ERR, "%s: limit on tasks exceeded [%zu]\n", limit);
        return -1;
    }
    if (const dw_task* old = get_dw_task(url2key(spec->url))) {
        zlogf(L_ERR, "%s: task already present (%p) %s url=%s\n", static_cast<const void*>(old),
              old->trk_tag.sym8, old->spec.url);
        return 17;
    }
    n64_tag tag;
    rui_mk_trknum(&g_ctx.last_task_id, &tag, 'T', 10000);
    dw_task* dw = add_dw(spec, tag);
    if (!dw)
        return -1;
    log_set_group(g_log, dw->trk_tag.sym8);

    if (cfd < 0) {
        dw->cfd = -1;
        zlogf(L_INFO, "%s: no client connection\n");
    } else {
        // The task answers later through the request's own socket: the request hands it over
        // when this call succeeds (a duplicate would cost a dup and a close per download).
        dw->cfd = cfd;
        dw->ckeep = keep;
        zlogf(L_DEBUG, "%s: client cfd%d created\n", dw->cfd);
    }
    if (const int rc = start_source(dw, true)) {
        dw_set_end(dw, rc == 13 ? MTR_END_SOURCE_DENIED : MTR_END_SOURCE_UNREACHABLE);
        // The socket is still the request's, which answers the failure itself.
        dw->cfd = -1;
        free_dw(dw);
        return rc;
    }
    return 0;
}

int unhash_task(dw_task* dw)
{
    if (!dw->is_hashed)
        return 0;
    const char* key = url2key(dw->spec.url);
    const int rc = skht_rm(g_ctx.task_ht, key, nullptr);
    if (rc)
        zlogf(L_ERR, "%s: failed to un-hash [%s] (%p), rc=%d\n", key, static_cast<void*>(dw), rc);
    dw->is_hashed = false;
    if (!rc)
        zlogf(L_DEBUG, "%s: %s (%p) k=[%s] OK\n", dw->trk_tag.sym8, static_cast<void*>(dw), key);
    return rc;
}

// True while the unfinished file at fpath is still the one this task created. A request for the
// same destination treats an unfinished file that has not changed for a while as abandoned and
// replaces it, so the name alone does not tell whose file it is; a file that is not ours is
// neither renamed into place nor removed.
static bool owns_dfile(const dw_task* dw)
{
    struct stat st;
    return dw->has_dfile && stat(dw->spec.fpath, &st) == 0 && st.st_dev == dw->dfile_dev &&
           st.st_ino == dw->dfile_ino;
}

// Sends the chosen response to the client and closes the client socket, or gives it back to its
// listener when the client keeps it for the next request.
static void answer_client(dw_task* dw)
{
    ZASSERT(dw->cfd >= 0);
    dw->hresp->server = get_app_tag(g_app_name);
    zlogf(L_DEBUG, "%s: sending response to client fd%d\n", dw->cfd);
    if (send_answer(dw->cfd, dw->hresp, dw->ckeep) == 0) {
        mtr_answer(dw->hresp->code);
        zlogf(L_DEBUG, "%s: HTTP%d response sent to fd%d\n", dw->hresp->code, dw->cfd);
        if (keeps_client(dw->hresp, dw->ckeep) && urq_keep_client(dw->cfd, dw->ckeep)) {
            zlogf(L_DEBUG, "%s: fd%d client connection kept\n", dw->cfd);
            dw->cfd = -1;
            return;
        }
    } else {
        ++g_mtr.clients_gone;
    }
    (void)W_close(__func__, dw->cfd);
    zlogf(L_DEBUG, "%s: fd%d client connection closed\n", dw->cfd);
    dw->cfd = -1;
}

void free_dw(dw_task* dw)
{
    zlogf(L_DEBUG, "%s: %s (%p) url=[%s], dst=[%s], idx=%zd\n", dw->trk_tag.sym8,
          static_cast<void*>(dw), dw->spec.url, dw->spec.fpath, dw->idx);
    if (dw->idx >= 0 && dw->spec.url[0])
        zlog(L_NORM, "TASK-END [%s] (%p/idx=%zd) [%s]->[%s] length=%lu, expiry=%ld lid=[%s]\n",
             dw->trk_tag.sym8, static_cast<void*>(dw), dw->idx, dw->spec.url, dw->spec.fpath,
             static_cast<unsigned long>(dw->spec.content_length),
             static_cast<long>(dw->spec.expiry_tm), dw->spec.lid);
    dw->tag.sym4[0] = '#';
    (void)unhash_task(dw);
    if (dw->res_wait) {
        rsv_cancel(dw->res_wait);
        dw->res_wait = nullptr;
    }

    if (dw->sfd > 0) {
        // A state is only set once the socket was registered; closing alone would leave the
        // loop's count of its descriptors too high.
        // A connection whose answer was read to its last byte may serve the next download from
        // the same source; the pool keeps it registered with the loop.
        const bool parked = dw->state.num && dw->src_keep && dw->content_length > 0 &&
                            dw->nleft == 0 && !g_quit && spl_put(dw->spec.url, dw->sfd);
        if (parked) {
            usock_close(-1, &dw->sctx);
        } else {
            if (dw->state.num)
                (void)rqs_rm_fd(dw->sfd, true, true);
            usock_close(dw->sfd, &dw->sctx);
        }
        dw->sfd = -1;
    }
    if (dw->cfd > 0) {
        // A started task owes its client the one answer until it has sent it. When it goes
        // before that (the source reset the connection, shut-down), the client must not be left
        // with an empty reply. A task that never started leaves the answer to its request.
        if (dw->state.num) {
            zlogf(L_WARN, "%s: %s ends before its client fd%d was answered\n", dw->trk_tag.sym8,
                  dw->cfd);
            dw->hresp = &g_resp_err;
            answer_client(dw);
        } else {
            (void)W_close(__func__, dw->cfd);
            dw->cfd = -1;
        }
    }
    // Only a file this task created is removed: an unfinished file of the same name may belong to
    // another task that is still writing it.
    const bool unfinished = is_unfinished_seg(dw->spec.fpath) && owns_dfile(dw);
    bool handed = false;
    if (dw->dfd > 0) {
        // A reservation still in the worker works on this descriptor and holds the file: the
        // descriptor is closed, and an unfinished file removed, when that ends, so that the number
        // cannot name another file meanwhile and the loop never waits for a disk that hangs. Its
        // completion finds the task gone.
        handed = dw->aio_token && aio_adopt(dw->aio_token, unfinished ? dw->spec.fpath : nullptr,
                                            dw->dfile_dev, dw->dfile_ino);
        if (!handed)
            (void)W_close(__func__, dw->dfd);
        dw->dfd = -1;
    }
    dw->aio_token = 0;
    drop_held_body(dw);
    if (dw->is_mmapped) {
        ZASSERT(dw->buf && dw->buflen);
        if (munmap(dw->buf, dw->buflen)) {
            const int e = errno;
            zlogf(L_ERR, "%s: munmap(fd%d, .., %zu) ERROR(%d): %s\n", dw->dfd, dw->buflen, e,
                  strerror(e));
        }
        dw->buf = nullptr;
        dw->buflen = 0;
        dw->is_mmapped = false;
        zlogf(L_DEBUG, "%s: unmapped fd%d, buf=%p, %zu bytes\n", dw->dfd,
              static_cast<void*>(dw->buf), dw->buflen);
    }
    if (unfinished) {
        zlogf(L_WARN, "%s: removing unfinished [%s]\n", dw->spec.fpath);
        if (!handed)
            (void)W_unlink(__func__, dw->spec.fpath);
        dw->spec.fpath[0] = '\0';
    }
    dw->has_dfile = false;
    free(dw->buf);
    dw->buf = nullptr;
    dw->hresp = nullptr;
    if (dw->spec.lid[0]) {
        lid_unlock(dw->spec.lid);
        dw->spec.lid[0] = '\0';
    }
    if (dw->idx >= 0) {
        ++g_mtr.tasks_ended[dw->end_reason == MTR_END_NONE ? MTR_END_OTHER : dw->end_reason];
        (void)xvlst_del(&g_ctx.tasks, static_cast<size_t>(dw->idx), nullptr);
        dw->idx = -1;
        if (g_cfg->end_stalled_tasks)
            rm_timeout(IDLE_TASK_TMOUT);
    }
}

void free_dw_elem(void* data, size_t i)
{
    free_dw(static_cast<dw_task*>(data) + i);
}

// pprm_tasks holds pointers to tasks.
// Tasks still in flight when the agent quits.
static void free_dw_at_shutdown(void* data, size_t i)
{
    dw_task* dw = static_cast<dw_task*>(data) + i;
    dw_set_end(dw, MTR_END_SHUTDOWN);
    free_dw(dw);
}

static void free_dw_ptr_elem(void* data, size_t i)
{
    free_dw(static_cast<dw_task**>(data)[i]);
}

void rm_all_tasks()
{
    if (g_ctx.tasks.len) {
        zlogf(L_DEBUG, "%s: %zu tasks to purge:\n", g_ctx.tasks.len);
        xvlst_purge_all(&g_ctx.tasks, free_dw_at_shutdown);
    } else {
        zlogf(L_DEBUG, "%s: no tasks to purge.\n");
    }
}

int request_data_stream(dw_task* dw)
{
    // With the pool on the source is asked to keep the connection; without it the request is the
    // one-shot GET it always was.
    int rc = usock_http_get(dw->sfd, dw->spec.url, spl_on() ? uint32_t{HTTP_RQ_KEEPALIVE} : 0u);
    if (rc != 0 && dw->src_reused) {
        retry_on_new_source(dw);
        return 0;
    }
    if (rc != 0 && try_next_address(dw))
        return 0;
    if (rc == 0) {
        rc = rqs_mod(dw->sfd, dw, RQS_READ);
        if (rc)
            zlogf(L_ERR, "%s: rqs_mod(fd%d,...) FAILED\n", dw->sfd);
    }
    if (rc == 0) {
        set_dw_state(dw, dw_state("rsp"));
        zlogf(L_DEBUG, "%s: awaiting response from %s\n", dw->spec.url);
        return 0;
    }
    dw_set_end(dw, MTR_END_SOURCE_UNREACHABLE);
    dw->hresp = &g_resp_bad;
    if (dw->cfd >= 0)
        answer_client(dw);
    else
        zlogf(L_INFO, "%s: no client, skipping response\n");
    if (pprm_task(dw)) {
        zlogf(L_WARN, "%s: could not pprm %s\n", dw->trk_tag.sym8);
        free_dw(dw);
    }
    return 0;
}

int read_src_response(dw_task* dw)
{
    char* buf = static_cast<char*>(calloc(1, DW_RESP_BUFSZ));
    if (!buf)
        return -12;
    zlogf(L_DEBUG, "%s: reading HTTP response from fd=%d\n", dw->sfd);

    // The buffer and the context live for this call only: the bytes of a partial head are
    // dropped, and the next event reads what follows as a head of its own.
    http_resp_ctx resp{};
    // A source may close an idle connection at any time, also just as the request went out;
    // the end of the stream (or a reset) before the first byte of the answer says so.
    resp.may_be_closed = dw->src_reused;
    int rc = recv_http_response(dw->sfd, buf, DW_RESP_BUFSZ - 1, &resp);
    if (resp.total > 0)
        dw->src_reused = false;
    if (rc == -1 && resp.closed_unread && dw->src_reused) {
        free(buf);
        retry_on_new_source(dw);
        return 11;
    }
    if (rc == 11) {
        zlogf(L_DEBUG, "%s: expecting more data from fd%d\n", dw->sfd);
        set_clk_now(&dw->last_io_tm, CLOCK_MONOTONIC);
        free(buf);
        return 11;
    }
    const bool got_status = rc == 0;
    // A head whose framing is in doubt could store a wrong file as complete: it fails like a
    // refused answer, and the one line says what was wrong and who sent it.
    if (rc == -1 && resp.malformed[0])
        zlogf(L_ERR, "%s: malformed answer from [%s]: %s\n", dw->spec.url, resp.malformed);
    if (rc == 0) {
        if (resp.code >= 200 && resp.code <= 299) {
            if (check_dest_path(dw->spec.fpath) == -16) {
                dw->hresp = &g_resp_denied;
                rc = -16;
                dw_set_end(dw, MTR_END_DEST_EXISTS);
            } else if ((rc = mk_dest_file(dw, buf, &resp)) != 0 && rc != EINPROGRESS) {
                dw->hresp = &g_resp_err;
                dw_set_end(dw, rc == 22 ? MTR_END_MALFORMED_ANSWER : MTR_END_WRITE_ERROR);
            } else {
                // Bytes beyond the announced length would be taken for the next answer's.
                dw->src_keep = spl_on() && http_head_keeps_alive(buf) &&
                               static_cast<size_t>(resp.total - resp.tail) <= dw->content_length;
            }
        } else {
            zlogf(L_ERR, "%s: expected HTTP 2xx, got HTTP %d\n", resp.code);
            rc = -1;
            dw_set_end(dw, MTR_END_SOURCE_REFUSED);
        }
    } else {
        // The source closed, reset or sent a head that cannot be read.
        dw_set_end(dw, MTR_END_MALFORMED_ANSWER);
    }
    free(buf);
    if (rc == EINPROGRESS) {
        // The source waits, unread, until the blocks are reserved; its hang-up or reset still
        // reaches the task.
        (void)rqs_mod(dw->sfd, dw, 0);
        set_dw_state(dw, dw_state("rsv"));
        return 11;
    }
    return head_judged(dw, rc, rc == 0 || got_status ? resp.code : 0);
}

// The head was judged (`rc` 0 when the file is ready for the body, else the failure) and, when
// `code` is not 0, the source's status read: the client gets its answer and a ready task goes
// on to the body. 0 or `rc`.
static int head_judged(dw_task* dw, int rc, int code)
{
    if (rc == 0)
        dw->hresp = &g_resp_ok;
    if (dw->cfd != -1) {
        if (!dw->hresp) {
            if (code != 0) {
                dw->hresp = http_code_resp(code);
                zlogf(L_DEBUG, "%s: response picked for HTTP%d\n", code);
            } else {
                zlogf(L_DEBUG, "%s: defaulting to HTTP%d\n", 500);
                dw->hresp = &g_resp_err;
            }
        }
        answer_client(dw);
    } else {
        zlogf(L_INFO, "%s: no client, skipping response\n");
    }
    if (rc)
        return rc;
    zlogf(L_INFO, "%s: ready to download %zu bytes to [%s]\n", dw->content_length, dw->spec.fpath);
    set_dw_state(dw, dw_state("dnl"));
    return 0;
}

// The reservation of a task's destination, done by the kernel's worker: the task stores the body
// bytes it kept, answers its client and goes on reading the source, or fails as a reservation in
// place would have. A completion for a task that is gone is dropped.
static void on_reserved(uint64_t token, int res)
{
    const size_t idx = static_cast<size_t>(token >> DW_AIO_SEQ_BITS);
    dw_task* dw = idx < g_ctx.tasks.max_len && g_ctx.tasks.taken[idx]
                      ? xv_at<dw_task>(&g_ctx.tasks, idx)
                      : nullptr;
    if (!dw || dw->tag.num != DOW_TAG || dw->aio_token != token) {
        zlogf(L_DEBUG, "%s: reservation %#llx finished after its task\n",
              static_cast<unsigned long long>(token));
        return;
    }
    const group_guard gg(dw);
    dw->aio_token = 0;
    int rc = -res;
    if (rc == EOPNOTSUPP) {
        // The C library emulates a reservation the filesystem does not make itself.
        rc = W_fallocate("mk_dest_file", dw->dfd, 0, static_cast<off_t>(dw->content_length));
    } else if (rc != 0) {
        W_fallocate_failed("mk_dest_file", dw->dfd, 0, static_cast<off_t>(dw->content_length), rc);
    }
    rc = fill_dest_file(dw, rc, dw->held_body, static_cast<ssize_t>(dw->held_len));
    drop_held_body(dw);
    if (rc) {
        dw->hresp = &g_resp_err;
        dw_set_end(dw, MTR_END_WRITE_ERROR);
    }
    // Back where the head left it; head_judged moves it on.
    set_dw_state(dw, dw_state("rsp"));
    rc = head_judged(dw, rc, 0);
    if (rc == 0 && rqs_mod(dw->sfd, dw, RQS_READ) != 0)
        rc = -1;
    if (rc == 0 && dw->nleft == 0)
        rc = complete_download(dw);
    if (rc) {
        zlogf(L_ERR, "%s: removing %s due to error, rc=%d\n", dw->trk_tag.sym8, rc);
        (void)pprm_task(dw);
    }
}

int dw_write(dw_task* dw)
{
    const group_guard gg(dw);
    if (dw->is_quitting) {
        zlogf(L_WARN, "%s: %s already quitting\n", dw->trk_tag.sym8);
        return 0;
    }
    if (!state_is(dw, "ini"))
        log_abort("%s: unexpected for %s (%p) in [%s]\n", __func__, dw->trk_tag.sym8,
                  static_cast<void*>(dw), dw->state.sym4);
    set_clk_now(&dw->last_io_tm, CLOCK_MONOTONIC);
    return request_data_stream(dw);
}

int dw_read(dw_task* dw)
{
    if (dw->is_quitting) {
        zlogf(L_WARN, "%s: %s already quitting\n", dw->trk_tag.sym8);
        return 0;
    }
    int rc = 0;
    // Any event of the source is a sign of life, also one that completes the head at once.
    set_clk_now(&dw->last_io_tm, CLOCK_MONOTONIC);
    if (state_is(dw, "rsp")) {
        rc = read_src_response(dw);
        if (rc == 11)
            rc = 0;
        // A head that carried the whole body leaves nothing to wait for: the source need not
        // send another byte (or close) for the download to finish.
        else if (rc == 0 && state_is(dw, "dnl") && dw->nleft == 0)
            rc = complete_download(dw);
    } else if (state_is(dw, "dnl")) {
        rc = read_fragment(dw);
        if (rc == 0 && dw->nleft == 0)
            rc = complete_download(dw);
    } else {
        log_abort("%s: unexpected for %s (%p) in [%s]\n", __func__, dw->trk_tag.sym8,
                  static_cast<void*>(dw), dw->state.sym4);
    }
    if (rc) {
        zlogf(L_ERR, "%s: removing %s due to error, rc=%d\n", dw->trk_tag.sym8, rc);
        (void)pprm_task(dw);
    }
    return 0;
}

void start_reserve_worker()
{
    if (aio_init(DW_AIO_DEPTH, on_reserved) != 0)
        zlog(L_WARN, "reserve_in_worker: no submission ring; files are reserved on the loop\n");
    else
        zlogf(L_INFO, "%s: file reservations go to a kernel worker\n");
}

void stop_reserve_worker()
{
    aio_destroy();
}

void on_parked_source_error(dw_task* dw)
{
    if (dw->is_quitting || !state_is(dw, "rsv"))
        return;
    zlogf(L_ERR, "%s: task [%s] (%p): source failed while the file was reserved\n",
          dw->trk_tag.sym8, static_cast<void*>(dw));
    dw_set_end(dw, MTR_END_SOURCE_CLOSED);
    (void)pprm_task(dw);
}

// ---- Deferred removal and periodic checks -------------------------------------------------------

static int is_same_task(void* data, size_t i, const void* what)
{
    return static_cast<dw_task**>(data)[i] == what;
}

int pprm_task(dw_task* dw)
{
    if (xvlst_find(&g_ctx.pprm_tasks, dw, is_same_task, nullptr)) {
        zlogf(L_WARN, "%s: task [%s] (%p) is already listed, skipping\n", dw->trk_tag.sym8,
              static_cast<void*>(dw));
        return 0;
    }
    dw->is_quitting = true;
    (void)unhash_task(dw);
    const ssize_t j = xv_push<dw_task*>(&g_ctx.pprm_tasks, dw, 64);
    if (j < 0) {
        zlogf(L_ERR, "%s: FAILED on [%s] (%p)\n", dw->trk_tag.sym8, static_cast<void*>(dw));
        return -1;
    }
    zlogf(L_DEBUG, "%s: [%s] (%p) idx=%ld OK\n", dw->trk_tag.sym8, static_cast<void*>(dw),
          static_cast<long>(j));
    return 0;
}

void pprm_task_cleanup()
{
    if (!g_ctx.pprm_tasks.len)
        return;
    zlogf(L_DEBUG, "%s: %ld pprm tasks\n", static_cast<long>(g_ctx.pprm_tasks.len));
    xvlst_purge_all(&g_ctx.pprm_tasks, free_dw_ptr_elem);
}

void pprm_requests()
{
    zlogf(L_DEBUG, "%s: BEGIN\n");
    rui_pprm_all(&g_ctx.rui);
    zlogf(L_DEBUG, "%s: END\n");
}

bool is_iocheck_time()
{
    const timespec tmo = ms_to_ts(static_cast<long>(g_cfg->task_tmout_ms));
    if (!timed_out(&g_ctx.last_tmout_check, &tmo))
        return false;
    g_ctx.last_tmout_check = *rqs_now_ref();
    return true;
}

int dw_tmout_check(void* data, size_t i)
{
    dw_task* dw = static_cast<dw_task*>(data) + i;
    if (dw->is_quitting)
        return 0;
    const timespec tmo = ms_to_ts(static_cast<long>(g_cfg->task_tmout_ms));
    if (!timed_out(&dw->last_io_tm, &tmo))
        return 0;
    // timed_out() guarantees that last_io_tm lies before the loop's time.
    timespec d;
    tspec_diff(rqs_now_ref(), &dw->last_io_tm, &d);
    const long ms = (d.tv_sec > LONG_MAX / 1000 - 1) ? -1L : d.tv_sec * 1000 + d.tv_nsec / 1000000;
    zlog(L_WARN, "[%s] (%p) timed out after %ld ms\n", dw->trk_tag.sym8, static_cast<void*>(dw),
         ms);
    // An address of the source that never took the connection: the next one the name resolved
    // to, if any, gets the task with a time-out of its own.
    if (state_is(dw, "ini") && try_next_address(dw))
        return 0;
    dw_set_end(dw, MTR_END_STALLED);
    // A requester still waiting for the head learns that the source did not answer in time.
    if (dw->cfd >= 0) {
        dw->hresp = &g_resp_gwtmo;
        answer_client(dw);
    }
    (void)pprm_task(dw);
    return 0;
}

int time_out_tasks()
{
    // A clock of its own: sharing the request check's would let one walk starve the other.
    const timespec period = ms_to_ts(task_check_ms());
    if (!g_ctx.tasks.len || !timed_out(&g_ctx.last_task_check, &period))
        return 0;
    g_ctx.last_task_check = *rqs_now_ref();
    (void)xvlst_each(&g_ctx.tasks, dw_tmout_check, nullptr);
    return 0;
}

int time_out_requests()
{
    if (is_iocheck_time())
        rui_tmout_all(&g_ctx.rui, static_cast<u_int>(g_cfg->urq_tmout_sec) * 1000u);
    return 0;
}

// ---- Destination files --------------------------------------------------------------------------

bool dest_path_is_safe(const char* dst_path)
{
    if (!dst_path || !dst_path[0] || dst_path[0] == '/')
        return false;
    // A final name with the unfinished suffix would be taken for an unfinished file: removed by
    // its own task once renamed into place, or expired by a later request for the shorter name.
    if (is_unfinished_seg(dst_path))
        return false;
    for (const char* seg = dst_path; *seg;) {
        const char* end = strchr(seg, '/');
        const size_t len = end ? static_cast<size_t>(end - seg) : strlen(seg);
        if (len == 2 && seg[0] == '.' && seg[1] == '.')
            return false;
        if (!end)
            break;
        seg = end + 1;
    }
    return true;
}

int check_dest_path(const char* path)
{
    char final_path[DW_FPATH_LEN];
    const int n = snprintf(final_path, sizeof(final_path), "%s", path);
    ZASSERT(n > 0 && static_cast<size_t>(n) < sizeof(final_path));
    if (cutoff_segext(final_path) != 0)
        log_assert_fail("cutoff_segext(final_path) == 0", __FILE__, __LINE__, __func__);
    if (access(final_path, F_OK) == 0) {
        zlogf(L_ERR, "%s: destination [%s] is BUSY (already there)\n", final_path);
        return -16;
    }
    return 0;
}

bool can_mmap_dw(const dw_task* dw)
{
    return dw->content_length <= (g_cfg->max_mmap_mb << DW_MB_SHIFT);
}

// Sizes the destination after its reservation (`reserved`: 0, or posix_fallocate's code) and
// stores the body bytes that came with the head. The rest of mk_dest_file, also run when the
// reservation finishes in the kernel's worker.
static int fill_dest_file(dw_task* dw, int reserved, const char* body, ssize_t tail_len)
{
    if (reserved != 0 && reserved != EOPNOTSUPP)
        return reserved;
    if (reserved == EOPNOTSUPP) {
        // A filesystem without reservations gets a plain-written file, whose writes report a
        // full disk as an error.
        if (const int rc = W_ftruncate(__func__, dw->dfd, static_cast<off_t>(dw->content_length)))
            return rc;
    }
    zlogf(L_DEBUG, "%s: destination fd%d opened [%s], %zu bytes\n", dw->dfd, dw->spec.fpath,
          dw->content_length);

    dw->f_pos = 0;
    if (reserved == 0 && can_mmap_dw(dw)) {
        void* map = mmap(nullptr, dw->content_length, PROT_WRITE,
                         MAP_SHARED | MAP_NORESERVE | MAP_POPULATE, dw->dfd, 0);
        if (map == MAP_FAILED) {
            const int e = errno;
            zlogf(L_ERR, "%s: mmap() for %zu bytes failed, ERROR(%d): %s\n", dw->content_length, e,
                  strerror(e));
            return -1;
        }
        dw->buf = static_cast<uint8_t*>(map);
        dw->buflen = dw->content_length;
        dw->is_mmapped = true;
        if (tail_len > 0) {
            // Written through the descriptor, not stored into the map: the kernel reports a page
            // it cannot back as an error instead of a signal. The map shares the page cache, so
            // it sees these bytes.
            zlogf(L_DEBUG, "%s: write tail of %zd bytes\n", tail_len);
            const ssize_t n = pwrite(dw->dfd, body, static_cast<size_t>(tail_len), 0);
            if (n != tail_len) {
                const int e = n < 0 ? errno : EIO;
                zlogf(L_ERR, "%s: pwrite(fd%d, %zd) = %zd ERROR(%d): %s\n", dw->dfd, tail_len, n,
                      e, strerror(e));
                return e;
            }
            dw->f_pos += tail_len;
            dw->nleft -= static_cast<size_t>(tail_len);
        }
    } else {
        // The file was created by this open and neither reservation nor truncation moves the
        // offset: the writes start at 0 without a seek.
        dw->is_mmapped = false;
        dw->buf = nullptr;
        dw->buflen = 0;
        if (tail_len > 0) {
            zlogf(L_DEBUG, "%s: write tail of %zd bytes\n", tail_len);
            const ssize_t n =
                W_write_f(__func__, dw->dfd, body, static_cast<size_t>(tail_len), W_LOGALL);
            if (n != tail_len) {
                zlogf(L_ERR, "%s: under-write(fd%d) %zd/%zd\n", dw->dfd, n, tail_len);
                return -1;
            }
            dw->f_pos += tail_len;
            dw->nleft -= static_cast<size_t>(tail_len);
        }
    }
    g_mtr.bytes_downloaded += static_cast<uint64_t>(dw->f_pos);
    zlogf(L_DEBUG, "%s: created %s for [%s]\n", dw->is_mmapped ? "mmap" : "file", dw->spec.fpath);
    return 0;
}

// Hands the reservation of a plain-written destination to the kernel's worker when the ring is
// open, keeping the body bytes of the head until it is done. True when it went; false leaves the
// reservation to the caller (no ring, a mapped file, a full ring).
static bool reserve_in_worker(dw_task* dw, const char* body, ssize_t tail_len)
{
    static uint64_t s_seq;
    if (!aio_on() || can_mmap_dw(dw))
        return false;
    char* kept = nullptr;
    if (tail_len > 0) {
        kept = static_cast<char*>(malloc(static_cast<size_t>(tail_len)));
        if (!kept)
            return false;
        memcpy(kept, body, static_cast<size_t>(tail_len));
    }
    // The slot says which task a completion is for; the sequence number, whether it is still the
    // task that asked (a slot is reused once its task is freed).
    const uint64_t token = (static_cast<uint64_t>(dw->idx) << DW_AIO_SEQ_BITS) |
                           (++s_seq & ((uint64_t{1} << DW_AIO_SEQ_BITS) - 1));
    if (aio_fallocate(dw->dfd, static_cast<off_t>(dw->content_length), token) != 0) {
        free(kept);
        return false;
    }
    dw->aio_token = token;
    dw->held_body = kept;
    dw->held_len = static_cast<size_t>(tail_len);
    return true;
}

// With the kernel's workers `write_through_backlog` reservations (per worker) behind, a file whose
// whole body is already in the source socket is not queued behind them: it is written at once,
// and its writes allocate the pages a reservation would (in one pass over them instead of two).
// The client is answered only after, so a 200 still means that the room was there. Only a body
// that one copy step takes: a larger one would hold the loop for as long as its pages take to
// allocate, which the workers do better.
static bool writes_through(const dw_task* dw, ssize_t tail_len)
{
    const int backlog = g_cfg->write_through_backlog;
    if (!backlog || !aio_on() || can_mmap_dw(dw) || dw->content_length > DW_SBUF_SIZE ||
        aio_backlog() < static_cast<unsigned>(backlog))
        return false;
    int queued = 0;
    return ioctl(dw->sfd, FIONREAD, &queued) == 0 &&
           static_cast<size_t>(tail_len) + static_cast<size_t>(queued) >= dw->content_length;
}

// Stores the head's body bytes and then the rest from the source. Should the source have fewer
// bytes ready than it announced, the rest of the file is reserved before the answer, as always.
static int write_through(dw_task* dw, const char* body, ssize_t tail_len)
{
    zlogf(L_DEBUG, "%s: [%s] written through, the workers being behind\n", dw->spec.fpath);
    int rc = fill_dest_file(dw, 0, body, tail_len);
    while (rc == 0 && dw->nleft > 0) {
        const size_t before = dw->nleft;
        rc = read_fragment(dw);
        if (dw->nleft == before)
            break;
    }
    if (rc == 0 && dw->nleft > 0) {
        rc = W_fallocate(__func__, dw->dfd, 0, static_cast<off_t>(dw->content_length));
        if (rc == EOPNOTSUPP)
            rc = 0; // the writes report a full disk
    }
    return rc;
}

int mk_dest_file(dw_task* dw, const char* buf, const http_resp_ctx* resp)
{
    const bool has_tail = resp->tail >= 1;
    ssize_t tail_len = has_tail ? resp->total - resp->tail : 0;

    // Checked by recv_http_response: all digits, and the same value wherever it is repeated.
    const long len = resp->content_length;
    if (len <= 0) {
        zlogf(L_ERR, "%s: invalid/missing content length: %zd\n", static_cast<ssize_t>(len));
        return 22;
    }
    zlogf(L_DEBUG, "%s: [%s] length=%zd, tail=%zd\n", dw->spec.fpath, static_cast<ssize_t>(len),
          tail_len);
    dw->nleft = dw->content_length = static_cast<size_t>(len);
    if (tail_len > len) {
        // Bytes beyond the announced length are not part of the file; later reads never ask for
        // them either.
        zlogf(L_WARN, "%s: ignoring %zd bytes beyond the content length\n", tail_len - len);
        tail_len = len;
    }

    dw->dfd = W_open(__func__, dw->spec.fpath, O_RDWR | O_CREAT | O_EXCL, 0666);
    if (dw->dfd < 0)
        return errno;
    struct stat st;
    if (fstat(dw->dfd, &st) != 0) {
        // Without its identity the file could not be told from another one later: give it up now.
        const int e = errno;
        zlogf(L_ERR, "%s: fstat(fd%d) ERROR(%d): %s\n", dw->dfd, e, strerror(e));
        (void)W_unlink(__func__, dw->spec.fpath);
        return e;
    }
    dw->has_dfile = true;
    dw->dfile_dev = st.st_dev;
    dw->dfile_ino = st.st_ino;
    const char* body = buf + (has_tail ? resp->tail : 0);
    if (writes_through(dw, tail_len))
        return write_through(dw, body, tail_len);
    if (reserve_in_worker(dw, body, tail_len))
        return EINPROGRESS;
    // The blocks are reserved before a byte is stored: a full disk, a quota or a file size limit
    // then fails the task here with its error, not later, and a mapped page can always be backed
    // (a store into a sparse page that the filesystem cannot allocate raises SIGBUS).
    const int reserved = W_fallocate(__func__, dw->dfd, 0, static_cast<off_t>(dw->content_length));
    return fill_dest_file(dw, reserved, body, tail_len);
}

int read_fragment(dw_task* dw)
{
    int rc = 0;
    ssize_t n = 0;
    if (dw->nleft > 0) {
        if (dw->is_mmapped) {
            n = nread(dw->sfd, reinterpret_cast<char*>(dw->buf) + dw->f_pos, dw->nleft, 0);
        } else if (g_cfg->splice_to_file && !s_splice_off && open_pipe()) {
            ssize_t w = 0;
            n = splice_fragment(dw, dw->nleft, &w);
            if (n > 0 && w < n) {
                zlogf(L_ERR, "%s: under-write to fd%d: %zd/%zd\n", dw->dfd, w, n);
                dw_set_end(dw, MTR_END_WRITE_ERROR);
                rc = -1;
            }
        } else {
            n = nread(dw->sfd, sbuf, std::min<size_t>(dw->nleft, sizeof(sbuf)), 0);
            if (n > 0) {
                const ssize_t w = nwrite(dw->dfd, sbuf, static_cast<size_t>(n), 0);
                if (w < n) {
                    zlogf(L_ERR, "%s: under-write to fd%d: %zd/%zd\n", dw->dfd, w, n);
                    dw_set_end(dw, MTR_END_WRITE_ERROR);
                    rc = -1;
                }
            }
        }
        if (n == 0) {
            // The source closed before the announced length arrived; waiting for another event
            // would only see the same end of stream again.
            rc = ECONNRESET;
            dw_set_end(dw, MTR_END_SOURCE_CLOSED);
        } else if (n < 0) {
            // A spurious wake-up leaves nothing to read: wait for the next event.
            rc = (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : (errno ? errno : -1);
            if (rc)
                dw_set_end(dw, MTR_END_SOURCE_CLOSED);
        } else {
            dw->f_pos += n;
            g_mtr.bytes_downloaded += static_cast<uint64_t>(n);
            if (static_cast<size_t>(n) > dw->nleft)
                log_abort("%s: BAD CONTENT-LEFT: nrecv/left: %zd/%zu bytes\n", __func__, n,
                          dw->nleft);
            dw->nleft -= static_cast<size_t>(n);
            zlogf(L_DEBUG, "%s: %zd bytes, total=%zd/%zu, %zu left\n", n,
                  static_cast<ssize_t>(dw->f_pos), dw->content_length, dw->nleft);
        }
    }
    set_clk_now(&dw->last_io_tm, CLOCK_MONOTONIC);
    if (rc)
        zlogf(L_ERR, "%s: [%s] failed, rc=%d\n", dw->spec.fpath, rc);
    return rc;
}

int complete_download(dw_task* dw)
{
    if (dw->is_mmapped && msync(dw->buf, dw->buflen, MS_ASYNC)) {
        const int e = errno;
        zlogf(L_ERR, "%s: msync(%p, %zu) on fd%d ERROR(%d): %s\n", static_cast<void*>(dw->buf),
              dw->buflen, dw->dfd, e, strerror(e));
        dw_set_end(dw, MTR_END_WRITE_ERROR);
        return -1;
    }
    if (dw->dfd >= 0) {
        (void)W_close(__func__, dw->dfd);
        dw->dfd = -1;
    }
    if (!owns_dfile(dw)) {
        zlogf(L_ERR, "%s: [%s] is no longer the file this task wrote\n", dw->spec.fpath);
        dw_set_end(dw, MTR_END_WRITE_ERROR);
        return -1;
    }
    char* tmp_path = strdup(dw->spec.fpath);
    if (!tmp_path) {
        dw_set_end(dw, MTR_END_WRITE_ERROR);
        return 12;
    }
    if (cutoff_segext(dw->spec.fpath) != 0)
        log_assert_fail("cutoff_segext(dw->spec.fpath) == 0", __FILE__, __LINE__, __func__);

    const int rc = rename(tmp_path, dw->spec.fpath);
    if (rc) {
        const int e = errno;
        zlogf(L_ERR, "%s: rename(%s, %s) ERROR(%d): %s\n", tmp_path, dw->spec.fpath, e,
              strerror(e));
    } else {
        zlogf(L_DEBUG, "%s: rename(%s, %s): OK\n", tmp_path, dw->spec.fpath);
    }
    // The segment is registered even when the rename failed; callers of the registry learn of
    // the failure from the missing file.
    if (g_cfg->lbdb.port > 0)
        (void)add_lbdb_url(&dw->spec);
    free(tmp_path);
    if (rc) {
        dw_set_end(dw, MTR_END_WRITE_ERROR);
        return rc;
    }
    dw_set_end(dw, MTR_END_COMPLETED);
    timespec now, took;
    set_clk_now(&now, CLOCK_MONOTONIC);
    tspec_diff(&now, &dw->start_tm, &took);
    mtr_observe_download_us(static_cast<uint64_t>(took.tv_sec) * 1000000u +
                            static_cast<uint64_t>(took.tv_nsec) / 1000u);
    zlog(L_NORM, "downloaded: %zu bytes, [%s] to [%s]\n", dw->content_length, dw->spec.url,
         dw->spec.fpath);
    (void)pprm_task(dw);
    return 0;
}

// Completion of a registration sent on the loop; `arg` is the URL, ours to free. Drops from the
// waiting queue have their own (rate-limited) lines.
static void on_lbdb_added(void* arg, int rc, int status)
{
    char* url = static_cast<char*>(arg);
    if (rc == 0)
        mtr_registration(MTR_REG_OK);
    else if (status == LBQ_ST_EXPIRED || status == LBQ_ST_DROPPED)
        mtr_registration(MTR_REG_DROPPED);
    else
        mtr_registration(MTR_REG_FAILED);
    if (rc && status != LBQ_ST_EXPIRED && status != LBQ_ST_DROPPED)
        zlog(L_ERR, "%s: failed to add [%s]\n", "add_lbdb_url", url);
    else if (rc == 0)
        zlogf(L_DEBUG, "%s: added [%s]\n", url);
    free(url);
}

int add_lbdb_url(const dw_spec* spec)
{
    ZASSERT(g_cfg->seg_url_pfx[0] && spec->dst_path[0]);
    char url[256];
    const int n = snprintf(url, sizeof(url), "%s/%s", g_cfg->seg_url_pfx, spec->dst_path);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(url)) {
        zlogf(L_ERR, "%s: n=%d, URL buffer error\n", n);
        mtr_registration(MTR_REG_FAILED);
        return -1;
    }
    zlogf(L_INFO, "%s: id=[%s], url=[%s], expiry=%lu\n", spec->dst_path, url,
          static_cast<unsigned long>(spec->expiry_tm));
    if (lbdb_link_on()) {
        // On the loop the outcome arrives later; 0 here means the registration was taken.
        char* copy = strdup(url);
        if (!copy)
            log_abort("%s: out of memory\n", __func__);
        if (lbdb_add_segurl_cb(spec->dst_path, url, spec->expiry_tm, on_lbdb_added, copy) == 0)
            return 0;
        free(copy);
        mtr_registration(MTR_REG_FAILED);
        zlogf(L_ERR, "%s: failed to add [%s]\n", url);
        return -1;
    }
    const int rc = lbdb_add_segurl(spec->dst_path, url, spec->expiry_tm);
    mtr_registration(rc ? MTR_REG_FAILED : MTR_REG_OK);
    if (rc)
        zlogf(L_ERR, "%s: failed to add [%s]\n", url);
    return rc;
}

bool is_local_url(const char* url)
{
    const char* pfx = g_cfg->seg_url_pfx;
    const size_t n = strlen(pfx);
    if (!n || strlen(url) < n)
        return false;
    return strncasecmp(url, pfx, n) == 0 && (url[n] == '/' || url[n] == '\0');
}
