"""Who reaches the gNMI front and how: Capabilities, TLS with and without
client certificates, plain text only when asked for, credentials in the
metadata checked against --users, access control as for NETCONF, and the
starts refused."""

import os
import re
import subprocess

import grpc

import harness
from gnmi_harness import Agent, certs, free_port, pb, refused

NACM = harness.source("examples", "nacm-read-only.xml")


def openconfig_version(module):
    text = harness.read(harness.source("third_party", "openconfig-yang", module + ".yang"))
    return re.search(r'oc-ext:openconfig-version\s+"([^"]+)"', text).group(1)


def test_capabilities_name_the_models_with_their_versions_the_encodings_and_gnmi_version():
    with Agent() as agent:
        c = agent.gnmi()
        caps = c.capabilities()
        models = {m.name: m for m in caps.supported_models}
        for name in ("openconfig-interfaces", "openconfig-if-ip", "openconfig-if-tunnel"):
            assert models[name].version == openconfig_version(name), models[name]
            assert models[name].organization == "OpenConfig working group"
        assert set(caps.supported_encodings) == {pb.JSON, pb.JSON_IETF}
        assert caps.gNMI_version == "0.10.0"
        c.close()


def test_credentials_missing_or_wrong_are_unauthenticated_and_logged():
    # No penalty here: nine wrong passwords, and the right one after.
    with Agent("--login-penalty", "0",
               users={harness.USER: harness.PASSWORD, "bob": "builder"}) as agent:
        for user, password in ((None, None), (harness.USER, "wrong"), ("mallory", "x"),
                               ("bob", harness.PASSWORD)):
            c = agent.gnmi(user, password)
            for call in (c.capabilities, lambda: c.get("/interfaces"),
                         lambda: c.set(delete=["/interfaces/interface[name=t1]"])):
                refused(call, grpc.StatusCode.UNAUTHENTICATED)
            c.close()
        agent.wait_log("refused: no username and password in its metadata", 3)
        agent.wait_log("of 'mallory' refused: wrong username or password", 3)
        # Another user's password is no password of this one.
        good = agent.gnmi("bob", "builder")
        assert good.capabilities().gNMI_version == "0.10.0"
        good.close()


def test_a_required_client_certificate_of_the_ca_is_needed():
    with Agent(client_ca=True) as agent:
        assert "(gNMI over TLS, client certificates required)" in "".join(agent.log)
        for cert in (None, "stranger"):
            c = agent.gnmi(cert=cert)
            refused(c.capabilities, grpc.StatusCode.UNAVAILABLE)
            c.close()
        c = agent.gnmi(cert="client")
        assert c.capabilities().gNMI_version == "0.10.0"
        # The certificate is the channel's; the user is still the
        # metadata's.
        c.close()
        c = agent.gnmi(password="wrong", cert="client")
        refused(c.capabilities, grpc.StatusCode.UNAUTHENTICATED)
        c.close()


def test_plain_text_is_served_only_with_gnmi_insecure():
    with Agent(insecure=True) as agent:
        assert "(gNMI in plain text)" in "".join(agent.log)
        c = agent.gnmi()
        assert c.capabilities().gNMI_version == "0.10.0"
        c.close()
    with Agent() as agent:
        # A plain-text client of a TLS front hears nothing it can read.
        c = harness_plain(agent)
        refused(c.capabilities, grpc.StatusCode.UNAVAILABLE)
        c.close()


def harness_plain(agent):
    from gnmi_harness import Client
    return Client(grpc.insecure_channel(f"127.0.0.1:{agent.gnmi_port}"), harness.USER,
                  harness.PASSWORD)


def test_access_control_holds_gnmi_users_as_netconf_ones():
    """examples/nacm-read-only.xml: alice is of "admin", monitor of
    "read-only": monitor reads over gNMI, and a Set of theirs is
    PERMISSION_DENIED naming the node, and changes nothing."""
    ttl = "/interfaces/interface[name=tunnel-ip12]/tunnel/config/ttl"
    with Agent("--nacm", NACM, users={harness.USER: harness.PASSWORD,
                                      "monitor": "watching"}) as agent:
        admin, monitor = agent.gnmi(), agent.gnmi("monitor", "watching")
        admin.set(update=[(ttl, 9)])
        details = refused(lambda: monitor.set(update=[(ttl, 10)]),
                          grpc.StatusCode.PERMISSION_DENIED)
        assert "'monitor' may not" in details and "ttl" in details, details
        assert monitor.get_json(ttl) == 9
        admin.close()
        monitor.close()


def start(*args):
    """`octunnel serve` that must refuse to start: its status and log."""
    work = os.path.dirname(certs()["ca"])
    users = os.path.join(work, "users")
    with open(users, "w", encoding="utf-8") as f:
        f.write("alice:" + subprocess.run(["openssl", "passwd", "-6", "x"], check=True,
                                          capture_output=True, text=True).stdout)
    done = subprocess.run([harness.OCTUNNEL, "serve", "--state-dir",
                           os.path.join(work, "state"), *[a.replace("USERS", users)
                                                          for a in args]],
                          capture_output=True, text=True, stdin=subprocess.DEVNULL)
    return done.returncode, done.stderr


def test_starts_refused_name_the_option():
    key, crt = certs()["server"]
    port = f"127.0.0.1:{free_port()}"
    cases = [
        (["--gnmi", port], "--gnmi without --users"),
        (["--gnmi", port, "--users", "USERS"], "--gnmi without --tls-cert and --tls-key"),
        (["--gnmi", port, "--users", "USERS", "--gnmi-insecure", "--tls-cert", crt],
         "plain text or TLS, not both"),
        (["--gnmi", port, "--users", "USERS", "--tls-cert", "/nonexistent", "--tls-key", key],
         "--tls-cert /nonexistent: No such file or directory"),
        (["--gnmi", port, "--users", "USERS", "--tls-cert", crt, "--tls-key", "USERS"],
         "--tls-key " + "USERS" + ": holds no PEM block"),
        (["--gnmi", "127.0.0.1:0", "--users", "USERS", "--gnmi-insecure"],
         "--gnmi 127.0.0.1:0: the port is not 1 to 65535"),
        (["--users", "USERS"], "nothing to listen on: give --listen, --unix, --gnmi"),
    ]
    for args, says in cases:
        rc, err = start(*args)
        users = os.path.join(os.path.dirname(certs()["ca"]), "users")
        assert rc == 2 and says.replace("USERS", users) in err, (args, rc, err)
    assert "--gnmi ADDR:PORT" in subprocess.run([harness.OCTUNNEL, "serve", "--help"],
                                                capture_output=True, text=True).stdout


def test_failed_logins_cost_their_source_over_both_protocols():
    """Ten wrong passwords over gNMI, each UNAUTHENTICATED, use up the
    source's burst (--login-penalty 60: none runs out during the test):
    the next RPC, with the right password, is RESOURCE_EXHAUSTED, and so
    is an SSH login from that address; another address logs in."""
    from test_logins import login
    with Agent("--login-penalty", "60") as agent:
        wrong = agent.gnmi(password="wrong")
        for _ in range(10):
            refused(wrong.capabilities, grpc.StatusCode.UNAUTHENTICATED)
        right = agent.gnmi()
        details = refused(right.capabilities, grpc.StatusCode.RESOURCE_EXHAUSTED)
        assert "too many failed logins from 127.0.0.1" in details, details
        agent.wait_log("gNMI RPCs from 127.0.0.1 refused for")
        assert login(agent, harness.USER, harness.PASSWORD) == "refused"
        assert login(agent, harness.USER, harness.PASSWORD, source="127.0.0.2") == "in"
        wrong.close()
        right.close()
