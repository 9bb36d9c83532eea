"""The candidate, startup and the confirmed commit over SSH: a candidate
committed as one transaction through running's edit path, or refused whole;
locks between sessions as RFC 6241 (7.5, 8.3.5.2) has them; confirmed
commits confirmed, extended, cancelled, run out, and outliving an agent
killed in the middle of the timer; startup written, read, deleted and
loaded only into a running configuration never written."""

import os
import shutil
import time

from lxml import etree

from harness import (BASE, NC, PASSWORD, USER, Agent, as_config, committed, config, error_of,
                     leaves, source, tool_leaves, tunnel)
from payloads import rpc

OC = "http://openconfig.net/yang/interfaces"
T12 = "/interfaces/interface[tunnel-ip12]/tunnel/config/ttl"
# What the models take and the tunnel mapping does not carry.
DESCRIPTION = config("<interface><name>tunnel-ip12</name><config><description>x</description>"
                     "</config></interface>")
USERS = {USER: PASSWORD, "bob": "other-side", "monitor": "watching"}


def ttl(value, name="tunnel-ip12"):
    return config(tunnel(name, f"<config><ttl>{value}</ttl></config>"))


def ttl_of(m, store="running", name="tunnel-ip12"):
    found = [x for x in leaves(m.get_config(store))
             if x.startswith(f"/interfaces/interface[{name}]/tunnel/config/ttl=")]
    return found[0].split("=", 1)[1] if found else None


def seed(agent):
    """A session to `agent`, whose running holds the round-trip configuration."""
    m = agent.connect()
    m.edit_config(target="running", config=as_config(BASE))
    return m


def native(agent):
    """The committed native configuration's leaves, as the tool reads it,
    but for what is read-only."""
    return {leaf for leaf in tool_leaves(committed(agent)) if "/state/" not in leaf}


def raw_rpc(m, body):
    """A request ncclient has no method for, its reply as text."""
    return m.dispatch(etree.fromstring(body)).xml


def test_candidate_is_committed_whole_through_running_edit_path():
    with Agent(users=USERS) as agent:
        m = seed(agent)
        running = leaves(m.get_config("running"))
        # Untouched, the candidate is running.
        assert leaves(m.get_config("candidate")) == running
        m.edit_config(target="candidate", config=ttl(33))
        m.edit_config(target="candidate", config=config(
            tunnel("tunnel-ip13", "", "delete")))
        assert ttl_of(m, "candidate") == "33"
        assert leaves(m.get_config("running")) == running, "running changed before <commit>"
        m.validate(source="candidate")
        # A filter selects in the candidate as in running.
        reply = m.get_config("candidate", filter=(
            "subtree", f'<interfaces xmlns="{OC}"><interface><name>tunnel-ip12</name>'
                       "</interface></interfaces>"))
        assert {x.split("]")[0] for x in leaves(reply)} == {"/interfaces/interface[tunnel-ip12"}
        m.commit()
        after = leaves(m.get_config("running"))
        assert ttl_of(m) == "33"
        assert not any("tunnel-ip13" in x for x in after)
        # The native configuration holds it as the tool reads it, and the
        # candidate is running again.
        assert native(agent) == after
        assert leaves(m.get_config("candidate")) == after


def test_commit_refused_whole_leaves_running_and_candidate():
    with Agent(users=USERS) as agent:
        m = seed(agent)
        running, native = leaves(m.get_config("running")), committed(agent)
        # The models take an interface's description; the tunnel mapping
        # does not, so the commit reads back otherwise and is refused.
        m.edit_config(target="candidate", config=ttl(44))
        m.edit_config(target="candidate", config=DESCRIPTION)
        err = error_of(m.commit)
        assert err.tag == "operation-not-supported", err
        assert leaves(m.get_config("running")) == running
        assert committed(agent) == native
        assert ttl_of(m, "candidate") == "44", "the candidate lost what it held"
        err = error_of(lambda: m.validate(source="candidate"))
        assert err.tag == "operation-not-supported", err
        m.discard_changes()
        assert leaves(m.get_config("candidate")) == running
        # Refused by the models at the edit itself: nothing of it kept.
        err = error_of(lambda: m.edit_config(target="candidate", config=ttl(999)))
        assert err.tag == "invalid-value", err
        assert leaves(m.get_config("candidate")) == running


def test_candidate_locks_between_sessions():
    with Agent(users=USERS) as agent:
        a = seed(agent)
        b = agent.connect("bob", "other-side")
        running = leaves(a.get_config("running"))
        cases = [
            # (who, what, error-tag or None)
            (a, lambda s: s.edit_config(target="candidate", config=ttl(20)), None),
            # Changed and not committed: no one locks it, its author neither.
            (b, lambda s: s.lock("candidate"), "lock-denied"),
            (a, lambda s: s.lock("candidate"), "lock-denied"),
            (a, lambda s: s.discard_changes(), None),
            (b, lambda s: s.lock("candidate"), None),
            # Locked: the others neither edit, discard, commit nor lock it.
            (a, lambda s: s.edit_config(target="candidate", config=ttl(21)), "lock-denied"),
            (a, lambda s: s.discard_changes(), "lock-denied"),
            (a, lambda s: s.commit(), "lock-denied"),
            (a, lambda s: s.lock("candidate"), "lock-denied"),
            (b, lambda s: s.edit_config(target="candidate", config=ttl(22)), None),
            # The holder's unlock takes its changes with it.
            (b, lambda s: s.unlock("candidate"), None),
            (a, lambda s: s.lock("candidate"), None),
            (a, lambda s: s.edit_config(target="candidate", config=ttl(23)), None),
        ]
        for i, (who, what, tag) in enumerate(cases):
            if tag is None:
                what(who)
            else:
                err = error_of(lambda: what(who))
                assert err.tag == tag, (i, err)
            if i == 11:
                assert leaves(a.get_config("candidate")) == running, "unlock kept the changes"
        # The holder's session ends: its lock and its changes go.
        a.close_session()
        b.lock("candidate")
        assert leaves(b.get_config("candidate")) == running
        # Its lock shows in monitoring, beside running and startup.
        state = etree.fromstring(b.get(filter=(
            "subtree", '<netconf-state xmlns="urn:ietf:params:xml:ns:yang:'
                       'ietf-netconf-monitoring"><datastores/></netconf-state>')).data_xml.encode())
        names = [e.text for e in state.iter("{*}name")]
        assert names == ["running", "candidate", "startup"], names
        held = state.findall(".//{*}datastore/{*}locks/{*}global-lock/{*}locked-by-session")
        assert [e.text for e in held] == [b.session_id], etree.tostring(state)
        caps = set(b.server_capabilities)
        for cap in ("urn:ietf:params:netconf:capability:candidate:1.0",
                    "urn:ietf:params:netconf:capability:confirmed-commit:1.1",
                    "urn:ietf:params:netconf:capability:startup:1.0"):
            assert any(c.startswith(cap) for c in caps), (cap, caps)


def test_confirmed_commits():
    with Agent(users=USERS) as agent:
        m = seed(agent)
        before = leaves(m.get_config("running"))
        other = agent.connect("bob", "other-side")
        state = os.path.join(agent.state, "confirmed-commit")

        # Confirmed, extended by a second confirmed commit, then confirmed.
        m.edit_config(target="candidate", config=ttl(50))
        m.commit(confirmed=True, timeout="600")
        assert os.path.exists(state) and ttl_of(m) == "50"
        m.edit_config(target="candidate", config=ttl(51))
        m.commit(confirmed=True, timeout="600")
        # Only its own session confirms one without persist.
        assert error_of(other.commit).tag == "in-use"
        assert error_of(other.cancel_commit).tag == "in-use"
        m.commit()
        assert not os.path.exists(state) and ttl_of(m) == "51"
        assert error_of(m.cancel_commit).tag == "invalid-value"

        # Cancelled: back to before the first confirmed commit of the two.
        confirmed = leaves(m.get_config("running"))
        m.edit_config(target="candidate", config=ttl(52))
        m.commit(confirmed=True)
        m.edit_config(target="candidate", config=ttl(53))
        m.commit(confirmed=True)
        m.cancel_commit()
        assert leaves(m.get_config("running")) == confirmed
        assert native(agent) == confirmed
        assert not os.path.exists(state)

        # The timer runs out.
        m.edit_config(target="candidate", config=ttl(54))
        m.commit(confirmed=True, timeout="1")
        agent.wait_log("no commit confirmed it by")
        assert leaves(m.get_config("running")) == confirmed
        assert not os.path.exists(state)

        # The session that made it ends without persist.
        m.edit_config(target="candidate", config=ttl(55))
        m.commit(confirmed=True, timeout="600")
        m.close_session()
        agent.wait_log("that made it ended unconfirmed")
        assert leaves(other.get_config("running")) == confirmed

        # With persist, another session confirms it by its persist-id.
        other.edit_config(target="candidate", config=ttl(56))
        other.commit(confirmed=True, timeout="600", persist="tok&en 1")
        other.close_session()
        third = agent.connect()
        assert ttl_of(third) == "56", "a commit with persist went with its session"
        assert error_of(third.commit).tag == "invalid-value"
        assert error_of(lambda: third.commit(persist_id="wrong")).tag == "invalid-value"
        third.commit(persist_id="tok&en 1")
        assert ttl_of(third) == "56" and not os.path.exists(state)
        assert before != leaves(third.get_config("running"))


def test_confirmed_commit_outlives_a_killed_agent():
    with Agent(users=USERS) as agent:
        m = seed(agent)
        before = leaves(m.get_config("running"))
        for persist in ("p1", None):
            m.edit_config(target="candidate", config=ttl(60))
            if persist:
                m.commit(confirmed=True, timeout="3", persist=persist)
            else:
                m.commit(confirmed=True, timeout="600")
            assert ttl_of(m) == "60"
            made = time.monotonic()
            agent.kill()
            agent.log.clear()
            agent.start()
            m = agent.connect()
            if persist:
                # The time left is waited for: running holds the commit until
                # the deadline, by the wall clock, has passed.
                assert "waits for its confirmation" in "".join(agent.log), agent.log
                agent.wait_log("no commit confirmed it by")
                assert time.monotonic() - made >= 2
            else:
                # Its session ended with the agent: taken back at the start.
                assert "its session ended with the agent's last run" in "".join(agent.log)
            assert leaves(m.get_config("running")) == before
            assert native(agent) == before
        # A deadline that passed while the agent was stopped: at once.  (It
        # is killed, so that no timer of its own runs out as it stops.)
        m.edit_config(target="candidate", config=ttl(61))
        m.commit(confirmed=True, timeout="3", persist="p2")
        made = time.monotonic()
        agent.kill()
        time.sleep(max(0.0, 3.2 - (time.monotonic() - made)))
        agent.log.clear()
        agent.start()
        assert "passed while the agent was stopped" in "".join(agent.log), agent.log
        m = agent.connect()
        assert leaves(m.get_config("running")) == before
        # A state file the agent did not write stops it, naming the line.
        with open(os.path.join(agent.state, "confirmed-commit"), "w", encoding="utf-8") as f:
            f.write("deadline soon\n\n")
        agent.stop()
        agent.log.clear()
        try:
            agent.start()
        except AssertionError as e:
            assert "confirmed-commit:1: the deadline is no time" in str(e), e
        else:
            raise AssertionError("the agent started on a broken state file")
        assert agent.proc.wait() == 2
        os.unlink(os.path.join(agent.state, "confirmed-commit"))
        agent.start()


def test_startup_copied_deleted_and_loaded_only_into_a_new_running():
    with Agent(users=USERS) as agent:
        m = seed(agent)
        seeded = leaves(m.get_config("running"))
        assert leaves(m.get_config("startup")) == set()
        m.copy_config(source="running", target="startup")
        assert leaves(m.get_config("startup")) == seeded
        # An inline configuration is checked as a commit would be, whole.
        bad = (f'<copy-config xmlns="{NC}"><target><startup/></target><source>'
               + DESCRIPTION + "</source></copy-config>")
        assert error_of(lambda: raw_rpc(m, bad)).tag == "operation-not-supported"
        assert leaves(m.get_config("startup")) == seeded
        raw_rpc(m, f'<copy-config xmlns="{NC}"><target><startup/></target><source>{ttl(71)}'
                   "</source></copy-config>")
        assert leaves(m.get_config("startup")) == leaves(ttl(71))
        # Startup into the candidate, the candidate into running.
        m.copy_config(source="startup", target="candidate")
        assert leaves(m.get_config("candidate")) == leaves(m.get_config("startup"))
        m.copy_config(source="candidate", target="running")
        assert leaves(m.get_config("running")) == leaves(m.get_config("startup"))
        # Running is kept across a restart; startup does not replace it.
        m.edit_config(target="running", config=ttl(73))
        agent.stop()
        agent.start()
        m = agent.connect()
        assert ttl_of(m) == "73"
        # A running configuration never written starts from startup.
        agent.stop()
        for name in ("running.xml", "running.commits"):
            if os.path.exists(os.path.join(agent.state, name)):
                os.unlink(os.path.join(agent.state, name))
        agent.log.clear()
        agent.start()
        assert "running starts from the startup configuration" in "".join(agent.log)
        m = agent.connect()
        assert ttl_of(m) == "71"
        m.delete_config("startup")
        assert leaves(m.get_config("startup")) == set()
        assert not os.path.exists(os.path.join(agent.state, "startup.xml"))
        # Running locked by another session holds up no check that keeps
        # nothing: a copy to startup, a <validate> of the candidate.
        other = agent.connect("bob", "other-side")
        other.lock("running")
        m.edit_config(target="candidate", config=ttl(74))
        m.validate(source="candidate")
        m.copy_config(source="candidate", target="startup")
        assert ttl_of(m, "startup") == "74"
        assert error_of(m.commit).tag == "lock-denied"
        other.unlock("running")
        # Locked by another session, startup is not written.
        other.lock("startup")
        assert error_of(lambda: m.copy_config(source="running", target="startup")).tag \
            == "lock-denied"
        assert error_of(lambda: m.delete_config("startup")).tag == "lock-denied"


def test_access_control_holds_the_new_operations():
    with Agent("--nacm", source("examples", "nacm-read-only.xml"), users=USERS) as agent:
        m = seed(agent)
        monitor = agent.connect("monitor", "watching")
        running = leaves(m.get_config("running"))
        # A read-only user writes neither the candidate nor, by a commit,
        # running.
        assert error_of(lambda: monitor.edit_config(target="candidate", config=ttl(80))).tag \
            == "access-denied"
        m.edit_config(target="candidate", config=ttl(81))
        assert error_of(monitor.commit).tag == "access-denied"
        assert error_of(lambda: monitor.copy_config(source="candidate", target="running")).tag \
            == "access-denied"
        assert leaves(m.get_config("running")) == running
        # Nor startup, whatever the source.
        for src in ("running", "candidate"):
            assert error_of(lambda: monitor.copy_config(source=src, target="startup")).tag \
                == "access-denied", src
        assert not os.path.exists(os.path.join(agent.state, "startup.xml"))
        m.commit()
        assert ttl_of(m) == "81"
        m.copy_config(source="running", target="startup")
        assert ttl_of(monitor, "startup") == "81"
