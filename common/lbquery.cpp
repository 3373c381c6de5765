// Client of the load-balancer database: the reader of its connection settings, the script digests,
// the connection with its start-up check of the scripts, and the script calls with the rules by
// which their replies are judged.
#include "lbquery.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config.h"
#include "log.h"

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
    return 0;
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
    redisContext* c = redisConnectWithTimeout(host, port, tmout);
    if (!c) {
        zlogf(L_ERR, "%s: redisConnectWithTimeout: cannot allocate context\n");
        rc = -1;
    } else if (c->err) {
        zlogf(L_ERR, "%s: redisConnectWithTimeout ERROR(%d): %s\n", c->err, c->errstr);
        redisFree(c);
        rc = -1;
    } else {
        zlogf(L_INFO, "%s: connected to %s:%d\n", host, port);
        g_ctx.redis = c;
        copy_str(g_cfg.host, sizeof(g_cfg.host), host);
        g_cfg.port = port;
        g_cfg.tmout = tmout;
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

// Takes over a reply of the calls: a lost link gives -1, otherwise the reply is converted into
// `buf` and freed, and a script-reported error gives -1.
static int take_reply(const char* func, void* r, char* buf, size_t buflen)
{
    auto* reply = static_cast<redisReply*>(r);
    if (!reply) {
        zlog(L_ERR, "%s: NULL as reply\n", func);
        return -1;
    }
    const int rc = reply_to_str(reply, buf, buflen);
    freeReplyObject(reply);
    if (rc)
        return rc;
    zlog(L_DEBUG, "%s: result=[%s]\n", func, buf);
    if (buf[0] == '#' && strstr(buf, SCRIPT_ERR_MARK)) {
        zlog(L_ERR, "%s: %s\n", func, buf);
        return -1;
    }
    return 0;
}

// Cuts a reply that broke a call's rule to a readable length for the log.
static const char* shown_reply(char* buf)
{
    if (strlen(buf) > FAILED_REPLY_SHOWN)
        buf[FAILED_REPLY_SHOWN] = '\0';
    return buf;
}

int lbdb_add_segurl(const char* segid, const char* url, time_t expiry_tm)
{
    ZASSERT(g_ctx.need_func & LBQ_FL_ADD);
    ZASSERT(g_ctx.redis && g_ctx.add_sha1[0]);
    const long exp = static_cast<long>(expiry_tm);
    zlog(L_DEBUG, LBQ_ADD_CMD "\n", g_ctx.add_sha1, segid, url, exp);
    const int rc = take_reply(
        __func__, redisCommand(g_ctx.redis, LBQ_ADD_CMD, g_ctx.add_sha1, segid, url, exp),
        g_add_reply, ADD_REPLY_LEN);
    if (rc)
        return rc;
    if (strncmp(g_add_reply, "OK ", 3) != 0) {
        zlogf(L_ERR, "%s: failed: %s\n", shown_reply(g_add_reply));
        return -1;
    }
    if (strcmp(g_add_reply + 3, segid) != 0) {
        zlogf(L_ERR, "%s: expected %s, got [%s]\n", segid, g_add_reply + 3);
        return -1;
    }
    return 0;
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

void lbdb_disconnect()
{
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
