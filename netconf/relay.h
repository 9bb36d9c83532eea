// The relay of a session: the client's side (a UNIX socket, or the channel
// of an SSH connection the agent logged in itself) on one end, libnetconf2's
// end of a socket pair on the other, and a SessionGuard between them, so
// that libnetconf2 reads nothing the guard has not checked.
//
// The relay never waits on the client with libnetconf2 waiting on it: what
// libnetconf2 writes is taken off the socket pair as it comes and queued for
// the client, who takes it at its own pace, within a bound (max_unread)
// past which its session ends.  libnetconf2's threads, which every session
// shares, so never block on a client that does not read.
#pragma once

#include "netconf/guard.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>

namespace octunnel::serve {

// A client as the relay sees it.  Nothing here waits.
class ClientSide {
public:
    // What read() and write() say of a client that is gone, and read() of
    // one that sends no more but still hears (an SSH channel's EOF, a
    // socket shut down for writing).
    static constexpr long gone = -1;
    static constexpr long end_of_input = -2;

    virtual ~ClientSide() = default;
    // The descriptor to wait on.
    virtual int fd() const = 0;
    // What the client sent: a count of bytes, 0 for nothing yet, gone or
    // end_of_input.
    virtual long read(char *buffer, std::size_t size) = 0;
    // Sends what the client takes now of `data`: a count of bytes (0:
    // nothing now), or gone.
    virtual long write(std::string_view data) = 0;
    // What to wait on fd() for before write() takes more (POLLOUT, and
    // POLLIN where the client must say first that it takes more).
    virtual short write_events() { return POLLOUT; }
    // Whether all that write() took is on its way to the client, none of it
    // held by the transport.
    virtual bool flushed() { return true; }
    // Whether bytes are waiting that fd() would not show.
    virtual bool pending() { return false; }
    // The session ended, every answer sent: the client hears that it is
    // over where its transport says so (an SSH channel's exit status: 0,
    // or 1 when the session ended for what the client sent).
    virtual void finish(int status) { (void)status; }
    // The session is refused before it began, for `why`: told to the client
    // where the transport has a place for it beside NETCONF.
    virtual void refuse(const std::string &why) { (void)why; }
};

// A client on a stream socket, which it owns.
class SocketSide final : public ClientSide {
public:
    explicit SocketSide(int fd);
    ~SocketSide() override;
    int fd() const override { return fd_; }
    long read(char *buffer, std::size_t size) override;
    long write(std::string_view data) override;

private:
    int fd_;
};

// What libnetconf2 answered and the client has not taken, at most, by
// default: five times the largest answer measured (a <get> of 10,000
// tunnel interfaces, 12.4 MB).
inline constexpr std::size_t default_max_unread = std::size_t{64} << 20;

struct RelayLimits {
    // The largest message the guard takes from the client.
    std::size_t max_message = 0;
    // What the client may leave unread before its session ends.
    std::size_t max_unread = default_max_unread;
    // What the requests of all sessions may hold; none: no bound but theirs.
    RequestBudget *budget = nullptr;
};

// What a relay tells of its session as it goes; each may be left empty.
struct RelayEvents {
    // Why the relay ended the client's session, for the log.
    std::function<void(const std::string &)> log;
    // The guard answered a message with an <rpc-error> itself: one that
    // was no correct <rpc>.
    std::function<void()> refused;
    // The guard answered a request resource-denied, the budget spent.
    std::function<void()> denied;
    // The session ends on a hello that is not one.
    std::function<void()> bad_hello;
    // The client said hello: a reason to refuse the session, or none to go
    // on.  Asked once, before libnetconf2 hears the hello.
    std::function<std::optional<std::string>()> hello;
};

// Relays between `client` and `agent` (libnetconf2's end of a socket pair)
// through a guard, until either side ends, the guard ends the session, the
// client leaves more than `limits.max_unread` unread, or `stop` is set.
// Once the client sends no more, what it sent before is answered, every
// answer sent, and only then does the session end.  Shuts `agent` down, so
// that libnetconf2 sees the session end; `screen` is the guard's
// (guard.h).
void relay(ClientSide &client, int agent, const RelayLimits &limits, const std::atomic<bool> &stop,
           const RelayEvents &events, Screen screen = {});

} // namespace octunnel::serve
