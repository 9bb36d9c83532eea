"""Edits through the agent: what a client writes in OpenConfig comes back
from <get-config> and stands in the native running configuration file;
operations, the default operation and test option, and refusals."""

import glob
import os

from lxml import etree

from harness import (BASE, NC, TUN, Agent, as_config, config, error_of, interfaces, leaves, read,
                     seeded, source, tool_leaves, tunnel, committed)

T12 = "/interfaces/interface[tunnel-ip12]"


def test_every_bundled_edit_comes_back_from_get_config_and_the_native_file():
    """Every bundled OpenConfig edit without operations: the example, the
    round-trip configuration and the golden edits the module translates
    that the models accept."""
    docs = [source("examples", "tunnel-edit.xml"), BASE]
    for case in sorted(glob.glob(source("tests", "golden", "cases", "*"))):
        args = os.path.join(case, "args")
        valid = os.path.join(case, "input.yanglint")
        if (os.path.exists(args) and "to-native --kind edit" in read(args)
                and os.path.exists(valid) and read(valid).strip() == "edit"
                and not os.path.exists(os.path.join(case, "expected.rc"))
                and "operation=" not in read(os.path.join(case, "input.xml"))):
            docs.append(os.path.join(case, "input.xml"))
    assert len(docs) >= 5, docs
    for doc in docs:
        with Agent() as agent:
            m = agent.connect()
            m.edit_config(target="running", config=as_config(doc))
            got = leaves(m.get_config("running"))
            # All of it, but the IPv4 prefix length, which the native
            # netmask does not give back.
            assert got == {leaf for leaf in leaves(as_config(doc)) if not (
                "/ipv4/addresses/address[" in leaf and "/config/prefix-length=" in leaf)}, doc
            # What is committed is a native document the tool reads as it
            # stands, and it says what the agent answers, which leaves out
            # what is read-only; so does the file, once the agent stops.
            native = committed(agent)
            assert {leaf for leaf in tool_leaves(native) if "/state/" not in leaf} == got
            assert "<interface-configurations xmlns=" in native
            agent.stop()
            assert read(agent.running) == native


def gre_key(name, op, value=1001):
    return tunnel(name, f'<config><gre-key nc:operation="{op}">{value}</gre-key></config>')


def ttl(name, value, op=None):
    attr = f' nc:operation="{op}"' if op else ""
    return tunnel(name, f"<config><ttl{attr}>{value}</ttl></config>")


# Edits one after the other on the round-trip configuration: the <interfaces>
# of the <config>, the options, then the error-tag it is answered, or the
# leaves it takes away (those that hold a text) and those it adds.
EDITS = [
    # The first two interfaces would be written, the third's delete finds
    # nothing: none is.
    (ttl("tunnel-ip30", 30) + gre_key("tunnel-ip12", "delete") + gre_key("tunnel-ip13", "delete"),
     {}, "data-missing"),
    (gre_key("tunnel-ip12", "delete"), {}, ("tunnel-ip12]/tunnel/config/gre-key", set())),
    (gre_key("tunnel-ip12", "delete"), {}, "data-missing"),
    (gre_key("tunnel-ip12", "remove", 7), {}, (None, set())),
    (tunnel("tunnel-ip12", '<ipv6><addresses><address nc:operation="delete"><ip>2001:db8:12::2'
            "</ip></address></addresses></ipv6>"), {}, ("address[2001:db8:12::2]", set())),
    # A replace of the tunnel: what it held goes, what it gives stands.
    (f'<interface><name>tunnel-ip12</name><tunnel xmlns="{TUN}" nc:operation="replace"><config>'
     "<src>192.0.2.9</src><ttl>9</ttl></config></tunnel></interface>", {},
     ("tunnel-ip12]/tunnel/", {f"{T12}/tunnel/config/src=192.0.2.9",
                               f"{T12}/tunnel/config/ttl=9"})),
    (f'<interface><name>tunnel-ip13</name><tunnel xmlns="{TUN}" nc:operation="delete"/>'
     "</interface>", {}, ("tunnel-ip13", set())),
    (ttl("tunnel-ip12", 5, "create"), {}, "data-exists"),
    (ttl("tunnel-ip20", 5, "create"), {}, (None, {
        "/interfaces/interface[tunnel-ip20]/name=tunnel-ip20",
        "/interfaces/interface[tunnel-ip20]/tunnel/config/ttl=5"})),
    # default-operation none writes only where an operation says so, and a
    # new interface has no level to write into.
    (ttl("tunnel-ip21", 5), {"default_operation": "none"}, "data-missing"),
    (ttl("tunnel-ip12", 77, "merge"), {"default_operation": "none"},
     ("tunnel-ip12]/tunnel/config/ttl", {f"{T12}/tunnel/config/ttl=77"})),
    # test-only tries the edit and keeps nothing, and says what would fail.
    (ttl("tunnel-ip31", 31), {"test_option": "test-only"}, (None, set())),
    (ttl("tunnel-ip12", 1, "create"), {"test_option": "test-only"}, "data-exists"),
    # default-operation replace: the configuration is what the edit says.
    (ttl("tunnel-ip40", 40), {"default_operation": "replace"}, ("/", {
        "/interfaces/interface[tunnel-ip40]/name=tunnel-ip40",
        "/interfaces/interface[tunnel-ip40]/tunnel/config/ttl=40"})),
]


def test_operations_reach_the_native_configuration_whole_or_not_at_all():
    with seeded() as (agent, m):
        for inner, options, want in EDITS:
            before, file_before = leaves(m.get_config("running")), committed(agent)
            edit = (lambda: m.edit_config(target="running", config=config(inner), **options))
            if isinstance(want, str):
                # Refused: nothing changes, not even the file.
                e = error_of(edit)
                assert e.tag == want, inner
                assert e.path.startswith("/oc-if:interfaces/oc-if:interface[oc-if:name="), e.path
                assert leaves(m.get_config("running")) == before, inner
                assert committed(agent) == file_before, inner
            else:
                edit()
                gone, added = want
                assert leaves(m.get_config("running")) == added | {
                    leaf for leaf in before if not (gone and gone in leaf)}, inner
        # It holds across a restart.
        before = leaves(m.get_config("running"))
        agent.stop()
        agent.start()
        assert leaves(agent.connect().get_config("running")) == before


def tun(inner):
    return f'<tunnel xmlns="{TUN}">{inner}</tunnel>'


# Requests the module, the datastore or the agent refuses: the error-tag,
# the error-path, and a word of the rest.
T12_CONFIG = ("/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']/oc-tun:tunnel/"
              "oc-tun:ipv4/oc-tun:config/oc-tun:mtu")
REFUSALS = [
    ("edit", config(tunnel("tunnel-ip7", "<config><src>2001:db8::1</src></config>")),
     "operation-not-supported",
     "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip7']/oc-tun:tunnel/oc-tun:config",
     "YFW_ERR_NOT_SUPPORTED IPV6 mode not supported."),
    # Nodes of the models that the module does not carry.
    ("edit", config(tunnel("tunnel-ip12", "<ipv4><config><mtu>1400</mtu></config></ipv4>")),
     "operation-not-supported", T12_CONFIG, "<bad-element>mtu</bad-element>"),
    # <validate> runs every check of an edit, as the whole configuration.
    ("validate", config(tunnel("tunnel-ip12", "<config><ttl>300</ttl></config>")), "invalid-value",
     "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']/oc-tun:tunnel/oc-tun:config/"
     "oc-tun:ttl", "300"),
    ("validate", config("<interface><name>tunnel-ip12</name><config><description>d</description>"
                        "</config></interface>"), "operation-not-supported",
     "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']/oc-if:config/oc-if:description",
     "<bad-element>description</bad-element>"),
    # The models name the node by an identity whose prefix the client
    # declared on <config>: it resolves, and the type is not carried.
    ("edit", config("<interface><name>tunnel-ip12</name><config><type>ianaift:tunnel</type>"
                    "</config></interface>").replace(
                        "<config ", '<config xmlns:ianaift="urn:ietf:params:xml:ns:yang:iana-if-type" ',
                        1),
     "operation-not-supported",
     "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']/oc-if:config/oc-if:type",
     "<bad-element>type</bad-element>"),
    ("get-config", interfaces("<interface><name>tunnel-ip12</name>"
                              + tun("<ipv4><config><mtu/></config></ipv4>") + "</interface>"),
     "operation-not-supported", T12_CONFIG, "<bad-element>mtu</bad-element>"),
    # The tunnel id starts inside the name's "é": the module's native filter
    # is no text, and is refused, not used.
    ("get", interfaces("<interface><name>tunnel-i\u00e97</name>" + tun("<state><ttl/></state>")
                       + "</interface>"), "operation-failed", None, "not UTF-8"),
    ("edit", f'<config xmlns="{NC}"><system xmlns="urn:example:system"><hostname>r1</hostname>'
     "</system></config>", "unknown-namespace", None,
     "<bad-namespace>urn:example:system</bad-namespace>"),
    # An operation NETCONF does not have: the agent refuses the request
    # before libnetconf2 reads it.
    ("edit", config('<interface><name>x</name><config><mtu nc:operation="frobnicate">1</mtu>'
                    "</config></interface>"), "bad-attribute",
     "/oc-if:interfaces/oc-if:interface[oc-if:name='x']/oc-if:config/oc-if:mtu", "frobnicate"),
]


def test_refusals_are_rpc_errors_with_their_path():
    with Agent("--router-type", "13") as agent:
        m = agent.connect()
        for op, payload, tag, path, said in REFUSALS:
            e = error_of(lambda: {
                "edit": lambda: m.edit_config(target="running", config=payload),
                "validate": lambda: m.validate(source=etree.fromstring(payload)),
                "get-config": lambda: m.get_config("running", filter=("subtree", payload)),
                "get": lambda: m.get(filter=("subtree", payload))}[op]())
            assert (e.tag, e.path) == (tag, path), (payload, e.tag, e.path)
            assert said in f"{e.app_tag} {e.message} {e.info}", (said, e.message, e.info)
        assert not os.path.exists(agent.running)
        # The session goes on: an IPv4 endpoint is taken.
        m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip7", "<config><src>192.0.2.7</src></config>")))
        assert "/interfaces/interface[tunnel-ip7]/tunnel/config/src=192.0.2.7" in leaves(
            m.get_config("running"))
