// The pool of idle keep-alive source connections: parking, taking, noticing a close by the source
// and expiring connections idle for too long.
#include "spool.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

#include "data.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"

LOG_MODULE(0, -1);

namespace {

struct spl_pool {
    spl_entry* slots;
    size_t max;
    size_t nidle; // slots holding an idle connection
    size_t ndead; // slots given away or closed in this pass
    long idle_ms;
};

spl_pool g_spl;

// The host[:port] part of an http:// URL, which names the source a connection may be reused for.
bool url_key(const char* url, char (&key)[SPL_KEY_LEN])
{
    const char* p = std::strstr(url, "://");
    p = p ? p + 3 : url;
    const size_t n = std::strcspn(p, "/?#");
    if (n == 0 || n >= sizeof(key))
        return false;
    std::memcpy(key, p, n);
    key[n] = '\0';
    return true;
}

// Gives the slot's connection up: closes it unless `keep_fd`, and leaves the slot for reuse after
// the pass, since an event of this pass may still carry the slot's address.
void release(spl_entry* e, bool keep_fd)
{
    if (!keep_fd) {
        (void)rqs_rm_fd(e->fd, true, false);
        (void)W_close(__func__, e->fd);
    }
    e->fd = -1;
    e->tag.sym4[0] = '#';
    --g_spl.nidle;
    ++g_spl.ndead;
    rm_timeout(SRC_POOL_TMOUT);
}

// A connection the source has not closed and on which it has sent nothing unasked.
bool is_quiet(int fd)
{
    char c;
    const ssize_t n = recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

} // namespace

int spl_init(size_t max, long idle_ms)
{
    g_spl = spl_pool{};
    if (!max)
        return 0;
    g_spl.slots = static_cast<spl_entry*>(calloc(max, sizeof(spl_entry)));
    if (!g_spl.slots) {
        zlogf(L_ERR, "%s: no memory for %zu slots\n", max);
        return -1;
    }
    for (size_t i = 0; i < max; ++i)
        g_spl.slots[i].fd = -1;
    g_spl.max = max;
    g_spl.idle_ms = idle_ms;
    return 0;
}

void spl_destroy()
{
    for (size_t i = 0; i < g_spl.max; ++i)
        if (g_spl.slots[i].fd >= 0)
            release(&g_spl.slots[i], false);
    free(g_spl.slots);
    g_spl = spl_pool{};
}

bool spl_on()
{
    return g_spl.max > 0;
}

size_t spl_count()
{
    return g_spl.nidle;
}

int spl_take(const char* url)
{
    char key[SPL_KEY_LEN];
    if (!g_spl.nidle || !url_key(url, key))
        return -1;
    for (size_t i = 0; i < g_spl.max && g_spl.nidle; ++i) {
        spl_entry* e = &g_spl.slots[i];
        if (e->fd < 0 || std::strcmp(e->key, key) != 0)
            continue;
        const int fd = e->fd;
        // A close by the source may not have been dispatched yet (it can be in this very pass).
        if (!is_quiet(fd)) {
            zlogf(L_INFO, "%s: idle connection fd%d to [%s] was closed by the source\n", fd, key);
            release(e, false);
            continue;
        }
        release(e, true);
        zlogf(L_DEBUG, "%s: reusing fd%d for [%s]\n", fd, key);
        return fd;
    }
    return -1;
}

bool spl_put(const char* url, int fd)
{
    char key[SPL_KEY_LEN];
    if (!g_spl.max || g_spl.nidle + g_spl.ndead >= g_spl.max || !url_key(url, key))
        return false;
    spl_entry* e = std::find_if(g_spl.slots, g_spl.slots + g_spl.max,
                                [](const spl_entry& s) { return s.fd < 0 && s.tag.sym4[0] != '#'; });
    if (e == g_spl.slots + g_spl.max)
        return false;
    set_tag32(&e->tag, "SPL");
    if (rqs_mod(fd, e, RQS_READ) != 0) {
        e->tag.num = 0;
        return false;
    }
    e->fd = fd;
    std::memcpy(e->key, key, sizeof(key));
    set_clk_now(&e->since, CLOCK_MONOTONIC);
    ++g_spl.nidle;
    // The loop must wake to expire the connection even when nothing else happens.
    set_timeout(SRC_POOL_TMOUT, std::max(1L, g_spl.idle_ms / 4));
    zlogf(L_DEBUG, "%s: fd%d idle for [%s], %zu in the pool\n", fd, key, g_spl.nidle);
    return true;
}

void spl_on_event(spl_entry* e)
{
    ZASSERT(e->tag.num == SPL_TAG && e->fd >= 0);
    zlogf(L_INFO, "%s: idle connection fd%d to [%s] was closed by the source\n", e->fd, e->key);
    release(e, false);
}

void spl_expire()
{
    if (!g_spl.nidle)
        return;
    const timespec tmo = {g_spl.idle_ms / 1000, (g_spl.idle_ms % 1000) * 1000000L};
    for (size_t i = 0; i < g_spl.max && g_spl.nidle; ++i) {
        spl_entry* e = &g_spl.slots[i];
        if (e->fd >= 0 && timed_out(&e->since, &tmo)) {
            zlogf(L_DEBUG, "%s: closing fd%d to [%s], idle for %ld ms\n", e->fd, e->key,
                  g_spl.idle_ms);
            release(e, false);
        }
    }
}

void spl_post_process()
{
    if (!g_spl.ndead)
        return;
    for (size_t i = 0; i < g_spl.max; ++i)
        if (g_spl.slots[i].tag.sym4[0] == '#')
            g_spl.slots[i].tag.num = 0;
    g_spl.ndead = 0;
}
