"""The requests of the agent's tests, as text: what the tests send, and what
tools/fuzz_corpus.py makes the seeds of the serve-rpc fuzz target of.
Imports nothing beyond the standard library."""

NC = "urn:ietf:params:xml:ns:netconf:base:1.0"
OC = "http://openconfig.net/yang/interfaces"
TUN = "http://openconfig.net/yang/interfaces/tunnel"
BASE10 = "urn:ietf:params:netconf:base:1.0"
BASE11 = "urn:ietf:params:netconf:base:1.1"


def config(inner):
    """An <edit-config> config of OpenConfig interfaces."""
    return (f'<config xmlns="{NC}" xmlns:nc="{NC}"><interfaces xmlns="{OC}">{inner}'
            f"</interfaces></config>")


def tunnel(name, inner, op=None):
    attr = f' nc:operation="{op}"' if op else ""
    return (f"<interface{attr}><name>{name}</name><tunnel xmlns=\"{TUN}\">{inner}</tunnel>"
            f"</interface>")


def interfaces(inner):
    return f'<interfaces xmlns="{OC}">{inner}</interfaces>'


def hello(base11=True):
    caps = f"<capability>{BASE10}</capability>"
    if base11:
        caps += f"<capability>{BASE11}</capability>"
    return f'<hello xmlns="{NC}"><capabilities>{caps}</capabilities></hello>'


def rpc(body, message_id="1"):
    return f'<rpc xmlns="{NC}" message-id="{message_id}">{body}</rpc>'


def edit(cfg, default_operation=None, test_option=None):
    extra = ""
    if default_operation:
        extra += f"<default-operation>{default_operation}</default-operation>"
    if test_option:
        extra += f"<test-option>{test_option}</test-option>"
    return f"<edit-config><target><running/></target>{extra}{cfg}</edit-config>"


def get_config(filter_inner=None):
    f = f'<filter type="subtree">{filter_inner}</filter>' if filter_inner is not None else ""
    return f"<get-config><source><running/></source>{f}</get-config>"


def get(filter_inner=None):
    f = f'<filter type="subtree">{filter_inner}</filter>' if filter_inner is not None else ""
    return f"<get>{f}</get>"


TTL = tunnel("tunnel-ip12", "<config><ttl>12</ttl></config>")

# Requests the tests send, each a message body.
REQUESTS = [
    edit(config(TTL)),
    edit(config(tunnel("tunnel-ip12", '<config><gre-key nc:operation="delete">1001</gre-key>'
                       "</config>"))),
    edit(config(tunnel("tunnel-ip12", "<config><src>192.0.2.1</src></config>", "replace"))),
    edit(config(tunnel("tunnel-ip7", "<config><ttl>7</ttl></config>", "create"))),
    edit(config(tunnel("tunnel-ip7", "", "remove"))),
    edit(config(TTL), default_operation="none"),
    edit(config(TTL), default_operation="replace"),
    edit(config(TTL), test_option="test-only"),
    get_config(),
    get_config(interfaces("")),
    get_config(interfaces(tunnel("tunnel-ip12", "<config><ttl/></config>"))),
    get_config(interfaces("<interface><name>tunnel-ip12</name></interface>")),
    get(interfaces(tunnel("tunnel-ip12", "<state/>"))),
    get('<netconf-state xmlns="urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"/>'),
    "<lock><target><running/></target></lock>",
    "<unlock><target><running/></target></unlock>",
    f"<validate><source>{config(TTL)}</source></validate>",
    "<close-session/>",
]

# Messages that no client library would send, none a request libnetconf2
# could read, which the agent's guard answers itself: the error-tag each is
# answered with on a base:1.1 session (on base:1.0, where RFC 6241 keeps
# malformed-message from the client, operation-failed), and a word of the
# answer.  "\udcff" is the byte 0xff, which no UTF-8 text holds.
BAD_MESSAGES = [
    (f'<rpc xmlns="{NC}" message-id="1"><get-config><source><running/></get-config>',
     "malformed-message", "mismatch"),
    ("", "malformed-message", "no element"),
    (" \r\n\t", "malformed-message", "no element"),
    ('<?xml version="1.0"?><!-- a comment alone -->', "malformed-message", "well-formed"),
    (rpc("<get/>") + "<rpc/>", "malformed-message", "well-formed"),
    (rpc("<x:get/>"), "malformed-message", "well-formed"),
    (rpc("&undeclared;<get/>"), "malformed-message", "well-formed"),
    ('<?xml version="1.0"?><!DOCTYPE r [<!ENTITY a "aaaaaaaaaa">'
     '<!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;">]>' + rpc("<get/>"), "malformed-message",
     "document type"),
    (rpc("<get/>\udcff"), "malformed-message", "UTF-8"),
    ('<?xml version="1.0" encoding="ISO-8859-1"?>' + rpc("<get/>"), "malformed-message",
     "not in UTF-8"),
    (f'<hello xmlns="{NC}"/>', "malformed-message", "not an &lt;rpc&gt;"),
    ('<rpc message-id="5"><get/></rpc>', "malformed-message", "not an &lt;rpc&gt;"),
    (rpc("text<get/>"), "malformed-message", "text beside"),
    (rpc("<![CDATA[ ]]><get/>"), "malformed-message", "text beside"),
    (rpc("<get/><get/>"), "malformed-message", "more than one"),
    (f'<rpc xmlns="{NC}"><get/></rpc>', "missing-attribute", "<bad-attribute>message-id<"),
    (rpc(""), "missing-element", "<bad-element>rpc</bad-element>"),
    (rpc("", "a&amp;&lt;b"), "missing-element", 'message-id="a&amp;&lt;b"'),
]
MALFORMED = [message for message, _, _ in BAD_MESSAGES]

# Operations that libnetconf2 would refuse in terms of its own, or that the
# agent does not perform, each answered in RFC 6241's: the error-tag, and
# the error-info the RFC gives that tag.
BAD_OPERATIONS = [
    ("<frobnicate/>", "operation-not-supported", {}),
    ('<frobnicate xmlns="urn:example:x"/>', "operation-not-supported", {}),
    ("<copy-config><target><url>file:///tmp/x</url></target><source><running/></source>"
     "</copy-config>", "operation-not-supported", {}),
    ("<get-config><source><url>file:///tmp/x</url></source></get-config>",
     "operation-not-supported", {}),
    ("<delete-config><target><running/></target></delete-config>", "unknown-element",
     {"bad-element": "running"}),
    ("<commit><persist>x</persist></commit>", "invalid-value", {"bad-element": "persist"}),
    ("<copy-config><target><startup/></target></copy-config>", "missing-element",
     {"bad-element": "source"}),
    ("<get-config/>", "missing-element", {"bad-element": "source"}),
    ("<edit-config><target><running/></target></edit-config>", "missing-element",
     {"bad-element": "config"}),
    (f"<edit-config>{config(TTL)}</edit-config>", "missing-element", {"bad-element": "target"}),
    ("<lock/>", "missing-element", {"bad-element": "target"}),
    ("<get-config><source><running/></source><frob/></get-config>", "unknown-element",
     {"bad-element": "frob"}),
    ('<get><frob xmlns="urn:example:x"/></get>', "unknown-namespace",
     {"bad-element": "frob", "bad-namespace": "urn:example:x"}),
    (edit(config(tunnel("tunnel-ip12", "<config><ttl>3</ttl></config>", "frobnicate"))),
     "bad-attribute", {"bad-attribute": "operation", "bad-element": "interface"}),
    ('<get-config frob="1"><source><running/></source></get-config>', "unknown-attribute",
     {"bad-attribute": "frob", "bad-element": "get-config"}),
    ("<kill-session><session-id>abc</session-id></kill-session>", "bad-element",
     {"bad-element": "session-id"}),
]

# Frames that break the framing of base:1.1, and why, as the agent logs it.
BROKEN_FRAMES = [("\n#0\n\n##\n", "chunk size"), ("\n##\n", "no chunk"),
                 ("\n#abc\n", "chunk size"), ("\n#01\n", "chunk size"),
                 ("\n#4294967296\n", "chunk size"), ("\n#99999999999\n", "chunk size"),
                 ("no frame at all", "does not start"), ("\n#3\nabc\n##x", "end mark")]
BAD_FRAMES = [frames for frames, _ in BROKEN_FRAMES]


def chunked(message):
    data = message.encode("utf-8", "surrogateescape")
    return b"\n#%d\n" % len(data) + data + b"\n##\n"


def end_marked(message):
    return message.encode("utf-8", "surrogateescape") + b"]]>]]>"
