"""A device that a test changes beside the real one: what is there, in which order, and who may read and write it."""

import json

# "user"
PASSWORD = "$6$Zk4mWd81sQfYe0Ru$e6hJfXw/f6.HlK3VWuI4g9i57Rh13m08uXd/kD5eYVtHlZriZjLeYLspWmaKv/3o/N3bxX/mBsqXnm/90T8FQ/"

DOCUMENT = {
    "format": 1,
    "root": {
        "Device": {"children": {
            "Name": {"type": "string", "access": "readWrite", "default": "box"},
            "Level": {"type": "unsignedInt", "access": "readWrite", "default": 5},
            "Enable": {"type": "boolean", "access": "readWrite", "default": True},
            "Info": {"children": {
                "Serial": {"type": "string", "default": "S1"},
                "Up": {"children": {"Time": {"type": "int", "default": 7}}}}},
            "Host": {"multi": True, "access": "readWrite", "template": {"access": "readWrite", "children": {
                "Alias": {"type": "string", "access": "readWrite", "default": "none"},
                "Port": {"type": "unsignedInt", "access": "readWrite", "default": 80},
                "Stats": {"children": {
                    "Sent": {"type": "int", "default": 0},
                    "Deep": {"children": {"Mark": {"type": "string", "access": "readWrite", "default": "m"}}}}},
                "Address": {"multi": True, "access": "readWrite", "template": {"access": "readWrite", "children": {
                    "IP": {"type": "string", "access": "readWrite", "default": "0.0.0.0"},
                    "Use": {"multi": True, "ordered": True, "access": "readWrite", "template": {"access": "readWrite",
                        "children": {"Tag": {"type": "string", "access": "readWrite", "default": "t"}}}}}}}}},
                "instances": {"1": {"Alias": "one"}, "2": {"Alias": "two", "Port": 8080}}},
            "Rule": {"multi": True, "ordered": True, "access": "readWrite", "template": {"access": "readWrite", "children": {
                "Text": {"type": "string", "access": "readWrite", "default": "r"}}},
                "instances": {"1": {}, "2": {}, "3": {}}, "order": [3, 1, 2]},
            "Search": {"multi": True, "ordered": True, "access": "readWrite",
                "template": {"type": "string", "access": "readWrite", "default": "lan"},
                "instances": {"1": "lan", "2": "home"}, "order": [2, 1]},
            "Echo": {"type": "method", "input": {"Text": {"type": "string", "default": "hi"}}},
            "Admin": {"read": "admin", "write": "admin", "children": {
                "Secret": {"type": "string", "access": "readWrite", "default": "x"},
                "Key": {"multi": True, "access": "readWrite", "template": {"access": "readWrite", "children": {
                    "Text": {"type": "string", "access": "readWrite", "default": "k"}}}, "instances": {"1": {}, "2": {}}}}},
            "Members": {"read": "user", "children": {
                "Count": {"type": "int", "access": "readWrite", "default": 3},
                "Box": {"children": {"Size": {"type": "int", "default": 4}}}}},
            "Users": {"read": "admin", "write": "admin", "children": {"User": {"multi": True, "template": {"children": {
                "Enable": {"type": "boolean", "default": False},
                "Username": {"type": "string", "default": ""},
                "Password": {"type": "string", "default": "", "secret": True}}},
                "instances": {"1": {"Enable": True, "Username": "user", "Password": PASSWORD}}}}}}},
        "DataModelVersion": {"type": "string", "default": "1.0"},
    },
}  # fmt: skip

OWN = ("max_instance", "order")
RANKS = {"public": 0, "user": 1, "admin": 2}


def is_number(name):
    return name.isdigit() and not name.startswith("0") and int(name) < 2**32


class Node:
    """A node that is there, or might be: its scheme, and whether all the numbers on the way to it are given."""

    def __init__(self, path, scheme, there, read, write, kind):
        self.path, self.scheme, self.there, self.read, self.write, self.kind = path, scheme, there, read, write, kind

    @property
    def is_object(self):
        return self.kind in ("object", "table")


class World:
    def __init__(self):
        self.values = {}
        self.tables = {}
        self.children = DOCUMENT["root"]
        for name, scheme in self.children.items():
            self._build(name, scheme)

    def _build(self, path, scheme, overlay=None):
        if scheme.get("multi"):
            self.tables[path] = table = {"numbers": [], "max": 0}
            given = scheme.get("instances", {})
            for number in scheme.get("order") or sorted(map(int, given)):
                self._instance(path, scheme, number, given[str(number)])
                table["numbers"].append(number)
                table["max"] = max(table["max"], number)
        elif scheme.get("type", "object") == "object":
            for name, child in scheme["children"].items():
                self._build(f"{path}.{name}", child, (overlay or {}).get(name))
        elif scheme["type"] != "method":
            self.values[path] = scheme["default"] if overlay is None else overlay

    def _instance(self, path, scheme, number, overlay=None):
        self._build(f"{path}.{number}", scheme["template"], overlay)

    def node(self, path):
        """The node that `path` (without dots at its ends) names, whether it is there or not; None when it never can be."""
        scheme, there, read, write, kind = {"children": self.children}, True, 0, 1, "object"
        done = ""
        for name in path.split(".") if path else []:
            inside = done
            done = f"{done}.{name}" if done else name
            if kind == "table":
                if is_number(name):
                    there = there and int(name) in self.tables.get(inside, {"numbers": []})["numbers"]
                    scheme = scheme["template"]
                elif name == "max_instance" or name == "order" and scheme.get("ordered"):
                    scheme = {"type": "unsignedInt" if name == "max_instance" else "string", "own": True}
                else:
                    return None
            elif kind == "object" and name in scheme["children"]:
                scheme = scheme["children"][name]
            else:
                return None
            read = RANKS.get(scheme.get("read"), read)
            write = RANKS.get(scheme.get("write"), write)
            kind = "table" if scheme.get("multi") else scheme.get("type", "object")
        return Node(path, scheme, there, read, write, kind)

    def names(self, node):
        """The children of an object that is there, in the daemon's order, objects with their dot."""
        if node.kind == "table":
            dot = "." if self.node(f"{node.path}.1").is_object else ""
            own = OWN if node.scheme.get("ordered") else OWN[:1]
            return [f"{number}{dot}" for number in self.tables[node.path]["numbers"]] + list(own)
        base = node.path + "." if node.path else ""
        return [name + ("." if self.node(base + name).is_object else "") for name in node.scheme["children"]]

    def listing(self, node, rank):
        """(path, value) of every parameter below that somebody of this rank may read."""
        if node.read > rank or node.kind == "method":
            return []
        if node.is_object:
            base = node.path + "." if node.path else ""
            found = []
            for name in self.names(node):
                found += self.listing(self.node(base + name.rstrip(".")), rank)
            return found
        return [(node.path, self.value(node))]

    def value(self, node):
        if node.scheme.get("own"):
            path, _, name = node.path.rpartition(".")
            table = self.tables[path]
            return table["max"] if name == "max_instance" else ",".join(map(str, table["numbers"]))
        return self.values[node.path]

    # What changes it

    def add(self, path, order=None):
        table = self.tables[path]
        table["max"] += 1
        place = len(table["numbers"]) if order is None else min(max(order, 1), len(table["numbers"]) + 1) - 1
        table["numbers"].insert(place, table["max"])
        self._instance(path, self.node(path).scheme, table["max"])
        return table["max"]

    def delete(self, path):
        table, _, number = path.rpartition(".")
        self.tables[table]["numbers"].remove(int(number))
        for kept in (self.values, self.tables):
            for name in [name for name in kept if name == path or name.startswith(path + ".")]:
                del kept[name]

    def order(self, path, place):
        table, _, number = path.rpartition(".")
        numbers = self.tables[table]["numbers"]
        numbers.remove(int(number))
        numbers.insert(min(max(place, 1), len(numbers) + 1) - 1, int(number))

    def table_paths(self):
        return sorted(self.tables)

    def instance_paths(self):
        return sorted(f"{path}.{number}" for path, table in self.tables.items() for number in table["numbers"])


def document():
    """The model document to start the daemon with."""
    return json.dumps(DOCUMENT)
