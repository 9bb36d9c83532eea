#!/usr/bin/python3
"""A gNMI session with `octunnel serve --gnmi`, over TLS, with Python's
grpcio (Debian's python3-grpcio, python3-grpc-tools and python3-protobuf,
for /usr/bin/python3):

- Capabilities: prints the gNMI version and the tunnel model;
- Set: replaces tunnel-ip12 with its endpoints and a ttl of 32 (JSON_IETF);
- Get: prints tunnel-ip12's tunnel configuration read back;
- Subscribe, STREAM and ON_CHANGE, to tunnel-ip12's tunnel state: prints
  the leaves it first sends, up to sync_response; then, standing in for
  the router's tunnel manager, writes the state it would now report (the
  new ttl, and no GRE key since the replace left none) as
  OPER_DIR/tunnel-state.xml, and prints the changes the agent tells,
  until the state it told is that one.

    gnmi_session.py HOST:PORT USER CERT OPER_DIR

CERT is the agent's certificate (PEM), trusted as it is; OPER_DIR the
agent's --oper-dir.  The password is taken from OCTUNNEL_PASSWORD, else
asked for.  The gNMI stubs are generated from the protos in
third_party/gnmi beside this script, or those the package installs in
/usr/share/octunnel/gnmi (--protos), into a temporary directory.

Exit status: 0 done; 1 the agent refused a request, could not be reached,
or told no change of the state within 10 s; 2 a usage error.
"""

import argparse
import getpass
import json
import os
import queue
import shutil
import subprocess
import sys
import tempfile
import threading

import grpc

HERE = os.path.dirname(os.path.abspath(__file__))
T12 = "/interfaces/interface[name=tunnel-ip12]"
# How long the agent has to tell a change of its operational documents: it
# reads one as soon as it is renamed into the directory.
CHANGE_WAIT = 10

REPLACE = {
    "openconfig-interfaces:name": "tunnel-ip12",
    "openconfig-if-tunnel:tunnel": {
        "config": {"src": "192.0.2.1", "dst": "198.51.100.7", "ttl": 32},
    },
}

# What the router now reports of tunnel-ip12 (tid 12), tunnel-ip7 as before.
STATE = """<data xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">
  <tunnel-ip-ma xmlns="http://valmora.com/ns/yang/Valmora-tunnel-ip-ma-oper">
    <database>
      <tunnel-ids>
        <tunnel-id>
          <tid>12</tid>
          <idb-array>
            <source-address><ipv4>192.0.2.1</ipv4></source-address>
            <destination-address><ipv4>198.51.100.7</ipv4></destination-address>
            <ttl>32</ttl>
          </idb-array>
        </tunnel-id>
        <tunnel-id>
          <tid>7</tid>
          <idb-array>
            <source-address><ipv6>2001:db8::1</ipv6></source-address>
            <destination-address><ipv6>2001:db8::2</ipv6></destination-address>
            <ttl>255</ttl>
          </idb-array>
        </tunnel-id>
      </tunnel-ids>
    </database>
  </tunnel-ip-ma>
</data>
"""
# The leaves of tunnel-ip12's tunnel state once the agent has read STATE.
STATE_LEAVES = {"src": "192.0.2.1", "dst": "198.51.100.7", "ttl": 32}


def stubs(protos):
    """Generates gnmi_pb2 and gnmi_pb2_grpc from the protos into a temporary
    directory, and imports them."""
    out = tempfile.mkdtemp(prefix="gnmi-stubs-")
    done = subprocess.run([sys.executable, "-m", "grpc_tools.protoc", "-I", protos,
                           "--python_out=" + out, "--grpc_python_out=" + out, "gnmi.proto",
                           "github.com/openconfig/gnmi/proto/gnmi_ext/gnmi_ext.proto"],
                          capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"gnmi_session.py: cannot generate the gNMI stubs from {protos}:\n"
                 + done.stderr.strip())
    sys.path.insert(0, out)
    global pb, pb_grpc
    import gnmi_pb2 as pb
    import gnmi_pb2_grpc as pb_grpc
    return out


def path(text):
    """A gNMI path from /a/b[k=v]/c."""
    p = pb.Path()
    for part in [s for s in text.split("/") if s]:
        name, _, keys = part.partition("[")
        e = p.elem.add(name=name)
        for kv in [k for k in keys.rstrip("]").split("][") if k]:
            k, _, v = kv.partition("=")
            e.key[k] = v
    return p


def text(p):
    """A gNMI path as /a/b[k=v]/c, keys in their names' order."""
    return "".join("/" + e.name + "".join(f"[{k}={e.key[k]}]" for k in sorted(e.key))
                   for e in p.elem)


def value(v):
    """A TypedValue as Python: JSON parsed, a scalar as it is."""
    kind = v.WhichOneof("value")
    if kind in ("json_ietf_val", "json_val"):
        return json.loads(getattr(v, kind))
    if kind == "leaflist_val":
        return [value(e) for e in v.leaflist_val.element]
    return getattr(v, kind) if kind else None


class Failed(Exception):
    """Why the session cannot go on: the request and what the agent said."""


def call(what, rpc, *args, **kw):
    try:
        return rpc(*args, **kw)
    except grpc.RpcError as e:
        raise Failed(f"{what}: {e.code().name}: {e.details()}") from None


def write_state(oper_dir):
    """STATE as OPER_DIR/tunnel-state.xml, written under a name the agent
    does not read and renamed over it, so that it is never read half-way."""
    final = os.path.join(oper_dir, "tunnel-state.xml")
    partial = os.path.join(oper_dir, ".tunnel-state.xml")
    with open(partial, "w", encoding="utf-8") as f:
        f.write(STATE)
    os.rename(partial, final)


def subscribe(stub, metadata, target):
    """A STREAM of ON_CHANGE subscriptions to `target`: the responses come
    into a queue from a thread of their own, so that waiting for one can
    end; the call and its requests are ended by the returned stop()."""
    request = pb.SubscribeRequest(subscribe=pb.SubscriptionList(
        subscription=[pb.Subscription(path=path(target), mode=pb.ON_CHANGE)],
        mode=pb.SubscriptionList.STREAM, encoding=pb.JSON_IETF))
    done = threading.Event()

    def requests():
        yield request
        done.wait()  # the stream stays open until the session ends

    responses = stub.Subscribe(requests(), metadata=metadata)
    arrived = queue.Queue()

    def read():
        try:
            for r in responses:
                arrived.put(r)
            arrived.put(None)
        except grpc.RpcError as e:
            arrived.put(e)

    threading.Thread(target=read, daemon=True).start()

    def next_response():
        try:
            r = arrived.get(timeout=CHANGE_WAIT)
        except queue.Empty:
            raise Failed(f"Subscribe: nothing came in {CHANGE_WAIT} s") from None
        if isinstance(r, grpc.RpcError):
            if r.code() == grpc.StatusCode.CANCELLED and done.is_set():
                return None
            raise Failed(f"Subscribe: {r.code().name}: {r.details()}")
        if r is None:
            raise Failed("Subscribe: the agent ended the stream")
        return r

    def stop():
        done.set()
        responses.cancel()

    return next_response, stop


def show(notification, leaves, base):
    """Prints a notification's deletes, then its updates (in that order the
    receiver applies them), and applies them to `leaves`, by their paths
    below `base`."""
    prefix = text(notification.prefix)
    for d in notification.delete:
        p = prefix + text(d)
        print(f"  delete {p}")
        leaves.pop(p[len(base) + 1:], None)
    for u in notification.update:
        p = prefix + text(u.path)
        v = value(u.val)
        print(f"  update {p} = {json.dumps(v)}")
        leaves[p[len(base) + 1:]] = v


def session(args, password):
    with open(args.cert, "rb") as f:
        credentials = grpc.ssl_channel_credentials(f.read())
    channel = grpc.secure_channel(args.target, credentials)
    try:
        # An agent started a moment ago may still be reading its documents
        # before it listens: give it ten seconds.
        grpc.channel_ready_future(channel).result(timeout=10)
    except grpc.FutureTimeoutError:
        raise Failed(f"cannot connect to {args.target} over TLS with {args.cert} "
                      "in 10 s") from None
    stub = pb_grpc.gNMIStub(channel)
    metadata = [("username", args.user), ("password", password)]

    caps = call("Capabilities", stub.Capabilities, pb.CapabilityRequest(), metadata=metadata)
    print(f"gNMI {caps.gNMI_version}")
    for m in caps.supported_models:
        if m.name == "openconfig-if-tunnel":
            print(f"{m.name} {m.version} ({m.organization})")

    print("Set")
    answer = call("Set", stub.Set, pb.SetRequest(replace=[pb.Update(
        path=path(T12), val=pb.TypedValue(json_ietf_val=json.dumps(REPLACE).encode()))]),
        metadata=metadata)
    for r in answer.response:
        print(f"  {pb.UpdateResult.Operation.Name(r.op)} {text(r.path)}")

    config = T12 + "/tunnel/config"
    print(f"Get {config}")
    answer = call("Get", stub.Get, pb.GetRequest(path=[path(config)], encoding=pb.JSON_IETF),
                  metadata=metadata)
    for n in answer.notification:
        for u in n.update:
            print("  " + json.dumps(value(u.val), indent=2).replace("\n", "\n  "))

    state = T12 + "/tunnel/state"
    print(f"Subscribe STREAM ON_CHANGE {state}")
    next_response, stop = subscribe(stub, metadata, state)
    try:
        leaves = {}
        while not (r := next_response()).HasField("sync_response"):
            show(r.update, leaves, state)
        print("  sync_response")
        write_state(args.oper_dir)
        print("tunnel-state.xml written into the operational directory: tunnel-ip12's ttl is 32,"
              " and it has no GRE key")
        if leaves == STATE_LEAVES:
            print("  the state was so already: no change to tell")
        while leaves != STATE_LEAVES:
            try:
                r = next_response()
            except Failed as e:
                raise Failed(f"{e} (is {args.oper_dir} the agent's --oper-dir?)") from None
            show(r.update, leaves, state)
    finally:
        stop()
        channel.close()


def default_protos():
    """The protos of the checkout this script is in, or those installed
    with the package beside its examples."""
    for d in (os.path.join(HERE, "..", "third_party", "gnmi"), "/usr/share/octunnel/gnmi"):
        if os.path.isfile(os.path.join(d, "gnmi.proto")):
            return os.path.normpath(d)
    return os.path.normpath(os.path.join(HERE, "..", "third_party", "gnmi"))


def main():
    parser = argparse.ArgumentParser(
        prog="gnmi_session.py", description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("target", metavar="HOST:PORT", help="the agent's --gnmi address")
    parser.add_argument("user", metavar="USER")
    parser.add_argument("cert", metavar="CERT", help="the agent's certificate (PEM)")
    parser.add_argument("oper_dir", metavar="OPER_DIR", help="the agent's --oper-dir")
    parser.add_argument("--protos", default=default_protos(),
                        help="the directory of gnmi.proto (default: %(default)s)")
    args = parser.parse_args()
    if ":" not in args.target:
        parser.error(f"HOST:PORT expected, not '{args.target}'")
    for name, kind in ((args.cert, os.path.isfile), (args.oper_dir, os.path.isdir)):
        if not kind(name):
            parser.error(f"{name}: no such {'file' if kind is os.path.isfile else 'directory'}")
    password = os.environ.get("OCTUNNEL_PASSWORD") or getpass.getpass(
        f"{args.user}'s password: ")
    out = stubs(args.protos)
    try:
        session(args, password)
    except Failed as e:
        sys.exit(f"gnmi_session.py: {e}")
    finally:
        shutil.rmtree(out, ignore_errors=True)


if __name__ == "__main__":
    main()
