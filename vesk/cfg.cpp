// The agent's configuration: defaults, the reader of the "vesk" group, command-line listeners,
// the final check and the dump of the effective settings.
#include "cfg.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <arpa/inet.h>
#include <netinet/in.h>

#include "config.h"
#include "log.h"
#include "netops.h"
#include "util.h"

LOG_MODULE(0, -1);

static vesk_cfg g_vesk_cfg;
vesk_cfg* const g_cfg = &g_vesk_cfg;

static const char k_dump_rule[] = "-----------------------------------\n";

int init_vesk_config(vesk_cfg* cfg)
{
    std::memset(cfg, 0, sizeof(*cfg));
    cfg->log.level = L_INFO;
    cfg->log.timefmt = 0;
    cfg->log.enable_syslog = false;
    cfg->log.max_size_mb = D_MAX_LOGSZ;
    cfg->log.max_files = D_MAX_FILES;
    cfg->rt.cpunum = 0;
    cfg->max_tasks = 0;
    cfg->task_tmout_ms = D_DW_TMOUT_MS;
    cfg->resolve_tmout_ms = D_RESOLVE_TMOUT_MS;
    cfg->src_pool_max = D_SRC_POOL_MAX;
    cfg->src_pool_idle_ms = D_SRC_POOL_IDLE_MS;
    cfg->write_through_backlog = D_WRITE_THROUGH_BACKLOG;
    cfg->lbdb.max_pending = LBQ_D_MAX_PENDING;
    cfg->udp_cha.lock_backend = LOCK_BACKEND_FILE;
    snprintf(cfg->udp_cha.lock_prefix, sizeof(cfg->udp_cha.lock_prefix), "%s", D_LOCK_PREFIX);
    // Listeners given only with -w/-W must still accept connections: without a web_input group
    // nothing else would set the accept batch.
    cfg->rui.max_accept = D_MAX_ACCEPT;
    snprintf(cfg->data_dir, sizeof(cfg->data_dir), "%s", "/tmp");
    return 0;
}

static int lookup_int(const config_t* lc, const char* path, int dflt)
{
    int value = 0;
    if (config_lookup_int(lc, path, &value) != CONFIG_TRUE)
        return dflt;
    return value;
}

// An integer key that must lie in lo..hi when present; 0, or -1 after naming the key (logged).
static int lookup_ranged_int(const char* caller, const config_t* lc, const char* path, int dflt,
                             int lo, int hi, int* value)
{
    *value = dflt;
    const config_setting_t* st = config_lookup(lc, path);
    if (!st)
        return 0;
    if (config_setting_type(st) != CONFIG_TYPE_INT) {
        zlog(L_ERR, "%s: %s must be an integer\n", caller, path);
        return -1;
    }
    *value = config_setting_get_int(st);
    if (*value < lo || *value > hi) {
        zlog(L_ERR, "%s: invalid %s value: %d (allowed %d..%d)\n", caller, path, *value, lo, hi);
        return -1;
    }
    return 0;
}

// A key that must be true or false when present (absent: false); 0, or -1 after naming the key.
static int lookup_strict_bool(const char* caller, const config_t* lc, const char* path, bool* value)
{
    *value = false;
    const config_setting_t* st = config_lookup(lc, path);
    if (!st)
        return 0;
    if (config_setting_type(st) != CONFIG_TYPE_BOOL) {
        zlog(L_ERR, "%s: %s must be true or false\n", caller, path);
        return -1;
    }
    *value = config_setting_get_bool(st) != 0;
    return 0;
}

static bool lookup_member_bool(const config_setting_t* setting, const char* key, bool dflt)
{
    int value = 0;
    if (config_setting_lookup_bool(setting, key, &value) != CONFIG_TRUE)
        return dflt;
    return value != 0;
}

static int load_udp_input(const config_setting_t* s, udp_lstn_cfg* udp)
{
    // A refused (too long) URL leaves the field empty, so it is reported as missing.
    (void)load_config_setting_str(s, "url", udp->url, 127, "");
    if (!udp->url[0]) {
        zlog(L_ERR, "%s: missing url for UDP channel\n", "load_config");
        return -1;
    }
    udp->is_gzipped = lookup_member_bool(s, "is_gzipped", true);
    (void)load_config_setting_str(s, "mcast_ifc", udp->mifc, 31, "");
    udp->must_lock = lookup_member_bool(s, "must_lock", true);
    if (udp->must_lock)
        (void)load_config_setting_str(s, "lock_dir", udp->lkdir, 127, "/tmp");

    if (const config_setting_t* b = config_setting_get_member(s, "lock_backend")) {
        const char* v = config_setting_get_string(b);
        if (v && std::strcmp(v, "file") == 0) {
            udp->lock_backend = LOCK_BACKEND_FILE;
        } else if (v && std::strcmp(v, "redis") == 0) {
            udp->lock_backend = LOCK_BACKEND_REDIS;
        } else {
            zlog(L_ERR, "%s: vesk.udp_input.lock_backend must be \"file\" or \"redis\"\n",
                 "load_config");
            return -1;
        }
    }
    if (const config_setting_t* p = config_setting_get_member(s, "lock_prefix")) {
        const char* v = config_setting_get_string(p);
        // A cut prefix would put the locks of this agent under other keys than its peers' own.
        if (!v || std::strlen(v) >= sizeof(udp->lock_prefix)) {
            zlog(L_ERR, "%s: vesk.udp_input.lock_prefix must be a string of at most %zu "
                        "characters\n",
                 "load_config", sizeof(udp->lock_prefix) - 1);
            return -1;
        }
        snprintf(udp->lock_prefix, sizeof(udp->lock_prefix), "%s", v);
    }
    return 0;
}

// Reads one access list, a list or array of strings: prefixes, and host-name patterns too when
// `hosts_too`. Absent or empty it admits everyone. A value of another shape or a bad entry fails
// the load with the key and the entry named, so a typing error cannot silently open the agent up.
static int load_acl(const config_t* lc, const char* key, bool hosts_too, acl_list* list)
{
    std::memset(list, 0, sizeof(*list));
    const config_setting_t* st = config_lookup(lc, key);
    if (!st)
        return 0;
    const int type = config_setting_type(st);
    if (type != CONFIG_TYPE_ARRAY && type != CONFIG_TYPE_LIST) {
        zlog(L_ERR, "%s: %s must be a list of strings\n", "load_config", key);
        return -1;
    }
    const int n = config_setting_length(st);
    for (int i = 0; i < n; ++i) {
        const config_setting_t* e = config_setting_get_elem(st, static_cast<unsigned>(i));
        const char* text = e ? config_setting_get_string(e) : nullptr;
        if (!text) {
            zlog(L_ERR, "%s: %s: entry %d is not a string\n", "load_config", key, i + 1);
            return -1;
        }
        const char* why = "";
        if (acl_add(list, text, hosts_too, &why) != 0) {
            zlog(L_ERR, "%s: %s: bad entry [%s]: %s\n", "load_config", key, text, why);
            return -1;
        }
    }
    acl_finish(list);
    return 0;
}

static void dump_acl(FILE* stream, const char* title, const acl_list* list)
{
    if (acl_is_empty(list))
        return;
    fprintf(stream, "\t%-20s =", title);
    char text[INET6_ADDRSTRLEN + 8];
    for (size_t i = 0; i < list->npfx; ++i)
        fprintf(stream, " %s", acl_prefix_str(&list->pfx[i], text, sizeof text));
    for (size_t i = 0; i < list->nhosts; ++i)
        fprintf(stream, " %s", list->hosts[i]);
    fputs("\n", stream);
}

// The groups read only at the first load: log, runtime, UDP input, web input, DB.
static int load_sections(const config_t* lc, vesk_cfg* cfg)
{
    const config_setting_t* s = config_lookup(lc, "vesk.log");
    if (!s) {
        zlog(L_ERR, "%s: missing log section\n", "load_config");
        return -1;
    }
    int rc = load_log_config(s, &cfg->log);
    if (rc)
        return rc;

    s = config_lookup(lc, "vesk.runtime");
    if (!s) {
        zlog(L_ERR, "%s: missing runtime section\n", "load_config");
        return -1;
    }
    rc = load_rt_config(s, &cfg->rt);
    if (rc)
        return rc;

    s = config_lookup(lc, "vesk.udp_input");
    if (s && load_udp_input(s, &cfg->udp_cha))
        return -1;

    s = config_lookup(lc, "vesk.web_input");
    if (s) {
        rc = get_listeners("web", s, cfg->rui.user);
        if (rc) {
            zlog(L_ERR, "%s: failed to load web listener(s)\n", "load_config");
            return rc;
        }
        int max_accept = 0;
        if (config_setting_lookup_int(s, "max_accept", &max_accept) != CONFIG_TRUE)
            max_accept = D_MAX_ACCEPT;
        // None per cycle never drains the queue, and the level-triggered listener comes back at
        // once: the agent would spin. Above the limit one listener starves the rest of the loop.
        if (max_accept < 1 || max_accept > static_cast<int>(D_MAX_ACCEPT_LIMIT)) {
            zlog(L_ERR, "%s: vesk.web_input.max_accept = %d is out of range (1..%d)\n",
                 "load_config", max_accept, static_cast<int>(D_MAX_ACCEPT_LIMIT));
            return -1;
        }
        cfg->rui.max_accept = static_cast<size_t>(max_accept);
        cfg->rui.user_request_tmout = D_URQ_TMOUT_MS;
    }

    if (load_acl(lc, "vesk.allow_clients", false, &cfg->allow_clients) ||
        load_acl(lc, "vesk.allow_sources", true, &cfg->allow_sources) ||
        load_acl(lc, "vesk.deny_sources", false, &cfg->deny_sources))
        return -1;

    // The admin listeners answer /metrics and /status; none without the group.
    s = config_lookup(lc, "vesk.admin_input");
    if (s) {
        const int type = config_setting_type(s);
        if (type != CONFIG_TYPE_GROUP && type != CONFIG_TYPE_LIST) {
            zlog(L_ERR, "%s: vesk.admin_input must be a listener group or a list of them\n",
                 "load_config");
            return -1;
        }
        rc = get_listeners("admin", s, cfg->rui.admin);
        if (rc || !cfg->rui.admin[0].is_valid) {
            zlog(L_ERR, "%s: failed to load admin listener(s) of vesk.admin_input\n",
                 "load_config");
            return rc ? rc : -1;
        }
        cfg->rui.admin_request_tmout = D_URQ_TMOUT_MS;
    }

    s = config_lookup(lc, "vesk.lbdb");
    if (s && (rc = load_lbdb_cfg(s, &cfg->lbdb)) != 0)
        return rc;
    // Locks in Redis travel on the registry's link; without it there is nowhere to keep them.
    if (cfg->udp_cha.url[0] && cfg->udp_cha.must_lock &&
        cfg->udp_cha.lock_backend == LOCK_BACKEND_REDIS && cfg->lbdb.port <= 0) {
        zlog(L_ERR, "%s: vesk.udp_input.lock_backend = \"redis\" needs the vesk.lbdb group "
                    "with a port\n",
             "load_config");
        return -1;
    }
    return 0;
}

int load_config(vesk_cfg* cfg, int is_reload)
{
    const config_t* lc = config_current();
    ZASSERT(lc);
    if (!is_reload) {
        const int rc = load_sections(lc, cfg);
        if (rc)
            return rc;
    }

    (void)load_config_str("vesk.data_dir", cfg->data_dir, 127, "/tmp");
    if (dir_check(cfg->data_dir, 1)) {
        zlogf(L_ERR, "%s: cannot accept [%s] as %s\n", cfg->data_dir, "vesk.data_dir");
        return -1;
    }

    (void)load_config_str("vesk.local_url_prefix", cfg->seg_url_pfx, 127, "");
    const size_t pfx_len = std::strlen(cfg->seg_url_pfx);
    if (pfx_len > 0 && cfg->seg_url_pfx[pfx_len - 1] == '/')
        cfg->seg_url_pfx[pfx_len - 1] = '\0';
    // Checked after the slash is cut: a prefix of "/" alone would leave nothing to publish under.
    if (cfg->lbdb.port != 0 && !cfg->seg_url_pfx[0]) {
        zlogf(L_ERR, "%s: %s must be set for lbdb-enabled mode\n", "vesk.local_url_prefix");
        return -1;
    }

    // Integers are taken as the file gives them; no range is enforced.
    cfg->urq_tmout_sec = lookup_int(lc, "vesk.urq_tmout_sec", D_URQ_TMOUT_MS / 1000);
    cfg->max_tasks = static_cast<size_t>(lookup_int(lc, "vesk.max_tasks", D_MAX_TASKS));
    cfg->task_tmout_ms = static_cast<size_t>(lookup_int(lc, "vesk.task_tmout_ms", D_DW_TMOUT_MS));
    const int mmap_mb = lookup_int(lc, "vesk.max_mmap_mb", D_MAX_MMAP_MB);
    // A negative size would wrap to a huge one and map every file, however large.
    if (mmap_mb < 0) {
        zlogf(L_ERR, "%s: invalid %s value: %d (allowed 0 and above)\n", "vesk.max_mmap_mb",
              mmap_mb);
        return -1;
    }
    cfg->max_mmap_mb = static_cast<size_t>(mmap_mb);
    const int rsv_ms = lookup_int(lc, "vesk.resolve_tmout_ms", D_RESOLVE_TMOUT_MS);
    const config_setting_t* rsv_set = config_lookup(lc, "vesk.resolve_tmout_ms");
    if (rsv_set && config_setting_type(rsv_set) != CONFIG_TYPE_INT) {
        zlogf(L_ERR, "%s: %s must be an integer\n", "vesk.resolve_tmout_ms");
        return -1;
    }
    if (rsv_ms < 1 || rsv_ms > 600000) {
        zlogf(L_ERR, "%s: invalid %s value: %d (allowed 1..600000)\n", "vesk.resolve_tmout_ms",
              rsv_ms);
        return -1;
    }
    cfg->resolve_tmout_ms = rsv_ms;
    int pool_max = 0;
    int pool_idle = 0;
    if (lookup_ranged_int(__func__, lc, "vesk.src_pool_max", D_SRC_POOL_MAX, 0,
                          D_SRC_POOL_MAX_LIMIT, &pool_max) ||
        lookup_ranged_int(__func__, lc, "vesk.src_pool_idle_ms", D_SRC_POOL_IDLE_MS, 1, 600000,
                          &pool_idle))
        return -1;
    cfg->src_pool_max = static_cast<size_t>(pool_max);
    cfg->src_pool_idle_ms = pool_idle;

    if (lookup_strict_bool(__func__, lc, "vesk.end_stalled_tasks", &cfg->end_stalled_tasks))
        return -1;
    if (cfg->end_stalled_tasks && (cfg->task_tmout_ms < 1 || cfg->task_tmout_ms > INT_MAX)) {
        zlogf(L_ERR, "%s: %s must be at least 1 with vesk.end_stalled_tasks\n",
              "vesk.task_tmout_ms");
        return -1;
    }

    if (lookup_strict_bool(__func__, lc, "vesk.splice_to_file", &cfg->splice_to_file))
        return -1;
    if (lookup_strict_bool(__func__, lc, "vesk.reserve_in_worker", &cfg->reserve_in_worker))
        return -1;
    if (lookup_ranged_int(__func__, lc, "vesk.write_through_backlog", D_WRITE_THROUGH_BACKLOG, 0,
                          D_WRITE_THROUGH_BACKLOG_LIMIT, &cfg->write_through_backlog))
        return -1;

    if (is_reload)
        zlogf(L_INFO, "%s: configuration re-loaded\n");
    return 0;
}

int load_vesk_config(const char* path, vesk_cfg* cfg, uint32_t flags)
{
    config_t lc;
    config_init(&lc);
    FILE* fp = fopen(path, "r");
    if (!fp) {
        fprintf(stderr, "Failed to load [%s]\n", path);
        config_destroy(&lc);
        return -1;
    }

    int rc = 0;
    if (config_read(&lc, fp) != CONFIG_TRUE) {
        zlog(L_ERR, "Error reading/parsing config file [%s]: line %d: %s\n", path,
             config_error_line(&lc), config_error_text(&lc));
        rc = -1;
    } else {
        snprintf(cfg->config_path, sizeof(cfg->config_path), "%s", path);
        config_set_current(&lc);
        rc = load_config(cfg, static_cast<int>(flags & 0xFF));
        config_set_current(nullptr);
    }

    fclose(fp);
    config_destroy(&lc);
    if (rc)
        zlog(L_ERR, "%s: FAILED (%d)\n", "load_vesk_config", rc);
    return rc;
}

void dump_vesk_config(FILE* stream, const vesk_cfg* cfg)
{
    fputs(k_dump_rule, stream);
    dump_log_config(stream, "", &cfg->log, g_log);
    dump_rt_config(stream, &cfg->rt);
    dump_rui_config(stream, &cfg->rui);

    const udp_lstn_cfg* udp = &cfg->udp_cha;
    if (udp->url[0])
        fprintf(stream, "\tUDP input            = [%s] ifc=%s fmt=%s lk=[%s]\n", udp->url,
                udp->mifc[0] ? udp->mifc : "all", udp->is_gzipped ? "gzip" : "text",
                udp->must_lock ? udp->lkdir : "none");
    if (udp->url[0] && udp->must_lock && udp->lock_backend == LOCK_BACKEND_REDIS)
        fprintf(stream, "\tUDP locks            = redis, keys [%s<lock id>]\n", udp->lock_prefix);

    fputs("Misc:\n", stream);
    fprintf(stream, "\tdata directory       = [%s]\n", cfg->data_dir);
    fprintf(stream, "\trequest time-out     = %d sec\n", cfg->urq_tmout_sec);
    fprintf(stream, "\tmax tasks            = %zu %s\n", cfg->max_tasks,
            cfg->max_tasks ? "" : "(unlimited)");
    fprintf(stream, "\ttask time-out        = %zu ms\n", cfg->task_tmout_ms);
    if (cfg->end_stalled_tasks)
        fprintf(stream, "\tstalled tasks        = ended after the task time-out\n");
    fprintf(stream, "\tmmap up to           = %zu MB\n", cfg->max_mmap_mb);
    if (cfg->seg_url_pfx[0])
        fprintf(stream, "\tlocal URL prefix     = %s\n", cfg->seg_url_pfx);
    if (cfg->resolve_tmout_ms != D_RESOLVE_TMOUT_MS)
        fprintf(stream, "\tlook-up time-out     = %ld ms\n", cfg->resolve_tmout_ms);
    if (cfg->splice_to_file)
        fprintf(stream, "\tplain writes         = spliced from the socket\n");
    if (cfg->reserve_in_worker)
        fprintf(stream, "\tfile reservations    = in a kernel worker\n");
    if (cfg->reserve_in_worker && cfg->write_through_backlog)
        fprintf(stream, "\twritten through from = %d reservations per worker\n",
                cfg->write_through_backlog);
    if (cfg->src_pool_max)
        fprintf(stream, "\tidle source pool     = %zu connections, %ld ms\n", cfg->src_pool_max,
                cfg->src_pool_idle_ms);
    dump_acl(stream, "allowed clients", &cfg->allow_clients);
    dump_acl(stream, "allowed sources", &cfg->allow_sources);
    dump_acl(stream, "denied sources", &cfg->deny_sources);
    fputs("\n", stream);

    if (cfg->lbdb.port > 0) {
        fprintf(stream, "Load-balancer DB: %s:%d\n", cfg->lbdb.host, cfg->lbdb.port);
        // The fraction is the raw microseconds field, so 1.5 s prints as 1.500000.
        fprintf(stream, "\tConnect timeout        = %ld.%03ld sec\n",
                static_cast<long>(cfg->lbdb.tmout.tv_sec),
                static_cast<long>(cfg->lbdb.tmout.tv_usec));
        fprintf(stream, "\tSHA1 directory         = %s\n", cfg->lbdb.sha1_path);
        fprintf(stream, "\tCommand timeout        = %ld ms\n", lbdb_cmd_tmout_ms(&cfg->lbdb));
        fprintf(stream, "\tReconnect              = %ld ms%s\n", cfg->lbdb.reconnect_ms,
                cfg->lbdb.reconnect_ms > 0 ? "" : " (off)");
        fprintf(stream, "\tMax pending            = %ld\n", cfg->lbdb.max_pending);
        if (cfg->lbdb.exit_drain_ms > 0)
            fprintf(stream, "\tExit drain             = %ld ms\n", cfg->lbdb.exit_drain_ms);
    }
    fputs(k_dump_rule, stream);
}

int add_web_cli(vesk_cfg* cfg, const char* spec, int af)
{
    char* dup = strdup(spec);
    if (!dup)
        return -12;
    char* colon = std::strrchr(dup, ':');
    if (!colon) {
        zlogf(L_ERR, "%s: missing port number in %s\n", spec);
        std::free(dup);
        return 22;
    }
    *colon = '\0';
    const char* ifname = dup;
    const char* port = colon + 1;

    rui_listener_cfg* slots = cfg->rui.user;
    size_t free_pos = RUI_LISTENER_SLOTS;
    for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i)
        if (!slots[i].is_valid)
            free_pos = i;

    // The listener lands one slot below the free position found (the third slot of an empty
    // table), and a repeated option overwrites the same slot: established behaviour, kept on
    // purpose. With no free slot, or only the first one free, the first slot is used.
    size_t target = 0;
    if (free_pos == RUI_LISTENER_SLOTS)
        zlogf(L_WARN, "%s: all interface slots are busy, [%s] will be replaced\n", slots[0].alias);
    else if (free_pos > 0)
        target = free_pos - 1;

    rui_listener_cfg* l = &slots[target];
    std::free(l->ifc);
    std::memset(l, 0, sizeof(*l));
    snprintf(l->alias, sizeof(l->alias), "%s", "web-cli");
    l->index = target + 1;
    l->proto = IPPROTO_TCP;
    l->pref_af = af;
    l->ifc = get_ifc_info(af, ifname);
    if (!l->ifc) {
        zlogf(L_ERR, "%s: invalid interface name: %s\n", ifname);
        std::memset(l, 0, sizeof(*l));
        std::free(dup);
        return 22;
    }
    snprintf(l->port, sizeof(l->port), "%.5s", port);
    set_tag32(&l->kind, "Web");
    l->is_valid = true;
    std::free(dup);
    return 0;
}

int validate_config(const vesk_cfg* cfg)
{
    if (cfg->rui.user[0].is_valid || cfg->rui.custom[0].is_valid || cfg->udp_cha.url[0])
        return 0;
    zlogf(L_ERR, "%s: at least one listener must be present\n");
    return -1;
}
