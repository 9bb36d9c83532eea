"""Access control (RFC 8341) over SSH: a read-only user changes nothing and
still reads; a rule hides a subtree from one user's reads, filters
included; operations denied; the recovery session on the UNIX socket never
held; the rules read again on SIGHUP; without rules, everything as before."""

import os
import signal
import subprocess
import tempfile

from lxml import etree

from harness import (BASE, NC, PASSWORD, USER, Agent, as_config, error_of, interfaces, leaves,
                     read, rpc_error, source, tunnel, config, committed)
from payloads import edit, get

ACM = "urn:ietf:params:xml:ns:yang:ietf-netconf-acm"
OC_IF = "http://openconfig.net/yang/interfaces"
READ_ONLY = source("examples", "nacm-read-only.xml")
USERS = {USER: PASSWORD, "monitor": "watching", "carol": "in-no-group"}
T12, T13 = "/interfaces/interface[tunnel-ip12]", "/interfaces/interface[tunnel-ip13]"
PATH12 = "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']"


def nacm_of(m):
    """The /nacm a session reads with <get>, or None."""
    reply = m.get(filter=("subtree", f'<nacm xmlns="{ACM}"/>'))
    return etree.fromstring(reply.data_xml.encode()).find(f"{{{ACM}}}nacm")


def rules_file(directory, body, **defaults):
    """A rules file of `body` (groups and rule-lists), the prefixes of the
    OpenConfig models declared for its paths."""
    path = os.path.join(directory, "nacm.xml")
    tops = "".join(f"<{k.replace('_', '-')}>{v}</{k.replace('_', '-')}>"
                   for k, v in defaults.items())
    with open(path, "w", encoding="utf-8") as f:
        f.write(f'<nacm xmlns="{ACM}" xmlns:oc-if="{OC_IF}" '
                f'xmlns:oc-tun="http://openconfig.net/yang/interfaces/tunnel">{tops}{body}</nacm>')
    return path


# Writes of every kind the read-only user may not make, and the node each
# refusal names: a change, a creation, a delete of an entry, and the delete
# of every interface (whose first node denied is the first interface).
WRITES = [
    (tunnel("tunnel-ip12", "<config><ttl>9</ttl></config>"),
     PATH12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl"),
    (tunnel("tunnel-ip99", "<config><ttl>9</ttl></config>"),
     "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip99']"),
    (tunnel("tunnel-ip12", "<ipv6><addresses><address nc:operation=\"delete\">"
            "<ip>2001:db8:12::2</ip></address></addresses></ipv6>"),
     PATH12 + "/oc-tun:tunnel/oc-tun:ipv6/oc-tun:addresses/oc-tun:address[oc-tun:ip='2001:db8:12::2']"),
    (tunnel("tunnel-ip13", "", "delete"),
     "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip13']"),
]


def test_read_only_user_reads_everything_and_changes_nothing():
    with Agent("--nacm", READ_ONLY, users=USERS) as agent:
        admin = agent.connect()
        admin.edit_config(target="running", config=as_config(BASE))
        monitor = agent.connect("monitor", "watching")
        before = committed(agent)
        for inner, where in WRITES:
            for test_option in (None, "test-only"):
                e = error_of(lambda: monitor.edit_config(target="running", config=config(inner),
                                                         test_option=test_option))
                assert (e.type, e.tag) == ("application", "access-denied"), e.xml
                assert "'monitor'" in e.message, e.message
                assert rpc_error(e.xml).findtext(f"{{{NC}}}error-path") == where, inner
        assert committed(agent) == before
        everything = leaves(admin.get_config("running"))
        assert len(everything) > 15 and leaves(monitor.get_config("running")) == everything
        # <validate> writes nothing, and is the read-only user's to run.
        monitor.validate(source=etree.fromstring(as_config(BASE)))
        # Operations: <lock> by the group's rule, <kill-session> by the
        # model's default-deny-all; the admin's rule lets it kill.
        for call in (lambda: monitor.lock("running"),
                     lambda: monitor.kill_session(admin.session_id)):
            e = error_of(call)
            assert (e.type, e.tag) == ("protocol", "access-denied"), e.xml
        # The log says whose request was denied, and what.
        agent.wait_log("access denied: 'monitor' may not run <lock> of ietf-netconf")
        # The counters, read by the read-only user: /nacm is read by rule.
        state = nacm_of(monitor)
        assert state.findtext(f"{{{ACM}}}denied-data-writes") == str(2 * len(WRITES))
        assert state.findtext(f"{{{ACM}}}denied-operations") == "2"
        # A user of no group gets the defaults: reads, no writes, no /nacm.
        carol = agent.connect("carol", "in-no-group")
        assert leaves(carol.get_config("running")) == everything
        e = error_of(lambda: carol.edit_config(target="running", config=config(WRITES[0][0])))
        assert e.tag == "access-denied"
        assert nacm_of(carol) is None
        # The admin may do everything, and changes the rules nowhere but in
        # their file.
        admin.kill_session(monitor.session_id)
        admin.edit_config(target="running", config=config(WRITES[0][0]))
        e = error_of(lambda: admin.edit_config(target="running", config=(
            f'<config xmlns="{NC}"><nacm xmlns="{ACM}"><read-default>deny</read-default>'
            "</nacm></config>")))
        assert (e.tag, rpc_error(e.xml).findtext(f"{{{NC}}}error-path")) == (
            "operation-not-supported", "/nacm:nacm"), e.xml
        assert "--nacm" in e.message


def test_a_denied_subtree_is_left_out_of_reads_and_filters():
    work = tempfile.mkdtemp(prefix="octunnel-nacm-")
    rules = rules_file(work, (
        "<groups><group><name>ops</name><user-name>monitor</user-name></group>"
        f"<group><name>admin</name><user-name>{USER}</user-name></group></groups>"
        "<rule-list><name>ops</name><group>ops</group>"
        "<rule><name>ttl-of-12</name><path>/oc-if:interfaces/oc-if:interface[oc-if:name="
        "'tunnel-ip12']/oc-tun:tunnel/oc-tun:config/oc-tun:ttl</path>"
        "<access-operations>read</access-operations><action>deny</action></rule>"
        "<rule><name>ipv6</name><module-name>openconfig-if-tunnel</module-name>"
        "<path>/oc-if:interfaces/oc-if:interface/oc-tun:tunnel/oc-tun:ipv6</path>"
        "<action>deny</action></rule>"
        "<rule><name>no-get-config</name><rpc-name>get-config</rpc-name>"
        "<access-operations>exec</access-operations><action>deny</action></rule>"
        "</rule-list>"
        "<rule-list><name>admin</name><group>admin</group>"
        "<rule><name>all</name><action>permit</action></rule></rule-list>"))
    try:
        with Agent("--nacm", rules, users=USERS) as agent:
            admin = agent.connect()
            admin.edit_config(target="running", config=as_config(BASE))
            monitor = agent.connect("monitor", "watching")
            everything = leaves(admin.get(filter=("subtree", interfaces(""))))
            hidden = {leaf for leaf in everything
                      if leaf.startswith(f"{T12}/tunnel/config/ttl=") or "/ipv6/" in leaf}
            assert len(hidden) > 5 and f"{T13}/tunnel/config/ttl=128" in everything
            assert leaves(monitor.get()) == everything - hidden
            # A filter cannot tell what is hidden by what it selects: a
            # content match on the hidden ttl selects nothing, one on the
            # ttl that is not hidden selects its interface.
            for name, ttl, found in (("tunnel-ip12", 64, set()),
                                     ("tunnel-ip13", 128, {f"{T13}/name=tunnel-ip13",
                                                           f"{T13}/tunnel/config/ttl=128"})):
                selected = leaves(monitor.get(filter=("subtree", interfaces(
                    tunnel(name, f"<config><ttl>{ttl}</ttl></config>")))))
                assert {leaf for leaf in selected if "/config/" in leaf or "/name=" in leaf} \
                    == (found | {f"{T13}/tunnel/config/src=2001:db8:13::1",
                                 f"{T13}/tunnel/config/dst=2001:db8:13::2"} if found else set()), \
                    selected
            e = error_of(lambda: monitor.get_config("running"))
            assert (e.type, e.tag) == ("protocol", "access-denied")
            assert "get-config" in e.message
    finally:
        subprocess.run(["rm", "-rf", work], check=True)


def test_the_recovery_session_is_never_held():
    work = tempfile.mkdtemp(prefix="octunnel-nacm-")
    # Every write and read denied, to everyone of a group and to no one of
    # none.
    rules = rules_file(work, "<groups><group><name>all</name>"
                       f"<user-name>{USER}</user-name></group></groups>"
                       "<rule-list><name>none</name><group>*</group>"
                       "<rule><name>nothing</name><action>deny</action></rule></rule-list>",
                       read_default="deny", exec_default="deny")
    try:
        with Agent("--nacm", rules, users=USERS, unix=True) as agent:
            own = agent.raw(unix=True)
            reply = own.rpc(edit(as_config(BASE)))
            assert "<ok/>" in reply, reply
            state = own.rpc(get(f'<nacm xmlns="{ACM}"/>'))
            assert ACM in state and "<enable-nacm>true</enable-nacm>" in state, state
            # The same user over SSH is held to the rules.
            alice = agent.connect()
            e = error_of(lambda: alice.get())
            assert (e.type, e.tag) == ("protocol", "access-denied")
            # close-session is always permitted.
            alice.close_session()
            # The recovery session kills whom it likes.
            carol = agent.connect("carol", "in-no-group")
            # Of no group, carol has exec-default: no operation at all.
            assert error_of(lambda: carol.get()).tag == "access-denied"
            reply = own.rpc(f"<kill-session><session-id>{carol.session_id}"
                            "</session-id></kill-session>")
            assert "<ok/>" in reply, reply
            own.close()
    finally:
        subprocess.run(["rm", "-rf", work], check=True)


def test_without_rules_everyone_may_do_everything():
    with Agent(users=USERS) as agent:
        carol = agent.connect("carol", "in-no-group")
        carol.edit_config(target="running", config=as_config(BASE))
        monitor = agent.connect("monitor", "watching")
        monitor.kill_session(carol.session_id)
        state = nacm_of(monitor)
        assert state.findtext(f"{{{ACM}}}enable-nacm") == "false"
        assert state.findtext(f"{{{ACM}}}denied-operations") == "0"
        assert len(leaves(monitor.get_config("running"))) > 15


def test_rules_are_read_again_on_sighup_and_a_fault_keeps_those_in_force():
    work = tempfile.mkdtemp(prefix="octunnel-nacm-")
    rules = os.path.join(work, "nacm.xml")
    with open(READ_ONLY, encoding="utf-8") as f:
        text = f.read()
    with open(rules, "w", encoding="utf-8") as f:
        f.write(text)
    change = config(tunnel("tunnel-ip12", "<config><ttl>9</ttl></config>"))
    try:
        with Agent("--nacm", rules, users=USERS) as agent:
            monitor = agent.connect("monitor", "watching")
            assert error_of(lambda: monitor.edit_config(target="running", config=change)).tag \
                == "access-denied"
            # A fault: named with its file and line, and the rules stay.
            with open(rules, "w", encoding="utf-8") as f:
                f.write(text.replace("<action>deny</action>", "<action>maybe</action>", 1))
            line = text[:text.index("<action>deny</action>")].count("\n") + 1
            agent.proc.send_signal(signal.SIGHUP)
            agent.wait_log("access control rules unchanged")
            assert f"{rules}:{line}:" in "".join(agent.log), "".join(agent.log)
            assert error_of(lambda: monitor.edit_config(target="running", config=change)).tag \
                == "access-denied"
            # Rules that let the monitor write, in force once read again.
            with open(rules, "w", encoding="utf-8") as f:
                f.write(text.replace("<name>no-writes</name>", "<name>no-writes</name>"
                                     "<rpc-name>none</rpc-name>")
                        .replace("<write-default>deny", "<write-default>permit"))
            agent.proc.send_signal(signal.SIGHUP)
            agent.wait_log("access control rules read again")
            monitor.edit_config(target="running", config=change)
    finally:
        subprocess.run(["rm", "-rf", work], check=True)


def test_a_rules_file_with_a_fault_stops_the_start_naming_file_and_line():
    work = tempfile.mkdtemp(prefix="octunnel-nacm-")
    try:
        cases = [
            # A value of no type of its leaf.
            ("<rule-list><name>x</name><group>*</group>\n<rule><name>r</name>\n"
             "<action>maybe</action></rule></rule-list>", ":3:"),
            # A path to no node of the models served.
            ("<rule-list><name>x</name>\n<rule><name>r</name>\n"
             "<path>/oc-if:interfaces/oc-if:frob</path><action>deny</action></rule></rule-list>",
             ":3:"),
            # State: the counters are the agent's, not the file's.
            ("\n<denied-operations>3</denied-operations>", ":2:"),
        ]
        for body, where in cases:
            rules = rules_file(work, body)
            done = subprocess.run([harness_octunnel(), "serve", "--state-dir",
                                   os.path.join(work, "state"), "--unix",
                                   os.path.join(work, "sock"), "--nacm", rules],
                                  capture_output=True, text=True)
            assert done.returncode == 2, done.stderr
            assert rules + where in done.stderr, (body, done.stderr)
    finally:
        subprocess.run(["rm", "-rf", work], check=True)


def harness_octunnel():
    import harness
    return harness.OCTUNNEL
