"""The examples of docs/operating.md, taken from the page and run."""

import os
import re
import shutil
import signal
import subprocess
import time

import pytest

from kelo_board import Board

SOURCE = os.environ["KELO_SOURCE"]
PROGRAM = os.environ["KELO_BOARD_PROGRAM"]
RUN = "/var/run"

with open(SOURCE + "/docs/operating.md") as file:
    PAGE = file.read()
EXAMPLES = {name: text for name, text in re.findall(r"```\w+ (\S+)\n(.*?)```", PAGE, re.S)}
RECORD = re.compile(EXAMPLES["record"].rstrip("\n"))
TRIED = set()


@pytest.fixture(scope="module")
def board():
    with Board(program=PROGRAM) as new:
        new.set_port("lan1", 2 ** 64 - 1, 2 ** 53 + 1)
        new.set_port("wifi5", "none")
        new.expect_snapshot("lan1.counterIn", 2 ** 64 - 1)
        new.expect_snapshot("wifi5.in", "none")
        new.mark()
        new.expect_snapshot("lan1.in", 0)  # the differences are not the counters
        yield new


@pytest.fixture
def example(tmp_path):
    """Writes an example into a file, with another folder in place of /var/run."""

    def write(name, run=RUN):
        TRIED.add(name)
        file = tmp_path / name
        file.write_text(EXAMPLES[name].replace(RUN, str(run)))
        file.chmod(0o755)
        return str(file)

    return write


def run(*command, **options):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True,
                          timeout=30, **options)


# Each shell that a terminal may have.
SHELLS = [shell for shell in (["dash"], ["bash"], ["busybox", "sh"]) if shutil.which(shell[0])]
AWKS = [awk for awk in (["mawk"], ["gawk"], ["busybox", "awk"]) if shutil.which(awk[0])]
shells = pytest.mark.parametrize("shell", SHELLS, ids=" ".join)
awks = pytest.mark.parametrize("awk", AWKS, ids=" ".join)


def test_some_shell_and_awk_is_there():
    assert len(SHELLS) > 1 and AWKS


@shells
def test_counters_are_printed(board, example, shell):
    done = run(*shell, example("counters", board.path(RUN)))
    assert done.stderr == ""
    lines = done.stdout.splitlines()
    assert lines[0] == "lan1: 18446744073709551615 bytes in, 9007199254740993 bytes out"
    assert [line.split(":")[0] for line in lines] == ["lan1", "lan2", "lan3", "lan4", "wan", "wifi2"]


@shells
def test_counters_are_fresh_while_the_daemon_runs(board, example, shell, tmp_path):
    assert run(*shell, example("is-fresh", board.path(RUN))).returncode == 0
    folder = tmp_path / "run"
    folder.mkdir()
    script = example("is-fresh", folder)
    assert run(*shell, script).returncode != 0
    snapshot = folder / "kelo-monitord.netinfo"
    snapshot.touch()
    assert run(*shell, script).returncode == 0
    os.utime(snapshot, times=(time.time() - 5,) * 2)
    assert run(*shell, script).returncode != 0


@awks
def test_prometheus_reads_the_counters(board, example, awk):
    done = run(*awk, "-f", example("prometheus.awk"), board.path(RUN + "/kelo-monitord.netinfo"))
    assert done.stderr == ""
    lines = done.stdout.splitlines()
    assert lines[1] == "# TYPE kelo_port_bytes_total counter"
    sample = re.compile(r'kelo_port_bytes_total\{port="(\w+)",direction="(in|out)"\} (\d+)')
    samples = [sample.fullmatch(line).groups() for line in lines[2:]]
    assert samples[:2] == [("lan1", "in", "18446744073709551615"),
                           ("lan1", "out", "9007199254740993")]
    assert len(set(samples)) == 12


@shells
def test_collectd_is_told_the_counters(board, example, shell):
    TRIED.add("collectd.conf")
    assert '"/usr/local/bin/kelo-collectd"' in EXAMPLES["collectd.conf"]
    process = subprocess.Popen([*shell, example("kelo-collectd", board.path(RUN))], text=True,
                               stdout=subprocess.PIPE, start_new_session=True, env=dict(
                                   os.environ, COLLECTD_HOSTNAME="a.b", COLLECTD_INTERVAL="1.000"))
    lines = [process.stdout.readline() for _ in range(12)]
    os.killpg(process.pid, signal.SIGKILL)
    process.communicate()
    value = re.compile(r'PUTVAL "a\.b/kelo-(\w+)/if_octets" interval=1\.000 N:(\d+):(\d+)\n')
    values = [value.fullmatch(line).groups() for line in lines]
    assert values[0] == values[6] == ("lan1", "18446744073709551615", "9007199254740993")


def test_the_expression_takes_every_record(board):
    TRIED.add("record")
    board.mode("locateme\n")
    board.expect_mode("locateme")
    board.mode("signal")
    board.expect_log("switch display mode 5 -> 1")
    board.ip("-6", "addr", "add", "2001:db8::7/64", "dev", "br0", "nodad")
    board.expect_log("New IPv6 address 2001:db8::7/64 on br0")
    log = board.log()
    assert RECORD.sub("", "".join(text + "\n" for text in log).replace("\n\n", "\n")) == ""
    found = [RECORD.fullmatch(text.rstrip("\n") + "\n").groups() for text in log]
    for message, function in (("switch display mode 5 -> 1", "display_setMode"),
                              ('received "locateme\n"', "readDisplayMode")):
        assert (message, "display.cpp", function) in [
            (message, file, function) for message, file, _, function in found]
    assert any(message.startswith("New IPv6 address 2001:db8::7/64 on br0(")
               and (file, function) == ("ipinfo.cpp", "ipaddr_log")
               for message, file, _, function in found)


ONE = "kelo-monitord: Failed to allocate memory [ipinfo.cpp:12 route_insert]\n"
TWO = "kelo-monitord: rebooting...\n [input.cpp:3 doReboot]\n"
THREE = "kelo-monitord: received \"signal\n\"\n [display.cpp:3 readDisplayMode]\n"
LONG = "kelo-monitord: received \"" + 110 * "x" + "\"\n"
ODD = "[warn] Epoll MOD(1) on fd 9 failed\n"


@awks
@pytest.mark.parametrize("log, lines", [
    (ONE + ONE, [ONE, ONE]),
    (TWO + ONE, ["kelo-monitord: rebooting... [input.cpp:3 doReboot]\n", ONE]),
    (ODD + ONE + ODD + ODD, [ODD, ONE, ODD, ODD]),
    (THREE + ODD, ["kelo-monitord: received \"signal\" [display.cpp:3 readDisplayMode]\n", ODD]),
    (LONG + ONE + LONG, [LONG, ONE, LONG]),
], ids=["one", "two", "others", "quoted", "long"])
def test_each_record_becomes_a_line(example, awk, log, lines):
    done = run(*awk, "-f", example("one-line.awk"), input=log)
    assert done.stdout == "".join(lines)


@awks
def test_a_record_is_not_held_back(example, awk):
    process = subprocess.Popen([*awk, *(["-W", "interactive"] if awk == ["mawk"] else []),
                                "-f", example("one-line.awk")],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    process.stdin.write(ONE)
    process.stdin.flush()
    assert process.stdout.readline() == ONE
    process.communicate()


def test_the_messages_to_watch_for_are_those_of_the_manual_page():
    with open(SOURCE + "/docs/kelo-monitord.8") as file:
        manual = file.read()
    watched = re.findall(r"^\| `([^`]*)`", PAGE, re.M)
    assert len(watched) > 8
    for message in watched:
        assert "\n.It " + message in manual, message


@shells
def test_a_shell_asks_for_a_mode(board, example, shell, tmp_path):
    script = example("ask", board.path(RUN))
    for keyword in "ledtest", "signal":
        board.mark()
        assert run(*shell, script, keyword).returncode == 0
        board.expect_mode(keyword)
        board.expect_log('received "%s"' % keyword)
        board.expect_log("received len: 0")
    script = example("ask", tmp_path)
    assert run(*shell, script, "signal").returncode != 0
    assert not (tmp_path / "kelo-monitord.display").exists()
    os.mkfifo(tmp_path / "kelo-monitord.display")
    assert run(*shell, script, "signal").returncode != 0


def test_a_program_in_c_asks_for_a_mode(board, example, tmp_path):
    def built(folder):
        done = run("cc", "-std=c99", "-D_GNU_SOURCE", "-Wall", "-Wextra", "-pedantic", "-Werror",
                   "-o", tmp_path / "ask", example("ask.c", folder))
        assert done.returncode == 0, done.stderr
        return tmp_path / "ask"

    ask = built(board.path(RUN))
    board.mark()
    assert run(ask, "facttest").returncode == 0
    board.expect_mode("facttest")
    board.expect_order("log", 'received "facttest"', "log", "received len: 0")
    ask = built(tmp_path)
    pipe = tmp_path / "kelo-monitord.display"
    assert run(ask, "signal").stderr == "ask: No such file or directory\n"
    pipe.write_text("")
    assert run(ask, "signal").stderr == "ask: No such device or address\n"
    assert pipe.read_text() == ""
    pipe.unlink()
    os.mkfifo(pipe)
    assert run(ask, "signal").stderr == "ask: No such device or address\n"
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    assert run(ask, "signal").returncode == 0
    assert os.read(reader, 100) == b"signal"
    os.close(reader)


DAEMON = """#!/bin/sh
trap 'echo told >> {0}; exit' TERM
echo start >> {0}
[ $(wc -l < {0}) -ge 3 ] || exit 0
while :; do sleep 0.05; done
"""


def wait_until(condition):
    end = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < end
        time.sleep(0.02)


@shells
def test_the_daemon_is_kept_running(example, shell, tmp_path):
    log = tmp_path / "log"
    for name, text in ("kelo-monitord", DAEMON.format(log)), ("pause", "#!/bin/sh\n"):
        (tmp_path / name).write_text(text)
        (tmp_path / name).chmod(0o755)
    script = tmp_path / "quick"
    text = EXAMPLES["supervise"]
    TRIED.add("supervise")
    assert "sleep 5" in text
    script.write_text(text.replace("sleep 5", "pause"))
    path = "%s:%s" % (tmp_path, os.environ["PATH"])
    process = subprocess.Popen([*shell, script], env=dict(os.environ, PATH=path))

    def runs_the_third():
        with open("/proc/%d/stat" % process.pid) as file:
            waits = file.read().split()[2] == "S"
        return waits and log.exists() and log.read_text() == "start\n" * 3

    wait_until(runs_the_third)
    process.terminate()
    assert process.wait(timeout=20) == 0
    wait_until(lambda: log.read_text() == "start\n" * 3 + "told\n")


def test_every_example_was_tried():
    assert TRIED == set(EXAMPLES)
