#include "relay.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace octunnel::serve {
namespace {

// What the relay holds for libnetconf2 before it reads from the client
// again: beyond this, the client waits (one message may go past it).
constexpr std::size_t backlog = std::size_t{4} << 20;
// How long a wait lasts before the relay looks at `stop` again.
constexpr int tick_ms = 200;

} // namespace

SocketSide::SocketSide(int fd) : fd_(fd)
{
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
}

SocketSide::~SocketSide()
{
    close(fd_);
}

long SocketSide::read(char *buffer, std::size_t size)
{
    for (;;) {
        const ssize_t n = ::read(fd_, buffer, size);
        if (n > 0)
            return n;
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return 0;
        return -1;
    }
}

bool SocketSide::write(std::string_view data)
{
    while (!data.empty()) {
        const ssize_t w = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
        if (w > 0) {
            data.remove_prefix(static_cast<std::size_t>(w));
            continue;
        }
        if (w < 0 && errno == EINTR)
            continue;
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{fd_, POLLOUT, 0};
            if (poll(&p, 1, -1) < 0 && errno != EINTR)
                return false;
            continue;
        }
        return false;
    }
    return true;
}

void relay(ClientSide &client, int agent, std::size_t max_message, const std::atomic<bool> &stop,
           const RelayEvents &events, Screen screen)
{
    fcntl(agent, F_SETFL, fcntl(agent, F_GETFL) | O_NONBLOCK);
    SessionGuard guard(max_message, std::move(screen));
    SessionGuard::Out out;
    std::string to_agent;
    std::size_t sent = 0; // of to_agent
    std::vector<char> buffer(65536);
    bool open = true;
    uint64_t refused = 0; // of the guard's answers, those told of
    const auto to_client = [&] {
        // Told before the answer goes, so that the client never reads a
        // count that lacks it.
        for (; refused < guard.refused(); ++refused)
            if (events.refused)
                events.refused();
        if (!out.to_client.empty() && !client.write(out.to_client))
            open = false;
        out.to_client.clear();
        if (!out.to_agent.empty()) {
            to_agent += out.to_agent;
            out.to_agent.clear();
        }
    };
    while (open && !stop) {
        // What the client sent, while libnetconf2 keeps up.
        while (open && !guard.closing() && to_agent.size() - sent < backlog) {
            const long n = client.read(buffer.data(), buffer.size());
            if (n < 0)
                open = false;
            if (n <= 0)
                break;
            guard.from_client({buffer.data(), static_cast<std::size_t>(n)}, out);
            to_client();
        }
        // What libnetconf2 answered.
        while (open) {
            const ssize_t n = ::read(agent, buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                break;
            if (n <= 0) {
                open = false; // libnetconf2 ended the session
                break;
            }
            guard.from_agent({buffer.data(), static_cast<std::size_t>(n)}, out);
            to_client();
        }
        if (guard.ended()) {
            if (guard.bad_hello() && events.bad_hello)
                events.bad_hello();
            if (events.log)
                events.log("a session ends: its client sent " + guard.reason());
            break;
        }
        // What libnetconf2 is to read.
        while (open && sent < to_agent.size()) {
            const ssize_t w =
                ::send(agent, to_agent.data() + sent, to_agent.size() - sent, MSG_NOSIGNAL);
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                break;
            if (w <= 0) {
                open = false;
                break;
            }
            sent += static_cast<std::size_t>(w);
        }
        if (sent == to_agent.size()) {
            to_agent.clear();
            sent = 0;
        }
        if (!open)
            break;
        const bool reading = !guard.closing() && to_agent.size() - sent < backlog;
        pollfd p[2] = {
            {agent, static_cast<short>(POLLIN | (sent < to_agent.size() ? POLLOUT : 0)), 0},
            {client.fd(), static_cast<short>(reading ? POLLIN : 0), 0}};
        if (reading && client.pending())
            continue;
        if (poll(p, 2, tick_ms) < 0 && errno != EINTR)
            break;
    }
    shutdown(agent, SHUT_RDWR);
    close(agent);
}

} // namespace octunnel::serve
