// octunnel: translates NETCONF documents, in XML or in RFC 7951 JSON,
// through the tunnel mapping module, loaded into the reference host the way
// the framework loads it, and shows what the module did.
//
// Exit codes: 0 the translation succeeded; 1 the module refused it (its code
// and error details on stderr, nothing on stdout); 2 the tool could not run
// it (usage, unreadable or malformed input, a module that does not load).
#include "document.h"
#include "options.h"
#include "translate.h"

#include "octunnel/model_tables.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <optional>

#ifdef OCTUNNEL_SERVE
#include "server.h"
#endif

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
                              "  2  usage, input or installation error: one line on stderr,\n"
                              "     nothing on stdout, no --emissions, --log or --ring file\n";
    const std::string limits = "Limits: a document of at most " +
                               std::to_string(max_document_bytes >> 20) + " MiB, nested at most " +
                               std::to_string(max_depth) +
                               " elements\n  deep (JSON: " + std::to_string(max_json_depth) +
                               " levels of objects and arrays); XML 1.0 in UTF-8 without\n"
                               "  DOCTYPE, or JSON in UTF-8; a leaf at most once in its element.\n";
    const std::string environment =
        "Environment: OCTUNNEL_MODULE (the module), OCTUNNEL_YANG_DIR (to-oc: the\n"
        "  OpenConfig models of a JSON answer).";
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
    native->footer(kinds + formats + exits + limits + environment);

#ifdef OCTUNNEL_SERVE
    serve::ServerOptions so;
    Options serve_options;
    std::string serve_router_type = "0", serve_max_request;
    CLI::App *server = app.add_subcommand(
        "serve", "A NETCONF agent (RFC 6241, base 1.0 and 1.1) that clients drive in OpenConfig: "
                 "edits go through the module to the native running configuration, reads "
                 "through it to the native configuration and operational data and back.");
    server
        ->add_option("--state-dir", so.agent.state_dir,
                     "Where the native running configuration (running.xml) and the SSH host key "
                     "are kept; made if missing")
        ->type_name("DIR")
        ->required();
    server
        ->add_option("--listen", so.listen,
                     "SSH on this address and port, by number ([ADDR]:PORT for IPv6): a login "
                     "has 30 s, 16 log in at once, six failed attempts end a connection")
        ->type_name("ADDR:PORT");
    server
        ->add_option("--unix", so.unix_path,
                     "A UNIX socket (mode 0600: the agent's user only), no SSH")
        ->type_name("PATH");
    server
        ->add_option("--users", so.users,
                     "Users who log in over SSH by password: NAME:HASH lines, HASH as "
                     "'openssl passwd -6' prints it")
        ->type_name("FILE");
    server
        ->add_option("--authorized-keys", so.authorized_keys,
                     "Public keys that log in over SSH, in OpenSSH's authorized_keys form; the "
                     "comment of each names its user (alice, or alice@host)")
        ->type_name("FILE");
    server
        ->add_option("--oper-dir", so.agent.oper_dir,
                     "Native operational documents (*.xml, as to-oc reads them) that answer "
                     "<get>, read again when they change")
        ->type_name("DIR");
    server
        ->add_option("--router-type", serve_router_type,
                     "What the platform answers as its router type (13 refuses IPv6 tunnel "
                     "endpoints)")
        ->type_name("N")
        ->default_str("0");
    server->add_flag("--resolve-names", so.agent.resolve_names,
                     "Let the resolver look names up in tunnel endpoints");
    server->add_option("--module", serve_options.module, "The mapping module to load")
        ->type_name("PATH");
    server
        ->add_option("--yang-dir", serve_options.yang_dir,
                     "The YANG models advertised and served by <get-schema> (default: "
                     "$OCTUNNEL_YANG_DIR, else the models installed with the tool)")
        ->type_name("DIR");
    server->add_option("--threads", so.threads, "Sessions served at once (default 4)")
        ->type_name("N")
        ->check(CLI::Range(1, 6));
    server
        ->add_option("--max-request", serve_max_request,
                     "The largest <config> or <filter> taken, in bytes (default 256 MiB); a larger "
                     "one is answered too-big, a message larger than this and 1 MiB too-big and "
                     "the session ends")
        ->type_name("BYTES");
    server->add_flag("--verbose", so.verbose, "Log sessions and what libnetconf2 says");
    server->footer(
        "The agent serves the running configuration alone (no candidate or startup); an edit\n"
        "applies whole or not at all and is on disk before it is answered. It stops on\n"
        "SIGINT or SIGTERM.\n"
        "Every message a client sends is checked before libnetconf2 reads it: one that is not\n"
        "well-formed XML in UTF-8, holds no element or is no <rpc> is answered\n"
        "malformed-message (operation-failed on a base:1.0 session); broken framing ends the\n"
        "session.\n"
        "Exit status: 0 stopped by a signal; 2 it could not start (one line on stderr says "
        "why).\n"
        "Environment: OCTUNNEL_MODULE (the module), OCTUNNEL_YANG_DIR (the YANG models).");
#endif

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : exit_unusable;
    }
#ifdef OCTUNNEL_SERVE
    if (server->parsed()) {
        try {
            so.agent.router_type = parse_number(serve_router_type, "--router-type");
            if (!serve_max_request.empty())
                so.agent.max_content = parse_number(serve_max_request, "--max-request");
        } catch (const std::exception &e) {
            std::cerr << "octunnel: " << e.what() << '\n';
            return exit_unusable;
        }
        so.agent.module_path = Translator::module_path(serve_options);
        so.yang_dir = yang_dir(serve_options);
        return serve::serve(so, std::cerr);
    }
#endif
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
