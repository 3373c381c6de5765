#!/usr/bin/python3
"""Download throughput of the agent: runs the release vsk against a local nginx on loopback,
asks it for many small, medium and large files with a bounded number in flight, and prints for
each batch the wall time, files/s, MiB/s, the agent's CPU time and the time to its 200 answer.

Every downloaded file is checked by size (a sample also by SHA-256) before its figures count.
Run with /usr/bin/python3; `--quick` scales the counts down for a smoke run of a few seconds.
"""
import argparse
import errno
import hashlib
import os
import re
import selectors
import shutil
import signal
import socket
import sys
import tempfile
import time
from collections import deque
from pathlib import Path

SOURCE_DIR = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(SOURCE_DIR / "tests/e2e"))
try:
    import conftest  # noqa: E402  (Agent, free_port; it needs pytest, which `make deps` installs)
    from peers import Nginx  # noqa: E402
except ImportError as e:
    sys.exit(f"cannot import the end-to-end peers ({e}); run `make deps` first")

KiB = 1024
MiB = 1024 * KiB
EXPIRY_AHEAD_S = 3600
POLL_S = 0.003          # longest idle wait between looks at the log
SHA_SAMPLES = 16        # files per batch compared byte for byte through SHA-256

DONE_RE = re.compile(r"downloaded: (\d+) bytes, \[([^\]]*)\] to \[([^\]]*)\]")
END_RE = re.compile(r"TASK-END \[[^\]]*\] \([^)]*\) \[([^\]]*)\]->\[([^\]]*)\]")


class Scenario:
    def __init__(self, name, count, size, concurrency, time_limit):
        self.name, self.count, self.size = name, count, size
        self.concurrency, self.time_limit = concurrency, time_limit


FULL = [
    Scenario("small-16KiB", 2000, 16 * KiB, 200, 60),
    Scenario("medium-1MiB", 200, 1 * MiB, 50, 60),
    Scenario("large-64MiB", 8, 64 * MiB, 4, 120),
]
QUICK = [
    Scenario("small-16KiB", 200, 16 * KiB, 50, 20),
    Scenario("medium-1MiB", 20, 1 * MiB, 10, 20),
    Scenario("large-64MiB", 2, 64 * MiB, 2, 30),
]


class BenchError(Exception):
    pass


def cpu_seconds(pid):
    """User plus system CPU time of a process, from /proc/<pid>/stat."""
    with open(f"/proc/{pid}/stat") as f:
        text = f.read()
    # The command name may hold spaces and parentheses: count fields from the last ")".
    fields = text[text.rindex(")") + 2:].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def percentile(values, p):
    """Nearest-rank percentile of a non-empty list."""
    s = sorted(values)
    k = max(0, min(len(s) - 1, -(-len(s) * p // 100) - 1))
    return s[int(k)]


class LogTail:
    """Reads the agent's log as it grows and hands out complete lines."""

    def __init__(self, path):
        self.f = open(path, "rb")
        self.f.seek(0, os.SEEK_END)
        self.rest = b""

    def lines(self):
        chunk = self.f.read()
        if not chunk:
            return []
        data = self.rest + chunk
        *whole, self.rest = data.split(b"\n")
        return [x.decode("latin-1") for x in whole]

    def close(self):
        self.f.close()


class Request:
    """One download order: its client connection and what became of it."""

    __slots__ = ("idx", "url", "text", "sock", "sent", "t_start", "t_answer", "status", "head",
                 "answered", "on_disk", "failed")

    def __init__(self, idx, url, text):
        self.idx, self.url, self.text = idx, url, text
        self.sock = None
        self.sent = False
        self.t_start = self.t_answer = None
        self.status = None
        self.head = b""
        self.answered = self.on_disk = False
        self.failed = None

    def finished(self):
        return self.failed is not None or (self.answered and self.on_disk)


class Driver:
    """Keeps up to `concurrency` downloads in flight on one selector: a slot is taken by the
    connect and given back once the file is final on disk (or the download failed)."""

    def __init__(self, agent_port, log_tail, requests, concurrency):
        self.port = agent_port
        self.log = log_tail
        self.reqs = requests
        self.by_url = {r.url: r for r in requests}
        self.conc = concurrency
        self.sel = selectors.DefaultSelector()
        self.in_flight = 0
        self.finished = 0
        self.t_last = None

    def run(self, deadline):
        pending = deque(self.reqs)
        try:
            while self.finished < len(self.reqs):
                if time.monotonic() > deadline:
                    raise BenchError(f"time limit reached with {self.finished}/{len(self.reqs)} "
                                     f"downloads finished, {self.in_flight} in flight")
                while pending and self.in_flight < self.conc:
                    self._start(pending.popleft())
                for key, _ in self.sel.select(timeout=POLL_S if self.sel.get_map() else 0):
                    self._on_socket(key.data)
                self._read_log()
                if not self.sel.get_map() and self.in_flight and not pending:
                    time.sleep(POLL_S)
        finally:
            for key in list(self.sel.get_map().values()):
                self.sel.unregister(key.fileobj)
                key.fileobj.close()
            self.sel.close()
        return self.t_last

    def _start(self, r):
        self.in_flight += 1
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        s.setblocking(False)
        r.sock = s
        r.t_start = time.monotonic()
        rc = s.connect_ex(("127.0.0.1", self.port))
        if rc not in (0, errno.EINPROGRESS):
            self._fail(r, f"connect: {os.strerror(rc)}")
            return
        self.sel.register(s, selectors.EVENT_WRITE, r)

    def _close(self, r):
        if r.sock is not None:
            try:
                self.sel.unregister(r.sock)
            except KeyError:
                pass
            r.sock.close()
            r.sock = None

    def _settle(self, r):
        if r.finished():
            self.in_flight -= 1
            self.finished += 1
            self.t_last = time.monotonic()

    def _fail(self, r, why):
        if r.finished():
            return
        self._close(r)
        r.failed = why
        self._settle(r)

    def _on_socket(self, r):
        s = r.sock
        if not r.sent:
            err = s.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
            if err:
                self._fail(r, f"connect: {os.strerror(err)}")
                return
            try:
                s.send(r.text)  # a few hundred bytes always fit an empty socket buffer
            except OSError as e:
                self._fail(r, f"send: {e}")
                return
            r.sent = True
            self.sel.modify(s, selectors.EVENT_READ, r)
            return
        try:
            chunk = s.recv(4096)
        except BlockingIOError:
            return
        except OSError as e:
            chunk = b""
            if r.t_answer is None:
                self._fail(r, f"recv: {e}")
                return
        if chunk and r.t_answer is None:
            r.head += chunk
            if b"\r\n" in r.head:
                r.t_answer = time.monotonic()
                m = re.match(rb"HTTP/1\.[01] (\d{3})", r.head)
                r.status = int(m.group(1)) if m else None
        if chunk:
            return
        # The agent closes the connection after its one answer.
        self._close(r)
        if r.status != 200:
            line = r.head.split(b"\r\n", 1)[0].decode("latin-1")
            self._fail(r, f"answer {line!r}" if line else "closed without an answer")
            return
        r.answered = True
        self._settle(r)

    def _read_log(self):
        for line in self.log.lines():
            m = DONE_RE.search(line)
            if m:
                r = self.by_url.get(m.group(2))
                if r is not None and not r.finished():
                    r.on_disk = True
                    self._settle(r)
                continue
            m = END_RE.search(line)
            if m and m.group(2).endswith("-Vesk"):
                r = self.by_url.get(m.group(1))
                if r is not None and not r.on_disk:
                    self._fail(r, "task ended without its file")


def run_scenario(sc, agent, nginx, tail):
    """Puts the source files, runs the batch and verifies it; returns the figures."""
    rel = [f"bench/{sc.name}/{i:05d}.bin" for i in range(sc.count)]
    step = max(1, sc.count // SHA_SAMPLES)
    sampled = {i: None for i in range(0, sc.count, step)}
    sampled[sc.count - 1] = None
    for i, p in enumerate(rel):
        data = os.urandom(sc.size)
        nginx.put(p, data)
        if i in sampled:
            sampled[i] = hashlib.sha256(data).hexdigest()
        del data

    expiry = int(time.time()) + EXPIRY_AHEAD_S
    reqs = []
    for i, p in enumerate(rel):
        url = nginx.url(p)
        text = (f"GET /src/{url}/dst/{p}?expiry={expiry} HTTP/1.1\r\n"
                f"Host: 127.0.0.1:{agent.port}\r\nUser-Agent: vsk-bench\r\n\r\n").encode()
        reqs.append(Request(i, url, text))

    drv = Driver(agent.port, tail, reqs, sc.concurrency)
    cpu0 = cpu_seconds(agent.proc.pid)
    self0 = os.times()
    t0 = time.monotonic()
    t_last = drv.run(t0 + sc.time_limit)
    seconds = t_last - t0
    cpu = cpu_seconds(agent.proc.pid) - cpu0
    self1 = os.times()
    bench_cpu = (self1.user + self1.system) - (self0.user + self0.system)

    failed = [r for r in reqs if r.failed]
    if failed:
        first = "; ".join(f"#{r.idx}: {r.failed}" for r in failed[:5])
        raise BenchError(f"{len(failed)}/{sc.count} downloads failed ({first})")

    # Every file at its final name with its full size, a sample byte for byte, nothing unfinished.
    for p in rel:
        dst = agent.data_dir / p
        try:
            size = dst.stat().st_size
        except FileNotFoundError:
            raise BenchError(f"{dst} is missing although its download was logged")
        if size != sc.size:
            raise BenchError(f"{dst} has {size} bytes, expected {sc.size}")
    for i, want in sampled.items():
        h = hashlib.sha256()
        with open(agent.data_dir / rel[i], "rb") as f:
            while chunk := f.read(MiB):
                h.update(chunk)
        if h.hexdigest() != want:
            raise BenchError(f"{rel[i]}: content differs from the source (sha256)")
    left = [str(x) for x in (agent.data_dir / "bench" / sc.name).rglob("*-Vesk")]
    if left:
        raise BenchError(f"unfinished files left behind: {left[:3]}")

    answers_ms = [(r.t_answer - r.t_start) * 1000 for r in reqs]
    # Disk space stays bounded: this batch's sources and results are no longer needed.
    shutil.rmtree(nginx.root / "bench" / sc.name, ignore_errors=True)
    shutil.rmtree(agent.data_dir / "bench" / sc.name, ignore_errors=True)
    total = sc.count * sc.size
    return {
        "files": sc.count, "mib": total / MiB, "seconds": seconds,
        "files_s": sc.count / seconds, "mib_s": total / MiB / seconds, "cpu": cpu,
        "p50": percentile(answers_ms, 50), "p99": percentile(answers_ms, 99),
        "bench_cpu": bench_cpu, "sha": len(sampled),
    }


HEAD = (f"{'scenario':<12} {'conc':>4} {'files':>6} {'MiB':>8} {'seconds':>8} {'files/s':>9} "
        f"{'MiB/s':>8} {'agent CPU s':>11} {'answer p50 ms':>13} {'p99 ms':>8}")


def row(sc, f):
    return (f"{sc.name:<12} {sc.concurrency:>4} {f['files']:>6} {f['mib']:>8.1f} "
            f"{f['seconds']:>8.3f} {f['files_s']:>9.1f} {f['mib_s']:>8.1f} {f['cpu']:>11.3f} "
            f"{f['p50']:>13.2f} {f['p99']:>8.2f}")


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--vsk", default=str(SOURCE_DIR / "build/release/vesk/vsk"),
                    help="agent binary (default: the release build)")
    ap.add_argument("--quick", action="store_true", help="scaled-down counts for a smoke run")
    ap.add_argument("--keep", action="store_true", help="keep the temporary directory")
    args = ap.parse_args()
    if not os.access(args.vsk, os.X_OK):
        sys.exit(f"no agent binary at {args.vsk}; run `make build` first")
    conftest.VSK_BIN = os.path.abspath(args.vsk)

    # A plain `kill` of the benchmark must still stop its children and remove its files.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))

    work = Path(tempfile.mkdtemp(prefix="vsk-bench-"))
    nginx = agent = tail = None
    rc = 0
    try:
        nginx = Nginx(work / "nginx", conftest.free_port())
        nginx.start()
        agent = conftest.Agent(work, "vsk")
        agent.vesk["log"].update({"level": "norm", "max_size_mb": 1024})
        agent.start()
        tail = LogTail(agent.log_path)

        print(f"vsk {args.vsk} (pid {agent.proc.pid}) <- nginx 127.0.0.1:{nginx.port}, "
              f"loopback only, {'quick' if args.quick else 'full'} run, "
              f"{os.cpu_count()} CPUs", flush=True)
        print(HEAD, flush=True)
        for sc in (QUICK if args.quick else FULL):
            try:
                f = run_scenario(sc, agent, nginx, tail)
            except BenchError as e:
                rc = 1
                print(f"{sc.name:<12} FAILED: {e}", flush=True)
                if agent.proc.poll() is not None:
                    print(f"agent exited with {agent.proc.returncode}; stopping", file=sys.stderr)
                    break
                continue
            print(row(sc, f), flush=True)
            print(f"{'':<12} (size and sha256 of {f['sha']} files checked; benchmark's own CPU "
                  f"{f['bench_cpu']:.3f} s)", flush=True)
    except AssertionError as e:  # a peer or the agent did not start or stop
        rc = 1
        print(f"FAILED: {e}", file=sys.stderr)
    finally:
        if tail is not None:
            tail.close()
        if agent is not None and agent.proc is not None:
            try:
                code = agent.stop()
                agent.check_clean()
                if code != 0:
                    raise AssertionError(f"agent exited with {code}")
            except AssertionError as e:
                rc = 1
                print(f"FAILED: {e}", file=sys.stderr)
                print(agent.log()[-3000:], file=sys.stderr)
        if nginx is not None:
            nginx.stop()
        if args.keep:
            print(f"kept {work}", file=sys.stderr)
        else:
            shutil.rmtree(work, ignore_errors=True)
    return rc


if __name__ == "__main__":
    sys.exit(main())
