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
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unistd.h>

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
                     "<" + std::string(root.tag) + "> in namespace '" + root.ns +
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

std::string read_input(const std::string &file)
{
    if (file == "-") {
        return std::string(std::istreambuf_iterator<char>(std::cin), {});
    }
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw UsageError("cannot read " + file);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<yfwhost::Tree> read_roots(const Options &o)
{
    std::string text = read_input(o.input);
    return o.json ? read_json_document(text) : read_document(text);
}

std::ofstream open_output(const std::string &file)
{
    std::ofstream out(file);
    if (!out)
        throw UsageError("cannot write " + file);
    return out;
}

void write_emissions(const yfwhost::Request &req, std::ostream &os)
{
    for (const yfwhost::Emission &e : req.emissions()) {
        nlohmann::ordered_json j;
        j["tree"] = e.to_out ? "out" : "request";
        j["path"] = e.path;
        j["ns"] = e.ns;
        j["value"] = e.value ? nlohmann::ordered_json(*e.value) : nullptr;
        j["op_node"] = e.op_node;
        j["op"] = e.op ? nlohmann::ordered_json(*e.op) : nullptr;
        j["list_entry"] = e.list_entry;
        j["path_flag"] = e.path_flag;
        os << j.dump() << '\n';
    }
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
    Session(const Options &o, std::string_view out_tag, const JsonSchema *schema = nullptr)
        : o_(o), schema_(schema), module_(module_path(o.module)), req_(o.kind, out_tag)
    {
        o.apply_marks(req_.header());
        if (!o.log.empty()) {
            log_ = open_output(o.log);
            req_.log_to([this](std::string_view line) { log_ << line << '\n'; });
        }
        if (!o.ring.empty())
            req_.enable_ring();
        req_.notes = [this](uint32_t line, std::string_view text) {
            std::cerr << "octunnel: note: " << source_name(o_.input);
            if (line > 0)
                std::cerr << ':' << line;
            std::cerr << ": " << text << '\n';
        };
    }

    const yfwhost::Module &module() const { return module_; }
    yfwhost::Request &request() { return req_; }

    // Writes the emissions and the ring, then the answer or the failure.
    int finish(verrno rc)
    {
        if (!o_.emissions.empty()) {
            std::ofstream os = open_output(o_.emissions);
            write_emissions(req_, os);
        }
        if (!o_.ring.empty()) {
            std::ofstream os = open_output(o_.ring);
            for (const std::string &line : req_.ring())
                os << line << '\n';
        }
        if (rc != YFW_OK) {
            report_failure(rc, req_);
            return exit_refused;
        }
        if (o_.json)
            std::cout << write_json_document(req_.out(), *schema_);
        else
            std::cout << write_document(req_.out());
        return 0;
    }

private:
    const Options &o_;
    const JsonSchema *schema_;
    yfwhost::Module module_;
    yfwhost::Request req_;
    std::ofstream log_;
};

// Native data to OpenConfig.
int to_oc(const Options &o)
{
    std::vector<yfwhost::Tree> roots = read_roots(o);
    std::vector<const NativeRoot *> routes;
    for (const yfwhost::Tree &root : roots)
        routes.push_back(&route(*root));
    std::unique_ptr<OpenConfigSchema> schema;
    if (o.json)
        schema = std::make_unique<OpenConfigSchema>(yang_dir(o.yang_dir));

    Session session(o, "data", schema.get());
    yfwhost::Request &req = session.request();
    const yfwhost::Module &module = session.module();
    verrno rc = YFW_OK;
    for (std::size_t i = 0; i < roots.size() && rc == YFW_OK; ++i) {
        const NativeRoot &r = *routes[i];
        vidl_yfw_datatree *root = roots[i].get();
        req.add_input(root);
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
    return session.finish(rc);
}

// An OpenConfig request to the native request tree: an edit's <config>, or
// a read's subtree <filter>.
int to_native(const Options &o)
{
    std::vector<yfwhost::Tree> roots = read_roots(o);
    for (const yfwhost::Tree &root : roots)
        if (std::string_view(root->tag) != "interfaces" ||
            !yfwhost::ns_match(NS_OC_INTERFACES, root->ns))
            throw InputError(static_cast<int>(root->fw_line),
                             "<" + std::string(root->tag) + "> in namespace '" + root->ns +
                                 "' is not the OpenConfig <interfaces> root (" NS_OC_INTERFACES
                                 ")");
    yfwhost::set_router_type(static_cast<int>(o.router_type));
    yfwhost::set_resolve_names(o.resolve_names);

    const bool read = o.kind == YFW_MAP_REQ_GET_CONFIG || o.kind == YFW_MAP_REQ_GET;
    NativeSchema schema;
    Session session(o, read ? "filter" : "config", &schema);
    yfwhost::Request &req = session.request();
    map_function root_walker = session.module().registration().oc_to_native_root;
    verrno rc = YFW_OK;
    for (std::size_t i = 0; i < roots.size() && rc == YFW_OK; ++i) {
        req.add_input(roots[i].get());
        rc = root_walker(req.ctx(), roots[i].get(), req.out());
    }
    return session.finish(rc);
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
