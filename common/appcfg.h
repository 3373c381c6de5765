// Configuration sections shared by every server of the family: the log, the runtime and the
// listener definitions. Readers fill plain records from a libconfig group; dumpers print them in
// the fixed text that goes to the log at start-up.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <libconfig.h>

#include "log.h"
#include "netops.h" // NETOPS_BACKLOG
#include "timeop.h" // time format flags (f_RAW_TIME, f_GMT_TIME, ...)
#include "ztypes.h"

struct ifc_info;

// Listener slots per request type.
enum : size_t { RUI_LISTENER_SLOTS = 4 };
// Live requests one listener holds by default, and the highest limit a configuration may set.
enum : int { RUI_DEFAULT_QUEUED = 1000, RUI_MAX_QUEUED_LIMIT = 100000 };
// Connections the kernel queues for a listener before they are accepted: the length every listener
// is opened with, and the highest a configuration may set.
enum : int { RUI_DEFAULT_BACKLOG = NETOPS_BACKLOG, RUI_MAX_BACKLOG = 65535 };
// Longest a kept client connection may be configured to wait for its next request: an hour.
enum : int { RUI_MAX_KEEP_IDLE_MS = 3600000 };

struct log_cfg {
    char path[128];     // empty: standard error; "|cmd": a pipe to cmd
    int level;          // global log level
    int32_t timefmt;    // time-stamp format flags
    bool enable_syslog; // copy records to syslog
    int max_size_mb;    // rotate at this size
    int max_files;      // rotated files kept
    bool eod_rotate;    // rotate at the end of each day
    bool batch_writes;  // one write per event-loop pass instead of one per record
};

struct rt_cfg {
    char pidfile[128];
    char user[32]; // account to run as; empty keeps the current one
    bool non_daemon;
    bool quiet;
    bool enforce_core_dumps;
    int cpunum; // CPU to pin to, -1 for none
};

// One listening endpoint.
struct rui_listener_cfg {
    bool is_valid;
    char alias[32];      // display name
    size_t index;        // 1-based position in its list
    ifc_info* ifc;       // owned; null means any address
    char port[6];
    int pref_af;         // 0 any, AF_INET, AF_INET6, -1 unknown
    char domain_path[104]; // non-empty: a Unix-domain listener
    int proto;           // IPPROTO_TCP or IPPROTO_UDP
    n32_tag kind;        // for example "Web" for a command-line listener
    size_t max_queued;   // live requests it holds; 0 (a listener from the command line) is
                         // RUI_DEFAULT_QUEUED
    int backlog;         // connections the kernel queues before they are accepted; 0 (a
                         // listener from the command line) is the built-in 128
    bool keep_alive;     // a web client answered 200 or 204 may send its next request on the
                         // same connection; false: one request per connection
    int keep_alive_idle_ms; // how long a kept connection may wait for that request; 0: the
                            // request time-out
};

struct rui_cfg {
    rui_listener_cfg user[RUI_LISTENER_SLOTS];
    rui_listener_cfg admin[RUI_LISTENER_SLOTS];
    rui_listener_cfg custom[RUI_LISTENER_SLOTS];
    size_t max_accept;
    int user_request_tmout; // milliseconds
    int admin_request_tmout;
    int custom_request_tmout;
};

// Section readers: 0, or the first failure (-1 or the string helper's -1). Messages of the log
// section go to standard error (the log is not open yet when it is read); the others to the log.
[[nodiscard]] int load_log_config(const config_setting_t* setting, log_cfg* cfg);
[[nodiscard]] int load_rt_config(const config_setting_t* setting, rt_cfg* cfg);

// Reads one listener (a group, into slots[0]) or a list of up to RUI_LISTENER_SLOTS (further
// elements are ignored) from `setting`; any other setting type loads nothing. 0, or the code of
// the first listener that failed.
[[nodiscard]] int get_listeners(const char* kind_name, const config_setting_t* setting,
                                rui_listener_cfg slots[RUI_LISTENER_SLOTS]);
// Reads one listener; 0 sets `is_valid`, a failure frees what was allocated and leaves the slot
// invalid (-1).
[[nodiscard]] int load_listener_from(const config_setting_t* setting, rui_listener_cfg* l);

// Hands the rotation settings to the logger.
void apply_log_config(log_ctx* log, const log_cfg* cfg);

// Case-insensitive names "raw", "raw_mono", "no_time", "gmt", "local"; anything else gives
// f_BAD_TIME.
int32_t str_to_timefmt(const char* name);
const char* timefmt_str(int32_t flags);

// True when the text is a decimal number from 1 to 65535.
bool is_valid_port(const char* text);
// "tcp" gives IPPROTO_TCP, "udp" IPPROTO_UDP (case-insensitive), anything else -1.
int str2proto(const char* name);

// Reads an interface name by full key path and checks that it names an IPv4 or IPv6 interface,
// unless it is empty, "all" or "any". 0 or -1.
[[nodiscard]] int load_interface_name(const char* key, char* dst, size_t size);

void dump_log_config(FILE* stream, const char* name, const log_cfg* cfg, const log_ctx* log);
void dump_rt_config(FILE* stream, const rt_cfg* cfg);
void dump_listener(FILE* stream, const char* kind_name, const rui_listener_cfg* l);
void dump_rui_config(FILE* stream, const rui_cfg* cfg);
