"""The master's life: command line, single instance, control commands, title, logs and exit order."""

import os
import re
import signal
import stat
import time

import pytest

from orbmux_harness import DEBUG_FILE, PID_FILE, pid_alive, wait_for

USAGE = "\nUsage: server [-dtkvh] [-l unknown-flag-argument]\n"
DEBUG_LINE = re.compile(r"^\d{4}\.\d\d\.\d\d-\d\d:\d\d:\d\d tid\[\d+\]: .*$")


@pytest.mark.parametrize("args", [["-h"], ["-v"], ["-t"], ["-l", "x"], ["-x"], ["-s", "restart"],
                                  ["-s"], ["-dz"]])
def test_bad_options_print_usage_and_exit_1(sandbox, args):
    r = sandbox.run(*args)
    assert r.returncode == 1
    assert r.stderr == USAGE
    assert not sandbox.exists(PID_FILE)


def test_argument_without_dash_fails_without_starting(sandbox):
    r = sandbox.run("start")
    assert r.returncode == 255
    assert not sandbox.exists(PID_FILE)


def test_start_writes_pid_title_and_log_then_sigterm_runs_exit_order(sandbox):
    d = sandbox.start()
    assert sandbox.read(PID_FILE) == str(d.pid)  # decimal, no newline

    def title():
        with open(f"/proc/{d.pid}/cmdline", "rb") as f:
            return f.read().split(b"\0")[0] == b"orbmux:master"

    # The pid file is written just before the title is set.
    wait_for(title, what="process title orbmux:master")
    d.wait_log(r"orbmux\[\d+\]: INFO, start orbmux service\.")
    assert os.path.isdir(sandbox.path("var/log/orbmux"))
    assert os.path.isdir(sandbox.path("var/run/orbmux"))
    assert not sandbox.exists(DEBUG_FILE), "no debug file without -d"
    d.stop(signal.SIGTERM)
    assert "INFO, stop orbmux service." in d.log()


def test_second_start_is_refused_while_first_runs(sandbox):
    first = sandbox.start("-q")
    second = sandbox.start(wait=False)
    second.wait_log(r"orbs3 master in already exists\n")
    second.wait_log(r"ERR, failed to set running pid")
    assert first.alive()
    assert sandbox.read(PID_FILE) == str(first.pid)
    first.stop()


def test_stale_pid_file_blocks_start_until_removed(sandbox):
    os.makedirs(sandbox.path("var/run/orbmux"), exist_ok=True)
    dead = 4194000  # above any pid this machine hands out in a test run
    assert not pid_alive(dead)
    sandbox.write(PID_FILE, str(dead))
    blocked = sandbox.start(wait=False)
    blocked.wait_log(r"orbs3 master in already exists")
    assert sandbox.read(PID_FILE) == str(dead)
    os.unlink(sandbox.path(PID_FILE))
    d = sandbox.start()
    d.stop()


@pytest.mark.parametrize("words", [["-s", "stop"], ["-s=stop"], ["-s", "stopnow"]])
def test_stop_command_ends_master_in_order(sandbox, words):
    d = sandbox.start()
    r = sandbox.run(*words)
    assert r.returncode == 0 and r.stderr == ""
    assert d.wait_exit() == 0
    assert not sandbox.exists(PID_FILE)
    assert "INFO, stop orbmux service." in d.log()
    d.assert_clean()


def test_quit_without_workers_waits_for_workers_that_never_come(sandbox):
    # A graceful quit ends the master when its last worker has been reaped; with none running it sets the
    # master to terminating and nothing more. SIGTERM still ends it in order.
    d = sandbox.start()
    r = sandbox.run("-s", "quit")
    assert r.returncode == 0
    time.sleep(1.5)
    assert d.alive()
    assert sandbox.read(PID_FILE) == str(d.pid)
    d.stop(signal.SIGTERM)


def test_reload_and_k_keep_the_master_running(sandbox):
    d = sandbox.start()
    assert sandbox.run("-s", "reload").returncode == 0
    d.wait_log(r"NOTICE, reload ignored: configuration is read only at start")
    assert sandbox.run("-k").returncode == 0
    d.wait_log(r"NOTICE, log reopened")
    assert d.alive()
    d.stop()


def test_control_command_without_master_fails_without_signalling(sandbox):
    r = sandbox.run("-s", "stop")
    assert r.returncode == 1
    assert "no running master" in r.stderr


def test_debug_file_written_with_d_and_recreated_after_removal(sandbox):
    d = sandbox.start("-d")
    debug = sandbox.path(DEBUG_FILE)
    wait_for(lambda: os.path.exists(debug), what="debug file")
    assert stat.S_IMODE(os.stat(debug).st_mode) == 0o644
    lines = sandbox.read(DEBUG_FILE).splitlines()
    assert lines and all(DEBUG_LINE.match(line) for line in lines), lines
    assert any(f"tid[{d.pid}]" in line for line in lines)
    os.unlink(debug)
    # Any later trace line brings the file back: the file is opened per line.
    assert sandbox.run("-k").returncode == 0
    wait_for(lambda: os.path.exists(debug), what="debug file after removal")
    d.stop()


def test_dk_switches_debug_on_then_signals(sandbox):
    d = sandbox.start()
    r = sandbox.run("-dk")
    assert r.returncode == 0
    d.wait_log(r"NOTICE, log reopened")
    d.stop()


def test_missing_daemon_configuration_ends_the_start(sandbox):
    os.unlink(sandbox.path("etc/orbmux/orbmux.conf"))
    d = sandbox.start(wait=False)
    pid = wait_for(lambda: sandbox.exists(PID_FILE) and sandbox.read(PID_FILE), what="pid file")
    d.pid = int(pid)
    assert d.wait_exit() == 255
    d.assert_clean()


def test_stop_right_after_the_pid_file_appears_still_runs_exit_order(sandbox):
    # The pid file is written before the signal handlers stand; a stop in that moment must wait for them.
    for _ in range(5):
        d = sandbox.start()
        d.stop(signal.SIGTERM)
