// What a client sends, checked before libnetconf2 reads a byte of it.  The
// relay between a client and libnetconf2 passes both directions of a
// session through a SessionGuard:
//
// - the framing (RFC 6242): messages ended by "]]>]]>" until both sides have
//   said hello with base:1.1, chunks after.  A broken frame (a chunk of size
//   0, an end mark before any chunk, a size that is no number) ends the
//   session, as does a hello that is not one;
// - the size: a message larger than the limit is answered too-big, and the
//   session ends;
// - the content: a message is handed on only when it is a well-formed XML
//   document in UTF-8, without a document type declaration, whose root is a
//   NETCONF <rpc> with a message-id and an operation, nested no deeper than
//   max_message_depth.  Any other is answered here and the session goes on:
//   malformed-message (on a base:1.0 session operation-failed, since RFC 6241
//   keeps malformed-message from clients of base:1.0 alone),
//   missing-attribute, missing-element or too-big.
//
// An <rpc> that passes these checks may still be screened (Screen, below):
// the guard then answers it with the screen's reply instead of handing it
// on, in the same order.
//
// Memory stays bounded whatever the client sends: the guard's own answers
// that wait for libnetconf2's take at most max_waiting bytes (beyond them it
// takes no more of the client until they go), and the bytes of every
// request taken and not yet answered count against a RequestBudget shared
// by all sessions: a message that would pass it is read to its end without
// being kept and answered resource-denied, and the session goes on.
//
// libnetconf2 gets each message whole and framed anew, so that it never
// reads a frame of the client's; the client's hello reaches it rewritten to
// the base capabilities the guard chose, so that both agree on the framing.
// The guard's own answers reach the client in order: after libnetconf2's
// answers to every request handed on before.
//
// Nothing here touches a socket: the relay moves the bytes, and tests and
// the fuzzer drive the guard alone.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace octunnel::serve {

inline constexpr std::string_view netconf_ns = "urn:ietf:params:xml:ns:netconf:base:1.0";
inline constexpr std::string_view base10 = "urn:ietf:params:netconf:base:1.0";
inline constexpr std::string_view base11 = "urn:ietf:params:netconf:base:1.1";

// The elements a message may nest, the <rpc> itself counted.
inline constexpr int max_message_depth = 200;
// A hello says little: far less than this.
inline constexpr std::size_t max_hello = std::size_t{1} << 20;
// The guard's own answers waiting for libnetconf2's, at most: about 2,500
// of them.
inline constexpr std::size_t max_waiting = std::size_t{1} << 20;
// Of a message refused for the budget, what is kept to find its message-id.
inline constexpr std::size_t max_refused_head = std::size_t{64} << 10;

// The bytes of requests taken from clients and not yet answered, across all
// sessions, against a limit.  Hellos are not counted: they are bounded
// apart (max_hello, one a connection).
class RequestBudget {
public:
    explicit RequestBudget(std::size_t limit) : limit_(limit) {}
    // Takes `n` bytes; false, taking none, when they would pass the limit.
    bool take(std::size_t n);
    void give_back(std::size_t n) { held_.fetch_sub(n, std::memory_order_relaxed); }
    std::size_t held() const { return held_.load(std::memory_order_relaxed); }
    std::size_t limit() const { return limit_; }

private:
    std::atomic<std::size_t> held_{0};
    const std::size_t limit_;
};

// What the content of one message is, as far as the guard is concerned.
struct MessageCheck {
    bool ok = false;         // an <rpc> to hand on (or a hello, for a hello)
    std::string tag;         // otherwise the error-tag to answer, none: end the session
    std::string message;     // what is wrong, one line
    std::string message_id;  // of the <rpc>, when it has one
    bool base10 = false;     // a hello: whether it offers base:1.0
    bool base11 = false;     // ... and base:1.1
    std::string bad_element; // error-info of missing-*
    std::string bad_attribute;
};

// Checks the content of a message from a client: the first of a session
// (`hello`) or a later one.
MessageCheck check_message(std::string_view text, bool hello);

// The message-id of the <rpc> a message starts with, from as much of it as
// there is; empty when its start tag is not all there or has none.
std::string message_id_of_head(std::string_view head);

// An <rpc-reply> of one <rpc-error> of type rpc (protocol for too-big and
// missing-*), XML text.
std::string error_reply(const MessageCheck &c);

// Looks at an <rpc> the guard would hand on (its text, and its message-id):
// the text of the <rpc-reply> to answer it with instead, or none to hand it
// on.
using Screen = std::function<std::optional<std::string>(const std::string &message,
                                                        const std::string &message_id)>;

class SessionGuard {
public:
    // `max_message`: the largest message taken from the client, in bytes;
    // `budget`, when given, what the requests of all sessions may hold.
    explicit SessionGuard(std::size_t max_message, Screen screen = {},
                          RequestBudget *budget = nullptr)
        : max_(max_message), screen_(std::move(screen)), charge_(budget)
    {
    }

    // Appended to by from_client and from_agent: what goes to libnetconf2
    // and what to the client.
    struct Out {
        std::string to_agent;
        std::string to_client;
    };

    // Bytes the client sent; returns how many were taken.  The rest waits
    // while the guard's own answers fill max_waiting (they go as
    // libnetconf2 answers), or once a call made max_waiting of them due,
    // and is never taken once the session ends or is ending.
    std::size_t from_client(std::string_view bytes, Out &out);
    // Bytes libnetconf2 sent, on their way to the client, with the guard's
    // answers that were waiting for them.
    void from_agent(std::string_view bytes, Out &out);

    // Whether the session ends as soon as `to_client` is sent.
    bool ended() const { return ended_; }
    // Whether the guard takes no more from the client: the session ended,
    // or it ends once libnetconf2 has answered what it was handed.
    bool closing() const { return ended_ || closing_; }
    // Why it ended, for the log.
    const std::string &reason() const { return reason_; }
    bool chunked() const { return chunked_; }
    // Requests handed on that libnetconf2 has not answered yet.
    uint64_t unanswered() const { return handed_on_ - answered_; }
    // The messages the guard answered with an <rpc-error> itself, each one
    // that was no correct <rpc>: counted once the answer is due.
    uint64_t refused() const { return refused_; }
    // Whether the session ended on its hello: one that is no hello, or
    // larger than max_hello.  Nothing else ends a session before it.
    bool bad_hello() const { return ended_ && !hello_done_; }
    // Whether the client's hello was taken (and handed on).
    bool hello_done() const { return hello_done_; }
    // Whether the guard takes more of the client now.
    bool taking() const { return !closing() && waiting_bytes_ < max_waiting; }
    // Whether answers of the guard's own wait for libnetconf2's.
    bool answers_waiting() const { return !waiting_.empty(); }
    // Messages answered resource-denied for the budget.
    uint64_t denied() const { return denied_; }

private:
    // The bytes this session holds of the budget, given back when it ends.
    class Charge {
    public:
        explicit Charge(RequestBudget *budget) : budget_(budget) {}
        Charge(Charge &&o) noexcept : budget_(o.budget_), held_(std::exchange(o.held_, 0)) {}
        Charge &operator=(Charge &&) = delete;
        ~Charge() { give_back(held_); }
        bool take(std::size_t n)
        {
            if (budget_ != nullptr && !budget_->take(n))
                return false;
            held_ += n;
            return true;
        }
        void give_back(std::size_t n)
        {
            if (budget_ != nullptr)
                budget_->give_back(n);
            held_ -= n;
        }
        const RequestBudget *budget() const { return budget_; }

    private:
        RequestBudget *budget_;
        std::size_t held_ = 0;
    };

    void end(std::string why);
    // Counts `n` more bytes of the message in hand against the budget;
    // false past it: the message is refused, and what is kept of it is its
    // head (keep_head).
    bool charge(std::size_t n);
    void keep_head(std::string_view bytes);
    void refuse_for_budget(const std::string &head, Out &out);
    void message_done(Out &out);
    void answer(std::string reply, Out &out);
    void release(Out &out);
    std::string framed(std::string_view message) const;

    std::size_t max_;
    Screen screen_;
    bool hello_done_ = false;
    bool chunked_ = false;
    bool ended_ = false;
    bool closing_ = false;
    std::string reason_;

    // The client's side: the message so far, and where its frames stand.
    enum class In { message, newline, hash, first, digits, end_newline, data };
    In in_ = In::message;
    std::string message_;
    bool has_chunk_ = false;
    uint64_t chunk_size_ = 0;
    int digits_ = 0;
    uint64_t left_ = 0;

    // libnetconf2's side: its messages counted as they end.  Its first is
    // its hello; then one answer for each request handed on, and the event
    // notifications of a subscription among them, which answer nothing:
    // told apart by the head of the message (back_head_, its first bytes
    // but for blanks).
    enum class Back { message, newline, hash, first, digits, end_newline, data };
    Back back_ = Back::message;
    std::size_t back_matched_ = 0;
    uint64_t back_left_ = 0;
    bool agent_hello_done_ = false;
    char back_head_[13] = {};
    std::size_t back_head_size_ = 0;
    void back_head(std::string_view bytes);

    // The budget: what the message in hand holds of it, whether that message
    // is refused for it (and how large it is then, kept or not), and what
    // each request handed on holds until libnetconf2 answers it.
    Charge charge_;
    std::size_t charged_ = 0;
    bool over_budget_ = false;
    std::size_t size_ = 0;
    std::size_t matched_ = 0; // of the end mark, in a message not kept
    std::deque<std::size_t> in_flight_;
    uint64_t denied_ = 0;

    uint64_t handed_on_ = 0;
    uint64_t answered_ = 0;
    uint64_t refused_ = 0;
    std::size_t waiting_bytes_ = 0;
    // The guard's own answers, each due once libnetconf2 has answered
    // `after` requests.
    struct Waiting {
        uint64_t after;
        std::string text;
        bool then_end;
    };
    std::deque<Waiting> waiting_;
};

} // namespace octunnel::serve
