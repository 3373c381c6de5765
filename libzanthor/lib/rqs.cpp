// The event dispatcher: one level-triggered epoll loop per process, a table of no-poll
// pseudo-events for descriptors epoll cannot watch, and inotify file watches. All state lives in
// three static singletons; the loop is driven only from the main thread.
#include "rqs.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>

#include "log.h"
#include "syswrap.h"
#include "timeop.h"
#include "util.h"

LOG_MODULE(0, -1);

constexpr size_t NOPOLL_INIT = 20;
constexpr size_t NOPOLL_GROW = 10;
constexpr size_t EVENTS_GROW = 10;
constexpr size_t WATCH_MAP_CAPACITY = 1024;
constexpr uint32_t WATCH_MASK = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF |
                                IN_MOVE_SELF;
static_assert(WATCH_MASK == 0xc0e);

static rqs_config g_cfg;
static rqs_context g_rqs;
// Descriptors start closed: a shut-down after a start-up that failed before rqs_init must not
// close descriptor 0, which in a daemon is usually the log file.
static inotify_ctx g_ino = {{0}, -1, false, {}, nullptr, 0};

// The signals whose handlers only raise flags for the loop: quit and debug toggle. They stay
// blocked while the loop runs and are let in only inside the wait, which epoll_pwait does
// atomically. A signal that arrived after the loop looked at its flags is then still pending
// when the wait begins, and ends the wait at once, instead of setting a flag that a wait without
// time-out would never look at.
constexpr std::array<int, 4> LOOP_SIGNALS = {SIGTERM, SIGQUIT, SIGINT, SIGUSR2};
// The mask in force before the loop began: the mask of the wait, restored when the loop ends.
static sigset_t g_wait_mask;

static n32_tag ino_tag()
{
    n32_tag t;
    set_tag32(&t, "ino");
    return t;
}

// ---- clock --------------------------------------------------------------------------------------

const struct timespec* rqs_now_ref(void)
{
    return &g_rqs.itime;
}

struct timespec rqs_now(void)
{
    return g_rqs.itime;
}

void rqs_refresh_now(void)
{
    set_clk_now(&g_rqs.itime, CLOCK_MONOTONIC);
}

// ---- init / destroy -----------------------------------------------------------------------------

int rqs_init(const struct rqs_config* cfg)
{
    ZASSERT(cfg != nullptr);
    g_cfg = *cfg;
    g_rqs = rqs_context{};
    g_ino = inotify_ctx{};
    g_ino.fd = -1;

    g_rqs.loopfd = epoll_create(128);
    if (g_rqs.loopfd < 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: epoll_create1() ERROR(%d): %s\n", err, strerror(err));
        g_rqs.loopfd = -1;
        return -1;
    }
    // Descriptor 0 stands for "not initialised", yet a daemon that closed its standard input gets
    // it here: the loop's descriptor is moved above it.
    if (g_rqs.loopfd == 0) {
        const int fd = fcntl(0, F_DUPFD_CLOEXEC, 1);
        const int err = errno;
        (void)W_close(__func__, 0);
        if (fd < 0) {
            zlogf(L_ERR, "%s: fcntl(0, F_DUPFD_CLOEXEC, 1) ERROR(%d): %s\n", err, strerror(err));
            g_rqs.loopfd = -1;
            return -1;
        }
        g_rqs.loopfd = fd;
    }

    if (xv_reserve<nopoll_ref>(&g_rqs.nopoll, NOPOLL_INIT, NOPOLL_GROW) != 0 ||
        xv_reserve<ssize_t>(&g_rqs.nopoll_rm, NOPOLL_INIT, NOPOLL_GROW) != 0)
        log_abort("%s: cannot reserve memory for g_rqs.nopoll/rm\n", __func__);

    g_rqs.tmout.tv_sec = -1;
    g_rqs.tmout.tv_nsec = 0;

    g_ino.tag = ino_tag();
    g_ino.fd = inotify_init();
    if (g_ino.fd < 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: inotify_init1 ERROR(%d): %s\n", err, strerror(err));
        // Leave nothing open behind a failed start.
        rqs_destroy();
        return -1;
    }

    const int rc = nkht_create(&g_ino.wfd_ht, WATCH_MAP_CAPACITY, tw_shift);
    if (rc != 0) {
        zlogf(L_ERR, "%s: failed to create wfd/inotify lookup\n");
        rqs_destroy();
        return rc;
    }

    rqs_refresh_now();
    return 0;
}

void rqs_destroy(void)
{
    if (g_ino.fd >= 0)
        (void)W_close(__func__, g_ino.fd);
    g_ino.fd = -1;
    g_ino.in_epoll = false;
    // The watches died with the descriptor; only the map's records are left to free.
    nkht_destroy(g_ino.wfd_ht, nullptr);
    g_ino.wfd_ht = nullptr;
    g_ino.wfd_count = 0;

    if (g_rqs.loopfd > 0)
        (void)W_close(__func__, g_rqs.loopfd);
    g_rqs.loopfd = -1;
    g_rqs.poll_fds = 0;

    xvlst_reset(&g_rqs.nopoll);
    xvec_reset(&g_rqs.nopoll_rm);
    xvec_reset(&g_rqs.events);
    xvec_reset(&g_rqs.changes);
}

// ---- epoll registrations ------------------------------------------------------------------------

static const char* epoll_op_name(int op)
{
    switch (op) {
    case EPOLL_CTL_ADD:
        return "EPOLL_CTL_ADD";
    case EPOLL_CTL_MOD:
        return "EPOLL_CTL_MOD";
    default:
        return "EPOLL_CTL_DEL";
    }
}

static int rqs_ctl(int op, int fd, uint32_t events, void* udata)
{
    ZASSERT(g_rqs.loopfd > 0);
    struct epoll_event ev;
    ev.events = events;
    // Without user data the descriptor itself is the data word, so callbacks can still tell
    // registrations apart.
    if (udata != nullptr)
        ev.data.ptr = udata;
    else
        ev.data.u64 = static_cast<uint32_t>(fd);
    const int rc = epoll_ctl(g_rqs.loopfd, op, fd, &ev);
    if (rc != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: epoll_ctl(%d, %s, %d, {0x%lx, %p}) ERROR(%d): %s\n", g_rqs.loopfd,
              epoll_op_name(op), fd, static_cast<unsigned long>(events), ev.data.ptr, err,
              strerror(err));
        errno = err;
        return rc;
    }
    if (op == EPOLL_CTL_ADD)
        g_rqs.poll_fds += 1;
    return 0;
}

int rqs_add_reader(int fd, void* udata)
{
    return rqs_ctl(EPOLL_CTL_ADD, fd, RQS_EVENT_READ, udata);
}

int rqs_add_writer(int fd, void* udata)
{
    return rqs_ctl(EPOLL_CTL_ADD, fd, RQS_EVENT_WRITE, udata);
}

int rqs_mod_reader(int fd, void* udata)
{
    return rqs_ctl(EPOLL_CTL_MOD, fd, RQS_EVENT_READ, udata);
}

int rqs_mod(int fd, void* udata, int read_write)
{
    uint32_t events = 0;
    if (read_write & RQS_READ)
        events |= RQS_EVENT_READ;
    if (read_write & RQS_WRITE)
        events |= RQS_EVENT_WRITE;
    const char* what = "H";
    if (events == 0)
        events = EPOLLHUP; // parked: only hang-up and errors are reported
    else if (events == (RQS_EVENT_READ | RQS_EVENT_WRITE))
        what = "RW";
    else
        what = (events == RQS_EVENT_READ) ? "R" : "W";
    zlogf(L_DEBUG, "%s: fd%d -> %s (%p)\n", fd, what, udata);
    return rqs_ctl(EPOLL_CTL_MOD, fd, events, udata);
}

int rqs_rm_fd(int fd, [[maybe_unused]] bool is_reader, [[maybe_unused]] bool is_writer)
{
    if (g_rqs.loopfd <= 0)
        return 0;
    struct epoll_event ev = {};
    const int rc = epoll_ctl(g_rqs.loopfd, EPOLL_CTL_DEL, fd, &ev);
    if (rc != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: epoll_ctl(%d, EPOLL_CTL_DEL, %d,..) ERROR(%d): %s\n", g_rqs.loopfd, fd,
              err, strerror(err));
        errno = err;
        return rc;
    }
    g_rqs.poll_fds -= 1;
    return 0;
}

// ---- no-poll events -----------------------------------------------------------------------------

static int add_nopoll(uint32_t events, int fd, ssize_t* pindex, void* udata)
{
    const nopoll_ref ref = {events, fd, udata, pindex};
    const ssize_t i = xv_push(&g_rqs.nopoll, ref, NOPOLL_GROW);
    if (i < 0)
        log_abort("%s: cannot add a no-poll entry for fd%d\n", __func__, fd);
    if (pindex != nullptr)
        *pindex = i;
    return 0;
}

int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll(EPOLLIN, fd, pindex, udata);
}

int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll(EPOLLOUT, fd, pindex, udata);
}

int rqs_rm_nopoll(ssize_t index)
{
    return xvlst_del(&g_rqs.nopoll, static_cast<size_t>(index), nullptr);
}

int rqs_pprm_nopoll(ssize_t index)
{
    ZASSERT(index >= 0);
    if (xv_push(&g_rqs.nopoll_rm, index, NOPOLL_GROW) < 0)
        log_abort("%s: cannot add an item to nopoll_rm\n", __func__);
    return 0;
}

int rqs_purge_nopoll_rm(void)
{
    for (size_t k = 0; k < g_rqs.nopoll_rm.len; ++k) {
        const ssize_t j = *xv_at<ssize_t>(&g_rqs.nopoll_rm, k);
        ZASSERT(j >= 0);
        const nopoll_ref* ref = xv_at<nopoll_ref>(&g_rqs.nopoll, static_cast<size_t>(j));
        if (static_cast<size_t>(j) < g_rqs.nopoll.max_len && ref->index != nullptr)
            *ref->index = -1;
        if (xvlst_del(&g_rqs.nopoll, static_cast<size_t>(j), nullptr) != 0)
            log_abort("%s: failed to remove j=%ld\n", __func__, static_cast<long>(j));
    }
    g_rqs.nopoll_rm.len = 0;
    return 0;
}

// Called for each taken no-poll slot in table order. The entry is copied first: the callback may
// add entries, which can move the table.
static int dispatch_nopoll(void* /*data*/, size_t i, void* /*aux*/)
{
    const nopoll_ref ref = *xv_at<nopoll_ref>(&g_rqs.nopoll, i);
    if (ref.events & EPOLLIN)
        return g_cfg.cb.read(ref.fd, 0, ref.udata, nullptr);
    if (ref.events & EPOLLOUT)
        return g_cfg.cb.write(ref.fd, 0, ref.udata, nullptr);
    zlogf(L_ERR, "%s: unrecognized event mask: 0x%lx\n", static_cast<unsigned long>(ref.events));
    return -1;
}

// ---- file watches -------------------------------------------------------------------------------

int rqs_add_file_watch(void* udata, const char* filepath)
{
    const int wd = inotify_add_watch(g_ino.fd, filepath, WATCH_MASK);
    if (wd < 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: inotify_add_watch(%d, %s) ERROR(%d): %s\n", g_ino.fd, filepath, err,
              strerror(err));
        return -1;
    }

    void* dat = udata;
    const int rc = nkht_add(g_ino.wfd_ht, wd, &dat);
    if (rc == HT_EXISTS) {
        // The kernel hands out the same descriptor for a second watch on one inode: the watch
        // belongs to the earlier registration and must stay.
        zlogf(L_ERR, "%s: key wfd=%d is already taken [%p]\n", wd, dat);
        return -1;
    }
    if (rc != 0) {
        zlogf(L_ERR, "%s: cannot map wfd=%d (rc=%d)\n", wd, rc);
        (void)inotify_rm_watch(g_ino.fd, wd);
        return -1;
    }

    g_ino.wfd_count += 1;
    if (!g_ino.in_epoll) {
        if (rqs_add_reader(g_ino.fd, &g_ino) != 0) {
            (void)nkht_rm(g_ino.wfd_ht, wd, nullptr);
            (void)inotify_rm_watch(g_ino.fd, wd);
            g_ino.wfd_count -= 1;
            return -1;
        }
        g_ino.in_epoll = true;
        zlog(L_INFO, "inotify fd%d will be watched.\n", g_ino.fd);
    }
    return wd;
}

int rqs_rm_file_watch(int wd)
{
    // After a deletion or move the kernel has already dropped the watch (IN_IGNORED); only the
    // map entry is left, so a refusal here is expected and not an error.
    if (inotify_rm_watch(g_ino.fd, wd) != 0) {
        const int err = errno;
        zlogf(L_DEBUG, "%s: inotify_rm_watch(%d, %d) ERROR(%d): %s\n", g_ino.fd, wd, err,
              strerror(err));
    }
    if (nkht_rm(g_ino.wfd_ht, wd, nullptr) != 0) {
        zlogf(L_WARN, "%s: unknown wfd=%d\n", wd);
        return -1;
    }
    g_ino.wfd_count -= 1;
    if (g_ino.wfd_count == 0 && g_ino.in_epoll) {
        (void)rqs_rm_fd(g_ino.fd, true, false);
        g_ino.in_epoll = false;
        zlog(L_INFO, "inotify fd%d is no longer watched.\n", g_ino.fd);
    }
    return 0;
}

static int notify_watcher(const struct inotify_event* ie)
{
    void* udata = nullptr;
    if (nkht_get(g_ino.wfd_ht, ie->wd, &udata) != 0 || g_cfg.cb.on_file_modified == nullptr)
        return 0;
    int flags = 0;
    if (ie->mask & (IN_MOVE_SELF | IN_DELETE_SELF))
        flags |= RQS_RMV;
    if (ie->mask & IN_MOVE_SELF)
        flags |= RQS_FMOVED;
    if (ie->mask & IN_DELETE_SELF)
        flags |= RQS_FDELETED;
    if (ie->mask & IN_ATTRIB)
        flags |= RQS_ATTR;
    return g_cfg.cb.on_file_modified(ie->wd, flags, udata, nullptr);
}

static int read_inotify(int errcode)
{
    if (errcode & RQS_SOCKERR)
        log_abort("%s: error condition on inotify fd=%d\n", __func__, g_ino.fd);

    int avail = 0;
    if (ioctl(g_ino.fd, FIONREAD, &avail) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: ioctl(%d, FIONREAD) ERROR(%d): %s\n", g_ino.fd, err, strerror(err));
        return -1;
    }
    if (static_cast<size_t>(avail) > sizeof(g_ino.buf)) {
        zlogf(L_ERR, "%s: incompatible buffer size (avail=%ld bytes, max=%ld)\n",
              static_cast<long>(avail), static_cast<long>(sizeof(g_ino.buf)));
        return -1;
    }
    const ssize_t n = W_read_f(__func__, g_ino.fd, g_ino.buf, static_cast<size_t>(avail), W_LOGALL);
    if (n <= 0)
        return -1;

    int rc = 0;
    constexpr uint32_t passed_on = WATCH_MASK;
    for (ssize_t off = 0; off + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
        struct inotify_event ie;
        memcpy(&ie, g_ino.buf + off, sizeof(ie));
        off += static_cast<ssize_t>(sizeof(ie) + ie.len);
        if (ie.mask & passed_on) {
            // Every record is delivered even after a watcher failed; the failure still stops the
            // loop once the batch is done.
            const int r = notify_watcher(&ie);
            if (r != 0 && rc == 0)
                rc = r;
        } else if (ie.mask & IN_IGNORED) {
            zlogf(L_DEBUG, "%s: watch wd=%d is gone (IN_IGNORED)\n", ie.wd);
        } else {
            zlogf(L_WARN, "%s: unhandled inotify mask: 0x%lx\n",
                  static_cast<unsigned long>(ie.mask));
        }
    }
    return rc;
}

// ---- the loop -----------------------------------------------------------------------------------

long rqs_tmout_ms(const struct timespec* tmout)
{
    if (tmout->tv_sec < 0 || tmout->tv_nsec < 0)
        return -1;
    return static_cast<long>(tmout->tv_sec) * 1000 + tmout->tv_nsec / 1000000;
}

static int rqs_wait()
{
    xvec* evs = &g_rqs.events;
    if (evs->max_len < g_rqs.poll_fds &&
        xvec_reserve(evs, g_rqs.poll_fds, sizeof(struct epoll_event), EVENTS_GROW) != 0)
        log_abort("%s: xvec_reserve failed\n", __func__);

    long ms = rqs_tmout_ms(&g_rqs.tmout);
    if (g_rqs.nopoll.len > 0) {
        ms = 0;
        zlogf(L_DEBUG, "%s: no-poll events present: changing to 0 timeout\n");
    }
    zlogf(L_DEBUG, "%s: timeout=%f sec\n", ms < 0 ? -1.0 : static_cast<double>(ms) / 1000.0);

    if (ms > INT_MAX)
        ms = INT_MAX;
    const int cap = static_cast<int>(evs->max_len);
    // Records held by a batching log go out before the wait, so that nothing lingers while idle.
    log_sync(g_log);
    const int n = epoll_pwait(g_rqs.loopfd, static_cast<struct epoll_event*>(evs->data), cap,
                              static_cast<int>(ms), &g_wait_mask);
    const int err = errno;
    if (n < 0) {
        if (err == EINTR)
            zlogf(L_INFO, "%s interrupted, quit=%d\n", static_cast<int>(g_quit));
        else
            zlogf(L_ERR, "%s: epoll_wait(%d...) ERROR(%d): %s\n", g_rqs.loopfd, err,
                  strerror(err));
    } else {
        if (n > 15 && n == cap)
            zlogf(L_WARN, "%s: all event slots populated, might need more\n");
        evs->len = static_cast<size_t>(n);
    }
    // One clock read per wait: every callback of the coming batch sees the same "now".
    rqs_refresh_now();
    errno = err;
    return n;
}

static int dispatch_event(const struct epoll_event* ev)
{
    const uint32_t e = ev->events;
    void* d = ev->data.ptr;
    const int ident = static_cast<int>(static_cast<uint32_t>(ev->data.u64));

    int flags = 0;
    if (e & EPOLLERR)
        flags |= RQS_SOCKERR;
    if (e & (EPOLLHUP | EPOLLRDHUP))
        flags |= RQS_SOCKHUP;

    if (!(e & (EPOLLIN | EPOLLOUT)) && flags != 0)
        return g_cfg.cb.error(ident, flags, d, nullptr);
    if (e & EPOLLIN) {
        // The inotify context (tag "ino") is recognised by its address: a data word may be a bare
        // descriptor number, which must not be read through to look for a tag.
        if (d == &g_ino)
            return read_inotify(flags);
        return g_cfg.cb.read(ident, flags, d, nullptr);
    }
    if (e & EPOLLOUT)
        return g_cfg.cb.write(ident, flags, d, nullptr);
    zlogf(L_ERR, "%s: unsupported event mask: 0x%lx\n", static_cast<unsigned long>(e));
    return -1;
}

// Blocks LOOP_SIGNALS and keeps the previous mask for the wait.
static void block_loop_signals()
{
    sigset_t block;
    sigemptyset(&block);
    for (const int signo : LOOP_SIGNALS)
        sigaddset(&block, signo);
    if (sigprocmask(SIG_BLOCK, &block, &g_wait_mask) != 0)
        log_abort("%s: sigprocmask(SIG_BLOCK) ERROR(%d): %s\n", __func__, errno, strerror(errno));
}

// Lets signals that are pending in, outside any wait, and blocks them again.
static void take_pending_signals()
{
    sigset_t blocked;
    (void)sigprocmask(SIG_SETMASK, &g_wait_mask, &blocked);
    (void)sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

int rqs_event_loop(void)
{
    ZASSERT(g_rqs.loopfd != 0);
    const rqs_callbacks& cb = g_cfg.cb;
    block_loop_signals();
    if (cb.update_tmout != nullptr)
        cb.update_tmout(&g_rqs.tmout);
    zlog(L_INFO, "Entering event loop\n");

    int rc = 0;
    long failed = 0;
    while (rc == 0 && !g_quit) {
        g_rqs.loop_stage = 0;

        bool idle = g_rqs.poll_fds == 0 && g_rqs.nopoll.len == 0;
        if (idle && cb.is_dormant != nullptr)
            idle = cb.is_dormant() != 0;
        if (g_cfg.quit_on_zero_fds && idle) {
            zlogf(L_CRIT, "%s: no fd's, no activity, quitting now.\n");
            break;
        }

        int n = 0;
        // Always-ready no-poll events with nothing else registered: waiting would only add a
        // system call that returns at once.
        if (g_rqs.nopoll.len > 0 && g_rqs.poll_fds == 0) {
            // No wait lets the blocked signals in: do it here, or a quit would never be seen.
            take_pending_signals();
            if (g_quit)
                break;
        } else {
            if (cb.update_tmout != nullptr)
                cb.update_tmout(&g_rqs.tmout);
            n = rqs_wait();
            if (n < 0) {
                rc = errno;
                if (rc != EINTR || g_quit)
                    break;
                n = 0;
            }
            if (g_quit)
                break;
            if (cb.time_out != nullptr)
                (void)cb.time_out();
        }

        if (g_rqs.nopoll.len > 0 &&
            xv_reserve<ssize_t>(&g_rqs.nopoll_rm, g_rqs.nopoll.len, NOPOLL_GROW) != 0)
            log_abort("Failed to reserve %ld elements for nopoll_rm container.\n",
                      static_cast<long>(g_rqs.nopoll.len));
        g_rqs.nopoll_rm.len = 0;

        if (g_rqs.nopoll.len > 0) {
            size_t pos = 0;
            const int r = xvlst_each_aux(&g_rqs.nopoll, nullptr, dispatch_nopoll, &pos);
            if (r != 0) {
                zlogf(L_ERR, "%s: FAILED(%d)\n", r);
                rc = r;
                break;
            }
        }

        rc = rqs_purge_nopoll_rm();
        if (rc != 0)
            break;

        g_rqs.loop_stage = 1;
        failed = 0;
        for (int i = 0; i < n; ++i) {
            if (dispatch_event(xv_at<struct epoll_event>(&g_rqs.events, static_cast<size_t>(i))) !=
                0)
                failed += 1;
        }

        g_rqs.loop_stage = 2;
        if (cb.post_process != nullptr) {
            rc = cb.post_process();
            if (rc != 0)
                break;
        }
        rc = rqs_purge_nopoll_rm();
        if (rc != 0)
            break;

        // A failed handler ends the loop, but only after the whole batch and its
        // post-processing, so nothing of the batch is left half done.
        if (failed != 0) {
            zlogf(L_DEBUG, "%s: failed %ld events\n", failed);
            break;
        }

        if (cb.on_idle != nullptr) {
            rc = cb.on_idle();
            if (rc != 0)
                break;
        }

        g_rqs.loop_stage = 3;
        if (cb.post_process != nullptr) {
            rc = cb.post_process();
            if (rc != 0)
                break;
        }
    }

    (void)sigprocmask(SIG_SETMASK, &g_wait_mask, nullptr);
    if (rc == EINTR && g_quit)
        rc = 0;
    zlog(L_INFO, "Exiting event loop, %d failed, rc=%d, quit=%d\n", static_cast<int>(failed), rc,
         static_cast<int>(g_quit));
    return rc != 0 ? rc : static_cast<int>(failed);
}

// ---- queries ------------------------------------------------------------------------------------

size_t rqs_fd_count(int which)
{
    switch (which) {
    case 0:
        return g_rqs.poll_fds + g_rqs.nopoll.len;
    case 1:
        return g_rqs.poll_fds;
    case 2:
        return g_rqs.nopoll.len;
    default:
        zlogf(L_ERR, "%s: invalid specifier: %d\n", which);
        ZASSERT(which >= 0 && which <= 2);
        return 0;
    }
}

void* rqs_ctx(int type, [[maybe_unused]] void* aux)
{
    if (type == 1)
        return reinterpret_cast<void*>(static_cast<intptr_t>(g_rqs.loop_stage));
    zlogf(L_ERR, "%s: invalid request type: %d\n", type);
    return nullptr;
}
