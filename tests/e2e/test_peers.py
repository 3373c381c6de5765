"""The peers of the end-to-end tests on their own, so that a failing agent test is not a broken peer."""
import errno
import os
import socket
import struct
import urllib.error
import urllib.request

import pytest

from peers import udp_send, udp_send_mcast


def raw_get(port, path, timeout=5):
    """Sends a plain GET and returns everything the server sent until it closed."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as s:
        s.sendall(f"GET {path} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        data = b""
        while True:
            try:
                chunk = s.recv(65536)
            except ConnectionResetError:
                return data, "reset"
            if not chunk:
                return data, "closed"
            data += chunk


def test_nginx_serves_put_file_byte_for_byte(nginx):
    payload = os.urandom(300_000)
    nginx.put("live/a.ts", payload)
    with urllib.request.urlopen(nginx.url("/live/a.ts"), timeout=5) as r:
        assert r.status == 200
        assert int(r.headers["Content-Length"]) == len(payload)
        assert r.read() == payload
    with pytest.raises(urllib.error.HTTPError) as e:
        urllib.request.urlopen(nginx.url("missing.ts"), timeout=5)
    assert e.value.code == 404
    assert "GET /live/a.ts" in nginx.access_log()


def test_redis_answers_and_scripts_are_loaded(redis):
    assert redis.cli("PING").strip() == "PONG"
    digests = {}
    for name in ("add_url", "del_url", "next_url", "mbget_url"):
        text = (redis.sha1_dir / f"{name}.sha1").read_text()
        assert len(text) == 41 and text.endswith("\n"), text
        digests[name] = text.strip()
    assert redis.cli("SCRIPT", "EXISTS", *digests.values()).split() == ["1"] * 4
    assert redis.cli("EVALSHA", digests["add_url"], 1, "seg1", "http://h/seg1", 0).strip() == "OK seg1"


def test_bad_source_records_request_and_answers_per_route(bad_source):
    bad_source.route("/a.ts", body=b"0123456789", headers=[("X-Test", "1")])
    bad_source.route("/nolen", body=b"abc", content_length=None)
    bad_source.route("/cut", body=b"x" * 100, body_cut=10)
    data, how = raw_get(bad_source.port, "/a.ts?expiry=5")
    assert data == b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\nX-Test: 1\r\n\r\n0123456789" and how == "closed"
    assert bad_source.requests[0] == b"GET /a.ts?expiry=5 HTTP/1.1\r\nHost: x\r\n\r\n"
    assert raw_get(bad_source.port, "/nolen")[0] == b"HTTP/1.1 200 OK\r\n\r\nabc"
    data, how = raw_get(bad_source.port, "/cut")
    assert data.endswith(b"\r\n\r\n" + b"x" * 10) and b"Content-Length: 100" in data
    assert raw_get(bad_source.port, "/other")[0].startswith(b"HTTP/1.1 404 ")


def test_bad_source_split_head_stall_and_reset(bad_source):
    bad_source.route("/split", status="200", body=b"ab", head_pause=0.3, head_split=5)
    bad_source.route("/stall", stall=True, stall_timeout=0.5)
    bad_source.route("/rst", body=b"y" * 50, body_cut=4, after_cut="reset")
    with socket.create_connection(("127.0.0.1", bad_source.port), timeout=5) as s:
        s.sendall(b"GET /split HTTP/1.1\r\n\r\n")
        assert s.recv(100) == b"HTTP/"  # the first piece arrives alone
        rest = b""
        while chunk := s.recv(100):
            rest += chunk
        assert rest == b"1.1 200\r\nContent-Length: 2\r\n\r\nab"
    assert raw_get(bad_source.port, "/stall") == (b"", "closed")  # bounded by stall_timeout
    data, how = raw_get(bad_source.port, "/rst")
    assert data.endswith(b"yyyy") and how == "reset"
    assert len(bad_source.wait_requests(3)) == 3


def test_udp_send_unicast_and_multicast_on_loopback():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as r:
        r.settimeout(2)
        r.bind(("127.0.0.1", 0))
        assert udp_send("127.0.0.1", r.getsockname()[1], b"uni") == 3
        assert r.recv(100) == b"uni"
    group = "239.255.12.34"
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as r:
        r.settimeout(2)
        r.bind((group, 0))
        r.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                     socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
        udp_send_mcast(group, r.getsockname()[1], b"multi")
        assert r.recv(100) == b"multi"


def test_udp_send_mcast_ipv6_on_loopback():
    group = "ff15::7e57"
    idx = socket.if_nametoindex("lo")
    with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as r:
        r.settimeout(2)
        r.bind(("::", 0))
        r.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
                     socket.inet_pton(socket.AF_INET6, group) + struct.pack("@I", idx))
        try:
            udp_send_mcast(group, r.getsockname()[1], b"multi6")
        except OSError as e:
            if e.errno == errno.ENETUNREACH:
                pytest.skip("this host's loopback interface carries no IPv6 multicast")
            raise
        assert r.recv(100) == b"multi6"
