// Tests of the socket operations on loopback only: TCP, UDP and local-domain listeners, the
// resolving opener (clients, listeners, non-blocking connects, refusals), interface look-up,
// address texts, family names, options, and multicast readers joined on "lo".
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <ifaddrs.h>
#include <iterator>
#include <memory>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/un.h>
#include <unistd.h>

#include "log.h"
#include "netops.h"

namespace {

// Closes a descriptor at the end of a test.
struct Fd {
    int fd;
    explicit Fd(int f = -1) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd()
    {
        if (fd >= 0)
            close(fd);
    }
};

// Sends the log to a temporary file for the scope; `text()` is everything written meanwhile.
class LogCapture {
public:
    LogCapture() : f_(std::tmpfile()) { log_default(g_log, f_); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture()
    {
        log_default(g_log, stderr);
        std::fclose(f_);
    }
    std::string text() const
    {
        std::fflush(f_);
        std::string out;
        std::rewind(f_);
        char buf[512];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f_)) > 0)
            out.append(buf, n);
        return out;
    }

private:
    FILE* f_;
};

#define EXPECT_LOGGED(log, line)                                                                   \
    EXPECT_NE((log).text().find(line), std::string::npos) << "log:\n" << (log).text()

sockaddr_storage inet_addr_of(int af, const char* text, uint16_t port = 0)
{
    sockaddr_storage ss{};
    if (af == AF_INET) {
        auto* s4 = reinterpret_cast<sockaddr_in*>(&ss);
        s4->sin_family = AF_INET;
        s4->sin_port = htons(port);
        EXPECT_EQ(inet_pton(AF_INET, text, &s4->sin_addr), 1) << text;
    } else {
        auto* s6 = reinterpret_cast<sockaddr_in6*>(&ss);
        s6->sin6_family = AF_INET6;
        s6->sin6_port = htons(port);
        EXPECT_EQ(inet_pton(AF_INET6, text, &s6->sin6_addr), 1) << text;
    }
    return ss;
}

socklen_t len_of(const sockaddr_storage& ss)
{
    return ss.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

uint16_t local_port(int fd)
{
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len), 0);
    return ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port
                                          : reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

// A port that was free a moment ago (bound to port 0 and released).
std::string free_port(int socktype)
{
    Fd s(socket(AF_INET, socktype, 0));
    auto ss = inet_addr_of(AF_INET, "127.0.0.1");
    EXPECT_EQ(bind(s.fd, reinterpret_cast<sockaddr*>(&ss), len_of(ss)), 0);
    return std::to_string(local_port(s.fd));
}

// Waits (bounded, so a fault fails instead of hanging) for `events` on `fd`.
bool ready(int fd, short events)
{
    pollfd p{fd, events, 0};
    return poll(&p, 1, 5000) == 1 && (p.revents & events);
}

bool is_nonblocking(int fd)
{
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

socket_spec client_spec(int socktype, bool nonblock = false)
{
    socket_spec s{};
    s.socktype = socktype;
    s.non_blocking = nonblock;
    s.writer = 1;
    return s;
}

// Accepts one connection on the non-blocking listener and checks a round trip with `cli`.
void expect_round_trip(int lsn, int cli)
{
    ASSERT_TRUE(ready(lsn, POLLIN));
    Fd acc(accept(lsn, nullptr, nullptr));
    ASSERT_GE(acc.fd, 0) << strerror(errno);
    ASSERT_EQ(write(cli, "ping", 4), 4);
    char buf[8] = {};
    ASSERT_TRUE(ready(acc.fd, POLLIN));
    EXPECT_EQ(read(acc.fd, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ping");
}

} // namespace

TEST(NetopsTcp, ListenerConnectAccept)
{
    const std::string port = free_port(SOCK_STREAM);
    const auto ss = inet_addr_of(AF_INET, "127.0.0.1");
    Fd lsn(open_listener(&ss, port.c_str(), 0));
    ASSERT_GE(lsn.fd, 0);
    EXPECT_TRUE(is_nonblocking(lsn.fd));
    EXPECT_EQ(std::to_string(local_port(lsn.fd)), port);
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(&ss)->sin_port, 0) << "the caller's address";

    auto spec = client_spec(SOCK_STREAM);
    Fd cli(open_socket("127.0.0.1", port.c_str(), nullptr, &spec, nullptr, nullptr));
    ASSERT_GE(cli.fd, 0);
    EXPECT_FALSE(spec.async_connect);
    EXPECT_FALSE(spec.multicast);
    EXPECT_EQ(spec.addr_ss.ss_family, AF_INET);
    expect_round_trip(lsn.fd, cli.fd);
}

TEST(NetopsTcp, ListenerPortAndFamilyChecks)
{
    const auto ss = inet_addr_of(AF_INET, "127.0.0.1");
    for (const char* bad : {"0", "65536", "http", "", "-1"}) {
        LogCapture log;
        EXPECT_EQ(open_listener(&ss, bad, 0), -1) << bad;
        EXPECT_LOGGED(log, std::string("open_listener: invalid port number: ") + bad + "\n");
    }
    Fd top(open_listener(&ss, "65535", 1));
    EXPECT_GE(top.fd, 0) << "port 65535";
    int acc = 1;
    socklen_t len = sizeof acc;
    ASSERT_EQ(getsockopt(top.fd, SOL_SOCKET, SO_ACCEPTCONN, &acc, &len), 0);
    EXPECT_EQ(acc, 0) << "deferred listen";

    sockaddr_storage un{};
    un.ss_family = AF_UNIX;
    LogCapture log;
    EXPECT_EQ(open_listener(&un, "8080", 0), -1);
    EXPECT_LOGGED(log, "open_listener: invalid network family: 1\n");
}

TEST(NetopsTcp, AnyaddrIpv6ListenerTakesBothFamilies)
{
    Fd lsn(open_anyaddr_listener(AF_INET6, "0", 0));
    ASSERT_GE(lsn.fd, 0);
    EXPECT_TRUE(is_nonblocking(lsn.fd));
    const std::string port = std::to_string(local_port(lsn.fd));
    for (const char* host : {"127.0.0.1", "::1"}) {
        auto spec = client_spec(SOCK_STREAM);
        Fd cli(open_socket(host, port.c_str(), nullptr, &spec, nullptr, nullptr));
        ASSERT_GE(cli.fd, 0) << host;
        expect_round_trip(lsn.fd, cli.fd);
    }
}

TEST(NetopsTcp, NonBlockingConnectInProgress)
{
    Fd lsn(open_anyaddr_listener(AF_INET, "0", 0));
    ASSERT_GE(lsn.fd, 0);
    const std::string port = std::to_string(local_port(lsn.fd));

    auto spec = client_spec(SOCK_STREAM, true);
    errno = 0;
    Fd cli(open_socket("127.0.0.1", port.c_str(), nullptr, &spec, nullptr, nullptr));
    const int err = errno;
    ASSERT_GE(cli.fd, 0);
    EXPECT_TRUE(is_nonblocking(cli.fd));
    ASSERT_TRUE(spec.async_connect);
    EXPECT_EQ(err, EINPROGRESS);
    ASSERT_TRUE(ready(cli.fd, POLLOUT));
    EXPECT_EQ(socket_error(cli.fd), 0);
    expect_round_trip(lsn.fd, cli.fd);

    // Nobody listens on a port freed just now: the failure arrives through socket_error.
    const std::string closed = free_port(SOCK_STREAM);
    auto spec2 = client_spec(SOCK_STREAM, true);
    Fd cli2(open_socket("127.0.0.1", closed.c_str(), nullptr, &spec2, nullptr, nullptr));
    if (cli2.fd >= 0) {
        ASSERT_TRUE(spec2.async_connect);
        ASSERT_TRUE(ready(cli2.fd, POLLOUT));
        LogCapture log;
        errno = 0;
        EXPECT_EQ(socket_error(cli2.fd), ECONNREFUSED);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_LOGGED(log, "socket_error(fd" + std::to_string(cli2.fd) + ") ERROR(" +
                               std::to_string(ECONNREFUSED) + "): ");
    } else {
        EXPECT_EQ(errno, ECONNREFUSED) << "refused at once";
    }
}

TEST(NetopsOpenSocket, Refusals)
{
    struct Row {
        const char *addr, *port;
        int family;
        const char* log;
    };
    const Row rows[] = {
        {"12345", "80", 0, "open_socket: cannot accept plain number [12345] as IP address\n"},
        {"127.0.0.1", "", 0, "open_socket: empty or invalid port []\n"},
        {"127.0.0.1", "http", 0, "open_socket: empty or invalid port [http]\n"},
        {"::1", "80", AF_INET, "open_socket: getaddrinfo(::1, 80, "},
    };
    for (const auto& r : rows) {
        auto spec = client_spec(SOCK_STREAM);
        spec.family = r.family;
        LogCapture log;
        EXPECT_EQ(open_socket(r.addr, r.port, nullptr, &spec, nullptr, nullptr), -1) << r.addr;
        EXPECT_LOGGED(log, r.log);
    }
    // A blocking connect to a port nobody listens on.
    const std::string closed = free_port(SOCK_STREAM);
    auto spec = client_spec(SOCK_STREAM);
    EXPECT_EQ(open_socket("127.0.0.1", closed.c_str(), nullptr, &spec, nullptr, nullptr), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(NetopsUdp, ListenerAndReaders)
{
    const std::string port = free_port(SOCK_DGRAM);
    const auto ss = inet_addr_of(AF_INET, "127.0.0.1");
    Fd lsn(open_udp_listener(&ss, port.c_str()));
    ASSERT_GE(lsn.fd, 0);
    EXPECT_TRUE(is_nonblocking(lsn.fd));
    EXPECT_EQ(std::to_string(local_port(lsn.fd)), port);

    auto wspec = client_spec(SOCK_DGRAM);
    Fd w(open_socket("127.0.0.1", port.c_str(), nullptr, &wspec, nullptr, nullptr));
    ASSERT_GE(w.fd, 0);
    ASSERT_EQ(
        sendto(w.fd, "datagram", 8, 0, reinterpret_cast<sockaddr*>(&wspec.addr_ss), wspec.addr_len),
        8);
    char buf[16] = {};
    ASSERT_TRUE(ready(lsn.fd, POLLIN));
    EXPECT_EQ(recv(lsn.fd, buf, sizeof buf, 0), 8);
    EXPECT_STREQ(buf, "datagram");

    // A unicast datagram reader through open_socket is bound to its address.
    const std::string port2 = free_port(SOCK_DGRAM);
    socket_spec rspec{};
    rspec.socktype = SOCK_DGRAM;
    Fd r(open_socket("127.0.0.1", port2.c_str(), nullptr, &rspec, nullptr, nullptr));
    ASSERT_GE(r.fd, 0);
    EXPECT_EQ(std::to_string(local_port(r.fd)), port2);

    // A null port keeps the address's own port.
    const auto ss2 =
        inet_addr_of(AF_INET, "127.0.0.1", static_cast<uint16_t>(std::stoi(port2) ^ 1));
    Fd keep(open_udp_listener(&ss2, nullptr));
    ASSERT_GE(keep.fd, 0);
    EXPECT_EQ(local_port(keep.fd), std::stoi(port2) ^ 1);
    EXPECT_EQ(open_udp_listener(&ss, "70000"), -1);
}

TEST(NetopsDomain, ListenerReplacesFileAndAccepts)
{
    char dir[] = "/tmp/netops_testXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/sock";
    std::ofstream(path) << "stale";

    Fd lsn(open_domain_listener(path.c_str()));
    ASSERT_GE(lsn.fd, 0);
    EXPECT_TRUE(is_nonblocking(lsn.fd));

    Fd cli(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un su{};
    su.sun_family = AF_UNIX;
    std::snprintf(su.sun_path, sizeof su.sun_path, "%s", path.c_str());
    ASSERT_EQ(connect(cli.fd, reinterpret_cast<sockaddr*>(&su), sizeof su), 0) << strerror(errno);
    expect_round_trip(lsn.fd, cli.fd);

    char text[256];
    ASSERT_NE(saddr_str(reinterpret_cast<sockaddr*>(&su), sizeof su, text, sizeof text), nullptr);
    EXPECT_EQ(std::string(text).rfind("DOMAIN ", 0), 0u) << text;
    EXPECT_NE(std::string(text).find(path), std::string::npos) << text;

    LogCapture log;
    const std::string missing = std::string(dir) + "/no/such/dir/sock";
    EXPECT_EQ(open_domain_listener(missing.c_str()), -1);
    EXPECT_LOGGED(log, "open_domain_listener: failed for path=[" + missing + "]\n");
    const std::string too_long(sizeof su.sun_path, 'x');
    EXPECT_EQ(open_domain_listener(too_long.c_str()), -1);

    unlink(path.c_str());
    rmdir(dir);
}

TEST(NetopsIfc, LoopbackByNameAndAddress)
{
    const unsigned lo_idx = if_nametoindex("lo");
    ASSERT_NE(lo_idx, 0u);
    struct Row {
        int af;
        const char* tag;
        const char* want;
    };
    const Row rows[] = {
        {AF_INET, "lo", "127.0.0.1:0"}, {0, "lo", "127.0.0.1:0"},
        {AF_INET6, "lo", "[::1]:0"},    {AF_INET, "127.0.0.1", "127.0.0.1:0"},
        {0, "::1", "[::1]:0"},          {AF_INET6, "::1", "[::1]:0"},
    };
    for (const auto& r : rows) {
        ifc_info* ifi = get_ifc_info(r.af, r.tag);
        ASSERT_NE(ifi, nullptr) << r.tag;
        EXPECT_EQ(ifi->idx, lo_idx) << r.tag;
        EXPECT_STREQ(ifi->name, "lo") << r.tag;
        char text[64];
        EXPECT_STREQ(
            saddr_str(reinterpret_cast<sockaddr*>(&ifi->ss), len_of(ifi->ss), text, sizeof text),
            r.want)
            << r.tag;
        std::free(ifi);
    }

    const std::pair<int, const char*> refused[] = {
        {AF_INET, "::1"}, {AF_INET, "127.0.0.2"}, {AF_INET6, "127.0.0.1"}};
    for (const auto& [af, tag] : refused) {
        LogCapture log;
        EXPECT_EQ(get_ifc_info(af, tag), nullptr) << tag;
        EXPECT_LOGGED(log, std::string("[") + tag + "] is not a valid " +
                               (af == AF_INET ? "IPv4" : "IPv6") + " interface address.\n");
    }
    EXPECT_EQ(get_ifc_info(AF_INET, "nosuchifc0"), nullptr);
    EXPECT_EQ(get_ifc_info(AF_INET, ""), nullptr);
    EXPECT_EQ(get_ifc_info(AF_UNIX, "lo"), nullptr);
}

TEST(NetopsText, SaddrStr)
{
    char buf[64];
    auto v4 = inet_addr_of(AF_INET, "192.0.2.1", 80);
    EXPECT_STREQ(saddr_str(reinterpret_cast<sockaddr*>(&v4), len_of(v4), buf, sizeof buf),
                 "192.0.2.1:80");
    auto v6 = inet_addr_of(AF_INET6, "::1", 80);
    EXPECT_STREQ(saddr_str(reinterpret_cast<sockaddr*>(&v6), len_of(v6), buf, sizeof buf),
                 "[::1]:80");
    EXPECT_EQ(saddr_str(reinterpret_cast<sockaddr*>(&v4), len_of(v4), buf, 12), nullptr)
        << "no room for the terminator";
    EXPECT_NE(saddr_str(reinterpret_cast<sockaddr*>(&v4), len_of(v4), buf, 13), nullptr);
    sockaddr_storage odd{};
    odd.ss_family = AF_PACKET;
    LogCapture log;
    EXPECT_EQ(saddr_str(reinterpret_cast<sockaddr*>(&odd), sizeof odd, buf, sizeof buf), nullptr);
    EXPECT_LOGGED(log, "saddr_str: getnameinfo error (");
}

TEST(NetopsText, Name2af)
{
    const std::pair<const char*, int> rows[] = {
        {"inet4", AF_INET},
        {"INET", AF_INET},
        {"ipv4", AF_INET},
        {"AF_INET", AF_INET},
        {"pf_inet", AF_INET},
        {"inet6", AF_INET6},
        {"IPv6", AF_INET6},
        {"af_inet6", AF_INET6},
        {"PF_INET6", AF_INET6},
        {"", 0},
        {"any", 0},
        {"UNSPEC", 0},
        {"anyaddr", 0},
        {"all", 0},
        {"ip", -1},
        {"inet7", -1},
    };
    for (const auto& [name, af] : rows)
        EXPECT_EQ(name2af(name), af) << name;
    LogCapture log;
    EXPECT_EQ(name2af("ip"), -1);
    EXPECT_LOGGED(log, "name2af: unsupported address family [ip] in configuration.");
}

TEST(NetopsOptions, BlockingNodelayTimeouts)
{
    Fd s(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(set_nblock(s.fd, 1), 0);
    EXPECT_TRUE(is_nonblocking(s.fd));
    ASSERT_EQ(set_nblock(s.fd, 1), 0);
    EXPECT_TRUE(is_nonblocking(s.fd));
    ASSERT_EQ(set_nblock(s.fd, 0), 0);
    EXPECT_FALSE(is_nonblocking(s.fd));
    EXPECT_EQ(set_nblock(-1, 1), -1);

    int v = 0;
    socklen_t len = sizeof v;
    ASSERT_EQ(set_tcp_nodelay(s.fd, 1), 0);
    ASSERT_EQ(getsockopt(s.fd, IPPROTO_TCP, TCP_NODELAY, &v, &len), 0);
    EXPECT_EQ(v, 1);

    ASSERT_EQ(set_rcv_timeout(s.fd, 1500), 0);
    ASSERT_EQ(set_send_timeout(s.fd, 2200), 0); // whole clock ticks: the kernel rounds
    timeval tv{};
    len = sizeof tv;
    ASSERT_EQ(getsockopt(s.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 1);
    EXPECT_EQ(tv.tv_usec, 500000);
    ASSERT_EQ(getsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 2);
    EXPECT_EQ(tv.tv_usec, 200000);
    EXPECT_EQ(set_rcv_timeout(s.fd, -1), -1);
    EXPECT_EQ(socket_error(-1), EBADF);
}

namespace {

bool lo_has_multicast()
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    bool yes = false;
    for (const ifaddrs* p = list; p; p = p->ifa_next)
        if (std::strcmp(p->ifa_name, "lo") == 0 && (p->ifa_flags & IFF_MULTICAST))
            yes = true;
    freeifaddrs(list);
    return yes;
}

// Whether the kernel's membership table for the family lists `hex` on "lo".
bool lo_member(int af, const std::string& hex)
{
    std::ifstream f(af == AF_INET ? "/proc/net/igmp" : "/proc/net/igmp6");
    std::string line;
    bool on_lo = false;
    while (std::getline(f, line)) {
        if (af == AF_INET6) {
            if (line.find(" lo ") != std::string::npos && line.find(hex) != std::string::npos)
                return true;
            continue;
        }
        if (!line.empty() && line[0] != '\t')
            on_lo = line.find("\tlo") != std::string::npos;
        else if (on_lo && line.find(hex) != std::string::npos)
            return true;
    }
    return false;
}

// Sends one datagram to the group through "lo" from the loopback address (the source a
// source-specific reader admits). Returns 0 or the errno of a failed send.
int send_to_group(const socket_spec& spec)
{
    const int af = spec.addr_ss.ss_family;
    Fd snd(socket(af, SOCK_DGRAM, 0));
    const int one = 1;
    const unsigned idx = if_nametoindex("lo");
    const auto src = inet_addr_of(af, af == AF_INET ? "127.0.0.1" : "::1");
    if (bind(snd.fd, reinterpret_cast<const sockaddr*>(&src), len_of(src)) != 0)
        return errno;
    if (af == AF_INET) {
        ip_mreqn m{};
        m.imr_ifindex = static_cast<int>(idx);
        EXPECT_EQ(setsockopt(snd.fd, IPPROTO_IP, IP_MULTICAST_IF, &m, sizeof m), 0);
        EXPECT_EQ(setsockopt(snd.fd, IPPROTO_IP, IP_MULTICAST_LOOP, &one, sizeof one), 0);
    } else {
        EXPECT_EQ(setsockopt(snd.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &idx, sizeof idx), 0);
        EXPECT_EQ(setsockopt(snd.fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &one, sizeof one), 0);
    }
    if (sendto(snd.fd, "group", 5, 0, reinterpret_cast<const sockaddr*>(&spec.addr_ss),
               spec.addr_len) != 5)
        return errno;
    return 0;
}

// Whether /proc/net/mcfilter admits `source` for `group` on "lo" (a source-specific join).
bool lo_source_filter(const char* group, const char* source)
{
    in_addr g{};
    in_addr src{};
    inet_pton(AF_INET, group, &g);
    inet_pton(AF_INET, source, &src);
    char want[64];
    std::snprintf(want, sizeof want, "0x%08x 0x%08x", ntohl(g.s_addr), ntohl(src.s_addr));
    std::ifstream f("/proc/net/mcfilter");
    const std::string all((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    return all.find(want) != std::string::npos;
}

// A multicast reader opened through open_socket on "lo", with its interface record.
struct Reader {
    socket_spec spec{};
    ifc_info* ifi = nullptr;
    Fd rd;
    Reader(const char* group, const char* source)
    {
        spec.socktype = SOCK_DGRAM;
        spec.non_blocking = 1;
        rd.fd = open_socket(group, free_port(SOCK_DGRAM).c_str(), source, &spec, "lo", &ifi);
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() { std::free(ifi); }
    std::string hex() const
    {
        char h[33] = {};
        if (spec.addr_ss.ss_family == AF_INET) {
            std::snprintf(h, sizeof h, "%08X",
                          reinterpret_cast<const sockaddr_in*>(&spec.addr_ss)->sin_addr.s_addr);
        } else {
            const auto* a = reinterpret_cast<const sockaddr_in6*>(&spec.addr_ss);
            for (int i = 0; i < 16; ++i)
                std::snprintf(h + 2 * i, 3, "%02x", a->sin6_addr.s6_addr[i]);
        }
        return h;
    }
};

} // namespace

// Membership is the kernel's record of a join; it does not need the interface to carry multicast
// traffic, so these run everywhere.
TEST(NetopsMulticast, JoinAndLeaveOnLoopback)
{
    struct Row {
        const char* group;
        const char* source;
    };
    const Row rows[] = {{"239.255.7.7", nullptr},
                        {"239.255.7.8", "127.0.0.1"},
                        {"ff12::7:7", nullptr},
                        {"ff15::7:8", nullptr}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.group);
        Reader m(r.group, r.source);
        ASSERT_GE(m.rd.fd, 0);
        ASSERT_NE(m.ifi, nullptr);
        EXPECT_STREQ(m.ifi->name, "lo");
        EXPECT_TRUE(is_nonblocking(m.rd.fd));
        EXPECT_TRUE(m.spec.multicast);
        EXPECT_EQ(m.spec.is_ssm, r.source != nullptr);
        const int af = m.spec.addr_ss.ss_family;
        EXPECT_TRUE(lo_member(af, m.hex())) << m.hex();
        if (r.source) {
            EXPECT_TRUE(lo_source_filter(r.group, r.source));
        }
        EXPECT_EQ(mcast_leave(m.rd.fd, &m.spec, m.ifi), 0);
        EXPECT_FALSE(lo_member(af, m.hex())) << m.hex();
        if (r.source) {
            EXPECT_FALSE(lo_source_filter(r.group, r.source));
        }
    }
}

// Delivery through "lo" needs its MULTICAST flag. IPv6 group traffic is not looped back to
// readers on the loopback device at all, so only IPv4 delivery is exercised.
TEST(NetopsMulticast, Ipv4DeliveryOnLoopback)
{
    if (!lo_has_multicast())
        GTEST_SKIP() << "interface lo lacks the MULTICAST flag: group delivery on loopback cannot "
                        "be exercised on this machine";
    for (const char* source : {static_cast<const char*>(nullptr), "127.0.0.1"}) {
        SCOPED_TRACE(source ? source : "any source");
        Reader m(source ? "239.255.7.10" : "239.255.7.11", source);
        ASSERT_GE(m.rd.fd, 0);
        ASSERT_EQ(send_to_group(m.spec), 0) << strerror(errno);
        char buf[8] = {};
        ASSERT_TRUE(ready(m.rd.fd, POLLIN));
        EXPECT_EQ(recv(m.rd.fd, buf, sizeof buf, 0), 5);
        EXPECT_STREQ(buf, "group");
        EXPECT_EQ(mcast_leave(m.rd.fd, &m.spec, m.ifi), 0);
    }
}

TEST(NetopsMulticast, LinkLocalGroupNeedsAnInterface)
{
    socket_spec spec{};
    spec.socktype = SOCK_DGRAM;
    LogCapture log;
    EXPECT_EQ(open_socket("ff02::1:7", "5000", nullptr, &spec, nullptr, nullptr), -1);
    EXPECT_LOGGED(log, "open_socket: network interface must be specified to use link/local-scope "
                       "multicast\n");

    LogCapture log2;
    const std::string port = free_port(SOCK_DGRAM);
    EXPECT_EQ(open_socket("239.255.7.9", port.c_str(), "[::1", &spec, "lo", nullptr), -1);
    EXPECT_LOGGED(log2, "open_socket: invalid SSM source: [::1\n");
    spec.family = AF_INET;
    EXPECT_EQ(open_socket("239.255.7.9", port.c_str(), "::1", &spec, "lo", nullptr), -1);
    EXPECT_LOGGED(log2, "open_socket: SMM src/addr family mismatch: 10/2\n");
    EXPECT_EQ(open_socket("239.255.7.9", port.c_str(), nullptr, &spec, "nosuchifc0", nullptr), -1);
}
