#!/usr/bin/python3
"""Measures the gNMI front of `octunnel serve` over TLS on loopback, with
Python's grpcio (Debian's python3-grpcio and python3-grpc-tools, for
/usr/bin/python3; the stubs are generated from third_party/gnmi):

- leaf: a Set (update) of one tunnel's ttl, a new value each time, and a
  Get of that leaf, each REQUESTS times (default 1,000) on a configuration
  of one tunnel; median and 99th percentile; and Capabilities as many
  times, which reads nothing of the configuration: the round trip's floor;
- set: a Set replacing /interfaces with N interfaces (default 10,000,
  tools/gendoc.py's edit in JSON_IETF) in an empty configuration, then a
  Get (CONFIG) of them all; each timed whole, with the agent's peak memory;
- once: a Subscribe ONCE of /interfaces, whose state is an --oper-dir
  document of N interfaces (tools/gendoc.py oper), read before the agent
  listens: the updates up to sync_response, and their rate;
- change: a STREAM ON_CHANGE subscription to /interfaces while an
  operational document is written whole under another name and renamed
  into --oper-dir with one interface's ttl changed, CHANGES times (default
  20): the time from the rename to the update of that ttl arriving, median
  and worst, and of it the time the agent logs it took to read the document;
  with the two tunnels of examples/tunnel-state.xml, and with N interfaces,
  subscribed to them all and to the tunnel state of the one that changes
  (also with the document's tunnel-ip-ma and ipv4-network alone).

    gnmi_bench.py OCTUNNEL [--requests 1000] [--interfaces 10000]
                  [--changes 20] [--parts leaf,set,once,change]

Times are wall-clock times as the client sees them, from sending the
request to having its answer (or the update) parsed.
"""

import argparse
import json
import os
import queue
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

import grpc

TOOLS = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(TOOLS)
USER, PASSWORD = "bench", "bench"
METADATA = [("username", USER), ("password", PASSWORD)]
T12 = "/interfaces/interface[name=tunnel-ip12]"


# Every agent started, so that one a failure leaves is not left running.
AGENTS = []


class Failure(Exception):
    """A measurement that could not be made: what the agent answered."""


def generate_stubs(work):
    out = os.path.join(work, "stubs")
    os.mkdir(out)
    protos = os.path.join(ROOT, "third_party", "gnmi")
    subprocess.run([sys.executable, "-m", "grpc_tools.protoc", "-I", protos,
                    "--python_out=" + out, "--grpc_python_out=" + out, "gnmi.proto",
                    "github.com/openconfig/gnmi/proto/gnmi_ext/gnmi_ext.proto"], check=True)
    sys.path.insert(0, out)
    global pb, pb_grpc
    import gnmi_pb2 as pb
    import gnmi_pb2_grpc as pb_grpc


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Agent:
    """An agent serving gNMI alone over TLS, with a state directory of its
    own under `work` and, when given, an operational directory."""

    def __init__(self, octunnel, work, oper=None, extra=()):
        self.dir = tempfile.mkdtemp(dir=work)
        users = os.path.join(self.dir, "users")
        hashed = subprocess.run(["openssl", "passwd", "-6", PASSWORD], check=True,
                                capture_output=True, text=True).stdout.strip()
        with open(users, "w", encoding="utf-8") as f:
            f.write(f"{USER}:{hashed}\n")
        key, self.cert = os.path.join(work, "key.pem"), os.path.join(work, "cert.pem")
        if not os.path.exists(self.cert):
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                            "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-keyout", key,
                            "-out", self.cert, "-subj", "/CN=127.0.0.1", "-addext",
                            "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True)
        self.target = f"127.0.0.1:{free_port()}"
        args = [octunnel, "serve", "--state-dir", os.path.join(self.dir, "state"), "--users",
                users, "--gnmi", self.target, "--tls-cert", self.cert, "--tls-key", key]
        if oper:
            args += ["--oper-dir", oper]
        args += list(extra)
        self.proc = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.PIPE, text=True)
        AGENTS.append(self.proc)
        self.log = []
        for line in self.proc.stderr:
            self.log.append(line)
            if "running configuration in" in line:
                break
        else:
            sys.exit("the agent did not start:\n" + "".join(self.log))
        self.drain = threading.Thread(target=lambda: self.log.extend(self.proc.stderr),
                                      daemon=True)
        self.drain.start()
        with open(self.cert, "rb") as f:
            credentials = grpc.ssl_channel_credentials(f.read())
        self.channel = grpc.secure_channel(self.target, credentials, options=[
            ("grpc.max_receive_message_length", -1), ("grpc.max_send_message_length", -1)])
        grpc.channel_ready_future(self.channel).result(timeout=30)
        self.stub = pb_grpc.gNMIStub(self.channel)

    def peak_mib(self):
        with open(f"/proc/{self.proc.pid}/status", encoding="utf-8") as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1]) / 1024
        return 0.0

    def stop(self):
        self.channel.close()
        self.proc.send_signal(signal.SIGTERM)
        self.proc.wait()
        self.drain.join()
        if self.proc.returncode != 0:
            sys.exit("the agent stopped with status %d:\n%s" % (self.proc.returncode,
                                                               "".join(self.log)))
        shutil.rmtree(self.dir, ignore_errors=True)


def path(text):
    p = pb.Path()
    for part in [s for s in text.split("/") if s]:
        name, _, keys = part.partition("[")
        e = p.elem.add(name=name)
        for kv in [k for k in keys.rstrip("]").split("][") if k]:
            k, _, v = kv.partition("=")
            e.key[k] = v
    return p


def json_value(value):
    return pb.TypedValue(json_ietf_val=json.dumps(value, separators=(",", ":")).encode())


def percentiles(samples):
    ordered = sorted(samples)
    p99 = ordered[min(len(ordered) - 1, int(0.99 * len(ordered)))]
    return statistics.median(ordered) * 1e3, p99 * 1e3


def gendoc(kind, n, form):
    return subprocess.run([sys.executable, os.path.join(TOOLS, "gendoc.py"), kind, str(n), form],
                          check=True, capture_output=True, text=True).stdout


def leaf_round_trips(octunnel, work, requests):
    agent = Agent(octunnel, work)
    agent.stub.Set(pb.SetRequest(replace=[pb.Update(path=path(T12), val=json_value({
        "openconfig-interfaces:name": "tunnel-ip12",
        "openconfig-if-tunnel:tunnel": {"config": {"src": "192.0.2.1", "dst": "198.51.100.7",
                                                   "ttl": 64}}}))]), metadata=METADATA)
    ttl = T12 + "/tunnel/config/ttl"
    # Capabilities reads nothing of the agent's data: the floor of a round
    # trip through gRPC, TLS and this client.
    floor, sets, gets = [], [], []
    for i in range(requests + 20):
        start = time.perf_counter()
        agent.stub.Capabilities(pb.CapabilityRequest(), metadata=METADATA)
        if i >= 20:
            floor.append(time.perf_counter() - start)
    for i in range(requests + 20):  # the first 20 warm up
        request = pb.SetRequest(update=[pb.Update(path=path(ttl), val=json_value(1 + i % 250))])
        start = time.perf_counter()
        agent.stub.Set(request, metadata=METADATA)
        if i >= 20:
            sets.append(time.perf_counter() - start)
    for i in range(requests + 20):
        request = pb.GetRequest(path=[path(ttl)], encoding=pb.JSON_IETF)
        start = time.perf_counter()
        answer = agent.stub.Get(request, metadata=METADATA)
        json.loads(answer.notification[0].update[0].val.json_ietf_val)
        if i >= 20:
            gets.append(time.perf_counter() - start)
    agent.stop()
    print()
    print("| request | count | median ms | p99 ms |")
    print("| --- | ---: | ---: | ---: |")
    print("| Capabilities | %d | %.2f | %.2f |" % ((requests,) + percentiles(floor)))
    print("| Set, one leaf (ttl) | %d | %.2f | %.2f |" % ((requests,) + percentiles(sets)))
    print("| Get, one leaf (ttl) | %d | %.2f | %.2f |" % ((requests,) + percentiles(gets)))


def whole_set(octunnel, work, n):
    doc = json.loads(gendoc("edit", n, "json"))
    value = {"openconfig-interfaces:interface": doc["openconfig-interfaces:interfaces"]
             ["interface"]}
    request = pb.SetRequest(replace=[pb.Update(path=path("/interfaces"), val=json_value(value))])
    size = request.ByteSize()
    agent = Agent(octunnel, work)
    start = time.perf_counter()
    agent.stub.Set(request, metadata=METADATA)
    t_set = time.perf_counter() - start
    peak_set = agent.peak_mib()
    start = time.perf_counter()
    answer = agent.stub.Get(pb.GetRequest(path=[path("/interfaces")], encoding=pb.JSON_IETF,
                                          type=pb.GetRequest.CONFIG), metadata=METADATA)
    got = json.loads(answer.notification[0].update[0].val.json_ietf_val)
    t_get = time.perf_counter() - start
    count = len(got["openconfig-interfaces:interface"])
    if count != n:
        raise Failure(f"the Get read back {count} interfaces, not {n}")
    peak = agent.peak_mib()
    agent.stop()
    print()
    print("| %d interfaces | s | request bytes | agent peak MiB |" % n)
    print("| --- | ---: | ---: | ---: |")
    print("| Set, replace of /interfaces into an empty configuration | %.2f | %d | %.0f |"
          % (t_set, size, peak_set))
    print("| Get (CONFIG) of /interfaces | %.2f | %d | %.0f |"
          % (t_get, answer.ByteSize(), peak))


def subscription(target, mode, sub_mode=None):
    s = pb.Subscription(path=path(target))
    if sub_mode is not None:
        s.mode = sub_mode
    return pb.SubscribeRequest(subscribe=pb.SubscriptionList(
        subscription=[s], mode=mode, encoding=pb.JSON_IETF))


class Stream:
    """A Subscribe call whose responses a thread of its own puts into a
    queue with the time each arrived."""

    def __init__(self, agent, request):
        self.done = threading.Event()

        def requests():
            yield request
            self.done.wait()

        self.responses = agent.stub.Subscribe(requests(), metadata=METADATA)
        self.arrived = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        try:
            for r in self.responses:
                self.arrived.put((time.perf_counter(), r))
        except grpc.RpcError as e:
            if not self.done.is_set():
                self.arrived.put((time.perf_counter(), e))
        self.arrived.put((time.perf_counter(), None))

    def next(self, timeout=120):
        at, r = self.arrived.get(timeout=timeout)
        if isinstance(r, grpc.RpcError):
            raise Failure(f"Subscribe: {r.code().name}: {r.details()}")
        return at, r

    def until_sync(self):
        """The updates (and the time the last arrived) up to sync_response."""
        updates = 0
        while True:
            at, r = self.next()
            if r is None:
                raise Failure("the stream ended before sync_response")
            if r.HasField("sync_response"):
                return updates, at
            updates += len(r.update.update)

    def close(self):
        self.done.set()
        self.responses.cancel()


def once(octunnel, work, n):
    oper = os.path.join(work, "oper-once")
    os.mkdir(oper)
    document = gendoc("oper", n, "xml")
    with open(os.path.join(oper, "oper.xml"), "w", encoding="utf-8") as f:
        f.write(document)
    agent = Agent(octunnel, work, oper)
    start = time.perf_counter()
    stream = Stream(agent, subscription("/interfaces", pb.SubscriptionList.ONCE))
    updates, at = stream.until_sync()
    elapsed = at - start
    stream.close()
    peak = agent.peak_mib()
    agent.stop()
    shutil.rmtree(oper)
    print()
    print("| Subscribe ONCE of /interfaces, state of %d interfaces (%d bytes) | updates | s | "
          "updates/s | agent peak MiB |" % (n, len(document.encode())))
    print("| --- | ---: | ---: | ---: | ---: |")
    print("| up to sync_response | %d | %.2f | %.0f | %.0f |"
          % (updates, elapsed, updates / elapsed, peak))


def on_change(octunnel, work, n, changes, target="/interfaces", roots=None):
    """The time from a document's rename into --oper-dir to the update of
    the ttl it changed, `changes` times, subscribed to `target`; n None for
    examples/tunnel-state.xml (tunnel-ip12's ttl), else gendoc's N
    interfaces (tunnel-ip0's), of its native roots `roots` alone when
    given.  A row: what was measured, the document's size, the delays and
    the agent's times of reading the document; or what failed."""
    if n is None:
        with open(os.path.join(ROOT, "examples", "tunnel-state.xml"), encoding="utf-8") as f:
            base, name = f.read(), "tunnel-ip12"
        label = "examples/tunnel-state.xml (2 tunnels)"
    else:
        base, name = gendoc("oper", n, "xml"), "tunnel-ip0"
        label = f"{n} interfaces"
        if roots:
            kept = [m.group(0) for m in re.finditer(r"  <([a-z0-9-]+) .*?\n  </\1>\n", base, re.S)
                    if m.group(1) in roots]
            base = base.split("\n", 1)[0] + "\n" + "".join(kept) + "</data>\n"
            label += " (" + ", ".join(roots) + " alone)"
    label += f", subscribed to {target}"
    try:
        return (label, len(base.encode())) + _delays(octunnel, work, base, name, changes, target)
    except Failure as e:
        return label, len(base.encode()), str(e)


def _delays(octunnel, work, base, name, changes, target):
    first = "<ttl>64</ttl>"
    assert first in base
    oper = os.path.join(work, "oper-change")
    os.mkdir(oper)
    final, partial = os.path.join(oper, "oper.xml"), os.path.join(oper, ".oper.xml")
    with open(final, "w", encoding="utf-8") as f:
        f.write(base)
    # --verbose: the agent logs how long it took to read each version.
    agent = Agent(octunnel, work, oper, ["--verbose"])
    stream, delays = None, []
    try:
        stream = Stream(agent, subscription(target, pb.SubscriptionList.STREAM, pb.ON_CHANGE))
        stream.until_sync()
        for k in range(changes):
            ttl = 100 + k
            with open(partial, "w", encoding="utf-8") as f:
                f.write(base.replace(first, f"<ttl>{ttl}</ttl>", 1))
            start = time.perf_counter()
            os.rename(partial, final)
            while True:
                at, r = stream.next(timeout=60)
                if r is None:
                    raise Failure("the stream ended before the change came")
                if any(u.path.elem[-1].name == "ttl" and
                       any(e.key.get("name") == name for e in u.path.elem) and
                       json.loads(u.val.json_ietf_val or u.val.json_val) == ttl
                       for u in r.update.update):
                    delays.append(at - start)
                    break
    finally:
        if stream:
            stream.close()
        agent.stop()
        shutil.rmtree(oper)
    # The rest of a delay is finding what changed and sending it.
    reads = [float(m.group(1)) for m in (re.search(r"oper\.xml: read, \d+ bytes in ([0-9.]+) s",
                                                   line) for line in agent.log) if m]
    return delays, reads[-changes:]


def changes_table(octunnel, work, n, changes):
    one = "/interfaces/interface[name=tunnel-ip0]/tunnel/state"
    rows = [on_change(octunnel, work, None, changes), on_change(octunnel, work, n, changes),
            on_change(octunnel, work, n, changes, one),
            on_change(octunnel, work, n, changes, one, ("tunnel-ip-ma", "ipv4-network"))]
    print()
    print("| document renamed into --oper-dir, one ttl changed | bytes | changes | "
          "median ms | max ms | of which reading it, median ms |")
    print("| --- | ---: | ---: | ---: | ---: | ---: |")
    for row in rows:
        if len(row) == 3:
            print("| %s | %d | failed: %s | | | |" % row)
            continue
        label, size, delays, reads = row
        print("| %s | %d | %d | %.1f | %.1f | %.0f |" % (
            label, size, len(delays), statistics.median(delays) * 1e3, max(delays) * 1e3,
            statistics.median(reads) * 1e3 if reads else float("nan")))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("octunnel")
    ap.add_argument("--requests", type=int, default=1000)
    ap.add_argument("--interfaces", type=int, default=10000)
    ap.add_argument("--changes", type=int, default=20)
    ap.add_argument("--parts", default="leaf,set,once,change",
                    help="the parts to run, comma-separated: leaf, set, once, change")
    a = ap.parse_args()
    parts = set(a.parts.split(","))
    unknown = parts - {"leaf", "set", "once", "change"}
    if unknown:
        ap.error("unknown parts: " + ", ".join(sorted(unknown)))
    work = tempfile.mkdtemp(prefix="octunnel-gnmi-bench-")
    try:
        generate_stubs(work)
        if "leaf" in parts:
            leaf_round_trips(a.octunnel, work, a.requests)
        if "set" in parts:
            whole_set(a.octunnel, work, a.interfaces)
        if "once" in parts:
            once(a.octunnel, work, a.interfaces)
        if "change" in parts:
            changes_table(a.octunnel, work, a.interfaces, a.changes)
    except Failure as e:
        sys.exit(f"gnmi_bench.py: {e}")
    finally:
        for proc in AGENTS:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
