// Malformed and hostile documents through the tool's own path, in process:
// each is refused with exit 2, one line that names the problem and its
// place, nothing on the answer stream and no file left behind; or, where
// the input is good, it translates the same whether observed or not.
#include "cli/translate.h"
#include "translate/document.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <span>
#include <sstream>

namespace {

using namespace octunnel;
namespace fs = std::filesystem;

constexpr std::string_view OC = "xmlns=\"http://openconfig.net/yang/interfaces\"";
constexpr std::string_view TUNNEL = "xmlns=\"http://openconfig.net/yang/interfaces/tunnel\"";

// An OpenConfig edit of tunnel-ip12 whose tunnel/config holds `config`.
std::string tunnel_config(std::string_view config)
{
    std::string doc = "<interfaces ";
    doc.append(OC).append("><interface><name>tunnel-ip12</name><tunnel ").append(TUNNEL);
    return doc.append("><config>")
        .append(config)
        .append("</config></tunnel></interface></interfaces>");
}

std::string json_tunnel_config(std::string_view config)
{
    return R"({"openconfig-interfaces:interfaces":{"interface":[{"name":"tunnel-ip12",)"
           R"("openconfig-if-tunnel:tunnel":{"config":{)" +
           std::string(config) + "}}}]}}";
}

std::string repeat(std::string_view s, std::size_t n)
{
    std::string out;
    out.reserve(s.size() * n);
    for (std::size_t i = 0; i < n; ++i)
        out.append(s);
    return out;
}

struct Outcome {
    int rc = -1;
    std::string answer;
    std::string err;
};

// The tool on `doc`, with --emissions, --log and --ring into a directory of
// its own when `observed`, and documents of at most `limit` bytes.
class Tool {
public:
    Tool() : dir_(fs::temp_directory_path() / ("octunnel-hostile-" + std::to_string(getpid())))
    {
        fs::create_directories(dir_);
    }
    ~Tool() { fs::remove_all(dir_); }

    Outcome run(const std::string &doc, std::vector<std::string> args, bool observed = true,
                std::size_t limit = max_document_bytes)
    {
        Options o;
        o.module = OCTUNNEL_MODULE_PATH;
        o.yang_dir = OCTUNNEL_YANG_DIR;
        o.kind_text = "edit";
        Direction d = Direction::to_native;
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (args[i] == "to-oc") {
                d = Direction::to_oc;
                o.kind_text = "get";
            } else if (args[i] == "json")
                o.format_text = "json";
            else if (args[i] == "--kind")
                o.kind_text = args[++i];
        }
        if (observed) {
            o.emissions = (dir_ / "emissions").string();
            o.log = (dir_ / "log").string();
            o.ring = (dir_ / "ring").string();
        }
        o.finish();
        Input input(std::string_view(doc), limit);
        char *text = nullptr;
        std::size_t size = 0;
        std::FILE *answer = open_memstream(&text, &size);
        std::ostringstream err;
        Outcome r;
        r.rc = translator_.run(o, d, input, answer, err);
        std::fclose(answer);
        r.answer.assign(text, size);
        std::free(text);
        r.err = err.str();
        return r;
    }

    std::size_t files() const
    {
        return std::distance(fs::directory_iterator(dir_), fs::directory_iterator());
    }
    void clear() const
    {
        for (const auto &e : fs::directory_iterator(dir_))
            fs::remove(e.path());
    }

private:
    fs::path dir_;
    Translator translator_;
};

Tool &tool()
{
    static Tool t;
    return t;
}

struct Refusal {
    const char *name;
    std::string doc;
    std::vector<std::string> args;
    std::string says; // what the one line of the refusal holds
    std::size_t limit = max_document_bytes;
};

const std::vector<std::string> native_xml, native_json{"json"}, oc_xml{"to-oc"},
    oc_json{"to-oc", "json"}, native_get{"--kind", "get"}, native_json_get{"json", "--kind", "get"};

// Each case is refused with exit 2, one line on stderr that names the
// input, nothing on stdout and no file left behind.
void expect_refused(std::span<const Refusal> cases)
{
    for (const Refusal &c : cases) {
        SCOPED_TRACE(c.name);
        tool().clear();
        Outcome r = tool().run(c.doc, c.args, true, c.limit);
        EXPECT_EQ(r.rc, exit_unusable);
        EXPECT_EQ(r.answer, "");
        EXPECT_TRUE(r.err.starts_with("octunnel: <stdin>")) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(tool().files(), 0u) << "a file was left behind";
    }
}

std::string oc_open()
{
    return "<interfaces " + std::string(OC) + ">";
}

// However deep, without recursion: the readers stop at the limit.
TEST(Hostile, NestingBeyondTheLimit)
{
    const Refusal cases[] = {
        {"XML, 27,000 levels",
         oc_open() + repeat("<a>", 27000) + repeat("</a>", 27000) + "</interfaces>", native_xml,
         ":1: the document nests deeper than 128 elements"},
        {"XML, one level too many", oc_open() + repeat("<a>", 128), native_xml,
         "nests deeper than 128"},
        {"JSON objects, 14,000 levels",
         R"({"openconfig-interfaces:interfaces":)" + repeat(R"({"a":)", 14000) + "1" +
             repeat("}", 14001),
         native_json, "nests deeper than 264 levels"},
        {"JSON arrays, 400,000 levels",
         R"({"openconfig-interfaces:interfaces":{"a":)" + repeat("[", 400000) +
             repeat("]", 400000) + "}}",
         oc_json, "'a' is neither a list (entries are objects), a leaf-list"},
        {"JSON list entries, 100,000 levels",
         R"({"openconfig-interfaces:interfaces":)" + repeat(R"({"a":[)", 100000), native_json,
         "nests deeper than 264 levels"},
    };
    expect_refused(cases);
}

// Text no document may carry, in what is read and in the module's answer.
TEST(Hostile, TextThatIsNotADocument)
{
    const std::string cut_tunnel_name =
        oc_open() + "<interface><name>tunnel-i\xC3\xA9</name><tunnel " + std::string(TUNNEL) +
        "><state><ttl/></state></tunnel></interface></interfaces>";
    const std::string json_cut_tunnel_name =
        R"({"openconfig-interfaces:interfaces":{"interface":[{"name":"tunnel-i\u00e9",)"
        R"("openconfig-if-tunnel:tunnel":{"state":{"ttl":[null]}}}]}})";
    const Refusal cases[] = {
        {"XML, a byte that is not UTF-8", tunnel_config("<ttl>6\xFF</ttl>"), native_xml,
         ":1: malformed XML: the text is not UTF-8, at bytes 0xFF"},
        {"XML, an overlong encoding", tunnel_config("<ttl>\xC0\x80</ttl>"), native_xml,
         "not UTF-8"},
        {"XML, a reference to U+0001", tunnel_config("<ttl>&#1;</ttl>"), native_xml,
         "character U+0001 is not allowed in XML"},
        {"XML, U+0001 itself", tunnel_config("<ttl>\x01</ttl>"), native_xml,
         "character U+0001 is not allowed in XML"},
        {"XML, an undeclared entity", tunnel_config("<ttl>&foo;</ttl>"), native_xml,
         "Entity 'foo' not defined"},
        {"XML, a DOCTYPE with entities",
         "<!DOCTYPE x [<!ENTITY e \"6\">]>\n" + tunnel_config("<ttl>&e;</ttl>"), native_xml,
         ":1: a DOCTYPE has no place in a NETCONF message"},
        {"XML, a DOCTYPE after the root", tunnel_config("") + "\n<!DOCTYPE interfaces>", native_xml,
         ":2: malformed XML: a declaration"},
        {"XML, an element not closed", oc_open() + "\n<a>", native_xml,
         ":2: malformed XML: <a> is not closed"},
        {"JSON, NUL in a root's name", R"({"openconfig-interfaces:interfaces\u0000junk":{}})",
         native_json,
         "member name 'openconfig-interfaces:interfaces\\x00junk' holds a NUL character"},
        {"JSON, NUL in a leaf's name", json_tunnel_config(R"("src\u0000x":"192.0.2.1")"),
         native_json, "member name 'src\\x00x' holds a NUL character"},
        {"JSON, NUL in a key",
         R"({"openconfig-interfaces:interfaces":{"interface":[{"name":"tunnel-ip12\u0000evil"}]}})",
         native_json, "a value holds a NUL character"},
        {"JSON, U+0001", json_tunnel_config(R"("ttl":"\u0001")"), native_json,
         "a value holds the control character U+0001"},
        {"JSON, U+FFFF", json_tunnel_config(R"("ttl":"\uffff")"), native_json,
         "a value holds the noncharacter U+FFFF"},
        {"JSON, a byte that is not UTF-8", json_tunnel_config("\"ttl\":\"6\xFF\""), native_json,
         "malformed JSON: invalid encoding in string"},
        {"JSON, a lone surrogate", json_tunnel_config(R"("ttl":"\ud800")"), native_json,
         "malformed JSON: the surrogate pair in string is invalid"},
        // The tunnel id follows the ninth byte of the name, inside é.
        {"an answer cut inside a character", cut_tunnel_name, native_get,
         "the module's answer holds text that is not UTF-8 in <tid>, at bytes 0xA9"},
        {"JSON, an answer cut inside a character", json_cut_tunnel_name, native_json_get,
         "not UTF-8 in <tid>"},
    };
    expect_refused(cases);
}

TEST(Hostile, ALeafOrKeyGivenTwice)
{
    const std::string native_key_twice = "<interface-configurations "
                                         "xmlns=\"http://valmora.com/ns/yang/Valmora-ifmgr-cfg\">\n"
                                         "<interface-configuration><active>act</active>\n"
                                         "<interface-name>tunnel-ip1</interface-name>\n"
                                         "<interface-name>tunnel-ip2</interface-name>\n"
                                         "</interface-configuration></interface-configurations>";
    const Refusal cases[] = {
        {"XML, two endpoints", tunnel_config("<src>192.0.2.1</src>\n<src>2001:db8::1</src>"),
         native_xml, ":2: <src> is given twice in <config>, first on line 1"},
        {"XML, two keys",
         oc_open() + "<interface><name>a</name><name>b</name></interface></interfaces>", native_xml,
         "<name> is given twice in <interface>"},
        {"XML, a native key twice", native_key_twice, oc_xml,
         ":4: <interface-name> is given twice in <interface-configuration>, first on line 3"},
    };
    expect_refused(cases);
}

TEST(Hostile, DocumentsBeyondTheSizeLimit)
{
    const Refusal cases[] = {
        {"XML beyond the size limit", tunnel_config("<ttl>64</ttl>") + repeat(" ", 4096),
         native_xml, "<stdin>: the document is larger than 1024 bytes, the most octunnel reads",
         1024},
        {"JSON beyond the size limit", json_tunnel_config("") + repeat(" ", 4096), native_json,
         "the document is larger than 1024 bytes", 1024},
    };
    expect_refused(cases);
}

// At the nesting limit a document is read, the module has its say on it;
// lists and leaf-lists repeat, and so does what the models do not know; a
// document at the size limit is read.
TEST(Hostile, WhatIsNotRefused)
{
    Outcome at = tool().run(oc_open() + repeat("<a>", 127) + repeat("</a>", 127) + "</interfaces>",
                            native_xml);
    EXPECT_EQ(at.err.find("nests deeper"), std::string::npos) << at.err;
    for (const std::string &doc : {
             oc_open() +
                 "<interface><name>a</name></interface><interface><name>b</name></interface>"
                 "</interfaces>",
             tunnel_config("<unknown>1</unknown><unknown>2</unknown>"),
         }) {
        Outcome r = tool().run(doc, native_xml, false);
        EXPECT_EQ(r.err.find("twice"), std::string::npos) << r.err;
    }
    const std::string doc = tunnel_config("<ttl>64</ttl>") + repeat(" ", 4096);
    EXPECT_EQ(tool().run(doc, native_xml, false, doc.size()).rc, exit_translated);
}

TEST(Hostile, NumbersOutOfRangeAreNamedNotWrapped)
{
    const Refusal beyond_json[] = {
        {"JSON, a number beyond a double", json_tunnel_config(R"("ttl":1e400)"), native_json,
         "malformed JSON: a number beyond what JSON can carry"},
    };
    expect_refused(beyond_json);

    Options o;
    for (const char *kind : {"4294967296", "0x100000000"}) {
        o.kind_text = kind;
        EXPECT_THROW(
            try { o.finish(); } catch (const std::invalid_argument &e) {
                EXPECT_STREQ(
                    e.what(),
                    ("--kind: '" + std::string(kind) + "' does not fit in 32 bits").c_str());
                throw;
            },
            std::invalid_argument);
    }

    // The IPv4 prefix length: its leading number counts, as atoi reads it.
    // An edit writes the netmask of 0 to 32 and refuses any other number,
    // however long; a read has no bound: the shift is taken modulo 32.
    struct {
        const char *value, *edit, *read;
    } const lengths[] = {
        {" +24 ", "255.255.255.0", "255.255.255.0"},
        {"4294967320", nullptr, "255.255.255.0"},
        {"99999999999999999999999999", nullptr, "255.255.255.254"},
        {"-1", nullptr, "255.255.255.254"},
        {"40", nullptr, "255.0.0.0"},
        {"24junk", "255.255.255.0", "255.255.255.0"},
        {"-0", "0.0.0.0", "0.0.0.0"},
    };
    for (const auto &l : lengths) {
        SCOPED_TRACE(l.value);
        std::string doc = "<interfaces " + std::string(OC) +
                          "><interface><name>tunnel-ip12</name><tunnel " + std::string(TUNNEL) +
                          "><ipv4><addresses><address><ip>10.0.0.1</ip><config><prefix-length>" +
                          l.value +
                          "</prefix-length></config></address></addresses></ipv4></tunnel>"
                          "</interface></interfaces>";
        for (const char *kind : {"edit", "get"}) {
            const char *netmask = std::string_view(kind) == "edit" ? l.edit : l.read;
            Outcome r = tool().run(doc, {"--kind", kind}, false);
            if (netmask == nullptr) {
                EXPECT_EQ(r.rc, exit_refused);
                EXPECT_EQ(r.answer, "");
            } else {
                EXPECT_EQ(r.rc, exit_translated) << r.err;
                EXPECT_NE(r.answer.find("<netmask>" + std::string(netmask) + "</netmask>"),
                          std::string::npos)
                    << kind << ": " << r.answer;
            }
        }
    }
}

TEST(Hostile, ObservingATranslationDoesNotChangeIt)
{
    for (const auto &[doc, args] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {tunnel_config("<ttl>6\xFF</ttl>"), native_xml},
             {tunnel_config("<src>192.0.2.1</src><ttl>64</ttl>"), native_xml},
             {json_tunnel_config(R"("dst":"2001:db8::9","gre-key":7)"), native_json},
         }) {
        tool().clear();
        Outcome plain = tool().run(doc, args, false);
        Outcome observed = tool().run(doc, args, true);
        EXPECT_EQ(plain.rc, observed.rc);
        EXPECT_EQ(plain.answer, observed.answer);
        EXPECT_EQ(plain.err, observed.err);
        if (observed.rc == exit_unusable)
            EXPECT_EQ(tool().files(), 0u);
        else
            EXPECT_EQ(tool().files(), 3u);
    }
}

} // namespace
