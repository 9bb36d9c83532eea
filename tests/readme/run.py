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
  line for line (`...` stands for any lines; a command shown without output
  is not compared).  The agent's port, 8830 in the README, is taken from the
  ephemeral ones here, so that a run never meets another agent.  The session
  must leave nothing in the checkout.

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
# The quick start's commands and where each is run.
COVERED = {"scripts/demo.sh": "ctest scripts.demo", "scripts/test.sh": ".ci/run"}
README_PORT = "127.0.0.1:8830"


class Command:
    def __init__(self, line, text):
        self.line, self.text, self.expected = line, text, []


def section(lines, title):
    """The lines of the `## ` section whose heading starts with title, with
    their line numbers."""
    start = next((i for i, l in enumerate(lines) if l.startswith(title)), None)
    if start is None:
        sys.exit(f"run.py: the README has no section '{title}'")
    end = next((i for i in range(start + 1, len(lines)) if lines[i].startswith("## ")), len(lines))
    return [(i + 1, lines[i]) for i in range(start + 1, end)]


def commands(numbered):
    """The `$ ` commands of the section's indented listings, each with the
    output its listing shows."""
    out, current, in_block = [], None, False
    pending = None
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
        elif in_block and current is not None:
            current.expected.append(body)
    for c in out:
        while c.expected and not c.expected[-1]:
            c.expected.pop()
    return out


def matches(expected, actual):
    """expected, with `...` lines standing for any run of lines, is actual."""
    if not expected:
        return not actual
    if expected[0] == "...":
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
    port = f"127.0.0.1:{free_port()}"
    mark = "@@readme-" + secrets.token_hex(8)
    script = ["cd " + root]
    for i, c in enumerate(session):
        c.text = c.text.replace(README_PORT, port)
        c.expected = [l.replace(README_PORT, port) for l in c.expected]
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
    for i, c in enumerate(session):
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
          f"the session's {len(session)} commands ran as shown")
    return 0


if __name__ == "__main__":
    sys.exit(main())
