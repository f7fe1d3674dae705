"""generate.py DIRECTORY: the large answers that the measuring scripts serve and compare with, as files.

values      result of GetParameterValues of "Device.Bulk.": 10,000 instances of 10 parameters
answer      the same as a whole answer
empty       a result of 8 MiB whose list holds empty objects alone
attributes-root, attributes-device, attributes-bulk     the levels above
attributes-words        the level "Device.Words." of 100,000 parameters
rows-N      the three answers behind a listing of "Device.Rows.", a table of N instances: self, names, attributes
"""

import json
import random
import sys
from pathlib import Path

directory = Path(sys.argv[1])
OBJECT = {"type": "object", "access": "readOnly", "perms": "r"}
TABLE = {"type": "object", "access": "readWrite", "perms": "rw", "multi": True}
NUMBER = {"type": "unsignedInt", "access": "readOnly", "perms": "r", "default": 0}
TEXT = {"type": "string", "access": "readWrite", "perms": "rw", "default": ""}
FIELDS = ["Enable", "Status", "Alias", "Name", "PhysAddress", "BytesSent", "BytesReceived", "Errors", "Speed", "LastChange"]


def write(name, value):
    (directory / name).write_text(json.dumps(value, separators=(",", ":")))


def attributes(*entries):
    return {"ParameterList": [{"Name": name, "Attributes": of} for name, of in entries]}


def value(row, field):
    if field == "Enable":
        return row % 2 == 0
    if field in ("Status", "Alias", "Name", "PhysAddress"):
        return f"{field.lower()} of row {row}"
    return row * 1000 + len(field)


values = {"ParameterList": [{"Name": f"Device.Bulk.Row.{row}.{field}", "Value": value(row, field)}
                            for row in range(1, 10001) for field in FIELDS]}
write("values", values)
write("empty", {"ParameterList": [{}] * (8 * 2**20 // 3)})
write("answer", {"jsonrpc": "2.0", "id": 1, "result": values})
write("attributes-root", attributes(("Device.", OBJECT)))
write("attributes-device", attributes(("Device.", OBJECT), ("Device.Bulk.", OBJECT), ("Device.Rows.", TABLE), ("Device.Words.", OBJECT)))
write("attributes-bulk", attributes(("Device.Bulk.", OBJECT), ("Device.Bulk.Row.", TABLE)))
chance = random.Random(7)
words = [f"{chance.choice(['Interface', 'Host', 'Port', 'Stats', 'Max'])}{chance.randrange(100000)}_{number}"
         for number in range(100000)]
write("attributes-words", attributes(("Device.Words.", OBJECT),
                                     *((f"Device.Words.{word}", chance.choice([NUMBER, TEXT])) for word in words)))
for count in (1000, 10000, 100000):
    names = [f"Device.Rows.{row}." for row in range(1, count + 1)]
    entries = [(name, OBJECT) for name in names] + [("Device.Rows.max_instance", NUMBER)]
    level = attributes(("Device.Rows.", TABLE), *entries)
    level["ParameterList"][0]["Template"] = [{"Name": "", "Attributes": OBJECT}, {"Name": "Alias", "Attributes": TEXT}]
    write(f"rows-{count}-self", level)
    write(f"rows-{count}-names", {"ParameterList": [{"Name": name, "Writable": False} for name, _ in entries]})
    write(f"rows-{count}-attributes", attributes(*entries))
