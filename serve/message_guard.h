// Guards in front of libnetconf2 2.0, for what a client can send that it
// does not survive (see message_guard.cpp).
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace octunnel::serve {

// From now on, a session over SSH whose client breaks the framing or sends
// a message larger than `max_message` bytes is closed (a message too large
// answered with too-big first), and `log` hears why.
void guard_messages(std::size_t max_message, std::function<void(const std::string &)> log);

} // namespace octunnel::serve
