"""transfer.py KEST FILE: prints the rates, in MB/s, at which `kest -r download file FILE` and `nc` send FILE to a reader, medians
of five turns, and the client's own memory (KiB, without what it maps) while it sends.

The reader of both is `nc`, started by a daemon that knows nothing but JoinGroup and Download."""

import json
import os
import socket
import statistics
import subprocess
import sys
import threading
import time

kest, path = sys.argv[1:]
size = os.path.getsize(path)
memory = []


def read_with_nc(host, port):
    began = time.monotonic()
    with open("/dev/null", "wb") as sink:
        subprocess.run(["nc", "-d", host, str(port)], stdout=sink, check=True)
    return size / 1e6 / (time.monotonic() - began)


def own_memory(pid):
    with open(f"/proc/{pid}/status") as status:
        return max(int(line.split()[1]) for line in status if line.startswith("RssAnon"))


def serve(listener, rates):
    def talk(link):
        for line in link.makefile("rb"):
            request = json.loads(line)
            if request["method"] == "Download":
                host, port = request["params"]["URL"].removeprefix("netcat://").split(":")
                rates.append(read_with_nc(host, int(port)))
                memory.append(own_memory(client[0].pid))
            answer = {"jsonrpc": "2.0", "id": request["id"], "result": {"Status": 0}}
            link.sendall(json.dumps(answer).encode() + b"\n")

    while True:
        link, _ = listener.accept()
        threading.Thread(target=talk, args=(link,), daemon=True).start()


def nc_to_nc():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    with open(path, "rb") as source:
        sender = subprocess.Popen(["nc", "-N", "-l", "127.0.0.1", str(port)], stdin=source)
        while f":{port:04X} 00000000:0000 0A" not in open("/proc/net/tcp").read():
            time.sleep(0.01)
        rate = read_with_nc("127.0.0.1", port)
        sender.wait()
    return rate


listener = socket.create_server(("127.0.0.1", 0))
client, rates, peers = [None], [], []
threading.Thread(target=serve, args=(listener, rates), daemon=True).start()
for _ in range(5):
    peers.append(nc_to_nc())
    words = [kest, "-u", "tcp://127.0.0.1:%d" % listener.getsockname()[1], "-r", "download", "file", path]
    client[0] = subprocess.Popen(words, stdout=subprocess.DEVNULL)
    if client[0].wait() != 0:
        sys.exit("the download failed")
print(round(statistics.median(rates)), round(statistics.median(peers)), max(memory))
