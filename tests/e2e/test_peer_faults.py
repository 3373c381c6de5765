"""Outside peers that stall or vanish: a Redis paused with SIGSTOP or killed and restarted, name
servers that refuse a name or never answer. The agent must go on serving and downloading, quit on
SIGTERM, and report what the peer cost it in its log."""
import re
import signal
import subprocess
import time

import pytest

from conftest import (FAR, SOURCE_DIR, ask, curl, dl_path, files_under, never_accepting_port, ping,
                      raw_get, registered, status_of, zrange)
from peers import Redis


def download(agent, nginx, name, expiry=FAR):
    nginx.put(f"live/{name}", name.encode() * 100)
    ask(agent, nginx.url(f"live/{name}"), f"live/{name}", f"expiry={expiry}")


# ---- Redis ----------------------------------------------------------------------------------------

@pytest.mark.parametrize("ending", ["sigcont", "time-out", "sigterm"])
def test_paused_redis_never_stops_the_loop(agent, redis, nginx, ending):
    """Downloads finish and requests are answered while Redis is paused; the registrations sent
    meanwhile arrive once it goes on, or fail with a logged time-out; SIGTERM ends the agent."""
    agent.with_registry(redis, cmd_tmout_ms=400 if ending == "time-out" else 20000).start()
    agent.wait_for_log("lbdb_link: link to .* ready")
    redis.proc.send_signal(signal.SIGSTOP)
    try:
        for name in ("p1.ts", "p2.ts"):
            download(agent, nginx, name)
        agent.wait_for_log(r"downloaded: ", count=2)
        assert files_under(agent.data_dir) == ["live/p1.ts", "live/p2.ts"]
        assert ping(agent.port).startswith(b"HTTP/1.1 ")
        if ending == "sigterm":
            agent.quit_within(2)
            assert "add_lbdb_url: failed to add [http://127.0.0.1:1/seg/live/p1.ts]" in agent.log()
            return
        if ending == "time-out":
            agent.wait_for_log(r"lbdb_link: no reply from 127\.0\.0\.1:\d+ within 400 ms")
            agent.wait_for_log(r"add_lbdb_url: failed to add \[[^]]*live/p2\.ts\]")
            assert "lbdb_add_segurl: NULL as reply" in agent.log()
            assert "lbdb_link: reconnection is off, every registration fails from now on" in agent.log()
        time.sleep(0.3)
    finally:
        redis.proc.send_signal(signal.SIGCONT)
    if ending == "sigcont":
        for name in ("p1.ts", "p2.ts"):
            assert registered(redis, f"live/{name}") == {f"http://127.0.0.1:1/seg/live/{name}": str(FAR)}
        assert "failed to add" not in agent.log()
    else:
        # Without reconnection the link stays down: a later registration fails at once.
        download(agent, nginx, "p3.ts")
        agent.wait_for_log(r"add_lbdb_url: failed to add \[[^]]*live/p3\.ts\]")
        assert zrange(redis, "live/p3.ts") == {}
    assert agent.stop() == 0


def test_restarted_redis_gets_the_queued_registrations(agent, redis, nginx, tmp_path):
    """Killed and restarted on the same port: the link comes back by itself, what waited is sent in
    order, an expired registration and the oldest beyond the queue's length are dropped, logged."""
    agent.with_registry(redis, reconnect_ms=100, max_pending=3, cmd_tmout_ms=1000).start()
    agent.wait_for_log("lbdb_link: link to .* ready, 0 queued")
    redis.stop()
    agent.wait_for_log(r"lbdb_link: link to 127\.0\.0\.1:\d+ lost")

    soon = int(time.time()) + 2
    for name, expiry in (("q1.ts", FAR), ("q2.ts", FAR), ("q3.ts", soon), ("q4.ts", FAR), ("q5.ts", FAR)):
        download(agent, nginx, name, expiry)
        agent.wait_for_log(rf"downloaded: .*live/{name}\]")
    log = agent.log()
    drops = re.findall(r"lbdb_drop: dropped \[live/(q\d)\.ts\] \(queue full\)", log)
    assert drops == ["q1", "q2"], log[-3000:]
    assert ping(agent.port).startswith(b"HTTP/1.1 ")

    while time.time() <= soon + 1:
        time.sleep(0.1)
    restarted = Redis(tmp_path / "redis", redis.port, SOURCE_DIR).start()
    try:
        agent.wait_for_log(r"lbdb_link: link to 127\.0\.0\.1:\d+ ready", count=2, timeout=15)
        for name in ("q4.ts", "q5.ts"):
            assert list(registered(restarted, f"live/{name}")) == [f"http://127.0.0.1:1/seg/live/{name}"]
        for name in ("q1.ts", "q2.ts", "q3.ts"):
            assert zrange(restarted, f"live/{name}") == {}
        assert "lbdb_drop: dropped [live/q3.ts] (expired)" in agent.log()
        assert re.search(r"lbdb_link: reconnecting to 127\.0\.0\.1:\d+ in 100 ms", agent.log())
        assert "failed to add" not in agent.log()
    finally:
        restarted.stop()
    assert agent.stop() == 0


def test_drops_are_logged_with_a_rate_limit(agent, redis):
    """No room to wait and the link down: every registration is dropped, at most ten lines a
    second name them, the rest are counted."""
    agent.with_registry(redis, reconnect_ms=60000, max_pending=0).start()
    agent.wait_for_log("lbdb_link: link to .* ready")
    redis.stop()
    agent.wait_for_log(r"lbdb_link: link to 127\.0\.0\.1:\d+ lost")
    prefix = agent.vesk["local_url_prefix"].rstrip("/")
    for i in range(30):  # our own URLs: only registered, answered at once
        answer = raw_get(agent.port, dl_path(f"{prefix}/live/r{i}.ts", f"live/r{i}.ts", "expiry=600"))
        assert status_of(answer) == "HTTP/1.1 200 OK"
    agent.wait_for_log(r"lbdb_drop: \d+ more queued commands dropped")
    log = agent.log()
    named = re.findall(r"lbdb_drop: dropped \[live/r(\d+)\.ts\] \(queue full\)", log)
    counted = sum(int(n) for n in re.findall(r"lbdb_drop: (\d+) more queued commands dropped", log))
    assert len(named) <= 20 and counted >= 10 and len(named) + counted == 30, log[-3000:]
    nums = [int(n) for n in named]
    assert nums[0] == 0 and nums == sorted(set(nums)), named  # in the order they were dropped
    assert "failed to add" not in log
    assert agent.stop() == 0


# ---- Names ----------------------------------------------------------------------------------------

def curl_bg(port, path):
    return subprocess.Popen(["curl", "-sS", "-i", "--max-time", "10", f"http://127.0.0.1:{port}{path}"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)


def test_name_that_does_not_exist_fails_the_task(name_agent, nginx):
    agent, ns = name_agent("nxdomain")
    agent.start()
    src = f"http://nosuch.vsk-test:{nginx.port}/live/n.ts"
    r = curl(agent.port, dl_path(src, "live/n.ts"))
    assert (r.status, r.reason) == (500, "Service error"), r
    log = agent.log()
    assert "rsv_lookup: [nosuch.vsk-test] did not resolve: Domain name not found" in log, log[-2000:]
    assert f"connect_to_src: failed to open [{src}]" in log
    assert ns.queries >= 1 and files_under(agent.data_dir) == []
    assert agent.stop() == 0


def test_a_refused_address_passes_the_download_to_the_next_one(name_agent, nginx):
    # nginx listens on 127.0.0.1 only: the name's first address refuses the connection.
    agent, ns = name_agent("nxdomain", hosts="127.0.0.2 multi.vsk-test\n127.0.0.1 multi.vsk-test\n"
                                              "127.0.0.3 dead.vsk-test\n127.0.0.4 dead.vsk-test\n")
    agent.start()
    nginx.put("live/m.ts", b"m" * 7000)
    src = f"http://multi.vsk-test:{nginx.port}/live/m.ts"
    ask(agent, src, "live/m.ts")
    agent.wait_for_log(r"downloaded: ")
    assert (agent.data_dir / "live/m.ts").read_bytes() == b"m" * 7000
    log = agent.log()
    assert re.search(rf"try_next_address: \[{re.escape(src)}\] no connection on fd\d+, "
                     r"trying the next address 127\.0\.0\.1\n", log), log[-3000:]
    # Every address refusing: the one failure a refused source always had, after trying each.
    src = f"http://dead.vsk-test:{nginx.port}/live/m.ts"
    r = curl(agent.port, dl_path(src, "live/d.ts"))
    assert (r.status, r.reason) == (400, "Bad request"), r
    assert agent.log().count("trying the next address 127.0.0.4") == 1 and ns.queries == 0
    assert files_under(agent.data_dir) == ["live/m.ts"]
    assert agent.stop() == 0


def test_an_address_that_never_connects_passes_the_download_on_at_the_task_time_out(name_agent, nginx):
    # The first address drops the SYN (a full listener on nginx's port), the second is nginx.
    held = never_accepting_port("127.0.0.6", nginx.port)
    agent, _ = name_agent("nxdomain", hosts="127.0.0.6 hang.vsk-test\n127.0.0.1 hang.vsk-test\n")
    agent.vesk.update(end_stalled_tasks=True, task_tmout_ms=800)
    agent.start()
    nginx.put("live/h.ts", b"h" * 9000)
    src = f"http://hang.vsk-test:{nginx.port}/live/h.ts"
    t0 = time.monotonic()
    r = curl(agent.port, dl_path(src, "live/h.ts"))
    assert (r.status, r.reason) == (200, "OK"), r
    agent.wait_for_log(r"downloaded: ")
    assert 0.8 <= time.monotonic() - t0 < 5
    assert (agent.data_dir / "live/h.ts").read_bytes() == b"h" * 9000
    log = agent.log()
    assert re.search(r"\(WRN\)  \S+  \[T0001\] \(0x[0-9a-f]+\) timed out after \d+ ms\n.*"
                     r"try_next_address: \[.*\] no connection on fd\d+, trying the next address 127\.0\.0\.1",
                     log, re.S), log[-3000:]
    assert agent.stop() == 0
    for s in held:
        s.close()


def test_silent_name_server_times_out_while_the_loop_serves(name_agent, nginx):
    agent, ns = name_agent("silent")
    agent.vesk["resolve_tmout_ms"] = 3000
    agent.start()
    # A name from the hosts file needs no name server.
    nginx.put("live/h.ts", b"h" * 5000)
    ask(agent, f"http://localhost:{nginx.port}/live/h.ts", "live/h.ts")
    agent.wait_for_log(r"downloaded: ")
    assert (agent.data_dir / "live/h.ts").read_bytes() == b"h" * 5000
    assert "rsv_lookup: [localhost] looked up" in agent.log() and ns.queries == 0

    srcs = [f"http://slow.vsk-test:{nginx.port}/live/s{i}.ts" for i in (1, 2)]
    t0 = time.monotonic()
    waiting = [curl_bg(agent.port, dl_path(s, f"live/s{i}.ts")) for i, s in enumerate(srcs, 1)]
    agent.wait_for_log(r"rsv_lookup: \[slow\.vsk-test\] joins the lookup under way")

    # The loop goes on meanwhile: pings and a download from a numeric source are served.
    assert ping(agent.port).startswith(b"HTTP/1.1 ")
    download(agent, nginx, "fast.ts")
    agent.wait_for_log(r"downloaded: .*live/fast\.ts\]")
    assert time.monotonic() - t0 < 2.8 and all(p.poll() is None for p in waiting)

    for p in waiting:
        out, _ = p.communicate(timeout=10)
        assert out.startswith(b"HTTP/1.1 500 Service error\r\n"), out
    assert 2.9 < time.monotonic() - t0 < 8
    log = agent.log()
    assert log.count("rsv_lookup: [slow.vsk-test] looked up") == 1
    assert log.count("rsv_lookup: [slow.vsk-test] did not resolve: no answer within 3000 ms") == 1
    for s in srcs:
        assert f"connect_to_src: failed to open [{s}]" in log
    assert ns.queries >= 1 and files_under(agent.data_dir) == ["live/fast.ts", "live/h.ts"]
    assert agent.stop() == 0
