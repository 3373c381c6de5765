// The listener manager: the listening sockets of each request type (user, admin, custom), the
// accept cycle, and the queues of accepted requests with their time-out walk and their removal,
// either at once or after the current batch of events (post-processing removal, "pprm").
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "acl.h"
#include "appcfg.h"
#include "dlep.h"
#include "timeop.h"
#include "xvdat.h"
#include "ztypes.h"

// Request types, each with up to RUI_LISTENER_SLOTS listeners.
enum : int { RUI_USER = 0, RUI_ADMIN = 1, RUI_CUSTOM = 2, RUI_MAX = 3 };

// Flags of rui_accept.
enum : uint32_t { RUI_TCP_NODELAY = 1 };

enum : size_t {
    MAX_RQNUM = 100000,
    MAX_RUI_QUEUED = 1000, // live requests per listener
};

// Out of descriptors, a listener stops accepting for this long; its pending connections wait in
// the kernel's queue meanwhile. The time-out registry kind RUI_PAUSE_TMOUT bounds the loop's wait
// while a listener is paused, so that it is resumed on time; the application's kinds lie below.
enum : int { RUI_ACCEPT_BACKOFF_MS = 100, RUI_PAUSE_TMOUT = 31 };

// Receive low-water mark of accepted network connections, in bytes.
enum : int { RUI_LOW_WMARK = 32 };

// Tag of a listener slot: the agent's read callback routes "Rsc" objects to rui_accept.
constexpr uint32_t RSC_TAG = mk_tag32("Rsc");

struct rui_socket_ctx;

// Creates the request object for the accepted descriptor `fd` (called with the listener slot and
// the `data` of rui_accept). The object begins with a rui_rq_header; the manager fills its `srv`
// and `fd` and links it. Null refuses the connection, which the manager then closes.
using rui_newrq_t = void* (*)(int fd, rui_socket_ctx* srv, void* data);
// Frees a request. Called after its descriptor has been closed (header `fd` is -1) and it has left
// the queue.
using rui_rmrq_t = void (*)(void* rq);
// Checks one request against the time-out; non-zero means it timed out. It only answers: a request
// that is to go is scheduled with rui_pprm_request, never removed inside the walk.
using rui_tmout_t = int (*)(void* rq, u_int tmout_ms);

// The callbacks of one request type.
struct rui_socket_cb {
    n32_tag tag; // the requests' object tag, shown as the kind of request ("URQ")
    rui_newrq_t new_rq;
    rui_rmrq_t rm_rq;
    rui_tmout_t time_out;
};

// First member of every request object. The tag and links keep the layout of dlep_hdr, so the
// request can sit in the listener's queue.
struct rui_rq_header {
    n32_tag tag; // the application's object tag
    rui_rq_header* prev;
    rui_rq_header* next;
    rui_socket_ctx* srv; // the listener slot it came from
    int fd;              // the connection; -1 once closed
    n64_tag trk_tag;     // track number (rui_mk_trknum)
};

static_assert(offsetof(rui_rq_header, tag) == offsetof(dlep_hdr, tag) &&
              offsetof(rui_rq_header, prev) == offsetof(dlep_hdr, prev) &&
              offsetof(rui_rq_header, next) == offsetof(dlep_hdr, next));

// One listener slot.
struct rui_socket_ctx {
    n32_tag tag;         // "Rsc" once set up, 0 for an unused slot
    int sockfd;          // listening descriptor, -1 when not listening
    fd_set accset;       // connection descriptors queued on this slot (those below FD_SETSIZE)
    dlep_t requests;     // live requests, oldest at the tail
    xvlst pprm;          // request pointers to remove after the current batch
    bool deferred;       // stopped; waits to be started again
    size_t rqcount;      // carried for the application
    ssize_t nblk_count;  // carried for the application
    rui_listener_cfg* lc;
    n32_tag rqtag;       // the request type's tag
    rui_socket_cb* cb;   // the request type's callbacks
    bool paused;         // out of descriptors: not accepting until resume_tm
    timespec resume_tm;  // loop time at which a paused listener accepts again
    size_t busy_refused; // connections answered 503 because the listener held its limit
};

struct rui_ctx {
    rui_socket_ctx user[RUI_LISTENER_SLOTS];
    rui_socket_ctx admin[RUI_LISTENER_SLOTS];
    rui_socket_ctx custom[RUI_LISTENER_SLOTS];
    fd_set user_fds;
    fd_set admin_fds;
    fd_set custom_fds;
};

// "user", "admin", "custom", or "?" for any other number.
const char* rui_type_name(int type);

// Copies the callbacks of `type` (0..RUI_MAX-1, asserted). Must precede rui_ctx_init.
void rui_set_cb(int type, const rui_socket_cb* cb);

// Admits connections on network listeners only from addresses in `allowed` (kept by the caller
// for as long as listeners run); null or an empty list admits everyone. Others are closed at
// accept without an answer and logged at most once a second. Unix-domain listeners are exempt.
void rui_set_client_filter(const acl_list* allowed);

// Whether a connection or datagram from `peer` (`plen` bytes) passes that filter. A refusal is
// logged at warning level under `who` as "<what> from <peer> refused", at most once a second per
// `gate`, with the count of the refusals held back since the last line.
[[nodiscard]] bool rui_client_admitted(const char* who, const char* what, const sockaddr* peer,
                                       socklen_t plen, rate_gate* gate);

// Sets up the listener slots of user, admin and custom from `cfg`; 0 or the first failure. The
// context is reset first; slots set up before a failure are released by rui_ctx_destroy.
[[nodiscard]] int rui_ctx_init(rui_cfg* cfg, rui_ctx* ctx);
// Resets the RUI_LISTENER_SLOTS slots at `srv` and sets one up for each valid entry of `lc`,
// stopping at the first invalid one: request queue, pprm list, tag "Rsc", callbacks. 0, or the
// queue's or the list's error code. A valid entry of a type without new_rq/rm_rq is fatal.
[[nodiscard]] int rui_setup_listeners(int type, rui_listener_cfg* lc, rui_socket_ctx* srv);

// Starts every set-up listener of every type; 0 or the first failure (which ends start-up), after
// which every set-up listener left without a socket is logged as not started. Needs an
// initialised event loop.
[[nodiscard]] int rui_ctx_start(rui_ctx* ctx);
// Starts the set-up slots of one type (the RUI_LISTENER_SLOTS slots at `srv`); 0 or -1.
[[nodiscard]] int rui_enable_listeners(rui_socket_ctx* srv);
// Opens the listener of `cfg` (local-domain, UDP or TCP) and registers it for reading with the
// slot as user data. 0, or -1 with nothing left open.
[[nodiscard]] int rui_start_listener(rui_listener_cfg* cfg, rui_socket_ctx* srv);
// Closes a listening slot and marks it deferred; its queued requests stay alive.
void rui_stop_listener(rui_socket_ctx* srv);
// Stops (or, with `destroy`, drops) every set-up slot of one type; the number of slots handled.
int stop_listeners(rui_socket_ctx* srv, bool destroy);
// Stops a set-up slot, removes and frees all its requests, frees the configuration's `ifc` and
// invalidates it, and clears the slot. Unused slots are left alone.
void drop_listener(rui_socket_ctx* srv);
// Drops every listener of every type.
void rui_ctx_destroy(rui_ctx* ctx);

// The accept cycle of a readable listener: at most `max_accept` connections (0 accepts none) are
// accepted, made non-blocking, given the receive low-water mark (and TCP_NODELAY with
// RUI_TCP_NODELAY) when they are network connections, and queued. A connection whose set-up fails
// is closed; one refused because the listener holds its limit of requests is first answered
// "503 Service Unavailable" with "Retry-After: 1". Out of descriptors (EMFILE, ENFILE), the
// listener is paused for RUI_ACCEPT_BACKOFF_MS (see rui_resume_listeners) and a warning is logged
// at most once a second with the count of those suppressed. Returns the set-up result of the last
// connection (0 when it was queued). A UDP
// listener takes no requests: up to `max_accept` pending datagrams are read, dropped with a
// warning, and 0 is returned.
int rui_accept(rui_socket_ctx* srv, size_t max_accept, uint32_t flags, void* data);
// Requests the slot may still queue before it holds its limit: the listener's max_queued, or
// MAX_RUI_QUEUED without a configuration.
size_t rui_queue_room(const rui_socket_ctx* srv);
// Creates, queues and registers the request of an accepted descriptor. 0; 16 (EBUSY) when the
// listener's max_queued (MAX_RUI_QUEUED without a configuration) requests are queued already; -1 when new_rq refuses; the dispatcher's error. On
// any failure nothing refers to `fd` any more and the caller closes it.
int rui_add_request(int fd, rui_socket_ctx* srv, void* data);
// Removes a queued request at once: unregisters and closes its descriptor, takes it out of the
// pprm list and the queue and frees it through rm_rq. Not while the dispatcher may still hand it
// out in the current batch: use rui_pprm_request there.
void rui_rm_request(void* p);
// Hands a request's descriptor over to its caller: it leaves the loop and the listener's set now,
// and the request's removal no longer closes it. The request itself stays until removed.
void rui_detach_fd(void* rq);
// Schedules a request for removal after the current batch. 0; 17 (EEXIST) when it is scheduled
// already; -1 when the list cannot grow.
int rui_pprm_request(void* rq);
// Performs the scheduled removals of all types (user, admin, custom).
void rui_pprm_all(rui_ctx* ctx);
// Resumes accepting on every paused listener whose back-off is over; for the loop's idle pass.
void rui_resume_listeners(rui_ctx* ctx);
// Asks the type's time_out callback about every queued request of all types.
void rui_tmout_all(rui_ctx* ctx, u_int tmout_ms);

// Next track tag: `pfx` followed by the counter as "%04lu" (at most five digits). The counter rolls
// over to 1 after `max`, which callers keep below MAX_RQNUM.
void rui_mk_trknum(size_t* count, n64_tag* tag, char pfx, size_t max);

// Reaction to an error or hang-up on a listening socket: logs it and aborts the process.
[[noreturn]] void rui_crash_on_error(rui_socket_ctx* rsc, bool is_hup);

// True while fewer than three quarters of `max_req` requests (and at least one less than
// `max_req`) are queued on the slot.
bool rui_should_listen(rui_socket_ctx* srv, size_t max_req);
