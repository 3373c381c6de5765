// Readers and dumpers of the configuration sections shared by the servers of the family: log,
// runtime and listeners.
#include "appcfg.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include "config.h"
#include "netops.h"

LOG_MODULE(0, -1);

// Reads a boolean member; `dflt` when it is absent or not a boolean.
static bool lookup_bool(const config_setting_t* setting, const char* key, bool dflt)
{
    int value = 0;
    if (config_setting_lookup_bool(setting, key, &value) != CONFIG_TRUE)
        return dflt;
    return value != 0;
}

// Reads a member that must be true or false when present; an absent one leaves `*value` as it is.
// False when the member is there but not a boolean: the caller says which key it was.
static bool lookup_strict_bool(const config_setting_t* setting, const char* key, bool* value)
{
    const config_setting_t* b = config_setting_get_member(setting, key);
    if (!b)
        return true;
    if (config_setting_type(b) != CONFIG_TYPE_BOOL)
        return false;
    *value = config_setting_get_bool(b) != 0;
    return true;
}

static int lookup_int(const config_setting_t* setting, const char* key, int dflt)
{
    int value = 0;
    if (config_setting_lookup_int(setting, key, &value) != CONFIG_TRUE)
        return dflt;
    return value;
}

// Interface words that stand for every address.
static bool is_anyaddr_word(const char* name)
{
    return !name[0] || !strcasecmp(name, "all") || !strcasecmp(name, "any");
}

static const char* af_name(int af)
{
    switch (af) {
    case AF_INET:
        return "inet";
    case AF_INET6:
        return "inet6";
    case 0:
        return "any";
    default:
        return "unknown";
    }
}

int load_log_config(const config_setting_t* setting, log_cfg* cfg)
{
    if (load_config_setting_str(setting, "file", cfg->path, 127, ""))
        return -1;

    char text[15];
    if (load_config_setting_str(setting, "level", text, sizeof(text), "info"))
        return -1;
    if (match_log_level(text, &cfg->level)) {
        fprintf(stderr, "Invalid log level: %s\n", text);
        return -1;
    }

    if (load_config_setting_str(setting, "time_format", text, sizeof(text), "local"))
        return -1;
    const int32_t fmt = str_to_timefmt(text);
    if (fmt == static_cast<int32_t>(f_BAD_TIME)) {
        fprintf(stderr, "Invalid time format: %s\n", text);
        return -1;
    }
    cfg->timefmt = fmt;

    cfg->max_size_mb = lookup_int(setting, "max_size_mb", 64);
    cfg->max_files = lookup_int(setting, "max_files", 16);
    // Syslog copies are on unless switched off; daily rotation is off unless switched on.
    cfg->enable_syslog = lookup_bool(setting, "enable_syslog", true);
    cfg->eod_rotate = lookup_bool(setting, "eod_rotate", false);
    // Off unless asked for: a record is written the moment it is made, so that a crash the
    // logger cannot see (a segmentation fault, a kill) loses nothing.
    cfg->batch_writes = false;
    if (!lookup_strict_bool(setting, "batch_writes", &cfg->batch_writes)) {
        fprintf(stderr, "Invalid log batch_writes: must be true or false\n");
        return -1;
    }
    return 0;
}

int load_rt_config(const config_setting_t* setting, rt_cfg* cfg)
{
    if (load_config_setting_str(setting, "pidfile", cfg->pidfile, 127, ""))
        return -1;
    cfg->non_daemon = lookup_bool(setting, "non_daemon", false);
    cfg->quiet = lookup_bool(setting, "quiet", false);
    cfg->enforce_core_dumps = lookup_bool(setting, "enforce_core_dumps", true);
    cfg->cpunum = lookup_int(setting, "cpunum", -1);
    if (load_config_setting_str(setting, "run_as_user", cfg->user, 31, ""))
        return -1;
    return 0;
}

int get_listeners(const char* kind_name, const config_setting_t* setting,
                  rui_listener_cfg slots[RUI_LISTENER_SLOTS])
{
    size_t count = 0;
    if (setting && config_setting_is_group(setting)) {
        const int rc = load_listener_from(setting, &slots[0]);
        if (rc)
            return rc;
        slots[0].index = 1;
        count = 1;
    } else if (setting && config_setting_is_list(setting)) {
        const int len = config_setting_length(setting);
        for (int i = 0; i < len && count < RUI_LISTENER_SLOTS; ++i) {
            const int rc = load_listener_from(config_setting_get_elem(setting, i), &slots[count]);
            if (rc)
                return rc;
            slots[count].index = count + 1;
            ++count;
        }
    }
    zlogf(L_DEBUG, "%s: %lu %s listeners loaded\n", static_cast<unsigned long>(count), kind_name);
    return 0;
}

// Looks the interface up for the listener's address family; null after logging when it fails.
static ifc_info* find_listener_ifc(const rui_listener_cfg* l, const char* ifc, const char* af_text)
{
    ifc_info* found = nullptr;
    if (l->pref_af != 0) {
        found = get_ifc_info(l->pref_af, ifc);
        if (!found)
            zlog(L_ERR, "%s: [%s] failed the check for [%s] interface name\n",
                 "load_listener_from", l->alias, af_text);
    } else {
        found = get_ifc_info(AF_INET, ifc);
        if (!found)
            found = get_ifc_info(AF_INET6, ifc);
        if (!found)
            zlog(L_ERR, "%s: [%s] failed the check for IPv4/v6 interface name\n",
                 "load_listener_from", l->alias);
    }
    if (!found)
        zlog(L_ERR, "invalid network interface name/address: %s\n", ifc);
    return found;
}

// Reads "port" as an integer or a string into the listener; 0 or -1.
static int load_listener_port(const config_setting_t* setting, rui_listener_cfg* l)
{
    int num = 0;
    if (config_setting_lookup_int(setting, "port", &num) == CONFIG_TRUE) {
        // A number too wide for the field is refused rather than cut to a different port.
        char text[24];
        const int n = snprintf(text, sizeof(text), "%ld", static_cast<long>(num));
        if (n < 0 || static_cast<size_t>(n) >= sizeof(l->port)) {
            zlog(L_ERR, "%s: invalid port value: [%s]\n", "load_listener_from", text);
            return -1;
        }
        std::memcpy(l->port, text, static_cast<size_t>(n) + 1);
    } else if (load_config_setting_str(setting, "port", l->port, sizeof(l->port), "")) {
        return -1;
    }
    if (!is_valid_port(l->port)) {
        zlog(L_ERR, "%s: invalid port value: [%s]\n", "load_listener_from", l->port);
        return -1;
    }
    return 0;
}

// The group a listener stands in ("web_input", "admin_input"), for its errors: a listener of a
// list has no name of its own.
static const char* listener_group(const config_setting_t* setting)
{
    const char* group = config_setting_name(setting);
    if (!group && config_setting_parent(setting))
        group = config_setting_name(config_setting_parent(setting));
    return group ? group : "web_input";
}

// Reads the listener's integer `key` into `*value`, which keeps `dflt` when the key is absent; a
// value outside lo..hi is refused.
static int load_listener_int(const config_setting_t* setting, const char* key, int dflt, int lo,
                             int hi, int* value)
{
    int num = 0;
    *value = dflt;
    if (config_setting_lookup_int(setting, key, &num) != CONFIG_TRUE)
        return 0;
    if (num < lo || num > hi) {
        zlog(L_ERR, "%s: %s.%s = %d is out of range (%d..%d)\n", "load_listener_from",
             listener_group(setting), key, num, lo, hi);
        return -1;
    }
    *value = num;
    return 0;
}

static int load_listener_body(const config_setting_t* setting, rui_listener_cfg* l)
{
    if (load_config_setting_str(setting, "alias", l->alias, sizeof(l->alias), ""))
        return -1;
    // max_queued: the live requests it holds; backlog: the connections the kernel queues for it.
    int max_queued = 0;
    if (load_listener_int(setting, "max_queued", RUI_DEFAULT_QUEUED, 1, RUI_MAX_QUEUED_LIMIT,
                          &max_queued) ||
        load_listener_int(setting, "backlog", RUI_DEFAULT_BACKLOG, 1, RUI_MAX_BACKLOG, &l->backlog))
        return -1;
    l->max_queued = static_cast<size_t>(max_queued);
    // Off unless asked for: then every connection carries one request and is closed after it.
    if (!lookup_strict_bool(setting, "keep_alive", &l->keep_alive)) {
        zlog(L_ERR, "%s: %s.keep_alive must be true or false\n", "load_listener_from",
             listener_group(setting));
        return -1;
    }
    // Absent: a kept connection waits no longer than any request for its head.
    if (load_listener_int(setting, "keep_alive_idle_ms", 0, 1, RUI_MAX_KEEP_IDLE_MS,
                          &l->keep_alive_idle_ms))
        return -1;
    char text[16];
    if (load_config_setting_str(setting, "protocol", text, 15, "tcp"))
        return -1;
    l->proto = str2proto(text);
    if (l->proto < 0) {
        zlog(L_ERR, "%s: invald protocol for [%s]: %s\n", "load_listener_from", l->alias, text);
        return -1;
    }

    if (load_config_setting_str(setting, "domain_path", l->domain_path, 103, ""))
        return -1;
    if (l->domain_path[0])
        return 0;

    char af_text[16];
    if (load_config_setting_str(setting, "default_af", af_text, sizeof(af_text), ""))
        return -1;
    l->pref_af = name2af(af_text);
    // An unknown family ends the listener here without an address or a port, and the listener
    // still counts as valid; the listener manager is left to refuse it.
    if (l->pref_af == -1)
        return 0;

    char ifc[16];
    if (load_config_setting_str(setting, "ifc", ifc, sizeof(ifc), ""))
        return -1;
    if (!is_anyaddr_word(ifc)) {
        l->ifc = find_listener_ifc(l, ifc, af_text);
        if (!l->ifc)
            return -1;
    }

    if (load_listener_port(setting, l))
        return -1;

    if (!l->alias[0])
        snprintf(l->alias, sizeof(l->alias), "%s:%s", l->ifc ? l->ifc->name : "all", l->port);
    return 0;
}

int load_listener_from(const config_setting_t* setting, rui_listener_cfg* l)
{
    // The slot is either zeroed or holds an earlier result whose interface record is ours.
    std::free(l->ifc);
    std::memset(l, 0, sizeof(*l));
    if (load_listener_body(setting, l)) {
        std::free(l->ifc);
        l->ifc = nullptr;
        l->is_valid = false;
        return -1;
    }
    l->is_valid = true;
    return 0;
}

void apply_log_config(log_ctx* log, const log_cfg* cfg)
{
    const size_t max_bytes =
        cfg->max_size_mb > 0 ? static_cast<size_t>(cfg->max_size_mb) * 1048576u : 0;
    log_set_rota(log, max_bytes, cfg->max_files, cfg->eod_rotate ? time(nullptr) : 0);
    log_set_batching(log, cfg->batch_writes);
}

int32_t str_to_timefmt(const char* name)
{
    if (name) {
        if (!strcasecmp(name, "raw"))
            return f_RAW_TIME;
        if (!strcasecmp(name, "raw_mono"))
            return f_RAW_TIME | f_MONOTONIC_TIMER;
        if (!strcasecmp(name, "no_time"))
            return f_NO_TIME;
        if (!strcasecmp(name, "gmt"))
            return f_GMT_TIME;
        if (!strcasecmp(name, "local"))
            return 0;
    }
    return static_cast<int32_t>(f_BAD_TIME);
}

const char* timefmt_str(int32_t flags)
{
    const auto f = static_cast<uint32_t>(flags);
    if (f & f_BAD_TIME)
        return "#error#";
    if (f & f_RAW_TIME)
        return (f & f_MONOTONIC_TIMER) ? "raw_mono" : "raw";
    if (f & f_NO_TIME)
        return "no_time";
    return (f & f_GMT_TIME) ? "gmt" : "local";
}

bool is_valid_port(const char* text)
{
    if (!text || !text[0])
        return false;
    long value = 0;
    for (const char* p = text; *p; ++p) {
        if (*p < '0' || *p > '9')
            return false;
        value = value * 10 + (*p - '0');
        if (value > 65535)
            return false;
    }
    return value >= 1;
}

int str2proto(const char* name)
{
    if (name && !strcasecmp(name, "tcp"))
        return IPPROTO_TCP;
    if (name && !strcasecmp(name, "udp"))
        return IPPROTO_UDP;
    return -1;
}

int load_interface_name(const char* key, char* dst, size_t size)
{
    if (load_config_str(key, dst, size, ""))
        return -1;
    if (is_anyaddr_word(dst))
        return 0;
    ifc_info* ifi = get_ifc_info(AF_INET, dst);
    if (!ifi)
        ifi = get_ifc_info(AF_INET6, dst);
    if (!ifi) {
        zlogf(L_ERR, "%s: cannot verify ifc=[%s] for IPv4 or IPv6\n", dst);
        return -1;
    }
    std::free(ifi);
    return 0;
}

void dump_log_config(FILE* stream, const char* name, const log_cfg* cfg, const log_ctx* log)
{
    fprintf(stream, "Log (%s):\n", (name && name[0]) ? name : "regular");
    fprintf(stream, "\tpath   = %s\n", cfg->path);
    fprintf(stream, "\tlevel  = %s\n", log_level_str(cfg->level));
    fprintf(stream, "\tformat = %s\n", timefmt_str(cfg->timefmt));
    if (cfg->max_size_mb >= 1 || cfg->eod_rotate) {
        fprintf(stream, "\trota:max size   = %d Mb\n", cfg->max_size_mb);
        fprintf(stream, "\trota:max files  = %d\n", cfg->max_files);
        fprintf(stream, "\trota:end-of-day = %s (%ld)\n", cfg->eod_rotate ? "ON" : "off",
                log ? static_cast<long>(log_rota_eod(log)) : 0L);
    }
    if (cfg->batch_writes)
        fprintf(stream, "\twrites = batched, one per loop pass\n");
    fputs("\n", stream);
}

void dump_rt_config(FILE* stream, const rt_cfg* cfg)
{
    fputs("Runtime:\n", stream);
    if (cfg->pidfile[0])
        fprintf(stream, "\tpid file = %s\n", cfg->pidfile);
    if (cfg->user[0])
        fprintf(stream, "\trun as user: %s\n", cfg->user);
    if (cfg->cpunum >= 0)
        fprintf(stream, "\tCPU: %d\n", cfg->cpunum);
    fprintf(stream, "\tflags:%s%s%s\n", cfg->non_daemon ? " [non-daemon]" : "",
            cfg->quiet ? " [quiet]" : "", cfg->enforce_core_dumps ? " [cores]" : "");
    fputs("\n", stream);
}

void dump_listener(FILE* stream, const char* kind_name, const rui_listener_cfg* l)
{
    if (l->domain_path[0])
        fprintf(stream, "\t%s listener[%s]: path=%s\n", kind_name, l->alias, l->domain_path);
    else
        fprintf(stream, "\t%s listener[%s]: ifc=%s, af=%s port=%s\n", kind_name, l->alias,
                l->ifc ? l->ifc->name : "<anyaddr>", af_name(l->pref_af), l->port);
    if (l->backlog && l->backlog != RUI_DEFAULT_BACKLOG)
        fprintf(stream, "\t%s listener[%s]: backlog=%d\n", kind_name, l->alias, l->backlog);
    if (l->keep_alive && l->keep_alive_idle_ms > 0)
        fprintf(stream, "\t%s listener[%s]: keep_alive=yes, idle=%d ms\n", kind_name, l->alias,
                l->keep_alive_idle_ms);
    else if (l->keep_alive)
        fprintf(stream, "\t%s listener[%s]: keep_alive=yes\n", kind_name, l->alias);
}

// Prints the valid listeners of one type up to the first invalid slot; returns how many.
static size_t dump_listener_slots(FILE* stream, const char* kind_name,
                                  const rui_listener_cfg slots[RUI_LISTENER_SLOTS])
{
    size_t n = 0;
    for (; n < RUI_LISTENER_SLOTS && slots[n].is_valid; ++n)
        dump_listener(stream, kind_name, &slots[n]);
    return n;
}

void dump_rui_config(FILE* stream, const rui_cfg* cfg)
{
    fputs("Listeners:\n", stream);
    if (dump_listener_slots(stream, "user", cfg->user))
        fputs("\n", stream);
    dump_listener_slots(stream, "admin", cfg->admin);
    dump_listener_slots(stream, "custom", cfg->custom);
    fputs("\n", stream);
    if (cfg->max_accept)
        fprintf(stream, "\tmax-accepted=%ld\n", static_cast<long>(cfg->max_accept));
    fprintf(stream, "\tI/O timeouts: user-rq=%d, admin-rq=%d custom-rq=%d\n",
            cfg->user_request_tmout, cfg->admin_request_tmout, cfg->custom_request_tmout);
    fputs("\n", stream);
}
