// Operational documents read apart from the requests: a request is answered
// while a large document is being read, from the snapshot published last; a
// version that is not whole, too large or configuration is named in the log
// and leaves what <get> answers as the promise says; subscribers are told of
// every publication, in order.
#include "agent/agent.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <condition_variable>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace octunnel;
using namespace octunnel::serve;
namespace fs = std::filesystem;

const std::string OC = "http://openconfig.net/yang/interfaces";
const std::string TUN = "http://openconfig.net/yang/interfaces/tunnel";
const std::string MA = "http://valmora.com/ns/yang/Valmora-tunnel-ip-ma-oper";
const std::string IFMGR = "http://valmora.com/ns/yang/Valmora-ifmgr-cfg";
const std::string GRE = "http://valmora.com/ns/yang/Valmora-tunnel-gre-cfg";

// The state of tunnels `tids` as the tunnel manager reports it, each with
// its ttl.
std::string tunnel_state(const std::vector<std::pair<int, int>> &tids)
{
    std::string s = "<data xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><tunnel-ip-ma "
                    "xmlns=\"" +
                    MA + "\"><database><tunnel-ids>";
    for (auto [tid, ttl] : tids)
        s += "<tunnel-id><tid>" + std::to_string(tid) +
             "</tid><idb-array><source-address><ipv4>192.0.2.1</ipv4></source-address>"
             "<destination-address><ipv4>198.51.100.7</ipv4></destination-address><ttl>" +
             std::to_string(ttl) + "</ttl></idb-array></tunnel-id>\n";
    return s + "</tunnel-ids></database></tunnel-ip-ma></data>\n";
}

// The native configuration of tunnel-ip<tid> with a ttl.
std::string tunnel_config(int tid, int ttl)
{
    return "<interface-configurations xmlns=\"" + IFMGR +
           "\"><interface-configuration><active>act</active><interface-name>tunnel-ip" +
           std::to_string(tid) + "</interface-name><tunnel-ip xmlns=\"" + GRE + "\"><ttl><value>" +
           std::to_string(ttl) + "</value></ttl></tunnel-ip></interface-configuration>" +
           "</interface-configurations>\n";
}

std::string state_ttl_filter(int tid)
{
    return "<interfaces xmlns=\"" + OC + "\"><interface><name>tunnel-ip" + std::to_string(tid) +
           "</name><tunnel xmlns=\"" + TUN + "\"><state><ttl/></state></tunnel></interface>" +
           "</interfaces>";
}

std::string xml_of(const OperationalSnapshot &s)
{
    std::string out;
    XmlSink sink(out);
    for (const Node *holder : s.holders)
        write(*holder, sink);
    return out;
}

// The agent's log, which tests wait on: every line the reader says comes
// from its own thread.
class Log {
public:
    std::function<void(const std::string &)> sink()
    {
        return [this](const std::string &line) {
            std::lock_guard guard(mutex_);
            lines_.push_back(line);
            said_.notify_all();
        };
    }
    // Waits until `text` has been said `count` times.
    void wait(const std::string &text, std::size_t count = 1)
    {
        std::unique_lock guard(mutex_);
        said_.wait(guard, [&] { return count_locked(text) >= count; });
    }
    std::size_t count(const std::string &text)
    {
        std::lock_guard guard(mutex_);
        return count_locked(text);
    }
    std::string all()
    {
        std::lock_guard guard(mutex_);
        std::string s;
        for (const std::string &l : lines_)
            s += l + "\n";
        return s;
    }

private:
    std::size_t count_locked(const std::string &text) const
    {
        return std::count_if(lines_.begin(), lines_.end(),
                             [&](const std::string &l) { return l.find(text) != l.npos; });
    }
    std::mutex mutex_;
    std::condition_variable said_;
    std::vector<std::string> lines_;
};

class Oper : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() /
               ("octunnel-oper-" + std::to_string(getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_ / "oper");
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string path(const std::string &name) const { return (dir_ / "oper" / name).string(); }
    // Written whole under another name and renamed into place, as a
    // component that never shows a half-written document does.
    void put(const std::string &name, const std::string &text) const
    {
        const fs::path temp = dir_ / "oper" / ("." + name + ".new");
        std::ofstream(temp, std::ios::binary) << text;
        fs::rename(temp, path(name));
    }
    // Written in place.
    void overwrite(const std::string &name, const std::string &text) const
    {
        std::ofstream(path(name), std::ios::binary | std::ios::trunc) << text;
    }

    fs::path dir_;
    Log log_;
};

TEST_F(Oper, RequestsAreAnsweredWhileALargeDocumentIsRead)
{
    ly_log_options(LY_LOSTORE_LAST);
    put("small.xml", tunnel_state({{7, 255}}));
    // The reader is held as it begins to read big.xml, until the requests
    // below are answered.
    std::mutex m;
    std::condition_variable cv;
    bool reading = false, go_on = false;
    AgentOptions o;
    o.state_dir = (dir_ / "state").string();
    o.oper_dir = (dir_ / "oper").string();
    o.module_path = OCTUNNEL_MODULE_PATH;
    o.yang_dir = OCTUNNEL_YANG_DIR;
    o.oper_reading = [&](const std::string &p) {
        if (!p.ends_with("/big.xml"))
            return;
        std::unique_lock guard(m);
        reading = true;
        cv.notify_all();
        cv.wait(guard, [&] { return go_on; });
    };
    Agent agent(o, log_.sink());
    ASSERT_TRUE(agent
                    .edit_config(1,
                                 "<interfaces xmlns=\"" + OC +
                                     "\"><interface><name>tunnel-ip12</name><tunnel xmlns=\"" +
                                     TUN +
                                     "\"><config><ttl>64</ttl></config></tunnel>"
                                     "</interface></interfaces>",
                                 DefaultOperation::merge, false)
                    .ok());

    // Tens of megabytes: 120,000 tunnels.
    std::vector<std::pair<int, int>> many;
    for (int i = 0; i < 120000; ++i)
        many.emplace_back(100000 + i, 1 + i % 255);
    const std::string big = tunnel_state(many);
    ASSERT_GT(big.size(), std::size_t{20} << 20);
    const uint64_t before = agent.operational().snapshot()->sequence;
    put("big.xml", big);
    {
        std::unique_lock guard(m);
        cv.wait(guard, [&] { return reading; });
    }

    // big.xml is being read: the configuration and the state of the other
    // document are answered all the same, from the last snapshot.
    Outcome config = agent.read(1, true, std::nullopt);
    ASSERT_TRUE(config.ok());
    EXPECT_NE(config.data.find("<ttl>64</ttl>"), std::string::npos) << config.data;
    Outcome small = agent.read(1, false, state_ttl_filter(7));
    ASSERT_TRUE(small.ok());
    EXPECT_NE(small.data.find("<ttl>255</ttl>"), std::string::npos) << small.data;
    Outcome not_yet = agent.read(1, false, state_ttl_filter(100005));
    ASSERT_TRUE(not_yet.ok());
    EXPECT_EQ(not_yet.data.find("tunnel-ip100005"), std::string::npos) << not_yet.data;
    EXPECT_EQ(agent.operational().snapshot()->sequence, before);
    {
        std::lock_guard guard(m);
        go_on = true;
    }
    cv.notify_all();

    // Once published, the next <get> answers it, beside the other document.
    auto now = agent.operational().wait_after(before);
    ASSERT_EQ(now->documents.size(), 2u);
    EXPECT_EQ(now->documents[0]->path, path("big.xml"));
    EXPECT_EQ(now->documents[0]->bytes, big.size());
    Outcome got = agent.read(1, false, state_ttl_filter(100005));
    ASSERT_TRUE(got.ok());
    EXPECT_NE(got.data.find("<ttl>6</ttl>"), std::string::npos) << got.data;
    EXPECT_EQ(log_.count("big.xml"), 0u) << log_.all();
}

// A version that is not taken leaves the last one read whole (or nothing);
// one of configuration is taken and gives <get> nothing.  Each is named in
// the log with why, once.
TEST_F(Oper, VersionsNotTakenLeaveTheLastGoodOne)
{
    const std::string good = tunnel_state({{7, 255}, {12, 64}});
    struct Row {
        const char *what;
        std::string text;
        std::string said; // in the log line that names the document
        bool taken;       // a new version is published, holding nothing
    };
    const std::vector<Row> rows = {
        {"half-written", good.substr(0, good.size() / 2), ": malformed XML", false},
        {"garbled", good.substr(0, 200) + "\x01" + good.substr(200), ":1: ", false},
        {"not XML", "tunnels: 7, 12\n", ":2: text outside any element", false},
        {"empty", "", ": the document holds no element", false},
        {"larger than the bound", good + "<!--" + std::string(70000, ' ') + "-->",
         "bytes, more than the 65536 the agent reads of an operational document "
         "(--max-oper-document)",
         false},
        {"configuration", tunnel_config(12, 99),
         "nothing of it is read: its root <interface-configurations> in namespace '" + IFMGR +
             "' is native configuration, which <get> answers from the running configuration "
             "alone",
         true},
    };
    OperationalData oper((dir_ / "oper").string(), log_.sink(), {65536, nullptr, nullptr});
    const std::string answered = [&] {
        const uint64_t seq = oper.snapshot()->sequence;
        put("t.xml", good);
        return xml_of(*oper.wait_after(seq));
    }();
    ASSERT_NE(answered.find("<ttl>255</ttl>"), std::string::npos);
    for (bool in_place : {false, true})
        for (const Row &row : rows) {
            SCOPED_TRACE(std::string(row.what) + (in_place ? ", written in place" : ""));
            // From the good version each time.
            const uint64_t start = oper.snapshot()->sequence;
            put("t.xml", good);
            oper.wait_after(start);
            const std::size_t named = log_.count(path("t.xml"));
            const uint64_t seq = oper.snapshot()->sequence;
            if (in_place)
                overwrite("t.xml", row.text);
            else
                put("t.xml", row.text);
            if (row.taken) {
                EXPECT_EQ(xml_of(*oper.wait_after(seq)), "");
            } else {
                log_.wait(path("t.xml"), named + 1);
                EXPECT_EQ(oper.snapshot()->sequence, seq);
                EXPECT_EQ(xml_of(*oper.snapshot()), answered);
            }
            const std::string said = log_.all();
            const std::size_t at = said.rfind(path("t.xml"));
            const std::string line = said.substr(at, said.find('\n', at) - at);
            EXPECT_NE(line.find(row.said), std::string::npos) << line;
            if (!row.taken) {
                EXPECT_NE(line.find("<get> answers its last version read whole"), std::string::npos)
                    << line;
            }
            EXPECT_EQ(log_.count(path("t.xml")), named + 1) << said;
        }
    // A document never read whole gives nothing, and says so.
    const uint64_t seq = oper.snapshot()->sequence;
    put("new.xml", good.substr(0, 100));
    log_.wait(path("new.xml") + ":");
    EXPECT_NE(log_.all().find("<get> answers nothing of it"), std::string::npos);
    EXPECT_EQ(oper.snapshot()->sequence, seq);
}

// What is not a document is not read, and does not hold the reader (an
// open of a FIFO that waits would); a link to a document is one.
TEST_F(Oper, OnlyRegularXmlFilesAreRead)
{
    const std::string doc = tunnel_state({{7, 255}});
    ASSERT_EQ(mkfifo(path("fifo.xml").c_str(), 0600), 0);
    put("notes.txt", doc);
    fs::create_directory(path("dir.xml"));
    std::ofstream(path("dir.xml") + "/inner.xml") << doc;
    std::ofstream(path(".hidden.xml")) << doc;
    fs::create_symlink("/dev/zero", path("zero.xml"));
    fs::create_symlink(path("nowhere"), path("dangling.xml"));
    OperationalData oper((dir_ / "oper").string(), log_.sink());
    EXPECT_EQ(oper.snapshot()->documents.size(), 0u);
    put("t.xml", doc);
    auto s = oper.wait_after(1);
    ASSERT_EQ(s->documents.size(), 1u);
    EXPECT_EQ(s->documents[0]->path, path("t.xml"));
    EXPECT_EQ(log_.all(), "");
    fs::create_symlink(path("t.xml"), path("link.xml"));
    s = oper.wait_after(s->sequence);
    ASSERT_EQ(s->documents.size(), 2u);
    EXPECT_EQ(s->documents[0]->path, path("link.xml"));
    const std::string both = xml_of(*s);
    EXPECT_NE(both.find("<ttl>255</ttl>"), both.rfind("<ttl>255</ttl>")) << both;
}

// A document written in place is read once its writer closes it, never
// half-way.
TEST_F(Oper, ADocumentIsReadWhenItsWriterClosesIt)
{
    OperationalData oper((dir_ / "oper").string(), log_.sink());
    const std::string doc = tunnel_state({{7, 255}});
    const int fd = open(path("t.xml").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, doc.data(), 100), 100);
    // Another document is published meanwhile; t.xml is not looked at.
    const uint64_t seq = oper.snapshot()->sequence;
    put("other.xml", tunnel_state({{8, 1}}));
    auto s = oper.wait_after(seq);
    EXPECT_EQ(s->documents.size(), 1u);
    ASSERT_EQ(::write(fd, doc.data() + 100, doc.size() - 100),
              static_cast<ssize_t>(doc.size() - 100));
    close(fd);
    s = oper.wait_after(s->sequence);
    ASSERT_EQ(s->documents.size(), 2u);
    EXPECT_NE(xml_of(*s).find("<ttl>255</ttl>"), std::string::npos);
    EXPECT_EQ(log_.all(), "");
}

// The first snapshot after `from` with `count` documents.
std::shared_ptr<const OperationalSnapshot>
with_documents(const OperationalData &oper, std::shared_ptr<const OperationalSnapshot> from,
               std::size_t count)
{
    while (from->documents.size() != count)
        from = oper.wait_after(from->sequence);
    return from;
}

// A directory not there at the start, or taken away, is looked at every
// second until it can be watched again; its documents are read as they
// come, and go with it.
TEST_F(Oper, TheDirectoryMayComeAndGo)
{
    const std::string dir = (dir_ / "later").string();
    OperationalData oper(dir, log_.sink());
    auto s = oper.snapshot();
    EXPECT_EQ(s->documents.size(), 0u);
    log_.wait("cannot watch " + dir + " for changes (No such file or directory)");
    log_.wait("cannot read the directory " + dir + ": No such file or directory");
    fs::create_directory(dir);
    std::ofstream(dir + "/t.xml") << tunnel_state({{7, 255}});
    s = with_documents(oper, s, 1);
    fs::remove_all(dir);
    s = with_documents(oper, s, 0);
    fs::create_directory(dir);
    std::ofstream(dir + "/u.xml") << tunnel_state({{8, 1}});
    s = with_documents(oper, s, 1);
    EXPECT_EQ(s->documents[0]->path, dir + "/u.xml");
    std::ofstream(dir + "/v.xml") << tunnel_state({{9, 1}});
    s = with_documents(oper, s, 2);
    EXPECT_NE(xml_of(*s).find("<tid>9</tid>"), std::string::npos);
}

// Subscribers hear of every publication in order, a document removed
// included; a snapshot held keeps its version whatever comes after.
TEST_F(Oper, SubscribersHearOfEveryChangeAndSnapshotsStay)
{
    put("a.xml", tunnel_state({{7, 1}}));
    OperationalData oper((dir_ / "oper").string(), log_.sink());
    auto first = oper.snapshot();
    ASSERT_EQ(first->sequence, 1u);
    const std::string as_read = xml_of(*first);
    std::mutex m;
    std::vector<std::pair<uint64_t, std::size_t>> heard;
    const uint64_t id = oper.subscribe([&](const std::shared_ptr<const OperationalSnapshot> &s) {
        std::lock_guard guard(m);
        heard.emplace_back(s->sequence, s->documents.size());
    });
    put("a.xml", tunnel_state({{7, 2}}));
    oper.wait_after(1);
    put("b.xml", tunnel_state({{8, 3}}));
    oper.wait_after(2);
    fs::remove(path("a.xml"));
    auto last = oper.wait_after(3);
    oper.unsubscribe(id);
    put("c.xml", tunnel_state({{9, 4}}));
    oper.wait_after(4);
    {
        std::lock_guard guard(m);
        EXPECT_EQ(heard, (std::vector<std::pair<uint64_t, std::size_t>>{{2, 1}, {3, 2}, {4, 1}}));
    }
    EXPECT_EQ(last->documents[0]->path, path("b.xml"));
    EXPECT_EQ(xml_of(*first), as_read);
    EXPECT_NE(as_read.find("<ttl>1</ttl>"), std::string::npos);
}

} // namespace
