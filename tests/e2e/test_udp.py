"""The UDP channel as a sender of orders sees it: unicast and multicast orders, the message grammar,
request locks shared between agents, local URLs, and a channel that survives bad datagrams."""
import os
import re
import signal
import socket
import time

import pytest

from conftest import GROUP, Agent, dl_url, free_port, order, registered, wait_until
from peers import Nginx, udp_send, udp_send_mcast


def lock_files(d):
    return sorted(p.name for p in d.iterdir())


def slow_route(source, path, body, delay=1.0):
    """An answer held back `delay` seconds and then sent whole: the download runs that long."""
    source.route(path, body=body, head_pause=delay, head_split=0)


@pytest.mark.parametrize("host, ifc", [("127.0.0.1", "all"), (GROUP, "lo")],
                         ids=["unicast", "multicast"])
def test_order_downloads_file_byte_for_byte(agent, nginx, host, ifc):
    payload = os.urandom(300_000)
    nginx.put("live/x.ts", payload)
    agent.with_channel(host, **({"mcast_ifc": "lo"} if host == GROUP else {})).start()
    assert re.search(rf"UDP input += \[udp://.*\] ifc={ifc} ", agent.log())
    # The lock lives as long as the download task and no longer. A unicast order comes from
    # another loopback address: the channel does not look at who sent it.
    text = agent.send(order("seg0042", dl_url(agent, nginx.url("live/x.ts"), "x.ts")),
                      r"lid_unlock: seg0042 at \[", source="127.0.0.9" if host != GROUP else None)
    assert re.search(r"downloaded: 300000 bytes, \[http://127\.0\.0\.1:\d+/live/x\.ts\]", text)
    assert re.search(r"TASK-START .* expiry=1700000001 lid=\[seg0042\]", text)
    assert text.count("TASK-START") == 1
    assert (agent.data_dir / "x.ts").read_bytes() == payload and os.listdir(agent.data_dir) == ["x.ts"]
    assert lock_files(agent.lock_dir) == []


# --- the message grammar, against one agent that keeps running ------------------------------

@pytest.fixture(scope="module")
def gram(tmp_path_factory):
    """One agent with a unicast channel, shared by all grammar cases; checked for panics at the end."""
    srv = Nginx(tmp_path_factory.mktemp("gram-nginx"), free_port())
    a = Agent(tmp_path_factory.mktemp("gram"), "vsk").with_channel()
    a.nginx, a.payload = srv, os.urandom(40_000)
    try:
        srv.start().put("g.ts", a.payload)
        yield a.start()
    finally:
        if a.proc is not None and a.proc.poll() is None:
            a.stop()
        srv.stop()
        a.check_clean()


def good(a, dst):
    return dl_url(a, a.nginx.url("g.ts"), dst)


def padded(msg, size):
    """`msg` grown to exactly `size` bytes by words behind the expiry, which the intake ignores."""
    return msg + b" " + b"z" * (size - len(msg) - 1)


# id -> (message maker, the reason the intake gives). Each message ends in one "request failed"
# line, without a lock id where the grammar refused it, and leaves no lock file behind.
REJECTED = {
    "length-31": (lambda a: b"#!abcd http://127.0.0.1:1/x.t 1",
                  r"invalid message length: 31 \(min/max=32/1400\)"),
    "length-1401": (lambda a: padded(order("abcd", good(a, "big.ts")), 1401),
                    r"invalid message length: 1401 \(min/max=32/1400\)"),
    # A datagram over the receive buffer is cut to 1415 bytes and refused for its length.
    "length-3000": (lambda a: padded(order("abcd", good(a, "big.ts")), 3000),
                    r"invalid message length: 1415 \(min/max=32/1400\)"),
    "prefix": (lambda a: order("abcd", good(a, "p.ts")).replace(b"#!", b"#?", 1), r"invalid message prefix"),
    "no-separator": (lambda a: b"#!" + b"x" * 40, r"missing URL part"),
    "lid-3": (lambda a: order("abc", good(a, "l3.ts")), r"id length \(3\) out of bounds: 4/31"),
    "lid-32": (lambda a: order("L" * 32, good(a, "l32.ts")), r"id length \(32\) out of bounds: 4/31"),
    "two-blanks": (lambda a: order("abcd", good(a, "b.ts"), sep="  "),
                   r"URL length is too small: 0/16 bytes"),
    "url-15": (lambda a: order("abcd", "http://1.2.3.4/", expiry="12345678901"),
               r"URL length is too small: 15/16 bytes"),
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
    if "request failed" not in expect:
        expect += r"\n.*\[\] request failed; url=\[\(null\)\], rc=-1"
    text = gram.send(make(gram), r"request failed;")
    assert re.search(expect, text), f"{case}: expected {expect!r} in\n{text}"
    assert text.count("request failed;") == 1 and "TASK-START" not in text
    assert lock_files(gram.lock_dir) == [] and gram.proc.poll() is None


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
    text = gram.send(make(gram, dst, lid), rf"lid_unlock: {lid} at \[")
    assert f"downloaded: {len(gram.payload)} bytes" in text and "request failed;" not in text
    start = rf"TASK-START .*/acc/{case}\.ts-Vesk\] length=\d+, expiry={re.escape(expiry)} lid=\[{lid}\]"
    for line in [start] + lines:
        assert re.search(line, text), f"{line!r} not in\n{text}"
    assert (gram.data_dir / dst).read_bytes() == gram.payload and lock_files(gram.lock_dir) == []


@pytest.mark.parametrize("tail", ["", "  #5"], ids=["no-expiry", "hash-expiry"])
def test_missing_expiry_aborts_the_agent(agent, tail):
    agent.expect_panic = True
    agent.with_channel().start()
    url = dl_url(agent, "http://127.0.0.1:1/a.ts", "a.ts")
    udp_send("127.0.0.1", agent.udp, f"#!abcd {url}{tail}".encode())
    assert agent.wait_exit(timeout=15) == -signal.SIGABRT
    log = agent.log()
    warn = re.search(r"\(WRN\).* parse_msg: no expiry data passed\n", log)
    assert warn and "ASSERT at:" in log[warn.end():], log[-3000:]
    assert lock_files(agent.lock_dir) == []


# --- request locks ----------------------------------------------------------------------------

def test_locks_held_by_another_agent_or_a_running_download(agent, nginx, bad_source):
    """A fresh foreign lock skips the order until it is stale; a running download holds its lock
    id until its task ends, and the id takes the next order at once."""
    payload = os.urandom(10_000)
    nginx.put("s.ts", payload)
    agent.with_channel().start()
    lock = agent.lock_dir / "seg7777.lock"
    msg = order("seg7777", dl_url(agent, nginx.url("s.ts"), "s.ts"))
    # Another agent's lock, 25 seconds old: still inside the 30 seconds it holds.
    lock.touch()
    os.utime(lock, (time.time() - 25,) * 2)
    text = agent.send(msg, r"\[seg7777\] already engaged, will skip")
    assert re.search(rf"upstanding lock \[{re.escape(str(lock))}\] \(age=2\d\) found", text)
    assert "request failed;" not in text and "TASK-START" not in text
    assert lock.exists() and not (agent.data_dir / "s.ts").exists()
    # Left by a holder that died more than 30 seconds ago: removed and the order taken.
    os.utime(lock, (time.time() - 60,) * 2)
    text = agent.send(msg, r"lid_unlock: seg7777 at \[")
    assert re.search(rf"expired stale lock \[{re.escape(str(lock))}\], age=\d+ sec", text)
    assert (agent.data_dir / "s.ts").read_bytes() == payload and not lock.exists()

    body = os.urandom(5000)
    for p in ("/slow1.ts", "/slow3.ts"):
        slow_route(bad_source, p, body)

    def msg(n):
        return order("seg0100", dl_url(agent, bad_source.url(f"slow{n}.ts"), f"a{n}.ts"))
    mark = agent.mark()
    agent.send(msg(1), r"TASK-START")
    assert lock_files(agent.lock_dir) == ["seg0100.lock"]
    # The same lock id again while the first is still downloading.
    text = agent.send(msg(2), r"\[seg0100\] already engaged, will skip")
    assert "downloaded:" not in text and "request failed;" not in text
    agent.wait_for_log(r"lid_unlock: seg0100 at \[", since=mark)
    assert (agent.data_dir / "a1.ts").read_bytes() == body and lock_files(agent.lock_dir) == []
    # Released with its task, the lock id takes the next order at once.
    agent.send(msg(3), r"lid_unlock: seg0100 at \[")
    assert (agent.data_dir / "a3.ts").read_bytes() == body and not (agent.data_dir / "a2.ts").exists()
    assert [r.split(b" ")[1] for r in bad_source.requests] == [b"/slow1.ts", b"/slow3.ts"]


def test_order_refused_by_task_limit_keeps_its_lock(agent, bad_source):
    slow_route(bad_source, "/busy.ts", b"b" * 3000, 1.5)
    agent.vesk["max_tasks"] = 1
    agent.with_channel().start()
    more = order("more1", dl_url(agent, bad_source.url("more.ts"), "more.ts"))
    mark = agent.mark()
    agent.send(order("busy1", dl_url(agent, bad_source.url("busy.ts"), "busy.ts")), r"TASK-START")
    text = agent.send(more, r"limit on tasks exceeded \[1\]")
    assert "request failed;" not in text  # the refusal is not the order's failure
    agent.wait_for_log(r"lid_unlock: busy1 at \[", since=mark)
    # The refused order's lock is left to lapse: it throttles the same announcement.
    assert lock_files(agent.lock_dir) == ["more1.lock"]
    agent.send(more, r"\[more1\] already engaged, will skip")
    assert [r.split(b" ")[1] for r in bad_source.requests] == [b"/busy.ts"]


def test_without_locking_repeated_orders_are_all_taken(agent, bad_source):
    bodies = {i: os.urandom(4000 + i) for i in range(3)}
    for i, body in bodies.items():
        slow_route(bad_source, f"/r{i}.ts", body)
    agent.with_channel(must_lock=False).start()
    lid = "vsk-e2e-nolock"
    text = agent.send([order(lid, dl_url(agent, bad_source.url(f"r{i}.ts"), f"r{i}.ts")) for i in bodies],
                r"downloaded:", count=3)
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
    port = free_port(kind=socket.SOCK_DGRAM)
    pair = [agents(n).with_channel(GROUP, port, shared, mcast_ifc="lo").start() for n in ("a1", "a2")]
    bodies = {f"m{i}": os.urandom(6000 + i) for i in range(4)}
    for name, body in bodies.items():
        # The pause keeps each download running well past the moment both agents read the order.
        slow_route(bad_source, f"/{name}.ts", body)
        url = dl_url(pair[0], bad_source.url(f"{name}.ts"), f"{name}.ts")
        udp_send_mcast(GROUP, port, order(f"{name}lock", url))

    def settled():
        logs = "".join(a.log() for a in pair)
        return (logs.count("downloaded:") >= len(bodies)
                and all(f"[{n}lock] already engaged, will skip" in logs for n in bodies))
    wait_until("every order downloaded by one agent and skipped by the other", settled, timeout=15)
    logs = [a.log() for a in pair]
    for name in bodies:
        starts = [len(re.findall(rf"TASK-START .* lid=\[{name}lock\]", t)) for t in logs]
        skips = [t.count(f"[{name}lock] already engaged, will skip") for t in logs]
        assert sorted(starts) == [0, 1] and sorted(skips) == [0, 1] and starts != skips, (name, starts, skips)
        got = [a.data_dir / f"{name}.ts" for a in pair if (a.data_dir / f"{name}.ts").exists()]
        assert len(got) == 1 and got[0].read_bytes() == bodies[name]
    assert sum(t.count("downloaded:") for t in logs) == len(bodies)
    wait_until("all locks released", lambda: lock_files(shared) == [])


# --- local URLs -------------------------------------------------------------------------------

def test_local_url_without_db_is_only_logged(agent):
    agent.vesk["local_url_prefix"] = "http://vsk-local.test/seg/"
    agent.with_channel().start()
    mark = agent.mark()
    agent.send(order("loc1", dl_url(agent, "http://vsk-local.test/seg/a.ts", "a.ts"), "600"),
         r"\[http://vsk-local\.test/seg/a\.ts\] is local URL, no download required")
    # Give the intake the chance to do something more, then prove it did not.
    agent.send(b"#!" + b"y" * 40, r"missing URL part")
    text = agent.log()[mark:]
    assert "adding local URL to LBDB" not in text and "TASK-START" not in text
    assert "request failed;" not in text.split("missing URL part")[0]
    # Nothing releases the lock of an order that needed no download; it lapses when stale.
    assert lock_files(agent.lock_dir) == ["loc1.lock"]


def test_local_url_with_db_is_registered(agent, nginx, redis):
    payload = os.urandom(2000)
    nginx.put("c.ts", payload)
    prefix = f"http://127.0.0.1:{agent.port}/data"
    agent.with_registry(redis, prefix + "/").with_channel().start()
    text = agent.send(order("dbloc1", dl_url(agent, f"{prefix}/live/b.ts", "live/b.ts"), "600"),
                r"add_lbdb_url: id=\[live/b\.ts\]")
    assert "adding local URL to LBDB" in text and f"url=[{prefix}/live/b.ts], expiry=600" in text
    assert "TASK-START" not in text and "request failed;" not in text and "failed to add" not in text
    assert list(registered(redis, "live/b.ts")) == [f"{prefix}/live/b.ts"]
    assert 0 < int(redis.cli("TTL", "live/b.ts")) <= 600
    # An order that is downloaded is registered under its local URL as well, without expiry.
    agent.send(order("dbdl1", dl_url(agent, nginx.url("c.ts"), "live/c.ts"), "0"),
         r"lid_unlock: dbdl1 at \[")
    assert (agent.data_dir / "live/c.ts").read_bytes() == payload
    assert list(registered(redis, "live/c.ts")) == [f"{prefix}/live/c.ts"]
    assert lock_files(agent.lock_dir) == ["dbloc1.lock"]


# --- a channel that survives its senders --------------------------------------------------------

def test_bad_datagrams_never_stop_the_channel(agent, nginx, tmp_path):
    payload = os.urandom(50_000)
    nginx.put("g.ts", payload)
    a = agent.with_channel().start()
    a.nginx = nginx
    bad = [make(a) for make, _ in REJECTED.values()] + [
        b"", bytes(range(256))[1:200],
        order("../../escape", dl_url(a, "ftp://127.0.0.1/e.ts", "e.ts")),
        order("nonhttp", dl_url(a, "ftp://127.0.0.1/f.ts", "f.ts")),
        order("unsafe", good(a, "../../outside.ts")),
    ]
    # Orders that pass the intake and then fail as downloads: their locks go with their tasks.
    failing = [order("gone1", dl_url(a, nginx.url("missing.ts"), "missing.ts")),
               order("refused1", dl_url(a, f"http://127.0.0.1:{free_port()}/r.ts", "r.ts"))]
    text = a.send(bad + failing + [order("good1", good(a, "ok.ts"))], r"lid_unlock: good1 at \[")
    assert (a.data_dir / "ok.ts").read_bytes() == payload
    assert text.count("request failed;") == len(bad) and text.count("TASK-START") == 3, text
    wait_until("the failing downloads to release their locks", lambda: lock_files(a.lock_dir) == [])
    assert os.listdir(a.data_dir) == ["ok.ts"]
    assert [p for p in tmp_path.rglob("*") if p.name.endswith(".lock") or "outside" in p.name] == []


# id -> (lock directory under the agent's, lock id, the one line that reports why the lock was
# not taken). A lock the order never took is neither reported twice nor removed.
UNTAKEN = {
    "slash-in-lid": ("lock", "../../escape", r"lid_lock: invalid lock id \[\.\./\.\./escape\]"),
    "lock-dir-gone": ("nolock", "seg0500", r"lid_lock: open\(.*/nolock/seg0500\.lock,\.\.\.\) ERROR\(2\)"),
}


@pytest.mark.parametrize("case", list(UNTAKEN))
def test_lock_not_taken_is_reported_once_and_not_released(agent, nginx, case):
    lock_dir, lid, reason = UNTAKEN[case]
    nginx.put("u.ts", b"u" * 1000)
    agent.with_channel(lock_dir=agent.dir / lock_dir).start()
    text = agent.send(order(lid, dl_url(agent, nginx.url("u.ts"), "u.ts")), r"request failed;")
    assert len(re.findall(reason, text)) == 1, text
    assert "lid_unlock" not in text and "unlink(" not in text, text
    assert "TASK-START" not in text and os.listdir(agent.data_dir) == []
