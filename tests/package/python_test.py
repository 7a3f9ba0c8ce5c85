"""kelo_board.py as its users meet it."""

import json
import os
import signal
import subprocess
import sys
import time

import pytest

import kelo_board
from kelo_board import Board, BoardError, Unmet

PROGRAM = os.environ["KELO_BOARD_PROGRAM"]


def start(**options):
    return Board(program=PROGRAM, **options)


def listed():
    said = subprocess.run([PROGRAM, "list", "--json"], capture_output=True, text=True, check=True)
    return {board["name"]: board for board in json.loads(said.stdout)}


@pytest.fixture
def board():
    with start() as new:
        yield new


def test_the_hardware_is_turned_and_looked_at(board):
    assert board.leds() == "110000"
    assert board.mode() == "signal"
    board.set_laser(-9.5)
    board.set_gpon(4)
    board.set_port("lan1", 2 ** 63, 7)
    board.set_port("wan", "none")
    board.expect_leds("111000")
    board.expect_snapshot("lan1.counterOut", 7)
    board.expect_snapshot("wan.in", "none")
    ports = board.snapshot()
    assert ports["lan1"]["counterIn"] == 2 ** 63 and "wan" not in ports
    status = board.status()
    assert (status["laser"], status["gpon"], status["daemon"]) == (-9.5, 4, "running")
    board.mode("errora12")
    board.expect_leds("010000", within="2s", for_="300ms")
    board.expect_mode("signal", not_=True)


def test_a_cycle_is_described_in_words(board):
    board.mode("facttest")
    board.expect_blink("001000", "010000", "100000", "010000", period="2s", beats="2s",
                       tolerance=40)


def test_addresses_are_published_in_order(board):
    board.mark()
    board.ip("-6", "addr", "add", "2001:db8::1/64", "dev", "br0", "nodad")
    board.expect_store("lanAddress", "2001:db8::1")
    board.expect_log("New IPv6 address 2001:db8::1/64 on br0")
    board.expect_omci(1)
    board.expect_order("log", "New IPv6 address", "store", "lanAddress", "omci")
    assert board.store()["lanAddressLen"] == "64"
    assert any("New IPv6 address" in record for record in board.log())
    kinds = [event.kind for event in board.events()]
    assert kinds.index("store") < kinds.index("omci")
    assert "br0" in board.exec("ip", "link")


def test_the_far_end_is_there(board):
    assert "br0" not in board.exec("ip", "link", far=True)
    assert "ppp0" in board.ip("-o", "link", far=True)
    board.provider("flap", 1, on="ppp0")
    with pytest.raises(BoardError, match='no prefix: "nonsense"'):
        board.provider("renumber", "nonsense", on="ppp0")


def test_the_button_is_held_pressed_and_released(board):
    board.hold()
    assert board.status()["button"] > 0
    board.expect_mode("reboot")
    board.release()
    board.expect_calls("reboot")
    board.restart()
    board.set_button(5)
    board.expect_mode("restore")
    board.restart()
    board.press(0.5)


def test_the_daemon_is_stopped_started_and_signalled(board):
    board.signal("TERM")
    board.expect_exit(0)
    board.start("-d")
    board.stop()
    board.start(speed=5)
    board.signal("KILL")
    board.wait(0.1, allow_exit=True)
    assert board.status()["daemon"] == "ended"


def test_faults_come_and_go(board):
    board.fault("omci-failing")
    board.fault("omci-failing", on=False)
    board.burst(600)
    board.expect_log("Failed to receive netlink msg (-1)")


def test_what_happened_is_saved(board, tmp_path):
    board.record(tmp_path / "a.vcd")
    board.plot(tmp_path / "a.svg", from_=0, to=1)
    board.report(tmp_path / "a.html")
    for file in "a.vcd", "a.svg", "a.html":
        assert (tmp_path / file).stat().st_size > 500
    board.expect_snapshot("lan1.counterIn", 0)
    with open(board.path("/var/run/kelo-monitord.netinfo")) as snapshot:
        assert snapshot.readline().startswith("port=lan1,")


def test_an_unmet_expectation_says_what_there_was(board):
    with pytest.raises(Unmet, match="expected leds 000000 within 100ms, saw leds 110000") as raised:
        board.expect_leds("000000", within="100ms")
    assert isinstance(raised.value, AssertionError) and raised.value.status == 1
    assert "GPIO 6" in str(raised.value)


def test_a_daemon_that_ends_unasked_fails_the_expectation(board):
    os.kill(listed()[board.name]["daemon"], signal.SIGKILL)
    with pytest.raises(Unmet, match="KILL"):
        board.expect_leds("110000", within=3, for_="2s")


def test_a_command_that_makes_no_sense_says_so(board):
    with pytest.raises(BoardError, match='no port: "lan9"') as raised:
        board.set_port("lan9", 1)
    assert raised.value.status == 2 and not isinstance(raised.value, AssertionError)
    with pytest.raises(BoardError, match="exit status 3"):
        board.exec("sh", "-c", "exit 3")


def test_boards_run_side_by_side_and_end_with_their_blocks():
    with start() as first, start() as second:
        assert {first.name, second.name} <= set(listed())
        first.mode("none")
        first.expect_leds("000000")
        assert second.leds() == "110000"
    assert not {first.name, second.name} & set(listed())


def test_boards_differ_in_name_form_and_options():
    with start(name="by-hand", form="host", keep=1, options=["-d"]) as board:
        assert board.name == "by-hand"
        board.expect_log("Launching as daemon...")
    with pytest.raises(BoardError, match="nonsense"):
        start(form="nonsense")


def test_a_name_that_is_taken_is_refused(board):
    with pytest.raises(BoardError, match="runs already"):
        start(name=board.name)
    assert board.name in listed()


def test_a_board_that_ended_before_its_block_is_an_error():
    with pytest.raises(BoardError, match="no board named"):
        with start() as board:
            board.run("down")
    with pytest.raises(ZeroDivisionError):
        with start() as board:
            board.run("down")
            raise ZeroDivisionError
    board.close()


def test_a_process_that_is_killed_leaves_no_board():
    script = ("from kelo_board import Board; import sys, time\n"
              "print(Board(program=%r).name, flush=True); time.sleep(60)" % PROGRAM)
    process = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True)
    name = process.stdout.readline().strip()
    assert name in listed()
    process.send_signal(signal.SIGKILL)
    process.communicate()
    end = time.monotonic() + 20
    while name in listed():
        assert time.monotonic() < end
        time.sleep(0.05)


def test_there_is_a_method_for_every_command_and_condition():
    def offered(*words):
        said = subprocess.run([PROGRAM, "complete", *words, ""], capture_output=True, text=True)
        return set(said.stdout.split())

    for_a_person_or_many_boards = {"up", "down", "list", "run", "panel", "web"}
    names = {name for name in dir(kelo_board.Board) if not name.startswith("_")}
    assert offered() - for_a_person_or_many_boards - {"set", "expect"} <= names
    assert {"set_" + word for word in offered("set")} <= names
    assert {"expect_" + word for word in offered("expect")} <= names
