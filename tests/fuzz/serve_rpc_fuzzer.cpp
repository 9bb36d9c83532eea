// A session of `octunnel serve`, driven by a fuzzer in process: what a
// client sends goes through the relay's guard (serve/guard.h) and its
// screen (serve/screen.h), and each message the guard hands on is parsed
// by libyang as libnetconf2 parses it and answered by the agent's own
// handlers (serve/requests.h) against a small native running configuration
// in a directory of its own.  Held to:
//
// - libyang parses each message handed on into an operation: the screen
//   answers every other itself, as libnetconf2 would answer it in terms of
//   its own, die on an operation of nothing or pass a message over
//   unanswered;
// - the guard hands on each message of the client byte for byte, framed
//   anew, and its own answers and libnetconf2's reach the client in the
//   order of the requests: one well-formed <rpc-reply> for each message,
//   until the session ends;
// - the session ends exactly where a plain reading of the frames (below,
//   apart from the guard's) finds them broken or a message too large, the
//   last answered too-big;
// - every answer's data is well-formed XML, every error's tag one of RFC
//   6241 and its text XML can hold;
// - the configuration file stays a document the agent reads back, and an
//   edit that failed or only tested leaves it as it was;
// - under the access control rules (bit 5), each operation is first
//   authorized as the server does it, and the session's user, of a group
//   that may read everything but the tunnels' configured ttl and write
//   nothing, never changes the configuration file and never reads a <ttl>.
//
// The input is one byte of flags, then what the client sends:
//
//   bit 0   the harness says hello with base:1.1 first (else base:1.0 alone)
//   bit 1   the harness says no hello: the input starts with the client's
//   bit 2   another session holds the lock of the running configuration
//   bits 3-4 the client's bytes come whole, or 1, 5 or 61 at a time
//   bit 5   the rules below are in force
//   bit 6   the requests in flight may hold 1,000 bytes: a larger message
//           is answered resource-denied, read to its end without being kept
//
// tools/fuzz_corpus.py writes the seeds in this form; with
// OCTUNNEL_FUZZ_SHOW set, what the client got goes to stderr.  Built
// without libFuzzer, it replays its inputs (replay_main.h).
#include "agent/agent.h"
#include "agent/datastore.h"
#include "netconf/guard.h"
#include "netconf/requests.h"
#include "netconf/screen.h"

#include <libxml/parser.h>
#include <libyang/libyang.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <unistd.h>

namespace {

using namespace octunnel;
using namespace octunnel::serve;
namespace fs = std::filesystem;

// Small enough for a fuzzer to reach.
constexpr std::size_t max_message = 4096;
constexpr std::string_view end_mark = "]]>]]>";

const std::string running_seed =
    "<data xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">"
    "<interface-configurations xmlns=\"http://valmora.com/ns/yang/Valmora-ifmgr-cfg\">"
    "<interface-configuration><active>act</active><interface-name>tunnel-ip12</interface-name>"
    "<tunnel-ip xmlns=\"http://valmora.com/ns/yang/Valmora-tunnel-gre-cfg\">"
    "<source><address>192.0.2.1</address><type>2</type></source><mode><value>1</value></mode>"
    "<destination><address>198.51.100.7</address><type>1</type></destination>"
    "<ttl><value>64</value></ttl></tunnel-ip></interface-configuration>"
    "<interface-configuration><active>act</active><interface-name>tunnel-ip7</interface-name>"
    "<tunnel-ip xmlns=\"http://valmora.com/ns/yang/Valmora-tunnel-gre-cfg\">"
    "<key><value>1007</value></key></tunnel-ip></interface-configuration>"
    "</interface-configurations></data>\n";

// A group that reads all but the tunnels' configured ttl, writes nothing
// and may not lock.
const std::string fuzz_rules =
    "<nacm xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-acm\" "
    "xmlns:oc-if=\"http://openconfig.net/yang/interfaces\" "
    "xmlns:oc-tun=\"http://openconfig.net/yang/interfaces/tunnel\">"
    "<groups><group><name>held</name><user-name>fuzzer</user-name></group></groups>"
    "<rule-list><name>held</name><group>held</group>"
    "<rule><name>lock</name><rpc-name>lock</rpc-name><action>deny</action></rule>"
    "<rule><name>ttl</name><path>/oc-if:interfaces/oc-if:interface/oc-tun:tunnel/oc-tun:config/"
    "oc-tun:ttl</path><action>deny</action></rule>"
    "<rule><name>writes</name><access-operations>create update delete</access-operations>"
    "<action>deny</action></rule>"
    "<rule><name>reads</name><access-operations>read</access-operations><action>permit</action>"
    "</rule></rule-list></nacm>";

[[noreturn]] void broken(const std::string &what, std::string_view detail = {})
{
    std::cerr << "octunnel broke its promise: " << what << "\n";
    if (!detail.empty())
        std::cerr << "  " << std::string(detail.substr(0, 2000)) << "\n";
    std::abort();
}

void silent(void *, const char *, ...) {}

bool well_formed(std::string_view xml, std::string_view root = {})
{
    xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    bool ok = doc != nullptr;
    if (ok && !root.empty()) {
        const xmlNode *top = xmlDocGetRootElement(doc);
        ok = top != nullptr && std::string_view(reinterpret_cast<const char *>(top->name)) == root;
    }
    xmlFreeDoc(doc);
    return ok;
}

// Text an XML document may hold, once escaped: UTF-8 without control
// characters.
bool xml_text(std::string_view s)
{
    std::string e = "<t>";
    escape_xml(e, s);
    return well_formed(e + "</t>");
}

// The error-tags of RFC 6241, each between blanks.
constexpr std::string_view rfc_tags =
    " in-use invalid-value too-big missing-attribute bad-attribute unknown-attribute "
    "missing-element bad-element unknown-element unknown-namespace access-denied lock-denied "
    "resource-denied rollback-failed data-exists data-missing operation-not-supported "
    "operation-failed malformed-message ";

// ---------------------------------------------------------------- frames

// The messages of a stream as RFC 6242 frames them, read plainly from the
// whole of it, apart from the guard's reading: where it ends and how, each
// message no larger than `limit`.
struct Frames {
    enum End { open, broken, too_big, bad_hello } end = open;
    std::vector<std::string> messages;
    std::size_t rest = 0; // bytes after the last whole message
};

Frames frames_of(std::string_view s, bool chunked, std::size_t limit)
{
    Frames f;
    std::size_t at = 0;
    const auto stop = [&](Frames::End end) {
        f.end = end;
        f.rest = s.size() - at;
        return f;
    };
    while (at < s.size()) {
        if (!chunked) {
            const std::size_t mark = s.find(end_mark, at);
            if (mark == std::string_view::npos)
                return stop(s.size() - at >= limit + end_mark.size() ? Frames::too_big
                                                                     : Frames::open);
            if (mark - at > limit)
                return stop(Frames::too_big);
            f.messages.emplace_back(s.substr(at, mark - at));
            at = mark + end_mark.size();
            continue;
        }
        std::string message;
        for (std::size_t i = at;;) {
            // "\n#" then "#\n" (the end, after a chunk) or a size and "\n";
            // a stream that stops before either is still open.
            if (i + 2 >= s.size())
                return s.substr(i) == std::string_view("\n#").substr(0, s.size() - i)
                           ? stop(Frames::open)
                           : stop(Frames::broken);
            if (s[i] != '\n' || s[i + 1] != '#')
                return stop(Frames::broken);
            i += 2;
            if (s[i] == '#') {
                if (message.empty() || (i + 1 < s.size() && s[i + 1] != '\n'))
                    return stop(Frames::broken);
                if (i + 1 == s.size())
                    return stop(Frames::open);
                at = i + 2;
                break;
            }
            uint64_t size = 0;
            std::size_t digits = 0;
            for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, ++digits) {
                size = size * 10 + static_cast<uint64_t>(s[i] - '0');
                if ((digits == 0 && s[i] == '0') || size > 4294967295u)
                    return stop(Frames::broken);
            }
            if (i == s.size())
                return stop(Frames::open);
            if (digits == 0 || s[i] != '\n')
                return stop(Frames::broken);
            if (message.size() + size > limit)
                return stop(Frames::too_big);
            if (s.size() - ++i < size)
                return stop(Frames::open);
            message.append(s.substr(i, static_cast<std::size_t>(size)));
            i += static_cast<std::size_t>(size);
        }
        f.messages.push_back(std::move(message));
    }
    return f;
}

// What the client sent, from its hello on.
Frames client_frames(std::string_view s)
{
    const std::size_t mark = s.find(end_mark);
    Frames f;
    if (mark == std::string_view::npos) {
        f.end = s.size() >= max_hello + end_mark.size() ? Frames::bad_hello : Frames::open;
        return f;
    }
    const MessageCheck c = check_message(s.substr(0, mark), true);
    if (mark > max_hello || !c.ok) {
        f.end = Frames::bad_hello;
        return f;
    }
    return frames_of(s.substr(mark + end_mark.size()), c.base11, max_message);
}

// ---------------------------------------------------------------- harness

struct Harness {
    fs::path dir;
    ly_ctx *ctx = nullptr;

    Harness()
    {
        // In memory where there is a place for it: every edit flushes the
        // file to the disk, which would be most of the time spent.
        std::string pattern = fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
        pattern += "/octunnel-serve-fuzz-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            std::abort();
        dir = pattern;
        xmlSetGenericErrorFunc(nullptr, silent);
        ly_log_options(0);
        // Each session's agent loads the module and lets it go; it stays
        // loaded all along, as the fuzzer counts what it covers.
        if (dlopen(OCTUNNEL_MODULE_PATH, RTLD_NOW | RTLD_NODELETE) == nullptr)
            std::abort();
        ctx = served_context(OCTUNNEL_YANG_DIR);
    }
    ~Harness()
    {
        ly_ctx_destroy(ctx);
        fs::remove_all(dir);
    }
    std::string running() const
    {
        std::ifstream in(dir / "running.xml", std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), {});
    }
};

Harness &harness()
{
    static Harness h;
    return h;
}

// libnetconf2's answer, marked with the number of the request handed on,
// or the screen's (no number).
std::string reply_text(std::optional<std::size_t> seq, const Reply &r)
{
    std::string out = seq ? "<rpc-reply seq=\"" + std::to_string(*seq) + "\">" : "<rpc-reply>";
    if (!r.outcome.ok()) {
        for (const RpcError &e : r.outcome.errors) {
            if (e.tag.empty() || e.tag.find(' ') != std::string::npos ||
                rfc_tags.find(" " + e.tag + " ") == std::string_view::npos)
                broken("an error-tag RFC 6241 does not have: " + e.tag);
            for (const std::string *text :
                 {&e.message, &e.path, &e.app_tag, &e.bad_element, &e.bad_attribute})
                if (!xml_text(*text))
                    broken("an error's text XML cannot hold", *text);
            // The namespaces of the path's prefixes, declared on an element.
            std::string declared = "<t";
            for (const auto &[prefix, ns] : e.path_namespaces) {
                declared += " xmlns:" + prefix + "=\"";
                escape_xml(declared, ns, true);
                declared += "\"";
            }
            if (!well_formed(declared + "/>"))
                broken("an error-path whose namespaces cannot be declared", declared);
            out += "<rpc-error><error-tag>" + e.tag + "</error-tag></rpc-error>";
        }
    } else if (r.data) {
        out += "<data>" + r.outcome.data + "</data>";
    } else {
        out += "<ok/>";
    }
    return out + "</rpc-reply>";
}

std::string framed(std::string_view message, bool chunked)
{
    if (!chunked)
        return std::string(message) + std::string(end_mark);
    return "\n#" + std::to_string(message.size()) + "\n" + std::string(message) + "\n##\n";
}

// libnetconf2's part: parses a message handed on as it does, and answers it
// with the agent's handlers.
std::string answer(Agent &agent, const std::string &message, std::size_t seq, bool held)
{
    Harness &h = harness();
    ly_in *in = nullptr;
    if (ly_in_new_memory(message.c_str(), &in) != LY_SUCCESS)
        std::abort();
    lyd_node *envelope = nullptr, *op = nullptr;
    const LY_ERR rc =
        lyd_parse_op(h.ctx, nullptr, in, LYD_XML, LYD_TYPE_RPC_NETCONF, &envelope, &op);
    ly_in_free(in, 0);
    if (rc != LY_SUCCESS || op == nullptr)
        broken("libyang refused a message the screen handed on", message);
    Reply r;
    {
        const std::string before = h.running();
        const bool test_only = text_of(param(op, "test-option")) == "test-only";
        const bool edit = std::string_view(LYD_NAME(op)) == "edit-config";
        if (auto denied = agent.authorize(1, op->schema))
            r.outcome = Outcome::error(*denied);
        else if (auto handled = handle_request(agent, op, 1))
            r = std::move(*handled);
        else
            r.outcome = failure("operation-not-supported", "not here");
        if (edit) {
            const std::string after = h.running();
            if ((!r.outcome.ok() || test_only) && after != before)
                broken("an edit that failed or only tested changed the configuration file");
            if (held && after != before)
                broken("a user who may write nothing changed the configuration file");
            if (!after.empty()) {
                if (!well_formed(after, "data"))
                    broken("the configuration file is no document", after);
                try {
                    Datastore again((h.dir / "running.xml").string());
                } catch (const std::exception &e) {
                    broken("the agent cannot read its configuration file back", e.what());
                }
            }
        }
    }
    lyd_free_all(envelope);
    lyd_free_all(op);
    if (held && r.outcome.data.find("<ttl>") != std::string::npos)
        broken("a user read what the rules hide", r.outcome.data);
    return reply_text(seq, r);
}

const std::string agent_hello =
    "<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities>"
    "<capability>urn:ietf:params:netconf:base:1.0</capability>"
    "<capability>urn:ietf:params:netconf:base:1.1</capability></capabilities>"
    "<session-id>1</session-id></hello>]]>]]>";

std::string client_hello(bool base11)
{
    return std::string("<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities>"
                       "<capability>urn:ietf:params:netconf:base:1.0</capability>") +
           (base11 ? "<capability>urn:ietf:params:netconf:base:1.1</capability>" : "") +
           "</capabilities></hello>]]>]]>";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size < 1)
        return -1;
    Harness &h = harness();
    const uint8_t flags = data[0];
    const bool base11 = flags & 1, own_hello = flags & 2, locked = flags & 4, held = flags & 32,
               budgeted = flags & 64;
    const std::size_t piece = std::array<std::size_t, 4>{0, 1, 5, 61}[(flags >> 3) & 3];
    std::string stream(reinterpret_cast<const char *>(data) + 1, size - 1);
    if (!own_hello)
        stream = client_hello(base11) + stream;

    fs::remove_all(h.dir);
    fs::create_directory(h.dir);
    {
        std::ofstream(h.dir / "running.xml", std::ios::binary) << running_seed;
    }
    AgentOptions o;
    o.state_dir = h.dir.string();
    o.module_path = OCTUNNEL_MODULE_PATH;
    o.max_content = max_message;
    static const auto models = std::make_shared<const OpenConfigModels>(OCTUNNEL_YANG_DIR);
    o.models = models;
    static const auto rules = nacm::parse_rules(models->context(), fuzz_rules, "fuzz rules");
    if (held)
        o.rules = rules;
    Agent agent(o, [](const std::string &) {});
    agent.session_began(1, "fuzzer", false);
    if (locked && !agent.lock(2).ok())
        std::abort();

    // The session: the agent's hello first, then what the client sends,
    // each message handed on answered at once.
    RequestBudget budget(budgeted ? 1000 : SIZE_MAX);
    SessionGuard guard(
        max_message,
        [&](const std::string &message, const std::string &) {
            std::optional<std::string> reply;
            if (auto e = screen_rpc(h.ctx, message)) {
                Reply r;
                r.outcome = Outcome::error(*e);
                reply = reply_text(std::nullopt, r);
            }
            return reply;
        },
        &budget);
    SessionGuard::Out out;
    std::vector<std::string> handed_on;
    bool hello_seen = false;
    guard.from_agent(agent_hello, out);
    for (std::size_t at = 0; at < stream.size() && !guard.ended();) {
        const std::size_t n = piece == 0 ? stream.size() : std::min(piece, stream.size() - at);
        // What the guard does not take while its own answers wait it takes
        // once libnetconf2 has answered (below), unless the session ends.
        const std::size_t took = guard.from_client(std::string_view(stream).substr(at, n), out);
        at += guard.closing() ? n : took;
        std::string_view handed = out.to_agent;
        if (!hello_seen && !handed.empty()) {
            // The hello handed on offers base:1.1 exactly when the guard
            // went on in chunks.
            const std::string_view hello = handed.substr(0, handed.find(end_mark));
            if (!well_formed(hello, "hello") ||
                (hello.find(serve::base11) != std::string_view::npos) != guard.chunked())
                broken("the hello handed on is not the one the guard chose", hello);
            handed.remove_prefix(std::min(handed.size(), hello.size() + end_mark.size()));
            hello_seen = true;
        }
        // The guard hands on whole messages only.
        const Frames f = frames_of(handed, guard.chunked(), max_message);
        if (f.end != Frames::open || f.rest != 0)
            broken("the guard handed on broken frames", handed);
        std::string replies;
        for (const std::string &m : f.messages) {
            replies += framed(answer(agent, m, handed_on.size(), held), guard.chunked());
            handed_on.push_back(m);
        }
        out.to_agent.clear();
        guard.from_agent(replies, out);
        // Every request handed on is answered: what is held is the message
        // in hand at most.
        if (budget.held() > budget.limit() || (budgeted && budget.held() > 1000))
            broken("the requests in flight hold more than the budget");
    }

    const std::string &to_client = out.to_client;
    if (std::getenv("OCTUNNEL_FUZZ_SHOW") != nullptr)
        std::cerr << to_client << "\n---\n";
    // What the client sent, framed plainly, against what the guard did.
    const Frames sent = client_frames(stream);
    const bool ends = sent.end != Frames::open;
    if (guard.ended() != ends)
        broken(ends ? "the session goes on past broken frames or a message too large"
                    : "the session ended where its frames were whole: " + guard.reason());
    const std::size_t hello_end = to_client.find(end_mark);
    if (hello_end == std::string::npos)
        broken("the client got no hello");
    const Frames got = frames_of(std::string_view(to_client).substr(hello_end + end_mark.size()),
                                 guard.chunked(), to_client.size());
    if (got.end != Frames::open || got.rest != 0)
        broken("the client got broken frames", to_client);
    const std::vector<std::string> &replies = got.messages;
    const std::size_t expected = sent.end == Frames::bad_hello
                                     ? 0
                                     : sent.messages.size() + (sent.end == Frames::too_big ? 1 : 0);
    if (replies.size() != expected)
        broken("the client got " + std::to_string(replies.size()) + " replies to " +
               std::to_string(expected) + " messages");
    std::size_t k = 0; // messages handed on so far
    for (std::size_t i = 0; i < replies.size(); ++i) {
        if (!well_formed(replies[i], "rpc-reply"))
            broken("a reply that is not well-formed XML", replies[i]);
        const bool from_agent = replies[i].find(" seq=\"") != std::string::npos;
        const bool handed =
            i < sent.messages.size() && k < handed_on.size() && handed_on[k] == sent.messages[i];
        if (from_agent != handed)
            broken("a reply out of order, or a message handed on changed", replies[i]);
        if (handed && replies[i].find(" seq=\"" + std::to_string(k) + "\"") == std::string::npos)
            broken("libnetconf2's replies out of order", replies[i]);
        k += handed ? 1 : 0;
    }
    if (k != handed_on.size())
        broken("a message handed on that the client did not send");
    if (sent.end == Frames::too_big &&
        replies.back().find("<error-tag>too-big</error-tag>") == std::string::npos)
        broken("a message too large not answered too-big", replies.back());
    return 0;
}

#include "replay_main.h"
