#!/usr/bin/env python3
"""Holds what the agent did, as strace saw it, to what octunnel.service lets
it do: every system call among those the unit's SystemCallFilter= lines
allow (as `systemd-analyze syscall-filter` expands their sets), and every
socket of a family its RestrictAddressFamilies= names.  Only what follows
the exec of the unit's ExecStart program counts: systemd sets the sandbox up
before it.

    sandbox.py UNIT TRACE

TRACE is `strace -f -o` output.  Exit status 0 when all is allowed; 1 with
each system call or family refused and the first trace line that used it.
"""

import re
import subprocess
import sys


def sets():
    out = subprocess.run(["systemd-analyze", "syscall-filter"], capture_output=True, text=True,
                         check=True).stdout
    groups, current = {}, None
    for line in out.splitlines():
        if line.startswith("@"):
            current = line.strip()
            groups[current] = []
        elif current and line.strip() and not line.strip().startswith("#"):
            groups[current].append(line.strip())
    return groups


def expand(groups, name, seen):
    if not name.startswith("@"):
        return {name}
    if name in seen:
        return set()
    seen.add(name)
    return set().union(*(expand(groups, n, seen) for n in groups.get(name, [])))


def main():
    unit, trace = sys.argv[1], sys.argv[2]
    groups = sets()
    allowed, families, program = None, None, None
    with open(unit, encoding="utf-8") as f:
        for line in f:
            key, _, value = line.strip().partition("=")
            if key == "SystemCallFilter":
                deny = value.startswith("~")
                names = set().union(*(expand(groups, n, set()) for n in value.lstrip("~").split()))
                if deny:
                    allowed = (allowed if allowed is not None else set()) - names
                else:
                    allowed = (allowed or set()) | names
            elif key == "RestrictAddressFamilies":
                families = set(value.split())
            elif key == "ExecStart":
                program = value.split()[0]
    refused = {}
    started = False
    with open(trace, encoding="utf-8", errors="replace") as f:
        for line in f:
            m = re.match(r"\s*\d+\s+([a-z_0-9]+)\((.*)", line)
            if not m:
                continue
            name, rest = m.groups()
            if not started:
                started = name == "execve" and rest.startswith(f'"{program}"') and "= 0" in rest
                continue
            if allowed is not None and name not in allowed:
                refused.setdefault(f"system call {name}", line.strip())
            if name in ("socket", "socketpair") and families is not None:
                family = rest.split(",")[0]
                if family not in families:
                    refused.setdefault(f"address family {family}", line.strip())
    if not started:
        print(f"FAIL: the trace never runs {program}", file=sys.stderr)
        return 1
    for what, line in sorted(refused.items()):
        print(f"FAIL: the unit refuses {what}, which the agent used: {line}", file=sys.stderr)
    return 1 if refused else 0


if __name__ == "__main__":
    sys.exit(main())
