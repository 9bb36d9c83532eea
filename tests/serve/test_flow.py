"""Sessions that would hold others up or hold on to memory: clients that
send and never read, requests past the budget of requests in flight, users
past their sessions, and clients that end their input with requests still
to answer."""

import contextlib
import fcntl
import os
import re
import socket
import struct
import subprocess
import termios
import threading
import time

import paramiko
from lxml import etree
from ncclient.transport.errors import SessionCloseError

import payloads as p
from payloads import chunked, end_marked
from harness import (NC, PASSWORD, USER, Agent, committed, error_tag, leaves, read, source,
                     tool_leaves)

GET = p.get()
GET_CONFIG = p.get_config()
MONITORING = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"
M = f"{{{MONITORING}}}"


def seeded_agent(interfaces, *args, **kw):
    """An agent whose running configuration holds `interfaces` tunnels from
    its start: a <get> of them answers about 1.2 kB each."""
    agent = Agent(*args, **kw)
    os.makedirs(agent.state)
    with open(agent.running, "w", encoding="utf-8") as f:
        f.write(subprocess.run([source("tools", "gendoc.py"), "config", str(interfaces), "xml"],
                               check=True, capture_output=True, text=True).stdout)
    return agent


def sanitized(agent):
    """Whether the agent runs under AddressSanitizer, whose allocator keeps
    what is freed in quarantine and pads what is not: its memory says
    nothing of the agent's bounds, which the other build's run holds it to."""
    with open(f"/proc/{agent.proc.pid}/maps", encoding="utf-8") as f:
        return "libasan" in f.read()


def peak_memory(agent):
    """The agent's peak resident memory so far, in bytes."""
    status = read(f"/proc/{agent.proc.pid}/status")
    return int(re.search(r"VmHWM:\s+(\d+) kB", status).group(1)) * 1024


def in_rpcs(m, sid):
    """What netconf-state says session `sid` sent, or None once it is gone."""
    reply = m.get(filter=("subtree", f'<netconf-state xmlns="{MONITORING}"><sessions/>'
                                     "</netconf-state>"))
    for s in etree.fromstring(reply.xml.encode()).iter(f"{M}session"):
        if s.findtext(f"{M}session-id") == sid:
            return int(s.findtext(f"{M}in-rpcs"))
    return None


def session_id(raw):
    return re.search(r"<session-id>(\d+)<", raw.hello).group(1)


def test_clients_that_never_read_hold_up_no_one_else():
    # Four clients, as many as the agent's threads, each asking for about
    # 12 MB of answers it does not read: more than its SSH window and every
    # buffer on the way hold.
    with seeded_agent(1000) as agent:
        m = agent.connect()
        m.timeout = 300  # a test that fails, fails rather than waits for ever
        stallers = [agent.raw() for _ in range(4)]
        # Each sends its requests at once: a client that has answers unread
        # is read no further until it takes them.
        for s in stallers:
            s.send(b"".join(chunked(p.rpc(GET, f"g{i}")) for i in range(10)), raw=True)
        # Another session is answered while they hold on, however long they
        # do; libnetconf2 takes every request of theirs and answers it,
        # nothing of which they have read.
        assert leaves(m.get_config("running"))
        for s in stallers:
            sid = session_id(s)
            while in_rpcs(m, sid) != 10:
                assert in_rpcs(m, sid) is not None, "a staller's session ended"
        assert leaves(m.get_config("running"))
        # Whatever they come back for is all there, in order.
        for s in stallers:
            for i in range(10):
                reply = etree.fromstring(s.receive().encode())
                assert reply.get("message-id") == f"g{i}"
                assert reply.find(f"{{{NC}}}data") is not None
        assert "left more than" not in "".join(agent.log)


def test_a_client_that_never_reads_is_dropped_at_its_bound_and_memory_stays_bounded():
    bound = 4_000_000
    with seeded_agent(1000, "--max-unread", str(bound), unix=True) as agent:
        m = agent.connect()
        m.get()  # what answering a <get> takes, once, before the peak is read
        before = peak_memory(agent)
        # About 96 MB of answers asked for, over SSH and the UNIX socket, and
        # none read: each session ends once it leaves more than the bound
        # unread, and memory grows by a bounded part of what was asked.
        for unix in (False, True):
            s = agent.raw(unix=unix)
            sid = session_id(s)
            with contextlib.suppress(OSError, EOFError):
                s.send(b"".join(chunked(p.rpc(GET, f"g{i}")) for i in range(40)), raw=True)
            said = f"ends: its client left more than {bound} bytes of answers unread"
            agent.wait_log(said, 2 if unix else 1)
            line = [line for line in agent.log if said in line][-1]
            assert line.startswith(f"octunnel serve: session {sid} of '"), line
            s.close()
        grown = peak_memory(agent) - before
        assert sanitized(agent) or grown < 48 << 20, f"the agent grew by {grown} bytes"
        assert leaves(m.get_config("running"))


def test_requests_past_the_budget_are_refused_resource_denied_and_the_session_goes_on():
    budget = 1_500_000
    with Agent("--max-in-flight", str(budget), unix=True) as agent:
        a, b = agent.raw(unix=True), agent.raw()
        # A holds a message of a megabyte, not all of it sent yet: taken,
        # not answered.  Its socket's queue empties once the agent has read
        # (and so counted) every byte of it; B asks only then, or B's
        # request could be the one taken and A's the one refused.
        body = p.rpc("<get>" + " " * 1_000_000 + "</get>", "a1")
        a.send(f"\n#{len(body)}\n{body[:1_000_000]}", raw=True)
        for _ in range(3000):
            if fcntl.ioctl(a.chan, termios.TIOCOUTQ, struct.pack("i", 0)) == struct.pack("i", 0):
                break
            time.sleep(0.01)
        else:
            raise AssertionError("the agent never read what A sent")
        # B's message of a megabyte would pass the budget: resource-denied,
        # with its message-id.  The agent counts A's bytes just after it
        # reads them: B asks again while they are not yet counted.
        for attempt in range(100):
            reply = b.rpc("<get>" + " " * 1_000_000 + "</get>", f"b{attempt}")
            if error_tag(reply) == "resource-denied":
                break
            assert "<data" in reply, reply[:300]
        else:
            raise AssertionError("no request was refused for the budget")
        root = etree.fromstring(reply.encode())
        assert root.get("message-id") == f"b{attempt}"
        assert f"the {budget} bytes" in root.findtext(f".//{{{NC}}}error-message")
        agent.wait_log("a request answered resource-denied")
        assert [line for line in agent.log if "resource-denied" in line][0].startswith(
            f"octunnel serve: session {session_id(b)} of '"), agent.log
        # B goes on; A's request, once whole, is answered as any other.
        assert "<data" in b.rpc(GET_CONFIG, "b-next")
        a.send(body[1_000_000:] + "\n##\n", raw=True)
        assert "<data" in a.receive()
        # What they held is given back: both may send as much again.
        assert "<data" in b.rpc("<get>" + " " * 1_000_000 + "</get>", "b-last")
        assert "<data" in a.rpc("<get>" + " " * 1_000_000 + "</get>", "a-last")


def test_a_flood_of_malformed_messages_behind_a_request_is_answered_within_bounds():
    # 300,000 messages of one byte behind a <get> of some 1.2 MB: each is
    # answered in turn, after the <get>, while the client reads as it
    # sends, and the agent holds no more than a bounded part of them.
    n = 300_000
    with seeded_agent(1000, unix=True) as agent:
        agent.connect().get()
        s = agent.raw(base11=False, unix=True)
        before = peak_memory(agent)
        first, answers, errors = [b""], [0], [0]

        def reader():
            # The answers counted by their end marks as they come.
            tail = b""
            while answers[0] < n + 1:
                data = s.chan.recv(1 << 20)
                if not data:
                    break
                if answers[0] == 0:
                    first[0] += data.split(b"]]>]]>")[0]
                data = tail + data
                answers[0] += data.count(b"]]>]]>")
                errors[0] += data.count(b"<error-tag>operation-failed</error-tag>")
                tail = data[data.rfind(b"]]>]]>") + 6:] if b"]]>]]>" in data else data
                tail = tail[-40:]

        t = threading.Thread(target=reader)
        t.start()
        s.send(end_marked(p.rpc(GET, "g")) + end_marked("<") * n, raw=True)
        t.join()
        assert answers[0] == n + 1
        assert b"<data" in first[0] and b'message-id="g"' in first[0], first[0][:300]
        assert errors[0] >= n - 10
        grown = peak_memory(agent) - before
        assert sanitized(agent) or grown < 32 << 20, f"the agent grew by {grown} bytes"


def refused_session(agent, user, password):
    """Logs in over SSH and says hello: what the agent writes on the
    channel's stderr and its exit status, once it ends the session."""
    ssh = paramiko.SSHClient()
    ssh.set_missing_host_key_policy(paramiko.AutoAddPolicy())
    ssh.connect("127.0.0.1", port=agent.port, username=user, password=password,
                allow_agent=False, look_for_keys=False)
    chan = ssh.get_transport().open_session()
    chan.invoke_subsystem("netconf")
    chan.sendall(p.hello() + "]]>]]>")
    status = chan.recv_exit_status()
    said = b""
    while data := chan.recv_stderr(4096):
        said += data
    ssh.close()
    return said.decode(), status


def test_one_user_holds_no_more_sessions_than_the_limit():
    with Agent("--max-sessions-per-user", "2", users={USER: PASSWORD, "bob": "builder"},
               unix=True) as agent:
        first, second = agent.connect(), agent.raw(unix=True)
        # The UNIX socket's user is the agent's own: alice only over SSH.
        mine = agent.raw(unix=True)
        third = agent.connect()
        said, status = refused_session(agent, USER, PASSWORD)
        assert status == 1
        assert "session refused: 'alice' has 2 sessions open, as many as one user may" in said
        agent.wait_log("a session of 'alice' over SSH from 127.0.0.1 port ")
        agent.wait_log("refused: 'alice' has 2 sessions open")
        # Others are served; so is alice once one of hers is gone.
        b = agent.connect("bob", "builder")
        assert leaves(b.get_config("running")) == set()
        # A session counts until its relay is done, just after its client
        # hears the end: alice may have to ask again, a few times at most.
        first.close_session()
        for _ in range(100):
            try:
                agent.connect().get_config("running")
                break
            except SessionCloseError:
                pass
        else:
            raise AssertionError("alice was refused a session after closing one")
        third.get_config("running")
        for s in (second, mine):
            assert "<data" in s.rpc(GET_CONFIG)


def test_requests_before_the_end_of_input_are_answered_and_applied():
    edit = p.config(p.tunnel("tunnel-ip12", "<config><ttl>{ttl}</ttl></config>"))
    with Agent(unix=True) as agent:
        key = os.path.join(agent.work, "key")
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", USER, "-f", key],
                       check=True)
        agent.stop()
        agent.args += ["--authorized-keys", key + ".pub"]
        agent.start()
        for run in range(6):
            ttl = 10 + run
            messages = (p.hello(False) + "]]>]]>" + p.rpc(p.edit(edit.format(ttl=ttl)), "e")
                        + "]]>]]>" + p.rpc(GET_CONFIG, "g") + "]]>]]>")
            if run % 2 == 0:
                # `ssh -s netconf < file`: the end of the file is the
                # channel's EOF.
                done = subprocess.run(
                    ["ssh", "-i", key, "-p", str(agent.port), "-o", "BatchMode=yes",
                     "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
                     "-o", "LogLevel=ERROR", "-s", f"{USER}@127.0.0.1", "netconf"],
                    input=messages.encode(), capture_output=True, timeout=120)
                out = done.stdout.decode()
                # The channel ends before the connection: ssh has nothing to
                # say, and exits 0.
                assert (done.returncode, done.stderr) == (0, b""), (done.returncode, done.stderr)
            else:
                # The UNIX socket, shut down for writing.
                with socket.socket(socket.AF_UNIX) as s:
                    s.connect(agent.unix)
                    s.sendall(messages.encode())
                    s.shutdown(socket.SHUT_WR)
                    chunks = []
                    while data := s.recv(65536):
                        chunks.append(data)
                    out = b"".join(chunks).decode()
            replies = [m for m in out.split("]]>]]>")[1:] if m.strip()]
            assert len(replies) == 2, out
            assert 'message-id="e"' in replies[0] and "<ok/>" in replies[0], replies[0]
            assert f"<ttl>{ttl}</ttl>" in replies[1], replies[1]
            assert f"/interfaces/interface[tunnel-ip12]/tunnel/config/ttl={ttl}" in \
                tool_leaves(committed(agent))
