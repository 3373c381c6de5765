// Tests of the socket operations on loopback only: TCP, UDP and local-domain listeners, the
// resolving opener (clients, non-blocking connects, refusals), interface look-up, and multicast
// readers joined on "lo".
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/un.h>

#include "netops.h"
#include "test_support.h"

using vsk_test::contains;

namespace {

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() { close(fd); } // -1 only fails with EBADF
};

sockaddr_storage lo4(uint16_t port = 0)
{
    sockaddr_storage ss{};
    const sockaddr_in sin{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    memcpy(&ss, &sin, sizeof sin);
    return ss;
}

// The port of a socket's own address (at the same offset for both families).
uint16_t port_of(int fd)
{
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len), 0);
    return ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

uint16_t free_port(int socktype)
{
    Fd s(socket(AF_INET, socktype, 0));
    const auto ss = lo4();
    EXPECT_EQ(bind(s.fd, reinterpret_cast<const sockaddr*>(&ss), sizeof(sockaddr_in)), 0);
    return port_of(s.fd);
}

// Bounded, so that a fault fails the test instead of hanging it.
bool ready(int fd, short events = POLLIN)
{
    pollfd p{fd, events, 0};
    return poll(&p, 1, 5000) == 1 && (p.revents & events);
}

bool nonblocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

bool accepts(int lsn) { return ready(lsn) && Fd(accept(lsn, nullptr, nullptr)).fd >= 0; }

// Stream sockets are clients here, datagram sockets multicast readers joined on "lo".
int opened(const char* addr, uint16_t port, const char* src, socket_spec* spec, int socktype,
           bool nonblock = false, ifc_info** ifi = nullptr)
{
    *spec = socket_spec{};
    spec->socktype = socktype;
    spec->writer = socktype == SOCK_STREAM;
    spec->non_blocking = nonblock;
    return open_socket(addr, std::to_string(port).c_str(), src, spec, ifi ? "lo" : nullptr, ifi);
}

} // namespace

TEST(NetopsTcp, ListenersAndClients)
{
    const auto ss = lo4();
    Fd lsn(open_listener(&ss, std::to_string(free_port(SOCK_STREAM)).c_str(), 0));
    ASSERT_TRUE(lsn.fd >= 0 && nonblocking(lsn.fd));
    socket_spec spec;
    Fd cli(opened("127.0.0.1", port_of(lsn.fd), nullptr, &spec, SOCK_STREAM));
    EXPECT_TRUE(cli.fd >= 0 && !spec.async_connect && accepts(lsn.fd));
    vsk_test::log_capture log;
    for (const char* bad : {"0", "65536", "http"}) {
        EXPECT_EQ(open_listener(&ss, bad, 0), -1) << bad;
        EXPECT_TRUE(contains(log.take(), std::string("invalid port number: ") + bad + "\n")) << bad;
    }
    EXPECT_GE(Fd(open_listener(&ss, "65535", 1)).fd, 0);

    Fd any(open_anyaddr_listener(AF_INET6, "0", 0)); // takes both families
    Fd c6(opened("::1", port_of(any.fd), nullptr, &spec, SOCK_STREAM));
    EXPECT_TRUE(c6.fd >= 0 && accepts(any.fd));
    // An IPv4 non-blocking connect in progress hands its result over through socket_error.
    errno = 0;
    Fd nb(opened("127.0.0.1", port_of(any.fd), nullptr, &spec, SOCK_STREAM, true));
    EXPECT_EQ(errno, EINPROGRESS);
    EXPECT_TRUE(nb.fd >= 0 && spec.async_connect && nonblocking(nb.fd));
    ASSERT_TRUE(ready(nb.fd, POLLOUT));
    EXPECT_EQ(socket_error(nb.fd), 0);
    EXPECT_TRUE(accepts(any.fd));
}

TEST(NetopsOpenSocket, Refusals)
{
    const std::tuple<const char*, const char*, const char*, int, int, const char*> rows[] = {
        {"12345", "80", nullptr, SOCK_STREAM, 0, "cannot accept plain number [12345] as IP"},
        {"127.0.0.1", "http", nullptr, SOCK_STREAM, 0, "empty or invalid port [http]\n"},
        {"ff02::1:7", "80", nullptr, SOCK_DGRAM, 0, "must be specified to use link/local-scope"},
        {"239.255.7.9", "80", "::1", SOCK_DGRAM, AF_INET, "SMM src/addr family mismatch: 10/2\n"},
    };
    vsk_test::log_capture log;
    for (const auto& [addr, port, src, socktype, family, text] : rows) {
        socket_spec spec{};
        spec.socktype = socktype;
        spec.family = family;
        EXPECT_EQ(open_socket(addr, port, src, &spec, src ? "lo" : nullptr, nullptr), -1) << text;
        EXPECT_TRUE(contains(log.take(), text)) << text;
    }
}

TEST(NetopsUdpAndDomain, ListenersOnLoopback)
{
    const auto own = lo4(free_port(SOCK_DGRAM));
    Fd lsn(open_udp_listener(&own, nullptr)); // a null port keeps the address's own
    ASSERT_TRUE(lsn.fd >= 0 && nonblocking(lsn.fd));
    Fd w(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(sendto(w.fd, "dgram", 5, 0, reinterpret_cast<const sockaddr*>(&own), sizeof own), 5);
    EXPECT_TRUE(ready(lsn.fd) && recv(lsn.fd, nullptr, 0, MSG_TRUNC) == 5);

    // A stale file of the socket's name is replaced.
    vsk_test::temp_dir dir;
    const std::string path = dir / "sock";
    fclose(fopen(path.c_str(), "w"));
    Fd dl(open_domain_listener(path.c_str()));
    ASSERT_TRUE(dl.fd >= 0 && nonblocking(dl.fd));
    Fd cli(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un su{AF_UNIX, {}};
    snprintf(su.sun_path, sizeof su.sun_path, "%s", path.c_str());
    ASSERT_EQ(connect(cli.fd, reinterpret_cast<sockaddr*>(&su), sizeof su), 0) << strerror(errno);
    EXPECT_TRUE(accepts(dl.fd));
}

TEST(NetopsIfc, LoopbackByNameAndAddress)
{
    const std::tuple<int, const char*, const char*> rows[] = {{0, "lo", "127.0.0.1:0"},
        {AF_INET6, "lo", "[::1]:0"}, {AF_INET, "127.0.0.1", "127.0.0.1:0"}, {0, "::1", "[::1]:0"}};
    for (const auto& [af, tag, want] : rows) {
        ifc_info* ifi = get_ifc_info(af, tag);
        ASSERT_TRUE(ifi && ifi->idx == if_nametoindex("lo") && !strcmp(ifi->name, "lo")) << tag;
        char s[64];
        EXPECT_STREQ(saddr_str(reinterpret_cast<sockaddr*>(&ifi->ss), sizeof ifi->ss, s, 64), want);
        free(ifi);
    }
    vsk_test::log_capture log;
    EXPECT_EQ(get_ifc_info(AF_INET6, "127.0.0.1"), nullptr);
    EXPECT_TRUE(contains(log.take(), "[127.0.0.1] is not a valid IPv6 interface address.\n"));
}

namespace {

// The socket's source filter for its group on "lo": -1 without membership, else the number of
// sources a source-specific join admits (0 for an any-source join).
int group_sources(int fd, const socket_spec& spec)
{
    group_filter gf{};
    gf.gf_interface = if_nametoindex("lo");
    memcpy(&gf.gf_group, &spec.addr_ss, sizeof gf.gf_group);
    gf.gf_numsrc = 1;
    socklen_t len = sizeof gf;
    const int level = spec.addr_ss.ss_family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    if (getsockopt(fd, level, MCAST_MSFILTER, &gf, &len) != 0)
        return -1;
    return gf.gf_fmode == MCAST_INCLUDE ? static_cast<int>(gf.gf_numsrc) : 0;
}

} // namespace

TEST(NetopsMulticast, JoinAndLeaveOnLoopback)
{
    const std::pair<const char*, const char*> rows[] = {
        {"239.255.7.7", nullptr}, {"239.255.7.8", "127.0.0.1"}, {"ff15::7:8", nullptr}};
    for (const auto& [group, source] : rows) {
        socket_spec spec;
        ifc_info* ifi = nullptr;
        Fd rd(opened(group, free_port(SOCK_DGRAM), source, &spec, SOCK_DGRAM, true, &ifi));
        ASSERT_TRUE(rd.fd >= 0 && ifi && !strcmp(ifi->name, "lo")) << group;
        EXPECT_TRUE(spec.multicast && spec.is_ssm == (source != nullptr)) << group;
        EXPECT_EQ(group_sources(rd.fd, spec), source ? 1 : 0) << group;
        EXPECT_EQ(mcast_leave(rd.fd, &spec, ifi), 0) << group;
        EXPECT_EQ(group_sources(rd.fd, spec), -1) << group;
        free(ifi);
    }
}

TEST(NetopsMulticast, SourceSpecificDeliveryOnLoopback)
{
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    Fd snd(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(ioctl(snd.fd, SIOCGIFFLAGS, &ifr), 0);
    if (!(ifr.ifr_flags & IFF_MULTICAST))
        GTEST_SKIP() << "interface lo lacks the MULTICAST flag: no group delivery on loopback";
    // Sent through "lo", so from the loopback address: the one source the reader admits.
    const in_addr lo{htonl(INADDR_LOOPBACK)};
    ASSERT_EQ(setsockopt(snd.fd, IPPROTO_IP, IP_MULTICAST_IF, &lo, sizeof lo), 0);
    socket_spec spec;
    ifc_info* ifi = nullptr;
    Fd rd(opened("239.1.2.3", free_port(SOCK_DGRAM), "127.0.0.1", &spec, SOCK_DGRAM, true, &ifi));
    const auto* to = reinterpret_cast<const sockaddr*>(&spec.addr_ss);
    ASSERT_EQ(sendto(snd.fd, "group", 5, 0, to, spec.addr_len), 5) << strerror(errno);
    EXPECT_TRUE(ready(rd.fd) && recv(rd.fd, nullptr, 0, MSG_TRUNC) == 5);
    free(ifi);
}
