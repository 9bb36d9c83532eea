#!/usr/bin/python3
"""Runs one group of the gNMI front's tests against an octunnel binary:

    run.py OCTUNNEL GROUP [TEST...]

GROUP names tests/gnmi/test_GROUP.py; the tests run as tests/serve/run.py
runs its own (whose harness they share), closing with "N passed, N failed".
"""

import importlib.util
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "serve"))
spec = importlib.util.spec_from_file_location("serve_run", os.path.join(HERE, "..", "serve",
                                                                         "run.py"))
serve_run = importlib.util.module_from_spec(spec)
spec.loader.exec_module(serve_run)
# This directory's groups first: test_GROUP is looked up here.
sys.path.insert(0, HERE)

if __name__ == "__main__":
    sys.exit(serve_run.main())
