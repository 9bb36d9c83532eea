"""Subscribe on the one agent: ONCE and POLL (the leaves at the paths, then
sync_response; at each poll the data as it stands then), STREAM in ON_CHANGE
(what a commit of either protocol or an operational document changed, and no
more) and SAMPLE (with suppress_redundant and heartbeats); what is refused;
a subscriber that never reads, cut off while edits go on; and streams that
hold no thread while they wait."""

import json
import os
import queue
import shutil
import tempfile
import threading

import grpc

import harness
from gnmi_harness import Agent, path, pb, refused

T12 = "/interfaces/interface[name=tunnel-ip12]"
G12 = "interfaces/interface[name=tunnel-ip12]"
G7 = "interfaces/interface[name=tunnel-ip7]"


def text_of(p):
    """A gNMI path as text, with its keys: a/b[k=v]/c."""
    return "/".join(e.name + "".join(f"[{k}={v}]" for k, v in sorted(e.key.items()))
                    for e in p.elem)


class Stream:
    """A Subscribe stream whose requests the test sends one by one, and
    whose responses a thread of its own takes as they come (unless `reading`
    is false: then the test reads nothing until it asks)."""

    def __init__(self, client, subscribe, reading=True):
        self.requests = queue.Queue()
        self.requests.put(subscribe)
        self.responses = client.stub.Subscribe(iter(self.requests.get, None),
                                               metadata=client.metadata)
        self.got = queue.Queue()
        if reading:
            self.read()

    def read(self):
        threading.Thread(target=self._take, daemon=True).start()

    def _take(self):
        try:
            for r in self.responses:
                self.got.put(r)
            self.got.put(None)
        except grpc.RpcError as e:
            self.got.put(e)

    def send(self, request):
        self.requests.put(request)

    def next(self, timeout=30):
        """The next response; None once the RPC is done well; an RpcError
        once it failed."""
        return self.got.get(timeout=timeout)

    def notification(self, timeout=30):
        """The next Notification as (updates, deletes): {path: value} and
        a set of paths."""
        r = self.next(timeout)
        assert isinstance(r, pb.SubscribeResponse) and r.HasField("update"), r
        return ({text_of(u.path): json.loads(u.val.json_ietf_val or u.val.json_val)
                 for u in r.update.update},
                {text_of(d) for d in r.update.delete})

    def until_sync(self):
        """The updates up to the next sync_response, as {path: value}."""
        out = {}
        while True:
            r = self.next()
            assert isinstance(r, pb.SubscribeResponse), r
            if r.HasField("sync_response"):
                return out
            for u in r.update.update:
                out[text_of(u.path)] = json.loads(u.val.json_ietf_val or u.val.json_val)

    def end(self):
        """How the RPC ended: None for OK, else the RpcError."""
        while True:
            r = self.next()
            if not isinstance(r, pb.SubscribeResponse):
                return r

    def close(self):
        self.requests.put(None)
        self.responses.cancel()


def subscription(*paths, mode=pb.SubscriptionList.ONCE, encoding=pb.JSON_IETF, entry=None, **kw):
    return pb.SubscribeRequest(subscribe=pb.SubscriptionList(
        subscription=[pb.Subscription(path=path(p), **(entry or {})) for p in paths], mode=mode,
        encoding=encoding, **kw))


def stream(*paths, **entry):
    return subscription(*paths, mode=pb.SubscriptionList.STREAM, entry=entry)


def ttl(name, value):
    return harness.config(harness.tunnel(name, f"<config><ttl>{value}</ttl></config>"))


def test_once_sends_the_leaves_then_sync_response_and_ends():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        s = Stream(c, subscription("/interfaces/interface/tunnel/config/ttl",
                                   T12 + "/tunnel/config", "/interfaces/interface[name=no]"))
        # Each leaf an update of its own, with its full path and keys.
        assert s.until_sync() == {
            f"{G12}/tunnel/config/ttl": 64,
            "interfaces/interface[name=tunnel-ip13]/tunnel/config/ttl": 128,
            f"{G12}/tunnel/config/src": "192.0.2.1",
            f"{G12}/tunnel/config/dst": "198.51.100.7",
            f"{G12}/tunnel/config/gre-key": 1001}
        assert s.end() is None  # and the RPC is done
        s.close()
        # updates_only: sync_response alone.
        s = Stream(c, subscription(T12, updates_only=True))
        assert s.until_sync() == {} and s.end() is None
        s.close()
        m.close_session()
        c.close()


def test_poll_answers_each_poll_with_the_data_as_it_stands():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        s = Stream(c, subscription(T12 + "/tunnel/config/ttl", mode=pb.SubscriptionList.POLL,
                                   encoding=pb.JSON))
        assert s.until_sync() == {f"{G12}/tunnel/config/ttl": 64}
        m.edit_config(target="running", config=ttl("tunnel-ip12", 12))
        s.send(pb.SubscribeRequest(poll=pb.Poll()))
        assert s.until_sync() == {f"{G12}/tunnel/config/ttl": 12}
        c.set(delete=[T12 + "/tunnel/config/ttl"])
        s.send(pb.SubscribeRequest(poll=pb.Poll()))
        assert s.until_sync() == {}
        # A second subscription list on the stream is refused.
        s.send(subscription(T12))
        assert s.end().code() == grpc.StatusCode.INVALID_ARGUMENT
        s.close()
        m.close_session()
        c.close()


def test_on_change_tells_what_either_protocol_or_the_operational_data_changed():
    oper = tempfile.mkdtemp(prefix="octunnel-oper-")
    try:
        state = harness.read(harness.source("examples", "tunnel-state.xml"))
        with open(os.path.join(oper, "tunnels.xml"), "w", encoding="utf-8") as f:
            f.write(state)
        with Agent("--oper-dir", oper, "--verbose") as agent:
            m, c = agent.connect(), agent.gnmi()
            m.edit_config(target="running", config=harness.as_config(harness.BASE))
            paths = (T12 + "/tunnel/config", "/interfaces/interface[name=tunnel-ip7]/tunnel/state")
            s = Stream(c, stream(*paths, mode=pb.ON_CHANGE))
            first = s.until_sync()
            assert first[f"{G12}/tunnel/config/ttl"] == 64
            assert first[f"{G7}/tunnel/state/ttl"] == 255
            assert not any(p.startswith("interfaces/interface[name=tunnel-ip13]") for p in first)
            quiet = Stream(c, stream(*paths, mode=pb.TARGET_DEFINED))
            later = Stream(c, subscription(*paths, mode=pb.SubscriptionList.STREAM,
                                           updates_only=True))
            assert later.until_sync() == {}

            # A NETCONF commit: the one leaf it changed, to each stream.
            m.edit_config(target="running", config=ttl("tunnel-ip12", 9))
            assert s.notification() == ({f"{G12}/tunnel/config/ttl": 9}, set())
            assert later.notification() == ({f"{G12}/tunnel/config/ttl": 9}, set())
            # A change of what no path names tells nothing; a gNMI delete
            # is a delete.
            m.edit_config(target="running", config=ttl("tunnel-ip13", 3))
            c.set(delete=[T12 + "/tunnel/config/gre-key"])
            assert s.notification() == ({}, {f"{G12}/tunnel/config/gre-key"})
            # The operational document changes.
            with open(os.path.join(oper, "tunnels.xml"), "w", encoding="utf-8") as f:
                f.write(state.replace("<ttl>255</ttl>", "<ttl>17</ttl>"))
            got = s.notification()
            assert got == ({f"{G7}/tunnel/state/ttl": 17}, set()), got
            # The interface goes: what the path selected goes with it.
            m.edit_config(target="running", config=harness.config(
                '<interface xmlns:nc="urn:ietf:params:xml:ns:netconf:base:1.0" '
                'nc:operation="delete"><name>tunnel-ip12</name></interface>'))
            assert s.notification() == ({}, {f"{G12}/tunnel/config"})
            # TARGET_DEFINED streams as ON_CHANGE does.
            assert quiet.until_sync()[f"{G12}/tunnel/config/ttl"] == 64
            assert quiet.notification()[0] == {f"{G12}/tunnel/config/ttl": 9}
            for x in (s, quiet, later):
                x.close()
            m.close_session()
            c.close()
    finally:
        shutil.rmtree(oper)


def test_sample_tells_every_value_each_interval_unless_redundant_and_heartbeats():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        leaf = T12 + "/tunnel/config/ttl"
        second = 1_000_000_000
        s = Stream(c, stream(leaf, mode=pb.SAMPLE, sample_interval=second))
        assert s.until_sync() == {f"{G12}/tunnel/config/ttl": 64}
        a, b = s.next(), s.next()
        assert [text_of(u.path) for r in (a, b) for u in r.update.update] == \
            [f"{G12}/tunnel/config/ttl"] * 2
        # Samples come an interval apart, at least.
        assert b.update.timestamp - a.update.timestamp >= second * 0.99
        s.close()

        # suppress_redundant: only a value that changed, and every value at
        # each heartbeat.
        s = Stream(c, stream(leaf, T12 + "/tunnel/config/src", mode=pb.SAMPLE,
                             sample_interval=second, suppress_redundant=True,
                             heartbeat_interval=3 * second))
        assert len(s.until_sync()) == 2
        m.edit_config(target="running", config=ttl("tunnel-ip12", 33))
        changed = s.next()
        assert {text_of(u.path): u.val.json_ietf_val for u in changed.update.update} == \
            {f"{G12}/tunnel/config/ttl": b"33"}
        beat = s.next()
        assert {text_of(u.path) for u in beat.update.update} == \
            {f"{G12}/tunnel/config/ttl", f"{G12}/tunnel/config/src"}
        s.close()
        m.close_session()
        c.close()


def test_streams_refused_name_what_is_wrong():
    with Agent() as agent:
        c = agent.gnmi()
        millisecond = 1_000_000
        cases = [
            (stream(T12, mode=pb.SAMPLE, sample_interval=millisecond),
             grpc.StatusCode.INVALID_ARGUMENT, "sample_interval 1000000 ns is below"),
            (stream(T12, mode=pb.ON_CHANGE, heartbeat_interval=millisecond),
             grpc.StatusCode.INVALID_ARGUMENT, "heartbeat_interval"),
            (subscription(*[T12] * 65, mode=pb.SubscriptionList.STREAM),
             grpc.StatusCode.INVALID_ARGUMENT, "at most 64"),
            (subscription(T12 + "/bogus"), grpc.StatusCode.UNIMPLEMENTED,
             "the models have no " + T12 + "/bogus"),
            (subscription(T12, encoding=pb.PROTO), grpc.StatusCode.UNIMPLEMENTED, "JSON_IETF"),
            (subscription("cli:/interfaces"), grpc.StatusCode.INVALID_ARGUMENT, "origin"),
            (subscription(), grpc.StatusCode.INVALID_ARGUMENT, "without a subscription"),
            (pb.SubscribeRequest(poll=pb.Poll()), grpc.StatusCode.INVALID_ARGUMENT,
             "begins with its subscription list"),
        ]
        for request, code, says in cases:
            s = Stream(c, request)
            e = s.end()
            assert e is not None and e.code() == code and says in e.details(), (says, e)
            s.close()
        # A stream takes no request after its list.
        s = Stream(c, stream(T12))
        s.until_sync()
        s.send(pb.SubscribeRequest(poll=pb.Poll()))
        assert s.end().code() == grpc.StatusCode.INVALID_ARGUMENT
        s.close()
        anonymous = agent.gnmi(None, None)
        s = Stream(anonymous, subscription(T12))
        assert s.end().code() == grpc.StatusCode.UNAUTHENTICATED
        s.close()
        c.close()


def many_interfaces(n):
    """A Set's value of /interfaces: `n` tunnels."""
    return {"openconfig-interfaces:interface": [
        {"name": f"tunnel-ip{i}",
         "openconfig-if-tunnel:tunnel": {"config": {"src": "192.0.2.1", "dst": "198.51.100.7",
                                                    "ttl": 64}}}
        for i in range(1, n + 1)]}


def test_a_subscriber_that_never_reads_is_cut_off_while_edits_go_on():
    with Agent("--gnmi-max-lag", "1", "--verbose") as agent:
        c = agent.gnmi()
        c.set(replace=[("/interfaces", many_interfaces(5000))])
        # A client whose window stays small, so that what it does not read
        # stays with the agent.
        slow = agent.gnmi(options=[("grpc.http2.bdp_probe", 0),
                                   ("grpc.http2.lookahead_bytes", 16384)])
        stuck = Stream(slow, stream("/interfaces", mode=pb.ON_CHANGE), reading=False)
        watcher = Stream(c, stream(T12.replace("ip12", "ip5") + "/tunnel/config/ttl",
                                   mode=pb.ON_CHANGE))
        assert watcher.until_sync() == {
            "interfaces/interface[name=tunnel-ip5]/tunnel/config/ttl": 64}
        # Edits go on, and the subscriber that reads hears of each.
        for value in range(10, 14):
            c.set(update=[(T12.replace("ip12", "ip5") + "/tunnel/config/ttl", value)])
            assert watcher.notification() == (
                {"interfaces/interface[name=tunnel-ip5]/tunnel/config/ttl": value}, set())
        agent.wait_log("cut off: it fell behind")
        # The one that never read finds, once it reads, what was under way
        # and then why its stream ended.
        stuck.read()
        e = stuck.end()
        assert e is not None and e.code() == grpc.StatusCode.RESOURCE_EXHAUSTED, e
        assert "fell behind" in e.details()
        stuck.close()
        slow.close()
        # The agent stops cleanly with streams open, one of them to a client
        # that reads nothing: they end UNAVAILABLE.
        slow = agent.gnmi(options=[("grpc.http2.bdp_probe", 0),
                                   ("grpc.http2.lookahead_bytes", 16384)])
        stuck = Stream(slow, stream("/interfaces", mode=pb.ON_CHANGE), reading=False)
        agent.stop()
        e = watcher.end()
        assert e.code() == grpc.StatusCode.UNAVAILABLE and "stopping" in e.details(), e
        for x in (watcher, stuck, slow, c):
            x.close()


def test_streams_hold_no_thread_and_their_number_is_bounded():
    users = {f"user{i}": "pass" for i in range(5)}
    with Agent(users=users) as agent:
        # 16 streams a user, 64 in all; each channel carries 16 at most.
        clients = [agent.gnmi(f"user{i}", "pass") for i in range(5)]
        held = [Stream(clients[i // 16], stream("/interfaces", mode=pb.ON_CHANGE))
                for i in range(64)]
        for s in held:
            assert s.until_sync() == {}
        extra = Stream(clients[4], stream("/interfaces"))
        e = extra.end()
        assert e.code() == grpc.StatusCode.RESOURCE_EXHAUSTED and "64 subscriptions" in e.details()
        # Get and Set are served all the while, and every stream hears.
        c = clients[4]
        c.set(update=[(T12 + "/tunnel/config/ttl", 7)])
        assert c.get_json(T12 + "/tunnel/config/ttl") == 7
        for s in held:
            assert s.notification()[0][f"{G12}/tunnel/config/ttl"] == 7
        # A place is free once a stream is gone; but not for a user who
        # holds 16.
        held.pop().close()
        user0 = agent.gnmi("user0", "pass")
        for _ in range(100):
            again = Stream(user0, stream("/interfaces"))
            r = again.next()
            again.close()
            assert not isinstance(r, pb.SubscribeResponse)
            if "as many as one user may" in r.details():
                break
        else:
            raise AssertionError("a user held a 17th stream, or no place came free")
        for _ in range(100):
            again = Stream(c, stream("/interfaces"))
            r = again.next()
            again.close()
            if isinstance(r, pb.SubscribeResponse):
                break
        else:
            raise AssertionError("no place came free")
        for s in held:
            s.close()
        for x in clients + [user0]:
            x.close()
