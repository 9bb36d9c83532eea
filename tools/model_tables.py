#!/usr/bin/env python3
"""model_tables: what the framework's side needs to know of all the models
at once, from their descriptions (src/models/*.ymap), as one header of
constant tables and named constants (octunnel/model_tables.h):

  nodes[]        every node of every model by its schema path (no module
                 names), with the namespace of the model that owns it, its
                 form, a list's keys and whether it is an OpenConfig `state`
                 container (read-only with all it holds); a list's keys are
                 leaves of it, whether or not the description has a row for
                 them
  lists[]        every list with its keys
  bindings[]     how a list entry of an answer or a native request is found:
                 its key, and the nodes of the walk that name it (the
                 `instance-of` rows of the native models, read both ways)
  entries[]      every augment entry: its exported name, the path of the
                 node it augments, the tag it accepts, its model's namespace
  native_roots[] the exported native roots, the registered one first

and, for code that needs one of them by name, each list, entry, root and
instance-of row once more as a constant named like its function
(octunnel::models::<model word>::<walker suffix>, ::<entry name>,
::<walker suffix>_names).  The descriptions are read by the generator's own
parser.

    model_tables.py OUT.h MODEL.ymap...
"""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ymapgen  # noqa: E402

FORMS = {"container": "container", "state": "container", "list": "list", "leaf": "leaf",
         "key": "leaf", "leaf-list": "leaf_list"}


class TableError(Exception):
    pass


def c(s):
    return ymapgen.c_string(s)


def oc_key(n):
    return n.children[0].tag


def list_keys(model, n):
    return [oc_key(n)] if model.kind == "openconfig" else n.opts.get("keys", [])


def collect(models):
    nodes = {}  # path -> (ns, form, keys array or None, state)

    def node(path, ns, form, where, keys=None, state=False):
        old = nodes.get(path)
        if old is not None and old[:2] != (ns, form):
            raise TableError(f"{where}: {path} is also a {old[1]} of {old[0]}")
        nodes.setdefault(path, (ns, form, keys, state))

    lists = []      # (model, node)
    oc_lists = {}   # path -> (model, node)
    for m in models:
        for n in ymapgen.walk(m):
            path = m.path(n)
            keys = keys_name(m, n) if n.form == "list" and list_keys(m, n) else None
            node(path, m.namespace, FORMS[n.form], f"{m.stem} line {n.line}", keys,
                 n.form == "state")
            if n.form == "list":
                lists.append((m, n))
                if m.kind == "openconfig":
                    oc_lists[path] = (m, n)
                for key in n.opts.get("keys", []):
                    node(f"{path}/{key}", m.namespace, "leaf", f"{m.stem} line {n.line}")
    return nodes, lists, oc_lists


def instance_rows(models, oc_lists):
    """(native model, native node, InstanceOf, OpenConfig model, OpenConfig list)"""
    rows = []
    for m in models:
        for n in ymapgen.walk(m):
            inst = n.opts.get("instance-of")
            if inst is None:
                continue
            if inst.oc_list not in oc_lists:
                raise TableError(f"{m.stem} line {n.line}: no OpenConfig list {inst.oc_list}")
            om, on = oc_lists[inst.oc_list]
            if inst.oc_key != oc_key(on):
                raise TableError(f"{m.stem} line {n.line}: the key of {inst.oc_list} is "
                                 f"{oc_key(on)}, not {inst.oc_key}")
            rows.append((m, n, inst, om, on))
    return rows


def keys_name(m, n):
    return f"keys::{m.word}_{ymapgen.suffix(m, n)}"


def naming(ns, tag, key_path, prefix):
    return f"{{{ns}, {c(tag)}, {c(key_path)}, {c(prefix)}}}"


def bindings(rows):
    """Each list of an instance-of row, OpenConfig or native, with the nodes
    that name its entries.  An OpenConfig entry is named by each native node
    that stands for it.  A native list entry is named by the OpenConfig
    entry it stands for, unless its name is built with a prefix: then the
    module names it itself, in the path it adds."""
    out = {}  # path -> dict
    order = []

    def binding(path, key, key_ns):
        if path not in out:
            out[path] = {"key": key, "key_ns": key_ns, "anchors": [], "fixed": None}
            order.append(path)
        return out[path]

    for m, n, inst, om, on in rows:
        b = binding(inst.oc_list, inst.oc_key, om.namespace)
        b["anchors"].append(naming(m.namespace, n.tag, inst.key_path, inst.prefix))
    for m, n, inst, om, on in rows:
        if n.form != "list":
            continue
        b = binding(m.path(n), inst.key_path, m.namespace)
        if not inst.prefix:
            b["anchors"].append(naming(om.namespace, on.tag, inst.oc_key, ""))
        b["fixed"] = n.opts.get("fixed")
    return [(p, out[p]) for p in order]


def namings_name(path):
    return "namings" + path.replace("/", "_").replace("-", "_").replace(":", "_")


def generate(models):
    nodes, lists, oc_lists = collect(models)
    keyed = {m.path(n): (m, n) for m, n in lists}
    rows = instance_rows(models, oc_lists)
    registered = [(m, n) for m in models for n in m.tops if n.registered]
    if len(registered) > 1:
        raise TableError("more than one registered root")

    out = ["// Generated by tools/model_tables.py from src/models/*.ymap; do not edit.\n",
           HEADER]
    out.append("namespace keys {\n")
    for m, n in lists:
        keys = list_keys(m, n)
        if keys:
            out.append(f"inline constexpr const char *{m.word}_{ymapgen.suffix(m, n)}[] = {{"
                       + ", ".join(c(k) for k in keys) + "};\n")
    out.append("} // namespace keys\n\n")

    out.append("inline constexpr node nodes[] = {\n")
    for path in sorted(nodes):
        ns, form, keys, state = nodes[path]
        count = len(list_keys(*keyed[path])) if keys else 0
        out.append(f"    {{{c(path)}, {ns}, form::{form}, {keys or 'nullptr'}, {count}, "
                   f"{'true' if state else 'false'}}},\n")
    out.append("};\n\n")

    out.append("// Each model's lists, entries, roots and instance-of rows by name.\n")
    for m in models:
        consts = []
        for n in ymapgen.walk(m):
            s = ymapgen.suffix(m, n)
            if n.form == "list":
                keys = list_keys(m, n)
                kp = f"keys::{m.word}_{s}" if keys else "nullptr"
                consts.append(f"inline constexpr list {s} = {{{c(m.path(n))}, {c(n.tag)}, "
                              f"{m.namespace}, {kp}, {len(keys)}}};\n")
            if n.root and m.kind == "native":
                consts.append(f"inline constexpr root {s} = {{{c(ymapgen.walker_name(m, n))}, "
                              f"{c(n.tag)}, {m.namespace}, {'true' if n.registered else 'false'}"
                              f"}};\n")
            inst = n.opts.get("instance-of") if m.kind == "native" else None
            if inst is not None:
                consts.append(f"inline constexpr naming {s}_names = "
                              f"{naming(m.namespace, n.tag, inst.key_path, inst.prefix)};\n")
        for e in m.entries:
            consts.append(f"inline constexpr entry {e.name} = {{{c(m.prefix + e.name)}, "
                          f"{c(e.target.base or m.augments)}, {c(e.accepts)}, "
                          f"{m.namespace}}};\n")
        if consts:
            out.append(f"namespace {m.word} {{\n" + "".join(consts) + f"}} // namespace {m.word}\n")
    out.append("\n")

    out.append("inline constexpr list lists[] = {\n")
    for m, n in lists:
        out.append(f"    {m.word}::{ymapgen.suffix(m, n)},\n")
    out.append("};\n\n")

    table = bindings(rows)
    for path, b in table:
        out.append(f"inline constexpr naming {namings_name(path)}[] = {{\n"
                   + "".join(f"    {a},\n" for a in b["anchors"]) + "};\n"
                   if b["anchors"] else "")
    out.append("inline constexpr binding bindings[] = {\n")
    for path, b in table:
        anchors = (f"{namings_name(path)}, {len(b['anchors'])}" if b["anchors"]
                   else "nullptr, 0")
        fixed = f"{c(b['fixed'][0])}, {c(b['fixed'][1])}" if b["fixed"] else "nullptr, nullptr"
        out.append(f"    {{{c(path)}, {c(b['key'])}, {b['key_ns']}, {anchors}, {fixed}}},\n")
    out.append("};\n\n")

    out.append("inline constexpr entry entries[] = {\n")
    for m in models:
        for e in m.entries:
            out.append(f"    {m.word}::{e.name},\n")
    out.append("};\n\n")

    roots = [(m, n) for m in models if m.kind == "native" for n in m.tops if n.root]
    roots.sort(key=lambda r: not r[1].registered)
    out.append("inline constexpr root native_roots[] = {\n")
    for m, n in roots:
        out.append(f"    {m.word}::{ymapgen.suffix(m, n)},\n")
    out.append("};\n\n} // namespace octunnel::models\n")
    return "".join(out)


HEADER = """//
// What the framework's side (the reference host, the tool) and the module's
// hand-written code need to know of all the models at once.  Each entry
// comes from one row of a model description; see tools/model_tables.py.
#pragma once

#include "octunnel/yfw_namespaces.h"

#include <cstdint>
#include <string_view>

namespace octunnel::models {

enum class form : uint8_t { container, list, leaf, leaf_list };

// A node of a model: its schema path without module names, the namespace of
// the model that owns it, its form, a list's keys (in order; none for a
// keyless list and any other node), and whether it is a `state` container
// of OpenConfig, read-only with all it holds.
struct node {
    const char *path;
    const char *ns;
    form kind;
    const char *const *keys;
    uint32_t key_count;
    bool state;
};

// A list of a model, with the keys its walkers know (none for a keyless
// native list).
struct list {
    const char *path;
    const char *tag;
    const char *ns;
    const char *const *keys;
    uint32_t key_count;
};

// A node that names a list entry: a node with this tag and namespace, while
// the walk stands in it or below it, names the entry whose key is `prefix`
// followed by the value at `key_path` below it (a child, or a child's
// child).
struct naming {
    const char *ns;
    const char *tag;
    std::string_view key_path; // lengths known when compiled: a lookup measures nothing
    std::string_view prefix;
};

// How the entry of a list in an added path is found: by its `key` (in
// `key_ns`), whose value the innermost naming node of the walk gives; a
// `fixed_key` has the one value `fixed_value` in every entry.
struct binding {
    const char *path;
    const char *key;
    const char *key_ns;
    const naming *namings;
    uint32_t naming_count;
    const char *fixed_key;
    const char *fixed_value;
};

// An augment entry of the module: its exported name, the path of the node
// whose children it takes, the tag it accepts and its model's namespace.
struct entry {
    const char *name;
    const char *target;
    const char *accepts;
    const char *ns;
};

// An exported root of a native model: its walker's name, its tag and
// namespace; `registered` for the one that the registration names.
struct root {
    const char *name;
    const char *tag;
    const char *ns;
    bool registered;
};

"""


def main():
    out, descriptions = sys.argv[1], sys.argv[2:]
    models = []
    try:
        for path in descriptions:
            with open(path, encoding="utf-8") as f:
                try:
                    models.append(ymapgen.parse(f.read()))
                except ymapgen.ModelError as e:
                    raise TableError(f"{path}: {e}") from None
        text = generate(models)
    except TableError as e:
        sys.exit(str(e))
    os.makedirs(os.path.dirname(out), exist_ok=True)
    ymapgen.write_if_changed(out, text)


if __name__ == "__main__":
    main()
