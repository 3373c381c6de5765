// Client of the load-balancer database: the Redis server where downloaded segments are registered
// with their local URLs through server-side scripts called by digest. It holds the connection
// settings and their reader, the digests read from files, the one connection and the script calls.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/time.h>

#include <hiredis/hiredis.h>
#include <libconfig.h>

enum : size_t {
    LBQ_MAX_SHA1_LEN = 42, // digest buffer: 40 hex characters plus room
    LBQ_MAX_HOSTNM_LEN = 128,
    LBQ_MAX_DIRNAME_LEN = 128,
    LBQ_MAX_FPATH_LEN = 256,
    MAX_OPTSTR_LEN = 64, // option string of the "mbget" call
};

// Scripts requested at init (`need_func` bits).
enum : int32_t {
    LBQ_FL_NEXT = 1,
    LBQ_FL_ADD = 2,
    LBQ_FL_DEL = 4,
    LBQ_FL_MBGET = 8,
    LBD_FL_ALL = -1,
};

// Limits of the link on the event loop.
enum : long {
    LBQ_D_MAX_PENDING = 10000,   // default length of the queue of commands waiting for the link
    LBQ_MAX_BACKOFF_MS = 30000,  // the reconnection delay doubles up to this
    LBQ_MAX_PENDING = 10000000,  // largest accepted "max_pending"
    LBQ_DROP_LOG_PER_SEC = 10,   // drop lines per second; the rest are counted in one line
};

struct lbdb_cfg {
    char host[LBQ_MAX_HOSTNM_LEN];
    int port; // 0: the database is not used; users test port > 0
    char sha1_path[LBQ_MAX_DIRNAME_LEN]; // directory of the digest files
    timeval tmout;                       // connect time-out
    long cmd_tmout_ms; // time-out of one command; 0 when absent: the connect time-out
    long reconnect_ms; // first delay of reconnection on the loop; 0: no reconnection
    long max_pending;  // commands that may wait for the link on the loop
    long exit_drain_ms; // at shut-down, how long what was sent may take to be answered; 0: not
                        // waited for
};

// Reads the "host", "port", "connect_tmout_ms", "sha1_dir", "cmd_tmout_ms", "reconnect_ms",
// "max_pending" and "exit_drain_ms" members of `setting` into `lbq`. 0, or -1 with an error line when the host or the
// digest directory is missing, the port is negative or a time-out or the queue length is out of
// range.
[[nodiscard]] int load_lbdb_cfg(const config_setting_t* setting, lbdb_cfg* lbq);

// ---- The client: digests, connection and the four script calls. ----

// Bits of `opt_flags` of lbdb_init().
enum : uint32_t {
    LBQ_OPT_STRICT = 1, // passes "-S" to the "mbget" script
};

// Module state, one instance, all zero when idle.
struct lbdb_ctx {
    time_t init_tm;       // wall-clock time of a successful lbdb_init(); 0: not initialised
    redisContext* redis;  // null when not connected
    char add_sha1[LBQ_MAX_SHA1_LEN];
    char del_sha1[LBQ_MAX_SHA1_LEN];
    char next_sha1[LBQ_MAX_SHA1_LEN];
    char mbget_sha1[LBQ_MAX_SHA1_LEN];
    int32_t need_func;             // LBQ_FL_* bits requested at init
    char call_opt[MAX_OPTSTR_LEN]; // option word of the "mbget" call; empty by default
};

// Read-only views of the module state and of the settings it connected with (for dumps and
// tests).
const lbdb_ctx* lbdb_get_ctx();
const lbdb_cfg* lbdb_get_cfg();

// The command time-out in effect for `cfg`: "cmd_tmout_ms", or the connect time-out without it.
long lbdb_cmd_tmout_ms(const lbdb_cfg* cfg);

// At shut-down, after the last commands were made: sends what waits for the link and gives the
// commands sent up to `max_ms` to be answered, outside the event loop. Nothing when `max_ms` is 0
// or the link is not ready; what is still unanswered afterwards is dropped by lbdb_destroy().
void lbdb_drain(long max_ms);

// Reads the digest files ("add_url.sha1", "del_url.sha1", "next_url.sha1", "mbget_url.sha1") of
// the scripts named by `need_func` from `sha1_dir`. Must be called once on an idle module (a
// second call without lbdb_destroy() is an assertion failure). 0; 34 when the directory name is
// too long; -1 when a digest file is missing or has the wrong size (the module is then idle
// again). An empty digest file is only logged: its digest stays empty and lbdb_connect() aborts.
[[nodiscard]] int lbdb_init(const char* sha1_dir, int32_t need_func, uint32_t opt_flags);

// Takes the link options (command time-out, reconnection, queue length) of `cfg`; call before
// lbdb_connect(). Without it the command time-out is the connect time-out, there is no
// reconnection and the queue holds LBQ_D_MAX_PENDING commands.
void lbdb_set_link_opts(const lbdb_cfg* cfg);

// The start-up check: connects after lbdb_init() and checks with "script exists" that every
// requested script is loaded. It blocks, but never longer than the time-outs: the connect time-out
// `tmout`, then the command time-out per check, so a Redis that accepts and never answers fails
// it. It needs no event loop (a configuration check runs it alone). 0; -1 when the connection or
// a check fails (the reason is logged); 2 when a script is not loaded; 22 on a reply of
// unexpected shape. On failure the connection is closed again. The connection it leaves is a
// blocking one, for the blocking calls below, until lbdb_link_start() moves to the loop.
[[nodiscard]] int lbdb_connect(const char* host, int port, timeval tmout);

// The blocking script calls, on the start-up connection (not after lbdb_link_start(); on the loop
// use lbdb_add_segurl_cb or lbdb_command). Each asserts that its script was requested at init and
// that the module is connected. Results: 0; -1 on a Redis error or status, on a script error
// ("#err: " reply), on a reply outside the call's rule or on a lost connection; 22 on a reply of
// unexpected shape; 34 when the reply does not fit.

// Registers `url` for segment `segid` with an expiry handed to the script unchanged.
[[nodiscard]] int lbdb_add_segurl(const char* segid, const char* url, time_t expiry_tm);
// Unregisters `url`; `nleft` (may be null) receives the number of URLs the script reports as left.
[[nodiscard]] int lbdb_del_segurl(const char* segid, const char* url, long* nleft);
// Round-robin choice of a URL for `segid` into `buf`, which must hold `buflen` + 1 bytes.
// A null `metric` is sent as "-".
[[nodiscard]] int lbdb_rr_get_segurl(const char* segid, const char* metric, char* buf,
                                     size_t buflen);
// Choice by metric and criteria into `buf` (`buflen` + 1 bytes). Null texts are sent as "-".
// This version calls the "next" script's digest, although it requires the "mbget" one.
[[nodiscard]] int lbdb_mb_get_segurl(const char* segid, const char* metric, const char* criteria,
                                     char* buf, size_t buflen);

// Copies a string reply (or an array of one string) into `buf` of `buflen` + 1 bytes,
// NUL-terminated. 0; 34 when it is longer than `buflen`; 22 for an unexpected shape; -1 for a
// status or error reply. On failure `buf` holds an empty string.
[[nodiscard]] int reply_to_str(const redisReply* reply, char* buf, size_t buflen);

// ---- The link on the event loop. ----
// After lbdb_link_start() every command goes through an asynchronous context on the agent's epoll
// loop: nothing waits for Redis. A command without a reply within its time-out fails and drops
// the link (a Redis that stopped answering would leave every later reply stuck behind it). With
// reconnection on, a broken link is made again in the background after a delay that doubles up
// to LBQ_MAX_BACKOFF_MS and is reset once the link is ready; a new link is ready when "script
// exists" confirms every requested script. Until then commands wait in a bounded queue, in
// order; those whose expiry passed are dropped, and when the queue is full the oldest goes. Each
// drop is logged, at most LBQ_DROP_LOG_PER_SEC lines a second. Without reconnection a broken link
// stays down and every command fails at once, as the blocking client did.

// How a command ended, for its completion function.
enum : int {
    LBQ_ST_REPLY = 0,   // the reply is given
    LBQ_ST_TIMEOUT = 1, // no reply within the time-out; the link was dropped
    LBQ_ST_LOST = 2,    // the link broke before the reply came
    LBQ_ST_DOWN = 3,    // never sent: the link went down for good
    LBQ_ST_EXPIRED = 4, // never sent: its expiry passed while it waited (logged as a drop)
    LBQ_ST_DROPPED = 5, // never sent: pushed out of a full queue or still waiting at shut-down
                        // (logged as a drop)
};

// Completion of a command: `reply` is null unless `status` is LBQ_ST_REPLY, and belongs to the
// client (it is freed after the call). Called from the event loop, never from inside the
// lbdb_command() call that made the command, except for a drop of an older command.
using lbdb_reply_fn = void (*)(void* arg, const redisReply* reply, int status);

// One command of the link: its formatted text, completion and times. Owned by the module.
struct lbdb_cmd {
    lbdb_cmd* prev;
    lbdb_cmd* next;
    char* text; // the command in the protocol's form (redisFormatCommand)
    int len;
    lbdb_reply_fn fn;
    void* arg;
    long tmout_ms;    // reply time-out once sent
    long deadline_ms; // monotonic ms by which the reply is due, once sent
    time_t expire_at; // wall-clock second after which it is not worth sending; 0: never
    char label[64];   // what the drop lines show
};

// The queue of commands waiting for the link: oldest first, at most `cap`.
struct lbdb_pqueue {
    lbdb_cmd* head;
    lbdb_cmd* tail;
    size_t len;
    size_t cap;
};
void lbdb_pq_init(lbdb_pqueue* q, size_t cap);
// Appends `cmd`. When that makes the queue longer than its cap, the oldest command is taken out
// and returned (`cmd` itself with a cap of 0); otherwise null.
[[nodiscard]] lbdb_cmd* lbdb_pq_push(lbdb_pqueue* q, lbdb_cmd* cmd);
// Takes out the oldest command, or null.
[[nodiscard]] lbdb_cmd* lbdb_pq_pop(lbdb_pqueue* q);
// Takes out every command whose expiry lies before `now`, handing each to `drop` in queue order.
// The count taken out.
size_t lbdb_pq_drop_expired(lbdb_pqueue* q, time_t now, void (*drop)(lbdb_cmd* cmd, void* aux),
                            void* aux);
// True when `cmd` is not worth sending at `now`.
bool lbdb_cmd_expired(const lbdb_cmd* cmd, time_t now);
// The wall-clock second after which a registration with the script's `expiry_tm` has expired:
// 0 (never) for 0 or less, `now` plus it for a relative expiry (up to 30 days), else itself.
time_t lbdb_expire_at(time_t expiry_tm, time_t now);

// The next reconnection delay after `cur_ms` (0 for the first attempt): `base_ms`, then doubling up
// to LBQ_MAX_BACKOFF_MS (or `base_ms` when that is larger).
long lbdb_backoff_next(long cur_ms, long base_ms);

// Moves the client from the start-up connection to a link on the event loop; after a successful
// lbdb_connect() and rqs_init(). The start-up connection is closed and its peer's address kept, so
// no name is ever looked up again on the loop. 0, or -1 (logged) when the loop refuses the timer.
[[nodiscard]] int lbdb_link_start();
// True between lbdb_link_start() and lbdb_disconnect().
bool lbdb_link_on();
// True while the link is ready for commands.
bool lbdb_link_ready();
// Commands waiting in the queue.
size_t lbdb_pending_count();

// Sends a command on the link (printf-style format of hiredis), or queues it while the link is
// being made. `tmout_ms` 0 takes the configured command time-out; `expire_at` (0: never) lets a
// waiting command be dropped; `label` names it in drop lines. 0 when taken: `fn` will be called
// exactly once. -1 (nothing called) when the link is not on the loop or is down for good.
[[nodiscard, gnu::format(printf, 6, 7)]] int lbdb_command(lbdb_reply_fn fn, void* arg,
                                                         long tmout_ms, time_t expire_at,
                                                         const char* label, const char* format,
                                                         ...);

// Completion of lbdb_add_segurl_cb: `rc` as lbdb_add_segurl would return it, `status` LBQ_ST_*.
using lbdb_done_fn = void (*)(void* arg, int rc, int status);
// The "add" call on the link: the reply is judged as by lbdb_add_segurl, with its log lines, and
// `done` (may be null) learns the outcome. 0 when taken; -1 ("NULL as reply" logged, `done` not
// called) when the link is down for good.
[[nodiscard]] int lbdb_add_segurl_cb(const char* segid, const char* url, time_t expiry_tm,
                                     lbdb_done_fn done, void* arg);

// Closes the connection (nothing when not connected). A link on the loop is dropped: commands
// sent end with LBQ_ST_LOST, waiting ones with LBQ_ST_DROPPED.
void lbdb_disconnect();
// Disconnects and returns the module to idle, so that lbdb_init() may run again.
void lbdb_destroy();
