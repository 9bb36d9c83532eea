#include "netconf/ssh.h"

#include "translate/input_error.h"

#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <libssh/server.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace octunnel::serve {

struct SshConnection::Login {
    const SshServer *server = nullptr;
    const LoginGate *gate = nullptr;
    int fd = -1;
    bool authenticated = false;
    bool refused = false; // the source may not try any more
    bool told = false;    // the log heard why a key of this connection was refused
    std::string user;
    int failures = 0;
    ssh_channel channel = nullptr; // the one channel of the connection
    bool subsystem = false;
    ssh_server_callbacks_struct server_callbacks{};
    ssh_channel_callbacks_struct channel_callbacks{};
};

namespace {

using Login = SshConnection::Login;

// The most handed to libssh at once: what it holds until the socket takes it.
constexpr uint32_t max_piece = 256u << 10;
// What a client may have sent that the relay has not read yet: libssh takes
// what comes whatever its window says, and a client keeps to the window
// (1.28 MB) unless it means harm.
constexpr int max_buffered_input = 16 << 20;
// How long the last packets of a connection (the end of its channel) have
// to leave.
constexpr int last_flush_ms = 1000;

// Whether the client's source may have a credential checked; when not,
// the connection ends before libssh answers.
bool may_try(Login &l)
{
    if (l.gate->attempt())
        return true;
    l.refused = true;
    shutdown(l.fd, SHUT_RDWR);
    return false;
}

int on_password(ssh_session, const char *user, const char *password, void *data)
{
    Login &l = *static_cast<Login *>(data);
    ++l.failures;
    if (l.authenticated || user == nullptr || password == nullptr || !may_try(l))
        return SSH_AUTH_DENIED;
    if (l.server->users().check(user, password)) {
        --l.failures;
        l.gate->succeeded();
        l.authenticated = true;
        l.user = user;
        return SSH_AUTH_SUCCESS;
    }
    l.gate->log("password refused for user '" + one_line(user) + "' from " + l.gate->peer);
    l.gate->failed();
    return SSH_AUTH_DENIED;
}

int on_public_key(ssh_session, const char *user, ssh_key key, char state, void *data)
{
    Login &l = *static_cast<Login *>(data);
    std::string why;
    const bool known = !l.authenticated && user != nullptr &&
                       l.server->keys().check(user, key, l.gate->address, std::time(nullptr), &why);
    // A client first asks whether a key would do, then signs with it;
    // libssh has checked the signature when it says the state is valid.
    if (known && state == SSH_PUBLICKEY_STATE_NONE)
        return SSH_AUTH_SUCCESS;
    if (known && state == SSH_PUBLICKEY_STATE_VALID) {
        l.authenticated = true;
        l.user = user;
        return SSH_AUTH_SUCCESS;
    }
    ++l.failures;
    // Asking costs nothing, so the log hears once a connection.
    if (!why.empty() && !l.told) {
        l.told = true;
        l.gate->log(why + " (" + l.gate->peer + ")");
    }
    // Asking whether a key would do guesses no secret; a signature that
    // does not log in is a failure like a wrong password.
    if (state != SSH_PUBLICKEY_STATE_NONE && may_try(l))
        l.gate->failed();
    return SSH_AUTH_DENIED;
}

int on_subsystem(ssh_session, ssh_channel channel, const char *subsystem, void *data)
{
    Login &l = *static_cast<Login *>(data);
    if (channel != l.channel || l.subsystem || std::string_view(subsystem) != "netconf")
        return SSH_ERROR;
    l.subsystem = true;
    return SSH_OK;
}

ssh_channel on_channel_open(ssh_session session, void *data)
{
    Login &l = *static_cast<Login *>(data);
    if (!l.authenticated || l.channel != nullptr)
        return nullptr;
    l.channel = ssh_channel_new(session);
    if (l.channel == nullptr)
        return nullptr;
    l.channel_callbacks = {};
    l.channel_callbacks.userdata = &l;
    l.channel_callbacks.channel_subsystem_request_function = on_subsystem;
    ssh_callbacks_init(&l.channel_callbacks);
    ssh_set_channel_callbacks(l.channel, &l.channel_callbacks);
    return l.channel;
}

} // namespace

SshServer::SshServer(const std::string &host_key, const Users &users, const AuthorizedKeys &keys)
    : users_(users), keys_(keys)
{
    static std::once_flag init;
    std::call_once(init, [] { ssh_init(); });
    bind_ = ssh_bind_new();
    if (bind_ == nullptr ||
        ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_HOSTKEY, host_key.c_str()) != SSH_OK)
        throw std::runtime_error("cannot use the SSH host key " + host_key);
}

bool SshServer::accept(ssh_session session, int fd) const
{
    std::lock_guard guard(accept_mutex_);
    return ssh_bind_accept_fd(bind_, session, fd) == SSH_OK;
}

SshServer::~SshServer()
{
    ssh_bind_free(bind_);
}

SshConnection::SshConnection(const SshServer &server, int fd) : server_(server), fd_(fd) {}

SshConnection::~SshConnection()
{
    if (session_ != nullptr) {
        // Nothing waits long on a client that does not read any more.
        ssh_set_blocking(session_, 0);
        if (login_ && login_->channel != nullptr) {
            ssh_channel_close(login_->channel);
            ssh_blocking_flush(session_, last_flush_ms);
            // A client such as OpenSSH's answers the channel's end with its
            // own and then leaves: waited for a little, so that it does not
            // see the connection end under an open channel (and say so).
            if (event_ != nullptr) {
                const auto until =
                    std::chrono::steady_clock::now() + std::chrono::milliseconds(last_flush_ms);
                while ((ssh_get_status(session_) & (SSH_CLOSED | SSH_CLOSED_ERROR)) == 0 &&
                       std::chrono::steady_clock::now() < until)
                    if (ssh_event_dopoll(event_, 100) == SSH_ERROR)
                        break;
            }
            ssh_channel_free(login_->channel);
        }
        if (event_ != nullptr) {
            ssh_event_remove_session(event_, session_);
            ssh_event_free(event_);
        }
        ssh_disconnect(session_);
        ssh_free(session_); // closes fd_
    } else {
        close(fd_);
    }
}

bool SshConnection::login(long timeout_s, const LoginGate &gate)
{
    session_ = ssh_new();
    if (session_ == nullptr)
        return false;
    login_ = std::make_unique<Login>();
    Login &l = *login_;
    l.server = &server_;
    l.gate = &gate;
    l.fd = fd_;
    ssh_options_set(session_, SSH_OPTIONS_TIMEOUT, &timeout_s);
    if (!server_.accept(session_, fd_))
        return false;
    int methods = 0;
    if (server_.users().size() > 0)
        methods |= SSH_AUTH_METHOD_PASSWORD;
    if (server_.keys().size() > 0)
        methods |= SSH_AUTH_METHOD_PUBLICKEY;
    ssh_set_auth_methods(session_, methods);
    l.server_callbacks.userdata = &l;
    l.server_callbacks.auth_password_function = on_password;
    l.server_callbacks.auth_pubkey_function = on_public_key;
    l.server_callbacks.channel_open_request_session_function = on_channel_open;
    ssh_callbacks_init(&l.server_callbacks);
    ssh_set_server_callbacks(session_, &l.server_callbacks);
    if (ssh_handle_key_exchange(session_) != SSH_OK)
        return false;
    ssh_event event = ssh_event_new();
    if (event == nullptr || ssh_event_add_session(event, session_) != SSH_OK) {
        ssh_event_free(event);
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
    bool ok = false;
    while (l.failures < max_auth_attempts && !l.refused) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        const int rc = ssh_event_dopoll(event, static_cast<int>(left.count()));
        if (l.authenticated && l.subsystem) {
            ok = true;
            break;
        }
        if (rc == SSH_ERROR || (ssh_get_status(session_) & (SSH_CLOSED | SSH_CLOSED_ERROR)) != 0)
            break;
    }
    if (!ok) {
        ssh_event_remove_session(event, session_);
        ssh_event_free(event);
        return false;
    }
    // The event stays: it lets libssh read and send what it must while the
    // relay neither reads nor writes the channel (a window the client
    // grows, packets it holds).
    event_ = event;
    channel_ = l.channel;
    user_ = l.user;
    ssh_set_blocking(session_, 0);
    // libssh writes whatever it holds once the socket takes some: on a
    // socket that blocks, that would wait for all of it.
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
    return true;
}

long SshConnection::read(char *buffer, std::size_t size)
{
    const int n = ssh_channel_read_nonblocking(
        channel_, buffer, static_cast<uint32_t>(std::min<std::size_t>(size, UINT32_MAX)), 0);
    if (n > 0)
        return n;
    if (ssh_channel_is_closed(channel_))
        return gone;
    if (n == SSH_AGAIN)
        return 0;
    if (n == SSH_EOF || ssh_channel_is_eof(channel_))
        return end_of_input;
    return n < 0 ? gone : 0;
}

long SshConnection::write(std::string_view data)
{
    if (ssh_channel_is_closed(channel_))
        return gone;
    // What came and what libssh holds, without waiting.
    if (ssh_event_dopoll(event_, 0) == SSH_ERROR &&
        (ssh_get_status(session_) & (SSH_CLOSED | SSH_CLOSED_ERROR)) != 0)
        return gone;
    if (ssh_channel_poll(channel_, 0) > max_buffered_input)
        return gone;
    if (data.empty() || (ssh_get_status(session_) & SSH_WRITE_PENDING) != 0)
        return 0;
    const uint32_t window = ssh_channel_window_size(channel_);
    if (window == 0)
        return 0;
    const uint32_t n = static_cast<uint32_t>(
        std::min<std::size_t>({data.size(), std::size_t{window}, std::size_t{max_piece}}));
    const int w = ssh_channel_write(channel_, data.data(), n);
    return w < 0 ? gone : w;
}

short SshConnection::write_events()
{
    short events = 0;
    if ((ssh_get_status(session_) & SSH_WRITE_PENDING) != 0)
        events |= POLLOUT;
    // The client grows the window in a packet of its own.
    if (ssh_channel_window_size(channel_) == 0)
        events |= POLLIN;
    return events != 0 ? events : POLLOUT;
}

bool SshConnection::flushed()
{
    return (ssh_get_status(session_) & SSH_WRITE_PENDING) == 0;
}

bool SshConnection::pending()
{
    return ssh_channel_poll(channel_, 0) > 0;
}

void SshConnection::finish(int status)
{
    if (ssh_channel_is_closed(channel_))
        return;
    ssh_channel_request_send_exit_status(channel_, status);
    ssh_channel_send_eof(channel_);
    ssh_blocking_flush(session_, last_flush_ms);
}

void SshConnection::refuse(const std::string &why)
{
    if (ssh_channel_is_closed(channel_))
        return;
    const std::string line = "octunnel serve: " + why + "\n";
    ssh_channel_write_stderr(channel_, line.data(), static_cast<uint32_t>(line.size()));
    finish(1);
}

} // namespace octunnel::serve
