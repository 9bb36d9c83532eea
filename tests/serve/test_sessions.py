"""Several sessions at once: locks, killed and closed sessions, clients
editing together, and an agent killed in the middle of a stream of edits."""

import os
import socket
import threading
import time

from lxml import etree
from ncclient.operations.errors import TimeoutExpiredError
from ncclient.operations.rpc import RPCError
from ncclient.transport.errors import SessionCloseError, TransportError

from harness import Agent, config, error_of, leaves, tool_leaves, tunnel


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
        _, acknowledged = edits_at_once(agent, 8, 200, 0)
        assert len(acknowledged) == 8 * 200
        assert addresses_in(leaves(agent.connect().get_config("running"))) == acknowledged
        # ... and so does the file, read after the agent is gone.
        agent.stop()
        assert addresses_in(tool_leaves(agent.running)) == acknowledged


def test_an_agent_killed_among_edits_keeps_every_acknowledged_one():
    with Agent() as agent:
        for round_ in range(3):
            before = in_file(agent)
            # The agent dies with edits under way: after the 150th
            # acknowledged one, while both streams go on.
            sent, acknowledged = edits_at_once(agent, 2, 10_000, 16 * round_, kill_after=150)
            # The file is a whole document and holds every acknowledged
            # edit, and nothing no one sent; what a write in flight left
            # beside it goes at the next start.
            assert acknowledged <= in_file(agent)
            agent.start()
            assert not [f for f in os.listdir(agent.state) if f.startswith("running.xml.")]
            got = addresses_in(leaves(agent.connect().get_config("running")))
            assert before | acknowledged <= got, (before | acknowledged) - got
            assert got <= before | sent, got - before - sent


def in_file(agent):
    """The IPv6 addresses of the native configuration file."""
    if not os.path.exists(agent.running):
        return set()
    return {e.text for e in etree.parse(agent.running).iterfind(".//{*}regular-address/{*}address")}
