"""What `cmake --install` puts in a device image, and the files that supervise the daemon there.

Each test installs the build folder into a temporary prefix of its own; nothing outside it is
touched.
"""
import contextlib
import os
import pathlib
import shutil
import signal
import stat
import subprocess
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ORVD_BUILD_DIR", SOURCE / "build"))
CMAKE = os.environ.get("ORVD_CMAKE", "cmake")
INIT_SCRIPT = SOURCE / "dist" / "orvd.init"
UNIT = SOURCE / "dist" / "orvd.service"
EXAMPLE = SOURCE / "docs" / "orvd.conf.example"

# The paths a device image has; the init script and the unit name them.
DAEMON = "/usr/sbin/orvd"
CONF = "/etc/orvd.conf"
# The example names its service in this line, commented out; tests uncomment it.
EXAMPLE_URL_LINE = "#quillon_service_url=ws://rrm.example.net:8080/rrm\n"
# A start that runs no worker returns at once; this bound only catches a hang.
QUICK = 10


def install(prefix, destdir=None):
    env = dict(os.environ)
    env.pop("DESTDIR", None)
    if destdir is not None:
        env["DESTDIR"] = str(destdir)
    result = subprocess.run([CMAKE, "--install", str(BUILD), "--prefix", str(prefix)],
                            capture_output=True, text=True, env=env)
    assert result.returncode == 0, result.stdout + result.stderr


def files_under(top):
    return {str(p.relative_to(top)): p for p in top.rglob("*") if not p.is_dir()}


def is_program(path):
    return path.stat().st_mode & (stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH) != 0


# ---- the installed tree ----------------------------------------------------------------------

def test_install_puts_the_daemon_in_sbin_and_its_configuration_in_etc_and_nothing_else(tmp_path):
    prefix = tmp_path / "prefix"
    install(prefix)
    installed = files_under(prefix)
    assert sorted(installed) == [
        "etc/orvd.conf", "sbin/orvd", "share/orvd/orvd.init", "share/orvd/orvd.service"]
    # No simulator program, no library, no test: orvd is the one program.
    assert [name for name, path in installed.items() if is_program(path)] == ["sbin/orvd"]
    assert installed["etc/orvd.conf"].read_bytes() == EXAMPLE.read_bytes()
    assert installed["share/orvd/orvd.init"].read_bytes() == INIT_SCRIPT.read_bytes()
    assert installed["share/orvd/orvd.service"].read_bytes() == UNIT.read_bytes()


@contextlib.contextmanager
def installed_orvd(prefix, conf, root):
    """The installed daemon in a device root of its own; killed if a test leaves it running."""
    env = dict(os.environ, ORVD_ROOT=str(root))
    orvd = subprocess.Popen([str(prefix / "sbin" / "orvd"), "-f", str(conf)], env=env,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        yield orvd
    finally:
        if orvd.poll() is None:
            orvd.kill()
            orvd.communicate()


def test_the_installed_configuration_names_no_service_so_the_daemon_exits_0_at_once(tmp_path):
    prefix = tmp_path / "prefix"
    install(prefix)
    (tmp_path / "root").mkdir()
    with installed_orvd(prefix, prefix / "etc" / "orvd.conf", tmp_path / "root") as orvd:
        output, _ = orvd.communicate(timeout=QUICK)
    assert orvd.returncode == 0, output


def test_the_installed_configuration_with_its_url_uncommented_runs_until_sigterm(tmp_path):
    prefix = tmp_path / "prefix"
    install(prefix)
    text = (prefix / "etc" / "orvd.conf").read_text()
    assert EXAMPLE_URL_LINE in text
    # Port 1 on loopback is closed: the daemon keeps trying to connect, as it would to a
    # service that is down.
    conf = tmp_path / "orvd.conf"
    conf.write_text(text.replace(EXAMPLE_URL_LINE, "quillon_service_url=ws://127.0.0.1:1/rrm\n"))
    (tmp_path / "root").mkdir()
    with installed_orvd(prefix, conf, tmp_path / "root") as orvd:
        time.sleep(2)
        assert orvd.poll() is None, orvd.communicate()[0]
        orvd.send_signal(signal.SIGTERM)
        output, _ = orvd.communicate(timeout=QUICK)
    assert orvd.returncode == 0, output


# ---- the systemd unit ------------------------------------------------------------------------

def unit_settings():
    """{(section, key): value} of the unit; the unit sets no key twice."""
    settings, section = {}, None
    for line in UNIT.read_text().splitlines():
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        if line.startswith("["):
            section = line.strip("[]")
            continue
        key, value = line.split("=", 1)
        assert (section, key) not in settings, f"{key} twice in [{section}]"
        settings[(section, key)] = value
    return settings


def image_with_the_unit(tmp_path):
    """An image root as a packager makes it: the install under /usr, the unit in the systemd
    unit folder, and the host's own units for the targets the unit depends on."""
    image = tmp_path / "image"
    install("/usr", destdir=image)
    units = image / "usr" / "lib" / "systemd" / "system"
    shutil.copytree("/usr/lib/systemd/system", units, symlinks=True)
    shutil.copyfile(image / "usr" / "share" / "orvd" / "orvd.service", units / "orvd.service")
    return image


def verify(image):
    result = subprocess.run(["systemd-analyze", "verify", f"--root={image}", "orvd.service"],
                            capture_output=True, text=True)
    return result.returncode, result.stdout + result.stderr


def test_systemd_analyze_verifies_the_unit_in_the_installed_image_without_a_word(tmp_path):
    image = image_with_the_unit(tmp_path)
    status, output = verify(image)
    assert (status, output) == (0, "")
    # verify checks ExecStart in the image, not on this machine: without the daemon it objects.
    (image / DAEMON.lstrip("/")).unlink()
    status, output = verify(image)
    assert f"Command {DAEMON} is not executable" in output


def test_the_unit_runs_the_daemon_with_its_configuration_and_restarts_it_on_failure():
    unit = unit_settings()
    assert unit[("Service", "Type")] == "simple"
    assert unit[("Service", "ExecStart")] == f"{DAEMON} -f {CONF}"
    # Status 255 (the clock guard) is a failure; status 0 (SIGTERM, nothing configured) is not.
    assert unit[("Service", "Restart")] == "on-failure"
    restart_sec = int(unit[("Service", "RestartSec")])
    assert restart_sec > 0


def test_the_start_limit_can_stop_a_daemon_that_fails_at_once():
    # An unknown option exits 255 at once, as the clock guard does. Starts RestartSec apart
    # must be able to exceed the burst within the interval, or that loop never ends.
    unit = unit_settings()
    restart_sec = int(unit[("Service", "RestartSec")])
    burst = int(unit[("Unit", "StartLimitBurst")])
    interval = int(unit[("Unit", "StartLimitIntervalSec")])
    assert burst > 0
    assert interval > burst * restart_sec


def test_the_hardening_leaves_the_daemon_what_it_needs():
    unit = unit_settings()
    # Notice markers in the /tmp that hostapd and widsd share.
    assert unit.get(("Service", "PrivateTmp"), "no") == "no"
    # The driver's files under /proc/<interface>/.
    assert unit.get(("Service", "ProcSubset"), "all") == "all"
    # The bus sockets under /run and the pid files under /var/run stay writable and readable.
    assert unit.get(("Service", "ProtectSystem"), "no") in ("no", "yes", "full")
    assert unit.get(("Service", "PrivateNetwork"), "no") == "no"
    families = unit[("Service", "RestrictAddressFamilies")].split()
    assert {"AF_UNIX", "AF_INET", "AF_INET6"} <= set(families)
    # The private ioctls that set channel and power.
    assert "CAP_NET_ADMIN" in unit[("Service", "CapabilityBoundingSet")].split()
    assert unit.get(("Service", "User"), "root") == "root"


# ---- the procd init script -------------------------------------------------------------------

def test_the_init_script_parses_in_sh_and_bash():
    for shell in ("sh", "bash"):
        result = subprocess.run([shell, "-n", str(INIT_SCRIPT)], capture_output=True, text=True)
        assert (result.returncode, result.stderr) == (0, ""), shell


def test_the_init_script_runs_under_rc_common():
    assert INIT_SCRIPT.read_text().splitlines()[0] == "#!/bin/sh /etc/rc.common"


# Sources the script the way /etc/rc.common does, with procd's helpers replaced by stubs that
# write one line per call: the call, then each argument in brackets. grep reads the test's
# configuration file where the script names /etc/orvd.conf; everything else is the shell's.
DRY_RUN = r"""
calls=$1; script=$2; conf=$3
record() { for word; do printf '[%s]' "$word"; done >> "$calls"; echo >> "$calls"; }
procd_open_instance() { record open_instance "$@"; }
procd_set_param() { record set_param "$@"; }
procd_close_instance() { record close_instance "$@"; }
grep() {
	for word; do
		shift
		[ "$word" = /etc/orvd.conf ] && word=$conf
		set -- "$@" "$word"
	done
	command grep "$@"
}
. "$script"
record variables "USE_PROCD=$USE_PROCD" "START=$START" "STOP=$STOP"
start_service
record start_service_status "$?"
"""


def dry_run(tmp_path, conf_text, shell="sh"):
    """The calls start_service makes, as lists of words."""
    conf = tmp_path / "orvd.conf"
    if conf_text is None:
        conf.unlink(missing_ok=True)
    else:
        conf.write_text(conf_text)
    calls = tmp_path / "calls"
    calls.write_text("")
    result = subprocess.run([shell, "-c", DRY_RUN, "dry-run", str(calls), str(INIT_SCRIPT), str(conf)],
                            capture_output=True, text=True, timeout=QUICK)
    assert (result.returncode, result.stderr) == (0, ""), result.stderr
    return [line[1:-1].split("][") for line in calls.read_text().splitlines()]


CONFIGURED = EXAMPLE.read_text().replace(EXAMPLE_URL_LINE, "quillon_service_url=ws://rrm:8080/rrm\n")


def instance_params(calls):
    """{parameter: values} of the one instance start_service opens."""
    names = [call[0] for call in calls]
    assert names.count("open_instance") == 1 and names.count("close_instance") == 1, calls
    opened, closed = names.index("open_instance"), names.index("close_instance")
    assert opened < closed
    params = {}
    for call in calls[opened + 1:closed]:
        assert call[0] == "set_param", call
        params[call[1]] = call[2:]
    return params


def test_the_init_script_is_a_procd_script_with_start_and_stop_priorities(tmp_path):
    calls = dry_run(tmp_path, CONFIGURED)
    variables = dict(word.split("=", 1) for word in calls[0][1:])
    assert variables["USE_PROCD"] == "1"
    assert 0 < int(variables["START"]) < 100
    assert 0 < int(variables["STOP"]) < 100
    assert calls[-1] == ["start_service_status", "0"]


def test_the_init_script_starts_the_daemon_with_its_configuration(tmp_path):
    for shell in ("sh", "bash"):
        params = instance_params(dry_run(tmp_path, CONFIGURED, shell))
        assert params["command"] == [DAEMON, "-f", CONF], shell


def test_the_init_script_sends_both_output_streams_to_the_log(tmp_path):
    params = instance_params(dry_run(tmp_path, CONFIGURED))
    assert params["stdout"] == ["1"]
    assert params["stderr"] == ["1"]


def test_the_init_script_respawns_the_daemon_within_limits(tmp_path):
    params = instance_params(dry_run(tmp_path, CONFIGURED))
    threshold, timeout, retry = (int(value) for value in params["respawn"])
    # A run cut short by the clock guard lasts more than its 10 seconds: it still counts as
    # a crash, so a guard that fires at every start cannot loop forever either.
    assert threshold > 10
    assert timeout > 0
    # 0 would retry for ever.
    assert retry > 0


def test_the_init_script_restarts_the_daemon_when_its_configuration_changes(tmp_path):
    params = instance_params(dry_run(tmp_path, CONFIGURED))
    assert params["file"] == [CONF]


def test_the_init_script_starts_nothing_while_the_configuration_names_no_service(tmp_path):
    assert [call[0] for call in dry_run(tmp_path, EXAMPLE.read_text())] == [
        "variables", "start_service_status"]
    assert [call[0] for call in dry_run(tmp_path, None)] == ["variables", "start_service_status"]


def test_the_init_script_starts_the_daemon_for_the_roaming_service_too(tmp_path):
    params = instance_params(dry_run(tmp_path, "ROAM_SERVICE_URL=ws://roam:9000/wids\n"))
    assert params["command"] == [DAEMON, "-f", CONF]
