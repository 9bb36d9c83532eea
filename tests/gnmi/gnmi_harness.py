"""What the tests of the gNMI front share: Python stubs generated from the
vendored protos at test time, certificates made with openssl, an agent with
both fronts (tests/serve/harness.py's, with --gnmi on a port of its own),
gRPC clients over TLS or in plain text, and gNMI paths from their text.
"""

import json
import os
import socket
import subprocess
import sys
import tempfile

import harness

_WORK = tempfile.mkdtemp(prefix="octunnel-gnmi-")
_STUBS = os.path.join(_WORK, "stubs")


def _generate_stubs():
    os.makedirs(_STUBS)
    protos = harness.source("third_party", "gnmi")
    subprocess.run([sys.executable, "-m", "grpc_tools.protoc", "-I", protos,
                    "--python_out=" + _STUBS, "--grpc_python_out=" + _STUBS, "gnmi.proto",
                    "github.com/openconfig/gnmi/proto/gnmi_ext/gnmi_ext.proto"],
                   check=True, cwd=protos)
    sys.path.insert(0, _STUBS)


_generate_stubs()
import grpc  # noqa: E402
import gnmi_pb2  # noqa: E402
import gnmi_pb2_grpc  # noqa: E402

pb = gnmi_pb2
YANG = harness.source("third_party", "openconfig-yang")


def _openssl(*args):
    subprocess.run(["openssl", *args], check=True, capture_output=True, cwd=_WORK)


def _certificate(name, ca=None, ip=None):
    """A key and certificate `name`.key/.crt: self-signed (a CA) or signed
    by `ca`, for the address `ip` when given."""
    key, crt = os.path.join(_WORK, name + ".key"), os.path.join(_WORK, name + ".crt")
    if ca is None:
        _openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                 "-nodes", "-keyout", key, "-out", crt, "-days", "2", "-subj", "/CN=" + name)
    else:
        csr = os.path.join(_WORK, name + ".csr")
        _openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                 "-nodes", "-keyout", key, "-out", csr, "-subj", "/CN=" + name)
        ext = os.path.join(_WORK, name + ".ext")
        with open(ext, "w", encoding="utf-8") as f:
            f.write(f"subjectAltName=IP:{ip}\n" if ip else "extendedKeyUsage=clientAuth\n")
        _openssl("x509", "-req", "-in", csr, "-CA", ca + ".crt", "-CAkey", ca + ".key",
                 "-CAcreateserial", "-out", crt, "-days", "2", "-extfile", ext)
    return key, crt


_CERTS = {}


def certs():
    """The test's certificates: a CA, the agent's (127.0.0.1), a client's of
    that CA, and a client's of another CA."""
    if not _CERTS:
        _certificate("ca")
        _certificate("other-ca")
        _CERTS["server"] = _certificate("server", ca=os.path.join(_WORK, "ca"), ip="127.0.0.1")
        _CERTS["client"] = _certificate("client", ca=os.path.join(_WORK, "ca"))
        _CERTS["stranger"] = _certificate("stranger", ca=os.path.join(_WORK, "other-ca"))
        _CERTS["ca"] = os.path.join(_WORK, "ca.crt")
    return _CERTS


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Agent(harness.Agent):
    """An agent with NETCONF on --listen and gNMI on a port of its own, over
    TLS with the test's certificate (`tls`), also requiring a client
    certificate (`client_ca`), or in plain text (`insecure`)."""

    def __init__(self, *args, insecure=False, client_ca=False, **kw):
        super().__init__(*args, **kw)
        self.extra, self.insecure = list(args), insecure
        if insecure:
            self.extra.append("--gnmi-insecure")
        else:
            key, crt = certs()["server"]
            self.extra += ["--tls-cert", crt, "--tls-key", key]
            if client_ca:
                self.extra += ["--tls-client-ca", certs()["ca"]]
        self.gnmi_port = None

    def start(self):
        self.gnmi_port = free_port()
        self.args = self.extra + ["--gnmi", f"127.0.0.1:{self.gnmi_port}"]
        super().start()

    def channel(self, cert=None, options=None):
        """A channel to the gNMI front: TLS trusting the test's CA, showing
        the client certificate `cert` ("client", "stranger") when given,
        with gRPC's channel `options`."""
        target = f"127.0.0.1:{self.gnmi_port}"
        if self.insecure:
            return grpc.insecure_channel(target, options)
        with open(certs()["ca"], "rb") as f:
            root = f.read()
        key = chain = None
        if cert:
            with open(certs()[cert][0], "rb") as f:
                key = f.read()
            with open(certs()[cert][1], "rb") as f:
                chain = f.read()
        return grpc.secure_channel(target, grpc.ssl_channel_credentials(root, key, chain),
                                   options)

    def gnmi(self, user=harness.USER, password=harness.PASSWORD, cert=None, options=None):
        return Client(self.channel(cert, options), user, password)


class Client:
    """A gNMI stub whose every call carries the credentials as metadata
    (none when user is None)."""

    def __init__(self, channel, user, password):
        self.channel, self.stub = channel, gnmi_pb2_grpc.gNMIStub(channel)
        self.metadata = [] if user is None else [("username", user), ("password", password)]

    def close(self):
        self.channel.close()

    def capabilities(self):
        return self.stub.Capabilities(pb.CapabilityRequest(), metadata=self.metadata)

    def get(self, *paths, encoding=pb.JSON_IETF, type=pb.GetRequest.ALL, prefix=None):
        request = pb.GetRequest(path=[path(p) for p in paths], encoding=encoding, type=type)
        if prefix is not None:
            request.prefix.CopyFrom(path(prefix))
        return self.stub.Get(request, metadata=self.metadata)

    def get_json(self, p, encoding=pb.JSON_IETF, type=pb.GetRequest.ALL):
        """The one value at `p`, parsed."""
        n = self.get(p, encoding=encoding, type=type).notification
        assert len(n) == 1 and len(n[0].update) == 1, n
        v = n[0].update[0].val
        return json.loads(v.json_ietf_val if encoding == pb.JSON_IETF else v.json_val)

    def set(self, delete=(), replace=(), update=(), encoding=pb.JSON_IETF):
        """delete: paths; replace, update: (path, value) pairs, each value
        JSON text in `encoding` unless it is a TypedValue."""
        def updates(pairs):
            return [pb.Update(path=path(p), val=v if isinstance(v, pb.TypedValue) else
                              pb.TypedValue(**{("json_ietf_val" if encoding == pb.JSON_IETF
                                                else "json_val"): json.dumps(v).encode()}))
                    for p, v in pairs]
        return self.stub.Set(pb.SetRequest(delete=[path(p) for p in delete],
                                           replace=updates(replace), update=updates(update)),
                             metadata=self.metadata)


def path(text):
    """A gNMI path from /a/b[k=v]/c (a value holds no ']' or '/')."""
    p = pb.Path()
    origin, sep, rest = text.partition(":/")
    if sep:
        p.origin, text = origin, "/" + rest
    for part in [s for s in text.split("/") if s]:
        name, _, keys = part.partition("[")
        e = p.elem.add(name=name)
        for kv in [k for k in keys.rstrip("]").split("][") if k]:
            k, _, v = kv.partition("=")
            e.key[k] = v
    return p


def refused(call, code):
    """The gRPC error `call()` raises, which must have `code`."""
    try:
        call()
    except grpc.RpcError as e:
        assert e.code() == code, (e.code(), e.details())
        return e.details()
    raise AssertionError(f"not refused: {code} expected")


def yang_json(xml_text, kind="config"):
    """An OpenConfig document (XML, its <config> or <data> wrapper taken
    off) as RFC 7951 JSON, by yanglint."""
    from lxml import etree
    root = etree.fromstring(xml_text.encode())
    inner = [c for c in root if isinstance(c.tag, str)]
    path_ = os.path.join(_WORK, "doc.xml")
    with open(path_, "wb") as f:
        for c in inner:
            f.write(etree.tostring(c))
    done = subprocess.run(["yanglint", "-p", YANG, "-f", "json", "-t", kind, *models(), path_],
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def yanglint_accepts(value, kind="config"):
    """yanglint takes `value` (RFC 7951 JSON of the whole tree) as data of
    the models."""
    path_ = os.path.join(_WORK, "answer.json")
    with open(path_, "w", encoding="utf-8") as f:
        json.dump(value, f)
    done = subprocess.run(["yanglint", "-p", YANG, "-t", kind, *models(), path_],
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr + json.dumps(value)


def models():
    return [os.path.join(YANG, m + ".yang") for m in
            ("iana-if-type", "openconfig-if-types", "openconfig-vlan-types",
             "openconfig-interfaces", "openconfig-if-ip", "openconfig-if-tunnel",
             "openconfig-vlan")]


def g_leaves(value, at=""):
    """A JSON value flattened to (path, leaf) pairs, module names left out
    and list entries named by their position's keys' values."""
    out = set()
    if isinstance(value, dict):
        for k, v in value.items():
            out |= g_leaves(v, at + "/" + k.split(":")[-1])
    elif isinstance(value, list) and value and isinstance(value[0], dict):
        for entry in value:
            keys = ",".join(f"{k.split(':')[-1]}={v}" for k, v in entry.items()
                            if not isinstance(v, (dict, list)))
            out |= g_leaves(entry, at + "[" + keys + "]")
    else:
        out.add((at, json.dumps(value, sort_keys=True)))
    return out
