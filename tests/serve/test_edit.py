"""Edits through the agent: what a client writes in OpenConfig comes back
from <get-config> and stands in the native running configuration file;
operations, refusals and the default operation and test option."""

import contextlib
import glob
import os
import subprocess

import harness
from harness import (IFMGR, TUN, Agent, config, content, error_of, leaves, read, reply_leaves,
                     source, tunnel)

BASE = source("tests", "roundtrip", "tunnel-config", "input.xml")


def plain_edits():
    """Every bundled OpenConfig edit without operations: the example, the
    round-trip configuration and the golden edits the module translates."""
    docs = [source("examples", "tunnel-edit.xml"), BASE]
    for case in sorted(glob.glob(source("tests", "golden", "cases", "*"))):
        args = os.path.join(case, "args")
        if (os.path.exists(args) and "to-native --kind edit" in read(args)
                and not os.path.exists(os.path.join(case, "expected.rc"))
                and "operation=" not in read(os.path.join(case, "input.xml"))):
            docs.append(os.path.join(case, "input.xml"))
    return docs


def configured(doc):
    """What get-config gives back of an edit: its leaves but the IPv4 prefix
    length, which the native netmask does not give back."""
    return {leaf for leaf in leaves(content(doc).join(("<config>", "</config>")))
            if not ("/ipv4/addresses/address[" in leaf and "/config/prefix-length=" in leaf)}


def test_every_bundled_edit_comes_back_from_get_config_and_the_native_file():
    docs = plain_edits()
    assert len(docs) >= 5, docs
    for doc in docs:
        with Agent() as agent:
            m = agent.connect()
            m.edit_config(target="running", config=content(doc).join(
                ('<config xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">', "</config>")))
            got = reply_leaves(m.get_config("running"))
            assert got == configured(doc), (doc, got ^ configured(doc))
            # The file is a native document the tool reads as it stands,
            # and it says what the agent answers, which leaves out what is
            # read-only.
            tool = subprocess.run([harness.OCTUNNEL, "to-oc", "--kind", "get-config", agent.running],
                                  check=True, capture_output=True, text=True).stdout
            assert {leaf for leaf in leaves(tool) if "/state/" not in leaf} == got, doc
            assert f'<interface-configurations xmlns="{IFMGR}">' in read(agent.running)
            m.close_session()
            agent.stop()


@contextlib.contextmanager
def base_agent(*args):
    """An agent holding the round-trip configuration, and a session to it."""
    with Agent(*args) as agent:
        m = agent.connect()
        m.edit_config(target="running", config=read(BASE).split("-->", 1)[1])
        yield agent, m


def test_delete_remove_and_replace_reach_the_native_configuration():
    with base_agent() as (agent, m):
        before = reply_leaves(m.get_config("running"))
        key = "/interfaces/interface[tunnel-ip12]/tunnel/config/gre-key=1001"
        assert key in before

        # delete: the leaf goes; deleting it again is data-missing and
        # changes nothing, not even the file.
        m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip12", '<config><gre-key nc:operation="delete">1001</gre-key></config>')))
        after = reply_leaves(m.get_config("running"))
        assert after == before - {key}
        file_before = read(agent.running)
        e = error_of(lambda: m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip12", '<config><gre-key nc:operation="delete">1001</gre-key></config>'))))
        assert e.tag == "data-missing", e.tag
        assert "value" in e.path and "tunnel-ip12" in e.path, e.path
        assert read(agent.running) == file_before

        # remove of what is not there is no error and no change.
        m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip12", '<config><gre-key nc:operation="remove">7</gre-key></config>')))
        assert reply_leaves(m.get_config("running")) == after

        # delete of an address entry by its key alone.
        m.edit_config(target="running", config=config(tunnel("tunnel-ip12",
            '<ipv6><addresses><address nc:operation="delete"><ip>2001:db8:12::2</ip>'
            "</address></addresses></ipv6>")))
        got = reply_leaves(m.get_config("running"))
        assert not any("2001:db8:12::2" in leaf for leaf in got), got
        assert any("2001:db8:12::1" in leaf for leaf in got), got

        # replace of the tunnel: what it held goes, what it gives stands.
        m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip12", "<config><src>192.0.2.9</src><ttl>9</ttl></config>", None).replace(
            f'<tunnel xmlns="{TUN}">', f'<tunnel xmlns="{TUN}" nc:operation="replace">')))
        got = reply_leaves(m.get_config("running"))
        mine = {leaf for leaf in got if "interface[tunnel-ip12]/tunnel/" in leaf}
        assert mine == {"/interfaces/interface[tunnel-ip12]/tunnel/config/src=192.0.2.9",
                        "/interfaces/interface[tunnel-ip12]/tunnel/config/ttl=9"}, mine
        # ... and the other interface is untouched.
        assert {leaf for leaf in got if "tunnel-ip13" in leaf} == {
            leaf for leaf in before if "tunnel-ip13" in leaf}

        # delete of the whole tunnel container.
        m.edit_config(target="running", config=config(
            f'<interface><name>tunnel-ip13</name><tunnel xmlns="{TUN}" '
            'nc:operation="delete"/></interface>'))
        got = reply_leaves(m.get_config("running"))
        assert not any("tunnel-ip13" in leaf for leaf in got), got
        m.close_session()
        agent.stop()


def test_create_and_default_operation_none():
    with base_agent() as (agent, m):
        # create of what exists is data-exists; of what does not, written.
        e = error_of(lambda: m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip12", '<config><ttl nc:operation="create">5</ttl></config>'))))
        assert e.tag == "data-exists", e.tag
        m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip20", '<config><ttl nc:operation="create">5</ttl></config>')))
        assert "/interfaces/interface[tunnel-ip20]/tunnel/config/ttl=5" in reply_leaves(
            m.get_config("running"))

        # default-operation none writes only where an operation says so,
        # and a new interface has no level to write into.
        e = error_of(lambda: m.edit_config(target="running", default_operation="none",
                                           config=config(tunnel(
                                               "tunnel-ip21", "<config><ttl>5</ttl></config>"))))
        assert e.tag == "data-missing", e.tag
        m.edit_config(target="running", default_operation="none", config=config(tunnel(
            "tunnel-ip12", '<config><ttl nc:operation="merge">77</ttl></config>')))
        assert "/interfaces/interface[tunnel-ip12]/tunnel/config/ttl=77" in reply_leaves(
            m.get_config("running"))
        m.close_session()
        agent.stop()


def test_an_edit_applies_whole_or_not_at_all():
    with base_agent() as (agent, m):
        before = reply_leaves(m.get_config("running"))
        file_before = read(agent.running)
        # The first two interfaces would be written; the third's delete
        # finds nothing, so none is.
        e = error_of(lambda: m.edit_config(target="running", config=config(
            tunnel("tunnel-ip30", "<config><ttl>30</ttl></config>")
            + tunnel("tunnel-ip12", '<config><gre-key nc:operation="delete">1</gre-key>'
                     "</config>")
            + tunnel("tunnel-ip13", '<config><gre-key nc:operation="delete">1</gre-key>'
                     "</config>"))))
        assert e.tag == "data-missing", e.tag
        assert reply_leaves(m.get_config("running")) == before
        assert read(agent.running) == file_before

        # test-only tries the edit and keeps nothing, and says what would
        # fail.
        m.edit_config(target="running", test_option="test-only",
                      config=config(tunnel("tunnel-ip31", "<config><ttl>31</ttl></config>")))
        assert reply_leaves(m.get_config("running")) == before
        e = error_of(lambda: m.edit_config(target="running", test_option="test-only",
                                           config=config(tunnel(
                                               "tunnel-ip12", '<config><ttl nc:operation='
                                               '"create">1</ttl></config>'))))
        assert e.tag == "data-exists", e.tag

        # default-operation replace: the configuration is what the edit says.
        m.edit_config(target="running", default_operation="replace",
                      config=config(tunnel("tunnel-ip40", "<config><ttl>40</ttl></config>")))
        assert reply_leaves(m.get_config("running")) == {
            "/interfaces/interface[tunnel-ip40]/name=tunnel-ip40",
            "/interfaces/interface[tunnel-ip40]/tunnel/config/ttl=40"}
        m.close_session()
        agent.stop()


def test_a_refusal_of_the_module_is_an_rpc_error_with_its_path():
    with Agent("--router-type", "13") as agent:
        m = agent.connect()
        e = error_of(lambda: m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip7", "<config><src>2001:db8::1</src></config>"))))
        assert e.tag == "operation-not-supported", e.tag
        assert e.message == "IPV6 mode not supported.", e.message
        assert e.path == "/interfaces/interface[name='tunnel-ip7']/tunnel/config", e.path
        assert not os.path.exists(agent.running)

        # A node the module does not take, named with its path.
        e = error_of(lambda: m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip12", "<ipv4><config><mtu>1400</mtu></config></ipv4>"))))
        assert e.tag == "unknown-element", e.tag
        assert e.path == "/interfaces/interface[name='tunnel-ip12']/tunnel/ipv4/config", e.path
        assert "<bad-element>mtu</bad-element>" in e.info, e.info

        # The session goes on: an IPv4 endpoint is taken.
        m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip7", "<config><src>192.0.2.7</src></config>")))
        assert "/interfaces/interface[tunnel-ip7]/tunnel/config/src=192.0.2.7" in reply_leaves(
            m.get_config("running"))
        m.close_session()
        agent.stop()


def test_payloads_outside_the_served_models_are_refused():
    with Agent() as agent:
        m = agent.connect()
        e = error_of(lambda: m.edit_config(target="running", config=(
            '<config xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">'
            '<system xmlns="urn:example:system"><hostname>r1</hostname></system></config>')))
        assert e.tag == "unknown-namespace", e.tag
        assert "urn:example:system" in e.info, e.info
        # An operation NETCONF does not have: libyang refuses the request
        # before the agent sees it.
        e = error_of(lambda: m.edit_config(target="running", config=config(
            '<interface><name>x</name><config><mtu nc:operation="frobnicate">1</mtu></config>'
            "</interface>")))
        assert "frobnicate" in e.message, e.message
        assert not os.path.exists(agent.running)
        m.close_session()
        agent.stop()


def test_the_native_configuration_survives_a_restart():
    with base_agent() as (agent, m):
        before = reply_leaves(m.get_config("running"))
        m.close_session()
        agent.stop()
        agent.start()
        m = agent.connect()
        assert reply_leaves(m.get_config("running")) == before
        m.close_session()
        agent.stop()
