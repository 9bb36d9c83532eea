"""<edit-config> over ncclient held to RFC 6241 by random edits, end to end:
the edits of tests/unit/edit_property_test.cpp, which writes them with its
model's answer and configuration (OCTUNNEL_EDIT_SCRIPT), sent one after the
other under a random error option.  Each is answered as the model says,
leaves the configuration <get-config> shows as the model does, and, refused
or only tested, leaves the configuration and its file as they were."""

import json
import os
import random
import subprocess
import tempfile

from ncclient.operations.rpc import RPCError

from harness import Agent, committed, leaves, read

STEPS = 150


def script():
    """The edits, each with the answers the model takes (none: ok) and the
    configuration it leaves."""
    with tempfile.NamedTemporaryFile(suffix=".jsonl") as f:
        subprocess.run([os.environ["OCTUNNEL_EDIT_PROPERTY"],
                        "--gtest_filter=EditProperty.RandomEditsAnswerAndLeaveWhatTheModelDoes"],
                       env={**os.environ, "OCTUNNEL_EDIT_SCRIPT": f.name,
                            "OCTUNNEL_EDIT_STEPS": str(STEPS)},
                       check=True, stdout=subprocess.DEVNULL)
        return [json.loads(line) for line in read(f.name).splitlines()]


def running(agent):
    """The running configuration as committed."""
    return committed(agent)


def test_random_edits_answer_and_leave_what_the_model_does():
    steps, rng, answers = script(), random.Random(7), []
    assert len(steps) == STEPS
    with Agent() as agent:
        m = agent.connect()
        for i, step in enumerate(steps):
            error_option = rng.choice([None, "stop-on-error", "continue-on-error",
                                       "rollback-on-error"])
            text = ('<config xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">' + step["edit"] +
                    "</config>")
            before, file_before = leaves(m.get_config("running")), running(agent)
            try:
                m.edit_config(target="running", config=text, default_operation=step["default"],
                              test_option="test-only" if step["test_only"] else None,
                              error_option=error_option)
                got = "ok"
            except RPCError as e:
                got = e.errors[0].tag if getattr(e, "errors", None) else e.tag
            after = leaves(m.get_config("running"))
            where = f"step {i}, error-option {error_option}: {step}\n  agent: {sorted(after)}"
            assert got in step["answers"] if step["answers"] else got == "ok", (got, where)
            assert after == set(step["leaves"]), where
            if step["answers"] or step["test_only"]:
                assert after == before and running(agent) == file_before, where
            answers.append(got)
    # Edits were answered every way.
    assert {"ok", "data-missing", "data-exists", "invalid-value", "operation-not-supported",
            "unknown-element"} <= set(answers), answers


def test_the_same_edits_through_the_candidate_leave_running_as_the_model_does():
    """Each edit made on the candidate and committed: the commit answers
    what the edit of running would have (a refusal of the models at the
    edit, of the tunnel mapping at the commit, the candidate then
    discarded), and running ends as the model says."""
    steps = script()
    with Agent() as agent:
        m = agent.connect()
        for i, step in enumerate(steps):
            text = ('<config xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">' + step["edit"] +
                    "</config>")
            before = leaves(m.get_config("running"))
            got = "ok"
            try:
                m.edit_config(target="candidate", config=text, default_operation=step["default"],
                              test_option="test-only" if step["test_only"] else None)
                if not step["test_only"]:
                    m.commit()
            except RPCError as e:
                got = e.errors[0].tag if getattr(e, "errors", None) else e.tag
                m.discard_changes()
            after = leaves(m.get_config("running"))
            where = f"step {i}: {step}\n  agent: {sorted(after)}"
            assert got in step["answers"] if step["answers"] else got == "ok", (got, where)
            assert after == set(step["leaves"]), where
            if step["answers"] or step["test_only"]:
                assert after == before, where
            assert leaves(m.get_config("candidate")) == after, where
