"""Real peers of the end-to-end tests on loopback ports (an HTTP file server, a Redis with the
registry scripts, a scripted HTTP source, UDP senders), each confined to its temporary directory."""
import os
import random
import signal
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

NGINX_BIN = "/usr/sbin/nginx"
REDIS_BIN = "redis-server"
REDIS_CLI = "redis-cli"
STOP_TIMEOUT = 5


def wait_listening(port, proc, what, log_path=None, timeout=10):
    """Waits until something accepts TCP connections on 127.0.0.1:port, or fails with the log."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            break
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return
        except OSError:
            time.sleep(0.05)
    log = Path(log_path).read_text(errors="replace")[-3000:] if log_path and Path(log_path).exists() else ""
    raise AssertionError(f"{what} did not listen on port {port} (exit={proc.poll()})\n{log}")


def stop_process_group(proc, sig=signal.SIGTERM):
    """Stops a child started in its own session, then anything left in its process group."""
    if proc.poll() is None:
        proc.send_signal(sig)
        try:
            proc.wait(timeout=STOP_TIMEOUT)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
    # A master that died without its workers would leave them in the group we created for it.
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


NGINX_CONF = """\
worker_processes 1;
user root root;
pid {d}/nginx.pid;
lock_file {d}/nginx.lock;
error_log {d}/error.log info;
events {{ worker_connections 4096; multi_accept on; }}
http {{
    types {{ }}
    default_type application/octet-stream;
    access_log {d}/access.log;
    client_body_temp_path {d}/tmp/body;
    proxy_temp_path {d}/tmp/proxy;
    fastcgi_temp_path {d}/tmp/fastcgi;
    uwsgi_temp_path {d}/tmp/uwsgi;
    scgi_temp_path {d}/tmp/scgi;
    sendfile on;
    keepalive_timeout 5;
    log_format conn '$connection $request';
    server {{
        listen 127.0.0.1:{port};
        server_name localhost;
        root {d}/www;
        {extra}
    }}
}}
"""


class Nginx:
    """A static file server over a temporary document root."""

    def __init__(self, workdir: Path, port: int, extra=""):
        """`extra`: directives for the server block, e.g. "limit_rate 1k;" for slow downloads; the
        log format "conn" logs each request with its connection number."""
        self.dir = workdir
        self.port = port
        self.root = workdir / "www"
        self.root.mkdir(parents=True, exist_ok=True)
        (workdir / "tmp").mkdir(exist_ok=True)
        self.conf = workdir / "nginx.conf"
        self.conf.write_text(NGINX_CONF.format(d=workdir, port=port, extra=extra))
        self.error_log = workdir / "error.log"
        self.proc = None

    def start(self):
        # -e keeps even the earliest start-up messages out of the system's log directory.
        self._out = open(self.dir / "stderr.txt", "w")
        self.proc = subprocess.Popen([NGINX_BIN, "-p", f"{self.dir}/", "-c", str(self.conf),
                                      "-e", str(self.error_log), "-g", "daemon off;"],
                                     stdin=subprocess.DEVNULL, stdout=self._out, stderr=self._out,
                                     start_new_session=True)
        wait_listening(self.port, self.proc, "nginx", self.error_log)
        return self

    def stop(self):
        if self.proc is not None:
            stop_process_group(self.proc)
            self._out.close()
            self.proc = None

    def url(self, path=""):
        return f"http://127.0.0.1:{self.port}/{str(path).lstrip('/')}"

    def put(self, relpath, data: bytes) -> Path:
        p = self.root / relpath
        p.parent.mkdir(parents=True, exist_ok=True)
        p.write_bytes(data)
        return p


class Redis:
    """A throw-away Redis with the registry scripts loaded and their digests in `sha1_dir`."""

    def __init__(self, workdir: Path, port: int, source_dir: Path):
        self.dir = workdir
        self.port = port
        self.sha1_dir = workdir / "sha1"
        self.log_path = workdir / "redis.log"
        self.loader = Path(source_dir) / "tools/lbdb/load.sh"
        self.proc = None

    def start(self):
        self.proc = subprocess.Popen([REDIS_BIN, "--port", str(self.port), "--bind", "127.0.0.1",
                                      "--save", "", "--appendonly", "no", "--daemonize", "no",
                                      "--dir", str(self.dir), "--logfile", str(self.log_path)],
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL, start_new_session=True)
        wait_listening(self.port, self.proc, "redis-server", self.log_path)
        # Accepting is not yet serving while the server loads; PING proves it answers.
        deadline = time.monotonic() + 10
        while self.cli("PING").strip() != "PONG":
            assert time.monotonic() < deadline, f"redis never answered PING\n{self.log_path.read_text()}"
            time.sleep(0.05)
        r = subprocess.run(["sh", str(self.loader), "127.0.0.1", str(self.port), str(self.sha1_dir)],
                           capture_output=True, text=True, timeout=20)
        assert r.returncode == 0, f"load.sh failed ({r.returncode}): {r.stdout}{r.stderr}"
        return self

    def cli(self, *args, timeout=10):
        r = subprocess.run([REDIS_CLI, "-h", "127.0.0.1", "-p", str(self.port), *map(str, args)],
                           capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)
        return r.stdout

    def stop(self):
        if self.proc is not None:
            stop_process_group(self.proc, signal.SIGKILL)
            self.proc = None


class Route:
    """What the scripted source does for one request path.

    content_length: "auto" (the body's), None (no header) or a value sent as it is; raw: exact
    bytes instead of a composed answer; head_pause: seconds between the two pieces of the head,
    split at head_split (default: its middle); body_cut: send only that many body bytes, then
    after_cut: "close", "reset" (RST), "stall" (hold until the peer closes or stall_timeout) or
    "resume" (pause for stall_timeout, then send the rest of the body); cut_pause: seconds
    between the cut and a "close" or "reset".
    """

    def __init__(self, status="200 OK", headers=(), body=b"", content_length="auto", raw=None,
                 head_pause=None, head_split=None, body_cut=None, after_cut="close", stall_timeout=3.0,
                 cut_pause=None):
        assert after_cut in ("close", "reset", "stall", "resume"), after_cut
        assert stall_timeout <= 5, "connection threads must end within a few seconds"
        self.status, self.headers, self.body = status, list(headers), bytes(body)
        self.content_length, self.raw = content_length, raw
        self.head_pause, self.head_split = head_pause, head_split
        self.body_cut, self.after_cut, self.stall_timeout = body_cut, after_cut, stall_timeout
        self.cut_pause = cut_pause

    def head(self):
        lines = [f"HTTP/1.1 {self.status}"]
        if self.content_length == "auto":
            lines.append(f"Content-Length: {len(self.body)}")
        elif self.content_length is not None:
            lines.append(f"Content-Length: {self.content_length}")
        lines += [f"{k}: {v}" for k, v in self.headers]
        return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")


NOT_FOUND = Route(status="404 Not Found", content_length=0)


class BadSource:
    """A loopback HTTP source whose answer per path is scripted with `route`."""

    READ_TIMEOUT = 3.0

    def __init__(self, host="127.0.0.1"):
        self.host = host
        self.routes = {}
        self.requests = []
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._threads = []
        self._srv = socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET, socket.SOCK_STREAM)
        self._srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._srv.bind((host, 0))
        self._srv.listen(64)
        self._srv.settimeout(0.1)
        self.port = self._srv.getsockname()[1]
        self._acceptor = threading.Thread(target=self._accept_loop, name="bad-source", daemon=True)
        self._acceptor.start()

    def url(self, path=""):
        host = f"[{self.host}]" if ":" in self.host else self.host
        return f"http://{host}:{self.port}/{str(path).lstrip('/')}"

    def route(self, path, **behaviour):
        """Scripts the answer for `path` (with its leading "/"); see Route for the keywords."""
        r = Route(**behaviour)
        with self._lock:
            self.routes[path] = r
        return r

    def _accept_loop(self):
        while not self._stop.is_set():
            try:
                conn, _ = self._srv.accept()
            except socket.timeout:
                continue
            except OSError:
                break
            t = threading.Thread(target=self._serve, args=(conn,), daemon=True)
            with self._lock:
                self._threads = [x for x in self._threads if x.is_alive()] + [t]
            t.start()

    def _read_head(self, conn):
        data = b""
        deadline = time.monotonic() + self.READ_TIMEOUT
        while b"\r\n\r\n" not in data and len(data) < 65536:
            left = deadline - time.monotonic()
            if left <= 0 or self._stop.is_set():
                break
            conn.settimeout(min(left, 0.2))
            try:
                chunk = conn.recv(4096)
            except socket.timeout:
                continue
            if not chunk:
                break
            data += chunk
        return data

    def _hold(self, conn, seconds):
        """Sends nothing until the peer closes, the time is up or the server stops."""
        deadline = time.monotonic() + seconds
        while not self._stop.is_set() and time.monotonic() < deadline:
            conn.settimeout(0.1)
            try:
                if not conn.recv(4096):
                    return
            except socket.timeout:
                continue
            except OSError:
                return

    def _serve(self, conn):
        try:
            raw = self._read_head(conn)
            with self._lock:
                self.requests.append(raw)
            parts = raw.split(b" ", 2)
            target = parts[1].decode("latin-1") if len(parts) >= 2 else ""
            with self._lock:
                r = self.routes.get(target) or self.routes.get(target.split("?", 1)[0]) or NOT_FOUND
            conn.settimeout(self.READ_TIMEOUT)
            if r.raw is not None:
                head, body = b"", bytes(r.raw)
            else:
                head, body = r.head(), r.body
            if r.head_pause is not None and head:
                cut = r.head_split if r.head_split is not None else len(head) // 2
                conn.sendall(head[:cut])
                self._stop.wait(min(r.head_pause, 5))
                conn.sendall(head[cut:])
            else:
                conn.sendall(head)
            if r.body_cut is None:
                conn.sendall(body)
                conn.shutdown(socket.SHUT_WR)
                self._hold(conn, 1.0)  # let the peer read everything before the close
                return
            conn.sendall(body[:r.body_cut])
            if r.cut_pause is not None and r.after_cut in ("close", "reset"):
                self._stop.wait(min(r.cut_pause, 5))
            if r.after_cut == "resume":
                self._stop.wait(r.stall_timeout)
                conn.sendall(body[r.body_cut:])
                conn.shutdown(socket.SHUT_WR)
                self._hold(conn, 1.0)
            elif r.after_cut == "stall":
                self._hold(conn, r.stall_timeout)
            elif r.after_cut == "reset":
                conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        except OSError:
            pass
        finally:
            conn.close()

    def stop(self):
        self._stop.set()
        self._srv.close()
        self._acceptor.join(timeout=2)
        with self._lock:
            threads = list(self._threads)
        for t in threads:
            t.join(timeout=STOP_TIMEOUT)
        assert not any(t.is_alive() for t in threads), "bad_source connection thread did not end"


class NameServer:
    """A UDP name server on a private loopback address, port 53: "nxdomain" refuses every name,
    "silent" swallows every query."""

    def __init__(self, mode):
        self.mode = mode
        self.queries = 0
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        for _ in range(20):
            self.addr = f"127.{random.randint(1, 254)}.{random.randint(1, 254)}.{random.randint(2, 254)}"
            try:
                self.sock.bind((self.addr, 53))
                break
            except OSError:
                continue
        self.sock.settimeout(0.1)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while not self._stop.is_set():
            try:
                data, peer = self.sock.recvfrom(2048)
            except socket.timeout:
                continue
            except OSError:
                return
            self.queries += 1
            if self.mode == "nxdomain" and len(data) >= 12:
                qid, flags = struct.unpack("!HH", data[:4])
                # A reply (QR), recursion as asked, recursion available, "no such name" (3).
                head = struct.pack("!HHHHHH", qid, 0x8000 | (flags & 0x0100) | 0x0080 | 3, 1, 0, 0, 0)
                self.sock.sendto(head + data[12:], peer)

    def stop(self):
        self._stop.set()
        self._thread.join(timeout=2)
        self.sock.close()


def udp_send(host, port, payload: bytes):
    """Sends one IPv4 datagram."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        return s.sendto(payload, (host, port))


def udp_send_mcast(group, port, payload: bytes, ttl=1):
    """Sends one datagram to an IPv4 group through the loopback interface, looped back to members."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 1)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, ttl)
        return s.sendto(payload, (group, port))
