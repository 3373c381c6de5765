"""A fleet: three agents with their own data and lock directories share request locks in one real
Redis. This loopback carries no multicast, so one unicast sender fans every order out to all three,
as a multicast group would. Each order is fetched once while Redis answers; while it is paused the
orders are taken anyway (fail-open) and nothing goes missing."""
import re
import signal
import time

import pytest

from conftest import free_port, order, ping, wait_until, zrange
from peers import Nginx

PREFIX = "vsk:lock:"
# Downloads held open by the source's rate limit, so that a lock is still held when the same order
# reaches the slowest agent of the fleet.
BODY_LEN = 3000


@pytest.fixture
def slow_nginx(tmp_path):
    srv = Nginx(tmp_path / "nginx", free_port(), extra="limit_rate 1k;")
    try:
        yield srv.start()
    finally:
        srv.stop()


def fleet(agents, redis, n=3, name="f", **lbdb):
    """Agents with locks in `redis`; each registers its files under a URL of its own."""
    made = []
    for i in range(n):
        a = agents(f"{name}{i}").with_channel(lock_backend="redis")
        made.append(a.with_registry(redis, f"http://127.0.0.1:{a.port}/data/", **lbdb).start())
    for a in made:
        a.wait_for_log(r"lbdb_link: link to .* ready")
        a.wait_for_log(r"udl_ctx_start: request locks in Redis as \[[^]:]+:\d+\], keys \[vsk:lock:<lock id>\]")
    return made


def put_files(nginx, names):
    bodies = {n: (n.encode() * BODY_LEN)[:BODY_LEN] for n in names}
    for n, b in bodies.items():
        nginx.put(f"seg/{n}", b)
    return bodies


def fan_out(agents, nginx, names):
    """Each order to every agent, the way one multicast datagram reaches them all."""
    for n in names:
        msg = order(f"o-{n}", f"http://127.0.0.1:1/src/{nginx.url('seg/' + n)}/dst/seg/{n}", "600")
        for a in agents:
            a.send(msg)
        time.sleep(0.002)  # a sender's pace; the receive buffers need not hold the whole burst


def nginx_hits(nginx):
    text = (nginx.dir / "access.log").read_text()
    hits = {}
    for path in re.findall(r'"GET /seg/(\S+) HTTP', text):
        hits[path] = hits.get(path, 0) + 1
    return hits


def holders(agents, name):
    return [a for a in agents if (a.data_dir / "seg" / name).exists()]


def lock_keys(redis):
    return redis.cli("--scan", "--pattern", PREFIX + "*").split()


def downloaded(agents):
    return sum(a.log().count("downloaded:") for a in agents)


def test_each_order_is_fetched_once_across_the_fleet(agents, redis, slow_nginx):
    names = [f"n{i:03d}.ts" for i in range(200)]
    bodies = put_files(slow_nginx, names)
    fl = fleet(agents, redis)
    fan_out(fl, slow_nginx, names)
    wait_until("every order downloaded", lambda: downloaded(fl) >= len(names), timeout=40)
    wait_until("every lock released", lambda: lock_keys(redis) == [], timeout=10)

    hits = nginx_hits(slow_nginx)
    assert sorted(hits) == names and set(hits.values()) == {1}, \
        {k: v for k, v in hits.items() if v != 1}
    for n in names:
        (a,) = holders(fl, n)
        assert (a.data_dir / "seg" / n).read_bytes() == bodies[n]
        assert list(zrange(redis, f"seg/{n}")) == [f"http://127.0.0.1:{a.port}/data/seg/{n}"]
    logs = [a.log() for a in fl]
    assert sum(t.count("already engaged, will skip") for t in logs) == 2 * len(names)
    assert downloaded(fl) == len(names)
    assert not any("without a lock" in t or "request failed" in t for t in logs)
    assert all(list(a.lock_dir.iterdir()) == [] for a in fl), "no lock files with locks in Redis"
    assert [a.stop() for a in fl] == [0, 0, 0]


def test_paused_redis_takes_orders_anyway(agents, redis, slow_nginx):
    """Orders that meet a paused Redis are all fetched (some more than once), with a warning;
    the fleet keeps serving, locks again once Redis is back, and quits on SIGTERM."""
    before, during, after = ([f"{p}{i:02d}.ts" for i in range(30)] for p in "bda")
    put_files(slow_nginx, before + during + after)
    fl = fleet(agents, redis, cmd_tmout_ms=300, connect_tmout_ms=300, reconnect_ms=200)

    fan_out(fl, slow_nginx, before)
    wait_until("the first orders downloaded", lambda: downloaded(fl) >= len(before), timeout=30)
    redis.proc.send_signal(signal.SIGSTOP)
    try:
        fan_out(fl, slow_nginx, during)
        wait_until("every order of the pause downloaded",
                   lambda: all(holders(fl, n) for n in during), timeout=30)
        for a in fl:
            assert ping(a.port).startswith(b"HTTP/1.1 ")
            assert re.search(r"udl_lock: no lock for \[o-d\d\d\.ts\] \((no answer in time|no link)\): "
                             r"order taken anyway, \d+ without a lock so far", a.log())
    finally:
        redis.proc.send_signal(signal.SIGCONT)
    for a in fl:
        a.wait_for_log(r"lbdb_link: link to .* ready", count=2, timeout=15)
    fan_out(fl, slow_nginx, after)
    wait_until("the last orders downloaded",
               lambda: all(holders(fl, n) for n in after), timeout=30)
    wait_until("the last downloads settled", lambda: all(
        a.log().count("TASK-END") >= a.log().count("TASK-START") for a in fl), timeout=15)

    hits = nginx_hits(slow_nginx)
    assert sorted(hits) == sorted(before + during + after), "none missing"
    assert all(hits[n] == 1 for n in before + after), hits
    assert sum(hits[n] for n in during) > len(during), "the pause left every order locked"
    # The warning is rate-limited: far fewer lines than orders taken without a lock, and the
    # total follows within a renewal period. Every order of the pause went by without a lock.
    lines = sum(len(re.findall(r"order taken anyway", a.log())) for a in fl)
    assert lines < 3 * len(during)
    for a in fl:
        a.wait_for_log(rf"udl_lock: {len(during)} orders taken without a lock so far", timeout=15)
    for key in lock_keys(redis):
        assert 0 < int(redis.cli("PTTL", key)) <= 30000, key
    t0 = time.monotonic()
    assert [a.stop(timeout=5) for a in fl] == [0, 0, 0]
    assert time.monotonic() - t0 < 5


def test_long_download_renews_its_lock_and_leaves_another_owner_alone(agents, redis, slow_nginx):
    """A download longer than a renewal period keeps its lock fresh; a lock that another agent
    took meanwhile is reported by the renewal, and the download's end does not delete it."""
    body = b"r" * 14000  # about 14 s at the source's rate
    for n in ("keep.ts", "lost.ts"):
        slow_nginx.put(f"seg/{n}", body)
    (a,) = fleet(agents, redis, n=1)
    fan_out([a], slow_nginx, ["keep.ts", "lost.ts"])
    a.wait_for_log(r"udl_lock: \[o-lost\.ts\] locked as", timeout=5)
    assert redis.cli("SET", PREFIX + "o-lost.ts", "other-host:1").strip() == "OK"
    a.wait_for_log(r"udl_lock: \[o-keep\.ts\] renewed for 30000 ms", timeout=15)
    # Taken at start-up plus a moment, renewed a renewal period later: well above what is left
    # of an unrenewed lock.
    assert int(redis.cli("PTTL", PREFIX + "o-keep.ts")) > 25000
    a.wait_for_log(r"udl_lock: \[o-lost\.ts\] is held by \[other-host:1\]; the download goes on")
    a.wait_for_log(r"downloaded: ", count=2, timeout=20)
    a.wait_for_log(r"udl_lock: \[o-lost\.ts\] was no longer ours at release, left alone")
    assert (a.data_dir / "seg/keep.ts").read_bytes() == body
    assert (a.data_dir / "seg/lost.ts").read_bytes() == body
    wait_until("own lock released", lambda: redis.cli("EXISTS", PREFIX + "o-keep.ts").strip() == "0")
    assert redis.cli("GET", PREFIX + "o-lost.ts").strip() == "other-host:1"
    # Lock ids keep the rule of lock files: a "/" is refused.
    a.send(order("a/b0", f"http://127.0.0.1:1/src/{slow_nginx.url('seg/keep.ts')}/dst/x.ts"))
    a.wait_for_log(r"udl_lock: invalid lock id \[a/b0\]")
    a.wait_for_log(r"udl_accept: \[a/b0\] request failed; url=\[")
    assert not (a.data_dir / "x.ts").exists() and lock_keys(redis) == [PREFIX + "o-lost.ts"]


@pytest.mark.parametrize("drain_ms", [0, 2000], ids=["built_in", "drained"])
def test_sigterm_releases_the_locks_of_running_orders_when_the_link_may_drain(agents, redis, slow_nginx,
                                                                              drain_ms):
    """Without a drain the lock of an order that was running at SIGTERM is left to lapse, as it
    always was; with lbdb.exit_drain_ms its release goes out and is answered before the exit, so
    that the order sent again is taken at once by another agent. A paused Redis holds the exit up
    for the drain time at most."""
    slow_nginx.put("seg/run.ts", b"r" * 14000)  # about 14 s at the source's rate
    (a,) = fleet(agents, redis, n=1, **({"exit_drain_ms": drain_ms} if drain_ms else {}))
    fan_out([a], slow_nginx, ["run.ts"])
    a.wait_for_log(r"udl_lock: \[o-run\.ts\] locked as", timeout=5)
    assert lock_keys(redis) == [PREFIX + "o-run.ts"]
    assert a.stop() == 0
    if not drain_ms:
        assert lock_keys(redis) == [PREFIX + "o-run.ts"] and "lbdb_drain" not in a.log()
        return
    assert lock_keys(redis) == [] and not (a.data_dir / "seg/run.ts").exists()
    assert "lbdb_drain: 1 of 1 commands answered at shut-down" in a.log()
    assert "\tExit drain             = 2000 ms\n" in a.log()

    # The same with Redis paused after the lock was taken: the release is sent but not answered.
    (a,) = fleet(agents, redis, n=1, name="p", exit_drain_ms=drain_ms)
    fan_out([a], slow_nginx, ["run.ts"])
    a.wait_for_log(r"udl_lock: \[o-run\.ts\] locked as", timeout=5)
    redis.proc.send_signal(signal.SIGSTOP)
    try:
        t0 = time.monotonic()
        assert a.stop() == 0
        assert 1.5 < time.monotonic() - t0 < 5
    finally:
        redis.proc.send_signal(signal.SIGCONT)
    assert "lbdb_drain: 0 of 1 commands answered at shut-down" in a.log()
