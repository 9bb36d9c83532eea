"""Reads through the agent: subtree filters select exactly what they name,
<get> adds the native operational documents, read again when they change."""

import contextlib
import os
import shutil
import tempfile

from harness import Agent, error_of, interfaces, read, reply_leaves, source

BASE = source("tests", "roundtrip", "tunnel-config", "input.xml")
T12 = "/interfaces/interface[tunnel-ip12]"


@contextlib.contextmanager
def agent_with_base(*args):
    """An agent holding the round-trip configuration, and a session to it."""
    with Agent(*args) as agent:
        m = agent.connect()
        m.edit_config(target="running", config=read(BASE).split("-->", 1)[1])
        yield agent, m


def tun(inner):
    return f'<tunnel xmlns="http://openconfig.net/yang/interfaces/tunnel">{inner}</tunnel>'


def test_subtree_filters_select_exactly_what_they_name():
    with agent_with_base() as (agent, m):
        everything = reply_leaves(m.get_config("running"))
        assert len(everything) > 15, everything
        mine = {leaf for leaf in everything if leaf.startswith(T12 + "/")}

        def selected(inner):
            return reply_leaves(m.get_config("running", filter=("subtree", interfaces(inner))))

        # <interfaces/> is the whole configuration, as no filter is.
        assert reply_leaves(m.get_config(
            "running", filter=("subtree", interfaces("")))) == everything
        # An interface by its key: all of it, and no other.
        assert selected("<interface><name>tunnel-ip12</name></interface>") == mine
        # One leaf: that leaf, with the key of its entry.
        assert selected("<interface><name>tunnel-ip12</name>"
                        + tun("<config><ttl/></config>") + "</interface>") == {
            f"{T12}/name=tunnel-ip12", f"{T12}/tunnel/config/ttl=64"}
        # A selection leaf of every interface.
        assert selected("<interface>" + tun("<config><ttl/></config>") + "</interface>") == {
            f"{T12}/name=tunnel-ip12", f"{T12}/tunnel/config/ttl=64",
            "/interfaces/interface[tunnel-ip13]/name=tunnel-ip13",
            "/interfaces/interface[tunnel-ip13]/tunnel/config/ttl=128"}
        # A content match alone selects its container whole where it holds.
        config = {leaf for leaf in mine if "/tunnel/config/" in leaf}
        assert selected("<interface><name>tunnel-ip12</name>"
                        + tun("<config><ttl>64</ttl></config>") + "</interface>") == (
            config | {f"{T12}/name=tunnel-ip12"})
        # ... and nothing where it does not.
        assert selected("<interface><name>tunnel-ip12</name>"
                        + tun("<config><ttl>65</ttl></config>") + "</interface>") == set()
        # An address entry by its key, in a list of two.
        address = selected("<interface><name>tunnel-ip12</name>" + tun(
            "<ipv6><addresses><address><ip>2001:db8:12::2</ip></address></addresses></ipv6>")
            + "</interface>")
        assert address == {f"{T12}/name=tunnel-ip12"} | {
            leaf for leaf in mine if "address[2001:db8:12::2]" in leaf}, address
        # What is not an interface of a tunnel, or not served, is nothing.
        assert selected("<interface><name>eth0</name></interface>") == set()
        assert reply_leaves(m.get_config("running", filter=(
            "subtree", '<system xmlns="urn:example:system"/>'))) == set()
        m.close_session()
        agent.stop()


def test_get_adds_operational_data_and_sees_it_change():
    oper = tempfile.mkdtemp(prefix="octunnel-oper-")
    try:
        shutil.copy(source("examples", "tunnel-state.xml"), os.path.join(oper, "tunnels.xml"))
        with agent_with_base("--oper-dir", oper) as (agent, m):
            got = reply_leaves(m.get())
            # Configuration and state of one interface in one entry.
            assert f"{T12}/tunnel/config/ttl=64" in got
            assert f"{T12}/tunnel/state/ttl=64" in got
            assert "/interfaces/interface[tunnel-ip7]/tunnel/state/src=2001:db8::1" in got
            # The configuration alone holds no state.
            assert not any("/state/" in leaf for leaf in reply_leaves(m.get_config("running")))

            # A filtered <get> of the state of one tunnel.
            assert reply_leaves(m.get(filter=("subtree", interfaces(
                "<interface><name>tunnel-ip7</name>" + tun("<state><ttl/></state>")
                + "</interface>")))) == {
                "/interfaces/interface[tunnel-ip7]/name=tunnel-ip7",
                "/interfaces/interface[tunnel-ip7]/tunnel/state/ttl=255"}

            # The document changes: the next <get> says so.  A document that
            # is not one is passed over, and said so in the log.
            text = read(source("examples", "tunnel-state.xml")).replace(
                "<ttl>255</ttl>", "<ttl>17</ttl>")
            with open(os.path.join(oper, "tunnels.xml"), "w", encoding="utf-8") as f:
                f.write(text)
            with open(os.path.join(oper, "broken.xml"), "w", encoding="utf-8") as f:
                f.write("<tunnel-ip-ma")
            got = reply_leaves(m.get())
            assert "/interfaces/interface[tunnel-ip7]/tunnel/state/ttl=17" in got
            assert f"{T12}/tunnel/config/ttl=64" in got
            m.close_session()
            agent.stop()
            assert "broken.xml" in "".join(agent.log)
    finally:
        shutil.rmtree(oper)


def test_a_read_the_module_refuses_is_an_rpc_error():
    with agent_with_base() as (agent, m):
        e = error_of(lambda: m.get_config("running", filter=("subtree", interfaces(
            "<interface><name>tunnel-ip12</name>" + tun("<ipv4><config><mtu/></config></ipv4>")
            + "</interface>"))))
        assert e.tag == "unknown-element", e.tag
        assert "tunnel-ip12" in e.path, e.path
        m.close_session()
        agent.stop()
