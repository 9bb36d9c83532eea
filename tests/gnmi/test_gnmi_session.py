"""examples/gnmi_session.py run as a reader runs it: against an agent over
TLS with a certificate made by the README's openssl command, its output the
text of gnmi_session.out (which the README shows), what it set committed
and what it wrote read by the agent; and each way it can fail, named, with
its exit status."""

import os
import shutil
import socket
import subprocess
import tempfile
import threading

import harness

EXAMPLE = harness.source("examples", "gnmi_session.py")
EXPECTED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "gnmi_session.out")
T12 = "/interfaces/interface[tunnel-ip12]/tunnel"


def certificate(work, name):
    """A key and a self-signed certificate for 127.0.0.1, as the README
    makes them."""
    key, cert = os.path.join(work, name + "-key.pem"), os.path.join(work, name + "-cert.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:P-256", "-nodes", "-days", "365", "-keyout", key, "-out",
                    cert, "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"],
                   check=True, capture_output=True)
    return key, cert


class Agent(harness.Agent):
    """An agent serving gNMI over TLS with its own certificate, its
    operational directory holding examples/tunnel-state.xml."""

    def __init__(self):
        self.files = tempfile.mkdtemp(prefix="octunnel-gnmi-session-")
        self.key, self.cert = certificate(self.files, "agent")
        self.oper = os.path.join(self.files, "oper")
        os.mkdir(self.oper)
        shutil.copy(harness.source("examples", "tunnel-state.xml"), self.oper)
        super().__init__("--tls-cert", self.cert, "--tls-key", self.key, "--oper-dir", self.oper)
        self.extra, self.gnmi = list(self.args), None

    def start(self):
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            self.gnmi = f"127.0.0.1:{s.getsockname()[1]}"
        self.args = self.extra + ["--gnmi", self.gnmi]
        super().start()

    def __exit__(self, *exc):
        super().__exit__(*exc)
        shutil.rmtree(self.files, ignore_errors=True)


def example(*args, password=harness.PASSWORD):
    return subprocess.run([EXAMPLE, *args], capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, env=dict(os.environ, OCTUNNEL_PASSWORD=password))


def test_the_session_prints_what_the_readme_shows():
    with Agent() as agent:
        # tunnel-ip12 configured beforehand with a GRE key and addresses,
        # which the replace must take away, and tunnel-ip13, which it must
        # leave.
        m = agent.connect()
        m.edit_config(target="running", config=harness.as_config(harness.BASE))
        done = example(agent.gnmi, harness.USER, agent.cert, agent.oper)
        assert done.returncode == 0, done.stderr
        assert done.stdout == harness.read(EXPECTED), done.stdout
        committed = harness.tool_leaves(harness.committed(agent))
        assert {l for l in committed if l.startswith("/interfaces/interface[tunnel-ip12]")} == {
            "/interfaces/interface[tunnel-ip12]/name=tunnel-ip12", f"{T12}/config/src=192.0.2.1",
            f"{T12}/config/dst=198.51.100.7", f"{T12}/config/ttl=32"}, committed
        assert "/interfaces/interface[tunnel-ip13]/tunnel/config/ttl=128" in committed
        # The document went in whole under its own name, nothing left beside.
        assert os.listdir(agent.oper) == ["tunnel-state.xml"]
        state = harness.leaves(m.get().data_xml)
        assert f"{T12}/state/ttl=32" in state and f"{T12}/state/gre-key=1001" not in state
        assert "/interfaces/interface[tunnel-ip7]/tunnel/state/ttl=255" in state
        m.close_session()

        # Run again, the state is already what it writes: it says so and
        # ends rather than wait for a change that cannot come.
        again = example(agent.gnmi, harness.USER, agent.cert, agent.oper)
        assert again.returncode == 0, again.stderr
        assert again.stdout.endswith("  sync_response\n" + harness.read(EXPECTED).splitlines()[-3]
                                     + "\n  the state was so already: no change to tell\n"), \
            again.stdout
        assert "state/ttl = 32" in again.stdout and "gre-key" not in again.stdout


def test_each_failure_is_named_with_its_status():
    with Agent() as agent:
        files = agent.files
        _, stranger = certificate(files, "stranger")
        elsewhere = os.path.join(files, "elsewhere")
        os.mkdir(elsewhere)
        good = (agent.gnmi, harness.USER, agent.cert, agent.oper)
        cases = [
            # (arguments, password, status, what stderr says, what stdout ends with)
            (good, "wrong", 1, "Capabilities: UNAUTHENTICATED", ""),
            # The example trusts the agent's certificate alone: another one
            # made the same way is refused, not taken.
            ((agent.gnmi, harness.USER, stranger, agent.oper), harness.PASSWORD, 1,
             f"cannot connect to {agent.gnmi} over TLS with {stranger} in 10 s", ""),
            # A directory the agent does not watch: no change comes.
            ((agent.gnmi, harness.USER, agent.cert, elsewhere), harness.PASSWORD, 1,
             f"Subscribe: nothing came in 10 s (is {elsewhere} the agent's --oper-dir?)",
             "and it has no GRE key\n"),
            ((agent.gnmi, harness.USER, agent.cert), harness.PASSWORD, 2,
             "the following arguments are required: OPER_DIR", ""),
            (("127.0.0.1", harness.USER, agent.cert, agent.oper), harness.PASSWORD, 2,
             "HOST:PORT expected, not '127.0.0.1'", ""),
            ((agent.gnmi, harness.USER, os.path.join(files, "none.pem"), agent.oper),
             harness.PASSWORD, 2, "none.pem: no such file", ""),
            ((agent.gnmi, harness.USER, agent.cert, os.path.join(files, "none")),
             harness.PASSWORD, 2, "none: no such directory", ""),
        ]
        # Two of them wait 10 s each: all run at once.
        results = [None] * len(cases)

        def run(i, args, password):
            results[i] = example(*args, password=password)

        threads = [threading.Thread(target=run, args=(i, c[0], c[1])) for i, c in enumerate(cases)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        for (args, _, status, says, ends), done in zip(cases, results):
            assert done.returncode == status, (args, done.returncode, done.stderr)
            assert says in done.stderr, (args, done.stderr)
            assert done.stdout.endswith(ends), (args, done.stdout)
        # The directory the agent watches was never written.
        assert harness.read(os.path.join(agent.oper, "tunnel-state.xml")) == harness.read(
            harness.source("examples", "tunnel-state.xml"))
        assert os.listdir(elsewhere) == ["tunnel-state.xml"]
