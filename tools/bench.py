#!/usr/bin/env python3
"""Measures octunnel against yanglint on documents of a router's size.

    bench.py OCTUNNEL YANG_DIR [--sizes 1000,10000,100000] [--runs 3] [--work DIR]

For each size and format (XML, JSON), documents of that many tunnel
interfaces come from tools/gendoc.py, and each command runs --runs times;
the table shows the median wall-clock time, the time per interface and the
largest peak resident memory of the runs:

  to-native (edit)       octunnel to-native on an OpenConfig edit, against
                         yanglint parsing, validating and printing the same
                         edit with the OpenConfig models (-t edit)
  to-oc (configuration)  octunnel to-oc --kind get-config on the native
                         configuration, against yanglint reading and
                         validating the OpenConfig answer octunnel prints
  to-oc (operational)    the same with native operational data (--kind get)

ratio is octunnel's time and memory over yanglint's.
"""

import argparse
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
MODELS = ["ietf-netconf", "openconfig-vlan-types", "openconfig-if-types", "openconfig-interfaces",
          "openconfig-vlan", "openconfig-if-ip", "openconfig-if-tunnel"]


def measure(argv, work):
    """Runs argv once under GNU time: (seconds, peak RSS in KiB).  The peak
    is the command's own, not that of this process, which it was forked from."""
    report = os.path.join(work, "time.txt")
    start = time.monotonic()
    proc = subprocess.run(["/usr/bin/time", "-f", "%M", "-o", report] + argv,
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    seconds = time.monotonic() - start
    err = proc.stderr.decode(errors="replace")
    # yanglint says what went wrong but may still exit 0.
    if proc.returncode != 0 or "[E]" in err:
        sys.exit("failed: %s\n%s" % (" ".join(argv), err))
    with open(report) as f:
        return seconds, int(f.read().split()[-1])


def best(argv, runs, work):
    times, rss = [], 0
    for _ in range(runs):
        t, m = measure(argv, work)
        times.append(t)
        rss = max(rss, m)
    return statistics.median(times), rss


def generate(kind, n, fmt, path):
    if not os.path.exists(path):
        with open(path, "w") as out:
            subprocess.run([sys.executable, os.path.join(HERE, "gendoc.py"), kind, str(n), fmt],
                           stdout=out, check=True)
    return path


def bare(path, out_path):
    """An XML document without its NETCONF envelope, as yanglint reads data."""
    if not os.path.exists(out_path):
        with open(path) as src, open(out_path, "w") as dst:
            lines = src.readlines()
            dst.writelines(lines[1:-1])
    return out_path


def yanglint(yang, data_type, path, fmt):
    return (["yanglint", "-Q", "-p", yang, "-t", data_type] +
            [os.path.join(yang, m + ".yang") for m in MODELS] +
            [path, "-f", fmt, "-o", os.devnull])


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    p.add_argument("octunnel")
    p.add_argument("yang")
    p.add_argument("--sizes", default="1000,10000,100000")
    p.add_argument("--runs", type=int, default=3)
    p.add_argument("--work", default="build/bench")
    a = p.parse_args()
    os.makedirs(a.work, exist_ok=True)

    rows = []
    for n in [int(s) for s in a.sizes.split(",")]:
        for fmt in ("xml", "json"):
            doc = lambda kind: generate(kind, n, fmt, os.path.join(a.work, "%s-%d.%s" % (kind, n, fmt)))
            # The edit, in and out.
            edit = doc("edit")
            ours = best([a.octunnel, "to-native", "--format", fmt, edit], a.runs, a.work)
            data = bare(edit, edit[:-4] + ".bare.xml") if fmt == "xml" else edit
            theirs = best(yanglint(a.yang, "edit", data, fmt), a.runs, a.work)
            rows.append(("to-native (edit)", fmt, n, ours, theirs))
            for kind, label, request in (("config", "to-oc (configuration)", "get-config"),
                                         ("oper", "to-oc (operational)", "get")):
                native = doc(kind)
                cmd = [a.octunnel, "to-oc", "--kind", request, "--format", fmt, native]
                ours = best(cmd, a.runs, a.work)
                answer = os.path.join(a.work, "%s-%d-answer.%s" % (kind, n, fmt))
                with open(answer, "w") as out:
                    subprocess.run(cmd, stdout=out, check=True)
                if fmt == "xml":
                    answer = bare(answer, answer[:-4] + ".bare.xml")
                theirs = best(yanglint(a.yang, "get", answer, fmt), a.runs, a.work)
                rows.append((label, fmt, n, ours, theirs))

    print("| command | format | interfaces | octunnel s | µs/interface | peak RSS MiB "
          "| yanglint s | µs/interface | peak RSS MiB | ratio time | ratio memory |")
    print("| --- | --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: |")
    for label, fmt, n, (t, m), (yt, ym) in rows:
        print("| %s | %s | %d | %.3f | %.1f | %.1f | %.3f | %.1f | %.1f | %.2f | %.2f |" % (
            label, fmt, n, t, t * 1e6 / n, m / 1024, yt, yt * 1e6 / n, ym / 1024, t / yt, m / ym))


if __name__ == "__main__":
    main()
