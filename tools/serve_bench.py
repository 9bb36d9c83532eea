#!/usr/bin/python3
"""Measures `octunnel serve` over SSH on loopback (Debian's /usr/bin/python3
has ncclient and paramiko):

- single-leaf round trips: an <edit-config> of one tunnel's ttl, and a
  <get-config> whose filter selects that leaf, each REQUESTS times (default
  1,000) on a configuration of one tunnel; median and 99th percentile.  The
  client is NETCONF 1.1 framing over a paramiko channel, which sends at once:
  ncclient sends a request only when its transport loop wakes, every 100 ms
  (ncclient.transport.ssh.TICK), which would be all that is measured;
- a whole configuration: an <edit-config> of N interfaces (default 10,000,
  from tools/gendoc.py) into an empty configuration, then a <get-config>
  without filter and a <get> with N interfaces' operational data, each timed
  whole, with the agent's peak memory;
- requests while an operational document of M interfaces (default 100,000)
  is read: single-leaf <get-config> and filtered <get> round trips, one after
  the other, from the moment the document is renamed into --oper-dir until
  the agent says it answers it; first into a directory without it, then
  replacing it with a second version, so that the <get>s run over the first.

    serve_bench.py OCTUNNEL [--requests 1000] [--interfaces 10000]
                   [--oper-interfaces 100000]

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
from ncclient import manager

TOOLS = os.path.dirname(os.path.abspath(__file__))
NC = "urn:ietf:params:xml:ns:netconf:base:1.0"
OC = "http://openconfig.net/yang/interfaces"
TUN = "http://openconfig.net/yang/interfaces/tunnel"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start(octunnel, work, oper=None, client=True, extra=()):
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
    if not client:
        return proc, port
    m = manager.connect(host="127.0.0.1", port=port, username="bench", password="bench",
                        hostkey_verify=False, allow_agent=False, look_for_keys=False,
                        timeout=None)
    return proc, m


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
        self.buffer = b""
        while b"]]>]]>" not in self.buffer:
            self.buffer += self.chan.recv(65536)
        self.buffer = b""
        self.chan.sendall(f'<hello xmlns="{NC}"><capabilities><capability>urn:ietf:params:'
                          'netconf:base:1.1</capability></capabilities></hello>]]>]]>'.encode())

    def rpc(self, body):
        data = f'<rpc xmlns="{NC}" message-id="1">{body}</rpc>'.encode()
        self.chan.sendall(b"\n#%d\n" % len(data) + data + b"\n##\n")
        reply = b""
        while True:
            m = re.match(rb"\n#(\d+|#)\n", self.buffer)
            while m is None:
                self.buffer += self.chan.recv(65536)
                m = re.match(rb"\n#(\d+|#)\n", self.buffer)
            self.buffer = self.buffer[m.end():]
            if m.group(1) == b"#":
                assert b"<rpc-error>" not in reply, reply
                return reply
            size = int(m.group(1))
            while len(self.buffer) < size:
                self.buffer += self.chan.recv(65536)
            reply += self.buffer[:size]
            self.buffer = self.buffer[size:]

    def close(self):
        self.ssh.close()


def stop(proc):
    peak = 0
    with open(f"/proc/{proc.pid}/status", encoding="utf-8") as f:
        for line in f:
            if line.startswith("VmHWM:"):
                peak = int(line.split()[1]) / 1024
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
    proc, port = start(octunnel, os.path.join(work, "reading"), oper, client=False,
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


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("octunnel")
    ap.add_argument("--requests", type=int, default=1000)
    ap.add_argument("--interfaces", type=int, default=10000)
    ap.add_argument("--sizes", default="100,10000,100000",
                    help="configuration sizes (interfaces) for single-leaf edits, comma-separated")
    ap.add_argument("--oper-interfaces", type=int, default=100000)
    a = ap.parse_args()
    work = tempfile.mkdtemp(prefix="octunnel-serve-bench-")
    try:
        proc, port = start(a.octunnel, work, client=False)
        raw = Raw(port)
        raw.rpc(leaf_edit(1, envelope=False))
        edits = [timed(lambda i=i: raw.rpc(leaf_edit(i % 255 + 1, envelope=False)))
                 for i in range(a.requests)]
        read = ("<get-config><source><running/></source><filter type=\"subtree\">"
                + LEAF_FILTER + "</filter></get-config>")
        reads = [timed(lambda: raw.rpc(read)) for _ in range(a.requests)]
        raw.close()
        stop(proc)
        print("| request | count | median ms | p99 ms |")
        print("| --- | ---: | ---: | ---: |")
        print("| edit-config, one leaf | %d | %.2f | %.2f |" % ((a.requests,) + percentiles(edits)))
        print("| get-config, one leaf | %d | %.2f | %.2f |" % ((a.requests,) + percentiles(reads)))

        # Single-leaf edits on configurations of each size: the cost of a
        # commit follows the edit, not the configuration.  The configuration
        # is put in place as the native file the agent reads at start.
        print()
        print("| interfaces | edits | median ms | p99 ms | agent RSS at rest MiB |")
        print("| ---: | ---: | ---: | ---: | ---: |")
        for size in [int(x) for x in a.sizes.split(",") if x]:
            state = os.path.join(work, "state")
            shutil.rmtree(state, ignore_errors=True)
            os.makedirs(state)
            native_running(a.octunnel, size, os.path.join(state, "running.xml"))
            proc, port = start(a.octunnel, work, client=False)
            raw = Raw(port)
            raw.rpc(leaf_edit(1, envelope=False))
            rest = rss_mib(proc)
            edits = [timed(lambda i=i: raw.rpc(leaf_edit(i % 255 + 1, envelope=False)))
                     for i in range(a.requests)]
            raw.close()
            stop(proc)
            print("| %d | %d | %.2f | %.2f | %.0f |" % ((size, a.requests) + percentiles(edits)
                                                        + (rest,)))

        n = a.interfaces
        edit = subprocess.run([sys.executable, os.path.join(TOOLS, "gendoc.py"), "edit", str(n),
                               "xml"], check=True, capture_output=True, text=True).stdout
        oper = os.path.join(work, "oper")
        os.makedirs(oper)
        with open(os.path.join(oper, "state.xml"), "w", encoding="utf-8") as f:
            subprocess.run([sys.executable, os.path.join(TOOLS, "gendoc.py"), "oper", str(n),
                            "xml"], check=True, stdout=f)
        shutil.rmtree(os.path.join(work, "state"))
        proc, m = start(a.octunnel, work, oper)
        t_edit = timed(lambda: m.edit_config(target="running", config=edit))
        reply = []
        t_get_config = timed(lambda: reply.append(m.get_config("running")))
        t_get = timed(lambda: reply.append(m.get()))
        m.close_session()
        peak = stop(proc)
        # Stopped, the agent has written the whole document.
        size = os.path.getsize(os.path.join(work, "state", "running.xml"))
        print()
        print("| %d interfaces | s | bytes |" % n)
        print("| --- | ---: | ---: |")
        print("| edit-config of all, into an empty configuration | %.2f | %d |"
              % (t_edit, len(edit)))
        print("| get-config without filter | %.2f | %d |" % (t_get_config, len(reply[0].xml)))
        print("| get without filter (configuration and state) | %.2f | %d |"
              % (t_get, len(reply[1].xml)))
        print()
        print("native running configuration: %d bytes; agent peak RSS %.0f MiB" % (size, peak))
        while_reading(a.octunnel, work, a.oper_interfaces)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
