// Tests of the listener manager on a loopback TCP listener with a real event loop: accepting, the
// queue limit, removal, time-outs, track numbers, teardown and the fatal error on a listener.
#include <gtest/gtest.h>

#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <vector>

#include "rqs.h"
#include "rui.h"
#include "test_support.h"

using vsk_test::contains;

namespace {

// A request of the tests: the manager's header first.
struct TestRq {
    rui_rq_header h;
    int id;
};

int g_created = 0, g_reads = 0;
std::vector<int> g_removed_fds; // header fd at each removal: -1, closed before freeing
std::vector<int> g_asked;       // requests the time-out walk asked about, in order
rui_ctx g_ctx;

void* new_rq(int, rui_socket_ctx*, void*) { return new TestRq{{}, ++g_created}; }

void rm_rq(void* p)
{
    g_removed_fds.push_back(static_cast<TestRq*>(p)->h.fd);
    delete static_cast<TestRq*>(p);
}

// Requests 1 and 2 have waited too long for a short time-out.
int rq_tmout(void* p, u_int ms)
{
    g_asked.push_back(static_cast<TestRq*>(p)->id);
    return ms < 1000 && static_cast<TestRq*>(p)->id <= 2;
}

// A readable listener accepts. A readable request checks that nothing was freed so far in this
// batch and schedules every queued request of its listener for removal after the batch.
int on_read(int, int, void* udata, void*)
{
    if (static_cast<n32_tag*>(udata)->num == RSC_TAG)
        return rui_accept(static_cast<rui_socket_ctx*>(udata), 64, 0, nullptr);
    ++g_reads;
    EXPECT_TRUE(g_removed_fds.empty()) << "a request freed inside the batch";
    for (auto* p = dlep_tail_as<rui_rq_header>(g_ctx.user[0].requests); p; p = p->next)
        (void)rui_pprm_request(p);
    return 0;
}

int on_none(int, int, void*, void*) { return 0; }

void loop_tmout(timespec* ts) { *ts = {0, 20 * 1000 * 1000}; }

// Removes what the batch scheduled; ends the loop once two requests went (2: safety bound).
int loop_pp()
{
    static int passes = 0;
    rui_pprm_all(&g_ctx);
    return g_removed_fds.size() >= 2 ? 1 : ++passes > 500 ? 2 : 0;
}

// Whether the peer closed its end within a moment (a reset when data was left unread).
// What the peer sent before it closed (at most 1 KiB, waiting up to a second).
std::string read_to_close(int s)
{
    std::string got;
    char buf[1024];
    pollfd p{s, POLLIN, 0};
    while (got.size() < sizeof buf && poll(&p, 1, 1000) == 1) {
        const ssize_t n = recv(s, buf, sizeof buf, MSG_DONTWAIT);
        if (n <= 0)
            break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

bool peer_closed(int s)
{
    pollfd p{s, POLLIN, 0};
    char c;
    return poll(&p, 1, 1000) == 1 && (recv(s, &c, 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET);
}

class RuiTest : public ::testing::Test {
protected:
    vsk_test::log_capture log_;
    rui_cfg cfg_{};
    rui_socket_ctx* srv_ = &g_ctx.user[0];
    sockaddr_in addr_{};
    std::vector<int> peers_;

    void SetUp() override
    {
        g_created = g_reads = 0;
        g_removed_fds.clear();
        g_asked.clear();
        rui_socket_cb cb{{mk_tag32("TRQ")}, new_rq, rm_rq, rq_tmout};
        rui_set_cb(RUI_USER, &cb);
        const rqs_config rc{{loop_tmout, {}, on_read, on_none, on_none, loop_pp, {}, {}, {}}, 0};
        ASSERT_EQ(0, rqs_init(&rc));
        // A TCP listener "web" on every IPv4 address, at a port the system picks.
        cfg_.user[0] = {true, "web", 0, nullptr, "0", AF_INET, "", IPPROTO_TCP, {}, 0, 0, false, 0};
        ASSERT_EQ(0, rui_ctx_init(&cfg_, &g_ctx));
        ASSERT_EQ(0, rui_ctx_start(&g_ctx));
        socklen_t len = sizeof addr_;
        ASSERT_EQ(0, getsockname(srv_->sockfd, reinterpret_cast<sockaddr*>(&addr_), &len));
        addr_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }

    void TearDown() override
    {
        rui_ctx_destroy(&g_ctx);
        rqs_destroy();
        for (const int s : peers_)
            close(s);
    }

    int connect_one()
    {
        peers_.push_back(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(0, connect(peers_.back(), reinterpret_cast<sockaddr*>(&addr_), sizeof addr_));
        return peers_.back();
    }

    size_t queued() const { return dlep_count(srv_->requests); }
};

TEST_F(RuiTest, RemovalScheduledInsideTheBatchWaitsForPostProcessing)
{
    // Above the low-water mark before the loop accepts them: one batch reads both requests.
    for (const int s : {connect_one(), connect_one()})
        ASSERT_EQ(40, send(s, std::string(40, 'x').data(), 40, 0));
    EXPECT_EQ(1, rqs_event_loop()) << "not ended by the safety bound";
    EXPECT_EQ(2, g_reads);
    EXPECT_EQ((std::vector<int>{-1, -1}), g_removed_fds);
    EXPECT_TRUE(queued() == 0 && srv_->pprm.len == 0);
    EXPECT_TRUE(peer_closed(peers_[0]) && peer_closed(peers_[1]));
}

TEST_F(RuiTest, TimeoutWalkThenRemovalOfAScheduledRequestAtOnce)
{
    for (int i = 0; i < 3; ++i)
        connect_one();
    ASSERT_EQ(0, rui_accept(srv_, 64, 0, nullptr));
    rui_tmout_all(&g_ctx, 1500);
    EXPECT_TRUE(contains(log_.take(), "rui_tmout_all: no time-outs for [web]\n"));
    rui_tmout_all(&g_ctx, 10);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 1, 2, 3}), g_asked) << "oldest first";
    EXPECT_TRUE(contains(log_.take(), "rui_tmout_all: 2 [web] requests timed out\n"));
    EXPECT_EQ(3u, queued()) << "the walk only counts";

    // Scheduled, then removed directly: it leaves the pprm list at once and is freed once.
    auto* a = dlep_tail_as<TestRq>(srv_->requests);
    EXPECT_EQ(0, rui_pprm_request(a));
    EXPECT_EQ(EEXIST, rui_pprm_request(a));
    EXPECT_EQ(0, rui_pprm_request(dlep_head_as<TestRq>(srv_->requests)));
    rui_rm_request(a);
    EXPECT_EQ(1u, srv_->pprm.len);
    EXPECT_TRUE(peer_closed(peers_[0]));
    rui_pprm_all(&g_ctx);
    rui_pprm_all(&g_ctx);
    EXPECT_EQ((std::vector<int>{-1, -1}), g_removed_fds);
    EXPECT_TRUE(contains(log_.take(), "rui_pprm_all: [user] listener[web], 1 pprm items\n"));
}

TEST_F(RuiTest, AcceptCycleIsBoundedAndAFullQueueRefusesWithEbusy)
{
    const size_t with_listener = vsk_test::open_fd_count();
    for (int i = 0; i < 3; ++i)
        connect_one();
    EXPECT_EQ(0, rui_accept(srv_, 0, 0, nullptr));
    EXPECT_EQ(0u, queued());
    EXPECT_TRUE(contains(log_.take(), "rui_accept(web): CANNOT ACCEPT ALL (accepted=0), max=0\n"));
    EXPECT_EQ(0, rui_accept(srv_, 2, 0, nullptr));
    EXPECT_EQ(2u, queued());
    EXPECT_TRUE(contains(log_.take(), "rui_accept(web): CANNOT ACCEPT ALL (accepted=2), max=2\n"));
    // The rest waited in the kernel's queue; a cycle that drains it does not warn.
    EXPECT_EQ(0, rui_accept(srv_, 64, 0, nullptr));
    EXPECT_EQ(3u, queued());
    EXPECT_FALSE(contains(log_.take(), "CANNOT ACCEPT ALL"));

    // Filled up: both connections are refused and closed, the cycle going on after the first.
    const int fd = dlep_head_as<TestRq>(srv_->requests)->h.fd;
    while (queued() < MAX_RUI_QUEUED)
        ASSERT_EQ(0, rui_add_request(dup(fd), srv_, nullptr));
    const int a = connect_one(), b = connect_one();
    EXPECT_EQ(EBUSY, rui_accept(srv_, 64, 0, nullptr));
    EXPECT_EQ(MAX_RUI_QUEUED, queued());
    const std::string busy = "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 1\r\n"
                             "Content-Length: 0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(busy, read_to_close(a));
    EXPECT_EQ(busy, read_to_close(b));
    EXPECT_TRUE(peer_closed(a) && peer_closed(b));
    const std::string text = log_.take();
    EXPECT_TRUE(contains(text, "rui_add_request: Too many user requests (1000) queued\n"));
    EXPECT_TRUE(contains(text, "Error rc=16 processing connection [127.0.0.1:"));
    rui_ctx_destroy(&g_ctx);
    EXPECT_EQ(MAX_RUI_QUEUED, g_removed_fds.size());
    EXPECT_TRUE(peer_closed(peers_[0]) && peer_closed(peers_[2])) << "every duplicate closed";
    // Of what the manager opened nothing is left, not even the listener: only the test's peers.
    EXPECT_EQ(with_listener - 1 + peers_.size(), vsk_test::open_fd_count());
}

TEST_F(RuiTest, TrackNumbersRollOver)
{
    size_t count = 9998;
    n64_tag tag{~0ull};
    for (const char* want : {"T9999", "T10000", "T0001"}) {
        rui_mk_trknum(&count, &tag, 'T', 10000);
        EXPECT_STREQ(want, tag.sym8);
    }
    EXPECT_EQ(0, tag.sym8[7]) << "the whole tag is cleared";
    EXPECT_TRUE(contains(log_.take(), "rui_mk_trknum: rolling over T-requests\n"));
    count = MAX_RQNUM - 1; // a six-digit count is cut to its first five digits
    rui_mk_trknum(&count, &tag, 'D', MAX_RQNUM);
    EXPECT_STREQ("D10000", tag.sym8);
}

TEST_F(RuiTest, ErrorOnAListenerAborts)
{
    EXPECT_DEATH(rui_crash_on_error(srv_, true), "");
    const std::string text = log_.take();
    EXPECT_TRUE(contains(text, "rui_crash_on_error: HUP listener[web] ERROR(0): Success\n"));
    EXPECT_TRUE(contains(text, "Aborting at:\n"));
}

// A datagram on a UDP listener cannot be accepted. It is read and dropped, at most max_accept per
// event, so that the level-triggered listener goes quiet instead of waking every pass.
TEST(RuiUdp, DatagramsAreDroppedNotAccepted)
{
    vsk_test::log_capture log;
    g_created = 0;
    rui_socket_cb cb{{mk_tag32("TRQ")}, new_rq, rm_rq, rq_tmout};
    rui_set_cb(RUI_USER, &cb);
    const rqs_config rc{{loop_tmout, {}, on_read, on_none, on_none, loop_pp, {}, {}, {}}, 0};
    ASSERT_EQ(0, rqs_init(&rc));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    const int peer = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(0, bind(peer, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, getsockname(peer, reinterpret_cast<sockaddr*>(&addr), &len));
    // The listener takes the port next to the peer's, which is very likely free.
    addr.sin_port = htons(static_cast<uint16_t>(ntohs(addr.sin_port) + 1));
    const std::string port = std::to_string(ntohs(addr.sin_port));
    rui_cfg cfg{};
    cfg.user[0] = {true, "dgram", 0, nullptr, "", AF_INET, "", IPPROTO_UDP, {}, 0, 0, false, 0};
    snprintf(cfg.user[0].port, sizeof cfg.user[0].port, "%s", port.c_str());
    ASSERT_EQ(0, rui_ctx_init(&cfg, &g_ctx));
    ASSERT_EQ(0, rui_ctx_start(&g_ctx));
    rui_socket_ctx* srv = &g_ctx.user[0];

    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(2, sendto(peer, "hi", 2, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    EXPECT_EQ(0, rui_accept(srv, 2, 0, nullptr));
    EXPECT_TRUE(contains(log.take(), "rui_accept(dgram): 2 datagram(s) dropped, the last from "
                                     "127.0.0.1:"));
    EXPECT_EQ(0, rui_accept(srv, 64, 0, nullptr));
    EXPECT_TRUE(contains(log.take(), "rui_accept(dgram): 1 datagram(s) dropped"));
    pollfd p{srv->sockfd, POLLIN, 0};
    EXPECT_EQ(0, poll(&p, 1, 0)) << "the listener is still readable";
    EXPECT_EQ(0, g_created);
    EXPECT_EQ(0u, dlep_count(srv->requests));

    rui_ctx_destroy(&g_ctx);
    rqs_destroy();
    close(peer);
}

// Connections that complete their handshake on a listener that accepts none of them: the kernel
// queues one more than the backlog and drops the other SYNs, so their connects stay pending.
size_t handshakes_queued(int backlog, size_t tries)
{
    rui_cfg cfg{};
    cfg.user[0] = {true, "deep", 0, nullptr, "0", AF_INET, "", IPPROTO_TCP, {}, 0, backlog, false, 0};
    rui_socket_cb cb{{mk_tag32("TRQ")}, new_rq, rm_rq, rq_tmout};
    rui_set_cb(RUI_USER, &cb);
    const rqs_config rc{{loop_tmout, {}, on_read, on_none, on_none, loop_pp, {}, {}, {}}, 0};
    EXPECT_EQ(0, rqs_init(&rc));
    EXPECT_EQ(0, rui_ctx_init(&cfg, &g_ctx));
    EXPECT_EQ(0, rui_ctx_start(&g_ctx));
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    EXPECT_EQ(0, getsockname(g_ctx.user[0].sockfd, reinterpret_cast<sockaddr*>(&addr), &len));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<pollfd> peers;
    for (size_t i = 0; i < tries; ++i) {
        const int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        (void)connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        peers.push_back({s, POLLOUT, 0});
    }
    // A dropped SYN is sent again only after a second.
    poll(peers.data(), peers.size(), 300);
    size_t done = 0;
    for (const pollfd& p : peers) {
        int err = -1;
        socklen_t elen = sizeof err;
        done += (p.revents & POLLOUT) &&
                getsockopt(p.fd, SOL_SOCKET, SO_ERROR, &err, &elen) == 0 && err == 0;
        close(p.fd);
    }
    rui_ctx_destroy(&g_ctx);
    rqs_destroy();
    return done;
}

TEST(RuiBacklog, AConfiguredBacklogQueuesMoreConnectionsThanTheBuiltInOne)
{
    EXPECT_EQ(129u, handshakes_queued(0, 300)) << "built in: 128";
    EXPECT_EQ(300u, handshakes_queued(400, 300));
    EXPECT_EQ(11u, handshakes_queued(10, 300)) << "a shorter queue is honoured too";
}

} // namespace
