"""Check mode (-t/--check) as an operator uses it before a restart: the verdict and exit status,
every problem of a configuration in one run, nothing bound and nothing written, and the registry's
scripts checked against a real Redis when it answers."""
import signal
import socket

import pytest

from conftest import files_under, free_port, render_config, run_vsk

OK = "configuration OK\n"
FAILED = "configuration check FAILED\n"


def daemon_config(tmp_path, **changes):
    """A daemon configuration (we run as root) whose files all live under `tmp_path`."""
    for d in ("data", "lock", "logs", "run"):
        (tmp_path / d).mkdir(exist_ok=True)
    vesk = {
        "log": {"file": str(tmp_path / "logs/vsk.log"), "level": "info", "enable_syslog": False},
        "runtime": {"non_daemon": False, "pidfile": str(tmp_path / "run/vsk.pid"),
                    "run_as_user": "nobody", "cpunum": -1},
        "web_input": [{"alias": "web-a", "ifc": "lo", "port": free_port(), "default_af": "ipv4"}],
        "udp_input": {"url": f"udp://127.0.0.1:{free_port(kind=socket.SOCK_DGRAM)}",
                      "lock_dir": str(tmp_path / "lock")},
        "data_dir": str(tmp_path / "data"),
    }
    for path, value in changes.items():
        group, _, key = path.rpartition(".")
        target = vesk[group] if group else vesk
        if isinstance(target, list):
            target = target[0]
        if value is None:
            target.pop(key, None)
        else:
            target[key] = value
    return vesk


def check(tmp_path, vesk, *args):
    path = tmp_path / "vsk.conf"
    path.write_text(render_config(vesk))
    return run_vsk("-C", path, "-t", *args)


def test_check_passes_while_the_ports_are_taken_and_writes_nothing(tmp_path):
    vesk = daemon_config(tmp_path)
    web_port = vesk["web_input"][0]["port"]
    udp_port = int(vesk["udp_input"]["url"].rsplit(":", 1)[1])
    # The running agent's sockets: a check before its restart must not need them.
    with socket.socket() as tcp, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        tcp.bind(("127.0.0.1", web_port))
        tcp.listen(1)
        udp.bind(("127.0.0.1", udp_port))
        r = check(tmp_path, vesk)
    assert r.returncode == 0, r.stderr
    assert r.stderr.startswith(f"checking configuration [{tmp_path / 'vsk.conf'}]\n")
    assert r.stderr.endswith(OK) and "check:" not in r.stderr
    # No log, pid or lock file, nothing in the data directory, the process did not daemonize.
    assert files_under(tmp_path) == ["vsk.conf"]


# id -> (changes to the daemon configuration, extra arguments, lines expected on standard error).
# Each is a configuration that a start would refuse or run broken.
PROBLEMS = {
    "lock-dir-missing": ({"udp_input.lock_dir": "TMP/nolock"}, [],
                         ["check: lock directory [TMP/nolock] (vesk.udp_input.lock_dir) cannot hold "
                          "lock files\n"]),
    "data-dir-missing": ({"data_dir": "TMP/nodata"}, [],
                         ["load_config: cannot accept [TMP/nodata] as vesk.data_dir\n"]),
    "log-dir-missing": ({"log.file": "TMP/nologs/vsk.log"}, [],
                        ["check: log file [TMP/nologs/vsk.log] cannot be created in [TMP/nologs]: "
                         "No such file or directory\n"]),
    "pidfile-dir-missing": ({"runtime.pidfile": "TMP/norun/vsk.pid"}, [],
                            ["check: pid file [TMP/norun/vsk.pid] cannot be created"]),
    "daemon-without-pidfile": ({"runtime.pidfile": None}, [],
                               ["check: a daemon needs a pid file"]),
    "daemon-without-log": ({"log.file": None}, [], ["check: a daemon needs a log file"]),
    "unknown-user": ({"runtime.run_as_user": "nosuchuser"}, [],
                     ["check: user [nosuchuser] (vesk.runtime.user) does not exist\n"]),
    # The name2af message has no line end of its own; the log record still ends its line.
    "unknown-family": ({"web_input.default_af": "ipx"}, [],
                       ["name2af: unsupported address family [ipx] in configuration.\n",
                        "check: user listener [web-a]: unknown address family"]),
    "same-endpoint": ({}, ["-w", "lo:SAMEPORT"], ["check: user listener [web-cli] uses the endpoint "
                                                  "of listener [web-a]\n"]),
    "cpu-absent": ({"runtime.cpunum": 1023}, [], ["check: CPU 1023 is not available"]),
    "lock-backend-unknown": ({"udp_input.lock_backend": "nfs"}, [],
                             ['load_config: vesk.udp_input.lock_backend must be "file" or "redis"\n']),
    "lock-backend-not-text": ({"udp_input.lock_backend": 1}, [],
                              ['load_config: vesk.udp_input.lock_backend must be "file" or "redis"\n']),
    "redis-locks-without-db": ({"udp_input.lock_backend": "redis"}, [],
                               ['load_config: vesk.udp_input.lock_backend = "redis" needs the '
                                'vesk.lbdb group with a port\n']),
    "lock-prefix-too-long": ({"udp_input.lock_prefix": "p" * 64}, [],
                             ["load_config: vesk.udp_input.lock_prefix must be a string of at most "
                              "63 characters\n"]),
}


@pytest.mark.parametrize("case", list(PROBLEMS))
def test_check_reports_the_problem(tmp_path, case):
    changes, args, expected = PROBLEMS[case]
    changes = {k: v.replace("TMP", str(tmp_path)) if isinstance(v, str) else v
               for k, v in changes.items()}
    vesk = daemon_config(tmp_path, **changes)
    if case == "same-endpoint":
        # -w lands in the third slot; the second is filled so that the walk reaches it.
        port = vesk["web_input"][0]["port"]
        vesk["web_input"].append({"alias": "web-b", "ifc": "lo", "port": free_port()})
        args = [a.replace("SAMEPORT", str(port)) for a in args]
    r = check(tmp_path, vesk, *args)
    assert r.returncode == 1, r.stderr
    for line in expected:
        assert line.replace("TMP", str(tmp_path)) in r.stderr, r.stderr
    assert r.stderr.endswith(FAILED)
    assert files_under(tmp_path) == ["vsk.conf"]


def test_check_reports_every_problem_in_one_run(tmp_path):
    vesk = daemon_config(tmp_path, **{"udp_input.lock_dir": str(tmp_path / "nolock"),
                                      "runtime.run_as_user": "nosuchuser",
                                      "log.file": str(tmp_path / "nologs/vsk.log")})
    r = check(tmp_path, vesk)
    assert r.returncode == 1
    assert r.stderr.count("\ncheck: ") == 3, r.stderr
    assert r.stderr.endswith(FAILED)


# --- the registry ---------------------------------------------------------------------------

def with_db(tmp_path, redis, port=None):
    vesk = daemon_config(tmp_path)
    vesk["local_url_prefix"] = "http://127.0.0.1:1/seg"
    vesk["lbdb"] = {"host": "127.0.0.1", "port": port or redis.port, "sha1_dir": str(redis.sha1_dir),
                    "connect_tmout_ms": 300}
    return vesk


def test_registry_scripts_loaded_and_redis_locks_need_no_lock_directory(tmp_path, redis):
    vesk = with_db(tmp_path, redis)
    vesk["udp_input"].update(lock_backend="redis", lock_prefix="fleet:", lock_dir=str(tmp_path / "nolock"))
    r = check(tmp_path, vesk)
    assert r.returncode == 0 and r.stderr.endswith(OK), r.stderr
    assert f"lbdb_connect: connected to 127.0.0.1:{redis.port}\n" in r.stderr


@pytest.mark.parametrize("fault", ["script-flushed", "digest-missing", "digest-empty", "redis-down",
                                   "redis-paused"])
def test_registry_fault(tmp_path, redis, fault):
    port = free_port() if fault == "redis-down" else redis.port
    digest = redis.sha1_dir / "add_url.sha1"
    if fault == "script-flushed":
        redis.cli("SCRIPT", "FLUSH")
    elif fault == "digest-missing":
        digest.unlink()
    elif fault == "digest-empty":
        digest.write_text("")
    elif fault == "redis-paused":
        # Accepts connections (the kernel does) and answers nothing.
        redis.proc.send_signal(signal.SIGSTOP)
    try:
        r = check(tmp_path, with_db(tmp_path, redis, port))
    finally:
        if fault == "redis-paused":
            redis.proc.send_signal(signal.SIGCONT)
    expect = {
        "script-flushed": f"check: database 127.0.0.1:{port}: the registry scripts are not loaded (rc=2)\n",
        "digest-missing": f"check: digest files in [{redis.sha1_dir}] (vesk.lbdb.sha1_dir) cannot be read\n",
        "digest-empty": f"check: digest file [{redis.sha1_dir}/add_url.sha1] is empty\n",
        # A database that is down is not a fault of the configuration: the scripts go unchecked.
        # The bound is the connect time-out plus one command time-out (both 300 ms here).
        "redis-down": f"check: note: database 127.0.0.1:{port} not reached within 600 ms",
        # A paused one accepts (the kernel does) and stays silent: the command time-out ends it.
        "redis-paused": "check_script_exists: no answer within 300 ms",
    }[fault]
    assert expect in r.stderr, r.stderr
    if fault == "redis-paused":
        assert f"check: note: database 127.0.0.1:{port} not reached within 600 ms" in r.stderr
    unchecked = fault.startswith("redis-")
    assert r.returncode == (0 if unchecked else 1), r.stderr
    assert r.stderr.endswith(OK if unchecked else FAILED)
