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

struct lbdb_cfg {
    char host[LBQ_MAX_HOSTNM_LEN];
    int port; // 0: the database is not used; users test port > 0
    char sha1_path[LBQ_MAX_DIRNAME_LEN]; // directory of the digest files
    timeval tmout;                       // connect time-out
};

// Reads the "host", "port", "connect_tmout_ms" and "sha1_dir" members of `setting` into `lbq`.
// 0, or -1 with an error line when the host or the digest directory is missing or the port is
// negative.
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

// Reads the digest files ("add_url.sha1", "del_url.sha1", "next_url.sha1", "mbget_url.sha1") of
// the scripts named by `need_func` from `sha1_dir`. Must be called once on an idle module (a
// second call without lbdb_destroy() is an assertion failure). 0; 34 when the directory name is
// too long; -1 when a digest file is missing or has the wrong size (the module is then idle
// again). An empty digest file is only logged: its digest stays empty and lbdb_connect() aborts.
[[nodiscard]] int lbdb_init(const char* sha1_dir, int32_t need_func, uint32_t opt_flags);

// Connects after lbdb_init() and checks with "script exists" that every requested script is
// loaded. 0; -1 when the connection or a check fails; 2 when a script is not loaded; 22 on a
// reply of unexpected shape. On failure the connection is closed again. There is no reconnection:
// once the link breaks every call fails with -1.
[[nodiscard]] int lbdb_connect(const char* host, int port, timeval tmout);

// The script calls. Each asserts that its script was requested at init and that the module is
// connected. Results: 0; -1 on a Redis error or status, on a script error ("#err: " reply), on a
// reply outside the call's rule or on a lost connection; 22 on a reply of unexpected shape; 34 when
// the reply does not fit.

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

// Closes the connection (nothing when not connected).
void lbdb_disconnect();
// Disconnects and returns the module to idle, so that lbdb_init() may run again.
void lbdb_destroy();
