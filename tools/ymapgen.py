#!/usr/bin/env python3
"""ymapgen: generates the functions of one model from its description.

A description (src/models/<stem>.ymap) is the model's tree as the walk sees
it, one node a line, indented by two spaces a level.  Its header:

    native valmora_tunnel_gre_cfg        # or: openconfig openconfig_if_tunnel
    namespace NS_VALMORA_TUNNEL_GRE_CFG  # the model's namespace constant
    augments /interface-configurations/interface-configuration  # where tops hang
    operational                          # native only: branches only in a GET
    define T /interfaces/interface/tunnel   # path shorthand, written T/config/ttl
    entry augment_lvla_interface_configuration accepts tunnel-ip

Native models (native-to-OpenConfig).  Node lines are
`[root|inline] container|list|leaf TAG [@lvlX] OPTIONS`; only mapped leaves
are listed, any other child goes the way of an unsupported tag:

    keys K1,K2     list key names, tried in this order
    path P         list path for yfw_map_update_current_list_node
    cont P         container handler cont_...: adds P when the node is empty
    list P         list handler list_...: adds the OpenConfig list entry P
    plain P        leaf: adds P with the native value
    always P       leaf: adds P unconditionally (an OpenConfig list key)
    config P       leaf: adds P when config_or_state_allowed
    state P        leaf: with config, adds P under the same predicate
    delegate F     leaf: the handler calls the hand-written F
    also NAME      the handler is also exported as NAME (a weak alias)
    override R     R (handler, parse_augments or both, comma-separated) is
                   hand-written: see "Overrides" below

Names follow the native grammar: the visit of a node is
ymap_vo_octunnel_<word>_<lvl>_<top>[_<parent>]_<node>, its handler the same
with cont_/list_/leaf_ before the level.  `@lvlb` sets the level letter of a
namesake; `root` exports a top node as a strong root (`registered root`:
the native root that the registration names); `inline` marks a top node
that an entry visits by itself, with no visit function of its own.

Which OpenConfig list instance a native node stands for (for the framework,
which joins the answers of several native models in one OpenConfig entry,
and finds the native entry that an OpenConfig request names):

    instance-of L[K=P+k]   container or list: it names the instance of the
                   OpenConfig list at path L whose key K is the value of its
                   child k (a path below it), with the text P before it when
                   `P+` is given
    fixed K=V      list: its key K has the one value V in every entry

OpenConfig models (OpenConfig-to-native).  Every node of the model is
listed, with its walker's name, as `FORM TAG NAME OPTIONS`, FORM being
container, state (a `state`-form container), list, leaf, key (the list's key
leaf, its first child) or leaf-list:

    cont P NS         container handler: the native container P in NS
    path P            list path for yfw_map_update_current_list_node
    leafref P         list path for yfw_map_check_oc_leafref
    list P NS         list handler: the native list entry P in NS
    config P NS       leaf: a configuration leaf P in NS
    key P NS          key leaf: P in NS, keeping the value on a delete
    state P NS FLAG   leaf: a selection of P in NS in reads, path_flag FLAG
    delegate F        leaf: the handler calls the hand-written F
    duck              leaf: the walker calls the model's duck_map_leaf itself
    override R        as for native models

A leaf without a handler option is refused (a twin of duck_map_leaf).
Containers and lists without a handler have their cont_/list_ names as
aliases of the model's duck hooks (`twin`: a body of the hook's own under
the list's name).  A node is known in a child loop only in a GET when it is
a `state` container or any child of one.  `root` before a top node exports
its walker as a strong model root.  The header line `hooks-only` gives the
model no cont_/list_/leaf_ names at all: every walker calls a duck hook.

    copy NAME...                        # the top walkers NAME... once more,
      augments /interfaces/interface/routed-vlan   # hung elsewhere,
      define LIST /oc-if:.../oc-vlan:routed-vlan  # with their own defines
    entry augment_lvla_routed_vlan accepts ipv4 walker lvlb_ipv4

A copy gives each name of the copied trees the next level letter its stem
has not used (lvla becomes lvlb, or lvlc where the stem already has an
lvlb; lvlb becomes lvld).  An entry names its walker where tags repeat.

Overrides.  `override handler` says that the node's cont_/list_/leaf_
handler is written by hand, `override parse_augments` its parse_augments.
The generator then writes no definition of that name, only its declaration
in the model's header, with protected visibility: a hand-written
definition (YFW_OVERRIDE, in the model's _man_template source) is the only
one, and a missing one stops the module's link.  A generated name that no
row declares stays weak and may still be replaced by a strong definition.

Output, in --out-dir: ymap_octunnel_<stem>.h (declarations),
ymap_octunnel_<stem>_parser.cpp (walkers, parse_augments, entries, tables),
ymap_octunnel_<stem>_auto.cpp (handlers and hooks) and
ymap_octunnel_<stem>.names (every exported name with its binding: weak,
strong, override for a declared override, hand-written for a function
that a handler delegates to).
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
# Hooks that look at nothing but the context.
SIG_HOOK_MAP = "(yfw_map_ctx ctx, const struct vidl_yfw_datatree *, struct vidl_yfw_datatree *)"
SIG_HOOK_CONT = ("(yfw_map_ctx ctx, const struct vidl_yfw_datatree *, unsigned int, "
                 "struct vidl_yfw_datatree *)")

# The OpenConfig container hook checks its arguments but not the count.
SIG_OC_CONT_HOOK = ("(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in, unsigned int, "
                    "struct vidl_yfw_datatree *out)")

NATIVE_FORMS = ("container", "list", "leaf")
NATIVE_PATHS = ("path", "cont", "list", "plain", "always", "config", "state")
NATIVE_LEAF = ("plain", "always", "config", "state", "delegate")

OC_FORMS = ("container", "state", "list", "leaf", "key", "leaf-list")
# option -> (number of arguments, which of them are paths)
OC_OPTIONS = {"cont": (2, (0,)), "path": (1, (0,)), "leafref": (1, (0,)), "list": (2, (0,)),
              "config": (2, (0,)), "key": (2, (0,)), "state": (3, (0,)), "delegate": (1, ()),
              "duck": (0, ()), "twin": (0, ()), "override": (1, ())}
OC_ALLOWED = {"container": {"cont", "override"}, "state": {"cont", "override"},
              "list": {"path", "leafref", "list", "twin", "override"},
              "leaf": {"config", "state", "delegate", "duck", "override"},
              "key": {"key", "delegate", "duck", "override"},
              "leaf-list": {"delegate", "duck", "override"}}
# What a row may declare hand-written.
OVERRIDABLE = ("handler", "parse_augments")


class ModelError(Exception):
    pass


# The header lines and the words they take.
HEADER_WORDS = {"native": ("STEM",), "openconfig": ("STEM",), "namespace": ("CONST",),
                "augments": ("PATH",), "operational": (), "hooks-only": (),
                "define": ("NAME", "VALUE")}


@dataclass
class Node:
    form: str
    tag: str
    line: int
    depth: int
    parent: "Node | None" = None
    name: str = ""      # OpenConfig: the walker's suffix as written
    level: str = "lvla"
    base: str = ""      # OpenConfig copies: where the top hangs
    defines: dict = field(default_factory=dict)  # OpenConfig copies: their own
    root: bool = False
    registered: bool = False
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
    walker: str = ""
    target: "Node | None" = None


@dataclass
class Copy:
    names: list
    line: int
    augments: str = ""
    defines: dict = field(default_factory=dict)


@dataclass
class Model:
    kind: str = ""  # native | openconfig
    stem: str = ""
    namespace: str = ""
    augments: str = ""
    operational: bool = False
    hooks_only: bool = False
    defines: dict = field(default_factory=dict)
    entries: list = field(default_factory=list)
    copies: list = field(default_factory=list)
    tops: list = field(default_factory=list)

    @property
    def word(self):
        return self.stem.replace("_", "")

    @property
    def prefix(self):
        direction = "vo" if self.kind == "native" else "ov"
        return f"ymap_{direction}_octunnel_{self.word}_"

    def path(self, n):
        return (n.top.base or self.augments) + n.schema_path


def word(tag):
    return tag.replace("-", "")


def expand(model, text, line):
    m = re.match(r"^([A-Za-z]\w*)(/.*)?$", text)
    if m and m.group(1) in model.defines:
        return model.defines[m.group(1)] + (m.group(2) or "")
    if not text.startswith("/"):
        raise ModelError(f"line {line}: '{text}' is neither an absolute path nor a defined one")
    return text


# ---------------------------------------------------------------- reading

def parse(text):
    model = Model()
    stack = []
    copy = None
    for number, raw in enumerate(text.splitlines(), 1):
        body = raw.split("#", 1)[0].rstrip()
        if not body.strip():
            continue
        indent = len(body) - len(body.lstrip(" "))
        words = body.split()
        head = words[0]
        if indent == 0:
            copy = None
        if copy is not None:
            if head == "augments" and len(words) == 2:
                copy.augments = words[1]
            elif head == "define" and len(words) == 3:
                copy.defines[words[1]] = words[2]
            else:
                raise ModelError(f"line {number}: a copy takes 'augments PATH' and 'define NAME VALUE'")
            continue
        if indent == 0 and head in HEADER_WORDS and len(words) != 1 + len(HEADER_WORDS[head]):
            takes = " ".join(HEADER_WORDS[head]) or "nothing more"
            raise ModelError(f"line {number}: '{head}' takes {takes}")
        if indent == 0 and head == "copy":
            if len(words) < 2:
                raise ModelError(f"line {number}: 'copy' takes the names of top walkers")
            copy = Copy(words[1:], number)
            model.copies.append(copy)
            stack = []
        elif indent == 0 and head == "hooks-only":
            model.hooks_only = True
        elif indent == 0 and head in ("native", "openconfig"):
            model.kind, model.stem = head, words[1]
        elif indent == 0 and head == "namespace":
            model.namespace = words[1]
        elif indent == 0 and head == "augments":
            model.augments = words[1]
        elif indent == 0 and head == "operational":
            model.operational = True
        elif indent == 0 and head == "define":
            model.defines[words[1]] = words[2]
        elif indent == 0 and head == "entry":
            if len(words) not in (4, 6) or words[2] != "accepts" or (
                    len(words) == 6 and words[4] != "walker"):
                raise ModelError(f"line {number}: expected 'entry NAME accepts TAG [walker NAME]'")
            model.entries.append(Entry(words[1], words[3], number,
                                       words[5] if len(words) == 6 else ""))
        else:
            if not model.kind:
                raise ModelError(f"line {number}: the description starts with native or openconfig")
            if indent % 2:
                raise ModelError(f"line {number}: indent by two spaces a level")
            node = (parse_native if model.kind == "native" else parse_oc)(model, words, number)
            node.depth = indent // 2
            while stack and stack[-1].depth >= node.depth:
                stack.pop()
            if node.depth != (stack[-1].depth + 1 if stack else 0):
                raise ModelError(f"line {number}: indentation does not follow the tree")
            if stack:
                if stack[-1].form in ("leaf", "key", "leaf-list"):
                    raise ModelError(f"line {number}: a leaf has no children")
                node.parent = stack[-1]
                stack[-1].children.append(node)
            else:
                model.tops.append(node)
            stack.append(node)
    if model.kind == "openconfig":
        make_copies(model)
        expand_oc(model)
    check(model)
    return model


def parse_native(model, words, number):
    flags = []
    while words and words[0] in ("registered", "root", "inline"):
        flags.append(words.pop(0))
    if len(words) < 2 or words[0] not in NATIVE_FORMS:
        raise ModelError(f"line {number}: expected container, list or leaf")
    if "registered" in flags and "root" not in flags:
        raise ModelError(f"line {number}: only a root is registered")
    node = Node(words[0], words[1], number, 0)
    node.root = "root" in flags
    node.registered = "registered" in flags
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
        if key in NATIVE_PATHS:
            value = expand(model, value, number)
        elif key == "keys":
            value = value.split(",")
        elif key == "override":
            value = parse_override(value, number)
        elif key == "instance-of":
            value = parse_instance_of(model, value, number)
        elif key == "fixed":
            if not re.match(r"^[\w-]+=[^=]+$", value):
                raise ModelError(f"line {number}: expected 'fixed KEY=VALUE'")
            value = tuple(value.split("=", 1))
        elif key not in ("delegate", "also"):
            raise ModelError(f"line {number}: unknown option '{key}'")
        node.opts[key] = value
    return node


def parse_oc(model, words, number):
    root = bool(words) and words[0] == "root"
    if root:
        words = words[1:]
    if len(words) < 3 or words[0] not in OC_FORMS:
        raise ModelError(f"line {number}: expected FORM TAG NAME, FORM one of {', '.join(OC_FORMS)}")
    node = Node(words[0], words[1], number, 0, name=words[2], root=root)
    if not re.match(r"^lvl[a-d]_\w+$", node.name):
        raise ModelError(f"line {number}: '{node.name}' is not a walker name (lvlX_...)")
    rest = words[3:]
    while rest:
        key = rest.pop(0)
        if key not in OC_OPTIONS:
            raise ModelError(f"line {number}: unknown option '{key}'")
        if key in node.opts:
            raise ModelError(f"line {number}: '{key}' given twice")
        count, paths = OC_OPTIONS[key]
        if len(rest) < count:
            raise ModelError(f"line {number}: '{key}' takes {count} "
                             f"value{'s' if count != 1 else ''}")
        node.opts[key] = [rest.pop(0) for _ in range(count)]
    if "override" in node.opts:
        node.opts["override"] = parse_override(node.opts["override"][0], number)
    return node


@dataclass
class InstanceOf:
    oc_list: str   # path of the OpenConfig list
    oc_key: str    # its key
    prefix: str    # text before the native value
    key_path: str  # below the native node


def parse_instance_of(model, text, number):
    m = re.match(r"^([^\[\]]+)\[([\w-]+)=(?:([\w.-]+)\+)?([\w-]+(?:/[\w-]+)?)\]$", text)
    if not m:
        raise ModelError(f"line {number}: expected 'instance-of LIST[KEY=CHILD]' or "
                         f"'instance-of LIST[KEY=PREFIX+CHILD]'")
    return InstanceOf(expand(model, m.group(1), number), m.group(2), m.group(3) or "",
                      m.group(4))


def parse_override(text, number):
    roles = text.split(",")
    for r in roles:
        if r not in OVERRIDABLE:
            raise ModelError(f"line {number}: override takes handler and parse_augments, not '{r}'")
    if len(set(roles)) != len(roles):
        raise ModelError(f"line {number}: '{text}' names a role twice")
    return roles


def next_level_names(model):
    """Each walker name of the model's trees, moved to the next level letter
    that its stem has not used: the name it takes in a copy."""
    used = {}
    for n in walk(model):
        level, stem = n.name.split("_", 1)
        used.setdefault(stem, set()).add(level)
    moved = {}
    for n in walk(model):
        level, stem = n.name.split("_", 1)
        letter = chr(ord(level[3]) + len(used[stem]))
        moved[n.name] = f"lvl{letter}_{stem}" if letter <= "d" else None
    return moved


def clone(node, parent, moved):
    if moved[node.name] is None:
        raise ModelError(f"line {node.line}: no level letter left for a copy of {node.name}")
    c = Node(node.form, node.tag, node.line, node.depth, parent, moved[node.name],
             opts={k: list(v) for k, v in node.opts.items()})
    c.children = [clone(k, c, moved) for k in node.children]
    return c


def make_copies(model):
    if not model.copies:
        return
    moved = next_level_names(model)
    for copy in model.copies:
        for name in copy.names:
            tops = [t for t in model.tops if t.name == name]
            if len(tops) != 1:
                raise ModelError(f"line {copy.line}: no top walker '{name}' to copy")
            c = clone(tops[0], None, moved)
            c.base = copy.augments
            c.defines = copy.defines
            model.tops.append(c)


def expand_oc(model):
    """Paths and namespaces of the options, with the defines of the node's
    copy before the model's."""
    for n in walk(model):
        saved = model.defines
        model.defines = {**saved, **n.top.defines}
        for key, values in n.opts.items():
            _, paths = OC_OPTIONS[key]
            for i, v in enumerate(values):
                values[i] = expand(model, v, n.line) if i in paths else model.defines.get(v, v)
        model.defines = saved


def check(model):
    if not model.stem or not model.namespace:
        raise ModelError("the description needs its kind and stem, and 'namespace CONST'")
    if model.kind == "native":
        check_native(model)
    else:
        check_oc(model)
    check_overrides(model)
    for e in model.entries:
        tops = [t for t in model.tops
                if t.tag == e.accepts and (not e.walker or t.name == e.walker)]
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


def check_native(model):
    allowed = {"container": {"cont", "override", "instance-of"},
               "list": {"keys", "path", "list", "override", "instance-of", "fixed"},
               "leaf": set(NATIVE_LEAF) | {"also", "override"}}
    for n in walk(model):
        extra = set(n.opts) - allowed[n.form]
        if extra:
            raise ModelError(f"line {n.line}: {n.form} takes no {', '.join(sorted(extra))}")
        if (n.root or n.inline) and n.parent is not None:
            raise ModelError(f"line {n.line}: only a top node can be root or inline")
        if n.form == "list" and "path" not in n.opts:
            raise ModelError(f"line {n.line}: a list needs its path")
        if "fixed" in n.opts:
            if "instance-of" not in n.opts:
                raise ModelError(f"line {n.line}: a fixed key goes with instance-of")
            if n.opts["fixed"][0] not in n.opts.get("keys", []):
                raise ModelError(f"line {n.line}: '{n.opts['fixed'][0]}' is not a key of the list")
        if n.form == "leaf":
            o = n.opts
            if sum(("plain" in o, "delegate" in o, "config" in o, overrides(n, "handler"))) != 1:
                raise ModelError(f"line {n.line}: a leaf is plain, delegate, config or overridden")
            if ("always" in o or "state" in o) and "config" not in o:
                raise ModelError(f"line {n.line}: always and state go with config")


def check_oc(model):
    for n in walk(model):
        extra = set(n.opts) - OC_ALLOWED[n.form]
        if extra:
            raise ModelError(f"line {n.line}: {n.form} takes no {', '.join(sorted(extra))}")
        handlers = [k for k in ("config", "key", "state", "delegate", "duck") if k in n.opts]
        if len(handlers) > 1:
            raise ModelError(f"line {n.line}: a leaf has one handler")
        if n.form == "list":
            if "path" not in n.opts or "leafref" not in n.opts:
                raise ModelError(f"line {n.line}: a list needs its path and leafref")
            if not n.children or n.children[0].form != "key":
                raise ModelError(f"line {n.line}: a list's first child is its key")
            if any(c.form == "key" for c in n.children[1:]):
                raise ModelError(f"line {n.line}: a list has one key")
        elif n.form == "key" and (n.parent is None or n.parent.form != "list"):
            raise ModelError(f"line {n.line}: a key leaf stands in a list")
        if n.parent is None and n.form in ("leaf", "key", "leaf-list"):
            raise ModelError(f"line {n.line}: a top node is a container or list")


# Options that make a generated handler: an overridden handler has none.
GENERATED_HANDLER = ("cont", "list", "plain", "always", "config", "state", "delegate", "key",
                     "duck", "twin", "also")


def overrides(n, role):
    return role in n.opts.get("override", ())


def check_overrides(model):
    for n in walk(model):
        if overrides(n, "parse_augments") and is_leaf(n):
            raise ModelError(f"line {n.line}: a leaf has no parse_augments")
        if not overrides(n, "handler"):
            continue
        if model.kind == "openconfig" and model.hooks_only:
            raise ModelError(f"line {n.line}: a hooks-only model has no handlers to override")
        made = [k for k in GENERATED_HANDLER if k in n.opts]
        if made:
            raise ModelError(f"line {n.line}: an overridden handler is not also generated "
                             f"({', '.join(made)})")


def walk(model):
    def rec(n):
        yield n
        for c in n.children:
            yield from rec(c)

    for t in model.tops:
        yield from rec(t)


# ---------------------------------------------------------------- names

def suffix(model, n):
    if model.kind == "openconfig":
        return n.name
    top = n.top
    if n is top:
        return f"{n.level}_{word(top.tag)}"
    if n.parent is top:
        return f"{n.level}_{word(top.tag)}_{word(n.tag)}"
    return f"{n.level}_{word(top.tag)}_{word(n.parent.tag)}_{word(n.tag)}"


def walker_name(model, n):
    return model.prefix + suffix(model, n)


def is_leaf(n):
    return n.form in ("leaf", "key", "leaf-list")


def role(n):
    if is_leaf(n):
        return "leaf_"
    return "list_" if n.form == "list" else "cont_"


def handler_name(model, n):
    """The node's cont_/list_/leaf_ name, or None where it has none."""
    if model.kind == "native" and not overrides(n, "handler"):
        if n.form == "container" and "cont" not in n.opts:
            return None
        if n.form == "list" and "list" not in n.opts:
            return None
    elif model.hooks_only:
        return None
    return model.prefix + role(n) + suffix(model, n)


def native_hook(model, n):
    return handler_name(model, n) or model.prefix + (
        "duck_map_container" if n.form == "container" else "duck_map_list")


def entry_parse_augments(model, e):
    return model.prefix + e.name.replace("augment_", "", 1) + "_parse_augments"


def exported_names(model):
    """(name, binding, line) of every function the model exports: weak,
    strong, or override (written by hand in place of a generated one)."""
    p = model.prefix
    for hook in ("duck_map_container", "duck_map_list", "duck_map_leaf"):
        yield p + hook, "strong", 0
    for e in model.entries:
        yield p + e.name, "strong", e.line
        yield entry_parse_augments(model, e), "weak", e.line
    for n in walk(model):
        if not n.inline:
            yield walker_name(model, n), "strong" if n.root else "weak", n.line
        if not is_leaf(n):
            yield (walker_name(model, n) + "_parse_augments",
                   "override" if overrides(n, "parse_augments") else "weak", n.line)
        if handler_name(model, n):
            yield (handler_name(model, n), "override" if overrides(n, "handler") else "weak",
                   n.line)
        if "also" in n.opts:
            yield model.prefix + n.opts["also"], "weak", n.line


def delegates(model):
    return sorted({n.opts["delegate"] if model.kind == "native" else n.opts["delegate"][0]
                   for n in walk(model) if "delegate" in n.opts})


# ---------------------------------------------------------------- writing

def c_string(s):
    return '"' + s + '"' if s is not None else "nullptr"


def banner(model, source):
    return (f"// Generated by tools/ymapgen.py from {source}; do not edit.\n"
            f"// Model {model.stem}, namespace {model.namespace}.\n")


def is_cont_sig(model, name):
    return name.endswith("duck_map_container") or name.startswith(model.prefix + "cont_")


def gen_header(model, source):
    out = [banner(model, source), "#pragma once\n\n", '#include "octunnel/yfw_types.h"\n\n',
           'extern "C" {\n\n']
    for name, binding, _ in exported_names(model):
        sig = SIG_CONT if is_cont_sig(model, name) else SIG_MAP
        if binding == "override":
            out.append(f"// Hand-written (override): protected, so that a missing definition\n"
                       f"// stops the link.\n"
                       f"__attribute__((visibility(\"protected\"))) verrno {name}{sig};\n")
        else:
            out.append(f"verrno {name}{sig};\n")
    if delegates(model):
        out.append("\n// Hand-written functions that handlers of this model call.\n")
        for fn in delegates(model):
            out.append(f"verrno {fn}{SIG_MAP};\n")
    out.append("\n} // extern \"C\"\n")
    return "".join(out)


def function(binding, name, sig, path, body):
    attrs = "YFW_EXPORT" if binding == "strong" else "YFW_EXPORT YFW_WEAK"
    return (f"// {path}\n{attrs} verrno {name}{sig}\n{{\n    YFW_ASSERT_CTX();\n"
            f"    return {body};\n}}\n\n")


def alias(name, sig, target, path):
    return (f"// {path}\nYFW_EXPORT verrno {name}{sig}\n"
            f"    __attribute__((weak, alias(\"{target}\")));\n\n")


def record(type_name, var, fields):
    return f"static const {type_name} {var} = {{\n    " + ",\n    ".join(fields) + ",\n};\n"


def default_parse_augments_call(engine):
    # Native: the foreign child is dropped.  OpenConfig: it fails an adding request.
    if engine == "vo":
        return "yfw::pass(__func__, ctx, in, out)"
    return "ov::default_parse_augments(__func__, ctx, in, out)"


def parse_augments_fn(model, n, engine):
    name = walker_name(model, n) + "_parse_augments"
    if overrides(n, "parse_augments"):
        return hand_written(name, model.path(n) + ", children of other models")
    return function("weak", name, SIG_MAP, model.path(n), default_parse_augments_call(engine))


def hand_written(name, path):
    return f"// {path}: {name} is hand-written.\n\n"


def gen_parser(model, source):
    engine = "vo" if model.kind == "native" else "ov"
    out = [banner(model, source), f'#include "ymap_octunnel_{model.stem}.h"\n',
           f'#include "engine/{engine}_engine.h"\n\n', "namespace {\n"]
    if model.kind == "native":
        out.append(f"constexpr vo::model model = {{{model.namespace}, "
                   f"{'true' if model.operational else 'false'}}};\n")
    else:
        out.append(f"constexpr ov::model model = {{{model.namespace}}};\n")
    out.append("} // namespace\n\n")
    for n in walk(model):
        if model.kind == "native":
            out.append(native_walker(model, n))
        else:
            out.append(oc_walker(model, n))
    for e in model.entries:
        out.append(entry_code(model, e, engine))
    return "".join(out).rstrip("\n") + "\n"


def native_walker(model, n):
    s = suffix(model, n)
    out = []
    if n.form != "leaf":
        out.append(parse_augments_fn(model, n, "vo"))
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
            out.append(f"    {{{c_string(c.tag)}, vo::form::{c.form}, {walker_name(model, c)}}},\n")
        out.append("};\n")
    fields = [f".name = {c_string(walker_name(model, n))}", ".mdl = &model",
              f".kind = vo::form::{n.form}"]
    if n.form == "container":
        fields.append(f".cont_hook = {native_hook(model, n)}")
    elif n.form == "list":
        fields.append(f".hook = {native_hook(model, n)}")
    else:
        fields.append(f".hook = {handler_name(model, n)}")
    if n.form == "list":
        fields += [f".list_path = {c_string(n.opts['path'])}", f".keys = {keys}",
                   f".key_count = {len(n.opts.get('keys', []))}"]
    if n.form != "leaf":
        fields += [f".branches = {branches}", f".branch_count = {len(n.children)}",
                   f".parse_augments = {walker_name(model, n)}_parse_augments"]
    out.append(record("vo::node", f"node_{s}", fields))
    if n.inline:
        out.append("\n")
    else:
        out.append(function("strong" if n.root else "weak", walker_name(model, n), SIG_MAP,
                            model.path(n), f"vo::visit(node_{s}, ctx, in, out)"))
    return "".join(out)


def gated(parent, child):
    return parent.form == "state" or child.form == "state"


def oc_walker(model, n):
    s = suffix(model, n)
    name = walker_name(model, n)
    out = []
    binding = "strong" if n.root else "weak"
    if is_leaf(n):
        form = {"leaf": "ordinary", "key": "key", "leaf-list": "leaf_list"}[n.form]
        handler = oc_hook(model, n)
        out.append(record("ov::leaf", f"walker_{s}",
                          [f".name = {c_string(name)}", f".form = ov::leaf_form::{form}",
                           f".handler = {handler}"]))
        out.append(function(binding, name, SIG_MAP, model.path(n), f"ov::walk(walker_{s}, ctx, in, out)"))
        return "".join(out)
    out.append(parse_augments_fn(model, n, "ov"))
    children = [c for c in n.children if c.form != "key"]
    table = "nullptr"
    if children:
        table = f"children_{s}"
        out.append(f"static const ov::child {table}[] = {{\n")
        for c in children:
            out.append(f"    {{{c_string(c.tag)}, {walker_name(model, c)}, "
                       f"{'true' if gated(n, c) else 'false'}}},\n")
        out.append("};\n")
    fields = [f".name = {c_string(name)}", ".mdl = &model"]
    if n.form == "list":
        key = n.children[0]
        fields += [f".key_tag = {c_string(key.tag)}", f".key_fn = {walker_name(model, key)}",
                   f".children = {table}", f".child_count = {len(children)}",
                   f".list_path = {c_string(n.opts['path'][0])}",
                   f".leafref_path = {c_string(n.opts['leafref'][0])}",
                   f".hook = {oc_hook(model, n)}"]
        type_name = "ov::list"
    else:
        fields += [f".state_form = {'true' if n.form == 'state' else 'false'}",
                   f".hook = {oc_hook(model, n)}", f".children = {table}",
                   f".child_count = {len(children)}"]
        type_name = "ov::container"
    fields.append(f".parse_augments = {name}_parse_augments")
    out.append(record(type_name, f"walker_{s}", fields))
    out.append(function(binding, name, SIG_MAP, model.path(n), f"ov::walk(walker_{s}, ctx, in, out)"))
    return "".join(out)


def oc_hook(model, n):
    """What an OpenConfig walker calls: its own handler name, or a duck hook
    where the node has none or the leaf calls duck_map_leaf itself."""
    if "duck" in n.opts or handler_name(model, n) is None:
        hook = {"container": "duck_map_container", "state": "duck_map_container",
                "list": "duck_map_list"}.get(n.form, "duck_map_leaf")
        return model.prefix + hook
    return handler_name(model, n)


def entry_code(model, e, engine):
    p = model.prefix
    t = e.target
    where = model.path(t)
    pa = entry_parse_augments(model, e)
    out = [function("weak", pa, SIG_MAP, f"{where}, foreign children of the entry",
                    default_parse_augments_call(engine))]
    if engine == "vo":
        target = (f".inline_node = &node_{suffix(model, t)}" if t.inline
                  else f".visit = {walker_name(model, t)}")
        out.append(record("vo::entry", f"entry_{e.name}",
                          [f".name = {c_string(p + e.name)}", ".mdl = &model",
                           f".accepts = {c_string(e.accepts)}", target,
                           f".parse_augments = {pa}"]))
    else:
        out.append(record("ov::entry", f"entry_{e.name}",
                          [f".name = {c_string(p + e.name)}", ".mdl = &model",
                           f".accepts = {c_string(e.accepts)}",
                           f".walker = {walker_name(model, t)}", f".parse_augments = {pa}"]))
    out.append(function("strong", p + e.name, SIG_MAP, f"augment entry for {where}",
                        f"{engine}::augment_entry(entry_{e.name}, ctx, in, out)"))
    return "".join(out)


def native_handler_body(n):
    o = n.opts
    if n.form == "container":
        return f'vo::cont_handler(__func__, ctx, in, subtree_count, out, {c_string(o["cont"])})'
    if n.form == "list":
        return f'vo::list_handler(__func__, ctx, in, out, {c_string(o["list"])})'
    if "plain" in o:
        return f'vo::plain_leaf(__func__, ctx, in, out, {c_string(o["plain"])})'
    if "delegate" in o:
        return f'yfw::delegate(__func__, ctx, in, out, {o["delegate"]})'
    return (f'vo::guarded_leaf(__func__, ctx, in, out, {c_string(o.get("always"))}, '
            f'{c_string(o["config"])}, {c_string(o.get("state"))})')


def oc_handler_body(n):
    o = n.opts
    if "cont" in o:
        path, ns = o["cont"]
        return f"ov::cont_handler(__func__, ctx, in, subtree_count, out, {c_string(path)}, {ns})"
    if "list" in o:
        path, ns = o["list"]
        return f"ov::list_handler(__func__, ctx, in, out, {c_string(path)}, {ns})"
    if "config" in o:
        path, ns = o["config"]
        return f"ov::config_leaf(__func__, ctx, in, out, {c_string(path)}, {ns})"
    if "key" in o:
        path, ns = o["key"]
        return f"ov::key_leaf(__func__, ctx, in, out, {c_string(path)}, {ns})"
    if "state" in o:
        path, ns, flag = o["state"]
        return f"ov::state_leaf(__func__, ctx, in, out, {c_string(path)}, {ns}, {flag})"
    if "delegate" in o:
        return f"yfw::delegate(__func__, ctx, in, out, {o['delegate'][0]})"
    return "ov::refuse_leaf(__func__, ctx, in, out)"


def gen_auto(model, source):
    p = model.prefix
    engine = "vo" if model.kind == "native" else "ov"
    out = [banner(model, source), f'#include "ymap_octunnel_{model.stem}.h"\n',
           f'#include "engine/{engine}_engine.h"\n\n']
    if model.kind == "native":
        hooks = (("duck_map_container", SIG_HOOK_CONT, "yfw::end_only(__func__, ctx)"),
                 ("duck_map_list", SIG_HOOK_MAP, "yfw::end_only(__func__, ctx)"),
                 ("duck_map_leaf", SIG_HOOK_MAP, "yfw::end_only(__func__, ctx)"))
    else:
        hooks = (("duck_map_container", SIG_OC_CONT_HOOK,
                  "yfw::pass(__func__, ctx, in, out)"),
                 ("duck_map_list", SIG_HOOK_MAP, "yfw::end_only(__func__, ctx)"),
                 ("duck_map_leaf", SIG_MAP, "ov::refuse_leaf(__func__, ctx, in, out)"))
    for hook, sig, body in hooks:
        out.append(function("strong", p + hook, sig, f"default {hook[9:]} hook of the model", body))
    for n in walk(model):
        name = handler_name(model, n)
        if not name:
            continue
        sig = SIG_CONT if n.form in ("container", "state") else SIG_MAP
        if overrides(n, "handler"):
            out.append(hand_written(name, model.path(n)))
        elif model.kind == "native":
            out.append(function("weak", name, sig, model.path(n), native_handler_body(n)))
            if "also" in n.opts:
                out.append(alias(p + n.opts["also"], sig, name, model.path(n)))
        elif n.form in ("container", "state") and "cont" not in n.opts:
            out.append(alias(name, sig, p + "duck_map_container", model.path(n)))
        elif n.form == "list" and "twin" in n.opts:
            out.append(function("weak", name, SIG_HOOK_MAP, model.path(n),
                                "yfw::end_only(__func__, ctx)"))
        elif n.form == "list" and "list" not in n.opts:
            out.append(alias(name, sig, p + "duck_map_list", model.path(n)))
        elif is_leaf(n) and "duck" in n.opts:
            out.append(alias(name, sig, p + "duck_map_leaf", model.path(n)))
        else:
            out.append(function("weak", name, sig, model.path(n), oc_handler_body(n)))
    return "".join(out).rstrip("\n") + "\n"


def gen_names(model):
    names = [f"{name} {binding}\n" for name, binding, _ in exported_names(model)]
    names += [f"{fn} hand-written\n" for fn in delegates(model)]
    return "".join(names)


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
