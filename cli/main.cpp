// octunnel: translates NETCONF documents, in XML or in RFC 7951 JSON,
// through the tunnel mapping module, loaded into the reference host the way
// the framework loads it, and shows what the module did.
//
// Exit codes: 0 the translation succeeded; 1 the module refused it (its code
// and error details on stderr, nothing on stdout); 2 the tool could not run
// it (usage, unreadable or malformed input, a module that does not load).
#include "json_io.h"
#include "json_schema.h"
#include "options.h"
#include "xml_io.h"

#include "octunnel/yfw_namespaces.h"
#include "yfwhost/host.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <rapidjson/writer.h>
#include <unistd.h>
#include <utility>

namespace octunnel {
namespace {

constexpr int exit_refused = 1;
constexpr int exit_unusable = 2;

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The native roots this module translates, and the walker each goes to.
// tunnel-ip-ma takes the root that the registration names; a child of
// ipv4-network from Valmora-ipv4-ma-oper goes to that model's augment entry.
struct NativeRoot {
    const char *tag;
    const char *ns;
    const char *walker; // null: the registered native root
    const char *augment_ns;
    const char *augment_entry;
};
constexpr NativeRoot native_roots[] = {
    {"tunnel-ip-ma", NS_VALMORA_TUNNEL_IP_MA_OPER, nullptr, nullptr, nullptr},
    {"interface-configurations", NS_VALMORA_IFMGR_CFG,
     "ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations", nullptr, nullptr},
    {"global-interface-configuration", NS_VALMORA_IFMGR_CFG,
     "ymap_vo_octunnel_valmoraifmgrcfg_lvla_globalinterfaceconfiguration", nullptr, nullptr},
    {"ipv4-network", NS_VALMORA_IPV4_IO_OPER, "ymap_vo_octunnel_valmoraipv4iooper_lvla_ipv4network",
     NS_VALMORA_IPV4_MA_OPER, "ymap_vo_octunnel_valmoraipv4maoper_augment_lvla_ipv4_network"},
    {"ipv6-network", NS_VALMORA_IPV6_MA_OPER, "ymap_vo_octunnel_valmoraipv6maoper_lvla_ipv6network",
     nullptr, nullptr},
};

const NativeRoot &route(const vidl_yfw_datatree &root)
{
    for (const NativeRoot &r : native_roots)
        if (std::string_view(root.tag) == r.tag && yfwhost::ns_match(r.ns, root.ns))
            return r;
    std::string known;
    for (const NativeRoot &r : native_roots)
        known += std::string(known.empty() ? "" : ", ") + r.tag;
    throw InputError(static_cast<int>(root.fw_line),
                     element_name(root.tag) + " in namespace '" + root.ns +
                         "' is not a native root this module translates (roots: " + known + ")");
}

std::string module_path(const std::string &option)
{
    if (!option.empty())
        return option;
    if (const char *env = std::getenv("OCTUNNEL_MODULE"); env != nullptr && *env != '\0')
        return env;
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string dir = n > 0 ? std::string(exe, static_cast<std::size_t>(n)) : std::string(".");
    dir = dir.substr(0, dir.find_last_of('/') + 1);
    return dir + "liboctunnel.so";
}

// Where the OpenConfig YANG models are read from for a JSON answer.
std::string yang_dir(const std::string &option)
{
    if (!option.empty())
        return option;
    if (const char *env = std::getenv("OCTUNNEL_YANG_DIR"); env != nullptr && *env != '\0')
        return env;
    return OCTUNNEL_DEFAULT_YANG_DIR;
}

std::string source_name(const std::string &file)
{
    return file == "-" ? "<stdin>" : file;
}

Document read_input(const Options &o)
{
    Input input(o.input);
    return o.json ? read_json_document(input) : read_document(input);
}

// A file the tool writes: whole, or not at all.  It is written under a name
// of its own beside the one asked for and takes that name once complete, so
// that a reader never sees it half-written, and a run that fails leaves
// nothing behind.
class OutputFile {
public:
    explicit OutputFile(const std::string &path) : path_(path), temp_(path + ".XXXXXX")
    {
        int fd = mkstemp(temp_.data());
        if (fd < 0 || (file_ = fdopen(fd, "w")) == nullptr)
            throw UsageError("cannot write " + path_ + ": " + std::strerror(errno));
        out_.emplace(file_);
    }
    ~OutputFile()
    {
        out_.reset();
        if (file_ != nullptr) {
            std::fclose(file_);
            std::remove(temp_.c_str());
        }
    }
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    Output &out() { return *out_; }
    void commit()
    {
        out_->flush();
        out_.reset();
        std::FILE *f = std::exchange(file_, nullptr);
        if (std::fclose(f) != 0 || std::rename(temp_.c_str(), path_.c_str()) != 0) {
            std::remove(temp_.c_str());
            throw UsageError("cannot write " + path_ + ": " + std::strerror(errno));
        }
    }

private:
    std::string path_;
    std::string temp_;
    std::FILE *file_ = nullptr;
    std::optional<Output> out_;
};

// One line of JSON for each path the module added.
void write_emission(const yfwhost::Emission &e, Output &out)
{
    OutputStream stream{out};
    rapidjson::Writer<OutputStream> j(stream);
    auto string = [&](std::string_view s) {
        j.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
    };
    j.StartObject();
    j.Key("tree");
    string(e.to_out ? "out" : "request");
    j.Key("path");
    string(e.path);
    j.Key("ns");
    string(e.ns);
    j.Key("value");
    if (e.value)
        string(*e.value);
    else
        j.Null();
    j.Key("op_node");
    j.Bool(e.op_node);
    j.Key("op");
    if (e.op)
        j.Uint(*e.op);
    else
        j.Null();
    j.Key("list_entry");
    j.Uint(e.list_entry);
    j.Key("path_flag");
    j.Uint(e.path_flag);
    j.EndObject();
    out.put('\n');
}

void report_failure(verrno rc, yfwhost::Request &req)
{
    char code[16];
    std::snprintf(code, sizeof code, "0x%08x", rc);
    const char *name = yfwhost::error_name(rc);
    std::cerr << "octunnel: error " << (name != nullptr ? name : std::to_string(rc)) << " (" << code
              << ")\n";
    if (req.state().error_tag != nullptr)
        std::cerr << "error-tag: " << req.state().error_tag << '\n';
    if (!req.error_path().empty())
        std::cerr << "error-path: " << req.error_path() << '\n';
    if (req.state().error_text != nullptr)
        std::cerr << "error-text: " << req.state().error_text << '\n';
}

// One translation: the module loaded, the request set up with the options'
// tracing, and what the module did written out at the end.  A JSON answer
// is written with what `schema` knows of its models.
class Session {
public:
    Session(const Options &o, std::string_view out_tag)
        : o_(o), module_(module_path(o.module)), req_(o.kind, out_tag)
    {
        o.apply_marks(req_.header());
        if (!o.emissions.empty()) {
            emissions_.emplace(o.emissions);
            req_.on_emission = [this](const yfwhost::Emission &e) {
                write_emission(e, emissions_->out());
            };
        }
        if (!o.log.empty()) {
            log_.emplace(o.log);
            req_.log_to([this](std::string_view line) {
                log_->out().put(line);
                log_->out().put('\n');
            });
        }
        if (!o.ring.empty()) {
            ring_.emplace(o.ring);
            req_.enable_ring();
        }
        req_.notes = [this](uint32_t line, std::string_view text) {
            std::cerr << "octunnel: note: " << source_name(o_.input);
            if (line > 0)
                std::cerr << ':' << line;
            std::cerr << ": " << text << '\n';
        };
    }

    const yfwhost::Module &module() const { return module_; }
    yfwhost::Request &request() { return req_; }

    // Writes the emissions, the log and the ring, then the answer (in JSON,
    // as `schema` types it) or the failure.
    int finish(verrno rc, const JsonSchema *schema)
    {
        if (ring_) {
            for (const std::string &line : req_.ring()) {
                ring_->out().put(line);
                ring_->out().put('\n');
            }
        }
        for (std::optional<OutputFile> *file : {&emissions_, &log_, &ring_})
            if (*file)
                (*file)->commit();
        if (rc != YFW_OK) {
            report_failure(rc, req_);
            return exit_refused;
        }
        Output out(stdout);
        if (o_.json)
            write_json_document(req_.answer(), *schema, out);
        else
            write_document(req_.answer(), out);
        out.flush();
        return 0;
    }

private:
    const Options &o_;
    yfwhost::Module module_;
    yfwhost::Request req_;
    std::optional<OutputFile> emissions_, log_, ring_;
};

// Native data to OpenConfig.
int to_oc(const Options &o)
{
    // The models that type a JSON answer load on the other core while the
    // document is read and translated.
    std::future<std::unique_ptr<OpenConfigSchema>> models;
    if (o.json)
        models = std::async(std::launch::async, [dir = yang_dir(o.yang_dir)] {
            return std::make_unique<OpenConfigSchema>(dir);
        });
    Document doc = read_input(o);
    std::vector<const NativeRoot *> routes;
    for (const vidl_yfw_datatree *root : doc.roots)
        routes.push_back(&route(*root));

    Session session(o, "data");
    yfwhost::Request &req = session.request();
    const yfwhost::Module &module = session.module();
    req.add_input(doc.tree.get());
    verrno rc = YFW_OK;
    for (std::size_t i = 0; i < doc.roots.size() && rc == YFW_OK; ++i) {
        const NativeRoot &r = *routes[i];
        vidl_yfw_datatree *root = doc.roots[i];
        map_function walker = r.walker != nullptr ? module.function(r.walker)
                                                  : module.registration().native_to_oc_root;
        if (walker == nullptr)
            throw UsageError(std::string("the module does not export ") + r.walker);
        rc = walker(req.ctx(), root, req.out());
        if (r.augment_entry == nullptr)
            continue;
        map_function entry = module.function(r.augment_entry);
        for (std::size_t c = 0; c < yfwhost::tree_child_count(root) && rc == YFW_OK; ++c)
            if (yfwhost::ns_match(r.augment_ns, root->subtrees[c].ns))
                rc = entry(req.ctx(), &root->subtrees[c], req.out());
    }
    std::unique_ptr<OpenConfigSchema> schema = o.json ? models.get() : nullptr;
    return session.finish(rc, schema.get());
}

// An OpenConfig request to the native request tree: an edit's <config>, or
// a read's subtree <filter>.
int to_native(const Options &o)
{
    Document doc = read_input(o);
    for (const vidl_yfw_datatree *root : doc.roots)
        if (std::string_view(root->tag) != "interfaces" ||
            !yfwhost::ns_match(NS_OC_INTERFACES, root->ns))
            throw InputError(static_cast<int>(root->fw_line),
                             element_name(root->tag) + " in namespace '" + root->ns +
                                 "' is not the OpenConfig <interfaces> root (" NS_OC_INTERFACES
                                 ")");
    yfwhost::set_router_type(static_cast<int>(o.router_type));
    yfwhost::set_resolve_names(o.resolve_names);

    const bool read = o.kind == YFW_MAP_REQ_GET_CONFIG || o.kind == YFW_MAP_REQ_GET;
    NativeSchema schema;
    Session session(o, read ? "filter" : "config");
    yfwhost::Request &req = session.request();
    map_function root_walker = session.module().registration().oc_to_native_root;
    req.add_input(doc.tree.get());
    verrno rc = YFW_OK;
    for (std::size_t i = 0; i < doc.roots.size() && rc == YFW_OK; ++i)
        rc = root_walker(req.ctx(), doc.roots[i], req.out());
    return session.finish(rc, &schema);
}

} // namespace
} // namespace octunnel

int main(int argc, char **argv)
{
    using namespace octunnel;
    CLI::App app{"Translates documents between the native models of the router and OpenConfig "
                 "tunnel interfaces, through the tunnel mapping module."};
    app.require_subcommand(1);
    // Help footers, kept within 80 columns.
    const std::string kinds = "Request kinds (--kind): get (10), get-config (0), edit (1), or any "
                              "number,\n  decimal or 0x.\n";
    const std::string formats =
        "Formats (--format), of the input and of the answer alike:\n"
        "  xml   NETCONF XML (the default), with nc:operation attributes\n"
        "  json  RFC 7951 JSON, with ietf-netconf:operation metadata; no NETCONF envelope\n"
        "  --emissions, --log and --ring do not change with the format.\n";
    const std::string exits = "Exit status:\n"
                              "  0  translated\n"
                              "  1  the module refused the input (its error on stderr, nothing "
                              "on stdout)\n"
                              "  2  usage, input or installation error\n";
    const std::string environment =
        "Environment: OCTUNNEL_MODULE (the module), OCTUNNEL_YANG_DIR (to-oc: the\n"
        "  OpenConfig models of a JSON answer).";
    app.footer(kinds + formats + exits + environment +
               "\nSee 'octunnel SUBCOMMAND --help' for the options of each.");

    Options o;
    CLI::App *oc = app.add_subcommand(
        "to-oc", "Native data (tunnel-ip-ma, interface-configurations, "
                 "global-interface-configuration, ipv4-network, ipv6-network) to the "
                 "OpenConfig answer: in XML inside a NETCONF <data> element, in JSON bare.");
    o.add_common(*oc, "get");
    oc->add_option("--yang-dir", o.yang_dir,
                   "Directory of the OpenConfig YANG models that type a JSON answer (default: "
                   "$OCTUNNEL_YANG_DIR, else " OCTUNNEL_DEFAULT_YANG_DIR ")")
        ->type_name("DIR");
    oc->footer(kinds + formats + exits + environment);
    CLI::App *native = app.add_subcommand(
        "to-native", "An OpenConfig request on /interfaces (an edit, or a read whose tree is a "
                     "subtree filter) to the native request tree: in XML inside a NETCONF "
                     "<config> (writing kinds) or <filter type=\"subtree\"> (reads), in JSON "
                     "bare, every value a string.");
    Options on;
    on.add_common(*native, "edit");
    native
        ->add_option("--router-type", on.router_type_text,
                     "What the platform answers as its router type (13 refuses IPv6 tunnel "
                     "endpoints)")
        ->type_name("N")
        ->default_str("0");
    native->add_flag("--resolve-names", on.resolve_names,
                     "Let the resolver look names up (by default it takes numeric addresses only, "
                     "so a translation never waits on the network)");
    native->footer(kinds + formats + exits + environment);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : exit_unusable;
    }
    Options &chosen = native->parsed() ? on : o;
    try {
        chosen.finish();
        if (oc->parsed())
            return to_oc(o);
        return to_native(on);
    } catch (const InputError &e) {
        std::cerr << "octunnel: " << source_name(chosen.input);
        if (e.line > 0)
            std::cerr << ':' << e.line;
        std::cerr << ": " << e.what() << '\n';
    } catch (const std::exception &e) {
        std::cerr << "octunnel: " << e.what() << '\n';
    }
    return exit_unusable;
}
