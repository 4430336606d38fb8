"""The daemon's command line and start-up, seen from outside."""
import os
import subprocess
import time

import pytest

from harness.programs import launch

# A start that runs no worker returns at once; this bound only catches a hang.
QUICK = 10


def run(binary, *args, env_root=None):
    env = dict(os.environ)
    if env_root is not None:
        env["ORVD_ROOT"] = str(env_root)
    started = time.monotonic()
    argv, env = launch([binary, *args], env)
    result = subprocess.run(argv, capture_output=True, timeout=QUICK, env=env, stdin=subprocess.DEVNULL)
    return result, time.monotonic() - started


def test_without_a_configuration_file_it_exits_0_at_once(orvd_binary):
    result, _ = run(orvd_binary)
    assert result.returncode == 0
    assert result.stdout == b""


def test_host_path_and_port_options_without_a_file_start_nothing(orvd_binary):
    result, _ = run(orvd_binary, "-d", "h", "-p", "/x", "-P", "80")
    assert result.returncode == 0


def test_an_unknown_option_exits_255(orvd_binary):
    result, _ = run(orvd_binary, "-z")
    assert result.returncode == 255


def test_an_option_without_its_argument_exits_255(orvd_binary):
    result, _ = run(orvd_binary, "-f")
    assert result.returncode == 255


def test_a_file_that_enables_no_service_exits_0_at_once(orvd_binary, tmp_path):
    conf = tmp_path / "orvd.conf"
    conf.write_text("# no service here\nap_location=lab\nlog_level=0x0F\ninitial_connection_delay=2\n")
    result, _ = run(orvd_binary, "-f", str(conf))
    assert result.returncode == 0


def test_an_unreadable_file_is_not_fatal(orvd_binary, tmp_path):
    result, _ = run(orvd_binary, "-f", str(tmp_path / "missing.conf"))
    assert result.returncode == 0


def test_a_rejected_scheme_is_reported_while_the_file_is_read(orvd_binary, tmp_path):
    conf = tmp_path / "orvd.conf"
    conf.write_text("quillon_service_url=wss://rrm:443/rrm\n")
    result, _ = run(orvd_binary, "-f", str(conf))
    assert result.returncode == 0
    assert b"Proto wss is invalid" in result.stderr
    # One log line: time, daemon name, level, text.
    line = next(l for l in result.stderr.decode().splitlines() if "Proto wss" in l)
    assert " orvd debug: Proto wss is invalid" in line


def test_without_log_level_the_daemon_is_silent_after_start_up(orvd_binary, tmp_path):
    conf = tmp_path / "orvd.conf"
    conf.write_text("ap_location=lab\n")
    result, _ = run(orvd_binary, "-f", str(conf))
    assert result.returncode == 0
    assert result.stderr == b""


# RRM mode writes debug lines while it builds the radio driver, before any worker has started:
# whether they appear shows the level the daemon runs with from start-up on.
RRM_WITHOUT_A_SERVICE = [
    "quillon_service_url=ws://127.0.0.1:1/rrm",
    "initial_connection_delay=1",
    "max_connection_delay=1",
]


def run_rrm_for_a_while(make_orvd, lines):
    orvd = make_orvd(lines)
    time.sleep(2)
    assert orvd.running(), orvd.log()
    status, _ = orvd.terminate()
    assert status == 0
    return orvd.log()


def test_in_rrm_mode_without_log_level_nothing_is_written_once_the_file_is_read(make_orvd):
    assert run_rrm_for_a_while(make_orvd, RRM_WITHOUT_A_SERVICE) == ""


def test_in_rrm_mode_with_log_level_at_debug_the_driver_start_up_is_written(make_orvd):
    log = run_rrm_for_a_while(make_orvd, RRM_WITHOUT_A_SERVICE + ["log_level=0x0F"])
    assert " orvd debug: <interface_is_up:" in log, log[-3000:]
