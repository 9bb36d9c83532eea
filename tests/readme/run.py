#!/usr/bin/env python3
"""Runs the README's first commands as a reader would type them, so that
they cannot drift from the code.

    run.py README.md

- "## Quick start": its commands must be exactly the two that the tests run
  elsewhere (scripts/demo.sh by ctest's scripts.demo, scripts/test.sh by
  .ci/run), so that a command added there without a test fails here.
- "## A first session with the agent": every `$ ` command of its listings
  runs, in order, in one bash from the checkout, and must exit 0; where the
  listing shows what the command prints, its standard output must be that,
  line for line (`...`, indented or not, stands for any lines; a command
  shown without output is not compared).  The agent's port, 8830 in the
  README, is taken from the ephemeral ones here, so that a run never meets
  another agent.  The session must leave nothing in the checkout.
- "### A worked gNMI session" runs the same way after it, its gNMI port,
  9339 in the README, taken from the ephemeral ones too; the listing of
  examples/gnmi_session.py's output must also be, line for line, the text
  that ctest's gnmi.session holds the example to (tests/gnmi/gnmi_session.out).
- The tool's examples ("### EXAMPLES" of the manual page, "## octunnel
  to-native", "## octunnel to-oc") run the same way, after the sessions,
  with the tool the first built.  A command may take its input from a here-document
  (`<<'EOF'` to a line `EOF`).

Exit status 0 when all holds; 1 with the README's line of each command that
failed and what it printed against what the README shows.
"""

import os
import re
import secrets
import socket
import subprocess
import sys

QUICK_START = "## Quick start"
SESSION = "## A first session with the agent"
# The sections whose commands run after the session, with the tool it built.
TOOL_EXAMPLES = ("### EXAMPLES", "## octunnel to-native", "## octunnel to-oc")
# The quick start's commands and where each is run.
COVERED = {"scripts/demo.sh": "ctest scripts.demo", "scripts/test.sh": ".ci/run"}
README_PORT = "127.0.0.1:8830"
GNMI_SESSION = "### A worked gNMI session"
GNMI_PORT = "127.0.0.1:9339"
# What the gNMI session's example prints, as its test holds it.
GNMI_EXAMPLE = "examples/gnmi_session.py"
GNMI_EXPECTED = os.path.join("tests", "gnmi", "gnmi_session.out")


class Command:
    def __init__(self, line, text):
        self.line, self.text, self.expected = line, text, []


def section(lines, title):
    """The lines of the section whose heading starts with title (`## ` or
    `### `), to the next heading of its level or above, with their line
    numbers."""
    level = len(title) - len(title.lstrip("#"))
    start = next((i for i, l in enumerate(lines) if l.startswith(title)), None)
    if start is None:
        sys.exit(f"run.py: the README has no section '{title}'")

    def heading(line):
        hashes = len(line) - len(line.lstrip("#"))
        return 0 < hashes <= level and line[hashes:hashes + 1] == " "

    end = next((i for i in range(start + 1, len(lines)) if heading(lines[i])), len(lines))
    return [(i + 1, lines[i]) for i in range(start + 1, end)]


def commands(numbered):
    """The `$ ` commands of the section's indented listings, each with the
    output its listing shows."""
    out, current, in_block = [], None, False
    pending, here_doc = None, None
    for number, line in numbered:
        indented = line.startswith("    ")
        if not indented and line.strip():
            in_block, current = False, None
            continue
        if not indented:
            if current is not None:
                current.expected.append("")
            continue
        body = line[4:]
        if here_doc is not None:  # the input of a command, to its end mark
            current.text += "\n" + body
            if body == here_doc:
                here_doc = None
            continue
        if pending is not None:  # a command continued on the next line
            pending.text += "\n" + body
            if not body.endswith("\\"):
                pending = None
            continue
        if body.startswith("$ "):
            current = Command(number, body[2:])
            out.append(current)
            in_block = True
            if body.endswith("\\"):
                pending = current
            elif m := re.search(r"<<'?(\w+)'?\s*$", body):
                here_doc = m.group(1)
        elif in_block and current is not None:
            current.expected.append(body)
    for c in out:
        while c.expected and not c.expected[-1]:
            c.expected.pop()
    return out


def matches(expected, actual):
    """expected, with `...` lines (indented as the text they cut) standing
    for any run of lines, is actual."""
    if not expected:
        return not actual
    if expected[0].strip() == "...":
        return any(matches(expected[1:], actual[k:]) for k in range(len(actual) + 1))
    return bool(actual) and expected[0] == actual[0] and matches(expected[1:], actual[1:])


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def leftovers(root):
    """What git sees in the checkout beside the build trees."""
    status = subprocess.run(["git", "-C", root, "status", "--porcelain", "--untracked-files=all",
                             "--ignored"], capture_output=True, text=True, check=True).stdout
    return {l for l in status.splitlines() if not re.match(r"^.. build[^/]*/", l)}


def main():
    readme = os.path.abspath(sys.argv[1])
    root = os.path.dirname(readme)
    with open(readme, encoding="utf-8") as f:
        lines = f.read().splitlines()
    failures = []

    quick = [c.text for c in commands(section(lines, QUICK_START))]
    if sorted(quick) != sorted(COVERED):
        failures.append(f"the quick start's commands are {quick}: each must be one the tests "
                        f"run ({', '.join(f'{k} by {v}' for k, v in COVERED.items())})")

    # A build without a bound on its jobs can run a small machine out of
    # memory: every `cmake --build` the README shows gives one.
    for number, line in enumerate(lines, 1):
        if "cmake --build" in line and not re.search(r' -j ?("\$\(nproc\)"|\$\(nproc\)|[0-9]+)', line):
            failures.append(f"{os.path.basename(readme)}:{number}: a build without a bound on its jobs: {line.strip()}")

    session = commands(section(lines, SESSION))
    if not session:
        failures.append("the session shows no command")
    gnmi = commands(section(lines, GNMI_SESSION))
    shown = [c for c in gnmi if GNMI_EXAMPLE in c.text]
    with open(os.path.join(root, GNMI_EXPECTED), encoding="utf-8") as f:
        expected = f.read().splitlines()
    if len(shown) != 1 or shown[0].expected != expected:
        failures.append(f"the gNMI session must run {GNMI_EXAMPLE} once and show what it prints "
                        f"as {GNMI_EXPECTED} has it")
    session += gnmi
    examples = [c for title in TOOL_EXAMPLES for c in commands(section(lines, title))]
    if not examples:
        failures.append("the tool's sections show no command")
    ports = {README_PORT: f"127.0.0.1:{free_port()}", GNMI_PORT: f"127.0.0.1:{free_port()}"}
    mark = "@@readme-" + secrets.token_hex(8)
    script = ["cd " + root]
    for i, c in enumerate(session + examples):
        for shown_port, port in ports.items():
            c.text = c.text.replace(shown_port, port)
            c.expected = [l.replace(shown_port, port) for l in c.expected]
        script += [f"printf '\\n{mark} {i}\\n'", c.text, f"printf '\\n{mark}-rc {i} %d\\n' $?"]
    # Whatever the session left running is stopped, so that the run ends.
    script.append("kill $(jobs -p) 2>/dev/null; wait")

    before = leftovers(root)
    run = subprocess.run(["bash", "-c", "\n".join(script)], stdin=subprocess.DEVNULL,
                         stdout=subprocess.PIPE, text=True)
    outputs, status, current = {}, {}, None
    for line in run.stdout.splitlines():
        m = re.fullmatch(re.escape(mark) + r"(-rc)? (\d+)(?: (\d+))?", line)
        if m and m.group(1):
            status[int(m.group(2))] = int(m.group(3))
            current = None
        elif m:
            current = int(m.group(2))
            outputs[current] = []
        elif current is not None:
            outputs[current].append(line)
    for i, c in enumerate(session + examples):
        actual = outputs.get(i, [])
        while actual and not actual[-1]:
            actual.pop()
        where = f"{os.path.basename(readme)}:{c.line}: $ {c.text}"
        if i not in status:
            failures.append(f"{where}\n  did not run to its end")
        elif status[i] != 0:
            failures.append(f"{where}\n  exited {status[i]}; it printed:\n" +
                            "\n".join("    " + l for l in actual))
        elif c.expected and not matches(c.expected, actual):
            failures.append(f"{where}\n  printed:\n" + "\n".join("    " + l for l in actual) +
                            "\n  the README shows:\n" + "\n".join("    " + l for l in c.expected))
    left = leftovers(root) - before
    if left:
        failures.append("the session left in the checkout: " + ", ".join(sorted(left)))

    for f in failures:
        print("FAIL: " + f, file=sys.stderr)
    if failures:
        return 1
    print(f"README: the quick start's {len(quick)} commands are the tests' own; "
          f"the sessions' {len(session)} commands and the tool's {len(examples)} ran as shown")
    return 0


if __name__ == "__main__":
    sys.exit(main())
