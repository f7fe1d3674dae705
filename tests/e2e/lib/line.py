"""What a screen must show while a line is edited: a second, independent account of the editor's drawing."""

import re
import unicodedata

from wcwidth import wcwidth


def cells(text, column, width, joins=True):
    """The cells that one text takes when it begins at `column`: (characters, cells) pieces; "\n" as it is."""
    for char in text:
        if wcwidth(char) == 0 and not joins:
            for letter in f"\\u{ord(char):04x}":
                yield letter, 1
            return
        if char == "\n":
            yield "\n", 0
        elif char == "\t":
            count = min(8 - column % 8, width - column) if column < width else 8
            for _ in range(count):
                yield " ", 1
        elif ord(char) < 32 or ord(char) == 127:
            yield "^", 1
            yield chr(ord(char) ^ 64), 1
        else:
            yield char, wcwidth(char)


class Layout:
    """Rows of `width` cells, and where the cursor is when it stands before character `cursor`."""

    def __init__(self, before, text, cursor, width, after=""):
        self.width = width
        self.rows = [""]
        self.column = 0
        self.place = None
        self.joins = False
        whole = before + text + after
        for index, char in enumerate(whole):
            if index in (len(before), len(before) + len(text)):
                self.joins = False
            if index == len(before) + cursor:
                self.place = "next"
            self.put(char, wcwidth(whole[index + 1 : index + 2] or "x") == 0)
        if cursor == len(text) and not after:
            self.place = "next"
        self.full = self.column == width
        if self.column == width:
            self.feed()
        self.settle()

    def settle(self):
        if self.place == "next":
            self.place = (len(self.rows) - 1, min(self.column, self.width - 1))

    def feed(self):
        self.rows.append("")
        self.column = 0

    def put(self, char, marked):
        joins, self.joins = self.joins, ord(char) >= 32 and ord(char) != 127 and (self.joins or wcwidth(char) > 0)
        for piece, size in cells(char, self.column % self.width, self.width, joins):
            if piece == "\n":
                self.settle()
                self.feed()
                continue
            room = 1 if marked and len(piece) == 1 and piece == char else 0
            if size and self.column and self.column + size + room > self.width:
                self.feed()
            self.settle()
            self.rows[-1] += piece
            self.column += size


class Model:
    """A screen of `height` rows: what stands above the line, the line, the cursor."""

    def __init__(self, prompt, width, height, words=()):
        self.prompt, self.width, self.height, self.words = prompt, width, height, words
        self.above = []
        self.history = []
        self.cut = ""
        self.fresh()

    def fresh(self):
        """A new line begins."""
        self.text, self.cursor, self.top = "", 0, 0
        self.at = None
        self.kept = ""

    def layout(self):
        return Layout(self.prompt, self.text, self.cursor, self.width, self.hint())

    def hint(self):
        """The rest of the only word that begins like the one at the end of the line."""
        if not self.text or self.cursor < len(self.text):
            return ""
        typed = re.split("[ .=/\"']", self.text)[-1]
        found = [word for word in self.words if word.startswith(typed)]
        return found[0][len(typed) :] if len(found) == 1 else ""

    def window(self, layout):
        shown = min(len(layout.rows), self.height)
        top = min(self.top, len(layout.rows) - shown, layout.place[0])
        if layout.place[0] >= top + shown:
            top = layout.place[0] - shown + 1
        self.top = top
        return layout.rows[top : top + shown], (layout.place[0] - top, layout.place[1])

    def screen(self):
        """The rows that must be seen, and the cursor."""
        layout = self.layout()
        rows, (row, column) = self.window(layout)
        while len(self.above) + len(rows) > self.height:
            self.above.pop(0)
        cursor = (len(self.above) + row, column)
        return [normal(row) for row in self.above + rows], cursor

    def print(self, rows):
        self.above += rows
        while len(self.above) >= self.height:
            self.above.pop(0)

    def end_line(self, suffix=""):
        """The line is finished: everything of it that fits stays."""
        self.cursor = len(self.text)
        layout = Layout(self.prompt, self.text + suffix, len(self.text + suffix), self.width)
        rows, _ = self.window(layout)
        self.screen()
        while len(self.above) + len(rows) > self.height:
            self.above.pop(0)
        if layout.full:
            rows = rows[:-1]
        self.print(rows)

    # Editing

    def insert(self, text):
        self.text = self.text[: self.cursor] + text + self.text[self.cursor :]
        self.cursor += len(text)

    def cut_out(self, first, last, joins):
        """Cuts in a row make one piece; nothing cut leaves what was cut before."""
        piece = self.text[first:last]
        if piece:
            self.cut = piece if not joins else self.cut + piece if first == self.cursor else piece + self.cut
        self.delete(first, last)

    def delete(self, first, last):
        self.text = self.text[:first] + self.text[last:]
        self.cursor = first

    def older(self):
        place = len(self.history) if self.at is None else self.at
        if place == 0:
            return
        if self.at is None:
            self.kept = self.text
        self.at = place - 1
        self.text = self.history[self.at]
        self.cursor = len(self.text)

    def newer(self):
        if self.at is None:
            return
        self.at += 1
        self.text = self.kept if self.at == len(self.history) else self.history[self.at]
        if self.at == len(self.history):
            self.at = None
        self.cursor = len(self.text)


def output_rows(text, width):
    """The rows of a printed line."""
    layout = Layout("", text, len(text), width)
    return layout.rows[:-1] if layout.full and len(layout.rows) > 1 else layout.rows


def normal(text):
    return unicodedata.normalize("NFC", text.rstrip())
