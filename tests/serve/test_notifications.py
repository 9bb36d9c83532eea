"""Event notifications (RFC 5277, RFC 6470) read by ncclient: the changes
another session commits, with their paths and who made them; sessions
that begin and end; replay from a start time, a stop time that ends the
subscription; and the subscriptions the agent refuses."""

import datetime
import os
import shutil
import tempfile

from lxml import etree
from ncclient.operations.rpc import RPCError

from harness import Agent, seeded
from test_nacm import ACM, READ_ONLY, USERS
from payloads import config, tunnel

NCN = "{urn:ietf:params:xml:ns:yang:ietf-netconf-notifications}"
NETMOD = "{urn:ietf:params:xml:ns:netmod:notification}"
T12 = "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']"


def events(m, count=None, timeout=5):
    """The events a subscribed session receives (the element inside each
    <notification>), `count` of them, or all until none comes for
    `timeout` seconds."""
    got = []
    while count is None or len(got) < count:
        n = m.take_notification(timeout=timeout)
        if n is None:
            break
        root = etree.fromstring(n.notification_xml.encode())
        assert root.findtext("{*}eventTime"), n.notification_xml
        got.append([c for c in root if etree.QName(c).localname != "eventTime"][0])
    assert count is None or len(got) == count, [etree.tostring(e) for e in got]
    return got


def edits_of(change):
    """A netconf-config-change's edits: (target, operation), the target with
    the prefixes its element declares."""
    return [(e.findtext(f"{NCN}target"), e.findtext(f"{NCN}operation"))
            for e in change.iter(f"{NCN}edit")]


def test_a_commit_by_another_session_is_told_with_its_paths_and_who_made_it():
    with seeded() as (agent, watcher):
        watcher.create_subscription()
        editor = agent.connect()
        started = events(watcher, 1)[0]
        assert started.tag == f"{NCN}netconf-session-start"
        editor_id = started.findtext(f"{NCN}session-id")
        editor.edit_config(target="running", config=config(
            tunnel("tunnel-ip12", "<config><ttl>9</ttl></config>") +
            tunnel("tunnel-ip99", "<config><ttl>7</ttl></config>") +
            tunnel("tunnel-ip13", "", "delete")))
        # A session subscribed goes on with its own requests between its
        # events, each answered in turn.
        assert "tunnel-ip99" in watcher.get_config("running").data_xml
        change = events(watcher, 1)[0]
        assert change.tag == f"{NCN}netconf-config-change"
        by = change.find(f"{NCN}changed-by")
        assert (by.findtext(f"{NCN}username"), by.findtext(f"{NCN}session-id"),
                by.findtext(f"{NCN}source-host")) == ("alice", editor_id, "127.0.0.1")
        assert change.findtext(f"{NCN}datastore") == "running"
        # The highest node each change touched, in the order of the
        # configuration, with the prefixes its namespaces are declared by.
        target = change.find(f"{NCN}edit/{NCN}target")
        assert target.nsmap["oc-if"] == "http://openconfig.net/yang/interfaces"
        assert edits_of(change) == [
            (T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl", "replace"),
            ("/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip13']", "delete"),
            ("/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip99']", "create"),
        ]
        # Its session's monitoring counts what it was sent.
        mon = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"
        state = etree.fromstring(watcher.get(filter=(
            "subtree", f'<netconf-state xmlns="{mon}"><sessions/></netconf-state>')).data_xml.encode())
        mine = [s for s in state.iter(f"{{{mon}}}session")
                if s.findtext(f"{{{mon}}}session-id") == watcher.session_id]
        assert mine[0].findtext(f"{{{mon}}}out-notifications") == "2"
        # An edit that changes nothing is no change; a refused one neither.
        editor.edit_config(target="running", config=config(
            tunnel("tunnel-ip12", "<config><ttl>9</ttl></config>")))
        try:
            editor.edit_config(target="running", config=config(
                tunnel("tunnel-ip12", "<config><ttl>300</ttl></config>")))
        except RPCError:
            pass
        # A change of more nodes than a notice names is told as one of the
        # whole configuration.
        editor.edit_config(target="running", config=config("".join(
            tunnel(f"tunnel-ip{1000 + i}", "<config><ttl>5</ttl></config>") for i in range(1001))))
        assert edits_of(events(watcher, 1)[0]) == [("/oc-if:interfaces", "replace")]
        editor.close_session()
        ended = events(watcher, 1)[0]
        assert ended.tag == f"{NCN}netconf-session-end"
        assert (ended.findtext(f"{NCN}session-id"),
                ended.findtext(f"{NCN}termination-reason")) == (editor_id, "closed")


def test_replay_from_a_start_time_and_a_stop_time_that_ends_the_subscription():
    with seeded() as (agent, m):
        before = datetime.datetime.now(datetime.timezone.utc)
        for ttl in (10, 11):
            m.edit_config(target="running", config=config(
                tunnel("tunnel-ip12", f"<config><ttl>{ttl}</ttl></config>")))
        killer = agent.connect()
        victim = agent.connect()
        agent.wait_log(f"session {victim.session_id} of 'alice' began")
        killer.kill_session(victim.session_id)
        agent.wait_log(f"session {victim.session_id} of 'alice' ended: killed")
        # Everything since the start: the seeding session's start and its
        # commits, the two sessions' starts, the kill, then the mark that
        # the replay is done, and what comes after it live.
        replay = agent.connect()
        replay.create_subscription(start_time="2000-01-01T00:00:00Z")
        got = events(replay, 8)
        kinds = [etree.QName(e).localname for e in got]
        assert kinds == ["netconf-session-start", "netconf-config-change",
                         "netconf-config-change", "netconf-config-change",
                         "netconf-session-start", "netconf-session-start",
                         "netconf-session-end", "netconf-session-start"], kinds
        end = got[6]
        assert (end.findtext(f"{NCN}termination-reason"), end.findtext(f"{NCN}killed-by")) == \
            ("killed", str(killer.session_id))
        assert [etree.QName(e).localname for e in events(replay, 1)] == ["replayComplete"]
        m.edit_config(target="running", config=config(
            tunnel("tunnel-ip12", "<config><ttl>12</ttl></config>")))
        assert edits_of(events(replay, 1)[0]) == [
            (T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl", "replace")]

        # From a time after the seeding, to a time already past: the two
        # commits of ttl between them, the replay's end, and the
        # subscription's, after which nothing more is sent.
        window = agent.connect()
        agent.wait_log(f"session {window.session_id} of 'alice' began")
        middle = datetime.datetime.now(datetime.timezone.utc)
        window.create_subscription(start_time=before.isoformat(),
                                   stop_time=middle.isoformat())
        got = events(window, 10)
        assert [etree.QName(e).localname for e in got] == [
            "netconf-config-change", "netconf-config-change", "netconf-session-start",
            "netconf-session-start", "netconf-session-end", "netconf-session-start",
            "netconf-config-change", "netconf-session-start", "replayComplete",
            "notificationComplete"]
        m.edit_config(target="running", config=config(
            tunnel("tunnel-ip12", "<config><ttl>13</ttl></config>")))
        assert events(window, timeout=1) == []
        # Its subscription over, the session may subscribe again.
        window.create_subscription()


def test_subscriptions_the_agent_cannot_honour_are_refused_naming_the_parameter():
    with seeded() as (agent, m):
        later = (datetime.datetime.now(datetime.timezone.utc) +
                 datetime.timedelta(hours=1)).isoformat()
        cases = [
            (dict(stream_name="SYSLOG"), "invalid-value", "stream"),
            (dict(start_time=later), "bad-element", "startTime"),
            (dict(start_time="2030-01-01T00:00:00Z", stop_time="2029-01-01T00:00:00Z"),
             "bad-element", "startTime"),
            (dict(start_time="2001-01-01T00:00:00Z", stop_time="2000-01-01T00:00:00Z"),
             "bad-element", "stopTime"),
            (dict(filter=("subtree", "<netconf-config-change xmlns=\"urn:ietf:params:xml:ns:"
                                     "yang:ietf-netconf-notifications\"/>")),
             "operation-not-supported", "filter"),
        ]
        for kwargs, tag, element in cases:
            s = agent.connect()
            try:
                s.create_subscription(**kwargs)
            except RPCError as e:
                assert (e.tag, e.info and element in e.info) == (tag, True), (kwargs, e.tag,
                                                                             e.info)
            else:
                raise AssertionError(f"a subscription of {kwargs} was taken")
        # The one stream, replayed, as <get> tells it.
        streams = etree.fromstring(m.get(filter=("subtree", f'<netconf xmlns="{NETMOD[1:-1]}"/>'))
                                   .data_xml.encode())
        assert [(s.findtext(f"{NETMOD}name"), s.findtext(f"{NETMOD}replaySupport"))
                for s in streams.iter(f"{NETMOD}stream")] == [("NETCONF", "true")]
        m.create_subscription()
        try:
            m.create_subscription()
        except RPCError as e:
            assert e.tag == "operation-failed", e
        else:
            raise AssertionError("a second subscription of one session was taken")


def test_access_control_keeps_events_from_those_who_may_not_receive_them():
    # The read-only group may not receive session events; configuration
    # changes it may.  The counter of /nacm says how many were kept back.
    work = tempfile.mkdtemp(prefix="octunnel-notif-")
    rules = os.path.join(work, "nacm.xml")
    with open(READ_ONLY, encoding="utf-8") as f:
        text = f.read()
    deny = ("<rule><name>no-session-events</name>"
            "<module-name>ietf-netconf-notifications</module-name>"
            "<notification-name>netconf-session-start</notification-name>"
            "<access-operations>read</access-operations><action>deny</action></rule>")
    with open(rules, "w", encoding="utf-8") as f:
        f.write(text.replace("<group>read-only</group>", "<group>read-only</group>" + deny))
    try:
        with Agent("--nacm", rules, users=USERS) as agent:
            monitor, admin = agent.connect("monitor", "watching"), agent.connect()
            # The agent tells of a session once its hello is through, which
            # may be after the client has it: the admin's own start must be
            # behind the subscriptions, or the monitor would be kept from two.
            agent.wait_log(f"session {admin.session_id} of 'alice' began")
            monitor.create_subscription()
            admin.create_subscription()
            agent.connect().edit_config(target="running", config=config(
                tunnel("tunnel-ip12", "<config><ttl>9</ttl></config>")))
            assert [etree.QName(e).localname for e in events(admin, 2)] == \
                ["netconf-session-start", "netconf-config-change"]
            assert [etree.QName(e).localname for e in events(monitor, 1)] == \
                ["netconf-config-change"]
            state = etree.fromstring(admin.get(filter=("subtree", f'<nacm xmlns="{ACM}"/>'))
                                     .data_xml.encode())
            assert state.findtext(f".//{{{ACM}}}denied-notifications") == "1"
    finally:
        shutil.rmtree(work, ignore_errors=True)


def test_confirmed_commits_and_startup_are_told_and_a_rollback_is_the_servers():
    with seeded() as (agent, watcher):
        editor = agent.connect()
        watcher.create_subscription()
        agent.wait_log(f"session {editor.session_id} of 'alice' began")
        editor.edit_config(target="candidate", config=config(
            tunnel("tunnel-ip12", "<config><ttl>21</ttl></config>")))
        editor.commit(confirmed=True, timeout="1")
        change, start = events(watcher, 2)
        assert edits_of(change) == [(T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl", "replace")]
        assert (start.tag, start.findtext(f"{NCN}confirm-event"), start.findtext(f"{NCN}timeout"),
                start.findtext(f"{NCN}session-id")) == \
            (f"{NCN}netconf-confirmed-commit", "start", "1", editor.session_id)
        # No confirmation: running goes back, by the server's own act, and
        # the timeout names no session.
        back, timeout = events(watcher, 2, timeout=10)
        assert back.find(f"{NCN}changed-by/{NCN}server") is not None
        assert edits_of(back) == [(T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl", "replace")]
        assert (timeout.findtext(f"{NCN}confirm-event"), timeout.find(f"{NCN}session-id")) == \
            ("timeout", None)
        # Confirmed, then written to startup.
        editor.edit_config(target="candidate", config=config(
            tunnel("tunnel-ip12", "<config><ttl>22</ttl></config>")))
        editor.commit(confirmed=True, timeout="60")
        editor.commit()
        editor.copy_config(source="running", target="startup")
        assert [(etree.QName(e).localname, e.findtext(f"{NCN}confirm-event") or
                 e.findtext(f"{NCN}datastore")) for e in events(watcher, 4)] == [
            ("netconf-config-change", "running"), ("netconf-confirmed-commit", "start"),
            ("netconf-confirmed-commit", "complete"), ("netconf-config-change", "startup")]
