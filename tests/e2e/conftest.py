"""End-to-end harness: runs the built vsk binary as a user would.

Each agent gets its own temporary configuration, data directory, log file and free loopback
ports. At teardown every agent is stopped and its log and standard error are checked: a panic
record or a sanitizer report fails the test unless the test said it provoked one.
"""
import hashlib
import os
import re
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from peers import BadSource, NameServer, Nginx, Redis, udp_send, udp_send_mcast  # noqa: F401

SOURCE_DIR = Path(os.environ.get("VSK_SOURCE_DIR", Path(__file__).resolve().parents[2]))
VSK_BIN = os.environ.get("VSK_BIN", str(SOURCE_DIR / "build/test/vesk/vsk"))

PANIC_RE = re.compile(r"\(PNC\)|ERROR: AddressSanitizer|ERROR: LeakSanitizer|runtime error:")
AGENT_TAG = "vsk/0.2-0.7 (torbella)"
OLD_EXPIRY = 1700000001  # long past: fine for a download, refused by the registry script
FAR = 4000000000  # an absolute expiry far ahead: accepted by the registry script
GROUP = "239.255.42.17"  # an IPv4 group joined on "lo"; IPv6 multicast does not run on this lo
PING = b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: vsk-e2e\r\n\r\n"  # above the 32-byte low-water mark


def free_port(family=socket.AF_INET, kind=socket.SOCK_STREAM):
    """A port that nothing listens on right now (TCP or UDP) on the loopback interface."""
    host = "::1" if family == socket.AF_INET6 else "127.0.0.1"
    with socket.socket(family, kind) as s:
        s.bind((host, 0))
        return s.getsockname()[1]


def cfg_value(v, indent):
    pad = "  " * indent
    if isinstance(v, bool):
        return "true" if v else "false"
    if isinstance(v, int):
        return str(v)
    if isinstance(v, str):
        return '"' + v.replace("\\", "\\\\").replace('"', '\\"') + '"'
    if isinstance(v, dict):
        inner = "".join(f"{pad}  {k} = {cfg_value(x, indent + 1)};\n" for k, x in v.items())
        return "{\n" + inner + pad + "}"
    if isinstance(v, list):
        return "(" + ", ".join(cfg_value(x, indent + 1) for x in v) + ")"
    raise TypeError(f"cannot render {v!r}")


def render_config(vesk):
    """libconfig text for a dict that describes the "vesk" group."""
    return "vesk = " + cfg_value(vesk, 0) + ";\n"


def minimal_config(tmp_path, **extra):
    """A valid foreground configuration with one web listener and `extra` keys of the "vesk"
    group, written to tmp_path/vsk.conf; its path."""
    data = tmp_path / "data"
    data.mkdir(exist_ok=True)
    path = tmp_path / "vsk.conf"
    path.write_text(render_config({
        "log": {"level": "info", "enable_syslog": False},
        "runtime": {"non_daemon": True},
        "web_input": {"ifc": "lo", "port": free_port()},
        "data_dir": str(data),
        **extra,
    }))
    return path


def run_vsk(*args, timeout=20, env=None):
    """Runs vsk to completion and returns the CompletedProcess (text mode)."""
    return subprocess.run([VSK_BIN, *map(str, args)], capture_output=True, text=True,
                          timeout=timeout, env=env)


def refused_config(tmp_path, change, *args):
    """Runs vsk (with `args`) on a foreground configuration whose log and pid file would go under
    `tmp_path`, after `change` edited its "vesk" dict. It must exit 1 without making either file;
    returns its standard error."""
    log, pid, path = tmp_path / "vsk.log", tmp_path / "vsk.pid", tmp_path / "vsk.conf"
    vesk = {"log": {"file": str(log), "level": "info", "enable_syslog": False},
            "runtime": {"non_daemon": True, "pidfile": str(pid)},
            "web_input": {"ifc": "lo", "port": free_port()}, "data_dir": str(tmp_path)}
    change(vesk)
    path.write_text(render_config(vesk))
    r = run_vsk("-C", path, *args)
    assert r.returncode == 1, r.stderr
    assert not log.exists() and not pid.exists()
    return r.stderr


def wait_until(what, fn, timeout=10):
    """Polls `fn` until it returns something true, and returns that."""
    deadline = time.monotonic() + timeout
    while not (got := fn()):
        assert time.monotonic() < deadline, f"timed out waiting for {what}"
        time.sleep(0.05)
    return got


def files_under(root: Path):
    """Every regular file below `root`, as sorted paths relative to it."""
    return sorted(str(p.relative_to(root)) for p in Path(root).rglob("*") if p.is_file())


def digest(data: bytes):
    return hashlib.sha256(data).hexdigest()


def fd_count(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


# ---- Clients --------------------------------------------------------------------------------------

def read_all(s):
    """Everything received until the peer closed or reset the connection."""
    data = b""
    try:
        while chunk := s.recv(65536):
            data += chunk
    except ConnectionResetError:
        pass
    return data


def request(where, data=PING, source=None, head_only=False, timeout=5):
    """Sends `data` to the agent at `where` (a port on 127.0.0.1, an (address, port) pair or a
    local socket path), from the loopback address `source` when given; returns what came back
    until the close (only the head with `head_only`), b"" when nothing came."""
    if isinstance(where, int):
        where = ("127.0.0.1", where)
    family = socket.AF_UNIX if isinstance(where, str) else \
        socket.AF_INET6 if ":" in where[0] else socket.AF_INET
    try:
        with socket.socket(family, socket.SOCK_STREAM) as s:
            s.settimeout(timeout)
            if source:
                s.bind((source, 0))
            s.connect(where)
            s.sendall(data)
            if not head_only:
                return read_all(s)
            got = b""
            while b"\r\n\r\n" not in got and (chunk := s.recv(4096)):
                got += chunk
            return got
    except (BrokenPipeError, ConnectionResetError, ConnectionRefusedError):
        return b""


def ping(where):
    """The head of the answer to GET / (b"" when none came); makes the agent's loop run a pass."""
    return request(where, head_only=True)


def raw_get(port, path, source=None):
    """One GET to the agent with the path exactly as written; everything that came back."""
    return request(port, f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: vsk-e2e\r\n\r\n"
                   .encode(), source, timeout=10)


def status_of(answer: bytes):
    return answer.split(b"\r\n", 1)[0].decode("latin-1")


class Answer:
    """What curl got: the status, the reason, the head lines and the body."""

    def __init__(self, proc):
        head, _, self.body = proc.stdout.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        m = re.match(r"HTTP/1\.1 (\d{3}) (.*)$", lines[0])
        self.status, self.reason = (int(m.group(1)), m.group(2)) if m else (None, None)
        self.headers = lines[1:]
        self.text = f"Answer(rc={proc.returncode}, {head!r}, err={proc.stderr!r})"

    def __repr__(self):
        return self.text


def curl(port, path):
    """One request to the agent with curl; the path is sent as written (no dot-segment folding)."""
    return Answer(subprocess.run(["curl", "-sS", "-i", "--path-as-is", "--max-time", "10",
                                  f"http://127.0.0.1:{port}{path}"],
                                 capture_output=True, timeout=15, stdin=subprocess.DEVNULL))


def dl_path(src, dst, query=f"expiry={OLD_EXPIRY}"):
    """The request path that asks for `src` to be stored as `dst`."""
    return f"/src/{src}/dst/{dst}" + (f"?{query}" if query else "")


def burst(agent, orders, timeout=60):
    """Sends every order (a source URL and its destination, keyed by a name) on a connection of
    its own before reading any answer, so that the downloads overlap; the status line of each."""
    conns = {}
    for name, (src, dst) in orders.items():
        conns[name] = s = socket.create_connection(("127.0.0.1", agent.port), timeout=timeout)
        s.sendall(f"GET {dl_path(src, dst)} HTTP/1.1\r\n\r\n".encode())
    status = {}
    for name, s in conns.items():
        with s:
            status[name] = read_all(s).split(b"\r\n", 1)[0]
    return status


def ask(agent, src, dst, query=f"expiry={OLD_EXPIRY}", expect=(200, "OK")):
    """Asks the agent to store `src` as `dst` and checks the answer's status and reason."""
    r = curl(agent.port, dl_path(src, dst, query))
    assert (r.status, r.reason) == expect, r
    return r


def order(lid, url, expiry="1700000001", sep=" "):
    """One channel message: the prefix, the lock id, the URL and the expiry."""
    return f"#!{lid}{sep}{url}{sep}{expiry}".encode()


def dl_url(agent, src, dst):
    """The URL of a download request to `agent`: fetch `src` into `dst` of its data directory."""
    return f"http://127.0.0.1:{agent.port}/src/{src}/dst/{dst}"


def zrange(redis, key):
    """The registry's members of one segment as {url: score}."""
    out = redis.cli("ZRANGE", key, 0, -1, "WITHSCORES").split()
    return dict(zip(out[0::2], out[1::2]))


def registered(redis, key, timeout=5):
    """zrange() once the segment is there: registrations are sent after the download ends."""
    deadline = time.monotonic() + timeout
    while not (members := zrange(redis, key)) and time.monotonic() < deadline:
        time.sleep(0.05)
    return members


def admin_get(agent, path):
    """GET `path` on the agent's admin listener (from agent.scrape_from when set): checks the 200
    and the length; returns the head lines and the body."""
    data = request(agent.admin, f"GET {path} HTTP/1.1\r\nHost: x\r\n\r\n".encode(),
                   getattr(agent, "scrape_from", None))
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    assert lines[0].startswith("HTTP/1.1 200 "), (path, lines)
    length = [int(x.split(":")[1]) for x in lines if x.lower().startswith("content-length:")]
    assert length == [len(body)], (lines, len(body))
    return lines[1:], body


class Scrape:
    """One /metrics scrape, parsed by the metrics client's own parser: samples by name and labels,
    and the type of each family."""

    def __init__(self, agent):
        from prometheus_client.parser import text_string_to_metric_families
        lines, body = admin_get(agent, "/metrics")
        assert "Content-Type: text/plain; version=0.0.4; charset=utf-8" in lines
        self.samples, self.types = {}, {}
        for fam in text_string_to_metric_families(body.decode()):
            self.types[fam.name] = fam.type
            for s in fam.samples:
                self.samples[(s.name, tuple(sorted(s.labels.items())))] = s.value

    def __call__(self, name, **labels):
        return self.samples.get((name, tuple(sorted(labels.items()))), 0)

    def family(self, name):
        return {dict(k[1]).get("outcome") or dict(k[1]).get("result") or dict(k[1]).get("code"): v
                for k, v in self.samples.items() if k[0] == name}


def wait_scrape(agent, check, timeout=10):
    """Scrapes until `check` holds for the scrape; returns it."""
    deadline = time.monotonic() + timeout
    while not check(s := Scrape(agent)):
        assert time.monotonic() < deadline, f"metrics never got there:\n{s.samples}"
        time.sleep(0.05)
    return s


class Agent:
    """One vsk process on its own configuration."""

    def __init__(self, workdir: Path, name: str):
        self.dir = workdir / name
        self.dir.mkdir(parents=True, exist_ok=True)
        self.data_dir = self.dir / "data"
        self.data_dir.mkdir(exist_ok=True)
        self.lock_dir = self.dir / "lock"
        self.lock_dir.mkdir(exist_ok=True)
        self.log_path = self.dir / "vsk.log"
        self.stderr_path = self.dir / "stderr.txt"
        self.config_path = self.dir / "vsk.conf"
        self.port = free_port()
        self.proc = None
        self.returncode = None
        self.expect_panic = False
        self.vesk = {
            "log": {"file": str(self.log_path), "level": "debug", "enable_syslog": False},
            "runtime": {"non_daemon": True, "quiet": True,
                        "pidfile": str(self.dir / "vsk.pid")},
            "web_input": [{"ifc": "lo", "port": self.port, "default_af": "ipv4"}],
            "data_dir": str(self.data_dir),
        }

    def write_config(self):
        self.config_path.write_text(render_config(self.vesk))

    def start(self, *extra_args, wait_for="STARTING", timeout=15, env=None, prefix=()):
        """Starts the agent; `prefix` is a command that ends by exec-ing the agent's command line
        given as its further arguments (so that the process is still the agent)."""
        self.write_config()
        self._stderr = open(self.stderr_path, "w")
        self.proc = subprocess.Popen([*prefix, VSK_BIN, "-C", str(self.config_path), "-T",
                                      *map(str, extra_args)],
                                     stdout=subprocess.DEVNULL, stderr=self._stderr,
                                     env=env, cwd=self.dir)
        if wait_for:
            self.wait_for_log(wait_for, timeout=timeout)
        return self

    def log(self):
        try:
            return self.log_path.read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def stderr(self):
        try:
            return self.stderr_path.read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def mark(self):
        """Where the log ends now, for wait_for_log(since=)."""
        return len(self.log())

    def wait_for_log(self, pattern, timeout=10, count=1, since=0):
        """Waits until `pattern` (a regular expression) occurs `count` times in the log written
        after offset `since`; returns that part of the log."""
        rx = re.compile(pattern)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            text = self.log()[since:]
            if len(rx.findall(text)) >= count:
                return text
            if self.proc is not None and self.proc.poll() is not None:
                break
            time.sleep(0.05)
        raise AssertionError(f"log never showed {pattern!r} x{count}; exit={self.proc.poll()}\n"
                             f"--- log ---\n{self.log()[since:][-4000:]}\n--- stderr ---\n{self.stderr()[-2000:]}")

    def fds(self):
        return fd_count(self.proc.pid)

    def wait_fds(self, expected, timeout=5):
        """Waits for the agent's descriptor count to come back to `expected`; the last count."""
        deadline = time.monotonic() + timeout
        while (n := self.fds()) != expected and time.monotonic() < deadline:
            time.sleep(0.05)
        return n

    def with_registry(self, redis, prefix="http://127.0.0.1:1/seg/", port=None, **lbdb):
        """Registers downloads in `redis` under `prefix`; `lbdb` adds keys of the group."""
        self.vesk["lbdb"] = {"host": "127.0.0.1", "port": port or redis.port,
                             "sha1_dir": str(redis.sha1_dir), **lbdb}
        self.vesk["local_url_prefix"] = prefix
        return self

    def with_channel(self, host="127.0.0.1", port=None, lock_dir=None, **extra):
        """Configures the UDP channel; the lock directory defaults to the agent's own."""
        self.udp_host, self.udp = host, port or free_port(kind=socket.SOCK_DGRAM)
        self.vesk["udp_input"] = {"url": f"udp://{host}:{self.udp}",
                                  "lock_dir": str(lock_dir or self.lock_dir), **extra}
        return self

    def with_admin(self):
        self.admin = free_port()
        self.vesk["admin_input"] = {"ifc": "lo", "port": self.admin, "default_af": "ipv4"}
        return self

    def send(self, data, pattern=None, count=1, source=None):
        """Sends datagrams to the channel (from loopback address `source` when given); with a
        `pattern`, returns the log written since, once it shows `pattern` `count` times."""
        mark = self.mark()
        for d in data if isinstance(data, list) else [data]:
            if self.udp_host == GROUP:
                udp_send_mcast(GROUP, self.udp, d)
            else:
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
                    s.bind((source or "127.0.0.1", 0))
                    s.sendto(d, (self.udp_host, self.udp))
        return self.wait_for_log(pattern, count=count, since=mark) if pattern else None

    def stop(self, sig=signal.SIGTERM, timeout=15):
        if self.proc is None:
            return self.returncode
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
        try:
            self.returncode = self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.returncode = self.proc.wait()
            raise AssertionError(f"vsk did not stop within {timeout}s\n{self.log()[-3000:]}")
        finally:
            self._stderr.close()
        return self.returncode

    def quit_within(self, seconds=2.0, sig=signal.SIGTERM):
        """A quit signal ends the agent with status 0 within `seconds`."""
        t0 = time.monotonic()
        assert self.stop(sig, timeout=seconds) == 0, self.log()[-2000:]
        assert time.monotonic() - t0 < seconds

    def wait_exit(self, timeout=15):
        self.returncode = self.proc.wait(timeout=timeout)
        self._stderr.close()
        return self.returncode

    def check_clean(self):
        if self.expect_panic:
            return
        for what, text in (("log", self.log()), ("stderr", self.stderr())):
            m = PANIC_RE.search(text)
            if m:
                start = max(0, m.start() - 1500)
                raise AssertionError(f"unexpected panic/sanitizer report in {what}:\n{text[start:m.start() + 2500]}")


@pytest.fixture
def agents(tmp_path):
    """Factory of agents; all are stopped and checked for panics at teardown."""
    made = []

    def make(name="vsk"):
        a = Agent(tmp_path, name)
        made.append(a)
        return a

    yield make
    errors = []
    for a in made:
        try:
            if a.proc is not None and a.proc.poll() is None:
                a.stop()
            a.check_clean()
        except AssertionError as e:
            errors.append(str(e))
    if errors:
        pytest.fail("\n\n".join(errors))


@pytest.fixture
def agent(agents):
    return agents()



@pytest.fixture
def nginx(tmp_path):
    """nginx serving a temporary document root on a free loopback port."""
    srv = Nginx(tmp_path / "nginx", free_port())
    try:
        yield srv.start()
    finally:
        srv.stop()


@pytest.fixture
def redis(tmp_path):
    """redis-server on a free loopback port with the load-balancer scripts loaded."""
    (tmp_path / "redis").mkdir()
    srv = Redis(tmp_path / "redis", free_port(), SOURCE_DIR)
    try:
        yield srv.start()
    finally:
        srv.stop()


@pytest.fixture
def bad_source():
    """A loopback HTTP source whose answers are scripted per path."""
    src = BadSource()
    try:
        yield src
    finally:
        src.stop()


def never_accepting_port(host="127.0.0.1", port=0):
    """A listener whose one-place queue is taken: further SYNs are dropped, so a connect to it
    hangs as one to a host that drops the SYN."""
    srv = socket.socket()
    srv.bind((host, port))
    srv.listen(0)
    filler = socket.create_connection(srv.getsockname())
    return srv, filler


@pytest.fixture
def name_agent(agents, tmp_path, monkeypatch):
    """An agent in a private mount namespace whose /etc/resolv.conf names one local server."""
    if os.geteuid() != 0:
        pytest.skip("a private mount namespace and port 53 need root")
    servers = []

    def make(mode, hosts=""):
        """`hosts`: lines added to the agent's view of /etc/hosts."""
        ns = NameServer(mode)
        servers.append(ns)
        resolv = tmp_path / f"resolv-{mode}.conf"
        resolv.write_text(f"nameserver {ns.addr}\noptions timeout:1 attempts:1\n")
        hosts_file = tmp_path / f"hosts-{mode}"
        hosts_file.write_text(Path("/etc/hosts").read_text() + hosts)
        wrapper = tmp_path / f"vsk-{mode}.sh"
        wrapper.write_text("#!/bin/sh\nexec unshare -m sh -c 'mount --bind \"$1\" /etc/resolv.conf && "
                           "mount --bind \"$2\" /etc/hosts && shift 2 && "
                           f"exec \"$@\"' sh {resolv} {hosts_file} {VSK_BIN} \"$@\"\n")
        wrapper.chmod(0o755)
        monkeypatch.setitem(globals(), "VSK_BIN", str(wrapper))
        return agents(f"vsk-{mode}"), ns

    yield make
    for ns in servers:
        ns.stop()
