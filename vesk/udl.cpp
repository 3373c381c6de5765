// The UDP channel intake: opening and registering the channel socket, taking one order per
// readable event ("#!<lock id> <URL> <expiry>"), guarding each order with a lock file or a Redis
// key, and handing it to the download machinery or, for a URL that is already local, to the
// segment registry.
#include "udl.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app.h"
#include "ioh.h"
#include "lbquery.h"
#include "log.h"
#include "mtr.h"
#include "rq.h"
#include "rqs.h"
#include "strops.h"
#include "syswrap.h"
#include "timeop.h"
#include "webops.h"
#include "wopen.h"

LOG_MODULE(0, -1);

namespace {

constexpr size_t LOCK_PATH_LEN = 128;
constexpr int MIN_LOCK_PATH = 4;

// The fail-open warning is written at most once a second; the renewal timer reports the total
// of the orders that went by without a line of their own.
char g_agent_id[UDL_AGENT_ID_LEN];
unsigned long g_fail_open;
unsigned long g_fail_open_shown; // the total as the last line showed it
rate_gate g_fail_open_gate;
ioh_rec g_renew_timer = {{}, -1, 0, nullptr, nullptr, false};

bool redis_locks()
{
    return g_cfg->udp_cha.must_lock && g_cfg->udp_cha.lock_backend == LOCK_BACKEND_REDIS;
}

// Formats the lock file path of `lid` into `path` (LOCK_PATH_LEN bytes). A path cut short by the
// buffer is used as cut. A lock id with a "/" would place the file (and its later removal) outside
// the lock directory, so it is refused. 0 or -1, logged under `caller`.
int mk_lock_path(const char* caller, const char* lid, char* path)
{
    if (std::strchr(lid, '/')) {
        zlog(L_ERR, "%s: invalid lock id [%s]\n", caller, lid);
        return -1;
    }
    const int n = std::snprintf(path, LOCK_PATH_LEN, "%s/%s.lock", g_cfg->udp_cha.lkdir, lid);
    if (n <= MIN_LOCK_PATH) {
        zlog(L_ERR, "%s: invalid lock path (n=%d): %s\n", caller, n, path);
        return -1;
    }
    return 0;
}

} // namespace

// The scripts go out with EVAL rather than by digest: they are part of this program, not of the
// registry's loaded set, so a Redis restarted with an empty script cache (or one where nobody ran
// the loader) still serves them, and the link's reconnection has nothing more to check. Redis
// keeps the compiled script after the first call, so each call costs only its text on the wire.
const char UDL_RELEASE_LUA[] =
    "if redis.call('GET', KEYS[1]) == ARGV[1] then return redis.call('DEL', KEYS[1]) end "
    "return 0";
const char UDL_RENEW_LUA[] =
    "local v = redis.call('GET', KEYS[1]) "
    "if v == ARGV[1] then return redis.call('PEXPIRE', KEYS[1], ARGV[2]) end "
    "if not v then return 0 end return v";

int udl_lock_key(const char* caller, const char* prefix, const char* lid, char* key, size_t size)
{
    if (std::strchr(lid, '/')) {
        zlog(L_ERR, "%s: invalid lock id [%s]\n", caller, lid);
        return -1;
    }
    const int n = std::snprintf(key, size, "%s%s", prefix, lid);
    // Unlike a file path, a cut key would be another lock: refused.
    if (n <= 0 || static_cast<size_t>(n) >= size) {
        zlog(L_ERR, "%s: lock key too long (n=%d): %s%s\n", caller, n, prefix, lid);
        return -1;
    }
    return 0;
}

int udl_agent_id(const char* host, long pid, char* buf, size_t size)
{
    const int n = std::snprintf(buf, size, "%s:%ld", host, pid);
    return n > 0 && static_cast<size_t>(n) < size ? 0 : -1;
}

const char* udl_lock_owner()
{
    return g_agent_id;
}

unsigned long udl_lock_fail_open_count()
{
    return g_fail_open;
}

namespace {

// An order whose Redis lock has been asked for; owned by the lock command until its answer.
struct lock_order {
    char lid[DW_LID_LEN];
    char url[UDL_RCVBUF_SIZE];
    time_t expiry;
};

// Steps of an order once its lock is held: the download, or the registration of a local URL.
// Every order that gets this far is counted here, by what became of it.
int take_order(const char* lid, const char* url, time_t expiry)
{
    dw_spec spec{};
    int rc = parse_url(url, lid, &spec);
    if (rc != 0) {
        // 17: a fresh unfinished file of that name is being written; 13: a source that is not
        // allowed. The message itself is fine in both cases.
        mtr_udp_order(rc == 17 ? MTR_UDP_REFUSED : rc == 13 ? MTR_UDP_DENIED : MTR_UDP_MALFORMED);
        return rc;
    }
    spec.expiry_tm = expiry;
    zlog(L_DEBUG, "%s: expiry time: %ld\n", "udl_accept", static_cast<long>(expiry));

    if (is_local_url(spec.url)) {
        mtr_udp_order(MTR_UDP_LOCAL);
        zlog(L_DEBUG, "%s: [%s] is local URL, no download required\n", "udl_accept", spec.url);
        if (g_cfg->lbdb.port > 0) {
            zlog(L_DEBUG, "%s: adding local URL to LBDB\n", "udl_accept");
            rc = add_lbdb_url(&spec);
        }
    } else {
        // Nobody waits for an answer, and a refused order keeps its lock until it goes
        // stale: that throttles repeated announcements of the same order.
        const int started = mk_dw_task(-1, &spec);
        mtr_udp_order(started == 0    ? MTR_UDP_STARTED
                      : started == 13 ? MTR_UDP_DENIED
                                      : MTR_UDP_REFUSED);
    }
    return rc;
}

// The end of an order: a failure is reported once, and only a lock this order took is released.
// One that was refused was reported already, and removing it could take away the lock another
// agent holds meanwhile.
void end_order(const char* lid, const char* url, int rc, bool locked)
{
    if (rc == 0 || rc == 16)
        return;
    zlog(L_ERR, "%s: [%s] request failed; url=[%s], rc=%d\n", "udl_accept", lid ? lid : "",
         url ? url : "(null)", rc);
    if (locked)
        lid_unlock(lid);
}

// The fail-open rule: the order goes on without a lock. Counted always, logged once a second.
void take_unlocked(const char* lid, const char* url, time_t expiry, const char* why)
{
    g_fail_open += 1;
    static constexpr timespec once_a_second = {1, 0};
    unsigned long held = 0; // the line gives the running total instead
    if (rate_gate_pass(&g_fail_open_gate, &once_a_second, &held)) {
        g_fail_open_shown = g_fail_open;
        zlog(L_WARN, "%s: no lock for [%s] (%s): order taken anyway, %lu without a lock so far\n",
             "udl_lock", lid, why, g_fail_open);
    }
    // The lock may still have been set by a command whose answer was lost: the owner-checked
    // release of the order's end clears it then.
    end_order(lid, url, take_order(lid, url, expiry), true);
}

const char* lock_status_text(int status)
{
    switch (status) {
    case LBQ_ST_TIMEOUT:
        return "no answer in time";
    case LBQ_ST_LOST:
        return "link lost";
    case LBQ_ST_DOWN:
        return "link down";
    default:
        return "not sent";
    }
}

void on_lock_reply(void* arg, const redisReply* reply, int status)
{
    auto* o = static_cast<lock_order*>(arg);
    // A channel closed meanwhile means shut-down: the order is dropped with the loop.
    if (!g_ctx.udl.is_ready) {
        free(o);
        return;
    }
    if (status == LBQ_ST_REPLY && reply->type == REDIS_REPLY_NIL) {
        zlog(L_INFO, "%s: [%s] already engaged, will skip\n", "udl_accept", o->lid);
        mtr_udp_order(MTR_UDP_LOCKED);
    } else if (status == LBQ_ST_REPLY && reply->type == REDIS_REPLY_STATUS &&
               std::strcmp(reply->str, "OK") == 0) {
        zlog(L_DEBUG, "%s: [%s] locked as [%s]\n", "udl_lock", o->lid, g_agent_id);
        end_order(o->lid, o->url, take_order(o->lid, o->url, o->expiry), true);
    } else if (status == LBQ_ST_REPLY) {
        char why[128];
        std::snprintf(why, sizeof(why), "unexpected answer type %d: %s", reply->type,
                      reply->str ? reply->str : "-");
        take_unlocked(o->lid, o->url, o->expiry, why);
    } else {
        take_unlocked(o->lid, o->url, o->expiry, lock_status_text(status));
    }
    free(o);
}

// Asks Redis for the lock of an order; the order goes on in on_lock_reply. 0 when the order was
// taken on (asked, or taken without a lock), -1 for a refused lock id.
int redis_lock(const char* lid, const char* url, time_t expiry)
{
    char key[UDL_LOCK_KEY_LEN];
    if (udl_lock_key("udl_lock", g_cfg->udp_cha.lock_prefix, lid, key, sizeof(key)) != 0)
        return -1;
    if (!lbdb_link_ready()) {
        take_unlocked(lid, url, expiry, "no link");
        return 0;
    }
    auto* o = static_cast<lock_order*>(calloc(1, sizeof(lock_order)));
    if (!o)
        log_abort("%s: out of memory\n", __func__);
    std::snprintf(o->lid, sizeof(o->lid), "%s", lid);
    std::snprintf(o->url, sizeof(o->url), "%s", url);
    o->expiry = expiry;
    if (lbdb_command(on_lock_reply, o, 0, 0, key, "SET %s %s NX PX %ld", key, g_agent_id,
                     static_cast<long>(UDL_LOCK_LIFE_MS)) != 0) {
        free(o);
        take_unlocked(lid, url, expiry, "link down");
        return 0;
    }
    zlog(L_DEBUG, "%s: [%s] lock asked as [%s]\n", "udl_lock", lid, key);
    return 0;
}

// `arg` is the lock id, ours to free.
void on_release_reply(void* arg, const redisReply* reply, int status)
{
    char* lid = static_cast<char*>(arg);
    if (status == LBQ_ST_REPLY && reply->type == REDIS_REPLY_INTEGER && reply->integer == 1)
        zlog(L_DEBUG, "%s: [%s] released\n", "udl_lock", lid);
    else if (status == LBQ_ST_REPLY && reply->type == REDIS_REPLY_INTEGER)
        zlog(L_INFO, "%s: [%s] was no longer ours at release, left alone\n", "udl_lock", lid);
    else if (status != LBQ_ST_EXPIRED && status != LBQ_ST_DROPPED)
        zlog(L_WARN, "%s: release of [%s] not confirmed (%s), it lapses by itself\n", "udl_lock",
             lid, status == LBQ_ST_REPLY ? "unexpected answer" : lock_status_text(status));
    free(lid);
}

void on_renew_reply(void* arg, const redisReply* reply, int status)
{
    char* lid = static_cast<char*>(arg);
    if (status == LBQ_ST_REPLY && reply->type == REDIS_REPLY_INTEGER && reply->integer == 1)
        zlog(L_DEBUG, "%s: [%s] renewed for %ld ms\n", "udl_lock", lid,
             static_cast<long>(UDL_LOCK_LIFE_MS));
    else if (status == LBQ_ST_REPLY && reply->type == REDIS_REPLY_INTEGER)
        zlog(L_WARN, "%s: [%s] lapsed before its renewal; the download goes on\n", "udl_lock", lid);
    else if (status == LBQ_ST_REPLY && reply->type == REDIS_REPLY_STRING)
        zlog(L_WARN, "%s: [%s] is held by [%s]; the download goes on\n", "udl_lock", lid,
             reply->str);
    else
        zlog(L_DEBUG, "%s: renewal of [%s] not confirmed\n", "udl_lock", lid);
    free(lid);
}

// xvlst_each callback over the task table: renews the lock of a running task. Always 0.
int renew_task(void* data, size_t i)
{
    const dw_task* dw = static_cast<const dw_task*>(data) + i;
    if (dw->is_quitting || !dw->spec.lid[0])
        return 0;
    char key[UDL_LOCK_KEY_LEN];
    if (udl_lock_key("udl_renew", g_cfg->udp_cha.lock_prefix, dw->spec.lid, key, sizeof(key)))
        return 0;
    char* lid = strdup(dw->spec.lid);
    if (!lid)
        log_abort("%s: out of memory\n", __func__);
    // A renewal is only worth sending now: one that waited would arrive after the next one.
    if (lbdb_command(on_renew_reply, lid, 0, time(nullptr), key, "EVAL %s 1 %s %s %ld",
                     UDL_RENEW_LUA, key, g_agent_id, static_cast<long>(UDL_LOCK_LIFE_MS)) != 0)
        free(lid);
    return 0;
}

int on_renew_timer(ioh_rec* h, int, int)
{
    if (g_fail_open != g_fail_open_shown) {
        g_fail_open_shown = g_fail_open;
        zlog(L_WARN, "%s: %lu orders taken without a lock so far\n", "udl_lock", g_fail_open);
    }
    if (lbdb_link_ready())
        (void)xvlst_each(&g_ctx.tasks, renew_task, nullptr);
    (void)ioh_timer_arm(h, UDL_LOCK_RENEW_MS);
    return 0;
}

// Fixes the agent id and starts the renewals. 0 or -1 (logged).
int start_redis_locks()
{
    char host[64];
    if (gethostname(host, sizeof(host)) != 0) {
        const int err = errno;
        zlog(L_ERR, "%s: gethostname() ERROR(%d): %s\n", "udl_ctx_start", err, std::strerror(err));
        return -1;
    }
    host[sizeof(host) - 1] = '\0';
    if (udl_agent_id(host, static_cast<long>(getpid()), g_agent_id, sizeof(g_agent_id)) != 0)
        return -1;
    if (ioh_timer_open(&g_renew_timer, on_renew_timer, nullptr) != 0 ||
        ioh_timer_arm(&g_renew_timer, UDL_LOCK_RENEW_MS) != 0)
        return -1;
    zlog(L_NORM, "%s: request locks in Redis as [%s], keys [%s<lock id>]\n", "udl_ctx_start",
         g_agent_id, g_cfg->udp_cha.lock_prefix);
    return 0;
}

} // namespace

int udl_ctx_init(const udp_lstn_cfg* cfg, udl_ctx* udl)
{
    if (!cfg->url[0])
        return 0;
    ZASSERT(!udl->is_ready);
    udl->usock = usock_ctx{};
    udl->usock.inbound = true;
    udl->usock.non_blocking = true;
    udl->usock.ifc_tag = cfg->mifc[0] ? cfg->mifc : nullptr;
    const int fd = usock_open(cfg->url, &udl->usock);
    if (fd < 0) {
        zlogf(L_ERR, "%s: failed to open [%s]\n", cfg->url);
        return -1;
    }
    udl->sockfd = fd;
    set_tag32(&udl->tag, "UDL");
    udl->is_ready = true;
    zlogf(L_INFO, "%s: fd%d set up to listen on [%s]\n", fd, cfg->url);
    return 0;
}

int udl_ctx_start(udl_ctx* udl)
{
    ZASSERT(udl->is_ready);
    const int rc = rqs_add_reader(udl->sockfd, udl);
    if (rc != 0) {
        zlogf(L_ERR, "%s: cannot start UDP listener on fd%d\n", udl->sockfd);
        return rc;
    }
    if (redis_locks() && start_redis_locks() != 0)
        return -1;
    zlogf(L_DEBUG, "%s: listening on fd%d\n", udl->sockfd);
    return 0;
}

void udl_ctx_destroy(udl_ctx* udl)
{
    if (!udl->is_ready)
        return;
    const int fd = udl->sockfd >= 1 ? udl->sockfd : -1;
    if (fd >= 1)
        usock_close(fd, &udl->usock);
    ioh_timer_close(&g_renew_timer);
    udl->sockfd = -1;
    udl->is_ready = false;
    zlogf(L_DEBUG, "%s: done on fd%d\n", fd);
}

int udl_accept(udl_ctx* udl)
{
    ZASSERT(udl->sockfd >= 1);
    char buf[UDL_RCVBUF_SIZE] = {};
    char* lid = nullptr;
    char* url = nullptr;
    time_t expiry = 0;
    int rc = 0;
    bool locked = false;
    // What the datagram counts as when it fails before take_order, which counts the rest.
    mtr_udp result = MTR_UDP_ERROR;

    // One datagram per event; the steps below each end the order on failure, and every failure
    // is reported once at the end.
    do {
        sockaddr_storage peer{};
        socklen_t plen = sizeof peer;
        const ssize_t n = recvfrom(udl->sockfd, buf, sizeof(buf) - 1, MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&peer), &plen);
        if (n <= 0) {
            const int err = errno;
            zlogf(L_ERR, "%s: recv(fd%d, .., %zu,..) ERROR(%d): %s\n", udl->sockfd,
                  sizeof(buf) - 1, err, std::strerror(err));
            rc = -1;
            break;
        }
        // A datagram from a peer outside vesk.allow_clients is dropped before it is parsed, so
        // it takes no lock and starts nothing.
        static rate_gate gate;
        if (!rui_client_admitted(__func__, "datagram", reinterpret_cast<sockaddr*>(&peer), plen,
                                 &gate)) {
            mtr_udp_order(MTR_UDP_DENIED);
            return 0;
        }
        zlogf(L_DEBUG, "%s: read %zd bytes from fd%d\n", n, udl->sockfd);
        result = MTR_UDP_MALFORMED;
        // The length is judged on what arrived, before any line end is trimmed.
        if (n < MIN_UMSG_LEN || n > MAX_UMSG_LEN) {
            zlogf(L_ERR, "%s: invalid message length: %zd (min/max=%d/%d)\n", n, MIN_UMSG_LEN,
                  MAX_UMSG_LEN);
            rc = -1;
            break;
        }
        chomp(buf);
        zlogf(L_DEBUG, "%s: msg=[%s]\n", buf);
        if (buf[0] != '#' || buf[1] != '!') {
            zlogf(L_ERR, "%s: invalid message prefix\n");
            rc = -1;
            break;
        }
        rc = parse_msg(buf + 2, &url, &lid, &expiry);
        if (rc != 0)
            break;
        // Redis answers on the loop: the order goes on there, this datagram is done.
        if (redis_locks()) {
            rc = redis_lock(lid, url, expiry);
            if (rc == 0)
                return 0;
            break;
        }
        rc = lid_lock(lid);
        if (rc == 16) {
            zlogf(L_INFO, "%s: [%s] already engaged, will skip\n", lid);
            mtr_udp_order(MTR_UDP_LOCKED);
            return 0;
        }
        if (rc != 0) {
            result = MTR_UDP_ERROR;
            break;
        }
        locked = true;
        rc = take_order(lid, url, expiry);
        end_order(lid, url, rc, locked);
        return 0;
    } while (false);

    mtr_udp_order(result);
    end_order(lid, url, rc, locked);
    return 0;
}

int parse_msg(char* text, char** purl, char** plkid, time_t* expiry)
{
    const size_t n = std::strlen(text);
    const size_t i = std::strcspn(text, " \t");
    if (i >= n) {
        zlogf(L_ERR, "%s: missing URL part\n");
        return -1;
    }
    text[i] = '\0';
    if (i < MIN_LID_LEN || i > MAX_LID_LEN) {
        zlogf(L_ERR, "%s: id length (%zu) out of bounds: %d/%d\n", i, MIN_LID_LEN, MAX_LID_LEN);
        return -1;
    }

    char* url = text + i + 1;
    const size_t m = std::strcspn(url, " \t");
    if (m < MIN_URL_LEN) {
        zlogf(L_ERR, "%s: URL length is too small: %zu/%d bytes\n", m, MIN_URL_LEN);
        return -1;
    }
    const size_t url_end = i + 1 + m;
    text[url_end] = '\0';
    size_t j = url_end + 1;
    while (j < n && std::isspace(static_cast<unsigned char>(text[j])))
        ++j;
    if (j >= n || text[j] == '#') {
        // A message without an expiry is fatal to the agent in this version, by design: the
        // sender is broken and must be fixed, not tolerated.
        zlogf(L_WARN, "%s: no expiry data passed\n");
        log_assert_fail("no expiry data passed", __FILE__, __LINE__, __func__);
    }

    long exp = 0;
    const int got = std::sscanf(text + j, "%ld %*s", &exp);
    if (got != 1) {
        zlogf(L_WARN, "%s: NO EXPIRY: sscanf('%s',..) expected 1, got %d\n", text + j, got);
        exp = 0;
    }
    if (purl)
        *purl = url;
    if (plkid)
        *plkid = text;
    if (expiry)
        *expiry = static_cast<time_t>(exp);
    return 0;
}

int parse_url(const char* url, const char* lkid, dw_spec* spec)
{
    char src[URQ_ENDPT_LEN];
    char dst[URQ_ENDPT_LEN];
    int rc = web_parse_url(url, src, dst, sizeof(src));
    if (rc == 0)
        rc = setup_dw_spec(src, dst, sizeof(dst) - 1, spec);
    if (rc == 0 && lkid) {
        const size_t len = strnlen(lkid, sizeof(spec->lid) - 1);
        std::memcpy(spec->lid, lkid, len);
        spec->lid[len] = '\0';
    }
    return rc;
}

int lid_lock(const char* lid)
{
    if (!g_cfg->udp_cha.must_lock)
        return 0;
    char path[LOCK_PATH_LEN];
    if (mk_lock_path(__func__, lid, path) != 0)
        return -1;
    const int rc = check_and_expire(path, LID_LOCK_MAX_AGE);
    if (rc != 0)
        return rc;

    // Exclusive creation decides between agents sharing the lock directory; the empty file only
    // counts by its existence and its modification time.
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        const int err = errno;
        if (err == EEXIST)
            return 16;
        zlogf(L_ERR, "%s: open(%s,...) ERROR(%d): %s\n", path, err, std::strerror(err));
        return -1;
    }
    W_close(__func__, fd);
    zlogf(L_DEBUG, "%s: [%s] locked\n", path);
    return 0;
}

void lid_unlock(const char* lid)
{
    if (!g_cfg->udp_cha.must_lock)
        return;
    if (g_cfg->udp_cha.lock_backend == LOCK_BACKEND_REDIS) {
        char key[UDL_LOCK_KEY_LEN];
        if (udl_lock_key(__func__, g_cfg->udp_cha.lock_prefix, lid, key, sizeof(key)) != 0)
            return;
        // Without a link the release is not queued: the lock lapses by itself within its life,
        // and a long outage must not fill the link's queue with releases that would push out
        // the registrations waiting there.
        if (!lbdb_link_ready()) {
            zlogf(L_DEBUG, "%s: %s at [%s] left to lapse, no link\n", lid, key);
            return;
        }
        zlogf(L_DEBUG, "%s: %s at [%s]\n", lid, key);
        char* copy = strdup(lid);
        if (!copy)
            log_abort("%s: out of memory\n", __func__);
        if (lbdb_command(on_release_reply, copy, 0, 0, key, "EVAL %s 1 %s %s", UDL_RELEASE_LUA,
                         key, g_agent_id) != 0)
            free(copy);
        return;
    }
    char path[LOCK_PATH_LEN];
    if (mk_lock_path(__func__, lid, path) != 0)
        return;
    zlogf(L_DEBUG, "%s: %s at [%s]\n", lid, path);
    W_unlink(__func__, path);
}

int check_and_expire(const char* path, long max_age)
{
    struct stat st{};
    if (stat(path, &st) != 0) {
        const int err = errno;
        if (err == ENOENT)
            return 0;
        zlogf(L_ERR, "%s: stat(%s, ..) ERROR(%d): %s\n", path, err, std::strerror(err));
        return -1;
    }
    const long age = static_cast<long>(time(nullptr) - st.st_mtime);
    // At most max_age: a lock exactly that old still holds.
    if (age <= max_age) {
        zlogf(L_INFO, "%s: upstanding lock [%s] (age=%ld) found\n", path, age);
        return 16;
    }
    if (W_unlink(__func__, path) != 0)
        return -1;
    zlogf(L_DEBUG, "%s: expired stale lock [%s], age=%ld sec\n", path, age);
    return 0;
}
