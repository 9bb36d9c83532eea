// Who may begin a login, and how fast a source may fail at it: per-source
// accounting of the connections that have not logged in yet and of failed
// attempts, for any front that logs clients in.  It knows sources by
// address alone, nothing of the protocol.
//
// - Connections that have not logged in are bounded per source and in all;
//   between `start` and `full` of them a new one is dropped at random, with
//   a chance that rises from `rate` percent to 100 (as OpenSSH's
//   MaxStartups), so that no client, whatever it holds, keeps the others
//   from a login for sure.
// - Each source has a penalty, a time that runs down by one second each
//   second.  A failed attempt costs its source `penalty`: charged before
//   the credential is checked and given back when it was right, so that
//   attempts made at once cannot all slip in before it.  An attempt is
//   checked only while its cost fits under `burst` times `penalty`; once it
//   does not, the source is refused (its connections and their attempts)
//   until its penalty has run out.  So the n-th failure of a source comes
//   no sooner than (n - burst) * penalty after its first, however many
//   connections it spreads them over.  The user guessed at is never locked
//   out: other sources log in as that user all along.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include <sys/socket.h>

namespace octunnel::serve {

using Clock = std::chrono::steady_clock;

// Where a connection comes from, as the accounting knows it.
struct Source {
    // What is counted: an IPv4 address, or the /64 an IPv6 address lies in
    // ("2001:db8:1:2::/64"), the least one site is given, so that the 2^64
    // addresses of one attacker count once.  IPv4-mapped IPv6 addresses
    // count as IPv4.  Empty for what is not IP.
    std::string key;
    // The client's own address as text, IPv4-mapped ones as IPv4: what
    // address patterns are matched against.
    std::string address;
};
Source source_of(const sockaddr *address, socklen_t size);

// MaxStartups: connections that have not logged in, in all.
struct Startups {
    unsigned start = 20; // below it, none is dropped
    unsigned rate = 30;  // percent dropped at `start`, rising to 100 at `full`
    unsigned full = 80;  // at it, every new one is dropped
};
// "START:RATE:FULL", or "N" for a bound without random drops; throws
// std::invalid_argument naming `option`.
Startups parse_startups(const std::string &text, const std::string &option);

// SECONDS, with a fraction if need be, 0 to 60; throws
// std::invalid_argument naming `option`.
std::chrono::milliseconds parse_seconds(const std::string &text, const std::string &option);

struct AdmissionLimits {
    Startups startups;
    // Connections of one source that have not logged in: fewer than
    // `startups.start`, so that one source alone never makes others drop.
    unsigned per_source = 10;
    // What a failed attempt costs; zero turns penalties off.
    Clock::duration penalty = std::chrono::seconds(1);
    // Failures in quick succession a source may make before it is refused.
    unsigned burst = 10;
    // The most a penalty grows to: the longest a source is refused after
    // its last failure.
    Clock::duration max_penalty = std::chrono::minutes(10);
    // Sources remembered at most; those beyond share one account.
    std::size_t max_sources = 65536;
};

class Admission {
public:
    enum class Refusal {
        none,
        penalised,   // the source failed too often: refused for a while
        source_busy, // the source has `per_source` connections logging in
        startups,    // dropped by MaxStartups
    };
    struct Verdict {
        Refusal refusal = Refusal::none;
        // Whether the log should tell of it: the first refusal of a kind in
        // a row for a source, and of drops at most one line in 10 s, so
        // that a client cannot flood the log by being refused.
        bool log = false;
        // penalised: for how long still; startups: how many are logging
        // in, and how many were dropped since the last line.
        Clock::duration left{};
        unsigned count = 0, dropped = 0;
        // The account an admitted connection is counted in, to hand to the
        // calls below: its source's own, or the one shared beyond
        // max_sources.
        std::string account;
        explicit operator bool() const { return refusal == Refusal::none; }
    };

    // `now` and `percent` (a number below 100, at random) are the clock
    // and the dice; tests give their own.
    explicit Admission(AdmissionLimits limits, std::function<Clock::time_point()> now = {},
                       std::function<unsigned()> percent = {});

    const AdmissionLimits &limits() const { return limits_; }

    // A connection of `source` that has yet to log in: counted, when
    // admitted, until released.  The calls after it take the account of
    // the verdict.
    Verdict admit(const std::string &source);
    // Its login is over, done or not.
    void release(const std::string &account);
    // Before a credential is checked: refused when the source is
    // penalised, else charged one failure.
    Verdict attempt(const std::string &account);
    // The credential was right: its charge is given back.
    void succeeded(const std::string &account);
    // Charges a failure that no attempt was made for: a connection dropped
    // for saying nothing or for not logging in in time.
    void charge(const std::string &account);

    // Connections logging in, in all and of `source`; `source`'s penalty.
    unsigned logging_in() const;
    unsigned logging_in(const std::string &source) const;
    Clock::duration penalty(const std::string &source) const;
    std::size_t sources() const;

private:
    struct Account {
        unsigned logging_in = 0;
        Clock::time_point paid{};    // when the penalty has run out
        Clock::time_point refused{}; // refused until then
        bool busy_told = false;      // the log heard this source is busy
    };
    using Entry = std::unordered_map<std::string, Account>::value_type;
    Entry &account(const std::string &source, Clock::time_point now);
    void forget(const std::string &source, Clock::time_point now);
    void sweep(Clock::time_point now);
    Clock::duration limit() const { return limits_.penalty * limits_.burst; }
    // Whether `a` is refused now; turns it so when it cannot afford a
    // failure.
    bool penalised(Account &a, Clock::time_point now) const;
    // penalised(), told in `v`.
    bool refuse_penalised(Account &a, Clock::time_point now, Verdict &v) const;

    AdmissionLimits limits_;
    std::function<Clock::time_point()> now_;
    std::function<unsigned()> percent_;
    mutable std::mutex mutex_;
    std::unordered_map<std::string, Account> accounts_;
    unsigned logging_in_ = 0;
    unsigned dropped_ = 0;
    Clock::time_point told_dropped_{};
    Clock::time_point swept_{};
};

// Whether the peer of the TCP socket `fd` has sent nothing at all yet, not
// even the first byte of a protocol's greeting.
bool received_nothing(int fd);

} // namespace octunnel::serve
