#!/usr/bin/env python3
"""ymapgen: generates the functions of one native model from its description.

A description (src/models/<stem>.ymap) is the model's tree as the walk sees
it, one node a line, indented by two spaces a level:

    native valmora_tunnel_gre_cfg          # file stem; the word is the stem without '_'
    namespace NS_VALMORA_TUNNEL_GRE_CFG    # the model's namespace constant
    augments /interface-configurations/interface-configuration  # where the tops hang
    operational                            # optional: branches only in a GET
    define T /interfaces/interface/tunnel  # path shorthand, written T/config/ttl
    entry augment_lvla_interface_configuration accepts tunnel-ip

    container tunnel-ip  cont T            # a top node: visited from an entry,
      container ttl                        # or exported as a root with `root`
        leaf value  config T/config/ttl

Node lines are `[root|inline] container|list|leaf TAG [@lvlX] OPTIONS`:

    keys K1,K2     list key names, tried in this order
    path P         list path for yfw_map_update_current_list_node
    cont P         container handler cont_...: adds P when the node is empty
    list P         list handler list_...: adds the OpenConfig list entry P
    plain P        leaf: adds P with the native value
    always P       leaf: adds P unconditionally (an OpenConfig list key)
    config P       leaf: adds P when config_or_state_allowed
    state P        leaf: with config, adds P under the same predicate
    delegate F     leaf: the handler calls the hand-written F

Only mapped leaves are listed: any other child of the model goes the way of
an unsupported tag.  Names follow the module's grammar: the visit of a node
is ymap_vo_octunnel_<word>_<lvl>_<top>[_<parent>]_<node>, its handler the
same with cont_/list_/leaf_ before the level, its parse_augments the visit's
name with _parse_augments behind it.  `@lvlb` sets the level letter of a
namesake.  `inline` marks a top node that an entry visits by itself, with no
visit function of its own.

Output, in --out-dir: ymap_octunnel_<stem>.h (declarations),
ymap_octunnel_<stem>_parser.cpp (visits, parse_augments, entries, tables),
ymap_octunnel_<stem>_auto.cpp (handlers and hooks) and
ymap_octunnel_<stem>.names (every exported name with its binding).
"""

import argparse
import os
import re
import sys
from dataclasses import dataclass, field

SIG_MAP = ("(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in, "
           "struct vidl_yfw_datatree *out)")
SIG_CONT = ("(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in, "
            "unsigned int subtree_count, struct vidl_yfw_datatree *out)")
# The passing hooks look at nothing but the context.
SIG_HOOK_MAP = "(yfw_map_ctx ctx, const struct vidl_yfw_datatree *, struct vidl_yfw_datatree *)"
SIG_HOOK_CONT = ("(yfw_map_ctx ctx, const struct vidl_yfw_datatree *, unsigned int, "
                 "struct vidl_yfw_datatree *)")

NODE_FORMS = ("container", "list", "leaf")
PATH_OPTIONS = ("path", "cont", "list", "plain", "always", "config", "state")
LEAF_OPTIONS = ("plain", "always", "config", "state", "delegate")


class ModelError(Exception):
    pass


@dataclass
class Node:
    form: str
    tag: str
    line: int
    depth: int
    parent: "Node | None" = None
    level: str = "lvla"
    root: bool = False
    inline: bool = False
    opts: dict = field(default_factory=dict)
    children: list = field(default_factory=list)

    @property
    def top(self):
        n = self
        while n.parent is not None:
            n = n.parent
        return n

    @property
    def schema_path(self):
        steps = []
        n = self
        while n is not None:
            steps.append(n.tag)
            n = n.parent
        return "/" + "/".join(reversed(steps))


@dataclass
class Entry:
    name: str
    accepts: str
    line: int
    target: "Node | None" = None


@dataclass
class Model:
    stem: str = ""
    namespace: str = ""
    operational: bool = False
    augments: str = ""
    defines: dict = field(default_factory=dict)
    entries: list = field(default_factory=list)
    tops: list = field(default_factory=list)

    @property
    def word(self):
        return self.stem.replace("_", "")

    @property
    def prefix(self):
        return f"ymap_vo_octunnel_{self.word}_"


def word(tag):
    return tag.replace("-", "")


def suffix(n):
    top = n.top
    if n is top:
        return f"{n.level}_{word(top.tag)}"
    if n.parent is top:
        return f"{n.level}_{word(top.tag)}_{word(n.tag)}"
    return f"{n.level}_{word(top.tag)}_{word(n.parent.tag)}_{word(n.tag)}"


def expand(model, text, line):
    m = re.match(r"^([A-Za-z]\w*)(/.*)?$", text)
    if m and m.group(1) in model.defines:
        return model.defines[m.group(1)] + (m.group(2) or "")
    if not text.startswith("/"):
        raise ModelError(f"line {line}: '{text}' is neither an absolute path nor a defined one")
    return text


def parse(text):
    model = Model()
    stack = []
    for number, raw in enumerate(text.splitlines(), 1):
        body = raw.split("#", 1)[0].rstrip()
        if not body.strip():
            continue
        indent = len(body) - len(body.lstrip(" "))
        words = body.split()
        head = words[0]
        if indent == 0 and head == "native":
            model.stem = words[1]
        elif indent == 0 and head == "namespace":
            model.namespace = words[1]
        elif indent == 0 and head == "augments":
            model.augments = words[1]
        elif indent == 0 and head == "operational":
            model.operational = True
        elif indent == 0 and head == "define":
            model.defines[words[1]] = words[2]
        elif indent == 0 and head == "entry":
            if len(words) != 4 or words[2] != "accepts":
                raise ModelError(f"line {number}: expected 'entry NAME accepts TAG'")
            model.entries.append(Entry(words[1], words[3], number))
        else:
            node = parse_node(model, words, number, indent)
            while stack and stack[-1].depth >= node.depth:
                stack.pop()
            if node.depth != (stack[-1].depth + 1 if stack else 0):
                raise ModelError(f"line {number}: indentation does not follow the tree")
            if stack:
                if stack[-1].form == "leaf":
                    raise ModelError(f"line {number}: a leaf has no children")
                node.parent = stack[-1]
                stack[-1].children.append(node)
            else:
                model.tops.append(node)
            stack.append(node)
    check(model)
    return model


def parse_node(model, words, number, indent):
    if indent % 2:
        raise ModelError(f"line {number}: indent by two spaces a level")
    flags = []
    while words and words[0] in ("root", "inline"):
        flags.append(words.pop(0))
    if len(words) < 2 or words[0] not in NODE_FORMS:
        raise ModelError(f"line {number}: expected container, list or leaf")
    node = Node(words[0], words[1], number, indent // 2)
    node.root = "root" in flags
    node.inline = "inline" in flags
    rest = words[2:]
    if rest and rest[0].startswith("@"):
        node.level = rest.pop(0)[1:]
        if node.level not in ("lvla", "lvlb", "lvlc", "lvld"):
            raise ModelError(f"line {number}: unknown level '{node.level}'")
    if len(rest) % 2:
        raise ModelError(f"line {number}: options come in pairs")
    for key, value in zip(rest[::2], rest[1::2]):
        if key in node.opts:
            raise ModelError(f"line {number}: '{key}' given twice")
        if key in PATH_OPTIONS:
            value = expand(model, value, number)
        elif key == "keys":
            value = value.split(",")
        elif key != "delegate":
            raise ModelError(f"line {number}: unknown option '{key}'")
        node.opts[key] = value
    return node


def allowed_options(node):
    if node.form == "container":
        return {"cont"}
    if node.form == "list":
        return {"keys", "path", "list"}
    return set(LEAF_OPTIONS)


def check(model):
    if not model.stem or not model.namespace:
        raise ModelError("the description needs 'native STEM' and 'namespace CONST'")
    for n in walk(model):
        extra = set(n.opts) - allowed_options(n)
        if extra:
            raise ModelError(f"line {n.line}: {n.form} takes no {', '.join(sorted(extra))}")
        if (n.root or n.inline) and n.parent is not None:
            raise ModelError(f"line {n.line}: only a top node can be root or inline")
        if n.form == "list" and "path" not in n.opts:
            raise ModelError(f"line {n.line}: a list needs its path")
        if n.form == "leaf":
            o = n.opts
            forms = [bool("plain" in o), bool("delegate" in o), bool("config" in o)]
            if sum(forms) != 1:
                raise ModelError(f"line {n.line}: a leaf is plain, delegate or config")
            if ("always" in o or "state" in o) and "config" not in o:
                raise ModelError(f"line {n.line}: always and state go with config")
    for e in model.entries:
        tops = [t for t in model.tops if t.tag == e.accepts]
        if len(tops) != 1:
            raise ModelError(f"line {e.line}: no single top node '{e.accepts}' for the entry")
        e.target = tops[0]
    for t in model.tops:
        if t.inline and not any(e.target is t for e in model.entries):
            raise ModelError(f"line {t.line}: an inline node needs an entry")
    seen = {}
    for name, _, line in exported_names(model):
        if name in seen:
            raise ModelError(f"line {line}: '{name}' is also the name of line {seen[name]}")
        seen[name] = line


def walk(model):
    def rec(n):
        yield n
        for c in n.children:
            yield from rec(c)

    for t in model.tops:
        yield from rec(t)


def visit_name(model, n):
    return model.prefix + suffix(n)


def handler_name(model, n):
    if n.form == "container":
        return model.prefix + "cont_" + suffix(n) if "cont" in n.opts else None
    if n.form == "list":
        return model.prefix + "list_" + suffix(n) if "list" in n.opts else None
    return model.prefix + "leaf_" + suffix(n)


def hook_name(model, n):
    handler = handler_name(model, n)
    if handler:
        return handler
    return model.prefix + ("duck_map_container" if n.form == "container" else "duck_map_list")


def entry_parse_augments(model, e):
    return model.prefix + e.name.replace("augment_", "", 1) + "_parse_augments"


def exported_names(model):
    """(name, binding, line) of every function the model exports."""
    p = model.prefix
    for hook in ("duck_map_container", "duck_map_list", "duck_map_leaf"):
        yield p + hook, "strong", 0
    for e in model.entries:
        yield p + e.name, "strong", e.line
        yield entry_parse_augments(model, e), "weak", e.line
    for n in walk(model):
        if not n.inline:
            yield visit_name(model, n), "strong" if n.root else "weak", n.line
        if n.form != "leaf":
            yield visit_name(model, n) + "_parse_augments", "weak", n.line
        if handler_name(model, n):
            yield handler_name(model, n), "weak", n.line


def delegates(model):
    return sorted({n.opts["delegate"] for n in walk(model) if "delegate" in n.opts})


def c_string(s):
    return '"' + s + '"' if s is not None else "nullptr"


def banner(model, source):
    return (f"// Generated by tools/ymapgen.py from {source}; do not edit.\n"
            f"// Model {model.stem}, namespace {model.namespace}.\n")


def gen_header(model, source):
    out = [banner(model, source), "#pragma once\n\n", '#include "octunnel/yfw_types.h"\n\n',
           'extern "C" {\n\n']
    for name, _, _ in exported_names(model):
        sig = SIG_CONT if ("_cont_" in name or name.endswith("duck_map_container")) else SIG_MAP
        out.append(f"verrno {name}{sig};\n")
    if delegates(model):
        out.append("\n// Hand-written conversions that handlers of this model delegate to.\n")
        for fn in delegates(model):
            out.append(f"verrno {fn}{SIG_MAP};\n")
    out.append("\n} // extern \"C\"\n")
    return "".join(out)


def function(binding, name, sig, path, body):
    attrs = "YFW_EXPORT" if binding == "strong" else "YFW_EXPORT YFW_WEAK"
    return (f"// {path}\n{attrs} verrno {name}{sig}\n{{\n    YFW_ASSERT_CTX();\n"
            f"    return {body};\n}}\n\n")


def gen_parser(model, source):
    p = model.prefix
    out = [banner(model, source), f'#include "ymap_octunnel_{model.stem}.h"\n',
           '#include "engine/vo_engine.h"\n\n', "namespace {\n",
           f"constexpr vo::model model = {{{model.namespace}, "
           f"{'true' if model.operational else 'false'}}};\n}} // namespace\n\n"]
    for n in walk(model):
        s = suffix(n)
        path = model.augments + n.schema_path
        if n.form != "leaf":
            pa = visit_name(model, n) + "_parse_augments"
            out.append(function("weak", pa, SIG_MAP, path,
                                "vo::default_parse_augments(__func__, ctx, in, out)"))
        keys = "nullptr"
        if n.opts.get("keys"):
            keys = f"keys_{s}"
            out.append(f"static const char *const {keys}[] = {{"
                       + ", ".join(c_string(k) for k in n.opts["keys"]) + "};\n")
        branches = "nullptr"
        if n.children:
            branches = f"branches_{s}"
            out.append(f"static const vo::branch {branches}[] = {{\n")
            for c in n.children:
                out.append(f"    {{{c_string(c.tag)}, vo::form::{c.form}, {visit_name(model, c)}}},\n")
            out.append("};\n")
        fields = [f".name = {c_string(visit_name(model, n))}", ".mdl = &model",
                  f".kind = vo::form::{n.form}"]
        if n.form == "container":
            fields.append(f".cont_hook = {hook_name(model, n)}")
        else:
            fields.append(f".hook = {hook_name(model, n)}")
        if n.form == "list":
            fields += [f".list_path = {c_string(n.opts['path'])}", f".keys = {keys}",
                       f".key_count = {len(n.opts.get('keys', []))}"]
        if n.form != "leaf":
            fields += [f".branches = {branches}", f".branch_count = {len(n.children)}",
                       f".parse_augments = {visit_name(model, n)}_parse_augments"]
        out.append(f"static const vo::node node_{s} = {{\n    "
                   + ",\n    ".join(fields) + ",\n};\n")
        if n.inline:
            out.append("\n")
        else:
            out.append(function("strong" if n.root else "weak", visit_name(model, n), SIG_MAP,
                                path, f"vo::visit(node_{suffix(n)}, ctx, in, out)"))
    for e in model.entries:
        t = e.target
        pa = entry_parse_augments(model, e)
        where = model.augments + t.schema_path
        out.append(function("weak", pa, SIG_MAP, f"{where}, foreign children of the entry",
                            "vo::default_parse_augments(__func__, ctx, in, out)"))
        target = (f".inline_node = &node_{suffix(t)}" if t.inline
                  else f".visit = {visit_name(model, t)}")
        out.append(f"static const vo::entry entry_{e.name} = {{\n"
                   f"    .name = {c_string(p + e.name)},\n    .mdl = &model,\n"
                   f"    .accepts = {c_string(e.accepts)},\n    {target},\n"
                   f"    .parse_augments = {pa},\n}};\n")
        out.append(function("strong", p + e.name, SIG_MAP, f"augment entry for {where}",
                            f"vo::augment_entry(entry_{e.name}, ctx, in, out)"))
    return "".join(out).rstrip("\n") + "\n"


def handler_body(n):
    o = n.opts
    if n.form == "container":
        return f'vo::cont_handler(__func__, ctx, in, subtree_count, out, {c_string(o["cont"])})'
    if n.form == "list":
        return f'vo::list_handler(__func__, ctx, in, out, {c_string(o["list"])})'
    if "plain" in o:
        return f'vo::plain_leaf(__func__, ctx, in, out, {c_string(o["plain"])})'
    if "delegate" in o:
        return f'vo::delegate(__func__, ctx, in, out, {o["delegate"]})'
    return (f'vo::guarded_leaf(__func__, ctx, in, out, {c_string(o.get("always"))}, '
            f'{c_string(o["config"])}, {c_string(o.get("state"))})')


def gen_auto(model, source):
    p = model.prefix
    out = [banner(model, source), f'#include "ymap_octunnel_{model.stem}.h"\n',
           '#include "engine/vo_engine.h"\n\n']
    for hook, sig in (("duck_map_container", SIG_HOOK_CONT), ("duck_map_list", SIG_HOOK_MAP),
                      ("duck_map_leaf", SIG_HOOK_MAP)):
        out.append(function("strong", p + hook, sig, f"default {hook[9:]} hook of the model",
                            "vo::passing_hook(__func__, ctx)"))
    for n in walk(model):
        name = handler_name(model, n)
        if name:
            out.append(function("weak", name, SIG_CONT if n.form == "container" else SIG_MAP,
                                model.augments + n.schema_path, handler_body(n)))
    return "".join(out).rstrip("\n") + "\n"


def gen_names(model):
    return "".join(f"{name} {binding}\n" for name, binding, _ in exported_names(model))


def write_if_changed(path, text):
    try:
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                return
    except FileNotFoundError:
        pass
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    ap.add_argument("description")
    ap.add_argument("--out-dir", required=True)
    args = ap.parse_args()
    source = os.path.relpath(args.description, os.path.dirname(os.path.dirname(__file__)))
    try:
        with open(args.description, encoding="utf-8") as f:
            model = parse(f.read())
    except ModelError as e:
        sys.exit(f"{args.description}: {e}")
    expected = os.path.splitext(os.path.basename(args.description))[0]
    if model.stem != expected:
        sys.exit(f"{args.description}: the model '{model.stem}' belongs in {model.stem}.ymap")
    base = os.path.join(args.out_dir, f"ymap_octunnel_{model.stem}")
    os.makedirs(args.out_dir, exist_ok=True)
    write_if_changed(base + ".h", gen_header(model, source))
    write_if_changed(base + "_parser.cpp", gen_parser(model, source))
    write_if_changed(base + "_auto.cpp", gen_auto(model, source))
    write_if_changed(base + ".names", gen_names(model))


if __name__ == "__main__":
    main()
