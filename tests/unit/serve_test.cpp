// The agent's parts without a network: subtree filtering of native data, the
// datastore's edits and its file, the relay's guard and its screen.  What the
// agent does through the module is driven end to end by tests/serve/.
#include "agent/datastore.h"
#include "agent/filter.h"
#include "agent/tree.h"
#include "netconf/guard.h"
#include "netconf/requests.h"
#include "netconf/screen.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <filesystem>
#include <fstream>
#include <numeric>
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

std::string xml_of(const Node &holder, const Selection *selection = nullptr)
{
    std::string out;
    XmlSink sink(out);
    write(holder, sink, Prune::nothing, selection);
    return out;
}

std::string configurations(const std::string &inside)
{
    return "<interface-configurations xmlns=\"" + IFMGR + "\">" + inside +
           "</interface-configurations>";
}

// The interface configurations of tunnels `ids`, each with its keys, a ttl
// (`ttl`) and, for even ones, a GRE key (`key`).
std::string tunnels(const std::vector<int> &ids, bool ttl = true, bool key = true)
{
    std::string s;
    for (int i : ids) {
        const std::string n = std::to_string(i);
        s += "<interface-configuration><active>act</active><interface-name>tunnel-ip" + n +
             "</interface-name><tunnel-ip xmlns=\"" + GRE + "\">" +
             (ttl ? "<ttl><value>" + n + "</value></ttl>" : "") +
             (key && i % 2 == 0 ? "<key><value>" + std::to_string(1000 + i) + "</value></key>"
                                : "") +
             "</tunnel-ip></interface-configuration>";
    }
    return configurations(s);
}

std::string entry_filter(const std::string &inside)
{
    return configurations("<interface-configuration>" + inside + "</interface-configuration>");
}

std::string gre(const std::string &inside, const std::string &op = "")
{
    return "<tunnel-ip xmlns=\"" + GRE + "\"" + (op.empty() ? "" : " nc:operation=\"" + op + "\"") +
           ">" + inside + "</tunnel-ip>";
}

std::size_t count(const std::string &s, const std::string &what)
{
    std::size_t n = 0;
    for (auto at = s.find(what); at != std::string::npos; at = s.find(what, at + 1))
        ++n;
    return n;
}

// ---------------------------------------------------------------- filters

TEST(SubtreeFilter, SelectsWhatRfc6241Says)
{
    // Twelve entries: beyond eight, a parent finds its children through an
    // index, by tag or, for an entry named by all its keys, by them.
    const std::vector<int> all = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const auto data = tree_of(tunnels(all));
    const auto name = [](int i) {
        return "<interface-name>tunnel-ip" + std::to_string(i) + "</interface-name>";
    };
    struct Row {
        std::string filter, selected; // the selection, as a document of its own
    };
    for (const Row &r : std::vector<Row>{
             // A selection node: all of it.
             {configurations(""), tunnels(all)},
             // Content matches alone: the entries they match, whole.
             {entry_filter(name(2)), tunnels({2})},
             // A content match with a selection sibling: the match, the
             // selection and the keys of the entry.
             {entry_filter(name(4) + gre("<ttl/>")), tunnels({4}, true, false)},
             // A content match that holds nowhere selects nothing, and a
             // selection that finds nothing in an entry leaves it out.
             {entry_filter(name(99)), ""},
             {entry_filter(gre("<key/>")), tunnels({2, 4, 6, 8, 10, 12}, false)},
             // A content match deeper down keeps its container whole.
             {entry_filter(gre("<ttl><value>6</value></ttl>")), tunnels({6}, true, false)},
             // Entries by their keys, in the order of the data.
             {entry_filter("<active>act</active>" + name(10) + gre("<ttl/>") +
                           "</interface-configuration><interface-configuration>"
                           "<active>act</active>" +
                           name(4) + gre("<ttl/>")),
              tunnels({4, 10}, true, false)},
             // The same entry twice, whole and in part: once, whole.
             {entry_filter(name(2) + "</interface-configuration><interface-configuration>" +
                           name(2) + gre("<ttl/>")),
              tunnels({2})},
             // Without a namespace an element matches any; with another, none.
             {"<interface-configurations xmlns=\"\"/>", tunnels(all)},
             {"<interface-configurations xmlns=\"urn:other\"/>", ""},
         }) {
        const Node *holders[] = {&data->root()};
        const Selection selection = select(tree_of(r.filter)->root(), holders);
        const std::string got = xml_of(data->root(), &selection);
        EXPECT_EQ(got, r.selected.empty() ? "" : xml_of(tree_of(r.selected)->root())) << r.filter;
    }
}

// The router's operational list of IPv6 addresses has no keys: an entry
// something is selected from keeps its leaves, which are all that tells it
// from the others, and no more than that.
TEST(SubtreeFilter, AnEntryOfAListWithoutKeysKeepsItsLeaves)
{
    const std::string ns = "http://valmora.com/ns/yang/Valmora-ipv6-ma-oper";
    const auto doc = [&](const std::string &details) {
        return "<ipv6-network xmlns=\"" + ns +
               "\"><nodes><node><node-name>0/RP0/CPU0</node-name><interface-data><vrfs><vrf>"
               "<vrf-name>default</vrf-name><details>" +
               details + "</details></vrf></vrfs></interface-data></node></nodes></ipv6-network>";
    };
    const auto address = [](const std::string &ip) {
        return "<address><address>" + ip +
               "</address><prefix-length>64</prefix-length><address-state>PREFERRED"
               "</address-state></address>";
    };
    const auto detail = [&](const std::string &name, const std::string &inside) {
        return "<detail><interface-name>" + name + "</interface-name>" + inside + "</detail>";
    };
    const auto data =
        tree_of(doc(detail("tunnel-ip1", "<line-state>up</line-state>" + address("2001:db8::1") +
                                             address("2001:db8::2")) +
                    detail("tunnel-ip2", "<line-state>up</line-state>" + address("2001:db8::3"))));
    const std::string filter =
        "<ipv6-network xmlns=\"" + ns +
        "\"><nodes><node><interface-data><vrfs><vrf><details><detail><interface-name>tunnel-ip1"
        "</interface-name><address><address-state/></address></detail></details></vrf></vrfs>"
        "</interface-data></node></nodes></ipv6-network>";
    const Node *holders[] = {&data->root()};
    const Selection selection = select(tree_of(filter)->root(), holders);
    EXPECT_EQ(
        xml_of(data->root(), &selection),
        xml_of(tree_of(doc(detail("tunnel-ip1", address("2001:db8::1") + address("2001:db8::2"))))
                   ->root()));
}

// ---------------------------------------------------------------- datastore

// A datastore's file in a directory of its own.
struct DatastoreTest : ::testing::Test {
    DatastoreTest() { fs::create_directories(dir); }
    ~DatastoreTest() override { fs::remove_all(dir); }
    std::string file() const
    {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // What the disk holds: the document and the commits logged since, as
    // an agent starting now would read them.
    std::string disk() const { return Datastore(path, true).document(); }
    const fs::path dir =
        fs::temp_directory_path() / ("octunnel-datastore-" + std::to_string(getpid()));
    const std::string path = (dir / "running.xml").string();
};

// Applies an edit of native roots: the EditError's tag and path, or "".
std::string edit(Datastore &ds, const std::string &inside,
                 DefaultOperation op = DefaultOperation::merge, bool test_only = false)
{
    try {
        ds.edit(*tree_of("<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
                         "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" +
                         inside + "</config>"),
                op, test_only);
    } catch (const EditError &e) {
        return e.tag + " " + e.path;
    }
    return "";
}

// Interface configuration tunnel-ip1 holding `inside`.
std::string one(const std::string &inside)
{
    return entry_filter("<active>act</active><interface-name>tunnel-ip1</interface-name>" + inside);
}

TEST_F(DatastoreTest, OperationsByTheRfc)
{
    Datastore ds(path);
    const auto addresses = [](const std::string &inside) {
        return one("<ipv6-network xmlns=\"" + V6 + "\"><addresses><regular-addresses>" + inside +
                   "</regular-addresses></addresses></ipv6-network>");
    };
    const std::string p1 =
        "/interface-configurations/interface-configuration[active='act'][interface-name="
        "'tunnel-ip1']";
    struct Row {
        std::string edit, error; // its tag and path, or none
        std::string in, out;     // in the file after it, and not
    };
    for (const Row &r : std::vector<Row>{
             {one(gre("<ttl><value>64</value></ttl>")), "", "<value>64</value>", ""},
             {one(gre("<ttl><value nc:operation=\"create\">1</value></ttl>")),
              "data-exists " + p1 + "/tunnel-ip/ttl/value", "<value>64</value>", ""},
             {one(gre("<key><value nc:operation=\"create\">7</value></key>")), "",
              "<value>7</value>", ""},
             // The container a delete empties goes with it.
             {one(gre("<key><value nc:operation=\"delete\"/></key>")), "", "", "<key"},
             // ... and a remove of nothing leaves none behind.
             {one(gre("<key><value nc:operation=\"remove\"/></key>")), "", "", "<key"},
             // An entry without its key stands for all of them, to remove,
             // not to write.
             {addresses("<regular-address><address>2001:db8::1</address></regular-address>"
                        "<regular-address><address>2001:db8::2</address></regular-address>"),
              "", "2001:db8::2", ""},
             {addresses("<regular-address nc:operation=\"create\"/>"),
              "missing-element " + p1 + "/ipv6-network/addresses/regular-addresses/regular-address",
              "2001:db8::1", ""},
             {addresses("<regular-address nc:operation=\"remove\"/>"), "", "", "regular-address"},
         }) {
        const std::string before = disk();
        EXPECT_EQ(edit(ds, r.edit), r.error) << r.edit;
        EXPECT_TRUE(r.error.empty() || disk() == before) << r.edit;
        EXPECT_EQ(ds.document(), disk());
        EXPECT_NE(disk().find(r.in), std::string::npos) << r.edit;
        EXPECT_TRUE(r.out.empty() || disk().find(r.out) == std::string::npos) << r.edit;
    }
    // default-operation none: a level that is not there is no error where
    // the edit only removes.
    EXPECT_EQ(edit(ds,
                   entry_filter("<active>act</active><interface-name>tunnel-ip7</interface-name>"
                                "<description nc:operation=\"remove\"/>"),
                   DefaultOperation::none),
              "");
}

TEST_F(DatastoreTest, AFailedEditIsTakenBackAndTheFileReadBackAsWritten)
{
    {
        Datastore ds(path);
        std::vector<int> ids(20);
        std::iota(ids.begin(), ids.end(), 1);
        edit(ds, tunnels(ids));
        edit(ds, one("<description>a &lt;tricky&gt; &amp; \"quoted\" one\ttab</description>"));
        const std::string before = disk();
        // Many changes, then one that cannot be: none stays, in memory or
        // in the file, and test-only keeps nothing either.
        std::string inside;
        for (int i = 1; i <= 20; ++i)
            inside += "<interface-configuration><active>act</active><interface-name>tunnel-ip" +
                      std::to_string(i) + "</interface-name>" +
                      gre("<ttl><value>9</value></ttl>", i % 3 == 0 ? "delete" : "replace") +
                      "</interface-configuration>";
        inside += "<interface-configuration><active>act</active><interface-name>tunnel-ip99"
                  "</interface-name><description nc:operation=\"delete\"/>"
                  "</interface-configuration>";
        EXPECT_EQ(edit(ds, configurations(inside)).substr(0, 13), "data-missing ");
        EXPECT_EQ(edit(ds, one("<mtu>9</mtu>"), DefaultOperation::merge, true), "");
        EXPECT_EQ(disk(), before);
        EXPECT_EQ(ds.document(), before);
        // Entries taken out and put back are found again by their keys.
        edit(ds, entry_filter("<active>act</active><interface-name>tunnel-ip5</interface-name>"
                              "<description>five</description>"));
        EXPECT_EQ(count(disk(), "<interface-configuration>"), 20u);
        EXPECT_EQ(count(disk(), "<description>"), 2u);
    }
    const std::string written = disk();
    Datastore again(path);
    EXPECT_EQ(again.document(), written);
    again.fold();
    EXPECT_EQ(file(), written);
    EXPECT_EQ(disk(), written);
    // Nothing is left beside the document and its log.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 2);
}

// A change keeps no record of the nodes it makes below nodes it made
// (taking the one back takes the others), yet every way of making and
// undoing within one change comes back whole when it is not committed:
// made then merged into, made then emptied and pruned, replaced, made
// across two edits of one change, and an edit that fails midway.
TEST_F(DatastoreTest, AChangeNotCommittedIsTakenBackWholeWhateverItMade)
{
    const auto native = [](const std::string &inside) {
        return tree_of("<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
                       "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" +
                       inside + "</config>");
    };
    const auto entry = [](int i, const std::string &inside) {
        return "<interface-configuration><active>act</active><interface-name>tunnel-ip" +
               std::to_string(i) + "</interface-name>" + inside + "</interface-configuration>";
    };
    const std::string v6 = "<ipv6-network xmlns=\"" + V6 +
                           "\"><addresses><regular-addresses><regular-address><address>"
                           "2001:db8::1</address><prefix-length>64</prefix-length>"
                           "</regular-address></regular-addresses></addresses></ipv6-network>";
    struct Row {
        const char *what;
        std::vector<std::string> edits; // applied in turn in one change
        bool fails;                     // whether the last one is refused
    };
    const std::vector<Row> rows{
        {"new entries, deep",
         {configurations(entry(30, gre("<ttl><value>1</value></ttl>") + v6) + entry(31, v6))},
         false},
        {"a new entry merged into again in the same edit",
         {configurations(entry(32, gre("<ttl><value>1</value></ttl>")) +
                         entry(32, gre("<ttl><value>2</value></ttl><key><value>5</value></key>")))},
         false},
        {"a new container left empty, pruned",
         {configurations(entry(33, gre("<key><value nc:operation=\"remove\"/></key>")))},
         false},
        {"an entry replaced by a deeper one",
         {configurations(entry(2, gre("<ttl><value>7</value></ttl>", "replace") + v6))},
         false},
        {"made by one edit, grown by the next",
         {configurations(entry(34, gre("<ttl><value>1</value></ttl>"))),
          configurations(entry(34, v6 + gre("<key><value>9</value></key>")))},
         false},
        {"new entries, then a refusal in the same edit",
         {configurations(entry(35, v6) + entry(3, gre("<ttl><value>8</value></ttl>")) +
                         entry(36, "<description nc:operation=\"delete\"/>"))},
         true},
        {"new entries, then a refused edit",
         {configurations(entry(37, v6 + gre("<ttl><value>1</value></ttl>"))),
          configurations(entry(38, "<description nc:operation=\"delete\"/>"))},
         true},
    };
    Datastore ds(path);
    edit(ds, tunnels({1, 2, 3, 4}));
    const std::string before = disk();
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        {
            Datastore::Change change(ds);
            for (std::size_t i = 0; i < r.edits.size(); ++i) {
                const bool refused = r.fails && i + 1 == r.edits.size();
                if (refused)
                    EXPECT_THROW(change.apply(*native(r.edits[i]), DefaultOperation::merge),
                                 EditError);
                else
                    change.apply(*native(r.edits[i]), DefaultOperation::merge);
            }
            EXPECT_EQ(change.changed(), !r.fails || r.edits.size() > 1);
        }
        EXPECT_EQ(ds.document(), before);
        EXPECT_EQ(disk(), before);
    }
    // The entries taken back are gone from their list's index too: each is
    // made again, once.
    EXPECT_EQ(edit(ds, tunnels({30, 31, 32, 33, 34, 35, 36, 37, 38})), "");
    EXPECT_EQ(count(ds.document(), "<interface-configuration>"), 13u);
    EXPECT_EQ(edit(ds, tunnels({30, 38})), "");
    EXPECT_EQ(count(ds.document(), "<interface-configuration>"), 13u);
}

// The log of commits beside the document: each commit on the disk before
// edit() returns, the document written again by fold() (or by a commit once
// the log outgrows it), and at start what a crash can leave: a last commit
// half-written (dropped: it was never acknowledged), a log not yet started
// again after its document was written (its commits not applied twice), a
// damaged commit with others after it (refused, naming the byte).
TEST_F(DatastoreTest, CommitsAreLoggedAndReadAgainAfterACrash)
{
    const std::string log = (dir / "running.commits").string();
    const auto read = [](const std::string &p) {
        std::ifstream in(p);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const auto write = [](const std::string &p, const std::string &text) {
        std::ofstream(p, std::ios::trunc) << text;
    };
    std::string current;
    {
        Datastore ds(path);
        for (int i = 1; i <= 30; ++i)
            EXPECT_EQ(edit(ds, configurations("<interface-configuration nc:operation=\"create\">"
                                              "<active>act</active><interface-name>tunnel-ip" +
                                              std::to_string(i) +
                                              "</interface-name>"
                                              "</interface-configuration>")),
                      "");
        EXPECT_EQ(edit(ds, one(gre("<ttl><value>9</value></ttl>"))), "");
        current = ds.document();
        EXPECT_TRUE(ds.behind());
        EXPECT_FALSE(fs::exists(path)); // only the log holds them yet
        EXPECT_EQ(disk(), current);

        // Folded: the document holds them all, and says through which.
        const std::string logged = read(log);
        ds.fold();
        EXPECT_FALSE(ds.behind());
        EXPECT_EQ(file(), current);
        EXPECT_NE(file().find("through commit 31."), std::string::npos);
        // A crash before the log started again: what it holds is not
        // applied twice (each create would be data-exists).
        write(log, logged);
    }
    EXPECT_EQ(Datastore(path).document(), current);

    // A half-written commit at the end: dropped, and said so.
    {
        Datastore ds(path);
        EXPECT_EQ(edit(ds, one("<description>kept</description>")), "");
        current = ds.document();
    }
    const std::string whole = read(log);
    for (const std::string &torn :
         {std::string("commit 33 120 0bad"), std::string("commit"),
          std::string("commit 33 5 00000000\nedit"), std::string(40, '\0')}) {
        write(log, whole + torn);
        Datastore ds(path);
        EXPECT_EQ(ds.document(), current) << torn;
        EXPECT_NE(ds.note().find("half-written at byte " + std::to_string(whole.size())),
                  std::string::npos)
            << ds.note();
        EXPECT_EQ(read(log), whole);
    }

    // A damaged commit followed by a whole one is no crash's doing.
    {
        Datastore ds(path);
        EXPECT_EQ(edit(ds, one("<description>later</description>")), "");
    }
    std::string damaged = read(log);
    const std::size_t at = damaged.find("kept");
    ASSERT_NE(at, std::string::npos);
    damaged[at] = 'K';
    write(log, damaged);
    try {
        Datastore ds(path);
        ADD_FAILURE() << "a damaged log was taken";
    } catch (const std::runtime_error &e) {
        EXPECT_NE(std::string(e.what()).find("is damaged, and commits follow it"),
                  std::string::npos)
            << e.what();
    }
}

TEST_F(DatastoreTest, ALogLargerThanTheDocumentIsFoldedByTheCommit)
{
    Datastore ds(path);
    // Commits of more than a MiB in all: the document is written at once.
    std::vector<int> ids(2000);
    std::iota(ids.begin(), ids.end(), 1);
    EXPECT_EQ(edit(ds, tunnels(ids)), "");
    EXPECT_TRUE(ds.behind());
    std::iota(ids.begin(), ids.end(), 2001);
    EXPECT_EQ(edit(ds, tunnels(ids)), "");
    EXPECT_FALSE(ds.behind());
    EXPECT_TRUE(file() == ds.document());
    // A small one after it waits for fold().
    EXPECT_EQ(edit(ds, one("<description>small</description>")), "");
    EXPECT_TRUE(ds.behind());
    EXPECT_EQ(file().find("small"), std::string::npos);
    EXPECT_TRUE(disk() == ds.document());
}

// A change whose text would outgrow the log is committed by writing the
// document whole (its text is not held for the log), and a document taken
// before it (as the agent's writer takes one, to write it without holding
// requests up) cannot be written over it afterwards.
TEST_F(DatastoreTest, AChangeLargerThanTheLogIsCommittedAsTheDocument)
{
    Datastore ds(path);
    EXPECT_EQ(edit(ds, one("<description>first</description>")), "");
    ASSERT_TRUE(ds.behind());
    const auto [older, through] = ds.snapshot();
    // More than a MiB of log, in less than a MiB of edit.
    std::vector<int> ids(4000);
    std::iota(ids.begin(), ids.end(), 2);
    EXPECT_EQ(edit(ds, tunnels(ids)), "");
    EXPECT_FALSE(ds.behind());
    EXPECT_TRUE(file() == ds.document());
    EXPECT_NE(file().find("through commit 2."), std::string::npos);
    ds.write_document(older, through);
    EXPECT_TRUE(file() == ds.document());
    EXPECT_TRUE(disk() == ds.document());
    // The next commits are logged after it, and read again with it.
    EXPECT_EQ(edit(ds, one("<description>after</description>")), "");
    EXPECT_TRUE(ds.behind());
    EXPECT_TRUE(disk() == ds.document());
    EXPECT_EQ(count(disk(), "<interface-configuration>"), 4001u);
}

// ---------------------------------------------------------------- guard

const std::string NC = "urn:ietf:params:xml:ns:netconf:base:1.0";

std::string hello_of(bool base11, const std::string &blanks = "\n ")
{
    return "<hello xmlns=\"" + NC +
           "\"><capabilities><capability>urn:ietf:params:netconf:base:1.0</capability>" +
           (base11 ? "<capability>" + blanks + "urn:ietf:params:netconf:base:1.1" + blanks +
                         "</capability>"
                   : "") +
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

// A guard past the hellos of both sides.
SessionGuard started(bool base11, std::size_t max)
{
    SessionGuard g(max);
    SessionGuard::Out out;
    g.from_agent("<hello/>]]>]]>", out);
    g.from_client(hello_of(base11), out);
    return g;
}

// The messages the guard answers itself, and those that end a session, are
// driven end to end by tests/serve/ (payloads.py).
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
        EXPECT_EQ(a.to_agent, hello_of(base11, "") + (base11 ? chunk(get) : get + "]]>]]>"));
        EXPECT_EQ(whole.unanswered(), 1u);
    }
}

TEST(SessionGuard, ItsAnswersWaitForLibnetconf2sToEarlierRequests)
{
    SessionGuard s = started(true, 1000);
    SessionGuard::Out out;
    // A request handed on, then a malformed message: its answer waits.
    s.from_client(chunk(rpc("<get/>", "1")) + chunk("<rpc"), out);
    EXPECT_TRUE(out.to_client.empty());
    EXPECT_EQ(s.unanswered(), 1u);
    const std::string reply = chunk("<rpc-reply message-id=\"1\"><data/></rpc-reply>");
    // An event notification of a subscription answers nothing: it goes,
    // split in its head as it may come, and the guard's answer still waits.
    const std::string event =
        "\n#12\n  <notificat\n#20\nion><eventTime/></no\n#11\ntification>\n##\n";
    s.from_agent(event.substr(0, 9), out);
    s.from_agent(event.substr(9), out);
    EXPECT_EQ(out.to_client, event);
    EXPECT_EQ(s.unanswered(), 1u);
    out.to_client.clear();
    // libnetconf2's reply in pieces: the guard's answer goes right after
    // its end.
    s.from_agent(reply.substr(0, 10), out);
    EXPECT_EQ(out.to_client, reply.substr(0, 10));
    s.from_agent(reply.substr(10), out);
    EXPECT_TRUE(out.to_client.starts_with(reply));
    EXPECT_NE(out.to_client.find("malformed-message", reply.size()), std::string::npos);
    EXPECT_FALSE(s.closing());

    // A message too large is answered too-big once what came before is
    // answered, and the session ends then.
    SessionGuard big = started(true, 100);
    SessionGuard::Out b;
    big.from_client(chunk(rpc("<get/>", "1")) + "\n#101\n", b);
    EXPECT_TRUE(big.closing());
    EXPECT_FALSE(big.ended());
    EXPECT_TRUE(b.to_client.empty());
    big.from_agent(chunk("<rpc-reply/>"), b);
    EXPECT_TRUE(big.ended());
    EXPECT_NE(b.to_client.find("too-big"), std::string::npos);
    // So is one of base:1.0 without its end mark, before it all came.
    SessionGuard old = started(false, 100);
    SessionGuard::Out o;
    old.from_client(std::string(106, 'x'), o);
    EXPECT_NE(o.to_client.find("too-big"), std::string::npos);
    EXPECT_TRUE(old.ended());

    // A request the screen answers is not handed on; its answer, too, waits
    // for those before it.
    std::vector<std::string> screened;
    SessionGuard sg(1000, [&](const std::string &message, const std::string &id) {
        screened.push_back(id);
        return message.find("<frob/>") != std::string::npos
                   ? std::optional<std::string>("<rpc-reply message-id=\"" + id + "\"/>")
                   : std::nullopt;
    });
    SessionGuard::Out g;
    sg.from_agent("<hello/>]]>]]>", g);
    g.to_client.clear();
    sg.from_client(
        hello_of(true) + chunk(rpc("<get/>", "1")) + chunk(rpc("<frob/>", "2")) + chunk("<rpc"), g);
    // The malformed message never reaches the screen.
    EXPECT_EQ(screened, (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(g.to_agent, hello_of(true, "") + chunk(rpc("<get/>", "1")));
    EXPECT_TRUE(g.to_client.empty());
    sg.from_agent(reply, g);
    const std::string answer = reply + chunk("<rpc-reply message-id=\"2\"/>");
    EXPECT_EQ(g.to_client.substr(0, answer.size()), answer);
    EXPECT_NE(g.to_client.find("malformed-message", answer.size()), std::string::npos);
}

// Feeds `bytes` to the guard as the relay does, a piece at a time, while it
// takes them; returns how many it took.
std::size_t feed(SessionGuard &g, std::string_view bytes, SessionGuard::Out &out,
                 std::size_t piece = 65536)
{
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t took = g.from_client(bytes.substr(at, piece), out);
        at += took;
        if (took == 0)
            break;
    }
    return at;
}

// A client that floods the guard with messages it answers itself, behind a
// request libnetconf2 has not answered: the answers wait within their
// bound, the guard takes no more until they go, and then takes the rest;
// none is lost, none out of order.
TEST(SessionGuard, ItsOwnAnswersWaitWithinTheirBoundAndTheClientWithThem)
{
    for (const bool base11 : {true, false}) {
        SessionGuard g = started(base11, 1000);
        SessionGuard::Out out;
        const auto framed = [&](const std::string &m) { return base11 ? chunk(m) : m + "]]>]]>"; };
        std::string flood = framed(rpc("<get/>", "1"));
        constexpr std::size_t messages = 100000;
        for (std::size_t i = 0; i < messages; ++i)
            flood += framed("<");
        std::size_t at = feed(g, flood, out);
        ASSERT_LT(at, flood.size());
        EXPECT_FALSE(g.taking());
        EXPECT_TRUE(out.to_client.empty());
        // Each answer is some 300 bytes: max_waiting holds a few thousand.
        EXPECT_LE(g.refused() * 250, max_waiting + 1000) << g.refused();
        const std::string reply = framed("<rpc-reply message-id=\"1\"><data/></rpc-reply>");
        g.from_agent(reply, out);
        EXPECT_TRUE(out.to_client.starts_with(reply));
        while (at < flood.size()) {
            const std::size_t took = feed(g, std::string_view(flood).substr(at), out);
            ASSERT_GT(took, 0u);
            at += took;
        }
        EXPECT_EQ(g.refused(), messages);
        EXPECT_EQ(count(out.to_client, "<rpc-reply"), messages + 1);
        EXPECT_FALSE(g.closing());
    }
}

// The requests of every session, taken and not yet answered, hold the
// budget: one that would pass it is read to its end, kept no further than
// its head, and answered resource-denied with its message-id, in turn; the
// session goes on, and what a request held is given back once it is
// answered, or its session gone.
TEST(SessionGuard, RequestsInFlightKeepWithinTheBudgetOfAllSessions)
{
    for (const bool base11 : {true, false}) {
        for (const std::size_t piece : {std::size_t{1}, std::size_t{65536}}) {
            RequestBudget budget(1000);
            const auto framed = [&](const std::string &m) {
                return base11 ? chunk(m) : m + "]]>]]>";
            };
            const auto session = [&] {
                SessionGuard g(100000, {}, &budget);
                SessionGuard::Out o;
                g.from_agent("<hello/>]]>]]>", o);
                g.from_client(hello_of(base11), o);
                return g;
            };
            SessionGuard a = session(), b = session();
            SessionGuard::Out ao, bo;
            // A holds 800 bytes of a message not all sent.
            const std::string big = rpc("<get>" + std::string(800, ' ') + "</get>", "a1");
            const std::string whole = framed(big);
            const std::size_t split = base11 ? 810 : 800;
            feed(a, std::string_view(whole).substr(0, split), ao, piece);
            EXPECT_GE(budget.held(), 790u);
            EXPECT_LE(budget.held(), 810u);
            // B's 500 bytes would pass the budget.
            const std::string denied =
                framed(rpc("<get>" + std::string(440, ' ') + "</get>", "b&amp;1"));
            EXPECT_EQ(feed(b, denied, bo, piece), denied.size());
            EXPECT_EQ(b.denied(), 1u);
            EXPECT_EQ(b.unanswered(), 0u);
            EXPECT_NE(bo.to_client.find("<error-tag>resource-denied</error-tag>"),
                      std::string::npos);
            EXPECT_NE(bo.to_client.find("message-id=\"b&amp;1\""), std::string::npos)
                << bo.to_client;
            EXPECT_LE(budget.held(), 810u);
            // B goes on with a request that fits, which holds until answered.
            bo.to_agent.clear();
            feed(b, framed(rpc("<get/>", "b2")), bo, piece);
            EXPECT_EQ(b.unanswered(), 1u);
            EXPECT_NE(bo.to_agent.find("b2"), std::string::npos);
            const std::size_t with_b = budget.held();
            EXPECT_GT(with_b, 810u);
            b.from_agent(framed("<rpc-reply message-id=\"b2\"/>"), bo);
            EXPECT_LE(budget.held(), 810u);
            // A's message, once whole, is handed on, and given back once
            // answered.
            feed(a, std::string_view(whole).substr(split), ao, piece);
            EXPECT_EQ(a.unanswered(), 1u);
            EXPECT_EQ(a.denied(), 0u);
            a.from_agent(framed("<rpc-reply message-id=\"a1\"/>"), ao);
            EXPECT_EQ(budget.held(), 0u);
            // A session gone gives back what it held.
            {
                SessionGuard c = session();
                SessionGuard::Out co;
                feed(c, std::string_view(whole).substr(0, split), co, piece);
                EXPECT_GT(budget.held(), 0u);
            }
            EXPECT_EQ(budget.held(), 0u);
        }
    }
}

// ---------------------------------------------------------------- screen

ly_ctx *served()
{
    static ly_ctx *const ctx = [] {
        ly_log_options(LY_LOSTORE_LAST); // what libyang says is the screen's to read
        return served_context(OCTUNNEL_YANG_DIR);
    }();
    return ctx;
}

TEST(Screen, AnswersWhatLibnetconf2WouldRefuseInNetconfsTerms)
{
    const std::string OC = "http://openconfig.net/yang/interfaces";
    const std::string NCM = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";
    const auto edit = [&](const std::string &entry) {
        return "<edit-config><target><running/></target><config xmlns:nc=\"" + NC +
               "\"><interfaces xmlns=\"" + OC + "\"><interface" + entry +
               "</interface></interfaces></config></edit-config>";
    };
    struct Row {
        std::string body;
        std::string tag; // none: handed on
        std::string bad_element = {}, bad_attribute = {}, path = {};
    };
    for (const Row &r : std::vector<Row>{
             // What libyang takes and the agent performs goes on as it is;
             // so does an operation libyang leaves be in data no model has,
             // which the agent's own reader answers.
             {"<get-config><source><running/></source>"
              "<filter type=\"subtree\" select=\"/a\"/></get-config>",
              ""},
             {edit(" nc:operation=\"merge\"><name>t1</name>"), ""},
             {"<edit-config><target><running/></target><config><a "
              "xmlns=\"urn:x\" xmlns:nc=\"" +
                  NC + "\" nc:operation=\"frobnicate\"/></config></edit-config>",
              ""},
             {"<kill-session><session-id>4</session-id></kill-session>", ""},
             // Operations the agent does not perform, whatever they hold.
             {"<frobnicate/>", "operation-not-supported"},
             {"<get xmlns=\"urn:example:x\"/>", "operation-not-supported"},
             // The datastores served: running, candidate and startup.
             {"<commit><confirmed/><confirm-timeout>5</confirm-timeout></commit>", ""},
             {"<copy-config><target><startup/></target><source><running/></"
              "source></copy-config>",
              ""},
             {"<get-config><source><candidate/></source></get-config>", ""},
             {"<delete-config><target><running/></target></delete-config>", "unknown-element",
              "running", "", "/nc:rpc/nc:delete-config/nc:target/nc:running"},
             {"<commit><confirm-timeout>0</confirm-timeout></commit>", "bad-element",
              "confirm-timeout", "", "/nc:rpc/nc:commit/nc:confirm-timeout"},
             // Parameters missing, an operation's or a container's; a choice
             // named by its element.
             {"<get-config/>", "missing-element", "source", "", "/nc:rpc/nc:get-config"},
             {"<get-config><source/></get-config>", "missing-element", "running", "",
              "/nc:rpc/nc:get-config/nc:source"},
             {"<edit-config><target><running/></target></edit-config>", "missing-element", "config",
              "", "/nc:rpc/nc:edit-config"},
             {"<edit-config><config/></edit-config>", "missing-element", "target", "",
              "/nc:rpc/nc:edit-config"},
             {"<lock/>", "missing-element", "target", "", "/nc:rpc/nc:lock"},
             {"<get-schema xmlns=\"" + NCM + "\"/>", "missing-element", "identifier", "",
              "/nc:rpc/ncm:get-schema"},
             // Elements the operation does not have, or the agent does not
             // serve.
             {"<get-config><source><running/></source><frob/></get-config>", "unknown-element",
              "frob", "", "/nc:rpc/nc:get-config/nc:frob"},
             {"<get-config><source><running/><frob/></source></get-config>", "unknown-element",
              "frob", "", "/nc:rpc/nc:get-config/nc:source/nc:frob"},
             {"<get><frob xmlns=\"urn:x\"/></get>", "unknown-namespace", "frob", "",
              "/nc:rpc/nc:get"},
             {"<get-config><source><url>file:///x</url></source></get-config>",
              "operation-not-supported", "", "", "/nc:rpc/nc:get-config/nc:source"},
             // Values that are not of their element's type.
             {"<kill-session><session-id>abc</session-id></kill-session>", "bad-element",
              "session-id", "", "/nc:rpc/nc:kill-session/nc:session-id"},
             {"<lock><target><running>x</running></target></lock>", "bad-element", "running", "",
              "/nc:rpc/nc:lock/nc:target/nc:running"},
             {"<lock><target>x<running/></target></lock>", "bad-element", "target", "",
              "/nc:rpc/nc:lock/nc:target"},
             {"<get-schema xmlns=\"" + NCM + "\"><identifier>m</identifier><format>frob</format>" +
                  "</get-schema>",
              "bad-element", "format", "", "/nc:rpc/ncm:get-schema/ncm:format"},
             // An identity named by a prefix of the document's is one.
             {"<get-schema xmlns=\"" + NCM + "\" xmlns:m=\"" + NCM +
                  "\"><identifier>m</identifier><format>m:yin</format><frob/></"
                  "get-schema>",
              "unknown-element", "frob", "", "/nc:rpc/ncm:get-schema/ncm:frob"},
             {"<kill-session><session-id><a/></session-id></kill-session>", "bad-element",
              "session-id", "", "/nc:rpc/nc:kill-session/nc:session-id"},
             // Attributes: of no annotation, or with a value it does not take.
             {"<get-config frob=\"1\"><source><running/></source></get-config>",
              "unknown-attribute", "get-config", "frob", "/nc:rpc/nc:get-config"},
             {"<get><filter type=\"frob\"/></get>", "bad-attribute", "filter", "type",
              "/nc:rpc/nc:get/nc:filter"},
             {edit(" nc:operation=\"frobnicate\"><name>t1</name>"), "bad-attribute", "interface",
              "operation", "/oc-if:interfaces/oc-if:interface[oc-if:name='t1']"},
             {edit("><name>it's</name><config nc:frob=\"1\"/>"), "unknown-attribute", "config",
              "frob",
              "/oc-if:interfaces/oc-if:interface[oc-if:name=\"it's\"]/"
              "oc-if:config"},
         }) {
        const auto e = screen_rpc(served(), rpc(r.body));
        ASSERT_EQ(e.has_value(), !r.tag.empty()) << r.body << ": " << (e ? e->message : "");
        if (!e)
            continue;
        EXPECT_EQ(e->tag, r.tag) << r.body << ": " << e->message;
        EXPECT_EQ(e->bad_element, r.bad_element) << r.body;
        EXPECT_EQ(e->bad_attribute, r.bad_attribute) << r.body;
        EXPECT_EQ(e->path, r.path) << r.body;
        // Each prefix of the path bound, and no other.
        std::string prefixes;
        for (const auto &[prefix, ns] : e->path_namespaces) {
            EXPECT_EQ(ns, prefix == "oc-if" ? OC : prefix == "nc" ? NC : NCM) << r.body;
            EXPECT_NE(r.path.find("/" + prefix + ":"), std::string::npos) << r.body;
        }
        EXPECT_EQ(e->path_namespaces.empty(), r.path.empty()) << r.body;
    }
}

// NETCONF monitoring counts what the guard refuses as the relay sees the
// counts move: each refusal once, as soon as it is due, even while its
// answer waits; and a session that ends on its hello is a bad hello, one
// that ends on broken framing later is not.
TEST(SessionGuard, CountsItsRefusalsAndTellsASessionEndedOnItsHello)
{
    SessionGuard s = started(true, 100);
    SessionGuard::Out out;
    s.from_client(chunk(rpc("<get/>", "1")) + chunk("<rpc") + chunk(rpc("")), out);
    EXPECT_EQ(s.refused(), 2u);
    EXPECT_TRUE(out.to_client.empty());
    s.from_client("\n#101\n", out);
    EXPECT_EQ(s.refused(), 3u);
    EXPECT_FALSE(s.bad_hello());

    for (const std::string &first :
         {"<hello xmlns=\"" + NC + "\"/>]]>]]>", std::string("<rpc/>]]>]]>"),
          std::string(max_hello + 6, ' ')}) {
        SessionGuard g(100);
        g.from_client(first, out);
        EXPECT_TRUE(g.ended() && g.bad_hello()) << first.substr(0, 40);
        EXPECT_EQ(g.refused(), 0u);
    }
    SessionGuard framing = started(true, 100);
    framing.from_client("\n#abc\n", out);
    EXPECT_TRUE(framing.ended());
    EXPECT_FALSE(framing.bad_hello());
}

} // namespace
