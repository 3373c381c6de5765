// The agent's counters and their renderings for the admin listener: the metrics in the text
// exposition format and the status document in JSON. Gauges (tasks in flight, queued requests,
// open descriptors, the registry link) are read from the live state at scrape time.
#include "mtr.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include "app.h"
#include "cfg.h"
#include "data.h"
#include "lbquery.h"
#include "log.h"
#include "meta.h"
#include "rqs.h"
#include "timeop.h"
#include "udl.h"

LOG_MODULE(0, -1);

mtr_counters g_mtr;

namespace {

constexpr size_t TEXT_MIN_CAP = 4096;

constexpr const char* k_end_names[MTR_END_COUNT] = {
    "none",           "completed",     "source_unreachable", "source_refused",
    "source_denied",  "malformed_answer", "source_closed",   "stalled",
    "write_error",    "destination_exists", "shutdown",      "other",
};
constexpr const char* k_udp_names[MTR_UDP_COUNT] = {"started", "local",  "locked", "malformed",
                                                    "refused", "denied", "error"};
constexpr const char* k_reg_names[MTR_REG_COUNT] = {"ok", "failed", "dropped"};

bool grow(mtr_text* t, size_t need)
{
    if (t->failed)
        return false;
    if (t->len + need < t->cap)
        return true;
    size_t cap = t->cap ? t->cap : TEXT_MIN_CAP;
    while (t->len + need >= cap)
        cap *= 2;
    auto* p = static_cast<char*>(std::realloc(t->p, cap));
    if (!p) {
        t->failed = true;
        return false;
    }
    t->p = p;
    t->cap = cap;
    return true;
}

double seconds_since(const timespec* then)
{
    timespec now, d;
    set_clk_now(&now, CLOCK_MONOTONIC);
    tspec_diff(&now, then, &d);
    const double s = static_cast<double>(d.tv_sec) + static_cast<double>(d.tv_nsec) / 1e9;
    return s < 0 ? 0 : s;
}

// Open descriptors of the process: the entries of its descriptor directory, less the one the
// listing itself holds. -1 when the directory cannot be read.
long count_open_fds()
{
    DIR* d = opendir("/proc/self/fd");
    if (!d) {
        const int e = errno;
        zlogf(L_ERR, "%s: opendir(/proc/self/fd) ERROR(%d): %s\n", e, strerror(e));
        return -1;
    }
    long n = 0;
    while (const dirent* de = readdir(d))
        if (de->d_name[0] != '.')
            ++n;
    closedir(d);
    return n - 1;
}

void head(mtr_text* t, const char* name, const char* type, const char* help)
{
    mtr_printf(t, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

// One labelled sample of a counter family.
void sample(mtr_text* t, const char* name, const char* label, const char* value, uint64_t n)
{
    mtr_printf(t, "%s{%s=\"%s\"} %llu\n", name, label, value, static_cast<unsigned long long>(n));
}

// Calls `f(type, slot)` for every set-up listener, types in the listener manager's order.
template <class F> void each_listener(F f)
{
    const rui_socket_ctx* const types[RUI_MAX] = {g_ctx.rui.user, g_ctx.rui.admin, g_ctx.rui.custom};
    for (int type = 0; type < RUI_MAX; ++type)
        for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i)
            if (types[type][i].tag.num == RSC_TAG && types[type][i].requests && types[type][i].lc)
                f(type, &types[type][i]);
}

// One sample per set-up listener, with the value `value` picks from the slot.
void put_per_listener(mtr_text* t, const char* name, size_t (*value)(const rui_socket_ctx*))
{
    each_listener([&](int type, const rui_socket_ctx* s) {
        mtr_printf(t, "%s{type=\"%s\",listener=\"", name, rui_type_name(type));
        mtr_put_escaped(t, s->lc->alias);
        mtr_printf(t, "\"} %zu\n", value(s));
    });
}

size_t queued_of(const rui_socket_ctx* s)
{
    return dlep_count(s->requests);
}

size_t refused_of(const rui_socket_ctx* s)
{
    return s->busy_refused;
}

void put_listener_queues(mtr_text* t)
{
    head(t, "vsk_requests_queued", "gauge", "Requests accepted and not yet removed, per listener.");
    put_per_listener(t, "vsk_requests_queued", queued_of);
    head(t, "vsk_requests_refused_total", "counter",
         "Connections answered 503 because their listener held its limit of requests.");
    put_per_listener(t, "vsk_requests_refused_total", refused_of);
}

void put_histogram(mtr_text* t)
{
    head(t, "vsk_download_duration_seconds", "histogram",
         "Time from the download order to the rename of the finished file.");
    uint64_t cum = 0;
    for (size_t i = 0; i < MTR_DUR_BUCKETS; ++i) {
        cum += g_mtr.dur_buckets[i];
        const long ms = MTR_DUR_BOUNDS_MS[i];
        mtr_printf(t, "vsk_download_duration_seconds_bucket{le=\"%ld.%03ld\"} %llu\n", ms / 1000,
                   ms % 1000, static_cast<unsigned long long>(cum));
    }
    cum += g_mtr.dur_buckets[MTR_DUR_BUCKETS];
    mtr_printf(t, "vsk_download_duration_seconds_bucket{le=\"+Inf\"} %llu\n",
               static_cast<unsigned long long>(cum));
    mtr_printf(t, "vsk_download_duration_seconds_sum %llu.%06llu\n",
               static_cast<unsigned long long>(g_mtr.dur_sum_us / 1000000),
               static_cast<unsigned long long>(g_mtr.dur_sum_us % 1000000));
    mtr_printf(t, "vsk_download_duration_seconds_count %llu\n",
               static_cast<unsigned long long>(g_mtr.dur_count));
}

void put_json_str(mtr_text* t, const char* s)
{
    mtr_printf(t, "\"");
    mtr_put_escaped(t, s);
    mtr_printf(t, "\"");
}

int put_task_json(void* data, size_t i, void* aux)
{
    auto* t = static_cast<mtr_text*>(aux);
    const dw_task* dw = static_cast<const dw_task*>(data) + i;
    if (dw->tag.num != DOW_TAG)
        return 0;
    if (t->len && t->p[t->len - 1] == '}')
        mtr_printf(t, ",");
    mtr_printf(t, "\n    {\"track\": ");
    put_json_str(t, dw->trk_tag.sym8);
    mtr_printf(t, ", \"state\": ");
    put_json_str(t, dw->state.sym4);
    mtr_printf(t, ", \"source\": ");
    put_json_str(t, dw->spec.url);
    mtr_printf(t, ", \"destination\": ");
    put_json_str(t, dw->spec.dst_path);
    mtr_printf(t, ", \"file\": ");
    put_json_str(t, dw->spec.fpath);
    mtr_printf(t, ", \"bytes\": %lld, \"length\": %zu, \"age_seconds\": %.3f",
               static_cast<long long>(dw->f_pos), dw->content_length,
               seconds_since(&dw->start_tm));
    if (dw->spec.lid[0]) {
        mtr_printf(t, ", \"lock_id\": ");
        put_json_str(t, dw->spec.lid);
    }
    mtr_printf(t, "}");
    return 0;
}

void put_listeners_json(mtr_text* t)
{
    mtr_printf(t, "  \"listeners\": [");
    bool first = true;
    each_listener([&](int type, const rui_socket_ctx* s) {
        const rui_listener_cfg* lc = s->lc;
        mtr_printf(t, "%s\n    {\"type\": \"%s\", \"alias\": ", first ? "" : ",",
                   rui_type_name(type));
        first = false;
        put_json_str(t, lc->alias);
        if (lc->domain_path[0]) {
            mtr_printf(t, ", \"path\": ");
            put_json_str(t, lc->domain_path);
        } else {
            mtr_printf(t, ", \"port\": ");
            put_json_str(t, lc->port);
        }
        mtr_printf(t, ", \"listening\": %s, \"queued\": %zu}", s->sockfd >= 0 ? "true" : "false",
                   dlep_count(s->requests));
    });
    mtr_printf(t, "%s],\n", first ? "" : "\n  ");
}

} // namespace

void mtr_init()
{
    g_mtr.start_time = time(nullptr);
    set_clk_now(&g_mtr.start_mono, CLOCK_MONOTONIC);
}

void mtr_observe_download_us(uint64_t us)
{
    size_t i = 0;
    while (i < MTR_DUR_BUCKETS && us > static_cast<uint64_t>(MTR_DUR_BOUNDS_MS[i]) * 1000u)
        ++i;
    ++g_mtr.dur_buckets[i];
    ++g_mtr.dur_count;
    g_mtr.dur_sum_us += us;
}

void mtr_printf(mtr_text* t, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    const int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    if (n >= 0 && grow(t, static_cast<size_t>(n) + 1)) {
        vsnprintf(t->p + t->len, t->cap - t->len, fmt, ap2);
        t->len += static_cast<size_t>(n);
    } else if (n < 0) {
        t->failed = true;
    }
    va_end(ap2);
}

void mtr_put_escaped(mtr_text* t, const char* s)
{
    for (; *s; ++s) {
        const auto c = static_cast<unsigned char>(*s);
        if (c == '"' || c == '\\')
            mtr_printf(t, "\\%c", c);
        else if (c == '\n')
            mtr_printf(t, "\\n");
        else if (c < 0x20 || c == 0x7f)
            mtr_printf(t, "\\u%04x", c);
        else if (grow(t, 2)) {
            t->p[t->len++] = static_cast<char>(c);
            t->p[t->len] = '\0';
        }
    }
}

void mtr_text_free(mtr_text* t)
{
    std::free(t->p);
    *t = mtr_text{};
}

int mtr_render_metrics(mtr_text* t)
{
    head(t, "vsk_build_info", "gauge", "Build identity of the agent; the value is always 1.");
    mtr_printf(t, "vsk_build_info{version=\"%s\",family=\"%s\"} 1\n", get_app_version(),
               get_app_family());
    head(t, "vsk_start_time_seconds", "gauge", "Start time of the agent since the Unix epoch.");
    mtr_printf(t, "vsk_start_time_seconds %lld\n", static_cast<long long>(g_mtr.start_time));

    head(t, "vsk_tasks_active", "gauge", "Download tasks in flight.");
    mtr_printf(t, "vsk_tasks_active %zu\n", g_ctx.tasks.len);
    head(t, "vsk_tasks_started_total", "counter", "Download tasks started.");
    mtr_printf(t, "vsk_tasks_started_total %llu\n",
               static_cast<unsigned long long>(g_mtr.tasks_started));
    head(t, "vsk_tasks_ended_total", "counter", "Download tasks ended, by outcome.");
    for (size_t i = MTR_END_COMPLETED; i < MTR_END_COUNT; ++i)
        sample(t, "vsk_tasks_ended_total", "outcome", k_end_names[i], g_mtr.tasks_ended[i]);
    head(t, "vsk_downloaded_bytes_total", "counter", "Body bytes received into destination files.");
    mtr_printf(t, "vsk_downloaded_bytes_total %llu\n",
               static_cast<unsigned long long>(g_mtr.bytes_downloaded));
    put_histogram(t);

    head(t, "vsk_http_answers_total", "counter", "Answers sent to download requesters, by status.");
    for (int code = 100; code <= MTR_MAX_HTTP_CODE; ++code)
        if (g_mtr.answers[code])
            mtr_printf(t, "vsk_http_answers_total{code=\"%d\"} %llu\n", code,
                       static_cast<unsigned long long>(g_mtr.answers[code]));
    head(t, "vsk_http_clients_gone_total", "counter",
         "Download requesters that left before their answer could be sent.");
    mtr_printf(t, "vsk_http_clients_gone_total %llu\n",
               static_cast<unsigned long long>(g_mtr.clients_gone));
    put_listener_queues(t);

    head(t, "vsk_udp_orders_total", "counter", "Datagrams of the UDP channel, by result.");
    for (size_t i = 0; i < MTR_UDP_COUNT; ++i)
        sample(t, "vsk_udp_orders_total", "result", k_udp_names[i], g_mtr.udp_orders[i]);
    head(t, "vsk_udp_lock_failopen_total", "counter",
         "Channel orders taken without the fleet lock because its database was unreachable.");
    mtr_printf(t, "vsk_udp_lock_failopen_total %lu\n", udl_lock_fail_open_count());

    head(t, "vsk_registrations_total", "counter", "Registrations in the segment registry, by result.");
    for (size_t i = 0; i < MTR_REG_COUNT; ++i)
        sample(t, "vsk_registrations_total", "result", k_reg_names[i], g_mtr.registrations[i]);
    const bool link_on = g_cfg->lbdb.port > 0 && lbdb_link_on();
    head(t, "vsk_registrations_pending", "gauge", "Registrations waiting for the registry link.");
    mtr_printf(t, "vsk_registrations_pending %zu\n", link_on ? lbdb_pending_count() : 0);
    head(t, "vsk_registry_link_up", "gauge", "1 while the registry link is ready for commands.");
    mtr_printf(t, "vsk_registry_link_up %d\n", link_on && lbdb_link_ready() ? 1 : 0);

    const long fds = count_open_fds();
    if (fds >= 0) {
        head(t, "vsk_open_fds", "gauge", "Open file descriptors of the process.");
        mtr_printf(t, "vsk_open_fds %ld\n", fds);
    }
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY) {
        head(t, "vsk_max_fds", "gauge", "Limit of open file descriptors of the process.");
        mtr_printf(t, "vsk_max_fds %llu\n", static_cast<unsigned long long>(rl.rlim_cur));
    }
    if (t->failed) {
        zlogf(L_ERR, "%s: out of memory\n");
        return -1;
    }
    return 0;
}

int mtr_render_status(mtr_text* t)
{
    mtr_printf(t, "{\n  \"version\": \"%s\",\n  \"pid\": %ld,\n", get_app_version(),
               static_cast<long>(getpid()));
    mtr_printf(t, "  \"start_time\": %lld,\n  \"uptime_seconds\": %.3f,\n",
               static_cast<long long>(g_mtr.start_time), seconds_since(&g_mtr.start_mono));
    mtr_printf(t, "  \"config_file\": ");
    put_json_str(t, g_cfg->config_path);
    mtr_printf(t, ",\n  \"data_dir\": ");
    put_json_str(t, g_cfg->data_dir);
    mtr_printf(t, ",\n");
    put_listeners_json(t);
    mtr_printf(t, "  \"udp_channel\": ");
    if (g_cfg->udp_cha.url[0])
        put_json_str(t, g_cfg->udp_cha.url);
    else
        mtr_printf(t, "null");
    const bool lbdb = g_cfg->lbdb.port > 0;
    const bool link_on = lbdb && lbdb_link_on();
    mtr_printf(t, ",\n  \"registry\": {\"configured\": %s, \"link_up\": %s, \"pending\": %zu},\n",
               lbdb ? "true" : "false", link_on && lbdb_link_ready() ? "true" : "false",
               link_on ? lbdb_pending_count() : 0);
    mtr_printf(t, "  \"tasks_active\": %zu,\n  \"tasks\": [", g_ctx.tasks.len);
    const size_t before = t->len;
    if (g_ctx.tasks.len)
        (void)xvlst_each_aux(&g_ctx.tasks, t, put_task_json, nullptr);
    mtr_printf(t, "%s]\n}\n", t->len > before ? "\n  " : "");
    if (t->failed) {
        zlogf(L_ERR, "%s: out of memory\n");
        return -1;
    }
    return 0;
}
