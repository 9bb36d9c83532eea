"""Subscribe in ONCE and POLL modes on the one agent: the data at the paths,
then sync_response; at each poll, the data as it stands then, NETCONF's
edits included; the modes, paths and encodings refused; and the streams
that may be open at once."""

import json
import queue

import grpc

import harness
from gnmi_harness import Agent, path, pb, refused

T12 = "/interfaces/interface[name=tunnel-ip12]"


class Stream:
    """A Subscribe stream whose requests the test sends one by one."""

    def __init__(self, client, subscribe):
        self.requests = queue.Queue()
        self.requests.put(subscribe)
        self.responses = client.stub.Subscribe(iter(self.requests.get, None),
                                               metadata=client.metadata)

    def send(self, request):
        self.requests.put(request)

    def until_sync(self):
        """The values of the updates up to the next sync_response."""
        out = []
        for r in self.responses:
            if r.HasField("sync_response"):
                return out
            for u in r.update.update:
                out.append(("/".join(e.name for e in u.path.elem),
                            json.loads(u.val.json_ietf_val or u.val.json_val)))
        raise AssertionError("the stream ended before sync_response")

    def close(self):
        self.requests.put(None)
        self.responses.cancel()


def subscription(*paths, mode=pb.SubscriptionList.ONCE, encoding=pb.JSON_IETF, **kw):
    return pb.SubscribeRequest(subscribe=pb.SubscriptionList(
        subscription=[pb.Subscription(path=path(p)) for p in paths], mode=mode,
        encoding=encoding, **kw))


def test_once_sends_the_data_then_sync_response_and_ends():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        s = Stream(c, subscription("/interfaces/interface/tunnel/config/ttl",
                                   T12 + "/tunnel/config/gre-key", "/interfaces/interface[name=no]"))
        assert sorted(s.until_sync()) == [
            ("interfaces/interface/tunnel/config/gre-key", 1001),
            ("interfaces/interface/tunnel/config/ttl", 64),
            ("interfaces/interface/tunnel/config/ttl", 128)]
        assert list(s.responses) == []  # and the RPC is done
        s.close()
        # updates_only: sync_response alone.
        s = Stream(c, subscription(T12, updates_only=True))
        assert s.until_sync() == [] and list(s.responses) == []
        s.close()
        m.close_session()
        c.close()


def test_poll_answers_each_poll_with_the_data_as_it_stands():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        s = Stream(c, subscription(T12 + "/tunnel/config/ttl", mode=pb.SubscriptionList.POLL,
                                   encoding=pb.JSON))
        assert s.until_sync() == [("interfaces/interface/tunnel/config/ttl", 64)]
        m.edit_config(target="running", config=harness.config(harness.tunnel(
            "tunnel-ip12", "<config><ttl>12</ttl></config>")))
        s.send(pb.SubscribeRequest(poll=pb.Poll()))
        assert s.until_sync() == [("interfaces/interface/tunnel/config/ttl", 12)]
        c.set(delete=[T12 + "/tunnel/config/ttl"])
        s.send(pb.SubscribeRequest(poll=pb.Poll()))
        assert s.until_sync() == []
        # A second subscription list on the stream is refused.
        s.send(subscription(T12))
        try:
            list(s.responses)
            raise AssertionError("a second subscription list was taken")
        except grpc.RpcError as e:
            assert e.code() == grpc.StatusCode.INVALID_ARGUMENT, e
        s.close()
        m.close_session()
        c.close()


def test_modes_paths_and_encodings_refused():
    with Agent() as agent:
        c = agent.gnmi()
        cases = [
            (subscription(T12, mode=pb.SubscriptionList.STREAM), grpc.StatusCode.UNIMPLEMENTED,
             "STREAM"),
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
            details = refused(lambda: list(s.responses), code)
            assert says in details, (says, details)
            s.close()
        anonymous = agent.gnmi(None, None)
        s = Stream(anonymous, subscription(T12))
        refused(lambda: list(s.responses), grpc.StatusCode.UNAUTHENTICATED)
        s.close()
        c.close()


def test_at_most_four_streams_at_once():
    with Agent("--verbose") as agent:
        c = agent.gnmi()
        held = [Stream(c, subscription("/interfaces", mode=pb.SubscriptionList.POLL,
                                       updates_only=True)) for _ in range(4)]
        for s in held:
            assert s.until_sync() == []
        extra = Stream(c, subscription("/interfaces", updates_only=True))
        details = refused(lambda: list(extra.responses), grpc.StatusCode.RESOURCE_EXHAUSTED)
        assert "4 Subscribe streams" in details
        # Get and Set are served all the while.
        c.set(update=[(T12 + "/tunnel/config/ttl", 3)])
        assert c.get_json(T12 + "/tunnel/config/ttl") == 3
        ended = "".join(agent.log).count("gNMI Subscribe of")
        held.pop().close()
        # Its place is free once its end is logged.
        agent.wait_log("gNMI Subscribe of", ended + 1)
        again = Stream(c, subscription("/interfaces", updates_only=True))
        assert again.until_sync() == []
        again.close()
        for s in held:
            s.close()
        c.close()
