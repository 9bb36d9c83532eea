"""Set as one transaction: its deletes, replaces and updates in that order,
all of them applied and on disk before the answer or none of them, and its
refusals, each a status naming the path and the reason."""

import re

import grpc

import harness
from gnmi_harness import Agent, pb, refused

T12 = "/interfaces/interface[name=tunnel-ip12]"
T13 = "/interfaces/interface[name=tunnel-ip13]"
TTL = T12 + "/tunnel/config/ttl"


def seeded(agent):
    """A NETCONF session and a gNMI client to `agent`, the round-trip
    configuration in place."""
    m = agent.connect()
    m.edit_config(target="running", config=harness.as_config(harness.BASE))
    return m, agent.gnmi()


def commit_of(native):
    return int(re.search(r"through commit (\d+)", native).group(1))


def test_deletes_then_replaces_then_updates_as_one_commit():
    with Agent() as agent:
        m, c = seeded(agent)
        before = commit_of(harness.committed(agent))
        r = c.set(delete=[T13, T12 + "/tunnel/ipv6"],
                  replace=[(T12 + "/tunnel/config", {"src": "192.0.2.9", "dst": "198.51.100.9"})],
                  update=[(TTL, 33)])
        assert [x.op for x in r.response] == [pb.UpdateResult.DELETE, pb.UpdateResult.DELETE,
                                             pb.UpdateResult.REPLACE, pb.UpdateResult.UPDATE]
        assert r.timestamp > 0
        got = harness.leaves(m.get_config("running"))
        config = {x for x in got if "/tunnel/config/" in x}
        # The replace took the gre-key away; the update after it set ttl.
        assert config == {"/interfaces/interface[tunnel-ip12]/tunnel/config/src=192.0.2.9",
                          "/interfaces/interface[tunnel-ip12]/tunnel/config/dst=198.51.100.9",
                          "/interfaces/interface[tunnel-ip12]/tunnel/config/ttl=33"}, config
        assert not any("tunnel-ip13" in x or "/ipv6/" in x for x in got), got
        # One commit, on disk before the answer, holding all of it.
        native = harness.committed(agent)
        assert commit_of(native) == before + 1
        assert {x for x in harness.tool_leaves(native) if "/state/" not in x} == got
        m.close_session()
        c.close()


def test_a_set_with_one_refused_operation_applies_nothing():
    with Agent() as agent:
        m, c = seeded(agent)
        before, native = harness.leaves(m.get_config("running")), harness.committed(agent)
        cases = [
            # The models refuse the second update's value.
            (dict(update=[(TTL, 5), (T12 + "/tunnel/config/gre-key", "not a number")]),
             "gre-key"),
            # A delete and a replace the module would take, then a ttl of
            # no uint8.
            (dict(delete=[T13], replace=[(T12 + "/tunnel/config/dst", "198.51.100.1")],
                  update=[(TTL, 300)]), "ttl"),
            # A state leaf, refused by the agent once every value is read.
            (dict(update=[(TTL, 5), (T12 + "/tunnel/ipv6/state/mtu", 1300)]),
             "a Set of 2 operations, none applied"),
        ]
        for case, says in cases:
            details = refused(lambda: c.set(**case), grpc.StatusCode.INVALID_ARGUMENT)
            assert says in details, (says, details)
            assert harness.leaves(m.get_config("running")) == before, case
            assert harness.committed(agent) == native
        m.close_session()
        c.close()


def test_refusals_are_statuses_naming_the_path_and_reason():
    with Agent() as agent:
        m, c = seeded(agent)
        scalar = pb.TypedValue
        cases = [
            (dict(update=[(TTL, 300)]), grpc.StatusCode.INVALID_ARGUMENT,
             [TTL + ":", "ttl"]),
            (dict(update=[(T12 + "/tunnel/ipv6/state/mtu", 1300)]),
             grpc.StatusCode.INVALID_ARGUMENT, ["/tunnel/ipv6/state/mtu:", "state"]),
            (dict(update=[("/interfaces/interface[name=*]/tunnel/config/ttl", 1)]),
             grpc.StatusCode.INVALID_ARGUMENT, ["no wildcard"]),
            (dict(update=[("/interfaces/interface/tunnel/config/ttl", 1)]),
             grpc.StatusCode.INVALID_ARGUMENT, ["every key"]),
            (dict(delete=["/interfaces/interface[name=tunnel-ip12]/tunnel/confg"]),
             grpc.StatusCode.INVALID_ARGUMENT, ["the models have no " + T12 + "/tunnel/confg"]),
            (dict(replace=[(T12, {"name": "tunnel-ip99"})]), grpc.StatusCode.INVALID_ARGUMENT,
             [T12 + ":", "is not the path's"]),
            (dict(update=[(T12 + "/tunnel/config", {"bogus": 1})]),
             grpc.StatusCode.INVALID_ARGUMENT, ["the models have no bogus"]),
            (dict(update=[(TTL, scalar(json_ietf_val=b"{not json"))]),
             grpc.StatusCode.INVALID_ARGUMENT, [TTL + ":", "not JSON"]),
            (dict(update=[(TTL, scalar(ascii_val="1"))]), grpc.StatusCode.UNIMPLEMENTED,
             ["json_ietf_val"]),
            (dict(update=[("/nacm/enable-nacm", False)]), grpc.StatusCode.INVALID_ARGUMENT,
             ["the models have no /nacm"]),
            # What XML cannot carry never reaches an edit.
            (dict(delete=["/interfaces/interface[name=tunnel\x01ip12]"]),
             grpc.StatusCode.INVALID_ARGUMENT, ["element 2 of the path", "XML can hold"]),
            (dict(update=[(T12 + "/tunnel/config", {"src": "192.0.2.1\x02"})]),
             grpc.StatusCode.INVALID_ARGUMENT, ["a string of the value", "XML can hold"]),
            (dict(update=[(TTL, scalar(json_ietf_val=b"[" * 100 + b"]" * 100))]),
             grpc.StatusCode.INVALID_ARGUMENT, ["nests deeper than 64 levels"]),
        ]
        for kw, code, says in cases:
            details = refused(lambda: c.set(**kw), code)
            for s in says:
                assert s in details, (s, details)
        # A message quoting a value of megabytes is cut short: it travels in
        # the trailers.
        details = refused(lambda: c.set(update=[(TTL, "x" * 4_000_000)]),
                          grpc.StatusCode.INVALID_ARGUMENT)
        assert details.startswith(TTL + ": ") and len(details) <= 1100, details[:200]
        refused(lambda: c.stub.Set(pb.SetRequest(union_replace=[pb.Update()]),
                                   metadata=c.metadata), grpc.StatusCode.UNIMPLEMENTED)
        refused(lambda: c.stub.Set(pb.SetRequest(), metadata=c.metadata),
                grpc.StatusCode.INVALID_ARGUMENT)
        # Scalars are values too; a delete of what is not there is done.
        c.set(update=[(TTL, scalar(uint_val=17))],
              delete=["/interfaces/interface[name=nowhere]/tunnel/config/ttl"])
        assert c.get_json(TTL) == 17
        # The running configuration locked over NETCONF: ABORTED, naming
        # the session that holds it.
        with m.locked("running"):
            details = refused(lambda: c.set(update=[(TTL, 18)]), grpc.StatusCode.ABORTED)
            assert "locked by session" in details, details
        c.set(update=[(TTL, 18)])
        m.close_session()
        c.close()
