// The agent's parts without a network: subtree filtering, the native
// datastore's edits, the relay's guard, and requests through the loaded
// module.
#include "agent.h"
#include "datastore.h"
#include "filter.h"
#include "guard.h"
#include "tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

using namespace octunnel;
using namespace octunnel::serve;
namespace fs = std::filesystem;

const std::string IFMGR = "http://valmora.com/ns/yang/Valmora-ifmgr-cfg";
const std::string GRE = "http://valmora.com/ns/yang/Valmora-tunnel-gre-cfg";
const std::string V6 = "http://valmora.com/ns/yang/Valmora-ipv6-ma-cfg";

std::unique_ptr<Tree> tree_of(const std::string &xml)
{
    auto tree = std::make_unique<Tree>();
    adopt(*tree, read_xml(xml, 1 << 20));
    return tree;
}

std::string xml_of(const Node &holder, uint64_t pass = 0, Prune prune = Prune::nothing)
{
    std::string out;
    XmlSink sink(out);
    write(holder, sink, prune, pass);
    return out;
}

// What `filter` selects of `data`, as XML.
std::string selected(const std::string &data, const std::string &filter)
{
    auto d = tree_of(data);
    auto f = tree_of(filter);
    const Node *holders[] = {&d->root()};
    return xml_of(d->root(), select(f->root(), holders));
}

// Interface configurations of tunnels `from` to `to`, each with a ttl and,
// for even ones, a GRE key.
std::string interfaces(int from, int to)
{
    std::string s = "<interface-configurations xmlns=\"" + IFMGR + "\">";
    for (int i = from; i <= to; ++i) {
        s += "<interface-configuration><active>act</active><interface-name>tunnel-ip" +
             std::to_string(i) + "</interface-name><tunnel-ip xmlns=\"" + GRE + "\"><ttl><value>" +
             std::to_string(i) + "</value></ttl>";
        if (i % 2 == 0)
            s += "<key><value>" + std::to_string(1000 + i) + "</value></key>";
        s += "</tunnel-ip></interface-configuration>";
    }
    return s + "</interface-configurations>";
}

std::string entry_filter(const std::string &inside)
{
    return "<interface-configurations xmlns=\"" + IFMGR + "\"><interface-configuration>" + inside +
           "</interface-configuration></interface-configurations>";
}

std::size_t count(const std::string &s, const std::string &what)
{
    std::size_t n = 0;
    for (auto at = s.find(what); at != std::string::npos; at = s.find(what, at + 1))
        ++n;
    return n;
}

// ---------------------------------------------------------------- filters

TEST(SubtreeFilter, SelectionContainmentAndContentMatchByTheRules)
{
    const std::string data = interfaces(1, 4);
    // A selection node: every entry whole.
    EXPECT_EQ(selected(data, "<interface-configurations xmlns=\"" + IFMGR + "\"/>"),
              xml_of(tree_of(data)->root()));
    // Content matches alone: the entries they match, whole.
    std::string one = selected(data, entry_filter("<interface-name>tunnel-ip2</interface-name>"));
    EXPECT_EQ(count(one, "<interface-configuration>"), 1u);
    EXPECT_NE(one.find("<value>1002</value>"), std::string::npos);
    // A content match with a selection sibling: the match, the selection
    // and the keys of the entry; nothing else of it.
    std::string ttl = selected(data, entry_filter("<interface-name>tunnel-ip3</interface-name>"
                                                  "<tunnel-ip xmlns=\"" +
                                                  GRE + "\"><ttl/></tunnel-ip>"));
    EXPECT_NE(ttl.find("<active>act</active>"), std::string::npos);
    EXPECT_NE(ttl.find("<value>3</value>"), std::string::npos);
    EXPECT_EQ(ttl.find("<key>"), std::string::npos);
    // A content match that holds nowhere selects nothing, and a selection
    // that finds nothing in an entry leaves the entry out.
    EXPECT_EQ(selected(data, entry_filter("<interface-name>tunnel-ip9</interface-name>")), "");
    std::string keys =
        selected(data, entry_filter("<tunnel-ip xmlns=\"" + GRE + "\"><key/></tunnel-ip>"));
    EXPECT_EQ(count(keys, "<interface-configuration>"), 2u) << keys;
    // A content match deeper down keeps its container whole where it holds.
    std::string deep = selected(data, entry_filter("<tunnel-ip xmlns=\"" + GRE +
                                                   "\"><ttl><value>4</value></ttl></tunnel-ip>"));
    EXPECT_EQ(count(deep, "<interface-configuration>"), 1u) << deep;
    EXPECT_NE(deep.find("<interface-name>tunnel-ip4</interface-name>"), std::string::npos);
}

TEST(SubtreeFilter, OverlappingFiltersSelectOnceAndNamespacesMatch)
{
    const std::string data = interfaces(1, 3);
    // The same entry twice, once whole and once in part: once, whole.
    std::string both =
        selected(data, "<interface-configurations xmlns=\"" + IFMGR +
                           "\"><interface-configuration><interface-name>tunnel-ip2"
                           "</interface-name></interface-configuration><interface-configuration>"
                           "<interface-name>tunnel-ip2</interface-name><tunnel-ip xmlns=\"" +
                           GRE +
                           "\"><ttl/></tunnel-ip></interface-configuration>"
                           "</interface-configurations>");
    EXPECT_EQ(count(both, "<interface-configuration>"), 1u) << both;
    EXPECT_NE(both.find("<value>1002</value>"), std::string::npos);
    // Without a namespace an element matches any; with another, none.
    EXPECT_EQ(count(selected(data, "<interface-configurations xmlns=\"\"/>"),
                    "<interface-configuration>"),
              3u);
    EXPECT_EQ(selected(data, "<interface-configurations xmlns=\"urn:other\"/>"), "");
}

TEST(SubtreeFilter, EntriesNamedByKeyAmongManyAreFoundByTheIndex)
{
    // Beyond eight entries a parent finds an entry by its keys: the same
    // entries as a scan would, in the order of the data.
    const std::string data = interfaces(1, 500);
    std::string filter = "<interface-configurations xmlns=\"" + IFMGR + "\">";
    for (int i : {400, 7, 123})
        filter += "<interface-configuration><active>act</active><interface-name>tunnel-ip" +
                  std::to_string(i) + "</interface-name><tunnel-ip xmlns=\"" + GRE +
                  "\"><ttl/></tunnel-ip></interface-configuration>";
    filter += "</interface-configurations>";
    std::string got = selected(data, filter);
    EXPECT_EQ(count(got, "<interface-configuration>"), 3u);
    EXPECT_LT(got.find("tunnel-ip7<"), got.find("tunnel-ip123<"));
    EXPECT_LT(got.find("tunnel-ip123<"), got.find("tunnel-ip400<"));
    EXPECT_EQ(got.find("<key>"), std::string::npos);
}

// ---------------------------------------------------------------- datastore

class DatastoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("octunnel-datastore-" + std::to_string(getpid()));
        fs::create_directories(dir_);
        path_ = (dir_ / "running.xml").string();
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string file() const
    {
        std::ifstream in(path_);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }
    static std::string edit_of(const std::string &inside)
    {
        return "<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
               "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" +
               inside + "</config>";
    }
    bool edit(Datastore &ds, const std::string &inside,
              DefaultOperation op = DefaultOperation::merge, bool test_only = false)
    {
        return ds.edit(*tree_of(edit_of(inside)), op, test_only);
    }
    static std::string one(const std::string &inside)
    {
        return "<interface-configurations xmlns=\"" + IFMGR +
               "\"><interface-configuration><active>act</active><interface-name>tunnel-ip1"
               "</interface-name>" +
               inside + "</interface-configuration></interface-configurations>";
    }

    fs::path dir_;
    std::string path_;
};

TEST_F(DatastoreTest, OperationsByTheRfc)
{
    Datastore ds(path_);
    edit(ds, one("<tunnel-ip xmlns=\"" + GRE + "\"><ttl><value>64</value></ttl></tunnel-ip>"));
    EXPECT_NE(file().find("<value>64</value>"), std::string::npos);
    // merge changes a value; create of it exists already; of another, no.
    edit(ds, one("<tunnel-ip xmlns=\"" + GRE + "\"><ttl><value>65</value></ttl></tunnel-ip>"));
    EXPECT_NE(file().find("<value>65</value>"), std::string::npos);
    try {
        edit(ds, one("<tunnel-ip xmlns=\"" + GRE +
                     "\"><ttl><value nc:operation=\"create\">1</value></ttl></tunnel-ip>"));
        ADD_FAILURE() << "create of an existing leaf";
    } catch (const EditError &e) {
        EXPECT_EQ(e.tag, "data-exists");
        EXPECT_EQ(e.path, "/interface-configurations/interface-configuration[active='act']"
                          "[interface-name='tunnel-ip1']/tunnel-ip/ttl/value");
    }
    edit(ds, one("<tunnel-ip xmlns=\"" + GRE +
                 "\"><key><value nc:operation=\"create\">7</value></key></tunnel-ip>"));
    // delete of what exists, then of what does not; remove of either.
    edit(ds, one("<tunnel-ip xmlns=\"" + GRE +
                 "\"><key><value nc:operation=\"delete\"/></key></tunnel-ip>"));
    EXPECT_THROW(edit(ds, one("<tunnel-ip xmlns=\"" + GRE +
                              "\"><key><value nc:operation=\"delete\"/></key></tunnel-ip>")),
                 EditError);
    edit(ds, one("<tunnel-ip xmlns=\"" + GRE +
                 "\"><key><value nc:operation=\"remove\"/></key></tunnel-ip>"));
    // The container the delete emptied went with it, and the remove left
    // none behind.
    EXPECT_EQ(file().find("<key"), std::string::npos);
    // replace takes what was there away.
    edit(ds, one("<tunnel-ip xmlns=\"" + GRE +
                 "\" nc:operation=\"replace\"><mode><value>1</value></mode></tunnel-ip>"));
    EXPECT_EQ(file().find("<ttl>"), std::string::npos);
    EXPECT_NE(file().find("<mode>"), std::string::npos);
}

TEST_F(DatastoreTest, AFailedEditLeavesTheConfigurationAsItWas)
{
    Datastore ds(path_);
    edit(ds, interfaces(1, 20));
    const std::string before = file();
    // Many changes, then one that cannot be: none stays, in memory or file.
    std::string inside = "<interface-configurations xmlns=\"" + IFMGR + "\">";
    for (int i = 1; i <= 20; ++i)
        inside += "<interface-configuration><active>act</active><interface-name>tunnel-ip" +
                  std::to_string(i) + "</interface-name><tunnel-ip xmlns=\"" + GRE +
                  "\" nc:operation=\"" + (i % 3 == 0 ? "delete" : "replace") +
                  "\"><ttl><value>9</value></ttl></tunnel-ip></interface-configuration>";
    inside += "<interface-configuration><active>act</active><interface-name>tunnel-ip99"
              "</interface-name><description nc:operation=\"delete\"/>"
              "</interface-configuration></interface-configurations>";
    EXPECT_THROW(edit(ds, inside), EditError);
    EXPECT_EQ(file(), before);
    EXPECT_EQ(native_document(ds.tree().root()), before);
    // test-only says what would happen, and keeps nothing.
    EXPECT_TRUE(edit(ds, one("<description>x</description>"), DefaultOperation::merge, true));
    EXPECT_EQ(native_document(ds.tree().root()), before);
    // Entries taken out and put back are found again by their keys.
    edit(ds, entry_filter("<active>act</active><interface-name>tunnel-ip5</interface-name>"
                          "<description>five</description>"));
    EXPECT_NE(file().find("<description>five</description>"), std::string::npos);
    EXPECT_EQ(count(file(), "<interface-configuration>"), 20u);
}

TEST_F(DatastoreTest, ListsWithoutKeysAndTheDefaultOperation)
{
    Datastore ds(path_);
    auto addresses = [&](const std::string &inside) {
        return one("<ipv6-network xmlns=\"" + V6 + "\"><addresses><regular-addresses>" + inside +
                   "</regular-addresses></addresses></ipv6-network>");
    };
    edit(ds, addresses("<regular-address><address>2001:db8::1</address></regular-address>"
                       "<regular-address><address>2001:db8::2</address></regular-address>"));
    EXPECT_EQ(count(file(), "<regular-address>"), 2u);
    // An entry without its key stands for all of them, to remove.
    edit(ds, addresses("<regular-address nc:operation=\"remove\"/>"));
    EXPECT_EQ(count(file(), "<regular-address>"), 0u);
    // ... not to write.
    EXPECT_THROW(edit(ds, addresses("<regular-address nc:operation=\"create\"/>")), EditError);
    // default-operation none: a level that is not there is data-missing
    // unless the edit only removes.
    try {
        edit(ds, interfaces(7, 7), DefaultOperation::none);
        ADD_FAILURE() << "none wrote a new entry";
    } catch (const EditError &e) {
        EXPECT_EQ(e.tag, "data-missing");
    }
    EXPECT_FALSE(edit(ds,
                      entry_filter("<active>act</active><interface-name>tunnel-ip7"
                                   "</interface-name><description nc:operation=\"remove\"/>"),
                      DefaultOperation::none));
    // default-operation replace: the configuration is what the edit holds.
    edit(ds, interfaces(3, 4), DefaultOperation::replace);
    EXPECT_EQ(count(file(), "<interface-configuration>"), 2u);
    EXPECT_EQ(file().find("tunnel-ip1<"), std::string::npos);
}

TEST_F(DatastoreTest, TheFileIsReadBackAsItWasWritten)
{
    {
        Datastore ds(path_);
        edit(ds, interfaces(1, 30));
        edit(ds, one("<description>a &lt;tricky&gt; &amp; \"quoted\" one\ttab</description>"));
    }
    const std::string written = file();
    Datastore again(path_);
    EXPECT_EQ(native_document(again.tree().root()), written);
    again.save();
    EXPECT_EQ(file(), written);
    // Nothing is left beside the file.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
}

// ---------------------------------------------------------------- guard

const std::string NC = "urn:ietf:params:xml:ns:netconf:base:1.0";

std::string hello_of(bool base11)
{
    return "<hello xmlns=\"" + NC +
           "\"><capabilities><capability>urn:ietf:params:netconf:base:1.0</capability>" +
           (base11 ? "<capability>\n urn:ietf:params:netconf:base:1.1 </capability>" : "") +
           "</capabilities></hello>]]>]]>";
}

std::string chunk(const std::string &m)
{
    return "\n#" + std::to_string(m.size()) + "\n" + m + "\n##\n";
}

std::string rpc(const std::string &body, const std::string &id = "7")
{
    return "<rpc xmlns=\"" + NC + "\" message-id=\"" + id + "\">" + body + "</rpc>";
}

// A guard past the hellos of both sides, its first output left behind.
struct Session {
    explicit Session(bool base11, std::size_t max = 1000) : guard(max)
    {
        guard.from_agent("<hello/>]]>]]>", out);
        guard.from_client(hello_of(base11), out);
        hello = out.to_agent;
        out = {};
    }
    // What the client gets of one message it sends, when libnetconf2
    // answers each request handed on with <ok/>.
    std::string exchange(const std::string &bytes)
    {
        guard.from_client(bytes, out);
        std::string got = out.to_client;
        out.to_client.clear();
        const std::string handed = out.to_agent;
        out.to_agent.clear();
        if (!handed.empty()) {
            const std::string ok = "<rpc-reply><ok/></rpc-reply>";
            guard.from_agent(guard.chunked() ? chunk(ok) : ok + "]]>]]>", out);
            got += out.to_client;
            out.to_client.clear();
        }
        return got;
    }
    SessionGuard guard;
    SessionGuard::Out out;
    std::string hello;
};

TEST(SessionGuard, HandsOnWholeMessagesFramedAnewAfterTheHelloItChose)
{
    const std::string get = rpc("<get/>");
    for (const bool base11 : {true, false}) {
        const std::string framed = base11 ? "\n#3\n" + get.substr(0, 3) + "\n#" +
                                                std::to_string(get.size() - 3) + "\n" +
                                                get.substr(3) + "\n##\n"
                                          : get + "]]>]]>";
        // Whole, or a byte at a time: the same.
        SessionGuard whole(1000), bytes(1000);
        SessionGuard::Out a, b;
        whole.from_client(hello_of(base11) + framed, a);
        for (char c : hello_of(base11) + framed)
            bytes.from_client(std::string_view(&c, 1), b);
        EXPECT_EQ(a.to_agent, b.to_agent);
        EXPECT_TRUE(a.to_client.empty());
        EXPECT_EQ(whole.chunked(), base11);
        // libnetconf2 hears the hello the guard chose, then the message in
        // one chunk.
        const std::string hello = "<hello xmlns=\"" + NC +
                                  "\"><capabilities><capability>urn:ietf:params:netconf:base:1.0"
                                  "</capability>" +
                                  (base11 ? "<capability>urn:ietf:params:netconf:base:1.1"
                                            "</capability>"
                                          : "") +
                                  "</capabilities></hello>]]>]]>";
        EXPECT_EQ(a.to_agent, hello + (base11 ? chunk(get) : get + "]]>]]>"));
        EXPECT_EQ(whole.unanswered(), 1u);
    }
}

TEST(SessionGuard, BrokenFramesAndHellosEndTheSession)
{
    struct Case {
        std::string hello, bytes, why;
    };
    const std::string h11 = hello_of(true);
    for (const Case &c : std::vector<Case>{
             {h11, "\n#0\n", "chunk size"},
             {h11, "\n##\n", "no chunk"},
             {h11, "\n#x\n", "chunk size"},
             {h11, "\n#01\n", "chunk size"},
             {h11, "\n#4294967296\n", "chunk size"},
             {h11, "\n#12345678901", "chunk size"},
             {h11, "x", "does not start"},
             {h11, "\n#3\nabc\n##x", "end mark"},
             {"<rpc xmlns=\"" + NC + "\" message-id=\"1\"><get/></rpc>]]>]]>", "", "not one"},
             {"<hello xmlns=\"" + NC + "\"><session-id>4</session-id></hello>]]>]]>", "",
              "session-id"},
             {"<hello xmlns=\"" + NC + "\"/>]]>]]>", "", "neither"},
             {"<hello xmlns=\"" + NC + "\">]]>]]>", "", "well-formed"},
             {std::string(max_hello + 6, ' '), "", "larger"},
         }) {
        SessionGuard g(1000);
        SessionGuard::Out out;
        g.from_client(c.hello + c.bytes, out);
        EXPECT_TRUE(g.ended()) << c.hello << c.bytes;
        EXPECT_NE(g.reason().find(c.why), std::string::npos) << g.reason();
        // Nothing more is taken, and the client is told nothing.
        g.from_client(chunk(rpc("<get/>")), out);
        EXPECT_TRUE(out.to_client.empty());
        EXPECT_EQ(out.to_agent.find("<get/>"), std::string::npos);
    }
}

TEST(SessionGuard, WhatLibnetconf2CannotTakeIsAnsweredHereAndTheSessionGoesOn)
{
    struct Case {
        std::string message, tag10, tag11, said;
    };
    const std::string deep = std::string("<rpc xmlns=\"") + NC + "\" message-id=\"3\">" + [] {
        std::string d;
        for (int i = 0; i < max_message_depth; ++i)
            d += "<a>";
        for (int i = 0; i < max_message_depth; ++i)
            d += "</a>";
        return d;
    }() + "</rpc>";
    for (const Case &c : std::vector<Case>{
             {"", "operation-failed", "malformed-message", "no element"},
             {" \r\n\t", "operation-failed", "malformed-message", "no element"},
             {"<?xml version=\"1.0\"?><!-- only -->", "operation-failed", "malformed-message",
              "not well-formed"},
             {rpc("<get>"), "operation-failed", "malformed-message", "not well-formed"},
             {rpc("<get/>") + "<more/>", "operation-failed", "malformed-message",
              "not well-formed"},
             {rpc("<x:get/>"), "operation-failed", "malformed-message", "not well-formed"},
             {rpc("&undeclared;<get/>"), "operation-failed", "malformed-message", "not well"},
             {"<!DOCTYPE rpc [<!ENTITY a \"b\">]>" + rpc("<get/>"), "operation-failed",
              "malformed-message", "document type"},
             {rpc("<get/>\xff"), "operation-failed", "malformed-message", "UTF-8"},
             {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + rpc("<get/>"), "operation-failed",
              "malformed-message", "UTF-8"},
             {"<hello xmlns=\"" + NC + "\"/>", "operation-failed", "malformed-message",
              "not an &lt;rpc&gt;"},
             {"<rpc message-id=\"1\"><get/></rpc>", "operation-failed", "malformed-message",
              "not an &lt;rpc&gt;"},
             {rpc("text<get/>"), "operation-failed", "malformed-message", "text beside"},
             {rpc("<![CDATA[ ]]><get/>"), "operation-failed", "malformed-message", "text beside"},
             {rpc("<get/><get/>"), "operation-failed", "malformed-message", "more than one"},
             {"<rpc xmlns=\"" + NC + "\"><get/></rpc>", "missing-attribute", "missing-attribute",
              "message-id"},
             {rpc(""), "missing-element", "missing-element", "no operation"},
             {deep, "too-big", "too-big", "deeper"},
         }) {
        for (const bool base11 : {false, true}) {
            Session s(base11, 100000);
            const std::string got =
                s.exchange(base11 ? (c.message.empty() ? "\n#1\n \n##\n" : chunk(c.message))
                                  : c.message + "]]>]]>");
            EXPECT_NE(got.find("<error-tag>" + (base11 ? c.tag11 : c.tag10) + "</error-tag>"),
                      std::string::npos)
                << c.message << " -> " << got;
            EXPECT_NE(got.find(c.said), std::string::npos) << got;
            EXPECT_EQ(s.guard.unanswered(), 0u);
            EXPECT_FALSE(s.guard.closing());
        }
    }
    // The answer carries the message-id when there is one, its text
    // escaped; an <rpc> whole goes on as it came.
    Session s(true);
    const std::string got = s.exchange(chunk(rpc("", "a&amp;&lt;b")));
    EXPECT_NE(got.find("message-id=\"a&amp;&lt;b\""), std::string::npos) << got;
    EXPECT_NE(got.find("<bad-element>rpc</bad-element>"), std::string::npos) << got;
    EXPECT_EQ(s.exchange(chunk(rpc("<get/>"))), chunk("<rpc-reply><ok/></rpc-reply>"));
}

TEST(SessionGuard, ItsAnswersWaitForLibnetconf2sToEarlierRequests)
{
    Session s(true);
    SessionGuard::Out &out = s.out;
    // A request handed on, then a malformed message: its answer waits.
    s.guard.from_client(chunk(rpc("<get/>", "1")) + chunk("<rpc"), out);
    EXPECT_TRUE(out.to_client.empty());
    EXPECT_EQ(s.guard.unanswered(), 1u);
    const std::string reply = chunk("<rpc-reply message-id=\"1\"><data/></rpc-reply>");
    // libnetconf2's reply in pieces: the guard's answer goes right after
    // its end.
    s.guard.from_agent(reply.substr(0, 10), out);
    EXPECT_EQ(out.to_client, reply.substr(0, 10));
    s.guard.from_agent(reply.substr(10), out);
    EXPECT_TRUE(out.to_client.starts_with(reply));
    EXPECT_NE(out.to_client.find("malformed-message", reply.size()), std::string::npos);

    // A message too large is answered too-big once what came before is
    // answered, and the session ends then.
    Session big(true, 100);
    big.guard.from_client(chunk(rpc("<get/>", "1")) + "\n#101\n", big.out);
    EXPECT_TRUE(big.guard.closing());
    EXPECT_FALSE(big.guard.ended());
    EXPECT_TRUE(big.out.to_client.empty());
    big.guard.from_agent(chunk("<rpc-reply/>"), big.out);
    EXPECT_TRUE(big.guard.ended());
    EXPECT_NE(big.out.to_client.find("too-big"), std::string::npos);
    // So is one of base:1.0 without its end mark, before it all came.
    Session old(false, 100);
    const std::string got = old.exchange(std::string(106, 'x'));
    EXPECT_NE(got.find("too-big"), std::string::npos);
    EXPECT_TRUE(old.guard.ended());
}

// ---------------------------------------------------------------- agent

class AgentTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("octunnel-agent-" + std::to_string(getpid()));
        AgentOptions o;
        o.state_dir = dir_.string();
        o.module_path = OCTUNNEL_MODULE_PATH;
        o.router_type = 13;
        agent_ = std::make_unique<Agent>(o, [this](const std::string &l) { log_ += l + "\n"; });
    }
    void TearDown() override { fs::remove_all(dir_); }

    static std::string oc(const std::string &inside)
    {
        return "<interfaces xmlns=\"http://openconfig.net/yang/interfaces\"><interface><name>"
               "tunnel-ip12</name><tunnel xmlns=\"http://openconfig.net/yang/interfaces/tunnel\">" +
               inside + "</tunnel></interface></interfaces>";
    }

    fs::path dir_;
    std::string log_;
    std::unique_ptr<Agent> agent_;
};

TEST_F(AgentTest, AnEditComesBackThroughTheModule)
{
    ASSERT_TRUE(agent_
                    ->edit_config(1, oc("<config><src>192.0.2.1</src><ttl>64</ttl></config>"),
                                  DefaultOperation::merge, false)
                    .ok());
    Outcome all = agent_->read(1, true, std::nullopt);
    ASSERT_TRUE(all.ok());
    EXPECT_NE(all.data.find("<src>192.0.2.1</src>"), std::string::npos) << all.data;
    // A filter of one leaf: that leaf, under the entry's key.
    Outcome ttl = agent_->read(1, true, oc("<config><ttl/></config>"));
    ASSERT_TRUE(ttl.ok());
    EXPECT_NE(ttl.data.find("<ttl>64</ttl>"), std::string::npos);
    EXPECT_NE(ttl.data.find("<name>tunnel-ip12</name>"), std::string::npos);
    EXPECT_EQ(ttl.data.find("<src>"), std::string::npos) << ttl.data;
}

TEST_F(AgentTest, RefusalsAndLocksAreNetconfErrors)
{
    Outcome refused = agent_->edit_config(1, oc("<config><src>2001:db8::1</src></config>"),
                                          DefaultOperation::merge, false);
    ASSERT_EQ(refused.errors.size(), 1u);
    EXPECT_EQ(refused.errors[0].tag, "operation-not-supported");
    EXPECT_EQ(refused.errors[0].app_tag, "YFW_ERR_NOT_SUPPORTED");
    EXPECT_EQ(refused.errors[0].path, "/interfaces/interface[name='tunnel-ip12']/tunnel/config");
    EXPECT_FALSE(fs::exists(agent_->running_path()));

    ASSERT_TRUE(agent_->lock(1).ok());
    Outcome denied = agent_->lock(2);
    ASSERT_FALSE(denied.ok());
    EXPECT_EQ(denied.errors[0].tag, "lock-denied");
    EXPECT_EQ(denied.errors[0].session_id, 1u);
    EXPECT_EQ(
        agent_->edit_config(2, oc("<config><ttl>1</ttl></config>"), DefaultOperation::merge, false)
            .errors.at(0)
            .tag,
        "lock-denied");
    agent_->session_ended(1);
    EXPECT_TRUE(agent_->lock(2).ok());

    Outcome malformed = agent_->edit_config(2, "<interfaces xmlns=\"x\"><a></b></interfaces>",
                                            DefaultOperation::merge, false);
    ASSERT_FALSE(malformed.ok());

    // The tunnel id of a state read starts inside the name's 'é': the
    // module's native filter is no text, and is refused, not used.
    Outcome cut =
        agent_->read(2, false,
                     "<interfaces xmlns=\"http://openconfig.net/yang/interfaces\"><interface><name>"
                     "tunnel-i\xc3\xa9"
                     "7</name><tunnel xmlns=\"http://openconfig.net/yang/interfaces/tunnel\">"
                     "<state><ttl/></state></tunnel></interface></interfaces>");
    ASSERT_FALSE(cut.ok());
    EXPECT_EQ(cut.errors[0].tag, "operation-failed");
    EXPECT_NE(cut.errors[0].message.find("not UTF-8"), std::string::npos);
}

} // namespace
