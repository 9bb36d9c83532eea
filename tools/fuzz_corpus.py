#!/usr/bin/env python3
"""Writes the seed corpus and the dictionary of octunnel's fuzz targets.

    fuzz_corpus.py OUT_DIR

Seeds come from the golden cases (tests/golden/cases/*/input.{xml,json},
with the request fields their args name) and the examples, each as the
target of its direction and format expects it: a header of twelve bytes
(see tests/fuzz/translate_fuzzer.cpp), then the document.  They go to
OUT_DIR/<target>/.  The dictionary, OUT_DIR/octunnel.dict, holds the words
of the models (every tag of the model descriptions, the namespaces, the
JSON module names) and of NETCONF, in libFuzzer's format.
"""

import glob
import os
import shlex
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, HERE)
import ymapgen  # noqa: E402

TARGETS = ["to-native-xml", "to-native-json", "to-oc-xml", "to-oc-json", "serve-rpc",
           "gnmi-path"]
KINDS = {"get-config": 0, "edit": 1, "get": 2}
NETCONF = "urn:ietf:params:xml:ns:netconf:base:1.0"


def number(text):
    return int(text, 16) if text.lower().startswith("0x") else int(text)


def header(direction, args):
    """The twelve bytes of the request fields that `args` name."""
    kind = "get" if direction == "to-oc" else "edit"
    router, view, marks = 0, 0, [0] * 9
    words = iter(args)
    for w in words:
        if w == "--kind":
            kind = next(words)
        elif w == "--router-type":
            router = number(next(words))
        elif w == "--read-view":
            view = number(next(words))
        elif w == "--marks":
            for item in next(words).split(","):
                v = number(item[2:])
                marks[ord(item[0]) - ord("a")] = (v | v >> 8 | v >> 16) & 0xFF
    if kind in KINDS:
        k = KINDS[kind]
    else:
        try:
            k = (number(kind) % 64) * 4 + 3
        except ValueError:
            k = 1
    r = 1 if router == 13 else (router * 2) % 256
    return bytes([k, r, view % 4] + marks)


def seeds():
    """(target, name, header, document) of every case and example."""
    for case in sorted(glob.glob(os.path.join(ROOT, "tests/golden/cases/*"))):
        args = ["to-oc"]
        if os.path.exists(os.path.join(case, "args")):
            with open(os.path.join(case, "args")) as f:
                args = shlex.split(f.read())
        direction = args[0] if args and args[0] in ("to-oc", "to-native") else "to-oc"
        for fmt in ("xml", "json"):
            path = os.path.join(case, "input." + fmt)
            if os.path.exists(path):
                with open(path, "rb") as f:
                    yield (f"{direction}-{fmt}", os.path.basename(case), header(direction, args),
                           f.read())
    for path in sorted(glob.glob(os.path.join(ROOT, "examples/*.xml"))):
        with open(path, "rb") as f:
            doc = f.read()
        direction = "to-native" if b"http://openconfig.net/yang/interfaces" in doc else "to-oc"
        name = os.path.basename(path)[:-4]
        args = ["--kind", "get" if "read" in name else "get-config" if "config" in name else
                ("edit" if direction == "to-native" else "get")]
        yield f"{direction}-xml", name, header(direction, args), doc


def serve_seeds():
    """(name, bytes) of sessions of the serve-rpc target: a byte of flags
    (see tests/fuzz/serve_rpc_fuzzer.cpp), then what a client sends, from
    the requests of the agent's tests."""
    sys.path.insert(0, os.path.join(ROOT, "tests", "serve"))
    import payloads as p  # noqa: E402

    for i, body in enumerate(p.REQUESTS):
        message = p.rpc(body, str(i + 1))
        yield f"request-{i}-base11", bytes([1]) + p.chunked(message)
        yield f"request-{i}-base10-bytewise", bytes([0 | 1 << 3]) + p.end_marked(message)
        yield f"request-{i}-locked", bytes([1 | 4]) + p.chunked(message)
        yield f"request-{i}-held", bytes([1 | 32]) + p.chunked(message)
    # A whole session: its own hello, every request, pipelined.
    stream = p.end_marked(p.hello()) + b"".join(
        p.chunked(p.rpc(body, str(i))) for i, body in enumerate(p.REQUESTS[:-1]))
    yield "session", bytes([2]) + stream
    # The same past a budget of requests in flight smaller than some of
    # them, whole and five bytes at a time, and in base:1.0 a byte at a time.
    large = p.rpc("<get>" + " " * 3000 + "</get>", "large")
    yield "session-budget", bytes([2 | 64]) + stream + p.chunked(large)
    said = p.end_marked(p.hello())
    yield "session-budget-pieces", bytes([2 | 64 | 2 << 3]) + said + p.chunked(large) + \
        stream[len(said):]
    yield "session-budget-base10", bytes([64 | 1 << 3]) + b"".join(
        p.end_marked(m) for m in (large, p.rpc("<get/>", "after"), large + "]]>"))
    for i, message in enumerate(p.MALFORMED):
        yield f"malformed-{i}-base11", bytes([1]) + p.chunked(message) if message else \
            bytes([1]) + b"\n#1\n \n##\n"
        yield f"malformed-{i}-base10", bytes([0]) + p.end_marked(message)
    for i, (body, _, _) in enumerate(p.BAD_OPERATIONS):
        yield f"bad-operation-{i}", bytes([1]) + p.chunked(p.rpc(body, str(i)))
    for i, frames in enumerate(p.BAD_FRAMES):
        yield f"bad-frames-{i}", bytes([1 | 2 << 3]) + frames.encode()
    yield "too-big", bytes([1]) + b"\n#5000\n" + b"<" * 5000


def gnmi_seeds():
    """(name, text) of gnmi.SetRequest messages in protobuf's text format,
    for the gnmi-path target: paths with keys, wildcards and prefixes, and
    values of each encoding."""
    def elems(*names):
        out = ""
        for n in names:
            name, _, key = n.partition("=")
            k, _, v = key.partition(":")
            out += f'elem {{ name: "{name}"' + (f' key {{ key: "{k}" value: "{v}" }}'
                                                if key else "") + " } "
        return out
    t12 = ("interfaces", "interface=name:tunnel-ip12", "tunnel")
    ttl = elems(*t12, "config", "ttl")
    return [
        ("delete-leaf", f"delete {{ {ttl} }}"),
        ("delete-wildcards", "delete { " + elems("interfaces", "interface=name:*", "...", "ttl")
         + " } delete { " + elems("interfaces", "*", "tunnel", "*") + " }"),
        ("update-leaf-json-ietf", f'update {{ path {{ {ttl} }} val {{ json_ietf_val: "64" }} }}'),
        ("update-leaf-scalar", f"update {{ path {{ {ttl} }} val {{ uint_val: 9 }} }}"),
        ("replace-config-json",
         f'replace {{ path {{ {elems(*t12, "config")} }} val {{ json_val: '
         '"{\\"src\\": \\"192.0.2.1\\", \\"ttl\\": 3}" } }'),
        ("replace-interface-ietf",
         f'prefix {{ origin: "openconfig" {elems("interfaces")} }} replace {{ path {{ '
         f'{elems("interface=name:tunnel-ip9")} }} val {{ json_ietf_val: '
         '"{\\"openconfig-if-tunnel:tunnel\\": {\\"config\\": {\\"ttl\\": 5}}}" } }'),
        ("update-root", 'update { path { } val { json_ietf_val: '
         '"{\\"openconfig-interfaces:interfaces\\": {\\"interface\\": '
         '[{\\"name\\": \\"t\\"}]}}" } }'),
        ("delete-address", "delete { " + elems(*t12, "ipv6", "addresses",
                                             "address=ip:2001:db8::1") + " }"),
    ]


def words():
    found = {"merge", "replace", "create", "delete", "remove", "operation", "nc:operation",
             "xmlns", "xmlns:nc", NETCONF, "data", "config", "filter", "type", "subtree",
             "ietf-netconf:operation", "ietf-netconf:data", "ietf-netconf:config",
             "ietf-netconf:filter", "@", "[null]", "act", "tunnel-ip12", "<![CDATA[", "]]>",
             "<!--", "-->", "&amp;", "&#", "<?xml version=\"1.0\"?>",
             "rpc", "message-id", "hello", "capabilities", "capability",
             "urn:ietf:params:netconf:base:1.1", "]]>]]>", "\n#", "\n##\n", "edit-config",
             "get-config", "target", "running", "source", "default-operation",
             "test-option", "test-only", "none", "lock", "unlock", "validate",
             "close-session", "<!DOCTYPE", "nacm", "kill-session", "session-id",
             "urn:ietf:params:xml:ns:yang:ietf-netconf-acm",
             # gNMI's requests in protobuf's text format
             "elem", "name:", "key", "value:", "prefix", "origin:", "openconfig", "delete",
             "update", "path", "val", "json_ietf_val:", "json_val:", "string_val:",
             "uint_val:", "int_val:", "bool_val:", "...", "*", "{", "}"}
    for path in glob.glob(os.path.join(ROOT, "src/models/*.ymap")):
        with open(path, encoding="utf-8") as f:
            model = ymapgen.parse(f.read())
        for n in ymapgen.walk(model):
            found.update(model.path(n).strip("/").split("/"))
            found.update(n.opts.get("keys", []))
    with open(os.path.join(ROOT, "include/octunnel/yfw_namespaces.h"), encoding="utf-8") as f:
        for line in f:
            if '"' in line:
                ns = line.split('"')[1]
                found.add(ns)
                if "Valmora-" in ns:
                    found.add(ns[ns.index("Valmora-"):])
    found.update(["openconfig-interfaces", "openconfig-if-ip", "openconfig-if-tunnel",
                  "openconfig-vlan"])
    return sorted(w for w in found if w)


def quoted(word):
    out = ""
    for ch in word.encode():
        c = chr(ch)
        if c in '"\\' or not 32 <= ch < 127:
            out += "\\x%02X" % ch
        else:
            out += c
    return '"' + out + '"'


def main():
    out = sys.argv[1]
    for t in TARGETS:
        os.makedirs(os.path.join(out, t), exist_ok=True)
    for target, name, head, doc in seeds():
        with open(os.path.join(out, target, "seed-" + name), "wb") as f:
            f.write(head + doc)
    for name, data in serve_seeds():
        with open(os.path.join(out, "serve-rpc", "seed-" + name), "wb") as f:
            f.write(data)
    for name, text in gnmi_seeds():
        with open(os.path.join(out, "gnmi-path", "seed-" + name), "w", encoding="utf-8") as f:
            f.write(text)
    with open(os.path.join(out, "octunnel.dict"), "w") as f:
        for w in words():
            f.write(quoted(w) + "\n")


if __name__ == "__main__":
    main()
