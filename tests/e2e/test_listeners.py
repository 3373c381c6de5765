"""The agent's listeners as a client meets them: web listeners on IPv4 and IPv6 loopback from the
file and the command line, a local-domain listener and a UDP one, what each logs when it starts,
the bare-path answer, ports taken by someone else, and closed ports after the agent has quit."""
import errno
import re
import socket

import pytest

from conftest import free_port, ping

NO_CONTENT = b"HTTP/1.1 204 No Content\r\n"


def refused(address):
    family = socket.AF_UNIX if isinstance(address, str) else socket.AF_INET6 if ":" in address[0] else socket.AF_INET
    with socket.socket(family, socket.SOCK_STREAM) as s:
        s.settimeout(2)
        try:
            s.connect(address)
        except (ConnectionRefusedError, FileNotFoundError):
            return True
    return False


def started_line(place, port):
    return rf"\(INF\)  VSK  STARTED listener fd\d+ for URQ requests on {re.escape(place)}:{port}; 0 requests pending\n"


def test_web_listeners_from_file_and_command_line(agent):
    p4, p6, pcli = agent.port, free_port(socket.AF_INET6), free_port()
    agent.vesk["web_input"] = [
        {"ifc": "lo", "port": p4, "default_af": "ipv4"},
        {"ifc": "lo", "port": str(p6), "default_af": "ipv6"},
    ]
    agent.start("-w", f"lo:{pcli}")
    for port in (p4, p6, pcli):
        agent.wait_for_log(started_line("lo", port))
    assert "rui_enable_listeners: 3 [user] listener(s) started\n" in agent.log()
    assert "\tuser listener[web-cli]: ifc=lo, af=" in agent.log()

    endpoints = [("127.0.0.1", p4), ("::1", p6), ("127.0.0.1", pcli)]
    for address in endpoints:
        assert ping(address).startswith(NO_CONTENT), address
    log = agent.log()
    assert re.search(rf"Accepted lo:{p4} request \[fd=\d+\] from 127\.0\.0\.1:\d+\n", log)
    assert re.search(rf"Accepted lo:{p6} request \[fd=\d+\] from \[::1\]:\d+\n", log)
    assert re.search(r"Accepted web-cli request \[fd=\d+\] from 127\.0\.0\.1:\d+\n", log)
    assert agent.log().count("PONG!") == 3

    assert agent.stop() == 0
    assert "stop_listeners: 3 [user] listener(s) destroyed\n" in agent.log()
    for address in endpoints:
        assert refused(address), address


def test_command_line_listener_slot(agents):
    # -w/-W fill the third slot, and a second one overwrites the first: only the last one listens.
    a = agents("two-cli")
    a.vesk["web_input"].append({"ifc": "lo", "port": free_port(), "default_af": "ipv4"})
    p4, p6 = free_port(), free_port(socket.AF_INET6)
    a.start("-w", f"lo:{p4}", "-W", f"lo:{p6}")
    a.wait_for_log(started_line("lo", p6))
    assert "rui_enable_listeners: 3 [user] listener(s) started\n" in a.log()
    assert ping(("::1", p6)).startswith(NO_CONTENT)
    assert refused(("127.0.0.1", p4))
    assert a.stop() == 0

    # Behind a single file listener the second slot is empty, and listeners are taken up to the
    # first empty slot: the command-line one is not started.
    b = agents("behind-gap")
    pcli = free_port()
    b.start("-w", f"lo:{pcli}")
    assert "rui_enable_listeners: 1 [user] listener(s) started\n" in b.log()
    assert "web-cli" not in b.log()
    assert refused(("127.0.0.1", pcli))
    assert b.stop() == 0

    # Without a listener in the file the first slot stays empty, which the final check refuses.
    c = agents("cli-only")
    del c.vesk["web_input"]
    c.start("-w", f"lo:{free_port()}", wait_for=None)
    assert c.wait_exit() == 1
    assert "at least one listener must be present" in c.stderr()


def test_local_domain_listener(agent, tmp_path):
    path = tmp_path / "vsk.sock"
    assert len(str(path)) < 100, "the socket path must fit the listener's field"
    path.write_text("a stale file where the socket goes\n")
    agent.vesk["web_input"] = {"domain_path": str(path)}
    agent.start()
    agent.wait_for_log(started_line(str(path), ""))
    assert f"\tuser listener[]: path={path}\n" in agent.log()
    assert path.is_socket()
    assert ping(str(path)).startswith(NO_CONTENT)
    assert "PONG!" in agent.log()
    assert agent.stop() == 0
    assert refused(str(path))


def test_udp_listener(agent):
    port = free_port(kind=socket.SOCK_DGRAM)
    agent.vesk["web_input"] = {"ifc": "lo", "port": port, "protocol": "udp"}
    agent.start()
    agent.wait_for_log(started_line("lo", port))
    # The agent holds the port: an ordinary bind is refused while it runs and works after it quit.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        with pytest.raises(OSError) as e:
            s.bind(("127.0.0.1", port))
        assert e.value.errno == errno.EADDRINUSE
    # A datagram cannot be accepted: it is dropped with one warning, not retried on every pass.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.sendto(b"GET / HTTP/1.1\r\n\r\n", ("127.0.0.1", port))
    agent.wait_for_log(rf"\(WRN\)  VSK  rui_accept\(lo:{port}\): 1 datagram\(s\) dropped, the last "
                       r"from 127\.0\.0\.1:\d+: a datagram listener takes no requests\n")
    assert not re.search(r": accept\(\d+, ", agent.log())
    assert agent.stop() == 0
    assert agent.log().count("datagram(s) dropped") == 1
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", port))


def test_port_taken_by_another_program(agent):
    """The second of three listeners finds its port taken by a plain listener without SO_REUSEPORT:
    start-up ends, and the log says which listeners never got a socket, not only the one that
    failed."""
    ports = [agent.port, free_port(), free_port()]
    agent.vesk["web_input"] = [{"alias": f"web-{i}", "ifc": "lo", "port": p, "default_af": "ipv4"}
                               for i, p in enumerate(ports)]
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", ports[1]))
        taken.listen(1)
        agent.start(wait_for=None)
        assert agent.wait_exit() == 1
    log = agent.log()
    assert "failed to start URQ listener\n" in log and "STARTING" not in log
    assert re.search(r" EXIT\(1\)\. PID=\d+\n$", log), log[-500:]
    assert "rui_ctx_start: [user] listener[web-1] not started\n" in log, log[-3000:]
    assert "rui_ctx_start: [user] listener[web-2] not started\n" in log
    assert "listener[web-0] not started" not in log
