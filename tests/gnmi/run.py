#!/usr/bin/python3
"""Runs one group of the gNMI front's tests against an octunnel binary:

    run.py OCTUNNEL GROUP [TEST...]

GROUP names tests/gnmi/test_GROUP.py; the tests run as tests/serve/run.py
runs its own (whose harness they share), closing with "N passed, N failed".
"""

import os
import runpy
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "serve"))
serve_run = runpy.run_path(os.path.join(HERE, "..", "serve", "run.py"), run_name="serve_run")
# This directory's groups first: test_GROUP is looked up here.
sys.path.insert(0, HERE)

if __name__ == "__main__":
    sys.exit(serve_run["main"]())
