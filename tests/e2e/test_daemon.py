"""The agent as a process: configuration errors, the configuration dump, CPU pinning, signals,
daemon mode with its pid file, and where the log goes (file, pipe, rotation, old file moved aside)."""
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

from conftest import PANIC_RE, VSK_BIN, free_port, ping, refused_config, render_config, run_vsk, wait_until

RULE = "-----------------------------------\n"


def process_gone(pid):
    """True once the process has exited (a zombie nobody reaps counts as gone)."""
    try:
        state = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return True
    return state in ("Z", "X")


def dump_of(log):
    """The configuration dump: the text between the first two rules."""
    return RULE + log.split(RULE, 2)[1] + RULE


def test_config_syntax_error_names_file_and_line(tmp_path):
    path, log = tmp_path / "bad.conf", tmp_path / "never.log"
    path.write_text('vesk = {\n  log = { file = "%s"; };\n  runtime = { non_daemon = true; };\n'
                    '  data_dir = ;\n};\n' % log)
    r = run_vsk("-C", path)
    assert r.returncode == 1, r.stderr
    assert f"Error reading/parsing config file [{path}]: line 4: syntax error\n" in r.stderr
    assert not log.exists()


def keys(**kv):
    return lambda v: v.update(kv)


def web(**kv):
    return lambda v: v["web_input"].update(kv)


# id -> (change to the configuration, what standard error must say). Messages that the unit tests
# already check on the loader itself are not repeated here.
BAD_CONFIG = {
    "no-runtime": (lambda v: v.pop("runtime"), "load_config: missing runtime section\n"),
    "no-listener": (lambda v: v.pop("web_input"), "at least one listener must be present"),
    "bad-timefmt": (lambda v: v["log"].update(time_format="julian"), "Invalid time format: julian\n"),
    "bad-data-dir": (keys(data_dir="/nonexistent/vsk-data"),
                     "cannot accept [/nonexistent/vsk-data] as vesk.data_dir\n"),
    "daemon-no-log": (lambda v: (v["log"].pop("file"), v["runtime"].update(non_daemon=False)),
                      "Logfile must be specified to run as daemon\n"),
    "accept-0": (web(max_accept=0), "vesk.web_input.max_accept = 0 is out of range (1..1024)"),
    "accept-neg": (web(max_accept=-5), "vesk.web_input.max_accept = -5 is out of range (1..1024)"),
    "accept-1025": (web(max_accept=1025), "vesk.web_input.max_accept = 1025 is out of range (1..1024)"),
    "queued-0": (web(max_queued=0), "web_input.max_queued = 0 is out of range (1..100000)"),
    "backlog-70000": (web(backlog=70000), "web_input.backlog = 70000 is out of range (1..65535)"),
    "keep-alive-text": (web(keep_alive="yes"), "web_input.keep_alive must be true or false"),
    "keep-alive-idle-0": (web(keep_alive_idle_ms=0),
                          "web_input.keep_alive_idle_ms = 0 is out of range (1..3600000)"),
    "stalled-text": (keys(end_stalled_tasks="yes"), "vesk.end_stalled_tasks must be true or false"),
    "stalled-no-tmout": (keys(end_stalled_tasks=True, task_tmout_ms=0), "vesk.task_tmout_ms must be at least 1"),
    "admin-string": (keys(admin_input="lo:8080"), "vesk.admin_input must be a listener group or a list of them"),
    "admin-empty": (keys(admin_input=[]), "failed to load admin listener(s) of vesk.admin_input"),
    "admin-port-0": (keys(admin_input={"ifc": "lo", "port": 0}), "invalid port value: [0]"),
    "admin-queued-0": (keys(admin_input={"ifc": "lo", "port": 8080, "max_queued": 0}),
                       "admin_input.max_queued = 0 is out of range (1..100000)"),
    "admin-second-bad": (keys(admin_input=[{"ifc": "lo", "port": 8080}, {"ifc": "lo", "port": 70000}]),
                         "invalid port value: [70000]"),
    # A bad entry in an access list: the same message from a configuration check (-t).
    "clients-bits": (keys(allow_clients=["10.0.0.0/8", "10.1.0.0/8"]), "vesk.allow_clients: bad entry "
                     "[10.1.0.0/8]: address has bits set past the prefix length"),
    "clients-name": (keys(allow_clients=["localhost"]),
                     "vesk.allow_clients: bad entry [localhost]: not an IPv4 or IPv6 address"),
    "sources-label": (keys(allow_sources=["a..example.com"]),
                      "vesk.allow_sources: bad entry [a..example.com]: host name has an empty label"),
    "sources-v4-33": (keys(allow_sources=["10.0.0.0/33"]),
                      "vesk.allow_sources: bad entry [10.0.0.0/33]: prefix length above 32"),
    "deny-v6-129": (keys(deny_sources=["fe80::/129"]),
                    "vesk.deny_sources: bad entry [fe80::/129]: prefix length above 128"),
    "deny-not-list": (keys(deny_sources="169.254.0.0/16"), "vesk.deny_sources must be a list of strings"),
    "deny-not-text": (keys(deny_sources=[16]), "vesk.deny_sources: entry 1 is not a string"),
}


@pytest.mark.parametrize("case", BAD_CONFIG)
def test_config_errors_exit_1(tmp_path, case):
    """Nothing of the run-time is touched: no log file, no pid file."""
    change, text = BAD_CONFIG[case]
    for args in ((), ("-t",)) if case.startswith(("clients-", "sources-", "deny-")) else ((),):
        assert text in refused_config(tmp_path, change, *args), args


def test_cpu_pinning(agents):
    pinned = agents("pinned").start("-P", "0")
    pid = pinned.proc.pid
    assert f"vsk(pid={pid}) processor affinity set to CPU0\n" in pinned.log()
    assert "\tCPU: 0\n" in dump_of(pinned.log())
    assert Path(f"/proc/{pid}/status").read_text().count("Cpus_allowed_list:\t0\n") == 1

    free = agents("free").start("-P", "-5")
    assert "processor affinity" not in free.log() and "\tCPU:" not in dump_of(free.log())

    # A CPU that is not there fails the set-up in the foreground: status 1.
    bad = agents("bad").start("-P", "1024", wait_for=None)
    assert bad.wait_exit() == 1
    log, pid = bad.log(), bad.proc.pid
    assert f"Failed to pin this vsk(pid={pid}) to CPU1024\n" in log and "STARTING" not in log
    assert "runtime_setup: FAILED (rc=-1)\n" in log
    assert re.search(rf" EXIT\(1\)\. PID={pid}\n$", log), log[-500:]


def test_config_dump_defaults(agent):
    agent.start()
    port = agent.port
    dump = dump_of(agent.log())
    assert dump.startswith(RULE + f"Log (regular):\n\tpath   = {agent.log_path}\n\tlevel  = debug\n"
                           "\tformat = local\n\trota:max size   = 64 Mb\n\trota:max files  = 16\n"
                           f"\trota:end-of-day = off (0)\n\nRuntime:\n\tpid file = {agent.dir / 'vsk.pid'}\n"
                           "\tflags: [non-daemon] [quiet] [cores]\n\nListeners:\n"), dump
    assert re.search(rf"\n\tuser listener\[lo:{port}\]: ifc=lo, af=\S+ port={port}\n\n", dump), dump
    assert "\tmax-accepted=64\n\tI/O timeouts: user-rq=1000, admin-rq=0 custom-rq=0\n\n" in dump
    assert dump.endswith(f"Misc:\n\tdata directory       = [{agent.data_dir}]\n"
                         "\trequest time-out     = 1 sec\n\tmax tasks            = 4096 \n"
                         "\ttask time-out        = 5000 ms\n\tmmap up to           = 8 MB\n\n" + RULE), dump
    assert "UDP input" not in dump and "Load-balancer DB" not in dump


def test_config_dump_of_file_values(agent):
    agent.vesk["log"].update(time_format="GMT", max_size_mb=2, max_files=3)
    agent.vesk["runtime"].update(enforce_core_dumps=False, quiet=False)
    agent.vesk.update(max_tasks=0, urq_tmout_sec=3, task_tmout_ms=700, max_mmap_mb=2,
                      local_url_prefix="http://127.0.0.1:8080/seg/")
    agent.vesk["web_input"][0]["alias"] = "front"
    agent.start()
    dump = dump_of(agent.log())
    assert "\tformat = gmt\n\trota:max size   = 2 Mb\n\trota:max files  = 3\n" in dump
    assert "\tflags: [non-daemon]\n" in dump and "\tuser listener[front]: ifc=lo, af=" in dump
    assert dump.endswith("\trequest time-out     = 3 sec\n\tmax tasks            = 0 (unlimited)\n"
                         "\ttask time-out        = 700 ms\n\tmmap up to           = 2 MB\n"
                         "\tlocal URL prefix     = http://127.0.0.1:8080/seg\n\n" + RULE), dump
    # Not quiet and in the foreground with a log file: the dump is repeated on standard error.
    assert agent.stop() == 0
    assert "\tmax tasks            = 0 (unlimited)\n" in agent.stderr()


@pytest.mark.parametrize("suffix, fmt", [("", "gzip"), ("?zipped=1", "text")])
def test_udp_channel_from_command_line(agent, suffix, fmt):
    # The channel alone is enough of a listener.
    del agent.vesk["web_input"]
    url = f"udp://127.0.0.1:{free_port(kind=socket.SOCK_DGRAM)}{suffix}"
    agent.start("-U", url)
    log = agent.log()
    assert f"\tUDP input            = [{url}] ifc=all fmt={fmt} lk=[none]\n" in dump_of(log)
    assert re.search(rf"udl_ctx_init: fd\d+ set up to listen on \[{re.escape(url)}\]\n", log)


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT],
                         ids=lambda s: s.name)
def test_quit_signals_end_cleanly(agent, sig):
    pidfile = agent.dir / "vsk.pid"
    # The configured pid file is removed at shut-down, even one that this run did not write.
    pidfile.write_text("424242")
    agent.start()
    assert agent.stop(sig) == 0
    log = agent.log()
    assert f"QUIT-SIG({int(sig)})\n" in log and "vsk has been asked to quit.\n" in log
    assert "vsk shut down\n" in log
    assert re.search(rf" EXIT\(0\)\. PID={agent.proc.pid}\n$", log), log[-500:]
    assert not pidfile.exists()


def test_sigusr2_toggles_debug_logging(agent):
    agent.vesk["log"]["level"] = "info"
    agent.start()
    port = agent.port
    assert ping(port).startswith(b"HTTP/1.1 204 ") and "(DBG)" not in agent.log()
    agent.proc.send_signal(signal.SIGUSR2)
    agent.wait_for_log(r"T-DBG SIG\(12\)\n")
    ping(port)  # the switch happens at the next idle pass
    agent.wait_for_log(r"Log level PUSH \(DEBUG\)\n")
    agent.wait_for_log(r"do_idle_tasks: now all DEBUG messages will be recorded\n")
    ping(port)
    agent.wait_for_log(r"\(DBG\).*on_read: data \[Rsc\]")
    agent.proc.send_signal(signal.SIGUSR2)
    agent.wait_for_log(r"T-DBG SIG\(12\)\n", count=2)
    ping(port)
    agent.wait_for_log(r"Log level POP \(DEBUG\)\n")
    ping(port)
    agent.wait_for_log(rf"Log level POP \(DEBUG\)\n[\s\S]*Accepted lo:{port} request")
    assert "(DBG)" not in agent.log().split("Log level POP (DEBUG)\n", 1)[1]


def start_daemon(agent):
    """Launches the agent without -T; returns the launcher's exit status once it has returned."""
    agent.vesk["runtime"]["non_daemon"] = False
    agent.write_config()
    with open(agent.stderr_path, "w") as err:
        r = subprocess.run([VSK_BIN, "-C", str(agent.config_path)], stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=err, cwd=agent.dir, timeout=10)
    return r.returncode


def test_daemon_mode_pidfile_and_sigterm(agent):
    pidfile = agent.dir / "vsk.pid"
    assert start_daemon(agent) == 0
    wait_until("pid file", lambda: pidfile.exists() and pidfile.read_text().strip())
    pid = int(pidfile.read_text())
    try:
        wait_until("STARTING", lambda: f"STARTING. PID={pid}\n" in agent.log())
        assert os.getsid(pid) != os.getsid(0), "the daemon did not leave our session"
        # The terminal is let go, but 0-2 stay taken by the null device: otherwise the log file,
        # a socket or a destination file would become a standard descriptor.
        assert [os.readlink(f"/proc/{pid}/fd/{fd}") for fd in (0, 1, 2)] == ["/dev/null"] * 3
        # A daemon runs with umask 0; its log must still not be writable by everyone.
        assert agent.log_path.stat().st_mode & 0o777 == 0o644
        assert pidfile.read_text() == str(pid)  # no line end
        assert f"Created pidfile [{pidfile}] with pid={pid}.\n" in agent.log()
        assert "\tflags: [quiet] [cores]\n" in dump_of(agent.log())
        assert ping(agent.port).startswith(b"HTTP/1.1 204 ")

        os.kill(pid, signal.SIGTERM)
        wait_until("daemon exit", lambda: process_gone(pid))
    finally:
        if not process_gone(pid):
            os.kill(pid, signal.SIGKILL)
    log = agent.log()
    assert "vsk has been asked to quit.\n" in log and not pidfile.exists()
    assert re.search(rf" EXIT\(0\)\. PID={pid}\n$", log), log[-500:]


def test_daemon_needs_pid_file(agent):
    # The launcher has already returned when the detached process finds it has no pid file.
    del agent.vesk["runtime"]["pidfile"]
    assert start_daemon(agent) == 0
    wait_until("set-up failure", lambda: "runtime_setup: FAILED" in agent.log())
    wait_until("EXIT line", lambda: " EXIT(" in agent.log(), timeout=2)
    log = agent.log()
    assert "create_pidfile_extra: no path specified\n" in log and "STARTING" not in log
    assert re.search(r" EXIT\(1\)\. PID=\d+\n$", log), log[-500:]


def test_non_root_user_always_runs_in_the_foreground(agent):
    # As another user the file's daemon setting is overridden: no log path needed, no pid file.
    # pytest's own temporary tree is private to root, so this test works in a directory of its own.
    work = Path(tempfile.mkdtemp(prefix="vsk-nobody-"))
    try:
        (work / "data").mkdir()
        for d in (work, work / "data"):
            os.chmod(d, 0o777)
        agent.vesk.update(runtime={"non_daemon": False, "pidfile": str(work / "vsk.pid")},
                          data_dir=str(work / "data"))
        del agent.vesk["log"]["file"]
        (work / "vsk.conf").write_text(render_config(agent.vesk))
        proc = subprocess.Popen(["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                                 VSK_BIN, "-C", str(work / "vsk.conf")],
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        try:
            wait_until("answer", lambda: ping(agent.port).startswith(b"HTTP/1.1 204 "))
        finally:
            proc.send_signal(signal.SIGTERM)
            _, err = proc.communicate(timeout=10)
        assert proc.returncode == 0 and "uid/gid = 65534/65534" in err, err
        assert "\tflags: [non-daemon] [cores]\n" in err and PANIC_RE.search(err) is None, err
        assert not (work / "vsk.pid").exists()
    finally:
        shutil.rmtree(work, ignore_errors=True)


# Batched writes change when records reach the output, never which ones or in what order.
BATCH = pytest.mark.parametrize("batch", [False, True], ids=["per_record", "batched"])


@BATCH
def test_log_through_pipe(agent, batch):
    target = agent.dir / "piped.log"
    agent.vesk["log"].update(file=f"|cat >> {target}", batch_writes=batch)
    agent.log_path = target  # what the harness reads as the log
    agent.start()
    assert agent.stop() == 0
    log, pid = agent.log(), agent.proc.pid
    assert f"STARTING. PID={pid}\n" in log
    assert ("\twrites = batched, one per loop pass\n" in log) == batch
    assert re.search(rf" EXIT\(0\)\. PID={pid}\n$", log), log[-500:]
    assert not [p for p in os.listdir(agent.dir) if p.startswith("|")]


@BATCH
def test_log_rotated_at_its_size(agent, batch):
    agent.vesk["log"].update(max_size_mb=1, batch_writes=batch)
    t0 = int(time.time())
    agent.start()

    def rotated():
        return sorted(p for p in agent.dir.iterdir() if re.fullmatch(r"vsk\.log\.\d+", p.name))
    deadline = time.monotonic() + 60
    while not rotated():
        assert time.monotonic() < deadline, "no rotation after 60 s of pings"
        for _ in range(20):
            ping(agent.port)
    [old] = rotated()
    stamp = old.name.rsplit(".", 1)[1]
    assert t0 <= int(stamp) <= time.time()
    # The record that reached the limit is the last one of the old file (records are < 2 KiB).
    assert 1048576 <= old.stat().st_size < 1048576 + 2048
    assert f"STARTING. PID={agent.proc.pid}\n" in old.read_text()
    # The old file is renamed before the new one is opened and gets its first record.
    wait_until("the rotation notice", lambda: "previous log rotated" in agent.log())
    first = agent.log().split("\n", 1)[0]
    assert first.endswith(f"]: previous log rotated to [{old}] tm={stamp}, idx=0"), first
    assert "STARTING" not in agent.log()
    assert agent.stop() == 0 and " EXIT(0)." in agent.log() and rotated() == [old]


def test_old_log_moved_aside_at_start(agents):
    a, b = agents("moved"), agents("empty")
    old_mtime = 1_500_000_000
    a.log_path.write_text("left by an earlier run\n")
    b.log_path.write_text("")  # an empty file is not moved but written to
    for x in (a, b):
        os.utime(x.log_path, (old_mtime, old_mtime))
        x.start()
    assert Path(f"{a.log_path}.{old_mtime}").read_text() == "left by an earlier run\n"
    assert "left by an earlier run" not in a.log()
    assert not Path(f"{b.log_path}.{old_mtime}").exists() and "STARTING" in b.log()
    first_pid = a.proc.pid
    assert a.stop() == 0
    # A restart moves the previous run's log aside under its modification time.
    aside = Path(f"{a.log_path}.{int(a.log_path.stat().st_mtime)}")
    a.start(wait_for=None)
    wait_until("the previous log moved aside", aside.exists)
    a.wait_for_log(rf"STARTING\. PID={a.proc.pid}\n")
    assert f"EXIT(0). PID={first_pid}\n" in aside.read_text() and f"PID={first_pid}" not in a.log()
