// The benchmark's client of the agent: keeps N download orders in flight on the agent's web
// listener and reports when the last file is under its final name. A 200 only says that the
// download started, so a slot is given back once the agent's log has the file's `downloaded:`
// line (or a TASK-END that left no file) and its answer has come. Written in C++ on one epoll
// loop because the harness shares the two cores with the agent: a client that costs more CPU
// than curl -Z would be timed as the agent's slowness. Not a test; run by bench/throughput.py.
//
// Usage: vsk_drive PORT LOG IN_FLIGHT TIME_LIMIT_S LIST
//   LIST has one order a line: the source URL, a space, the request target for the agent.
// Prints `seconds S` (first connect to last file complete) and exits 0 when every order
// succeeded; otherwise prints `failed K of N` and the first failures, and exits 1.
// Orders go out as HTTP/1.1 without "Connection: close": a listener with keep_alive answers them
// with a Content-Length and keeps the connection, which then carries the next order; otherwise
// the agent closes it after the answer and the next order connects anew.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace {

// Longest wait between two looks at the log. Following it with inotify instead would wake the
// driver for every line and make every log write of the agent dearer.
constexpr int LOG_POLL_MS = 2;
// Orders are started at most this fast after a first burst, unless the command line says
// otherwise. A listener with the built-in backlog of 128 overflows when thousands connect at
// once: the kernel drops the SYNs and the client sends them again only after 1, 3, 7 s, so the
// run would time TCP's back-off, not the agent (4096 in flight: 2-15 s at 32 000 starts/s, 1.5 s
// steady at 8000). With 64 in flight the rate binds only on a run of 2000 orders shorter than
// 0.24 s; a listener whose backlog holds all the orders in flight needs no bound (0).
constexpr double START_BURST = 64, DEFAULT_STARTS_PER_S = 8000;

// Epoll data of an idle kept connection: no order owns it.
constexpr uint32_t IDLE = UINT32_MAX;

struct Order {
    std::string url, text, head, failed;
    int fd = -1;
    bool sent = false, answered = false, on_disk = false, reused = false;

    bool finished() const { return !failed.empty() || (answered && on_disk); }
};

double now_s()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

struct Drive {
    std::vector<Order> orders;
    std::unordered_map<std::string_view, size_t> by_url;
    std::vector<int> idle;  // kept connections waiting for an order
    int ep = -1, log_fd = -1;
    uint16_t port = 0;
    size_t in_flight = 0, finished = 0;
    double t_last = 0;
    std::string log_rest;

    void settle(Order& o)
    {
        if (!o.finished())
            return;
        --in_flight;
        ++finished;
        t_last = now_s();
    }

    void close_order(Order& o)
    {
        if (o.fd < 0)
            return;
        close(o.fd);  // which also takes it out of the epoll set: it has no duplicate
        o.fd = -1;
    }

    void fail(Order& o, std::string why)
    {
        if (o.finished())
            return;
        close_order(o);
        o.failed = std::move(why);
        settle(o);
    }

    // Sends the order on an idle kept connection; false when none is left.
    bool reuse(size_t idx)
    {
        Order& o = orders[idx];
        while (!idle.empty()) {
            o.fd = idle.back();
            idle.pop_back();
            if (send(o.fd, o.text.data(), o.text.size(), MSG_NOSIGNAL) == ssize_t(o.text.size())) {
                o.sent = o.reused = true;
                watch(idx, EPOLLIN, EPOLL_CTL_MOD);
                return true;
            }
            close(o.fd);
        }
        o.fd = -1;
        return false;
    }

    void start(size_t idx)
    {
        ++in_flight;
        if (reuse(idx))
            return;
        connect_order(idx);
    }

    void connect_order(size_t idx)
    {
        Order& o = orders[idx];
        o.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (o.fd < 0) {
            fail(o, std::string("socket: ") + strerror(errno));
            return;
        }
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(port);
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(o.fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 && errno != EINPROGRESS) {
            fail(o, std::string("connect: ") + strerror(errno));
            return;
        }
        // On loopback the handshake is usually over when connect returns: sending at once saves
        // a wake-up and two system calls per order; a connection still opening waits for EPOLLOUT.
        o.sent = send(o.fd, o.text.data(), o.text.size(), MSG_NOSIGNAL) == ssize_t(o.text.size());
        watch(idx, o.sent ? EPOLLIN : EPOLLOUT, EPOLL_CTL_ADD);
    }

    void watch(size_t idx, uint32_t events, int op)
    {
        epoll_event ev{};
        ev.events = events;
        ev.data.u64 = uint64_t(uint32_t(orders[idx].fd)) << 32 | uint32_t(idx);
        epoll_ctl(ep, op, orders[idx].fd, &ev);
    }

    // The agent closed an idle kept connection (its request time-out): forget it.
    void on_idle(int fd)
    {
        auto it = std::find(idle.begin(), idle.end(), fd);
        if (it != idle.end()) {
            idle.erase(it);
            close(fd);
        }
    }

    void on_event(uint64_t data)
    {
        const auto idx = uint32_t(data);
        if (idx == IDLE)
            on_idle(int(data >> 32));
        else
            on_socket(idx);
    }

    void on_socket(size_t idx)
    {
        Order& o = orders[idx];
        if (o.fd < 0)
            return;
        if (!o.sent) {
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(o.fd, SOL_SOCKET, SO_ERROR, &err, &len);
            if (err != 0) {
                fail(o, std::string("connect: ") + strerror(err));
                return;
            }
            // A few hundred bytes always fit an empty socket buffer.
            if (send(o.fd, o.text.data(), o.text.size(), MSG_NOSIGNAL) != ssize_t(o.text.size())) {
                fail(o, std::string("send: ") + strerror(errno));
                return;
            }
            o.sent = true;
            watch(idx, EPOLLIN, EPOLL_CTL_MOD);
            return;
        }
        char buf[4096];
        bool kept = false;
        for (;;) {
            ssize_t n = recv(o.fd, buf, sizeof buf, 0);
            if (n > 0) {
                if (o.head.size() < 1024)
                    o.head.append(buf, size_t(n));
                // A kept answer ends with its head (Content-Length: 0): the connection is free.
                if (o.head.find("\r\n\r\n") != o.head.npos &&
                    o.head.find("\r\nContent-Length: 0\r\n") != o.head.npos) {
                    kept = true;
                    break;
                }
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EINTR))
                return;
            if (o.head.empty() && o.reused) {
                // The agent closed the kept connection as the order went out: ask anew.
                close_order(o);
                o.reused = o.sent = false;
                connect_order(size_t(&o - orders.data()));
                return;
            }
            if (n < 0 && o.head.empty()) {
                fail(o, std::string("recv: ") + strerror(errno));
                return;
            }
            break;  // the agent closes the connection after its one answer
        }
        if (kept) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.u64 = uint64_t(uint32_t(o.fd)) << 32 | IDLE;
            epoll_ctl(ep, EPOLL_CTL_MOD, o.fd, &ev);
            idle.push_back(o.fd);
            o.fd = -1;
        } else {
            close_order(o);
        }
        std::string_view line(o.head);
        line = line.substr(0, line.find("\r\n"));
        if (line.size() < 12 || line.substr(0, 7) != "HTTP/1." || line.substr(8, 5) != " 200 ") {
            fail(o, line.empty() ? "closed without an answer" : "answer '" + std::string(line) + "'");
            return;
        }
        o.answered = true;
        settle(o);
    }

    Order* order_of(std::string_view url)
    {
        auto it = by_url.find(url);
        return it == by_url.end() ? nullptr : &orders[it->second];
    }

    // `downloaded: N bytes, [URL] to [PATH]` marks a file under its final name; a
    // `TASK-END [..] (..) [URL]->[PATH-Vesk]` before it means the task ended without its file.
    void on_log_line(std::string_view line)
    {
        if (auto p = line.find("downloaded: "); p != line.npos) {
            auto a = line.find(" bytes, [", p);
            auto b = a == line.npos ? a : line.find("] to [", a);
            if (b == line.npos)
                return;
            a += 9;
            if (Order* o = order_of(line.substr(a, b - a)); o && !o->finished()) {
                o->on_disk = true;
                settle(*o);
            }
            return;
        }
        auto p = line.find("TASK-END [");
        if (p == line.npos)
            return;
        auto a = line.find(") [", p);
        auto b = a == line.npos ? a : line.find("]->[", a);
        auto c = b == line.npos ? b : line.find(']', b + 4);
        if (c == line.npos)
            return;
        a += 3;
        std::string_view dst = line.substr(b + 4, c - b - 4);
        if (dst.size() < 5 || dst.substr(dst.size() - 5) != "-Vesk")
            return;
        if (Order* o = order_of(line.substr(a, b - a)); o && !o->on_disk)
            fail(*o, "task ended without its file");
    }

    void read_log()
    {
        char buf[65536];
        ssize_t n;
        while ((n = read(log_fd, buf, sizeof buf)) > 0) {
            log_rest.append(buf, size_t(n));
            size_t from = 0, nl;
            while ((nl = log_rest.find('\n', from)) != log_rest.npos) {
                on_log_line(std::string_view(log_rest).substr(from, nl - from));
                from = nl + 1;
            }
            log_rest.erase(0, from);
        }
    }
};

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 6 && argc != 7) {
        fprintf(stderr, "usage: %s PORT LOG IN_FLIGHT TIME_LIMIT_S LIST [STARTS_PER_S]\n",
                argv[0]);
        return 2;
    }
    const double starts_per_s = argc == 7 ? atof(argv[6]) : DEFAULT_STARTS_PER_S;
    Drive d;
    d.port = uint16_t(atoi(argv[1]));
    const size_t conc = size_t(atol(argv[3]));
    const double limit = atof(argv[4]);
    std::ifstream list(argv[5]);
    for (std::string line; std::getline(list, line);) {
        auto sp = line.find(' ');
        if (sp == line.npos)
            continue;
        Order o;
        o.url = line.substr(0, sp);
        o.text = "GET " + line.substr(sp + 1) + " HTTP/1.1\r\nHost: 127.0.0.1:" + argv[1] +
                 "\r\nUser-Agent: vsk-bench\r\n\r\n";
        d.orders.push_back(std::move(o));
    }
    if (d.orders.empty() || conc == 0 || d.port == 0) {
        fprintf(stderr, "%s: nothing to do (no orders, no port or no slots)\n", argv[0]);
        return 2;
    }
    for (size_t i = 0; i < d.orders.size(); ++i)
        d.by_url.emplace(d.orders[i].url, i);

    // Only lines written from now on count: the log is read from its end.
    d.log_fd = open(argv[2], O_RDONLY | O_CLOEXEC);
    d.ep = epoll_create1(EPOLL_CLOEXEC);
    if (d.log_fd < 0 || d.ep < 0 || lseek(d.log_fd, 0, SEEK_END) < 0) {
        fprintf(stderr, "%s: cannot follow the log %s: %s\n", argv[0], argv[2], strerror(errno));
        return 2;
    }

    const double t0 = now_s(), deadline = t0 + limit;
    size_t next = 0;
    std::vector<epoll_event> evs(256);
    while (d.finished < d.orders.size()) {
        if (now_s() > deadline) {
            printf("time limit reached with %zu/%zu downloads finished, %zu in flight\n",
                   d.finished, d.orders.size(), d.in_flight);
            return 1;
        }
        const double may_start = starts_per_s > 0
                                     ? START_BURST + (now_s() - t0) * starts_per_s
                                     : double(d.orders.size());
        while (next < d.orders.size() && d.in_flight < conc && double(next) < may_start)
            d.start(next++);
        int n = epoll_wait(d.ep, evs.data(), int(evs.size()), LOG_POLL_MS);
        for (int i = 0; i < n; ++i)
            d.on_event(evs[size_t(i)].data.u64);
        d.read_log();
    }
    size_t failed = 0;
    for (const Order& o : d.orders)
        failed += o.failed.empty() ? 0 : 1;
    if (failed == 0) {
        printf("seconds %.6f\n", d.t_last - t0);
        return 0;
    }
    printf("failed %zu of %zu\n", failed, d.orders.size());
    size_t shown = 0;
    for (size_t i = 0; i < d.orders.size() && shown < 3; ++i)
        if (!d.orders[i].failed.empty()) {
            printf("#%zu: %s\n", i, d.orders[i].failed.c_str());
            ++shown;
        }
    return 1;
}
