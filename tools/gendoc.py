#!/usr/bin/env python3
"""Writes documents of N tunnel interfaces, for measuring octunnel at the
size of a router, in NETCONF XML or RFC 7951 JSON:

    gendoc.py edit   N xml|json   an OpenConfig edit (<config>): endpoints of
                                  both families, ttl, gre-key, an IPv4 and an
                                  IPv6 address with prefix lengths
    gendoc.py config N xml|json   the native running configuration of the
                                  same interfaces (<data>)
    gendoc.py oper   N xml|json   native operational data of the same
                                  interfaces: tunnel-ip-ma, ipv4-network and
                                  ipv6-network (<data>)
    gendoc.py mixed  N xml|json   an edit whose interfaces take turns: a
                                  merge, a replace of the tunnel, a delete of
                                  the gre-key, a delete of the interface by
                                  its key and a remove of the IPv6 address

Interface i is named tunnel-ip<i>; every third one has IPv6 endpoints.  The
document goes to standard output, one element a line as a client writes it.
The same N gives the same document.
"""

import json
import sys

NETCONF = "urn:ietf:params:xml:ns:netconf:base:1.0"
OC_IF = "http://openconfig.net/yang/interfaces"
OC_TUNNEL = "http://openconfig.net/yang/interfaces/tunnel"
VALMORA = "http://valmora.com/ns/yang/Valmora-"

# A node is (tag, module, content[, operation]): content is a value (str or
# int), a list of nodes (a container or list entry), or List(entries) for a
# list, whose entries are lists of nodes.  `module` is None where it is the
# parent's.  A list entry's operation is a first node ("@", None, operation).


class List:
    def __init__(self, entries):
        self.entries = entries


def namespace(module):
    if module == "openconfig-interfaces":
        return OC_IF
    if module == "openconfig-if-tunnel":
        return OC_TUNNEL
    return VALMORA + module[len("Valmora-"):]


def endpoints(i):
    if i % 3 == 2:
        return "2001:db8:%x:%x::1" % (i >> 16, i & 0xFFFF), "2001:db8:%x:%x::2" % (i >> 16, i & 0xFFFF)
    return "10.%d.%d.1" % (i // 256 % 256, i % 256), "172.16.%d.%d" % (i // 254 % 256, i % 254 + 1)


def addresses(i):
    return "10.%d.%d.%d" % (64 + i // 65024 % 64, i // 254 % 256, i % 254 + 1), "2001:db8:1%x:%x::1" % (i >> 16, i & 0xFFFF)


def interface(i, turn=0):
    src, dst = endpoints(i)
    v4, v6 = addresses(i)
    name = ("name", None, "tunnel-ip%d" % i)
    if turn == 3:
        return [("@", None, "delete"), name]
    v6_entry = [("ip", None, v6), ("config", None, [("ip", None, v6), ("prefix-length", None, 64)])]
    if turn == 4:
        v6_entry = [("@", None, "remove"), ("ip", None, v6)]
    return [
        name,
        ("tunnel", "openconfig-if-tunnel", [
            ("config", None, [("src", None, src), ("dst", None, dst), ("ttl", None, 64 + i % 192),
                              ("gre-key", None, 1000 + i, "delete" if turn == 2 else None)]),
            ("ipv4", None, [("addresses", None, [("address", None, List([[
                ("ip", None, v4),
                ("config", None, [("ip", None, v4), ("prefix-length", None, 24 + i % 8)])]]))])]),
            ("ipv6", None, [("addresses", None, [("address", None, List([v6_entry]))])]),
        ], "replace" if turn == 1 else None),
    ]


def edit(n, mixed=False):
    entries = [interface(i, i % 5 if mixed else 0) for i in range(n)]
    return "config", [("interfaces", "openconfig-interfaces", [("interface", None, List(entries))])]


def netmask(length):
    word = (0xFFFFFFFF << (32 - length)) & 0xFFFFFFFF
    return ".".join(str(word >> s & 255) for s in (24, 16, 8, 0))


def config(n):
    entries = []
    for i in range(n):
        src, dst = endpoints(i)
        v4, v6 = addresses(i)
        family = 3 if ":" in src else 2
        entries.append([
            ("active", None, "act"),
            ("interface-name", None, "tunnel-ip%d" % i),
            ("description", None, "tunnel %d" % i),
            ("tunnel-ip", "Valmora-tunnel-gre-cfg", [
                ("mode", None, [("value", None, 2 if family == 3 else 1)]),
                ("source", None, [("type", None, family),
                                  ("ipv6-address" if family == 3 else "address", None, src)]),
                ("destination", None, [("type", None, family - 1),
                                       ("ipv6-address" if family == 3 else "address", None, dst)]),
                ("ttl", None, [("value", None, 64 + i % 192)]),
                ("key", None, [("value", None, 1000 + i)]),
            ]),
            ("ipv4-network", "Valmora-ipv4-io-cfg", [("addresses", None, [("primary", None, [
                ("address", None, v4), ("netmask", None, netmask(24 + i % 8))])])]),
            ("ipv6-network", "Valmora-ipv6-ma-cfg", [("addresses", None, [("regular-addresses", None, [
                ("regular-address", None, List([[("address", None, v6),
                                                 ("prefix-length", None, 64)]]))])])]),
        ])
    return "data", [("interface-configurations", "Valmora-ifmgr-cfg",
                     [("interface-configuration", None, List(entries))])]


def oper(n):
    tunnels, v4s, v6s = [], [], []
    for i in range(n):
        src, dst = endpoints(i)
        v4, v6 = addresses(i)
        family = "ipv6" if ":" in src else "ipv4"
        tunnels.append([
            ("tid", None, i),
            ("idb-array", None, List([[
                ("source-address", None, [("afi", None, family), (family, None, src)]),
                ("destination-address", None, [("afi", None, family), (family, None, dst)]),
                ("ttl", None, 64 + i % 192),
                ("key", None, 1000 + i),
            ]])),
        ])
        v4s.append([
            ("interface-name", None, "tunnel-ip%d" % i),
            ("vrfs", None, [("vrf", None, List([[
                ("vrf-name", None, "default"),
                ("detail", None, [("line-state", None, "up"), ("primary-address", None, v4),
                                  ("prefix-length", None, 24 + i % 8), ("mtu", None, 1476)]),
            ]]))]),
        ])
        v6s.append([
            ("interface-name", None, "tunnel-ip%d" % i),
            ("line-state", None, "up"),
            ("address", None, List([[("address", None, v6), ("prefix-length", None, 64),
                                      ("address-state", None, "PREFERRED")]])),
        ])
    return "data", [
        ("tunnel-ip-ma", "Valmora-tunnel-ip-ma-oper", [("database", None, [("tunnel-ids", None, [
            ("tunnel-id", None, List(tunnels))])])]),
        ("ipv4-network", "Valmora-ipv4-io-oper", [("interfaces", "Valmora-ipv4-ma-oper", [
            ("interface", None, List(v4s))])]),
        ("ipv6-network", "Valmora-ipv6-ma-oper", [("nodes", None, [("node", None, List([[
            ("node-name", None, "0/RP0/CPU0"),
            ("interface-data", None, [("vrfs", None, [("vrf", None, List([[
                ("vrf-name", None, "default"),
                ("details", None, [("detail", None, List(v6s))]),
            ]]))])]),
        ]]))])]),
    ]


def operation_of(node):
    return node[3] if len(node) > 3 else None


def write_xml(envelope, roots, out):
    def element(tag, ns, parent_ns, content, op, depth):
        pad = "  " * depth
        decl = ' xmlns="%s"' % ns if ns != parent_ns else ""
        if depth == 1:
            decl += ' xmlns:nc="%s"' % NETCONF
        if isinstance(content, list):
            if content and content[0][0] == "@":
                op, content = content[0][2], content[1:]
        if op:
            decl += ' nc:operation="%s"' % op
        if isinstance(content, list):
            out.append("%s<%s%s>\n" % (pad, tag, decl))
            for child in content:
                node(child, ns, depth + 1)
            out.append("%s</%s>\n" % (pad, tag))
        else:
            out.append("%s<%s%s>%s</%s>\n" % (pad, tag, decl, content, tag))

    def node(n, parent_ns, depth):
        tag, module, content = n[:3]
        ns = namespace(module) if module else parent_ns
        if isinstance(content, List):
            for entry in content.entries:
                element(tag, ns, parent_ns, entry, None, depth)
        else:
            element(tag, ns, parent_ns, content, operation_of(n), depth)

    out.append('<%s xmlns="%s">\n' % (envelope, NETCONF))
    for root in roots:
        node(root, NETCONF, 1)
    out.append("</%s>\n" % envelope)


def to_json(nodes, parent_module):
    obj = {}
    for n in nodes:
        tag, module, content = n[:3]
        op = operation_of(n)
        if tag == "@":
            obj["@"] = {"ietf-netconf:operation": content}
            continue
        name = "%s:%s" % (module, tag) if module and module != parent_module else tag
        here = module or parent_module
        if isinstance(content, List):
            obj[name] = [to_json(entry, here) for entry in content.entries]
        elif isinstance(content, list):
            obj[name] = to_json(content, here)
            if op:
                obj[name]["@"] = {"ietf-netconf:operation": op}
        else:
            obj[name] = content
            if op:
                obj["@" + name] = {"ietf-netconf:operation": op}
    return obj


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in ("edit", "config", "oper", "mixed") or \
            sys.argv[3] not in ("xml", "json") or not sys.argv[2].isdigit():
        sys.exit(__doc__)
    kinds = {"edit": edit, "config": config, "oper": oper, "mixed": lambda n: edit(n, True)}
    envelope, roots = kinds[sys.argv[1]](int(sys.argv[2]))
    if sys.argv[3] == "xml":
        out = []
        write_xml(envelope, roots, out)
        sys.stdout.write("".join(out))
    else:
        json.dump(to_json(roots, None), sys.stdout, indent=1)
        sys.stdout.write("\n")


if __name__ == "__main__":
    main()
