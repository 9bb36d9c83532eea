// The relay of a session: the client's side (a UNIX socket, or the channel
// of an SSH connection the agent logged in itself) on one end, libnetconf2's
// end of a socket pair on the other, and a SessionGuard between them, so
// that libnetconf2 reads nothing the guard has not checked.
#pragma once

#include "guard.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace octunnel::serve {

// A client as the relay sees it.
class ClientSide {
public:
    virtual ~ClientSide() = default;
    // The descriptor to wait on for what the client sends.
    virtual int fd() const = 0;
    // What the client sent, without waiting: a count of bytes, 0 for
    // nothing yet, -1 once it is gone.
    virtual long read(char *buffer, std::size_t size) = 0;
    // Sends all of `data`, waiting while the client does not take it;
    // false once it is gone.
    virtual bool write(std::string_view data) = 0;
    // Whether bytes are waiting that fd() would not show.
    virtual bool pending() { return false; }
};

// A client on a stream socket, which it owns.
class SocketSide final : public ClientSide {
public:
    explicit SocketSide(int fd);
    ~SocketSide() override;
    int fd() const override { return fd_; }
    long read(char *buffer, std::size_t size) override;
    bool write(std::string_view data) override;

private:
    int fd_;
};

// What a relay tells of its session as it goes; each may be left empty.
struct RelayEvents {
    // Why the guard ended the client's session, for the log.
    std::function<void(const std::string &)> log;
    // The guard answered a message with an <rpc-error> itself: one that
    // was no correct <rpc>.
    std::function<void()> refused;
    // The session ends on a hello that is not one.
    std::function<void()> bad_hello;
};

// Relays between `client` and `agent` (libnetconf2's end of a socket pair)
// through a guard of messages up to `max_message` bytes, until either side
// ends, the guard ends the session, or `stop` is set.  Shuts `agent` down,
// so that libnetconf2 sees the session end; `screen` is the guard's
// (guard.h).
void relay(ClientSide &client, int agent, std::size_t max_message, const std::atomic<bool> &stop,
           const RelayEvents &events, Screen screen = {});

} // namespace octunnel::serve
