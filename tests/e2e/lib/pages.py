"""The examples of the documents: sessions of a shell, as they are printed.

In a manual page they stand between .EX and .EE, in the other documents in blocks of the kind ```console. A line that begins
with "$ " is a command, those with "> " behind it belong to it, the others are what it prints.
"""

import re
import shlex

from . import settings

DOCS = settings.SOURCE / "docs"


def manual_text(line):
    """A line of an example as the manual shows it."""
    for escape, text in ((r"\-", "-"), (r"\(aq", "'"), (r"\(dq", '"'), (r"\(ti", "~"), (r"\(ha", "^"), (r"\&", ""), (r"\e", "\\")):
        line = line.replace(escape, text)
    return line


def blocks(path):
    """The examples of a document, as lists of lines."""
    text = path.read_text()
    if path.suffix == ".md":
        return [block.splitlines() for block in re.findall(r"^```console\n(.*?)^```$", text, re.M | re.S)]
    found = re.findall(r"^\.EX\n(.*?)^\.EE$", text, re.M | re.S)
    return [[manual_text(line) for line in block.splitlines()] for block in found]


def sessions(path):
    """The examples as (command, printed lines) pairs."""
    steps = []
    for block in blocks(path):
        assert block and block[0].startswith("$ "), f"{path.name}: an example that begins with no command: {block[:1]}"
        for line in block:
            if line.startswith("$ "):
                steps.append((line[2:], []))
            elif line.startswith("> ") and not steps[-1][1]:
                steps[-1] = (steps[-1][0] + "\n" + line[2:], [])
            else:
                steps[-1][1].append(line)
    return steps


def documents():
    """Every document that has examples."""
    pages = [*DOCS.glob("*.[18]"), *DOCS.glob("*.md"), settings.SOURCE / "README.md", settings.SOURCE / "CONTRIBUTING.md"]
    return sorted(page for page in pages if blocks(page))


MARK = "\x01"


def shell_script(steps):
    """A script that runs the commands one behind the other, each behind a line with the mark."""
    lines = ["trap 'kill -KILL $(jobs -p) 2>/dev/null' EXIT"]
    for command, _ in steps:
        lines += [f"__status=$?; echo {shlex.quote(MARK)}; (exit $__status)", command]
    return "\n".join(lines) + "\n"


def shown_files(steps):
    """What `cat FILE` is said to show, where no command before it speaks of the file: name → content."""
    files = {}
    before = ""
    for command, printed in steps:
        words = command.split()
        if len(words) == 2 and words[0] == "cat" and words[1] not in before:
            files[words[1]] = "".join(line + "\n" for line in printed)
        before += command + "\n"
    return files


def comparable(text):
    """Without what is another one each time: what counts by itself, and where a temporary file is."""
    text = re.sub(r"(Uptime *= |\bup )\d+", r"\1N", text)
    return [line.rstrip() for line in text.rstrip("\n").split("\n")]
