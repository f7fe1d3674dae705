"""The README's picture: a session of the shell on the emulated screen, drawn as SVG."""

from xml.sax.saxutils import escape

from . import settings
from .terminal import Key, Terminal

PICTURE = settings.SOURCE / "docs" / "shell.svg"
COLUMNS, ROWS = 86, 33

CELL_WIDTH, CELL_HEIGHT, MARGIN = 8.4, 18, 14
FONT = "ui-monospace, 'DejaVu Sans Mono', Menlo, Consolas, monospace"
PAPER, INK = "#14171c", "#d5d9e0"
COLOURS = {
    "black": "#14171c", "red": "#e06c75", "green": "#98c379", "brown": "#d19a66", "blue": "#61afef", "magenta": "#c678dd",
    "cyan": "#56b6c2", "white": "#d5d9e0", "brightblack": "#7f848e", "brightred": "#e06c75", "brightgreen": "#98c379",
    "brightbrown": "#e5c07b", "brightblue": "#61afef", "brightmagenta": "#c678dd", "brightcyan": "#56b6c2",
    "brightwhite": "#ffffff", "default": INK,
}  # fmt: skip

SESSION = [
    "cd Device.Hosts.Host",
    "ls",
    "set 1.HostName=desktop 1.Active=maybe",
    "catree 1.WANStats",
    "take :Device.NAT.PortMapping",
    "set InternalClient=192.168.1.20 Enable=true",
    "lua",
    "dm.get('Device.Hosts.Host.1.HostName')",
    "q",
]
UNFINISHED = "cat :Device.Time.NTPServer"


def play(sandbox, veld):
    """Runs the session on `veld`, which speaks TCP, and returns the terminal as it stands at its end."""
    config = sandbox.root / "login.conf"
    config.write_text("login admin -p admin\n")
    argv = [settings.KEST, "-u", veld.tcp_address(), "-c", config]
    env = sandbox.environment({"COLORTERM": "truecolor"})
    terminal = Terminal(argv, env, sandbox.work, COLUMNS, ROWS, sandbox.wrap)
    try:
        terminal.wait_prompt()
        # The greeting has been read by now.
        terminal.type(Key.CTRL_L)
        terminal.wait_for(lambda shown: shown.cursor[0] == 0)
        for line in SESSION:
            terminal.run(line)
        terminal.type(UNFINISHED + Key.TAB + Key.TAB) # the second one lists
        terminal.wait_for("NTPServer3")
        terminal.wait_for(lambda shown: shown.line(shown.cursor[0]).endswith(UNFINISHED))
        return [runs_of(terminal, row) for row in range(len(terminal.lines))], terminal.cursor
    finally:
        terminal.close()


def runs_of(terminal, row):
    """One row as runs of (first column, text, colour, bold)."""
    runs = []
    for column in range(COLUMNS):
        cell = terminal.cell(row, column)
        colour = COLOURS.get(cell.fg, f"#{cell.fg}")
        if runs and runs[-1][2:] == [colour, cell.bold]:
            runs[-1][1] += cell.data
        else:
            runs.append([column, cell.data, colour, cell.bold])
    return [run for run in runs if run[1].strip()]


def drawn(rows, cursor):
    """The SVG text of such rows."""
    width = COLUMNS * CELL_WIDTH + 2 * MARGIN
    height = len(rows) * CELL_HEIGHT + 2 * MARGIN
    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:g} {height:g}" width="{width:g}" height="{height:g}"'
        ' role="img" aria-label="A session of the shell">',
        f'<rect width="100%" height="100%" rx="8" fill="{PAPER}"/>',
        f'<g font-family="{FONT}" font-size="14" xml:space="preserve">',
    ]
    row, column = cursor
    out.append(
        f'<rect x="{MARGIN + column * CELL_WIDTH:g}" y="{MARGIN + row * CELL_HEIGHT:g}" width="{CELL_WIDTH:g}"'
        f' height="{CELL_HEIGHT:g}" fill="{INK}" opacity="0.7"/>'
    )
    for row, runs in enumerate(rows):
        for column, text, colour, bold in runs:
            text = text.rstrip()
            place = f'x="{MARGIN + column * CELL_WIDTH:g}" y="{MARGIN + row * CELL_HEIGHT + 13:g}"'
            weight = ' font-weight="bold"' if bold else ""
            length = f'textLength="{len(text) * CELL_WIDTH:g}"'
            out.append(f'<text {place} {length} fill="{colour}"{weight}>{escape(text)}</text>')
    return "\n".join([*out, "</g>", "</svg>", ""])


def current(sandbox, veld):
    """The picture as the programs of today make it."""
    return drawn(*play(sandbox, veld))
