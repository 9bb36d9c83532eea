"""<edit-config> over ncclient held to RFC 6241 by random edits: the rules of
tests/unit/edit_property_test.cpp, shorter, end to end.  Each edit (under a
random default operation, test option and error option) is answered as a
small model of the configuration <get-config> shows says, leaves that
configuration as the model does, and, refused or only tested, leaves the
configuration and its file as they were."""

import os
import random

from ncclient.operations.rpc import RPCError

from harness import NC, TUN, Agent, leaves, read
from payloads import OC

UNKNOWN = "urn:example:nothing-served"
OPS = ["merge", "replace", "create", "remove", "delete"]


def node(name, kind, kids=(), type_=None, held=False):
    return {"name": name, "kind": kind, "kids": list(kids), "type": type_, "held": held}


def leaf(name, type_, held=False):
    return node(name, "leaf", type_=type_, held=held)


def box(name, *kids):
    return node(name, "container", kids)


def address(ip, prefix):
    return node("address", "list", [leaf("ip", ip, True), box(
        "config", leaf("ip", ip, True), leaf("prefix-length", prefix, True))])


TUNNEL = box("tunnel",
             box("config", leaf("src", "ip", True), leaf("dst", "ip", True),
                 leaf("ttl", "ttl", True), leaf("gre-key", "u32", True)),
             box("ipv4", box("addresses", address("ipv4", "plen4")),
                 box("config", leaf("enabled", "boolean"))),
             box("ipv6", box("addresses", address("ipv6", "plen6")),
                 box("config", leaf("enabled", "boolean", True), leaf("mtu", "mtu6", True),
                     leaf("dup-addr-detect-transmits", "u32"))))
TUNNEL["ns"] = TUN
INTERFACES = box("interfaces", node("interface", "list", [
    leaf("name", "text", True), box("config", leaf("description", "text")),
    box("hold-time", box("config", leaf("up", "u32"))), TUNNEL]))
INTERFACES["ns"] = OC


def link(s, up=None):
    s["up"] = up
    for k in s["kids"]:
        link(k, s)


link(INTERFACES)

# Values that fit and values that do not, of each type.
VALUES = {
    "ip": (["192.0.2.1", "198.51.100.7", "2001:db8::1"], ["192.0.2.256", "tunnel"]),
    "ipv4": (["192.0.2.1", "192.0.2.2", "192.0.2.3"], ["1.2.3"]),
    "ipv6": (["2001:db8::1", "2001:db8::2"], ["2001:db8:::1"]),
    "ttl": (["1", "64", "255"], ["0", "256"]),
    "u32": (["0", "1001", "4294967295"], ["4294967296", "k"]),
    "plen4": (["0", "24", "32"], ["33"]),
    "plen6": (["0", "64", "128"], ["129"]),
    "mtu6": (["1280", "9000"], ["1279"]),
    "boolean": (["true", "false"], ["yes"]),
    "text": (["tunnel-ip1", "tunnel-ip2", "tunnel-ip3"], []),
}


def fits(type_, value):
    return type_ == "text" or value in VALUES[type_][0]


def leads_to_held(s):
    return s["held"] or any(leads_to_held(k) for k in s["kids"])


# ---------------------------------------------------------------- edits
# An edit node: {"s": schema or None, "name", "ns" (of an element the models
# do not have), "op", "value", "kids"}; an entry's key is its first kid.

def key(e):
    s = e["s"]
    if s and s["kind"] == "list" and e["kids"] and e["kids"][0]["s"] is s["kids"][0]:
        return e["kids"][0]
    return None


def ident(e):
    k = key(e)
    return e["s"]["name"] + (f"[{k['value']}]" if k else "")


def write(e, parent_ns=""):
    s = e["s"]
    name = s["name"] if s else e["name"]
    ns = (s.get("ns", parent_ns) if s else e["ns"])
    out = f"<{name}" + (f' xmlns="{ns}"' if ns != parent_ns else "")
    out += f' nc:operation="{e["op"]}"' if e["op"] else ""
    if not e["kids"] and not e["value"]:
        return out + "/>"
    return out + ">" + e["value"] + "".join(write(k, ns) for k in e["kids"]) + f"</{name}>"


class Generator:
    def __init__(self, rng):
        self.rng = rng

    def op(self, p):
        return self.rng.choice(OPS) if self.rng.random() < p else None

    def node(self, s, inherited, p_op):
        e = {"s": s, "op": self.op(p_op), "value": "", "kids": []}
        eff = e["op"] or inherited
        if s["kind"] == "leaf":
            takes = eff in ("delete", "remove")
            e["value"] = "" if takes and self.rng.random() < 0.5 else \
                self.rng.choice(VALUES[s["type"]][0])
            return e
        if eff in ("delete", "remove") and self.rng.random() > 0.2:
            return e
        for k in s["kids"][1 if s["kind"] == "list" else 0:]:
            held = leads_to_held(k)
            if k["kind"] == "list":
                for name in self.rng.sample(VALUES[k["kids"][0]["type"]][0],
                                            self.rng.choice([0, 1, 1, 2])):
                    e["kids"].append(self.entry(k, name, eff))
            elif self.rng.random() < (0.55 if held else 0.05):
                e["kids"].append(self.node(k, eff, 0.3 if k["kind"] == "leaf" else 0.12))
        return e

    def entry(self, s, name, inherited):
        e = self.node(s, inherited, 0.15)
        e["kids"].insert(0, {"s": s["kids"][0], "op": None, "value": name, "kids": []})
        for c in e["kids"]:
            for ip in c["kids"] if c["s"]["name"] == "config" and s["name"] == "address" else []:
                if ip["s"]["name"] == "ip" and ip["value"] and self.rng.random() < 0.9:
                    ip["value"] = name
        return e

    def edit(self, top_op):
        if top_op == "replace" and self.rng.random() < 0.05:
            return []
        top = [self.node(INTERFACES, top_op, 0.1)]
        if self.rng.random() < 0.25:
            self.spoil(top)
        return top

    def spoil(self, top):
        """One fault of the edit's own."""
        nodes = []

        def collect(e):
            nodes.append(e)
            for k in e["kids"]:
                collect(k)
        for e in top:
            collect(e)
        e = self.rng.choice(nodes)
        kind = self.rng.randrange(4)
        if kind == 0 and e["s"]["kind"] != "leaf":
            ns = UNKNOWN if self.rng.random() < 0.5 else e["s"].get("ns", TUN)
            e["kids"].append({"s": None, "name": "bogus", "ns": ns, "op": None, "value": "",
                              "kids": []})
        elif kind == 1 and key(e):
            del e["kids"][0]
        elif kind == 2 and e["s"]["kind"] == "leaf" and VALUES[e["s"]["type"]][1]:
            e["value"] = self.rng.choice(VALUES[e["s"]["type"]][1])
        elif kind == 3 and key(e):
            e["kids"][0]["op"] = self.rng.choice(["delete", "remove"])


# ---------------------------------------------------------------- the model
# Data: {"s", "value", "kids": {name or name[key]: Data}}.

def holds(d):
    s = d["s"]
    if s["kind"] == "leaf" or (s["kind"] == "list" and s["name"] != "interface"):
        return True
    return any(holds(k) for k in d["kids"].values()
               if not (s["kind"] == "list" and k["s"] is s["kids"][0]))


def fresh(e):
    d = {"s": e["s"], "value": e["value"] if e["s"]["kind"] == "leaf" else "", "kids": {}}
    if key(e):
        d["kids"][key(e)["s"]["name"]] = {"s": key(e)["s"], "value": key(e)["value"], "kids": {}}
    return d


def removes_only(e, op):
    """How many removes are all an absent node under none holds below (-1:
    something else); what a remove takes is not looked into."""
    if op == "remove":
        return 1
    n = 0
    for k in e["kids"]:
        if k is key(e):
            continue
        kop = k["op"] or op
        if kop not in ("remove", "none") or (kop == "none" and k["s"]["kind"] == "leaf"):
            return -1
        below = removes_only(k, kop)
        if below < 0 or (kop == "none" and k["s"]["kind"] == "list" and below == 0):
            return -1
        n += below
    return n


class Step:
    """One edit applied: the errors it meets (any of them may be the one
    named)."""

    def __init__(self):
        self.errors = set()

    def check(self, e, inherited):
        s = e["s"]
        if s is None:
            self.errors.add("unknown-namespace" if e["ns"] == UNKNOWN else "unknown-element")
            return
        op = e["op"] or inherited
        if s["kind"] == "leaf":
            if not (op in ("delete", "remove") and not e["value"]) and \
                    not fits(s["type"], e["value"]):
                self.errors.add("invalid-value")
            return
        if s["kind"] == "list" and not key(e):
            self.errors.add("missing-element")
            return
        if key(e) and not fits(key(e)["s"]["type"], key(e)["value"]):
            self.errors.add("invalid-value")
        for k in e["kids"]:
            self.check(k, op)

    def apply_kids(self, e, d, op):
        if key(e) and key(e)["op"] in ("delete", "remove"):
            self.errors.add("bad-attribute")
            return
        for k in e["kids"]:
            if k is not key(e):
                self.apply(k, d, op)

    def apply(self, e, parent, inherited):
        op, i = e["op"] or inherited, ident(e)
        found = parent["kids"].get(i)
        exists = found is not None and holds(found)
        kind = e["s"]["kind"]
        if op == "delete":
            if exists:
                del parent["kids"][i]
            else:
                self.errors.add("data-missing")
        elif op == "remove":
            parent["kids"].pop(i, None)
        elif op == "create" and exists:
            self.errors.add("data-exists")
        elif op in ("create", "replace"):
            parent["kids"][i] = fresh(e)
            self.apply_kids(e, parent["kids"][i], op)
        elif op == "merge":
            if found is None or kind == "leaf":
                parent["kids"][i] = fresh(e)
            self.apply_kids(e, parent["kids"][i], op)
        elif kind == "container":
            self.apply_kids(e, parent["kids"].setdefault(i, fresh(e)), op)
        elif exists:
            if kind != "leaf":
                self.apply_kids(e, found, op)
        elif kind != "list" or removes_only(e, "none") <= 0:
            self.errors.add("data-missing")


def family(d):
    return d["s"]["up"]["up"]["name"]


def unfit(d, errors):
    """What the agent cannot keep of a configuration, and an address's
    config/ip other than its key (RFC 7950's data-missing for the key's
    reference, or invalid-value)."""
    s = d["s"]
    if s["name"] == "addresses" and s["up"]["name"] == "ipv4" and len(d["kids"]) > 1:
        errors.add("operation-not-supported")
    if s["name"] == "address":
        ip = d["kids"].get("config", {"kids": {}})["kids"].get("ip")
        if ip and ip["value"] != d["kids"]["ip"]["value"]:
            errors.update({"invalid-value", "data-missing"})
    for k in d["kids"].values():
        if k["s"]["kind"] == "leaf" and not k["s"]["held"]:
            errors.add("operation-not-supported")
        elif k["s"]["kind"] != "leaf":
            unfit(k, errors)


def settle(d):
    s = d["s"]
    if s["name"] == "address":
        config = s["kids"][1]
        c = d["kids"].setdefault("config", {"s": config, "value": "", "kids": {}})
        c["kids"]["ip"] = {"s": config["kids"][0], "value": d["kids"]["ip"]["value"], "kids": {}}
        if family(d) == "ipv4":
            c["kids"].pop("prefix-length", None)
    for i, k in list(d["kids"].items()):
        if k["s"]["kind"] != "leaf":
            settle(k)
        if not holds(k):
            del d["kids"][i]


def flatten(d, path=""):
    out = set()
    for i, k in d["kids"].items():
        out |= {f"{path}/{i}={k['value']}"} if k["s"]["kind"] == "leaf" else \
            flatten(k, f"{path}/{i}")
    return out


def copy(d):
    return {"s": d["s"], "value": d["value"], "kids": {i: copy(k) for i, k in d["kids"].items()}}


TOP = {"name": "", "kind": "container", "kids": [INTERFACES]}


class Model:
    def __init__(self):
        self.config = {"s": TOP, "value": "", "kids": {}}

    def edit(self, top, op, test_only):
        """The error-tags the edit may be refused with, none when it is
        taken."""
        step = Step()
        for e in top:
            step.check(e, op)
        after = copy(self.config)
        if not step.errors:
            if not top and op == "replace":
                after["kids"].clear()
            for e in top:
                step.apply(e, after, op)
            unfit(after, step.errors)
        if not step.errors:
            settle(after)
            if not test_only:
                self.config = after
        return step.errors


# ---------------------------------------------------------------- the run

def running(agent):
    """The running configuration file, None before there is one."""
    return read(agent.running) if os.path.exists(agent.running) else None


def test_random_edits_answer_and_leave_what_the_model_does():
    rng, model, answers = random.Random(7), Model(), []
    with Agent() as agent:
        m = agent.connect()
        for step in range(150):
            default = rng.choice(["merge"] * 6 + ["none"] * 3 + ["replace"])
            test_only = rng.random() < 0.1
            error_option = rng.choice([None, "stop-on-error", "continue-on-error",
                                       "rollback-on-error"])
            edit = Generator(rng).edit(default)
            want = model.edit(edit, default, test_only)
            text = f'<config xmlns="{NC}" xmlns:nc="{NC}">' + "".join(map(write, edit)) + \
                "</config>"
            before, file_before = leaves(m.get_config("running")), running(agent)
            try:
                m.edit_config(target="running", config=text, default_operation=default,
                              test_option="test-only" if test_only else None,
                              error_option=error_option)
                got = "ok"
            except RPCError as e:
                got = e.errors[0].tag if getattr(e, "errors", None) else e.tag
            after = leaves(m.get_config("running"))
            where = (f"step {step}: default-operation {default}, test-only {test_only}, "
                     f"error-option {error_option}\n  edit: {text}\n  answer {got}, the model's "
                     f"{sorted(want) or 'ok'}\n  model: {sorted(flatten(model.config))}\n"
                     f"  agent: {sorted(after)}")
            assert (got in want) if want else got == "ok", where
            assert after == flatten(model.config), where
            if want or test_only:
                assert after == before and running(agent) == file_before, where
            answers.append(got)
    # Most edits were sent, and were answered every way.
    assert len(answers) >= 120 and {"ok", "data-missing", "data-exists", "invalid-value",
                                     "operation-not-supported", "unknown-element"} <= set(answers)
