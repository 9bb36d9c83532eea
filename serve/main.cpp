// octunnel serve: the NETCONF agent, a program of its own that `octunnel
// serve` runs in its place (see cli/main.cpp), so that a translation loads
// none of the SSH and NETCONF libraries the agent needs.
//
// `octunnel serve` hands it, in OCTUNNEL_MODULE and OCTUNNEL_YANG_DIR, the
// module and models the tool itself would use; --module and --yang-dir
// override them as they do for the tool.
#include "agent/datastore.h"
#include "cli/options.h"
#include "cli/translate.h"
#include "serve/serve.h"
#include "translate/install.h"

#include <CLI/CLI.hpp>
#include <cstddef>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

// A count of bytes: decimal digits, 1 to 1 TiB.
std::size_t parse_bytes(const std::string &text, const std::string &what)
{
    constexpr std::size_t most = std::size_t{1} << 40;
    std::size_t n = 0;
    for (const char c : text) {
        if (c < '0' || c > '9' || n > most)
            throw std::invalid_argument(what + " " + text + ": not a count of bytes, 1 to " +
                                        std::to_string(most));
        n = n * 10 + static_cast<std::size_t>(c - '0');
    }
    if (text.empty() || n == 0 || n > most)
        throw std::invalid_argument(what + " " + text + ": not a count of bytes, 1 to " +
                                    std::to_string(most));
    return n;
}

} // namespace

int main(int argc, char **argv)
{
    using namespace octunnel;
    serve::ServeOptions so;
    std::string serve_module, serve_yang_dir;
    std::string serve_router_type = "0", serve_max_request, serve_max_oper, serve_startups,
                serve_penalty, serve_max_in_flight, serve_max_unread;
    unsigned serve_per_source = so.netconf.admission.per_source;
    CLI::App app{"A NETCONF agent (RFC 6241, base 1.0 and 1.1) that clients drive in OpenConfig: "
                 "edits go through the module to the native running configuration, reads "
                 "through it to the native configuration and operational data and back.",
                 "octunnel serve"};
    CLI::App *server = &app;
    server
        ->add_option("--state-dir", so.agent.state_dir,
                     "Where the native running configuration (running.xml), startup "
                     "(startup.xml), a confirmed commit's rollback and the SSH host key are "
                     "kept; made if missing")
        ->type_name("DIR")
        ->required();
    server
        ->add_option("--listen", so.netconf.listen,
                     "SSH on this address and port, by number ([ADDR]:PORT for IPv6): a login "
                     "has 30 s, and 10 s to send its first byte; six failed attempts end a "
                     "connection; 256 connections at most")
        ->type_name("ADDR:PORT");
    server
        ->add_option("--unix", so.netconf.unix_path,
                     "A UNIX socket (mode 0600: the agent's user only), no SSH")
        ->type_name("PATH");
    server
        ->add_option("--users", so.users,
                     "Users who log in over SSH by password: NAME:HASH lines, HASH as "
                     "'openssl passwd -6' or mkpasswd prints it; a line with a weak hash (DES, "
                     "MD5) or a malformed one refuses the start")
        ->type_name("FILE");
    server
        ->add_option("--authorized-keys", so.authorized_keys,
                     "Public keys that log in over SSH, in OpenSSH's authorized_keys form; the "
                     "comment of each names its user (alice, or alice@host); from= and "
                     "expiry-time= are checked at each login, and a line the agent cannot honour "
                     "(command=, cert-authority, no user) refuses the start")
        ->type_name("FILE");
    server
        ->add_option("--max-startups", serve_startups,
                     "SSH connections that have not logged in yet, from all sources: from START "
                     "on, a new one is dropped at random, RATE percent of them, rising to all at "
                     "FULL (as OpenSSH's MaxStartups)")
        ->type_name("START:RATE:FULL")
        ->default_str("20:30:80");
    server
        ->add_option("--max-startups-per-source", serve_per_source,
                     "SSH connections that have not logged in yet from one address (IPv6: one "
                     "/64); those beyond are turned away")
        ->type_name("N")
        ->default_str("10")
        ->check(CLI::Range(1, 10000));
    server
        ->add_option("--login-penalty", serve_penalty,
                     "What a failed login costs its source (an IPv4 address, an IPv6 /64), in "
                     "seconds, 0 for nothing: its answer waits this long; a source may fail 10 "
                     "times at once, then once in this time, and is refused beyond that until "
                     "its penalty has run out (10 min at most)")
        ->type_name("SECONDS")
        ->default_str("1");
    server
        ->add_option("--oper-dir", so.agent.oper_dir,
                     "Native operational documents (*.xml, as to-oc reads them) that answer "
                     "<get>, read again apart from the requests when they change; one not "
                     "well-formed or unreadable leaves its last version read whole")
        ->type_name("DIR");
    server
        ->add_option("--max-oper-document", serve_max_oper,
                     "The largest operational document read, in bytes (default 256 MiB); a "
                     "larger one is named in the log and left as last read")
        ->type_name("BYTES");
    server
        ->add_option("--router-type", serve_router_type,
                     "What the platform answers as its router type (13 refuses IPv6 tunnel "
                     "endpoints)")
        ->type_name("N")
        ->default_str("0");
    server->add_flag("--resolve-names", so.agent.resolve_names,
                     "Let the resolver look names up in tunnel endpoints");
    bool print_running = false;
    server->add_flag("--print-running", print_running,
                     "Print the native running configuration of --state-dir as committed (its "
                     "document with the commits logged since) and exit; an agent serving it goes "
                     "on undisturbed");
    server->add_option("--module", serve_module, "The mapping module to load")->type_name("PATH");
    server
        ->add_option("--yang-dir", serve_yang_dir,
                     "The YANG models advertised and served by <get-schema> (default: "
                     "$OCTUNNEL_YANG_DIR, else the models installed with the tool)")
        ->type_name("DIR");
    server->add_option("--threads", so.netconf.threads, "Sessions served at once (default 4)")
        ->type_name("N")
        ->check(CLI::Range(1, 6));
    server
        ->add_option("--max-request", serve_max_request,
                     "The largest <config> or <filter> taken, in bytes (default 256 MiB); a larger "
                     "one is answered too-big, a message larger than this and 1 MiB too-big and "
                     "the session ends")
        ->type_name("BYTES");
    server
        ->add_option("--nacm", so.agent.nacm_file,
                     "Access control rules (RFC 8341): a <nacm> document of ietf-netconf-acm, "
                     "read at start and again on SIGHUP; without it every user may do "
                     "everything. The UNIX socket's sessions of root or the agent's own user "
                     "are never restricted")
        ->type_name("FILE");
    server
        ->add_option("--max-in-flight", serve_max_in_flight,
                     "What the requests of all sessions may hold, in bytes, taken and not yet "
                     "answered (default: the largest message and 64 MiB, 321 MiB); a request "
                     "past it is answered resource-denied and its session goes on")
        ->type_name("BYTES");
    server
        ->add_option("--max-unread", serve_max_unread,
                     "What a client may leave unread of its answers, in bytes (default 64 MiB), "
                     "beyond which its session ends")
        ->type_name("BYTES");
    server
        ->add_option("--max-sessions-per-user", so.netconf.max_sessions_per_user,
                     "Sessions one user may hold at once (default 16); one more is refused")
        ->type_name("N")
        ->check(CLI::Range(1, 256));
#ifdef OCTUNNEL_GNMI
    server
        ->add_option(
            "--gnmi", so.gnmi.listen,
            "gNMI 0.10.0 (Capabilities, Get, Set, Subscribe) on this address and port, by number "
            "([ADDR]:PORT for IPv6), over TLS unless --gnmi-insecure; each RPC carries "
            "the metadata username and password of a --users user")
        ->type_name("ADDR:PORT");
    server->add_option("--tls-cert", so.gnmi.tls_cert, "The gNMI server's certificate chain (PEM)")
        ->type_name("FILE");
    server->add_option("--tls-key", so.gnmi.tls_key, "The private key of --tls-cert (PEM)")
        ->type_name("FILE");
    server
        ->add_option("--tls-client-ca", so.gnmi.client_ca,
                     "Require of every gNMI client a certificate these CAs (PEM) signed")
        ->type_name("FILE");
    server->add_flag("--gnmi-insecure", so.gnmi.insecure,
                     "gNMI in plain text, without TLS: passwords cross the network readable; for "
                     "the loopback and tests");
    server
        ->add_option_function<unsigned>(
            "--gnmi-max-lag",
            [&so](unsigned seconds) { so.gnmi.max_lag = std::chrono::seconds(seconds); },
            "How long a Subscribe stream's updates may wait for its client to take the "
            "ones before, in seconds (default 30); past it the subscriber is cut off "
            "with RESOURCE_EXHAUSTED")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400));
#endif
    server->add_flag("--verbose", so.verbose,
                     "Log sessions, each operational document as it is read, and what "
                     "libnetconf2 says");
    server->footer(
        "The agent serves running, candidate and startup. An edit of running, or a <commit>\n"
        "of the candidate, is checked against the OpenConfig models, applied by RFC 6241's\n"
        "rules to what <get-config> shows, and kept only when the configuration then reads\n"
        "back as the edit says; it applies whole or not at all and is on disk before it is\n"
        "answered. A confirmed commit not confirmed in time is taken back, also across a\n"
        "restart. Startup is loaded only into a running configuration never written.\n"
        "It stops on SIGINT or SIGTERM.\n"
#ifdef OCTUNNEL_GNMI
        "With --gnmi, a gNMI server (Capabilities, Get, Set, Subscribe) edits and reads the same\n"
        "running configuration: an edit made over either protocol is seen at once over\n"
        "both. A Set's deletes, replaces and updates apply as one edit, all or none. A\n"
        "Subscribe STREAM tells, leaf by leaf, what each commit of either protocol and each\n"
        "--oper-dir document changed (ON_CHANGE), or every value at each interval (SAMPLE).\n"
#endif

        "Every message a client sends is checked before libnetconf2 reads it: one that is not\n"
        "well-formed XML in UTF-8, holds no element or is no <rpc> is answered\n"
        "malformed-message (operation-failed on a base:1.0 session); broken framing ends the\n"
        "session.\n"
        "With --nacm, an operation, or an edit of a node, the rules deny is answered\n"
        "access-denied (naming the user, and the node in error-path), and what a user may\n"
        "not read is left out of every answer; /nacm shows the rules and counters.\n"
        "A client that sends requests and does not read the answers holds up no one else: past\n"
        "--max-unread its session ends. What a client sent before its end of input (an SSH\n"
        "channel's EOF, as `ssh -s netconf < file` sends) is all answered before the session\n"
        "ends.\n"
        "Exit status: 0 stopped by a signal; 2 it could not start (one line on stderr says "
        "why).\n"
        "Environment: OCTUNNEL_MODULE (the module), OCTUNNEL_YANG_DIR (the YANG models).");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : exit_unusable;
    }
    try {
        so.agent.router_type = parse_number(serve_router_type, "--router-type");
        if (!serve_max_request.empty())
            so.agent.max_content = parse_number(serve_max_request, "--max-request");
        if (!serve_startups.empty())
            so.netconf.admission.startups = serve::parse_startups(serve_startups, "--max-startups");
        if (serve_per_source > so.netconf.admission.startups.full)
            throw std::invalid_argument("--max-startups-per-source " +
                                        std::to_string(serve_per_source) +
                                        ": more than FULL of --max-startups");
        so.netconf.admission.per_source = serve_per_source;
        if (!serve_penalty.empty())
            so.netconf.admission.penalty = serve::parse_seconds(serve_penalty, "--login-penalty");
        if (!serve_max_oper.empty())
            so.agent.max_oper_document = parse_number(serve_max_oper, "--max-oper-document");
        if (!serve_max_in_flight.empty())
            so.netconf.max_in_flight = parse_bytes(serve_max_in_flight, "--max-in-flight");
        if (!serve_max_unread.empty())
            so.netconf.max_unread = parse_bytes(serve_max_unread, "--max-unread");
    } catch (const std::exception &e) {
        std::cerr << "octunnel: " << e.what() << '\n';
        return exit_unusable;
    }
    if (print_running) {
        try {
            const serve::Datastore running(so.agent.state_dir + "/running.xml", true);
            std::cout << running.document() << std::flush;
            return std::cout ? 0 : exit_unusable;
        } catch (const std::exception &e) {
            std::cerr << "octunnel: " << e.what() << '\n';
            return exit_unusable;
        }
    }
    so.agent.verbose = so.verbose;
    so.agent.module_path = module_path(serve_module);
    so.yang_dir = yang_dir(serve_yang_dir);
    return serve::serve(so, std::cerr);
}
