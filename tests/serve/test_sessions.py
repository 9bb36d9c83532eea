"""Several sessions at once: locks, killed and closed sessions, clients
editing together, and an agent killed in the middle of a stream of edits."""

import os
import pwd
import random
import re
import socket
import subprocess
import threading
import time

from lxml import etree
from ncclient.operations.errors import TimeoutExpiredError
from ncclient.operations.rpc import RPCError
from ncclient.transport.errors import SessionCloseError, TransportError

from harness import (NC, PASSWORD, USER, Agent, committed, config, error_of, error_tag, leaves,
                     read, source, tool_leaves, tunnel)

MONITORING = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"
M = f"{{{MONITORING}}}"
OCTNM = "urn:octunnel:yang:octunnel-netconf-monitoring"
COUNTERS = ("in-rpcs", "in-bad-rpcs", "out-rpc-errors", "out-notifications")
RFC3339 = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")


def address(i, n):
    """An IPv6 address entry of a tunnel, one of a client's edits."""
    ip = f"2001:db8:{i:x}::{n:x}"
    return ip, (f"<ipv6><addresses><address><ip>{ip}</ip><config><ip>{ip}</ip>"
                f"<prefix-length>128</prefix-length></config></address></addresses></ipv6>")


def addresses_in(leaves):
    return {leaf.split("address[")[1].split("]")[0] for leaf in leaves
            if "/ipv6/addresses/address[" in leaf and leaf.endswith("/config/prefix-length=128")}


def test_locks_keep_others_out_until_released():
    with Agent() as agent:
        a, b, c = agent.connect(), agent.connect(), agent.connect()
        edit = config(tunnel("tunnel-ip12", "<config><ttl>1</ttl></config>"))
        a.lock("running")

        # Another session gets neither the lock nor an edit (lock-denied,
        # naming the holder), but reads.
        for call in (lambda: b.lock("running"),
                     lambda: b.edit_config(target="running", config=edit)):
            e = error_of(call)
            assert e.tag == "lock-denied", e.tag
            assert f"<session-id>{a.session_id}</session-id>" in e.info, e.info
        b.get_config("running")
        # The holder edits; a second lock of its own is refused too.
        a.edit_config(target="running", config=edit)
        assert error_of(lambda: a.lock("running")).tag == "lock-denied"
        # Only the holder unlocks.
        assert error_of(lambda: b.unlock("running")).tag == "operation-failed"
        a.unlock("running")
        assert error_of(lambda: a.unlock("running")).tag == "operation-failed"

        # A lock goes with its session: closed ...
        b.lock("running")
        b.close_session()
        c.lock("running")
        # ... or killed, which another session may do, not the session itself.
        assert error_of(lambda: c.kill_session(c.session_id)).tag == "invalid-value"
        a.kill_session(c.session_id)
        try:
            c.get_config("running")
            raise AssertionError("a killed session went on")
        except (SessionCloseError, TransportError):
            pass
        a.lock("running")
        a.edit_config(target="running", config=edit)


def netconf_state(m, inner=""):
    """netconf-state as a <get> filtered on it answers it: all of it, or
    what `inner` selects."""
    reply = m.get(filter=("subtree", f'<netconf-state xmlns="{MONITORING}">{inner}</netconf-state>'))
    return etree.fromstring(reply.xml.encode()).find(f".//{M}netconf-state")


def sessions_of(state):
    return {s.findtext(f"{M}session-id"): s for s in state.iterfind(f"{M}sessions/{M}session")}


def counted(e, *names):
    return tuple(int(e.findtext(M + n)) for n in names or COUNTERS)


def yanglint_accepts(state, m, work):
    """yanglint validates netconf-state with ietf-netconf-monitoring and the
    agent's own module of identities, as <get-schema> gives it."""
    own = os.path.join(work, "octunnel-netconf-monitoring.yang")
    with open(own, "w", encoding="utf-8") as f:
        f.write(etree.fromstring(m.get_schema("octunnel-netconf-monitoring").xml.encode())[0].text)
    data = os.path.join(work, "netconf-state.xml")
    with open(data, "wb") as f:
        f.write(etree.tostring(state))
    yang = source("third_party", "openconfig-yang")
    done = subprocess.run(["yanglint", "-p", yang, "-p", work, "-t", "data",
                           os.path.join(yang, "ietf-netconf-monitoring.yang"), own, data],
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr


def test_monitoring_tells_each_session_its_user_the_lock_and_the_counters_as_they_stand():
    with Agent(users={USER: PASSWORD, "bob": "builder"}, unix=True) as agent:
        # Before: a hello that is none, a session closed, one dropped once
        # it had begun (its request answered).
        agent.raw(first=f'<hello xmlns="{NC}"/>').ended()
        agent.connect().close_session()
        dropped = agent.raw()
        dropped.rpc("<get-config><source><running/></source></get-config>")
        dropped.close()
        agent.wait_log("ended: dropped: its connection ended")

        a, b, u = agent.connect(), agent.connect("bob", "builder"), agent.raw(unix=True)
        uid = re.search(r"<session-id>(\d+)<", u.hello).group(1)
        me = pwd.getpwuid(os.getuid()).pw_name
        for sid, who, how in ((a.session_id, USER, "over SSH from 127.0.0.1 port"),
                              (b.session_id, "bob", "over SSH from 127.0.0.1 port"),
                              (uid, me, "on the UNIX socket")):
            agent.wait_log(f"session {sid} of '{who}' began, {how}")
        before = sessions_of(netconf_state(b))

        # The lock, a request refused by the agent and a message refused by
        # the guard, in three sessions.
        a.lock("running")
        assert error_of(lambda: b.lock("running")).tag == "lock-denied"
        assert error_tag(u.rpc("<get")) == "malformed-message"
        state = netconf_state(b)
        yanglint_accepts(state, b, agent.work)

        sessions = sessions_of(state)
        assert set(sessions) == {a.session_id, b.session_id, uid}, sessions.keys()
        for sid, who, host in ((a.session_id, USER, "127.0.0.1"), (b.session_id, "bob", "127.0.0.1"),
                               (uid, me, None)):
            s = sessions[sid]
            assert s.findtext(f"{M}username") == who
            assert s.findtext(f"{M}source-host") == host
            assert RFC3339.match(s.findtext(f"{M}login-time")), s.findtext(f"{M}login-time")
        ssh, unix = sessions[a.session_id].find(f"{M}transport"), sessions[uid].find(f"{M}transport")
        assert ssh.text == "netconf-ssh"
        prefix, name = unix.text.split(":")
        assert (unix.nsmap[prefix], name) == (OCTNM, "netconf-unix")
        # Each <get> counts itself.  The counters moved with what each
        # session did since the first <get>, and no further.
        assert counted(before[b.session_id]) == (1, 0, 0, 0)
        assert counted(before[uid]) == (0, 0, 0, 0)
        assert counted(sessions[a.session_id]) == (1, 0, 0, 0)
        assert counted(sessions[b.session_id]) == (3, 0, 1, 0)
        assert counted(sessions[uid]) == (0, 1, 1, 0)
        lock = state.find(f"{M}datastores/{M}datastore[{M}name='running']/{M}locks/{M}global-lock")
        assert lock.findtext(f"{M}locked-by-session") == a.session_id
        assert RFC3339.match(lock.findtext(f"{M}locked-time"))
        # The agent's totals hold the sessions gone too: the bad hello, the
        # drop, and the requests of both.
        stats = state.find(f"{M}statistics")
        assert RFC3339.match(stats.findtext(f"{M}netconf-start-time"))
        assert counted(stats, "in-bad-hellos", "in-sessions", "dropped-sessions") == (1, 5, 1)
        assert counted(stats) == (6, 1, 2, 0)

        # A session entry selected in part holds its key.
        for s in sessions_of(netconf_state(b, "<sessions><session><username/></session>"
                                                    "</sessions>")).values():
            assert [etree.QName(c).localname for c in s] == ["session-id", "username"]

        # A killed session is named with its user, and by whom; its lock
        # and its entry go with it.
        b.kill_session(a.session_id)
        agent.wait_log(f"session {a.session_id} of '{USER}' killed by session {b.session_id} "
                       "of 'bob'")
        agent.wait_log(f"session {a.session_id} of '{USER}' ended: killed by session "
                       f"{b.session_id}")
        state = netconf_state(b)
        assert set(sessions_of(state)) == {b.session_id, uid}
        assert state.find(f".//{M}locks") is None
        assert counted(state.find(f"{M}statistics"), "dropped-sessions") == (1,)
        assert "<ok/>" in u.rpc("<close-session/>")
        agent.wait_log(f"session {uid} of '{me}' ended: closed")


def test_connections_beyond_256_are_turned_away_and_the_agent_serves_on():
    with Agent(unix=True) as agent:
        held = []
        for _ in range(256):
            held.append(socket.socket(socket.AF_UNIX))
            held[-1].connect(agent.unix)
        with socket.socket(socket.AF_UNIX) as extra:
            extra.connect(agent.unix)
            extra.settimeout(60)
            assert extra.recv(1) == b""
        agent.wait_log("a connection turned away: 256 are open already")
        for s in held:
            s.close()
        # The connections closed end as they see it: a session is served
        # once they have.
        for _ in range(100):
            try:
                agent.raw(unix=True).close()
                break
            except (OSError, EOFError):
                time.sleep(0.1)
        else:
            raise AssertionError("no session after the connections closed")


def edits_at_once(agent, clients, edits, first, kill_after=None):
    """`clients` sessions at once, client i sending `edits` edits of
    addresses of its own (address(first + i, n)) into tunnel-ip1 or, when
    the agent is to be killed once `kill_after` edits are acknowledged, into
    tunnel-ip<i>.  Returns the addresses sent and those acknowledged."""
    sent, acknowledged, failures = [], [], []

    def client(i):
        try:
            m = agent.connect()
            # ncclient may miss the end of a session whose agent dies as a
            # request is being sent, and would wait for its reply for ever:
            # a time bounds that wait, only.
            m.timeout = 30 if kill_after else None
            for n in range(edits):
                ip, inner = address(first + i, n)
                sent.append(ip)
                m.edit_config(target="running", config=config(
                    tunnel(f"tunnel-ip{i if kill_after else 1}", inner)))
                acknowledged.append(ip)
                if len(acknowledged) == kill_after:
                    agent.kill()
        except (RPCError, SessionCloseError, TransportError, TimeoutExpiredError, OSError,
                EOFError) as e:
            failures.append(f"client {i}: {e!r}")

    threads = [threading.Thread(target=client, args=(i,)) for i in range(clients)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert kill_after or not failures, failures
    assert not kill_after or not agent.alive()
    return set(sent), set(acknowledged)


def test_clients_editing_at_once_lose_no_acknowledged_edit():
    with Agent() as agent:
        # Every client writes into the same tunnel: the edits meet in one
        # native list.
        _, acknowledged = edits_at_once(agent, 4, 100, 0)
        assert len(acknowledged) == 4 * 100
        assert addresses_in(leaves(agent.connect().get_config("running"))) == acknowledged
        # ... and so does the file, read after the agent is gone.
        agent.stop()
        assert addresses_in(tool_leaves(read(agent.running))) == acknowledged


def test_an_agent_killed_among_edits_keeps_every_acknowledged_one():
    # Where the agent dies falls anywhere among the commits and the
    # writes of the document that follow them: the number of edits
    # acknowledged first, and whether a pause let the document be written
    # (a second after the last commit), vary from round to round.
    rng = random.Random(11)
    with Agent() as agent:
        for round_ in range(8):
            before = in_file(agent)
            if round_ % 2:
                agent.connect().edit_config(target="running", config=config(
                    tunnel("tunnel-ip9", address(200 + round_, 0)[1])))
                time.sleep(rng.uniform(0.9, 1.2))
                before = in_file(agent)
            # The agent dies with edits under way, while both streams go on.
            sent, acknowledged = edits_at_once(agent, 2, 10_000, 16 * round_,
                                               kill_after=rng.randint(1, 150))
            # The disk holds every acknowledged edit, and nothing no one
            # sent; what a write in flight left beside it goes at the next
            # start.
            assert acknowledged <= in_file(agent)
            left = {f for f in os.listdir(agent.state) if f.startswith("running.xml.")}
            agent.start()
            # (The agent may be writing the document anew by now, under
            # another temporary name.)
            assert not left & set(os.listdir(agent.state)), left
            got = addresses_in(leaves(agent.connect().get_config("running")))
            assert before | acknowledged <= got, (before | acknowledged) - got
            assert got <= before | sent, got - before - sent
        # Stopped cleanly, the agent leaves the document whole, holding it
        # all by itself.
        agent.stop()
        assert {e.text for e in etree.parse(agent.running).iterfind(
            ".//{*}regular-address/{*}address")} == got


def in_file(agent):
    """The IPv6 addresses of the native configuration as committed to the
    disk: the document with the commits logged since."""
    return {e.text for e in etree.fromstring(committed(agent).encode())
            .iterfind(".//{*}regular-address/{*}address")}