// Socket operations beneath the listener manager, the listener configuration and the source
// client: listeners, the resolving opener with its client, listener and multicast-reader set-ups,
// interface look-up and small option and address-text helpers.
#include "netops.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/un.h>
#include <unistd.h>

#include "log.h"
#include "strops.h"
#include "syswrap.h"
#include "uri.h"

LOG_MODULE(0, -1);

namespace {

// Closes the descriptor on every early return of an opener; release() hands it over on success.
// errno survives the close, so the caller still sees why the opener failed.
class fd_guard {
public:
    fd_guard(int fd, const char* who) : fd_(fd), who_(who) {}
    fd_guard(const fd_guard&) = delete;
    fd_guard& operator=(const fd_guard&) = delete;
    ~fd_guard()
    {
        if (fd_ >= 0) {
            const int saved = errno;
            W_close(who_, fd_);
            errno = saved;
        }
    }
    int get() const { return fd_; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
    const char* who_;
};

constexpr const char* OPEN_SOCKET = "open_socket";
// Source-specific multicast sources carry no meaningful port; this one fills the resolver's need.
constexpr const char* SSM_DEFAULT_PORT = "111";

} // namespace

static socklen_t inet_len(int family)
{
    return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

static bool is_mcast_addr(const sockaddr_storage* ss)
{
    if (ss->ss_family == AF_INET)
        return IN_MULTICAST(ntohl(reinterpret_cast<const sockaddr_in*>(ss)->sin_addr.s_addr));
    if (ss->ss_family == AF_INET6)
        return IN6_IS_ADDR_MULTICAST(&reinterpret_cast<const sockaddr_in6*>(ss)->sin6_addr);
    return false;
}

static bool is_plain_number(const char* s)
{
    if (!*s)
        return false;
    for (; *s; ++s)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

// The port of a listener: a decimal number from 1 to 65535 (atoi rules), else logged as invalid.
static bool listener_port(const char* who, const char* port, uint16_t* out)
{
    const int n = port ? std::atoi(port) : 0;
    if (n < 1 || n > 65535) {
        zlog(L_ERR, "%s: invalid port number: %s\n", who, port ? port : "(null)");
        return false;
    }
    *out = static_cast<uint16_t>(n);
    return true;
}

static bool listener_family(const char* who, const sockaddr_storage* ss)
{
    if (ss->ss_family == AF_INET || ss->ss_family == AF_INET6)
        return true;
    zlog(L_ERR, "%s: invalid network family: %d\n", who, ss->ss_family);
    return false;
}

static void set_port(sockaddr_storage* ss, uint16_t port)
{
    if (ss->ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6*>(ss)->sin6_port = htons(port);
    else
        reinterpret_cast<sockaddr_in*>(ss)->sin_port = htons(port);
}

int set_nblock(int sockfd, int nblock)
{
    const int flags = fcntl(sockfd, F_GETFL);
    if (flags == -1) {
        const int err = errno;
        zlogf(L_ERR, "%s: fcntl(%d, F_GETFL) ERROR(%d): %s\n", sockfd, err, strerror(err));
        errno = err;
        return -1;
    }
    if (((flags & O_NONBLOCK) != 0) == (nblock != 0))
        return 0;
    const int nflags = nblock ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(sockfd, F_SETFL, nflags) == -1) {
        const int err = errno;
        zlogf(L_ERR, "%s: fcntl(%d, F_SETFL, %d) ERROR(%d): %s\n", sockfd, nflags, err,
              strerror(err));
        errno = err;
        return -1;
    }
    zlogf(L_DEBUG, "%s: fd%d set as %sblocking\n", sockfd, nblock ? "non-" : "");
    return 0;
}

int set_tcp_nodelay(int sockfd, int is_on)
{
    const int val = is_on ? 1 : 0;
    const int rc = W_setsockopt(__func__, sockfd, IPPROTO_TCP, TCP_NODELAY, &val, sizeof val);
    if (rc == 0)
        zlog(L_INFO, "TCP_NODELAY turned %s for [fd=%d]\n", is_on ? "ON" : "OFF", sockfd);
    return rc;
}

static int set_timeout_opt(const char* who, int sockfd, int opt, int ms)
{
    if (ms < 0) {
        zlog(L_ERR, "%s: invalid time-out %d ms for fd%d\n", who, ms, sockfd);
        errno = EINVAL;
        return -1;
    }
    timeval tv{};
    tv.tv_sec = ms / 1000;
    tv.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
    return W_setsockopt(who, sockfd, SOL_SOCKET, opt, &tv, sizeof tv);
}

int set_rcv_timeout(int sockfd, int ms)
{
    return set_timeout_opt(__func__, sockfd, SO_RCVTIMEO, ms);
}

int set_send_timeout(int sockfd, int ms)
{
    return set_timeout_opt(__func__, sockfd, SO_SNDTIMEO, ms);
}

int socket_error(int sockfd)
{
    int err = 0;
    socklen_t len = sizeof err;
    if (W_getsockopt(__func__, sockfd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        err = errno;
    if (err) {
        zlogf(L_ERR, "%s(fd%d) ERROR(%d): %s\n", sockfd, err, strerror(err));
        errno = err;
    }
    return err;
}

char* saddr_str(struct sockaddr* sa, socklen_t salen, char* buf, size_t len)
{
    if (!sa || !buf || len == 0)
        return nullptr;
    char host[NI_MAXHOST];
    char serv[NI_MAXSERV];
    const int rc = getnameinfo(sa, salen, host, sizeof host, serv, sizeof serv,
                               NI_NUMERICHOST | NI_NUMERICSERV);
    int n;
    if (sa->sa_family == AF_UNIX) {
        if (rc != 0) {
            // The resolver does not speak local-domain addresses: the path stands for the host.
            // It need not be NUL-terminated within the given length.
            const auto* su = reinterpret_cast<const sockaddr_un*>(sa);
            const size_t off = offsetof(sockaddr_un, sun_path);
            size_t plen = salen > off ? salen - off : 0;
            plen = strnlen(su->sun_path, plen < sizeof su->sun_path ? plen : sizeof su->sun_path);
            std::memcpy(host, su->sun_path, plen);
            host[plen] = '\0';
            serv[0] = '\0';
        }
        n = std::snprintf(buf, len, "DOMAIN %s:%s", host, serv);
    } else if (rc != 0) {
        zlogf(L_ERR, "%s: getnameinfo error (%d): %s\n", rc, gai_strerror(rc));
        return nullptr;
    } else if (sa->sa_family == AF_INET6) {
        n = std::snprintf(buf, len, "[%s]:%s", host, serv);
    } else {
        n = std::snprintf(buf, len, "%s:%s", host, serv);
    }
    if (n < 0 || static_cast<size_t>(n) >= len) {
        zlogf(L_ERR, "%s: %zu bytes are too few for the address text\n", len);
        buf[0] = '\0';
        return nullptr;
    }
    return buf;
}

int name2af(const char* name)
{
    static const struct {
        const char* name;
        int af;
    } names[] = {
        {"inet4", AF_INET},
        {"inet", AF_INET},
        {"ipv4", AF_INET},
        {"af_inet", AF_INET},
        {"pf_inet", AF_INET},
        {"inet6", AF_INET6},
        {"ipv6", AF_INET6},
        {"af_inet6", AF_INET6},
        {"pf_inet6", AF_INET6},
        {"", 0},
        {"any", 0},
        {"unspec", 0},
        {"anyaddr", 0},
        {"all", 0},
    };
    const char* n = name ? name : "";
    for (const auto& e : names)
        if (strcasecmp(e.name, n) == 0)
            return e.af;
    zlogf(L_ERR, "%s: unsupported address family [%s] in configuration.", n);
    return -1;
}

// A hex dump of the address bytes goes with a failed bind, so that a malformed record shows.
static void dump_addr(const char* who, int sock, const sockaddr* addr, socklen_t addrlen, int err)
{
    char hex[2 * sizeof(sockaddr_storage) + 4];
    const size_t n = addrlen < sizeof(sockaddr_storage) ? addrlen : sizeof(sockaddr_storage);
    bin_to_dhex(addr, n, hex, sizeof hex, nullptr);
    zlog(L_ERR, "%s: fd=%d cannot bind, ERROR(%d): %s; address family %d, %u bytes: %s\n", who,
         sock, err, strerror(err), addr->sa_family, static_cast<unsigned>(addrlen), hex);
}

int reuse_and_bind(int sock, struct sockaddr* addr, socklen_t addrlen)
{
    const int on = 1;
    int err = 0;
    if (W_setsockopt(__func__, sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        err = errno;
    } else {
        // Sharing the port between processes is welcome but not required.
        (void)W_setsockopt(__func__, sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        if (W_bind(__func__, sock, addr, addrlen) != 0)
            err = errno;
    }
    if (err) {
        dump_addr(__func__, sock, addr, addrlen, err);
        errno = err;
        return err;
    }
    char text[INET6_ADDRSTRLEN + 128];
    const char* shown = saddr_str(addr, addrlen, text, sizeof text);
    zlogf(L_DEBUG, "%s: fd=%d %s OK\n", sock, shown ? shown : "?");
    return 0;
}

// A non-blocking socket of `type` bound to `addr`, listening when `listen` is set. The descriptor,
// or -1 with nothing left open.
static int open_bound(const char* who, sockaddr_storage addr, int type, bool listen)
{
    fd_guard sock(W_socket(who, addr.ss_family, type, 0), who);
    if (sock.get() < 0)
        return -1;
    if (reuse_and_bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), inet_len(addr.ss_family)))
        return -1;
    if (set_nblock(sock.get(), 1))
        return -1;
    if (listen && W_listen(who, sock.get(), NETOPS_BACKLOG))
        return -1;
    return sock.release();
}

int open_listener(const struct sockaddr_storage* ss, const char* port, int defer_listen)
{
    uint16_t pnum = 0;
    if (!ss || !listener_port(__func__, port, &pnum) || !listener_family(__func__, ss))
        return -1;
    sockaddr_storage addr = *ss;
    set_port(&addr, pnum);
    return open_bound(__func__, addr, SOCK_STREAM, !defer_listen);
}

int open_udp_listener(const struct sockaddr_storage* ss, const char* port)
{
    if (!ss || !listener_family(__func__, ss))
        return -1;
    sockaddr_storage addr = *ss;
    if (port) {
        uint16_t pnum = 0;
        if (!listener_port(__func__, port, &pnum))
            return -1;
        set_port(&addr, pnum);
    }
    return open_bound(__func__, addr, SOCK_DGRAM, false);
}

int open_anyaddr_listener(int af, const char* port, int defer_listen)
{
    socket_spec spec{};
    spec.passive = 1;
    spec.non_blocking = 1;
    spec.defer_listen = defer_listen ? 1 : 0;
    spec.family = af;
    spec.socktype = SOCK_STREAM;
    return open_socket(nullptr, port, nullptr, &spec, nullptr, nullptr);
}

int open_domain_listener(const char* path)
{
    sockaddr_un su{};
    su.sun_family = AF_UNIX;
    const size_t plen = path ? strnlen(path, sizeof su.sun_path) : 0;
    bool ok = plen > 0 && plen < sizeof su.sun_path;
    fd_guard sock(ok ? W_socket(__func__, AF_UNIX, SOCK_STREAM, 0) : -1, __func__);
    ok = ok && sock.get() >= 0 && set_nblock(sock.get(), 1) == 0;
    if (ok && unlink(path) != 0 && errno != ENOENT) {
        const int err = errno;
        zlogf(L_ERR, "%s: unlink ERROR(%d): %s\n", err, strerror(err));
        ok = false;
    }
    if (ok) {
        std::memcpy(su.sun_path, path, plen);
        ok = W_bind(__func__, sock.get(), reinterpret_cast<sockaddr*>(&su), sizeof su) == 0 &&
             W_listen(__func__, sock.get(), NETOPS_BACKLOG) == 0;
    }
    if (!ok) {
        zlogf(L_ERR, "%s: failed for path=[%s]\n", path ? path : "(null)");
        return -1;
    }
    zlogf(L_DEBUG, "%s: fd=%d is listening on [%s]\n", sock.get(), path);
    return sock.release();
}

// Rank of an interface address for get_ifc_info: lower is preferred. IPv4 comes first for an
// unspecified family; a link-local IPv6 address needs a scope, so a global one is better.
static int addr_rank(const sockaddr* sa)
{
    if (sa->sa_family == AF_INET)
        return 0;
    const auto* s6 = reinterpret_cast<const sockaddr_in6*>(sa);
    return IN6_IS_ADDR_LINKLOCAL(&s6->sin6_addr) ? 2 : 1;
}

static bool same_ip(const sockaddr* sa, int af, const void* bin)
{
    if (sa->sa_family != af)
        return false;
    if (af == AF_INET)
        return std::memcmp(&reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, bin,
                           sizeof(in_addr)) == 0;
    return std::memcmp(&reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, bin,
                       sizeof(in6_addr)) == 0;
}

// Rules of the look-up: a tag that reads as a numeric IPv4 or IPv6 address must be an address of
// some interface (of family `af` unless it is 0); any other tag is an interface name, which must
// have an address of family `af` (either family for 0).
struct ifc_info* get_ifc_info(int af, const char* tag)
{
    if (af != 0 && af != AF_INET && af != AF_INET6) {
        zlogf(L_ERR, "%s: invalid network family: %d\n", af);
        return nullptr;
    }
    if (!tag || !*tag) {
        zlogf(L_ERR, "%s: no interface name or address given\n");
        return nullptr;
    }
    const char* fam_name = af == AF_INET ? "IPv4" : af == AF_INET6 ? "IPv6" : "IP";
    unsigned char bin[sizeof(in6_addr)];
    int tag_af = 0;
    if (inet_pton(AF_INET, tag, bin) == 1)
        tag_af = AF_INET;
    else if (inet_pton(AF_INET6, tag, bin) == 1)
        tag_af = AF_INET6;
    if (tag_af && af && tag_af != af) {
        zlog(L_ERR, "[%s] is not a valid %s interface address.\n", tag, fam_name);
        return nullptr;
    }

    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: getifaddrs ERROR(%d): %s\n", err, strerror(err));
        return nullptr;
    }
    const ifaddrs* best = nullptr;
    for (const ifaddrs* p = list; p; p = p->ifa_next) {
        const sockaddr* sa = p->ifa_addr;
        if (!sa || (sa->sa_family != AF_INET && sa->sa_family != AF_INET6))
            continue;
        if (af && sa->sa_family != af)
            continue;
        if (tag_af) {
            if (same_ip(sa, tag_af, bin)) {
                best = p;
                break;
            }
            continue;
        }
        if (std::strcmp(p->ifa_name, tag) == 0 &&
            (!best || addr_rank(sa) < addr_rank(best->ifa_addr)))
            best = p;
    }

    ifc_info* ifi = nullptr;
    if (!best) {
        if (tag_af)
            zlog(L_ERR, "[%s] is not a valid %s interface address.\n", tag, fam_name);
        else
            zlogf(L_ERR, "%s: no %s address on network interface [%s]\n", fam_name, tag);
    } else if ((ifi = static_cast<ifc_info*>(W_calloc(__func__, 1, sizeof(ifc_info))))) {
        ifi->idx = if_nametoindex(best->ifa_name);
        std::snprintf(ifi->name, sizeof ifi->name, "%s", best->ifa_name);
        std::memcpy(&ifi->ss, best->ifa_addr, inet_len(best->ifa_addr->sa_family));
        char text[INET6_ADDRSTRLEN + 128];
        const char* shown = saddr_str(reinterpret_cast<sockaddr*>(&ifi->ss),
                                      inet_len(ifi->ss.ss_family), text, sizeof text);
        zlogf(L_DEBUG, "%s: [%s] is %s (index %u) %s\n", tag, ifi->name, ifi->idx,
              shown ? shown : "?");
    }
    freeifaddrs(list);
    return ifi;
}

// Joins or leaves the group `group` on interface `idx` (0: the kernel's choice), source-specific
// when the socket description names a source. The protocol-independent requests serve both
// families.
static int mcast_membership(const char* who, int fd, bool join, const sockaddr_storage* group,
                            const socket_spec* spec, uint32_t idx)
{
    const int level = group->ss_family == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
    const socklen_t glen = inet_len(group->ss_family);
    if (spec->is_ssm) {
        group_source_req gsr{};
        gsr.gsr_interface = idx;
        std::memcpy(&gsr.gsr_group, group, glen);
        std::memcpy(&gsr.gsr_source, &spec->src_ss, spec->src_len);
        return W_setsockopt(who, fd, level,
                            join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP, &gsr,
                            sizeof gsr);
    }
    group_req gr{};
    gr.gr_interface = idx;
    std::memcpy(&gr.gr_group, group, glen);
    return W_setsockopt(who, fd, level, join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, &gr,
                        sizeof gr);
}

// Multicast reader: bind to the group itself, so that only its datagrams arrive, then join it on
// the chosen interface. The interface record goes to `*used` on success.
static int setup_mcast_reader(int fd, sockaddr_storage* ss, socklen_t len, const socket_spec* spec,
                              const char* ifc_tag, ifc_info** used)
{
    ifc_info* ifc = nullptr;
    if (ifc_tag && *ifc_tag && !(ifc = get_ifc_info(ss->ss_family, ifc_tag)))
        return -1;
    if (ss->ss_family == AF_INET6) {
        auto* s6 = reinterpret_cast<sockaddr_in6*>(ss);
        if (IN6_IS_ADDR_MC_LINKLOCAL(&s6->sin6_addr) || IN6_IS_ADDR_MC_NODELOCAL(&s6->sin6_addr)) {
            if (!ifc) {
                zlog(L_ERR,
                     "%s: network interface must be specified to use link/local-scope multicast\n",
                     OPEN_SOCKET);
                errno = EINVAL;
                return -1;
            }
            s6->sin6_scope_id = ifc->idx;
        }
    }
    if (spec->is_ssm && spec->src_ss.ss_family != ss->ss_family) {
        zlog(L_ERR, "%s: SMM src/addr family mismatch: %u/%u\n", OPEN_SOCKET,
             static_cast<unsigned>(spec->src_ss.ss_family), static_cast<unsigned>(ss->ss_family));
        std::free(ifc);
        errno = EINVAL;
        return -1;
    }
    if (reuse_and_bind(fd, reinterpret_cast<sockaddr*>(ss), len) != 0 ||
        mcast_membership(OPEN_SOCKET, fd, true, ss, spec, ifc ? ifc->idx : 0) != 0) {
        const int err = errno;
        std::free(ifc);
        errno = err;
        return -1;
    }
    zlog(L_DEBUG, "%s: fd=%d joined the group%s on %s\n", OPEN_SOCKET, fd,
         spec->is_ssm ? " source-specifically" : "", ifc ? ifc->name : "the default interface");
    *used = ifc;
    return 0;
}

static int setup_listener(int fd, sockaddr_storage* ss, socklen_t len, const socket_spec* spec)
{
    if (ss->ss_family == AF_INET6 &&
        IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6*>(ss)->sin6_addr)) {
        const int off = 0;
        if (W_setsockopt(OPEN_SOCKET, fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0)
            return -1;
    }
    if (reuse_and_bind(fd, reinterpret_cast<sockaddr*>(ss), len) != 0)
        return -1;
    if (spec->socktype == SOCK_STREAM && !spec->defer_listen &&
        W_listen(OPEN_SOCKET, fd, NETOPS_BACKLOG) != 0)
        return -1;
    return 0;
}

static int setup_client(int fd, sockaddr_storage* ss, socklen_t len, socket_spec* spec)
{
    auto* sa = reinterpret_cast<sockaddr*>(ss);
    if (spec->socktype == SOCK_DGRAM)
        return (spec->writer || reuse_and_bind(fd, sa, len) == 0) ? 0 : -1;
    if (spec->non_blocking) {
        // A connect in progress is the normal outcome here, not an error worth a log line, so the
        // call is made directly and only a real failure is reported, in the wrapper's words.
        if (connect(fd, sa, len) != 0) {
            const int err = errno;
            if (err != EINPROGRESS) {
                zlog(L_ERR, "%s: connect(%d, %p, %ld) ERROR(%d): %s\n", OPEN_SOCKET, fd,
                     static_cast<void*>(sa), static_cast<long>(len), err, strerror(err));
                errno = err;
                return -1;
            }
            spec->async_connect = 1;
        }
    } else if (W_connect(OPEN_SOCKET, fd, sa, len) != 0) {
        return -1;
    }
    zlog(L_DEBUG, "%s: %s CONNECT [fd%d]\n", OPEN_SOCKET,
         spec->async_connect ? "ASYNC" : "IMMEDIATE", fd);
    return 0;
}

// The source of a source-specific group: "host", "host:port", "[v6]", "[v6]:port" or a bare IPv6
// address; the port defaults to 111.
static int resolve_ssm_source(const char* auth, socket_spec* spec)
{
    char host[NI_MAXHOST] = "";
    char port[NI_MAXSERV] = "";
    std::snprintf(port, sizeof port, "%s", SSM_DEFAULT_PORT);
    const char* colon = std::strchr(auth, ':');
    bool ok;
    if (auth[0] == '[' || (colon && !std::strchr(colon + 1, ':')))
        ok = path_parse(auth, std::strlen(auth), host, sizeof host, port, sizeof port) && host[0];
    else
        ok = std::strlen(auth) < sizeof host && std::snprintf(host, sizeof host, "%s", auth) > 0;

    addrinfo* res = nullptr;
    if (ok) {
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_DGRAM;
        hints.ai_flags = AI_NUMERICSERV;
        ok = W_getaddrinfo(OPEN_SOCKET, host, port, &hints, &res) == 0;
    }
    if (!ok) {
        zlog(L_ERR, "%s: invalid SSM source: %s\n", OPEN_SOCKET, auth);
        return -1;
    }
    const int fam = res->ai_family;
    if (spec->family && fam != spec->family) {
        zlog(L_ERR, "%s: SMM src/addr family mismatch: %u/%u\n", OPEN_SOCKET,
             static_cast<unsigned>(fam), static_cast<unsigned>(spec->family));
        freeaddrinfo(res);
        return -1;
    }
    std::memcpy(&spec->src_ss, res->ai_addr, res->ai_addrlen);
    spec->src_len = res->ai_addrlen;
    spec->is_ssm = true;
    freeaddrinfo(res);
    return 0;
}

int open_socket(const char* addr, const char* port, const char* auth, struct socket_spec* spec,
                const char* ifc_tag, struct ifc_info** ifi)
{
    if (!spec) {
        zlogf(L_ERR, "%s: no socket description given\n");
        return -1;
    }
    if (ifi)
        *ifi = nullptr;
    spec->async_connect = 0;
    spec->multicast = 0;
    spec->is_ssm = false;
    spec->addr_len = 0;
    spec->src_len = 0;

    if (spec->socktype == SOCK_STREAM || spec->socktype == SOCK_DGRAM) {
        ZASSERT(port);
        if (!*port || (std::atoi(port) == 0 && std::strcmp(port, "0") != 0)) {
            zlogf(L_ERR, "%s: empty or invalid port [%s]\n", port);
            return -1;
        }
    }
    if (addr && is_plain_number(addr)) {
        zlogf(L_ERR, "%s: cannot accept plain number [%s] as IP address\n", addr);
        return -1;
    }
    if (spec->socktype == SOCK_DGRAM && auth && *auth && resolve_ssm_source(auth, spec) != 0)
        return -1;

    const char* node = addr ? addr : (spec->family == AF_INET6 ? "::" : "0.0.0.0");
    addrinfo hints{};
    hints.ai_family = addr ? spec->family : (spec->family ? spec->family : AF_INET);
    hints.ai_socktype = spec->socktype;
    hints.ai_flags = spec->passive ? AI_PASSIVE : 0;
    addrinfo* res = nullptr;
    if (W_getaddrinfo(__func__, node, port, &hints, &res) != 0)
        return -1;

    int fd = -1;
    int last_err = 0;
    ifc_info* used_ifc = nullptr;
    for (const addrinfo* ai = res; ai && fd < 0; ai = ai->ai_next) {
        if (ai->ai_addrlen > sizeof(sockaddr_storage))
            continue;
        if (!spec->passive && spec->addr_ok && !spec->addr_ok(ai->ai_addr)) {
            last_err = EACCES;
            continue;
        }
        // Non-blocking from the start: two fcntl calls fewer per connection.
        const int nb = spec->non_blocking ? SOCK_NONBLOCK : 0;
        fd_guard sock(W_socket(__func__, ai->ai_family, ai->ai_socktype | nb, ai->ai_protocol),
                      __func__);
        if (sock.get() < 0) {
            last_err = errno;
            continue;
        }
        sockaddr_storage ss{};
        std::memcpy(&ss, ai->ai_addr, ai->ai_addrlen);
        const auto len = static_cast<socklen_t>(ai->ai_addrlen);
        const bool mcast = ai->ai_socktype == SOCK_DGRAM && is_mcast_addr(&ss);
        spec->async_connect = 0;
        int rc;
        if (mcast && !spec->writer)
            rc = setup_mcast_reader(sock.get(), &ss, len, spec, ifc_tag, &used_ifc);
        else if (spec->passive)
            rc = setup_listener(sock.get(), &ss, len, spec);
        else
            rc = setup_client(sock.get(), &ss, len, spec);
        if (rc != 0) {
            last_err = errno;
            continue;
        }
        spec->multicast = mcast ? 1 : 0;
        spec->addr_ss = ss;
        spec->addr_len = len;
        fd = sock.release();
    }
    freeaddrinfo(res);
    if (fd < 0) {
        zlogf(L_ERR, "%s: no socket could be opened for [%s]:%s\n", node, port ? port : "");
        errno = last_err;
        return -1;
    }
    if (ifi)
        *ifi = used_ifc;
    else
        std::free(used_ifc);
    zlogf(L_DEBUG, "%s: %s %s socket fd=[%d]\n", spec->passive ? "SERVER" : "CLIENT",
          spec->multicast ? "multicast" : "unicast", fd);
    if (spec->async_connect)
        errno = EINPROGRESS;
    return fd;
}

int mcast_leave(int sockfd, const struct socket_spec* spec, const struct ifc_info* ifi)
{
    if (!spec || !spec->multicast || !is_mcast_addr(&spec->addr_ss)) {
        zlogf(L_ERR, "%s: fd%d is not a multicast reader\n", sockfd);
        return -1;
    }
    if (mcast_membership(__func__, sockfd, false, &spec->addr_ss, spec, ifi ? ifi->idx : 0) != 0)
        return -1;
    zlogf(L_DEBUG, "%s: fd%d left the group\n", sockfd);
    return 0;
}
