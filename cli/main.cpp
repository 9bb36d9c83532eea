// octunnel: translates NETCONF documents, in XML or in RFC 7951 JSON,
// through the tunnel mapping module, loaded into the reference host the way
// the framework loads it, and shows what the module did.
//
// Exit codes: 0 the translation succeeded; 1 the module refused it (its code
// and error details on stderr, nothing on stdout); 2 the tool could not run
// it (usage, unreadable or malformed input, a module that does not load).
#include "cli/options.h"
#include "cli/translate.h"
#include "translate/document.h"
#include "translate/install.h"

#include "octunnel/model_tables.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <unistd.h>
#include <vector>

#ifdef OCTUNNEL_SERVE
namespace {

// `octunnel serve ARGS` becomes `octunnel-serve ARGS` in the same process,
// told where the tool finds its module and models (what is already set in
// the environment stays, as --module and --yang-dir do).  The agent's
// libraries (libnetconf2, libssh and what they bring) are thus loaded by
// the agent alone, and a translation starts without them.
int run_serve(int argc, char **argv)
{
    using namespace octunnel;
    const std::string program = serve_program();
    const Options defaults;
    setenv("OCTUNNEL_MODULE", module_path(defaults.module).c_str(), 1);
    setenv("OCTUNNEL_YANG_DIR", yang_dir(defaults.yang_dir).c_str(), 1);
    std::vector<char *> args(argv + 1, argv + argc + 1);
    args[0] = const_cast<char *>(program.c_str());
    execv(program.c_str(), args.data());
    std::cerr << "octunnel: serve: cannot run " << program << ": " << std::strerror(errno) << '\n';
    return octunnel::exit_unusable;
}

} // namespace
#endif

int main(int argc, char **argv)
{
    using namespace octunnel;
#ifdef OCTUNNEL_SERVE
    if (argc >= 2 && std::strcmp(argv[1], "serve") == 0)
        return run_serve(argc, argv);
#endif
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
                              "  2  usage, input or installation error: one line on stderr,\n"
                              "     nothing on stdout, no --emissions, --log or --ring file\n";
    const std::string limits = "Limits: a document of at most " +
                               std::to_string(max_document_bytes >> 20) + " MiB, nested at most " +
                               std::to_string(max_depth) +
                               " elements\n  deep (JSON: " + std::to_string(max_json_depth) +
                               " levels of objects and arrays); XML 1.0 in UTF-8 without\n"
                               "  DOCTYPE, or JSON in UTF-8; a leaf at most once in its element.\n";
    const std::string environment =
        "Environment: OCTUNNEL_MODULE (the module), OCTUNNEL_YANG_DIR (the OpenConfig\n"
        "  models of a JSON answer and of --validate).";
    app.footer(kinds + formats + exits + limits + environment +
               "\nSee 'octunnel SUBCOMMAND --help' for the options of each.");

    Options o;
    std::string roots;
    for (const models::root &r : models::native_roots)
        roots += (roots.empty() ? "" : ", ") + std::string(r.tag);
    CLI::App *oc = app.add_subcommand(
        "to-oc", "Native data (" + roots +
                     ") to the OpenConfig answer: in XML inside a NETCONF <data> element, in JSON "
                     "bare.");
    o.add_common(*oc, "get");
    oc->add_option("--yang-dir", o.yang_dir,
                   "Directory of the OpenConfig YANG models that type a JSON answer (default: "
                   "$OCTUNNEL_YANG_DIR, else the models installed with the tool)")
        ->type_name("DIR");
    oc->footer(kinds + formats + exits + limits + environment);
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
    native->add_flag("--validate", on.validate,
                     "Check the request against the OpenConfig models first, as octunnel serve "
                     "does: unknown elements and namespaces, keys, state, and (of an edit) "
                     "every value's type; a refusal exits 2 naming the node");
    native
        ->add_option("--yang-dir", on.yang_dir,
                     "Directory of the OpenConfig YANG models of --validate (default: "
                     "$OCTUNNEL_YANG_DIR, else the models installed with the tool)")
        ->type_name("DIR");
    native->footer(kinds + formats + exits + limits + environment);

#ifdef OCTUNNEL_SERVE
    // Listed here; run by a program of its own (below).
    app.add_subcommand("serve", "A NETCONF agent (RFC 6241, base 1.0 and 1.1) that clients "
                                "drive in OpenConfig; see 'octunnel serve --help'.");
#endif

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : exit_unusable;
    }
    Options &chosen = native->parsed() ? on : o;
    std::optional<Input> input;
    try {
        chosen.finish();
        input.emplace(chosen.input);
    } catch (const std::exception &e) {
        std::cerr << "octunnel: " << e.what() << '\n';
        return exit_unusable;
    }
    Translator translator;
    return translator.run(chosen, oc->parsed() ? Direction::to_oc : Direction::to_native, *input,
                          stdout, std::cerr);
}
