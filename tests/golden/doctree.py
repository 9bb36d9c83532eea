#!/usr/bin/env python3
"""Documents of the golden cases, in either syntax, as the golden runner
compares and validates them.

    doctree.py flatten FILE        one line per node, sorted, of an XML or a
                                   JSON (RFC 7951) document (one that starts
                                   with "{")
    doctree.py request FILE TYPE   a JSON OpenConfig request as yanglint is to
                                   check it (TYPE edit or get)

flatten writes "path = value @operation" (value and operation where the node
has them) with a step qualified by its module where the module changes, the
NETCONF envelope left out, and the n-th of several siblings of one name as name[n]: the two
syntaxes of one tree give the same lines.  An empty value and none are one
(<x/> in XML; [null], {} or "" in JSON).

request takes off a NETCONF wrapper ("ietf-netconf:config", "filter"); for a
read it also leaves out the filter's selection nodes ([null] or {}), which no
typed leaf accepts.
"""

import json
import sys
import xml.etree.ElementTree as ET

NETCONF = "urn:ietf:params:xml:ns:netconf:base:1.0"
MODULES = {
    "openconfig-interfaces": "http://openconfig.net/yang/interfaces",
    "openconfig-if-ip": "http://openconfig.net/yang/interfaces/ip",
    "openconfig-if-tunnel": "http://openconfig.net/yang/interfaces/tunnel",
    "openconfig-vlan": "http://openconfig.net/yang/vlan",
    "ietf-netconf": NETCONF,
}
NATIVE_BASE = "http://valmora.com/ns/yang/"
ENVELOPES = ("data", "config", "filter")


def module_of(ns):
    for module, uri in MODULES.items():
        if uri == ns:
            return module
    if ns.startswith(NATIVE_BASE):
        return ns[len(NATIVE_BASE):].removesuffix(".yang")
    sys.exit(f"doctree.py: no module for the namespace {ns!r}")


def indexed(names):
    """name, or name[n] for each of several siblings of one name."""
    total = {n: names.count(n) for n in names}
    seen = {}
    for n in names:
        k = seen.get(n, 0)
        seen[n] = k + 1
        yield n if total[n] == 1 else f"{n}[{k}]"


def step(module, local, parent_module):
    return local if module == parent_module else f"{module}:{local}"


def line(path, value, op):
    text = path
    if value not in (None, ""):
        text += " = " + value
    if op:
        text += " @" + op
    return text


# ------------------------------------------------------------------ XML

def split(tag):
    ns, _, local = tag[1:].partition("}") if tag.startswith("{") else ("", "", tag)
    return ns, local


def xml_lines(path):
    root = ET.parse(path).getroot()
    ns, local = split(root.tag)
    tops = list(root) if ns == NETCONF and local in ENVELOPES else [root]
    out = []

    def walk(elements, parent_module, prefix):
        modules, names = [], []
        for e in elements:
            ns, local = split(e.tag)
            modules.append(module_of(ns))
            names.append(step(modules[-1], local, parent_module))
        for e, module, name in zip(elements, modules, indexed(names)):
            p = f"{prefix}/{name}"
            op = e.get(f"{{{NETCONF}}}operation")
            value = None if len(e) else (e.text or "")
            out.append(line(p, value, op))
            walk(list(e), module, p)

    walk(tops, "", "")
    return out


# ------------------------------------------------------------------ JSON

def load_json(path, as_written=True):
    with open(path, encoding="utf-8") as f:
        if as_written:  # numbers as their text
            return json.load(f, parse_int=str, parse_float=str)
        return json.load(f)


def scalar(v):
    if v is True:
        return "true"
    if v is False:
        return "false"
    if v == [None]:
        return None
    return v


def operation(meta):
    return (meta or {}).get("ietf-netconf:operation")


def json_lines(path):
    doc = load_json(path)
    out = []

    def walk(obj, parent_module, prefix):
        entries = []  # (module, name, value, metadata)
        for member, value in obj.items():
            if member.startswith("@"):
                continue
            module, _, local = member.rpartition(":")
            module = module or parent_module
            name = step(module, local, parent_module)
            meta = obj.get("@" + member)
            if isinstance(value, list) and value != [None]:
                metas = meta if isinstance(meta, list) else [None] * len(value)
                entries += [(module, name, v, m) for v, m in zip(value, metas)]
            else:
                entries.append((module, name, value, meta))
        for (module, _, value, meta), name in zip(entries, indexed([e[1] for e in entries])):
            p = f"{prefix}/{name}"
            if isinstance(value, dict):
                out.append(line(p, None, operation(value.get("@"))))
                walk(value, module, p)
            else:
                out.append(line(p, scalar(value), operation(meta)))

    walk(doc, "", "")
    return out


def flatten(path):
    with open(path, encoding="utf-8") as f:
        is_json = f.read().lstrip().startswith("{")
    lines = json_lines(path) if is_json else xml_lines(path)
    for text in sorted(lines):
        print(text)


def request(path, kind):
    doc = load_json(path, as_written=False)
    if len(doc) == 1:
        (member, value), = doc.items()
        if member in (f"ietf-netconf:{e}" for e in ENVELOPES):
            doc = value

    def prune(obj):
        for member in list(obj):
            value = obj[member]
            if value in ([None], {}):
                del obj[member]
                obj.pop("@" + member, None)
            elif isinstance(value, dict):
                prune(value)
            elif isinstance(value, list):
                for v in value:
                    if isinstance(v, dict):
                        prune(v)

    if kind == "get":
        prune(doc)
    json.dump(doc, sys.stdout, indent=2)
    print()


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "flatten":
        flatten(sys.argv[2])
    elif len(sys.argv) == 4 and sys.argv[1] == "request":
        request(sys.argv[2], sys.argv[3])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
