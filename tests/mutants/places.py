"""The mutants of a source file, from its syntax tree, and the file with many of them in it, of which one is chosen at run time.

A mutant swaps an operator, changes a constant or leaves out a call whose result nobody takes. Bounds of arrays are left alone: room
for one element more is the same program.
"""

import hashlib
import re
from dataclasses import dataclass

from clang import cindex
from clang.cindex import CursorKind

SWAPS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*",
         "+=": "-=", "-=": "+=", "&": "|", "|": "&", "<<": ">>", ">>": "<<", "|=": "&=", "&=": "|="}  # fmt: skip
ALONE = {"++": "--", "--": "++", "!": "!!"}  # before or behind one operand
NUMBER = re.compile(r"(-?)(0[xX][\da-fA-F]+|\d+)([uUlLzZ]*)")
DECIMAL = re.compile(r"0|[1-9]\d*")
# What holds code beside the bodies of functions: initial values.
HOLDS_CODE = (CursorKind.COMPOUND_STMT, CursorKind.VAR_DECL, CursorKind.FIELD_DECL, CursorKind.CONSTRUCTOR)
FUNCTIONS = (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR, CursorKind.FUNCTION_TEMPLATE)
# A call that stands in one of these, with a semicolon behind it, is a statement.
STATEMENTS = (CursorKind.COMPOUND_STMT, CursorKind.IF_STMT, CursorKind.FOR_STMT, CursorKind.CXX_FOR_RANGE_STMT, CursorKind.WHILE_STMT,
              CursorKind.CASE_STMT, CursorKind.DEFAULT_STMT)  # fmt: skip


@dataclass(frozen=True)
class Mutant:
    path: str
    line: int
    row: str  # that line, without the blanks around it
    what: str  # "< → <="
    nth: int  # of those with the same row and change
    start: int  # what it changes, as offsets in bytes: an operator, a constant, a call
    end: int
    new: str
    around: tuple  # the expression to which an operator belongs
    function: int  # offset behind the brace that opens the function around it; -1: none, or one for the compiler to evaluate

    def __str__(self):
        return f"{self.path}:{self.line}: {self.what}: {self.row}"

    @property
    def name(self):
        """What stays when other lines change."""
        return f"{self.path}: {self.row}: {self.what}" + (f" ({self.nth + 1})" if self.nth else "")

    def rank(self, seed):
        """Where it stands in the draw of that seed, which hangs on nothing but the mutant."""
        return hashlib.sha256(f"{seed}: {self.name}".encode()).digest()


def mutants(source, path, options):
    """Every mutant of the file `path` in the folder `source`, and the offsets behind the opening braces of its functions."""
    data = (source / path).read_bytes()
    unit = cindex.Index.create().parse(str(source / path), options)
    rows = data.decode().splitlines()
    found, functions = {}, []

    def add(start, end, new, what, around, function):
        found.setdefault(start, (start, end, new, what, around, function))

    def operator(cursor, start, end, swaps, function):
        """The operator that stands alone between two places of the text; what a macro made stands elsewhere."""
        text = data[start:end].decode(errors="replace")
        old = text.strip()
        if old in swaps:
            at = start + len(text[: text.index(old)].encode())
            add(at, at + len(old), swaps[old], f"{old} → {swaps[old]}", extent(cursor), function)

    def visit(cursor, parent, in_code, function):
        kind = cursor.kind
        children = list(cursor.get_children())
        start, end = extent(cursor)
        if kind in FUNCTIONS and children and children[-1].kind == CursorKind.COMPOUND_STMT:
            body = extent(children[-1])[0]
            fixed = b"constexpr" in data[start:body] or b"consteval" in data[start:body]
            function = -1 if fixed or data[body : body + 1] != b"{" else body + 1
            if function != -1:
                functions.append(function)
        if kind == CursorKind.STATIC_ASSERT:
            return
        in_code = in_code or kind in HOLDS_CODE
        if in_code:
            if kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
                operator(cursor, extent(children[0])[1], extent(children[1])[0], SWAPS, function)
            elif kind == CursorKind.CALL_EXPR and cursor.spelling in ("operator==", "operator!=") and len(children) == 3:
                operator(cursor, extent(children[0])[1], extent(children[2])[0], SWAPS, function)
            elif kind == CursorKind.UNARY_OPERATOR and children:
                first, last = extent(children[0])
                operator(cursor, *((start, first) if first > start else (last, end)), ALONE, function)
                if children[0].kind == CursorKind.INTEGER_LITERAL:
                    constant(start, end, parent, function)
            elif kind == CursorKind.INTEGER_LITERAL and parent.kind != CursorKind.UNARY_OPERATOR:
                constant(start, end, parent, function)
            elif kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
                old, other = ("true", "false") if data[start : start + 4] == b"true" else ("false", "true")
                if data[start:end] == old.encode():
                    add(start, end, other, f"{old} → {other}", (start, end), function)
        if kind in STATEMENTS:
            for child in children:
                call(child, function)
        for child in children:
            visit(child, cursor, in_code, function)

    def constant(start, end, parent, function):
        old = data[start:end].decode(errors="replace")
        bound = parent.kind in (CursorKind.VAR_DECL, CursorKind.FIELD_DECL) and data[end:].lstrip()[:1] == b"]"
        if (number := NUMBER.fullmatch(old)) and not bound:
            sign, digits, suffix = number.groups()
            new = f"{int(sign + digits) + 1}{suffix}" if DECIMAL.fullmatch(digits) else f"({old} + 1)"
            add(start, end, new, f"{old} → {new}", (start, end), function)

    def call(cursor, function):
        while cursor.kind == CursorKind.UNEXPOSED_EXPR and len(inner := list(cursor.get_children())) == 1:
            cursor = inner[0]
        start, end = extent(cursor)
        if cursor.kind == CursorKind.CALL_EXPR and data[end:].lstrip()[:1] == b";":
            found[start, end] = (start, end, "(void)0", f"without the call of {cursor.spelling}", (start, end), function)

    for cursor in unit.cursor.get_children():
        if cursor.location.file and cursor.location.file.name == str(source / path):
            visit(cursor, unit.cursor, False, -1)
    result, seen = [], {}
    for start, end, new, what, around, function in sorted(found.values(), key=lambda place: place[:2]):
        line = data.count(b"\n", 0, start) + 1
        row = rows[line - 1].strip()
        nth = seen[row, what] = seen.get((row, what), -1) + 1
        result.append(Mutant(path, line, row, what, nth, start, end, new, around, function))
    return result, functions


def extent(cursor):
    return cursor.extent.start.offset, cursor.extent.end.offset


def alone(data, mutant):
    """The text of a file with one mutant in the place of what it changes."""
    return data[: mutant.start] + mutant.new.encode() + data[mutant.end :]


def together(data, chosen, probes=()):
    """The text of a file with all of `chosen`, pairs of a number and a mutant, each done when its number is chosen at run time.

    `probes` are pairs of a number and an offset: what is run there counts as reaching that number.
    """
    nodes = [(*mutant.around, number, mutant) for number, mutant in chosen]
    nodes += [(offset, offset, number, None) for number, offset in probes]
    nodes.sort(key=lambda node: (node[0], -node[1]))

    def render(start, end, nodes):
        """The text from `start` to `end` with the nodes in it, the outer ones of which come before their inner ones."""
        text = b""
        while nodes:
            first, last, number, mutant = nodes[0]
            count = 1
            while count < len(nodes) and nodes[count][0] < last:
                count += 1
            text += data[start:first] + choice(first, last, number, mutant, nodes[1:count])
            start, nodes = last, nodes[count:]
        return text + data[start:end]

    def choice(first, last, number, mutant, inner):
        if mutant is None:
            return f" kest_mutant({number});".encode()
        old = data[mutant.start : mutant.end]
        if mutant.new == "(void)0":
            return b"(kest_mutant(%d) ? (void)0 : (void)(%s))" % (number, render(first, last, inner))
        left = render(first, mutant.start, [node for node in inner if node[1] <= mutant.start])
        right = render(mutant.end, last, [node for node in inner if node[0] >= mutant.end])
        left, right = (b"(" + side + b")" if side.strip() else b"" for side in (left, right))
        ways = tuple(left + b" " + operator + b" " + right for operator in (mutant.new.encode(), old))
        return b"(kest_mutant(%d) ? %s : %s)" % (number, *ways)

    return render(0, len(data), nodes)
