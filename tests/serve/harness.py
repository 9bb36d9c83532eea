"""What the tests of `octunnel serve` share: an agent started on an ephemeral
port of 127.0.0.1 with a state directory of its own, ncclient sessions to
it, a NETCONF client of raw frames for what ncclient would never send, and
documents flattened to their leaves for comparison.

Tests are functions named test_* in the group modules; run.py runs a group
and closes with "N passed, N failed".  Nothing waits on a clock: an agent is
ready when it says so on stderr, and gone when it has exited.
"""

import contextlib
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
from ncclient.operations.rpc import RPCError

from payloads import NC, chunked, end_marked, hello, rpc
from payloads import TUN, config, interfaces, tunnel  # noqa: F401 - for the tests

# ncclient sends a request only when its transport loop wakes: every 100 ms
# by default, which would make every request of the tests take that long.
ncclient.transport.ssh.TICK = 0.002

OCTUNNEL = None  # set by run.py
# Every agent a test started, so that run.py finds one left running.
PROCESSES = []
USER, PASSWORD = "alice", "tunnels-at-dawn"


def source(*parts):
    return os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", *parts)


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


BASE = source("tests", "roundtrip", "tunnel-config", "input.xml")


class Agent:
    """One `octunnel serve`, its state directory and its log.  Leaving its
    `with` block normally stops it with SIGTERM, and it must exit 0."""

    def __init__(self, *args, users=None, unix=False):
        self.work = tempfile.mkdtemp(prefix="octunnel-serve-")
        self.state = os.path.join(self.work, "state")
        self.running = os.path.join(self.state, "running.xml")
        self.users = os.path.join(self.work, "users")
        with open(self.users, "w", encoding="utf-8") as f:
            for name, password in (users or {USER: PASSWORD}).items():
                f.write(name + ":" + subprocess.run(["openssl", "passwd", "-6", password],
                                                    check=True, capture_output=True,
                                                    text=True).stdout)
        self.unix = os.path.join(self.work, "netconf.sock") if unix else None
        self.args = list(args) + (["--unix", self.unix] if unix else [])
        self.proc, self.port, self.log = None, None, []
        self.logged = threading.Condition()

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, exc, *_):
        if exc is None and self.alive():
            self.stop()
        if self.alive():
            self.kill()
        shutil.rmtree(self.work, ignore_errors=True)

    def start(self):
        # The port is free when chosen; should another take it first, the
        # agent says it cannot listen and another is tried.
        for _ in range(20):
            with socket.socket() as s:
                s.bind(("127.0.0.1", 0))
                self.port = s.getsockname()[1]
            self.proc = subprocess.Popen(
                [OCTUNNEL, "serve", "--state-dir", self.state,
                 "--listen", f"127.0.0.1:{self.port}", "--users", self.users] + self.args,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                text=True)
            PROCESSES.append(self.proc)
            for line in self.proc.stderr:
                self.log.append(line)
                if "running configuration in" in line:
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
        return self.proc is not None and self.proc.poll() is None

    def connect(self, user=USER, password=PASSWORD, key=None):
        return manager.connect(host="127.0.0.1", port=self.port, username=user,
                               password=password, key_filename=key, hostkey_verify=False,
                               allow_agent=False, look_for_keys=False, timeout=None)

    def raw(self, base11=True, unix=False, first=None):
        """A RawSession over SSH, or over the agent's UNIX socket."""
        if unix:
            chan = socket.socket(socket.AF_UNIX)
            chan.connect(self.unix)
        else:
            ssh = paramiko.SSHClient()
            ssh.set_missing_host_key_policy(paramiko.AutoAddPolicy())
            ssh.connect("127.0.0.1", port=self.port, username=USER, password=PASSWORD,
                        allow_agent=False, look_for_keys=False)
            chan = ssh.get_transport().open_session()
            chan.invoke_subsystem("netconf")
        return RawSession(chan, base11, first)


class RawSession:
    """NETCONF by hand, frames and all, for messages no client library
    would send."""

    def __init__(self, chan, base11=True, first=None):
        """Says hello, offering base:1.1 or not, or sends `first` instead."""
        self.chan, self.buffer, self.base11 = chan, b"", False
        self.hello = self.receive()
        self.send(hello(base11) if first is None else first)
        self.base11 = base11

    def close(self):
        (self.chan.get_transport() if hasattr(self.chan, "get_transport") else self.chan).close()

    def send(self, text, raw=False):
        """A message, framed, or bytes as they are (`raw`)."""
        if raw:
            self.chan.sendall(text.encode() if isinstance(text, str) else text)
        else:
            self.chan.sendall((chunked if self.base11 else end_marked)(text))

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
            while not (m := re.match(rb"\s*\n#(\d+|#)\n", self.buffer)):
                self._more()
            self.buffer = self.buffer[m.end():]
            if m.group(1) == b"#":
                return message.decode()
            while len(self.buffer) < int(m.group(1)):
                self._more()
            message += self.buffer[:int(m.group(1))]
            self.buffer = self.buffer[int(m.group(1)):]

    def rpc(self, body, message_id="1"):
        self.send(rpc(body, message_id))
        return self.receive()

    def ended(self):
        """Asserts that the agent ends the session with no more answers."""
        try:
            raise AssertionError(f"the session went on: {self.receive()}")
        except (EOFError, OSError):
            pass
        self.close()


def error_tag(reply):
    return etree.fromstring(reply.encode()).findtext(f".//{{{NC}}}error-tag")


# The fields of an <rpc-error>, in the order RFC 6241 gives them.
ERROR_FIELDS = ["error-type", "error-tag", "error-severity", "error-app-tag", "error-path",
                "error-message", "error-info"]


def rpc_error(reply):
    """The one <rpc-error> of a reply (its text), or an <rpc-error> element,
    checked: its fields in RFC 6241's order, and each prefix of its
    error-path bound where the path stands."""
    root = etree.fromstring(reply.encode()) if isinstance(reply, str) else reply
    errors = root.findall(f"{{{NC}}}rpc-error") if etree.QName(root).localname == "rpc-reply" \
        else [root]
    assert len(errors) == 1, etree.tostring(root)
    fields = [etree.QName(c).localname for c in errors[0]]
    assert fields == sorted(fields, key=ERROR_FIELDS.index), fields
    path = errors[0].find(f"{{{NC}}}error-path")
    if path is not None:
        for prefix in re.findall(r"(?:^|/|\[)\s*([A-Za-z_][\w.-]*):", path.text or ""):
            assert prefix in path.nsmap, (prefix, path.text, path.nsmap)
    return errors[0]


@contextlib.contextmanager
def seeded(*args):
    """An agent holding the round-trip configuration, and a session to it."""
    with Agent(*args) as agent:
        m = agent.connect()
        m.edit_config(target="running", config=as_config(BASE))
        yield agent, m


# ---------------------------------------------------------------- documents

def as_config(path):
    """The <config> of a file, its comments left out."""
    return etree.tostring(etree.fromstring(read(path).encode()), encoding=str)


def leaves(xml):
    """A document, or an ncclient reply, as its leaves, "path=value", a list
    entry named by its key once met (interface[tunnel-ip12]); namespaces and
    envelope left out."""
    xml = getattr(xml, "xml", xml)
    root = etree.fromstring(xml.encode() if isinstance(xml, str) else xml)
    keys, found = {"interface": "name", "address": "ip"}, set()

    def walk(node, path):
        tag, kids = etree.QName(node).localname, [c for c in node if isinstance(c.tag, str)]
        key = [c.text or "" for c in kids if etree.QName(c).localname == keys.get(tag)]
        step = f"{tag}[{key[0].strip()}]" if key else tag
        if not kids:
            found.add(f"{path}/{tag}={(node.text or '').strip()}")
        for c in kids:
            walk(c, f"{path}/{step}")

    for top in root.iter("{*}interfaces"):
        walk(top, "")
    return found


def committed(agent):
    """The agent's native running configuration as committed: its document
    with the commits logged since, as `--print-running` prints it."""
    return subprocess.run([OCTUNNEL, "serve", "--state-dir", agent.state, "--print-running"],
                          check=True, capture_output=True, text=True).stdout


def tool_leaves(native):
    """The leaves of a native configuration document as `octunnel to-oc`
    reads it."""
    return leaves(subprocess.run([OCTUNNEL, "to-oc", "--kind", "get-config", "-"], input=native,
                                 check=True, capture_output=True, text=True).stdout)


def error_of(call):
    """The RPCError that `call` raises."""
    try:
        call()
    except RPCError as e:
        return e
    raise AssertionError("the request was answered <ok/> where an error was due")
