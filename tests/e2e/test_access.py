"""Access control as an operator relies on it: clients outside vesk.allow_clients get nothing over
HTTP, the UDP channel or the admin listener, and sources outside vesk.allow_sources or inside
vesk.deny_sources are refused with 403 before any connection is made. A bad entry in a list is in
the table of refused configurations (test_daemon)."""
import os
import re
import shutil
import time
from pathlib import Path

import pytest

from conftest import (SOURCE_DIR, Scrape, dl_path, dl_url, files_under, order, raw_get, request,
                      status_of, wait_scrape, wait_until)

BODY = b"segment-data-" * 100


def sample_list(key):
    """The strings of a list key in the sample configuration etc/vsk.conf."""
    text = (SOURCE_DIR / "etc/vsk.conf").read_text()
    m = re.search(rf"^\s*{key}\s*=\s*\[([^\]]*)\]", text, re.M)
    assert m, f"{key} not set in etc/vsk.conf"
    return re.findall(r'"([^"]*)"', m.group(1))


def access_log(nginx):
    p = Path(nginx.dir) / "access.log"
    return p.read_text() if p.exists() else ""


def test_clients_outside_allow_clients_get_nothing(agent, nginx):
    """Web clients, senders of orders and scrapers alike; a burst of them is logged in a line or
    two, not one per client, and the denied orders are counted."""
    nginx.put("seg/a.ts", BODY)
    nginx.put("seg/u.ts", BODY)
    agent.vesk["allow_clients"] = ["127.0.0.2/32", "10.0.0.0/8"]
    agent.with_channel().with_admin().start()
    path = dl_path(nginx.url("seg/a.ts"), "out/a.ts")
    msg = order("lk0001", dl_url(agent, nginx.url("seg/u.ts"), "seg/u.ts"))

    for _ in range(20):
        assert raw_get(agent.port, path) == b""
    agent.send([msg] * 10)
    agent.wait_for_log(r"connection from 127\.0\.0\.1:\d+ refused: not an allowed client")
    agent.wait_for_log(r"datagram from 127\.0\.0\.1:\d+ refused: not an allowed client")
    # A scraper outside the list is closed unanswered, as a web client is.
    assert request(agent.admin, b"GET /metrics HTTP/1.1\r\n\r\n") == b""
    time.sleep(0.3)
    log = agent.log()
    assert len(re.findall(r"connection from .* refused: not an allowed client", log)) <= 2, log[-3000:]
    assert len(re.findall(r"datagram from .* refused", log)) <= 2, log[-3000:]
    assert "URQ [" not in log  # no request object was made
    assert files_under(agent.data_dir) == [] and list(agent.lock_dir.iterdir()) == []
    assert "a.ts" not in access_log(nginx) and "u.ts" not in access_log(nginx)

    # Allowed clients are served as before.
    agent.scrape_from = "127.0.0.2"
    s = Scrape(agent)
    assert s.family("vsk_udp_orders_total") == {"denied": 10, "started": 0, "locked": 0, "malformed": 0,
                                                 "local": 0, "refused": 0, "error": 0}
    assert status_of(raw_get(agent.port, path, "127.0.0.2")) == "HTTP/1.1 200 OK"
    agent.send(msg, r"lid_unlock: lk0001 at \[", source="127.0.0.2")
    assert wait_until("the files", lambda: files_under(agent.data_dir) == ["out/a.ts", "seg/u.ts"])
    assert (agent.data_dir / "out/a.ts").read_bytes() == (agent.data_dir / "seg/u.ts").read_bytes() == BODY


# allow_sources, deny_sources, the source's host as written, and what the log names.
REFUSED = [
    pytest.param(["*.example.com"], [], "127.0.0.1", r"source host \[127\.0\.0\.1\] refused: "
                 r"not in vesk\.allow_sources", id="literal-outside-allow"),
    pytest.param(["*.example.com"], [], "localhost", r"source host \[localhost\] refused: "
                 r"not in vesk\.allow_sources", id="name-outside-allow"),
    pytest.param(["localhost", "10.0.0.0/8"], [], "localhost",
                 r"source address 127\.0\.0\.1 refused: not in vesk\.allow_sources",
                 id="allowed-name-resolving-outside-allowed-prefixes"),
    pytest.param(["localhost"], ["127.0.0.0/8", "::1/128"], "localhost",
                 r"source address (127\.0\.0\.1|::1) refused: in vesk\.deny_sources",
                 id="allowed-name-resolving-into-deny"),
    pytest.param([], ["127.0.0.0/8"], "127.0.0.1",
                 r"source host \[127\.0\.0\.1\] refused: in vesk\.deny_sources",
                 id="literal-in-deny"),
]


@pytest.mark.parametrize("allow, deny, host, logged", REFUSED)
def test_refused_source_gets_403_and_is_never_fetched(agent, nginx, allow, deny, host, logged):
    nginx.put("seg/r.ts", BODY)
    agent.vesk["allow_sources"] = allow
    agent.vesk["deny_sources"] = deny
    agent.with_admin().start()
    r = raw_get(agent.port, dl_path(f"http://{host}:{nginx.port}/seg/r.ts", "out/r.ts"))
    assert status_of(r) == "HTTP/1.1 403 Forbidden", r[:200]
    agent.wait_for_log(logged)
    assert files_under(agent.data_dir) == []
    assert "r.ts" not in access_log(nginx)
    # The agent goes on serving: an allowed request afterwards still gets an answer.
    assert status_of(raw_get(agent.port, "/")) == "HTTP/1.1 204 No Content"
    # A task that was started for the look-up ends as denied.
    s = wait_scrape(agent, lambda s: s.family("vsk_http_answers_total") == {"403": 1, "204": 1})
    assert s("vsk_tasks_ended_total", outcome="source_denied") == s("vsk_tasks_started_total")
    assert s("vsk_tasks_active") == 0


@pytest.mark.parametrize("allow", [["127.0.0.0/8"], ["localhost", "127.0.0.1"], []],
                         ids=["prefix", "name-and-address", "empty-admits-all"])
def test_allowed_source_downloads(agent, nginx, allow):
    nginx.put("seg/ok.ts", BODY)
    agent.vesk["allow_sources"] = allow
    agent.vesk["deny_sources"] = ["169.254.0.0/16", "fe80::/10"]
    agent.start()
    r = raw_get(agent.port, dl_path(nginx.url("seg/ok.ts"), "out/ok.ts"))
    assert status_of(r) == "HTTP/1.1 200 OK", r[:200]
    assert wait_until("the file", lambda: files_under(agent.data_dir) == ["out/ok.ts"])
    assert (agent.data_dir / "out/ok.ts").read_bytes() == BODY


def private_hosts(agent, hosts_text):
    """A start prefix that runs the agent in a mount namespace of its own whose /etc/hosts holds
    `hosts_text`; None where that cannot be made (not root, no unshare)."""
    if os.geteuid() != 0 or not shutil.which("unshare"):
        return None
    hosts = agent.dir / "hosts"
    hosts.write_text(hosts_text)
    script = f'mount --bind "{hosts}" /etc/hosts && exec "$@"'
    return ("unshare", "-m", "--propagation", "private", "sh", "-c", script, "sh")


@pytest.mark.parametrize("host", ["169.254.169.254", "[fe80::1]", "metadata.vsk-test"],
                         ids=["metadata", "v6-link-local", "name-for-metadata"])
def test_sample_deny_list_refuses_link_local_without_connecting(agent, host):
    deny = sample_list("deny_sources")
    assert "169.254.0.0/16" in deny and "fe80::/10" in deny
    agent.vesk["deny_sources"] = deny
    prefix = ()
    if not host[0].isdigit() and host[0] != "[":
        prefix = private_hosts(agent, f"127.0.0.1 localhost\n169.254.169.254 {host}\n")
        if prefix is None:
            pytest.skip("no private mount namespace for /etc/hosts here (needs root)")
    agent.start(prefix=prefix)
    r = raw_get(agent.port, dl_path(f"http://{host}/latest/meta-data", "out/meta"))
    assert status_of(r) == "HTTP/1.1 403 Forbidden", r[:200]
    # A literal is refused as written, a name once it has been looked up.
    agent.wait_for_log(r"source (host \[(169\.254\.169\.254|fe80::1)\]|address 169\.254\.169\.254) "
                       r"refused: in vesk\.deny_sources")
    log = agent.log()
    # Refused before a socket was made for it: nothing was connected, nothing waited on.
    assert "CONNECT [fd" not in log and "CLIENT unicast" not in log, log[-3000:]
    assert files_under(agent.data_dir) == []


def test_udp_order_for_refused_source_starts_nothing(agent, nginx):
    nginx.put("seg/d.ts", BODY)
    agent.vesk["deny_sources"] = ["127.0.0.0/8"]
    agent.with_channel().start()
    agent.send(order("lk0002", dl_url(agent, nginx.url("seg/d.ts"), "d.ts")),
               r"request failed; url=\[.*d\.ts\], rc=13")
    assert list(agent.lock_dir.iterdir()) == []
    assert files_under(agent.data_dir) == []
    assert "d.ts" not in access_log(nginx)
