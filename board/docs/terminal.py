#!/usr/bin/python3
"""terminal.py COLUMNS: draws a screen as `tmux capture-pane -e -p` gives it, from standard input to
standard output, as SVG."""

import io
import sys

from rich.console import Console
from rich.terminal_theme import TerminalTheme
from rich.text import Text

INK = (0xD3, 0xD7, 0xCF)
PAPER = (0x16, 0x19, 0x1D)
COLOURS = [(0x2E, 0x34, 0x36), (0xEF, 0x53, 0x50), (0x66, 0xBB, 0x6A), (0xFF, 0xCA, 0x28),
           (0x64, 0xA8, 0xE8), (0xD6, 0x8F, 0xE0), (0x4D, 0xD0, 0xE1), (0xEE, 0xEE, 0xEC)]

# Rich sets its text in 20, with this from line to line and, in this font, from column to column.
LINE = 24.4
ASPECT = 0.602
COLUMN = 20 * ASPECT
MARGIN = 16

# The screen without Rich's window around it, and in fonts that every machine has.
PICTURE = """\
<svg xmlns="http://www.w3.org/2000/svg" xml:space="preserve" width="871" viewBox="{box}">
<title>The front panel</title>
<style>
.{{unique_id}}-matrix {{{{ font: {{char_height}}px DejaVu Sans Mono, Menlo, Consolas, monospace }}}}
{{styles}}
</style>
<defs>{{lines}}</defs>
<rect x="-{margin}" y="-{margin}" width="100%" height="100%" rx="8" fill="#16191d"/>
{{backgrounds}}
<g class="{{unique_id}}-matrix">{{matrix}}</g>
</svg>
"""

columns = int(sys.argv[1])
screen = sys.stdin.read()
width = columns * COLUMN + 2 * MARGIN
height = screen.count("\n") * LINE + 2 * MARGIN
console = Console(record=True, width=columns, file=io.StringIO())
console.print(Text.from_ansi(screen), end="")
box = f"-{MARGIN} -{MARGIN} {width:.0f} {height:.0f}"
print(console.export_svg(theme=TerminalTheme(PAPER, INK, COLOURS), unique_id="panel",
                         font_aspect_ratio=ASPECT,
                         code_format=PICTURE.format(box=box, margin=MARGIN)), end="")
