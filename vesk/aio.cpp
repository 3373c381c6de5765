// The kernel-side file work of the loop: one submission ring, its completions read on the loop
// when the ring's descriptor turns readable.
#include "aio.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <liburing.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ioh.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"

LOG_MODULE(0, -1);

enum : long { AIO_DRAIN_MS = 2000, AIO_DRAIN_STEP_MS = 100 };

namespace {

// One operation in flight. The kernel's worker looks its descriptor up only when it runs, so the
// number must name the same file until then: its owner keeps it open, or hands it over here to be
// closed with the completion.
struct aio_op {
    uint64_t token;
    int fd;        // the descriptor worked on; -1 for a free slot
    bool adopted;  // closed with the completion
    char* rm_path; // of an adopted one: removed with the completion if still this file
    dev_t rm_dev;
    ino_t rm_ino;
};

struct aio_ring {
    io_uring ring;
    bool is_open;
    bool is_broken; // a submission failed: what it left in the ring is never submitted again
    ioh_rec rec;    // the ring's descriptor on the loop
    aio_done_fn done;
    unsigned inflight;
    aio_op* ops;    // `depth` slots; the user data of a submission is its slot
    unsigned* free; // stack of free slots
    unsigned nfree;
    unsigned depth;
    unsigned workers; // the bound asked of the kernel
};

aio_ring g_aio;

// Frees the slot of a completion; its token.
uint64_t retire(const io_uring_cqe* cqe)
{
    const auto slot = static_cast<unsigned>(cqe->user_data);
    ZASSERT(slot < g_aio.depth && g_aio.ops[slot].fd >= 0);
    aio_op& op = g_aio.ops[slot];
    const uint64_t token = op.token;
    if (op.adopted)
        (void)W_close("aio_retire", op.fd);
    if (op.rm_path) {
        struct stat st;
        if (stat(op.rm_path, &st) == 0 && st.st_dev == op.rm_dev && st.st_ino == op.rm_ino)
            (void)W_unlink("aio_retire", op.rm_path);
        free(op.rm_path);
    }
    op = aio_op{0, -1, false, nullptr, 0, 0};
    g_aio.free[g_aio.nfree++] = slot;
    --g_aio.inflight;
    return token;
}

// Hands every completion waiting in the ring to the owner. Runs on the loop only, so a handler may
// submit again (the next reap sees that completion).
void reap()
{
    io_uring_cqe* cqe;
    while (io_uring_peek_cqe(&g_aio.ring, &cqe) == 0) {
        const int res = cqe->res;
        const uint64_t token = retire(cqe);
        io_uring_cqe_seen(&g_aio.ring, cqe);
        g_aio.done(token, res);
    }
}

// The ring's own descriptor is readable while completions wait in it; reading them all ends that.
int on_event(ioh_rec*, int, int)
{
    reap();
    return 0;
}

} // namespace

int aio_init(unsigned depth, aio_done_fn done)
{
    ZASSERT(!g_aio.is_open && done);
    io_uring_params p{};
    // A finished operation is handed back to the loop on its next system call, which it makes many
    // of while busy, or by waking it from its wait, instead of by an interrupt of the loop's core
    // for every completion. Only the loop submits. A kernel that knows neither flag gets a plain
    // ring.
    p.flags = IORING_SETUP_COOP_TASKRUN | IORING_SETUP_SINGLE_ISSUER;
    // The ring never needs more completions than operations in flight, which submission bounds.
    int rc = io_uring_queue_init_params(depth, &g_aio.ring, &p);
    if (rc == -EINVAL) {
        p = io_uring_params{};
        rc = io_uring_queue_init_params(depth, &g_aio.ring, &p);
    }
    if (rc < 0) {
        zlogf(L_ERR, "%s: io_uring_queue_init(%u) ERROR(%d): %s\n", depth, -rc, strerror(-rc));
        return -rc;
    }
    // The loop keeps one core busy; more workers than the other cores only take turns with it and
    // with each other, and their page allocations contend for the same locks. Two at least, so
    // that one reservation that takes long (a huge file, a slow or hung disk) does not hold up
    // every other file's. A kernel that cannot bound them leaves its own bound.
    cpu_set_t cpus;
    const int ncpu = sched_getaffinity(0, sizeof cpus, &cpus) == 0 ? CPU_COUNT(&cpus) : 1;
    unsigned bound[2] = {ncpu > 3 ? static_cast<unsigned>(ncpu - 1) : 2u, 0u};
    g_aio.workers = bound[0];
    rc = io_uring_register_iowq_max_workers(&g_aio.ring, bound);
    if (rc < 0)
        zlogf(L_DEBUG, "%s: io_uring_register_iowq_max_workers() ERROR(%d): %s\n", -rc,
              strerror(-rc));
    ioh_init(&g_aio.rec, g_aio.ring.ring_fd, on_event, nullptr);
    if (ioh_want(&g_aio.rec, RQS_READ) != 0) {
        io_uring_queue_exit(&g_aio.ring);
        return EIO;
    }
    g_aio.done = done;
    g_aio.inflight = 0;
    g_aio.depth = p.sq_entries;
    g_aio.ops = static_cast<aio_op*>(calloc(g_aio.depth, sizeof(aio_op)));
    g_aio.free = static_cast<unsigned*>(calloc(g_aio.depth, sizeof(unsigned)));
    if (!g_aio.ops || !g_aio.free)
        log_abort("%s: out of memory for %u slots\n", __func__, g_aio.depth);
    g_aio.nfree = g_aio.depth;
    for (unsigned i = 0; i < g_aio.depth; ++i) {
        g_aio.ops[i].fd = -1;
        g_aio.free[i] = g_aio.depth - 1 - i;
    }
    g_aio.is_broken = false;
    g_aio.is_open = true;
    zlogf(L_DEBUG, "%s: ring of %u entries on fd%d\n", p.sq_entries, g_aio.ring.ring_fd);
    return 0;
}

void aio_destroy()
{
    if (!g_aio.is_open)
        return;
    (void)ioh_want(&g_aio.rec, 0);
    g_aio.rec.fd = -1;
    // The work in flight is waited for, its completions dropped: a descriptor closed before its
    // worker looked it up could name another file by then. A filesystem on which no operation
    // finishes for AIO_DRAIN_MS is not waited for; the descriptors handed over are then left
    // open, the process being on its way out.
    bool drained = true;
    long still_ms = 0;
    while (drained && g_aio.inflight > 0) {
        __kernel_timespec ts{0, AIO_DRAIN_STEP_MS * 1000000};
        io_uring_cqe* cqe;
        const int rc = io_uring_wait_cqe_timeout(&g_aio.ring, &cqe, &ts);
        if (rc == -EINTR || (rc == -ETIME && (still_ms += AIO_DRAIN_STEP_MS) < AIO_DRAIN_MS))
            continue;
        if (rc < 0) {
            zlogf(L_WARN, "%s: %u file operations still in the kernel's workers: not waited for\n",
                  g_aio.inflight);
            drained = false;
            break;
        }
        still_ms = 0;
        (void)retire(cqe);
        io_uring_cqe_seen(&g_aio.ring, cqe);
    }
    io_uring_queue_exit(&g_aio.ring);
    for (unsigned i = 0; i < g_aio.depth; ++i) {
        if (drained && g_aio.ops[i].fd >= 0 && g_aio.ops[i].adopted)
            (void)W_close(__func__, g_aio.ops[i].fd);
        free(g_aio.ops[i].rm_path);
    }
    free(g_aio.ops);
    free(g_aio.free);
    g_aio.ops = nullptr;
    g_aio.free = nullptr;
    g_aio.is_open = false;
    g_aio.inflight = 0;
}

bool aio_adopt(uint64_t token, const char* rm_path, dev_t rm_dev, ino_t rm_ino)
{
    for (unsigned i = 0; g_aio.is_open && i < g_aio.depth; ++i) {
        aio_op& op = g_aio.ops[i];
        if (op.fd >= 0 && op.token == token && !op.adopted) {
            op.adopted = true;
            if (rm_path) {
                op.rm_path = strdup(rm_path);
                if (!op.rm_path) // removed now instead; a disk that hangs then holds the loop
                    (void)W_unlink(__func__, rm_path);
                op.rm_dev = rm_dev;
                op.rm_ino = rm_ino;
            }
            return true;
        }
    }
    return false;
}

unsigned aio_worker_bound()
{
    unsigned bound[2] = {0u, 0u}; // zeros ask without changing
    if (!g_aio.is_open || io_uring_register_iowq_max_workers(&g_aio.ring, bound) < 0)
        return 0;
    return bound[0];
}

unsigned aio_backlog()
{
    return g_aio.is_open ? g_aio.inflight / g_aio.workers : 0;
}

bool aio_on()
{
    return g_aio.is_open;
}

int aio_fallocate(int fd, off_t len, uint64_t token)
{
    ZASSERT(g_aio.is_open);
    if (g_aio.is_broken)
        return EIO;
    io_uring_sqe* sqe = g_aio.nfree > 0 ? io_uring_get_sqe(&g_aio.ring) : nullptr;
    if (!sqe)
        return EBUSY;
    const unsigned slot = g_aio.free[--g_aio.nfree];
    g_aio.ops[slot] = {token, fd, false, nullptr, 0, 0};
    io_uring_prep_fallocate(sqe, fd, 0, 0, len);
    io_uring_sqe_set_data64(sqe, slot);
    const int rc = io_uring_submit(&g_aio.ring);
    if (rc < 0) {
        // The entry may stay in the ring, naming a descriptor its owner keeps: no later submission
        // may carry it to the kernel. Its slot stays taken.
        zlogf(L_ERR, "%s: io_uring_submit() ERROR(%d): %s; file work stays on the loop\n", -rc,
              strerror(-rc));
        g_aio.is_broken = true;
        return -rc;
    }
    ++g_aio.inflight;
    return 0;
}
