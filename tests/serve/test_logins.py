"""Logins that cannot be starved, and keys that mean what their options say:
the attacks on logins reproduced over real SSH, the attacker on 127.0.0.2
and the real client on 127.0.0.1 (all of 127/8 is loopback on Linux), and
the files the agent must refuse to start with, each naming its line."""

import logging
import os
import socket
import subprocess
import tempfile
import threading
import time

import paramiko

import harness
from harness import PASSWORD, USER, Agent

# paramiko tells of every connection the agent refuses, with a traceback.
logging.getLogger("paramiko").setLevel(logging.CRITICAL)

ATTACKER = "127.0.0.2"
# The agent's defaults (admission.h, server.cpp).
PER_SOURCE, GRACE_S, PENALTY_S, BURST = 10, 10, 1.0, 10


def dial(agent, source="127.0.0.1"):
    return socket.create_connection(("127.0.0.1", agent.port), source_address=(source, 0))


def login(agent, user, password=None, key=None, source="127.0.0.1"):
    """One login over paramiko from `source`: "in", "wrong" (the agent
    answered no) or "refused" (the connection ended unanswered)."""
    t = paramiko.Transport(dial(agent, source))
    try:
        t.start_client(timeout=60)
        if key:
            t.auth_publickey(user, paramiko.Ed25519Key.from_private_key_file(key))
        else:
            t.auth_password(user, password)
        return "in" if t.is_authenticated() else "wrong"
    except paramiko.AuthenticationException:
        return "wrong"
    except (paramiko.SSHException, EOFError, OSError):
        return "refused"
    finally:
        t.close()


def said(agent, text):
    return "".join(agent.log).count(text)


def test_idle_connections_from_one_address_keep_no_one_else_out():
    with Agent() as agent:
        # The attacker opens 16 connections that never log in, and opens
        # again any the agent closes.
        idle = [dial(agent, ATTACKER) for _ in range(16)]
        greeted = [s.recv(100).startswith(b"SSH-") for s in idle]
        assert greeted.count(True) == PER_SOURCE, greeted
        done = threading.Event()

        def reopen():
            while not done.is_set():
                for i, s in enumerate(idle):
                    s.setblocking(False)
                    try:
                        if s.recv(4096) == b"":
                            s.close()
                            idle[i] = dial(agent, ATTACKER)
                    except BlockingIOError:
                        pass
                    except OSError:
                        idle[i] = dial(agent, ATTACKER)
                time.sleep(0.05)

        attacker = threading.Thread(target=reopen)
        attacker.start()
        try:
            # Every real login from another address gets in meanwhile.
            for _ in range(5):
                m = agent.connect()
                assert "<data" in m.get_config("running").xml
                m.close_session()
        finally:
            done.set()
            attacker.join()
        turned = "turned away: 10 connections from 127.0.0.2 are logging in already"
        # Told once for as long as the source stays at its bound, not for
        # each connection turned away.
        assert 1 <= said(agent, turned) <= 2, "".join(agent.log)
        for s in idle:
            s.close()


def test_a_connection_that_says_nothing_is_dropped_after_the_grace_time():
    with Agent() as agent:
        start = time.monotonic()
        silent, talking = dial(agent), dial(agent)
        talking.sendall(b"SSH-2.0-slow\r\n")
        # Both are greeted; the one that says nothing is dropped once the
        # grace time is over, not before.
        assert silent.recv(100).startswith(b"SSH-")
        silent.settimeout(60)
        while silent.recv(4096):
            pass
        assert time.monotonic() - start >= GRACE_S
        agent.wait_log(f"ended without a login: it sent nothing in {GRACE_S} s")
        # One that has sent its version line has its whole login time.
        talking.setblocking(False)
        try:
            while True:
                assert talking.recv(4096) != b"", "the client that spoke was dropped too"
        except BlockingIOError:
            pass
        assert said(agent, "ended without a login") == 1, "".join(agent.log)
        talking.close()


def guess_on(agent, tries, results, enough=lambda: False):
    """One connection from the attacker making up to `tries` (fewer than
    the six a connection has) wrong guesses at alice's password; each
    answer goes to `results` with how long it took: "wrong", or "refused"
    once the agent ends the connection unanswered (which paramiko reports
    as a failed authentication too)."""
    t = paramiko.Transport(dial(agent, ATTACKER))
    try:
        t.start_client(timeout=60)
        for n in range(tries):
            if enough():
                return
            asked = time.monotonic()
            try:
                t.auth_password(USER, f"guess-{n}")
            except paramiko.AuthenticationException:
                if not t.is_active():
                    raise EOFError() from None
                results.append(("wrong", time.monotonic() - asked))
    except (paramiko.SSHException, EOFError, OSError):
        results.append(("refused", 0))
    finally:
        t.close()


def test_a_source_that_keeps_failing_is_delayed_then_refused_but_not_the_user():
    with Agent() as agent:
        # Ten connections of the attacker guess at once, with the defaults.
        results, start = [], time.monotonic()
        threads = [threading.Thread(target=guess_on, args=(agent, 5, results))
                   for _ in range(PER_SOURCE)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        elapsed = time.monotonic() - start
        wrong = [took for what, took in results if what == "wrong"]
        # Each wrong password is answered after the penalty, no sooner;
        # past the burst the source is refused, whatever connection it uses.
        assert min(wrong) >= PENALTY_S, wrong
        assert len(wrong) <= BURST + elapsed / PENALTY_S + 1, (len(wrong), elapsed)
        assert ("refused", 0) in results, results
        agent.wait_log("connections from 127.0.0.2 refused for")
        # For a while, even the right password from there; from elsewhere,
        # the user guessed at logs in.
        assert login(agent, USER, PASSWORD, source=ATTACKER) == "refused"
        assert login(agent, USER, PASSWORD) == "in"
        agent.connect().get_config("running")
        assert said(agent, "connections from 127.0.0.2 refused for") == 1, "".join(agent.log)


def test_keys_mean_what_their_options_say():
    agent = Agent()
    key = lambda name: os.path.join(agent.work, name)  # noqa: E731
    lines = {
        "carol": 'from="10.9.9.9"',
        "dave": 'from="127.0.0.0/8,!127.0.0.2"',
        "erin": 'expiry-time="20000101"',
        "frank": 'restrict,no-pty,expiry-time="20991231Z",from="127.0.0.?,::1"',
    }
    with open(key("keys"), "w", encoding="utf-8") as f:
        for name, options in lines.items():
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", f"{name}@lab",
                            "-f", key(name)], check=True)
            with open(key(name + ".pub"), encoding="utf-8") as pub:
                f.write(f"{options} {pub.read()}")
    agent.args += ["--authorized-keys", key("keys")]
    with agent:
        for user, source, outcome in (
                ("carol", "127.0.0.1", "wrong"), ("dave", "127.0.0.1", "in"),
                ("dave", ATTACKER, "wrong"), ("erin", "127.0.0.1", "wrong"),
                ("frank", "127.0.0.1", "in"), ("frank", "127.0.0.3", "in")):
            assert login(agent, user, key=key(user), source=source) == outcome, (user, source)
        # A key that is taken serves NETCONF.
        agent.connect("dave", None, key("dave")).get_config("running")
        agent.wait_log(f"{key('keys')}:1: the key of 'carol' is not taken from 127.0.0.1: "
                       'from="10.9.9.9"')
        agent.wait_log(f"{key('keys')}:2: the key of 'dave' is not taken from 127.0.0.2")
        agent.wait_log(f"{key('keys')}:3: the key of 'erin' expired: expiry-time=\"20000101\"")


def test_lines_that_cannot_be_honoured_refuse_the_start_naming_them():
    with tempfile.TemporaryDirectory(prefix="octunnel-logins-") as work:
        def hashed(*args):
            return subprocess.run(["openssl", "passwd", *args], check=True, capture_output=True,
                                  text=True).stdout.strip()

        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "",
                        "-f", os.path.join(work, "k")], check=True)
        with open(os.path.join(work, "k.pub"), encoding="utf-8") as f:
            pub = " ".join(f.read().split()[:2])
        good = os.path.join(work, "good-users")
        with open(good, "w", encoding="utf-8") as f:
            f.write(f"{USER}:{hashed('-6', PASSWORD)}\n")
        strong = hashed("-6", "x")
        # Each reason is the unit tests' (access_test.cpp); here, that a
        # refusal stops the start naming the file and line, for each file.
        rows = [
            # (option, the file's lines, the line at fault, what is said)
            ("--users", ["alice:" + strong, "bob:" + hashed("-1", "x")], 2, "weak method ($1$"),
            ("--authorized-keys", ["# a CA", f"cert-authority {pub} ca"], 2,
             "cert-authority is refused: certificates are not supported"),
        ]
        for option, lines, at, text in rows:
            path = os.path.join(work, "file")
            with open(path, "w", encoding="utf-8") as f:
                f.write("\n".join(lines) + "\n")
            files = [option, path] + (["--users", good] if option != "--users" else [])
            done = subprocess.run([harness.OCTUNNEL, "serve", "--state-dir",
                                   os.path.join(work, "state"), "--listen", "127.0.0.1:1"] + files,
                                  capture_output=True, text=True, timeout=60)
            assert done.returncode == 2, (lines, done.returncode, done.stderr)
            assert done.stderr.startswith(f"octunnel serve: {path}:{at}: "), (lines, done.stderr)
            assert text in done.stderr and done.stderr.count("\n") == 1, (lines, done.stderr)
        # Options out of their range are named too.
        for args, text in ((["--max-startups", "10:30:5"], "--max-startups 10:30:5: "),
                           (["--max-startups", "30", "--max-startups-per-source", "31"],
                            "--max-startups-per-source 31: "),
                           (["--login-penalty", "0.0001"], "--login-penalty 0.0001: ")):
            done = subprocess.run([harness.OCTUNNEL, "serve", "--state-dir",
                                   os.path.join(work, "state"), "--listen", "127.0.0.1:1",
                                   "--users", good] + args,
                                  capture_output=True, text=True, timeout=60)
            assert done.returncode == 2 and text in done.stderr, (args, done.stderr)
