// octunnel: translates NETCONF documents through the tunnel mapping module,
// loaded into the reference host the way the framework loads it, and shows
// what the module did.
//
// Exit codes: 0 the translation succeeded; 1 the module refused it (its code
// and error details on stderr, nothing on stdout); 2 the tool could not run
// it (usage, unreadable or malformed input, a module that does not load).
#include "options.h"
#include "xml_io.h"

#include "octunnel/yfw_namespaces.h"
#include "yfwhost/host.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unistd.h>

namespace octunnel
{
namespace
{

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

// Native data to OpenConfig.
int to_oc(const Options &o)
{
    std::vector<yfwhost::Tree> roots = read_document(read_input(o.input));
    std::vector<const NativeRoot *> routes;
    for (const yfwhost::Tree &root : roots)
        routes.push_back(&route(*root));

    yfwhost::Module module(module_path(o.module));
    yfwhost::Request req(o.kind);
    o.apply_marks(req.header());

    std::ofstream log;
    if (!o.log.empty()) {
        log = open_output(o.log);
        req.log_to([&log](std::string_view line) { log << line << '\n'; });
    }
    if (!o.ring.empty())
        req.enable_ring();

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

    if (!o.emissions.empty()) {
        std::ofstream os = open_output(o.emissions);
        write_emissions(req, os);
    }
    if (!o.ring.empty()) {
        std::ofstream os = open_output(o.ring);
        for (const std::string &line : req.ring())
            os << line << '\n';
    }
    if (rc != YFW_OK) {
        report_failure(rc, req);
        return exit_refused;
    }
    std::cout << write_data(req.out());
    return 0;
}

} // namespace
} // namespace octunnel

int main(int argc, char **argv)
{
    using namespace octunnel;
    CLI::App app{"Translates NETCONF documents between the native models of the router and "
                 "OpenConfig tunnel interfaces, through the tunnel mapping module."};
    app.require_subcommand(1);
    app.footer("Exit status: 0 translated; 1 the module refused the input (its error on "
               "stderr); 2 usage, input or installation error.");

    Options o;
    CLI::App *oc = app.add_subcommand(
        "to-oc", "Native data (tunnel-ip-ma, interface-configurations, "
                 "global-interface-configuration, ipv4-network, ipv6-network) to the "
                 "OpenConfig answer, printed inside a NETCONF <data> element.");
    o.add_common(*oc, "get");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : exit_unusable;
    }
    try {
        o.finish();
        if (oc->parsed())
            return to_oc(o);
    } catch (const InputError &e) {
        std::cerr << "octunnel: " << (o.input == "-" ? "<stdin>" : o.input);
        if (e.line > 0)
            std::cerr << ':' << e.line;
        std::cerr << ": " << e.what() << '\n';
    } catch (const std::exception &e) {
        std::cerr << "octunnel: " << e.what() << '\n';
    }
    return exit_unusable;
}
