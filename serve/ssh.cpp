#include "ssh.h"

#include "input_error.h"

#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <libssh/server.h>

#include <chrono>
#include <ctime>
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
        // Nothing waits on a client that does not read any more.
        ssh_set_blocking(session_, 0);
        if (login_ && login_->channel != nullptr) {
            ssh_channel_close(login_->channel);
            ssh_channel_free(login_->channel);
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
    ssh_event_remove_session(event, session_);
    ssh_event_free(event);
    if (!ok)
        return false;
    channel_ = l.channel;
    user_ = l.user;
    return true;
}

long SshConnection::read(char *buffer, std::size_t size)
{
    const int n = ssh_channel_read_nonblocking(channel_, buffer, static_cast<uint32_t>(size), 0);
    if (n > 0)
        return n;
    if (n < 0 || ssh_channel_is_eof(channel_) || ssh_channel_is_closed(channel_))
        return -1;
    return 0;
}

bool SshConnection::write(std::string_view data)
{
    while (!data.empty()) {
        const uint32_t n = static_cast<uint32_t>(std::min<std::size_t>(data.size(), 1u << 20));
        const int w = ssh_channel_write(channel_, data.data(), n);
        if (w <= 0)
            return false;
        data.remove_prefix(static_cast<std::size_t>(w));
    }
    return true;
}

bool SshConnection::pending()
{
    return ssh_channel_poll(channel_, 0) > 0;
}

} // namespace octunnel::serve
