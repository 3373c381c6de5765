// The listener manager: opens the listeners of each request type, accepts connections in bounded
// cycles, queues the requests that the application makes of them, and removes them at once, after
// the current batch, or when the application's time-out check says so.
#include "rui.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include "log.h"
#include "netops.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"
#include "util.h"

LOG_MODULE(0, -1);

// Callbacks per request type; slots point into this table, which also tells a slot's type.
static rui_socket_cb g_rui_cb[RUI_MAX];

constexpr size_t PPRM_INITIAL = 8;
constexpr size_t PPRM_GROWTH = 4;

const char* rui_type_name(int type)
{
    static constexpr std::array<const char*, RUI_MAX> names = {"user", "admin", "custom"};
    return type >= 0 && type < RUI_MAX ? names[static_cast<size_t>(type)] : "?";
}

// The type of a set-up slot, from the callback table it points into; -1 when not set up.
static int slot_type(const rui_socket_ctx* srv)
{
    for (int t = 0; t < RUI_MAX; ++t)
        if (srv->cb == &g_rui_cb[t])
            return t;
    return -1;
}

static const char* alias_of(const rui_socket_ctx* srv)
{
    return srv && srv->lc ? srv->lc->alias : "?";
}

static bool is_set_up(const rui_socket_ctx* srv)
{
    return srv->tag.num == RSC_TAG;
}

static size_t queued(const rui_socket_ctx* srv)
{
    return srv->requests ? dlep_count(srv->requests) : 0;
}

// fd_set cannot hold descriptors from FD_SETSIZE on; those are simply not marked.
static bool fits_fdset(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE;
}

// Whether `rqh` is linked in `l`. Unlinking clears both links, so a request with no links is in
// the list only as its single element.
static bool in_queue(const dlep_list* l, const rui_rq_header* rqh)
{
    return rqh->prev || rqh->next || dlep_head(l) == rqh;
}

static int match_ptr(void* data, size_t i, const void* what)
{
    return static_cast<void**>(data)[i] == what ? 1 : 0;
}

void rui_set_cb(int type, const rui_socket_cb* cb)
{
    ZASSERT(type >= 0 && type < RUI_MAX);
    g_rui_cb[type] = *cb;
}

int rui_ctx_init(rui_cfg* cfg, rui_ctx* ctx)
{
    FD_ZERO(&ctx->user_fds);
    FD_ZERO(&ctx->admin_fds);
    FD_ZERO(&ctx->custom_fds);
    int rc = rui_setup_listeners(RUI_USER, cfg->user, ctx->user);
    if (rc == 0)
        rc = rui_setup_listeners(RUI_ADMIN, cfg->admin, ctx->admin);
    if (rc == 0)
        rc = rui_setup_listeners(RUI_CUSTOM, cfg->custom, ctx->custom);
    return rc;
}

int rui_setup_listeners(int type, rui_listener_cfg* lc, rui_socket_ctx* srv)
{
    ZASSERT(type >= 0 && type < RUI_MAX);
    for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i) {
        srv[i] = rui_socket_ctx{};
        srv[i].sockfd = -1;
        FD_ZERO(&srv[i].accset);
    }
    rui_socket_cb* cb = &g_rui_cb[type];
    size_t n = 0;
    for (; n < RUI_LISTENER_SLOTS && lc[n].is_valid; ++n) {
        ZASSERT(cb->new_rq && cb->rm_rq);
        rui_socket_ctx* s = &srv[n];
        int rc = 0;
        s->requests = dlep_create(&rc);
        if (!s->requests) {
            zlogf(L_ERR, "%s: dlep_create() failed rc=%d\n", rc);
            return rc ? rc : -1;
        }
        rc = xv_reserve<void*>(&s->pprm, PPRM_INITIAL, PPRM_GROWTH);
        if (rc != 0) {
            zlogf(L_ERR, "%s: xvlst_reserve() failed rc=%d\n", rc);
            dlep_destroy(s->requests, nullptr);
            s->requests = nullptr;
            return rc;
        }
        set_tag32(&s->tag, "Rsc");
        s->sockfd = -1;
        s->lc = &lc[n];
        s->rqtag = cb->tag;
        s->cb = cb;
    }
    if (n > 0)
        zlogf(L_INFO, "%s: %lu [%s] listeners set up\n", n, rui_type_name(type));
    return 0;
}

// After a failed start, names every set-up listener left without a socket: the walk stops at the
// first failure, and an operator should not have to guess which of the others were never tried.
static void log_unstarted(const rui_ctx* ctx)
{
    const rui_socket_ctx* types[RUI_MAX] = {ctx->user, ctx->admin, ctx->custom};
    for (int type = 0; type < RUI_MAX; ++type)
        for (size_t i = 0; i < RUI_LISTENER_SLOTS && is_set_up(&types[type][i]); ++i)
            if (types[type][i].sockfd < 0)
                zlog(L_ERR, "%s: [%s] listener[%s] not started\n", "rui_ctx_start",
                     rui_type_name(type), alias_of(&types[type][i]));
}

int rui_ctx_start(rui_ctx* ctx)
{
    int rc = rui_enable_listeners(ctx->user);
    if (rc == 0)
        rc = rui_enable_listeners(ctx->admin);
    if (rc == 0)
        rc = rui_enable_listeners(ctx->custom);
    if (rc != 0)
        log_unstarted(ctx);
    return rc;
}

int rui_enable_listeners(rui_socket_ctx* srv)
{
    size_t n = 0;
    for (; n < RUI_LISTENER_SLOTS && is_set_up(&srv[n]); ++n) {
        const int rc = rui_start_listener(srv[n].lc, &srv[n]);
        if (rc != 0)
            return rc;
    }
    // A type without listeners has nothing to report.
    if (n > 0)
        zlogf(L_INFO, "%s: %lu [%s] listener(s) started\n", n, rui_type_name(slot_type(srv)));
    return 0;
}

// A wildcard address of `af` (IPv4 unless IPv6 is asked for) for a UDP listener without an
// interface.
static sockaddr_storage any_address(int af)
{
    sockaddr_storage ss{};
    if (af == AF_INET6) {
        auto* s6 = reinterpret_cast<sockaddr_in6*>(&ss);
        s6->sin6_family = AF_INET6;
        s6->sin6_addr = in6addr_any;
    } else {
        auto* s4 = reinterpret_cast<sockaddr_in*>(&ss);
        s4->sin_family = AF_INET;
        s4->sin_addr.s_addr = htonl(INADDR_ANY);
    }
    return ss;
}

int rui_start_listener(rui_listener_cfg* cfg, rui_socket_ctx* srv)
{
    ZASSERT(srv->rqtag.num && srv->cb->new_rq && srv->cb->rm_rq);
    ZASSERT(-1 == srv->sockfd);
    srv->lc = cfg;

    const char* place = cfg->ifc ? cfg->ifc->name : "all";
    const char* port = cfg->port;
    int fd;
    if (cfg->domain_path[0]) {
        place = cfg->domain_path;
        port = "";
        fd = open_domain_listener(cfg->domain_path);
    } else if (cfg->proto == IPPROTO_UDP) {
        const sockaddr_storage ss = cfg->ifc ? cfg->ifc->ss : any_address(cfg->pref_af);
        fd = open_udp_listener(&ss, cfg->port);
    } else if (cfg->ifc) {
        fd = open_listener(&cfg->ifc->ss, cfg->port, 0);
    } else {
        fd = open_anyaddr_listener(cfg->pref_af, cfg->port, 0);
    }

    // The sockets are made listening with the built-in backlog; a configured one is set by
    // listening again, which the kernel takes as a change of the queue's length (it caps the
    // length at net.core.somaxconn).
    if (fd >= 0 && cfg->proto != IPPROTO_UDP && cfg->backlog &&
        cfg->backlog != RUI_DEFAULT_BACKLOG && W_listen(__func__, fd, cfg->backlog) != 0) {
        W_close(__func__, fd);
        fd = -1;
    }
    if (fd >= 0 && rqs_add_reader(fd, srv) == 0) {
        srv->sockfd = fd;
        srv->deferred = false;
        zlog(L_INFO, "STARTED listener fd%d for %s requests on %s:%s; %lu requests pending\n", fd,
             srv->rqtag.sym4, place, port, queued(srv));
        return 0;
    }
    if (fd >= 0)
        W_close(__func__, fd);
    srv->sockfd = -1;
    zlogf(L_ERR, "%s: failed to start %s listener\n", srv->rqtag.sym4);
    return -1;
}

// Takes a paused listener out of the back-off; it is registered for reading again only when
// `rearm`.
static void end_pause(rui_socket_ctx* srv, bool rearm)
{
    if (!srv->paused)
        return;
    srv->paused = false;
    rm_timeout(RUI_PAUSE_TMOUT);
    if (rearm && rqs_mod(srv->sockfd, srv, RQS_READ) != 0)
        zlogf(L_ERR, "%s: cannot resume accepting on [%s] fd%d\n", alias_of(srv), srv->sockfd);
}

void rui_stop_listener(rui_socket_ctx* srv)
{
    // Descriptor 0 is a valid listener: a daemon closes its standard input before listening.
    if (srv->sockfd < 0)
        return;
    end_pause(srv, false);
    ZASSERT(0 == srv->deferred && srv->sockfd >= 0);
    if (const size_t n = queued(srv); n > 0)
        zlog(L_WARN, "%s listener fd%d wll be closed (%lu requsts queued)\n", srv->rqtag.sym4,
             srv->sockfd, n);
    rqs_rm_fd(srv->sockfd, true, false);
    W_close(__func__, srv->sockfd);
    srv->sockfd = -1;
    srv->deferred = true;
}

void drop_listener(rui_socket_ctx* srv)
{
    if (!srv->tag.num)
        return;
    rui_stop_listener(srv);
    if (srv->requests) {
        // Oldest first; each removal unlinks the request, so the tail moves on.
        while (void* p = dlep_tail(srv->requests))
            rui_rm_request(p);
        dlep_destroy(srv->requests, nullptr);
        srv->requests = nullptr;
    }
    if (srv->lc) {
        free(srv->lc->ifc);
        srv->lc->ifc = nullptr;
        srv->lc->is_valid = false;
    }
    xvlst_reset(&srv->pprm);
    srv->tag.num = 0;
}

int stop_listeners(rui_socket_ctx* srv, bool destroy)
{
    const int type = slot_type(srv);
    size_t n = 0;
    for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i) {
        if (!srv[i].tag.num)
            continue;
        if (destroy)
            drop_listener(&srv[i]);
        else
            rui_stop_listener(&srv[i]);
        ++n;
    }
    if (n > 0)
        zlogf(L_INFO, "%s: %lu [%s] listener(s) %s\n", n, rui_type_name(type),
              destroy ? "destroyed" : "stopped");
    return static_cast<int>(n);
}

void rui_ctx_destroy(rui_ctx* ctx)
{
    stop_listeners(ctx->user, true);
    stop_listeners(ctx->admin, true);
    stop_listeners(ctx->custom, true);
}

// For network peers the low-water mark and optionally TCP_NODELAY, then the request; the socket
// was accepted non-blocking. 0, or the first failing step's result. Messages go out under the
// name of `who`.
static int setup_connection(const char* who, int fd, int family, rui_socket_ctx* srv,
                            uint32_t flags, void* data)
{
    // accept4 made the socket non-blocking, which saves two fcntl calls per request; the line
    // set_nblock wrote then is kept for those who read the debug log.
    zlog(L_DEBUG, "%s: fd%d set as %sblocking\n", "set_nblock", fd, "non-");
    int rc = 0;
    if (family == AF_INET || family == AF_INET6) {
        // Readiness is reported only once a request line can plausibly be parsed.
        const int lowat = RUI_LOW_WMARK;
        rc = W_setsockopt(who, fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
        if (rc == 0)
            zlog(L_DEBUG, "%s: low watermark set to %d for fd=%d\n", who, lowat, fd);
        if (rc == 0 && (flags & RUI_TCP_NODELAY))
            rc = set_tcp_nodelay(fd, 1);
    }
    if (rc == 0)
        rc = rui_add_request(fd, srv, data);
    return rc;
}

// A datagram listener has no connections to accept, and a datagram left in its queue would make
// the level-triggered loop report the listener on every pass. So what arrives is read and dropped,
// at most `max` datagrams per readiness event as with connections, and one warning per event names
// the count and the last sender. Messages go out under the name of `who`.
static void drop_datagrams(const char* who, const rui_socket_ctx* srv, const char* alias,
                           size_t max)
{
    size_t dropped = 0;
    sockaddr_storage peer{};
    socklen_t plen = 0;
    while (!g_quit && dropped < max) {
        char byte;
        socklen_t len = sizeof peer;
        // One byte is enough to take the whole datagram off the queue.
        const ssize_t n = recvfrom(srv->sockfd, &byte, 1, MSG_DONTWAIT | MSG_TRUNC,
                                   reinterpret_cast<sockaddr*>(&peer), &len);
        if (n < 0) {
            const int err = errno;
            if (err == EINTR)
                continue;
            // A failed receive has taken a pending socket error with it, so the loop is quiet.
            if (err != EAGAIN && err != EWOULDBLOCK)
                zlog(L_ERR, "%s(%s): recvfrom(%d) ERROR(%d): %s\n", who, alias, srv->sockfd, err,
                     strerror(err));
            break;
        }
        plen = len;
        ++dropped;
    }
    if (dropped == 0)
        return;
    char ptext[INET6_ADDRSTRLEN + 128];
    const char* shown = saddr_str(reinterpret_cast<sockaddr*>(&peer), plen, ptext, sizeof ptext);
    zlog(L_WARN, "%s(%s): %zu datagram(s) dropped, the last from %s: a datagram listener takes no "
                 "requests\n",
         who, alias, dropped, shown ? shown : "?");
}

// One warning a second at most while descriptors run out, however often accept() fails: the
// count of failures not logged goes out with the next warning.
static void log_out_of_fds(const char* who, const char* alias, int err)
{
    static rate_gate gate;
    static constexpr timespec interval = {1, 0};
    unsigned long suppressed = 0;
    if (!rate_gate_pass(&gate, &interval, &suppressed))
        return;
    zlog(L_WARN, "%s(%s): accept() ERROR(%d): %s; not accepting for %d ms (%lu such errors "
                 "suppressed)\n",
         who, alias, err, strerror(err), RUI_ACCEPT_BACKOFF_MS, suppressed);
}

// Out of descriptors the pending connection stays in the kernel's queue, and a level-triggered
// listener would be reported again at once: it is parked (only hang-up and errors reported) until
// the back-off is over.
static void pause_listener(rui_socket_ctx* srv)
{
    if (srv->paused)
        return;
    if (rqs_mod(srv->sockfd, srv, 0) != 0)
        return;
    static constexpr long ns_per_ms = 1000000L;
    srv->resume_tm = *rqs_now_ref();
    srv->resume_tm.tv_nsec += RUI_ACCEPT_BACKOFF_MS * ns_per_ms;
    srv->resume_tm.tv_sec += srv->resume_tm.tv_nsec / 1000000000L;
    srv->resume_tm.tv_nsec %= 1000000000L;
    srv->paused = true;
    set_timeout(RUI_PAUSE_TMOUT, RUI_ACCEPT_BACKOFF_MS);
}

void rui_resume_listeners(rui_ctx* ctx)
{
    rui_socket_ctx* const types[RUI_MAX] = {ctx->user, ctx->admin, ctx->custom};
    static constexpr timespec zero = {0, 0};
    for (rui_socket_ctx* srv : types)
        for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i)
            if (srv[i].paused && timed_out(&srv[i].resume_tm, &zero))
                end_pause(&srv[i], true);
}

// A client turned away because the listener is full learns it and when to try again, instead of
// a close without a word. The connection is new, so the short answer fits its empty send buffer;
// what the client sent already is read first, as a close with unread data would reset the
// connection and could destroy the answer before the client reads it.
static void answer_busy(int fd)
{
    static constexpr char busy[] = "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 1\r\n"
                                   "Content-Length: 0\r\nConnection: close\r\n\r\n";
    char sink[1024];
    for (int i = 0; i < 8 && recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0; ++i) {
    }
    if (send(fd, busy, sizeof busy - 1, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        const int err = errno;
        zlogf(L_INFO, "%s: send(fd%d) ERROR(%d): %s\n", fd, err, strerror(err));
    }
    (void)shutdown(fd, SHUT_WR);
}

static const acl_list* g_client_filter;

void rui_set_client_filter(const acl_list* allowed)
{
    g_client_filter = allowed && !acl_is_empty(allowed) ? allowed : nullptr;
}

bool rui_client_admitted(const char* who, const char* what, const sockaddr* peer, socklen_t plen,
                         rate_gate* gate)
{
    if (!g_client_filter || peer->sa_family == AF_UNIX || acl_match_addr(g_client_filter, peer))
        return true;
    // A flood from a scanner must not flood the log: one line a second names the last peer and
    // the count held back.
    static constexpr timespec interval = {1, 0};
    unsigned long held = 0;
    if (rate_gate_pass(gate, &interval, &held)) {
        char ptext[INET6_ADDRSTRLEN + 128];
        const char* shown = saddr_str(const_cast<sockaddr*>(peer), plen, ptext, sizeof ptext);
        zlog(L_WARN, "%s: %s from %s refused: not an allowed client (%lu more refused before)\n",
             who, what, shown ? shown : "?", held);
    }
    return false;
}

static bool is_datagram_listener(const rui_socket_ctx* srv)
{
    return srv->lc && !srv->lc->domain_path[0] && srv->lc->proto == IPPROTO_UDP;
}

int rui_accept(rui_socket_ctx* srv, size_t max_accept, uint32_t flags, void* data)
{
    const char* alias = alias_of(srv);
    zlogf(L_DEBUG, "%s: from [%s]\n", alias);
    if (is_datagram_listener(srv)) {
        drop_datagrams(__func__, srv, alias, max_accept);
        return 0;
    }
    size_t accepted = 0;
    size_t refused = 0;
    int rc = 0;
    while (!g_quit && max_accept > 0 && accepted + refused < max_accept) {
        sockaddr_storage peer{};
        static_assert(sizeof peer == 128);
        socklen_t plen = sizeof peer;
        const int fd = W_accept4(__func__, srv->sockfd, reinterpret_cast<sockaddr*>(&peer), &plen,
                                 SOCK_NONBLOCK);
        if (fd < 0) {
            const int err = errno;
            if (err == EINTR) {
                if (g_quit)
                    break;
                continue;
            }
            if (err == EAGAIN || err == EWOULDBLOCK) {
                zlog(L_DEBUG, "%s(%s): end of accept queue reached\n", __func__, alias);
                break;
            }
            if (err == ECONNABORTED || err == ECONNRESET) {
                zlog(L_INFO, "%s(%s): connection aborted/reset before accept()\n", __func__, alias);
                continue;
            }
            if (err == EMFILE || err == ENFILE) {
                log_out_of_fds(__func__, alias, err);
                pause_listener(srv);
            }
            break;
        }
        // A refused peer is closed before anything is read or allocated for it, without an
        // answer that would tell a scanner more than the closed connection does.
        static rate_gate gate;
        if (!rui_client_admitted(__func__, "connection", reinterpret_cast<sockaddr*>(&peer), plen,
                                 &gate)) {
            W_close(__func__, fd);
            ++refused;
            continue;
        }
        char ptext[INET6_ADDRSTRLEN + 128];
        const char* shown = saddr_str(reinterpret_cast<sockaddr*>(&peer), plen, ptext, sizeof ptext);
        if (!shown)
            shown = "?";
        zlog(L_INFO, "Accepted %s request [fd=%d] from %s\n", alias, fd, shown);

        rc = setup_connection(__func__, fd, peer.ss_family, srv, flags, data);
        if (rc != 0) {
            zlog(L_ERR, "Error rc=%d processing connection [%s] fd=%d\n", rc, shown, fd);
            if (rc == EBUSY) {
                answer_busy(fd);
                ++srv->busy_refused;
            }
            W_close(__func__, fd);
            continue;
        }
        ++accepted;
    }
    // The rest waits in the kernel's queue; listeners are level-triggered, so the next pass
    // takes it.
    if (accepted >= max_accept)
        zlog(L_WARN, "%s(%s): CANNOT ACCEPT ALL (accepted=%ld), max=%lu\n", __func__, alias,
             static_cast<long>(accepted), max_accept);
    return rc;
}

size_t rui_queue_room(const rui_socket_ctx* srv)
{
    const size_t n = queued(srv);
    const size_t limit = srv->lc && srv->lc->max_queued ? srv->lc->max_queued : MAX_RUI_QUEUED;
    return n < limit ? limit - n : 0;
}

int rui_add_request(int fd, rui_socket_ctx* srv, void* data)
{
    const size_t n = queued(srv);
    if (rui_queue_room(srv) == 0) {
        zlogf(L_ERR, "%s: Too many user requests (%lu) queued\n", n);
        return EBUSY;
    }
    ZASSERT(srv->cb);
    void* p = srv->cb->new_rq(fd, srv, data);
    if (!p)
        return -1;
    auto* rqh = static_cast<rui_rq_header*>(p);
    rqh->srv = srv;
    rqh->fd = fd;
    rqh->prev = rqh->next = nullptr;

    if (!dlep_append(srv->requests, p)) {
        zlogf(L_ERR, "%s: failed to queue [%s] request [%p]\n", srv->rqtag.sym4, p);
        // The caller closes the descriptor; the request must not refer to it any more.
        rqh->fd = -1;
        srv->cb->rm_rq(p);
        return -1;
    }

    bool marked = false;
    if (fits_fdset(fd)) {
        if (FD_ISSET(fd, &srv->accset)) {
            zlogf(L_ERR, "%s: socket fd=%d is already marked queued\n", fd);
        } else {
            FD_SET(fd, &srv->accset);
            marked = true;
        }
    }

    const int rc = rqs_add_reader(fd, p);
    if (rc != 0) {
        zlogf(L_ERR, "%s: failed to add fd=%d to the monitored set\n", fd);
        // Undo the queueing: the caller closes the descriptor, so a request left behind would
        // later close whatever reuses that number.
        if (marked)
            FD_CLR(fd, &srv->accset);
        dlep_rm(srv->requests, p);
        rqh->fd = -1;
        srv->cb->rm_rq(p);
        return rc;
    }
    zlogf(L_INFO, "%s: OK for fd=%d, rq=%p\n", fd, p);
    return 0;
}

void rui_detach_fd(void* rq)
{
    auto* rqh = static_cast<rui_rq_header*>(rq);
    const int fd = rqh->fd;
    if (fd < 0)
        return;
    if (fits_fdset(fd))
        FD_CLR(fd, &rqh->srv->accset);
    if (rqs_rm_fd(fd, true, false) != 0)
        zlogf(L_ERR, "%s: failed to remove fd=%d from the monitored set.\n", fd);
    rqh->fd = -1;
}

// Removes a request at once. `from_pprm` is set when the post-processing removal is emptying the
// pprm list itself; otherwise a pending pprm entry for the request is dropped first, so that the
// scheduled removal never touches the freed request.
static void rm_request(void* p, bool from_pprm)
{
    auto* rqh = static_cast<rui_rq_header*>(p);
    ZASSERT(rqh->srv->cb);
    rui_socket_ctx* srv = rqh->srv;
    const int fd = rqh->fd;
    if (fits_fdset(fd))
        FD_CLR(fd, &srv->accset);
    if (fd >= 0 && rqs_rm_fd(fd, true, false) != 0)
        zlogf(L_ERR, "%s: failed to remove fd=%d from the monitored set.\n", fd);

    if (!from_pprm && srv->pprm.len > 0) {
        size_t pos = 0;
        if (xvlst_find(&srv->pprm, p, match_ptr, &pos)) {
            xvlst_del(&srv->pprm, pos, nullptr);
            zlogf(L_DEBUG, "%s: removed (%p) from PPRM\n", p);
        }
    }

    if (!srv->requests || !in_queue(srv->requests, rqh)) {
        zlogf(L_ERR, "%s: failed to remove %s request [%p] from queue\n", srv->rqtag.sym4, p);
        return;
    }
    dlep_rm(srv->requests, p);
    if (fd >= 0) {
        W_close(__func__, fd);
        rqh->fd = -1;
    }
    srv->cb->rm_rq(p);
    zlogf(L_INFO, "%s: OK for fd=%d rq=%p\n", fd, p);
}

void rui_rm_request(void* p)
{
    rm_request(p, false);
}

int rui_pprm_request(void* rq)
{
    auto* rqh = static_cast<rui_rq_header*>(rq);
    rui_socket_ctx* srv = rqh->srv;
    ZASSERT(srv);
    size_t pos = 0;
    if (srv->pprm.len > 0 && xvlst_find(&srv->pprm, rq, match_ptr, &pos)) {
        zlogf(L_WARN, "%s: %s [%s] (%p) is already PPRM-ed\n", alias_of(srv), rqh->trk_tag.sym8,
              rq);
        return EEXIST;
    }
    if (xv_push<void*>(&srv->pprm, rq, PPRM_GROWTH) < 0) {
        zlogf(L_ERR, "%s: cannot schedule (%p) for removal\n", rq);
        return -1;
    }
    return 0;
}

// Empties the pprm list of one slot, logging under the name of `who`. Each entry leaves the list
// before its request is removed, and the list is re-read on every step, so an rm_rq callback may
// itself remove or schedule other requests.
static void pprm_slot(const char* who, rui_socket_ctx* srv, int type)
{
    zlog(L_DEBUG, "%s: [%s] listener[%s], %zu pprm items\n", who, rui_type_name(type),
         alias_of(srv), srv->pprm.len);
    for (size_t j = 0; srv->pprm.len > 0 && j <= srv->pprm.last; ++j) {
        if (!srv->pprm.taken[j])
            continue;
        void* p = xv_at<void*>(&srv->pprm, j)[0];
        xvlst_del(&srv->pprm, j, nullptr);
        zlog(L_DEBUG, "%s: %s [%s] (%p) j=%ld\n", who, alias_of(srv),
             static_cast<rui_rq_header*>(p)->trk_tag.sym8, p, static_cast<long>(j));
        rm_request(p, true);
    }
    zlog(L_DEBUG, "%s: done for for [%s]\n", who, alias_of(srv));
}

void rui_pprm_all(rui_ctx* ctx)
{
    rui_socket_ctx* const types[RUI_MAX] = {ctx->user, ctx->admin, ctx->custom};
    for (int t = 0; t < RUI_MAX; ++t) {
        rui_socket_ctx* srv = types[t];
        if (!is_set_up(&srv[0]))
            continue;
        for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i)
            if (is_set_up(&srv[i]) && srv[i].requests)
                pprm_slot(__func__, &srv[i], t);
    }
}

void rui_tmout_all(rui_ctx* ctx, u_int tmout_ms)
{
    rui_socket_ctx* const types[RUI_MAX] = {ctx->user, ctx->admin, ctx->custom};
    for (rui_socket_ctx* srv : types) {
        if (!is_set_up(&srv[0]))
            continue;
        size_t n = 0;
        for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i) {
            rui_socket_ctx* s = &srv[i];
            if (!is_set_up(s) || !s->requests)
                continue;
            ZASSERT(s->cb->time_out);
            // The link is read before the call, so a callback that breaks the rules and removes
            // its request does not make the walk read freed memory.
            for (auto* rq = dlep_tail_as<rui_rq_header>(s->requests); rq;) {
                rui_rq_header* next = rq->next;
                if (s->cb->time_out(rq, tmout_ms))
                    ++n;
                rq = next;
            }
        }
        if (n > 0)
            zlogf(L_WARN, "%s: %lu [%s] requests timed out\n", n, alias_of(&srv[0]));
        else
            zlogf(L_DEBUG, "%s: no time-outs for [%s]\n", alias_of(&srv[0]));
    }
}

void rui_mk_trknum(size_t* count, n64_tag* tag, char pfx, size_t max)
{
    if (*count >= max) {
        *count = 0;
        zlogf(L_INFO, "%s: rolling over %c-requests\n", pfx);
    }
    ++*count;
    tag->num = 0;
    tag->sym8[0] = pfx;
    // Five digits and the terminator fit after the prefix; a longer number is cut.
    const int n = snprintf(tag->sym8 + 1, 6, "%04lu", *count);
    ZASSERT(n >= 1 && n <= 6);
}

void rui_crash_on_error(rui_socket_ctx* rsc, bool is_hup)
{
    const int err = socket_error(rsc->sockfd);
    log_abort("%s: %s listener[%s] ERROR(%d): %s\n", __func__, is_hup ? "HUP" : "",
              alias_of(rsc), err, strerror(err));
}

bool rui_should_listen(rui_socket_ctx* srv, size_t max_req)
{
    const size_t n = queued(srv);
    // Exact three quarters, without rounding max_req * 3 / 4 down to nothing for small limits.
    const bool ok = 4 * n < 3 * max_req && n < max_req;
    if (ok && srv->deferred)
        zlogf(L_INFO, "%s: %s (%lu requsts queued)\n", alias_of(srv), n);
    return ok;
}
