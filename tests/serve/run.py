#!/usr/bin/python3
"""Runs one group of the agent's tests against an octunnel binary:

    run.py OCTUNNEL GROUP [TEST...]

GROUP names tests/serve/test_GROUP.py; every function test_* in it runs (or
those named), each reported on a line, and the closing line says
"N passed, N failed".  Exits non-zero when a test failed.
"""

import importlib
import os
import sys
import traceback

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402


def main():
    harness.OCTUNNEL = os.path.abspath(sys.argv[1])
    group = importlib.import_module("test_" + sys.argv[2])
    names = sys.argv[3:] or [n for n in vars(group) if n.startswith("test_")]
    passed = failed = 0
    for name in names:
        try:
            getattr(group, name)()
            # A test ends every agent it started.
            left = [p for p in harness.PROCESSES if p.poll() is None]
            for p in left:
                p.kill()
                p.wait()
            assert not left, f"{len(left)} agent(s) left running"
        except Exception:  # noqa: BLE001 - every failure is reported
            failed += 1
            print(f"FAIL {name}")
            traceback.print_exc(file=sys.stdout)
        else:
            passed += 1
            print(f"ok   {name}")
        harness.PROCESSES.clear()
        sys.stdout.flush()
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
