"""The protocol around the requests: the hello and what it advertises,
<get-schema>, who may log in, and what a client sends that it should not,
from malformed XML to oversized and deeply nested requests."""

import os
import socket
import subprocess

import paramiko
from lxml import etree
from ncclient.transport.errors import AuthenticationError

from harness import (NC, OC, PASSWORD, USER, Agent, config, error_of, read, reply_leaves, source,
                     tunnel)


YANGLIB = "urn:ietf:params:xml:ns:yang:ietf-yang-library"
MONITORING = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"


def test_the_hello_advertises_netconf_and_the_openconfig_modules():
    with Agent() as agent:
        m = agent.connect()
        caps = set(m.server_capabilities)
        for cap in ("urn:ietf:params:netconf:base:1.0", "urn:ietf:params:netconf:base:1.1",
                    "urn:ietf:params:netconf:capability:writable-running:1.0",
                    "urn:ietf:params:netconf:capability:rollback-on-error:1.0"):
            assert cap in caps, cap
        modules = {c.split("module=")[1].split("&")[0] for c in caps if "module=" in c}
        for module in ("openconfig-interfaces", "openconfig-if-ip", "openconfig-if-tunnel",
                       "openconfig-types", "openconfig-inet-types", "openconfig-yang-types",
                       "openconfig-extensions", "iana-if-type", "ietf-netconf-monitoring"):
            assert module in modules, module
        assert "urn:ietf:params:netconf:capability:candidate:1.0" not in caps
        assert m.session_id is not None

        # The schema of each module, as vendored.
        for module in ("openconfig-if-tunnel", "openconfig-interfaces"):
            schema = m.get_schema(module)
            text = etree.fromstring(schema.xml.encode())[0].text
            assert text == read(source("third_party", "openconfig-yang", module + ".yang")), module
        e = error_of(lambda: m.get_schema("no-such-module"))
        assert e.tag == "invalid-value", e.tag

        # The YANG library and NETCONF monitoring say the same through <get>.
        library = etree.fromstring(m.get(filter=("subtree", f'<yang-library xmlns="{YANGLIB}"/>'))
                                   .xml.encode())
        names = {e.text for e in library.iterfind(f".//{{{YANGLIB}}}module/{{{YANGLIB}}}name")}
        assert {"openconfig-interfaces", "openconfig-if-ip", "openconfig-if-tunnel"} <= names
        schemas = etree.fromstring(m.get(filter=("subtree", (
            f'<netconf-state xmlns="{MONITORING}"><schemas><schema><identifier>'
            "openconfig-if-tunnel</identifier></schema></schemas></netconf-state>"))).xml.encode())
        found = schemas.findall(f".//{{{MONITORING}}}schema")
        assert [e.findtext(f"{{{MONITORING}}}version") for e in found] == ["2018-11-21"]
        assert "yang-library" not in m.get_config("running").xml
        m.close_session()
        agent.stop()


def test_only_known_users_log_in():
    with Agent(users={USER: PASSWORD, "bob": "builder"}) as agent:
        keys = os.path.join(agent.work, "keys")
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "carol@laptop",
                        "-f", os.path.join(agent.work, "carol")], check=True)
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "mallory",
                        "-f", os.path.join(agent.work, "mallory")], check=True)
        with open(keys, "w", encoding="utf-8") as f:
            f.write("# carol's key\n" + read(os.path.join(agent.work, "carol.pub")))
        agent.stop()
        agent.args += ["--authorized-keys", keys]
        agent.start()

        for user, password in ((USER, "wrong"), ("bob", PASSWORD), ("nobody", PASSWORD),
                               ("", ""), (USER, "")):
            try:
                agent.connect(user, password)
            except AuthenticationError:
                continue
            raise AssertionError(f"{user!r} with {password!r} was let in")

        def by_key(user, key):
            from ncclient import manager
            return manager.connect(host="127.0.0.1", port=agent.port, username=user,
                                   key_filename=os.path.join(agent.work, key),
                                   hostkey_verify=False, allow_agent=False, look_for_keys=False)

        by_key("carol", "carol").close_session()
        for user, key in (("alice", "carol"), ("mallory", "mallory"), ("carol", "mallory")):
            try:
                by_key(user, key)
            except AuthenticationError:
                continue
            raise AssertionError(f"{user} with {key}'s key was let in")

        # The agent goes on serving those who may.
        for user, password in ((USER, PASSWORD), ("bob", "builder")):
            m = agent.connect(user, password)
            m.get_config("running")
            m.close_session()
        agent.wait_log("password refused for user 'nobody'")
        agent.stop()


def edit(interfaces_content):
    return (f'<edit-config><target><running/></target><config><interfaces xmlns="{OC}">'
            f"{interfaces_content}</interfaces></config></edit-config>")


def error_tag(reply):
    root = etree.fromstring(reply.encode())
    return root.findtext(f".//{{{NC}}}error-tag")


def reply_root(reply):
    return etree.fromstring(reply.encode())


def test_malformed_requests_are_answered_and_the_agent_goes_on():
    with Agent("--max-request", "65536") as agent:
        s = agent.raw()
        assert "urn:ietf:params:netconf:base:1.1" in s.hello

        # Operations that do not exist, or that the agent does not perform.
        assert error_tag(s.rpc('<frobnicate xmlns="urn:example:x"/>')) is not None
        assert error_tag(s.rpc(
            "<copy-config><target><running/></target><source><running/></source></copy-config>")
        ) == "operation-not-supported"
        assert error_tag(s.rpc(
            "<get-config><source><candidate/></source></get-config>")) is not None
        assert error_tag(s.rpc("<edit-config><target><running/></target></edit-config>")) \
            is not None
        # An XPath filter is not taken; an empty subtree filter selects nothing.
        assert error_tag(s.rpc(
            '<get-config><source><running/></source><filter type="xpath" select="/a"/>'
            "</get-config>")) is not None
        reply = s.rpc('<get-config><source><running/></source><filter type="subtree"/>'
                      "</get-config>")
        data = etree.fromstring(reply.encode()).find(f"{{{NC}}}data")
        assert data is not None and len(data) == 0, reply
        # Deeply nested documents and oversized ones.
        deep = "<a>" * 5000 + "</a>" * 5000
        assert error_tag(s.rpc(edit(deep))) == "too-big"
        assert error_tag(s.rpc(edit("<a>" * 150 + "</a>" * 150))) == "too-big"
        big = "".join(tunnel(f"tunnel-ip{i}", f"<config><ttl>{i % 255}</ttl></config>")
                      for i in range(1000))
        assert error_tag(s.rpc(edit(big))) == "too-big"
        # Still serving.
        assert "<data" in s.rpc("<get-config><source><running/></source></get-config>")
        s.close()
        assert agent.alive()
        agent.stop()


# Messages that are no request libnetconf2 could read: the error-tag each is
# answered with on a base:1.1 session (on base:1.0, where RFC 6241 keeps
# malformed-message from the client, operation-failed), and a word of the
# message.
BAD_MESSAGES = [
    (f'<rpc xmlns="{NC}" message-id="1"><get-config><source><running/></get-config>',
     "malformed-message", "mismatch"),
    ("", "malformed-message", "no element"),
    ("  \n ", "malformed-message", "no element"),
    ('<?xml version="1.0"?><!-- a comment alone -->', "malformed-message", "well-formed"),
    (f'<rpc xmlns="{NC}" message-id="2"><get/></rpc><rpc/>', "malformed-message", "well-formed"),
    ('<?xml version="1.0"?><!DOCTYPE r [<!ENTITY a "aaaaaaaaaa">'
     '<!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;">]>'
     f'<rpc xmlns="{NC}" message-id="3"><get/></rpc>', "malformed-message", "document type"),
    (f'<rpc xmlns="{NC}" message-id="4">text<get/></rpc>', "malformed-message", "text"),
    (f'<rpc message-id="5"><get/></rpc>', "malformed-message", "not an &lt;rpc&gt;"),
    (f'<rpc xmlns="{NC}"><get/></rpc>', "missing-attribute", "message-id"),
    (f'<rpc xmlns="{NC}" message-id="6"/>', "missing-element", "no operation"),
]


def test_bad_messages_are_answered_by_the_rfc_and_the_session_goes_on():
    with Agent() as agent:
        for base11 in (True, False):
            s = agent.raw(base11=base11)
            for message, tag, said in BAD_MESSAGES:
                if base11 and message == "":
                    s.send(b"\n#1\n \n##\n", raw=True)  # no chunk is empty
                else:
                    s.send(message)
                reply = s.receive()
                want = tag if base11 or tag != "malformed-message" else "operation-failed"
                assert error_tag(reply) == want, (base11, message, reply)
                assert said in reply, (message, reply)
                # Answered in its turn: a request right after it gets its own.
                assert "<data" in s.rpc("<get-config><source><running/></source></get-config>")
            # Pipelined: the answers come back in the order of the requests.
            get = f'<rpc xmlns="{NC}" message-id="a"><get-config><source><running/></source>' \
                  "</get-config></rpc>"
            for message in (get, "<rpc", get.replace('"a"', '"b"')):
                s.send(message)
            first, second, third = s.receive(), s.receive(), s.receive()
            assert 'message-id="a"' in first and "<data" in first, first
            assert error_tag(second) in ("malformed-message", "operation-failed"), second
            assert 'message-id="b"' in third, third
            s.close()
        assert agent.alive()
        agent.stop()


def test_broken_frames_and_messages_too_large_end_the_session():
    with Agent("--max-request", "65536") as agent:
        # Chunks of size 0, an end mark before any chunk, sizes that are no
        # number or too large, no chunk at all: the session ends unanswered.
        for frames in ("\n#0\n\n##\n", "\n##\n", "\n#abc\n", "\n#99999999999\n",
                       "no frame at all"):
            s = agent.raw()
            s.send(frames, raw=True)
            try:
                s.receive()
                raise AssertionError("the session went on after " + repr(frames))
            except (EOFError, OSError):
                pass
            s.close()
        # A message beyond any request the agent takes: too-big, then the
        # end, whether its chunk says so or the end mark of base:1.0 never
        # comes.
        limit = 65536 + 1024 * 1024
        for base11, frames in ((True, f"\n#{limit + 1}\n"),
                               (False, "<rpc>" + "x" * (limit + 1))):
            s = agent.raw(base11=base11)
            try:
                s.send(frames, raw=True)
            except (EOFError, OSError):
                pass  # the agent may answer before all of it is sent
            assert error_tag(s.receive()) == "too-big"
            try:
                s.receive()
                raise AssertionError("the session went on after a message too large")
            except (EOFError, OSError):
                pass
            s.close()
        assert agent.alive()
        agent.wait_log("its client sent a chunk size")
        agent.wait_log("its client sent a message of no chunk")
        m = agent.connect()
        m.edit_config(target="running", config=config(tunnel(
            "tunnel-ip12", "<config><ttl>12</ttl></config>")))
        assert "/interfaces/interface[tunnel-ip12]/tunnel/config/ttl=12" in reply_leaves(
            m.get_config("running"))
        m.close_session()
        agent.stop()


def test_logins_under_way_do_not_hold_up_others():
    gone = "ended without a login"
    with Agent() as agent:
        # Clients that connect and never log in: one says nothing, one
        # stops after its banner, one in the middle of the key exchange.
        silent = socket.create_connection(("127.0.0.1", agent.port))
        banner = socket.create_connection(("127.0.0.1", agent.port))
        banner.sendall(b"SSH-2.0-slow\r\n")
        half = paramiko.Transport(("127.0.0.1", agent.port))
        half.start_client()
        # Another logs in and works meanwhile; a connection carries one
        # session channel, no second.
        m = agent.connect()
        m.get_config("running")
        m.close_session()
        half.close()
        agent.wait_log(gone, 1)
        s = agent.raw()
        try:
            s.ssh.get_transport().open_session()
            raise AssertionError("a second channel was opened")
        except paramiko.ChannelException:
            pass
        assert "<data" in s.rpc("<get-config><source><running/></source></get-config>")
        s.close()

        # Sixteen log in at once at most: with these two, fourteen more,
        # and one beyond is turned away at once.  Once one of them is gone,
        # logins go on.
        waiting = [socket.create_connection(("127.0.0.1", agent.port)) for _ in range(14)]
        extra = socket.create_connection(("127.0.0.1", agent.port))
        assert extra.recv(100) == b"", "a connection beyond the bound was served"
        extra.close()
        agent.wait_log("turned away")
        waiting.pop().close()
        agent.wait_log(gone, 2)
        m = agent.connect()
        m.get_config("running")
        m.close_session()
        for w in waiting + [silent, banner]:
            w.close()
        agent.stop()


def unix_exchange(path, messages, base11=False):
    """Says hello on the UNIX socket, sends `messages` as they are, and
    returns what came back until the agent closed the connection or
    answered message-id 99."""
    s = socket.socket(socket.AF_UNIX)
    s.connect(path)
    got = b""
    while b"]]>]]>" not in got:
        got += s.recv(65536)
    assert b"urn:ietf:params:netconf:base:1.0" in got
    caps = "<capability>urn:ietf:params:netconf:base:1.0</capability>"
    if base11:
        caps += "<capability>urn:ietf:params:netconf:base:1.1</capability>"
    s.sendall(f'<hello xmlns="{NC}"><capabilities>{caps}</capabilities></hello>]]>]]>'.encode())
    for m in messages:
        s.sendall(m.encode())
    reply = b""
    while b'message-id="99"' not in reply:
        data = s.recv(65536)
        if not data:
            break
        reply += data
    s.close()
    return reply.decode()


def test_a_unix_socket_serves_without_ssh():
    with Agent() as agent:
        path = os.path.join(agent.work, "netconf.sock")
        agent.stop()
        agent.args += ["--unix", path]
        agent.start()
        assert oct(os.stat(path).st_mode & 0o777) == "0o600"
        get = (f'<rpc xmlns="{NC}" message-id="99"><get-config><source><running/></source>'
               "</get-config></rpc>")
        assert "<data" in unix_exchange(path, [get + "]]>]]>"])
        # The framing is checked there too: the connection ends, the agent
        # goes on.
        assert "<data" not in unix_exchange(path, ["\n#0\n", "\n#5\nhello\n##\n"],
                                            base11=True)
        chunk = f"\n#{len(get)}\n{get}\n##\n"
        assert "<data" in unix_exchange(path, [chunk], base11=True)
        agent.stop()
        assert not os.path.exists(path)


def test_the_host_key_is_made_once_and_kept():
    with Agent() as agent:
        key = os.path.join(agent.state, "ssh_host_ed25519_key")
        first = paramiko.Transport(("127.0.0.1", agent.port))
        first.start_client()
        fingerprint = first.get_remote_server_key().get_fingerprint()
        first.close()
        agent.stop()
        assert oct(os.stat(key).st_mode & 0o777) == "0o600"
        agent.start()
        again = paramiko.Transport(("127.0.0.1", agent.port))
        again.start_client()
        assert again.get_remote_server_key().get_fingerprint() == fingerprint
        again.close()
        agent.stop()
