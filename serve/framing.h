// The frames of NETCONF over a stream (RFC 6242): messages ended by
// "]]>]]>" until both peers have said hello with base:1.1, chunks after.
// A guard reads what a client sends before the protocol library does, and
// says when the framing is broken or a message too large, so that the
// session is ended before the library reads one byte of it.  (libnetconf2
// 2.0 dies on a chunk header of size 0 and holds a message of any size in
// memory.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace octunnel::serve {

class FramingGuard {
public:
    enum class Verdict { ok, malformed, too_big };

    // `max_message`: the largest message taken, in bytes.
    explicit FramingGuard(std::size_t max_message) : max_(max_message) {}

    // Passes the next bytes the client sent.  Once it says other than ok,
    // it says so for every byte after.
    Verdict pass(std::string_view bytes);
    // What was wrong, for the log.
    const std::string &reason() const { return reason_; }
    bool chunked() const { return state_ != State::end_of_message; }

private:
    enum class State {
        end_of_message, // "]]>]]>" ends a message
        chunk_newline,  // "\n#" starts a chunk header (or the end mark)
        chunk_hash,
        chunk_first,  // the first character after "\n#": a digit or '#'
        chunk_digits, // the chunk size, until "\n"
        end_newline,  // after "\n##": "\n"
        chunk_data,
    };
    Verdict fail(Verdict v, std::string why);

    std::size_t max_;
    State state_ = State::end_of_message;
    Verdict verdict_ = Verdict::ok;
    std::string reason_;
    // End-of-message framing: how much of "]]>]]>" was last seen, and the
    // message so far (kept only for the first: the client's hello).
    std::size_t matched_ = 0;
    std::size_t message_ = 0;
    bool hello_ = true;
    std::string hello_text_;
    // Chunked framing.
    uint64_t chunk_size_ = 0;
    int digits_ = 0;
    uint64_t left_ = 0;
    bool has_chunk_ = false;
};

} // namespace octunnel::serve
