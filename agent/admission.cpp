#include "agent/admission.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstddef>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <random>
#include <stdexcept>
#include <vector>

namespace octunnel::serve {
namespace {

// The account that sources share once max_sources are remembered: no
// address text has parentheses.
constexpr const char overflow[] = "(other sources)";

// How often the log tells of random drops, and how often accounts with
// nothing left in them are looked for when no source asks.
constexpr auto tell_drops_every = std::chrono::seconds(10);
constexpr auto sweep_every = std::chrono::seconds(60);

unsigned number(const std::string &text, const std::string &option, const std::string &whole)
{
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        throw std::invalid_argument(option + " " + whole +
                                    ": not START:RATE:FULL (three numbers, or one)");
    return static_cast<unsigned>(std::stoul(text));
}

} // namespace

Source source_of(const sockaddr *address, socklen_t size)
{
    char text[INET6_ADDRSTRLEN] = "";
    Source s;
    if (address->sa_family == AF_INET && size >= sizeof(sockaddr_in)) {
        const auto *in = reinterpret_cast<const sockaddr_in *>(address);
        inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
        s.address = s.key = text;
    } else if (address->sa_family == AF_INET6 && size >= sizeof(sockaddr_in6)) {
        in6_addr a = reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&a)) {
            inet_ntop(AF_INET, &a.s6_addr[12], text, sizeof text);
            s.address = s.key = text;
        } else {
            inet_ntop(AF_INET6, &a, text, sizeof text);
            s.address = text;
            std::fill(std::begin(a.s6_addr) + 8, std::end(a.s6_addr), 0);
            inet_ntop(AF_INET6, &a, text, sizeof text);
            s.key = std::string(text) + "/64";
        }
    }
    return s;
}

Startups parse_startups(const std::string &text, const std::string &option)
{
    std::vector<std::string> parts(1);
    for (char c : text) {
        if (c == ':')
            parts.emplace_back();
        else
            parts.back() += c;
    }
    Startups s;
    if (parts.size() == 1) {
        s.start = s.full = number(parts[0], option, text);
        s.rate = 100;
    } else if (parts.size() == 3) {
        s.start = number(parts[0], option, text);
        s.rate = number(parts[1], option, text);
        s.full = number(parts[2], option, text);
    } else {
        number("", option, text);
    }
    if (s.start < 1 || s.start > s.full || s.rate > 100 || s.full > 10000)
        throw std::invalid_argument(option + " " + text +
                                    ": START at least 1 and at most FULL, RATE a percentage, "
                                    "FULL at most 10000");
    return s;
}

std::chrono::milliseconds parse_seconds(const std::string &text, const std::string &option)
{
    const auto dot = text.find('.');
    const std::string whole = text.substr(0, dot),
                      fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
    if (whole.empty() || whole.size() > 2 ||
        whole.find_first_not_of("0123456789") != std::string::npos || fraction.size() > 3 ||
        fraction.find_first_not_of("0123456789") != std::string::npos ||
        (dot != std::string::npos && fraction.empty()))
        throw std::invalid_argument(option + " " + text +
                                    ": not a number of seconds (to the millisecond)");
    const long ms = std::stol(whole) * 1000 +
                    (fraction.empty() ? 0 : std::stol((fraction + "00").substr(0, 3)));
    if (ms > 60000)
        throw std::invalid_argument(option + " " + text + ": more than 60 s");
    return std::chrono::milliseconds(ms);
}

Admission::Admission(AdmissionLimits limits, std::function<Clock::time_point()> now,
                     std::function<unsigned()> percent)
    : limits_(limits), now_(std::move(now)), percent_(std::move(percent))
{
    limits_.burst = std::max(1u, limits_.burst);
    limits_.max_penalty = std::max(limits_.max_penalty, limit());
    if (!now_)
        now_ = [] { return Clock::now(); };
    if (!percent_)
        percent_ = [dice = std::mt19937(std::random_device{}())]() mutable {
            return static_cast<unsigned>(std::uniform_int_distribution<unsigned>(0, 99)(dice));
        };
}

Admission::Entry &Admission::account(const std::string &source, Clock::time_point now)
{
    if (auto it = accounts_.find(source); it != accounts_.end())
        return *it;
    // A sweep when full, at most once a second: the table never costs more
    // than a look at each account a second.
    if (accounts_.size() >= limits_.max_sources && now - swept_ >= std::chrono::seconds(1))
        sweep(now);
    return *accounts_.try_emplace(accounts_.size() >= limits_.max_sources ? overflow : source)
                .first;
}

void Admission::forget(const std::string &account, Clock::time_point now)
{
    auto it = accounts_.find(account);
    if (it != accounts_.end() && it->second.logging_in == 0 && it->second.paid <= now &&
        it->second.refused <= now)
        accounts_.erase(it);
}

void Admission::sweep(Clock::time_point now)
{
    swept_ = now;
    std::erase_if(accounts_, [now](const auto &entry) {
        const Account &a = entry.second;
        return a.logging_in == 0 && a.paid <= now && a.refused <= now;
    });
}

bool Admission::penalised(Account &a, Clock::time_point now) const
{
    if (limits_.penalty <= Clock::duration::zero())
        return false;
    if (now < a.refused)
        return true;
    const Clock::duration owed = a.paid > now ? a.paid - now : Clock::duration::zero();
    if (owed + limits_.penalty <= limit())
        return false;
    a.refused = a.paid;
    return true;
}

bool Admission::refuse_penalised(Account &a, Clock::time_point now, Verdict &v) const
{
    const bool was_refused = now < a.refused;
    if (!penalised(a, now))
        return false;
    v.refusal = Refusal::penalised;
    v.log = !was_refused; // once, as the refusal begins
    v.left = a.refused - now;
    return true;
}

Admission::Verdict Admission::admit(const std::string &source)
{
    std::lock_guard guard(mutex_);
    const Clock::time_point now = now_();
    if (now - swept_ >= sweep_every)
        sweep(now);
    auto &[key, a] = account(source, now);
    Verdict v;
    v.account = key;
    if (refuse_penalised(a, now, v))
        return v;
    if (a.logging_in >= limits_.per_source) {
        v.refusal = Refusal::source_busy;
        v.log = !a.busy_told;
        a.busy_told = true;
        v.count = a.logging_in;
        return v;
    }
    const Startups &s = limits_.startups;
    if (logging_in_ >= s.start) {
        unsigned chance = 100;
        if (logging_in_ < s.full)
            chance = s.rate + (100 - s.rate) * (logging_in_ - s.start) / (s.full - s.start);
        if (percent_() < chance) {
            v.refusal = Refusal::startups;
            v.count = logging_in_;
            v.dropped = ++dropped_;
            if (now - told_dropped_ >= tell_drops_every || told_dropped_ == Clock::time_point{}) {
                v.log = true;
                told_dropped_ = now;
                dropped_ = 0;
            }
            forget(key, now);
            return v;
        }
    }
    ++a.logging_in;
    ++logging_in_;
    return v;
}

void Admission::release(const std::string &account)
{
    std::lock_guard guard(mutex_);
    const Clock::time_point now = now_();
    auto it = accounts_.find(account);
    if (it == accounts_.end() || it->second.logging_in == 0)
        return;
    --logging_in_;
    if (--it->second.logging_in < limits_.per_source)
        it->second.busy_told = false;
    forget(it->first, now);
}

Admission::Verdict Admission::attempt(const std::string &source)
{
    std::lock_guard guard(mutex_);
    Verdict v;
    v.account = source;
    if (limits_.penalty <= Clock::duration::zero())
        return v;
    const Clock::time_point now = now_();
    Account &a = account(source, now).second;
    if (refuse_penalised(a, now, v))
        return v;
    a.paid = std::max(a.paid, now) + limits_.penalty;
    return v;
}

void Admission::succeeded(const std::string &source)
{
    std::lock_guard guard(mutex_);
    if (limits_.penalty <= Clock::duration::zero())
        return;
    if (auto it = accounts_.find(source); it != accounts_.end())
        it->second.paid -= limits_.penalty;
}

void Admission::charge(const std::string &source)
{
    std::lock_guard guard(mutex_);
    if (limits_.penalty <= Clock::duration::zero())
        return;
    const Clock::time_point now = now_();
    Account &a = account(source, now).second;
    a.paid = std::min(std::max(a.paid, now) + limits_.penalty, now + limits_.max_penalty);
}

unsigned Admission::logging_in() const
{
    std::lock_guard guard(mutex_);
    return logging_in_;
}

unsigned Admission::logging_in(const std::string &source) const
{
    std::lock_guard guard(mutex_);
    auto it = accounts_.find(source);
    return it != accounts_.end() ? it->second.logging_in : 0;
}

Clock::duration Admission::penalty(const std::string &source) const
{
    std::lock_guard guard(mutex_);
    const Clock::time_point now = now_();
    auto it = accounts_.find(source);
    return it != accounts_.end() && it->second.paid > now ? it->second.paid - now
                                                          : Clock::duration::zero();
}

std::size_t Admission::sources() const
{
    std::lock_guard guard(mutex_);
    return accounts_.size();
}

bool received_nothing(int fd)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0 ||
        size < offsetof(tcp_info, tcpi_bytes_received) + sizeof info.tcpi_bytes_received)
        return false;
    return info.tcpi_bytes_received == 0;
}

} // namespace octunnel::serve
