#!/usr/bin/python3
"""Measures `octunnel serve` over SSH on loopback (Debian's /usr/bin/python3
has paramiko):

- single-leaf round trips: an <edit-config> of one tunnel's ttl, and a
  <get-config> whose filter selects that leaf, each REQUESTS times (default
  1,000) on a configuration of one tunnel; median and 99th percentile.  The
  client is NETCONF 1.1 framing over a paramiko channel, which sends at once:
  ncclient sends a request only when its transport loop wakes, every 100 ms
  (ncclient.transport.ssh.TICK), which would be all that is measured;
- a whole configuration: an <edit-config> of N interfaces (default 10,000,
  from tools/gendoc.py) into an empty configuration, then a <get-config>
  without filter and a <get> with N interfaces' operational data, each timed
  whole (the same NETCONF 1.1 client over paramiko), with the agent's peak
  memory once the edit is answered and at the end;
- requests while an operational document of M interfaces (default 100,000)
  is read: single-leaf <get-config> and filtered <get> round trips, one after
  the other, from the moment the document is renamed into --oper-dir until
  the agent says it answers it; first into a directory without it, then
  replacing it with a second version, so that the <get>s run over the first.

    serve_bench.py OCTUNNEL [--requests 1000] [--interfaces 10000]
                   [--oper-interfaces 100000] [--parts leaf,sizes,whole,reading]

--parts runs only the parts named: `leaf` (the round trips on one
tunnel), `sizes` (single-leaf edits on each of --sizes), `whole` (the whole
configuration) and `reading` (requests while a document is read).

Times are wall-clock times as the client sees them, from sending the
request to having parsed the reply.
"""

import argparse
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import paramiko

TOOLS = os.path.dirname(os.path.abspath(__file__))
NC = "urn:ietf:params:xml:ns:netconf:base:1.0"
OC = "http://openconfig.net/yang/interfaces"
TUN = "http://openconfig.net/yang/interfaces/tunnel"
SEND_PIECE = 1 << 16


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start(octunnel, work, oper=None, extra=()):
    users = os.path.join(work, "users")
    with open(users, "w", encoding="utf-8") as f:
        hashed = subprocess.run(["openssl", "passwd", "-6", "bench"], check=True,
                                capture_output=True, text=True).stdout.strip()
        f.write(f"bench:{hashed}\n")
    port = free_port()
    args = [octunnel, "serve", "--state-dir", os.path.join(work, "state"), "--listen",
            f"127.0.0.1:{port}", "--users", users]
    if oper:
        args += ["--oper-dir", oper]
    proc = subprocess.Popen(args + list(extra), stderr=subprocess.PIPE, text=True)
    for line in proc.stderr:
        if "running configuration in" in line:
            break
    else:
        sys.exit("the agent did not start")
    return proc, port


class Raw:
    """NETCONF 1.1 over a paramiko channel: a request is sent as it is made,
    and its reply read as it comes."""

    def __init__(self, port):
        self.ssh = paramiko.SSHClient()
        self.ssh.set_missing_host_key_policy(paramiko.AutoAddPolicy())
        self.ssh.connect("127.0.0.1", port=port, username="bench", password="bench",
                         allow_agent=False, look_for_keys=False)
        self.chan = self.ssh.get_transport().open_session()
        self.chan.invoke_subsystem("netconf")
        # Bytes appended and taken from the front in place: a large reply is
        # read in linear time.
        self.buffer = bytearray()
        while b"]]>]]>" not in self.buffer:
            self.buffer += self.chan.recv(65536)
        self.buffer = bytearray()
        self.chan.sendall(f'<hello xmlns="{NC}"><capabilities><capability>urn:ietf:params:'
                          'netconf:base:1.1</capability></capabilities></hello>]]>]]>'.encode())

    def rpc(self, body):
        data = f'<rpc xmlns="{NC}" message-id="1">{body}</rpc>'.encode()
        # In pieces: paramiko's sendall copies what is left after every
        # packet, which would make sending a large request quadratic.
        data = memoryview(b"\n#%d\n" % len(data) + data + b"\n##\n")
        for at in range(0, len(data), SEND_PIECE):
            self.chan.sendall(data[at:at + SEND_PIECE].tobytes())
        chunks = []
        while True:
            m = re.match(rb"\n#(\d+|#)\n", self.buffer)
            while m is None:
                self.buffer += self.chan.recv(65536)
                m = re.match(rb"\n#(\d+|#)\n", self.buffer)
            header = bytes(m.group(1))
            del self.buffer[:m.end()]
            if header == b"#":
                reply = b"".join(chunks)
                assert b"<rpc-error>" not in reply, reply
                return reply
            size = int(header)
            while len(self.buffer) < size:
                self.buffer += self.chan.recv(1 << 20)
            chunks.append(bytes(self.buffer[:size]))
            del self.buffer[:size]

    def close(self):
        self.ssh.close()


def peak_mib(proc):
    """The peak resident memory of `proc` so far."""
    with open(f"/proc/{proc.pid}/status", encoding="utf-8") as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024
    return 0.0


def stop(proc):
    peak = peak_mib(proc)
    proc.send_signal(signal.SIGTERM)
    proc.wait()
    return peak


def timed(call):
    t = time.perf_counter()
    call()
    return time.perf_counter() - t


def percentiles(samples):
    ordered = sorted(samples)
    p99 = ordered[min(len(ordered) - 1, int(0.99 * len(ordered)))]
    return statistics.median(ordered) * 1e3, p99 * 1e3


def leaf_edit(ttl, envelope=True):
    if not envelope:
        return ("<edit-config><target><running/></target>" + leaf_edit(ttl).replace(
            f'<config xmlns="{NC}">', "<config>") + "</edit-config>")
    return (f'<config xmlns="{NC}"><interfaces xmlns="{OC}"><interface><name>tunnel-ip1</name>'
            f'<tunnel xmlns="{TUN}"><config><ttl>{ttl}</ttl></config></tunnel></interface>'
            "</interfaces></config>")


LEAF_FILTER = (f'<interfaces xmlns="{OC}"><interface><name>tunnel-ip1</name>'
               f'<tunnel xmlns="{TUN}"><config><ttl/></config></tunnel></interface></interfaces>')


def native_running(octunnel, n, path):
    """A native running configuration of `n` interfaces (tools/gendoc.py's
    edit through the tool) at `path`, as the agent keeps it."""
    edit = subprocess.run([sys.executable, os.path.join(TOOLS, "gendoc.py"), "edit", str(n), "xml"],
                          check=True, capture_output=True, text=True).stdout
    native = subprocess.run([octunnel, "to-native", "-"], input=edit, check=True,
                            capture_output=True, text=True).stdout
    with open(path, "w", encoding="utf-8") as f:
        f.write(native.replace("<config ", "<data ", 1).replace("</config>", "</data>"))


def rss_mib(proc):
    """The resident memory of `proc` now."""
    with open(f"/proc/{proc.pid}/status", encoding="utf-8") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    return 0.0


def while_reading(octunnel, work, n):
    """Round trips while a document of `n` interfaces is read, twice: into
    a directory without it, then over its first version."""
    oper = os.path.join(work, "oper-read")
    os.makedirs(oper)
    doc = os.path.join(work, "state-doc.xml")
    with open(doc, "w", encoding="utf-8") as f:
        subprocess.run([sys.executable, os.path.join(TOOLS, "gendoc.py"), "oper", str(n), "xml"],
                       check=True, stdout=f)
    size = os.path.getsize(doc)
    os.makedirs(os.path.join(work, "reading"))
    proc, port = start(octunnel, os.path.join(work, "reading"), oper,
                       extra=["--verbose", "--max-oper-document", str(size + 1)])
    said, lines = threading.Condition(), []

    def drain():
        for line in proc.stderr:
            with said:
                lines.append(line)
                said.notify_all()

    threading.Thread(target=drain, daemon=True).start()
    raw = Raw(port)
    raw.rpc(leaf_edit(1, envelope=False))
    get_config = ("<get-config><source><running/></source><filter type=\"subtree\">"
                  + LEAF_FILTER + "</filter></get-config>")
    get = ('<get><filter type="subtree">'
           + LEAF_FILTER.replace("<config><ttl/></config>", "<state><ttl/></state>")
           + "</filter></get>")
    rows = []
    for version in (1, 2):
        if version == 2:
            with open(doc, "w", encoding="utf-8") as f:
                f.write(text.replace("<mtu>1476</mtu>", "<mtu>1400</mtu>"))
        else:
            with open(doc, encoding="utf-8") as f:
                text = f.read()
        read = os.path.join(oper, "state.xml") + ": read, "
        rename = time.perf_counter()
        os.rename(doc, os.path.join(oper, "state.xml"))
        pairs = []
        while True:
            with said:
                if sum(read in line for line in lines) >= version:
                    break
            pairs.append(timed(lambda: raw.rpc(get_config)))
            pairs.append(timed(lambda: raw.rpc(get)))
        rows.append((version, time.perf_counter() - rename, len(pairs)) + percentiles(pairs))
    raw.close()
    peak = stop(proc)
    print()
    print("| while a document of %d interfaces (%d bytes) is read | s | requests answered "
          "meanwhile | median ms | p99 ms |" % (n, size))
    print("| --- | ---: | ---: | ---: | ---: |")
    for version, took, count, median, p99 in rows:
        print("| %s | %.2f | %d | %.2f | %.2f |"
              % ("first version, into an empty directory" if version == 1
                 else "second version, the <get>s over the first", took, count, median, p99))
    print()
    print("agent peak RSS %.0f MiB" % peak)


def leaf_round_trips(octunnel, work, requests):
    proc, port = start(octunnel, work)
    raw = Raw(port)
    raw.rpc(leaf_edit(1, envelope=False))
    edits = [timed(lambda i=i: raw.rpc(leaf_edit(i % 255 + 1, envelope=False)))
             for i in range(requests)]
    read = ("<get-config><source><running/></source><filter type=\"subtree\">"
            + LEAF_FILTER + "</filter></get-config>")
    reads = [timed(lambda: raw.rpc(read)) for _ in range(requests)]
    raw.close()
    stop(proc)
    print("| request | count | median ms | p99 ms |")
    print("| --- | ---: | ---: | ---: |")
    print("| edit-config, one leaf | %d | %.2f | %.2f |" % ((requests,) + percentiles(edits)))
    print("| get-config, one leaf | %d | %.2f | %.2f |" % ((requests,) + percentiles(reads)))


def sized_edits(octunnel, work, requests, sizes):
    # Single-leaf edits on configurations of each size: the cost of a
    # commit follows the edit, not the configuration.  The configuration
    # is put in place as the native file the agent reads at start.
    print("| interfaces | edits | median ms | p99 ms | agent RSS at rest MiB |")
    print("| ---: | ---: | ---: | ---: | ---: |")
    for size in [int(x) for x in sizes.split(",") if x]:
        state = os.path.join(work, "state")
        shutil.rmtree(state, ignore_errors=True)
        os.makedirs(state)
        native_running(octunnel, size, os.path.join(state, "running.xml"))
        proc, port = start(octunnel, work)
        raw = Raw(port)
        raw.rpc(leaf_edit(1, envelope=False))
        rest = rss_mib(proc)
        edits = [timed(lambda i=i: raw.rpc(leaf_edit(i % 255 + 1, envelope=False)))
                 for i in range(requests)]
        raw.close()
        stop(proc)
        print("| %d | %d | %.2f | %.2f | %.0f |" % ((size, requests) + percentiles(edits)
                                                    + (rest,)))
    print()


def whole(octunnel, work, n):
    edit = subprocess.run([sys.executable, os.path.join(TOOLS, "gendoc.py"), "edit", str(n),
                           "xml"], check=True, capture_output=True, text=True).stdout
    oper = os.path.join(work, "oper")
    os.makedirs(oper)
    with open(os.path.join(oper, "state.xml"), "w", encoding="utf-8") as f:
        subprocess.run([sys.executable, os.path.join(TOOLS, "gendoc.py"), "oper", str(n),
                        "xml"], check=True, stdout=f)
    shutil.rmtree(os.path.join(work, "state"), ignore_errors=True)
    # The answers of everything (about 1.25 KB an interface for a <get>)
    # may be more than a client leaves unread by default.
    proc, port = start(octunnel, work, oper,
                       extra=["--max-unread", str(max(64 << 20, 2000 * n))])
    # Over the client of NETCONF 1.1 frames: ncclient copies what is left
    # of a request after every packet it sends, and of its reply as it
    # parses it, which makes the client's own time quadratic in either (44 s
    # to send a request of 90 MB, 46 s to read the <get> of 30,000
    # interfaces).
    raw = Raw(port)
    body = "<edit-config><target><running/></target>" + edit + "</edit-config>"
    t_edit = timed(lambda: raw.rpc(body))
    edit_peak = peak_mib(proc)
    reply = []
    t_get_config = timed(lambda: reply.append(
        raw.rpc("<get-config><source><running/></source></get-config>")))
    t_get = timed(lambda: reply.append(raw.rpc("<get/>")))
    raw.close()
    peak = stop(proc)
    # Stopped, the agent has written the whole document.
    size = os.path.getsize(os.path.join(work, "state", "running.xml"))
    print()
    print("| %d interfaces | s | bytes |" % n)
    print("| --- | ---: | ---: |")
    print("| edit-config of all, into an empty configuration | %.2f | %d |"
          % (t_edit, len(edit)))
    print("| get-config without filter | %.2f | %d |" % (t_get_config, len(reply[0])))
    print("| get without filter (configuration and state) | %.2f | %d |"
          % (t_get, len(reply[1])))
    print()
    print("native running configuration: %d bytes; agent peak RSS %.0f MiB once the edit was "
          "answered, %.0f MiB in all" % (size, edit_peak, peak))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("octunnel")
    ap.add_argument("--requests", type=int, default=1000)
    ap.add_argument("--interfaces", type=int, default=10000)
    ap.add_argument("--sizes", default="100,10000,100000",
                    help="configuration sizes (interfaces) for single-leaf edits, comma-separated")
    ap.add_argument("--oper-interfaces", type=int, default=100000)
    ap.add_argument("--parts", default="leaf,sizes,whole,reading",
                    help="the parts to run, comma-separated: leaf, sizes, whole, reading")
    a = ap.parse_args()
    parts = set(a.parts.split(","))
    unknown = parts - {"leaf", "sizes", "whole", "reading"}
    if unknown:
        ap.error("unknown parts: " + ", ".join(sorted(unknown)))
    work = tempfile.mkdtemp(prefix="octunnel-serve-bench-")
    try:
        if "leaf" in parts:
            leaf_round_trips(a.octunnel, work, a.requests)
        if "sizes" in parts:
            sized_edits(a.octunnel, work, a.requests, a.sizes)
        if "whole" in parts:
            whole(a.octunnel, work, a.interfaces)
        if "reading" in parts:
            while_reading(a.octunnel, work, a.oper_interfaces)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
