"""Access control as an operator relies on it: clients outside vesk.allow_clients get nothing over
HTTP or the UDP channel, sources outside vesk.allow_sources or inside vesk.deny_sources are refused
with 403 before any connection is made, and a bad entry in any list stops the start-up."""
import os
import re
import shutil
import socket
import time
from pathlib import Path

import pytest

from conftest import SOURCE_DIR, minimal_config, run_vsk
from peers import udp_send
from test_download import dl_path, files_under, read_all
from test_udp import dl_url, order, with_channel

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


def raw_get(port, path, source_ip="127.0.0.1"):
    """One GET to the agent on 127.0.0.1 from the loopback address `source_ip`; what came back.
    The path goes out exactly as written (curl would glob the brackets of an IPv6 literal)."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.settimeout(10)
        s.bind((source_ip, 0))
        s.connect(("127.0.0.1", port))
        try:
            s.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: vsk-e2e\r\n\r\n".encode())
        except (BrokenPipeError, ConnectionResetError):
            return b""
        return read_all(s)


def status_of(answer):
    return answer.split(b"\r\n", 1)[0].decode("latin-1")


def wait_file(path, timeout=10):
    deadline = time.monotonic() + timeout
    while not path.exists() and time.monotonic() < deadline:
        time.sleep(0.05)
    return path.read_bytes() if path.exists() else None


def test_client_outside_allow_clients_is_closed_unanswered(agent, nginx):
    nginx.put("seg/a.ts", BODY)
    agent.vesk["allow_clients"] = ["127.0.0.2/32", "10.0.0.0/8"]
    agent.start()
    path = dl_path(nginx.url("seg/a.ts"), "out/a.ts")

    # A burst of refused clients: none is answered, and the log gets one line, not one per client.
    for _ in range(20):
        assert raw_get(agent.port, path, "127.0.0.1") == b""
    lines = agent.wait_for_log(r"connection from 127\.0\.0\.1:\d+ refused: not an allowed client")
    time.sleep(0.3)
    assert len(re.findall(r"refused: not an allowed client", agent.log())) <= 2, agent.log()[-3000:]
    assert lines
    assert files_under(agent.data_dir) == []
    assert "a.ts" not in access_log(nginx)
    assert "URQ [" not in agent.log()  # no request object was made

    # An allowed client is served as before.
    answer = raw_get(agent.port, path, "127.0.0.2")
    assert status_of(answer) == "HTTP/1.1 200 OK", answer[:200]
    assert wait_file(agent.data_dir / "out/a.ts") == BODY


def test_datagram_outside_allow_clients_is_dropped(agent, nginx):
    nginx.put("seg/u.ts", BODY)
    with_channel(agent)
    agent.vesk["allow_clients"] = ["127.0.0.2/32"]
    agent.start()
    msg = order("lk0001", dl_url(agent, nginx.url("seg/u.ts"), "seg/u.ts"))

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        for _ in range(10):
            s.sendto(msg, ("127.0.0.1", agent.udp))
    agent.wait_for_log(r"datagram from 127\.0\.0\.1:\d+ refused: not an allowed client")
    time.sleep(0.3)
    assert len(re.findall(r"datagram from .* refused", agent.log())) <= 2
    assert list(agent.lock_dir.iterdir()) == []
    assert files_under(agent.data_dir) == []
    assert "u.ts" not in access_log(nginx)

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.2", 0))
        s.sendto(msg, ("127.0.0.1", agent.udp))
    assert wait_file(agent.data_dir / "seg/u.ts") == BODY


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
    agent.start()
    r = raw_get(agent.port, dl_path(f"http://{host}:{nginx.port}/seg/r.ts", "out/r.ts"))
    assert status_of(r) == "HTTP/1.1 403 Forbidden", r[:200]
    agent.wait_for_log(logged)
    assert files_under(agent.data_dir) == []
    assert "r.ts" not in access_log(nginx)
    # The agent goes on serving: an allowed request afterwards still gets an answer.
    assert status_of(raw_get(agent.port, "/")) == "HTTP/1.1 204 No Content"


@pytest.mark.parametrize("allow", [["127.0.0.0/8"], ["localhost", "127.0.0.1"], []],
                         ids=["prefix", "name-and-address", "empty-admits-all"])
def test_allowed_source_downloads(agent, nginx, allow):
    nginx.put("seg/ok.ts", BODY)
    agent.vesk["allow_sources"] = allow
    agent.vesk["deny_sources"] = ["169.254.0.0/16", "fe80::/10"]
    agent.start()
    r = raw_get(agent.port, dl_path(nginx.url("seg/ok.ts"), "out/ok.ts"))
    assert status_of(r) == "HTTP/1.1 200 OK", r[:200]
    assert wait_file(agent.data_dir / "out/ok.ts") == BODY


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
    with_channel(agent)
    agent.vesk["deny_sources"] = ["127.0.0.0/8"]
    agent.start()
    udp_send("127.0.0.1", agent.udp, order("lk0002", dl_url(agent, nginx.url("seg/d.ts"), "d.ts")))
    agent.wait_for_log(r"request failed; url=\[.*d\.ts\], rc=13")
    assert list(agent.lock_dir.iterdir()) == []
    assert files_under(agent.data_dir) == []
    assert "d.ts" not in access_log(nginx)


@pytest.mark.parametrize("key, value, message", [
    ("allow_clients", ["10.0.0.0/8", "10.1.0.0/8"],
     "vesk.allow_clients: bad entry [10.1.0.0/8]: address has bits set past the prefix length"),
    ("allow_clients", ["localhost"],
     "vesk.allow_clients: bad entry [localhost]: not an IPv4 or IPv6 address"),
    ("allow_sources", ["a..example.com"],
     "vesk.allow_sources: bad entry [a..example.com]: host name has an empty label"),
    ("allow_sources", ["10.0.0.0/33"],
     "vesk.allow_sources: bad entry [10.0.0.0/33]: prefix length above 32"),
    ("deny_sources", ["fe80::/129"],
     "vesk.deny_sources: bad entry [fe80::/129]: prefix length above 128"),
    ("deny_sources", "169.254.0.0/16", "vesk.deny_sources must be a list of strings"),
    ("deny_sources", [16], "vesk.deny_sources: entry 1 is not a string"),
])
def test_bad_list_entry_stops_start_up(tmp_path, key, value, message):
    path = minimal_config(tmp_path, **{key: value})
    # The same message at start-up and from a configuration check.
    for args in ((), ("-t",)):
        r = run_vsk("-C", path, *args)
        assert r.returncode == 1, (args, r.stderr)
        assert message in r.stderr, (args, r.stderr)
