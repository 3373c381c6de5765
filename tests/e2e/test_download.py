"""Downloads over HTTP as a client sees them: the answer to the GET, the file that appears in the
data directory, the registry entry, and what is left behind (no unfinished file, no descriptor)
when a request or its source goes wrong.
"""
import hashlib
import os
import re
import resource
import selectors
import socket
import subprocess
import time
from pathlib import Path

import pytest

from conftest import free_port

AGENT_TAG = "vsk/0.2-0.7 (torbella)"
OLD_EXPIRY = 1700000001  # long past: fine for a download, refused by the registry script


class Answer:
    """What curl got: the status line split up, the head lines and the body."""

    def __init__(self, proc):
        self.rc = proc.returncode
        self.stderr = proc.stderr.decode(errors="replace")
        head, _, self.body = proc.stdout.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        self.status_line = lines[0] if head else ""
        m = re.match(r"HTTP/1\.1 (\d{3}) (.*)$", self.status_line)
        self.status = int(m.group(1)) if m else None
        self.reason = m.group(2) if m else None
        self.headers = lines[1:]

    def __repr__(self):
        return f"Answer(rc={self.rc}, {self.status_line!r}, headers={self.headers}, err={self.stderr!r})"


def curl(port, path, *opts, max_time=10):
    """One request to the agent with curl; the path is sent as written (no dot-segment folding)."""
    proc = subprocess.run(["curl", "-sS", "-i", "--path-as-is", "--max-time", str(max_time), *opts,
                           f"http://127.0.0.1:{port}{path}"],
                          capture_output=True, timeout=max_time + 5, stdin=subprocess.DEVNULL)
    return Answer(proc)


def dl_path(src, dst, query=f"expiry={OLD_EXPIRY}"):
    """The request path that asks for `src` to be stored as `dst`."""
    return f"/src/{src}/dst/{dst}" + (f"?{query}" if query else "")


def files_under(root: Path):
    """Every regular file below `root`, as paths relative to it."""
    return sorted(str(p.relative_to(root)) for p in root.rglob("*") if p.is_file())


def digest(data: bytes):
    return hashlib.sha256(data).hexdigest()


def fd_count(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def wait_fds(pid, expected, timeout=5):
    """Waits for the process's descriptor count to come back to `expected`; returns the last count."""
    deadline = time.monotonic() + timeout
    n = fd_count(pid)
    while n != expected and time.monotonic() < deadline:
        time.sleep(0.05)
        n = fd_count(pid)
    return n


def raw_request(port, text: bytes, timeout=5):
    """Sends `text` as is and returns everything received until the agent closed."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as s:
        s.sendall(text)
        data = b""
        while True:
            try:
                chunk = s.recv(65536)
            except ConnectionResetError:
                return data
            if not chunk:
                return data
            data += chunk


# ---- Successful downloads -----------------------------------------------------------------------

MiB = 1048576


@pytest.mark.parametrize("mmap_mb, small_len, big_len", [
    (1, 200_000, 3 * MiB + 12345),
    (None, 8 * MiB, 8 * MiB + 1),  # the default limit: exactly 8 MiB is still mapped
], ids=["mmap-1", "default-edge"])
def test_download_is_answered_and_stored_byte_for_byte(agent, nginx, mmap_mb, small_len, big_len):
    """A file up to max_mmap_mb goes through the memory map, a larger one through plain writes."""
    if mmap_mb is not None:
        agent.vesk["max_mmap_mb"] = mmap_mb
    agent.start()
    small = os.urandom(small_len)
    big = os.urandom(big_len)
    nginx.put("live/a.ts", small)
    nginx.put("live/big.ts", big)

    r = curl(agent.port, dl_path(nginx.url("live/a.ts"), "live/a.ts"))
    assert r.status_line == "HTTP/1.1 200 OK", r
    assert f"Server: {AGENT_TAG}" in r.headers, r
    r = curl(agent.port, dl_path(nginx.url("live/big.ts"), "live/big.ts"))
    assert r.status_line == "HTTP/1.1 200 OK", r

    agent.wait_for_log(r"downloaded: ", count=2)
    agent.wait_for_log(r"TASK-END ", count=2)
    final_a = agent.data_dir / "live/a.ts"
    final_big = agent.data_dir / "live/big.ts"
    log = agent.log()
    for data, name, final in ((small, "a.ts", final_a), (big, "big.ts", final_big)):
        src = re.escape(nginx.url(f"live/{name}"))
        assert f"downloaded: {len(data)} bytes, [{nginx.url(f'live/{name}')}] to [{final}]" in log
        assert re.search(rf"TASK-START \[T\w+\] .*\[{src}\]->\[{re.escape(str(final))}-Vesk\]", log), name
        # The task ends with its file under the final name: nothing to remove.
        assert re.search(rf"TASK-END \[T\w+\] .*\[{src}\]->\[{re.escape(str(final))}\] ", log), name
        assert digest(final.read_bytes()) == digest(data), name
    assert files_under(agent.data_dir) == ["live/a.ts", "live/big.ts"]
    assert "removing unfinished" not in log
    assert f"created mmap for [{final_a}-Vesk]" in log
    assert f"created file for [{final_big}-Vesk]" in log
    # The expiry is ours: it never reaches the source. nginx logs once it has sent everything.
    deadline = time.monotonic() + 5
    while nginx.access_log().count("GET /live/") < 2 and time.monotonic() < deadline:
        time.sleep(0.05)
    assert "GET /live/a.ts HTTP/1.1" in nginx.access_log()
    assert "expiry" not in nginx.access_log()


def test_request_head_in_pieces_with_a_body(agent, bad_source):
    """The head is answered only once complete; what follows it is dropped."""
    agent.start()
    bad_source.route("/p.ts", body=b"p" * 500)
    line = f"GET {dl_path(bad_source.url('p.ts'), 'p.ts')} HTTP/1.1\r\n".encode()
    with socket.create_connection(("127.0.0.1", agent.port), timeout=5) as s:
        s.sendall(line)
        agent.wait_for_log("need more data on URQ")
        assert bad_source.requests == []
        s.sendall(b"Host: x\r\nContent-Length: 9\r\n\r\nleftovers")
        data = b""
        while chunk := s.recv(4096):
            data += chunk
    assert data.startswith(b"HTTP/1.1 200 OK\r\n"), data
    agent.wait_for_log(r"downloaded: ")
    assert "request has tail data, dismissing the tail" in agent.log()
    assert (agent.data_dir / "p.ts").read_bytes() == b"p" * 500


def test_request_head_never_completed_is_closed_unanswered(agent, bad_source):
    agent.vesk.update(urq_tmout_sec=1, task_tmout_ms=200)
    agent.start()
    fds = fd_count(agent.proc.pid)
    bad_source.route("/t.ts", body=b"t" * 100)
    # Above the 32-byte low-water mark, but no line end: the head never completes.
    start = f"GET /src/{bad_source.url('t.ts')}/dst/t.ts".encode()
    assert len(start) >= 32
    with socket.create_connection(("127.0.0.1", agent.port), timeout=0.5) as s:
        s.sendall(start)
        agent.wait_for_log("need more data on URQ")
        with pytest.raises(socket.timeout):
            s.recv(4096)  # still open while the time-out runs
        # No other traffic: the loop must wake by itself to time the request out.
        s.settimeout(10)
        data = b""
        try:
            while chunk := s.recv(4096):
                data += chunk
        except ConnectionResetError:
            pass
    assert data == b""
    assert re.search(r"urq_timeout: TIME-OUT URQ \[u\w+\]", agent.log())
    assert bad_source.requests == []
    assert files_under(agent.data_dir) == []
    assert wait_fds(agent.proc.pid, fds) == fds


def test_empty_destination_takes_the_source_path_and_trailing_slash_data_dir(agent, nginx):
    agent.vesk["data_dir"] = str(agent.data_dir) + "/"
    agent.start()
    payload = os.urandom(5000)
    nginx.put("live/deep/b.ts", payload)

    r = curl(agent.port, dl_path(nginx.url("live/deep/b.ts"), ""))
    assert r.status == 200, r
    agent.wait_for_log(r"downloaded: ")
    final = agent.data_dir / "live/deep/b.ts"
    assert final.read_bytes() == payload
    assert files_under(agent.data_dir) == ["live/deep/b.ts"]
    # No doubled "/" where the configured directory already ends with one.
    assert f"to [{agent.data_dir}/live/deep/b.ts]" in agent.log()
    assert "//live" not in agent.log()


# ---- Segment registry ---------------------------------------------------------------------------

def lbdb_agent(agent, redis, prefix):
    agent.vesk["lbdb"] = {"host": "127.0.0.1", "port": redis.port, "sha1_dir": str(redis.sha1_dir)}
    agent.vesk["local_url_prefix"] = prefix
    return agent.start()


def zrange(redis, key):
    """The registry's members of one segment as {url: score}."""
    out = redis.cli("ZRANGE", key, 0, -1, "WITHSCORES").split()
    return dict(zip(out[0::2], out[1::2]))


def test_download_registers_segment_and_local_source_is_not_fetched(agent, redis, nginx, bad_source):
    # Nothing listens on the prefix's port, so a local URL that were fetched would fail.
    prefix = f"http://127.0.0.1:{free_port()}/seg"
    lbdb_agent(agent, redis, prefix + "/")
    payload = os.urandom(70_000)
    nginx.put("live/c.ts", payload)
    expiry = int(time.time()) + 3600

    r = curl(agent.port, dl_path(nginx.url("live/c.ts"), "live/c.ts", f"expiry={expiry}"))
    assert r.status == 200, r
    agent.wait_for_log(r"downloaded: ")
    assert (agent.data_dir / "live/c.ts").read_bytes() == payload
    assert zrange(redis, "live/c.ts") == {f"{prefix}/live/c.ts": str(expiry)}
    assert f"id=[live/c.ts], url=[{prefix}/live/c.ts], expiry={expiry}" in agent.log()

    # A source that is one of our own URLs (prefix in other letter case) is only registered.
    t0 = int(time.time())
    local_src = prefix.upper().replace("HTTP://", "http://") + "/live/d.ts"
    r = curl(agent.port, dl_path(local_src, "live/d.ts", "expiry=600"))
    t1 = int(time.time())
    assert r.status_line == "HTTP/1.1 200 OK", r
    members = zrange(redis, "live/d.ts")
    assert list(members) == [f"{prefix}/live/d.ts"], members
    assert t0 + 600 <= int(members[f"{prefix}/live/d.ts"]) <= t1 + 601
    assert "is local URL, no download required" in agent.log()
    assert agent.log().count("TASK-START") == 1
    assert files_under(agent.data_dir) == ["live/c.ts"]

    # A past expiry is refused by the registry; the download itself stands.
    bad_source.route("/old.ts", body=b"o" * 300)
    r = curl(agent.port, dl_path(bad_source.url("old.ts"), "live/old.ts"))
    assert r.status == 200, r
    agent.wait_for_log(r"downloaded: ", count=2)
    assert re.search(r"add_lbdb_url: failed to add \[[^]]*live/old.ts\]", agent.log())
    assert (agent.data_dir / "live/old.ts").read_bytes() == b"o" * 300
    assert zrange(redis, "live/old.ts") == {}


@pytest.mark.parametrize("fault", ["no-digest-file", "script-flushed", "redis-down"])
def test_registry_fault_fails_the_start(agent, redis, fault):
    port = redis.port
    if fault == "no-digest-file":
        (redis.sha1_dir / "add_url.sha1").unlink()
    elif fault == "script-flushed":
        redis.cli("SCRIPT", "FLUSH")
        sha1 = (redis.sha1_dir / "add_url.sha1").read_text().strip()
        assert redis.cli("SCRIPT", "EXISTS", sha1).split() == ["0"]
    else:
        port = free_port()
    agent.vesk["lbdb"] = {"host": "127.0.0.1", "port": port, "sha1_dir": str(redis.sha1_dir)}
    agent.vesk["local_url_prefix"] = "http://127.0.0.1:1/seg/"
    agent.start(wait_for=None)
    rc = agent.wait_exit()
    log = agent.log()
    reason, status = {
        "no-digest-file": (f"read_sha_signature: fopen({redis.sha1_dir}/add_url.sha1,...) ERROR(2): "
                           "No such file or directory\n", 1),
        "script-flushed": (f"lbdb_connect: failed for 127.0.0.1:{port}\n", 2),
        "redis-down": ("lbdb_connect: redisConnectWithTimeout ERROR(1): Connection refused\n", 1),
    }[fault]
    assert reason in log, log[-3000:]
    assert re.search(rf"init_vesk_ctx: failed to \[\?\], rc=-?{status}\n", log), log[-3000:]
    assert rc == status
    assert re.search(rf" EXIT\({status}\)\. PID={agent.proc.pid}\n$", log), log[-500:]
    assert "STARTING" not in log
    assert "stop_listeners: 1 [user] listener(s) destroyed\n" in log
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", agent.port), timeout=2).close()


# ---- Requests refused before any download -------------------------------------------------------

def test_request_failure_table(agent, bad_source, tmp_path):
    agent.start()
    # A source that would be fetched gladly, so that a request let through leaves a file.
    bad_source.route("/x.ts", body=b"x" * 1000)
    src = bad_source.url("x.ts")
    outside = agent.dir / "escape.ts"
    absolute = tmp_path / "abs.ts"
    busy = agent.data_dir / "live/busy.ts-Vesk"
    busy.parent.mkdir()
    busy.write_bytes(b"partial")
    cases = [
        ("/", 204, "No Content"),
        ("/ping", 400, "Bad request"),
        ("/PING/", 400, "Bad request"),
        ("/favicon.ico", 400, "Bad request"),
        (f"/live/a.ts/dst/a.ts?expiry={OLD_EXPIRY}", 400, "Bad request"),
        (dl_path("ftp://127.0.0.1/x.ts", "a.ts"), 400, "Bad request"),
        (dl_path("HTTP://127.0.0.1/x.ts", "a.ts"), 400, "Bad request"),
        (dl_path(src, "../escape.ts"), 400, "Bad request"),
        (dl_path(src, "live/../../escape.ts"), 400, "Bad request"),
        (dl_path(src, "%2E%2E/escape.ts"), 400, "Bad request"),
        (dl_path(src, "live/%2E%2E/%2E%2E/escape.ts"), 400, "Bad request"),
        # A finished file under the unfinished suffix would be removed as unfinished.
        (dl_path(src, "live/v.ts-Vesk"), 400, "Bad request"),
        # Someone else's unfinished file of that name, fresh: not ours to replace.
        (dl_path(src, "live/busy.ts"), 400, "Bad request"),
        (dl_path(src, "%2F" + str(absolute).lstrip("/")), 400, "Bad request"),
        # A query over 255 bytes; and one of 255 that no longer fits behind the source.
        (dl_path(src, "q256.ts", "expiry=1&pad=" + "p" * 243), 400, "Bad request"),
        (dl_path(src, "q255.ts", "expiry=1&pad=" + "p" * 242), 400, "Bad request"),
    ]
    for path, status, reason in cases:
        r = curl(agent.port, path)
        assert (r.status, r.reason) == (status, reason), (path, r)
        assert f"Server: {AGENT_TAG}" in r.headers, (path, r)
        if status == 400:
            assert "Content-Length: 0" in r.headers and not any(
                h.startswith("Connection:") for h in r.headers), (path, r)
    assert agent.log().count("PONG!") == 1
    assert not outside.exists() and not absolute.exists()
    assert f"[{busy}] already exists" in agent.log()
    assert "URI query length (256 bytes) is beyond the limit: 256\n" in agent.log()
    assert "URI query is too long (255 bytes)" in agent.log()
    assert busy.read_bytes() == b"partial"
    assert files_under(agent.data_dir) == ["live/busy.ts-Vesk"]
    assert bad_source.requests == []

    # HEAD is understood and silently dropped: the connection closes without a byte.
    assert raw_request(agent.port, f"HEAD {dl_path(src, 'h.ts')} HTTP/1.1\r\nHost: x\r\n\r\n".encode()) == b""
    agent.wait_for_log("nothing to do for HEAD request")
    assert bad_source.requests == []


# ---- Sources that misbehave ---------------------------------------------------------------------

BODY = bytes(range(256)) * 40  # 10240 bytes

SOURCE_CASES = {
    # name: (route, client status or None for no answer, reason, file kept, log text)
    "status_404": (dict(status="404 Not Found", content_length=0), 404, "Not Found", False,
                   "expected HTTP 2xx, got HTTP 404"),
    "status_301": (dict(status="301 Moved Permanently", headers=[("Location", "/y.ts")],
                        content_length=0), 500, "Service error", False,
                   "expected HTTP 2xx, got HTTP 301"),
    "status_503": (dict(status="503 Service Unavailable", content_length=0), 503,
                   "Service Unavailable", False, "expected HTTP 2xx, got HTTP 503"),
    "status_206": (dict(status="206 Partial Content", body=BODY), 200, "OK", True,
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
    "closes_mid_body": (dict(body=BODY * 20, body_cut=5000, after_cut="close", whole_head_first=True),
                        200, "OK", False, "removing unfinished ["),
    "resets_mid_body": (dict(body=BODY * 20, body_cut=5000, after_cut="reset", whole_head_first=True),
                        200, "OK", False, "removing unfinished ["),
}


@pytest.mark.parametrize("case", SOURCE_CASES)
def test_source_failure_table(agent, bad_source, case):
    route, status, reason, kept, log_text = SOURCE_CASES[case]
    route = dict(route)
    whole_head_first = route.pop("whole_head_first", False)
    agent.start()
    fds = fd_count(agent.proc.pid)
    scripted = bad_source.route("/s.ts", **route)
    if whole_head_first:
        # The whole head, a pause, then the body: the client's answer does not race the failure.
        scripted.head_pause, scripted.head_split = 0.3, len(scripted.head())

    r = curl(agent.port, dl_path(bad_source.url("s.ts"), "live/s.ts"))
    assert (r.status, r.reason) == (status, reason), r
    agent.wait_for_log(r"TASK-END ")
    if kept:
        agent.wait_for_log(r"downloaded: ")
        assert (agent.data_dir / "live/s.ts").read_bytes() == BODY
        assert files_under(agent.data_dir) == ["live/s.ts"]
    else:
        assert "downloaded:" not in agent.log()
        assert files_under(agent.data_dir) == []
    assert log_text in agent.log()
    assert wait_fds(agent.proc.pid, fds) == fds


def test_mid_body_close_removes_the_unfinished_file(agent, bad_source):
    agent.start()
    bad_source.route("/cut.ts", body=BODY * 20, body_cut=3000, after_cut="stall", stall_timeout=1.5)
    r = curl(agent.port, dl_path(bad_source.url("cut.ts"), "live/cut.ts"))
    assert r.status == 200, r
    # While the source holds the connection the unfinished file is there, sized in advance.
    unfinished = agent.data_dir / "live/cut.ts-Vesk"
    assert unfinished.stat().st_size == len(BODY) * 20
    agent.wait_for_log(r"TASK-END ", timeout=10)
    assert f"removing unfinished [{unfinished}]" in agent.log()
    assert files_under(agent.data_dir) == []


def test_source_connect_refused(agent):
    agent.start()
    fds = fd_count(agent.proc.pid)
    dead = f"http://127.0.0.1:{free_port()}/gone.ts"
    r = curl(agent.port, dl_path(dead, "live/gone.ts"))
    # The connect is non-blocking, so the refusal shows when the GET is sent: that failure is
    # answered 400, not the 500 of a task that could not be started at all.
    assert (r.status, r.reason) == (400, "Bad request"), r
    assert "error sending HTTP request to fd=" in agent.log()
    agent.wait_for_log(r"TASK-END ")
    assert files_under(agent.data_dir) == []
    assert wait_fds(agent.proc.pid, fds) == fds


def test_existing_destination_is_forbidden_and_kept(agent, bad_source):
    agent.start()
    bad_source.route("/e.ts", body=b"new" * 100)
    existing = agent.data_dir / "live/e.ts"
    existing.parent.mkdir(parents=True)
    existing.write_bytes(b"old contents")

    r = curl(agent.port, dl_path(bad_source.url("e.ts"), "live/e.ts"))
    assert (r.status, r.reason) == (403, "Forbidden"), r
    assert "Connection: close" in r.headers
    agent.wait_for_log(r"TASK-END ")
    assert f"destination [{existing}] is BUSY (already there)" in agent.log()
    assert existing.read_bytes() == b"old contents"
    assert files_under(agent.data_dir) == ["live/e.ts"]


def test_source_receives_the_exact_get(agent, bad_source):
    agent.start()
    bad_source.route("/rec/r.ts", body=b"r" * 64)
    r = curl(agent.port, dl_path(bad_source.url("rec/r.ts"), "r.ts", f"a=1&expiry={OLD_EXPIRY}"))
    assert r.status == 200, r
    agent.wait_for_log(r"downloaded: ")
    reqs = bad_source.wait_requests(1)
    assert reqs == [(
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

def test_duplicate_url_while_downloading_is_refused(agent, bad_source):
    agent.start()
    bad_source.route("/dup.ts", body=BODY, body_cut=100, after_cut="stall", stall_timeout=2)
    src = bad_source.url("dup.ts")
    r = curl(agent.port, dl_path(src, "live/dup1.ts"))
    assert r.status == 200, r
    # The same source under another destination is the same download.
    r = curl(agent.port, dl_path(src, "live/dup2.ts"))
    assert (r.status, r.reason) == (500, "Service error"), r
    assert "task already present" in agent.log()
    assert len(bad_source.requests) == 1
    agent.wait_for_log(r"TASK-END ", timeout=10)
    assert files_under(agent.data_dir) == []


def test_task_limit_refuses_a_second_download(agent, bad_source):
    agent.vesk["max_tasks"] = 1
    agent.start()
    assert re.search(r"open files limit \d+", agent.log()), agent.log()[-3000:]
    bad_source.route("/slow.ts", body=BODY, body_cut=10, after_cut="stall", stall_timeout=2)
    bad_source.route("/other.ts", body=b"z" * 10)
    r = curl(agent.port, dl_path(bad_source.url("slow.ts"), "slow.ts"))
    assert r.status == 200, r
    r = curl(agent.port, dl_path(bad_source.url("other.ts"), "other.ts"))
    assert (r.status, r.reason) == (500, "Service error"), r
    assert "limit on tasks exceeded [1]" in agent.log()
    agent.wait_for_log(r"TASK-END ", timeout=10)
    # With the slot free again the same request goes through.
    r = curl(agent.port, dl_path(bad_source.url("other.ts"), "other.ts"))
    assert r.status == 200, r
    agent.wait_for_log(r"downloaded: ")
    assert files_under(agent.data_dir) == ["other.ts"]


def get_all(port, paths, timeout=120):
    """Sends one GET per path, all at once over non-blocking sockets, and returns {path: bytes
    received until the agent closed} (an OSError where the exchange failed)."""
    sel = selectors.DefaultSelector()
    answers = {}
    try:
        for path in paths:
            s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            s.setblocking(False)
            s.connect_ex(("127.0.0.1", port))
            sel.register(s, selectors.EVENT_WRITE,
                         [path, f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n".encode(), b""])
        deadline = time.monotonic() + timeout
        while sel.get_map() and time.monotonic() < deadline:
            for key, events in sel.select(timeout=1):
                s, st = key.fileobj, key.data
                try:
                    if events & selectors.EVENT_WRITE:
                        st[1] = st[1][s.send(st[1]):]
                        if not st[1]:
                            sel.modify(s, selectors.EVENT_READ, st)
                        continue
                    chunk = s.recv(65536)
                except (BlockingIOError, InterruptedError):
                    continue
                except OSError as e:
                    answers[st[0]], chunk = e, None
                if chunk:
                    st[2] += chunk
                    continue
                answers.setdefault(st[0], st[2])
                sel.unregister(s)
                s.close()
    finally:
        for key in list(sel.get_map().values()):
            key.fileobj.close()
        sel.close()
    return answers


@pytest.mark.parametrize("count", [50, 1000])
def test_burst_of_concurrent_downloads(agent, nginx, count):
    payloads = {f"b{i:04d}.ts": os.urandom(2000 + i * 7) for i in range(count)}
    for name, data in payloads.items():
        nginx.put(f"burst/{name}", data)
    # Started with a low limit of open files, the agent raises it for its tasks.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(1024, hard), hard))
    try:
        agent.start()
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    pid = agent.proc.pid
    m = re.search(r"open files limit raised from 1024 to (\d+) \(hard limit (\d+)\)", agent.log())
    assert m, agent.log()[-3000:]
    limits = re.search(r"^Max open files\s+(\d+)\s+(\d+)", Path(f"/proc/{pid}/limits").read_text(), re.M)
    assert limits.groups() == m.groups()
    fds = fd_count(pid)

    paths = {dl_path(nginx.url(f"burst/{n}"), f"burst/{n}"): n for n in payloads}
    answers = get_all(agent.port, paths)
    answers = {n: answers.get(p, "no answer") for p, n in paths.items()}
    status = {n: a.split(b"\r\n", 1)[0] if isinstance(a, bytes) else a for n, a in answers.items()}
    assert status == {n: b"HTTP/1.1 200 OK" for n in payloads}, \
        {n: st for n, st in status.items() if st != b"HTTP/1.1 200 OK"}
    agent.wait_for_log(r"downloaded: ", count=count, timeout=60)
    agent.wait_for_log(r"TASK-END ", count=count, timeout=10)
    for name, data in payloads.items():
        assert digest((agent.data_dir / "burst" / name).read_bytes()) == digest(data), name
    assert files_under(agent.data_dir) == sorted(f"burst/{n}" for n in payloads)
    assert wait_fds(pid, fds, timeout=10) == fds
