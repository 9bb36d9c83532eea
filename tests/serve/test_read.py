"""Reads through the agent: subtree filters select exactly what they name,
<get> adds the native operational documents, read again apart from the
requests when they change.  With --verbose the agent says when a document is
answered; the tests wait for that, never on a clock."""

import os
import re
import shutil
import tempfile

from harness import TUN, error_of, interfaces, leaves, read, seeded, source

T12 = "/interfaces/interface[tunnel-ip12]"
T13 = "/interfaces/interface[tunnel-ip13]"


def entry(name, inner=""):
    tun = f'<tunnel xmlns="{TUN}">{inner}</tunnel>' if inner else ""
    return f"<interface>{name and f'<name>{name}</name>'}{tun}</interface>"


# A subtree filter of the round-trip configuration, and what it selects: the
# leaves of interface tunnel-ip12 whose path holds one of the words given
# (all when the word is ""), and those given.
FILTERS = [
    # <interfaces/> is the whole configuration, as no filter is.
    ("", ("",), {f"{T13}/name=tunnel-ip13", f"{T13}/tunnel/config/ttl=128",
                 f"{T13}/tunnel/config/src=2001:db8:13::1", f"{T13}/tunnel/config/dst=2001:db8:13::2"}),
    # An interface by its key: all of it, and no other.
    (entry("tunnel-ip12"), ("",), set()),
    # One leaf: that leaf, with the key of its entry.
    (entry("tunnel-ip12", "<config><ttl/></config>"), ("/name=", "/ttl="), set()),
    # A selection leaf of every interface.
    (entry("", "<config><ttl/></config>"), ("/name=", "/ttl="),
     {f"{T13}/name=tunnel-ip13", f"{T13}/tunnel/config/ttl=128"}),
    # A content match alone selects its container whole where it holds ...
    (entry("tunnel-ip12", "<config><ttl>64</ttl></config>"), ("/name=", "/tunnel/config/"), set()),
    # ... and nothing where it does not.
    (entry("tunnel-ip12", "<config><ttl>65</ttl></config>"), (), set()),
    # An address entry by its key, in a list of two.
    (entry("tunnel-ip12", "<ipv6><addresses><address><ip>2001:db8:12::2</ip></address>"
           "</addresses></ipv6>"), ("/name=", "address[2001:db8:12::2]"), set()),
    # What is not an interface of a tunnel, or not served, is nothing.
    (entry("eth0"), (), set()),
]


def test_subtree_filters_select_exactly_what_they_name():
    with seeded() as (agent, m):
        mine = {leaf for leaf in leaves(m.get_config("running")) if leaf.startswith(T12)}
        assert len(mine) > 10, mine
        for inner, words, others in FILTERS:
            got = leaves(m.get_config("running", filter=("subtree", interfaces(inner))))
            assert got == others | {leaf for leaf in mine if any(w in leaf for w in words)}, inner
        # A filter is checked against the models served: a namespace none
        # of them has is refused, not read as selecting nothing.
        e = error_of(lambda: m.get_config("running", filter=(
            "subtree", '<system xmlns="urn:example:system"/>')))
        assert (e.tag, e.info.count("urn:example:system")) == ("unknown-namespace", 1), e.info


def answered(oper, name):
    """What the agent says once the document `name` of `oper` is answered."""
    return f"{os.path.join(oper, name)}: read, "


def test_get_adds_operational_data_and_sees_it_change():
    oper = tempfile.mkdtemp(prefix="octunnel-oper-")
    try:
        shutil.copy(source("examples", "tunnel-state.xml"), os.path.join(oper, "tunnels.xml"))
        with seeded("--oper-dir", oper, "--verbose") as (agent, m):
            got = leaves(m.get())
            # Configuration and state of one interface in one entry.
            assert {f"{T12}/tunnel/config/ttl=64", f"{T12}/tunnel/state/ttl=64",
                    "/interfaces/interface[tunnel-ip7]/tunnel/state/src=2001:db8::1"} <= got
            # The configuration alone holds no state.
            assert not any("/state/" in leaf for leaf in leaves(m.get_config("running")))
            # A filtered <get> of the state of one tunnel.
            assert leaves(m.get(filter=("subtree", interfaces(
                entry("tunnel-ip7", "<state><ttl/></state>"))))) == {
                "/interfaces/interface[tunnel-ip7]/name=tunnel-ip7",
                "/interfaces/interface[tunnel-ip7]/tunnel/state/ttl=255"}

            # The document changes: the next <get> once it is read says so.
            # A document that is not one is passed over, and said so in the
            # log.
            with open(os.path.join(oper, "tunnels.xml"), "w", encoding="utf-8") as f:
                f.write(read(source("examples", "tunnel-state.xml")).replace(
                    "<ttl>255</ttl>", "<ttl>17</ttl>"))
            with open(os.path.join(oper, "broken.xml"), "w", encoding="utf-8") as f:
                f.write("<tunnel-ip-ma")
            agent.wait_log(answered(oper, "tunnels.xml"), 2)
            got = leaves(m.get())
            assert {"/interfaces/interface[tunnel-ip7]/tunnel/state/ttl=17",
                    f"{T12}/tunnel/config/ttl=64"} <= got
            agent.wait_log("broken.xml")
    finally:
        shutil.rmtree(oper)


def test_operational_documents_that_give_nothing_are_named_and_change_nothing():
    oper = tempfile.mkdtemp(prefix="octunnel-oper-")
    state, cfg = read(source("examples", "tunnel-state.xml")), read(source("examples",
                                                                           "tunnel-config.xml"))
    # A configuration of tunnel-ip12 unlike the running one (ttl 99), and a
    # tunnel's state under a namespace no model has.
    other_cfg = cfg.replace("<value>64</value>", "<value>99</value>")
    not_native = state.replace("Valmora-tunnel-ip-ma-oper", "Valmora-tunnel-ip-ma-opr")

    def put(name, text):
        with open(os.path.join(oper, name), "w", encoding="utf-8") as f:
            f.write(text)

    try:
        put("tunnels.xml", state)
        with seeded("--oper-dir", oper, "--verbose") as (agent, m):
            want = leaves(m.get())
            assert f"{T12}/tunnel/config/ttl=64" in want
            put("config.xml", other_cfg)
            put("unknown.xml", not_native)
            put("hollow.xml", '<tunnel-ip-ma xmlns="http://valmora.com/ns/yang/Valmora-tunnel-'
                              'ip-ma-oper"><base><tid>12</tid></base></tunnel-ip-ma>')
            for _ in range(2):
                assert leaves(m.get()) == want
            # Each named once, with why, for as long as it does not change
            # (and once more when read, with --verbose).
            for name, why in (
                    ("config.xml", "nothing of it is read: its root <interface-configurations> "
                     "in namespace 'http://valmora.com/ns/yang/Valmora-ifmgr-cfg' is native "
                     "configuration, which <get> answers from the running configuration alone"),
                    ("unknown.xml", "nothing of it is read: its root <tunnel-ip-ma> in namespace "
                     "'http://valmora.com/ns/yang/Valmora-tunnel-ip-ma-opr' is no operational "
                     "model the module reads"),
                    ("hollow.xml", "holds no leaf of the model the module reads")):
                agent.wait_log(f"{os.path.join(oper, name)}: ")
                assert "".join(agent.log).count(os.path.join(oper, name) + ": ") - "".join(
                    agent.log).count(answered(oper, name)) == 1, agent.log
                assert why in "".join(agent.log), (why, agent.log)

            # Operational data beside a configuration in one document: the
            # first is read, the second left out.
            os.remove(os.path.join(oper, "config.xml"))
            put("tunnels.xml", state.replace("</data>", other_cfg.split("<data", 1)[1]
                                             .split(">", 1)[1]).replace("<ttl>255</ttl>",
                                                                         "<ttl>17</ttl>"))
            agent.wait_log(answered(oper, "tunnels.xml"), 2)
            got = leaves(m.get())
            assert got == {leaf.replace("state/ttl=255", "state/ttl=17") for leaf in want}, \
                got ^ want
            agent.wait_log("tunnels.xml: partly read: its root <interface-configurations>")
    finally:
        shutil.rmtree(oper)


def test_a_version_not_read_whole_leaves_the_last_one():
    """A document written again half-way, or larger than --max-oper-document,
    is named in the log, and <get> answers its last version read whole; what
    comes whole afterwards is answered."""
    oper = tempfile.mkdtemp(prefix="octunnel-oper-")
    state = read(source("examples", "tunnel-state.xml"))
    path = os.path.join(oper, "tunnels.xml")

    def put(text):
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)

    try:
        put(state)
        bound = len(state.encode()) + 100
        with seeded("--oper-dir", oper, "--max-oper-document", str(bound),
                    "--verbose") as (agent, m):
            want = leaves(m.get())
            assert f"{T12}/tunnel/state/ttl=64" in want, want
            kept = "; <get> answers its last version read whole"
            put(state[:len(state) // 2])
            agent.wait_log(kept)
            assert re.search(re.escape(path) + r":\d+: malformed XML: .*" + kept,
                             "".join(agent.log)), agent.log
            assert leaves(m.get()) == want
            put(state + "<!--" + " " * 200 + "-->")
            agent.wait_log(f"{path}: is {bound + 107} bytes, more than the {bound} the agent "
                           "reads of an operational document (--max-oper-document)" + kept)
            assert leaves(m.get()) == want
            put(state.replace("<ttl>64</ttl>", "<ttl>65</ttl>"))
            agent.wait_log(answered(oper, "tunnels.xml"), 2)
            assert leaves(m.get()) == {w.replace("state/ttl=64", "state/ttl=65") for w in want}
    finally:
        shutil.rmtree(oper)
