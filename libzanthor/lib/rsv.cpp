// Host names resolved on the event loop with c-ares: its sockets are registered as loop handlers,
// its time-outs and our own per-lookup deadline run on one timer, and answers are handed out from
// that timer, never from inside the call that asked.
#include "rsv.h"

#include <arpa/inet.h>
#include <ares.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ioh.h"
#include "log.h"
#include "rqs.h"

LOG_MODULE(0, -1);

namespace {

constexpr size_t HOST_MAX = 256;
// c-ares keeps a socket or two per name server; more than this many at once is not expected.
constexpr size_t MAX_SOCKS = 32;

struct lookup;

struct waiter {
    waiter* next;
    lookup* lk;
    rsv_done_fn fn;
    void* arg;
};

struct lookup {
    lookup* next;      // in the list of names under way
    char host[HOST_MAX];
    waiter* waiters;   // in arrival order
    long deadline_ms;  // monotonic
    bool listed;       // in the list of names under way (joinable)
    bool done;         // the result is in, to be handed out
    bool in_ares;      // c-ares still owes its callback
    int status;
    char addrs[RSV_MAX_ADDRS][INET6_ADDRSTRLEN];
    size_t naddrs;
};

struct resolver {
    bool on;
    ares_channel channel;
    long tmout_ms;
    ioh_rec timer;
    ioh_rec socks[MAX_SOCKS];
    lookup* lookups;
    size_t nlookups;
};

resolver g_rsv;

long mono_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void arm(long ms)
{
    (void)ioh_timer_arm(&g_rsv.timer, ms);
}

// Wakes the timer no later than c-ares's next time-out or the nearest lookup deadline.
void rearm()
{
    long next = -1;
    timeval tv;
    if (ares_timeout(g_rsv.channel, nullptr, &tv))
        next = static_cast<long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000 + 1;
    const long now = mono_ms();
    for (const lookup* lk = g_rsv.lookups; lk; lk = lk->next) {
        const long left = lk->done ? 0 : (lk->deadline_ms > now ? lk->deadline_ms - now : 0);
        if (next < 0 || left < next)
            next = left;
    }
    arm(next);
}

void unlist(lookup* lk)
{
    for (lookup** p = &g_rsv.lookups; *p; p = &(*p)->next) {
        if (*p == lk) {
            *p = lk->next;
            lk->next = nullptr;
            lk->listed = false;
            g_rsv.nlookups -= 1;
            return;
        }
    }
}

// Hands the result of a finished lookup to its waiters; the record goes unless c-ares still owes
// its callback.
void deliver(lookup* lk)
{
    unlist(lk);
    const char* addrs[RSV_MAX_ADDRS];
    const size_t n = lk->status == 0 ? lk->naddrs : 0;
    for (size_t i = 0; i < n; ++i)
        addrs[i] = lk->addrs[i];
    while (waiter* w = lk->waiters) {
        lk->waiters = w->next;
        const rsv_done_fn fn = w->fn;
        void* arg = w->arg;
        free(w);
        fn(arg, lk->status, addrs, n);
    }
    if (!lk->in_ares)
        free(lk);
}

int map_status(int status)
{
    switch (status) {
    case ARES_SUCCESS:
        return 0;
    case ARES_ENOTFOUND:
    case ARES_ENODATA:
    case ARES_ENONAME:
        return ENOENT;
    case ARES_ETIMEOUT:
        return ETIMEDOUT;
    default:
        return EIO;
    }
}

void on_ares(void* arg, int status, int, ares_addrinfo* res)
{
    auto* lk = static_cast<lookup*>(arg);
    lk->in_ares = false;
    if (!lk->listed && lk->done) {
        // Answered after its deadline: the waiters have had their time-out already.
        if (res)
            ares_freeaddrinfo(res);
        free(lk);
        return;
    }
    if (status == ARES_EDESTRUCTION) {
        if (res)
            ares_freeaddrinfo(res);
        return; // rsv_destroy() frees the records
    }
    int st = map_status(status);
    lk->naddrs = 0;
    for (const ares_addrinfo_node* node = res ? res->nodes : nullptr;
         node && lk->naddrs < RSV_MAX_ADDRS; node = node->ai_next) {
        const void* bin = nullptr;
        if (node->ai_family == AF_INET)
            bin = &reinterpret_cast<const sockaddr_in*>(node->ai_addr)->sin_addr;
        else if (node->ai_family == AF_INET6)
            bin = &reinterpret_cast<const sockaddr_in6*>(node->ai_addr)->sin6_addr;
        char* text = lk->addrs[lk->naddrs];
        if (!bin || !inet_ntop(node->ai_family, bin, text, INET6_ADDRSTRLEN))
            continue;
        bool seen = false;
        for (size_t i = 0; i < lk->naddrs && !seen; ++i)
            seen = strcmp(lk->addrs[i], text) == 0;
        if (!seen)
            lk->naddrs += 1;
    }
    if (st == 0 && lk->naddrs == 0)
        st = ENOENT;
    if (st == 0)
        zlog(L_DEBUG, "%s: [%s] -> %s (%zu address%s)\n", "rsv_lookup", lk->host, lk->addrs[0],
             lk->naddrs, lk->naddrs == 1 ? "" : "es");
    else
        zlog(L_ERR, "%s: [%s] did not resolve: %s\n", "rsv_lookup", lk->host,
             status == ARES_SUCCESS ? "no address" : ares_strerror(status));
    if (res)
        ares_freeaddrinfo(res);
    lk->status = st;
    lk->done = true;
    // Handed out from the timer: c-ares may call back from inside ares_getaddrinfo().
    arm(0);
}

ioh_rec* sock_rec(int fd, bool make)
{
    ioh_rec* spare = nullptr;
    for (ioh_rec& h : g_rsv.socks) {
        if (h.fd == fd)
            return &h;
        if (h.fd < 0 && !spare)
            spare = &h;
    }
    return make ? spare : nullptr;
}

int on_sock(ioh_rec* h, int what, int)
{
    const int fd = h->fd;
    ares_process_fd(g_rsv.channel, what != RQS_WRITE ? fd : ARES_SOCKET_BAD,
                    what == RQS_WRITE ? fd : ARES_SOCKET_BAD);
    rearm();
    return 0;
}

void on_sock_state(void*, ares_socket_t fd, int readable, int writable)
{
    const int want = (readable ? RQS_READ : 0) | (writable ? RQS_WRITE : 0);
    ioh_rec* h = sock_rec(fd, want != 0);
    if (!h) {
        if (want)
            zlog(L_ERR, "%s: no room for resolver socket fd%d\n", "rsv_sock", fd);
        return;
    }
    if (h->fd < 0)
        ioh_init(h, fd, on_sock, nullptr);
    (void)ioh_want(h, want);
    // A socket c-ares closes is dropped from the loop here, before its close; the slot is reused.
    if (!want)
        h->fd = -1;
}

int on_timer(ioh_rec*, int, int)
{
    ares_process_fd(g_rsv.channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    const long now = mono_ms();
    for (lookup* lk = g_rsv.lookups; lk;) {
        lookup* next = lk->next;
        if (!lk->done && now >= lk->deadline_ms) {
            zlog(L_ERR, "%s: [%s] did not resolve: no answer within %ld ms\n", "rsv_lookup",
                 lk->host, g_rsv.tmout_ms);
            lk->status = ETIMEDOUT;
            lk->done = true;
        }
        // The list may change under the waiters' calls: start again after each delivery.
        if (lk->done) {
            deliver(lk);
            next = g_rsv.lookups;
        }
        lk = next;
    }
    rearm();
    return 0;
}

} // namespace

bool rsv_is_numeric(const char* host)
{
    unsigned char buf[sizeof(in6_addr)];
    return inet_pton(AF_INET, host, buf) == 1 || inet_pton(AF_INET6, host, buf) == 1;
}

int rsv_init(long tmout_ms)
{
    ZASSERT(!g_rsv.on);
    int rc = ares_library_init(ARES_LIB_INIT_ALL);
    if (rc != ARES_SUCCESS) {
        zlogf(L_ERR, "%s: ares_library_init ERROR(%d): %s\n", rc, ares_strerror(rc));
        return -1;
    }
    ares_options opts{};
    opts.sock_state_cb = on_sock_state;
    // c-ares's own retries end within the lookup's time-out too, so a dead server is not asked
    // for long after its waiters gave up.
    opts.timeout = static_cast<int>(tmout_ms / 2 > 0 ? tmout_ms / 2 : 1);
    opts.tries = 2;
    char lookups[] = "fb"; // /etc/hosts first, then the name servers
    opts.lookups = lookups;
    rc = ares_init_options(&g_rsv.channel, &opts,
                           ARES_OPT_SOCK_STATE_CB | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES |
                               ARES_OPT_LOOKUPS);
    if (rc != ARES_SUCCESS) {
        zlogf(L_ERR, "%s: ares_init_options ERROR(%d): %s\n", rc, ares_strerror(rc));
        ares_library_cleanup();
        return -1;
    }
    for (ioh_rec& h : g_rsv.socks)
        h.fd = -1;
    if (ioh_timer_open(&g_rsv.timer, on_timer, nullptr) != 0) {
        ares_destroy(g_rsv.channel);
        ares_library_cleanup();
        return -1;
    }
    g_rsv.tmout_ms = tmout_ms;
    g_rsv.on = true;
    zlogf(L_DEBUG, "%s: lookups time out after %ld ms\n", tmout_ms);
    return 0;
}

rsv_wait* rsv_lookup(const char* host, rsv_done_fn fn, void* arg)
{
    if (!g_rsv.on) {
        zlogf(L_ERR, "%s: the resolver is not running\n");
        return nullptr;
    }
    if (strlen(host) >= HOST_MAX) {
        zlogf(L_ERR, "%s: host name too long: %zu\n", strlen(host));
        return nullptr;
    }
    lookup* lk = g_rsv.lookups;
    while (lk && (lk->done || strcmp(lk->host, host) != 0))
        lk = lk->next;
    if (lk) {
        zlogf(L_DEBUG, "%s: [%s] joins the lookup under way\n", host);
    } else {
        lk = static_cast<lookup*>(calloc(1, sizeof(lookup)));
        if (!lk)
            log_abort("%s: out of memory\n", __func__);
        snprintf(lk->host, sizeof(lk->host), "%s", host);
        lk->deadline_ms = mono_ms() + g_rsv.tmout_ms;
        // Appended: answers are handed out in the order the names were asked for.
        lookup** tail = &g_rsv.lookups;
        while (*tail)
            tail = &(*tail)->next;
        *tail = lk;
        lk->listed = true;
        g_rsv.nlookups += 1;
        lk->in_ares = true;
        ares_addrinfo_hints hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        zlogf(L_DEBUG, "%s: [%s] looked up\n", host);
        ares_getaddrinfo(g_rsv.channel, host, nullptr, &hints, on_ares, lk);
    }
    auto* w = static_cast<waiter*>(calloc(1, sizeof(waiter)));
    if (!w)
        log_abort("%s: out of memory\n", __func__);
    w->lk = lk;
    w->fn = fn;
    w->arg = arg;
    waiter** tail = &lk->waiters;
    while (*tail)
        tail = &(*tail)->next;
    *tail = w;
    rearm();
    return reinterpret_cast<rsv_wait*>(w);
}

void rsv_cancel(rsv_wait* handle)
{
    auto* w = reinterpret_cast<waiter*>(handle);
    if (!w)
        return;
    for (waiter** p = &w->lk->waiters; *p; p = &(*p)->next) {
        if (*p == w) {
            *p = w->next;
            break;
        }
    }
    free(w);
}

size_t rsv_lookups_active()
{
    return g_rsv.nlookups;
}

void rsv_destroy()
{
    if (!g_rsv.on)
        return;
    // c-ares ends its queries (ARES_EDESTRUCTION) and closes its sockets through on_sock_state.
    ares_destroy(g_rsv.channel);
    while (lookup* lk = g_rsv.lookups) {
        g_rsv.lookups = lk->next;
        while (waiter* w = lk->waiters) {
            lk->waiters = w->next;
            free(w);
        }
        free(lk);
    }
    ioh_timer_close(&g_rsv.timer);
    ares_library_cleanup();
    g_rsv = resolver{};
}
