"""How soon others are answered while the daemon has trouble: daemon.py VELD MODEL LIBRARY [SECONDS]; while somebody asks for
everything of a large model: daemon.py VELD MODEL POPULATE [SECONDS], POPULATE as veld's option takes it.

Prints of the first the 50th and 99th percentile and the longest of the times of a "get" in ms: alone, and beside 1,000 clients that do
nothing, one that floods, one that logs in with a wrong password all the time, and one that saves to a disk of 200 ms per
fsync (LIBRARY makes it so). Then requests per second with 1, 50 and 1,000 clients that each wait for their answers. Of the
second how many parameters there are and how long all of them take in ms, and the times of a "get" alone and beside that.
"""

import json
import os
import selectors
import socket
import subprocess
import sys
import tempfile
import threading
import time

VELD, MODEL, LIBRARY = sys.argv[1:4]
SECONDS = float(sys.argv[4]) if len(sys.argv) > 4 else 3.0


def message(number, method, **params):
    return json.dumps({"jsonrpc": "2.0", "id": number, "method": method, "params": params}).encode() + b"\n"


GET = message(1, "GetParameterValues", ParameterNames=["Device.DeviceInfo.ModelName"])


class Client:
    def __init__(self, address):
        self.link = socket.socket(socket.AF_UNIX)
        self.link.connect(address)

    def call(self, line):
        self.link.sendall(line)
        answer = b""
        while not answer.endswith(b"\n"):
            part = self.link.recv(1 << 16)
            if not part:
                raise SystemExit("the daemon closed a link")
            answer += part
        return answer


def percentiles(address, seconds):
    client = Client(address)
    times = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        begin = time.perf_counter()
        client.call(GET)
        times.append((time.perf_counter() - begin) * 1000)
    times.sort()
    return times[len(times) // 2], times[len(times) * 99 // 100], times[-1]


def trouble(address, stop):
    """The clients that make trouble, each in a process of its own so that it costs the measuring one nothing."""
    flood = message(2, "GetParameterValues", ParameterNames=["Device."])
    guess = message(3, "Login", User="admin", Password="guess")
    acts = []

    def act(work):
        pid = os.fork()
        if pid == 0:
            try:
                work()
            finally:
                os._exit(0)
        acts.append(pid)

    def flooding():
        client = Client(address)
        threading.Thread(target=lambda: [client.link.recv(1 << 20) for _ in iter(int, 1)], daemon=True).start()
        while True:
            client.link.sendall(flood)

    def guessing():
        client = Client(address)
        while True:
            client.call(guess)

    def saving():
        client = Client(address)
        client.call(message(1, "Login", User="root"))
        while True:
            client.call(message(2, "SaveConfig"))

    for work in (flooding, guessing, saving):
        act(work)
    stop.extend(acts)
    return [Client(address) for _ in range(1000)]


def everything(address):
    """Asks for all there is, over and over, in a process of its own; returns the process's number."""
    pid = os.fork()
    if pid == 0:
        try:
            client = Client(address)
            client.call(message(1, "Login", User="root"))
            while True:
                client.call(message(2, "GetParameterValues", ParameterNames=["."]))
        finally:
            os._exit(0)
    return pid


def first_parameter(client):
    answer = client.call(message(1, "GetParameterValues", ParameterNames=["."]))
    parameters = json.loads(answer)["result"]["ParameterList"]
    named = [entry["Name"] for entry in parameters if entry["Name"].endswith(".ModelName")] or [parameters[0]["Name"]]
    return len(parameters), named[0]


def large(populate):
    global GET
    with tempfile.TemporaryDirectory() as folder:
        address = f"{folder}/s"
        daemon = subprocess.Popen([VELD, "--socket", address, "--model", MODEL, "--populate", populate], stderr=subprocess.DEVNULL)
        asking = None
        try:
            while not os.path.exists(address):
                time.sleep(0.01)
            client = Client(address)
            client.call(message(1, "Login", User="root"))
            count, name = first_parameter(client)
            GET = message(1, "GetParameterValues", ParameterNames=[name])
            begin = time.perf_counter()
            client.call(message(2, "GetParameterValues", ParameterNames=["."]))
            print("everything %d %.0f" % (count, (time.perf_counter() - begin) * 1000))
            print("large-alone %.3f %.3f %.3f" % percentiles(address, SECONDS))
            asking = everything(address)
            time.sleep(0.5)
            print("large-beside %.3f %.3f %.3f" % percentiles(address, SECONDS))
        finally:
            if asking is not None:
                os.kill(asking, 9)
                os.waitpid(asking, 0)
            daemon.terminate()
            daemon.wait()


def rate(address, count, seconds):
    selector = selectors.DefaultSelector()
    clients = [Client(address) for _ in range(count)]
    for client in clients:
        selector.register(client.link, selectors.EVENT_READ)
        client.link.sendall(GET)
    answered = 0
    begin = time.monotonic()
    while time.monotonic() - begin < seconds:
        for key, _ in selector.select(0.1):
            if key.fileobj.recv(1 << 16).endswith(b"\n"):
                answered += 1
                key.fileobj.sendall(GET)
    return answered / (time.monotonic() - begin)


def main():
    with tempfile.TemporaryDirectory() as folder:
        address, armed = f"{folder}/s", f"{folder}/armed"
        env = {**os.environ, "LD_PRELOAD": LIBRARY, "TROUBLE_FSYNC_MS": "200", "TROUBLE_ARMED": armed}
        daemon = subprocess.Popen([VELD, "--socket", address, "--model", MODEL, "--state", f"{folder}/state"], env=env, stderr=subprocess.DEVNULL)
        stop = []
        try:
            while not os.path.exists(address):
                time.sleep(0.01)
            open(armed, "w").close()
            print("alone %.3f %.3f %.3f" % percentiles(address, SECONDS))
            idle = trouble(address, stop)
            time.sleep(0.5)
            print("trouble %.3f %.3f %.3f" % percentiles(address, SECONDS))
            for pid in stop:
                os.kill(pid, 9)
                os.waitpid(pid, 0)
            del idle
            for count in (1, 50, 1000):
                print(f"rate-{count} {rate(address, count, SECONDS / 2):.0f}")
        finally:
            daemon.terminate()
            daemon.wait()


if os.path.exists(LIBRARY):
    main()
else:
    large(LIBRARY)
