#!/usr/bin/python3
"""patterns.py KELO-BOARD FOLDER: writes the LED patterns of all display modes, as they are recorded
from the daemon, as a picture and as a text: led-patterns.svg and led-patterns.md. They go by ticks,
not by times, so that the same daemon gives the same patterns on any machine."""

import itertools
import json
import math
import pathlib
import re
import statistics
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "python"))
from kelo_board import Board

GPIOS = (6, 7, 8, 2, 3, 4)
SIGNAL = "110000"  # of the power that boards start with
LONGEST_TICK = 6   # seconds, and then some
# Two rounds of the longest pattern, so that what repeats is seen to repeat; the mode that ends by
# itself to its end.
ROUNDS, WHOLE = 9, 125

POWERS = [("no reading", "none"), ("-34 dBm: level 0", "-34"), ("-26.5 dBm: level 1", "-26.5"),
          ("-18 dBm: level 2", "-18"), ("-9.5 dBm: level 3", "-9.5"), ("-4 dBm: level 4", "-4")]
MODES = {"none": ROUNDS, "reboot": ROUNDS, "restore": ROUNDS, "errora12": ROUNDS,
         "locateme": WHOLE, "ledtest": 5, "facttest": ROUNDS, "facttesterr": ROUNDS}


class Pattern:
    """A pattern that a board of its own draws."""

    def __init__(self, program, title, laser, gpon, keyword=None, wanted=ROUNDS):
        self.title, self.wanted = title, wanted
        self.before = SIGNAL if keyword else "000000"
        self.board = Board(program=program)
        if not keyword:
            self.board.stop()
            self.board.set_laser(laser)
            self.board.set_gpon(gpon)
        else:
            self.board.expect_leds(SIGNAL, within=60)
        self.frames, self.seen = [], time.monotonic()
        self.skip = len(self.drawn())
        if keyword:
            self.board.mode(keyword)
        else:
            self.board.start()

    def drawn(self):
        events = map(json.loads, self.board.run("events --json --all").splitlines())
        return [event for event in events if event["kind"] == "leds"]

    def is_whole(self):
        """Whether all that is wanted has been drawn, or no more comes."""
        frames = self.drawn()[self.skip:]
        if len(frames) > len(self.frames):
            self.frames, self.seen = frames, time.monotonic()
        # One frame more, as the first may be what was drawn before.
        return len(frames) > self.wanted or time.monotonic() > self.seen + LONGEST_TICK

    def finish(self):
        """Finds the phases, the ms between two drawings to the nearest 50, 0 when it is drawn once,
        and the ticks after which the mode ends by itself, 0 for never."""
        self.board.close()
        frames = list(itertools.dropwhile(lambda one: one["text"] == self.before, self.frames))
        shown, times = [one["text"] for one in frames], [one["time"] for one in frames]
        self.ticks = shown.index(SIGNAL) if self.wanted == WHOLE and SIGNAL in shown else 0
        if self.ticks:
            shown, times = shown[:self.ticks], times[:self.ticks]
        period = next((length for length in range(1, max(2, len(shown)))
                       if shown[length:] == shown[:-length]), 0)
        if not shown or period == 0:
            sys.exit(f"{self.title}: what was drawn does not repeat: {shown}")
        self.phases = shown[:period]
        steps = [after - before for before, after in zip(times, times[1:])]
        self.tick = round(statistics.median_high(steps) * 20) * 50 if steps else 0

    def pace(self):
        if self.tick == 0:
            return "drawn once"
        return f"{self.tick} ms" if self.tick % 1000 else f"{self.tick // 1000} s"

    def end(self):
        return f"after {self.ticks} ticks back to signal" if self.ticks else ""


def number(value):
    return f"{value:.2f}".rstrip("0").rstrip(".")


class Picture:
    """An SVG file in the colours of kelo-board's own."""

    def __init__(self):
        self.body = ""

    def shape(self, element, style, text=None, **attributes):
        self.body += f'<{element} class="{style}"'
        for name, value in attributes.items():
            value = value if isinstance(value, str) else number(value)
            self.body += f' {name.replace("_", "-")}="{value}"'
        self.body += "/>\n" if text is None else f">{text}</{element}>\n"

    def text(self, style, x, y, text, **attributes):
        self.shape("text", style, text, x=x, y=y, **attributes)

    def line(self, style, x1, y1, x2, y2):
        self.shape("line", style, x1=x1, y1=y1, x2=x2, y2=y2)

    def bar(self, style, x, y, width, height):
        self.shape("rect", style, x=x, y=y, width=width, height=height)

    def finish(self, colours, width, height, title):
        rules = ".name{font-weight:bold}.small{font-size:10px}.head{font-size:15px}"
        at = colours.index("@media")
        return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{number(width)}"'
                f' height="{number(height)}" viewBox="0 0 {number(width)} {number(height)}"'
                ' font-family="DejaVu Sans,Verdana,sans-serif" font-size="12">\n'
                f"<title>{title}</title>\n<style>{colours[:at]}{rules}{colours[at:]}</style>\n"
                f'<rect class="bg" width="{number(width)}" height="{number(height)}"/>\n'
                f"{self.body}</svg>\n")


COLUMNS, CELL_WIDTH, CELL_HEIGHT, HEADING, MARGIN = 3, 310, 112, 36, 20
LANES_LEFT, LANE, BAR, TICKS = 24, 11, 8, 8
LANES_WIDTH = CELL_WIDTH - LANES_LEFT - 22
STEP = LANES_WIDTH / TICKS


def draw_cell(picture, left, top, pattern):
    remark = pattern.pace() + (" a tick" if pattern.tick else "")
    remark += ", " + pattern.end() if pattern.ticks else ""
    picture.text("ink name", left, top + 10, pattern.title)
    picture.text("muted small", left + LANES_LEFT + LANES_WIDTH, top + 10, remark,
                 text_anchor="end")
    left += LANES_LEFT
    shown = [pattern.phases[tick % len(pattern.phases)] for tick in range(TICKS)]
    for led, gpio in enumerate(GPIOS):
        y = top + 20 + led * LANE
        picture.text("muted small", left - 12, y + BAR, gpio, text_anchor="middle")
        picture.bar("off", left, y + BAR / 2 - 0.5, LANES_WIDTH, 1)
        for lit in re.finditer("1+", "".join(flags[led] for flags in shown)):
            picture.bar("lit", left + lit.start() * STEP, y, len(lit[0]) * STEP, BAR)
    axis = top + 20 + len(GPIOS) * LANE + 1
    for tick in range(TICKS + 1 if pattern.tick else 0):
        x = left + tick * STEP
        picture.line("muted", x, axis, x, axis + (2 if tick % 4 else 4))


def draw(groups, colours):
    picture = Picture()
    y = MARGIN
    for group, patterns in groups.items():
        picture.text("ink head", MARGIN, y + 14, group)
        picture.line("grid", MARGIN, y + 21, MARGIN + COLUMNS * CELL_WIDTH - 22, y + 21)
        y += HEADING
        for at, pattern in enumerate(patterns):
            draw_cell(picture, MARGIN + at % COLUMNS * CELL_WIDTH,
                      y + at // COLUMNS * CELL_HEIGHT, pattern)
        y += math.ceil(len(patterns) / COLUMNS) * CELL_HEIGHT
    picture.text("muted", MARGIN, y + 4, "GPIO 6, 7, 8, 2, 3 and 4 from top to bottom; a bar is a "
                 "lit LED; eight ticks each.")
    return picture.finish(colours, 2 * MARGIN + COLUMNS * CELL_WIDTH - 22, y + MARGIN,
                          "The LED patterns of all display modes")


def describe(groups):
    text = """\
# LED patterns

What the six LEDs show in every display mode, recorded from the daemon by
`scripts/docs`; [led-patterns.svg](led-patterns.svg) is the same as a
picture. The flags are those of GPIO 6, 7, 8, 2, 3 and 4, 1 is lit. A
pattern's phases follow one another tick by tick and begin again.
"""
    for group, patterns in groups.items():
        text += f"\n## {group}\n\n| | tick | phases | ends |\n|---|---|---|---|\n"
        for one in patterns:
            phases = " ".join(f"`{phase}`" for phase in one.phases)
            text += f"| {one.title} | {one.pace()} | {phases} | {one.end()} |\n"
    return text


program, folder = sys.argv[1], pathlib.Path(sys.argv[2])
groups = {
    "signal, link up": [Pattern(program, title, laser, 5) for title, laser in POWERS],
    "signal, link down": [Pattern(program, title, laser, 3) for title, laser in POWERS],
    "the other modes": [Pattern(program, mode, "-18.5", 5, mode, wanted)
                        for mode, wanted in MODES.items()]}
patterns = sum(groups.values(), [])
while not all([pattern.is_whole() for pattern in patterns]):
    time.sleep(1)
for pattern in patterns:
    pattern.finish()
with tempfile.TemporaryDirectory() as scratch, Board(program=program) as board:
    board.plot(scratch + "/any.svg")
    colours = pathlib.Path(scratch, "any.svg").read_text()
colours = re.search("<style>(.*)</style>", colours)[1]
(folder / "led-patterns.svg").write_text(draw(groups, colours))
(folder / "led-patterns.md").write_text(describe(groups))
