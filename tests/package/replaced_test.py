"""A board with a daemon, and with platform libraries, that are not its own."""

import os
import shutil
import subprocess

import pytest

from kelo_board import Board, BoardError

PROGRAM = os.environ["KELO_BOARD_PROGRAM"]
DAEMON = os.environ["KELO_DAEMON"]

# They do what they have to and tell nobody of it. The last one needs a library of its own.
LIBRARIES = {
    "helper": "int helper(void) { return 77; }",
    "kelosyscfg": """
        extern int helper(void);
        int syscfg_getGponState(void) { return 5; }
        int syscfg_getLaserInfo(float *power) { *power = -9; return 1; }
        int syscfg_getPortBytes(int port, unsigned long long *in, unsigned long long *out)
        { *in = *out = helper(); return port == 1; }
        int syscfg_reboot(void) { return 1; }
        int syscfg_restoreDefaultBg(void) { return 1; }""",
    "tcapi": "int tcapiSet(void) { return 0; } int tcapiSetUint32(void) { return 0; }",
}


@pytest.fixture(scope="module")
def sdk(tmp_path_factory):
    folder = tmp_path_factory.mktemp("sdk")
    (folder / "lib").mkdir()
    for name, source in LIBRARIES.items():
        needed = ["-L" + str(folder / "lib"), "-lhelper"] if "helper()" in source else []
        subprocess.run(["cc", "-shared", "-fPIC", "-xc", "-", "-o", "lib%s.so" % name, *needed],
                       cwd=folder / "lib", input=source, text=True, check=True)
    return folder


def start(**options):
    return Board(program=PROGRAM, **options)


def fails(message, **options):
    with pytest.raises(BoardError, match=message):
        start(**options).close()


def test_a_daemon_of_ones_own_runs(tmp_path, monkeypatch):
    own = tmp_path / "own-daemon"
    shutil.copy(DAEMON, own)
    with open(own, "ab") as file:
        file.write(b"mine")
    monkeypatch.chdir(tmp_path)
    with start(daemon="own-daemon") as board:
        assert board.leds() == "110000"
        with open(board.path("/usr/sbin/kelo-monitord"), "rb") as file:
            assert file.read().endswith(b"mine")


def test_libraries_of_ones_own_are_called_and_bring_what_they_need(sdk):
    with start(sdk=sdk) as board:
        board.expect_leds("111000")
        board.expect_snapshot("lan1.counterIn", 77)
        board.restart()
        board.set_laser(-30)
        board.expect_leds("111000", for_="3500ms")
    with start(sdk=sdk / "lib", daemon=DAEMON, options=["-d"]) as board:
        board.expect_leds("111000")


def test_scenarios_run_on_such_boards(sdk, tmp_path):
    scenario = tmp_path / "scenario"
    scenario.write_text("kelo-board expect leds 111000\n")
    for options, status in (["--sdk", sdk], 0), ([], 1):
        done = subprocess.run([PROGRAM, "run", *options, scenario], capture_output=True, text=True)
        assert done.returncode == status, done.stdout


def test_what_cannot_run_is_refused_with_the_reason(tmp_path):
    text = tmp_path / "text"
    text.write_text("not a program")
    other = tmp_path / "other-machine"
    with open(DAEMON, "rb") as file:
        program = bytearray(file.read())
    program[18] ^= 0xff
    other.write_bytes(program)
    for file in text, other:
        fails("is no program for this board's machine", daemon=file)
    script = tmp_path / "script"
    script.write_text("#!/bin/sh\necho out of order >&2\nexit 1\n")
    fails("the daemon ended at once: out of order", daemon=script)
    fails("File does not exist", daemon=tmp_path / "missing")
    fails("no libraries in", sdk=tmp_path)
    (tmp_path / "libtcapi.so").write_text("no library")
    fails("libtcapi.so", sdk=tmp_path)
