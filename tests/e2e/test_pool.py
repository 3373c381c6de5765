"""Idle keep-alive connections to sources (vesk.src_pool_max): a later download from the same host
and port goes out on the connection an earlier one left, a connection the source closes while idle
or just as a request goes out costs the download nothing, and no pooled socket outlives its use:
the descriptor count comes back to idle."""
import socket
import struct
import time

import pytest

from conftest import ask, curl, dl_path, files_under, free_port
from peers import BadSource, Nginx


class KeepAliveSource(BadSource):
    """A loopback HTTP/1.1 source that answers several requests per connection, as a web server
    does, and counts its connections. `script` maps the number of a request on its connection
    (1, 2, ...) to "answer" (the default), "close" (close without an answer), "reset" (close
    with a reset, as a server does that closed the idle connection just before the request came)
    or "silent" (send nothing until the peer closes)."""

    READ_TIMEOUT = 8.0  # a pooled connection waits idle for its next request

    def __init__(self, bodies, script=None):
        self.bodies, self.script = bodies, dict(script or {})
        self.connections = 0
        self.requests_on = []  # (connection number, request head)
        super().__init__()

    def url(self, path, host="127.0.0.1"):
        return f"http://{host}:{self.port}/{path}"

    def _serve(self, conn):
        with self._lock:
            self.connections += 1
            number = self.connections
        nth = 0
        try:
            while True:
                head = self._read_head(conn)
                if b"\r\n\r\n" not in head:
                    return
                nth += 1
                with self._lock:
                    self.requests_on.append((number, head))
                what = self.script.get(nth, "answer")
                if what == "close":
                    return
                if what == "reset":
                    conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                    return
                if what == "silent":
                    self._read_head(conn)  # until the peer gives up
                    return
                path = head.split(b" ", 2)[1].decode().lstrip("/")
                body = self.bodies[path]
                closing = b"connection: close" in head.lower()
                conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n%s\r\n" % (
                    len(body), b"Connection: close\r\n" if closing else b"") + body)
                if closing:
                    return
        except OSError:
            pass
        finally:
            conn.close()


BODIES = {f"live/{i}.ts": bytes([i]) * (3000 + 1000 * i) for i in range(1, 6)}


@pytest.fixture
def source():
    srcs = []

    def make(script=None):
        srcs.append(KeepAliveSource(BODIES, script))
        return srcs[-1]

    yield make
    for s in srcs:
        s.stop()


def pooled_agent(agent, pool_max=4, level="info", **vesk):
    agent.vesk.update(src_pool_max=pool_max, **vesk)
    agent.vesk["log"]["level"] = level
    return agent.start()


def fetch(agent, src, i, host="127.0.0.1"):
    ask(agent, src.url(f"live/{i}.ts", host), f"live/{i}.ts")
    agent.wait_for_log(rf"downloaded: .*live/{i}\.ts\]")
    assert (agent.data_dir / f"live/{i}.ts").read_bytes() == BODIES[f"live/{i}.ts"]


@pytest.mark.parametrize("pool_max, connections, conn_word", [
    (0, 3, b"Connection: close"),  # built in: a connection of its own per download, as always
    (4, 1, b"Connection: keep-alive"),
], ids=["off", "on"])
def test_downloads_from_one_source_share_a_connection(agent, source, pool_max, connections, conn_word):
    src = source()
    if pool_max:
        pooled_agent(agent, pool_max)
    else:
        agent.start()
    idle_fds = agent.fds()
    for i in (1, 2, 3):
        fetch(agent, src, i)
    assert src.connections == connections
    assert all(conn_word in head for _, head in src.requests_on) and len(src.requests_on) == 3
    # The one pooled connection is the only descriptor beyond idle; without the pool, none is.
    assert agent.wait_fds(idle_fds + (1 if pool_max else 0)) == idle_fds + (1 if pool_max else 0)
    assert agent.stop() == 0


@pytest.mark.parametrize("end", ["close", "reset"])
def test_connection_closed_as_the_request_goes_out_is_retried_once(agent, source, end):
    # Every connection ends without an answer at its second request: the reused one fails, the
    # new one answers (it is its first request), and the client sees only the 200.
    src = source({2: end})
    pooled_agent(agent)
    idle_fds = agent.fds()
    fetch(agent, src, 1)
    fetch(agent, src, 2)
    fetch(agent, src, 3)
    assert src.connections == 3 and len(src.requests_on) == 5
    log = agent.log()
    assert log.count("reused connection fd") == 2, log[-3000:]
    assert "due to error" not in log and "(ERR)" not in log, log[-3000:]
    assert files_under(agent.data_dir) == ["live/1.ts", "live/2.ts", "live/3.ts"]
    assert agent.wait_fds(idle_fds + 1) == idle_fds + 1
    assert agent.stop() == 0


def test_silent_source_on_a_reused_connection_ends_as_a_stalled_task(agent, source):
    src = source({2: "silent"})
    pooled_agent(agent, end_stalled_tasks=True, task_tmout_ms=700)
    idle_fds = agent.fds()
    fetch(agent, src, 1)
    t0 = time.monotonic()
    r = curl(agent.port, dl_path(src.url("live/2.ts"), "live/2.ts"))
    assert (r.status, r.reason) == (504, "Gateway Timeout"), r
    assert 0.6 < time.monotonic() - t0 < 3
    # Silence is not a close: no retry, and the stalled connection is not pooled again.
    assert src.connections == 1 and "reused connection fd" not in agent.log()
    assert agent.wait_fds(idle_fds) == idle_fds
    assert files_under(agent.data_dir) == ["live/1.ts"]
    assert agent.stop() == 0


def test_pool_bound_and_idle_time(agent, source):
    srcs = [source() for _ in range(3)]
    pooled_agent(agent, pool_max=2, src_pool_idle_ms=1500)
    idle_fds = agent.fds()
    for i, s in enumerate(srcs, 1):
        fetch(agent, s, i)
    # Three sources, two slots: the third connection is closed, not kept.
    assert agent.wait_fds(idle_fds + 2) == idle_fds + 2
    t0 = time.monotonic()
    assert agent.wait_fds(idle_fds, timeout=5) == idle_fds
    assert 1.0 < time.monotonic() - t0 < 4
    assert all(s.connections == 1 for s in srcs)
    assert agent.stop() == 0


def test_named_source_reuses_without_a_look_up_and_retries_through_one(name_agent, source):
    agent, ns = name_agent("silent")
    src = source()
    pooled_agent(agent, level="debug")  # the look-ups are logged at debug level
    fetch(agent, src, 1, host="localhost")
    fetch(agent, src, 2, host="localhost")
    assert agent.log().count("rsv_lookup: [localhost] looked up") == 1 and src.connections == 1
    # The third request on that connection finds it closed: the retry looks the name up again.
    src.script[3] = "close"
    fetch(agent, src, 3, host="localhost")
    log = agent.log()
    assert log.count("rsv_lookup: [localhost] looked up") == 2, log[-3000:]
    assert log.count("reused connection fd") == 1 and src.connections == 2
    assert "due to error" not in log and ns.queries == 0
    assert agent.stop() == 0


def test_real_source_keeps_and_then_closes_connections(agent, tmp_path):
    """nginx closes an idle connection after a second and ends one after two requests (its last
    answer says "Connection: close"); its log shows on which connection each request came. A
    closed idle connection is noticed, and the next download connects anew."""
    ng_dir = tmp_path / "nginx"
    ng = Nginx(ng_dir, free_port(), extra=f"keepalive_timeout 1; keepalive_requests 2; "
               f"access_log {ng_dir}/conn.log conn;").start()
    try:
        pooled_agent(agent)
        idle_fds = agent.fds()
        for i in (1, 2, 3):
            ng.put(f"live/{i}.ts", BODIES[f"live/{i}.ts"])
            ask(agent, ng.url(f"live/{i}.ts"), f"live/{i}.ts")
            agent.wait_for_log(rf"downloaded: .*live/{i}\.ts\]")
        # Two requests on the first connection, then a new one: the closing answer was not pooled.
        conns = [line.split()[0] for line in (ng.dir / "conn.log").read_text().splitlines()]
        assert len(conns) == 3 and conns[0] == conns[1] != conns[2], conns
        assert agent.wait_fds(idle_fds + 1) == idle_fds + 1
        # nginx's idle time-out closes the pooled one: noticed, and the descriptor goes.
        agent.wait_for_log(r"spl_on_event: idle connection fd\d+ to \[127\.0\.0\.1:\d+\] was closed by the source",
                           timeout=5)
        assert agent.wait_fds(idle_fds) == idle_fds
        ng.put("live/4.ts", BODIES["live/4.ts"])
        ask(agent, ng.url("live/4.ts"), "live/4.ts")
        agent.wait_for_log(r"downloaded: .*live/4\.ts\]")
        conns = [line.split()[0] for line in (ng.dir / "conn.log").read_text().splitlines()]
        assert len(conns) == 4 and conns[3] not in conns[:3], conns
        assert "(ERR)" not in agent.log() and "due to error" not in agent.log()
        assert files_under(agent.data_dir) == [f"live/{i}.ts" for i in (1, 2, 3, 4)]
        assert all((agent.data_dir / f"live/{i}.ts").read_bytes() == BODIES[f"live/{i}.ts"] for i in (1, 2, 3, 4))
    finally:
        ng.stop()
    assert agent.stop() == 0
