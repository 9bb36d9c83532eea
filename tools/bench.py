#!/usr/bin/env python3
"""Measures octunnel against yanglint on documents of a router's size.

    bench.py OCTUNNEL YANG_DIR [--sizes 1000,10000,100000] [--runs 3] [--work DIR]

For each size and format (XML, JSON), documents of that many tunnel
interfaces come from tools/gendoc.py, and octunnel and yanglint run in
turns, --runs times each; the table shows the best wall-clock time, the
time per interface beyond
the command's start-up (its time on a document of no interface, which is
loading libraries, and for yanglint the models, rather than translating),
and the largest peak resident memory of the runs:

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


def side_by_side(ours, theirs, runs, work):
    """The two commands in turns, `runs` times each, so that whatever else
    the machine does weighs on both alike: for each, the best time (noise
    only ever adds) and the largest peak memory."""
    best = [(float("inf"), 0), (float("inf"), 0)]
    for _ in range(runs):
        for i, argv in enumerate((ours, theirs)):
            t, m = measure(argv, work)
            best[i] = (min(best[i][0], t), max(best[i][1], m))
    return best


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
            lines = src.readlines()[1:-1]
            # An empty answer (<data/>) is, to yanglint, empty interfaces.
            dst.writelines(lines or ['<interfaces xmlns="http://openconfig.net/yang/interfaces"/>\n'])
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
    start = {}  # (command, format) -> seconds on a document of no interface
    for n in [0] + [int(s) for s in a.sizes.split(",")]:
        for fmt in ("xml", "json"):
            doc = lambda kind: generate(kind, n, fmt, os.path.join(a.work, "%s-%d.%s" % (kind, n, fmt)))
            # The edit, in and out.
            edit = doc("edit")
            data = bare(edit, edit[:-4] + ".bare.xml") if fmt == "xml" else edit
            ours, theirs = side_by_side([a.octunnel, "to-native", "--format", fmt, edit],
                                        yanglint(a.yang, "edit", data, fmt), a.runs, a.work)
            rows.append(("to-native (edit)", fmt, n, ours, theirs))
            for kind, label, request in (("config", "to-oc (configuration)", "get-config"),
                                         ("oper", "to-oc (operational)", "get")):
                native = doc(kind)
                cmd = [a.octunnel, "to-oc", "--kind", request, "--format", fmt, native]
                answer = os.path.join(a.work, "%s-%d-answer.%s" % (kind, n, fmt))
                with open(answer, "w") as out:
                    subprocess.run(cmd, stdout=out, check=True)
                if fmt == "xml":
                    answer = bare(answer, answer[:-4] + ".bare.xml")
                ours, theirs = side_by_side(cmd, yanglint(a.yang, "get", answer, fmt), a.runs,
                                            a.work)
                rows.append((label, fmt, n, ours, theirs))

    print("| command | format | interfaces | octunnel s | µs/interface | peak RSS MiB "
          "| yanglint s | µs/interface | peak RSS MiB | ratio time | ratio memory |")
    print("| --- | --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: |")
    for label, fmt, n, (t, m), (yt, ym) in rows:
        if n == 0:
            start[(label, fmt)] = (t, yt)
            continue
        t0, yt0 = start[(label, fmt)]
        print("| %s | %s | %d | %.3f | %.1f | %.1f | %.3f | %.1f | %.1f | %.2f | %.2f |" % (
            label, fmt, n, t, (t - t0) * 1e6 / n, m / 1024, yt, (yt - yt0) * 1e6 / n, ym / 1024,
            t / yt, m / ym))


if __name__ == "__main__":
    main()
