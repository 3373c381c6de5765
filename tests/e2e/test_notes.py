"""The README's behaviour notes that other files do not already show: what the agent does with a
source on an IPv6 address, with bytes past the announced length, with an https source or a failing
one (no retry), and with an order from any sender on the channel."""
import socket
import threading

import pytest

from peers import recv_head
from test_download import ask
from test_udp import dl_url, order, with_channel


class V6Source:
    """A one-answer HTTP source on [::1] that records the request head it got."""

    def __init__(self, body):
        self.body, self.heads = body, []
        self.srv = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)
        self.srv.bind(("::1", 0))
        self.srv.listen(4)
        self.srv.settimeout(10)
        self.port = self.srv.getsockname()[1]
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        try:
            conn, _ = self.srv.accept()
        except OSError:
            return
        with conn:
            conn.settimeout(5)
            self.heads.append(recv_head(conn))
            conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(self.body) + self.body)

    def close(self):
        self.srv.close()
        self.thread.join(timeout=5)


def test_ipv6_source_gets_a_bracketed_host(agent):
    src = V6Source(b"6" * 500)
    try:
        agent.start()
        ask(agent, f"http://[::1]:{src.port}/v6.ts", "v6.ts")
        agent.wait_for_log(r"TASK-END ")
    finally:
        src.close()
    assert len(src.heads) == 1
    assert f"\r\nHost: [::1]:{src.port}\r\n".encode() in src.heads[0], src.heads
    assert (agent.data_dir / "v6.ts").read_bytes() == b"6" * 500


def test_bytes_beyond_content_length_are_dropped(agent, bad_source):
    agent.start()
    bad_source.route("/long.ts", raw=b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + b"a" * 100 + b"b" * 60)
    ask(agent, bad_source.url("long.ts"), "long.ts")
    agent.wait_for_log(r"TASK-END ")
    assert "ignoring 60 bytes beyond the content length" in agent.log()
    assert (agent.data_dir / "long.ts").read_bytes() == b"a" * 100


# id -> (route of the source, scheme, the answer). Each source is asked once: the agent neither
# speaks TLS, nor follows a redirect, nor tries again after a failure.
ONE_TRY = {
    "https": (dict(body=b"s" * 50), "https", (400, "Bad request"), 0),
    "redirect": (dict(status="302 Found", headers=[("Location", "/y.ts")], content_length=0), "http",
                 (302, "Moved Temporarily"), 1),
    "status-503": (dict(status="503 Service Unavailable", content_length=0), "http",
                   (503, "Service Unavailable"), 1),
}


@pytest.mark.parametrize("case", list(ONE_TRY))
def test_one_try_over_plain_http(agent, bad_source, case):
    route, scheme, answer, asked = ONE_TRY[case]
    bad_source.route("/one.ts", **route)
    bad_source.route("/y.ts", body=b"y" * 50)
    agent.start()
    ask(agent, bad_source.url("one.ts").replace("http://", scheme + "://"), "one.ts", expect=answer)
    if asked:
        agent.wait_for_log(r"TASK-END ")
    assert len(bad_source.requests) == asked, bad_source.requests
    assert list(agent.data_dir.iterdir()) == []


def test_order_from_any_sender_is_taken(agent, nginx):
    nginx.put("any.ts", b"n" * 700)
    with_channel(agent).start()
    mark = len(agent.log())
    # A sender on another loopback address: the channel does not look at who sent an order.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.9", 0))
        s.sendto(order("anyone1", dl_url(agent, nginx.url("any.ts"), "any.ts")), ("127.0.0.1", agent.udp))
    agent.wait_for_log(r"lid_unlock: anyone1 at \[")
    assert "downloaded: 700 bytes" in agent.log()[mark:]
    assert (agent.data_dir / "any.ts").read_bytes() == b"n" * 700
