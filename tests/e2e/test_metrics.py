"""The admin listener as an operator's scraper and a person with curl see it: /metrics parsed with
the metrics client's own exposition parser while real downloads, failures and answers happen,
/status parsed as JSON, 404 for every other path, and web listeners that answer as before."""
import json
import resource
import socket
import time

import pytest

from conftest import (FAR, Scrape, admin_get, ask, curl, dl_url, free_port, order, registered,
                      request, wait_scrape)
from test_download import BODY, WHOLE_HEAD


def status(agent):
    lines, body = admin_get(agent, "/status")
    assert "Content-Type: application/json" in lines
    return json.loads(body)


def code_of(answer):
    return int(answer[9:12]) if answer.startswith(b"HTTP/1.1 ") else None


def delta(before, after, name, key):
    return after.family(name).get(key, 0) - before.family(name).get(key, 0)


def test_counters_follow_downloads_failures_and_answers(agent, nginx, bad_source):
    agent.with_admin().start()
    before = Scrape(agent)
    assert before("vsk_build_info", version="0.2-0.7", family="torbella") == 1
    assert abs(before("vsk_start_time_seconds") - time.time()) < 60
    assert before.types["vsk_tasks_started"] == "counter"
    assert before.types["vsk_download_duration_seconds"] == "histogram"
    assert before("vsk_open_fds") > 0 and before("vsk_max_fds") >= before("vsk_open_fds")

    nginx.put("live/ok.ts", BODY)
    bad_source.route("/nolen.ts", body=BODY, content_length=None)
    bad_source.route("/cut.ts", **WHOLE_HEAD)
    ask(agent, nginx.url("live/ok.ts"), "live/ok.ts")
    ask(agent, nginx.url("live/missing.ts"), "live/m.ts", expect=(404, "Not Found"))
    ask(agent, f"http://127.0.0.1:{free_port()}/x.ts", "live/x.ts", expect=(400, "Bad request"))
    ask(agent, bad_source.url("nolen.ts"), "live/n.ts", expect=(500, "Service error"))
    ask(agent, bad_source.url("cut.ts"), "live/c.ts")
    assert curl(agent.port, "/").status == 204
    assert curl(agent.port, "/src/ftp://h/x.ts/dst/y.ts").status == 400
    agent.wait_for_log(r"TASK-END ", count=5)

    after = wait_scrape(agent, lambda s: s("vsk_tasks_ended_total", outcome="source_closed") >= 1)
    assert after("vsk_tasks_active") == 0
    assert after("vsk_tasks_started_total") - before("vsk_tasks_started_total") == 5
    ended = {k: delta(before, after, "vsk_tasks_ended_total", k)
             for k in after.family("vsk_tasks_ended_total")}
    assert ended == {"completed": 1, "source_refused": 1, "source_unreachable": 1,
                     "source_denied": 0, "malformed_answer": 1, "source_closed": 1, "stalled": 0, "write_error": 0,
                     "destination_exists": 0, "shutdown": 0, "other": 0}
    assert after("vsk_downloaded_bytes_total") - before("vsk_downloaded_bytes_total") == \
        len(BODY) + WHOLE_HEAD["body_cut"]
    answers = {k: delta(before, after, "vsk_http_answers_total", k)
               for k in after.family("vsk_http_answers_total")}
    assert answers == {"200": 2, "204": 1, "400": 2, "404": 1, "500": 1}

    # One download went to the end: one observation, counted in every bucket it fits.
    assert after("vsk_download_duration_seconds_count") == 1
    assert 0 < after("vsk_download_duration_seconds_sum") < 10
    buckets = sorted((float(dict(k[1])["le"]), v) for k, v in after.samples.items()
                     if k[0] == "vsk_download_duration_seconds_bucket")
    assert [v for _, v in buckets] == sorted(v for _, v in buckets) and buckets[-1] == (float("inf"), 1)
    # Every scrape holds the one admin connection: nothing else is left open.
    assert after("vsk_open_fds") == before("vsk_open_fds")


def test_status_and_metrics_during_a_download_that_stalls(agent, bad_source):
    body = BODY * 4
    bad_source.route("/slow.ts", body=body, body_cut=5000, after_cut="stall", stall_timeout=4)
    agent.vesk.update(end_stalled_tasks=True, task_tmout_ms=1500)
    agent.with_admin().start()
    ask(agent, bad_source.url("slow.ts"), "live/slow.ts")

    during = wait_scrape(agent, lambda s: s("vsk_downloaded_bytes_total") == 5000)
    assert during("vsk_tasks_active") == 1
    assert during("vsk_requests_queued", type="admin", listener=f"lo:{agent.admin}") == 1
    st = status(agent)
    assert st["version"] == "0.2-0.7" and st["config_file"] == str(agent.config_path)
    assert 0 < st["uptime_seconds"] < 60 and st["data_dir"] == str(agent.data_dir)
    assert [(x["type"], x["alias"], x["queued"]) for x in st["listeners"]] == \
        [("user", f"lo:{agent.port}", 0), ("admin", f"lo:{agent.admin}", 1)]
    assert st["tasks_active"] == 1 and len(st["tasks"]) == 1
    task = st["tasks"][0]
    assert (task["source"], task["destination"], task["bytes"], task["length"], task["state"]) == \
        (bad_source.url("slow.ts"), "live/slow.ts", 5000, len(body), "dnl")
    assert 0 <= task["age_seconds"] < 10

    after = wait_scrape(agent, lambda s: s("vsk_tasks_ended_total", outcome="stalled") == 1)
    assert after("vsk_tasks_active") == 0 and status(agent)["tasks"] == []
    assert after("vsk_download_duration_seconds_count") == 0


def test_channel_orders_are_counted_by_result(agent, nginx, bad_source):
    nginx.put("live/u.ts", BODY)
    bad_source.route("/hold.ts", body=BODY, body_cut=10, after_cut="stall", stall_timeout=3)
    agent.with_channel().with_admin().start()
    agent.send(order("lk01", dl_url(agent, nginx.url("live/u.ts"), "live/u.ts")), r"downloaded: ")
    hold = order("lk02", dl_url(agent, bad_source.url("hold.ts"), "live/h.ts"))
    agent.send(hold, r"TASK-START ")
    agent.send(hold, r"already engaged")
    agent.send([b"#?" + b"y" * 40, b"#!abcd http://x/y 1"], r"invalid message", count=2)
    s = wait_scrape(agent, lambda s: sum(s.family("vsk_udp_orders_total").values()) == 5)
    assert s.family("vsk_udp_orders_total") == {"started": 2, "locked": 1, "malformed": 2,
                                                 "local": 0, "refused": 0, "denied": 0, "error": 0}
    assert s("vsk_tasks_active") == 1


def test_registrations_the_registry_link_and_orders_without_a_fleet_lock(agent, nginx, redis):
    for n in ("r1.ts", "r2.ts", "l1.ts", "l2.ts"):
        nginx.put(f"live/{n}", BODY)
    agent.with_registry(redis).with_channel(lock_backend="redis").with_admin().start()
    agent.wait_for_log(r"udl_ctx_start: request locks in Redis as")
    agent.wait_for_log("lbdb_link: link to .* ready")
    assert Scrape(agent)("vsk_registry_link_up") == 1
    ask(agent, nginx.url("live/r1.ts"), "live/r1.ts", f"expiry={FAR}")
    assert registered(redis, "live/r1.ts")
    # A registration whose expiry lies in the past is refused by the registry's script.
    ask(agent, nginx.url("live/r2.ts"), "live/r2.ts", "expiry=1700000001")
    s = wait_scrape(agent, lambda s: s("vsk_registrations_total", result="failed") == 1)
    assert s.family("vsk_registrations_total") == {"ok": 1, "failed": 1, "dropped": 0}
    assert s("vsk_registrations_pending") == 0
    assert status(agent)["registry"] == {"configured": True, "link_up": True, "pending": 0}
    agent.send(order("lk0001", dl_url(agent, nginx.url("live/l1.ts"), "live/l1.ts")),
               r"downloaded: .*l1\.ts")
    assert Scrape(agent)("vsk_udp_lock_failopen_total") == 0
    # Without the registry an order is taken without a fleet lock, and counted.
    redis.stop()
    wait_scrape(agent, lambda s: s("vsk_registry_link_up") == 0)
    agent.send(order("lk0002", dl_url(agent, nginx.url("live/l2.ts"), "live/l2.ts")), r"order taken anyway")
    s = wait_scrape(agent, lambda s: s("vsk_udp_orders_total", result="started") == 2)
    assert s("vsk_udp_lock_failopen_total") == 1


ADMIN_CASES = [
    (b"GET /metrics?x=1 HTTP/1.1\r\n\r\n", 200),
    (b"GET /status HTTP/1.0\r\n\r\n", 200),
    (b"GET / HTTP/1.1\r\n\r\n", 404),
    (b"GET /metrics/ HTTP/1.1\r\n\r\n", 404),
    (b"GET /Status HTTP/1.1\r\n\r\n", 404),
    (b"GET /src/http://127.0.0.1:1/a.ts/dst/a.ts HTTP/1.1\r\n\r\n", 404),
    (b"HEAD /metrics HTTP/1.1\r\n\r\n", 404),
    (b"POST /status HTTP/1.1\r\nContent-Length: 0\r\n\r\n", 404),
    (b"garbage\r\n\r\n", 400),
]
WEB_PATHS = [b"/", b"/metrics", b"/status", b"/ping", b"/src/ftp://h/a.ts/dst/a.ts"]


def test_admin_answers_only_its_two_paths_and_web_listeners_are_unchanged(agents, tmp_path):
    on = agents("on").with_admin().start()
    off = agents("off").start()
    for req, code in ADMIN_CASES:
        got = request(on.admin, req)
        assert code_of(got) == code, (req, got)
        if code != 200:
            assert got.endswith(b"\r\n\r\n"), (req, got)  # no body
    # The same web requests get the same answers with and without the admin listener.
    for path in WEB_PATHS:
        req = b"GET " + path + b" HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: metrics-test\r\n\r\n"
        assert request(on.port, req) == request(off.port, req), path
    # Without the group there is no admin listener at all.
    assert "1 [admin] listener(s) started" in on.log()
    assert "[admin] listener" not in off.log()


def test_status_larger_than_the_socket_takes_reaches_a_slow_reader(agent, tmp_path):
    # A source that accepts (the kernel does it) and never answers keeps every task in flight.
    # The slow reader comes through a local-domain admin listener: a loopback TCP socket's send
    # buffer grows to megabytes, a local one stays near its default of a few hundred kilobytes.
    ntasks = 1000
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < 4 * ntasks:
        pytest.skip(f"descriptor limit {hard} too low for {ntasks} clients")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, 4 * ntasks), hard))
    long_dir = "d" * 90
    silent = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    silent.bind(("127.0.0.1", 0))
    silent.listen(1024)
    src = f"http://127.0.0.1:{silent.getsockname()[1]}/{long_dir}"
    agent.with_admin()
    unix_path = str(tmp_path / "admin.sock")
    agent.vesk["admin_input"] = [agent.vesk["admin_input"], {"domain_path": unix_path}]
    agent.start()
    clients = []
    try:
        for i in range(ntasks):
            c = socket.create_connection(("127.0.0.1", agent.port), timeout=5)
            c.sendall(f"GET /src/{src}/{i}.ts/dst/live/{i}.ts HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"
                      .encode())
            clients.append(c)
        wait_scrape(agent, lambda s: s("vsk_tasks_active") == ntasks, timeout=20)
        # A reader with a tiny window that starts reading late: the answer cannot go out at once.
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(5)
            s.connect(unix_path)
            s.sendall(b"GET /status HTTP/1.1\r\n\r\n")
            agent.wait_for_log(r"full after \d+/\d+ bytes, waiting")
            data = b""
            while chunk := s.recv(4096):
                data += chunk
        head, _, body = data.partition(b"\r\n\r\n")
        assert f"Content-Length: {len(body)}".encode() in head
        st = json.loads(body)
        assert sorted(t["destination"] for t in st["tasks"]) == \
            sorted(f"live/{i}.ts" for i in range(ntasks))
        assert {(t["state"], t["bytes"]) for t in st["tasks"]} == {("rsp", 0)}
    finally:
        for c in clients:
            c.close()
        silent.close()
