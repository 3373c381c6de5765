// Tests of the listener manager on loopback sockets with a real event loop: starting TCP, UDP and
// local-domain listeners, the bounded accept cycle, the queue limit, removal at once and after the
// batch, the time-out walk, track numbers, teardown without leaked descriptors, and the fatal
// reaction to an error on a listener.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "log.h"
#include "netops.h"
#include "rqs.h"
#include "rui.h"
#include "timeop.h"
#include "util.h"

namespace {

constexpr uint32_t TRQ_TAG = mk_tag32("TRQ");

// A request object of the tests: the manager's header first.
struct TestRq {
    rui_rq_header h;
    int id;
    bool expired;
};

// What the callbacks saw.
struct Seen {
    int created = 0;
    int removed = 0;
    bool refuse = false;
    std::vector<int> removed_fds;       // header fd at removal (must be -1: closed first)
    std::vector<int> tmout_ids;         // requests asked about, in order
    std::vector<u_int> tmout_values;
    std::vector<int> removed_at_read;   // removals done when a read handler ran
    std::vector<int> pprm_results;      // rui_pprm_request results inside read handlers
};
Seen g_seen;
rui_ctx* g_ctx = nullptr;

void* test_new_rq(int, rui_socket_ctx*, void*)
{
    if (g_seen.refuse)
        return nullptr;
    auto* rq = static_cast<TestRq*>(calloc(1, sizeof(TestRq)));
    set_tag32(&rq->h.tag, "TRQ");
    rq->id = ++g_seen.created;
    return rq;
}

void test_rm_rq(void* p)
{
    auto* rq = static_cast<TestRq*>(p);
    g_seen.removed += 1;
    g_seen.removed_fds.push_back(rq->h.fd);
    free(rq);
}

int test_tmout(void* p, u_int ms)
{
    auto* rq = static_cast<TestRq*>(p);
    g_seen.tmout_ids.push_back(rq->id);
    g_seen.tmout_values.push_back(ms);
    return rq->expired ? 1 : 0;
}

// A readable request: read what came, then schedule every queued request of its listener for
// removal after the batch, recording how many removals had happened by now.
int on_request_read(TestRq* rq)
{
    char buf[128];
    (void)!recv(rq->h.fd, buf, sizeof buf, 0);
    g_seen.removed_at_read.push_back(g_seen.removed);
    for (auto* p = dlep_tail_as<rui_rq_header>(rq->h.srv->requests); p; p = p->next)
        g_seen.pprm_results.push_back(rui_pprm_request(p));
    return 0;
}

int loop_read(int, int, void* udata, void*)
{
    const auto* tag = static_cast<const n32_tag*>(udata);
    if (tag->num == RSC_TAG) {
        auto* srv = static_cast<rui_socket_ctx*>(udata);
        (void)rui_accept(srv, 64, RUI_TCP_NODELAY, nullptr);
        return 0;
    }
    if (tag->num == TRQ_TAG)
        return on_request_read(static_cast<TestRq*>(udata));
    return 0; // retired ("#...") objects are dismissed
}

int loop_other(int, int, void*, void*)
{
    return 0;
}

int loop_pp()
{
    rui_pprm_all(g_ctx);
    return 0;
}

void loop_tmout(timespec* ts)
{
    ts->tv_sec = 0;
    ts->tv_nsec = 20 * 1000 * 1000;
}

// Ends the loop once the awaited number of removals happened, or after a safety number of passes.
int g_idle_passes = 0;
int g_await_removed = 0;
int loop_idle()
{
    if (g_seen.removed >= g_await_removed)
        return 1;
    return ++g_idle_passes > 500 ? 2 : 0;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

size_t count_of(const std::string& hay, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = hay.find(needle); pos != std::string::npos;
         pos = hay.find(needle, pos + needle.size()))
        ++n;
    return n;
}

size_t open_fds()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

// A loopback port that was free a moment ago.
std::string free_port(int type)
{
    const int s = socket(AF_INET, type, 0);
    sockaddr_in sa = loopback(0);
    socklen_t len = sizeof sa;
    EXPECT_EQ(0, bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
    EXPECT_EQ(0, getsockname(s, reinterpret_cast<sockaddr*>(&sa), &len));
    close(s);
    return std::to_string(ntohs(sa.sin_port));
}

int connect_tcp(const std::string& port)
{
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = loopback(static_cast<uint16_t>(std::stoi(port)));
    EXPECT_EQ(0, connect(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa)) << strerror(errno);
    return s;
}

// Whether the peer closed its end: a read that waits at most a moment and sees end of file.
bool peer_closed(int s)
{
    timeval tv{1, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    char c;
    return recv(s, &c, 1, 0) == 0;
}

int int_opt(int fd, int level, int name)
{
    int v = -1;
    socklen_t len = sizeof v;
    EXPECT_EQ(0, getsockopt(fd, level, name, &v, &len));
    return v;
}

class RuiTest : public ::testing::Test {
protected:
    std::string dir_;
    std::string log_path_;
    std::string port_;
    rui_cfg cfg_{};
    rui_ctx ctx_{};
    std::vector<int> peers_;

    void SetUp() override
    {
        glog_init("vsk");
        char tmpl[] = "/tmp/rui_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
        log_path_ = dir_ + "/vsk.log";
        ASSERT_EQ(0, log_open_ex(g_log, log_path_.c_str(), F_APPEND_OLD));
        log_timefmt(g_log, f_NO_TIME);
        log_set_pid(g_log, 0);
        log_set_group(g_log, "");
        log_set_modules(g_log, L_DEBUG);
        g_quit = 0;
        g_seen = Seen{};
        g_ctx = &ctx_;
        g_idle_passes = 0;
        g_await_removed = 0;

        rui_socket_cb cb{};
        set_tag32(&cb.tag, "TRQ");
        cb.new_rq = test_new_rq;
        cb.rm_rq = test_rm_rq;
        cb.time_out = test_tmout;
        rui_set_cb(RUI_USER, &cb);

        rqs_config rc{};
        rc.cb.update_tmout = loop_tmout;
        rc.cb.on_idle = loop_idle;
        rc.cb.read = loop_read;
        rc.cb.write = loop_other;
        rc.cb.error = loop_other;
        rc.cb.post_process = loop_pp;
        ASSERT_EQ(0, rqs_init(&rc));

        port_ = free_port(SOCK_STREAM);
        set_tcp_listener(&cfg_.user[0], "user-lo", port_);
    }

    void TearDown() override
    {
        rui_ctx_destroy(&ctx_);
        rqs_destroy();
        for (rui_listener_cfg* slots : {cfg_.user, cfg_.admin, cfg_.custom})
            for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i)
                free(slots[i].ifc);
        for (const int s : peers_)
            close(s);
        log_default(g_log, stderr);
        std::filesystem::remove_all(dir_);
    }

    static void set_tcp_listener(rui_listener_cfg* l, const char* alias, const std::string& port)
    {
        free(l->ifc);
        *l = rui_listener_cfg{};
        l->is_valid = true;
        snprintf(l->alias, sizeof l->alias, "%s", alias);
        auto* ifc = static_cast<ifc_info*>(calloc(1, sizeof(ifc_info)));
        ifc->idx = if_nametoindex("lo");
        snprintf(ifc->name, sizeof ifc->name, "lo");
        const sockaddr_in sa = loopback(0);
        memcpy(&ifc->ss, &sa, sizeof sa);
        l->ifc = ifc;
        snprintf(l->port, sizeof l->port, "%s", port.c_str());
        l->pref_af = AF_INET;
        l->proto = IPPROTO_TCP;
    }

    std::string log_text() const { return read_file(log_path_); }

    void start()
    {
        ASSERT_EQ(0, rui_ctx_init(&cfg_, &ctx_));
        ASSERT_EQ(0, rui_ctx_start(&ctx_));
        ASSERT_GE(ctx_.user[0].sockfd, 0);
    }

    int connect_one()
    {
        const int s = connect_tcp(port_);
        peers_.push_back(s);
        return s;
    }

    // Queues a request on a socket pair directly; returns the test's end of the pair.
    int add_direct(rui_socket_ctx* srv)
    {
        int sv[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        EXPECT_EQ(0, rui_add_request(sv[0], srv, nullptr));
        peers_.push_back(sv[1]);
        return sv[1];
    }

    size_t queued(const rui_socket_ctx* srv) const { return dlep_count(srv->requests); }
};

TEST_F(RuiTest, LoopAcceptsQueuesReadsAndRemovesAfterTheBatch)
{
    start();
    EXPECT_NE(std::string::npos,
              log_text().find("STARTED listener fd" + std::to_string(ctx_.user[0].sockfd) +
                              " for TRQ requests on lo:" + port_ + "; 0 requests pending\n"));
    EXPECT_NE(std::string::npos, log_text().find("rui_setup_listeners: 1 [user] listeners set up"));

    // Both clients have sent a full request line before the loop accepts them, so both requests
    // are readable in the same batch.
    const int a = connect_one();
    const int b = connect_one();
    const std::string line(40, 'x');
    ASSERT_EQ(40, send(a, line.data(), line.size(), 0));
    ASSERT_EQ(40, send(b, line.data(), line.size(), 0));

    g_await_removed = 2;
    EXPECT_EQ(1, rqs_event_loop()) << "the loop ended on the safety bound";

    EXPECT_EQ(2, g_seen.created);
    // Neither request was freed while the batch was running, although the first handler had
    // already scheduled both; the second was refused as already scheduled.
    EXPECT_EQ((std::vector<int>{0, 0}), g_seen.removed_at_read);
    EXPECT_EQ((std::vector<int>{0, 0, EEXIST, EEXIST}), g_seen.pprm_results);
    EXPECT_EQ(2, g_seen.removed);
    EXPECT_EQ((std::vector<int>{-1, -1}), g_seen.removed_fds);
    EXPECT_EQ(0u, queued(&ctx_.user[0]));
    EXPECT_EQ(0u, ctx_.user[0].pprm.len);
    EXPECT_TRUE(peer_closed(a));
    EXPECT_TRUE(peer_closed(b));
    EXPECT_EQ(2u, count_of(log_text(), "is already PPRM-ed\n"));
}

TEST_F(RuiTest, MaxAcceptBoundsTheCycleAndWarns)
{
    start();
    for (int i = 0; i < 3; ++i)
        connect_one();
    rui_socket_ctx* srv = &ctx_.user[0];

    EXPECT_EQ(0, rui_accept(srv, 0, 0, nullptr));
    EXPECT_EQ(0u, queued(srv));
    EXPECT_NE(std::string::npos,
              log_text().find("rui_accept(user-lo): CANNOT ACCEPT ALL (accepted=0), max=0\n"));

    EXPECT_EQ(0, rui_accept(srv, 2, RUI_TCP_NODELAY, nullptr));
    EXPECT_EQ(2u, queued(srv));
    EXPECT_NE(std::string::npos,
              log_text().find("rui_accept(user-lo): CANNOT ACCEPT ALL (accepted=2), max=2\n"));
    const int fd = dlep_head_as<TestRq>(srv->requests)->h.fd;
    EXPECT_EQ(RUI_LOW_WMARK, int_opt(fd, SOL_SOCKET, SO_RCVLOWAT));
    EXPECT_EQ(1, int_opt(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(FD_ISSET(fd, &srv->accset));
    EXPECT_NE(std::string::npos, log_text().find("rui_accept: low watermark set to 32 for fd=" +
                                                 std::to_string(fd) + "\n"));

    // The rest waited in the kernel's queue; a cycle that drains it does not warn.
    const size_t warned = count_of(log_text(), "CANNOT ACCEPT ALL");
    EXPECT_EQ(0, rui_accept(srv, 64, 0, nullptr));
    EXPECT_EQ(3u, queued(srv));
    EXPECT_EQ(warned, count_of(log_text(), "CANNOT ACCEPT ALL"));
    EXPECT_NE(std::string::npos, log_text().find("rui_accept(user-lo): end of accept queue reached"));
    // Without the flag Nagle's algorithm stays on.
    EXPECT_EQ(0, int_opt(dlep_head_as<TestRq>(srv->requests)->h.fd, IPPROTO_TCP, TCP_NODELAY));
}

TEST_F(RuiTest, FullQueueRefusesWithEbusyAndClosesTheConnection)
{
    start();
    rui_socket_ctx* srv = &ctx_.user[0];
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    peers_.push_back(sv[1]);
    for (size_t i = 0; i < MAX_RUI_QUEUED; ++i)
        ASSERT_EQ(0, rui_add_request(i == 0 ? sv[0] : dup(sv[0]), srv, nullptr)) << i;
    ASSERT_EQ(MAX_RUI_QUEUED, queued(srv));

    // Two connections: both refused and closed, the cycle goes on after the first.
    const int a = connect_one();
    const int b = connect_one();
    EXPECT_EQ(EBUSY, rui_accept(srv, 64, 0, nullptr));
    EXPECT_EQ(MAX_RUI_QUEUED, queued(srv));
    EXPECT_EQ(static_cast<int>(MAX_RUI_QUEUED), g_seen.created);
    EXPECT_TRUE(peer_closed(a));
    EXPECT_TRUE(peer_closed(b));
    const std::string text = log_text();
    EXPECT_EQ(2u, count_of(text, "rui_add_request: Too many user requests (1000) queued\n"));
    EXPECT_EQ(2u, count_of(text, "Error rc=16 processing connection [127.0.0.1:"));

    // Teardown removes every queued request once and closes its descriptor.
    rui_ctx_destroy(&ctx_);
    EXPECT_EQ(static_cast<int>(MAX_RUI_QUEUED), g_seen.removed);
    EXPECT_TRUE(peer_closed(sv[1]));
}

TEST_F(RuiTest, RefusedRequestClosesTheConnection)
{
    start();
    g_seen.refuse = true;
    const int a = connect_one();
    EXPECT_EQ(-1, rui_accept(&ctx_.user[0], 64, 0, nullptr));
    EXPECT_EQ(0u, queued(&ctx_.user[0]));
    EXPECT_TRUE(peer_closed(a));
    EXPECT_NE(std::string::npos, log_text().find("Error rc=-1 processing connection [127.0.0.1:"));
}

TEST_F(RuiTest, DirectRemovalOfAScheduledRequestLeavesPprmAndFreesOnce)
{
    start();
    rui_socket_ctx* srv = &ctx_.user[0];
    const int pa = add_direct(srv);
    const int pb = add_direct(srv);
    auto* a = dlep_tail_as<TestRq>(srv->requests);
    auto* b = dlep_head_as<TestRq>(srv->requests);
    ASSERT_EQ(1, a->id);

    EXPECT_EQ(0, rui_pprm_request(a));
    EXPECT_EQ(EEXIST, rui_pprm_request(a));
    EXPECT_EQ(0, rui_pprm_request(b));
    EXPECT_EQ(2u, srv->pprm.len);
    EXPECT_EQ(0, g_seen.removed);

    rui_rm_request(a);
    EXPECT_EQ(1, g_seen.removed);
    EXPECT_EQ(1u, srv->pprm.len);
    EXPECT_TRUE(peer_closed(pa));

    // Only b is left for the post-processing removal; a is not touched again.
    rui_pprm_all(&ctx_);
    EXPECT_EQ(2, g_seen.removed);
    EXPECT_EQ(0u, srv->pprm.len);
    EXPECT_EQ(0u, queued(srv));
    EXPECT_TRUE(peer_closed(pb));
    rui_pprm_all(&ctx_);
    EXPECT_EQ(2, g_seen.removed);

    const std::string text = log_text();
    EXPECT_EQ(1u, count_of(text, "rm_request: removed ("));
    EXPECT_EQ(1u, count_of(text, "is already PPRM-ed\n"));
    EXPECT_NE(std::string::npos, text.find("rui_pprm_all: [user] listener[user-lo], 1 pprm items"));
}

TEST_F(RuiTest, TimeoutWalkAsksEveryRequestOldestFirstAndCounts)
{
    start();
    rui_socket_ctx* srv = &ctx_.user[0];
    for (int i = 0; i < 3; ++i)
        add_direct(srv);

    rui_tmout_all(&ctx_, 1500);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), g_seen.tmout_ids);
    EXPECT_EQ((std::vector<u_int>{1500, 1500, 1500}), g_seen.tmout_values);
    EXPECT_NE(std::string::npos, log_text().find("rui_tmout_all: no time-outs for [user-lo]\n"));

    auto* oldest = dlep_tail_as<TestRq>(srv->requests);
    oldest->expired = true;
    reinterpret_cast<TestRq*>(oldest->h.next)->expired = true;
    g_seen.tmout_ids.clear();
    rui_tmout_all(&ctx_, 10);
    EXPECT_EQ(3u, g_seen.tmout_ids.size());
    EXPECT_NE(std::string::npos, log_text().find("rui_tmout_all: 2 [user-lo] requests timed out\n"));
    // The walk only counts: removal is the callback's business.
    EXPECT_EQ(3u, queued(srv));
    EXPECT_EQ(0, g_seen.removed);
}

TEST_F(RuiTest, TrackNumbersRollOver)
{
    // The agent's sequence: T9999, T10000, then T0001 with the roll-over line.
    size_t count = 9998;
    n64_tag tag;
    memset(&tag, 0x55, sizeof tag);
    std::vector<std::string> seq;
    for (int i = 0; i < 3; ++i) {
        rui_mk_trknum(&count, &tag, 'T', 10000);
        seq.emplace_back(tag.sym8);
        EXPECT_EQ(0, tag.sym8[7]);
    }
    EXPECT_EQ((std::vector<std::string>{"T9999", "T10000", "T0001"}), seq);
    EXPECT_EQ(1u, count);
    EXPECT_EQ(1u, count_of(log_text(), "rui_mk_trknum: rolling over T-requests\n"));

    // A six-digit count is cut to its first five digits.
    count = MAX_RQNUM - 1;
    rui_mk_trknum(&count, &tag, 'D', MAX_RQNUM);
    EXPECT_STREQ("D10000", tag.sym8);
    EXPECT_EQ(MAX_RQNUM, count);
}

TEST_F(RuiTest, UdpAndLocalDomainListenersStart)
{
    const std::string uport = free_port(SOCK_DGRAM);
    set_tcp_listener(&cfg_.user[0], "udp-lo", uport);
    cfg_.user[0].proto = IPPROTO_UDP;
    rui_listener_cfg* d = &cfg_.user[1];
    *d = rui_listener_cfg{};
    d->is_valid = true;
    snprintf(d->alias, sizeof d->alias, "local");
    const std::string path = dir_ + "/rui.sock";
    snprintf(d->domain_path, sizeof d->domain_path, "%s", path.c_str());
    d->proto = IPPROTO_TCP;
    // A UDP listener on every address, without an interface.
    set_tcp_listener(&cfg_.user[2], "udp-any", free_port(SOCK_DGRAM));
    cfg_.user[2].proto = IPPROTO_UDP;
    free(cfg_.user[2].ifc);
    cfg_.user[2].ifc = nullptr;

    start();
    rui_socket_ctx* srv = ctx_.user;
    ASSERT_GE(srv[1].sockfd, 0);
    ASSERT_GE(srv[2].sockfd, 0);
    EXPECT_EQ(SOCK_DGRAM, int_opt(srv[0].sockfd, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(SOCK_STREAM, int_opt(srv[1].sockfd, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(SOCK_DGRAM, int_opt(srv[2].sockfd, SOL_SOCKET, SO_TYPE));
    struct stat st{};
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    const std::string text = log_text();
    EXPECT_NE(std::string::npos, text.find("for TRQ requests on lo:" + uport + ";"));
    EXPECT_NE(std::string::npos, text.find("for TRQ requests on " + path + ":; 0 requests"));
    EXPECT_NE(std::string::npos, text.find("for TRQ requests on all:"));
    EXPECT_NE(std::string::npos, text.find("rui_enable_listeners: 3 [user] listener(s) started"));

    // A local-domain peer is queued without the network options.
    const int c = socket(AF_UNIX, SOCK_STREAM, 0);
    peers_.push_back(c);
    sockaddr_un su{};
    su.sun_family = AF_UNIX;
    snprintf(su.sun_path, sizeof su.sun_path, "%s", path.c_str());
    ASSERT_EQ(0, connect(c, reinterpret_cast<sockaddr*>(&su), sizeof su));
    ASSERT_EQ(0, rui_accept(&srv[1], 64, RUI_TCP_NODELAY, nullptr));
    ASSERT_EQ(1u, queued(&srv[1]));
    EXPECT_EQ(1, int_opt(dlep_head_as<TestRq>(srv[1].requests)->h.fd, SOL_SOCKET, SO_RCVLOWAT));
}

TEST_F(RuiTest, StartFailureLeavesNothingOpen)
{
    // A plain socket holds the port without address reuse, so the listener cannot bind.
    const int holder = socket(AF_INET, SOCK_STREAM, 0);
    peers_.push_back(holder);
    sockaddr_in sa = loopback(static_cast<uint16_t>(std::stoi(port_)));
    ASSERT_EQ(0, bind(holder, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
    ASSERT_EQ(0, listen(holder, 1));

    ASSERT_EQ(0, rui_ctx_init(&cfg_, &ctx_));
    const size_t before = open_fds();
    EXPECT_EQ(-1, rui_ctx_start(&ctx_));
    EXPECT_EQ(-1, ctx_.user[0].sockfd);
    EXPECT_EQ(before, open_fds());
    EXPECT_NE(std::string::npos,
              log_text().find("rui_start_listener: failed to start TRQ listener\n"));
}

TEST_F(RuiTest, StopKeepsTheQueueAndTeardownClosesEverything)
{
    const size_t before = open_fds();
    start();
    rui_socket_ctx* srv = &ctx_.user[0];
    const int a = connect_tcp(port_);
    const int b = connect_tcp(port_);
    ASSERT_EQ(0, rui_accept(srv, 64, 0, nullptr));
    ASSERT_EQ(2u, queued(srv));

    const int lfd = srv->sockfd;
    EXPECT_EQ(1, stop_listeners(ctx_.user, false));
    EXPECT_EQ(-1, srv->sockfd);
    EXPECT_TRUE(srv->deferred);
    EXPECT_EQ(2u, queued(srv));
    EXPECT_NE(std::string::npos, log_text().find("TRQ listener fd" + std::to_string(lfd) +
                                                 " wll be closed (2 requsts queued)\n"));
    EXPECT_TRUE(rui_should_listen(srv, 3)); // 2 of 3 is below three quarters
    EXPECT_FALSE(rui_should_listen(srv, 2));
    EXPECT_FALSE(rui_should_listen(srv, 0));
    EXPECT_EQ(1u, count_of(log_text(), "rui_should_listen: user-lo (2 requsts queued)\n"));

    // Started again, with the queue still there.
    ASSERT_EQ(0, rui_start_listener(srv->lc, srv));
    EXPECT_FALSE(srv->deferred);
    EXPECT_NE(std::string::npos, log_text().find("; 2 requests pending\n"));

    rui_ctx_destroy(&ctx_);
    EXPECT_EQ(2, g_seen.removed);
    EXPECT_EQ(0u, ctx_.user[0].tag.num);
    EXPECT_FALSE(cfg_.user[0].is_valid);
    EXPECT_EQ(nullptr, cfg_.user[0].ifc);
    EXPECT_TRUE(peer_closed(a));
    EXPECT_TRUE(peer_closed(b));
    close(a);
    close(b);
    EXPECT_EQ(before, open_fds());
    EXPECT_NE(std::string::npos,
              log_text().find("stop_listeners: 1 [user] listener(s) destroyed\n"));
}

using RuiDeathTest = RuiTest;

TEST_F(RuiDeathTest, ErrorOnAListenerAborts)
{
    start();
    EXPECT_DEATH(rui_crash_on_error(&ctx_.user[0], true), "");
    const std::string text = log_text();
    EXPECT_EQ(1u, count_of(text, "rui_crash_on_error: HUP listener[user-lo] ERROR(0): Success\n"))
        << text;
    EXPECT_EQ(1u, count_of(text, "Aborting at:\n"));
}

} // namespace
