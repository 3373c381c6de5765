// The agent's configuration: the one global record, its built-in defaults, the reader of the
// "vesk" group of the configuration file, the listeners given on the command line, the final
// consistency check and the dump of the effective settings.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "acl.h"
#include "appcfg.h"
#include "lbquery.h"

// Built-in defaults.
enum : size_t {
    D_MAX_ACCEPT = 64,
    D_MAX_ACCEPT_LIMIT = 1024, // highest max_accept a configuration may set
    D_MAX_FILES = 8,
    D_MAX_TASKS = 4096,
    D_URQ_TMOUT_MS = 1000,
    D_MAX_LOGSZ = 8,
    D_DW_TMOUT_MS = 5000,
    D_MAX_MMAP_MB = 8,
    D_RESOLVE_TMOUT_MS = 5000, // the system resolver's own time-out per try
    D_SRC_POOL_MAX = 0,        // no idle source connections kept: each download connects anew
    D_SRC_POOL_MAX_LIMIT = 4096,
    D_WRITE_THROUGH_BACKLOG = 0,       // every reservation goes to the kernel's workers
    D_WRITE_THROUGH_BACKLOG_LIMIT = 256, // the submission ring holds no more
    D_SRC_POOL_IDLE_MS = 5000,
    DOOR_INDEX = 0,
};

// Where the UDP channel keeps its request locks.
enum : int {
    LOCK_BACKEND_FILE = 0,  // lock files in lock_dir (built-in default)
    LOCK_BACKEND_REDIS = 1, // keys in the lbdb Redis, shared by agents on many hosts
};
inline constexpr char D_LOCK_PREFIX[] = "vsk:lock:";

// The UDP channel input.
struct udp_lstn_cfg {
    char url[128];  // the channel's address; empty: no channel
    char mifc[32];  // multicast interface; empty: all interfaces
    bool is_gzipped;
    bool must_lock; // take a lock per request
    char lkdir[128];
    int lock_backend;     // LOCK_BACKEND_*
    char lock_prefix[64]; // Redis key of a lock: this prefix and the lock id
};

struct vesk_cfg {
    char config_path[128];
    log_cfg log;
    rt_cfg rt;
    rui_cfg rui;
    char data_dir[128];
    udp_lstn_cfg udp_cha;
    int urq_tmout_sec;     // client request time-out, seconds
    size_t max_tasks;      // 0: unlimited
    size_t task_tmout_ms;
    bool end_stalled_tasks; // a task without I/O for task_tmout_ms ends (504 to its client)
    size_t max_mmap_mb;    // larger destination files are written through a buffer
    char seg_url_pfx[128]; // local URL prefix of downloaded segments
    long resolve_tmout_ms; // bound of one look-up of a source host name
    size_t src_pool_max;   // idle keep-alive source connections kept for reuse; 0: none
    long src_pool_idle_ms; // how long one of them may stay idle
    bool splice_to_file;   // buffer path: socket -> pipe -> file in the kernel, not read + write
    bool reserve_in_worker; // a plain-written file's blocks are reserved by a kernel worker
    int write_through_backlog; // with reserve_in_worker: reservations per worker in flight from
                               // which a file whose whole body is here is written at once; 0: never
    lbdb_cfg lbdb;         // lbdb.port 0: no database
    acl_list allow_clients; // peers that may send requests; empty: everyone
    acl_list allow_sources; // source hosts and prefixes that may be fetched; empty: all
    acl_list deny_sources;  // source prefixes never fetched, even when allowed
};

// The process-wide configuration, filled at start-up and read by everything else.
extern vesk_cfg* const g_cfg;

// Zeroes the record and sets the built-in defaults; returns 0.
int init_vesk_config(vesk_cfg* cfg);

// Parses the file at `path` and reads its "vesk" group into `cfg`. The low byte of `flags` is the
// re-load flag: a re-load refreshes only the data directory, the URL prefix and the numbers.
// 0, or -1 (the file cannot be opened or parsed, or a key was refused), or a section reader's code.
[[nodiscard]] int load_vesk_config(const char* path, vesk_cfg* cfg, uint32_t flags);

// Reads the keys of the configuration being loaded (see config_current()); stops at the first
// failure and returns it.
[[nodiscard]] int load_config(vesk_cfg* cfg, int is_reload);

// Prints the effective configuration.
void dump_vesk_config(FILE* stream, const vesk_cfg* cfg);

// Adds a web listener given on the command line as "ifc:port" for `af` (AF_INET or AF_INET6).
// 0; 22 when the port is missing or the interface is unknown; -12 when out of memory.
[[nodiscard]] int add_web_cli(vesk_cfg* cfg, const char* spec, int af);

// Accepts the configuration only when there is a user or custom listener or a UDP channel.
// 0 or -1.
[[nodiscard]] int validate_config(const vesk_cfg* cfg);
