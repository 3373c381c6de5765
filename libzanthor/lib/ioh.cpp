// Event-loop handlers of library modules and their timers: registration of a module's descriptor
// under one tagged record, dispatch to the module's function, and timerfd one-shot timers.
#include "ioh.h"

#include <cerrno>
#include <cstring>
#include <sys/timerfd.h>
#include <unistd.h>

#include "log.h"
#include "rqs.h"
#include "syswrap.h"

LOG_MODULE(0, -1);

void ioh_init(ioh_rec* h, int fd, ioh_fn fn, void* arg)
{
    set_tag32(&h->tag, "IOH");
    h->fd = fd;
    h->interest = 0;
    h->fn = fn;
    h->arg = arg;
    h->is_timer = false;
}

int ioh_want(ioh_rec* h, int interest)
{
    ZASSERT(h->fd >= 0);
    if (interest == h->interest)
        return 0;
    int rc;
    if (interest == 0)
        rc = rqs_rm_fd(h->fd, true, true);
    else if (h->interest == 0 && interest == RQS_WRITE)
        rc = rqs_add_writer(h->fd, h);
    else if (h->interest == 0) {
        rc = rqs_add_reader(h->fd, h);
        if (rc == 0 && interest != RQS_READ && (rc = rqs_mod(h->fd, h, interest)) != 0)
            (void)rqs_rm_fd(h->fd, true, false);
    } else
        rc = rqs_mod(h->fd, h, interest);
    if (rc == 0)
        h->interest = interest;
    return rc;
}

int ioh_dispatch(void* udata, int what, int errcode)
{
    auto* h = static_cast<ioh_rec*>(udata);
    ZASSERT(h->tag.num == IOH_TAG && h->fn);
    if (h->is_timer && what == RQS_READ) {
        // The expiry count is consumed first: the loop is level-triggered and would report the
        // timer again on every pass.
        uint64_t n = 0;
        if (read(h->fd, &n, sizeof(n)) < 0) {
            const int err = errno;
            if (err == EAGAIN)
                return 0; // re-armed since it fired: nothing is due yet
            zlogf(L_ERR, "%s: read(fd%d) ERROR(%d): %s\n", h->fd, err, strerror(err));
        }
    }
    return h->fn(h, what, errcode);
}

int ioh_timer_open(ioh_rec* h, ioh_fn fn, void* arg)
{
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: timerfd_create() ERROR(%d): %s\n", err, strerror(err));
        return -1;
    }
    ioh_init(h, fd, fn, arg);
    h->is_timer = true;
    if (ioh_want(h, RQS_READ) != 0) {
        (void)W_close(__func__, fd);
        h->fd = -1;
        return -1;
    }
    return 0;
}

int ioh_timer_arm(ioh_rec* h, long ms)
{
    itimerspec its{};
    if (ms >= 0) {
        // A zero value would disarm the timer: "at once" is the smallest delay instead.
        its.it_value.tv_sec = ms / 1000;
        its.it_value.tv_nsec = ms > 0 ? (ms % 1000) * 1000000L : 1;
    }
    if (timerfd_settime(h->fd, 0, &its, nullptr) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: timerfd_settime(fd%d, %ld ms) ERROR(%d): %s\n", h->fd, ms, err,
              strerror(err));
        return -1;
    }
    return 0;
}

void ioh_timer_close(ioh_rec* h)
{
    if (h->fd < 0)
        return;
    if (h->interest)
        (void)ioh_want(h, 0);
    (void)W_close(__func__, h->fd);
    h->fd = -1;
}
