"""The UDP channel as a sender of orders sees it: orders by unicast and multicast, the message
grammar, request-lock files shared between agents, local URLs and the segment registry, and a
channel that keeps serving whatever datagrams it is sent.
"""
import os
import re
import signal
import socket
import time
import uuid

import pytest

from conftest import Agent, free_port
from peers import Nginx, udp_send, udp_send_mcast

GROUP = "239.255.42.17"  # an IPv4 group joined on "lo"; IPv6 multicast does not run on this lo
STALE_AGE = 30           # seconds after which a lock is someone's leftover


def udp_port():
    return free_port(kind=socket.SOCK_DGRAM)


def order(lid, url, expiry="1700000001", sep=" "):
    """One channel message: the prefix, the lock id, the URL and the expiry."""
    return f"#!{lid}{sep}{url}{sep}{expiry}".encode()


def dl_url(agent, src, dst):
    """The URL of a download request to `agent`: fetch `src` into `dst` of its data directory."""
    return f"http://127.0.0.1:{agent.port}/src/{src}/dst/{dst}"


def with_channel(agent, url, lock_dir=None, **extra):
    """Configures the agent's UDP channel; the lock directory defaults to the agent's own."""
    agent.vesk["udp_input"] = {"url": url, "lock_dir": str(lock_dir or agent.lock_dir), **extra}
    return agent


def wait_new(agent, mark, pattern, timeout=10, count=1):
    """Waits until `pattern` occurs `count` times in the log written after offset `mark`."""
    rx = re.compile(pattern)
    deadline = time.monotonic() + timeout
    while True:
        text = agent.log()[mark:]
        if len(rx.findall(text)) >= count:
            return text
        if time.monotonic() > deadline or agent.proc.poll() is not None:
            raise AssertionError(f"log never showed {pattern!r} x{count} (exit={agent.proc.poll()})\n"
                                 f"--- new log ---\n{text[-4000:]}\n--- stderr ---\n{agent.stderr()[-2000:]}")
        time.sleep(0.05)


def wait_until(what, check, timeout=10):
    deadline = time.monotonic() + timeout
    while not check():
        assert time.monotonic() < deadline, f"timed out waiting for {what}"
        time.sleep(0.05)


def lock_files(d):
    return sorted(p.name for p in d.iterdir())


def slow_route(source, path, body, delay):
    """A source answer held back for `delay` seconds and then sent whole, so that a download
    stays running that long without its response head arriving in pieces."""
    source.route(path, body=body, head_pause=delay, head_split=0)


def unique_lid(stem):
    return f"{stem}{uuid.uuid4().hex[:8]}"


@pytest.mark.parametrize("mode", ["unicast", "multicast"])
def test_order_downloads_file_byte_for_byte(agent, nginx, mode):
    payload = os.urandom(300_000)
    nginx.put("live/x.ts", payload)
    port = udp_port()
    if mode == "unicast":
        with_channel(agent, f"udp://127.0.0.1:{port}")
        send = lambda data: udp_send("127.0.0.1", port, data)  # noqa: E731
    else:
        with_channel(agent, f"udp://{GROUP}:{port}", mcast_ifc="lo")
        send = lambda data: udp_send_mcast(GROUP, port, data)  # noqa: E731
    agent.start()
    ifc = "lo" if mode == "multicast" else "all"
    assert re.search(rf"UDP input += \[udp://.*\] ifc={ifc} ", agent.log())

    send(order("seg0042", dl_url(agent, nginx.url("live/x.ts"), "x.ts")))
    agent.wait_for_log(r"downloaded: 300000 bytes, \[http://127\.0\.0\.1:\d+/live/x\.ts\]")
    assert (agent.data_dir / "x.ts").read_bytes() == payload
    assert nginx.access_log().count("GET /live/x.ts ") == 1
    log = agent.log()
    assert re.search(r"TASK-START .* expiry=1700000001 lid=\[seg0042\]", log)
    # The lock lives as long as the download task and no longer.
    agent.wait_for_log(r"lid_unlock: seg0042 at \[")
    assert lock_files(agent.lock_dir) == []
    assert os.listdir(agent.data_dir) == ["x.ts"]


# --- the message grammar, against one agent that keeps running ------------------------------

@pytest.fixture(scope="module")
def gram_nginx(tmp_path_factory):
    srv = Nginx(tmp_path_factory.mktemp("gram-nginx"), free_port())
    try:
        yield srv.start()
    finally:
        srv.stop()


@pytest.fixture(scope="module")
def gram(tmp_path_factory, gram_nginx):
    """One agent with a unicast channel, shared by all grammar cases; checked for panics at the end."""
    a = Agent(tmp_path_factory.mktemp("gram"), "vsk")
    a.udp = udp_port()
    with_channel(a, f"udp://127.0.0.1:{a.udp}")
    a.nginx = gram_nginx
    a.payload = os.urandom(40_000)
    gram_nginx.put("g.ts", a.payload)
    a.start()
    try:
        yield a
    finally:
        if a.proc.poll() is None:
            a.stop()
        a.check_clean()


def good(a, dst):
    return dl_url(a, a.nginx.url("g.ts"), dst)


def padded(msg, size):
    """`msg` grown to exactly `size` bytes by words behind the expiry, which the intake ignores."""
    assert len(msg) + 1 < size, (len(msg), size)
    return msg + b" " + b"z" * (size - len(msg) - 1)


# id -> (message maker, the reason the intake gives). Each message must be refused with that
# reason, end in one "request failed" line, and leave no lock file behind.
NO_LID = r"\[\] request failed; url=\[\(null\)\], rc=-1"
REJECTED = {
    "length-31": (lambda a: b"#!abcd http://127.0.0.1:1/x.t 1",
                  r"invalid message length: 31 \(min/max=32/1400\)\n.*" + NO_LID),
    "length-1401": (lambda a: padded(order("abcd", good(a, "big.ts")), 1401),
                    r"invalid message length: 1401 \(min/max=32/1400\)\n.*" + NO_LID),
    # A datagram over the receive buffer is cut to 1415 bytes and refused for its length.
    "length-3000": (lambda a: padded(order("abcd", good(a, "big.ts")), 3000),
                    r"invalid message length: 1415 \(min/max=32/1400\)\n.*" + NO_LID),
    "prefix": (lambda a: order("abcd", good(a, "p.ts")).replace(b"#!", b"#?", 1),
               r"invalid message prefix\n.*" + NO_LID),
    "no-separator": (lambda a: b"#!" + b"x" * 40, r"missing URL part\n.*" + NO_LID),
    "lid-3": (lambda a: order("abc", good(a, "l3.ts")),
              r"id length \(3\) out of bounds: 4/31\n.*" + NO_LID),
    "lid-32": (lambda a: order("L" * 32, good(a, "l32.ts")),
               r"id length \(32\) out of bounds: 4/31\n.*" + NO_LID),
    "two-blanks": (lambda a: order("abcd", good(a, "b.ts"), sep="  "),
                   r"URL length is too small: 0/16 bytes\n.*" + NO_LID),
    "url-15": (lambda a: order("abcd", "http://1.2.3.4/", expiry="12345678901"),
               r"URL length is too small: 15/16 bytes\n.*" + NO_LID),
    # 32 bytes and 16 URL characters pass the grammar; only the URL's meaning fails them later.
    "length-32": (lambda a: b"#!abcd http://127.0.0.1:1/x.ts 1",
                  r"msg=\[#!abcd http://127\.0\.0\.1:1/x\.ts 1\]\n(.*\n)*.*"
                  r"\[abcd\] request failed; url=\[http://127\.0\.0\.1:1/x\.ts\], rc=-?\d+"),
    "url-16": (lambda a: order("abcd", "http://1.2.3.4/x", expiry="12345678901"),
               r"\[abcd\] request failed; url=\[http://1\.2\.3\.4/x\], rc=-?\d+"),
}


@pytest.mark.parametrize("case", list(REJECTED))
def test_message_rejected(gram, case):
    make, expect = REJECTED[case]
    data = make(gram)
    mark = len(gram.log())
    udp_send("127.0.0.1", gram.udp, data)
    text = wait_new(gram, mark, r"request failed;")
    assert re.search(expect, text), f"{case}: expected {expect!r} in\n{text}"
    assert text.count("request failed;") == 1
    assert "TASK-START" not in text
    assert lock_files(gram.lock_dir) == []
    assert gram.proc.poll() is None


# id -> (message maker for a destination and lock id, expected expiry, lock id, log lines).
ACCEPTED = {
    "lid-4": (lambda a, d, lid: order(lid, good(a, d), expiry="55"), "55", "ab12", []),
    "lid-31": (lambda a, d, lid: order(lid, good(a, d), expiry="-3"), "-3", "Q" * 31, []),
    # Exactly 1400 bytes, with words behind the expiry that the intake ignores.
    "length-1400": (lambda a, d, lid: padded(order(lid, good(a, d), expiry="42"), 1400), "42",
                    "big1400", [r"read 1400 bytes from fd"]),
    "expiry-abc": (lambda a, d, lid: order(lid, good(a, d), expiry="abc"), "0", "noexp1",
                   [r"\(WRN\).* NO EXPIRY: sscanf\('abc',\.\.\) expected 1, got 0"]),
    # TAB separators, a run of blanks before the expiry and a CR LF line end.
    "tabs-crlf": (lambda a, d, lid: f"#!{lid}\t{good(a, d)}\t \t77\r\n".encode(), "77", "tab1", []),
}


@pytest.mark.parametrize("case", list(ACCEPTED))
def test_message_accepted_and_downloaded(gram, case):
    make, expiry, lid, lines = ACCEPTED[case]
    dst = f"acc/{case}.ts"
    mark = len(gram.log())
    udp_send("127.0.0.1", gram.udp, make(gram, dst, lid))
    text = wait_new(gram, mark, rf"lid_unlock: {lid} at \[")
    assert f"downloaded: {len(gram.payload)} bytes" in text
    start = rf"TASK-START .*/acc/{case}\.ts-Vesk\] length=\d+, expiry={re.escape(expiry)} lid=\[{lid}\]"
    assert re.search(start, text), text
    for line in lines:
        assert re.search(line, text), f"{line!r} not in\n{text}"
    assert "request failed;" not in text
    assert (gram.data_dir / dst).read_bytes() == gram.payload
    assert lock_files(gram.lock_dir) == []


@pytest.mark.parametrize("tail", ["", "  #5"], ids=["no-expiry", "hash-expiry"])
def test_missing_expiry_aborts_the_agent(agent, tail):
    agent.expect_panic = True
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}")
    agent.start()
    msg = f"#!abcd http://127.0.0.1:{agent.port}/src/http://127.0.0.1:1/a.ts/dst/a.ts{tail}"
    udp_send("127.0.0.1", port, msg.encode())
    rc = agent.wait_exit(timeout=15)
    assert rc == -signal.SIGABRT, rc
    log = agent.log()
    warn = re.search(r"\(WRN\).* parse_msg: no expiry data passed\n", log)
    assert warn, log[-3000:]
    assert "ASSERT at:" in log[warn.end():]
    assert lock_files(agent.lock_dir) == []


# --- request locks ----------------------------------------------------------------------------

def test_fresh_foreign_lock_skips_order_until_stale(agent, nginx):
    payload = os.urandom(10_000)
    nginx.put("s.ts", payload)
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}").start()
    lid = "seg7777"
    lock = agent.lock_dir / f"{lid}.lock"
    msg = order(lid, dl_url(agent, nginx.url("s.ts"), "s.ts"))

    # Another agent's lock, 25 seconds old: still inside the 30 seconds it holds.
    lock.touch()
    then = time.time() - 25
    os.utime(lock, (then, then))
    mark = len(agent.log())
    udp_send("127.0.0.1", port, msg)
    text = wait_new(agent, mark, rf"\[{lid}\] already engaged, will skip")
    assert re.search(rf"upstanding lock \[{re.escape(str(lock))}\] \(age=2\d\) found", text)
    assert "request failed;" not in text and "TASK-START" not in text
    assert lock.exists() and not (agent.data_dir / "s.ts").exists()
    assert "GET /s.ts " not in nginx.access_log()

    # Left by a holder that died more than 30 seconds ago: removed and the order taken.
    then = time.time() - (STALE_AGE + 30)
    os.utime(lock, (then, then))
    mark = len(agent.log())
    udp_send("127.0.0.1", port, msg)
    text = wait_new(agent, mark, rf"lid_unlock: {lid} at \[")
    assert re.search(rf"expired stale lock \[{re.escape(str(lock))}\], age=\d+ sec", text)
    assert "downloaded: 10000 bytes" in text
    assert (agent.data_dir / "s.ts").read_bytes() == payload
    assert not lock.exists()


def test_lock_held_by_running_download_then_released(agent, bad_source):
    body = os.urandom(5000)
    for p in ("/slow1.ts", "/slow3.ts"):
        slow_route(bad_source, p, body, 1.0)
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}").start()
    lid = "seg0100"
    mark = len(agent.log())
    udp_send("127.0.0.1", port, order(lid, dl_url(agent, bad_source.url("slow1.ts"), "a1.ts")))
    wait_new(agent, mark, r"TASK-START")
    assert lock_files(agent.lock_dir) == [f"{lid}.lock"]

    # The same announcement again while the first is still downloading.
    udp_send("127.0.0.1", port, order(lid, dl_url(agent, bad_source.url("slow2.ts"), "a2.ts")))
    text = wait_new(agent, mark, rf"\[{lid}\] already engaged, will skip")
    assert "downloaded:" not in text and "request failed;" not in text

    text = wait_new(agent, mark, rf"lid_unlock: {lid} at \[")
    assert (agent.data_dir / "a1.ts").read_bytes() == body
    assert lock_files(agent.lock_dir) == []

    # Released with its task, the lock id takes the next order at once.
    mark = len(agent.log())
    udp_send("127.0.0.1", port, order(lid, dl_url(agent, bad_source.url("slow3.ts"), "a3.ts")))
    wait_new(agent, mark, rf"lid_unlock: {lid} at \[")
    assert (agent.data_dir / "a3.ts").read_bytes() == body
    assert not (agent.data_dir / "a2.ts").exists()
    assert [r.split(b" ")[1] for r in bad_source.requests] == [b"/slow1.ts", b"/slow3.ts"]


def test_order_refused_by_task_limit_keeps_its_lock(agent, bad_source):
    slow_route(bad_source, "/busy.ts", b"b" * 3000, 1.5)
    bad_source.route("/more.ts", body=b"m" * 3000)
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}")
    agent.vesk["max_tasks"] = 1
    agent.start()
    mark = len(agent.log())
    udp_send("127.0.0.1", port, order("busy1", dl_url(agent, bad_source.url("busy.ts"), "busy.ts")))
    wait_new(agent, mark, r"TASK-START")
    udp_send("127.0.0.1", port, order("more1", dl_url(agent, bad_source.url("more.ts"), "more.ts")))
    text = wait_new(agent, mark, r"limit on tasks exceeded \[1\]")
    assert "request failed;" not in text  # the refusal is not the order's failure

    wait_new(agent, mark, r"lid_unlock: busy1 at \[")
    # The refused order's lock is left to lapse: it throttles the same announcement.
    assert lock_files(agent.lock_dir) == ["more1.lock"]
    mark = len(agent.log())
    udp_send("127.0.0.1", port, order("more1", dl_url(agent, bad_source.url("more.ts"), "more.ts")))
    wait_new(agent, mark, r"\[more1\] already engaged, will skip")
    assert not (agent.data_dir / "more.ts").exists()
    assert [r.split(b" ")[1] for r in bad_source.requests] == [b"/busy.ts"]


def test_without_locking_repeated_orders_are_all_taken(agent, bad_source):
    bodies = {i: os.urandom(4000 + i) for i in range(3)}
    for i, body in bodies.items():
        slow_route(bad_source, f"/r{i}.ts", body, 1.0)
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}", must_lock=False)
    agent.start()
    assert re.search(r"UDP input += \[.*\] ifc=all fmt=\w+ lk=\[none\]", agent.log())
    lid = unique_lid("rep")
    mark = len(agent.log())
    for i in bodies:
        udp_send("127.0.0.1", port, order(lid, dl_url(agent, bad_source.url(f"r{i}.ts"), f"r{i}.ts")))
    text = wait_new(agent, mark, r"downloaded:", count=3)
    # All three ran at once under the same lock id.
    starts = [m.start() for m in re.finditer(rf"TASK-START .* lid=\[{lid}\]", text)]
    assert len(starts) == 3 and starts[-1] < text.index("downloaded:")
    assert "already engaged" not in text and "request failed;" not in text
    for i, body in bodies.items():
        assert (agent.data_dir / f"r{i}.ts").read_bytes() == body
    assert lock_files(agent.lock_dir) == []
    assert not any(os.path.exists(os.path.join(d, f"{lid}.lock")) for d in ("/tmp", "/", str(agent.dir)))


def test_two_agents_on_one_group_take_each_order_once(agents, bad_source, tmp_path):
    shared = tmp_path / "shared-lock"
    shared.mkdir()
    port = udp_port()
    pair = [with_channel(agents(n), f"udp://{GROUP}:{port}", lock_dir=shared, mcast_ifc="lo")
            for n in ("a1", "a2")]
    for a in pair:
        a.start()
    bodies = {f"m{i}": os.urandom(6000 + i) for i in range(4)}
    for name, body in bodies.items():
        # The pause keeps each download running well past the moment both agents read the order.
        slow_route(bad_source, f"/{name}.ts", body, 1.0)
    lids = {name: unique_lid(f"{name}x") for name in bodies}
    for name, lid in lids.items():
        udp_send_mcast(GROUP, port, order(lid, dl_url(pair[0], bad_source.url(f"{name}.ts"), f"{name}.ts")))

    def settled():
        logs = "".join(a.log() for a in pair)
        return (logs.count("downloaded:") >= len(bodies)
                and all(f"[{lid}] already engaged, will skip" in logs for lid in lids.values()))
    wait_until("every order downloaded by one agent and skipped by the other", settled, timeout=15)

    logs = [a.log() for a in pair]
    for name, lid in lids.items():
        starts = [len(re.findall(rf"TASK-START .* lid=\[{lid}\]", t)) for t in logs]
        skips = [t.count(f"[{lid}] already engaged, will skip") for t in logs]
        assert sorted(starts) == [0, 1] and sorted(skips) == [0, 1] and starts != skips, (name, starts, skips)
        got = [a.data_dir / f"{name}.ts" for a in pair if (a.data_dir / f"{name}.ts").exists()]
        assert len(got) == 1 and got[0].read_bytes() == bodies[name]
    assert sum(t.count("downloaded:") for t in logs) == len(bodies)
    paths = sorted(r.split(b" ")[1].decode() for r in bad_source.requests)
    assert paths == sorted(f"/{n}.ts" for n in bodies)
    wait_until("all locks released", lambda: lock_files(shared) == [])


# --- local URLs -------------------------------------------------------------------------------

def test_local_url_without_db_is_only_logged(agent):
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}")
    agent.vesk["local_url_prefix"] = "http://vsk-local.test/seg/"
    agent.start()
    mark = len(agent.log())
    udp_send("127.0.0.1", port, order("loc1", dl_url(agent, "http://vsk-local.test/seg/a.ts", "a.ts"), "600"))
    text = wait_new(agent, mark, r"is local URL, no download required")
    assert "[http://vsk-local.test/seg/a.ts] is local URL" in text
    # Give the intake the chance to do something more, then prove it did not.
    udp_send("127.0.0.1", port, b"#!" + b"y" * 40)
    text = wait_new(agent, mark, r"missing URL part")
    assert "adding local URL to LBDB" not in text and "TASK-START" not in text
    assert "request failed;" not in text.split("missing URL part")[0]
    assert os.listdir(agent.data_dir) == []
    # Nothing releases the lock of an order that needed no download; it lapses when stale.
    assert lock_files(agent.lock_dir) == ["loc1.lock"]


def test_local_url_with_db_is_registered(agent, nginx, redis):
    payload = os.urandom(2000)
    nginx.put("c.ts", payload)
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}")
    prefix = f"http://127.0.0.1:{agent.port}/data"
    agent.vesk["local_url_prefix"] = prefix + "/"
    agent.vesk["lbdb"] = {"host": "127.0.0.1", "port": redis.port, "sha1_dir": str(redis.sha1_dir)}
    agent.start()

    mark = len(agent.log())
    udp_send("127.0.0.1", port, order("dbloc1", dl_url(agent, f"{prefix}/live/b.ts", "live/b.ts"), "600"))
    text = wait_new(agent, mark, r"add_lbdb_url: id=\[live/b\.ts\]")
    assert "adding local URL to LBDB" in text
    assert f"url=[{prefix}/live/b.ts], expiry=600" in text
    assert "TASK-START" not in text and "request failed;" not in text and "failed to add" not in text
    assert redis.cli("ZRANGE", "live/b.ts", 0, -1).split() == [f"{prefix}/live/b.ts"]
    assert 0 < int(redis.cli("TTL", "live/b.ts")) <= 600
    assert not (agent.data_dir / "live/b.ts").exists()
    assert lock_files(agent.lock_dir) == ["dbloc1.lock"]

    # An order that is downloaded is registered under its local URL as well, without expiry.
    mark = len(agent.log())
    udp_send("127.0.0.1", port, order("dbdl1", dl_url(agent, nginx.url("c.ts"), "live/c.ts"), "0"))
    wait_new(agent, mark, r"lid_unlock: dbdl1 at \[")
    assert (agent.data_dir / "live/c.ts").read_bytes() == payload
    assert redis.cli("ZRANGE", "live/c.ts", 0, -1).split() == [f"{prefix}/live/c.ts"]
    assert lock_files(agent.lock_dir) == ["dbloc1.lock"]


# --- a channel that survives its senders --------------------------------------------------------

def test_bad_datagrams_never_stop_the_channel(agent, nginx, tmp_path):
    payload = os.urandom(50_000)
    nginx.put("ok.ts", payload)
    port = udp_port()
    with_channel(agent, f"udp://127.0.0.1:{port}").start()
    a = agent
    ok_src = nginx.url("ok.ts")
    bad = [
        b"",
        b"#!abcd http://127.0.0.1:1/x.t 1",
        padded(order("abcd", dl_url(a, ok_src, "big.ts")), 3000),
        bytes(range(256))[1:200],
        order("abcd", dl_url(a, ok_src, "p.ts")).replace(b"#!", b"#?", 1),
        b"#!" + b"n" * 60,
        order("abc", dl_url(a, ok_src, "l3.ts")),
        order("L" * 32, dl_url(a, ok_src, "l32.ts")),
        order("abcd", dl_url(a, ok_src, "b2.ts"), sep="  "),
        order("abcd", "http://1.2.3.4/", expiry="12345678901"),
        order("abcd", "http://1.2.3.4/x", expiry="12345678901"),
        order("../../escape", dl_url(a, "ftp://127.0.0.1/e.ts", "e.ts")),
        order("nonhttp", dl_url(a, "ftp://127.0.0.1/f.ts", "f.ts")),
        order("unsafe", dl_url(a, ok_src, "../../outside.ts")),
    ]
    # Orders that pass the intake and then fail as downloads: their locks go with their tasks.
    failing = [
        order("gone1", dl_url(a, nginx.url("missing.ts"), "missing.ts")),
        order("refused1", dl_url(a, f"http://127.0.0.1:{free_port()}/r.ts", "r.ts")),
    ]
    mark = len(a.log())
    for data in bad + failing:
        udp_send("127.0.0.1", port, data)
    udp_send("127.0.0.1", port, order("good1", dl_url(a, ok_src, "ok.ts")))
    text = wait_new(a, mark, r"lid_unlock: good1 at \[")
    assert (a.data_dir / "ok.ts").read_bytes() == payload
    assert text.count("request failed;") == len(bad), text
    assert text.count("TASK-START") == 3

    wait_until("the failing downloads to release their locks", lambda: lock_files(a.lock_dir) == [])
    assert os.listdir(a.data_dir) == ["ok.ts"]
    leftovers = [p for p in tmp_path.rglob("*") if p.name.endswith(".lock") or "outside" in p.name]
    assert leftovers == []
    assert a.proc.poll() is None
