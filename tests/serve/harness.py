"""What the tests of `octunnel serve` share: an agent started on an ephemeral
port of 127.0.0.1 with a state directory of its own, ncclient sessions to
it, a NETCONF client of raw frames for what ncclient would never send, and
documents flattened to their leaves for comparison.

Tests are functions named test_* in the group modules; run.py runs a group
and closes with "N passed, N failed".  Nothing waits on a clock: an agent is
ready when it says so on stderr, and gone when it has exited.
"""

import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading

import ncclient.transport.ssh
import paramiko
from lxml import etree
from ncclient import manager

from payloads import NC, OC, TUN, config, interfaces, tunnel  # noqa: F401 - for the tests

# ncclient sends a request only when its transport loop wakes: every 100 ms
# by default, which would make every request of the tests take that long.
ncclient.transport.ssh.TICK = 0.002

IFMGR = "http://valmora.com/ns/yang/Valmora-ifmgr-cfg"

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
OCTUNNEL = None  # set by run.py
# Every agent a test started, so that run.py finds one left running.
PROCESSES = []
USER, PASSWORD = "alice", "tunnels-at-dawn"


def source(*parts):
    return os.path.join(SOURCE, *parts)


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def hashed(password):
    return subprocess.run(["openssl", "passwd", "-6", password], check=True,
                          capture_output=True, text=True).stdout.strip()


class Agent:
    """One `octunnel serve`, its state directory and its log."""

    def __init__(self, *args, state=None, users=None):
        self.work = tempfile.mkdtemp(prefix="octunnel-serve-")
        self.state = state or os.path.join(self.work, "state")
        self.users = os.path.join(self.work, "users")
        with open(self.users, "w", encoding="utf-8") as f:
            for name, password in (users or {USER: PASSWORD}).items():
                f.write(f"{name}:{hashed(password)}\n")
        self.args = list(args)
        self.proc = None
        self.log = []
        self.logged = threading.Condition()
        self.port = None

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        shutil.rmtree(self.work, ignore_errors=True)

    def start(self):
        # The port is free when chosen; should another take it first, the
        # agent says it cannot listen and another is tried.
        for _ in range(20):
            self.port = free_port()
            self.proc = subprocess.Popen(
                [OCTUNNEL, "serve", "--state-dir", self.state,
                 "--listen", f"127.0.0.1:{self.port}", "--users", self.users] + self.args,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                text=True)
            PROCESSES.append(self.proc)
            ready = False
            for line in self.proc.stderr:
                self.log.append(line)
                if "running configuration in" in line:
                    ready = True
                    break
            if ready:
                threading.Thread(target=self._drain, daemon=True).start()
                return
            self.proc.wait()
            if "cannot listen" not in "".join(self.log):
                raise AssertionError("the agent did not start:\n" + "".join(self.log))
        raise AssertionError("no free port for the agent")

    def _drain(self):
        for line in self.proc.stderr:
            with self.logged:
                self.log.append(line)
                self.logged.notify_all()
        with self.logged:
            self.logged.notify_all()

    def wait_log(self, text, count=1):
        """Waits until the log has said `text` `count` times (or the agent
        is gone)."""
        with self.logged:
            self.logged.wait_for(lambda: "".join(self.log).count(text) >= count
                                 or self.proc.poll() is not None)
        assert "".join(self.log).count(text) >= count, "".join(self.log)

    def stop(self):
        """SIGTERM: the agent stops cleanly, with status 0."""
        self.proc.send_signal(signal.SIGTERM)
        rc = self.proc.wait()
        assert rc == 0, f"the agent stopped with status {rc}:\n" + "".join(self.log)

    def kill(self):
        self.proc.send_signal(signal.SIGKILL)
        self.proc.wait()

    def alive(self):
        return self.proc.poll() is None

    def connect(self, user=USER, password=PASSWORD):
        return manager.connect(host="127.0.0.1", port=self.port, username=user,
                               password=password, hostkey_verify=False, allow_agent=False,
                               look_for_keys=False, timeout=None)

    def raw(self, base11=True):
        return RawSession(self.port, base11)

    @property
    def running(self):
        return os.path.join(self.state, "running.xml")


class RawSession:
    """NETCONF over SSH by hand, frames and all, for messages no client
    library would send."""

    def __init__(self, port, base11=True):
        self.ssh = paramiko.SSHClient()
        self.ssh.set_missing_host_key_policy(paramiko.AutoAddPolicy())
        self.ssh.connect("127.0.0.1", port=port, username=USER, password=PASSWORD,
                         allow_agent=False, look_for_keys=False)
        self.chan = self.ssh.get_transport().open_session()
        self.chan.invoke_subsystem("netconf")
        self.buffer = b""
        self.base11 = False
        self.hello = self.receive()
        caps = "<capability>urn:ietf:params:netconf:base:1.0</capability>"
        if base11:
            caps += "<capability>urn:ietf:params:netconf:base:1.1</capability>"
        self.send(f'<hello xmlns="{NC}"><capabilities>{caps}</capabilities></hello>')
        self.base11 = base11

    def close(self):
        self.ssh.close()

    def send(self, text, raw=False):
        data = text.encode() if isinstance(text, str) else text
        if raw:
            self.chan.sendall(data)
        elif self.base11:
            self.chan.sendall(b"\n#%d\n" % len(data) + data + b"\n##\n")
        else:
            self.chan.sendall(data + b"]]>]]>")

    def _more(self):
        data = self.chan.recv(65536)
        if not data:
            raise EOFError("the agent closed the session")
        self.buffer += data

    def receive(self):
        """The next message, or EOFError once the agent closed the session."""
        if not self.base11:
            while b"]]>]]>" not in self.buffer:
                self._more()
            message, self.buffer = self.buffer.split(b"]]>]]>", 1)
            return message.decode()
        message = b""
        while True:
            while True:
                m = re.match(rb"\s*\n#(\d+|#)\n", self.buffer)
                if m:
                    break
                self._more()
            self.buffer = self.buffer[m.end():]
            if m.group(1) == b"#":
                return message.decode()
            size = int(m.group(1))
            while len(self.buffer) < size:
                self._more()
            message += self.buffer[:size]
            self.buffer = self.buffer[size:]

    def rpc(self, body, message_id="1"):
        self.send(f'<rpc xmlns="{NC}" message-id="{message_id}">{body}</rpc>')
        return self.receive()


# ---------------------------------------------------------------- documents

def content(path):
    """The document of a file, its comments and NETCONF envelope left out."""
    text = read(path)
    root = etree.fromstring(text.encode())
    if etree.QName(root).namespace == NC and etree.QName(root).localname in (
            "config", "data", "filter"):
        return "".join(etree.tostring(c, encoding=str) for c in root
                       if isinstance(c.tag, str))
    return etree.tostring(root, encoding=str)


def leaves(xml, drop_ops=True):
    """A document as its leaves, "path=value", a list entry named by its key
    once met (interface[tunnel-ip12]); namespaces and envelope left out."""
    if isinstance(xml, str):
        xml = xml.encode()
    root = etree.fromstring(xml)
    keys = {"interface": "name", "address": "ip", "interface-configuration": "interface-name",
            "regular-address": "address"}
    found = set()

    def walk(node, path):
        tag = etree.QName(node).localname
        kids = [c for c in node if isinstance(c.tag, str)]
        step = tag
        if tag in keys:
            for c in kids:
                if etree.QName(c).localname == keys[tag]:
                    step = f"{tag}[{(c.text or '').strip()}]"
        if not kids:
            found.add(f"{path}/{tag}={(node.text or '').strip()}")
        for c in kids:
            walk(c, f"{path}/{step}")

    tops = [root]
    if etree.QName(root).localname in ("data", "config", "rpc-reply"):
        tops = [c for c in root.iter() if isinstance(c.tag, str)
                and etree.QName(c).localname == "interfaces"]
    for t in tops:
        walk(t, "")
    return found


def reply_leaves(reply):
    """The leaves of the interfaces of an ncclient reply."""
    return leaves(reply.xml)


def error_of(call):
    """The RPCError that `call` raises."""
    from ncclient.operations.rpc import RPCError
    try:
        call()
    except RPCError as e:
        return e
    raise AssertionError("the request was answered <ok/> where an error was due")
