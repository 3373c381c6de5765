// HTTP download requests: one object per accepted client connection, which reads the request head,
// turns its path into a download order, answers at once (or hands the answer to the task
// it starts) and is then retired through the listener's deferred-removal list.
#include "rq.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "app.h"
#include "cfg.h"
#include "log.h"
#include "main.h"
#include "meta.h"
#include "mtr.h"
#include "netops.h"
#include "rqs.h"
#include "srcacl.h"
#include "strops.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"
#include "udl.h"
#include "util.h"

LOG_MODULE(0, -1);

namespace {

// A state tag from its (up to three-letter) text, as mk_tag32 lays tags out in memory.
constexpr uint32_t state_num(std::string_view s)
{
    uint32_t v = 0;
    for (size_t i = 0; i < s.size() && i < 3; ++i)
        v |= static_cast<uint32_t>(static_cast<unsigned char>(s[i])) << (8 * i);
    return v;
}

constexpr uint32_t ST_INI = state_num("INI");
constexpr uint32_t ST_RD = state_num("RD");
constexpr uint32_t ST_QUI = state_num("QUI");

constexpr size_t PPRM_GROWTH = 4;
constexpr size_t URQ_TRK_MAX = 10000;
constexpr size_t DST_COPY_LEN = URQ_ENDPT_LEN - 1;
constexpr char HTTP_PFX[] = "http://";
constexpr size_t SEGXT_LEN = sizeof(VESK_SEGXT) - 1;

n32_tag mk_state(uint32_t num)
{
    n32_tag t;
    t.num = num;
    return t;
}

int match_ptr(void* data, size_t i, const void* what)
{
    return static_cast<void**>(data)[i] == what;
}

// Switches the log group to a request's tracking tag for one handler call and restores it after.
class log_group_scope {
public:
    explicit log_group_scope(const char* group)
    {
        std::strncpy(saved_, log_get_group(g_log), sizeof(saved_) - 1);
        log_set_group(g_log, group);
    }
    ~log_group_scope() { log_set_group(g_log, saved_); }
    log_group_scope(const log_group_scope&) = delete;
    log_group_scope& operator=(const log_group_scope&) = delete;

private:
    char saved_[sizeof(n64_tag)] = {};
};

// Passed to the listener with a connection that is queued again after an answer.
char s_kept_marker;

// A kept connection on which not a byte of the next request has come yet.
bool waits_for_next(const dw_urq* urq)
{
    return urq->kept && urq->hrq.hpos == 0;
}

// Whether the client of a parsed request may send its next one on the same connection: its
// listener says so, its head does not ask for a close (HTTP/1.0 must ask for keep-alive), and no
// bytes behind the head were dropped, since the client would wait for their answer.
dw_keep client_keep(const dw_urq* urq)
{
    const http_header& h = urq->hrq.header;
    if (!urq->srv->lc || !urq->srv->lc->keep_alive || urq->hrq.pipelined)
        return {};
    if (h.is_keep_alive || (!h.is_http10 && !h.is_close))
        return {urq->srv, h.is_http10};
    return {};
}

// Makes an answered request of a kept connection wait for the client's next head, as a fresh
// request would: empty buffer, no answer chosen, its time-out counted from now.
void rearm_urq(dw_urq* urq)
{
    http_rq& rq = urq->hrq;
    rq.hpos = 0;
    if (rq.hbuf)
        rq.hbuf[0] = '\0';
    rq.header = http_header{};
    rq.pipelined = false;
    urq->uri_src[0] = urq->uri_dst[0] = '\0';
    urq->hresp = nullptr;
    urq->kept = true;
    urq->wait_start_tm = *rqs_now_ref();
    urq_set_state(urq, mk_state(ST_INI));
}

} // namespace

bool keeps_client(const http_response* r, const dw_keep& keep)
{
    return keep.srv && (r->code == 200 || r->code == 204) && !r->fpath;
}

int send_answer(int fd, const http_response* r, const dw_keep& keep)
{
    if (!keeps_client(r, keep))
        return send_http_response(fd, r);
    // The client reads the next answer from the same stream: this one must show its end without
    // a close. A 204 ends with its head by definition.
    http_response k = *r;
    if (k.code != 204 && k.content_length < 0)
        k.content_length = 0;
    if (keep.http10)
        k.connection = "keep-alive";
    return send_http_response(fd, &k);
}

bool urq_keep_client(int fd, const dw_keep& keep)
{
    rui_socket_ctx* srv = keep.srv;
    if (g_quit || !srv || srv->tag.num != RSC_TAG || !srv->requests)
        return false;
    return rui_add_request(fd, srv, &s_kept_marker) == 0;
}

size_t urq_evict_idle(rui_socket_ctx* srv, size_t most)
{
    size_t n = 0;
    // The oldest requests sit at the tail.
    for (dlep_elem* e = srv->requests ? srv->requests->tail : nullptr; e && n < most; e = e->next) {
        auto* urq = reinterpret_cast<dw_urq*>(e);
        if (urq->tag.num != DW_URQ || !waits_for_next(urq) || urq->state.num != ST_INI ||
            urq->pprm_idx >= 0)
            continue;
        pprm_urq(urq);
        ++n;
    }
    return n;
}

rui_socket_cb urq_cb = {{DW_URQ}, urq_new, urq_rm, urq_timeout};

void* urq_new(int sockfd, rui_socket_ctx* srv, void* arg)
{
    auto* urq = static_cast<dw_urq*>(W_calloc(__func__, 1, sizeof(dw_urq)));
    if (!urq)
        return nullptr;
    set_tag32(&urq->tag, "URQ");
    urq->state = mk_state(ST_INI);
    urq->sockfd = sockfd;
    urq->srv = srv;
    urq->pprm_idx = -1;
    urq->kept = arg == &s_kept_marker;
    set_timeout(URQ_TMOUT, URQ_TMOUT_MS);
    mk_trk_tag(&srv->rqcount, &urq->trk_tag, 'u', URQ_TRK_MAX);
    zlog(L_INFO, "%s [%s] (%p) created\n", urq->tag.sym4, urq->trk_tag.sym8,
         static_cast<void*>(urq));
    urq->wait_start_tm = *rqs_now_ref();
    return urq;
}

void urq_rm(void* rq)
{
    auto* urq = static_cast<dw_urq*>(rq);
    zlogf(L_INFO, "%s: %s [%s] (%p)\n", urq->tag.sym4, urq->trk_tag.sym8, rq);
    if (urq->sockfd >= 0) {
        W_close(__func__, urq->sockfd);
        urq->sockfd = -1;
    }
    std::free(urq->hrq.hbuf);
    urq->hrq.hbuf = nullptr;
    urq->state.num = 0;
    urq->tag.num = 0;
    rm_timeout(URQ_TMOUT);
    // Logged just before the release only so that the address is not read after it.
    zlogf(L_DEBUG, "%s: freed (%p)\n", rq);
    std::free(urq);
}

int urq_timeout(void* rq, u_int tmout_ms)
{
    auto* urq = static_cast<dw_urq*>(rq);
    // A kept connection waiting for its next request may have an idle limit of its own.
    const bool idle = waits_for_next(urq);
    if (idle && urq->srv->lc && urq->srv->lc->keep_alive_idle_ms > 0)
        tmout_ms = static_cast<u_int>(urq->srv->lc->keep_alive_idle_ms);
    const timespec tmo = {static_cast<time_t>(tmout_ms / 1000),
                          static_cast<long>(tmout_ms % 1000) * 1000000L};
    if (!timed_out(&urq->wait_start_tm, &tmo))
        return 0;
    if (idle) {
        // A kept connection that the client leaves idle is closed without fuss: nothing was asked.
        zlogf(L_INFO, "%s: %s [%s] (%p) idle kept-alive connection closed\n", urq->tag.sym4,
              urq->trk_tag.sym8, rq);
        pprm_urq(urq);
        return 1;
    }
    const timespec* now = rqs_now_ref();
    zlogf(L_WARN, "%s: TIME-OUT %s [%s] (%p) start-tm: %lu.%lu, now=%lu.%lu\n", urq->tag.sym4,
          urq->trk_tag.sym8, rq, static_cast<unsigned long>(urq->wait_start_tm.tv_sec),
          static_cast<unsigned long>(urq->wait_start_tm.tv_nsec),
          static_cast<unsigned long>(now->tv_sec), static_cast<unsigned long>(now->tv_nsec));
    pprm_urq(urq);
    return 1;
}

int urq_read(dw_urq* urq)
{
    ZASSERT(urq->tag.num == DW_URQ);
    ZASSERT(urq->state.num == ST_INI || urq->state.num == ST_RD);
    log_group_scope group(urq->trk_tag.sym8);
    zlogf(L_DEBUG, "%s: fd%d (%s)\n", urq->sockfd, urq->state.sym4);

    if (urq->state.num == ST_INI) {
        urq->hresp = nullptr;
        urq_set_state(urq, mk_state(ST_RD));
    }

    bool must_answer = true;
    int rc = read_http_rq(urq);
    if (rc == 11) {
        zlogf(L_DEBUG, "%s: need more data on %s [%s] (%p)\n", urq->tag.sym4, urq->trk_tag.sym8,
              static_cast<void*>(urq));
        return 0;
    }
    if (rc == 104) {
        // The client is gone: nothing can be answered, and no later event of this batch can
        // refer to the request, since its descriptor leaves the loop right here. Closing a kept
        // connection between requests is how a client says goodbye, not a lost answer.
        if (!waits_for_next(urq))
            ++g_mtr.clients_gone;
        rui_rm_request(urq);
        return 0;
    }
    dw_keep keep{};
    if (rc != 0) {
        urq->hresp = &g_resp_err;
    } else {
        dw_spec spec{};
        rc = parse_dw_get(urq, &spec);
        keep = client_keep(urq);
        if (rc == WEB_NO_PATH) {
            zlogf(L_INFO, "%s: PONG!\n");
            urq->hresp = &g_resp_ok204;
        } else if (rc != 0) {
            // A refused source was named in its own error line; the request itself was fine.
            if (rc != 13)
                zlogf(L_ERR, "%s: malformed HTTP request: %s\n", urq->hrq.hbuf);
            if (!urq->hresp)
                urq->hresp = &g_resp_bad;
        } else if (urq->hrq.header.type == HTTP_HEAD) {
            // No answer at all: the connection is simply closed when the request is removed.
            zlogf(L_INFO, "%s: nothing to do for HEAD request\n");
            must_answer = false;
        } else if (is_local_url(spec.url)) {
            zlogf(L_DEBUG, "%s: [%s] is local URL, no download required\n", spec.url);
            if (g_cfg->lbdb.port > 0) {
                zlogf(L_DEBUG, "%s: adding local URL to LBDB\n");
                (void)add_lbdb_url(&spec);
            }
            urq->hresp = &g_resp_ok;
        } else if ((rc = mk_dw_task(urq->sockfd, &spec, keep)) == 0) {
            // The task answers later through the socket, which is now its own.
            rui_detach_fd(urq);
            must_answer = false;
        } else {
            urq->hresp = rc == 13 ? &g_resp_denied : &g_resp_err;
        }
    }

    if (must_answer) {
        if (!urq->hresp)
            urq->hresp = &g_resp_err;
        if (!urq->hresp->server || !urq->hresp->server[0])
            urq->hresp->server = get_app_tag(g_app_name);
        if (send_answer(urq->sockfd, urq->hresp, keep) == 0) {
            mtr_answer(urq->hresp->code);
            if (keeps_client(urq->hresp, keep)) {
                // Answered here and kept: this request waits for the client's next head itself,
                // still registered and still counted once by its listener.
                rearm_urq(urq);
                return 0;
            }
        } else {
            ++g_mtr.clients_gone;
        }
    }
    urq_set_state(urq, mk_state(ST_QUI));
    pprm_urq(urq);
    return 0;
}

void urq_error(dw_urq* urq, bool is_hup)
{
    const int err = socket_error(urq->sockfd);
    zlogf(L_ERR, "%s: %s URQ(%p) [%s] ERROR(%d): %s\n", is_hup ? "HUP" : "",
          static_cast<void*>(urq), urq->trk_tag.sym8, err, std::strerror(err));
    pprm_urq(urq);
}

int read_http_rq(dw_urq* urq)
{
    http_rq* rq = &urq->hrq;
    if (!rq->hbuf) {
        rq->hbuf = static_cast<char*>(W_calloc(__func__, 1, HRQ_BUF_SIZE));
        if (!rq->hbuf)
            return -12;
        rq->hlen = HRQ_BUF_SIZE;
        rq->hpos = 0;
    }
    ZASSERT(rq->hpos < rq->hlen);

    ssize_t tail = 0;
    while (tail <= 0) {
        // A full buffer without the end of the head cannot be read into any further; reading zero
        // bytes would look like the client closing.
        if (rq->hpos >= rq->hlen - 1) {
            zlogf(L_ERR, "%s: request head of fd=%d exceeds %zu bytes\n", urq->sockfd,
                  rq->hlen - 1);
            return -1;
        }
        const ssize_t n = read_http(urq->sockfd, rq->hbuf, rq->hlen - 1,
                                    static_cast<ssize_t>(rq->hpos), &tail);
        if (n < 1) {
            const int err = errno;
            if (n < 0 && err == EAGAIN)
                return 11;
            // A kept connection that ends before a byte of its next request is the client's
            // goodbye, whatever errno holds; an end of a fresh one is answered as before.
            const bool goodbye = n == 0 && waits_for_next(urq);
            if ((n == 0 && err == EAGAIN) || goodbye || err == ECONNRESET) {
                zlogf(L_INFO, "%s: client fd=%d closed connection\n", urq->sockfd);
                return 104;
            }
            return -1;
        }
        rq->hpos += static_cast<size_t>(n);
        rq->hbuf[rq->hpos] = '\0';
        zlogf(L_DEBUG, "%s: %s HTTP buffer [%ld bytes] received:\n%s",
              tail > 0 ? "complete" : "partial", static_cast<long>(rq->hpos), rq->hbuf);
    }

    // One request per head: a body or a pipelined request behind it is dropped.
    if (static_cast<size_t>(tail) < rq->hpos) {
        rq->pipelined = true;
        zlogf(L_WARN, "%s: request has tail data, dismissing the tail\n");
        rq->hpos = static_cast<size_t>(tail);
        rq->hbuf[rq->hpos] = '\0';
    }
    return 0;
}

int parse_dw_get(dw_urq* urq, dw_spec* spec)
{
    http_rq* rq = &urq->hrq;
    int rc = web_parse_urq(rq->hbuf, rq->hlen, urq->uri_src, urq->uri_dst, URQ_ENDPT_LEN,
                           &rq->header);
    if (rc != 0) {
        urq->hresp = rc == WEB_NO_PATH ? &g_resp_ok204 : &g_resp_bad;
    } else {
        zlogf(L_DEBUG, "%s: %s [%s] (%p): src=[%s], dst=[%s]\n", urq->tag.sym4,
              urq->trk_tag.sym8, static_cast<void*>(urq), urq->uri_src, urq->uri_dst);

        // The query is only ours: it is never sent to the source. Of it only "expiry=" counts,
        // wherever it occurs (also at the end of another key's name).
        char* qmark = std::strchr(urq->uri_src, '?');
        const char* query = "";
        if (qmark) {
            *qmark = '\0';
            query = qmark + 1;
        }
        const char* exp = std::strstr(query, "expiry=");
        long expiry = 0;
        int n = 0;
        if (exp)
            n = std::sscanf(exp, "expiry=%ld%*s", &expiry);
        if (n != 1) {
            zlogf(L_WARN, "%s: NO EXPIRY: sscanf('%s',..) expected 1, got %d\n",
                  exp ? exp : query, n);
            expiry = 0;
        }
        spec->expiry_tm = static_cast<time_t>(expiry);
        rc = validate_request(urq, spec);
    }

    if (rc == WEB_NO_PATH)
        zlogf(L_DEBUG, "%s: PING: will send HTTP 204\n");
    else if (rc != 0)
        zlogf(L_ERR, "%s: %s [%s] (%p): src=[%s], dst=[%s], ERROR(%d)\n", urq->tag.sym4,
              urq->trk_tag.sym8, static_cast<void*>(urq), urq->uri_src, urq->uri_dst, rc);
    return rc;
}

int validate_request(dw_urq* urq, dw_spec* spec)
{
    const int rc = setup_dw_spec(urq->uri_src, urq->uri_dst, DST_COPY_LEN, spec);
    if (rc == 13)
        urq->hresp = &g_resp_denied;
    if (rc == 0)
        zlogf(L_DEBUG, "%s: url=[%s], path=[%s], expiry=%ld\n", spec->url, spec->fpath,
              static_cast<long>(spec->expiry_tm));
    return rc;
}

int setup_dw_spec(const char* src, char* dst, size_t dst_len, dw_spec* spec)
{
    zlogf(L_DEBUG, "%s: src=[%s] dst=[%s]\n", src, dst);
    if (std::strlen(src) <= 6 || std::strncmp(src, HTTP_PFX, sizeof(HTTP_PFX) - 1) != 0) {
        zlogf(L_ERR, "%s: non-HTTP or invalid src=[%s]\n", src);
        return 22;
    }
    // Judged before anything is made for the request: a refused source leaves no task, no
    // directory and no file behind. The agent's own URLs are never fetched, only registered.
    if (!is_local_url(src) && src_url_allowed(src) != 0)
        return 13;

    if (!dst[0]) {
        const char* host = std::strstr(src, "//");
        const char* slash = host ? std::strchr(host + 2, '/') : nullptr;
        if (!slash) {
            zlogf(L_ERR, "%s: cannot extract path from source URL: %s\n", src);
            return 22;
        }
        dst[dst_len] = '\0';
        const size_t n = strnlen(slash + 1, dst_len);
        std::memcpy(dst, slash + 1, n);
        dst[n] = '\0';
        zlogf(L_INFO, "%s: source-based dst=[%s]\n", dst);
    }

    // Both the HTTP requests and the channel orders come through here, so this one check keeps
    // every destination (and the directories made for it) inside the data directory.
    if (!dest_path_is_safe(dst)) {
        zlogf(L_ERR, "%s: unsafe destination path [%s]\n", dst);
        return 22;
    }

    int rc = init_spec(g_cfg->data_dir, src, dst, spec);
    if (rc != 0)
        return rc;

    rc = check_and_expire(spec->fpath, DW_UNFINISHED_MAX_AGE);
    if (rc == 16) {
        zlogf(L_ERR, "%s: [%s] already exists\n", spec->fpath);
        return 17;
    }
    return rc;
}

int init_spec(const char* root, const char* src, const char* dst, dw_spec* spec)
{
    const size_t rlen = std::strlen(root);
    const char* sep = (rlen > 0 && root[rlen - 1] == '/') ? "" : "/";
    const int n = std::snprintf(spec->fpath, sizeof(spec->fpath), "%s%s%s%s", root, sep, dst,
                                VESK_SEGXT);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(spec->fpath)) {
        zlogf(L_ERR, "%s: full path is too long: %zd/%zu\n", static_cast<ssize_t>(n),
              sizeof(spec->fpath));
        return 34;
    }

    const size_t slen = std::strlen(src);
    if (slen >= sizeof(spec->url)) {
        zlogf(L_ERR, "%s: source URL is too long: %zu/%zu\n", slen, sizeof(spec->url));
        return 34;
    }

    const int rc = mk_fpath_dirs(spec->fpath);
    if (rc != 0) {
        zlogf(L_ERR, "%s: cannot ensure dest path [%s]\n", spec->fpath);
        return rc;
    }

    std::memcpy(spec->url, src, slen + 1);
    const size_t dlen = strnlen(dst, sizeof(spec->dst_path) - 1);
    std::memcpy(spec->dst_path, dst, dlen);
    spec->dst_path[dlen] = '\0';
    spec->content_length = 0;
    return 0;
}

int cutoff_segext(char* path)
{
    const size_t len = std::strlen(path);
    if (len == 0)
        return 22;
    // The suffix is compared together with the terminating NUL. A path no longer than the suffix
    // cannot carry it (and must not be read before its start).
    if (len <= SEGXT_LEN || std::memcmp(path + len - SEGXT_LEN, VESK_SEGXT, sizeof(VESK_SEGXT)))
        return 3;
    path[len - SEGXT_LEN] = '\0';
    return 0;
}

bool is_unfinished_seg(const char* path)
{
    const size_t len = std::strlen(path);
    if (len <= SEGXT_LEN)
        return false;
    return std::memcmp(path + len - SEGXT_LEN, VESK_SEGXT, SEGXT_LEN) == 0;
}

void urq_set_state(dw_urq* urq, n32_tag state)
{
    ZASSERT(urq->state.num != state.num);
    const n32_tag old = urq->state;
    urq->state = state;
    zlog(L_DEBUG, "%s [%s] (%p) state: %s -> %s\n", urq->tag.sym4, urq->trk_tag.sym8,
         static_cast<void*>(urq), old.sym4, urq->state.sym4);
}

void pprm_urq(dw_urq* urq)
{
    rui_socket_ctx* srv = urq->srv;
    ZASSERT(srv != nullptr);
    size_t pos = 0;
    if (srv->pprm.len > 0 && xvlst_find(&srv->pprm, urq, match_ptr, &pos)) {
        zlogf(L_WARN, "%s: %s [%s] (%p) is already PPRM-ed\n", urq->tag.sym4, urq->trk_tag.sym8,
              static_cast<void*>(urq));
        return;
    }
    const ssize_t j = xv_push<void*>(&srv->pprm, static_cast<void*>(urq), PPRM_GROWTH);
    if (j < 0) {
        zlogf(L_ERR, "%s: xvlst_add ERROR\n");
        log_assert_fail("j >= 0", __FILE__, __LINE__, __func__);
    }
    urq->pprm_idx = j;
    zlogf(L_DEBUG, "%s: added (%p) to pprm[%zi] (%p) for listener fd%d\n", static_cast<void*>(urq),
          j, static_cast<void*>(&srv->pprm), srv->sockfd);
    zlogf(L_INFO, "%s: %s [%s] (%p) is to END j=%zd\n", urq->tag.sym4, urq->trk_tag.sym8,
          static_cast<void*>(urq), j);
}
