#!/usr/bin/python3
"""Side-by-side download benchmark: the same files fetched from one nginx on loopback by cp -r
(the floor), curl -Z, an aria2c RPC daemon and vsk, each run verified byte for byte, printed as
one table (median and range of the runs, the tool's CPU, its peak RssAnon, the ratio to curl -Z)
and drawn as an SVG chart beside it.

Sources and destinations live on tmpfs; a destination is emptied before every run, outside the
timing. A run is timed from the first request until the last file is complete (for vsk: under
its final name); a run that fails its verification is reported as failed and not timed.
Run with /usr/bin/python3; `--quick` scales the counts down for a smoke run under a minute.
"""
import argparse
import http.client
import json
import os
import re
import resource
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

SOURCE_DIR = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(SOURCE_DIR / "tests/e2e"))
try:
    import conftest  # noqa: E402  (Agent, free_port; it needs pytest, which `make deps` installs)
    from peers import Nginx, Redis, stop_process_group, wait_listening  # noqa: E402
except ImportError as e:
    sys.exit(f"cannot import the end-to-end peers ({e}); run `make deps` first")

KiB = 1024
MiB = 1024 * KiB
EXPIRY_AHEAD_S = 3600
POLL_S = 0.002          # longest idle wait between looks at a tool's progress
SAMPLE_S = 0.005        # least time between two samples of a tool's RssAnon
IN_FLIGHT = 64          # downloads in flight for every tool that takes a number
ARIA2_FEEDERS = 4       # keep-alive RPC connections that feed aria2.addUri
TMPFS = Path("/dev/shm")


class Workload:
    """`count` files of `size` random bytes under www/<files>/; `lbdb` registers them in Redis."""

    def __init__(self, name, count, size, time_limit, files=None, lbdb=False, tools=None,
                 in_flight=IN_FLIGHT):
        self.name, self.count, self.size, self.time_limit = name, count, size, time_limit
        self.files = files or name          # workloads with the same files share the sources
        self.lbdb, self.in_flight = lbdb, in_flight
        self.tools = tools                  # None: every tool
        self.slug = re.sub(r"[^A-Za-z0-9-]", "-", name)  # for paths and URLs

    def rel(self):
        return [f"{i:05d}.bin" for i in range(self.count)]


def workloads(quick, inflight):
    if quick:
        wl = [Workload("SMALL", 200, 256 * KiB, 30), Workload("MEDIUM", 40, 2 * MiB, 30),
              Workload("LARGE", 2, 64 * MiB, 30)]
    else:
        wl = [Workload("SMALL", 2000, 256 * KiB, 60), Workload("MEDIUM", 400, 2 * MiB, 60),
              Workload("LARGE", 8, 64 * MiB, 60)]
    small = wl[0]
    wl.insert(1, Workload("SMALL+redis", small.count, small.size, small.time_limit,
                          files=small.files, lbdb=True, tools=("vsk",)))
    if inflight:
        wl.append(Workload(f"INFLIGHT-{inflight}", inflight, 64 * KiB, 120, tools=("vsk",),
                           in_flight=inflight))
    return wl


class BenchError(Exception):
    pass


class Skip(Exception):
    pass


# ---- Process figures --------------------------------------------------------------------------

def cpu_seconds(pid):
    """CPU time (user plus system) of a live process and its threads, in nanoseconds' precision
    from /proc/<pid>/task/*/schedstat: clock ticks of /proc/<pid>/stat are too coarse for runs
    of a tenth of a second."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/schedstat") as f:
                total += int(f.read().split()[0])
        except (FileNotFoundError, ProcessLookupError):
            pass  # a thread that ended between the listing and the read
    return total / 1e9


def rss_anon_kib(pid):
    """Anonymous resident memory of a process in KiB (mapped file pages not counted)."""
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("RssAnon:"):
                    return int(line.split()[1])
    except (FileNotFoundError, ProcessLookupError):
        pass
    return 0


class PeakSampler:
    """Largest RssAnon seen of one process, sampled at most every SAMPLE_S."""

    def __init__(self, pid):
        self.pid, self.peak_kib, self.next = pid, 0, 0.0

    def __call__(self, force=False):
        now = time.monotonic()
        if force or now >= self.next:
            self.next = now + SAMPLE_S
            self.peak_kib = max(self.peak_kib, rss_anon_kib(self.pid))


class Sample:
    def __init__(self, seconds, cpu, peak_kib, client_cpu=0.0):
        self.seconds, self.cpu, self.peak_kib = seconds, cpu, peak_kib
        self.client_cpu = client_cpu    # a client the harness runs to drive the tool


def wait_sampling(proc, deadline, sample, what):
    """Waits for a child, sampling a process's memory meanwhile; returns its rusage."""
    while True:
        pid, status, usage = os.wait4(proc.pid, os.WNOHANG)
        if pid:
            proc.returncode = os.waitstatus_to_exitcode(status)
            return usage
        if time.monotonic() > deadline:
            proc.kill()
            proc.wait()
            raise BenchError(f"{what} did not finish within its time limit")
        sample()
        time.sleep(POLL_S)


def run_command(argv, deadline, cwd=None):
    """Runs a command to its end, sampling its memory; returns (seconds, cpu, peak KiB)."""
    t0 = time.monotonic()
    proc = subprocess.Popen(argv, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE)
    sample = PeakSampler(proc.pid)
    usage = wait_sampling(proc, deadline, sample, argv[0])
    seconds = time.monotonic() - t0
    err = proc.stderr.read().decode(errors="replace").strip()
    proc.stderr.close()
    if proc.returncode != 0:
        raise BenchError(f"{argv[0]} exited with {proc.returncode}: {err[:300]}")
    return Sample(seconds, usage.ru_utime + usage.ru_stime, sample.peak_kib)


# ---- Verification -----------------------------------------------------------------------------

def same_bytes(a, b):
    with open(a, "rb") as fa, open(b, "rb") as fb:
        while True:
            x, y = fa.read(MiB), fb.read(MiB)
            if x != y:
                return False
            if not x:
                return True


def verify(wl, src, dst):
    """File count, total bytes and a byte-for-byte compare of every file; nothing else left."""
    found = sorted(str(p.relative_to(dst)) for p in dst.rglob("*") if p.is_file())
    want = wl.rel()
    if found != want:
        extra = sorted(set(found) - set(want))[:3]
        missing = sorted(set(want) - set(found))[:3]
        raise BenchError(f"{len(found)}/{len(want)} files (missing {missing}, extra {extra})")
    total = sum((dst / p).stat().st_size for p in want)
    if total != wl.count * wl.size:
        raise BenchError(f"{total} bytes in all, expected {wl.count * wl.size}")
    for p in want:
        if not same_bytes(src / p, dst / p):
            raise BenchError(f"{p}: content differs from the source")


def empty_dir(d):
    shutil.rmtree(d, ignore_errors=True)
    d.mkdir(parents=True)


# ---- Tools ------------------------------------------------------------------------------------

class Tool:
    """A tool of the comparison: `start` before a workload's runs, `run` times one run (and
    raises BenchError or Skip), `stop` after them. A plain command needs no start or stop."""

    name = ""

    def __init__(self, bench):
        self.b = bench

    def start(self, wl):
        pass

    def stop(self):
        pass


class Cp(Tool):
    name = "cp -r"

    def run(self, wl, src, dst):
        # cp -r of a directory onto a missing name copies its content to that name.
        shutil.rmtree(dst)
        return run_command(["cp", "-r", str(src), str(dst)], time.monotonic() + wl.time_limit)


class Curl(Tool):
    name = "curl -Z"

    def run(self, wl, src, dst):
        cfg = self.b.work / "curl.cfg"
        with open(cfg, "w") as f:
            for p in wl.rel():
                f.write(f'url = "{self.b.nginx.url(f"{wl.files}/{p}")}"\noutput = "{dst / p}"\n')
        return run_command(["curl", "-Z", "--parallel-max", str(wl.in_flight), "-s", "-S",
                            "--fail", "-K", str(cfg)], time.monotonic() + wl.time_limit)


class Aria2Rpc:
    """One keep-alive JSON-RPC connection to the aria2c daemon."""

    def __init__(self, port):
        self.conn = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
        self.seq = 0

    def call(self, method, *params):
        self.seq += 1
        body = json.dumps({"jsonrpc": "2.0", "id": self.seq, "method": method,
                           "params": list(params)})
        self.conn.request("POST", "/jsonrpc", body, {"Content-Type": "application/json"})
        answer = json.loads(self.conn.getresponse().read())
        if "error" in answer:
            raise BenchError(f"aria2 {method}: {answer['error']}")
        return answer["result"]

    def close(self):
        self.conn.close()


class Aria2(Tool):
    name = "aria2c RPC"

    def __init__(self, bench):
        super().__init__(bench)
        self.proc = None

    def start(self, wl):
        if shutil.which("aria2c") is None:
            raise Skip("aria2c is not installed (make bench-deps)")
        self.port = conftest.free_port()
        self.log = open(self.b.work / "aria2c.log", "w")
        self.proc = subprocess.Popen(
            ["aria2c", "--no-conf", "--enable-rpc", f"--rpc-listen-port={self.port}",
             "--rpc-listen-all=false", f"--max-concurrent-downloads={wl.in_flight}",
             "--split=1", "--max-connection-per-server=1", "--file-allocation=none",
             "--auto-file-renaming=false", "--allow-overwrite=true", "--summary-interval=0",
             "--console-log-level=error", "--max-download-result=100000",
             f"--dir={self.b.work}"],
            stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log, start_new_session=True)
        wait_listening(self.port, self.proc, "aria2c")
        self.poll_rpc = Aria2Rpc(self.port)

    def run(self, wl, src, dst):
        urls = [(self.b.nginx.url(f"{wl.files}/{p}"), p) for p in wl.rel()]
        failures = []

        def feed(part):
            rpc = Aria2Rpc(self.port)
            try:
                for url, out in part:
                    rpc.call("aria2.addUri", [url], {"dir": str(dst), "out": out})
            except (OSError, BenchError, http.client.HTTPException) as e:
                failures.append(str(e))
            finally:
                rpc.close()

        feeders = [threading.Thread(target=feed, args=(urls[i::ARIA2_FEEDERS],))
                   for i in range(ARIA2_FEEDERS)]
        sample = PeakSampler(self.proc.pid)
        cpu0 = cpu_seconds(self.proc.pid)
        deadline = time.monotonic() + wl.time_limit
        t0 = time.monotonic()
        for t in feeders:
            t.start()
        while True:
            st = self.poll_rpc.call("aria2.getGlobalStat")
            if int(st["numStopped"]) >= wl.count or failures:
                break
            if time.monotonic() > deadline:
                failures.append(f"time limit with {st['numStopped']}/{wl.count} stopped")
                break
            sample()
            time.sleep(POLL_S)
        seconds = time.monotonic() - t0
        for t in feeders:
            t.join()
        sample(force=True)
        cpu = cpu_seconds(self.proc.pid) - cpu0
        bad = [r for r in self.poll_rpc.call("aria2.tellStopped", 0, wl.count,
                                             ["status", "errorMessage"])
               if r["status"] != "complete"]
        self.poll_rpc.call("aria2.purgeDownloadResult")
        if failures or bad:
            raise BenchError(f"{failures[:1]} {len(bad)} downloads not complete {bad[:1]}")
        return Sample(seconds, cpu, sample.peak_kib)

    def stop(self):
        if self.proc is not None:
            self.poll_rpc.close()
            stop_process_group(self.proc)
            self.log.close()
            self.proc = None


# What etc/vsk.conf sets about throughput beyond the built-in defaults; --vsk-set overrides.
SAMPLE_KEYS = {"max_mmap_mb": 0, "splice_to_file": True, "reserve_in_worker": True,
               "write_through_backlog": 8, "src_pool_max": 64, "src_pool_idle_ms": 5000, "log.batch_writes": True,
               "web_input.keep_alive": True}


class Vsk(Tool):
    """The agent, asked through its web listener, configured as the sample configuration's
    production settings plus what --vsk-set gives."""

    name = "vsk"

    def __init__(self, bench):
        super().__init__(bench)
        self.agent = self.redis = None

    def start(self, wl):
        b = self.b
        self.agent = conftest.Agent(b.work, f"vsk-{wl.slug}")
        v = self.agent.vesk
        v["log"].update({"level": "info", "max_size_mb": 4096})
        v["data_dir"] = str(b.dst_root / "vsk")
        (b.dst_root / "vsk").mkdir(parents=True, exist_ok=True)
        if wl.in_flight > IN_FLIGHT:
            # Room for every order at once, in the agent and in the kernel's accept queue.
            v["web_input"][0].update(max_queued=wl.in_flight, backlog=wl.in_flight)
            v["max_tasks"] = max(4096, wl.in_flight)
        for key, value in [*SAMPLE_KEYS.items(), *b.vsk_set]:
            *groups, last = key.split(".")    # "log.level" sets a key inside a group
            node = v
            for g in groups:
                node = node.setdefault(g, {})
                if isinstance(node, list):    # the listener list: its one group
                    node = node[0]
            node[last] = value
        if wl.lbdb:
            self.redis = Redis(b.work / "redis", conftest.free_port(), SOURCE_DIR)
            self.redis.dir.mkdir(exist_ok=True)
            self.redis.start()
            v["lbdb"] = {"host": "127.0.0.1", "port": self.redis.port,
                         "sha1_dir": str(self.redis.sha1_dir)}
            v["local_url_prefix"] = f"http://127.0.0.1:{conftest.free_port()}/seg"
        if wl.in_flight > IN_FLIGHT:
            self.probe_max_queued()
        try:
            self.agent.start()
        except AssertionError as e:
            if wl.in_flight > IN_FLIGHT:
                text = (self.agent.log() + self.agent.stderr()).strip().splitlines()
                why = next((x for x in text if "max_queued" in x), text[-1] if text else str(e))
                raise Skip(f"the agent refuses web_input.max_queued = {wl.in_flight}: {why}")
            raise

    def probe_max_queued(self):
        """An agent that does not read web_input.max_queued ignores it and keeps its built-in
        per-listener limit, which would refuse most of the requests: that is no figure of the
        agent. One that reads it refuses 0 in its configuration check (-t)."""
        probe = json.loads(json.dumps(self.agent.vesk))
        probe["web_input"][0]["max_queued"] = 0
        path = self.agent.dir / "probe.conf"
        path.write_text(conftest.render_config(probe))
        r = subprocess.run([conftest.VSK_BIN, "-C", str(path), "-t"], capture_output=True,
                           text=True, timeout=30, stdin=subprocess.DEVNULL)
        if r.returncode == 0 or "max_queued" not in r.stdout + r.stderr:
            raise Skip("the agent does not know web_input.max_queued (its configuration check "
                       "accepts max_queued = 0)")

    def run(self, wl, src, dst):
        expiry = int(time.time()) + EXPIRY_AHEAD_S
        orders = self.b.work / "vsk-orders.txt"
        with open(orders, "w") as f:
            for p in wl.rel():
                url = self.b.nginx.url(f"{wl.files}/{p}")
                f.write(f"{url} /src/{url}/dst/{wl.slug}/{p}?expiry={expiry}\n")
        pid = self.agent.proc.pid
        sample = PeakSampler(pid)
        attached = self.b.attach_start(wl, pid)
        cpu0 = cpu_seconds(pid)
        # The driver times itself, from its first connect to the last file under its final name.
        drv = subprocess.Popen([self.b.args.driver, str(self.agent.port), str(self.agent.log_path),
                                str(wl.in_flight), str(wl.time_limit), str(orders),
                                # all at once when the backlog holds them all
                                "0" if wl.in_flight > IN_FLIGHT else "8000"],
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT)
        try:
            usage = wait_sampling(drv, time.monotonic() + wl.time_limit + 10, sample, "the driver")
        finally:
            self.b.attach_stop(attached, wl)
        sample(force=True)
        cpu = cpu_seconds(pid) - cpu0
        out = drv.stdout.read().decode(errors="replace").strip()
        drv.stdout.close()
        if drv.returncode != 0 or not out.startswith("seconds "):
            raise BenchError(f"driver exited with {drv.returncode}: " + "; ".join(out.splitlines()[:4]))
        if self.agent.proc.poll() is not None:
            raise BenchError(f"the agent exited with {self.agent.proc.returncode}")
        return Sample(float(out.split()[1]), cpu, sample.peak_kib,
                      usage.ru_utime + usage.ru_stime)

    def stop(self):
        try:
            if self.agent is not None and self.agent.proc is not None:
                code = self.agent.stop()
                self.agent.check_clean()
                if code != 0:
                    raise BenchError(f"the agent exited with {code}\n{self.agent.log()[-2000:]}")
        finally:
            self.agent = None
            if self.redis is not None:
                self.redis.stop()
                self.redis = None


TOOLS = {"cp": Cp, "curl": Curl, "aria2c": Aria2, "vsk": Vsk}


# ---- The run ----------------------------------------------------------------------------------

class Bench:
    def __init__(self, args):
        self.args = args
        self.work = Path(tempfile.mkdtemp(prefix="vsk-bench-", dir=TMPFS))
        self.dst_root = self.work / "dst"
        self.nginx = None
        self.vsk_set = [parse_set(x) for x in args.vsk_set]
        self.results = {}       # (workload, tool) -> [Sample] or an error text
        self.attach_seq = 0

    def attach_start(self, wl, pid):
        """Starts the --attach command (a profiler or tracer) on the agent for this run."""
        if not self.args.attach:
            return None
        out = Path(self.args.attach_dir) / f"{wl.slug}-{self.attach_seq}.out"
        self.attach_seq += 1
        out.parent.mkdir(parents=True, exist_ok=True)
        argv = [x.format(pid=pid, out=out) for x in self.args.attach.split()]
        p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
        time.sleep(1.0)  # a tracer needs a moment to attach; what comes before is not counted
        return p, out

    def attach_stop(self, attached, wl):
        if attached is None:
            return
        p, out = attached
        p.send_signal(signal.SIGINT)
        p.wait(timeout=60)
        print(f"  {wl.name:<12} attached over {wl.count} files: {out}", flush=True)

    def nginx_cpu(self):
        """CPU of the nginx master and its workers: the source's share of a run."""
        pid = self.nginx.proc.pid
        pids = [pid]
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/children") as f:
                pids += [int(x) for x in f.read().split()]
        return sum(cpu_seconds(p) for p in pids)

    def generate(self, wl):
        d = self.nginx.root / wl.files
        if d.exists():
            return d
        d.mkdir(parents=True)
        for p in wl.rel():
            (d / p).write_bytes(os.urandom(wl.size))
        return d

    def run_workload(self, wl, later):
        src = self.generate(wl)
        names = [t for t in self.args.tools if wl.tools is None or t in wl.tools]
        # Every tool is started first and the runs take turns (cp, curl, aria2c, vsk, cp, ...):
        # a machine that gets slower or faster during the workload then weighs on every tool
        # alike, and the ratios of one run stay fair.
        started = []
        for tname in names:
            tool = TOOLS[tname](self)
            key = (wl.name, tool.name)
            self.results[key] = []
            dst = self.dst_root / tname / wl.slug
            if self.guarded(wl, tool, key, lambda t=tool: t.start(wl)):
                started.append((tool, key, dst))
            else:
                self.stop_tool(wl, tool, key, dst)
        try:
            for i in range(self.args.runs):
                for tool, key, dst in started:
                    if isinstance(self.results[key], list):
                        self.guarded(wl, tool, key,
                                     lambda t=tool, k=key, d=dst: self.one_run(wl, t, k, src, d, i))
        finally:
            for tool, key, dst in started:
                self.stop_tool(wl, tool, key, dst)
        if not any(w.files == wl.files for w in later):
            shutil.rmtree(src, ignore_errors=True)  # tmpfs is memory: keep one file set at once

    def guarded(self, wl, tool, key, step):
        """Runs `step`; a skip or failure is recorded for the tool, which then runs no more."""
        try:
            step()
            return True
        except Skip as e:
            self.results[key] = f"skipped: {e}"
        except (BenchError, AssertionError, OSError) as e:
            self.results[key] = f"FAILED: {e}"
        print(f"  {wl.name:<12} {tool.name:<11} {self.results[key]}", flush=True)
        return False

    def one_run(self, wl, tool, key, src, dst, i):
        empty_dir(dst)
        t0, n0 = os.times(), self.nginx_cpu()
        s = tool.run(wl, src, dst)
        t1, n1 = os.times(), self.nginx_cpu()
        verify(wl, src, dst)
        self.results[key].append(s)
        # The harness shares the two cores with the tools: its own CPU (the vsk client, the aria2
        # RPC feeders) is part of what a run costs the machine.
        own = (t1.user + t1.system) - (t0.user + t0.system) + s.client_cpu
        print(f"  {wl.name:<12} {tool.name:<11} run {i + 1}: {s.seconds:7.3f} s, "
              f"CPU {s.cpu:6.3f} s, RssAnon {s.peak_kib / 1024:7.1f} MiB, "
              f"harness CPU {own:6.3f} s"
              + (f" (driver {s.client_cpu:5.3f} s)" if tool.name == Vsk.name else "")
              + f", nginx CPU {n1 - n0:6.3f} s", flush=True)
        empty_dir(dst)  # tmpfs is memory: the next tool's run should not pay for these files

    def stop_tool(self, wl, tool, key, dst):
        try:
            tool.stop()
        except (BenchError, AssertionError) as e:
            self.results[key] = f"FAILED: {e}"
            print(f"  {wl.name:<12} {tool.name:<11} {self.results[key]}", flush=True)
        shutil.rmtree(dst, ignore_errors=True)

    def close(self):
        if self.nginx is not None:
            self.nginx.stop()
        if self.args.keep:
            print(f"kept {self.work}", file=sys.stderr)
        else:
            shutil.rmtree(self.work, ignore_errors=True)


def parse_set(text):
    key, sep, value = text.partition("=")
    if not sep or not key:
        raise argparse.ArgumentTypeError(f"--vsk-set wants KEY=VALUE, got {text!r}")
    if value in ("true", "false"):
        return key, value == "true"
    try:
        return key, int(value)
    except ValueError:
        return key, value


def table(bench, wls):
    """The result table as Markdown lines."""
    out = ["| workload | tool | median s | range s | runs | CPU s (median) | CPU µs/file "
           "| peak RssAnon MiB | × curl -Z |",
           "|---|---|---:|---|---:|---:|---:|---:|---:|"]
    for wl in wls:
        curl = bench.results.get((wl.name, Curl.name))
        if curl is None and wl.files != wl.name:  # a variant is compared to its base's curl
            curl = bench.results.get((wl.files, Curl.name))
        curl_med = statistics.median(s.seconds for s in curl) if isinstance(curl, list) and curl else None
        for (wname, tname), res in bench.results.items():
            if wname != wl.name:
                continue
            if isinstance(res, str):
                res = res.splitlines()[0][:120].replace("|", "/")
                out.append(f"| {wname} ({wl.count} × {fmt_size(wl.size)}) | {tname} | {res} "
                           f"| | | | | | |")
                continue
            secs = [s.seconds for s in res]
            med = statistics.median(secs)
            cpu = statistics.median(s.cpu for s in res)
            ratio = f"{med / curl_med:.2f}" if curl_med else "—"
            out.append(f"| {wname} ({wl.count} × {fmt_size(wl.size)}) | {tname} | {med:.3f} "
                       f"| {min(secs):.3f}–{max(secs):.3f} | {len(res)} | {cpu:.3f} "
                       f"| {cpu / wl.count * 1e6:.0f} | {max(s.peak_kib for s in res) / 1024:.1f} "
                       f"| {ratio} |")
    return out


def fmt_size(n):
    return f"{n // MiB} MiB" if n >= MiB else f"{n // KiB} KiB"


CHART_ROWS = (  # figure of a run, y-axis label, whether the bar gets the ratio to curl -Z
    (lambda s: s.seconds, "wall s (median, range)", True),
    (lambda s: s.cpu, "tool CPU s (median, range)", False),
    (lambda s: s.peak_kib / 1024, "peak RssAnon MiB", False),
)


def chart_cell(ax, bench, wl, figure, ratio):
    names, med, lo, hi, labels = [], [], [], [], []
    curl = bench.results.get((wl.name, Curl.name)) or bench.results.get((wl.files, Curl.name))
    curl_med = (statistics.median(figure(s) for s in curl)
                if ratio and isinstance(curl, list) and curl else None)
    for (wname, tname), res in bench.results.items():
        if wname != wl.name:
            continue
        names.append(tname)
        if not isinstance(res, list) or not res:
            med.append(0)
            lo.append(0)
            hi.append(0)
            labels.append("failed" if str(res).startswith("FAILED") else "skipped")
            continue
        values = [figure(s) for s in res]
        m = statistics.median(values)
        med.append(m)
        lo.append(m - min(values))
        hi.append(max(values) - m)
        labels.append(f"{m:.2f}" + (f"\n{m / curl_med:.2f}× curl" if curl_med else ""))
    bars = ax.bar(names, med, yerr=[lo, hi], capsize=3, color="#4878a8")
    ax.bar_label(bars, labels=labels, fontsize=7, padding=2)
    ax.set_ylim(0, max(m + h for m, h in zip(med, hi)) * 1.35 or 1)
    ax.tick_params(axis="x", labelrotation=30, labelsize=8)


def chart(bench, wls, path):
    """Wall time, CPU and peak RssAnon per tool and workload (median, range as error bars)."""
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("no chart: matplotlib is not installed (make bench-deps)", file=sys.stderr)
        return False
    shown = [wl for wl in wls if any(w == wl.name for w, _ in bench.results)]
    if not shown:
        return False
    fig, axes = plt.subplots(len(CHART_ROWS), len(shown), squeeze=False,
                             figsize=(3.4 * len(shown), 3.0 * len(CHART_ROWS)))
    for col, wl in enumerate(shown):
        axes[0][col].set_title(f"{wl.name}\n{wl.count} × {fmt_size(wl.size)}", fontsize=9)
        for row, (figure, label, ratio) in enumerate(CHART_ROWS):
            chart_cell(axes[row][col], bench, wl, figure, ratio)
            if col == 0:
                axes[row][col].set_ylabel(label)
    fig.tight_layout()
    fig.savefig(path, format="svg")
    plt.close(fig)
    return True


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--vsk", default=str(SOURCE_DIR / "build/release/vesk/vsk"),
                    help="agent binary (default: the release build)")
    ap.add_argument("--driver", help="the agent's client, bench/vsk_drive.cpp (default: "
                    "vsk_drive in the build tree of --vsk)")
    ap.add_argument("--quick", action="store_true", help="scaled-down counts for a smoke run")
    ap.add_argument("--runs", type=int, help="runs per tool and workload (default 5, quick 3)")
    ap.add_argument("--tools", default="cp,curl,aria2c,vsk",
                    help="comma-separated subset of cp, curl, aria2c, vsk")
    ap.add_argument("--workloads", help="comma-separated subset of the workload names")
    ap.add_argument("--inflight", type=int, default=0, metavar="N",
                    help="also N requests in flight on one listener (sets web_input.max_queued)")
    ap.add_argument("--vsk-set", action="append", default=[], metavar="KEY=VALUE",
                    help="agent key to set, for example max_mmap_mb=0 or log.level=norm (repeatable)")
    ap.add_argument("--attach", metavar="CMD", help="command run on the agent during each of its "
                    "runs and stopped with SIGINT at the end, {pid} and {out} replaced, for example "
                    "'strace -c -f -o {out} -p {pid}' (the times are then not comparable)")
    ap.add_argument("--attach-dir", default=str(SOURCE_DIR / "build/bench/attach"),
                    help="where the --attach outputs go")
    ap.add_argument("--out", default=str(SOURCE_DIR / "build/bench"),
                    help="directory of bench.md and bench.svg")
    ap.add_argument("--keep", action="store_true", help="keep the temporary directory")
    args = ap.parse_args()
    args.tools = [t.strip() for t in args.tools.split(",") if t.strip()]
    for t in args.tools:
        if t not in TOOLS:
            ap.error(f"unknown tool {t!r}")
    if args.runs is None:
        args.runs = 3 if args.quick else 5
    if args.runs < 1:
        ap.error("--runs must be at least 1")
    if args.inflight < 0:
        ap.error("--inflight must not be negative")
    if "vsk" in args.tools and not os.access(args.vsk, os.X_OK):
        sys.exit(f"no agent binary at {args.vsk}; run `make build` first")
    if args.driver is None:
        args.driver = str(Path(args.vsk).resolve().parents[1] / "vsk_drive")
    if "vsk" in args.tools and not os.access(args.driver, os.X_OK):
        sys.exit(f"no driver binary at {args.driver}; build the vsk_drive target first")
    if not TMPFS.is_dir():
        sys.exit(f"{TMPFS} is missing: sources and destinations must be on tmpfs")
    conftest.VSK_BIN = os.path.abspath(args.vsk)
    wls = workloads(args.quick, args.inflight)
    if args.workloads:
        pick = {w.strip() for w in args.workloads.split(",")}
        unknown = pick - {w.name for w in wls}
        if unknown:
            ap.error(f"unknown workload(s) {sorted(unknown)}; known: {[w.name for w in wls]}")
        wls = [w for w in wls if w.name in pick]

    # Thousands of requests in flight need as many descriptors, here and in the agent.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    # A plain `kill` of the benchmark must still stop its children and remove its files.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))

    bench = Bench(args)
    rc = 0
    try:
        bench.nginx = Nginx(bench.work / "nginx", conftest.free_port())
        bench.nginx.start()
        print(f"{'quick' if args.quick else 'full'} run, {args.runs} runs per tool, "
              f"{IN_FLIGHT} in flight, nginx 127.0.0.1:{bench.nginx.port} on {TMPFS}, "
              f"{os.cpu_count()} CPUs, vsk {args.vsk} {' '.join(args.vsk_set)}", flush=True)
        for i, wl in enumerate(wls):
            bench.run_workload(wl, wls[i + 1:])
    except AssertionError as e:  # nginx did not start or stop
        print(f"FAILED: {e}", file=sys.stderr)
        rc = 1
    finally:
        bench.close()
    lines = table(bench, wls)
    print("\n".join(lines))
    rc = rc or int(any(isinstance(r, str) and r.startswith("FAILED")
                       for r in bench.results.values()))
    out = Path(args.out)
    out.mkdir(parents=True, exist_ok=True)
    (out / "bench.md").write_text("\n".join(lines) + "\n")
    if chart(bench, wls, out / "bench.svg"):
        print(f"table {out / 'bench.md'}, chart {out / 'bench.svg'}")
    return rc


if __name__ == "__main__":
    sys.exit(main())
