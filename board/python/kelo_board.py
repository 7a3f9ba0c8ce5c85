"""Simulated boards for tests in Python, on top of kelo-board(1).

    from kelo_board import Board

    with Board() as board:
        board.mode("locateme")
        board.expect_blink("111000", "000000", "000111", "000000")
        board.press()
        board.expect_calls("reboot")

Each command of kelo-board is a method, and so is each condition of its "expect". Words are given
in the same order, options by their names: board.expect_leds("110000", within="3s"). A length of
time is a number of seconds, or text such as "250ms". An option whose name is a word of Python gets
a "_" behind it: for_, not_.

A command that fails raises BoardError with what the command said. An expectation that is not met
raises Unmet, which is an AssertionError, too.

pytest gets the fixture "board", a fresh board for each test, from this line in a test file or in
conftest.py:

    pytest_plugins = ["kelo_board"]
"""

import collections
import itertools
import json
import os
import subprocess
import sys

__tracebackhide__ = True  # pytest shows where the test failed, not the way from there

Event = collections.namedtuple("Event", "time kind text")

_numbers = itertools.count(1)


class BoardError(Exception):
    """A command of kelo-board failed. The text is what the command said."""

    def __init__(self, command, status, said):
        super().__init__(said or "%s: exit status %d" % (" ".join(command), status))
        self.command = command
        self.status = status


class Unmet(BoardError, AssertionError):
    """What was expected did not happen in time, or the daemon ended unasked."""


def _call(command, environment=None):
    done = subprocess.run(command, env=environment, stdin=subprocess.DEVNULL, text=True,
                          errors="replace", capture_output=True)
    if done.returncode != 0:
        failure = Unmet if done.returncode == 1 and "expect" in command[2:3] else BoardError
        raise failure(command, done.returncode, done.stderr.rstrip())
    return done.stdout


def _options(options):
    words = []
    for name, value in options.items():
        option = "--" + name.rstrip("_").replace("_", "-")
        if value is True:
            words.append(option)
        elif value is not None and value is not False:
            words += [option, str(value)]
    return words


class Board:
    """A board with a running daemon. It ends with close(), with the "with" block, or with this
    process, however that ends."""

    def __init__(self, name=None, *, daemon=None, sdk=None, form=None, keep=None, options=(),
                 program="kelo-board"):
        """daemon: a program to run instead of the board's own; sdk: a folder of platform
        libraries that replace the board's; form: as in "kelo-board run --on"; keep: how many
        megabytes of events to keep; options: for the daemon; program: where kelo-board is."""
        self.name = name or "python-%d-%d" % (os.getpid(), next(_numbers))
        self._program = program
        environment = dict(os.environ, KELO_BOARD=form) if form else None
        _call([program, "up", self.name, "--detach", *_options(
            {"daemon": daemon, "sdk": sdk, "keep": keep}),
            *("--daemon-option=" + option for option in options)], environment)
        # The other end of its input is closed at the latest when this process is gone.
        self._end = subprocess.Popen(
            ["sh", "-c", 'read -r _; exec "$@"', "sh", program, "down", self.name],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
            start_new_session=True)

    def close(self):
        """Ends the board; returns once nothing of it is left. BoardError: it had ended before."""
        if self._end:
            end, self._end = self._end, None
            said = end.communicate()[1].rstrip()
            if end.returncode != 0:
                raise BoardError(end.args[4:], end.returncode, said)

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        try:
            self.close()
        except BoardError:
            if not kind:
                raise

    def run(self, command, *words, **options):
        """Runs any command of kelo-board on this board; returns what it printed."""
        return _call([self._program, "--board=" + self.name, *command.split(), *_options(options),
                      *map(str, words)])

    # --- The hardware

    def set_laser(self, dbm):
        """Received optical power; "none" for no reading."""
        self.run("set laser", dbm)

    def set_gpon(self, state):
        """GPON state; 5 is link up."""
        self.run("set gpon", state)

    def set_button(self, value):
        self.run("set button", value)

    def set_port(self, port, in_, out=""):
        """Byte counters of lan1 to lan4, wan, wifi2, wifi5; "none" for a port that fails."""
        self.run("set port", port, in_, *([out] if out != "" else []))

    def press(self, time=2):
        self.run("press", time)

    def hold(self):
        self.run("hold")

    def release(self):
        self.run("release")

    def mode(self, keyword=None):
        """Writes a keyword into the display pipe; without one, returns the display mode's."""
        return self.run("mode", *([keyword] if keyword is not None else [])).rstrip("\n")

    def fault(self, name, on=True):
        """Breaks something on the board, or mends it; kelo-board fault lists what there is."""
        self.run("fault", name, "on" if on else "off")

    def burst(self, count=500):
        """More netlink messages than the daemon's socket holds."""
        self.run("burst", count)

    def exec(self, *command, far=False):
        """Runs a command in the board's network, or at the far end of its links; returns what it
        printed."""
        return self.run("exec", *command, far=far)

    def ip(self, *arguments, far=False):
        """Runs ip(8) there."""
        return self.run("ip", *arguments, far=far)

    def provider(self, action, *words, **options):
        """A router and servers at the far end: board.provider("start", "2001:db8:1::/64")."""
        return self.run("provider " + action, *words, **options)

    def dhcp(self, action, **options):
        """A DHCP client on the terminal's side: "start" or "stop"."""
        self.run("dhcp " + action, **options)

    # --- The daemon

    def signal(self, name):
        self.run("signal", name)

    def start(self, *options, speed=None):
        self.run("start", "--", *options, speed=speed)

    def stop(self):
        self.run("stop")

    def restart(self):
        self.run("restart")

    # --- What there is

    def status(self):
        """A dict: daemon, mode, leds, laser, gpon, button."""
        return json.loads(self.run("status --json"))

    def leds(self):
        """Six flags, for GPIO 6, 7, 8, 2, 3 and 4; "1" is lit."""
        return self.run("leds").rstrip("\n")

    def store(self):
        """A dict of the IPv6 status in the configuration store."""
        return json.loads(self.run("store --json"))

    def snapshot(self):
        """The port counter snapshot: a dict for each port, by the port's name."""
        return {port["port"]: port for port in json.loads(self.run("snapshot --json"))}

    def events(self, kind=None):
        """All that happened so far, or all of a kind: each with time in seconds, kind and text."""
        all_ = [Event(**json.loads(line)) for line in self.run("events --json").splitlines()]
        return [event for event in all_ if kind in (None, event.kind)]

    def log(self):
        """The log records so far."""
        return [event.text for event in self.events("log")]

    def path(self, file="/"):
        """Where a file of the board is for programs of this machine."""
        return self.run("path", file).rstrip("\n")

    def record(self, file, **options):
        """Saves what happened as a value change dump; for_: what happens in that time."""
        self.run("record", file, **options)

    def plot(self, picture, **options):
        """Draws what happened as .svg or .png; from_ and to, in seconds."""
        self.run("plot", output=picture, **options)

    def report(self, page):
        """Saves what happened as a web page that plays it back."""
        self.run("report", output=page)

    # --- What should be. The options of all: within, for_, not_, allow_exit.

    def mark(self):
        """Lets the expectations look at nothing older than this."""
        self.run("mark")

    def wait(self, time, **options):
        """Lets time pass; fails when the board or the daemon ends."""
        self.run("wait", time, **options)

    def expect(self, condition, *words, **options):
        """Waits until a condition of "kelo-board expect" holds, by its name."""
        self.run("expect", condition, *words, **options)

    def expect_leds(self, flags, **options):
        self.expect("leds", flags, **options)

    def expect_blink(self, *flags, period=None, beats=None, tolerance=None, **options):
        """The LEDs go through these patterns. period: time of the whole cycle; beats: how long it
        has to go on; tolerance: percent of the time each pattern shows."""
        known = {"period": period, "for": beats, "tolerance": tolerance}
        words = [word for pair in known.items() if pair[1] is not None for word in pair]
        self.expect("blink", "/".join(flags), *words, **options)

    def expect_mode(self, keyword, **options):
        self.expect("mode", keyword, **options)

    def expect_log(self, text, **options):
        self.expect("log", text, **options)

    def expect_store(self, attribute, value, **options):
        self.expect("store", attribute, value, **options)

    def expect_omci(self, count, **options):
        self.expect("omci", count, **options)

    def expect_snapshot(self, field, value, **options):
        """field: such as "lan1.in"."""
        self.expect("snapshot", field, value, **options)

    def expect_calls(self, function, **options):
        self.expect("calls", function, **options)

    def expect_exit(self, status, **options):
        self.expect("exit", status, **options)

    def expect_order(self, *events, **options):
        """Kinds of events, and if need be words of their texts: "store", "wanAddress", "omci"."""
        self.expect("order", *events, **options)


if "pytest" in sys.modules:
    import pytest

    @pytest.fixture(name="board")
    def fresh_board():
        with Board() as board:
            yield board
