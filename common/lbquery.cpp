// Client of the load-balancer database: the reader of its connection settings, the script digests,
// the connection with its start-up check of the scripts, and the script calls with the rules by
// which their replies are judged.
#include "lbquery.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <cstdarg>
#include <poll.h>
#include <hiredis/async.h>
#include <sys/socket.h>

#include "config.h"
#include "ioh.h"
#include "log.h"
#include "rqs.h"

LOG_MODULE(0, -1);

int load_lbdb_cfg(const config_setting_t* setting, lbdb_cfg* lbq)
{
    if (load_config_setting_str(setting, "host", lbq->host, sizeof(lbq->host), "") ||
        !lbq->host[0]) {
        zlogf(L_ERR, "%s: missing host setting\n");
        return -1;
    }

    int port = 0;
    if (config_setting_lookup_int(setting, "port", &port) != CONFIG_TRUE)
        port = 0;
    if (port < 0) {
        zlogf(L_ERR, "%s: invalid port value: %d\n", port);
        return -1;
    }
    lbq->port = port;

    int tmout_ms = 500;
    if (config_setting_lookup_int(setting, "connect_tmout_ms", &tmout_ms) != CONFIG_TRUE)
        tmout_ms = 500;
    lbq->tmout.tv_sec = tmout_ms / 1000;
    lbq->tmout.tv_usec = (tmout_ms % 1000) * 1000;

    if (load_config_setting_str(setting, "sha1_dir", lbq->sha1_path, sizeof(lbq->sha1_path), "") ||
        !lbq->sha1_path[0]) {
        zlogf(L_ERR, "%s: missing sha1_dir setting\n");
        return -1;
    }

    // The link keys: each absent one keeps the blocking client's behaviour.
    struct {
        const char* key;
        long* field;
        int dflt;
        long min;
        long max;
    } const link_keys[] = {
        {"cmd_tmout_ms", &lbq->cmd_tmout_ms, 0, 1, 3600000},
        {"reconnect_ms", &lbq->reconnect_ms, 0, 0, 3600000},
        {"max_pending", &lbq->max_pending, LBQ_D_MAX_PENDING, 0, LBQ_MAX_PENDING},
        {"exit_drain_ms", &lbq->exit_drain_ms, 0, 0, 10000},
    };
    for (const auto& k : link_keys) {
        int v = k.dflt;
        if (config_setting_lookup_int(setting, k.key, &v) != CONFIG_TRUE) {
            if (config_setting_get_member(setting, k.key)) {
                zlogf(L_ERR, "%s: lbdb.%s must be an integer\n", k.key);
                return -1;
            }
            v = k.dflt;
        } else if (v < k.min || v > k.max) {
            zlogf(L_ERR, "%s: invalid lbdb.%s value: %d (allowed %ld..%ld)\n", k.key, v, k.min,
                  k.max);
            return -1;
        }
        *k.field = v;
    }
    return 0;
}

long lbdb_cmd_tmout_ms(const lbdb_cfg* cfg)
{
    if (cfg->cmd_tmout_ms > 0)
        return cfg->cmd_tmout_ms;
    const long ms = static_cast<long>(cfg->tmout.tv_sec) * 1000 + cfg->tmout.tv_usec / 1000;
    // A zero connect time-out would make every command fail at once; take the built-in one.
    return ms > 0 ? ms : 500;
}

// ---- The client: digests, connection and the four script calls. ----

// The command formats are macros so that the same literal is both logged and sent, and both
// uses are checked against their arguments.
#define LBQ_ADD_CMD "evalsha %s 1 %s %s %ld"
#define LBQ_DEL_CMD "evalsha %s 1 %s %s"
#define LBQ_NEXT_CMD "evalsha %s 1 %s %s"
#define LBQ_MBGET_CMD "evalsha %s 1 %s %s %s %s"

static constexpr const char* SCRIPT_ERR_MARK = "#err: ";
// A reply that breaks a call's rule is shown up to this many characters.
static constexpr size_t FAILED_REPLY_SHOWN = 80;
static constexpr size_t ADD_REPLY_LEN = 1023;
static constexpr size_t DEL_REPLY_LEN = 127;

static lbdb_ctx g_ctx;
static lbdb_cfg g_cfg; // what the module connected with
// The link options of lbdb_set_link_opts(); they survive lbdb_destroy() like a configuration.
static lbdb_cfg g_opts = {{}, 0, {}, {}, 0, 0, LBQ_D_MAX_PENDING, 0};
// The read time-out of the start-up connection, for its log line.
static long g_sync_cmd_ms;
static char g_add_reply[ADD_REPLY_LEN + 1];

const lbdb_ctx* lbdb_get_ctx()
{
    return &g_ctx;
}

const lbdb_cfg* lbdb_get_cfg()
{
    return &g_cfg;
}

static void copy_str(char* dst, size_t size, const char* src)
{
    snprintf(dst, size, "%s", src);
}

static const char* or_dash(const char* s)
{
    return s && s[0] ? s : "-";
}

// Reads the first line of a digest file into `buf`. The whole line is measured, so that an
// over-long line is refused rather than silently cut to the buffer.
static int read_sha_signature(const char* fpath, char* buf, size_t buflen)
{
    FILE* fp = fopen(fpath, "r");
    if (!fp) {
        const int err = errno;
        zlogf(L_ERR, "%s: fopen(%s,...) ERROR(%d): %s\n", fpath, err, strerror(err));
        return -1;
    }
    buf[0] = '\0';
    if (!fgets(buf, static_cast<int>(buflen - 1), fp)) {
        // An empty file is reported but not refused: the empty digest stops lbdb_connect().
        buf[0] = '\0';
        fclose(fp);
        zlogf(L_ERR, "%s: fgets(...) ERROR(%d): %s\n", 0, strerror(0));
        return 0;
    }
    size_t len = strlen(buf);
    if (len > 0 && buf[len - 1] != '\n') {
        // The buffer filled up before the end of the line: count the rest of it.
        int c;
        while ((c = fgetc(fp)) != EOF) {
            ++len;
            if (c == '\n')
                break;
        }
    }
    fclose(fp);
    if (len < 39 || len > 48) {
        zlogf(L_ERR, "%s: [%s] unexpected SHA1 size: %zu\n", fpath, len);
        buf[0] = '\0';
        return -1;
    }
    const size_t n = strlen(buf);
    if (n > 0 && buf[n - 1] == '\n')
        buf[n - 1] = '\0';
    zlog(L_DEBUG, "[%s] -> (%s)\n", fpath, buf);
    return 0;
}

// Asks Redis whether the script with digest `sha1` is loaded: 0 yes, 2 no, -1 on a lost link or
// an error reply, 22 on a reply of unexpected shape.
static int check_script_exists(const char* sha1)
{
    ZASSERT(g_ctx.redis);
    auto* reply = static_cast<redisReply*>(redisCommand(g_ctx.redis, "script exists %s", sha1));
    if (!reply) {
        zlogf(L_ERR, "%s: NULL as reply\n");
        // The reason: a Redis that accepted and stays silent shows here as a read time-out.
        zlogf(L_ERR, "%s: no answer within %ld ms, ERROR(%d): %s\n", g_sync_cmd_ms,
              g_ctx.redis->err, g_ctx.redis->errstr);
        return -1;
    }
    int rc = 22;
    switch (reply->type) {
    case REDIS_REPLY_INTEGER:
        if (reply->integer == 1) {
            rc = 0;
        } else {
            if (reply->integer == 0)
                zlogf(L_ERR, "%s: no such script: %s\n", sha1);
            rc = 2;
        }
        break;
    case REDIS_REPLY_ERROR:
        zlogf(L_ERR, "%s: Redis error: %s\n", reply->str);
        rc = -1;
        break;
    case REDIS_REPLY_ARRAY:
        // These two go to standard error rather than the log, as they always have.
        if (reply->elements != 1) {
            fprintf(stderr, "%s: more than 1 element (%zu) returned\n", __func__, reply->elements);
            rc = 22;
        } else if (reply->element[0]->type != REDIS_REPLY_INTEGER) {
            fprintf(stderr, "%s: expected integer, got %d\n", __func__, reply->element[0]->type);
            rc = 22;
        } else {
            rc = reply->element[0]->integer == 1 ? 0 : 2;
        }
        break;
    default:
        zlogf(L_ERR, "%s: not expecting reply type=%d\n", reply->type);
        rc = 22;
        break;
    }
    freeReplyObject(reply);
    zlogf(L_DEBUG, "%s: %s, rc=%d\n", sha1, rc);
    return rc;
}

static int verify_db_script(const char* dir, const char* script, char* sha1, size_t sha_len)
{
    char path[LBQ_MAX_FPATH_LEN];
    const int n = snprintf(path, sizeof(path), "%s/%s", dir, script);
    if (n < 1 || n > static_cast<int>(sizeof(path) - 1)) {
        zlogf(L_ERR, "%s: buffer overflow/error, n=%d, dir=%s, script=%s, buflen=%zu\n", n, dir,
              script, sizeof(path) - 1);
        return -1;
    }
    int rc = read_sha_signature(path, sha1, sha_len);
    // Only when connected; during lbdb_init() there is no connection yet.
    if (rc == 0 && g_ctx.redis)
        rc = check_script_exists(sha1);
    return rc;
}

struct script_slot {
    int32_t flag;
    const char* file;
    char* sha1;
};

// The scripts in the order they are read and checked.
static const script_slot g_slots[] = {
    {LBQ_FL_ADD, "add_url.sha1", g_ctx.add_sha1},
    {LBQ_FL_DEL, "del_url.sha1", g_ctx.del_sha1},
    {LBQ_FL_NEXT, "next_url.sha1", g_ctx.next_sha1},
    {LBQ_FL_MBGET, "mbget_url.sha1", g_ctx.mbget_sha1},
};

int lbdb_init(const char* sha1_dir, int32_t need_func, uint32_t opt_flags)
{
    ZASSERT(0 == g_ctx.init_tm);
    const size_t dlen = strlen(sha1_dir);
    if (dlen >= LBQ_MAX_DIRNAME_LEN) {
        zlogf(L_ERR, "%s: sha1_dir is too long: %zu/%zu\n", dlen,
              static_cast<size_t>(LBQ_MAX_DIRNAME_LEN - 1));
        return 34;
    }
    copy_str(g_cfg.sha1_path, sizeof(g_cfg.sha1_path), sha1_dir);

    for (const script_slot& s : g_slots) {
        if (!(need_func & s.flag))
            continue;
        const int rc = verify_db_script(sha1_dir, s.file, s.sha1, LBQ_MAX_SHA1_LEN);
        if (rc) {
            lbdb_destroy();
            return rc;
        }
    }

    if (opt_flags & LBQ_OPT_STRICT) {
        static constexpr const char* flag = "-S";
        const size_t len = strlen(g_ctx.call_opt);
        if (len + strlen(flag) > sizeof(g_ctx.call_opt) - 1) {
            zlogf(L_ERR, "%s: not enough space for option [%s]\n", flag);
            return -1;
        }
        memcpy(g_ctx.call_opt + len, flag, strlen(flag) + 1);
        zlogf(L_DEBUG, "%s: added [%s] flag\n", flag);
    }

    g_ctx.init_tm = time(nullptr);
    g_ctx.need_func = need_func;
    return 0;
}

int lbdb_connect(const char* host, int port, timeval tmout)
{
    ZASSERT(!g_ctx.redis && g_ctx.init_tm > 0);
    int rc = 0;
    lbdb_cfg eff = g_opts;
    eff.tmout = tmout;
    g_sync_cmd_ms = lbdb_cmd_tmout_ms(&eff);
    redisContext* c = redisConnectWithTimeout(host, port, tmout);
    if (!c) {
        zlogf(L_ERR, "%s: redisConnectWithTimeout: cannot allocate context\n");
        rc = -1;
    } else if (c->err) {
        zlogf(L_ERR, "%s: redisConnectWithTimeout ERROR(%d): %s\n", c->err, c->errstr);
        redisFree(c);
        rc = -1;
    } else if (const long ms = g_sync_cmd_ms;
               redisSetTimeout(c, timeval{ms / 1000, (ms % 1000) * 1000}) != REDIS_OK) {
        // Without a read time-out a silent Redis would hold the start-up for ever.
        zlogf(L_ERR, "%s: redisSetTimeout(%ld ms) ERROR(%d): %s\n", ms, c->err, c->errstr);
        redisFree(c);
        rc = -1;
    } else {
        zlogf(L_INFO, "%s: connected to %s:%d\n", host, port);
        g_ctx.redis = c;
        copy_str(g_cfg.host, sizeof(g_cfg.host), host);
        g_cfg.port = port;
        g_cfg.tmout = tmout;
        g_cfg.cmd_tmout_ms = g_opts.cmd_tmout_ms;
        g_cfg.reconnect_ms = g_opts.reconnect_ms;
        g_cfg.max_pending = g_opts.max_pending;
    }

    if (rc == 0) {
        for (const script_slot& s : g_slots) {
            if (!(g_ctx.need_func & s.flag))
                continue;
            switch (s.flag) {
            case LBQ_FL_ADD:
                ZASSERT(g_ctx.add_sha1[0]);
                break;
            case LBQ_FL_DEL:
                ZASSERT(g_ctx.del_sha1[0]);
                break;
            case LBQ_FL_NEXT:
                ZASSERT(g_ctx.next_sha1[0]);
                break;
            default:
                ZASSERT(g_ctx.mbget_sha1[0]);
                break;
            }
            rc = check_script_exists(s.sha1);
            if (rc)
                break;
        }
    }

    if (rc) {
        zlogf(L_ERR, "%s: failed for %s:%d\n", host, port);
        lbdb_disconnect();
    }
    zlogf(L_DEBUG, "%s: OK, rc=%d\n", rc);
    return rc;
}

int reply_to_str(const redisReply* reply, char* buf, size_t buflen)
{
    buf[0] = '\0';
    switch (reply->type) {
    case REDIS_REPLY_STRING:
        break;
    case REDIS_REPLY_ARRAY:
        if (reply->elements != 1) {
            zlogf(L_ERR, "%s: more than 1 element (%zu) returned\n", reply->elements);
            return 22;
        }
        if (reply->element[0]->type != REDIS_REPLY_STRING) {
            zlogf(L_ERR, "%s: expected string, got %d\n", reply->element[0]->type);
            return 22;
        }
        // The single element is taken as the reply; it gets the same length test as a plain
        // string, since the caller's buffer is no larger for it.
        reply = reply->element[0];
        break;
    case REDIS_REPLY_STATUS:
        zlogf(L_ERR, "%s: Redis status: %s\n", reply->str);
        return -1;
    case REDIS_REPLY_ERROR:
        zlogf(L_ERR, "%s: Redis error: %s\n", reply->str);
        return -1;
    default:
        zlogf(L_ERR, "%s: not expecting reply type=%d\n", reply->type);
        return 22;
    }
    if (reply->len > buflen) {
        zlogf(L_ERR, "%s: reply is bigger than buffer: %zu/%zu\n", reply->len, buflen);
        return 34;
    }
    memcpy(buf, reply->str, reply->len);
    buf[reply->len] = '\0';
    return 0;
}

// Judges a reply of the calls: a lost link gives -1, otherwise the reply is converted into `buf`,
// and a script-reported error gives -1. The reply stays the caller's.
static int judge_reply(const char* func, const redisReply* reply, char* buf, size_t buflen)
{
    if (!reply) {
        zlog(L_ERR, "%s: NULL as reply\n", func);
        return -1;
    }
    const int rc = reply_to_str(reply, buf, buflen);
    if (rc)
        return rc;
    zlog(L_DEBUG, "%s: result=[%s]\n", func, buf);
    if (buf[0] == '#' && strstr(buf, SCRIPT_ERR_MARK)) {
        zlog(L_ERR, "%s: %s\n", func, buf);
        return -1;
    }
    return 0;
}

// judge_reply() for a reply of a blocking call, which it frees.
static int take_reply(const char* func, void* r, char* buf, size_t buflen)
{
    auto* reply = static_cast<redisReply*>(r);
    const int rc = judge_reply(func, reply, buf, buflen);
    if (reply)
        freeReplyObject(reply);
    return rc;
}

// Cuts a reply that broke a call's rule to a readable length for the log.
static const char* shown_reply(char* buf)
{
    if (strlen(buf) > FAILED_REPLY_SHOWN)
        buf[FAILED_REPLY_SHOWN] = '\0';
    return buf;
}

// The name the "add" lines carry, whether the call went out blocking or on the loop.
static constexpr const char* ADD_FUNC = "lbdb_add_segurl";

// The rule of the "add" reply (already judged by judge_reply into g_add_reply).
static int check_add_reply(const char* segid)
{
    if (strncmp(g_add_reply, "OK ", 3) != 0) {
        zlog(L_ERR, "%s: failed: %s\n", ADD_FUNC, shown_reply(g_add_reply));
        return -1;
    }
    if (strcmp(g_add_reply + 3, segid) != 0) {
        zlog(L_ERR, "%s: expected %s, got [%s]\n", ADD_FUNC, segid, g_add_reply + 3);
        return -1;
    }
    return 0;
}

int lbdb_add_segurl(const char* segid, const char* url, time_t expiry_tm)
{
    ZASSERT(g_ctx.need_func & LBQ_FL_ADD);
    ZASSERT(g_ctx.redis && g_ctx.add_sha1[0]);
    const long exp = static_cast<long>(expiry_tm);
    zlog(L_DEBUG, LBQ_ADD_CMD "\n", g_ctx.add_sha1, segid, url, exp);
    const int rc = take_reply(
        ADD_FUNC, redisCommand(g_ctx.redis, LBQ_ADD_CMD, g_ctx.add_sha1, segid, url, exp),
        g_add_reply, ADD_REPLY_LEN);
    return rc ? rc : check_add_reply(segid);
}

int lbdb_del_segurl(const char* segid, const char* url, long* nleft)
{
    ZASSERT(g_ctx.need_func & LBQ_FL_DEL);
    ZASSERT(g_ctx.redis && g_ctx.del_sha1[0]);
    char buf[DEL_REPLY_LEN + 1];
    zlog(L_DEBUG, LBQ_DEL_CMD "\n", g_ctx.del_sha1, segid, url);
    const int rc = take_reply(
        __func__, redisCommand(g_ctx.redis, LBQ_DEL_CMD, g_ctx.del_sha1, segid, url), buf,
        DEL_REPLY_LEN);
    if (rc)
        return rc;
    if (strncmp(buf, "OK ", 3) != 0) {
        zlogf(L_ERR, "%s: failed: %s\n", shown_reply(buf));
        return -1;
    }
    if (nleft)
        *nleft = strtol(buf + 3, nullptr, 10);
    return 0;
}

int lbdb_rr_get_segurl(const char* segid, const char* metric, char* buf, size_t buflen)
{
    ZASSERT(g_ctx.need_func & LBQ_FL_NEXT);
    ZASSERT(g_ctx.redis && g_ctx.next_sha1[0]);
    const char* m = or_dash(metric);
    zlog(L_DEBUG, LBQ_NEXT_CMD "\n", g_ctx.next_sha1, segid, m);
    return take_reply(__func__, redisCommand(g_ctx.redis, LBQ_NEXT_CMD, g_ctx.next_sha1, segid, m),
                      buf, buflen);
}

int lbdb_mb_get_segurl(const char* segid, const char* metric, const char* criteria, char* buf,
                       size_t buflen)
{
    ZASSERT(g_ctx.need_func & LBQ_FL_MBGET);
    ZASSERT(g_ctx.redis && g_ctx.mbget_sha1[0]);
    const char* m = or_dash(metric);
    const char* cr = or_dash(criteria);
    const char* opt = or_dash(g_ctx.call_opt);
    zlog(L_DEBUG, LBQ_MBGET_CMD "\n", g_ctx.mbget_sha1, segid, m, cr, opt);
    // The "next" digest is sent on purpose in this version: the choice stays round-robin while the
    // "mbget" script is still required to be loaded. Keep the asymmetry.
    return take_reply(__func__,
                      redisCommand(g_ctx.redis, LBQ_MBGET_CMD, g_ctx.next_sha1, segid, m, cr, opt),
                      buf, buflen);
}

void lbdb_set_link_opts(const lbdb_cfg* cfg)
{
    g_opts = *cfg;
}

static void link_stop();

void lbdb_disconnect()
{
    if (lbdb_link_on()) {
        link_stop();
        zlogf(L_INFO, "%s: disconnected from %s:%d\n", g_cfg.host, g_cfg.port);
        return;
    }
    if (!g_ctx.redis)
        return;
    redisFree(g_ctx.redis);
    g_ctx.redis = nullptr;
    zlogf(L_INFO, "%s: disconnected from %s:%d\n", g_cfg.host, g_cfg.port);
}

void lbdb_destroy()
{
    lbdb_disconnect();
    g_ctx = lbdb_ctx{};
    g_cfg = lbdb_cfg{};
}

// ---- The pending queue and the back-off. ----

void lbdb_pq_init(lbdb_pqueue* q, size_t cap)
{
    *q = lbdb_pqueue{};
    q->cap = cap;
}

static void pq_unlink(lbdb_pqueue* q, lbdb_cmd* c)
{
    (c->prev ? c->prev->next : q->head) = c->next;
    (c->next ? c->next->prev : q->tail) = c->prev;
    c->prev = c->next = nullptr;
    q->len -= 1;
}

lbdb_cmd* lbdb_pq_push(lbdb_pqueue* q, lbdb_cmd* cmd)
{
    if (q->cap == 0)
        return cmd;
    cmd->next = nullptr;
    cmd->prev = q->tail;
    (q->tail ? q->tail->next : q->head) = cmd;
    q->tail = cmd;
    q->len += 1;
    return q->len > q->cap ? lbdb_pq_pop(q) : nullptr;
}

lbdb_cmd* lbdb_pq_pop(lbdb_pqueue* q)
{
    lbdb_cmd* c = q->head;
    if (c)
        pq_unlink(q, c);
    return c;
}

bool lbdb_cmd_expired(const lbdb_cmd* cmd, time_t now)
{
    return cmd->expire_at > 0 && cmd->expire_at < now;
}

size_t lbdb_pq_drop_expired(lbdb_pqueue* q, time_t now, void (*drop)(lbdb_cmd* cmd, void* aux),
                            void* aux)
{
    size_t n = 0;
    for (lbdb_cmd* c = q->head; c;) {
        lbdb_cmd* next = c->next;
        if (lbdb_cmd_expired(c, now)) {
            pq_unlink(q, c);
            drop(c, aux);
            n += 1;
        }
        c = next;
    }
    return n;
}

time_t lbdb_expire_at(time_t expiry_tm, time_t now)
{
    // The "add" script reads an expiry up to 30 days as relative to its own clock.
    constexpr time_t relative_max = 2592000;
    if (expiry_tm <= 0)
        return 0;
    return expiry_tm <= relative_max ? now + expiry_tm : expiry_tm;
}

long lbdb_backoff_next(long cur_ms, long base_ms)
{
    const long cap = base_ms > LBQ_MAX_BACKOFF_MS ? base_ms : LBQ_MAX_BACKOFF_MS;
    if (cur_ms <= 0)
        return base_ms;
    return cur_ms >= cap / 2 ? cap : cur_ms * 2;
}

// ---- The link on the event loop. ----

namespace {

enum link_state : int {
    LINK_OFF,        // not on the loop
    LINK_CONNECTING, // connect and the script checks sent, connect not confirmed yet
    LINK_CHECKING,   // connected, the script checks not all answered
    LINK_READY,
    LINK_WAIT, // down, a reconnection is due at retry_ms
    LINK_DEAD, // down for good (no reconnection)
};

struct lbdb_link {
    int state;
    redisAsyncContext* ac;
    ioh_rec io;    // the connection's descriptor
    ioh_rec timer; // time-outs, reconnection, the drop summary
    long armed_ms; // when the timer fires (monotonic ms), -1 when disarmed
    char addr[INET6_ADDRSTRLEN];
    int port;
    long backoff_ms;
    long retry_ms;           // monotonic ms of the next reconnection, in LINK_WAIT
    long connect_deadline;   // monotonic ms, in LINK_CONNECTING
    int checks_left;         // script checks not answered yet
    bool check_failed;       // a script is missing: drop the link on the next tick
    bool timing_out;         // the link is dropped for a time-out: sent commands end so
    bool broken;             // a sent command got no reply: send no more on this context
    lbdb_cmd* sent_head;     // commands handed to hiredis, oldest first
    lbdb_cmd* sent_tail;
    size_t nsent;
    lbdb_pqueue queue;
    time_t drop_sec;          // the second of the drop lines being counted
    unsigned long drop_lines; // drop lines in that second
    unsigned long drop_quiet; // drops not logged one by one in that second
    unsigned long ndropped;   // all drops
    unsigned long nreplies;   // replies received
};

lbdb_link g_link{};

long mono_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

long connect_ms()
{
    return static_cast<long>(g_cfg.tmout.tv_sec) * 1000 + g_cfg.tmout.tv_usec / 1000;
}

void free_cmd(lbdb_cmd* c)
{
    redisFreeCommand(c->text);
    free(c);
}

// Runs a command's completion and frees it.
void finish_cmd(lbdb_cmd* c, const redisReply* reply, int status)
{
    c->fn(c->arg, reply, status);
    free_cmd(c);
}

// Makes the timer fire no later than `at_ms` (monotonic).
void arm_at(long at_ms)
{
    if (g_link.state == LINK_OFF || g_link.timer.fd < 0 ||
        (g_link.armed_ms >= 0 && g_link.armed_ms <= at_ms))
        return;
    const long now = mono_ms();
    if (ioh_timer_arm(&g_link.timer, at_ms > now ? at_ms - now : 0) == 0)
        g_link.armed_ms = at_ms;
}

void log_drop(lbdb_cmd* c, const char* why)
{
    const time_t now = time(nullptr);
    g_link.ndropped += 1;
    if (now != g_link.drop_sec) {
        if (g_link.drop_quiet)
            zlog(L_WARN, "%s: %lu more queued commands dropped\n", "lbdb_drop", g_link.drop_quiet);
        g_link.drop_sec = now;
        g_link.drop_lines = 0;
        g_link.drop_quiet = 0;
    }
    if (g_link.drop_lines < static_cast<unsigned long>(LBQ_DROP_LOG_PER_SEC)) {
        g_link.drop_lines += 1;
        zlog(L_WARN, "%s: dropped [%s] (%s), %zu waiting, %lu dropped so far\n", "lbdb_drop",
             c->label, why, g_link.queue.len, g_link.ndropped);
    } else {
        // The summary comes with the next second's first drop or timer tick.
        g_link.drop_quiet += 1;
        arm_at(mono_ms() + 1000);
    }
}

void drop_expired(lbdb_cmd* c, void*)
{
    log_drop(c, "expired");
    finish_cmd(c, nullptr, LBQ_ST_EXPIRED);
}

void sent_unlink(lbdb_cmd* c)
{
    (c->prev ? c->prev->next : g_link.sent_head) = c->next;
    (c->next ? c->next->prev : g_link.sent_tail) = c->prev;
    c->prev = c->next = nullptr;
    g_link.nsent -= 1;
}

// hiredis hands every reply here, in order, and a null reply to each command still waiting when
// the context goes.
void on_reply(redisAsyncContext*, void* r, void* privdata)
{
    auto* c = static_cast<lbdb_cmd*>(privdata);
    sent_unlink(c);
    g_link.nreplies += r ? 1 : 0;
    int status = LBQ_ST_REPLY;
    if (!r) {
        g_link.broken = true;
        status = g_link.timing_out ? LBQ_ST_TIMEOUT : LBQ_ST_LOST;
    }
    finish_cmd(c, static_cast<const redisReply*>(r), status);
}

void send_cmd(lbdb_cmd* c)
{
    if (redisAsyncFormattedCommand(g_link.ac, on_reply, c, c->text, static_cast<size_t>(c->len)) !=
        REDIS_OK) {
        zlog(L_ERR, "%s: cannot send [%s]: %s\n", "lbdb_send", c->label,
             g_link.ac->errstr[0] ? g_link.ac->errstr : "link closing");
        finish_cmd(c, nullptr, LBQ_ST_LOST);
        return;
    }
    // A command sent before the connection is confirmed may wait for the connect as well.
    const long extra = g_link.state == LINK_CONNECTING ? connect_ms() : 0;
    c->deadline_ms = mono_ms() + c->tmout_ms + extra;
    c->next = nullptr;
    c->prev = g_link.sent_tail;
    (g_link.sent_tail ? g_link.sent_tail->next : g_link.sent_head) = c;
    g_link.sent_tail = c;
    g_link.nsent += 1;
    arm_at(c->deadline_ms);
}

// Sends what waited, oldest first, dropping what expired meanwhile.
void flush_queue()
{
    const time_t now = time(nullptr);
    while (g_link.state == LINK_READY && !g_link.broken) {
        lbdb_cmd* c = lbdb_pq_pop(&g_link.queue);
        if (!c)
            break;
        if (lbdb_cmd_expired(c, now))
            drop_expired(c, nullptr);
        else
            send_cmd(c);
    }
}

void fail_queue(int status)
{
    while (lbdb_cmd* c = lbdb_pq_pop(&g_link.queue))
        finish_cmd(c, nullptr, status);
}

// The context is gone (hiredis freed it or is freeing it): wait for the next attempt, or stay
// down without reconnection. Safe inside hiredis callbacks: nothing is freed here but commands.
void link_lost(const char* why)
{
    // The descriptor's registration is left to the adapter's cleanup, which hiredis calls
    // before it closes the descriptor.
    g_link.ac = nullptr;
    if (g_link.state == LINK_OFF || g_link.state == LINK_DEAD || g_link.state == LINK_WAIT)
        return;
    if (g_link.state == LINK_READY)
        zlog(L_ERR, "%s: link to %s:%d lost: %s\n", "lbdb_link", g_link.addr, g_link.port, why);
    else
        zlog(L_ERR, "%s: no link to %s:%d: %s\n", "lbdb_link", g_link.addr, g_link.port, why);
    if (g_cfg.reconnect_ms <= 0) {
        g_link.state = LINK_DEAD;
        zlog(L_ERR, "%s: reconnection is off, every registration fails from now on\n",
             "lbdb_link");
        fail_queue(LBQ_ST_DOWN);
        return;
    }
    g_link.state = LINK_WAIT;
    g_link.backoff_ms = lbdb_backoff_next(g_link.backoff_ms, g_cfg.reconnect_ms);
    g_link.retry_ms = mono_ms() + g_link.backoff_ms;
    zlog(L_INFO, "%s: reconnecting to %s:%d in %ld ms, %zu commands waiting\n", "lbdb_link",
         g_link.addr, g_link.port, g_link.backoff_ms, g_link.queue.len);
    arm_at(g_link.retry_ms);
}

// Frees the context from outside hiredis's callbacks (a time-out, a missing script).
void drop_link(const char* why)
{
    redisAsyncContext* ac = g_link.ac;
    if (!ac)
        return;
    // The link is given up first, with the real reason: the disconnect callback of the free
    // then no longer sees its context as the link's (and a context that never connected gets
    // no such callback at all).
    link_lost(why);
    redisAsyncFree(ac);
}

// ---- hiredis adapter: its read and write interest on our loop. ----

void ev_set(int bit, bool on)
{
    if (g_link.io.fd < 0)
        return;
    const int want = on ? (g_link.io.interest | bit) : (g_link.io.interest & ~bit);
    (void)ioh_want(&g_link.io, want);
}

void ev_add_read(void*)
{
    ev_set(RQS_READ, true);
}

void ev_del_read(void*)
{
    ev_set(RQS_READ, false);
}

void ev_add_write(void*)
{
    ev_set(RQS_WRITE, true);
}

void ev_del_write(void*)
{
    ev_set(RQS_WRITE, false);
}

// Called while hiredis frees the context, before it closes the descriptor.
void ev_cleanup(void*)
{
    ev_set(RQS_READ | RQS_WRITE, false);
    g_link.io.fd = -1;
}

int on_link_io(ioh_rec*, int what, int)
{
    redisAsyncContext* ac = g_link.ac;
    if (!ac)
        return 0;
    // An error or hang-up is read: hiredis learns of the closed link from the read itself.
    if (what == RQS_WRITE)
        redisAsyncHandleWrite(ac);
    else
        redisAsyncHandleRead(ac);
    return 0;
}

void on_connect(const redisAsyncContext* ac, int status)
{
    if (ac != g_link.ac)
        return;
    if (status != REDIS_OK) {
        // The connect's error is in the inner context: hiredis copies it out only afterwards.
        char why[160];
        snprintf(why, sizeof(why), "ERROR(%d): %s", ac->c.err, ac->c.errstr);
        link_lost(why);
        return;
    }
    zlog(L_INFO, "%s: connected to %s:%d, checking the scripts\n", "lbdb_link", g_link.addr,
         g_link.port);
    g_link.state = LINK_CHECKING;
}

void on_disconnect(const redisAsyncContext* ac, int status)
{
    if (ac != g_link.ac)
        return;
    char why[160];
    if (status == REDIS_OK)
        snprintf(why, sizeof(why), "closed");
    else
        snprintf(why, sizeof(why), "ERROR(%d): %s", ac->err, ac->errstr);
    link_lost(why);
}

void on_check(void* arg, const redisReply* reply, int status)
{
    const char* sha1 = static_cast<const char*>(arg);
    if (status != LBQ_ST_REPLY)
        return; // the link went: link_lost() has it
    const bool ok = reply->type == REDIS_REPLY_ARRAY && reply->elements == 1 &&
                    reply->element[0]->type == REDIS_REPLY_INTEGER &&
                    reply->element[0]->integer == 1;
    if (!ok) {
        // A Redis still loading its data set answers with an error: worth telling apart.
        if (reply->type == REDIS_REPLY_ERROR)
            zlog(L_ERR, "%s: Redis error: %s\n", "lbdb_link", reply->str);
        else
            zlog(L_ERR, "%s: no such script: %s\n", "lbdb_link", sha1);
        // Freed from the timer, not inside hiredis's reply callback.
        g_link.check_failed = true;
        arm_at(0);
        return;
    }
    g_link.checks_left -= 1;
    if (g_link.checks_left > 0 || g_link.check_failed || g_link.state != LINK_CHECKING)
        return;
    g_link.state = LINK_READY;
    g_link.backoff_ms = 0;
    zlog(L_NORM, "%s: link to %s:%d ready, %zu queued commands to send\n", "lbdb_link",
         g_link.addr, g_link.port, g_link.queue.len);
    flush_queue();
}

lbdb_cmd* make_cmd(lbdb_reply_fn fn, void* arg, long tmout_ms, time_t expire_at, const char* label,
                   const char* format, va_list ap)
{
    auto* c = static_cast<lbdb_cmd*>(calloc(1, sizeof(lbdb_cmd)));
    if (!c)
        log_abort("%s: out of memory\n", __func__);
    c->len = redisvFormatCommand(&c->text, format, ap);
    if (c->len < 0) {
        zlog(L_ERR, "%s: cannot format [%s]\n", "lbdb_command", label);
        free(c);
        return nullptr;
    }
    c->fn = fn;
    c->arg = arg;
    c->tmout_ms = tmout_ms > 0 ? tmout_ms : lbdb_cmd_tmout_ms(&g_cfg);
    c->expire_at = expire_at;
    snprintf(c->label, sizeof(c->label), "%s", label ? label : "?");
    return c;
}

[[gnu::format(printf, 5, 6)]] lbdb_cmd* make_cmdf(lbdb_reply_fn fn, void* arg, long tmout_ms,
                                                  const char* label, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    lbdb_cmd* c = make_cmd(fn, arg, tmout_ms, 0, label, format, ap);
    va_end(ap);
    return c;
}

// Opens a new context on the loop and sends the script checks behind the connect.
void link_open()
{
    g_link.timing_out = g_link.broken = g_link.check_failed = false;
    redisAsyncContext* ac = redisAsyncConnect(g_link.addr, g_link.port);
    if (!ac) {
        g_link.state = LINK_CONNECTING;
        link_lost("cannot allocate a context");
        return;
    }
    if (ac->err) {
        char why[160];
        snprintf(why, sizeof(why), "redisAsyncConnect ERROR(%d): %s", ac->err, ac->errstr);
        redisAsyncFree(ac);
        g_link.state = LINK_CONNECTING;
        link_lost(why);
        return;
    }
    g_link.ac = ac;
    ioh_init(&g_link.io, ac->c.fd, on_link_io, nullptr);
    ac->ev.data = &g_link;
    ac->ev.addRead = ev_add_read;
    ac->ev.delRead = ev_del_read;
    ac->ev.addWrite = ev_add_write;
    ac->ev.delWrite = ev_del_write;
    ac->ev.cleanup = ev_cleanup;
    (void)redisAsyncSetConnectCallback(ac, on_connect);
    (void)redisAsyncSetDisconnectCallback(ac, on_disconnect);
    g_link.state = LINK_CONNECTING;
    g_link.connect_deadline = mono_ms() + connect_ms();
    arm_at(g_link.connect_deadline);
    zlog(L_DEBUG, "%s: connecting to %s:%d\n", "lbdb_link", g_link.addr, g_link.port);

    g_link.checks_left = 0;
    for (const script_slot& s : g_slots) {
        if (!(g_ctx.need_func & s.flag))
            continue;
        lbdb_cmd* c = make_cmdf(on_check, s.sha1, 0, "script exists", "script exists %s", s.sha1);
        if (!c)
            continue;
        g_link.checks_left += 1;
        send_cmd(c);
        if (!g_link.ac)
            return;
    }
}

// Drops the link of a command that has waited too long; the first one found ends them all.
bool check_deadlines(long now)
{
    for (lbdb_cmd* c = g_link.sent_head; c; c = c->next) {
        if (c->deadline_ms > now)
            continue;
        zlog(L_ERR, "%s: no reply from %s:%d within %ld ms for [%s]\n", "lbdb_link", g_link.addr,
             g_link.port, c->tmout_ms, c->label);
        g_link.timing_out = true;
        drop_link("command time-out");
        g_link.timing_out = false;
        return true;
    }
    return false;
}

int on_link_timer(ioh_rec*, int, int)
{
    g_link.armed_ms = -1;
    const long now = mono_ms();
    if (g_link.check_failed) {
        g_link.check_failed = false;
        drop_link("a script is not loaded");
    }
    if (g_link.state == LINK_CONNECTING && g_link.ac && now >= g_link.connect_deadline) {
        zlog(L_ERR, "%s: connect to %s:%d timed out after %ld ms\n", "lbdb_link", g_link.addr,
             g_link.port, connect_ms());
        drop_link("connect time-out");
    }
    if (g_link.ac)
        (void)check_deadlines(now);
    if (g_link.state == LINK_WAIT && now >= g_link.retry_ms)
        link_open();

    (void)lbdb_pq_drop_expired(&g_link.queue, time(nullptr), drop_expired, nullptr);
    if (g_link.drop_quiet && time(nullptr) != g_link.drop_sec) {
        zlog(L_WARN, "%s: %lu more queued commands dropped\n", "lbdb_drop", g_link.drop_quiet);
        g_link.drop_quiet = 0;
    }

    // The next reason to wake: a retry, a connect or reply deadline, expiries in the queue.
    long next = -1;
    auto consider = [&next](long at) { next = (next < 0 || at < next) ? at : next; };
    if (g_link.state == LINK_WAIT)
        consider(g_link.retry_ms);
    if (g_link.state == LINK_CONNECTING && g_link.ac)
        consider(g_link.connect_deadline);
    for (const lbdb_cmd* c = g_link.sent_head; c; c = c->next)
        consider(c->deadline_ms);
    if (g_link.queue.len || g_link.drop_quiet)
        consider(mono_ms() + 1000);
    if (next >= 0)
        arm_at(next);
    return 0;
}

struct add_req {
    char segid[LBQ_MAX_FPATH_LEN];
    lbdb_done_fn done;
    void* arg;
};

void on_add_reply(void* arg, const redisReply* reply, int status)
{
    auto* rq = static_cast<add_req*>(arg);
    int rc = -1;
    if (status == LBQ_ST_REPLY) {
        rc = judge_reply(ADD_FUNC, reply, g_add_reply, ADD_REPLY_LEN);
        if (rc == 0) {
            zlog(L_DEBUG, "%s: result=[%s]\n", ADD_FUNC, g_add_reply);
            rc = check_add_reply(rq->segid);
        }
    } else if (status != LBQ_ST_EXPIRED && status != LBQ_ST_DROPPED) {
        // Drops have their own lines; a link that went is what the blocking call reported so.
        zlog(L_ERR, "%s: NULL as reply\n", ADD_FUNC);
    }
    if (rq->done)
        rq->done(rq->arg, rc, status);
    free(rq);
}

} // namespace

static void link_stop()
{
    if (g_link.state == LINK_OFF)
        return;
    // LINK_OFF first: the context's callbacks then only end their commands.
    g_link.state = LINK_OFF;
    if (g_link.ac) {
        redisAsyncContext* ac = g_link.ac;
        redisAsyncFree(ac);
        g_link.ac = nullptr;
    }
    // A queue of thousands at shut-down is reported like any other drop, under the rate limit.
    while (lbdb_cmd* c = lbdb_pq_pop(&g_link.queue)) {
        log_drop(c, "shut-down");
        finish_cmd(c, nullptr, LBQ_ST_DROPPED);
    }
    if (g_link.drop_quiet)
        zlog(L_WARN, "%s: %lu more queued commands dropped\n", "lbdb_drop", g_link.drop_quiet);
    ioh_timer_close(&g_link.timer);
    g_link = lbdb_link{};
    g_link.io.fd = g_link.timer.fd = -1;
    g_link.armed_ms = -1;
}

void lbdb_drain(long max_ms)
{
    if (max_ms <= 0 || g_link.state != LINK_READY || g_link.broken || !g_link.ac)
        return;
    flush_queue();
    const size_t asked = g_link.nsent;
    const unsigned long replies = g_link.nreplies;
    const long deadline = mono_ms() + max_ms;
    // The loop no longer runs: the link's descriptor is waited on here, as the loop would.
    while (g_link.ac && g_link.state == LINK_READY && !g_link.broken && g_link.nsent > 0) {
        const long left = deadline - mono_ms();
        if (left <= 0)
            break;
        redisAsyncContext* ac = g_link.ac;
        pollfd p{ac->c.fd, POLLIN, 0};
        if (g_link.io.interest & RQS_WRITE)
            p.events |= POLLOUT;
        const int n = poll(&p, 1, static_cast<int>(std::min<long>(left, INT_MAX)));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (p.revents & POLLOUT)
            redisAsyncHandleWrite(ac);
        if (g_link.ac && (p.revents & (POLLIN | POLLERR | POLLHUP)))
            redisAsyncHandleRead(ac);
    }
    const unsigned long answered = g_link.nreplies - replies;
    if (asked)
        zlog(answered < asked ? L_WARN : L_INFO, "%s: %lu of %zu commands answered at shut-down\n",
             "lbdb_drain", answered, asked);
}

bool lbdb_link_on()
{
    return g_link.state != LINK_OFF;
}

bool lbdb_link_ready()
{
    return g_link.state == LINK_READY && !g_link.broken;
}

size_t lbdb_pending_count()
{
    return g_link.queue.len;
}

int lbdb_link_start()
{
    ZASSERT(g_ctx.redis && g_link.state == LINK_OFF);
    // The peer's address, so that a reconnection never looks up a name on the loop.
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    if (getpeername(g_ctx.redis->fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: getpeername(fd%d) ERROR(%d): %s\n", g_ctx.redis->fd, err, strerror(err));
        return -1;
    }
    const void* bin = &reinterpret_cast<sockaddr_in*>(&ss)->sin_addr;
    if (ss.ss_family == AF_INET6)
        bin = &reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr;
    if (!inet_ntop(ss.ss_family, bin, g_link.addr, sizeof(g_link.addr))) {
        zlogf(L_ERR, "%s: cannot print the address of %s\n", g_cfg.host);
        return -1;
    }
    g_link.port = g_cfg.port;
    g_link.armed_ms = -1;
    g_link.io.fd = -1;
    if (ioh_timer_open(&g_link.timer, on_link_timer, nullptr) != 0)
        return -1;
    lbdb_pq_init(&g_link.queue, static_cast<size_t>(g_cfg.max_pending));
    // The start-up connection has done its checks; the loop gets a context of its own.
    redisFree(g_ctx.redis);
    g_ctx.redis = nullptr;
    zlogf(L_INFO, "%s: %s:%d on the event loop, command time-out %ld ms, reconnect %ld ms, "
                  "queue %ld\n",
          g_link.addr, g_link.port, lbdb_cmd_tmout_ms(&g_cfg), g_cfg.reconnect_ms,
          g_cfg.max_pending);
    link_open();
    return 0;
}

int lbdb_command(lbdb_reply_fn fn, void* arg, long tmout_ms, time_t expire_at, const char* label,
                 const char* format, ...)
{
    if (g_link.state == LINK_OFF || g_link.state == LINK_DEAD)
        return -1;
    va_list ap;
    va_start(ap, format);
    lbdb_cmd* c = make_cmd(fn, arg, tmout_ms, expire_at, label, format, ap);
    va_end(ap);
    if (!c)
        return -1;
    if (lbdb_link_ready()) {
        send_cmd(c);
        return 0;
    }
    if (lbdb_cmd* old = lbdb_pq_push(&g_link.queue, c)) {
        log_drop(old, "queue full");
        finish_cmd(old, nullptr, LBQ_ST_DROPPED);
    }
    arm_at(mono_ms() + 1000);
    return 0;
}

int lbdb_add_segurl_cb(const char* segid, const char* url, time_t expiry_tm, lbdb_done_fn done,
                       void* arg)
{
    ZASSERT(g_ctx.need_func & LBQ_FL_ADD);
    ZASSERT(g_ctx.add_sha1[0]);
    const long exp = static_cast<long>(expiry_tm);
    zlog(L_DEBUG, LBQ_ADD_CMD "\n", g_ctx.add_sha1, segid, url, exp);
    auto* rq = static_cast<add_req*>(calloc(1, sizeof(add_req)));
    if (!rq)
        log_abort("%s: out of memory\n", __func__);
    snprintf(rq->segid, sizeof(rq->segid), "%s", segid);
    rq->done = done;
    rq->arg = arg;
    if (lbdb_command(on_add_reply, rq, 0, lbdb_expire_at(expiry_tm, time(nullptr)), segid,
                     LBQ_ADD_CMD, g_ctx.add_sha1, segid, url, exp) != 0) {
        zlog(L_ERR, "%s: NULL as reply\n", ADD_FUNC);
        free(rq);
        return -1;
    }
    return 0;
}
