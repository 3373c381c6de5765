"""Downloads over HTTP as a client sees them: the answer, the stored file, the registry entry, and
nothing left behind (no unfinished file, no descriptor) when a request or its source goes wrong."""
import os
import re
import resource
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from conftest import (AGENT_TAG, OLD_EXPIRY, Scrape, ask, burst, curl, digest, dl_path, files_under,
                      free_port, raw_get, read_all, registered, request, status_of, zrange)
from peers import BadSource, Route

MiB = 1048576
BODY = bytes(range(256)) * 40  # 10240 bytes


# ---- Successful downloads -----------------------------------------------------------------------

def start_with_worker(agent, *args, **kwargs):
    """Starts the agent with reserve_in_worker on; skips the test where the kernel refuses the
    ring (the agent then reserves on its loop, which the other tests cover)."""
    agent.vesk["reserve_in_worker"] = True
    r = agent.start(*args, **kwargs)
    if "no submission ring; files are reserved on the loop" in agent.log():
        agent.quit_within()
        pytest.skip("the kernel refuses the submission ring here")
    assert "file reservations go to a kernel worker" in agent.log()
    return r


@pytest.mark.parametrize("mmap_mb, small_len, big_len, splice, worker", [
    (1, 200_000, 3 * MiB + 12345, False, False),
    (None, 8 * MiB, 8 * MiB + 1, False, False),  # the default limit: exactly 8 MiB is still mapped
    (1, 200_000, 3 * MiB + 12345, True, False),  # the larger file spliced from the socket
    # Both reserved by the kernel's worker while the bytes that came with the head wait: the small
    # one is whole in the head's read, so it completes as its reservation does.
    (0, 500, 3 * MiB + 12345, True, True),
], ids=["mmap-1", "default-edge", "mmap-1-splice", "mmap-1-splice-worker"])
def test_download_is_answered_and_stored_byte_for_byte(agent, nginx, mmap_mb, small_len, big_len, splice,
                                                        worker):
    """A file up to max_mmap_mb goes through the memory map, a larger one through plain writes."""
    if mmap_mb is not None:
        agent.vesk["max_mmap_mb"] = mmap_mb
    agent.vesk["splice_to_file"] = splice
    start_with_worker(agent) if worker else agent.start()
    files = {"a.ts": os.urandom(small_len), "big.ts": os.urandom(big_len)}
    for name, data in files.items():
        nginx.put(f"live/{name}", data)
        t0 = time.monotonic()
        assert f"Server: {AGENT_TAG}" in ask(agent, nginx.url(f"live/{name}"), f"live/{name}").headers
        # The finished reservation wakes the idle loop itself: an answer that waited for the loop's
        # next time-out would come a second or more late.
        assert not worker or time.monotonic() - t0 < 0.5, name
    agent.wait_for_log(r"TASK-END ", count=2)
    log = agent.log()
    for name, data in files.items():
        src, final = nginx.url(f"live/{name}"), agent.data_dir / "live" / name
        assert f"downloaded: {len(data)} bytes, [{src}] to [{final}]" in log
        task = rf"\[T\w+\] .*\[{re.escape(src)}\]->\[{re.escape(str(final))}"
        # The task ends with its file under the final name: nothing to remove.
        assert re.search(rf"TASK-START {task}-Vesk\]", log) and re.search(rf"TASK-END {task}\] ", log), name
        assert digest(final.read_bytes()) == digest(data), name
    assert files_under(agent.data_dir) == ["live/a.ts", "live/big.ts"]
    assert f"created {'mmap' if mmap_mb != 0 else 'file'} for [{agent.data_dir}/live/a.ts-Vesk]" in log
    assert f"created file for [{agent.data_dir}/live/big.ts-Vesk]" in log


def test_request_head_in_pieces(agent, bad_source):
    """A head that never completes is timed out unanswered, on the admin listener too; one that
    completes in pieces is answered only then, and a body behind it is dropped with a warning."""
    agent.vesk.update(urq_tmout_sec=1, task_tmout_ms=200)
    agent.with_admin().start()
    fds = agent.fds()
    with socket.create_connection(("127.0.0.1", agent.port), timeout=0.5) as s:
        # Above the 32-byte low-water mark, but no line end: the head never completes.
        s.sendall(f"GET /src/{bad_source.url('t.ts')}/dst/t.ts".encode())
        agent.wait_for_log("need more data on URQ")
        with pytest.raises(socket.timeout):
            s.recv(4096)  # still open while the time-out runs
        s.settimeout(10)  # no other traffic: the loop must wake by itself to time the request out
        assert read_all(s) == b""
    assert re.search(r"urq_timeout: TIME-OUT URQ \[u\w+\]", agent.log())
    assert bad_source.requests == [] and files_under(agent.data_dir) == []
    assert agent.wait_fds(fds) == fds
    with socket.create_connection(("127.0.0.1", agent.admin), timeout=15) as s:
        s.sendall(b"GET /metr")
        assert s.recv(100) == b""
    assert Scrape(agent)("vsk_requests_queued", type="admin", listener=f"lo:{agent.admin}") == 1

    bad_source.route("/p.ts", body=b"p" * 500)
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        s.sendall(f"GET {dl_path(bad_source.url('p.ts'), 'p.ts')} HTTP/1.1\r\n".encode())
        agent.wait_for_log("need more data on URQ", count=2)
        assert bad_source.requests == []
        s.sendall(b"Host: x\r\nContent-Length: 9\r\n\r\nleftovers")
        assert read_all(s).startswith(b"HTTP/1.1 200 OK\r\n")
    agent.wait_for_log(r"downloaded: ")
    assert re.search(r"\(WRN\).*request has tail data, dismissing the tail\n", agent.log())
    assert (agent.data_dir / "p.ts").read_bytes() == b"p" * 500


# ---- Kept client connections ------------------------------------------------------------------

def answer_head(s):
    """Reads one answer head (up to its blank line) from `s`; b"" when the agent closed first."""
    got = b""
    while b"\r\n\r\n" not in got:
        chunk = s.recv(1)  # byte by byte: what follows the head must stay in the socket
        if not chunk:
            return got
        got += chunk
    return got


def get_text(path, *lines, version="1.1"):
    return "\r\n".join([f"GET {path} HTTP/{version}", "Host: 127.0.0.1", *lines, "", ""]).encode()


def test_one_request_per_connection_unless_the_listener_keeps_it(agent, nginx):
    """Without keep_alive a client that asks to keep its connection still gets one answer and a
    close, with the answer as it always was."""
    nginx.put("a.ts", BODY)
    agent.start()
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        s.sendall(get_text(dl_path(nginx.url("a.ts"), "a.ts"), "Connection: keep-alive"))
        head = read_all(s)
    assert head == f"HTTP/1.1 200 OK\r\nServer: {AGENT_TAG}\r\n\r\n".encode(), head
    agent.wait_for_log(r"downloaded: ")
    assert (agent.data_dir / "a.ts").read_bytes() == BODY


def test_kept_connection_carries_requests_until_the_client_or_an_error_ends_it(agent, nginx):
    for n in "abcdefgh":
        nginx.put(f"{n}.ts", BODY + n.encode())
    # Room for one connection only: a kept connection must not count twice against the limit
    # while it passes from one request to the next.
    agent.vesk["web_input"][0].update(keep_alive=True, max_queued=1)
    agent.vesk["urq_tmout_sec"] = 1
    agent.with_admin().start()
    idle = agent.fds()
    url = lambda n: dl_path(nginx.url(f"{n}.ts"), f"{n}.ts")
    gone = lambda: Scrape(agent)("vsk_http_clients_gone_total")

    # Downloads and a ping on one connection, each answer showing its end; then the client closes.
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        for path in (url("a"), "/", "/", url("b")):
            s.sendall(get_text(path))
            head = answer_head(s)
            if path == "/":
                assert head.startswith(b"HTTP/1.1 204 No Content\r\n") and b"Content-Length" not in head, head
            else:
                assert head == f"HTTP/1.1 200 OK\r\nServer: {AGENT_TAG}\r\nContent-Length: 0\r\n\r\n".encode(), head
    agent.wait_for_log(r"client fd=\d+ closed connection")
    # A request that asks for the close gets it after its answer.
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        s.sendall(get_text(url("c"), "Connection: close"))
        assert status_of(read_all(s)) == "HTTP/1.1 200 OK"
    # An HTTP/1.0 client is kept only when it asks, and is told so.
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        s.sendall(get_text(url("d"), "Connection: keep-alive", version="1.0"))
        head = answer_head(s)
        assert head.endswith(b"\r\nContent-Length: 0\r\nConnection: keep-alive\r\n\r\n"), head
        s.sendall(get_text(url("e"), version="1.0"))
        assert status_of(read_all(s)) == "HTTP/1.1 200 OK"
    # Two requests in one write: the second would wait for an answer that never comes, so the
    # first one's answer ends the connection.
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        s.sendall(get_text(url("f")) + get_text(url("g")))
        assert status_of(read_all(s)) == "HTTP/1.1 200 OK"
    agent.wait_for_log(r"request has tail data, dismissing the tail")
    # A refused request ends the connection too.
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        s.sendall(get_text("/src/ftp://x/y.ts/dst/y.ts"))
        assert status_of(read_all(s)).startswith("HTTP/1.1 4")
    agent.wait_for_log(r"TASK-END ", count=6)
    for n in "abcdef":
        assert (agent.data_dir / f"{n}.ts").read_bytes() == BODY + n.encode(), n
    assert not (agent.data_dir / "g.ts").exists()
    # The client that closed between its requests is neither answered nor counted as one that
    # lost its answer; the refused request is the one 4xx.
    assert gone() == 0
    assert Scrape(agent)("vsk_http_answers_total", code="500") == 0

    # A kept connection left idle is closed after the request time-out, quietly.
    with socket.create_connection(("127.0.0.1", agent.port), timeout=8) as s:
        s.sendall(get_text(url("h")))
        assert status_of(answer_head(s)) == "HTTP/1.1 200 OK"
        t0 = time.monotonic()
        assert read_all(s) == b""
        assert 0.5 < time.monotonic() - t0 < 6
    agent.wait_for_log(r"idle kept-alive connection closed")
    assert "TIME-OUT" not in agent.log() and gone() == 0
    assert agent.wait_fds(idle) == idle

    # A client that reuses connections by itself (curl with several URLs) does so.
    r = subprocess.run(["curl", "-sv", "-o", "/dev/null", "-o", "/dev/null",
                        f"http://127.0.0.1:{agent.port}{url('g')}", f"http://127.0.0.1:{agent.port}/"],
                       capture_output=True, text=True, timeout=15)
    assert r.returncode == 0 and re.search(r"Re-?using existing", r.stderr, re.I), r.stderr
    agent.wait_for_log(r"downloaded: \d+ bytes, \[[^]]*g\.ts\]")
    assert (agent.data_dir / "g.ts").read_bytes() == BODY + b"g"


def test_kept_connection_idle_limit_of_its_own(agent, nginx):
    """keep_alive_idle_ms bounds the wait of a kept connection for its next request apart from the
    request time-out; a head once begun is held to the request time-out as always. The loop looks
    at its requests at least every 5 s while it has nothing else to do."""
    for n in "ab":
        nginx.put(f"{n}.ts", BODY)
    agent.vesk["web_input"][0].update(keep_alive=True, keep_alive_idle_ms=1000)
    agent.vesk.update(urq_tmout_sec=30, task_tmout_ms=200)
    agent.start()
    with socket.create_connection(("127.0.0.1", agent.port), timeout=10) as s:
        s.sendall(get_text(dl_path(nginx.url("a.ts"), "a.ts")))
        assert status_of(answer_head(s)) == "HTTP/1.1 200 OK"
        t0 = time.monotonic()
        assert read_all(s) == b""
        assert 0.8 < time.monotonic() - t0 < 7
    agent.wait_for_log(r"idle kept-alive connection closed")
    with socket.create_connection(("127.0.0.1", agent.port), timeout=10) as s:
        s.sendall(get_text(dl_path(nginx.url("b.ts"), "b.ts")))
        assert status_of(answer_head(s)) == "HTTP/1.1 200 OK"
        # Past the 32-byte low-water mark, without a line end: a head begun, not finished.
        s.sendall(b"GET /src/http://127.0.0.1:1/x.ts/dst/x.ts")
        agent.wait_for_log("need more data on URQ")
        s.settimeout(6)
        with pytest.raises(socket.timeout):
            s.recv(100)  # past the idle limit and a look of the loop: still waiting for the head
    assert "TIME-OUT" not in agent.log() and agent.log().count("idle kept-alive connection closed") == 1
    assert (agent.data_dir / "b.ts").read_bytes() == BODY


def test_full_listener_closes_idle_kept_connections_before_refusing(agent, nginx):
    """At its limit, a keep_alive listener with clients waiting to connect closes its idle kept
    connections instead of answering the newcomers 503; a connection in the middle of a head is
    not idle and stays, and without idle ones the newcomer is refused as before."""
    for n in "abcd":
        nginx.put(f"{n}.ts", BODY + n.encode())
    agent.vesk["web_input"][0].update(keep_alive=True, keep_alive_idle_ms=60000, max_queued=2)
    agent.vesk["urq_tmout_sec"] = 60
    agent.with_admin().start()
    url = lambda n: dl_path(nginx.url(f"{n}.ts"), f"{n}.ts")
    refused = lambda: Scrape(agent)("vsk_requests_refused_total", type="user", listener=f"lo:{agent.port}")
    kept = []
    for n in "ab":
        s = socket.create_connection(("127.0.0.1", agent.port), timeout=10)
        s.sendall(get_text(url(n)))
        assert status_of(answer_head(s)) == "HTTP/1.1 200 OK"
        kept.append(s)
    agent.wait_for_log(r"downloaded: .*b\.ts\]")
    # Both places are taken by idle kept connections: a newcomer gets them.
    assert status_of(request(agent.port, get_text(url("c"), "Connection: close"))) == "HTTP/1.1 200 OK"
    agent.wait_for_log(r"holds 2 requests: closing 2 idle kept-alive connections")
    for s in kept:
        assert read_all(s) == b""
        s.close()
    assert refused() == 0
    # A head begun on a kept connection is a request in progress, not an idle one.
    with socket.create_connection(("127.0.0.1", agent.port), timeout=10) as s1, \
            socket.create_connection(("127.0.0.1", agent.port), timeout=10) as s2:
        s1.sendall(get_text(url("d")))
        assert status_of(answer_head(s1)) == "HTTP/1.1 200 OK"
        s1.sendall(b"GET /src/http://127.0.0.1:1/x.ts/dst/x.ts")  # no line end yet
        s2.sendall(b"GET /src/http://127.0.0.1:1/y.ts/dst/y.ts")
        agent.wait_for_log("need more data on URQ", count=2)
        assert status_of(request(agent.port, get_text("/", "Connection: close"))) == \
            "HTTP/1.1 503 Service Unavailable"
        assert refused() == 1
    assert agent.log().count("idle kept-alive connections") == 1
    for n in "abcd":
        assert (agent.data_dir / f"{n}.ts").read_bytes() == BODY + n.encode(), n


# ---- Segment registry ---------------------------------------------------------------------------

def test_download_registers_segment_and_local_source_is_not_fetched(agent, redis, nginx, bad_source):
    # Nothing listens on the prefix's port, so a local URL that were fetched would fail.
    prefix = f"http://127.0.0.1:{free_port()}/seg"
    agent.with_registry(redis, prefix + "/").start()
    payload = os.urandom(70_000)
    nginx.put("live/c.ts", payload)
    expiry = int(time.time()) + 3600
    ask(agent, nginx.url("live/c.ts"), "live/c.ts", f"expiry={expiry}")
    agent.wait_for_log(r"downloaded: ")
    assert (agent.data_dir / "live/c.ts").read_bytes() == payload
    assert registered(redis, "live/c.ts") == {f"{prefix}/live/c.ts": str(expiry)}
    assert f"id=[live/c.ts], url=[{prefix}/live/c.ts], expiry={expiry}" in agent.log()

    # A source that is one of our own URLs (prefix in other letter case) is only registered.
    t0 = int(time.time())
    ask(agent, prefix.upper().replace("HTTP://", "http://") + "/live/d.ts", "live/d.ts", "expiry=600")
    members = registered(redis, "live/d.ts")
    assert list(members) == [f"{prefix}/live/d.ts"], members
    assert t0 + 600 <= int(members[f"{prefix}/live/d.ts"]) <= int(time.time()) + 601
    assert "is local URL, no download required" in agent.log()
    assert agent.log().count("TASK-START") == 1 and files_under(agent.data_dir) == ["live/c.ts"]

    # A past expiry is refused by the registry; the download itself stands.
    bad_source.route("/old.ts", body=b"o" * 300)
    ask(agent, bad_source.url("old.ts"), "live/old.ts")
    agent.wait_for_log(r"downloaded: ", count=2)
    agent.wait_for_log(r"add_lbdb_url: failed to add \[[^]]*live/old.ts\]")
    assert (agent.data_dir / "live/old.ts").read_bytes() == b"o" * 300 and zrange(redis, "live/old.ts") == {}


@pytest.mark.parametrize("fault, reason, status", [
    ("no-digest-file",
     "read_sha_signature: fopen({sha1}/add_url.sha1,...) ERROR(2): No such file or directory\n", 1),
    ("script-flushed", "lbdb_connect: failed for 127.0.0.1:{port}\n", 2),
    ("redis-down", "lbdb_connect: redisConnectWithTimeout ERROR(1): Connection refused\n", 1),
    # Accepts (the kernel does) and never answers: the start fails within the time-outs.
    ("redis-paused", "check_script_exists: no answer within 400 ms, ERROR(1): Resource temporarily "
                     "unavailable\n", 1),
])
def test_registry_fault_fails_the_start(agent, redis, fault, reason, status):
    port = free_port() if fault == "redis-down" else redis.port
    if fault == "no-digest-file":
        (redis.sha1_dir / "add_url.sha1").unlink()
    elif fault == "script-flushed":
        redis.cli("SCRIPT", "FLUSH")
    elif fault == "redis-paused":
        redis.proc.send_signal(signal.SIGSTOP)
    try:
        t0 = time.monotonic()
        agent.with_registry(redis, port=port, connect_tmout_ms=300, cmd_tmout_ms=400).start(wait_for=None)
        assert agent.wait_exit(timeout=10) == status
        assert time.monotonic() - t0 < 5
    finally:
        redis.proc.send_signal(signal.SIGCONT)
    log = agent.log()
    assert reason.format(sha1=redis.sha1_dir, port=port) in log, log[-3000:]
    if fault == "redis-paused":
        assert f"lbdb_connect: failed for 127.0.0.1:{port}\n" in log
    assert re.search(rf"init_vesk_ctx: failed to \[\?\], rc=-?{status}\n", log), log[-3000:]
    assert re.search(rf" EXIT\({status}\)\. PID={agent.proc.pid}\n$", log), log[-500:]
    assert "STARTING" not in log and "stop_listeners: 1 [user] listener(s) destroyed\n" in log


def rss_anon_kib(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("RssAnon:"):
            return int(line.split()[1])
    raise AssertionError("no RssAnon")


@pytest.mark.parametrize("mmap_mb", [8, 0], ids=["mapped", "written"])
def test_memory_stays_flat_and_no_finished_file_stays_mapped(agent, nginx, mmap_mb):
    """Batches of downloads leave the agent's anonymous memory where the first left it, and no
    destination file stays mapped once its download is over."""
    agent.vesk.update(max_mmap_mb=mmap_mb, splice_to_file=True, src_pool_max=8)
    agent.vesk["log"]["level"] = "norm"
    # Freed blocks go back to the allocator at once, as in a build without the sanitizer.
    agent.start(env={**os.environ, "ASAN_OPTIONS": "quarantine_size_mb=0:detect_leaks=1"})
    # One source file per order of a batch: an order for a URL already being fetched is refused.
    for i in range(120):
        nginx.put(f"live/m{i}.ts", os.urandom(100_000))
    rss = []
    for batch in range(8):
        for i in range(120):
            path = dl_path(nginx.url(f"live/m{i}.ts"), f"b{batch}/{i}.ts")
            assert status_of(raw_get(agent.port, path)) == "HTTP/1.1 200 OK"
        agent.wait_for_log(r"downloaded: ", count=120 * (batch + 1))
        maps = Path(f"/proc/{agent.proc.pid}/maps").read_text()
        assert str(agent.data_dir) not in maps, maps
        rss.append(rss_anon_kib(agent.proc.pid))
    # The first few batches warm the allocator's caches up (about 850 KiB here, level from the
    # fifth); the last 360 files may not add 240 KiB, so a leak of 1 KiB a file shows.
    assert rss[7] - rss[4] < 240, rss
    assert len(files_under(agent.data_dir)) == 960
    assert agent.stop() == 0


# ---- Requests refused before any download -------------------------------------------------------

def test_request_failure_table(agent, bad_source, tmp_path):
    agent.start()
    # A source that would be fetched gladly, so that a request let through leaves a file.
    bad_source.route("/x.ts", body=b"x" * 1000)
    src = bad_source.url("x.ts")
    outside, absolute = agent.dir / "escape.ts", tmp_path / "abs.ts"
    busy = agent.data_dir / "live/busy.ts-Vesk"
    busy.parent.mkdir()
    busy.write_bytes(b"partial")
    r = curl(agent.port, "/")
    assert (r.status, r.reason) == (204, "No Content") and f"Server: {AGENT_TAG}" in r.headers, r
    refused = [
        "/ping", "/PING/", "/favicon.ico", f"/live/a.ts/dst/a.ts?expiry={OLD_EXPIRY}",
        dl_path("ftp://127.0.0.1/x.ts", "a.ts"), dl_path("HTTP://127.0.0.1/x.ts", "a.ts"),
        dl_path(src.replace("http:", "https:"), "a.ts"),  # no TLS
        dl_path(src, "../escape.ts"), dl_path(src, "live/../../escape.ts"),
        dl_path(src, "%2E%2E/escape.ts"), dl_path(src, "live/%2E%2E/%2E%2E/escape.ts"),
        dl_path(src, "%2F" + str(absolute).lstrip("/")),
        # A finished file under the unfinished suffix would be removed as unfinished.
        dl_path(src, "live/v.ts-Vesk"),
        # Someone else's unfinished file of that name, fresh: not ours to replace.
        dl_path(src, "live/busy.ts"),
        # A query over 255 bytes; and one of 255 that no longer fits behind the source.
        dl_path(src, "q256.ts", "expiry=1&pad=" + "p" * 243),
        dl_path(src, "q255.ts", "expiry=1&pad=" + "p" * 242),
    ]
    for path in refused:
        r = curl(agent.port, path)
        assert (r.status, r.reason) == (400, "Bad request") and f"Server: {AGENT_TAG}" in r.headers, (path, r)
        assert "Content-Length: 0" in r.headers and not any(h.startswith("Connection:") for h in r.headers), r
    log = agent.log()
    assert log.count("PONG!") == 1 and f"[{busy}] already exists" in log
    assert "URI query length (256 bytes) is beyond the limit: 256\n" in log
    assert "URI query is too long (255 bytes)" in log
    assert not outside.exists() and not absolute.exists() and busy.read_bytes() == b"partial"
    assert files_under(agent.data_dir) == ["live/busy.ts-Vesk"]
    # HEAD is understood and silently dropped: the connection closes without a byte.
    assert request(agent.port, f"HEAD {dl_path(src, 'h.ts')} HTTP/1.1\r\nHost: x\r\n\r\n".encode()) == b""
    agent.wait_for_log("nothing to do for HEAD request")
    assert bad_source.requests == []


# ---- Sources that misbehave ---------------------------------------------------------------------

# The whole head, a pause, then the body: the client's answer does not race the failure.
WHOLE_HEAD = dict(body=BODY * 20, body_cut=5000, head_pause=0.3,
                  head_split=len(Route(body=BODY * 20).head()))
SOURCE_CASES = {
    # name: (route or None for a port nobody listens on, client status, reason, file kept, log text)
    "status_404": (dict(status="404 Not Found", content_length=0), 404, "Not Found", False,
                   "expected HTTP 2xx, got HTTP 404"),
    "status_301": (dict(status="301 Moved Permanently", headers=[("Location", "/y.ts")],
                        content_length=0), 500, "Service error", False,
                   "expected HTTP 2xx, got HTTP 301"),
    "status_503": (dict(status="503 Service Unavailable", content_length=0), 503,
                   "Service Unavailable", False, "expected HTTP 2xx, got HTTP 503"),
    "status_206": (dict(status="206 Partial Content", body=BODY,
                        headers=[("Content-Range", f"bytes 0-{len(BODY) - 1}/{len(BODY)}")]), 200, "OK", True,
                   "received: HTTP/1.1 206 Partial"),
    "no_length": (dict(body=BODY, content_length=None), 500, "Service error", False,
                  "invalid/missing content length: -1"),
    "zero_length": (dict(body=b"", content_length=0), 500, "Service error", False,
                    "invalid/missing content length: 0"),
    # The second half of a split head is parsed as a head of its own and fails.
    "split_head": (dict(body=BODY, head_pause=0.5), 500, "Service error", False,
                   "expecting more data from fd"),
    "no_reason": (dict(raw=b"HTTP/1.1 200\r\n\r\n"), 500, "Service error", False,
                  "parsed 3 < 4 elements (expected to be parsed)"),
    # Screened out as an error event before any head was read: the client still gets its answer.
    "resets_before_head": (dict(raw=b"", body_cut=0, after_cut="reset"), 500, "Service error",
                           False, "ends before its client fd"),
    "closes_mid_body": (WHOLE_HEAD, 200, "OK", False, "removing unfinished [{dst}-Vesk]"),
    "resets_mid_body": (dict(WHOLE_HEAD, after_cut="reset"), 200, "OK", False,
                        "removing unfinished [{dst}-Vesk]"),
    # The connect is non-blocking, so the refusal shows when the GET is sent: that failure is
    # answered 400, not the 500 of a task that could not be started at all.
    "connect_refused": (None, 400, "Bad request", False, "error sending HTTP request to fd="),
    # A redirect is not followed: no source is asked twice.
    "redirect_302": (dict(status="302 Found", headers=[("Location", "/s.ts")], content_length=0),
                     302, "Moved Temporarily", False, "expected HTTP 2xx, got HTTP 302"),
}


@pytest.mark.parametrize("case", [*SOURCE_CASES, "closes_mid_body+splice", "resets_mid_body+splice",
                                  "closes_mid_body+worker", "resets_mid_body+worker"])
def test_source_failure_table(agent, bad_source, case):
    case, _, variant = case.partition("+")
    route, status, reason, kept, log_text = SOURCE_CASES[case]
    if variant:  # the body through the pipe instead of the map
        agent.vesk.update(max_mmap_mb=0, splice_to_file=True)
    start_with_worker(agent) if variant == "worker" else agent.start()
    fds = agent.fds()
    if route is not None:
        bad_source.route("/s.ts", **route)
    ask(agent, bad_source.url("s.ts") if route else f"http://127.0.0.1:{free_port()}/s.ts", "live/s.ts",
        expect=(status, reason))
    agent.wait_for_log(r"TASK-END ")
    if kept:
        assert (agent.data_dir / "live/s.ts").read_bytes() == BODY
    assert files_under(agent.data_dir) == (["live/s.ts"] if kept else [])
    assert ("downloaded:" in agent.log()) == kept
    assert log_text.format(dst=agent.data_dir / "live/s.ts") in agent.log()
    assert agent.wait_fds(fds) == fds
    assert len(bad_source.requests) == (1 if route else 0), bad_source.requests


def test_destinations(agent, bad_source):
    """An existing file is forbidden and kept; an empty destination takes the source's path, under
    a data directory given with a trailing slash without a doubled "/"."""
    agent.vesk["data_dir"] = str(agent.data_dir) + "/"
    agent.start()
    bad_source.route("/e.ts", body=b"new" * 100)
    existing = agent.data_dir / "live/e.ts"
    existing.parent.mkdir()
    existing.write_bytes(b"old contents")
    r = ask(agent, bad_source.url("e.ts"), "live/e.ts", expect=(403, "Forbidden"))
    assert "Connection: close" in r.headers
    agent.wait_for_log(r"TASK-END ")
    assert f"destination [{existing}] is BUSY (already there)" in agent.log()
    assert existing.read_bytes() == b"old contents" and files_under(agent.data_dir) == ["live/e.ts"]

    bad_source.route("/live/deep/b.ts", body=b"b" * 5000)
    ask(agent, bad_source.url("live/deep/b.ts"), "")
    agent.wait_for_log(r"downloaded: ")
    assert (agent.data_dir / "live/deep/b.ts").read_bytes() == b"b" * 5000
    assert files_under(agent.data_dir) == ["live/deep/b.ts", "live/e.ts"]
    assert f"to [{agent.data_dir}/live/deep/b.ts]" in agent.log() and "//live" not in agent.log()


def test_source_receives_the_exact_get(agent, bad_source):
    """Only the source's own path goes out: the request's query, expiry included, is the agent's;
    a source on an IPv6 literal gets the literal in brackets as its Host."""
    agent.start()
    v6 = BadSource("::1")
    try:
        v6.route("/v6.ts", body=b"6" * 500)
        ask(agent, v6.url("v6.ts"), "v6.ts")
        agent.wait_for_log(r"downloaded: ")
    finally:
        v6.stop()
    assert v6.requests[0].startswith(f"GET /v6.ts HTTP/1.1\r\nHost: [::1]:{v6.port}\r\n".encode())
    assert (agent.data_dir / "v6.ts").read_bytes() == b"6" * 500
    bad_source.route("/rec/r.ts", body=b"r" * 64)
    ask(agent, bad_source.url("rec/r.ts"), "r.ts", f"a=1&expiry={OLD_EXPIRY}")
    agent.wait_for_log(r"downloaded: ", count=2)
    assert bad_source.requests == [(
        "GET /rec/r.ts HTTP/1.1\r\n"
        f"Host: 127.0.0.1:{bad_source.port}\r\n"
        "Connection: close\r\n"
        f"User-Agent: {AGENT_TAG}\r\n"
        "Accept: text/html,video/*, application/*\r\n"
        "Accept-Language: en-US,en,ru\r\n"
        "Accept-Charset: ISO-8859-1,UTF-8\r\n"
        "Cache-Control: no-cache\r\n\r\n").encode()]
    assert (agent.data_dir / "r.ts").read_bytes() == b"r" * 64


# ---- Concurrency and capacity -------------------------------------------------------------------

@pytest.mark.parametrize("second, max_tasks, text", [
    ("dup.ts", None, "task already present"),  # the same source under another destination
    ("other.ts", 1, "limit on tasks exceeded [1]"),
])
def test_second_download_refused_while_the_first_runs(agent, bad_source, second, max_tasks, text):
    if max_tasks:
        agent.vesk["max_tasks"] = max_tasks
    agent.start()
    bad_source.route("/dup.ts", body=BODY, body_cut=100, after_cut="stall", stall_timeout=2)
    bad_source.route("/other.ts", body=BODY)
    ask(agent, bad_source.url("dup.ts"), "live/1.ts")
    ask(agent, bad_source.url(second), "live/2.ts", expect=(500, "Service error"))
    assert text in agent.log() and len(bad_source.requests) == 1
    agent.wait_for_log(r"TASK-END ", timeout=10)
    assert f"removing unfinished [{agent.data_dir}/live/1.ts-Vesk]" in agent.log()
    # With the first task gone the same request goes through.
    bad_source.route("/dup.ts", body=BODY)
    ask(agent, bad_source.url(second), "live/2.ts")
    agent.wait_for_log(r"downloaded: ")
    assert files_under(agent.data_dir) == ["live/2.ts"]


@pytest.mark.parametrize("worker, through", [(False, 0), (True, 0), (True, 1)],
                         ids=["loop", "worker", "worker-through"])
def test_thousand_concurrent_downloads(agent, nginx, worker, through):
    """With the worker, the reservations of many files overlap; with write_through_backlog, the
    files that arrive whole while the worker is behind are written at once instead."""
    payloads = {f"b{i:04d}.ts": os.urandom(2000 + i * 7) for i in range(1000)}
    for name, data in payloads.items():
        nginx.put(f"burst/{name}", data)
    # Started with a low limit of open files, the agent raises it for its tasks.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(1024, hard), hard))
    if worker:
        agent.vesk.update(max_mmap_mb=0, splice_to_file=True, write_through_backlog=through)
    if through:
        agent.vesk["log"]["level"] = "debug"  # a file written through says so
    try:
        start_with_worker(agent) if worker else agent.start()
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    pid = agent.proc.pid
    m = re.search(r"open files limit raised from 1024 to (\d+) \(hard limit (\d+)\)", agent.log())
    assert m, agent.log()[-3000:]
    limits = re.search(r"^Max open files\s+(\d+)\s+(\d+)", Path(f"/proc/{pid}/limits").read_text(), re.M)
    assert limits.groups() == m.groups()
    fds = agent.fds()
    status = burst(agent, {n: (nginx.url(f"burst/{n}"), f"burst/{n}") for n in payloads})
    assert status == dict.fromkeys(payloads, b"HTTP/1.1 200 OK"), \
        {n: st for n, st in status.items() if st != b"HTTP/1.1 200 OK"}
    agent.wait_for_log(r"TASK-END ", count=len(payloads), timeout=60)
    for name, data in payloads.items():
        assert digest((agent.data_dir / "burst" / name).read_bytes()) == digest(data), name
    assert files_under(agent.data_dir) == sorted(f"burst/{n}" for n in payloads)
    assert agent.wait_fds(fds, timeout=10) == fds
    if through:
        assert "written through, the workers being behind" in agent.log()
