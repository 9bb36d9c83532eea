// <edit-config> held to RFC 6241 (section 7.2) by random edits: a seeded
// generator writes edits of every operation at every level of the tunnel
// interfaces, under each default operation, some only tested, some with
// nodes the agent does not carry, values that do not fit and elements the
// models do not have.  Each edit goes to an agent in process and to a small
// model of the configuration <get-config> shows; the answer (ok, or the
// error-tag) and the configuration after it must be the model's, and a
// refused or tested edit must leave the configuration and its file exactly
// as they were.
//
// The model reads RFC 6241 thus.  An edit node's operation is its own
// nc:operation, else its parent's, at the top the default operation.  merge
// creates what is missing and sets values; replace makes the node the
// edit's (children then apply with their own operations to the new, empty
// node); create is data-exists on a node that exists, else replace; delete
// is data-missing on a node that does not, else takes it with all it
// holds; remove takes it if it is there.  Under "none" a node changes
// nothing but must exist (data-missing), unless all below it only removes;
// a container exists whenever its parent does.  The configuration is what
// <get-config> shows: an address shows config/ip equal to its key, an IPv4
// address no prefix-length (the router keeps a netmask), an empty
// container or an interface holding only its name is as absent.  What the
// agent cannot hold (any leaf but the tunnel's, its addresses' and
// ipv6/config's enabled and mtu; a second IPv4 address) refuses the edit
// operation-not-supported; what the edit itself gets wrong is refused
// before anything is applied: unknown-namespace, unknown-element,
// missing-element (an entry without its key), invalid-value (a value that
// does not fit, read-only data).  Of several errors an edit meets, any may
// be the one named: RFC 6241 leaves the order of the checks to the server.
#include "agent/agent.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libyang/libyang.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using namespace octunnel;
using namespace octunnel::serve;
namespace fs = std::filesystem;

const std::string oc_ns = "http://openconfig.net/yang/interfaces";
const std::string tunnel_ns = "http://openconfig.net/yang/interfaces/tunnel";
const std::string nc_ns = "urn:ietf:params:xml:ns:netconf:base:1.0";
const std::string unknown_ns = "urn:example:nothing-served";

// ---------------------------------------------------------------- the models

enum class Kind { container, list, leaf, state };
enum class Type { none, ip, ipv4, ipv6, ttl, u32, plen4, plen6, mtu6, boolean, text, u16, mode };

// A node of the OpenConfig models as far as the edits go.
struct Schema {
    std::string name;
    Kind kind = Kind::container;
    Type type = Type::none;
    bool held = false;        // a leaf the agent keeps
    std::vector<Schema> kids; // of a list, its key first
    std::string ns = {};      // where it changes
    const Schema *up = nullptr;

    bool leads_to_held() const
    {
        return held || std::any_of(kids.begin(), kids.end(),
                                   [](const Schema &k) { return k.leads_to_held(); });
    }
    const Schema *kid(const std::string &n) const
    {
        for (const Schema &k : kids)
            if (k.name == n)
                return &k;
        return nullptr;
    }
    std::string path() const { return up == nullptr ? "" : up->path() + "/" + name; }
};

Schema leaf(std::string name, Type t, bool held = false)
{
    return {std::move(name), Kind::leaf, t, held, {}};
}
Schema box(std::string name, std::vector<Schema> kids)
{
    return {std::move(name), Kind::container, Type::none, false, std::move(kids)};
}
Schema list(std::string name, std::vector<Schema> kids)
{
    return {std::move(name), Kind::list, Type::none, false, std::move(kids)};
}
Schema state()
{
    return {"state", Kind::state, Type::none, false, {}};
}
Schema address(Type ip, Type prefix)
{
    return list("address",
                {leaf("ip", ip, true),
                 box("config", {leaf("ip", ip, true), leaf("prefix-length", prefix, true)}),
                 state()});
}

void link(Schema &s)
{
    for (Schema &k : s.kids) {
        k.up = &s;
        link(k);
    }
}

// The datastore's top, which holds /interfaces.
const Schema &models()
{
    static const Schema top = [] {
        Schema tunnel = box(
            "tunnel",
            {box("config", {leaf("src", Type::ip, true), leaf("dst", Type::ip, true),
                            leaf("ttl", Type::ttl, true), leaf("gre-key", Type::u32, true)}),
             state(),
             box("ipv4", {box("addresses", {address(Type::ipv4, Type::plen4)}),
                          box("proxy-arp", {box("config", {leaf("mode", Type::mode)})}),
                          box("neighbors", {list("neighbor", {leaf("ip", Type::ipv4)})}),
                          box("unnumbered", {box("config", {leaf("enabled", Type::boolean)})}),
                          box("config", {leaf("enabled", Type::boolean), leaf("mtu", Type::u16)}),
                          state()}),
             box("ipv6",
                 {box("addresses", {address(Type::ipv6, Type::plen6)}),
                  box("router-advertisement", {box("config", {leaf("suppress", Type::boolean)})}),
                  box("neighbors", {list("neighbor", {leaf("ip", Type::ipv6)})}),
                  box("config",
                      {leaf("enabled", Type::boolean, true), leaf("mtu", Type::mtu6, true),
                       leaf("dup-addr-detect-transmits", Type::u32)}),
                  state()})});
        tunnel.ns = tunnel_ns;
        Schema interfaces = box(
            "interfaces",
            {list("interface",
                  {leaf("name", Type::text, true),
                   box("config", {leaf("name", Type::text), leaf("description", Type::text),
                                  leaf("mtu", Type::u16), leaf("enabled", Type::boolean)}),
                   state(), box("hold-time", {box("config", {leaf("up", Type::u32)})}),
                   box("subinterfaces",
                       {list("subinterface", {leaf("index", Type::u32),
                                              box("config", {leaf("description", Type::text)})})}),
                   std::move(tunnel)})});
        interfaces.ns = oc_ns;
        Schema s = box("", {std::move(interfaces)});
        link(s);
        return s;
    }();
    return top;
}

struct Values {
    std::vector<std::string> good, bad;
};

// Values of each type: those that fit and those that do not.  Only the
// good ones are taken as fitting; the addresses are canonical, as the
// agent shows them.
const Values &values(Type t)
{
    static const std::map<Type, Values> v = {
        {Type::ip,
         {{"192.0.2.1", "198.51.100.7", "2001:db8::1", "2001:db8::a"},
          {"192.0.2.256", "2001:db8::g", "tunnel"}}},
        {Type::ipv4,
         {{"192.0.2.1", "192.0.2.2", "192.0.2.3"}, {"192.0.2.256", "2001:db8::1", "1.2.3"}}},
        {Type::ipv6,
         {{"2001:db8::1", "2001:db8::2", "2001:db8:1::3"}, {"192.0.2.1", "2001:db8:::1"}}},
        {Type::ttl, {{"1", "64", "255"}, {"0", "256", "-1", "x"}}},
        {Type::u32, {{"0", "1001", "4294967295"}, {"4294967296", "-1", "k"}}},
        {Type::plen4, {{"0", "24", "32"}, {"33", "a"}}},
        {Type::plen6, {{"0", "64", "128"}, {"129", "-1"}}},
        // uint32, 1280 and up, in openconfig-if-ip.
        {Type::mtu6, {{"1280", "9000", "70000"}, {"1279", "0", "4294967296"}}},
        {Type::boolean, {{"true", "false"}, {"yes", "1", "TRUE"}}},
        {Type::text, {{"tunnel-ip1", "tunnel-ip2", "tunnel-ip3"}, {}}},
        {Type::u16, {{"1500", "9000"}, {"65536", "m"}}},
        {Type::mode, {{"DISABLE", "REMOTE_ONLY", "ALL"}, {"BAD"}}},
    };
    return v.at(t);
}

bool fits(Type t, const std::string &v)
{
    const auto &good = values(t).good;
    return t == Type::text || std::find(good.begin(), good.end(), v) != good.end();
}

// ---------------------------------------------------------------- edits

enum class Op { merge, replace, create, remove, del, none };
constexpr Op every_op[] = {Op::merge, Op::replace, Op::create, Op::remove, Op::del};

const char *name_of(Op op)
{
    switch (op) {
    case Op::merge:
        return "merge";
    case Op::replace:
        return "replace";
    case Op::create:
        return "create";
    case Op::remove:
        return "remove";
    case Op::del:
        return "delete";
    case Op::none:
        return "none";
    }
    return "";
}

// An element of an edit: a node of the models, or (no schema) an element
// they do not have.
struct Edit {
    const Schema *s = nullptr;
    std::string name, ns; // of an element the models do not have
    std::optional<Op> op;
    std::string value;
    std::vector<Edit> kids; // of an entry, its key first when given

    explicit Edit(const Schema *schema) : s(schema) {}
    Edit(std::string n, std::string space) : name(std::move(n)), ns(std::move(space)) {}

    bool is(Kind k) const { return s != nullptr && s->kind == k; }
    const Edit *key() const
    {
        return is(Kind::list) && !kids.empty() && kids[0].s == &s->kids[0] ? &kids[0] : nullptr;
    }
    // How the configuration names it: an entry by its key.
    std::string id() const { return s->name + (is(Kind::list) ? "[" + key()->value + "]" : ""); }
};

void write(const Edit &e, const std::string &parent_ns, std::string &out)
{
    const std::string &name = e.s != nullptr ? e.s->name : e.name;
    const std::string ns = e.s == nullptr ? e.ns : e.s->ns.empty() ? parent_ns : e.s->ns;
    out += "<" + name;
    if (ns != parent_ns)
        out += " xmlns=\"" + ns + "\"";
    if (parent_ns.empty())
        out += " xmlns:nc=\"" + nc_ns + "\"";
    if (e.op)
        out += std::string(" nc:operation=\"") + name_of(*e.op) + "\"";
    if (e.kids.empty() && e.value.empty()) {
        out += "/>";
        return;
    }
    out += ">" + e.value;
    for (const Edit &k : e.kids)
        write(k, ns, out);
    out += "</" + name + ">";
}

std::string text_of(const std::vector<Edit> &top)
{
    std::string out;
    for (const Edit &e : top)
        write(e, "", out);
    return out;
}

// ---------------------------------------------------------------- the model

struct Data {
    const Schema *s = nullptr;
    std::string value;
    std::map<std::string, Data> kids; // by name, an entry by name[key]

    Data() = default;
    explicit Data(const Schema *schema, std::string v = {}) : s(schema), value(std::move(v)) {}
};

// Whether a node counts as there: a leaf or an entry always (an interface
// only with more than its name), a container when something in it is.
bool holds(const Data &d)
{
    if (d.s->kind == Kind::leaf || (d.s->kind == Kind::list && d.s->name != "interface"))
        return true;
    return std::any_of(d.kids.begin(), d.kids.end(), [&](const auto &k) {
        return (d.s->kind != Kind::list || k.second.s != &d.s->kids[0]) && holds(k.second);
    });
}

Data fresh(const Edit &e)
{
    Data d(e.s, e.s->kind == Kind::leaf ? e.value : std::string());
    if (const Edit *key = e.key())
        d.kids[key->s->name] = Data(key->s, key->value);
    return d;
}

// How many removes are all that a node absent under "none" holds below it,
// its operation being `op` (-1: something else below).  What a remove takes
// is not looked into, as nothing below a delete or remove is anywhere.
int removes_only(const Edit &e, Op op)
{
    if (op == Op::remove)
        return 1;
    int n = 0;
    for (const Edit &k : e.kids) {
        if (&k == e.key())
            continue;
        const Op kop = k.op.value_or(op);
        if ((kop != Op::remove && kop != Op::none) || (kop == Op::none && k.is(Kind::leaf)))
            return -1;
        const int below = removes_only(k, kop);
        if (below < 0 || (kop == Op::none && k.is(Kind::list) && below == 0))
            return -1;
        n += op == Op::none ? below : 0;
    }
    return n;
}

// One edit applied to a configuration.
struct Step {
    std::set<std::string> errors; // the error-tags it meets

    // What the edit gets wrong by itself, found before anything is
    // applied: noted as the errors are.
    void check(const Edit &e, Op inherited)
    {
        if (e.s == nullptr) {
            errors.insert(e.ns == unknown_ns ? "unknown-namespace" : "unknown-element");
            return;
        }
        if (e.s->kind == Kind::state) {
            errors.insert("invalid-value");
            return;
        }
        const Op op = e.op.value_or(inherited);
        const bool takes = op == Op::del || op == Op::remove;
        if (e.s->kind == Kind::leaf) {
            if (!(takes && e.value.empty()) && !fits(e.s->type, e.value))
                errors.insert("invalid-value");
            return;
        }
        const Edit *key = e.key();
        if (e.s->kind == Kind::list && key == nullptr) {
            errors.insert("missing-element");
            return;
        }
        if (key != nullptr && !fits(key->s->type, key->value))
            errors.insert("invalid-value");
        for (const Edit &k : e.kids)
            check(k, op);
    }

    // Applies an edit node, noting each error it meets and going on past
    // it: which of them an agent meets first is its own affair.
    void apply_kids(const Edit &e, Data &d, Op op)
    {
        if (const Edit *key = e.key();
            key != nullptr && (key->op == Op::del || key->op == Op::remove)) {
            errors.insert("bad-attribute");
            return;
        }
        for (const Edit &k : e.kids)
            if (&k != e.key())
                apply(k, d, op);
    }

    void apply(const Edit &e, Data &parent, Op inherited)
    {
        const Op op = e.op.value_or(inherited);
        const std::string id = e.id();
        const auto found = parent.kids.find(id);
        const bool exists = found != parent.kids.end() && holds(found->second);
        switch (op) {
        case Op::del:
            if (!exists)
                errors.insert("data-missing");
            else
                parent.kids.erase(found);
            return;
        case Op::remove:
            if (found != parent.kids.end())
                parent.kids.erase(found);
            return;
        case Op::create:
            if (exists) {
                errors.insert("data-exists");
                return;
            }
            [[fallthrough]];
        case Op::replace:
            apply_kids(e, parent.kids[id] = fresh(e), op);
            return;
        case Op::merge: {
            Data &d = parent.kids[id];
            if (d.s == nullptr || e.is(Kind::leaf))
                d = fresh(e);
            apply_kids(e, d, op);
            return;
        }
        case Op::none:
            if (e.is(Kind::container)) {
                Data &d = parent.kids[id];
                if (d.s == nullptr)
                    d = fresh(e);
                apply_kids(e, d, op);
            } else if (exists) {
                if (!e.is(Kind::leaf))
                    apply_kids(e, found->second, op);
            } else if (!e.is(Kind::list) || removes_only(e, Op::none) <= 0) {
                errors.insert("data-missing");
            }
            return;
        }
    }
};

// What is wrong with the configuration an edit would leave.
void unfit(const Data &d, std::set<std::string> &errors)
{
    // What the agent cannot keep.
    if (d.s->name == "addresses" && d.s->up->name == "ipv4" && d.kids.size() > 1)
        errors.insert("operation-not-supported");
    // An address's config/ip is what its key refers to: another value
    // leaves the key referring to nothing (RFC 7950, section 15.5:
    // data-missing), or is a value the entry cannot take (invalid-value).
    if (d.s->name == "address" && d.s->kind == Kind::list)
        if (const auto c = d.kids.find("config"); c != d.kids.end())
            if (const auto ip = c->second.kids.find("ip");
                ip != c->second.kids.end() && ip->second.value != d.kids.at("ip").value)
                errors.insert({"invalid-value", "data-missing"});
    for (const auto &[id, k] : d.kids) {
        if (k.s->kind == Kind::leaf && !k.s->held)
            errors.insert("operation-not-supported");
        if (k.s->kind != Kind::leaf)
            unfit(k, errors);
    }
}

// The configuration as <get-config> shows it.
void settle(Data &d)
{
    if (d.s->kind == Kind::list && d.s->name == "address") {
        const Schema *config = d.s->kid("config");
        Data &c = d.kids["config"];
        c.s = config;
        c.kids["ip"] = Data(config->kid("ip"), d.kids.at("ip").value);
        if (d.s->up->up->name == "ipv4")
            c.kids.erase("prefix-length");
    }
    for (auto it = d.kids.begin(); it != d.kids.end();) {
        if (it->second.s->kind != Kind::leaf)
            settle(it->second);
        it = holds(it->second) ? std::next(it) : d.kids.erase(it);
    }
}

void flatten(const Data &d, const std::string &path, std::set<std::string> &out)
{
    for (const auto &[id, k] : d.kids) {
        if (k.s->kind == Kind::leaf)
            out.insert(path + "/" + id + "=" + k.value);
        else
            flatten(k, path + "/" + id, out);
    }
}

struct Model {
    Data config = Data(&models());

    // The error-tags the edit may be refused with (one of them), none when
    // it is taken.
    std::set<std::string> edit(const std::vector<Edit> &top, DefaultOperation d, bool test_only)
    {
        const Op op = d == DefaultOperation::merge     ? Op::merge
                      : d == DefaultOperation::replace ? Op::replace
                                                       : Op::none;
        Step step;
        for (const Edit &e : top)
            step.check(e, op);
        Data after = config;
        if (step.errors.empty()) {
            if (top.empty() && op == Op::replace)
                after.kids.clear();
            for (const Edit &e : top)
                step.apply(e, after, op);
            unfit(after, step.errors);
        }
        if (!step.errors.empty())
            return step.errors;
        settle(after);
        if (!test_only)
            config = std::move(after);
        return {};
    }

    std::set<std::string> leaves() const
    {
        std::set<std::string> out;
        flatten(config, "", out);
        return out;
    }
};

// The leaves of a <get-config> answer, as the model's: path=value, an entry
// named by its key.
void flatten(const xmlNode *n, const std::string &path, std::set<std::string> &out)
{
    const auto text = [](const xmlNode *e) {
        xmlChar *t = xmlNodeGetContent(e);
        std::string s = t != nullptr ? reinterpret_cast<const char *>(t) : "";
        xmlFree(t);
        const auto blank = s.find_first_not_of(" \t\r\n");
        return blank == std::string::npos
                   ? std::string()
                   : s.substr(blank, s.find_last_not_of(" \t\r\n") + 1 - blank);
    };
    for (const xmlNode *c = n->children; c != nullptr; c = c->next) {
        if (c->type != XML_ELEMENT_NODE)
            continue;
        const std::string name = reinterpret_cast<const char *>(c->name);
        const xmlNode *first = c->children;
        while (first != nullptr && first->type != XML_ELEMENT_NODE)
            first = first->next;
        if (first == nullptr) {
            out.insert(path + "/" + name + "=" + text(c));
            continue;
        }
        std::string step = name;
        if (name == "interface" || name == "address")
            for (const xmlNode *k = first; k != nullptr; k = k->next)
                if (k->type == XML_ELEMENT_NODE &&
                    std::string(reinterpret_cast<const char *>(k->name)) ==
                        (name == "interface" ? "name" : "ip"))
                    step += "[" + text(k) + "]";
        flatten(c, path + "/" + step, out);
    }
}

std::set<std::string> leaves_of(const std::string &data)
{
    const std::string doc = "<data>" + data + "</data>";
    xmlDocPtr d = xmlReadMemory(doc.data(), static_cast<int>(doc.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    std::set<std::string> out;
    if (d == nullptr)
        return {"(not XML) " + data};
    flatten(xmlDocGetRootElement(d), "", out);
    xmlFreeDoc(d);
    return out;
}

std::string words(const std::set<std::string> &s, const std::string &none)
{
    std::string out;
    for (const std::string &w : s)
        out += (out.empty() ? "" : " or ") + w;
    return out.empty() ? none : out;
}

std::string lines(const std::set<std::string> &s)
{
    std::string out;
    for (const std::string &l : s)
        out += "    " + l + "\n";
    return out.empty() ? "    (nothing)\n" : out;
}

// ---------------------------------------------------------------- generator

struct Rng {
    uint64_t s;
    uint64_t next()
    {
        uint64_t z = (s += 0x9e3779b97f4a7c15u);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
        return z ^ (z >> 31);
    }
    std::size_t below(std::size_t n) { return static_cast<std::size_t>(next() % n); }
    bool chance(double p) { return static_cast<double>(next() >> 11) * 0x1.0p-53 < p; }
    template <class T> const T &pick(const std::vector<T> &v) { return v[below(v.size())]; }
};

// What the runs went through, to be sure they went through everything.
struct Coverage {
    std::map<std::string, std::set<std::string>> ops; // node path: operations given it
    std::map<std::string, int> answers;               // ok or error-tag: how many
    std::map<std::string, int> options;               // default operation, test-only
    int busy = 0; // steps that began on a configuration of 5 leaves or more
};

class Generator {
public:
    explicit Generator(Rng &rng) : rng_(rng) {}

    // Node path: the operations the last edit gave it.
    std::map<std::string, std::set<std::string>> ops;

    std::vector<Edit> edit(DefaultOperation d)
    {
        ops.clear();
        const Op top = d == DefaultOperation::merge     ? Op::merge
                       : d == DefaultOperation::replace ? Op::replace
                                                        : Op::none;
        std::vector<Edit> out;
        if (!(d == DefaultOperation::replace && rng_.chance(0.05)))
            out.push_back(node(models().kids[0], top, 0.1));
        if (rng_.chance(0.15))
            spoil(out);
        return out;
    }

private:
    std::optional<Op> op(double p)
    {
        if (!rng_.chance(p))
            return {};
        return every_op[rng_.below(std::size(every_op))];
    }

    Edit node(const Schema &s, Op inherited, double p_op)
    {
        Edit e(&s);
        e.op = op(p_op);
        const Op eff = e.op.value_or(inherited);
        ops[s.path()].insert(e.op ? name_of(*e.op) : "(inherited)");
        if (s.kind == Kind::leaf) {
            const bool takes = eff == Op::del || eff == Op::remove;
            e.value = takes && rng_.chance(0.5) ? "" : rng_.pick(values(s.type).good);
            return e;
        }
        // What lies below a node deleted or removed is not looked at: given
        // now and then.
        if ((eff == Op::del || eff == Op::remove) && !rng_.chance(0.2))
            return e;
        for (const Schema &k : s.kids) {
            if (k.kind == Kind::state || (s.kind == Kind::list && &k == &s.kids[0]))
                continue;
            if (k.kind == Kind::list) {
                const std::size_t n = rng_.chance(k.leads_to_held() ? 0.7 : 0.06)
                                          ? 1 + rng_.below(k.leads_to_held() ? 2 : 1)
                                          : 0;
                std::vector<std::string> keys = values(k.kids[0].type).good;
                for (std::size_t i = 0; i < n; ++i) {
                    const std::string key = keys[rng_.below(keys.size())];
                    keys.erase(std::find(keys.begin(), keys.end(), key));
                    e.kids.push_back(entry(k, key, eff));
                }
            } else if (rng_.chance(k.leads_to_held() ? 0.55 : 0.04)) {
                e.kids.push_back(node(k, eff, k.kind == Kind::leaf ? 0.3 : 0.12));
            }
        }
        return e;
    }

    Edit entry(const Schema &s, const std::string &key, Op inherited)
    {
        Edit e = node(s, inherited, 0.15);
        Edit k(&s.kids[0]);
        k.value = key;
        e.kids.insert(e.kids.begin(), k);
        // An address's config/ip names the entry again, mostly.
        for (Edit &c : e.kids)
            if (c.s->name == "config" && s.name == "address")
                for (Edit &ip : c.kids)
                    if (ip.s->name == "ip" && !ip.value.empty() && rng_.chance(0.9))
                        ip.value = key;
        return e;
    }

    // One fault of the edit's own: an element the models do not have, in a
    // namespace they have or not, read-only data, an entry without its key,
    // a value that does not fit, a key deleted or removed alone.
    void spoil(std::vector<Edit> &top)
    {
        std::vector<Edit *> nodes;
        const auto collect = [&](auto &self, Edit &e) -> void {
            nodes.push_back(&e);
            for (Edit &k : e.kids)
                self(self, k);
        };
        for (Edit &e : top)
            collect(collect, e);
        if (nodes.empty())
            return;
        Edit &e = *nodes[rng_.below(nodes.size())];
        switch (rng_.below(6)) {
        case 0:
        case 1:
            if (e.is(Kind::container) || e.is(Kind::list)) {
                Edit x(rng_.chance(0.5) ? "bogus" : "state", "");
                x.ns = rng_.chance(0.5) ? unknown_ns : (e.s->ns.empty() ? oc_ns : e.s->ns);
                if (e.s->path().find("/tunnel") != std::string::npos)
                    x.ns = x.ns == unknown_ns ? x.ns : tunnel_ns;
                if (x.name == "state" && x.ns != unknown_ns) {
                    if (const Schema *st = e.s->kid("state")) {
                        const std::string ns = x.ns;
                        x = Edit(st);
                        if (rng_.chance(0.5))
                            x.kids.push_back(Edit("mtu", ns));
                    } else {
                        x.name = "bogus";
                    }
                }
                const std::size_t first = e.key() != nullptr ? 1 : 0;
                e.kids.insert(e.kids.begin() +
                                  static_cast<long>(first + rng_.below(e.kids.size() + 1 - first)),
                              x);
            }
            break;
        case 2:
            if (e.key() != nullptr)
                e.kids.erase(e.kids.begin());
            break;
        case 3:
        case 4:
            if (e.is(Kind::leaf) && !values(e.s->type).bad.empty())
                e.value = rng_.pick(values(e.s->type).bad);
            else if (e.is(Kind::leaf) && e.s->type != Type::text)
                e.value.clear();
            break;
        case 5:
            if (e.key() != nullptr)
                e.kids[0].op = rng_.chance(0.5) ? Op::del : Op::remove;
            break;
        }
    }

    Rng &rng_;
};

// ---------------------------------------------------------------- the run

struct Dir {
    fs::path path;
    Dir()
    {
        std::string p = (fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp");
        p += "/octunnel-edit-property-XXXXXX";
        if (mkdtemp(p.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        path = p;
    }
    ~Dir() { fs::remove_all(path); }
};

std::string file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void quiet(void *, const char *, ...) {}

// The models, loaded once; libyang and libxml2 say nothing of what they
// refuse, the answers do.
std::shared_ptr<const OpenConfigModels> served()
{
    static const auto m = [] {
        ly_log_options(0);
        xmlSetGenericErrorFunc(nullptr, quiet);
        return std::make_shared<const OpenConfigModels>(OCTUNNEL_YANG_DIR);
    }();
    return m;
}

const char *name_of(DefaultOperation d)
{
    return d == DefaultOperation::merge     ? "merge"
           : d == DefaultOperation::replace ? "replace"
                                            : "none";
}

// `text` as a JSON string.
std::string json_string(const std::string &text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
            out += code;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// `steps` random edits from `seed`; false at the first that the agent and
// the model do not agree on.  With `script`, each step goes to it as a line
// of JSON, the edit with the model's answer and configuration, for the same
// edits to be sent over SSH (tests/serve/test_property.py).
bool run(uint64_t seed, int steps, Coverage &seen, std::ostream *script = nullptr)
{
    Dir dir;
    AgentOptions o;
    o.state_dir = dir.path.string();
    o.module_path = OCTUNNEL_MODULE_PATH;
    o.models = served();
    Agent agent(o, [](const std::string &) {});
    Model model;
    Rng rng{seed};
    Generator gen(rng);
    for (int step = 0; step < steps; ++step) {
        const double r = static_cast<double>(rng.below(100));
        const DefaultOperation d = r < 60   ? DefaultOperation::merge
                                   : r < 85 ? DefaultOperation::none
                                            : DefaultOperation::replace;
        const bool test_only = rng.chance(0.1);
        const std::vector<Edit> edit = gen.edit(d);
        const std::string text = text_of(edit);

        const Outcome before = agent.read(1, true, std::nullopt);
        const std::string file_before = file(agent.running_path());
        const std::set<std::string> model_before = model.leaves();
        seen.busy += model_before.size() >= 5 ? 1 : 0;
        const std::set<std::string> want = model.edit(edit, d, test_only);
        if (script != nullptr) {
            *script << "{\"edit\": " << json_string(text) << ", \"default\": \"" << name_of(d)
                    << "\", \"test_only\": " << (test_only ? "true" : "false")
                    << ", \"answers\": [";
            for (const std::string &tag : want)
                *script << (&tag == &*want.begin() ? "" : ", ") << json_string(tag);
            *script << "], \"leaves\": [";
            const std::set<std::string> now = model.leaves();
            for (const std::string &leaf : now)
                *script << (&leaf == &*now.begin() ? "" : ", ") << json_string(leaf);
            *script << "]}\n";
        }
        for (const auto &[path, ops] : gen.ops)
            seen.ops[path].insert(ops.begin(), ops.end());
        seen.options[std::string(name_of(d)) + (test_only ? ", test-only" : "")]++;
        const Outcome got = agent.edit_config(1, text, d, test_only);
        const Outcome after = agent.read(1, true, std::nullopt);
        const std::string got_tag = got.ok() ? "ok" : got.errors[0].tag;
        seen.answers[got_tag]++;

        std::string wrong;
        if (!before.ok() || !after.ok())
            wrong = "get-config failed";
        else if (want.empty() ? !got.ok() : !want.count(got_tag))
            wrong = "the answer is " + got_tag + ", the model's " + words(want, "ok");
        else if (leaves_of(after.data) != model.leaves())
            wrong = "the configuration is not the model's";
        else if ((!want.empty() || test_only) &&
                 (after.data != before.data || file(agent.running_path()) != file_before))
            wrong = "a refused or tested edit changed the configuration or its file";
        if (wrong.empty())
            continue;
        std::string why;
        for (const RpcError &e : got.errors)
            why += "    " + e.tag + " at " + e.path + ": " + e.message + "\n";
        ADD_FAILURE() << "seed " << seed << ", step " << step << ": " << wrong
                      << "\n  default-operation " << name_of(d) << (test_only ? ", test-only" : "")
                      << "\n  edit: " << text << "\n  agent's errors:\n"
                      << (why.empty() ? "    (none)\n" : why) << "  configuration before:\n"
                      << lines(model_before) << "  the model's after:\n"
                      << lines(model.leaves()) << "  the agent's after:\n"
                      << lines(leaves_of(after.ok() ? after.data : ""));
        return false;
    }
    return true;
}

TEST(EditProperty, RandomEditsAnswerAndLeaveWhatTheModelDoes)
{
    // OCTUNNEL_EDIT_SCRIPT=FILE: one seed's edits, checked here and written
    // to FILE for the agent's test over SSH (OCTUNNEL_EDIT_STEPS of them).
    if (const char *path = std::getenv("OCTUNNEL_EDIT_SCRIPT")) {
        const char *n = std::getenv("OCTUNNEL_EDIT_STEPS");
        std::ofstream script(path);
        Coverage seen;
        EXPECT_TRUE(run(7, n != nullptr ? std::max(1, std::atoi(n)) : 150, seen, &script));
        return;
    }
    // More seeds for a longer hunt: OCTUNNEL_EDIT_SEEDS=N.
    const char *more = std::getenv("OCTUNNEL_EDIT_SEEDS");
    const int seeds = more != nullptr ? std::max(1, std::atoi(more)) : 6;
    const int steps = 800;
    Coverage seen;
    for (int seed = 1; seed <= seeds; ++seed)
        if (!run(static_cast<uint64_t>(seed), steps, seen))
            return;
    std::cout << seeds * steps << " edits made\n";

    // Every operation went to every node the agent holds or that leads to
    // one, from /interfaces down; every answer came, under every option;
    // and configurations of some size were edited.
    for (const std::string under :
         {"", "/interface", "/interface/tunnel", "/interface/tunnel/config",
          "/interface/tunnel/config/src", "/interface/tunnel/config/dst",
          "/interface/tunnel/config/ttl", "/interface/tunnel/config/gre-key",
          "/interface/tunnel/ipv4", "/interface/tunnel/ipv4/addresses/address",
          "/interface/tunnel/ipv4/addresses/address/config",
          "/interface/tunnel/ipv4/addresses/address/config/prefix-length", "/interface/tunnel/ipv6",
          "/interface/tunnel/ipv6/addresses/address",
          "/interface/tunnel/ipv6/addresses/address/config",
          "/interface/tunnel/ipv6/addresses/address/config/prefix-length",
          "/interface/tunnel/ipv6/config", "/interface/tunnel/ipv6/config/enabled",
          "/interface/tunnel/ipv6/config/mtu"})
        for (Op op : every_op)
            EXPECT_TRUE(seen.ops["/interfaces" + under].count(name_of(op)))
                << "/interfaces" << under << " never had " << name_of(op);
    for (const char *answer :
         {"ok", "data-exists", "data-missing", "operation-not-supported", "invalid-value",
          "unknown-element", "unknown-namespace", "missing-element", "bad-attribute"})
        EXPECT_GE(seen.answers[answer], 5) << answer;
    for (const char *options :
         {"merge", "none", "replace", "merge, test-only", "none, test-only", "replace, test-only"})
        EXPECT_GE(seen.options[options], 5) << options;
    EXPECT_GE(seen.busy, seeds * steps / 5);
}

// ------------------------------------------------------------ cases
//
// Edits where the agent once answered otherwise than RFC 6241 as the model
// reads it, each the least edit that showed it, with the answer and
// configuration the model gives.

struct Row {
    DefaultOperation d;
    std::string interfaces; // what <interfaces> holds, "-" for an empty <config>
    std::string answer;     // ok or the error-tag (or tags, a|b: either)
};

std::string edit_text(const std::string &interfaces)
{
    if (interfaces == "-")
        return "";
    return "<interfaces xmlns=\"" + oc_ns + "\" xmlns:nc=\"" + nc_ns + "\">" + interfaces +
           "</interfaces>";
}

std::string tunnel(const std::string &name, const std::string &inside)
{
    return "<interface><name>" + name + "</name><tunnel xmlns=\"" + tunnel_ns + "\">" + inside +
           "</tunnel></interface>";
}

// Runs the edits one after the other on an empty configuration; the
// configuration is then `leaves`.
void replay(const std::vector<Row> &rows, const std::set<std::string> &leaves)
{
    Dir dir;
    AgentOptions o;
    o.state_dir = dir.path.string();
    o.module_path = OCTUNNEL_MODULE_PATH;
    o.models = served();
    Agent agent(o, [](const std::string &) {});
    for (const Row &r : rows) {
        const Outcome got = agent.edit_config(1, edit_text(r.interfaces), r.d, false);
        const std::string tag = got.ok() ? "ok" : got.errors[0].tag;
        EXPECT_TRUE(("|" + r.answer + "|").find("|" + tag + "|") != std::string::npos)
            << r.interfaces << "\nanswered " << tag << ", not " << r.answer
            << (got.ok() ? "" : ": " + got.errors[0].message);
    }
    const Outcome after = agent.read(1, true, std::nullopt);
    ASSERT_TRUE(after.ok());
    EXPECT_EQ(lines(leaves_of(after.data)), lines(leaves));
}

const std::string t1 = "/interfaces/interface[tunnel-ip1]";
const std::string ttl_64 = tunnel("tunnel-ip1", "<config><ttl>64</ttl></config>");

// RFC 6241: default-operation replace puts the <config> in the place of the
// whole configuration; an empty one leaves none.  The agent refuses it,
// invalid-value ("the document holds no element").
TEST(EditPropertyCases, AnEmptyConfigIsAnEmptyConfiguration)
{
    replay({{DefaultOperation::merge, ttl_64, "ok"},
            {DefaultOperation::merge, "-", "ok"},
            {DefaultOperation::replace, "-", "ok"}},
           {});
}

// A key whose value does not fit its type is invalid-value, as any leaf's;
// the agent answers missing-element, though the key is there.
TEST(EditPropertyCases, AKeyValueThatDoesNotFitIsInvalidValue)
{
    replay({{DefaultOperation::merge,
             tunnel("tunnel-ip1", "<ipv4><addresses><address><ip>1.2.3</ip></address></addresses>"
                                  "</ipv4>"),
             "invalid-value"}},
           {});
}

// default-operation none: data without a corresponding level in the
// configuration is data-missing, a remove beside it notwithstanding.  The
// agent lets an absent entry pass as soon as something below it removes,
// and answers ok (for the same edit on an interface that exists it answers
// data-missing).
TEST(EditPropertyCases, UnderNoneARemoveDoesNotExcuseOtherDataBelowAnAbsentEntry)
{
    replay({{DefaultOperation::none,
             tunnel("tunnel-ip4",
                    "<config><ttl nc:operation=\"remove\"/><src>192.0.2.1</src></config>"),
             "data-missing"}},
           {});
}

// An address shows config/ip, its key, whether or not an edit gave it: an
// edit that leaves config/ip out of an address it keeps (a replace above
// it, a delete or remove of config or config/ip) keeps the address as it
// was; an edit that gives it another value is refused as it is on a new
// address.  The agent refuses the first: operation-not-supported for IPv4
// (but for a replace of the entry or of its config), operation-failed with
// no error-path for IPv6 ("a list key cannot be deleted apart from its
// entry"); and answers the second for IPv6 with the same operation-failed.
TEST(EditPropertyCases, AnAddressKeepsItsConfigIpWhenAnEditLeavesItOut)
{
    const std::string v4 = "<ipv4><addresses><address><ip>192.0.2.5</ip>";
    const std::string v6 = "<ipv6><addresses><address><ip>2001:db8::1</ip>";
    const std::string end = "</address></addresses>";
    replay({{DefaultOperation::merge,
             tunnel("tunnel-ip1", v4 + end + "</ipv4>" + v6 +
                                      "<config><prefix-length>64</prefix-length></config>" + end +
                                      "</ipv6>"),
             "ok"},
            {DefaultOperation::merge,
             tunnel("tunnel-ip1", "<ipv4 nc:operation=\"replace\"><addresses><address><ip>"
                                  "192.0.2.5</ip>" +
                                      end + "</ipv4>"),
             "ok"},
            {DefaultOperation::merge,
             tunnel("tunnel-ip1",
                    v4 + "<config><ip nc:operation=\"remove\"/></config>" + end + "</ipv4>"),
             "ok"},
            {DefaultOperation::merge,
             tunnel("tunnel-ip1", v6 +
                                      "<config nc:operation=\"replace\"><prefix-length>48"
                                      "</prefix-length></config>" +
                                      end + "</ipv6>"),
             "ok"},
            {DefaultOperation::merge,
             tunnel("tunnel-ip1", v6 + "<config><ip>2001:db8::2</ip></config>" + end + "</ipv6>"),
             "invalid-value|data-missing"}},
           {t1 + "/name=tunnel-ip1", t1 + "/tunnel/ipv4/addresses/address[192.0.2.5]/ip=192.0.2.5",
            t1 + "/tunnel/ipv4/addresses/address[192.0.2.5]/config/ip=192.0.2.5",
            t1 + "/tunnel/ipv6/addresses/address[2001:db8::1]/ip=2001:db8::1",
            t1 + "/tunnel/ipv6/addresses/address[2001:db8::1]/config/ip=2001:db8::1",
            t1 + "/tunnel/ipv6/addresses/address[2001:db8::1]/config/prefix-length=48"});
}

// An interface's config/name is not kept (get-config never shows it), so
// an edit that sets it is operation-not-supported, as for any value other
// than the key.  The agent answers ok to config/name equal to the key and
// drops it.
TEST(EditPropertyCases, AnInterfaceConfigNameIsNotKept)
{
    replay({{DefaultOperation::merge, ttl_64, "ok"},
            {DefaultOperation::merge,
             "<interface><name>tunnel-ip1</name><config><name>tunnel-ip1</name></config>"
             "</interface>",
             "operation-not-supported"}},
           {t1 + "/name=tunnel-ip1", t1 + "/tunnel/config/ttl=64"});
}

} // namespace
