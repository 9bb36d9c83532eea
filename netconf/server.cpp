#include "netconf/server.h"
#include "netconf/monitor.h"
#include "netconf/notifications.h"

#include "agent/access.h"
#include "netconf/relay.h"
#include "netconf/requests.h"
#include "netconf/screen.h"
#include "netconf/ssh.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <ostream>
#include <poll.h>
#include <pwd.h>
#include <sstream>
#include <string_view>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>

#include <libyang/libyang.h>
#include <nc_server.h>

namespace octunnel::serve {
namespace {

// What libnetconf2 calls back into, for the one server of the process.
class Server;
Server *the_server = nullptr;

NC_ERR tag_of(const std::string &tag)
{
    static const std::unordered_map<std::string, NC_ERR> tags = {
        {"in-use", NC_ERR_IN_USE},
        {"invalid-value", NC_ERR_INVALID_VALUE},
        {"too-big", NC_ERR_TOO_BIG},
        {"missing-attribute", NC_ERR_MISSING_ATTR},
        {"bad-attribute", NC_ERR_BAD_ATTR},
        {"unknown-attribute", NC_ERR_UNKNOWN_ATTR},
        {"missing-element", NC_ERR_MISSING_ELEM},
        {"bad-element", NC_ERR_BAD_ELEM},
        {"unknown-element", NC_ERR_UNKNOWN_ELEM},
        {"unknown-namespace", NC_ERR_UNKNOWN_NS},
        {"access-denied", NC_ERR_ACCESS_DENIED},
        {"lock-denied", NC_ERR_LOCK_DENIED},
        {"resource-denied", NC_ERR_RES_DENIED},
        {"rollback-failed", NC_ERR_ROLLBACK_FAILED},
        {"data-exists", NC_ERR_DATA_EXISTS},
        {"data-missing", NC_ERR_DATA_MISSING},
        {"operation-not-supported", NC_ERR_OP_NOT_SUPPORTED},
        {"operation-failed", NC_ERR_OP_FAILED},
        {"malformed-message", NC_ERR_MALFORMED_MSG},
    };
    auto it = tags.find(tag);
    return it != tags.end() ? it->second : NC_ERR_OP_FAILED;
}

NC_ERR_TYPE type_of(const std::string &type)
{
    if (type == "transport")
        return NC_ERR_TYPE_TRAN;
    if (type == "rpc")
        return NC_ERR_TYPE_RPC;
    if (type == "protocol")
        return NC_ERR_TYPE_PROT;
    return NC_ERR_TYPE_APP;
}

// The fields of an <rpc-error> in the order RFC 6241 gives them.
int rank(const lyd_node *field)
{
    static constexpr std::string_view order[] = {"error-type",    "error-tag",  "error-severity",
                                                 "error-app-tag", "error-path", "error-message",
                                                 "error-info"};
    const std::string_view name = LYD_NAME(field);
    return static_cast<int>(std::find(std::begin(order), std::end(order), name) -
                            std::begin(order));
}

// libnetconf2 adds each field after those there are, error-info before
// the message it is given later: they are put in order again.
void in_order(lyd_node *err)
{
    std::vector<lyd_node *> fields;
    for (lyd_node *f = lyd_child(err); f != nullptr; f = f->next)
        fields.push_back(f);
    std::stable_sort(fields.begin(), fields.end(),
                     [](const lyd_node *a, const lyd_node *b) { return rank(a) < rank(b); });
    for (lyd_node *f : fields) {
        lyd_unlink_tree(f);
        lyd_insert_child(err, f);
    }
}

// An <error-path> whose prefixes are bound where it is written.
// nc_err_set_path() makes a node of the text alone; libyang keeps the
// namespaces of the prefixes an opaque node's value uses when it parses
// the node, and declares them when it prints it.
lyd_node *error_path(const ly_ctx *ctx, const RpcError &e)
{
    std::string xml = "<error-path xmlns=\"" + std::string(netconf_ns) + "\"";
    for (const auto &[prefix, ns] : e.path_namespaces) {
        xml += " xmlns:" + prefix + "=\"";
        escape_xml(xml, ns, true);
        xml += "\"";
    }
    xml += ">";
    escape_xml(xml, e.path);
    xml += "</error-path>";
    lyd_node *node = nullptr;
    if (lyd_parse_data_mem(ctx, xml.c_str(), LYD_XML, LYD_PARSE_OPAQ | LYD_PARSE_ONLY, 0, &node) !=
            LY_SUCCESS ||
        node == nullptr || node->next != nullptr) {
        lyd_free_all(node);
        return nullptr;
    }
    return node;
}

lyd_node *error_node(const ly_ctx *ctx, const RpcError &e)
{
    const NC_ERR tag = tag_of(e.tag);
    const NC_ERR_TYPE type = type_of(e.type);
    const char *element = e.bad_element.c_str();
    lyd_node *err = nullptr;
    bool element_given = false;
    switch (tag) {
    case NC_ERR_MISSING_ATTR:
    case NC_ERR_BAD_ATTR:
    case NC_ERR_UNKNOWN_ATTR:
        err = nc_err(ctx, tag, type, e.bad_attribute.c_str(), element);
        element_given = true;
        break;
    case NC_ERR_MISSING_ELEM:
    case NC_ERR_BAD_ELEM:
    case NC_ERR_UNKNOWN_ELEM:
        err = nc_err(ctx, tag, type, element);
        element_given = true;
        break;
    case NC_ERR_UNKNOWN_NS:
        err = nc_err(ctx, tag, type, element, e.bad_namespace.c_str());
        element_given = true;
        break;
    case NC_ERR_LOCK_DENIED:
        err = nc_err(ctx, tag, e.session_id);
        break;
    case NC_ERR_DATA_EXISTS:
    case NC_ERR_DATA_MISSING:
    case NC_ERR_MALFORMED_MSG:
        err = nc_err(ctx, tag);
        break;
    default:
        err = nc_err(ctx, tag, type);
    }
    if (err == nullptr)
        throw std::bad_alloc();
    if (!e.message.empty())
        nc_err_set_msg(err, e.message.c_str(), "en");
    if (!e.path.empty()) {
        // A prefix that is not an XML name cannot be declared: the path
        // then goes as text alone.
        lyd_node *path = e.path_namespaces.empty() ? nullptr : error_path(ctx, e);
        if (path != nullptr)
            lyd_insert_child(err, path);
        else
            nc_err_set_path(err, e.path.c_str());
    }
    if (!e.app_tag.empty())
        nc_err_set_app_tag(err, e.app_tag.c_str());
    if (!element_given && !e.bad_element.empty())
        nc_err_add_bad_elem(err, element);
    if (tag != NC_ERR_LOCK_DENIED && e.session_id != 0)
        nc_err_set_sid(err, e.session_id);
    in_order(err);
    return err;
}

// Whether the reply the rpc callback of this thread is building is an
// <rpc-error>: libnetconf2 does not tell of a reply it has not sent.
thread_local bool replied_error = false;

nc_server_reply *reply_errors(const ly_ctx *ctx, const std::vector<RpcError> &errors)
{
    replied_error = true;
    nc_server_reply *reply = nc_server_reply_err(error_node(ctx, errors.front()));
    for (std::size_t i = 1; i < errors.size(); ++i)
        nc_server_reply_add_err(reply, error_node(ctx, errors[i]));
    return reply;
}

// The <rpc-reply> of `errors` to the <rpc> of `message_id`, as text: what
// the relay answers in libnetconf2's stead.
std::string reply_text(const ly_ctx *ctx, const std::vector<RpcError> &errors,
                       const std::string &message_id)
{
    std::string out = "<rpc-reply xmlns=\"" + std::string(netconf_ns) + "\"";
    if (!message_id.empty()) {
        out += " message-id=\"";
        escape_xml(out, message_id, true);
        out += "\"";
    }
    out += ">";
    for (const RpcError &e : errors) {
        lyd_node *err = error_node(ctx, e);
        char *text = nullptr;
        const LY_ERR rc = lyd_print_mem(&text, err, LYD_XML, LYD_PRINT_SHRINK);
        lyd_free_tree(err);
        if (rc != LY_SUCCESS || text == nullptr)
            throw std::bad_alloc();
        out += text;
        std::free(text);
    }
    return out + "</rpc-reply>";
}

nc_server_reply *error(const ly_ctx *ctx, const char *tag, const std::string &message,
                       const char *type = "protocol")
{
    RpcError e;
    e.tag = tag;
    e.type = type;
    e.message = message;
    return reply_errors(ctx, {e});
}

// The reply of `rpc` with its output `data`: XML elements, or a text.
nc_server_reply *reply_data(const lyd_node *rpc, const std::string &data, bool xml = true)
{
    lyd_node *out = nullptr;
    if (lyd_dup_single(rpc, nullptr, 0, &out) != LY_SUCCESS)
        throw std::bad_alloc();
    char *value = strdup(data.c_str());
    if (value == nullptr ||
        lyd_new_any(out, nullptr, "data", value, 1, xml ? LYD_ANYDATA_XML : LYD_ANYDATA_STRING, 1,
                    nullptr) != LY_SUCCESS) {
        lyd_free_tree(out);
        throw std::bad_alloc();
    }
    return nc_server_reply_data(out, NC_WD_EXPLICIT, NC_PARAMTYPE_FREE);
}

nc_server_reply *answer(const lyd_node *rpc, const Outcome &o, bool data)
{
    if (!o.ok())
        return reply_errors(LYD_CTX(rpc), o.errors);
    if (!data)
        return nc_server_reply_ok();
    return reply_data(rpc, o.data);
}

// The YANG library of the modules served (both revisions libyang writes),
// which <get> answers beside NETCONF monitoring.
std::string yang_library(ly_ctx *ctx)
{
    std::string xml;
    lyd_node *library = nullptr;
    if (ly_ctx_get_yanglib_data(ctx, &library, "%u", ly_ctx_get_change_count(ctx)) == LY_SUCCESS) {
        char *text = nullptr;
        if (lyd_print_mem(&text, library, LYD_XML, LYD_PRINT_WITHSIBLINGS) == LY_SUCCESS &&
            text != nullptr)
            xml += text;
        std::free(text);
        lyd_free_all(library);
    }
    return xml;
}

// What NETCONF monitoring says of the agent that does not change while it
// serves: its capabilities and the schemas of the modules served.
void set_served(Monitor &monitor, ly_ctx *ctx)
{
    std::string caps_xml;
    if (const char **caps = nc_server_get_cpblts(ctx); caps != nullptr) {
        for (const char **c = caps; *c != nullptr; ++c) {
            caps_xml += "<capability>";
            escape_xml(caps_xml, *c);
            caps_xml += "</capability>";
            lydict_remove(ctx, *c);
        }
        std::free(caps);
    }
    std::string xml;
    uint32_t index = 0;
    while (const lys_module *m = ly_ctx_get_module_iter(ctx, &index)) {
        xml += "<schema><identifier>";
        escape_xml(xml, m->name);
        xml += "</identifier><version>";
        escape_xml(xml, m->revision != nullptr ? m->revision : "");
        xml += "</version><format>yang</format><namespace>";
        escape_xml(xml, m->ns);
        xml += "</namespace><location>NETCONF</location></schema>";
    }
    monitor.set_served(std::move(caps_xml), std::move(xml));
}

// A user as the log names it.
std::string user_name(std::string_view user)
{
    return octunnel::quoted(one_line(user));
}

// How long a client has to log in over SSH, and to send its first byte:
// every client sends its version line as soon as it connects, or as soon
// as it hears the agent's (libssh's), in a round trip or two; one that says
// nothing in 10 s holds a place of its source's for nothing.  How many may
// be at it at once, the admission's limits say.
constexpr long login_timeout_s = 30;
constexpr auto silent_grace = std::chrono::seconds(10);
// How many connections, logged in or not, are served at once: each holds a
// thread, so that no client, however many it opens, exhausts the agent's.
constexpr std::size_t max_connections = 256;

// What the log says of a connection or attempt the admission refused.
std::string refusal(const Admission::Verdict &v, const std::string &source, const std::string &peer)
{
    using std::chrono::duration_cast;
    using std::chrono::seconds;
    switch (v.refusal) {
    case Admission::Refusal::penalised:
        return "connections from " + source + " refused for " +
               std::to_string(duration_cast<seconds>(v.left).count() + 1) +
               " s: too many failed logins (first refused: " + peer + ")";
    case Admission::Refusal::source_busy:
        return "a connection from " + peer + " turned away: " + std::to_string(v.count) +
               " connections from " + source +
               " are logging in already (more are turned away until one is done)";
    case Admission::Refusal::startups:
        return "a connection from " + peer + " dropped: " + std::to_string(v.count) +
               " clients are logging in (" + std::to_string(v.dropped) +
               " dropped since the last such line)";
    case Admission::Refusal::none:
        break;
    }
    return {};
}

// The largest message a session takes: the largest request and the rest of
// its <rpc>.
std::size_t max_message(const Front &f)
{
    return f.agent_options.max_content + (std::size_t{1} << 20);
}

// What requests in flight may hold by default: one message of the largest
// and 64 MiB for every other session's requests meanwhile.  Requests are
// served one at a time, so a second large one would only wait, holding its
// memory (and what libyang makes of it once read, many times its size).
std::size_t max_in_flight(const NetconfOptions &o, const Front &f)
{
    return o.max_in_flight != 0 ? o.max_in_flight : max_message(f) + (std::size_t{64} << 20);
}

class Server : public Service {
public:
    Server(const NetconfOptions &o, const Front &f)
        : o_(o), f_(f), admission_(f.admission), budget_(max_in_flight(o, f))
    {
    }
    ~Server() override;

    void start() override;
    void stop() override;
    void log(const std::string &line) { f_.log(line); }
    bool verbose() const { return f_.verbose; }

    nc_server_reply *rpc(lyd_node *rpc, nc_session *session);
    Monitor &monitor() { return monitor_; }

private:
    // Where a client comes from, and what it has received and answered
    // from its first byte on.
    struct Client {
        std::string user;
        Transport transport;
        std::string host, port; // none on the UNIX socket
        // The agent's own administrator, whom access control never holds.
        bool recovery = false;
        std::shared_ptr<SessionCounters> counters = std::make_shared<SessionCounters>();
    };

    void open();
    void poll_loop();
    void add(nc_session *session, int fd, const Client &from);
    void end(nc_session *session);
    int listen_tcp();
    void listen_unix();
    void accept_loop();
    void watch_loop();
    void spawn(std::function<void()> work);
    std::size_t reap();
    // Keeps `fd` known until unwatch(), to be shut down when the agent
    // stops or, given times, when a login outlasts `login` or its client
    // has sent nothing in `grace`; none once stopping.
    std::optional<uint64_t> watch(int fd, std::chrono::seconds login,
                                  std::chrono::seconds grace = std::chrono::seconds(0));
    void unwatch(uint64_t id);
    void ssh_connection(int fd, std::string host, std::string port, std::string account);
    void unix_connection(int client);
    void serve_client(ClientSide &client, const Client &from);
    // A session of `user` begins: a reason to refuse it, or none, and it
    // counts until session_gone().
    std::optional<std::string> session_of(const std::string &user);
    void session_gone(const std::string &user);
    // The user of a session, quoted; with sessions_mutex_ held.
    std::string user_of(uint32_t id) const;
    nc_server_reply *kill_session(const lyd_node *rpc, uint32_t sid);
    nc_server_reply *get_schema(const lyd_node *rpc);

    const NetconfOptions o_;
    const Front f_;
    Monitor monitor_;
    std::unique_ptr<Notifications> notifications_;
    std::string yang_library_;
    std::unique_ptr<SshServer> ssh_;
    Admission &admission_; // the program's, which every front charges
    ly_ctx *ctx_ = nullptr;
    nc_pollsession *ps_ = nullptr;
    bool nc_started_ = false;
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;

    std::mutex sessions_mutex_;
    std::condition_variable sessions_cv_;
    std::unordered_map<uint32_t, nc_session *> sessions_;
    // libnetconf2's end of the socket pair of each session, and its user.
    std::unordered_map<uint32_t, int> session_fds_;
    std::unordered_map<uint32_t, std::string> session_users_;
    // The sessions of each user, from their client's hello to their end.
    std::unordered_map<std::string, unsigned> user_sessions_;
    // What the requests of all sessions hold before they are answered.
    RequestBudget budget_;

    int tcp_fd_ = -1;
    int unix_fd_ = -1;
    // One thread for each client connection, joined once done.
    struct Connection {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::vector<Connection> connections_;
    // The sockets of SSH connections, shut down when a login outlasts its
    // time or the agent stops: that ends whatever libssh waits for.
    std::mutex sockets_mutex_;
    std::condition_variable sockets_cv_;
    enum class Cut { no, silent, late }; // why the watch shut a socket down
    struct Socket {
        int fd;
        std::chrono::steady_clock::time_point deadline; // of the login; max(): none
        std::chrono::steady_clock::time_point silence;  // of the first byte; max(): none
        Cut cut = Cut::no;
    };
    std::unordered_map<uint64_t, Socket> sockets_;
    uint64_t next_socket_ = 0;
};

// ---------------------------------------------------------------- callbacks

// Every <rpc> that libnetconf2 could read comes here, <close-session> and
// <get-schema> too: it is counted before it is answered, so that a <get>
// counts itself, and so is its answer when it is an error, before the
// client can hear it.
nc_server_reply *rpc_callback(lyd_node *rpc, nc_session *session)
{
    auto *counters = static_cast<SessionCounters *>(nc_session_get_data(session));
    if (counters != nullptr)
        the_server->monitor().rpc(*counters);
    replied_error = false;
    nc_server_reply *reply = the_server->rpc(rpc, session);
    if (counters != nullptr && replied_error)
        the_server->monitor().rpc_error(*counters);
    return reply;
}

void nc_print(NC_VERB_LEVEL level, const char *message)
{
    if (level <= NC_VERB_WARNING || the_server->verbose())
        the_server->log(std::string("libnetconf2: ") + one_line(message != nullptr ? message : ""));
}

// ---------------------------------------------------------------- requests

nc_server_reply *Server::rpc(lyd_node *rpc, nc_session *session)
{
    const ly_ctx *ctx = LYD_CTX(rpc);
    const std::string_view name = LYD_NAME(rpc);
    const std::string_view module = rpc->schema->module->name;
    const uint32_t sid = nc_session_get_id(session);
    try {
        // Access control before anything is done (RFC 8341, 3.4.4).
        if (auto denied = f_.agent.authorize(sid, rpc->schema))
            return reply_errors(ctx, {*denied});
        if (auto reply = handle_request(f_.agent, rpc, sid))
            return answer(rpc, reply->outcome, reply->data);
        if (module == "ietf-netconf") {
            if (name == "close-session") {
                // Its lock goes before the answer: a session that hears it
                // may take the lock at once.
                f_.agent.session_ended(sid);
                nc_session_set_term_reason(session, NC_SESSION_TERM_CLOSED);
                return nc_server_reply_ok();
            }
            if (name == "kill-session")
                return kill_session(rpc, sid);
        } else if (module == "ietf-netconf-monitoring" && name == "get-schema") {
            return get_schema(rpc);
        } else if (module == "notifications" && name == "create-subscription") {
            return answer(rpc, notifications_->subscribe(session, sid, rpc), false);
        }
        return error(ctx, "operation-not-supported",
                     "<" + std::string(name) + "> is not an operation this agent performs");
    } catch (const std::bad_alloc &) {
        return error(ctx, "resource-denied", "out of memory", "application");
    } catch (const std::exception &e) {
        log(std::string("<") + std::string(name) + ">: " + one_line(e.what()));
        return error(ctx, "operation-failed", one_line(e.what()), "application");
    }
}

nc_server_reply *Server::kill_session(const lyd_node *rpc, uint32_t sid)
{
    const ly_ctx *ctx = LYD_CTX(rpc);
    const std::string text = text_of(param(rpc, "session-id"));
    const uint32_t target = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
    if (target == sid)
        return error(ctx, "invalid-value",
                     "a session does not kill itself: it sends <close-session>", "protocol");
    std::string killed;
    {
        std::lock_guard guard(sessions_mutex_);
        auto it = sessions_.find(target);
        if (it == sessions_.end())
            return error(ctx, "invalid-value", "there is no session " + text, "protocol");
        nc_session_set_term_reason(it->second, NC_SESSION_TERM_KILLED);
        nc_session_set_killed_by(it->second, sid);
        nc_session_set_status(it->second, NC_STATUS_INVALID);
        killed = "session " + std::to_string(target) + " of " + user_of(target) +
                 " killed by session " + std::to_string(sid) + " of " + user_of(sid);
    }
    f_.agent.session_ended(target);
    log(killed);
    return nc_server_reply_ok();
}

nc_server_reply *Server::get_schema(const lyd_node *rpc)
{
    const ly_ctx *ctx = LYD_CTX(rpc);
    const std::string id = text_of(param(rpc, "identifier"));
    const std::string version = text_of(param(rpc, "version"));
    const std::string format = text_of(param(rpc, "format"));
    if (!format.empty() && format != "yang" && format != "ietf-netconf-monitoring:yang")
        return error(ctx, "invalid-value", "schemas are given in YANG only", "application");
    const lys_module *mod = version.empty() ? ly_ctx_get_module_latest(ctx, id.c_str())
                                            : ly_ctx_get_module(ctx, id.c_str(), version.c_str());
    if (mod == nullptr)
        return error(ctx, "invalid-value",
                     "no schema '" + id + (version.empty() ? "" : "@" + version) + "' is served",
                     "application");
    std::string text;
    if (mod->filepath != nullptr) {
        std::ifstream in(mod->filepath);
        std::ostringstream all;
        all << in.rdbuf();
        text = all.str();
    }
    if (text.empty()) {
        char *printed = nullptr;
        if (lys_print_mem(&printed, mod, LYS_OUT_YANG, 0) != LY_SUCCESS)
            throw std::bad_alloc();
        text = printed;
        std::free(printed);
    }
    return reply_data(rpc, text, false);
}

// ---------------------------------------------------------------- sessions

// Sessions are logged as they begin and end, always, each with its user,
// so that an operator finds whose session to kill.
void Server::add(nc_session *session, int fd, const Client &from)
{
    const uint32_t id = nc_session_get_id(session);
    // The counters go with the session before libnetconf2 reads a request
    // of it.
    nc_session_set_data(session, from.counters.get());
    const std::time_t login = nc_session_get_start_time(session);
    f_.agent.session_began(id, from.user, from.recovery);
    monitor_.started({id, from.user, from.transport, from.host,
                      login != 0 ? login : std::time(nullptr), from.counters});
    notifications_->session_started({id, from.user, from.host});
    log("session " + std::to_string(id) + " of " + user_name(from.user) + " began, " +
        (from.transport == Transport::ssh ? "over SSH from " + from.host + " port " + from.port
                                          : std::string("on the UNIX socket")));
    {
        std::lock_guard guard(sessions_mutex_);
        sessions_.emplace(id, session);
        session_fds_.emplace(id, fd);
        session_users_.emplace(id, from.user);
        nc_ps_add_session(ps_, session);
    }
    sessions_cv_.notify_all();
}

void Server::end(nc_session *session)
{
    const uint32_t id = nc_session_get_id(session);
    // Closed and killed sessions ended as asked; any other was dropped.
    std::string how, reason;
    bool dropped = false;
    switch (nc_session_get_term_reason(session)) {
    case NC_SESSION_TERM_CLOSED:
        how = reason = "closed";
        break;
    case NC_SESSION_TERM_KILLED:
        how = "killed by session " + std::to_string(nc_session_get_killed_by(session));
        reason = "killed";
        break;
    case NC_SESSION_TERM_TIMEOUT:
        how = "dropped: it timed out";
        reason = "timeout";
        dropped = true;
        break;
    case NC_SESSION_TERM_DROPPED:
        how = "dropped: its connection ended";
        reason = "dropped";
        dropped = true;
        break;
    default:
        how = "dropped";
        reason = "other";
        dropped = true;
    }
    // Nothing more is sent to it, and nothing is being sent, before it is
    // freed.
    notifications_->forget(id);
    monitor_.ended(id, dropped);
    std::string line = "session " + std::to_string(id);
    int fd = -1;
    {
        std::lock_guard guard(sessions_mutex_);
        line += " of " + user_of(id) + " ended: " + how;
        sessions_.erase(id);
        session_users_.erase(id);
        if (auto it = session_fds_.find(id); it != session_fds_.end()) {
            fd = it->second;
            session_fds_.erase(it);
        }
        nc_ps_del_session(ps_, session);
    }
    f_.agent.session_ended(id);
    notifications_->session_ended(id, reason, nc_session_get_killed_by(session));
    nc_session_free(session, nullptr);
    // libnetconf2 leaves the descriptors it was handed to their owner;
    // closing this one ends the relay of the session.
    if (fd >= 0)
        close(fd);
    log(line);
}

void Server::poll_loop()
{
    while (!stop_) {
        {
            std::unique_lock guard(sessions_mutex_);
            if (sessions_.empty()) {
                sessions_cv_.wait_for(guard, std::chrono::milliseconds(200));
                continue;
            }
        }
        nc_session *session = nullptr;
        const int r = nc_ps_poll(ps_, 200, &session);
        // A request libnetconf2 could not read, and answered itself: the
        // only one counted once its answer is out.
        if ((r & NC_PSPOLL_BAD_RPC) && session != nullptr)
            if (auto *c = static_cast<SessionCounters *>(nc_session_get_data(session)))
                monitor_.bad_rpc(*c);
        if ((r & (NC_PSPOLL_SESSION_TERM | NC_PSPOLL_SESSION_ERROR)) && session != nullptr)
            end(session);
        // A subscription made by the request just answered begins now
        // that its <ok/> is out.
        else if ((r & NC_PSPOLL_RPC) && session != nullptr)
            notifications_->start(nc_session_get_id(session));
    }
}

std::string Server::user_of(uint32_t id) const
{
    auto it = session_users_.find(id);
    return user_name(it != session_users_.end() ? it->second : std::string_view("?"));
}

// ---------------------------------------------------------------- clients
//
// The agent accepts every connection itself, SSH and UNIX socket alike,
// and hands libnetconf2 one end of a socket pair for each session, with a
// relay in between whose guard checks the framing and the content of what
// the client sends (guard.h): libnetconf2 reads nothing else.

// Joins the threads of connections done; returns how many are still open.
std::size_t Server::reap()
{
    std::erase_if(connections_, [](Connection &c) {
        if (!*c.done)
            return false;
        c.thread.join();
        return true;
    });
    return connections_.size();
}

// A thread for one connection.
void Server::spawn(std::function<void()> work)
{
    auto done = std::make_shared<std::atomic<bool>>(false);
    connections_.push_back({std::thread([work = std::move(work), done] {
                                work();
                                *done = true;
                            }),
                            done});
}

std::optional<std::string> Server::session_of(const std::string &user)
{
    std::lock_guard guard(sessions_mutex_);
    unsigned &n = user_sessions_[user];
    if (n >= o_.max_sessions_per_user)
        return user_name(user) + " has " + std::to_string(n) +
               " sessions open, as many as one user may (--max-sessions-per-user)";
    ++n;
    return std::nullopt;
}

void Server::session_gone(const std::string &user)
{
    std::lock_guard guard(sessions_mutex_);
    if (auto it = user_sessions_.find(user); it != user_sessions_.end() && --it->second == 0)
        user_sessions_.erase(it);
}

void Server::serve_client(ClientSide &client, const Client &from)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        return;
    // The session's id once libnetconf2 has taken it, for the log.
    auto id = std::make_shared<std::atomic<uint32_t>>(0);
    // The hello goes through the relay: libnetconf2 takes the session on a
    // thread of its own while this one relays, for as long as it lasts.
    std::thread hello([this, fd = pair[0], &from, id] {
        nc_session *session = nullptr;
        if (nc_accept_inout(fd, fd, from.user.c_str(), &session) == NC_MSG_HELLO &&
            session != nullptr) {
            *id = nc_session_get_id(session);
            add(session, fd, from);
        } else {
            close(fd);
        }
    });
    const std::string where = from.transport == Transport::ssh
                                  ? "over SSH from " + from.host + " port " + from.port
                                  : std::string("on the UNIX socket");
    const auto session_name = [&from, id, where] {
        return *id != 0 ? "session " + std::to_string(*id) + " of " + user_name(from.user)
                        : "a session of " + user_name(from.user) + " " + where;
    };
    bool counted = false;
    RelayEvents events;
    events.log = [this, session_name](const std::string &l) {
        log(session_name() + " ends: " + l);
    };
    events.refused = [this, &from] { monitor_.bad_rpc(*from.counters); };
    events.denied = [this, &from, session_name] {
        monitor_.rpc_error(*from.counters);
        log(session_name() +
            ": a request answered resource-denied: the requests of all "
            "sessions would hold more than " +
            std::to_string(budget_.limit()) + " bytes (--max-in-flight)");
    };
    events.bad_hello = [this] { monitor_.bad_hello(); };
    events.hello = [this, &from, &counted, where]() -> std::optional<std::string> {
        auto refused = session_of(from.user);
        if (refused) {
            log("a session of " + user_name(from.user) + " " + where + " refused: " + *refused);
            return "session refused: " + *refused;
        }
        counted = true;
        return std::nullopt;
    };
    RelayLimits limits;
    limits.max_message = max_message(f_);
    limits.max_unread = o_.max_unread;
    limits.budget = &budget_;
    // What libnetconf2 would refuse in terms of its own, the relay answers
    // first (screen.h).
    relay(client, pair[1], limits, stop_, events,
          [this](const std::string &message,
                 const std::string &message_id) -> std::optional<std::string> {
              // Out of memory, libnetconf2 has the request, and answers it
              // as it can.
              try {
                  if (auto e = screen_rpc(ctx_, message))
                      return reply_text(ctx_, {*e}, message_id);
              } catch (const std::bad_alloc &) {
              }
              return std::nullopt;
          });
    hello.join();
    if (counted)
        session_gone(from.user);
}

void Server::accept_loop()
{
    std::vector<pollfd> listening;
    if (tcp_fd_ >= 0)
        listening.push_back({tcp_fd_, POLLIN, 0});
    if (unix_fd_ >= 0)
        listening.push_back({unix_fd_, POLLIN, 0});
    while (!stop_) {
        if (poll(listening.data(), listening.size(), 200) <= 0)
            continue;
        for (pollfd &p : listening) {
            if ((p.revents & POLLIN) == 0)
                continue;
            sockaddr_storage from{};
            socklen_t size = sizeof from;
            const int client =
                accept4(p.fd, reinterpret_cast<sockaddr *>(&from), &size, SOCK_CLOEXEC);
            if (client < 0) {
                // Out of descriptors: wait for connections to end rather
                // than poll a socket that stays ready.
                if (errno == EMFILE || errno == ENFILE)
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                continue;
            }
            if (reap() >= max_connections) {
                close(client);
                log("a connection turned away: " + std::to_string(max_connections) +
                    " are open already");
                continue;
            }
            if (p.fd == unix_fd_) {
                spawn([this, client] { unix_connection(client); });
                continue;
            }
            // A reply often leaves in more than one write (the relay's, then
            // libssh's): without this, the second would wait for the
            // client's delayed acknowledgement of the first, 40 ms.
            const int one = 1;
            setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            char host[NI_MAXHOST] = "?", port[NI_MAXSERV] = "?";
            getnameinfo(reinterpret_cast<sockaddr *>(&from), size, host, sizeof host, port,
                        sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
            const Source source = source_of(reinterpret_cast<sockaddr *>(&from), size);
            const std::string peer =
                (source.address.empty() ? std::string(host) : source.address) + " port " + port;
            const Admission::Verdict verdict = admission_.admit(source.key);
            if (!verdict) {
                close(client);
                if (verdict.log)
                    log(refusal(verdict, source.key, peer));
                continue;
            }
            spawn([this, client, host = source.address, port = std::string(port),
                   account = verdict.account] { ssh_connection(client, host, port, account); });
        }
    }
    // The connections see the stop within their waits, or their sockets
    // are shut down; their sessions then end.
    for (Connection &c : connections_)
        c.thread.join();
}

void Server::watch_loop()
{
    std::unique_lock guard(sockets_mutex_);
    while (!stop_) {
        const auto now = std::chrono::steady_clock::now();
        for (auto &[id, socket] : sockets_) {
            if (socket.silence <= now) {
                socket.silence = std::chrono::steady_clock::time_point::max();
                if (received_nothing(socket.fd)) {
                    shutdown(socket.fd, SHUT_RDWR);
                    socket.cut = Cut::silent;
                    socket.deadline = std::chrono::steady_clock::time_point::max();
                }
            }
            if (socket.deadline <= now) {
                shutdown(socket.fd, SHUT_RDWR);
                socket.cut = Cut::late;
                socket.deadline = std::chrono::steady_clock::time_point::max();
            }
        }
        sockets_cv_.wait_for(guard, std::chrono::milliseconds(200));
    }
    for (auto &[id, socket] : sockets_)
        shutdown(socket.fd, SHUT_RDWR);
}

std::optional<uint64_t> Server::watch(int fd, std::chrono::seconds login,
                                      std::chrono::seconds grace)
{
    std::lock_guard guard(sockets_mutex_);
    if (stop_)
        return std::nullopt;
    const uint64_t id = next_socket_++;
    const auto now = std::chrono::steady_clock::now();
    const auto after = [now](std::chrono::seconds s) {
        return s.count() > 0 ? now + s : std::chrono::steady_clock::time_point::max();
    };
    sockets_.emplace(id, Socket{fd, after(login), after(grace)});
    return id;
}

void Server::unwatch(uint64_t id)
{
    std::lock_guard guard(sockets_mutex_);
    sockets_.erase(id);
}

void Server::ssh_connection(int fd, std::string host, std::string port, std::string account)
{
    const std::string peer = host + " port " + port;
    const auto id = watch(fd, std::chrono::seconds(login_timeout_s), silent_grace);
    SshConnection connection(*ssh_, fd);
    LoginGate gate;
    gate.address = host;
    gate.peer = peer;
    gate.log = [this](const std::string &l) { log(l); };
    gate.attempt = [this, &account, &peer] {
        const Admission::Verdict v = admission_.attempt(account);
        if (!v && v.log)
            log(refusal(v, account, peer));
        return static_cast<bool>(v);
    };
    gate.succeeded = [this, &account] { admission_.succeeded(account); };
    // A wrong credential is answered once its penalty's time is over, or
    // when the agent stops.
    gate.failed = [this] {
        std::unique_lock guard(sockets_mutex_);
        sockets_cv_.wait_for(guard, admission_.limits().penalty, [this] { return stop_.load(); });
    };
    bool in = false;
    if (id)
        in = connection.login(login_timeout_s, gate);
    Cut cut = Cut::no;
    {
        std::lock_guard guard(sockets_mutex_);
        if (id) {
            Socket &s = sockets_.at(*id);
            s.deadline = s.silence = std::chrono::steady_clock::time_point::max();
            cut = s.cut;
        }
        if (stop_)
            shutdown(fd, SHUT_RDWR);
    }
    admission_.release(account);
    // A client that held its place and did nothing with it pays as for a
    // wrong password.
    if (!in && cut != Cut::no)
        admission_.charge(account);
    if (in) {
        if (f_.verbose)
            log("'" + one_line(connection.user()) + "' logged in from " + peer);
        serve_client(connection, Client{connection.user(), Transport::ssh, host, port});
    } else if (!stop_) {
        log("a connection from " + peer + " ended without a login" +
            (cut == Cut::silent
                 ? ": it sent nothing in " + std::to_string(silent_grace.count()) + " s"
             : cut == Cut::late
                 ? ": it did not log in within " + std::to_string(login_timeout_s) + " s"
                 : std::string()));
    }
    // Forgotten before the socket closes, when its number may go to another.
    if (id)
        unwatch(*id);
}

// ---------------------------------------------------------------- UNIX socket

void Server::listen_unix()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (o_.unix_path.size() >= sizeof address.sun_path)
        throw std::invalid_argument("--unix " + o_.unix_path +
                                    ": the path is too long for a socket");
    std::memcpy(address.sun_path, o_.unix_path.c_str(), o_.unix_path.size() + 1);
    // A socket left by an earlier run is taken over, one that is still
    // answered never; anything else at that path is left alone.
    struct stat st {};
    if (lstat(o_.unix_path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
        const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const bool live =
            probe >= 0 &&
            (connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
             errno == EAGAIN || errno == EINPROGRESS);
        if (probe >= 0)
            close(probe);
        if (live)
            throw std::runtime_error("--unix " + o_.unix_path +
                                     ": another process listens on this socket");
        unlink(o_.unix_path.c_str());
    }
    unix_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const mode_t mask = umask(0177);
    const bool bound = unix_fd_ >= 0 && bind(unix_fd_, reinterpret_cast<const sockaddr *>(&address),
                                             sizeof address) == 0;
    umask(mask);
    if (!bound || chmod(o_.unix_path.c_str(), 0600) != 0 || listen(unix_fd_, 16) != 0)
        throw std::runtime_error("cannot listen on " + o_.unix_path + ": " + std::strerror(errno));
}

void Server::unix_connection(int client)
{
    SocketSide side(client);
    const auto id = watch(client, std::chrono::seconds(0));
    if (!id)
        return;
    // The user is the one whose process connected.
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) {
        std::string user;
        passwd entry{}, *found = nullptr;
        std::vector<char> buffer(16384);
        if (getpwuid_r(peer.uid, &entry, buffer.data(), buffer.size(), &found) == 0 &&
            found != nullptr)
            user = found->pw_name;
        else
            user = "uid" + std::to_string(peer.uid);
        // The recovery session of RFC 8341 (3.1.1): root, or the user the
        // agent runs as, on its own socket, which no one else can open.
        Client from{user, Transport::unix_socket, {}, {}};
        from.recovery = peer.uid == 0 || peer.uid == geteuid();
        serve_client(side, from);
    }
    // Forgotten before the socket closes, when its number may go to another.
    unwatch(*id);
}

// ---------------------------------------------------------------- start

std::pair<std::string, uint16_t> address_port(const std::string &listen)
{
    const auto colon = listen.find_last_of(':');
    if (colon == std::string::npos || colon == 0)
        throw std::invalid_argument("--listen " + listen + ": not ADDRESS:PORT");
    std::string address = listen.substr(0, colon);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    const std::string port = listen.substr(colon + 1);
    char *end = nullptr;
    errno = 0;
    const unsigned long n = std::strtoul(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || errno != 0 || n == 0 || n > 65535)
        throw std::invalid_argument("--listen " + listen + ": the port is not 1 to 65535");
    return {address, static_cast<uint16_t>(n)};
}

// A socket listening on --listen, an address given by its number.
int Server::listen_tcp()
{
    auto [address, port] = address_port(o_.listen);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    if (const int rc = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
        rc != 0)
        throw std::invalid_argument("--listen " + o_.listen + ": " + gai_strerror(rc));
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    const bool ok = fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                    bind(fd, found->ai_addr, found->ai_addrlen) == 0 && listen(fd, 64) == 0;
    const int error = errno;
    freeaddrinfo(found);
    if (!ok) {
        if (fd >= 0)
            close(fd);
        throw std::runtime_error("cannot listen on " + o_.listen + ": " + std::strerror(error));
    }
    return fd;
}

void Server::open()
{
    nc_set_print_clb(nc_print);
    nc_verbosity(f_.verbose ? NC_VERB_VERBOSE : NC_VERB_WARNING);
    if (!o_.listen.empty())
        ssh_ = std::make_unique<SshServer>(host_key(f_.agent_options.state_dir), f_.users, f_.keys);
    ctx_ = served_context(f_.yang_dir);
    // <get-schema> and <close-session> are answered here: libnetconf2 2.0's
    // own answer to the first prints from memory it has freed, and the
    // second must let the session's lock go.  It takes an operation's own
    // callback, held by its schema node, over the one it would install.
    for (const char *path :
         {"/ietf-netconf-monitoring:get-schema", "/ietf-netconf:close-session"}) {
        const lysc_node *op = lys_find_path(ctx_, nullptr, path, 0);
        if (op == nullptr)
            throw std::runtime_error(std::string("the YANG models have no ") + path);
        const_cast<lysc_node *>(op)->priv = reinterpret_cast<void *>(rpc_callback);
    }
    if (nc_server_init(ctx_) != 0)
        throw std::runtime_error("cannot start libnetconf2");
    nc_started_ = true;
    for (const char *capability : {notification_capability, interleave_capability})
        nc_server_set_capability(capability);
    notifications_ = std::make_unique<Notifications>(
        ctx_, Notifications::Hooks{
                  [this](const std::string &l) { log(l); },
                  [this](uint32_t session, std::string_view module, std::string_view name) {
                      return f_.agent.may_receive(session, module, name);
                  },
                  [this](nc_session *session) {
                      if (auto *c = static_cast<SessionCounters *>(nc_session_get_data(session)))
                          monitor_.notification(*c);
                  }});
    f_.agent.on_change(this, [this](const ConfigChange &c) { notifications_->config_changed(c); });
    f_.agent.on_confirmed_commit(
        this, [this](const ConfirmedCommitEvent &e) { notifications_->confirmed_commit(e); });
    yang_library_ = yang_library(ctx_);
    set_served(monitor_, ctx_);
    f_.agent.set_server_state(
        [this](const DatastoreLocks &locks) {
            return yang_library_ + monitor_.netconf_state(locks) + notifications_->streams();
        },
        {PrefixNs(octunnel_monitoring_prefix, octunnel_monitoring_ns)});
    nc_server_set_hello_timeout(60);
    nc_server_set_idle_timeout(0);
    nc_set_global_rpc_clb(rpc_callback);
    ps_ = nc_ps_new();

    if (!o_.listen.empty()) {
        tcp_fd_ = listen_tcp();
        log("listening on " + o_.listen + " (SSH)");
    }
    if (!o_.unix_path.empty()) {
        listen_unix();
        log("listening on " + o_.unix_path + " (UNIX socket)");
    }
}

void Server::start()
{
    open();
    threads_.emplace_back([this] { accept_loop(); });
    threads_.emplace_back([this] { watch_loop(); });
    for (unsigned i = 0; i < std::max(1u, o_.threads); ++i)
        threads_.emplace_back([this] { poll_loop(); });
}

void Server::stop()
{
    stop_ = true;
    sessions_cv_.notify_all();
    sockets_cv_.notify_all();
    for (std::thread &t : threads_)
        t.join();
    threads_.clear();
}

Server::~Server()
{
    stop();
    // What <get> answers of this front, and the changes it tells, go with
    // it; then the thread that sends events to its sessions.
    f_.agent.set_server_state({});
    f_.agent.forget_listeners(this);
    notifications_.reset();
    if (ps_ != nullptr) {
        nc_ps_clear(ps_, 1, nullptr);
        nc_ps_free(ps_);
    }
    if (nc_started_)
        nc_server_destroy();
    if (ctx_ != nullptr)
        ly_ctx_destroy(ctx_);
    if (tcp_fd_ >= 0)
        close(tcp_fd_);
    if (unix_fd_ >= 0) {
        close(unix_fd_);
        unlink(o_.unix_path.c_str());
    }
    the_server = nullptr;
}

} // namespace

std::string netconf_refusal(const NetconfOptions &o, const Users &users, const AuthorizedKeys &keys)
{
    if (!o.listen.empty() && users.size() == 0 && keys.size() == 0)
        return "--listen without --users or --authorized-keys: no one could log in";
    return {};
}

std::unique_ptr<Service> netconf_front(const NetconfOptions &o, const Front &front)
{
    if (the_server != nullptr)
        throw std::logic_error("one NETCONF front a process: libnetconf2 serves one context");
    auto server = std::make_unique<Server>(o, front);
    the_server = server.get();
    return server;
}

} // namespace octunnel::serve
