"""What is tortured: clients that talk to a sound daemon, programs that only write a file, and daemons that a sound client talks to.

A scenario has a `name`, and `run(place, injector, fault, watch)` → Run, whose `problem` is what it found wrong
by itself: a file in pieces, an acknowledged change that is lost.
"""

from clients import Client, Maker, Secure, Typed, Upgrade
from daemons import Daemon, FlashedDaemon, SecureDaemon, keep


def save(peer, promise):
    keep(peer, "new")
    promise("new")


def save_much(peer, promise):
    added = peer.call("AddObject", ObjectName="Device.Host.")["InstanceNumber"]
    save(peer, promise)
    peer.call("DeleteObject", ObjectName=f"Device.Host.{added}.")
    keep(peer, "newer")
    promise("newer")


def reset(peer, promise):
    peer.call("FactoryReset")
    promise("FACTORY")


def look(peer, promise):
    peer.call("GetParameterValues", ParameterNames=["."])


IMPORT = """<?xml version="1.0"?>
<dm:document xmlns:dm="urn:broadband-forum-org:cwmp:datamodel-1-15">
  <dataType name="Address"><string><size maxLength="15"/><pattern value="[0-9.]+"/></string></dataType>
  <model name="Device:2.0">
    <object name="Device."/>
    <object name="Device.Hosts."><parameter name="HostNumberOfEntries"><syntax><unsignedInt/></syntax></parameter></object>
    <object name="Device.Hosts.Host.{i}." access="readWrite" minEntries="0" maxEntries="unbounded" numEntriesParameter="HostNumberOfEntries">
      <parameter name="IPAddress" access="readWrite"><syntax><dataType ref="Address"/></syntax></parameter>
      <parameter name="Kind" access="readWrite"><syntax><string><enumeration value="Wired"/></string></syntax></parameter>
    </object>
  </model>
</dm:document>
"""
SERVER = "Device.Time.NTPServer1"
SCRIPT = f'get Device.Time.Enable\nset {SERVER}="new"\necho done\nget {SERVER}\n'
TYPED = 'cd Device.Time\nget Enable\nset NTPServer1="new"\npwd\n'
LUA = f"""
local name = "{SERVER}"
assert(dm.set{{[name] = "new"}})
for word in ("a b c"):gmatch("%a") do io.write(word, "\\n") end
print(#dm.get(name) > 0)
"""

SCENARIOS = [
    Client("get", "-r", "get", "Device.Time.Enable"),
    Client("get-many", "-r", "get", "Device.Time."),
    Client("ls", "-r", "ls", "Device.Time"),
    Client("ls-long", "-s", "script", files={"script": "ls -l Device.Time\nls -a Device.Time\n"}),
    Client("execute", "-r", "execute", "Device.IP.Diagnostics.IPPing", "Host=127.0.0.1", "NumberOfRepetitions=1"),
    Client("attr", "-r", "attr", "Device.Time.Enable"),
    Client("set", "-r", "set", SERVER + '="new"', sets=(SERVER, "new")),
    Client("set-refused", "-r", "set", "Device.Time.Enable=17"),
    Client("add", "-r", "add", "Device.NAT.PortMapping", renews=200),  # the number of the instance is the status, modulo 256
    Client("del-refused", "-r", "del", "Device.NAT.PortMapping.9999"),
    Client("save", "-r", "save"),
    Client("login", "-s", "script", files={"script": "login admin -p admin\n"}),
    Client("login-refused", "-s", "script", files={"script": "login admin -p wrong\n"}, renews=1),  # veld slows whoever guesses
    Client("execute-refused", "-r", "execute", "Device.Nothing"),
    Client("notify", "-n", "Event"),
    Client("event", "-e", "12", '{"Text": "hello"}'),
    Client("raw", "--raw", '{"jsonrpc":"2.0","id":1,"method":"GetParameterValues","params":{"ParameterNames":["Device.Time.Enable"]}}'),
    Client("usage", "--nothing"),
    Client("download", "-r", "download", "file", "load", files={"load": "payload\n" * 500}),
    Client("config", "-c", "config", "-r", "get", "Device.Time.Enable", files={"config": "login admin -p admin\n"}),
    Client("script", "-s", "script", files={"script": SCRIPT}, sets=(SERVER, "new")),
    Client("script-stops", "-s", "script", files={"script": "get Device.Time.Enable\nnothing\necho on\n"}),
    Client("lua-one", "-r", "lua", 'print(dm.get("Device.Time.Enable"))'),
    Client("lua-script", "-S", "script", files={"script": LUA}, sets=(SERVER, "new")),
    Client("lua-error", "-S", "script", files={"script": 'error("wrong")\n'}),
    Client("shell", stdin=TYPED, sets=(SERVER, "new"), history=True),
    Client("shell-record", stdin="record made\ncd Device.Time\nget Enable\nq\nq\n", whole=("made",), begun={"made": ""}, history=True),
    Client("shell-command", stdin="sh echo out\nls Device.Time\n!!\n", history=True),
    Client("lua-shell", stdin="lua\nx = 3\nprint(x * 2)\n", history=True),
    Secure("get-tls", "--ssl", "-r", "get", "Device.Time.Enable"),
    Secure("script-tls", "--ssl", "-s", "script", files={"script": "ls Device.Time\nget Device.Time.Enable\n"}),
    Secure("download-tls", "--ssl", "-r", "download", "file", "load", files={"load": "payload\n" * 500}),
    Typed("terminal", stdin="cd Device.Time\nget Ena\t\nset NTPServer1=\"new\"\nq", sets=(SERVER, "new"), history=True),
    Typed("lua-terminal", stdin=f"lua\nx = 3\nprint(x * 2)\ndm.set{{['{SERVER}'] = 'new'}}\nq\nq", sets=(SERVER, "new"), history=True),
    Upgrade("upgrade", "1.3.0"),
    Upgrade("upgrade-major", "2.0.0", stdin="y\n"),
    Maker("import", "--import", "model.xml", "--output", "model.json", files={"model.xml": IMPORT, "model.json": "{}"}, whole=("model.json",)),
    Maker("image", "--make-image", "GATEWAY-1.3.0", "--payload", "load", "--output", "image",
          files={"load": "payload\n" * 500}),
    Daemon("veld-start", look),
    Daemon("veld-start-on-state", look, saved="old"),
    Daemon("veld-save", save, may_be=("FACTORY", "new")),
    Daemon("veld-save-much", save_much, saved="old", may_be=("new", "newer")),
    SecureDaemon("veld-tls", save, may_be=("FACTORY", "new")),
    FlashedDaemon("veld-upgrade", saved="old"),
    Daemon("veld-reset", reset, saved="old", may_be=("FACTORY",)),
]  # fmt: skip
