// Requests on the admin listeners: read the head, answer /metrics or /status (404 otherwise), and
// retire through the listener's deferred-removal list. The request never touches download state;
// it only reads it while composing an answer.
#include "adm.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "main.h"
#include "meta.h"
#include "mtr.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"

LOG_MODULE(0, -1);

namespace {

constexpr size_t ADM_TRK_MAX = 10000;
constexpr size_t ADM_RESP_HEAD = 512;

void retire(adm_rq* rq)
{
    if (rq->is_quitting)
        return;
    rq->is_quitting = true;
    if (rui_pprm_request(rq) < 0)
        log_abort("%s: cannot list %s for removal\n", __func__, rq->trk_tag.sym8);
}

// Builds head and body into one buffer, so that one send path serves every answer.
int put_answer(adm_rq* rq, http_response* r, const char* body, size_t body_len)
{
    char head[ADM_RESP_HEAD];
    r->server = get_app_tag(g_app_name);
    r->content_length = static_cast<long>(body_len);
    const int n = mk_http_xt_resp(r, 11, head, sizeof(head));
    if (n <= 0)
        return -1;
    rq->out = static_cast<char*>(W_calloc(__func__, 1, static_cast<size_t>(n) + body_len));
    if (!rq->out)
        return -1;
    std::memcpy(rq->out, head, static_cast<size_t>(n));
    if (body_len)
        std::memcpy(rq->out + n, body, body_len);
    rq->out_len = static_cast<size_t>(n) + body_len;
    rq->out_pos = 0;
    return 0;
}

http_response plain_resp(int code, const char* reason, const char* content_type)
{
    http_response r{};
    r.code = code;
    r.reason = reason;
    r.content_type = content_type;
    r.connection = "close";
    r.server = "";
    return r;
}

// Writes what the socket takes. 0 when all is sent, 11 to wait for a write event, -1 when the
// client is gone or the write failed.
int send_out(adm_rq* rq)
{
    while (rq->out_pos < rq->out_len) {
        const ssize_t n = write(rq->sockfd, rq->out + rq->out_pos, rq->out_len - rq->out_pos);
        if (n > 0) {
            rq->out_pos += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return 11;
        const int e = n < 0 ? errno : EPIPE;
        zlogf(L_INFO, "%s: [%s] fd%d answer cut after %zu/%zu bytes: ERROR(%d): %s\n",
              rq->trk_tag.sym8, rq->sockfd, rq->out_pos, rq->out_len, e, strerror(e));
        return -1;
    }
    return 0;
}

// Sends what is left; waits for the next write event when the socket is full.
void flush_answer(adm_rq* rq)
{
    const int rc = send_out(rq);
    if (rc == 11) {
        zlogf(L_DEBUG, "%s: [%s] fd%d full after %zu/%zu bytes, waiting\n", rq->trk_tag.sym8,
              rq->sockfd, rq->out_pos, rq->out_len);
        if (rqs_mod(rq->sockfd, rq, RQS_WRITE) == 0)
            return;
        zlogf(L_ERR, "%s: [%s] cannot wait for fd%d to drain\n", rq->trk_tag.sym8, rq->sockfd);
    }
    retire(rq);
}

} // namespace

rui_socket_cb adm_cb = {{ADM_TAG}, adm_new, adm_rm, adm_timeout};

void* adm_new(int sockfd, rui_socket_ctx* srv, void* /*arg*/)
{
    auto* rq = static_cast<adm_rq*>(W_calloc(__func__, 1, sizeof(adm_rq)));
    if (!rq)
        return nullptr;
    set_tag32(&rq->tag, "ADM");
    // The listener manager asks for RUI_LOW_WMARK bytes before a connection is readable, but
    // "GET /status HTTP/1.0" with its blank line is shorter: it would wait for the time-out.
    const int lowat = 1;
    if (srv->lc && !srv->lc->domain_path[0])
        (void)W_setsockopt(__func__, sockfd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof(lowat));
    rq->sockfd = sockfd;
    rq->srv = srv;
    rq->start_tm = *rqs_now_ref();
    // Bounds the loop's wait while the request lives, so that its time-out is seen in time.
    set_timeout(URQ_TMOUT, URQ_TMOUT_MS);
    rui_mk_trknum(&srv->rqcount, &rq->trk_tag, 'a', ADM_TRK_MAX);
    zlogf(L_DEBUG, "%s: [%s] (%p) fd%d\n", rq->trk_tag.sym8, static_cast<void*>(rq), sockfd);
    return rq;
}

void adm_rm(void* p)
{
    auto* rq = static_cast<adm_rq*>(p);
    zlogf(L_DEBUG, "%s: [%s] (%p)\n", rq->trk_tag.sym8, p);
    if (rq->sockfd >= 0) {
        (void)W_close(__func__, rq->sockfd);
        rq->sockfd = -1;
    }
    std::free(rq->out);
    rq->tag.num = 0;
    rm_timeout(URQ_TMOUT);
    std::free(rq);
}

int adm_timeout(void* p, u_int tmout_ms)
{
    auto* rq = static_cast<adm_rq*>(p);
    const timespec tmo = {static_cast<time_t>(tmout_ms / 1000),
                          static_cast<long>(tmout_ms % 1000) * 1000000L};
    if (rq->is_quitting || !timed_out(&rq->start_tm, &tmo))
        return 0;
    zlogf(L_WARN, "%s: TIME-OUT [%s] (%p) fd%d\n", rq->trk_tag.sym8, p, rq->sockfd);
    retire(rq);
    return 1;
}

int adm_compose(adm_rq* rq)
{
    http_header hdr{};
    char url[ADM_URL_LEN] = "";
    const int rc = parse_http_header(rq->head, rq->hpos, &hdr, url, sizeof(url));
    if (rc != 0 && rc != 22) {
        zlogf(L_INFO, "%s: [%s] malformed request (%d)\n", rq->trk_tag.sym8, rc);
        http_response r = plain_resp(400, "Bad request", nullptr);
        return put_answer(rq, &r, nullptr, 0);
    }
    // The query, if any, plays no part in choosing the answer.
    if (char* q = std::strchr(url, '?'))
        *q = '\0';
    const bool is_get = rc == 0 && hdr.type == HTTP_GET;
    const bool metrics = is_get && std::strcmp(url, "/metrics") == 0;
    const bool status = is_get && std::strcmp(url, "/status") == 0;
    if (!metrics && !status) {
        zlogf(L_INFO, "%s: [%s] nothing at [%s]\n", rq->trk_tag.sym8, url);
        http_response r = plain_resp(404, "Not Found", nullptr);
        return put_answer(rq, &r, nullptr, 0);
    }
    mtr_text body{};
    int done = metrics ? mtr_render_metrics(&body) : mtr_render_status(&body);
    if (done == 0) {
        http_response r = plain_resp(200, "OK",
                                     metrics ? "text/plain; version=0.0.4; charset=utf-8"
                                             : "application/json");
        done = put_answer(rq, &r, body.p, body.len);
    }
    mtr_text_free(&body);
    return done;
}

int adm_read(adm_rq* rq)
{
    if (rq->is_quitting || rq->out)
        return 0;
    if (rq->hpos >= sizeof(rq->head) - 1) {
        zlogf(L_INFO, "%s: [%s] request head exceeds %zu bytes\n", rq->trk_tag.sym8,
              sizeof(rq->head) - 1);
        retire(rq);
        return 0;
    }
    const ssize_t n = read(rq->sockfd, rq->head + rq->hpos, sizeof(rq->head) - 1 - rq->hpos);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    if (n <= 0) {
        zlogf(L_DEBUG, "%s: [%s] client fd%d closed\n", rq->trk_tag.sym8, rq->sockfd);
        retire(rq);
        return 0;
    }
    rq->hpos += static_cast<size_t>(n);
    rq->head[rq->hpos] = '\0';
    if (!head_eod(rq->head, rq->hpos))
        return 0;
    if (adm_compose(rq) != 0) {
        retire(rq);
        return 0;
    }
    flush_answer(rq);
    return 0;
}

int adm_write(adm_rq* rq)
{
    if (rq->is_quitting || !rq->out)
        return 0;
    flush_answer(rq);
    return 0;
}

void adm_error(adm_rq* rq, bool is_hup)
{
    zlogf(L_DEBUG, "%s: [%s] %s on fd%d\n", rq->trk_tag.sym8, is_hup ? "HUP" : "ERROR", rq->sockfd);
    retire(rq);
}
