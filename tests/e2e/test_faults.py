"""Local faults as an operator's machine meets them: a full or size-limited disk, sources that stall,
descriptors running out, a listener full of idle connections, and a quit signal that comes at the
worst moment. Each test makes the fault with the real thing (a small tmpfs in a private mount
namespace, a silent source, prlimit) and checks what an operator checks: the agent still answers
GET / with 204, quits on SIGTERM with 0 within two seconds, is back to its idle descriptors, left no
wrong or unfinished file, and wrote a bounded log."""
import os
import shutil
import signal
import socket
import subprocess
import threading
import time

import pytest

from conftest import (Scrape, ask, burst, curl, dl_path, files_under, never_accepting_port, ping,
                      read_all, request, wait_scrape, wait_until)
from test_download import BODY, start_with_worker

KiB = 1024
MiB = 1024 * KiB
LOG_LINES_MAX = 300  # what one fault may add to the log at debug level


@pytest.fixture
def agent(agents):
    """An agent logging at info level: the log bound is about what a fault adds, not the debug
    lines of each request."""
    a = agents()
    a.vesk["log"]["level"] = "info"
    return a


def log_lines(agent):
    return agent.log().count("\n")


def assert_answers(agent):
    head = ping(agent.port)
    assert head.startswith(b"HTTP/1.1 204 "), head


def settles(agent, idle, lines, root=None, files=()):
    """What an operator checks after the fault: only the files expected (a task logs its end
    before it removes its unfinished file), idle descriptors, a bounded log, an answer to GET /,
    and a quick exit on SIGTERM."""
    wait_until(f"files {files}", lambda: files_under(root or agent.data_dir) == sorted(files), timeout=5)
    assert agent.wait_fds(idle) == idle
    assert log_lines(agent) - lines < LOG_LINES_MAX
    assert_answers(agent)
    agent.quit_within()


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


# ---- Disk ---------------------------------------------------------------------------------------

def can_mount_tmpfs():
    if os.geteuid() != 0 or not shutil.which("unshare"):
        return False
    r = subprocess.run(["unshare", "-m", "--propagation", "private", "sh", "-c",
                        "mount -t tmpfs -o size=64k tmpfs /mnt"], capture_output=True, timeout=10)
    return r.returncode == 0


needs_tmpfs = pytest.mark.skipif(not can_mount_tmpfs(),
                                 reason="no private mount namespace with a tmpfs here (needs root)")


def start_on_tmpfs(agent, size):
    """Runs the agent in a mount namespace of its own whose data directory is a tmpfs of `size`
    bytes; the test reaches that directory through /proc/<pid>/root."""
    script = f'mount -t tmpfs -o size={size} vsk-e2e "{agent.data_dir}" && exec "$@"'
    agent.start(prefix=("unshare", "-m", "--propagation", "private", "sh", "-c", script, "sh"))
    return type(agent.data_dir)(f"/proc/{agent.proc.pid}/root{agent.data_dir}")


def fill(path, leave=0):
    """Writes a file until the filesystem has at most `leave` bytes left."""
    with open(path, "wb") as f:
        try:
            while True:
                st = os.statvfs(path)
                room = st.f_bavail * st.f_frsize - leave
                if room <= 0:
                    break
                f.write(b"\0" * min(room, 64 * KiB))
                f.flush()
        except OSError:
            pass


def start_on_tmpfs_with_worker(agent, size):
    agent.vesk["reserve_in_worker"] = True
    data = start_on_tmpfs(agent, size)
    if "no submission ring" in agent.log():
        agent.quit_within()
        pytest.skip("the kernel refuses the submission ring here")
    return data


@needs_tmpfs
@pytest.mark.parametrize("splice, worker", [(False, False), (True, False), (True, True)],
                         ids=["mapped", "spliced", "worker"])
def test_disk_filling_during_a_download(agent, bad_source, splice, worker):
    if splice:
        agent.vesk.update(max_mmap_mb=0, splice_to_file=True)
    body = bytes(range(256)) * 400  # 100 KiB
    bad_source.route("/slow.ts", body=body, body_cut=10 * KiB, after_cut="resume", stall_timeout=1.5)
    bad_source.route("/late.ts", body=body)
    data = (start_on_tmpfs_with_worker if worker else start_on_tmpfs)(agent, 512 * KiB)
    idle, lines = agent.fds(), log_lines(agent)
    ask(agent, bad_source.url("slow.ts"), "slow.ts")
    # The body is paused at 10 KiB: the disk fills up under the running download.
    fill(data / "filler")
    assert_answers(agent)
    agent.wait_for_log(r"downloaded: 102400 bytes")
    assert (data / "slow.ts").read_bytes() == body
    # The next ones find no room and are refused without a trace on the disk.
    for i in range(3):
        ask(agent, bad_source.url("late.ts"), f"d/late{i}.ts", expect=(500, "Service error"))
    agent.wait_for_log(r"TASK-END ", count=4)
    # Refused when its blocks are reserved, before a byte is stored: mapped, spliced or reserved
    # by the kernel's worker alike.
    assert "posix_fallocate(" in agent.log() and "ERROR(28): No space left on device" in agent.log()
    settles(agent, idle, lines, data, ["filler", "slow.ts"])


@needs_tmpfs
def test_disk_filling_under_files_written_through(agent, nginx):
    """Files written at once while the worker is behind meet a full disk as reserved ones do: each
    is answered 200 with its whole file, or 500 with nothing of it left."""
    payloads = {f"w{i:03d}.ts": os.urandom(3000 + i * 13) for i in range(300)}  # ~1.5 MB in all
    for name, body in payloads.items():
        nginx.put(f"wt/{name}", body)
    agent.vesk.update(max_mmap_mb=0, splice_to_file=True, write_through_backlog=1)
    agent.vesk["log"]["level"] = "debug"  # a file written through says so
    data = start_on_tmpfs_with_worker(agent, 512 * KiB)
    idle = agent.fds()
    status = burst(agent, {n: (nginx.url(f"wt/{n}"), f"wt/{n}") for n in payloads}, timeout=30)
    ok = sorted(n for n, st in status.items() if st == b"HTTP/1.1 200 OK")
    failed = [n for n, st in status.items() if st == b"HTTP/1.1 500 Service error"]
    assert ok and failed and len(ok) + len(failed) == len(payloads), set(status.values())
    agent.wait_for_log(r"TASK-END ", count=len(payloads), timeout=30)
    log = agent.log()
    assert "written through, the workers being behind" in log
    # The full disk stopped files being written through, not only reservations.
    assert any("No space left on device" in line and "posix_fallocate" not in line
               for line in log.splitlines()), log[-3000:]
    for name in ok:
        assert (data / "wt" / name).read_bytes() == payloads[name], name
    # A task logs its end before it removes its unfinished file.
    wait_until("only the answered files", lambda: files_under(data) == [f"wt/{n}" for n in ok],
               timeout=5)
    assert agent.wait_fds(idle) == idle


@needs_tmpfs
@pytest.mark.parametrize("end", ["source_resets", "sigterm"])
def test_task_ends_while_the_worker_reserves_its_file(agent, bad_source, end):
    """A reservation of 1 GiB on tmpfs keeps the kernel's worker busy for about a quarter of a
    second; the task ends in the middle of it. Its client still gets an answer, nothing stays on
    the disk, and the completion that comes after the task is dropped."""
    agent.vesk.update(max_mmap_mb=0, splice_to_file=True)
    agent.vesk["log"]["level"] = "debug"  # the task's state changes show when the worker begins
    route = dict(body=b"x" * 100, content_length=1024 * MiB, body_cut=100)
    if end == "source_resets":
        route.update(after_cut="reset", cut_pause=0.02)
    else:
        route.update(after_cut="stall", stall_timeout=4)
    bad_source.route("/big.ts", **route)
    data = start_on_tmpfs_with_worker(agent, 1100 * MiB)
    idle, lines = agent.fds(), log_lines(agent)
    answers = []
    t = threading.Thread(target=lambda: answers.append(curl(agent.port, dl_path(bad_source.url("big.ts"), "big.ts"))))
    t.start()
    agent.wait_for_log(r"rsp -> rsv")
    if end == "sigterm":
        agent.quit_within()
    t.join(timeout=5)
    assert answers and (answers[0].status, answers[0].reason) == (500, "Service error"), answers
    assert f"removing unfinished [{agent.data_dir}/big.ts-Vesk]" in agent.log()
    if end == "sigterm":
        return
    agent.wait_for_log(r"source failed while the file was reserved")
    agent.wait_for_log(r"reservation 0x[0-9a-f]+ finished after its task")
    settles(agent, idle, lines, data, [])


STALLFS_BIN = os.environ.get("STALLFS_BIN", "")


@pytest.mark.skipif(os.geteuid() != 0 or not os.path.exists("/dev/fuse") or not STALLFS_BIN
                    or not shutil.which("fusermount3"), reason="needs root, FUSE and stallfs")
def test_reservation_that_hangs_holds_up_neither_other_files_nor_the_exit(agent, nginx, tmp_path):
    """A disk that hangs under one file's reservation: the other downloads go on, and SIGTERM ends
    the agent's loop after 2 s without progress instead of waiting for the kernel's worker."""
    back = tmp_path / "back"
    back.mkdir()
    fs = subprocess.Popen([STALLFS_BIN, str(back), str(agent.data_dir)], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL)
    try:
        wait_until("stallfs mounted", lambda: os.path.ismount(agent.data_dir), timeout=5)
        agent.vesk.update(max_mmap_mb=0, splice_to_file=True)
        start_with_worker(agent)
        for name in ("h.ts", "a.ts", "b.ts"):
            nginx.put(name, BODY)
        with socket.create_connection(("127.0.0.1", agent.port), timeout=10) as hung:
            hung.sendall(f"GET {dl_path(nginx.url('h.ts'), 'stall.ts')} HTTP/1.1\r\n\r\n".encode())
            wait_until("the hung file opened", lambda: (back / "stall.ts-Vesk").exists(), timeout=5)
            for name in ("a.ts", "b.ts"):
                ask(agent, nginx.url(name), name)
                agent.wait_for_log(rf"downloaded: .*\[{agent.data_dir}/{name}\]")
                assert (back / name).read_bytes() == BODY
            t0 = time.monotonic()
            agent.proc.send_signal(signal.SIGTERM)
            agent.wait_for_log("file operations still in the kernel's workers: not waited for",
                               timeout=5)
            agent.wait_for_log("vsk shut down", timeout=2)
            assert time.monotonic() - t0 < 4
            assert read_all(hung).startswith(b"HTTP/1.1 500 Service error")
    finally:
        # The filesystem's end fails the requests still waiting for it: the one way to free a
        # process stuck in such a request.
        fs.kill()
        fs.wait(timeout=5)
        subprocess.run(["fusermount3", "-u", "-z", str(agent.data_dir)], capture_output=True)
    # The worker stuck in the filesystem kept the process until then.
    assert agent.wait_exit(timeout=5) == 0


IO_URING_SWITCH = "/proc/sys/kernel/io_uring_disabled"


@pytest.mark.skipif(os.geteuid() != 0 or not os.access(IO_URING_SWITCH, os.W_OK),
                    reason="needs root and the kernel's io_uring switch")
def test_kernel_refusing_the_ring_leaves_reservations_on_the_loop(agent, nginx):
    """A kernel (or container) that forbids the submission ring: the agent says so once at start
    and serves as without reserve_in_worker. The switch is machine-wide, so it is off only while
    the agent starts."""
    nginx.put("w.ts", BODY * 30)
    agent.vesk.update(max_mmap_mb=0, splice_to_file=True, reserve_in_worker=True)
    agent.vesk["log"]["level"] = "debug"  # a task that waited for the worker would show "-> rsv"
    before = open(IO_URING_SWITCH).read().strip()
    try:
        with open(IO_URING_SWITCH, "w") as f:
            f.write("2")
        agent.start()
    finally:
        with open(IO_URING_SWITCH, "w") as f:
            f.write(before)
    log = agent.log()
    assert "reserve_in_worker: no submission ring; files are reserved on the loop" in log
    assert "ERROR(1): Operation not permitted" in log
    ask(agent, nginx.url("w.ts"), "w.ts")
    agent.wait_for_log(r"TASK-END ")
    assert (agent.data_dir / "w.ts").read_bytes() == BODY * 30
    log = agent.log()
    assert f"created file for [{agent.data_dir}/w.ts-Vesk]" in log and "-> rsv" not in log
    agent.quit_within()


@pytest.mark.parametrize("mmap_mb, worker", [(1, False), (0, False), (0, True)],
                         ids=["mapped", "written", "worker"])
def test_file_size_limit_fails_the_download_cleanly(agent, nginx, mmap_mb, worker):
    nginx.put("big.ts", BODY * 20)  # 200 KiB
    agent.vesk["max_mmap_mb"] = mmap_mb
    start_with_worker(agent) if worker else agent.start()
    subprocess.run(["prlimit", f"--pid={agent.proc.pid}", f"--fsize={64 * KiB}"], check=True)
    idle, lines = agent.fds(), log_lines(agent)
    ask(agent, nginx.url("big.ts"), "big.ts", expect=(500, "Service error"))
    agent.wait_for_log(r"TASK-END ")
    assert "ERROR(27): File too large" in agent.log()
    settles(agent, idle, lines)


# ---- Stalled sources ----------------------------------------------------------------------------

STALLS = {
    # route of the source, or None for a port that never accepts; what the requester gets
    "silent": (dict(raw=b"", body_cut=0, after_cut="stall", stall_timeout=4), 504),
    "mid_body": (dict(body=BODY, body_cut=1000, after_cut="stall", stall_timeout=4), 200),
    "syn_dropped": (None, 504),
}


@pytest.mark.parametrize("case", STALLS)
def test_stalled_tasks_end(agent, bad_source, nginx, case):
    route, status = STALLS[case]
    held = None
    if route is None:
        held = never_accepting_port()
        url = f"http://127.0.0.1:{held[0].getsockname()[1]}/s.ts"
    else:
        bad_source.route("/s.ts", **route)
        url = bad_source.url("s.ts")
    nginx.put("ok.ts", BODY)
    agent.vesk.update(end_stalled_tasks=True, task_tmout_ms=400, max_tasks=1)
    agent.start()
    idle, lines = agent.fds(), log_lines(agent)
    try:
        answers = []
        t = threading.Thread(target=lambda: answers.append(curl(agent.port, dl_path(url, "s.ts"))))
        t.start()
        agent.wait_for_log(r"TASK-START ")
        # The one task slot is taken while the source stalls, yet the agent answers.
        assert_answers(agent)
        t.join(timeout=8)
        assert answers and answers[0].status == status, answers
        agent.wait_for_log(r"\) timed out after \d+ ms\n")
        agent.wait_for_log(r"TASK-END ")
    finally:
        if held:
            for s in held:
                s.close()
    wait_until("no file", lambda: files_under(agent.data_dir) == [], timeout=5)
    # The slot is free again.
    ask(agent, nginx.url("ok.ts"), "ok.ts")
    # The answer goes out with the head; the file is in place once the body is.
    agent.wait_for_log(r"downloaded: \d+ bytes, \[[^]]*ok\.ts\]")
    assert (agent.data_dir / "ok.ts").read_bytes() == BODY
    settles(agent, idle, lines, files=["ok.ts"])


def test_sigterm_while_a_source_is_silent(agent, bad_source):
    bad_source.route("/s.ts", raw=b"", body_cut=0, after_cut="stall", stall_timeout=4)
    agent.vesk.update(end_stalled_tasks=True, task_tmout_ms=60000)
    agent.start()
    answers = []
    t = threading.Thread(target=lambda: answers.append(curl(agent.port, dl_path(bad_source.url("s.ts"), "s.ts"))))
    t.start()
    agent.wait_for_log(r"TASK-START ")
    assert_answers(agent)
    agent.quit_within()
    t.join(timeout=5)
    assert answers and answers[0].status == 500, answers
    assert files_under(agent.data_dir) == []


# ---- Descriptors and the request queue ----------------------------------------------------------

def connect_idle(port, n):
    return [socket.create_connection(("127.0.0.1", port), timeout=5) for _ in range(n)]


@pytest.mark.parametrize("end", ["recovers", "sigterm"])
def test_out_of_descriptors_backs_off(agent, end):
    agent.vesk["urq_tmout_sec"] = 60  # idle clients keep their descriptors for the whole test
    agent.start()
    pid = agent.proc.pid
    idle = agent.fds()
    subprocess.run(["prlimit", f"--pid={pid}", f"--nofile={idle + 3}"], check=True)
    holders = connect_idle(agent.port, 3)
    agent.wait_for_log(r"Accepted .* request", count=3)
    lines, cpu0, t0 = log_lines(agent), cpu_seconds(pid), time.monotonic()
    # These wait in the kernel's queue: accept() fails with EMFILE for as long as the holders stay.
    waiting = connect_idle(agent.port, 20)
    pinged = []
    pinger = threading.Thread(target=lambda: pinged.append(ping(agent.port)))
    pinger.start()
    time.sleep(2)
    cpu = cpu_seconds(pid) - cpu0
    assert cpu < 0.3 * (time.monotonic() - t0), f"{cpu:.2f}s of CPU while out of descriptors"
    log = agent.log()
    warnings = log.count("not accepting for 100 ms")
    assert 1 <= warnings <= 4, log[-3000:]
    assert log_lines(agent) - lines < LOG_LINES_MAX
    if end == "sigterm":
        agent.quit_within()
    for s in holders + waiting:
        s.close()
    pinger.join(timeout=10)
    if end == "recovers":
        # Once descriptors are free, what waited is served.
        assert pinged and pinged[0].startswith(b"HTTP/1.1 204 "), pinged
        assert " such errors suppressed)" in agent.log()
        settles(agent, idle, lines)


def test_full_listener_answers_503(agent):
    agent.vesk["urq_tmout_sec"] = 60
    agent.vesk["web_input"][0].update(max_queued=3, alias="web-lo")
    agent.with_admin().start()
    idle = agent.fds()
    holders = connect_idle(agent.port, 3)
    agent.wait_for_log(r"Accepted .* request", count=3)
    wait_scrape(agent, lambda s: s("vsk_requests_queued", type="user", listener="web-lo") == 3)
    for _ in range(2):
        head = request(agent.port)
        assert head.startswith(b"HTTP/1.1 503 Service Unavailable\r\n"), head
        assert b"\r\nRetry-After: 1\r\n" in head, head
    # Refusals are counted per listener, and never reach a request object: no answer of the
    # download path counts them.
    s = Scrape(agent)
    assert s("vsk_requests_refused_total", type="user", listener="web-lo") == 2
    assert s("vsk_requests_refused_total", type="admin", listener=f"lo:{agent.admin}") == 0
    assert s.family("vsk_http_answers_total") == {}
    for c in holders:
        c.close()
    settles(agent, idle, log_lines(agent))


# ---- The quit signal ----------------------------------------------------------------------------

SHIM = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

/* Widens the moment between the loop's last look at its quit flag and a wait without time-out:
   each such wait is announced in $SHIM_MARK, then delayed; a signal during the delay is handled
   there. */
static void pause_before(int timeout)
{
    if (timeout >= 0)
        return;
    const char* mark = getenv("SHIM_MARK");
    if (mark) {
        int fd = open(mark, O_WRONLY | O_APPEND | O_CREAT, 0644);
        if (fd >= 0) {
            (void)!write(fd, "w\n", 2);
            close(fd);
        }
    }
    struct timespec ts = {0, 700 * 1000000L};
    while (nanosleep(&ts, &ts) != 0) {
    }
}

int epoll_wait(int epfd, struct epoll_event* ev, int n, int timeout)
{
    int (*real)(int, struct epoll_event*, int, int) = dlsym(RTLD_NEXT, "epoll_wait");
    pause_before(timeout);
    return real(epfd, ev, n, timeout);
}

int epoll_pwait(int epfd, struct epoll_event* ev, int n, int timeout, const sigset_t* mask)
{
    int (*real)(int, struct epoll_event*, int, int, const sigset_t*) = dlsym(RTLD_NEXT, "epoll_pwait");
    pause_before(timeout);
    return real(epfd, ev, n, timeout, mask);
}
"""


@pytest.fixture(scope="module")
def wait_shim(tmp_path_factory):
    d = tmp_path_factory.mktemp("shim")
    (d / "shim.c").write_text(SHIM)
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", str(d / "shim.so"), str(d / "shim.c"),
                    "-ldl"], check=True, capture_output=True, timeout=60)
    return d / "shim.so"


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT], ids=lambda s: s.name)
def test_quit_signal_before_an_unbounded_wait_is_not_lost(agent, wait_shim, sig):
    mark = agent.dir / "waits"
    env = dict(os.environ, LD_PRELOAD=str(wait_shim), SHIM_MARK=str(mark),
               ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0")
    agent.start(env=env)
    waits = lambda: mark.read_text().count("w") if mark.exists() else 0  # noqa: E731
    wait_until("the first unbounded wait", lambda: waits() > 0)
    before = waits()
    assert_answers(agent)
    # Right after the answer the loop goes back to a wait without time-out; the signal comes while
    # the shim holds it on the way there.
    wait_until("an unbounded wait", lambda: waits() > before)
    agent.quit_within(2, sig)
    log = agent.log()
    assert f"QUIT-SIG({int(sig)})\n" in log and "rqs_wait interrupted, quit=1\n" in log
