// The UDP channel intake: opening and registering the channel socket, taking one order per
// readable event ("#!<lock id> <URL> <expiry>"), guarding each order with a lock file, and handing
// it to the download machinery or, for a URL that is already local, to the segment registry.
#include "udl.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app.h"
#include "log.h"
#include "mtr.h"
#include "rq.h"
#include "rqs.h"
#include "strops.h"
#include "syswrap.h"
#include "webops.h"
#include "wopen.h"

LOG_MODULE(0, -1);

namespace {

constexpr size_t LOCK_PATH_LEN = 128;
constexpr int MIN_LOCK_PATH = 4;

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
    // What the datagram counts as when it fails; moved on as it passes each step.
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

        dw_spec spec{};
        rc = parse_url(url, lid, &spec);
        if (rc != 0) {
            // 17: a fresh unfinished file of that name is being written; 13: a source that is
            // not allowed. The message itself is fine in both cases.
            if (rc == 17)
                result = MTR_UDP_REFUSED;
            else if (rc == 13)
                result = MTR_UDP_DENIED;
            break;
        }
        spec.expiry_tm = expiry;
        zlogf(L_DEBUG, "%s: expiry time: %ld\n", static_cast<long>(expiry));

        if (is_local_url(spec.url)) {
            result = MTR_UDP_LOCAL;
            zlogf(L_DEBUG, "%s: [%s] is local URL, no download required\n", spec.url);
            if (g_cfg->lbdb.port > 0) {
                zlogf(L_DEBUG, "%s: adding local URL to LBDB\n");
                rc = add_lbdb_url(&spec);
            }
        } else {
            // Nobody waits for an answer, and a refused order keeps its lock until it goes
            // stale: that throttles repeated announcements of the same order.
            const int started = mk_dw_task(-1, &spec);
            result = started == 0    ? MTR_UDP_STARTED
                     : started == 13 ? MTR_UDP_DENIED
                                     : MTR_UDP_REFUSED;
        }
    } while (false);

    mtr_udp_order(result);
    if (rc == 0 || rc == 16)
        return 0;
    zlogf(L_ERR, "%s: [%s] request failed; url=[%s], rc=%d\n", lid ? lid : "",
          url ? url : "(null)", rc);
    // Only a lock this order took is released. One that lid_lock refused was reported there
    // already, and removing its path could take away the lock another agent holds meanwhile.
    if (locked)
        lid_unlock(lid);
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
