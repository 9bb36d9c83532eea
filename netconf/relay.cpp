#include "netconf/relay.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace octunnel::serve {
namespace {

// What the relay holds for libnetconf2 before it reads from the client
// again: beyond this, the client waits (one message may go past it).
constexpr std::size_t backlog = std::size_t{4} << 20;
// While its client has this much unread, the relay takes no more of what
// it sends: the answers would only add to it.
constexpr std::size_t read_pause = std::size_t{1} << 20;
// How long a wait lasts before the relay looks at `stop` again.
constexpr int tick_ms = 200;
// Once a session is over, how long its client has to take what is left
// for it while it takes nothing.
constexpr auto linger = std::chrono::seconds(30);
// A queue is moved to its start once this much of it is sent, and more than
// half: each byte is moved a bounded number of times.
constexpr std::size_t compact_after = std::size_t{1} << 20;

void compact(std::string &queue, std::size_t &done)
{
    if (done == queue.size()) {
        // A queue that held a large message gives its room back: the
        // session may send nothing as large again.
        if (queue.capacity() > compact_after)
            std::string().swap(queue);
        else
            queue.clear();
        done = 0;
    } else if (done >= compact_after && done > queue.size() / 2) {
        queue.erase(0, done);
        done = 0;
    }
}

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
        if (n == 0)
            return end_of_input;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        return gone;
    }
}

long SocketSide::write(std::string_view data)
{
    for (;;) {
        const ssize_t w = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
        if (w >= 0)
            return w;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        return gone;
    }
}

void relay(ClientSide &client, int agent, const RelayLimits &limits, const std::atomic<bool> &stop,
           const RelayEvents &events, Screen screen)
{
    fcntl(agent, F_SETFL, fcntl(agent, F_GETFL) | O_NONBLOCK);
    SessionGuard guard(limits.max_message, std::move(screen), limits.budget);
    // The queues both ways, and how much of each is sent.
    SessionGuard::Out out;
    std::size_t sent = 0, written = 0;
    // What the client sent that the guard has not taken yet.
    std::vector<char> input(65536);
    std::size_t in_at = 0, in_end = 0;
    std::vector<char> buffer(65536);
    bool hearing = true; // the client takes what is written to it
    bool sending = true; // ... and sends more
    bool agent_open = true;
    bool hello_asked = false;
    bool refused_session = false;
    bool dropped = false; // ended for answers left unread: nothing more is sent
    uint64_t refused = 0, denied = 0;
    // Told before the answers go, so that the client never reads a count
    // that lacks them.
    const auto tell = [&] {
        for (; refused < guard.refused(); ++refused)
            if (events.refused)
                events.refused();
        for (; denied < guard.denied(); ++denied)
            if (events.denied)
                events.denied();
    };
    const auto unread = [&] { return out.to_client.size() - written; };
    const auto to_client = [&] {
        while (hearing && written < out.to_client.size()) {
            const long w = client.write(std::string_view(out.to_client).substr(written));
            if (w == ClientSide::gone)
                hearing = false;
            if (w <= 0)
                break;
            written += static_cast<std::size_t>(w);
        }
        compact(out.to_client, written);
    };

    // Whether to take more of the client now.
    const auto reading = [&] {
        return sending && guard.taking() && out.to_agent.size() - sent < backlog &&
               unread() < read_pause;
    };

    while (!stop) {
        // What the client sent, as the guard takes it and libnetconf2
        // keeps up.
        while (reading()) {
            if (in_at == in_end) {
                const long n = client.read(input.data(), input.size());
                if (n == ClientSide::gone)
                    sending = hearing = false;
                else if (n == ClientSide::end_of_input)
                    sending = false;
                if (n <= 0)
                    break;
                in_at = 0;
                in_end = static_cast<std::size_t>(n);
            }
            in_at += guard.from_client({input.data() + in_at, in_end - in_at}, out);
            tell();
            if (!hello_asked && guard.hello_done()) {
                hello_asked = true;
                if (events.hello) {
                    if (auto why = events.hello()) {
                        client.refuse(*why);
                        refused_session = true;
                        break;
                    }
                }
            }
        }
        if (refused_session)
            break;
        // What libnetconf2 wrote, taken at once, whoever waits for it.
        while (agent_open) {
            const ssize_t n = ::read(agent, buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                break;
            if (n <= 0) {
                agent_open = false; // libnetconf2 ended the session
                break;
            }
            guard.from_agent({buffer.data(), static_cast<std::size_t>(n)}, out);
            tell();
        }
        if (unread() > limits.max_unread) {
            if (events.log)
                events.log("its client left more than " + std::to_string(limits.max_unread) +
                           " bytes of answers unread");
            dropped = true;
            break;
        }
        to_client();
        if (guard.ended()) {
            if (guard.bad_hello() && events.bad_hello)
                events.bad_hello();
            if (events.log)
                events.log("its client sent " + guard.reason());
            break;
        }
        // What libnetconf2 is to read.
        while (agent_open && sent < out.to_agent.size()) {
            const ssize_t w =
                ::send(agent, out.to_agent.data() + sent, out.to_agent.size() - sent, MSG_NOSIGNAL);
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                break;
            if (w <= 0) {
                agent_open = false;
                break;
            }
            sent += static_cast<std::size_t>(w);
        }
        compact(out.to_agent, sent);
        // No one to answer, or nothing more to: everything the client sent
        // before its end of input is answered.
        if (!hearing || !agent_open)
            break;
        if (!sending && guard.unanswered() == 0 && !guard.answers_waiting() &&
            sent == out.to_agent.size())
            break;

        if (reading() && client.pending())
            continue;
        short want = reading() ? POLLIN : 0;
        if (written < out.to_client.size() || !client.flushed())
            want |= client.write_events();
        // A client whose side is shut down shows it at every wait: it is
        // waited on only for what is asked of it.
        pollfd p[2] = {
            {agent, static_cast<short>(POLLIN | (sent < out.to_agent.size() ? POLLOUT : 0)), 0},
            {want != 0 ? client.fd() : -1, want, 0}};
        if (poll(p, 2, tick_ms) < 0 && errno != EINTR)
            break;
    }

    // libnetconf2 sees the session end now, so that none of its threads
    // waits on this one while the client takes what is left.
    shutdown(agent, SHUT_RDWR);
    close(agent);
    // What is left for the client goes, unless it is gone, it was dropped
    // for what it left unread, or the agent stops; a client that takes
    // nothing for a while is left.
    if (!dropped && !refused_session) {
        auto last = std::chrono::steady_clock::now();
        while (!stop && hearing && (written < out.to_client.size() || !client.flushed())) {
            const std::size_t before = written;
            if (written < out.to_client.size())
                to_client();
            else if (client.write({}) == ClientSide::gone)
                hearing = false;
            if (written != before)
                last = std::chrono::steady_clock::now();
            else if (std::chrono::steady_clock::now() - last > linger)
                break;
            if (!hearing || (written == out.to_client.size() && client.flushed()))
                break;
            pollfd p{client.fd(), client.write_events(), 0};
            if (poll(&p, 1, tick_ms) < 0 && errno != EINTR)
                break;
        }
        if (hearing)
            client.finish(guard.ended() ? 1 : 0);
    }
}

} // namespace octunnel::serve
