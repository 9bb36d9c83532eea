// SSH as the agent speaks it itself, with libssh's server API: key exchange
// with the host key of the state directory, users by password (crypt(3)
// hashes) or public key, and one session channel whose "netconf" subsystem
// carries the NETCONF stream that the relay hands on.
#pragma once

#include "agent/access.h"
#include "netconf/relay.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

struct ssh_bind_struct;
struct ssh_session_struct;
struct ssh_channel_struct;
struct ssh_event_struct;

namespace octunnel::serve {

// Failed authentications a connection may make before it is closed, as
// OpenSSH's MaxAuthTries; how fast they may come is the source's penalty's
// to say (admission.h).
inline constexpr int max_auth_attempts = 6;

// What a login asks of the agent as it goes.
struct LoginGate {
    std::string address; // the client's address (source_of()), for from=
    std::string peer;    // "ADDRESS port N", for the log
    // Before a credential is checked: false when the client's source may
    // not try any more; the connection then ends without an answer.
    std::function<bool()> attempt;
    // The credential was right; or it was not, and the answer waits as long
    // as a failure should.
    std::function<void()> succeeded, failed;
    // Refused logins, with where and why.
    std::function<void(const std::string &)> log;
};

class SshServer {
public:
    // Throws std::runtime_error when the host key cannot be used.
    SshServer(const std::string &host_key, const Users &users, const AuthorizedKeys &keys);
    ~SshServer();
    SshServer(const SshServer &) = delete;
    SshServer &operator=(const SshServer &) = delete;

    const Users &users() const { return users_; }
    const AuthorizedKeys &keys() const { return keys_; }
    // Hands `fd` to `session`, with the host key.  libssh reads the key
    // file the first time, into the bind all connections share: one at a
    // time.
    bool accept(ssh_session_struct *session, int fd) const;

private:
    mutable std::mutex accept_mutex_;
    ssh_bind_struct *bind_ = nullptr;
    const Users &users_;
    const AuthorizedKeys &keys_;
};

// One connection, from its accepted socket on; the client's side of its
// relay once logged in.
class SshConnection final : public ClientSide {
public:
    // Takes `fd` over; it stays open until the connection is destroyed.
    SshConnection(const SshServer &server, int fd);
    ~SshConnection() override;

    // Takes the client through the key exchange, authentication and the
    // netconf subsystem of a session channel; false when it did not get
    // that far (refused, gone, or its socket shut down by the agent).
    // Each wait of libssh lasts `timeout_s` at most.
    bool login(long timeout_s, const LoginGate &gate);
    const std::string &user() const { return user_; }

    // Once logged in, nothing waits: what the relay writes goes as the
    // client's window and the socket take it, libssh holding at most one
    // piece of it at a time.
    int fd() const override { return fd_; }
    long read(char *buffer, std::size_t size) override;
    long write(std::string_view data) override;
    short write_events() override;
    bool flushed() override;
    bool pending() override;
    void finish(int status) override;
    void refuse(const std::string &why) override;

    struct Login; // what the callbacks of libssh see during login

private:
    const SshServer &server_;
    int fd_;
    ssh_session_struct *session_ = nullptr;
    ssh_channel_struct *channel_ = nullptr;
    ssh_event_struct *event_ = nullptr;
    std::string user_;
    std::unique_ptr<Login> login_;
};

} // namespace octunnel::serve
