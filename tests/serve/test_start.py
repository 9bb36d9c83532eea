"""Starting the agent: what keeps it from starting is named (the file and
line, or the agent already in the way) with exit status 2, and no second
agent ever takes over the state or the socket of a first."""

import os
import subprocess
import tempfile

from harness import OCTUNNEL, Agent  # noqa: F401 - OCTUNNEL is set by run.py
import harness


def refused(*args):
    """The agent's status and stderr, started with `args`; it must not start."""
    done = subprocess.run([harness.OCTUNNEL, "serve", *args], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 2, (done.returncode, done.stderr)
    return done.stderr


def test_one_agent_a_state_directory_and_a_socket_is_never_taken_over():
    with Agent(unix=True) as first, tempfile.TemporaryDirectory() as other:
        says = refused("--state-dir", first.state, "--unix", os.path.join(other, "s"))
        assert f"the state directory {first.state} is served by another agent " \
               f"(process {first.proc.pid})" in says, says
        says = refused("--state-dir", os.path.join(other, "state"), "--unix", first.unix)
        assert f"--unix {first.unix}: another process listens on this socket" in says, says
        # The first serves on, its socket its own.
        first.connect().get_config("running")
        assert first.raw(unix=True).rpc("<get-config><source><running/></source></get-config>")

        # The lock goes with the process however it ends, and a socket no
        # one answers any more is taken over.
        first.kill()
        first.start()
        first.raw(unix=True).close()
        first.stop()
        first.start()


def test_a_running_configuration_that_is_no_document_is_named_with_its_line():
    with tempfile.TemporaryDirectory() as work:
        state = os.path.join(work, "state")
        os.mkdir(state)
        running = os.path.join(state, "running.xml")
        with open(running, "w", encoding="utf-8") as f:
            f.write('<data xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">\n'
                    "  <interface-configurations>\n</data>\n")
        says = refused("--state-dir", state, "--unix", os.path.join(work, "s"))
        assert f"{running}:3: " in says, says


def test_an_empty_host_key_left_by_a_full_disk_is_made_again():
    agent = Agent()
    os.makedirs(agent.state)
    key = os.path.join(agent.state, "ssh_host_ed25519_key")
    open(key, "w", encoding="utf-8").close()
    with agent:
        agent.connect().get_config("running")
        assert os.path.getsize(key) > 0
        assert oct(os.stat(key).st_mode) == "0o100600"
        assert not [f for f in os.listdir(agent.state) if f.startswith("ssh_host_ed25519_key.")]
