"""The peers on their own, so that a failing agent test is not a broken peer."""
import os
import socket
import urllib.request

from peers import udp_send_mcast


def raw_get(port, path):
    """Sends a plain GET; returns what came back until the close, or "reset"."""
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        s.sendall(f"GET {path} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        data = b""
        try:
            while chunk := s.recv(65536):
                data += chunk
        except ConnectionResetError:
            return "reset"
        return data


def test_nginx_serves_files_and_redis_has_the_scripts(nginx, redis):
    payload = os.urandom(300_000)
    nginx.put("live/a.ts", payload)
    assert urllib.request.urlopen(nginx.url("/live/a.ts"), timeout=5).read() == payload
    sha = [(redis.sha1_dir / f"{n}.sha1").read_text().strip() for n in ("add_url", "del_url", "next_url")]
    assert redis.cli("SCRIPT", "EXISTS", *sha).split() == ["1"] * 3


def test_bad_source_answers_per_route(bad_source):
    port = bad_source.port
    bad_source.route("/a.ts", body=b"0123456789", headers=[("X-Test", "1")])
    bad_source.route("/split", status="200", body=b"ab", head_pause=0.3, head_split=5)
    bad_source.route("/rst", body=b"y" * 50, body_cut=4, after_cut="reset")
    assert raw_get(port, "/a.ts?e=5") == b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\nX-Test: 1\r\n\r\n0123456789"
    assert bad_source.requests == [b"GET /a.ts?e=5 HTTP/1.1\r\nHost: x\r\n\r\n"]
    assert raw_get(port, "/split") == b"HTTP/1.1 200\r\nContent-Length: 2\r\n\r\nab"
    assert raw_get(port, "/rst") == "reset"


def test_udp_send_mcast_on_loopback():
    group = "239.255.12.34"
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as r:
        r.settimeout(2)
        r.bind((group, 0))
        r.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                     socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
        udp_send_mcast(group, r.getsockname()[1], b"order")
        assert r.recv(100) == b"order"
