"""Commands, typing, Tab, interruptions and other clients at random, beside an account of their own of what the shell may show.

- A path that is there shows what is there. A list of instances is never older than one that was shown before, and once the
  notices have come and a word was completed, it is the present one.
- A path that is not there is refused or shows nothing, and looking at it changes nothing that is shown of others.
- The place is the one that the last successful move led to, until a login, a logout or a new link leads to the root.

    KEST_SEQUENCES=1000 pytest tests/e2e/test_sequences.py      that many sequences instead of a few
    KEST_SEQUENCE_SEED=17 KEST_SEQUENCES=1 pytest ...           from this seed on
    KEST_SEQUENCE_STEPS=200                                     steps in each

A sequence that fails is repeated with fewer and fewer steps; the shortest that still fails is shown.
"""

import json
import os
import pwd
import random
import time

import pytest

from lib import settings
from lib.terminal import Key
from lib.world import World, document, is_number

COUNT = int(os.environ.get("KEST_SEQUENCES", "6"))
FIRST = int(os.environ.get("KEST_SEQUENCE_SEED", "1"))
STEPS = int(os.environ.get("KEST_SEQUENCE_STEPS", "60"))
SHRINKING = float(os.environ.get("KEST_SEQUENCE_SHRINKING", "60"))  # seconds

PROCESS_USER = pwd.getpwuid(os.getuid()).pw_name

ACTIONS = (
    ["cd"] * 5 + ["ls"] * 8 + ["cat"] * 8 + ["attr"] * 4 + ["pwd"] + ["up"] * 2 + ["back"] * 2 + ["long"] + ["tree"]
    + ["set"] * 3 + ["add"] * 2 + ["delete"] * 2 + ["take"] * 2 + ["order"]
    + ["other_add"] * 3 + ["other_delete"] * 3 + ["other_order"] + ["notices"] * 4
    + ["tab"] * 6 + ["half"] * 6 + ["again"] * 2
    + ["login"] * 2 + ["logout"] + ["cut"] + ["restart"] + ["interrupt"] * 5 + ["interrupt_tab"] * 2 + ["spoil"] * 2
)  # fmt: skip


class Wrong(AssertionError):
    pass


def expect(held, *told):
    if not held:
        raise Wrong("\n".join(map(str, told)))


class Session:
    """A shell on the real daemon, and what must be true of it."""

    def __init__(self, start):
        self.term, self.relay, self.veld, self.things = start()
        self.peer = self.other()
        self.world = World()
        self.user, self.rank = PROCESS_USER, 2
        self.place, self.before = "", ""
        self.versions = {}
        self.floor = {}
        self.doubted = set()
        self.events = 0
        self.trace = []
        self.seen("")
        self.term.wait_prompt(self.prompt)

    def close(self):
        for thing in self.things:
            thing.close()

    def other(self):
        """Another client, that may do everything."""
        peer = self.veld.connect()
        peer.call("Login", User=PROCESS_USER)
        return peer

    @property
    def prompt(self):
        return f"{self.user + '@' if self.user else ''}kest:{self.place}> "

    # What may be relied on

    def node(self, path):
        return self.world.node(path)

    def above(self, path):
        """The path itself and all that it leads through."""
        names = path.split(".") if path else []
        return [".".join(names[:count]) for count in range(1, len(names) + 1)]

    def standing(self, path):
        """What holds for a path: "sure", "closed" (there, but not for this user), "ghost" (may or may not lead on) or "never"."""
        node = self.node(path)
        if node is None:
            return "never"
        chain = [self.node(each) for each in self.above(path)]
        if any(each.read > self.rank for each in chain[:-1]):
            return "never" if all(each.there for each in chain[:-1]) else "ghost"
        if not node.there or any(each in self.doubted for each in self.above(path)):
            return "ghost"
        return "closed" if node.read > self.rank else "sure"

    def seen(self, path):
        """Somebody looked at this path: if it is not there, the shell may remember that until it hears otherwise."""
        for each in self.above(path):
            node = self.node(each)
            if node is not None and not node.there:
                self.doubted.add(each)

    def changed(self):
        """Takes note of what the tables hold now."""
        for path, table in self.world.tables.items():
            known = self.versions.setdefault(path, [])
            if not known or known[-1] != set(table["numbers"]):
                known.append(set(table["numbers"]))
            self.floor.setdefault(path, 0)

    def fresh(self):
        """Whatever is shown from now on is at least as new as this moment."""
        self.changed()
        for path, known in self.versions.items():
            self.floor[path] = len(known) - 1
        self.doubted = {path for path in self.doubted if not self.node(path).there}

    def lists(self, node, shown):
        """Whether a list of names (dots as shown) is right for an object that is there."""
        if node.kind != "table":
            return sorted(shown) == sorted(self.world.names(node))
        self.changed()
        dot = "." if self.node(f"{node.path}.1").is_object else ""
        own = sorted(["max_instance", "order"] if node.scheme.get("ordered") else ["max_instance"])
        known = self.versions[node.path]
        for index in range(self.floor[node.path], len(known)):
            if sorted(shown) == sorted([f"{number}{dot}" for number in known[index]] + own):
                self.floor[node.path] = index
                return True
        return False

    # Typing

    def say(self, *words):
        self.trace.append(" ".join(map(str, words)))

    def pause(self):
        """As long as somebody takes between two words, so that a hint is looked for."""
        self.term.quiet(0.06)

    def write(self, line):
        """Types a line: at once, with pauses at its dots, or key by key."""
        self.term.wait_prompt(self.prompt)
        way = self.random.random()
        if way < 0.5:
            self.term.type(line)
        elif way < 0.93:
            rest = line
            for _ in range(3):
                cut = self.random.randint(0, len(rest))
                dot = rest.find(".", cut)
                cut = dot + 1 if dot >= 0 and self.random.random() < 0.8 else cut
                self.term.type(rest[:cut])
                rest = rest[cut:]
                self.pause()
            self.term.type(rest)
        else:
            for key in line:
                self.term.type(key)
                self.term.quiet(self.random.choice([0.01, 0.03, 0.05]))
        self.term.wait_for(lambda term: term._typed(line))

    def run(self, line, place=None, user=None):
        """Runs a line and returns its rows; the prompt behind it must show where the shell stands then."""
        self.say(line)
        self.write(line)
        if place is not None:
            self.place = place
        if user is not None:
            self.user = user
        return self.term.enter(self.prompt)

    def run_either(self, line, places):
        """Runs a line after which the shell stands at one of these places."""
        self.say(line)
        self.write(line)
        prompts = {f"{self.user + '@' if self.user else ''}kest:{place}> ": place for place in places}
        start = self.term._absolute_row()
        self.term.type(Key.ENTER)
        self.term.wait_for(lambda term: term._absolute_row() > start and any(map(term.at_prompt, prompts)))
        self.place = next(place for prompt, place in prompts.items() if self.term.at_prompt(prompt))
        end = self.term._absolute_row()
        return (self.term.all_lines + [""] * self.term.screen.lines)[start + 1 : end]

    # What is chosen

    def some_path(self, objects=False):
        """A path: mostly of something there, sometimes of something that is not, or never was."""
        path = ""
        while True:
            node = self.node(path)
            if node is None or not node.is_object or path and self.random.random() < 0.18:
                return path
            if node.kind == "table":
                numbers = self.world.tables[path]["numbers"] if path in self.world.tables else []
                highest = self.world.tables[path]["max"] if path in self.world.tables else 1
                choices = [str(number) for number in numbers] * 3 + [str(highest + 1), "99", "max_instance"]
            else:
                choices = [name.rstrip(".") for name in self.world.names(node)]
            if path and self.random.random() < 0.04:
                choices = ["Nothing"]
            name = self.random.choice(choices)
            below = f"{path}.{name}" if path else name
            if below == "DataModelVersion" or objects and (self.node(below) is None or not self.node(below).is_object):
                if path:
                    return path
                continue
            path = below

    def spell(self, path, dot=None):
        """A way to type a path from the present place."""
        ways = [":" + path]
        if self.place == "":
            ways.append(path)
        elif path.startswith(self.place + "."):
            ways += [path[len(self.place) + 1 :]] * 4
        else:
            mine = self.place.split(".")
            common = 0
            while common < len(mine) and path.split(".")[common : common + 1] == mine[common : common + 1]:
                common += 1
            rest = path.split(".")[common:]
            if rest:
                ways.append(".".join(["<" * (len(mine) - common)] + rest))
        text = self.random.choice([way for way in ways if way] or [":" + path])
        node = self.node(path)
        if dot is None:
            dot = node is not None and node.is_object and self.random.random() < 0.3
        return text + ("." if dot and not text.endswith(".") else "")

    def resolves_here(self):
        return not self.place or self.standing(self.place) in ("sure", "closed")

    def aim(self, objects=False, spare=0.1):
        """(argument, path): the place itself now and then."""
        if self.place and self.random.random() < spare:
            return "", self.place
        path = self.some_path(objects)
        argument = self.spell(path)
        if not self.resolves_here() and not argument.startswith(":"):
            argument = ":" + path
        self.seen(path)
        return argument, path

    # The steps

    def cd(self):
        argument, path = self.aim(spare=0)
        self.move(f"cd {argument}", path, f"cd: {argument}: no such node")

    def move(self, line, path, refusal, shown=()):
        standing = self.standing(path)
        start = self.place
        if standing in ("sure", "closed"):
            rows = self.run(line, place=path)
            expect(rows == list(shown), line, "printed", rows)
        elif standing == "never":
            rows = self.run(line)
            expect(rows == [*shown, refusal], line, "printed", rows)
            return
        else:
            rows = self.run_either(line, {self.place, path})
            expect(rows in ([*shown], [*shown, refusal]), line, "printed", rows)
            expect((rows == [*shown, refusal]) == (self.place == start) or path == start, line, "stands at", self.place)
            if self.place == start and rows:
                return
        self.before = start
        self.seen(self.place)

    def back(self):
        self.move("cd -", self.before, "cd: -: no such node", [":" + self.before])

    def up(self):
        count = self.random.randint(1, 3)
        path = ".".join(self.place.split(".")[: -count]) if self.place else ""
        standing = "sure" if not path else self.standing(path)
        if standing in ("sure", "closed"):
            start = self.place
            rows = self.run(f"up {count}", place=path)
            expect(rows == [], "up printed", rows)
            self.before = start
        else:
            self.move(f"up {count}", path, "up: " + "<" * count + ": no such node")

    def pwd(self):
        rows = self.run("pwd")
        expect(rows == [":" + self.place], "pwd printed", rows)

    def ls(self):
        argument, path = self.aim()
        self.check_ls(argument, path)

    def check_ls(self, argument, path):
        line = f"ls {argument}".rstrip()
        rows = self.run(line)
        standing = self.standing(path) if path else "sure"
        shown = " ".join(rows).split()
        refusal = [f"ls: {argument}: no such node"]
        if standing == "never":
            expect(rows == refusal or not argument, line, "printed", rows)
            return
        if standing == "ghost":
            return
        node = self.node(path)
        if not node.is_object:
            expect(shown == [argument or self.place] or (not argument and node.kind != "object"), line, "printed", rows)
            return
        if standing == "closed":
            expect(len(rows) == 1 and rows[0].startswith("[9001] "), line, "printed", rows)
            return
        prefix = argument.removesuffix(".") + "." if argument else ""
        expect(all(name.startswith(prefix) for name in shown), line, "printed", rows)
        expect(self.lists(node, [name[len(prefix) :] for name in shown]), line, "printed", rows, "but there is",
               self.world.names(node), self.versions.get(path), "from", self.floor.get(path))  # fmt: skip

    def long(self):
        argument, path = self.aim(objects=True)
        rows = self.run(f"ls -l {argument}".rstrip())
        if self.standing(path) == "sure" and self.node(path).is_object:
            names = [row.split()[-1] for row in rows[1:]]
            expect(sorted(names) == sorted(self.world.names(self.node(path))), "ls -l", argument, "printed", rows)

    def tree(self):
        argument, _ = self.aim(objects=True)
        self.run(self.random.choice(["tree", "catree"]) + f" {argument}".rstrip())

    def cat(self):
        argument, path = self.aim()
        if not argument:
            argument = ":" + path
        line = f"cat {argument}"
        self.check_cat(line, argument, path, self.run(line))

    def check_cat(self, line, argument, path, rows, rank=None):
        standing = self.standing(path)
        refusal = f"cat: {argument}: no such node."
        if standing == "never":
            expect(rows == [refusal], line, "printed", rows)
        elif standing == "ghost" and self.node(path).there:
            expect(rows == [refusal] or rows[:1] == [""] or rows == self.values(path) or rows[0].startswith("["), line, "printed", rows)
        elif standing == "ghost" or standing == "closed" or self.node(path).kind == "method":
            expect(rows == [refusal] or rows and rows[0].startswith("["), line, "printed", rows)
        else:
            expect(rows == self.values(path), line, "printed", rows, "but the values are", self.values(path))

    def values(self, path):
        node = self.node(path)
        found = self.world.listing(node, self.rank)
        cut = len(path) + 1 if node.is_object else path.rfind(".") + 1
        width = max((len(name) - cut for name, _ in found), default=0)
        return [f"{name[cut:]:{width}} = {json.dumps(value)}" for name, value in found]

    def attr(self):
        argument, path = self.aim()
        line = f"attr {argument}".rstrip()
        rows = self.run(line)
        standing = self.standing(path)
        if standing == "never" and argument:
            expect(rows == [f"attr: {argument}: no such node"], line, "printed", rows)
        if standing not in ("sure", "closed"):
            return
        node = self.node(path)
        kind = "object" if node.is_object else node.kind
        access = "Denied" if standing == "closed" else node.scheme.get("access", "readOnly")
        wanted = [f"Canonical path:     :{path}", f"Type:               {kind}", f"Access:             {access}"]
        expect(rows[:3] == wanted, line, "printed", rows)

    def set(self):
        argument, path = self.aim(spare=0)
        argument = argument.rstrip(".")
        node = self.node(path)
        kind = node.kind if node else "string"
        value = {"boolean": self.random.choice([True, False]), "int": self.random.randint(-9, 9),
                 "unsignedInt": self.random.randint(0, 99)}.get(kind, f"v{self.random.randint(0, 99)}")  # fmt: skip
        text = json.dumps(value) if not isinstance(value, str) else value
        line = f"set {argument}={text}"
        rows = self.run(line)
        expect(rows[:1] == [f"key = {argument}, value = {text}"], line, "printed", rows)
        standing = self.standing(path)
        if standing == "never":
            expect(rows[1:] == [f"set: {argument}: no such node.", "set: no argument."], line, "printed", rows)
        elif standing == "sure" and (node.is_object or kind == "method"):
            told = f"set: {argument}: is an object or doesn't have default value."
            expect(rows[1:] == [told, "set: no argument."], line, "printed", rows)
        elif node.there and rows[1:] == ["Status: OK"] or standing == "sure":
            may = node.write <= self.rank and node.scheme.get("access") == "readWrite"
            expect((rows[1:] == ["Status: OK"]) == may, line, "printed", rows)
            if may:
                self.world.values[path] = value
            else:
                expect(rows[1].startswith("["), line, "printed", rows)
        else:
            expect("Status: OK" not in rows, line, "printed", rows)

    def may_change(self, path):
        """Whether this user may add instances to a table, or delete an instance."""
        node = self.node(path)
        return node.there and node.write <= self.rank and node.scheme.get("access") == "readWrite"

    def some_table(self):
        tables = self.world.table_paths()
        path = self.random.choice(tables)
        if self.random.random() < 0.1:
            path = self.some_path(objects=True)
        return path

    def add_line(self, word):
        path = self.some_table()
        argument = self.spell(path) if self.resolves_here() else ":" + path
        self.seen(path)
        node = self.node(path)
        place = None
        if node is not None and node.scheme.get("ordered") and self.random.random() < 0.5:
            place = self.random.randint(1, 4)
        return path, node, place, f"{word} {argument}" + (f" {place}" if place else "")

    def add(self, enter=False):
        path, node, place, line = self.add_line("take" if enter else "add")
        if self.standing(path) == "sure" and node.kind == "table" and self.may_change(path):
            start = self.place
            number = self.world.tables[path]["max"] + 1
            rows = self.run(line, place=f"{path}.{number}" if enter else None)
            expect(rows == [f"Instance number: {number}", "Status: OK"], line, "printed", rows)
            self.world.add(path, place)
            if enter:
                self.before = start
            self.notice()
            return
        start = self.place
        count = len(self.relay.requests)
        rows = self.run_either(line, {self.place} | ({f"{path}.{self.next_number(path)}"} if enter else set()))
        if "Status: OK" in rows:
            expect(self.standing(path) == "ghost" and node.kind == "table" and self.may_change(path), line, "printed", rows)
            self.world.add(path, place)
            if self.place != start:
                self.before = start
            self.notice()
        else:
            expect(self.place == start, line, "led to", self.place)
            asked = [request["method"] for request in self.relay.requests[count:]]
            expect(rows[-1:] and (rows[-1].startswith("[") or rows[-1].endswith(": no such node.")), line, rows, asked)

    def next_number(self, path):
        return self.world.tables[path]["max"] + 1 if path in self.world.tables else 1

    def take(self):
        self.add(enter=True)

    def some_instance(self):
        instances = self.world.instance_paths()
        path = self.random.choice(instances)
        if self.random.random() < 0.15:
            path = path.rpartition(".")[0] + ".99"
        return path

    def delete(self):
        path = self.some_instance()
        argument = self.spell(path) if self.resolves_here() else ":" + path
        self.seen(path)
        self.change(f"del {argument}", path, lambda: self.world.delete(path))

    def order(self):
        path = self.some_instance()
        place = self.random.randint(1, 4)
        argument = self.spell(path) if self.resolves_here() else ":" + path
        self.seen(path)
        self.change(f"order {argument} {place}", path, lambda: self.world.order(path, place))

    def change(self, line, path, effect):
        standing = self.standing(path)
        rows = self.run(line)
        if rows == ["Status: OK"]:
            expect(self.node(path).there and standing in ("sure", "ghost"), line, "printed", rows)
            effect()
            self.notice()
            return
        may = standing == "sure" and self.node(path).write <= self.rank
        if may and line.startswith("order"):
            may = self.node(path.rpartition(".")[0]).scheme.get("ordered")
        elif may:
            may = self.may_change(path) or not self.node(path).is_object
        expect(not may, line, "printed", rows)
        expect(rows and (rows[0].startswith("[") or rows[-1].endswith(": no such node.")), line, "printed", rows)

    # Others

    def other_add(self):
        path = self.random.choice(self.world.table_paths())
        if path.startswith("Device.Users"):
            return
        self.say("(another adds to", path + ")")
        number = self.peer.call("AddObject", ObjectName=path + ".")["InstanceNumber"]
        expect(number == self.world.add(path), "the daemon numbers otherwise")
        self.notice()

    def other_delete(self):
        path = self.random.choice(self.world.instance_paths())
        if path.startswith("Device.Users"):
            return
        self.say("(another deletes", path + ")")
        self.peer.call("DeleteObject", ObjectName=path + ".")
        self.world.delete(path)
        self.notice()

    def other_order(self):
        path = self.random.choice(self.world.instance_paths())
        if not self.node(path.rpartition(".")[0]).scheme.get("ordered"):
            return
        place = self.random.randint(1, 3)
        self.say("(another moves", path, "to", str(place) + ")")
        self.peer.call("ChangeOrder", ObjectName=path + ("." if self.node(path).is_object else ""), Order=place)
        self.world.order(path, place)

    def notice(self):
        """Waits until the shell has heard of what was done: an event that was sent after it is shown."""
        self.changed()
        self.events += 1
        shown = f"sequence-{self.events}"
        self.peer.send_event(12, shown)
        self.term.wait_for(shown)
        self.term.wait_prompt(self.prompt)

    def notices(self):
        """The notices have come and a word is completed: what is shown is the present."""
        self.notice()
        self.say("Tab")
        self.term.type("cat :Device.Inf" + Key.TAB + "Z")
        self.term.wait_for(lambda term: term._typed("cat :Device.Info.Z"))
        self.drop()
        self.fresh()

    def drop(self):
        """Gives the typed line up. A Ctrl-C may be taken by a hint that is looked for."""
        self.term.type(Key.CTRL_U if self.random.random() < 0.5 else Key.CTRL_C + Key.CTRL_U)
        self.term.wait_prompt(self.prompt)

    # Completion

    def tab(self):
        path = self.some_path(objects=True)
        standing = self.standing(path)
        argument = self.spell(path, dot=True) if self.resolves_here() else f":{path}."
        self.seen(path)
        line = f"cat {argument}"
        self.say(line, "Tab")
        self.write(line)
        self.term.type(Key.TAB + "Z")
        shown = self.term.wait_for(lambda term: self.typed_line(term))
        if standing == "sure":
            node = self.node(path)
            if node.kind == "table":
                self.changed()
                dot = "." if self.node(f"{path}.1").is_object else ""
                own = ["max_instance", "order"] if node.scheme.get("ordered") else ["max_instance"]
                known = self.versions[path][self.floor[path] :]
                lists = [[f"{number}{dot}" for number in numbers] + own for numbers in known]
            else:
                lists = [self.world.names(node)]
            wanted = {line + os.path.commonprefix(names) for names in lists}
            expect(shown in wanted, line, "Tab became", shown, "not", wanted)
        elif standing in ("closed", "never"):
            expect(shown == line, line, "Tab became", shown)
        self.drop()

    def typed_line(self, term):
        """The line as it is, once the key "Z" behind it has come."""
        row, column = term.cursor
        text = term.line(row)[:column]
        return text.startswith(self.prompt) and text.endswith("Z") and text[len(self.prompt) : -1]

    def half(self):
        """Types half a line, looks at its hint, and gives it up."""
        path = self.some_path()
        argument = self.spell(path)
        line = f"{self.random.choice(['cat', 'ls', 'cd', 'set', 'attr'])} {argument}"
        line = line[: self.random.randint(6, len(line) + 1)]
        if self.random.random() < 0.5:
            line = line.rstrip(".") + "."
        self.seen(path)
        self.say(line, "and gives it up")
        self.write(line)
        self.pause()
        self.drop()

    def again(self):
        """Recalls the line before and runs it: whatever it does, a look at something changes nothing."""
        self.say("ls :Device.Host, recalled")
        self.run("ls :Device.Host.")
        self.term.type(Key.UP)
        self.term.wait_for(lambda term: term._typed("ls :Device.Host."))
        if self.random.random() < 0.5:
            self.pause()
        rows = self.term.enter(self.prompt)
        shown = [name.removeprefix(":Device.Host.") for name in " ".join(rows).split()]
        expect(self.lists(self.node("Device.Host"), shown), "recalled, it printed", rows)

    # Logins and links

    def login(self):
        name, password, rank = self.random.choice([("user", "user", 1), ("user", "user", 1), (PROCESS_USER, "", 2)])
        if password:
            rows = self.run(f"login {name} -p {password}", place="", user=name)
            expect(rows == [], "login printed", rows)
        else:
            self.say("login", name)
            self.write(f"login {name}")
            self.term.type(Key.ENTER)
            self.term.wait_for("password for")
            self.place, self.user = "", name
            self.term.enter(self.prompt)
        self.rank = rank
        self.fresh_cache()

    def logout(self):
        self.run("logout", place="", user="")
        self.rank = 0
        self.fresh_cache()

    def fresh_cache(self):
        self.doubted.clear()
        self.fresh()

    def cut(self):
        """The link goes; the next command makes a new one, on which nobody is logged in."""
        self.say("(the link is cut)")
        self.relay.cut()
        value = self.world.values["Device.Name"]
        rows = self.run("cat :Device.Name", place="", user="")
        expect(rows[-1:] == [f"Name = {json.dumps(value)}"], "after the reconnect", rows)
        self.rank = 0
        self.fresh_cache()

    def restart(self):
        """The daemon ends, of itself or not, and begins anew as it was delivered; perhaps only once somebody waits for it."""
        line = "cat :Device.Name"
        awaited = self.random.random() < 0.5
        self.say("(the daemon restarts", "behind)" if awaited else "before)", line)
        self.relay.leave()
        if self.random.random() < 0.5:
            self.veld.stop()
        else:
            self.veld.kill()
        if not awaited:
            self.come_back()
        self.write(line)
        self.place, self.user, self.rank = "", "", 0
        if awaited:
            row = self.term._absolute_row()
            self.term.type(Key.ENTER)
            self.term.wait_for(lambda term: term._absolute_row() > row)
            self.come_back()
            self.term.wait_prompt(self.prompt)
        else:
            self.term.enter(self.prompt)
        self.world = World()
        rows = self.run(line)
        expect(rows == ['Name = "box"'], "after the restart", rows)
        self.fresh_cache()

    def come_back(self):
        self.veld.start()
        self.relay.come_back()
        self.peer = self.other()

    def interrupt(self):
        """A command is left by Ctrl-C while it waits for its first, second or third answer."""
        word = self.random.choice(["cat", "ls", "cd", "attr", "tree", "set", "add", "del", "ls -l", "take"])
        path = self.some_path()
        argument = self.spell(path) if self.resolves_here() else ":" + path
        effect = None
        if word in ("add", "take"):
            path, node, _, _ = self.add_line(word)
            argument = ":" + path
            if node is not None and node.kind == "table" and self.may_change(path):
                effect = lambda: self.world.add(path)
        elif word == "del":
            path = self.some_instance()
            argument = ":" + path
            if self.node(path).there:
                effect = lambda: self.world.delete(path)
        elif word == "set":
            path, argument = "Device.Name", ":Device.Name=inter"
            effect = lambda: self.world.values.__setitem__(path, "inter")
        self.seen(path)
        line = f"{word} {argument}"
        after = self.random.choice([0, 0, 0, 1, 2])
        self.write(line)
        self.say(line, f"left by Ctrl-C at answer {after + 1}")
        count = len(self.relay.requests)
        self.relay.hold(after)
        start, place = self.term._absolute_row(), self.place
        self.term.type(Key.ENTER)
        moved = [f"{self.user + '@' if self.user else ''}kest:{path}> ", f"{self.user + '@' if self.user else ''}kest:{path}.{self.next_number(path)}> "]

        def ended():
            self.term.read(0.002)
            return self.term._absolute_row() > start and any(map(self.term.at_prompt, [self.prompt, *moved]))

        held = self.relay.wait_held(ended)
        if held:
            self.term.type(Key.CTRL_C)
            self.term.wait_for(lambda term: term._absolute_row() > start and term.at_prompt(self.prompt))
        self.relay.release()
        asked = [request["method"] for request in self.relay.requests[count:]]
        if effect and {"AddObject", "DeleteObject", "SetParameterValues"} & set(asked):
            # What was asked for is done as long as the daemon allows it; ask it rather than guess.
            self.settle(path, word, effect)
        if not held and word in ("cd", "take"):
            row, column = self.term.cursor
            shown = self.term.line(row)[:column]
            self.place = shown[shown.index("kest:") + 5 :].rstrip("> ")
            if self.place != place or (word == "cd" and self.standing(path) in ("sure", "closed")):
                self.before = place
        self.term.wait_prompt(self.prompt)
        if word in ("add", "take", "del"):
            self.notice()

    def settle(self, path, word, effect):
        if word == "set":
            if self.peer.call("GetParameterValues", ParameterNames=[path])["ParameterList"][0]["Value"] == "inter":
                effect()
        elif word == "del":
            names = self.peer.call("GetParameterNames", ParameterPath=path.rpartition(".")[0] + ".", NextLevel=True)
            if path not in [entry["Name"].rstrip(".") for entry in names["ParameterList"]]:
                effect()
        else:
            entry = self.peer.call("GetParameterValues", ParameterNames=[path + ".max_instance"])["ParameterList"][0]
            if entry["Value"] != self.world.tables[path]["max"]:
                effect()

    def interrupt_tab(self):
        """Tab waits for the daemon and is left by Ctrl-C."""
        path = self.some_path(objects=True)
        line = f"cat :{path}."
        self.seen(path)
        self.write(line)
        self.say(line, "Tab, left by Ctrl-C")
        self.relay.hold(self.random.choice([0, 0, 1]))
        self.term.type(Key.TAB)
        moment = time.monotonic() + 0.05

        def idle():
            self.term.read(0.002)
            return time.monotonic() > moment

        self.relay.wait_held(idle)
        self.term.type(Key.CTRL_C)
        self.relay.release()
        self.term.quiet(0.02)
        # Those that fall into one wait are one; whoever sees the line still there presses it again.
        for turn in range(200):
            if turn % 50 == 0:
                self.term.type(Key.CTRL_C)
            self.term.read(0.01)
            if self.term.at_prompt(self.prompt):
                break
        self.term.wait_prompt(self.prompt)

    def spoil(self):
        """One fault of the daemon is shown or not, and is forgotten by the next command."""
        path = self.some_path(objects=True)
        if self.standing(path) != "sure":
            return
        self.say("(the next attributes are refused with 9002)")
        self.relay.spoil(9002)
        self.run(f"ls :{path}.")
        self.relay.spare()
        self.check_ls(f":{path}.", path)

    def step(self, name, seed):
        self.random = random.Random(seed)
        getattr(self, name)()


@pytest.fixture
def start(veld_start, terminal, relay_start, tmp_path, things):
    model = tmp_path / "model.json"
    model.write_text(document())

    def begin():
        veld = veld_start(model=model)
        relay = relay_start(veld)
        term = terminal(to=relay, columns=250, rows=30)
        mine = [term, relay, veld]
        for thing in mine:
            things.remove(thing)
        return term, relay, veld, mine

    return begin


def failure(start, steps):
    """(what failed, what had been done) for the first step that fails, or None."""
    session = Session(start)
    try:
        for number, (name, seed) in enumerate(steps):
            try:
                session.step(name, seed)
            except AssertionError as problem:
                return number, problem, session.trace
        return None
    finally:
        session.close()


def shortest(start, steps, found):
    """Leaves steps out as long as what is left still fails."""
    until = time.monotonic() + SHRINKING
    steps = steps[: found[0] + 1]
    size = max(1, len(steps) // 2)
    while size:
        at = 0
        while at < len(steps) and time.monotonic() < until:
            fewer = steps[:at] + steps[at + size :]
            again = failure(start, fewer)
            if again and isinstance(again[1], Wrong) == isinstance(found[1], Wrong):
                steps, found = fewer[: again[0] + 1], again
            else:
                at += size
        size //= 2
    return found


def sequences():
    """The seeds. The first goes through the sanitizers, too."""
    seeds = range(FIRST, FIRST + COUNT)
    return [pytest.param(seed, marks=pytest.mark.threads if seed == FIRST else pytest.mark.load) for seed in seeds]


@pytest.mark.deadline(60 + SHRINKING + STEPS)
@pytest.mark.parametrize("seed", sequences())
def test_whatever_is_done_in_whatever_order(start, seed):
    chance = random.Random(seed)
    steps = [(chance.choice(ACTIONS), chance.random()) for _ in range(STEPS)]
    found = failure(start, steps)
    if found:
        _, problem, trace = shortest(start, steps, found)
        pytest.fail(f"seed {seed}:\n" + "\n".join(trace) + f"\n\n{problem}", pytrace=False)
