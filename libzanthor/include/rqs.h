// The event dispatcher: the process's one epoll loop, with "no-poll" pseudo-events for descriptors
// that are always ready and inotify file watches. It turns readiness into calls of the callback
// table the application hands over at start-up, and keeps the loop's cached monotonic clock.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/epoll.h>
#include <sys/types.h>

#include "gkh.h"
#include "xvdat.h"
#include "ztypes.h"

// The application's handlers, filled positionally: the order of the slots is part of the
// interface. A null slot is skipped, except `read`, `write` and `error`, which an application that
// registers descriptors must fill. Integer results: 0 goes on, non-zero stops the loop (the result
// of `time_out` is ignored).
struct rqs_callbacks {
    // Before every wait: set the wait time-out ({-1, 0} waits without limit).
    void (*update_tmout)(struct timespec* tms);
    // Once per pass in which no event failed, after the batch.
    int (*on_idle)(void);
    // Descriptor readable / writable / error or hang-up without readiness. `ident` is the low 32
    // bits of the registration's data word, `errcode` RQS_SOCKERR | RQS_SOCKHUP, `aux` null.
    int (*read)(int ident, int errcode, void* udata, void* aux);
    int (*write)(int ident, int errcode, void* udata, void* aux);
    int (*error)(int ident, int errcode, void* udata, void* aux);
    // After each batch, and again after on_idle.
    int (*post_process)(void);
    // A watched file changed; `flags` from RQS_RMV, RQS_FMOVED, RQS_FDELETED, RQS_ATTR.
    int (*on_file_modified)(int wd, int flags, void* udata, void* aux);
    // Right after every successful (or interrupted, non-quitting) wait.
    int (*time_out)(void);
    // When nothing is registered: non-zero when the loop counts as idle.
    int (*is_dormant)(void);
};

struct rqs_config {
    rqs_callbacks cb;
    // End the loop once nothing is registered and is_dormant (if any) agrees.
    unsigned quit_on_zero_fds : 1;
};

// Event flags handed to the callbacks as `errcode` / `flags`.
enum : int {
    RQS_SOCKERR = 1,        // EPOLLERR
    RQS_SOCKHUP = 2,        // EPOLLHUP or EPOLLRDHUP
    RQS_RMV = 4,            // watched file moved away or deleted; the watch is gone
    RQS_FMOVED = 0x10000,   // IN_MOVE_SELF
    RQS_FDELETED = 0x20000, // IN_DELETE_SELF
    RQS_ATTR = 0x40000,     // IN_ATTRIB
};

// Interest for rqs_mod; 0 parks the descriptor (hang-up and errors only).
enum : int { RQS_READ = 1, RQS_WRITE = 2 };

constexpr uint32_t RQS_EVENT_READ = EPOLLIN;
constexpr uint32_t RQS_EVENT_WRITE = EPOLLOUT;
static_assert(RQS_EVENT_READ == 0x001 && RQS_EVENT_WRITE == 0x004);

// A pseudo-event for a descriptor that is always ready: its callback runs on every pass.
struct nopoll_ref {
    uint32_t events; // EPOLLIN or EPOLLOUT
    int fd;
    void* udata;
    ssize_t* index; // the owner's copy of this entry's position; -1 once purged
};

// The dispatcher singleton.
struct rqs_context {
    int loopfd;            // epoll descriptor; 0 before rqs_init, -1 after rqs_destroy
    xvec events;           // epoll_event array; len = count of the last wait
    xvec changes;          // reserved
    size_t poll_fds;       // descriptors added to epoll through this module
    xvlst nopoll;          // nopoll_ref entries
    xvec nopoll_rm;        // ssize_t indices scheduled for removal
    struct timespec tmout; // wait time-out as last set by update_tmout
    struct timespec itime; // cached CLOCK_MONOTONIC time of the loop
    // 0 waiting, 1 dispatching, 2 batch post-processing, 3 idle post-processing
    int loop_stage;
};

constexpr size_t RQS_INOTIFY_BUFSZ = 4096;

// The file-watch singleton. It is registered with epoll as its own user data, tagged "ino".
struct inotify_ctx {
    n32_tag tag;
    int fd;
    bool in_epoll;
    char buf[RQS_INOTIFY_BUFSZ];
    nkht_t wfd_ht; // watch descriptor -> user data
    size_t wfd_count;
};

// Copies `cfg` (which need not outlive the call), creates the epoll and inotify descriptors and
// samples the loop clock. 0; -1 when a descriptor cannot be created (nothing is left open); or the
// watch map's creation error. Running out of memory aborts.
[[nodiscard]] int rqs_init(const struct rqs_config* cfg);

// Level-triggered registrations. A null `udata` stores the descriptor number as the data word.
// 0, or epoll_ctl's -1 with errno kept (logged).
int rqs_add_reader(int fd, void* udata);
int rqs_add_writer(int fd, void* udata);
int rqs_mod_reader(int fd, void* udata);
// Interest RQS_READ, RQS_WRITE, both, or 0 to park the descriptor.
int rqs_mod(int fd, void* udata, int read_write);
// Removes `fd` from epoll; the flags are informational. 0 when the loop is already destroyed.
int rqs_rm_fd(int fd, bool is_reader, bool is_writer);

// No-poll events: `*pindex` (when given) receives the entry's position. 0; running out of memory
// aborts.
int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata);
int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata);
// Removes an entry at once: 0, 34 beyond the table, 114 when not in use. Not from inside the
// no-poll walk; use rqs_pprm_nopoll there.
int rqs_rm_nopoll(ssize_t index);
// Schedules removal after the walk (and after post_process); the entry must have been added with
// a `pindex`, which is set to -1 when it goes. Removals scheduled from on_idle, the idle
// post-processing, update_tmout or time_out are dropped at the start of the next pass.
int rqs_pprm_nopoll(ssize_t index);
// Performs the scheduled removals; 0 (a failure aborts).
int rqs_purge_nopoll_rm(void);

// Watches `filepath` for modification, attribute change, close after write, deletion and move.
// The watch descriptor, or -1.
int rqs_add_file_watch(void* udata, const char* filepath);
// Drops the watch and its map entry (also after the kernel removed the watch itself). 0, or -1 for
// an unknown watch.
int rqs_rm_file_watch(int wd);

// The loop's cached CLOCK_MONOTONIC time, refreshed once per wait.
const struct timespec* rqs_now_ref(void);
struct timespec rqs_now(void);
// Samples CLOCK_MONOTONIC into the cached loop time (the loop does this after every wait).
void rqs_refresh_now(void);

// 0: epoll descriptors plus no-poll events, 1: epoll descriptors, 2: no-poll events.
size_t rqs_fd_count(int which);
// Type 1: the current loop stage (as a pointer-sized number); other types: null.
void* rqs_ctx(int type, void* aux);
// The epoll_wait time-out in ms for a wait time-out: -1 (no limit) when either field is negative,
// else truncated milliseconds.
long rqs_tmout_ms(const struct timespec* tmout);

// Runs the loop until the quit flag, a failing callback or a fatal wait error. The non-zero result
// that ended it (an errno of the wait, or a callback's result), else the number of events of the
// last batch whose handler failed (0 after a clean quit). While it runs, the quit signals (TERM,
// QUIT, INT) and USR2 are blocked everywhere but inside the wait; the caller's mask is restored on
// return.
int rqs_event_loop(void);
// Closes the inotify and epoll descriptors and releases the containers. Remaining watches are not
// removed one by one; closing the inotify descriptor drops them.
void rqs_destroy(void);
