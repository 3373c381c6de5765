"""Answers of sources that break HTTP framing: none of them may leave a file under its final name or
a registry entry behind, and their well-formed neighbours still download byte for byte."""
import re
import time

import pytest

from conftest import ask, files_under, zrange

BODY = bytes(range(256)) * 4  # 1024 bytes
N = len(BODY)


def head(status, *lines):
    return ("\r\n".join([status, *lines]) + "\r\n\r\n").encode("latin-1")


OK_HEAD = head("HTTP/1.1 200 OK", f"Content-Length: {N}")
CHUNKED = f"{N:x}\r\n".encode() + BODY + b"\r\n0\r\n\r\n"

# name: (the exact bytes the source sends, what the one error line must say). One of each place
# where the reading of an answer refuses it; every reason is checked on the parser itself.
MALFORMED = {
    "status_2xx": (head("HTTP/1.1 2xx Whatever", f"Content-Length: {N}") + BODY,
                   "status line [HTTP/1.1 2xx Whatever] is not HTTP/1.0 or HTTP/1.1, a space and "
                   "three digits"),
    "length_differs": (head("HTTP/1.1 200 OK", "Content-Length: 10", f"Content-Length: {N}") + BODY,
                       f"Content-Length values 10 and {N} differ"),
    "chunked": (head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked", f"Content-Length: {len(CHUNKED)}")
                + CHUNKED,
                "Transfer-Encoding [chunked] in a 200 answer: only length-delimited bodies are supported"),
    "partial_206": (head("HTTP/1.1 206 Partial Content", "Content-Length: 512",
                         f"Content-Range: bytes 0-511/{N}") + BODY[:512],
                    f"206 Content-Range [bytes 0-511/{N}] is not the whole 512-byte body"),
}

# name: (the exact bytes the source sends, a line the log must show)
WELL_FORMED = {
    "whole_206": (head("HTTP/1.1 206 Partial Content", f"Content-Range: bytes 0-{N - 1}/{N}",
                       f"Content-Length: {N}") + BODY, "received: HTTP/1.1 206 Partial"),
    "http10": (head("HTTP/1.0 200 OK", f"Content-Length: {N}") + BODY, "received: HTTP/1.0 200 OK"),
    "equal_lengths": (head("HTTP/1.1 200 OK", f"Content-Length: {N}", "X-Cache: hit",
                           f"content-length:  {N} ") + BODY, f"downloaded: {N} bytes"),
    # Bytes beyond the announced length are not part of the file.
    "excess_dropped": (OK_HEAD + BODY + b"trailing junk" * 50,
                       "ignoring 650 bytes beyond the content length"),
}


@pytest.fixture
def registry_agent(agent, redis, bad_source):
    """An agent that registers its downloads in a real Redis, with a scripted source."""
    return agent.with_registry(redis).start()


def fetch(agent, bad_source, raw, expect):
    bad_source.route("/s.ts", raw=raw)
    fds = agent.fds()
    expiry = int(time.time()) + 3600
    ask(agent, bad_source.url("s.ts"), "live/s.ts", f"expiry={expiry}", expect=expect)
    agent.wait_for_log(r"TASK-END ")
    assert agent.wait_fds(fds) == fds
    return expiry


@pytest.mark.parametrize("case", MALFORMED)
def test_malformed_answer_fails_the_task(registry_agent, redis, bad_source, case):
    raw, why = MALFORMED[case]
    agent = registry_agent
    fetch(agent, bad_source, raw, (500, "Service error"))
    assert files_under(agent.data_dir) == []  # neither live/s.ts nor live/s.ts-Vesk
    assert zrange(redis, "live/s.ts") == {}
    log = agent.log()
    lines = [line for line in log.splitlines() if "malformed answer" in line]
    assert len(lines) == 1, lines
    src = re.escape(bad_source.url("s.ts"))
    assert re.search(rf"\(ERR\).*read_src_response: malformed answer from \[{src}\]: ", lines[0]), lines
    assert why in lines[0], lines[0]
    assert "downloaded:" not in log and "TASK-START" in log


@pytest.mark.parametrize("case", WELL_FORMED)
def test_well_formed_neighbour_downloads(registry_agent, redis, bad_source, case):
    raw, logged = WELL_FORMED[case]
    agent = registry_agent
    expiry = fetch(agent, bad_source, raw, (200, "OK"))
    agent.wait_for_log(r"downloaded: ")
    assert (agent.data_dir / "live/s.ts").read_bytes() == BODY
    assert files_under(agent.data_dir) == ["live/s.ts"]
    assert zrange(redis, "live/s.ts") == {"http://127.0.0.1:1/seg/live/s.ts": str(expiry)}
    assert "malformed answer" not in agent.log() and logged in agent.log()
