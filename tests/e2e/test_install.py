"""What an operator installs: `make install` under a prefix, the .deb of `make package` (metadata,
files, maintainer script), the production configuration and unit running the unpacked agent
through real downloads, and manual pages that render cleanly and cover every option and key."""
import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

from conftest import PANIC_RE, SOURCE_DIR, VSK_BIN, free_port, wait_until

# A release tree of its own, kept between runs so that only changed files are rebuilt.
PKG_DIR = Path(os.environ.get("VSK_PKG_DIR", SOURCE_DIR / "build/pkgtest"))
MAN_DIR = SOURCE_DIR / "man"
LUA = {f"{n}_url.lua" for n in ("add", "del", "next", "mbget")}
# Every file a server gets, relative to the prefix (the configuration relative to /etc for /usr).
PREFIX_FILES = {"sbin/vsk", "bin/vsk-lbdb-load", "lib/systemd/system/vsk.service", "lib/sysusers.d/vsk.conf",
                "share/man/man8/vsk.8", "share/man/man5/vsk.conf.5"} | {f"share/vsk/lua/{f}" for f in LUA}


def make(*args, timeout=600):
    r = subprocess.run(["make", "-s", "-C", str(SOURCE_DIR), *args, "JOBS=2"],
                       capture_output=True, text=True, timeout=timeout)
    assert r.returncode == 0, f"make {' '.join(args)} failed ({r.returncode}):\n{r.stdout[-3000:]}{r.stderr[-3000:]}"
    return r


def files_under(root: Path):
    return {str(p.relative_to(root)) for p in root.rglob("*") if p.is_file() or p.is_symlink()}


def unit_settings(text):
    """The unit's settings as name -> list of values, in order."""
    out = {}
    for line in text.splitlines():
        m = re.match(r"^([A-Za-z]+)=(.*)$", line)
        if m:
            out.setdefault(m.group(1), []).append(m.group(2))
    return out


def conf_keys(text):
    """Keys and group names set in a libconfig file, including commented-out ones."""
    return set(re.findall(r"^\s*(?:#\s*)?([a-z_0-9]+)\s*(?:=\s|:\s*$)", text, re.M))


@pytest.fixture(scope="module")
def deb():
    make("package", f"PACKAGE_DIR={PKG_DIR}")
    debs = sorted(PKG_DIR.glob("vsk_*.deb"), key=lambda p: p.stat().st_mtime)
    assert debs, f"no .deb in {PKG_DIR}"
    return debs[-1]


@pytest.fixture
def unpacked(deb, tmp_path):
    root = tmp_path / "root"
    subprocess.run(["dpkg-deb", "-x", str(deb), str(root)], check=True, timeout=60)
    return root


def dpkg_field(deb, field):
    return subprocess.run(["dpkg-deb", "-f", str(deb), field], capture_output=True, text=True,
                          check=True).stdout.strip()


# ---- package ------------------------------------------------------------------------------------

def test_package_metadata(deb):
    arch = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True).stdout.strip()
    assert dpkg_field(deb, "Package") == "vsk"
    assert dpkg_field(deb, "Architecture") == arch
    assert re.fullmatch(r"0\.2\.0\.7-\d+", dpkg_field(deb, "Version"))
    # The shared libraries the binary links come from dpkg-shlibdeps, with versions.
    depends = [d.strip() for d in dpkg_field(deb, "Depends").split(",")]
    for lib in (r"libc6 \(>= [\d.]+\)", r"libconfig\d+.*", r"libhiredis[\d.]+ \(>= [\d.]+\)",
                r"libstdc\+\+6.*", "passwd"):
        assert any(re.fullmatch(lib, d) for d in depends), (lib, depends)

    ctl = subprocess.run(["dpkg-deb", "-I", str(deb), "conffiles"], capture_output=True, text=True,
                         check=True).stdout
    assert ctl.split() == ["/etc/vsk/vsk.conf"]


def test_package_files(deb, unpacked):
    listed = subprocess.run(["dpkg-deb", "-c", str(deb)], capture_output=True, text=True,
                            check=True).stdout
    files = {line.split()[-1].lstrip(".") for line in listed.splitlines() if line.startswith("-")}
    assert files == {"/etc/vsk/vsk.conf"} | {f"/usr/{f}" for f in PREFIX_FILES}
    assert files_under(unpacked) == {f.lstrip("/") for f in files}
    for exe in ("usr/sbin/vsk", "usr/bin/vsk-lbdb-load"):
        assert os.access(unpacked / exe, os.X_OK), exe
    assert "ExecStart=/usr/sbin/vsk -C /etc/vsk/vsk.conf" in (unpacked / "usr/lib/systemd/system/vsk.service").read_text()


@pytest.mark.parametrize("exists,sysusers", [(False, True), (False, False), (True, True)],
                         ids=["new-by-sysusers", "new-by-useradd", "account-exists"])
def test_postinst_creates_the_account_once(deb, tmp_path, exists, sysusers):
    """The maintainer script run against stand-ins of every tool it calls, which record each call;
    PATH holds nothing else, so the machine's accounts are never touched."""
    ctl = tmp_path / "ctl"
    subprocess.run(["dpkg-deb", "-e", str(deb), str(ctl)], check=True)
    bin_dir = tmp_path / "bin"
    bin_dir.mkdir()
    calls = tmp_path / "calls"
    tools = {"getent": 0 if exists else 2, "useradd": 0, "install": 0, "systemctl": 0}
    if sysusers:
        tools["systemd-sysusers"] = 0
    for tool, rc in tools.items():
        (bin_dir / tool).write_text(f'#!/bin/sh\necho "{tool} $*" >>"{calls}"\nexit {rc}\n')
        (bin_dir / tool).chmod(0o755)
    r = subprocess.run(["/bin/sh", str(ctl / "postinst"), "configure"], env={"PATH": str(bin_dir)},
                       capture_output=True, text=True, timeout=20)
    assert r.returncode == 0, r.stderr
    log = calls.read_text().splitlines()
    assert "getent passwd vsk" in log
    made_by = [c for c in log if c.split()[0] in ("useradd", "systemd-sysusers")]
    if exists:
        assert made_by == []
    elif sysusers:
        assert made_by == ["systemd-sysusers vsk.conf"]
    else:
        assert len(made_by) == 1 and "--system" in made_by[0].split() and made_by[0].endswith(" vsk")
    made = " ".join(c for c in log if c.startswith("install "))
    for d in ("/var/lib/vsk/data", "/var/lib/vsk/lock", "/var/log/vsk"):
        assert d in made.split(), (d, made)
    assert "-o vsk" in made


@pytest.mark.skipif(shutil.which("systemd-sysusers") is None, reason="systemd-sysusers is not installed")
def test_sysusers_makes_a_system_account(unpacked, tmp_path):
    """The account file applied to an empty root: a system account with no login."""
    root = tmp_path / "sysroot"
    (root / "etc").mkdir(parents=True)
    r = subprocess.run(["systemd-sysusers", f"--root={root}", str(unpacked / "usr/lib/sysusers.d/vsk.conf")],
                       capture_output=True, text=True, timeout=30)
    assert r.returncode == 0, r.stderr
    user = [l.split(":") for l in (root / "etc/passwd").read_text().splitlines() if l.startswith("vsk:")]
    assert len(user) == 1
    _, _, uid, gid, _, home, shell = user[0]
    assert int(uid) < 1000 and home == "/var/lib/vsk" and shell == "/usr/sbin/nologin"
    assert f"vsk:x:{gid}:" in (root / "etc/group").read_text()


# ---- the unpacked agent at work ---------------------------------------------------------------------

def relocate(text, root, port, redis_port=None, prefix=None):
    """The production configuration with its paths moved under `root`, its listener on `port`
    and, when asked, the registry switched on. Each edit must apply exactly once, so the test
    notices when the file changes shape."""
    edits = [(r'"/var/lib/vsk/', f'"{root}/var/lib/vsk/', 2),
             (r'"/var/log/vsk/', f'"{root}/var/log/vsk/', 1),
             (r'"/run/vsk/', f'"{root}/run/vsk/', 1),
             ("port = 8480;", f"port = {port};", 1),
             # The test's source runs on loopback, which the production list denies.
             (', "127.0.0.0/8", "::1/128" ];', " ];", 1)]
    if redis_port:
        edits += [("port = 0;", f"port = {redis_port};", 1),
                  ('local_url_prefix = "";', f'local_url_prefix = "{prefix}";', 1)]
    for old, new, count in edits:
        assert len(re.findall(rf"^(?!\s*#).*{re.escape(old)}", text, re.M)) == count, old
        text = re.sub(rf"^((?!\s*#).*){re.escape(old)}", lambda m: m.group(1) + new, text, flags=re.M)
    return text


@pytest.mark.parametrize("with_registry", [False, True], ids=["plain", "registry"])
def test_unpacked_agent_downloads(unpacked, nginx, redis, with_registry):
    root = unpacked
    for d in ("var/lib/vsk/data", "var/lib/vsk/lock", "var/log/vsk", "run/vsk"):
        (root / d).mkdir(parents=True, exist_ok=True)
    port = free_port()
    prefix = "http://127.0.0.1:1/seg"
    conf = root / "etc/vsk/vsk.conf"
    conf.write_text(relocate(conf.read_text(), root, port,
                             redis.port if with_registry else None, prefix))
    if with_registry:
        # The installed loader finds the scripts of its own tree and writes what the agent reads.
        r = subprocess.run([str(root / "usr/bin/vsk-lbdb-load"), "127.0.0.1", str(redis.port),
                            str(root / "var/lib/vsk/lbdb")], capture_output=True, text=True, timeout=30)
        assert r.returncode == 0, r.stderr
        for f in LUA:
            sha = (root / "var/lib/vsk/lbdb" / f.replace(".lua", ".sha1")).read_text()
            assert sha == (redis.sha1_dir / f.replace(".lua", ".sha1")).read_text()

    body = os.urandom(70000)
    nginx.put("live/a.ts", body)
    log_path = root / "var/log/vsk/vsk.log"
    stderr = open(root / "stderr.txt", "w")
    # No -T: the configuration itself must keep the agent in the foreground.
    proc = subprocess.Popen([str(root / "usr/sbin/vsk"), "-C", str(conf)], cwd=root,
                            stdout=subprocess.DEVNULL, stderr=stderr)
    try:
        wait_until("STARTING in the log", lambda: "STARTING" in (log_path.read_text() if log_path.exists() else ""))
        expiry = int(time.time()) + 3600
        ans = subprocess.run(["curl", "-sS", "-o", "/dev/null", "-w", "%{http_code}", "--max-time", "10",
                              f"http://127.0.0.1:{port}/src/{nginx.url('live/a.ts')}/dst/live/a.ts?expiry={expiry}"],
                             capture_output=True, text=True, timeout=15)
        assert ans.stdout == "200", (ans.stdout, ans.stderr)
        final = root / "var/lib/vsk/data/live/a.ts"
        wait_until("the finished file", lambda: final.exists() and final.read_bytes() == body)
        if with_registry:
            got = wait_until("the registration", lambda: redis.cli("ZRANGE", "live/a.ts", 0, -1, "WITHSCORES").split())
            assert got == [f"{prefix}/live/a.ts", str(expiry)]
        proc.send_signal(signal.SIGTERM)
        assert proc.wait(timeout=10) == 0
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        stderr.close()
    log = log_path.read_text()
    assert not PANIC_RE.search(log), log[-3000:]
    assert not list((root / "var/lib/vsk/data").rglob("*-Vesk"))
    # The foreground agent wrote no pid file, and removed nothing it should keep.
    assert not (root / "run/vsk/vsk.pid").exists()


# ---- the systemd unit -------------------------------------------------------------------------------

def test_unit_matches_the_configuration(unpacked):
    unit = unit_settings((unpacked / "usr/lib/systemd/system/vsk.service").read_text())
    conf = (unpacked / "etc/vsk/vsk.conf").read_text()
    assert unit["Restart"] == ["on-failure"] and unit["User"] == ["vsk"]
    # The start is preceded by a check of the very configuration it runs.
    assert unit["ExecStartPre"] == [unit["ExecStart"][0] + " -t"], unit["ExecStartPre"]
    assert "DynamicUser" not in unit
    # Enough descriptors for the configured task limit: four per task and 64 more.
    max_tasks = int(re.search(r"^\s*max_tasks = (\d+);", conf, re.M).group(1))
    soft, _, hard = unit["LimitNOFILE"][0].partition(":")
    assert int(soft) >= 4 * max_tasks + 64 and int(hard or soft) >= int(soft)
    # Every directory the configuration writes (also the commented-out lock directory) is one
    # the service manager creates and the sandbox leaves writable.
    writable = unit["ReadWritePaths"][0].split()
    state = ["/var/lib/" + d for d in unit["StateDirectory"][0].split()] + \
            ["/var/log/" + d for d in unit["LogsDirectory"][0].split()] + \
            ["/run/" + d for d in unit["RuntimeDirectory"][0].split()]
    paths = re.findall(r'^\s*#?\s*(?:file|pidfile|lock_dir|sha1_dir|data_dir) = "(/[^"]*)";', conf, re.M)
    assert len(paths) == 5, paths
    for p in paths:
        assert any(p == w or p.startswith(w + "/") for w in writable + state), (p, writable)
    for p in ("/var/lib/vsk/data", "/var/lib/vsk/lock", "/var/log/vsk", "/run/vsk"):
        assert p in state, (p, state)
    for key in ("ProtectSystem", "NoNewPrivileges", "ProtectHome", "PrivateDevices"):
        assert unit[key][0] in ("strict", "yes"), key


@pytest.mark.skipif(shutil.which("systemd-analyze") is None, reason="systemd-analyze is not installed")
def test_unit_verifies(unpacked, tmp_path):
    # The unit names the binary where the package puts it; point it at the unpacked one, which
    # verify checks for.
    text = (unpacked / "usr/lib/systemd/system/vsk.service").read_text()
    unit = tmp_path / "vsk.service"
    unit.write_text(text.replace("=/usr/sbin/vsk", f"={unpacked}/usr/sbin/vsk"))
    r = subprocess.run(["systemd-analyze", "verify", "--man=no", str(unit)],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0 and not r.stderr.strip(), r.stderr
    # The sandbox keeps the exposure score below 3.0 (given in tenths), where systemd says "OK".
    r = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=30", str(unit)],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stdout[-3000:] + r.stderr


# ---- make install -----------------------------------------------------------------------------------

def test_make_install_under_prefix_and_destdir(tmp_path):
    """The default prefix /usr/local, staged under DESTDIR; nothing lands outside the stage."""
    stage = tmp_path / "stage"
    make("install", f"DESTDIR={stage}", f"RELEASE_DIR={PKG_DIR}")
    assert files_under(stage) == {f"usr/local/{f}" for f in PREFIX_FILES | {"etc/vsk/vsk.conf"}}
    top = stage / "usr/local"
    unit = unit_settings((top / "lib/systemd/system/vsk.service").read_text())
    assert unit["ExecStart"][0].startswith("/usr/local/sbin/vsk -C /usr/local/etc/vsk/vsk.conf ")
    assert "/usr/local/share/vsk/lua" in (top / "etc/vsk/vsk.conf").read_text()
    r = subprocess.run([str(top / "bin/vsk-lbdb-load")], capture_output=True, text=True)
    assert r.returncode == 2 and "usage" in r.stderr


# ---- configuration and manual pages ------------------------------------------------------------------

def test_production_configuration(unpacked):
    prod = (unpacked / "etc/vsk/vsk.conf").read_text()
    sample = (SOURCE_DIR / "etc/vsk.conf").read_text()
    assert conf_keys(sample) <= conf_keys(prod), conf_keys(sample) - conf_keys(prod)
    lines = prod.splitlines()
    for i, line in enumerate(lines):
        if re.match(r"^\s*[a-z_]+ = ", line):
            assert lines[i - 1].strip().startswith("#"), f"key without its comment: {line.strip()}"
    # The keys that guard against faults are on, with the absolute paths of a server.
    for setting in ("end_stalled_tasks = true;", "max_queued = 1000;", "cmd_tmout_ms = 500;",
                    "reconnect_ms = 500;", "max_pending = 10000;", "non_daemon = true;",
                    'data_dir = "/var/lib/vsk/data";', 'file = "/var/log/vsk/vsk.log";',
                    'lock_dir = "/var/lib/vsk/lock";', 'run_as_user = "vsk";',
                    'deny_sources = [ "169.254.0.0/16", "fe80::/10", "127.0.0.0/8", "::1/128" ];'):
        assert re.search(rf"^\s*(#\s*)?{re.escape(setting)}$", prod, re.M), setting


@pytest.mark.parametrize("page", ["vsk.8", "vsk.conf.5"])
def test_manual_page_renders_cleanly(page):
    r = subprocess.run(["groff", "-ww", "-z", "-man", str(MAN_DIR / page)], capture_output=True,
                       text=True, timeout=30)
    assert r.returncode == 0 and r.stderr == "", r.stderr
    # man(1) as the operator runs it, with groff's warnings on.
    r = subprocess.run(["man", "--warnings", "-l", "-Tutf8", str(MAN_DIR / page)],
                       capture_output=True, timeout=30)
    text = re.sub(".\x08", "", r.stdout.decode())
    assert r.returncode == 0 and r.stderr == b"", r.stderr
    assert re.search(r"^NAME\n\s+vsk", text, re.M), text[:500]


def roff_text(page):
    return (MAN_DIR / page).read_text().replace("\\-", "-")


def test_manual_covers_every_option():
    usage = subprocess.run([VSK_BIN, "-h"], capture_output=True, text=True, timeout=10).stderr
    opts = set()
    for words in re.findall(r"^\s+(-\S+)", usage, re.M):
        for w in words.split("|"):
            w = w if w.startswith("-") else "-" + w  # "-h|?" lists -?
            if w.endswith("[6]"):
                opts |= {w[:-3], w[:-3] + "6"}
            else:
                opts.add(w)
    assert {"-C", "--config", "-w", "--webrq6", "-T"} <= opts, usage
    page = roff_text("vsk.8")
    missing = {o for o in opts if not re.search(rf"(?<![\w-]){re.escape(o)}(?![\w-])", page)}
    assert not missing


def test_manual_covers_every_key():
    page = roff_text("vsk.conf.5")
    keys = conf_keys((SOURCE_DIR / "etc/vsk.conf").read_text())
    assert {"vesk", "log", "max_mmap_mb", "lock_dir", "sha1_dir"} <= keys
    missing = {k for k in keys if not re.search(rf"^\.BR? (vesk\.)?{k}\b", page, re.M)}
    assert not missing
