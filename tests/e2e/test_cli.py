"""The command line as an operator meets it: the option table in every form and position, usage,
version, option checks and exit statuses. Options that would start the agent are combined with
-t (check mode), which shows that the option was taken without binding or writing anything."""
import re
import subprocess

import pytest

from conftest import VSK_BIN, free_port, minimal_config, run_vsk

USAGE = "Usage: vsk PARAMETERS [OPTIONS]\n\n"
VERSION_RE = (r"^vsk \(Download manager\) 0\.2-0\.7 \(torbella\) regular \[Ubuntu 14\.04\.5 Linux "
              r"\(amd64\) - \S+/\S+\] [0-9a-f]{8}; built on 2018-08-09$")
OK = "configuration OK\n"
FAILED = "configuration check FAILED\n"


@pytest.fixture
def cfg(tmp_path):
    """A valid foreground configuration with one web listener; its path."""
    return minimal_config(tmp_path)


def run_in(tmp_path, *args):
    """vsk run from an empty directory, so that no ./vsk.conf is found by the default search."""
    empty = tmp_path / "cwd"
    empty.mkdir(exist_ok=True)
    return subprocess.run([VSK_BIN, *map(str, args)], capture_output=True, text=True, timeout=20,
                          cwd=empty)


# Each case: arguments ("CFG" stands for -C and the valid configuration; "DIR" for the test's
# directory), exit status, text expected on standard error.
HELP_WORDS = ["-h", "-?", "--help", "--options"]
CASES = {}
for w in HELP_WORDS:
    CASES[f"help{w}-alone"] = ([w], 1, USAGE)
    CASES[f"help{w}-first"] = ([w, "CFG"], 1, USAGE)
    CASES[f"help{w}-last"] = (["CFG", w], 1, USAGE)
    CASES[f"help{w}-after-check"] = (["CFG", "-t", w], 1, USAGE)
    CASES[f"help{w}-after-unknown"] = (["CFG", "-z", w], 1, USAGE)
CASES.update({
    "help-in-cluster": (["CFG", "-T?"], 1, USAGE),
    "version-short": (["-V"], 1, "VERSION"),
    "version-long-last": (["CFG", "--version"], 1, "VERSION"),
    "no-config-found": (["-T"], 1, "Invalid or unspecified config [], please use -C path\n" + "vsk"),
    "config-short": (["-t", "-C", "CFGPATH"], 0, OK),
    "config-long": (["-t", "--config", "CFGPATH"], 0, OK),
    "config-absent": (["-C", "DIR/absent.conf"], 1, "Failed to load [DIR/absent.conf]"),
    "check-long": (["CFG", "--check"], 0, OK),
    # Without a configuration nothing else is looked at: option values are checked after it.
    "cpu-bad-without-config": (["-P", "x"], 1, "please use -C path\n" + "vsk"),
    "level-long-without-config": (["--level", "debug", "-t"], 1, "please use -C path\n" + FAILED),
    "unknown-without-config": (["--bogus"], 1, "please use -C path\n" + "vsk"),
    "check-without-config": (["--check"], 1, "please use -C path\n" + FAILED),
    # Options taken in check mode, in both spellings where the table has them.
    **{f"takes{o.split()[0]}": (["CFG", "-t", *o.split()], 0, OK) for o in (
        "-0", "--default", "-q", "--quiet", "-T", "--term", "-L debug", "--level crit", "-P 0",
        "--cpu -5", "-l DIR/log/vsk.log", "-p DIR/vsk.pid", "-D DIR/log", "-w lo:PORT", "-W lo:PORT",
        "--webrq6 lo:PORT", "-U udp://127.0.0.1:PORT", "--udpcha udp://127.0.0.1:PORT?zipped=1")},
    "level-bad": (["CFG", "-L", "verbose"], 1, "Invalid log level: verbose\n"),
    "cpu-x": (["CFG", "-P", "x"], 1, "Invalid CPU #: x\n"),
    "cpu-00": (["CFG", "-P", "00"], 1, "Invalid CPU #: 00\n"),
    "cpu-absent": (["CFG", "-t", "--cpu", "4095"], 1, "check: CPU 4095 is not available"),
    # Paths are taken: a log file that cannot be created and a data directory that does not
    # exist are what check mode then reports.
    "logfile-long-bad": (["CFG", "-t", "--logfile", "DIR/nodir/vsk.log"], 1,
                         "check: log file [DIR/nodir/vsk.log] cannot be created in [DIR/nodir]"),
    "logfile-too-long": (["CFG", "-l", "/" + "l" * 127], 1,
                         "Log path is too long (128 bytes), max=128 bytes.\n"),
    "pidfile-long-too-long": (["CFG", "--pidfile", "/" + "p" * 127], 1,
                              "Pidfile path is too long (128 bytes), max=128 bytes.\n"),
    "dataroot-long-bad": (["CFG", "-t", "--dataroot", "DIR/nodir"], 1,
                          "check: data directory [DIR/nodir] cannot hold downloads\n"),
    "dataroot-too-long": (["CFG", "-D", "/" + "d" * 130],
                          1, "Data path is too long (131 bytes), max=128 bytes.\n"),
    "webrq-long-no-port": (["CFG", "--webrq", "lo"], 1, "missing port number in lo"),
    "webrq-bad-ifc": (["CFG", "-w", "nosuchifc0:PORT"], 1, "invalid interface name: nosuchifc0"),
    # Options that need an argument and stand last.
    **{f"missing-{o}": (["CFG", o], 1, f"Missing argument for option: {o.lstrip('-')[0]}\n")
       for o in ("-l", "-L", "-p", "-P", "-D", "-w", "-W", "-U")},
    **{f"missing-{o}": (["CFG", o], 1, f"Missing argument for option: {letter}\n")
       for o, letter in (("--logfile", "l"), ("--level", "L"), ("--pidfile", "p"), ("--cpu", "P"),
                         ("--dataroot", "D"), ("--webrq", "w"), ("--webrq6", "W"),
                         ("--udpcha", "U"))},
    "missing-config": (["-C"], 1, "please use -C path\n" + "vsk"),
    "unknown-short": (["CFG", "-z"], 1, "Unknown option: z\n"),
    # The usage text advertises -u|--runas, which is not accepted; the user comes from the file.
    "unknown-runas": (["CFG", "-u", "nobody"], 1, "Unknown option: u\n"),
    "unknown-long": (["CFG", "--bogus"], 1, "Unknown option: --bogus\n"),
    "unknown-long-runas": (["CFG", "--runas=nobody"], 1, "Unknown option: --runas=nobody\n"),
})


@pytest.mark.parametrize("case", list(CASES))
def test_option_table(tmp_path, cfg, case):
    args, status, expect = CASES[case]
    (tmp_path / "log").mkdir(exist_ok=True)
    port = str(free_port())

    def subst(a):
        a = a.replace("CFGPATH", str(cfg)).replace("DIR", str(tmp_path)).replace("PORT", port)
        return ["-C", str(cfg)] if a == "CFG" else [a]

    argv = [x for a in args for x in subst(a)]
    r = run_in(tmp_path, *argv)
    assert r.returncode == status, (argv, r.stderr[-2000:])
    if expect == "VERSION":
        assert re.match(VERSION_RE, r.stderr.strip()), r.stderr
    else:
        expect = expect.replace("DIR", str(tmp_path))
        assert expect in r.stderr, (argv, r.stderr[-2000:])
    # Help and version print nothing else, whatever else the line asked for.
    if expect in (USAGE, "VERSION"):
        assert "checking configuration" not in r.stderr and "Unknown option" not in r.stderr
    if status == 0:
        assert r.stderr.endswith(OK), r.stderr[-2000:]


def test_usage_text():
    r = run_vsk()
    assert r.returncode == 1
    assert USAGE in r.stderr
    assert "log level: crit|err|norm|warn|info|debug [info]" in r.stderr
    # the usage block advertises -u|--runas although the option is not accepted
    assert "-u|--runas" in r.stderr
    assert "  -t|--check                 check the configuration and exit (0 when OK)\n" in r.stderr
    assert "----\nlibznt/1.5-6.16 (" in r.stderr


def test_quiet_option_overrides_the_file(agent):
    agent.vesk["runtime"]["quiet"] = False
    agent.start("-q")
    assert "\tflags: [non-daemon] [quiet] [cores]\n" in agent.log()
    assert agent.stop() == 0
    assert "STARTING" not in agent.stderr(), "the log was mirrored to the terminal"


def test_default_search_skips_a_directory(tmp_path, cfg):
    """Without -C the first candidate that is a file is read: a ./vsk.conf directory is passed
    over for ./torbella.conf rather than ending in a read error."""
    cwd = tmp_path / "cwd"
    (cwd / "vsk.conf").mkdir(parents=True)
    r = run_in(tmp_path, "-t")
    assert r.returncode == 1 and "Invalid or unspecified config []" in r.stderr, r.stderr
    (cwd / "torbella.conf").write_text(cfg.read_text())
    r = run_in(tmp_path, "-t")
    assert r.returncode == 0, r.stderr
    assert r.stderr.startswith("checking configuration [./torbella.conf]\n") and r.stderr.endswith(OK)
