"""The protocol around the requests: the hello and what it advertises,
<get-schema>, who may log in and how, and what a client sends that it
should not, from malformed XML and broken frames to oversized and deeply
nested requests."""

import collections
import contextlib
import os
import socket
import subprocess

import paramiko
from lxml import etree
from ncclient.transport.errors import AuthenticationError

import payloads as p
from harness import NC, PASSWORD, USER, Agent, error_of, error_tag, read, rpc_error, source

YANGLIB = "urn:ietf:params:xml:ns:yang:ietf-yang-library"
MONITORING = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"
GET_CONFIG = p.get_config()


def test_the_hello_advertises_netconf_and_the_openconfig_modules():
    with Agent() as agent:
        m = agent.connect()
        caps = set(m.server_capabilities)
        assert {"urn:ietf:params:netconf:base:1.0", "urn:ietf:params:netconf:base:1.1",
                "urn:ietf:params:netconf:capability:writable-running:1.0",
                "urn:ietf:params:netconf:capability:rollback-on-error:1.0"} <= caps, caps
        assert {"urn:ietf:params:netconf:capability:candidate:1.0",
                "urn:ietf:params:netconf:capability:confirmed-commit:1.1",
                "urn:ietf:params:netconf:capability:startup:1.0",
                "urn:ietf:params:netconf:capability:validate:1.1"} <= caps, caps
        assert not any(":url:" in c for c in caps), caps
        modules = {c.split("module=")[1].split("&")[0] for c in caps if "module=" in c}
        assert {"openconfig-interfaces", "openconfig-if-ip", "openconfig-if-tunnel",
                "openconfig-types", "openconfig-inet-types", "openconfig-yang-types",
                "openconfig-extensions", "iana-if-type", "ietf-netconf-monitoring"} <= modules

        # The schema of each module, as vendored.
        for module in ("openconfig-if-tunnel", "openconfig-interfaces"):
            text = etree.fromstring(m.get_schema(module).xml.encode())[0].text
            assert text == read(source("third_party", "openconfig-yang", module + ".yang")), module
        assert error_of(lambda: m.get_schema("no-such-module")).tag == "invalid-value"

        # The YANG library and NETCONF monitoring say the same through <get>,
        # filtered; <get-config> has neither.
        library = etree.fromstring(m.get(filter=("subtree", f'<yang-library xmlns="{YANGLIB}"/>'))
                                   .xml.encode())
        names = {e.text for e in library.iterfind(f".//{{{YANGLIB}}}module/{{{YANGLIB}}}name")}
        assert {"openconfig-interfaces", "openconfig-if-ip", "openconfig-if-tunnel"} <= names
        schemas = etree.fromstring(m.get(filter=("subtree", (
            f'<netconf-state xmlns="{MONITORING}"><schemas><schema><identifier>'
            "openconfig-if-tunnel</identifier></schema></schemas></netconf-state>"))).xml.encode())
        assert [e.text for e in schemas.iterfind(f".//{{{MONITORING}}}version")] == ["2018-11-21"]
        assert "yang-library" not in m.get_config("running").xml


def test_only_known_users_log_in_and_the_host_key_is_kept():
    with Agent(users={USER: PASSWORD, "bob": "builder"}) as agent:
        fingerprint = agent.raw().chan.get_transport().get_remote_server_key().get_fingerprint()
        keys, key = os.path.join(agent.work, "keys"), lambda name: os.path.join(agent.work, name)
        for name, comment in (("carol", "carol@laptop"), ("mallory", "mallory")):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", comment,
                            "-f", key(name)], check=True)
        with open(keys, "w", encoding="utf-8") as f:
            f.write("# carol's key\n" + read(key("carol.pub")))
        agent.stop()
        assert oct(os.stat(os.path.join(agent.state, "ssh_host_ed25519_key")).st_mode) == "0o100600"
        agent.args += ["--authorized-keys", keys]
        agent.start()
        s = agent.raw()
        assert s.chan.get_transport().get_remote_server_key().get_fingerprint() == fingerprint
        s.close()

        # A key logs in the user of its comment, up to the "@", and no other.
        agent.connect("carol", None, key("carol")).close_session()
        for user, password, by_key in (
                (USER, "wrong", None), ("bob", PASSWORD, None), ("nobody", PASSWORD, None),
                ("", "", None), (USER, "", None), ("alice", None, "carol"),
                ("mallory", None, "mallory"), ("carol", None, "mallory")):
            try:
                agent.connect(user, password, by_key and key(by_key))
            except AuthenticationError:
                continue
            raise AssertionError(f"{user!r} with {password!r} or {by_key}'s key was let in")
        # The agent goes on serving those who may.
        for user, password in ((USER, PASSWORD), ("bob", "builder")):
            agent.connect(user, password).get_config("running")
        agent.wait_log("password refused for user 'nobody'")


def test_what_no_request_should_be_is_answered_in_turn_and_the_session_goes_on():
    big = "".join(p.tunnel(f"tunnel-ip{i}", f"<config><ttl>{i % 255}</ttl></config>")
                  for i in range(1000))
    # (message, error-tag on base:1.1, a word of the answer): the messages
    # the guard answers, then requests libnetconf2 or the agent refuses.
    rows = p.BAD_MESSAGES + [(p.rpc(body, "r"), tag, said) for body, tag, said in (
        ('<frobnicate xmlns="urn:example:x"/>', "operation-not-supported", "urn:example:x"),
        ("<copy-config><target><running/></target><source><running/></source></copy-config>",
         "invalid-value", "onto itself"),
        ("<get-config><source><url>file:///x</url></source></get-config>",
         "operation-not-supported", "url"),
        ("<edit-config><target><running/></target></edit-config>", "missing-element",
         "<bad-element>config</bad-element>"),
        ('<get-config><source><running/></source><filter type="xpath" select="/a"/></get-config>',
         "bad-attribute", "subtree"),
        (p.edit(p.config("<a>" * 5000 + "</a>" * 5000)), "too-big", "deeper than 200"),
        (p.edit(p.config("<a>" * 150 + "</a>" * 150)), "too-big", "nests deeper"),
        (p.edit(p.config(big)), "too-big", "larger than"),
        ("<kill-session><session-id>4242</session-id></kill-session>", "invalid-value", "4242"))]
    with Agent("--max-request", "65536") as agent:
        for base11 in (True, False):
            s = agent.raw(base11=base11)
            assert "urn:ietf:params:netconf:base:1.1" in s.hello
            # All at once: the answers come in the order of the requests.
            for message, _, _ in rows:
                s.send(b"\n#1\n \n##\n" if base11 and not message else message,
                       raw=base11 and not message)  # no chunk is empty
            s.send(p.rpc(GET_CONFIG, "last"))
            for message, tag, said in rows:
                reply = s.receive()
                want = tag if base11 or tag != "malformed-message" else "operation-failed"
                assert error_tag(reply) == want, (base11, message[:200], reply)
                assert said in reply, (message[:200], reply)
                rpc_error(reply)
            reply = s.receive()
            assert 'message-id="last"' in reply and "<data" in reply, reply
            # An empty subtree filter selects nothing.
            data = etree.fromstring(s.rpc(p.get_config("")).encode()).find(f"{{{NC}}}data")
            assert data is not None and len(data) == 0
            # <close-session> is answered, then the session ends.
            assert "<ok/>" in s.rpc("<close-session/>")
            s.ended()


def test_operations_it_cannot_take_are_answered_in_rfc_6241s_terms():
    with Agent() as agent:
        s = agent.raw()
        for i, (body, tag, info) in enumerate(p.BAD_OPERATIONS):
            reply = etree.fromstring(s.rpc(body, f"op-{i}").encode())
            assert reply.get("message-id") == f"op-{i}", body
            e = rpc_error(reply)
            assert e.findtext(f"{{{NC}}}error-tag") == tag, (body, etree.tostring(e))
            got = {etree.QName(c).localname: c.text for c in e.iterfind(f"{{{NC}}}error-info/*")}
            assert got == info, (body, got)
        assert "<data" in s.rpc(GET_CONFIG), "the session did not go on"

        # As ncclient has them: an error-path in the terms of the models,
        # its prefixes bound.
        m = agent.connect()
        operation = lambda body: etree.fromstring(p.rpc(body))[0]  # noqa: E731
        e = error_of(lambda: m.dispatch(operation(p.edit(p.config(p.tunnel(
            "tunnel-ip12", "<config><ttl>3</ttl></config>", "frobnicate"))))))
        assert (e.tag, e.path) == ("bad-attribute",
                                   "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']")
        assert rpc_error(e.xml).find(f"{{{NC}}}error-path").nsmap["oc-if"] == p.OC
        e = error_of(lambda: m.dispatch(operation("<lock/>")))
        assert (e.tag, e.path) == ("missing-element", "/nc:rpc/nc:lock")
        assert "<bad-element>target</bad-element>" in e.info
        assert "<data" in m.get_config("running").xml


def test_broken_frames_bad_hellos_and_messages_too_large_end_the_session():
    limit = 65536 + 1024 * 1024
    said = collections.Counter()
    with Agent("--max-request", "65536", unix=True) as agent:
        assert oct(os.stat(agent.unix).st_mode & 0o777) == "0o600"
        # (base:1.1, over the UNIX socket, a first message instead of the
        # hello, what is sent then, and why the agent says the session
        # ended): broken frames end the session unanswered, on SSH and the
        # UNIX socket alike; so do hellos that are not one; a message
        # beyond any request the agent takes is answered too-big first,
        # whether its chunk says so or the end mark of base:1.0 never comes.
        for base11, unix, first, frames, why in (
                [(True, False, None, frames, why) for frames, why in p.BROKEN_FRAMES] + [
                    (True, True, None, "\n#0\n", "chunk size"),
                    (True, False, None, f"\n#{limit + 1}\n", "message larger than"),
                    (False, False, None, "<rpc>" + "x" * (limit + 1), "message larger than")]
                + [(False, False, first, "", why) for first, why in (
                    (p.rpc("<get/>"), "not a <hello>"),
                    (f'<hello xmlns="{NC}"><session-id>4</session-id></hello>', "session-id"),
                    (f'<hello xmlns="{NC}"/>', "neither"), (f'<hello xmlns="{NC}">', "well-formed"),
                    (" " * (1024 * 1024 + 1), "hello larger than"))]):
            s = agent.raw(base11=base11, unix=unix, first=first)
            with contextlib.suppress(OSError):  # the agent may answer before all is sent
                s.send(frames, raw=True)
            if why == "message larger than":
                assert error_tag(s.receive()) == "too-big"
            s.ended()
            said[why] += 1
            agent.wait_log(why, said[why])
        # The agent goes on, over either.
        for unix in (False, True):
            for base11 in (False, True):
                assert "<data" in agent.raw(base11=base11, unix=unix).rpc(GET_CONFIG)
        path = agent.unix
    assert not os.path.exists(path)


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
        agent.connect().get_config("running")
        half.close()
        agent.wait_log(gone, 1)
        s = agent.raw()
        try:
            s.chan.get_transport().open_session()
            raise AssertionError("a second channel was opened")
        except paramiko.ChannelException:
            pass
        assert "<data" in s.rpc(GET_CONFIG)

        # Ten log in at once from one address at most: with these two,
        # eight more, and one beyond is turned away at once.  Once one of
        # them is gone, logins go on.
        waiting = [socket.create_connection(("127.0.0.1", agent.port)) for _ in range(8)]
        extra = socket.create_connection(("127.0.0.1", agent.port))
        assert extra.recv(100) == b"", "a connection beyond the bound was served"
        agent.wait_log("turned away")
        waiting.pop().close()
        agent.wait_log(gone, 2)
        agent.connect().get_config("running")
        # A client that sends nothing has 10 seconds: then the agent ends
        # the connection.
        silent.settimeout(60)
        while silent.recv(4096):
            pass
        agent.wait_log(gone, 3)
        for w in waiting + [silent, banner, extra]:
            w.close()
