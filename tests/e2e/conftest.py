"""End-to-end harness: runs the built vsk binary as a user would.

Each agent gets its own temporary configuration, data directory, log file and free loopback
ports. At teardown every agent is stopped and its log and standard error are checked: a panic
record or a sanitizer report fails the test unless the test said it provoked one.
"""
import os
import re
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

SOURCE_DIR = Path(os.environ.get("VSK_SOURCE_DIR", Path(__file__).resolve().parents[2]))
VSK_BIN = os.environ.get("VSK_BIN", str(SOURCE_DIR / "build/test/vesk/vsk"))

PANIC_RE = re.compile(r"\(PNC\)|ERROR: AddressSanitizer|ERROR: LeakSanitizer|runtime error:")


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

    def wait_for_log(self, pattern, timeout=10, count=1):
        """Waits until `pattern` (a regular expression) occurs `count` times in the log."""
        rx = re.compile(pattern)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            found = rx.findall(self.log())
            if len(found) >= count:
                return found
            if self.proc is not None and self.proc.poll() is not None:
                break
            time.sleep(0.05)
        raise AssertionError(f"log never showed {pattern!r} x{count}; exit={self.proc.poll()}\n"
                             f"--- log ---\n{self.log()[-4000:]}\n--- stderr ---\n{self.stderr()[-2000:]}")

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


# Real peers: an HTTP file server, a Redis with the registry scripts, a scripted source.
from peers import BadSource, Nginx, Redis, udp_send, udp_send_mcast  # noqa: E402,F401


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
