// Guards in front of libnetconf2 2.0, for what a client can send that it
// does not survive.  Each is a definition of a function that libnetconf2
// imports, in the program itself and exported (see CMakeLists.txt), so that
// it stands in front of the library's own for the whole process; each calls
// the library's and looks at what comes back.
//
// A message without any element is no request.  libnetconf2 parses each message with libyang's
// lyd_parse_op, which answers success for a message that holds no element at all (nothing, blank
// text, an XML declaration or a comment alone) and gives no operation;
// libnetconf2 then reads the operation it has not got, and the process
// dies.  Any client that has logged in could stop the agent with one empty
// message.
//
// The guard of lyd_parse_op turns a NETCONF message without an operation
// into the invalid message it is: libnetconf2 answers malformed-message on a
// base:1.1 session and passes the message over on a base:1.0 one, as it does
// for any unreadable message.
//
// The framing is checked before libnetconf2 reads it.  libnetconf2 dies on a
// chunk of size 0 or an end mark before any chunk, and holds a message of
// any size in memory until it has all of it.  The guard of ssh_channel_read
// passes what the client sent through a FramingGuard of its channel, and
// ends the session (answering too-big first, where that is what is wrong)
// before libnetconf2 reads a byte that breaks the framing or the limit.
#include "message_guard.h"

#include "framing.h"

#include <dlfcn.h>
#include <libssh/libssh.h>
#include <libyang/libyang.h>
#include <mutex>
#include <unordered_map>

namespace {

struct Guards {
    std::mutex mutex;
    std::size_t max_message = 0; // 0: no guard
    std::function<void(const std::string &)> log;
    std::unordered_map<ssh_channel, octunnel::serve::FramingGuard> channels;
};

Guards &guards()
{
    static Guards g;
    return g;
}

template <typename F> F library(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

using parse_op = LY_ERR (*)(const ly_ctx *, lyd_node *, ly_in *, LYD_FORMAT, lyd_type, lyd_node **,
                            lyd_node **);

} // namespace

extern "C" LY_ERR lyd_parse_op(const ly_ctx *ctx, lyd_node *parent, ly_in *in, LYD_FORMAT format,
                               lyd_type data_type, lyd_node **tree, lyd_node **op)
{
    static const parse_op real = library<parse_op>("lyd_parse_op");
    if (real == nullptr)
        return LY_EINT;
    lyd_node *found = nullptr;
    LY_ERR rc = real(ctx, parent, in, format, data_type, tree, op != nullptr ? op : &found);
    lyd_node *operation = op != nullptr ? *op : found;
    if (rc == LY_SUCCESS && data_type == LYD_TYPE_RPC_NETCONF && operation == nullptr) {
        if (tree != nullptr && *tree != nullptr) {
            lyd_free_all(*tree);
            *tree = nullptr;
        }
        return LY_EVALID;
    }
    return rc;
}

namespace octunnel::serve {

void guard_messages(std::size_t max_message, std::function<void(const std::string &)> log)
{
    Guards &g = guards();
    std::lock_guard lock(g.mutex);
    g.max_message = max_message;
    g.log = std::move(log);
}

} // namespace octunnel::serve

namespace {

// What a client learns before its session ends for a message too large.
void answer_too_big(ssh_channel channel, bool chunked)
{
    const std::string reply =
        "<rpc-reply xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><rpc-error>"
        "<error-type>rpc</error-type><error-tag>too-big</error-tag>"
        "<error-severity>error</error-severity><error-message xml:lang=\"en\">the message is "
        "larger than the agent takes; the session ends</error-message></rpc-error></rpc-reply>";
    const std::string framed =
        chunked ? "\n#" + std::to_string(reply.size()) + "\n" + reply + "\n##\n" : reply + "]]>]]>";
    using write_fn = int (*)(ssh_channel, const void *, uint32_t);
    if (auto write = library<write_fn>("ssh_channel_write"); write != nullptr)
        write(channel, framed.data(), static_cast<uint32_t>(framed.size()));
}

} // namespace

extern "C" int ssh_channel_read(ssh_channel channel, void *dest, uint32_t count, int is_stderr)
{
    using read_fn = int (*)(ssh_channel, void *, uint32_t, int);
    static const read_fn real = library<read_fn>("ssh_channel_read");
    if (real == nullptr)
        return SSH_ERROR;
    const int n = real(channel, dest, count, is_stderr);
    if (n <= 0 || is_stderr)
        return n;
    Guards &g = guards();
    std::unique_lock lock(g.mutex);
    if (g.max_message == 0)
        return n;
    auto &guard = g.channels.try_emplace(channel, g.max_message).first->second;
    const auto verdict = guard.pass({static_cast<const char *>(dest), static_cast<std::size_t>(n)});
    if (verdict == octunnel::serve::FramingGuard::Verdict::ok)
        return n;
    const std::string why = guard.reason();
    const bool chunked = guard.chunked();
    auto log = g.log;
    lock.unlock();
    if (verdict == octunnel::serve::FramingGuard::Verdict::too_big)
        answer_too_big(channel, chunked);
    if (log)
        log("a session ends: its client sent " + why);
    return SSH_ERROR;
}

extern "C" void ssh_channel_free(ssh_channel channel)
{
    using free_fn = void (*)(ssh_channel);
    static const free_fn real = library<free_fn>("ssh_channel_free");
    {
        Guards &g = guards();
        std::lock_guard lock(g.mutex);
        g.channels.erase(channel);
    }
    if (real != nullptr)
        real(channel);
}
