"""Get and Set through the gNMI front on the one agent: the bundled
configurations round trip in both encodings, each protocol sees the other's
edits at once, and Get's paths, wildcards, types and refusals."""

import json

import grpc

import harness
from gnmi_harness import Agent, g_leaves, pb, refused, yanglint_accepts

T12 = "/interfaces/interface[name=tunnel-ip12]"
EXAMPLES = [harness.source("examples", "tunnel-edit.xml"), harness.BASE]


def test_bundled_configurations_round_trip_through_set_and_get_in_both_encodings():
    """Each bundled OpenConfig configuration, edited over NETCONF, read over
    gNMI (CONFIG) and set back whole by gNMI into an empty agent, reads
    back over NETCONF as it was; both encodings say the same leaves."""
    for doc in EXAMPLES:
        with Agent() as agent:
            m, c = agent.connect(), agent.gnmi()
            m.edit_config(target="running", config=harness.as_config(doc))
            expected = harness.leaves(m.get_config("running"))
            values = {e: c.get_json("/interfaces", encoding=e, type=pb.GetRequest.CONFIG)
                      for e in (pb.JSON_IETF, pb.JSON)}
            assert g_leaves(values[pb.JSON_IETF]) == g_leaves(values[pb.JSON])
            assert not any(":" in name for name in member_names(values[pb.JSON]))
            yanglint_accepts({"openconfig-interfaces:interfaces": values[pb.JSON_IETF]},
                             "getconfig")
            for encoding, value in values.items():
                c.set(delete=["/interfaces"])
                left = harness.leaves(m.get_config("running"))
                assert not left, left
                c.set(replace=[("/interfaces", value)], encoding=encoding)
                assert harness.leaves(m.get_config("running")) == expected, (doc, encoding)
                assert c.get_json("/interfaces", encoding=encoding,
                                  type=pb.GetRequest.CONFIG) == value
            m.close_session()
            c.close()


def member_names(value):
    if isinstance(value, dict):
        return set(value) | {n for v in value.values() for n in member_names(v)}
    if isinstance(value, list):
        return {n for v in value for n in member_names(v)}
    return set()


def test_each_protocol_sees_the_others_edit_at_once():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        c.set(update=[(T12 + "/tunnel/config/ttl", 77)])
        assert f"{'/interfaces/interface[tunnel-ip12]/tunnel/config/ttl'}=77" in \
            harness.leaves(m.get_config("running"))
        m.edit_config(target="running", config=harness.config(harness.tunnel(
            "tunnel-ip12", "<config><ttl>12</ttl></config>")))
        assert c.get_json(T12 + "/tunnel/config/ttl") == 12
        # The Set is on disk before its answer.
        c.set(update=[(T12 + "/tunnel/config/ttl", 21)])
        assert "<value>21</value>" in harness.committed(agent)
        m.close_session()
        c.close()


def updates(response):
    """(path text, value) of each update of each notification."""
    out = []
    for n in response.notification:
        assert n.timestamp > 0
        for u in n.update:
            text = "".join("/" + e.name + "".join(f"[{k}={v}]" for k, v in sorted(e.key.items()))
                           for e in u.path.elem)
            out.append((text, json.loads(u.val.json_ietf_val or u.val.json_val)))
    return out


def test_get_paths_keys_wildcards_prefix_origin_and_types():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        both = [("/interfaces/interface[name=tunnel-ip12]/tunnel/config/ttl", 64),
                ("/interfaces/interface[name=tunnel-ip13]/tunnel/config/ttl", 128)]
        for p in ("/interfaces/interface[name=*]/tunnel/config/ttl",
                  "/interfaces/interface/tunnel/config/ttl", "/interfaces/.../ttl",
                  "/interfaces/*/tunnel/*/ttl", "/.../config/ttl",
                  "openconfig:/interfaces/interface/openconfig-if-tunnel:tunnel/config/ttl"):
            assert sorted(updates(c.get(p))) == both, p
        assert updates(c.get("/tunnel/config/ttl", prefix=T12)) == both[:1]
        # Paths that name their interfaces read those alone, whatever the
        # key holds; any other reads everything.
        assert sorted(updates(c.get(*[p for p, _ in both]))) == both
        assert sorted(updates(c.get(both[0][0], "/interfaces/interface/tunnel/config/ttl"))) == \
            sorted([both[0]] + both)
        for odd in ("a<name>tunnel-ip12", "x&y"):
            refused(lambda: c.get(f"/interfaces/interface[name={odd}]/tunnel/config/ttl"),
                    grpc.StatusCode.NOT_FOUND)
        # One notification a path, in the request's order.
        r = c.get(T12 + "/tunnel/config/gre-key", T12 + "/tunnel/config/ttl")
        assert [updates(pb.GetResponse(notification=[n])) for n in r.notification] == [
            [(T12 + "/tunnel/config/gre-key", 1001)], [(T12 + "/tunnel/config/ttl", 64)]]
        # JSON_IETF names the value's members with their module, JSON never.
        ietf = c.get_json(T12 + "/tunnel/ipv6")
        assert set(ietf) == {"openconfig-if-tunnel:addresses", "openconfig-if-tunnel:config",
                             "openconfig-if-tunnel:state"}, ietf
        assert set(c.get_json(T12 + "/tunnel/ipv6", encoding=pb.JSON)) == {
            "addresses", "config", "state"}
        # STATE keeps what is read-only (and the keys), CONFIG what is not.
        state = g_leaves(c.get_json(T12 + "/tunnel/ipv6", type=pb.GetRequest.STATE))
        config = g_leaves(c.get_json(T12 + "/tunnel/ipv6", type=pb.GetRequest.CONFIG))
        everything = g_leaves(c.get_json(T12 + "/tunnel/ipv6"))
        assert state and config and state | config == everything
        assert all("/state/" in p or p.endswith("/ip") for p, _ in state), state
        assert not any("/state/" in p for p, _ in config), config
        assert g_leaves(c.get_json(T12 + "/tunnel/ipv6", type=pb.GetRequest.OPERATIONAL)) == state
        m.close_session()
        c.close()


def test_get_refusals_name_the_path():
    with Agent() as agent:
        m, c = agent.connect(), agent.gnmi()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        cases = [
            (lambda: c.get("/interfaces/interface[name=nope]"), grpc.StatusCode.NOT_FOUND,
             "/interfaces/interface[name=nope]: no data"),
            (lambda: c.get(T12 + "/tunnel/config/ttl", type=pb.GetRequest.STATE),
             grpc.StatusCode.NOT_FOUND, "ttl: no data"),
            (lambda: c.get(T12, encoding=pb.PROTO), grpc.StatusCode.UNIMPLEMENTED,
             "JSON_IETF and JSON"),
            (lambda: c.get(T12, encoding=pb.ASCII), grpc.StatusCode.UNIMPLEMENTED, "JSON"),
            (lambda: c.get("/interfaces/interface/bogus"), grpc.StatusCode.INVALID_ARGUMENT,
             "the models have no /interfaces/interface/bogus"),
            (lambda: c.get("/nacm"), grpc.StatusCode.INVALID_ARGUMENT, "the models have no /nacm"),
            (lambda: c.get("/interfaces/interface[ttl=1]"), grpc.StatusCode.INVALID_ARGUMENT,
             "'ttl' is no key of /interfaces/interface"),
            (lambda: c.get("cli:/interfaces"), grpc.StatusCode.INVALID_ARGUMENT,
             "the origin 'cli' is not served"),
            (lambda: c.get("/interfaces/" + "/".join(["config"] * 70)),
             grpc.StatusCode.INVALID_ARGUMENT, "more than 64 elements"),
        ]
        for call, code, says in cases:
            details = refused(call, code)
            assert says in details, (says, details)
        m.close_session()
        c.close()
