"""The command line as an operator meets it: usage, version, option checks and exit statuses."""
import re

from conftest import render_config, run_vsk


def valid_config(tmp_path, port=18080):
    data = tmp_path / "data"
    data.mkdir(exist_ok=True)
    path = tmp_path / "vsk.conf"
    path.write_text(render_config({
        "log": {"level": "info", "enable_syslog": False},
        "runtime": {"non_daemon": True},
        "web_input": {"ifc": "lo", "port": port},
        "data_dir": str(data),
    }))
    return path


def test_no_arguments_prints_usage_and_exits_1():
    r = run_vsk()
    assert r.returncode == 1
    assert "Usage: vsk PARAMETERS [OPTIONS]\n\n" in r.stderr
    assert "log level: crit|err|norm|warn|info|debug [info]" in r.stderr
    # the usage block advertises -u|--runas although the option is not accepted
    assert "-u|--runas" in r.stderr
    assert "----\nlibznt/1.5-6.16 (" in r.stderr


def test_version_and_help_exit_1():
    r = run_vsk("-V")
    assert r.returncode == 1
    line = r.stderr.strip()
    assert re.match(r"^vsk \(Download manager\) 0\.2-0\.7 \(torbella\) regular \[Ubuntu 14\.04\.5 Linux "
                    r"\(amd64\) - \S+/\S+\] [0-9a-f]{8}; built on 2018-08-09$", line), line
    for opt in ("-h", "-?", "--help", "--options"):
        r = run_vsk(opt)
        assert r.returncode == 1, opt
        assert "Usage: vsk PARAMETERS [OPTIONS]" in r.stderr, opt


def test_missing_config_is_refused(tmp_path):
    r = run_vsk("-C", tmp_path / "absent.conf")
    assert r.returncode == 1
    assert f"Failed to load [{tmp_path / 'absent.conf'}]" in r.stderr


def test_unknown_option_and_bad_values(tmp_path):
    cfg = valid_config(tmp_path)
    cases = [
        (["-z"], "Unknown option: z\n"),
        (["-P", "x"], "Invalid CPU #: x\n"),
        (["-P", "00"], "Invalid CPU #: 00\n"),
        (["-L", "verbose"], "Invalid log level: verbose\n"),
        (["-l", "/" + "l" * 127], "Log path is too long (128 bytes), max=128 bytes.\n"),
        (["-p", "/" + "p" * 127], "Pidfile path is too long (128 bytes), max=128 bytes.\n"),
        (["-D", "/" + "d" * 130], "Data path is too long (131 bytes), max=128 bytes.\n"),
        (["-w", "lo"], "missing port number in lo"),
    ]
    for args, text in cases:
        r = run_vsk("-C", cfg, *args)
        assert r.returncode == 1, (args, r.stderr)
        assert text in r.stderr, (args, r.stderr)


def test_config_without_listener_is_refused(tmp_path):
    path = tmp_path / "vsk.conf"
    path.write_text(render_config({"log": {"enable_syslog": False}, "runtime": {},
                                   "data_dir": str(tmp_path)}))
    r = run_vsk("-C", path)
    assert r.returncode == 1
    assert "at least one listener must be present" in r.stderr


def test_quiet_option_overrides_the_file(agent):
    agent.vesk["runtime"]["quiet"] = False
    agent.start("-q")
    assert "\tflags: [non-daemon] [quiet] [cores]\n" in agent.log()
    assert agent.stop() == 0
    assert "STARTING" not in agent.stderr(), "the log was mirrored to the terminal"
